// qvdfx: runs audio through the plugin library as a host does.
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "PluginLibrary.h"

namespace {

enum ExitCode { kOk = 0, kUsage = 2, kLoad = 3, kPlugin = 4, kIo = 5, kProcess = 6 };

const char* kHelp =
    "usage: qvdfx [--library PATH] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  list [--kind audio|control|all] [--json]   plugins in registry order\n"
    "  params PLUGIN [--json]                     parameter definitions of a plugin\n"
    "  demo [OUT.wav]                             process a built-in test signal through\n"
    "                                             a chain of plugins, print meters and speed\n"
    "\n"
    "PLUGIN is a full key (\"Gain:1364608878\") or an unambiguous display name.\n"
    "--library PATH loads the plugin library from PATH instead of next to qvdfx.\n"
    "\n"
    "exit codes: 0 success, 2 bad usage, 3 library not loadable, 4 unknown or\n"
    "ambiguous plugin, 5 file error, 6 processing error\n";

struct Plugin {
    qvd::PluginInstance* instance = nullptr;
    AudioPlugin* audio = nullptr;
    ~Plugin()
    {
        if (instance)
            instance->destroy();
    }
};

std::string jsonEscape(const std::string& s)
{
    std::string out;
    for (const char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                out += buffer;
            } else {
                out += c;
            }
        }
    }
    return out;
}

// Resolves a key or an unambiguous display name; prints the error itself.
bool resolvePlugin(qvd::PluginInterface& registry, const std::string& name, std::string& key)
{
    const auto plugins = registry.listPlugins(qvd::kAudioPlugin);
    if (plugins.count(name)) {
        key = name;
        return true;
    }
    std::vector<std::string> candidates;
    for (const auto& [k, info] : plugins) {
        if (info.name == name)
            candidates.push_back(k);
    }
    if (candidates.size() == 1) {
        key = candidates.front();
        return true;
    }
    if (candidates.empty()) {
        std::fprintf(stderr, "qvdfx: unknown plugin '%s' (see 'qvdfx list')\n", name.c_str());
    } else {
        std::string list;
        for (const auto& c : candidates)
            list += (list.empty() ? "" : ", ") + c;
        std::fprintf(stderr, "qvdfx: plugin name '%s' is ambiguous: %s\n", name.c_str(), list.c_str());
    }
    return false;
}

int commandList(qvd::PluginInterface& registry, const std::vector<std::string>& args)
{
    bool json = false;
    std::string kind = "audio";
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            json = true;
        } else if (args[i] == "--kind" && i + 1 < args.size()) {
            kind = args[++i];
        } else {
            std::fprintf(stderr, "qvdfx list: unexpected argument '%s'\n", args[i].c_str());
            return kUsage;
        }
    }
    if (kind != "audio" && kind != "control" && kind != "all") {
        std::fprintf(stderr, "qvdfx list: --kind must be audio, control or all, not '%s'\n", kind.c_str());
        return kUsage;
    }
    std::vector<std::pair<const char*, std::map<std::string, qvd::PluginInfo>>> groups;
    if (kind != "control")
        groups.emplace_back("audio", registry.listPlugins(qvd::kAudioPlugin));
    if (kind != "audio")
        groups.emplace_back("control", registry.listPlugins(qvd::kControlPlugin));
    if (json) {
        std::printf("[");
        bool first = true;
        for (const auto& [k, plugins] : groups) {
            for (const auto& [key, info] : plugins) {
                std::printf("%s\n  {\"kind\": \"%s\", \"key\": \"%s\", \"name\": \"%s\", \"channels\": %d, \"flags\": %d}",
                            first ? "" : ",", k, jsonEscape(key).c_str(), jsonEscape(info.name).c_str(),
                            info.channels, info.flags);
                first = false;
            }
        }
        std::printf("\n]\n");
        return kOk;
    }
    for (const auto& [k, plugins] : groups) {
        for (const auto& [key, info] : plugins)
            std::printf("%-8s %-34s %-26s %3d ch  flags %d\n", k, key.c_str(), info.name.c_str(), info.channels,
                        info.flags);
    }
    return kOk;
}

