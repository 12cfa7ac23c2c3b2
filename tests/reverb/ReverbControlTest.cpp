// The controller's stated figures: line delays from the room modes, early
// reflections from the image sources, pre-delay, mix laws, decay and tone.

#include "ReverbSupport.h"

#include <BiQuad.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>

namespace {

using reverbtest::Control;
using reverbtest::defaults;

using Rig = reverbtest::EngineSetup;

// The defaults with some settings changed.
Control::Settings with(std::initializer_list<std::pair<int, float>> changes)
{
    Control::Settings s = defaults();
    for (const auto& [index, value] : changes)
        s[static_cast<std::size_t>(index)] = value;
    return s;
}

// Lines take the periods of the room's lowest modes, 2 / c / |(nx/W, ny/L, nz/H)|
// for n in 0..2, rounded to odd samples: the fifteen longest, and for the last
// line the shortest of the first sixteen in (nx, ny, nz) order.
TEST(ReverbControl, LineDelaysAreTheRoomModePeriods)
{
    Control::Settings thin = defaults();
    thin[0] = 3.0f, thin[1] = 37.0f, thin[2] = 2.5f; // short modes early in the order
    for (const auto& [rate, s] : {std::pair{48000.0f, defaults()}, std::pair{44100.0f, thin}}) {
        Rig rig(rate, s);
        std::vector<double> modes;
        for (int nx = 0; nx <= 2; ++nx)
            for (int ny = 0; ny <= 2; ++ny)
                for (int nz = 1 - std::min(1, nx + ny); nz <= 2; ++nz)
                    modes.push_back(2.0 / 340.0 / std::hypot(nx / s[0], ny / s[1], nz / s[2]) * rate);
        const auto& d = rig.param->late.core.delays;
        // The fast inverse square root is good to 0.18 %.
        const auto near = [](double got, double want) { return std::fabs(got - want) <= 0.002 * want + 1.0; };
        EXPECT_PRED2(near, d[15], *std::min_element(modes.begin(), modes.begin() + 16));
        std::sort(modes.rbegin(), modes.rend());
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(d[i] % 2, 1u) << i;
            EXPECT_FLOAT_EQ(rig.control->line_times()[i], d[i] / rate);
            if (i < 15) {
                EXPECT_PRED2(near, d[i], modes[i]) << "line " << i;
            }
        }
        EXPECT_EQ(rig.control->dirty(), 0);
    }
    for (const float x : {0.01f, 0.25f, 1.0f, 2.0f, 7.5f, 1000.0f}) {
        EXPECT_NEAR(Control::fastInverseSqrt(x) * std::sqrt(x), 1.0f, 0.0018f) << x;
        EXPECT_LE(Control::fastInverseSqrt(x), 1.0f / std::sqrt(x)) << "one Newton step from below";
    }
}

TEST(ReverbControl, RoomAtOrBelowTenCentimetresKeepsTheDelaysAndEndsTheLoop)
{
    Rig rig;
    const auto before = rig.param->late.core.delays;
    rig.control->set(Control::RoomWidth, 0.1f);
    EXPECT_EQ(rig.control->dirty(), 0);
    rig.control->set(Control::RoomHeight, -3.0f);
    rig.control->set(Control::RoomWidth, std::nanf(""));
    EXPECT_EQ(rig.param->late.core.delays, before);
    rig.control->set(Control::RoomHeight, 3.0f);
    rig.control->set(Control::RoomWidth, 8.0f);
    EXPECT_NE(rig.param->late.core.delays, before);
}

// Source 2 m along x in a 10 m cube: the image distances follow by hand;
// each reflection arrives (distance - 2 m) / c after the direct sound, at 1 / (1 + distance).
TEST(ReverbControl, ImageSourcesMirrorOddIndicesIncludingMinusOne)
{
    Rig rig(48000.0f, with({{0, 10.0f}, {1, 10.0f}, {2, 10.0f}, {7, 2.0f}, {8, 0.0f}, {9, 0.0f}}), 1);
    const float d1 = 8.0f, d2 = std::sqrt(104.0f), d3 = std::sqrt(164.0f), d4 = std::sqrt(204.0f),
                d5 = std::sqrt(244.0f);
    const float dist[16] = {d1, d2, d2, d2, d2, d3, d3, d3, d4, d4, d4, d4, d5, d5, d5, d5};
    for (int t = 0; t < 16; ++t) {
        EXPECT_NEAR(rig.param->early.delays[t], (dist[t] - 2.0f) * 48000.0f / 340.0f, 1.0f) << "tap " << t;
        EXPECT_NEAR(rig.param->early_mix.gain[t][0], 1.0f / (1.0f + dist[t]), 1e-5f) << "tap " << t;
    }
    EXPECT_FLOAT_EQ(rig.control->direct_level(), 1.0f / 3.0f);
}

