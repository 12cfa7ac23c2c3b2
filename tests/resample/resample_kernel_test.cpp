// Every polyphase kernel variant against the reference kernel, the dispatch
// rule at each forced instruction-set level, and the coefficient block.

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/Upsampler.h"
#include "twa_kernel_test_support.h"
#include "twa_test_support.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
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

std::vector<std::vector<float>>& keptTables()
{
    static std::vector<std::vector<float>> keep;
    return keep;
}

// Tables without a single-tap phase, and one longer than the kernels stage.
const float* randomTable(std::size_t n, unsigned seed)
{
    keptTables().push_back(test::uniform(n, -0.5f, 0.5f, seed));
    return keptTables().back().data();
}

// A downsampler table of the symmetric half-band shape with K taps per phase:
// phase 0 random and mirrored, phase 1 zero but for tap d.
const float* symmetricHalfband(std::size_t K, std::size_t d, unsigned seed)
{
    auto t = test::uniform(2 * K, -0.5f, 0.5f, seed);
    for (std::size_t k = 0; k < K; ++k) {
        t[2 * k] = t[2 * std::min(k, K - 1 - k)];
        t[2 * k + 1] = k == d ? 0.375f : 0.0f;
    }
    keptTables().push_back(std::move(t));
    return keptTables().back().data();
}

// The shipped x2 table with one tap of phase 0 changed: still a single-tap
// phase 1, no longer symmetric.
const float* lopsidedHalfband()
{
    std::vector<float> t(tables::kDownsampler_x2, tables::kDownsampler_x2 + 192);
    t[10] *= 1.5f;
    keptTables().push_back(std::move(t));
    return keptTables().back().data();
}

