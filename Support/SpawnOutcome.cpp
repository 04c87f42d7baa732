// SpawnOutcome.cpp - the per-thread record of the last launch and the per-thread capture limit.
#include "SpawnOutcome.h"
#include "Processes_p.h"

namespace {

const long long kDefaultCaptureLimit = 256LL << 20;

// Per thread, since each thread's launches wait on that thread's own event loop.
thread_local SpawnOutcome t_lastOutcome;
thread_local long long t_captureLimit = kDefaultCaptureLimit;

} // namespace

void processes::setLastOutcome(const SpawnOutcome& outcome) { t_lastOutcome = outcome; }

SpawnOutcome sp_LastSpawnOutcome() { return t_lastOutcome; }

long long sp_SpawnCaptureLimit() { return t_captureLimit; }

void sp_SetSpawnCaptureLimit(long long bytes) { t_captureLimit = bytes < 0 ? kDefaultCaptureLimit : bytes; }
