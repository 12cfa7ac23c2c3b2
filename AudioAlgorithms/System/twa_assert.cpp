#include "twa_assert.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace twa::debug {
namespace {
std::atomic<AssertHandler> g_handler{&defaultAssertHandler};
std::atomic<std::uint64_t> g_failures{0};

void writeAll(const char* text, std::size_t length)
{
    while (length > 0) {
        const ssize_t n = ::write(2, text, length);
        if (n <= 0)
            return;
        text += n;
        length -= static_cast<std::size_t>(n);
    }
}
} // namespace

void defaultAssertHandler(const char* condition, const char* file, int line)
{
    // Formatted into a stack buffer so the report is one write and needs no heap.
    char buffer[512];
    const int n = std::snprintf(buffer, sizeof buffer, "ASSERT: \"%s\" in file %s, line %d\n",
                                condition ? condition : "", file ? file : "", line);
    if (n > 0)
        writeAll(buffer, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof buffer - 1));
}

AssertHandler setAssertHandler(AssertHandler handler)
{
    return g_handler.exchange(handler ? handler : &defaultAssertHandler);
}

std::uint64_t assertFailureCount()
{
    return g_failures.load(std::memory_order_relaxed);
}

void assertFailed(const char* condition, const char* file, int line)
{
    g_failures.fetch_add(1, std::memory_order_relaxed);
    g_handler.load(std::memory_order_acquire)(condition, file, line);
}

void report(const char* message)
{
    if (message)
        writeAll(message, std::strlen(message));
}

} // namespace twa::debug
