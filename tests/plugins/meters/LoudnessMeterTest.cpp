// Loudness meter: readings in LUFS and LU on the reference signals of the
// loudness standards, synthesised here, and agreement with libebur128.
#include <ebur128.h>

#include <Algorithms/KWeighting.h>
#include "MeterReadouts.h"

#include <initializer_list>
#include <utility>

using namespace qvd::test;

namespace {

const std::string kKey = "Loudness Meter:1364610125";

struct Segment {
    double dBFS; // per-channel sine peak, or noise RMS below
    double seconds;
};

double fromDb(double db)
{
    return std::pow(10.0, db / 20.0);
}

// 1 kHz sine segments on every channel, continuous phase across them.
Signal sineSegments(int channels, double rate, std::initializer_list<Segment> segments)
{
    Signal s(static_cast<std::size_t>(channels));
    std::size_t n = 0;
    for (const Segment& p : segments) {
        const auto frames = static_cast<std::size_t>(std::lround(p.seconds * rate));
        const double a = fromDb(p.dBFS);
        for (std::size_t i = 0; i < frames; ++i, ++n) {
            const auto x = static_cast<float>(a * std::sin(2.0 * M_PI * 1000.0 * static_cast<double>(n) / rate));
            for (auto& ch : s)
                ch.push_back(x);
        }
    }
    return s;
}

struct Reading {
    double momentary, shortTerm, integrated, range;
};

Reading measure(const Signal& in, double rate, unsigned split = 0)
{
    PluginFixture f(kKey);
    EXPECT_TRUE(f.prepare(rate, 512, static_cast<int>(in.size())));
    const Signal out = f.run(in, split);
    EXPECT_EQ(out, in) << "the audio must pass unchanged";
    return {readout(f, "Momentary"), readout(f, "Short-Term"), readout(f, "Integrated"), readout(f, "Loudness Range")};
}

double integratedOf(std::initializer_list<Segment> segments)
{
    return measure(sineSegments(2, 48000.0, segments), 48000.0).integrated;
}

double rangeOf(std::initializer_list<Segment> segments)
{
    return measure(sineSegments(2, 48000.0, segments), 48000.0).range;
}

} // namespace

TEST(LoudnessMeter, KWeightingMatchesThePublishedSectionsAndHoldsAtOtherRates)
{
    const KWeightingCoefficients c = KWeighting::design(48000.0);
    EXPECT_NEAR(c.b0, 1.53512485958697, 1e-8);
    EXPECT_NEAR(c.b1, -2.69169618940638, 1e-8);
    EXPECT_NEAR(c.b2, 1.19839281085285, 1e-8);
    EXPECT_NEAR(c.a1, -1.69065929318241, 1e-8);
    EXPECT_NEAR(c.a2, 0.73248077421585, 1e-8);
    EXPECT_NEAR(c.h1, -1.99004745483398, 1e-8);
    EXPECT_NEAR(c.h2, 0.99007225036621, 1e-8);

    // The weighting of a 100 Hz, a 1 kHz and a 10 kHz tone in dB is the same
    // at every rate within what the bilinear transform's warping leaves.
    auto gainDb = [](double rate, double hz) {
        const KWeightingCoefficients k = KWeighting::design(rate);
        KWeightingState s;
        const Signal x = sine(1, static_cast<std::size_t>(rate * 2), hz, rate, 1.0);
        const double tail = static_cast<double>(x[0].size()) / 2;
        KWeighting::energy(k, s, x[0].data(), static_cast<std::int32_t>(tail));
        const double e = KWeighting::energy(k, s, x[0].data() + static_cast<std::ptrdiff_t>(tail),
                                            static_cast<std::int32_t>(tail));
        return 10.0 * std::log10(e / tail / 0.5);
    };
    for (const double hz : {100.0, 1000.0, 10000.0})
        for (const double rate : {44100.0, 96000.0, 192000.0})
            EXPECT_NEAR(gainDb(rate, hz), gainDb(48000.0, hz), hz > 5000.0 ? 0.1 : 0.05) << hz << " Hz at " << rate;
}

TEST(LoudnessMeter, SteadySinesReadTheirLoudnessOnAllThreeScales)
{
    for (const double level : {-23.0, -33.0}) {
        const Reading r = measure(sineSegments(2, 48000.0, {{level, 20.0}}), 48000.0, 7);
        EXPECT_NEAR(r.momentary, level, 0.1);
        EXPECT_NEAR(r.shortTerm, level, 0.1);
        EXPECT_NEAR(r.integrated, level, 0.1);
    }
}

