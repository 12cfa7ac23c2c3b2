// qvd_conformance: checks every registered plugin of a plugin library the way
// plugin validators do, through the public headers only.
//
//   qvd_conformance --library PATH [--plugin KEY]... [--long] [--seed N]
//                   [--sequences N] [--expect FILE]
//
// Prints one line per failed check with the plugin, the check, the seed and
// what went wrong, then one summary line per check. Exit 0 when nothing
// failed (or, with --expect, when exactly the expected failures happened).
#include <dlfcn.h>
#include <unistd.h>
#include <xmmintrin.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <qvd/qvd.h>

#include "RtCheck.h"

namespace {

// ---------------------------------------------------------------- reporting

struct Failure {
    std::string plugin, check, detail;
};

struct Report {
    std::map<std::string, int> runs, fails;
    std::vector<Failure> failures;
    std::uint32_t seed = 1;

    void pass(const std::string& check) { ++runs[check]; }
    void fail(const std::string& plugin, const std::string& check, const std::string& detail)
    {
        ++runs[check];
        if (fails[check]++ < 1000)
            failures.push_back({plugin, check, detail});
        std::printf("FAIL %s [%s] seed %u: %s\n", check.c_str(), plugin.c_str(), seed, detail.c_str());
        std::fflush(stdout);
    }
    bool check(bool ok, const std::string& plugin, const std::string& name, const std::string& detail)
    {
        if (ok)
            pass(name);
        else
            fail(plugin, name, detail);
        return ok;
    }
};

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...)
{
    char buffer[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, ap);
    va_end(ap);
    return buffer;
}

// ---------------------------------------------------------------- library

struct Library {
    std::string path;
    void* handle = nullptr;
    qvd::GetPluginInterfaceFn entry = nullptr;
    qvd::PluginInterface* registry = nullptr;
};

class Services final : public qvd::HostServices {
public:
    const char* hostName() const override { return "qvd_conformance"; }
    std::int32_t hostVersion() const override { return 1; }
    double editorScale() const override { return 1.0; }
    std::int32_t debugLogLevel() const override { return 3; }
    void debugLog(std::int32_t, const char*) override {}
};

// Extensions a full host offers: no tempo, and a side-chain for every
// plugin that asks: noise bursts (2048 frames on, 2048 off) that depend only
// on the timeline position and channel, so any block split reads the same
// key. Frames [brokenFrom, brokenTo) of the key hold `broken` instead, for
// the non-finite key checks. Real-time safe: arithmetic only.
class Extensions final : public qvd::HostExtensions {
public:
    std::int64_t brokenFrom = 0, brokenTo = 0;
    float broken = 0.0f;
    std::atomic<std::uint64_t> keyFetches{0};

    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t, const char* source, std::int64_t position, float* const* channels,
                    std::int32_t channelCount, std::int32_t frames) override
    {
        if (!source || std::strcmp(source, qvd::kSourceSideChain) != 0 || position < 0)
            return false;
        keyFetches.fetch_add(1, std::memory_order_relaxed);
        for (std::int32_t c = 0; c < channelCount; ++c) {
            for (std::int32_t n = 0; n < frames; ++n) {
                const std::int64_t at = position + n;
                float x = 0.0f;
                if ((at / 2048) % 2 == 1) {
                    std::uint32_t h = static_cast<std::uint32_t>(at) * 2654435761u ^ static_cast<std::uint32_t>(c) * 40503u;
                    h ^= h >> 15;
                    h *= 2246822519u;
                    h ^= h >> 13;
                    x = (static_cast<float>(h & 0xFFFF) / 32768.0f - 1.0f) * 0.5f;
                }
                channels[c][n] = at >= brokenFrom && at < brokenTo ? broken : x;
            }
        }
        return true;
    }
};
Extensions g_extensions;

struct RtHooks {
    QvdRtEnterFn enter = nullptr;
    QvdRtLeaveFn leave = nullptr;
    QvdRtCountsFn counts = nullptr;
    QvdRtKindNameFn name = nullptr;
    QvdRtLiveBlocksFn live = nullptr;
    bool present() const { return enter && leave && counts && name && live; }
    std::uint64_t total() const
    {
        std::uint64_t c[16] = {};
        const int n = counts(c, 16);
        std::uint64_t sum = 0;
        for (int i = 0; i < n && i < 16; ++i)
            sum += c[i];
        return sum;
    }
    std::string describe(const std::uint64_t* before) const
    {
        std::uint64_t c[16] = {};
        const int n = std::min(16, counts(c, 16));
        std::string out;
        for (int i = 0; i < n; ++i) {
            if (c[i] != before[i])
                out += format("%s%s %llu", out.empty() ? "" : ", ", name(i),
                              static_cast<unsigned long long>(c[i] - before[i]));
        }
        return out;
    }
};
RtHooks g_rt;
std::uint64_t g_processCalls = 0;

#if defined(QVD_RTSAN)
// LLVM's RealtimeSanitizer runtime, linked in: any allocation, lock, sleep or
// blocking call between enter and exit aborts with a report.
extern "C" void __rtsan_init();
extern "C" void __rtsan_realtime_enter();
extern "C" void __rtsan_realtime_exit();
#endif

// Brackets every call the audio thread makes into a plugin.
inline void audioEnter()
{
#if defined(QVD_RTSAN)
    __rtsan_realtime_enter();
#endif
    if (g_rt.present())
        g_rt.enter();
}
inline void audioLeave()
{
    if (g_rt.present())
        g_rt.leave();
#if defined(QVD_RTSAN)
    __rtsan_realtime_exit();
#endif
}

struct Instance {
    qvd::PluginInstance* p = nullptr;
    Instance(qvd::PluginInterface& r, const std::string& key) : p(r.createPlugin(qvd::kAudioPlugin, key.c_str())) {}
    ~Instance()
    {
        if (p)
            p->destroy();
    }
    AudioPlugin* a() const { return p->getAudioInterface(); }
};

// ---------------------------------------------------------------- signals

constexpr std::uint32_t kMarkerBits = 0x7fc0dea1u; // a NaN no plugin writes by accident
constexpr std::uint32_t kGuardBits = 0x7f81a5a5u;  // a signalling NaN pattern
constexpr int kGuard = 16;

float bitsToFloat(std::uint32_t b)
{
    float f;
    std::memcpy(&f, &b, 4);
    return f;
}
std::uint32_t floatToBits(float f)
{
    std::uint32_t b;
    std::memcpy(&b, &f, 4);
    return b;
}
bool isSubnormal(float x)
{
    return x != 0.0f && std::fabs(x) < FLT_MIN;
}

