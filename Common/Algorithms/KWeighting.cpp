#include "KWeighting.h"

#include <cmath>

namespace {

// The analog prototypes behind the published 48 kHz sections.
constexpr double kShelfHz = 1681.974450955533;
constexpr double kShelfGainDb = 3.999843853973347;
constexpr double kShelfQ = 0.7071752369554196;
// Shapes the shelf's transition so the bilinear form lands on the tabulated zeros.
constexpr double kShelfBandExponent = 0.4996667741545416;
constexpr double kHighPassHz = 38.13547087602444;
constexpr double kHighPassQ = 0.5003270373238773;

// Below this the state only feeds subnormals into the recursion.
constexpr double kTiny = 1e-30;

void settle(KWeightingState& s) noexcept
{
    const double m = std::fabs(s.s1) + std::fabs(s.s2) + std::fabs(s.h1) + std::fabs(s.h2);
    if (!(m >= kTiny) || !std::isfinite(m))
        s = KWeightingState{};
}

struct Step {
    const KWeightingCoefficients& c;
    double operator()(KWeightingState& s, double x) const noexcept
    {
        const double y = c.b0 * x + s.s1;
        s.s1 = c.b1 * x - c.a1 * y + s.s2;
        s.s2 = c.b2 * x - c.a2 * y;
        const double z = y + s.h1;
        s.h1 = -2.0 * y - c.h1 * z + s.h2;
        s.h2 = y - c.h2 * z;
        return z;
    }
};

} // namespace

namespace KWeighting {

KWeightingCoefficients design(double sampleRate)
{
    KWeightingCoefficients c;
    {
        const double k = std::tan(M_PI * kShelfHz / sampleRate);
        const double vh = std::pow(10.0, kShelfGainDb / 20.0);
        const double vb = std::pow(vh, kShelfBandExponent);
        const double a0 = 1.0 + k / kShelfQ + k * k;
        c.b0 = (vh + vb * k / kShelfQ + k * k) / a0;
        c.b1 = 2.0 * (k * k - vh) / a0;
        c.b2 = (vh - vb * k / kShelfQ + k * k) / a0;
        c.a1 = 2.0 * (k * k - 1.0) / a0;
        c.a2 = (1.0 - k / kShelfQ + k * k) / a0;
    }
    {
        const double k = std::tan(M_PI * kHighPassHz / sampleRate);
        const double a0 = 1.0 + k / kHighPassQ + k * k;
        c.h1 = 2.0 * (k * k - 1.0) / a0;
        c.h2 = (1.0 - k / kHighPassQ + k * k) / a0;
    }
    return c;
}

double energy(const KWeightingCoefficients& c, KWeightingState& s, const float* x, std::int32_t frames) noexcept
{
    const Step step{c};
    KWeightingState st = s;
    double sum = 0.0;
    for (std::int32_t n = 0; n < frames; ++n) {
        const double z = step(st, x[n]);
        sum += z * z;
    }
    s = st;
    settle(s);
    return std::isfinite(sum) ? sum : 0.0;
}

void energy2(const KWeightingCoefficients& c, KWeightingState& sa, KWeightingState& sb, const float* a,
             const float* b, std::int32_t frames, double& ea, double& eb) noexcept
{
    const Step step{c};
    KWeightingState u = sa, v = sb;
    double suma = 0.0, sumb = 0.0;
    for (std::int32_t n = 0; n < frames; ++n) {
        const double za = step(u, a[n]);
        const double zb = step(v, b[n]);
        suma += za * za;
        sumb += zb * zb;
    }
    sa = u;
    sb = v;
    settle(sa);
    settle(sb);
    ea = std::isfinite(suma) ? suma : 0.0;
    eb = std::isfinite(sumb) ? sumb : 0.0;
}

} // namespace KWeighting
