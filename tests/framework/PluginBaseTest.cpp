#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <QVDPluginInterfaceImpl.h>

#include "PluginFixture.h"
#include "TestDelayPlugin.h"

namespace {

// The test delay as a host sees it, with its recorders at hand.
struct Instance : qvd::test::PluginFixture {
    Instance() : PluginFixture(QVDTestDelay::kKey), instance(PluginFixture::instance()) {}
    QVDTestDelay* delay() const { return dynamic_cast<QVDTestDelay*>(instance); }
    qvd::PluginInstance* instance;
};

constexpr int kBlock = 64;

TEST(PluginBase, PrepareRefusesBadRatesAndBlockSizes)
{
    Instance p;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const float rate : {0.0f, -48000.0f, nan, std::numeric_limits<float>::infinity(), 0.5f})
        EXPECT_FALSE(p.audio()->prepare(rate, kBlock, nullptr)) << rate;
    for (const std::int32_t size : {0, -1, AudioPlugin::kMaxBlockSize + 1})
        EXPECT_FALSE(p.audio()->prepare(48000.0f, size, nullptr)) << size;
    // An unprepared plugin refuses to process and writes silence.
    std::vector<float> in(kBlock, 1.0f), out(kBlock, 7.0f);
    const float* ins[2] = {in.data(), in.data()};
    float* outs[2] = {out.data(), out.data()};
    EXPECT_FALSE(p.audio()->process(nullptr, ins, outs, kBlock));
    EXPECT_EQ(out[0], 0.0f);

    EXPECT_TRUE(p.audio()->prepare(44100.9f, kBlock, nullptr));
    EXPECT_EQ(p.audio()->sampleRate(), 44100);
    EXPECT_EQ(p.audio()->blockSize(), kBlock);
}

TEST(PluginBase, ChannelFormatsWithinTheDescriptorAreAcceptedOthersRefused)
{
    Instance p; // descriptor: 4 in, 4 out
    EXPECT_EQ(p.audio()->inputChannelCount(), 2);
    EXPECT_TRUE(p.audio()->setChannelFormats(qvd::kFormatMono, qvd::kFormatQuad));
    EXPECT_EQ(p.audio()->inputChannelCount(), 1);
    EXPECT_EQ(p.audio()->outputChannelCount(), 4);
    EXPECT_TRUE(p.audio()->setChannelFormats(qvd::discreteFormat(3), qvd::ambisonicFormat(1)));
    EXPECT_EQ(p.audio()->inputChannelCount(), 3);
    EXPECT_EQ(p.audio()->outputChannelCount(), 4);
    // Too many channels, or an unknown code: refused, nothing changes.
    EXPECT_FALSE(p.audio()->setChannelFormats(qvd::kFormat51, qvd::kFormatStereo));
    EXPECT_FALSE(p.audio()->setChannelFormats(qvd::kFormatStereo, 0x7777));
    EXPECT_FALSE(p.audio()->setChannelFormats(qvd::discreteFormat(0), qvd::kFormatStereo));
    EXPECT_EQ(p.audio()->inputChannelCount(), 3);
    EXPECT_EQ(p.audio()->outputChannelCount(), 4);
    EXPECT_EQ(QVDAudioPluginImpl::channelName(true, 0), QStringLiteral("In 1"));
    EXPECT_EQ(QVDAudioPluginImpl::channelName(false, 11), QStringLiteral("Out 12"));

    EXPECT_EQ(qvd::channelCountOf(qvd::ambisonicFormat(5)), 36);
    EXPECT_EQ(qvd::channelCountOf(qvd::ambisonicFormat(8)), -1);
    EXPECT_EQ(qvd::channelCountOf(qvd::discreteFormat(65)), -1);
    // Prepare applies the formats it is given the same way; "keep" keeps.
    const qvd::PrepareConfig mono{qvd::kFormatMono, qvd::kFormatKeep, -1, 0};
    EXPECT_TRUE(p.audio()->prepare(48000.0f, kBlock, &mono));
    EXPECT_EQ(p.audio()->inputChannelCount(), 1);
    EXPECT_EQ(p.audio()->outputChannelCount(), 4);
    const qvd::PrepareConfig tooWide{qvd::kFormat71, qvd::kFormat71, -1, 0};
    EXPECT_FALSE(p.audio()->prepare(48000.0f, kBlock, &tooWide));
}

TEST(PluginBase, ResetRunsOnANewSequenceOnlyWhenPendingAndPreRollsTheLatency)
{
    Instance p;
    QVDTestDelay* d = p.delay();
    ASSERT_TRUE(p.audio()->prepare(48000.0f, kBlock, nullptr));
    const int resetsAtPrepare = d->resets;
    std::vector<float> buf(kBlock, 0.5f);
    float* io[2] = {buf.data(), buf.data()};
    qvd::BlockRecord block{};
    block.sequence = 7;

    // First block after prepare: reset, then exactly the latency in silence.
    p.audio()->process(&block, io, io, kBlock);
    EXPECT_EQ(d->resets, resetsAtPrepare + 1);
    EXPECT_EQ(d->preRollFrames, static_cast<std::int64_t>(QVDTestDelay::kLatency));
    EXPECT_EQ(d->preRollCalls, 2); // 100 frames in chunks of at most 64
    EXPECT_EQ(d->blockFrames.back(), kBlock);

    // The same sequence never resets, even when a reset is requested.
    p.audio()->requestReset();
    EXPECT_FALSE(p.audio()->needsReset(7));
    p.audio()->process(&block, io, io, kBlock);
    EXPECT_EQ(d->resets, resetsAtPrepare + 1);

    // A new sequence without a pending reset does not reset either.
    block.sequence = 8;
    p.audio()->process(&block, io, io, kBlock);
    EXPECT_EQ(d->resets, resetsAtPrepare + 1);

    // Pending and new: reset and pre-roll again.
    p.audio()->requestReset();
    EXPECT_TRUE(p.audio()->needsReset(9));
    block.sequence = 9;
    p.audio()->process(&block, io, io, kBlock);
    EXPECT_EQ(d->resets, resetsAtPrepare + 2);
    EXPECT_EQ(d->preRollFrames, 2 * static_cast<std::int64_t>(QVDTestDelay::kLatency));
}

