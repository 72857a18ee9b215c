// How the operations of condition variables end.

#include <string.h>

#include <limits>

#include "Outcome.h"

namespace
{

const Family cFamily("Condition variables", ".//ConditionalLinux",
                     "The error text is that of `errno`, not that of the error that the POSIX call returned.",
                     {{"-H- Assertion [ aSeconds > 0 ] failed", "the caller passed 0 seconds"},
                      {"-T- Condition wait timed out.", "nobody signalled in time; a throw follows"}});

/// A condition variable and a mutex, shown as "condition" and "mutex". The calling thread holds the mutex.
class Condition
{
public:
    Condition()
    {
        nameObject("condition", &mCondition);
        nameObject("mutex", &mMutex);
        pthread_mutex_lock(&mMutex);
    }
    ~Condition()
    {
        EXPECT_TRUE(isHeld(mMutex));
        pthread_mutex_unlock(&mMutex);
    }

    pthread_cond_t mCondition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
};

/// Plans that the clock reports this time.
void stopClock(time_t aSeconds, long aNanoseconds)
{
    substitute::clock_gettime.instead([aSeconds, aNanoseconds](clockid_t, timespec* apTime) {
        *apTime = {aSeconds, aNanoseconds};
        return 0;
    });
}

OUTCOME(OsInitConditional, Succeeds)
{
    pthread_cond_t lCondition;
    memset(&lCondition, 255, sizeof lCondition);
    nameObject("condition", &lCondition);
    mWhen = "succeeds";
    mTrace = "pthread_cond_init(condition, null) = 0";
    run([&] { OsInitConditional(lCondition); });
    pthread_cond_destroy(&lCondition);
}

OUTCOME_OF_ERRORS(OsInitConditional, ThrowsWhenThePosixCallFails, EAGAIN, ENOMEM, EBUSY, EINVAL, -1)
{
    Condition lGiven;
    substitute::pthread_cond_init.fail(error(), EXDEV);
    mWhen = "`pthread_cond_init` fails";
    mTrace = "pthread_cond_init(condition, null) = ERROR\n" + failure("OQCCondInitFailedEx 337", "EXDEV");
    mStays = "the condition variable is not initialised";
    run([&] { OsInitConditional(lGiven.mCondition); });
}

OUTCOME(OsDestroyConditional, Succeeds)
{
    Condition lGiven;
    mWhen = "succeeds";
    mTrace = "pthread_cond_destroy(condition) = 0";
    run([&] { OsDestroyConditional(lGiven.mCondition); });
}

OUTCOME_OF_ERRORS(OsDestroyConditional, ThrowsWhenThePosixCallFails, EBUSY, EINVAL, -1)
{
    Condition lGiven;
    substitute::pthread_cond_destroy.fail(error(), EXDEV);
    mWhen = "`pthread_cond_destroy` fails";
    mTrace = "pthread_cond_destroy(condition) = ERROR\n" + failure("OQCCondDestroyFailedEx 338", "EXDEV");
    mStays = "the condition variable";
    run([&] { OsDestroyConditional(lGiven.mCondition); });
}

OUTCOME(OsSignal, IsLostWhenNobodyWaits)
{
    Condition lGiven;
    mWhen = "nobody waits";
    mTrace = "pthread_cond_signal(condition) = 0";
    mTells = "the signal is lost";
    run([&] { OsSignal(lGiven.mCondition); });
    const timespec lPast = {1, 0};
    EXPECT_EQ(ETIMEDOUT, pthread_cond_timedwait(&lGiven.mCondition, &lGiven.mMutex, &lPast));
}

OUTCOME_OF_ERRORS(OsSignal, ThrowsWhenThePosixCallFails, EINVAL, -1)
{
    Condition lGiven;
    substitute::pthread_cond_signal.fail(error(), EXDEV);
    mWhen = "`pthread_cond_signal` fails";
    mTrace = "pthread_cond_signal(condition) = ERROR\n" + failure("OQCCondSignalFailedEx 340", "EXDEV");
    mStays = "the condition variable";
    run([&] { OsSignal(lGiven.mCondition); });
}

OUTCOME(OsWait, ReturnsAfterEachWakeUp)
{
    Condition lGiven;
    substitute::pthread_cond_wait.fail(0, EIO);
    mWhen = "succeeds, also when nobody has signalled (a spurious wake-up)";
    mTrace = "pthread_cond_wait(condition, mutex) = 0";
    mStays = "the caller holds the mutex";
    run([&] { OsWait(lGiven.mCondition, lGiven.mMutex); });
}

OUTCOME_OF_ERRORS(OsWait, ThrowsWhenThePosixCallFails, EINVAL, EPERM, ENOTRECOVERABLE, EOWNERDEAD, ETIMEDOUT, -1)
{
    Condition lGiven;
    substitute::pthread_cond_wait.fail(error(), EXDEV);
    mWhen = "`pthread_cond_wait` fails, also with `ETIMEDOUT`";
    mTrace = "pthread_cond_wait(condition, mutex) = ERROR\n" + failure("OQCCondWaitFailedEx 339", "EXDEV");
    mStays = "the mutex as the POSIX call left it";
    run([&] { OsWait(lGiven.mCondition, lGiven.mMutex); });
}

OUTCOME(OsConditionalTimedWait, ReturnsAfterEachWakeUp)
{
    Condition lGiven;
    stopClock(1000000000, 999999999);
    substitute::pthread_cond_timedwait.fail(0, ETIMEDOUT);
    mWhen = "succeeds, also when nobody has signalled (a spurious wake-up)";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = 0
        pthread_cond_timedwait(condition, mutex, 1000000007.999999999) = 0
    )";
    mStays = "the caller holds the mutex";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 7); });
}

