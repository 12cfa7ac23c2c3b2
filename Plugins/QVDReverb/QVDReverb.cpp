#include "QVDReverb.h"

#include <algorithm>
#include <cmath>
#include <cstring>

QVD_REGISTER_AUDIO_PLUGIN(QVDReverb)

namespace {

struct ParameterText {
    const char* identifier;
    const char* label;
    const wchar_t* shortName;
    std::uint32_t setting;
};

// Long names go through translation; short names are fixed. Index 6 and the
// late-tone names differ between the two columns on purpose.
constexpr ParameterText kText[QVDReverb::kParameterCount] = {
    {"ROOM_HEIGHT", "Room Height", L"Room Height", qv_reverb_u15_control::RoomHeight},
    {"ROOM_LENGTH", "Room Length", L"Room Length", qv_reverb_u15_control::RoomLength},
    {"ROOM_WIDTH", "Room Width", L"Room Width", qv_reverb_u15_control::RoomWidth},
    {"ROOM_SIZE", "Room Size", L"Room Size", qv_reverb_u15_control::RoomSize},
    {"ROOM_RATIO", "Room Ratio", L"Room Ratio", qv_reverb_u15_control::RoomRatio},
    {"PRE_DELAY", "Pre-Delay", L"Pre-Delay", qv_reverb_u15_control::PreDelay},
    {"REVERB_TIME", "Reverb Time", L"T@-60dB", qv_reverb_u15_control::ReverbTime},
    {"DISTANCE", "Distance", L"Distance", qv_reverb_u15_control::Distance},
    {"BRIGHTNESS", "Brightness", L"Brightness", qv_reverb_u15_control::Brightness},
    {"MODULATION", "Modulation", L"Modulation", qv_reverb_u15_control::Modulation},
    {"EARLY_LOW_FREQ", "Early Refl. Low Freq", L"Early Refl. low Freq", qv_reverb_u15_control::EarlyLowFreq},
    {"EARLY_HIGH_FREQ", "Early Refl. High Freq", L"Early Refl. high Freq", qv_reverb_u15_control::EarlyHighFreq},
    {"EARLY_LOW_GAIN", "Early Refl. Low Gain", L"Early Refl. low Gain", qv_reverb_u15_control::EarlyLowFreq + 1},
    {"EARLY_HIGH_GAIN", "Early Refl. High Gain", L"Early Refl. high Gain",
     qv_reverb_u15_control::EarlyHighFreq + 1},
    {"LATE_LOW_FREQ", "Rev. Tone Low Freq", L"Late Rev. low Freq", qv_reverb_u15_control::LateLowFreq},
    {"LATE_HIGH_FREQ", "Rev. Tone High Freq", L"Late Rev. high Freq", qv_reverb_u15_control::LateHighFreq},
    {"LATE_LOW_GAIN", "Rev. Tone Low Gain", L"Late Rev. low Gain", qv_reverb_u15_control::LateLowFreq + 1},
    {"LATE_HIGH_GAIN", "Rev. Tone High Gain", L"Late Rev. high Gain", qv_reverb_u15_control::LateHighFreq + 1},
    {"DRY_WET", "Dry/Wet", L"Dry/Wet", qv_reverb_u15_control::DryWet},
    {"DIRECT_GAIN", "Direct Gain", L"Direct gain", qv_reverb_u15_control::DirectGain},
    {"EARLY_GAIN", "Early Refl. Gain", L"Early Refl. gain", qv_reverb_u15_control::EarlyGain},
    {"LATE_GAIN", "Late Rev. Gain", L"Late Rev. gain", qv_reverb_u15_control::LateGain},
};

// Display ranges of the two read-only room-shape parameters.
constexpr float kSizeMin = 3.0f * 4.0f, kSizeMax = 30.0f * 40.0f;
constexpr float kRatioMin = 3.0f / 40.0f, kRatioMax = 30.0f / 4.0f;

float clamp01(float v)
{
    return v >= 0.0f ? std::min(v, 1.0f) : 0.0f;
}

float logPosition(float value, float base, float scale)
{
    return std::log(value / scale) / std::log(base);
}

} // namespace

