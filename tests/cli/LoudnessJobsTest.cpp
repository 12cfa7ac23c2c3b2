// qvdfx measure, loudnorm and the readouts of process --meters, end to end:
// the built binary on files made here, read back as a user would.

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include "CommandLine.h"
#include "WavFile.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

using Result = qvd::test::CommandResult;

// qvdfx with stdout alone in `output` (debug builds talk on stderr), or
// both streams when `withErrors`.
Result qvdfx(const std::string& arguments, bool withErrors = false)
{
    return qvd::test::runCommand(std::string(QVDFX_PATH) + " " + arguments + (withErrors ? " 2>&1" : " 2>/dev/null"));
}

QJsonObject parse(const std::string& text)
{
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString() << "\n" << text.substr(0, 2000);
    return doc.object();
}

std::string contents(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

using qvd::test::wav::Audio;
constexpr auto readAudio = &qvd::test::wav::read;
constexpr auto writeAudio = &qvd::test::wav::write;

// A sine per channel: `peakDb` dBFS peak, `hz`, starting at `phase`.
void appendSine(Audio& a, double seconds, double hz, std::vector<double> peakDb, double phase = 0.0)
{
    const auto frames = static_cast<std::size_t>(std::llround(seconds * a.rate));
    const std::size_t start = a.frames();
    for (std::size_t n = 0; n < frames; ++n) {
        const double s = std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(start + n) / a.rate + phase);
        for (int c = 0; c < a.channels; ++c)
            a.samples.push_back(static_cast<float>(std::pow(10.0, peakDb[static_cast<std::size_t>(c)] / 20.0) * s));
    }
}

double number(const QJsonObject& o, const char* key)
{
    EXPECT_TRUE(o.contains(key)) << key;
    return o.value(key).toDouble(std::nan(""));
}

struct LoudnessJobs : testing::Test {
    qvd::test::TestFolder scratch{"qvdfx_loudness_"};
    const fs::path dir = scratch.dir();
    std::string path(const std::string& name) const { return scratch.path(name); }
    QJsonObject measure(const std::string& name)
    {
        const Result r = qvdfx("measure --json " + path(name));
        EXPECT_EQ(r.status, 0) << r.output;
        return parse(r.output);
    }
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
};

// ---- measure ----

// A 997 Hz sine at -20 dBFS in both channels is -20 LUFS (the reference
// calibration); its gates sit 10 and 20 LU under it; peaks per channel.
TEST_F(LoudnessJobs, MeasureReadsTheCalibrationSine)
{
    Audio a;
    appendSine(a, 20.0, 997.0, {-20.0, -26.0});
    writeAudio(path("sine.wav"), a);
    const QJsonObject m = measure("sine.wav");
    const double right = 10.0 * std::log10((1.0 + std::pow(10.0, -0.6)) / 2.0); // the quieter right channel
    EXPECT_NEAR(number(m, "integrated_lufs"), -20.0 + right, 0.05);
    EXPECT_NEAR(number(m, "integrated_threshold_lufs"), -30.0 + right, 0.05);
    EXPECT_NEAR(number(m, "range_threshold_lufs"), -40.0 + right, 0.05);
    EXPECT_NEAR(number(m, "loudness_range_lu"), 0.0, 0.05);
    EXPECT_NEAR(number(m, "max_short_term_lufs"), -20.0 + right, 0.05);
    EXPECT_NEAR(number(m, "sample_peak_dbfs"), -20.0, 0.01);
    EXPECT_NEAR(number(m, "true_peak_dbtp"), -20.0, 0.05);
    const QJsonArray sample = m.value("sample_peak_dbfs_per_channel").toArray();
    ASSERT_EQ(sample.size(), 2);
    EXPECT_NEAR(sample[0].toDouble(), -20.0, 0.01);
    EXPECT_NEAR(sample[1].toDouble(), -26.0, 0.01);
    EXPECT_EQ(m.value("true_peak_dbtp_per_channel").toArray().size(), 2);
    EXPECT_EQ(number(m, "frames"), 960000.0);
    EXPECT_EQ(number(m, "channels"), 2.0);

    // The same figures for people, with their units.
    const Result text = qvdfx("measure " + path("sine.wav"));
    ASSERT_EQ(text.status, 0);
    EXPECT_NE(text.output.find("integrated:          -22.0 LUFS"), std::string::npos) << text.output;
    EXPECT_NE(text.output.find("sample peak:         -20.0 dBFS (ch 1 -20.0 dBFS, ch 2 -26.0 dBFS)"),
              std::string::npos)
        << text.output;
}

