#include "QVDGainKernel.h"

#include <cmath>

#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>

namespace qvd::gain {

void scalarChannel(const KernelArgs& args, std::int32_t c, std::int32_t from) noexcept
{
    const float* in = args.inputs[c];
    float* out = args.outputs[c];
    const double a = args.a;
    const double bt = args.bt[c];
    double state = args.state[c];
    float peak = args.peak[c];
    for (std::int32_t n = from; n < args.frames; ++n) {
        const float x = in[n];
        const float ax = std::fabs(x);
        // Written so a NaN sample leaves the peak alone, as the vector max does.
        peak = ax > peak ? ax : peak;
        state = a * state + bt;
        out[n] = static_cast<float>(static_cast<double>(x) * state);
    }
    args.state[c] = state;
    args.peak[c] = peak;
}

void kernel_ref(const KernelArgs& args) noexcept
{
    for (std::int32_t c = 0; c < args.channels; ++c)
        scalarChannel(args, c, 0);
}

Variant selectKernel() noexcept
{
    // The dispatch queries may be forced (tests, a host option); the machine check keeps
    // a forced level from picking code this processor cannot run.
    if (twa::HasAVX() && twa::MachineRuns(twa::IsaNeed::AVX))
        return {"m256", &m256::kernel};
    if (twa::HasSSE2())
        return {"m128", &m128::kernel};
    return {"ref", &kernel_ref};
}

int supportedKernels(Variant* out, int capacity) noexcept
{
    int n = 0;
    auto add = [&](const char* name, KernelFn fn) {
        if (n < capacity)
            out[n] = {name, fn};
        ++n;
    };
    add("ref", &kernel_ref);
    add("m128", &m128::kernel);
    if (twa::MachineRuns(twa::IsaNeed::AVX))
        add("m256", &m256::kernel);
    return n;
}

} // namespace qvd::gain
