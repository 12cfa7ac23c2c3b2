// qvdfx process with --sidechain and --source: the built binary on files.

#include <gtest/gtest.h>

#include "CommandLine.h"
#include "WavFile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kRate = 48000;

using Result = qvd::test::CommandResult;

// qvdfx, with what it prints on both streams in `output`.
Result qvdfx(const std::string& arguments)
{
    return qvd::test::runCommand(std::string(QVDFX_PATH) + " " + arguments + " 2>&1");
}

using qvd::test::wav::Planar;

void writeWav(const fs::path& path, const Planar& x, int rate = kRate)
{
    qvd::test::wav::writePlanar(path, x, rate);
}

constexpr auto readWav = &qvd::test::wav::readPlanar;

class SideChainCli : public testing::Test {
protected:
    void SetUp() override
    {
        // Main: stereo 1 kHz at -6 dBFS, 2 s. Key: a mono 200 Hz voice-like
        // burst from 0.5 to 1.0 s, 1.2 s long (shorter than the main).
        Planar main(2, std::vector<float>(2 * kRate)), key(1, std::vector<float>(static_cast<std::size_t>(1.2 * kRate)));
        for (std::size_t n = 0; n < main[0].size(); ++n)
            main[0][n] = main[1][n] = static_cast<float>(0.5 * std::sin(2 * M_PI * 1000.0 * n / kRate));
        for (std::size_t n = 0; n < key[0].size(); ++n) {
            const double t = static_cast<double>(n) / kRate;
            const double env = t >= 0.5 && t < 1.0 ? std::min({1.0, (t - 0.5) / 0.01, (1.0 - t) / 0.01}) : 0.0;
            const double w = 2 * M_PI * 200.0 * t;
            key[0][n] = static_cast<float>(0.2 * env * (std::sin(w) + 0.5 * std::sin(2 * w)));
        }
        writeWav(path("main.wav"), main);
        writeWav(path("voice.wav"), key);
        writeWav(path("voice44.wav"), key, 44100);
        m_main = main;
        // Where the key first and last passes the default -30 dB threshold.
        for (std::size_t n = 0; n < key[0].size(); ++n)
            if (std::fabs(key[0][n]) > std::pow(10.0, -30.0 / 20.0)) {
                m_last = static_cast<double>(n) / kRate;
                if (m_onset < 0)
                    m_onset = m_last;
            }
    }
    std::string path(const std::string& name) const { return m_folder.path(name); }

    // Gain on the left channel in dB at time `seconds`, from a 1 ms window.
    double gainAt(const Planar& out, double seconds) const
    {
        const auto from = static_cast<std::size_t>(seconds * kRate);
        double num = 0, den = 0;
        for (std::size_t n = from; n < from + 48; ++n) {
            num += static_cast<double>(out[0][n]) * out[0][n];
            den += static_cast<double>(m_main[0][n]) * m_main[0][n];
        }
        return 10.0 * std::log10(num / den);
    }

    qvd::test::TestFolder m_folder{"qvd-sidechain-"};
    Planar m_main;
    double m_onset = -1.0, m_last = -1.0; // seconds
};

} // namespace

