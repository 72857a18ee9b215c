#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

/// What pthread_cond_timedwait() was given.
struct TimedWait {
    pthread_cond_t* mpCondition;
    pthread_mutex_t* mpMutex;
    timespec mDeadline;
};

const pthread_condattr_t* spAttributes = nullptr;
pthread_condattr_t sSomeAttributes;  // stands for "not yet called"

// For the thread that asks for it: the time it is told, the waits it makes, the error texts it asks for, and lines in
// the log that show the order of its calls.
thread_local const timespec* spClock = nullptr;
thread_local int sClockResult = 0;
thread_local clockid_t sClockAsked = -1;
thread_local std::vector<TimedWait>* spTimedWaits = nullptr;
thread_local bool sCallsAreLogged = false;

/// Size with which an error text was asked for, and how many lines had been logged by then.
struct AskedText {
    unsigned int mSize;
    size_t mLines;
};
thread_local std::vector<AskedText>* spAskedTexts = nullptr;

void logCall(const char* acFunction)
{
    if (sCallsAreLogged) {
        PrintLogMessageWithTimeStamp(64, "-I-", 1, acFunction, "test", "called");
    }
}

Line called(const char* acFunction) { return {64, "-I-", acFunction, "test", "called"}; }

}  // namespace

// clang-format off
OQ_FAULTY(int, pthread_cond_destroy, (pthread_cond_t* apCondition), (apCondition), noexcept)
OQ_FAULTY(int, pthread_cond_signal, (pthread_cond_t* apCondition), (apCondition), noexcept)
OQ_FAULTY(int, pthread_cond_wait, (pthread_cond_t* apCondition, pthread_mutex_t* apMutex), (apCondition, apMutex), )
// clang-format on

Fault pthread_cond_initFault;
extern "C" int pthread_cond_init(pthread_cond_t* apCondition, const pthread_condattr_t* acAttributes) noexcept
{
    spAttributes = acAttributes;
    if (pthread_cond_initFault.fires()) {
        return static_cast<int>(pthread_cond_initFault.result());
    }
    static Behind<int(pthread_cond_t*, const pthread_condattr_t*)> lReal("pthread_cond_init");
    return lReal(apCondition, acAttributes);
}

Fault pthread_cond_timedwaitFault;
extern "C" int pthread_cond_timedwait(pthread_cond_t* apCondition, pthread_mutex_t* apMutex, const timespec* acDeadline)
{
    logCall("pthread_cond_timedwait");
    if (nullptr != spTimedWaits) {
        spTimedWaits->push_back({apCondition, apMutex, *acDeadline});
    }
    if (pthread_cond_timedwaitFault.fires()) {
        return static_cast<int>(pthread_cond_timedwaitFault.result());
    }
    static Behind<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> lReal("pthread_cond_timedwait");
    return lReal(apCondition, apMutex, acDeadline);
}

extern "C" int clock_gettime(clockid_t aClock, timespec* apTime) noexcept
{
    logCall("clock_gettime");
    if (nullptr != spClock) {
        sClockAsked = aClock;
        *apTime = *spClock;
        return sClockResult;
    }
    static Behind<int(clockid_t, timespec*)> lReal("clock_gettime");
    return lReal(aClock, apTime);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    if (nullptr != spAskedTexts) {
        const int lErrno = errno;
        spAskedTexts->push_back({aSize, logged().size()});
        errno = lErrno;
    }
    return lReal(apBuffer, aSize);
}

namespace
{

const LinesOf cTimedWait(".//ConditionalLinux", "OsConditionalTimedWait");

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

/// Seconds of a clock that nobody sets.
double now()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return static_cast<double>(lNow.tv_sec) + static_cast<double>(lNow.tv_nsec) / 1e9;
}

