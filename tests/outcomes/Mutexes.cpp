// How the operations of mutexes end.

#include <string.h>
#include <sys/time.h>

#include "Outcome.h"

namespace
{

const Family cFamily("Mutexes", ".//MutexLinux",
                     "These operations log nothing. The error text is that of `errno`, not that of the error that the "
                     "POSIX call returned.",
                     {});

/// A mutex that is shown as "mutex".
class Mutex
{
public:
    Mutex() { nameObject("mutex", &mMutex); }
    operator pthread_mutex_t&() { return mMutex; }

private:
    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
};

OUTCOME(OsInitMutex, Succeeds)
{
    pthread_mutex_t lMutex;
    memset(&lMutex, 255, sizeof lMutex);
    nameObject("mutex", &lMutex);
    mWhen = "succeeds";
    mTrace = "pthread_mutex_init(mutex, null) = 0";
    run([&] { OsInitMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
    pthread_mutex_destroy(&lMutex);
}

OUTCOME_OF_ERRORS(OsInitMutex, ThrowsWhenThePosixCallFails, EAGAIN, ENOMEM, EPERM, EBUSY, EINVAL, -1)
{
    Mutex lMutex;
    substitute::pthread_mutex_init.fail(error(), EXDEV);
    mWhen = "`pthread_mutex_init` fails";
    mTrace = "pthread_mutex_init(mutex, null) = ERROR\n" + failure("OQCMutexInitFailedEx 333", "EXDEV");
    mStays = "the mutex is not initialised";
    run([&] { OsInitMutex(lMutex); });
}

OUTCOME(OsDestroyMutex, Succeeds)
{
    Mutex lMutex;
    mWhen = "succeeds";
    mTrace = "pthread_mutex_destroy(mutex) = 0";
    run([&] { OsDestroyMutex(lMutex); });
}

OUTCOME_OF_ERRORS(OsDestroyMutex, ThrowsWhenThePosixCallFails, EBUSY, EINVAL, -1)
{
    Mutex lMutex;
    substitute::pthread_mutex_destroy.fail(error(), EXDEV);
    mWhen = "`pthread_mutex_destroy` fails";
    mTrace = "pthread_mutex_destroy(mutex) = ERROR\n" + failure("OQCMutexDestroyFailedEx 334", "EXDEV");
    mStays = "the mutex stays usable";
    run([&] { OsDestroyMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME(OsDestroyMutex, ThrowsWhenAnotherThreadHoldsTheMutex)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports the destruction of a held mutex itself";
#endif
    Mutex lMutex;
    mWhen = "another thread holds the mutex (`EBUSY`)";
    mTrace = "pthread_mutex_destroy(mutex) = EBUSY\n" + failure("OQCMutexDestroyFailedEx 334", "EXDEV");
    mStays = "the mutex stays held and usable";
    {
        Holder lHolder(lMutex);
        run([&] { OsDestroyMutex(lMutex); });
        EXPECT_TRUE(isHeld(lMutex));
    }
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME(OsLockMutex, Succeeds)
{
    Mutex lMutex;
    mWhen = "succeeds";
    mTrace = "pthread_mutex_lock(mutex) = 0";
    mStays = "the caller holds the mutex";
    run([&] { OsLockMutex(lMutex); });
    EXPECT_TRUE(isHeld(lMutex));
    OsUnlockMutex(lMutex);
}

OUTCOME_OF_ERRORS(OsLockMutex, ThrowsWhenThePosixCallFails, EAGAIN, EINVAL, EDEADLK, ENOTRECOVERABLE, EOWNERDEAD, -1)
{
    Mutex lMutex;
    substitute::pthread_mutex_lock.fail(error(), EXDEV);
    mWhen = "`pthread_mutex_lock` fails";
    mTrace = "pthread_mutex_lock(mutex) = ERROR\n" + failure("OQCMutexLockFailedEx 335", "EXDEV");
    mStays = "the caller does not hold the mutex";
    run([&] { OsLockMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME(OsLockMutex, ThrowsTheTextOfNoErrorWhenErrnoIsZero)
{
    Mutex lMutex;
    substitute::pthread_mutex_lock.fail(EDEADLK, 0);
    mWhen = "`pthread_mutex_lock` fails while `errno` is 0";
    mTrace = "pthread_mutex_lock(mutex) = EDEADLK\n" + failure("OQCMutexLockFailedEx 335", "0");
    mStays = "the caller does not hold the mutex; the text is that of error 0";
    run([&] { OsLockMutex(lMutex); });
}

OUTCOME(OsLockMutex, BlocksWhenTheCallingThreadHoldsTheMutex)
{
    Mutex lMutex;
    OsLockMutex(lMutex);
    mWhen = "the calling thread holds the mutex already";
    mTrace = "pthread_mutex_lock(mutex)\nkilled by signal 14";
    mTells = "blocks for ever";
    mStays = "the mutex stays held";
    substitute::pthread_mutex_lock.instead([](pthread_mutex_t* apMutex) {
        const itimerval lTime = {{0, 0}, {0, 200000}};
        setitimer(ITIMER_REAL, &lTime, nullptr);  // after the call is recorded, even on a slow machine
        return substitute::pthread_mutex_lock.real(apMutex);
    });
    runInChild([&] { OsLockMutex(lMutex); });
    OsUnlockMutex(lMutex);
}

OUTCOME(OsTrylockMutex, Succeeds)
{
    Mutex lMutex;
    mWhen = "succeeds";
    mTrace = "pthread_mutex_trylock(mutex) = 0";
    mStays = "the caller holds the mutex";
    run([&] { OsTrylockMutex(lMutex); });
    EXPECT_TRUE(isHeld(lMutex));
    OsUnlockMutex(lMutex);
}

OUTCOME(OsTrylockMutex, ThrowsWhenAnotherThreadHoldsTheMutex)
{
    Mutex lMutex;
    mWhen = "another thread holds the mutex (`EBUSY`)";
    mTrace = "pthread_mutex_trylock(mutex) = EBUSY\n" + failure("OQCMutexLockFailedEx 335", "EXDEV");
    mStays = "that thread holds the mutex";
    {
        Holder lHolder(lMutex);
        run([&] { OsTrylockMutex(lMutex); });
        EXPECT_TRUE(isHeld(lMutex));
    }
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME(OsTrylockMutex, ThrowsWhenTheCallingThreadHoldsTheMutex)
{
    Mutex lMutex;
    OsLockMutex(lMutex);
    mWhen = "the calling thread holds the mutex (`EBUSY`)";
    mTrace = "pthread_mutex_trylock(mutex) = EBUSY\n" + failure("OQCMutexLockFailedEx 335", "EXDEV");
    mStays = "the caller holds the mutex";
    run([&] { OsTrylockMutex(lMutex); });
    EXPECT_TRUE(isHeld(lMutex));
    OsUnlockMutex(lMutex);
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME_OF_ERRORS(OsTrylockMutex, ThrowsWhenThePosixCallFails, EBUSY, EAGAIN, EINVAL, ENOTRECOVERABLE, EOWNERDEAD, -1)
{
    Mutex lMutex;
    substitute::pthread_mutex_trylock.fail(error(), EXDEV);
    mWhen = "`pthread_mutex_trylock` fails in another way";
    mTrace = "pthread_mutex_trylock(mutex) = ERROR\n" + failure("OQCMutexLockFailedEx 335", "EXDEV");
    mStays = "the caller does not hold the mutex";
    run([&] { OsTrylockMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME(OsUnlockMutex, Succeeds)
{
    Mutex lMutex;
    OsLockMutex(lMutex);
    mWhen = "succeeds";
    mTrace = "pthread_mutex_unlock(mutex) = 0";
    mStays = "nobody holds the mutex";
    run([&] { OsUnlockMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
}

OUTCOME_OF_ERRORS(OsUnlockMutex, ThrowsWhenThePosixCallFails, EAGAIN, EINVAL, EPERM, -1)
{
    Mutex lMutex;
    OsLockMutex(lMutex);
    substitute::pthread_mutex_unlock.fail(error(), EXDEV);
    mWhen = "`pthread_mutex_unlock` fails";
    mTrace = "pthread_mutex_unlock(mutex) = ERROR\n" + failure("OQCMutexUnlockFailedEx 336", "EXDEV");
    mStays = "the mutex stays as it was";
    run([&] { OsUnlockMutex(lMutex); });
    EXPECT_TRUE(isHeld(lMutex));
    OsUnlockMutex(lMutex);
}

OUTCOME(OsUnlockMutex, UnlocksWhatAnotherThreadHolds)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports this misuse itself";
#endif
    Mutex lMutex;
    std::thread([&] { OsLockMutex(lMutex); }).join();
    mWhen = "another thread holds the mutex";
    mTrace = "pthread_mutex_unlock(mutex) = 0";
    mTells = "the mutex is unlocked";
    run([&] { OsUnlockMutex(lMutex); });
    EXPECT_FALSE(isHeld(lMutex));
}

}  // namespace
