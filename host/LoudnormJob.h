#pragma once
// Loudness normalisation in two passes: measure the input, then apply the
// gain that brings it to the target, through the true-peak Limiter when that
// gain would lift peaks over the ceiling. The output is measured as it is
// written; a limited output that misses the target or the ceiling is
// corrected and rendered again before anything is put in place.

#include <qvd/qvd.h>

#include "Options.h"

namespace qvdfx {

int commandLoudnorm(qvd::PluginInterface& registry, Arguments args);

} // namespace qvdfx
