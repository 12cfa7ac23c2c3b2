#include "QVDStyle.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

#include "../QVDControlValueHost.h"

namespace QVDStyle {
QColor background() { return QColor(0x26, 0x28, 0x2b); }
QColor panel() { return QColor(0x33, 0x36, 0x3a); }
QColor text() { return QColor(0xd8, 0xdb, 0xde); }
QColor accent() { return QColor(0x3d, 0xa5, 0xd9); }
QColor meterLow() { return QColor(0x4c, 0xc2, 0x6a); }
QColor meterHigh() { return QColor(0xe8, 0xc5, 0x3a); }
QColor meterClip() { return QColor(0xe0, 0x4b, 0x3c); }
QFont captionFont()
{
    QFont f(QStringLiteral("DejaVu Sans"));
    f.setPixelSize(11);
    f.setBold(true);
    return f;
}
QFont valueFont()
{
    QFont f(QStringLiteral("DejaVu Sans"));
    f.setPixelSize(10);
    return f;
}
double meterPosition(double db)
{
    if (!(db > kMeterFloorDb))
        return 0.0;
    return std::min(1.0, (db - kMeterFloorDb) / -kMeterFloorDb);
}
} // namespace QVDStyle

QVDCaption::QVDCaption(const QString& text, QWidget* parent) : QWidget(parent), m_text(text)
{
    setFixedSize(76, 16);
}

void QVDCaption::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setFont(QVDStyle::captionFont());
    p.setPen(QVDStyle::text());
    p.drawText(rect(), Qt::AlignLeft | Qt::AlignVCenter, m_text);
}

QVDMeterWidget::QVDMeterWidget(QWidget* parent) : QWidget(parent)
{
    setFixedSize(76, 160);
}

void QVDMeterWidget::setLevels(const std::vector<double>& db)
{
    if (db != m_levels) {
        m_levels = db;
        update();
    }
}

void QVDMeterWidget::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    const int scaleWidth = 22;
    const QRect bars = rect().adjusted(2, 4, -scaleWidth, -4);
    // dB scale on the right.
    p.setFont(QVDStyle::valueFont());
    p.setPen(QVDStyle::text());
    for (int db = 0; db >= static_cast<int>(QVDStyle::kMeterFloorDb); db -= 12) {
        const int y = bars.bottom() - static_cast<int>(QVDStyle::meterPosition(db) * bars.height());
        p.drawLine(bars.right() + 2, y, bars.right() + 5, y);
        p.drawText(QRect(bars.right() + 6, y - 6, scaleWidth - 6, 12), Qt::AlignLeft | Qt::AlignVCenter,
                   QString::number(-db));
    }
    const int n = std::max<int>(1, static_cast<int>(m_levels.size()));
    const int gap = n > 8 ? 0 : 2;
    const double width = (bars.width() - gap * (n - 1)) / static_cast<double>(n);
    QLinearGradient gradient(bars.bottomLeft(), bars.topLeft());
    gradient.setColorAt(0.0, QVDStyle::meterLow());
    gradient.setColorAt(0.8, QVDStyle::meterHigh());
    gradient.setColorAt(1.0, QVDStyle::meterClip());
    for (int i = 0; i < n; ++i) {
        const QRectF slot(bars.left() + i * (width + gap), bars.top(), std::max(1.0, width), bars.height());
        p.fillRect(slot, QVDStyle::background());
        const double level = i < static_cast<int>(m_levels.size()) ? m_levels[static_cast<std::size_t>(i)] : -100.0;
        const double h = QVDStyle::meterPosition(level) * slot.height();
        if (h > 0.0)
            p.fillRect(QRectF(slot.left(), slot.bottom() - h, slot.width(), h), gradient);
    }
}

QVDKnob::QVDKnob(QVDControlValueHost* host, const QString& identifier, float minimum, float maximum, float step,
                 float defaultValue, const QString& unit, QWidget* parent)
    : QWidget(parent),
      m_host(host),
      m_identifier(identifier),
      m_minimum(minimum),
      m_maximum(maximum),
      m_step(step > 0.0f ? step : 1.0f),
      m_default(defaultValue),
      m_unit(unit),
      m_value(defaultValue)
{
    setFixedSize(72, 88);
    setFocusPolicy(Qt::StrongFocus);
    setObjectName(identifier);
    refresh();
}

