#pragma once
// Loads libQVDAudioPlugins.so the way any host does: dlopen, the one entry,
// the interface version check. Uses nothing but the public headers.

#include <string>

#include <qvd/qvd.h>

#include "SourceFeed.h"

namespace qvdfx {

class PluginLibrary {
public:
    // Loads `path`; on failure error() says why and registry() is null.
    explicit PluginLibrary(const std::string& path);
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    qvd::PluginInterface* registry() const { return m_registry; }
    const std::string& error() const { return m_error; }
    const std::string& path() const { return m_path; }

    // The library next to the running executable.
    static std::string defaultPath();

private:
    void* m_handle = nullptr;
    qvd::PluginInterface* m_registry = nullptr;
    std::string m_error;
    std::string m_path;
};

// The host services qvdfx hands the registry. Its third operation answers an
// editor scale of 1.0 (panels are rendered at their design size); its fourth
// answers the debug log level from QVDFX_LOG_LEVEL (0 when unset), and log
// lines go to stderr.
class HostServices final : public qvd::HostServices {
public:
    const char* hostName() const override { return "qvdfx"; }
    std::int32_t hostVersion() const override { return 100; }
    double editorScale() const override { return 1.0; }
    std::int32_t debugLogLevel() const override;
    void debugLog(std::int32_t level, const char* line) override;
};

// What qvdfx offers plugins beyond the host services: a fixed tempo and time
// signature for the whole file (--tempo), so synced delays and LFOs follow
// it, and the sources of --sidechain and --source (see SourceFeed).
class HostExtensions final : public qvd::HostExtensions {
public:
    void setTempo(double beatsPerMinute, std::int32_t numerator, std::int32_t denominator)
    {
        m_bpm = beatsPerMinute;
        m_numerator = numerator;
        m_denominator = denominator;
    }
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double* bpm, std::int32_t* numerator, std::int32_t* denominator) override
    {
        if (!(m_bpm > 0.0))
            return false;
        *bpm = m_bpm;
        *numerator = m_numerator;
        *denominator = m_denominator;
        return true;
    }
    void setSources(const SourceFeed* sources) { m_sources = sources; }
    bool fetchAudio(std::uint64_t instanceId, const char* source, std::int64_t position, float* const* channels,
                    std::int32_t channelCount, std::int32_t frames) override
    {
        return m_sources && m_sources->fetch(instanceId, source, position, channels, channelCount, frames);
    }

private:
    double m_bpm = 0.0;
    std::int32_t m_numerator = 4;
    std::int32_t m_denominator = 4;
    const SourceFeed* m_sources = nullptr;
};

} // namespace qvdfx
