// The README's plugin table against the registry: every registered plugin has
// its row with its key, name and channel counts, and no row names a plugin
// the library does not register.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "HostLibrary.h"

namespace {

struct Row {
    std::string name;
    int inputs = 0, outputs = 0;
};

std::map<std::string, Row> readmeRows()
{
    std::ifstream in(QVD_README_PATH);
    std::map<std::string, Row> rows;
    // | `Gain:1364608878` | Gain | up to 36 in / 36 out | ...
    const std::regex row(R"(^\| `([^`]+)` \| ([^|]+?) \| up to (\d+) in / (\d+) out \|)");
    std::string line;
    std::smatch m;
    while (std::getline(in, line))
        if (std::regex_search(line, m, row))
            rows[m[1]] = {m[2], std::stoi(m[3]), std::stoi(m[4])};
    return rows;
}

TEST(Readme, PluginTableMatchesTheRegistry)
{
    qvd::PluginInterface* registry = loadRegistry();
    ASSERT_NE(registry, nullptr);
    auto rows = readmeRows();
    for (const auto& [key, info] : registry->listPlugins(qvd::kAudioPlugin)) {
        const auto it = rows.find(key);
        if (it == rows.end()) {
            ADD_FAILURE() << key << " has no row in the README's plugin table";
            continue;
        }
        EXPECT_EQ(it->second.name, info.name) << key;
        qvd::PluginInstance* p = registry->createPlugin(qvd::kAudioPlugin, key.c_str());
        ASSERT_NE(p, nullptr);
        // The widest formats each side accepts are the row's counts.
        AudioPlugin* a = p->getAudioInterface();
        EXPECT_EQ(std::max(it->second.inputs, it->second.outputs), info.channels) << key;
        EXPECT_TRUE(a->setChannelFormats(qvd::formatForChannels(it->second.inputs), qvd::formatForChannels(it->second.outputs)))
            << key << " refuses its README counts";
        p->destroy();
        rows.erase(it);
    }
    for (const auto& [key, row] : rows)
        ADD_FAILURE() << "README row " << key << " names no registered plugin";
}

} // namespace
