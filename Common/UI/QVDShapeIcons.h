#pragma once
// Icons of filter shapes for editor panels, by curve-view shape code:
// 0 low shelf, 1 high shelf, 2 bell, 3 notch, 4 low-pass, 5 high-pass.
// The bundle's images (":/Audio/Equalizer/EQLowShelf" ...) are used when the
// library carries them; otherwise the shape is drawn.

#include <QPixmap>
#include <QString>

namespace QVDShapeIcons {
// Resource path of a shape's image; empty for an unknown code.
QString resourcePath(int shapeCode);
// The icon at `size` pixels square; a null pixmap for an unknown code.
QPixmap pixmap(int shapeCode, int size = 24);
} // namespace QVDShapeIcons
