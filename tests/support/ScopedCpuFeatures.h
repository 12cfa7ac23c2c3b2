#pragma once
// Forces the instruction-set answers every kernel factory consults, and puts
// the process-wide state back when the scope ends.

#include "System/twa_cpuinfo_x86.h"

#include <cstdint>

namespace qvd::test {

class ScopedCpuFeatures {
public:
    ScopedCpuFeatures() : m_saved(twa::CpuFeatures::Instance()) {}
    ~ScopedCpuFeatures()
    {
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

private:
    twa::CpuFeatures m_saved;
};

} // namespace qvd::test
