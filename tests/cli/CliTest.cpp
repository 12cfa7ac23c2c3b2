#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "HostLibrary.h"

namespace fs = std::filesystem;

namespace {

struct Result {
    int status = -1;
    std::string output; // stdout and stderr together
};

// Runs qvdfx; `output` holds stdout and stderr together, or stdout alone for
// machine-readable output (debug builds print diagnostics on stderr).
Result qvdfx(const std::string& arguments, bool stdoutOnly = false)
{
    Result r;
    FILE* pipe = popen((std::string(QVDFX_PATH) + " " + arguments + (stdoutOnly ? " 2>/dev/null" : " 2>&1")).c_str(), "r");
    if (!pipe)
        return r;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe))
        r.output += buffer;
    const int rc = pclose(pipe);
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return r;
}

struct Audio {
    int rate = 0;
    int channels = 0;
    std::vector<float> samples; // interleaved
    std::size_t frames() const { return channels ? samples.size() / static_cast<std::size_t>(channels) : 0; }
};

Audio readAudio(const fs::path& path)
{
    Audio a;
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f)
        return a;
    a.rate = info.samplerate;
    a.channels = info.channels;
    a.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    sf_readf_float(f, a.samples.data(), info.frames);
    sf_close(f);
    return a;
}

// A folder of its own per test, removed afterwards.
struct CliTest : testing::Test {
    void SetUp() override
    {
        dir = fs::temp_directory_path() /
              ("qvdfx_cli_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()));
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return (dir / name).string(); }
    // Nothing but the named files in the folder: no partial or temporary output.
    void expectOnly(std::vector<std::string> names) const
    {
        std::vector<std::string> present;
        for (const auto& e : fs::directory_iterator(dir))
            present.push_back(e.path().filename().string());
        std::sort(present.begin(), present.end());
        std::sort(names.begin(), names.end());
        EXPECT_EQ(present, names);
    }
    void gen(const std::string& name, const std::string& arguments)
    {
        const Result r = qvdfx("gen " + path(name) + " " + arguments);
        ASSERT_EQ(r.status, 0) << r.output;
    }
    fs::path dir;
};

TEST_F(CliTest, GainOfSixDecibelsWithoutSmoothingIsExact)
{
    gen("in.wav", "--signal noise --level -10 --seconds 0.5 --channels 2 --seed 3");
    const Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") +
                           " -p Gain --set GAIN=6 --smoothing off --quiet");
    ASSERT_EQ(r.status, 0) << r.output;
    const Audio in = readAudio(path("in.wav")), out = readAudio(path("out.wav"));
    ASSERT_EQ(out.samples.size(), in.samples.size());
    EXPECT_EQ(out.rate, 48000);
    EXPECT_EQ(out.channels, 2);
    const float g = static_cast<float>(std::pow(10.0, 6.0 / 20.0));
    for (std::size_t i = 0; i < in.samples.size(); ++i)
        ASSERT_EQ(out.samples[i], in.samples[i] * g) << i;
}

TEST_F(CliTest, BypassIsBitExact)
{
    gen("in.wav", "--signal pink --seconds 0.3 --channels 3");
    const Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") + " -p Gain --set GAIN=-20 --bypass");
    ASSERT_EQ(r.status, 0) << r.output;
    const Audio in = readAudio(path("in.wav")), out = readAudio(path("out.wav"));
    ASSERT_EQ(out.samples.size(), in.samples.size());
    EXPECT_EQ(std::memcmp(out.samples.data(), in.samples.data(), in.samples.size() * sizeof(float)), 0);
}

TEST_F(CliTest, AChainEqualsItsStepsRunOneAfterTheOther)
{
    gen("in.wav", "--signal sweep --freq 50 --seconds 0.4 --channels 2");
    ASSERT_EQ(qvdfx("process " + path("in.wav") + " " + path("chain.wav") +
                    " -p Gain --set GAIN=-3.5 -p Gain:1364608878 --set 0=7 --block 100")
                  .status,
              0);
    ASSERT_EQ(qvdfx("process " + path("in.wav") + " " + path("one.wav") + " -p Gain --set QVDGain::GAIN=-3.5").status, 0);
    ASSERT_EQ(qvdfx("process " + path("one.wav") + " " + path("two.wav") + " -p Gain --set gain=7 --block 33").status, 0);
    const Audio chain = readAudio(path("chain.wav")), two = readAudio(path("two.wav"));
    ASSERT_FALSE(chain.samples.empty());
    EXPECT_EQ(chain.samples, two.samples);
}