TEST(LoudnessMeter, GatesKeepQuietPartsOutOfTheIntegratedLoudness)
{
    EXPECT_NEAR(integratedOf({{-36, 10}, {-23, 60}, {-36, 10}}), -23.0, 0.1);
    EXPECT_NEAR(integratedOf({{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}), -23.0, 0.1);
    EXPECT_NEAR(integratedOf({{-26, 20}, {-20, 20.1}, {-26, 20}}), -23.0, 0.1);
    // Silence alone measures nothing.
    EXPECT_EQ(integratedOf({{-400, 5}}), -std::numeric_limits<double>::infinity());
}

TEST(LoudnessMeter, SurroundChannelsCountMoreAndTheLfeNotAtAll)
{
    const double rate = 48000.0;
    const Signal one = sineSegments(1, rate, {{0.0, 20.0}});
    auto scaled = [&](double db) {
        std::vector<float> ch = one[0];
        for (float& x : ch)
            x = static_cast<float>(x * fromDb(db));
        return ch;
    };
    // L R C Ls Rs
    const Signal five = {scaled(-28), scaled(-28), scaled(-24), scaled(-30), scaled(-30)};
    EXPECT_NEAR(measure(five, rate).integrated, -23.0, 0.1);

    // 5.1: the same plus a full-scale LFE, which must change nothing.
    const Signal six = {scaled(-28), scaled(-28), scaled(-24), scaled(0), scaled(-30), scaled(-30)};
    EXPECT_NEAR(measure(six, rate).integrated, -23.0, 0.1);

    // Six discrete channels have no LFE and no surrounds: all count alike.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(rate, 512, 6));
    ASSERT_TRUE(f.audio()->setChannelFormats(qvd::discreteFormat(6), qvd::discreteFormat(6)));
    f.run(six);
    double energy = 0.0;
    for (const double db : {-28.0, -28.0, -24.0, 0.0, -30.0, -30.0})
        energy += std::pow(10.0, (db - 3.01) / 10.0); // one channel of this sine reads 3 dB under its level
    EXPECT_NEAR(readout(f, "Integrated"), 10.0 * std::log10(energy), 0.1);
}

TEST(LoudnessMeter, LoudnessRangeSpansTheLevelsOfTheProgramme)
{
    EXPECT_NEAR(rangeOf({{-20, 20}, {-30, 20}}), 10.0, 1.0);
    EXPECT_NEAR(rangeOf({{-20, 20}, {-15, 20}}), 5.0, 1.0);
    EXPECT_NEAR(rangeOf({{-40, 20}, {-20, 20}}), 20.0, 1.0);
    EXPECT_NEAR(rangeOf({{-50, 20}, {-35, 20}, {-20, 20}, {-35, 20}, {-50, 20}}), 15.0, 1.0);
}

TEST(LoudnessMeter, PeaksPerChannelInDecibels)
{
    // A quarter-rate sine at 45 degrees: every sample lands 3.01 dB under
    // the crest, which only the true-peak reading sees.
    const double rate = 48000.0;
    Signal in = sine(2, 48000, rate / 4, rate, 1.0, M_PI / 4);
    for (float& x : in[1])
        x *= static_cast<float>(fromDb(-12.0));
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(rate, 256, 2));
    f.run(in);
    EXPECT_NEAR(readout(f, "Sample Peak", 0), -3.01, 0.01);
    EXPECT_NEAR(readout(f, "Sample Peak", 1), -15.01, 0.01);
    EXPECT_NEAR(readout(f, "True Peak", 0), 0.0, 0.2);
    EXPECT_NEAR(readout(f, "True Peak", 1), -12.0, 0.2);
    EXPECT_NEAR(readout(f, "Max True Peak"), 0.0, 0.2);

    f.set("TRUE_PEAK", 0.0f);
    f.set("RESET", 1.0f);
    f.run(in);
    EXPECT_EQ(readout(f, "True Peak", 0), -std::numeric_limits<double>::infinity()) << "switched off, measured nothing";
    EXPECT_NEAR(readout(f, "Sample Peak", 0), -3.01, 0.01);

    // Lone clicks, where the interpolator alone reads a little under the
    // sample: the true peak never reads under the sample peak.
    Signal clicks = silence(2, 4800);
    clicks[0][1000] = 0.5f;
    clicks[1][2001] = -0.25f;
    PluginFixture g(kKey);
    ASSERT_TRUE(g.prepare(rate, 256, 2));
    g.run(clicks);
    for (int c = 0; c < 2; ++c) {
        EXPECT_NEAR(readout(g, "Sample Peak", c), c == 0 ? -6.02 : -12.04, 0.01);
        EXPECT_GE(readout(g, "True Peak", c), readout(g, "Sample Peak", c)) << c;
        EXPECT_LT(readout(g, "True Peak", c), readout(g, "Sample Peak", c) + 0.5) << c;
    }
}

