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

struct Rig {
    explicit Rig(float rate = 48000.0f, Control::Settings s = defaults(), std::uint32_t channels = 2)
    {
        param = std::make_unique<qv_reverb_u15_param>();
        param->inputs = param->outputs = channels;
        control = std::make_unique<Control>(rate, s, param.get());
    }
    std::unique_ptr<qv_reverb_u15_param> param;
    std::unique_ptr<Control> control;
};

TEST(ReverbControl, DefaultRoomGivesTheKnownLineDelays)
{
    Rig rig;
    const std::uint32_t expected[16] = {5669, 3505, 2981, 2835, 2205, 1753, 1675, 1491,
                                        1127, 1107, 1075, 1057, 1049, 1005, 949,  553};
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(rig.param->late.core.delays[i], expected[i]) << "line " << i;
        EXPECT_FLOAT_EQ(rig.control->line_times()[i], expected[i] / 48000.0f);
    }
    EXPECT_EQ(rig.control->dirty(), 0);
}

TEST(ReverbControl, LastLineTakesTheShortestOfTheFirstSixteenModes)
{
    // A long thin room puts short modes early in the table.
    Control::Settings s = defaults();
    s[0] = 3.0f;
    s[1] = 37.0f;
    s[2] = 2.5f;
    Rig rig(44100.0f, s);
    std::vector<std::uint32_t> modes;
    for (int nx = 0; nx <= 2; ++nx)
        for (int ny = 0; ny <= 2; ++ny)
            for (int nz = 0; nz <= 2; ++nz) {
                if (nx + ny + nz == 0)
                    continue;
                const float a = nx / s[0], b = ny / s[1], c = nz / s[2];
                const float period = (2.0f / 340.0f) * Control::fastInverseSqrt(a * a + b * b + c * c);
                modes.push_back(static_cast<std::uint32_t>(2.0f * std::floor(0.5f * period * 44100.0f) + 1.0f));
            }
    const auto& d = rig.param->late.core.delays;
    EXPECT_EQ(d[15], *std::min_element(modes.begin(), modes.begin() + 16));
    std::vector<std::uint32_t> sorted = modes;
    std::sort(sorted.rbegin(), sorted.rend());
    for (int i = 0; i < 15; ++i)
        EXPECT_EQ(d[i], sorted[i]) << "line " << i;
    for (const auto v : d)
        EXPECT_EQ(v % 2, 1u);
}

TEST(ReverbControl, FastInverseSquareRootIsTheOneNewtonStepApproximation)
{
    for (const float s : {0.01f, 0.25f, 1.0f, 2.0f, 7.5f, 1000.0f}) {
        const float exact = 1.0f / std::sqrt(s);
        const float fast = Control::fastInverseSqrt(s);
        EXPECT_NEAR(fast / exact, 1.0f, 0.0018f) << s;
        EXPECT_LE(fast, exact) << "one Newton step from below";
    }
    EXPECT_NE(Control::fastInverseSqrt(2.0f), 1.0f / std::sqrt(2.0f));
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
    Rig rig(48000.0f, s);
    const float pi = 3.14159265f;
    const float z = std::min(std::sin(0.1f * pi) * 100.0f, 0.475f * 4.0f);
    const float x = 0.475f * 12.430144f, y = 0.475f * 20.112396f;
    EXPECT_NEAR(rig.control->direct_level(), 1.0f / (1.0f + std::sqrt(x * x + y * y + z * z)), 1e-6f);
    s[7] = 1000.0f;
    Rig further(48000.0f, s);
    EXPECT_EQ(further.param->early.delays, rig.param->early.delays);
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
    for (int i = 0; i < 16; ++i)
        EXPECT_FLOAT_EQ(rig.param->late.core.modulation[i], 2.0f * 0.02f * (6 + i));
    rig.control->set(Control::Modulation, 1000.0f);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(rig.param->late.core.modulation[i], Control::kMaxModulation);
    rig.control->set(Control::Modulation, -5.0f);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(rig.param->late.core.modulation[i], 0.0f);
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

TEST(ReverbControl, EarlyGainsAlternateSignsAcrossOutputs)
{
    Rig rig(48000.0f, defaults(), 2);
    const float S[15] = {1, 1, 1, 1, -1, -1, -1, 1, -1, -1, 1, 1, -1, 1, -1};
    const auto& e = rig.param->early_mix.gain;
    for (int t = 0; t < 16; ++t) {
        const float mag = std::fabs(e[t][0]);
        EXPECT_GT(mag, 0.0f);
        EXPECT_EQ(e[t][0], mag * S[(0 + t * 2) % 15]) << t;
        EXPECT_EQ(e[t][1], mag * S[(1 + t * 2) % 15]) << t;
    }
}

} // namespace
