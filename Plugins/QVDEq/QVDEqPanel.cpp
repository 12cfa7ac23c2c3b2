#include "QVDEqPanel.h"

#include <QVDPanelRegistry.h>

#include <UI/QVDListSelector.h>
#include <UI/QVDResponseView.h>
#include <UI/QVDShapeIcons.h>
#include <UI/QVDStyle.h>

#include "QVDEq.h"

QVD_REGISTER_PANEL(QVDEq, QVDEqPanel)

namespace {
constexpr int kBandLeft = 70;
constexpr int kBandWidth = 110;
constexpr int kShapeRow = 250;
constexpr int kInRow = 280;
constexpr int kGainRow = 310;
constexpr int kFreqRow = 398;
constexpr int kQRow = 486;
} // namespace

QVDEqPanel::QVDEqPanel(QVDEq* plugin, QWidget* parent) : QVDPanel(plugin, parent), m_plugin(plugin)
{
    setFixedSize(740, 580);
    setObjectName(QStringLiteral("QVDEqPanel"));
    const QVDParameterList& params = m_plugin->parameters();

    const QVDParameterDefinition& eqIn = params[QVDEq::EQ_IN].definition();
    (new QVDCaption(eqIn.label, this))->move(8, 8);
    m_eqIn = addSelector(QVDEq::EQ_IN, 90, 4);

    m_view = new QVDResponseView(this);
    m_view->setObjectName(QStringLiteral("ResponseView"));
    m_view->setGeometry(8, 34, 560, 190);

    m_input = addMeter(QVDEq::kInputMeter, 580, 8, tr("Input"));
    m_output = addMeter(QVDEq::kOutputMeter, 660, 8, tr("Output"));

    const std::pair<int, QString> rows[] = {{kShapeRow + 5, tr("Shape")}, {kInRow + 5, tr("In")},
                                            {kGainRow + 30, tr("Gain")},  {kFreqRow + 30, tr("Freq")},
                                            {kQRow + 30, tr("Q")}};
    for (const auto& [y, text] : rows)
        (new QVDCaption(text, this))->move(8, y);

    auto makeKnob = [this](std::uint32_t index, int x, int y) {
        QVDKnob* k = addKnob(static_cast<std::int32_t>(index), x, y);
        connect(k, &QVDKnob::valueChanged, this, &QVDEqPanel::updateCurve);
        return k;
    };
    for (int b = 0; b < QVDEq::kBands; ++b) {
        const int x = kBandLeft + b * kBandWidth;
        const auto i = static_cast<std::size_t>(b);
        (new QVDCaption(tr("Band %1").arg(b + 1), this))->move(x + 20, kShapeRow - 20);

        m_shape[i] = addSelector(static_cast<std::int32_t>(QVDEq::bandParameter(b, QVDEq::kShape)), x, kShapeRow);
        std::vector<QPixmap> icons;
        for (int c = 0; c < 4; ++c)
            icons.push_back(QVDShapeIcons::pixmap(QVDEq::viewCodes()[static_cast<std::size_t>(b * 4 + c)], 18));
        m_shape[i]->setIcons(icons);
        connect(m_shape[i], &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

        m_in[i] = addSelector(static_cast<std::int32_t>(QVDEq::bandParameter(b, QVDEq::kIn)), x, kInRow);
        connect(m_in[i], &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

        m_gain[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kGain), x + 12, kGainRow);
        m_freq[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kFreq), x + 12, kFreqRow);
        m_q[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kQ), x + 12, kQRow);
    }
    connect(m_eqIn, &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

    updateCurve();
    refresh();
}

QVDKnob* QVDEqPanel::knob(int band, int role) const
{
    const auto i = static_cast<std::size_t>(band);
    switch (role) {
    case QVDEq::kGain: return m_gain[i];
    case QVDEq::kFreq: return m_freq[i];
    case QVDEq::kQ: return m_q[i];
    default: return nullptr;
    }
}

void QVDEqPanel::refresh()
{
    QVDPanel::refresh();
    if (m_plugin->takeChanged())
        updateCurve();
}

void QVDEqPanel::updateCurve()
{
    m_plugin->takeChanged();
    const std::vector<double>& freqs = m_view->frequencies();
    std::vector<double> db(freqs.size(), 0.0);
    // Before the host prepares the plugin there are no coefficients: flat.
    if (!m_plugin->magnitudeResponse(freqs.data(), db.data(), static_cast<std::int32_t>(freqs.size())))
        std::fill(db.begin(), db.end(), 0.0);
    m_view->setCurve(db);

    std::vector<QVDResponseView::Marker> markers;
    for (int b = 0; b < QVDEq::kBands; ++b) {
        const QVDEq::BandView v = m_plugin->bandView(b);
        QVDResponseView::Marker m;
        m.hz = static_cast<double>(v.frequency);
        // On the curve, where the band's handle belongs.
        if (!m_plugin->magnitudeResponse(&m.hz, &m.db, 1))
            m.db = 0.0;
        m.on = v.on && m_plugin->equalizerIn();
        m.label = QString::number(b + 1);
        markers.push_back(m);
    }
    m_view->setMarkers(markers);
}
