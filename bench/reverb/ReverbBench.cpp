// The room reverb engine at default settings, stereo, 512-frame blocks:
// the plain engine at 44.1 and 48 kHz and the x2 / x4 wrappers at 96 and
// 192 kHz. Figures are per host frame (ns_per_frame) and as a real-time factor.

#include "ReverbSupport.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

using namespace reverbtest;

template <class Engine>
void runBench(benchmark::State& state, Engine& engine, double hostRate)
{
    constexpr std::size_t kBlock = 512;
    std::vector<std::vector<float>> in(2, std::vector<float>(kBlock)), out(2, std::vector<float>(kBlock));
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> u(-0.5f, 0.5f);
    for (auto& ch : in)
        for (auto& v : ch)
            v = u(rng);
    const float* ip[2] = {in[0].data(), in[1].data()};
    float* op[2] = {out[0].data(), out[1].data()};
    // Fill the lines first so the measurement sees a running tail.
    for (int i = 0; i < 200; ++i)
        engine.process(ip, op, kBlock);
    for (auto _ : state) {
        engine.process(ip, op, kBlock);
        benchmark::DoNotOptimize(out[0][0]);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kBlock));
    state.counters["ns_per_frame"] = benchmark::Counter(
        static_cast<double>(kBlock) * state.iterations(), benchmark::Counter::kIsRate | benchmark::Counter::kInvert,
        benchmark::Counter::kIs1000);
    state.counters["realtime_factor"] = benchmark::Counter(static_cast<double>(kBlock) * state.iterations() / hostRate,
                                                           benchmark::Counter::kIsRate);
}

void Plain(benchmark::State& state, float rate)
{
    EngineSetup setup(rate, defaults(), 2, 512);
    qv_reverb_u15 engine(*setup.param);
    runBench(state, engine, rate);
    state.SetLabel(engine.late().kernelName());
}

void X2(benchmark::State& state, float hostRate)
{
    EngineSetup setup(hostRate / 2, defaults(), 2, 256);
    qv_reverb_u15_x2 engine(*setup.param);
    runBench(state, engine, hostRate);
}

void X4(benchmark::State& state, float hostRate)
{
    EngineSetup setup(hostRate / 4, defaults(), 2, 128);
    qv_reverb_u15_x4 engine(*setup.param);
    runBench(state, engine, hostRate);
}

BENCHMARK_CAPTURE(Plain, 44k1, 44100.0f);
BENCHMARK_CAPTURE(Plain, 48k, 48000.0f);
BENCHMARK_CAPTURE(X2, 96k, 96000.0f);
BENCHMARK_CAPTURE(X4, 192k, 192000.0f);

} // namespace
