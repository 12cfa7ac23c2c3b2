// The equaliser at 48 kHz in 512-frame blocks with all six bands in, shelves
// and bells at non-zero gains: through the plugin with each kernel variant.
// "ns/frame" is the cost of one frame of all channels ("ref" runs the bands
// one after another over the block, the others fuse them).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <QVDEq.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr int kFrames = 512;

void BM_Eq(benchmark::State& state)
{
    const int channels = static_cast<int>(state.range(0));
    const auto variants = twa::RunnableVariants(qvd::eq::variants());
    const int count = static_cast<int>(variants.size());
    const int which = static_cast<int>(state.range(1));
    if (which >= count) {
        state.SkipWithError("variant not supported here");
        return;
    }
    auto* instance = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())
                         ->createPlugin(qvd::kAudioPlugin, "Tarnwick EQ:1364608369");
    auto* eq = dynamic_cast<QVDEq*>(instance);
    eq->setKernel(variants[which]);
    const qvd::PrepareConfig config{qvd::formatForChannels(channels), qvd::formatForChannels(channels), 0, 0};
    instance->getAudioInterface()->prepare(48000.0f, kFrames, &config);
    // Low shelf, four bells, high shelf.
    const float gain[6] = {3.0f, 2.0f, -3.0f, 4.0f, -2.0f, 1.5f};
    const float freq[6] = {80.0f, 200.0f, 600.0f, 2000.0f, 6000.0f, 12000.0f};
    const float shape[6] = {0.0f, 1.0f, 1.0f, 1.0f, 1.0f, 3.0f};
    for (int b = 0; b < 6; ++b) {
        instance->setParameter(b * 5 + QVDEq::kGain, gain[b]);
        instance->setParameter(b * 5 + QVDEq::kFreq, freq[b]);
        instance->setParameter(b * 5 + QVDEq::kShape, shape[b]);
        instance->setParameter(b * 5 + QVDEq::kIn, 1.0f);
    }
    std::vector<std::vector<float>> in(static_cast<std::size_t>(channels), std::vector<float>(kFrames));
    std::vector<std::vector<float>> out = in;
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-0.5f, 0.5f);
    std::vector<const float*> ins;
    std::vector<float*> outs;
    for (std::size_t c = 0; c < in.size(); ++c) {
        for (float& x : in[c])
            x = d(rng);
        ins.push_back(in[c].data());
        outs.push_back(out[c].data());
    }
    AudioPlugin* audio = instance->getAudioInterface();
    for (auto _ : state) {
        audio->process(nullptr, ins.data(), outs.data(), kFrames);
        benchmark::ClobberMemory();
    }
    state.SetLabel(eq->kernelName());
    state.counters["ns/frame"] =
        benchmark::Counter(kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    instance->destroy();
}
BENCHMARK(BM_Eq)->ArgsProduct({{2, 6, 16}, {0, 1, 2}});

} // namespace

namespace {

// The kernels alone on stereo, without the plugin's copy and meters.
void BM_EqKernel(benchmark::State& state)
{
    const auto variants = twa::RunnableVariants(qvd::eq::variants());
    const int count = static_cast<int>(variants.size());
    const int which = static_cast<int>(state.range(0));
    if (which >= count) {
        state.SkipWithError("variant not supported here");
        return;
    }
    const float gain[6] = {3.0f, 2.0f, -3.0f, 4.0f, -2.0f, 1.5f};
    const float freq[6] = {80.0f, 200.0f, 600.0f, 2000.0f, 6000.0f, 12000.0f};
    const std::uint32_t kinds[6] = {BiQuad::kLowShelf, BiQuad::kBell, BiQuad::kBell,
                                    BiQuad::kBell,     BiQuad::kBell, BiQuad::kHighShelf};
    std::vector<BiQuadState> states(6 * 2);
    qvd::eq::Band bands[6];
    for (int b = 0; b < 6; ++b)
        bands[b] = {BiQuad::design(kinds[b], 48000.0, freq[b], 1.5, std::pow(10.0, gain[b] / 20.0)),
                    states.data() + 2 * b};
    std::vector<float> left(kFrames), right(kFrames);
    std::mt19937 rng(1);
    std::uniform_real_distribution<float> d(-0.5f, 0.5f);
    for (std::size_t i = 0; i < left.size(); ++i) {
        left[i] = d(rng);
        right[i] = d(rng);
    }
    const std::vector<float> source[2] = {left, right};
    float* channels[2] = {left.data(), right.data()};
    const qvd::eq::KernelArgs args{channels, 2, kFrames, bands, 6};
    for (auto _ : state) {
        // Fresh input each time, so repeated boosts cannot run away.
        std::copy(source[0].begin(), source[0].end(), left.begin());
        std::copy(source[1].begin(), source[1].end(), right.begin());
        variants[which].fn(args);
        benchmark::ClobberMemory();
    }
    state.SetLabel(variants[which].name);
    state.counters["ns/frame"] =
        benchmark::Counter(kFrames * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_EqKernel)->DenseRange(0, 2);

} // namespace