const char* kindName(std::int32_t kind)
{
    switch (kind) {
    case qvd::kContinuous: return "continuous";
    case qvd::kSwitch: return "switch";
    case qvd::kList: return "list";
    default: return "unknown";
    }
}

const char* scaleName(std::int32_t scale)
{
    switch (scale) {
    case qvd::kLinear: return "linear";
    case qvd::kLogarithmic: return "log";
    case qvd::kValueTable: return "table";
    default: return "unknown";
    }
}

int commandParams(qvd::PluginInterface& registry, const std::vector<std::string>& args)
{
    std::string name;
    bool json = false;
    for (const auto& a : args) {
        if (a == "--json")
            json = true;
        else if (name.empty())
            name = a;
        else {
            std::fprintf(stderr, "qvdfx params: unexpected argument '%s'\n", a.c_str());
            return kUsage;
        }
    }
    if (name.empty()) {
        std::fprintf(stderr, "qvdfx params: name a plugin\n");
        return kUsage;
    }
    std::string key;
    if (!resolvePlugin(registry, name, key))
        return kPlugin;
    Plugin plugin;
    plugin.instance = registry.createPlugin(qvd::kAudioPlugin, key.c_str());
    if (!plugin.instance) {
        std::fprintf(stderr, "qvdfx: cannot create '%s'\n", key.c_str());
        return kPlugin;
    }
    const std::int32_t count = plugin.instance->parameterCount();
    if (json)
        std::printf("{\"key\": \"%s\", \"parameters\": [", jsonEscape(key).c_str());
    for (std::int32_t i = 0; i < count; ++i) {
        qvd::ParameterInfo p;
        plugin.instance->parameterInfo(i, &p);
        if (json) {
            std::string options;
            for (const auto& o : p.options)
                options += (options.empty() ? "\"" : ", \"") + jsonEscape(o) + "\"";
            std::printf("%s\n  {\"index\": %d, \"identifier\": \"%s\", \"label\": \"%s\", \"kind\": \"%s\", "
                        "\"scale\": \"%s\", \"min\": %.9g, \"max\": %.9g, \"default\": %.9g, \"step\": %.9g, "
                        "\"unit\": \"%s\", \"options\": [%s]}",
                        i ? "," : "", p.index, jsonEscape(p.identifier).c_str(), jsonEscape(p.label).c_str(),
                        kindName(p.kind), scaleName(p.scale), p.minimum, p.maximum, p.defaultValue, p.step,
                        jsonEscape(p.unit).c_str(), options.c_str());
        } else {
            std::printf("%3d  %-28s %-12s %-10s %-6s %10g %10g  default %g  step %g %s\n", p.index,
                        p.identifier.c_str(), p.label.c_str(), kindName(p.kind), scaleName(p.scale), p.minimum,
                        p.maximum, p.defaultValue, p.step, p.unit.c_str());
            if (!p.options.empty()) {
                std::string options;
                for (std::size_t o = 0; o < p.options.size(); ++o)
                    options += (o ? ", " : "") + std::to_string(o) + " " + p.options[o];
                std::printf("     options: %s\n", options.c_str());
            }
        }
    }
    if (json)
        std::printf("\n]}\n");
    return kOk;
}

