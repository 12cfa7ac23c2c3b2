// Every polyphase kernel variant against the reference kernel, the dispatch
// rule at each forced instruction-set level, and the coefficient block.

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/Upsampler.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace twa::numeric {
namespace {

using test::AssertCatcher;
using test::Guarded;
using test::kernelCounts;
using test::ScopedCpuFeatures;

struct Family {
    PolyphaseFamily id;
    const char* name;
    const float* table;
    std::size_t count;
    std::size_t factor;
    bool down;
};

// Tables without a single-tap phase, and one longer than the kernels stage.
const float* randomTable(std::size_t n, unsigned seed)
{
    static std::vector<std::vector<float>> keep;
    keep.push_back(test::uniform(n, -0.5f, 0.5f, seed));
    return keep.back().data();
}

const Family kFamilies[] = {
    {PolyphaseFamily::Up2, "Up2random", randomTable(96, 31), 96, 2, false},
    {PolyphaseFamily::Down2, "Down2random", randomTable(192, 32), 192, 2, true},
    {PolyphaseFamily::Down4, "Down4random", randomTable(384, 33), 384, 4, true},
    {PolyphaseFamily::Down2, "Down2long", randomTable(264, 34), 264, 2, true},
    {PolyphaseFamily::Up2, "Up2", tables::kUpsampler_x2, 96, 2, false},
    {PolyphaseFamily::Up2, "Up2short", tables::kUpsampler_x2_short, 64, 2, false},
    {PolyphaseFamily::Up4, "Up4", tables::kUpsampler_x4, 192, 4, false},
    {PolyphaseFamily::Up4, "TruePeak", tables::kUpsamplerTruePeak_x4, 48, 4, false},
    {PolyphaseFamily::Up8, "Up8", tables::kUpsampler_x8, 384, 8, false},
    {PolyphaseFamily::Down2, "Down2", tables::kDownsampler_x2, 192, 2, true},
    {PolyphaseFamily::Down4, "Down4", tables::kDownsampler_x4, 384, 4, true},
};

// Input frames a kernel reads for `frames` steps.
std::size_t framesRead(const Family& f, std::size_t frames)
{
    const std::size_t taps = f.count / f.factor;
    if (!f.down)
        return frames + taps - 1;
    const std::size_t outs = frames / f.factor;
    return outs ? (outs - 1) * f.factor + f.count : 0;
}

std::size_t floatsWritten(const Family& f, std::size_t frames, std::size_t channels)
{
    return (f.down ? frames / f.factor : frames * f.factor) * channels;
}

bool isFma(const AlgoInfo& info)
{
    return info.Needs() == IsaNeed::FMA;
}

TEST(PolyphaseKernels, EveryVariantMatchesTheReference)
{
    for (const Family& f : kFamilies) {
        CoefficientBlock coefs(32, f.table, f.count, f.factor);
        for (const PolyphaseVariant& v : PolyphaseVariants(f.id)) {
            if (!MachineRuns(v.info.Needs()))
                continue;
            std::unique_ptr<AlgoPolyphase> algo(v.create());
            const std::size_t c = algo->ChannelCount();
            auto ref = CreatePolyphaseRef(f.id, c);
            ASSERT_EQ(c, v.info.ChannelCount());
            ASSERT_STREQ(algo->Name(), v.info.Name());
            for (std::size_t frames : kernelCounts()) {
                // Downsamplers: `frames` outputs, and a partial group now and then.
                const std::size_t steps = f.down ? frames * f.factor + frames % f.factor : frames;
                const std::size_t nin = framesRead(f, steps) * c;
                const std::size_t nout = floatsWritten(f, steps, c);
                const auto x = test::uniform(nin, -1.0f, 1.0f, 7 + static_cast<unsigned>(frames));
                Guarded in(nin), got(nout), want(nout);
                in.fill(x);
                const float* end = algo->Process(coefs, in.data(), got.data(), steps);
                const float* refEnd = ref->Process(coefs, in.data(), want.data(), steps);
                ASSERT_EQ(end, refEnd) << v.info.Name() << " frames=" << steps;
                ASSERT_TRUE(got.guardsIntact()) << v.info.Name() << " " << f.name << " frames=" << steps;
                ASSERT_TRUE(in.guardsIntact());
                for (std::size_t i = 0; i < nout; ++i) {
                    if (isFma(v.info)) {
                        // One rounding per tap less than the reference.
                        ASSERT_NEAR(got[i], want[i], 2e-6f) << v.info.Name() << " " << f.name << " i=" << i;
                    } else {
                        ASSERT_TRUE(test::sameBits(got[i], want[i]))
                            << v.info.Name() << " " << f.name << " frames=" << steps << " i=" << i << ": "
                            << got[i] << " vs " << want[i];
                    }
                }
            }
        }
    }
}

TEST(PolyphaseKernels, NullOutputAdvancesInputAndWritesNothing)
{
    for (const Family& f : kFamilies) {
        CoefficientBlock coefs(32, f.table, f.count, f.factor);
        std::vector<std::unique_ptr<AlgoPolyphase>> algos;
        for (const PolyphaseVariant& v : PolyphaseVariants(f.id))
            if (MachineRuns(v.info.Needs()))
                algos.emplace_back(v.create());
        algos.push_back(CreatePolyphaseRef(f.id, 3));
        for (const auto& a : algos) {
            alignas(32) float in[8] = {};
            const std::size_t c = a->ChannelCount();
            // 13 steps: a downsampler consumes whole groups of its factor.
            const std::size_t consumed = f.down ? 13 / f.factor * f.factor : 13;
            EXPECT_EQ(a->Process(coefs, in, nullptr, 13), in + consumed * c) << a->Name();
            EXPECT_EQ(a->Process(coefs, in, nullptr, 0), in) << a->Name();
        }
    }
}

TEST(PolyphaseKernels, ReferenceServesAnyChannelCountChannelByChannel)
{
    for (const Family& f : kFamilies) {
        CoefficientBlock coefs(8, f.table, f.count, f.factor);
        const std::size_t c = 5;
        auto multi = CreatePolyphaseRef(f.id, c);
        auto mono = CreatePolyphaseRef(f.id, 1);
        EXPECT_EQ(multi->ChannelCount(), c);
        EXPECT_EQ(multi->Alignment(), 8u);
        EXPECT_EQ(multi->BlockFrames(), 0u);
        EXPECT_FALSE(multi->IsSupported(InstructionSetSettings{kIsaAVX2, true}));
        const std::size_t steps = 4 * f.factor;
        const std::size_t nin = framesRead(f, steps);
        const auto x = test::uniform(nin * c, -1.0f, 1.0f, 99);
        // One frame past the start so nothing is aligned.
        Guarded in(nin * c, 1), out(floatsWritten(f, steps, c), 3);
        in.fill(x);
        multi->Process(coefs, in.data(), out.data(), steps);
        EXPECT_TRUE(out.guardsIntact());
        for (std::size_t ch = 0; ch < c; ++ch) {
            std::vector<float> chIn(nin), chOut(floatsWritten(f, steps, 1));
            for (std::size_t i = 0; i < nin; ++i)
                chIn[i] = x[i * c + ch];
            mono->Process(coefs, chIn.data(), chOut.data(), steps);
            for (std::size_t i = 0; i < chOut.size(); ++i)
                ASSERT_EQ(out[i * c + ch], chOut[i]) << f.name << " ch=" << ch << " i=" << i;
        }
    }
}

TEST(PolyphaseKernels, ZeroTapsGiveSilence)
{
    const float none[1] = {0.5f};
    CoefficientBlock coefs(8, none, 1, 2); // no whole phase: 0 taps
    EXPECT_EQ(coefs.TapsPerPhase(), 0u);
    auto up = CreatePolyphaseRef(PolyphaseFamily::Up2, 1);
    alignas(32) float in[4] = {1, 2, 3, 4};
    alignas(32) float out[8];
    std::fill(std::begin(out), std::end(out), 9.0f);
    up->Process(coefs, in, out, 4);
    for (float v : out)
        EXPECT_EQ(v, 0.0f);
}

// Checks the SIMD kernels report what their contract forbids and still compute.
TEST(PolyphaseKernels, SimdVariantsReportMisalignedPointers)
{
    TWA_SKIP_WITHOUT_ASSERTS();
    for (const Family& f : kFamilies) {
        CoefficientBlock coefs(32, f.table, f.count, f.factor);
        for (const PolyphaseVariant& v : PolyphaseVariants(f.id)) {
            if (!MachineRuns(v.info.Needs()))
                continue;
            std::unique_ptr<AlgoPolyphase> algo(v.create());
            const std::size_t c = algo->ChannelCount();
            auto ref = CreatePolyphaseRef(f.id, c);
            const std::size_t steps = 37 * f.factor;
            const std::size_t nin = framesRead(f, steps) * c;
            const std::size_t nout = floatsWritten(f, steps, c);
            Guarded in(nin, 1), got(nout, 3), want(nout);
            in.fill(test::uniform(nin, -1, 1, 5));
            AssertCatcher catcher;
            algo->Process(coefs, in.data(), got.data(), steps);
            EXPECT_EQ(catcher.count(), 2u) << v.info.Name();
            EXPECT_EQ(AssertCatcher::last(), "p && v_test<TAG>(p)");
            ref->Process(coefs, in.data(), want.data(), steps);
            for (std::size_t i = 0; i < nout; ++i)
                ASSERT_NEAR(got[i], want[i], isFma(v.info) ? 2e-6f : 0.0f) << v.info.Name();
            EXPECT_TRUE(got.guardsIntact());
        }
    }
}

TEST(PolyphaseKernels, SimdVariantsReportCoefficientCountsNotMultipleOfFour)
{
    TWA_SKIP_WITHOUT_ASSERTS();
    const float table[6] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f};
    CoefficientBlock coefs(32, table, 6, 2);
    for (const PolyphaseVariant& v : PolyphaseVariants(PolyphaseFamily::Up2)) {
        if (!MachineRuns(v.info.Needs()))
            continue;
        std::unique_ptr<AlgoPolyphase> algo(v.create());
        alignas(32) float in[64] = {};
        alignas(32) float out[128];
        AssertCatcher catcher;
        algo->Process(coefs, in, out, 16);
        EXPECT_EQ(catcher.count(), 1u) << v.info.Name();
        EXPECT_EQ(AssertCatcher::last(), "(c_size & 3u) == 0u");
    }
}

// ---------------------------------------------------------------------------

TEST(CoefficientBlock, PadsEachPhaseToTheGranularity)
{
    for (std::size_t g : {8u, 16u, 32u, 64u}) {
        CoefficientBlock b(g, tables::kUpsamplerTruePeak_x4, 48, 4);
        EXPECT_EQ(b.Count(), 48u);
        EXPECT_EQ(b.Factor(), 4u);
        EXPECT_EQ(b.TapsPerPhase(), 12u);
        const std::size_t phaseBytes = (12 * 4 + g - 1) / g * g;
        EXPECT_EQ(b.StorageBytes(), phaseBytes * 4) << g;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.Data()) % g, 0u);
        EXPECT_EQ(std::memcmp(b.Data(), tables::kUpsamplerTruePeak_x4, 48 * sizeof(float)), 0);
        for (std::size_t i = 48; i < b.StorageBytes() / sizeof(float); ++i)
            EXPECT_EQ(b.Data()[i], 0.0f) << i;
    }
}

