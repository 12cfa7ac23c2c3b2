#include "QVDResponseView.h"

#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

#include "QVDStyle.h"

QVDResponseView::QVDResponseView(QWidget* parent, int points) : QWidget(parent), m_points(std::max(2, points))
{
    setMinimumSize(200, 100);
    setRange(m_minHz, m_maxHz, m_minDb, m_maxDb);
}

void QVDResponseView::setRange(double minHz, double maxHz, double minDb, double maxDb)
{
    if (!(minHz > 0.0) || !(maxHz > minHz) || !(maxDb > minDb))
        return;
    m_minHz = minHz;
    m_maxHz = maxHz;
    m_minDb = minDb;
    m_maxDb = maxDb;
    m_frequencies.resize(static_cast<std::size_t>(m_points));
    const double ratio = std::log(maxHz / minHz);
    for (int i = 0; i < m_points; ++i)
        m_frequencies[static_cast<std::size_t>(i)] = minHz * std::exp(ratio * i / (m_points - 1));
    m_curve.clear();
    update();
}

void QVDResponseView::setCurve(const std::vector<double>& db)
{
    m_curve = db.size() == m_frequencies.size() ? db : std::vector<double>{};
    update();
}

void QVDResponseView::setMarkers(const std::vector<Marker>& markers)
{
    m_markers = markers;
    update();
}

QRectF QVDResponseView::plotArea() const
{
    // Room for the dB labels on the left and the frequency labels below.
    return QRectF(rect()).adjusted(28, 6, -6, -16);
}

double QVDResponseView::xOf(double hz) const
{
    const QRectF a = plotArea();
    const double t = std::log(std::max(hz, 1e-3) / m_minHz) / std::log(m_maxHz / m_minHz);
    return a.left() + t * a.width();
}

double QVDResponseView::yOf(double db) const
{
    const QRectF a = plotArea();
    const double t = (std::clamp(db, m_minDb - 100.0, m_maxDb + 100.0) - m_minDb) / (m_maxDb - m_minDb);
    return a.bottom() - t * a.height();
}

void QVDResponseView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    const QRectF area = plotArea();
    p.fillRect(area, QVDStyle::background());

    // Grid: decades and their multiples, and every 6 dB.
    p.setFont(QVDStyle::valueFont());
    const QColor minor = QVDStyle::panel().lighter(115);
    const QColor major = QVDStyle::panel().lighter(150);
    for (double decade = 1.0; decade <= m_maxHz; decade *= 10.0) {
        for (int m = 1; m < 10; ++m) {
            const double hz = decade * m;
            if (hz < m_minHz || hz > m_maxHz)
                continue;
            const double x = xOf(hz);
            p.setPen(m == 1 ? major : minor);
            p.drawLine(QPointF(x, area.top()), QPointF(x, area.bottom()));
            if (m == 1 || m == 2 || m == 5) {
                p.setPen(QVDStyle::text());
                const QString label = hz >= 1000.0 ? QStringLiteral("%1k").arg(hz / 1000.0) : QString::number(hz);
                p.drawText(QRectF(x - 20, area.bottom() + 2, 40, 12), Qt::AlignCenter, label);
            }
        }
    }
    const int firstDb = static_cast<int>(std::ceil(m_minDb / 6.0)) * 6;
    for (int db = firstDb; db <= m_maxDb; db += 6) {
        const double y = yOf(db);
        p.setPen(db == 0 ? major : minor);
        p.drawLine(QPointF(area.left(), y), QPointF(area.right(), y));
        p.setPen(QVDStyle::text());
        p.drawText(QRectF(0, y - 6, area.left() - 3, 12), Qt::AlignRight | Qt::AlignVCenter, QString::number(db));
    }

    p.setRenderHint(QPainter::Antialiasing);
    p.setClipRect(area);
    if (!m_curve.empty()) {
        QPainterPath path;
        for (std::size_t i = 0; i < m_curve.size(); ++i) {
            const double db = std::isfinite(m_curve[i]) ? m_curve[i] : m_minDb - 100.0;
            const QPointF pt(xOf(m_frequencies[i]), yOf(db));
            if (i == 0)
                path.moveTo(pt);
            else
                path.lineTo(pt);
        }
        QPainterPath fill = path;
        fill.lineTo(area.right(), yOf(0.0));
        fill.lineTo(area.left(), yOf(0.0));
        fill.closeSubpath();
        QColor shade = QVDStyle::accent();
        shade.setAlpha(60);
        p.fillPath(fill, shade);
        p.setPen(QPen(QVDStyle::accent(), 2));
        p.drawPath(path);
    }

    for (const Marker& m : m_markers) {
        const QPointF c(xOf(m.hz), yOf(std::clamp(m.db, m_minDb, m_maxDb)));
        QColor colour = m.on ? QVDStyle::meterHigh() : QVDStyle::text().darker(180);
        p.setPen(QPen(colour, 1.5));
        p.setBrush(m.on ? colour.darker(150) : Qt::NoBrush);
        p.drawEllipse(c, 6, 6);
        p.setPen(QVDStyle::text());
        p.drawText(QRectF(c.x() - 6, c.y() - 6, 12, 12), Qt::AlignCenter, m.label);
        if (!m.icon.isNull())
            p.drawPixmap(QPointF(c.x() - m.icon.width() / 2.0, c.y() - 10 - m.icon.height()), m.icon);
    }
}
