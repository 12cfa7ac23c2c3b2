#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QLabel;
class QVDPhaseMeter;

// The goniometer: side across, mid up, so a mono signal is a vertical line
// and one with its sides opposite a horizontal one; full scale at the
// circle's edge.
class QVDGoniometerView : public QWidget {
public:
    explicit QVDGoniometerView(QWidget* parent);
    // Side and mid pairs, oldest first.
    void setPoints(std::vector<double> points);

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_points;
};

// Correlation from -1 (left) to +1 (right): a bar from the centre to the
// value, green on the positive side and red on the negative.
class QVDCorrelationBar : public QWidget {
public:
    explicit QVDCorrelationBar(QWidget* parent);
    void setCorrelation(double value);
    double correlation() const { return m_value; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    double m_value = 1.0;
};

// 440 x 392 editor: the goniometer, the correlation bar with its value, the
// balance, and the integration time knob.
class QVDPhaseMeterPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDPhaseMeterPanel(QVDPhaseMeter* plugin, QWidget* parent);

    QVDGoniometerView* goniometer() const { return m_goniometer; }
    QVDCorrelationBar* correlationBar() const { return m_bar; }
    // Reads the correlation, balance and goniometer points from the plugin.
    void refresh() override;

private:
    QVDPhaseMeter* m_plugin;
    QVDGoniometerView* m_goniometer;
    QVDCorrelationBar* m_bar;
    QLabel* m_correlation;
    QLabel* m_balance;
    std::vector<double> m_buffer;
};
