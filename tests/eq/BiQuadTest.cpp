#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include <Algorithms/BiQuad.h>

namespace {

constexpr double kPi = 3.141592653589793;
constexpr int kRates[] = {44100, 48000, 96000, 192000};

// The coefficient formulas written out again from their description, each
// product and sum in the order the description gives them.
BiQuadCoefficients expectedSet(std::uint32_t kind, double fs, double f, double Q, double G)
{
    BiQuadCoefficients c;
    const double K = std::tan(kPi * f / fs);
    const double KK = K * K;
    if (kind == 3 || kind == 5) {
        const double D = KK * Q + K + Q;
        c.gain = kind == 3 ? KK * Q / D : Q / D;
        c.num1 = kind == 3 ? 2.0 : -2.0;
        c.num2 = 1.0;
        c.den1 = 2.0 * Q * (1.0 - KK) / D;
        c.den2 = (K - KK * Q - Q) / D;
    } else if (kind == 2) {
        const double Qp = 0.5 * K / (K - std::tan((1.0 - 0.5 / Q) * f * kPi / fs));
        const double A = std::sqrt(std::fabs(G));
        const double Dn = A * K + KK * Qp + Qp;
        const double Dd = KK * Qp * A + K + Qp * A;
        c.num2 = (KK * Qp - A * K + Qp) / Dn;
        c.num1 = 2.0 * Qp * (KK - 1.0) / Dn;
        c.den2 = (K - KK * Qp * A - Qp * A) / Dd;
        c.den1 = 2.0 * Qp * A * (1.0 - KK) / Dd;
        c.gain = (K * G + KK * Qp * A + Qp * A) / Dd;
    } else if (kind == 6 && G != 1.0) {
        const double g0 = std::fabs(G);
        const double s = std::sqrt(g0);
        const double k = g0 > 1.0 ? K / s : K;
        const double Dd = k * k * Q + k + Q;
        const double Dn = s * k + Q * g0 * k * k + Q;
        c.den1 = 2.0 * Q * (1.0 - k * k) / Dd;
        c.den2 = (k - k * k * Q - Q) / Dd;
        c.num1 = 2.0 * Q * (g0 * k * k - 1.0) / Dn;
        c.num2 = (Q * g0 * k * k - s * k + Q) / Dn;
        c.gain = Dn / Dd;
    } else if (kind == 7 && G != 1.0) {
        const double limit = fs / (2.0 * f);
        const bool clamped = std::fabs(G) > limit * limit;
        const double g0 = clamped ? limit * limit : std::fabs(G);
        const double s = clamped ? limit : std::sqrt(g0);
        const double k = g0 < 1.0 ? K / s : K;
        const double Dn = k + k * k * Q + Q;
        const double Dd = g0 * k * k * Q + s * k + Q;
        c.num2 = (k * k * Q - k + Q) / Dn;
        c.num1 = 2.0 * Q * (k * k - 1.0) / Dn;
        c.den2 = (s * k - g0 * k * k * Q - Q) / Dd;
        c.den1 = 2.0 * Q * (1.0 - g0 * k * k) / Dd;
        c.gain = g0 * Dn / Dd;
    } else if (kind == 10) {
        const double w = 6.283185307179586 * f / fs;
        const double alpha = std::sin(w) / (2.0 * Q);
        c.num2 = 1.0;
        c.num1 = -2.0 * std::cos(w);
        c.den2 = -(1.0 - alpha) / (1.0 + alpha);
        c.den1 = 2.0 * std::cos(w) / (1.0 + alpha);
        c.gain = 1.0 / (1.0 + alpha);
    }
    return c;
}

void expectSame(const BiQuadCoefficients& a, const BiQuadCoefficients& b)
{
    EXPECT_EQ(a.den2, b.den2);
    EXPECT_EQ(a.den1, b.den1);
    EXPECT_EQ(a.num2, b.num2);
    EXPECT_EQ(a.num1, b.num1);
    EXPECT_EQ(a.gain, b.gain);
}

// |H| at hz, in long double, from a set.
long double magnitudeAt(const BiQuadCoefficients& c, long double hz, long double fs)
{
    const long double w = 2.0L * 3.14159265358979323846264338327950288L * hz / fs;
    const long double nr = 1.0L + c.num1 * std::cos(w) + c.num2 * std::cos(2.0L * w);
    const long double ni = -(c.num1 * std::sin(w) + c.num2 * std::sin(2.0L * w));
    const long double dr = 1.0L - c.den1 * std::cos(w) - c.den2 * std::cos(2.0L * w);
    const long double di = c.den1 * std::sin(w) + c.den2 * std::sin(2.0L * w);
    return std::fabs(static_cast<long double>(c.gain)) * std::sqrt((nr * nr + ni * ni) / (dr * dr + di * di));
}

// The recursion written out again: one channel, float in and out.
std::vector<float> filtered(const BiQuadCoefficients& c, const std::vector<float>& in, double& w1, double& w2)
{
    const double e = static_cast<double>(1e-18f);
    std::vector<float> out(in.size());
    for (std::size_t i = 0; i < in.size(); ++i) {
        const double x = in[i];
        const double w = c.gain * x + c.den2 * w2 + c.den1 * w1;
        const double y = w + c.num2 * w2 + c.num1 * w1;
        w2 = w1;
        w1 = (w + e) - e;
        out[i] = static_cast<float>(y);
    }
    return out;
}

std::vector<float> noise(std::size_t frames, unsigned seed, float amplitude = 1.0f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-amplitude, amplitude);
    std::vector<float> v(frames);
    for (float& x : v)
        x = d(rng);
    return v;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
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

TEST(BiQuadTable, FiveEntriesAsDefined)
{
    const auto& t = BiQuad::parameterTable();
    ASSERT_EQ(t.size(), 5u);
    struct Row {
        const char* id;
        const char* label;
        int kind, scale;
        float minimum, maximum, defaultValue, step;
        const char* unit;
    };
    const Row rows[] = {{"BiQuad::IN", "In", 1, 0, 0.0f, 1.0f, 0.0f, 1.0f, ""},
                        {"BiQuad::SHAPE", "Shape", 2, 0, 0.0f, 4.0f, 4.0f, 1.0f, ""},
                        {"BiQuad::GAIN", "Gain", 0, 0, -18.0f, 18.0f, 0.0f, 0.1f, "dB"},
                        {"BiQuad::FREQ", "Freq", 0, 1, 20.0f, 22000.0f, 1000.0f, 1.0f, "Hz"},
                        {"BiQuad::Q", "Q", 0, 0, 0.1f, 15.0f, 1.5f, 1.0f, ""}};
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(t[i].index, i);
        EXPECT_EQ(t[i].identifier, QString::fromLatin1(rows[i].id));
        EXPECT_EQ(t[i].label, QString::fromLatin1(rows[i].label));
        EXPECT_EQ(t[i].kind, rows[i].kind);
        EXPECT_EQ(t[i].scale, rows[i].scale);
        EXPECT_EQ(t[i].minimum, rows[i].minimum);
        EXPECT_EQ(t[i].maximum, rows[i].maximum);
        EXPECT_EQ(t[i].defaultValue, rows[i].defaultValue);
        EXPECT_EQ(t[i].step, rows[i].step);
        EXPECT_EQ(t[i].unit, QString::fromLatin1(rows[i].unit));
    }
    EXPECT_EQ(t[1].options, (QStringList{"LPF", "HPF", "LShelf", "HShelf", "Bell", "Notch"}));

