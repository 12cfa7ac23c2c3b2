#pragma once
// A small in-process LV2 host on lilv for the tests and the benchmark: it
// loads only the bundle under test (and the installed LV2 specifications),
// offers urid:map, options and bounded block length like a DAW, and runs
// planar signals through an instance in blocks of any split.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <lilv/lilv.h>
#include <lv2/options/options.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

namespace qvdtest {

using Signal = std::vector<std::vector<float>>; // planar

class UridMap {
public:
    UridMap();
    LV2_URID map(const char* uri);
    LV2_URID_Map* feature() { return &m_feature; }

private:
    std::map<std::string, LV2_URID> m_ids;
    LV2_URID_Map m_feature;
};

// An LV2_PATH of `bundleDir` (a folder of *.lv2 bundles) and the LV2
// specifications installed in /usr/lib/lv2, without the plugins installed
// beside them, so hosts see our bundle and nothing else.
std::string isolatedLv2Path(const std::string& bundleDir);

class LilvHost {
public:
    // Loads what isolatedLv2Path(bundleDir) holds.
    explicit LilvHost(const std::string& bundleDir);
    ~LilvHost();
    LilvHost(const LilvHost&) = delete;
    LilvHost& operator=(const LilvHost&) = delete;

    std::vector<std::string> uris() const;
    const LilvPlugin* plugin(const std::string& uri) const;
    LilvWorld* world() const { return m_world; }
    UridMap& urids() { return m_urids; }

private:
    LilvWorld* m_world = nullptr;
    UridMap m_urids;
};

// How audio buffers are handed to the plugin.
enum class Buffers { Separate, InPlace, CrossAliased };

class Lv2Instance {
public:
    // Like a DAW: options with `maxBlock` as the maximum and nominal block
    // length, bounded block length, and a worker whose jobs run after each
    // run call, as a worker thread would. `maxBlock` 0 offers neither options
    // nor a worker, as lv2apply does. The instance is activated at the first
    // run, after the test has set its controls.
    Lv2Instance(LilvHost& host, const std::string& uri, double rate, std::int32_t maxBlock);
    ~Lv2Instance();
    Lv2Instance(const Lv2Instance&) = delete;
    Lv2Instance& operator=(const Lv2Instance&) = delete;

    bool valid() const { return m_instance != nullptr; }
    int inputs() const { return static_cast<int>(m_audioIn.size()); }
    int outputs() const { return static_cast<int>(m_audioOut.size()); }
    // Inputs marked lv2:isSideChain, apart from inputs().
    int sideChainInputs() const { return static_cast<int>(m_sideChainIn.size()); }
    // Key for the side-chain inputs in process(), one vector per channel (the
    // last repeats), as long as its input; empty leaves them unconnected.
    Signal sideChain;
    bool hasPort(const std::string& symbol) const { return m_symbols.count(symbol) != 0; }
    // Control ports by symbol: input values to set, output values to read.
    void set(const std::string& symbol, float value);
    float get(const std::string& symbol) const;
    // Connects a control port to storage of the caller's instead, as hosts
    // that keep each port's value in its own object do; set() and get() no
    // longer reach it.
    void connectControl(const std::string& symbol, float* value);
    // Symbols of the control inputs that are plugin parameters (not "enabled").
    std::vector<std::string> parameterSymbols() const;

    // Runs `in` (one vector per audio input; ignored for generators) through
    // the plugin, `split` giving the frames per run call, cycled.
    Signal process(const Signal& in, const std::vector<std::uint32_t>& split, Buffers buffers = Buffers::Separate);
    // Connects the audio ports to fixed buffers, for run() in a timing loop.
    void connectAudio(float* const* in, float* const* out);
    void run(std::uint32_t frames);

    LV2_Handle handle() const { return lilv_instance_get_handle(m_instance); }
    const void* extension(const char* uri) const { return lilv_instance_get_extension_data(m_instance, uri); }
    // Hooks around every run call (the real-time watch).
    void (*beforeRun)() = nullptr;
    void (*afterRun)() = nullptr;

private:
    LilvInstance* m_instance = nullptr;
    std::vector<std::uint32_t> m_audioIn, m_audioOut, m_controlIn, m_sideChainIn;
    std::vector<float> m_values;
    std::map<std::string, std::uint32_t> m_symbols;
    std::vector<LV2_Options_Option> m_options;
    std::int32_t m_blockLength = 0;
    bool m_active = false;
    LV2_Worker_Schedule m_schedule{};
    std::vector<std::vector<char>> m_jobs; // capacity reserved: scheduling never allocates
    std::size_t m_jobCount = 0;
    std::vector<LV2_Feature> m_featureStore;
    std::vector<const LV2_Feature*> m_features;
};

// Bits of a float, for exact comparisons.
std::uint32_t bitsOf(float value);
// Empty when `a` and `b` are the same bit for bit, else where they differ.
std::string firstDifference(const Signal& a, const Signal& b);
// Uniform noise in +-level, one vector per channel.
Signal noise(int channels, std::size_t frames, std::uint32_t seed, float level = 0.25f);

} // namespace qvdtest