// A few bars of a plucked A-major arpeggio over a soft noise bed, stereo.
std::vector<std::vector<float>> demoSignal(int rate, double seconds)
{
    const std::size_t frames = static_cast<std::size_t>(rate * seconds);
    std::vector<std::vector<float>> out(2, std::vector<float>(frames, 0.0f));
    const double notes[] = {220.0, 277.18, 329.63, 440.0, 329.63, 277.18};
    const double noteLength = 0.25;
    std::mt19937 rng(20261121);
    std::normal_distribution<float> noise(0.0f, 0.004f);
    for (std::size_t n = 0; n < frames; ++n) {
        const double t = static_cast<double>(n) / rate;
        const auto index = static_cast<std::size_t>(t / noteLength);
        const double local = t - static_cast<double>(index) * noteLength;
        const double f = notes[index % std::size(notes)];
        double v = 0.0;
        for (int h = 1; h <= 4; ++h)
            v += std::sin(2.0 * std::numbers::pi * f * h * t) / (h * h);
        v *= 0.3 * std::exp(-local * 9.0);
        // Pan the notes gently left and right.
        const double pan = 0.5 + 0.35 * std::sin(2.0 * std::numbers::pi * 0.25 * t);
        out[0][n] = static_cast<float>(v * (1.0 - pan)) + noise(rng);
        out[1][n] = static_cast<float>(v * pan) + noise(rng);
    }
    return out;
}

bool writeWav(const std::string& path, const std::vector<std::vector<float>>& channels, int rate)
{
    const std::string tmp = path + ".part";
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = static_cast<int>(channels.size());
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(tmp.c_str(), SFM_WRITE, &info);
    if (!file) {
        std::fprintf(stderr, "qvdfx: cannot write '%s': %s\n", path.c_str(), sf_strerror(nullptr));
        return false;
    }
    const std::size_t frames = channels.empty() ? 0 : channels[0].size();
    std::vector<float> interleaved(frames * channels.size());
    for (std::size_t n = 0; n < frames; ++n) {
        for (std::size_t c = 0; c < channels.size(); ++c)
            interleaved[n * channels.size() + c] = channels[c][n];
    }
    const sf_count_t written = sf_writef_float(file, interleaved.data(), static_cast<sf_count_t>(frames));
    const bool ok = written == static_cast<sf_count_t>(frames) && sf_close(file) == 0;
    std::error_code ec;
    if (!ok || (std::filesystem::rename(tmp, path, ec), ec)) {
        std::filesystem::remove(tmp, ec);
        std::fprintf(stderr, "qvdfx: cannot write '%s'\n", path.c_str());
        return false;
    }
    return true;
}

struct DemoStep {
    const char* key;
    std::vector<std::pair<const char*, float>> settings;
};

