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
//
// What a host offering audio must do, at version 1:
// - answer fetchAudio on the audio thread without locking, allocating, file
//   access or waiting: decode ahead (qvdfx decodes each source whole before
//   processing) or read from a ring a worker fills;
// - align: `position` is the timeline frame of the plugin's block; the host
//   delays the source by the latency of everything that runs before the
//   plugin, so source and main signal meet as the plugin hears them;
// - fill every one of `channelCount` buffers, all `frames` frames: silence
//   before the source starts and after it ends; with fewer source channels
//   than asked the last repeats (a mono key serves a stereo plugin);
// - say false for a source it does not have, or at an unknown position (-1):
//   the plugin then treats the source as silence and reports that it has no
//   key, without any other change of behaviour.
// A plugin's registry flags are passed on unchanged and do not mark the
// plugins that take a side-chain: a host offers its sources to every
// instance and serves those that ask. A host that must know beforehand (to
// lay out ports, as the LV2 generator does) runs one silent block of a
// fresh instance under extensions that note what is asked and supply nothing.

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
