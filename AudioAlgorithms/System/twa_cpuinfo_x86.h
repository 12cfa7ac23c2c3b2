#pragma once
// Processor probe and the process-wide instruction-set choice that every kernel
// factory consults. The probe runs once, on first query.

#include <cstdint>

namespace twa {

// Raw register values the probe decodes; split out so a record can be decoded
// from values that did not come from this processor.
struct CpuidRegisters {
    std::uint32_t eax = 0, ebx = 0, ecx = 0, edx = 0;
};

struct CpuidSnapshot {
    std::uint32_t physicalCores = 0;
    std::uint32_t logicalProcessors = 0;
    CpuidRegisters leaf0;
    CpuidRegisters leaf1;
    CpuidRegisters leaf7; // sub-leaf 0; ignored when leaf0.eax < 7
    std::uint64_t xcr0 = 0; // ignored unless leaf 1 reports OSXSAVE and AVX
};

struct CpuInfoX86 {
    bool probed = false;
    std::uint32_t physicalCores = 0;
    std::uint32_t logicalProcessors = 0;
    bool hyperThreaded = false; // more logical processors than cores
    std::uint32_t highestLeaf = 0;
    std::uint32_t apicId = 0;
    char vendor[13] = {};

    bool mmx = false;
    bool sse = false;
    bool sse2 = false;
    bool sse3 = false;
    bool sse41 = false;
    bool sse42 = false;
    bool avx2 = false;
    bool fma = false;
    bool extra = false; // never set by the probe
    bool bmi1 = false;
    bool bmi2 = false;
    bool adx = false;
    bool mpx = false;
    bool sha = false;
    bool prefetchwt1 = false;
    bool avx512f = false;
    bool avx512cd = false;
    bool avx512pf = false;
    bool avx512er = false;
    bool avx512vl = false;
    bool avx512bw = false;
    bool avx512dq = false;
    bool avx512ifma = false;
    bool avx512vbmi = false;
    bool avx = false; // processor has it and the OS saves its state (see Decode)

    // [any-thread] Reads this processor and fills the record; logs the vendor line.
    void Probe();
    // [any-thread] Fills the record from given register values; logs the vendor line.
    void Decode(const CpuidSnapshot& raw);
};

// Instruction-set levels of InstructionSetSettings::level.
enum InstructionSetLevel : std::int32_t {
    kIsaNone = 0,
    kIsaSSE = 1,
    kIsaSSE2 = 2,
    kIsaSSE3 = 3,
    kIsaSSSE3 = 4,
    kIsaSSE41 = 5,
    kIsaSSE42 = 6,
    kIsaAVX = 7,
    kIsaAVX2 = 8,
};

// The override block: what the queries answer while the probe is not used.
struct InstructionSetSettings {
    std::int32_t level = kIsaNone;
    bool fma = false;
    bool extra = false;
    std::int32_t cacheLineBytes = 64;
    std::int32_t l1DataBytes = 32768;
    std::int32_t l1CodeBytes = 32768;
    std::int32_t logicalProcessors = 4;
    std::int32_t physicalCores = 2;

    bool operator==(const InstructionSetSettings&) const = default;
};

struct CpuFeatures {
    std::uint8_t useProbe = 0;
    CpuInfoX86 info;
    InstructionSetSettings settings;

    // [any-thread] The singleton, probed on first use. Writing its fields is
    // for tests and host start-up only: nothing here is synchronised.
    static CpuFeatures& Instance();

private:
    CpuFeatures();
};

// Feature queries. [any-thread]
bool HasSSE();
bool HasSSE2();
bool HasSSE3();
bool HasSSSE3(); // answers from the SSE4.1 bit: no processor we target has one without the other
bool HasSSE41();
bool HasSSE42();
bool HasAVX();
bool HasAVX2(); // the leaf-7 bit alone, whatever the OS enabled
bool HasFMA();
bool HasExtra();

// [any-thread] Processor counts; with the override active, its last two values.
std::uint32_t GetPhysicalCoreCount();
std::uint32_t GetLogicalProcessorCount();

// [not while processing] Switches between the probe and the override block.
// A change resets the override block to its defaults. Returns the previous value.
bool SetUseProbe(bool useProbe);

// [any-thread] What the queries answer now, as an override block.
InstructionSetSettings GetFeatureSet();

} // namespace twa
