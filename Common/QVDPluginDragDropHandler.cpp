#include "QVDPluginDragDropHandler.h"

#include <QMimeData>
#include <QUrl>

#include <System/twa_assert.h>

bool QVDPluginDragDropHandler::canAcceptDrop(const QMimeData* mime) const
{
    return mime && (mime->hasFormat(QLatin1String(kUriListMime)) || mime->hasFormat(QLatin1String(kMediaPoolMime)));
}

bool QVDPluginDragDropHandler::handleDrop(const QMimeData* mime)
{
    if (!canAcceptDrop(mime))
        return false;
    QVD_ASSERT(0 != _dragDropHost);
    if (!_dragDropHost)
        return false;
    QStringList items;
    if (mime->hasFormat(QLatin1String(kUriListMime))) {
        for (const QUrl& url : mime->urls())
            items << (url.isLocalFile() ? url.toLocalFile() : url.toString());
    } else {
        const QString text = QString::fromUtf8(mime->data(QLatin1String(kMediaPoolMime)));
        items = text.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }
    _dragDropHost->mediaDropped(items);
    return true;
}
