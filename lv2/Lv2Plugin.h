#pragma once
// One LV2 instance of one catalog variant. The wrapper's LV2_Handle points to
// it; the Qt UI reaches the plugin instance through it with instance-access.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include <lv2/core/lv2.h>
#include <lv2/urid/urid.h>
#include <lv2/worker/worker.h>

#include <qvd/qvd.h>

#include "Lv2Catalog.h"

namespace qvd::lv2 {

// Block length prepared when the host states neither a maximum nor a nominal
// one (lv2apply, for one); longer runs are processed in chunks of it.
constexpr std::int32_t kDefaultBlockLength = 4096;

struct Lv2Plugin;

// The plugin's "sidechain" source, read from the side-chain ports of the run
// in progress; not available while any of them is unconnected.
class SideChainPorts final : public qvd::HostExtensions {
public:
    explicit SideChainPorts(const Lv2Plugin& owner) : m_owner(owner) {}
    std::int32_t extensionsVersion() const override { return qvd::kHostExtensionsVersion; }
    bool tempoAt(std::int64_t, double*, std::int32_t*, std::int32_t*) override { return false; }
    bool fetchAudio(std::uint64_t instanceId, const char* source, std::int64_t position, float* const* channels,
                    std::int32_t channelCount, std::int32_t frames) override;

private:
    const Lv2Plugin& m_owner;
};

struct Lv2Plugin {
    qvd::PluginInstance* plugin = nullptr;
    AudioPlugin* audio = nullptr;
    const Variant* variant = nullptr;
    double rate = 0.0;
    std::int32_t blockLength = kDefaultBlockLength;
    bool prepared = false;

    // Port buffers, per channel or per parameter, as the host connects them.
    std::vector<const float*> inputs;
    std::vector<float*> outputs;
    std::vector<const float*> controls;
    std::vector<const float*> sideChains;
    // Timeline frame and length of the run in progress, for the side-chain.
    std::int64_t runStart = 0;
    std::int32_t runFrames = 0;
    SideChainPorts host{*this};
    // Bits of each control port at the last run: only a change is applied,
    // so a restored state holds until the host moves the port. Atomic: a
    // state save may read it while run() writes it.
    std::unique_ptr<std::atomic<std::uint32_t>[]> seen;
    // The audio thread's own copy of seen, and what it compares it with:
    // each control port, or for an unconnected one its own entry of
    // lastBits, which then never differs.
    std::vector<std::uint32_t> lastBits;
    std::vector<const void*> watched;
    // When the host keeps the control ports side by side in one array, as
    // most do, their first; compared as a row. Worked out again at the first
    // run after the host connects a control port.
    const float* controlRow = nullptr;
    bool controlsKnown = false;
    std::vector<std::int32_t> parameterIndex;
    std::vector<LV2_URID> stateKeys;
    const float* enabled = nullptr;
    bool bypassed = false;
    float* latency = nullptr;
    struct MeterPort {
        float* port;
        std::int32_t group;
        std::int32_t channel;
    };
    std::vector<MeterPort> meters;
    struct ReadoutPort {
        float* port;
        std::int32_t index;
    };
    std::vector<ReadoutPort> readouts;
    std::vector<double> meterValues; // one group's levels, sized at instantiate
    // Meters, readouts and latency go out every statusEvery frames, at the
    // first run and when a control or the bypass moves: displays and delay
    // compensation read them far less often than small blocks come.
    std::int32_t statusEvery = 1;
    std::int64_t framesToStatus = 0;
    // Per port index: slot in inputs/outputs/controls/meters.
    std::vector<std::int32_t> slot;

    // Whether an input buffer is another channel's output; worked out again
    // at the first run after the host connects an audio port.
    bool aliasKnown = false;
    bool aliased = false;
    // Inputs copied aside when the host aliases an input with another
    // channel's output; sized in activate.
    std::vector<float> aside;
    std::vector<const float*> asideInputs;
    std::vector<float*> chunkOutputs;

    qvd::BlockRecord block;
    LV2_URID_Map* map = nullptr;
    // Parameter setters are [control-thread]: run() hands changes to the
    // host's worker thread when there is one.
    LV2_Worker_Schedule* worker = nullptr;
    LV2_URID atomFloat = 0;
};

} // namespace qvd::lv2
