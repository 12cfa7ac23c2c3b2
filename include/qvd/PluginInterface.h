#pragma once
// The plugin registry: the object GetQVDPluginInterface returns.
//
// A host loads libQVDAudioPlugins.so, looks up the C symbol
// "GetQVDPluginInterface" (type qvd::GetPluginInterfaceFn), checks
// interfaceVersion() == qvd::kInterfaceVersion, sets its host context and host
// services, then lists and creates plugins. Both sides must be built with the
// same C++ standard library (the records below hold std::string and std::map).

#include <cstdint>
#include <map>
#include <string>

#include "HostExtensions.h"
#include "HostServices.h"
#include "PluginInstance.h"
#include "PluginTypes.h"

namespace qvd {

constexpr std::int32_t kInterfaceVersion = 100;

class PluginInterface {
public:
    // [any-thread] Always kInterfaceVersion.
    virtual std::int32_t interfaceVersion() const = 0;
    // [any-thread] Plugins of `kind` keyed by plugin key ("Gain:1364608878" for
    // audio plugins, the display name for control plugins), in key order.
    // Any kind other than kAudioPlugin and kControlPlugin gives an empty map.
    virtual std::map<std::string, PluginInfo> listPlugins(std::int32_t kind) const = 0;
    // [control-thread] A new instance of the plugin with `key`, or null for an
    // unknown key (exact, case-sensitive match), a null key or another kind.
    // The instance captures the host context and services set before this call.
    virtual PluginInstance* createPlugin(std::int32_t kind, const char* key) = 0;
    // [control-thread] Stored and handed to every later audio instance.
    virtual void setHostContext(void* context) = 0;
    // [control-thread] Stored and handed to every later instance.
    virtual void setHostServices(HostServices* services) = 0;
    // [any-thread] Macro-effect definitions shipped with the library, keyed by
    // name, each the text of one definition (format in docs/MacroFX.md).
    virtual std::map<std::string, std::string> listMacroEffects() const = 0;

    // Appended operations: a host built against the headers above keeps
    // working; the library implements these, hosts only call them.

    // [control-thread] What the library runs on, for a host's info output:
    // "processor" (the features the probe found), "instruction set" (the
    // level kernels are chosen at, "auto" unless forced) and one entry
    // "kernel <family>" per kernel family with the variant it chooses now.
    virtual std::map<std::string, std::string> systemInfo() const = 0;
    // [not while processing] Chooses kernels as if the processor offered only
    // `level`: "none" (reference code), "sse2", "sse4.1", "avx", "avx2",
    // "avx512" (AVX2, plus 512-bit code in the plugins' own kernels), or
    // "auto" for what the processor offers. Instances and engines created
    // afterwards use it; code the processor cannot run is never chosen.
    // False, with no change, for another text. The environment variable
    // QVD_ISA, read when the library starts, does the same.
    virtual bool forceInstructionSet(const char* level) = 0;
    // [control-thread] Stored and handed to every later audio instance, like
    // the host services; null (the default) offers no extensions.
    virtual void setHostExtensions(HostExtensions* extensions) = 0;

protected:
    ~PluginInterface() = default;
};

// Type of the exported entry: returns the registry as an untyped pointer.
using GetPluginInterfaceFn = void* (*)();
constexpr const char* kEntrySymbol = "GetQVDPluginInterface";
constexpr const char* kLibraryName = "libQVDAudioPlugins.so";

} // namespace qvd
