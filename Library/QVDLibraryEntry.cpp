// The library's one exported symbol.
#include <QResource>

#include <cstddef>
#include <cstdlib>
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

void start()
{
    g_bundle.registerOnce();
    // A user reproduces a result on a lesser processor without a host option.
    if (const char* isa = std::getenv("QVD_ISA"); isa && *isa)
        QVDPluginInterfaceImpl::instance().forceInstructionSet(isa);
}
} // namespace

extern "C" __attribute__((visibility("default"))) void* GetQVDPluginInterface()
{
    static std::once_flag once;
    std::call_once(once, start);
    return static_cast<qvd::PluginInterface*>(&QVDPluginInterfaceImpl::instance());
}
