#include "AssertCatcher.h"
#include "FFT/qv_fft_window.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace twa::fft {
namespace {

bool all(const sample_vector& w, float v)
{
    return std::all_of(w.begin(), w.end(), [v](float x) { return x == v; });
}

// Periodic cosine sums: w[n] == w[N - n], 1 at N / 2; the start is the sum of
// the signed coefficients and the mean (the coherent gain) is a0.
TEST(FftWindows, CosineSumsHaveTheirEndAndCentreValuesAndMeans)
{
    const std::size_t N = 1024;
    const struct {
        std::int32_t type;
        double start, mean;
    } cases[] = {{kWindowHamming, 0.53836 - 0.46164, 0.53836},
                 {kWindowHann, 0.0, 0.5},
                 {kWindowBlackman, 0.42 - 0.5 + 0.08, 0.42},
                 {kWindowBlackmanHarris, 0.35875 - 0.48829 + 0.14128 - 0.01168, 0.35875}};
    for (const auto& c : cases) {
        const sample_vector w = MakeWindow(N, c.type);
        ASSERT_EQ(w.size(), N);
        EXPECT_NEAR(w[0], c.start, 1e-7) << c.type;
        EXPECT_NEAR(w[N / 2], 1.0, 1e-7) << c.type;
        EXPECT_NEAR(WindowMean(w), c.mean, 1e-6) << c.type;
        for (std::size_t i = 1; i < N; ++i)
            ASSERT_NEAR(w[i], w[N - i], 1e-7) << c.type << " " << i;
    }
}

TEST(FftWindows, SquareRootWindowsSquareToTheirParents)
{
    for (const std::size_t N : {64u, 1000u}) {
        const sample_vector hann = MakeWindow(N, kWindowHann), root = MakeWindow(N, kWindowSqrtHann);
        const sample_vector taper = MakeWindow(N, kWindowTapered), rootTaper = MakeWindow(N, kWindowSqrtTapered);
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
    const std::size_t N = 105; // a taper of 10 samples, half a Hann of 20
    const sample_vector w = MakeWindow(N, kWindowTapered);
    EXPECT_EQ(w[0], 0.0f);
    EXPECT_NEAR(w[5], 0.5, 1e-7);
    for (std::size_t i = 1; i < 10; ++i)
        EXPECT_GT(w[i], w[i - 1]) << i;
    for (std::size_t i = 10; i < N - 10; ++i)
        ASSERT_EQ(w[i], 1.0f) << i;
    EXPECT_NEAR(w[N - 10], 1.0, 1e-7);
    EXPECT_NEAR(w[N - 5], 0.5, 1e-7);
    EXPECT_NEAR(w[N - 1], w[1], 1e-7);
    EXPECT_TRUE(all(MakeWindow(9, kWindowTapered), 1.0f)) << "no taper under ten samples";
}

TEST(FftWindows, ExponentialRisesFromMinus60DbAndRisingPeakPeaksAtOne)
{
    const sample_vector e = MakeWindow(2048, kWindowExponential);
    EXPECT_NEAR(20.0 * std::log10(e[0]), -60.0, 0.05);
    EXPECT_NEAR(e[2047], 1.0, 0.01);
    for (std::size_t i = 1; i < e.size(); ++i)
        ASSERT_GT(e[i], e[i - 1]) << i;
    // The peak sits N / 15.918666 from the end: 100.0008 here.
    const std::size_t N = 1592;
    const sample_vector w = MakeWindow(N, kWindowRisingPeak);
    const auto peak = std::max_element(w.begin(), w.end());
    EXPECT_EQ(N - static_cast<std::size_t>(peak - w.begin()), 100u);
    EXPECT_NEAR(*peak, 1.0, 1e-6);
}

TEST(FftWindows, RectangularUnknownAndEmpty)
{
    const sample_vector ones = MakeWindow(100, kWindowRectangular);
    EXPECT_TRUE(all(ones, 1.0f));
    EXPECT_EQ(WindowMean(ones), 1.0f);
    for (const std::int32_t type : {10, 11, 1000, -1}) {
        const sample_vector zero = MakeWindow(64, type);
        ASSERT_EQ(zero.size(), 64u);
        EXPECT_TRUE(all(zero, 0.0f)) << type;
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
    QVD_SKIP_WITHOUT_ASSERTS();
    qvd::test::AssertCatcher catcher;
    EXPECT_EQ(WindowOverlapAddFactor(MakeWindow(16, kWindowHann), 0), 1.0f);
    EXPECT_EQ(catcher.count(), 1u);
    EXPECT_EQ(qvd::test::AssertCatcher::last(), "stride>0");
}

} // namespace
} // namespace twa::fft
