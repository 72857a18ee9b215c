#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

/// Where an error text was to go, and how many lines had been logged by then.
struct AskedText {
    char* mpBuffer;
    unsigned int mSize;
    size_t mLines;
};

std::vector<AskedText>* spAskedTexts = nullptr;  // receives them
bool sNumberTexts = false;                       // the n-th text is "text n", outside the buffer

unsigned long sHandleOfFailedStart = 0;  // what a failing pthread_create() leaves in the handle
std::atomic<void**> spExitValue(nullptr);
std::atomic<int> sDetachState(-1);  // last set
std::atomic<size_t> sStackSize(0);  // last set
thread_local bool sTestsThread = false;

}  // namespace

OQ_FAULTY(int, pthread_cancel, (pthread_t aThread), (aThread), )

Fault pthread_attr_setdetachstateFault;
extern "C" int pthread_attr_setdetachstate(pthread_attr_t* apAttributes, int aState) noexcept
{
    sDetachState = aState;
    if (pthread_attr_setdetachstateFault.fires()) {
        return static_cast<int>(pthread_attr_setdetachstateFault.result());
    }
    static Behind<int(pthread_attr_t*, int)> lReal("pthread_attr_setdetachstate");
    return lReal(apAttributes, aState);
}

Fault pthread_attr_setstacksizeFault;
extern "C" int pthread_attr_setstacksize(pthread_attr_t* apAttributes, size_t aSize) noexcept
{
    sStackSize = aSize;
    if (pthread_attr_setstacksizeFault.fires()) {
        return static_cast<int>(pthread_attr_setstacksizeFault.result());
    }
    static Behind<int(pthread_attr_t*, size_t)> lReal("pthread_attr_setstacksize");
    return lReal(apAttributes, aSize);
}

#ifdef __SANITIZE_THREAD__
#define UNWATCHED __attribute__((no_sanitize_thread))
#else
#define UNWATCHED
#endif