    BiQuad q;
    EXPECT_FALSE(q.setParameter(5, 1.0f));
    EXPECT_EQ(q.getParameter(5), 0.0f);
    EXPECT_TRUE(q.setParameter(BiQuad::FREQ, 250.0f));
    EXPECT_EQ(q.getParameter(BiQuad::FREQ), 250.0f);
}

TEST(BiQuadDesign, EveryReachableKindMatchesItsFormulaAtEveryRate)
{
    const double freqs[] = {20.0, 70.0, 1000.0, 6000.0, 19000.0};
    const double qs[] = {0.5, 0.71, 1.5, 5.5};
    const double gains[] = {-20.0, -6.0, -0.1, 0.1, 6.0, 20.0};
    for (const int fs : kRates)
        for (const std::uint32_t kind : {2u, 3u, 5u, 6u, 7u, 10u})
            for (const double f : freqs)
                for (const double q : qs)
                    for (const double db : gains) {
                        SCOPED_TRACE(testing::Message() << "fs " << fs << " kind " << kind << " f " << f << " Q " << q
                                                        << " dB " << db);
                        const double G = std::pow(10.0, db / 20.0);
                        expectSame(BiQuad::design(kind, fs, f, q, G), expectedSet(kind, fs, f, q, G));
                    }
    // The string of digits the recursion adds and takes away.
    EXPECT_NEAR(BiQuad::kFlush, 1.000000045813705e-18, 1e-30);
    EXPECT_NE(BiQuad::kFlush, 1e-18);
}

