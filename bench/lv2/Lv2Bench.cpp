// What the LV2 wrapper costs: each plugin in stereo at 48 kHz, at its
// defaults, called directly through the library's interface and through lilv
// and the wrapper, alternating block by block in one loop so both see the
// same machine state. Counters: the median ns per block each way (medians,
// since other work on a shared machine lands on single blocks) and the
// overhead in %.
// The direct side does the same job as the wrapper: it reads the meters and
// the scalar readouts as often as the wrapper publishes them to its ports
// (every 240 frames at 48 kHz), as a display host would, and offers the same
// host services (a side-chain that is not connected).
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "LilvHost.h"
#include "Lv2Catalog.h"
#include "Lv2Library.h"

namespace {

using Clock = std::chrono::steady_clock;

qvdtest::LilvHost& host()
{
    static qvdtest::LilvHost h(QVD_LV2_BUNDLE_DIR);
    return h;
}

qvd::PluginInterface& registry()
{
    return *qvd::lv2::Lv2Library::open(std::string(QVD_LV2_BUNDLE_DIR) + "/qvd.lv2/" + qvd::kLibraryName).registry();
}

// A host with no side-chain to give, as the wrapper is with its side-chain
// ports unconnected.
class NoKey final : public qvd::HostExtensions {
public:
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t, const char*, std::int64_t, float* const*, std::int32_t, std::int32_t) override
    {
        return false;
    }
};

// Eight blocks per reading keep the clock's resolution out of the figures.
constexpr int kBatch = 8;

// What a host calling the library directly does per block.
struct DirectHost {
    AudioPlugin* audio;
    qvd::PluginInstance* instance;
    const std::vector<std::int32_t>& scalars;
    const float* const* in;
    float* const* out;
    std::int32_t block;
    qvd::BlockRecord record{.mode = qvd::kModePlaying, .position = 0};
    std::int32_t framesToStatus = 0;
};

// Both sides' loops are out of line and aligned: inlined into the timing
// loop, the direct side's speed moved by up to 30 % with unrelated edits
// to this file, from where its code happened to fall.
[[gnu::noinline, gnu::aligned(64)]] void directBlocks(DirectHost& h)
{
    constexpr std::int32_t kStatusEvery = 240;
    double values[16];
    for (int b = 0; b < kBatch; ++b) {
        h.audio->process(&h.record, h.in, h.out, h.block);
        h.framesToStatus -= h.block;
        if (h.framesToStatus <= 0) {
            for (std::int32_t g = 0; g < h.instance->meterGroupCount(); ++g)
                h.instance->getMeterValues(g, values, 16);
            for (const std::int32_t r : h.scalars)
                h.instance->readReadout(r, values, 1);
            h.framesToStatus = kStatusEvery;
        }
        h.record.position += h.block;
    }
}

[[gnu::noinline, gnu::aligned(64)]] void lv2Blocks(qvdtest::Lv2Instance& lv2, std::uint32_t block)
{
    for (int b = 0; b < kBatch; ++b)
        lv2.run(block);
}

// Where an instance's buffers fall against the signal's (4 KiB aliasing)
// moves a cheap plugin's time by up to 30 % from one process to the next,
// on either side. So each side runs kRounds instances, all alive at once so
// each sits elsewhere, and the figure is each side's best round.
constexpr int kRounds = 4;

struct Round {
    qvd::PluginInstance* direct = nullptr;
    std::unique_ptr<qvdtest::Lv2Instance> lv2;
    std::unique_ptr<DirectHost> host;
    std::vector<double> spentDirect, spentLv2;
};

void wrapperOverhead(benchmark::State& state, const std::string& key, std::int32_t block)
{
    const auto& stereo = qvd::lv2::layouts()[1];
    const auto frames = static_cast<std::size_t>(block);
    qvdtest::Signal in = qvdtest::noise(2, frames, 1), out(2, std::vector<float>(frames));
    const float* ins[2] = {in[0].data(), in[1].data()};
    float* outs[2] = {out[0].data(), out[1].data()};
    float* lv2In[2] = {in[0].data(), in[1].data()};
    std::vector<std::int32_t> scalars;
    static NoKey noKey;
    std::vector<Round> rounds(kRounds);
    for (Round& r : rounds) {
        registry().setHostExtensions(&noKey);
        r.direct = registry().createPlugin(qvd::kAudioPlugin, key.c_str());
        registry().setHostExtensions(nullptr);
        const qvd::PrepareConfig config{stereo.format, stereo.format, 1, 0};
        r.direct->getAudioInterface()->prepare(48000.0f, block, &config);
        r.lv2 = std::make_unique<qvdtest::Lv2Instance>(host(), qvd::lv2::pluginUri(key, stereo), 48000.0, block);
        if (!r.lv2->valid()) {
            state.SkipWithError("the wrapper did not instantiate");
            return;
        }
        r.lv2->connectAudio(lv2In, outs);
        r.host = std::make_unique<DirectHost>(r.direct->getAudioInterface(), r.direct, scalars, ins, outs, block);
        r.spentDirect.reserve(1 << 20);
        r.spentLv2.reserve(1 << 20);
    }
    for (std::int32_t r = 0; r < rounds[0].direct->readoutCount(); ++r) {
        qvd::ReadoutInfo info;
        if (rounds[0].direct->readoutInfo(r, &info) && info.kind == qvd::kReadoutScalar)
            scalars.push_back(r);
    }
    auto ns = [](Clock::duration d) { return std::chrono::duration<double, std::nano>(d).count(); };
    auto runDirect = [&](Round& r) {
        const auto t0 = Clock::now();
        directBlocks(*r.host);
        r.spentDirect.push_back(ns(Clock::now() - t0) / kBatch);
    };
    auto runLv2 = [&](Round& r) {
        const auto t0 = Clock::now();
        lv2Blocks(*r.lv2, static_cast<std::uint32_t>(block));
        r.spentLv2.push_back(ns(Clock::now() - t0) / kBatch);
    };
    // Alternating which goes first cancels the advantage of the second
    // finding the input in cache.
    std::size_t turn = 0;
    for (auto _ : state) {
        Round& r = rounds[(turn / 2) % kRounds];
        if (turn % 2 == 0) {
            runDirect(r);
            runLv2(r);
        } else {
            runLv2(r);
            runDirect(r);
        }
        ++turn;
        benchmark::DoNotOptimize(out[0].data());
    }
    auto median = [](std::vector<double>& v) {
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    double directNs = 1e300, lv2Ns = 1e300;
    for (Round& r : rounds) {
        if (!r.spentDirect.empty()) {
            directNs = std::min(directNs, median(r.spentDirect));
            lv2Ns = std::min(lv2Ns, median(r.spentLv2));
        }
        r.lv2.reset();
        r.direct->destroy();
    }
    state.counters["direct_ns"] = directNs;
    state.counters["lv2_ns"] = lv2Ns;
    state.counters["overhead_pct"] = 100.0 * (lv2Ns - directNs) / directNs;
}

// One benchmark per registered plugin and block length, so a new plugin is
// measured without touching this file.
const bool registered = [] {
    for (const auto& [key, info] : registry().listPlugins(qvd::kAudioPlugin)) {
        if (info.channels < 2)
            continue;
        for (const std::int32_t block : {64, 512})
            benchmark::RegisterBenchmark(("Lv2Wrapper/" + info.name + "/" + std::to_string(block)).c_str(),
                                         [key = key, block](benchmark::State& s) { wrapperOverhead(s, key, block); })
                ->MinTime(1.0);
    }
    return true;
}();

} // namespace
