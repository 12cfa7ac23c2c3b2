// qvdfx: runs audio files through the plugin library as a host does.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "AudioFile.h"
#include "Options.h"
#include "OutputFile.h"
#include "PluginChain.h"
#include "PluginLibrary.h"
#include "Progress.h"
#include "LoudnormJob.h"
#include "MeasureJob.h"
#include "Qvdfx.h"
#include "ReadoutWriter.h"
#include "Render.h"
#include "SignalGenerator.h"

using namespace qvdfx;

namespace {

const char* kHelp =
    "usage: qvdfx [--library PATH] [--isa LEVEL] COMMAND [ARGS]\n"
    "\n"
    "Runs audio through the plugins of libQVDAudioPlugins.so, loaded the way a\n"
    "host loads it (by default from the folder qvdfx is in).\n"
    "\n"
    "commands:\n"
    "  info [--json]\n"
    "      the library, its interface version, the processor's features, the\n"
    "      instruction-set level kernels are chosen at, and the variant each\n"
    "      kernel family runs\n"
    "  list [--kind audio|control|all] [--json]\n"
    "      registered plugins in registry order: key, name, channels, flags\n"
    "  params PLUGIN [--json]\n"
    "      parameter definitions: index, identifier, label, kind, scale, range,\n"
    "      default, step, unit and option labels\n"
    "  process IN OUT -p PLUGIN [--set NAME=VALUE ...] [-p PLUGIN [--set ...]] ...\n"
    "          [--block N] [--smoothing on|off] [--bypass] [--meters FILE.json]\n"
    "          [--tail SECONDS] [--format float|pcm16|pcm24] [--tempo BPM[/N/D]] [--force] [--quiet]\n"
    "          [--meters-every MS]\n"
    "          [--sidechain FILE] [--source NAME=FILE ...]\n"
    "      runs IN through the chain block by block and writes OUT at IN's rate\n"
    "      and channel count, latency-compensated: OUT lines up with IN sample for\n"
    "      sample and is as long (plus --tail). NAME is a full identifier\n"
    "      (QVDGain::GAIN), the part after the colons (GAIN) or an index; VALUE is\n"
    "      a number in the parameter's units or an option label. Values outside a\n"
    "      parameter's range are refused unless --force. IN or OUT may be '-': a\n"
    "      WAV stream on standard input (read to its end) or standard output.\n"
    "      Defaults: --block 512,\n"
    "      --smoothing on (off makes every setting exact from the first sample;\n"
    "      settings made before processing are exact either way), --format float.\n"
    "      --meters writes every meter of every plugin, peak-held over the file, in\n"
    "      dB, and every readout (loudness, gain reduction, spectra ...) with its unit\n"
    "      as it stands at the end. --meters-every MS adds a series: the readouts\n"
    "      every MS milliseconds of audio fed in (1 to 3600000, fractions allowed),\n"
    "      as {time_s, readouts} samples, streamed to the file as they are taken.\n"
    "      --tempo gives plugins that sync to note values a tempo (and a time\n"
    "      signature, 4/4 unless given as 96/3/4) for the whole file.\n"
    "      --sidechain FILE is the side-chain of every plugin that asks for one\n"
    "      (a ducker's key); --source NAME=FILE supplies any named source\n"
    "      (sidechain, monitor, stem:vocals). Sources are read whole before\n"
    "      processing, must have IN's rate, line up with the audio each plugin\n"
    "      sees (the latency of the plugins before it is compensated), read as\n"
    "      silence past their end, and repeat their last channel when a plugin\n"
    "      asks for more channels than they have.\n"
    "  measure FILE [--json] [--quiet]\n"
    "      the loudness of FILE as the Loudness Meter plugin measures it (BS.1770\n"
    "      K-weighting and gating, 100 ms steps): integrated loudness (LUFS) and its\n"
    "      relative gate (threshold), loudness range (LU) and its gate, the maximum\n"
    "      momentary and short-term loudness, true peak (dBTP, 4x oversampled) and\n"
    "      sample peak (dBFS), overall and per channel; up to 32 channels, LFE\n"
    "      unweighted. FILE may be '-'. Silence reads -inf (null in JSON).\n"
    "  loudnorm IN OUT [--target LUFS] [--true-peak DBTP] [--lra LU] [--format ...]\n"
    "           [--json] [--quiet]\n"
    "      normalises IN to --target integrated loudness in two passes: measure,\n"
    "      then one gain for the whole file. When that gain would lift the true\n"
    "      peak over --true-peak, the Limiter plugin runs in true-peak mode at that\n"
    "      ceiling, its latency compensated: OUT lines up with IN and is as long.\n"
    "      OUT is measured as it is written; a limited result off the target by\n"
    "      more than 0.1 LU or over the ceiling is rendered again with corrected\n"
    "      gain and limiter ceiling before it is put in place, and one whose peaks\n"
    "      cannot be held is not written; a target out of reach under the ceiling\n"
    "      is written as near as 6 passes get, with a warning. The report gives\n"
    "      both measurements.\n"
    "      --lra does not compress the loudness range: it is reported, with a\n"
    "      warning when the input or output range is wider. IN and OUT are files\n"
    "      (IN is read twice). Defaults: --target -16 (-70 to -5), --true-peak -1\n"
    "      (-20 to 0), --format float.\n"
    "  gen OUT --signal sine|sweep|noise|pink|impulse|silence [--freq F] [--level DBFS]\n"
    "          [--seconds S] [--rate R] [--channels C] [--seed N] [--format ...]\n"
    "      deterministic test signals. --level is the peak for sine, sweep and\n"
    "      impulse and the RMS for noise and pink. Defaults: 1000 Hz, -12 dBFS, 1 s,\n"
    "      48000 Hz, 2 channels, seed 1. A sweep runs from --freq to 0.45 x rate.\n"
    "  demo [OUT]\n"
    "      processes a built-in test signal through a chain of the plugins, prints\n"
    "      the meters and the real-time factor, and writes OUT if given (the\n"
    "      report goes to stderr when OUT is '-')\n"
    "  panel PLUGIN OUT.png [--set NAME=VALUE ...] [--rate R]\n"
    "      renders the plugin's editor panel offscreen to a PNG file\n"
    "  response PLUGIN [--set NAME=VALUE ...] [--rate R] [--points N] [--json]\n"
    "           [--png OUT.png]\n"
    "      the magnitude response in dB at N log-spaced frequencies from 20 Hz to\n"
    "      20 kHz, computed from the plugin's own filters (an equaliser); as a\n"
    "      table, JSON or a PNG plot\n"
    "  bench [PLUGIN ...] [--set NAME=VALUE ...] [--rate R] [--channels C] [--block N]\n"
    "        [--seconds S] [--sidechain FILE] [--json]\n"
    "      per plugin at default settings (or those --set gives every plugin\n"
    "      named): the median over 5 runs of nanoseconds\n"
    "      per frame, the real-time factor (audio seconds per CPU second) and the\n"
    "      99th-percentile time of one block, on generated audio.\n"
    "      Defaults: every plugin, 48000 Hz, 2 channels, 512, 2 s. --sidechain\n"
    "      feeds plugins that ask the side-chain from FILE (at --rate).\n"
    "\n"
    "options:\n"
    "  --library PATH   load the plugin library from PATH\n"
    "  --isa LEVEL      choose kernels as if the processor offered only LEVEL:\n"
    "                   none, sse2, sse4.1, avx, avx2, avx512 or auto (the\n"
    "                   default), to reproduce a result of a lesser processor\n"
    "  QVD_ISA          environment: the same as --isa, for any host\n"
    "  --quiet          no progress bar (it only shows on a terminal anyway)\n"
    "  QVDFX_LOG_LEVEL  environment: plugins' debug log level (0 to 3) to stderr\n"
    "\n"
    "output files:\n"
    "  are written whole or not at all: to a hidden temporary file beside the\n"
    "  output, renamed over it once complete, so a failure, a full disk or an\n"
    "  interrupt keeps the old file (or none) and leaves no partial one. A symlink\n"
    "  is followed and its target replaced; a device (/dev/null) or a named pipe\n"
    "  is written in place; '-' is standard output, where a failure ends the\n"
    "  stream early. Audio that may pass 4 GiB is written as RF64 (as WAV if it\n"
    "  stays smaller). An output that is the same file as an input or as another\n"
    "  output is refused before any work.\n"
    "\n"
    "exit codes:\n"
    "  0 success; 2 bad command line; 3 plugin library not loadable or\n"
    "  incompatible; 4 unknown or ambiguous plugin or parameter, or a value out of\n"
    "  range; 5 input unreadable or output unwritable (a full disk included); 6 a\n"
    "  plugin refused the configuration or failed while processing; 130, 143, 129\n"
    "  interrupted by SIGINT, SIGTERM or SIGHUP: temporary files are removed and\n"
    "  qvdfx ends by that signal, which a shell reports as 128 + its number.\n";

constexpr int kMaxChannels = 64;

// Planar buffers sized once; every block reuses them.
struct Buffers {
    Buffers(int channels, int frames)
        : interleaved(static_cast<std::size_t>(channels) * static_cast<std::size_t>(frames)),
          planar(static_cast<std::size_t>(channels), std::vector<float>(static_cast<std::size_t>(frames)))
    {
        for (auto& ch : planar)
            pointers.push_back(ch.data());
    }
    void deinterleave(std::int64_t frames)
    {
        const std::size_t c = planar.size();
        for (std::size_t n = 0; n < static_cast<std::size_t>(frames); ++n)
            for (std::size_t k = 0; k < c; ++k)
                planar[k][n] = interleaved[n * c + k];
    }
    void interleave(std::int64_t from, std::int64_t frames)
    {
        const std::size_t c = planar.size();
        for (std::size_t n = 0; n < static_cast<std::size_t>(frames); ++n)
            for (std::size_t k = 0; k < c; ++k)
                interleaved[n * c + k] = planar[k][static_cast<std::size_t>(from) + n];
    }
    std::vector<float> interleaved;
    std::vector<std::vector<float>> planar;
    std::vector<float*> pointers;
};

// ---- list ----

int commandInfo(qvd::PluginInterface& registry, const std::string& libraryPath, Arguments args)
{
    bool json = false;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--json")
            json = true;
        else
            args.unexpected(a);
    }
    std::map<std::string, std::string> info = registry.systemInfo();
    info["library"] = libraryPath;
    info["interface version"] = std::to_string(registry.interfaceVersion());
    std::string out = json ? "{" : "";
    bool first = true;
    for (const auto& [key, value] : info) {
        if (json)
            out += std::string(first ? "" : ",") + "\n  \"" + jsonEscape(key) + "\": \"" + jsonEscape(value) + "\"";
        else
            out += key + ": " + value + "\n";
        first = false;
    }
    std::fputs((json ? out + "\n}\n" : out).c_str(), stdout);
    return kExitOk;
}

