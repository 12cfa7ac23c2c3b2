// The effect base's flow as a plugin sees it: what render() is handed, the
// meters, bypass, pre-roll buffers, value texts and readout snapshots.
#include <gtest/gtest.h>

#include <QVDEffect.h>

#include <atomic>
#include <cmath>
#include <set>
#include <thread>
#include <vector>

namespace {

// Halves its input; records what the flow handed it; publishes a readout of
// eight equal values per block.
class Halver : public QVDEffect<Halver> {
public:
    static constexpr QVDPluginDescriptor kDescriptor{
        .name = "Halver", .fourcc = qvdFourCC("THlv"), .maxInputs = 4, .maxOutputs = 4, .className = "QVDHalver"};
    static std::vector<QVDParam> parameterRows()
    {
        return {{.name = "AMOUNT", .label = "Amount", .maximum = 2, .defaultValue = 0.5f, .step = 0.01f, .unit = "%"},
                qvdListParam("MODE", "Mode", {"Soft", "Hard"}, 1)};
    }
    Halver(const QVDPluginDescriptor* d, void* c, qvd::HostServices* s) : QVDEffect(d, c, s)
    {
        m_readout = addReadout(QStringLiteral("Blocks"), QString(), 8);
    }
    bool withLatency = false;
    std::set<const float*> preRollOutputs;
    std::vector<float> changed;

protected:
    bool prepareProcessing() override { return setLatency(withLatency ? 100 : 0); }
    void parameterChanged(std::uint32_t, float value) override { changed.push_back(value); }
    void render(const QVDBlock& b) noexcept override
    {
        for (std::int32_t c = 0; c < b.channels; ++c) {
            for (std::int32_t n = 0; n < b.frames; ++n)
                b.outputs[c][n] = 0.5f * b.inputs[c][n];
            if (b.record && b.record->mode == qvd::kModePreRoll)
                preRollOutputs.insert(b.outputs[c]);
        }
        ++m_blocks;
        const std::vector<float> same(8, static_cast<float>(m_blocks));
        publishReadout(m_readout, same.data(), 8);
    }

private:
    std::int32_t m_readout = 0;
    int m_blocks = 0;
};

struct Instance {
    Instance() : p(QVDAudioPlugin<Halver>::create(nullptr, nullptr, &Halver::kDescriptor)), h(dynamic_cast<Halver*>(p)) {}
    ~Instance() { p->destroy(); }
    qvd::PluginInstance* p;
    Halver* h;
};

TEST(Effect, ParameterRowsBecomeTheTableAndReachTheHookAtCreation)
{
    Instance i;
    qvd::ParameterInfo info;
    ASSERT_TRUE(i.p->parameterInfo(1, &info));
    EXPECT_EQ(info.identifier, "QVDHalver::MODE");
    EXPECT_EQ(info.maximum, 1.0f);
    EXPECT_EQ(info.options, (std::vector<std::string>{"Soft", "Hard"}));
    EXPECT_EQ(i.h->changed, (std::vector<float>{0.5f, 1.0f})) << "every value once, in index order";
    char text[32];
    EXPECT_EQ(i.p->parameterText(0, 1.25f, text, sizeof text), 6);
    EXPECT_STREQ(text, "1.25 %");
    i.p->parameterText(1, 0.2f, text, sizeof text);
    EXPECT_STREQ(text, "Soft");
}

TEST(Effect, MetersSpareOutputsAndBypass)
{
    Instance i;
    const qvd::PrepareConfig config{qvd::kFormatMono, qvd::kFormatStereo, 0, 0};
    ASSERT_TRUE(i.p->getAudioInterface()->prepare(48000.0f, 64, &config));
    std::vector<float> in(64, 0.8f), left(64, 9.0f), right(64, 9.0f);
    const float* ins[1] = {in.data()};
    float* outs[2] = {left.data(), right.data()};
    i.p->getAudioInterface()->process(nullptr, ins, outs, 64);
    EXPECT_EQ(left[10], 0.4f);
    EXPECT_EQ(right[10], 0.0f) << "an output without an input is silent";
    double db[2];
    ASSERT_EQ(i.p->getMeterValues(1, db, 2), 2);
    EXPECT_NEAR(db[0], 20.0 * std::log10(0.4), 1e-6);
    EXPECT_EQ(db[1], -100.0);
    i.p->getAudioInterface()->setBypass(true);
    i.p->getAudioInterface()->process(nullptr, ins, outs, 64);
    EXPECT_EQ(left[10], 0.8f);
    i.p->getMeterValues(0, db, 1);
    EXPECT_EQ(db[0], -100.0) << "bypassed meters read silence";
}

// Each output channel pre-rolls into its own buffer: a plugin that reads
// its outputs back never sees another channel's samples.
TEST(Effect, PreRollGivesEveryOutputItsOwnBuffer)
{
    Instance i;
    i.h->withLatency = true;
    const qvd::PrepareConfig config{qvd::discreteFormat(4), qvd::discreteFormat(4), 0, 0};
    ASSERT_TRUE(i.p->getAudioInterface()->prepare(48000.0f, 64, &config));
    std::vector<float> buf(64 * 4, 0.0f);
    float* io[4] = {buf.data(), buf.data() + 64, buf.data() + 128, buf.data() + 192};
    i.p->getAudioInterface()->process(nullptr, io, io, 64);
    EXPECT_EQ(i.h->preRollOutputs.size(), 4u);
}

// A reader on another thread only ever sees all eight values of one block.
TEST(Effect, ReadoutsAreConsistentSnapshots)
{
    Instance i;
    qvd::ReadoutInfo info;
    ASSERT_TRUE(i.p->readoutInfo(0, &info));
    EXPECT_EQ(info.name, "Blocks");
    EXPECT_EQ(info.kind, qvd::kReadoutArray);
    ASSERT_TRUE(i.p->getAudioInterface()->prepare(48000.0f, 16, nullptr));
    std::atomic<bool> stop{false};
    std::atomic<int> mixed{0};
    std::thread reader([&] {
        double v[8];
        while (!stop) {
            i.p->readReadout(0, v, 8);
            for (const double x : v)
                mixed += x != v[0] ? 1 : 0;
        }
    });
    std::vector<float> a(16, 0.1f), b(16, 0.1f);
    float* io[2] = {a.data(), b.data()};
    for (int k = 0; k < 200000; ++k)
        i.p->getAudioInterface()->process(nullptr, io, io, 16);
    stop = true;
    reader.join();
    EXPECT_EQ(mixed.load(), 0);
}

} // namespace
