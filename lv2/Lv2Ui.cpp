// The optional Qt 5 UI: our own editor panel, built by the plugin instance
// itself (PluginInstance::createEditor) inside a widget the host embeds. It
// needs instance-access, so hosts that run UIs in another process simply do
// not offer it; the plugin never depends on it.
//
// The panel sets parameters on the instance directly. The host owns the
// control ports, so every change the panel makes is written back to the
// port (polled on idle and on a timer); a port the host itself moved lately
// is left alone, so automation is never overwritten by its own echo.
#include <cstdint>
#include <cstring>
#include <vector>

#include <QPointer>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

#include <lv2/instance-access/instance-access.h>
#include <lv2/ui/ui.h>

#include "Lv2Plugin.h"

namespace qvd::lv2 {
namespace {

// Polls a host port stays quiet after the host moved it (at 30 Hz, ~100 ms).
constexpr int kHostQuietPolls = 3;

struct ControlPort {
    std::uint32_t index;      // LV2 port index
    std::int32_t parameter;   // our parameter index
    float port;               // what the host's port holds, as far as we know
    float polled;             // the plugin's value at the previous poll
    int quiet = 0;            // polls left before we may write this port
};

class Lv2Ui {
public:
    Lv2Ui(Lv2Plugin& plugin, LV2UI_Write_Function write, LV2UI_Controller controller)
        : m_plugin(plugin), m_write(write), m_controller(controller)
    {
        const auto& ports = plugin.variant->ports;
        for (std::uint32_t i = 0; i < ports.size(); ++i) {
            if (ports[i].role != PortRole::Parameter)
                continue;
            const float value = plugin.plugin->getParameter(ports[i].source);
            m_controls.push_back({i, ports[i].source, value, value, 0});
        }
        m_container = new QWidget();
        auto* layout = new QVBoxLayout(m_container);
        layout->setContentsMargins(0, 0, 0, 0);
        m_editor = static_cast<QWidget*>(plugin.plugin->createEditor(m_container));
        if (m_editor)
            layout->addWidget(m_editor);
        QObject::connect(&m_timer, &QTimer::timeout, [this] { poll(); });
        m_timer.start(33);
    }

    ~Lv2Ui()
    {
        m_timer.stop();
        // The editor goes before the instance it talks to; the host may
        // already have deleted the container with the embedding window.
        delete m_container.data();
    }

    bool valid() const { return m_editor != nullptr; }
    QWidget* widget() const { return m_container; }

    void portEvent(std::uint32_t index, std::uint32_t size, std::uint32_t format, const void* buffer)
    {
        if (format != 0 || size != sizeof(float))
            return;
        for (auto& c : m_controls) {
            if (c.index == index) {
                std::memcpy(&c.port, buffer, sizeof(float));
                c.quiet = kHostQuietPolls;
            }
        }
    }

    void poll()
    {
        for (auto& c : m_controls) {
            if (c.quiet > 0) {
                --c.quiet;
                continue;
            }
            const float value = m_plugin.plugin->getParameter(c.parameter);
            const bool moved = value != c.polled;
            c.polled = value;
            if (moved && value != c.port) {
                c.port = value;
                m_write(m_controller, c.index, sizeof(float), 0, &value);
            }
        }
    }

private:
    Lv2Plugin& m_plugin;
    LV2UI_Write_Function m_write;
    LV2UI_Controller m_controller;
    std::vector<ControlPort> m_controls;
    QPointer<QWidget> m_container;
    QWidget* m_editor = nullptr;
    QTimer m_timer;
};

LV2UI_Handle instantiate(const LV2UI_Descriptor*, const char*, const char*, LV2UI_Write_Function write,
                         LV2UI_Controller controller, LV2UI_Widget* widget, const LV2_Feature* const* features)
{
    Lv2Plugin* plugin = nullptr;
    for (auto f = features; f && *f; ++f) {
        if (std::strcmp((*f)->URI, LV2_INSTANCE_ACCESS_URI) == 0)
            plugin = static_cast<Lv2Plugin*>((*f)->data);
    }
    if (!plugin || !plugin->plugin || !plugin->plugin->hasEditor())
        return nullptr;
    auto* ui = new Lv2Ui(*plugin, write, controller);
    if (!ui->valid()) {
        delete ui;
        return nullptr;
    }
    *widget = ui->widget();
    return ui;
}

void cleanup(LV2UI_Handle handle)
{
    delete static_cast<Lv2Ui*>(handle);
}

void portEvent(LV2UI_Handle handle, uint32_t index, uint32_t size, uint32_t format, const void* buffer)
{
    static_cast<Lv2Ui*>(handle)->portEvent(index, size, format, buffer);
}

int idle(LV2UI_Handle handle)
{
    static_cast<Lv2Ui*>(handle)->poll();
    return 0;
}

const void* extensionData(const char* uri)
{
    static const LV2UI_Idle_Interface idleInterface{idle};
    return std::strcmp(uri, LV2_UI__idleInterface) == 0 ? &idleInterface : nullptr;
}

} // namespace
} // namespace qvd::lv2

LV2_SYMBOL_EXPORT const LV2UI_Descriptor* lv2ui_descriptor(uint32_t index)
{
    // One UI for every plugin: the instance it is handed says which panel to build.
    static const LV2UI_Descriptor any{qvd::lv2::kUiUri, qvd::lv2::instantiate, qvd::lv2::cleanup,
                                      qvd::lv2::portEvent, qvd::lv2::extensionData};
    return index == 0 ? &any : nullptr;
}
