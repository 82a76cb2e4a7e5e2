/* thread.h - mutexes, monitors and one-time initialisation.
 *
 * Thin, error-returning wrappers over POSIX threads. Every call returns a
 * PalError: PAL_OK, PAL_ERR_INVALID_ARGUMENT for a null argument,
 * PAL_ERR_NO_MEMORY, or PAL_ERR_SYSTEM with the pthread error in
 * nativeError. A timed wait that times out returns PAL_WAIT_TIMEOUT with
 * nativeError ETIMEDOUT.
 *
 * Thread safety: the mutexes, monitors and once records are what threads share:
 * locking, waiting, signalling and running a once record are safe from any
 * thread. Creating and destroying a mutex or monitor is not: no other thread
 * may use it then.
 */
#ifndef FANOUT_THREAD_H
#define FANOUT_THREAD_H

#include "palerror.h"

FANOUT_BEGIN_DECLS

typedef struct PalMutexRec* PalMutex;
typedef struct PalMonitorRec* PalMonitor;

/* One-time initialisation state; initialise with PAL_ONCE_INIT. */
typedef struct PalOnce {
    volatile int32_t state;
} PalOnce;
#define PAL_ONCE_INIT \
    { 0 }

/* Creates a mutex into *mutex; destroy with PalMutexDestroy. */
FANOUT_EXPORT PalError PalMutexCreate(PalMutex* mutex);
FANOUT_EXPORT PalError PalMutexLock(PalMutex mutex);
FANOUT_EXPORT PalError PalMutexUnlock(PalMutex mutex);
FANOUT_EXPORT PalError PalMutexDestroy(PalMutex mutex);

/* Creates a monitor (condition) into *monitor; destroy with PalMonitorDestroy. */
FANOUT_EXPORT PalError PalMonitorCreate(PalMonitor* monitor);
/* Waits on the monitor for at most `milliseconds`, releasing `mutex` (which
 * the caller holds) while waiting and holding it again on return. */
FANOUT_EXPORT PalError PalMonitorTimedWait(PalMonitor monitor, PalMutex mutex,
                                           PalInt32 milliseconds);
FANOUT_EXPORT PalError PalMonitorNotifyAll(PalMonitor monitor);
FANOUT_EXPORT PalError PalMonitorDestroy(PalMonitor monitor);

/* Runs init() exactly once per `once` record, however many threads call;
 * callers that arrive while it runs wait for it to finish. */
FANOUT_EXPORT PalError PalThreadOnce(PalOnce* once, void (*init)(void));

FANOUT_END_DECLS

#endif /* FANOUT_THREAD_H */
