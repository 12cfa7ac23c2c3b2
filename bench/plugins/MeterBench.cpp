// Meters on stereo noise. The loudness meter with true peak on is judged by
// 15 ns a stereo frame, the phase meter by 3 ns.
#include "PluginBenchDriver.h"

namespace {

void BM_LoudnessMeter(benchmark::State& state)
{
    const bool truePeak = state.range(1) != 0;
    qvd::bench::PluginBenchDriver meter("Loudness Meter:1364610125", static_cast<int>(state.range(0)), 0.5f);
    meter.set(1, truePeak ? 1.0f : 0.0f); // true peak
    meter.run(state);
    state.SetLabel(truePeak ? "true peak" : "no true peak");
}
BENCHMARK(BM_LoudnessMeter)->Args({2, 1})->Args({2, 0})->Args({6, 1});

void BM_PhaseMeter(benchmark::State& state)
{
    qvd::bench::PluginBenchDriver("Phase Meter:1364611149", 2, 0.5f).run(state);
}
BENCHMARK(BM_PhaseMeter);

void BM_Meter(benchmark::State& state)
{
    qvd::bench::PluginBenchDriver("Meter:1364610405", static_cast<int>(state.range(0)), 0.5f).run(state);
}
BENCHMARK(BM_Meter)->Arg(2)->Arg(36);

} // namespace
