// Tests the kit that the other tests use: its events, its plans, and that a wrong row fails.

#include <gtest/gtest-spi.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Outcome.h"
#include "Peer.h"

namespace
{

const auto cLog = PrintLogMessageWithTimeStamp;

class KitTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        nameObject("mutex", &mMutex);
    }
    static std::string trace() { return traceOf(recorded(), "operation", "file"); }

    pthread_mutex_t mMutex = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(KitTest, LogCallsKeepTheirFormatAndEachArgument)
{
    cLog(OQLL_Error, "-E-", 7, "operation", "file", "%s %d %u 100 %% %ld %lu\n", "text", -1, 4294967295U, -2L, 3UL);
    EXPECT_EQ("-E- \"%s %d %u 100 %% %ld %lu\\n\" \"text\", \"-1\", \"4294967295\", \"-2\", \"3\"\n", trace());
    EXPECT_EQ(7U, recorded().at(0).mLine);
    EXPECT_EQ(getpid(), recorded().at(0).mProcess);
}

TEST_F(KitTest, LogCallsShowFunctionFileAndLevelWhereTheyDiffer)
{
    cLog(OQLL_Trace, "-T-", 1, "operation", "file", "%s", "Entered");
    cLog(OQLL_Trace, "-T-", 1, "helper", "other", "%s", "Left");
    cLog(OQLL_Trace, "-E-", 1, "operation", "file", "%s", "Left");
    cLog(OQLL_Trace, "-T-", 1, "operation", "file", "Left");
    EXPECT_EQ("Entered\nother helper: Left\n128 -E- \"%s\" \"Left\"\n-T- \"Left\"\n", trace());
}

TEST_F(KitTest, ADirectiveThatTheKitDoesNotKnowEndsTheProgram)
{
    EXPECT_EXIT(cLog(OQLL_Trace, "-T-", 1, "operation", "file", "%x", 1U), ::testing::KilledBySignal(SIGABRT),
                "a directive that the recorder does not know");
}

TEST_F(KitTest, ACallIsInItsPlaceAmongTheLogCallsAndHasItsResult)
{
    substitute::pthread_mutex_lock.instead([](pthread_mutex_t*) {
        cLog(OQLL_Trace, "-T-", 1, "operation", "file", "inside");
        return EDEADLK;
    });
    {
        const Recording lRecording;
        cLog(OQLL_Trace, "-T-", 1, "operation", "file", "before");
        pthread_mutex_lock(&mMutex);
        cLog(OQLL_Trace, "-T-", 1, "operation", "file", "after");
    }
    EXPECT_EQ("-T- \"before\"\npthread_mutex_lock(mutex) = EDEADLK\n-T- \"inside\"\n-T- \"after\"\n", trace());
}

TEST_F(KitTest, AChangeOfAWatchedValueStandsBeforeTheNextEventOrAtTheEnd)
{
    int lValue = 1;
    watchObject("value", &lValue, sizeof lValue);
    lValue = 2;
    {
        const Recording lRecording;
        pthread_mutex_lock(&mMutex);
        lValue = 3;
        pthread_mutex_unlock(&mMutex);
        lValue = 4;
    }
    lValue = 5;
    cLog(OQLL_Trace, "-T-", 1, "operation", "file", "%s", "Left");
    EXPECT_EQ("pthread_mutex_lock(mutex) = 0\nvalue changes\npthread_mutex_unlock(mutex) = 0\nvalue changes\nLeft\n",
              trace());
}

TEST_F(KitTest, EventsOfManyThreadsAreCompleteAndEachThreadsInOrder)
{
    const unsigned int cLines = 1000;
    inThreads(4, [](unsigned int aThread) {
        for (unsigned int lLine = 1; lLine <= cLines; ++lLine) {
            cLog(OQLL_Trace, "-T-", lLine, "operation", "file", "%u", aThread);
        }
    });
    unsigned int lLast[4] = {0, 0, 0, 0};
    for (const Event& lrEvent : recorded()) {
        unsigned int& lrLast = lLast[std::stoul(lrEvent.mArguments.at(0))];
        EXPECT_EQ(lrLast + 1, lrEvent.mLine);
        lrLast = lrEvent.mLine;
    }
    for (const unsigned int lLines : lLast) {
        EXPECT_EQ(cLines, lLines);
    }
}

