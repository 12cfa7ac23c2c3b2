// The log10 / 10^x passes of every variant against the reference, on the
// awkward counts, aligned and misaligned, with guard words around the output.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <Algorithms/DynamicsKernels.h>

#include "AlgorithmTestSupport.h"

using namespace qvd::dynamics;

namespace {

const std::int32_t kCounts[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 31, 32, 33, 64, 65, 999, 4095};
constexpr float kGuard = -12345.0f;

// Distance in units in the last place between two finite floats of one sign.
std::int64_t ulps(float a, float b)
{
    std::int32_t ia, ib;
    std::memcpy(&ia, &a, 4);
    std::memcpy(&ib, &b, 4);
    if (ia < 0)
        ia = INT32_MIN - ia;
    if (ib < 0)
        ib = INT32_MIN - ib;
    return std::llabs(static_cast<std::int64_t>(ia) - ib);
}

// Runs `fn` on `in` with input and output starting `offset` floats past a
// 32-byte boundary, with guard words before and after the output.
std::vector<float> runGuarded(void (*fn)(const float*, float*, std::int32_t) noexcept, const std::vector<float>& in,
                              std::size_t offset = 1)
{
    const std::size_t n = in.size();
    std::vector<float> srcStore(n + 32, 1.0f), dstStore(n + 32, kGuard);
    auto alignedFrom = [](float* p) {
        const auto a = reinterpret_cast<std::uintptr_t>(p + 1);
        return p + 1 + ((32 - a % 32) % 32) / sizeof(float);
    };
    float* src = alignedFrom(srcStore.data()) + offset;
    float* dst = alignedFrom(dstStore.data()) + offset;
    std::copy(in.begin(), in.end(), src);
    fn(src, dst, static_cast<std::int32_t>(n));
    EXPECT_TRUE(dst[-1] == kGuard && dst[n] == kGuard && dst[n + 1] == kGuard) << "guard words";
    return {dst, dst + n};
}

} // namespace

TEST(DynamicsKernels, Log10WithinThreeUlpOverTheDetectorRange)
{
    // The reference is always there, first, and chosen when nothing better runs.
    ASSERT_STREQ(algtest::variants().front().name, "ref");
    EXPECT_NE(selectVariant().name, nullptr);
    for (const Variant& v : algtest::variants()) {
        SCOPED_TRACE(v.name);
        for (std::int32_t count : kCounts) {
            std::vector<float> in(static_cast<std::size_t>(count));
            std::mt19937 rng(static_cast<std::uint32_t>(count));
            // Log-uniform over the whole normal range, plus values next to 1 and powers of two.
            std::uniform_real_distribution<double> exponent(std::log(FLT_MIN), std::log(FLT_MAX));
            for (std::size_t i = 0; i < in.size(); ++i)
                in[i] = i % 5 == 0 ? std::nextafter(1.0f, static_cast<float>(i % 2)) * (i % 3 == 0 ? 1.0f : 4.0f)
                                   : static_cast<float>(std::exp(exponent(rng)));
            const auto out = runGuarded(v.log10, in, count % 2 ? 0 : 1);
            for (std::size_t i = 0; i < in.size(); ++i) {
                const auto exact = static_cast<float>(std::log10(static_cast<double>(in[i])));
                ASSERT_TRUE(ulps(out[i], exact) <= 3 || std::fabs(out[i] - exact) < 1e-9f)
                    << "x=" << in[i] << " got " << out[i] << " want " << exact;
            }
        }
    }
}

TEST(DynamicsKernels, Exp10WithinThreeUlpAndSaturatingOutsideItsRange)
{
    for (const Variant& v : algtest::variants()) {
        SCOPED_TRACE(v.name);
        for (std::int32_t count : kCounts) {
            auto in = algtest::noise(static_cast<std::size_t>(count), 37.5f, static_cast<std::uint32_t>(count) + 7u);
            for (std::size_t i = 0; i < in.size(); i += 7)
                in[i] *= 1e-3f; // gains near 0 dB matter most
            const auto out = runGuarded(v.exp10, in, count % 2 ? 1 : 0);
            for (std::size_t i = 0; i < in.size(); ++i) {
                const auto exact = static_cast<float>(std::pow(10.0, static_cast<double>(in[i])));
                ASSERT_LE(ulps(out[i], exact), 3) << "x=" << in[i] << " got " << out[i] << " want " << exact;
            }
        }
        const auto edge = runGuarded(v.exp10, {0.0f, -1000.0f, 1000.0f});
        EXPECT_EQ(edge[0], 1.0f); // unity gain stays exactly unity
        EXPECT_GE(edge[1], 0.0f);
        EXPECT_LT(edge[1], 1e-37f);
        EXPECT_GE(edge[2], 1e38f);
    }
}
