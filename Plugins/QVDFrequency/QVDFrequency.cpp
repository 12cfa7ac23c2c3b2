#include "QVDFrequency.h"

#include <algorithm>
#include <cmath>
#include <limits>

QVD_REGISTER_AUDIO_PLUGIN(QVDFrequency)

namespace {

constexpr std::int32_t kBandsPerOctave[] = {1, 3, 6, 12};
// Hop as a fraction of the size, per overlap choice.
constexpr double kHopFraction[] = {1.0, 0.5, 0.25, 0.125};
constexpr float kFloorPower = 1e-20f; // -200 dB

float decibels(double power)
{
    return static_cast<float>(10.0 * std::log10(std::max(power, static_cast<double>(kFloorPower))));
}

} // namespace

std::vector<QVDParam> QVDFrequency::parameterRows()
{
    std::vector<std::string> sizes;
    for (std::int32_t i = 0; i < kSizeCount; ++i)
        sizes.push_back(std::to_string(sizeOf(i)));
    std::vector<std::string> channels{"Mean of All"};
    for (std::int32_t c = 1; c <= kMaxChannels; ++c)
        channels.push_back("Channel " + std::to_string(c));
    return {
        qvdListParam("SIZE", "FFT Size", sizes, 3),
        qvdListParam("WINDOW", "Window",
                     {"Rectangular", "Hamming", "Hann", "Square-Root Hann", "Blackman", "Blackman-Harris", "Tapered",
                      "Square-Root Tapered", "Exponential", "Rising Peak"},
                     twa::fft::kWindowHann),
        qvdListParam("OVERLAP", "Overlap", {"0 %", "50 %", "75 %", "87.5 %"}, 1),
        qvdListParam("AVERAGING", "Averaging", {"Off", "Exponential", "Peak Hold"}, kAverageExponential),
        {.name = "TIME", .label = "Time", .minimum = 100.0f, .maximum = 60000.0f, .defaultValue = 1000.0f,
         .step = 1.0f, .unit = "ms", .scale = qvd::kLogarithmic},
        qvdSwitchParam("RESET", "Reset", false),
        qvdListParam("CHANNEL", "Channel", channels, 0),
        qvdListParam("BANDS", "Bands", {"1/1 Octave", "1/3 Octave", "1/6 Octave", "1/12 Octave"}, 1),
    };
}

QVDFrequency::QVDFrequency(const QVDPluginDescriptor* descriptor, void* hostContext, qvd::HostServices* services)
    : QVDEffect(descriptor, hostContext, services)
{
    // In the order of the Readout enum.
    addReadout(QStringLiteral("Spectrum"), QStringLiteral("dB"), kGridPoints);
    addReadout(QStringLiteral("Spectrum Frequencies"), QStringLiteral("Hz"), kGridPoints);
    addReadout(QStringLiteral("Bands"), QStringLiteral("dB"), OctaveBands::kMaxBands);
    addReadout(QStringLiteral("Band Centres"), QStringLiteral("Hz"), OctaveBands::kMaxBands);
    addReadout(QStringLiteral("Band Count"), QString());
    addReadout(QStringLiteral("Peak Frequency"), QStringLiteral("Hz"));
    addReadout(QStringLiteral("Peak Level"), QStringLiteral("dB"));
    addReadout(QStringLiteral("Bins"), QStringLiteral("dB"), kMaxBins);
    addReadout(QStringLiteral("Bin Width"), QStringLiteral("Hz"));
    for (std::int32_t i = 0; i < kGridPoints; ++i)
        m_gridFrequencies[static_cast<std::size_t>(i)] =
            static_cast<float>(kGridLow * std::pow(kGridHigh / kGridLow, static_cast<double>(i) / (kGridPoints - 1)));
}

QVDFrequency::~QVDFrequency() = default;

