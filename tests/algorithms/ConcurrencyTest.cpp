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

// Runs `audio` (true while finite) 2 x `rounds` times, smoothing switched on
// halfway, while another thread sets random in-range values on every parameter.
template <class Audio>
void whileSetting(QVDAudioAlgorithm& block, int rounds, Audio audio)
{
    SmoothingOff off;
    block.initialise(kRate, 2);
    std::atomic<bool> stop{false};
    std::thread control([&] {
        std::mt19937 rng(7);
        while (!stop.load())
            for (const QVDParameterEntry& e : block.parameters()) {
                const auto& d = e.definition();
                block.setParameter(static_cast<std::uint32_t>(d.index),
                                   std::uniform_real_distribution<float>(d.minimum, d.maximum)(rng));
            }
    });
    bool finite = true;
    for (int n = 0; n < 2 * rounds; ++n) {
        finite = audio() && finite;
        if (n == rounds)
            SmoothingCoefficient::enableAll(true);
    }
    stop.store(true);
    control.join();
    EXPECT_TRUE(finite);
}

template <class Block>
class Concurrency : public testing::Test {};
using Blocks = testing::Types<Compressor, Expander, RmsCompressor, LevelTracker, DePop, Delay>;
TYPED_TEST_SUITE(Concurrency, Blocks);

} // namespace

TYPED_TEST(Concurrency, ProcessWhileSetting)
{
    TypeParam block;
    const auto l = noise(512, 0.7f, 1), r = noise(512, 0.7f, 2);
    whileSetting(block, 200, [&] {
        auto a = l, b = r, kl = l, kr = r;
        float* chans[] = {a.data(), b.data(), kl.data(), kr.data()};
        return block.processChannels(chans, 512) && allFinite(a) && allFinite(b);
    });
}

TEST(LFOConcurrency, ValuesWhileSetting)
{
    LFO lfo;
    whileSetting(lfo, 100000, [&] { return std::isfinite(lfo.nextValue()) && std::isfinite(lfo.alternativeValue()); });
}
