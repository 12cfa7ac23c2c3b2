#pragma once
// Catches contract reports while alive, so a test can count them and read
// their conditions and source paths instead of seeing stderr.

#include "System/twa_assert.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace qvd::test {

class AssertCatcher {
public:
    AssertCatcher() : m_previous(twa::debug::setAssertHandler(&record)) { reset(); }
    ~AssertCatcher() { twa::debug::setAssertHandler(m_previous); }
    AssertCatcher(const AssertCatcher&) = delete;
    AssertCatcher& operator=(const AssertCatcher&) = delete;

    // Forgets what was caught so far.
    void reset()
    {
        m_start = twa::debug::assertFailureCount();
        kept() = 0;
    }
    std::uint64_t count() const { return twa::debug::assertFailureCount() - m_start; }
    // The k-th report since the last reset (the first kMax are kept).
    static std::string condition(int k) { return k < kept() ? reports()[k].condition : std::string(); }
    static std::string file(int k) { return k < kept() ? reports()[k].file : std::string(); }
    static std::string last() { return kept() > 0 ? reports()[kept() - 1].condition : std::string(); }

private:
    static constexpr int kMax = 8;
    struct Report {
        char condition[128];
        char file[128];
    };
    // The handler may run on the audio thread: fixed storage, no allocation.
    static Report* reports()
    {
        static Report r[kMax];
        return r;
    }
    static int& kept()
    {
        static int n = 0;
        return n;
    }
    static void record(const char* condition, const char* file, int)
    {
        if (kept() >= kMax)
            return;
        Report& r = reports()[kept()++];
        std::strncpy(r.condition, condition ? condition : "", sizeof r.condition - 1);
        r.condition[sizeof r.condition - 1] = '\0';
        std::strncpy(r.file, file ? file : "", sizeof r.file - 1);
        r.file[sizeof r.file - 1] = '\0';
    }
    twa::debug::AssertHandler m_previous;
    std::uint64_t m_start = 0;
};

} // namespace qvd::test

#define QVD_SKIP_WITHOUT_ASSERTS()                                                        \
    do {                                                                                  \
        if (!::twa::debug::kAssertsEnabled)                                               \
            GTEST_SKIP() << "contract checks are compiled out";                           \
    } while (false)
