// SpawnOutcome.h - what a launch by sp_SpawnApplication learned beyond its status: how the child ended
// and how much of its captured output was not kept; the limit on captured output; two more options,
// passing uncaptured output through and ending the child with the caller.
#pragma once

#include "SupportQtExport.h"

/// Option bits of sp_SpawnApplication beside those of Processes.h.
enum : int {
    /// Each output channel that is neither captured nor closed goes to this process's own standard
    /// output or standard error as the child writes it, instead of being read and dropped; and the
    /// child reads this process's standard input, instead of a pipe that no one writes (on which a
    /// program that reads its input would wait for ever).
    SpawnPassThrough = 128,
    /// The child is ended when this process ends, also when this process is killed: on Linux the child
    /// is sent SIGTERM (the parent-death signal, which the system sends when the thread that started
    /// the child ends, so start such children from a thread that lives as long as the process); on
    /// Windows it is in a job that ends with this process. Elsewhere the bit has no effect.
    SpawnEndWithCaller = 256
};

/// How the child of the last sp_SpawnApplication call on a thread ended, and what of its output was
/// kept.
struct SpawnOutcome {
    /// The child has ended (only known with SpawnWait).
    bool ended = false;
    /// It did not end by exiting: killed by a signal (POSIX), or ended by a crash or a kill (Windows).
    bool crashed = false;
    /// The signal that ended it (POSIX, when crashed); 0 otherwise.
    int signal = 0;
    /// Its exit code as sp_SpawnApplication stores it (the signal number when killed on POSIX).
    unsigned exitCode = 0;
    /// Captured bytes copied into the output stream.
    long long keptBytes = 0;
    /// Captured bytes read beyond the limit and dropped; never copied.
    long long discardedBytes = 0;
};

/// The outcome of the last sp_SpawnApplication call made on the calling thread; all zero before any.
SUPPORTQT_API SpawnOutcome sp_LastSpawnOutcome();

/// The most captured output (both channels together) that one sp_SpawnApplication call on the calling
/// thread copies into its output stream; what the child writes beyond it is read and dropped, so that
/// a child that writes without end cannot exhaust this process's memory. 256 MiB unless set.
SUPPORTQT_API long long sp_SpawnCaptureLimit();
/// Sets the limit for later calls on the calling thread; a value below 0 restores the default.
SUPPORTQT_API void sp_SetSpawnCaptureLimit(long long bytes);
