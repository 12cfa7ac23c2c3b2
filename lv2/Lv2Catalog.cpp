#include "Lv2Catalog.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>

namespace qvd::lv2 {

const std::vector<Layout>& layouts()
{
    // Channel order is the plugins' own (channelRole): in 7.1 the side pair
    // comes before the rear pair, as in 7.1.4. Each port carries its
    // designation, so hosts that route by designation do not depend on it; a
    // WAV file whose channel mask puts the rear pair first needs its channels
    // 5-8 swapped in pairs before a host that feeds by order.
    static const std::vector<Layout> all = {
        {"mono", "Mono", qvd::kFormatMono, 1, "MonoGroup", {"center"}, {""}},
        {"stereo", "Stereo", qvd::kFormatStereo, 2, "StereoGroup", {"left", "right"}, {"L", "R"}},
        {"5.1", "5.1", qvd::kFormat51, 6, "FivePointOneGroup",
         {"left", "right", "center", "lowFrequencyEffects", "rearLeft", "rearRight"},
         {"L", "R", "C", "LFE", "Ls", "Rs"}},
        {"7.1", "7.1", qvd::kFormat71, 8, "SevenPointOneGroup",
         {"left", "right", "center", "lowFrequencyEffects", "sideLeft", "sideRight", "rearLeft", "rearRight"},
         {"L", "R", "C", "LFE", "Lss", "Rss", "Lrs", "Rrs"}},
    };
    return all;
}

std::string keySlug(const std::string& key)
{
    std::string slug;
    for (const char c : key) {
        if (std::isalnum(static_cast<unsigned char>(c)))
            slug += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        else if (!slug.empty() && slug.back() != '-')
            slug += '-';
    }
    while (!slug.empty() && slug.back() == '-')
        slug.pop_back();
    return slug;
}

std::string pluginUri(const std::string& key, const Layout& layout)
{
    return "urn:qvd:lv2:" + keySlug(key) + "#" + layout.fragment;
}

std::string parameterSymbol(const std::string& identifier)
{
    const auto colons = identifier.rfind("::");
    const std::string tail = colons == std::string::npos ? identifier : identifier.substr(colons + 2);
    std::string symbol;
    for (const char c : tail)
        symbol += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    if (symbol.empty() || std::isdigit(static_cast<unsigned char>(symbol[0])))
        symbol = "p_" + symbol;
    return symbol;
}

std::string stateKey(const std::string& identifier)
{
    return "urn:qvd:lv2:parameter:" + identifier;
}

bool isToggle(const qvd::ParameterInfo& info)
{
    if (info.kind == qvd::kSwitch)
        return true;
    if (info.kind != qvd::kList || info.options.size() != 2 || info.minimum != 0.0f || info.maximum != 1.0f)
        return false;
    std::string first = info.options[0];
    std::transform(first.begin(), first.end(), first.begin(), [](unsigned char c) { return std::tolower(c); });
    return first == "off";
}

namespace {

// Symbols must be unique within a plugin; a clash gets a numbered suffix.
std::string uniqueSymbol(std::set<std::string>& used, const std::string& wanted)
{
    std::string symbol = wanted;
    for (int n = 2; !used.insert(symbol).second; ++n)
        symbol = wanted + "_" + std::to_string(n);
    return symbol;
}

std::string lowerSlug(const char* text, std::int32_t fallback)
{
    std::string slug = text ? keySlug(text) : "";
    std::replace(slug.begin(), slug.end(), '-', '_');
    return slug.empty() ? "group" + std::to_string(fallback) : slug;
}

struct InstanceHandle {
    qvd::PluginInstance* p;
    ~InstanceHandle()
    {
        if (p)
            p->destroy();
    }
};

// Notes which sources a plugin asks for; supplies none.
class SourceProbe final : public qvd::HostExtensions {
public:
    std::int32_t sideChain = 0;
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t, const char* source, std::int64_t, float* const*, std::int32_t channelCount,
                    std::int32_t) override
    {
        if (source && std::strcmp(source, qvd::kSourceSideChain) == 0)
            sideChain = std::max(sideChain, channelCount);
        return false;
    }
};

void addAudioPorts(Variant& v, std::set<std::string>& used)
{
    const Layout& l = *v.layout;
    auto add = [&](PortRole role, const char* prefix, const char* label, std::int32_t count) {
        for (std::int32_t c = 0; c < count; ++c) {
            std::string name = label;
            if (*l.channelNames[static_cast<std::size_t>(c)])
                name += std::string(" ") + l.channelNames[static_cast<std::size_t>(c)];
            v.ports.push_back({role, uniqueSymbol(used, prefix + std::to_string(c + 1)), name, c, -1, {}, {}});
        }
    };
    add(PortRole::AudioIn, "in_", "In", v.inputs);
    add(PortRole::AudioOut, "out_", "Out", v.outputs);
    add(PortRole::SideChainIn, "sc_", "Side-chain", v.sideChains);
}

} // namespace

