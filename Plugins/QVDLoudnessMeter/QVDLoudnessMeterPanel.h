#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QLabel;
class QVDLoudnessMeter;

// Short-term loudness over the last five minutes, oldest at the left, on a
// -60 to 0 LUFS scale with a line at the delivery target. Seconds not yet
// measured (or silent) leave gaps.
class QVDLoudnessHistoryView : public QWidget {
public:
    explicit QVDLoudnessHistoryView(QWidget* parent);
    void setHistory(std::vector<double> lufs);
    void setTarget(double lufs);
    // Vertical position of a loudness, clamped to the scale.
    double yOf(double lufs) const;
    static constexpr double kFloor = -60.0;
    static constexpr double kTop = 0.0;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_history;
    double m_target = -23.0;
};

// 600 x 396 editor: momentary, short-term and integrated loudness in large
// figures, the range, deviation, maxima and true peak beside them, the
// target, true-peak and reset controls, and the history graph.
class QVDLoudnessMeterPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDLoudnessMeterPanel(QVDLoudnessMeter* plugin, QWidget* parent);

    QVDLoudnessHistoryView* historyView() const { return m_history; }
    // Text of a figure by its readout index ("-23.0 LUFS", "-inf LUFS" before any sound).
    QString figureText(int readout) const;
    // Reads every figure and the history from the plugin.
    void refresh() override;

private:
    struct Figure {
        int readout;
        QLabel* label;
        QString unit;
        bool signedValue;
    };
    void addFigure(int readout, int x, int y, int width, const QFont& font, bool signedValue = false);

    QVDLoudnessMeter* m_plugin;
    QVDLoudnessHistoryView* m_history;
    std::vector<Figure> m_figures;
    std::vector<double> m_buffer;
};
