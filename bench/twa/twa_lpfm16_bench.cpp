// The sixteen-line feedback step, every variant this machine runs, in blocks
// of 512 frames and of 32 (where the per-call set-up shows). The reverb's
// whole budget is 40 ns per stereo frame.

#include "Algorithms/Lpfm16.h"
#include "System/twa_aligned_allocator.h"
#include "System/twa_cpuinfo_x86.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>

namespace {

using namespace twa;
using namespace twa::numeric;

void run(benchmark::State& state, const std::shared_ptr<Lpfm16>& k, std::size_t frames)
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-0.25f, 0.25f);
    Lpfm16Coefs c;
    for (auto& row : c.m)
        for (float& v : row)
            v = d(rng);
    for (std::size_t r = 0; r < 16; ++r) {
        c.k[r] = 0.5f + d(rng);
        c.km[r] = 1.0f - c.k[r];
        c.g[0][r] = d(rng);
        c.g[1][r] = d(rng);
    }
    Lpfm16State s;
    sample_vector x(16 * frames), w(16 * frames), out(2 * frames);
    for (float& v : x)
        v = d(rng);
    for (auto _ : state) {
        k->Process(c, s, x.data(), w.data(), out.data(), frames);
        benchmark::DoNotOptimize(w.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * frames));
    state.counters["ns/frame"] =
        benchmark::Counter(static_cast<double>(frames) * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

const bool kRegistered = [] {
    // Judge by this machine alone, not by what the dispatch would prefer.
    const bool probe = SetUseProbe(false);
    CpuFeatures::Instance().settings.level = kIsaAVX2;
    CpuFeatures::Instance().settings.fma = true;
    for (std::size_t ch : {1, 2}) {
        for (const auto& v : Lpfm16Variants()) {
            if (!MachineRuns(v.needs) || !v.chosen(ch))
                continue;
            std::shared_ptr<Lpfm16> k(v.create(ch));
            for (std::size_t frames : {512, 32})
                benchmark::RegisterBenchmark((std::string("Lpfm16/") + v.name + "/" + std::to_string(frames)).c_str(),
                                             [k, frames](benchmark::State& s) { run(s, k, frames); });
        }
    }
    SetUseProbe(probe);
    return true;
}();

} // namespace
