#include "QVDEqPanel.h"

#include <QPainter>

#include <UI/QVDListSelector.h>
#include <UI/QVDResponseView.h>
#include <UI/QVDShapeIcons.h>
#include <UI/QVDStyle.h>

#include "QVDEq.h"

namespace {
constexpr int kBandLeft = 70;
constexpr int kBandWidth = 110;
constexpr int kShapeRow = 250;
constexpr int kInRow = 280;
constexpr int kGainRow = 310;
constexpr int kFreqRow = 398;
constexpr int kQRow = 486;
} // namespace

QVDEqPanel::QVDEqPanel(QVDEq* plugin, QWidget* parent) : QWidget(parent), m_plugin(plugin)
{
    setFixedSize(740, 580);
    setObjectName(QStringLiteral("QVDEqPanel"));
    const QVDParameterList& params = m_plugin->parameters();

    const QVDParameterDefinition& eqIn = params[QVDEq::EQ_IN].definition();
    (new QVDCaption(eqIn.label, this))->move(8, 8);
    m_eqIn = new QVDListSelector(m_plugin, eqIn.identifier, eqIn.options, this);
    m_eqIn->move(90, 4);

    m_view = new QVDResponseView(this);
    m_view->setObjectName(QStringLiteral("ResponseView"));
    m_view->setGeometry(8, 34, 560, 190);

    (new QVDCaption(tr("Input"), this))->move(580, 8);
    m_input = new QVDMeterWidget(this);
    m_input->setObjectName(QStringLiteral("InputMeter"));
    m_input->move(580, 28);
    (new QVDCaption(tr("Output"), this))->move(660, 8);
    m_output = new QVDMeterWidget(this);
    m_output->setObjectName(QStringLiteral("OutputMeter"));
    m_output->move(660, 28);

    const std::pair<int, QString> rows[] = {{kShapeRow + 5, tr("Shape")}, {kInRow + 5, tr("In")},
                                            {kGainRow + 30, tr("Gain")},  {kFreqRow + 30, tr("Freq")},
                                            {kQRow + 30, tr("Q")}};
    for (const auto& [y, text] : rows)
        (new QVDCaption(text, this))->move(8, y);

    auto makeKnob = [this, &params](std::uint32_t index, int x, int y) {
        const QVDParameterDefinition& d = params[index].definition();
        auto* k = new QVDKnob(m_plugin, d.identifier, d.minimum, d.maximum, d.step, d.defaultValue, d.unit, this);
        k->move(x, y);
        connect(k, &QVDKnob::valueChanged, this, &QVDEqPanel::updateCurve);
        return k;
    };
    for (int b = 0; b < QVDEq::kBands; ++b) {
        const int x = kBandLeft + b * kBandWidth;
        const auto i = static_cast<std::size_t>(b);
        (new QVDCaption(tr("Band %1").arg(b + 1), this))->move(x + 20, kShapeRow - 20);

        const QVDParameterDefinition& shape = params[QVDEq::bandParameter(b, QVDEq::kShape)].definition();
        m_shape[i] = new QVDListSelector(m_plugin, shape.identifier, shape.options, this);
        m_shape[i]->move(x, kShapeRow);
        std::vector<QPixmap> icons;
        for (int c = 0; c < 4; ++c)
            icons.push_back(QVDShapeIcons::pixmap(QVDEq::viewCodes()[static_cast<std::size_t>(b * 4 + c)], 18));
        m_shape[i]->setIcons(icons);
        connect(m_shape[i], &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

        const QVDParameterDefinition& in = params[QVDEq::bandParameter(b, QVDEq::kIn)].definition();
        m_in[i] = new QVDListSelector(m_plugin, in.identifier, in.options, this);
        m_in[i]->move(x, kInRow);
        connect(m_in[i], &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

        m_gain[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kGain), x + 12, kGainRow);
        m_freq[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kFreq), x + 12, kFreqRow);
        m_q[i] = makeKnob(QVDEq::bandParameter(b, QVDEq::kQ), x + 12, kQRow);
    }
    connect(m_eqIn, &QVDListSelector::choiceChanged, this, &QVDEqPanel::updateCurve);

    connect(&m_timer, &QTimer::timeout, this, &QVDEqPanel::refresh);
    m_timer.start(33);
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
    for (auto [group, meter] : {std::pair{QVDEq::kInputMeter, m_input}, std::pair{QVDEq::kOutputMeter, m_output}}) {
        std::vector<double> db(static_cast<std::size_t>(m_plugin->getMeterValues(group, nullptr, 0)));
        m_plugin->getMeterValues(group, db.data(), static_cast<std::int32_t>(db.size()));
        meter->setLevels(db);
    }
    m_eqIn->refresh();
    for (std::size_t i = 0; i < m_shape.size(); ++i) {
        m_shape[i]->refresh();
        m_in[i]->refresh();
        m_gain[i]->refresh();
        m_freq[i]->refresh();
        m_q[i]->refresh();
    }
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

void QVDEqPanel::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::background());
}
