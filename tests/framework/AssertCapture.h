#pragma once
// Captures contract-check reports for the lifetime of the object.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <System/twa_assert.h>

class AssertCapture {
public:
    struct Report {
        std::string condition;
        std::string file;
    };
    AssertCapture() { m_previous = twa::debug::setAssertHandler(&AssertCapture::handler); }
    ~AssertCapture() { twa::debug::setAssertHandler(m_previous); }
    static std::vector<Report>& reports()
    {
        static std::vector<Report> r;
        return r;
    }

private:
    static void handler(const char* condition, const char* file, int)
    {
        reports().push_back({condition, file});
    }
    twa::debug::AssertHandler m_previous;
};

#define QVD_SKIP_WITHOUT_ASSERTS()                                                                 \
    if (!twa::debug::kAssertsEnabled)                                                              \
    GTEST_SKIP() << "contract checks are compiled out of this build"
