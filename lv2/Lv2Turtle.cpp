#include "Lv2Turtle.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qvd::lv2 {

namespace {

const char* const kPrefixes =
    "@prefix doap: <http://usefulinc.com/ns/doap#> .\n"
    "@prefix lv2: <http://lv2plug.in/ns/lv2core#> .\n"
    "@prefix bufsz: <http://lv2plug.in/ns/ext/buf-size#> .\n"
    "@prefix opts: <http://lv2plug.in/ns/ext/options#> .\n"
    "@prefix pg: <http://lv2plug.in/ns/ext/port-groups#> .\n"
    "@prefix pprops: <http://lv2plug.in/ns/ext/port-props#> .\n"
    "@prefix rdf: <http://www.w3.org/1999/02/22-rdf-syntax-ns#> .\n"
    "@prefix rdfs: <http://www.w3.org/2000/01/rdf-schema#> .\n"
    "@prefix state: <http://lv2plug.in/ns/ext/state#> .\n"
    "@prefix ui: <http://lv2plug.in/ns/extensions/ui#> .\n"
    "@prefix units: <http://lv2plug.in/ns/extensions/units#> .\n"
    "@prefix urid: <http://lv2plug.in/ns/ext/urid#> .\n"
    "@prefix work: <http://lv2plug.in/ns/ext/worker#> .\n\n";

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out + "\"";
}

// Units the units extension names; anything else becomes an inline unit.
std::string unitObject(const std::string& unit)
{
    static const std::map<std::string, std::string> known = {
        {"dB", "units:db"}, {"Hz", "units:hz"}, {"kHz", "units:khz"}, {"ms", "units:ms"},
        {"s", "units:s"},   {"%", "units:pc"},  {"cents", "units:cent"}, {"semitones", "units:semitone12TET"},
    };
    const auto it = known.find(unit);
    if (it != known.end())
        return it->second;
    return "[ a units:Unit ; rdfs:label " + quoted(unit) + " ; units:symbol " + quoted(unit) +
           " ; units:render " + quoted("%f " + unit) + " ]";
}

std::string groupUri(const Variant& v, const char* side)
{
    return "<" + v.uri + "-" + side + ">";
}

void writeParameterPort(std::string& out, const qvd::ParameterInfo& p)
{
    out += " ;\n\t\tlv2:default " + turtleNumber(p.defaultValue) + " ;\n\t\tlv2:minimum " + turtleNumber(p.minimum) +
           " ;\n\t\tlv2:maximum " + turtleNumber(p.maximum);
    std::vector<std::string> properties;
    if (isToggle(p))
        properties = {"lv2:toggled", "lv2:integer"};
    else if (p.kind != qvd::kContinuous)
        properties = {"lv2:integer", "lv2:enumeration"};
    if (p.scale == qvd::kLogarithmic && p.minimum > 0.0f)
        properties.push_back("pprops:logarithmic");
    for (std::size_t i = 0; i < properties.size(); ++i)
        out += (i ? " , " : " ;\n\t\tlv2:portProperty ") + properties[i];
    if (!p.unit.empty())
        out += " ;\n\t\tunits:unit " + unitObject(p.unit);
    for (std::size_t i = 0; i < p.options.size(); ++i)
        out += std::string(i ? " , " : " ;\n\t\tlv2:scalePoint ") + "[ rdfs:label " + quoted(p.options[i]) +
               " ; rdf:value " + turtleNumber(static_cast<float>(i)) + " ]";
}

void writePort(std::string& out, const Variant& v, const Port& port, std::size_t index)
{
    const bool input = port.role == PortRole::AudioIn || port.role == PortRole::Parameter ||
                       port.role == PortRole::Enabled || port.role == PortRole::SideChainIn;
    const bool audio =
        port.role == PortRole::AudioIn || port.role == PortRole::AudioOut || port.role == PortRole::SideChainIn;
    out += std::string(index ? " , " : "") + "[\n\t\ta lv2:" + (input ? "InputPort" : "OutputPort") + " , lv2:" +
           (audio ? "AudioPort" : "ControlPort") + " ;\n\t\tlv2:index " + std::to_string(index) +
           " ;\n\t\tlv2:symbol " + quoted(port.symbol) + " ;\n\t\tlv2:name " + quoted(port.name);
    switch (port.role) {
    case PortRole::AudioIn:
    case PortRole::AudioOut:
        out += " ;\n\t\tpg:group " + groupUri(v, input ? "in" : "out") + " ;\n\t\tlv2:designation pg:" +
               v.layout->designations[static_cast<std::size_t>(port.channel)];
        break;
    case PortRole::SideChainIn:
        // Left unconnected, the plugin hears no key and passes its input.
        out += " ;\n\t\tlv2:portProperty lv2:isSideChain , lv2:connectionOptional";
        break;
    case PortRole::Parameter:
        writeParameterPort(out, port.parameter);
        break;
    case PortRole::Enabled:
        out += " ;\n\t\tlv2:default 1 ;\n\t\tlv2:minimum 0 ;\n\t\tlv2:maximum 1 ;\n\t\tlv2:designation lv2:enabled"
               " ;\n\t\tlv2:portProperty lv2:toggled , lv2:integer";
        break;
    case PortRole::Latency:
        out += " ;\n\t\tlv2:minimum 0 ;\n\t\tlv2:maximum 1048576 ;\n\t\tlv2:designation lv2:latency"
               " ;\n\t\tlv2:portProperty lv2:reportsLatency , lv2:integer ;\n\t\tunits:unit units:frame";
        break;
    case PortRole::Meter:
        out += " ;\n\t\tlv2:minimum -100 ;\n\t\tlv2:maximum 0 ;\n\t\tunits:unit units:db";
        break;
    case PortRole::Readout:
        if (!port.unit.empty())
            out += " ;\n\t\tunits:unit " + unitObject(port.unit);
        break;
    }
    out += " ;\n\t]";
}