int commandList(qvd::PluginInterface& registry, Arguments args)
{
    bool json = false;
    std::string kind = "audio";
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--json")
            json = true;
        else if (a == "--kind")
            kind = args.value(a);
        else
            args.unexpected(a);
    }
    if (kind != "audio" && kind != "control" && kind != "all")
        fail(kExitUsage, "list: --kind must be audio, control or all, not '" + kind + "'");
    std::vector<std::pair<const char*, std::map<std::string, qvd::PluginInfo>>> groups;
    if (kind != "control")
        groups.emplace_back("audio", registry.listPlugins(qvd::kAudioPlugin));
    if (kind != "audio")
        groups.emplace_back("control", registry.listPlugins(qvd::kControlPlugin));
    if (json) {
        std::string out = "{\"plugins\": [";
        bool first = true;
        for (const auto& [k, plugins] : groups) {
            for (const auto& [key, info] : plugins) {
                out += std::string(first ? "" : ",") + "\n  {\"kind\": \"" + k + "\", \"key\": \"" + jsonEscape(key) +
                       "\", \"name\": \"" + jsonEscape(info.name) + "\", \"channels\": " +
                       std::to_string(info.channels) + ", \"flags\": " + std::to_string(info.flags) + "}";
                first = false;
            }
        }
        out += "\n]}\n";
        std::fputs(out.c_str(), stdout);
        return kExitOk;
    }
    for (const auto& [k, plugins] : groups) {
        for (const auto& [key, info] : plugins)
            std::printf("%-8s %-34s %-26s %3d ch  flags %d\n", k, key.c_str(), info.name.c_str(), info.channels,
                        info.flags);
    }
    return kExitOk;
}