// Ten seconds loud, ten seconds 20 dB quieter: the relative gate shuts the
// quiet half out of the integrated loudness but not out of the range.
TEST_F(LoudnessJobs, MeasureGatesAQuietHalf)
{
    Audio a;
    appendSine(a, 10.0, 997.0, {-10.0, -10.0});
    appendSine(a, 10.0, 997.0, {-30.0, -30.0});
    writeAudio(path("steps.wav"), a);
    const QJsonObject m = measure("steps.wav");
    // Blocks straddling the step pass the gate partly loud, so allow a little.
    EXPECT_NEAR(number(m, "integrated_lufs"), -10.0, 0.15);
    const double ungated = 10.0 * std::log10((1.0 + 0.01) / 2.0) - 10.0;
    EXPECT_NEAR(number(m, "integrated_threshold_lufs"), ungated - 10.0, 0.1);
    EXPECT_NEAR(number(m, "range_threshold_lufs"), ungated - 20.0, 0.15);
    EXPECT_NEAR(number(m, "loudness_range_lu"), 20.0, 0.3);
}

// Samples at ±0.707 of a 12 kHz sine whose crests fall between them: the
// sample peak reads -3 dBFS, the true peak the 0 dBTP of the waveform.
TEST_F(LoudnessJobs, MeasureFindsPeaksBetweenSamples)
{
    Audio a;
    a.channels = 1;
    appendSine(a, 2.0, 12000.0, {0.0}, std::numbers::pi / 4);
    writeAudio(path("tp.wav"), a);
    const QJsonObject m = measure("tp.wav");
    EXPECT_NEAR(number(m, "sample_peak_dbfs"), -3.01, 0.01);
    EXPECT_NEAR(number(m, "true_peak_dbtp"), 0.0, 0.2);
}

// A 5.1 file is weighed by its layout: the LFE not at all, a side surround
// 1.5 dB over a front channel.
TEST_F(LoudnessJobs, MeasureWeighsSurroundChannels)
{
    const auto only = [&](int channel, const std::string& name) {
        Audio a;
        a.channels = 6;
        std::vector<double> levels(6, -300.0);
        levels[static_cast<std::size_t>(channel)] = -20.0;
        appendSine(a, 5.0, 997.0, levels);
        writeAudio(path(name), a);
        return measure(name);
    };
    const QJsonObject front = only(0, "l.wav"), lfe = only(3, "lfe.wav"), side = only(4, "ls.wav");
    EXPECT_NEAR(number(front, "integrated_lufs"), -23.01, 0.05);
    EXPECT_NEAR(number(side, "integrated_lufs") - number(front, "integrated_lufs"), 1.49, 0.02);
    EXPECT_TRUE(lfe.value("integrated_lufs").isNull());
    EXPECT_NEAR(lfe.value("sample_peak_dbfs_per_channel").toArray()[3].toDouble(), -20.0, 0.01);
}

TEST_F(LoudnessJobs, MeasureEdgeCasesAndErrors)
{
    // Silence has no loudness: null in JSON, -inf for people.
    ASSERT_EQ(qvdfx("gen " + path("silence.wav") + " --signal silence --seconds 2").status, 0);
    const QJsonObject m = measure("silence.wav");
    EXPECT_TRUE(m.value("integrated_lufs").isNull());
    EXPECT_TRUE(m.value("integrated_threshold_lufs").isNull());
    EXPECT_TRUE(m.value("true_peak_dbtp").isNull());
    EXPECT_NE(qvdfx("measure " + path("silence.wav")).output.find("integrated:          -inf LUFS"), std::string::npos);
    // Shorter than one 400 ms block: no integrated loudness, peaks still.
    ASSERT_EQ(qvdfx("gen " + path("short.wav") + " --signal sine --level -6 --seconds 0.3").status, 0);
    const QJsonObject s = measure("short.wav");
    EXPECT_TRUE(s.value("integrated_lufs").isNull());
    EXPECT_NEAR(number(s, "sample_peak_dbfs"), -6.0, 0.01);
    // Read from a pipe as from a file.
    const Result piped = qvdfx("measure --json - < " + path("short.wav"));
    ASSERT_EQ(piped.status, 0);
    EXPECT_NEAR(number(parse(piped.output), "sample_peak_dbfs"), -6.0, 0.01);

    Result r = qvdfx("measure " + path("missing.wav"), true);
    EXPECT_EQ(r.status, 5);
    EXPECT_NE(r.output.find("missing.wav"), std::string::npos) << r.output;
    r = qvdfx("measure", true);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.output.find("measure: give a file"), std::string::npos) << r.output;
    EXPECT_EQ(qvdfx("measure " + path("short.wav") + " --jsn").status, 2);
    ASSERT_EQ(qvdfx("gen " + path("wide.wav") + " --signal sine --channels 33 --seconds 0.1").status, 0);
    r = qvdfx("measure " + path("wide.wav"), true);
    EXPECT_EQ(r.status, 6);
    EXPECT_NE(r.output.find("not 33"), std::string::npos) << r.output;
}