TEST(BiQuadDesign, ShapeValuesSelectKindsByTruncation)
{
    EXPECT_EQ(BiQuad::kindOfShape(0.0f), BiQuad::kLowPass);
    EXPECT_EQ(BiQuad::kindOfShape(0.99f), BiQuad::kLowPass);
    EXPECT_EQ(BiQuad::kindOfShape(-0.5f), BiQuad::kLowPass); // truncation toward zero
    EXPECT_EQ(BiQuad::kindOfShape(1.0f), BiQuad::kHighPass);
    EXPECT_EQ(BiQuad::kindOfShape(2.5f), BiQuad::kLowShelf);
    EXPECT_EQ(BiQuad::kindOfShape(3.0f), BiQuad::kHighShelf);
    EXPECT_EQ(BiQuad::kindOfShape(4.0f), BiQuad::kBell);
    EXPECT_EQ(BiQuad::kindOfShape(5.9f), BiQuad::kNotch);
    for (const float v : {6.0f, -1.0f, 1e38f, -1e38f, std::numeric_limits<float>::infinity(),
                          std::numeric_limits<float>::quiet_NaN()})
        EXPECT_EQ(BiQuad::kindOfShape(v), BiQuad::kNeutral) << v;
}

// The responses measured against what each kind promises, in long double.
// The tolerance allows for the rounding of the coefficients themselves: at
// 20 Hz and 192 kHz a DC gain depends on differences of nearly equal terms.
TEST(BiQuadDesign, ResponsesHaveTheirAnalyticGains)
{
    for (const int fs : kRates) {
        const long double nyquist = fs / 2.0L;
        for (const double f : {50.0, 440.0, 1000.0, 5000.0, 15000.0}) {
            for (const double db : {-18.0, -6.0, 3.0, 12.0, 18.0}) {
                SCOPED_TRACE(testing::Message() << "fs " << fs << " f " << f << " dB " << db);
                const double G = std::pow(10.0, db / 20.0);
                // Bell: the band gain at f, unity at both ends.
                const auto bell = BiQuad::design(BiQuad::kBell, fs, f, 1.5, G);
                EXPECT_NEAR(20.0 * std::log10(static_cast<double>(magnitudeAt(bell, f, fs))), db, 1e-8);
                EXPECT_NEAR(static_cast<double>(magnitudeAt(bell, 0, fs)), 1.0, 1e-8);
                EXPECT_NEAR(static_cast<double>(magnitudeAt(bell, nyquist, fs)), 1.0, 1e-8);
                // Low shelf: G at DC, 1 at Nyquist.
                const auto low = BiQuad::design(BiQuad::kLowShelf, fs, f, 0.71, G);
                EXPECT_NEAR(static_cast<double>(magnitudeAt(low, 0, fs)), G, 1e-8 * G);
                EXPECT_NEAR(static_cast<double>(magnitudeAt(low, nyquist, fs)), 1.0, 1e-8);
                // High shelf: 1 at DC, G at Nyquist unless above the clamp.
                const auto high = BiQuad::design(BiQuad::kHighShelf, fs, f, 0.71, G);
                const double limit = (fs / (2.0 * f)) * (fs / (2.0 * f));
                const double top = G < limit ? G : limit;
                EXPECT_NEAR(static_cast<double>(magnitudeAt(high, 0, fs)), 1.0, 1e-8);
                EXPECT_NEAR(static_cast<double>(magnitudeAt(high, nyquist, fs)), top, 1e-8 * top);
            }
            // Low- and high-pass: Q at the corner, and their pass and stop ends.
            const auto lp = BiQuad::design(BiQuad::kLowPass, fs, f, 0.71, 1.0);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(lp, f, fs)), 0.71, 1e-8);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(lp, 0, fs)), 1.0, 1e-8);
            EXPECT_LT(static_cast<double>(magnitudeAt(lp, nyquist, fs)), 1e-8);
            const auto hp = BiQuad::design(BiQuad::kHighPass, fs, f, 2.0, 1.0);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(hp, f, fs)), 2.0, 1e-8);
            EXPECT_LT(static_cast<double>(magnitudeAt(hp, 0, fs)), 1e-8);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(hp, nyquist, fs)), 1.0, 1e-8);
            // Notch: no output at f whatever the gain, unity at both ends.
            const auto notch = BiQuad::design(BiQuad::kNotch, fs, f, 1.5, 4.0);
            EXPECT_LT(static_cast<double>(magnitudeAt(notch, f, fs)), 1e-8);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(notch, 0, fs)), 1.0, 1e-8);
            EXPECT_NEAR(static_cast<double>(magnitudeAt(notch, nyquist, fs)), 1.0, 1e-8);
            // The block's own magnitude agrees with the long double one.
            EXPECT_NEAR(notch.magnitude(f * 1.3, fs), static_cast<double>(magnitudeAt(notch, f * 1.3, fs)), 1e-8);
        }
    }
}

