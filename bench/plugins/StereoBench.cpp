// Stereo and time-based plugins at 48 kHz, 512-frame stereo blocks, through
// the registry as a host drives them. "ns/frame" is the figure they are judged by.
#include <benchmark/benchmark.h>

#include <qvd/PluginInterface.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr int kFrames = 512;

struct Stereo {
    Stereo(const char* key, std::initializer_list<std::pair<const char*, float>> settings)
        : instance(static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())->createPlugin(qvd::kAudioPlugin, key)),
          buffers(4, std::vector<float>(kFrames))
    {
        const qvd::PrepareConfig config{qvd::formatForChannels(2), qvd::formatForChannels(2), 1, 0};
        instance->getAudioInterface()->prepare(48000.0f, kFrames, &config);
        for (const auto& [name, value] : settings)
            instance->getAudioInterface()->setParameterByIdentifier(name, value);
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> d(-0.1f, 0.1f);
        for (auto& ch : buffers) {
            for (auto& x : ch)
                x = d(rng);
            pointers.push_back(ch.data());
        }
    }
    ~Stereo() { instance->destroy(); }

    void run(benchmark::State& state)
    {
        AudioPlugin* audio = instance->getAudioInterface();
        // The same noise every block, out of place, so feedback cannot pile the level up.
        const float* const* in = pointers.data();
        float* const* out = pointers.data() + 2;
        for (auto _ : state) {
            audio->process(nullptr, in, out, kFrames);
            benchmark::ClobberMemory();
        }
        state.counters["ns/frame"] = benchmark::Counter(kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate |
                                                                            benchmark::Counter::kInvert);
    }

    qvd::PluginInstance* instance;
    std::vector<std::vector<float>> buffers;
    std::vector<float*> pointers;
};

void BM_StereoWidth(benchmark::State& state)
{
    Stereo("Stereo Width:1364608115", {{"QVDStereoWidth::WIDTH", 150.0f}}).run(state);
}
BENCHMARK(BM_StereoWidth);

void BM_StereoWidthBassMono(benchmark::State& state)
{
    Stereo("Stereo Width:1364608115",
           {{"QVDStereoWidth::WIDTH", 150.0f}, {"QVDStereoWidth::BASS_MONO", 1.0f}, {"QVDStereoWidth::BALANCE", 20.0f}})
        .run(state);
}
BENCHMARK(BM_StereoWidthBassMono);

void BM_StereoDelay(benchmark::State& state)
{
    Stereo("Delay:1364608121", {{"QVDStereoDelay::FEEDBACK", 70.0f},
                                {"QVDStereoDelay::CROSSFEED", 30.0f},
                                {"QVDStereoDelay::LOW_CUT", 120.0f},
                                {"QVDStereoDelay::HIGH_CUT", 6000.0f}})
        .run(state);
}
BENCHMARK(BM_StereoDelay);

void BM_StereoDelayDucking(benchmark::State& state)
{
    Stereo("Delay:1364608121", {{"QVDStereoDelay::FEEDBACK", 70.0f}, {"QVDStereoDelay::DUCK", 9.0f}}).run(state);
}
BENCHMARK(BM_StereoDelayDucking);

void BM_Chorus(benchmark::State& state)
{
    Stereo("Chorus:1364608121", {{"QVDChorus::VOICES", 3.0f},
                                 {"QVDChorus::FEEDBACK", 30.0f},
                                 {"QVDChorus::HIGH_CUT", 8000.0f}})
        .run(state);
}
BENCHMARK(BM_Chorus);

void BM_ChorusOneVoice(benchmark::State& state)
{
    Stereo("Chorus:1364608121", {{"QVDChorus::VOICES", 0.0f}}).run(state);
}
BENCHMARK(BM_ChorusOneVoice);

} // namespace
