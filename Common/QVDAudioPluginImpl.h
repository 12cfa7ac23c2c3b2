#pragma once
// Common base of every audio plugin: the host-facing instance and audio
// interfaces, channel configuration, parameter entries, latency-compensated
// bypass, reset after a discontinuity with silent pre-roll, and meters.
//
// Effects derive from QVDEffect<Self> (QVDEffect.h), which runs the standard
// block flow around the plugin's render(). The older pattern, a plugin with
// its own processBlock() that starts with prepareBlock() and ends with
// completeBlock(), still works for plugins that need the whole block.
// Editor panels live in the UI library and are found by class name
// (QVDPanelRegistry.h); the DSP side never includes a widget header.

#include <QByteArray>
#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <qvd/AudioPlugin.h>
#include <qvd/HostExtensions.h>
#include <qvd/HostServices.h>
#include <qvd/PluginInstance.h>

#include "QVDAudioAlgorithm.h"
#include "QVDControlValueHost.h"
#include "QVDParameter.h"
#include "QVDPluginDescriptor.h"
#include "QVDPluginDragDropHandler.h"
#include "QVDPluginPixmapHandler.h"
#include "TDynamicBuffer.h"

// One block as the standard flow hands it to render().
struct QVDBlock {
    const qvd::BlockRecord* record; // the host's record; may be null
    const float* const* inputs;     // the active inputs
    float* const* outputs;          // the active outputs; they hold the inputs already when the flow copies
    std::int32_t inputCount;
    std::int32_t outputCount;
    std::int32_t channels; // min(inputCount, outputCount): the channels that pair up
    std::int32_t frames;
    // With meters measured by render: input and output peaks (linear) of
    // channels [0, channels), 0 on entry.
    float* inputPeak;
    float* outputPeak;
};

enum class QVDMeters : std::uint8_t {
    Standard,   // the flow measures every input before render and every output after it
    FromRender, // render fills the block's peaks (it measures on the way anyway)
    None,
};

struct QVDEffectOptions {
    // The flow copies each input to its output (measuring it on the way) and
    // render works on the outputs in place.
    bool copyInput = false;
    QVDMeters meters = QVDMeters::Standard;
};

// Running state a plugin owns outside its algorithm blocks; cleared on reset.
class QVDResettable {
public:
    virtual ~QVDResettable() = default;
    virtual void clear() noexcept = 0;
};

