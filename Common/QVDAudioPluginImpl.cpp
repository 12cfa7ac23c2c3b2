#include "QVDAudioPluginImpl.h"

#include <QApplication>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include <System/twa_assert.h>

#include "QVDDenormalGuard.h"
#include "QVDPanelRegistry.h"
#include "QVDPeakMeter.h"
#include "QVDPluginInterfaceImpl.h"
#include "SmoothingCoefficient.h"

namespace {
std::atomic<std::uint64_t> g_nextInstanceId{1};

// Before the first block any sequence value counts as new.
constexpr std::int64_t kNoSequence = std::numeric_limits<std::int64_t>::min();
// Pre-roll runs in chunks of at most this many frames, so its per-channel
// discard buffers stay small whatever the block size.
constexpr std::int32_t kPreRollChunk = 512;
} // namespace

QVDAudioPluginImpl::QVDAudioPluginImpl(const QVDPluginDescriptor* descriptor, void* hostContext,
                                       qvd::HostServices* services,
                                       const std::vector<QVDParameterDefinition>& parameterTable)
    : m_parameters(qvdMakeParameterEntries(parameterTable)),
      m_descriptor(descriptor),
      m_hostContext(hostContext),
      m_hostServices(services),
      m_hostExtensions(QVDPluginInterfaceImpl::instance().hostExtensions()),
      m_instanceId(g_nextInstanceId.fetch_add(1, std::memory_order_relaxed)),
      m_lastSequence(kNoSequence)
{
    if (m_descriptor)
        m_key = qvdPluginKey(m_descriptor->name, m_descriptor->fourcc).toUtf8();
    if (m_hostServices) {
        const double scale = m_hostServices->editorScale();
        m_editorScale = scale > 0.0 && std::isfinite(scale) ? scale : 1.0;
        m_debugLogLevel = m_hostServices->debugLogLevel();
    }
    m_inputCount = std::min(2, maxInputs());
    m_outputCount = std::min(2, maxOutputs());
    m_preRollInputs.assign(static_cast<std::size_t>(maxInputs()), nullptr);
    m_preRollOutputs.assign(static_cast<std::size_t>(maxOutputs()), nullptr);
    m_chunkInputs.assign(static_cast<std::size_t>(maxInputs()), nullptr);
    m_chunkOutputs.assign(static_cast<std::size_t>(maxOutputs()), nullptr);
}

QVDAudioPluginImpl::~QVDAudioPluginImpl() = default;

// ---- qvd::PluginInstance ----

AudioPlugin* QVDAudioPluginImpl::getAudioInterface()
{
    return static_cast<AudioPlugin*>(this);
}

qvd::ControlPlugin* QVDAudioPluginImpl::getControlInterface()
{
    return nullptr;
}

void QVDAudioPluginImpl::destroy()
{
    delete this;
}

bool QVDAudioPluginImpl::hasEditor() const
{
    return m_descriptor && qvdPanelFactory(m_descriptor->className) != nullptr;
}

bool QVDAudioPluginImpl::isGenerator() const
{
    return maxInputs() == 0;
}

std::uint64_t QVDAudioPluginImpl::instanceId() const
{
    return m_instanceId;
}

bool QVDAudioPluginImpl::setParameter(std::int32_t index, float value)
{
    if (index < 0 || index >= parameterCount())
        return false;
    // The editor and a host's automation may set values at the same time;
    // derived state assumes one writer.
    std::lock_guard<std::mutex> lock(m_writerMutex);
    return applyParameter(static_cast<std::uint32_t>(index), value);
}

float QVDAudioPluginImpl::getParameter(std::int32_t index) const
{
    if (index < 0 || index >= parameterCount())
        return 0.0f;
    return m_parameters[static_cast<std::size_t>(index)].value();
}

std::uint64_t QVDAudioPluginImpl::getLatency() const
{
    return latency();
}

