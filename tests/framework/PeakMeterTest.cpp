// The peak every meter reads: the largest magnitude of a run of samples at
// any length and alignment, NaNs ignored wherever they fall, and the copy
// exact.
#include <QVDPeakMeter.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

TEST(PeakMeter, ReadsTheLargestMagnitudeAtEveryLengthAndAlignment)
{
    std::mt19937 rng(11);
    std::normal_distribution<float> d(0.0f, 0.3f);
    for (std::size_t n = 0; n <= 70; ++n) {
        for (const std::size_t offset : {0u, 1u, 2u, 3u}) {
            // One spare element each, so even an empty run has real buffers
            // (memcmp on a null pointer is undefined, even for zero bytes).
            std::vector<float> in(n + offset + 1), out(n + offset + 1, 7.0f);
            for (float& x : in)
                x = d(rng);
            float want = 0.0f;
            for (std::size_t i = offset; i < offset + n; ++i)
                want = std::max(want, std::fabs(in[i]));
            // The largest sample, negative, placed anywhere in the run.
            if (n > 0) {
                in[offset + rng() % n] = -(want + 1.0f);
                want += 1.0f;
            }
            EXPECT_EQ(qvdPeak(in.data() + offset, n), want) << n << " frames at offset " << offset;
            EXPECT_EQ(qvdCopyPeak(in.data() + offset, out.data() + offset, n), want) << n;
            EXPECT_EQ(std::memcmp(in.data() + offset, out.data() + offset, n * sizeof(float)), 0) << n;
            EXPECT_EQ(out[n + offset], 7.0f) << "wrote past the run of " << n;
        }
    }
}

TEST(PeakMeter, ANaNAnywhereLeavesThePeakOfTheRest)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (std::size_t n : {1u, 5u, 16u, 37u, 64u}) {
        for (std::size_t at = 0; at < n; ++at) {
            std::vector<float> in(n, 0.25f);
            in[n / 2] = -0.5f;
            if (at == n / 2)
                continue;
            in[at] = nan;
            EXPECT_EQ(qvdPeak(in.data(), n), n > 1 ? 0.5f : 0.0f) << "NaN at " << at << " of " << n;
        }
    }
}