// ---- params ----

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

int commandParams(qvd::PluginInterface& registry, Arguments args)
{
    std::string name;
    bool json = false;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--json")
            json = true;
        else if (name.empty() && a.rfind("--", 0) != 0)
            name = a;
        else
            args.unexpected(a);
    }
    if (name.empty())
        fail(kExitUsage, "params: name a plugin (see 'qvdfx list')");
    const std::string key = resolvePluginKey(registry, name);
    PluginHandle plugin(registry.createPlugin(qvd::kAudioPlugin, key.c_str()));
    if (!plugin.instance)
        fail(kExitPlugin, "cannot create plugin '" + key + "'");
    const std::int32_t count = plugin.instance->parameterCount();
    std::string out;
    if (json)
        out = "{\"key\": \"" + jsonEscape(key) + "\", \"parameters\": [";
    // The identifier and label columns are as wide as their longest entry,
    // so long names keep the table aligned.
    int idWidth = 30, labelWidth = 14;
    for (std::int32_t i = 0; i < count; ++i) {
        qvd::ParameterInfo p;
        plugin.instance->parameterInfo(i, &p);
        idWidth = std::max(idWidth, static_cast<int>(p.identifier.size()));
        labelWidth = std::max(labelWidth, static_cast<int>(p.label.size()));
    }
    for (std::int32_t i = 0; i < count; ++i) {
        qvd::ParameterInfo p;
        plugin.instance->parameterInfo(i, &p);
        if (json) {
            std::string options;
            for (const auto& o : p.options)
                options += (options.empty() ? "\"" : ", \"") + jsonEscape(o) + "\"";
            out += std::string(i ? "," : "") + "\n  {\"index\": " + std::to_string(p.index) + ", \"identifier\": \"" +
                   jsonEscape(p.identifier) + "\", \"label\": \"" + jsonEscape(p.label) + "\", \"kind\": \"" +
                   kindName(p.kind) + "\", \"scale\": \"" + scaleName(p.scale) + "\", \"min\": " +
                   jsonNumber(p.minimum) + ", \"max\": " + jsonNumber(p.maximum) + ", \"default\": " +
                   jsonNumber(p.defaultValue) + ", \"step\": " + jsonNumber(p.step) + ", \"unit\": \"" +
                   jsonEscape(p.unit) + "\", \"options\": [" + options + "]}";
        } else {
            char line[512];
            std::snprintf(line, sizeof line, "%3d  %-*s %-*s %-10s %-6s %10s .. %-10s default %-8s step %-6s %s\n",
                          p.index, idWidth, p.identifier.c_str(), labelWidth, p.label.c_str(), kindName(p.kind),
                          scaleName(p.scale),
                          floatText(p.minimum).c_str(), floatText(p.maximum).c_str(),
                          floatText(p.defaultValue).c_str(), floatText(p.step).c_str(), p.unit.c_str());
            out += line;
            if (!p.options.empty()) {
                out += "     options:";
                for (std::size_t o = 0; o < p.options.size(); ++o)
                    out += (o ? ", " : " ") + std::to_string(o) + " " + p.options[o];
                out += "\n";
            }
        }
    }
    if (json)
        out += "\n]}\n";
    std::fputs(out.c_str(), stdout);
    return kExitOk;
}

