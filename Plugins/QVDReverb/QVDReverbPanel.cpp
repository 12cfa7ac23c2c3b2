#include "QVDReverbPanel.h"

#include <QLabel>

#include <QVDPanelRegistry.h>
#include <UI/QVDStyle.h>

#include "QVDReverb.h"

QVD_REGISTER_PANEL(QVDReverb, QVDReverbPanel)

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
    : QVDPanel(plugin, parent, 100), m_knobs(QVDReverb::kParameterCount, nullptr),
      m_values(QVDReverb::kParameterCount, nullptr)
{
    setObjectName(QStringLiteral("QVDReverbPanel"));
    setFixedSize(8 + 6 * kColumn, 8 + 4 * kRow);
    int y = 8;
    for (const auto& row : panelRows()) {
        int x = 8;
        for (const int index : row) {
            auto* caption = new QVDCaption(QString::fromWCharArray(QVDReverb::shortName(index)), this);
            caption->move(x, y);
            if (index != QVDReverb::ROOM_SIZE && index != QVDReverb::ROOM_RATIO)
                m_knobs[static_cast<std::size_t>(index)] = addKnob(index, x + 8, y + 20);
            m_values[static_cast<std::size_t>(index)] = addValueLabel(index, x, y + 108, kColumn - 4);
            x += kColumn;
        }
        y += kRow;
    }
    refresh();
}

QString QVDReverbPanel::valueText(int index) const
{
    const QLabel* l = m_values[static_cast<std::size_t>(index)];
    return l ? l->text() : QString();
}
