#include "LilvHost.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include <unistd.h>

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>

namespace qvdtest {

UridMap::UridMap()
{
    m_feature.handle = this;
    m_feature.map = [](LV2_URID_Map_Handle h, const char* uri) { return static_cast<UridMap*>(h)->map(uri); };
}

LV2_URID UridMap::map(const char* uri)
{
    const auto it = m_ids.find(uri);
    if (it != m_ids.end())
        return it->second;
    const auto id = static_cast<LV2_URID>(m_ids.size() + 1);
    m_ids.emplace(uri, id);
    return id;
}

std::string isolatedLv2Path(const std::string& bundleDir)
{
    namespace fs = std::filesystem;
    // Specification and schema bundles say so in their manifest (plugin bundles, even
    // half-unpacked ones, do not); links to them go in a folder of our own,
    // removed at exit.
    struct Specs {
        fs::path dir = fs::temp_directory_path() / ("qvd-lv2-specs-" + std::to_string(getpid()));
        Specs()
        {
            std::error_code ec;
            fs::create_directories(dir, ec);
            for (const auto& bundle : fs::directory_iterator("/usr/lib/lv2", ec)) {
                std::ifstream manifest(bundle.path() / "manifest.ttl");
                const std::string text{std::istreambuf_iterator<char>(manifest), {}};
                if (text.find("Specification") != std::string::npos || text.find("owl:Ontology") != std::string::npos)
                    fs::create_directory_symlink(bundle.path(), dir / bundle.path().filename(), ec);
            }
        }
        ~Specs()
        {
            std::error_code ec;
            fs::remove_all(dir, ec);
        }
    };
    static const Specs specs;
    return bundleDir + ":" + specs.dir.string();
}

LilvHost::LilvHost(const std::string& bundleDir)
{
    m_world = lilv_world_new();
    LilvNode* path = lilv_new_string(m_world, isolatedLv2Path(bundleDir).c_str());
    lilv_world_set_option(m_world, LILV_OPTION_LV2_PATH, path);
    lilv_node_free(path);
    lilv_world_load_all(m_world);
}

LilvHost::~LilvHost()
{
    lilv_world_free(m_world);
}

std::vector<std::string> LilvHost::uris() const
{
    std::vector<std::string> out;
    const LilvPlugins* all = lilv_world_get_all_plugins(m_world);
    LILV_FOREACH (plugins, it, all)
        out.emplace_back(lilv_node_as_uri(lilv_plugin_get_uri(lilv_plugins_get(all, it))));
    std::sort(out.begin(), out.end());
    return out;
}

const LilvPlugin* LilvHost::plugin(const std::string& uri) const
{
    LilvNode* node = lilv_new_uri(m_world, uri.c_str());
    const LilvPlugin* p = lilv_plugins_get_by_uri(lilv_world_get_all_plugins(m_world), node);
    lilv_node_free(node);
    return p;
}

Lv2Instance::Lv2Instance(LilvHost& host, const std::string& uri, double rate, std::int32_t maxBlock)
{
    const LilvPlugin* p = host.plugin(uri);
    if (!p)
        return;
    LilvWorld* w = host.world();
    LilvNode* audio = lilv_new_uri(w, LV2_CORE__AudioPort);
    LilvNode* control = lilv_new_uri(w, LV2_CORE__ControlPort);
    LilvNode* input = lilv_new_uri(w, LV2_CORE__InputPort);
    LilvNode* isSideChain = lilv_new_uri(w, LV2_CORE_PREFIX "isSideChain");
    const std::uint32_t count = lilv_plugin_get_num_ports(p);
    std::vector<float> defaults(count);
    lilv_plugin_get_port_ranges_float(p, nullptr, nullptr, defaults.data());
    m_values.assign(count, 0.0f);
    for (std::uint32_t i = 0; i < count; ++i) {
        const LilvPort* port = lilv_plugin_get_port_by_index(p, i);
        m_symbols[lilv_node_as_string(lilv_port_get_symbol(p, port))] = i;
        const bool in = lilv_port_is_a(p, port, input);
        if (lilv_port_is_a(p, port, audio) && in && lilv_port_has_property(p, port, isSideChain))
            m_sideChainIn.push_back(i);
        else if (lilv_port_is_a(p, port, audio))
            (in ? m_audioIn : m_audioOut).push_back(i);
        else if (lilv_port_is_a(p, port, control) && in)
            m_controlIn.push_back(i);
        m_values[i] = std::isnan(defaults[i]) ? 0.0f : defaults[i];
    }
    lilv_node_free(audio);
    lilv_node_free(control);
    lilv_node_free(input);
    lilv_node_free(isSideChain);

    m_featureStore.push_back({LV2_URID__map, host.urids().feature()});
    if (maxBlock > 0) {
        m_blockLength = maxBlock;
        UridMap& u = host.urids();
        const LV2_URID intType = u.map(LV2_ATOM__Int);
        m_options = {
            {LV2_OPTIONS_INSTANCE, 0, u.map(LV2_BUF_SIZE__maxBlockLength), sizeof(std::int32_t), intType, &m_blockLength},
            {LV2_OPTIONS_INSTANCE, 0, u.map(LV2_BUF_SIZE__nominalBlockLength), sizeof(std::int32_t), intType,
             &m_blockLength},
            {LV2_OPTIONS_INSTANCE, 0, 0, 0, 0, nullptr},
        };
        m_featureStore.push_back({LV2_OPTIONS__options, m_options.data()});
        m_featureStore.push_back({LV2_BUF_SIZE__boundedBlockLength, nullptr});
        m_jobs.assign(4096, std::vector<char>(64));
        m_schedule.handle = this;
        m_schedule.schedule_work = [](LV2_Worker_Schedule_Handle h, uint32_t size, const void* data) {
            auto& self = *static_cast<Lv2Instance*>(h);
            if (self.m_jobCount == self.m_jobs.size() || size > self.m_jobs[self.m_jobCount].capacity())
                return LV2_WORKER_ERR_NO_SPACE;
            auto& job = self.m_jobs[self.m_jobCount++];
            std::memcpy(job.data(), data, size);
            job.resize(size);
            return LV2_WORKER_SUCCESS;
        };
        m_featureStore.push_back({LV2_WORKER__schedule, &m_schedule});
    }
    for (const auto& f : m_featureStore)
        m_features.push_back(&f);
    m_features.push_back(nullptr);
    m_instance = lilv_plugin_instantiate(p, rate, m_features.data());
    if (!m_instance)
        return;
    for (const std::uint32_t i : m_controlIn)
        lilv_instance_connect_port(m_instance, i, &m_values[i]);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (std::find(m_controlIn.begin(), m_controlIn.end(), i) == m_controlIn.end() &&
            std::find(m_audioIn.begin(), m_audioIn.end(), i) == m_audioIn.end() &&
            std::find(m_audioOut.begin(), m_audioOut.end(), i) == m_audioOut.end() &&
            std::find(m_sideChainIn.begin(), m_sideChainIn.end(), i) == m_sideChainIn.end())
            lilv_instance_connect_port(m_instance, i, &m_values[i]);
    }
    // Optional side-chain inputs stay unconnected until process() has a key.
    for (const std::uint32_t i : m_sideChainIn)
        lilv_instance_connect_port(m_instance, i, nullptr);
}

