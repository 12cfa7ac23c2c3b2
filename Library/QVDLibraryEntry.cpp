// The library's one exported symbol.
#include <QResource>

#include <cstddef>
#include <mutex>

#include <QVDPluginInterfaceImpl.h>

extern const unsigned char qvdResourceBundle[];
extern const std::size_t qvdResourceBundleSize;

namespace {
void registerResources()
{
    // Once per process: the bundle holds the macro-effect definitions and images.
    QResource::registerResource(qvdResourceBundle);
}
} // namespace

extern "C" __attribute__((visibility("default"))) void* GetQVDPluginInterface()
{
    static std::once_flag once;
    std::call_once(once, registerResources);
    return static_cast<qvd::PluginInterface*>(&QVDPluginInterfaceImpl::instance());
}
