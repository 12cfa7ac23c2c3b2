// The bundle seen by Debian's own LV2 tools: lilv's lv2ls, lv2info and
// lv2apply, ffmpeg's lv2 filter, and sord_validate with the LV2 schemas
// (lv2_validate). Each runs
// in its own process with LV2_PATH set to the build tree's bundle only.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "Lv2Fixture.h"
#include "WavFile.h"

namespace qvdtest {
namespace {

namespace fs = std::filesystem;

struct Output {
    int status = -1;
    std::string out, err;
};

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

fs::path scratchDir()
{
    struct Scratch {
        fs::path dir = fs::temp_directory_path() / ("qvd-lv2-tools-" + std::to_string(getpid()));
        Scratch() { fs::create_directories(dir); }
        ~Scratch()
        {
            std::error_code ec;
            fs::remove_all(dir, ec);
        }
    };
    static const Scratch scratch;
    return scratch.dir;
}

Output shell(const std::string& command)
{
    const fs::path out = scratchDir() / "stdout", err = scratchDir() / "stderr";
    const std::string line = "LV2_PATH='" + isolatedLv2Path(bundleDir()) + "' " + command + " >'" + out.string() +
                             "' 2>'" + err.string() + "'";
    Output o;
    const int raw = std::system(line.c_str());
    o.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    o.out = slurp(out);
    o.err = slurp(err);
    return o;
}

// What a host printed on stderr that is not the plugin library's own
// diagnostics, which builds with contract checks write there on purpose.
std::string complaints(const std::string& err)
{
#if defined(QVD_ASSERTS_ENABLED)
    std::istringstream lines(err);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        std::string lower = line;
        std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
        for (const char* word : {"lv2", "lilv", "error", "warning", "fail"})
            if (lower.find(word) != std::string::npos) {
                kept += line + "\n";
                break;
            }
    }
    return kept;
#else
    return err;
#endif
}

std::string quote(const std::string& s)
{
    return "'" + s + "'";
}

TEST(Lv2Tools, Lv2lsListsEveryVariantAndWarnsAboutNothing)
{
    const Output ls = shell("lv2ls");
    ASSERT_EQ(ls.status, 0) << ls.err;
    EXPECT_EQ(complaints(ls.err), "");
    std::set<std::string> listed, expected;
    std::istringstream lines(ls.out);
    for (std::string uri; std::getline(lines, uri);)
        listed.insert(uri);
    for (const auto& v : catalog())
        expected.insert(v.uri);
    EXPECT_EQ(listed, expected);
}

// lilv's own benchmark instantiates and runs each plugin with every port
// connected, at a block length of its choosing: one line per plugin.
TEST(Lv2Tools, Lv2benchRunsEveryVariant)
{
    const Output bench = shell("lv2bench -n 4800 -b 64");
    ASSERT_EQ(bench.status, 0) << bench.err;
    EXPECT_EQ(complaints(bench.err), "");
    std::map<std::string, double> seconds;
    std::istringstream lines(bench.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        double s = -1.0;
        std::string uri;
        if (fields >> s >> uri)
            seconds[uri] = s;
    }
    for (const auto& v : catalog()) {
        ASSERT_TRUE(seconds.count(v.uri)) << v.uri << " was not run:\n" << bench.out;
        EXPECT_TRUE(std::isfinite(seconds[v.uri]) && seconds[v.uri] > 0.0) << v.uri;
    }
}

TEST(Lv2Tools, Lv2infoShowsEveryPortWithoutWarnings)
{
    for (const auto& v : catalog()) {
        const Output info = shell("lv2info " + quote(v.uri));
        ASSERT_EQ(info.status, 0) << v.uri << ": " << info.err;
        EXPECT_EQ(complaints(info.err), "") << v.uri;
        EXPECT_NE(info.out.find("Name:              " + v.name), std::string::npos) << v.uri;
        const auto latencyPort = std::find_if(v.ports.begin(), v.ports.end(),
                                              [](const auto& p) { return p.role == qvd::lv2::PortRole::Latency; });
        EXPECT_NE(info.out.find("reported by port " + std::to_string(latencyPort - v.ports.begin())), std::string::npos)
            << v.uri;
        for (std::size_t i = 0; i < v.ports.size(); ++i) {
            const std::string port = "\tPort " + std::to_string(i) + ":\n";
            const auto at = info.out.find(port);
            ASSERT_NE(at, std::string::npos) << v.uri << " port " << i;
            EXPECT_NE(info.out.find("Symbol:      " + v.ports[i].symbol + "\n", at), std::string::npos)
                << v.uri << " port " << i;
        }
        EXPECT_EQ(info.out.find("\tPort " + std::to_string(v.ports.size()) + ":\n"), std::string::npos) << v.uri;
    }
}

TEST(Lv2Tools, TurtleIsValidAgainstTheLv2Schemas)
{
    std::string files;
    for (const auto& entry : fs::directory_iterator(fs::path(bundleDir()) / "qvd.lv2"))
        if (entry.path().extension() == ".ttl")
            files += " " + quote(entry.path().string());
    const Output check = shell("lv2_validate" + files);
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_NE((check.out + check.err).find("Found 0 errors"), std::string::npos) << check.out << check.err;
}

TEST(Lv2Tools, WrapperExportsOnlyTheDescriptor)
{
    const Output nm = shell("nm -D --defined-only " + quote(bundleDir() + "/qvd.lv2/qvd-lv2.so"));
    ASSERT_EQ(nm.status, 0) << nm.err;
    std::istringstream lines(nm.out);
    std::string exported;
    for (std::string line; std::getline(lines, line);)
        exported += line.substr(line.rfind(' ') + 1) + " ";
    EXPECT_EQ(exported, "lv2_descriptor ");
}

TEST(Lv2Tools, AMissingLibraryOrBadArgumentsFailClearly)
{
    // The wrapper alone, without the library beside it, offers no plugin.
    const fs::path lonely = scratchDir() / "lonely.lv2";
    fs::create_directories(lonely);
    fs::copy_file(bundleDir() + "/qvd.lv2/qvd-lv2.so", lonely / "qvd-lv2.so", fs::copy_options::overwrite_existing);
    void* wrapper = dlopen((lonely / "qvd-lv2.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(wrapper, nullptr) << dlerror();
    const auto descriptor = reinterpret_cast<const void* (*)(uint32_t)>(dlsym(wrapper, "lv2_descriptor"));
    ASSERT_NE(descriptor, nullptr);
    EXPECT_EQ(descriptor(0), nullptr);

    // The generator names what is wrong and leaves the folder untouched.
    const Output noLibrary = shell(quote(QVD_LV2_TTL_PATH) + " --library /nonexistent/lib.so --out " +
                                   quote(lonely) + " --binary qvd-lv2.so");
    EXPECT_EQ(noLibrary.status, 3);
    EXPECT_NE(noLibrary.err.find("cannot load /nonexistent/lib.so"), std::string::npos) << noLibrary.err;
    EXPECT_FALSE(fs::exists(lonely / "manifest.ttl"));
    const Output usage = shell(quote(QVD_LV2_TTL_PATH) + " --out " + quote(lonely));
    EXPECT_EQ(usage.status, 2);
    EXPECT_NE(usage.err.find("usage:"), std::string::npos) << usage.err;
}

constexpr auto readWav = &qvd::test::wav::readPlanar;
constexpr auto writeWav = &qvd::test::wav::writePlanar;

// A file for hosts that map file channels to every audio input in port
// order: `main` followed by the side-chain channels `key` (silence when empty).
fs::path withSideChain(const fs::path& main, const Signal& key, std::int32_t sideChains, int rate)
{
    Signal all = readWav(main);
    const std::size_t frames = all.empty() ? 0 : all[0].size();
    for (std::int32_t c = 0; c < sideChains; ++c)
        all.push_back(key.empty() ? std::vector<float>(frames, 0.0f) : key[std::min<std::size_t>(c, key.size() - 1)]);
    fs::path path = main;
    path.replace_extension(".keyed.wav");
    writeWav(path, all, rate);
    return path;
}

class Lv2Apply : public ::testing::TestWithParam<std::string> {};

// lv2apply runs one frame per call and ffmpeg's lv2 filter whole frames of
// its own; neither compensates latency. qvdfx runs blocks of 512 and does.
// Shifted by the reported latency, they must agree bit for bit, with every
// parameter moved off its default.
TEST_P(Lv2Apply, LilvAndFfmpegGiveTheSamplesOfQvdfxProcess)
{
    const auto& v = variant(GetParam());
    const auto settings = offDefaultSettings(v);
    std::string lv2applyControls, ffmpegControls, qvdfxSettings;
    for (const auto& [info, value] : settings) {
        char text[32];
        std::snprintf(text, sizeof text, "%.9g", static_cast<double>(value));
        const std::string symbol = qvd::lv2::parameterSymbol(info->identifier);
        lv2applyControls += " -c " + symbol + " " + text;
        ffmpegControls += (ffmpegControls.empty() ? "" : "|") + symbol + "=" + text;
        qvdfxSettings += " --set " + quote(info->identifier + "=" + text);
    }
    // Colons separate filter options: escaped once for the option parser and
    // once for the graph parser, then once more for the shell's double quotes.
    std::string escapedUri;
    for (const char c : v.uri)
        escapedUri += c == ':' ? std::string(R"(\\\\:)") : std::string(1, c);

    for (const int rate : {48000, 96000}) {
        const fs::path dir = scratchDir() / (testName({GetParam(), 0}) + "-" + std::to_string(rate));
        fs::create_directories(dir);
        const fs::path in = dir / "in.wav", viaQvdfx = dir / "qvdfx.wav";
        const std::string qvdfx = quote(QVDFX_PATH);
        const Output gen = shell(qvdfx + " gen " + quote(in) + " --signal pink --seconds 0.4 --rate " +
                                 std::to_string(rate) + " --channels " + std::to_string(v.inputs) + " --seed 3");
        ASSERT_EQ(gen.status, 0) << gen.err;
        const Output process = shell(qvdfx + " process " + quote(in) + " " + quote(viaQvdfx) + " -p " + quote(v.key) +
                                     qvdfxSettings + " --quiet");
        ASSERT_EQ(process.status, 0) << process.err;
        const Signal reference = readWav(viaQvdfx);
        ASSERT_EQ(reference.size(), static_cast<std::size_t>(v.outputs));
        const auto latency = static_cast<std::size_t>(directLatency(v, rate, settings));
        // Side-chain inputs take file channels too; silent, they leave the audio alone.
        const fs::path hostIn = v.sideChains > 0 ? withSideChain(in, {}, v.sideChains, rate) : in;

        const std::vector<std::pair<std::string, std::string>> hosts = {
            {"lv2apply", "lv2apply -i " + quote(hostIn) + " -o " + quote(dir / "lv2apply.wav") + lv2applyControls + " " +
                             quote(v.uri)},
            {"ffmpeg", "ffmpeg -nostdin -hide_banner -loglevel error -y -i " + quote(hostIn) + " -af \"lv2=plugin=" +
                           escapedUri + ":controls=" + ffmpegControls + "\" -c:a pcm_f32le " + quote(dir / "ffmpeg.wav")},
        };
        for (const auto& [name, command] : hosts) {
            const Output run = shell(command);
            ASSERT_EQ(run.status, 0) << name << ": " << run.err;
            EXPECT_EQ(complaints(run.err), "") << name;
            Signal out = readWav(dir / (name + ".wav"));
            ASSERT_EQ(out.size(), reference.size()) << name;
            Signal expected = reference;
            for (std::size_t c = 0; c < out.size(); ++c) {
                ASSERT_GT(out[c].size(), latency) << name;
                out[c].erase(out[c].begin(), out[c].begin() + static_cast<long>(latency));
                expected[c].resize(out[c].size());
            }
            EXPECT_EQ(firstDifference(out, expected), "") << name << " at " << rate << " Hz, latency " << latency;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Bundle, Lv2Apply, allVariants(), testName);

// The Ducker's side-chain ports through lv2apply (a file with the main
// channels, then the key's) duck exactly as qvdfx --sidechain does.
TEST(Lv2SideChain, Lv2applyKeyDucksLikeQvdfxSidechain)
{
    for (const char* layout : {"mono", "stereo"}) {
        const auto& v = variant(std::string("urn:qvd:lv2:ducker-1364608085#") + layout);
        ASSERT_EQ(v.sideChains, v.inputs) << layout;
        const fs::path dir = scratchDir() / (std::string("sidechain-") + layout);
        fs::create_directories(dir);
        const int rate = 48000;
        const std::string qvdfx = quote(QVDFX_PATH);
        const fs::path main = dir / "main.wav", key = dir / "key.wav", viaQvdfx = dir / "qvdfx.wav";
        ASSERT_EQ(shell(qvdfx + " gen " + quote(main) + " --signal sine --freq 1000 --seconds 1 --channels " +
                        std::to_string(v.inputs)).status, 0);
        // A key that starts 0.3 s in and stops at 0.6 s.
        Signal k(1, std::vector<float>(rate, 0.0f));
        for (int n = rate * 3 / 10; n < rate * 6 / 10; ++n)
            k[0][static_cast<std::size_t>(n)] = 0.3f * static_cast<float>(std::sin(2.0 * M_PI * 200.0 * n / rate));
        writeWav(key, k, rate);
        const Output process = shell(qvdfx + " process " + quote(main) + " " + quote(viaQvdfx) +
                                     " -p Ducker --set DEPTH=-20 --sidechain " + quote(key) + " --quiet");
        ASSERT_EQ(process.status, 0) << process.err;
        const Signal reference = readWav(viaQvdfx);
        const fs::path keyed = withSideChain(main, k, v.sideChains, rate);
        const Output run = shell("lv2apply -i " + quote(keyed) + " -o " + quote(dir / "lv2apply.wav") +
                                 " -c DEPTH -20 " + quote(v.uri));
        ASSERT_EQ(run.status, 0) << run.err;
        const Signal out = readWav(dir / "lv2apply.wav");
        EXPECT_EQ(firstDifference(out, reference), "") << layout;
        // It did duck: 20 dB down in the middle of the key.
        const Signal in = readWav(main);
        const std::size_t at = static_cast<std::size_t>(rate) / 2;
        double gain = 0.0, level = 0.0;
        for (std::size_t n = at; n < at + 480; ++n) {
            gain += static_cast<double>(out[0][n]) * out[0][n];
            level += static_cast<double>(in[0][n]) * in[0][n];
        }
        EXPECT_NEAR(10.0 * std::log10(gain / level), -20.0, 0.1) << layout;
    }
}

} // namespace
} // namespace qvdtest
