#include "QVDEq.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>


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

constexpr float kDefaultFrequency[QVDEq::kBands] = {70.0f, 110.0f, 240.0f, 1200.0f, 6000.0f, 19000.0f};
constexpr float kDefaultShape[QVDEq::kBands] = {3.0f, 0.0f, 1.0f, 1.0f, 3.0f, 0.0f};
constexpr float kDefaultIn[QVDEq::kBands] = {0.0f, 1.0f, 1.0f, 1.0f, 1.0f, 0.0f};

} // namespace

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

namespace {
std::vector<std::string> shapeNames(int band)
{
    if (band == 0)
        return {"Lo Shelf", "Bell", "Hi Shelf", "Hi Pass"};
    if (band == QVDEq::kBands - 1)
        return {"Lo Pass", "Bell", "Notch", "Hi Shelf"};
    return {"Lo Shelf", "Bell", "Notch", "Hi Shelf"};
}
} // namespace

QStringList QVDEq::shapeLabels(int band)
{
    QStringList labels;
    for (const std::string& name : shapeNames(band))
        labels.push_back(qvdTranslate("QVDEq", name.c_str()));
    return labels;
}

float QVDEq::mappedQ(float q)
{
    return static_cast<float>((static_cast<double>(q) - 0.3) * 0.5 + 0.5);
}

std::vector<QVDParam> QVDEq::parameterRows()
{
    std::vector<QVDParam> rows;
    for (int b = 0; b < kBands; ++b) {
        const std::string n = std::to_string(b);
        const std::string band = "Band " + std::to_string(b + 1);
        rows.push_back({.name = "BAND_GAIN_" + n, .label = band + " Gain", .minimum = -20.0f, .maximum = 20.0f,
                        .step = 0.1f, .unit = "dB"});
        rows.push_back({.name = "BAND_Q_" + n, .label = band + " Q", .minimum = 0.3f, .maximum = 10.3f,
                        .defaultValue = 2.3f, .step = 0.1f});
        rows.push_back({.name = "BAND_FREQ_" + n, .label = band + " Freq", .minimum = 20.0f, .maximum = 19000.0f,
                        .defaultValue = kDefaultFrequency[b], .step = 1.0f, .unit = "Hz",
                        .scale = qvd::kLogarithmic});
        rows.push_back(qvdListParam("BAND_SHAPE_" + n, band + " Shape", shapeNames(b),
                                    static_cast<int>(kDefaultShape[b])));
        rows.push_back(qvdSwitchParam("BAND_IN_" + n, band + " In", kDefaultIn[b] != 0.0f));
    }
    rows.push_back(qvdSwitchParam("EQ_IN", "Equalizer In", true, "Off", "In"));
    return rows;
}

QVDEq::QVDEq(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services), m_kernel(&qvd::eq::selectKernel())
{
    for (BiQuad& band : m_bands)
        addAlgorithmRef(&band);
}

void QVDEq::parameterChanged(std::uint32_t index, float value)
{
    if (index == EQ_IN) {
        // NaN has no choice; the switch stays where it was.
        if (!std::isnan(value))
            m_eqIn.store(listChoice(value) != 0, std::memory_order_relaxed);
    } else {
        applyBand(index, value);
    }
    m_changed.store(true, std::memory_order_relaxed);
}

void QVDEq::applyBand(std::uint32_t index, float value)
{
    // Lines are formatted only for a host that reads them.
    const bool log = debugLogLevel() >= 2;
    const int b = static_cast<int>(index / 5);
    BiQuad& band = m_bands[static_cast<std::size_t>(b)];
    BandView& view = m_views[static_cast<std::size_t>(b)];
    const double v = static_cast<double>(value);
    QString line;
    switch (index % 5) {
    case kGain:
        band.setParameter(BiQuad::GAIN, value);
        view.gainDb = value;
        if (log)
            line = QString::asprintf("Band %d, Gain: %f", b, v);
        break;
    case kQ: {
        const float q = mappedQ(value);
        band.setParameter(BiQuad::Q, q);
        view.q = q;
        if (log)
            line = QString::asprintf("Band %d, Q: %f", b, v);
        break;
    }
    case kFreq:
        band.setParameter(BiQuad::FREQ, value);
        view.frequency = value;
        if (log)
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
        if (log)
            line = QString::asprintf("Band %d, Shape: %f, xlated: %d", b, v, shape);
        break;
    }
    case kIn:
        band.setParameter(BiQuad::IN, value);
        view.on = value != 0.0f;
        if (log)
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
        applyBand(i, m_parameters[i].value());
    m_changed.store(true, std::memory_order_relaxed);
    return true;
}

bool QVDEq::channelCountsChanged()
{
    for (BiQuad& band : m_bands)
        band.setChannelCount(activeOutputs());
    return true;
}

void QVDEq::resumeAfterBypass() noexcept
{
    for (BiQuad& band : m_bands)
        band.reset();
}

void QVDEq::render(const QVDBlock& block) noexcept
{
    qvd::eq::Band runs[kBands];
    std::int32_t count = 0;
    std::uint32_t withState = static_cast<std::uint32_t>(block.channels);
    for (BiQuad& band : m_bands) {
        const BiQuadCoefficients& c = band.acquire();
        withState = std::min(withState, band.stateCount());
        // A neutral band is an exact pass-through; skipping it is the reference's behaviour too.
        if (!c.isNeutral())
            runs[count++] = {c, band.states()};
    }
    const auto filtered = static_cast<std::int32_t>(withState);
    if (count > 0) {
        const qvd::eq::KernelArgs args{block.outputs, filtered, block.frames, runs, count};
        m_kernel->fn(args);
        for (BiQuad& band : m_bands)
            band.recoverStates(withState);
    }
    // Channels the bands hold no state for are silent, as a BiQuad makes them.
    for (std::int32_t c = filtered; c < block.channels; ++c)
        std::memset(block.outputs[c], 0, static_cast<std::size_t>(block.frames) * sizeof(float));
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
