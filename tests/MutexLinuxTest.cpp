#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include <future>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

typedef std::vector<unsigned int> Numbers;

pthread_mutex_t* spInitialised = nullptr;
const pthread_mutexattr_t* spAttributes = nullptr;

Numbers* spTextSizes = nullptr;       // receives the size with which each error text is asked for
const char* spOwnText = nullptr;      // returned instead of the buffer
pthread_mutexattr_t sSomeAttributes;  // stands for "not yet called"

}  // namespace

OQ_FAULTY(int, pthread_mutex_destroy, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_lock, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_trylock, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_unlock, (pthread_mutex_t * apMutex), (apMutex), noexcept)

Fault pthread_mutex_initFault;
extern "C" int pthread_mutex_init(pthread_mutex_t* apMutex, const pthread_mutexattr_t* acAttributes) noexcept
{
    spInitialised = apMutex;
    spAttributes = acAttributes;
    if (pthread_mutex_initFault.fires()) {
        return static_cast<int>(pthread_mutex_initFault.result());
    }
    static Behind<int(pthread_mutex_t*, const pthread_mutexattr_t*)> lReal("pthread_mutex_init");
    return lReal(apMutex, acAttributes);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    if (nullptr != spTextSizes) {
        const int lErrno = errno;
        spTextSizes->push_back(aSize);
        errno = lErrno;
    }
    char* const lpText = lReal(apBuffer, aSize);
    return nullptr == spOwnText ? lpText : const_cast<char*>(spOwnText);
}

namespace
{

/// How often each POSIX function was called since the faults were reset: init, destroy, lock, trylock, unlock.
Numbers calls()
{
    return {pthread_mutex_initFault.calls(), pthread_mutex_destroyFault.calls(), pthread_mutex_lockFault.calls(),
            pthread_mutex_trylockFault.calls(), pthread_mutex_unlockFault.calls()};
}

template <class Family, class Operation>
bool isCaughtAs(Operation aOperation)
{
    try {
        aOperation();
    } catch (const Family&) {
        return true;
    } catch (const OQCException&) {
    }
    return false;
}

/// Whether a thread that asks finds the mutex held.
bool isHeld(pthread_mutex_t& arMutex)
{
    bool lHeld = false;
    std::thread([&] {
        lHeld = 0 != pthread_mutex_trylock(&arMutex);
        if (!lHeld) {
            pthread_mutex_unlock(&arMutex);
        }
    }).join();
    return lHeld;
}

/// A thread that holds a mutex as long as the object lives.
class Holder
{
public:
    explicit Holder(pthread_mutex_t& arMutex)
        : mThread([this, &arMutex] {
              OsLockMutex(arMutex);
              mHeld.set_value();
              mRelease.get_future().wait();
              OsUnlockMutex(arMutex);
          })
    {
        mHeld.get_future().wait();
    }
    ~Holder()
    {
        mRelease.set_value();
        mThread.join();
    }

private:
    std::promise<void> mHeld;
    std::promise<void> mRelease;
    std::thread mThread;
};

/// A mutex that is initialised for the test.
class MutexLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        OsInitMutex(mMutex);
        Fault::resetAll();
        spTextSizes = &mTextSizes;
    }
    void TearDown() override
    {
        spTextSizes = nullptr;
        spOwnText = nullptr;
        Fault::resetAll();
        OsDestroyMutex(mMutex);
        LayerTest::TearDown();
    }

    pthread_mutex_t mMutex;
    Numbers mTextSizes;
};

// Planted failures: the error that is returned differs from errno, whose text the exception carries.

