#include "OQGuards.h"

#include <sys/mman.h>
#include <sys/time.h>

#include <stdexcept>
#include <type_traits>

#include "Outcome.h"
#include "Peer.h"

namespace
{

template <class... Guards>
constexpr bool areMovedOnly()
{
    return (... && (std::is_nothrow_move_constructible_v<Guards> && std::is_nothrow_move_assignable_v<Guards> &&
                    !std::is_copy_constructible_v<Guards> && !std::is_copy_assignable_v<Guards> &&
                    std::is_nothrow_destructible_v<Guards>));
}
static_assert(areMovedOnly<OQCMutex, OQCMutexLock, OQCTryLock, OQCCondition, OQCThread, OQCPipe, OQCMailbox,
                           OQCFileLock, OQCProcess, OQCSignalBlock>());

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

const unsigned int cSize = 106;  // of a mailbox
char* const cNoEnvironment[] = {nullptr};

/// A child that runs a line of shell.
class Shell
{
public:
    explicit Shell(const std::string& acrLine) : mLine(acrLine), mArgv{mShell, mOption, &mLine[0], nullptr} {}
    OQCProcess start(OQEAtEnd aAtEnd = OQAE_Wait) { return OQCProcess("/bin/sh", mArgv, cNoEnvironment, aAtEnd); }
    int resultBare() { return ProcessWait(ProcessCreate("/bin/sh", mArgv, cNoEnvironment), 0); }

private:
    char mShell[3] = "sh";
    char mOption[3] = "-c";
    std::string mLine;
    char* const mArgv[4];
};

OQCProcess startNothing()
{
    char lName[] = "program";
    char* const lArgv[] = {lName, nullptr};
    return OQCProcess("/nonexistent/program", lArgv, cNoEnvironment, OQAE_Wait);
}

const char* const cLeavesNoBlockedSignal = "exec grep -q '^SigBlk:.*[^0-9a-f]0*$' /proc/self/status";

/// Returns the error and halt lines so far, one per line: the text with its arguments.
std::string errorLines()
{
    std::string lText;
    for (const Event& acrEvent : recorded()) {
        if (Event::Log == acrEvent.mKind && acrEvent.mLevel <= OQLL_Error) {
            EXPECT_EQ("-H-" == acrEvent.mTag, OQLL_Halt == acrEvent.mLevel);
            lText += acrEvent.mTag + acrEvent.mFunction + " " + acrEvent.mName;
            for (const std::string& acrArgument : acrEvent.mArguments) {
                lText += "|" + acrArgument;
            }
            lText += "\n";
        }
    }
    return lText;
}

unsigned int callsOf(const char* acFunction)
{
    unsigned int lCalls = 0;
    for (const Event& acrEvent : recorded()) {
        lCalls += Event::Call == acrEvent.mKind && acFunction == acrEvent.mName ? 1 : 0;
    }
    return lCalls;
}

/// GCC's address sanitizer treats frames that a cancellation has unwound as frames in use.
#if defined(__SANITIZE_ADDRESS__) && !defined(__clang__)
#define NEEDS_UNWINDING() GTEST_SKIP() << "the address sanitizer does not know the unwinding of a cancelled thread"
#else
#define NEEDS_UNWINDING()
#endif

/// Runs a function in a new thread. \return whether a cancellation ended the thread
bool isCancelled(std::function<void()> aRun)
{
    pthread_t lThread;
    void* lpResult = nullptr;
    pthread_create(
        &lThread, nullptr,
        [](void* apRun) -> void* {
            (*static_cast<std::function<void()>*>(apRun))();
            return nullptr;
        },
        &aRun);
    pthread_join(lThread, &lpResult);
    return PTHREAD_CANCELED == lpResult;
}

/// Destroys the guard while the cancellation of its thread is pending. \return whether the cancellation came afterwards
template <class Make>
bool isClosedBeforeCancellation(Make aMake)
{
    bool lIsClosed = false;
    const bool lIsCancelled = isCancelled([&] {
        {
            const auto lGuard = aMake();
            pthread_cancel(pthread_self());
        }
        lIsClosed = true;
        pthread_testcancel();
    });
    return lIsClosed && lIsCancelled;
}

bool isOpen(int aDescriptor) { return 0 <= fcntl(aDescriptor, F_GETFD); }

bool isSegment(key_t aKey) { return 0 <= shmget(aKey, 0, 0); }

template <class Signal>
sigset_t maskNow(Signal)
{
    sigset_t lMask;
    pthread_sigmask(SIG_SETMASK, nullptr, &lMask);
    return lMask;
}
bool isBlocked(int aSignal)
{
    const sigset_t lMask = maskNow(aSignal);
    return 1 == sigismember(&lMask, aSignal);
}

class GuardsTest : public RecordedTest
{
protected:
    void TearDown() override
    {
        if (!mFifo.empty()) {
            unlink(mFifo.c_str());
        }
        RecordedTest::TearDown();
    }
    OQCString fifo()
    {
        if (mFifo.empty()) {
            mFifo = path("fifo");
            EXPECT_EQ(0, mkfifo(mFifo.c_str(), 0600));
        }
        return mFifo.c_str();
    }
    OQCPipe pipe(OQEPipeState aState = OQPS_Blocking) { return OQCPipe(fifo(), OQFM_Mode1, aState); }

    /// Opens a server while a call fails. \return the text of the exception
    static std::string failureOfAServer()
    {
        const Recording lRecording;
        try {
            OQCMailbox(key(), cSize, OQCM_Server);
        } catch (const OQCException& acrFailure) {
            return std::to_string(acrFailure.code()) + " " + acrFailure.what();
        }
        return "no exception";
    }

