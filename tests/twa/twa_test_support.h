#pragma once
// Helpers shared by the twa tests: catching contract failures, forcing the
// dispatch state, and guarded buffers for kernel comparisons.

#include "System/twa_assert.h"
#include "System/twa_cpuinfo_x86.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace twa::test {

// Records failed checks while alive instead of printing them.
class AssertCatcher {
public:
    AssertCatcher() : m_previous(debug::setAssertHandler(&record)), m_start(debug::assertFailureCount())
    {
        lastCondition()[0] = '\0';
    }
    ~AssertCatcher() { debug::setAssertHandler(m_previous); }
    AssertCatcher(const AssertCatcher&) = delete;
    AssertCatcher& operator=(const AssertCatcher&) = delete;

    std::uint64_t count() const { return debug::assertFailureCount() - m_start; }
    static std::string last() { return lastCondition(); }

private:
    static char* lastCondition()
    {
        static char text[256];
        return text;
    }
    static void record(const char* condition, const char*, int)
    {
        std::strncpy(lastCondition(), condition, 255);
        lastCondition()[255] = '\0';
    }
    debug::AssertHandler m_previous;
    std::uint64_t m_start;
};

#define TWA_SKIP_WITHOUT_ASSERTS()                                                         \
    do {                                                                                   \
        if (!::twa::debug::kAssertsEnabled)                                                \
            GTEST_SKIP() << "contract checks are compiled out";                           \
    } while (false)

// Restores the process-wide dispatch state on scope exit.
class ScopedCpuFeatures {
public:
    ScopedCpuFeatures()
        : m_useProbe(CpuFeatures::Instance().useProbe), m_info(CpuFeatures::Instance().info),
          m_settings(CpuFeatures::Instance().settings)
    {
    }
    ~ScopedCpuFeatures()
    {
        CpuFeatures& f = CpuFeatures::Instance();
        f.useProbe = m_useProbe;
        f.info = m_info;
        f.settings = m_settings;
    }
    ScopedCpuFeatures(const ScopedCpuFeatures&) = delete;
    ScopedCpuFeatures& operator=(const ScopedCpuFeatures&) = delete;

    // Answers from the override block with the given level and fma flag.
    static void Force(std::int32_t level, bool fma)
    {
        SetUseProbe(false);
        CpuFeatures::Instance().settings.level = level;
        CpuFeatures::Instance().settings.fma = fma;
    }

private:
    std::uint8_t m_useProbe;
    CpuInfoX86 m_info;
    InstructionSetSettings m_settings;
};

} // namespace twa::test
