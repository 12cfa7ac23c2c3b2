// Compressor: static curve, make-up, limit, attack/release/hold times, the
// side-chain and the channel layouts. Shared behaviour: ExpanderRmsTest.cpp.
#include <gtest/gtest.h>

#include <cmath>

#include <Algorithms/Compressor.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

namespace {

void setAll(Compressor& c, float ratio, float thresholdDb, float makeupDb = 0.0f, float limitDb = 50.0f)
{
    c.setParameter(Compressor::RATIO, ratio);
    c.setParameter(Compressor::THRES, thresholdDb);
    c.setParameter(Compressor::MAKEUP_GAIN, makeupDb);
    c.setParameter(Compressor::GR_LIMIT, limitDb);
}

// Reduction in dB over the last fifth of a one-second run.
double reductionDb(const std::vector<float>& in, const std::vector<float>& out)
{
    return ampToDb(peak(in, 38400, 48000)) - ampToDb(peak(out, 38400, 48000));
}

} // namespace

TEST(Compressor, StaticCurveTenDbOverThresholdOnASteadyTone)
{
    for (const auto& v : variants()) {
        for (float thr : {-30.0f, -15.0f}) {
            for (float ratio : {1.2f, 2.0f, 4.0f, 10.0f, 20.0f}) {
                SCOPED_TRACE(testing::Message() << v.name << " thr " << thr << " ratio " << ratio);
                const double want = (1.0 - 1.0 / ratio) * 10.0;
                Compressor c;
                c.setVariant(v);
                c.initialise(kRate, 1);
                setAll(c, ratio, thr);
                const auto in = square(dbToAmp(thr + 10.0), 48000);
                EXPECT_NEAR(reductionDb(in, runMono(c, in)), want, 0.1);
                EXPECT_NEAR(c.readOut(Compressor::kGainReduction), want, 0.1);
                // A sine needs a detector that catches its peaks and holds them between.
                c.reset();
                c.setParameter(Compressor::ATTACK, 0.1f);
                c.setParameter(Compressor::RELEASE, 1000.0f);
                const auto tone = sine(dbToAmp(thr + 10.0), 997.0f, 48000);
                EXPECT_NEAR(reductionDb(tone, runMono(c, tone)), want, 0.1);
            }
        }
    }
}

TEST(Compressor, MakeupBelowThresholdAndTheReductionLimit)
{
    Compressor c;
    c.initialise(kRate, 1);
    setAll(c, 4.0f, -15.0f, 6.0f);
    // Below the threshold only the make-up applies, from the first sample on.
    const auto quiet = sine(dbToAmp(-30.0), 440.0f, 4800);
    const auto out = runMono(c, quiet);
    for (std::size_t i = 0; i < quiet.size(); ++i)
        ASSERT_NEAR(out[i], quiet[i] * dbToAmp(6.0), 1e-6f);
    EXPECT_EQ(c.readOut(Compressor::kGainReduction), 0.0f);
    // A loud start is not cut by a stale envelope.
    c.reset();
    const auto loud = sine(1.0f, 440.0f, 480);
    EXPECT_NEAR(runMono(c, loud)[1], loud[1] * dbToAmp(6.0), 1e-6f);

    // 30 dB over at ratio 4 asks for 22.5 dB; a 6 dB limit stops it there,
    // and a limit of 0 dB disables compression.
    const std::vector<float> dc(24000, 1.0f);
    setAll(c, 4.0f, -30.0f, 0.0f, 6.0f);
    EXPECT_NEAR(ampToDb(runMono(c, dc).back()), -6.0, 1e-3);
    c.reset();
    setAll(c, 20.0f, -30.0f, 0.0f, 0.0f);
    EXPECT_EQ(runMono(c, dc), dc);
}

TEST(Compressor, AttackAndReleaseSettleWithTheirTimeConstants)
{
    for (float ms : {1.4f, 10.0f, 50.0f}) {
        SCOPED_TRACE(ms);
        Compressor c;
        c.setVariant(qvd::dynamics::referenceVariant());
        c.initialise(kRate, 1);
        setAll(c, 20.0f, -20.0f);
        c.setParameter(Compressor::ATTACK, ms);
        c.setParameter(Compressor::RELEASE, ms * 10.0f);
        // Step from below the threshold to 20 dB over it (settling at -19 dB), then back.
        const std::size_t step = 4800, fall = 4800 + 96000;
        std::vector<float> in(fall + 96000, dbToAmp(-40.0));
        std::fill(in.begin() + step, in.begin() + fall, 1.0f);
        const auto out = runMono(c, in);
        // 1 - 1/e of the way after one time constant, 90 % after ln(10) of them.
        const double tau = kRate * ms / 1000.0, e1 = 1.0 - std::exp(-1.0);
        EXPECT_NEAR(samplesToReach(in, out, step, -19.0, e1), tau, 1.0);
        EXPECT_NEAR(samplesToReach(in, out, step, -19.0, 0.9), tau * std::log(10.0), 1.0);
        EXPECT_NEAR(samplesToReach(in, out, fall, 0.0, e1), tau * 10.0, 2.0);
    }
}

