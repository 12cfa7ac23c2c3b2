#include "Algorithms/BiquadBand.h"
#include "Algorithms/Blas1.h"
#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/FindMinMax.h"
#include "Algorithms/Interleave.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "Algorithms/Vec.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace twa::numeric {
namespace {

using test::AssertCatcher;
using test::Guarded;

// Every SIMD variant reports a misaligned sample pointer, once per pointer,
// and still computes what the reference computes (the loads are unaligned).
class MisalignedPointers : public ::testing::Test {
protected:
    void SetUp() override { TWA_SKIP_WITHOUT_ASSERTS(); }

    template <class Base>
    static std::vector<std::unique_ptr<Base>> simdOnly(std::span<const KernelVariant<Base>> list)
    {
        std::vector<std::unique_ptr<Base>> out;
        for (const auto& v : list)
            if (v.needs != IsaNeed::None && MachineRuns(v.needs))
                out.emplace_back(v.create());
        return out;
    }

    static constexpr std::size_t kN = 37;
};

TEST_F(MisalignedPointers, Blas1AndVec)
{
    std::unique_ptr<Blas1> ref(NewBlas1_ref());
    const auto xs = test::uniform(kN, -1, 1, 1);
    const auto ys = test::uniform(kN, -1, 1, 2);
    for (const auto& v : simdOnly(Blas1Variants())) {
        Guarded x(kN, 1), y(kN, 2), out(kN, 3), want(kN);
        x.fill(xs);
        y.fill(ys);
        AssertCatcher catcher;
        v->Add(x.data(), y.data(), out.data(), kN);
        EXPECT_EQ(catcher.count(), 3u) << v->Name();
        EXPECT_EQ(AssertCatcher::last(), "p && v_test<TAG>(p)");
        ref->Add(x.data(), y.data(), want.data(), kN);
        for (std::size_t i = 0; i < kN; ++i)
            ASSERT_EQ(out[i], want[i]) << v->Name();
        EXPECT_TRUE(out.guardsIntact());
    }
    for (const auto& v : simdOnly(VecVariants())) {
        Guarded x(kN, 1);
        x.fill(xs);
        AssertCatcher catcher;
        const ValueIndex m = v->MaxIndex(x.data(), kN);
        EXPECT_EQ(catcher.count(), 1u) << v->Name();
        EXPECT_EQ(m.value, x[m.index]);
    }
}

TEST_F(MisalignedPointers, ComplexKernels)
{
    const auto a = test::uniform(2 * kN, -1, 1, 3);
    const auto b = test::uniform(kN, -1, 1, 4);
    for (const auto& v : simdOnly(CSquareMagnitudeVariants())) {
        Guarded c(2 * kN, 2), out(kN, 1);
        c.fill(a);
        AssertCatcher catcher;
        v->Process(c.data(), out.data(), kN);
        EXPECT_EQ(catcher.count(), 2u) << v->Name();
        EXPECT_NEAR(out[5], a[10] * a[10] + a[11] * a[11], 1e-6f);
    }
    for (const auto& v : simdOnly(Rect2PolarVariants())) {
        Guarded re(kN, 1), im(kN, 1), m(kN, 1), p(kN, 0);
        re.fill(b);
        im.fill(b);
        AssertCatcher catcher;
        v->Process(re.data(), im.data(), m.data(), p.data(), kN);
        EXPECT_EQ(catcher.count(), 3u) << v->Name();
        EXPECT_EQ(m[3], std::sqrt(b[3] * b[3] + b[3] * b[3]));
    }
    for (const auto& v : simdOnly(Polar2RectVariants())) {
        Guarded m(kN, 0), p(kN, 0), re(kN, 2), im(kN, 0);
        m.fill(b);
        p.fill(b);
        AssertCatcher catcher;
        v->Process(m.data(), p.data(), re.data(), im.data(), kN);
        EXPECT_EQ(catcher.count(), 1u) << v->Name();
        EXPECT_NEAR(re[3], b[3] * std::cos(b[3]), 1e-6f);
    }
}

TEST_F(MisalignedPointers, MinMaxBiquadAndInterleave)
{
    test::ScopedCpuFeatures restore;
    test::ScopedCpuFeatures::Force(kIsaAVX2, true);
    for (const auto& v : FindMinMaxVariants()) {
        if (v.needs == IsaNeed::None || !MachineRuns(v.needs) || !v.chosen(2))
            continue;
        std::unique_ptr<FindMinMax> k(v.create(2));
        Guarded in(2 * kN, 1);
        in.fill(test::uniform(2 * kN, -1, 1, 5));
        alignas(32) float mm[4];
        AssertCatcher catcher;
        EXPECT_TRUE(k->Process(in.data(), kN, mm, true));
        EXPECT_EQ(catcher.count(), 1u) << k->Name();
    }
    for (const auto& v : eq::BiquadBandVariants()) {
        if (v.needs == IsaNeed::None || !MachineRuns(v.needs) || !v.chosen(4, eq::BiquadForm::DF2))
            continue;
        std::unique_ptr<eq::BiquadBand> k(v.create(4, eq::BiquadForm::DF2));
        Guarded io(4 * 8, 1);
        io.fill(test::uniform(32, -1, 1, 6));
        const float first = io[0];
        AssertCatcher catcher;
        k->Process(io.data(), io.data(), 8);
        EXPECT_EQ(catcher.count(), 2u) << k->Name();
        EXPECT_EQ(io[0], first) << "unit coefficients pass the input through";
    }
    for (const auto& v : DeinterleaveVariants()) {
        if (v.needs == IsaNeed::None || !MachineRuns(v.needs) || !v.chosen(2, SampleFormat::Float32))
            continue;
        std::unique_ptr<Deinterleave> k(v.create(2, SampleFormat::Float32));
        Guarded in(2 * kN, 1), l(kN), r(kN, 1);
        in.fill(test::uniform(2 * kN, -1, 1, 7));
        float* outs[2] = {l.data(), r.data()};
        AssertCatcher catcher;
        k->Process(in.data(), outs, kN);
        EXPECT_EQ(catcher.count(), 2u) << k->Name();
        EXPECT_EQ(r[kN - 1], in[2 * kN - 1]);
    }
}

} // namespace
} // namespace twa::numeric
