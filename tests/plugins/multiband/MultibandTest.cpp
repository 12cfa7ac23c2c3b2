// Multiband compressor: the crossover at rest is an all-pass, each band's
// compressor acts on its own range only and follows its static curve, solo
// and bypass, linked detection, and settings that move without steps.
#include "PluginFixture.h"

#include <Algorithms/Crossover.h>

#include <complex>

using namespace qvd::test;

namespace {

const std::string kKey = "Multiband Compressor:1364608107";
constexpr double kRate = 48000.0;
const double kCrossovers[] = {100.0, 500.0, 2000.0, 8000.0}; // the defaults

float peakFor(double rmsDb)
{
    return static_cast<float>(std::sqrt(2.0) * std::pow(10.0, rmsDb / 20.0));
}

// Every band's compressor out of the way: thresholds at full scale and test
// signals well below them.
void idle(PluginFixture& f)
{
    for (int b = 1; b <= 5; ++b) {
        f.set("BAND" + std::to_string(b) + "_THRESHOLD", 0.0f);
        f.set("BAND" + std::to_string(b) + "_KNEE", 0.0f);
    }
}

// The analog Butterworth polynomial of `order` (2 or 4) at s, cut-off wc.
std::complex<double> butterworth(std::complex<double> s, double wc, int order)
{
    std::complex<double> d = 1.0;
    for (int k = 0; k < order / 2; ++k) {
        const double twoZeta = 2.0 * std::sin((2.0 * k + 1.0) * M_PI / (2.0 * order));
        d *= s * s + twoZeta * wc * s + wc * wc;
    }
    return d;
}

// The sum a Linkwitz-Riley tree should have: the product of each split's
// all-pass D(-s)/D(s), mapped to the rate by the bilinear transform.
std::complex<double> cascadeAllPass(double hz, double rate, int splits, int order)
{
    const std::complex<double> s(0.0, 2.0 * rate * std::tan(M_PI * hz / rate));
    std::complex<double> h = 1.0;
    for (int k = 0; k < splits; ++k) {
        const double wc = 2.0 * rate * std::tan(M_PI * kCrossovers[k] / rate);
        h *= butterworth(-s, wc, order) / butterworth(s, wc, order);
    }
    return h;
}

// |Linkwitz-Riley 24 dB/oct| of the low or high half of a split at fc.
double lr(double hz, double fc, bool high, double rate = kRate)
{
    const std::complex<double> s(0.0, 2.0 * rate * std::tan(M_PI * hz / rate));
    const double wc = 2.0 * rate * std::tan(M_PI * fc / rate);
    return std::norm((high ? s * s : std::complex<double>(wc * wc)) / butterworth(s, wc, 2));
}

std::complex<double> dft(const std::vector<float>& x, double hz, double rate)
{
    std::complex<double> sum = 0.0;
    const std::complex<double> step = std::polar(1.0, -2.0 * M_PI * hz / rate);
    std::complex<double> w = 1.0;
    for (float v : x) {
        sum += static_cast<double>(v) * w;
        w *= step;
    }
    return sum;
}

// Largest sample-to-sample step, against the steepest a sine of `hz` with
// the signal's peak could take.
double stepRatio(const std::vector<float>& y, double hz, double rate, std::size_t from)
{
    double worst = 0.0;
    for (std::size_t n = from + 1; n < y.size(); ++n)
        worst = std::max(worst, static_cast<double>(std::fabs(y[n] - y[n - 1])));
    return worst / (2.0 * M_PI * hz / rate * peak(y, from));
}

} // namespace

TEST(MultibandCompressor, AtRestTheBandsSumToTheCrossoverAllPass)
{
    for (const double rate : {44100.0, 48000.0}) {
        for (const int slope : {0, 1}) {
            for (int bands = 2; bands <= 5; ++bands) {
                PluginFixture f(kKey);
                ASSERT_TRUE(f.prepare(rate, 512, 1));
                idle(f);
                f.set("BANDS", static_cast<float>(bands));
                f.set("SLOPE", static_cast<float>(slope));
                const Signal out = f.run(impulse(1, 1 << 16, 0, 0.1f));
                for (double hz = 20.0; hz <= 20000.0; hz *= std::pow(2.0, 1.0 / 6.0)) {
                    const std::complex<double> ratio =
                        dft(out[0], hz, rate) / 0.1 / cascadeAllPass(hz, rate, bands - 1, slope ? 4 : 2);
                    EXPECT_NEAR(dB(std::abs(ratio)), 0.0, 0.05)
                        << bands << " bands, slope " << slope << ", " << rate << " Hz, at " << hz << " Hz";
                    EXPECT_NEAR(std::arg(ratio) * 180.0 / M_PI, 0.0, 0.5)
                        << bands << " bands, slope " << slope << ", " << rate << " Hz, at " << hz << " Hz";
                }
            }
        }
    }
}

