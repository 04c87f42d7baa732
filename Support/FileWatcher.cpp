// FileWatcher.cpp - notifications of changed folders, behind UTF-8 paths.
#include "FileWatcher.h"
#include "QtSupport.h"

#include <QFileInfo>
#include <QPointer>
#include <QVariant>

YFileWatcher::YFileWatcher() : m_watcher(new FileSystemWatcherImpl)
{
    connectWatcher();
}

YFileWatcher::YFileWatcher(const YString& path) : m_watcher(new FileSystemWatcherImpl)
{
    addPath(path);
    connectWatcher();
}

YFileWatcher::YFileWatcher(const YFileWatcher& other) : m_watcher(other.m_watcher) {}

namespace {
// Properties of the Qt watcher: how many of its notifications are being delivered to the client now,
// and whether its client has gone meanwhile.
const char* const kDelivering = "supportqtDelivering";
const char* const kOrphaned = "supportqtOrphaned";
}

YFileWatcher::~YFileWatcher()
{
    FileSystemWatcherImpl* const watcher = m_watcher.data();
    if (!watcher)
        return;
    // A client that deletes itself while it hears of a change, perhaps from an event loop of its own
    // that it runs meanwhile, deletes the watcher in the middle of its own signal, which Qt goes on
    // delivering: the watcher is then silenced, and deleted once the outermost delivery has returned.
    if (watcher->property(kDelivering).toInt() > 0) {
        watcher->disconnect();
        watcher->setProperty(kOrphaned, true);
    } else {
        delete watcher;
    }
}

void YFileWatcher::addPath(const YString& path)
{
    // A path that does not exist is ignored here, before Qt's watcher would warn about it on standard
    // error.
    if (m_watcher && !path.isEmpty() && QFileInfo::exists(toQs(path)))
        m_watcher->addPath(toQs(path));
}

void YFileWatcher::connectWatcher()
{
    FileSystemWatcherImpl* const watcher = m_watcher.data();
    QObject::connect(watcher, &QFileSystemWatcher::directoryChanged, watcher, [this, watcher](const QString& path) {
        const QPointer<FileSystemWatcherImpl> alive(watcher);
        watcher->setProperty(kDelivering, watcher->property(kDelivering).toInt() + 1);
        onDirectoryChanged(toYs(path)); // may delete this client, never the watcher
        if (!alive)
            return;
        const int delivering = watcher->property(kDelivering).toInt() - 1;
        watcher->setProperty(kDelivering, delivering);
        // The deletion waits for the event loop this delivery came from, when Qt's own delivery of the
        // signal has returned too.
        if (delivering == 0 && watcher->property(kOrphaned).toBool())
            watcher->deleteLater();
    });
}
