#pragma once
// Optional services a host offers plugins beyond HostServices: the tempo at a
// block's position and audio the host supplies (a side-chain, the monitor
// feed, a separated stem). A host that offers them implements this interface
// and hands it to PluginInterface::setHostExtensions before creating
// instances; a host that never calls it keeps working unchanged, and plugins
// then behave as if nothing were available (no tempo, silent sources).
//
// Versioning: operations are only appended; extensionsVersion() tells the
// library how many a host implements (1: everything below).

#include <cstdint>

namespace qvd {

constexpr std::int32_t kHostExtensionsVersion = 1;

// Names of the sources a plugin may ask for.
constexpr const char* kSourceSideChain = "sidechain"; // this instance's side-chain
constexpr const char* kSourceMonitor = "monitor";     // the monitor feed
// A separated stem is "stem:<name>" ("stem:vocals").

class HostExtensions {
public:
    // [any-thread] The version this host implements, 1 or more.
    virtual std::int32_t extensionsVersion() const = 0;

    // [audio-thread] Tempo in beats per minute and the time signature at
    // timeline frame `position`. False, leaving the outputs alone, when the
    // host has no tempo there. Real-time safe: no lock, no allocation, no wait.
    virtual bool tempoAt(std::int64_t position, double* beatsPerMinute, std::int32_t* numerator,
                         std::int32_t* denominator) = 0;

    // [audio-thread] Fills `channelCount` buffers (owned by the plugin) with
    // `frames` frames of the named source for instance `instanceId`, starting
    // at timeline frame `position`, aligned with the block the plugin is
    // processing (the host compensates latency). False when the source is not
    // available: the buffers are then left alone and the plugin treats the
    // source as silence. Real-time safe on both sides.
    virtual bool fetchAudio(std::uint64_t instanceId, const char* source, std::int64_t position,
                            float* const* channels, std::int32_t channelCount, std::int32_t frames) = 0;

protected:
    ~HostExtensions() = default;
};

} // namespace qvd