std::int32_t QVDAudioPluginImpl::getMeterValues(std::int32_t group, double* values, std::int32_t capacity) const
{
    if (group < 0 || group >= meterGroupCount())
        return 0;
    const MeterGroup& g = *m_meters[static_cast<std::size_t>(group)];
    const std::int32_t size = g.size.load(std::memory_order_relaxed);
    if (!values)
        return size;
    const std::int32_t n = std::min(size, capacity);
    for (std::int32_t i = 0; i < n; ++i) {
        const float level = g.levels[static_cast<std::size_t>(i)].load(std::memory_order_relaxed);
        double db = -100.0;
        // NaN and negative levels read as silence rather than as a number.
        if (level > 0.0f) {
            db = 20.0 * std::log10(std::min(static_cast<double>(level), 1.0));
            if (db < -100.0)
                db = -100.0;
        }
        values[i] = db;
    }
    return size;
}

bool QVDAudioPluginImpl::setParameterValue(std::int32_t index, double value)
{
    return setParameter(index, static_cast<float>(value));
}

std::int32_t QVDAudioPluginImpl::parameterCount() const
{
    return static_cast<std::int32_t>(m_parameters.size());
}

bool QVDAudioPluginImpl::parameterInfo(std::int32_t index, qvd::ParameterInfo* info) const
{
    if (!info || index < 0 || index >= parameterCount())
        return false;
    *info = m_parameters[static_cast<std::size_t>(index)].definition().toInfo();
    info->step = m_parameters[static_cast<std::size_t>(index)].definition().step;
    return true;
}

std::int32_t QVDAudioPluginImpl::meterGroupCount() const
{
    return static_cast<std::int32_t>(m_meters.size());
}

const char* QVDAudioPluginImpl::meterGroupName(std::int32_t group) const
{
    if (group < 0 || group >= meterGroupCount())
        return nullptr;
    return m_meters[static_cast<std::size_t>(group)]->name.constData();
}

const char* QVDAudioPluginImpl::pluginKey() const
{
    return m_key.constData();
}

void* QVDAudioPluginImpl::createEditor(void* parentWidget)
{
    // Widgets without a QApplication abort the process; a host that shows no
    // panels must be able to ask anyway.
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) {
        debugLog(1, QStringLiteral("%1: no editor without a QApplication in the host process")
                        .arg(QString::fromUtf8(m_key)));
        return nullptr;
    }
    const QVDPanelFactory factory = m_descriptor ? qvdPanelFactory(m_descriptor->className) : nullptr;
    return factory ? factory(this, static_cast<QWidget*>(parentWidget)) : nullptr;
}

std::int32_t QVDAudioPluginImpl::responseCurve(const double* frequencies, double* decibels, std::int32_t count) const
{
    if (!frequencies || !decibels || count <= 0)
        return 0;
    return magnitudeResponse(frequencies, decibels, count) ? count : 0;
}

std::int32_t QVDAudioPluginImpl::readoutCount() const
{
    return static_cast<std::int32_t>(m_readouts.size());
}

bool QVDAudioPluginImpl::readoutInfo(std::int32_t index, qvd::ReadoutInfo* info) const
{
    if (!info || index < 0 || index >= readoutCount())
        return false;
    const Readout& r = *m_readouts[static_cast<std::size_t>(index)];
    info->name = r.name.toStdString();
    info->unit = r.unit.toStdString();
    info->kind = r.size > 1 ? qvd::kReadoutArray : qvd::kReadoutScalar;
    info->size = r.size;
    return true;
}