// The thread sanitizer calls these two itself, in threads that it does not know yet and where no code that it watches
// may run. So they count and fail only in the test's own thread.
#define ATTRIBUTES_FAULTY(function)                                          \
    Fault function##Fault;                                                   \
    extern "C" UNWATCHED int function(pthread_attr_t* apAttributes) noexcept \
    {                                                                        \
        static int (*spReal)(pthread_attr_t*) = nullptr;                     \
        if (nullptr == spReal) {                                             \
            spReal = behind<int(pthread_attr_t*)>(#function);                \
        }                                                                    \
        if (sTestsThread && function##Fault.fires()) {                       \
            return static_cast<int>(function##Fault.result());               \
        }                                                                    \
        return spReal(apAttributes);                                         \
    }

ATTRIBUTES_FAULTY(pthread_attr_init)
ATTRIBUTES_FAULTY(pthread_attr_destroy)

Fault pthread_createFault;
extern "C" int pthread_create(pthread_t* apThread, const pthread_attr_t* acAttributes, void* (*apRoutine)(void*),
                              void* apArgument) noexcept
{
    if (pthread_createFault.fires()) {
        if (0 != sHandleOfFailedStart) {
            *apThread = sHandleOfFailedStart;
        }
        return static_cast<int>(pthread_createFault.result());
    }
    static Behind<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> lReal("pthread_create");
    return lReal(apThread, acAttributes, apRoutine, apArgument);
}

Fault pthread_joinFault;
extern "C" int pthread_join(pthread_t aThread, void** apExitValue)
{
    spExitValue = apExitValue;
    if (pthread_joinFault.fires()) {
        return static_cast<int>(pthread_joinFault.result());
    }
    static Behind<int(pthread_t, void**)> lReal("pthread_join");
    return lReal(aThread, apExitValue);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    if (nullptr == spAskedTexts) {
        return lReal(apBuffer, aSize);
    }
    const int lErrno = errno;
    spAskedTexts->push_back({apBuffer, aSize, logged().size()});
    errno = lErrno;
    static char sTexts[][8] = {"text 1", "text 2", "text 3"};
    return sNumberTexts ? sTexts[(spAskedTexts->size() - 1) % 3] : lReal(apBuffer, aSize);
}

namespace
{

const LinesOf cStart(".//ThreadLinux", "OsStartThread");
const LinesOf cWait(".//ThreadLinux", "OsWaitForExit");
const LinesOf cDestroy(".//ThreadLinux", "OsDestroyThread");

/// One thread opens it, another passes then.
class Gate
{
public:
    void open() { mPromise.set_value(); }
    void pass() { mPromise.get_future().wait(); }

private:
    std::promise<void> mPromise;
};

/// Tells by its destructor that a frame was left.
class Frame
{
public:
    explicit Frame(bool& arLeft) : mrLeft(arLeft) {}
    ~Frame() { mrLeft = true; }

private:
    bool& mrLeft;
};

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

void* returnAtOnce(void* apArgument) { return apArgument; }

/// Memory that can be neither read nor written.
class ForbiddenHandle
{
public:
    ForbiddenHandle() : mpPage(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {}
    ~ForbiddenHandle() { munmap(mpPage, 4096); }
    unsigned long& get() { return *static_cast<unsigned long*>(mpPage); }

private:
    void* mpPage;
};

class ThreadLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        pthread_attr_t lAttributes;
        pthread_attr_init(&lAttributes);  // finds the real functions
        pthread_attr_destroy(&lAttributes);
        sTestsThread = true;
    }
    void TearDown() override
    {
        sTestsThread = false;
        spAskedTexts = nullptr;
        sNumberTexts = false;
        sHandleOfFailedStart = 0;
        sDetachState = -1;
        sStackSize = 0;
        LayerTest::TearDown();
    }

    /// Error texts are recorded from now on.
    void recordTexts() { spAskedTexts = &mAskedTexts; }

    /// The text was asked for twice, into one buffer of 512 bytes, with so many lines logged by then.
    void expectTexts(size_t aLinesFirst, size_t aLinesThen)
    {
        ASSERT_EQ(2U, mAskedTexts.size());
        EXPECT_EQ(512U, mAskedTexts[0].mSize);
        EXPECT_EQ(512U, mAskedTexts[1].mSize);
        EXPECT_EQ(mAskedTexts[0].mpBuffer, mAskedTexts[1].mpBuffer);
        EXPECT_EQ(aLinesFirst, mAskedTexts[0].mLines);
        EXPECT_EQ(aLinesThen, mAskedTexts[1].mLines);
    }

    /// Calls of init, setdetachstate, setstacksize, create and destroy of the attributes since the last reset.
    static std::vector<unsigned int> calls()
    {
        return {pthread_attr_initFault.calls(), pthread_attr_setdetachstateFault.calls(),
                pthread_attr_setstacksizeFault.calls(), pthread_createFault.calls(), pthread_attr_destroyFault.calls()};
    }

    /// Joins without the layer.
    static void* join(unsigned long aThread)
    {
        void* lpExitValue = nullptr;
        EXPECT_EQ(0, pthread_join(aThread, &lpExitValue));
        return lpExitValue;
    }

    std::vector<AskedText> mAskedTexts;
};

typedef std::vector<unsigned int> Numbers;

// Starting: planted failures. The error that is returned differs from errno, whose text is reported.

TEST_F(ThreadLinuxTest, StartReportsAttributesThatCannotBeInitialised)
{
    recordTexts();
    unsigned long lThread = 4711;
    pthread_attr_initFault.failOn(1, EINVAL, ENOMEM);
    EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Cannot allocate memory",
                   OsStartThread(lThread, nullptr, returnAtOnce));
    EXPECT_EQ((Numbers{1, 0, 0, 0, 0}), calls());
    EXPECT_EQ((Lines{cStart.error("Failed to initialize the thread 4711. Error: 'Cannot allocate memory'")}), logged());
    expectTexts(0, 1);
    EXPECT_EQ(4711U, lThread);
}

TEST_F(ThreadLinuxTest, StartReportsADetachStateThatCannotBeSet)
{
    recordTexts();
    unsigned long lThread = 4712;
    pthread_attr_setdetachstateFault.failOn(1, EINVAL, EACCES);
    EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Permission denied", OsStartThread(lThread, nullptr, returnAtOnce));
    EXPECT_EQ((Numbers{1, 1, 0, 0, 0}), calls());
    EXPECT_EQ((Lines{cStart.error("Failed to set the detach state the thread 4712. Error: 'Permission denied' ")}),
              logged());
    expectTexts(0, 1);
    EXPECT_EQ(4712U, lThread);
}

TEST_F(ThreadLinuxTest, StartReportsAStackSizeThatCannotBeSet)
{
    recordTexts();
    unsigned long lThread = 4713;
    pthread_attr_setstacksizeFault.failOn(1, EINVAL, EPERM);
    EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Operation not permitted",
                   OsStartThread(lThread, nullptr, returnAtOnce));
    EXPECT_EQ((Numbers{1, 1, 1, 0, 0}), calls());
    EXPECT_EQ((Lines{cStart.error("Failed to set the stack size for the thread 4713. Error: "
                                  "'Operation not permitted'")}),
              logged());
    expectTexts(0, 1);
    EXPECT_EQ(4713U, lThread);
}

