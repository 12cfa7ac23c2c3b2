#pragma once
// Diagnostic log of the numeric library. The default sink writes to stderr in
// builds with contract checks and drops everything otherwise.

namespace twa::debug {

// Receives one formatted line without a trailing newline.
// [any-thread] must not allocate or lock.
using LogSink = void (*)(const char* line);

// [control-thread] Replace the sink (nullptr restores the default); returns the previous one.
LogSink setLogSink(LogSink sink);

// [any-thread] printf-style; lines longer than 255 characters are cut.
void log(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace twa::debug