void QVDFrequency::parameterChanged(std::uint32_t index, float value)
{
    if (std::isnan(value))
        return;
    const auto choice = [value](std::int32_t count) { return std::clamp(qvdListIndex(std::max(value, 0.0f)), 0, count - 1); };
    switch (index) {
    case SIZE: m_size.store(choice(kSizeCount), std::memory_order_relaxed); break;
    case WINDOW: m_window.store(choice(kWindowCount), std::memory_order_relaxed); break;
    case OVERLAP: m_overlap.store(choice(4), std::memory_order_relaxed); break;
    case AVERAGING: m_averaging.store(choice(3), std::memory_order_relaxed); break;
    case TIME: m_timeMs.store(std::clamp(value, 100.0f, 60000.0f), std::memory_order_relaxed); break;
    case RESET:
        // Every press counts, even one that finds the switch already on.
        if (choice(2) == 1)
            m_resetRequests.fetch_add(1, std::memory_order_relaxed);
        break;
    case CHANNEL: m_channel.store(choice(kMaxChannels + 1), std::memory_order_relaxed); break;
    case BANDS: m_bandsChoice.store(choice(4), std::memory_order_relaxed); break;
    default: break;
    }
}

bool QVDFrequency::prepareProcessing()
{
    try {
        m_table = &windowTable();
        if (m_ffts.empty()) {
            // KISS plans without measuring, so every size is ready at once
            // and the transforms repeat bit for bit.
            for (std::int32_t i = 0; i < kSizeCount; ++i)
                m_ffts.push_back(std::make_unique<twa::fft::qv_fft>(
                    static_cast<std::size_t>(sizeOf(i)), static_cast<std::size_t>(sizeOf(i)),
                    twa::fft::kWindowRectangular, twa::fft::SpectrumOrder::Ordered, twa::fft::Backend::Kiss));
            m_ring.assign(kMaxSize, 0.0f);
            m_frame.assign(kMaxSize, 0.0f);
            m_spectrum.assign(kMaxBins, twa::fft::complex_t{});
            m_power.assign(kMaxBins, 0.0f);
            m_average.assign(kMaxBins, 0.0f);
            m_binOut.assign(kMaxBins, kFloorDb);
        }
    } catch (const std::bad_alloc&) {
        m_ffts.clear();
        return false;
    }
    m_config = Config{};
    m_layoutDue = true;
    clearHistory();
    return true;
}

const QVDFrequency::WindowTable& QVDFrequency::windowTable()
{
    // Every window at every size with its sums, built once for all
    // instances, so a change of either never computes on the audio thread.
    static const WindowTable table = [] {
        WindowTable t;
        std::size_t total = 0;
        for (std::int32_t i = 0; i < kSizeCount; ++i)
            total += static_cast<std::size_t>(sizeOf(i)) * kWindowCount;
        t.samples.assign(total, 0.0f);
        float* w = t.samples.data();
        for (std::int32_t i = 0; i < kSizeCount; ++i) {
            const std::int32_t n = sizeOf(i);
            for (std::int32_t type = 0; type < kWindowCount; ++type, w += n) {
                twa::fft::FillWindow(w, static_cast<std::size_t>(n), type);
                double sum = 0.0, squares = 0.0;
                for (std::int32_t k = 0; k < n; ++k) {
                    sum += w[k];
                    squares += static_cast<double>(w[k]) * w[k];
                }
                t.sum[static_cast<std::size_t>(i)][static_cast<std::size_t>(type)] = sum;
                t.squares[static_cast<std::size_t>(i)][static_cast<std::size_t>(type)] = squares;
            }
        }
        return t;
    }();
    return table;
}

const float* QVDFrequency::windowOf(std::int32_t sizeChoice, std::int32_t type) const noexcept
{
    std::size_t offset = 0;
    for (std::int32_t i = 0; i < sizeChoice; ++i)
        offset += static_cast<std::size_t>(sizeOf(i)) * kWindowCount;
    return m_table->samples.data() + offset +
           static_cast<std::size_t>(sizeOf(sizeChoice)) * static_cast<std::size_t>(type);
}