TEST(BiQuadDesign, ShelvesAtZeroDecibelsAreExactlyNeutralAndNotchIgnoresGain)
{
    for (const int fs : kRates) {
        EXPECT_TRUE(BiQuad::design(BiQuad::kLowShelf, fs, 100.0, 0.7, 1.0).isNeutral());
        EXPECT_TRUE(BiQuad::design(BiQuad::kHighShelf, fs, 8000.0, 0.7, 1.0).isNeutral());
        // A bell at 0 dB is unity only up to rounding.
        const auto bell = BiQuad::design(BiQuad::kBell, fs, 1000.0, 1.5, 1.0);
        EXPECT_NEAR(static_cast<double>(magnitudeAt(bell, 3000.0, fs)), 1.0, 1e-12);
        expectSame(BiQuad::design(BiQuad::kNotch, fs, 1000.0, 2.0, 1.0),
                   BiQuad::design(BiQuad::kNotch, fs, 1000.0, 2.0, 10.0));
        expectSame(BiQuad::design(BiQuad::kNotch, fs, 1000.0, 2.0, 1.0),
                   BiQuad::design(BiQuad::kNotch, fs, 1000.0, 2.0, -0.25));
    }
    // Unknown kinds and the cascade without its corners are neutral.
    for (const std::uint32_t kind : {0u, 1u, 8u, 9u, 11u, 1000u})
        EXPECT_TRUE(BiQuad::design(kind, 48000, 1000.0, 1.5, 2.0).isNeutral()) << kind;
}

TEST(BiQuadDesign, HighShelfBoostIsLimitedToTheSquaredRatioOfNyquistToCorner)
{
    for (const int fs : kRates) {
        const double f = 12000.0;
        const double limit = fs / (2.0 * f);
        const double G = 10.0 * limit * limit;
        const auto c = BiQuad::design(BiQuad::kHighShelf, fs, f, 0.71, G);
        expectSame(c, expectedSet(BiQuad::kHighShelf, fs, f, 0.71, G));
        EXPECT_NEAR(static_cast<double>(magnitudeAt(c, fs / 2.0L, fs)), limit * limit, 1e-9 * limit * limit);
        // Anything past the limit designs the same filter.
        expectSame(c, BiQuad::design(BiQuad::kHighShelf, fs, f, 0.71, 3.0 * G));
    }
}