    std::string mFifo;
    char mBuffer[256];
    unsigned int mLength = 0;
};

// Mutexes

TEST_F(GuardsTest, ALockUnlocksAtTheEndOfItsScopeEarlyAndWhileAnExceptionPasses)
{
    OQCMutex lMutex;
    {
        const OQCMutexLock lLock(lMutex);
        EXPECT_TRUE(isHeld(lMutex.get()));
    }
    EXPECT_FALSE(isHeld(lMutex.get()));
    {
        OQCMutexLock lLock(lMutex);
        lLock.unlock();
        EXPECT_FALSE(isHeld(lMutex.get()));
        lLock.unlock();
    }
    try {
        const OQCMutexLock lLock(lMutex);
        throw 1;
    } catch (int) {
    }
    EXPECT_FALSE(isHeld(lMutex.get()));
    EXPECT_EQ("", errorLines());
}

TEST_F(GuardsTest, AMovedLockUnlocksOnceAndAssignmentUnlocksTheOldMutex)
{
    OQCMutex lFirst, lSecond;
    OQCMutexLock lLock(lFirst);
    {
        OQCMutexLock lMoved(std::move(lLock));
        EXPECT_TRUE(isHeld(lFirst.get()));
    }
    EXPECT_FALSE(isHeld(lFirst.get()));
    lLock = OQCMutexLock(lFirst);
    lLock = OQCMutexLock(lSecond);
    EXPECT_FALSE(isHeld(lFirst.get()));
    EXPECT_TRUE(isHeld(lSecond.get()));
    OQCMutexLock& lrSame = lLock;
    lLock = std::move(lrSame);
    EXPECT_TRUE(isHeld(lSecond.get()));
}

TEST_F(GuardsTest, AnUnlockThatFailsInADestructorAbortsWithoutTheGuardAndIsABrokenPreconditionWithIt)
{
    OQCMutex lMutex;
    struct Bare {
        ~Bare() { OsUnlockMutex(mMutex); }
        pthread_mutex_t& mMutex;
    };
    substitute::pthread_mutex_unlock.fail(EPERM, 0);
    EXPECT_EQ(-SIGABRT, inChild([&] {
        const Recording lRecording;
        const Bare lBare{lMutex.get()};
    }));
    EXPECT_EQ("", errorLines());
    EXPECT_EQ(1, inChild([&] {
                  const Recording lRecording;
                  const OQCMutexLock lLock(lMutex);
              }));
    EXPECT_EQ(0U, errorLines().find("-H-~OQCMutexLock Assertion [ %s ] failed\n|0 == pthread_mutex_unlock(apMutex)\n"));
}

TEST_F(GuardsTest, AnEarlyUnlockThatFailsThrowsAndTheDestructorLeavesTheMutexLocked)
{
    OQCMutex lMutex;
    {
        OQCMutexLock lLock(lMutex);
        substitute::pthread_mutex_unlock.fail(EPERM, 0);
        const Recording lRecording;
        EXPECT_THROW(lLock.unlock(), OQCMutexUnlockFailedEx);
    }
    EXPECT_EQ(1U, callsOf("pthread_mutex_unlock"));
    OsUnlockMutex(lMutex.get());
}

TEST_F(GuardsTest, ATryLockReportsWhetherItHoldsTheMutexAndThrowsNothing)
{
    OQCMutex lMutex;
    {
        const Holder lHolder(lMutex.get());
        const FailingMemory lFailing;
        const OQCTryLock lLock(lMutex);
        EXPECT_FALSE(lLock);
    }
    {
        const OQCTryLock lLock(lMutex);
        EXPECT_TRUE(lLock);
        EXPECT_TRUE(isHeld(lMutex.get()));
    }
    EXPECT_FALSE(isHeld(lMutex.get()));
}

TEST_F(GuardsTest, AMutexThatCannotBeDestroyedIsLogged)
{
    substitute::pthread_mutex_destroy.fail(EBUSY, 0);
    {
        const Recording lRecording;
        const OQCMutex lMutex;
    }
    EXPECT_EQ(0U, errorLines().find("-E-~Guard Failed with code %u. Error: '%s'|334|"));
}

TEST_F(GuardsTest, AMutexOrAConditionThatCannotBeInitialisedIsAnException)
{
    substitute::pthread_mutex_init.fail(EAGAIN, 0);
    substitute::pthread_cond_init.fail(EAGAIN, 0);
    const Recording lRecording;
    EXPECT_THROW(OQCMutex(), OQCMutexInitFailedEx);
    EXPECT_FAILURE(OQCCondInitFailedEx, 337, "Resource temporarily unavailable", OQCCondition());
}

// Condition variables

TEST_F(GuardsTest, ConditionsThatAreInitialisedAtTheSameTimeHaveTheirOwnAttributes)
{
    std::vector<const pthread_condattr_t*> lAttributes;
    substitute::pthread_cond_init.instead([&](pthread_cond_t* apCondition, const pthread_condattr_t* acAttributes) {
        lAttributes.push_back(acAttributes);
        if (1 == lAttributes.size()) {
            const OQCCondition lSecond;  // instead of a second thread
        }
        return substitute::pthread_cond_init.real(apCondition, acAttributes);
    });
    {
        const Recording lRecording;
        const OQCCondition lFirst;
    }
    ASSERT_EQ(2U, lAttributes.size());
    EXPECT_NE(lAttributes[0], lAttributes[1]);
}

TEST_F(GuardsTest, AWaitEndsWhenThePredicateHoldsAndHoldsTheLockAgain)
{
    OQCMutex lMutex;
    OQCCondition lChanged;
    bool lIsSet = false;
    OQCMutexLock lLock(lMutex);
    const OQCThread lSetter([&] {
        const OQCMutexLock lSetting(lMutex);
        lIsSet = true;
        lChanged.signal();
    });
    lChanged.wait(lLock, [&] { return lIsSet; });
    EXPECT_TRUE(isHeld(lMutex.get()));
    EXPECT_TRUE(lChanged.waitFor(lLock, nanoseconds::max(), [&] { return lIsSet; }));
    lLock.unlock();
}

TEST_F(GuardsTest, AWaitWithALimitReportsWhetherThePredicateHeld)
{
    OQCMutex lMutex;
    OQCCondition lChanged;
    OQCMutexLock lLock(lMutex);
    const auto lStart = steady_clock::now();
    EXPECT_FALSE(lChanged.waitFor(lLock, milliseconds(5), [] { return false; }));
    EXPECT_LE(milliseconds(5), steady_clock::now() - lStart);
    EXPECT_FALSE(lChanged.waitFor(lLock, nanoseconds::min(), [] { return false; }));
    unsigned int lTests = 0;
    EXPECT_TRUE(lChanged.waitFor(lLock, milliseconds(0), [&] { return 2 == ++lTests; }));
}

TEST_F(GuardsTest, TheLimitOfAWaitFollowsTheMonotonicClockAndNeverOverflows)
{
    OQCMutex lMutex;
    OQCCondition lChanged;
    OQCMutexLock lLock(lMutex);
    timespec lNow, lDeadline = {};
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    substitute::pthread_cond_timedwait.instead([&](pthread_cond_t*, pthread_mutex_t*, const timespec* acWhen) {
        lDeadline = *acWhen;
        return ETIMEDOUT;
    });
    const Recording lRecording;
    EXPECT_FALSE(lChanged.waitFor(lLock, hours(1), [] { return false; }));
    EXPECT_LE(lNow.tv_sec + 3600, lDeadline.tv_sec);
    EXPECT_GT(lNow.tv_sec + 3600 + 60, lDeadline.tv_sec);
    for (const OQLimit lLimit : {OQLimit(nanoseconds::max()), OQLimit(milliseconds::max()), OQLimit(hours::max())}) {
        lDeadline = {};
        EXPECT_FALSE(lChanged.waitFor(lLock, lLimit, [] { return false; }));
        EXPECT_LT(lNow.tv_sec + 3600, lDeadline.tv_sec);
    }
    substitute::pthread_cond_timedwait.fail(EPERM, 0);
    EXPECT_FAILURE(OQCCondWaitFailedEx, 339, "Operation not permitted",
                   lChanged.waitFor(lLock, hours(1), [] { return false; }));
}

TEST_F(GuardsTest, ACancelledWaitAndAPredicateThatThrowsUnlockTheMutex)
{
    NEEDS_UNWINDING();
    OQCMutex lMutex;
    OQCCondition lChanged;
    EXPECT_TRUE(isCancelled([&] {
        OQCMutexLock lLock(lMutex);
        pthread_cancel(pthread_self());
        lChanged.wait(lLock, [] { return false; });
    }));
    EXPECT_FALSE(isHeld(lMutex.get()));
    EXPECT_TRUE(isCancelled([&] {
        OQCMutexLock lLock(lMutex);
        pthread_cancel(pthread_self());
        EXPECT_FALSE(lChanged.waitFor(lLock, hours(1), [] { return false; }));
    }));
    EXPECT_FALSE(isHeld(lMutex.get()));
    try {
        OQCMutexLock lLock(lMutex);
        lChanged.wait(lLock, []() -> bool { throw 1; });
    } catch (int) {
    }
    EXPECT_FALSE(isHeld(lMutex.get()));
}

TEST_F(GuardsTest, AWaitWithoutALockIsABrokenPrecondition)
{
    OQCMutex lMutex;
    OQCCondition lChanged;
    EXPECT_EQ(1, inChild([&] {
                  OQCMutexLock lLock(lMutex);
                  lLock.unlock();
                  lChanged.wait(lLock, [] { return false; });
              }));
    EXPECT_EQ("-H-waitFor Assertion [ %s ] failed\n|mHeld\n", errorLines());
}

// Threads

TEST_F(GuardsTest, JoiningAThreadRethrowsItsException)
{
    OQCThread lThread([] { throw std::runtime_error("of the thread"); });
    EXPECT_THROW(lThread.join(), std::runtime_error);
    EXPECT_NO_THROW(lThread.join());
    OQCThread lOther([] { throw OQCTimeOutEx("late", 323); });
    EXPECT_THROW(lOther.join(), OQCTimeOutEx);
    EXPECT_EQ("", errorLines());
}

TEST_F(GuardsTest, TheDestructorOfAThreadStopsAndJoinsAndLogsWhatBothThrow)
{
    std::atomic<bool> lStop(false);
    {
        const OQCThread lThread(
            [&] {
                EXPECT_TRUE(eventually([&] { return lStop.load(); }));
                throw std::runtime_error("of the thread");
            },
            [&] {
                lStop = true;
                throw 1;
            });
    }
    EXPECT_EQ("-E-~Guard Failed with an exception of another kind\n-E-~Guard Failed. Error: '%s'|of the thread\n",
              errorLines());
}

/// Stops a thread. A copy needs memory.
struct Stopper {
    Stopper(std::atomic<bool>& arStop, const bool& acrIsFull) : mrStop(arStop), mcrIsFull(acrIsFull) {}
    Stopper(const Stopper& acrOther) : mrStop(acrOther.mrStop), mcrIsFull(acrOther.mcrIsFull)
    {
        if (mcrIsFull) {
            throw std::bad_alloc();
        }
    }
    void operator()() const { mrStop = true; }
    std::atomic<bool>& mrStop;
    const bool& mcrIsFull;
};

TEST_F(GuardsTest, AThreadIsStoppedAndJoinedWithoutMemory)
{
    std::atomic<bool> lStop(false), lOver(false);
    bool lIsFull = false;
    {
        const OQCThread lThread(
            [&] {
                EXPECT_TRUE(eventually([&] { return lStop.load(); }));
                lOver = true;
            },
            Stopper(lStop, lIsFull));
        lIsFull = true;
    }
    EXPECT_TRUE(lOver);
    EXPECT_TRUE(eventually([&] { return lOver.load(); }));  // so that a thread that is not joined does no harm
    EXPECT_EQ("", errorLines());
}

TEST_F(GuardsTest, AThreadMayEndItselfAndBeCancelled)
{
    NEEDS_UNWINDING();
    OQCThread lThread([] { OsExitThread(); });
    EXPECT_NO_THROW(lThread.join());
    OQCThread lCancelled([] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    });
    EXPECT_NO_THROW(lCancelled.join());
}

