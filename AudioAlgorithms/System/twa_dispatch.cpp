#include "System/twa_dispatch.h"

namespace twa {

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
    }
    return false;
}

} // namespace twa