TEST(CoefficientBlock, RefusesSmallGranularityAndZeroFactor)
{
    EXPECT_THROW(CoefficientBlock(4, tables::kUpsampler_x2, 96, 2), std::bad_alloc);
    EXPECT_THROW(CoefficientBlock(0, tables::kUpsampler_x2, 96, 2), std::bad_alloc);
    EXPECT_THROW(CoefficientBlock(8, tables::kUpsampler_x2, 96, 0), std::invalid_argument);
}

// ---------------------------------------------------------------------------
// The dispatch rule, by name only so nothing runs that the machine lacks.

std::string expectedChoice(PolyphaseFamily fam, std::size_t c, std::int32_t level, bool fma)
{
    const bool sse2 = level >= kIsaSSE2, avx = level >= kIsaAVX, avx2 = level >= kIsaAVX2;
    std::string v;
    switch (fam) {
    case PolyphaseFamily::Up2:
        v = c == 1 ? (avx ? "c1_m256" : sse2 ? "c1_m128" : "") : c == 2 ? (avx ? "c2_m256" : sse2 ? "c2_m128" : "") : "";
        return v.empty() ? "Upsampler_x2_Algo_Ref" : "Upsampler_x2_Algo_" + v;
    case PolyphaseFamily::Up4:
        v = c == 1 ? (avx ? "c1_m256" : sse2 ? "c1_m128" : "") : c == 2 ? (avx ? "c2_m256" : sse2 ? "c2_m128" : "") : "";
        return v.empty() ? "Upsampler_x4_Algo_Ref" : "Upsampler_x4_Algo_" + v;
    case PolyphaseFamily::Up8:
        v = c == 1   ? (avx2 ? "c1_m256_avx2" : avx ? "c1_m256" : sse2 ? "c1_m128" : "")
            : c == 2 ? (avx2 ? "c2_m256_avx2" : avx ? "c2_m256" : "")
                     : "";
        return v.empty() ? "Upsampler_x8_Algo_Ref" : "Upsampler_x8_Algo_" + v;
    case PolyphaseFamily::Down2:
        v = (c == 1 || c == 2) && sse2 ? std::string(c == 1 ? "c1_" : "c2_") + (avx ? "m256" : "m128") + (fma ? "_fma" : "")
                                       : "";
        return v.empty() ? "Downsampler_x2_Algo_Ref" : "Downsampler_x2_Algo_" + v;
    case PolyphaseFamily::Down4:
        v = c == 1 && sse2 ? std::string("c1_") + (avx ? "m256" : "m128") + (fma ? "_fma" : "") : "";
        return v.empty() ? "Downsampler_x4_Algo_Ref" : "Downsampler_x4_Algo_" + v;
    }
    return "?";
}

