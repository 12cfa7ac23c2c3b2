#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QLabel;
class QVDKnob;
class QVDReverb;

// Editor: the 22 settings as knobs in four rows (room and source, decay and
// mix, early-reflection tone, late tone), each with its value underneath.
// The two room-shape readings are labels only.
class QVDReverbPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDReverbPanel(QVDReverb* plugin, QWidget* parent);

    // Knob of a parameter; null for the read-only room-shape ones.
    QVDKnob* knob(int index) const { return m_knobs[static_cast<std::size_t>(index)]; }
    QString valueText(int index) const;

private:
    std::vector<QVDKnob*> m_knobs;
    std::vector<QLabel*> m_values;
};
