// Timers.h - numbered timers for modules without Qt objects: a callback object per timer, named by a
// plain integer id. Timers fire while the creating thread runs its event loop. Every function here is
// for one thread, the user-interface thread: the list of timers has no lock. No Qt types appear here.
#pragma once

#include "SupportQtExport.h"

/// The callback of a timer; the timer owns it and deletes it.
class SUPPORTQT_API TimerObject {
public:
    virtual ~TimerObject();
    virtual void onTimer(int timerId) = 0;
};

/// Creates a timer (ids count from 1 and are never reused) that owns `data`; starts it when `interval`
/// is above 0.
SUPPORTQT_API int sp_CreateTimer(int interval, bool singleShot, TimerObject* data);
/// Starts one more period beside any that run already (so two starts double the rate); false for an
/// unknown id, and for a negative interval, which starts nothing and leaves the timer as it was.
[[nodiscard]] SUPPORTQT_API bool sp_StartTimer(int id, int interval);
/// Stops every period of the timer; it stays registered. False for an unknown id.
[[nodiscard]] SUPPORTQT_API bool sp_KillTimer(int id);
/// The interval last started (0 when stopped), or -1 for an unknown id.
SUPPORTQT_API int sp_GetTimerInterval(int id);
/// The timer's callback object, or null; the timer keeps owning it.
SUPPORTQT_API TimerObject* sp_GetTimerData(int id);
/// Removes the timer and deletes its callback object; false for an unknown id.
[[nodiscard]] SUPPORTQT_API bool sp_DeleteTimer(int id);
