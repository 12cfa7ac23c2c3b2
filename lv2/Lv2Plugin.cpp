// The LV2 wrapper: one descriptor per catalog variant, each instance driving
// one plugin of libQVDAudioPlugins.so (loaded from the same bundle) through
// the public interface only.
#include "Lv2Plugin.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/options/options.h>
#include <lv2/state/state.h>

#include "Lv2Library.h"

namespace qvd::lv2 {

namespace {

// How often run() publishes meters, readouts and latency: 200 times a second
// of audio, far above any display's rate.
constexpr double kStatusSeconds = 0.005;

// Built once, in place: the descriptors point into the variants' URIs.
struct Catalog {
    Catalog();
    qvd::PluginInterface* registry = nullptr;
    std::vector<Variant> variants;
    std::vector<LV2_Descriptor> descriptors;
};

const Catalog& catalog();

// One control port change on its way to the worker thread.
struct ParameterChange {
    std::uint32_t slot;
    float value;
};

const void* featureData(const LV2_Feature* const* features, const char* uri)
{
    for (auto f = features; f && *f; ++f) {
        if (std::strcmp((*f)->URI, uri) == 0)
            return (*f)->data;
    }
    return nullptr;
}

std::uint32_t bitsOf(float value)
{
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// The block length to prepare: the host's maximum, else its nominal length,
// else the default. Anything longer is chunked by AudioPlugin::process.
std::int32_t blockLengthFrom(const LV2_Options_Option* options, LV2_URID_Map* map)
{
    if (!options || !map)
        return kDefaultBlockLength;
    const LV2_URID maxKey = map->map(map->handle, LV2_BUF_SIZE__maxBlockLength);
    const LV2_URID nominalKey = map->map(map->handle, LV2_BUF_SIZE__nominalBlockLength);
    const LV2_URID intType = map->map(map->handle, LV2_ATOM__Int);
    std::int32_t maximum = 0, nominal = 0;
    for (auto o = options; o->key; ++o) {
        if (o->type != intType || o->size != sizeof(std::int32_t) || !o->value)
            continue;
        const std::int32_t value = *static_cast<const std::int32_t*>(o->value);
        if (o->key == maxKey)
            maximum = value;
        else if (o->key == nominalKey)
            nominal = value;
    }
    const std::int32_t length = maximum > 0 ? maximum : nominal > 0 ? nominal : kDefaultBlockLength;
    return std::min(length, AudioPlugin::kMaxBlockSize);
}

LV2_Handle instantiate(const LV2_Descriptor* descriptor, double rate, const char*, const LV2_Feature* const* features)
{
    const Catalog& c = catalog();
    const auto found = std::find_if(c.descriptors.begin(), c.descriptors.end(),
                                    [&](const LV2_Descriptor& d) { return &d == descriptor; });
    if (found == c.descriptors.end())
        return nullptr;
    const Variant& v = c.variants[static_cast<std::size_t>(found - c.descriptors.begin())];
    auto self = std::make_unique<Lv2Plugin>();
    // An instance takes the registry's extensions at creation: its own ports'
    // side-chain, installed just for its creation.
    qvd::PluginInstance* instance = nullptr;
    {
        static std::mutex creating;
        const std::lock_guard<std::mutex> lock(creating);
        if (v.sideChains > 0)
            c.registry->setHostExtensions(&self->host);
        instance = c.registry->createPlugin(qvd::kAudioPlugin, v.key.c_str());
        c.registry->setHostExtensions(nullptr);
    }
    AudioPlugin* audio = qvd::audioInterfaceOf(instance);
    const std::int32_t inFormat = v.inputs ? v.layout->format : qvd::kFormatNone;
    if (!audio || !audio->setChannelFormats(inFormat, v.layout->format)) {
        std::fprintf(stderr, "qvd-lv2: %s: cannot create %s in %s\n", v.uri.c_str(), v.key.c_str(), v.layout->label);
        if (instance)
            instance->destroy();
        return nullptr;
    }

    self->plugin = instance;
    self->audio = audio;
    self->variant = &v;
    self->rate = rate;
    self->map = static_cast<LV2_URID_Map*>(const_cast<void*>(featureData(features, LV2_URID__map)));
    self->blockLength =
        blockLengthFrom(static_cast<const LV2_Options_Option*>(featureData(features, LV2_OPTIONS__options)), self->map);
    self->worker = static_cast<LV2_Worker_Schedule*>(const_cast<void*>(featureData(features, LV2_WORKER__schedule)));
    if (self->map)
        self->atomFloat = self->map->map(self->map->handle, LV2_ATOM__Float);
    self->inputs.assign(static_cast<std::size_t>(v.inputs), nullptr);
    self->outputs.assign(static_cast<std::size_t>(v.outputs), nullptr);
    self->sideChains.assign(static_cast<std::size_t>(v.sideChains), nullptr);
    std::int32_t widestGroup = 0;
    for (const Port& port : v.ports) {
        std::int32_t slot = port.channel;
        if (port.role == PortRole::Parameter) {
            slot = static_cast<std::int32_t>(self->controls.size());
            self->controls.push_back(nullptr);
            self->parameterIndex.push_back(port.source);
            self->stateKeys.push_back(
                self->map ? self->map->map(self->map->handle, stateKey(port.parameter.identifier).c_str()) : 0);
        } else if (port.role == PortRole::Meter) {
            slot = static_cast<std::int32_t>(self->meters.size());
            self->meters.push_back({nullptr, port.source, port.channel});
            widestGroup = std::max(widestGroup, instance->getMeterValues(port.source, nullptr, 0));
        } else if (port.role == PortRole::Readout) {
            slot = static_cast<std::int32_t>(self->readouts.size());
            self->readouts.push_back({nullptr, port.source});
        }
        self->slot.push_back(slot);
    }
    self->meterValues.assign(static_cast<std::size_t>(widestGroup), -100.0);
    // A port left at the plugin's own value needs no first apply.
    self->seen = std::make_unique<std::atomic<std::uint32_t>[]>(self->controls.size());
    self->lastBits.resize(self->controls.size());
    self->watched.resize(self->controls.size());
    for (std::size_t k = 0; k < self->controls.size(); ++k) {
        self->lastBits[k] = bitsOf(instance->getParameter(self->parameterIndex[k]));
        self->seen[k].store(self->lastBits[k], std::memory_order_relaxed);
        self->watched[k] = &self->lastBits[k];
    }
    return self.release();
}

void connectPort(LV2_Handle handle, uint32_t port, void* data)
{
    auto* self = static_cast<Lv2Plugin*>(handle);
    if (port >= self->slot.size())
        return;
    const auto slot = static_cast<std::size_t>(self->slot[port]);
    switch (self->variant->ports[port].role) {
    case PortRole::AudioIn:
        self->inputs[slot] = static_cast<const float*>(data);
        self->aliasKnown = false;
        break;
    case PortRole::AudioOut:
        self->outputs[slot] = static_cast<float*>(data);
        self->aliasKnown = false;
        break;
    case PortRole::Parameter:
        self->controls[slot] = static_cast<const float*>(data);
        self->watched[slot] = data ? data : &self->lastBits[slot];
        self->controlsKnown = false;
        break;
    case PortRole::Enabled: self->enabled = static_cast<const float*>(data); break;
    case PortRole::Latency: self->latency = static_cast<float*>(data); break;
    case PortRole::Meter: self->meters[slot].port = static_cast<float*>(data); break;
    case PortRole::Readout: self->readouts[slot].port = static_cast<float*>(data); break;
    case PortRole::SideChainIn: self->sideChains[slot] = static_cast<const float*>(data); break;
    }
}

// A port's new value reaches the plugin: directly where the caller may set
// parameters, else through the worker. False when the worker has no room,
// so the change is tried again at the next run.
bool applyControl(Lv2Plugin& self, std::size_t slot, float value, bool mayCallSetter)
{
    if (std::isnan(value))
        return true;
    if (mayCallSetter || !self.worker) {
        self.plugin->setParameter(self.parameterIndex[slot], value);
        return true;
    }
    const ParameterChange change{static_cast<std::uint32_t>(slot), value};
    return self.worker->schedule_work(self.worker->handle, sizeof change, &change) == LV2_WORKER_SUCCESS;
}

std::uint32_t wordAt(const void* port)
{
    std::uint32_t bits;
    std::memcpy(&bits, port, sizeof bits);
    return bits;
}

// Hands the moved ports to the plugin; out of line, as most runs move none.
[[gnu::noinline]] void applyMoved(Lv2Plugin& self, bool mayCallSetter)
{
    for (std::size_t k = 0; k < self.watched.size(); ++k) {
        const std::uint32_t bits = wordAt(self.watched[k]);
        if (bits == self.lastBits[k])
            continue;
        float value;
        std::memcpy(&value, &bits, sizeof value);
        if (applyControl(self, k, value, mayCallSetter)) {
            self.lastBits[k] = bits;
            self.seen[k].store(bits, std::memory_order_relaxed);
        }
    }
}

const float* controlRowOf(const Lv2Plugin& self)
{
    const auto& c = self.controls;
    for (std::size_t k = 0; k < c.size(); ++k)
        if (!c[k] || c[k] != c[0] + k)
            return nullptr;
    return c.empty() ? nullptr : c[0];
}

// True when a port moved.
inline bool applyControls(Lv2Plugin& self, bool mayCallSetter)
{
    if (!self.controlsKnown) {
        self.controlRow = controlRowOf(self);
        self.controlsKnown = true;
    }
    // Most runs move no control: one pass that only gathers differences,
    // with no branch per port, says so, and is all a run then pays.
    const std::uint32_t* last = self.lastBits.data();
    const std::size_t count = self.lastBits.size();
    std::uint32_t moved = 0;
    if (self.controlRow) {
        for (std::size_t k = 0; k < count; ++k)
            moved |= wordAt(self.controlRow + k) ^ last[k];
    } else {
        const void* const* watched = self.watched.data();
        for (std::size_t k = 0; k < count; ++k)
            moved |= wordAt(watched[k]) ^ last[k];
    }
    if (!moved)
        return false;
    applyMoved(self, mayCallSetter);
    return true;
}

void activate(LV2_Handle handle)
{
    auto* self = static_cast<Lv2Plugin*>(handle);
    const Variant& v = *self->variant;
    // Values the host put in the ports before activating are applied here,
    // before the reset that prepare arms, so they hold from the first frame.
    applyControls(*self, true);
    // Smoothing on, as live automation needs; settings made before the first
    // run still start exact, since the reset at that run lands on them.
    const qvd::PrepareConfig config{v.inputs ? v.layout->format : qvd::kFormatNone, v.layout->format, 1, 0};
    self->prepared = self->audio->prepare(static_cast<float>(self->rate), self->blockLength, &config);
    if (!self->prepared)
        std::fprintf(stderr, "qvd-lv2: %s refused %g Hz with blocks of %d\n", v.uri.c_str(), self->rate,
                     self->blockLength);
    self->aside.assign(static_cast<std::size_t>(v.inputs) * static_cast<std::size_t>(self->blockLength), 0.0f);
    self->asideInputs.assign(static_cast<std::size_t>(v.inputs), nullptr);
    self->chunkOutputs.assign(static_cast<std::size_t>(v.outputs), nullptr);
    self->statusEvery = std::max(1, static_cast<std::int32_t>(std::lround(self->rate * kStatusSeconds)));
    self->framesToStatus = 0;
    self->block = qvd::BlockRecord{};
    self->block.mode = qvd::kModePlaying;
    self->block.position = 0;
}

// True when the bypass changed.
bool applyBypass(Lv2Plugin& self)
{
    const bool bypass = self.enabled && !(*self.enabled > 0.0f);
    if (bypass == self.bypassed)
        return false;
    self.bypassed = bypass;
    self.audio->setBypass(bypass);
    return true;
}

// Our process() is in place only channel for channel; a host may also hand
// one channel's input buffer out as another channel's output.
bool crossAliased(const Lv2Plugin& self)
{
    for (std::size_t i = 0; i < self.inputs.size(); ++i)
        for (std::size_t o = 0; o < self.outputs.size(); ++o)
            if (i != o && self.inputs[i] == self.outputs[o])
                return true;
    return false;
}

void processAside(Lv2Plugin& self, std::int32_t frames)
{
    const auto length = static_cast<std::size_t>(self.blockLength);
    for (std::int32_t done = 0; done < frames; done += self.blockLength) {
        const auto n = static_cast<std::size_t>(std::min(self.blockLength, frames - done));
        for (std::size_t i = 0; i < self.inputs.size(); ++i) {
            float* copy = self.aside.data() + i * length;
            if (self.inputs[i])
                std::memcpy(copy, self.inputs[i] + done, n * sizeof(float));
            self.asideInputs[i] = self.inputs[i] ? copy : nullptr;
        }
        for (std::size_t o = 0; o < self.outputs.size(); ++o)
            self.chunkOutputs[o] = self.outputs[o] ? self.outputs[o] + done : nullptr;
        self.audio->process(&self.block, self.asideInputs.data(), self.chunkOutputs.data(), static_cast<std::int32_t>(n));
        self.block.position += static_cast<std::int64_t>(n);
    }
}

// Scalar readouts: the plugin published them on this thread, so the read
// never waits.
void publishReadouts(Lv2Plugin& self)
{
    for (const auto& r : self.readouts) {
        double value = 0.0;
        if (r.port && self.plugin->readReadout(r.index, &value, 1) == 1)
            *r.port = static_cast<float>(value);
    }
}

void publishMeters(Lv2Plugin& self)
{
    std::int32_t group = -1, size = 0;
    const auto capacity = static_cast<std::int32_t>(self.meterValues.size());
    for (const auto& m : self.meters) {
        if (m.group != group) {
            group = m.group;
            size = std::clamp(self.plugin->getMeterValues(group, self.meterValues.data(), capacity), 0, capacity);
        }
        // A channel the layout lacks reads as silence.
        if (m.port)
            *m.port = m.channel < size ? static_cast<float>(self.meterValues[static_cast<std::size_t>(m.channel)])
                                       : -100.0f;
    }
}

void run(LV2_Handle handle, uint32_t sampleCount)
{
    auto& self = *static_cast<Lv2Plugin*>(handle);
    const auto frames = static_cast<std::int32_t>(std::min<uint32_t>(sampleCount, INT32_MAX));
    // Without a worker (lv2apply, ffmpeg: offline hosts) the setters run here.
    const bool moved = applyControls(self, false);
    const bool switched = applyBypass(self);
    if (!self.prepared) {
        for (float* out : self.outputs)
            if (out)
                std::memset(out, 0, static_cast<std::size_t>(frames) * sizeof(float));
    } else if (frames > 0) {
        self.runStart = self.block.position;
        self.runFrames = frames;
        if (!self.aliasKnown) {
            self.aliased = crossAliased(self);
            self.aliasKnown = true;
        }
        if (self.aliased) {
            processAside(self, frames);
        } else {
            self.audio->process(&self.block, self.inputs.data(), self.outputs.data(), frames);
            self.block.position += frames;
        }
    }
    self.framesToStatus -= frames;
    if (self.framesToStatus > 0 && !moved && !switched)
        return;
    self.framesToStatus = self.statusEvery;
    if (self.latency)
        *self.latency = static_cast<float>(self.plugin->getLatency());
    publishMeters(self);
    publishReadouts(self);
}

void deactivate(LV2_Handle) {}

} // namespace

bool SideChainPorts::fetchAudio(std::uint64_t, const char* source, std::int64_t position, float* const* channels,
                                std::int32_t channelCount, std::int32_t frames)
{
    const Lv2Plugin& self = m_owner;
    // Cheapest first: a host that leaves the key unconnected is asked every block.
    if (self.sideChains.empty())
        return false;
    for (const float* port : self.sideChains)
        if (!port)
            return false;
    if (!source || std::strcmp(source, qvd::kSourceSideChain) != 0)
        return false;
    // Frames of the run in progress only; the pre-roll after a reset has no position.
    const std::int64_t offset = position - self.runStart;
    if (position < 0 || offset < 0 || offset + frames > self.runFrames)
        return false;
    const auto last = self.sideChains.size() - 1;
    for (std::int32_t c = 0; c < channelCount; ++c)
        std::memcpy(channels[c], self.sideChains[std::min(static_cast<std::size_t>(c), last)] + offset,
                    static_cast<std::size_t>(frames) * sizeof(float));
    return true;
}

namespace {

void cleanup(LV2_Handle handle)
{
    auto* self = static_cast<Lv2Plugin*>(handle);
    self->plugin->destroy();
    delete self;
}

LV2_State_Status saveState(LV2_Handle handle, LV2_State_Store_Function store, LV2_State_Handle state, uint32_t,
                           const LV2_Feature* const*)
{
    const auto& self = *static_cast<Lv2Plugin*>(handle);
    if (!self.map)
        return LV2_STATE_ERR_NO_FEATURE;
    for (std::size_t k = 0; k < self.parameterIndex.size(); ++k) {
        // A port moved since the last run (a host saving before its engine
        // runs) holds the value the plugin is about to take.
        const float* port = self.controls[k];
        const bool pending =
            port && bitsOf(*port) != self.seen[k].load(std::memory_order_relaxed) && !std::isnan(*port);
        const float value = pending ? *port : self.plugin->getParameter(self.parameterIndex[k]);
        const LV2_State_Status status = store(state, self.stateKeys[k], &value, sizeof value, self.atomFloat,
                                              LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
        if (status != LV2_STATE_SUCCESS)
            return status;
    }
    return LV2_STATE_SUCCESS;
}

LV2_State_Status restoreState(LV2_Handle handle, LV2_State_Retrieve_Function retrieve, LV2_State_Handle state,
                              uint32_t, const LV2_Feature* const*)
{
    const auto& self = *static_cast<Lv2Plugin*>(handle);
    if (!self.map)
        return LV2_STATE_ERR_NO_FEATURE;
    // Parameters missing from the state keep their values: a state saved
    // before a parameter existed still loads.
    for (std::size_t k = 0; k < self.parameterIndex.size(); ++k) {
        std::size_t size = 0;
        uint32_t type = 0, flags = 0;
        const void* data = retrieve(state, self.stateKeys[k], &size, &type, &flags);
        if (data && type == self.atomFloat && size == sizeof(float)) {
            float value;
            std::memcpy(&value, data, sizeof value);
            self.plugin->setParameter(self.parameterIndex[k], value);
        }
    }
    return LV2_STATE_SUCCESS;
}

LV2_Worker_Status work(LV2_Handle handle, LV2_Worker_Respond_Function, LV2_Worker_Respond_Handle, uint32_t size,
                       const void* data)
{
    auto& self = *static_cast<Lv2Plugin*>(handle);
    ParameterChange change;
    if (size != sizeof change)
        return LV2_WORKER_ERR_UNKNOWN;
    std::memcpy(&change, data, sizeof change);
    if (change.slot >= self.parameterIndex.size())
        return LV2_WORKER_ERR_UNKNOWN;
    self.plugin->setParameter(self.parameterIndex[change.slot], change.value);
    return LV2_WORKER_SUCCESS;
}

LV2_Worker_Status workResponse(LV2_Handle, uint32_t, const void*)
{
    return LV2_WORKER_SUCCESS;
}

const void* extensionData(const char* uri)
{
    static const LV2_State_Interface state{saveState, restoreState};
    static const LV2_Worker_Interface worker{work, workResponse, nullptr};
    if (std::strcmp(uri, LV2_STATE__interface) == 0)
        return &state;
    return std::strcmp(uri, LV2_WORKER__interface) == 0 ? &worker : nullptr;
}

Catalog::Catalog()
{
    auto& lib = Lv2Library::open(bundledLibraryPath());
    registry = lib.registry();
    if (!registry) {
        std::fprintf(stderr, "qvd-lv2: %s\n", lib.error().c_str());
        return;
    }
    variants = buildCatalog(*registry);
    for (const Variant& v : variants)
        descriptors.push_back({v.uri.c_str(), instantiate, connectPort, activate, run, deactivate, cleanup, extensionData});
}

const Catalog& catalog()
{
    static const Catalog built;
    return built;
}

} // namespace

} // namespace qvd::lv2

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(uint32_t index)
{
    const auto& descriptors = qvd::lv2::catalog().descriptors;
    return index < descriptors.size() ? &descriptors[index] : nullptr;
}