TEST_F(CliTest, LatencyIsCompensatedForLengthAndAlignment)
{
    // The test library's delay plugin delays by 100 frames and says so.
    gen("in.wav", "--signal noise --seconds 0.25 --channels 2 --seed 9");
    const std::string lib = std::string("--library ") + QVD_TEST_LIBRARY_PATH + " ";
    Result r = qvdfx(lib + "process " + path("in.wav") + " " + path("out.wav") + " -p \"Test Delay\" --block 64");
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("latency 100 frames compensated"), std::string::npos) << r.output;
    const Audio in = readAudio(path("in.wav"));
    Audio out = readAudio(path("out.wav"));
    EXPECT_EQ(out.samples, in.samples);

    // Two delays in a chain, and a tail: still aligned, longer by the tail, which is silent.
    r = qvdfx(lib + "process " + path("in.wav") + " " + path("tail.wav") +
              " -p \"Test Delay\" -p \"Test Delay\" --tail 0.01 --block 1000");
    ASSERT_EQ(r.status, 0) << r.output;
    out = readAudio(path("tail.wav"));
    ASSERT_EQ(out.frames(), in.frames() + 480);
    EXPECT_TRUE(std::equal(in.samples.begin(), in.samples.end(), out.samples.begin()));
    for (std::size_t i = in.samples.size(); i < out.samples.size(); ++i)
        ASSERT_EQ(out.samples[i], 0.0f);
}

TEST_F(CliTest, MetersAreWrittenPeakHeldInDecibels)
{
    gen("in.wav", "--signal sine --level -6 --seconds 0.2 --channels 1");
    const Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") + " -p Gain --set GAIN=-10 --meters " +
                           path("meters.json"));
    ASSERT_EQ(r.status, 0) << r.output;
    std::ifstream file(path("meters.json"));
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const QJsonObject root = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
    const QJsonArray plugins = root.value("plugins").toArray();
    ASSERT_EQ(plugins.size(), 1);
    const QJsonObject meters = plugins[0].toObject().value("meters").toObject();
    EXPECT_NEAR(meters.value("Input").toArray()[0].toDouble(), -6.0, 0.01);
    EXPECT_NEAR(meters.value("Output").toArray()[0].toDouble(), -16.0, 0.01);
}

