#pragma once
// Base of every reusable DSP block a plugin owns (filters, dynamics,
// oscillators, delays). Blocks process in place, one channel or all channels.
//
// Lifecycle: construct (entries from the subclass's table) -> initialise
// (rate, channels; every default re-applied) -> setParameter / process /
// readOut -> reset -> destroy. initialise and reset are [not while processing].

#include <QObject>

#include <cstdint>
#include <vector>

#include "QVDParameter.h"

class QVDAudioAlgorithm : public QObject {
    Q_OBJECT
public:
    explicit QVDAudioAlgorithm(const std::vector<QVDParameterDefinition>& table = {});
    ~QVDAudioAlgorithm() override;

    // [not while processing] Stores the channel count and the rate truncated
    // toward zero, then sets every parameter to its default in index order.
    // Subclasses extend it to size their state.
    virtual bool initialise(float sampleRate, std::int32_t channelCount);
    // Hook every block defines; the classic blocks do nothing here.
    virtual void update() = 0;
    // [not while processing] Store only; no other action.
    virtual bool setSampleRate(std::int32_t sampleRate);
    virtual bool setChannelCount(std::int32_t channelCount);
    // [not while processing] A pointer the owning plugin hands in; not owned.
    virtual void setContext(void* context);
    // [audio-thread] Processes one channel in place. The base refuses
    // (assertion "0", false): blocks that can run a channel alone override it.
    virtual bool processChannel(std::uint32_t channel, float* samples, std::uint32_t frames) noexcept;
    // [audio-thread] Processes all channels in place; the base refuses likewise.
    virtual bool processChannels(float* const* channels, std::uint32_t frames) noexcept;
    // [control-thread] Exchanges the value in; false for an index out of range.
    virtual bool setParameter(std::uint32_t index, float value);
    // [any-thread] Current value; 0.0 for an index out of range.
    virtual float getParameter(std::uint32_t index) const;
    // [not while processing] Clears running state; parameters stay.
    virtual void reset() = 0;
    // [any-thread] Meter or status value by index; 0.0 unless a block defines it.
    virtual float readOut(std::uint32_t index) const;

    std::int32_t sampleRate() const { return m_sampleRate; }
    std::int32_t channelCount() const { return m_channelCount; }
    void* context() const { return m_context; }
    std::uint32_t parameterCount() const { return static_cast<std::uint32_t>(m_parameters.size()); }
    const QVDParameterList& parameters() const { return m_parameters; }

protected:
    QVDParameterList m_parameters;
    std::int32_t m_sampleRate = 0;
    std::int32_t m_channelCount = 0;
    void* m_context = nullptr;
};
