#include "QVDShapeIcons.h"

#include <QPainter>
#include <QPainterPath>

#include "QVDStyle.h"

namespace QVDShapeIcons {

QString resourcePath(int shapeCode)
{
    switch (shapeCode) {
    case 0: return QStringLiteral(":/Audio/Equalizer/EQLowShelf");
    case 1: return QStringLiteral(":/Audio/Equalizer/EQHighShelf");
    case 2: return QStringLiteral(":/Audio/Equalizer/EQBell");
    case 3: return QStringLiteral(":/Audio/Equalizer/EQNotch");
    case 4: return QStringLiteral(":/Audio/Equalizer/EQLowPass");
    case 5: return QStringLiteral(":/Audio/Equalizer/EQHighPass");
    default: return QString();
    }
}

QPixmap pixmap(int shapeCode, int size)
{
    const QString resource = resourcePath(shapeCode);
    if (resource.isEmpty())
        return QPixmap();
    QPixmap image(resource);
    if (!image.isNull())
        return image.scaled(size, size, Qt::KeepAspectRatio, Qt::SmoothTransformation);

    QPixmap icon(size, size);
    icon.fill(Qt::transparent);
    QPainter p(&icon);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(QVDStyle::text(), size / 12.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    // Drawn on a unit square, y up from the middle line.
    const double s = size;
    auto pt = [s](double x, double y) { return QPointF(0.1 * s + 0.8 * s * x, 0.5 * s - 0.35 * s * y); };
    QPainterPath path;
    switch (shapeCode) {
    case 0: // low shelf
        path.moveTo(pt(0, 0.8));
        path.lineTo(pt(0.3, 0.8));
        path.cubicTo(pt(0.45, 0.8), pt(0.45, -0.2), pt(0.6, -0.2));
        path.lineTo(pt(1, -0.2));
        break;
    case 1: // high shelf
        path.moveTo(pt(0, -0.2));
        path.lineTo(pt(0.4, -0.2));
        path.cubicTo(pt(0.55, -0.2), pt(0.55, 0.8), pt(0.7, 0.8));
        path.lineTo(pt(1, 0.8));
        break;
    case 2: // bell
        path.moveTo(pt(0, -0.2));
        path.cubicTo(pt(0.35, -0.2), pt(0.4, 0.9), pt(0.5, 0.9));
        path.cubicTo(pt(0.6, 0.9), pt(0.65, -0.2), pt(1, -0.2));
        break;
    case 3: // notch
        path.moveTo(pt(0, 0.5));
        path.cubicTo(pt(0.4, 0.5), pt(0.45, -1.0), pt(0.5, -1.0));
        path.cubicTo(pt(0.55, -1.0), pt(0.6, 0.5), pt(1, 0.5));
        break;
    case 4: // low-pass
        path.moveTo(pt(0, 0.4));
        path.lineTo(pt(0.5, 0.4));
        path.cubicTo(pt(0.7, 0.4), pt(0.75, -0.4), pt(0.9, -1.0));
        break;
    default: // high-pass
        path.moveTo(pt(0.1, -1.0));
        path.cubicTo(pt(0.25, -0.4), pt(0.3, 0.4), pt(0.5, 0.4));
        path.lineTo(pt(1, 0.4));
        break;
    }
    p.drawPath(path);
    return icon;
}

} // namespace QVDShapeIcons
