#pragma once
// Readouts of a plugin under test, found by name.

#include <PluginFixture.h>

#include <string>
#include <vector>

namespace qvd::test {

inline std::vector<double> readoutValues(const PluginFixture& f, const std::string& name)
{
    ReadoutInfo info;
    for (std::int32_t i = 0; f.instance()->readoutInfo(i, &info); ++i) {
        if (info.name == name) {
            std::vector<double> values(static_cast<std::size_t>(info.size));
            f.instance()->readReadout(i, values.data(), info.size);
            return values;
        }
    }
    ADD_FAILURE() << "no readout " << name;
    return {0.0};
}

inline double readout(const PluginFixture& f, const std::string& name, std::size_t index = 0)
{
    return readoutValues(f, name).at(index);
}

} // namespace qvd::test