class QVDAudioPluginImpl : public QObject,
                           public qvd::PluginInstance,
                           public AudioPlugin,
                           public QVDControlValueHost,
                           public QVDPluginPixmapHandler,
                           public QVDPluginDragDropHandler {
    Q_OBJECT
public:
    QVDAudioPluginImpl(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services,
                       const std::vector<QVDParameterDefinition>& parameterTable);
    ~QVDAudioPluginImpl() override;

    // qvd::PluginInstance
    AudioPlugin* getAudioInterface() override;
    qvd::ControlPlugin* getControlInterface() override;
    void destroy() override;
    bool hasEditor() const override;
    bool isGenerator() const override;
    std::uint64_t instanceId() const override;
    bool setParameter(std::int32_t index, float value) final;
    float getParameter(std::int32_t index) const final;
    std::uint64_t getLatency() const final;
    std::int32_t getMeterValues(std::int32_t group, double* values, std::int32_t capacity) const final;
    bool setParameterValue(std::int32_t index, double value) final;
    std::int32_t parameterCount() const final;
    bool parameterInfo(std::int32_t index, qvd::ParameterInfo* info) const final;
    std::int32_t meterGroupCount() const final;
    const char* meterGroupName(std::int32_t group) const final;
    const char* pluginKey() const final;
    void* createEditor(void* parentWidget) final;
    std::int32_t responseCurve(const double* frequencies, double* decibels, std::int32_t count) const final;
    std::int32_t readoutCount() const final;
    bool readoutInfo(std::int32_t index, qvd::ReadoutInfo* info) const final;
    std::int32_t readReadout(std::int32_t index, double* values, std::int32_t capacity) const final;
    std::int32_t parameterText(std::int32_t index, float value, char* text, std::int32_t capacity) const final;

    // MacroFXPlugin
    std::int32_t parameterIndex(const char* identifier) const final;
    bool setParameterByIdentifier(const char* identifier, float value) final;

    // AudioPlugin
    bool prepare(float sampleRate, std::int32_t maxBlockSize, const qvd::PrepareConfig* config) final;
    bool process(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                 std::int32_t frames) final;
    bool setChannelFormats(std::int32_t inputFormat, std::int32_t outputFormat) final;
    bool needsReset(std::int64_t sequence) final;
    void requestReset() final;
    void setBypass(bool bypass) final;
    bool isBypassed() const final;
    std::uint64_t latency() const final;
    std::int32_t inputChannelCount() const final;
    std::int32_t outputChannelCount() const final;
    std::int32_t sampleRate() const final;
    std::int32_t blockSize() const final;

    // QVDControlValueHost
    void controlValueChanged(const QString& identifier, float value) override;
    float controlValue(const QString& identifier) const override;

    // The plugin's own operations.
    // [control-thread] Index already checked and writers serialised by the
    // caller: exchanges the value and calls parameterChanged().
    virtual bool applyParameter(std::uint32_t index, float value);
    // [control-thread] Fills `decibels` with the response at `frequencies`
    // (count > 0, both non-null); false when the plugin has none.
    virtual bool magnitudeResponse(const double* frequencies, double* decibels, std::int32_t count) const;

    // The registry's copy of the descriptor this instance was created from.
    const QVDPluginDescriptor* pluginDescriptor() const { return m_descriptor; }
    void* hostContext() const { return m_hostContext; }
    qvd::HostServices* hostServices() const { return m_hostServices; }
    // The host's extensions captured at creation; null when it offers none.
    qvd::HostExtensions* hostExtensions() const { return m_hostExtensions; }
    // Values asked of the host services at creation (1.0 and 0 without a host).
    double editorScale() const { return m_editorScale; }
    std::int32_t debugLogLevel() const { return m_debugLogLevel; }
    const QVDParameterList& parameters() const { return m_parameters; }
    // Display name of a channel: "In 1", "Out 2".
    static QString channelName(bool input, int index);
    int maxInputs() const { return m_descriptor ? m_descriptor->maxInputs : 0; }
    int maxOutputs() const { return m_descriptor ? m_descriptor->maxOutputs : 0; }

    // [audio-thread] Current level of a meter, linear; 0 when out of range.
    float meterLevel(std::int32_t group, std::int32_t index) const;

protected:
    // [audio-thread] The plugin's process body.
    virtual void processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                              std::int32_t frames) noexcept = 0;
    // [not while processing] Sizes the plugin's state for the rate and block
    // size (already stored) and initialises its algorithm blocks. False refuses.
    virtual bool prepareProcessing() { return true; }
    // [not while processing] The host changed the active channel counts
    // (outside prepare, which sizes everything itself). False refuses the
    // change and the previous counts stay: allocate first, then swap.
    virtual bool channelCountsChanged() { return true; }
    // [audio-thread] Extra running state to clear on reset, beyond the lists.
    virtual void resetState() noexcept {}

    // [audio-thread] Block preparation: resolves a frame count of 0, runs the
    // reset when one is due and pre-rolls the latency in silence. Returns the
    // frame count to use.
    std::int32_t prepareBlock(const float* const* inputs, std::int64_t sequence, std::int32_t frames) noexcept;
    // Block-sequence value of a host record; a null record counts as 0.
    static std::int64_t sequenceOf(const qvd::BlockRecord* block) { return block ? block->sequence : 0; }
    // [audio-thread] Block completion: when bypassed, output = input delayed by the latency.
    void completeBlock(const float* const* inputs, float* const* outputs, std::int32_t frames,
                       std::int32_t flag) noexcept;

    // [not while processing] Latency in frames; resizes the bypass delay lines.
    bool setLatency(std::uint64_t frames);

    // ---- The effect flow. Its hooks come after the base's older virtual
    // operations, so existing slots keep their order.