TEST(PolyphaseDispatch, EachForcedLevelPicksTheWidestSupportedKernel)
{
    ScopedCpuFeatures restore;
    for (std::int32_t level = 0; level <= 8; ++level) {
        for (bool fma : {false, true}) {
            ScopedCpuFeatures::Force(level, fma);
            const InstructionSetSettings fs = GetFeatureSet();
            for (PolyphaseFamily fam : {PolyphaseFamily::Up2, PolyphaseFamily::Up4, PolyphaseFamily::Up8,
                                        PolyphaseFamily::Down2, PolyphaseFamily::Down4}) {
                for (std::size_t c : {1u, 2u, 3u, 4u, 8u}) {
                    const std::string want = expectedChoice(fam, c, level, fma);
                    EXPECT_EQ(ChosenPolyphaseAlgo(fam, c, fs), want)
                        << "level " << level << (fma ? " fma" : "") << " channels " << c;
                }
            }
        }
    }
}

TEST(PolyphaseDispatch, ConvertersInstallTheChoiceAndSizeTheirBlockForIt)
{
    ScopedCpuFeatures restore;
    for (std::int32_t level : {0, 2, 7, 8}) {
        ScopedCpuFeatures::Force(level, false);
        if (level >= kIsaAVX2 ? !MachineRuns(IsaNeed::AVX2) : level >= kIsaAVX ? !MachineRuns(IsaNeed::AVX) : false)
            continue;
        for (std::size_t c : {1u, 2u, 3u}) {
            Upsampler_x8 up(c);
            EXPECT_EQ(std::string(up.Algo().Name()), expectedChoice(PolyphaseFamily::Up8, c, level, false));
            // The largest of 8 and what the 1- and 2-channel choices ask for.
            const std::size_t g = level >= kIsaAVX ? 32 : level >= kIsaSSE2 ? 16 : 8;
            EXPECT_EQ(up.Coefficients().Granularity(), g) << "level " << level;
        }
    }
    // With the probe off and the defaults, everything runs the reference.
    ScopedCpuFeatures::Force(0, false);
    Downsampler_x2 down(2);
    EXPECT_STREQ(down.Algo().Name(), "Downsampler_x2_Algo_Ref");
}

