// lock.cpp - cross-process named semaphores on System V semaphore sets.
//
// A semaphore is named by a file: ftok(path, 1) gives the System V key, and
// the set behind the key holds one semaphore, 1 when free and 0 when held.
// Creation is race-free: every process first tries an exclusive create, and
// only the one that succeeds sets the value to 1; the others get EEXIST and
// open the set as it stands (a process that waits in the short moment before
// the creator's SETVAL simply blocks until it has run). Every semop carries
// SEM_UNDO, so the kernel gives the unit back when a holder dies. The store
// reads the failure code of these calls as a wait time-out; it is in fact any
// failing semaphore call, with errno in nativeError.

#include "fanout/pallock.h"
#include "fanout/palmemory.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/types.h>

#include <cerrno>

namespace fanout {
namespace {

// The caller defines semctl's fourth argument on this host.
union SemArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// One uninitialised T from the layer's allocator, or null.
template <class T>
T* Allocate() noexcept {
    return static_cast<T*>(PalMemoryMalloc(static_cast<PalInt32>(sizeof(T))));
}

constexpr int kProjectId = 1;
constexpr int kCreateFlags = IPC_CREAT | IPC_EXCL | 0600;

// One semop on semaphore 0 of `handle`'s set, registered for undo.
PalError Operate(PalSemHandle* handle, short delta) noexcept {
    const auto* record = static_cast<const PalInternalSem*>(handle->handle);
    struct sembuf op {};
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    if (semop(record->semid, &op, 1) == -1) {
        return PalError{PAL_WAIT_TIMEOUT, errno, 1};
    }
    return PalError{PAL_OK, 0, 0};
}

}  // namespace
}  // namespace fanout

extern "C" FANOUT_EXPORT PalError PalInitSem(PalSemHandle* handle, const PalChar* key) noexcept {
    auto* record = fanout::Allocate<PalInternalSem>();
    if (record == nullptr) {
        return PalError{PAL_ERR_NO_MEMORY, 0, 1};
    }
    record->semid = -1;
    record->waiters = 0;

    // The ftok result is not checked: a path that does not exist gives the
    // key -1, which is then used like any other (all such paths share one
    // set). A null key is given the same key without asking ftok.
    const key_t ipcKey = key == nullptr ? static_cast<key_t>(-1) : ftok(key, fanout::kProjectId);

    int nativeError = 0;
    bool ready = false;
    int semid = semget(ipcKey, 1, fanout::kCreateFlags);
    if (semid != -1) {
        // This process created the set: it alone gives it its first value.
        fanout::SemArgument argument{};
        argument.val = 1;
        if (semctl(semid, 0, SETVAL, argument) == -1) {
            // The set stays in the system with the value 0; it is left there
            // rather than removed, since another process may already have
            // opened it.
            nativeError = errno;
        } else {
            ready = true;
        }
    } else if (errno == EEXIST) {
        semid = semget(ipcKey, 1, 0);
        if (semid == -1) {
            nativeError = errno;
        } else {
            ready = true;
        }
    } else {
        nativeError = errno;
    }

    if (!ready) {
        // Deliberately the record is neither freed nor stored on this path
        // and the handle keeps what it held before; callers that retry
        // PalInitSem after a failure lose one small record each time.
        return PalError{PAL_WAIT_TIMEOUT, nativeError, 1};
    }
    record->semid = semid;
    handle->handle = record;
    return PalError{PAL_OK, 0, 0};
}

extern "C" FANOUT_EXPORT PalError PalWaitSem(PalSemHandle* handle) noexcept {
    // No retry on EINTR: an interrupted wait is reported like any other
    // failure, and the store carries on without the lock as it does for a
    // time-out.
    return fanout::Operate(handle, -1);
}

extern "C" FANOUT_EXPORT PalError PalPostSem(PalSemHandle* handle) noexcept {
    return fanout::Operate(handle, +1);
}

extern "C" FANOUT_EXPORT PalError PalCloseSem(PalSemHandle* handle) noexcept {
    PalMemoryFree(handle->handle);
    return PalError{PAL_OK, 0, 0};
}

extern "C" FANOUT_EXPORT PalError PalDestSem(PalSemHandle* handle) noexcept {
    auto* record = static_cast<PalInternalSem*>(handle->handle);
    if (record != nullptr) {
        // Waiters on the set wake with EIDRM; the result is of no use here.
        (void)semctl(record->semid, 0, IPC_RMID);
    }
    PalMemoryFree(record);
    return PalError{PAL_OK, 0, 0};
}
