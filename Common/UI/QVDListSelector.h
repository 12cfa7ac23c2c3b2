#pragma once
// A list or switch parameter as a button bound by identifier: shows the
// current choice (with its icon, when given); a click moves to the next
// choice, the wheel and the arrow keys step through them. Every move goes to
// the control-value host.

#include <QPixmap>
#include <QStringList>
#include <QWidget>

#include <vector>

class QVDControlValueHost;

class QVDListSelector : public QWidget {
    Q_OBJECT
public:
    QVDListSelector(QVDControlValueHost* host, const QString& identifier, const QStringList& choices,
                    QWidget* parent);

    QString identifier() const { return m_identifier; }
    // Current choice, 0 .. count - 1.
    int choice() const { return m_choice; }
    QString choiceText() const { return m_choices.value(m_choice); }
    // Icons by choice; missing ones draw the text alone.
    void setIcons(const std::vector<QPixmap>& icons);
    // Moves to a choice (clamped) and tells the host.
    void setChoice(int choice);
    // Re-reads the choice from the host without telling it.
    void refresh();

signals:
    void choiceChanged(int choice);

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent*) override;
    void wheelEvent(QWheelEvent*) override;
    void keyPressEvent(QKeyEvent*) override;

private:
    QVDControlValueHost* m_host;
    QString m_identifier;
    QStringList m_choices;
    std::vector<QPixmap> m_icons;
    int m_choice = 0;
};
