#include "ScopedCpuFeatures.h"
#include "System/twa_cpuinfo_x86.h"
#include "System/twa_log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace twa {
namespace {

using qvd::test::ScopedCpuFeatures;

constexpr std::uint32_t b(unsigned i)
{
    return 1u << i;
}

std::uint32_t word(const char* four)
{
    std::uint32_t w;
    std::memcpy(&w, four, 4);
    return w;
}

CpuidSnapshot vendorOnly(const char* twelve, std::uint32_t highestLeaf)
{
    CpuidSnapshot raw;
    raw.leaf0.eax = highestLeaf;
    raw.leaf0.ebx = word(twelve);
    raw.leaf0.edx = word(twelve + 4);
    raw.leaf0.ecx = word(twelve + 8);
    return raw;
}

std::vector<std::string> logged;

TEST(CpuInfoX86Decode, ReadsVendorInRegisterOrderAndLogsIt)
{
    logged.clear();
    const debug::LogSink previous = debug::setLogSink([](const char* line) { logged.emplace_back(line); });
    CpuInfoX86 intel, amd, other;
    intel.Decode(vendorOnly("GenuineIntel", 1));
    amd.Decode(vendorOnly("AuthenticAMD", 1));
    other.Decode(vendorOnly("CentaurHauls", 1));
    debug::setLogSink(previous);
    EXPECT_STREQ(intel.vendor, "GenuineIntel");
    EXPECT_STREQ(amd.vendor, "AuthenticAMD");
    EXPECT_EQ(logged, (std::vector<std::string>{"Intel CPU: GenuineIntel", "AMD CPU: AuthenticAMD"}));
}

TEST(CpuInfoX86Decode, MapsEveryFeatureBit)
{
    CpuidSnapshot raw = vendorOnly("GenuineIntel", 7);
    raw.physicalCores = 4;
    raw.logicalProcessors = 8;
    raw.leaf1.edx = b(23) | b(25) | b(26);
    raw.leaf1.ecx = b(0) | b(19) | b(20) | b(12);
    raw.leaf1.ebx = 0x2A000000u | 0x00FFFFFFu;
    raw.leaf7.ebx = b(5) | b(3) | b(8) | b(19) | b(14) | b(29) | b(16) | b(28) | b(26) | b(27) |
                    b(31) | b(30) | b(17) | b(21);
    raw.leaf7.ecx = b(0) | b(1);
    CpuInfoX86 i;
    debug::LogSink previous = debug::setLogSink([](const char*) {});
    i.Decode(raw);
    debug::setLogSink(previous);

    EXPECT_TRUE(i.probed && i.hyperThreaded);
    EXPECT_EQ(i.highestLeaf, 7u);
    EXPECT_EQ(i.apicId, 0x2Au);
    EXPECT_EQ(i.physicalCores, 4u);
    EXPECT_EQ(i.logicalProcessors, 8u);
    const bool bits[] = {i.mmx, i.sse, i.sse2, i.sse3, i.sse41, i.sse42, i.fma, i.avx2, i.bmi1, i.bmi2, i.adx, i.mpx,
                         i.sha, i.prefetchwt1, i.avx512f, i.avx512cd, i.avx512pf, i.avx512er, i.avx512vl, i.avx512bw,
                         i.avx512dq, i.avx512ifma, i.avx512vbmi};
    for (std::size_t k = 0; k < std::size(bits); ++k)
        EXPECT_TRUE(bits[k]) << "field " << k;
    EXPECT_FALSE(i.extra);
    EXPECT_FALSE(i.avx) << "no OSXSAVE/AVX bits, so XCR0 is not consulted";

    // Each bit on its own lands in its own field only.
    CpuidSnapshot one = vendorOnly("GenuineIntel", 7);
    one.leaf7.ebx = b(30);
    i.Decode(one);
    EXPECT_TRUE(i.avx512bw && !i.avx512vl && !i.avx512dq);
    one.leaf7.ebx = 0;
    one.leaf1.ecx = b(20);
    i.Decode(one);
    EXPECT_TRUE(i.sse42 && !i.sse41 && !i.hyperThreaded);
}

TEST(CpuInfoX86Decode, LeafSevenIgnoredBelowItsLeafAndSsse3NeverRead)
{
    CpuidSnapshot raw = vendorOnly("GenuineIntel", 6);
    raw.leaf7.ebx = 0xFFFFFFFFu;
    raw.leaf7.ecx = 0xFFFFFFFFu;
    raw.leaf1.ecx = b(9);
    CpuInfoX86 i;
    i.Decode(raw);
    for (const bool f : {i.avx2, i.avx512f, i.prefetchwt1, i.sse3, i.sse41})
        EXPECT_FALSE(f);
}

TEST(CpuInfoX86Decode, AvxNeedsOsxsaveAndAvxBitsThenEitherStateBit)
{
    const struct {
        std::uint32_t ecx;
        std::uint64_t xcr0;
        bool avx;
    } cases[] = {
        {b(27) | b(28), 0x6, true},  {b(27) | b(28), 0x2, true}, // SSE state alone is enough
        {b(27) | b(28), 0x4, true},  {b(27) | b(28), 0x1, false},
        {b(27) | b(28), 0x0, false}, {b(28), 0x6, false},
        {b(27), 0x6, false},
    };
    for (const auto& c : cases) {
        CpuidSnapshot raw = vendorOnly("GenuineIntel", 1);
        raw.leaf1.ecx = c.ecx;
        raw.xcr0 = c.xcr0;
        CpuInfoX86 i;
        i.Decode(raw);
        EXPECT_EQ(i.avx, c.avx) << "ecx " << c.ecx << " xcr0 " << c.xcr0;
    }
}

TEST(CpuInfoX86Probe, AgreesWithTheCompilerRuntime)
{
    CpuInfoX86 i;
    debug::LogSink previous = debug::setLogSink([](const char*) {});
    i.Probe();
    debug::setLogSink(previous);
    __builtin_cpu_init();
    EXPECT_TRUE(i.probed);
    EXPECT_TRUE(i.sse2);
    EXPECT_EQ(i.sse41, __builtin_cpu_supports("sse4.1") != 0);
    EXPECT_EQ(i.sse42, __builtin_cpu_supports("sse4.2") != 0);
    EXPECT_EQ(i.avx2, __builtin_cpu_supports("avx2") != 0);
    EXPECT_EQ(i.fma, __builtin_cpu_supports("fma") != 0);
    EXPECT_EQ(i.avx512f, __builtin_cpu_supports("avx512f") != 0);
    if (__builtin_cpu_supports("avx")) {
        EXPECT_TRUE(i.avx);
    }
    EXPECT_TRUE(1 <= i.physicalCores && i.physicalCores <= i.logicalProcessors);
    EXPECT_EQ(i.hyperThreaded, i.logicalProcessors > i.physicalCores);
    EXPECT_EQ(std::strlen(i.vendor), 12u);
}

TEST(CpuFeaturesQueries, AnswerFromTheRecordWhileProbing)
{
    ScopedCpuFeatures restore;
    CpuFeatures& f = CpuFeatures::Instance();
    ASSERT_EQ(f.useProbe, 1);

    // A processor with AVX2 whose OS did not enable the AVX state.
    CpuInfoX86 i;
    i.probed = true;
    i.sse = i.sse2 = i.sse3 = i.sse41 = true;
    i.avx2 = true;
    f.info = i;
    EXPECT_TRUE(HasAVX2() && !HasAVX() && !HasSSE42() && !HasFMA());
    EXPECT_TRUE(HasSSSE3()) << "answers from the SSE4.1 bit";
    EXPECT_EQ(GetFeatureSet().level, kIsaAVX2);

    // SSE4.1 cleared: SSSE3 goes with it.
    f.info.sse41 = false;
    f.info.avx2 = false;
    EXPECT_FALSE(HasSSSE3());
    EXPECT_EQ(GetFeatureSet().level, kIsaSSE3);

    // An unprobed record answers false everywhere.
    f.info.probed = false;
    for (bool q : {HasSSE(), HasSSE2(), HasSSE3(), HasSSSE3(), HasSSE41(), HasSSE42(), HasAVX(),
                   HasAVX2(), HasFMA(), HasExtra()})
        EXPECT_FALSE(q);
    EXPECT_EQ(GetFeatureSet(), InstructionSetSettings{});
}

TEST(CpuFeaturesQueries, OverrideAnswersByLevel)
{
    ScopedCpuFeatures restore;
    EXPECT_TRUE(SetUseProbe(false));
    EXPECT_EQ(GetFeatureSet(), InstructionSetSettings{}) << "defaults answer false everywhere";
    EXPECT_EQ(GetPhysicalCoreCount(), 2u);
    EXPECT_EQ(GetLogicalProcessorCount(), 4u);

    bool (*const queries[])() = {HasSSE, HasSSE2, HasSSE3, HasSSSE3, HasSSE41, HasSSE42, HasAVX, HasAVX2};
    for (std::int32_t level = 0; level <= 8; ++level) {
        CpuFeatures::Instance().settings.level = level;
        for (std::int32_t q = 1; q <= 8; ++q)
            EXPECT_EQ(queries[q - 1](), q <= level) << "level " << level << " query " << q;
        EXPECT_EQ(GetFeatureSet().level, level);
    }
    EXPECT_FALSE(HasFMA());
    CpuFeatures::Instance().settings.fma = true;
    CpuFeatures::Instance().settings.extra = true;
    EXPECT_TRUE(HasFMA() && HasExtra() && GetFeatureSet().fma && GetFeatureSet().extra);
}

TEST(CpuFeaturesQueries, SetUseProbeResetsOverrideOnlyOnChange)
{
    ScopedCpuFeatures restore;
    EXPECT_TRUE(SetUseProbe(false));
    CpuFeatures::Instance().settings.level = kIsaAVX;
    EXPECT_FALSE(SetUseProbe(false)) << "no change returns the current value";
    EXPECT_EQ(CpuFeatures::Instance().settings.level, kIsaAVX) << "and keeps the block";
    EXPECT_FALSE(SetUseProbe(true));
    EXPECT_EQ(CpuFeatures::Instance().settings, InstructionSetSettings{});
    EXPECT_EQ(GetLogicalProcessorCount(), CpuFeatures::Instance().info.logicalProcessors);
    EXPECT_TRUE(SetUseProbe(true));

    // Back on the probe, the snapshot matches this processor again.
    const InstructionSetSettings s = GetFeatureSet();
    EXPECT_EQ(s.fma, CpuFeatures::Instance().info.fma);
    EXPECT_GE(s.level, kIsaSSE2);
}

} // namespace
} // namespace twa
