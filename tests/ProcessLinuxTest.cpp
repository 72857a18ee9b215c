// Processes with real programs, signals, threads and memory. outcomes/Processes.cpp tests how each operation ends.

#include <fcntl.h>
#include <stdio_ext.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>

#include "Command.h"

namespace
{

const char* const cResultFile = "/tmp/.vyrsyscmd";

/// Returns memory that a process and its children share until they end.
template <class T>
T& shared()
{
    return *new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) T();
}

/// While the object exists, a SIGALRM with a handler arrives every 10 milliseconds.
class Alarms
{
public:
    Alarms()
    {
        RegisterSignalHandler(SIGALRM, [](int) {});
        set(10000);
    }
    ~Alarms() { set(0); }

private:
    static void set(int aMicroseconds)
    {
        const itimerval lTimer = {{0, aMicroseconds}, {0, aMicroseconds}};
        setitimer(ITIMER_REAL, &lTimer, nullptr);
    }
};

std::vector<char*> pointersTo(std::vector<std::string>& arTexts)
{
    std::vector<char*> lPointers;
    for (std::string& lrText : arTexts) {
        lPointers.push_back(&lrText[0]);
    }
    lPointers.push_back(nullptr);
    return lPointers;
}

/// Starts a program with a Recording, so that plans have effect.
int start(const char* acPath, std::vector<std::string> aArguments = {"program"},
          std::vector<std::string> aEnvironment = {})
{
    const std::vector<char*> lArguments = pointersTo(aArguments);
    const std::vector<char*> lEnvironment = pointersTo(aEnvironment);
    const Recording lRecording;
    return ProcessCreate(acPath, lArguments.data(), lEnvironment.data());
}

/// Starts a program that cannot be run. The child that catches the exception calls acrInChild and ends with status 42.
int startInVain(
    const std::function<void()>& acrInChild = [] {}, const char* acPath = "/nonexistent/program")
{
    const pid_t lParent = getpid();
    try {
        return start(acPath);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        if (lParent == getpid()) {
            ADD_FAILURE() << "thrown in the parent: " << acrFailure.what();
            return -1;
        }
        acrInChild();
        _exit(42);
    }
}

/// Starts a child that calls acrRun and then ends with status 99.
pid_t childThat(const std::function<void()>& acrRun)
{
    const pid_t lChild = fork();
    if (0 == lChild) {
        acrRun();
        _exit(99);
    }
    return lChild;
}

/// Waits until a child has ended. The caller must still reap it.
void awaitEnd(pid_t aChild)
{
    siginfo_t lInfo;
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOWAIT));
}