// One channel with guard words before and after.
struct Channel {
    std::vector<float> storage;
    std::size_t frames;
    explicit Channel(std::size_t n, float fill = 0.0f) : storage(n + 2 * kGuard, bitsToFloat(kGuardBits)), frames(n)
    {
        std::fill(data(), data() + n, fill);
    }
    float* data() { return storage.data() + kGuard; }
    const float* data() const { return storage.data() + kGuard; }
    bool guardsIntact() const
    {
        for (int i = 0; i < kGuard; ++i) {
            if (floatToBits(storage[static_cast<std::size_t>(i)]) != kGuardBits ||
                floatToBits(storage[storage.size() - 1 - static_cast<std::size_t>(i)]) != kGuardBits)
                return false;
        }
        return true;
    }
};

using Signal = std::vector<std::vector<float>>; // planar

Signal noise(int channels, std::size_t frames, std::uint32_t seed, float level = 0.25f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-level, level);
    Signal s(static_cast<std::size_t>(channels), std::vector<float>(frames));
    for (auto& c : s)
        for (auto& x : c)
            x = d(rng);
    return s;
}

// ---------------------------------------------------------------- running

struct Config {
    double rate;
    int block;
    int inputs;
    int outputs;
};

std::string describe(const Config& c)
{
    return format("%g Hz, block %d, %d in / %d out", c.rate, c.block, c.inputs, c.outputs);
}

bool prepare(AudioPlugin& a, const Config& c)
{
    const qvd::PrepareConfig pc{qvd::formatForChannels(c.inputs), qvd::formatForChannels(c.outputs), 0, 1};
    return a.prepare(static_cast<float>(c.rate), c.block, &pc);
}

struct RunResult {
    Signal out;
    bool written = true, guards = true, inputsUnchanged = true, returned = true;
    std::string problem;
};

// Processes `in` in chunks given by `split` (frames per call; 0 means "pass
// 0, meaning the block size"), out of place with guards, or in place.
RunResult run(AudioPlugin& a, const Config& c, const Signal& in, const std::vector<int>& split, bool inPlace)
{
    const std::size_t frames = in.empty() ? 0 : in[0].size();
    std::vector<Channel> ins, outs;
    for (int i = 0; i < c.inputs; ++i) {
        ins.emplace_back(frames);
        std::copy(in[static_cast<std::size_t>(i)].begin(), in[static_cast<std::size_t>(i)].end(), ins.back().data());
    }
    for (int i = 0; i < c.outputs; ++i) {
        if (inPlace && i < c.inputs) {
            outs.emplace_back(0);
            continue;
        }
        outs.emplace_back(frames, bitsToFloat(kMarkerBits));
    }
    RunResult r;
    std::vector<const float*> inPtr(static_cast<std::size_t>(c.inputs));
    std::vector<float*> outPtr(static_cast<std::size_t>(c.outputs));
    qvd::BlockRecord block{};
    block.mode = qvd::kModePlaying;
    block.position = 0; // on the timeline, so host-supplied audio lines up
    std::size_t done = 0;
    std::size_t k = 0;
    while (done < frames) {
        const int step = split[k++ % split.size()];
        const std::size_t n = step == 0 ? static_cast<std::size_t>(c.block) : static_cast<std::size_t>(step);
        if (done + n > frames)
            break;
        for (int i = 0; i < c.inputs; ++i)
            inPtr[static_cast<std::size_t>(i)] = ins[static_cast<std::size_t>(i)].data() + done;
        for (int i = 0; i < c.outputs; ++i) {
            Channel& ch = inPlace && i < c.inputs ? ins[static_cast<std::size_t>(i)] : outs[static_cast<std::size_t>(i)];
            outPtr[static_cast<std::size_t>(i)] = ch.data() + done;
        }
        audioEnter();
        const bool ok = a.process(&block, inPtr.data(), outPtr.data(), step);
        audioLeave();
        ++g_processCalls;
        r.returned = r.returned && ok;
        done += n;
        block.position = static_cast<std::int64_t>(done);
    }
    r.out.resize(static_cast<std::size_t>(c.outputs));
    for (int i = 0; i < c.outputs; ++i) {
        const Channel& ch = inPlace && i < c.inputs ? ins[static_cast<std::size_t>(i)] : outs[static_cast<std::size_t>(i)];
        r.out[static_cast<std::size_t>(i)].assign(ch.data(), ch.data() + done);
        for (std::size_t n = 0; n < done; ++n) {
            if (floatToBits(ch.data()[n]) == kMarkerBits && r.written) {
                r.written = false;
                r.problem = format("output %d frame %zu never written", i, n);
            }
        }
        r.guards = r.guards && ch.guardsIntact();
    }
    if (!inPlace) {
        for (int i = 0; i < c.inputs; ++i) {
            r.guards = r.guards && ins[static_cast<std::size_t>(i)].guardsIntact();
            if (!std::equal(in[static_cast<std::size_t>(i)].begin(), in[static_cast<std::size_t>(i)].begin() + static_cast<long>(done),
                            ins[static_cast<std::size_t>(i)].data()))
                r.inputsUnchanged = false;
        }
    }
    return r;
}

bool sameBits(const Signal& a, const Signal& b, std::string& where)
{
    if (a.size() != b.size()) {
        where = "channel counts differ";
        return false;
    }
    for (std::size_t c = 0; c < a.size(); ++c) {
        const std::size_t n = std::min(a[c].size(), b[c].size());
        for (std::size_t i = 0; i < n; ++i) {
            if (floatToBits(a[c][i]) != floatToBits(b[c][i])) {
                where = format("channel %zu frame %zu: %.9g vs %.9g", c, i, static_cast<double>(a[c][i]),
                               static_cast<double>(b[c][i]));
                return false;
            }
        }
        if (a[c].size() != b[c].size()) {
            where = "lengths differ";
            return false;
        }
    }
    return true;
}

bool allFinite(const Signal& s, std::size_t from, std::string& where)
{
    for (std::size_t c = 0; c < s.size(); ++c) {
        for (std::size_t i = from; i < s[c].size(); ++i) {
            if (!std::isfinite(s[c][i])) {
                where = format("channel %zu frame %zu is %g", c, i, static_cast<double>(s[c][i]));
                return false;
            }
        }
    }
    return true;
}

