// Gain at 512-frame blocks with smoothing on, through the plugin and per
// kernel variant. "ns/sample/ch" is the figure the Gain plugin is judged by.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <QVDGain.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr int kFrames = 512;

struct Fixture {
    explicit Fixture(int channels, const qvd::gain::Variant* variant = nullptr)
        : instance(static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())
                       ->createPlugin(qvd::kAudioPlugin, "Gain:1364608878")),
          buffers(static_cast<std::size_t>(channels), std::vector<float>(kFrames))
    {
        auto* gain = dynamic_cast<QVDGain*>(instance);
        if (variant)
            gain->setKernel(*variant);
        const qvd::PrepareConfig config{qvd::formatForChannels(channels), qvd::formatForChannels(channels), 1, 0};
        instance->getAudioInterface()->prepare(48000.0f, kFrames, &config);
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> d(-1.0f, 1.0f);
        for (auto& ch : buffers) {
            for (auto& x : ch)
                x = d(rng) * 0.1f;
            pointers.push_back(ch.data());
        }
        // A block at the old gain, then a change: the state glides for about a
        // second of audio, then sits at its fixed point, the common case.
        float* const* io = pointers.data();
        instance->getAudioInterface()->process(nullptr, io, io, kFrames);
        instance->setParameter(0, -6.0f);
    }
    ~Fixture() { instance->destroy(); }
    qvd::PluginInstance* instance;
    std::vector<std::vector<float>> buffers;
    std::vector<float*> pointers;
};

void report(benchmark::State& state, int channels)
{
    const double samples = static_cast<double>(kFrames) * channels;
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * samples));
    state.counters["ns/sample/ch"] =
        benchmark::Counter(samples * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_GainPlugin(benchmark::State& state)
{
    const int channels = static_cast<int>(state.range(0));
    Fixture f(channels);
    AudioPlugin* audio = f.instance->getAudioInterface();
    float* const* io = f.pointers.data();
    for (auto _ : state) {
        audio->process(nullptr, io, io, kFrames);
        benchmark::ClobberMemory();
    }
    state.SetLabel(dynamic_cast<QVDGain*>(f.instance)->kernelName());
    report(state, channels);
}
BENCHMARK(BM_GainPlugin)->Arg(2)->Arg(8)->Arg(36);

void BM_GainKernel(benchmark::State& state)
{
    const auto variants = twa::RunnableVariants(qvd::gain::variants());
    const int count = static_cast<int>(variants.size());
    const int which = static_cast<int>(state.range(1));
    if (which >= count) {
        state.SkipWithError("variant not supported here");
        return;
    }
    const int channels = static_cast<int>(state.range(0));
    Fixture f(channels, &variants[which]);
    AudioPlugin* audio = f.instance->getAudioInterface();
    float* const* io = f.pointers.data();
    for (auto _ : state) {
        audio->process(nullptr, io, io, kFrames);
        benchmark::ClobberMemory();
    }
    state.SetLabel(variants[which].name);
    report(state, channels);
}
BENCHMARK(BM_GainKernel)->ArgsProduct({{2, 36}, {0, 1, 2}});

} // namespace