TEST_F(GuardsTest, AThreadThatJoinsItselfFailsAndCanBeJoinedByAnother)
{
    OQCMutex lMutex;
    std::unique_ptr<OQCThread> lThread;
    OQCMutexLock lLock(lMutex);
    lThread.reset(new OQCThread([&] {
        const OQCMutexLock lUntilThereIsAGuard(lMutex);
        EXPECT_THROW(lThread->join(), OQCThreadWaitForExitFailedEx);
    }));
    lLock.unlock();
    lThread->join();
}

TEST_F(GuardsTest, AMovedThreadIsJoinedOnceAndAssignmentJoinsTheOldThread)
{
    std::atomic<unsigned int> lOver(0);
    OQCThread lThread([&] { ++lOver; });
    OQCThread lMoved(std::move(lThread));
    lThread.join();
    lMoved = OQCThread([] {});
    EXPECT_EQ(1U, lOver);
}

TEST_F(GuardsTest, WhenTheSecondThreadCannotStartTheFirstRunsOnWithoutTheGuardAndIsJoinedWithIt)
{
    static std::atomic<bool> sStop, sIsDestroyed, sRanOn;
    static const auto sRun = [](void*) -> void* {
        eventually([] { return sStop.load(); });
        sRanOn = sIsDestroyed.load();
        return nullptr;
    };
    struct Member {
        ~Member() { sIsDestroyed = true; }
    };
    static unsigned long sFirst;
    struct Bare {
        Bare()
        {
            OsStartThread(sFirst, nullptr, sRun);
            unsigned long lSecond = 0;
            OsStartThread(lSecond, nullptr, sRun);
        }
        Member mMember;
    };
    struct Guarded {
        Member mMember;
        OQCThread mFirst{[] { sRun(nullptr); }, [] { sStop = true; }};
        OQCThread mSecond{[] {}};
    };
    sStop = sIsDestroyed = sRanOn = false;
    substitute::pthread_create.failOn(2, EAGAIN, EAGAIN);
    {
        const Recording lRecording;
        EXPECT_THROW(Bare(), OQCThreadStartFailedEx);
    }
    sStop = true;
    OsWaitForExit(sFirst);
    EXPECT_TRUE(sRanOn);

    sStop = sIsDestroyed = sRanOn = false;
    substitute::pthread_create.failOn(2, EAGAIN, EAGAIN);
    {
        const Recording lRecording;
        EXPECT_THROW(Guarded(), OQCThreadStartFailedEx);
    }
    EXPECT_TRUE(sIsDestroyed);
    EXPECT_FALSE(sRanOn);
}

// Pipes