/// A condition variable and a mutex, both initialised and free.
class ConditionalLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        OsInitMutex(mMutex);
        OsInitConditional(mCondition);
        Fault::resetAll();
        spTimedWaits = &mTimedWaits;
        spAskedTexts = &mAskedTexts;
    }
    void TearDown() override
    {
        spTimedWaits = nullptr;
        spAskedTexts = nullptr;
        spClock = nullptr;
        sClockResult = 0;
        sCallsAreLogged = false;
        Fault::resetAll();
        OsDestroyConditional(mCondition);
        OsDestroyMutex(mMutex);
        LayerTest::TearDown();
    }

    /// Calls of init, destroy, signal, wait and timedwait since the last reset.
    static std::vector<unsigned int> calls()
    {
        return {pthread_cond_initFault.calls(), pthread_cond_destroyFault.calls(), pthread_cond_signalFault.calls(),
                pthread_cond_waitFault.calls(), pthread_cond_timedwaitFault.calls()};
    }

    /// One text was asked for, with the size of its 512-byte buffer, when so many lines had been logged.
    void expectText(size_t aLines)
    {
        ASSERT_EQ(1U, mAskedTexts.size());
        EXPECT_EQ(512U, mAskedTexts[0].mSize);
        EXPECT_EQ(aLines, mAskedTexts[0].mLines);
    }

    void timedWait(unsigned int aSeconds) { OsConditionalTimedWait(mCondition, mMutex, aSeconds); }

    pthread_cond_t mCondition;
    pthread_mutex_t mMutex;
    std::vector<TimedWait> mTimedWaits;
    std::vector<AskedText> mAskedTexts;
};

typedef std::vector<unsigned int> Numbers;

// Planted failures: the error that is returned differs from errno, whose text the exception carries.

TEST_F(ConditionalLinuxTest, InitThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_cond_t lCondition;
    pthread_cond_initFault.failOn(1, EAGAIN, ENOMEM);
    EXPECT_FAILURE(OQCCondInitFailedEx, 337, "Cannot allocate memory", OsInitConditional(lCondition));
    EXPECT_EQ((Numbers{1, 0, 0, 0, 0}), calls());
    expectText(0);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, DestroyThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_cond_destroyFault.failOn(1, EBUSY, EACCES);
    EXPECT_FAILURE(OQCCondDestroyFailedEx, 338, "Permission denied", OsDestroyConditional(mCondition));
    EXPECT_EQ((Numbers{0, 1, 0, 0, 0}), calls());
    expectText(0);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, SignalThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_cond_signalFault.failOn(1, EINVAL, EIO);
    EXPECT_FAILURE(OQCCondSignalFailedEx, 340, "Input/output error", OsSignal(mCondition));
    EXPECT_EQ((Numbers{0, 0, 1, 0, 0}), calls());
    expectText(0);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, WaitThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    OsLockMutex(mMutex);
    pthread_cond_waitFault.failOn(1, EINVAL, EPERM);
    EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Operation not permitted", OsWait(mCondition, mMutex));
    EXPECT_EQ((Numbers{0, 0, 0, 1, 0}), calls());
    OsUnlockMutex(mMutex);
    expectText(0);
    EXPECT_EQ(Lines(), logged());
}