std::int32_t QVDAudioPluginImpl::readReadout(std::int32_t index, double* values, std::int32_t capacity) const
{
    if (index < 0 || index >= readoutCount())
        return 0;
    const Readout& r = *m_readouts[static_cast<std::size_t>(index)];
    if (!values)
        return r.size;
    const std::int32_t n = std::clamp(capacity, 0, r.size);
    // A sequence lock: copy, and copy again if the audio thread wrote
    // meanwhile. Only this reader ever waits, never the audio thread; it
    // publishes once a block, so a second try rarely comes.
    for (unsigned attempt = 1;; ++attempt) {
        const std::uint32_t before = r.sequence.load(std::memory_order_acquire);
        if (!(before & 1u)) {
            for (std::int32_t i = 0; i < n; ++i)
                values[i] = r.values[static_cast<std::size_t>(i)].load(std::memory_order_relaxed);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (r.sequence.load(std::memory_order_relaxed) == before)
                return r.size;
        }
        // A writer descheduled halfway through: let it finish.
        if (attempt % 64 == 0)
            std::this_thread::yield();
    }
}

std::int32_t QVDAudioPluginImpl::parameterText(std::int32_t index, float value, char* text, std::int32_t capacity) const
{
    if (index < 0 || index >= parameterCount())
        return 0;
    const QByteArray utf8 = valueText(index, value).toUtf8();
    if (text && capacity > 0) {
        const auto n = std::min<std::size_t>(static_cast<std::size_t>(utf8.size()), static_cast<std::size_t>(capacity - 1));
        std::memcpy(text, utf8.constData(), n);
        text[n] = '\0';
    }
    return static_cast<std::int32_t>(utf8.size());
}

bool QVDAudioPluginImpl::hostTempo(const qvd::BlockRecord* record, double& beatsPerMinute, std::int32_t& numerator,
                                   std::int32_t& denominator) const noexcept
{
    if (!m_hostExtensions)
        return false;
    double bpm = 0.0;
    std::int32_t num = 4, den = 4;
    const std::int64_t position = record ? record->position : -1;
    if (!m_hostExtensions->tempoAt(position, &bpm, &num, &den) || !(bpm > 0.0) || !std::isfinite(bpm) || num < 1 ||
        den < 1)
        return false;
    beatsPerMinute = bpm;
    numerator = num;
    denominator = den;
    return true;
}

bool QVDAudioPluginImpl::fetchHostAudio(const char* source, const qvd::BlockRecord* record, float* const* channels,
                                        std::int32_t channelCount, std::int32_t frames) const noexcept
{
    const std::int64_t position = record ? record->position : -1;
    if (m_hostExtensions && m_hostExtensions->fetchAudio(m_instanceId, source, position, channels, channelCount, frames))
        return true;
    for (std::int32_t c = 0; c < channelCount; ++c)
        std::memset(channels[c], 0, static_cast<std::size_t>(frames) * sizeof(float));
    return false;
}

std::int32_t QVDAudioPluginImpl::addReadout(const QString& name, const QString& unit, std::int32_t size)
{
    auto r = std::make_unique<Readout>();
    r->name = name.toUtf8();
    r->unit = unit.toUtf8();
    r->size = std::max(1, size);
    r->values = std::make_unique<std::atomic<float>[]>(static_cast<std::size_t>(r->size));
    for (std::int32_t i = 0; i < r->size; ++i)
        r->values[static_cast<std::size_t>(i)].store(0.0f, std::memory_order_relaxed);
    m_readouts.push_back(std::move(r));
    return static_cast<std::int32_t>(m_readouts.size()) - 1;
}

