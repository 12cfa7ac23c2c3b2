#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <Algorithms/BiQuad.h>

#include "PluginFixture.h"

namespace {

using qvd::test::dB;
constexpr int kRates[] = {44100, 48000, 96000, 192000};
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// |H| at hz, in long double, from a set.
double magnitudeAt(const BiQuadCoefficients& c, long double hz, long double fs)
{
    const long double w = 2.0L * 3.14159265358979323846264338327950288L * hz / fs;
    const long double nr = 1.0L + c.num1 * std::cos(w) + c.num2 * std::cos(2.0L * w);
    const long double ni = -(c.num1 * std::sin(w) + c.num2 * std::sin(2.0L * w));
    const long double dr = 1.0L - c.den1 * std::cos(w) - c.den2 * std::cos(2.0L * w);
    const long double di = c.den1 * std::sin(w) + c.den2 * std::sin(2.0L * w);
    return static_cast<double>(std::fabs(static_cast<long double>(c.gain)) *
                               std::sqrt((nr * nr + ni * ni) / (dr * dr + di * di)));
}

std::vector<float> noise(std::size_t frames, unsigned seed, float level = 1.0f)
{
    return qvd::test::noise(1, frames, seed, level)[0];
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    // An empty vector's data() may be null, and memcmp on null is undefined.
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

bool sameSet(const BiQuadCoefficients& a, const BiQuadCoefficients& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// A block set up as a band: shape by SHAPE value, gain in dB.
void configure(BiQuad& q, float shape, float gainDb, float freq, float qValue)
{
    q.setParameter(BiQuad::SHAPE, shape);
    q.setParameter(BiQuad::GAIN, gainDb);
    q.setParameter(BiQuad::FREQ, freq);
    q.setParameter(BiQuad::Q, qValue);
    q.setParameter(BiQuad::IN, 1.0f);
}

std::vector<float> runMono(BiQuad& q, std::vector<float> io)
{
    float* p = io.data();
    q.processChannels(&p, static_cast<std::uint32_t>(io.size()));
    return io;
}

TEST(BiQuadDesign, ShapeValuesSelectKindsByTruncation)
{
    const std::pair<float, std::uint32_t> cases[] = {
        {0.0f, BiQuad::kLowPass},    {0.99f, BiQuad::kLowPass}, {-0.5f, BiQuad::kLowPass}, {1.0f, BiQuad::kHighPass},
        {2.5f, BiQuad::kLowShelf},   {3.0f, BiQuad::kHighShelf}, {4.0f, BiQuad::kBell},    {5.9f, BiQuad::kNotch},
        {6.0f, BiQuad::kNeutral},    {-1.0f, BiQuad::kNeutral}, {1e38f, BiQuad::kNeutral}, {kInf, BiQuad::kNeutral},
        {kNaN, BiQuad::kNeutral}};
    for (const auto& [value, kind] : cases)
        EXPECT_EQ(BiQuad::kindOfShape(value), kind) << value;
}

// The responses measured against what each kind promises, in long double.
// The tolerance allows for the rounding of the coefficients themselves: at
// 20 Hz and 192 kHz a DC gain depends on differences of nearly equal terms.
TEST(BiQuadDesign, GainsAtDcCornerAndNyquist)
{
    for (const int fs : kRates) {
        const long double nyquist = fs / 2.0L;
        for (const double f : {50.0, 440.0, 1000.0, 5000.0, 15000.0}) {
            for (const double db : {-18.0, -6.0, -0.1, 3.0, 12.0, 18.0}) {
                SCOPED_TRACE(testing::Message() << "fs " << fs << " f " << f << " dB " << db);
                const double G = std::pow(10.0, db / 20.0);
                // Bell: the band gain at f, unity at both ends.
                const auto bell = BiQuad::design(BiQuad::kBell, fs, f, 1.5, G);
                EXPECT_NEAR(dB(magnitudeAt(bell, f, fs)), db, 1e-8);
                EXPECT_NEAR(magnitudeAt(bell, 0, fs), 1.0, 1e-8);
                EXPECT_NEAR(magnitudeAt(bell, nyquist, fs), 1.0, 1e-8);
                // Shelves: G at their own end, 1 at the other; the high shelf
                // boosts at most by the squared ratio of Nyquist to corner.
                const auto low = BiQuad::design(BiQuad::kLowShelf, fs, f, 0.71, G);
                EXPECT_NEAR(magnitudeAt(low, 0, fs), G, 1e-8 * G);
                EXPECT_NEAR(magnitudeAt(low, nyquist, fs), 1.0, 1e-8);
                const auto high = BiQuad::design(BiQuad::kHighShelf, fs, f, 0.71, G);
                const double top = std::min(G, (fs / (2.0 * f)) * (fs / (2.0 * f)));
                EXPECT_NEAR(magnitudeAt(high, 0, fs), 1.0, 1e-8);
                EXPECT_NEAR(magnitudeAt(high, nyquist, fs), top, 1e-8 * top);
            }
            // Low- and high-pass: Q at the corner, and their pass and stop ends.
            const auto lp = BiQuad::design(BiQuad::kLowPass, fs, f, 0.71, 1.0);
            EXPECT_NEAR(magnitudeAt(lp, f, fs), 0.71, 1e-8);
            EXPECT_NEAR(magnitudeAt(lp, 0, fs), 1.0, 1e-8);
            EXPECT_LT(magnitudeAt(lp, nyquist, fs), 1e-8);
            const auto hp = BiQuad::design(BiQuad::kHighPass, fs, f, 2.0, 1.0);
            EXPECT_NEAR(magnitudeAt(hp, f, fs), 2.0, 1e-8);
            EXPECT_LT(magnitudeAt(hp, 0, fs), 1e-8);
            EXPECT_NEAR(magnitudeAt(hp, nyquist, fs), 1.0, 1e-8);
            // Notch: no output at f whatever the gain, unity at both ends.
            const auto notch = BiQuad::design(BiQuad::kNotch, fs, f, 1.5, 4.0);
            EXPECT_LT(magnitudeAt(notch, f, fs), 1e-8);
            EXPECT_NEAR(magnitudeAt(notch, 0, fs), 1.0, 1e-8);
            EXPECT_NEAR(magnitudeAt(notch, nyquist, fs), 1.0, 1e-8);
            EXPECT_TRUE(sameSet(notch, BiQuad::design(BiQuad::kNotch, fs, f, 1.5, -0.25)));
            // The block's own magnitude agrees with the long double one.
            EXPECT_NEAR(notch.magnitude(f * 1.3, fs), magnitudeAt(notch, f * 1.3, fs), 1e-8);
        }
        // Past the high shelf's limit every gain designs the same filter.
        const double limit = fs / (2.0 * 12000.0);
        EXPECT_TRUE(sameSet(BiQuad::design(BiQuad::kHighShelf, fs, 12000.0, 0.71, 10.0 * limit * limit),
                            BiQuad::design(BiQuad::kHighShelf, fs, 12000.0, 0.71, 30.0 * limit * limit)));
        // Shelves at 0 dB are exactly neutral; a bell is unity up to rounding.
        EXPECT_TRUE(BiQuad::design(BiQuad::kLowShelf, fs, 100.0, 0.7, 1.0).isNeutral());
        EXPECT_TRUE(BiQuad::design(BiQuad::kHighShelf, fs, 8000.0, 0.7, 1.0).isNeutral());
        EXPECT_NEAR(magnitudeAt(BiQuad::design(BiQuad::kBell, fs, 1000.0, 1.5, 1.0), 3000.0, fs), 1.0, 1e-12);
    }
    // Unknown kinds and the cascade without its corners are neutral.
    for (const std::uint32_t kind : {0u, 1u, 8u, 9u, 11u, 1000u})
        EXPECT_TRUE(BiQuad::design(kind, 48000, 1000.0, 1.5, 2.0).isNeutral()) << kind;
}

// Tones through the running block come out at the designed level.
TEST(BiQuadProcess, TonesComeOutAtTheDesignedLevel)
{
    for (const int fs : {48000, 96000}) {
        for (const float shape : {0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f}) {
            BiQuad q;
            q.initialise(static_cast<float>(fs), 1);
            configure(q, shape, -7.5f, 1234.0f, 1.7f);
            for (const double hz : {100.0, 1234.0, 5000.0}) {
                SCOPED_TRACE(testing::Message() << "fs " << fs << " shape " << shape << " at " << hz << " Hz");
                q.reset();
                const auto out = runMono(q, qvd::test::sine(1, fs, hz, fs)[0]);
                const double want = dB(q.designed().magnitude(hz, fs) * 0.5);
                const double got = qvd::test::toneDb(out, hz, fs, fs / 2, fs);
                if (want > -80.0)
                    EXPECT_NEAR(got, want, 0.01);
                else
                    EXPECT_LT(got, -80.0);
            }
        }
    }
}

TEST(BiQuadProcess, InPlaceOutOfPlaceAdvanceOnlyAndAnySplitAgree)
{
    BiQuad q;
    q.initialise(48000.0f, 3);
    configure(q, 4.0f, 9.0f, 300.0f, 4.0f);
    const auto input = noise(1000, 9);
    // Channel 0 in place, channel 1 out of place, channel 2 advanced only.
    std::vector<float> ia = input, ob(1000, 5.0f);
    const float* ins[3] = {ia.data(), input.data(), input.data()};
    float* outs[3] = {ia.data(), ob.data(), nullptr};
    ASSERT_TRUE(q.process(ins, outs, 3, 1000));
    EXPECT_TRUE(sameBits(ia, ob));
    for (int ch = 1; ch < 3; ++ch) {
        EXPECT_EQ(q.states()[ch].w1, q.states()[0].w1);
        EXPECT_EQ(q.states()[ch].w2, q.states()[0].w2);
    }
    // The same output for one block, one sample at a time and random splits.
    std::mt19937 rng(3);
    for (int mode = 0; mode < 2; ++mode) {
        BiQuad s;
        s.initialise(48000.0f, 1);
        configure(s, 4.0f, 9.0f, 300.0f, 4.0f);
        std::vector<float> io = input;
        for (std::uint32_t done = 0, n = 0; done < io.size(); done += n) {
            n = std::min<std::uint32_t>(1000 - done, mode == 0 ? 1u : static_cast<std::uint32_t>(rng() % 70));
            float* p = io.data() + done;
            s.processChannels(&p, 1, n);
        }
        EXPECT_TRUE(sameBits(io, ob)) << mode;
    }
}

TEST(BiQuadProcess, BandsOffOrShapesOutOfRangePassEveryBitThrough)
{
    std::vector<float> input = noise(256, 4);
    const float odd[] = {-0.0f, std::numeric_limits<float>::denorm_min(), kNaN, kInf, -1e38f};
    std::copy(std::begin(odd), std::end(odd), input.begin() + 3);
    for (const float shape : {6.0f, 7.0f, -1.0f, 100.0f}) {
        BiQuad q;
        q.initialise(48000.0f, 1);
        configure(q, shape, 12.0f, 1000.0f, 1.5f);
        EXPECT_TRUE(q.designed().isNeutral());
        EXPECT_TRUE(sameBits(runMono(q, input), input)) << shape;
    }
    BiQuad off;
    off.initialise(96000.0f, 2);
    configure(off, 4.0f, 12.0f, 1000.0f, 1.5f);
    off.setParameter(BiQuad::IN, 0.0f);
    std::vector<float> out(256, 3.0f);
    const float* in[1] = {input.data()};
    float* o[1] = {out.data()};
    off.process(in, o, 1, 256);
    EXPECT_TRUE(sameBits(out, input));
    // Only exactly 1.0 switches a band in.
    off.setParameter(BiQuad::IN, 0.999f);
    EXPECT_TRUE(off.designed().isNeutral());
}

// History is what rings on after the input stops; a fresh block has none.
TEST(BiQuadState, SwitchingInClearsHistoryAndAFrequencyChangeKeepsIt)
{
    const auto first = noise(300, 5), second = noise(300, 6);
    BiQuad q, fresh;
    q.initialise(48000.0f, 1);
    fresh.initialise(48000.0f, 1);
    configure(q, 1.0f, 0.0f, 200.0f, 0.7f);
    configure(fresh, 1.0f, 0.0f, 900.0f, 0.7f);
    runMono(q, first);
    q.setParameter(BiQuad::FREQ, 900.0f);
    const auto freshOut = runMono(fresh, second);
    EXPECT_FALSE(sameBits(runMono(q, second), freshOut)) << "a new frequency keeps the history";
    // Out and in again: the band starts from silence; setting the flag to the
    // value it has already is no toggle.
    q.setParameter(BiQuad::IN, 0.0f);
    q.setParameter(BiQuad::IN, 1.0f);
    EXPECT_TRUE(sameBits(runMono(q, second), freshOut));
    fresh.reset();
    runMono(fresh, second);
    q.setParameter(BiQuad::IN, 1.0f);
    EXPECT_TRUE(sameBits(runMono(q, first), runMono(fresh, first)));
}

TEST(BiQuadState, StateArrayFollowsTheChannelCountAndExtraChannelsAreSilent)
{
    BiQuad q, fresh;
    q.initialise(48000.0f, 1);
    fresh.initialise(48000.0f, 1);
    configure(q, 0.0f, 0.0f, 500.0f, 0.7f);
    configure(fresh, 0.0f, 0.0f, 500.0f, 0.7f);
    const auto a = noise(128, 7), b = noise(128, 8);
    const auto want = runMono(fresh, a);
    EXPECT_EQ(q.stateCount(), 1u);
    // More channels than states: the extra one is silent and has no state.
    std::vector<float> ch0 = a, ch1 = b;
    float* two[2] = {ch0.data(), ch1.data()};
    q.processChannels(two, 2, 128);
    EXPECT_TRUE(sameBits(ch0, want));
    EXPECT_EQ(ch1, std::vector<float>(128, 0.0f));
    std::vector<float> lone = a;
    q.processChannel(5, lone.data(), 128);
    EXPECT_EQ(lone, std::vector<float>(128, 0.0f));

    // Growing keeps channel 0's history and starts channel 1 from silence.
    const double w1 = q.states()[0].w1;
    q.setChannelCount(2);
    EXPECT_EQ(q.stateCount(), 2u);
    EXPECT_EQ(q.states()[0].w1, w1);
    ch0 = b;
    ch1 = a;
    q.processChannels(two, 128);
    EXPECT_TRUE(sameBits(ch0, runMono(fresh, b)));
    EXPECT_TRUE(sameBits(ch1, want));
    // Shrinking keeps the first ones.
    q.setChannelCount(1);
    EXPECT_EQ(q.stateCount(), 1u);
    EXPECT_EQ(q.states()[0].w1, fresh.states()[0].w1);
    q.setChannelCount(-4);
    EXPECT_EQ(q.stateCount(), 0u);
}

TEST(BiQuadState, InitialiseTruncatesTheRateAndRestoresDefaults)
{
    BiQuad q;
    configure(q, 0.0f, 0.0f, 500.0f, 0.7f);
    q.initialise(44100.9f, 2);
    EXPECT_EQ(q.sampleRate(), 44100);
    EXPECT_FALSE(q.isIn());
    EXPECT_EQ(q.kind(), BiQuad::kBell);
    EXPECT_EQ(q.frequency(), 1000.0);
    EXPECT_TRUE(q.designed().isNeutral());
}

// Hostile values and input reach the block through the equaliser, which the
// conformance harness feeds every value and NaN bursts; here, the designs
// that have no filter.
TEST(BiQuadState, NyquistOrZeroQGiveUnityInsteadOfRinging)
{
    BiQuad q;
    q.initialise(48000.0f, 1);
    configure(q, 0.0f, 0.0f, 24000.0f, 0.7f);
    EXPECT_TRUE(q.designed().isNeutral());
    q.setParameter(BiQuad::FREQ, 30000.0f);
    EXPECT_TRUE(q.designed().isNeutral());
    q.setParameter(BiQuad::FREQ, 1000.0f);
    EXPECT_FALSE(q.designed().isNeutral());
    q.setParameter(BiQuad::Q, 0.0f);
    EXPECT_TRUE(q.designed().isNeutral());
    for (const float v : {kNaN, kInf, -kInf, -1e38f}) {
        q.setParameter(BiQuad::Q, v);
        EXPECT_TRUE(q.designed().isNeutral() || q.designed().isStable()) << v;
    }
}

// The audio thread only ever sees whole sets, however often the control
// thread republishes.
TEST(BiQuadThreads, PublishedSetsAreNeverTorn)
{
    BiQuad q;
    q.initialise(48000.0f, 1);
    configure(q, 4.0f, 12.0f, 100.0f, 1.0f);
    const BiQuadCoefficients a = q.designed();
    q.setParameter(BiQuad::FREQ, 10000.0f);
    const BiQuadCoefficients b = q.designed();
    // Picked up before the writer starts: a read that meets a write in
    // progress keeps this set, never an older one.
    ASSERT_TRUE(sameSet(q.acquire(), b));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 200000; ++i)
            q.setParameter(BiQuad::FREQ, (i & 1) ? 100.0f : 10000.0f);
        stop = true;
    });
    long checks = 0, torn = 0;
    while (!stop.load()) {
        const BiQuadCoefficients& c = q.acquire();
        torn += !(sameSet(c, a) || sameSet(c, b));
        ++checks;
    }
    writer.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(checks, 0);
    EXPECT_TRUE(sameSet(q.acquire(), a));
}

} // namespace
