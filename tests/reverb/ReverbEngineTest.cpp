// The engine measured from outside: dry path, decay time, echo density,
// stability over settings and rates, block and in-place invariance,
// recovery, the oversampled wrappers and their contract checks.

#include "ReverbSupport.h"

#include "../framework/AssertCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <cstdio>
#include <random>

namespace {

using namespace reverbtest;
using Signal = std::vector<std::vector<float>>;

Signal noise(std::size_t channels, std::size_t frames, unsigned seed, float level = 0.5f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-level, level);
    Signal s(channels, std::vector<float>(frames));
    for (auto& ch : s)
        for (auto& v : ch)
            v = u(rng);
    return s;
}

Signal impulse(std::size_t channels, std::size_t frames)
{
    Signal s(channels, std::vector<float>(frames, 0.0f));
    for (auto& ch : s)
        ch[0] = 1.0f;
    return s;
}

// The late sound alone.
Control::Settings lateOnly(Control::Settings s)
{
    s[Control::DirectGain] = 0.0f;
    s[Control::EarlyGain] = 0.0f;
    return s;
}

float peak(const std::vector<float>& x, std::size_t from, std::size_t to)
{
    float p = 0.0f;
    for (std::size_t n = from; n < std::min(to, x.size()); ++n)
        p = std::max(p, std::fabs(x[n]));
    return p;
}

TEST(ReverbEngine, DryMixPassesTheInputUnchanged)
{
    Control::Settings s = defaults();
    s[Control::DryWet] = 0.0f;
    EngineSetup setup(48000.0f, s);
    qv_reverb_u15 engine(*setup.param);
    const Signal in = noise(2, 4000, 1);
    const Signal out = run(engine, in, 512);
    EXPECT_EQ(out, in);
}

TEST(ReverbEngine, DecayTimeFollowsTheReverbTimeSetting)
{
    for (const float rate : {44100.0f, 48000.0f}) {
        for (const float T : {0.3f, 1.0f, 2.0f, 4.0f}) {
            Control::Settings s = lateOnly(defaults());
            s[Control::ReverbTime] = T;
            EngineSetup setup(rate, s, 1);
            qv_reverb_u15 engine(*setup.param);
            const Signal ir = run(engine, impulse(1, static_cast<std::size_t>(rate * T * 1.5f)), 512);
            const double measured = decayTime(ir[0], rate);
            std::printf("  reverb time %.2f s at %.0f Hz: measured %.3f s\n", T, rate, measured);
            EXPECT_NEAR(measured / T, 1.0, 0.15) << "T " << T << " at " << rate << " Hz: " << measured;
        }
    }
    // 96 kHz runs the engine at 48 kHz behind the converters.
    for (const float T : {0.3f, 2.0f}) {
        Control::Settings s = lateOnly(defaults());
        s[Control::ReverbTime] = T;
        EngineSetup setup(48000.0f, s, 1, 256);
        qv_reverb_u15_x2 engine(*setup.param);
        const Signal ir = run(engine, impulse(1, static_cast<std::size_t>(96000 * T * 1.5f)), 512);
        const double measured = decayTime(ir[0], 96000.0);
        std::printf("  reverb time %.2f s at 96000 Hz: measured %.3f s\n", T, measured);
        EXPECT_NEAR(measured / T, 1.0, 0.15) << "T " << T << " at 96 kHz: " << measured;
    }
}

// Without modulation and damping the late response is a train of discrete
// echoes; count them in the 10 ms before 100 ms.
TEST(ReverbEngine, LateEchoDensityPassesAThousandPerSecondWithin100ms)
{
    Control::Settings s = lateOnly(defaults());
    s[Control::Modulation] = 0.0f;
    s[Control::Brightness] = 1.0f;
    EngineSetup setup(48000.0f, s, 1);
    qv_reverb_u15 engine(*setup.param);
    const Signal ir = run(engine, impulse(1, 4800), 512);
    const float top = peak(ir[0], 0, 4800);
    int echoes = 0;
    for (std::size_t n = 4320; n < 4800; ++n)
        echoes += std::fabs(ir[0][n]) > 1e-6f * top;
    std::printf("  late echoes between 90 and 100 ms: %d (%d per second)\n", echoes, echoes * 100);
    EXPECT_GT(echoes * 100, 1000) << echoes << " echoes between 90 and 100 ms";
}

struct Extreme {
    const char* name;
    void (*apply)(Control::Settings&);
};

