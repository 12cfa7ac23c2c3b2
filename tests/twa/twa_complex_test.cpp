#include "Algorithms/CSquareMagnitude.h"
#include "Algorithms/Polar2Rect.h"
#include "Algorithms/Rect2Polar.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <string>

namespace twa::numeric {
namespace {

using test::Guarded;
using test::kernelCounts;

bool isRef(const char* name)
{
    return std::string(name).ends_with("_ref");
}

TEST(Rect2Polar, MagnitudeExactPhaseWithinTolerance)
{
    // Phase tolerance of the SIMD atan2, in radians.
    constexpr double kPhaseTol = 6e-7; // 2.5 ulp of pi
    std::unique_ptr<Rect2Polar> ref(NewRect2Polar_ref());
    for (const auto& v : test::runnableVariants(Rect2PolarVariants())) {
        for (std::size_t off : isRef(v->Name()) ? std::vector<std::size_t>{0, 1} : std::vector<std::size_t>{0}) {
            for (std::size_t n : kernelCounts()) {
                auto res = test::uniform(n, -10.0f, 10.0f, 3 + static_cast<unsigned>(n));
                auto ims = test::uniform(n, -10.0f, 10.0f, 4 + static_cast<unsigned>(n));
                // Axes, signed zeros and equal parts hit the quadrant fix-ups.
                const float special[][2] = {{0, 0}, {-0.0f, 0}, {0, -0.0f}, {-0.0f, -0.0f}, {-1, 0},
                                            {-1, -0.0f}, {0, 1}, {0, -1}, {1, 1}, {-1, -1},
                                            {1e-30f, 1e30f}, {-3, 3}};
                for (std::size_t i = 0; i < n && i < 12; ++i) {
                    res[i * 3 % n] = special[i][0];
                    ims[i * 3 % n] = special[i][1];
                }
                Guarded re(n, off), im(n, off), mag(n, off), ph(n, off), rmag(n), rph(n);
                re.fill(res);
                im.fill(ims);
                v->Process(re.data(), im.data(), mag.data(), ph.data(), n);
                ref->Process(re.data(), im.data(), rmag.data(), rph.data(), n);
                ASSERT_TRUE(mag.guardsIntact() && ph.guardsIntact()) << v->Name() << " n=" << n;
                for (std::size_t i = 0; i < n; ++i) {
                    ASSERT_TRUE(test::sameBits(mag[i], rmag[i])) << v->Name() << " i=" << i;
                    ASSERT_NEAR(ph[i], rph[i], kPhaseTol)
                        << v->Name() << " atan2(" << ims[i] << ", " << res[i] << ")";
                    ASSERT_EQ(std::signbit(ph[i]), std::signbit(rph[i]))
                        << v->Name() << " atan2(" << ims[i] << ", " << res[i] << ")";
                }
            }
        }
    }
}

TEST(Polar2Rect, WithinToleranceOfTheCLibrary)
{
    std::unique_ptr<Polar2Rect> ref(NewPolar2Rect_ref());
    for (const auto& v : test::runnableVariants(Polar2RectVariants())) {
        for (std::size_t off : isRef(v->Name()) ? std::vector<std::size_t>{0, 1} : std::vector<std::size_t>{0}) {
            for (std::size_t n : kernelCounts()) {
                const auto ms = test::uniform(n, 0.0f, 4.0f, 5 + static_cast<unsigned>(n));
                auto ps = test::uniform(n, -8.0f * std::numbers::pi_v<float>,
                                        8.0f * std::numbers::pi_v<float>, 6 + static_cast<unsigned>(n));
                if (n > 2) {
                    ps[0] = 0.0f;
                    ps[1] = std::numbers::pi_v<float> / 2;
                    ps[2] = 1000.0f;
                }
                Guarded m(n, off), p(n, off), re(n, off), im(n, off), rre(n), rim(n);
                m.fill(ms);
                p.fill(ps);
                v->Process(m.data(), p.data(), re.data(), im.data(), n);
                ref->Process(m.data(), p.data(), rre.data(), rim.data(), n);
                ASSERT_TRUE(re.guardsIntact() && im.guardsIntact()) << v->Name() << " n=" << n;
                for (std::size_t i = 0; i < n; ++i) {
                    // Relative to the magnitude, growing slowly with the reduced angle.
                    const double tol = 1.5e-7 * ms[i] * (1.0 + std::fabs(ps[i]) / 64.0);
                    ASSERT_NEAR(re[i], rre[i], tol) << v->Name() << " cos(" << ps[i] << ")";
                    ASSERT_NEAR(im[i], rim[i], tol) << v->Name() << " sin(" << ps[i] << ")";
                }
            }
        }
    }
}

TEST(PolarRect, RoundTripRecoversTheInput)
{
    std::unique_ptr<Rect2Polar> toPolar;
    std::unique_ptr<Polar2Rect> toRect;
    CreateRect2Polar(toPolar);
    CreatePolar2Rect(toRect);
    const std::size_t n = 999;
    Guarded re(n), im(n);
    re.fill(test::uniform(n, -1.0f, 1.0f, 8));
    im.fill(test::uniform(n, -1.0f, 1.0f, 9));
    Guarded a(n), b(n), x(n), y(n);
    toPolar->Process(re.data(), im.data(), a.data(), b.data(), n);
    // In place: magnitude and phase arrays turn into re and im.
    toRect->Process(a.data(), b.data(), a.data(), b.data(), n);
    for (std::size_t i = 0; i < n; ++i) {
        ASSERT_NEAR(a[i], re[i], 1e-6f);
        ASSERT_NEAR(b[i], im[i], 1e-6f);
    }
}

TEST(CSquareMagnitude, MatchesTheReference)
{
    std::unique_ptr<CSquareMagnitude> ref(NewCSquareMagnitude_ref());
    for (const auto& v : test::runnableVariants(CSquareMagnitudeVariants())) {
        const bool fma = std::string(v->Name()).find("_fma") != std::string::npos;
        for (std::size_t off : isRef(v->Name()) ? std::vector<std::size_t>{0, 1} : std::vector<std::size_t>{0}) {
            for (std::size_t n : kernelCounts()) {
                const auto cs = test::uniform(2 * n, -3.0f, 3.0f, 12 + static_cast<unsigned>(n));
                Guarded c(2 * n, off), got(n, off), want(n);
                c.fill(cs);
                v->Process(c.data(), got.data(), n);
                ref->Process(c.data(), want.data(), n);
                ASSERT_TRUE(got.guardsIntact() && c.guardsIntact()) << v->Name() << " n=" << n;
                for (std::size_t i = 0; i < n; ++i) {
                    if (!fma) {
                        ASSERT_TRUE(test::sameBits(got[i], want[i])) << v->Name() << " i=" << i;
                        continue;
                    }
                    // One rounding fewer: the correctly rounded sum of squares.
                    const double exact = double(cs[2 * i]) * cs[2 * i] + double(cs[2 * i + 1]) * cs[2 * i + 1];
                    ASSERT_LE(test::ulpDistance(got[i], static_cast<float>(exact)), 1u) << v->Name();
                    ASSERT_LE(test::ulpDistance(got[i], want[i]), 2u) << v->Name();
                }
            }
        }
    }
}

TEST(CSquareMagnitude, InPlaceKeepsResultsAtTheStart)
{
    for (const auto& v : test::runnableVariants(CSquareMagnitudeVariants())) {
        const std::size_t n = 65;
        const auto cs = test::uniform(2 * n, -3.0f, 3.0f, 99);
        Guarded c(2 * n), out(n);
        c.fill(cs);
        v->Process(c.data(), out.data(), n);
        v->Process(c.data(), c.data(), n);
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_TRUE(test::sameBits(c[i], out[i])) << v->Name() << " i=" << i;
    }
}

} // namespace
} // namespace twa::numeric