void QVDFrequency::clearHistory() noexcept
{
    std::fill(m_ring.begin(), m_ring.end(), 0.0f);
    m_ringPos = 0;
    m_filled = 0;
    m_sinceFrame = 0;
    m_haveAverage = false;
}

void QVDFrequency::resetState() noexcept
{
    clearHistory();
}

QVDFrequency::Config QVDFrequency::wanted() const noexcept
{
    return {m_size.load(std::memory_order_relaxed), m_window.load(std::memory_order_relaxed),
            m_channel.load(std::memory_order_relaxed), m_averaging.load(std::memory_order_relaxed),
            m_bandsChoice.load(std::memory_order_relaxed)};
}

void QVDFrequency::applyConfig(const Config& c) noexcept
{
    // A new resolution, window, source or mode makes the old average meaningless;
    // new bands only need a new layout.
    const bool bandsOnly = m_config.size == c.size && m_config.window == c.window && m_config.channel == c.channel &&
                           m_config.averaging == c.averaging;
    if (!bandsOnly)
        m_haveAverage = false;
    // The ring keeps the largest size, so only a new source empties it.
    if (m_config.channel != c.channel)
        clearHistory();
    if (m_config.size != c.size || m_config.bands != c.bands)
        m_layoutDue = true;
    m_config = c;
}

void QVDFrequency::collect(const QVDBlock& block) noexcept
{
    const std::int32_t source = m_config.channel;
    const std::int32_t count = block.channels;
    float* ring = m_ring.data();
    for (std::int32_t i = 0; i < block.frames; ++i) {
        float x = 0.0f;
        if (source == 0) {
            for (std::int32_t c = 0; c < count; ++c)
                x += block.outputs[c][i];
            x = count > 0 ? x / static_cast<float>(count) : 0.0f;
        } else if (source <= count) {
            x = block.outputs[source - 1][i];
        }
        ring[m_ringPos] = x;
        m_ringPos = (m_ringPos + 1) & (kMaxSize - 1);
    }
    m_filled += block.frames;
    m_sinceFrame += block.frames;
}

bool QVDFrequency::analyse() noexcept
{
    const std::int32_t n = sizeOf(m_config.size);
    const float* w = windowOf(m_config.size, m_config.window);
    // The newest n frames, oldest first.
    std::int32_t pos = (m_ringPos - n) & (kMaxSize - 1);
    float check = 0.0f;
    for (std::int32_t k = 0; k < n; ++k) {
        const float x = m_ring[static_cast<std::size_t>(pos)];
        check += x * 0.0f;
        m_frame[static_cast<std::size_t>(k)] = x * w[k];
        pos = (pos + 1) & (kMaxSize - 1);
    }
    if (check != 0.0f) // NaN or infinity somewhere in the frame
        return false;
    twa::fft::qv_fft& fft = *m_ffts[static_cast<std::size_t>(m_config.size)];
    fft.forward_raw(std::span<const float>(m_frame.data(), static_cast<std::size_t>(n)),
                    std::span<twa::fft::complex_t>(m_spectrum.data(), static_cast<std::size_t>(n / 2 + 1)));
    // A bin-centred sine of peak A gives |X| = A sum(w) / 2: scale so its power reads A^2.
    const double sum = m_table->sum[static_cast<std::size_t>(m_config.size)][static_cast<std::size_t>(m_config.window)];
    const double scale = sum > 0.0 ? 2.0 / sum : 0.0;
    const auto gain = static_cast<float>(scale * scale);
    const std::int32_t bins = n / 2 + 1;
    const twa::fft::complex_t* x = m_spectrum.data();
    float* power = m_power.data();
    // Capped at +300 dB: a finite but huge input must not leave an infinity
    // that the averaging would turn into NaN.
    for (std::int32_t k = 0; k < bins; ++k)
        power[k] = std::min(gain * (x[k].real() * x[k].real() + x[k].imag() * x[k].imag()), 1e30f);
    // DC and Nyquist have no mirror image to share their power with.
    power[0] *= 0.25f;
    power[bins - 1] *= 0.25f;
    return true;
}

