#pragma once
#include <QPixmap>
#include <QString>

// Supplies images for editor panels from the library's compiled-in resources.
class QVDPluginPixmapHandler {
public:
    // [control-thread] The image at ":/QVDAudioPlugins/Images/<name>"; null pixmap when absent.
    virtual QPixmap pluginPixmap(const QString& name) const;

protected:
    ~QVDPluginPixmapHandler() = default;
};
