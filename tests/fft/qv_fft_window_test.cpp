#include "FFT/qv_fft_window.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace twa::fft {
namespace {

constexpr double kPi = std::numbers::pi;

// Periodic windows: w[n] == w[N - n], and the peak sits at N / 2.
void expectPeriodicSymmetry(const sample_vector& w, double tol)
{
    const std::size_t N = w.size();
    for (std::size_t i = 1; i < N; ++i)
        ASSERT_NEAR(w[i], w[N - i], tol) << i;
}

TEST(FftWindows, CosineSumsHaveTheirEndAndCentreValuesAndMeans)
{
    const std::size_t N = 1024;
    struct Case {
        std::int32_t type;
        double start, mean;
    };
    // w[0] is the sum of the signed coefficients, the mean is a0, w[N/2] is 1.
    const Case cases[] = {{kWindowHamming, 0.53836 - 0.46164, 0.53836},
                          {kWindowHann, 0.0, 0.5},
                          {kWindowBlackman, 0.42 - 0.5 + 0.08, 0.42},
                          {kWindowBlackmanHarris, 0.35875 - 0.48829 + 0.14128 - 0.01168, 0.35875}};
    for (const Case& c : cases) {
        const sample_vector w = MakeWindow(N, c.type);
        ASSERT_EQ(w.size(), N);
        EXPECT_NEAR(w[0], c.start, 1e-7) << c.type;
        EXPECT_NEAR(w[N / 2], 1.0, 1e-7) << c.type;
        EXPECT_NEAR(WindowMean(w), c.mean, 1e-6) << c.type;
        expectPeriodicSymmetry(w, 1e-7);
    }
    // Hamming a quarter in: the cosine term vanishes.
    EXPECT_NEAR(MakeWindow(N, kWindowHamming)[N / 4], 0.53836, 1e-7);
}

TEST(FftWindows, SquareRootWindowsSquareToTheirParents)
{
    for (const std::size_t N : {64u, 1000u}) {
        const sample_vector hann = MakeWindow(N, kWindowHann), root = MakeWindow(N, kWindowSqrtHann);
        const sample_vector taper = MakeWindow(N, kWindowTapered);
        const sample_vector rootTaper = MakeWindow(N, kWindowSqrtTapered);
        for (std::size_t i = 0; i < N; ++i) {
            ASSERT_GE(root[i], 0.0f);
            ASSERT_NEAR(root[i] * root[i], hann[i], 1e-6) << i;
            ASSERT_NEAR(rootTaper[i] * rootTaper[i], taper[i], 1e-6) << i;
        }
        // Not NaN at the zero of the Hann window, where rounding may go negative.
        EXPECT_EQ(root[0], 0.0f);
    }
}

TEST(FftWindows, TaperedRisesAndFallsOverATenthAtEachEnd)
{
    const std::size_t N = 105; // taper of 105 / 10 = 10 samples
    const sample_vector w = MakeWindow(N, kWindowTapered);
    EXPECT_EQ(w[0], 0.0f);
    EXPECT_NEAR(w[5], 0.5, 1e-7);
    for (std::size_t i = 1; i < 10; ++i)
        EXPECT_NEAR(w[i], 0.5 - 0.5 * std::cos(2 * kPi * i / 20.0), 1e-7) << i;
    for (std::size_t i = 10; i < N - 10; ++i)
        ASSERT_EQ(w[i], 1.0f) << i;
    // Falling half of the Hann of length 20: 1 at its centre, down towards 0.
    EXPECT_NEAR(w[N - 10], 1.0, 1e-7);
    EXPECT_NEAR(w[N - 5], 0.5, 1e-7);
    EXPECT_NEAR(w[N - 1], 0.5 - 0.5 * std::cos(2 * kPi * 19 / 20.0), 1e-7);
    // Under ten samples there is no taper.
    const sample_vector shortW = MakeWindow(9, kWindowTapered);
    EXPECT_TRUE(std::all_of(shortW.begin(), shortW.end(), [](float v) { return v == 1.0f; }));
}

TEST(FftWindows, ExponentialRisesFromAboutMinus60Db)
{
    const std::size_t N = 2048;
    const sample_vector w = MakeWindow(N, kWindowExponential);
    // The "+ 1" puts w[0] one step below -60 dB and w[N - 1] two steps below 1.
    EXPECT_NEAR(w[0], std::exp(-6.9077554 * (N + 1.0) / N), 1e-9);
    EXPECT_NEAR(20.0 * std::log10(w[0]), -60.0, 0.05);
    EXPECT_NEAR(w[N - 1], std::exp(-6.9077554 * 2.0 / N), 1e-7);
    for (std::size_t i = 1; i < N; ++i)
        ASSERT_GT(w[i], w[i - 1]) << i;
}

TEST(FftWindows, RisingPeakReachesOneWhereMIsNOver15point918666)
{
    // N / 15.918666 is 100.0008 here, so the peak is at m = 100.
    const std::size_t N = 1592;
    const sample_vector w = MakeWindow(N, kWindowRisingPeak);
    const auto peak = std::max_element(w.begin(), w.end());
    EXPECT_EQ(N - static_cast<std::size_t>(peak - w.begin()), 100u);
    EXPECT_NEAR(*peak, 1.0, 1e-6);
    // At n = 0 (m = N) the curve is x e^(1 - x) with x = 15.918666.
    EXPECT_NEAR(w[0], 15.918666 * std::exp(1.0 - 15.918666), 1e-9);
}

TEST(FftWindows, RectangularUnknownAndEmpty)
{
    const sample_vector ones = MakeWindow(100, kWindowRectangular);
    EXPECT_TRUE(std::all_of(ones.begin(), ones.end(), [](float v) { return v == 1.0f; }));
    EXPECT_EQ(WindowMean(ones), 1.0f);
    for (const std::int32_t type : {10, 11, 1000, -1}) {
        const sample_vector zero = MakeWindow(64, type);
        ASSERT_EQ(zero.size(), 64u);
        EXPECT_TRUE(std::all_of(zero.begin(), zero.end(), [](float v) { return v == 0.0f; })) << type;
        EXPECT_EQ(WindowOverlapAddFactor(zero, 16), 1.0f) << "sum below 1e-7 answers 1";
    }
    for (std::int32_t type = 0; type <= 10; ++type)
        EXPECT_TRUE(MakeWindow(0, type).empty()) << type;
    EXPECT_EQ(WindowMean(MakeWindow(0, kWindowHann)), 0.0f);
}

TEST(FftWindows, OverlapAddFactors)
{
    for (const std::size_t N : {256u, 1024u, 4096u}) {
        const sample_vector hann = MakeWindow(N, kWindowHann);
        EXPECT_NEAR(WindowOverlapAddFactor(hann, N / 4), 1.0 / 1.5, 1e-6) << N;
        // sqrt-Hann at half overlap sums to exactly one frame.
        EXPECT_NEAR(WindowOverlapAddFactor(MakeWindow(N, kWindowSqrtHann), N / 2), 1.0, 1e-6) << N;
        // Hop N: the single sample at N/2, where Hann is 1.
        EXPECT_NEAR(WindowOverlapAddFactor(hann, N), 1.0, 1e-6) << N;
    }
    // Samples from stride/2 on: a ramp makes the start visible.
    const sample_vector ramp = {0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f};
    EXPECT_NEAR(WindowOverlapAddFactor(ramp, 2), 1.0 / (1 + 9 + 25), 1e-9);
    EXPECT_NEAR(WindowOverlapAddFactor(ramp, 4), 1.0 / 4, 1e-9);
}

TEST(FftWindows, ZeroStrideAsserts)
{
    TWA_SKIP_WITHOUT_ASSERTS();
    test::AssertCatcher catcher;
    EXPECT_EQ(WindowOverlapAddFactor(MakeWindow(16, kWindowHann), 0), 1.0f);
    EXPECT_EQ(catcher.count(), 1u);
    EXPECT_EQ(test::AssertCatcher::last(), "stride>0");
}

} // namespace
} // namespace twa::fft