/// Waits for a child by a call that is not a cancellation point.
/// \return its exit status, or minus the signal that ended it
int exitOf(int aChild)
{
    int lState;
    int lStatus = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
    while (waitpid(aChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    pthread_setcancelstate(lState, nullptr);
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
}

void expectRunning(int aChild)
{
    ASSERT_LT(0, aChild);
    EXPECT_EQ(0, waitpid(aChild, nullptr, WNOHANG));
    EXPECT_EQ(0, kill(aChild, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(aChild, 0));
}

/// Redirects a standard stream of the process to a file.
int redirect(int aDescriptor, const std::string& acrPath, int aFlags)
{
    const int lFile = open(acrPath.c_str(), aFlags, 0600);
    dup2(lFile, aDescriptor);
    return lFile;
}

class ProcessLinuxTest : public RecordedTest
{
protected:
    void TearDown() override
    {
        for (const int lSignal : {SIGCHLD, SIGRTMIN, SIGTERM, SIGUSR1, SIGUSR2}) {
            signal(lSignal, SIG_DFL);
        }
        RecordedTest::TearDown();
    }

    static bool isInTrace(const std::string& acrText)
    {
        return std::string::npos != traceOf(recorded(), "ProcessCreate", ".//ProcessLinux").find(acrText);
    }

    /// A file of the test.
    static std::string file(const char* acName, const std::string& acrText, mode_t aMode)
    {
        const std::string lPath = path(acName);
        std::ofstream(lPath) << acrText;
        chmod(lPath.c_str(), aMode);
        return lPath;
    }
};

/// Tests of starts. The parameter is whether the child of vfork() has a copy of its parent's memory.
class ProcessCreateTest : public ProcessLinuxTest, public ::testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        ProcessLinuxTest::SetUp();
        if (GetParam()) {
            substitute::vfork.instead([] { return substitute::fork.real(); });
        }
    }
};
#if OQ_SHARING_VFORK
const auto cCopies = ::testing::Values(false, true);
#else
const auto cCopies = ::testing::Values(true);
#endif
INSTANTIATE_TEST_SUITE_P(Memory, ProcessCreateTest, cCopies,
                         [](const auto& acrCopies) { return acrCopies.param ? "Copied" : "Shared"; });

TEST_P(ProcessCreateTest, TheProgramGetsItsArgumentsAndItsEnvironmentAndNoOther)
{
    setenv("OQ_NOT_PASSED_ON", "x", 1);
    const int lChild = start("/bin/sh",
                             {"given name", "-c",
                              "test \"$OQ_ONE\" = 'first value' && test -z \"$OQ_NOT_PASSED_ON\" && test $# = 2 && "
                              "test \"$0\" = zero && test \"$1\" = 'two words' && test -z \"$2\" && exit 7",
                              "zero", "two words", ""},
                             {"OQ_ONE=first value"});
    unsetenv("OQ_NOT_PASSED_ON");
    EXPECT_EQ(7, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, TheProgramContinuesToReadWhereTheParentStopped)
{
    const std::string lInput = file("input", "first\nsecond\n", 0600);
    const std::string lOutput = path("output");
    EXPECT_EQ(0, inChild([&] {
                  __fpurge(stdin);
                  redirect(0, lInput, O_RDONLY);
                  redirect(1, lOutput, O_WRONLY | O_CREAT);
                  char lLine[64];
                  EXPECT_STREQ("first\n", fgets(lLine, sizeof lLine, stdin));
                  EXPECT_EQ(0, ProcessWait(start("/bin/cat"), 0));
              }));
    EXPECT_EQ("second\n", contentOf(lOutput));
    unlink(lInput.c_str());
    unlink(lOutput.c_str());
}

TEST_P(ProcessCreateTest, UnflushedStandardOutputIsNeitherWrittenNorDoubled)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer's _exit() flushes all streams";
#endif
    const std::string lOutput = path("output");
    EXPECT_EQ(0, inChild([&] {
                  const int lFile = redirect(1, lOutput, O_RDWR | O_CREAT);
                  static char sBuffer[4096];
                  setvbuf(stdout, sBuffer, _IOFBF, sizeof sBuffer);
                  printf("once");
                  EXPECT_EQ(0, ProcessWait(start("/bin/true"), 0));
                  EXPECT_EQ(42, ProcessWait(startInVain(), 0));
                  EXPECT_EQ(0, lseek(lFile, 0, SEEK_END));
                  fflush(stdout);
                  EXPECT_EQ(4, lseek(lFile, 0, SEEK_END));
              }));
    unlink(lOutput.c_str());
}

/// The flush takes the stream's lock. A reading thread holds the lock while it waits for input.
TEST_P(ProcessCreateTest, AStartWaitsWhileAnotherThreadHoldsTheStandardInputStream)
{
    std::atomic<bool> lIsFlushing(false);
    std::atomic<bool> lIsReleased(false);
    std::promise<void> lHeld;
    substitute::fflush.instead([&](FILE* apStream) {
        lIsFlushing = true;
        return substitute::fflush.real(apStream);
    });
    std::thread lReader([&] {
        flockfile(stdin);
        lHeld.set_value();
        EXPECT_TRUE(eventually([&] { return lIsFlushing.load(); }));
        usleep(30000);  // a start that does not wait returns in this time
        lIsReleased = true;
        funlockfile(stdin);
    });
    lHeld.get_future().wait();
    const int lChild = start("/bin/true");
    EXPECT_TRUE(lIsReleased);
    lReader.join();
    EXPECT_EQ(0, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, TheErrorTextIsThatOfTheSystem)
{
    const std::string lPlain = file("plain", "#!/bin/sh\n", 0644);
    const std::string lNoProgram = file("noprogram", "neither a script nor a program\n", 0755);
    const std::pair<std::string, const char*> cTexts[] = {
        {"/nonexistent/program", "No such file or directory"},
        {"true", "No such file or directory"},  // a path: PATH is not searched
        {"", "No such file or directory"},
        {lPlain, "Permission denied"},
        {"/tmp", "Permission denied"},
        {lNoProgram, "Exec format error"}};
    for (const auto& lrText : cTexts) {
        clearEvents();
        EXPECT_EQ(42, ProcessWait(startInVain([] {}, lrText.first.c_str()), 0));
        EXPECT_TRUE(isInTrace(std::string("-E- \"Failed to exec child :%s\" \"") + lrText.second)) << lrText.first;
    }
    unlink(lPlain.c_str());
    unlink(lNoProgram.c_str());
}

TEST_P(ProcessCreateTest, AChildThatCatchesTheExceptionMayCallExitAndOneThatDoesNotIsTerminated)
{
    EXPECT_EQ(42, exitOf(startInVain([] { exit(42); })));
    EXPECT_EQ(0, inChild([] {
                  const rlimit lNoCore = {0, 0};
                  setrlimit(RLIMIT_CORE, &lNoCore);
                  redirect(2, "/dev/null", O_WRONLY);
                  signal(SIGABRT, SIG_DFL);
                  EXPECT_EQ(-SIGABRT, exitOf([]() noexcept { return start("/nonexistent/program"); }()));
              }));
}

// Calls itself, so that each frame has local variables that the start could damage.
unsigned int sDamaged = 0;

[[gnu::noinline]] int startBelow(unsigned int aDepth, unsigned int aSeed, bool aCatchBelow)
{
    volatile unsigned int lLocals[48];
    for (unsigned int lIndex = 0; lIndex < 48; ++lIndex) {
        lLocals[lIndex] = aSeed * 2654435761U + aDepth * 48 + lIndex;
    }
    const int lChild = 0 < aDepth    ? startBelow(aDepth - 1, aSeed, aCatchBelow)
                       : aCatchBelow ? startInVain()
                                     : start("/nonexistent/program");
    for (unsigned int lIndex = 0; lIndex < 48; ++lIndex) {
        sDamaged += lLocals[lIndex] == aSeed * 2654435761U + aDepth * 48 + lIndex ? 0U : 1U;
    }
    return lChild;
}

/// Allocates memory and forks until acrStop is set.
void disturb(const std::atomic<bool>& acrStop)
{
    for (size_t lSize = 1; !acrStop; lSize = lSize * 7 % 200003) {
        const std::unique_ptr<char[]> lBlock(new char[lSize]);
        lBlock[lSize - 1] = 1;
        EXPECT_EQ(0, exitOf(childThat([] {
                      usleep(500);
                      _exit(0);
                  })));
    }
}

TEST_P(ProcessCreateTest, AThousandFailuresAtSeveralDepthsLeaveTheParentUndamagedWhileThreadsAllocateAndFork)
{
    keepNoEvents();
    std::atomic<bool> lStop(false);
    std::vector<std::thread> lThreads;
    while (lThreads.size() < 4) {
        lThreads.emplace_back(disturb, std::cref(lStop));
    }
    const pid_t lParent = getpid();
    const unsigned int cRounds = OQ_SLOW ? 100 : 1000;
    for (unsigned int lRound = 0; lRound < cRounds && !HasFailure(); ++lRound) {
        int lChild = -1;
        try {
            lChild = startBelow(lRound % 7 * 3, lRound, 0 == lRound % 2);
        } catch (const OQCProcessCreationFailedEx& acrFailure) {
            _exit(lParent != getpid() && 0 == strcmp("No such file or directory", acrFailure.what()) ? 42 : 43);
        }
        EXPECT_EQ(42, ProcessWait(lChild, 0));
    }
    lStop = true;
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(0U, sDamaged);
}

// The parent waits for the child in which the exception is thrown, and only for that child

TEST_P(ProcessCreateTest, TheParentDoesNotWaitForTheProgramToEndEvenIfItCreatesASession)
{
    expectRunning(start("/bin/sleep", {"sleep", "30"}));
    for (int lRound = 0; lRound < 20; ++lRound) {
        expectRunning(start("/usr/bin/setsid", {"setsid", "sleep", "30"}));
    }
}

/// Holds the throwing child for a time. Expects that the parent does not return before the child continues.
class Hold
{
public:
    Hold()
        : mThread([this] {
              EXPECT_TRUE(eventually([this] { return mrIsCaught.load(); }));
              usleep(60000);  // a parent that does not wait returns in this time
              EXPECT_FALSE(mHasReturned) << "the parent returned before the child had finished";
              mrMayGo = true;
          })
    {
    }
    ~Hold() { mThread.join(); }
    void inChild()
    {
        mrIsCaught = true;
        EXPECT_TRUE(eventually([this] { return mrMayGo.load(); }));
    }
    void returned()
    {
        mHasReturned = true;
        EXPECT_TRUE(mrMayGo);
    }

private:
    std::atomic<bool>& mrIsCaught = shared<std::atomic<bool>>();
    std::atomic<bool>& mrMayGo = shared<std::atomic<bool>>();
    std::atomic<bool> mHasReturned{false};
    std::thread mThread;
};

/// Expects that the parent waits until the throwing child has ended, or runs another program. The child first calls
/// acrFirst.
void expectParentWaits(const std::function<void()>& acrFirst, bool aRunsProgram = false)
{
    Hold lHold;
    const int lChild = startInVain([&] {
        acrFirst();
        lHold.inChild();
        if (aRunsProgram) {
            execl("/bin/sleep", "sleep", "30", nullptr);
        }
    });
    lHold.returned();
    if (aRunsProgram) {
        expectRunning(lChild);
    } else {
        EXPECT_EQ(42, exitOf(lChild));
    }
}

/// Afterwards the kernel releases no robust lock of the calling thread.
void forgetLocks() { syscall(SYS_set_robust_list, nullptr, 3 * sizeof(void*)); }

TEST_P(ProcessCreateTest, TheParentWaitsUntilTheThrowingChildHasEnded)
{
    expectParentWaits([] {});
    expectParentWaits([] { close_range(0, ~0U, 0); });
    expectParentWaits([] {
        forgetLocks();
        setsid();
    });
    const Alarms lAlarms;
    expectParentWaits([] {});
}

TEST_P(ProcessCreateTest, TheParentWaitsForTheThrowingChildWhenNoDescriptorIsFree)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the sanitizer opens a file to look at the type of an object";
    }
    EXPECT_EQ(0, inChild([] {
                  useAllDescriptors();
                  expectParentWaits([] {});
              }));
}