TEST_F(KitTest, MoreEventsThanFitEndTheProgram)
{
    const auto lFill = [] {
        for (unsigned int lEvent = 0; lEvent < 20000; ++lEvent) {
            cLog(OQLL_Trace, "-T-", 1, "operation", "file", "%s", "Left");
        }
    };
    EXPECT_EXIT(lFill(), ::testing::KilledBySignal(SIGABRT), "more events than");
}

TEST_F(KitTest, RecordingKeepsErrno)
{
    errno = EXDEV;
    {
        const Recording lRecording;
        pthread_mutex_lock(&mMutex);
        pthread_mutex_unlock(&mMutex);
        cLog(OQLL_Trace, "-T-", 1, "operation", "file", "%s", "Left");
    }
    EXPECT_EQ(EXDEV, errno);
}

TEST_F(KitTest, APlanHoldsInTheRecordingThreadUntilTheReset)
{
    substitute::pthread_mutex_trylock.fail(EINVAL, EXDEV);
    EXPECT_FALSE(isHeld(mMutex)) << "outside of a recording";
    const Recording lRecording;
    EXPECT_FALSE(isHeld(mMutex)) << "in another thread";
    errno = 0;
    EXPECT_EQ(EINVAL, pthread_mutex_trylock(&mMutex));
    EXPECT_EQ(EXDEV, errno);
    SubstituteBase::resetAll();
    EXPECT_EQ(0, pthread_mutex_trylock(&mMutex));
    EXPECT_EQ(0, pthread_mutex_unlock(&mMutex));
}

TEST_F(KitTest, CallsOfTheRuntimeAreNeitherRecordedNorMadeToFail)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "the sanitizer brings its own allocator";
#endif
    substitute::pthread_mutex_lock.fail(EINVAL, EXDEV);
    {
        const Recording lRecording;
        const FailingMemory lFailingMemory;
        try {
            throw 1;  // the runtime allocates it from its reserve, under a mutex
        } catch (int) {
        }
    }
    EXPECT_EQ("", trace());
}

TEST_F(KitTest, AllocationsFailInTheThreadWithoutMemoryOnly)
{
    if (!FailingMemory::isPossible()) {
        GTEST_SKIP() << "another allocator is in use";
    }
    void* volatile lpHere = nullptr;
    void* volatile lpThere = nullptr;
    std::promise<void> lGo;
    std::thread lThread([&] {
        lGo.get_future().wait();
        lpThere = malloc(1);
    });
    {
        const FailingMemory lFailingMemory;
        lpHere = malloc(1);
        lGo.set_value();
        lThread.join();
    }
    EXPECT_EQ(nullptr, lpHere);
    EXPECT_NE(nullptr, lpThere);
    free(lpThere);
    free(lpHere);
}

TEST_F(KitTest, AChildThatThrowsEndsAsAFailure)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(99, inChild([] { throw OQCTimeOutEx("text", 323); }));
    EXPECT_EQ(99, Peer([](Peer&) { throw 1; }).wait());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("the child threw: text"));
}

TEST_F(KitTest, NumbersAreShownByNameAsTheyAreAtTheEnd)
{
    int lDescriptor = -1;
    nameNumber("descriptor", &lDescriptor);
    substitute::ClibOpen.fail(4711, 0);
    substitute::ClibClose.fail(0, 0);
    {
        const Recording lRecording;
        lDescriptor = ClibOpen("path", 0, 0);
        ClibClose(lDescriptor);
    }
    EXPECT_EQ("ClibOpen(\"path\", O_RDONLY, 0) = descriptor\nClibClose(descriptor) = 0\n", traceOf(recorded(), "", ""));
}

TEST_F(KitTest, NothingIsKeptUntilTheEventsAreCleared)
{
    keepNoEvents();
    const Recording lRecording;
    ClibClose(-1);
    PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", 1, "f", "f", "%s", "text");
    EXPECT_TRUE(recorded().empty());
    clearEvents();
    ClibClose(-1);
    EXPECT_EQ(1U, recorded().size());
}

