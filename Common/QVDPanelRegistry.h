#pragma once
// Editor panels by plugin class name. The UI library registers them from its
// static initialisers; the plugin base asks here, so DSP code and panels
// never include each other.

class QWidget;
class QVDAudioPluginImpl;

using QVDPanelFactory = QWidget* (*)(QVDAudioPluginImpl* plugin, QWidget* parent);

// [static init] Registers the panel of a plugin class; the class name ""
// registers the generic panel every other plugin gets.
bool qvdRegisterPanel(const char* className, QVDPanelFactory factory);
// [any-thread] The class's own panel, else the generic one, else null.
QVDPanelFactory qvdPanelFactory(const char* className);

#define QVD_REGISTER_PANEL(PluginClass, PanelClass)                                                          \
    namespace {                                                                                              \
    [[maybe_unused]] const bool qvd_panel_##PluginClass = qvdRegisterPanel(                                  \
        #PluginClass, [](QVDAudioPluginImpl* p, QWidget* parent) -> QWidget* {                               \
            return new PanelClass(static_cast<PluginClass*>(p), parent);                                     \
        });                                                                                                  \
    }