TEST_F(GuardsTest, APipeIsMinusOneUntilItIsOpenAndAfterItIsClosedOrMoved)
{
    OQCPipe lPipe;
    EXPECT_EQ(-1, lPipe.get());
    lPipe = pipe();
    const int lDescriptor = lPipe.get();
    EXPECT_TRUE(isOpen(lDescriptor));
    OQCPipe lMoved(std::move(lPipe));
    EXPECT_EQ(-1, lPipe.get());
    lPipe.close();
    EXPECT_EQ(lDescriptor, lMoved.get());
    lMoved.close();
    EXPECT_EQ(-1, lMoved.get());
    EXPECT_FALSE(isOpen(lDescriptor));
    substitute::ClibClose.show();
    const Recording lRecording;
    lMoved.close();
    EXPECT_EQ(0U, callsOf("ClibClose"));
}

TEST_F(GuardsTest, AProgramInheritsTheDescriptorOfABareOpenAndNotThatOfThePipe)
{
    int lBare = -1;
    OsNamedPipeOpen(lBare, fifo(), OQFM_Mode1, OQPS_Blocking, OQCM_Client);
    EXPECT_EQ(0, Shell("test -e /proc/$$/fd/" + std::to_string(lBare)).start().wait());
    close(lBare);
    OQCPipe lPipe = pipe();
    EXPECT_EQ(1, Shell("test -e /proc/$$/fd/" + std::to_string(lPipe.get())).start().wait());
    lPipe.close();

    int lFlags = 0;
    substitute::ClibOpen.instead([&](const char*, int aFlags, int) {
        lFlags = aFlags;
        errno = EMFILE;
        return -1;
    });
    const Recording lRecording;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "Too many open files", OQCPipe("x", OQFM_Append, OQPS_NonBlocking));
    EXPECT_EQ(O_RDONLY | O_APPEND | O_DSYNC | O_CLOEXEC | O_NONBLOCK, lFlags);
}

TEST_F(GuardsTest, AFailedOpenIsSilentWithoutTheGuardAndAnExceptionWithIt)
{
    int lBare = -1;
    EXPECT_NO_THROW(OsNamedPipeOpen(lBare, path("none").c_str(), OQFM_Mode1, OQPS_Blocking, OQCM_Client));
    EXPECT_EQ(-1, lBare);
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "No such file or directory",
                   OQCPipe(path("none").c_str(), OQFM_Mode1, OQPS_Blocking));
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "No such file or directory", OQCPipe(open(path("none").c_str(), O_RDONLY)));
    EXPECT_FAILURE(OQCInvalidEx, 6, "Invalid argument", OQCPipe("x", static_cast<OQEFileMode>(5), OQPS_Blocking));
}

