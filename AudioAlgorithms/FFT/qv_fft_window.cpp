#include "FFT/qv_fft_window.h"

#include "System/twa_assert.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace twa::fft {

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

double Hann(double n, double N)
{
    return 0.5 - 0.5 * std::cos(kTwoPi * n / N);
}

// Rounding can leave a tiny negative value at n = 0.
double SqrtClamped(double v)
{
    return std::sqrt(std::max(v, 0.0));
}

void FillTapered(float* w, std::size_t n, bool root)
{
    const std::size_t taper = n / 10;
    std::fill(w, w + n, 1.0f);
    const double period = 2.0 * static_cast<double>(taper);
    for (std::size_t i = 0; i < taper; ++i) {
        const double rise = Hann(static_cast<double>(i), period);
        const double fall = Hann(static_cast<double>(taper + i), period);
        w[i] = static_cast<float>(root ? SqrtClamped(rise) : rise);
        w[n - taper + i] = static_cast<float>(root ? SqrtClamped(fall) : fall);
    }
}

} // namespace

void FillWindow(float* w, std::size_t n, std::int32_t type) noexcept
{
    const double N = static_cast<double>(n);
    auto each = [&](auto f) {
        for (std::size_t i = 0; i < n; ++i)
            w[i] = static_cast<float>(f(static_cast<double>(i)));
    };
    switch (type) {
    case kWindowRectangular:
        std::fill(w, w + n, 1.0f);
        break;
    case kWindowHamming:
        each([&](double i) { return 0.53836 - 0.46164 * std::cos(kTwoPi * i / N); });
        break;
    case kWindowHann:
        each([&](double i) { return Hann(i, N); });
        break;
    case kWindowSqrtHann:
        each([&](double i) { return SqrtClamped(Hann(i, N)); });
        break;
    case kWindowBlackman:
        each([&](double i) {
            return 0.42 - 0.5 * std::cos(kTwoPi * i / N) + 0.08 * std::cos(2.0 * kTwoPi * i / N);
        });
        break;
    case kWindowBlackmanHarris:
        each([&](double i) {
            return 0.35875 - 0.48829 * std::cos(kTwoPi * i / N) +
                   0.14128 * std::cos(2.0 * kTwoPi * i / N) -
                   0.01168 * std::cos(3.0 * kTwoPi * i / N);
        });
        break;
    case kWindowTapered:
        FillTapered(w, n, false);
        break;
    case kWindowSqrtTapered:
        FillTapered(w, n, true);
        break;
    case kWindowExponential:
        // The "+ 1" starts the curve one step below -60 dB; it is part of the shape.
        each([&](double i) { return std::exp((N - i + 1.0) * (-6.9077554 / N)); });
        break;
    case kWindowRisingPeak:
        each([&](double i) {
            const double m = N - i;
            return (m * 15.918666 * std::numbers::e / N) * std::exp(-15.918666 * m / N);
        });
        break;
    default:
        std::fill(w, w + n, 0.0f);
        break;
    }
}

sample_vector MakeWindow(std::size_t length, std::int32_t type)
{
    sample_vector w(length);
    FillWindow(w.data(), w.size(), type);
    return w;
}

float WindowOverlapAddFactor(std::span<const float> w, std::size_t stride) noexcept
{
    QVD_ASSERT(stride>0);
    if (stride == 0)
        return 1.0f;
    double sum = 0.0;
    for (std::size_t k = stride / 2; k < w.size(); k += stride)
        sum += static_cast<double>(w[k]) * static_cast<double>(w[k]);
    return sum < 1e-7 ? 1.0f : static_cast<float>(1.0 / sum);
}

float WindowMean(std::span<const float> w) noexcept
{
    if (w.empty())
        return 0.0f;
    double sum = 0.0;
    for (const float v : w)
        sum += v;
    return static_cast<float>(sum / static_cast<double>(w.size()));
}

} // namespace twa::fft
