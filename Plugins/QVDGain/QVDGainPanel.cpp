#include "QVDGainPanel.h"

#include <QPainter>

#include <UI/QVDStyle.h>

#include "QVDGain.h"

QVDGainPanel::QVDGainPanel(QVDGain* plugin, QWidget* parent) : QWidget(parent), m_plugin(plugin)
{
    setFixedSize(360, 194);
    setObjectName(QStringLiteral("QVDGainPanel"));

    auto* inputCaption = new QVDCaption(tr("Input"), this);
    inputCaption->move(8, 6);
    m_input = new QVDMeterWidget(this);
    m_input->setObjectName(QStringLiteral("InputMeter"));
    m_input->move(8, 26);

    auto* outputCaption = new QVDCaption(tr("Output"), this);
    outputCaption->move(92, 6);
    m_output = new QVDMeterWidget(this);
    m_output->setObjectName(QStringLiteral("OutputMeter"));
    m_output->move(92, 26);

    const QVDParameterDefinition& gain = m_plugin->parameters()[QVDGain::GAIN].definition();
    auto* gainCaption = new QVDCaption(gain.label, this);
    gainCaption->move(220, 40);
    m_knob = new QVDKnob(m_plugin, gain.identifier, gain.minimum, gain.maximum, gain.step, gain.defaultValue,
                         gain.unit, this);
    m_knob->move(216, 60);

    connect(&m_timer, &QTimer::timeout, this, &QVDGainPanel::refresh);
    m_timer.start(33);
    refresh();
}

void QVDGainPanel::refresh()
{
    for (auto [group, meter] : {std::pair{QVDGain::kInputMeter, m_input}, std::pair{QVDGain::kOutputMeter, m_output}}) {
        std::vector<double> db(static_cast<std::size_t>(m_plugin->getMeterValues(group, nullptr, 0)));
        m_plugin->getMeterValues(group, db.data(), static_cast<std::int32_t>(db.size()));
        meter->setLevels(db);
    }
    m_knob->refresh();
}

void QVDGainPanel::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::background());
}
