// LoadTime_p.h - the library's process-wide state created at load, in start-up order.
#pragma once

#include <QList>
#include <QSet>
#include <QSharedPointer>

class QLibrary;
class GenericTimer;

namespace SupportQtLoadTime {
/// The second simulator's help context ids, filled at load from the table compiled into the library.
const QSet<int>& helpContextIds();
/// Owned library objects in load order; every one is destroyed at unload.
QList<QLibrary*>& loadedModules();
/// Live timers in creation order; released at unload.
QList<QSharedPointer<GenericTimer>>& liveTimers();
} // namespace SupportQtLoadTime