TEST(MultibandCompressor, CrossoversOutOfOrderKeepTheirOrder)
{
    // Crossover 2 and 3 set below crossover 1: each is pushed a third of an
    // octave above the one below, so band 2 spans 8 kHz .. 10.08 kHz.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 1));
    idle(f);
    f.set("CROSSOVER_1", 8000.0f);
    f.set("CROSSOVER_2", 100.0f);
    f.set("CROSSOVER_3", 50.0f);
    const Signal in = impulse(1, 1 << 14, 0, 0.1f);
    const Signal sum = f.run(in);
    for (const double hz : {50.0, 1000.0, 9000.0, 15000.0})
        EXPECT_NEAR(dB(std::abs(dft(sum[0], hz, kRate)) / 0.1), 0.0, 0.05) << hz << " Hz";
    f.set("BAND2_SOLO", 1.0f);
    const Signal two = f.run(in);
    // Band 2 is the Linkwitz-Riley high-pass at 8 kHz times the low-pass a
    // third of an octave up.
    const double f1 = 8000.0, f2 = 8000.0 * std::cbrt(2.0), centre = std::sqrt(f1 * f2);
    EXPECT_NEAR(dB(std::abs(dft(two[0], centre, kRate)) / 0.1), dB(lr(centre, f1, true) * lr(centre, f2, false)), 0.05);
    EXPECT_LT(dB(std::abs(dft(two[0], 1000.0, kRate)) / 0.1), -60.0);
}

TEST(MultibandCompressor, ABandCompressesOnlyItsOwnRange)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 1));
    idle(f);
    // The low band up to 250 Hz holds all but 0.2 dB of the 100 Hz tone.
    f.set("CROSSOVER_1", 250.0f);
    f.set("BAND1_THRESHOLD", -40.0f);
    f.set("BAND1_RATIO", 10.0f);
    const std::size_t n = 96000;
    Signal in = sine(1, n, 100.0, kRate, peakFor(-10.0));
    const Signal high = sine(1, n, 5000.0, kRate, peakFor(-30.0));
    for (std::size_t i = 0; i < n; ++i)
        in[0][i] += high[0][i];
    const Signal out = f.run(in);
    const std::size_t from = 48000; // one second to settle; whole periods of both tones follow
    EXPECT_NEAR(toneDb(out[0], 5000.0, kRate, from, n), toneDb(in[0], 5000.0, kRate, from, n), 0.1);
    // The low tone itself is well down, so the band really was working.
    EXPECT_LT(toneDb(out[0], 100.0, kRate, from, n), toneDb(in[0], 100.0, kRate, from, n) - 10.0);
}

TEST(MultibandCompressor, StaticCurveOfOneBand)
{
    // A wide middle band so its centre holds all of the tone: 50 Hz .. 10 kHz.
    const double hz = std::sqrt(50.0 * 10000.0);
    struct Point {
        double inDb, gainDb;
    };
    // Threshold -30 dB RMS, 4:1, hard knee: above it the gain is -(L + 30) * 3/4.
    for (const Point p : {Point{-40.0, 0.0}, Point{-20.0, -7.5}, Point{-6.0, -18.0}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 256, 1));
        idle(f);
        f.set("BANDS", 3.0f);
        f.set("CROSSOVER_1", 50.0f);
        f.set("CROSSOVER_2", 10000.0f);
        f.set("BAND2_THRESHOLD", -30.0f);
        f.set("BAND2_RATIO", 4.0f);
        f.set("BAND2_ATTACK", 5.0f);
        f.set("BAND2_RELEASE", 100.0f);
        const std::size_t n = 72000;
        const Signal in = sine(1, n, hz, kRate, peakFor(p.inDb));
        const Signal out = f.run(in);
        const std::size_t from = 24000;
        EXPECT_NEAR(dB(rms(out[0], from)) - dB(rms(in[0], from)), p.gainDb, 0.2) << "at " << p.inDb << " dB";
        // The band's gain-reduction readout says the same.
        double readout[5] = {};
        ASSERT_EQ(f.instance()->readReadout(0, readout, 5), 5);
        EXPECT_NEAR(readout[1], -p.gainDb, 0.2) << "at " << p.inDb << " dB";
        EXPECT_EQ(readout[0], 0.0);
    }
}

