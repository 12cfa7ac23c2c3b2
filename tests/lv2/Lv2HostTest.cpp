// Every plugin of the bundle, loaded through lilv as a DAW loads it, checked
// against what a host can observe: latency, bypass, block splits, buffer
// aliasing, bad numbers, state, meters and the real-time rules of run().
#include <dlfcn.h>

#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>

#include <gtest/gtest.h>
#include <lv2/state/state.h>

#include "../conformance/RtCheck.h"
#include "Lv2Fixture.h"

namespace qvdtest {
namespace {

using qvd::lv2::Variant;

class Lv2Variant : public ::testing::TestWithParam<std::string> {
protected:
    const Variant& v() const { return variant(GetParam()); }
    Signal input(std::size_t frames, std::uint32_t seed) const { return noise(std::max(v().inputs, 1), frames, seed); }
    static void apply(Lv2Instance& lv2, const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings)
    {
        for (const auto& [info, value] : settings)
            lv2.set(qvd::lv2::parameterSymbol(info->identifier), value);
    }
};

TEST(Lv2Catalog, EveryRegisteredPluginIsInTheBundle)
{
    std::vector<std::string> expected;
    for (const auto& v : catalog())
        expected.push_back(v.uri);
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(host().uris(), expected);
    for (const auto& [key, info] : registry().listPlugins(qvd::kAudioPlugin)) {
        EXPECT_TRUE(std::any_of(catalog().begin(), catalog().end(), [&](const Variant& v) { return v.key == key; }))
            << key;
        // Mono and stereo wherever the channel count allows; surround where it reaches 6 and 8.
        for (const auto& layout : qvd::lv2::layouts()) {
            if (info.channels >= layout.minimumChannels) {
                EXPECT_TRUE(host().plugin(qvd::lv2::pluginUri(key, layout))) << key << " " << layout.label;
            }
        }
    }
}

TEST_P(Lv2Variant, MatchesTheLibraryCalledDirectly)
{
    const auto settings = offDefaultSettings(v());
    const Signal in = input(48000 / 2, 1);
    Lv2Instance lv2(host(), GetParam(), 48000, 512);
    ASSERT_TRUE(lv2.valid());
    apply(lv2, settings);
    const Signal out = lv2.process(in, {512});
    EXPECT_EQ(firstDifference(out, processDirect(v(), 48000, in, settings)), "");
}

TEST_P(Lv2Variant, ReportsTheLatencyOfTheLibraryAndBypassIsAlignedToIt)
{
    for (const double rate : {44100.0, 96000.0, 192000.0}) {
        Lv2Instance lv2(host(), GetParam(), rate, 512);
        ASSERT_TRUE(lv2.valid());
        lv2.set("enabled", 0.0f);
        const Signal in = input(512 * 12, 2);
        const Signal out = lv2.process(in, {512});
        const auto latency = static_cast<std::size_t>(lv2.get("latency"));
        EXPECT_EQ(latency, directLatency(v(), rate)) << rate << " Hz";
        Signal expected(out.size(), std::vector<float>(in[0].size(), 0.0f));
        for (std::size_t c = 0; c < expected.size() && c < in.size() && v().inputs > 0; ++c)
            std::copy(in[c].begin(), in[c].end() - static_cast<long>(latency), expected[c].begin() + static_cast<long>(latency));
        EXPECT_EQ(firstDifference(out, expected), "") << "bypassed at " << rate << " Hz, latency " << latency;
    }
}

TEST_P(Lv2Variant, OutputDoesNotDependOnHowTheHostSplitsRuns)
{
    const auto settings = offDefaultSettings(v());
    const Signal in = input(12000, 3);
    auto render = [&](const std::vector<std::uint32_t>& split, std::int32_t maxBlock) {
        Lv2Instance lv2(host(), GetParam(), 48000, maxBlock);
        apply(lv2, settings);
        return lv2.process(in, split);
    };
    const Signal whole = render({256}, 256);
    std::mt19937 rng(4);
    std::vector<std::uint32_t> split;
    // Past the announced maximum too: the wrapper must chunk, not overrun.
    for (int i = 0; i < 64; ++i)
        split.push_back(1 + rng() % 700);
    EXPECT_EQ(firstDifference(render(split, 256), whole), "") << "random splits";
    EXPECT_EQ(firstDifference(render({1, 2, 3, 5000}, 0), whole), "") << "no options, lv2apply-like";
}

TEST_P(Lv2Variant, InPlaceAndCrossedBuffersGiveTheSameOutput)
{
    const Signal in = input(5000, 5);
    auto render = [&](Buffers buffers) {
        Lv2Instance lv2(host(), GetParam(), 48000, 512);
        return lv2.process(in, {300, 512, 17}, buffers);
    };
    const Signal separate = render(Buffers::Separate);
    EXPECT_EQ(firstDifference(render(Buffers::InPlace), separate), "") << "in place";
    if (v().inputs > 1) {
        EXPECT_EQ(firstDifference(render(Buffers::CrossAliased), separate), "")
            << "input of one channel is output of another";
    }
}

TEST_P(Lv2Variant, IgnoresNaNControlsAndRecoversFromNonFiniteInput)
{
    const Signal in = input(48000 + 2048, 6);
    Lv2Instance clean(host(), GetParam(), 48000, 512);
    const Signal reference = clean.process(in, {512});

    // A NaN in a control port leaves the parameter where it was.
    Lv2Instance poisoned(host(), GetParam(), 48000, 512);
    const auto symbols = poisoned.parameterSymbols();
    Signal first(in.size()), rest(in.size());
    for (std::size_t c = 0; c < in.size(); ++c) {
        first[c].assign(in[c].begin(), in[c].begin() + 1024);
        rest[c].assign(in[c].begin() + 1024, in[c].end());
    }
    Signal out = poisoned.process(first, {512});
    for (const auto& s : symbols)
        poisoned.set(s, std::nanf(""));
    const Signal tail = poisoned.process(rest, {512});
    for (std::size_t c = 0; c < out.size(); ++c)
        out[c].insert(out[c].end(), tail[c].begin(), tail[c].end());
    EXPECT_EQ(firstDifference(out, reference), "");

    // Non-finite input for a moment, then a second of audio: finite again.
    for (const float burst : {std::nanf(""), INFINITY, 1e30f}) {
        Lv2Instance lv2(host(), GetParam(), 48000, 512);
        Signal bad = in;
        for (auto& ch : bad)
            std::fill(ch.begin() + 512, ch.begin() + 1024, burst);
        const Signal result = lv2.process(bad, {512});
        for (const auto& ch : result)
            for (std::size_t i = 1024 + 48000; i < ch.size(); ++i)
                ASSERT_TRUE(std::isfinite(ch[i])) << "burst " << burst << ", frame " << i;
    }
}

// The state interface driven as a host saves and loads a session.
struct StateStore {
    std::map<LV2_URID, std::pair<LV2_URID, std::vector<char>>> values;
    static LV2_State_Status store(LV2_State_Handle h, uint32_t key, const void* value, size_t size, uint32_t type, uint32_t)
    {
        const auto* bytes = static_cast<const char*>(value);
        static_cast<StateStore*>(h)->values[key] = {type, std::vector<char>(bytes, bytes + size)};
        return LV2_STATE_SUCCESS;
    }
    static const void* retrieve(LV2_State_Handle h, uint32_t key, size_t* size, uint32_t* type, uint32_t* flags)
    {
        const auto& values = static_cast<StateStore*>(h)->values;
        const auto it = values.find(key);
        if (it == values.end())
            return nullptr;
        *size = it->second.second.size();
        *type = it->second.first;
        *flags = LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE;
        return it->second.second.data();
    }
};

TEST_P(Lv2Variant, StateRestoresEveryParameterByIdentifier)
{
    const auto settings = offDefaultSettings(v());
    const Signal warm = input(1024, 7), in = input(9000, 8);
    StateStore saved;
    {
        Lv2Instance a(host(), GetParam(), 48000, 512);
        apply(a, settings);
        a.process(warm, {512});
        const auto* state = static_cast<const LV2_State_Interface*>(a.extension(LV2_STATE__interface));
        ASSERT_NE(state, nullptr);
        ASSERT_EQ(state->save(a.handle(), StateStore::store, &saved, 0, nullptr), LV2_STATE_SUCCESS);
    }
    // Parameters may move each other (a room's size follows its sides), so
    // the state holds what the plugin reports, not what the ports said.
    const auto parameters = std::count_if(v().ports.begin(), v().ports.end(),
                                          [](const auto& port) { return port.role == qvd::lv2::PortRole::Parameter; });
    ASSERT_EQ(saved.values.size(), static_cast<std::size_t>(parameters));
    const auto reported = directParameters(v(), settings);
    for (const auto& [info, value] : settings) {
        const auto it = saved.values.find(host().urids().map(qvd::lv2::stateKey(info->identifier).c_str()));
        ASSERT_NE(it, saved.values.end()) << info->identifier;
        float stored;
        std::memcpy(&stored, it->second.second.data(), sizeof stored);
        EXPECT_EQ(bitsOf(stored), bitsOf(reported[static_cast<std::size_t>(info->index)])) << info->identifier;
    }

    // A fresh instance with its ports at the defaults, restored: it sounds
    // like one whose ports were set, until the host moves a port.
    Lv2Instance restored(host(), GetParam(), 48000, 512);
    const auto* state = static_cast<const LV2_State_Interface*>(restored.extension(LV2_STATE__interface));
    ASSERT_EQ(state->restore(restored.handle(), StateStore::retrieve, &saved, 0, nullptr), LV2_STATE_SUCCESS);
    Lv2Instance set(host(), GetParam(), 48000, 512);
    apply(set, settings);
    EXPECT_EQ(firstDifference(restored.process(in, {512}), set.process(in, {512})), "");

    // Saved before the next run, a moved port is saved with its new value.
    const qvd::ParameterInfo* info = settings.front().first;
    ASSERT_NE(info->maximum, info->defaultValue);
    restored.set(qvd::lv2::parameterSymbol(info->identifier), info->maximum);
    StateStore again;
    ASSERT_EQ(state->save(restored.handle(), StateStore::store, &again, 0, nullptr), LV2_STATE_SUCCESS);
    float stored;
    std::memcpy(&stored, again.values.at(host().urids().map(qvd::lv2::stateKey(info->identifier).c_str())).second.data(),
                sizeof stored);
    EXPECT_EQ(bitsOf(stored), bitsOf(info->maximum));
}

TEST_P(Lv2Variant, MetersReadTheInputLevelInDecibels)
{
    if (!v().inputs)
        GTEST_SKIP() << "a generator has no input";
    Lv2Instance lv2(host(), GetParam(), 48000, 512);
    ASSERT_TRUE(lv2.hasPort("meter_input_1")) << "every plugin so far meters its input";
    Signal sine(static_cast<std::size_t>(v().inputs), std::vector<float>(4096));
    for (auto& ch : sine)
        for (std::size_t i = 0; i < ch.size(); ++i)
            ch[i] = 0.5f * static_cast<float>(std::sin(2.0 * M_PI * 1000.0 * static_cast<double>(i) / 48000.0));
    lv2.process(sine, {512});
    for (int c = 1; c <= v().inputs; ++c)
        EXPECT_NEAR(lv2.get("meter_input_" + std::to_string(c)), -6.02, 0.05) << "channel " << c;
}

// Hosts keep control values side by side in one array (the wrapper then
// compares them as a row) or each in its own place: both are followed.
TEST(Lv2Controls, PortsAnywhereInTheHostsMemoryAreFollowed)
{
    const std::string uri = "urn:qvd:lv2:stereo-width-1364608115#stereo";
    Signal in = noise(2, 48000, 9);
    in[1] = in[0];
    // The side signal's level in dBFS over the last 0.1 s, whatever the glide.
    const auto sideDb = [](const Signal& x) {
        double sum = 0.0;
        for (std::size_t n = 43200; n < x[0].size(); ++n)
            sum += std::pow(0.5 * (static_cast<double>(x[0][n]) - x[1][n]), 2.0);
        return 10.0 * std::log10(sum / 4800.0 + 1e-30);
    };
    for (const bool ownPlace : {false, true}) {
        Lv2Instance lv2(host(), uri, 48000, 512);
        ASSERT_TRUE(lv2.valid());
        // Not the first control: a row compare starts there.
        auto invert = std::make_unique<float>(0.0f);
        if (ownPlace)
            lv2.connectControl("INVERT_R", invert.get());
        for (const float on : {1.0f, 0.0f, 1.0f}) {
            if (ownPlace)
                *invert = on;
            else
                lv2.set("INVERT_R", on);
            // Equal channels have no side until one is inverted.
            const double db = sideDb(lv2.process(in, {512}));
            if (on > 0.0f)
                EXPECT_NEAR(db, 10.0 * std::log10(std::pow(0.25, 2.0) / 3.0), 0.5) << (ownPlace ? "own place" : "row");
            else
                EXPECT_LT(db, -100.0) << (ownPlace ? "own place" : "row");
        }
    }
}

// Meters go out at least every 5 ms of audio, not every run: with 64-frame
// blocks a level change shows within 240 frames and one block.
TEST(Lv2Meters, FollowTheSignalWithin5MsAtSmallBlocks)
{
    std::string key;
    for (const auto& [k, info] : registry().listPlugins(qvd::kAudioPlugin))
        if (info.name == "Gain")
            key = k;
    Lv2Instance lv2(host(), qvd::lv2::pluginUri(key, qvd::lv2::layouts()[1]), 48000, 64);
    ASSERT_TRUE(lv2.valid());
    const Signal silence(2, std::vector<float>(64, 0.0f));
    Signal sine = silence;
    for (auto& ch : sine)
        for (std::size_t i = 0; i < ch.size(); ++i)
            ch[i] = 0.5f * static_cast<float>(std::sin(2.0 * M_PI * 750.0 * static_cast<double>(i) / 48000.0));
    // Runs until the input meter reads `db`; how many it took.
    auto runsUntil = [&](const Signal& block, double db) {
        for (int runs = 1; runs <= 20; ++runs) {
            lv2.process(block, {64});
            if (std::abs(lv2.get("meter_input_1") - db) < 0.05)
                return runs;
        }
        return 99;
    };
    EXPECT_EQ(runsUntil(silence, -100.0), 1) << "the first run publishes";
    for (int round = 0; round < 3; ++round) {
        EXPECT_LE(runsUntil(sine, -6.02), 5) << round;
        EXPECT_LE(runsUntil(silence, -100.0), 5) << round;
    }
}

// Scalar readouts are control outputs: the phase meter's correlation reads
// +1 for equal channels and -1 for opposite ones through the port.
TEST(Lv2Readouts, AreControlOutputsAHostCanRead)
{
    const std::string uri = "urn:qvd:lv2:phase-meter-1364611149#stereo";
    for (const float sign : {1.0f, -1.0f}) {
        Lv2Instance lv2(host(), uri, 48000, 512);
        ASSERT_TRUE(lv2.hasPort("readout_correlation"));
        Signal in = noise(2, 48000, 3);
        in[1] = in[0];
        for (auto& x : in[1])
            x *= sign;
        lv2.process(in, {512});
        EXPECT_NEAR(lv2.get("readout_correlation"), sign, 1e-3);
    }
}

// The interposer cannot be preloaded in front of a sanitizer runtime.
#if !defined(QVD_LV2_SANITIZED)
struct RtHooks {
    QvdRtEnterFn enter = reinterpret_cast<QvdRtEnterFn>(dlsym(RTLD_DEFAULT, "qvd_rt_enter"));
    QvdRtLeaveFn leave = reinterpret_cast<QvdRtLeaveFn>(dlsym(RTLD_DEFAULT, "qvd_rt_leave"));
    QvdRtCountsFn counts = reinterpret_cast<QvdRtCountsFn>(dlsym(RTLD_DEFAULT, "qvd_rt_counts"));
    QvdRtKindNameFn name = reinterpret_cast<QvdRtKindNameFn>(dlsym(RTLD_DEFAULT, "qvd_rt_kind_name"));
    std::vector<std::uint64_t> snapshot() const
    {
        std::vector<std::uint64_t> c(16);
        c.resize(static_cast<std::size_t>(counts(c.data(), 16)));
        return c;
    }
};

TEST_P(Lv2Variant, RunNeitherAllocatesNorLocksNorWaits)
{
    static const RtHooks rt;
    ASSERT_TRUE(rt.enter && rt.leave && rt.counts && rt.name) << "run with LD_PRELOAD=libqvd_rtcheck.so";
    Lv2Instance lv2(host(), GetParam(), 48000, 256);
    lv2.beforeRun = rt.enter;
    lv2.afterRun = rt.leave;
    const auto settings = offDefaultSettings(v());
    const Signal in = input(4096, 9);
    const auto before = rt.snapshot();
    std::mt19937 rng(10);
    // Every run with new control values and, now and then, bypass flipped:
    // the changes reach the plugin inside run().
    for (int round = 0; round < 40; ++round) {
        for (const auto& [info, value] : settings)
            lv2.set(qvd::lv2::parameterSymbol(info->identifier),
                    std::uniform_real_distribution<float>(info->minimum, info->maximum)(rng));
        lv2.set("enabled", round % 7 == 3 ? 0.0f : 1.0f);
        lv2.process(in, {static_cast<std::uint32_t>(1 + rng() % 300), 256, 700});
    }
    const auto after = rt.snapshot();
    std::string calls;
    for (std::size_t i = 0; i < after.size(); ++i)
        if (after[i] != before[i])
            calls += std::string(rt.name(static_cast<int>(i))) + " " + std::to_string(after[i] - before[i]) + " ";
    EXPECT_EQ(calls, "");
}
#endif

INSTANTIATE_TEST_SUITE_P(Bundle, Lv2Variant, allVariants(), testName);

} // namespace
} // namespace qvdtest
