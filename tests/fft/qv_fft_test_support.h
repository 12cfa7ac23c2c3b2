#pragma once
// Signals, a long-double reference DFT and layout helpers for the FFT tests.

#include "FFT/qv_fft.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace twa::fft::support {

using cld = std::complex<long double>;

inline sample_vector randomSignal(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    sample_vector x(n);
    for (float& v : x)
        v = d(rng);
    return x;
}

inline spectrum_vector randomSpectrum(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    spectrum_vector s(n);
    for (auto& v : s)
        v = complex_t(d(rng), d(rng));
    return s;
}

// Bins 0 .. n/2 of the DFT of x, in long double.
inline std::vector<cld> referenceDft(std::span<const float> x)
{
    const std::size_t n = x.size();
    std::vector<cld> twiddle(n);
    for (std::size_t j = 0; j < n; ++j) {
        const long double a = -2.0L * std::numbers::pi_v<long double> * static_cast<long double>(j) /
                              static_cast<long double>(n);
        twiddle[j] = cld(std::cos(a), std::sin(a));
    }
    std::vector<cld> out(n / 2 + 1);
    for (std::size_t k = 0; k <= n / 2; ++k) {
        cld sum = 0;
        for (std::size_t j = 0; j < n; ++j)
            sum += static_cast<long double>(x[j]) * twiddle[(k * j) % n];
        out[k] = sum;
    }
    return out;
}

// Bin k of a spectrum of an n-point transform held in `order`.
inline complex_t naturalBin(std::span<const complex_t> s, std::size_t n, std::size_t k, bool ordered)
{
    if (ordered)
        return s[k];
    if (k == 0)
        return {s[0].real(), 0.0f};
    if (k == n / 2)
        return {s[0].imag(), 0.0f};
    return s[k];
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

inline const char* orderName(bool ordered)
{
    return ordered ? "ordered" : "packed";
}

// Whether the build system configured the FFTW back end; HasFftw() must agree.
constexpr bool kBuiltWithFftw =
#if defined(QVD_HAVE_FFTW)
    true;
#else
    false;
#endif

#define FFT_SKIP_WITHOUT_FFTW()                                                           \
    do {                                                                                  \
        if (!::twa::fft::HasFftw())                                                       \
            GTEST_SKIP() << "built without FFTW";                                         \
    } while (false)

// Plans quickly so size sweeps stay fast; restores the default after.
class EstimatePlans : public ::testing::Test {
protected:
    void SetUp() override { SetPlannerRigor(PlannerRigor::Estimate); }
    void TearDown() override { SetPlannerRigor(PlannerRigor::Measure); }
};

} // namespace twa::fft::support
