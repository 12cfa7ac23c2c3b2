#pragma once
// Readouts of an analyser under test, found by name.

#include <PluginFixture.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qvd::test {

inline std::vector<double> values(const PluginFixture& f, const std::string& name)
{
    ReadoutInfo info;
    for (std::int32_t i = 0; f.instance()->readoutInfo(i, &info); ++i) {
        if (info.name == name) {
            std::vector<double> v(static_cast<std::size_t>(info.size));
            f.instance()->readReadout(i, v.data(), info.size);
            return v;
        }
    }
    ADD_FAILURE() << "no readout " << name;
    return {0.0};
}

inline double value(const PluginFixture& f, const std::string& name, std::size_t index = 0)
{
    return values(f, name).at(index);
}

// Every output channel equals its input, bit for bit.
inline void expectPassThrough(PluginFixture& f, int channels, unsigned seed)
{
    const Signal in = noise(channels, 9000, seed, 0.9f);
    EXPECT_EQ(f.run(in, seed), in) << channels << " channels";
}

} // namespace qvd::test
