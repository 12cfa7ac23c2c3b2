// Waveshapers at 48 kHz in 512-frame stereo blocks on full-scale noise: the
// clipper driven 12 dB at every oversampling factor, the distortion at its
// default drive in every type. "ns/frame" is per stereo frame.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr int kFrames = 512;

struct Setting {
    const char* name;
    float value;
};

void runPlugin(benchmark::State& state, const char* key, std::vector<Setting> settings)
{
    auto* instance =
        static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())->createPlugin(qvd::kAudioPlugin, key);
    const qvd::PrepareConfig config{qvd::formatForChannels(2), qvd::formatForChannels(2), 1, 0};
    AudioPlugin* audio = instance->getAudioInterface();
    audio->prepare(48000.0f, kFrames, &config);
    for (const Setting& s : settings)
        audio->setParameterByIdentifier(s.name, s.value);
    std::vector<std::vector<float>> in(2, std::vector<float>(kFrames)), out = in;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    for (auto& ch : in)
        for (auto& x : ch)
            x = d(rng);
    const float* ip[2] = {in[0].data(), in[1].data()};
    float* op[2] = {out[0].data(), out[1].data()};
    for (auto _ : state) {
        audio->process(nullptr, ip, op, kFrames);
        benchmark::ClobberMemory();
    }
    state.counters["ns/frame"] = benchmark::Counter(kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                                                                         benchmark::Counter::kInvert);
    instance->destroy();
}

const char* const kFactorNames[] = {"off", "x2", "x4", "x8"};

void BM_SoftClipper(benchmark::State& state)
{
    const auto factor = static_cast<float>(state.range(0));
    state.SetLabel(std::string(kFactorNames[state.range(0)]) + (state.range(1) ? " linked" : ""));
    runPlugin(state, "Soft Clipper:1364611939",
              {{"QVDSoftClipper::DRIVE", 12.0f},
               {"QVDSoftClipper::OVERSAMPLING", factor},
               {"QVDSoftClipper::LINK", static_cast<float>(state.range(1))}});
}
BENCHMARK(BM_SoftClipper)->Args({0, 0})->Args({1, 0})->Args({2, 0})->Args({3, 0})->Args({3, 1});

const char* const kTypeNames[] = {"tube", "fuzz", "fold", "bits", "sample rate"};

void BM_Distortion(benchmark::State& state)
{
    state.SetLabel(kTypeNames[state.range(0)]);
    runPlugin(state, "Distortion:1364608115",
              {{"QVDDistortion::TYPE", static_cast<float>(state.range(0))}, {"QVDDistortion::TONE", 3.0f}});
}
BENCHMARK(BM_Distortion)->DenseRange(0, 4);

} // namespace
