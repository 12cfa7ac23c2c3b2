// The room reverb plugin from the host's side: parameter names and curves,
// derived room shape, engine choice by rate, hand-over of settings to the
// audio thread, odd blocks at oversampled rates, and the editor.

#include <gtest/gtest.h>


#include <QVDReverb.h>
#include <QVDReverbPanel.h>
#include <qvd/PluginInterface.h>

#include "PluginFixture.h"
#include "QtApp.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

// Allocations above this size fail, to reach the paths that handle it. The
// sanitizers bring their own operator new, so there the test is skipped.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QVD_REPLACED_NEW 0
#else
#define QVD_REPLACED_NEW 1
std::atomic<std::size_t> g_failAbove{SIZE_MAX};

void* operator new(std::size_t size)
{
    if (size > g_failAbove.load(std::memory_order_relaxed))
        throw std::bad_alloc();
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, std::align_val_t align)
{
    if (size > g_failAbove.load(std::memory_order_relaxed))
        throw std::bad_alloc();
    const auto a = static_cast<std::size_t>(align);
    if (void* p = std::aligned_alloc(a, (size + a - 1) / a * a))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p, std::align_val_t) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept
{
    std::free(p);
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

#endif

namespace {

constexpr const char* kKey = "Reverb:1364611682";
using qvd::test::Signal;

struct Reverb : qvd::test::PluginFixture {
    Reverb() : PluginFixture(kKey), instance(PluginFixture::instance()), plugin(dynamic_cast<QVDReverb*>(instance)) {}
    // Runs `in` in place through the plugin in blocks of `block`.
    Signal run(Signal in, int block) { return run(std::move(in), std::vector<int>{block}); }
    // The same with block lengths taken from `blocks` in turn.
    Signal run(Signal in, const std::vector<int>& blocks)
    {
        qvd::BlockRecord record{};
        std::vector<float*> p(in.size());
        std::size_t k = 0;
        for (std::size_t pos = 0; pos < in[0].size(); pos += static_cast<std::size_t>(blocks[k++ % blocks.size()])) {
            const int block = blocks[k % blocks.size()];
            const auto n = static_cast<std::int32_t>(std::min<std::size_t>(block, in[0].size() - pos));
            for (std::size_t c = 0; c < in.size(); ++c)
                p[c] = in[c].data() + pos;
            audio()->process(&record, p.data(), p.data(), n);
        }
        return in;
    }
    qvd::PluginInstance* instance;
    QVDReverb* plugin;
};

Signal noise(std::size_t frames, unsigned seed)
{
    return qvd::test::noise(2, frames, seed);
}

TEST(ReverbPlugin, EveryParameterHasAShortName)
{
    for (int i = 0; i < 22; ++i)
        EXPECT_FALSE(std::wstring(QVDReverb::shortName(i)).empty()) << i;
    EXPECT_EQ(std::wstring(QVDReverb::shortName(6)), L"T@-60dB");
    EXPECT_EQ(std::wstring(QVDReverb::shortName(22)), L"");
    EXPECT_EQ(std::wstring(QVDReverb::shortName(-1)), L"");
}

TEST(ReverbPlugin, CurvesHitTheirStatedPoints)
{
    using R = QVDReverb;
    const struct {
        std::uint32_t index;
        float at0, at1;
    } ends[] = {{R::ROOM_HEIGHT, 2, 10},       {R::ROOM_LENGTH, 3, 30},        {R::ROOM_WIDTH, 4, 40},
                {R::PRE_DELAY, -0.2f, 0.2f},   {R::REVERB_TIME, 0.1f, 4},      {R::DISTANCE, 0.01f, 30},
                {R::BRIGHTNESS, 0.06f, 1},     {R::MODULATION, 0, 100},        {R::EARLY_LOW_FREQ, 150, 500},
                {R::EARLY_HIGH_FREQ, 1000, 16000}, {R::LATE_LOW_GAIN, 0.125f, 2}, {R::DRY_WET, 0, 0.5f},
                {R::DIRECT_GAIN, 0, 2},        {R::LATE_GAIN, 0, 2}};
    for (const auto& e : ends) {
        EXPECT_NEAR(R::settingOf(e.index, 0.0f), e.at0, 1e-4f * std::fabs(e.at0) + 1e-6f) << e.index;
        EXPECT_NEAR(R::settingOf(e.index, 1.0f), e.at1, 1e-4f * std::fabs(e.at1)) << e.index;
        for (const float v : {0.0f, 0.2f, 0.5f, 0.77f, 1.0f})
            EXPECT_NEAR(R::normalisedOf(e.index, R::settingOf(e.index, v)), v, 2e-4f) << e.index << " at " << v;
    }
    // Exactly, not nearly: the ends are the range a user reads, +-200 ms.
    EXPECT_EQ(R::settingOf(R::PRE_DELAY, 0.0f), -0.2f);
    EXPECT_EQ(R::settingOf(R::PRE_DELAY, 1.0f), 0.2f);
    EXPECT_EQ(R::settingOf(R::PRE_DELAY, 0.5f), 0.0f);
    EXPECT_FLOAT_EQ(R::levelCurve(0.05f), 0.01f);
    EXPECT_FLOAT_EQ(R::levelCurve(0.025f), 0.005f);
    EXPECT_EQ(R::levelCurve(0.0f), 0.0f);
    EXPECT_NEAR(R::levelCurve(1.0f), 2.0f, 1e-5f);
    EXPECT_EQ(R::normalisedOf(R::DISTANCE, 1000.0f), 1.0f);
    EXPECT_EQ(R::normalisedOf(R::DISTANCE, -5.0f), 0.0f);
}

TEST(ReverbPlugin, DefaultsReproduceTheDefaultRecord)
{
    Reverb r;
    const auto& want = QVDReverb::defaultSettings();
    EXPECT_NEAR(want[3], want[0] * want[1], 1e-3f);
    EXPECT_NEAR(want[4], want[1] / want[0], 1e-5f);
    for (std::int32_t i = 0; i < 22; ++i)
        r.instance->setParameter(i, r.instance->getParameter(i));
    const auto got = r.plugin->settings();
    for (int s = 0; s < 28; ++s)
        EXPECT_NEAR(got[s], want[s], 1e-4f * std::fabs(want[s]) + 1e-6f) << "setting " << s;
}

TEST(ReverbPlugin, RoomLengthAndWidthDeriveSizeAndRatio)
{
    Reverb r;
    r.instance->setParameter(QVDReverb::ROOM_WIDTH, 0.0f);  // 4 m
    r.instance->setParameter(QVDReverb::ROOM_LENGTH, 0.0f); // 3 m
    auto s = r.plugin->settings();
    EXPECT_FLOAT_EQ(s[3], 12.0f);
    EXPECT_FLOAT_EQ(s[4], 0.75f);
    EXPECT_EQ(r.plugin->displayText(QVDReverb::ROOM_SIZE), QString::fromUtf8("12.0 m\u00b2"));
    const float sizeV = r.instance->getParameter(QVDReverb::ROOM_SIZE);
    r.instance->setParameter(QVDReverb::ROOM_SIZE, 0.9f);
    r.instance->setParameter(QVDReverb::ROOM_RATIO, 0.9f);
    EXPECT_EQ(r.plugin->settings(), s);
    EXPECT_EQ(r.instance->getParameter(QVDReverb::ROOM_SIZE), sizeV);
    // NaN leaves a setting alone; out-of-range values are held at the ends.
    r.instance->setParameter(QVDReverb::REVERB_TIME, std::nanf(""));
    EXPECT_EQ(r.plugin->settings()[5], s[5]);
    r.instance->setParameter(QVDReverb::REVERB_TIME, 7.0f);
    EXPECT_NEAR(r.plugin->settings()[5], 4.0f, 1e-5f);
}

// A channel-count change whose engine cannot be allocated is refused, and
// the running engine carries on at the old count.
TEST(ReverbPlugin, AFailedEngineRebuildKeepsTheRunningEngine)
{
#if !QVD_REPLACED_NEW
    GTEST_SKIP() << "the sanitizer's operator new cannot be replaced";
#else
    Reverb r;
    ASSERT_TRUE(r.prepare(48000.0f, 256, 2));
    g_failAbove = 8 * 1024; // each delay line is larger than this
    const bool accepted = r.audio()->setChannelFormats(qvd::kFormat51, qvd::kFormat51);
    g_failAbove = SIZE_MAX;
    EXPECT_FALSE(accepted);
    EXPECT_EQ(r.audio()->inputChannelCount(), 2);
    Signal in(2, std::vector<float>(48000, 0.0f));
    in[0][0] = in[1][0] = 1.0f;
    const Signal out = r.run(in, 256);
    double tail = 0.0;
    for (std::size_t n = 4800; n < out[0].size(); ++n)
        tail += std::fabs(out[0][n]);
    EXPECT_GT(tail, 1e-3) << "the impulse still rings in the room";
#endif
}

TEST(ReverbPlugin, EngineFollowsTheExactSampleRate)
{
    const struct {
        float rate;
        std::uint32_t factor;
        float engine;
    } cases[] = {{44100, 1, 44100},  {48000, 1, 48000},  {88200, 2, 44100},   {96000, 2, 48000},
                 {100000, 1, 100000}, {176400, 4, 44100}, {192000, 4, 48000}, {384000, 1, 384000}};
    for (const auto& c : cases) {
        Reverb r;
        ASSERT_TRUE(r.prepare(c.rate, 256, 2));
        EXPECT_EQ(r.plugin->oversampling(), c.factor) << c.rate;
        EXPECT_EQ(r.plugin->engineRate(), c.engine) << c.rate;
        if (c.factor == 1)
            EXPECT_EQ(r.audio()->latency(), 0u) << c.rate;
        else
            EXPECT_GT(r.audio()->latency(), c.factor) << c.rate;
    }
}

TEST(ReverbPlugin, LevelsAndPreDelayReachTheEngineRecord)
{
    Reverb r;
    ASSERT_TRUE(r.prepare(48000, 256, 2));
    r.instance->setParameter(QVDReverb::DIRECT_GAIN, 0.05f);
    r.instance->setParameter(QVDReverb::DRY_WET, 0.0f);
    EXPECT_NEAR(r.plugin->engineParam().direct.gain[0][0], 0.01f, 1e-7f);
    r.instance->setParameter(QVDReverb::PRE_DELAY, 0.0f);
    EXPECT_EQ(r.plugin->engineParam().early.delays[0], 4);
    r.instance->setParameter(QVDReverb::PRE_DELAY, 0.5f);
    EXPECT_GT(r.plugin->engineParam().early.delays[0], 4);
}

// A set between blocks changes the sound from the next block on.
TEST(ReverbPlugin, SettingsReachTheAudioThreadBetweenBlocks)
{
    Reverb r;
    ASSERT_TRUE(r.prepare(48000, 256, 2));
    const Signal in = noise(256 * 8, 1);
    const Signal wet = r.run(in, 256);
    EXPECT_NE(wet, in);
    r.instance->setParameter(QVDReverb::DRY_WET, 0.0f);
    EXPECT_EQ(r.run(in, 256), in) << "fully dry passes the input unchanged";
    // All three levels at 0: silence.
    r.instance->setParameter(QVDReverb::DRY_WET, 1.0f);
    for (const auto p : {QVDReverb::DIRECT_GAIN, QVDReverb::EARLY_GAIN, QVDReverb::LATE_GAIN})
        r.instance->setParameter(p, 0.0f);
    EXPECT_EQ(r.run(in, 256), qvd::test::silence(2, 256 * 8));
}

TEST(ReverbPlugin, OversampledRatesTakeAnyBlockLength)
{
    Reverb r;
    ASSERT_TRUE(r.prepare(96000, 512, 2));
    r.instance->setParameter(QVDReverb::DRY_WET, 0.0f);
    const std::size_t latency = r.audio()->latency();
    const Signal in = qvd::test::sine(2, 9000, 1000.0, 96000.0);
    Signal ragged = r.run(in, 333);
    Reverb again;
    ASSERT_TRUE(again.prepare(96000, 512, 2));
    again.instance->setParameter(QVDReverb::DRY_WET, 0.0f);
    EXPECT_EQ(ragged, again.run(in, 512)) << "block length must not change the result";
    // Dry: the input again, a latency later, through both converters.
    for (std::size_t n = 4000; n < 9000; ++n)
        ASSERT_NEAR(ragged[0][n], in[0][n - latency], 2e-3f) << n;

    // At 192 kHz: three frames left waiting, then a full block one past a
    // multiple of four, is the most output the framing ever holds.
    Reverb quarter, steady;
    for (Reverb* x : {&quarter, &steady}) {
        ASSERT_TRUE(x->prepare(192000, 509, 2));
        x->instance->setParameter(QVDReverb::REVERB_TIME, 1.0f);
    }
    const Signal q = quarter.run(in, std::vector<int>{3, 509, 1, 509, 509, 7, 2, 508});
    EXPECT_EQ(q, steady.run(in, 509));
}

// No inputs: the room still rings out silence; no outputs: the engine still
// runs. Neither may touch a channel the host did not give.
TEST(ReverbPlugin, RunsWithoutInputsOrWithoutOutputs)
{
    for (const float rate : {48000.0f, 96000.0f}) {
        for (const auto& [ins, outs] : {std::pair{0, 2}, std::pair{2, 0}}) {
            Reverb r;
            const qvd::PrepareConfig config{qvd::formatForChannels(ins), qvd::formatForChannels(outs), 0, 0};
            ASSERT_TRUE(r.audio()->prepare(rate, 128, &config));
            Signal in = noise(512, 2);
            Signal out(2, std::vector<float>(512, 7.0f));
            std::vector<const float*> ip = {in[0].data(), in[1].data()};
            std::vector<float*> op = {out[0].data(), out[1].data()};
            qvd::BlockRecord record{};
            for (int b = 0; b < 4; ++b) {
                for (int c = 0; c < 2; ++c) {
                    ip[c] = in[c].data() + b * 128;
                    op[c] = out[c].data() + b * 128;
                }
                EXPECT_TRUE(r.audio()->process(&record, ins ? ip.data() : nullptr, outs ? op.data() : nullptr, 128));
            }
            EXPECT_TRUE(!outs || out == qvd::test::silence(2, 512)) << "silence in, silence out at " << rate;
        }
    }
}

TEST(ReverbPlugin, EditorShowsEveryParameter)
{
    qvd::test::qtApp();
    Reverb r;
    std::unique_ptr<QWidget> w(static_cast<QWidget*>(r.instance->createEditor(nullptr)));
    auto* panel = qobject_cast<QVDReverbPanel*>(w.get());
    ASSERT_NE(panel, nullptr);
    int knobs = 0;
    for (int i = 0; i < 22; ++i)
        knobs += panel->knob(i) != nullptr;
    EXPECT_EQ(knobs, 20) << "room size and ratio are readings, not controls";
    EXPECT_EQ(panel->valueText(QVDReverb::DISTANCE), QStringLiteral("4.00 m"));
    EXPECT_EQ(panel->valueText(QVDReverb::REVERB_TIME), QStringLiteral("0.95 s"));
    r.instance->setParameter(QVDReverb::LATE_GAIN, 0.0f);
    panel->refresh();
    EXPECT_EQ(panel->valueText(QVDReverb::LATE_GAIN), QStringLiteral("-inf dB"));
}

} // namespace
