// Complete operations under stress: each allocation fails in turn, all descriptors are in use, or signals arrive all
// the time. The rows in tests/outcomes test single failures of each operation.

#include <fcntl.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

#include "Peer.h"

namespace
{

const char* const cFallbackName = "Red Hat Enterprise Linux Server release 5.x";

/// The exception std::bad_alloc is one more allocation, unless that allocation fails. It is freed with the exception.
class MemoryTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        if (!FailingMemory::isPossible()) {
            GTEST_SKIP() << "allocations are another allocator's and cannot be made to fail";
        }
        EXPECT_THROW(throw OQCNoMemoryEx("warm", 2), OQCException);  // a thread's first throw allocates more
        keepNoEvents();
        recordCompanion();
    }

    /// Runs the operation repeatedly. In run N, allocation number N fails. Ends after the run with fewer than N
    /// allocations.
    /// \param[in] acrLeft  describes the state after a run
    /// \return for each run: N for OQCNoMemoryEx, B for std::bad_alloc, R for a return; then the number of blocks that
    ///         the run left allocated; then the text of acrLeft. In the last run all allocations succeed.
    static std::string refuseInTurn(
        const std::function<void()>& acrRun, const std::function<void()>& acrBefore = [] {},
        const std::function<std::string()>& acrLeft = [] { return ""; })
    {
        std::ostringstream lEnds;
        unsigned int lNth = 0, lTaken;
        do {
            acrBefore();
            char lEnd = 'R';
            const Recording lRecording;
            const FailingMemory lFailingMemory(++lNth, false);
            try {
                acrRun();
            } catch (const OQCNoMemoryEx& acrFailure) {
                const bool lIsWhole = typeid(OQCNoMemoryEx) == typeid(acrFailure) && 2 == acrFailure.code() &&
                                      0 == strcmp("Out of Memory", acrFailure.what());
                lEnd = lIsWhole ? 'N' : '?';
            } catch (const std::bad_alloc&) {
                lEnd = 'B';
            }
            lTaken = FailingMemory::taken();
            const unsigned int lGiven = lTaken - (lNth <= lTaken ? 1 : 0);
            const int lBlocks = static_cast<int>(lGiven - FailingMemory::freed());
            FailingMemory::end();
            lEnds << (1 == lNth ? "" : " ") << lEnd << lBlocks << acrLeft();
        } while (lNth <= lTaken);
        return lEnds.str();
    }
};

const char cLong[] = "a text that is far too long to be kept inside a string object: its characters need memory";

/// The allocations: object, characters, counter. The object of a short text contains the characters.
TEST_F(MemoryTest, TextsLeaveNothingButATextWithoutACounter)
{
    const OQCString lOther(cLong);
    EXPECT_EQ("N0 N0 N2 R0", refuseInTurn([] { const OQCString lText(cLong); }));
    EXPECT_EQ("N0 N1 R0", refuseInTurn([] { const OQCString lText("short"); }));
    EXPECT_EQ("N0 N0 N2 R0", refuseInTurn([&] { const OQCString lText(lOther); }));
    OQCString lTarget("");
    EXPECT_EQ("N0 N0 N2 R1", refuseInTurn([&] { lTarget = lOther; }, [&] { EXPECT_STREQ("", lTarget.get()); }));
    EXPECT_STREQ(cLong, lTarget.get());
    OQCString lGrowing("short");
    EXPECT_EQ("B0 R1", refuseInTurn([&] { lGrowing += lOther; }, [&] { EXPECT_STREQ("short", lGrowing.get()); }));
    EXPECT_EQ(std::string("short") + cLong, lGrowing.get());
    EXPECT_STREQ(cLong, lOther.get());
}

TEST_F(MemoryTest, ListsKeepTheirElementsAndLeaveNothingButATextWithoutACounter)
{
    OQCList<unsigned int> lNumbers;
    lNumbers.append(1);
    EXPECT_EQ("N0/1 R1/2",
              refuseInTurn([&] { lNumbers.append(2); }, [] {}, [&] { return "/" + std::to_string(lNumbers.size()); }));
    const OQCString lText(cLong);
    OQCList<OQCString> lTexts;
    lTexts.append(lText);
    EXPECT_EQ("N0/1 N0/1 N0/1 N2/1 R4/2",
              refuseInTurn([&] { lTexts.append(lText); }, [] {}, [&] { return "/" + std::to_string(lTexts.size()); }));
}