TEST(PolyphaseDispatch, InfosDescribeTheirKernels)
{
    for (PolyphaseFamily fam : {PolyphaseFamily::Up2, PolyphaseFamily::Up4, PolyphaseFamily::Up8,
                                PolyphaseFamily::Down2, PolyphaseFamily::Down4}) {
        for (const PolyphaseVariant& v : PolyphaseVariants(fam)) {
            const std::string name = v.info.Name();
            const bool m256 = name.find("_m256") != std::string::npos;
            EXPECT_EQ(v.info.Alignment(), m256 ? 32u : 16u) << name;
            EXPECT_EQ(v.info.ChannelCount(), name.find("_c2_") != std::string::npos ? 2u : 1u) << name;
            EXPECT_GT(v.info.BlockFrames(), 0u) << name;
            // Never chosen without the instruction set it is built for.
            InstructionSetSettings below{kIsaNone, false};
            EXPECT_FALSE(v.info.IsSupported(below)) << name;
            if (MachineRuns(v.info.Needs())) {
                std::unique_ptr<AlgoPolyphase> a(v.create());
                EXPECT_EQ(a->Alignment(), v.info.Alignment());
                EXPECT_EQ(a->BlockFrames(), v.info.BlockFrames());
                EXPECT_EQ(a->IsSupported(InstructionSetSettings{kIsaAVX2, true}), true) << name;
            }
        }
    }
}

} // namespace
} // namespace twa::numeric
