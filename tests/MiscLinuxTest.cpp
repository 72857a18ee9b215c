// Waits, commands, file locks and host lookups with real descriptors, processes, files and signals, and their limits.
// outcomes/Waits.cpp, Commands.cpp, Locks.cpp and Host.cpp test how each operation ends.

#include <fcntl.h>
#include <malloc.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "Peer.h"

namespace
{

/// Counts the recorded calls of a substituted function.
unsigned int callsOf(const char* acFunction)
{
    const Events lEvents = recorded();
    return static_cast<unsigned int>(std::count_if(lEvents.begin(), lEvents.end(), [acFunction](const Event& acrEvent) {
        return Event::Call == acrEvent.mKind && acFunction == acrEvent.mName;
    }));
}

/// Waits and expects a time-out. \return the duration of the wait in seconds
double secondsOfTimeOut(int aDescriptor, unsigned int aSeconds)
{
    const auto lBegin = std::chrono::steady_clock::now();
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(aDescriptor, aSeconds));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - lBegin).count();
}

/// Returns the size of the kernel's descriptor table of this process.
int descriptorTableSize()
{
    std::ifstream lStatus("/proc/self/status");
    std::string lField;
    int lSize = 0;
    while (lStatus >> lField && "FDSize:" != lField) {
    }
    lStatus >> lSize;
    return lSize;
}

volatile sig_atomic_t sAlarms = 0;

void setAlarms(int aMilliseconds)
{
    const itimerval lTimer = {{0, aMilliseconds * 1000}, {0, aMilliseconds * 1000}};
    setitimer(ITIMER_REAL, &lTimer, nullptr);
}

/// A test with a pipe.
class WaitLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        int lEnds[2];
        ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
        mOut = lEnds[0];
        mIn = lEnds[1];
    }
    void TearDown() override
    {
        close(mOut);
        close(mIn);
        RecordedTest::TearDown();
    }

    int mOut = -1;
    int mIn = -1;
};

TEST_F(WaitLinuxTest, DataThatComesDuringTheWaitEndsItAndStaysToBeRead)
{
    Peer lPeer([this](Peer& arPeer) {
        arPeer.meet();
        EXPECT_EQ(3, write(mIn, "abc", 3));
    });
    lPeer.signal();
    OsWaitForActivity(mOut, 30);
    int lWaiting = 0;
    ioctl(mOut, FIONREAD, &lWaiting);
    EXPECT_EQ(3, lWaiting);
    EXPECT_EQ(0, lPeer.wait());
}

TEST_F(WaitLinuxTest, EndOfFileIsActivity)
{
    close(mIn);
    mIn = dup(0);
    EXPECT_NO_THROW(OsWaitForActivity(mOut, 30));
}

TEST_F(WaitLinuxTest, PendingConnectionIsActivity)
{
    const int lListener = socket(AF_UNIX, SOCK_STREAM, 0);
    const int lClient = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un lAddress = {};
    lAddress.sun_family = AF_UNIX;
    socklen_t lLength = sizeof(sa_family_t);  // the system chooses a name that is not a file
    ASSERT_EQ(0, bind(lListener, reinterpret_cast<sockaddr*>(&lAddress), lLength));
    lLength = sizeof lAddress;
    ASSERT_EQ(0, getsockname(lListener, reinterpret_cast<sockaddr*>(&lAddress), &lLength));
    ASSERT_EQ(0, listen(lListener, 1));
    secondsOfTimeOut(lListener, 0);
    ASSERT_EQ(0, connect(lClient, reinterpret_cast<sockaddr*>(&lAddress), lLength));
    EXPECT_NO_THROW(OsWaitForActivity(lListener, 30));
    close(lClient);
    close(lListener);
}

TEST_F(WaitLinuxTest, TimeOutComesAfterTheSecondsAskedFor)
{
    EXPECT_LT(secondsOfTimeOut(mOut, 0), 20);
    for (const int lDescriptor : {mOut, -1}) {
        const double lSeconds = secondsOfTimeOut(lDescriptor, 1);
        EXPECT_LE(1.0, lSeconds);
        EXPECT_LT(lSeconds, 20);
    }
}

/// Runs in a child: the descriptor table of a child is only as large as the parent's open descriptors require.
TEST_F(WaitLinuxTest, ADescriptorThatIsNotOpenIsAFailedWaitWithinTheKernelsTableAndATimeOutBeyondIt)
{
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Invalid argument", OsWaitForActivity(-2, 1));
    const int cTooLarge = 77;
    const int lResult = inChild([] {
        const int lSize = descriptorTableSize();
        if (FD_SETSIZE <= lSize) {
            _exit(cTooLarge);
        }
        EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Bad file descriptor", OsWaitForActivity(lSize - 1, 0));
        secondsOfTimeOut(lSize, 0);
        secondsOfTimeOut(FD_SETSIZE - 1, 0);
    });
    if (cTooLarge == lResult) {
        GTEST_SKIP() << "the table holds every descriptor that can be waited for";
    }
    EXPECT_EQ(0, lResult);
}

