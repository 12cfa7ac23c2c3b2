#include "System/twa_log.h"

#include "System/twa_assert.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace twa::debug {
namespace {
void defaultSink(const char* line)
{
    if constexpr (kAssertsEnabled) {
        report(line);
        report("\n");
    }
}

std::atomic<LogSink> g_sink{&defaultSink};
} // namespace

LogSink setLogSink(LogSink sink)
{
    return g_sink.exchange(sink ? sink : &defaultSink);
}

void log(const char* format, ...)
{
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    g_sink.load(std::memory_order_acquire)(line);
}

} // namespace twa::debug