const QVDReverb::Settings& QVDReverb::defaultSettings()
{
    static const Settings s = [] {
        Settings r{};
        const float v[28] = {12.430144f, 20.112396f, 4.0f,   249.99998f, 1.618034f, 0.95f,       0.5f,
                             4.0f,       0.2f,       0.1f,   0.0f,       2.0f,      0.5f,        1.0f,
                             1.0f,       1.0f,       300.0f, 1.0f,       0.33333334f, 10000.0f,  1.0f,
                             0.33333334f, 300.0f,    1.0f,   0.33333334f, 10000.0f, 1.0f,        0.33333334f};
        std::copy(std::begin(v), std::end(v), r.begin());
        return r;
    }();
    return s;
}

float QVDReverb::levelCurve(float v)
{
    if (v >= 0.05f)
        return 0.01f * std::pow(200.0f, (v - 0.05f) * 1.0526316f);
    return 0.2f * v;
}

float QVDReverb::settingOf(std::uint32_t index, float v)
{
    switch (index) {
    case ROOM_HEIGHT: return 2.0f * std::pow(5.0f, v);
    case ROOM_LENGTH: return 3.0f * std::pow(10.0f, v);
    case ROOM_WIDTH: return 4.0f * std::pow(10.0f, v);
    case ROOM_SIZE: return kSizeMin + (kSizeMax - kSizeMin) * v;
    case ROOM_RATIO: return kRatioMin + (kRatioMax - kRatioMin) * v;
    case PRE_DELAY:
        // In double, rounded once: in float, atanh near 1 magnifies the
        // rounding of tanh(4) and the ends miss +-0.2 s. tanh(4) at run time.
        return static_cast<float>(0.05 * std::atanh(std::tanh(4.0) * (2.0 * static_cast<double>(v) - 1.0)));
    case REVERB_TIME: return 0.1f * std::pow(40.0f, v);
    case DISTANCE: return 0.01f + 29.99f * v;
    case BRIGHTNESS: return 0.06f * std::pow(16.6667f, v);
    case MODULATION: return 100.0f * v;
    case EARLY_LOW_FREQ:
    case LATE_LOW_FREQ: return 150.0f * std::pow(3.33333f, v);
    case EARLY_HIGH_FREQ:
    case LATE_HIGH_FREQ: return 1000.0f * std::pow(16.0f, v);
    case EARLY_LOW_GAIN:
    case EARLY_HIGH_GAIN:
    case LATE_LOW_GAIN:
    case LATE_HIGH_GAIN: return 0.125f * std::pow(16.0f, v);
    case DRY_WET: return 0.5f * v;
    case DIRECT_GAIN:
    case EARLY_GAIN:
    case LATE_GAIN: return levelCurve(v);
    default: return 0.0f;
    }
}

float QVDReverb::normalisedOf(std::uint32_t index, float s)
{
    float v = 0.0f;
    switch (index) {
    case ROOM_HEIGHT: v = logPosition(s, 5.0f, 2.0f); break;
    case ROOM_LENGTH: v = logPosition(s, 10.0f, 3.0f); break;
    case ROOM_WIDTH: v = logPosition(s, 10.0f, 4.0f); break;
    case ROOM_SIZE: v = (s - kSizeMin) / (kSizeMax - kSizeMin); break;
    case ROOM_RATIO: v = (s - kRatioMin) / (kRatioMax - kRatioMin); break;
    case PRE_DELAY: v = 0.5f * (std::tanh(s / 0.05f) / std::tanh(4.0f) + 1.0f); break;
    case REVERB_TIME: v = logPosition(s, 40.0f, 0.1f); break;
    case DISTANCE: v = (s - 0.01f) / 29.99f; break;
    case BRIGHTNESS: v = logPosition(s, 16.6667f, 0.06f); break;
    case MODULATION: v = s / 100.0f; break;
    case EARLY_LOW_FREQ:
    case LATE_LOW_FREQ: v = logPosition(s, 3.33333f, 150.0f); break;
    case EARLY_HIGH_FREQ:
    case LATE_HIGH_FREQ: v = logPosition(s, 16.0f, 1000.0f); break;
    case EARLY_LOW_GAIN:
    case EARLY_HIGH_GAIN:
    case LATE_LOW_GAIN:
    case LATE_HIGH_GAIN: v = logPosition(s, 16.0f, 0.125f); break;
    case DRY_WET: v = s / 0.5f; break;
    case DIRECT_GAIN:
    case EARLY_GAIN:
    case LATE_GAIN:
        v = s >= 0.01f ? 0.05f + logPosition(s, 200.0f, 0.01f) / 1.0526316f : s / 0.2f;
        break;
    default: return 0.0f;
    }
    return std::isnan(v) ? 0.0f : clamp01(v);
}