/// Returns how many mappings of shared anonymous memory this process has.
int sharedMappings()
{
    std::ifstream lMaps("/proc/self/maps");
    int lCount = 0;
    for (std::string lLine; std::getline(lMaps, lLine);) {
        lCount += std::string::npos == lLine.find("/dev/zero (deleted)") ? 0 : 1;
    }
    return lCount;
}

TEST_P(ProcessCreateTest, TheMemoryThatAChildSharesIsUnmapped)
{
    const int lBefore = sharedMappings();
    EXPECT_EQ(0, ProcessWait(start("/bin/true"), 0));
    EXPECT_EQ(42, ProcessWait(startInVain(), 0));
    EXPECT_EQ(lBefore, sharedMappings());
}

TEST_P(ProcessCreateTest, TheParentWaitsForAThrowingChildThatSharesNoMemoryWithIt)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "there is no substitute for mmap()";
#else
    substitute::mmap.failOn(2, MAP_FAILED, ENOMEM);  // the first mapping holds the error of a child with a copy
    expectParentWaits([] { setsid(); });
#endif
}

TEST_P(ProcessCreateTest, TheParentWaitsWhenTheThrowingThreadEndsBeforeItsProcess)
{
    std::atomic<bool>& lrEnds = shared<std::atomic<bool>>();
    const int lChild = startInVain([&] {
        std::thread([&] {
            usleep(60000);  // a parent that does not wait returns in this time
            lrEnds = true;
            _exit(42);
        }).detach();
        syscall(SYS_exit, 0);  // ends only this thread, without unwinding
    });
    EXPECT_TRUE(lrEnds);
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, TheParentReturnsWhenTheThrowingChildRunsAnotherProgram)
{
    expectParentWaits([] {}, true);
    expectParentWaits(forgetLocks, true);
}