TEST_F(GuardsTest, APartialWriteIsSilentWithoutTheGuardAndAResultWithIt)
{
    const std::string lData(1000000, 'x');
    OQCPipe lPipe = pipe(OQPS_NonBlocking);
    const unsigned int lWritten = lPipe.write(lData.data(), 1000000);
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_LT(4096U, lWritten);
    EXPECT_GT(1000000U, lWritten);
    unsigned int lDone = 77;
    EXPECT_NO_THROW(OsNamedPipeWrite(lPipe.get(), reinterpret_cast<const unsigned char*>("x"), 1, lDone));
    EXPECT_EQ(77U, lDone);
    EXPECT_EQ(0U, lPipe.write("x", 1));
    OQCPipe lNone;
    EXPECT_EQ(0U, lNone.write("x", 1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(GuardsTest, WritesContinueAfterPartsAndSignals)
{
    unsigned int lCalls = 0;
    std::string lReceived;
    substitute::ClibWrite.instead([&](int, const void* acData, unsigned int aCount) {
        if (0 != ++lCalls % 2) {
            errno = EINTR;
            return -1;
        }
        const unsigned int lPart = std::min(aCount, 2U);
        lReceived.append(static_cast<const char*>(acData), lPart);
        return static_cast<int>(lPart);
    });
    OQCPipe lPipe = pipe();
    const Recording lRecording;
    EXPECT_EQ(5U, lPipe.write("12345", 5));
    EXPECT_EQ("12345", lReceived);
}

TEST_F(GuardsTest, ReadsContinueAfterSignalsAndReportDataEndAndErrors)
{
    OQCPipe lPipe = pipe(OQPS_NonBlocking);
    EXPECT_EQ(0U, lPipe.read(mBuffer, sizeof mBuffer));
    EXPECT_EQ(EAGAIN, errno);
    ASSERT_EQ(3U, lPipe.write("abc", 3));
    {
        substitute::ClibRead.failOn(1, -1, EINTR);
        const Recording lRecording;
        EXPECT_EQ(3U, lPipe.read(mBuffer, sizeof mBuffer));
        substitute::ClibRead.fail(-1, EIO);
        EXPECT_FAILURE(OQCReadFailedEx, 328, "Input/output error", lPipe.read(mBuffer, sizeof mBuffer));
        substitute::ClibRead.fail(0, 0);
        EXPECT_EQ(0U, lPipe.read(mBuffer, sizeof mBuffer));
        EXPECT_EQ(0, errno);
    }
}

// Mailboxes

TEST_F(GuardsTest, AMessagePassesAndTheServerRemovesTheSegment)
{
    {
        OQCMailbox lServer(key(), cSize, OQCM_Server);
        EXPECT_FALSE(lServer.write("early", 5)) << "there is no client";
        OQCMailbox lClient(key(), cSize, OQCM_Client);
        EXPECT_EQ(100U, lClient.capacity());
        EXPECT_FALSE(lClient.receive(mBuffer, sizeof mBuffer, mLength, milliseconds(3)));
        EXPECT_TRUE(lServer.write("hello", 5));
        OQCMailbox lMoved(std::move(lClient));
        ASSERT_TRUE(lMoved.receive(mBuffer, sizeof mBuffer, mLength, milliseconds(0)));
        EXPECT_EQ("hello", std::string(mBuffer, mLength));
        EXPECT_TRUE(lMoved.write("", 0));
        EXPECT_TRUE(lServer.receive(mBuffer, 0, mLength, hours(1)));
        EXPECT_EQ(0U, mLength);
    }
    EXPECT_FALSE(isSegment(key()));
}

TEST_F(GuardsTest, SizesAreCheckedBeforeTheLayerAsserts)
{
    const auto lRefused = [](int aKey, unsigned int aSize, OQEConnectionMode aSide) {
        EXPECT_THROW(OQCMailbox(aKey, aSize, aSide), OQCInvalidEx) << aKey << " " << aSize;
    };
    lRefused(0, cSize, OQCM_Server);
    lRefused(-1, cSize, OQCM_Client);
    lRefused(key(), 6, OQCM_Server);
    lRefused(key(), 65536, OQCM_Server);
    lRefused(key(), 65536 + cSize, OQCM_Server);
    lRefused(key(), cSize, static_cast<OQEConnectionMode>(2));
    OQCMailbox lServer(key(), cSize, OQCM_Server);
    OQCMailbox lClient(key(), 20, OQCM_Client);
    EXPECT_THROW(EXPECT_FALSE(lServer.write(mBuffer, 101)), OQCInvalidEx);
    ASSERT_TRUE(lServer.write("0123456789abcdef", 16));
    EXPECT_THROW(EXPECT_FALSE(lClient.receive(mBuffer, sizeof mBuffer, mLength, hours(0))), OQCInvalidEx);
    EXPECT_THROW(EXPECT_FALSE(lServer.receive(mBuffer, 15, mLength, hours(0))), OQCInvalidEx);
    EXPECT_EQ(0U, mLength);
    EXPECT_TRUE(lServer.receive(mBuffer, 16, mLength, hours(0))) << "the message stays";
    EXPECT_EQ("", errorLines());
}

TEST_F(GuardsTest, AWriteToAnOccupiedSlotReturnsFalse)
{
    OQCMailbox lServer(key(), cSize, OQCM_Server);
    OQCMailbox lClient(key(), cSize, OQCM_Client);
    EXPECT_TRUE(lClient.write("1", 1));
    long lNow = 0;
    substitute::ClibGetTime.instead([&](long& arSeconds, unsigned short& arMilliseconds) {
        arSeconds = lNow += 4;
        arMilliseconds = 0;
    });
    const Recording lRecording;
    EXPECT_FALSE(lClient.write("2", 1));
}

TEST_F(GuardsTest, AServerOpenThatFailsLeavesItsSegmentWithoutTheGuardAndNothingWithIt)
{
    substitute::shmctl.instead([](int aId, int aCommand, shmid_ds* apState) {
        errno = EPERM;
        return SHM_LOCK == aCommand ? -1 : substitute::shmctl.real(aId, aCommand, apState);
    });
    OQShmDesc lBare = {key(), cSize, -1, nullptr};
    const Recording lRecording;
    EXPECT_THROW(OsSharedMemoryOpen(lBare, OQCM_Server), OQCFileLockFailedEx);
    EXPECT_TRUE(isSegment(key()));
    shmctl(lBare.shm_id, IPC_RMID, nullptr);
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Operation not permitted", OQCMailbox(key(), cSize, OQCM_Server));
    EXPECT_FALSE(isSegment(key()));
}

TEST_F(GuardsTest, AFailureOfAnyCallOfAnOpenLeavesNothing)
{
    for (unsigned int lCall = 1; lCall <= 2; ++lCall) {
        substitute::shmat.failOn(lCall, reinterpret_cast<void*>(-1), ENOMEM);
        EXPECT_EQ("326 Cannot allocate memory", failureOfAServer()) << lCall;
        EXPECT_FALSE(isSegment(key())) << lCall;
    }
    substitute::shmat.failOn(99, nullptr, 0);
    for (unsigned int lCall = 2; lCall <= 3; ++lCall) {
        substitute::shmget.failOn(lCall, -1, ENOSPC);
        EXPECT_EQ("326 No space left on device", failureOfAServer()) << lCall;
        EXPECT_FALSE(isSegment(key())) << lCall;
    }
    substitute::shmget.failOn(99, -1, 0);
    for (unsigned int lCall = 1; lCall <= 3; ++lCall) {
        substitute::shmctl.failOn(lCall, -1, EACCES);
        const char* const cCodes[] = {"326", "173", "330"};  // the guard's own call, then those of the layer's open
        EXPECT_EQ(std::string(cCodes[lCall - 1]) + " Permission denied", failureOfAServer());
        EXPECT_FALSE(isSegment(key())) << lCall;
    }
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "No such file or directory", OQCMailbox(key(), cSize, OQCM_Client));
}

TEST_F(GuardsTest, AServerThatMayNotRemoveAnUnusedSegmentThrowsTheSystemsText)
{
    const int lOld = shmget(key(), 7, IPC_CREAT | 0666);
    substitute::shmctl.failOn(2, -1, EPERM);  // IPC_RMID
    EXPECT_EQ("326 Operation not permitted", failureOfAServer());
    EXPECT_EQ(0, shmctl(lOld, IPC_RMID, nullptr));
}

TEST_F(GuardsTest, AServerTakesTheKeyOfASegmentThatNobodyUses)
{
    ASSERT_LE(0, shmget(key(), 7, IPC_CREAT | 0666));
    OQCMailbox lServer(key(), cSize, OQCM_Server);
    EXPECT_NO_THROW(OQCMailbox(key(), cSize, OQCM_Client)) << "the old one was too small";
}

TEST_F(GuardsTest, AServerTakesTheKeyOfASegmentWithTheIdZero)
{
    const int lOld = shmget(key(), 7, IPC_CREAT | 0666);
    substitute::shmget.instead([=](key_t aKey, size_t aSize, int aFlags) {
        const int lId = substitute::shmget.real(aKey, aSize, aFlags);
        return lOld == lId ? 0 : lId;
    });
    substitute::shmat.instead([=](int aId, const void* acAddress, int aFlags) {
        return substitute::shmat.real(0 == aId ? lOld : aId, acAddress, aFlags);
    });
    substitute::shmctl.instead([=](int aId, int aCommand, shmid_ds* apState) {
        return substitute::shmctl.real(0 == aId ? lOld : aId, aCommand, apState);
    });
    EXPECT_EQ("no exception", failureOfAServer());
    EXPECT_EQ(-1, shmctl(lOld, IPC_RMID, nullptr)) << "the server has removed the segment";
}

TEST_F(GuardsTest, AServerOpensWhileAnotherIsRefused)
{
    const OQCMailbox lBusy(key(), cSize, OQCM_Server);
    bool lIsRefused = false;
    substitute::shmctl.instead([&](int aId, int aCommand, shmid_ds* apState) {
        const int lResult = substitute::shmctl.real(aId, aCommand, apState);
        if (IPC_STAT == aCommand && !lIsRefused) {
            lIsRefused = true;  // before the second server, which comes here, too
            EXPECT_EQ("326 Device or resource busy", failureOfAServer());
        }
        return lResult;
    });
    const Recording lRecording;
    EXPECT_NO_THROW(OQCMailbox(key() + 1, cSize, OQCM_Server));
    EXPECT_TRUE(lIsRefused);
}

TEST_F(GuardsTest, ASecondServerEmptiesTheMailboxOfTheFirstWithoutTheGuardAndIsRefusedWithIt)
{
    Peer lFirst([](Peer& arOther) {
        OQCMailbox lServer(key(), cSize, OQCM_Server);
        OQCMailbox lClient(key(), cSize, OQCM_Client);
        EXPECT_TRUE(lClient.write("unread", 6));
        arOther.signal();
        arOther.meet();
    });
    const key_t lKey = ((lFirst.pid() << 8)) & 0x7fffffff;
    lFirst.meet();
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "Device or resource busy", OQCMailbox(lKey, cSize, OQCM_Server));
    OQShmDesc lBare = {lKey, cSize, -1, nullptr};
    OsSharedMemoryOpen(lBare, OQCM_Client);
    EXPECT_EQ(1, lBare.shm_addr->data_ready);
    OsSharedMemoryClose(lBare, OQCM_Client);
    OsSharedMemoryOpen(lBare, OQCM_Server);
    EXPECT_EQ(0, lBare.shm_addr->data_ready);
    OsSharedMemoryClose(lBare, OQCM_Client);
    lFirst.signal();
    EXPECT_EQ(0, lFirst.wait());
    EXPECT_FALSE(isSegment(lKey));
}

TEST_F(GuardsTest, OfServersThatStartAtTheSameMomentAtMostOneSucceedsAndNothingIsLeft)
{
    struct Shared {
        std::atomic<unsigned int> mGo, mDone, mServers, mMost;
    };
    Shared* const lpShared =
        static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const unsigned int cPeers = 4, cRounds = 20;
    const key_t lKey = key();
    unsigned int lSuccesses = 0;
    for (unsigned int lRound = 0; lRound < cRounds; ++lRound) {
        lpShared->mGo = lpShared->mDone = lpShared->mServers = 0;
        const int lStale = 0 == lRound % 2 ? shmget(lKey, 7, IPC_CREAT | 0666) : -1;
        std::vector<std::unique_ptr<Peer>> lPeers;
        for (unsigned int lPeer = 0; lPeer < cPeers; ++lPeer) {
            lPeers.emplace_back(new Peer([=](Peer&) {
                ++lpShared->mGo;
                eventually([=] { return cPeers == lpShared->mGo; });
                try {
                    const OQCMailbox lServer(lKey, cSize, OQCM_Server);
                    ++lpShared->mServers;
                    ++lpShared->mDone;
                    EXPECT_TRUE(eventually([=] { return cPeers == lpShared->mDone; }));
                } catch (const OQCOpenFailedEx&) {
                    ++lpShared->mDone;
                }
            }));
        }
        for (const auto& lrPeer : lPeers) {
            EXPECT_EQ(0, lrPeer->wait());
        }
        EXPECT_GE(1U, lpShared->mServers);
        lSuccesses += lpShared->mServers;
        if (0 == lpShared->mServers && 0 <= lStale) {
            shmctl(lStale, IPC_RMID, nullptr);  // every server has seen the others in the stale segment
        }
        EXPECT_FALSE(isSegment(lKey)) << lRound;
    }
    EXPECT_LT(0U, lSuccesses);
    munmap(lpShared, sizeof(Shared));
}

TEST_F(GuardsTest, AMailboxLogsAFailedClose)
{
    const void* lpStays = nullptr;
    substitute::shmctl.failOn(7, -1, EPERM);  // SHM_UNLOCK
    {
        const Recording lRecording;
        const OQCMailbox lServer(key(), cSize, OQCM_Server);
        lpStays = lServer.get().shm_addr;
    }
    EXPECT_EQ("-E-~Guard Failed with code %u. Error: '%s'|331|Operation not permitted\n", errorLines());
    EXPECT_EQ(0, shmdt(lpStays));
}

// File locks

class FileGuardsTest : public GuardsTest
{
protected:
    void SetUp() override
    {
        GuardsTest::SetUp();
        mName = path("file");
        mFile = open(mName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    }
    void TearDown() override
    {
        close(mFile);
        unlink(mName.c_str());
        GuardsTest::TearDown();
    }
    /// Returns whether another process finds a lock.
    bool isLocked()
    {
        return 0 != inChild([this] {
                   const int lFile = open(mName.c_str(), O_RDWR);
                   _exit(0 == lockf(lFile, F_TEST, 0) ? 0 : 1);
               });
    }
    std::string mName;
    int mFile = -1;
};

TEST_F(FileGuardsTest, UnlockingAfterAWriteLeavesTheFirstBytesLockedWithoutTheGuardAndNoneWithIt)
{
    OsLockFile(mFile);
    EXPECT_EQ(5, write(mFile, "12345", 5));
    OsUnlockFile(mFile);
    EXPECT_TRUE(isLocked());
    {
        OQCFileLock lLock(mFile);
        EXPECT_TRUE(isLocked());
        EXPECT_EQ(5, write(mFile, "12345", 5));
        const OQCFileLock lMoved(std::move(lLock));
        EXPECT_TRUE(isLocked());
    }
    EXPECT_FALSE(isLocked());
    EXPECT_EQ("", errorLines());
}

TEST_F(FileGuardsTest, AWaitLogsOneErrorLineAtItsEndAndGetsALockThatIsReleased)
{
    NEEDS_UNWINDING();
    Peer lOther([this](Peer& arOther) {
        const int lFile = open(mName.c_str(), O_RDWR);
        EXPECT_EQ(0, lockf(lFile, F_LOCK, 0));
        arOther.signal();
        arOther.meet();
    });
    lOther.meet();
    bool lSleeps = false;
    substitute::ClibSleepMS.instead([&](unsigned long aMilliseconds) {
        lSleeps = true;
        substitute::ClibSleepMS.real(aMilliseconds);
    });
    {
        const Recording lRecording;
        EXPECT_THROW(OQCFileLock lLock(mFile), OQCFileLockFailedEx);
    }
    EXPECT_FALSE(lSleeps) << "without a limit there is no wait";
    clearEvents();
    EXPECT_THROW(OQCFileLock(mFile, milliseconds(20)), OQCFileLockFailedEx);
    const std::string lLines = errorLines();
    EXPECT_EQ(1, std::count(lLines.begin(), lLines.end(), '\n')) << lLines;
    EXPECT_TRUE(isCancelled([this] {
        pthread_cancel(pthread_self());
        OQCFileLock(mFile, hours(1));
    }));
    lOther.signal();
    {
        const OQCFileLock lLock(mFile, hours(1));
        EXPECT_TRUE(isLocked());
    }
    EXPECT_EQ(0, lOther.wait());
}

TEST_F(FileGuardsTest, AnErrorOtherThanALockEndsTheWaitAtOnce)
{
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Bad file descriptor", OQCFileLock(-1, hours(1)));
    int lCopy = dup(mFile);
    {
        const OQCFileLock lLock(lCopy);
        close(lCopy);
    }
    EXPECT_EQ("-E-~Guard Failed with code %u. Error: '%s'|331|Bad file descriptor\n",
              errorLines().substr(errorLines().rfind("-E-")));
}

// Processes

TEST_F(GuardsTest, AChildReportsItsExitCodeOrItsSignal)
{
    OQCProcess lExits = Shell("exit 7").start();
    EXPECT_LT(0, lExits.id());
    EXPECT_EQ(7, lExits.wait());
    EXPECT_EQ(7, lExits.wait());
    EXPECT_EQ(-1, lExits.id());
    EXPECT_FALSE(lExits.kill());
    EXPECT_EQ(-SIGTERM, Shell("kill -TERM $$").start().wait());
}

TEST_F(GuardsTest, AWaitForAChildHasALimit)
{
    OQCProcess lSleeps = Shell("exec sleep 1000").start();
    EXPECT_FALSE(lSleeps.waitFor(milliseconds(5)));
    EXPECT_TRUE(lSleeps.kill());
    EXPECT_TRUE(lSleeps.waitFor(hours(1)));
    EXPECT_EQ(-SIGKILL, lSleeps.wait());
}

TEST_F(GuardsTest, TheDestructorWaitsKillsOrLeaves)
{
    Shell lSleeps("exec sleep 1000");
    {
        const std::string lFile = path("done");
        Shell("sleep 0.05; : >" + lFile).start(OQAE_Wait);
        EXPECT_EQ(0, unlink(lFile.c_str()));
    }
    lSleeps.start(OQAE_Kill);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    OQCProcess lLeft = lSleeps.start(OQAE_Leave);
    const int lId = lLeft.id();
    lLeft = lSleeps.start(OQAE_Kill);
    EXPECT_EQ(0, kill(lId, SIGKILL));
    EXPECT_EQ(lId, waitpid(lId, nullptr, 0));
    OQCProcess lMoved(std::move(lLeft));
    EXPECT_EQ(-1, lLeft.id());
    EXPECT_FALSE(lMoved.waitFor(milliseconds(0)));
}

TEST_F(GuardsTest, AChildThatWasReapedElsewhereIsAnExceptionAndNoSignalIsSent)
{
    {
        OQCProcess lChild = Shell("exit 3").start(OQAE_Kill);
        EXPECT_EQ(lChild.id(), waitpid(lChild.id(), nullptr, 0));
        OQCProcess lOther = Shell("exit 3").start(OQAE_Kill);
        EXPECT_EQ(lOther.id(), waitpid(lOther.id(), nullptr, 0));
        EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "No child processes", lOther.wait());
        EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "No child processes", lOther.wait());
        substitute::kill.show();
        Recording lRecording;
        const OQCProcess lMoved(std::move(lChild));
    }
    EXPECT_EQ(0U, callsOf("kill"));
    EXPECT_EQ("", errorLines());
}

