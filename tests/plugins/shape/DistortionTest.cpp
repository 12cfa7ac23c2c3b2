#include "ShapeMeasures.h"

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Distortion:1364608115";
enum Type { kTube = 0, kFuzz, kFold, kBits, kSampleRate };
const char* const kTypes[] = {"tube", "fuzz", "fold", "bits", "sample rate"};

Signal distort(int type, float driveDb, const Signal& in, const std::vector<std::pair<const char*, float>>& more = {})
{
    PluginFixture f(kKey);
    EXPECT_TRUE(f.prepare(kRate, 256, static_cast<int>(in.size())));
    f.set("TYPE", static_cast<float>(type));
    f.set("DRIVE", driveDb);
    for (const auto& [name, value] : more)
        f.set(name, value);
    return f.run(in, 11);
}

// Harmonic k of 1 kHz re the fundamental, dB, over 0.1 s once settled.
double harmonicDb(const std::vector<float>& x, int k)
{
    return toneDb(x, 1000.0 * k, kRate, 24000, 28800) - toneDb(x, 1000.0, kRate, 24000, 28800);
}

// Signal to noise and distortion of a sine that fits `cycles` times in `span`
// frames: the fundamental is projected out, everything else is noise.
double sinadDb(const std::vector<float>& x, double cycles, std::size_t from, std::size_t span)
{
    double re = 0.0, im = 0.0;
    for (std::size_t n = 0; n < span; ++n) {
        const double w = 2.0 * M_PI * cycles * static_cast<double>(n) / static_cast<double>(span);
        re += x[from + n] * std::cos(w);
        im += x[from + n] * std::sin(w);
    }
    re *= 2.0 / static_cast<double>(span);
    im *= 2.0 / static_cast<double>(span);
    double noise = 0.0;
    for (std::size_t n = 0; n < span; ++n) {
        const double w = 2.0 * M_PI * cycles * static_cast<double>(n) / static_cast<double>(span);
        const double e = x[from + n] - re * std::cos(w) - im * std::sin(w);
        noise += e * e;
    }
    return 10.0 * std::log10(0.5 * (re * re + im * im) / (noise / static_cast<double>(span)));
}

} // namespace

TEST(Distortion, TubeMakesASecondHarmonicAndTheSymmetricCurvesOddOnesAlone)
{
    const Signal in = sine(1, 48000, 1000.0, kRate, 0.25);
    const Signal tube = distort(kTube, 12.0f, in);
    EXPECT_GT(harmonicDb(tube[0], 2), -20.0);
    for (const int type : {kFuzz, kFold}) {
        const Signal out = distort(type, 12.0f, in);
        EXPECT_GT(harmonicDb(out[0], 3), -30.0) << kTypes[type] << ": hardly distorts";
        for (const int k : {2, 4, 6, 8})
            EXPECT_LT(harmonicDb(out[0], k), -80.0) << kTypes[type] << " harmonic " << k;
    }
}

TEST(Distortion, BitReductionGivesSixDecibelsPerBit)
{
    // 101 cycles in 4801 frames: the error meets 4801 phases of the sine.
    const double cycles = 101.0;
    const std::size_t span = 4801;
    // A second for the low cut's start to die away below 24-bit noise.
    const std::size_t from = 48000;
    const Signal in = sine(1, from + span, kRate * cycles / static_cast<double>(span), kRate, 1.0);
    // One bit is a square wave, 1.5 dB short of the formula's uniform noise;
    // at 24 bits the steps meet the float input's own grid, 2.3 dB short.
    for (const int bits : {2, 3, 4, 8, 12, 16, 20, 22}) {
        const Signal out = distort(kBits, 0.0f, in, {{"BITS", static_cast<float>(bits)}, {"LOW_CUT", 10.0f}});
        EXPECT_NEAR(sinadDb(out[0], cycles, from, span), 6.02 * bits + 1.76, 1.0) << bits << " bits";
    }
}