TEST_P(ProcessCreateTest, TheParentReturnsWhenAThrowingChildInASessionOfItsOwnRunsAnotherProgram)
{
    expectParentWaits([] { setsid(); }, true);
}

TEST_P(ProcessCreateTest, TheParentReturnsWhenTheThrowingChildIsKilledBeforeItHoldsItsLock)
{
    substitute::fork.instead([] {
        const pid_t lChild = substitute::fork.real();
        if (0 == lChild) {
            substitute::kill.real(getpid(), SIGKILL);
        }
        return lChild;
    });
    EXPECT_EQ(-1, ProcessWait(startInVain(), 0));
}

/// A vfork() that shares memory returns when the program runs or has failed. The parent then need not poll.
TEST_P(ProcessCreateTest, TheParentPollsOnlyWhereVforkCopies)
{
    substitute::setpgid.show();
    EXPECT_EQ(0, ProcessWait(start("/bin/true"), 0));
    EXPECT_EQ(GetParam(), isInTrace("setpgid("));
}

TEST_P(ProcessCreateTest, ASignalThatInterruptsTheParentLeavesNoChild)
{
    substitute::waitpid.failOn(1, -1, EINTR);
    EXPECT_EQ(42, ProcessWait(startInVain(), 0));
    EXPECT_TRUE(isInTrace("waitpid(child 1, null, 0) = -1 EINTR\nwaitpid(child 1, null, 0) = child 1\n"));
}

