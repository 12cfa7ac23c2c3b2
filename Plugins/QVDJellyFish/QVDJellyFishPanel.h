#pragma once
#include <UI/QVDPanel.h>

#include <vector>

class QVDJellyFish;

// The loudspeakers of the layout on a circle seen from above (front up, left
// to the left), each lit by its level, and the energy vector from the centre:
// pointing where the energy comes from, as long as the image is narrow.
class QVDDirectionView : public QWidget {
    Q_OBJECT
public:
    explicit QVDDirectionView(QWidget* parent);
    // Roles and levels (dB) per channel; direction in degrees, left positive.
    void setState(std::vector<double> roles, std::vector<double> levels, double direction, double spread);
    // Where an angle at a fraction of the radius lands in the widget.
    QPointF pointAt(double degrees, double fraction) const;

protected:
    void paintEvent(QPaintEvent*) override;

private:
    std::vector<double> m_roles, m_levels;
    double m_direction = 0.0, m_spread = 1.0;
};

// 568 x 416 editor: the direction view, the readings beside it, the
// integration knob and the loudness reset.
class QVDJellyFishPanel : public QVDPanel {
    Q_OBJECT
public:
    QVDJellyFishPanel(QVDJellyFish* plugin, QWidget* parent);
    QVDDirectionView* view() const { return m_view; }
    void refresh() override;

private:
    QVDJellyFish* m_plugin;
    QVDDirectionView* m_view = nullptr;
    QWidget* m_readings = nullptr;
    QString m_text;
};
