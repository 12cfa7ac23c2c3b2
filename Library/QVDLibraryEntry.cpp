// The library's one exported symbol.
#include <QResource>

#include <cstddef>
#include <mutex>

#include <QVDPluginInterfaceImpl.h>

extern const unsigned char qvdResourceBundle[];
extern const std::size_t qvdResourceBundleSize;

namespace {
// The bundle holds the macro-effect definitions and images. Qt keeps a
// pointer to it, so it must leave Qt's list before the library is unloaded.
struct ResourceBundle {
    bool registered = false;
    void registerOnce() { registered = QResource::registerResource(qvdResourceBundle); }
    ~ResourceBundle()
    {
        if (registered)
            QResource::unregisterResource(qvdResourceBundle);
    }
};
ResourceBundle g_bundle;

void registerResources()
{
    g_bundle.registerOnce();
}
} // namespace

extern "C" __attribute__((visibility("default"))) void* GetQVDPluginInterface()
{
    static std::once_flag once;
    std::call_once(once, registerResources);
    return static_cast<qvd::PluginInterface*>(&QVDPluginInterfaceImpl::instance());
}
