#pragma once
// Commands that draw: a plugin's editor panel to PNG, and a plugin's
// frequency response as a table, JSON or a PNG plot. Both render offscreen.

#include <qvd/qvd.h>

#include "Options.h"

namespace qvdfx {
int commandPanel(qvd::PluginInterface& registry, Arguments args);
int commandResponse(qvd::PluginInterface& registry, Arguments args);
} // namespace qvdfx
