#pragma once
// Forces the instruction-set answers every kernel factory consults, and puts
// the process-wide state back when the scope ends.

#include "System/twa_cpuinfo_x86.h"
#include "System/twa_dispatch.h"

#include <cstdint>

namespace qvd::test {

class ScopedCpuFeatures {
public:
    ScopedCpuFeatures() : m_saved(twa::CpuFeatures::Instance()), m_wide(twa::ForceWideKernels(false))
    {
        twa::ForceWideKernels(m_wide);
    }
    ~ScopedCpuFeatures()
    {
        twa::ForceWideKernels(m_wide);
        twa::CpuFeatures& f = twa::CpuFeatures::Instance();
        f.useProbe = m_saved.useProbe;
        f.info = m_saved.info;
        f.settings = m_saved.settings;
    }
    ScopedCpuFeatures(const ScopedCpuFeatures&) = delete;
    ScopedCpuFeatures& operator=(const ScopedCpuFeatures&) = delete;

    // Answers from the override block with the given level and fma flag.
    static void Force(std::int32_t level, bool fma)
    {
        twa::SetUseProbe(false);
        twa::CpuFeatures::Instance().settings.level = level;
        twa::CpuFeatures::Instance().settings.fma = fma;
    }
    // The same, with 512-bit plugin kernels allowed or not (AVX2 and FMA).
    static void ForceWide(bool on)
    {
        Force(twa::kIsaAVX2, true);
        twa::ForceWideKernels(on);
    }

private:
    twa::CpuFeatures m_saved;
    bool m_wide;
};

} // namespace qvd::test