// ---- process ----

bool parseOnOff(const std::string& text, const std::string& what)
{
    if (text == "on")
        return true;
    if (text == "off")
        return false;
    fail(kExitUsage, what + " must be on or off, not '" + text + "'");
}

int commandProcess(qvd::PluginInterface& registry, Arguments args)
{
    std::vector<std::string> files;
    std::vector<StepSpec> steps;
    int blockSize = 512;
    bool smoothing = true, bypass = false, force = false, quiet = false;
    double tail = 0.0;
    std::string metersPath;
    double metersEvery = 0.0;
    SampleFormat format = SampleFormat::Float;
    static HostExtensions extensions;
    static SourceFeed sources;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--sidechain" || a == "--source") {
            const auto [name, path] = a == "--sidechain" ? std::pair<std::string, std::string>(qvd::kSourceSideChain, args.value(a))
                                                         : SourceFeed::parseOption(args.value(a));
            sources.add(name, path);
            extensions.setSources(&sources);
            registry.setHostExtensions(&extensions);
        } else if (a == "--tempo") {
            // BPM, or BPM/N/D with a time signature: 96/3/4.
            const std::string text = args.value(a);
            const auto slash = text.find('/');
            const double bpm = parseReal(text.substr(0, slash), 1.0, 999.0, "--tempo");
            std::int32_t num = 4, den = 4;
            if (slash != std::string::npos) {
                const auto second = text.find('/', slash + 1);
                if (second == std::string::npos)
                    fail(kExitUsage, "--tempo takes BPM or BPM/N/D (96/3/4), not '" + text + "'");
                num = static_cast<std::int32_t>(parseInteger(text.substr(slash + 1, second - slash - 1), 1, 64, "--tempo beats"));
                den = static_cast<std::int32_t>(parseInteger(text.substr(second + 1), 1, 64, "--tempo note value"));
            }
            extensions.setTempo(bpm, num, den);
            registry.setHostExtensions(&extensions);
        } else if (a == "-p" || a == "--plugin") {
            steps.push_back(StepSpec{args.value(a), {}});
        } else if (a == "--set") {
            const std::string setting = args.value(a);
            if (steps.empty())
                fail(kExitUsage, "process: --set " + setting + " comes before any -p PLUGIN");
            const auto eq = setting.find('=');
            if (eq == std::string::npos || eq == 0)
                fail(kExitUsage, "process: --set takes NAME=VALUE, not '" + setting + "'");
            steps.back().settings.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
        } else if (a == "--block") {
            blockSize = static_cast<int>(parseInteger(args.value(a), 1, AudioPlugin::kMaxBlockSize, "--block"));
        } else if (a == "--smoothing") {
            smoothing = parseOnOff(args.value(a), "--smoothing");
        } else if (a == "--bypass") {
            bypass = true;
        } else if (a == "--meters") {
            metersPath = args.value(a);
        } else if (a == "--meters-every") {
            metersEvery = parseReadoutPeriod(args.value(a));
        } else if (a == "--tail") {
            tail = parseReal(args.value(a), 0.0, 3600.0, "--tail");
        } else if (a == "--format") {
            format = parseSampleFormat(args.value(a));
        } else if (a == "--force") {
            force = true;
        } else if (a == "--quiet" || a == "-q") {
            quiet = true;
        } else if (a.rfind("-", 0) == 0 && a.size() > 1) {
            args.unexpected(a);
        } else {
            files.push_back(a);
        }
    }
    if (files.size() != 2)
        fail(kExitUsage, "process: give an input and an output file (qvdfx process IN OUT -p PLUGIN ...)");
    if (steps.empty())
        fail(kExitUsage, "process: name at least one plugin with -p PLUGIN");
    if (metersEvery > 0.0 && metersPath.empty())
        fail(kExitUsage, "process: --meters-every needs --meters FILE.json to write the series to");
    const std::string& inPath = files[0];
    const std::string& outPath = files[1];
    std::vector<PathUse> uses{{"input", inPath, false}, {"output", outPath, true}, {"--meters", metersPath, true}};
    for (const auto& [role, path] : sources.paths())
        uses.push_back({role, path, false});
    checkDistinct(uses);

    AudioReader reader(inPath);
    const int channels = reader.channels();
    const int rate = reader.rate();
    sources.load(rate);
    PluginChain chain(registry, steps, force);
    chain.prepare(rate, channels, blockSize, smoothing, bypass);
    // Each plugin hears its sources as late as the steps before it delay the input.
    for (std::size_t i = 0, ahead = 0; i < chain.size(); ahead += chain.plugin(i).getLatency(), ++i)
        sources.setOffset(chain.plugin(i).instanceId(), static_cast<std::int64_t>(ahead));

    const auto latency = static_cast<std::int64_t>(chain.latency());
    const auto tailFrames = static_cast<std::int64_t>(std::llround(tail * rate));
    const std::int64_t known = reader.frames(); // -1 for a pipe
    // Every output is opened before the render, so a bad place fails first.
    std::optional<OutputFile> meters;
    if (!metersPath.empty())
        meters.emplace(metersPath, false);
    AudioWriter writer(outPath, rate, channels, format, known < 0 ? -1 : known + tailFrames);
    if (reader.live())
        writer.writeThrough();
    Buffers buffers(channels, blockSize);
    Progress progress("processing", known < 0 ? 0 : known + tailFrames + latency, quiet);
    ReadoutWriter readouts(chain, rate, channels, meters ? &*meters : nullptr, metersEvery);

    // Input until it ends, then silence for the latency and the tail. The
    // first `latency` frames out are dropped.
    std::int64_t fed = 0, skipped = 0, written = 0, inFrames = -1;
    for (;;) {
        std::int64_t n = 0;
        if (inFrames < 0) {
            n = reader.read(buffers.interleaved.data(), blockSize);
            if (n == 0) {
                if (known >= 0 && fed < known) // the header promised more than the file holds
                    fail(kExitFile, "'" + inPath + "' ends after " + std::to_string(fed) + " of " +
                                        std::to_string(known) + " frames");
                inFrames = fed;
                continue;
            }
            buffers.deinterleave(n);
        } else {
            n = std::min<std::int64_t>(blockSize, inFrames + tailFrames + latency - fed);
            if (n <= 0)
                break;
            for (auto& ch : buffers.planar)
                std::fill(ch.begin(), ch.begin() + n, 0.0f);
        }
        readouts.process(buffers.pointers.data(), static_cast<std::int32_t>(n));
        fed += n;
        const std::int64_t drop = std::min(n, latency - skipped);
        skipped += drop;
        if (n > drop) {
            buffers.interleave(drop, n - drop);
            writer.write(buffers.interleaved.data(), n - drop);
            written += n - drop;
        }
        progress.update(fed);
    }
    progress.finish();
    // The meters reach the disk before the audio is put in place, so a full
    // disk loses both rather than leaving one without the other.
    readouts.finish();
    writer.commit();
    if (meters)
        meters->commit();
    if (!quiet)
        std::fprintf(stderr, "wrote %s: %lld frames, %d channels, %d Hz (latency %lld frames compensated)\n",
                     writer.name().c_str(), static_cast<long long>(written), channels, rate,
                     static_cast<long long>(latency));
    return kExitOk;
}

