#include "SphericalHarmonics.h"

#include <algorithm>
#include <cmath>

namespace SphericalHarmonics {

std::int32_t orderOf(std::int32_t index) noexcept
{
    std::int32_t l = 0;
    while ((l + 1) * (l + 1) <= index)
        ++l;
    return l;
}

std::int32_t orderFor(std::int32_t channels) noexcept
{
    if (channels < 1)
        return -1;
    std::int32_t l = 0;
    while (channelsOf(l + 1) <= channels)
        ++l;
    return l;
}

double n3dFactor(std::int32_t l) noexcept
{
    return std::sqrt(2.0 * l + 1.0);
}

void evaluate(std::int32_t order, double azimuth, double elevation, Normalisation n, double* y) noexcept
{
    order = std::clamp(order, 0, kMaxOrder);
    constexpr std::int32_t kSize = kMaxOrder + 1;
    // Associated Legendre functions P_l^m(sin elevation), m >= 0, by the
    // standard upward recursions; no (-1)^m phase.
    double p[kSize][kSize] = {};
    const double x = std::sin(elevation);
    const double s = std::cos(elevation); // sqrt(1 - x^2), never negative here
    p[0][0] = 1.0;
    for (std::int32_t m = 1; m <= order; ++m)
        p[m][m] = (2.0 * m - 1.0) * s * p[m - 1][m - 1];
    for (std::int32_t m = 0; m < order; ++m)
        p[m + 1][m] = (2.0 * m + 1.0) * x * p[m][m];
    for (std::int32_t m = 0; m <= order; ++m)
        for (std::int32_t l = m + 2; l <= order; ++l)
            p[l][m] = ((2.0 * l - 1.0) * x * p[l - 1][m] - (l + m - 1.0) * p[l - 2][m]) / (l - m);

    for (std::int32_t l = 0; l <= order; ++l) {
        const double extra = n == Normalisation::N3D ? n3dFactor(l) : 1.0;
        for (std::int32_t m = -l; m <= l; ++m) {
            const std::int32_t a = m < 0 ? -m : m;
            // (l - |m|)! / (l + |m|)!
            double ratio = 1.0;
            for (std::int32_t k = l - a + 1; k <= l + a; ++k)
                ratio /= k;
            const double norm = std::sqrt((a == 0 ? 1.0 : 2.0) * ratio) * extra;
            const double trig = m < 0 ? std::sin(a * azimuth) : std::cos(a * azimuth);
            y[l * l + l + m] = norm * p[l][a] * trig;
        }
    }
}

} // namespace SphericalHarmonics
