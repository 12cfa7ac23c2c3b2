#pragma once
// The gain stage of QVDGain for all channels of one block:
//   peak = max(peak, |x|); state = a * state + bt; y = float(double(x) * state)
// with bt = b * target precomputed per channel. The variants run channels side
// by side in vector lanes; each channel's arithmetic is the same in all of
// them, so every variant is bit-exact with the reference.

#include <cstdint>
#include <span>

#include <System/twa_dispatch.h>

namespace qvd::gain {

struct KernelArgs {
    const float* const* inputs;
    float* const* outputs;
    std::int32_t channels;
    std::int32_t frames;
    double a;         // smoothing feedback coefficient
    const double* bt; // per channel: b * target
    double* state;    // per channel: smoothed gain, updated in place
    float* peak;      // per channel: input peak, raised in place
    // Frames-long scratch for lanes past the last channel: read from `padIn`
    // (any finite data), written to `padOut`.
    const float* padIn;
    float* padOut;
};

using KernelFn = void (*)(const KernelArgs&) noexcept;

void kernel_ref(const KernelArgs& args) noexcept;
namespace m128 { void kernel(const KernelArgs& args) noexcept; }
namespace m256 { void kernel(const KernelArgs& args) noexcept; }

// The scalar tail every variant shares: frames [from, frames) of channel c.
void scalarChannel(const KernelArgs& args, std::int32_t c, std::int32_t from) noexcept;

// Lane bookkeeping the vector variants share, compiled for the baseline.
// Lanes past the last channel read padIn and write padOut with zero state.
struct Lanes {
    const float* in[64];
    float* out[64];
    double state[64];
    double bt[64];
    float peak[64];
};
void gatherLanes(const KernelArgs& args, int first, int channels, int lanes, Lanes& l) noexcept;
// Hands lane results back to channels and runs the frames the vectors left.
void scatterLanes(const KernelArgs& args, int first, int channels, const Lanes& l, int vectorFrames) noexcept;
// Calls run(args, first, count) for groups of at most `group` channels.
void forEachGroup(const KernelArgs& args, int group, void (*run)(const KernelArgs&, int, int) noexcept) noexcept;

// A channel whose state is at the recursion's fixed point (a * s + bt == s,
// exactly, in double) keeps that state for good: its output is x * s, which
// `settled` computes without the recursion, bit for bit. The others go to
// `gliding` as a compacted set of channels.
using SettledFn = void (*)(const float* in, float* out, std::int32_t frames, double state, float& peak) noexcept;
void splitSettled(const KernelArgs& args, SettledFn settled, KernelFn gliding) noexcept;
// What the settled vector loops leave: frames [from, frames) one by one, and
// the lanes' peaks folded into `peak`.
void settledTail(const float* in, float* out, std::int32_t from, std::int32_t frames, double state,
                 const float* lanePeaks, int lanes, float& peak) noexcept;

using Variant = twa::FunctionVariant<KernelFn>;
// Widest first, the reference last.
std::span<const Variant> variants() noexcept;
// The variant the processor dispatch picks: m256 with AVX, m128 with SSE2, else ref.
const Variant& selectKernel() noexcept;

} // namespace qvd::gain