TEST_F(GuardsTest, ASignalInterruptsNoWait)
{
    RegisterSignalHandler(SIGUSR1, [](int) {});
    const int lParent = getpid();
    EXPECT_EQ(4,
              Shell("for i in 1 2 3 4 5; do kill -USR1 " + std::to_string(lParent) + "; done; exit 4").start().wait());
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(GuardsTest, ACancelledWaitLeavesTheChildToTheDestructor)
{
    NEEDS_UNWINDING();
    EXPECT_TRUE(isCancelled([] {
        OQCProcess lSleeps = Shell("exec sleep 1000").start(OQAE_Kill);
        pthread_cancel(pthread_self());
        lSleeps.wait();
    }));
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
}

TEST_F(GuardsTest, AFailedStartContinuesAsASecondProcessWithoutTheGuardAndAsOneWithIt)
{
    std::atomic<int>* const lpCopies = static_cast<std::atomic<int>*>(
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    *lpCopies = 0;
    inChild([&] {
        char lName[] = "program";
        char* const lArgv[] = {lName, nullptr};
        try {
            waitpid(ProcessCreate("/nonexistent/program", lArgv, cNoEnvironment), nullptr, 0);
        } catch (const OQCProcessCreationFailedEx&) {
        }
        ++*lpCopies;
    });
    EXPECT_EQ(2, *lpCopies);
    *lpCopies = 0;
    clearEvents();
    EXPECT_EQ(0, inChild([&] {
                  EXPECT_FAILURE(OQCProcessCreationFailedEx, 345, "No such file or directory", startNothing());
                  ++*lpCopies;
              }));
    EXPECT_EQ(1, *lpCopies);
    munmap(lpCopies, sizeof *lpCopies);
    EXPECT_EQ("-T- \"Starting %s\" \"/nonexistent/program\"\n", traceOf(recorded(), "OQCProcess", "linux/OQGuards"));
}

TEST_F(GuardsTest, AProcessRefusesASignalThatDoesNotExistAndWaitsOnWhenInterrupted)
{
    OQCProcess lSleeps = Shell("exec sleep 1000").start(OQAE_Kill);
    EXPECT_FALSE(lSleeps.kill(1000));
    static std::atomic<bool> sIsHandled;
    sIsHandled = false;
    RegisterSignalHandler(SIGUSR1, [](int) { sIsHandled = true; });
    const pthread_t lWaiter = pthread_self();
    const int lChild = lSleeps.id();
    OQCThread lDisturber([&] {
        EXPECT_TRUE(eventually([&] {
            pthread_kill(lWaiter, SIGUSR1);
            return sIsHandled.load();
        }));
        pthread_kill(lWaiter, SIGUSR1);
        kill(lChild, SIGTERM);
    });
    EXPECT_EQ(-SIGTERM, lSleeps.wait());
    lDisturber.join();
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(GuardsTest, APipeTakesOverTheDescriptorOfAnotherOpenAndRefusesModeZero)
{
    const OQCPipe lNull(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_LE(0, lNull.get());
    EXPECT_THROW(OQCPipe("x", static_cast<OQEFileMode>(0), OQPS_Blocking), OQCInvalidEx);
}

TEST_F(GuardsTest, APipeWithoutADescriptorIsAnExceptionAndClosesNothing)
{
    const Recording lRecording;
    errno = 0;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "Bad file descriptor", OQCPipe(-1));
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "No such file or directory",
                   OQCPipe("/nonexistent/fifo", OQFM_Mode1, OQPS_Blocking));
    EXPECT_EQ(0U, callsOf("ClibClose"));
    static char sText[] = "a text that the host keeps";
    ptrdiff_t lDistance = 0;
    substitute::ClibStrerror.instead([&](char* apBuffer, unsigned int) {
        lDistance = apBuffer - reinterpret_cast<char*>(&lDistance);
        return sText;
    });
    EXPECT_FAILURE(OQCOpenFailedEx, 326, sText, OQCPipe(-1));
    if (!OQ_SANITIZED) {  // a sanitizer may keep local variables elsewhere
        EXPECT_GT(100000, std::abs(lDistance)) << "threads share the buffer";
    }
}

TEST_F(GuardsTest, APipeThatGetsNoMemoryClosesTheDescriptor)
{
    if (!FailingMemory::isPossible()) {
        GTEST_SKIP() << "allocations cannot fail here";
    }
    const int lNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    bool lHasThrown = false;
    try {
        const FailingMemory lFailing(1, false);
        const OQCPipe lPipe(lNull);
    } catch (const std::bad_alloc&) {
        lHasThrown = true;
    }
    EXPECT_TRUE(lHasThrown);
    EXPECT_FALSE(isOpen(lNull));
}

TEST_F(GuardsTest, AServerRefusesASegmentThatIsBeingRemoved)
{
    substitute::shmctl.instead([](int aId, int aCommand, shmid_ds* apState) {
        const int lResult = substitute::shmctl.real(aId, aCommand, apState);
        if (IPC_STAT == aCommand) {
            apState->shm_perm.mode |= SHM_DEST;
        }
        return lResult;
    });
    const Recording lRecording;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "Device or resource busy", OQCMailbox(key(), cSize, OQCM_Server));
}

// Signals

TEST_F(GuardsTest, ABlockLastsForItsScope)
{
    static std::atomic<unsigned int> sSignals;
    sSignals = 0;
    RegisterSignalHandler(SIGUSR1, [](int) { ++sSignals; });
    {
        OQCSignalBlock lBlock{SIGUSR1};
        {
            const OQCSignalBlock lInner{SIGUSR1, SIGUSR2};
            EXPECT_TRUE(isBlocked(SIGUSR2));
        }
        EXPECT_FALSE(isBlocked(SIGUSR2));
        const OQCSignalBlock lMoved(std::move(lBlock));
        EXPECT_TRUE(isBlocked(SIGUSR1));
        raise(SIGUSR1);
        EXPECT_EQ(0U, sSignals);
        errno = EILSEQ;
    }
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ(1U, sSignals);
    EXPECT_FALSE(isBlocked(SIGUSR1));
    signal(SIGUSR1, SIG_DFL);
}

TEST_F(GuardsTest, AChildInheritsABlockFromABareStartAndNotFromAProcess)
{
    const OQCSignalBlock lOuter{SIGUSR1};
    const OQCSignalBlock lInner{SIGUSR2};
    EXPECT_EQ(1, Shell(cLeavesNoBlockedSignal).resultBare());
    EXPECT_EQ(0, Shell(cLeavesNoBlockedSignal).start().wait());
    OQCThread lThread([] {
        EXPECT_TRUE(isBlocked(SIGUSR1));
        const OQCSignalBlock lOwn{SIGHUP};
        EXPECT_EQ(0, Shell(cLeavesNoBlockedSignal).start().wait());
    });
    lThread.join();
}

TEST_F(GuardsTest, AProgramStartsWithNoBlockedSignal)
{
    const sigset_t lMask = maskNow(0);
    sigset_t lMore;
    sigemptyset(&lMore);
    sigaddset(&lMore, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &lMore, nullptr);
    EXPECT_EQ(0, Shell(cLeavesNoBlockedSignal).start().wait());
    pthread_sigmask(SIG_SETMASK, &lMask, nullptr);
}

// Every guard

TEST_F(GuardsTest, ClosingWhileACancellationIsPendingEndsTheProcessWithoutTheGuard)
{
    struct Bare {
        ~Bare() { OsNamedPipeClose(mPipe, OQCM_Client); }
        int mPipe;
    };
    const int lPipe = pipe().get();
    EXPECT_EQ(-SIGABRT, inChild([=] {
        isCancelled([=] {
            const Bare lBare{lPipe};
            pthread_cancel(pthread_self());
        });
    }));
}

TEST_F(FileGuardsTest, ClosingWhileACancellationIsPendingWorksWithEveryGuard)
{
    NEEDS_UNWINDING();
    OQCMutex lMutex;
    EXPECT_TRUE(isClosedBeforeCancellation([] { return OQCMutex(); }));
    EXPECT_TRUE(isClosedBeforeCancellation([&] { return OQCMutexLock(lMutex); }));
    EXPECT_TRUE(isClosedBeforeCancellation([] { return OQCCondition(); }));
    EXPECT_TRUE(isClosedBeforeCancellation([] { return OQCThread([] {}); }));
    EXPECT_TRUE(isClosedBeforeCancellation([this] { return pipe(); }));
    EXPECT_TRUE(isClosedBeforeCancellation([] { return OQCMailbox(key(), cSize, OQCM_Server); }));
    EXPECT_TRUE(isClosedBeforeCancellation([this] { return OQCFileLock(mFile); }));
    EXPECT_TRUE(isClosedBeforeCancellation([] { return Shell("sleep 0.05").start(); }));
    EXPECT_TRUE(isClosedBeforeCancellation([] { return OQCSignalBlock{SIGUSR1}; }));
    EXPECT_FALSE(isHeld(lMutex.get()));
    EXPECT_EQ("", errorLines());
}

TEST_F(FileGuardsTest, UnwindingACancelledThreadClosesEveryGuard)
{
    NEEDS_UNWINDING();
    OQCMutex lMutex;
    EXPECT_TRUE(isCancelled([&] {
        OQCCondition lCondition;
        OQCPipe lPipe = pipe();
        const OQCMailbox lServer(key(), cSize, OQCM_Server);
        const OQCFileLock lFileLock(mFile);
        const OQCProcess lProcess = Shell("exec sleep 1000").start(OQAE_Kill);
        std::atomic<bool> lStop(false);
        const OQCThread lThread([&] { eventually([&] { return lStop.load(); }); }, [&] { lStop = true; });
        const OQCSignalBlock lBlock{SIGUSR1};
        const OQCMutexLock lLock(lMutex);
        pthread_cancel(pthread_self());
        lPipe.read(mBuffer, 1);
    }));
    EXPECT_FALSE(isHeld(lMutex.get()));
    EXPECT_FALSE(isSegment(key()));
    EXPECT_FALSE(isLocked());
    EXPECT_EQ("", errorLines());
}

/// Returns whether errno keeps its value while a guard is destroyed.
template <class Make>
bool keepsErrno(Make aMake)
{
    {
        const auto lGuard = aMake();
        errno = EILSEQ;
    }
    return EILSEQ == errno;
}

TEST_F(FileGuardsTest, EveryDestructorPreservesErrno)
{
    OQCMutex lMutex;
    substitute::ClibClose.instead([](int aPipe) {
        close(aPipe);
        errno = EIO;
        return -1;
    });
    const Recording lRecording;
    EXPECT_TRUE(keepsErrno([] { return OQCMutex(); }));
    EXPECT_TRUE(keepsErrno([&] { return OQCMutexLock(lMutex); }));
    EXPECT_TRUE(keepsErrno([] { return OQCCondition(); }));
    EXPECT_TRUE(keepsErrno([] { return OQCThread([] {}, [] { errno = EDOM; }); }));
    EXPECT_TRUE(keepsErrno([this] { return pipe(); }));
    EXPECT_TRUE(keepsErrno([] { return OQCMailbox(key(), cSize, OQCM_Server); }));
    EXPECT_TRUE(keepsErrno([this] { return OQCFileLock(mFile); }));
    EXPECT_TRUE(keepsErrno([] { return Shell("exit 0").start(); }));
    EXPECT_TRUE(keepsErrno([] { return OQCSignalBlock{SIGUSR1}; }));
}

}  // namespace
