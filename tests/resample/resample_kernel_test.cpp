// The polyphase kernels beyond their agreement with the reference (see
// twa_kernel_test.cpp): call boundaries, the coefficient block, and the
// dispatch rule at each forced instruction-set level.

#include "PolyphaseTables.h"
#include "VariantCheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <set>
#include <stdexcept>

namespace twa::numeric {
namespace {

using namespace qvd::test;

constexpr PolyphaseFamily kFamilies[] = {PolyphaseFamily::Up2, PolyphaseFamily::Up4, PolyphaseFamily::Up8,
                                         PolyphaseFamily::Down2, PolyphaseFamily::Down4};

std::vector<std::unique_ptr<AlgoPolyphase>> runnable(PolyphaseFamily family)
{
    std::vector<std::unique_ptr<AlgoPolyphase>> out;
    for (const PolyphaseVariant& v : PolyphaseVariants(family))
        if (MachineRuns(v.info.Needs()))
            out.emplace_back(v.create());
    return out;
}

TEST(PolyphaseKernels, NullOutputAdvancesTheInputAndZeroTapsGiveSilence)
{
    for (const PolyTable& t : polyphaseTables()) {
        CoefficientBlock coefs(32, t.taps.data(), t.taps.size(), t.factor);
        auto algos = runnable(t.id);
        algos.push_back(CreatePolyphaseRef(t.id, 3));
        for (const auto& a : algos) {
            alignas(32) float in[8] = {};
            // 13 steps: a downsampler consumes whole groups of its factor.
            const std::size_t consumed = t.down ? 13 / t.factor * t.factor : 13;
            EXPECT_EQ(a->Process(coefs, in, nullptr, 13), in + consumed * a->ChannelCount()) << a->Name();
            EXPECT_EQ(a->Process(coefs, in, nullptr, 0), in) << a->Name();
        }
    }
    // A table shorter than the factor has no whole phase: no taps, silence.
    const float none[1] = {0.5f};
    CoefficientBlock coefs(8, none, 1, 2);
    EXPECT_EQ(coefs.TapsPerPhase(), 0u);
    alignas(32) const float in[4] = {1, 2, 3, 4};
    alignas(32) float out[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    CreatePolyphaseRef(PolyphaseFamily::Up2, 1)->Process(coefs, in, out, 4);
    EXPECT_TRUE(std::ranges::all_of(out, [](float v) { return v == 0.0f; }));
}

// The half-band kernels sum in their own order; it must not depend on where
// a call starts or how many outputs it makes.
TEST(PolyphaseKernels, HalfbandKernelsGiveTheSameSamplesWhereverACallStarts)
{
    for (const auto& table : {shipped(tables::kDownsampler_x2, 192), symmetricHalfband(58, 40, 38)}) {
        CoefficientBlock coefs(32, table.data(), table.size(), 2);
        ASSERT_TRUE(coefs.IsSymmetricHalfband());
        for (const auto& algo : runnable(PolyphaseFamily::Down2)) {
            if (std::string_view(algo->Name()).find("_Sym_") == std::string_view::npos)
                continue;
            const std::size_t c = algo->ChannelCount(), outs = 301, nin = (2 * outs - 2 + table.size()) * c;
            GuardedBuffer<float> in(nin), whole(outs * c), parts(outs * c);
            in.assign(uniform(nin, -1, 1, 21));
            algo->Process(coefs, in.data(), whole.data(), 2 * outs);
            // Splits on whole vectors of output, so every pointer stays aligned.
            for (const std::size_t split : {8u, 16u, 24u, 40u, 96u, 296u}) {
                const float* next = algo->Process(coefs, in.data(), parts.data(), 2 * split);
                ASSERT_EQ(next, in.data() + 2 * split * c);
                algo->Process(coefs, next, parts.data() + split * c, 2 * (outs - split));
                for (std::size_t i = 0; i < outs * c; ++i)
                    ASSERT_EQ(bitsOf(parts[i]), bitsOf(whole[i])) << algo->Name() << " split=" << split << " i=" << i;
                EXPECT_TRUE(parts.guardsIntact());
            }
        }
    }
}

TEST(PolyphaseKernels, SimdVariantsReportCoefficientCountsNotMultipleOfFour)
{
    QVD_SKIP_WITHOUT_ASSERTS();
    const float table[6] = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f};
    CoefficientBlock coefs(32, table, 6, 2);
    for (const auto& algo : runnable(PolyphaseFamily::Up2)) {
        alignas(32) float in[64] = {};
        alignas(32) float out[128];
        AssertCatcher catcher;
        algo->Process(coefs, in, out, 16);
        EXPECT_EQ(catcher.count(), 1u) << algo->Name();
        EXPECT_EQ(AssertCatcher::last(), "(c_size & 3u) == 0u");
    }
}

TEST(CoefficientBlock, PadsEachPhaseToTheGranularity)
{
    for (const std::size_t g : {8u, 16u, 32u, 64u}) {
        CoefficientBlock b(g, tables::kUpsamplerTruePeak_x4, 48, 4);
        EXPECT_EQ(b.TapsPerPhase(), 12u);
        EXPECT_EQ(b.StorageBytes(), (12 * 4 + g - 1) / g * g * 4) << g;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.Data()) % g, 0u);
        EXPECT_EQ(std::memcmp(b.Data(), tables::kUpsamplerTruePeak_x4, 48 * sizeof(float)), 0);
        for (std::size_t i = 48; i < b.StorageBytes() / sizeof(float); ++i)
            EXPECT_EQ(b.Data()[i], 0.0f) << i;
    }
    EXPECT_THROW(CoefficientBlock(4, tables::kUpsampler_x2, 96, 2), std::bad_alloc);
    EXPECT_THROW(CoefficientBlock(0, tables::kUpsampler_x2, 96, 2), std::bad_alloc);
    EXPECT_THROW(CoefficientBlock(8, tables::kUpsampler_x2, 96, 0), std::invalid_argument);
}