const wchar_t* QVDReverb::shortName(std::int32_t index)
{
    if (index < 0 || index >= kParameterCount)
        return L"";
    return kText[index].shortName;
}

std::vector<QVDParam> QVDReverb::parameterRows()
{
    std::vector<QVDParam> rows;
    const Settings& s = defaultSettings();
    for (std::uint32_t i = 0; i < kParameterCount; ++i)
        rows.push_back({.name = kText[i].identifier, .label = kText[i].label,
                        .defaultValue = normalisedOf(i, s[kText[i].setting]), .step = 0.001f});
    return rows;
}

QVDReverb::QVDReverb(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services), m_settings(defaultSettings())
{
}

QVDReverb::~QVDReverb() = default;

void QVDReverb::trace(const QString& line) const
{
    debugLog(2, line);
}

QVDReverb::Settings QVDReverb::settings() const
{
    std::lock_guard<std::mutex> lock(m_controlMutex);
    return m_settings;
}

float QVDReverb::engineRate() const
{
    std::lock_guard<std::mutex> lock(m_controlMutex);
    return m_control ? m_control->rate() : 0.0f;
}

qv_reverb_u15_param QVDReverb::engineParam() const
{
    std::lock_guard<std::mutex> lock(m_controlMutex);
    return m_param ? *m_param : qv_reverb_u15_param{};
}

void QVDReverb::storeSetting(std::uint32_t settingIndex, float value)
{
    m_settings[settingIndex] = value;
    if (m_control)
        m_control->set(settingIndex, value);
}

void QVDReverb::parameterChanged(std::uint32_t index, float value)
{
    if (debugLogLevel() >= 2)
        trace(QString::asprintf("QVDReverb::setParameter()(0x%p, %d, %f)", static_cast<const void*>(this),
                                static_cast<int>(index), static_cast<double>(value)));
    std::lock_guard<std::mutex> lock(m_controlMutex);
    // NaN has no position on the control, and the room-shape values are
    // display only: either way the value shows where the setting is.
    if (std::isnan(value) || index == ROOM_SIZE || index == ROOM_RATIO) {
        storeParameterValue(index, normalisedOf(index, m_settings[kText[index].setting]));
        return;
    }
    const float v = clamp01(value);
    storeParameterValue(index, v);
    storeSetting(kText[index].setting, settingOf(index, v));
    if (index == ROOM_LENGTH || index == ROOM_WIDTH) {
        const float length = m_settings[qv_reverb_u15_control::RoomLength];
        const float width = m_settings[qv_reverb_u15_control::RoomWidth];
        storeSetting(qv_reverb_u15_control::RoomSize, length * width);
        storeSetting(qv_reverb_u15_control::RoomRatio, length / width);
        storeParameterValue(ROOM_SIZE, normalisedOf(ROOM_SIZE, length * width));
        storeParameterValue(ROOM_RATIO, normalisedOf(ROOM_RATIO, length / width));
    }
    if (m_control)
        m_exchange.publish(*m_param);
}