TEST_F(ThreadLinuxTest, StartReportsAThreadThatCannotBeCreated)
{
    recordTexts();
    unsigned long lThread = 4714;
    pthread_createFault.failOn(1, EAGAIN, EIO);
    EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Input/output error", OsStartThread(lThread, nullptr, returnAtOnce));
    EXPECT_EQ((Numbers{1, 1, 1, 1, 0}), calls());
    EXPECT_EQ(0, sDetachState);
    EXPECT_EQ(524288U, sStackSize);  // a thread sees it rounded to pages
    EXPECT_EQ((Lines{cStart.error("Failed to start  the thread 4714. Error: 'Input/output error'")}), logged());
    expectTexts(0, 1);
    EXPECT_EQ(4714U, lThread);
}

/// The errors of the manual pages. The result says that there was one, and the text is that of errno.
TEST_F(ThreadLinuxTest, EveryErrorOfTheManualPagesIsAFailureWithTheTextOfErrno)
{
    unsigned long lThread = 4720;
    const auto lRefused = [&lThread](Fault& arFault, int aError, const char* acWhat) {
        clearLog();
        arFault.failOn(1, aError, EXDEV);
        EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Invalid cross-device link",
                       OsStartThread(lThread, nullptr, returnAtOnce));
        EXPECT_EQ((Lines{cStart.error(acWhat)}), logged());
        EXPECT_EQ(4720U, lThread);
    };
    lRefused(pthread_attr_initFault, ENOMEM,
             "Failed to initialize the thread 4720. Error: 'Invalid cross-device link'");
    lRefused(pthread_attr_setdetachstateFault, EINVAL,
             "Failed to set the detach state the thread 4720. Error: 'Invalid cross-device link' ");
    lRefused(pthread_attr_setstacksizeFault, EINVAL,
             "Failed to set the stack size for the thread 4720. Error: 'Invalid cross-device link'");
    for (const int lError : {EAGAIN, EINVAL, EPERM}) {
        lRefused(pthread_createFault, lError, "Failed to start  the thread 4720. Error: 'Invalid cross-device link'");
    }
    for (const int lError : {EDEADLK, EINVAL, ESRCH}) {
        clearLog();
        pthread_joinFault.failOn(1, lError, EXDEV);
        EXPECT_FAILURE(OQCThreadWaitForExitFailedEx, 344, "Invalid cross-device link", OsWaitForExit(lThread));
        EXPECT_EQ(
            (Lines{cWait.entered(), cWait.error("Failed to join the thread 4720. Error: 'Invalid cross-device link'"),
                   cWait.left()}),
            logged());
    }
    clearLog();
    pthread_cancelFault.failOn(1, ESRCH, EXDEV);
    EXPECT_FAILURE(OQCThreadDestructionFailedEx, 343, "Invalid cross-device link", OsDestroyThread(lThread));
    EXPECT_EQ((Lines{cDestroy.error("Failed to destroy the thread 4720. Error: 'Invalid cross-device link'")}),
              logged());
    EXPECT_EQ(4720U, lThread);
}

TEST_F(ThreadLinuxTest, TheHandleInTheLineIsWhatTheFailedCreationLeft)
{
    unsigned long lThread = 4715;
    sHandleOfFailedStart = ~0UL;
    pthread_createFault.failOn(1, EAGAIN, EIO);
    EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "Input/output error", OsStartThread(lThread, nullptr, returnAtOnce));
    EXPECT_EQ(
        (Lines{cStart.error("Failed to start  the thread " + std::to_string(~0UL) + ". Error: 'Input/output error'")}),
        logged());
    EXPECT_EQ(~0UL, lThread);
}

