#pragma once
// Catches the numeric library's contract reports while alive, so a test can
// count them and read the last failed condition instead of seeing stderr.

#include "System/twa_assert.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace qvd::test {

class AssertCatcher {
public:
    AssertCatcher() : m_previous(twa::debug::setAssertHandler(&record)), m_start(twa::debug::assertFailureCount())
    {
        lastCondition()[0] = '\0';
    }
    ~AssertCatcher() { twa::debug::setAssertHandler(m_previous); }
    AssertCatcher(const AssertCatcher&) = delete;
    AssertCatcher& operator=(const AssertCatcher&) = delete;

    std::uint64_t count() const { return twa::debug::assertFailureCount() - m_start; }
    static std::string last() { return lastCondition(); }

private:
    // The handler may run on the audio thread: no allocation there.
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
    twa::debug::AssertHandler m_previous;
    std::uint64_t m_start;
};

} // namespace qvd::test

#define QVD_SKIP_WITHOUT_ASSERTS()                                                        \
    do {                                                                                  \
        if (!::twa::debug::kAssertsEnabled)                                               \
            GTEST_SKIP() << "contract checks are compiled out";                           \
    } while (false)