/// The allocations: the buffer; for each line, its object and counter, the node, and the copy's object and counter.
TEST_F(MemoryTest, LinesBeforeTheRefusalStayAndTheLineBufferIsLeft)
{
    char lBuffer[4000];
    OQCList<OQCString> lLines;
    const auto lBefore = [&] {
        strncpy(lBuffer, "first\nsecond\nrest", sizeof lBuffer);  // fills the rest with zeros
        lLines.clear();
    };
    EXPECT_EQ(
        "N0/0 N1/0 N2/0 N1/0 N1/0 N2/0 N4/1 N5/1 N4/1 N4/1 N5/1 R6/2",
        refuseInTurn([&] { OsBreak(lBuffer, lLines); }, lBefore, [&] { return "/" + std::to_string(lLines.size()); }));
}

/// The allocations: the stream; the line; the stream's buffer, without which it reads byte by byte; then object and
/// counter of two texts.
TEST_F(MemoryTest, FirstLineStaysUntilItsSuccessorHasItsMemory)
{
    std::ofstream(path("release")) << "release 1\n";
    const OQCString lName(path("release").c_str());
    OQCString lLine("");
    int lResult = 7;
    EXPECT_EQ("R0/-1 old R0/-1 old R0/0 release 1 N0/7 old N1/7 old N0/7 old N1/7 old R0/0 release 1",
              refuseInTurn([&] { lResult = getFirstLineFromFile(lName, lLine); }, [&] { lLine = "old"; },
                           [&] { return "/" + std::to_string(std::exchange(lResult, 7)) + " " + lLine.get(); }));
    unlink(path("release").c_str());
}

/// The allocations: an exception for each of three missing files, for which the runtime has a reserve; then object,
/// characters and counter of two texts.
TEST_F(MemoryTest, NameOfTheSystemStaysUntilItsSuccessorHasItsMemory)
{
    substitute::stat.fail(-1, ENOENT);
    OQEOperatingSystem lOs;
    OQCString lName("");
    EXPECT_EQ("R1/Red R1/Red R1/Red N0/old N0/old N2/old N0/old N0/old N2/old R1/Red",
              refuseInTurn([&] { OsGetOsName(lOs, lName); }, [&] { lName = "old"; },
                           [&] { return "/" + std::string(lName.get()).substr(0, 3); }));
    EXPECT_STREQ(cFallbackName, lName.get());
}

typedef RecordedTest DescriptorsTest;

