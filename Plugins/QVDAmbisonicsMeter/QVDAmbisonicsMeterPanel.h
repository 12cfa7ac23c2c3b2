#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QVDAmbisonicsMeter;

// The beam-energy map unrolled: azimuth +180 (left edge) to -180 (right
// edge, so left is left as seen facing front), elevation up; each cell
// coloured by its level under the map's maximum over 30 dB, the peak marked.
class QVDSphereMapView : public QWidget {
    Q_OBJECT
public:
    static constexpr double kRangeDb = 30.0;
    explicit QVDSphereMapView(QWidget* parent);
    void setMap(std::vector<double> decibels, double peakAzimuth, double peakElevation);
    QPointF pointAt(double azimuth, double elevation) const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_map;
    double m_azimuth = 0.0, m_elevation = 0.0;
};

// 556 x 398 editor: the map, the readings under it and the controls.
class QVDAmbisonicsMeterPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDAmbisonicsMeterPanel(QVDAmbisonicsMeter* plugin, QWidget* parent);
    QVDSphereMapView* view() const { return m_view; }
    void refresh() override;

private:
    QVDAmbisonicsMeter* m_plugin;
    QVDSphereMapView* m_view = nullptr;
    QWidget* m_readings = nullptr;
    QString m_text;
};
