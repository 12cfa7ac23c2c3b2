#pragma once
// One plugin from the registry at 48 kHz in 512-frame blocks of noise, driven
// the way a host drives it; reports "ns/frame", the figure plugins are judged by.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

namespace qvd::bench {

class PluginBenchDriver {
public:
    static constexpr int kFrames = 512;

    // Noise of peak `level` on every channel; smoothing on, as in a session.
    PluginBenchDriver(const char* key, int channels, float level)
        : m_instance(static_cast<PluginInterface*>(GetQVDPluginInterface())->createPlugin(kAudioPlugin, key)),
          m_in(static_cast<std::size_t>(channels), std::vector<float>(kFrames)), m_out(m_in)
    {
        const PrepareConfig config{formatForChannels(channels), formatForChannels(channels), 1, 0};
        m_instance->getAudioInterface()->prepare(48000.0f, kFrames, &config);
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> d(-level, level);
        for (std::size_t c = 0; c < m_in.size(); ++c) {
            for (auto& x : m_in[c])
                x = d(rng);
            m_inputs.push_back(m_in[c].data());
            m_outputs.push_back(m_out[c].data());
        }
    }
    ~PluginBenchDriver() { m_instance->destroy(); }
    PluginBenchDriver(const PluginBenchDriver&) = delete;
    PluginBenchDriver& operator=(const PluginBenchDriver&) = delete;

    void set(int index, float value) { m_instance->setParameter(index, value); }

    void run(benchmark::State& state)
    {
        AudioPlugin* audio = m_instance->getAudioInterface();
        for (auto _ : state) {
            audio->process(nullptr, m_inputs.data(), m_outputs.data(), kFrames);
            benchmark::ClobberMemory();
        }
        state.counters["ns/frame"] = benchmark::Counter(
            kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    }

private:
    PluginInstance* m_instance;
    std::vector<std::vector<float>> m_in, m_out;
    std::vector<const float*> m_inputs;
    std::vector<float*> m_outputs;
};

} // namespace qvd::bench
