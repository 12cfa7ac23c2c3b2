#include "QVDLoudnessMeterPanel.h"

#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>
#include <qvd/PluginInstance.h>

#include "QVDLoudnessMeter.h"

QVD_REGISTER_PANEL(QVDLoudnessMeter, QVDLoudnessMeterPanel)

QVDLoudnessHistoryView::QVDLoudnessHistoryView(QWidget* parent) : QWidget(parent)
{
    setObjectName(QStringLiteral("History"));
}

void QVDLoudnessHistoryView::setHistory(std::vector<double> lufs)
{
    if (lufs != m_history) {
        m_history = std::move(lufs);
        update();
    }
}

void QVDLoudnessHistoryView::setTarget(double lufs)
{
    if (std::isfinite(lufs) && lufs != m_target) {
        m_target = lufs;
        update();
    }
}

double QVDLoudnessHistoryView::yOf(double lufs) const
{
    const double top = 4.0, bottom = height() - 16.0;
    const double t = (std::clamp(lufs, kFloor, kTop) - kFloor) / (kTop - kFloor);
    return bottom - t * (bottom - top);
}

void QVDLoudnessHistoryView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    const double left = 34.0, right = width() - 4.0;

    // A line every 10 LU, labelled; the minutes along the bottom, now at the right.
    QColor grid = QVDStyle::text();
    grid.setAlpha(50);
    p.setFont(QVDStyle::captionFont());
    for (double db = kFloor; db <= kTop; db += 10.0) {
        p.setPen(grid);
        p.drawLine(QPointF(left, yOf(db)), QPointF(right, yOf(db)));
        p.setPen(QVDStyle::text());
        p.drawText(QRectF(0.0, yOf(db) - 7.0, left - 4.0, 14.0), Qt::AlignRight | Qt::AlignVCenter,
                   QString::number(static_cast<int>(db)));
    }
    for (int minute = 0; minute <= 5; ++minute) {
        const double x = right - (right - left) * minute / 5.0;
        p.setPen(grid);
        p.drawLine(QPointF(x, 4.0), QPointF(x, height() - 16.0));
        p.setPen(QVDStyle::text());
        // The end labels stay inside the view.
        const double labelLeft = std::clamp(x - 20.0, 0.0, width() - 40.0);
        p.drawText(QRectF(labelLeft, height() - 15.0, 40.0, 14.0), Qt::AlignCenter,
                   minute == 0 ? tr("now") : QStringLiteral("-%1:00").arg(minute));
    }
    p.setPen(QPen(QVDStyle::meterHigh(), 1.0, Qt::DashLine));
    p.drawLine(QPointF(left, yOf(m_target)), QPointF(right, yOf(m_target)));

    const std::size_t count = m_history.size();
    if (count < 2)
        return;
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(QVDStyle::accent(), 1.5));
    const double dx = (right - left) / static_cast<double>(count - 1);
    QPainterPath path;
    bool drawing = false;
    for (std::size_t i = 0; i < count; ++i) {
        const double v = m_history[i];
        // Gaps for seconds without a reading and below the scale.
        if (!std::isfinite(v) || v < kFloor) {
            drawing = false;
            continue;
        }
        const QPointF at(left + dx * static_cast<double>(i), yOf(v));
        if (drawing)
            path.lineTo(at);
        else
            path.moveTo(at);
        drawing = true;
    }
    p.drawPath(path);
}

