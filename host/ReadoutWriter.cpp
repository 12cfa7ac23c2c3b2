#include "ReadoutWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Options.h"

namespace qvdfx {

namespace {

// Readouts are published as floats: nine digits read back exactly and keep
// a long series compact.
std::string number(double v)
{
    if (!std::isfinite(v))
        return "null";
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.9g", v);
    return buffer;
}

constexpr std::size_t kFlushBytes = 1 << 20;

} // namespace

double parseReadoutPeriod(const std::string& text)
{
    const auto v = parseNumber(text);
    if (!v)
        fail(kExitUsage, "--meters-every takes milliseconds of audio (100, 12.5), not '" + text + "'");
    if (*v <= 0.0)
        fail(kExitUsage, "--meters-every must be a positive number of milliseconds, not " + text);
    if (*v < kMinReadoutPeriodMs || *v > kMaxReadoutPeriodMs) {
        char range[96];
        std::snprintf(range, sizeof range, "--meters-every must be %g to %g ms, not ", kMinReadoutPeriodMs,
                      kMaxReadoutPeriodMs);
        fail(kExitUsage, range + text);
    }
    return *v;
}

ReadoutWriter::ReadoutWriter(PluginChain& chain, int rate, int channels, OutputFile* out, double periodMs)
    : m_chain(chain), m_rate(rate), m_out(out), m_offset(static_cast<std::size_t>(channels), nullptr)
{
    for (std::size_t s = 0; s < chain.size(); ++s) {
        const qvd::PluginInstance& p = chain.plugin(s);
        std::vector<Readout> list;
        for (std::int32_t i = 0; i < p.readoutCount(); ++i) {
            Readout r;
            if (!p.readoutInfo(i, &r.info))
                continue;
            r.values.assign(static_cast<std::size_t>(std::max(1, r.info.size)), 0.0);
            list.push_back(std::move(r));
        }
        m_readouts.push_back(std::move(list));
    }
    if (periodMs > 0.0 && out) {
        m_period = std::max<std::int64_t>(1, std::llround(periodMs * rate / 1000.0));
        m_pending = "{\n  \"series\": {\"every_ms\": " + number(periodMs) + ", \"samples\": [";
    }
}

std::string ReadoutWriter::valueJson(std::size_t step, std::size_t index)
{
    Readout& r = m_readouts[step][index];
    const qvd::PluginInstance& p = m_chain.plugin(step);
    const std::int32_t size = p.readReadout(static_cast<std::int32_t>(index), r.values.data(),
                                            static_cast<std::int32_t>(r.values.size()));
    const auto n = std::min(static_cast<std::size_t>(std::max(0, size)), r.values.size());
    if (r.info.kind != qvd::kReadoutArray)
        return number(n ? r.values[0] : std::nan(""));
    std::string json = "[";
    for (std::size_t i = 0; i < n; ++i)
        json += (i ? ", " : "") + number(r.values[i]);
    return json + "]";
}

void ReadoutWriter::sample()
{
    std::string& s = m_pending;
    s += std::string(m_samples ? "," : "") + "\n    {\"time_s\": " +
         number(static_cast<double>(m_fed) / m_rate) + ", \"readouts\": [";
    for (std::size_t step = 0; step < m_readouts.size(); ++step) {
        s += std::string(step ? ", " : "") + "{\"step\": " + std::to_string(step + 1) + ", \"values\": {";
        for (std::size_t i = 0; i < m_readouts[step].size(); ++i)
            s += std::string(i ? ", " : "") + "\"" + jsonEscape(m_readouts[step][i].info.name) +
                 "\": " + valueJson(step, i);
        s += "}}";
    }
    s += "]}";
    ++m_samples;
    if (s.size() >= kFlushBytes)
        flush();
}

void ReadoutWriter::flush()
{
    if (m_out && !m_pending.empty())
        m_out->write(m_pending);
    m_pending.clear();
}

void ReadoutWriter::process(float* const* channels, std::int32_t frames)
{
    if (m_period == 0) {
        m_chain.process(channels, frames);
        m_fed += frames;
        return;
    }
    for (std::int32_t done = 0; done < frames;) {
        const auto due = static_cast<std::int32_t>(
            std::min<std::int64_t>(frames - done, m_period - m_fed % m_period));
        for (std::size_t c = 0; c < m_offset.size(); ++c)
            m_offset[c] = channels[c] + done;
        m_chain.process(m_offset.data(), due);
        m_fed += due;
        done += due;
        if (m_fed % m_period == 0)
            sample();
    }
}

std::vector<std::string> ReadoutWriter::readoutFields()
{
    std::vector<std::string> fields;
    for (std::size_t step = 0; step < m_readouts.size(); ++step) {
        std::string f = "\"readouts\": [";
        for (std::size_t i = 0; i < m_readouts[step].size(); ++i) {
            const qvd::ReadoutInfo& info = m_readouts[step][i].info;
            f += std::string(i ? "," : "") + "\n      {\"name\": \"" + jsonEscape(info.name) + "\", \"unit\": \"" +
                 jsonEscape(info.unit) + "\", \"kind\": \"" +
                 (info.kind == qvd::kReadoutArray ? "array" : "scalar") + "\", \"value\": " + valueJson(step, i) + "}";
        }
        f += m_readouts[step].empty() ? "]" : "\n    ]";
        fields.push_back(std::move(f));
    }
    return fields;
}

void ReadoutWriter::finish()
{
    if (!m_out)
        return;
    if (m_period > 0) {
        m_pending += std::string(m_samples ? "\n  " : "") + "]},\n  " + m_chain.metersFields(readoutFields()) + "\n}\n";
        flush();
    } else {
        m_out->write(m_chain.metersJson(readoutFields()));
    }
}

} // namespace qvdfx
