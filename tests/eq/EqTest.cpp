#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <thread>
#include <complex>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <QVDEq.h>
#include <qvd/PluginInterface.h>

extern "C" void* GetQVDPluginInterface();

namespace {

constexpr const char* kEqKey = "Tarnwick EQ:1364608369";
constexpr double kPi = 3.141592653589793;

// The per-band shape tables, written out here independently of the plugin's.
constexpr int kTranslation[6][4] = {{2, 4, 3, 1}, {2, 4, 4, 3}, {2, 4, 4, 3}, {2, 4, 4, 3}, {2, 4, 4, 3}, {0, 2, 4, 3}};
constexpr int kView[6][4] = {{0, 2, 1, 5}, {0, 2, 3, 1}, {0, 2, 3, 1}, {0, 2, 3, 1}, {0, 2, 3, 1}, {4, 0, 2, 1}};

struct Eq {
    Eq()
        : instance(static_cast<qvd::PluginInterface*>(GetQVDPluginInterface())->createPlugin(qvd::kAudioPlugin, kEqKey)),
          plugin(dynamic_cast<QVDEq*>(instance))
    {
    }
    ~Eq() { instance->destroy(); }
    AudioPlugin* audio() const { return instance->getAudioInterface(); }
    bool prepare(float rate, int block, int ins, int outs)
    {
        const qvd::PrepareConfig config{qvd::formatForChannels(ins), qvd::formatForChannels(outs), 0, 0};
        return audio()->prepare(rate, block, &config);
    }
    void set(int band, QVDEq::Role role, float v) { instance->setParameter(static_cast<std::int32_t>(band * 5 + role), v); }
    qvd::PluginInstance* instance;
    QVDEq* plugin;
};

std::vector<std::vector<float>> noise(int channels, std::size_t frames, unsigned seed, float amplitude = 0.5f)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-amplitude, amplitude);
    std::vector<std::vector<float>> v(static_cast<std::size_t>(channels), std::vector<float>(frames));
    for (auto& ch : v)
        for (auto& x : ch)
            x = d(rng);
    return v;
}

std::vector<float*> pointers(std::vector<std::vector<float>>& v, std::size_t offset = 0)
{
    std::vector<float*> p;
    for (auto& ch : v)
        p.push_back(ch.data() + offset);
    return p;
}

// A setting of the six bands, with every band on and filtering.
struct Setting {
    float gain[6] = {-6.0f, 4.5f, -3.0f, 7.0f, -9.0f, 2.0f};
    float q[6] = {0.3f, 1.0f, 2.3f, 4.0f, 10.3f, 3.3f};
    float freq[6] = {60.0f, 180.0f, 700.0f, 2500.0f, 7000.0f, 15000.0f};
    float shape[6] = {2.0f, 0.0f, 1.0f, 2.0f, 3.0f, 1.0f};
    float in[6] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0f, 1.0f};
};

void apply(Eq& eq, const Setting& s)
{
    for (int b = 0; b < 6; ++b) {
        eq.set(b, QVDEq::kGain, s.gain[b]);
        eq.set(b, QVDEq::kQ, s.q[b]);
        eq.set(b, QVDEq::kFreq, s.freq[b]);
        eq.set(b, QVDEq::kShape, s.shape[b]);
        eq.set(b, QVDEq::kIn, s.in[b]);
    }
}

// Six separate blocks set up the way the equaliser maps its
// parameters onto them.
std::array<std::unique_ptr<BiQuad>, 6> referenceBands(const Setting& s, float rate, int channels)
{
    std::array<std::unique_ptr<BiQuad>, 6> bands;
    for (int b = 0; b < 6; ++b) {
        auto q = std::make_unique<BiQuad>();
        q->initialise(rate, channels);
        q->setParameter(BiQuad::GAIN, s.gain[b]);
        q->setParameter(BiQuad::Q, static_cast<float>((static_cast<double>(s.q[b]) - 0.3) * 0.5 + 0.5));
        q->setParameter(BiQuad::FREQ, s.freq[b]);
        q->setParameter(BiQuad::SHAPE, static_cast<float>(kTranslation[b][static_cast<int>(s.shape[b] + 0.5f)]));
        q->setParameter(BiQuad::IN, s.in[b]);
        bands[static_cast<std::size_t>(b)] = std::move(q);
    }
    return bands;
}