QVDLoudnessMeterPanel::QVDLoudnessMeterPanel(QVDLoudnessMeter* plugin, QWidget* parent)
    : QVDPanel(plugin, parent), m_plugin(plugin), m_buffer(QVDLoudnessMeter::kHistorySeconds)
{
    setFixedSize(600, 396);
    setObjectName(QStringLiteral("QVDLoudnessMeterPanel"));

    QFont large = QVDStyle::valueFont();
    large.setPixelSize(22);
    large.setBold(true);
    const std::pair<int, QString> big[] = {{QVDLoudnessMeter::kMomentary, tr("Momentary")},
                                           {QVDLoudnessMeter::kShortTerm, tr("Short-Term")},
                                           {QVDLoudnessMeter::kIntegrated, tr("Integrated")}};
    for (int k = 0; k < 3; ++k) {
        (new QVDCaption(big[k].second, this))->move(8, 8 + 60 * k);
        addFigure(big[k].first, 8, 26 + 60 * k, 180, large);
    }
    const std::pair<int, QString> small[] = {{QVDLoudnessMeter::kRange, tr("Loudness Range")},
                                             {QVDLoudnessMeter::kDeviation, tr("Deviation")},
                                             {QVDLoudnessMeter::kMaxMomentary, tr("Max Momentary")},
                                             {QVDLoudnessMeter::kMaxShortTerm, tr("Max Short-Term")},
                                             {QVDLoudnessMeter::kMaxTruePeak, tr("Max True Peak")}};
    for (int k = 0; k < 5; ++k) {
        auto* caption = new QVDCaption(small[k].second, this);
        caption->setFixedWidth(112);
        caption->move(200, 12 + 36 * k);
        addFigure(small[k].first, 316, 8 + 36 * k, 110, QVDStyle::valueFont(),
                  small[k].first == QVDLoudnessMeter::kDeviation);
    }

    const std::int32_t controls[] = {QVDLoudnessMeter::TARGET, QVDLoudnessMeter::TRUE_PEAK, QVDLoudnessMeter::RESET};
    for (int k = 0; k < 3; ++k) {
        const QVDParameterDefinition& d = plugin->parameters()[static_cast<std::size_t>(controls[k])].definition();
        (new QVDCaption(d.label, this))->move(444, 8 + 60 * k);
        addSelector(controls[k], 444, 28 + 60 * k);
    }

    m_history = new QVDLoudnessHistoryView(this);
    m_history->setGeometry(8, 196, 584, 192);
    refresh();
}

void QVDLoudnessMeterPanel::addFigure(int readout, int x, int y, int width, const QFont& font, bool signedValue)
{
    qvd::ReadoutInfo info{};
    auto* label = new QLabel(this);
    if (m_plugin->readoutInfo(readout, &info))
        label->setObjectName(QString::fromStdString(info.name));
    label->setFont(font);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, QVDStyle::text());
    label->setPalette(palette);
    label->setGeometry(x, y, width, QFontMetrics(font).height() + 6);
    m_figures.push_back({readout, label, QString::fromStdString(info.unit), signedValue});
}

QString QVDLoudnessMeterPanel::figureText(int readout) const
{
    for (const Figure& f : m_figures)
        if (f.readout == readout)
            return f.label->text();
    return {};
}

void QVDLoudnessMeterPanel::refresh()
{
    QVDPanel::refresh();
    for (const Figure& f : m_figures) {
        double value = -INFINITY;
        if (m_plugin->readReadout(f.readout, &value, 1) < 1)
            continue;
        QString number;
        if (std::isnan(value))
            number = QStringLiteral("--");
        else if (std::isinf(value))
            number = value < 0.0 ? QStringLiteral("-inf") : QStringLiteral("+inf");
        else
            number = QString::number(value, 'f', 1);
        if (f.signedValue && std::isfinite(value) && value >= 0.0)
            number.prepend(QLatin1Char('+'));
        f.label->setText(number + QLatin1Char(' ') + f.unit);
    }

    // The target from the selected choice's text ("EBU R128 -23 LUFS").
    char text[128] = {};
    const float choice = m_plugin->getParameter(QVDLoudnessMeter::TARGET);
    if (m_plugin->parameterText(QVDLoudnessMeter::TARGET, choice, text, sizeof text) > 0) {
        static const QRegularExpression number(QStringLiteral("(-?\\d+(?:\\.\\d+)?) LUFS"));
        const QRegularExpressionMatch m = number.match(QString::fromUtf8(text));
        if (m.hasMatch())
            m_history->setTarget(m.captured(1).toDouble());
    }

    const auto capacity = static_cast<std::int32_t>(m_buffer.size());
    const std::int32_t read =
        std::min(capacity, m_plugin->readReadout(QVDLoudnessMeter::kHistory, m_buffer.data(), capacity));
    if (read > 0)
        m_history->setHistory(std::vector<double>(m_buffer.begin(), m_buffer.begin() + read));
}