OUTCOME(OsConditionalTimedWait, EndsTheProcessWhenTheSecondsAreZero)
{
    Condition lGiven;
    watchObject("condition", &lGiven.mCondition, sizeof lGiven.mCondition);
    watchObject("mutex", &lGiven.mMutex, sizeof lGiven.mMutex);
    mWhen = "0 seconds; only the clock has been read";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = 0
        -H- "Assertion [ %s ] failed\n" "aSeconds > 0"
        exit status 1
    )";
    mStays = "condition variable and mutex";
    runInChild([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 0); });
}

OUTCOME(OsConditionalTimedWait, ThrowsATimeOutWhenTheTimeIsOver)
{
    Condition lGiven;
    stopClock(1000000000, 999999999);  // a deadline in the past, so the real wait returns at once
    mWhen = "the time is over (`ETIMEDOUT`)";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = 0
        pthread_cond_timedwait(condition, mutex, 1000000001.999999999) = ETIMEDOUT
        -T- "Condition wait timed out."
        ClibStrerror(local, 512) = "EXDEV #1"
        throws OQCTimeOutEx 323 "EXDEV #1"
    )";
    mStays = "the caller holds the mutex";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 1); });
}

OUTCOME_OF_ERRORS(OsConditionalTimedWait, ThrowsWhenThePosixCallFails, EINVAL, EPERM, EINTR, ENOTRECOVERABLE,
                  EOWNERDEAD, -1)
{
    Condition lGiven;
    stopClock(100, 1);
    substitute::pthread_cond_timedwait.fail(error(), ETIMEDOUT);  // the operation evaluates the result, not errno
    mWhen = "`pthread_cond_timedwait` fails in another way";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = 0
        pthread_cond_timedwait(condition, mutex, 103.000000001) = ERROR
        ClibStrerror(local, 512) = "ETIMEDOUT #1"
        throws OQCCondWaitFailedEx 339 "ETIMEDOUT #1"
    )";
    mStays = "the mutex as the POSIX call left it";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 3); });
}

OUTCOME(OsConditionalTimedWait, ThrowsWhenTheClockReportsAnInvalidTime)
{
    Condition lGiven;
    stopClock(200, 1000000000);
    mWhen = "the clock reports nanoseconds that are not valid (`EINVAL`)";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = 0
        pthread_cond_timedwait(condition, mutex, 201.1000000000) = EINVAL
        ClibStrerror(local, 512) = "EXDEV #1"
        throws OQCCondWaitFailedEx 339 "EXDEV #1"
    )";
    mStays = "the caller holds the mutex";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 1); });
}

OUTCOME(OsConditionalTimedWait, DoesNotNoticeThatTheClockCannotBeRead)
{
    Condition lGiven;
    substitute::clock_gettime.instead([](clockid_t, timespec* apTime) {
        *apTime = {200, 3};
        errno = EINVAL;
        return -1;
    });
    substitute::pthread_cond_timedwait.fail(0, 0);
    mWhen = "the clock cannot be read";
    mTrace = R"(
        clock_gettime(CLOCK_REALTIME, local) = -1 EINVAL
        pthread_cond_timedwait(condition, mutex, 201.000000003) = 0
    )";
    mTells = "the result of the clock is not checked";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, 1); });
}

OUTCOME(OsConditionalTimedWait, AddsTheSecondsWithoutARangeCheck)
{
    Condition lGiven;
    const unsigned int cSeconds = 4294967295U;
    const time_t cLast = std::numeric_limits<time_t>::max();
    stopClock(cLast, 5);
    substitute::pthread_cond_timedwait.fail(0, 0);
    mWhen = "the sum of clock and seconds leaves the range of the seconds";
    mTrace =
        "clock_gettime(CLOCK_REALTIME, local) = 0\n"
        "pthread_cond_timedwait(condition, mutex, " +
        std::to_string(static_cast<time_t>(static_cast<unsigned long long>(cLast) + cSeconds)) + ".000000005) = 0";
    mTells = "the sum is not checked";
    run([&] { OsConditionalTimedWait(lGiven.mCondition, lGiven.mMutex, cSeconds); });
}

}  // namespace