TEST(BiQuadProcess, RecursionIsBitExactWithTheFormulaInPlaceOutOfPlaceAndAdvanceOnly)
{
    for (const int fs : kRates) {
        for (const float shape : {0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f}) {
            SCOPED_TRACE(testing::Message() << "fs " << fs << " shape " << shape);
            BiQuad q;
            q.initialise(static_cast<float>(fs), 3);
            configure(q, shape, -7.5f, 1234.0f, 1.7f);
            const BiQuadCoefficients c =
                expectedSet(BiQuad::kindOfShape(shape), fs, 1234.0, static_cast<double>(1.7f), std::pow(10.0, -7.5 / 20.0));
            const auto a = noise(700, 1), b = noise(700, 2), d = noise(700, 3);
            double w1[3] = {}, w2[3] = {};
            const auto ea = filtered(c, a, w1[0], w2[0]);
            const auto eb = filtered(c, b, w1[1], w2[1]);
            filtered(c, d, w1[2], w2[2]);

            // Channel 0 in place, channel 1 out of place, channel 2 advanced only.
            std::vector<float> ia = a, ob(700, 5.0f);
            const float* ins[3] = {ia.data(), b.data(), d.data()};
            float* outs[3] = {ia.data(), ob.data(), nullptr};
            ASSERT_TRUE(q.process(ins, outs, 3, 700));
            EXPECT_TRUE(sameBits(ia, ea));
            EXPECT_TRUE(sameBits(ob, eb));
            for (int ch = 0; ch < 3; ++ch) {
                EXPECT_EQ(q.states()[ch].w1, w1[ch]);
                EXPECT_EQ(q.states()[ch].w2, w2[ch]);
            }
        }
    }
}

TEST(BiQuadProcess, OutputIsTheSameForAnySplitOfTheBlock)
{
    const auto input = noise(1000, 9);
    // Runs the input through a fresh bell in pieces of the lengths `next` gives.
    auto run = [&](auto next) {
        BiQuad q;
        q.initialise(48000.0f, 1);
        configure(q, 4.0f, 9.0f, 300.0f, 4.0f);
        std::vector<float> io = input;
        for (std::uint32_t done = 0; done < io.size();) {
            const std::uint32_t n = std::min<std::uint32_t>(static_cast<std::uint32_t>(io.size()) - done, next());
            float* p = io.data() + done;
            q.processChannels(&p, 1, n);
            done += n;
        }
        return io;
    };
    std::mt19937 rng(3);
    const auto whole = run([] { return 1000u; });
    EXPECT_TRUE(sameBits(whole, run([] { return 1u; })));
    EXPECT_TRUE(sameBits(whole, run([&rng] { return static_cast<std::uint32_t>(rng() % 70); })));
}

TEST(BiQuadProcess, BandsOffOrShapesOutOfRangePassEveryBitThrough)
{
    std::vector<float> input = noise(256, 4);
    input[3] = -0.0f;
    input[4] = std::numeric_limits<float>::denorm_min();
    input[5] = std::numeric_limits<float>::quiet_NaN();
    input[6] = std::numeric_limits<float>::infinity();
    input[7] = -1e38f;
    for (const float shape : {6.0f, 7.0f, -1.0f, 100.0f}) {
        BiQuad q;
        q.initialise(48000.0f, 1);
        configure(q, shape, 12.0f, 1000.0f, 1.5f);
        EXPECT_TRUE(q.designed().isNeutral());
        std::vector<float> io = input;
        float* p = io.data();
        q.processChannels(&p, 256);
        EXPECT_TRUE(sameBits(io, input)) << shape;
    }
    BiQuad off;
    off.initialise(96000.0f, 2);
    configure(off, 4.0f, 12.0f, 1000.0f, 1.5f);
    off.setParameter(BiQuad::IN, 0.0f);
    std::vector<float> io = input, out(256, 3.0f);
    const float* in[1] = {io.data()};
    float* o[1] = {out.data()};
    off.process(in, o, 1, 256);
    EXPECT_TRUE(sameBits(out, input));
    // Only exactly 1.0 switches a band in.
    off.setParameter(BiQuad::IN, 0.999f);
    EXPECT_TRUE(off.designed().isNeutral());

}