// ---- loudnorm ----

// Noise 40 dB down with a click every second: reaching -16 LUFS lifts the
// clicks far over -1 dBTP, so the limiter holds them, and the noise between
// them keeps its place in time.
TEST_F(LoudnessJobs, LoudnormLiftsAQuietFileAndLimitsItsPeaks)
{
    Audio a;
    std::mt19937 rng(5);
    std::normal_distribution<float> noise(0.0f, 0.01f);
    for (int n = 0; n < 20 * 48000; ++n)
        for (int c = 0; c < 2; ++c)
            a.samples.push_back(noise(rng) + (n % 48000 == 24000 ? 0.3f : 0.0f));
    writeAudio(path("quiet.wav"), a);
    const Result r = qvdfx("loudnorm " + path("quiet.wav") + " " + path("out.wav") +
                           " --target -16 --true-peak -1 --json --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonObject report = parse(r.output);
    EXPECT_TRUE(report.value("limiter").isObject()) << r.output;
    EXPECT_GT(number(report, "gain_db"), 15.0);

    const QJsonObject out = measure("out.wav");
    EXPECT_NEAR(number(out, "integrated_lufs"), -16.0, 0.2);
    EXPECT_LE(number(out, "true_peak_dbtp"), -1.0);
    EXPECT_LE(number(out, "sample_peak_dbfs"), -1.0);
    // The report's output figures are the file's.
    EXPECT_EQ(report.value("output_loudness").toObject().value("integrated_lufs").toDouble(),
              number(out, "integrated_lufs"));

    const Audio in = readAudio(path("quiet.wav")), o = readAudio(path("out.wav"));
    ASSERT_EQ(o.frames(), in.frames());
    ASSERT_EQ(o.channels, 2);
    // Aligned: the output correlates best with the input at no offset.
    const auto correlation = [&](int lag) {
        double sum = 0.0;
        for (std::size_t n = 1000; n + 1000 < in.frames(); ++n)
            sum += static_cast<double>(o.samples[2 * n]) *
                   in.samples[2 * static_cast<std::size_t>(static_cast<long>(n) + lag)];
        return sum;
    };
    const double atZero = correlation(0);
    for (const int lag : {-300, -64, -3, -1, 1, 3, 64, 300})
        EXPECT_LT(std::fabs(correlation(lag)), 0.1 * atZero) << lag;

    // Rounded to 16 bits, the file as read back still holds the ceiling.
    ASSERT_EQ(qvdfx("loudnorm " + path("quiet.wav") + " " + path("out16.wav") + " --format pcm16").status, 0);
    const QJsonObject pcm = measure("out16.wav");
    EXPECT_NEAR(number(pcm, "integrated_lufs"), -16.0, 0.2);
    EXPECT_LE(number(pcm, "true_peak_dbtp"), -1.0);
    EXPECT_LE(number(pcm, "sample_peak_dbfs"), -1.0);
    EXPECT_EQ(files(), (std::vector<std::string>{"out.wav", "out16.wav", "quiet.wav"}));

    // -6 LUFS of noise under a -1 dBTP ceiling is out of reach: as near as
    // the limiter gets, said so, and the ceiling still holds.
    const Result hard = qvdfx("loudnorm " + path("quiet.wav") + " " + path("hard.wav") + " --target -6 --quiet", true);
    ASSERT_EQ(hard.status, 0) << hard.output;
    EXPECT_NE(hard.output.find("LU from the -6.0 LUFS target"), std::string::npos) << hard.output;
    const QJsonObject h = measure("hard.wav");
    EXPECT_GT(number(h, "integrated_lufs"), -9.0);
    EXPECT_LE(number(h, "true_peak_dbtp"), -1.0);
    EXPECT_LE(number(h, "sample_peak_dbfs"), -1.0);
}

// A loud file comes down by gain alone: nothing to limit, so the output is
// the input times one factor, sample for sample.
TEST_F(LoudnessJobs, LoudnormAttenuatesALoudFileByGainAlone)
{
    ASSERT_EQ(qvdfx("gen " + path("loud.wav") + " --signal pink --level -8 --seconds 15 --seed 4").status, 0);
    const Result r = qvdfx("loudnorm " + path("loud.wav") + " " + path("out.wav") + " --target -23 --true-peak -2 --json");
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonObject report = parse(r.output);
    EXPECT_TRUE(report.value("limiter").isNull()) << r.output;
    const double gain = number(report, "gain_db");
    EXPECT_LT(gain, -5.0);
    const QJsonObject out = measure("out.wav");
    EXPECT_NEAR(number(out, "integrated_lufs"), -23.0, 0.2);
    EXPECT_LE(number(out, "true_peak_dbtp"), -2.0);
    const Audio in = readAudio(path("loud.wav")), o = readAudio(path("out.wav"));
    ASSERT_EQ(o.samples.size(), in.samples.size());
    const auto g = static_cast<float>(std::pow(10.0, gain / 20.0));
    for (std::size_t i = 0; i < in.samples.size(); ++i)
        ASSERT_EQ(o.samples[i], in.samples[i] * g) << i;
}

TEST_F(LoudnessJobs, LoudnormReportsTheRangeAndRefusesWhatItCannotDo)
{
    Audio a;
    appendSine(a, 10.0, 997.0, {-20.0, -20.0});
    appendSine(a, 10.0, 997.0, {-40.0, -40.0});
    writeAudio(path("wide.wav"), a);
    // The range is reported and warned about, never compressed.
    Result r = qvdfx("loudnorm " + path("wide.wav") + " " + path("out.wav") + " --lra 7 --quiet", true);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("warning: the input's loudness range 20."), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("(reported, not enforced)"), std::string::npos) << r.output;
    EXPECT_NEAR(number(measure("out.wav"), "loudness_range_lu"), number(measure("wide.wav"), "loudness_range_lu"), 0.05);

    // Silence cannot be normalised, and leaves nothing behind.
    ASSERT_EQ(qvdfx("gen " + path("silence.wav") + " --signal silence --seconds 1").status, 0);
    r = qvdfx("loudnorm " + path("silence.wav") + " " + path("s.wav"), true);
    EXPECT_EQ(r.status, 6);
    EXPECT_NE(r.output.find("-70 LUFS gate"), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(path("s.wav")));

    const std::string io = path("wide.wav") + " " + path("x.wav");
    const struct {
        std::string arguments;
        int status;
        std::string message;
    } cases[] = {
        {io + " --target -3", 2, "--target (LUFS) must be -70 to -5, not -3"},
        {io + " --target loud", 2, "--target (LUFS) must be a number, not 'loud'"},
        {io + " --true-peak 1", 2, "--true-peak (dBTP) must be -20 to 0, not 1"},
        {io + " --lra 0", 2, "--lra (LU) must be 1 to 50, not 0"},
        {"- " + path("x.wav"), 2, "give a file, not '-'"},
        {path("wide.wav") + " -", 2, "give a file, not '-'"},
        {path("wide.wav"), 2, "give an input and an output file"},
        {path("missing.wav") + " " + path("x.wav"), 5, "missing.wav"},
        {path("wide.wav") + " " + path("wide.wav"), 5, "same file"},
        {io + " --format pcm8", 2, "pcm8"},
    };
    for (const auto& c : cases) {
        r = qvdfx("loudnorm " + c.arguments, true);
        EXPECT_EQ(r.status, c.status) << c.arguments << "\n" << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << c.arguments << "\n" << r.output;
    }
    EXPECT_EQ(files(), (std::vector<std::string>{"out.wav", "silence.wav", "wide.wav"}));
}