class LogCapture final : public qvd::HostServices {
public:
    explicit LogCapture(int level) : m_level(level) {}
    const char* hostName() const override { return "eq_tests"; }
    std::int32_t hostVersion() const override { return 1; }
    double editorScale() const override { return 1.0; }
    std::int32_t debugLogLevel() const override { return m_level; }
    void debugLog(std::int32_t level, const char* line) override
    {
        lines.emplace_back(line);
        levels.push_back(level);
    }
    std::vector<std::string> lines;
    std::vector<int> levels;

private:
    int m_level;
};

TEST(EqPlugin, ShapeChoicesTranslatePerBandWithTheirViewCodes)
{
    Eq eq;
    for (int b = 0; b < 6; ++b) {
        for (int choice = 0; choice < 4; ++choice) {
            SCOPED_TRACE(testing::Message() << "band " << b << " choice " << choice);
            EXPECT_EQ(QVDEq::shapeTranslation()[static_cast<std::size_t>(b * 4 + choice)], kTranslation[b][choice]);
            EXPECT_EQ(QVDEq::viewCodes()[static_cast<std::size_t>(b * 4 + choice)], kView[b][choice]);
            // Values round to the nearest choice: 0.49 is still the lower one.
            eq.set(b, QVDEq::kShape, static_cast<float>(choice) + 0.49f);
            EXPECT_EQ(eq.plugin->band(b).getParameter(BiQuad::SHAPE), static_cast<float>(kTranslation[b][choice]));
            EXPECT_EQ(eq.plugin->band(b).kind(), BiQuad::kindOfShape(static_cast<float>(kTranslation[b][choice])));
            EXPECT_EQ(eq.plugin->bandView(b).shape, kView[b][choice]);
        }
        EXPECT_EQ(QVDEq::shapeLabels(b).size(), 4);
    }
    // The middle bands' "Notch" is a bell with the band's gain; band 6's "Bell" is a low shelf.
    eq.set(2, QVDEq::kShape, 2.0f);
    EXPECT_EQ(eq.plugin->band(2).kind(), BiQuad::kBell);
    eq.set(5, QVDEq::kShape, 1.0f);
    EXPECT_EQ(eq.plugin->band(5).kind(), BiQuad::kLowShelf);
    // Past the table, or NaN: no filter at all.
    for (const float bad : {4.0f, -2.0f, 1e38f, std::numeric_limits<float>::quiet_NaN()}) {
        eq.set(3, QVDEq::kShape, bad);
        EXPECT_EQ(eq.plugin->band(3).kind(), BiQuad::kNeutral) << bad;
        EXPECT_TRUE(eq.plugin->band(3).designed().isNeutral());
    }
}

// Gain, frequency and the Q mapping are checked end to end by the bit-exact
// comparison with six separately set bands; here the ends of the Q range and
// the two readings of the in switch.
TEST(EqPlugin, QMapsOntoHalfToFiveAndAHalfAndOnlyOneSwitchesABandIn)
{
    Eq eq;
    EXPECT_EQ(QVDEq::mappedQ(0.3f), 0.5f);
    EXPECT_EQ(QVDEq::mappedQ(2.3f), 1.5f);
    EXPECT_EQ(QVDEq::mappedQ(10.3f), 5.5f);
    eq.set(2, QVDEq::kQ, 4.3f);
    EXPECT_EQ(eq.plugin->bandView(2).q, QVDEq::mappedQ(4.3f));
    // The view calls anything but 0 on; the filter only exactly 1.
    eq.set(2, QVDEq::kIn, 0.6f);
    EXPECT_TRUE(eq.plugin->bandView(2).on);
    EXPECT_FALSE(eq.plugin->band(2).isIn());
    eq.set(2, QVDEq::kIn, 0.0f);
    EXPECT_FALSE(eq.plugin->bandView(2).on);
}