std::int32_t sideChainChannels(qvd::PluginInterface& registry, const std::string& key)
{
    SourceProbe probe;
    registry.setHostExtensions(&probe);
    InstanceHandle instance{registry.createPlugin(qvd::kAudioPlugin, key.c_str())};
    registry.setHostExtensions(nullptr);
    AudioPlugin* audio = qvd::audioInterfaceOf(instance.p);
    constexpr std::int32_t kFrames = 64;
    const qvd::PrepareConfig config{qvd::kFormatKeep, qvd::kFormatKeep, 0, 1};
    if (!audio || !audio->prepare(48000.0f, kFrames, &config))
        return 0;
    const auto ins = static_cast<std::size_t>(std::max(audio->inputChannelCount(), 0));
    const auto outs = static_cast<std::size_t>(std::max(audio->outputChannelCount(), 0));
    std::vector<std::vector<float>> buffers(ins + outs, std::vector<float>(kFrames, 0.0f));
    std::vector<const float*> in(ins);
    std::vector<float*> out(outs);
    for (std::size_t c = 0; c < ins; ++c)
        in[c] = buffers[c].data();
    for (std::size_t c = 0; c < outs; ++c)
        out[c] = buffers[ins + c].data();
    qvd::BlockRecord block{};
    block.mode = qvd::kModePlaying;
    block.position = 0;
    audio->process(&block, in.data(), out.data(), kFrames);
    return probe.sideChain;
}

std::vector<Variant> buildCatalog(qvd::PluginInterface& registry, std::vector<std::string>* skipped)
{
    std::vector<Variant> catalog;
    for (const auto& [key, info] : registry.listPlugins(qvd::kAudioPlugin)) {
        InstanceHandle instance{registry.createPlugin(qvd::kAudioPlugin, key.c_str())};
        AudioPlugin* audio = qvd::audioInterfaceOf(instance.p);
        if (!audio) {
            if (skipped)
                skipped->push_back(key + ": cannot be created");
            continue;
        }
        std::vector<qvd::ParameterInfo> parameters;
        for (std::int32_t i = 0; i < instance.p->parameterCount(); ++i) {
            qvd::ParameterInfo p;
            if (instance.p->parameterInfo(i, &p))
                parameters.push_back(std::move(p));
        }
        const std::int32_t sideChain = sideChainChannels(registry, key);
        const std::size_t before = catalog.size();
        for (const Layout& layout : layouts()) {
            if (info.channels < layout.minimumChannels)
                continue;
            Variant v;
            v.layout = &layout;
            // An effect takes the layout on both sides; a generator only on its outputs.
            if (audio->setChannelFormats(layout.format, layout.format))
                v.inputs = v.outputs = layout.channels();
            else if (instance.p->isGenerator() && audio->setChannelFormats(qvd::kFormatNone, layout.format))
                v.outputs = layout.channels();
            else
                continue;
            if (v.inputs > 0)
                v.sideChains = std::min(sideChain, layout.channels());
            v.key = key;
            v.name = info.name + " (" + layout.label + ")";
            v.uri = pluginUri(key, layout);
            v.hasEditor = instance.p->hasEditor();

            std::set<std::string> used;
            addAudioPorts(v, used);
            for (const auto& p : parameters)
                v.ports.push_back({PortRole::Parameter, uniqueSymbol(used, parameterSymbol(p.identifier)), p.label,
                                   -1, p.index, p, {}});
            v.ports.push_back({PortRole::Enabled, uniqueSymbol(used, "enabled"), "Enabled", -1, -1, {}, {}});
            v.ports.push_back({PortRole::Latency, uniqueSymbol(used, "latency"), "Latency", -1, -1, {}, {}});
            // Meter groups follow the active channel counts set above; a group
            // never gets more ports than the layout has channels.
            for (std::int32_t g = 0; g < instance.p->meterGroupCount(); ++g) {
                const std::int32_t size = std::min(instance.p->getMeterValues(g, nullptr, 0), layout.channels());
                const char* group = instance.p->meterGroupName(g);
                const std::string label = (group ? std::string(group) : "Meter " + std::to_string(g + 1)) + " Level";
                for (std::int32_t c = 0; c < size; ++c) {
                    const std::string channel = layout.channelNames[static_cast<std::size_t>(c)];
                    const std::string name = size > 1 && !channel.empty() ? label + " " + channel : label;
                    const std::string symbol = "meter_" + lowerSlug(group, g) + "_" + std::to_string(c + 1);
                    v.ports.push_back({PortRole::Meter, uniqueSymbol(used, symbol), name, c, g, {}, {}});
                }
            }
            // Scalar readouts as control outputs; arrays (spectra, point
            // clouds) have no port form and stay with the host interface.
            for (std::int32_t r = 0; r < instance.p->readoutCount(); ++r) {
                qvd::ReadoutInfo readout;
                if (!instance.p->readoutInfo(r, &readout) || readout.kind != qvd::kReadoutScalar)
                    continue;
                const std::string symbol = "readout_" + lowerSlug(readout.name.c_str(), r);
                v.ports.push_back({PortRole::Readout, uniqueSymbol(used, symbol), readout.name, -1, r, {}, readout.unit});
            }
            catalog.push_back(std::move(v));
        }
        if (catalog.size() == before && skipped)
            skipped->push_back(key + ": accepts none of mono, stereo, 5.1, 7.1");
    }
    return catalog;
}

} // namespace qvd::lv2