TEST_F(CliTest, IntegerFormatsAreWrittenWhenAsked)
{
    gen("in.wav", "--signal sine --seconds 0.1 --channels 1");
    ASSERT_EQ(qvdfx("process " + path("in.wav") + " " + path("out16.wav") + " -p Gain --format pcm16").status, 0);
    SF_INFO info{};
    SNDFILE* f = sf_open(path("out16.wav").c_str(), SFM_READ, &info);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(info.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
    sf_close(f);
}

TEST_F(CliTest, ErrorsNameTheBadThingExitNonZeroAndLeaveNoOutput)
{
    gen("in.wav", "--signal sine --seconds 0.1 --channels 2");
    gen("six.wav", "--signal sine --seconds 0.1 --channels 6");
    {
        std::ofstream junk(path("junk.wav"));
        junk << "RIFF not really a wave file";
    }
    const std::string in = path("in.wav"), out = path("out.wav");
    const std::string lib = std::string("--library ") + QVD_TEST_LIBRARY_PATH + " ";
    struct Case {
        std::string arguments;
        int status;
        std::string message;
    };
    const std::vector<Case> cases = {
        {"process " + path("missing.wav") + " " + out + " -p Gain", 5, "does not exist"},
        {"process " + path("junk.wav") + " " + out + " -p Gain", 5, "cannot read"},
        {lib + "process " + path("six.wav") + " " + out + " -p \"Test Delay\"", 6, "does not accept 6 channels"},
        {"process " + in + " " + out + " -p Nope", 4, "unknown plugin 'Nope'"},
        {"process " + in + " " + out + " -p Gain --set LOUDNESS=3", 4, "no parameter 'LOUDNESS'"},
        {"process " + in + " " + out + " -p Gain --set GAIN=loud", 2, "'loud' for QVDGain::GAIN is not a number"},
        {"process " + in + " " + out + " -p Gain --set GAIN=nan", 2, "is not a number"},
        {"process " + in + " " + out + " -p Gain --set GAIN=49", 4, "outside its range -48 to 48 dB"},
        {"process " + in + " " + out + " -p Gain --block 0", 2, "--block must be 1 to 262144, not 0"},
        {"process " + in + " " + out + " -p Gain --block 100000000", 2, "--block must be 1 to 262144"},
        {"process " + in + " " + out + " -p Gain --smoothing maybe", 2, "--smoothing must be on or off"},
        {"process " + in + " " + path("no/such/folder/out.wav") + " -p Gain", 5, "does not exist"},
        {"process " + in + " " + in + " -p Gain", 5, "is the input file"},
        {"process " + in + " " + out, 2, "name at least one plugin"},
        {"process " + in + " " + out + " --set GAIN=1 -p Gain", 2, "comes before any -p"},
        {"process " + in + " -p Gain", 2, "give an input and an output"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"--library " + path("nolib.so") + " list", 3, "nolib.so"},
        {"gen " + out + " --signal square", 2, "--signal must be"},
        {"gen " + out + " --signal sine --freq 30000", 2, "below half the rate"},
    };
    for (const Case& c : cases) {
        const Result r = qvdfx(c.arguments);
        EXPECT_EQ(r.status, c.status) << c.arguments << "\n" << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << c.arguments << "\n" << r.output;
        // One line of ours, whatever diagnostics a debug build adds.
        int ours = 0;
        std::istringstream lines(r.output);
        for (std::string line; std::getline(lines, line);)
            ours += line.rfind("qvdfx: ", 0) == 0 ? 1 : 0;
        EXPECT_EQ(ours, 1) << "one line: " << r.output;
    }
    expectOnly({"in.wav", "six.wav", "junk.wav"});
    EXPECT_EQ(readAudio(in).frames(), 4800u); // the input survived "output is the input"

    // --force lets an out-of-range value through.
    EXPECT_EQ(qvdfx("process " + in + " " + out + " -p Gain --set GAIN=49 --force --quiet").status, 0);
}

TEST_F(CliTest, ListAndParamsJsonAgreeWithTheRegistry)
{
    qvd::PluginInterface* registry = loadRegistry();
    ASSERT_NE(registry, nullptr);
    Result r = qvdfx("list --json", true);
    ASSERT_EQ(r.status, 0) << r.output;
    QJsonParseError error{};
    const QJsonDocument list = QJsonDocument::fromJson(QByteArray::fromStdString(r.output), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.output;
    const auto plugins = registry->listPlugins(qvd::kAudioPlugin);
    const QJsonArray listed = list.object().value("plugins").toArray();
    ASSERT_EQ(static_cast<std::size_t>(listed.size()), plugins.size());
    auto it = plugins.begin();
    for (const QJsonValue v : listed) {
        const QJsonObject p = v.toObject();
        EXPECT_EQ(p.value("key").toString().toStdString(), it->first);
        EXPECT_EQ(p.value("name").toString().toStdString(), it->second.name);
        EXPECT_EQ(p.value("channels").toInt(), it->second.channels);
        EXPECT_EQ(p.value("flags").toInt(), it->second.flags);
        ++it;
    }

    for (const auto& [key, info] : plugins) {
        r = qvdfx("params \"" + key + "\" --json", true);
        ASSERT_EQ(r.status, 0) << r.output;
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(r.output), &error);
        ASSERT_EQ(error.error, QJsonParseError::NoError) << r.output;
        qvd::PluginInstance* plugin = registry->createPlugin(qvd::kAudioPlugin, key.c_str());
        const QJsonArray params = doc.object().value("parameters").toArray();
        ASSERT_EQ(params.size(), plugin->parameterCount());
        for (int i = 0; i < params.size(); ++i) {
            qvd::ParameterInfo p;
            plugin->parameterInfo(i, &p);
            const QJsonObject o = params[i].toObject();
            EXPECT_EQ(o.value("identifier").toString().toStdString(), p.identifier);
            EXPECT_EQ(static_cast<float>(o.value("min").toDouble()), p.minimum);
            EXPECT_EQ(static_cast<float>(o.value("max").toDouble()), p.maximum);
            EXPECT_EQ(static_cast<float>(o.value("default").toDouble()), p.defaultValue);
            EXPECT_EQ(static_cast<std::size_t>(o.value("options").toArray().size()), p.options.size());
        }
        plugin->destroy();
    }
}

TEST_F(CliTest, GeneratedSignalsAreDeterministicAndAtTheirLevel)
{
    gen("a.wav", "--signal noise --seconds 1 --channels 1 --level -20 --seed 5");
    gen("b.wav", "--signal noise --seconds 1 --channels 1 --level -20 --seed 5");
    gen("c.wav", "--signal noise --seconds 1 --channels 1 --level -20 --seed 6");
    EXPECT_EQ(readAudio(path("a.wav")).samples, readAudio(path("b.wav")).samples);
    EXPECT_NE(readAudio(path("a.wav")).samples, readAudio(path("c.wav")).samples);

    auto rmsDb = [](const Audio& a) {
        double sum = 0.0;
        for (const float x : a.samples)
            sum += static_cast<double>(x) * x;
        return 10.0 * std::log10(sum / static_cast<double>(a.samples.size()));
    };
    auto peakDb = [](const Audio& a) {
        float peak = 0.0f;
        for (const float x : a.samples)
            peak = std::max(peak, std::fabs(x));
        return 20.0 * std::log10(peak);
    };
    EXPECT_NEAR(rmsDb(readAudio(path("a.wav"))), -20.0, 0.2);
    gen("pink.wav", "--signal pink --seconds 4 --channels 1 --level -20");
    EXPECT_NEAR(rmsDb(readAudio(path("pink.wav"))), -20.0, 0.5);
    gen("sine.wav", "--signal sine --freq 997 --level -3 --seconds 0.5 --rate 44100 --channels 2");
    const Audio sine = readAudio(path("sine.wav"));
    EXPECT_EQ(sine.rate, 44100);
    EXPECT_EQ(sine.frames(), 22050u);
    EXPECT_NEAR(peakDb(sine), -3.0, 0.01);
    gen("impulse.wav", "--signal impulse --level 0 --seconds 0.01 --channels 1");
    const Audio impulse = readAudio(path("impulse.wav"));
    EXPECT_EQ(impulse.samples[0], 1.0f);
    EXPECT_EQ(std::count(impulse.samples.begin(), impulse.samples.end(), 0.0f),
              static_cast<long>(impulse.samples.size()) - 1);
}

TEST_F(CliTest, TheEqualiserAppliesItsBellAndDrawsItsResponseAndPanel)
{
    gen("tone.wav", "--signal sine --freq 1000 --level -20 --seconds 1 --channels 2");
    const std::string bell = " --set BAND_GAIN_2=6 --set BAND_FREQ_2=1000";
    Result r = qvdfx("process " + path("tone.wav") + " " + path("eq.wav") + " -p \"Tarnwick EQ\"" + bell +
                     " --smoothing off");
    ASSERT_EQ(r.status, 0) << r.output;
    const Audio in = readAudio(path("tone.wav")), out = readAudio(path("eq.wav"));
    ASSERT_EQ(out.samples.size(), in.samples.size());
    // Steady state: the second half of the file.
    double inPeak = 0.0, outPeak = 0.0;
    for (std::size_t i = in.samples.size() / 2; i < in.samples.size(); ++i) {
        inPeak = std::max(inPeak, static_cast<double>(std::fabs(in.samples[i])));
        outPeak = std::max(outPeak, static_cast<double>(std::fabs(out.samples[i])));
    }
    EXPECT_NEAR(20.0 * std::log10(outPeak / inPeak), 6.0, 0.02);

    r = qvdfx("response \"Tarnwick EQ\" --json --points 2" + bell, true);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("\"points\": [[20,"), std::string::npos) << r.output;
    r = qvdfx("response \"Tarnwick EQ\" --png " + path("curve.png") + bell);
    ASSERT_EQ(r.status, 0) << r.output;
    r = qvdfx("panel \"Tarnwick EQ\" " + path("eq.png") + bell);
    ASSERT_EQ(r.status, 0) << r.output;
    r = qvdfx("panel Gain " + path("gain.png"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("360 x 194"), std::string::npos) << r.output;
    for (const char* png : {"curve.png", "eq.png", "gain.png"}) {
        std::ifstream f(path(png), std::ios::binary);
        char magic[8] = {};
        f.read(magic, 8);
        EXPECT_EQ(std::string(magic + 1, 3), "PNG") << png;
    }
    r = qvdfx("response Gain");
    EXPECT_EQ(r.status, 4);
    EXPECT_NE(r.output.find("has no frequency response"), std::string::npos) << r.output;
}

TEST_F(CliTest, DemoAndBenchRun)
{
    Result r = qvdfx("demo " + path("demo.wav"));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("real-time factor"), std::string::npos) << r.output;
    const Audio demo = readAudio(path("demo.wav"));
    EXPECT_EQ(demo.frames(), 6u * 48000u);
    EXPECT_EQ(demo.channels, 2);

    r = qvdfx("bench Gain --seconds 0.05 --json", true);
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonArray results =
        QJsonDocument::fromJson(QByteArray::fromStdString(r.output)).object().value("results").toArray();
    ASSERT_EQ(results.size(), 1);
    EXPECT_GT(results[0].toObject().value("ns_per_frame").toDouble(), 0.0);

    // The reverb at 96 kHz runs its half-rate engine.
    r = qvdfx("bench Reverb --rate 96000 --seconds 0.05 --json", true);
    ASSERT_EQ(r.status, 0) << r.output;
    const QJsonObject at96 = QJsonDocument::fromJson(QByteArray::fromStdString(r.output)).object();
    EXPECT_EQ(at96.value("rate").toInt(), 96000);
    EXPECT_GT(at96.value("results").toArray()[0].toObject().value("ns_per_frame").toDouble(), 0.0);
    EXPECT_EQ(qvdfx("bench Reverb --rate 0", true).status, 2);
}