TEST(ReverbControl, PreDelayShiftsTapsButNeverBeforeSampleFour)
{
    const auto base = Rig().param->early.delays;
    for (const float seconds : {1.0f / 48000.0f, -0.2f}) {
        const auto d = Rig(48000.0f, with({{10, seconds}})).param->early.delays;
        // The earliest tap lands on sample 4 at the latest; the rest keep their spacing.
        const int shift = seconds > 0 ? 1 : 4 - static_cast<int>(base[0]);
        EXPECT_EQ(d[0], std::max(4, static_cast<int>(base[0]) + shift));
        for (int t = 1; t < 16; ++t)
            EXPECT_NEAR(d[t], static_cast<int>(base[t]) + shift, 1) << t;
    }
    // A source against the wall of a tiny room: the path difference floors
    // at 10 cm, and one sample of pre-delay lands on top of it.
    Rig nearWall(48000.0f, with({{0, 0.3f}, {1, 0.3f}, {2, 0.3f}, {7, 5.0f}, {8, 0.0f}, {9, 0.0f}, {10, 1.0f / 48000.0f}}));
    EXPECT_EQ(nearWall.param->early.delays[0], static_cast<int>(std::nearbyint(0.1f * 48000.0f / 340.0f + 1.0f)));
    const Rig farPast(48000.0f, with({{10, 10.0f}})); // far past the line
    for (const auto d : farPast.param->early.delays)
        EXPECT_EQ(d, qv_reflections_mod_param::DelayLines::MaxLength);
}

TEST(ReverbControl, DistanceBeyondTheRoomIsClippedToItsWalls)
{
    Rig far(48000.0f, with({{7, 100.0f}})), further(48000.0f, with({{7, 1000.0f}}));
    EXPECT_EQ(further.param->early.delays, far.param->early.delays);
    EXPECT_EQ(further.control->direct_level(), far.control->direct_level());
    const auto s = defaults();
    EXPECT_LT(far.control->direct_level(), Rig().control->direct_level());
    EXPECT_GT(far.control->direct_level(), 1.0f / (1.0f + std::hypot(s[0], s[1], s[2])));
}

// Dry/wet: direct alone when dry, no direct when wet; early and late grow
// with the mix; the three level settings scale their paths.
TEST(ReverbControl, MixLawsFromDryToWet)
{
    float previousDirect = 2.0f, previousEarly = -1.0f, previousLate = -1.0f;
    for (const float mix : {0.0f, 0.25f, 0.5f, 1.0f}) {
        Rig rig(48000.0f, with({{12, mix}}));
        const auto& p = *rig.param;
        EXPECT_EQ(p.direct.gain[0][1], 0.0f) << "no crosstalk";
        EXPECT_EQ(p.direct.gain[0][0], p.direct.gain[1][1]);
        EXPECT_LT(p.direct.gain[0][0], previousDirect) << mix;
        EXPECT_GE(std::fabs(p.early_mix.gain[0][0]), previousEarly) << mix;
        EXPECT_EQ(p.early_mix.gain[0][0] == 0.0f, mix == 0.0f) << mix;
        EXPECT_GT(std::fabs(p.late.out_gains[0][0]), previousLate) << mix;
        previousDirect = p.direct.gain[0][0];
        previousEarly = std::fabs(p.early_mix.gain[0][0]);
        previousLate = std::fabs(p.late.out_gains[0][0]);
        EXPECT_EQ(p.direct.gain[0][0] == 1.0f, mix == 0.0f) << mix;
    }
    EXPECT_EQ(previousDirect, 0.0f);
    Rig half(48000.0f, with({{12, 0.5f}})), scaled(48000.0f, with({{12, 0.5f}, {13, 0.5f}, {14, 0.0f}}));
    EXPECT_NEAR(scaled.param->direct.gain[0][0], 0.5f * half.param->direct.gain[0][0], 1e-6f);
    EXPECT_EQ(scaled.param->early_mix.gain[3][1], 0.0f);
}