// ---- gen ----

int commandGen(Arguments args)
{
    std::string out;
    SignalSpec signal;
    bool haveSignal = false;
    double seconds = 1.0;
    SampleFormat format = SampleFormat::Float;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--signal") {
            signal.kind = parseSignalKind(args.value(a));
            haveSignal = true;
        } else if (a == "--freq") {
            signal.frequency = parseReal(args.value(a), 0.001, 1e6, "--freq");
        } else if (a == "--level") {
            signal.levelDb = parseReal(args.value(a), -200.0, 40.0, "--level");
        } else if (a == "--seconds") {
            seconds = parseReal(args.value(a), 0.0, 86400.0, "--seconds");
        } else if (a == "--rate") {
            signal.rate = static_cast<int>(parseInteger(args.value(a), 1, 1536000, "--rate"));
        } else if (a == "--channels") {
            signal.channels = static_cast<int>(parseInteger(args.value(a), 1, kMaxChannels, "--channels"));
        } else if (a == "--seed") {
            signal.seed = static_cast<std::uint32_t>(parseInteger(args.value(a), 0, 4294967295LL, "--seed"));
        } else if (a == "--format") {
            format = parseSampleFormat(args.value(a));
        } else if (out.empty() && a.rfind("-", 0) != 0) {
            out = a;
        } else {
            args.unexpected(a);
        }
    }
    if (out.empty())
        fail(kExitUsage, "gen: give an output file");
    if (!haveSignal)
        fail(kExitUsage, "gen: choose a signal with --signal sine|sweep|noise|pink|impulse|silence");
    if (signal.frequency >= signal.rate / 2.0 && (signal.kind == SignalKind::Sine || signal.kind == SignalKind::Sweep))
        fail(kExitUsage, "gen: --freq must be below half the rate (" + std::to_string(signal.rate / 2) + " Hz)");
    const auto total = static_cast<std::int64_t>(std::llround(seconds * signal.rate));
    SignalGenerator generator(signal, total);
    AudioWriter writer(out, signal.rate, signal.channels, format, total);
    const int block = 4096;
    Buffers buffers(signal.channels, block);
    for (std::int64_t done = 0; done < total; done += block) {
        const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(block, total - done));
        generator.generate(buffers.pointers.data(), n);
        buffers.interleave(0, n);
        writer.write(buffers.interleaved.data(), n);
    }
    writer.commit();
    return kExitOk;
}