TEST_F(DescriptorsTest, WithoutFreeDescriptorsNothingIsOpenedAndTheRestWorks)
{
    const std::string lPath = path("pipe");
    const int lShared = key();
    char lTrue[] = "/bin/true";
    char* const lpTrue[] = {lTrue, nullptr};
    const int lStatus = inChild([&] {
        const int lFile = open(lPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        unlink(lPath.c_str());
        int lEnds[2];
        ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
        useAllDescriptors();

        // These operations would open a descriptor. The rows with EMFILE test others.
        int lPipe = -7;
        OsNamedPipeCreate(lPath.c_str(), lPipe);
        OsNamedPipeOpen(lPipe, lPath.c_str(), OQFM_Mode3, OQPS_NonBlocking, OQCM_Server);
        EXPECT_EQ(-7, lPipe);
        OsNamedPipeDestroy(lPath.c_str(), lPipe);
        OQCString lLine("unchanged");
        EXPECT_EQ(-1, getFirstLineFromFile("/proc/version", lLine));
        EXPECT_STREQ("unchanged", lLine.get());
        OQCList<OQCString> lLines;
        OsExecute("echo a", lLines);
        EXPECT_EQ(0, lLines.size());
        if (!OQ_SANITIZED) {  // a sanitizer needs a descriptor to check an exception, and these throw or catch some
            OQEOperatingSystem lOs;
            OsGetOsName(lOs, lLine);
            EXPECT_STREQ(cFallbackName, lLine.get());
            unsigned int lAddress = 7;
            EXPECT_THROW(OsGetIpAddress(lAddress), OQCGetIpAddressFailEx);
            EXPECT_EQ(7U, lAddress);
        }

        // These operations need no new descriptor.
        pthread_mutex_t lMutex;
        OsInitMutex(lMutex);
        OsLockMutex(lMutex);
        OsUnlockMutex(lMutex);
        OsDestroyMutex(lMutex);
        EXPECT_EQ(0, ProcessWait(ProcessCreate(lpTrue[0], lpTrue, lpTrue + 1), 0));
        unsigned int lCount = 0;
        unsigned char lByte = 7;
        OsNamedPipeWrite(lEnds[1], &lByte, 1, lCount);
        EXPECT_EQ(1U, lCount);
        OsWaitForActivity(lEnds[0], 1);
        OsNamedPipeRead(lEnds[0], &lByte, 1, lCount);
        EXPECT_EQ(1U, lCount);
        OsLockFile(lFile);
        OsUnlockFile(lFile);
        OQShmDesc lMailbox = {lShared, 64, -1, nullptr};
        OsSharedMemoryOpen(lMailbox, OQCM_Server);
        OsSharedMemoryClose(lMailbox, OQCM_Server);
        unsigned long lThread;
        OsStartThread(lThread, nullptr, [](void*) -> void* { return nullptr; });
        OsWaitForExit(lThread);
    });
    EXPECT_EQ(0, lStatus);
}

const unsigned int cSignals = 30;  // number of signals while an operation blocks

/// A signal interrupts the test's thread every few hundred microseconds. RegisterSignalHandler installs its handler.
class StormTest : public RecordedTest
{
public:
    /// Waits until aMore further signals have been sent. Called on another thread.
    void await(unsigned int aMore) const
    {
        const unsigned int lBefore = mSent;
        while (mSent - lBefore < aMore) {
            usleep(100);
        }
    }

protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        keepNoEvents();
        ASSERT_EQ(0, pipe2(mEnds, O_CLOEXEC));
        sigaction(SIGUSR2, nullptr, &mBefore);
        RegisterSignalHandler(SIGUSR2, [](int) {});
        mThread = std::thread([this, lTarget = pthread_self()] {
            while (!mStop) {
                pthread_kill(lTarget, SIGUSR2);
                ++mSent;
                usleep(200);
            }
        });
        await(1);
    }
    void TearDown() override
    {
        mStop = true;
        mThread.join();
        sigaction(SIGUSR2, &mBefore, nullptr);
        close(mEnds[0]);
        close(mEnds[1]);
        RecordedTest::TearDown();
    }

    int mEnds[2];

private:
    std::atomic<bool> mStop{false};
    std::atomic<unsigned int> mSent{0};
    std::thread mThread;
    struct sigaction mBefore;
};

/// A write or read that a signal interrupts reports the number of bytes transferred. A caller that continues from there
/// loses nothing.
TEST_F(StormTest, WritesAndReadsSayHowFarTheyCame)
{
    std::vector<unsigned char> lData(600000);
    for (size_t lIndex = 0; lIndex < lData.size(); ++lIndex) {
        lData[lIndex] = static_cast<unsigned char>(lIndex * 31 >> 3);
    }
    for (const bool lWrites : {true, false}) {
        std::vector<unsigned char> lBuffer(lData.size());
        std::thread lOther([&] {
            for (size_t lDone = 0, lMoved; lDone < lData.size(); lDone += lMoved) {
                await(1);
                const size_t lPiece = std::min<size_t>(lData.size() - lDone, 40000);
                lMoved = static_cast<size_t>(lWrites ? read(mEnds[0], &lBuffer[lDone], lPiece)
                                                     : write(mEnds[1], &lData[lDone], lPiece));
                ASSERT_GE(lPiece, lMoved);
            }
        });
        unsigned int lCount;
        for (size_t lDone = 0; lDone < lData.size(); lDone += lCount) {
            lCount = 0;  // stays 0 if a signal interrupts the call before any byte
            const unsigned int lLeft = static_cast<unsigned int>(lData.size() - lDone);
            if (lWrites) {
                OsNamedPipeWrite(mEnds[1], &lData[lDone], lLeft, lCount);
            } else {
                OsNamedPipeRead(mEnds[0], &lBuffer[lDone], lLeft, lCount);
            }
        }
        lOther.join();
        EXPECT_TRUE(lData == lBuffer) << (lWrites ? "written" : "read");
    }
}

