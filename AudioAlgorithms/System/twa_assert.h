#pragma once
// Contract checks shared by every layer. A failed check reports the condition
// text and the source path, then carries on: a host must never be brought down
// by a plugin's contract failure. Checks are compiled in when
// QVD_ASSERTS_ENABLED is set (Debug builds); release builds skip them.

#include <atomic>
#include <cstdint>

namespace twa::debug {

// Called with the failed condition text, the source path and the line.
// [any-thread] must not allocate or lock: it may run on the audio thread.
using AssertHandler = void (*)(const char* condition, const char* file, int line);

// Default handler: writes `ASSERT: "cond" in file F, line N` to stderr with a
// single write(2) call.
void defaultAssertHandler(const char* condition, const char* file, int line);

// [control-thread] Replace the handler (nullptr restores the default); returns the previous one.
AssertHandler setAssertHandler(AssertHandler handler);

// [any-thread] Counts every failed check since start-up.
std::uint64_t assertFailureCount();

// [any-thread] Entry point used by the macro.
void assertFailed(const char* condition, const char* file, int line);

// [any-thread] Writes a plain message to stderr with one write(2) call.
void report(const char* message);

constexpr bool kAssertsEnabled =
#if defined(QVD_ASSERTS_ENABLED)
    true;
#else
    false;
#endif

} // namespace twa::debug

#if defined(QVD_ASSERTS_ENABLED)
#define QVD_ASSERT(cond)                                                                 \
    do {                                                                                 \
        if (!(cond)) [[unlikely]]                                                        \
            ::twa::debug::assertFailed(#cond, __FILE__, __LINE__);                       \
    } while (false)
#else
#define QVD_ASSERT(cond)                                                                 \
    do {                                                                                 \
        if (false) {                                                                     \
            (void)sizeof(cond);                                                          \
        }                                                                                \
    } while (false)
#endif
