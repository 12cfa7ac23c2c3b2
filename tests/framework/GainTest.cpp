#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
#include <random>

#include <QVDGain.h>
#include <System/twa_cpuinfo_x86.h>
#include <System/twa_dispatch.h>
#include <SmoothingCoefficient.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr const char* kGainKey = "Gain:1364608878";

struct Gain {
    Gain()
        : instance(static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())->createPlugin(qvd::kAudioPlugin, kGainKey)),
          plugin(dynamic_cast<QVDGain*>(instance))
    {
    }
    ~Gain() { instance->destroy(); }
    AudioPlugin* audio() const { return instance->getAudioInterface(); }
    bool prepare(float rate, int block, int channels, bool smoothing)
    {
        const qvd::PrepareConfig config{qvd::formatForChannels(channels), qvd::formatForChannels(channels),
                                        smoothing ? 1 : 0, 0};
        return audio()->prepare(rate, block, &config);
    }
    qvd::PluginInstance* instance;
    QVDGain* plugin;
};

std::vector<std::vector<float>> noise(int channels, std::size_t frames, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f);
    std::vector<std::vector<float>> v(static_cast<std::size_t>(channels), std::vector<float>(frames));
    for (auto& ch : v)
        for (auto& x : ch)
            x = d(rng);
    return v;
}

std::vector<float*> pointers(std::vector<std::vector<float>>& v)
{
    std::vector<float*> p;
    for (auto& ch : v)
        p.push_back(ch.data());
    return p;
}