// Each line loses 60 dB in the reverb time; damping takes more at Nyquist as
// brightness falls.
TEST(ReverbControl, DecayAndDampingFollowReverbTimeAndBrightness)
{
    Rig bright(48000.0f, with({{6, 1.0f}}));
    for (int i = 0; i < 16; ++i) {
        const float t = bright.control->line_times()[i];
        EXPECT_NEAR(20.0f * std::log10(bright.param->late.core.gains[i]) * 0.95f / t, -60.0f, 1e-3f);
        EXPECT_EQ(bright.param->late.core.damping[i], 0.0f);
    }
    // Half brightness: the line loses at Nyquist what it keeps at DC, again.
    Rig half(48000.0f, with({{6, 0.5f}}));
    const float g = half.param->late.core.gains[0], d = half.param->late.core.damping[0];
    EXPECT_NEAR((1.0f + d) / (1.0f - d), g, 1e-5f);
    Rig dark(48000.0f, with({{6, 1e-6f}}));
    EXPECT_LT(dark.param->late.core.damping[0], d);
    EXPECT_GT(dark.param->late.core.damping[0], -1.0f) << "stable";
}

TEST(ReverbControl, ModulationDepthGrowsPerLineUpToTheLimit)
{
    Rig rig;
    const auto& m = rig.param->late.core.modulation;
    for (int i = 1; i < 16; ++i)
        EXPECT_GT(m[i], m[i - 1]) << i;
    rig.control->set(Control::Modulation, 1000.0f);
    EXPECT_TRUE(std::all_of(m.begin(), m.end(), [](float v) { return v == Control::kMaxModulation; }));
    rig.control->set(Control::Modulation, -5.0f);
    EXPECT_TRUE(std::all_of(m.begin(), m.end(), [](float v) { return v == 0.0f; }));
}

TEST(ReverbControl, ToneBandsAreDesignedOnlyWhenTheirSettingsChange)
{
    Rig rig;
    EXPECT_TRUE(rig.param->late_eq.bands[0].neutral()) << "unity gain shelves stay neutral";
    rig.control->set(17, 2.0f); // late low gain: +6 dB below 300 Hz
    const auto& b = rig.param->late_eq.bands[0];
    const BiQuadCoefficients low{b.den2, b.den1, b.num2, b.num1, b.gain};
    EXPECT_NEAR(low.magnitude(0.0, 48000.0), 2.0, 1e-6);
    EXPECT_NEAR(low.magnitude(24000.0, 48000.0), 1.0, 1e-6);
    EXPECT_TRUE(rig.param->early_eq.bands[0].neutral());
    // A changed early band rewrites the early record only.
    rig.param->late_eq.bands[1].gain = 7.0; // marker
    rig.control->set(26, 0.5f);              // early high gain
    EXPECT_EQ(rig.param->late_eq.bands[1].gain, 7.0);
    EXPECT_LT(rig.param->early_eq.bands[1].gain, 1.0);
    // A corner above the engine's Nyquist still designs a stable band.
    rig.control->set(19, 30000.0f);
    rig.control->set(20, 0.125f);
    const auto& h = rig.param->late_eq.bands[1];
    EXPECT_TRUE((BiQuadCoefficients{h.den2, h.den1, h.num2, h.num1, h.gain}.isStable()));
}

// Same level on both outputs, signs differing between them for width.
TEST(ReverbControl, EarlyGainsDifferInSignAcrossOutputs)
{
    Rig rig(48000.0f, defaults(), 2);
    int differing = 0;
    for (const auto& tap : rig.param->early_mix.gain) {
        EXPECT_GT(std::fabs(tap[0]), 0.0f);
        EXPECT_EQ(std::fabs(tap[0]), std::fabs(tap[1]));
        differing += (tap[0] < 0) != (tap[1] < 0);
    }
    EXPECT_GE(differing, 4);
    EXPECT_LE(differing, 12);
}

} // namespace