TEST(EqPlugin, HandlerLogsEachChangeToTheDebugLogOnly)
{
    LogCapture log(2);
    {
        QVDEq eq(&QVDEq::descriptor(), nullptr, &log);
        EXPECT_TRUE(log.lines.empty()); // defaults are applied silently
        eq.setParameter(10, 6.0f);
        eq.setParameter(11, 4.3f);
        eq.setParameter(12, 1000.0f);
        eq.setParameter(13, 2.0f);
        eq.setParameter(14, 0.0f);
        eq.setParameter(28, 3.0f);
        const std::vector<std::string> expected = {
            "Band 2, Gain: 6.000000",           "Band 2, Q: 4.300000",  "Band 2, Freq: 1000.000000",
            "Band 2, Shape: 2.000000, xlated: 4", "Band 2, IN: 0.000000", "Band 5, Shape: 3.000000, xlated: 3"};
        ASSERT_EQ(log.lines.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(log.lines[i], expected[i]);
            EXPECT_EQ(log.levels[i], 2);
        }
        // Nothing from the audio thread.
        const qvd::PrepareConfig config{2, 2, 0, 0};
        ASSERT_TRUE(eq.prepare(48000.0f, 64, &config));
        const std::size_t before = log.lines.size();
        auto signal = noise(2, 64, 1);
        auto io = pointers(signal);
        eq.process(nullptr, io.data(), io.data(), 64);
        EXPECT_EQ(log.lines.size(), before);
    }
    // A host that asked for errors only hears nothing.
    LogCapture quiet(1);
    QVDEq eq(&QVDEq::descriptor(), nullptr, &quiet);
    eq.setParameter(0, 3.0f);
    EXPECT_TRUE(quiet.lines.empty());
}

TEST(EqProcess, IsTheSixBandsInSeriesBitForBit)
{
    for (const int rate : {44100, 48000, 96000, 192000}) {
        SCOPED_TRACE(rate);
        Setting s;
        Eq eq;
        ASSERT_TRUE(eq.prepare(static_cast<float>(rate), 256, 2, 2));
        apply(eq, s);
        auto bands = referenceBands(s, static_cast<float>(rate), 2);
        auto input = noise(2, 1024, static_cast<unsigned>(rate));
        auto expected = input;
        std::vector<std::vector<float>> output(2, std::vector<float>(1024, 7.0f));
        for (int done = 0; done < 1024; done += 256) {
            auto in = pointers(input, static_cast<std::size_t>(done));
            auto out = pointers(output, static_cast<std::size_t>(done));
            eq.audio()->process(nullptr, in.data(), out.data(), 256);
            auto ref = pointers(expected, static_cast<std::size_t>(done));
            for (auto& band : bands)
                band->processChannels(ref.data(), 256);
        }
        EXPECT_EQ(output, expected);
        EXPECT_NE(output, input);
    }
}

TEST(EqProcess, TheThirdBandAsABellAtOneKilohertzLiftsItBySixDecibels)
{
    Eq eq;
    ASSERT_TRUE(eq.prepare(48000.0f, 480, 1, 1));
    eq.instance->setParameter(eq.plugin->parameterIndex("QVDEq::BAND_GAIN_2"), 6.0f);
    eq.instance->setParameter(eq.plugin->parameterIndex("QVDEq::BAND_FREQ_2"), 1000.0f);
    EXPECT_EQ(eq.plugin->band(2).kind(), BiQuad::kBell);
    const int frames = 48000;
    std::vector<float> tone(frames);
    for (int n = 0; n < frames; ++n)
        tone[static_cast<std::size_t>(n)] = static_cast<float>(0.25 * std::sin(2.0 * kPi * 1000.0 * n / 48000.0));
    std::vector<float> out = tone;
    for (int done = 0; done < frames; done += 480) {
        float* io[1] = {out.data() + done};
        eq.audio()->process(nullptr, io, io, 480);
    }
    // Steady state over the second half second; the other bands sit at 0 dB
    // (the bells at 240 Hz and 1.2 kHz only up to rounding).
    double in2 = 0, out2 = 0;
    for (int n = frames / 2; n < frames; ++n) {
        in2 += double(tone[static_cast<std::size_t>(n)]) * tone[static_cast<std::size_t>(n)];
        out2 += double(out[static_cast<std::size_t>(n)]) * out[static_cast<std::size_t>(n)];
    }
    EXPECT_NEAR(10.0 * std::log10(out2 / in2), 6.0, 0.01);
}

