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
// Sums run over k in order from zero, so every non-FMA variant matches the
// reference bit for bit.
// A phase with a single non-zero tap is a scaled delay: every kernel forms
// that one product instead of the sum (the L-th band tables have one, which
// halves the work of the x2 converters). Only phase 0 of an upsampler and
// phase L - 1 of a downsampler are looked at, where such tables put it. The
// product and the sum differ only in the sign of a zero result and when a
// neighbouring sample is not finite. out must not be null (the algorithm objects handle
// that). SIMD variants check 16- or 32-byte alignment of in, out and h.

#include <cstddef>

namespace twa::numeric {

using PolyphaseKernel = const float* (*)(const float* h, std::size_t taps, const float* in, float* out,
                                         std::size_t frames) noexcept;

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
} // namespace m128

namespace m128_fma {
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
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
} // namespace m256

namespace m256_fma {
const float* Downsampler_x2_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x2_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Downsampler_x4_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m256_fma

namespace m256_avx2 {
const float* Upsampler_x8_c1_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
const float* Upsampler_x8_c2_FIR(const float*, std::size_t, const float*, float*, std::size_t) noexcept;
} // namespace m256_avx2

} // namespace twa::numeric