TEST(Compressor, HoldKeepsTheGainForItsSampleCount)
{
    for (float holdMs : {0.0f, 50.0f}) {
        Compressor c;
        c.initialise(kRate, 1);
        setAll(c, 4.0f, -20.0f);
        c.setParameter(Compressor::HOLD, holdMs);
        // A burst short enough that the envelope is still rising when it ends.
        const std::size_t fall = 4896;
        std::vector<float> in(48000, dbToAmp(-10.0));
        std::fill(in.begin() + 4800, in.begin() + fall, 1.0f);
        const auto out = runMono(c, in);
        const auto held = static_cast<std::size_t>(kRate * holdMs / 1000.0f);
        const double before = gainDb(in, out, fall - 1);
        for (std::size_t i = fall; i < fall + held; ++i)
            ASSERT_NEAR(gainDb(in, out, i), before, 1e-5) << i - fall;
        // The release starts on the first sample after the hold.
        EXPECT_GT(gainDb(in, out, fall + held), before + 5e-5);
    }
}

TEST(Compressor, SidechainKeysTheMainChannels)
{
    for (bool keyed : {false, true}) {
        Compressor c;
        c.initialise(kRate, 2);
        setAll(c, 2.0f, -20.0f);
        c.setParameter(Compressor::SIDECHAIN_ON, keyed ? 1.0f : 0.0f);
        std::vector<std::vector<float>> in{sine(dbToAmp(-30.0), 300.0f, 48000), sine(dbToAmp(-30.0), 500.0f, 48000),
                                           std::vector<float>(48000, 0.0f)};
        std::fill(in[2].begin() + 24000, in[2].end(), 1.0f);
        auto io = in;
        for (std::size_t s = 0; s < 48000; s += 480) {
            float* chans[] = {io[0].data() + s, io[1].data() + s, io[2].data() + s, io[2].data() + s};
            ASSERT_TRUE(c.processChannels(chans, 480));
        }
        EXPECT_EQ(io[2], in[2]); // the side-chain is only read
        // Before the key: untouched; after it, 20 dB over at ratio 2 takes 10 dB off both.
        EXPECT_TRUE(std::equal(io[0].begin(), io[0].begin() + 24000, in[0].begin()));
        EXPECT_NEAR(reductionDb(in[0], io[0]), keyed ? 10.0 : 0.0, 0.05);
        EXPECT_NEAR(reductionDb(in[1], io[1]), keyed ? 10.0 : 0.0, 0.05);
    }
}

TEST(Compressor, PlanarAndInterleavedAgreeAndTheMixedFormIsRefused)
{
    for (std::size_t n : {2u, 3u}) {
        for (bool side : {false, true}) {
            SCOPED_TRACE(testing::Message() << n << " channels, side-chain " << side);
            // Planar: n buffers, then n side-chain buffers.
            std::vector<std::vector<float>> planar;
            for (std::uint32_t c = 0; c < 2 * n; ++c)
                planar.push_back(noise(3000, c < n ? 0.8f : 1.0f, 1 + c));
            const auto in = planar;
            Compressor p;
            p.initialise(kRate, static_cast<std::int32_t>(n));
            p.setParameter(Compressor::SIDECHAIN_ON, side ? 1.0f : 0.0f);
            ASSERT_TRUE(p.processChannels(pointers(planar).data(), 3000));
            // Interleaved: one buffer of n channels, its side-chain interleaved the same way.
            Compressor i;
            i.initialise(kRate, 1);
            i.setInterleavedChannels(static_cast<std::int32_t>(n));
            i.setParameter(Compressor::SIDECHAIN_ON, side ? 1.0f : 0.0f);
            std::vector<std::vector<float>> inter(2, std::vector<float>(3000 * n));
            for (std::size_t f = 0; f < 3000; ++f)
                for (std::size_t c = 0; c < n; ++c) {
                    inter[0][n * f + c] = in[c][f];
                    inter[1][n * f + c] = in[n + c][f];
                }
            ASSERT_TRUE(i.processChannels(pointers(inter).data(), 3000));
            for (std::size_t f = 0; f < 3000; ++f)
                for (std::size_t c = 0; c < n; ++c)
                    ASSERT_EQ(inter[0][n * f + c], planar[c][f]) << f;
        }
    }
    // Several buffers of several interleaved channels: refused, untouched; so
    // is the single-channel entry, which has no side-chain buffer.
    Compressor mixed;
    mixed.initialise(kRate, 2);
    mixed.setInterleavedChannels(2);
    std::vector<std::vector<float>> io(2, noise(1500, 0.8f, 1));
    const auto in = io;
    EXPECT_FALSE(mixed.processChannels(pointers(io).data(), 1500));
    mixed.setParameter(Compressor::SIDECHAIN_ON, 1.0f);
    EXPECT_FALSE(mixed.processChannel(0, io[0].data(), 1500));
    EXPECT_EQ(io, in);
}
