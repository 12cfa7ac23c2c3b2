#pragma once
// Loads the built library the way a host does.
#include <dlfcn.h>

#include <qvd/qvd.h>

inline qvd::PluginInterface* loadRegistry()
{
    static void* handle = dlopen(QVD_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        return nullptr;
    auto entry = reinterpret_cast<qvd::GetPluginInterfaceFn>(dlsym(handle, qvd::kEntrySymbol));
    return entry ? static_cast<qvd::PluginInterface*>(entry()) : nullptr;
}