TEST_F(KitTest, CallsOfTheCompanionAreRecordedOnRequest)
{
    long lSeconds;
    unsigned short lMilliseconds;
    {
        const Recording lRecording;
        ClibGetTime(lSeconds, lMilliseconds);
    }
    EXPECT_EQ("", trace());
    recordCompanion();
    {
        const Recording lRecording;
        ClibGetTime(lSeconds, lMilliseconds);
    }
    EXPECT_EQ("clock_gettime(CLOCK_REALTIME, local) = 0\n", trace());
}

TEST_F(KitTest, OneAllocationFailsAndBlocksAreCounted)
{
    if (!FailingMemory::isPossible()) {
        GTEST_SKIP() << "another allocator is in use";
    }
    void* volatile lpBlocks[3];
    {
        const FailingMemory lFailingMemory(2, false);
        for (void* volatile& lrBlock : lpBlocks) {
            lrBlock = malloc(8);
        }
        EXPECT_EQ(3U, FailingMemory::taken());
        EXPECT_EQ(0U, FailingMemory::freed());
        followMemory(0, lpBlocks[2]);
        free(lpBlocks[0]);
        EXPECT_FALSE(isFreed(0));
        free(lpBlocks[2]);
        EXPECT_TRUE(isFreed(0));
        EXPECT_EQ(2U, FailingMemory::freed());
    }
    EXPECT_EQ(nullptr, lpBlocks[1]);
}

const Family cFamily("Kit", "file", "", {});

/// A row in which locking a mutex fails.
class LockRow : public Outcome
{
public:
    LockRow(const std::string& acrTrace, const std::vector<int>& acrErrors) : Outcome("OsLockMutex", cFamily, acrErrors)
    {
        mTrace = acrTrace;
    }
    std::vector<int> mPasses;
    unsigned int mRefused = 0;  ///< passes in which the operation had no memory

private:
    void row() override
    {
        pthread_mutex_t lMutex = PTHREAD_MUTEX_INITIALIZER;
        nameObject("mutex", &lMutex);
        mPasses.push_back(error());
        substitute::pthread_mutex_lock.fail(error(), EXDEV);
        run([&] {
            void* const volatile lpBlock = malloc(1);
            mRefused += nullptr == lpBlock ? 1U : 0U;
            free(lpBlock);
            OsLockMutex(lMutex);
        });
    }
};

unsigned int failuresOf(LockRow& arRow)
{
    ::testing::TestPartResultArray lResults;
    const ::testing::ScopedFakeTestPartResultReporter lReporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &lResults);
    arRow.TestBody();
    return static_cast<unsigned int>(lResults.size());
}

const char* const cLockFails = R"(
    pthread_mutex_lock(mutex) = ERROR
    ClibStrerror(local, 512) = "EXDEV #1"
    throws OQCMutexLockFailedEx 335 "EXDEV #1"
)";

TEST_F(KitTest, ARowRunsForEachErrorWithMemoryAndWithout)
{
    LockRow lRow(cLockFails, {EINVAL, EDEADLK});
    EXPECT_EQ(0U, failuresOf(lRow));
    EXPECT_EQ((std::vector<int>{EINVAL, EDEADLK, EINVAL, EDEADLK}), lRow.mPasses);
    EXPECT_EQ(FailingMemory::isPossible() ? 2U : 0U, lRow.mRefused);
}

TEST_F(KitTest, ARowFailsWhenItsTraceDiffersInAnyPass)
{
    const std::string cRight = cLockFails;
    for (const char* const lpPart : {"mutex)", "ERROR", "512", "local", "#1", "335", "LockFailed", "throws"}) {
        std::string lTrace = cRight;
        lTrace.replace(lTrace.find(lpPart), 1, "?");
        LockRow lRow(lTrace, {EINVAL});
        EXPECT_EQ(2U, failuresOf(lRow)) << lTrace;
    }
    LockRow lShort(cRight.substr(0, cRight.rfind("throws")), {EINVAL});
    EXPECT_EQ(2U, failuresOf(lShort));
    LockRow lOfOneError(R"(
        pthread_mutex_lock(mutex) = EINVAL
        ClibStrerror(local, 512) = "EXDEV #1"
        throws OQCMutexLockFailedEx 335 "EXDEV #1")",
                        {0, EINVAL});
    EXPECT_NE(0U, failuresOf(lOfOneError));
}

}  // namespace
