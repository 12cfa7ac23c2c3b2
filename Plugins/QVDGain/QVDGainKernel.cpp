#include "QVDGainKernel.h"

#include <cmath>

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
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx"))
        return {"m256", &m256::kernel};
    return {"m128", &m128::kernel};
}

int supportedKernels(Variant* out, int capacity) noexcept
{
    __builtin_cpu_init();
    int n = 0;
    auto add = [&](const char* name, KernelFn fn) {
        if (n < capacity)
            out[n] = {name, fn};
        ++n;
    };
    add("ref", &kernel_ref);
    add("m128", &m128::kernel);
    if (__builtin_cpu_supports("avx"))
        add("m256", &m256::kernel);
    return n;
}

} // namespace qvd::gain