TEST_F(SideChainCli, SideChainDucksTheMainSignal)
{
    const Result r = qvdfx("process " + path("main.wav") + " " + path("out.wav") +
                           " -p Ducker --set DEPTH=-18 --set ATTACK=20 --set HOLD=100 --set RELEASE=200 --sidechain " +
                           path("voice.wav") + " --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    const Planar out = readWav(path("out.wav"));
    ASSERT_EQ(out.size(), 2u);
    ASSERT_EQ(out[0].size(), m_main[0].size());
    EXPECT_NEAR(gainAt(out, 0.4), 0.0, 1e-6) << "before the key";
    EXPECT_NEAR(gainAt(out, 0.8), -18.0, 0.5) << "during the key";
    EXPECT_NEAR(gainAt(out, m_onset + 0.0095), -9.0, 1.0) << "half-way through the 20 ms attack";
    EXPECT_NEAR(gainAt(out, m_last + 0.095), -18.0, 0.5) << "at the end of the 100 ms hold";
    EXPECT_NEAR(gainAt(out, m_last + 0.1995), -9.0, 1.0) << "half-way through the 200 ms release";
    EXPECT_NEAR(gainAt(out, 1.5), 0.0, 1e-6) << "the key ended and its file too: silence";
    EXPECT_NEAR(gainAt(out, 0.8), gainAt(Planar{out[1]}, 0.8), 1e-6) << "a mono key ducks both channels";
}

TEST_F(SideChainCli, ASourceReadsAsSilenceAfterItsEnd)
{
    // A stereo key at full level that simply stops, 0.3 s in.
    Planar key(2, std::vector<float>(static_cast<std::size_t>(0.3 * kRate)));
    for (std::size_t n = 0; n < key[0].size(); ++n)
        key[0][n] = key[1][n] = static_cast<float>(0.3 * std::sin(2 * M_PI * 200.0 * n / kRate));
    writeWav(path("short.wav"), key);
    const Result r = qvdfx("process " + path("main.wav") + " " + path("out.wav") +
                           " -p Ducker --set ATTACK=5 --set HOLD=50 --set RELEASE=100 --sidechain " + path("short.wav") +
                           " --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    const Planar out = readWav(path("out.wav"));
    EXPECT_NEAR(gainAt(out, 0.2), -12.0, 0.5) << "while the key lasts";
    EXPECT_NEAR(gainAt(out, 0.3 + 0.05 + 0.05), -6.0, 1.0) << "half-way through the release after its end";
    EXPECT_NEAR(gainAt(out, 0.6), 0.0, 1e-6) << "released once the file has ended";
}

TEST_F(SideChainCli, KeyIsAlignedWithWhatEachPluginHears)
{
    // The first Ducker's 10 ms look-ahead delays the main signal for the
    // second; qvdfx delays the key by as much, so the second ducks on time.
    const std::string chain = " -p Ducker --set LOOKAHEAD=10 --set DEPTH=-6 --set ATTACK=1"
                              " -p Ducker --set DEPTH=-10 --set ATTACK=1";
    const Result r = qvdfx("process " + path("main.wav") + " " + path("out.wav") + chain + " --source sidechain=" +
                           path("voice.wav") + " --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    const Planar out = readWav(path("out.wav"));
    ASSERT_EQ(out[0].size(), m_main[0].size()) << "latency compensated";
    EXPECT_NEAR(gainAt(out, 0.4), 0.0, 1e-6);
    EXPECT_NEAR(gainAt(out, m_onset - 0.006), -6.0, 0.5) << "only the look-ahead ducker is down before the key";
    EXPECT_NEAR(gainAt(out, m_onset + 0.005), -16.0, 0.5) << "both are down during the key";
}

TEST_F(SideChainCli, BadSourcesAreRefusedNamingThem)
{
    const std::string process = "process " + path("main.wav") + " " + path("out.wav") + " -p Ducker ";
    Result r = qvdfx(process + "--sidechain " + path("missing.wav"));
    EXPECT_EQ(r.status, 5) << r.output;
    EXPECT_NE(r.output.find("missing.wav"), std::string::npos) << r.output;

    r = qvdfx(process + "--sidechain " + path("voice44.wav"));
    EXPECT_EQ(r.status, 5) << r.output;
    EXPECT_NE(r.output.find("voice44.wav"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("44100 Hz"), std::string::npos) << r.output;

    r = qvdfx(process + "--source " + path("voice.wav"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find("NAME=FILE"), std::string::npos) << r.output;

    r = qvdfx(process + "--sidechain " + path("voice.wav") + " --source sidechain=" + path("voice.wav"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find("twice"), std::string::npos) << r.output;

    r = qvdfx(process + "--sidechain");
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_FALSE(fs::exists(path("out.wav"))) << "nothing written after a refusal";
}