TEST(EqProcess, EqualizerOutAndHostBypassPassInputAndZeroTheMeters)
{
    Eq eq;
    ASSERT_TRUE(eq.prepare(48000.0f, 128, 2, 2));
    apply(eq, Setting{});
    auto input = noise(2, 128, 3);
    input[0][5] = -0.0f;
    std::vector<std::vector<float>> out(2, std::vector<float>(128, 9.0f));
    auto in = pointers(input);
    auto o = pointers(out);
    eq.audio()->process(nullptr, in.data(), o.data(), 128);
    EXPECT_GT(eq.plugin->meterLevel(QVDEq::kInputMeter, 0), 0.0f);

    for (const bool hostBypass : {false, true}) {
        SCOPED_TRACE(hostBypass);
        if (hostBypass) {
            eq.instance->setParameter(QVDEq::EQ_IN, 1.0f);
            eq.audio()->setBypass(true);
        } else {
            eq.instance->setParameter(QVDEq::EQ_IN, 0.0f);
            EXPECT_FALSE(eq.plugin->equalizerIn());
        }
        eq.audio()->process(nullptr, in.data(), o.data(), 128);
        for (std::size_t c = 0; c < 2; ++c)
            EXPECT_EQ(std::memcmp(out[c].data(), input[c].data(), 128 * sizeof(float)), 0);
        for (int c = 0; c < 2; ++c) {
            EXPECT_EQ(eq.plugin->meterLevel(QVDEq::kInputMeter, c), 0.0f);
            EXPECT_EQ(eq.plugin->meterLevel(QVDEq::kOutputMeter, c), 0.0f);
        }
        double db[2] = {0, 0};
        eq.instance->responseCurve(std::array<double, 2>{100.0, 7000.0}.data(), db, 2);
        EXPECT_EQ(db[0], 0.0);
        EXPECT_EQ(db[1], 0.0);
    }
    eq.audio()->setBypass(false);

    // Back in, the bands start from silence: the output is a fresh equaliser's.
    Eq fresh;
    ASSERT_TRUE(fresh.prepare(48000.0f, 128, 2, 2));
    apply(fresh, Setting{});
    auto a = noise(2, 128, 4), b = a;
    auto pa = pointers(a), pb = pointers(b);
    eq.audio()->process(nullptr, pa.data(), pa.data(), 128);
    fresh.audio()->process(nullptr, pb.data(), pb.data(), 128);
    EXPECT_EQ(a, b);
    // A NaN leaves the switch where it was.
    eq.instance->setParameter(QVDEq::EQ_IN, std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(eq.plugin->equalizerIn());
}

TEST(EqProcess, MetersShowInputAndOutputPeaksAndSpareOutputsAreSilent)
{
    Eq eq;
    ASSERT_TRUE(eq.prepare(48000.0f, 64, 1, 2));
    eq.set(2, QVDEq::kGain, 12.0f); // a bell at 240 Hz
    std::vector<float> in(64, 0.0f), left(64, 3.0f), right(64, 3.0f);
    in[0] = -0.5f;
    in[9] = std::numeric_limits<float>::quiet_NaN(); // the meter looks past it
    const float* ins[1] = {in.data()};
    float* outs[2] = {left.data(), right.data()};
    eq.audio()->process(nullptr, ins, outs, 64);
    EXPECT_EQ(eq.plugin->meterLevel(QVDEq::kInputMeter, 0), 0.5f);
    float peak = 0.0f;
    for (int n = 0; n < 9; ++n)
        peak = std::max(peak, std::fabs(left[static_cast<std::size_t>(n)]));
    EXPECT_GE(eq.plugin->meterLevel(QVDEq::kOutputMeter, 0), peak);
    EXPECT_GT(peak, 0.5f);
    EXPECT_EQ(right, std::vector<float>(64, 0.0f));
    EXPECT_EQ(eq.plugin->meterLevel(QVDEq::kOutputMeter, 1), 0.0f);
    double db[2];
    EXPECT_EQ(eq.instance->getMeterValues(QVDEq::kInputMeter, db, 2), 1);
    EXPECT_NEAR(db[0], -6.0206, 1e-3);
    EXPECT_EQ(eq.instance->getMeterValues(QVDEq::kOutputMeter, db, 2), 2);
    // The NaN was not allowed to stay in the bands' state.
    std::fill(in.begin(), in.end(), 0.25f);
    eq.audio()->process(nullptr, ins, outs, 64);
    for (const float v : left)
        ASSERT_TRUE(std::isfinite(v));
}

TEST(EqProcess, ARateChangeRedesignsTheBandsWithTheirSettings)
{
    Eq eq;
    ASSERT_TRUE(eq.prepare(48000.0f, 64, 2, 2));
    apply(eq, Setting{});
    ASSERT_TRUE(eq.prepare(96000.0f, 64, 2, 2));
    const Setting s;
    auto bands = referenceBands(s, 96000.0f, 2);
    for (int b = 0; b < 6; ++b)
        EXPECT_EQ(std::memcmp(&eq.plugin->band(b).designed(), &bands[static_cast<std::size_t>(b)]->designed(),
                              sizeof(BiQuadCoefficients)),
                  0)
            << b;
}

// Every kernel variant against the reference, bit for bit, with the states
// they leave behind, over channel, band and frame counts that reach every
// tail of the vector loops.
// The editor and a host's automation set the same band at once: the audio
// thread only ever sees a coefficient set that one of them designed.
TEST(EqProcess, TwoWritersNeverTearABandsCoefficients)
{
    Eq eq;
    ASSERT_TRUE(eq.prepare(48000.0f, 64, 2, 2));
    const std::uint32_t gain = QVDEq::bandParameter(2, QVDEq::kGain);
    const auto design = [&](float db) {
        eq.instance->setParameter(static_cast<std::int32_t>(gain), db);
        return eq.plugin->band(2).designed();
    };
    const BiQuadCoefficients plus = design(6.0f), minus = design(-6.0f);
    std::atomic<bool> stop{false};
    auto writer = [&](float db) {
        while (!stop)
            eq.instance->setParameter(static_cast<std::int32_t>(gain), db);
    };
    std::thread a(writer, 6.0f), b(writer, -6.0f);
    auto& band = const_cast<BiQuad&>(eq.plugin->band(2));
    int torn = 0;
    for (int i = 0; i < 200000; ++i) {
        const BiQuadCoefficients& c = band.acquire();
        const bool isPlus = c.num1 == plus.num1 && c.num2 == plus.num2 && c.gain == plus.gain && c.den1 == plus.den1;
        const bool isMinus = c.num1 == minus.num1 && c.num2 == minus.num2 && c.gain == minus.gain && c.den1 == minus.den1;
        torn += (isPlus || isMinus) ? 0 : 1;
    }
    stop = true;
    a.join();
    b.join();
    EXPECT_EQ(torn, 0);
}

TEST(EqKernels, EveryVariantMatchesTheReferenceExactly)
{
    const auto variants = twa::RunnableVariants(qvd::eq::variants());
    const int count = static_cast<int>(variants.size());
    ASSERT_GE(count, 2);
    EXPECT_STREQ(variants[0].name, "ref");
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> kind(0, 5);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const int frameCounts[] = {0, 1, 2, 3, 4, 5, 7, 8, 15, 31, 32, 33, 64, 65, 999};
    for (const int channels : {1, 2, 3, 4, 5, 6, 7, 8, 9, 16}) {
        for (const int bandCount : {0, 1, 2, 3, 5, 6, 8}) {
            std::vector<qvd::eq::Band> bands(static_cast<std::size_t>(bandCount));
            std::vector<std::vector<BiQuadState>> states0(bands.size(), std::vector<BiQuadState>(16));
            for (std::size_t b = 0; b < bands.size(); ++b) {
                const std::uint32_t kinds[6] = {2, 3, 5, 6, 7, 10};
                const double f = 20.0 * std::pow(900.0, unit(rng));
                bands[b].c = BiQuad::design(kinds[kind(rng)], 48000.0, f, 0.5 + 5.0 * unit(rng),
                                            std::pow(10.0, (unit(rng) - 0.5) * 40.0 / 20.0));
                for (auto& s : states0[b])
                    s = {unit(rng) - 0.5, unit(rng) - 0.5};
            }
            for (const int frames : frameCounts) {
                auto input = noise(channels, static_cast<std::size_t>(frames) + 2,
                                   static_cast<unsigned>(channels * 100 + bandCount * 10 + frames));
                std::vector<std::vector<float>> expected;
                std::vector<std::vector<BiQuadState>> expectedStates;
                for (int v = 0; v < count; ++v) {
                    SCOPED_TRACE(testing::Message() << variants[v].name << " channels " << channels << " bands "
                                                    << bandCount << " frames " << frames);
                    auto io = input;
                    auto states = states0;
                    for (std::size_t b = 0; b < bands.size(); ++b)
                        bands[b].states = states[b].data();
                    // Offset by one float so no channel is 16-byte aligned.
                    auto p = pointers(io, 1);
                    const qvd::eq::KernelArgs args{p.data(), channels, frames, bands.data(), bandCount};
                    variants[v].fn(args);
                    for (std::size_t c = 0; c < io.size(); ++c) {
                        ASSERT_EQ(io[c][0], input[c][0]);
                        ASSERT_EQ(io[c].back(), input[c].back());
                    }
                    if (v == 0) {
                        expected = io;
                        expectedStates = states;
                        continue;
                    }
                    for (std::size_t c = 0; c < io.size(); ++c)
                        ASSERT_EQ(std::memcmp(io[c].data(), expected[c].data(), io[c].size() * sizeof(float)), 0);
                    for (std::size_t b = 0; b < states.size(); ++b)
                        ASSERT_EQ(std::memcmp(states[b].data(), expectedStates[b].data(),
                                              states[b].size() * sizeof(BiQuadState)),
                                  0);
                }
            }
        }
    }
}

TEST(EqKernels, ThePluginGivesTheSameResultWithEveryVariant)
{
    const auto variants = twa::RunnableVariants(qvd::eq::variants());
    const int count = static_cast<int>(variants.size());
    for (const int channels : {1, 2, 6, 16}) {
        std::vector<std::vector<float>> reference;
        for (int v = 0; v < count; ++v) {
            Eq eq;
            eq.plugin->setKernel(variants[v]);
            EXPECT_STREQ(eq.plugin->kernelName(), variants[v].name);
            ASSERT_TRUE(eq.prepare(44100.0f, 100, channels, channels));
            apply(eq, Setting{});
            auto signal = noise(channels, 1000, 6);
            for (int done = 0; done < 1000; done += 100) {
                if (done == 300)
                    eq.set(3, QVDEq::kFreq, 5000.0f);
                if (done == 600)
                    eq.set(1, QVDEq::kIn, 0.0f);
                auto p = pointers(signal, static_cast<std::size_t>(done));
                eq.audio()->process(nullptr, p.data(), p.data(), 100);
            }
            if (v == 0)
                reference = signal;
            else
                EXPECT_EQ(signal, reference) << variants[v].name << " channels " << channels;
        }
    }
}

TEST(EqResponse, IsTheSumOfTheBandsActualResponses)
{
    Eq eq;
    std::vector<double> freqs = {20.0, 60.0, 180.0, 700.0, 1000.0, 2500.0, 7000.0, 15000.0, 20000.0};
    std::vector<double> db(freqs.size(), 1.0);
    EXPECT_EQ(eq.instance->responseCurve(freqs.data(), db.data(), static_cast<std::int32_t>(freqs.size())), 0);
    ASSERT_TRUE(eq.prepare(48000.0f, 64, 2, 2));
    const Setting s;
    apply(eq, s);
    ASSERT_EQ(eq.instance->responseCurve(freqs.data(), db.data(), static_cast<std::int32_t>(freqs.size())),
              static_cast<std::int32_t>(freqs.size()));
    auto bands = referenceBands(s, 48000.0f, 2);
    for (std::size_t i = 0; i < freqs.size(); ++i) {
        long double expected = 0.0L;
        for (const auto& band : bands) {
            const BiQuadCoefficients& c = band->designed();
            const long double w = 2.0L * 3.14159265358979323846L * freqs[i] / 48000.0L;
            const std::complex<long double> z1 = std::polar(1.0L, -w);
            const long double g = c.gain, n1 = c.num1, n2 = c.num2, d1 = c.den1, d2 = c.den2;
            const auto h = g * (1.0L + n1 * z1 + n2 * z1 * z1) / (1.0L - d1 * z1 - d2 * z1 * z1);
            expected += 20.0L * std::log10(std::abs(h));
        }
        EXPECT_NEAR(db[i], static_cast<double>(expected), 1e-9) << freqs[i];
    }
    // The bell of band 3 at its own frequency, alone.
    Eq one;
    ASSERT_TRUE(one.prepare(48000.0f, 64, 2, 2));
    one.set(1, QVDEq::kIn, 0.0f);
    one.set(3, QVDEq::kIn, 0.0f);
    one.set(4, QVDEq::kIn, 0.0f);
    one.set(2, QVDEq::kGain, 6.0f);
    one.set(2, QVDEq::kFreq, 1000.0f);
    double at1k = 0.0;
    const double f1k = 1000.0;
    ASSERT_EQ(one.instance->responseCurve(&f1k, &at1k, 1), 1);
    EXPECT_NEAR(at1k, 6.0, 1e-9);
}

} // namespace