TEST(MultibandCompressor, SoloPlaysExactlyTheSoloedBands)
{
    const Signal in = noise(1, 20000, 3, 0.05f);
    Crossover reference;
    reference.setChannelCount(1);
    reference.setBands(4, Crossover::k24dB);
    for (int k = 0; k < 3; ++k)
        reference.setSplit(k, Crossover::design(kRate, kCrossovers[k], Crossover::k24dB));
    Signal bands = silence(4, in[0].size());
    float* bandPtr[4][1];
    float* const* bandPtrs[4];
    for (int b = 0; b < 4; ++b) {
        bandPtr[b][0] = bands[static_cast<std::size_t>(b)].data();
        bandPtrs[b] = bandPtr[b];
    }
    const float* inPtr[1] = {in[0].data()};
    reference.process(0, 1, inPtr, bandPtrs, static_cast<std::int32_t>(in[0].size()));

    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 1));
    idle(f);
    f.set("BAND2_SOLO", 1.0f);
    Signal out = f.run(in);
    ASSERT_GT(rms(bands[1]), 1e-3);
    double worst = 0.0;
    for (std::size_t i = 0; i < in[0].size(); ++i)
        worst = std::max(worst, static_cast<double>(std::fabs(out[0][i] - bands[1][i])));
    EXPECT_LT(worst, 1e-6);

    // Two solos: their sum.
    PluginFixture g(kKey);
    ASSERT_TRUE(g.prepare(kRate, 512, 1));
    idle(g);
    g.set("BAND2_SOLO", 1.0f);
    g.set("BAND4_SOLO", 1.0f);
    out = g.run(in);
    worst = 0.0;
    for (std::size_t i = 0; i < in[0].size(); ++i)
        worst = std::max(worst, static_cast<double>(std::fabs(out[0][i] - (bands[1][i] + bands[3][i]))));
    EXPECT_LT(worst, 1e-6);
}

TEST(MultibandCompressor, BypassedBandPassesUncompressed)
{
    const Signal in = sine(1, 48000, 60.0, kRate, peakFor(-10.0));
    const auto lowTone = [&](bool compress, bool bypass) {
        PluginFixture f(kKey);
        EXPECT_TRUE(f.prepare(kRate, 512, 1));
        idle(f);
        if (compress) {
            f.set("BAND1_THRESHOLD", -40.0f);
            f.set("BAND1_RATIO", 10.0f);
            f.set("BAND1_MAKEUP", 6.0f);
        }
        f.set("BAND1_BYPASS", bypass ? 1.0f : 0.0f);
        return toneDb(f.run(in)[0], 60.0, kRate, 24000, 48000);
    };
    const double untouched = lowTone(false, false);
    EXPECT_NEAR(untouched, toneDb(in[0], 60.0, kRate, 24000, 48000), 0.1);
    // Bypass drops the compression and the make-up together.
    EXPECT_NEAR(lowTone(true, true), untouched, 0.05);
    EXPECT_LT(lowTone(true, false), untouched - 10.0);
}

TEST(MultibandCompressor, LinkedDetectionTurnsDownTheQuietChannelToo)
{
    Signal in = sine(2, 48000, 1000.0, kRate, peakFor(-10.0));
    const Signal quiet = sine(1, 48000, 1000.0, kRate, peakFor(-40.0));
    in[1] = quiet[0];
    for (const bool linked : {true, false}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        f.set("BANDS", 1.0f);
        f.set("BAND1_THRESHOLD", -30.0f);
        f.set("BAND1_RATIO", 4.0f);
        f.set("BAND1_KNEE", 0.0f);
        f.set("LINK", linked ? 1.0f : 0.0f);
        const Signal out = f.run(in);
        const double left = dB(rms(out[0], 24000)) - dB(rms(in[0], 24000));
        const double right = dB(rms(out[1], 24000)) - dB(rms(in[1], 24000));
        EXPECT_NEAR(left, -15.0, 0.2) << (linked ? "linked" : "per channel");
        EXPECT_NEAR(right, linked ? -15.0 : 0.0, 0.2) << (linked ? "linked" : "per channel");
    }
}

