#include "QVDPanel.h"

#include <QLabel>
#include <QPainter>

#include <QVDAudioPluginImpl.h>
#include <QVDPanelRegistry.h>

#include "QVDListSelector.h"
#include "QVDStyle.h"

namespace {
[[maybe_unused]] const bool g_genericPanel =
    qvdRegisterPanel("", [](QVDAudioPluginImpl* p, QWidget* parent) -> QWidget* { return new QVDGenericPanel(p, parent); });
} // namespace

QVDPanel::QVDPanel(QVDAudioPluginImpl* plugin, QWidget* parent, int refreshMs) : QWidget(parent), m_plugin(plugin)
{
    connect(&m_timer, &QTimer::timeout, this, &QVDPanel::refresh);
    m_timer.start(refreshMs);
}

QVDMeterWidget* QVDPanel::addMeter(std::int32_t group, int x, int y, const QString& caption)
{
    (new QVDCaption(caption, this))->move(x, y);
    auto* meter = new QVDMeterWidget(this);
    meter->setObjectName(caption + QStringLiteral("Meter"));
    meter->move(x, y + 20);
    m_meters.push_back({group, meter});
    return meter;
}

QVDKnob* QVDPanel::addKnob(std::int32_t index, int x, int y)
{
    const QVDParameterDefinition& d = m_plugin->parameters()[static_cast<std::size_t>(index)].definition();
    auto* knob = new QVDKnob(m_plugin, d.identifier, d.minimum, d.maximum, d.step, d.defaultValue, d.unit, this);
    knob->setToolTip(d.label);
    knob->move(x, y);
    m_knobs.push_back(knob);
    return knob;
}

QVDListSelector* QVDPanel::addSelector(std::int32_t index, int x, int y)
{
    const QVDParameterDefinition& d = m_plugin->parameters()[static_cast<std::size_t>(index)].definition();
    auto* selector = new QVDListSelector(m_plugin, d.identifier, d.options, this);
    selector->setToolTip(d.label);
    selector->move(x, y);
    m_selectors.push_back(selector);
    return selector;
}

QLabel* QVDPanel::addValueLabel(std::int32_t index, int x, int y, int width)
{
    auto* label = new QLabel(this);
    label->setObjectName(m_plugin->parameters()[static_cast<std::size_t>(index)].definition().identifier);
    label->setFont(QVDStyle::valueFont());
    label->setFixedWidth(width);
    label->move(x, y);
    m_values.push_back({index, label});
    return label;
}

std::vector<double> QVDPanel::readout(std::int32_t index) const
{
    qvd::ReadoutInfo info;
    if (!m_plugin->readoutInfo(index, &info) || info.size < 1)
        return {0.0};
    std::vector<double> v(static_cast<std::size_t>(info.size));
    m_plugin->readReadout(index, v.data(), info.size);
    return v;
}

void QVDPanel::refresh()
{
    std::vector<double> db;
    for (const MeterBinding& m : m_meters) {
        db.resize(static_cast<std::size_t>(m_plugin->getMeterValues(m.group, nullptr, 0)));
        m_plugin->getMeterValues(m.group, db.data(), static_cast<std::int32_t>(db.size()));
        m.widget->setLevels(db);
    }
    for (QVDKnob* k : m_knobs)
        k->refresh();
    for (QVDListSelector* s : m_selectors)
        s->refresh();
    for (const ValueBinding& v : m_values)
        v.label->setText(m_plugin->valueText(v.index, m_plugin->getParameter(v.index)));
}

void QVDPanel::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::background());
}

namespace {
constexpr int kMeterColumn = 84;
constexpr int kColumn = 96;
constexpr int kRow = 132;
constexpr int kPerRow = 6;
} // namespace

QVDGenericPanel::QVDGenericPanel(QVDAudioPluginImpl* plugin, QWidget* parent) : QVDPanel(plugin, parent)
{
    setObjectName(QString::fromLatin1(plugin->pluginDescriptor()->className) + QStringLiteral("Panel"));
    const std::int32_t groups = plugin->meterGroupCount();
    for (std::int32_t g = 0; g < groups; ++g)
        addMeter(g, 8 + g * kMeterColumn, 6, QString::fromUtf8(plugin->meterGroupName(g)));

    const int left = 8 + groups * kMeterColumn + (groups > 0 ? 40 : 0);
    const int top = groups > 0 ? 40 : 8;
    const std::int32_t count = plugin->parameterCount();
    for (std::int32_t i = 0; i < count; ++i) {
        const QVDParameterDefinition& d = plugin->parameters()[static_cast<std::size_t>(i)].definition();
        const int x = left + (i % kPerRow) * kColumn;
        const int y = top + (i / kPerRow) * kRow;
        (new QVDCaption(d.label, this))->move(x + 4, y);
        if (d.kind == qvd::kContinuous)
            addKnob(i, x, y + 20);
        else
            addSelector(i, x, y + 40);
        addValueLabel(i, x, y + 108, kColumn - 4);
    }
    const int columns = std::min<int>(count, kPerRow);
    const int rows = (count + kPerRow - 1) / kPerRow;
    setFixedSize(std::max(360, left + columns * kColumn + 8), std::max(194, top + rows * kRow + 8));
    refresh();
}