// ---- process --meters readouts ----

// The readouts sit beside the meters, which keep their keys; a series
// samples them at exact times of audio.
TEST_F(LoudnessJobs, MetersCarryReadoutsAndASeries)
{
    Audio a;
    appendSine(a, 1.0, 997.0, {-30.0, -30.0});
    appendSine(a, 1.0, 997.0, {-10.0, -10.0});
    writeAudio(path("in.wav"), a);
    Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") + " -p Gain --set GAIN=-6 -p \"Loudness Meter\"" +
                     " --meters " + path("m.json") + " --meters-every 250 --block 300");
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonObject root = parse(contents(path("m.json")));
    EXPECT_EQ(root.value("unit").toString(), "dB");
    const QJsonArray plugins = root.value("plugins").toArray();
    ASSERT_EQ(plugins.size(), 2);
    const QJsonObject gain = plugins[0].toObject();
    EXPECT_NEAR(gain.value("meters").toObject().value("Output").toArray()[0].toDouble(), -16.0, 0.01);
    EXPECT_TRUE(gain.value("readouts").isArray());

    const QJsonObject meter = plugins[1].toObject();
    EXPECT_EQ(meter.value("step").toInt(), 2);
    QJsonObject integrated, truePeak;
    for (const auto& v : meter.value("readouts").toArray()) {
        const QJsonObject o = v.toObject();
        if (o.value("name") == "Integrated")
            integrated = o;
        if (o.value("name") == "True Peak")
            truePeak = o;
    }
    EXPECT_EQ(integrated.value("unit").toString(), "LUFS");
    EXPECT_EQ(integrated.value("kind").toString(), "scalar");
    // Only the loud second passes the gate, -10 dBFS less the Gain's 6 dB,
    // with the three blocks that straddle the step at 3/4, 1/2 and 1/4 of it.
    const double straddling = (0.75 + 0.25 * 0.01) + (0.5 + 0.5 * 0.01) + (0.25 + 0.75 * 0.01);
    EXPECT_NEAR(integrated.value("value").toDouble(), -16.0 + 10.0 * std::log10((7.0 + straddling) / 10.0), 0.02);
    EXPECT_EQ(truePeak.value("unit").toString(), "dBTP");
    ASSERT_TRUE(truePeak.value("value").isArray());
    EXPECT_NEAR(truePeak.value("value").toArray()[1].toDouble(), -16.0, 0.05);

    const QJsonObject series = root.value("series").toObject();
    EXPECT_EQ(series.value("every_ms").toDouble(), 250.0);
    const QJsonArray samples = series.value("samples").toArray();
    ASSERT_EQ(samples.size(), 8);
    for (int i = 0; i < samples.size(); ++i)
        EXPECT_DOUBLE_EQ(samples[i].toObject().value("time_s").toDouble(), 0.25 * (i + 1));
    const auto momentary = [&](int i) {
        const QJsonArray steps = samples[i].toObject().value("readouts").toArray();
        return steps[1].toObject().value("values").toObject().value("Momentary").toDouble();
    };
    // 400 ms windows: full of the quiet part at 1 s, of the loud at 2 s.
    EXPECT_NEAR(momentary(3), -36.0, 0.1);
    EXPECT_NEAR(momentary(7), -16.0, 0.1);
}