float QVDKnob::snapped(float value) const
{
    if (!std::isfinite(value))
        value = m_default;
    value = std::clamp(value, m_minimum, m_maximum);
    const float steps = std::round((value - m_minimum) / m_step);
    return std::clamp(m_minimum + steps * m_step, m_minimum, m_maximum);
}

void QVDKnob::setValue(float value)
{
    const float v = snapped(value);
    if (v == m_value)
        return;
    m_value = v;
    if (m_host)
        m_host->controlValueChanged(m_identifier, v);
    update();
    emit valueChanged(v);
}

void QVDKnob::refresh()
{
    if (m_host) {
        const float v = m_host->controlValue(m_identifier);
        if (v != m_value) {
            m_value = v;
            update();
        }
    }
}

void QVDKnob::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF dial(10, 4, 52, 52);
    const double span = m_maximum > m_minimum ? m_maximum - m_minimum : 1.0;
    const double t = std::clamp((m_value - m_minimum) / span, 0.0, 1.0);
    // 270 degrees of travel, from 225 (lower left) clockwise to -45 (lower right).
    const double startDeg = 225.0;
    const double angleDeg = startDeg - 270.0 * t;
    p.setPen(QPen(QVDStyle::background(), 5, Qt::SolidLine, Qt::FlatCap));
    p.drawArc(dial, static_cast<int>(-45 * 16), static_cast<int>(270 * 16));
    p.setPen(QPen(QVDStyle::accent(), 5, Qt::SolidLine, Qt::FlatCap));
    p.drawArc(dial, static_cast<int>(startDeg * 16), static_cast<int>(-270.0 * t * 16));
    p.setPen(Qt::NoPen);
    p.setBrush(QVDStyle::panel().lighter(130));
    p.drawEllipse(dial.adjusted(8, 8, -8, -8));
    const double rad = angleDeg * M_PI / 180.0;
    const QPointF c = dial.center();
    p.setPen(QPen(QVDStyle::text(), 2, Qt::SolidLine, Qt::RoundCap));
    p.drawLine(c, c + QPointF(std::cos(rad) * 14, -std::sin(rad) * 14));
    p.setFont(QVDStyle::valueFont());
    p.setPen(QVDStyle::text());
    const int decimals = m_step >= 1.0f ? 0 : (m_step >= 0.1f ? 1 : 2);
    QString label = QString::number(static_cast<double>(m_value), 'f', decimals);
    if (!m_unit.isEmpty())
        label += QLatin1Char(' ') + m_unit;
    p.drawText(QRect(0, 62, width(), 20), Qt::AlignCenter, label);
}

void QVDKnob::mousePressEvent(QMouseEvent* e)
{
    m_dragY = e->pos().y();
    m_dragValue = m_value;
    setFocus();
}

void QVDKnob::mouseMoveEvent(QMouseEvent* e)
{
    if (!(e->buttons() & Qt::LeftButton))
        return;
    // 200 pixels cover the whole range; Shift gives fine control.
    const double pixels = (e->modifiers() & Qt::ShiftModifier) ? 2000.0 : 200.0;
    const double delta = (m_dragY - e->pos().y()) * (m_maximum - m_minimum) / pixels;
    setValue(static_cast<float>(m_dragValue + delta));
}

void QVDKnob::mouseDoubleClickEvent(QMouseEvent*)
{
    setValue(m_default);
}

void QVDKnob::wheelEvent(QWheelEvent* e)
{
    const int notches = e->angleDelta().y() / 120;
    if (notches != 0)
        setValue(m_value + static_cast<float>(notches) * m_step);
    e->accept();
}

void QVDKnob::keyPressEvent(QKeyEvent* e)
{
    switch (e->key()) {
    case Qt::Key_Up:
    case Qt::Key_Right:
        setValue(m_value + m_step);
        break;
    case Qt::Key_Down:
    case Qt::Key_Left:
        setValue(m_value - m_step);
        break;
    case Qt::Key_PageUp:
        setValue(m_value + 10.0f * m_step);
        break;
    case Qt::Key_PageDown:
        setValue(m_value - 10.0f * m_step);
        break;
    case Qt::Key_Home:
        setValue(m_minimum);
        break;
    case Qt::Key_End:
        setValue(m_maximum);
        break;
    default:
        QWidget::keyPressEvent(e);
    }
}