QString QVDReverb::displayText(std::int32_t index) const
{
    if (debugLogLevel() >= 2)
        trace(QString::asprintf("QVDReverb::getParameterDisplay(0x%p, %d)", static_cast<const void*>(this), index));
    if (index < 0 || index >= kParameterCount)
        return {};
    const float s = settings()[kText[index].setting];
    const auto dB = [](float linear) {
        return linear > 0.0f ? QString::asprintf("%.1f dB", 20.0 * std::log10(static_cast<double>(linear)))
                             : QStringLiteral("-inf dB");
    };
    const auto hz = [](float f) {
        return f >= 1000.0f ? QString::asprintf("%.2f kHz", f / 1000.0) : QString::asprintf("%.0f Hz", double(f));
    };
    switch (index) {
    case ROOM_HEIGHT:
    case ROOM_LENGTH:
    case ROOM_WIDTH:
    case DISTANCE: return QString::asprintf("%.2f m", static_cast<double>(s));
    case ROOM_SIZE: return QString::asprintf("%.1f m\u00b2", static_cast<double>(s));
    case ROOM_RATIO: return QString::asprintf("%.3f", static_cast<double>(s));
    case PRE_DELAY: return QString::asprintf("%.1f ms", 1000.0 * s);
    case REVERB_TIME: return QString::asprintf("%.2f s", static_cast<double>(s));
    case BRIGHTNESS: return QString::asprintf("%.2f", static_cast<double>(s));
    case MODULATION: return QString::asprintf("%.0f", static_cast<double>(s));
    case EARLY_LOW_FREQ:
    case EARLY_HIGH_FREQ:
    case LATE_LOW_FREQ:
    case LATE_HIGH_FREQ: return hz(s);
    case DRY_WET: return QString::asprintf("%.0f %%", 200.0 * s);
    default: return dB(s);
    }
}

bool QVDReverb::buildEngine()
{
    const std::int32_t fs = sampleRate();
    // Exact rates only: every other rate, higher ones included, runs the
    // plain engine at the full rate.
    std::uint32_t factor = 1;
    if (fs == 192000 || fs == 176400)
        factor = 4;
    else if (fs == 96000 || fs == 88200)
        factor = 2;
    const float rate = factor == 4 ? static_cast<float>(fs) * 0.25f
                                   : (factor == 2 ? static_cast<float>(fs) * 0.5f : static_cast<float>(fs));
    const auto block = static_cast<std::uint32_t>(std::max(blockSize(), 1));
    const auto ins = static_cast<std::uint32_t>(std::clamp(activeInputs(), 1, 8));
    const auto outs = static_cast<std::uint32_t>(std::clamp(activeOutputs(), 1, 8));

    // Everything is allocated before anything is replaced: a failure leaves
    // the running engine as it was. Setters wait: the controller reads the settings.
    std::lock_guard<std::mutex> lock(m_controlMutex);
    auto param = std::make_unique<qv_reverb_u15_param>();
    param->inputs = ins;
    param->outputs = outs;
    param->rate = rate;
    param->max_block = factor == 1 ? block : (block + factor + factor - 1) / factor;
    // The widest room (40 m) sets the longest line: 2 * 40 / 340 s.
    param->max_delay = static_cast<std::uint32_t>(std::ceil(0.25f * rate)) + 1;
    // The controller fills the record the engine starts from.
    auto control = std::make_unique<qv_reverb_u15_control>(rate, m_settings, param.get());
    std::unique_ptr<qv_reverb_u15> plain;
    std::unique_ptr<qv_reverb_u15_oversampled> oversampled;
    if (factor == 4)
        oversampled = std::make_unique<qv_reverb_u15_x4>(*param);
    else if (factor == 2)
        oversampled = std::make_unique<qv_reverb_u15_x2>(*param);
    else
        plain = std::make_unique<qv_reverb_u15>(*param);
    std::vector<std::vector<float>> pending(factor == 1 ? 0 : ins, std::vector<float>(block + factor));
    // Output waiting to leave: the fixed `factor`, what the last block left
    // pending, and one whole converted block.
    std::vector<std::vector<float>> ready(factor == 1 ? 0 : outs, std::vector<float>(block + 3 * factor));
    std::vector<float*> pendingRows, readyRows;
    for (auto& ch : pending)
        pendingRows.push_back(ch.data());
    for (auto& ch : ready)
        readyRows.push_back(ch.data());
    std::vector<float> silent(block, 0.0f), discard(block, 0.0f);
    const std::uint64_t latency = oversampled ? oversampled->Latency() + factor : 0;

    if (!setLatency(latency))
        return false;
    m_plain = std::move(plain);
    m_oversampled = std::move(oversampled);
    m_param = std::move(param);
    m_control = std::move(control);
    m_exchange.clear();
    m_factor = factor;
    m_pending = std::move(pending);
    m_ready = std::move(ready);
    m_pendingRows = std::move(pendingRows);
    m_readyRows = std::move(readyRows);
    m_pendingFrames = 0;
    m_readyFrames = factor == 1 ? 0 : factor;
    m_silentRow = std::move(silent);
    m_discardRow = std::move(discard);
    return true;
}