TEST_F(CliTest, RangeEndsAreAcceptedAsParamsPrintsThem)
{
    gen("in.wav", "--signal sine --seconds 0.05 --channels 1");
    qvd::PluginInterface* registry = loadRegistry();
    ASSERT_NE(registry, nullptr);
    for (const auto& [key, info] : registry->listPlugins(qvd::kAudioPlugin)) {
        const Result listing = qvdfx("params \"" + key + "\"", true);
        ASSERT_EQ(listing.status, 0) << listing.output;
        // "  3  QVDEq::BAND_Q_5  Q 5  continuous  log  0.3 .. 10.3  default ..."
        std::string lows, highs;
        std::istringstream lines(listing.output);
        for (std::string line; std::getline(lines, line);) {
            const auto dots = line.find(" .. ");
            if (dots == std::string::npos)
                continue;
            std::istringstream before(line.substr(0, dots)), after(line.substr(dots + 4));
            std::string index, word, low, high;
            before >> index;
            while (before >> word)
                low = word;
            after >> high;
            lows += " --set " + index + "=" + low;
            highs += " --set " + index + "=" + high;
        }
        for (const std::string& settings : {lows, highs}) {
            const Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") + " -p \"" + key + "\"" +
                                   settings + " --quiet");
            EXPECT_EQ(r.status, 0) << key << settings << "\n" << r.output;
        }
    }
}

} // namespace
