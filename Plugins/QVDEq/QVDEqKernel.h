#pragma once
// The equaliser's bands over all channels of one block, in place. Every
// variant gives the reference's outputs bit for bit: per channel and band the
// arithmetic is BiQuad::run's, including the rounding of each band's output
// to float before the next band reads it.
//
//   ref   band after band over the whole block, channel by channel
//   m128  the bands fused sample by sample, two channels per SSE2 register
//   m256  the same with four channels per AVX register (surround)

#include <cstdint>
#include <span>

#include <Algorithms/BiQuadTypes.h>
#include <System/twa_dispatch.h>

namespace qvd::eq {

// One band that is not neutral: its coefficient set for this block and its
// state array (one pair per channel, at least as many as channels).
struct Band {
    BiQuadCoefficients c;
    BiQuadState* states;
};

struct KernelArgs {
    float* const* channels;
    std::int32_t channelCount;
    std::int32_t frames;
    const Band* bands; // in processing order
    std::int32_t bandCount;
};

using KernelFn = void (*)(const KernelArgs& args) noexcept;

// The fused kernels take at most this many bands at once; longer chains run in
// groups, one after the other over the whole block.
constexpr std::int32_t kMaxFusedBands = 6;

void kernel_ref(const KernelArgs& args) noexcept;
namespace m128 {
void kernel(const KernelArgs& args) noexcept;
// Channels [firstChannel, channelCount) two at a time, a last odd one scalar;
// bands [firstBand, firstBand + bandCount), at most kMaxFusedBands.
void channelPairs(const KernelArgs& args, std::int32_t firstChannel, std::int32_t firstBand,
                  std::int32_t bandCount) noexcept;
} // namespace m128
namespace m256 { void kernel(const KernelArgs& args) noexcept; }

// Shared by the vector variants for channels left over from their lanes:
// channel `ch`, bands [firstBand, firstBand + bandCount), sample by sample.
void fusedChannel(const KernelArgs& args, std::int32_t ch, std::int32_t firstBand, std::int32_t bandCount) noexcept;

using Variant = twa::FunctionVariant<KernelFn>;
// Widest first, the reference last.
std::span<const Variant> variants() noexcept;
// The fastest variant this processor runs.
const Variant& selectKernel() noexcept;

} // namespace qvd::eq
