// Expander and RmsCompressor: static curves, floor and range, hold, timing,
// knee continuity, automatic make-up, the channel limit; plus the behaviour
// every dynamics block shares (typed over all three with the Compressor).
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/Compressor.h>
#include <Algorithms/Expander.h>
#include <Algorithms/RmsCompressor.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

TEST(Expander, StaticCurveFloorAndRange)
{
    for (const auto& v : variants()) {
        SCOPED_TRACE(v.name);
        Expander e;
        e.setVariant(v);
        e.initialise(kRate, 1);
        // Threshold -30, ratio 2, range 10: 3 dB under the threshold gives -6 dB.
        auto in = square(dbToAmp(-33.0), 48000);
        auto out = runMono(e, in);
        EXPECT_NEAR(gainDb(in, out, 47999), -6.0, 0.05);
        // Far below, and in silence, the gain rests on -range.
        in = square(dbToAmp(-70.0), 48000);
        out = runMono(e, in);
        EXPECT_NEAR(gainDb(in, out, 47999), -10.0, 0.01);
        runMono(e, std::vector<float>(48000, 0.0f));
        EXPECT_NEAR(e.readOut(Expander::kGainReduction), 10.0f, 0.01f);
        EXPECT_NEAR(e.envelope(), e.floorLevel(), 1e-3f);
        // Above the threshold nothing changes.
        in = square(dbToAmp(-20.0), 48000);
        out = runMono(e, in);
        EXPECT_TRUE(std::equal(in.begin() + 24000, in.end(), out.begin() + 24000));
    }
    // Range 0 puts the floor on the threshold: never any attenuation.
    Expander flat;
    flat.initialise(kRate, 1);
    flat.setParameter(Expander::RANGE, 0.0f);
    const auto quiet = noise(48000, dbToAmp(-60.0), 3);
    EXPECT_EQ(runMono(flat, quiet), quiet);
}

TEST(Expander, StartsAtUnityAndHoldsBeforeReleasing)
{
    Expander e;
    e.initialise(kRate, 1);
    e.setParameter(Expander::HOLD, 20.0f);
    e.setParameter(Expander::RELEASE, 100.0f);
    // Quiet from the first sample: never raised; the first sample only feels
    // the first step of the release.
    const auto quiet = square(dbToAmp(-60.0), 4800);
    const auto out = runMono(e, quiet);
    EXPECT_NEAR(gainDb(quiet, out, 0), 0.0, 0.01);
    for (std::size_t i = 0; i < out.size(); ++i)
        ASSERT_LE(std::fabs(out[i]), std::fabs(quiet[i])) << i;

    // Loud, then quiet: 0 dB for the hold (20 ms = 960 samples), then the
    // release covers 1 - 1/e of its way to -range in 100 ms.
    e.reset();
    std::vector<float> in(48000, dbToAmp(-10.0));
    const std::size_t fall = 24000;
    std::fill(in.begin() + fall, in.end(), dbToAmp(-80.0));
    const auto o = runMono(e, in);
    for (std::size_t i = fall; i < fall + 960; ++i)
        ASSERT_EQ(o[i], in[i]) << i - fall;
    EXPECT_LT(o[fall + 960], in[fall + 960]);
    std::size_t reached = 0;
    for (std::size_t i = fall; i < o.size() && reached == 0; ++i)
        if (gainDb(in, o, i) <= -10.0 * (1.0 - std::exp(-1.0)))
            reached = i - fall + 1;
    // Single-precision coefficients and state: a few samples in 4800.
    EXPECT_NEAR(static_cast<double>(reached), 960.0 + 4800.0, 5.0);
}

TEST(RmsCompressor, StaticCurveOnASteadySine)
{
    for (const auto& v : variants()) {
        for (float ratio : {1.2f, 2.0f, 4.0f, 20.0f}) {
            SCOPED_TRACE(testing::Message() << v.name << " ratio " << ratio);
            RmsCompressor c;
            c.setVariant(v);
            c.initialise(kRate, 1);
            c.setParameter(RmsCompressor::RATIO, ratio);
            c.setParameter(RmsCompressor::THRES, -25.0f);
            // RMS 10 dB over the threshold: beyond the 5 dB knee, on the hard line.
            const auto in = sine(dbToAmp(-15.0) * std::sqrt(2.0f), 997.0f, 48000);
            EXPECT_NEAR(gainDb(in, runMono(c, in), 47999), -(1.0 - 1.0 / ratio) * 10.0, 0.1);
            EXPECT_NEAR(c.readOut(RmsCompressor::kGainReduction), (1.0 - 1.0 / ratio) * 10.0, 0.1);
        }
    }
}

