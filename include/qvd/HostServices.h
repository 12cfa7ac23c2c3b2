#pragma once
// The object a host hands the registry (PluginInterface::setHostServices) so
// plugins can ask it questions. The host implements it; the library only calls.

#include <cstdint>

namespace qvd {

class HostServices {
public:
    // [any-thread] Host name for diagnostics ("qvdfx").
    virtual const char* hostName() const = 0;
    // [any-thread] Host version, major * 10000 + minor * 100 + patch.
    virtual std::int32_t hostVersion() const = 0;
    // Third operation. [control-thread] Asked once when an instance is created:
    // the scale factor for editor panels (1.0 = 96 dpi). Values <= 0 mean 1.0.
    virtual double editorScale() const = 0;
    // Fourth operation. [control-thread] Asked once when an instance is created:
    // how much the plugin writes to the debug log: 0 nothing, 1 errors,
    // 2 parameter changes, 3 everything.
    virtual std::int32_t debugLogLevel() const = 0;
    // [control-thread] Receives one debug log line (no trailing newline).
    // Never called from the audio thread.
    virtual void debugLog(std::int32_t level, const char* line) = 0;

protected:
    ~HostServices() = default;
};

} // namespace qvd