TEST_F(ThreadLinuxTest, TheLineCarriesTheFirstTextAndTheExceptionTheSecond)
{
    recordTexts();
    sNumberTexts = true;
    unsigned long lThread = 1;
    for (Fault* lpFault : {&pthread_attr_initFault, &pthread_attr_setdetachstateFault, &pthread_attr_setstacksizeFault,
                           &pthread_createFault}) {
        mAskedTexts.clear();
        clearLog();
        lpFault->failOn(1, EINVAL, EIO);
        EXPECT_FAILURE(OQCThreadStartFailedEx, 342, "text 2", OsStartThread(lThread, nullptr, returnAtOnce));
        ASSERT_EQ(1U, logged().size());
        EXPECT_NE(std::string::npos, logged()[0].mText.find("Error: 'text 1'"));
        expectTexts(0, 1);
        lpFault->reset();
    }

    mAskedTexts.clear();
    clearLog();
    pthread_cancelFault.failOn(1, ESRCH, EIO);
    EXPECT_FAILURE(OQCThreadDestructionFailedEx, 343, "text 2", OsDestroyThread(lThread));
    EXPECT_EQ((Lines{cDestroy.error("Failed to destroy the thread 1. Error: 'text 1'")}), logged());

    mAskedTexts.clear();
    clearLog();
    pthread_joinFault.failOn(1, ESRCH, EIO);
    EXPECT_FAILURE(OQCThreadWaitForExitFailedEx, 344, "text 2", OsWaitForExit(lThread));
    EXPECT_EQ((Lines{cWait.entered(), cWait.error("Failed to join the thread 1. Error: 'text 1'"), cWait.left()}),
              logged());
}

TEST_F(ThreadLinuxTest, FailuresOfThreadCallsAreOperatingSystemFailuresOnly)
{
    unsigned long lThread = 1;
    pthread_createFault.failAlways(EAGAIN, EAGAIN);
    pthread_cancelFault.failAlways(ESRCH, ESRCH);
    pthread_joinFault.failAlways(ESRCH, ESRCH);
    const auto lStart = [&] { OsStartThread(lThread, nullptr, returnAtOnce); };
    const auto lDestroy = [&] { OsDestroyThread(lThread); };
    const auto lWait = [&] { OsWaitForExit(lThread); };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lStart));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lStart));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lDestroy));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lDestroy));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lWait));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lWait));
}

TEST_F(ThreadLinuxTest, StartRefusesANullRoutineWithoutALineOrACall)
{
    unsigned long lThread = 4716;
    int lArgument = 0;
    EXPECT_FAILURE(OQCNullPointerEx, 3, "Null Pointer", OsStartThread(lThread, &lArgument, nullptr));
    EXPECT_FAILURE(OQCNullPointerEx, 3, "Null Pointer", OsStartThread(lThread, nullptr, nullptr));
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), calls());
    EXPECT_EQ(Lines(), logged());
    EXPECT_EQ(4716U, lThread);
    const auto lStart = [&] { OsStartThread(lThread, nullptr, nullptr); };
    EXPECT_TRUE(isCaughtAs<OQCGenericException>(lStart));
    EXPECT_FALSE(isCaughtAs<OQCOsException>(lStart));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lStart));
}

// Starting: success

TEST_F(ThreadLinuxTest, StartIsSilentAndNeverDestroysTheAttributes)
{
    unsigned long lThread = 0;
    OsStartThread(lThread, nullptr, returnAtOnce);
#ifndef __SANITIZE_THREAD__  // which sets the stack size once more
    EXPECT_EQ((Numbers{1, 1, 1, 1, 0}), calls());
#endif
    EXPECT_EQ(0U, pthread_attr_destroyFault.calls());
    EXPECT_EQ(Lines(), logged());
    join(lThread);
}

TEST_F(ThreadLinuxTest, TheArgumentReachesTheRoutineUntouchedAlsoWhenItIsNull)
{
    unsigned long lThread = 0;
    int lArgument = 0;
    OsStartThread(lThread, &lArgument, returnAtOnce);
    EXPECT_EQ(&lArgument, join(lThread));
    OsStartThread(lThread, nullptr, returnAtOnce);
    EXPECT_EQ(nullptr, join(lThread));
}

