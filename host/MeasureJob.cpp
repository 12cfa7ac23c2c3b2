#include "MeasureJob.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "AudioFile.h"
#include "Progress.h"

namespace qvdfx {

namespace {

constexpr const char* kMeterKey = "Loudness Meter";
constexpr double kAbsoluteGate = -70.0; // LUFS
constexpr double kIntegratedGate = -10.0; // LU
constexpr double kRangeGate = -20.0;      // LU
constexpr std::int32_t kMomentarySteps = 4;
constexpr std::int32_t kShortTermSteps = 30;
// Frames decoded at a time: large enough that per-call costs vanish, small
// enough to stay in the cache.
constexpr std::int64_t kDecodeFrames = 1 << 15;

double energyOf(double lufs)
{
    return std::pow(10.0, (lufs + 0.691) / 10.0);
}

double loudnessOf(double energy)
{
    return energy > 0.0 ? -0.691 + 10.0 * std::log10(energy) : -std::numeric_limits<double>::infinity();
}

std::string level(double v, const char* unit)
{
    char buffer[64];
    if (std::isfinite(v))
        std::snprintf(buffer, sizeof buffer, "%.1f %s", v, unit);
    else
        std::snprintf(buffer, sizeof buffer, "%s %s", v < 0 ? "-inf" : "nan", unit);
    return buffer;
}

std::string perChannel(const std::vector<double>& values, const char* unit)
{
    std::string s;
    for (std::size_t c = 0; c < values.size(); ++c)
        s += (c ? ", " : "") + std::string("ch ") + std::to_string(c + 1) + " " + level(values[c], unit);
    return s;
}

std::string numbers(const std::vector<double>& values)
{
    std::string s = "[";
    for (std::size_t c = 0; c < values.size(); ++c)
        s += (c ? ", " : "") + jsonNumber(values[c]);
    return s + "]";
}

} // namespace

LoudnessAnalyzer::LoudnessAnalyzer(qvd::PluginInterface& registry, int rate, int channels)
    : m_rate(rate), m_channels(channels), m_step(std::max(1, (rate + 5) / 10))
{
    const std::string key = resolvePluginKey(registry, kMeterKey);
    m_meter = std::make_unique<PluginHandle>(registry.createPlugin(qvd::kAudioPlugin, key.c_str()));
    if (!m_meter->instance)
        fail(kExitPlugin, "cannot create plugin '" + key + "'");
    const std::int32_t format = qvd::formatForChannels(channels);
    const qvd::PrepareConfig config{format, format, 0, 1};
    if (!m_meter->audio()->setChannelFormats(format, format))
        fail(kExitProcess, "the Loudness Meter measures up to " +
                               std::to_string(registry.listPlugins(qvd::kAudioPlugin).at(key).channels) +
                               " channels, not " + std::to_string(channels));
    if (!m_meter->audio()->prepare(static_cast<float>(rate), m_step, &config))
        fail(kExitProcess, "the Loudness Meter refused to prepare at " + std::to_string(rate) + " Hz");
    m_momentary = readoutIndex("Momentary", 1);
    m_shortTerm = readoutIndex("Short-Term", 1);
    m_integrated = readoutIndex("Integrated", 1);
    m_range = readoutIndex("Loudness Range", 1);
    m_maxMomentary = readoutIndex("Max Momentary", 1);
    m_maxShortTerm = readoutIndex("Max Short-Term", 1);
    m_truePeak = readoutIndex("True Peak", channels);
    m_samplePeak = readoutIndex("Sample Peak", channels);
    m_scratch.assign(static_cast<std::size_t>(channels), std::vector<float>(static_cast<std::size_t>(m_step)));
    m_in.assign(static_cast<std::size_t>(channels), nullptr);
    for (auto& c : m_scratch)
        m_out.push_back(c.data());
    m_peaks.assign(static_cast<std::size_t>(std::max(channels, 1)), 0.0);
    m_block.mode = qvd::kModePlaying;
    m_block.position = 0;
}

std::int32_t LoudnessAnalyzer::readoutIndex(const char* name, std::int32_t size) const
{
    const qvd::PluginInstance& p = *m_meter->instance;
    for (std::int32_t i = 0; i < p.readoutCount(); ++i) {
        qvd::ReadoutInfo info;
        if (p.readoutInfo(i, &info) && info.name == name && info.size >= size)
            return i;
    }
    fail(kExitPlugin, std::string("the Loudness Meter publishes no readout '") + name + "' of " +
                          std::to_string(size) + " values");
}

double LoudnessAnalyzer::scalar(std::int32_t index) const
{
    double v = 0.0;
    return m_meter->instance->readReadout(index, &v, 1) > 0 ? v : std::nan("");
}

void LoudnessAnalyzer::feed(const float* const* channels, std::int64_t frames)
{
    for (std::int64_t done = 0; done < frames;) {
        // Up to the meter's next step, so every step's windows can be read.
        const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(frames - done, m_step - m_frames % m_step));
        for (std::size_t c = 0; c < m_in.size(); ++c)
            m_in[c] = channels[c] + done;
        if (!m_meter->audio()->process(&m_block, m_in.data(), m_out.data(), n))
            fail(kExitProcess, "the Loudness Meter failed to process");
        m_block.position += n;
        m_frames += n;
        done += n;
        if (m_frames % m_step != 0)
            continue;
        ++m_steps;
        // The meter's gating blocks are its whole 400 ms and 3 s windows.
        if (m_steps >= kMomentarySteps) {
            const double m = scalar(m_momentary);
            if (m > kAbsoluteGate) {
                m_blockEnergy += energyOf(m);
                ++m_blockCount;
            }
        }
        if (m_steps >= kShortTermSteps) {
            const double s = scalar(m_shortTerm);
            if (s > kAbsoluteGate) {
                m_windowEnergy += energyOf(s);
                ++m_windowCount;
            }
        }
    }
}