// Accepted channel configurations: mono, stereo and the widest in the quick
// pass, every count in the long one; generators (no inputs) get outputs only.
std::vector<std::pair<int, int>> channelConfigs(AudioPlugin& a, const qvd::PluginInfo& info, bool every)
{
    std::vector<int> counts = {1, 2, info.channels};
    if (every) {
        counts.clear();
        for (int n = 1; n <= info.channels; ++n)
            counts.push_back(n);
    }
    std::vector<std::pair<int, int>> configs;
    for (const int n : counts) {
        std::pair<int, int> cfg{-1, -1};
        if (n >= 1 && a.setChannelFormats(qvd::formatForChannels(n), qvd::formatForChannels(n)))
            cfg = {n, n};
        else if (n >= 1 && a.setChannelFormats(qvd::kFormatNone, qvd::formatForChannels(n)))
            cfg = {0, n};
        if (cfg.first >= 0 && std::find(configs.begin(), configs.end(), cfg) == configs.end())
            configs.push_back(cfg);
    }
    return configs;
}

// ---------------------------------------------------------------- checks

struct Context {
    Library& lib;
    Report& report;
    bool longPass;
    int sequences;
};

void checkRegistry(Context& ctx)
{
    const std::string who = "registry";
    Library& lib = ctx.lib;
    void* first = lib.entry();
    std::atomic<int> same{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] { same += lib.entry() == first ? 1 : 0; });
    for (auto& t : threads)
        t.join();
    ctx.report.check(same == 8 && lib.entry() == first, who, "registry",
                     format("entry gave %d of 8 threads the first registry", same.load()));
    auto& r = *lib.registry;
    ctx.report.check(r.interfaceVersion() == qvd::kInterfaceVersion, who, "registry", "interface version is not 100");
    const auto audio = r.listPlugins(qvd::kAudioPlugin);
    ctx.report.check(!audio.empty(), who, "registry", "kind 0 lists nothing");
    r.listPlugins(qvd::kControlPlugin);
    for (const int kind : {1, 3, -1, 100})
        ctx.report.check(r.listPlugins(kind).empty(), who, "registry", format("kind %d lists plugins", kind));
    std::vector<std::string> misses = {"", " ", "Gain", "gain:1364608878", ":", "Gain:1364608878 "};
    for (const auto& [key, info] : audio) {
        misses.push_back(key + " ");
        misses.push_back(" " + key);
        misses.push_back(key.substr(0, key.size() - 1));
        std::string lower = key;
        std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
        if (lower != key)
            misses.push_back(lower);
        ctx.report.check(r.createPlugin(qvd::kControlPlugin, key.c_str()) == nullptr, who, "registry",
                         "kind 2 creates audio plugin " + key);
    }
    for (const auto& k : misses) {
        if (audio.count(k))
            continue;
        qvd::PluginInstance* p = r.createPlugin(qvd::kAudioPlugin, k.c_str());
        ctx.report.check(p == nullptr, who, "registry", "near-miss key '" + k + "' creates a plugin");
        if (p)
            p->destroy();
    }
    ctx.report.check(r.createPlugin(qvd::kAudioPlugin, nullptr) == nullptr, who, "registry", "null key creates a plugin");
}

std::string runCommand(const std::string& command)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return out;
    char buffer[1024];
    while (std::fgets(buffer, sizeof buffer, pipe))
        out += buffer;
    pclose(pipe);
    return out;
}

void checkBinary(Context& ctx, const std::string& self, const std::string& neededFile)
{
    const std::string who = "binary";
    const std::string symbols = runCommand("nm -D --defined-only '" + ctx.lib.path + "' 2>&1");
    std::istringstream lines(symbols);
    std::string line;
    int count = 0;
    std::string extra;
    while (std::getline(lines, line)) {
        ++count;
        if (line.find(" GetQVDPluginInterface") == std::string::npos)
            extra += (extra.empty() ? "" : ", ") + line.substr(line.rfind(' ') + 1);
    }
    ctx.report.check(count == 1 && extra.empty(), who, "exports", "exports more than the entry: " + extra);

    std::set<std::string> allowed;
    std::ifstream allow(neededFile);
    while (std::getline(allow, line)) {
        if (!line.empty() && line[0] != '#')
            allowed.insert(line);
    }
    const std::string dynamic = runCommand("readelf -d '" + ctx.lib.path + "' 2>&1");
    std::istringstream entries(dynamic);
    std::string unexpected;
    while (std::getline(entries, line)) {
        const auto open = line.find("Shared library: [");
        if (open == std::string::npos)
            continue;
        const std::string lib = line.substr(open + 17, line.find(']', open) - open - 17);
        if (!allowed.count(lib))
            unexpected += (unexpected.empty() ? "" : ", ") + lib;
    }
    ctx.report.check(unexpected.empty() && !allowed.empty(), who, "needed", "unexpected NEEDED libraries: " + unexpected);

    // Cold start in a fresh process: load, entry, list both kinds.
    const std::string timing = runCommand("'" + self + "' --cold-load '" + ctx.lib.path + "' 2>&1");
    const double ms = std::atof(timing.c_str());
    std::printf("cold load and listing: %.1f ms\n", ms);
    ctx.report.check(ms > 0.0 && ms < 100.0, who, "cold-load", format("cold load and listing took %.1f ms", ms));
}