TEST(PluginBase, FrameCountZeroMeansTheBlockSizeAndLongBlocksAreChunked)
{
    Instance p;
    ASSERT_TRUE(p.audio()->prepare(48000.0f, kBlock, nullptr));
    const auto signal = qvd::test::noise(1, 1000, 1)[0];
    const float* in[2] = {signal.data(), signal.data()};
    std::vector<float> left(1000), right(1000);
    float* out[2] = {left.data(), right.data()};
    EXPECT_TRUE(p.audio()->process(nullptr, in, out, 1000));
    EXPECT_EQ(p.delay()->blockFrames.size(), 16u); // ceil(1000 / 64)
    std::vector<float> expected(QVDTestDelay::kLatency, 0.0f);
    expected.insert(expected.end(), signal.begin(), signal.end() - QVDTestDelay::kLatency);
    EXPECT_EQ(left, expected);
    EXPECT_EQ(right, expected);

    p.delay()->blockFrames.clear();
    EXPECT_TRUE(p.audio()->process(nullptr, in, out, 0));
    ASSERT_EQ(p.delay()->blockFrames.size(), 1u);
    EXPECT_EQ(p.delay()->blockFrames[0], kBlock);
}

TEST(PluginBase, BadBuffersAreRefusedWithSilence)
{
    Instance p;
    ASSERT_TRUE(p.audio()->prepare(48000.0f, kBlock, nullptr));
    std::vector<float> in(kBlock, 1.0f), out(kBlock, 5.0f);
    const float* ins[2] = {in.data(), nullptr};
    float* outs[2] = {out.data(), out.data()};
    EXPECT_FALSE(p.audio()->process(nullptr, ins, outs, kBlock));
    EXPECT_EQ(out[kBlock - 1], 0.0f);
    EXPECT_FALSE(p.audio()->process(nullptr, nullptr, outs, kBlock));
    EXPECT_FALSE(p.audio()->process(nullptr, ins, nullptr, kBlock));
    const float* good[2] = {in.data(), in.data()};
    EXPECT_FALSE(p.audio()->process(nullptr, good, outs, -5));
}

TEST(PluginBase, MetersReadInDecibelsWithASilenceFloor)
{
    Instance p;
    EXPECT_EQ(p.instance->meterGroupCount(), 1);
    EXPECT_STREQ(p.instance->meterGroupName(0), "Levels");
    EXPECT_EQ(p.instance->meterGroupName(1), nullptr);
    EXPECT_EQ(p.instance->getMeterValues(0, nullptr, 0), 4);
    EXPECT_EQ(p.instance->getMeterValues(1, nullptr, 0), 0);
    EXPECT_EQ(p.instance->getMeterValues(-1, nullptr, 0), 0);

    QVDTestDelay* d = p.delay();
    const float levels[4] = {0.0f, 2.0f, 0.5f, 1e-6f};
    const double want[4] = {-100.0, 0.0, -6.0206, -100.0}; // clipped at 0 dB, floored at -100
    double db[4];
    for (int i = 0; i < 4; ++i)
        d->setLevel(i, levels[i]);
    ASSERT_EQ(p.instance->getMeterValues(0, db, 4), 4);
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(db[i], want[i], 1e-4) << i;
    d->setLevel(0, std::numeric_limits<float>::quiet_NaN());
    double two[2] = {1, 1};
    EXPECT_EQ(p.instance->getMeterValues(0, two, 2), 4); // size reported, only 2 written
    EXPECT_EQ(two[0], -100.0);
}

// Index refusals and bypass are checked for every registered plugin by the
// conformance harness; here, the ways in by value and by identifier.
TEST(PluginBase, ParametersBySetterValueAndIdentifier)
{
    Instance p;
    EXPECT_TRUE(p.instance->setParameterValue(0, 2.0));
    EXPECT_EQ(p.instance->getParameter(0), 2.0f);
    // The setter does not clamp.
    EXPECT_TRUE(p.instance->setParameter(0, 50.0f));
    EXPECT_EQ(p.instance->getParameter(0), 50.0f);
    EXPECT_EQ(p.audio()->parameterIndex("QVDTestDelay::MODE"), 0);
    EXPECT_EQ(p.audio()->parameterIndex("QVDTestDelay::mode"), -1);
    EXPECT_EQ(p.audio()->parameterIndex(nullptr), -1);
    EXPECT_TRUE(p.audio()->setParameterByIdentifier("QVDTestDelay::MODE", 1.0f));
    EXPECT_EQ(p.instance->getParameter(0), 1.0f);
    EXPECT_FALSE(p.audio()->setParameterByIdentifier("Nope::X", 1.0f));
}

} // namespace
