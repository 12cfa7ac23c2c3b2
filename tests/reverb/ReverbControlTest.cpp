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
    EXPECT_EQ(rig.param->late.core.delays, before);
    EXPECT_EQ(rig.control->dirty(), 0);
    rig.control->set(Control::RoomHeight, -3.0f);
    rig.control->set(Control::RoomWidth, std::nanf(""));
    EXPECT_EQ(rig.param->late.core.delays, before);
    rig.control->set(Control::RoomHeight, 3.0f);
    rig.control->set(Control::RoomWidth, 8.0f);
    EXPECT_NE(rig.param->late.core.delays, before);
}

// Source 2 m along x in a 10 m cube: the image distances follow by hand.
TEST(ReverbControl, ImageSourcesMirrorOddIndicesIncludingMinusOne)
{
    Control::Settings s = defaults();
    s[0] = s[1] = s[2] = 10.0f;
    s[7] = 2.0f;
    s[8] = s[9] = 0.0f;
    Rig rig(48000.0f, s, 1);
    const float d1 = 8.0f, d2 = std::sqrt(104.0f), d3 = std::sqrt(164.0f), d4 = std::sqrt(204.0f),
                d5 = std::sqrt(244.0f);
    const float dist[16] = {d1, d2, d2, d2, d2, d3, d3, d3, d4, d4, d4, d4, d5, d5, d5, d5};
    for (int t = 0; t < 16; ++t) {
        const float delay = std::nearbyint((dist[t] - 2.0f) * 48000.0f / 340.0f);
        EXPECT_NEAR(rig.param->early.delays[t], delay, 1.0f) << "tap " << t;
        EXPECT_NEAR(rig.param->early_mix.gain[t][0], 1.0f / (1.0f + dist[t]), 1e-5f) << "tap " << t;
    }
    EXPECT_FLOAT_EQ(rig.control->direct_level(), 1.0f / 3.0f);
}

TEST(ReverbControl, PreDelayShiftsTapsButNeverBeforeSampleFour)
{
    Rig plain;
    const auto base = plain.param->early.delays;

    Control::Settings s = defaults();
    s[10] = 1.0f / 48000.0f;
    Rig oneSample(48000.0f, s);
    for (int t = 0; t < 16; ++t)
        EXPECT_NEAR(oneSample.param->early.delays[t], base[t] + 1, 1) << t;
    EXPECT_GE(oneSample.param->early.delays[0], 4);

    // A source against the wall of a tiny room: the path difference floors
    // at 10 cm, and one sample of pre-delay lands on top of it.
    s = defaults();
    s[0] = s[1] = s[2] = 0.3f;
    s[7] = 5.0f;
    s[8] = s[9] = 0.0f;
    s[10] = 1.0f / 48000.0f;
    Rig nearWall(48000.0f, s);
    EXPECT_EQ(nearWall.param->early.delays[0], static_cast<int>(std::nearbyint(0.1f * 48000.0f / 340.0f + 1.0f)));

    s = defaults();
    s[10] = -0.2f;
    Rig early(48000.0f, s);
    EXPECT_EQ(early.param->early.delays[0], 4);
    const int shift = static_cast<int>(base[0]) - 4;
    for (int t = 1; t < 16; ++t)
        EXPECT_NEAR(early.param->early.delays[t], base[t] - shift, 1) << t;

    s[10] = 10.0f; // far past the line
    Rig longest(48000.0f, s);
    for (const auto d : longest.param->early.delays)
        EXPECT_EQ(d, qv_reflections_mod_param::DelayLines::MaxLength);
}

TEST(ReverbControl, DistanceBeyondTheRoomIsClippedToItsWalls)
{
    Control::Settings s = defaults();
    s[7] = 100.0f;
    Rig far(48000.0f, s);
    s[7] = 1000.0f;
    Rig further(48000.0f, s);
    EXPECT_EQ(further.param->early.delays, far.param->early.delays);
    EXPECT_EQ(further.control->direct_level(), far.control->direct_level());
    // Inside the walls, the direct sound falls as 1 / (1 + distance).
    EXPECT_LT(far.control->direct_level(), Rig().control->direct_level());
    EXPECT_GT(far.control->direct_level(), 1.0f / (1.0f + std::hypot(s[0], s[1], s[2])));
}

