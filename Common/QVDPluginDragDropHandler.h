#pragma once
#include <QStringList>

class QMimeData;

// The host object that takes media dropped on an editor panel.
class QVDDragDropHost {
public:
    virtual void mediaDropped(const QStringList& items) = 0;

protected:
    ~QVDDragDropHost() = default;
};

// Accepts drops of file lists ("text/uri-list") and of the host's media-pool
// items ("MediaPool/Media") on editor panels and hands them to the host.
class QVDPluginDragDropHandler {
public:
    static constexpr const char* kUriListMime = "text/uri-list";
    static constexpr const char* kMediaPoolMime = "MediaPool/Media";

    void setDragDropHost(QVDDragDropHost* host) { _dragDropHost = host; }
    // [control-thread] Whether the panel should accept this drag.
    bool canAcceptDrop(const QMimeData* mime) const;
    // [control-thread] Hands the dropped items to the host; false when there is
    // nothing to take or no host to take it (a programming error).
    bool handleDrop(const QMimeData* mime);

protected:
    ~QVDPluginDragDropHandler() = default;

private:
    QVDDragDropHost* _dragDropHost = nullptr;
};
