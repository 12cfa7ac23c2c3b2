#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <sndfile.h>

#include "CommandLine.h"
#include "WavFile.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
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

using Result = qvd::test::CommandResult;
using qvd::test::runCommand;

const std::string kQvdfx = QVDFX_PATH;

// Runs qvdfx; `output` holds stdout and stderr together, or stdout alone for
// machine-readable output (debug builds print diagnostics on stderr).
Result qvdfx(const std::string& arguments, bool stdoutOnly = false)
{
    return runCommand(kQvdfx + " " + arguments + (stdoutOnly ? " 2>/dev/null" : " 2>&1"));
}

std::string contents(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// A float WAV as streaming writers send it: `size` in both size fields.
std::string wavStream(const std::vector<float>& samples, int rate, int channels, std::uint32_t size)
{
    std::string h;
    auto put = [&](std::uint32_t v, int bytes) {
        for (int i = 0; i < bytes; ++i)
            h += static_cast<char>(v >> (8 * i) & 0xFF);
    };
    h += "RIFF";
    put(size, 4);
    h += "WAVEfmt ";
    put(16, 4);
    put(3, 2);
    put(static_cast<std::uint32_t>(channels), 2);
    put(static_cast<std::uint32_t>(rate), 4);
    put(static_cast<std::uint32_t>(rate * channels * 4), 4);
    put(static_cast<std::uint32_t>(channels * 4), 2);
    put(32, 2);
    h += "data";
    put(size, 4);
    return h + std::string(reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(float));
}

// qvdfx beside the test, reading a pipe the test holds open, its stdout and
// stderr going to `log`.
struct Child {
    Child(const std::vector<std::string>& arguments, const fs::path& log)
    {
        // A child that stops reading must not take the test down with it.
        signal(SIGPIPE, SIG_IGN);
        int in[2];
        if (pipe2(in, O_CLOEXEC) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        // Whatever the test runner ignores, the child takes signals as a shell's child does.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t defaults;
        sigemptyset(&defaults);
        for (const int s : {SIGINT, SIGTERM, SIGPIPE})
            sigaddset(&defaults, s);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        std::vector<char*> argv{const_cast<char*>(kQvdfx.c_str())};
        for (const std::string& a : arguments)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (posix_spawn(&pid, kQvdfx.c_str(), &actions, &attributes, argv.data(), environ) != 0)
            pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close(in[0]);
        input = in[1];
    }
    ~Child()
    {
        if (input >= 0)
            close(input);
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    void send(const std::string& bytes) const
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = write(input, bytes.data() + done, bytes.size() - done);
            if (n <= 0)
                return;
            done += static_cast<std::size_t>(n);
        }
    }
    // The status as a shell reports it (128 + a signal that ended it), or
    // -1 when it is still running after `seconds`: a hang guard, not a timing.
    int wait(int seconds)
    {
        for (int i = 0; i < seconds * 100; ++i) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            usleep(10000);
        }
        return -1;
    }
    pid_t pid = -1;
    int input = -1;
};

using qvd::test::wav::Audio;
constexpr auto readAudio = &qvd::test::wav::read;

