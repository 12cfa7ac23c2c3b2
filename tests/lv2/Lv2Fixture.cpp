#include "Lv2Fixture.h"

#include <algorithm>
#include <cctype>

#include "Lv2Library.h"

namespace qvdtest {

std::string bundleDir()
{
    return QVD_LV2_BUNDLE_DIR;
}

qvd::PluginInterface& registry()
{
    auto& lib = qvd::lv2::Lv2Library::open(bundleDir() + "/qvd.lv2/" + qvd::kLibraryName);
    if (!lib.registry()) {
        std::fprintf(stderr, "%s\n", lib.error().c_str());
        std::abort();
    }
    return *lib.registry();
}

const std::vector<qvd::lv2::Variant>& catalog()
{
    static const auto all = qvd::lv2::buildCatalog(registry());
    return all;
}

const qvd::lv2::Variant& variant(const std::string& uri)
{
    const auto& all = catalog();
    return *std::find_if(all.begin(), all.end(), [&](const auto& v) { return v.uri == uri; });
}

LilvHost& host()
{
    static LilvHost h(bundleDir());
    return h;
}

std::vector<std::pair<const qvd::ParameterInfo*, float>> offDefaultSettings(const qvd::lv2::Variant& v)
{
    std::vector<std::pair<const qvd::ParameterInfo*, float>> out;
    for (const auto& port : v.ports) {
        if (port.role != qvd::lv2::PortRole::Parameter)
            continue;
        const qvd::ParameterInfo& p = port.parameter;
        float value;
        if (p.kind != qvd::kContinuous)
            value = p.defaultValue == p.maximum ? p.minimum : p.maximum;
        else {
            value = p.minimum + (p.maximum - p.minimum) * 0.37f;
            if (value == p.defaultValue)
                value = p.minimum + (p.maximum - p.minimum) * 0.63f;
        }
        out.emplace_back(&p, value);
    }
    // A value that moves the latency (a limiter's look-ahead) takes effect at
    // the next activation, and ffmpeg sets controls after activating: such
    // values stay at their defaults here so every host runs the same thing.
    const std::uint64_t base = directLatency(v, 48000);
    std::erase_if(out, [&](const auto& setting) { return directLatency(v, 48000, {setting}) != base; });
    return out;
}

namespace {

struct Direct {
    qvd::PluginInstance* p;
    // Settings go in before prepare, as the wrapper's activate applies a
    // host's values: some (a look-ahead) take effect at the next prepare.
    Direct(const qvd::lv2::Variant& v, double rate, int block,
           const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings = {})
        : p(registry().createPlugin(qvd::kAudioPlugin, v.key.c_str()))
    {
        for (const auto& [info, value] : settings)
            p->setParameter(info->index, value);
        const qvd::PrepareConfig config{v.inputs ? v.layout->format : qvd::kFormatNone, v.layout->format, 1, 0};
        p->getAudioInterface()->prepare(static_cast<float>(rate), block, &config);
    }
    ~Direct() { p->destroy(); }
};

} // namespace

Signal processDirect(const qvd::lv2::Variant& v, double rate, const Signal& in,
                     const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings, int block)
{
    Direct d(v, rate, block, settings);
    const std::size_t frames = in.empty() ? 0 : in[0].size();
    Signal out(static_cast<std::size_t>(v.outputs), std::vector<float>(frames));
    std::vector<const float*> ins(in.size());
    std::vector<float*> outs(out.size());
    qvd::BlockRecord record{};
    record.mode = qvd::kModePlaying;
    record.position = 0;
    for (std::size_t done = 0; done < frames; done += static_cast<std::size_t>(block)) {
        const auto n = std::min(frames - done, static_cast<std::size_t>(block));
        for (std::size_t c = 0; c < ins.size(); ++c)
            ins[c] = in[c].data() + done;
        for (std::size_t c = 0; c < outs.size(); ++c)
            outs[c] = out[c].data() + done;
        d.p->getAudioInterface()->process(&record, ins.data(), outs.data(), static_cast<std::int32_t>(n));
        record.position += static_cast<std::int64_t>(n);
    }
    return out;
}

std::vector<float> directParameters(const qvd::lv2::Variant& v,
                                    const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings)
{
    Direct d(v, 48000, 512);
    for (const auto& [info, value] : settings)
        d.p->setParameter(info->index, value);
    std::vector<float> values;
    for (std::int32_t i = 0; i < d.p->parameterCount(); ++i)
        values.push_back(d.p->getParameter(i));
    return values;
}

std::uint64_t directLatency(const qvd::lv2::Variant& v, double rate,
                            const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings)
{
    return Direct(v, rate, 512, settings).p->getLatency();
}

::testing::internal::ParamGenerator<std::string> allVariants()
{
    std::vector<std::string> uris;
    for (const auto& v : catalog())
        uris.push_back(v.uri);
    return ::testing::ValuesIn(uris);
}

std::string testName(const ::testing::TestParamInfo<std::string>& info)
{
    const std::string tail = info.param.substr(std::string("urn:qvd:lv2:").size());
    std::string name;
    for (const char c : tail)
        name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

} // namespace qvdtest
