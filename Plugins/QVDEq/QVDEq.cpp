#include "QVDEq.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <emmintrin.h>

#include "QVDEqPanel.h"


QVD_REGISTER_AUDIO_PLUGIN(QVDEq)

namespace {

// List choice of a value, truncate(value + 0.5); -1 for NaN. Clamped first so
// no value can overflow the conversion.
std::int32_t listChoice(float value)
{
    if (std::isnan(value))
        return -1;
    return qvdListIndex(std::clamp(value, -2.0f, 1.0e6f));
}

// Largest |x| of a block, from 0, copying it to `out` on the way unless
// `out` is null or the same buffer. max(|x|, peak) keeps the peak when x is
// NaN, in the vector lanes as in the scalar tail, so the lanes' maximum is
// what one scalar pass gives.
float copyWithPeak(const float* in, float* out, std::size_t frames) noexcept
{
    if (out == in)
        out = nullptr;
    const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7fffffff));
    __m128 lanes = _mm_setzero_ps();
    std::size_t i = 0;
    for (; i + 4 <= frames; i += 4) {
        const __m128 v = _mm_loadu_ps(in + i);
        lanes = _mm_max_ps(_mm_and_ps(v, absMask), lanes);
        if (out)
            _mm_storeu_ps(out + i, v);
    }
    alignas(16) float part[4];
    _mm_store_ps(part, lanes);
    float peak = 0.0f;
    for (const float p : part)
        peak = p > peak ? p : peak;
    for (; i < frames; ++i) {
        const float a = std::fabs(in[i]);
        peak = a > peak ? a : peak;
        if (out)
            out[i] = in[i];
    }
    return peak;
}

float blockPeak(const float* samples, std::size_t frames) noexcept
{
    return copyWithPeak(samples, nullptr, frames);
}

constexpr float kDefaultFrequency[QVDEq::kBands] = {70.0f, 110.0f, 240.0f, 1200.0f, 6000.0f, 19000.0f};
constexpr float kDefaultShape[QVDEq::kBands] = {3.0f, 0.0f, 1.0f, 1.0f, 3.0f, 0.0f};
constexpr float kDefaultIn[QVDEq::kBands] = {0.0f, 1.0f, 1.0f, 1.0f, 1.0f, 0.0f};

} // namespace

const QVDPluginDescriptor& QVDEq::descriptor()
{
    static const QVDPluginDescriptor d{"Tarnwick EQ", 1.0, 1, qvdFourCC("QVEq"), 16, 16, "QVDEq", 0, 0, -1};
    return d;
}

const std::array<std::int32_t, QVDEq::kBands * 4>& QVDEq::shapeTranslation()
{
    // Band 6 is offset by one and the middle bands' "Notch" filters as a bell:
    // both kept as they are on purpose.
    static constexpr std::array<std::int32_t, kBands * 4> table = {
        2, 4, 3, 1, //
        2, 4, 4, 3, //
        2, 4, 4, 3, //
        2, 4, 4, 3, //
        2, 4, 4, 3, //
        0, 2, 4, 3, //
    };
    return table;
}

const std::array<std::int32_t, QVDEq::kBands * 4>& QVDEq::viewCodes()
{
    static constexpr std::array<std::int32_t, kBands * 4> table = {
        0, 2, 1, 5, //
        0, 2, 3, 1, //
        0, 2, 3, 1, //
        0, 2, 3, 1, //
        0, 2, 3, 1, //
        4, 0, 2, 1, //
    };
    return table;
}

QStringList QVDEq::shapeLabels(int band)
{
    auto tr = [](const char* text) { return qvdTranslate("QVDEq", text); };
    if (band == 0)
        return {tr("Lo Shelf"), tr("Bell"), tr("Hi Shelf"), tr("Hi Pass")};
    if (band == kBands - 1)
        return {tr("Lo Pass"), tr("Bell"), tr("Notch"), tr("Hi Shelf")};
    return {tr("Lo Shelf"), tr("Bell"), tr("Notch"), tr("Hi Shelf")};
}

float QVDEq::mappedQ(float q)
{
    return static_cast<float>((static_cast<double>(q) - 0.3) * 0.5 + 0.5);
}