TEST_F(WaitLinuxTest, LastDescriptorOfTheSetCanBeWaitedOn)
{
    rlimit lLimit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lLimit));
    const rlimit lRaised = {std::max<rlim_t>(lLimit.rlim_cur, 1024), lLimit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lRaised));
    ASSERT_EQ(1023, dup2(mOut, 1023));
    secondsOfTimeOut(1023, 0);
    ASSERT_EQ(1, write(mIn, "x", 1));
    EXPECT_NO_THROW(OsWaitForActivity(1023, 30));
    close(1023);
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &lLimit));
}

TEST_F(WaitLinuxTest, SignalsNeitherEndNorLengthenTheWait)
{
    struct sigaction lAction = {};
    struct sigaction lOld;
    // A wait that restarted with each signal would end only after the last signal.
    lAction.sa_handler = [](int) {
        sAlarms = sAlarms + 1;
        if (120 == sAlarms) {
            setAlarms(0);
        }
    };
    sigaction(SIGALRM, &lAction, &lOld);
    sAlarms = 0;
    setAlarms(50);
    double lSeconds = 0;
    {
        const Recording lRecording;
        lSeconds = secondsOfTimeOut(mOut, 1);
    }
    setAlarms(0);
    sigaction(SIGALRM, &lOld, nullptr);
    EXPECT_LE(0.999, lSeconds);  // the system rounds the remaining time down to microseconds
    EXPECT_LT(lSeconds, 5);
    EXPECT_LE(2U, callsOf("select"));  // usually twenty: several alarms become one while the process does not run
}