void checkMatrix(Context& ctx, const std::string& key, const qvd::PluginInfo& info)
{
    auto& r = *ctx.lib.registry;
    Instance inst(r, key);
    if (!inst.p) {
        ctx.report.fail(key, "registry", "listed but cannot be created");
        return;
    }
    const auto configs = channelConfigs(*inst.a(), info, ctx.longPass);
    ctx.report.check(!configs.empty(), key, "formats", "accepts no channel configuration");
    std::vector<double> rates = {44100, 48000, 96000};
    std::vector<int> blocks = {1, 7, 64, 511, 4096};
    if (ctx.longPass) {
        rates.insert(rates.end(), {8000, 11025, 22050, 32000, 88200, 176400, 192000, 384000});
        blocks.insert(blocks.end(), {2, 3, 16, 100, 127, 256, 1000, 1024, 2048, 4095});
    }
    // A smaller pass at the extremes and at fractional rates.
    const std::vector<double> edgeRates = {8000, 384000, 44099.5, 47999.9};
    const std::vector<int> edgeBlocks = {1, 333};
    std::mt19937 rng(ctx.report.seed ^ static_cast<std::uint32_t>(std::hash<std::string>{}(key)));
    std::vector<std::pair<double, int>> grid;
    for (const double rate : rates)
        for (const int block : blocks)
            grid.emplace_back(rate, block);
    for (const double rate : edgeRates)
        for (const int block : edgeBlocks)
            grid.emplace_back(rate, block);
    for (const auto& [ins, outs] : configs) {
        for (const auto& [rate, block] : grid) {
            {
                const Config c{rate, block, ins, outs};
                const std::string where = describe(c);
                if (!ctx.report.check(prepare(*inst.a(), c), key, "formats", "accepted formats, then refused " + where))
                    continue;
                const std::size_t frames = static_cast<std::size_t>(block) * (block < 64 ? 97 : block < 1000 ? 9 : 2) + 3;
                const Signal in = noise(std::max(ins, 1), frames, rng());
                const RunResult a = run(*inst.a(), c, in, {block}, false);
                ctx.report.check(a.returned, key, "written", "process returned false, " + where);
                ctx.report.check(a.written, key, "written", a.problem + ", " + where);
                ctx.report.check(a.guards, key, "guards", "a guard word changed, " + where);
                ctx.report.check(a.inputsUnchanged, key, "inputs-unchanged", "input changed out of place, " + where);

                std::string diff;
                prepare(*inst.a(), c);
                const RunResult b = run(*inst.a(), c, in, {block}, true);
                ctx.report.check(sameBits(a.out, b.out, diff), key, "in-place", "in place differs: " + diff + ", " + where);

                // Random splits no larger than the block.
                std::vector<int> split;
                std::uniform_int_distribution<int> size(1, block);
                for (int i = 0; i < 64; ++i)
                    split.push_back(size(rng));
                prepare(*inst.a(), c);
                const RunResult s = run(*inst.a(), c, in, split, false);
                const std::size_t common = std::min(s.out.empty() ? 0 : s.out[0].size(), a.out.empty() ? 0 : a.out[0].size());
                Signal aCut = a.out, sCut = s.out;
                for (auto& ch : aCut)
                    ch.resize(common);
                for (auto& ch : sCut)
                    ch.resize(common);
                ctx.report.check(sameBits(aCut, sCut, diff), key, "block-split",
                                 "output depends on the split: " + diff + ", " + where);

                prepare(*inst.a(), c);
                const RunResult z = run(*inst.a(), c, in, {0}, false);
                Signal zCut = z.out;
                const std::size_t zn = zCut.empty() ? 0 : zCut[0].size();
                for (auto& ch : aCut)
                    ch.resize(std::min(common, zn));
                for (auto& ch : zCut)
                    ch.resize(std::min(common, zn));
                ctx.report.check(z.written && sameBits(aCut, zCut, diff), key, "zero-frames",
                                 "a frame count of 0 is not the block size: " + (z.written ? diff : z.problem) + ", " + where);
            }
        }
        // Re-prepare elsewhere and come back: same output as fresh.
        const Config base{48000, 256, ins, outs};
        const Signal in = noise(std::max(ins, 1), 256 * 8, 77);
        prepare(*inst.a(), base);
        const RunResult first = run(*inst.a(), base, in, {256}, false);
        prepare(*inst.a(), Config{22050, 33, ins, outs});
        run(*inst.a(), Config{22050, 33, ins, outs}, noise(std::max(ins, 1), 330, 5), {33}, false);
        prepare(*inst.a(), base);
        const RunResult again = run(*inst.a(), base, in, {256}, false);
        std::string diff;
        ctx.report.check(sameBits(first.out, again.out, diff), key, "re-prepare",
                         "output after re-preparing differs: " + diff);
    }
}

// The parameter table as a host reads it: every row reachable, identifiers
// unique and "<Class>::NAME" with one prefix, index equal to position, the
// default inside the range, lists with a label per value.
void checkParameterTable(Context& ctx, const std::string& key)
{
    Instance inst(*ctx.lib.registry, key);
    if (!inst.p)
        return;
    std::set<std::string> names;
    std::string prefix, problem;
    const std::int32_t count = inst.p->parameterCount();
    for (std::int32_t i = 0; i < count && problem.empty(); ++i) {
        qvd::ParameterInfo pi;
        if (!inst.p->parameterInfo(i, &pi)) {
            problem = format("parameter %d has no definition", i);
            break;
        }
        const auto colons = pi.identifier.find("::");
        const std::string own = colons == std::string::npos ? "" : pi.identifier.substr(0, colons + 2);
        const std::string name = colons == std::string::npos ? "" : pi.identifier.substr(colons + 2);
        const bool upper = !name.empty() && std::all_of(name.begin(), name.end(), [](char ch) {
            return std::isupper(static_cast<unsigned char>(ch)) || std::isdigit(static_cast<unsigned char>(ch)) || ch == '_';
        });
        if (prefix.empty())
            prefix = own;
        if (pi.index != i)
            problem = format("%s reports index %d at position %d", pi.identifier.c_str(), pi.index, i);
        else if (own.size() < 3 || own != prefix || !upper)
            problem = pi.identifier + " is not <Class>::UPPER_NAME with the plugin's one prefix " + prefix;
        else if (!names.insert(pi.identifier).second)
            problem = pi.identifier + " appears twice";
        else if (!(pi.minimum <= pi.defaultValue && pi.defaultValue <= pi.maximum))
            problem = format("%s default %g is outside %g to %g", pi.identifier.c_str(), static_cast<double>(pi.defaultValue),
                             static_cast<double>(pi.minimum), static_cast<double>(pi.maximum));
        else if (!(pi.step > 0.0f))
            problem = pi.identifier + " has no positive step";
        else if (pi.kind != qvd::kContinuous && !pi.options.empty() &&
                 (pi.minimum != 0.0f || pi.maximum + 1.0f != static_cast<float>(pi.options.size())))
            problem = format("%s lists %zu labels for values %g to %g", pi.identifier.c_str(), pi.options.size(),
                             static_cast<double>(pi.minimum), static_cast<double>(pi.maximum));
    }
    qvd::ParameterInfo beyond;
    if (problem.empty() && inst.p->parameterInfo(count, &beyond))
        problem = "a definition past the last parameter";
    ctx.report.check(problem.empty(), key, "param-table", problem);
}

