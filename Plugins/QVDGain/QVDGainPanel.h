#pragma once
#include <QTimer>
#include <QWidget>

class QVDGain;
class QVDKnob;
class QVDMeterWidget;

// 360 x 194 editor: input meter, output meter and the gain knob.
class QVDGainPanel : public QWidget {
    Q_OBJECT
public:
    QVDGainPanel(QVDGain* plugin, QWidget* parent);

    QVDKnob* gainKnob() const { return m_knob; }
    QVDMeterWidget* inputMeter() const { return m_input; }
    QVDMeterWidget* outputMeter() const { return m_output; }
    // Reads the meters and the knob's value from the plugin.
    void refresh();

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QVDGain* m_plugin;
    QVDMeterWidget* m_input;
    QVDMeterWidget* m_output;
    QVDKnob* m_knob;
    QTimer m_timer;
};
