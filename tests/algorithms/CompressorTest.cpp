// Compressor: static curve, make-up, limit, timing against the one-pole time
// constants, hold, side-chain keying, the processing forms and the per-sample
// formula. Block splits, variants and hostile input: ExpanderRmsTest.cpp.
#include <gtest/gtest.h>

#include <cfloat>
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

// Processes a mono signal in 512-frame blocks.
std::vector<float> runMono(Compressor& c, std::vector<float> x)
{
    float* p = x.data();
    for (std::size_t start = 0; start < x.size(); start += 512) {
        p = x.data() + start;
        EXPECT_TRUE(c.processChannels(&p, static_cast<std::uint32_t>(std::min<std::size_t>(512, x.size() - start))));
    }
    return x;
}

// Gain in log10 units seen by each sample of a DC signal.
std::vector<double> gains(const std::vector<float>& in, const std::vector<float>& out)
{
    std::vector<double> g(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
        g[i] = std::log10(static_cast<double>(out[i]) / in[i]);
    return g;
}

// The documented per-sample algorithm, written out independently.
struct FormulaCompressor {
    float thr, a, ca, r, cr, slope, makeup, limit;
    std::int32_t holdSamples;
    double env;
    std::int32_t hold = 0;
    float gain(float detector)
    {
        const float d = std::max(detector, 1e-5f);
        const double l = std::max(thr, std::log10(d));
        if (l > env) {
            hold = holdSamples;
            env = double(a) * env + double(ca) * l;
        } else if (hold > 0) {
            --hold;
        } else {
            env = double(r) * env + double(cr) * l;
        }
        const float g = std::fmax(limit, static_cast<float>((double(thr) - env) * double(slope))) + makeup;
        return std::pow(10.0f, g);
    }
};

} // namespace

TEST(Compressor, TableAndDefaults)
{
    Compressor c;
    c.initialise(48000.0f, 2);
    ASSERT_EQ(c.parameterCount(), 8u);
    const char* ids[] = {"Compressor::RATIO",   "Compressor::THRES",       "Compressor::ATTACK",
                         "Compressor::HOLD",    "Compressor::RELEASE",     "Compressor::MAKEUP_GAIN",
                         "Compressor::SIDECHAIN_ON", "Compressor::GR_LIMIT"};
    const float defaults[] = {2, -15, 1.4f, 0, 150, 0, 0, 50};
    for (std::uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(c.parameters()[i].definition().identifier, ids[i]);
        EXPECT_EQ(c.getParameter(i), defaults[i]);
    }
    EXPECT_EQ(c.parameters()[6].definition().kind, qvd::kSwitch);
    EXPECT_FALSE(c.setParameter(8, 1.0f));
    EXPECT_EQ(c.getParameter(8), 0.0f);
    EXPECT_FLOAT_EQ(c.envelope(), -0.75f); // starts at the threshold
}

