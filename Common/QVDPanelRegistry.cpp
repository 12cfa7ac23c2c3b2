#include "QVDPanelRegistry.h"

#include <map>
#include <string>

namespace {
std::map<std::string, QVDPanelFactory>& panels()
{
    static std::map<std::string, QVDPanelFactory> map;
    return map;
}
} // namespace

bool qvdRegisterPanel(const char* className, QVDPanelFactory factory)
{
    return panels().emplace(className ? className : "", factory).second;
}

QVDPanelFactory qvdPanelFactory(const char* className)
{
    const auto& map = panels();
    auto it = map.find(className ? className : "");
    if (it == map.end())
        it = map.find("");
    return it == map.end() ? nullptr : it->second;
}
