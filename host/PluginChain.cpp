#include "PluginChain.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "Options.h"

namespace qvdfx {

namespace {
std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}
} // namespace

std::string resolvePluginKey(qvd::PluginInterface& registry, const std::string& name)
{
    const auto plugins = registry.listPlugins(qvd::kAudioPlugin);
    if (plugins.count(name))
        return name;
    std::vector<std::string> candidates;
    for (const auto& [key, info] : plugins) {
        if (info.name == name)
            candidates.push_back(key);
    }
    if (candidates.empty()) {
        for (const auto& [key, info] : plugins) {
            if (lower(info.name) == lower(name))
                candidates.push_back(key);
        }
    }
    if (candidates.size() == 1)
        return candidates.front();
    if (candidates.empty())
        fail(kExitPlugin, "unknown plugin '" + name + "' (see 'qvdfx list')");
    std::string list;
    for (const auto& c : candidates)
        list += (list.empty() ? "" : ", ") + c;
    fail(kExitPlugin, "plugin name '" + name + "' is ambiguous: " + list);
}

PluginHandle::~PluginHandle()
{
    if (instance)
        instance->destroy();
}

std::int32_t resolveParameter(const qvd::PluginInstance& plugin, const std::string& name)
{
    const std::int32_t count = plugin.parameterCount();
    std::vector<std::int32_t> shortMatches;
    for (std::int32_t i = 0; i < count; ++i) {
        qvd::ParameterInfo info;
        plugin.parameterInfo(i, &info);
        if (info.identifier == name)
            return i;
        const auto colons = info.identifier.rfind("::");
        const std::string tail = colons == std::string::npos ? info.identifier : info.identifier.substr(colons + 2);
        if (lower(tail) == lower(name))
            shortMatches.push_back(i);
    }
    if (shortMatches.size() == 1)
        return shortMatches.front();
    if (!name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c); })) {
        const long index = std::strtol(name.c_str(), nullptr, 10);
        if (index < count)
            return static_cast<std::int32_t>(index);
    }
    fail(kExitPlugin, std::string("plugin '") + plugin.pluginKey() + "' has no parameter '" + name +
                          "' (see 'qvdfx params " + plugin.pluginKey() + "')");
}

float resolveValue(const qvd::PluginInstance& plugin, std::int32_t index, const std::string& value, bool force)
{
    qvd::ParameterInfo info;
    plugin.parameterInfo(index, &info);
    double v = 0.0;
    if (const auto number = parseNumber(value)) {
        v = *number;
    } else {
        const auto it = std::find_if(info.options.begin(), info.options.end(),
                                     [&](const std::string& o) { return lower(o) == lower(value); });
        if (it == info.options.end()) {
            std::string hint = "a number";
            if (!info.options.empty()) {
                hint += " or one of";
                for (const auto& o : info.options)
                    hint += " '" + o + "'";
            }
            fail(kExitUsage, "value '" + value + "' for " + info.identifier + " is not " + hint);
        }
        v = static_cast<double>(it - info.options.begin());
    }
    // Compared as the float the plugin gets: 0.3 as a double is below 0.3f.
    const auto f = static_cast<float>(v);
    if (!std::isfinite(f))
        fail(kExitUsage, "value '" + value + "' for " + info.identifier + " is too large for a parameter");
    if (!force && (f < info.minimum || f > info.maximum))
        fail(kExitPlugin, info.identifier + " = " + value + " is outside its range " + floatText(info.minimum) +
                              " to " + floatText(info.maximum) + (info.unit.empty() ? "" : " " + info.unit) +
                              " (--force sets it anyway)");
    return f;
}

PluginChain::PluginChain(qvd::PluginInterface& registry, const std::vector<StepSpec>& steps, bool force)
{
    for (const StepSpec& step : steps) {
        const std::string key = resolvePluginKey(registry, step.plugin);
        qvd::PluginInstance* instance = registry.createPlugin(qvd::kAudioPlugin, key.c_str());
        if (!instance)
            fail(kExitPlugin, "cannot create plugin '" + key + "'");
        m_steps.push_back(std::make_unique<PluginHandle>(instance));
        for (const auto& [name, value] : step.settings) {
            const std::int32_t index = resolveParameter(*instance, name);
            instance->setParameter(index, resolveValue(*instance, index, value, force));
        }
    }
}