const Extreme kExtremes[] = {
    {"defaults", [](Control::Settings&) {}},
    {"smallest room, shortest and darkest",
     [](Control::Settings& s) {
         s[0] = 4.0f, s[1] = 3.0f, s[2] = 2.0f, s[5] = 0.1f, s[6] = 0.06f, s[7] = 0.01f, s[10] = -0.2f;
     }},
    {"largest room, longest and brightest, full modulation",
     [](Control::Settings& s) {
         s[0] = 40.0f, s[1] = 30.0f, s[2] = 10.0f, s[5] = 4.0f, s[6] = 1.0f, s[7] = 30.0f, s[10] = 0.2f,
         s[11] = 100.0f;
     }},
    {"tone extremes, full gains",
     [](Control::Settings& s) {
         s[13] = s[14] = s[15] = 2.0f;
         s[16] = s[22] = 150.0f, s[17] = s[23] = 2.0f, s[19] = s[25] = 16000.0f, s[20] = s[26] = 0.125f;
         s[5] = 4.0f, s[11] = 100.0f;
     }},
};

// Finite everywhere, and the tail below -120 dB within ten reverb times.
TEST(ReverbEngine, StableAtEveryExtremeAndRate)
{
    for (const float host : {22050.0f, 44100.0f, 48000.0f, 96000.0f, 192000.0f}) {
        const std::uint32_t factor = host == 96000.0f ? 2 : (host == 192000.0f ? 4 : 1);
        const float rate = host / factor;
        for (const auto& x : kExtremes) {
            Control::Settings s = defaults();
            x.apply(s);
            const float T = s[Control::ReverbTime];
            EngineSetup setup(rate, s, 2, 1024 / factor);
            std::unique_ptr<qv_reverb_u15_oversampled> os;
            std::unique_ptr<qv_reverb_u15> plain;
            if (factor == 2)
                os = std::make_unique<qv_reverb_u15_x2>(*setup.param);
            else if (factor == 4)
                os = std::make_unique<qv_reverb_u15_x4>(*setup.param);
            else
                plain = std::make_unique<qv_reverb_u15>(*setup.param);
            const auto loud = static_cast<std::size_t>(0.5f * host);
            const auto total = loud + static_cast<std::size_t>(10.0f * T * host);
            Signal in = noise(2, total, 9, 1.0f);
            for (auto& ch : in)
                std::fill(ch.begin() + loud, ch.end(), 0.0f);
            const Signal out = os ? run(*os, in, 1024) : run(*plain, in, 1024);
            bool finite = true;
            for (const auto& ch : out)
                finite = finite && std::all_of(ch.begin(), ch.end(), [](float v) { return std::isfinite(v); });
            EXPECT_TRUE(finite) << x.name << " at " << host;
            const float end = std::max(peak(out[0], total - 1024, total), peak(out[1], total - 1024, total));
            EXPECT_LT(end, 1e-6f) << x.name << " at " << host << " Hz: tail " << 20 * std::log10(end) << " dB";
        }
    }
}

TEST(ReverbEngine, OutputDoesNotDependOnBlockSizeOrInPlace)
{
    Control::Settings s = defaults();
    s[Control::Modulation] = 60.0f;
    EngineSetup setup(44100.0f, s, 2, 512);
    const Signal in = noise(2, 20000, 3);
    qv_reverb_u15 a(*setup.param);
    const Signal whole = run(a, in, 512);
    for (const std::size_t block : {1u, 7u, 64u, 333u, 4096u}) {
        qv_reverb_u15 b(*setup.param);
        EXPECT_EQ(run(b, in, block), whole) << "blocks of " << block;
    }
    qv_reverb_u15 c(*setup.param);
    Signal io = in;
    float* p[2] = {io[0].data(), io[1].data()};
    c.process(p, p, io[0].size());
    EXPECT_EQ(io, whole);
}

TEST(ReverbEngine, RecoversFromNonFiniteAndHugeInput)
{
    EngineSetup setup(48000.0f, defaults(), 2, 256);
    qv_reverb_u15 engine(*setup.param);
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                            3e38f}) {
        Signal in = noise(2, 48000, 4);
        std::fill(in[0].begin() + 256, in[0].begin() + 512, bad);
        std::fill(in[1].begin() + 256, in[1].begin() + 512, -bad);
        const Signal out = run(engine, in, 256);
        for (const auto& ch : out)
            EXPECT_TRUE(std::all_of(ch.begin() + 24000, ch.end(), [](float v) { return std::isfinite(v); }))
                << "after " << bad;
    }
    // Reset really clears: silence in, silence out.
    engine.reset();
    const Signal quiet = run(engine, Signal(2, std::vector<float>(4096, 0.0f)), 256);
    EXPECT_EQ(peak(quiet[0], 0, 4096), 0.0f);
}

