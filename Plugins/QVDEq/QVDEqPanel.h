#pragma once
#include <UI/QVDPanel.h>

#include <array>

class QVDEq;
class QVDKnob;
class QVDListSelector;
class QVDMeterWidget;
class QVDResponseView;

// 740 x 580 editor: the summed response on a log-frequency grid with a marker
// per band, input and output meters, the "Equalizer In" switch, and per band
// its shape and in selectors and its gain, frequency and Q knobs.
class QVDEqPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDEqPanel(QVDEq* plugin, QWidget* parent);

    QVDResponseView* responseView() const { return m_view; }
    QVDKnob* knob(int band, int role) const; // role: QVDEq::kGain, kQ or kFreq
    QVDListSelector* shapeSelector(int band) const { return m_shape[static_cast<std::size_t>(band)]; }
    QVDListSelector* inSelector(int band) const { return m_in[static_cast<std::size_t>(band)]; }
    QVDListSelector* equalizerInSelector() const { return m_eqIn; }
    QVDMeterWidget* inputMeter() const { return m_input; }
    QVDMeterWidget* outputMeter() const { return m_output; }
    // Reads meters and controls from the plugin; redraws the curve when a setting changed.
    void refresh() override;
    // Samples the plugin's response at the view's frequencies now.
    void updateCurve();

private:
    QVDEq* m_plugin;
    QVDResponseView* m_view;
    QVDMeterWidget* m_input;
    QVDMeterWidget* m_output;
    QVDListSelector* m_eqIn;
    std::array<QVDListSelector*, 6> m_shape{};
    std::array<QVDListSelector*, 6> m_in{};
    std::array<QVDKnob*, 6> m_gain{};
    std::array<QVDKnob*, 6> m_freq{};
    std::array<QVDKnob*, 6> m_q{};
};
