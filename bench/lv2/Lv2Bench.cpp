// What the LV2 wrapper costs: each plugin in stereo at 48 kHz, at its
// defaults, called directly through the library's interface and through lilv
// and the wrapper, alternating block by block in one loop so both see the
// same machine state. Counters: the median ns per block each way (medians,
// since other work on a shared machine lands on single blocks) and the
// overhead in %.
// The direct side reads the meters as often as the wrapper publishes them to
// its meter ports (every 240 frames at 48 kHz), as a display host would.
#include <algorithm>
#include <chrono>
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

void wrapperOverhead(benchmark::State& state, const std::string& key, std::int32_t block)
{
    const auto& stereo = qvd::lv2::layouts()[1];
    qvd::PluginInstance* direct = registry().createPlugin(qvd::kAudioPlugin, key.c_str());
    const qvd::PrepareConfig config{stereo.format, stereo.format, 1, 0};
    direct->getAudioInterface()->prepare(48000.0f, block, &config);
    qvdtest::Lv2Instance lv2(host(), qvd::lv2::pluginUri(key, stereo), 48000.0, block);
    if (!lv2.valid()) {
        state.SkipWithError("the wrapper did not instantiate");
        return;
    }
    const auto frames = static_cast<std::size_t>(block);
    // Both sides read and write the same buffers: where buffers sit against
    // each other (4 KiB aliasing) moves a cheap plugin's time by several %.
    qvdtest::Signal in = qvdtest::noise(2, frames, 1), out(2, std::vector<float>(frames));
    const float* ins[2] = {in[0].data(), in[1].data()};
    float* direct_out[2] = {out[0].data(), out[1].data()};
    float* lv2_in[2] = {in[0].data(), in[1].data()};
    float* lv2_out[2] = {out[0].data(), out[1].data()};
    lv2.connectAudio(lv2_in, lv2_out);
    qvd::BlockRecord record{};
    record.mode = qvd::kModePlaying;
    double meters[16];
    constexpr std::int32_t kMeterEvery = 240;
    std::int32_t framesToMeters = 0;
    std::vector<double> spentDirect, spentLv2;
    spentDirect.reserve(1 << 22);
    spentLv2.reserve(1 << 22);
    auto ns = [](Clock::duration d) { return std::chrono::duration<double, std::nano>(d).count(); };
    // Eight blocks per reading keep the clock's resolution out of the figures.
    constexpr int kBatch = 8;
    auto runDirect = [&] {
        const auto t0 = Clock::now();
        for (int b = 0; b < kBatch; ++b) {
            direct->getAudioInterface()->process(&record, ins, direct_out, block);
            framesToMeters -= block;
            if (framesToMeters <= 0) {
                for (std::int32_t g = 0; g < direct->meterGroupCount(); ++g)
                    direct->getMeterValues(g, meters, 16);
                framesToMeters = kMeterEvery;
            }
            record.position += block;
        }
        spentDirect.push_back(ns(Clock::now() - t0) / kBatch);
    };
    auto runLv2 = [&] {
        const auto t0 = Clock::now();
        for (int b = 0; b < kBatch; ++b)
            lv2.run(static_cast<std::uint32_t>(block));
        spentLv2.push_back(ns(Clock::now() - t0) / kBatch);
    };
    // Alternating which goes first cancels the advantage of the second
    // finding the input in cache.
    bool directFirst = true;
    for (auto _ : state) {
        if (directFirst) {
            runDirect();
            runLv2();
        } else {
            runLv2();
            runDirect();
        }
        directFirst = !directFirst;
        benchmark::DoNotOptimize(out[0].data());
    }
    auto median = [](std::vector<double>& v) {
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    const double directNs = median(spentDirect);
    const double lv2Ns = median(spentLv2);
    state.counters["direct_ns"] = directNs;
    state.counters["lv2_ns"] = lv2Ns;
    state.counters["overhead_pct"] = 100.0 * (lv2Ns - directNs) / directNs;
    direct->destroy();
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