TEST_F(MutexLinuxTest, InitThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_mutex_t lMutex;
    pthread_mutex_initFault.failOn(1, EAGAIN, ENOMEM);
    EXPECT_FAILURE(OQCMutexInitFailedEx, 333, strerror(ENOMEM), OsInitMutex(lMutex));
    EXPECT_EQ((Numbers{1, 0, 0, 0, 0}), calls());
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, DestroyThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_mutex_destroyFault.failOn(1, EBUSY, EACCES);
    EXPECT_FAILURE(OQCMutexDestroyFailedEx, 334, strerror(EACCES), OsDestroyMutex(mMutex));
    EXPECT_EQ((Numbers{0, 1, 0, 0, 0}), calls());
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, LockThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_mutex_lockFault.failOn(1, EDEADLK, EINTR);
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(EINTR), OsLockMutex(mMutex));
    EXPECT_EQ((Numbers{0, 0, 1, 0, 0}), calls());
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, TrylockThrowsTheClassOfLockWithTheTextOfErrnoWhenRefused)
{
    pthread_mutex_trylockFault.failOn(1, EINVAL, ENOENT);
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(ENOENT), OsTrylockMutex(mMutex));
    EXPECT_EQ((Numbers{0, 0, 0, 1, 0}), calls());
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, UnlockThrowsItsClassWithTheTextOfErrnoWhenRefusedAndTheMutexStaysHeld)
{
    OsLockMutex(mMutex);
    Fault::resetAll();
    pthread_mutex_unlockFault.failOn(1, EPERM, EIO);
    EXPECT_FAILURE(OQCMutexUnlockFailedEx, 336, strerror(EIO), OsUnlockMutex(mMutex));
    EXPECT_EQ((Numbers{0, 0, 0, 0, 1}), calls());
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, EveryNonZeroResultIsAFailure)
{
    pthread_mutex_lockFault.failOn(1, -1, EIO);
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(EIO), OsLockMutex(mMutex));
    pthread_mutex_unlockFault.failOn(1, 1, EIO);
    EXPECT_FAILURE(OQCMutexUnlockFailedEx, 336, strerror(EIO), OsUnlockMutex(mMutex));
}

/// The errors of the manual pages. The result says that there was one, and the text is that of errno.
TEST_F(MutexLinuxTest, EveryErrorOfTheManualPagesIsAFailureWithTheTextOfErrno)
{
    pthread_mutex_t lMutex;
    for (const int lError : {EAGAIN, ENOMEM, EPERM, EBUSY, EINVAL}) {
        pthread_mutex_initFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCMutexInitFailedEx, 333, "Invalid cross-device link", OsInitMutex(lMutex));
    }
    for (const int lError : {EBUSY, EINVAL}) {
        pthread_mutex_destroyFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCMutexDestroyFailedEx, 334, "Invalid cross-device link", OsDestroyMutex(mMutex));
    }
    for (const int lError : {EAGAIN, EINVAL, EDEADLK, ENOTRECOVERABLE, EOWNERDEAD}) {
        pthread_mutex_lockFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCMutexLockFailedEx, 335, "Invalid cross-device link", OsLockMutex(mMutex));
    }
    for (const int lError : {EBUSY, EAGAIN, EINVAL, ENOTRECOVERABLE, EOWNERDEAD}) {
        pthread_mutex_trylockFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCMutexLockFailedEx, 335, "Invalid cross-device link", OsTrylockMutex(mMutex));
    }
    for (const int lError : {EAGAIN, EINVAL, EPERM}) {
        pthread_mutex_unlockFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCMutexUnlockFailedEx, 336, "Invalid cross-device link", OsUnlockMutex(mMutex));
    }
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, TheTextIsTheOneThatTheRuntimeReturnsWhereverItLies)
{
    spOwnText = "a text outside the buffer";
    pthread_mutex_lockFault.failOn(1, EDEADLK, EINTR);
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, "a text outside the buffer", OsLockMutex(mMutex));
}

TEST_F(MutexLinuxTest, TheTextOfNoErrorIsCarriedWhenErrnoIsZero)
{
    pthread_mutex_lockFault.failOn(1, EDEADLK, 0);
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(0), OsLockMutex(mMutex));
}

// Families

TEST_F(MutexLinuxTest, InitAndDestroyFailuresAreOperatingSystemFailuresOnly)
{
    pthread_mutex_initFault.failAlways(EAGAIN, EAGAIN);
    pthread_mutex_destroyFault.failAlways(EBUSY, EBUSY);
    pthread_mutex_t lMutex;
    EXPECT_TRUE(isCaughtAs<OQCOsException>([&] { OsInitMutex(lMutex); }));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>([&] { OsInitMutex(lMutex); }));
    EXPECT_TRUE(isCaughtAs<OQCOsException>([&] { OsDestroyMutex(lMutex); }));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>([&] { OsDestroyMutex(lMutex); }));
    EXPECT_EQ(2U, pthread_mutex_initFault.calls());
    EXPECT_EQ(2U, pthread_mutex_destroyFault.calls());
}