/// The errors of the manual pages. The result says that there was one, and the text is that of errno.
TEST_F(ConditionalLinuxTest, EveryErrorOfTheManualPagesIsAFailureWithTheTextOfErrno)
{
    pthread_cond_t lCondition;
    for (const int lError : {EAGAIN, ENOMEM, EBUSY, EINVAL}) {
        pthread_cond_initFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCCondInitFailedEx, 337, "Invalid cross-device link", OsInitConditional(lCondition));
    }
    for (const int lError : {EBUSY, EINVAL}) {
        pthread_cond_destroyFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCCondDestroyFailedEx, 338, "Invalid cross-device link", OsDestroyConditional(mCondition));
    }
    pthread_cond_signalFault.failOn(1, EINVAL, EXDEV);
    EXPECT_FAILURE(OQCCondSignalFailedEx, 340, "Invalid cross-device link", OsSignal(mCondition));
    OsLockMutex(mMutex);
    for (const int lError : {EINVAL, EPERM, ENOTRECOVERABLE, EOWNERDEAD}) {
        pthread_cond_waitFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Invalid cross-device link", OsWait(mCondition, mMutex));
        pthread_cond_timedwaitFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Invalid cross-device link", timedWait(1));
    }
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, AWaitWithoutATimeLimitKnowsNoTimeOut)
{
    OsLockMutex(mMutex);
    pthread_cond_waitFault.failOn(1, ETIMEDOUT, ETIMEDOUT);
    EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Connection timed out", OsWait(mCondition, mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, TheTimedWaitThrowsATimeOutWithTheTextOfErrnoAfterItsLine)
{
    OsLockMutex(mMutex);
    pthread_cond_timedwaitFault.failOn(1, ETIMEDOUT, EPERM);
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Operation not permitted", timedWait(1));
    EXPECT_EQ((Numbers{0, 0, 0, 0, 1}), calls());
    OsUnlockMutex(mMutex);
    expectText(1);
    EXPECT_EQ((Lines{cTimedWait.trace("Condition wait timed out.")}), logged());
}

TEST_F(ConditionalLinuxTest, TheTimedWaitThrowsAnyOtherErrorSilently)
{
    OsLockMutex(mMutex);
    for (const int lResult : {EINVAL, EPERM, EINTR, -1}) {
        mAskedTexts.clear();
        pthread_cond_timedwaitFault.failOn(1, lResult, ETIMEDOUT);  // only the result tells a time-out
        EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Connection timed out", timedWait(1));
        EXPECT_EQ((Numbers{0, 0, 0, 0, 1}), calls());
        expectText(0);
    }
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

// Families

TEST_F(ConditionalLinuxTest, InitAndDestroyFailuresAndTimeOutsAreOperatingSystemFailuresOnly)
{
    pthread_cond_initFault.failAlways(EAGAIN, EAGAIN);
    pthread_cond_destroyFault.failAlways(EBUSY, EBUSY);
    pthread_cond_timedwaitFault.failAlways(ETIMEDOUT, ETIMEDOUT);
    pthread_cond_t lCondition;
    const auto lInit = [&] { OsInitConditional(lCondition); };
    const auto lDestroy = [&] { OsDestroyConditional(mCondition); };
    const auto lWait = [&] { timedWait(1); };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lInit));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lInit));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lDestroy));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lDestroy));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lWait));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lWait));
}

TEST_F(ConditionalLinuxTest, WaitAndSignalFailuresAreAlsoReasonsToHalt)
{
    pthread_cond_signalFault.failAlways(EINVAL, EINVAL);
    pthread_cond_waitFault.failAlways(EINVAL, EINVAL);
    pthread_cond_timedwaitFault.failAlways(EINVAL, EINVAL);
    const auto lSignal = [&] { OsSignal(mCondition); };
    const auto lWait = [&] { OsWait(mCondition, mMutex); };
    const auto lTimedWait = [&] { timedWait(1); };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lSignal));
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lSignal));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lWait));
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lWait));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lTimedWait));
    EXPECT_TRUE(isCaughtAs<OQCHaltEx>(lTimedWait));
    EXPECT_FALSE(isCaughtAs<OQCGenericException>(lWait));
}

// Success