Lv2Instance::~Lv2Instance()
{
    if (!m_instance)
        return;
    if (m_active)
        lilv_instance_deactivate(m_instance);
    lilv_instance_free(m_instance);
}

void Lv2Instance::set(const std::string& symbol, float value)
{
    m_values.at(m_symbols.at(symbol)) = value;
}

float Lv2Instance::get(const std::string& symbol) const
{
    return m_values.at(m_symbols.at(symbol));
}

void Lv2Instance::connectControl(const std::string& symbol, float* value)
{
    lilv_instance_connect_port(m_instance, m_symbols.at(symbol), value);
}

std::vector<std::string> Lv2Instance::parameterSymbols() const
{
    std::vector<std::string> out;
    for (const auto& [symbol, index] : m_symbols) {
        if (symbol != "enabled" && std::find(m_controlIn.begin(), m_controlIn.end(), index) != m_controlIn.end())
            out.push_back(symbol);
    }
    return out;
}

void Lv2Instance::connectAudio(float* const* in, float* const* out)
{
    for (std::size_t c = 0; c < m_audioIn.size(); ++c)
        lilv_instance_connect_port(m_instance, m_audioIn[c], in[c]);
    for (std::size_t c = 0; c < m_audioOut.size(); ++c)
        lilv_instance_connect_port(m_instance, m_audioOut[c], out[c]);
}

