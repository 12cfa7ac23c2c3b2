#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Func.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/KernelReport.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <string>

namespace twa::numeric {
namespace {

using test::ScopedCpuFeatures;

// The factory's choice for a forced level, by name. Only the names are
// compared, so nothing runs that the machine might lack.
template <class Base, class... Args>
std::string choice(std::span<const KernelVariant<Base, Args...>> list, Args... args)
{
    const auto* v = FirstChosen<Base, Args...>(list, args...);
    return v ? v->name : "(none)";
}

struct Expected {
    const char* func;
    const char* blas1;
    const char* vec;
    const char* polar; // suffix shared by Rect2Polar and Polar2Rect
    const char* csm;
};

// The order of preference for every level, without and with FMA.
Expected expected(std::int32_t level, bool fma)
{
    const bool sse2 = level >= kIsaSSE2;
    const bool avx = level >= kIsaAVX;
    const bool avx2 = level >= kIsaAVX2;
    Expected e{};
    e.func = avx2 ? "Func_m256_avx2" : avx ? "Func_m256" : fma ? "Func_m128_fma" : sse2 ? "Func_m128" : "Func_ref";
    e.blas1 = (avx && fma) ? "Blas1_m256_fma" : avx ? "Blas1_m256" : sse2 ? "Blas1_m128" : "Blas1_ref";
    e.vec = avx2 ? "Vec_m256_avx2" : avx ? "Vec_m256" : sse2 ? "Vec_m128" : "Vec_ref";
    e.polar = avx2 ? "_m256_avx2" : avx ? "_m256" : sse2 ? "_m128" : "_ref";
    e.csm = (avx && fma)   ? "CSquareMagnitude_m256_fma"
            : avx          ? "CSquareMagnitude_m256"
            : fma          ? "CSquareMagnitude_m128_fma"
            : sse2         ? "CSquareMagnitude_m128"
                           : "CSquareMagnitude_ref";
    return e;
}

template <class Base>
void expectFactoryPicks(std::span<const KernelVariant<Base>> list, void (*create)(std::unique_ptr<Base>&))
{
    const auto* v = FirstChosen<Base>(list);
    ASSERT_NE(v, nullptr);
    if (!MachineRuns(v->needs))
        return;
    std::unique_ptr<Base> p;
    create(p);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->Name(), v->name);
}

TEST(Dispatch, EachForcedLevelPicksTheVariantOfTheTable)
{
    ScopedCpuFeatures restore;
    for (std::int32_t level = 0; level <= 8; ++level) {
        for (bool fma : {false, true}) {
            ScopedCpuFeatures::Force(level, fma);
            const Expected e = expected(level, fma);
            SCOPED_TRACE("level " + std::to_string(level) + (fma ? " with FMA" : ""));
            EXPECT_EQ(choice(FuncVariants()), e.func);
            EXPECT_EQ(choice(Blas1Variants()), e.blas1);
            EXPECT_EQ(choice(VecVariants()), e.vec);
            EXPECT_EQ(choice(Rect2PolarVariants()), std::string("Rect2Polar") + e.polar);
            EXPECT_EQ(choice(Polar2RectVariants()), std::string("Polar2Rect") + e.polar);
            EXPECT_EQ(choice(CSquareMagnitudeVariants()), e.csm);
            // The factories themselves, where this machine can run their pick.
            expectFactoryPicks<Func>(FuncVariants(), &CreateFunc);
            expectFactoryPicks<Blas1>(Blas1Variants(), &CreateBlas1);
            expectFactoryPicks<Vec>(VecVariants(), &CreateVec);
            expectFactoryPicks<Rect2Polar>(Rect2PolarVariants(), &CreateRect2Polar);
            expectFactoryPicks<Polar2Rect>(Polar2RectVariants(), &CreatePolar2Rect);
            expectFactoryPicks<CSquareMagnitude>(CSquareMagnitudeVariants(), &CreateCSquareMagnitude);

            const bool sse2 = level >= kIsaSSE2;
            const bool avx = level >= kIsaAVX;
            using eq::BiquadForm;
            auto bq = [](std::size_t n, BiquadForm f) {
                return choice<eq::BiquadBand, std::size_t, BiquadForm>(eq::BiquadBandVariants(), n, f);
            };
            EXPECT_EQ(bq(8, BiquadForm::DF2), sse2 ? "BiquadBand8_m128" : "BiquadBand_ref");
            EXPECT_EQ(bq(4, BiquadForm::DF2T), sse2 ? "BiquadBand4_m128" : "BiquadBand_ref");
            EXPECT_EQ(bq(2, BiquadForm::DF2), "BiquadBand_ref");
            EXPECT_EQ(bq(6, BiquadForm::DF2), "(none)");

            auto mm = [](std::size_t c) { return choice<FindMinMax, std::size_t>(FindMinMaxVariants(), c); };
            EXPECT_EQ(mm(1), avx ? "FindMinMax_c1_m256" : sse2 ? "FindMinMax_c1_m128" : "FindMinMax_ref");
            EXPECT_EQ(mm(2), avx ? "FindMinMax_c2_m256" : sse2 ? "FindMinMax_c2_m128" : "FindMinMax_ref");
            EXPECT_EQ(mm(4), avx ? "FindMinMax_c4_m256" : sse2 ? "FindMinMax_c4m_m128" : "FindMinMax_ref");
            EXPECT_EQ(mm(12), sse2 ? "FindMinMax_c4m_m128" : "FindMinMax_ref");
            EXPECT_EQ(mm(16), avx ? "FindMinMax_c8m_m256" : sse2 ? "FindMinMax_c4m_m128" : "FindMinMax_ref");
            EXPECT_EQ(mm(3), "FindMinMax_ref");
        }
    }
}

TEST(Dispatch, InterleaveGoesByChannelCountThenWidth)
{
    ScopedCpuFeatures restore;
    auto de = [](std::size_t c, SampleFormat f) {
        return choice<Deinterleave, std::size_t, SampleFormat>(DeinterleaveVariants(), c, f);
    };
    auto il = [](std::size_t c, SampleFormat f) {
        return choice<Interleave, std::size_t, SampleFormat>(InterleaveVariants(), c, f);
    };
    using F = SampleFormat;
    ScopedCpuFeatures::Force(kIsaAVX2, true);
    EXPECT_EQ(de(2, F::Float32), "Deinterleave_f32_c2_m256");
    EXPECT_EQ(de(4, F::Int16), "Deinterleave_i16_c4_m256_avx2");
    EXPECT_EQ(de(32, F::Float32), "Deinterleave_f32_c16m_m256");
    EXPECT_EQ(de(12, F::Float32), "Deinterleave_f32_c4m_m128");
    EXPECT_EQ(de(16, F::Int24), "Deinterleave_i24_c4m_m128_sse41");
    EXPECT_EQ(il(2, F::Int24), "Interleave_i24_c2_m128_sse41");
    EXPECT_EQ(il(6, F::Int16), "Interleave_ref");
    EXPECT_EQ(il(1, F::Float32), "Interleave_ref");

    ScopedCpuFeatures::Force(kIsaAVX, true);
    EXPECT_EQ(de(4, F::Int16), "Deinterleave_i16_c4_m128") << "16-bit 256-bit paths need AVX2";
    EXPECT_EQ(de(4, F::Float32), "Deinterleave_f32_c4_m256");
    ScopedCpuFeatures::Force(kIsaSSE42, false);
    EXPECT_EQ(de(16, F::Float32), "Deinterleave_f32_c4m_m128");
    EXPECT_EQ(il(2, F::Int24), "Interleave_i24_c2_m128_sse41");
    ScopedCpuFeatures::Force(kIsaSSSE3, false);
    EXPECT_EQ(il(2, F::Int24), "Interleave_ref") << "24-bit paths need SSE4.1";
    EXPECT_EQ(il(2, F::Int16), "Interleave_i16_c2_m128");
    ScopedCpuFeatures::Force(kIsaNone, false);
    EXPECT_EQ(il(2, F::Float32), "Interleave_ref");
    EXPECT_EQ(de(0, F::Float32), "(none)");
}

TEST(Dispatch, AvxTwoWithoutOsSupportStillPicksTheAvxTwoFunc)
{
    ScopedCpuFeatures restore;
    CpuInfoX86 i;
    i.probed = true;
    i.sse = i.sse2 = i.sse3 = i.sse41 = i.sse42 = true;
    i.avx2 = true; // but avx stays false: the OS does not save the AVX state
    CpuFeatures::Instance().info = i;
    EXPECT_EQ(choice(FuncVariants()), "Func_m256_avx2");
    EXPECT_EQ(choice(Blas1Variants()), "Blas1_m128");
    EXPECT_EQ(choice(CSquareMagnitudeVariants()), "CSquareMagnitude_m128");
}

TEST(Dispatch, FactoriesInstallWorkingObjectsAndReplaceThePrevious)
{
    ScopedCpuFeatures restore;
    std::unique_ptr<Func> f;
    ScopedCpuFeatures::Force(kIsaNone, false);
    CreateFunc(f);
    ASSERT_NE(f, nullptr);
    EXPECT_STREQ(f->Name(), "Func_ref");
    ScopedCpuFeatures::Force(kIsaSSE2, false);
    CreateFunc(f);
    EXPECT_STREQ(f->Name(), "Func_m128");
    alignas(16) float x[4] = {-1, 2, -3, 4};
    f->Abs(x, x, 4);
    EXPECT_EQ(x[2], 3.0f);

    // Back on the probe, every factory installs what this machine prefers.
    SetUseProbe(true);
    std::unique_ptr<Blas1> b;
    std::unique_ptr<Vec> v;
    std::unique_ptr<CSquareMagnitude> c;
    std::unique_ptr<FindMinMax> m;
    CreateBlas1(b);
    CreateVec(v);
    CreateCSquareMagnitude(c);
    CreateFindMinMax(m, 2);
    EXPECT_EQ(std::string(b->Name()), choice(Blas1Variants()));
    EXPECT_EQ(std::string(v->Name()), choice(VecVariants()));
    EXPECT_EQ(std::string(c->Name()), choice(CSquareMagnitudeVariants()));
    const std::string mmName = choice<FindMinMax, std::size_t>(FindMinMaxVariants(), 2);
    EXPECT_EQ(std::string(m->Name()), mmName);
}

template <class Base>
void expectOwnNames(std::span<const KernelVariant<Base>> list)
{
    for (const auto& v : list) {
        if (MachineRuns(v.needs)) {
            EXPECT_STREQ(std::unique_ptr<Base>(v.create())->Name(), v.name);
        }
    }
}

TEST(Dispatch, EveryListedVariantReportsItsOwnName)
{
    // A variant table entry and the object it builds must agree, or a host
    // would print one kernel while running another.
    expectOwnNames(FuncVariants());
    expectOwnNames(Blas1Variants());
    expectOwnNames(VecVariants());
    expectOwnNames(Rect2PolarVariants());
    expectOwnNames(Polar2RectVariants());
    expectOwnNames(CSquareMagnitudeVariants());
    for (std::size_t c : {1, 2, 3, 4, 8, 12, 16}) {
        ScopedCpuFeatures restore;
        ScopedCpuFeatures::Force(kIsaAVX2, true);
        for (SampleFormat f : {SampleFormat::Int16, SampleFormat::Int24, SampleFormat::Float32}) {
            for (const auto& v : DeinterleaveVariants())
                if (MachineRuns(v.needs) && v.chosen(c, f)) {
                    EXPECT_STREQ(std::unique_ptr<Deinterleave>(v.create(c, f))->Name(), v.name) << c;
                }
            for (const auto& v : InterleaveVariants())
                if (MachineRuns(v.needs) && v.chosen(c, f)) {
                    EXPECT_STREQ(std::unique_ptr<Interleave>(v.create(c, f))->Name(), v.name) << c;
                }
        }
    }
    for (std::size_t c : {1, 2, 4, 8, 12}) {
        ScopedCpuFeatures restore;
        ScopedCpuFeatures::Force(kIsaAVX2, true);
        for (const auto& v : FindMinMaxVariants())
            if (MachineRuns(v.needs) && v.chosen(c)) {
                EXPECT_STREQ(std::unique_ptr<FindMinMax>(v.create(c))->Name(), v.name) << c;
            }
    }
}

TEST(Dispatch, ReportFollowsTheForcedLevel)
{
    ScopedCpuFeatures restore;
    auto find = [](const std::vector<KernelChoice>& r, const std::string& family) {
        for (const auto& k : r)
            if (k.family == family)
                return k.variant;
        return std::string("(missing)");
    };
    ScopedCpuFeatures::Force(kIsaNone, false);
    const auto none = ChosenKernels();
    EXPECT_EQ(find(none, "Func"), "Func_ref");
    EXPECT_EQ(find(none, "FindMinMax(2 channels)"), "FindMinMax_ref");
    EXPECT_EQ(find(none, "Interleave(2 channels, 24-bit)"), "Interleave_ref");
    ScopedCpuFeatures::Force(kIsaAVX2, true);
    const auto all = ChosenKernels();
    EXPECT_EQ(find(all, "Func"), "Func_m256_avx2");
    EXPECT_EQ(find(all, "BiquadBand(8 bands)"), "BiquadBand8_m128");
    EXPECT_EQ(find(all, "Deinterleave(2 channels, 16-bit)"), "Deinterleave_i16_c2_m256_avx2");
    EXPECT_EQ(all.size(), none.size());
}

} // namespace
} // namespace twa::numeric