std::atomic<int> sLastReaped(0);
std::atomic<int> sLastStatus(0);

void reapAll(int)
{
    const int lErrno = errno;
    int lStatus;
    for (pid_t lChild; 0 < (lChild = substitute::waitpid.real(-1, &lStatus, WNOHANG));) {
        sLastStatus = lStatus;
        sLastReaped = lChild;
    }
    errno = lErrno;
}

TEST_P(ProcessCreateTest, AHandlerThatReapsChildrenFirstDoesNoHarm)
{
    RegisterSignalHandler(SIGCHLD, reapAll);
    const int lChild = startInVain();
    EXPECT_TRUE(eventually([&] { return lChild == sLastReaped; }));
    EXPECT_EQ(42 << 8, sLastStatus);
    EXPECT_TRUE(isInTrace("\"No such file or directory\""));
}

TEST_P(ProcessCreateTest, IgnoredChildrenDoNoHarm)
{
    signal(SIGCHLD, SIG_IGN);
    const int lChild = startInVain();
    EXPECT_LT(0, lChild);
    EXPECT_TRUE(isInTrace("\"No such file or directory\""));
    EXPECT_THROW(ProcessWait(lChild, 0), OQCProcessWaitFailedEx);
#if !OQ_SANITIZED                                    // there is no substitute for mmap()
    substitute::mmap.failOn(2, MAP_FAILED, ENOMEM);  // the child holds no lock that could report its end
    EXPECT_LT(0, startInVain());
#endif
}

TEST_P(ProcessCreateTest, AnotherChildIsLeftToTheCaller)
{
    const pid_t lOther = childThat([] { _exit(5); });
    awaitEnd(lOther);
    EXPECT_EQ(42, ProcessWait(startInVain(), 0));
    EXPECT_EQ(5, ProcessWait(lOther, 0));
}

/// A failed start creates one child whose id it does not return. The start or the other thread reaps that child. The
/// test repeats the start until the other thread reaps it.
TEST_P(ProcessCreateTest, AWaitForAnyChildInAnotherThreadReapsChildrenThatNobodyWasGiven)
{
    EXPECT_EQ(0, inChild([] {
                  keepNoEvents();
                  std::atomic<unsigned int> lReaped(0);
                  std::atomic<bool> lStop(false);
                  std::thread lThread([&] {
                      while (!lStop) {
                          lReaped += 0 < waitpid(-1, nullptr, 0) ? 1U : 0U;
                      }
                  });
                  unsigned int lGiven = 0;
                  EXPECT_TRUE(eventually([&] {
                      ++lGiven;
                      const int lChild = startInVain();
                      pid_t lResult;
                      while ((lResult = waitpid(lChild, nullptr, 0)) < 0 && ECHILD != errno) {
                      }
                      lReaped += 0 < lResult ? 1U : 0U;
                      return lGiven < lReaped;
                  }));
                  lStop = true;
                  lThread.join();
              }));
}

TEST_P(ProcessCreateTest, TheThrowingChildHasTheDescriptorsOfItsParentAndNoOther)
{
    const auto lCount = [] {
        int lOpen = 0;
        for (int lDescriptor = 0; lDescriptor < 1024; ++lDescriptor) {
            lOpen += 0 <= fcntl(lDescriptor, F_GETFD) ? 1 : 0;
        }
        return lOpen;
    };
    int& lrInChild = shared<int>();
    const int lBefore = lCount();
    EXPECT_EQ(42, ProcessWait(startInVain([&] { lrInChild = lCount(); }), 0));
    EXPECT_EQ(lBefore, lrInChild);
    EXPECT_EQ(lBefore, lCount());
}