TEST(MultibandCompressor, SwitchingDetectionKeepsTheGainReduction)
{
    // Both channels 20 dB over a 4:1 threshold: 15 dB of reduction either
    // way. Switching the detection mid-stream must not let go of it.
    const Signal in = sine(2, 96000, 1000.0, kRate, peakFor(-10.0));
    for (const bool linkedFirst : {true, false}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 480, 2));
        f.set("BANDS", 1.0f);
        f.set("BAND1_THRESHOLD", -30.0f);
        f.set("BAND1_RATIO", 4.0f);
        f.set("BAND1_KNEE", 0.0f);
        f.set("LINK", linkedFirst ? 1.0f : 0.0f);
        const Signal out = f.run(in);
        f.set("LINK", linkedFirst ? 0.0f : 1.0f);
        const Signal after = f.run(in);
        for (int c = 0; c < 2; ++c) {
            EXPECT_NEAR(dB(rms(out[c], 72000)) - dB(rms(in[c], 72000)), -15.0, 0.2);
            // Every 10 ms after the switch, for half a second.
            for (std::size_t at = 0; at < 24000; at += 480)
                ASSERT_NEAR(dB(rms(after[c], at, at + 480)) - dB(rms(in[c], at, at + 480)), -15.0, 0.5)
                    << (linkedFirst ? "to per channel" : "to linked") << ", channel " << c << " at " << at;
        }
    }
}

TEST(MultibandCompressor, OddChannelsMatchPairedOnes)
{
    // Channels run in pairs; the third runs alone and must not sound different.
    Signal in = noise(3, 20000, 5, 0.5f);
    in[1] = in[0];
    in[2] = in[0];
    for (const float link : {0.0f, 1.0f}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 300, 3));
        f.set("LINK", link);
        f.set("BANDS", 5.0f);
        const Signal out = f.run(in, 11);
        for (std::size_t i = 0; i < out[0].size(); ++i) {
            ASSERT_EQ(out[1][i], out[0][i]) << i;
            ASSERT_NEAR(out[2][i], out[0][i], 1e-6) << i;
        }
        EXPECT_GT(rms(out[0]), 0.01);
    }
}

TEST(MultibandCompressor, SettingChangesGlideWithoutSteps)
{
    // A 1 kHz tone in the middle of band 3 (500 Hz .. 2 kHz), then one
    // setting changed mid-stream with smoothing on. The bands leave in phase,
    // so their magnitudes add.
    const double hz = 1000.0;
    const double band2 = lr(hz, 100.0, true) * lr(hz, 500.0, false);
    const double band3 = lr(hz, 500.0, true) * lr(hz, 2000.0, false);
    const std::size_t chunk = 9612; // the change lands on a crest of the tone
    const Signal whole = sine(1, 2 * chunk, hz, kRate, 0.25);
    const Signal first{std::vector<float>(whole[0].begin(), whole[0].begin() + chunk)};
    const Signal second{std::vector<float>(whole[0].begin() + chunk, whole[0].end())};
    struct Change {
        const char* name;
        float value;
        double levelDb; // the tone's level change once settled
        float band3Threshold = 0.0f;
    };
    // Band 3 compressing at 2:1 from -30 dB, then its threshold raised to -22 dB:
    // the reduction falls by 4 dB, and the band holds band3 of the tone.
    const double toneDb = dB(0.25 / std::sqrt(2.0) * band3);
    const auto withReduction = [&](double threshold) {
        return dB(1.0 - band3 + band3 * std::pow(10.0, -(toneDb - threshold) / 2.0 / 20.0));
    };
    for (const Change c : {Change{"CROSSOVER_1", 2000.0f, 0.0}, Change{"BAND3_MAKEUP", 12.0f, dB(1.0 + 3.0 * band3)},
                           Change{"BANDS", 2.0f, 0.0}, Change{"SLOPE", 1.0f, 0.0}, Change{"OUTPUT", -12.0f, -12.0},
                           Change{"BAND3_BYPASS", 1.0f, 0.0}, Change{"BAND3_SOLO", 1.0f, dB(band3)},
                           Change{"BAND2_SOLO", 1.0f, dB(band2)},
                           Change{"BAND3_THRESHOLD", -22.0f, withReduction(-22.0) - withReduction(-30.0), -30.0f}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1, 1, true));
        idle(f);
        f.set("BAND3_THRESHOLD", c.band3Threshold);
        std::vector<float> y = f.run(first)[0];
        f.set(c.name, c.value);
        const std::vector<float> after = f.run(second)[0];
        y.insert(y.end(), after.begin(), after.end());
        // Gliding gains and phase bend the tone a little; a step would be
        // many times its steepest slope.
        EXPECT_LT(stepRatio(y, hz, kRate, 4800), 1.1) << c.name;
        EXPECT_NEAR(dB(rms(after, 4800)) - dB(rms(y, 4800, chunk)), c.levelDb, 0.1) << c.name;
    }
}