void QVDFrequency::average(double elapsedFrames) noexcept
{
    const std::int32_t bins = sizeOf(m_config.size) / 2 + 1;
    float* avg = m_average.data();
    const float* p = m_power.data();
    if (!m_haveAverage || m_config.averaging == kAverageOff) {
        std::copy(p, p + bins, avg);
        m_haveAverage = true;
        return;
    }
    if (m_config.averaging == kAveragePeakHold) {
        for (std::int32_t k = 0; k < bins; ++k)
            avg[k] = std::max(avg[k], p[k]);
        return;
    }
    const double seconds = m_timeMs.load(std::memory_order_relaxed) / 1000.0;
    const auto alpha = static_cast<float>(1.0 - std::exp(-elapsedFrames / (seconds * sampleRate())));
    for (std::int32_t k = 0; k < bins; ++k)
        avg[k] += alpha * (p[k] - avg[k]);
}

void QVDFrequency::publishLayout() noexcept
{
    const double nyquist = 0.5 * sampleRate();
    m_bandCount = OctaveBands::layout(kBandsPerOctave[m_config.bands], nyquist, m_bandLayout.data());
    std::array<float, OctaveBands::kMaxBands> centres{};
    for (std::int32_t b = 0; b < m_bandCount; ++b)
        centres[static_cast<std::size_t>(b)] = static_cast<float>(m_bandLayout[static_cast<std::size_t>(b)].centre);
    publishReadout(kBandCentres, centres.data(), OctaveBands::kMaxBands);
    publishReadout(kBandCount, static_cast<float>(m_bandCount));
    publishReadout(kGridFrequencies, m_gridFrequencies.data(), kGridPoints);
    publishReadout(kBinWidth, static_cast<float>(sampleRate() / static_cast<double>(sizeOf(m_config.size))));
    std::fill(m_binOut.begin(), m_binOut.end(), kFloorDb);
    publishReadout(kBins, m_binOut.data(), kMaxBins);
    m_layoutDue = false;
}