TEST_P(ProcessCreateTest, AStartIsNoCancellationPointAndTheThrowingChildCannotBeCancelled)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the address sanitizer does not follow the unwinding of a cancelled thread";
    }
    std::atomic<unsigned int> lReached(0);
    std::thread([&] {
        pthread_cancel(pthread_self());
        EXPECT_EQ(0, exitOf(start("/bin/true")));
        // A cancelled child would run the exit handlers of its parent and print buffered output again.
        EXPECT_EQ(43, exitOf(startInVain([] {
                      pthread_testcancel();
                      int lState = -1;
                      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
                      _exit(PTHREAD_CANCEL_DISABLE == lState ? 43 : 44);
                  })));
        int lState = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &lState);
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, lState);
        lReached = 1;
        pthread_testcancel();
        lReached = 2;
    }).join();
    EXPECT_EQ(1U, lReached) << "the thread must be cancelled after the starts";
}

pid_t sHost = 0;
std::atomic<unsigned int> sHandledInHost(0);
std::atomic<unsigned int> sHandledInChild(0);  // incremented by children that share the host's memory

void countSignals(int aSignal)
{
    sHost = getpid();
    sHandledInHost = 0;
    sHandledInChild = 0;
    RegisterSignalHandler(aSignal, [](int) { ++(sHost == getpid() ? sHandledInHost : sHandledInChild); });
}

#if OQ_SHARING_VFORK
TEST_F(ProcessLinuxTest, AHandlerOfTheHostRunsInNoChildThatSharesItsMemory)
{
    EXPECT_EQ(0, inChild([] {
                  keepNoEvents();
                  ASSERT_EQ(0, setpgid(0, 0));  // so that signals to the group reach only children of this test
                  countSignals(SIGURG);         // the default action ignores it, so a started program continues
                  std::atomic<bool> lStop(false);
                  std::thread lStorm([&] {
                      sigset_t lUrgent;
                      sigemptyset(&lUrgent);
                      sigaddset(&lUrgent, SIGURG);
                      pthread_sigmask(SIG_BLOCK, &lUrgent, nullptr);
                      while (!lStop) {
                          kill(0, SIGURG);
                      }
                  });
                  for (int lRound = 0; lRound < 150; ++lRound) {
                      EXPECT_EQ(0, exitOf(start("/bin/true")));
                  }
                  lStop = true;
                  lStorm.join();
                  EXPECT_LT(0U, sHandledInHost);
                  EXPECT_EQ(0U, sHandledInChild);
              }));
}
#endif

TEST_P(ProcessCreateTest, ASignalThatReachesTheHostDuringAStartIsHandledOnceAndByTheHost)
{
    countSignals(SIGUSR1);
    substitute::execve.instead([](const char* acPath, char* const* acArguments, char* const* acEnvironment) {
        substitute::kill.real(sHost, SIGUSR1);
        return substitute::execve.real(acPath, acArguments, acEnvironment);
    });
    EXPECT_EQ(0, exitOf(start("/bin/true")));
    EXPECT_EQ(1U, sHandledInHost);
    EXPECT_EQ(0U, sHandledInChild);
}

TEST_P(ProcessCreateTest, TheProgramStartsWithTheSignalMaskAndTheIgnoredSignalsOfItsCaller)
{
    signal(SIGUSR1, SIG_IGN);
    RegisterSignalHandler(SIGUSR2, [](int) {});
    sigset_t lBlocked;
    sigset_t lBefore;
    sigemptyset(&lBlocked);
    sigaddset(&lBlocked, SIGWINCH);
    pthread_sigmask(SIG_SETMASK, &lBlocked, &lBefore);
    EXPECT_EQ(0,
              exitOf(start("/bin/sh", {"sh", "-c",
                                       "set -- $(grep -E 'Sig(Blk|Ign)' /proc/self/status); "
                                       "test $((0x$2)) = $((1 << (28 - 1))) && test $((0x$4 & 1 << (10 - 1))) != 0"})));
    sigset_t lAfter;
    pthread_sigmask(SIG_SETMASK, &lBefore, &lAfter);
    for (int lSignal = 1; lSignal < 32; ++lSignal) {
        EXPECT_EQ(SIGWINCH == lSignal ? 1 : 0, sigismember(&lAfter, lSignal)) << lSignal;
    }
}

