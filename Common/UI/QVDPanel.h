#pragma once
// Base of every editor panel: the plugin it edits, a refresh timer, meters
// bound to meter groups, knobs and selectors bound to parameters, value labels,
// and the panel background. A panel adds its widgets through the add*
// helpers and refresh() keeps them in step with the plugin.

#include <QTimer>
#include <QWidget>

#include <cstdint>
#include <vector>

class QLabel;
class QVDAudioPluginImpl;
class QVDKnob;
class QVDListSelector;
class QVDMeterWidget;

class QVDPanel : public QWidget {
    Q_OBJECT
public:
    QVDPanel(QVDAudioPluginImpl* plugin, QWidget* parent, int refreshMs = 33);

    QVDAudioPluginImpl* plugin() const { return m_plugin; }
    // [control-thread] Re-reads meters, controls and value texts from the plugin.
    virtual void refresh();

protected:
    // A meter of group `group` with its caption above it at (x, y).
    QVDMeterWidget* addMeter(std::int32_t group, int x, int y, const QString& caption);
    // A knob for parameter `index` at (x, y); no caption.
    QVDKnob* addKnob(std::int32_t index, int x, int y);
    // A selector for the list or switch at `index` at (x, y).
    QVDListSelector* addSelector(std::int32_t index, int x, int y);
    // A label showing the plugin's value text of `index`, `width` wide.
    QLabel* addValueLabel(std::int32_t index, int x, int y, int width);
    // [control-thread] A consistent snapshot of readout `index`, all of its
    // values; {0} for an index the plugin does not have, so [0] is safe.
    std::vector<double> readout(std::int32_t index) const;

    void paintEvent(QPaintEvent*) override;

private:
    struct MeterBinding {
        std::int32_t group;
        QVDMeterWidget* widget;
    };
    struct ValueBinding {
        std::int32_t index;
        QLabel* label;
    };

    QVDAudioPluginImpl* m_plugin;
    QTimer m_timer;
    std::vector<MeterBinding> m_meters;
    std::vector<QVDKnob*> m_knobs;
    std::vector<QVDListSelector*> m_selectors;
    std::vector<ValueBinding> m_values;
};

// The panel of every plugin without its own: a meter per meter group at the
// left, then a knob or selector per parameter with its caption and value, six
// to a row. A one-parameter plugin with two meter groups gets 360 x 194.
class QVDGenericPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDGenericPanel(QVDAudioPluginImpl* plugin, QWidget* parent);
};
