// The reverb's loop kernels: every variant this processor runs gives the
// reference's samples bit for bit, at every length and alignment, and the
// engine's output does not depend on the variant chosen.
#include "ReverbSupport.h"

#include "ScopedCpuFeatures.h"

#include <qv_reverb_kernels.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace qvd::reverb;
using namespace reverbtest;

namespace {

constexpr float kGuard = -12345.0f;
const std::size_t kLengths[] = {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 47, 63, 64, 65, 100, 512};

// Values a line meets: ordinary samples, tiny ones the flush must remove,
// zeros of both signs.
std::vector<float> values(std::size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::normal_distribution<float> d(0.0f, 0.5f);
    std::vector<float> v(n);
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned kind = rng() % 8;
        v[i] = kind == 0 ? 1e-20f * d(rng) : kind == 1 ? (rng() % 2 ? 0.0f : -0.0f) : d(rng);
    }
    return v;
}

// A buffer with room for `offset` floats before the data (so vector code meets
// every alignment) and guard words after it.
struct Out {
    Out(std::size_t n, std::size_t offset) : storage(n + offset + 8, kGuard), data(storage.data() + offset), size(n) {}
    std::vector<float> storage;
    float* data;
    std::size_t size;
    std::vector<float> body() const { return {data, data + size}; }
    bool guardsIntact() const
    {
        for (std::size_t i = 0; i < 8; ++i)
            if (std::memcmp(&data[size + i], &kGuard, sizeof(float)) != 0)
                return false;
        return true;
    }
};

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    // An empty vector's data() may be null, and memcmp on null is undefined.
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

} // namespace

TEST(ReverbKernels, EveryVariantMatchesTheReferenceBitForBit)
{
    const auto variants = twa::RunnableVariants(qvd::reverb::variants());
    ASSERT_STREQ(variants[0].name, "ref");
    ASSERT_GE(variants.size(), 2u) << "this processor runs no vector variant to compare";
    const Kernels& ref = *variants[0].fn;
    for (std::size_t v = 1; v < variants.size(); ++v) {
        const Kernels& k = *variants[v].fn;
        for (const std::size_t n : kLengths) {
            for (const std::size_t offset : {0u, 1u, 3u}) {
                SCOPED_TRACE(testing::Message() << variants[v].name << ", " << n << " frames, offset " << offset);
                const auto a = values(n + 1, static_cast<unsigned>(n * 7 + offset));
                const auto b = values(n, static_cast<unsigned>(n * 11 + offset + 1));

                Out want(n, offset), got(n, offset);
                // Up to eight inputs, one of them carrying an infinity and a NaN.
                std::vector<std::vector<float>> in;
                std::vector<const float*> ip;
                for (unsigned c = 0; c < 8; ++c) {
                    in.push_back(values(n, 50 + c + static_cast<unsigned>(n)));
                    ip.push_back(in.back().data());
                }
                if (n > 9) {
                    in[2][3] = std::numeric_limits<float>::infinity();
                    in[5][n - 2] = std::numeric_limits<float>::quiet_NaN();
                }
                for (const std::uint32_t inputs : {1u, 2u, 8u}) {
                    ref.downmix(ip.data(), inputs, 0.125f, want.data, n);
                    k.downmix(ip.data(), inputs, 0.125f, got.data, n);
                    EXPECT_TRUE(sameBits(want.body(), got.body()) && got.guardsIntact()) << "downmix of " << inputs;
                    for (std::size_t i = 0; i < n; ++i)
                        ASSERT_TRUE(std::isfinite(got.data[i])) << "downmix of " << inputs << " at " << i;
                }

                ref.scale(a.data(), -0.73f, want.data, n);
                k.scale(a.data(), -0.73f, got.data, n);
                EXPECT_TRUE(sameBits(want.body(), got.body()) && got.guardsIntact()) << "scale";

                ref.write(a.data(), b.data(), want.data, n);
                k.write(a.data(), b.data(), got.data, n);
                EXPECT_TRUE(sameBits(want.body(), got.body()) && got.guardsIntact()) << "write";

                // A delay moving by a fraction of a sample over the run, and one
                // pinned at its one-sample floor.
                std::vector<float> at(n);
                for (std::size_t i = 0; i < n; ++i)
                    at[i] = static_cast<float>(i + 5);
                for (const float df : {40.0f, 1.2f}) {
                    ref.interpolate(a.data() + 1, at.data(), df, 0.37f, 0.0041f, std::floor(df - 0.37f), want.data, n);
                    k.interpolate(a.data() + 1, at.data(), df, 0.37f, 0.0041f, std::floor(df - 0.37f), got.data, n);
                    EXPECT_TRUE(sameBits(want.body(), got.body()) && got.guardsIntact()) << "interpolate " << df;
                }

                // Sixteen inputs, some with gain 0; overwriting and adding.
                std::vector<std::vector<float>> x;
                std::vector<const float*> xp;
                float g[16];
                for (unsigned i = 0; i < 16; ++i) {
                    x.push_back(values(n, 100 + i + static_cast<unsigned>(n)));
                    xp.push_back(x.back().data());
                    g[i] = i % 5 == 3 ? 0.0f : 0.25f - 0.03f * static_cast<float>(i);
                }
                for (const bool add : {false, true}) {
                    for (const std::uint32_t inputs : {1u, 16u}) {
                        std::copy(b.begin(), b.end(), want.data);
                        std::copy(b.begin(), b.end(), got.data);
                        ref.mix(xp.data(), g, inputs, want.data, add, n);
                        k.mix(xp.data(), g, inputs, got.data, add, n);
                        EXPECT_TRUE(sameBits(want.body(), got.body()) && got.guardsIntact())
                            << "mix of " << inputs << (add ? ", adding" : "");
                    }
                }
            }
        }
    }
}