TEST_F(MutexLinuxTest, LockTrylockAndUnlockFailuresAreAlsoReasonsToHalt)
{
    const auto lLock = [&] {
        pthread_mutex_lockFault.failOn(1, EINVAL, EINVAL);
        OsLockMutex(mMutex);
    };
    const auto lTrylock = [&] {
        pthread_mutex_trylockFault.failOn(1, EBUSY, EBUSY);
        OsTrylockMutex(mMutex);
    };
    const auto lUnlock = [&] {
        pthread_mutex_unlockFault.failOn(1, EPERM, EPERM);
        OsUnlockMutex(mMutex);
    };
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lLock));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lLock));
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lTrylock));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lTrylock));
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lUnlock));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lUnlock));
    EXPECT_FALSE(isCaughtAs<OQCGenericException>(lLock));
}

TEST_F(MutexLinuxTest, TheTextIsTheSameThroughEitherFamily)
{
    for (const bool lAsHalt : {true, false}) {
        std::string lText;
        pthread_mutex_lockFault.failOn(1, EINVAL, ENOLCK);
        if (lAsHalt) {
            try {
                OsLockMutex(mMutex);
            } catch (const OQCHaltEx& acrFailure) {
                lText = acrFailure.what();
            }
        } else {
            try {
                OsLockMutex(mMutex);
            } catch (const OQCOsException& acrFailure) {
                lText = acrFailure.what();
            }
        }
        EXPECT_EQ(strerror(ENOLCK), lText);
    }
}

// Success

TEST_F(MutexLinuxTest, EachOperationIsOnePosixCallAndSilent)
{
    pthread_mutex_t lMutex;
    Fault::resetAll();
    spAttributes = &sSomeAttributes;
    OsInitMutex(lMutex);
    EXPECT_EQ((Numbers{1, 0, 0, 0, 0}), calls());
    EXPECT_EQ(&lMutex, spInitialised);
    EXPECT_EQ(nullptr, spAttributes);

    Fault::resetAll();
    OsLockMutex(lMutex);
    EXPECT_EQ((Numbers{0, 0, 1, 0, 0}), calls());

    Fault::resetAll();
    OsUnlockMutex(lMutex);
    EXPECT_EQ((Numbers{0, 0, 0, 0, 1}), calls());

    Fault::resetAll();
    OsTrylockMutex(lMutex);
    EXPECT_EQ((Numbers{0, 0, 0, 1, 0}), calls());
    OsUnlockMutex(lMutex);

    Fault::resetAll();
    OsDestroyMutex(lMutex);
    EXPECT_EQ((Numbers{0, 1, 0, 0, 0}), calls());

    EXPECT_EQ(Numbers(), mTextSizes);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, NothingIsAllocatedOnSuccess)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "the sanitizer brings its own allocator";
#else
    gMallocFault.failOn(0);
    pthread_mutex_t lMutex;
    OsInitMutex(lMutex);
    OsLockMutex(lMutex);
    OsUnlockMutex(lMutex);
    OsTrylockMutex(lMutex);
    OsUnlockMutex(lMutex);
    OsDestroyMutex(lMutex);
    EXPECT_EQ(0U, gMallocFault.stop());
#endif
}

TEST_F(MutexLinuxTest, LockHoldsTheMutexUntilUnlock)
{
    OsLockMutex(mMutex);
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, TrylockHoldsAFreeMutex)
{
    OsTrylockMutex(mMutex);
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, LockWaitsUntilTheHolderUnlocks)
{
    bool lChanged = false;
    std::promise<void> lHeld;
    std::thread lHolder([&] {
        OsLockMutex(mMutex);
        const unsigned int lCalls = pthread_mutex_lockFault.calls();  // one more is the waiter's
        lHeld.set_value();
        eventually([lCalls] { return lCalls < pthread_mutex_lockFault.calls(); });
        lChanged = true;
        OsUnlockMutex(mMutex);
    });
    lHeld.get_future().wait();
    OsLockMutex(mMutex);
    EXPECT_TRUE(lChanged);
    OsUnlockMutex(mMutex);
    lHolder.join();
}