void writeGroups(std::string& out, const Variant& v)
{
    const std::string cls = std::string("pg:") + v.layout->group;
    if (v.inputs > 0)
        out += groupUri(v, "in") + "\n\ta " + cls + " , pg:InputGroup ;\n\tlv2:symbol \"in\" ;\n\trdfs:label \"Input\" .\n\n";
    out += groupUri(v, "out") + "\n\ta " + cls + " , pg:OutputGroup ;\n\tlv2:symbol \"out\" ;\n\trdfs:label \"Output\"";
    if (v.inputs > 0)
        out += " ;\n\tpg:source " + groupUri(v, "in");
    out += " .\n\n";
}

void writeVariant(std::string& out, const Variant& v, const BundleNames& names)
{
    writeGroups(out, v);
    out += "<" + v.uri + ">\n\ta lv2:Plugin ;\n\tdoap:name " + quoted(v.name) +
           " ;\n\tlv2:optionalFeature lv2:hardRTCapable , opts:options , bufsz:boundedBlockLength , urid:map ,"
           " work:schedule"
           " ;\n\topts:supportedOption bufsz:maxBlockLength , bufsz:nominalBlockLength"
           " ;\n\tlv2:extensionData state:interface , work:interface";
    if (v.inputs > 0)
        out += " ;\n\tpg:mainInput " + groupUri(v, "in");
    out += " ;\n\tpg:mainOutput " + groupUri(v, "out");
    if (v.hasEditor && !names.uiBinary.empty())
        out += std::string(" ;\n\tui:ui <") + kUiUri + ">";
    out += " ;\n\tlv2:port ";
    for (std::size_t i = 0; i < v.ports.size(); ++i)
        writePort(out, v, v.ports[i], i);
    out += " .\n\n";
}

} // namespace

std::string turtleNumber(float value)
{
    if (!std::isfinite(value))
        value = 0.0f;
    char text[64];
    for (int digits = 6; digits <= 9; ++digits) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
        if (std::strtof(text, nullptr) == value)
            break;
    }
    std::string s = text;
    // Turtle reads "3" as an integer and "1e+06" as a double; both are fine
    // for lilv, but a plain decimal keeps the files readable.
    if (s.find_first_of(".e") == std::string::npos)
        s += ".0";
    return s;
}

std::map<std::string, std::string> bundleTurtle(const std::vector<Variant>& catalog, const BundleNames& names)
{
    std::map<std::string, std::string> files;
    std::string manifest = kPrefixes;
    bool uiWritten = false;
    for (const Variant& v : catalog) {
        const std::string file = keySlug(v.key) + ".ttl";
        auto& text = files[file];
        if (text.empty())
            text = kPrefixes;
        writeVariant(text, v, names);
        manifest += "<" + v.uri + ">\n\ta lv2:Plugin ;\n\tlv2:binary <" + names.binary + "> ;\n\trdfs:seeAlso <" +
                    file + "> .\n\n";
        if (v.hasEditor && !names.uiBinary.empty() && !uiWritten) {
            uiWritten = true;
            manifest += std::string("<") + kUiUri + ">\n\ta ui:Qt5UI ;\n\tui:binary <" + names.uiBinary +
                        "> ;\n\tlv2:requiredFeature <http://lv2plug.in/ns/ext/instance-access>"
                        " ;\n\tlv2:optionalFeature ui:idleInterface ;\n\tlv2:extensionData ui:idleInterface .\n\n";
        }
    }
    files["manifest.ttl"] = manifest;
    return files;
}

} // namespace qvd::lv2