TEST_F(LoudnessJobs, MetersEveryRefusesBadPeriods)
{
    ASSERT_EQ(qvdfx("gen " + path("in.wav") + " --signal sine --seconds 0.2").status, 0);
    const std::string base = "process " + path("in.wav") + " " + path("out.wav") + " -p Gain ";
    const struct {
        std::string arguments;
        std::string message;
    } cases[] = {
        {"--meters " + path("m.json") + " --meters-every 0", "--meters-every must be a positive number of milliseconds, not 0"},
        {"--meters " + path("m.json") + " --meters-every -5", "--meters-every must be a positive number of milliseconds, not -5"},
        {"--meters " + path("m.json") + " --meters-every 10ms", "not '10ms'"},
        {"--meters " + path("m.json") + " --meters-every 0.5", "--meters-every must be 1 to 3.6e+06 ms, not 0.5"},
        {"--meters " + path("m.json") + " --meters-every", "--meters-every needs a value"},
        {"--meters-every 100", "--meters-every needs --meters FILE.json"},
    };
    for (const auto& c : cases) {
        const Result r = qvdfx(base + c.arguments, true);
        EXPECT_EQ(r.status, 2) << c.arguments << "\n" << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << c.arguments << "\n" << r.output;
    }
    EXPECT_EQ(files(), (std::vector<std::string>{"in.wav"}));
    // A period longer than the file: a valid document with an empty series.
    const Result r = qvdfx(base + "--meters " + path("m.json") + " --meters-every 500");
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonObject root = parse(contents(path("m.json")));
    EXPECT_TRUE(root.value("series").toObject().value("samples").toArray().isEmpty());
    EXPECT_EQ(root.value("plugins").toArray().size(), 1);
}

} // namespace
