#pragma once
// A stereo plugin from the registry at 48 kHz in 512-frame blocks, driven the
// way a host drives it; "ns/frame" is the figure benchmarks are judged by.
#include <benchmark/benchmark.h>

#include <qvd/PluginInterface.h>

#include <initializer_list>
#include <random>
#include <utility>
#include <vector>

extern "C" void* GetQVDPluginInterface();

namespace qvd::bench {

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

} // namespace qvd::bench
