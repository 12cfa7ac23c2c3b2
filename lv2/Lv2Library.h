#pragma once
// Opens libQVDAudioPlugins.so through its one entry, as any host does, and
// hands the registry the host services every LV2 instance shares.

#include <string>

#include <qvd/qvd.h>

namespace qvd::lv2 {

class Lv2Library {
public:
    // Loads `path` once per process; later calls with the same path share it.
    // The library stays mapped until exit: its plugins register static
    // objects that must outlive every instance.
    static Lv2Library& open(const std::string& path);

    qvd::PluginInterface* registry() const { return m_registry; }
    const std::string& error() const { return m_error; }

private:
    explicit Lv2Library(const std::string& path);

    qvd::PluginInterface* m_registry = nullptr;
    std::string m_error;
};

// The path of the library inside the bundle that holds the calling binary.
std::string bundledLibraryPath();

} // namespace qvd::lv2