const std::vector<QVDParameterDefinition>& QVDEq::parameterTable()
{
    static const std::vector<QVDParameterDefinition> table = [] {
        std::vector<QVDParameterDefinition> t;
        auto add = [&t](const QString& id, const QString& label, std::int32_t kind, std::int32_t scale, float minimum,
                        float maximum, float defaultValue, float step, const QString& unit,
                        const QStringList& options) {
            QVDParameterDefinition d;
            d.index = static_cast<std::int32_t>(t.size());
            d.identifier = id;
            d.label = label;
            d.kind = kind;
            d.scale = scale;
            d.minimum = minimum;
            d.maximum = maximum;
            d.defaultValue = defaultValue;
            d.step = step;
            d.unit = unit;
            d.options = options;
            d.buildValueTable();
            t.push_back(d);
        };
        const QStringList offOn{qvdTranslate("QVDEq", "Off"), qvdTranslate("QVDEq", "On")};
        for (int b = 0; b < kBands; ++b) {
            const auto id = [b](const char* name) { return QStringLiteral("QVDEq::%1_%2").arg(QLatin1String(name)).arg(b); };
            const auto label = [b](const char* text) { return qvdTranslate("QVDEq", text).arg(b + 1); };
            add(id("BAND_GAIN"), label("Band %1 Gain"), qvd::kContinuous, qvd::kLinear, -20.0f, 20.0f, 0.0f, 0.1f,
                QStringLiteral("dB"), {});
            add(id("BAND_Q"), label("Band %1 Q"), qvd::kContinuous, qvd::kLinear, 0.3f, 10.3f, 2.3f, 0.1f, QString(),
                {});
            add(id("BAND_FREQ"), label("Band %1 Freq"), qvd::kContinuous, qvd::kLogarithmic, 20.0f, 19000.0f,
                kDefaultFrequency[b], 1.0f, QStringLiteral("Hz"), {});
            add(id("BAND_SHAPE"), label("Band %1 Shape"), qvd::kList, qvd::kLinear, 0.0f, 3.0f, kDefaultShape[b],
                1.0f, QString(), shapeLabels(b));
            add(id("BAND_IN"), label("Band %1 In"), qvd::kList, qvd::kLinear, 0.0f, 1.0f, kDefaultIn[b], 1.0f,
                QString(), offOn);
        }
        add(QStringLiteral("QVDEq::EQ_IN"), qvdTranslate("QVDEq", "Equalizer In"), qvd::kList, qvd::kLinear, 0.0f,
            1.0f, 1.0f, 1.0f, QString(), {qvdTranslate("QVDEq", "Off"), qvdTranslate("QVDEq", "In")});
        return t;
    }();
    return table;
}

