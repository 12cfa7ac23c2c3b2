#pragma once
// Frequency-response view for editor panels: a curve in dB on a logarithmic
// frequency grid, with one marker per filter band. The owner samples its
// response at frequencies() and hands the values to setCurve().

#include <QPixmap>
#include <QString>
#include <QWidget>

#include <vector>

class QVDResponseView : public QWidget {
    Q_OBJECT
public:
    struct Marker {
        double hz = 1000.0;
        double db = 0.0;
        bool on = true;
        QString label; // drawn next to the marker ("1" ... "6")
        QPixmap icon;  // optional, drawn above the marker
    };

    explicit QVDResponseView(QWidget* parent, int points = 256);

    // Grid and curve range; the default is 20 Hz to 20 kHz and -24 to +24 dB.
    void setRange(double minHz, double maxHz, double minDb, double maxDb);
    // Log-spaced from the lowest to the highest frequency of the range.
    const std::vector<double>& frequencies() const { return m_frequencies; }
    // One value per frequency; anything else clears the curve.
    void setCurve(const std::vector<double>& db);
    const std::vector<double>& curve() const { return m_curve; }
    void setMarkers(const std::vector<Marker>& markers);
    const std::vector<Marker>& markers() const { return m_markers; }

    // Widget coordinates of a frequency and of a level.
    double xOf(double hz) const;
    double yOf(double db) const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QRectF plotArea() const;

    int m_points;
    double m_minHz = 20.0, m_maxHz = 20000.0, m_minDb = -24.0, m_maxDb = 24.0;
    std::vector<double> m_frequencies;
    std::vector<double> m_curve;
    std::vector<Marker> m_markers;
};
