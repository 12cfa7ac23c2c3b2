// Ducker with a key from the host that is on for 50 blocks and off for 50,
// so attack, hold and release all run; with the key filter on and off.
#include "PluginBenchDriver.h"

#include <cstring>
#include <random>

#include <qvd/HostExtensions.h>

namespace {

class BenchKey final : public qvd::HostExtensions {
public:
    BenchKey()
    {
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> d(-0.3f, 0.3f);
        for (float& x : m_noise)
            x = d(rng);
    }
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t, const char*, std::int64_t, float* const* channels, std::int32_t count,
                    std::int32_t frames) override
    {
        const bool on = (m_calls++ / 50) % 2 == 0;
        for (std::int32_t c = 0; c < count; ++c) {
            if (on)
                std::memcpy(channels[c], m_noise, static_cast<std::size_t>(frames) * sizeof(float));
            else
                std::memset(channels[c], 0, static_cast<std::size_t>(frames) * sizeof(float));
        }
        return true;
    }

private:
    float m_noise[qvd::bench::PluginBenchDriver::kFrames * 16] = {};
    std::uint64_t m_calls = 0;
};

void BM_Ducker(benchmark::State& state)
{
    static BenchKey key;
    auto* registry = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface());
    registry->setHostExtensions(&key);
    qvd::bench::PluginBenchDriver ducker("Ducker:1364608085", static_cast<int>(state.range(0)), 0.5f);
    registry->setHostExtensions(nullptr);
    ducker.set(6, state.range(1) ? 1.0f : 0.0f); // key filter
    ducker.run(state);
    state.SetLabel(state.range(1) ? "key filter" : "wide key");
}
BENCHMARK(BM_Ducker)->Args({2, 0})->Args({2, 1})->Args({1, 0});

} // namespace
