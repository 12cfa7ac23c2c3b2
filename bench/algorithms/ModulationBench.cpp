// LFO and Delay on stereo 512-frame blocks at 48 kHz; per_frame as in DynamicsBench.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <Algorithms/Delay.h>
#include <Algorithms/LFO.h>
#include <SmoothingCoefficient.h>

namespace {

constexpr int kFrames = 512;
constexpr float kRate = 48000.0f;

void perFrame(benchmark::State& state)
{
    state.counters["per_frame"] = benchmark::Counter(static_cast<double>(state.iterations()) * kFrames,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One main and one alternative value per frame, as a stereo chorus reads them.
void BM_LFO_Stereo(benchmark::State& state)
{
    SmoothingCoefficient::recomputeAll(kRate);
    SmoothingCoefficient::enableAll(true);
    LFO lfo;
    lfo.initialise(kRate, 2);
    lfo.setParameter(LFO::WAVEFORM, static_cast<float>(state.range(0)));
    lfo.setParameter(LFO::FREQ, 3.0f);
    lfo.setParameter(LFO::ALT_OUTPUT_OFFSET, 0.25f);
    std::vector<float> l(kFrames), r(kFrames);
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i) {
            l[static_cast<std::size_t>(i)] = lfo.nextValue();
            r[static_cast<std::size_t>(i)] = lfo.alternativeValue();
        }
        benchmark::DoNotOptimize(l.data());
        benchmark::DoNotOptimize(r.data());
    }
    SmoothingCoefficient::enableAll(false);
    perFrame(state);
}
BENCHMARK(BM_LFO_Stereo)->Arg(LFO::kSine)->Arg(LFO::kRandom)->ArgName("waveform");

void BM_Delay_Stereo(benchmark::State& state)
{
    SmoothingCoefficient::recomputeAll(kRate);
    SmoothingCoefficient::enableAll(true);
    Delay d;
    d.initialise(kRate, 2);
    d.setParameter(Delay::TIME, 37.0f);
    d.setParameter(Delay::FEEDBACK, 50.0f);
    std::vector<float> l(kFrames), r(kFrames);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 0; i < kFrames; ++i) {
            l[static_cast<std::size_t>(i)] = u(rng);
            r[static_cast<std::size_t>(i)] = u(rng);
        }
        state.ResumeTiming();
        float* chans[] = {l.data(), r.data()};
        d.processChannels(chans, kFrames);
        benchmark::ClobberMemory();
    }
    SmoothingCoefficient::enableAll(false);
    perFrame(state);
}
BENCHMARK(BM_Delay_Stereo);

} // namespace