TEST(BiQuadState, SwitchingInClearsHistoryAndAFrequencyChangeKeepsIt)
{
    const auto first = noise(300, 5), second = noise(300, 6);
    BiQuad q;
    q.initialise(48000.0f, 1);
    configure(q, 1.0f, 0.0f, 200.0f, 0.7f);
    auto c = expectedSet(BiQuad::kHighPass, 48000, 200.0, static_cast<double>(0.7f), 1.0);
    double w1 = 0, w2 = 0;
    std::vector<float> io = first;
    float* p = io.data();
    q.processChannels(&p, 300);
    filtered(c, first, w1, w2);
    ASSERT_NE(w1, 0.0);

    // New frequency: the next block continues from the same history.
    q.setParameter(BiQuad::FREQ, 900.0f);
    c = expectedSet(BiQuad::kHighPass, 48000, 900.0, static_cast<double>(0.7f), 1.0);
    io = second;
    q.processChannels(&p, 300);
    EXPECT_TRUE(sameBits(io, filtered(c, second, w1, w2)));

    // Out and in again: the band starts from silence.
    q.setParameter(BiQuad::IN, 0.0f);
    q.setParameter(BiQuad::IN, 1.0f);
    double z1 = 0, z2 = 0;
    io = first;
    q.processChannels(&p, 300);
    EXPECT_TRUE(sameBits(io, filtered(c, first, z1, z2)));
    // Setting the in flag to the value it has already is no toggle.
    q.setParameter(BiQuad::IN, 1.0f);
    io = second;
    q.processChannels(&p, 300);
    EXPECT_TRUE(sameBits(io, filtered(c, second, z1, z2)));
}

TEST(BiQuadState, StateArrayFollowsTheChannelCountAndExtraChannelsAreSilent)
{
    BiQuad q;
    q.initialise(48000.0f, 1);
    EXPECT_EQ(q.stateCount(), 1u);
    configure(q, 0.0f, 0.0f, 500.0f, 0.7f);
    const auto c = expectedSet(BiQuad::kLowPass, 48000, 500.0, static_cast<double>(0.7f), 1.0);
    const auto a = noise(128, 7), b = noise(128, 8);
    double w1 = 0, w2 = 0;
    std::vector<float> ch0 = a, ch1 = b;
    float* one[1] = {ch0.data()};
    q.processChannels(one, 128);
    filtered(c, a, w1, w2);

    // More channels than states: the extra one is silent and has no state.
    ch0 = b;
    float* two[2] = {ch0.data(), ch1.data()};
    q.processChannels(two, 2, 128);
    EXPECT_TRUE(sameBits(ch0, filtered(c, b, w1, w2)));
    EXPECT_EQ(ch1, std::vector<float>(128, 0.0f));
    std::vector<float> lone = a;
    q.processChannel(5, lone.data(), 128);
    EXPECT_EQ(lone, std::vector<float>(128, 0.0f));

    // Growing keeps channel 0's history and starts channel 1 from silence.
    q.setChannelCount(2);
    EXPECT_EQ(q.stateCount(), 2u);
    EXPECT_EQ(q.states()[0].w1, w1);
    ch0 = a;
    ch1 = b;
    q.processChannels(two, 128);
    EXPECT_TRUE(sameBits(ch0, filtered(c, a, w1, w2)));
    double v1 = 0, v2 = 0;
    EXPECT_TRUE(sameBits(ch1, filtered(c, b, v1, v2)));
    // Shrinking keeps the first ones.
    q.setChannelCount(1);
    EXPECT_EQ(q.stateCount(), 1u);
    EXPECT_EQ(q.states()[0].w1, w1);
    q.setChannelCount(-4);
    EXPECT_EQ(q.stateCount(), 0u);

    q.reset();
    q.setChannelCount(1);
    EXPECT_EQ(q.states()[0].w1, 0.0);
}

