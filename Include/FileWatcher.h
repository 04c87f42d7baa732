// FileWatcher.h - notifications of changed folders, behind UTF-8 paths.
#pragma once

#include "SupportQtExport.h"
#include "YString.h"

#include <QFileSystemWatcher>
#include <QPointer>

/// Qt's file-system watcher under a class of its own, so that the watcher has a distinct run-time class.
class SUPPORTQT_API FileSystemWatcherImpl : public QFileSystemWatcher {
    Q_OBJECT
public:
    FileSystemWatcherImpl() = default;
};

/// Base of a client that hears when watched folders change: derive, implement `onDirectoryChanged`, and
/// add the folders. Notifications come through the event loop of the thread that created the watcher.
/// Changes to a watched file (not a folder) produce no call.
///
/// A copy shares the original's Qt watcher, and each of them deletes it when destroyed (the second
/// finds it gone); the original hears nothing after its copy is destroyed. Do not copy watchers.
class SUPPORTQT_API YFileWatcher {
public:
    YFileWatcher();
    /// Watches `path` from the start; an empty or missing path is ignored, as by `addPath`.
    explicit YFileWatcher(const YString& path);
    YFileWatcher(const YFileWatcher& other);
    YFileWatcher& operator=(const YFileWatcher&) = delete;
    virtual ~YFileWatcher();

    /// Called with the UTF-8 path of a watched folder whose contents changed.
    virtual void onDirectoryChanged(const YString& path) = 0;
    /// Adds a path to watch; a path that cannot be watched (a missing one) is ignored.
    void addPath(const YString& path);

private:
    void connectWatcher();

    QPointer<FileSystemWatcherImpl> m_watcher;
};
