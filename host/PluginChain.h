#pragma once
// A chain of plugin instances run one after another in place on the same
// planar buffers, as a host runs an effect chain.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <qvd/qvd.h>

namespace qvdfx {

// The key of a plugin named by key or by unambiguous display name; a plugin
// failure naming the candidates otherwise.
std::string resolvePluginKey(qvd::PluginInterface& registry, const std::string& name);

struct StepSpec {
    std::string plugin;                                        // key or display name
    std::vector<std::pair<std::string, std::string>> settings; // NAME, VALUE as typed
};

// Instance owned by the host; destroyed through the plugin's own operation.
struct PluginHandle {
    qvd::PluginInstance* instance = nullptr;
    explicit PluginHandle(qvd::PluginInstance* i) : instance(i) {}
    ~PluginHandle();
    PluginHandle(const PluginHandle&) = delete;
    PluginHandle& operator=(const PluginHandle&) = delete;
    AudioPlugin* audio() const { return instance->getAudioInterface(); }
};

// Index of the parameter NAME names: a full identifier ("QVDGain::GAIN"),
// the part after the colons ("GAIN", any case) or an index.
std::int32_t resolveParameter(const qvd::PluginInstance& plugin, const std::string& name);

// The value VALUE gives parameter `index`: a number in the parameter's own
// units or, for list parameters, an option label. Out of range is a plugin
// failure unless `force`.
float resolveValue(const qvd::PluginInstance& plugin, std::int32_t index, const std::string& value, bool force);

class PluginChain {
public:
    PluginChain(qvd::PluginInterface& registry, const std::vector<StepSpec>& steps, bool force);

    // Channel formats, prepare and bypass for every step; fails naming the step.
    void prepare(int rate, int channels, int blockSize, bool smoothing, bool bypass);
    // [audio path] Runs every step in place; holds meter peaks. No allocation.
    void process(float* const* channels, std::int32_t frames);
    // Sum of the steps' latencies, in frames, after prepare.
    std::uint64_t latency() const;

    std::size_t size() const { return m_steps.size(); }
    const qvd::PluginInstance& plugin(std::size_t i) const { return *m_steps[i]->instance; }
    // Meters of every step and group, peak-held in dB since prepare, as JSON;
    // stepFields[s], when given, adds members ("name": value) to step s.
    std::string metersJson(const std::vector<std::string>& stepFields = {}) const;
    // The same object's members without its braces, to embed with others.
    std::string metersFields(const std::vector<std::string>& stepFields = {}) const;

private:
    struct Meters {
        std::string name;
        std::vector<double> held;
        std::vector<double> scratch;
    };
    std::vector<std::unique_ptr<PluginHandle>> m_steps;
    std::vector<std::vector<Meters>> m_meters;
    qvd::BlockRecord m_block{};
};

} // namespace qvdfx