void Lv2Instance::run(std::uint32_t frames)
{
    if (!m_active) {
        lilv_instance_activate(m_instance);
        m_active = true;
    }
    if (beforeRun)
        beforeRun();
    lilv_instance_run(m_instance, frames);
    if (afterRun)
        afterRun();
    if (m_jobCount == 0)
        return;
    const auto* worker = static_cast<const LV2_Worker_Interface*>(extension(LV2_WORKER__interface));
    for (std::size_t i = 0; i < m_jobCount; ++i) {
        auto& job = m_jobs[i];
        worker->work(handle(), nullptr, nullptr, static_cast<uint32_t>(job.size()), job.data());
        job.resize(job.capacity());
    }
    m_jobCount = 0;
}

Signal Lv2Instance::process(const Signal& in, const std::vector<std::uint32_t>& split, Buffers buffers)
{
    const std::size_t frames = in.empty() ? 0 : in[0].size();
    const std::size_t ins = m_audioIn.size(), outs = m_audioOut.size();
    // Work buffers: inputs go in first; outputs land in them for the in-place
    // modes, crossed over by one channel for CrossAliased.
    Signal work(std::max(ins, outs), std::vector<float>(frames, 0.0f));
    for (std::size_t c = 0; c < ins; ++c)
        work[c] = in[c];
    Signal out(outs, std::vector<float>(frames, 0.0f));
    std::vector<float*> inPtr(ins), outPtr(outs);
    std::size_t done = 0, k = 0;
    while (done < frames) {
        const std::size_t n = std::min<std::size_t>(split[k++ % split.size()], frames - done);
        for (std::size_t c = 0; c < ins; ++c)
            inPtr[c] = work[c].data() + done;
        for (std::size_t c = 0; c < outs; ++c) {
            if (buffers == Buffers::Separate)
                outPtr[c] = out[c].data() + done;
            else
                outPtr[c] = work[buffers == Buffers::InPlace ? c : (c + 1) % work.size()].data() + done;
        }
        connectAudio(inPtr.data(), outPtr.data());
        for (std::size_t c = 0; c < m_sideChainIn.size() && !sideChain.empty(); ++c)
            lilv_instance_connect_port(m_instance, m_sideChainIn[c],
                                       sideChain[std::min(c, sideChain.size() - 1)].data() + done);
        run(static_cast<std::uint32_t>(n));
        done += n;
    }
    if (buffers != Buffers::Separate) {
        for (std::size_t c = 0; c < outs; ++c)
            out[c] = work[buffers == Buffers::InPlace ? c : (c + 1) % work.size()];
    }
    return out;
}

std::uint32_t bitsOf(float value)
{
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

std::string firstDifference(const Signal& a, const Signal& b)
{
    if (a.size() != b.size())
        return "channel counts " + std::to_string(a.size()) + " and " + std::to_string(b.size());
    for (std::size_t c = 0; c < a.size(); ++c) {
        if (a[c].size() != b[c].size())
            return "lengths differ on channel " + std::to_string(c);
        for (std::size_t i = 0; i < a[c].size(); ++i) {
            if (bitsOf(a[c][i]) != bitsOf(b[c][i])) {
                char text[128];
                std::snprintf(text, sizeof text, "channel %zu frame %zu: %.9g vs %.9g", c, i,
                              static_cast<double>(a[c][i]), static_cast<double>(b[c][i]));
                return text;
            }
        }
    }
    return {};
}

Signal noise(int channels, std::size_t frames, std::uint32_t seed, float level)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(-level, level);
    Signal s(static_cast<std::size_t>(channels), std::vector<float>(frames));
    for (auto& ch : s)
        for (auto& x : ch)
            x = d(rng);
    return s;
}

} // namespace qvdtest