TEST_F(ConditionalLinuxTest, EachOperationIsOnePosixCallAndSilent)
{
    pthread_cond_t lCondition;
    spAttributes = &sSomeAttributes;
    OsInitConditional(lCondition);
    EXPECT_EQ((Numbers{1, 0, 0, 0, 0}), calls());
    EXPECT_EQ(nullptr, spAttributes);
    OsSignal(lCondition);
    EXPECT_EQ((Numbers{1, 0, 1, 0, 0}), calls());
    OsDestroyConditional(lCondition);
    EXPECT_EQ((Numbers{1, 1, 1, 0, 0}), calls());
    pthread_cond_waitFault.failOn(1, 0, EIO);  // a spurious wake-up
    OsWait(mCondition, mMutex);
    EXPECT_EQ((Numbers{1, 1, 1, 1, 0}), calls());
    pthread_cond_timedwaitFault.failOn(1, 0, ETIMEDOUT);
    timedWait(1);
    EXPECT_EQ((Numbers{1, 1, 1, 1, 1}), calls());
    EXPECT_TRUE(mAskedTexts.empty());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, ASignalThatNobodyWaitsForIsLostSilently)
{
    OsSignal(mCondition);
    OsLockMutex(mMutex);
    errno = ENAMETOOLONG;
    EXPECT_FAILURE(OQCTimeOutEx, 323, "File name too long", timedWait(1));
    OsUnlockMutex(mMutex);
    EXPECT_EQ((Lines{cTimedWait.trace("Condition wait timed out.")}), logged());
}

TEST_F(ConditionalLinuxTest, WaitReleasesTheMutexAndHoldsItAgainAfterTheSignal)
{
    bool lReady = false;
    OsLockMutex(mMutex);
    std::thread lSignaller([&] {
        OsLockMutex(mMutex);  // possible only while the other thread waits
        lReady = true;
        OsSignal(mCondition);
        OsUnlockMutex(mMutex);
    });
    while (!lReady) {
        OsWait(mCondition, mMutex);
    }
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    lSignaller.join();
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, ASignalBeforeTheDeadlineEndsTheTimedWaitNormally)
{
    bool lReady = false;
    OsLockMutex(mMutex);
    std::thread lSignaller([&] {
        OsLockMutex(mMutex);  // possible only while the other thread waits
        lReady = true;
        OsSignal(mCondition);
        OsUnlockMutex(mMutex);
    });
    const double lStart = now();
    while (!lReady) {
        timedWait(60);
    }
    EXPECT_GT(50.0, now() - lStart);
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    lSignaller.join();
    EXPECT_FALSE(mTimedWaits.empty());
    EXPECT_EQ(Lines(), logged());
}

// The deadline

TEST_F(ConditionalLinuxTest, TheDeadlineIsTheRealTimePlusTheSecondsAndKeepsTheNanoseconds)
{
    const timespec cNow = {1000000000, 999999999};
    spClock = &cNow;
    pthread_cond_timedwaitFault.failAlways(0, 0);
    timedWait(7);
    spClock = nullptr;
    EXPECT_EQ(CLOCK_REALTIME, sClockAsked);
    ASSERT_EQ(1U, mTimedWaits.size());
    EXPECT_EQ(&mCondition, mTimedWaits[0].mpCondition);
    EXPECT_EQ(&mMutex, mTimedWaits[0].mpMutex);
    EXPECT_EQ(1000000007, mTimedWaits[0].mDeadline.tv_sec);
    EXPECT_EQ(999999999, mTimedWaits[0].mDeadline.tv_nsec);
}

TEST_F(ConditionalLinuxTest, ADeadlineWithTheGreatestNanosecondsIsValid)
{
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    lNow.tv_sec -= 5;
    lNow.tv_nsec = 999999999;
    OsLockMutex(mMutex);
    spClock = &lNow;
    errno = ESPIPE;
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Illegal seek", timedWait(1));  // over already: no wait
    spClock = nullptr;
    OsUnlockMutex(mMutex);
    EXPECT_EQ((Lines{cTimedWait.trace("Condition wait timed out.")}), logged());
}

TEST_F(ConditionalLinuxTest, TheSecondsAreAddedWithoutARangeCheck)
{
    const timespec cNow = {1000000000, 5};
    spClock = &cNow;
    pthread_cond_timedwaitFault.failAlways(0, 0);
    timedWait(UINT_MAX);
    spClock = nullptr;
    ASSERT_EQ(1U, mTimedWaits.size());
    EXPECT_EQ(static_cast<time_t>(5294967295LL), mTimedWaits[0].mDeadline.tv_sec);
    EXPECT_EQ(5, mTimedWaits[0].mDeadline.tv_nsec);
}