// Bypass flipped from another thread while blocks run out of place: every
// output sample is still written, whichever way each block went.
void checkBypassToggle(Context& ctx, const std::string& key)
{
    Instance inst(*ctx.lib.registry, key);
    const Config c{48000, 64, 2, 2};
    if (!inst.p || !prepare(*inst.a(), c))
        return;
    std::atomic<bool> stop{false};
    std::thread toggler([&] {
        while (!stop) {
            inst.a()->setBypass(!inst.a()->isBypassed());
            std::this_thread::yield();
        }
    });
    const Signal in = noise(2, 64, 13);
    std::vector<float> l(64), r(64);
    float* out[2] = {l.data(), r.data()};
    const float* ins[2] = {in[0].data(), in[1].data()};
    std::string problem;
    for (int b = 0; b < 4000 && problem.empty(); ++b) {
        std::fill(l.begin(), l.end(), bitsToFloat(kMarkerBits));
        std::fill(r.begin(), r.end(), bitsToFloat(kMarkerBits));
        inst.a()->process(nullptr, ins, out, 64);
        for (int n = 0; n < 64 && problem.empty(); ++n)
            if (floatToBits(l[static_cast<std::size_t>(n)]) == kMarkerBits || floatToBits(r[static_cast<std::size_t>(n)]) == kMarkerBits)
                problem = format("block %d frame %d never written while bypass was toggled", b, n);
    }
    stop = true;
    toggler.join();
    ctx.report.check(problem.empty(), key, "bypass-toggle", problem);
}

void checkLatencyAndBypass(Context& ctx, const std::string& key)
{
    Instance inst(*ctx.lib.registry, key);
    if (!inst.p)
        return;
    const Config c{48000, 512, 2, 2};
    if (!prepare(*inst.a(), c))
        return;
    const auto latency = static_cast<std::size_t>(inst.p->getLatency());
    const std::size_t frames = 512 * 16 + latency;
    const Signal in = noise(2, frames, 11);

    // Bypass: the input delayed by the reported latency, bit for bit.
    inst.a()->setBypass(true);
    prepare(*inst.a(), c);
    const RunResult b = run(*inst.a(), c, in, {512}, false);
    inst.a()->setBypass(false);
    Signal expected(2, std::vector<float>(b.out[0].size(), 0.0f));
    for (std::size_t ch = 0; ch < 2; ++ch)
        for (std::size_t n = latency; n < expected[ch].size(); ++n)
            expected[ch][n] = in[ch][n - latency];
    std::string diff;
    ctx.report.check(sameBits(b.out, expected, diff), key, "bypass",
                     format("bypass is not the input delayed by %zu: ", latency) + diff);

    // Measured latency: the lag of the strongest cross-correlation, when the
    // plugin passes the signal at its defaults.
    prepare(*inst.a(), c);
    const RunResult p = run(*inst.a(), c, in, {512}, false);
    const std::size_t maxLag = std::max<std::size_t>(2 * latency + 64, 256);
    // Whole blocks only came out: never read past them.
    const std::size_t produced = p.out.empty() ? 0 : p.out[0].size();
    double best = 0.0, energy = 0.0;
    std::size_t bestLag = 0;
    for (std::size_t n = 0; n + maxLag < produced; ++n)
        energy += static_cast<double>(in[0][n]) * in[0][n];
    for (std::size_t lag = 0; lag <= maxLag; ++lag) {
        double sum = 0.0;
        for (std::size_t n = 0; n + maxLag < produced; ++n)
            sum += static_cast<double>(in[0][n]) * p.out[0][n + lag];
        if (std::fabs(sum) > std::fabs(best)) {
            best = sum;
            bestLag = lag;
        }
    }
    if (std::fabs(best) > 0.1 * energy)
        ctx.report.check(bestLag == latency, key, "latency",
                         format("measured latency %zu frames, reported %zu", bestLag, latency));
}

