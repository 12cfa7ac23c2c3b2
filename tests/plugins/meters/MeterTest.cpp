// Meter: the rise and return times of every ballistics against its
// standard's figures, RMS calibration, peak hold, peaks and clip counts.
#include "MeterReadouts.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Meter:1364610405";
constexpr double kRate = 48000.0;
constexpr int kBlock = 16; // a third of a millisecond between readings

// The readout of channel 0 after each block of `in`, one value a block.
std::vector<double> trace(PluginFixture& f, const Signal& in, const std::string& readoutName = "Level")
{
    std::vector<double> values;
    Signal slice(in.size());
    for (std::size_t at = 0; at + kBlock <= in[0].size(); at += kBlock) {
        for (std::size_t c = 0; c < in.size(); ++c)
            slice[c].assign(in[c].begin() + static_cast<std::ptrdiff_t>(at),
                           in[c].begin() + static_cast<std::ptrdiff_t>(at + kBlock));
        f.run(slice);
        values.push_back(readout(f, readoutName));
    }
    return values;
}

// Milliseconds until `reached` first holds, -1 if never.
template <class Test>
double msUntil(const std::vector<double>& values, Test reached)
{
    for (std::size_t i = 0; i < values.size(); ++i)
        if (reached(values[i]))
            return static_cast<double>((i + 1) * kBlock) / kRate * 1000.0;
    return -1.0;
}

struct Figures {
    const char* name;
    float choice;
    double toneHz;
    double riseDb; // reading against the steady one when the rise time is up
    double riseMs;
    double returnDb; // fall from the steady reading
    double returnMs;
};

} // namespace

TEST(Meter, BallisticsRiseAndReturnAsTheirStandardsSay)
{
    // PPMs: the burst that reads 2 dB under a steady tone; VU: 99 % of the
    // reading and back to 1 %; K-system: 99 % of the power and back to 1 %.
    const Figures figures[] = {
        {"Digital Peak", 0, 5000, -0.1, 0.0, 20, 1700},
        {"EBU PPM", 1, 5000, -2, 10, 24, 2800},
        {"BBC PPM", 2, 5000, -2, 10, 24, 2800},
        {"DIN PPM", 3, 5000, -2, 5, 20, 1500},
        {"Nordic PPM", 4, 5000, -2, 5, 20, 1700},
        {"VU", 5, 1000, 20 * std::log10(0.99), 300, 40, 300},
        {"K-12", 6, 1000, 10 * std::log10(0.99), 300, 20, 300},
        {"K-14", 7, 1000, 10 * std::log10(0.99), 300, 20, 300},
        {"K-20", 8, 1000, 10 * std::log10(0.99), 300, 20, 300},
    };
    for (const Figures& fig : figures) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, kBlock, 1));
        f.set("BALLISTICS", fig.choice);
        f.set("HOLD", 0.1f);
        const std::vector<double> up = trace(f, sine(1, static_cast<std::size_t>(2.0 * kRate), fig.toneHz, kRate));
        const double steady = up.back();
        const std::vector<double> down = trace(f, silence(1, static_cast<std::size_t>(4.0 * kRate)));

        const double rise = msUntil(up, [&](double v) { return v >= steady + fig.riseDb; });
        const double fall = msUntil(down, [&](double v) { return v <= steady - fig.returnDb; });
        if (fig.riseMs == 0.0)
            EXPECT_TRUE(rise > 0.0 && rise <= 0.5) << fig.name << " reads a peak at once, not after " << rise << " ms";
        else
            EXPECT_NEAR(rise, fig.riseMs, 0.1 * fig.riseMs) << fig.name;
        EXPECT_NEAR(fall, fig.returnMs, 0.1 * fig.returnMs) << fig.name;
    }
}

TEST(Meter, KSystemAndVuReadAgainstTheirReferences)
{
    // A sine whose RMS is the K-system reference reads 0 dB; VU reads a sine's RMS.
    const struct {
        float choice;
        double rmsDbfs;
        double reads;
    } cases[] = {{6, -12, 0}, {7, -14, 0}, {8, -20, 0}, {8, -30, -10}, {5, -18, -18}};
    for (const auto& c : cases) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1));
        f.set("BALLISTICS", c.choice);
        f.run(sine(1, 48000, 1000.0, kRate, std::sqrt(2.0) * std::pow(10.0, c.rmsDbfs / 20.0)));
        EXPECT_NEAR(readout(f, "Level"), c.reads, 0.05) << "choice " << c.choice << " at " << c.rmsDbfs << " dBFS";
    }
}

TEST(Meter, RmsOfAFullScaleSineWithAndWithoutTheAesOffset)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    const Signal full = sine(2, 96000, 997.0, kRate, 1.0);
    EXPECT_EQ(f.run(full, 3), full) << "the audio must pass unchanged";
    EXPECT_NEAR(readout(f, "RMS", 0), -3.01, 0.02);
    EXPECT_NEAR(readout(f, "RMS", 1), -3.01, 0.02);
    f.set("AES_RMS", 1.0f);
    f.run(full);
    EXPECT_NEAR(readout(f, "RMS", 0), 0.0, 0.02);
    EXPECT_NEAR(readout(f, "Sample Peak", 0), 0.0, 0.01);
}

TEST(Meter, PeakHoldKeepsTheHighestReadingForItsTime)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, kBlock, 1));
    f.set("HOLD", 1.0f);
    const std::vector<double> up = trace(f, sine(1, 24000, 1000.0, kRate, 0.5), "Peak Hold");
    const std::vector<double> held = trace(f, silence(1, 96000), "Peak Hold");
    const double let = msUntil(held, [&](double v) { return v < up.back() - 0.01; });
    EXPECT_NEAR(let, 1000.0, 10.0) << "held for its second, then falls with the reading";
    EXPECT_NEAR(held.back(), up.back() - 20.0 * 2.0 / 1.7, 0.2) << "two seconds on, digital peak falls 20 dB in 1.7 s";
}

TEST(Meter, PeaksAndClipsPerChannel)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 3));
    // A quarter-rate sine at 45 degrees: its samples sit 3.01 dB under its crest.
    Signal in = sine(3, 48000, kRate / 4, kRate, 0.5, M_PI / 4);
    // Two runs of overs on channel 1, one of them three samples long; none on 0.
    in[1][1000] = 1.0f;
    in[1][2000] = in[1][2001] = in[1][2002] = -1.5f;
    in[2][30000] = 1.0f;
    f.run(in, 9);
    EXPECT_NEAR(readout(f, "Sample Peak", 0), -9.03, 0.01);
    EXPECT_NEAR(readout(f, "True Peak", 0), -6.02, 0.2);
    EXPECT_NEAR(readout(f, "Sample Peak", 1), 20 * std::log10(1.5), 0.01);
    EXPECT_EQ(readout(f, "Clips", 0), 0.0);
    EXPECT_EQ(readout(f, "Clips", 1), 2.0);
    EXPECT_EQ(readout(f, "Clips", 2), 1.0);
    f.set("RESET", 1.0f);
    f.run(silence(3, 256));
    EXPECT_EQ(readout(f, "Clips", 1), 0.0);
    EXPECT_EQ(readout(f, "Sample Peak", 0), -std::numeric_limits<double>::infinity());
}
