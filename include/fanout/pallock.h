/* pallock.h - cross-process named semaphores of the portability layer.
 *
 * A semaphore is named by the path of an existing file: every process that
 * initialises a handle with the same path shares one System V semaphore set of
 * one semaphore, which is 1 when free and 0 when held. The first process to
 * initialise a path creates the set with the value 1; later ones only open it.
 * Every take and release is registered for undo, so the system hands the unit
 * back when a process dies while holding it. The set outlives the processes
 * that use it until one of them destroys it with PalDestSem.
 *
 * None of these functions checks its handle argument: passing a null or
 * uninitialised handle is a caller error.
 *
 * Thread safety: any thread may take or release an initialised handle. The
 * semaphore counts units, not owners: threads of one process exclude each
 * other exactly as processes do, and a unit taken by one thread may be
 * released by another. Initialise, close and destroy a handle while no other
 * thread uses it.
 */
#ifndef FANOUT_PALLOCK_H
#define FANOUT_PALLOCK_H

#include "palerror.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* The caller's handle. `handle` points at this process's PalInternalSem; it is
 * null before initialisation (the caller zeroes it). */
typedef struct PalSemHandle {
    void* handle;
} PalSemHandle;

/* The per-process record behind a PalSemHandle, allocated by PalInitSem and
 * freed by PalCloseSem or PalDestSem. */
typedef struct PalInternalSem {
    PalInt32 semid;   /* System V semaphore-set identifier */
    PalInt32 waiters; /* reserved; never set or read */
} PalInternalSem;

/* Creates or opens the semaphore named by `key` (the path of an existing file,
 * used as given) and stores a new internal record in handle->handle. A path
 * that does not exist (or a null key) names one shared fallback semaphore, the
 * same for all such paths. Returns PAL_OK; PAL_ERR_NO_MEMORY (12, 0, 1) when
 * the record cannot be allocated; PAL_WAIT_TIMEOUT (-2, errno, 1) when the
 * system refuses to create, open or initialise the set. On failure
 * handle->handle keeps its previous contents. */
FANOUT_EXPORT PalError PalInitSem(PalSemHandle* handle, const PalChar* key) FANOUT_NOEXCEPT;

/* Takes the semaphore, blocking without time limit while another holder has
 * it. Returns PAL_OK, or PAL_WAIT_TIMEOUT (-2, errno, 1) when the wait fails:
 * the set was removed (EIDRM) or a signal interrupted the wait (EINTR). */
FANOUT_EXPORT PalError PalWaitSem(PalSemHandle* handle) FANOUT_NOEXCEPT;

/* Releases the semaphore. It does not check that the caller holds it: an
 * unmatched release raises the value above 1. Returns PAL_OK, or
 * PAL_WAIT_TIMEOUT (-2, errno, 1) when the system call fails. */
FANOUT_EXPORT PalError PalPostSem(PalSemHandle* handle) FANOUT_NOEXCEPT;

/* Frees this process's internal record; the semaphore set stays in the system
 * for the other processes. handle->handle is not cleared: the caller must not
 * use the handle again. Always PAL_OK. */
FANOUT_EXPORT PalError PalCloseSem(PalSemHandle* handle) FANOUT_NOEXCEPT;

/* Removes the semaphore set from the system and frees the internal record.
 * Processes blocked in PalWaitSem on the set wake with (-2, EIDRM, 1).
 * handle->handle is not cleared. Always PAL_OK. */
FANOUT_EXPORT PalError PalDestSem(PalSemHandle* handle) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALLOCK_H */
