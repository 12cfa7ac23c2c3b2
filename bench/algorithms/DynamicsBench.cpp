// Dynamics blocks on stereo 512-frame blocks at 48 kHz. The per_frame counter
// is the CPU time per frame (shown as seconds with an SI prefix: 4.2n = 4.2 ns).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <Algorithms/Compressor.h>
#include <Algorithms/DePop.h>
#include <Algorithms/Expander.h>
#include <Algorithms/LevelTracker.h>
#include <Algorithms/RmsCompressor.h>

namespace {

constexpr int kFrames = 512;
constexpr float kRate = 48000.0f;

struct Stereo {
    std::vector<float> l, r, keyL, keyR;
    Stereo() : l(kFrames), r(kFrames), keyL(kFrames), keyR(kFrames)
    {
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        for (int i = 0; i < kFrames; ++i) {
            l[static_cast<std::size_t>(i)] = u(rng);
            r[static_cast<std::size_t>(i)] = u(rng);
            keyL[static_cast<std::size_t>(i)] = u(rng);
            keyR[static_cast<std::size_t>(i)] = u(rng);
        }
    }
};

void perFrame(benchmark::State& state)
{
    state.counters["per_frame"] = benchmark::Counter(static_cast<double>(state.iterations()) * kFrames,
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The audio is processed again and again in place; the compressor's gain
// stays near unity around these levels, so the data never decays to nothing.
template <class Block>
void runStereo(benchmark::State& state, Block& block, Stereo& s)
{
    float* chans[] = {s.l.data(), s.r.data(), s.keyL.data(), s.keyR.data()};
    for (auto _ : state) {
        block.processChannels(chans, kFrames);
        benchmark::ClobberMemory();
    }
    perFrame(state);
}

void BM_Compressor_LinkedStereo(benchmark::State& state)
{
    Compressor c;
    qvd::dynamics::Variant v[4];
    const int n = qvd::dynamics::supportedVariants(v, 4);
    if (state.range(0) >= n) {
        state.SkipWithError("variant not supported here");
        return;
    }
    c.setVariant(v[state.range(0)]);
    state.SetLabel(v[state.range(0)].name);
    c.initialise(kRate, 2);
    c.setParameter(Compressor::THRES, -20.0f);
    c.setParameter(Compressor::RATIO, 4.0f);
    c.setParameter(Compressor::MAKEUP_GAIN, 12.0f);
    c.setParameter(Compressor::SIDECHAIN_ON, static_cast<float>(state.range(1)));
    Stereo s;
    runStereo(state, c, s);
}
BENCHMARK(BM_Compressor_LinkedStereo)->ArgsProduct({{0, 1}, {0, 1}})->ArgNames({"variant", "sidechain"});

void BM_Compressor_InterleavedStereo(benchmark::State& state)
{
    Compressor c;
    c.initialise(kRate, 1);
    c.setInterleavedChannels(2);
    c.setParameter(Compressor::THRES, -20.0f);
    c.setParameter(Compressor::MAKEUP_GAIN, 6.0f);
    std::vector<float> x(2 * kFrames);
    std::mt19937 rng(2);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (float& v : x)
        v = u(rng);
    float* chans[] = {x.data()};
    for (auto _ : state) {
        c.processChannels(chans, kFrames);
        benchmark::ClobberMemory();
    }
    state.SetLabel(c.variantName());
    perFrame(state);
}
BENCHMARK(BM_Compressor_InterleavedStereo);

// Expander, RmsCompressor and LevelTracker: linked stereo, per kernel variant.
template <class Block>
void BM_LinkedStereo(benchmark::State& state)
{
    Block block;
    qvd::dynamics::Variant v[4];
    const int n = qvd::dynamics::supportedVariants(v, 4);
    if (state.range(0) >= n) {
        state.SkipWithError("variant not supported here");
        return;
    }
    block.setVariant(v[state.range(0)]);
    state.SetLabel(v[state.range(0)].name);
    block.initialise(kRate, 2);
    Stereo s;
    runStereo(state, block, s);
}
BENCHMARK(BM_LinkedStereo<Expander>)->DenseRange(0, 1)->ArgName("variant");
BENCHMARK(BM_LinkedStereo<RmsCompressor>)->DenseRange(0, 1)->ArgName("variant");
BENCHMARK(BM_LinkedStereo<LevelTracker>)->DenseRange(0, 1)->ArgName("variant");

// DePop gliding over a jump in every block (the slowest case it has).
void BM_DePop_Stereo(benchmark::State& state)
{
    DePop d;
    d.initialise(kRate, 2);
    d.setParameter(DePop::JUMP, -20.0f);
    Stereo s;
    runStereo(state, d, s);
}
BENCHMARK(BM_DePop_Stereo);

} // namespace