LoudnessFigures LoudnessAnalyzer::figures() const
{
    LoudnessFigures f;
    f.rate = m_rate;
    f.channels = m_channels;
    f.frames = m_frames;
    const double minusInf = -std::numeric_limits<double>::infinity();
    f.integrated = m_blockCount ? scalar(m_integrated) : minusInf;
    f.range = scalar(m_range);
    f.integratedThreshold =
        m_blockCount ? loudnessOf(m_blockEnergy / static_cast<double>(m_blockCount)) + kIntegratedGate : minusInf;
    f.rangeThreshold =
        m_windowCount ? loudnessOf(m_windowEnergy / static_cast<double>(m_windowCount)) + kRangeGate : minusInf;
    f.maxMomentary = scalar(m_maxMomentary);
    f.maxShortTerm = scalar(m_maxShortTerm);
    std::vector<double> peaks(m_peaks.size() + 64);
    const auto readPeaks = [&](std::int32_t index) {
        const std::int32_t n = m_meter->instance->readReadout(index, peaks.data(), static_cast<std::int32_t>(peaks.size()));
        std::vector<double> out(peaks.begin(), peaks.begin() + std::min<std::int32_t>(n, m_channels));
        out.resize(static_cast<std::size_t>(m_channels), minusInf);
        return out;
    };
    f.truePeaks = readPeaks(m_truePeak);
    f.samplePeaks = readPeaks(m_samplePeak);
    f.truePeak = f.samplePeak = minusInf;
    for (int c = 0; c < m_channels; ++c) {
        f.truePeak = std::max(f.truePeak, f.truePeaks[static_cast<std::size_t>(c)]);
        f.samplePeak = std::max(f.samplePeak, f.samplePeaks[static_cast<std::size_t>(c)]);
    }
    return f;
}

LoudnessFigures measureFile(qvd::PluginInterface& registry, const std::string& path, bool quiet,
                            const std::string& label)
{
    AudioReader reader(path);
    const int channels = reader.channels();
    LoudnessAnalyzer analyzer(registry, reader.rate(), channels);
    std::vector<float> interleaved(static_cast<std::size_t>(kDecodeFrames * channels));
    std::vector<std::vector<float>> planar(static_cast<std::size_t>(channels),
                                           std::vector<float>(static_cast<std::size_t>(kDecodeFrames)));
    std::vector<const float*> pointers;
    for (const auto& c : planar)
        pointers.push_back(c.data());
    Progress progress(label, reader.frames() < 0 ? 0 : reader.frames(), quiet);
    std::int64_t total = 0;
    for (;;) {
        const std::int64_t n = reader.read(interleaved.data(), kDecodeFrames);
        if (n == 0)
            break;
        const auto c = static_cast<std::size_t>(channels);
        if (c == 2) {
            float* l = planar[0].data();
            float* r = planar[1].data();
            for (std::int64_t i = 0; i < n; ++i) {
                l[i] = interleaved[static_cast<std::size_t>(2 * i)];
                r[i] = interleaved[static_cast<std::size_t>(2 * i + 1)];
            }
        } else {
            for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i)
                for (std::size_t k = 0; k < c; ++k)
                    planar[k][i] = interleaved[i * c + k];
        }
        analyzer.feed(pointers.data(), n);
        total += n;
        progress.update(total);
    }
    progress.finish();
    if (reader.frames() >= 0 && total < reader.frames())
        fail(kExitFile, "'" + path + "' ends after " + std::to_string(total) + " of " +
                            std::to_string(reader.frames()) + " frames");
    return analyzer.figures();
}

