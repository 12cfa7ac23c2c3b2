#include "QVDPluginPixmapHandler.h"

QPixmap QVDPluginPixmapHandler::pluginPixmap(const QString& name) const
{
    return QPixmap(QStringLiteral(":/QVDAudioPlugins/Images/") + name);
}