int commandDemo(qvd::PluginInterface& registry, const std::vector<std::string>& args)
{
    if (args.size() > 1) {
        std::fprintf(stderr, "qvdfx demo: at most one output file\n");
        return kUsage;
    }
    const int rate = 48000;
    const int blockSize = 512;
    const double seconds = 6.0;
    auto audio = demoSignal(rate, seconds);
    const auto frames = static_cast<std::int32_t>(audio[0].size());

    // The chain grows as plugins land; steps whose plugin is missing are skipped.
    const std::vector<DemoStep> chain = {
        {"Gain:1364608878", {{"QVDGain::GAIN", -6.0f}}},
        {"Gain:1364608878", {{"QVDGain::GAIN", 4.5f}}},
    };

    std::vector<std::unique_ptr<Plugin>> plugins;
    const qvd::PrepareConfig config{qvd::kFormatStereo, qvd::kFormatStereo, 1, 1};
    for (const DemoStep& step : chain) {
        auto plugin = std::make_unique<Plugin>();
        plugin->instance = registry.createPlugin(qvd::kAudioPlugin, step.key);
        if (!plugin->instance)
            continue;
        plugin->audio = plugin->instance->getAudioInterface();
        for (const auto& [id, value] : step.settings)
            plugin->audio->setParameterByIdentifier(id, value);
        plugins.push_back(std::move(plugin));
    }
    // Prepared after every setting is made: smoothing, which prepare switches
    // on for the process, then only ramps the changes made while playing.
    for (const auto& plugin : plugins) {
        if (!plugin->audio->prepare(static_cast<float>(rate), blockSize, &config)) {
            std::fprintf(stderr, "qvdfx demo: %s refused to prepare\n", plugin->instance->pluginKey());
            return kProcess;
        }
    }
    if (plugins.empty()) {
        std::fprintf(stderr, "qvdfx demo: none of the demo's plugins is registered\n");
        return kPlugin;
    }

    std::vector<std::vector<double>> held(plugins.size() * 2);
    qvd::BlockRecord block{};
    block.mode = qvd::kModePlaying;
    const auto start = std::chrono::steady_clock::now();
    for (std::int32_t done = 0; done < frames; done += blockSize) {
        const std::int32_t n = std::min(blockSize, frames - done);
        // Halfway through, the second stage rides its gain down, smoothed.
        if (done <= frames / 2 && done + n > frames / 2 && plugins.size() > 1)
            plugins[1]->audio->setParameterByIdentifier("QVDGain::GAIN", -3.0f);
        float* io[2] = {audio[0].data() + done, audio[1].data() + done};
        block.position = done;
        for (std::size_t p = 0; p < plugins.size(); ++p) {
            if (!plugins[p]->audio->process(&block, io, io, n)) {
                std::fprintf(stderr, "qvdfx demo: processing failed in %s\n", plugins[p]->instance->pluginKey());
                return kProcess;
            }
            for (std::int32_t g = 0; g < std::min(2, plugins[p]->instance->meterGroupCount()); ++g) {
                double values[64];
                const std::int32_t count = std::min(64, plugins[p]->instance->getMeterValues(g, values, 64));
                auto& h = held[p * 2 + static_cast<std::size_t>(g)];
                h.resize(static_cast<std::size_t>(count), -100.0);
                for (std::int32_t i = 0; i < count; ++i)
                    h[static_cast<std::size_t>(i)] = std::max(h[static_cast<std::size_t>(i)], values[i]);
            }
        }
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::printf("demo: %.1f s of stereo audio at %d Hz in blocks of %d through %zu plugins\n", seconds, rate,
                blockSize, plugins.size());
    for (std::size_t p = 0; p < plugins.size(); ++p) {
        std::printf("  %zu. %s\n", p + 1, plugins[p]->instance->pluginKey());
        for (std::int32_t g = 0; g < std::min(2, plugins[p]->instance->meterGroupCount()); ++g) {
            std::printf("     %-7s peak", plugins[p]->instance->meterGroupName(g));
            for (const double v : held[p * 2 + static_cast<std::size_t>(g)])
                std::printf(" %7.2f dB", v);
            std::printf("\n");
        }
    }
    std::printf("speed: %.3f ms of CPU for %.1f s of audio, real-time factor %.0fx\n", elapsed * 1e3, seconds,
                elapsed > 0.0 ? seconds / elapsed : 0.0);
    if (!args.empty()) {
        if (!writeWav(args[0], audio, rate))
            return kIo;
        std::printf("wrote %s\n", args[0].c_str());
    }
    return kOk;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string libraryPath = qvdfx::PluginLibrary::defaultPath();
    if (args.size() >= 2 && args[0] == "--library") {
        libraryPath = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        std::fputs(kHelp, args.empty() ? stderr : stdout);
        return args.empty() ? kUsage : kOk;
    }
    const std::string command = args[0];
    args.erase(args.begin());
    if (command != "list" && command != "params" && command != "demo") {
        std::fprintf(stderr, "qvdfx: unknown command '%s' (see 'qvdfx --help')\n", command.c_str());
        return kUsage;
    }

    qvdfx::PluginLibrary library(libraryPath);
    if (!library.registry()) {
        std::fprintf(stderr, "qvdfx: %s\n", library.error().c_str());
        return kLoad;
    }
    static qvdfx::HostServices services;
    library.registry()->setHostContext(nullptr);
    library.registry()->setHostServices(&services);

    if (command == "list")
        return commandList(*library.registry(), args);
    if (command == "params")
        return commandParams(*library.registry(), args);
    return commandDemo(*library.registry(), args);
}
