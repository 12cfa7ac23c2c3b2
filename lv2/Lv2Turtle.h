#pragma once
// The bundle's Turtle, written from the catalog: manifest.ttl and one file per
// plugin key holding all its layouts.

#include <map>
#include <string>
#include <vector>

#include "Lv2Catalog.h"

namespace qvd::lv2 {

struct BundleNames {
    std::string binary;   // the wrapper, relative to the bundle ("qvd-lv2.so")
    std::string uiBinary; // the Qt UI, or empty when none is built
};

// Contents by file name: "manifest.ttl" and "<key slug>.ttl" for each plugin.
std::map<std::string, std::string> bundleTurtle(const std::vector<Variant>& catalog, const BundleNames& names);

// A float as a Turtle decimal or double that reads back as the same float.
std::string turtleNumber(float value);

} // namespace qvd::lv2
