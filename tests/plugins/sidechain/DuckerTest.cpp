#include "PluginFixture.h"

#include <qvd/HostExtensions.h>

#include <cstring>
#include <limits>
#include <memory>

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Ducker:1364608085";

// A host that supplies one key signal as every instance's side-chain, or
// says it has none. Fewer key channels than asked for repeat the last.
class KeyHost final : public qvd::HostExtensions {
public:
    Signal key;
    bool available = true;
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t, const char* source, std::int64_t position, float* const* channels,
                    std::int32_t count, std::int32_t frames) override
    {
        if (!available || std::strcmp(source, qvd::kSourceSideChain) != 0 || position < 0)
            return false;
        for (std::int32_t c = 0; c < count; ++c) {
            const auto& k = key[std::min<std::size_t>(static_cast<std::size_t>(c), key.size() - 1)];
            for (std::int32_t n = 0; n < frames; ++n) {
                const auto at = static_cast<std::size_t>(position + n);
                channels[c][n] = at < k.size() ? k[at] : 0.0f;
            }
        }
        return true;
    }
};

// The Ducker created while `host` (null: none) is the registry's extensions.
std::unique_ptr<PluginFixture> makeDucker(qvd::HostExtensions* host)
{
    auto* registry = static_cast<qvd::PluginInterface*>(GetQVDPluginInterface());
    registry->setHostExtensions(host);
    auto fixture = std::make_unique<PluginFixture>(kKey);
    registry->setHostExtensions(nullptr);
    return fixture;
}

// Runs `in` with timeline positions from 0, in blocks of `block` or of
// random sizes up to it with `seed` != 0.
Signal runTimed(PluginFixture& p, const Signal& in, int block, unsigned seed = 0)
{
    const std::size_t frames = in[0].size();
    Signal out = silence(static_cast<int>(in.size()), frames);
    std::vector<const float*> ip(in.size());
    std::vector<float*> op(in.size());
    std::mt19937 rng(seed);
    qvd::BlockRecord record{};
    record.mode = qvd::kModePlaying;
    for (std::size_t done = 0; done < frames;) {
        std::size_t n = seed ? 1 + rng() % static_cast<unsigned>(block) : static_cast<std::size_t>(block);
        n = std::min(n, frames - done);
        for (std::size_t c = 0; c < in.size(); ++c) {
            ip[c] = in[c].data() + done;
            op[c] = out[c].data() + done;
        }
        record.position = static_cast<std::int64_t>(done);
        p.audio()->process(&record, ip.data(), op.data(), static_cast<std::int32_t>(n));
        done += n;
    }
    return out;
}

// A voice-like key: 200 Hz with two harmonics, peak about -10 dBFS, on from
// `from` to `to` seconds with 10 ms raised-cosine edges.
Signal voiceKey(int channels, std::size_t frames, double from, double to)
{
    Signal s = silence(channels, frames);
    const double edge = 0.010;
    for (std::size_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / kRate;
        double env = 0.0;
        if (t >= from && t < to)
            env = std::min({1.0, (t - from) / edge, (to - t) / edge});
        env = 0.5 - 0.5 * std::cos(M_PI * std::clamp(env, 0.0, 1.0));
        const double w = 2.0 * M_PI * 200.0 * t;
        const double x = 0.18 * env * (std::sin(w) + 0.5 * std::sin(2 * w) + 0.25 * std::sin(3 * w));
        for (auto& ch : s)
            ch[n] = static_cast<float>(x);
    }
    return s;
}

// Gain the plugin applied on channel 0, dB per frame; frames where the
// input is near a zero crossing carry the previous value.
std::vector<double> gainDb(const Signal& in, const Signal& out, std::size_t shift = 0)
{
    std::vector<double> db(in[0].size() - shift, 0.0);
    double last = 0.0;
    for (std::size_t n = 0; n < db.size(); ++n) {
        if (std::fabs(in[0][n]) > 0.05f)
            last = 20.0 * std::log10(std::fabs(static_cast<double>(out[0][n + shift]) / in[0][n]));
        db[n] = last;
    }
    return db;
}

std::size_t firstKeyAbove(const Signal& key, double thresholdDb, bool last = false)
{
    const double t = std::pow(10.0, thresholdDb / 20.0);
    std::size_t found = SIZE_MAX;
    for (std::size_t n = 0; n < key[0].size(); ++n)
        if (std::fabs(key[0][n]) > t) {
            found = n;
            if (!last)
                break;
        }
    return found;
}

template <class Pred>
std::size_t firstWhere(const std::vector<double>& db, std::size_t from, Pred pred)
{
    for (std::size_t n = from; n < db.size(); ++n)
        if (pred(db[n]))
            return n;
    return SIZE_MAX;
}

