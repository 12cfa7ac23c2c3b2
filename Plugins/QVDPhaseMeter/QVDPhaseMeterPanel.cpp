#include "QVDPhaseMeterPanel.h"

#include <QLabel>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>

#include "QVDPhaseMeter.h"

QVD_REGISTER_PANEL(QVDPhaseMeter, QVDPhaseMeterPanel)

QVDGoniometerView::QVDGoniometerView(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("Goniometer"));
}

void QVDGoniometerView::setPoints(std::vector<double> points)
{
    m_points = std::move(points);
    update();
}

void QVDGoniometerView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    p.setRenderHint(QPainter::Antialiasing);
    const QPointF centre(width() / 2.0, height() / 2.0);
    const double radius = std::min(width(), height()) / 2.0 - 14.0;

    QColor grid = QVDStyle::text();
    grid.setAlpha(70);
    p.setPen(QPen(grid, 1.0));
    p.drawEllipse(centre, radius, radius);
    // Mid and side axes, and the left and right channels' diagonals.
    p.drawLine(QPointF(centre.x(), centre.y() - radius), QPointF(centre.x(), centre.y() + radius));
    p.drawLine(QPointF(centre.x() - radius, centre.y()), QPointF(centre.x() + radius, centre.y()));
    const double d = radius * std::sqrt(0.5);
    p.drawLine(QPointF(centre.x() - d, centre.y() - d), QPointF(centre.x() + d, centre.y() + d));
    p.drawLine(QPointF(centre.x() + d, centre.y() - d), QPointF(centre.x() - d, centre.y() + d));
    p.setPen(QVDStyle::text());
    p.setFont(QVDStyle::captionFont());
    p.drawText(QRectF(centre.x() - 8, 0, 16, 14), Qt::AlignCenter, QStringLiteral("M"));
    p.drawText(QRectF(centre.x() - d - 16, centre.y() - d - 14, 16, 14), Qt::AlignCenter, QStringLiteral("L"));
    p.drawText(QRectF(centre.x() + d, centre.y() - d - 14, 16, 14), Qt::AlignCenter, QStringLiteral("R"));
    p.drawText(QRectF(width() - 14, centre.y() - 7, 14, 14), Qt::AlignCenter, QStringLiteral("S"));

    // Newer points brighter; points beyond full scale sit on the rim.
    const std::size_t count = m_points.size() / 2;
    p.setPen(Qt::NoPen);
    QColor dot = QVDStyle::accent();
    for (std::size_t i = 0; i < count; ++i) {
        double x = m_points[2 * i], y = m_points[2 * i + 1];
        if (!std::isfinite(x) || !std::isfinite(y))
            continue;
        const double r = std::hypot(x, y);
        if (r > 1.0) {
            x /= r;
            y /= r;
        }
        dot.setAlphaF(0.25 + 0.75 * static_cast<double>(i + 1) / static_cast<double>(count));
        p.setBrush(dot);
        p.drawEllipse(QPointF(centre.x() + x * radius, centre.y() - y * radius), 1.6, 1.6);
    }
}

QVDCorrelationBar::QVDCorrelationBar(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("CorrelationBar"));
}

void QVDCorrelationBar::setCorrelation(double value)
{
    value = std::isfinite(value) ? std::clamp(value, -1.0, 1.0) : 0.0;
    if (value != m_value) {
        m_value = value;
        update();
    }
}

void QVDCorrelationBar::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    const double half = width() / 2.0;
    const double end = half + m_value * (half - 2.0);
    const QRectF bar(std::min(half, end), 3.0, std::fabs(end - half), height() - 6.0);
    p.fillRect(bar, m_value >= 0.0 ? QVDStyle::meterLow() : QVDStyle::meterClip());
    QColor tick = QVDStyle::text();
    tick.setAlpha(120);
    p.setPen(tick);
    for (int k = 0; k <= 4; ++k) {
        const double x = 2.0 + k * (width() - 4.0) / 4.0;
        p.drawLine(QPointF(x, 0.0), QPointF(x, k == 2 ? height() : 4.0));
    }
}

QVDPhaseMeterPanel::QVDPhaseMeterPanel(QVDPhaseMeter* plugin, QWidget* parent)
    : QVDPanel(plugin, parent), m_plugin(plugin), m_buffer(2 * QVDPhaseMeter::kPoints)
{
    setFixedSize(440, 392);
    setObjectName(QStringLiteral("QVDPhaseMeterPanel"));

    m_goniometer = new QVDGoniometerView(this);
    m_goniometer->setGeometry(8, 8, 300, 300);

    (new QVDCaption(tr("Correlation"), this))->move(8, 316);
    m_bar = new QVDCorrelationBar(this);
    m_bar->setGeometry(8, 336, 300, 22);
    auto label = [this](const QString& text, const QFont& font, const QRect& geometry, Qt::Alignment align) {
        auto* l = new QLabel(text, this);
        l->setFont(font);
        QPalette palette = l->palette();
        palette.setColor(QPalette::WindowText, QVDStyle::text());
        l->setPalette(palette);
        l->setAlignment(align);
        l->setGeometry(geometry);
        return l;
    };
    label(QStringLiteral("-1"), QVDStyle::captionFont(), QRect(8, 360, 24, 16), Qt::AlignLeft);
    label(QStringLiteral("0"), QVDStyle::captionFont(), QRect(146, 360, 24, 16), Qt::AlignCenter);
    label(QStringLiteral("+1"), QVDStyle::captionFont(), QRect(284, 360, 24, 16), Qt::AlignRight);
    QFont large = QVDStyle::valueFont();
    large.setPixelSize(16);
    large.setBold(true);
    m_correlation = label(QString(), large, QRect(316, 336, 116, 22), Qt::AlignLeft | Qt::AlignVCenter);
    m_correlation->setObjectName(QStringLiteral("Correlation"));

    (new QVDCaption(tr("Balance"), this))->move(320, 240);
    m_balance = label(QString(), QVDStyle::valueFont(), QRect(320, 260, 112, 22), Qt::AlignLeft | Qt::AlignVCenter);
    m_balance->setObjectName(QStringLiteral("Balance"));

    const QVDParameterDefinition& integration = plugin->parameters()[QVDPhaseMeter::INTEGRATION].definition();
    (new QVDCaption(integration.label, this))->move(324, 12);
    addKnob(QVDPhaseMeter::INTEGRATION, 328, 32);

    refresh();
}

void QVDPhaseMeterPanel::refresh()
{
    QVDPanel::refresh();
    double value = 1.0;
    if (m_plugin->readReadout(QVDPhaseMeter::kCorrelation, &value, 1) == 1) {
        m_bar->setCorrelation(value);
        m_correlation->setText(QString::asprintf("%+.2f", m_bar->correlation()));
    }
    double balance = 0.0;
    if (m_plugin->readReadout(QVDPhaseMeter::kBalance, &balance, 1) == 1) {
        // Positive leans right.
        const QString side = std::fabs(balance) < 0.05 ? QString() : balance > 0.0 ? tr(" R") : tr(" L");
        m_balance->setText(QString::asprintf("%.1f dB", std::fabs(balance)) + side);
    }
    const auto capacity = static_cast<std::int32_t>(m_buffer.size());
    const std::int32_t read =
        std::min(capacity, m_plugin->readReadout(QVDPhaseMeter::kGoniometer, m_buffer.data(), capacity));
    if (read > 0)
        m_goniometer->setPoints(std::vector<double>(m_buffer.begin(), m_buffer.begin() + read));
}
