// Limiter at 48 kHz in 512-frame blocks on noise driven 12 dB over the
// ceiling, so the detector works all the time. "ns/frame" is the figure the
// limiter is judged by: 10 ns in sample-peak and 40 ns in true-peak mode for
// a stereo frame.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr int kFrames = 512;

void BM_Limiter(benchmark::State& state)
{
    const int channels = static_cast<int>(state.range(0));
    const bool truePeak = state.range(1) != 0;
    auto* instance = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())
                         ->createPlugin(qvd::kAudioPlugin, "Limiter:1364610162");
    const qvd::PrepareConfig config{qvd::formatForChannels(channels), qvd::formatForChannels(channels), 1, 0};
    AudioPlugin* audio = instance->getAudioInterface();
    audio->prepare(48000.0f, kFrames, &config);
    instance->setParameter(0, 12.0f);             // input gain
    instance->setParameter(5, truePeak ? 1.0f : 0.0f); // mode
    std::vector<std::vector<float>> in(static_cast<std::size_t>(channels), std::vector<float>(kFrames));
    std::vector<std::vector<float>> out = in;
    std::vector<const float*> ip;
    std::vector<float*> op;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (std::size_t c = 0; c < in.size(); ++c) {
        for (auto& x : in[c])
            x = d(rng);
        ip.push_back(in[c].data());
        op.push_back(out[c].data());
    }
    for (auto _ : state) {
        audio->process(nullptr, ip.data(), op.data(), kFrames);
        benchmark::ClobberMemory();
    }
    state.SetLabel(truePeak ? "true peak" : "sample peak");
    state.counters["ns/frame"] = benchmark::Counter(kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                                                                         benchmark::Counter::kInvert);
    instance->destroy();
}
BENCHMARK(BM_Limiter)->Args({2, 0})->Args({2, 1})->Args({36, 0})->Args({36, 1});

} // namespace