TEST_F(StormTest, ThreadsMutexesAndConditionsAreWaitedForToTheEnd)
{
    pthread_mutex_t lMutex;
    pthread_cond_t lCondition;
    std::atomic<int> lStep(0);
    OsInitMutex(lMutex);
    OsInitConditional(lCondition);
    std::function<void()> lOther = [&] {
        OsLockMutex(lMutex);
        lStep = 1;
        await(cSignals);  // while the test waits for the mutex
        lStep = 2;
        OsUnlockMutex(lMutex);
        for (int lNext = 3; lNext <= 4; ++lNext) {
            await(cSignals);  // while the test waits for the condition
            OsLockMutex(lMutex);
            lStep = lNext;
            OsSignal(lCondition);
            OsUnlockMutex(lMutex);
        }
        await(cSignals);  // while the test waits for the end of this thread
        lStep = 5;
    };
    unsigned long lThread = 0;
    OsStartThread(lThread, &lOther, [](void* apRun) -> void* {
        (*static_cast<std::function<void()>*>(apRun))();
        return nullptr;
    });
    EXPECT_TRUE(eventually([&] { return 1 <= lStep; }));
    OsLockMutex(lMutex);
    EXPECT_LE(2, lStep);
    while (lStep < 3) {
        OsWait(lCondition, lMutex);
    }
    while (lStep < 4) {
        OsConditionalTimedWait(lCondition, lMutex, 20);
    }
    OsUnlockMutex(lMutex);
    OsWaitForExit(lThread);
    EXPECT_EQ(5, lStep);
    OsDestroyConditional(lCondition);
    OsDestroyMutex(lMutex);
}

/// Waits as the reference recommends for callers that handle signals.
int waitFor(int aChild)
{
    siginfo_t lInfo;
    do {
        try {
            return ProcessWait(aChild, 0);
        } catch (const OQCProcessWaitFailedEx&) {
        }
    } while (0 == waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOHANG | WNOWAIT));
    return -99;  // there is no such child
}

TEST_F(StormTest, ProgramsStartAndFailAsEver)
{
    const pid_t lParent = getpid();
    char lName[] = "name";
    char* const lArguments[] = {lName, nullptr};
    for (int lRound = 0; lRound < 10; ++lRound) {
        EXPECT_EQ(0, waitFor(ProcessCreate("/bin/true", lArguments, nullptr)));
        int lChild = -1;
        try {
            lChild = ProcessCreate("/nonexistent/program", lArguments, nullptr);
        } catch (const OQCProcessCreationFailedEx& acrFailure) {
            if (lParent != getpid()) {
                _exit(0 == strcmp("No such file or directory", acrFailure.what()) ? 42 : 43);
            }
            ADD_FAILURE() << "thrown in the parent: " << acrFailure.what();
        }
        EXPECT_EQ(42, waitFor(lChild));
    }
}

TEST_F(StormTest, CommandIsReadWholeOrItsInterruptionIsThrownAfterWholeLines)
{
    for (int lRound = 0; lRound < 20; ++lRound) {
        OQCList<OQCString> lLines;
        bool lIsWhole = true;
        try {
            OsExecute("echo first; echo second", lLines);
        } catch (const OQCReadFailedEx& acrFailure) {
            lIsWhole = false;
            EXPECT_STREQ("Interrupted system call", acrFailure.what());
            EXPECT_EQ(328U, acrFailure.code());
        }
        std::string lText;
        for (const OQCString& lrLine : lLines) {
            lText += std::string(lrLine.get()) + "\n";
        }
        EXPECT_EQ(lIsWhole ? "first\nsecond\n" : std::string("first\nsecond\n").substr(0, lText.size()), lText);
    }
}

TEST_F(StormTest, InterruptedOpenLeavesTheDescriptorAndCanBeRepeated)
{
    const std::string lPath = path("fifo");
    int lPipe = -7;
    OsNamedPipeCreate(lPath.c_str(), lPipe);
    std::atomic<unsigned int> lInterrupted(0);
    std::atomic<bool> lIsOpen(false);
    std::thread lWriter([&] {
        EXPECT_TRUE(eventually([&] { return 2 <= lInterrupted; }));
        int lOther = -1;
        OsNamedPipeOpen(lOther, lPath.c_str(), OQFM_Mode3, OQPS_Blocking, OQCM_Client);
        EXPECT_LE(0, lOther);
        EXPECT_TRUE(eventually([&] { return lIsOpen.load(); }));
        OsNamedPipeClose(lOther, OQCM_Client);
    });
    for (; - 7 == lPipe; ++lInterrupted) {  // opening for reading only waits for a writer
        OsNamedPipeOpen(lPipe, lPath.c_str(), OQFM_Append, OQPS_Blocking, OQCM_Server);
    }
    lIsOpen = true;
    lWriter.join();
    EXPECT_LE(0, lPipe);
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lPath.c_str(), lPipe);
}

}  // namespace