// Real failures

TEST_F(MutexLinuxTest, TrylockThrowsWhenAnotherThreadHoldsTheMutex)
{
    {
        Holder lHolder(mMutex);
        errno = ENOTDIR;
        EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(ENOTDIR), OsTrylockMutex(mMutex));
        EXPECT_TRUE(isHeld(mMutex));
    }
    OsTrylockMutex(mMutex);
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Numbers{512}, mTextSizes);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, TrylockThrowsWhenItsOwnThreadHoldsTheMutex)
{
    OsLockMutex(mMutex);
    errno = EISDIR;
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(EISDIR), OsTrylockMutex(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, DestroyThrowsWhileAnotherThreadHoldsTheMutexWhichStaysUsable)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports the destruction of a held mutex itself";
#endif
    {
        Holder lHolder(mMutex);
        errno = EXDEV;
        EXPECT_FAILURE(OQCMutexDestroyFailedEx, 334, strerror(EXDEV), OsDestroyMutex(mMutex));
        EXPECT_TRUE(isHeld(mMutex));
    }
    OsLockMutex(mMutex);
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, ErrorsOfACallersErrorCheckingMutexAreThrown)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports these misuses itself";
#endif
    pthread_mutexattr_t lAttributes;
    pthread_mutexattr_init(&lAttributes);
    pthread_mutexattr_settype(&lAttributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t lMutex;
    pthread_mutex_init(&lMutex, &lAttributes);
    pthread_mutexattr_destroy(&lAttributes);

    errno = EFBIG;
    EXPECT_FAILURE(OQCMutexUnlockFailedEx, 336, strerror(EFBIG), OsUnlockMutex(lMutex));
    OsLockMutex(lMutex);
    errno = ENOSPC;
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(ENOSPC), OsLockMutex(lMutex));
    OsUnlockMutex(lMutex);
    OsDestroyMutex(lMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, ASecondLockInTheSameThreadBlocks)
{
    const ChildResult lResult = inChild([this] {
        OsLockMutex(mMutex);
        const itimerval lTime = {{0, 0}, {0, 200000}};
        setitimer(ITIMER_REAL, &lTime, nullptr);
        OsLockMutex(mMutex);
    });
    EXPECT_EQ(SIGALRM, lResult.mSignal) << "the second lock came back, exit status " << lResult.mExitStatus;
}

TEST_F(MutexLinuxTest, UnlockingAnotherThreadsMutexIsNotDetected)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports this misuse itself";
#endif
    std::thread([this] { OsLockMutex(mMutex); }).join();
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ(Lines(), logged());
}

// Many threads

TEST_F(MutexLinuxTest, NoIncrementOfEightThreadsIsLost)
{
    const unsigned int cRounds = OQ_SANITIZED ? 20000 : 1000000;
    unsigned int lCount = 0;
    std::vector<std::thread> lThreads;
    for (unsigned int lThread = 0; lThread < 8; ++lThread) {
        lThreads.emplace_back([&] {
            for (unsigned int lRound = 0; lRound < cRounds; ++lRound) {
                OsLockMutex(mMutex);
                ++lCount;
                OsUnlockMutex(mMutex);
            }
        });
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(8 * cRounds, lCount);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MutexLinuxTest, EachOfEightThreadsGetsTheTextOfItsOwnErrno)
{
    spTextSizes = nullptr;
    Holder lHolder(mMutex);
    std::atomic<unsigned int> lRight(0);
    std::vector<std::thread> lThreads;
    for (int lErrno = 1; lErrno <= 8; ++lErrno) {
        lThreads.emplace_back([this, &lRight, lErrno, lExpected = std::string(strerror(lErrno))] {
            for (unsigned int lRound = 0; lRound < 500; ++lRound) {
                try {
                    errno = lErrno;
                    OsTrylockMutex(mMutex);
                } catch (const OQCMutexLockFailedEx& acrFailure) {
                    lRight += lExpected == acrFailure.what() ? 1U : 0U;
                }
            }
        });
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(8U * 500U, lRight);
    EXPECT_EQ(Lines(), logged());
}

}  // namespace
