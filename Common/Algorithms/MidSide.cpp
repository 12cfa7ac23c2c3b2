#include "MidSide.h"

#include <cmath>

StereoMatrix StereoMatrix::width(double width)
{
    // L' = M + wS = (1 + w)/2 L + (1 - w)/2 R
    const double same = 0.5 * (1.0 + width);
    const double other = 0.5 * (1.0 - width);
    return {same, other, other, same};
}

StereoMatrix StereoMatrix::swap()
{
    return {0.0, 1.0, 1.0, 0.0};
}

StereoMatrix StereoMatrix::polarity(bool invertLeft, bool invertRight)
{
    return {invertLeft ? -1.0 : 1.0, 0.0, 0.0, invertRight ? -1.0 : 1.0};
}

StereoMatrix StereoMatrix::balance(double position)
{
    const double left = position > 0.0 ? 1.0 - position : 1.0;
    const double right = position < 0.0 ? 1.0 + position : 1.0;
    return {left, 0.0, 0.0, right};
}

StereoMatrix StereoMatrix::mono()
{
    return {0.5, 0.5, 0.5, 0.5};
}

StereoMatrix StereoMatrix::operator*(const StereoMatrix& f) const
{
    return {ll * f.ll + lr * f.rl, ll * f.lr + lr * f.rr, rl * f.ll + rr * f.rl, rl * f.lr + rr * f.rr};
}

void MidSideMixer::jump(const StereoMatrix& m) noexcept
{
    m_current = m;
}

namespace {
// One glide step; exact once close, so the settled path is bit-exact.
inline double glide(double g, double target, double a, double b)
{
    const double next = a * g + b * target;
    return std::fabs(next - target) < 1e-7 ? target : next;
}
} // namespace

void MidSideMixer::process(const StereoMatrix& target, double a, double b, const float* inL, const float* inR,
                           float* outL, float* outR, std::int32_t frames) noexcept
{
    StereoMatrix g = m_current;
    std::int32_t n = 0;
    for (; n < frames && !(g == target); ++n) {
        g = {glide(g.ll, target.ll, a, b), glide(g.lr, target.lr, a, b), glide(g.rl, target.rl, a, b),
             glide(g.rr, target.rr, a, b)};
        const float l = inL[n];
        const float r = inR[n];
        outL[n] = static_cast<float>(g.ll) * l + static_cast<float>(g.lr) * r;
        outR[n] = static_cast<float>(g.rl) * l + static_cast<float>(g.rr) * r;
    }
    m_current = g;
    const auto ll = static_cast<float>(g.ll), lr = static_cast<float>(g.lr);
    const auto rl = static_cast<float>(g.rl), rr = static_cast<float>(g.rr);
    for (; n < frames; ++n) {
        const float l = inL[n];
        const float r = inR[n];
        outL[n] = ll * l + lr * r;
        outR[n] = rl * l + rr * r;
    }
}
