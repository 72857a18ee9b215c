// Condition variables: one POSIX call each. Only the time-out and the assertion of the timed wait are logged.

#define OQ_LOG_FILE ".//ConditionalLinux"

#include <errno.h>
#include <time.h>

#include "LinuxInternal.h"

void OsInitConditional(pthread_cond_t& arCondition)
{
    if (0 != pthread_cond_init(&arCondition, NULL)) {
        throwOsError<OQCCondInitFailedEx>();
    }
}

void OsDestroyConditional(pthread_cond_t& arCondition)
{
    if (0 != pthread_cond_destroy(&arCondition)) {
        throwOsError<OQCCondDestroyFailedEx>();
    }
}

void OsSignal(pthread_cond_t& arCondition)
{
    if (0 != pthread_cond_signal(&arCondition)) {
        throwOsError<OQCCondSignalFailedEx>();
    }
}

// Not exported. Only this function throws OQCCondBroadcastFailedEx. The test includes this source file to reach it.
[[maybe_unused]] static void OsBroadcast(pthread_cond_t& arCondition)
{
    if (0 != pthread_cond_broadcast(&arCondition)) {
        throwOsError<OQCCondBroadcastFailedEx>();
    }
}

void OsWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex)
{
    if (0 != pthread_cond_wait(&arCondition, &arMutex)) {
        throwOsError<OQCCondWaitFailedEx>();
    }
}

// The deadline keeps the clock's nanoseconds: the timeout is in whole seconds, so no carry is needed. The sum is not
// checked against the range of time_t.
void OsConditionalTimedWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex, unsigned int aSeconds)
{
    timespec lDeadline;
    clock_gettime(CLOCK_REALTIME, &lDeadline);
    OQ_ASSERT(aSeconds > 0);
    // Adds in the width of time_t, which may exceed that of long. On overflow the builtin wraps; "+" would be
    // undefined.
    static_cast<void>(__builtin_add_overflow(lDeadline.tv_sec, aSeconds, &lDeadline.tv_sec));
    const int lResult = pthread_cond_timedwait(&arCondition, &arMutex, &lDeadline);
    if (ETIMEDOUT == lResult) {
        OQ_TRACE("Condition wait timed out.");
        throwOsError<OQCTimeOutEx>();
    }
    if (0 != lResult) {
        throwOsError<OQCCondWaitFailedEx>();
    }
}