TEST(CoefficientBlock, FindsTheSymmetricHalfbandShapeOfADownsamplerTable)
{
    CoefficientBlock shippedBlock(32, tables::kDownsampler_x2, 192, 2);
    EXPECT_TRUE(shippedBlock.IsSymmetricHalfband());
    EXPECT_EQ(shippedBlock.HalfbandTap(), 47u); // the centre: delay 48 frames less one
    const auto offCentre = symmetricHalfband(32, 5, 40);
    CoefficientBlock off(16, offCentre.data(), 64, 2);
    EXPECT_TRUE(off.IsSymmetricHalfband());
    EXPECT_EQ(off.HalfbandTap(), 5u);

    // Each way a table can miss the shape: it is then never claimed.
    auto shapedAfter = [](auto edit, std::size_t factor = 2, const float* from = tables::kDownsampler_x2,
                          std::size_t count = 192) {
        std::vector<float> t(from, from + count);
        edit(t);
        CoefficientBlock b(32, t.data(), t.size(), factor);
        EXPECT_EQ(b.HalfbandTap(), b.TapsPerPhase());
        return b.IsSymmetricHalfband();
    };
    // One tap of phase 0 off by one step of the float grid.
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { t[10] = std::nextafter(t[10], 1.0f); }));
    // A second non-zero tap in phase 1, or none.
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { t[11] = 1e-30f; }));
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { t[95] = 0.0f; }));
    // A phase 0 that is not a mirror image, though every value has its twin.
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { std::swap(t[0], t[2]); }));
    // An odd number of taps, mirrored all the same: the middle one has no partner.
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { t = symmetricHalfband(31, 5, 42); }));
    // The upsampler layout, a factor of 4, random taps.
    EXPECT_FALSE(shapedAfter([](std::vector<float>&) {}, 2, tables::kUpsampler_x2, 96));
    EXPECT_FALSE(shapedAfter([](std::vector<float>&) {}, 4, tables::kDownsampler_x4, 384));
    EXPECT_FALSE(shapedAfter([](std::vector<float>& t) { t = uniform(192, -0.5f, 0.5f, 41); }));
}