TEST_F(ConditionalLinuxTest, EachWaitOfALoopWaitsTheFullTimeAnew)
{
    timespec lNow = {100, 1};
    spClock = &lNow;
    pthread_cond_timedwaitFault.failAlways(0, 0);
    timedWait(3);
    lNow = {105, 2};
    timedWait(3);
    lNow = {106, 0};
    timedWait(3);
    spClock = nullptr;
    ASSERT_EQ(3U, mTimedWaits.size());
    EXPECT_EQ(103, mTimedWaits[0].mDeadline.tv_sec);
    EXPECT_EQ(1, mTimedWaits[0].mDeadline.tv_nsec);
    EXPECT_EQ(108, mTimedWaits[1].mDeadline.tv_sec);
    EXPECT_EQ(2, mTimedWaits[1].mDeadline.tv_nsec);
    EXPECT_EQ(109, mTimedWaits[2].mDeadline.tv_sec);
    EXPECT_EQ(0, mTimedWaits[2].mDeadline.tv_nsec);
}

TEST_F(ConditionalLinuxTest, WhetherTheClockCouldBeReadIsNotChecked)
{
    const timespec cNow = {200, 3};
    spClock = &cNow;
    sClockResult = -1;
    pthread_cond_timedwaitFault.failAlways(0, 0);
    timedWait(1);
    spClock = nullptr;
    ASSERT_EQ(1U, mTimedWaits.size());
    EXPECT_EQ(201, mTimedWaits[0].mDeadline.tv_sec);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, AnInvalidDeadlineIsAFailedWaitAndTheMutexStaysHeld)
{
    const timespec cNow = {200, 1000000000};  // no clock gives that
    OsLockMutex(mMutex);
    spClock = &cNow;
    errno = EDOM;
    EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Numerical argument out of domain", timedWait(1));
    spClock = nullptr;
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, AWaitOfOneSecondTimesOutAfterOneSecondWithTheMutexHeld)
{
    OsLockMutex(mMutex);
    errno = ENOTEMPTY;
    const double lStart = now();
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Directory not empty", timedWait(1));
    const double lSeconds = now() - lStart;
    EXPECT_LE(0.999, lSeconds);  // the two clocks may differ a little
    EXPECT_GE(3.0, lSeconds);
    RecordProperty("seconds", std::to_string(lSeconds));
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ((Lines{cTimedWait.trace("Condition wait timed out.")}), logged());
}

// Zero seconds

TEST_F(ConditionalLinuxTest, ZeroSecondsEndTheProcessAfterTheClockWasReadAndNothingElseWasTouched)
{
    static pthread_cond_t* spConditionNow;
    static pthread_mutex_t* spMutexNow;
    static pthread_cond_t sConditionThen;
    static pthread_mutex_t sMutexThen;
    const ChildResult lResult = inChild([this] {
        OsLockMutex(mMutex);
        spConditionNow = &mCondition;
        spMutexNow = &mMutex;
        memcpy(&sConditionThen, &mCondition, sizeof mCondition);
        memcpy(&sMutexThen, &mMutex, sizeof mMutex);
        atexit([] {
            sCallsAreLogged = false;
            const bool lUntouched = 0 == memcmp(spConditionNow, &sConditionThen, sizeof sConditionThen) &&
                                    0 == memcmp(spMutexNow, &sMutexThen, sizeof sMutexThen);
            PrintLogMessageWithTimeStamp(64, "-I-", 1, "exit", "test", lUntouched ? "untouched" : "touched");
        });
        sCallsAreLogged = true;
        try {
            timedWait(0);
        } catch (...) {
            _exit(5);
        }
    });
    EXPECT_EQ(1, lResult.mExitStatus);
    EXPECT_EQ((Lines{called("clock_gettime"),
                     {1, "-H-", "OsConditionalTimedWait", ".//ConditionalLinux", "Assertion [ aSeconds > 0 ] failed\n"},
                     {64, "-I-", "exit", "test", "untouched"}}),
              lResult.mLines);
}

