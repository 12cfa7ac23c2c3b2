#include "QVDFrequencyPanel.h"

#include <QPainter>
#include <QPainterPath>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>

#include <algorithm>
#include <cmath>

#include "QVDFrequency.h"

QVD_REGISTER_PANEL(QVDFrequency, QVDFrequencyPanel)

namespace {
constexpr double kLow = 20.0, kHigh = 20000.0;
constexpr int kColumn = 96;
constexpr int kViewHeight = 300;
constexpr int kPerOctave[] = {1, 3, 6, 12};
} // namespace

QVDSpectrumView::QVDSpectrumView(QWidget* parent) : QWidget(parent) {}

void QVDSpectrumView::setSpectrum(std::vector<double> frequencies, std::vector<double> decibels)
{
    m_frequencies = std::move(frequencies);
    m_spectrum = std::move(decibels);
    update();
}

void QVDSpectrumView::setBands(std::vector<double> centres, std::vector<double> decibels, int perOctave)
{
    m_centres = std::move(centres);
    m_bands = std::move(decibels);
    m_perOctave = std::max(1, perOctave);
    update();
}

void QVDSpectrumView::setPeak(double hz, double db)
{
    m_peakHz = hz;
    m_peakDb = db;
    update();
}

double QVDSpectrumView::xOf(double hz) const
{
    return std::log(std::max(hz, 1.0) / kLow) / std::log(kHigh / kLow) * width();
}

double QVDSpectrumView::yOf(double db) const
{
    const double clamped = std::clamp(db, kBottomDb, kTopDb);
    return (kTopDb - clamped) / (kTopDb - kBottomDb) * height();
}

void QVDSpectrumView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::panel());
    p.setPen(QColor(255, 255, 255, 40));
    for (double decade = 100.0; decade < kHigh; decade *= 10.0)
        p.drawLine(QPointF(xOf(decade), 0), QPointF(xOf(decade), height()));
    for (double db = kTopDb - 20.0; db > kBottomDb; db -= 20.0)
        p.drawLine(QPointF(0, yOf(db)), QPointF(width(), yOf(db)));

    // Band levels as bars, half a band either side of each centre.
    const double half = std::pow(10.0, 0.3 / (2.0 * m_perOctave));
    QColor bar = QVDStyle::accent();
    bar.setAlpha(70);
    for (std::size_t b = 0; b < std::min(m_centres.size(), m_bands.size()); ++b) {
        if (!(m_centres[b] > 0.0) || m_bands[b] <= kBottomDb)
            continue;
        const double x0 = xOf(m_centres[b] / half), x1 = xOf(m_centres[b] * half);
        p.fillRect(QRectF(x0, yOf(m_bands[b]), x1 - x0 - 1.0, height() - yOf(m_bands[b])), bar);
    }

    const std::size_t n = std::min(m_frequencies.size(), m_spectrum.size());
    if (n > 1) {
        QPainterPath curve;
        curve.moveTo(xOf(m_frequencies[0]), yOf(m_spectrum[0]));
        for (std::size_t i = 1; i < n; ++i)
            curve.lineTo(xOf(m_frequencies[i]), yOf(m_spectrum[i]));
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(QPen(QVDStyle::text(), 1.5));
        p.drawPath(curve);
    }

    if (m_peakDb > kBottomDb && m_peakHz > 0.0) {
        p.setPen(QVDStyle::accent());
        p.drawEllipse(QPointF(xOf(m_peakHz), yOf(m_peakDb)), 4.0, 4.0);
        p.setFont(QVDStyle::valueFont());
        p.drawText(QRectF(0, 2, width() - 6, 16), Qt::AlignRight,
                   tr("Peak %1 Hz, %2 dB").arg(m_peakHz, 0, 'f', 1).arg(m_peakDb, 0, 'f', 1));
    }
}

QVDFrequencyPanel::QVDFrequencyPanel(QVDFrequency* plugin, QWidget* parent)
    : QVDPanel(plugin, parent), m_plugin(plugin)
{
    setObjectName(QStringLiteral("QVDFrequencyPanel"));
    const std::int32_t count = plugin->parameterCount();
    m_view = new QVDSpectrumView(this);
    m_view->setObjectName(QStringLiteral("SpectrumView"));
    m_view->setGeometry(8, 8, count * kColumn, kViewHeight);
    const int top = 8 + kViewHeight + 8;
    for (std::int32_t i = 0; i < count; ++i) {
        const QVDParameterDefinition& d = plugin->parameters()[static_cast<std::size_t>(i)].definition();
        const int x = 8 + i * kColumn;
        (new QVDCaption(d.label, this))->move(x + 4, top);
        if (d.kind == qvd::kContinuous)
            addKnob(i, x, top + 20);
        else
            addSelector(i, x, top + 40);
        addValueLabel(i, x, top + 108, kColumn - 4);
    }
    setFixedSize(16 + count * kColumn, top + 132 + 8);
    refresh();
}

void QVDFrequencyPanel::refresh()
{
    QVDPanel::refresh();
    if (!m_view)
        return;
    m_view->setSpectrum(readout(QVDFrequency::kGridFrequencies), readout(QVDFrequency::kSpectrum));
    const auto count = static_cast<std::size_t>(std::max(0.0, readout(QVDFrequency::kBandCount).at(0)));
    std::vector<double> centres = readout(QVDFrequency::kBandCentres), bands = readout(QVDFrequency::kBands);
    centres.resize(std::min(count, centres.size()));
    bands.resize(centres.size());
    const int choice = std::clamp(qvdListIndex(m_plugin->getParameter(QVDFrequency::BANDS)), 0, 3);
    m_view->setBands(std::move(centres), std::move(bands), kPerOctave[choice]);
    m_view->setPeak(readout(QVDFrequency::kPeakFrequency).at(0), readout(QVDFrequency::kPeakLevel).at(0));
}