TEST_F(ThreadLinuxTest, TheHandleIsTheNewThreads)
{
    unsigned long lSelf = 0;
    unsigned long lThread = 0;
    OsStartThread(lThread, &lSelf, [](void* apSelf) -> void* {
        *static_cast<unsigned long*>(apSelf) = pthread_self();
        return nullptr;
    });
    join(lThread);
    EXPECT_EQ(lSelf, lThread);
    EXPECT_NE(pthread_self(), lThread);
}

/// What a thread finds out about itself.
struct Attributes {
    int mDetachState;
    size_t mStackSize;
    size_t mGuardSize;
    int mPolicy;
    int mInheritance;
    int mScope;
    int mPriority;

    explicit Attributes(const pthread_attr_t& acrAttributes)
    {
        pthread_attr_getdetachstate(&acrAttributes, &mDetachState);
        pthread_attr_getstacksize(&acrAttributes, &mStackSize);
        pthread_attr_getguardsize(&acrAttributes, &mGuardSize);
        pthread_attr_getschedpolicy(&acrAttributes, &mPolicy);
        pthread_attr_getinheritsched(&acrAttributes, &mInheritance);
        pthread_attr_getscope(&acrAttributes, &mScope);
        sched_param lParameters;
        pthread_attr_getschedparam(&acrAttributes, &lParameters);
        mPriority = lParameters.sched_priority;
    }
};

TEST_F(ThreadLinuxTest, AThreadIsJoinableWithAStackOf524288BytesAndIsOtherwiseDefault)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer enlarges the stacks of threads";
#endif
    unsigned long lThread = 0;
    OsStartThread(lThread, nullptr, [](void*) -> void* {
        pthread_attr_t lAttributes;
        pthread_getattr_np(pthread_self(), &lAttributes);
        Attributes* const lpAttributes = new Attributes(lAttributes);
        pthread_attr_destroy(&lAttributes);
        return lpAttributes;
    });
    const std::unique_ptr<Attributes> lFound(static_cast<Attributes*>(join(lThread)));
    ASSERT_NE(nullptr, lFound);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, lFound->mDetachState);
    EXPECT_EQ(524288U, lFound->mStackSize);

    pthread_attr_t lAttributes;
    pthread_attr_init(&lAttributes);
    const Attributes lDefault(lAttributes);
    pthread_attr_destroy(&lAttributes);
    EXPECT_EQ(lDefault.mGuardSize, lFound->mGuardSize);
    EXPECT_EQ(lDefault.mPolicy, lFound->mPolicy);
    EXPECT_EQ(lDefault.mInheritance, lFound->mInheritance);
    EXPECT_EQ(lDefault.mScope, lFound->mScope);
    EXPECT_EQ(lDefault.mPriority, lFound->mPriority);
}

TEST_F(ThreadLinuxTest, AThreadCanStartAndJoinAnother)
{
    unsigned long lThread = 0;
    OsStartThread(lThread, nullptr, [](void*) -> void* {
        unsigned long lInner = 0;
        OsStartThread(lInner, nullptr, returnAtOnce);
        OsWaitForExit(lInner);
        return nullptr;
    });
    OsWaitForExit(lThread);
    const Lines lLines = logged();
    ASSERT_EQ(4U, lLines.size());
    EXPECT_EQ(cWait.left(), lLines[3]);
}

TEST_F(ThreadLinuxTest, FourThreadsCanStartAndJoinFiftyEachAtOnce)
{
    std::atomic<unsigned int> lRun(0);
    std::vector<std::thread> lStarters;
    for (unsigned int lStarter = 0; lStarter < 4; ++lStarter) {
        lStarters.emplace_back([&lRun] {
            for (unsigned int lRound = 0; lRound < 50; ++lRound) {
                unsigned long lThread = 0;
                OsStartThread(lThread, &lRun, [](void* apRun) -> void* {
                    ++*static_cast<std::atomic<unsigned int>*>(apRun);
                    return nullptr;
                });
                OsWaitForExit(lThread);
            }
        });
    }
    for (std::thread& lrStarter : lStarters) {
        lrStarter.join();
    }
    EXPECT_EQ(200U, lRun);
    unsigned int lEntered = 0;
    unsigned int lLeft = 0;
    for (const Line& lrLine : logged()) {
        lEntered += cWait.entered() == lrLine ? 1U : 0U;
        lLeft += cWait.left() == lrLine ? 1U : 0U;
    }
    EXPECT_EQ(200U, lEntered);
    EXPECT_EQ(200U, lLeft);
    EXPECT_EQ(400U, logged().size());
}

