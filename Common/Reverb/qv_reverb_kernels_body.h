#pragma once
// The loops of the reverb's vector variants, for a lane count QVD_LANES the
// including file defines with its instruction-set flags. Each frame's
// arithmetic is the reference's, in the same order; only the number of
// frames per instruction differs. Included once per variant, inside that
// variant's namespace.

namespace {

typedef float Vec __attribute__((vector_size(QVD_LANES * sizeof(float))));
constexpr std::size_t kLanes = QVD_LANES;
constexpr std::uint32_t kMaxInputs = 16; // the lines; no stage mixes more

inline Vec load(const float* p) noexcept
{
    Vec v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}

inline void store(float* p, Vec v) noexcept { __builtin_memcpy(p, &v, sizeof v); }

inline Vec splat(float x) noexcept { return Vec{} + x; }

void downmix(const float* const* in, std::uint32_t inputs, float scale, float* out, std::size_t frames) noexcept
{
    std::size_t k = 0;
    for (; k + kLanes <= frames; k += kLanes) {
        Vec sum{};
        for (std::uint32_t c = 0; c < inputs; ++c)
            sum = sum + load(in[c] + k);
        const Vec v = sum * scale;
        store(out + k, v - v == Vec{} ? v : Vec{});
    }
    if (k < frames) {
        const float* rest[kMaxInputs];
        for (std::uint32_t c = 0; c < inputs; ++c)
            rest[c] = in[c] + k;
        ref::downmix(rest, inputs, scale, out + k, frames - k);
    }
}

void scale(const float* src, float g, float* out, std::size_t frames) noexcept
{
    std::size_t k = 0;
    for (; k + kLanes <= frames; k += kLanes)
        store(out + k, load(src + k) * g);
    ref::scale(src + k, g, out + k, frames - k);
}

void mix(const float* const* x, const float* g, std::uint32_t inputs, float* y, bool add,
         std::size_t frames) noexcept
{
    std::size_t k = 0;
    // Two registers of frames at a time, the sums kept in registers across
    // the inputs.
    for (; k + 2 * kLanes <= frames; k += 2 * kLanes) {
        Vec a = add ? load(y + k) : Vec{};
        Vec b = add ? load(y + k + kLanes) : Vec{};
        for (std::uint32_t i = 0; i < inputs; ++i) {
            if (g[i] == 0.0f)
                continue;
            const Vec gv = splat(g[i]);
            a = a + gv * load(x[i] + k);
            b = b + gv * load(x[i] + k + kLanes);
        }
        store(y + k, a);
        store(y + k + kLanes, b);
    }
    if (k < frames) {
        const float* rest[kMaxInputs];
        for (std::uint32_t i = 0; i < inputs; ++i)
            rest[i] = x[i] + k;
        ref::mix(rest, g, inputs, y + k, add, frames - k);
    }
}

void interpolate(const float* a, const float* at, float df, float off0, float slope, float kf, float* row,
                 std::size_t frames) noexcept
{
    const Vec one = splat(1.0f);
    std::size_t k = 0;
    for (; k + kLanes <= frames; k += kLanes) {
        const Vec d = splat(df) - (splat(off0) + load(at + k) * slope);
        // max(d, 1) as std::max has it: d unless d < 1.
        const Vec f = (d < one ? one : d) - kf;
        const Vec ak = load(a + k);
        store(row + k, ak + f * (load(a + k - 1) - ak));
    }
    ref::interpolate(a + k, at + k, df, off0, slope, kf, row + k, frames - k);
}

void write(const float* w, const float* t, float* dst, std::size_t frames) noexcept
{
    const Vec e = splat(kLineFlush);
    std::size_t k = 0;
    for (; k + kLanes <= frames; k += kLanes)
        store(dst + k, ((load(w + k) + load(t + k)) + e) - e);
    ref::write(w + k, t + k, dst + k, frames - k);
}

} // namespace

const Kernels kernels = {&downmix, &scale, &mix, &interpolate, &write};
