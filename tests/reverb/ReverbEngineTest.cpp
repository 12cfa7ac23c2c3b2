// The engine measured from outside: dry path, decay time, echo density,
// stability over settings and rates, block and in-place invariance,
// recovery, the oversampled wrappers and their contract checks.

#include "ReverbSupport.h"

#include "AssertCatcher.h"

#include <gtest/gtest.h>


namespace {

using namespace reverbtest;

// The late sound alone.
Control::Settings lateOnly(Control::Settings s)
{
    s[Control::DirectGain] = 0.0f;
    s[Control::EarlyGain] = 0.0f;
    return s;
}

bool allFinite(const Signal& s, std::size_t from = 0)
{
    return std::all_of(s.begin(), s.end(), [&](const auto& ch) {
        return std::all_of(ch.begin() + static_cast<std::ptrdiff_t>(from), ch.end(),
                           [](float v) { return std::isfinite(v); });
    });
}

// 96 kHz runs the engine at 48 kHz behind the converters.
TEST(ReverbEngine, DecayTimeFollowsTheReverbTimeSetting)
{
    for (const float host : {44100.0f, 48000.0f, 96000.0f}) {
        for (const float T : {0.3f, 1.0f, 2.0f, 4.0f}) {
            if (host == 96000.0f && (T == 1.0f || T == 4.0f))
                continue;
            Control::Settings s = lateOnly(defaults());
            s[Control::ReverbTime] = T;
            const Signal in = impulse(1, static_cast<std::size_t>(host * T * 1.5f));
            Signal ir;
            if (host == 96000.0f) {
                EngineSetup setup(48000.0f, s, 1, 256);
                ir = run(*oversampled(2, *setup.param), in, 512);
            } else {
                EngineSetup setup(host, s, 1);
                qv_reverb_u15 engine(*setup.param);
                ir = run(engine, in, 512);
            }
            EXPECT_NEAR(decayTime(ir[0], host) / T, 1.0, 0.15) << "T " << T << " at " << host << " Hz";
        }
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
    const float top = peak(ir[0]);
    const auto echoes = std::count_if(ir[0].begin() + 4320, ir[0].end(), [&](float v) { return std::fabs(v) > 1e-6f * top; });
    EXPECT_GT(echoes * 100, 1000) << echoes << " echoes between 90 and 100 ms";
}

// Finite everywhere, and the tail below -120 dB within ten reverb times.
TEST(ReverbEngine, StableAtEveryExtremeAndRate)
{
    using Apply = void (*)(Control::Settings&);
    const std::pair<const char*, Apply> extremes[] = {
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
    for (const float host : {22050.0f, 44100.0f, 48000.0f, 96000.0f, 192000.0f}) {
        const std::uint32_t factor = host == 96000.0f ? 2 : (host == 192000.0f ? 4 : 1);
        for (const auto& [name, apply] : extremes) {
            Control::Settings s = defaults();
            apply(s);
            const float T = s[Control::ReverbTime];
            EngineSetup setup(host / factor, s, 2, 1024 / factor);
            const auto loud = static_cast<std::size_t>(0.5f * host);
            const auto total = loud + static_cast<std::size_t>(10.0f * T * host);
            Signal in = noise(2, total, 9, 1.0f);
            for (auto& ch : in)
                std::fill(ch.begin() + static_cast<std::ptrdiff_t>(loud), ch.end(), 0.0f);
            Signal out;
            if (factor == 1) {
                qv_reverb_u15 plain(*setup.param);
                out = run(plain, in, 1024);
            } else {
                out = run(*oversampled(factor, *setup.param), in, 1024);
            }
            EXPECT_TRUE(allFinite(out)) << name << " at " << host;
            const float end = std::max(peak(out[0], total - 1024), peak(out[1], total - 1024));
            EXPECT_LT(end, 1e-6f) << name << " at " << host << " Hz: tail " << 20 * std::log10(end) << " dB";
        }
    }
}

// Block splits, in-place runs and recovery from NaN bursts are run on the
// plugin by the conformance harness; the engine's own reset is checked here.
TEST(ReverbEngine, ResetClearsTheTail)
{
    EngineSetup setup(48000.0f, defaults(), 2, 256);
    qv_reverb_u15 engine(*setup.param);
    run(engine, noise(2, 4800, 4), 256);
    engine.reset();
    EXPECT_EQ(peak(run(engine, Signal(2, std::vector<float>(4096, 0.0f)), 256)[0]), 0.0f);
}

// Each contract check fires once with its condition and the object carries on.
struct ContractCheck : testing::Test {
    void SetUp() override
    {
        QVD_SKIP_WITHOUT_ASSERTS();
        capture.reset();
    }
    std::string only()
    {
        EXPECT_FALSE((capture.count() == 0));
        const std::string first = (capture.count() == 0) ? "" : capture.condition(0);
        capture.reset();
        return first;
    }
    qvd::test::AssertCatcher capture;
};

TEST_F(ContractCheck, RecordForOtherChannelCountsIsRefused)
{
    EngineSetup stereo(48000.0f, defaults(), 2);
    EngineSetup mono(48000.0f, defaults(), 1);
    qv_reverb_u15 engine(*stereo.param);
    EXPECT_FALSE(engine.set_param(*mono.param));
    EXPECT_EQ(capture.count(), 1u);
    EXPECT_EQ(only(), "sameShape");
    EXPECT_EQ(engine.param().outputs, 2u);
    EXPECT_TRUE(engine.set_param(*stereo.param));
}

TEST_F(ContractCheck, ReflectionLineLongerThanItsLimit)
{
    qv_reflections_mod taps(1, 64, qv_reflections_mod_param::DelayLines::MaxLength + 1);
    EXPECT_EQ(capture.count(), 1u);
    EXPECT_EQ(only(), "max_length <= qv_reflections_mod_param::DelayLines::MaxLength");
    // Held at the limit: a tap past it reads the longest delay there is.
    qv_reflections_mod_param p;
    p.delays.fill(100);
    p.gains.fill(1.0f);
    qv_reflections_mod shortLine(1, 64, 50);
    shortLine.set_param(p);
    EXPECT_EQ(shortLine.param().delays[0], 50);
}

TEST_F(ContractCheck, OversampledBlockNotAMultipleOfTheFactor)
{
    EngineSetup setup(48000.0f, defaults(), 2, 128);
    qv_reverb_u15_x2 x2(*setup.param);
    qv_reverb_u15_x4 x4(*setup.param);
    const Signal in = noise(2, 1024, 5);
    run(x2, in, 101);
    EXPECT_EQ(only(), "(nsamples & 1) == 0");
    run(x4, in, 6);
    EXPECT_EQ(only(), "(nsamples & 3) == 0");
    run(x2, in, 512);
    EXPECT_EQ(only(), "in_size <= InFrameSize()");
    run(x4, in, 512);
    EXPECT_TRUE((capture.count() == 0));
}

TEST(ReverbOversampled, DirectSoundArrivesAfterTheReportedLatency)
{
    Control::Settings s = defaults();
    s[Control::DryWet] = 0.0f;
    for (const std::uint32_t factor : {2u, 4u}) {
        EngineSetup setup(48000.0f, s, 1, 128);
        const auto os = oversampled(factor, *setup.param);
        EXPECT_EQ(os->InFrameSize(), 128u * factor);
        const Signal out = run(*os, impulse(1, 2048), 128);
        const auto top = std::max_element(out[0].begin(), out[0].end(),
                                          [](float a, float b) { return std::fabs(a) < std::fabs(b); });
        EXPECT_EQ(static_cast<std::size_t>(top - out[0].begin()), os->Latency()) << "x" << factor;
        // A passband sine keeps its level through both converters.
        const double w = 2.0 * 3.141592653589793 * 1000.0 / (48000.0 * factor);
        Signal sine(1, std::vector<float>(16384));
        for (std::size_t n = 0; n < sine[0].size(); ++n)
            sine[0][n] = static_cast<float>(0.5 * std::sin(w * static_cast<double>(n)));
        os->reset();
        EXPECT_NEAR(peak(run(*os, sine, 128)[0], 8192), 0.5f, 0.001f) << "x" << factor;
    }
}

} // namespace
