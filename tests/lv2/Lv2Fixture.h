#pragma once
// What every LV2 test shares: the bundle in the build tree, the catalog the
// library's registry gives (the list the bundle must match), and a setting
// away from the default for every parameter.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Lv2Catalog.h"
#include "LilvHost.h"

namespace qvdtest {

// The folder holding qvd.lv2, for LV2_PATH.
std::string bundleDir();
qvd::PluginInterface& registry();
const std::vector<qvd::lv2::Variant>& catalog();
const qvd::lv2::Variant& variant(const std::string& uri);
LilvHost& host();

// One value per parameter port, in range and off its default: (parameter, value).
std::vector<std::pair<const qvd::ParameterInfo*, float>> offDefaultSettings(const qvd::lv2::Variant& v);

// The library called directly, as the wrapper calls it: same layout, smoothing
// on, blocks of `block` frames with a playing block record.
Signal processDirect(const qvd::lv2::Variant& v, double rate, const Signal& in,
                     const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings, int block = 512);
// Every parameter's value after `settings`, by index: what a saved state holds.
std::vector<float> directParameters(const qvd::lv2::Variant& v,
                                    const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings);
std::uint64_t directLatency(const qvd::lv2::Variant& v, double rate,
                            const std::vector<std::pair<const qvd::ParameterInfo*, float>>& settings = {});

// Catalog URIs for value-parameterised tests, named "gain_1364608878_stereo".
::testing::internal::ParamGenerator<std::string> allVariants();
std::string testName(const ::testing::TestParamInfo<std::string>& info);

} // namespace qvdtest
