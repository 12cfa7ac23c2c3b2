#include "Algorithms/Blas1.h"
#include "Algorithms/Vec.h"
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

bool fused(const Blas1& b)
{
    return std::string(b.Name()).find("_fma") != std::string::npos;
}

// Offsets for the reference (any alignment) and for SIMD variants (aligned only).
std::vector<std::size_t> offsetsFor(const char* name)
{
    if (std::string(name).ends_with("_ref"))
        return {0, 1, 3};
    return {0};
}

TEST(Blas1, ElementwiseOpsMatchTheReference)
{
    std::unique_ptr<Blas1> ref(NewBlas1_ref());
    for (const auto& v : test::runnableVariants(Blas1Variants())) {
        // A fused multiply-add differs from the two-rounding reference by at
        // most one rounding of the product: half an ulp of x*y, plus one of the sum.
        const bool fma = fused(*v);
        for (std::size_t off : offsetsFor(v->Name())) {
            for (std::size_t n : kernelCounts()) {
                const auto xs = test::uniform(n, -4.0f, 4.0f, 1 + static_cast<unsigned>(n));
                const auto ys = test::uniform(n, -4.0f, 4.0f, 2 + static_cast<unsigned>(n));
                const auto zs = test::uniform(n, -4.0f, 4.0f, 3 + static_cast<unsigned>(n));
                Guarded x(n, off), y(n, off), z(n, off), got(n, off), want(n);
                x.fill(xs);
                y.fill(ys);
                z.fill(zs);
                auto same = [&](const char* what) {
                    ASSERT_TRUE(got.guardsIntact()) << v->Name() << " " << what << " n=" << n;
                    for (std::size_t i = 0; i < n; ++i)
                        ASSERT_TRUE(test::sameBits(got[i], want[i]))
                            << v->Name() << " " << what << " n=" << n << " i=" << i;
                };
                v->Scale(x.data(), 0.3f, got.data(), n);
                ref->Scale(x.data(), 0.3f, want.data(), n);
                same("Scale");
                v->Add(x.data(), y.data(), got.data(), n);
                ref->Add(x.data(), y.data(), want.data(), n);
                same("Add");
                v->Mul(x.data(), y.data(), got.data(), n);
                ref->Mul(x.data(), y.data(), want.data(), n);
                same("Mul");

                v->MulAdd(x.data(), y.data(), z.data(), got.data(), n);
                ref->MulAdd(x.data(), y.data(), z.data(), want.data(), n);
                for (std::size_t i = 0; i < n; ++i) {
                    const double exact = double(xs[i]) * ys[i] + zs[i];
                    if (fma)
                        ASSERT_EQ(got[i], static_cast<float>(exact)) << v->Name() << " MulAdd";
                    else
                        ASSERT_TRUE(test::sameBits(got[i], want[i])) << v->Name() << " MulAdd";
                }
                ASSERT_TRUE(got.guardsIntact());

                // Axpy works in place on y.
                Guarded ya(n, off), yb(n);
                ya.fill(ys);
                yb.fill(ys);
                v->Axpy(-1.5f, x.data(), ya.data(), n);
                ref->Axpy(-1.5f, x.data(), yb.data(), n);
                ASSERT_TRUE(ya.guardsIntact());
                for (std::size_t i = 0; i < n; ++i) {
                    if (fma)
                        ASSERT_EQ(ya[i], static_cast<float>(-1.5 * double(xs[i]) + ys[i]));
                    else
                        ASSERT_TRUE(test::sameBits(ya[i], yb[i])) << v->Name() << " Axpy";
                }
            }
        }
    }
}

TEST(Blas1, ReductionsAreExactOnExactInputsAndBoundedOtherwise)
{
    for (const auto& v : test::runnableVariants(Blas1Variants())) {
        for (std::size_t n : kernelCounts()) {
            // Small integers: every product and partial sum is exact in float,
            // so any summation order must give the same answer.
            std::vector<float> xi(n), yi(n);
            for (std::size_t i = 0; i < n; ++i) {
                xi[i] = static_cast<float>(static_cast<int>((i * 7 + 3) % 17) - 8);
                yi[i] = static_cast<float>(static_cast<int>((i * 5 + 1) % 13) - 6);
            }
            Guarded x(n), y(n);
            x.fill(xi);
            y.fill(yi);
            double dot = 0.0, sum = 0.0;
            for (std::size_t i = 0; i < n; ++i) {
                dot += double(xi[i]) * yi[i];
                sum += xi[i];
            }
            ASSERT_EQ(v->Dot(x.data(), y.data(), n), static_cast<float>(dot)) << v->Name() << " n=" << n;
            ASSERT_EQ(v->Sum(x.data(), n), static_cast<float>(sum)) << v->Name() << " n=" << n;

            // Random inputs: within the classic bound n * eps * sum |x y|.
            const auto xr = test::uniform(n, -1.0f, 1.0f, 40 + static_cast<unsigned>(n));
            const auto yr = test::uniform(n, -1.0f, 1.0f, 41 + static_cast<unsigned>(n));
            x.fill(xr);
            y.fill(yr);
            double exactDot = 0.0, absDot = 0.0, exactSum = 0.0, absSum = 0.0;
            for (std::size_t i = 0; i < n; ++i) {
                exactDot += double(xr[i]) * yr[i];
                absDot += std::fabs(double(xr[i]) * yr[i]);
                exactSum += xr[i];
                absSum += std::fabs(double(xr[i]));
            }
            const double eps = std::numeric_limits<float>::epsilon();
            EXPECT_LE(std::fabs(v->Dot(x.data(), y.data(), n) - exactDot), n * eps * absDot + 1e-30)
                << v->Name() << " n=" << n;
            EXPECT_LE(std::fabs(v->Sum(x.data(), n) - exactSum), n * eps * absSum + 1e-30)
                << v->Name() << " n=" << n;
        }
        Guarded empty(0);
        EXPECT_EQ(v->Dot(empty.data(), empty.data(), 0), 0.0f);
        EXPECT_EQ(v->Sum(empty.data(), 0), 0.0f);
    }
}

