// Parameters set from a control thread while the audio thread processes: the
// output stays finite and the blocks keep working. Built with
// -fsanitize=thread this also shows that no value crosses without an atomic.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <Algorithms/Compressor.h>
#include <Algorithms/DePop.h>
#include <Algorithms/Delay.h>
#include <Algorithms/Expander.h>
#include <Algorithms/LFO.h>
#include <Algorithms/LevelTracker.h>
#include <Algorithms/RmsCompressor.h>

#include "AlgorithmTestSupport.h"

using namespace algtest;

namespace {

// Sets random in-range values on every parameter until told to stop.
void twiddle(QVDAudioAlgorithm& block, std::atomic<bool>& stop, std::uint32_t seed)
{
    std::mt19937 rng(seed);
    while (!stop.load()) {
        for (const QVDParameterEntry& e : block.parameters()) {
            const auto& d = e.definition();
            std::uniform_real_distribution<float> u(d.minimum, d.maximum);
            block.setParameter(static_cast<std::uint32_t>(d.index), u(rng));
        }
    }
}

template <class Block>
void processWhileSetting()
{
    SmoothingOff off;
    Block block;
    block.initialise(kRate, 2);
    std::atomic<bool> stop{false};
    std::thread control(twiddle, std::ref(block), std::ref(stop), 7u);
    auto l = noise(512, 0.7f, 1), r = noise(512, 0.7f, 2);
    bool finite = true;
    for (int n = 0; n < 400; ++n) {
        auto a = l, b = r;
        float* chans[] = {a.data(), b.data(), l.data(), r.data()};
        ASSERT_TRUE(block.processChannels(chans, 512));
        finite = finite && allFinite(a) && allFinite(b);
        if (n == 200)
            SmoothingCoefficient::enableAll(true);
    }
    stop.store(true);
    control.join();
    EXPECT_TRUE(finite);
}

} // namespace

TEST(Concurrency, CompressorWhileSetting) { processWhileSetting<Compressor>(); }
TEST(Concurrency, ExpanderWhileSetting) { processWhileSetting<Expander>(); }
TEST(Concurrency, RmsCompressorWhileSetting) { processWhileSetting<RmsCompressor>(); }
TEST(Concurrency, LevelTrackerWhileSetting) { processWhileSetting<LevelTracker>(); }
TEST(Concurrency, DePopWhileSetting) { processWhileSetting<DePop>(); }
TEST(Concurrency, DelayWhileSetting) { processWhileSetting<Delay>(); }

TEST(Concurrency, LFOWhileSetting)
{
    SmoothingOff off;
    LFO lfo;
    lfo.initialise(kRate, 2);
    std::atomic<bool> stop{false};
    std::thread control(twiddle, std::ref(lfo), std::ref(stop), 9u);
    bool finite = true;
    for (int n = 0; n < 200000; ++n) {
        finite = finite && std::isfinite(lfo.nextValue()) && std::isfinite(lfo.alternativeValue());
        if (n == 100000)
            SmoothingCoefficient::enableAll(true);
    }
    stop.store(true);
    control.join();
    EXPECT_TRUE(finite);
}
