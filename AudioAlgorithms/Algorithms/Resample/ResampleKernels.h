#pragma once
// Polyphase FIR kernels, one free function per factor, layout and instruction
// set. The per-ISA functions live in their own namespaces and translation
// units (simd/m128/Resample, simd/m256/Resample); only the dispatch code in
// Upsampler.cpp calls them, after checking the processor can run them.
//
// Shared contract. h is a coefficient block's storage: K taps per phase, tap
// k of phase p at h[L * k + p], applied to the k-th frame from the read
// position (the tables are stored time-reversed). Frames are interleaved
// across C channels.
//   Upsampler: for each of `frames` input positions n, writes L output frames
//   out[(L n + p) C + c] = sum over k of in[(n + k) C + c] * h[L k + p]; reads
//   frames + K - 1 input frames; returns in + frames * C.
//   Downsampler: writes frames / L output frames,
//   out[n C + c] = s_0 + s_1 (+ s_2 + s_3), s_p = sum over k of
//   in[(L (n + k) + p) C + c] * h[L k + p]; reads (frames / L - 1) L + L K
//   input frames; returns in + (frames / L) L C.
// Sums run over k in order from zero, so every non-FMA variant but the _Sym
// ones below matches the reference bit for bit.
// A phase with a single non-zero tap is a scaled delay: every kernel forms
// that one product instead of the sum (the L-th band tables have one, which
// halves the work of the x2 converters). Only phase 0 of an upsampler and
// phase L - 1 of a downsampler are looked at, where such tables put it. The
// product and the sum differ only in the sign of a zero result and when a
// neighbouring sample is not finite. out must not be null (the algorithm objects handle
// that). SIMD variants check 16- or 32-byte alignment of in, out and h.
//
// The _Sym x2 downsamplers serve only blocks whose shape
// CoefficientBlock::IsSymmetricHalfband reports (an even K, phase 0 the same
// read backwards, phase 1 the single tap d), and take d as given. They add
// each mirrored pair of even input frames first and multiply once:
//   out[n C + c] = sum over k < K / 2 of h[2 k] (E[n + k] + E[n + K - 1 - k])
//                  + in[(2 (n + d) + 1) C + c] h[2 d + 1],
// E[m] being in[2 m C + c], with the same reads and return value as the
// other downsamplers. Half the products, summed in another order: they agree
// with the reference to a few roundings of the largest possible output (the
// tests allow 4 float epsilons times the sum of |h| for inputs within +-1),
// not bit for bit. Beyond 128 taps per phase they run the generic arithmetic.

#include <cstddef>

namespace twa::numeric {

using PolyphaseKernel = const float* (*)(const float* h, std::size_t taps, const float* in, float* out,
                                         std::size_t frames) noexcept;
using HalfbandKernel = const float* (*)(const float* h, std::size_t taps, std::size_t d, const float* in,
                                        float* out, std::size_t frames) noexcept;

// The one non-zero tap of a phase (h[factor * k + phase] over k < taps), or
// `taps` when it has more or none.
std::size_t SingleTap(const float* h, std::size_t factor, std::size_t phase, std::size_t taps) noexcept;

// Any factor and channel count.
const float* UpsampleFIR_ref(std::size_t factor, std::size_t channels, const float* h, std::size_t taps,
                             const float* in, float* out, std::size_t frames) noexcept;
const float* DownsampleFIR_ref(std::size_t factor, std::size_t channels, const float* h, std::size_t taps,
                               const float* in, float* out, std::size_t frames) noexcept;

namespace m128 {
const float* Upsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x4_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x8_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m128

namespace m128_fma {
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m128_fma

namespace m256 {
const float* Upsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x4_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x8_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x8_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m256

namespace m256_fma {
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c1_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_Sym(const float*, std::size_t, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m256_fma

namespace m256_avx2 {
const float* Upsampler_x8_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x8_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m256_avx2

} // namespace twa::numeric