TEST(RmsCompressor, AttackAndReleaseSettleWithTheirTimeConstants)
{
    RmsCompressor c;
    c.setVariant(qvd::dynamics::referenceVariant());
    c.initialise(kRate, 1);
    // A fast RMS, no knee and a high ratio: the gain follows the envelope on a straight line.
    c.setParameter(RmsCompressor::RMS_SPEED, 0.1f);
    c.setParameter(RmsCompressor::KNEE, 0.0f);
    c.setParameter(RmsCompressor::RATIO, 20.0f);
    c.setParameter(RmsCompressor::THRES, -30.0f);
    c.setParameter(RmsCompressor::ATTACK, 10.0f);
    c.setParameter(RmsCompressor::RELEASE, 100.0f);
    const std::size_t step = 4800, fall = 4800 + 48000;
    std::vector<float> in(fall + 48000, dbToAmp(-50.0));
    std::fill(in.begin() + step, in.begin() + fall, dbToAmp(-10.0));
    const auto out = runMono(c, in);
    // 20 dB over at ratio 20 settles at -19 dB; the RMS itself adds a few samples.
    EXPECT_NEAR(samplesToReach(in, out, step, -19.0, 1.0 - std::exp(-1.0)), 480.0, 8.0);
    EXPECT_NEAR(samplesToReach(in, out, fall, 0.0, 1.0 - std::exp(-1.0)), 4800.0, 20.0);
}

TEST(RmsCompressor, KneeIsContinuousAtBothEdges)
{
    RmsCompressor c;
    c.initialise(kRate, 1);
    for (float knee : {0.0f, 2.0f, 5.0f, 15.0f}) {
        for (float ratio : {1.2f, 3.0f, 20.0f}) {
            SCOPED_TRACE(testing::Message() << "knee " << knee << " ratio " << ratio);
            c.setParameter(RmsCompressor::KNEE, knee);
            c.setParameter(RmsCompressor::RATIO, ratio);
            const float lower = (-15.0f - knee) / 20.0f, upper = (-15.0f + knee) / 20.0f;
            EXPECT_EQ(c.gainFor(std::nextafter(lower, -INFINITY)), 0.0f);
            EXPECT_NEAR(c.gainFor(lower), 0.0f, 1e-6f);
            const float hard = (upper - (-0.75f)) / ratio - (upper - (-0.75f));
            EXPECT_NEAR(c.gainFor(std::nextafter(upper, -INFINITY)), hard, 2e-6f);
            EXPECT_NEAR(c.gainFor(upper), hard, 1e-6f);
            // Inside the knee the curve only ever goes down, from 0 to the hard line's value.
            float previous = 0.0f;
            for (int i = 0; i <= 100; ++i) {
                const float e = lower + (upper - lower) * static_cast<float>(i) / 100.0f;
                const float y = c.gainFor(e);
                EXPECT_LE(y, previous + 1e-6f);
                EXPECT_GE(y, hard - 1e-6f);
                previous = y;
            }
        }
    }
}

TEST(RmsCompressor, AutomaticMakeupGivesBackTheReductionAtTheReference)
{
    RmsCompressor c;
    c.initialise(kRate, 1);
    c.setParameter(RmsCompressor::THRES, -20.0f);
    c.setParameter(RmsCompressor::RATIO, 4.0f);
    c.setParameter(RmsCompressor::MAKEUP_GAIN, 3.0f); // replaced by the automatic one
    c.setParameter(RmsCompressor::AUTO_MAKEUP, 1.0f);
    // Reference -13: 7 dB over at ratio 4 loses 5.25 dB.
    EXPECT_NEAR(c.makeup() * 20.0f, 5.25f, 1e-5f);
    c.setParameter(RmsCompressor::KNEE, 10.0f);
    EXPECT_NEAR(c.makeup() * 20.0f, 5.25f, 1e-5f);
    c.setParameter(RmsCompressor::MAKEUP_REF, -25.0f);
    EXPECT_EQ(c.makeup(), 0.0f);
    c.setParameter(RmsCompressor::MAKEUP_REF, -13.0f);
    // Below the knee only the make-up applies.
    const auto quiet = sine(dbToAmp(-50.0), 440.0f, 4800);
    const auto out = runMono(c, quiet);
    EXPECT_NEAR(gainDb(quiet, out, 4000), 5.25, 1e-3);
}

TEST(RmsCompressor, RefusesThirtyTwoChannelsAndFloorsTheGain)
{
    const auto tone = sine(1.0f, 100.0f, 256);
    for (std::int32_t count : {31, 32, 40}) {
        RmsCompressor c;
        c.initialise(kRate, count);
        std::vector<std::vector<float>> data(static_cast<std::size_t>(count), tone);
        EXPECT_EQ(c.processChannels(pointers(data).data(), 256), count < 32);
        EXPECT_EQ(data.back() == tone, count >= 32) << count;
    }
    // 250 dB over a -50 dB threshold at ratio 20 would ask for 237.5 dB; the floor stops it at 100.
    RmsCompressor c;
    c.initialise(kRate, 1);
    c.setParameter(RmsCompressor::THRES, -50.0f);
    c.setParameter(RmsCompressor::RATIO, 20.0f);
    const std::vector<float> huge(48000, 1e10f);
    const auto out = runMono(c, huge);
    EXPECT_NEAR(c.readOut(RmsCompressor::kGainReduction), 100.0f, 1e-3f);
    EXPECT_NEAR(gainDb(huge, out, 47999), -100.0, 1e-3);
}