void PluginChain::prepare(int rate, int channels, int blockSize, bool smoothing, bool bypass)
{
    m_meters.clear();
    for (const auto& step : m_steps) {
        qvd::PluginInstance& p = *step->instance;
        const auto plugins = std::string(p.pluginKey());
        const qvd::PrepareConfig config{qvd::formatForChannels(channels), qvd::formatForChannels(channels),
                                        smoothing ? 1 : 0, 1};
        if (!step->audio()->setChannelFormats(config.inputFormat, config.outputFormat))
            fail(kExitProcess, "plugin '" + plugins + "' does not accept " + std::to_string(channels) + " channels");
        if (!step->audio()->prepare(static_cast<float>(rate), blockSize, &config))
            fail(kExitProcess, "plugin '" + plugins + "' refused to prepare at " + std::to_string(rate) +
                                   " Hz with blocks of " + std::to_string(blockSize));
        step->audio()->setBypass(bypass);
        std::vector<Meters> groups;
        for (std::int32_t g = 0; g < p.meterGroupCount(); ++g) {
            Meters m;
            const char* name = p.meterGroupName(g);
            m.name = name ? name : std::to_string(g);
            const auto size = static_cast<std::size_t>(std::max(0, p.getMeterValues(g, nullptr, 0)));
            m.held.assign(size, -100.0);
            m.scratch.assign(size, -100.0);
            groups.push_back(std::move(m));
        }
        m_meters.push_back(std::move(groups));
    }
    m_block = qvd::BlockRecord{};
    m_block.mode = qvd::kModePlaying;
    m_block.position = 0;
}

void PluginChain::process(float* const* channels, std::int32_t frames)
{
    for (std::size_t s = 0; s < m_steps.size(); ++s) {
        AudioPlugin* audio = m_steps[s]->audio();
        if (!audio->process(&m_block, channels, channels, frames))
            fail(kExitProcess, std::string("plugin '") + m_steps[s]->instance->pluginKey() + "' failed to process");
        auto& groups = m_meters[s];
        for (std::size_t g = 0; g < groups.size(); ++g) {
            Meters& m = groups[g];
            const auto n = static_cast<std::int32_t>(m.scratch.size());
            m_steps[s]->instance->getMeterValues(static_cast<std::int32_t>(g), m.scratch.data(), n);
            for (std::size_t i = 0; i < m.held.size(); ++i)
                m.held[i] = std::max(m.held[i], m.scratch[i]);
        }
    }
    m_block.position += frames;
}

std::uint64_t PluginChain::latency() const
{
    std::uint64_t total = 0;
    for (const auto& step : m_steps)
        total += step->instance->getLatency();
    return total;
}

std::string PluginChain::metersJson(const std::vector<std::string>& stepFields) const
{
    return "{\n  " + metersFields(stepFields) + "\n}\n";
}

std::string PluginChain::metersFields(const std::vector<std::string>& stepFields) const
{
    std::string json = "\"unit\": \"dB\",\n  \"plugins\": [";
    for (std::size_t s = 0; s < m_steps.size(); ++s) {
        json += std::string(s ? "," : "") + "\n    {\"step\": " + std::to_string(s + 1) + ", \"key\": \"" +
                jsonEscape(m_steps[s]->instance->pluginKey()) + "\", \"meters\": {";
        const auto& groups = s < m_meters.size() ? m_meters[s] : std::vector<Meters>{};
        for (std::size_t g = 0; g < groups.size(); ++g) {
            json += std::string(g ? ", " : "") + "\"" + jsonEscape(groups[g].name) + "\": [";
            for (std::size_t i = 0; i < groups[g].held.size(); ++i)
                json += std::string(i ? ", " : "") + jsonNumber(groups[g].held[i]);
            json += "]";
        }
        json += "}";
        if (s < stepFields.size() && !stepFields[s].empty())
            json += ", " + stepFields[s];
        json += "}";
    }
    json += "\n  ]";
    return json;
}

} // namespace qvdfx