double ms(std::size_t frames)
{
    return static_cast<double>(frames) * 1000.0 / kRate;
}

double readout(const PluginFixture& p, int index)
{
    double v = -999.0;
    p.instance()->readReadout(index, &v, 1);
    return v;
}

} // namespace

TEST(Ducker, LevelFollowsDepthAttackHoldAndRelease)
{
    struct Case {
        float depth, attack, hold, release;
    };
    for (const Case c : {Case{-20, 50, 200, 400}, Case{-6, 10, 50, 100}, Case{-40, 200, 500, 1000}}) {
        SCOPED_TRACE(testing::Message() << "depth " << c.depth << " attack " << c.attack << " hold " << c.hold
                                        << " release " << c.release);
        KeyHost host;
        const std::size_t frames = static_cast<std::size_t>(3.5 * kRate);
        host.key = voiceKey(1, frames, 0.5, 1.5); // mono key feeds a stereo main
        auto p = makeDucker(&host);
        p->set("THRESHOLD", -30);
        p->set("DEPTH", c.depth);
        p->set("ATTACK", c.attack);
        p->set("HOLD", c.hold);
        p->set("RELEASE", c.release);
        const Signal in = sine(2, frames, 1000.0, kRate, 0.5);
        for (unsigned seed : {0u, 11u}) {
            ASSERT_TRUE(p->prepare(kRate, 256, 2));
            const Signal out = runTimed(*p, in, 256, seed);
            const auto db = gainDb(in, out);
            const std::size_t on = firstKeyAbove(host.key, -30), off = firstKeyAbove(host.key, -30, true);
            ASSERT_LT(on, off);
            EXPECT_NEAR(db[on > 0 ? on - 1 : 0], 0.0, 1e-9) << "no ducking before the key";

            const std::size_t full = firstWhere(db, on, [&](double g) { return g <= c.depth + 0.05; });
            EXPECT_NEAR(ms(full - on), c.attack, 0.1 * c.attack) << "attack";
            for (std::size_t n = full; n < off; n += 480)
                ASSERT_NEAR(db[n], c.depth, 0.5) << "depth at " << ms(n) << " ms";

            const std::size_t rise = firstWhere(db, off, [&](double g) { return g > c.depth + 0.05; });
            EXPECT_NEAR(ms(rise - off), c.hold, 0.1 * c.hold) << "hold";
            const std::size_t back = firstWhere(db, rise, [](double g) { return g >= -0.05; });
            EXPECT_NEAR(ms(back - rise), c.release, 0.1 * c.release) << "release";
            EXPECT_NEAR(readout(*p, 0), 0.0, 1e-9) << "gain readout back at 0 dB";
            EXPECT_EQ(readout(*p, 1), 1.0) << "key readout";
            // Fully released, the gain is exactly 1 again.
            const std::size_t settled = back + static_cast<std::size_t>(0.002 * kRate);
            for (std::size_t n = settled; n < frames; ++n)
                ASSERT_EQ(out[1][n], in[1][n]) << ms(n) << " ms";
        }
    }
}

TEST(Ducker, WithoutAKeyTheAudioPassesBitExactDelayedByTheLookAheadOnly)
{
    const std::size_t frames = 20000;
    const Signal in = noise(2, frames, 5, 0.9f);
    KeyHost refusing; // a host that offers extensions but has no side-chain
    refusing.available = false;
    for (qvd::HostExtensions* host : {static_cast<qvd::HostExtensions*>(nullptr),
                                      static_cast<qvd::HostExtensions*>(&refusing)}) {
        for (float look : {0.0f, 5.0f, 20.0f}) {
            SCOPED_TRACE(testing::Message() << (host ? "host without key" : "no host extensions") << ", look-ahead "
                                            << look << " ms");
            auto p = makeDucker(host);
            p->set("THRESHOLD", -60);
            p->set("DEPTH", -40);
            p->set("LOOKAHEAD", look);
            ASSERT_TRUE(p->prepare(kRate, 512, 2));
            const auto latency = static_cast<std::size_t>(std::lround(look * kRate / 1000.0));
            EXPECT_EQ(p->instance()->getLatency(), latency);
            const Signal out = runTimed(*p, in, 512, 3);
            for (std::size_t c = 0; c < 2; ++c) {
                for (std::size_t n = 0; n < latency; ++n)
                    ASSERT_EQ(out[c][n], 0.0f);
                for (std::size_t n = latency; n < frames; ++n)
                    ASSERT_EQ(out[c][n], in[c][n - latency]) << "channel " << c << " frame " << n;
            }
            EXPECT_EQ(readout(*p, 1), 0.0) << "the key readout says the side-chain is silent";
            EXPECT_EQ(readout(*p, 0), 0.0);
        }
    }
}

