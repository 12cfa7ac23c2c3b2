#pragma once
// Signals, a long-double reference DFT and layout helpers for the FFT tests.

#include "FFT/qv_fft.h"
#include "GuardedBuffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>

namespace twa::fft::support {

using cld = std::complex<long double>;

inline sample_vector randomSignal(std::size_t n, unsigned seed)
{
    return qvd::test::uniform<sample_vector>(n, -1.0f, 1.0f, seed);
}

inline spectrum_vector randomSpectrum(std::size_t n, unsigned seed)
{
    const auto v = qvd::test::uniform(2 * n, -1.0f, 1.0f, seed);
    spectrum_vector s(n);
    for (std::size_t k = 0; k < n; ++k)
        s[k] = complex_t(v[2 * k], v[2 * k + 1]);
    return s;
}

// Bins 0 .. n/2 of the DFT of x, in long double.
inline std::vector<cld> referenceDft(std::span<const float> x)
{
    const std::size_t n = x.size();
    std::vector<cld> twiddle(n), out(n / 2 + 1);
    for (std::size_t j = 0; j < n; ++j)
        twiddle[j] = std::polar(1.0L, -2.0L * std::numbers::pi_v<long double> * static_cast<long double>(j) /
                                          static_cast<long double>(n));
    for (std::size_t k = 0; k <= n / 2; ++k)
        for (std::size_t j = 0; j < n; ++j)
            out[k] += static_cast<long double>(x[j]) * twiddle[k * j % n];
    return out;
}

// Bin k of an n-point spectrum; the packed layout keeps DC and Nyquist in slot 0.
inline complex_t naturalBin(std::span<const complex_t> s, std::size_t n, std::size_t k, bool ordered)
{
    if (ordered || (k != 0 && k != n / 2))
        return s[k];
    return {k == 0 ? s[0].real() : s[0].imag(), 0.0f};
}

// Float FFT error grows with log2(n); bins grow with sqrt(n) for white input.
inline double binTolerance(std::size_t n)
{
    return 2e-6 * std::log2(static_cast<double>(n)) * std::sqrt(static_cast<double>(n));
}

inline double roundTripTolerance(std::size_t n)
{
    return 1e-6 + 2.5e-7 * std::log2(static_cast<double>(n));
}

inline SpectrumOrder orderOf(bool ordered)
{
    return ordered ? SpectrumOrder::Ordered : SpectrumOrder::Packed;
}

// Plans quickly so size sweeps stay fast; restores the default after.
class EstimatePlans : public ::testing::Test {
protected:
    void SetUp() override { SetPlannerRigor(PlannerRigor::Estimate); }
    void TearDown() override { SetPlannerRigor(PlannerRigor::Measure); }
};

} // namespace twa::fft::support
