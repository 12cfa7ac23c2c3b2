#include "QVDAmbisonicsMeterPanel.h"

#include <QLabel>
#include <QPainter>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>

#include <algorithm>
#include <cmath>

#include "QVDAmbisonicsMeter.h"

QVD_REGISTER_PANEL(QVDAmbisonicsMeter, QVDAmbisonicsMeterPanel)

namespace {
constexpr int kMapWidth = 540, kMapHeight = 270;
} // namespace

QVDSphereMapView::QVDSphereMapView(QWidget* parent) : QWidget(parent) {}

void QVDSphereMapView::setMap(std::vector<double> decibels, double peakAzimuth, double peakElevation)
{
    m_map = std::move(decibels);
    m_azimuth = peakAzimuth;
    m_elevation = peakElevation;
    update();
}

QPointF QVDSphereMapView::pointAt(double azimuth, double elevation) const
{
    return {(180.0 - azimuth) / 360.0 * width(), (90.0 - elevation) / 180.0 * height()};
}

void QVDSphereMapView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    constexpr int rows = QVDAmbisonicsMeter::kRows, columns = QVDAmbisonicsMeter::kColumns;
    if (m_map.size() >= static_cast<std::size_t>(rows * columns)) {
        const double top = *std::max_element(m_map.begin(), m_map.end());
        if (top > QVDAmbisonicsMeter::kFloorDb) {
            const double step = QVDAmbisonicsMeter::kGridStep;
            for (int r = 0; r < rows; ++r) {
                for (int c = 0; c < columns; ++c) {
                    const double level = m_map[static_cast<std::size_t>(r * columns + c)];
                    const double t = std::clamp(1.0 + (level - top) / kRangeDb, 0.0, 1.0);
                    // Each cell centred on its grid point.
                    const double az = -180.0 + step * c, el = -90.0 + step * r;
                    const QPointF a = pointAt(az + step / 2, std::min(90.0, el + step / 2));
                    const QPointF b = pointAt(az - step / 2, std::max(-90.0, el - step / 2));
                    QColor colour = QColor::fromHsvF(0.66 * (1.0 - t), 0.9, 0.15 + 0.85 * t);
                    p.fillRect(QRectF(a, b), colour);
                }
            }
            p.setRenderHint(QPainter::Antialiasing);
            p.setPen(QPen(Qt::white, 2.0));
            p.setBrush(Qt::NoBrush);
            p.drawEllipse(pointAt(m_azimuth, m_elevation), 6.0, 6.0);
        }
    }
    p.setPen(QColor(255, 255, 255, 60));
    for (double az = -90.0; az <= 90.0; az += 90.0)
        p.drawLine(pointAt(az, 90.0), pointAt(az, -90.0));
    p.drawLine(pointAt(180.0, 0.0), pointAt(-180.0, 0.0));
}

QVDAmbisonicsMeterPanel::QVDAmbisonicsMeterPanel(QVDAmbisonicsMeter* plugin, QWidget* parent)
    : QVDPanel(plugin, parent), m_plugin(plugin)
{
    setObjectName(QStringLiteral("QVDAmbisonicsMeterPanel"));
    m_view = new QVDSphereMapView(this);
    m_view->setObjectName(QStringLiteral("SphereMapView"));
    m_view->setGeometry(8, 8, kMapWidth, kMapHeight);

    const int top = 8 + kMapHeight + 8;
    auto* readings = new QLabel(this);
    readings->setObjectName(QStringLiteral("Readings"));
    readings->setFont(QVDStyle::valueFont());
    readings->setGeometry(8, top, 300, 80);
    readings->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_readings = readings;

    const QVDParameterList& params = plugin->parameters();
    (new QVDCaption(params[QVDAmbisonicsMeter::NORMALISATION].definition().label, this))->move(300, top);
    addSelector(QVDAmbisonicsMeter::NORMALISATION, 300, top + 24);
    (new QVDCaption(params[QVDAmbisonicsMeter::INTEGRATION].definition().label, this))->move(440, top);
    addKnob(QVDAmbisonicsMeter::INTEGRATION, 450, top + 18);
    setFixedSize(8 + kMapWidth + 8, top + 112);
    refresh();
}

void QVDAmbisonicsMeterPanel::refresh()
{
    QVDPanel::refresh();
    if (!m_view)
        return;
    m_view->setMap(readout(QVDAmbisonicsMeter::kMap), readout(QVDAmbisonicsMeter::kMapPeakAzimuth)[0],
                   readout(QVDAmbisonicsMeter::kMapPeakElevation)[0]);
    const QString text = tr("Order %1 (%2 channels unused)\nIntensity: azimuth %3, elevation %4 deg\n"
                            "Diffuseness %5")
                             .arg(readout(QVDAmbisonicsMeter::kOrder)[0], 0, 'f', 0)
                             .arg(readout(QVDAmbisonicsMeter::kUnusedChannels)[0], 0, 'f', 0)
                             .arg(readout(QVDAmbisonicsMeter::kAzimuth)[0], 0, 'f', 1)
                             .arg(readout(QVDAmbisonicsMeter::kElevation)[0], 0, 'f', 1)
                             .arg(readout(QVDAmbisonicsMeter::kDiffuseness)[0], 0, 'f', 2);
    if (text != m_text) {
        m_text = text;
        static_cast<QLabel*>(m_readings)->setText(text);
    }
}
