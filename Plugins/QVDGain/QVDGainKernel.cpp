#include "QVDGainKernel.h"

#include <algorithm>
#include <cmath>

#include <QVDKernelFamily.h>

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

void gatherLanes(const KernelArgs& args, int first, int channels, int lanes, Lanes& l) noexcept
{
    for (int i = 0; i < lanes; ++i) {
        const bool real = i < channels;
        const int c = first + i;
        l.in[i] = real ? args.inputs[c] : args.padIn;
        l.out[i] = real ? args.outputs[c] : args.padOut;
        l.state[i] = real ? args.state[c] : 0.0;
        l.bt[i] = real ? args.bt[c] : 0.0;
        l.peak[i] = real ? args.peak[c] : 0.0f;
    }
}

void scatterLanes(const KernelArgs& args, int first, int channels, const Lanes& l, int vectorFrames) noexcept
{
    for (int i = 0; i < channels; ++i) {
        args.state[first + i] = l.state[i];
        args.peak[first + i] = l.peak[i];
        if (vectorFrames < args.frames)
            scalarChannel(args, first + i, vectorFrames);
    }
}

void forEachGroup(const KernelArgs& args, int group, void (*run)(const KernelArgs&, int, int) noexcept) noexcept
{
    if (args.frames <= 0)
        return;
    for (int first = 0; first < args.channels; first += group)
        run(args, first, std::min(group, args.channels - first));
}

void splitSettled(const KernelArgs& args, SettledFn settled, KernelFn gliding) noexcept
{
    constexpr int kGroup = 64;
    const float* in[kGroup];
    float* out[kGroup];
    double state[kGroup], bt[kGroup];
    float peak[kGroup];
    int channel[kGroup];
    for (int first = 0; first < args.channels; first += kGroup) {
        int n = 0;
        for (int c = first; c < std::min(first + kGroup, args.channels); ++c) {
            if (args.a * args.state[c] + args.bt[c] == args.state[c]) {
                settled(args.inputs[c], args.outputs[c], args.frames, args.state[c], args.peak[c]);
                continue;
            }
            in[n] = args.inputs[c];
            out[n] = args.outputs[c];
            state[n] = args.state[c];
            bt[n] = args.bt[c];
            peak[n] = args.peak[c];
            channel[n++] = c;
        }
        if (n == 0)
            continue;
        gliding({in, out, n, args.frames, args.a, bt, state, peak, args.padIn, args.padOut});
        for (int i = 0; i < n; ++i) {
            args.state[channel[i]] = state[i];
            args.peak[channel[i]] = peak[i];
        }
    }
}

void settledTail(const float* in, float* out, std::int32_t from, std::int32_t frames, double state,
                 const float* lanePeaks, int lanes, float& peak) noexcept
{
    for (int i = 0; i < lanes; ++i)
        peak = lanePeaks[i] > peak ? lanePeaks[i] : peak;
    for (std::int32_t n = from; n < frames; ++n) {
        const float x = in[n];
        const float ax = std::fabs(x);
        peak = ax > peak ? ax : peak;
        out[n] = static_cast<float>(static_cast<double>(x) * state);
    }
}

void kernel_ref(const KernelArgs& args) noexcept
{
    for (std::int32_t c = 0; c < args.channels; ++c)
        scalarChannel(args, c, 0);
}

QVD_KERNEL_FAMILY("Gain",
                  {"m256", twa::IsaNeed::AVX, &twa::HasAVX, &m256::kernel},
                  {"m128", twa::IsaNeed::SSE2, &twa::HasSSE2, &m128::kernel},
                  {"ref", twa::IsaNeed::None, &twa::Always, &kernel_ref})

} // namespace qvd::gain
