// Limiter on noise driven 12 dB over the ceiling, so the detector works all
// the time. The limiter is judged by 10 ns in sample-peak and 40 ns in
// true-peak mode for a stereo frame.
#include "PluginBenchDriver.h"

namespace {

void BM_Limiter(benchmark::State& state)
{
    const bool truePeak = state.range(1) != 0;
    qvd::bench::PluginBenchDriver limiter("Limiter:1364610162", static_cast<int>(state.range(0)), 1.0f);
    limiter.set(0, 12.0f);                   // input gain
    limiter.set(5, truePeak ? 1.0f : 0.0f); // mode
    limiter.run(state);
    state.SetLabel(truePeak ? "true peak" : "sample peak");
}
BENCHMARK(BM_Limiter)->Args({2, 0})->Args({2, 1})->Args({36, 0})->Args({36, 1});

} // namespace