// A folder of its own per test, removed afterwards.
struct CliTest : testing::Test {
    qvd::test::TestFolder scratch{"qvdfx_cli_"};
    const fs::path dir = scratch.dir();
    std::string path(const std::string& name) const { return scratch.path(name); }
    // Nothing but the named files in the folder: no partial or temporary output.
    void expectOnly(std::vector<std::string> names, const fs::path& folder = {}) const
    {
        std::vector<std::string> present;
        for (const auto& e : fs::directory_iterator(folder.empty() ? dir : folder))
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

// A forced instruction-set level is reported and, for bit-exact kernels,
// reproduces the fast result exactly: what a user on a lesser processor hears.
TEST_F(CliTest, InfoReportsTheKernelsAndIsaForcesALevel)
{
    const Result info = qvdfx("--isa none info", true);
    ASSERT_EQ(info.status, 0) << info.output;
    EXPECT_NE(info.output.find("instruction set: none"), std::string::npos) << info.output;
    EXPECT_NE(info.output.find("kernel Gain: ref"), std::string::npos) << info.output;
    EXPECT_NE(qvdfx("info", true).output.find("processor: "), std::string::npos);
    EXPECT_EQ(qvdfx("--isa avx9 info").status, 2);

    gen("in.wav", "--signal pink --seconds 0.3 --channels 6");
    const std::string eq = " -p Gain --set GAIN=-4 -p \"Tarnwick EQ\" --set BAND_GAIN_2=6 --set BAND_GAIN_4=-5";
    ASSERT_EQ(qvdfx("process " + path("in.wav") + " " + path("fast.wav") + eq).status, 0);
    ASSERT_EQ(qvdfx("--isa none process " + path("in.wav") + " " + path("ref.wav") + eq).status, 0);
    ASSERT_EQ(runCommand("QVD_ISA=sse2 " + kQvdfx + " process " + path("in.wav") + " " + path("sse2.wav") + eq).status, 0);
    const Audio fast = readAudio(path("fast.wav"));
    ASSERT_FALSE(fast.samples.empty());
    EXPECT_EQ(fast.samples, readAudio(path("ref.wav")).samples);
    EXPECT_EQ(fast.samples, readAudio(path("sse2.wav")).samples);

    // 512-bit plugin kernels: reported when forced (never chosen on a machine
    // that cannot run them), and the reverb sounds the same with them.
    const bool wide = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                      __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
    const Result forced = qvdfx("--isa avx512 info", true);
    EXPECT_NE(forced.output.find("instruction set: avx512"), std::string::npos) << forced.output;
    if (__builtin_cpu_supports("avx2")) {
        EXPECT_NE(forced.output.find(wide ? "kernel reverb lines: m512" : "kernel reverb lines: m256_avx2"),
                  std::string::npos) << forced.output;
        const Result avx2 = qvdfx("--isa avx2 info", true);
        EXPECT_NE(avx2.output.find("kernel reverb lines: m256_avx2"), std::string::npos) << avx2.output;
    }
    const std::string reverb = " -p Reverb --set MODULATION=1";
    ASSERT_EQ(qvdfx("--isa avx512 process " + path("in.wav") + " " + path("w512.wav") + reverb).status, 0);
    ASSERT_EQ(qvdfx("--isa avx2 process " + path("in.wav") + " " + path("w256.wav") + reverb).status, 0);
    const Audio w512 = readAudio(path("w512.wav"));
    ASSERT_FALSE(w512.samples.empty());
    EXPECT_EQ(w512.samples, readAudio(path("w256.wav")).samples);
}

// --tempo reaches synced plugins through the host: a quarter-note echo lands
// at 60 / BPM seconds; without a tempo the tap keeps its free time.
TEST_F(CliTest, TempoSetsNoteValuedEchoes)
{
    gen("in.wav", "--signal impulse --seconds 1 --channels 2 --level 0");
    const std::string echo = " -p Echo --set TAPS=1 --set NOTE_1=1/4 --set FEEDBACK=0 --set MIX=100";
    const auto firstEcho = [&](const std::string& settings) {
        const Result r = qvdfx("process " + path("in.wav") + " " + path("out.wav") + settings);
        EXPECT_EQ(r.status, 0) << r.output;
        const Audio out = readAudio(path("out.wav"));
        for (std::size_t n = 0; n < out.frames(); ++n)
            if (std::fabs(out.samples[n * 2]) > 0.1f)
                return static_cast<long>(n);
        return -1L;
    };
    EXPECT_EQ(firstEcho(echo + " --tempo 120"), 24000);
    EXPECT_EQ(firstEcho(echo + " --tempo 90/3/4"), 32000);
    EXPECT_EQ(firstEcho(echo), 12000) << "no tempo: Time 1's 250 ms";
    // The Delay's left line synced to a quarter note, and to a dotted eighth.
    const std::string delay = " -p Delay --set FEEDBACK=0 --set MIX=100 --set NOTE_L=";
    EXPECT_EQ(firstEcho(delay + "1/4 --tempo 120"), 24000);
    EXPECT_EQ(firstEcho(delay + "\"1/8 D\" --tempo 100"), 21600);
    EXPECT_EQ(firstEcho(delay + "1/4"), 18000) << "no tempo: Time Left's 375 ms";
    EXPECT_EQ(qvdfx("process " + path("in.wav") + " " + path("out.wav") + echo + " --tempo 0").status, 2);
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
    // Known to stay far below 4 GiB: plain WAV, not RF64.
    EXPECT_EQ(info.format & SF_FORMAT_TYPEMASK, SF_FORMAT_WAV);
    sf_close(f);
}

TEST_F(CliTest, ErrorsNameTheBadThingExitNonZeroAndLeaveNoOutput)
{
    gen("in.wav", "--signal sine --seconds 0.1 --channels 2");
    gen("six.wav", "--signal sine --seconds 0.1 --channels 6");
    {
        std::ofstream junk(path("junk.wav"));
        junk << "RIFF not really a wave file";
        std::string rate0 = wavStream(std::vector<float>(8), 48000, 2, 32);
        rate0.replace(24, 4, 4, '\0');
        std::ofstream(path("rate0.wav"), std::ios::binary) << rate0;
    }
    const std::string in = path("in.wav"), out = path("out.wav");
    const std::string original = contents(in);
    // Other names for the input, and for the output before it exists.
    fs::create_hard_link(in, path("hard.wav"));
    fs::create_symlink(in, path("soft.wav"));
    fs::create_symlink("out.wav", path("dangling.json"));
    const std::string hard = path("hard.wav"), soft = path("soft.wav");
    auto same = [](const std::string& role, const std::string& a, const std::string& otherRole, const std::string& b) {
        return role + " '" + a + "' and " + otherRole + " '" + b + "' are the same file";
    };
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
        {"process " + in + " " + out + " -p Gain --meters " + path("no/m.json"), 5, "folder '" + path("no") + "' does"},
        {"process " + path("rate0.wav") + " " + out + " -p Gain", 5, "has a sample rate of 0 Hz"},
        {"process " + in + " " + in + " -p Gain", 5, same("input", in, "output", in)},
        {"process " + in + " " + out + " -p Gain --meters " + in, 5, same("input", in, "--meters", in)},
        {"process " + in + " " + out + " -p Gain --meters " + out, 5, same("output", out, "--meters", out)},
        {"process " + in + " " + hard + " -p Gain", 5, same("input", in, "output", hard)},
        {"process " + in + " " + soft + " -p Gain", 5, same("input", in, "output", soft)},
        {"process " + in + " " + out + " -p Gain --meters " + path("dangling.json"), 5, "are the same file"},
        {"process " + in + " " + out, 2, "name at least one plugin"},
        {"process " + in + " " + out + " --set GAIN=1 -p Gain", 2, "comes before any -p"},
        {"process " + in + " -p Gain", 2, "give an input and an output"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"--library", 2, "--library needs a path"},
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
    expectOnly({"in.wav", "six.wav", "junk.wav", "rate0.wav", "hard.wav", "soft.wav", "dangling.json"});
    EXPECT_TRUE(contents(in) == original); // the input survived being named as an output

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
    // Settings reach the benched plugin, and a name it lacks is refused.
    EXPECT_EQ(qvdfx("bench \"Tarnwick EQ\" --set BAND_IN_0=On --set BAND_GAIN_0=3 --seconds 0.05", true).status, 0);
    EXPECT_EQ(qvdfx("bench Gain --set NO_SUCH=1 --seconds 0.05", true).status, 4);
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
        std::size_t column = std::string::npos;
        for (std::string line; std::getline(lines, line);) {
            const auto dots = line.find(" .. ");
            if (dots == std::string::npos)
                continue;
            // A table: the range sits in the same column on every line, however
            // long a plugin's identifiers and labels are.
            if (column == std::string::npos)
                column = dots;
            EXPECT_EQ(dots, column) << key << ": " << line;
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

TEST_F(CliTest, WavStreamsComeAndGoThroughPipes)
{
    ASSERT_EQ(runCommand("command -v sox >/dev/null").status, 0) << "sox is missing: run scripts/setup.sh";
    const std::string tone = "sox -D -n -r 44100 -c 2 -b 16 -t wav - synth 0.5 sine 440";
    const std::string gain = " -p Gain --set GAIN=-6 --smoothing off --format pcm24 --quiet";
    // sox streams into qvdfx and qvdfx into sox: the same as through files
    // (in 24-bit PCM, which sox carries exactly; it rounds floats).
    const std::string pipeline =
        tone + " 2>/dev/null | " + kQvdfx + " process - -" + gain + " | sox -t wav - " + path("piped.wav") + " 2>&1";
    const Result piping = runCommand(pipeline);
    ASSERT_EQ(piping.status, 0) << piping.output;
    ASSERT_EQ(runCommand(tone + " > " + path("tone.wav")).status, 0);
    ASSERT_EQ(qvdfx("process " + path("tone.wav") + " " + path("filed.wav") + gain).status, 0);
    const Audio piped = readAudio(path("piped.wav")), filed = readAudio(path("filed.wav"));
    EXPECT_EQ(piped.frames(), 22050u);
    EXPECT_EQ(piped.samples, filed.samples);

    // Size fields of 0xFFFFFFFF (ffmpeg) or 0 mean "to the end", piped or saved.
    const Audio source = readAudio(path("tone.wav"));
    for (const std::uint32_t size : {0xFFFFFFFFu, 0u}) {
        std::ofstream(path("stream.wav"), std::ios::binary) << wavStream(source.samples, 44100, 2, size);
        const std::string bypass = " -p Gain --bypass --quiet";
        ASSERT_EQ(runCommand("cat " + path("stream.wav") + " | " + kQvdfx + " process - " + path("a.wav") + bypass).status, 0);
        ASSERT_EQ(qvdfx("process " + path("stream.wav") + " " + path("b.wav") + bypass).status, 0);
        EXPECT_EQ(readAudio(path("a.wav")).samples, source.samples) << size;
        EXPECT_EQ(readAudio(path("b.wav")).samples, source.samples) << size;
        // Of unknown length, so written as RF64, and turned back into WAV.
        EXPECT_EQ(contents(path("a.wav")).substr(0, 4), "RIFF");
    }
    // Standard output redirected to a file is a whole WAV file.
    const std::string redirected = kQvdfx + " process " + path("tone.wav") + " - -p Gain --bypass --quiet";
    ASSERT_EQ(runCommand(redirected + " > " + path("c.wav")).status, 0);
    EXPECT_EQ(readAudio(path("c.wav")).samples, source.samples);
}

TEST_F(CliTest, DevicesPipesAndSymlinksAreWrittenThroughNotReplaced)
{
    gen("in.wav", "--signal sine --seconds 0.1");
    const std::string in = path("in.wav");
    // A null device of our own: replacing the real /dev/null is the fault.
    const bool device = mknod(path("null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;
    fs::create_symlink("target.bin", path("link"));
    const std::vector<std::string> writers = {
        "process " + in + " @ -p Gain",
        "process " + in + " " + path("out.wav") + " -p Gain --meters @",
        "gen @ --signal sine --seconds 0.1",
        "demo @",
        "panel Gain @",
        "response \"Tarnwick EQ\" --png @",
    };
    for (const std::string& writer : writers) {
        for (const std::string& target : {path("link"), path("null")}) {
            if (target == path("null") && !device)
                continue;
            std::string arguments = writer;
            arguments.replace(arguments.find('@'), 1, target);
            const Result r = qvdfx(arguments);
            EXPECT_EQ(r.status, 0) << arguments << "\n" << r.output;
        }
        EXPECT_TRUE(!device || fs::symlink_status(path("null")).type() == fs::file_type::character) << writer;
        EXPECT_TRUE(fs::is_symlink(path("link"))) << writer;
        EXPECT_GT(fs::file_size(path("target.bin")), 0u) << writer;
        // The target is replaced, and keeps its permissions.
        fs::permissions(path("target.bin"), fs::perms::owner_read | fs::perms::owner_write);
    }
    EXPECT_EQ(fs::status(path("target.bin")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(contents(path("target.bin")).substr(1, 3), "PNG");

    // A named pipe gets a stream its reader takes whole.
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);
    const Result r = runCommand("timeout 60 cat " + path("fifo") + " > " + path("copy.wav") + " & " + kQvdfx + " process " +
                         in + " " + path("fifo") + " -p Gain --bypass 2>&1; wait");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(fs::symlink_status(path("fifo")).type(), fs::file_type::fifo);
    EXPECT_EQ(readAudio(path("copy.wav")).samples, readAudio(in).samples);
}

TEST_F(CliTest, AnInterruptedOrMisdirectedRunLeavesNothingBehind)
{
    const std::string stream = wavStream(std::vector<float>(2 * 4800, 0.25f), 48000, 2, 0xFFFFFFFFu);
    for (const int signal : {SIGINT, SIGTERM}) {
        Child child({"process", "-", path("out.wav"), "-p", "Gain", "--meters", path("m.json")}, dir / "log");
        child.send(stream);
        // Mid-render: some audio written, more input awaited.
        const fs::path part = dir / (".out.wav." + std::to_string(child.pid) + ".part");
        auto written = [&] { return contents(part).size(); };
        for (int i = 0; i < 6000 && written() < 1000; ++i)
            usleep(10000);
        ASSERT_GE(written(), 1000u) << contents(dir / "log");
        kill(child.pid, signal);
        EXPECT_EQ(child.wait(60), 128 + signal) << contents(dir / "log");
        expectOnly({"log"});
    }
    // A bad place for the meters is found before the render, not after it:
    // the run ends while its input is still open.
    Child child({"process", "-", path("out.wav"), "-p", "Gain", "--meters", path("no/m.json")}, dir / "log");
    child.send(stream);
    EXPECT_EQ(child.wait(60), 5);
    EXPECT_NE(contents(dir / "log").find("does not exist"), std::string::npos) << contents(dir / "log");
    expectOnly({"log"});
}

TEST_F(CliTest, AFullDiskFailsTheRunAndKeepsWhatWasThere)
{
    const fs::path full = dir / "full";
    fs::create_directory(full);
    if (mount("qvdfx-test", full.c_str(), "tmpfs", 0, "size=1M") != 0)
        GTEST_SKIP() << "cannot mount a 1 MiB tmpfs here: " << std::strerror(errno);
    const struct Unmount {
        const fs::path& at;
        ~Unmount() { umount2(at.c_str(), MNT_DETACH); }
    } unmount{full};
    gen("in.wav", "--signal sine --seconds 0.1");
    const std::string in = path("in.wav"), keep = (full / "keep.wav").string();
    fs::copy_file(in, keep);

    // Full half-way through the audio.
    Result r = qvdfx("gen " + (full / "long.wav").string() + " --signal noise --seconds 3");
    EXPECT_EQ(r.status, 5);
    EXPECT_NE(r.output.find("No space left on device"), std::string::npos) << r.output;
    expectOnly({"keep.wav"}, full);

    // Full before the first byte, and full when the meters are written last.
    {
        std::ofstream filler(full / "filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), block.size())) {
        }
    }
    for (const std::string& arguments :
         {"process " + in + " " + keep + " -p Gain", "gen " + keep + " --signal sine --seconds 0.01",
          "process " + in + " " + path("out.wav") + " -p Gain --meters " + (full / "m.json").string()}) {
        r = qvdfx(arguments);
        EXPECT_EQ(r.status, 5) << arguments;
        EXPECT_NE(r.output.find("No space left on device"), std::string::npos) << r.output;
    }
    EXPECT_TRUE(contents(keep) == contents(in));
    expectOnly({"filler", "keep.wav"}, full);
    EXPECT_FALSE(fs::exists(path("out.wav")));
}

} // namespace