// Behaviour every dynamics block shares.
template <class Block>
class DynamicsBlock : public testing::Test {};
using Blocks = testing::Types<Compressor, Expander, RmsCompressor>;
TYPED_TEST_SUITE(DynamicsBlock, Blocks);

TYPED_TEST(DynamicsBlock, LinkedChannelsFollowTheLoudest)
{
    const auto loud = bursts(6000, 1500, 4);
    TypeParam mono;
    mono.initialise(kRate, 1);
    const auto want = runMono(mono, loud);
    // The loud channel in every position of two and three, the rest silent.
    for (std::int32_t count : {2, 3}) {
        for (std::int32_t at = 0; at < count; ++at) {
            TypeParam block;
            block.initialise(kRate, count);
            std::vector<std::vector<float>> data(static_cast<std::size_t>(count), std::vector<float>(6000, 0.0f));
            data[static_cast<std::size_t>(at)] = loud;
            ASSERT_TRUE(block.processChannels(pointers(data).data(), 6000));
            EXPECT_EQ(data[static_cast<std::size_t>(at)], want) << count << " " << at;
        }
    }
}

TYPED_TEST(DynamicsBlock, SplitInvariantAndResetLikeNew)
{
    const auto in = bursts(12000, 1500, 21);
    TypeParam fresh;
    fresh.initialise(kRate, 1);
    const auto whole = runMono(fresh, in, in.size());
    // One block reused after reset: sample by sample, then random splits.
    TypeParam block;
    block.initialise(kRate, 1);
    EXPECT_EQ(runMono(block, in, 1), whole);
    block.reset();
    EXPECT_EQ(block.readOut(TypeParam::kGainReduction), 0.0f);
    for (unsigned seed : {5u, 6u}) {
        block.reset();
        auto x = in;
        std::mt19937 rng(seed);
        for (std::size_t s = 0, n = 0; s < x.size(); s += n) {
            n = std::min<std::size_t>(rng() % 900, x.size() - s);
            float* p = x.data() + s;
            ASSERT_TRUE(block.processChannels(&p, static_cast<std::uint32_t>(n)));
        }
        EXPECT_EQ(x, whole) << seed;
    }
}

TYPED_TEST(DynamicsBlock, FastVariantsTrackTheReference)
{
    const auto in = bursts(48000, 6000, 8);
    std::vector<float> ref;
    for (const auto& v : variants()) {
        TypeParam block;
        block.setVariant(v);
        block.initialise(kRate, 1);
        const auto out = runMono(block, in);
        if (ref.empty())
            ref = out;
        for (std::size_t i = 0; i < in.size(); ++i)
            ASSERT_NEAR(gainDb(ref, out, i), 0.0, 1e-3) << v.name << " " << i;
    }
}

TYPED_TEST(DynamicsBlock, HostileSettingsAndSamplesDoNotPoisonIt)
{
    TypeParam block;
    block.initialise(kRate, 2);
    for (std::uint32_t p = 0; p < block.parameterCount(); ++p) {
        for (float v : hostileValues()) {
            EXPECT_TRUE(block.setParameter(p, v));
            std::vector<std::vector<float>> x(4, noise(256, 1.0f, p)); // with a side-chain
            block.processChannels(pointers(x).data(), 256);
        }
    }
    block.initialise(kRate, 2);
    TypeParam clean;
    clean.initialise(kRate, 2);
    const auto signal = noise(48000, 0.5f, 2);
    auto bad = signal;
    for (std::size_t i = 1000; i < 1100; ++i)
        bad[i] = i % 3 == 0 ? std::nanf("") : (i % 3 == 1 ? INFINITY : -1e38f);
    std::vector<std::vector<float>> b(2, bad), g(2, signal);
    for (std::size_t s = 0; s < 48000; s += 512) {
        const auto n = static_cast<std::uint32_t>(std::min<std::size_t>(512, 48000 - s));
        float* bp[] = {b[0].data() + s, b[1].data() + s};
        float* gp[] = {g[0].data() + s, g[1].data() + s};
        block.processChannels(bp, n);
        clean.processChannels(gp, n);
    }
    // Finite from the next block on; within a second the gain matches a block that never saw it.
    EXPECT_TRUE(allFinite(b[0], 1536));
    for (std::size_t i = 40000; i < 48000; ++i)
        ASSERT_NEAR(gainDb(g[0], b[0], i), 0.0, 0.05) << i;
}
