#pragma once
// The reverb's per-sample loops over whole runs of frames, as one kernel
// family: the early taps, the gain matrices, the modulated line reads and
// the line writes. Each variant does each sample's arithmetic in the same
// order as the reference, so every variant is bit-exact with it.
//
//   ref      plain loops, built for the baseline
//   m256     eight frames per AVX2 register
//   m512     sixteen frames per 512-bit register

#include <cstddef>
#include <cstdint>
#include <span>

#include <System/twa_dispatch.h>

namespace qvd::reverb {

// Added and taken away again after a line write, so values too small to
// matter become zero instead of denormals.
constexpr float kLineFlush = 1e-18f;

struct Kernels {
    // v = (in[0][k] + in[1][k] + ...) * scale; out[k] = v where finite, else 0
    void (*downmix)(const float* const* in, std::uint32_t inputs, float scale, float* out,
                    std::size_t frames) noexcept;
    // out[k] = g * src[k]
    void (*scale)(const float* src, float g, float* out, std::size_t frames) noexcept;
    // y[k] = (add ? y[k] : 0) + g[0] x[0][k] + g[1] x[1][k] + ..., in input
    // order, inputs whose gain is 0 left out.
    void (*mix)(const float* const* x, const float* g, std::uint32_t inputs, float* y, bool add,
                std::size_t frames) noexcept;
    // A line read between two whole delays: with f = max(df - (off0 + at[k]
    // slope), 1) - kf, row[k] = a[k] + f (a[k - 1] - a[k]).
    void (*interpolate)(const float* a, const float* at, float df, float off0, float slope, float kf, float* row,
                        std::size_t frames) noexcept;
    // dst[k] = (w[k] + t[k] + kLineFlush) - kLineFlush
    void (*write)(const float* w, const float* t, float* dst, std::size_t frames) noexcept;
};

extern const Kernels kernels_ref;
// The reference's loops, also run by the vector variants over the frames
// their registers leave.
namespace ref {
void downmix(const float* const* in, std::uint32_t inputs, float scale, float* out, std::size_t frames) noexcept;
void scale(const float* src, float g, float* out, std::size_t frames) noexcept;
void mix(const float* const* x, const float* g, std::uint32_t inputs, float* y, bool add, std::size_t frames) noexcept;
void interpolate(const float* a, const float* at, float df, float off0, float slope, float kf, float* row,
                 std::size_t frames) noexcept;
void write(const float* w, const float* t, float* dst, std::size_t frames) noexcept;
} // namespace ref
namespace m256 { extern const Kernels kernels; }
namespace m512 { extern const Kernels kernels; }

using Variant = twa::FunctionVariant<const Kernels*>;
// Widest first, the reference last.
std::span<const Variant> variants() noexcept;
// The fastest variant this processor runs.
const Variant& selectKernel() noexcept;

} // namespace qvd::reverb