TEST(Gain, DecibelsBecomeLinearTargetsNeverZeroNorInfinite)
{
    Gain g;
    g.instance->setParameter(0, -48.0f);
    EXPECT_NEAR(g.plugin->targetGain(0), 0.003981, 1e-6);
    g.instance->setParameter(0, 48.0f);
    EXPECT_NEAR(g.plugin->targetGain(35), 251.19, 0.01);
    g.instance->setParameter(0, -1e38f);
    EXPECT_EQ(g.plugin->targetGain(0), FLT_MIN);
    g.instance->setParameter(0, std::numeric_limits<float>::infinity());
    EXPECT_EQ(g.plugin->targetGain(0), FLT_MAX);
    g.instance->setParameter(0, 6.0f);
    const float six = g.plugin->targetGain(0);
    // A NaN keeps the gain it had, though the value slot holds what was set.
    g.instance->setParameter(0, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(g.plugin->targetGain(0), six);
    EXPECT_TRUE(std::isnan(g.instance->getParameter(0)));
}

TEST(Gain, SmoothingCoefficientsFollowTheRate)
{
    Gain g;
    ASSERT_TRUE(g.prepare(48000.0f, 512, 2, true));
    const SmoothingCoefficient& c = SmoothingCoefficient::shared200ms();
    EXPECT_EQ(c.timeConstantMs(), 200);
    EXPECT_NEAR(c.computedA(), std::exp(-2.0 * std::numbers::pi / 9600.0), 1e-15);
    EXPECT_EQ(c.computedB(), 1.0 - c.computedA());
    EXPECT_EQ(c.a(), c.computedA());
    ASSERT_TRUE(g.prepare(48000.0f, 512, 2, false));
    EXPECT_EQ(c.a(), 0.0);
    EXPECT_EQ(c.b(), 1.0);
}

class GainSmoothing : public testing::TestWithParam<int> {};

TEST_P(GainSmoothing, AStepCoversAllButEToTheMinusTwoPiIn200ms)
{
    const int rate = GetParam();
    Gain g;
    ASSERT_TRUE(g.prepare(static_cast<float>(rate), 480, 1, true));
    const int frames = rate / 5; // exactly 200 ms
    std::vector<float> ones(static_cast<std::size_t>(frames), 1.0f);
    // The first block after prepare resets the state to the target; the step comes after it.
    float* first[1] = {ones.data()};
    g.audio()->process(nullptr, first, first, 480);
    EXPECT_EQ(ones[479], 1.0f);
    std::fill(ones.begin(), ones.end(), 1.0f);
    g.instance->setParameter(0, 20.0f); // target 10 from state 1
    for (int done = 0; done < frames; done += 480) {
        float* io[1] = {ones.data() + done};
        g.audio()->process(nullptr, io, io, std::min(480, frames - done));
    }
    const double covered = (ones.back() - 1.0) / 9.0;
    EXPECT_NEAR(covered, 1.0 - std::exp(-2.0 * std::numbers::pi), 1e-4);
    EXPECT_NEAR(covered, 0.9981, 1e-4);
    // The ramp rises monotonically: no overshoot, no zipper steps backwards.
    for (std::size_t n = 1; n < ones.size(); ++n)
        ASSERT_GE(ones[n], ones[n - 1]) << n;
}
INSTANTIATE_TEST_SUITE_P(Rates, GainSmoothing, testing::Values(44100, 48000, 96000));

TEST(Gain, WithoutSmoothingTheNextBlockIsAtTheNewGainExactly)
{
    Gain g;
    ASSERT_TRUE(g.prepare(48000.0f, 256, 2, false));
    auto signal = noise(2, 256, 3);
    auto out = signal;
    auto io = pointers(out);
    g.audio()->process(nullptr, io.data(), io.data(), 256);
    EXPECT_EQ(out, signal); // 0 dB

    g.instance->setParameter(0, -9.5f);
    const float target = static_cast<float>(std::pow(10.0, -9.5 / 20.0));
    out = signal;
    g.audio()->process(nullptr, io.data(), io.data(), 256);
    for (std::size_t c = 0; c < 2; ++c)
        for (std::size_t n = 0; n < 256; ++n)
            ASSERT_EQ(out[c][n], signal[c][n] * target) << c << " " << n;
}

TEST(Gain, AResetStartsAtTheTargetInsteadOfGliding)
{
    Gain g;
    ASSERT_TRUE(g.prepare(48000.0f, 64, 1, true));
    std::vector<float> buf(64, 1.0f);
    float* io[1] = {buf.data()};
    qvd::BlockRecord block{};
    block.sequence = 1;
    g.audio()->process(&block, io, io, 64);
    g.instance->setParameter(0, -20.0f);
    std::fill(buf.begin(), buf.end(), 1.0f);
    g.audio()->process(&block, io, io, 64);
    EXPECT_GT(buf[63], 0.5f); // still gliding
    // A seek: the host arms a reset and starts a new sequence.
    g.audio()->requestReset();
    block.sequence = 2;
    std::fill(buf.begin(), buf.end(), 1.0f);
    g.audio()->process(&block, io, io, 64);
    EXPECT_EQ(buf[0], g.plugin->targetGain(0));
}

TEST(Gain, MetersShowInputPeakAndTargetTimesPeak)
{
    Gain g;
    ASSERT_TRUE(g.prepare(48000.0f, 64, 2, true));
    g.instance->setParameter(0, -6.0f);
    std::vector<std::vector<float>> signal(2, std::vector<float>(64, 0.0f));
    signal[0][10] = -0.5f;
    signal[1][63] = 0.25f;
    signal[1][20] = std::numeric_limits<float>::quiet_NaN(); // ignored by the meter
    auto out = signal;
    auto in = pointers(signal);
    auto o = pointers(out);
    g.audio()->process(nullptr, in.data(), o.data(), 64);
    EXPECT_EQ(g.plugin->meterLevel(QVDGain::kInputMeter, 0), 0.5f);
    EXPECT_EQ(g.plugin->meterLevel(QVDGain::kInputMeter, 1), 0.25f);
    EXPECT_EQ(g.plugin->meterLevel(QVDGain::kOutputMeter, 0), g.plugin->targetGain(0) * 0.5f);
    double db[2];
    g.instance->getMeterValues(QVDGain::kInputMeter, db, 2);
    EXPECT_NEAR(db[0], -6.0206, 1e-3);
    g.instance->getMeterValues(QVDGain::kOutputMeter, db, 2);
    EXPECT_NEAR(db[0], -12.0206, 1e-3);
}

TEST(Gain, OutputsWithoutAnInputAreSilentAndLargeGainsAreNotClipped)
{
    Gain g;
    const qvd::PrepareConfig config{qvd::kFormatMono, qvd::kFormatStereo, 0, 0};
    ASSERT_TRUE(g.audio()->prepare(48000.0f, 32, &config));
    g.instance->setParameter(0, 48.0f);
    std::vector<float> in(32, 0.5f), left(32, 3.0f), right(32, 3.0f);
    const float* ins[1] = {in.data()};
    float* outs[2] = {left.data(), right.data()};
    g.audio()->process(nullptr, ins, outs, 32);
    EXPECT_NEAR(left[31], 125.59f, 0.01f);
    for (const float v : right)
        ASSERT_EQ(v, 0.0f);
}

// Every kernel variant against the reference, bit for bit, in place and not.
TEST(GainKernels, EveryVariantMatchesTheReferenceExactly)
{
    const auto variants = twa::RunnableVariants(qvd::gain::variants());
    const int count = static_cast<int>(variants.size());
    ASSERT_GE(count, 2);
    EXPECT_STREQ(variants[0].name, "ref");
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> gain(0.001, 4.0);
    const int frameCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 15, 31, 32, 33, 64, 65, 999};
    for (const int channels : {1, 2, 3, 4, 5, 8, 9, 36, 70}) {
        for (const int frames : frameCounts) {
            auto input = noise(channels, static_cast<std::size_t>(frames) + 2, static_cast<unsigned>(channels * 1000 + frames));
            std::vector<double> bt(static_cast<std::size_t>(channels)), state0(bt.size());
            for (std::size_t c = 0; c < bt.size(); ++c) {
                bt[c] = 0.00065 * gain(rng);
                state0[c] = gain(rng);
            }
            std::vector<float> pad(static_cast<std::size_t>(frames) + 4, 0.0f), padOut(pad.size());
            std::vector<std::vector<float>> expected;
            std::vector<double> expectedState;
            std::vector<float> expectedPeak;
            for (int v = 0; v < count; ++v) {
                for (const bool inPlace : {false, true}) {
                    SCOPED_TRACE(testing::Message() << variants[v].name << " channels " << channels << " frames "
                                                    << frames << (inPlace ? " in place" : ""));
                    // Offset by one float so no buffer is 16-byte aligned.
                    std::vector<std::vector<float>> out(input.size(), std::vector<float>(input[0].size(), -7.0f));
                    if (inPlace)
                        out = input;
                    std::vector<const float*> in;
                    std::vector<float*> o;
                    for (std::size_t c = 0; c < input.size(); ++c) {
                        in.push_back((inPlace ? out[c].data() : input[c].data()) + 1);
                        o.push_back(out[c].data() + 1);
                    }
                    std::vector<double> state = state0;
                    std::vector<float> peak(bt.size(), 0.0f);
                    const qvd::gain::KernelArgs args{in.data(), o.data(),    channels,     frames,     0.99934,
                                                     bt.data(), state.data(), peak.data(), pad.data(), padOut.data()};
                    variants[v].fn(args);
                    // Guard words around the written range are untouched.
                    for (std::size_t c = 0; c < out.size(); ++c) {
                        ASSERT_EQ(out[c][0], inPlace ? input[c][0] : -7.0f);
                        ASSERT_EQ(out[c][static_cast<std::size_t>(frames) + 1],
                                  inPlace ? input[c][static_cast<std::size_t>(frames) + 1] : -7.0f);
                    }
                    if (expected.empty()) {
                        expected = out;
                        expectedState = state;
                        expectedPeak = peak;
                        continue;
                    }
                    ASSERT_EQ(state, expectedState);
                    ASSERT_EQ(peak, expectedPeak);
                    for (std::size_t c = 0; c < out.size(); ++c)
                        ASSERT_EQ(std::memcmp(out[c].data() + 1, expected[c].data() + 1,
                                              static_cast<std::size_t>(frames) * sizeof(float)),
                                  0);
                }
            }
        }
    }
}