TEST(Compressor, StaticCurveTenDbOverThresholdOnASteadyTone)
{
    for (const auto& v : variants()) {
        for (float thr : {-30.0f, -15.0f}) {
            for (float ratio : {1.2f, 2.0f, 4.0f, 10.0f, 20.0f}) {
                SCOPED_TRACE(testing::Message() << v.name << " thr " << thr << " ratio " << ratio);
                Compressor c;
                c.setVariant(v);
                c.initialise(kRate, 1);
                setAll(c, ratio, thr);
                // A 1 kHz square tone: its peak level is steady sample by sample.
                std::vector<float> in(48000);
                for (std::size_t i = 0; i < in.size(); ++i)
                    in[i] = (i / 24) % 2 ? -dbToAmp(thr + 10.0) : dbToAmp(thr + 10.0);
                const auto out = runMono(c, in);
                const double reduction = ampToDb(peak(in, 38400, 48000)) - ampToDb(peak(out, 38400, 48000));
                EXPECT_NEAR(reduction, (1.0 - 1.0 / ratio) * 10.0, 0.1);
                EXPECT_NEAR(c.readOut(Compressor::kGainReduction), (1.0 - 1.0 / ratio) * 10.0, 0.1);
                // A sine needs a detector that catches its peaks and holds them between.
                Compressor fast;
                fast.setVariant(v);
                fast.initialise(kRate, 1);
                setAll(fast, ratio, thr);
                fast.setParameter(Compressor::ATTACK, 0.1f);
                fast.setParameter(Compressor::RELEASE, 1000.0f);
                const auto tone = sine(dbToAmp(thr + 10.0), 997.0f, 48000);
                const auto toneOut = runMono(fast, tone);
                EXPECT_NEAR(ampToDb(peak(tone, 38400, 48000)) - ampToDb(peak(toneOut, 38400, 48000)),
                            (1.0 - 1.0 / ratio) * 10.0, 0.1);
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
    EXPECT_FLOAT_EQ(c.envelope(), -0.75f);
    EXPECT_EQ(c.readOut(Compressor::kGainReduction), 0.0f);

    // 30 dB over at ratio 4 asks for 22.5 dB; a 6 dB limit stops it there.
    Compressor lim;
    lim.initialise(kRate, 1);
    setAll(lim, 4.0f, -30.0f, 0.0f, 6.0f);
    const std::vector<float> dc(24000, dbToAmp(0.0));
    const auto limited = runMono(lim, dc);
    EXPECT_NEAR(ampToDb(limited.back()), -6.0, 1e-3);

    // A limit of 0 dB disables compression.
    Compressor off;
    off.initialise(kRate, 1);
    setAll(off, 20.0f, -30.0f, 0.0f, 0.0f);
    const auto untouched = runMono(off, dc);
    EXPECT_EQ(untouched, dc);
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
        // Step from below the threshold to 20 dB over it, then back.
        const std::size_t step = 4800, fall = 4800 + 96000;
        std::vector<float> in(fall + 96000, dbToAmp(-40.0));
        std::fill(in.begin() + step, in.begin() + fall, dbToAmp(0.0));
        const auto g = gains(in, runMono(c, in));
        const double slope = 1.0 - 1.0 / 20.0;
        const double top = -1.0 * slope; // gain with the envelope at the level
        auto firstReaching = [&](std::size_t from, double target, double fraction) {
            for (std::size_t i = from; i < g.size(); ++i)
                if ((g[i] - g[from - 1]) / (target - g[from - 1]) >= fraction)
                    return static_cast<double>(i - from + 1);
            return -1.0;
        };
        // 1 - 1/e of the way after fs*T/1000 samples, 90 % after ln(10) times that.
        const double tau = kRate * ms / 1000.0;
        EXPECT_NEAR(firstReaching(step, top, 1.0 - std::exp(-1.0)), tau, 1.0);
        EXPECT_NEAR(firstReaching(step, top, 0.9), tau * std::log(10.0), 1.0);
        EXPECT_NEAR(firstReaching(fall, 0.0, 1.0 - std::exp(-1.0)), tau * 10.0, 2.0);
    }
}

TEST(Compressor, HoldKeepsTheGainForItsSampleCount)
{
    for (float holdMs : {0.0f, 50.0f}) {
        Compressor c;
        c.initialise(kRate, 1);
        setAll(c, 4.0f, -20.0f);
        c.setParameter(Compressor::HOLD, holdMs);
        // A burst short enough that the envelope is still rising when it ends,
        // so the hold is armed in full.
        const std::size_t fall = 4896;
        std::vector<float> in(48000, dbToAmp(-10.0));
        std::fill(in.begin() + 4800, in.begin() + fall, dbToAmp(0.0));
        const auto out = runMono(c, in);
        const auto held = static_cast<std::size_t>(kRate * holdMs / 1000.0f);
        const double before = static_cast<double>(out[fall - 1]) / in[fall - 1];
        for (std::size_t i = fall; i < fall + held; ++i)
            ASSERT_NEAR(static_cast<double>(out[i]) / in[i], before, before * 1e-6) << i - fall;
        // The release starts on the first sample after the hold.
        EXPECT_GT(static_cast<double>(out[fall + held]) / in[fall + held], before * (1.0 + 1e-5));
    }
}

TEST(Compressor, SidechainKeysTheMainChannels)
{
    for (bool keyed : {false, true}) {
        Compressor c;
        c.initialise(kRate, 2);
        setAll(c, 2.0f, -20.0f);
        c.setParameter(Compressor::SIDECHAIN_ON, keyed ? 1.0f : 0.0f);
        auto l = sine(dbToAmp(-30.0), 300.0f, 48000), r = sine(dbToAmp(-30.0), 500.0f, 48000);
        std::vector<float> key(48000, 0.0f);
        std::fill(key.begin() + 24000, key.end(), dbToAmp(0.0));
        const auto inL = l, inR = r, inKey = key;
        for (std::size_t s = 0; s < 48000; s += 480) {
            float* chans[] = {l.data() + s, r.data() + s, key.data() + s, key.data() + s};
            ASSERT_TRUE(c.processChannels(chans, 480));
        }
        EXPECT_EQ(key, inKey); // the side-chain is only read
        // Before the key: untouched; after it, 20 dB over at ratio 2 takes 10 dB off both.
        EXPECT_TRUE(std::equal(l.begin(), l.begin() + 24000, inL.begin()));
        const double redL = ampToDb(peak(inL, 40000, 48000)) - ampToDb(peak(l, 40000, 48000));
        const double redR = ampToDb(peak(inR, 40000, 48000)) - ampToDb(peak(r, 40000, 48000));
        EXPECT_NEAR(redL, keyed ? 10.0 : 0.0, 0.05);
        EXPECT_NEAR(redR, keyed ? 10.0 : 0.0, 0.05);
    }
}

TEST(Compressor, LinkedFormsAgreeAndTheMixedFormIsRefused)
{
    const auto a = noise(3000, 0.8f, 1), b = sine(0.5f, 123.0f, 3000);
    std::vector<float> pb; // channel b after linked stereo
    for (std::size_t n : {2u, 3u}) {
        for (bool side : {false, true}) {
            SCOPED_TRACE(testing::Message() << n << " channels, side-chain " << side);
            std::vector<std::vector<float>> main, key;
            for (std::size_t c = 0; c < n; ++c) {
                main.push_back(c == 1 ? b : noise(3000, 0.8f, 1 + static_cast<std::uint32_t>(c)));
                key.push_back(noise(3000, 1.0f, 10 + static_cast<std::uint32_t>(c)));
            }
            // Planar: n buffers, then n side-chain buffers.
            Compressor planar;
            planar.initialise(kRate, static_cast<std::int32_t>(n));
            planar.setParameter(Compressor::SIDECHAIN_ON, side ? 1.0f : 0.0f);
            auto pm = main, pk = key;
            std::vector<float*> pc;
            for (auto& v : pm)
                pc.push_back(v.data());
            for (auto& v : pk)
                pc.push_back(v.data());
            ASSERT_TRUE(planar.processChannels(pc.data(), 3000));
            // Interleaved: one buffer of n channels, its side-chain interleaved the same way.
            Compressor inter;
            inter.initialise(kRate, 1);
            inter.setInterleavedChannels(static_cast<std::int32_t>(n));
            inter.setParameter(Compressor::SIDECHAIN_ON, side ? 1.0f : 0.0f);
            std::vector<float> il(3000 * n), kl(3000 * n);
            for (std::size_t i = 0; i < 3000; ++i)
                for (std::size_t c = 0; c < n; ++c) {
                    il[n * i + c] = main[c][i];
                    kl[n * i + c] = key[c][i];
                }
            float* ic[] = {il.data(), kl.data()};
            ASSERT_TRUE(inter.processChannels(ic, 3000));
            for (std::size_t i = 0; i < 3000; ++i)
                for (std::size_t c = 0; c < n; ++c)
                    ASSERT_EQ(il[n * i + c], pm[c][i]) << i;
            if (n == 2 && !side)
                pb = pm[1];
        }
    }
    // The loudest channel drives both: channel b alone would be compressed less.
    Compressor mono;
    mono.initialise(kRate, 1);
    auto mb = b;
    ASSERT_TRUE(mono.processChannel(0, mb.data(), 3000));
    EXPECT_LT(peak(pb, 2000, 3000), peak(mb, 2000, 3000));

    // Several buffers of several interleaved channels: refused, untouched.
    Compressor mixed;
    mixed.initialise(kRate, 2);
    mixed.setInterleavedChannels(2);
    auto ma = a, mb2 = a;
    float* mc[] = {ma.data(), mb2.data()};
    EXPECT_FALSE(mixed.processChannels(mc, 1500));
    EXPECT_EQ(ma, a);
    // The single-channel entry has no side-chain buffer.
    mixed.setParameter(Compressor::SIDECHAIN_ON, 1.0f);
    EXPECT_FALSE(mixed.processChannel(0, ma.data(), 1500));
    EXPECT_EQ(ma, a);
}

TEST(Compressor, ReferenceFollowsThePerSampleFormulaExactly)
{
    Compressor c;
    c.setVariant(qvd::dynamics::referenceVariant());
    c.initialise(kRate, 2);
    setAll(c, 3.0f, -24.0f, 4.0f, 12.0f);
    c.setParameter(Compressor::ATTACK, 0.5f);
    c.setParameter(Compressor::HOLD, 3.0f);
    c.setParameter(Compressor::RELEASE, 60.0f);
    auto l = noise(20000, 1.0f, 3), r = noise(20000, 0.3f, 4);
    for (std::size_t i = 0; i < 20000; ++i) // bursts and gaps
        l[i] *= (i / 2000) % 2 ? 1.0f : 0.01f;
    const auto inL = l, inR = r;
    float* chans[] = {l.data(), r.data()};
    ASSERT_TRUE(c.processChannels(chans, 20000));

    const float fs = kRate;
    FormulaCompressor f{-24.0f / 20.0f,
                        std::exp(-1.0f / (fs * 0.5f / 1000.0f)),
                        1.0f - std::exp(-1.0f / (fs * 0.5f / 1000.0f)),
                        std::exp(-1.0f / (fs * 60.0f / 1000.0f)),
                        1.0f - std::exp(-1.0f / (fs * 60.0f / 1000.0f)),
                        1.0f - 1.0f / 3.0f,
                        4.0f / 20.0f,
                        -12.0f / 20.0f,
                        static_cast<std::int32_t>(fs * 3.0f / 1000.0f),
                        -24.0f / 20.0f};
    for (std::size_t i = 0; i < 20000; ++i) {
        const float g = f.gain(std::max(std::fabs(inL[i]), std::fabs(inR[i])));
        ASSERT_EQ(l[i], inL[i] * g) << i;
        ASSERT_EQ(r[i], inR[i] * g) << i;
    }
}

TEST(Compressor, ResetRestoresTheStartingState)
{
    Compressor c;
    c.initialise(kRate, 1);
    const auto loud = sine(1.0f, 440.0f, 4800);
    const auto first = runMono(c, loud);
    EXPECT_EQ(first[1], loud[1]); // the first samples are not cut by a stale envelope
    c.reset();
    EXPECT_FLOAT_EQ(c.envelope(), -0.75f);
    EXPECT_EQ(c.readOut(Compressor::kGainReduction), 0.0f);
    EXPECT_EQ(runMono(c, loud), first);
}