// At every forced level and channel count the pick serves those channels,
// needs nothing the level lacks, and is the reference at the floor and beyond
// two channels. A block of the half-band shape swaps in the half-band kernel of
// the same instruction set wherever one is supported; no other block does.
TEST(PolyphaseDispatch, PicksAreSoundAtEveryForcedLevel)
{
    ScopedCpuFeatures restore;
    CoefficientBlock shaped(32, tables::kDownsampler_x2, 192, 2);
    const auto random = uniform(192, -0.5f, 0.5f, 43);
    CoefficientBlock plain(32, random.data(), 192, 2);
    std::set<std::string> picked;
    for (std::int32_t level = kIsaNone; level <= kIsaAVX2; ++level) {
        for (const bool fma : {false, true}) {
            ScopedCpuFeatures::Force(level, fma);
            const InstructionSetSettings fs = GetFeatureSet();
            for (const PolyphaseFamily fam : kFamilies) {
                for (const std::size_t c : {1u, 2u, 3u, 8u}) {
                    SCOPED_TRACE("level " + std::to_string(level) + (fma ? " fma" : "") + " channels " + std::to_string(c));
                    const bool down2 = fam == PolyphaseFamily::Down2;
                    const std::string generic = ChosenPolyphaseAlgo(fam, c, fs);
                    std::string halfband = down2 ? ChosenPolyphaseAlgo(fam, c, fs, shaped) : generic;
                    EXPECT_EQ(down2 ? ChosenPolyphaseAlgo(fam, c, fs, plain) : generic, generic);
                    bool symSupported = false;
                    for (const PolyphaseVariant& v : PolyphaseVariants(fam)) {
                        const std::string name = v.info.Name();
                        symSupported |= v.info.NeedsTableShape() && v.info.ChannelCount() == c && v.info.IsSupported(fs);
                        if (name == generic || name == halfband) {
                            picked.insert(name);
                            EXPECT_EQ(v.info.ChannelCount(), c) << name;
                            EXPECT_TRUE(levelAllows(level, fma, v.info.Needs(), name)) << name;
                            EXPECT_EQ(v.info.NeedsTableShape(), name != generic) << name;
                        }
                    }
                    EXPECT_TRUE(generic.ends_with("_Algo_Ref") || (c <= 2 && (level > kIsaNone || fma))) << generic;
                    EXPECT_EQ(halfband != generic, symSupported) << halfband;
                    if (halfband != generic) {
                        EXPECT_EQ(halfband.replace(halfband.find("_Sym"), 4, ""), generic);
                    }
                }
            }
        }
    }
    for (const PolyphaseFamily fam : kFamilies)
        for (const PolyphaseVariant& v : PolyphaseVariants(fam))
            EXPECT_TRUE(picked.count(v.info.Name())) << v.info.Name() << " is never picked";
}

// A converter on any table, built as the fixed ones are.
class TableDownsampler_x2 final : public PolyphaseResampler {
public:
    TableDownsampler_x2(const float* table, std::size_t count, std::size_t channels)
        : PolyphaseResampler(PolyphaseFamily::Down2, table, count, channels, kDefaultInFrameSize)
    {
    }
};

TEST(PolyphaseDispatch, ConvertersInstallThePickOnABlockAlignedForIt)
{
    ScopedCpuFeatures restore;
    const auto random = uniform(192, -0.5f, 0.5f, 44);
    for (const std::int32_t level : {kIsaNone, kIsaSSE2, kIsaAVX, kIsaAVX2}) {
        for (const bool fma : {false, true}) {
            if (!MachineRuns(level >= kIsaAVX2 ? IsaNeed::AVX2 : level >= kIsaAVX ? IsaNeed::AVX : IsaNeed::SSE2) ||
                (fma && !MachineRuns(IsaNeed::FMA)))
                continue;
            ScopedCpuFeatures::Force(level, fma);
            const InstructionSetSettings fs = GetFeatureSet();
            for (const std::size_t c : {1u, 2u, 3u}) {
                Upsampler_x8 up(c);
                Downsampler_x2 down(c);
                TableDownsampler_x2 other(random.data(), 192, c);
                EXPECT_STREQ(up.Algo().Name(), ChosenPolyphaseAlgo(PolyphaseFamily::Up8, c, fs));
                EXPECT_STREQ(down.Algo().Name(), ChosenPolyphaseAlgo(PolyphaseFamily::Down2, c, fs, down.Coefficients()));
                EXPECT_STREQ(other.Algo().Name(), ChosenPolyphaseAlgo(PolyphaseFamily::Down2, c, fs));
                for (const PolyphaseResampler* r : {static_cast<PolyphaseResampler*>(&up), static_cast<PolyphaseResampler*>(&down)}) {
                    EXPECT_GE(r->Coefficients().Granularity(), r->Algo().Alignment()) << r->Algo().Name();
                    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(r->Coefficients().Data()) % r->Algo().Alignment(), 0u);
                }
            }
        }
    }
}

// The converters size their coefficient blocks from the infos, so an info
// must describe the kernel it builds.
TEST(PolyphaseDispatch, EachVariantDescribesTheKernelItBuilds)
{
    for (const PolyphaseFamily fam : kFamilies) {
        for (const PolyphaseVariant& v : PolyphaseVariants(fam)) {
            EXPECT_EQ(v.info.Alignment(), alignmentOf(v.info.Name())) << v.info.Name();
            if (!MachineRuns(v.info.Needs()))
                continue;
            const std::unique_ptr<AlgoPolyphase> a(v.create());
            EXPECT_EQ(a->Alignment(), v.info.Alignment()) << a->Name();
            EXPECT_EQ(a->BlockFrames(), v.info.BlockFrames()) << a->Name();
            EXPECT_EQ(a->ChannelCount(), v.info.ChannelCount()) << a->Name();
            EXPECT_TRUE(a->IsSupported(InstructionSetSettings{kIsaAVX2, true})) << a->Name();
        }
    }
}

} // namespace
} // namespace twa::numeric
