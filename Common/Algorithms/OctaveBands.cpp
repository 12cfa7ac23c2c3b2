#include "OctaveBands.h"

#include <cmath>

namespace OctaveBands {

std::int32_t layout(std::int32_t perOctave, double nyquist, Band* bands) noexcept
{
    if (perOctave < 1)
        return 0;
    const double g = std::pow(10.0, 0.3);
    const double b = perOctave;
    // Nominal 20 Hz to 20 kHz, with room for the rounding of the exact centres.
    constexpr double kLowest = 19.0, kHighest = 20500.0;
    const bool odd = perOctave % 2 != 0;
    std::int32_t count = 0;
    for (std::int32_t x = -200; x <= 200 && count < kMaxBands; ++x) {
        const double exponent = odd ? x / b : (2.0 * x + 1.0) / (2.0 * b);
        const double centre = 1000.0 * std::pow(g, exponent);
        if (centre < kLowest || centre > kHighest)
            continue;
        const double half = std::pow(g, 1.0 / (2.0 * b));
        const Band band{centre, centre / half, centre * half};
        if (band.upper > nyquist)
            break;
        bands[count++] = band;
    }
    return count;
}

} // namespace OctaveBands