public:
    // [control-thread] Called once by the factory when the object is whole.
    // The default hands every parameter's value to parameterChanged().
    virtual void pluginCreated();
    // [control-thread] The value as a user reads it ("-6.0 dB", "Bell").
    virtual QString valueText(std::int32_t index, float value) const;

protected:
    // [control-thread] The value at `index` was exchanged in; derive what
    // depends on it. Writers are serialised, the audio thread is not held.
    virtual void parameterChanged(std::uint32_t index, float value);
    // [audio-thread] One block that is not bypassed.
    virtual void render(const QVDBlock& block) noexcept;
    // [audio-thread] False runs the block as bypassed: a plugin's own in/out switch.
    virtual bool engaged() const noexcept { return true; }
    // [audio-thread] The first rendered block after bypassed ones.
    virtual void resumeAfterBypass() noexcept {}

    // [construction] Chooses the flow's options and adds the standard
    // "Input" and "Output" meter groups unless meters are None.
    void setEffectOptions(const QVDEffectOptions& options);
    // [audio-thread] The standard flow: block preparation, one read of the
    // bypass state, bypass copy with latency or render with meters, spare
    // outputs silenced.
    void runEffectBlock(const qvd::BlockRecord* record, const float* const* inputs, float* const* outputs,
                        std::int32_t frames) noexcept;
    // [audio-thread] The host's tempo at the block's position; false (and
    // nothing written) when the host offers none.
    bool hostTempo(const qvd::BlockRecord* record, double& beatsPerMinute, std::int32_t& numerator,
                   std::int32_t& denominator) const noexcept;
    // [audio-thread] The named source's frames for this block into `channels`;
    // false, with the buffers zeroed, when the host cannot supply it.
    bool fetchHostAudio(const char* source, const qvd::BlockRecord* record, float* const* channels,
                        std::int32_t channelCount, std::int32_t frames) const noexcept;
    // [construction] A named readout of `size` values (an array when more
    // than one); returns its index.
    std::int32_t addReadout(const QString& name, const QString& unit, std::int32_t size = 1);
    // [audio-thread] Publishes a whole readout at once: readers see either
    // the previous values or these, never a mix. No lock, no allocation.
    void publishReadout(std::int32_t index, const float* values, std::int32_t count) noexcept;
    void publishReadout(std::int32_t index, float value) noexcept { publishReadout(index, &value, 1); }
    // [control-thread] Corrects a stored value without calling parameterChanged().
    void storeParameterValue(std::uint32_t index, float value) { m_parameters[index].exchange(value); }

    // Reset lists, filled at construction.
    QVDAudioAlgorithm* addAlgorithm(std::unique_ptr<QVDAudioAlgorithm> block);
    void addAlgorithmRef(QVDAudioAlgorithm* block); // owned elsewhere (a member)
    QVDResettable* addAuxiliary(std::unique_ptr<QVDResettable> object);
    void addResettableRef(QVDResettable* object);

    // Meters: add groups at construction; publish on the audio thread.
    std::int32_t addMeterGroup(const QString& name, std::int32_t capacity);
    void setMeterGroupSize(std::int32_t group, std::int32_t size);
    void setMeterLevel(std::int32_t group, std::int32_t index, float level) noexcept
    {
        m_meters[static_cast<std::size_t>(group)]->levels[static_cast<std::size_t>(index)].store(
            level, std::memory_order_relaxed);
    }

    // [control-thread] Writes a line to the host's debug log when its level allows.
    void debugLog(std::int32_t level, const QString& line) const;

    // Active channel counts as the audio thread reads them.
    std::int32_t activeInputs() const { return m_inputCount; }
    // [any-thread] Format codes last given to setChannelFormats() or prepare()
    // (qvd::ChannelFormat); the counts alone cannot say which channel is which.
    std::int32_t inputFormat() const { return m_inputFormat.load(std::memory_order_relaxed); }
    std::int32_t outputFormat() const { return m_outputFormat.load(std::memory_order_relaxed); }
    std::int32_t activeOutputs() const { return m_outputCount; }
    bool bypassed() const { return m_bypass.load(std::memory_order_relaxed); }

    QVDParameterList m_parameters;

