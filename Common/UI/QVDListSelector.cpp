#include "QVDListSelector.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

#include "../QVDControlValueHost.h"
#include "../QVDParameter.h"
#include "QVDStyle.h"

QVDListSelector::QVDListSelector(QVDControlValueHost* host, const QString& identifier, const QStringList& choices,
                                 QWidget* parent)
    : QWidget(parent), m_host(host), m_identifier(identifier), m_choices(choices)
{
    setFixedSize(96, 26);
    setFocusPolicy(Qt::StrongFocus);
    setObjectName(identifier);
    refresh();
}

void QVDListSelector::setIcons(const std::vector<QPixmap>& icons)
{
    m_icons = icons;
    update();
}

void QVDListSelector::setChoice(int choice)
{
    const int c = std::clamp(choice, 0, std::max(0, static_cast<int>(m_choices.size()) - 1));
    if (c == m_choice)
        return;
    m_choice = c;
    if (m_host)
        m_host->controlValueChanged(m_identifier, static_cast<float>(c));
    update();
    emit choiceChanged(c);
}

void QVDListSelector::refresh()
{
    if (!m_host)
        return;
    const float v = m_host->controlValue(m_identifier);
    const int last = std::max(0, static_cast<int>(m_choices.size()) - 1);
    // Clamped before the conversion: any float is a valid value to show.
    const int c = std::isnan(v) ? 0 : qvdListIndex(std::clamp(v, 0.0f, static_cast<float>(last)));
    if (c != m_choice) {
        m_choice = c;
        update();
    }
}

void QVDListSelector::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(hasFocus() ? QVDStyle::accent() : QVDStyle::panel().lighter(150), 1));
    p.setBrush(QVDStyle::panel().lighter(120));
    p.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 4, 4);
    int textLeft = 6;
    if (m_choice < static_cast<int>(m_icons.size()) && !m_icons[static_cast<std::size_t>(m_choice)].isNull()) {
        const QPixmap& icon = m_icons[static_cast<std::size_t>(m_choice)];
        p.drawPixmap(QPointF(3, (height() - icon.height()) / 2.0), icon);
        textLeft = icon.width() + 6;
    }
    p.setFont(QVDStyle::valueFont());
    p.setPen(QVDStyle::text());
    p.drawText(QRect(textLeft, 0, width() - textLeft - 4, height()), Qt::AlignLeft | Qt::AlignVCenter, choiceText());
}

void QVDListSelector::mousePressEvent(QMouseEvent* e)
{
    setFocus();
    if (e->button() != Qt::LeftButton || m_choices.isEmpty())
        return;
    setChoice((m_choice + 1) % static_cast<int>(m_choices.size()));
}

void QVDListSelector::wheelEvent(QWheelEvent* e)
{
    const int notches = e->angleDelta().y() / 120;
    if (notches != 0)
        setChoice(m_choice + notches);
    e->accept();
}

void QVDListSelector::keyPressEvent(QKeyEvent* e)
{
    switch (e->key()) {
    case Qt::Key_Up:
    case Qt::Key_Right:
        setChoice(m_choice + 1);
        break;
    case Qt::Key_Down:
    case Qt::Key_Left:
        setChoice(m_choice - 1);
        break;
    default:
        QWidget::keyPressEvent(e);
    }
}