void checkBadNumbers(Context& ctx, const std::string& key)
{
    Instance inst(*ctx.lib.registry, key);
    if (!inst.p)
        return;
    const Config c{48000, 256, 2, 2};
    if (!prepare(*inst.a(), c)) {
        const Config mono{48000, 256, 1, 1};
        if (!prepare(*inst.a(), mono))
            return;
    }
    const int ins = inst.a()->inputChannelCount(), outs = inst.a()->outputChannelCount();
    const Config cfg{48000, 256, ins, outs};
    const std::size_t second = 48000 / 256 * 256;
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    std::string where;

    for (std::int32_t i = 0; i < inst.p->parameterCount(); ++i) {
        qvd::ParameterInfo info;
        inst.p->parameterInfo(i, &info);
        std::vector<float> values = {info.minimum, info.maximum, info.minimum - 1.0f - std::fabs(info.minimum),
                                     info.maximum + 1.0f + std::fabs(info.maximum), nan, inf, -inf, 1e38f, -1e38f,
                                     -0.0f};
        if (info.kind != qvd::kContinuous) {
            for (int k = static_cast<int>(info.minimum); k <= static_cast<int>(info.maximum) && k < 64; ++k)
                values.insert(values.end(), {k - 0.49f, k + 0.49f, k + 0.5f});
        }
        for (const float v : values) {
            // Any value a host or a script can send, in range or not, keeps the output finite.
            inst.p->setParameter(i, v);
            const RunResult r = run(*inst.a(), cfg, noise(std::max(ins, 1), 256 * 8, 3), {256}, false);
            ctx.report.check(allFinite(r.out, 0, where), key, "params-finite",
                             format("%s = %g gives non-finite output: ", info.identifier.c_str(),
                                    static_cast<double>(v)) + where);
            inst.p->setParameter(i, info.defaultValue);
            const RunResult back = run(*inst.a(), cfg, noise(std::max(ins, 1), second + 256 * 8, 4), {256}, false);
            ctx.report.check(allFinite(back.out, second, where), key, "params-recover",
                             format("not finite a second after %s = %g returned to default: ", info.identifier.c_str(),
                                    static_cast<double>(v)) + where);
        }
    }

    // Input bursts, then normal audio for a second.
    for (const float burst : {nan, inf, -inf, 1e30f}) {
        prepare(*inst.a(), cfg);
        Signal in = noise(std::max(ins, 1), second + 256 * 8, 5);
        for (auto& ch : in)
            std::fill(ch.begin() + 256, ch.begin() + 512, burst);
        const RunResult r = run(*inst.a(), cfg, in, {256}, false);
        // The burst fills one block; the next block is finite again.
        ctx.report.check(allFinite(r.out, 512, where), key, "input-recover",
                         format("not finite in the block after an input burst of %g: ", static_cast<double>(burst)) + where);
    }

    // The same bursts in the side-chain, for plugins that take one.
    for (const float burst : {nan, inf, -inf, 1e30f}) {
        prepare(*inst.a(), cfg);
        const std::uint64_t fetches = g_extensions.keyFetches.load();
        g_extensions.brokenFrom = 256;
        g_extensions.brokenTo = 512;
        g_extensions.broken = burst;
        const RunResult r = run(*inst.a(), cfg, noise(std::max(ins, 1), second + 256 * 8, 5), {256}, false);
        g_extensions.brokenTo = 0;
        if (g_extensions.keyFetches.load() == fetches)
            break; // takes no side-chain
        ctx.report.check(allFinite(r.out, 512, where), key, "key-recover",
                         format("not finite in the block after a side-chain burst of %g: ", static_cast<double>(burst)) +
                             where);
    }

    // Subnormal input with flush-to-zero off on our thread; the plugin must
    // keep subnormals out of its output and not slow down much.
    const unsigned csr = _mm_getcsr();
    _mm_setcsr(csr & ~0x8040u);
    Signal tiny(static_cast<std::size_t>(std::max(ins, 1)), std::vector<float>(second));
    for (auto& ch : tiny)
        for (std::size_t n = 0; n < ch.size(); ++n)
            ch[n] = (n & 1) ? FLT_MIN : -FLT_MIN;
    prepare(*inst.a(), cfg);
    auto t0 = std::chrono::steady_clock::now();
    const RunResult small = run(*inst.a(), cfg, tiny, {256}, false);
    const double tinyTime = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    prepare(*inst.a(), cfg);
    t0 = std::chrono::steady_clock::now();
    run(*inst.a(), cfg, noise(std::max(ins, 1), second, 6), {256}, false);
    const double normalTime = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    bool subnormal = false;
    for (const auto& ch : small.out)
        for (const float x : ch)
            subnormal = subnormal || isSubnormal(x);
    ctx.report.check(!subnormal, key, "denormals", "subnormal output from subnormal-range input");
    std::printf("  %s: cost of FLT_MIN input %.2fx normal input\n", key.c_str(),
                normalTime > 0.0 ? tinyTime / normalTime : 0.0);

    // Silence after noise decays below -77.6 dBFS without subnormals.
    {
        prepare(*inst.a(), cfg);
        const std::size_t total = second * 21;
        Signal in(static_cast<std::size_t>(std::max(ins, 1)), std::vector<float>(total, 0.0f));
        const Signal loud = noise(std::max(ins, 1), second, 7, 0.5f);
        for (std::size_t ch = 0; ch < in.size(); ++ch)
            std::copy(loud[ch].begin(), loud[ch].end(), in[ch].begin());
        const RunResult r = run(*inst.a(), cfg, in, {256}, false);
        float peak = 0.0f;
        bool sub = false;
        for (const auto& ch : r.out) {
            for (std::size_t n = total - second; n < ch.size(); ++n) {
                peak = std::max(peak, std::fabs(ch[n]));
                sub = sub || isSubnormal(ch[n]);
            }
        }
        const double db = peak > 0.0f ? 20.0 * std::log10(static_cast<double>(peak)) : -400.0;
        std::string nonFinite;
        const bool finite = allFinite(r.out, 0, nonFinite);
        ctx.report.check(finite && db < -77.6 && !sub, key, "silence-tail",
                         finite ? format("after 20 s of silence the output peaks at %.1f dBFS%s", db,
                                         sub ? " with subnormals" : "")
                                : "non-finite output: " + nonFinite);
    }
    _mm_setcsr(csr);
}

void checkSequences(Context& ctx, const std::string& key, const qvd::PluginInfo& info)
{
    for (int s = 0; s < ctx.sequences; ++s) {
        const std::uint32_t seed = ctx.report.seed * 7919u + static_cast<std::uint32_t>(s);
        std::mt19937 rng(seed);
        Instance inst(*ctx.lib.registry, key);
        if (!inst.p)
            return;
        std::vector<std::string> ops;
        const double rates[] = {8000, 22050, 44100, 48000, 96000, 192000};
        Config c{rates[rng() % 6], static_cast<int>(1 + rng() % 1024), 0, 0};
        const int n = static_cast<int>(1 + rng() % static_cast<unsigned>(std::max(1, info.channels)));
        c.inputs = inst.a()->setChannelFormats(qvd::formatForChannels(n), qvd::formatForChannels(n)) ? n : 0;
        c.outputs = n;
        if (c.inputs == 0 && !inst.a()->setChannelFormats(qvd::kFormatNone, qvd::formatForChannels(n)))
            continue;
        if (!prepare(*inst.a(), c))
            continue;
        ops.push_back("prepare " + describe(c));
        bool finiteParams = true;
        std::string where;
        for (int op = 0; op < 40; ++op) {
            switch (rng() % 6) {
            case 0: {
                const std::int32_t index = inst.p->parameterCount() ? static_cast<std::int32_t>(rng() % static_cast<unsigned>(inst.p->parameterCount())) : 0;
                const std::uint32_t bits = rng();
                const float v = bitsToFloat(bits);
                inst.p->setParameter(index, v);
                qvd::ParameterInfo pi;
                if (inst.p->parameterInfo(index, &pi))
                    finiteParams = finiteParams && v >= pi.minimum && v <= pi.maximum;
                ops.push_back(format("set %d bits 0x%08x", index, bits));
                break;
            }
            case 1: {
                qvd::ParameterInfo pi;
                const std::int32_t index = inst.p->parameterCount() ? static_cast<std::int32_t>(rng() % static_cast<unsigned>(inst.p->parameterCount())) : 0;
                if (inst.p->parameterInfo(index, &pi)) {
                    std::uniform_real_distribution<float> d(pi.minimum, pi.maximum);
                    const float v = d(rng);
                    inst.p->setParameter(index, v);
                    ops.push_back(format("set %d %g", index, static_cast<double>(v)));
                }
                break;
            }
            case 2:
                inst.a()->setBypass(!inst.a()->isBypassed());
                ops.push_back(inst.a()->isBypassed() ? "bypass on" : "bypass off");
                break;
            case 3:
                inst.a()->requestReset();
                ops.push_back("reset");
                break;
            default: {
                const int frames = static_cast<int>(rng() % static_cast<unsigned>(c.block + 1));
                const RunResult r = run(*inst.a(), c, noise(std::max(c.inputs, 1), static_cast<std::size_t>(frames == 0 ? c.block : frames), rng()),
                                        {frames}, false);
                ops.push_back(format("process %d", frames));
                bool ok = r.written && r.guards && r.inputsUnchanged;
                if (ok && finiteParams && !allFinite(r.out, 0, where))
                    ok = false;
                if (!ok) {
                    std::string list;
                    for (const auto& o : ops)
                        list += o + "; ";
                    ctx.report.fail(key, "sequence",
                                    format("sequence seed %u: %s; ops: ", seed,
                                           !r.written ? r.problem.c_str() : !r.guards ? "guard overwritten"
                                                                        : !r.inputsUnchanged ? "input changed"
                                                                                             : where.c_str()) + list);
                    op = 1000;
                }
                break;
            }
            }
        }
        ctx.report.pass("sequence");
    }
}