std::string loudnessText(const LoudnessFigures& f, const std::string& indent)
{
    std::string s;
    const auto line = [&](const char* name, const std::string& value) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%-20s ", name);
        s += indent + buffer + value + "\n";
    };
    line("integrated:", level(f.integrated, "LUFS"));
    line("threshold:", level(f.integratedThreshold, "LUFS") + " (relative gate of the integrated loudness)");
    line("loudness range:", level(f.range, "LU"));
    line("range threshold:", level(f.rangeThreshold, "LUFS") + " (relative gate of the range)");
    line("max momentary:", level(f.maxMomentary, "LUFS"));
    line("max short-term:", level(f.maxShortTerm, "LUFS"));
    line("true peak:", level(f.truePeak, "dBTP") + (f.channels > 1 ? " (" + perChannel(f.truePeaks, "dBTP") + ")" : ""));
    line("sample peak:",
         level(f.samplePeak, "dBFS") + (f.channels > 1 ? " (" + perChannel(f.samplePeaks, "dBFS") + ")" : ""));
    return s;
}

std::string loudnessJson(const LoudnessFigures& f, const std::string& indent)
{
    const std::string n = ",\n" + indent;
    return indent + "\"rate\": " + std::to_string(f.rate) + n + "\"channels\": " + std::to_string(f.channels) + n +
           "\"frames\": " + std::to_string(f.frames) + n + "\"seconds\": " +
           jsonNumber(f.rate ? static_cast<double>(f.frames) / f.rate : 0.0) + n +
           "\"integrated_lufs\": " + jsonNumber(f.integrated) + n +
           "\"integrated_threshold_lufs\": " + jsonNumber(f.integratedThreshold) + n +
           "\"loudness_range_lu\": " + jsonNumber(f.range) + n +
           "\"range_threshold_lufs\": " + jsonNumber(f.rangeThreshold) + n +
           "\"max_momentary_lufs\": " + jsonNumber(f.maxMomentary) + n +
           "\"max_short_term_lufs\": " + jsonNumber(f.maxShortTerm) + n +
           "\"true_peak_dbtp\": " + jsonNumber(f.truePeak) + n +
           "\"true_peak_dbtp_per_channel\": " + numbers(f.truePeaks) + n +
           "\"sample_peak_dbfs\": " + jsonNumber(f.samplePeak) + n +
           "\"sample_peak_dbfs_per_channel\": " + numbers(f.samplePeaks);
}

int commandMeasure(qvd::PluginInterface& registry, Arguments args)
{
    std::string path;
    bool json = false, quiet = false;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--json")
            json = true;
        else if (a == "--quiet" || a == "-q")
            quiet = true;
        else if (path.empty() && (a == "-" || a.rfind("-", 0) != 0))
            path = a;
        else
            args.unexpected(a);
    }
    if (path.empty())
        fail(kExitUsage, "measure: give a file to measure (qvdfx measure FILE [--json])");
    const LoudnessFigures f = measureFile(registry, path, quiet, "measuring");
    std::string out;
    if (json) {
        out = "{\n  \"file\": \"" + jsonEscape(path) + "\",\n" + loudnessJson(f, "  ") + "\n}\n";
    } else {
        char head[128];
        std::snprintf(head, sizeof head, ": %d Hz, %d channel%s, %.3f s\n", f.rate, f.channels,
                      f.channels == 1 ? "" : "s", f.rate ? static_cast<double>(f.frames) / f.rate : 0.0);
        out = path + head + loudnessText(f, "  ");
    }
    std::fputs(out.c_str(), stdout);
    return kExitOk;
}

} // namespace qvdfx
