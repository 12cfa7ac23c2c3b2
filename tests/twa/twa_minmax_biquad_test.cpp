#include "Algorithms/BiquadBand.h"
#include "Algorithms/FindMinMax.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <string>

namespace twa::numeric {
namespace {

using test::Guarded;
using test::kernelCounts;
using namespace eq;

// The variants listed for these arguments that this machine can run, judged
// with every instruction set answered as present.
template <class Base, class... Args>
std::vector<std::unique_ptr<Base>> variantsFor(std::span<const KernelVariant<Base, Args...>> list, Args... args)
{
    test::ScopedCpuFeatures restore;
    test::ScopedCpuFeatures::Force(kIsaAVX2, true);
    std::vector<std::unique_ptr<Base>> out;
    for (const auto& v : list)
        if (MachineRuns(v.needs) && v.chosen(args...))
            out.emplace_back(v.create(args...));
    return out;
}

TEST(FindMinMax, EveryLayoutMatchesTheReference)
{
    for (std::size_t c : {1, 2, 3, 4, 5, 8, 12, 16, 24}) {
        std::unique_ptr<FindMinMax> ref(NewFindMinMax_ref(c));
        auto variants = variantsFor<FindMinMax, std::size_t>(FindMinMaxVariants(), c);
        ASSERT_FALSE(variants.empty());
        for (const auto& v : variants) {
            ASSERT_EQ(v->ChannelCount(), c) << v->Name();
            for (std::size_t frames : kernelCounts()) {
                if (frames == 0)
                    continue;
                const auto a = test::uniform(frames * c, -1.0f, 1.0f, 21 + static_cast<unsigned>(frames));
                const auto b = test::uniform(frames * c, -2.0f, 2.0f, 22 + static_cast<unsigned>(frames));
                Guarded in(frames * c), got(2 * c), want(2 * c);
                in.fill(a);
                ASSERT_TRUE(v->Process(in.data(), frames, got.data(), true));
                ASSERT_TRUE(ref->Process(in.data(), frames, want.data(), true));
                ASSERT_TRUE(got.guardsIntact()) << v->Name() << " c=" << c << " frames=" << frames;
                for (std::size_t k = 0; k < 2 * c; ++k)
                    ASSERT_EQ(got[k], want[k]) << v->Name() << " c=" << c << " frames=" << frames << " k=" << k;

                // A later call updates the running extremes.
                in.fill(b);
                ASSERT_TRUE(v->Process(in.data(), frames, got.data(), false));
                ASSERT_TRUE(ref->Process(in.data(), frames, want.data(), false));
                for (std::size_t k = 0; k < 2 * c; ++k)
                    ASSERT_EQ(got[k], want[k]) << v->Name() << " update c=" << c << " frames=" << frames;
            }
        }
    }
}

TEST(FindMinMax, ReferenceAcceptsMisalignedInput)
{
    for (std::size_t c : {1, 3}) {
        std::unique_ptr<FindMinMax> ref(NewFindMinMax_ref(c));
        for (std::size_t frames : kernelCounts()) {
            if (frames == 0)
                continue;
            const auto a = test::uniform(frames * c, -1.0f, 1.0f, 3 + static_cast<unsigned>(frames));
            Guarded in(frames * c, 1), mm(2 * c, 3);
            in.fill(a);
            ASSERT_TRUE(ref->Process(in.data(), frames, mm.data(), true));
            ASSERT_TRUE(mm.guardsIntact());
            for (std::size_t ch = 0; ch < c; ++ch) {
                float lo = a[ch], hi = a[ch];
                for (std::size_t k = 0; k < frames; ++k) {
                    lo = std::min(lo, a[k * c + ch]);
                    hi = std::max(hi, a[k * c + ch]);
                }
                ASSERT_EQ(mm[2 * ch], lo);
                ASSERT_EQ(mm[2 * ch + 1], hi);
            }
        }
    }
}

TEST(FindMinMax, ReferenceGivesEachChannelItsOwnExtremes)
{
    std::unique_ptr<FindMinMax> k;
    CreateFindMinMax(k, 3);
    alignas(32) const float in[] = {0.5f, -1.0f, 3.0f, -0.25f, 2.0f, 4.0f, 0.0f, 1.0f, -5.0f};
    alignas(32) float mm[6];
    ASSERT_TRUE(k->Process(in, 3, mm, true));
    const float want[] = {-0.25f, 0.5f, -1.0f, 2.0f, -5.0f, 4.0f};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(mm[i], want[i]) << i;
}

TEST(FindMinMax, RefusesMissingInputWithoutTouchingTheResult)
{
    for (std::size_t c : {1, 2, 4, 8}) {
        for (const auto& v : variantsFor<FindMinMax, std::size_t>(FindMinMaxVariants(), c)) {
            alignas(32) float in[64] = {};
            alignas(32) float mm[16];
            for (float& f : mm)
                f = 7.0f;
            EXPECT_FALSE(v->Process(in, 0, mm, true)) << v->Name();
            EXPECT_FALSE(v->Process(in, 4, nullptr, true)) << v->Name();
            EXPECT_TRUE(v->Process(in, 0, mm, false)) << "an empty update keeps the extremes";
            for (std::size_t i = 0; i < 2 * c; ++i)
                EXPECT_EQ(mm[i], 7.0f);
        }
    }
    std::unique_ptr<FindMinMax> none;
    CreateFindMinMax(none, 0);
    EXPECT_EQ(none, nullptr);
}

BiquadCoeffs lowpass(double fc, double fs, double q)
{
    const double w = 2.0 * std::numbers::pi * fc / fs;
    const double alpha = std::sin(w) / (2.0 * q);
    const double a0 = 1.0 + alpha;
    const double c = std::cos(w);
    return {static_cast<float>((1 - c) / 2 / a0), static_cast<float>((1 - c) / a0),
            static_cast<float>((1 - c) / 2 / a0), static_cast<float>(-2 * c / a0),
            static_cast<float>((1 - alpha) / a0)};
}

// Distinct coefficients per band, so a lane mix-up shows.
void design(BiquadBand& b)
{
    for (std::size_t k = 0; k < b.BandCount(); ++k)
        b.SetCoefficients(k, lowpass(200.0 * (k + 1), 48000.0, 0.5 + 0.3 * k));
}

const char* formName(BiquadForm f)
{
    return f == BiquadForm::DF2 ? "DF2" : "DF2T";
}

TEST(BiquadBand, VariantsMatchTheReferenceAcrossBlockSplits)
{
    for (std::size_t bands : {2, 4, 8}) {
        for (BiquadForm form : {BiquadForm::DF2, BiquadForm::DF2T}) {
            std::unique_ptr<BiquadBand> ref(NewBiquadBand_ref(bands, form));
            ASSERT_NE(ref, nullptr);
            design(*ref);
            const std::size_t total = 4095;
            const auto x = test::uniform(total * bands, -1.0f, 1.0f, static_cast<unsigned>(bands));
            Guarded in(total * bands), want(total * bands);
            in.fill(x);
            ref->Process(in.data(), want.data(), total);

            for (const auto& v : variantsFor<BiquadBand, std::size_t, BiquadForm>(BiquadBandVariants(), bands, form)) {
                ASSERT_EQ(v->BandCount(), bands);
                ASSERT_EQ(v->Form(), form);
                design(*v);
                // Random block lengths, including empty ones, in place.
                Guarded io(total * bands);
                io.fill(x);
                std::mt19937 rng(3);
                std::size_t at = 0;
                while (at < total) {
                    const std::size_t len = std::min<std::size_t>(total - at, rng() % 70);
                    v->Process(io.data() + at * bands, io.data() + at * bands, len);
                    at += len;
                }
                ASSERT_TRUE(io.guardsIntact());
                for (std::size_t i = 0; i < total * bands; ++i)
                    ASSERT_TRUE(test::sameBits(io[i], want[i]))
                        << v->Name() << " " << formName(form) << " sample " << i;
            }
        }
    }
}

TEST(BiquadBand, LowpassPassesDcAndStopsNyquist)
{
    for (std::size_t bands : {2, 4, 8}) {
        for (BiquadForm form : {BiquadForm::DF2, BiquadForm::DF2T}) {
            std::unique_ptr<BiquadBand> b;
            CreateBiquadBand(b, bands, form);
            ASSERT_NE(b, nullptr);
            design(*b);
            const std::size_t frames = 4000;
            Guarded dc(frames * bands), nyq(frames * bands);
            for (std::size_t i = 0; i < frames * bands; ++i) {
                dc[i] = 1.0f;
                nyq[i] = ((i / bands) % 2) ? -1.0f : 1.0f;
            }
            b->Process(dc.data(), dc.data(), frames);
            for (std::size_t k = 0; k < bands; ++k)
                EXPECT_NEAR(20 * std::log10(std::fabs(dc[(frames - 1) * bands + k])), 0.0, 0.01)
                    << b->Name() << " band " << k;
            b->Reset();
            b->Process(nyq.data(), nyq.data(), frames);
            for (std::size_t k = 0; k < bands; ++k)
                EXPECT_LT(20 * std::log10(std::fabs(nyq[(frames - 1) * bands + k]) + 1e-12), -60.0)
                    << b->Name() << " band " << k;
        }
    }
}

TEST(BiquadBand, RecoversFromNonFiniteInputAtTheNextBlock)
{
    for (const auto& v : variantsFor<BiquadBand, std::size_t, BiquadForm>(BiquadBandVariants(), 4, BiquadForm::DF2T)) {
        design(*v);
        alignas(16) float block[4 * 8];
        for (float& f : block)
            f = std::numeric_limits<float>::infinity();
        v->Process(block, block, 8);
        for (float& f : block)
            f = 0.5f;
        v->Process(block, block, 8);
        for (float f : block)
            EXPECT_TRUE(std::isfinite(f)) << v->Name();
    }
}

TEST(BiquadBand, OnlyTwoFourAndEightBands)
{
    for (std::size_t bands : {0, 1, 3, 5, 16}) {
        std::unique_ptr<BiquadBand> b;
        CreateBiquadBand(b, bands, BiquadForm::DF2);
        EXPECT_EQ(b, nullptr) << bands;
    }
}

} // namespace
} // namespace twa::numeric