private:
    friend struct QVDAudioPluginTestAccess;

    struct MeterGroup {
        QByteArray name;
        std::int32_t capacity = 0;
        std::atomic<std::int32_t> size{0};
        std::unique_ptr<std::atomic<float>[]> levels;
    };

    struct Readout {
        QByteArray name, unit;
        std::int32_t size = 1;
        // Odd while the audio thread writes.
        std::atomic<std::uint32_t> sequence{0};
        std::unique_ptr<std::atomic<float>[]> values;
    };

    void resetAll() noexcept;
    void preRoll() noexcept;
    void silenceOutputs(float* const* outputs, std::int32_t frames) const noexcept;
    void bypassCopy(const float* const* inputs, float* const* outputs, std::int32_t frames) noexcept;
    bool applyChannelCounts(std::int32_t inputs, std::int32_t outputs, bool notify);
    void sizeStandardMeters();

    const QVDPluginDescriptor* m_descriptor;
    void* m_hostContext;
    qvd::HostServices* m_hostServices;
    qvd::HostExtensions* m_hostExtensions;
    double m_editorScale = 1.0;
    std::int32_t m_debugLogLevel = 0;
    std::uint64_t m_instanceId;
    QByteArray m_key;

    std::atomic<std::int32_t> m_sampleRate{0};
    std::atomic<std::int32_t> m_blockSize{0};
    std::int32_t m_inputCount = 0;
    std::atomic<std::int32_t> m_inputFormat{qvd::kFormatNone};
    std::atomic<std::int32_t> m_outputFormat{qvd::kFormatNone};
    std::int32_t m_outputCount = 0;
    std::atomic<std::uint64_t> m_latency{0};
    std::atomic<bool> m_bypass{false};
    std::atomic<bool> m_resetPending{true};
    std::int64_t m_lastSequence;
    bool m_prepared = false;
    bool m_inPreRoll = false;

    std::vector<std::unique_ptr<QVDAudioAlgorithm>> m_algorithms;
    std::vector<QVDAudioAlgorithm*> m_algorithmRefs;
    std::vector<std::unique_ptr<QVDResettable>> m_auxiliary;
    std::vector<QVDResettable*> m_resettableRefs;

    // One ring of `latency` frames per channel, for bypass.
    std::vector<float> m_bypassLines;
    std::size_t m_bypassPos = 0;

    std::vector<std::unique_ptr<MeterGroup>> m_meters;
    std::vector<std::unique_ptr<Readout>> m_readouts;

    // The writers of parameter values, one at a time.
    std::mutex m_writerMutex;

    QVDEffectOptions m_effect;
    bool m_standardMeters = false;
    bool m_renderedLast = true;
    std::vector<float> m_inputPeaks;
    std::vector<float> m_outputPeaks;

    TDynamicBuffer m_silentInput;
    // Pre-roll output: a region per channel, so no channel reads another's output.
    TDynamicBuffer m_discardOutput;
    std::int32_t m_preRollChunk = 0;
    std::vector<const float*> m_preRollInputs;
    std::vector<float*> m_preRollOutputs;
    std::vector<const float*> m_chunkInputs;
    std::vector<float*> m_chunkOutputs;
};