// ---- demo ----

// A few bars of a plucked A-major arpeggio over a soft noise bed, stereo.
void demoSignal(std::vector<std::vector<float>>& out, int rate)
{
    const double notes[] = {220.0, 277.18, 329.63, 440.0, 329.63, 277.18};
    const double noteLength = 0.25;
    std::mt19937 rng(20261121);
    std::normal_distribution<float> noise(0.0f, 0.004f);
    for (std::size_t n = 0; n < out[0].size(); ++n) {
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
}

int commandDemo(qvd::PluginInterface& registry, Arguments args)
{
    std::string out;
    while (!args.done()) {
        const std::string a = args.take();
        if (out.empty() && a.rfind("-", 0) != 0)
            out = a;
        else
            args.unexpected(a);
    }
    const int rate = 48000;
    const int blockSize = 512;
    const double seconds = 6.0;
    std::vector<std::vector<float>> audio(2, std::vector<float>(static_cast<std::size_t>(rate * seconds)));
    demoSignal(audio, rate);
    const auto frames = static_cast<std::int64_t>(audio[0].size());
    std::optional<AudioWriter> writer;
    if (!out.empty())
        writer.emplace(out, rate, 2, SampleFormat::Float, frames);
    // The audio may be standard output; then the report goes to stderr.
    FILE* report = out == "-" ? stderr : stdout;

    // The chain grows as plugins land; steps whose plugin is missing are skipped.
    const std::vector<StepSpec> wanted = {
        {"Gain:1364608878", {{"QVDGain::GAIN", "-6"}}},
        {"Tarnwick EQ:1364608369", {{"BAND_GAIN_2", "3"}, {"BAND_FREQ_2", "2500"}, {"BAND_GAIN_1", "-2"}}},
        {"Reverb:1364611682", {{"QVDReverb::DRY_WET", "0.4"}, {"QVDReverb::REVERB_TIME", "0.7"}}},
        {"Gain:1364608878", {{"QVDGain::GAIN", "4.5"}}},
    };
    const auto available = registry.listPlugins(qvd::kAudioPlugin);
    std::vector<StepSpec> steps;
    for (const StepSpec& s : wanted) {
        if (available.count(s.plugin))
            steps.push_back(s);
    }
    if (steps.empty())
        fail(kExitPlugin, "demo: none of the demo's plugins is registered");
    PluginChain chain(registry, steps, false);
    chain.prepare(rate, 2, blockSize, true, false);
    const auto latency = static_cast<std::int64_t>(chain.latency());

    std::vector<std::vector<float>> result(2, std::vector<float>(static_cast<std::size_t>(frames)));
    Buffers buffers(2, blockSize);
    const auto start = std::chrono::steady_clock::now();
    std::int64_t written = 0;
    for (std::int64_t fed = 0; written < frames;) {
        const std::int64_t n = std::min<std::int64_t>(blockSize, frames + latency - fed);
        for (std::size_t c = 0; c < 2; ++c) {
            for (std::int64_t i = 0; i < n; ++i)
                buffers.planar[c][static_cast<std::size_t>(i)] =
                    fed + i < frames ? audio[c][static_cast<std::size_t>(fed + i)] : 0.0f;
        }
        // Halfway through, the last stage rides its gain down, smoothed.
        if (fed <= frames / 2 && fed + n > frames / 2 && chain.size() > 1)
            const_cast<qvd::PluginInstance&>(chain.plugin(chain.size() - 1))
                .getAudioInterface()
                ->setParameterByIdentifier("QVDGain::GAIN", -3.0f);
        chain.process(buffers.pointers.data(), static_cast<std::int32_t>(n));
        for (std::int64_t i = 0; i < n; ++i) {
            const std::int64_t at = fed + i - latency;
            if (at >= 0 && at < frames) {
                for (std::size_t c = 0; c < 2; ++c)
                    result[c][static_cast<std::size_t>(at)] = buffers.planar[c][static_cast<std::size_t>(i)];
                ++written;
            }
        }
        fed += n;
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::fprintf(report, "demo: %.1f s of stereo audio at %d Hz in blocks of %d through %zu plugins\n", seconds,
                 rate, blockSize, chain.size());
    for (std::size_t p = 0; p < chain.size(); ++p) {
        const qvd::PluginInstance& plugin = chain.plugin(p);
        std::fprintf(report, "  %zu. %s\n", p + 1, plugin.pluginKey());
        for (std::int32_t g = 0; g < plugin.meterGroupCount(); ++g) {
            std::fprintf(report, "     %-8s now", plugin.meterGroupName(g));
            double values[kMaxChannels];
            const std::int32_t n = std::min(kMaxChannels, plugin.getMeterValues(g, values, kMaxChannels));
            for (std::int32_t i = 0; i < n; ++i)
                std::fprintf(report, " %7.2f dB", values[i]);
            std::fprintf(report, "\n");
        }
    }
    std::fprintf(report, "meters (peak held over the run):\n%s", chain.metersJson().c_str());
    std::fprintf(report, "speed: %.3f ms for %.1f s of audio, real-time factor %.0fx\n", elapsed * 1e3, seconds,
                 elapsed > 0.0 ? seconds / elapsed : 0.0);
    if (writer) {
        Buffers all(2, static_cast<int>(frames));
        all.planar = result;
        all.interleave(0, frames);
        writer->write(all.interleaved.data(), frames);
        writer->commit();
        std::fprintf(report, "wrote %s\n", writer->name().c_str());
    }
    return kExitOk;
}

// ---- bench ----

double threadSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

int commandBench(qvd::PluginInterface& registry, Arguments args)
{
    std::vector<std::string> names;
    std::vector<std::pair<std::string, std::string>> settings;
    int channels = 2, blockSize = 512, rate = 48000;
    double seconds = 2.0;
    bool json = false;
    std::string keyPath;
    while (!args.done()) {
        const std::string a = args.take();
        if (a == "--rate")
            rate = static_cast<int>(parseInteger(args.value(a), 1, 1536000, "--rate"));
        else if (a == "--channels")
            channels = static_cast<int>(parseInteger(args.value(a), 1, kMaxChannels, "--channels"));
        else if (a == "--block")
            blockSize = static_cast<int>(parseInteger(args.value(a), 1, AudioPlugin::kMaxBlockSize, "--block"));
        else if (a == "--seconds")
            seconds = parseReal(args.value(a), 0.01, 3600.0, "--seconds");
        else if (a == "--json")
            json = true;
        else if (a == "--sidechain")
            keyPath = args.value(a);
        else if (a == "--set") {
            const std::string setting = args.value(a);
            const auto eq = setting.find('=');
            if (eq == std::string::npos || eq == 0)
                fail(kExitUsage, "bench: --set takes NAME=VALUE, not '" + setting + "'");
            settings.emplace_back(setting.substr(0, eq), setting.substr(eq + 1));
        } else if (a.rfind("-", 0) != 0)
            names.push_back(a);
        else
            args.unexpected(a);
    }
    const bool keyed = !keyPath.empty();
    if (keyed) {
        static SourceFeed sources;
        static HostExtensions extensions;
        sources.add(qvd::kSourceSideChain, keyPath);
        sources.load(rate);
        extensions.setSources(&sources);
        registry.setHostExtensions(&extensions);
    }
    std::vector<std::string> keys;
    if (names.empty()) {
        for (const auto& [key, info] : registry.listPlugins(qvd::kAudioPlugin))
            keys.push_back(key);
    } else {
        for (const auto& n : names)
            keys.push_back(resolvePluginKey(registry, n));
    }
    const int runs = 5;
    std::string out = json ? "{\"rate\": " + std::to_string(rate) + ", \"block\": " + std::to_string(blockSize) +
                                 ", \"results\": ["
                           : "";
    if (!json)
        std::printf("%-34s %4s %6s %12s %14s %12s\n", "plugin", "ch", "block", "ns/frame", "real-time x",
                    "p99 block us");
    bool first = true;
    for (const std::string& key : keys) {
        PluginHandle plugin(registry.createPlugin(qvd::kAudioPlugin, key.c_str()));
        if (!plugin.instance)
            fail(kExitPlugin, "cannot create plugin '" + key + "'");
        for (const auto& [name, value] : settings) {
            const std::int32_t index = resolveParameter(*plugin.instance, name);
            plugin.instance->setParameter(index, resolveValue(*plugin.instance, index, value, false));
        }
        const auto info = registry.listPlugins(qvd::kAudioPlugin).at(key);
        const int ch = std::min(channels, info.channels);
        const qvd::PrepareConfig config{qvd::formatForChannels(ch), qvd::formatForChannels(ch), 1, 0};
        if (!plugin.audio()->prepare(static_cast<float>(rate), blockSize, &config))
            fail(kExitProcess, "plugin '" + key + "' refused to prepare with " + std::to_string(ch) + " channels");
        // A second of noise made beforehand and read block after block, out
        // of place: the timed loop holds nothing but the plugin. CPU time is
        // read once a run (it is a system call); blocks are timed on the
        // steady clock, which costs a few nanoseconds.
        const auto span = static_cast<std::size_t>(std::max(rate, blockSize * 16));
        Buffers input(ch, static_cast<int>(span) + blockSize), output(ch, blockSize);
        std::mt19937 rng(7);
        std::normal_distribution<float> noise(0.0f, 0.1f);
        for (auto& c : input.planar)
            for (auto& x : c)
                x = noise(rng);
        std::vector<const float*> in(static_cast<std::size_t>(ch));
        const auto blocks = static_cast<std::int64_t>(std::ceil(seconds * rate / blockSize));
        std::vector<double> perFrame;
        std::vector<double> blockTimes;
        blockTimes.reserve(static_cast<std::size_t>(blocks * runs));
        qvd::BlockRecord block{};
        for (int r = 0; r < runs; ++r) {
            const double cpu0 = threadSeconds();
            for (std::int64_t b = 0; b < blocks; ++b) {
                const std::size_t offset = static_cast<std::size_t>(b * blockSize) % span;
                for (int c = 0; c < ch; ++c)
                    in[static_cast<std::size_t>(c)] = input.planar[static_cast<std::size_t>(c)].data() + offset;
                if (keyed) // the --sidechain is read where the input is
                    block.position = static_cast<std::int64_t>(offset);
                const auto t0 = std::chrono::steady_clock::now();
                plugin.audio()->process(&block, in.data(), output.pointers.data(), blockSize);
                blockTimes.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
            }
            perFrame.push_back((threadSeconds() - cpu0) * 1e9 / static_cast<double>(blocks * blockSize));
        }
        std::sort(perFrame.begin(), perFrame.end());
        std::sort(blockTimes.begin(), blockTimes.end());
        const double median = perFrame[runs / 2];
        const double realtime = median > 0.0 ? 1e9 / (median * rate) : 0.0;
        // The slowest 1 % of blocks: what an audio callback has to budget for.
        const double p99us = blockTimes.empty() ? 0.0 : 1e6 * blockTimes[blockTimes.size() * 99 / 100];
        if (json) {
            out += std::string(first ? "" : ",") + "\n  {\"key\": \"" + jsonEscape(key) + "\", \"channels\": " +
                   std::to_string(ch) + ", \"ns_per_frame\": " + jsonNumber(median) + ", \"realtime_factor\": " +
                   jsonNumber(realtime) + ", \"p99_block_us\": " + jsonNumber(p99us) + "}";
        } else {
            std::printf("%-34s %4d %6d %12.1f %14.0f %12.2f\n", key.c_str(), ch, blockSize, median, realtime, p99us);
        }
        first = false;
    }
    if (json) {
        out += "\n]}\n";
        std::fputs(out.c_str(), stdout);
    }
    return kExitOk;
}

} // namespace

int qvdfx::runCommandLine(std::vector<std::string> words)
{
    const SignalCleanup cleanup;
    try {
        // Options before the command, for every command.
        std::string libraryPath = PluginLibrary::defaultPath();
        std::string isa;
        while (!words.empty() && (words[0] == "--library" || words[0] == "--isa")) {
            if (words.size() < 2)
                fail(kExitUsage, words[0] == "--isa" ? "--isa needs a level: none, sse2, sse4.1, avx, avx2, avx512 or auto"
                                                     : "--library needs a path to the plugin library");
            (words[0] == "--isa" ? isa : libraryPath) = words[1];
            words.erase(words.begin(), words.begin() + 2);
        }
        if (words.empty()) {
            std::fputs(kHelp, stderr);
            return kExitUsage;
        }
        if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
            std::fputs(kHelp, stdout);
            return kExitOk;
        }
        const std::string command = words[0];
        words.erase(words.begin());
        static const char* const kCommands[] = {"info", "list", "params", "process", "gen", "demo", "bench",
                                                "panel", "response", "measure", "loudnorm"};
        if (std::find(std::begin(kCommands), std::end(kCommands), command) == std::end(kCommands))
            fail(kExitUsage, "unknown command '" + command + "' (see 'qvdfx --help')");
        Arguments args(command, words);
        if (command == "gen")
            return commandGen(std::move(args));

        PluginLibrary library(libraryPath);
        if (!library.registry())
            fail(kExitLoad, library.error());
        static HostServices services;
        library.registry()->setHostContext(nullptr);
        library.registry()->setHostServices(&services);
        qvd::PluginInterface& registry = *library.registry();
        if (!isa.empty() && !registry.forceInstructionSet(isa.c_str()))
            fail(kExitUsage, "--isa: unknown level '" + isa + "' (none, sse2, sse4.1, avx, avx2, avx512 or auto)");
        if (command == "info")
            return commandInfo(registry, library.path(), std::move(args));
        if (command == "list")
            return commandList(registry, std::move(args));
        if (command == "params")
            return commandParams(registry, std::move(args));
        if (command == "process")
            return commandProcess(registry, std::move(args));
        if (command == "demo")
            return commandDemo(registry, std::move(args));
        if (command == "panel")
            return commandPanel(registry, std::move(args));
        if (command == "response")
            return commandResponse(registry, std::move(args));
        if (command == "measure")
            return commandMeasure(registry, std::move(args));
        if (command == "loudnorm")
            return commandLoudnorm(registry, std::move(args));
        return commandBench(registry, std::move(args));
    } catch (const Failure& f) {
        std::fprintf(stderr, "qvdfx: %s\n", f.message.c_str());
        return f.code;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvdfx: %s\n", e.what());
        return kExitProcess;
    }
}
