#include <gtest/gtest.h>

#include <Algorithms/MultiChannelSample.h>
#include <QVDAudioAlgorithm.h>

#include "AssertCatcher.h"

namespace {

// A block with two parameters that counts the setter calls initialise makes.
class CountingBlock : public QVDAudioAlgorithm {
public:
    static std::vector<QVDParameterDefinition> table()
    {
        QVDParameterDefinition a;
        a.index = 0;
        a.identifier = QStringLiteral("Counting::A");
        a.defaultValue = 1.5f;
        QVDParameterDefinition b = a;
        b.index = 1;
        b.identifier = QStringLiteral("Counting::B");
        b.defaultValue = -2.0f;
        return {a, b};
    }
    CountingBlock() : QVDAudioAlgorithm(table()) {}
    bool setParameter(std::uint32_t index, float value) override
    {
        calls.push_back(index);
        return QVDAudioAlgorithm::setParameter(index, value);
    }
    void update() override {}
    void reset() override {}
    std::vector<std::uint32_t> calls;
};

TEST(AudioAlgorithm, InitialiseTruncatesTheRateAndReappliesEveryDefaultInOrder)
{
    CountingBlock block;
    block.setParameter(0, 9.0f);
    block.calls.clear();
    EXPECT_TRUE(block.initialise(44100.9f, 3));
    EXPECT_EQ(block.sampleRate(), 44100);
    EXPECT_EQ(block.channelCount(), 3);
    EXPECT_EQ(block.calls, (std::vector<std::uint32_t>{0, 1}));
    EXPECT_EQ(block.getParameter(0), 1.5f);
    EXPECT_EQ(block.getParameter(1), -2.0f);
    // The plain setters only store.
    block.calls.clear();
    EXPECT_TRUE(block.setSampleRate(96000));
    EXPECT_TRUE(block.setChannelCount(6));
    EXPECT_EQ(block.sampleRate(), 96000);
    EXPECT_EQ(block.channelCount(), 6);
    EXPECT_TRUE(block.calls.empty());
}

TEST(AudioAlgorithm, OutOfRangeIndicesAreRefusedWithoutChange)
{
    CountingBlock block;
    EXPECT_FALSE(block.setParameter(2, 1.0f));
    EXPECT_EQ(block.getParameter(2), 0.0f);
    EXPECT_EQ(block.getParameter(0xffffffffu), 0.0f);
    EXPECT_EQ(block.getParameter(0), 1.5f);
    EXPECT_EQ(block.readOut(0), 0.0f);
    EXPECT_EQ(block.readOut(123), 0.0f);
}

TEST(AudioAlgorithm, UndefinedProcessingIsRefusedAndReported)
{
    CountingBlock block;
    float samples[4] = {1, 2, 3, 4};
    float* channels[1] = {samples};
    qvd::test::AssertCatcher capture;
    capture.reset();
    EXPECT_FALSE(block.processChannel(0, samples, 4));
    EXPECT_FALSE(block.processChannels(channels, 4));
    EXPECT_EQ(samples[3], 4.0f);
    if (twa::debug::kAssertsEnabled) {
        ASSERT_EQ(capture.count(), 2u);
        EXPECT_EQ(capture.condition(0), "0");
        EXPECT_EQ(capture.file(0), "Common/QVDAudioAlgorithm.cpp");
    } else {
        EXPECT_TRUE((capture.count() == 0));
    }
}

TEST(MultiChannelSample, FillsFromARangeAndZeroesTheRest)
{
    const float values[3] = {0.5f, -1.0f, 2.0f};
    const MultiChannelSample<4> frame(values, values + 3);
    EXPECT_EQ(frame[0], 0.5f);
    EXPECT_EQ(frame[2], 2.0f);
    EXPECT_EQ(frame[3], 0.0f);
}

TEST(MultiChannelSample, ARangeLongerThanTheFrameIsAContractFailure)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    qvd::test::AssertCatcher capture;
    capture.reset();
    const float values[5] = {1, 2, 3, 4, 5};
    const MultiChannelSample<4> frame(values, values + 5);
    ASSERT_EQ(capture.count(), 1u);
    EXPECT_EQ(capture.condition(0), "e<=b+N");
    EXPECT_EQ(capture.file(0), "Common/Algorithms/MultiChannelSample.h");
    // Carries on with what fits.
    EXPECT_EQ(frame[3], 4.0f);
}

} // namespace
