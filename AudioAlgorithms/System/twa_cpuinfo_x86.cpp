#include "System/twa_cpuinfo_x86.h"

#include "System/twa_assert.h"
#include "System/twa_log.h"

#include <cpuid.h>
#include <immintrin.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <set>
#include <utility>

namespace twa {
namespace {

bool bit(std::uint32_t value, unsigned index)
{
    return ((value >> index) & 1u) != 0;
}

CpuidRegisters cpuid(std::uint32_t leaf, std::uint32_t subleaf)
{
    CpuidRegisters r;
    __cpuid_count(leaf, subleaf, r.eax, r.ebx, r.ecx, r.edx);
    return r;
}

// XCR0 read twice, by the bare instruction and by the intrinsic, so a broken
// toolchain or hypervisor shows up in debug builds.
long long xgetbv0()
{
    std::uint32_t eax = 0;
    std::uint32_t edx = 0;
    __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0u));
    return static_cast<long long>((static_cast<std::uint64_t>(edx) << 32) | eax);
}

std::uint32_t logicalProcessorCount()
{
    const long n = ::sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<std::uint32_t>(n) : 1u;
}

// Cores are the distinct (package, core) pairs the kernel reports; without
// sysfs every logical processor counts as a core.
std::uint32_t physicalCoreCount(std::uint32_t logical)
{
    std::set<std::pair<long, long>> cores;
    for (std::uint32_t cpu = 0; cpu < 4096 && cores.size() < logical * 2u + 2u; ++cpu) {
        char path[128];
        long ids[2] = {-1, -1};
        const char* names[2] = {"physical_package_id", "core_id"};
        bool found = true;
        for (int k = 0; k < 2; ++k) {
            std::snprintf(path, sizeof path, "/sys/devices/system/cpu/cpu%u/topology/%s", cpu,
                          names[k]);
            std::FILE* f = std::fopen(path, "r");
            if (!f) {
                found = false;
                break;
            }
            if (std::fscanf(f, "%ld", &ids[k]) != 1)
                found = false;
            std::fclose(f);
        }
        if (!found) {
            if (cpu >= logical)
                break;
            continue;
        }
        cores.emplace(ids[0], ids[1]);
    }
    return cores.empty() ? logical : static_cast<std::uint32_t>(cores.size());
}

} // namespace

void CpuInfoX86::Probe()
{
    CpuidSnapshot raw;
    raw.logicalProcessors = logicalProcessorCount();
    raw.physicalCores = physicalCoreCount(raw.logicalProcessors);
    raw.leaf0 = cpuid(0, 0);
    if (raw.leaf0.eax >= 1)
        raw.leaf1 = cpuid(1, 0);
    if (bit(raw.leaf1.ecx, 27) && bit(raw.leaf1.ecx, 28)) {
        raw.xcr0 = static_cast<std::uint64_t>(xgetbv0());
        QVD_ASSERT(xgetbv0() == _xgetbv(0));
    }
    if (raw.leaf0.eax >= 7)
        raw.leaf7 = cpuid(7, 0);
    Decode(raw);
}

void CpuInfoX86::Decode(const CpuidSnapshot& raw)
{
    *this = CpuInfoX86{};
    physicalCores = raw.physicalCores;
    logicalProcessors = raw.logicalProcessors;
    hyperThreaded = logicalProcessors > physicalCores;

    highestLeaf = raw.leaf0.eax;
    std::memcpy(vendor + 0, &raw.leaf0.ebx, 4);
    std::memcpy(vendor + 4, &raw.leaf0.edx, 4);
    std::memcpy(vendor + 8, &raw.leaf0.ecx, 4);
    vendor[12] = '\0';
    if (vendor[0] == 'G')
        debug::log("Intel CPU: %s", vendor);
    else if (vendor[0] == 'A')
        debug::log("AMD CPU: %s", vendor);

    const std::uint32_t edx1 = raw.leaf1.edx;
    const std::uint32_t ecx1 = raw.leaf1.ecx;
    mmx = bit(edx1, 23);
    sse = bit(edx1, 25);
    sse2 = bit(edx1, 26);
    sse3 = bit(ecx1, 0);
    sse41 = bit(ecx1, 19);
    sse42 = bit(ecx1, 20);
    fma = bit(ecx1, 12);
    apicId = raw.leaf1.ebx >> 24;

    // Either state bit counts: older systems that save only the SSE state
    // were treated as AVX-capable too, and the variant choice depends on it.
    if (bit(ecx1, 27) && bit(ecx1, 28))
        avx = (raw.xcr0 & 6u) != 0;

    if (highestLeaf >= 7) {
        const std::uint32_t ebx7 = raw.leaf7.ebx;
        const std::uint32_t ecx7 = raw.leaf7.ecx;
        avx2 = bit(ebx7, 5);
        bmi1 = bit(ebx7, 3);
        bmi2 = bit(ebx7, 8);
        adx = bit(ebx7, 19);
        mpx = bit(ebx7, 14);
        sha = bit(ebx7, 29);
        prefetchwt1 = bit(ecx7, 0);
        avx512f = bit(ebx7, 16);
        avx512cd = bit(ebx7, 28);
        avx512pf = bit(ebx7, 26);
        avx512er = bit(ebx7, 27);
        avx512vl = bit(ebx7, 31);
        avx512bw = bit(ebx7, 30);
        avx512dq = bit(ebx7, 17);
        avx512ifma = bit(ebx7, 21);
        avx512vbmi = bit(ecx7, 1);
    }
    probed = true;
}