// Gliding, settled at the recursion's fixed point (where the fast variants
// skip it), gliding again after a change and settled again: every variant
// gives the reference's output bit for bit throughout.
TEST(GainKernels, ThePluginGivesTheSameResultWithEveryVariant)
{
    const auto variants = twa::RunnableVariants(qvd::gain::variants());
    constexpr int kFrames = 48000 * 3, kBlock = 480;
    std::vector<std::vector<float>> reference;
    for (std::size_t v = 0; v < variants.size(); ++v) {
        Gain g;
        g.plugin->setKernel(variants[v]);
        ASSERT_TRUE(g.prepare(48000.0f, kBlock, 36, true));
        auto signal = noise(36, kFrames, 6);
        auto io = pointers(signal);
        bool settledSeen = false;
        for (int done = 0; done < kFrames; done += kBlock) {
            if (done == 4800 || done == 48000 * 2)
                g.instance->setParameter(0, done == 4800 ? -20.0f : 7.5f);
            std::vector<float*> p;
            for (auto* ch : io)
                p.push_back(ch + done);
            g.audio()->process(nullptr, p.data(), p.data(), kBlock);
            const SmoothingCoefficient& k = SmoothingCoefficient::shared200ms();
            const double s = g.plugin->smoothedGain(0);
            settledSeen = settledSeen || k.a() * s + k.b() * static_cast<double>(g.plugin->targetGain(0)) == s;
        }
        EXPECT_TRUE(settledSeen) << "the state never reached its fixed point: the fast path went untested";
        if (v == 0)
            reference = signal;
        else
            EXPECT_EQ(signal, reference) << variants[v].name;
    }
}

} // namespace
