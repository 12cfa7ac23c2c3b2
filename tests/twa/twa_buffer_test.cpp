#include "AssertCatcher.h"
#include "System/twa_aligned_allocator.h"
#include "System/twa_buffer.h"
#include "System/twa_syncpool.h"
#include "System/twa_tools.h"

#include <boost/container/pmr/vector.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

namespace twa {
namespace {

using qvd::test::AssertCatcher;

bool aligned(const void* p, std::size_t a)
{
    return (reinterpret_cast<std::uintptr_t>(p) % a) == 0;
}

TEST(AlignedAllocator, EveryBlockStartsOnTheBoundaryAndOverflowIsRefused)
{
    for (std::size_t n = 1; n < 70; ++n) {
        EXPECT_TRUE(aligned(sample_vector(n).data(), 32)) << n;
        EXPECT_TRUE(aligned(std::vector<double, memory::aligned_allocator<double, 64>>(n).data(), 64)) << n;
    }
    sample_vector grow;
    for (int i = 0; i < 1000; ++i) {
        grow.push_back(static_cast<float>(i));
        ASSERT_TRUE(aligned(grow.data(), 32));
    }
    EXPECT_EQ(grow[999], 999.0f);
    memory::aligned_allocator<float, 32> a;
    EXPECT_THROW((void)a.allocate(std::numeric_limits<std::size_t>::max() / 2), std::length_error);
}

buffer ramp(std::size_t channels, std::size_t length)
{
    buffer b(channels, length);
    for (std::size_t c = 0; c < channels; ++c)
        for (std::size_t i = 0; i < length; ++i)
            b[c][i] = static_cast<float>(c * 1000 + i);
    return b;
}

TEST(Buffer, ResizeKeepsSamplesAndZeroFills)
{
    buffer b = ramp(2, 4);
    b.Resize(3, 6);
    EXPECT_EQ(b.GetChannelCount(), 3u);
    EXPECT_EQ(b.GetLength(), 6u);
    EXPECT_EQ(b[1][3], 1003.0f);
    EXPECT_EQ(b[1][5], 0.0f);
    EXPECT_EQ(b[2][0], 0.0f);
    EXPECT_TRUE(aligned(b.GetChannel(2), 32));
    b.Clear();
    EXPECT_EQ(b[0][1], 0.0f);
}

TEST(Buffer, DropFrontKeepsTheRestInOrder)
{
    buffer b = ramp(3, 10);
    b.DropFront(4);
    ASSERT_EQ(b.GetLength(), 6u);
    for (std::size_t c = 0; c < 3; ++c)
        for (std::size_t i = 0; i < 6; ++i)
            EXPECT_EQ(b[c][i], static_cast<float>(c * 1000 + i + 4));
    b.DropFront(0);
    EXPECT_EQ(b.GetLength(), 6u);
    b.DropFront(100);
    EXPECT_EQ(b.GetLength(), 0u);
    EXPECT_EQ(b.GetChannelCount(), 3u);
}

TEST(Buffer, ViewsCoverTheRangeOrFail)
{
    buffer b = ramp(2, 8);
    buffer_view v;
    ASSERT_TRUE(b.GetPointers(3, v));
    ASSERT_EQ(v.channels.size(), 2u);
    EXPECT_EQ(v.length, 5u);
    EXPECT_EQ(*v.channels[1], 1003.0f);
    ASSERT_TRUE(b.GetView(2, 6, v));
    EXPECT_EQ(v.length, 6u);
    EXPECT_EQ(v.channels[0][5], 7.0f);
    ASSERT_TRUE(b.GetView(8, 0, v)) << "an empty range at the end is still inside";

    EXPECT_FALSE(b.GetPointers(8, v));
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(v.length, 0u);
    EXPECT_FALSE(b.GetView(2, 7, v));
    EXPECT_TRUE(v.empty());
    EXPECT_FALSE(b.GetView(1, std::numeric_limits<std::size_t>::max(), v)) << "no wrap-around";
    buffer none;
    EXPECT_FALSE(none.GetView(0, 0, v));
    EXPECT_FALSE(none.GetPointers(0, v));
    EXPECT_TRUE(v.empty());
}

TEST(Buffer, CopyAndInterleaveRoundTrip)
{
    const buffer a = ramp(3, 5);
    buffer c(3, 1);
    c.CopyFrom(a);
    EXPECT_EQ(c.GetLength(), 5u);
    EXPECT_EQ(c[2][4], 2004.0f);

    interleaved_buffer il;
    a.ToInterleaved(il);
    EXPECT_EQ(il.GetChannelCount(), 3u);
    EXPECT_EQ(il.GetChannelWidth(), 3u);
    EXPECT_EQ(il.GetFrameCount(), 5u);
    EXPECT_EQ(il.data()[4 * 3 + 1], 1004.0f);
    buffer back;
    back.FromInterleaved(il, 3);
    for (std::size_t ch = 0; ch < 3; ++ch)
        EXPECT_EQ(back[ch], a[ch]);
}

TEST(Buffer, ContractChecksReportTheirConditions)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    AssertCatcher catcher;
    buffer stereo = ramp(2, 4);
    (void)stereo.GetMono();
    EXPECT_EQ(catcher.count(), 1u);
    EXPECT_EQ(AssertCatcher::last(), "GetChannelCount() == 1u");

