#include "System/twa_dispatch.h"

#include "System/twa_cpuinfo_x86.h"

#include <atomic>

namespace twa {

namespace {
std::atomic<bool> g_forceWide{false};
}

bool MachineRuns(IsaNeed need)
{
    __builtin_cpu_init();
    switch (need) {
    case IsaNeed::None:
        return true;
    case IsaNeed::SSE2:
        return __builtin_cpu_supports("sse2");
    case IsaNeed::SSE41:
        return __builtin_cpu_supports("sse4.1") && __builtin_cpu_supports("ssse3");
    case IsaNeed::AVX:
        return __builtin_cpu_supports("avx");
    case IsaNeed::FMA:
        return __builtin_cpu_supports("avx") && __builtin_cpu_supports("fma");
    case IsaNeed::AVX2:
        return __builtin_cpu_supports("avx2");
    case IsaNeed::AVX512:
        // libgcc answers these only when the OS saves the 512-bit state.
        return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
               __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl");
    }
    return false;
}

bool WideKernelsChosen()
{
    const CpuFeatures& f = CpuFeatures::Instance();
    if (!MachineRuns(IsaNeed::AVX512))
        return false;
    if (f.useProbe)
        return true;
    return g_forceWide.load(std::memory_order_relaxed) && f.settings.level >= kIsaAVX2 && f.settings.fma;
}

bool ForceWideKernels(bool on)
{
    return g_forceWide.exchange(on, std::memory_order_relaxed);
}

} // namespace twa