// What does nothing, and what is not supported: not even the handle is looked at.

TEST_F(ThreadLinuxTest, CreateDoesNothing)
{
    unsigned long lThread = 4717;
    OsCreateThread(lThread, &lThread, returnAtOnce);
    OsCreateThread(lThread, nullptr, nullptr);
    EXPECT_EQ(4717U, lThread);
    ForbiddenHandle lHandle;
    OsCreateThread(lHandle.get(), nullptr, returnAtOnce);
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), calls());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ThreadLinuxTest, ResumeIsNotSupported)
{
    ForbiddenHandle lHandle;
    EXPECT_FAILURE(OQCNotSupportedEx, 12, "Not Supported", OsResumeThread(lHandle.get()));
    unsigned long lSelf = pthread_self();
    EXPECT_FAILURE(OQCNotSupportedEx, 12, "Not Supported", OsResumeThread(lSelf));
    EXPECT_TRUE(isCaughtAs<OQCGenericException>([&] { OsResumeThread(lSelf); }));
    EXPECT_FALSE(isCaughtAs<OQCOsException>([&] { OsResumeThread(lSelf); }));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>([&] { OsResumeThread(lSelf); }));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ThreadLinuxTest, SuspendIsNotSupported)
{
    ForbiddenHandle lHandle;
    EXPECT_FAILURE(OQCNotSupportedEx, 12, "Not Supported", OsSuspendThread(lHandle.get()));
    unsigned long lSelf = pthread_self();
    EXPECT_FAILURE(OQCNotSupportedEx, 12, "Not Supported", OsSuspendThread(lSelf));
    EXPECT_TRUE(isCaughtAs<OQCGenericException>([&] { OsSuspendThread(lSelf); }));
    EXPECT_FALSE(isCaughtAs<OQCOsException>([&] { OsSuspendThread(lSelf); }));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>([&] { OsSuspendThread(lSelf); }));
    EXPECT_EQ(Lines(), logged());
}

// Joining

TEST_F(ThreadLinuxTest, WaitForExitJoinsAndDiscardsTheExitValue)
{
    unsigned long lThread = 0;
    OsStartThread(lThread, &lThread, returnAtOnce);
    const unsigned long lHandle = lThread;
    spExitValue = reinterpret_cast<void**>(&lThread);
    OsWaitForExit(lThread);
    EXPECT_EQ(1U, pthread_joinFault.calls());
    EXPECT_EQ(nullptr, spExitValue);
    EXPECT_EQ(lHandle, lThread);
    EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
}

TEST_F(ThreadLinuxTest, WaitForExitReturnsOnlyWhenTheThreadHasEnded)
{
    bool lEnded = false;
    unsigned long lThread = 0;
    OsStartThread(lThread, &lEnded, [](void* apEnded) -> void* {
        eventually([] { return 1U == pthread_joinFault.calls(); });
        *static_cast<bool*>(apEnded) = true;
        return nullptr;
    });
    OsWaitForExit(lThread);
    EXPECT_TRUE(lEnded);
    EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
}

TEST_F(ThreadLinuxTest, WaitForExitReportsAFailedJoin)
{
    recordTexts();
    pthread_joinFault.failOn(1, EINVAL, EINTR);
    EXPECT_FAILURE(OQCThreadWaitForExitFailedEx, 344, "Interrupted system call", OsWaitForExit(4718));
    EXPECT_EQ(1U, pthread_joinFault.calls());
    EXPECT_EQ((Lines{cWait.entered(), cWait.error("Failed to join the thread 4718. Error: 'Interrupted system call'"),
                     cWait.left()}),
              logged());
    expectTexts(1, 3);
}