// The flush leaves no denormal in a line: what is written is zero or at least
// the smallest normal float, whatever the variant.
TEST(ReverbKernels, LineWritesNeverStoreDenormals)
{
    for (const auto& variant : twa::RunnableVariants(qvd::reverb::variants())) {
        const std::vector<float> w = {1e-39f, -3e-40f, 1e-30f, 0.5f, 1e-38f, -1e-41f, 2e-38f, 0.0f, 1e-39f};
        const std::vector<float> t(w.size(), 0.0f);
        std::vector<float> out(w.size());
        variant.fn->write(w.data(), t.data(), out.data(), w.size());
        for (std::size_t i = 0; i < out.size(); ++i)
            EXPECT_FALSE(std::fpclassify(out[i]) == FP_SUBNORMAL) << variant.name << " sample " << i;
        EXPECT_EQ(out[3], 0.5f) << variant.name;
    }
}

// The whole engine, built while each vector variant is the one chosen, gives
// the same samples: 512-bit against AVX2 code (the numeric kernels the engine
// also uses stay the same at both settings).
TEST(ReverbKernels, TheEngineSoundsTheSameWithEveryVectorVariant)
{
    if (!twa::MachineRuns(twa::IsaNeed::AVX512) || !twa::MachineRuns(twa::IsaNeed::AVX2))
        GTEST_SKIP() << "needs a processor with AVX-512";
    const Signal in = noise(2, 48000, 3);
    std::vector<Signal> outs;
    for (const bool wide : {true, false}) {
        qvd::test::ScopedCpuFeatures restore;
        qvd::test::ScopedCpuFeatures::ForceWide(wide);
        EXPECT_STREQ(qvd::reverb::selectKernel().name, wide ? "m512" : "m256_avx2");
        Control::Settings s = defaults();
        s[Control::Modulation] = 1.0f; // the interpolating read on every line
        EngineSetup setup(48000.0f, s, 2);
        qv_reverb_u15 engine(*setup.param);
        outs.push_back(run(engine, in, 333));
    }
    for (std::size_t c = 0; c < 2; ++c)
        EXPECT_TRUE(sameBits(outs[0][c], outs[1][c])) << "channel " << c;
}