TEST(LoudnessMeter, ResetStartsAFreshMeasurementAndTheTargetSetsTheDeviation)
{
    const double rate = 48000.0;
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(rate, 480, 2));
    f.run(sineSegments(2, rate, {{-10, 10}}));
    EXPECT_NEAR(readout(f, "Integrated"), -10.0, 0.1);
    f.set("RESET", 1.0f);
    f.run(sineSegments(2, rate, {{-30, 10}}));
    EXPECT_NEAR(readout(f, "Integrated"), -30.0, 0.1);
    EXPECT_NEAR(readout(f, "Deviation"), -7.0, 0.1) << "against the default -23 LUFS";
    f.set("TARGET", 2.0f);
    f.run(sineSegments(2, rate, {{-30, 0.1}}));
    EXPECT_NEAR(readout(f, "Deviation"), -16.0, 0.1) << "against -14 LUFS";
    EXPECT_NEAR(readout(f, "Max Short-Term"), -30.0, 0.1);

    // The history holds a short-term value a second, the newest last.
    const std::vector<double> history = readoutValues(f, "History");
    ASSERT_GE(history.size(), 60u);
    EXPECT_NEAR(history.back(), -30.0, 0.1);
    EXPECT_EQ(history[history.size() - 11], -std::numeric_limits<double>::infinity()) << "before the reset";
}

// Noise in segments of different levels with pauses under the absolute gate, at
// several rates and channel counts, measured by the plugin and by libebur128.
// The reference takes a short-term value each second where EBU Tech 3342 (2016)
// asks for ten, so its range differs by up to a few tenths on
// programmes that change level every few seconds; levels that hold for
// several windows give both the same distribution.
TEST(LoudnessMeter, AgreesWithAnIndependentImplementation)
{
    const std::vector<Segment> segments = {{-20, 9}, {-200, 1.5}, {-30, 9}, {-80, 1}, {-24, 9}, {-45, 2}, {-18, 6}};
    for (const double rate : {44100.0, 48000.0, 96000.0}) {
        for (const int channels : {1, 2, 6}) {
            std::mt19937 rng(static_cast<unsigned>(rate) + static_cast<unsigned>(channels));
            std::normal_distribution<float> gauss(0.0f, 1.0f);
            Signal in(static_cast<std::size_t>(channels));
            for (const Segment& p : segments) {
                const auto frames = static_cast<std::size_t>(p.seconds * rate);
                const auto a = static_cast<float>(fromDb(p.dBFS));
                for (auto& ch : in)
                    for (std::size_t i = 0; i < frames; ++i)
                        ch.push_back(a * gauss(rng));
            }
            const std::size_t frames = in[0].size();
            std::vector<float> interleaved(frames * in.size());
            for (std::size_t n = 0; n < frames; ++n)
                for (std::size_t c = 0; c < in.size(); ++c)
                    interleaved[n * in.size() + c] = in[c][n];

            ebur128_state* st = ebur128_init(static_cast<unsigned>(channels), static_cast<unsigned long>(rate),
                                             EBUR128_MODE_I | EBUR128_MODE_LRA);
            ASSERT_NE(st, nullptr);
            if (channels == 6) {
                const int map[] = {EBUR128_LEFT,   EBUR128_RIGHT,         EBUR128_CENTER,
                                   EBUR128_UNUSED, EBUR128_LEFT_SURROUND, EBUR128_RIGHT_SURROUND};
                for (unsigned c = 0; c < 6; ++c)
                    ebur128_set_channel(st, c, map[c]);
            }
            ebur128_add_frames_float(st, interleaved.data(), frames);
            double integrated = 0.0, range = 0.0;
            ebur128_loudness_global(st, &integrated);
            ebur128_loudness_range(st, &range);
            ebur128_destroy(&st);

            const Reading r = measure(in, rate, 3);
            EXPECT_NEAR(r.integrated, integrated, 0.05) << channels << " channels at " << rate;
            EXPECT_NEAR(r.range, range, 0.1) << channels << " channels at " << rate;
        }
    }
}
