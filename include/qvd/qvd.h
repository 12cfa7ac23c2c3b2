#pragma once
// Everything a host needs to load and drive the plugin library.
#include "AudioPlugin.h"
#include "HostExtensions.h"
#include "HostServices.h"
#include "PluginInstance.h"
#include "PluginInterface.h"
#include "PluginTypes.h"