void QVDAudioPluginImpl::publishReadout(std::int32_t index, const float* values, std::int32_t count) noexcept
{
    Readout& r = *m_readouts[static_cast<std::size_t>(index)];
    const std::uint32_t s = r.sequence.load(std::memory_order_relaxed);
    r.sequence.store(s + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    const std::int32_t n = std::min(count, r.size);
    for (std::int32_t i = 0; i < n; ++i)
        r.values[static_cast<std::size_t>(i)].store(values[i], std::memory_order_relaxed);
    r.sequence.store(s + 2, std::memory_order_release);
}

// ---- MacroFXPlugin ----

std::int32_t QVDAudioPluginImpl::parameterIndex(const char* identifier) const
{
    if (!identifier)
        return -1;
    const QString id = QString::fromUtf8(identifier);
    for (std::size_t i = 0; i < m_parameters.size(); ++i) {
        if (m_parameters[i].definition().identifier == id)
            return static_cast<std::int32_t>(i);
    }
    return -1;
}

bool QVDAudioPluginImpl::setParameterByIdentifier(const char* identifier, float value)
{
    const std::int32_t index = parameterIndex(identifier);
    return index >= 0 && setParameter(index, value);
}

// ---- AudioPlugin ----

bool QVDAudioPluginImpl::prepare(float sampleRate, std::int32_t maxBlockSize, const qvd::PrepareConfig* config)
{
    m_prepared = false;
    if (!std::isfinite(sampleRate) || sampleRate < 1.0f || sampleRate > 16.0e6f)
        return false;
    if (maxBlockSize < 1 || maxBlockSize > kMaxBlockSize)
        return false;
    if (config) {
        const std::int32_t in = config->inputFormat == qvd::kFormatKeep ? qvd::formatForChannels(m_inputCount)
                                                                        : config->inputFormat;
        const std::int32_t out = config->outputFormat == qvd::kFormatKeep ? qvd::formatForChannels(m_outputCount)
                                                                          : config->outputFormat;
        // No notification: prepareProcessing sizes for the new counts anyway.
        if (!applyChannelCounts(qvd::channelCountOf(in), qvd::channelCountOf(out), false))
            return false;
        m_inputFormat.store(in, std::memory_order_relaxed);
        m_outputFormat.store(out, std::memory_order_relaxed);
        if (config->smoothing >= 0)
            SmoothingCoefficient::enableAll(config->smoothing != 0);
    }

    m_sampleRate.store(static_cast<std::int32_t>(sampleRate), std::memory_order_relaxed);
    m_blockSize.store(maxBlockSize, std::memory_order_relaxed);
    SmoothingCoefficient::recomputeAll(static_cast<double>(sampleRate));

    m_preRollChunk = std::min(maxBlockSize, kPreRollChunk);
    const std::size_t chunk = static_cast<std::size_t>(m_preRollChunk);
    const std::size_t outputs = static_cast<std::size_t>(std::max(maxOutputs(), 1));
    if (!m_silentInput.reserve(chunk * sizeof(float)) || !m_discardOutput.reserve(outputs * chunk * sizeof(float)))
        return false;
    m_silentInput.clear();
    std::fill(m_preRollInputs.begin(), m_preRollInputs.end(), m_silentInput.floats());
    for (std::size_t c = 0; c < m_preRollOutputs.size(); ++c)
        m_preRollOutputs[c] = m_discardOutput.floats() + c * chunk;

    if (!prepareProcessing())
        return false;
    resetAll();
    m_lastSequence = kNoSequence;
    m_resetPending.store(true, std::memory_order_relaxed);
    m_prepared = true;
    return true;
}

bool QVDAudioPluginImpl::process(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                                 std::int32_t frames)
{
    const std::int32_t ins = m_inputCount;
    const std::int32_t outs = m_outputCount;
    bool valid = m_prepared && frames >= 0;
    if (valid && ins > 0) {
        valid = inputs != nullptr;
        for (std::int32_t c = 0; valid && c < ins; ++c)
            valid = inputs[c] != nullptr;
    }
    if (valid && outs > 0) {
        valid = outputs != nullptr;
        for (std::int32_t c = 0; valid && c < outs; ++c)
            valid = outputs[c] != nullptr;
    }
    if (!valid) {
        if (frames > 0 && outputs)
            silenceOutputs(outputs, frames);
        return false;
    }

    QVDDenormalGuard denormals;
    const std::int32_t blockSize = m_blockSize.load(std::memory_order_relaxed);
    if (frames <= blockSize) {
        processBlock(block, inputs, outputs, frames);
        return true;
    }
    // Longer than prepared: run in chunks of the block size.
    for (std::int32_t done = 0; done < frames; done += blockSize) {
        const std::int32_t n = std::min(blockSize, frames - done);
        for (std::int32_t c = 0; c < ins; ++c)
            m_chunkInputs[static_cast<std::size_t>(c)] = inputs[c] + done;
        for (std::int32_t c = 0; c < outs; ++c)
            m_chunkOutputs[static_cast<std::size_t>(c)] = outputs[c] + done;
        processBlock(block, m_chunkInputs.data(), m_chunkOutputs.data(), n);
    }
    return true;
}

bool QVDAudioPluginImpl::setChannelFormats(std::int32_t inputFormat, std::int32_t outputFormat)
{
    // Stored first so channelCountsChanged() sees the new layout, restored on refusal.
    const std::int32_t oldIn = m_inputFormat.exchange(inputFormat, std::memory_order_relaxed);
    const std::int32_t oldOut = m_outputFormat.exchange(outputFormat, std::memory_order_relaxed);
    if (applyChannelCounts(qvd::channelCountOf(inputFormat), qvd::channelCountOf(outputFormat), true))
        return true;
    m_inputFormat.store(oldIn, std::memory_order_relaxed);
    m_outputFormat.store(oldOut, std::memory_order_relaxed);
    return false;
}

bool QVDAudioPluginImpl::applyChannelCounts(std::int32_t in, std::int32_t out, bool notify)
{
    if (in < 0 || out < 0 || in > maxInputs() || out > maxOutputs())
        return false;
    if (in == m_inputCount && out == m_outputCount)
        return true;
    const std::int32_t oldIn = m_inputCount, oldOut = m_outputCount;
    m_inputCount = in;
    m_outputCount = out;
    if (notify && !channelCountsChanged()) {
        m_inputCount = oldIn;
        m_outputCount = oldOut;
        return false;
    }
    sizeStandardMeters();
    m_resetPending.store(true, std::memory_order_relaxed);
    return true;
}

bool QVDAudioPluginImpl::needsReset(std::int64_t sequence)
{
    if (sequence == m_lastSequence)
        return false;
    return m_resetPending.load(std::memory_order_relaxed);
}

void QVDAudioPluginImpl::requestReset()
{
    m_resetPending.store(true, std::memory_order_relaxed);
}

void QVDAudioPluginImpl::setBypass(bool bypass)
{
    m_bypass.store(bypass, std::memory_order_relaxed);
}

bool QVDAudioPluginImpl::isBypassed() const
{
    return bypassed();
}

std::uint64_t QVDAudioPluginImpl::latency() const
{
    return m_latency.load(std::memory_order_relaxed);
}

std::int32_t QVDAudioPluginImpl::inputChannelCount() const
{
    return m_inputCount;
}

std::int32_t QVDAudioPluginImpl::outputChannelCount() const
{
    return m_outputCount;
}

std::int32_t QVDAudioPluginImpl::sampleRate() const
{
    return m_sampleRate.load(std::memory_order_relaxed);
}

std::int32_t QVDAudioPluginImpl::blockSize() const
{
    return m_blockSize.load(std::memory_order_relaxed);
}

// ---- editor controls ----

void QVDAudioPluginImpl::controlValueChanged(const QString& identifier, float value)
{
    const QByteArray id = identifier.toUtf8();
    setParameterByIdentifier(id.constData(), value);
}

float QVDAudioPluginImpl::controlValue(const QString& identifier) const
{
    const QByteArray id = identifier.toUtf8();
    return getParameter(parameterIndex(id.constData()));
}

// ---- the plugin's own operations ----

bool QVDAudioPluginImpl::applyParameter(std::uint32_t index, float value)
{
    if (index >= m_parameters.size())
        return false;
    m_parameters[index].exchange(value);
    parameterChanged(index, value);
    return true;
}

void QVDAudioPluginImpl::parameterChanged(std::uint32_t, float) {}

void QVDAudioPluginImpl::pluginCreated()
{
    for (std::size_t i = 0; i < m_parameters.size(); ++i)
        parameterChanged(static_cast<std::uint32_t>(i), m_parameters[i].value());
}

QString QVDAudioPluginImpl::valueText(std::int32_t index, float value) const
{
    if (index < 0 || index >= parameterCount())
        return {};
    const QVDParameterDefinition& d = m_parameters[static_cast<std::size_t>(index)].definition();
    if (d.kind != qvd::kContinuous && !d.options.isEmpty() && !std::isnan(value)) {
        const float clamped = std::clamp(value, 0.0f, static_cast<float>(d.options.size() - 1));
        return d.options.value(qvdListIndex(clamped));
    }
    // As many decimals as the step shows.
    int decimals = 0;
    for (float step = d.step; decimals < 4 && step < 0.999f; step *= 10.0f)
        ++decimals;
    const QString number = QString::number(static_cast<double>(value), 'f', decimals);
    return d.unit.isEmpty() ? number : number + QLatin1Char(' ') + d.unit;
}

void QVDAudioPluginImpl::render(const QVDBlock& block) noexcept
{
    if (m_effect.copyInput)
        return;
    for (std::int32_t c = 0; c < block.channels; ++c) {
        if (block.outputs[c] != block.inputs[c])
            std::memmove(block.outputs[c], block.inputs[c], static_cast<std::size_t>(block.frames) * sizeof(float));
    }
}

void QVDAudioPluginImpl::setEffectOptions(const QVDEffectOptions& options)
{
    m_effect = options;
    if (options.meters == QVDMeters::None || m_standardMeters)
        return;
    m_standardMeters = true;
    addMeterGroup(QStringLiteral("Input"), maxInputs());
    addMeterGroup(QStringLiteral("Output"), maxOutputs());
    m_inputPeaks.assign(static_cast<std::size_t>(std::max(maxInputs(), 1)), 0.0f);
    m_outputPeaks.assign(static_cast<std::size_t>(std::max(maxOutputs(), 1)), 0.0f);
    sizeStandardMeters();
}

void QVDAudioPluginImpl::sizeStandardMeters()
{
    if (!m_standardMeters)
        return;
    setMeterGroupSize(0, m_inputCount);
    setMeterGroupSize(1, m_outputCount);
}

void QVDAudioPluginImpl::runEffectBlock(const qvd::BlockRecord* record, const float* const* inputs,
                                        float* const* outputs, std::int32_t frames) noexcept
{
    frames = prepareBlock(inputs, sequenceOf(record), frames);
    const std::int32_t ins = m_inputCount;
    const std::int32_t outs = m_outputCount;
    const std::int32_t channels = std::min(ins, outs);
    const auto n = static_cast<std::size_t>(frames);
    // Read once: a flag that flips halfway through must not leave outputs unwritten.
    const bool bypass = bypassed() || !engaged();

    // Outputs without a matching input carry silence unless render writes them.
    for (std::int32_t c = channels; c < outs; ++c)
        std::memset(outputs[c], 0, n * sizeof(float));

    if (bypass) {
        bypassCopy(inputs, outputs, frames);
        if (m_standardMeters) {
            for (std::int32_t c = 0; c < ins; ++c)
                setMeterLevel(0, c, 0.0f);
            for (std::int32_t c = 0; c < outs; ++c)
                setMeterLevel(1, c, 0.0f);
        }
        m_renderedLast = false;
        return;
    }
    if (!m_renderedLast) {
        resumeAfterBypass();
        m_renderedLast = true;
    }

    const bool standard = m_standardMeters && m_effect.meters == QVDMeters::Standard;
    const bool fromRender = m_standardMeters && m_effect.meters == QVDMeters::FromRender;
    float* inPeak = m_inputPeaks.data();
    float* outPeak = m_outputPeaks.data();
    if (fromRender) {
        std::fill(m_inputPeaks.begin(), m_inputPeaks.end(), 0.0f);
        std::fill(m_outputPeaks.begin(), m_outputPeaks.end(), 0.0f);
    }
    for (std::int32_t c = 0; c < ins; ++c) {
        const bool paired = c < channels;
        if (m_effect.copyInput && paired) {
            if (standard)
                inPeak[c] = qvdCopyPeak(inputs[c], outputs[c], n);
            else if (outputs[c] != inputs[c])
                std::memmove(outputs[c], inputs[c], n * sizeof(float));
        } else if (standard || (fromRender && !paired)) {
            inPeak[c] = qvdPeak(inputs[c], n);
        }
    }

    const QVDBlock block{record, inputs, outputs, ins, outs, channels, frames, inPeak, outPeak};
    render(block);

    if (!m_standardMeters)
        return;
    if (standard) {
        for (std::int32_t c = 0; c < outs; ++c)
            outPeak[c] = qvdPeak(outputs[c], n);
    }
    for (std::int32_t c = 0; c < ins; ++c)
        setMeterLevel(0, c, inPeak[c]);
    for (std::int32_t c = 0; c < outs; ++c)
        setMeterLevel(1, c, outPeak[c]);
}

bool QVDAudioPluginImpl::magnitudeResponse(const double*, double*, std::int32_t) const
{
    return false;
}

QString QVDAudioPluginImpl::channelName(bool input, int index)
{
    return (input ? QStringLiteral("In %1") : QStringLiteral("Out %1")).arg(index + 1);
}

float QVDAudioPluginImpl::meterLevel(std::int32_t group, std::int32_t index) const
{
    if (group < 0 || group >= meterGroupCount())
        return 0.0f;
    const MeterGroup& g = *m_meters[static_cast<std::size_t>(group)];
    if (index < 0 || index >= g.capacity)
        return 0.0f;
    return g.levels[static_cast<std::size_t>(index)].load(std::memory_order_relaxed);
}

std::int32_t QVDAudioPluginImpl::prepareBlock(const float* const*, std::int64_t sequence,
                                              std::int32_t frames) noexcept
{
    if (frames == 0)
        frames = m_blockSize.load(std::memory_order_relaxed);
    if (m_inPreRoll)
        return frames;

    const bool reset = needsReset(sequence);
    m_resetPending.store(reset, std::memory_order_relaxed);
    m_lastSequence = sequence;
    if (reset) {
        resetAll();
        m_resetPending.store(false, std::memory_order_relaxed);
        if (latency() > 0)
            preRoll();
    }
    return frames;
}

void QVDAudioPluginImpl::completeBlock(const float* const* inputs, float* const* outputs, std::int32_t frames,
                                       std::int32_t) noexcept
{
    if (bypassed())
        bypassCopy(inputs, outputs, frames);
}

void QVDAudioPluginImpl::bypassCopy(const float* const* inputs, float* const* outputs, std::int32_t frames) noexcept
{
    if (m_outputCount == 0)
        return;
    const std::int32_t channels = std::min(m_inputCount, m_outputCount);
    const std::size_t lat = static_cast<std::size_t>(latency());
    const std::size_t n = static_cast<std::size_t>(frames);
    if (lat == 0) {
        for (std::int32_t c = 0; c < channels; ++c) {
            if (outputs[c] != inputs[c])
                std::memmove(outputs[c], inputs[c], n * sizeof(float));
        }
        return;
    }
    // Every channel's ring advances by the same amount, so one position serves all.
    std::size_t pos = m_bypassPos;
    for (std::int32_t c = 0; c < channels; ++c) {
        float* ring = m_bypassLines.data() + static_cast<std::size_t>(c) * lat;
        const float* in = inputs[c];
        float* out = outputs[c];
        pos = m_bypassPos;
        for (std::size_t i = 0; i < n; ++i) {
            const float x = in[i];
            out[i] = ring[pos];
            ring[pos] = x;
            if (++pos == lat)
                pos = 0;
        }
    }
    if (channels > 0)
        m_bypassPos = pos;
}

bool QVDAudioPluginImpl::setLatency(std::uint64_t frames)
{
    const std::size_t channels = static_cast<std::size_t>(std::max(maxInputs(), maxOutputs()));
    // Bypass lines of more than ten seconds at 384 kHz point at a broken plugin.
    if (frames > 3840000u)
        return false;
    try {
        m_bypassLines.assign(channels * static_cast<std::size_t>(frames), 0.0f);
    } catch (const std::bad_alloc&) {
        twa::debug::report("Error - new failed\n");
        return false;
    }
    m_bypassPos = 0;
    m_latency.store(frames, std::memory_order_relaxed);
    return true;
}

QVDAudioAlgorithm* QVDAudioPluginImpl::addAlgorithm(std::unique_ptr<QVDAudioAlgorithm> block)
{
    m_algorithms.push_back(std::move(block));
    return m_algorithms.back().get();
}

void QVDAudioPluginImpl::addAlgorithmRef(QVDAudioAlgorithm* block)
{
    m_algorithmRefs.push_back(block);
}

QVDResettable* QVDAudioPluginImpl::addAuxiliary(std::unique_ptr<QVDResettable> object)
{
    m_auxiliary.push_back(std::move(object));
    return m_auxiliary.back().get();
}

void QVDAudioPluginImpl::addResettableRef(QVDResettable* object)
{
    m_resettableRefs.push_back(object);
}

std::int32_t QVDAudioPluginImpl::addMeterGroup(const QString& name, std::int32_t capacity)
{
    auto group = std::make_unique<MeterGroup>();
    group->name = name.toUtf8();
    group->capacity = std::max(0, capacity);
    group->levels = std::make_unique<std::atomic<float>[]>(static_cast<std::size_t>(group->capacity));
    for (std::int32_t i = 0; i < group->capacity; ++i)
        group->levels[static_cast<std::size_t>(i)].store(0.0f, std::memory_order_relaxed);
    m_meters.push_back(std::move(group));
    return static_cast<std::int32_t>(m_meters.size()) - 1;
}

void QVDAudioPluginImpl::setMeterGroupSize(std::int32_t group, std::int32_t size)
{
    if (group < 0 || group >= meterGroupCount())
        return;
    MeterGroup& g = *m_meters[static_cast<std::size_t>(group)];
    g.size.store(std::clamp(size, 0, g.capacity), std::memory_order_relaxed);
}

void QVDAudioPluginImpl::debugLog(std::int32_t level, const QString& line) const
{
    if (!m_hostServices || level > m_debugLogLevel)
        return;
    const QByteArray text = line.toUtf8();
    m_hostServices->debugLog(level, text.constData());
}

void QVDAudioPluginImpl::resetAll() noexcept
{
    for (auto& block : m_algorithms)
        block->reset();
    for (QVDAudioAlgorithm* block : m_algorithmRefs)
        block->reset();
    for (auto& object : m_auxiliary)
        object->clear();
    for (QVDResettable* object : m_resettableRefs)
        object->clear();
    std::fill(m_bypassLines.begin(), m_bypassLines.end(), 0.0f);
    m_bypassPos = 0;
    resetState();
}

void QVDAudioPluginImpl::preRoll() noexcept
{
    qvd::BlockRecord record{};
    record.count = 1;
    record.sequence = 0;
    record.mode = qvd::kModePreRoll;
    record.position = -1;
    record.sourcePosition = -1;
    const std::uint64_t total = latency();
    const auto blockSize = static_cast<std::uint64_t>(std::max(m_preRollChunk, 1));
    m_inPreRoll = true;
    for (std::uint64_t done = 0; done < total; done += blockSize) {
        const auto n = static_cast<std::int32_t>(std::min(blockSize, total - done));
        processBlock(&record, m_preRollInputs.data(), m_preRollOutputs.data(), n);
    }
    m_inPreRoll = false;
}

void QVDAudioPluginImpl::silenceOutputs(float* const* outputs, std::int32_t frames) const noexcept
{
    for (std::int32_t c = 0; c < m_outputCount; ++c) {
        if (outputs[c])
            std::memset(outputs[c], 0, static_cast<std::size_t>(frames) * sizeof(float));
    }
}
