// Analysers at 48 kHz in 512-frame blocks of noise. Their cost is the
// measurement alone, the audio being copied through. No open-source peer
// does the same job; the nearest, a phase detector, is run beside them.
#include "PluginBenchDriver.h"

namespace {

// Arguments: channels, FFT size choice (512 << n), overlap choice.
void BM_FrequencyAnalyzer(benchmark::State& state)
{
    qvd::bench::PluginBenchDriver analyser("Frequency Analyzer:1364608626", static_cast<int>(state.range(0)), 0.5f);
    analyser.set(0, static_cast<float>(state.range(1)));
    analyser.set(2, static_cast<float>(state.range(2)));
    analyser.run(state);
    state.SetLabel(std::to_string(512 << state.range(1)) + " points");
}
BENCHMARK(BM_FrequencyAnalyzer)->Args({2, 3, 1})->Args({2, 3, 3})->Args({2, 6, 1})->Args({8, 4, 2});

void BM_SurroundAnalyzer(benchmark::State& state)
{
    qvd::bench::PluginBenchDriver analyser("Surround Analyzer:1364609638", static_cast<int>(state.range(0)), 0.5f);
    analyser.run(state);
}
BENCHMARK(BM_SurroundAnalyzer)->Arg(2)->Arg(6)->Arg(8)->Arg(32);

// Argument: ambisonic order.
void BM_AmbisonicsMeter(benchmark::State& state)
{
    const auto order = static_cast<int>(state.range(0));
    qvd::bench::PluginBenchDriver meter("Ambisonics Meter:1364607341", (order + 1) * (order + 1), 0.5f);
    meter.run(state);
    state.SetLabel("order " + std::to_string(order));
}
BENCHMARK(BM_AmbisonicsMeter)->Arg(1)->Arg(3)->Arg(5);

} // namespace