TEST(ReverbControl, MixLawsAtDryHalfAndWet)
{
    Control::Settings s = defaults();
    s[12] = 0.5f;
    Rig half(48000.0f, s);
    const float dl = half.control->direct_level(), ll = half.control->late_level();
    const float early = std::fabs(half.param->early_mix.gain[0][0]);
    const float late = std::fabs(half.param->late.out_gains[0][0]);
    EXPECT_GT(early, 0.0f);
    EXPECT_NEAR(half.param->direct.gain[0][0], dl, 1e-6f);
    EXPECT_NEAR(half.param->direct.gain[1][1], dl, 1e-6f);
    EXPECT_EQ(half.param->direct.gain[0][1], 0.0f);

    s[12] = 0.0f;
    Rig dry(48000.0f, s);
    EXPECT_EQ(dry.param->direct.gain[0][0], 1.0f);
    EXPECT_EQ(dry.param->early_mix.gain[0][0], 0.0f);
    EXPECT_EQ(dry.param->late.out_gains[0][0], 0.0f);

    s[12] = 0.25f;
    Rig quarter(48000.0f, s);
    EXPECT_NEAR(quarter.param->direct.gain[0][0], std::pow(dl, 0.5f), 1e-6f);
    EXPECT_NEAR(std::fabs(quarter.param->early_mix.gain[0][0]), 0.5f * early, 1e-6f);
    EXPECT_NEAR(std::fabs(quarter.param->late.out_gains[0][0]), 0.5f * late, 1e-6f);

    s[12] = 1.0f;
    Rig wet(48000.0f, s);
    EXPECT_EQ(wet.param->direct.gain[0][0], 0.0f);
    EXPECT_EQ(std::fabs(wet.param->early_mix.gain[0][0]), early);
    // Late at unity: the base gain without the late level.
    EXPECT_NEAR(std::fabs(wet.param->late.out_gains[0][0]), late / ll, 1e-6f);

    s[12] = 0.5f;
    s[13] = 0.5f;
    s[14] = 0.0f;
    Rig scaled(48000.0f, s);
    EXPECT_NEAR(scaled.param->direct.gain[0][0], 0.5f * dl, 1e-6f);
    EXPECT_EQ(scaled.param->early_mix.gain[3][1], 0.0f);
}

TEST(ReverbControl, DecayDampingAndToneFollowReverbTimeAndBrightness)
{
    Control::Settings s = defaults();
    s[6] = 1.0f;
    Rig bright(48000.0f, s);
    const auto& core = bright.param->late.core;
    float total = 0.0f;
    for (int i = 0; i < 16; ++i) {
        const float t = bright.control->line_times()[i];
        EXPECT_NEAR(core.gains[i], std::pow(10.0f, -3.0f * t / 0.95f), 1e-6f);
        EXPECT_EQ(core.damping[i], 0.0f);
        total += t;
    }
    EXPECT_EQ(core.tone[0], 0.0f);
    EXPECT_NEAR(bright.control->late_level(), std::sqrt(total / 0.95f), 1e-6f);

    s[6] = 1e-6f;
    Rig dark(48000.0f, s);
    for (int i = 0; i < 16; ++i)
        EXPECT_FLOAT_EQ(dark.param->late.core.damping[i], -0.9999f);
    EXPECT_NEAR(dark.param->late.core.tone[1], 1.0f, 1e-5f);

    // Half brightness: the line loses at Nyquist what it keeps at DC, again.
    s[6] = 0.5f;
    Rig half(48000.0f, s);
    const float g = half.param->late.core.gains[0], d = half.param->late.core.damping[0];
    EXPECT_NEAR((1.0f + d) / (1.0f - d), g, 1e-5f);
    EXPECT_NEAR(half.param->late.core.tone[0], 1.0f / 3.0f, 1e-6f);
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
    rig.control->set(17, 2.0f); // late low gain
    const BiQuadCoefficients want = BiQuad::design(BiQuad::kLowShelf, 48000.0, 300.0, 0.33333334f, 2.0);
    const auto& b = rig.param->late_eq.bands[0];
    EXPECT_EQ(b.num1, want.num1);
    EXPECT_EQ(b.den1, want.den1);
    EXPECT_EQ(b.gain, want.gain);
    EXPECT_TRUE(rig.param->early_eq.bands[0].neutral());

    // A changed early band rewrites the early record only.
    rig.param->late_eq.bands[1].gain = 7.0; // marker
    rig.control->set(26, 0.5f);              // early high gain
    EXPECT_EQ(rig.param->late_eq.bands[1].gain, 7.0);
    EXPECT_FALSE(rig.param->early_eq.bands[1].neutral());
    EXPECT_LT(rig.param->early_eq.bands[1].gain, 1.0);

    // A corner above the engine's Nyquist still designs a stable band.
    rig.control->set(19, 30000.0f);
    rig.control->set(20, 0.125f);
    BiQuadCoefficients c{rig.param->late_eq.bands[1].den2, rig.param->late_eq.bands[1].den1,
                         rig.param->late_eq.bands[1].num2, rig.param->late_eq.bands[1].num1,
                         rig.param->late_eq.bands[1].gain};
    EXPECT_TRUE(c.isStable());
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
