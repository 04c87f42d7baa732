// FileWatcher.cpp - notifications of changed folders, behind UTF-8 paths.
#include "FileWatcher.h"
#include "QtSupport.h"

#include <QFileInfo>

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

YFileWatcher::~YFileWatcher()
{
    delete m_watcher.data();
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
    QObject::connect(m_watcher.data(), &QFileSystemWatcher::directoryChanged, m_watcher.data(),
                     [this](const QString& path) { onDirectoryChanged(toYs(path)); });
}
