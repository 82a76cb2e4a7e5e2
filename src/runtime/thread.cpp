// thread.cpp - mutexes, monitors and one-time initialisation over pthreads.
//
// These belong to the portability layer: every call returns a PalError and
// none raises. A monitor is a condition variable on the monotonic clock, so a
// timed wait is not stretched or cut short when the wall clock is set.

#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <new>
#include <pthread.h>

#include "fanout/thread.h"

struct PalMutexRec {
    pthread_mutex_t mutex;
};

struct PalMonitorRec {
    pthread_cond_t cond;
};

namespace fanout {

namespace {

PalError make_error(int32_t code, int32_t native, int32_t where) {
    PalError e;
    e.palError = code;
    e.nativeError = native;
    e.traceLocation = where;
    return e;
}
PalError ok() {
    return make_error(PAL_OK, 0, 0);
}
PalError invalid(int32_t where) {
    return make_error(PAL_ERR_INVALID_ARGUMENT, 0, where);
}
PalError system_error(int rc, int32_t where) {
    return make_error(PAL_ERR_SYSTEM, rc, where);
}

// States of a PalOnce.
constexpr int32_t kOnceIdle = 0;
constexpr int32_t kOnceRunning = 1;
constexpr int32_t kOnceDone = 2;

// Callers that find an initialisation running wait here for it to end.
std::mutex g_once_mutex;
std::condition_variable g_once_done;

}  // namespace

}  // namespace fanout

extern "C" {

FANOUT_EXPORT PalError PalMutexCreate(PalMutex* mutex) {
    if (mutex == nullptr) return fanout::invalid(1);
    *mutex = nullptr;
    auto* rec = new (std::nothrow) PalMutexRec;
    if (rec == nullptr) return fanout::make_error(PAL_ERR_NO_MEMORY, ENOMEM, 2);
    int rc = pthread_mutex_init(&rec->mutex, nullptr);
    if (rc != 0) {
        delete rec;
        return fanout::system_error(rc, 3);
    }
    *mutex = rec;
    return fanout::ok();
}

FANOUT_EXPORT PalError PalMutexLock(PalMutex mutex) {
    if (mutex == nullptr) return fanout::invalid(1);
    int rc = pthread_mutex_lock(&mutex->mutex);
    return rc == 0 ? fanout::ok() : fanout::system_error(rc, 2);
}

FANOUT_EXPORT PalError PalMutexUnlock(PalMutex mutex) {
    if (mutex == nullptr) return fanout::invalid(1);
    int rc = pthread_mutex_unlock(&mutex->mutex);
    return rc == 0 ? fanout::ok() : fanout::system_error(rc, 2);
}

FANOUT_EXPORT PalError PalMutexDestroy(PalMutex mutex) {
    if (mutex == nullptr) return fanout::invalid(1);
    int rc = pthread_mutex_destroy(&mutex->mutex);
    if (rc != 0) return fanout::system_error(rc, 2);  // still locked: kept
    delete mutex;
    return fanout::ok();
}

FANOUT_EXPORT PalError PalMonitorCreate(PalMonitor* monitor) {
    if (monitor == nullptr) return fanout::invalid(1);
    *monitor = nullptr;
    auto* rec = new (std::nothrow) PalMonitorRec;
    if (rec == nullptr) return fanout::make_error(PAL_ERR_NO_MEMORY, ENOMEM, 2);
    pthread_condattr_t attr;
    int rc = pthread_condattr_init(&attr);
    if (rc == 0) {
        rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        if (rc == 0) rc = pthread_cond_init(&rec->cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    if (rc != 0) {
        delete rec;
        return fanout::system_error(rc, 3);
    }
    *monitor = rec;
    return fanout::ok();
}

// A negative time waits without limit. Like any condition wait it may return
// early without a notification; callers wait in a loop on their own flag.
FANOUT_EXPORT PalError PalMonitorTimedWait(PalMonitor monitor, PalMutex mutex,
                                           PalInt32 milliseconds) {
    if (monitor == nullptr || mutex == nullptr) return fanout::invalid(1);
    int rc;
    if (milliseconds < 0) {
        rc = pthread_cond_wait(&monitor->cond, &mutex->mutex);
    } else {
        struct timespec deadline {};
        clock_gettime(CLOCK_MONOTONIC, &deadline);
        deadline.tv_sec += milliseconds / 1000;
        deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
        rc = pthread_cond_timedwait(&monitor->cond, &mutex->mutex, &deadline);
    }
    if (rc == 0) return fanout::ok();
    if (rc == ETIMEDOUT) return fanout::make_error(PAL_WAIT_TIMEOUT, ETIMEDOUT, 2);
    return fanout::system_error(rc, 3);
}

FANOUT_EXPORT PalError PalMonitorNotifyAll(PalMonitor monitor) {
    if (monitor == nullptr) return fanout::invalid(1);
    int rc = pthread_cond_broadcast(&monitor->cond);
    return rc == 0 ? fanout::ok() : fanout::system_error(rc, 2);
}

FANOUT_EXPORT PalError PalMonitorDestroy(PalMonitor monitor) {
    if (monitor == nullptr) return fanout::invalid(1);
    int rc = pthread_cond_destroy(&monitor->cond);
    if (rc != 0) return fanout::system_error(rc, 2);
    delete monitor;
    return fanout::ok();
}

// The state word moves idle -> running -> done. If init raises, the state
// goes back to idle (a later call tries again) and the error is reported.
FANOUT_EXPORT PalError PalThreadOnce(PalOnce* once, void (*init)(void)) {
    if (once == nullptr || init == nullptr) return fanout::invalid(1);
    volatile int32_t* word = &once->state;
    if (__atomic_load_n(word, __ATOMIC_ACQUIRE) == fanout::kOnceDone) return fanout::ok();
    {
        std::unique_lock<std::mutex> lock(fanout::g_once_mutex);
        for (;;) {
            int32_t current = __atomic_load_n(word, __ATOMIC_ACQUIRE);
            if (current == fanout::kOnceDone) return fanout::ok();
            if (current == fanout::kOnceIdle) break;
            fanout::g_once_done.wait(lock);
        }
        __atomic_store_n(word, fanout::kOnceRunning, __ATOMIC_RELEASE);
    }
    bool failed = false;
    try {
        init();
    } catch (...) {
        failed = true;
    }
    {
        std::lock_guard<std::mutex> lock(fanout::g_once_mutex);
        __atomic_store_n(word, failed ? fanout::kOnceIdle : fanout::kOnceDone, __ATOMIC_RELEASE);
    }
    fanout::g_once_done.notify_all();
    return failed ? fanout::system_error(0, 2) : fanout::ok();
}

}  // extern "C"