TEST_F(WaitLinuxTest, ManyThreadsWaitAtOnceOnOneDescriptorAndOnTheirOwn)
{
    const unsigned int cThreads = 8;
    int lOwn[cThreads / 2][2];
    std::vector<std::thread> lThreads;
    for (unsigned int lIndex = 0; lIndex < cThreads; ++lIndex) {
        const bool lIsOwn = lIndex < cThreads / 2;
        ASSERT_TRUE(!lIsOwn || 0 == pipe2(lOwn[lIndex], O_CLOEXEC));
        lThreads.emplace_back([lDescriptor = lIsOwn ? lOwn[lIndex][0] : mOut] {
            const Recording lRecording;
            EXPECT_NO_THROW(OsWaitForActivity(lDescriptor, 30));
        });
    }
    EXPECT_TRUE(eventually([] { return cThreads == callsOf("select"); }));
    EXPECT_EQ(1, write(mIn, "x", 1));
    for (const auto& lrOwn : lOwn) {
        EXPECT_EQ(1, write(lrOwn[1], "x", 1));
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    for (const auto& lrOwn : lOwn) {
        close(lrOwn[0]);
        close(lrOwn[1]);
    }
}

class ExecuteLinuxTest : public RecordedTest
{
protected:
    Texts run(const std::string& acrCommand)
    {
        mLines.clear();
        OsExecute(acrCommand.c_str(), mLines);
        return textsOf(mLines);
    }

    OQCList<OQCString> mLines;
};

TEST_F(ExecuteLinuxTest, LinesAreTakenAsTheyAre)
{
    const std::string cLine(3998, 'x');  // fills the buffer with its newline
    const std::string cPrintLine = "head -c 3998 /dev/zero | tr '\\0' x; echo; ";
    const std::vector<std::pair<std::string, Texts>> cCommands = {
        {"printf '\\n\\n'", {"", ""}},
        {"printf '\\na\\n\\n\\nb\\n'", {"", "a", "", "", "b"}},
        {"printf ' a\\t \\nb\\r\\n\\r\\n%%s %%n\\n'", {" a\t ", "b\r", "\r", "%s %n"}},
        {"printf 'a\\n\\0b\\nc\\n'", {"a"}},
        {"printf 'a\\0b\\nc\\n'", {}},
        {"exec 2>/dev/null; echo a; echo e >&2; exit 3", {"a"}},
        {"echo a; kill -9 $$", {"a"}},
        {cPrintLine + cPrintLine + "echo end", {cLine, cLine, "end"}},
        {"echo 0123456789; " + cPrintLine + "echo end", {"0123456789", cLine, "end"}},  // joined from two reads
    };
    for (const auto& lrCommand : cCommands) {
        EXPECT_EQ(lrCommand.second, run(lrCommand.first)) << lrCommand.first;
    }
    for (const char* const lpLength : {"3999", "4000", "9000"}) {
        EXPECT_EQ((Texts{"a"}),
                  run(std::string("echo a; head -c ") + lpLength + " /dev/zero | tr '\\0' x; echo; echo lost"));
    }
}

TEST_F(ExecuteLinuxTest, LinesOfASlowWriterArriveWholeAndInOrder)
{
    keepNoEvents();
    const std::string lPath = path("slow");
    ASSERT_EQ(0, mkfifo(lPath.c_str(), 0600));
    Texts lExpected;
    std::string lText;
    for (unsigned int lLine = 0; lLine < 600; ++lLine) {
        lExpected.push_back(std::string(lLine % 61, static_cast<char>('a' + lLine % 26)));
        lText += lExpected.back() + "\n";
    }
    Peer lPeer([&](Peer&) {
        const int lFifo = open(lPath.c_str(), O_WRONLY);
        for (size_t lSent = 0; lSent < lText.size(); lSent += 7) {
            const size_t lCount = std::min<size_t>(7, lText.size() - lSent);
            EXPECT_EQ(static_cast<ssize_t>(lCount), write(lFifo, lText.data() + lSent, lCount));
            int lWaiting = 1;
            while (0 == ioctl(lFifo, FIONREAD, &lWaiting) && 0 != lWaiting) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_EQ(lExpected, run("exec cat " + lPath));
    EXPECT_EQ(0, lPeer.wait());
    unlink(lPath.c_str());
}

#if !OQ_SANITIZED
size_t memoryInUse()
{
    const struct mallinfo2 lInfo = mallinfo2();
    return lInfo.uordblks + lInfo.hblkhd;
}
#else
size_t memoryInUse() { return 0; }
#endif

TEST_F(ExecuteLinuxTest, TwoHundredThousandLinesArriveWholeAndInOrderInBoundedMemory)
{
    // The memory in use while the command runs, without the lines of the list, which all have one length.
    struct Sample {
        size_t mInUse;
        int mLines;
    };
    std::vector<Sample> lSamples;
    lSamples.reserve(400);
    unsigned int lClearings = 0;
    substitute::ClibMemset.instead([&](void* apMemory, int aValue, unsigned int aCount) {
        if (0 == lClearings++ % 4 && lSamples.size() < lSamples.capacity()) {
            lSamples.push_back({memoryInUse(), mLines.size()});
        }
        return substitute::ClibMemset.real(apMemory, aValue, aCount);
    });
    keepNoEvents();
    const size_t lBefore = memoryInUse();
    {
        const Recording lRecording;
        OsExecute("seq 100001 300000", mLines);
    }
    const double lLine = static_cast<double>(memoryInUse() - lBefore) / 200000;
    ASSERT_LT(100U, lSamples.size());
    for (const Sample& lrSample : lSamples) {
        const double lBeside = static_cast<double>(lrSample.mInUse - lBefore) - lLine * lrSample.mLines;
        EXPECT_LT(lBeside, 2 * 4000 + 4096 + 2000) << "after " << lrSample.mLines;  // and the C library's own buffer
    }
    const Texts lTexts = textsOf(mLines);
    ASSERT_EQ(200000U, lTexts.size());
    unsigned int lNumber = 100001;
    EXPECT_TRUE(std::all_of(lTexts.begin(), lTexts.end(),
                            [&](const std::string& acrText) { return std::to_string(lNumber++) == acrText; }));
}

/// A program that inherited the stream would keep the pipe open. A command that waits for its reader to close the pipe
/// would then keep running.
TEST_F(ExecuteLinuxTest, StreamIsNotInheritedByProgramsThatAreStartedWhileTheCommandRuns)
{
    int lFlags = -1;
    substitute::ClibFread.instead([&](char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream) {
        lFlags = fcntl(fileno(apStream), F_GETFD);
        return substitute::ClibFread.real(apBuffer, aSize, aCount, apStream);
    });
    const Recording lRecording;
    EXPECT_EQ((Texts{"a"}), run("echo a"));
    EXPECT_EQ(FD_CLOEXEC, lFlags);
}

/// A class derived from the expected exception. A copy made by the operation would lose this type.
class PlannedReadFailure : public OQCReadFailedEx
{
public:
    PlannedReadFailure() : OQCException("planned", 999), OQCOsException("", 0), OQCReadFailedEx("", 0) {}
};

TEST_F(ExecuteLinuxTest, FailedReadIsThrownAgainAsTheSameObject)
{
    substitute::ClibFread.instead(
        [](char*, unsigned int, unsigned int, FILE*) -> unsigned int { throw PlannedReadFailure(); });
    const Recording lRecording;
    EXPECT_FAILURE(PlannedReadFailure, 999, "planned", run(":"));
}

#if !OQ_SANITIZED
TEST_F(ExecuteLinuxTest, CancelledThreadFreesTheBufferAndLeavesTheStreamAndTheCommand)
{
    FILE* lpStream = nullptr;
    substitute::ClibFread.instead([&](char* apBuffer, unsigned int, unsigned int, FILE* apStream) {
        lpStream = apStream;
        followMemory(0, apBuffer);
        substitute::pthread_cancel.real(pthread_self());
        pthread_testcancel();
        return 0U;
    });
    pthread_t lThread;
    ASSERT_EQ(0, pthread_create(
                     &lThread, nullptr,
                     [](void* apLines) -> void* {
                         const Recording lRecording;
                         OsExecute("exit 5", *static_cast<OQCList<OQCString>*>(apLines));
                         return nullptr;
                     },
                     &mLines));
    void* lpResult = nullptr;
    EXPECT_EQ(0, pthread_join(lThread, &lpResult));
    EXPECT_EQ(PTHREAD_CANCELED, lpResult);
    EXPECT_TRUE(!FailingMemory::isPossible() || isFreed(0));
    EXPECT_EQ(R"(Entered
-T- "Calling popen"
popen("exit 5", "r") = memory
ClibFread(memory, 1, 3999, memory)
)",
              traceOf(recorded(), "OsExecute", ".//MiscLinux"));
    EXPECT_EQ(5 << 8, pclose(lpStream));
}
#endif

TEST_F(ExecuteLinuxTest, BufferIsSplitIntoLinesAndARest)
{
    const std::string cLong(3998, 'x');
    struct Row {
        std::string mText;
        Texts mLines;
        std::string mRest;
    };
    for (const Row& lrRow :
         {Row{"", {}, ""}, Row{"text", {}, "text"}, Row{"a\nbcdefghijklmnopqrstu", {"a"}, "bcdefghijklmnopqrstu"},
          Row{"a longer line\nend", {"a longer line"}, "end"}, Row{"\n\n", {"", ""}, ""},
          Row{"a\r\n\r\n\r", {"a\r", "\r"}, "\r"}, Row{cLong + "x", {}, cLong + "x"}, Row{cLong + "\n", {cLong}, ""},
          Row{"\n" + cLong, {""}, cLong}}) {
        char lBuffer[4000];
        strcpy(lBuffer, lrRow.mText.c_str());
        mLines.clear();
        EXPECT_EQ(static_cast<long>(lrRow.mRest.size()), OsBreak(lBuffer, mLines) - lBuffer);
        EXPECT_EQ(lrRow.mLines, textsOf(mLines));
        EXPECT_TRUE(lrRow.mRest.empty() || lrRow.mRest == lBuffer) << lBuffer;
    }
}

class LockLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        mPath = path("locked");
        mFile = open(mPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_LE(0, mFile);
    }
    void TearDown() override
    {
        close(mFile);
        unlink(mPath.c_str());
        RecordedTest::TearDown();
    }

    static OQEFileLockStatus status(int aFile)
    {
        OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0);
        OsFileLockStatus(aFile, lStatus);
        return lStatus;
    }
    /// Returns the lock status that another process sees at an offset.
    OQEFileLockStatus statusElsewhere(off_t aOffset = 0) const
    {
        return static_cast<OQEFileLockStatus>(inChild([&] {
            const int lFile = open(mPath.c_str(), O_RDWR);
            lseek(lFile, aOffset, SEEK_SET);
            _exit(status(lFile));
        }));
    }

    std::string mPath;
    int mFile = -1;
};

TEST_F(LockLinuxTest, LockExcludesOtherProcessesUntilOneUnlock)
{
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere());
    OsLockFile(mFile);
    OsLockFile(mFile);
    EXPECT_EQ(OQFLS_Unlocked, status(mFile)) << "for this process itself";
    EXPECT_EQ(OQFLS_Locked, statusElsewhere());
    OsUnlockFile(mFile);
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere());
    EXPECT_NO_THROW(OsUnlockFile(mFile));
}