TEST(ReverbEngine, RecordForOtherChannelCountsIsRefused)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    EngineSetup stereo(48000.0f, defaults(), 2);
    EngineSetup mono(48000.0f, defaults(), 1);
    qv_reverb_u15 engine(*stereo.param);
    AssertCapture capture;
    AssertCapture::reports().clear();
    EXPECT_FALSE(engine.set_param(*mono.param));
    ASSERT_EQ(AssertCapture::reports().size(), 1u);
    EXPECT_EQ(AssertCapture::reports()[0].condition, "sameShape");
    EXPECT_EQ(engine.param().outputs, 2u);
    EXPECT_TRUE(engine.set_param(*stereo.param));
}

TEST(ReverbEngine, ReflectionLineLongerThanItsLimitIsAContractFailure)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    AssertCapture capture;
    AssertCapture::reports().clear();
    qv_reflections_mod taps(1, 64, qv_reflections_mod_param::DelayLines::MaxLength + 1);
    ASSERT_EQ(AssertCapture::reports().size(), 1u);
    EXPECT_EQ(AssertCapture::reports()[0].condition, "max_length <= qv_reflections_mod_param::DelayLines::MaxLength");
    // Held at the limit: a tap past it reads the longest delay there is.
    qv_reflections_mod_param p;
    p.delays.fill(100);
    p.gains.fill(1.0f);
    qv_reflections_mod shortLine(1, 64, 50);
    shortLine.set_param(p);
    EXPECT_EQ(shortLine.param().delays[0], 50);
}

TEST(ReverbOversampled, DirectSoundArrivesAfterTheReportedLatency)
{
    Control::Settings s = defaults();
    s[Control::DryWet] = 0.0f;
    for (const std::uint32_t factor : {2u, 4u}) {
        EngineSetup setup(48000.0f, s, 1, 128);
        std::unique_ptr<qv_reverb_u15_oversampled> os;
        if (factor == 2)
            os = std::make_unique<qv_reverb_u15_x2>(*setup.param);
        else
            os = std::make_unique<qv_reverb_u15_x4>(*setup.param);
        EXPECT_EQ(os->InFrameSize(), 128u * factor);
        const Signal out = run(*os, impulse(1, 2048), 128);
        const auto top = std::max_element(out[0].begin(), out[0].end(),
                                          [](float a, float b) { return std::fabs(a) < std::fabs(b); });
        EXPECT_EQ(static_cast<std::size_t>(top - out[0].begin()), os->Latency()) << "x" << factor;
        // A passband sine keeps its level through both converters.
        const double w = 2.0 * 3.141592653589793 * 1000.0 / (48000.0 * factor);
        Signal sine(1, std::vector<float>(16384));
        for (std::size_t n = 0; n < sine[0].size(); ++n)
            sine[0][n] = static_cast<float>(0.5 * std::sin(w * n));
        os->reset();
        const Signal y = run(*os, sine, 128);
        EXPECT_NEAR(peak(y[0], 8192, 16384), 0.5f, 0.001f) << "x" << factor;
    }
}

TEST(ReverbOversampled, BlockNotAMultipleOfTheFactorAsserts)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    EngineSetup setup(48000.0f, defaults(), 2, 128);
    qv_reverb_u15_x2 x2(*setup.param);
    qv_reverb_u15_x4 x4(*setup.param);
    AssertCapture capture;
    AssertCapture::reports().clear();
    Signal in = noise(2, 1024, 5);
    run(x2, in, 101);
    ASSERT_FALSE(AssertCapture::reports().empty());
    EXPECT_EQ(AssertCapture::reports()[0].condition, "(nsamples & 1) == 0");
    AssertCapture::reports().clear();
    run(x4, in, 6);
    ASSERT_FALSE(AssertCapture::reports().empty());
    EXPECT_EQ(AssertCapture::reports()[0].condition, "(nsamples & 3) == 0");
    AssertCapture::reports().clear();
    run(x2, in, 512);
    ASSERT_FALSE(AssertCapture::reports().empty());
    EXPECT_EQ(AssertCapture::reports()[0].condition, "in_size <= InFrameSize()");
    AssertCapture::reports().clear();
    run(x4, in, 512);
    EXPECT_TRUE(AssertCapture::reports().empty());
}

} // namespace
