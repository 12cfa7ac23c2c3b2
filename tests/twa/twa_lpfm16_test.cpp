#include "Algorithms/KernelReport.h"
#include "Algorithms/Lpfm16.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

namespace twa::numeric {
namespace {

using test::Guarded;

Lpfm16Coefs randomCoefs(unsigned seed)
{
    Lpfm16Coefs c;
    const auto m = test::uniform(256, -0.25f, 0.25f, seed);
    const auto k = test::uniform(16, 0.05f, 1.0f, seed + 1);
    const auto g = test::uniform(32, -1.0f, 1.0f, seed + 2);
    std::copy(m.begin(), m.end(), &c.m[0][0]);
    std::copy(k.begin(), k.end(), c.k);
    std::transform(k.begin(), k.end(), c.km, [](float v) { return 1.0f - v; });
    std::copy(g.begin(), g.end(), &c.g[0][0]);
    return c;
}

Lpfm16State randomState(unsigned seed)
{
    Lpfm16State s;
    const auto z = test::uniform(16, -0.5f, 0.5f, seed);
    std::copy(z.begin(), z.end(), s.z);
    return s;
}

// Every variant listed for `channels` that this machine can run, the reference included.
std::vector<std::unique_ptr<Lpfm16>> variantsFor(std::size_t channels)
{
    test::ScopedCpuFeatures restore;
    test::ScopedCpuFeatures::Force(kIsaAVX2, true);
    std::vector<std::unique_ptr<Lpfm16>> out;
    for (const auto& v : Lpfm16Variants())
        if (MachineRuns(v.needs) && v.chosen(channels))
            out.emplace_back(v.create(channels));
    return out;
}

// Plain variants must match the reference bit for bit; _fma ones round once
// per multiply-add.
::testing::AssertionResult agrees(const Lpfm16& k, float got, float want)
{
    const bool fused = std::string(k.Name()).ends_with("_fma");
    if (fused ? std::fabs(got - want) <= 2e-6f * std::max(1.0f, std::fabs(want)) : test::sameBits(got, want))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << k.Name() << ": " << got << " vs " << want;
}

TEST(Lpfm16, ReferenceFollowsTheFormulasInDouble)
{
    const Lpfm16Coefs c = randomCoefs(7);
    for (std::size_t ch : {1, 2}) {
        std::unique_ptr<Lpfm16> ref(NewLpfm16_ref(ch));
        Lpfm16State s = randomState(8);
        double z[16];
        std::copy(s.z, s.z + 16, z);
        const std::size_t frames = 200;
        Guarded x(frames * 16), w(frames * 16), out(frames * ch, 1);
        x.fill(test::uniform(frames * 16, -1.0f, 1.0f, 9));
        ref->Process(c, s, x.data(), w.data(), out.data(), frames);
        ASSERT_TRUE(w.guardsIntact() && out.guardsIntact());
        for (std::size_t n = 0; n < frames; ++n) {
            for (std::size_t r = 0; r < 16 + ch; ++r) {
                const float* row = r < 16 ? c.m[r] : c.g[r - 16];
                double y = 0.0;
                for (std::size_t j = 0; j < 16; ++j)
                    y += double{row[j]} * x[16 * n + j];
                if (r >= 16) {
                    ASSERT_NEAR(out[n * ch + r - 16], y, 1e-5) << "frame " << n << " tap " << r - 16;
                    continue;
                }
                z[r] = c.k[r] * y + double{c.km[r]} * z[r];
                ASSERT_NEAR(w[16 * n + r], z[r], 1e-5) << "frame " << n << " row " << r;
            }
        }
        for (std::size_t r = 0; r < 16; ++r)
            EXPECT_NEAR(s.z[r], z[r], 1e-5);
    }
}

// Each variant also runs in place in random-length calls (odd and empty ones
// move frames between the paired and single paths) and without taps; all
// three runs must agree to the bit.
TEST(Lpfm16, EveryVariantMatchesTheReferenceInPlaceSplitAndWithoutTaps)
{
    const Lpfm16Coefs c = randomCoefs(1);
    const Lpfm16State s0 = randomState(2);
    std::mt19937 rng(3);
    for (std::size_t ch : {1, 2}) {
        std::unique_ptr<Lpfm16> ref(NewLpfm16_ref(ch));
        const auto variants = variantsFor(ch);
        ASSERT_GE(variants.size(), 2u) << "at least SSE2 and the reference";
        for (std::size_t frames : {0, 1, 2, 3, 5, 16, 17, 64, 65, 999}) {
            const auto xs = test::uniform(frames * 16, -1.0f, 1.0f, 100 + static_cast<unsigned>(frames));
            Guarded x(frames * 16), want(frames * 16), wantOut(frames * ch);
            x.fill(xs);
            Lpfm16State sRef = s0;
            ref->Process(c, sRef, x.data(), want.data(), wantOut.data(), frames);
            for (const auto& v : variants) {
                ASSERT_EQ(v->Channels(), ch);
                Guarded w(frames * 16), out(frames * ch, 1), io(frames * 16), ioOut(frames * ch, 3), bare(frames * 16);
                io.fill(xs);
                Lpfm16State s = s0, sIo = s0, sBare = s0;
                v->Process(c, s, x.data(), w.data(), out.data(), frames);
                v->Process(c, sBare, x.data(), bare.data(), nullptr, frames);
                for (std::size_t at = 0, len = 0; at < frames; at += len) {
                    len = std::min<std::size_t>(frames - at, rng() % 8);
                    v->Process(c, sIo, io.data() + 16 * at, io.data() + 16 * at, ioOut.data() + ch * at, len);
                }
                ASSERT_TRUE(w.guardsIntact() && out.guardsIntact() && io.guardsIntact() && ioOut.guardsIntact() &&
                            bare.guardsIntact())
                    << v->Name() << " frames=" << frames;
                for (std::size_t i = 0; i < frames * 16; ++i) {
                    ASSERT_TRUE(agrees(*v, w[i], want[i])) << "frames=" << frames << " i=" << i;
                    ASSERT_TRUE(test::sameBits(io[i], w[i]) && test::sameBits(bare[i], w[i])) << v->Name() << " i=" << i;
                }
                for (std::size_t i = 0; i < frames * ch; ++i) {
                    ASSERT_TRUE(agrees(*v, out[i], wantOut[i])) << "frames=" << frames << " tap " << i;
                    ASSERT_TRUE(test::sameBits(ioOut[i], out[i])) << v->Name() << " tap " << i;
                }
                for (std::size_t r = 0; r < 16; ++r) {
                    ASSERT_TRUE(agrees(*v, s.z[r], sRef.z[r])) << "state, frames=" << frames;
                    ASSERT_TRUE(test::sameBits(sIo.z[r], s.z[r]) && test::sameBits(sBare.z[r], s.z[r])) << v->Name();
                }
            }
        }
    }
}

// Small integers add up exactly in any order, fused or not, so with k = 1
// every variant must give the integer sums.
TEST(Lpfm16, UnitWeightPassesTheMixUnfiltered)
{
    std::mt19937 rng(11);
    auto small = [&rng](int span) { return static_cast<int>(rng() % (2 * span + 1)) - span; };
    int m[16][16];
    Lpfm16Coefs c;
    for (std::size_t r = 0; r < 16; ++r) {
        c.k[r] = 1.0f;
        c.km[r] = 0.0f;
        for (std::size_t j = 0; j < 16; ++j)
            c.m[r][j] = static_cast<float>(m[r][j] = small(2));
    }
    const std::size_t frames = 7;
    int xi[frames * 16];
    Guarded x(frames * 16), w(frames * 16);
    for (std::size_t i = 0; i < frames * 16; ++i)
        x[i] = static_cast<float>(xi[i] = small(8));
    for (std::size_t ch : {1, 2}) {
        for (const auto& v : variantsFor(ch)) {
            Lpfm16State s = randomState(12);
            v->Process(c, s, x.data(), w.data(), nullptr, frames);
            for (std::size_t n = 0; n < frames; ++n) {
                for (std::size_t r = 0; r < 16; ++r) {
                    int y = 0;
                    for (std::size_t j = 0; j < 16; ++j)
                        y += m[r][j] * xi[16 * n + j];
                    ASSERT_EQ(w[16 * n + r], static_cast<float>(y)) << v->Name() << " frame " << n << " row " << r;
                }
            }
            EXPECT_TRUE(std::equal(s.z, s.z + 16, w.data() + 16 * (frames - 1))) << "the state is the last w";
        }
    }
}

TEST(Lpfm16, FactoryPicksARunnableVariantForOneOrTwoChannelsOnly)
{
    std::unique_ptr<Lpfm16> k;
    for (std::size_t ch : {1, 2}) {
        CreateLpfm16(k, ch);
        ASSERT_NE(k, nullptr);
        EXPECT_EQ(k->Channels(), ch);
        const auto* v = FirstChosen<Lpfm16, std::size_t>(Lpfm16Variants(), ch);
        EXPECT_TRUE(MachineRuns(v->needs)) << v->name;
        EXPECT_STREQ(k->Name(), v->name);
        Lpfm16State s = randomState(1);
        k->Process(randomCoefs(1), s, nullptr, nullptr, nullptr, 0);
        EXPECT_TRUE(std::equal(s.z, s.z + 16, randomState(1).z)) << "no frames need no buffers";
    }
    for (std::size_t bad : {0, 3, 16}) {
        CreateLpfm16(k, 2);
        CreateLpfm16(k, bad);
        EXPECT_EQ(k, nullptr) << bad << " channels";
    }
    test::ScopedCpuFeatures restore;
    auto pick = [](std::int32_t level, bool fma) {
        test::ScopedCpuFeatures::Force(level, fma);
        return std::string(FirstChosen<Lpfm16, std::size_t>(Lpfm16Variants(), 2)->name);
    };
    EXPECT_EQ(pick(kIsaAVX2, true), "Lpfm16_c2_m256_fma");
    EXPECT_EQ(pick(kIsaAVX, false), "Lpfm16_c2_m256");
    EXPECT_EQ(pick(kIsaSSE42, true), "Lpfm16_c2_m128_fma");
    EXPECT_EQ(pick(kIsaSSE2, false), "Lpfm16_c2_m128");
    EXPECT_EQ(pick(kIsaNone, false), "Lpfm16_c2_ref");
    const auto report = ChosenKernels();
    EXPECT_TRUE(std::any_of(report.begin(), report.end(), [](const KernelChoice& e) {
        return e.family == "Lpfm16(1 channels)" && e.variant == "Lpfm16_c1_ref";
    })) << "the host's kernel report lists the family";
}

} // namespace
} // namespace twa::numeric