    buffer mono(1, 4);
    mono.CopyFrom(stereo);
    EXPECT_EQ(catcher.count(), 2u);
    EXPECT_EQ(AssertCatcher::last(), "GetChannelCount() == in.GetChannelCount()");
    EXPECT_EQ(mono[0], stereo[0]) << "copies the channels both have";

    interleaved_buffer padded(2, 3, 4); // two channels in frames of four samples
    padded.data()[4 * 2 + 1] = 5.0f;
    buffer out;
    out.FromInterleaved(padded, 2);
    EXPECT_EQ(catcher.count(), 3u);
    EXPECT_EQ(AssertCatcher::last(), "channel_count == in.GetChannelWidth()");
    EXPECT_EQ(out[1][2], 5.0f) << "still honours the frame width";
    out.FromInterleaved(padded, 4);
    EXPECT_EQ(catcher.count(), 4u) << "only the first failing check of the pair here";
    EXPECT_EQ(AssertCatcher::last(), "channel_count == in.GetChannelCount()");

    buffer fine(1, 2);
    (void)fine.GetMono();
    EXPECT_EQ(catcher.count(), 4u);
}

TEST(Tools, FifoPopsOldestFirstAndGuardsItsSize)
{
    sample_vector fifo;
    const float a[] = {1, 2, 3, 4, 5};
    FifoPush(fifo, a, 5);
    float out[4] = {};
    EXPECT_TRUE(FifoPop(fifo, out, 2));
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(out[1], 2.0f);
    FifoPush(fifo, a, 1);
    ASSERT_EQ(fifo.size(), 4u);
    EXPECT_EQ(fifo.front(), 3.0f);
    EXPECT_EQ(fifo.back(), 1.0f);
    EXPECT_TRUE(FifoPop(fifo, out, 0));
    EXPECT_EQ(fifo.size(), 4u);

    AssertCatcher catcher;
    float more[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_FALSE(FifoPop(fifo, more, 6));
    EXPECT_TRUE(fifo.empty());
    EXPECT_EQ(more[3], 1.0f);
    EXPECT_EQ(more[4], 0.0f);
    EXPECT_EQ(more[5], 0.0f);
    if (debug::kAssertsEnabled) {
        EXPECT_EQ(catcher.count(), 1u);
        EXPECT_EQ(AssertCatcher::last(), "p_FIFO.size() >= v_size");
    }
}

TEST(Tools, StridedCopiesPickEveryStrideThSample)
{
    std::vector<float> in(12);
    std::iota(in.begin(), in.end(), 0.0f);
    float g[4] = {};
    GatherStrided(in.data() + 1, 3, g, 4);
    EXPECT_EQ(g[0], 1.0f);
    EXPECT_EQ(g[3], 10.0f);
    std::vector<float> s(12, -1.0f);
    ScatterStrided(g, s.data(), 3, 4);
    EXPECT_EQ(s[0], 1.0f);
    EXPECT_EQ(s[9], 10.0f);
    EXPECT_EQ(s[10], -1.0f);

    AssertCatcher catcher;
    GatherStrided(in.data(), 0, g, 2);
    EXPECT_EQ(g[1], 0.0f);
    if (debug::kAssertsEnabled) {
        EXPECT_EQ(catcher.count(), 1u);
        EXPECT_EQ(AssertCatcher::last(), "stride>0");
    }
}

TEST(SyncPool, EqualOnlyToItselfAndServesManyThreadsAtOnce)
{
    memory::SyncPool pool, other;
    EXPECT_TRUE(pool.is_equal(pool));
    EXPECT_FALSE(pool.is_equal(other));
    EXPECT_FALSE(pool.is_equal(*boost::container::pmr::new_delete_resource()));
    std::vector<int> failures(4, 0);
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < failures.size(); ++t)
        threads.emplace_back([&pool, &failed = failures[t], t] {
            for (int round = 0; round < 200; ++round) {
                boost::container::pmr::vector<std::uint32_t> v(&pool);
                for (std::uint32_t i = 0; i < 100; ++i)
                    v.push_back(t * 100000u + i);
                for (std::uint32_t i = 0; i < 100; ++i)
                    failed += v[i] != t * 100000u + i;
                void* p = pool.allocate(256, 32);
                failed += !aligned(p, 32);
                pool.deallocate(p, 256, 32);
            }
        });
    for (auto& th : threads)
        th.join();
    for (const int f : failures)
        EXPECT_EQ(f, 0);
    pool.release();
}

} // namespace
} // namespace twa
