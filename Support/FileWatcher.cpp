// FileWatcher.cpp - notifications of changed folders, behind UTF-8 paths.
#include "FileWatcher.h"
#include "QtSupport.h"

#include <QFileInfo>
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
// A property of the Qt watcher: how many of its notifications are being delivered to the client now.
const char* const kDelivering = "supportqtDelivering";
}

YFileWatcher::~YFileWatcher()
{
    FileSystemWatcherImpl* const watcher = m_watcher.data();
    if (!watcher)
        return;
    // A client that deletes itself while it hears of a change deletes the watcher in the middle of its
    // own signal, which Qt goes on delivering: the watcher is then silenced and left to the event loop.
    if (watcher->property(kDelivering).toInt() > 0) {
        watcher->disconnect();
        watcher->deleteLater();
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
        watcher->setProperty(kDelivering, watcher->property(kDelivering).toInt() + 1);
        onDirectoryChanged(toYs(path)); // may delete this client, never the watcher
        watcher->setProperty(kDelivering, watcher->property(kDelivering).toInt() - 1);
    });
}
