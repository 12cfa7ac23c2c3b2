#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QVDFrequency;

// The spectrum on a log-frequency grid (20 Hz to 20 kHz, 0 to -120 dB) with
// the band levels behind it as bars and the peak marked.
class QVDSpectrumView : public QWidget {
    Q_OBJECT
public:
    static constexpr double kTopDb = 0.0, kBottomDb = -120.0;
    explicit QVDSpectrumView(QWidget* parent);
    void setSpectrum(std::vector<double> frequencies, std::vector<double> decibels);
    void setBands(std::vector<double> centres, std::vector<double> decibels, int perOctave);
    void setPeak(double hz, double db);
    // Where a frequency and a level land in the widget.
    double xOf(double hz) const;
    double yOf(double db) const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_frequencies, m_spectrum, m_centres, m_bands;
    int m_perOctave = 3;
    double m_peakHz = 0.0, m_peakDb = -200.0;
};

// 784 x 456 editor: the spectrum view, then a control per parameter.
class QVDFrequencyPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDFrequencyPanel(QVDFrequency* plugin, QWidget* parent);
    QVDSpectrumView* view() const { return m_view; }
    // Reads the controls and the analyser's readouts.
    void refresh() override;

private:
    QVDFrequency* m_plugin;
    QVDSpectrumView* m_view = nullptr;
};