const Family kFamilies[] = {
    {PolyphaseFamily::Up2, "Up2random", randomTable(96, 31), 96, 2, false},
    {PolyphaseFamily::Down2, "Down2random", randomTable(192, 32), 192, 2, true},
    {PolyphaseFamily::Down4, "Down4random", randomTable(384, 33), 384, 4, true},
    {PolyphaseFamily::Down2, "Down2long", randomTable(264, 34), 264, 2, true},
    // The symmetric shape off the centre, of other lengths, and beyond what the planes hold.
    {PolyphaseFamily::Down2, "Down2sym32", symmetricHalfband(32, 5, 35), 64, 2, true},
    {PolyphaseFamily::Down2, "Down2sym58", symmetricHalfband(58, 40, 36), 116, 2, true},
    {PolyphaseFamily::Down2, "Down2sym132", symmetricHalfband(132, 65, 37), 264, 2, true},
    {PolyphaseFamily::Down2, "Down2lopsided", lopsidedHalfband(), 192, 2, true},
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

// Whether the variant runs its own half-band arithmetic on these coefficients.
bool takesShape(const AlgoInfo& info, const CoefficientBlock& coefs)
{
    return info.NeedsTableShape() && info.Serves(coefs);
}

// Largest |got - want| allowed for inputs within +-1. FMA kernels round once
// per tap less than the reference; the half-band kernels add the mirrored
// pairs first and sum in another order, within a few roundings of the
// largest possible output, the sum of |h|.
float tolerance(const AlgoInfo& info, const CoefficientBlock& coefs)
{
    if (takesShape(info, coefs)) {
        double l1 = 0.0;
        for (std::size_t i = 0; i < coefs.Count(); ++i)
            l1 += std::fabs(coefs.Data()[i]);
        return static_cast<float>(4.0 * FLT_EPSILON * l1);
    }
    return isFma(info) ? 2e-6f : 0.0f;
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
                const float tol = tolerance(v.info, coefs);
                for (std::size_t i = 0; i < nout; ++i) {
                    if (tol > 0.0f) {
                        ASSERT_NEAR(got[i], want[i], tol) << v.info.Name() << " " << f.name << " i=" << i;
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

// The half-band kernels sum in their own order; it must not depend on where
// a call starts or how many outputs it makes.
TEST(PolyphaseKernels, HalfbandKernelsGiveTheSameSamplesWhereverACallStarts)
{
    for (const auto& [table, count] : {std::pair{tables::kDownsampler_x2, std::size_t{192}},
                                       std::pair{symmetricHalfband(58, 40, 38), std::size_t{116}}}) {
        CoefficientBlock coefs(32, table, count, 2);
        ASSERT_TRUE(coefs.IsSymmetricHalfband());
        for (const PolyphaseVariant& v : PolyphaseVariants(PolyphaseFamily::Down2)) {
            if (!v.info.NeedsTableShape() || !MachineRuns(v.info.Needs()))
                continue;
            std::unique_ptr<AlgoPolyphase> algo(v.create());
            const std::size_t c = algo->ChannelCount();
            const std::size_t outs = 301;
            const std::size_t nin = (2 * outs - 2 + count) * c;
            Guarded in(nin);
            in.fill(test::uniform(nin, -1.0f, 1.0f, 21));
            Guarded whole(outs * c), parts(outs * c);
            algo->Process(coefs, in.data(), whole.data(), 2 * outs);
            // Splits on whole vectors of output, so every pointer stays aligned.
            for (std::size_t split : {8u, 16u, 24u, 40u, 96u, 296u}) {
                const float* next = algo->Process(coefs, in.data(), parts.data(), 2 * split);
                ASSERT_EQ(next, in.data() + 2 * split * c);
                algo->Process(coefs, next, parts.data() + split * c, 2 * (outs - split));
                for (std::size_t i = 0; i < outs * c; ++i)
                    ASSERT_TRUE(test::sameBits(parts[i], whole[i])) << v.info.Name() << " split=" << split << " i=" << i;
                EXPECT_TRUE(parts.guardsIntact());
            }
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
                ASSERT_NEAR(got[i], want[i], tolerance(v.info, coefs)) << v.info.Name();
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

TEST(CoefficientBlock, FindsTheSymmetricHalfbandShapeOfADownsamplerTable)
{
    CoefficientBlock shipped(32, tables::kDownsampler_x2, 192, 2);
    EXPECT_TRUE(shipped.IsSymmetricHalfband());
    EXPECT_EQ(shipped.HalfbandTap(), 47u); // the centre: delay 48 frames less one
    CoefficientBlock offCentre(16, symmetricHalfband(32, 5, 40), 64, 2);
    EXPECT_TRUE(offCentre.IsSymmetricHalfband());
    EXPECT_EQ(offCentre.HalfbandTap(), 5u);

    // Each way a table can miss the shape: it is then never claimed.
    auto broken = [](auto edit) {
        std::vector<float> t(tables::kDownsampler_x2, tables::kDownsampler_x2 + 192);
        edit(t);
        CoefficientBlock b(32, t.data(), t.size(), 2);
        EXPECT_EQ(b.HalfbandTap(), b.TapsPerPhase());
        return b.IsSymmetricHalfband();
    };
    // One tap of phase 0 off by one step of the float grid.
    EXPECT_FALSE(broken([](std::vector<float>& t) { t[10] = std::nextafter(t[10], 1.0f); }));
    // A second non-zero tap in phase 1, or none.
    EXPECT_FALSE(broken([](std::vector<float>& t) { t[11] = 1e-30f; }));
    EXPECT_FALSE(broken([](std::vector<float>& t) { t[95] = 0.0f; }));
    // A phase 0 that is not a mirror image, though every value has its twin.
    EXPECT_FALSE(broken([](std::vector<float>& t) { std::swap(t[0], t[2]); }));
    // An odd number of taps, mirrored all the same: the middle one has no partner.
    CoefficientBlock odd(32, symmetricHalfband(31, 5, 42), 62, 2);
    EXPECT_FALSE(odd.IsSymmetricHalfband());
    // Not a mirror-symmetric phase 0 read in the upsampler layout, nor factor 4.
    CoefficientBlock up(32, tables::kUpsampler_x2, 96, 2);
    EXPECT_FALSE(up.IsSymmetricHalfband());
    CoefficientBlock quarter(32, tables::kDownsampler_x4, 384, 4);
    EXPECT_FALSE(quarter.IsSymmetricHalfband());
    CoefficientBlock random(32, randomTable(192, 41), 192, 2);
    EXPECT_FALSE(random.IsSymmetricHalfband());
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
            // The largest of 8 and what any variant the level allows asks for.
            const std::size_t g = level >= kIsaAVX ? 32 : level >= kIsaSSE2 ? 16 : 8;
            EXPECT_EQ(up.Coefficients().Granularity(), g) << "level " << level;
        }
    }
    // With the probe off and the defaults, everything runs the reference.
    ScopedCpuFeatures::Force(0, false);
    Downsampler_x2 down(2);
    EXPECT_STREQ(down.Algo().Name(), "Downsampler_x2_Algo_Ref");
}

// The half-band name of a generic x2 downsampler choice; the reference stays.
std::string halfbandChoice(const std::string& generic)
{
    const std::string prefix = "Downsampler_x2_Algo_";
    if (generic.rfind(prefix, 0) != 0 || generic == "Downsampler_x2_Algo_Ref")
        return generic;
    return "Downsampler_x2_Sym_Algo_" + generic.substr(prefix.size());
}

TEST(PolyphaseDispatch, WithItsBlockAHalfbandTableTakesTheHalfbandKernel)
{
    ScopedCpuFeatures restore;
    CoefficientBlock shaped(32, tables::kDownsampler_x2, 192, 2);
    CoefficientBlock plain(32, randomTable(192, 43), 192, 2);
    CoefficientBlock quarter(32, tables::kDownsampler_x4, 384, 4);
    for (std::int32_t level = 0; level <= 8; ++level) {
        for (bool fma : {false, true}) {
            ScopedCpuFeatures::Force(level, fma);
            const InstructionSetSettings fs = GetFeatureSet();
            for (std::size_t c : {1u, 2u, 3u}) {
                const std::string generic = expectedChoice(PolyphaseFamily::Down2, c, level, fma);
                EXPECT_EQ(ChosenPolyphaseAlgo(PolyphaseFamily::Down2, c, fs, shaped), halfbandChoice(generic))
                    << "level " << level << (fma ? " fma" : "") << " channels " << c;
                EXPECT_EQ(ChosenPolyphaseAlgo(PolyphaseFamily::Down2, c, fs, plain), generic);
                EXPECT_EQ(ChosenPolyphaseAlgo(PolyphaseFamily::Down4, c, fs, quarter),
                          expectedChoice(PolyphaseFamily::Down4, c, level, fma));
            }
        }
    }
}

// A converter on any table, built as the fixed ones are.
class TableDownsampler_x2 final : public PolyphaseResampler {
public:
    TableDownsampler_x2(const float* table, std::size_t count, std::size_t channels)
        : PolyphaseResampler(PolyphaseFamily::Down2, table, count, channels, kDefaultInFrameSize)
    {
    }
};

TEST(PolyphaseDispatch, DownsamplersRunTheHalfbandKernelOnlyOnTablesOfThatShape)
{
    ScopedCpuFeatures restore;
    for (std::int32_t level : {kIsaSSE2, kIsaAVX}) {
        for (bool fma : {false, true}) {
            if (!MachineRuns(level >= kIsaAVX ? IsaNeed::AVX : IsaNeed::SSE2) || (fma && !MachineRuns(IsaNeed::FMA)))
                continue;
            ScopedCpuFeatures::Force(level, fma);
            for (std::size_t c : {1u, 2u}) {
                const std::string generic = expectedChoice(PolyphaseFamily::Down2, c, level, fma);
                Downsampler_x2 shipped(c);
                EXPECT_EQ(shipped.Algo().Name(), halfbandChoice(generic));
                TableDownsampler_x2 other(randomTable(192, 44), 192, c);
                EXPECT_EQ(other.Algo().Name(), generic);
            }
        }
    }
}

TEST(PolyphaseDispatch, InfosDescribeTheirKernels)
{
    CoefficientBlock shaped(32, tables::kDownsampler_x2, 192, 2);
    CoefficientBlock plain(32, randomTable(192, 46), 192, 2);
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
            // Only the half-band kernels ask for a shape, and only they turn a block down.
            const bool sym = name.find("_Sym_") != std::string::npos;
            EXPECT_EQ(v.info.NeedsTableShape(), sym) << name;
            EXPECT_TRUE(v.info.Serves(shaped)) << name;
            EXPECT_EQ(v.info.Serves(plain), !sym) << name;
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
