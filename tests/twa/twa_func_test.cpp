#include "Algorithms/Func.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

namespace twa::numeric {
namespace {

using test::Guarded;
using test::kernelCounts;

using Op = void (Func::*)(const float*, float*, std::size_t) const noexcept;

struct OpCase {
    const char* name;
    Op op;
    float lo, hi;         // random input range
    bool logUniform;      // positive inputs spread over the exponent range
    std::uint64_t maxUlp; // allowed distance from the reference for SIMD variants
};

// Abs and Sqrt are exact; the others are polynomial approximations measured
// against the C library, with margin over the worst case seen.
const OpCase kOps[] = {
    {"Abs", &Func::Abs, -100.0f, 100.0f, false, 0},
    {"Sqrt", &Func::Sqrt, 0.0f, 1000.0f, false, 0},
    {"Exp", &Func::Exp, -110.0f, 95.0f, false, 2},
    {"Log", &Func::Log, 0.0f, 0.0f, true, 2},
    {"Log10", &Func::Log10, 0.0f, 0.0f, true, 3},
    {"Pow10", &Func::Pow10, -48.0f, 40.0f, false, 2},
};

std::vector<float> inputsFor(const OpCase& c, std::size_t n, unsigned seed)
{
    if (!c.logUniform)
        return test::uniform(n, c.lo, c.hi, seed);
    std::vector<float> e = test::uniform(n, -44.0f, 38.0f, seed);
    std::vector<float> m = test::uniform(n, 1.0f, 10.0f, seed + 1);
    for (std::size_t i = 0; i < n; ++i)
        e[i] = m[i] * std::pow(10.0f, std::floor(e[i]));
    return e;
}

TEST(Func, EveryVariantMatchesTheReferenceOnEveryCount)
{
    std::unique_ptr<Func> ref(NewFunc_ref());
    for (const auto& v : test::runnableVariants(FuncVariants())) {
        for (const OpCase& c : kOps) {
            for (std::size_t n : kernelCounts()) {
                const std::vector<float> x = inputsFor(c, n, static_cast<unsigned>(n) + 17u);
                Guarded in(n);
                Guarded got(n);
                Guarded want(n);
                in.fill(x);
                (v.get()->*c.op)(in.data(), got.data(), n);
                (ref.get()->*c.op)(in.data(), want.data(), n);
                ASSERT_TRUE(got.guardsIntact()) << v->Name() << " " << c.name << " n=" << n;
                ASSERT_TRUE(in.guardsIntact());
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_LE(test::ulpDistance(got[i], want[i]), c.maxUlp)
                        << v->Name() << " " << c.name << "(" << x[i] << ") = " << got[i]
                        << ", reference " << want[i] << ", n=" << n << " i=" << i;
            }
        }
    }
}

TEST(Func, SpecialValuesFollowTheCLibrary)
{
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float den = std::numeric_limits<float>::denorm_min();
    // Eight values, so every variant sees them in its main loop and its tail.
    const float x[] = {0.0f, -0.0f, inf, -inf, nan, -1.0f, den, 1.0f};
    std::unique_ptr<Func> ref(NewFunc_ref());
    for (const auto& v : test::runnableVariants(FuncVariants())) {
        for (const OpCase& c : kOps) {
            for (std::size_t n : {std::size_t{8}, std::size_t{7}, std::size_t{3}}) {
                alignas(32) float got[8];
                alignas(32) float want[8];
                alignas(32) float in[8];
                for (std::size_t i = 0; i < 8; ++i)
                    in[i] = x[(i + 8 - n) % 8];
                (v.get()->*c.op)(in, got, n);
                (ref.get()->*c.op)(in, want, n);
                for (std::size_t i = 0; i < n; ++i)
                    EXPECT_LE(test::ulpDistance(got[i], want[i]), c.maxUlp)
                        << v->Name() << " " << c.name << "(" << in[i] << ") = " << got[i]
                        << ", reference " << want[i];
            }
        }
    }
}

TEST(Func, UnfusedSimdVariantsAgreeBitForBit)
{
    // Same polynomials, same operation order: only the vector width differs.
    std::vector<std::unique_ptr<Func>> unfused;
    for (const auto& v : FuncVariants())
        if (v.needs != IsaNeed::FMA && v.needs != IsaNeed::None && MachineRuns(v.needs))
            unfused.emplace_back(v.create());
    if (unfused.size() < 2)
        GTEST_SKIP() << "needs two unfused SIMD variants";
    const std::size_t n = 4095;
    for (const OpCase& c : kOps) {
        const std::vector<float> x = inputsFor(c, n, 77);
        Guarded in(n);
        in.fill(x);
        Guarded first(n);
        (unfused[0].get()->*c.op)(in.data(), first.data(), n);
        for (std::size_t k = 1; k < unfused.size(); ++k) {
            Guarded out(n);
            (unfused[k].get()->*c.op)(in.data(), out.data(), n);
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_TRUE(test::sameBits(out[i], first[i]))
                    << unfused[k]->Name() << " vs " << unfused[0]->Name() << " " << c.name;
        }
    }
}

TEST(Func, InPlaceGivesTheSameAsOutOfPlace)
{
    for (const auto& v : test::runnableVariants(FuncVariants())) {
        for (const OpCase& c : kOps) {
            const std::size_t n = 37;
            const std::vector<float> x = inputsFor(c, n, 5);
            Guarded a(n);
            Guarded b(n);
            a.fill(x);
            b.fill(x);
            Guarded out(n);
            (v.get()->*c.op)(a.data(), out.data(), n);
            (v.get()->*c.op)(b.data(), b.data(), n);
            for (std::size_t i = 0; i < n; ++i)
                ASSERT_TRUE(test::sameBits(b[i], out[i])) << v->Name() << " " << c.name;
        }
    }
}

TEST(Func, ReferenceAcceptsMisalignedArrays)
{
    std::unique_ptr<Func> ref(NewFunc_ref());
    for (std::size_t n : kernelCounts()) {
        const std::vector<float> x = test::uniform(n, -3.0f, 3.0f, 9);
        Guarded in(n, 1);
        Guarded out(n, 3);
        in.fill(x);
        ref->Exp(in.data(), out.data(), n);
        ASSERT_TRUE(out.guardsIntact());
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_EQ(out[i], std::exp(x[i]));
    }
}

TEST(Func, SimdVariantsReportMisalignedPointersAndStillCompute)
{
    TWA_SKIP_WITHOUT_ASSERTS();
    for (const auto& v : test::runnableVariants(FuncVariants())) {
        if (std::string(v->Name()) == "Func_ref")
            continue;
        test::AssertCatcher catcher;
        const std::size_t n = 20;
        Guarded in(n, 1);
        Guarded out(n, 1);
        in.fill(test::uniform(n, -5.0f, 5.0f, 3));
        v->Abs(in.data(), out.data(), n);
        EXPECT_EQ(catcher.count(), 2u) << v->Name();
        EXPECT_EQ(test::AssertCatcher::last(), "p && v_test<TAG>(p)");
        for (std::size_t i = 0; i < n; ++i)
            EXPECT_EQ(out[i], std::fabs(in[i]));
        Guarded fine(1);
        v->Abs(nullptr, fine.data(), 0);
        EXPECT_EQ(catcher.count(), 3u) << "null is a contract failure too";
    }
}

TEST(Func, ReferenceChecksItsPointers)
{
    TWA_SKIP_WITHOUT_ASSERTS();
    test::AssertCatcher catcher;
    std::unique_ptr<Func> ref(NewFunc_ref());
    float out[1];
    ref->Sqrt(nullptr, out, 1);
    EXPECT_EQ(catcher.count(), 1u);
    EXPECT_EQ(test::AssertCatcher::last(), "(in != nullptr) && (out != nullptr)");
}

} // namespace
} // namespace twa::numeric