bool QVDReverb::prepareProcessing()
{
    trace(QString::asprintf("QVDReverb::Resume()(0x%p)", static_cast<const void*>(this)));
    try {
        return buildEngine();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool QVDReverb::channelCountsChanged()
{
    if (sampleRate() <= 0)
        return true;
    try {
        return buildEngine();
    } catch (const std::bad_alloc&) {
        // The previous engine and channel counts stay.
        return false;
    }
}

void QVDReverb::resetState() noexcept
{
    if (m_plain)
        m_plain->reset();
    if (m_oversampled)
        m_oversampled->reset();
    for (auto& ch : m_ready)
        std::fill(ch.begin(), ch.end(), 0.0f);
    m_pendingFrames = 0;
    m_readyFrames = m_oversampled ? m_factor : 0;
}

void QVDReverb::render(const QVDBlock& block) noexcept
{
    if (!m_plain && !m_oversampled)
        return QVDAudioPluginImpl::render(block);
    const auto n = static_cast<std::size_t>(block.frames);
    if (const qv_reverb_u15_param* fresh = m_exchange.take()) {
        if (m_plain)
            m_plain->set_param(*fresh);
        else
            m_oversampled->set_param(*fresh);
    }
    const float* silent[1] = {m_silentRow.data()};
    float* discard[1] = {m_discardRow.data()};
    const float* const* in = block.inputCount > 0 ? block.inputs : silent;
    float* const* out = block.outputCount > 0 ? block.outputs : discard;
    if (m_plain) {
        m_plain->process(in, out, n);
        return;
    }
    const std::size_t f = m_factor;
    for (std::size_t c = 0; c < m_pending.size(); ++c)
        std::memcpy(m_pending[c].data() + m_pendingFrames, in[c], n * sizeof(float));
    const std::size_t total = m_pendingFrames + n;
    const std::size_t whole = total - total % f;
    if (whole > 0) {
        float* rows[qv_max_channels];
        for (std::size_t c = 0; c < m_ready.size(); ++c)
            rows[c] = m_ready[c].data() + m_readyFrames;
        m_oversampled->process(m_pendingRows.data(), rows, whole);
        m_readyFrames += whole;
        for (auto& ch : m_pending)
            std::memmove(ch.data(), ch.data() + whole, (total - whole) * sizeof(float));
    }
    m_pendingFrames = total - whole;
    for (std::size_t c = 0; c < m_ready.size(); ++c) {
        std::memcpy(out[c], m_ready[c].data(), n * sizeof(float));
        std::memmove(m_ready[c].data(), m_ready[c].data() + n, (m_readyFrames - n) * sizeof(float));
    }
    m_readyFrames -= n;
}

void QVDReverb::RecordExchange::publish(const qv_reverb_u15_param& p) noexcept
{
    m_slots[m_back] = p;
    m_back = m_middle.exchange(m_back | kFresh, std::memory_order_acq_rel) & 3u;
}

const qv_reverb_u15_param* QVDReverb::RecordExchange::take() noexcept
{
    if (!(m_middle.load(std::memory_order_relaxed) & kFresh))
        return nullptr;
    m_front = m_middle.exchange(m_front, std::memory_order_acq_rel) & 3u;
    return &m_slots[m_front];
}

void QVDReverb::RecordExchange::clear() noexcept
{
    m_middle.store(1, std::memory_order_relaxed);
    m_back = 0;
    m_front = 2;
}
