#pragma once
// Shared look of editor panels: colours, fonts, and the two controls every
// panel uses (a level meter and a parameter knob).

#include <QColor>
#include <QFont>
#include <QString>
#include <QWidget>

#include <vector>

class QVDControlValueHost;

namespace QVDStyle {
QColor background();
QColor panel();
QColor text();
QColor accent();
QColor meterLow();
QColor meterHigh();
QColor meterClip();
QFont captionFont();
QFont valueFont();
// Lowest level a meter shows, in dB.
constexpr double kMeterFloorDb = -60.0;
// 0 at the floor, 1 at full scale.
double meterPosition(double db);
} // namespace QVDStyle

// A caption in the panel style.
class QVDCaption : public QWidget {
    Q_OBJECT
public:
    QVDCaption(const QString& text, QWidget* parent);
    QString text() const { return m_text; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    QString m_text;
};

// Vertical peak meter with one bar per channel, fed with levels in dB.
class QVDMeterWidget : public QWidget {
    Q_OBJECT
public:
    explicit QVDMeterWidget(QWidget* parent);
    void setLevels(const std::vector<double>& db);
    const std::vector<double>& levels() const { return m_levels; }

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_levels;
};

// Rotary knob bound to one parameter by identifier. Dragging up or down,
// the wheel and the arrow keys move it by the parameter's step; a double
// click returns it to the default. Every move goes to the control-value host.
class QVDKnob : public QWidget {
    Q_OBJECT
public:
    QVDKnob(QVDControlValueHost* host, const QString& identifier, float minimum, float maximum, float step,
            float defaultValue, const QString& unit, QWidget* parent);

    QString identifier() const { return m_identifier; }
    float value() const { return m_value; }
    // Moves the knob and tells the host, clamped to the range and snapped to the step.
    void setValue(float value);
    // Re-reads the value from the host without telling it.
    void refresh();

signals:
    void valueChanged(float value);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void mouseMoveEvent(QMouseEvent*) override;
    void mouseDoubleClickEvent(QMouseEvent*) override;
    void wheelEvent(QWheelEvent*) override;
    void keyPressEvent(QKeyEvent*) override;

private:
    float snapped(float value) const;

    QVDControlValueHost* m_host;
    QString m_identifier;
    float m_minimum, m_maximum, m_step, m_default;
    QString m_unit;
    float m_value;
    int m_dragY = 0;
    float m_dragValue = 0.0f;
};