void checkLifecycle(Context& ctx, const std::string& key)
{
    const int cycles = 1000;
    auto cycle = [&] {
        Instance inst(*ctx.lib.registry, key);
        if (!inst.p)
            return;
        const Config c{48000, 64, 1, 1};
        if (!prepare(*inst.a(), c) && !prepare(*inst.a(), Config{48000, 64, 0, 1}))
            return;
        std::vector<float> buf(64, 0.1f);
        float* io[64];
        std::fill(std::begin(io), std::end(io), buf.data());
        inst.a()->process(nullptr, io, io, 64);
    };
    cycle(); // first-use caches are not leaks
    const std::int64_t before = g_rt.present() ? g_rt.live() : 0;
    for (int i = 0; i < cycles; ++i)
        cycle();
    if (g_rt.present()) {
        const std::int64_t grown = g_rt.live() - before;
        ctx.report.check(grown < cycles / 2, key, "lifecycle",
                         format("%lld heap blocks left behind by %d create/destroy cycles",
                                static_cast<long long>(grown), cycles));
    } else {
        ctx.report.pass("lifecycle");
    }
}

void checkRealtime(Context& ctx, const std::string& key, const std::uint64_t* before)
{
    const bool rtsan =
#if defined(QVD_RTSAN)
        true;
#else
        false;
#endif
    if (!g_rt.present() && !rtsan)
        return;
    // Many small calls on top of the matrix: short blocks hit every branch often.
    Instance inst(*ctx.lib.registry, key);
    const Config c{48000, 32, 2, 2};
    if (inst.p && prepare(*inst.a(), c)) {
        const int calls = ctx.longPass ? 2000000 : 500000;
        const Signal in = noise(2, 32, 8);
        std::vector<float> l(32), r(32);
        float* out[2] = {l.data(), r.data()};
        const float* ins[2] = {in[0].data(), in[1].data()};
        std::mt19937 rng(9);
        std::int32_t sizes[4096];
        for (auto& n : sizes)
            n = static_cast<std::int32_t>(1 + rng() % 32);
        for (int i = 0; i < calls; i += 4096) {
            inst.a()->setBypass((i & 8192) != 0);
            audioEnter();
            for (int k = 0; k < 4096; ++k)
                inst.a()->process(nullptr, ins, out, sizes[k]);
            audioLeave();
        }
        g_processCalls += static_cast<std::uint64_t>((calls + 4095) / 4096 * 4096);
    }
    if (!g_rt.present()) {
        ctx.report.pass("rt-safety"); // the sanitizer would have aborted
        return;
    }
    const std::string what = g_rt.describe(before);
    ctx.report.check(what.empty(), key, "rt-safety", "calls on the audio thread: " + what);
}

