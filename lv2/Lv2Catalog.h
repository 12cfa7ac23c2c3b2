#pragma once
// What the LV2 bundle offers: every registered audio plugin in every channel
// layout it accepts, each with its ports in index order. The Turtle generator
// and the wrapper both build it from the live registry with this one code, so
// the port indices a host reads from the bundle are the ones the wrapper serves.

#include <cstdint>
#include <string>
#include <vector>

#include <qvd/qvd.h>

namespace qvd::lv2 {

// A channel layout offered as its own plugin URI.
struct Layout {
    const char* fragment; // URI fragment: "mono", "stereo", "5.1", "7.1"
    const char* label;    // appended to the plugin name
    std::int32_t format;  // qvd::ChannelFormat code
    std::int32_t minimumChannels; // the plugin's channel count must reach this
    const char* group;    // port-groups class (local name)
    // Per channel in file order (WAV/SMPTE): port-groups designation and short name.
    std::vector<const char*> designations;
    std::vector<const char*> channelNames;
    std::int32_t channels() const { return static_cast<std::int32_t>(designations.size()); }
};

// Mono, stereo, 5.1 and 7.1, in that order.
const std::vector<Layout>& layouts();

// Each role is one section of the port list and one case in the Turtle
// writer and the wrapper. SideChainIn: audio inputs marked lv2:isSideChain
// that feed a plugin's host-supplied "sidechain" source.
enum class PortRole { AudioIn, AudioOut, Parameter, Enabled, Latency, Meter, Readout, SideChainIn };

struct Port {
    PortRole role;
    std::string symbol;
    std::string name;
    std::int32_t channel = -1; // audio and meter ports
    std::int32_t source = -1;  // parameter index, meter group or readout index
    qvd::ParameterInfo parameter; // parameter ports only
    std::string unit;             // readout ports only
};

struct Variant {
    std::string key;  // registry key
    std::string name; // "Gain (Stereo)"
    std::string uri;
    const Layout* layout = nullptr;
    std::int32_t inputs = 0; // 0 for generators
    std::int32_t outputs = 0;
    std::int32_t sideChains = 0; // side-chain inputs, up to the layout's channels
    bool hasEditor = false;
    std::vector<Port> ports;
};

// Every variant of every audio plugin, in registry key order then layout
// order. A plugin that cannot be created or accepts no layout is left out and
// named in `skipped`.
std::vector<Variant> buildCatalog(qvd::PluginInterface& registry, std::vector<std::string>* skipped = nullptr);

// Channels of the "sidechain" source a plugin asks for, 0 when it asks for
// none. A plugin declares a side-chain by asking for it: this runs one
// silent block under a host that notes what is asked and supplies nothing,
// and leaves the registry without host extensions.
std::int32_t sideChainChannels(qvd::PluginInterface& registry, const std::string& key);

// "Tarnwick EQ:1364608369" -> "tarnwick-eq-1364608369".
std::string keySlug(const std::string& key);
// "urn:qvd:lv2:tarnwick-eq-1364608369#stereo".
std::string pluginUri(const std::string& key, const Layout& layout);
// Identifier "QVDEq::BAND_GAIN_0" -> LV2 symbol "BAND_GAIN_0".
std::string parameterSymbol(const std::string& identifier);
// The one Qt UI, shared by every plugin that has an editor panel.
constexpr const char* kUiUri = "urn:qvd:lv2:ui";

// State key of a parameter: "urn:qvd:lv2:parameter:" + identifier.
std::string stateKey(const std::string& identifier);

// Whether a parameter reads as an on/off switch: a switch, or a two-option
// list whose first option is "Off".
bool isToggle(const qvd::ParameterInfo& info);

} // namespace qvd::lv2
