#include "QVDReverbPanel.h"

#include <QLabel>
#include <QPainter>

#include <UI/QVDStyle.h>

#include "QVDReverb.h"

namespace {

constexpr int kColumn = 96;
constexpr int kRow = 132;

// Rows of parameter indices as laid out on the panel.
const std::vector<std::vector<int>>& panelRows()
{
    static const std::vector<std::vector<int>> rows = {
        {QVDReverb::ROOM_WIDTH, QVDReverb::ROOM_LENGTH, QVDReverb::ROOM_HEIGHT, QVDReverb::ROOM_SIZE,
         QVDReverb::ROOM_RATIO, QVDReverb::DISTANCE},
        {QVDReverb::REVERB_TIME, QVDReverb::PRE_DELAY, QVDReverb::BRIGHTNESS, QVDReverb::MODULATION,
         QVDReverb::DRY_WET},
        {QVDReverb::EARLY_LOW_FREQ, QVDReverb::EARLY_LOW_GAIN, QVDReverb::EARLY_HIGH_FREQ,
         QVDReverb::EARLY_HIGH_GAIN, QVDReverb::DIRECT_GAIN, QVDReverb::EARLY_GAIN},
        {QVDReverb::LATE_LOW_FREQ, QVDReverb::LATE_LOW_GAIN, QVDReverb::LATE_HIGH_FREQ, QVDReverb::LATE_HIGH_GAIN,
         QVDReverb::LATE_GAIN},
    };
    return rows;
}

} // namespace

QVDReverbPanel::QVDReverbPanel(QVDReverb* plugin, QWidget* parent)
    : QWidget(parent), m_plugin(plugin), m_knobs(QVDReverb::kParameterCount, nullptr),
      m_values(QVDReverb::kParameterCount, nullptr)
{
    setObjectName(QStringLiteral("QVDReverbPanel"));
    setFixedSize(8 + 6 * kColumn, 8 + 4 * kRow);
    int y = 8;
    for (const auto& row : panelRows()) {
        int x = 8;
        for (const int index : row) {
            const QVDParameterDefinition& d = m_plugin->parameters()[static_cast<std::size_t>(index)].definition();
            auto* caption = new QVDCaption(QString::fromWCharArray(QVDReverb::shortName(index)), this);
            caption->move(x, y);
            if (index != QVDReverb::ROOM_SIZE && index != QVDReverb::ROOM_RATIO) {
                auto* k = new QVDKnob(m_plugin, d.identifier, d.minimum, d.maximum, d.step, d.defaultValue, d.unit,
                                      this);
                k->setToolTip(d.label);
                k->move(x + 8, y + 20);
                m_knobs[static_cast<std::size_t>(index)] = k;
            }
            auto* value = new QLabel(this);
            value->setObjectName(d.identifier);
            value->setFont(QVDStyle::valueFont());
            value->setFixedWidth(kColumn - 4);
            value->move(x, y + 108);
            m_values[static_cast<std::size_t>(index)] = value;
            x += kColumn;
        }
        y += kRow;
    }
    connect(&m_timer, &QTimer::timeout, this, &QVDReverbPanel::refresh);
    m_timer.start(100);
    refresh();
}

QString QVDReverbPanel::valueText(int index) const
{
    const QLabel* l = m_values[static_cast<std::size_t>(index)];
    return l ? l->text() : QString();
}

void QVDReverbPanel::refresh()
{
    for (int i = 0; i < QVDReverb::kParameterCount; ++i) {
        if (QVDKnob* k = m_knobs[static_cast<std::size_t>(i)])
            k->refresh();
        if (QLabel* l = m_values[static_cast<std::size_t>(i)])
            l->setText(m_plugin->displayText(i));
    }
}

void QVDReverbPanel::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), QVDStyle::background());
}