TEST_F(ThreadLinuxTest, AThreadThatWaitsForItselfIsToldSo)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer ends the process when a thread joins itself";
#endif
    unsigned long lThread = 0;
    OsStartThread(lThread, nullptr, [](void*) -> void* {
        errno = ENOTTY;
        EXPECT_FAILURE(OQCThreadWaitForExitFailedEx, 344, "Inappropriate ioctl for device",
                       OsWaitForExit(pthread_self()));
        return nullptr;
    });
    join(lThread);
    EXPECT_EQ((Lines{cWait.entered(),
                     cWait.error("Failed to join the thread " + std::to_string(lThread) +
                                 ". Error: 'Inappropriate ioctl for device'"),
                     cWait.left()}),
              logged());
}

// Cancelling

struct Cancelled {
    Gate mRunning;
    Gate mGoOn;
    bool mUnwound = false;
    bool mPassed = false;
};

TEST_F(ThreadLinuxTest, DestroyReturnsAtOnceAndTheThreadEndsAtItsNextCancellationPoint)
{
    Cancelled lState;
    unsigned long lThread = 0;
    OsStartThread(lThread, &lState, [](void* apState) -> void* {
        Cancelled& lrState = *static_cast<Cancelled*>(apState);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        Frame lFrame(lrState.mUnwound);
        lrState.mRunning.open();
        lrState.mGoOn.pass();
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        pthread_testcancel();
        lrState.mPassed = true;
        return nullptr;
    });
    const unsigned long lHandle = lThread;
    lState.mRunning.pass();
    OsDestroyThread(lThread);  // the thread cannot have ended: its gate is shut
    EXPECT_EQ(1U, pthread_cancelFault.calls());
    EXPECT_EQ(0U, pthread_joinFault.calls());
    EXPECT_EQ(lHandle, lThread);
    EXPECT_EQ(Lines(), logged());
    lState.mGoOn.open();
    OsWaitForExit(lThread);
    EXPECT_FALSE(lState.mPassed);
    EXPECT_TRUE(lState.mUnwound);
    EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
}

TEST_F(ThreadLinuxTest, DestroyEndsAThreadThatSleepsInACancellationPoint)
{
    Cancelled lState;
    unsigned long lThread = 0;
    OsStartThread(lThread, &lState, [](void* apState) -> void* {
        Cancelled& lrState = *static_cast<Cancelled*>(apState);
        Frame lFrame(lrState.mUnwound);
        lrState.mRunning.open();
        for (;;) {
            pause();
        }
    });
    lState.mRunning.pass();
    OsDestroyThread(lThread);
    EXPECT_EQ(PTHREAD_CANCELED, join(lThread));
    EXPECT_TRUE(lState.mUnwound);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ThreadLinuxTest, DestroyReportsAFailedCancellation)
{
    recordTexts();
    unsigned long lThread = 4719;
    pthread_cancelFault.failOn(1, ESRCH, ENODEV);
    EXPECT_FAILURE(OQCThreadDestructionFailedEx, 343, "No such device", OsDestroyThread(lThread));
    EXPECT_EQ(1U, pthread_cancelFault.calls());
    EXPECT_EQ((Lines{cDestroy.error("Failed to destroy the thread 4719. Error: 'No such device'")}), logged());
    expectTexts(0, 1);
    EXPECT_EQ(4719U, lThread);
}

// Leaving

TEST_F(ThreadLinuxTest, ExitThreadUnwindsAndEndsWithANullExitValue)
{
    bool lUnwound = false;
    unsigned long lThread = 0;
    OsStartThread(lThread, &lUnwound, [](void* apUnwound) -> void* {
        Frame lFrame(*static_cast<bool*>(apUnwound));
        OsExitThread();
    });
    void* lpExitValue = &lUnwound;
    EXPECT_EQ(0, pthread_join(lThread, &lpExitValue));
    EXPECT_EQ(nullptr, lpExitValue);
    EXPECT_TRUE(lUnwound);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ThreadLinuxTest, ExitThreadEndsNoOtherThread)
{
    Gate lGate;
    unsigned long lOther = 0;
    OsStartThread(lOther, &lGate, [](void* apGate) -> void* {
        static_cast<Gate*>(apGate)->pass();
        return apGate;
    });
    unsigned long lLeaving = 0;
    OsStartThread(lLeaving, nullptr, [](void*) -> void* { OsExitThread(); });
    join(lLeaving);
    lGate.open();
    EXPECT_EQ(&lGate, join(lOther));
    EXPECT_EQ(Lines(), logged());
}

}  // namespace