TEST_F(LockLinuxTest, LockOfAnotherProcessIsFoundFromItsOffsetOn)
{
    Peer lPeer([this](Peer& arPeer) {
        const int lFile = open(mPath.c_str(), O_RDWR);
        lseek(lFile, 100, SEEK_SET);
        OsLockFile(lFile);
        arPeer.signal();
        arPeer.meet();
    });
    lPeer.meet();
    for (const off_t lOffset : {0, 99, 100, 5000}) {
        lseek(mFile, lOffset, SEEK_SET);
        // The call must fail at once: the other process waits for this one.
        EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Resource temporarily unavailable", OsLockFile(mFile));
        EXPECT_EQ(OQFLS_Locked, status(mFile));
    }
    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait());
    EXPECT_EQ(OQFLS_Unlocked, status(mFile));
    EXPECT_NO_THROW(OsLockFile(mFile));
}

TEST_F(LockLinuxTest, ThreadsOfOneProcessDoNotExcludeEachOther)
{
    OsLockFile(mFile);
    std::thread([this] {
        const int lFile = open(mPath.c_str(), O_RDWR | O_CLOEXEC);
        EXPECT_EQ(OQFLS_Unlocked, status(lFile));
        EXPECT_NO_THROW(OsLockFile(lFile));
        close(lFile);
    }).join();
}