CpuFeatures::CpuFeatures() : useProbe(1)
{
    info.Probe();
    settings = InstructionSetSettings{};
}

CpuFeatures& CpuFeatures::Instance()
{
    static CpuFeatures instance;
    return instance;
}

namespace {
template <class ProbeAnswer>
bool query(ProbeAnswer probeAnswer, std::int32_t level)
{
    const CpuFeatures& f = CpuFeatures::Instance();
    if (f.useProbe)
        return f.info.probed && probeAnswer(f.info);
    return f.settings.level >= level;
}
} // namespace

bool HasSSE() { return query([](const CpuInfoX86& i) { return i.sse; }, kIsaSSE); }
bool HasSSE2() { return query([](const CpuInfoX86& i) { return i.sse2; }, kIsaSSE2); }
bool HasSSE3() { return query([](const CpuInfoX86& i) { return i.sse3; }, kIsaSSE3); }
bool HasSSSE3() { return query([](const CpuInfoX86& i) { return i.sse41; }, kIsaSSSE3); }
bool HasSSE41() { return query([](const CpuInfoX86& i) { return i.sse41; }, kIsaSSE41); }
bool HasSSE42() { return query([](const CpuInfoX86& i) { return i.sse42; }, kIsaSSE42); }
bool HasAVX() { return query([](const CpuInfoX86& i) { return i.avx; }, kIsaAVX); }
bool HasAVX2() { return query([](const CpuInfoX86& i) { return i.avx2; }, kIsaAVX2); }

bool HasFMA()
{
    const CpuFeatures& f = CpuFeatures::Instance();
    return f.useProbe ? (f.info.probed && f.info.fma) : f.settings.fma;
}

bool HasExtra()
{
    const CpuFeatures& f = CpuFeatures::Instance();
    return f.useProbe ? (f.info.probed && f.info.extra) : f.settings.extra;
}

std::uint32_t GetPhysicalCoreCount()
{
    const CpuFeatures& f = CpuFeatures::Instance();
    return f.useProbe ? f.info.physicalCores
                      : static_cast<std::uint32_t>(f.settings.physicalCores);
}

std::uint32_t GetLogicalProcessorCount()
{
    const CpuFeatures& f = CpuFeatures::Instance();
    return f.useProbe ? f.info.logicalProcessors
                      : static_cast<std::uint32_t>(f.settings.logicalProcessors);
}

bool SetUseProbe(bool useProbe)
{
    CpuFeatures& f = CpuFeatures::Instance();
    const bool previous = f.useProbe != 0;
    if (useProbe != previous) {
        f.settings = InstructionSetSettings{};
        f.useProbe = useProbe ? 1 : 0;
    }
    return previous;
}

InstructionSetSettings GetFeatureSet()
{
    InstructionSetSettings s;
    s.fma = HasFMA();
    s.extra = HasExtra();
    if (HasAVX2())
        s.level = kIsaAVX2;
    else if (HasAVX())
        s.level = kIsaAVX;
    else if (HasSSE42())
        s.level = kIsaSSE42;
    else if (HasSSE41())
        s.level = kIsaSSE41;
    else if (HasSSSE3())
        s.level = kIsaSSSE3;
    else if (HasSSE3())
        s.level = kIsaSSE3;
    else if (HasSSE2())
        s.level = kIsaSSE2;
    else if (HasSSE())
        s.level = kIsaSSE;
    return s;
}

} // namespace twa
