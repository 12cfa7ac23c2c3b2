#pragma once
// The audio interface of a plugin instance (PluginInstance::getAudioInterface).
//
// Thread tags: [audio-thread] the host's processing thread; [control-thread]
// the thread that sets parameters; [not while processing] never concurrently
// with process().

#include <cstdint>

#include "PluginTypes.h"

// Parameter access by identifier, as macro-effect chains address their members.
class MacroFXPlugin {
public:
    // [any-thread] Index of the parameter with this identifier ("QVDGain::GAIN"),
    // or -1 when there is none (null included).
    virtual std::int32_t parameterIndex(const char* identifier) const = 0;
    // [control-thread] Sets a parameter by identifier; false when unknown.
    virtual bool setParameterByIdentifier(const char* identifier, float value) = 0;

protected:
    ~MacroFXPlugin() = default;
};

class AudioPlugin : public MacroFXPlugin {
public:
    // Largest block size prepare accepts.
    static constexpr std::int32_t kMaxBlockSize = 1 << 18;

    // [not while processing] Prepares for processing at `sampleRate` (truncated
    // to whole hertz) with blocks of at most `maxBlockSize` frames. Resets all
    // running state; the first block after it starts clean. `config` may be null.
    // Returns false, leaving the plugin unprepared, for a rate below 1 Hz or not
    // finite, a block size outside 1 .. kMaxBlockSize, a refused channel format,
    // or an allocation failure.
    virtual bool prepare(float sampleRate, std::int32_t maxBlockSize, const qvd::PrepareConfig* config) = 0;

    // [audio-thread] Processes `frames` frames: inputs[i] for every active input
    // channel, outputs[i] for every active output channel. In place when the same
    // pointers are passed. A frame count of 0 means the prepared block size;
    // larger counts are processed in chunks of the block size. `block` may be
    // null (no discontinuity). Every active output sample is written.
    // Returns false without processing when the plugin is not prepared, a channel
    // array or pointer is null, or `frames` is negative; outputs that can be
    // reached are then filled with silence.
    virtual bool process(const qvd::BlockRecord* block, const float* const* inputs,
                         float* const* outputs, std::int32_t frames) = 0;

    // [not while processing] Sets the active channel counts from format codes
    // (see qvd::ChannelFormat). Refuses, with no change, an unknown code or a
    // count beyond the plugin's maximum for that side.
    virtual bool setChannelFormats(std::int32_t inputFormat, std::int32_t outputFormat) = 0;

    // [audio-thread] False when `sequence` equals the last block-sequence value
    // seen; otherwise whether a reset is pending.
    virtual bool needsReset(std::int64_t sequence) = 0;

    // [control-thread] Arms a reset of all running state at the next block whose
    // sequence value differs from the last one seen (the host calls it on seek).
    virtual void requestReset() = 0;

    // [any-thread] Bypass: output is the input delayed by the plugin's latency.
    // Takes effect at the next block.
    virtual void setBypass(bool bypass) = 0;
    virtual bool isBypassed() const = 0;

    // [any-thread] Processing latency in frames at the prepared rate.
    virtual std::uint64_t latency() const = 0;

    // [any-thread] Active channel counts and prepared settings (0 before prepare).
    virtual std::int32_t inputChannelCount() const = 0;
    virtual std::int32_t outputChannelCount() const = 0;
    virtual std::int32_t sampleRate() const = 0;
    virtual std::int32_t blockSize() const = 0;

protected:
    ~AudioPlugin() = default;
};