TEST_F(LockLinuxTest, RegionBeginsAtTheCurrentOffsetAndHasNoEnd)
{
    lseek(mFile, 10, SEEK_SET);
    OsLockFile(mFile);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(0));
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(1000000));
    lseek(mFile, 20, SEEK_SET);
    OsUnlockFile(mFile);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(19));
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere(20));
    EXPECT_EQ(20, lseek(mFile, 0, SEEK_CUR));
}

TEST_F(LockLinuxTest, DescriptorThatIsNotOpenForWritingCannotBeLocked)
{
    const int lFile = open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Bad file descriptor", OsLockFile(lFile));
    EXPECT_EQ(OQFLS_Unlocked, status(lFile));
    close(lFile);
    EXPECT_FAILURE(OQCFileUnLockFailedEx, 331, "Bad file descriptor", OsUnlockFile(lFile));
    EXPECT_EQ(OQFLS_Locked, status(lFile));
    static_assert(1 == sizeof(OQEFileLockStatus) && 1 == sizeof(OQEOperatingSystem), "one byte wide");
}

TEST_F(LockLinuxTest, KillReachesALiveProcessAlone)
{
    Peer lPeer([](Peer& arPeer) {
        signal(SIGTERM, SIG_DFL);
        arPeer.signal();
        arPeer.meet();
    });
    lPeer.meet();
    const pid_t lPid = lPeer.pid();
    EXPECT_EQ(-1, OsKill(lPid, 1000));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, OsKill(lPid, 0));
    EXPECT_EQ(EINVAL, errno) << "kept";
    EXPECT_EQ(0, OsKill(lPid, SIGTERM));
    EXPECT_EQ(-SIGTERM, lPeer.wait());
    EXPECT_EQ(-1, OsKill(lPid, 0));
    EXPECT_EQ(ESRCH, errno);
}

typedef RecordedTest HostLinuxTest;

TEST_F(HostLinuxTest, RealHostIsLookedUpUnderItsOwnName)
{
    std::string lAsked;
    substitute::gethostbyname.instead([&lAsked](const char* acName) {
        lAsked = acName;
        return substitute::gethostbyname.real(acName);
    });
    OQCList<unsigned int> lAddresses;
    bool lHasNone = false;
    try {
        const Recording lRecording;
        OsGetAllIpAddresses(lAddresses);
    } catch (const OQCGetIpAddressFailEx&) {
        lHasNone = true;
    }
    EXPECT_EQ(lHasNone, 0 == lAddresses.size());
    EXPECT_TRUE(std::none_of(lAddresses.begin(), lAddresses.end(),
                             [](unsigned int aAddress) { return 127 == aAddress >> 24; }));
    char lName[128] = {};
    ASSERT_EQ(0, gethostname(lName, sizeof lName));
    EXPECT_EQ(lName, lAsked);
}

TEST_F(HostLinuxTest, RealHostHasTheFirstLineOfItsOwnFileOrTheFixedText)
{
    std::string lExpected = "Red Hat Enterprise Linux Server release 5.x";
    for (const char* const lpPath : {"/etc/redhat-release", "/etc/enterprise-release", "/etc/oracle-release"}) {
        std::ifstream lFile(lpPath);
        if (lFile) {
            getline(lFile, lExpected);
        }
    }
    OQEOperatingSystem lFamily;
    OQCString lName("");
    OsGetOsName(lFamily, lName);
    EXPECT_EQ(lExpected, lName.get());
}

}  // namespace
