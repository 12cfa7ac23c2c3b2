#include "QVDJellyFishPanel.h"

#include <QLabel>
#include <QPainter>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>

#include <algorithm>
#include <cmath>

#include "QVDJellyFish.h"

QVD_REGISTER_PANEL(QVDJellyFish, QVDJellyFishPanel)

namespace {
constexpr double kRad = 3.14159265358979323846 / 180.0;
constexpr int kViewSize = 400;
} // namespace

QVDDirectionView::QVDDirectionView(QWidget* parent) : QWidget(parent) {}

void QVDDirectionView::setState(std::vector<double> roles, std::vector<double> levels, double direction,
                                double spread)
{
    m_roles = std::move(roles);
    m_levels = std::move(levels);
    m_direction = direction;
    m_spread = spread;
    update();
}

QPointF QVDDirectionView::pointAt(double degrees, double fraction) const
{
    const double radius = 0.42 * std::min(width(), height()) * fraction;
    return {0.5 * width() - radius * std::sin(degrees * kRad), 0.5 * height() - radius * std::cos(degrees * kRad)};
}

void QVDDirectionView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), QVDStyle::panel());
    const QPointF centre(0.5 * width(), 0.5 * height());
    const double radius = 0.42 * std::min(width(), height());
    p.setPen(QColor(255, 255, 255, 50));
    p.drawEllipse(centre, radius, radius);
    p.drawEllipse(centre, radius / 2, radius / 2);

    // The sides of 7.1 sit where 5.1 has its surrounds further back.
    const bool backs = std::find(m_roles.begin(), m_roles.end(), static_cast<double>(qvd::kRoleLeftBack)) != m_roles.end();
    const std::int32_t format = backs ? qvd::kFormat71 : qvd::kFormat51;
    for (std::size_t c = 0; c < std::min(m_roles.size(), m_levels.size()); ++c) {
        double degrees = 0.0, weight = 0.0;
        if (!QVDJellyFish::roleAngle(format, static_cast<qvd::ChannelRole>(m_roles[c]), degrees, weight))
            continue;
        const double lit = QVDStyle::meterPosition(m_levels[c]);
        QColor colour = QVDStyle::meterLow();
        colour.setAlphaF(0.25 + 0.75 * lit);
        p.setPen(Qt::NoPen);
        p.setBrush(colour);
        p.drawEllipse(pointAt(degrees, weight), 6.0 + 8.0 * lit, 6.0 + 8.0 * lit);
    }

    const double length = std::sqrt(std::max(0.0, 1.0 - m_spread * m_spread));
    if (length > 0.0) {
        p.setPen(QPen(QVDStyle::accent(), 3.0));
        p.drawLine(centre, pointAt(m_direction, length));
        p.setBrush(QVDStyle::accent());
        p.drawEllipse(pointAt(m_direction, length), 4.0, 4.0);
    }
}

QVDJellyFishPanel::QVDJellyFishPanel(QVDJellyFish* plugin, QWidget* parent)
    : QVDPanel(plugin, parent), m_plugin(plugin)
{
    setObjectName(QStringLiteral("QVDJellyFishPanel"));
    m_view = new QVDDirectionView(this);
    m_view->setObjectName(QStringLiteral("DirectionView"));
    m_view->setGeometry(8, 8, kViewSize, kViewSize);

    const int x = 8 + kViewSize + 12;
    auto* readings = new QLabel(this);
    readings->setObjectName(QStringLiteral("Readings"));
    readings->setFont(QVDStyle::valueFont());
    readings->setGeometry(x, 8, 140, 180);
    readings->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_readings = readings;

    const QVDParameterList& params = plugin->parameters();
    (new QVDCaption(params[QVDJellyFish::INTEGRATION].definition().label, this))->move(x, 196);
    addKnob(QVDJellyFish::INTEGRATION, x, 216);
    (new QVDCaption(params[QVDJellyFish::RESET].definition().label, this))->move(x, 332);
    addSelector(QVDJellyFish::RESET, x, 356);
    setFixedSize(x + 140 + 8, 8 + kViewSize + 8);
    refresh();
}

void QVDJellyFishPanel::refresh()
{
    QVDPanel::refresh();
    if (!m_view)
        return;
    const double direction = readout(QVDJellyFish::kDirection)[0];
    const double spread = readout(QVDJellyFish::kSpread)[0];
    std::vector<double> roles = readout(QVDJellyFish::kChannelRoles);
    std::vector<double> levels = readout(QVDJellyFish::kChannelLevels);
    const auto channels = static_cast<std::size_t>(std::max(0, m_plugin->inputChannelCount()));
    roles.resize(std::min(roles.size(), channels));
    levels.resize(roles.size());
    m_view->setState(std::move(roles), std::move(levels), direction, spread);

    const auto number = [](double v, int decimals) {
        return std::isfinite(v) && v > -199.0 ? QString::number(v, 'f', decimals) : QStringLiteral("--");
    };
    const QString text =
        tr("Direction %1 deg\nSpread %2\n\nFront corr. %3\nSurround corr. %4\n\nLoudness %5 LUFS\nDownmix %6 LUFS\n"
           "Difference %7 LU\n\nLFE %8 dB")
            .arg(number(direction, 1), number(spread, 2), number(readout(QVDJellyFish::kFrontCorrelation)[0], 2),
                 number(readout(QVDJellyFish::kSurroundCorrelation)[0], 2),
                 number(readout(QVDJellyFish::kSurroundLoudness)[0], 1),
                 number(readout(QVDJellyFish::kDownmixLoudness)[0], 1),
                 number(readout(QVDJellyFish::kDownmixDifference)[0], 1), number(readout(QVDJellyFish::kLfeLevel)[0], 1));
    if (text != m_text) {
        m_text = text;
        static_cast<QLabel*>(m_readings)->setText(text);
    }
}