TEST(Ducker, LookAheadIsReportedAndStartsTheDropThatMuchEarlier)
{
    KeyHost host;
    const std::size_t frames = static_cast<std::size_t>(1.5 * kRate);
    host.key = voiceKey(2, frames, 0.5, 1.0);
    const Signal in = sine(2, frames, 1000.0, kRate, 0.5);
    std::size_t start[2] = {};
    const float looks[2] = {0.0f, 12.5f};
    for (int i = 0; i < 2; ++i) {
        auto p = makeDucker(&host);
        p->set("ATTACK", 5);
        p->set("LOOKAHEAD", looks[i]);
        ASSERT_TRUE(p->prepare(kRate, 480, 2));
        const auto latency = static_cast<std::size_t>(p->instance()->getLatency());
        EXPECT_EQ(latency, static_cast<std::size_t>(std::lround(looks[i] * kRate / 1000.0)));
        const Signal out = runTimed(*p, in, 480);
        start[i] = firstWhere(gainDb(in, out, latency), 0, [](double g) { return g < -0.01; });
    }
    EXPECT_EQ(start[0] - start[1], 600u) << "12.5 ms at 48 kHz";
}

TEST(Ducker, KeyDetectionChannelsAndFilter)
{
    const std::size_t frames = static_cast<std::size_t>(0.5 * kRate);
    const Signal in = sine(2, frames, 1000.0, kRate, 0.5);
    auto duckedDb = [&](const Signal& key, std::initializer_list<std::pair<const char*, float>> settings) {
        KeyHost host;
        host.key = key;
        auto p = makeDucker(&host);
        p->set("ATTACK", 1);
        for (const auto& [name, value] : settings)
            p->set(name, value);
        p->prepare(kRate, 512, 2);
        const auto db = gainDb(in, runTimed(*p, in, 512));
        return *std::min_element(db.begin(), db.end());
    };
    // Opposite polarity on the two key channels: the loudest channel ducks,
    // their sum is silent.
    Signal antiphase = sine(2, frames, 200.0, kRate, 0.3);
    for (auto& x : antiphase[1])
        x = -x;
    EXPECT_NEAR(duckedDb(antiphase, {{"KEY_DETECT", 0}}), -12.0, 0.01);
    EXPECT_NEAR(duckedDb(antiphase, {{"KEY_DETECT", 1}}), 0.0, 1e-9);
    // A one-sided stereo key ducks as well.
    Signal leftOnly = sine(2, frames, 200.0, kRate, 0.3);
    std::fill(leftOnly[1].begin(), leftOnly[1].end(), 0.0f);
    EXPECT_NEAR(duckedDb(leftOnly, {}), -12.0, 0.01);

    // 40 Hz rumble at -10 dBFS ducks unfiltered; the voice band (150 Hz to
    // 4 kHz, 12 dB/oct) takes it more than 10 dB under a -20 dB threshold,
    // while a 1 kHz key still ducks through it.
    Signal rumble = sine(2, frames, 40.0, kRate, 0.316);
    for (auto& ch : rumble) // faded in over 50 ms, as rumble comes
        for (std::size_t n = 0; n < 2400; ++n)
            ch[n] *= static_cast<float>(n) / 2400.0f;
    EXPECT_NEAR(duckedDb(rumble, {{"THRESHOLD", -20}}), -12.0, 0.01);
    EXPECT_NEAR(duckedDb(rumble, {{"THRESHOLD", -20}, {"KEY_FILTER", 1}}), 0.0, 1e-9);
    EXPECT_NEAR(duckedDb(sine(2, frames, 1000.0, kRate, 0.316), {{"THRESHOLD", -20}, {"KEY_FILTER", 1}}), -12.0,
                0.01);
}

TEST(Ducker, BrokenKeySamplesNeverReachTheAudio)
{
    KeyHost host;
    const std::size_t frames = 48000;
    host.key = voiceKey(2, frames, 0.1, 0.3);
    for (std::size_t n = 6000; n < 6100; ++n)
        host.key[n % 2][n] = n % 3 ? std::numeric_limits<float>::quiet_NaN() : std::numeric_limits<float>::infinity();
    auto p = makeDucker(&host);
    p->set("KEY_FILTER", 1);
    p->set("LOOKAHEAD", 3);
    ASSERT_TRUE(p->prepare(kRate, 256, 2));
    const Signal in = sine(2, frames, 1000.0, kRate, 0.5);
    const Signal out = runTimed(*p, in, 256);
    for (const auto& ch : out)
        for (float x : ch)
            ASSERT_TRUE(std::isfinite(x));
    // Ducked during the burst and back afterwards.
    EXPECT_LT(peak(out[0], 7000, 12000), 0.5 * 0.3);
    EXPECT_NEAR(peak(out[0], 40000, 48000), 0.5, 1e-3);
}