#if OQ_SHARING_VFORK
/// Returns the least of fifty durations of a start in which this process has touched as much memory, in seconds.
double secondsOfStart(size_t aTouched)
{
    void* const lpMemory = mmap(nullptr, aTouched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, lpMemory);
    madvise(lpMemory, aTouched, MADV_NOHUGEPAGE);
    memset(lpMemory, 1, aTouched);
    double lLeast = 60;
    for (unsigned int lStart = 0; lStart < 50 && !::testing::Test::HasFailure(); ++lStart) {
        const auto lBegin = std::chrono::steady_clock::now();
        const int lChild = start("/bin/true");
        lLeast = std::min(lLeast, std::chrono::duration<double>(std::chrono::steady_clock::now() - lBegin).count());
        EXPECT_EQ(0, ProcessWait(lChild, 0));
    }
    munmap(lpMemory, aTouched);
    return lLeast;
}

TEST_F(ProcessLinuxTest, AGigabyteOfMemoryDoesNotSlowTheStart)
{
    std::ifstream lMemory("/proc/meminfo");
    std::string lName, lUnit;
    unsigned long lKilobytes = 0;
    while (lName != "MemAvailable:" && lMemory >> lName >> lKilobytes) {
        getline(lMemory, lUnit);
    }
    if (lKilobytes < 2500000) {
        GTEST_SKIP() << "a gigabyte to be touched needs 2.5 of free memory";
    }
    keepNoEvents();
    double lRatio = 2;  // other work on the machine may slow only one side, but not in every run
    for (unsigned int lRun = 0; lRun < 10 && !HasFailure() && 1.5 <= lRatio; ++lRun) {
        lRatio = secondsOfStart(1024UL << 20) / secondsOfStart(10UL << 20);
    }
    RecordProperty("RatioInPercent", static_cast<int>(100 * lRatio));
    EXPECT_LT(lRatio, 1.5);
}
#endif

TEST_F(ProcessLinuxTest, WaitBlocksUntilThatChildEnds)
{
    std::atomic<bool>& lrMayEnd = shared<std::atomic<bool>>();
    const pid_t lAwaited = childThat([&] { _exit(eventually([&] { return lrMayEnd.load(); }) ? 6 : 99); });
    const pid_t lQuick = childThat([] { _exit(7); });
    awaitEnd(lQuick);
    std::thread lThread([&] {
        usleep(30000);  // a wait that does not block returns in this time
        lrMayEnd = true;
    });
    EXPECT_EQ(6, ProcessWait(lAwaited, 0));
    EXPECT_TRUE(lrMayEnd);
    lThread.join();
    EXPECT_EQ(7, ProcessWait(lQuick, 0));
    for (const pid_t lNoChild : {lQuick, getpid()}) {
        EXPECT_THROW(ProcessWait(lNoChild, 0), OQCProcessWaitFailedEx);
    }
}

TEST_F(ProcessLinuxTest, WaitForZeroOrANegativeNumberReapsAChildOfThatGroupOrAnyChild)
{
    const auto lGrouped = [](int aExitCode) {
        const pid_t lChild = childThat([=] {
            setpgid(0, 0);
            _exit(aExitCode);
        });
        setpgid(lChild, lChild);  // both processes call it, because either may run first
        awaitEnd(lChild);
        return lChild;
    };
    EXPECT_EQ(0, inChild([&] {  // a process without other children
                  const pid_t lOther = lGrouped(3);
                  const pid_t lOwn = childThat([] { _exit(4); });
                  EXPECT_EQ(4, ProcessWait(0, 0));
                  EXPECT_EQ(-1, waitpid(lOwn, nullptr, WNOHANG));
                  EXPECT_EQ(3, ProcessWait(-lOther, 0));
                  EXPECT_THROW(ProcessWait(-lOther, 0), OQCProcessWaitFailedEx);
                  lGrouped(5);
                  EXPECT_EQ(5, ProcessWait(-1, 0));
                  EXPECT_THROW(ProcessWait(-1, 0), OQCProcessWaitFailedEx);
                  EXPECT_THROW(ProcessWait(0, 0), OQCProcessWaitFailedEx);
              }));
}