QVDEq::QVDEq(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDAudioPlugin<QVDEq>(descriptor, hostContext, services, parameterTable()),
      m_kernel(qvd::eq::selectKernel()),
      m_maxChannels(std::max(maxInputs(), maxOutputs()))
{
    addMeterGroup(QStringLiteral("Input"), m_maxChannels);
    addMeterGroup(QStringLiteral("Output"), m_maxChannels);
    for (BiQuad& band : m_bands)
        addAlgorithmRef(&band);
    channelCountsChanged();
    for (std::uint32_t i = 0; i < kParameterCount; ++i) {
        if (i == EQ_IN)
            m_eqIn.store(listChoice(m_parameters[i].value()) != 0, std::memory_order_relaxed);
        else
            applyBand(i, m_parameters[i].value(), false);
    }
}

QVDEq::~QVDEq() = default;

bool QVDEq::applyParameter(std::uint32_t index, float value)
{
    if (index >= m_parameters.size())
        return false;
    m_parameters[index].exchange(value);
    if (index == EQ_IN) {
        // NaN has no choice; the switch stays where it was.
        if (!std::isnan(value))
            m_eqIn.store(listChoice(value) != 0, std::memory_order_relaxed);
    } else {
        applyBand(index, value, true);
    }
    m_changed.store(true, std::memory_order_relaxed);
    return true;
}

void QVDEq::applyBand(std::uint32_t index, float value, bool log)
{
    const int b = static_cast<int>(index / 5);
    BiQuad& band = m_bands[static_cast<std::size_t>(b)];
    BandView& view = m_views[static_cast<std::size_t>(b)];
    const double v = static_cast<double>(value);
    QString line;
    switch (index % 5) {
    case kGain:
        band.setParameter(BiQuad::GAIN, value);
        view.gainDb = value;
        line = QString::asprintf("Band %d, Gain: %f", b, v);
        break;
    case kQ: {
        const float q = mappedQ(value);
        band.setParameter(BiQuad::Q, q);
        view.q = q;
        line = QString::asprintf("Band %d, Q: %f", b, v);
        break;
    }
    case kFreq:
        band.setParameter(BiQuad::FREQ, value);
        view.frequency = value;
        line = QString::asprintf("Band %d, Freq: %f", b, v);
        break;
    case kShape: {
        const std::int32_t r = listChoice(value);
        // A choice past the table selects no filter: the band passes audio unchanged.
        std::int32_t shape = -1;
        std::int32_t code = -1;
        if (r >= 0 && r < 4) {
            shape = shapeTranslation()[static_cast<std::size_t>(b * 4 + r)];
            code = viewCodes()[static_cast<std::size_t>(b * 4 + r)];
        }
        band.setParameter(BiQuad::SHAPE, static_cast<float>(shape));
        view.shape = code;
        line = QString::asprintf("Band %d, Shape: %f, xlated: %d", b, v, shape);
        break;
    }
    case kIn:
        band.setParameter(BiQuad::IN, value);
        view.on = value != 0.0f;
        line = QString::asprintf("Band %d, IN: %f", b, v);
        break;
    default:
        break;
    }
    if (log)
        debugLog(2, line);
}

bool QVDEq::prepareProcessing()
{
    const auto rate = static_cast<float>(sampleRate());
    for (BiQuad& band : m_bands)
        band.initialise(rate, activeOutputs());
    // Initialise put the bands back to their own defaults, and every
    // coefficient depends on the rate: apply the current settings again.
    for (std::uint32_t i = 0; i < EQ_IN; ++i)
        applyBand(i, m_parameters[i].value(), false);
    m_changed.store(true, std::memory_order_relaxed);
    return true;
}

void QVDEq::channelCountsChanged()
{
    setMeterGroupSize(kInputMeter, activeInputs());
    setMeterGroupSize(kOutputMeter, activeOutputs());
    for (BiQuad& band : m_bands)
        band.setChannelCount(activeOutputs());
}

void QVDEq::processBlock(const qvd::BlockRecord* block, const float* const* inputs, float* const* outputs,
                         std::int32_t frames) noexcept
{
    frames = prepareBlock(inputs, sequenceOf(block), frames);
    const std::int32_t ins = activeInputs();
    const std::int32_t outs = activeOutputs();
    const std::int32_t channels = std::min(ins, outs);
    const auto n = static_cast<std::size_t>(frames);

    // "Equalizer In" off acts as the bypass: the copy is the output.
    const bool bypass = bypassed() || !m_eqIn.load(std::memory_order_relaxed);
    // The input is copied to the output and measured in one pass.
    for (std::int32_t c = 0; c < channels; ++c) {
        if (bypass) {
            if (outputs[c] != inputs[c])
                std::memmove(outputs[c], inputs[c], n * sizeof(float));
        } else {
            setMeterLevel(kInputMeter, c, copyWithPeak(inputs[c], outputs[c], n));
        }
    }
    // Outputs without a matching input carry silence.
    for (std::int32_t c = channels; c < outs; ++c)
        std::memset(outputs[c], 0, n * sizeof(float));

    if (bypass) {
        for (std::int32_t c = 0; c < ins; ++c)
            setMeterLevel(kInputMeter, c, 0.0f);
        for (std::int32_t c = 0; c < outs; ++c)
            setMeterLevel(kOutputMeter, c, 0.0f);
        m_wasBypassed = true;
        completeBlock(inputs, outputs, frames, 0);
        return;
    }
    for (std::int32_t c = channels; c < ins; ++c)
        setMeterLevel(kInputMeter, c, blockPeak(inputs[c], n));

    // Coming back from bypass the bands' history is stale: start from silence.
    if (m_wasBypassed) {
        for (BiQuad& band : m_bands)
            band.reset();
        m_wasBypassed = false;
    }
    qvd::eq::Band runs[kBands];
    std::int32_t count = 0;
    std::uint32_t withState = static_cast<std::uint32_t>(channels);
    for (BiQuad& band : m_bands) {
        const BiQuadCoefficients& c = band.acquire();
        withState = std::min(withState, band.stateCount());
        // A neutral band is an exact pass-through; skipping it is the reference's behaviour too.
        if (!c.isNeutral())
            runs[count++] = {c, band.states()};
    }
    const auto filtered = static_cast<std::int32_t>(withState);
    if (count > 0) {
        const qvd::eq::KernelArgs args{outputs, filtered, frames, runs, count};
        m_kernel.fn(args);
        for (BiQuad& band : m_bands)
            band.recoverStates(withState);
    }
    // Channels the bands hold no state for are silent, as a BiQuad makes them.
    for (std::int32_t c = filtered; c < channels; ++c)
        std::memset(outputs[c], 0, n * sizeof(float));

    for (std::int32_t c = 0; c < outs; ++c)
        setMeterLevel(kOutputMeter, c, blockPeak(outputs[c], n));
    completeBlock(inputs, outputs, frames, 0);
}

bool QVDEq::magnitudeResponse(const double* frequencies, double* decibels, std::int32_t count) const
{
    const std::int32_t rate = sampleRate();
    if (rate <= 0 || !frequencies || !decibels)
        return false;
    // Out, the equaliser passes audio unchanged; so does the host's bypass.
    const bool in = m_eqIn.load(std::memory_order_relaxed) && !isBypassed();
    for (std::int32_t i = 0; i < count; ++i) {
        const double f = frequencies[i];
        if (!std::isfinite(f)) {
            decibels[i] = std::numeric_limits<double>::quiet_NaN();
            continue;
        }
        double db = 0.0;
        if (in) {
            for (const BiQuad& band : m_bands) {
                // Floored at -300 dB so a notch's zero reads as a number.
                const double m = band.designed().magnitude(f, static_cast<double>(rate));
                db += 20.0 * std::log10(std::max(m, 1e-15));
            }
        }
        decibels[i] = db;
    }
    return true;
}

QWidget* QVDEq::buildEditor(QWidget* parent)
{
    return new QVDEqPanel(this, parent);
}