// A parameter thread at about 1 kHz and a meter thread run while the audio
// thread processes 10 s of audio. Races show under ThreadSanitizer; without
// it this only proves nothing crashes, so it reports under its own name.
void checkThreads(Context& ctx, const std::string& key)
{
    Instance inst(*ctx.lib.registry, key);
    const Config c{48000, 512, 2, 2};
    if (!inst.p || !prepare(*inst.a(), c))
        return;
    std::atomic<bool> stop{false};
    // Two writers, as an editor and a host's automation are.
    auto writer = [&](std::uint32_t seed) {
        std::mt19937 rng(seed);
        while (!stop) {
            const std::int32_t count = inst.p->parameterCount();
            if (count > 0) {
                const auto index = static_cast<std::int32_t>(rng() % static_cast<unsigned>(count));
                qvd::ParameterInfo info;
                inst.p->parameterInfo(index, &info);
                std::uniform_real_distribution<float> d(info.minimum, info.maximum);
                inst.p->setParameter(index, d(rng));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    std::thread parameters(writer, ctx.report.seed);
    std::thread automation(writer, ctx.report.seed + 1);
    std::thread meters([&] {
        double values[64];
        while (!stop) {
            for (std::int32_t g = 0; g < inst.p->meterGroupCount(); ++g)
                inst.p->getMeterValues(g, values, 64);
            for (std::int32_t r = 0; r < inst.p->readoutCount(); ++r)
                inst.p->readReadout(r, values, 64);
            inst.a()->isBypassed();
            inst.p->getLatency();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    const Signal in = noise(2, 512, 12);
    std::vector<float> l(512), r(512);
    float* out[2] = {l.data(), r.data()};
    const float* ins[2] = {in[0].data(), in[1].data()};
    std::string where;
    bool finite = true;
    for (int b = 0; b < 48000 * 10 / 512; ++b) {
        inst.a()->process(nullptr, ins, out, 512);
        finite = finite && std::all_of(l.begin(), l.end(), [](float x) { return std::isfinite(x); });
        // Give the other threads a chance to interleave on a small machine.
        if ((b & 15) == 0)
            std::this_thread::yield();
    }
    stop = true;
    parameters.join();
    automation.join();
    meters.join();
    ctx.report.check(finite, key, "threads", "non-finite output while parameters changed from another thread");
}

int coldLoad(const std::string& path)
{
    const auto t0 = std::chrono::steady_clock::now();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        return 1;
    auto entry = reinterpret_cast<qvd::GetPluginInterfaceFn>(dlsym(handle, qvd::kEntrySymbol));
    if (!entry)
        return 1;
    auto* r = static_cast<qvd::PluginInterface*>(entry());
    r->listPlugins(qvd::kAudioPlugin);
    r->listPlugins(qvd::kControlPlugin);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    std::printf("%.3f\n", ms);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 2 && args[0] == "--cold-load")
        return coldLoad(args[1]);

    Library lib;
    std::vector<std::string> only;
    std::string expectFile, neededFile;
    bool longPass = false;
    int sequences = 100;
    std::string onlyGroup; // "threads" runs just the thread check
    Report report;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) {
                std::fprintf(stderr, "qvd_conformance: %s needs a value\n", a.c_str());
                std::exit(2);
            }
            return args[++i];
        };
        if (a == "--library") lib.path = next();
        else if (a == "--plugin") only.push_back(next());
        else if (a == "--long") { longPass = true; sequences = 1000; }
        else if (a == "--seed") report.seed = static_cast<std::uint32_t>(std::stoul(next()));
        else if (a == "--sequences") sequences = std::stoi(next());
        else if (a == "--expect") expectFile = next();
        else if (a == "--needed") neededFile = next();
        else if (a == "--only") onlyGroup = next();
        else {
            std::fprintf(stderr, "usage: qvd_conformance --library PATH [--plugin KEY]... [--long] [--seed N] "
                                 "[--sequences N] [--needed FILE] [--expect FILE] [--only threads]\n");
            return 2;
        }
    }
    if (lib.path.empty()) {
        std::fprintf(stderr, "qvd_conformance: --library PATH is required\n");
        return 2;
    }
    lib.handle = dlopen(lib.path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib.handle) {
        std::fprintf(stderr, "qvd_conformance: cannot load %s: %s\n", lib.path.c_str(), dlerror());
        return 3;
    }
    lib.entry = reinterpret_cast<qvd::GetPluginInterfaceFn>(dlsym(lib.handle, qvd::kEntrySymbol));
    lib.registry = lib.entry ? static_cast<qvd::PluginInterface*>(lib.entry()) : nullptr;
    if (!lib.registry) {
        std::fprintf(stderr, "qvd_conformance: %s has no usable entry\n", lib.path.c_str());
        return 3;
    }
    static Services services;
    lib.registry->setHostServices(&services);
    lib.registry->setHostExtensions(&g_extensions);

    g_rt.enter = reinterpret_cast<QvdRtEnterFn>(dlsym(RTLD_DEFAULT, "qvd_rt_enter"));
    g_rt.leave = reinterpret_cast<QvdRtLeaveFn>(dlsym(RTLD_DEFAULT, "qvd_rt_leave"));
    g_rt.counts = reinterpret_cast<QvdRtCountsFn>(dlsym(RTLD_DEFAULT, "qvd_rt_counts"));
    g_rt.name = reinterpret_cast<QvdRtKindNameFn>(dlsym(RTLD_DEFAULT, "qvd_rt_kind_name"));
    g_rt.live = reinterpret_cast<QvdRtLiveBlocksFn>(dlsym(RTLD_DEFAULT, "qvd_rt_live_blocks"));
#if defined(QVD_RTSAN)
    __rtsan_init();
    std::printf("RealtimeSanitizer watches every process call\n");
#endif
    if (!g_rt.present())
        std::printf("real-time interposer not preloaded: its counts and the leak count are skipped\n");

    Context ctx{lib, report, longPass, sequences};
    if (onlyGroup.empty())
        checkRegistry(ctx);
    if (!neededFile.empty() && onlyGroup.empty()) {
        char self[4096] = {};
        const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
        checkBinary(ctx, n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string(argv[0]), neededFile);
    }

    const auto plugins = lib.registry->listPlugins(qvd::kAudioPlugin);
    for (const auto& [key, info] : plugins) {
        if (!only.empty() && std::find(only.begin(), only.end(), key) == only.end())
            continue;
        const auto t0 = std::chrono::steady_clock::now();
        std::uint64_t before[16] = {};
        if (g_rt.present())
            g_rt.counts(before, 16);
        if (onlyGroup == "threads") {
            checkThreads(ctx, key);
        } else {
            checkParameterTable(ctx, key);
            checkMatrix(ctx, key, info);
            checkLatencyAndBypass(ctx, key);
            checkBypassToggle(ctx, key);
            checkBadNumbers(ctx, key);
            checkSequences(ctx, key, info);
            checkRealtime(ctx, key, before);
            checkLifecycle(ctx, key);
        }
        std::printf("checked %s in %.1f s\n", key.c_str(),
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        std::fflush(stdout);
    }

    std::printf("process calls: %llu%s\n", static_cast<unsigned long long>(g_processCalls),
                g_rt.present() ? " (all watched by the real-time interposer)"
#if defined(QVD_RTSAN)
                               : " (all watched by RealtimeSanitizer)"
#else
                               : ""
#endif
    );
    // One line per check.
    for (const auto& [check, runs] : report.runs)
        std::printf("gate %-17s %6d run, %4d failed\n", check.c_str(), runs, report.fails[check]);

    if (!expectFile.empty()) {
        // Each line "PLUGIN-KEY<TAB>check" must have failed; nothing else may have.
        std::ifstream in(expectFile);
        std::string line;
        std::set<std::pair<std::string, std::string>> expected, seen;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#')
                continue;
            const auto tab = line.find('\t');
            expected.insert({line.substr(0, tab), line.substr(tab + 1)});
        }
        for (const auto& f : report.failures)
            seen.insert({f.plugin, f.check});
        // A failure is matched by display name: the key without ":<code>".
        auto name = [](const std::string& key) {
            const auto colon = key.rfind(':');
            return colon == std::string::npos ? key : key.substr(0, colon);
        };
        std::set<std::pair<std::string, std::string>> seenByName;
        for (const auto& s : seen)
            seenByName.insert({name(s.first), s.second});
        int missing = 0;
        std::set<std::string> covered;
        for (const auto& e : expected) {
            covered.insert(e.second);
            if (!seenByName.count(e)) {
                std::printf("MISSED: %s did not fail %s\n", e.first.c_str(), e.second.c_str());
                ++missing;
            }
        }
        for (const auto& s : seenByName) {
            if (!expected.count(s))
                std::printf("also failed: %s %s\n", s.first.c_str(), s.second.c_str());
        }
        // Every check that ran must be shown failing on something.
        for (const auto& [check, runs] : report.runs) {
            if (!covered.count(check)) {
                std::printf("MISSED: no broken plugin is expected to fail %s\n", check.c_str());
                ++missing;
            }
        }
        std::printf("%zu passed, %d failed\n", expected.size() + report.runs.size() - static_cast<std::size_t>(missing), missing);
        return missing == 0 ? 0 : 1;
    }
    int failed = 0;
    for (const auto& [check, n] : report.fails)
        failed += n;
    std::printf("conformance: %zu plugins, %d failures\n", plugins.size(), failed);
    return failed == 0 ? 0 : 1;
}