TEST(BiQuadState, InitialiseTruncatesTheRateAndRestoresDefaults)
{
    BiQuad q;
    configure(q, 0.0f, 0.0f, 500.0f, 0.7f);
    q.initialise(44100.9f, 2);
    EXPECT_EQ(q.sampleRate(), 44100);
    EXPECT_EQ(q.channelCount(), 2);
    EXPECT_FALSE(q.isIn());
    EXPECT_EQ(q.kind(), BiQuad::kBell);
    EXPECT_EQ(q.frequency(), 1000.0);
    EXPECT_EQ(q.q(), 1.5);
    EXPECT_EQ(q.linearGain(), 1.0);
    EXPECT_TRUE(q.designed().isNeutral());
}

TEST(BiQuadState, NonFiniteInputDoesNotPoisonTheFilter)
{
    BiQuad q;
    q.initialise(48000.0f, 1);
    configure(q, 4.0f, 18.0f, 40.0f, 15.0f); // long ringing
    for (const float bad : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 3e38f}) {
        std::vector<float> burst(64, 0.5f);
        burst[10] = bad;
        burst[11] = -bad;
        float* p = burst.data();
        q.processChannels(&p, 64);
        // NaN and infinity are gone at the next block; a finite but huge
        // input rings down within one second.
        const bool nonFinite = !std::isfinite(bad);
        for (int block = 0; block < 100; ++block) {
            std::vector<float> normal = noise(480, 10 + static_cast<unsigned>(block), 0.5f);
            p = normal.data();
            q.processChannels(&p, 480);
            if (nonFinite || block == 99) {
                for (const float v : normal)
                    ASSERT_TRUE(std::isfinite(v)) << bad << " block " << block;
            }
        }
        EXPECT_TRUE(std::isfinite(q.states()[0].w1));
    }
}

TEST(BiQuadState, SettersTakeAnyFloatWithoutLeavingAnUnstableSet)
{
    const float nasty[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(), 1e38f, -1e38f, -0.0f, 0.0f,
                           std::numeric_limits<float>::denorm_min()};
    for (std::uint32_t index = 0; index < 5; ++index) {
        for (const float v : nasty) {
            BiQuad q;
            q.initialise(48000.0f, 1);
            configure(q, 4.0f, 6.0f, 1000.0f, 1.5f);
            EXPECT_TRUE(q.setParameter(index, v));
            const BiQuadCoefficients& c = q.designed();
            EXPECT_TRUE(c.isNeutral() || c.isStable()) << index << " " << v;
            std::vector<float> io = noise(256, 11);
            float* p = io.data();
            q.processChannels(&p, 256);
            for (const float y : io)
                ASSERT_TRUE(std::isfinite(y)) << index << " " << v;
        }
    }
    // A frequency at Nyquist or a Q of zero have no filter: unity instead of ringing.
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
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 200000; ++i)
            q.setParameter(BiQuad::FREQ, (i & 1) ? 100.0f : 10000.0f);
        stop = true;
    });
    auto same = [](const BiQuadCoefficients& x, const BiQuadCoefficients& y) {
        return std::memcmp(&x, &y, sizeof x) == 0;
    };
    long checks = 0, torn = 0;
    while (!stop.load()) {
        const BiQuadCoefficients& c = q.acquire();
        torn += !(same(c, a) || same(c, b));
        ++checks;
    }
    writer.join();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(checks, 0);
    EXPECT_TRUE(same(q.acquire(), a));
}

} // namespace