TEST_F(ConditionalLinuxTest, TheClockIsReadBeforeTheWait)
{
    pthread_cond_timedwaitFault.failAlways(0, 0);
    sCallsAreLogged = true;
    timedWait(1);
    sCallsAreLogged = false;
    EXPECT_EQ((Lines{called("clock_gettime"), called("pthread_cond_timedwait")}), logged());
}

// What is local

TEST_F(ConditionalLinuxTest, BroadcastIsNotExported)
{
    EXPECT_NE(nullptr, dlsym(RTLD_DEFAULT, "_Z8OsSignalR14pthread_cond_t"));
    EXPECT_EQ(nullptr, dlsym(RTLD_DEFAULT, "_Z11OsBroadcastR14pthread_cond_t"));
}

// Many threads

/// A queue with room for 64 items; what is put in and taken out is signalled one by one.
class Queue
{
public:
    typedef void (*Wait)(pthread_cond_t&, pthread_mutex_t&);

    explicit Queue(Wait aWait) : mWait(aWait)
    {
        OsInitMutex(mMutex);
        OsInitConditional(mNotEmpty);
        OsInitConditional(mNotFull);
    }
    ~Queue()
    {
        OsDestroyConditional(mNotFull);
        OsDestroyConditional(mNotEmpty);
        OsDestroyMutex(mMutex);
    }
    void put(unsigned int aItem)
    {
        OsLockMutex(mMutex);
        while (64 == mItems.size()) {
            mWait(mNotFull, mMutex);
        }
        mItems.push_back(aItem);
        OsSignal(mNotEmpty);
        OsUnlockMutex(mMutex);
    }
    unsigned int take()
    {
        OsLockMutex(mMutex);
        while (mItems.empty()) {
            mWait(mNotEmpty, mMutex);
        }
        const unsigned int lItem = mItems.front();
        mItems.pop_front();
        OsSignal(mNotFull);
        OsUnlockMutex(mMutex);
        return lItem;
    }

private:
    const Wait mWait;
    pthread_mutex_t mMutex;
    pthread_cond_t mNotEmpty;
    pthread_cond_t mNotFull;
    std::deque<unsigned int> mItems;
};

const unsigned int cItems = OQ_SANITIZED ? 20000 : 100000;

/// Four producers hand so many different items to four consumers.
void expectNothingLost(Queue::Wait aWait)
{
    Queue lQueue(aWait);
    std::vector<std::atomic<unsigned char>> lTaken(cItems);
    std::vector<std::thread> lThreads;
    for (unsigned int lThread = 0; lThread < 4; ++lThread) {
        lThreads.emplace_back([&lQueue, lThread] {
            for (unsigned int lItem = lThread; lItem < cItems; lItem += 4) {
                lQueue.put(lItem);
            }
        });
        lThreads.emplace_back([&lQueue, &lTaken] {
            for (unsigned int lCount = 0; lCount < cItems / 4; ++lCount) {
                ++lTaken[lQueue.take()];
            }
        });
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    unsigned int lOnce = 0;
    for (const std::atomic<unsigned char>& lrTaken : lTaken) {
        lOnce += 1 == lrTaken ? 1U : 0U;
    }
    EXPECT_EQ(cItems, lOnce);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxTest, NothingIsLostBetweenFourProducersAndFourConsumersThatWait) { expectNothingLost(OsWait); }

TEST_F(ConditionalLinuxTest, NothingIsLostBetweenFourProducersAndFourConsumersThatWaitForALimitedTime)
{
    expectNothingLost([](pthread_cond_t& arCondition, pthread_mutex_t& arMutex) {
        OsConditionalTimedWait(arCondition, arMutex, 60);
    });
}

}  // namespace