TEST(Vec, CopyFillClampMatchTheReference)
{
    std::unique_ptr<Vec> ref(NewVec_ref());
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& v : test::runnableVariants(VecVariants())) {
        for (std::size_t off : offsetsFor(v->Name())) {
            for (std::size_t n : kernelCounts()) {
                auto xs = test::uniform(n, -2.0f, 2.0f, 7 + static_cast<unsigned>(n));
                if (n > 3)
                    xs[n / 2] = nan;
                Guarded x(n, off), got(n, off), want(n);
                x.fill(xs);
                v->Copy(x.data(), got.data(), n);
                ASSERT_TRUE(got.guardsIntact()) << v->Name() << " Copy n=" << n;
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_TRUE(test::sameBits(got[i], xs[i])) << v->Name() << " Copy";

                v->Fill(got.data(), 0.25f, n);
                ASSERT_TRUE(got.guardsIntact()) << v->Name() << " Fill n=" << n;
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_EQ(got[i], 0.25f);

                v->Clamp(x.data(), -0.5f, 0.75f, got.data(), n);
                ref->Clamp(x.data(), -0.5f, 0.75f, want.data(), n);
                ASSERT_TRUE(got.guardsIntact()) << v->Name() << " Clamp n=" << n;
                for (std::size_t i = 0; i < n; ++i) {
                    ASSERT_TRUE(test::sameBits(got[i], want[i])) << v->Name() << " Clamp i=" << i;
                    ASSERT_TRUE(got[i] >= -0.5f && got[i] <= 0.75f) << "NaN clamps to lo";
                }
            }
        }
    }
}

TEST(Vec, MinMaxIndexFindTheFirstExtreme)
{
    std::unique_ptr<Vec> ref(NewVec_ref());
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (const auto& v : test::runnableVariants(VecVariants())) {
        for (std::size_t n : kernelCounts()) {
            // Few distinct values so extremes repeat and the first must be found.
            auto xs = test::uniform(n, -4.0f, 4.0f, 11 + static_cast<unsigned>(n));
            for (float& f : xs)
                f = std::round(f);
            Guarded x(n);
            x.fill(xs);
            ASSERT_EQ(v->MinIndex(x.data(), n), ref->MinIndex(x.data(), n)) << v->Name() << " n=" << n;
            ASSERT_EQ(v->MaxIndex(x.data(), n), ref->MaxIndex(x.data(), n)) << v->Name() << " n=" << n;
            if (n > 0) {
                std::size_t first = 0;
                for (std::size_t i = 1; i < n; ++i)
                    if (xs[i] < xs[first])
                        first = i;
                ASSERT_EQ(ref->MinIndex(x.data(), n).index, first);
            }
            // NaNs anywhere, including the very first element, are skipped.
            if (n > 2) {
                x[0] = nan;
                x[n - 1] = nan;
                const ValueIndex mn = v->MinIndex(x.data(), n);
                ASSERT_EQ(mn, ref->MinIndex(x.data(), n)) << v->Name() << " n=" << n;
                ASSERT_FALSE(std::isnan(mn.value)) << v->Name() << " n=" << n;
                ASSERT_EQ(v->MaxIndex(x.data(), n), ref->MaxIndex(x.data(), n)) << v->Name();
            }
        }
        const ValueIndex none = v->MinIndex(Guarded(0).data(), 0);
        EXPECT_EQ(none.index, 0u);
        EXPECT_EQ(none.value, std::numeric_limits<float>::infinity());
        EXPECT_EQ(v->MaxIndex(Guarded(0).data(), 0).value, -std::numeric_limits<float>::infinity());

        // Signed zeros are equal: the first one wins, with its own sign.
        alignas(32) float zeros[9] = {1, 1, 0.0f, 1, -0.0f, 1, 1, 1, 1};
        const ValueIndex z = v->MinIndex(zeros, 9);
        EXPECT_EQ(z.index, 2u) << v->Name();
        EXPECT_FALSE(std::signbit(z.value)) << v->Name();
        alignas(32) float allNan[9];
        for (float& f : allNan)
            f = nan;
        EXPECT_EQ(v->MaxIndex(allNan, 9).index, 0u) << v->Name();
    }
}

} // namespace
} // namespace twa::numeric