TEST(Distortion, AsymmetricShapingLeavesNoDcAtTheOutput)
{
    for (const float drive : {0.0f, 12.0f, 36.0f}) {
        const Signal out = distort(kTube, drive, sine(1, 48000, 1000.0, kRate, 0.5));
        double sum = 0.0;
        for (std::size_t n = 24000; n < 48000; ++n)
            sum += out[0][n];
        EXPECT_LT(dB(std::fabs(sum / 24000.0)), -80.0) << drive << " dB of drive";
        EXPECT_GT(dB(peak(out[0], 24000)), -20.0) << "the wet signal went missing";
    }
}

TEST(Distortion, SampleRateReductionMirrorsTheToneAboutTheReducedRate)
{
    // Held at 8 kHz, 1 kHz comes with images at 7 and 9 kHz; at 48 kHz it is alone.
    const Signal in = sine(1, 48000, 1000.0, kRate, 0.25);
    const Signal reduced = distort(kSampleRate, 0.0f, in, {{"SAMPLE_RATE", 8000.0f}});
    const Signal full = distort(kSampleRate, 0.0f, in, {{"SAMPLE_RATE", 48000.0f}});
    EXPECT_NEAR(harmonicDb(reduced[0], 7), 20.0 * std::log10(1.0 / 7.0), 1.0);
    EXPECT_LT(harmonicDb(full[0], 7), -100.0);
}

TEST(Distortion, ToneTiltsTheWetSignalAboutItsPivot)
{
    // 24-bit reduction is transparent, so only the tilt shows.
    for (const auto& [hz, expected] : {std::pair{50.0, -6.0}, std::pair{15000.0, 6.0}}) {
        const Signal in = sine(1, 24000, hz, kRate, 0.25);
        const Signal out = distort(kBits, 0.0f, in, {{"BITS", 24.0f}, {"TONE", 12.0f}, {"LOW_CUT", 10.0f}});
        EXPECT_NEAR(dB(rms(out[0], 12000)) - dB(rms(in[0], 12000)), expected, 0.5) << hz << " Hz";
    }
}

TEST(Distortion, ChangingTheTypeWhilePlayingJoinsWithoutAGap)
{
    // Bit reduction for half a second, then fuzz: the 10 ms after the change
    // match a run of fuzz all along to well under the signal.
    const Signal in = sine(1, 48000, 440.0, kRate, 0.5);
    PluginFixture switched(kKey), steady(kKey);
    for (PluginFixture* f : {&switched, &steady}) {
        ASSERT_TRUE(f->prepare(kRate, 256, 1));
        f->set("TYPE", f == &switched ? kBits : kFuzz);
        f->run(slice(in, 0, 24000), 3);
        f->set("TYPE", kFuzz);
    }
    const Signal a = switched.run(slice(in, 24000, 24000), 5), b = steady.run(slice(in, 24000, 24000), 5);
    std::vector<float> error(480);
    for (std::size_t n = 0; n < error.size(); ++n)
        error[n] = a[0][n] - b[0][n];
    EXPECT_LT(dB(rms(error)) - dB(rms(b[0], 0, 480)), -60.0);
}

TEST(Distortion, MixZeroIsTheInputDelayedByTheLatencyBitForBit)
{
    const Signal in = signedZeroNoise(2, 6000, 8);
    for (const int type : {kTube, kBits}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 300, 2));
        f.set("TYPE", static_cast<float>(type));
        f.set("DRIVE", 36.0f);
        f.set("MIX", 0.0f);
        const Signal out = f.run(in, 23);
        const auto latency = static_cast<std::size_t>(f.audio()->latency());
        EXPECT_EQ(latency, 72u); // 1.5 ms at 48 kHz
        for (std::size_t c = 0; c < 2; ++c)
            EXPECT_EQ(firstMismatch(in[c], out[c], latency), -1) << kTypes[type] << " channel " << c;
    }
}