TEST_F(ProcessLinuxTest, WaitInterruptedByAHandledSignalThrowsAndTheChildIsStillThere)
{
    std::atomic<bool>& lrMayEnd = shared<std::atomic<bool>>();
    const pid_t lChild = childThat([&] { _exit(eventually([&] { return lrMayEnd.load(); }) ? 8 : 99); });
    {
        const Alarms lAlarms;
        EXPECT_THROW(ProcessWait(lChild, 0), OQCProcessWaitFailedEx);
    }
    lrMayEnd = true;
    EXPECT_EQ(8, ProcessWait(lChild, 0));
}

volatile sig_atomic_t sHandled = 0;
volatile sig_atomic_t sUnblocked = 0;

void handle(int aSignal)
{
    sHandled = aSignal;
    sigset_t lBlocked;
    sigprocmask(SIG_BLOCK, nullptr, &lBlocked);
    int lUnblocked = 0;
    for (int lSignal = 1; lSignal <= 64; ++lSignal) {
        const bool lIsReserved = SIGKILL == lSignal || SIGSTOP == lSignal || 32 == lSignal || 33 == lSignal;
        lUnblocked += lIsReserved || 1 == sigismember(&lBlocked, lSignal) ? 0 : 1;
    }
    sUnblocked = lUnblocked;
}

TEST_F(ProcessLinuxTest, AHandlerGetsTheSignalNumberWhileEveryOtherSignalIsBlocked)
{
    for (const int lSignal : {SIGUSR1, SIGTERM, SIGRTMIN}) {
        RegisterSignalHandler(lSignal, handle);
        sHandled = 0;
        sUnblocked = -1;
        raise(lSignal);
        EXPECT_TRUE(eventually([] { return 0 != sHandled; }));
        EXPECT_EQ(lSignal, sHandled);
        EXPECT_EQ(0, sUnblocked);
    }
}

/// All processes of the machine share one result file, so these tests take turns, also with other processes.
class Turn
{
public:
    Turn() : mLock(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        while (0 != flock(mLock, LOCK_EX) && EINTR == errno) {
        }
        unlink(cResultFile);
    }
    ~Turn()
    {
        unlink(cResultFile);
        close(mLock);
    }

private:
    const int mLock;
};

TEST_F(ProcessLinuxTest, AProcessIsFoundByItsNameAndTheNextCallRewritesTheFile)
{
    const Turn lTurn;
    const std::string lName = "oqs" + std::to_string(getpid());
    const std::string lProgram = file(lName.c_str(), contentOf("/bin/sleep"), 0700);
    int lChild = -1;
    try {
        lChild = start(lProgram.c_str(), {"sleep", "60"});
    } catch (const OQCProcessCreationFailedEx&) {
        _exit(42);  // in the child, which must not wait for the lock of its parent
    }
    EXPECT_TRUE(eventually([&] {  // ProcessCreate may return before the system sets the child's new name
        return lName + "\n" == contentOf("/proc/" + std::to_string(lChild) + "/comm");
    }));
    EXPECT_EQ(1, isProcessRunning(lName.c_str()));
    EXPECT_EQ(std::to_string(lChild) + "\n", contentOf(cResultFile));
    EXPECT_EQ(1, isProcessRunning(("'^" + lName.substr(0, 3) + ".*" + lName.substr(3) + "$'").c_str()))
        << "the name is a pattern";
    expectRunning(lChild);
    EXPECT_EQ(0, isProcessRunning(lName.c_str()));
    EXPECT_EQ("", contentOf(cResultFile));
    EXPECT_EQ(0, unlink(cResultFile));
    unlink(lProgram.c_str());
}

TEST_F(ProcessLinuxTest, NothingIsRunningWherePgrepIsMissingOrTheFileCannotBeMade)
{
    const Turn lTurn;
    const auto lIsNotRunning = [](const char* acPath) {
        EXPECT_EQ(0, inChild([acPath] {
                      setenv("PATH", acPath, 1);
                      redirect(2, "/dev/null", O_WRONLY);
                      EXPECT_EQ(0, isProcessRunning("."));
                  }));
    };
    lIsNotRunning("/nonexistent");
    EXPECT_EQ("", contentOf(cResultFile));
    EXPECT_EQ(0, unlink(cResultFile));
    ASSERT_EQ(0, symlink("/nonexistent/file", cResultFile));
    lIsNotRunning("/usr/bin:/bin");
}

}  // namespace