void QVDFrequency::publishAll() noexcept
{
    const std::int32_t n = sizeOf(m_config.size);
    const std::int32_t bins = n / 2 + 1;
    const double width = sampleRate() / static_cast<double>(n);
    const float* avg = m_average.data();

    // Only the bins of this size; the rest were set to the floor when it was chosen.
    float* out = m_binOut.data();
    for (std::int32_t k = 0; k < bins; ++k)
        out[k] = 10.0f * std::log10(std::max(avg[k], kFloorPower));
    publishReadout(kBins, out, bins);

    // Each grid point shows the strongest bin between it and its neighbours'
    // midpoints (geometric), or the interpolated power where no bin falls.
    const double ratio = std::sqrt(std::pow(kGridHigh / kGridLow, 1.0 / (kGridPoints - 1)));
    for (std::int32_t i = 0; i < kGridPoints; ++i) {
        const double f = m_gridFrequencies[static_cast<std::size_t>(i)];
        const double lo = f / ratio / width, hi = f * ratio / width;
        const auto first = static_cast<std::int32_t>(std::ceil(lo));
        const auto last = std::min(static_cast<std::int32_t>(std::floor(hi)), bins - 1);
        double power = 0.0;
        if (f * ratio > 0.5 * sampleRate() && first > bins - 1) {
            m_gridOut[static_cast<std::size_t>(i)] = kFloorDb;
            continue;
        }
        if (first <= last) {
            for (std::int32_t k = first; k <= last; ++k)
                power = std::max(power, static_cast<double>(avg[k]));
        } else {
            const double at = f / width;
            const auto k = std::min(static_cast<std::int32_t>(at), bins - 2);
            const double t = at - k;
            power = (1.0 - t) * avg[k] + t * avg[k + 1];
        }
        m_gridOut[static_cast<std::size_t>(i)] = decibels(power);
    }
    publishReadout(kSpectrum, m_gridOut.data(), kGridPoints);

    // Band power: the bins' powers weighted by how much of each bin lies in
    // the band, over the window's noise bandwidth, so noise reads its power
    // and a sine in the band its level.
    const std::size_t sc = static_cast<std::size_t>(m_config.size), wt = static_cast<std::size_t>(m_config.window);
    const double wsum = m_table->sum[sc][wt];
    const double enbw = wsum > 0.0 ? n * m_table->squares[sc][wt] / (wsum * wsum) : 1.0;
    for (std::int32_t b = 0; b < OctaveBands::kMaxBands; ++b) {
        if (b >= m_bandCount) {
            m_bandOut[static_cast<std::size_t>(b)] = kFloorDb;
            continue;
        }
        const OctaveBands::Band& band = m_bandLayout[static_cast<std::size_t>(b)];
        // Bin k covers (k - 0.5, k + 0.5) in bin units.
        const double lo = band.lower / width + 0.5, hi = band.upper / width + 0.5;
        const auto first = static_cast<std::int32_t>(lo);
        const auto last = std::min(static_cast<std::int32_t>(hi), bins - 1);
        double power = 0.0;
        for (std::int32_t k = first; k <= last; ++k) {
            const double cover = std::min(hi, k + 1.0) - std::max(lo, static_cast<double>(k));
            if (cover > 0.0)
                power += cover * avg[k];
        }
        m_bandOut[static_cast<std::size_t>(b)] = decibels(power / enbw);
    }
    publishReadout(kBands, m_bandOut.data(), OctaveBands::kMaxBands);

    // The strongest bin between DC and Nyquist, refined by a parabola
    // through the dB values around it.
    std::int32_t best = 1;
    for (std::int32_t k = 2; k < bins - 1; ++k)
        if (avg[k] > avg[best])
            best = k;
    const double l = decibels(avg[best - 1]), c = decibels(avg[best]), r = decibels(avg[best + 1]);
    const double den = l - 2.0 * c + r;
    double delta = 0.0;
    if (den < 0.0)
        delta = std::clamp(0.5 * (l - r) / den, -0.5, 0.5);
    publishReadout(kPeakFrequency, static_cast<float>((best + delta) * width));
    publishReadout(kPeakLevel, static_cast<float>(c - 0.25 * (l - r) * delta));
}

void QVDFrequency::render(const QVDBlock& block) noexcept
{
    if (m_ffts.empty())
        return;
    if (m_resetsSeen != m_resetRequests.load(std::memory_order_relaxed)) {
        m_resetsSeen = m_resetRequests.load(std::memory_order_relaxed);
        m_haveAverage = false;
    }
    const Config c = wanted();
    if (!(c == m_config))
        applyConfig(c);
    if (m_layoutDue)
        publishLayout();
    collect(block);

    const std::int32_t n = sizeOf(m_config.size);
    const auto hop = static_cast<std::int64_t>(n * kHopFraction[std::clamp(m_overlap.load(std::memory_order_relaxed), 0, 3)]);
    if (m_filled < n || m_sinceFrame < hop)
        return;
    // One transform per block at most; frames that fell due meanwhile are skipped.
    double elapsed = static_cast<double>(hop);
    if (m_sinceFrame < 2 * hop) {
        m_sinceFrame -= hop;
    } else {
        elapsed = static_cast<double>(m_sinceFrame);
        m_sinceFrame = 0;
    }
    if (!analyse()) {
        clearHistory();
        return;
    }
    average(elapsed);
    publishAll();
}
