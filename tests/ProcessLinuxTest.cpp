#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "TestKit.h"

#if !OQ_SANITIZED  // a sanitizer maps memory before it knows the real function
OQ_FAULTY(void*, mmap, (void* apAddress, size_t aSize, int aProtection, int aFlags, int aDescriptor, off_t aOffset),
          (apAddress, aSize, aProtection, aFlags, aDescriptor, aOffset), noexcept)
#endif
OQ_FAULTY(int, setpgid, (pid_t aProcess, pid_t aGroup), (aProcess, aGroup), noexcept)

/// What the child does first, before the layer's own code or before its program.
void (*gInForkedChild)() = nullptr;
void (*gBeforeProgram)() = nullptr;

Fault forkFault;
extern "C" pid_t fork() noexcept
{
    if (forkFault.fires()) {
        return static_cast<pid_t>(forkFault.result());
    }
    static Behind<pid_t()> lReal("fork");
    const pid_t lChild = lReal();
    if (0 == lChild && nullptr != gInForkedChild) {
        gInForkedChild();
    }
    return lChild;
}

Fault execveFault;
extern "C" int execve(const char* acPath, char* const* acArgv, char* const* acEnvp) noexcept
{
    if (nullptr != gBeforeProgram) {
        gBeforeProgram();
    }
    if (execveFault.fires()) {
        return static_cast<int>(execveFault.result());
    }
    static Behind<int(const char*, char* const*, char* const*)> lReal("execve");
    return lReal(acPath, acArgv, acEnvp);
}

// A function that calls vfork() and returns takes the frame away under which its child runs on. The test program's
// vfork() must therefore jump to the real one and leave no frame of its own, which only the assembler can say.
// Elsewhere the tests know vfork() as a fork(): the way it is emulated by some systems.
#if defined(__x86_64__) && !OQ_SANITIZED
#define OQ_SHARING_VFORK 1
#else
#define OQ_SHARING_VFORK 0
#endif

#define OQ_IN_PROGRAM __attribute__((visibility("hidden"), used))

enum VforkPlan : int {
    cVforkShares = 0,  // the real one
    cVforkCopies = 1,  // as a fork()
    cVforkFails = 2
};

extern "C" {
OQ_IN_PROGRAM int gVforkPlan = cVforkShares;
OQ_IN_PROGRAM int gVforkCalls = 0;
OQ_IN_PROGRAM int gVforkErrno = 0;
OQ_IN_PROGRAM void* gVforkReal = dlsym(RTLD_NEXT, "vfork");

OQ_IN_PROGRAM pid_t gVforkPlanned()
{
    if (cVforkFails == gVforkPlan) {
        errno = gVforkErrno;
        return -1;
    }
    static Behind<pid_t()> lFork("fork");
    return lFork();
}
}

#if OQ_SHARING_VFORK
__asm__(
    ".text\n"
    ".globl vfork\n"
    ".type vfork, @function\n"
    "vfork:\n"
    "    endbr64\n"
    "    lock incl gVforkCalls(%rip)\n"
    "    cmpl $0, gVforkPlan(%rip)\n"
    "    jne gVforkPlanned\n"
    "    jmp *gVforkReal(%rip)\n"
    ".size vfork, .-vfork\n");
#else
extern "C" pid_t vfork() noexcept
{
    __atomic_add_fetch(&gVforkCalls, 1, __ATOMIC_SEQ_CST);
    return gVforkPlanned();
}
#endif

/// A status to be told instead of waiting, and what was asked.
std::atomic<bool> gStatusPlanned(false);
int gStatus = 0;
struct {
    pid_t mPid;
    bool mWithStatus;
    int mOptions;
} gWaitedFor;

Fault waitpidFault;
extern "C" pid_t waitpid(pid_t aPid, int* apStatus, int aOptions)
{
    static Behind<pid_t(pid_t, int*, int)> lReal("waitpid");
    if (waitpidFault.fires()) {
        return static_cast<pid_t>(waitpidFault.result());
    }
    if (!gStatusPlanned) {
        return lReal(aPid, apStatus, aOptions);
    }
    gWaitedFor = {aPid, nullptr != apStatus, aOptions};
    *apStatus = gStatus;
    return aPid;
}

std::atomic<unsigned int> gFlushes(0);
FILE* gFlushed = nullptr;
int gVforkCallsAtFlush = -1;
size_t gLinesAtFlush = 99;

extern "C" int fflush(FILE* apStream)
{
    static Behind<int(FILE*)> lReal("fflush");
    if (0 == gFlushes++) {
        gFlushed = apStream;
        gVforkCallsAtFlush = gVforkCalls;
        gLinesAtFlush = logged().size();
    }
    return lReal(apStream);
}

/// The error text is taken with the caller's buffer: which, and of what size.
struct TextCall {
    char* mBuffer;
    unsigned int mSize;
};
TextCall gTextCalls[8];
std::atomic<unsigned int> gTextCount(0);

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    const unsigned int lCall = gTextCount++;
    if (lCall < 8) {
        gTextCalls[lCall] = {apBuffer, aSize};
    }
    return lReal(apBuffer, aSize);
}

/// The last record that was installed, as it was given: the system need not hand back flags that it does not know.
struct sigaction gInstalled;
extern "C" int sigaction(int aSignal, const struct sigaction* acAction, struct sigaction* apOld) noexcept
{
    if (nullptr != acAction) {
        gInstalled = *acAction;
    }
    static Behind<int(int, const struct sigaction*, struct sigaction*)> lReal("sigaction");
    return lReal(aSignal, acAction, apOld);
}

std::string gCommand;
Fault systemFault;
extern "C" int system(const char* acCommand)
{
    gCommand = acCommand;
    if (systemFault.fires()) {
        return static_cast<int>(systemFault.result());
    }
    static Behind<int(const char*)> lReal("system");
    return lReal(acCommand);
}

std::string gFormat;
int ClibSprintf(char* apBuffer, const char* acFormat, ...)
{
    gFormat = acFormat;
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsprintf(apBuffer, acFormat, lArguments);
    va_end(lArguments);
    return lLength;
}

/// What the look at a file finds: whatever this does with the record, if it is set.
std::function<void(struct stat&)> gStatPlan;
std::string gStatPath;
int ClibStat(const char* acPath, struct stat* apInfo)
{
    gStatPath = acPath;
    if (gStatPlan) {
        gStatPlan(*apInfo);
        return 0;
    }
    static Behind<int(const char*, struct stat*)> lReal("_Z8ClibStatPKcP4stat");
    return lReal(acPath, apInfo);
}

namespace
{

const LinesOf cCreate(".//ProcessLinux", "ProcessCreate");
const LinesOf cWait(".//ProcessLinux", "ProcessWait");
const LinesOf cRegister(".//ProcessLinux", "RegisterSignalHandler");
const LinesOf cRunning(".//ProcessLinux", "isProcessRunning");

const char* const cMissing = "/nonexistent/program";
const char* const cResultFile = "/tmp/.vyrsyscmd";

/// The texts of an argument or environment list.
class Texts
{
public:
    Texts(std::initializer_list<const char*> aTexts) : mTexts(aTexts.begin(), aTexts.end())
    {
        for (std::string& lrText : mTexts) {
            mPointers.push_back(&lrText[0]);
        }
        mPointers.push_back(nullptr);
    }
    Texts(const Texts&) = delete;
    Texts& operator=(const Texts&) = delete;
    operator char* const*() const { return mPointers.data(); }

private:
    std::vector<std::string> mTexts;
    std::vector<char*> mPointers;
};

const Texts cNoArguments{"program"};
const Texts cNoEnvironment{};

/// Memory that a child and its parent both see.
template <class T>
class Shared
{
public:
    Shared()
        : mMemory(static_cast<T*>(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
    }
    ~Shared() { munmap(mMemory, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    T* operator->() { return mMemory; }

private:
    T* mMemory;
};

/// The two ends of a pipe, open as long as this.
class Channel
{
public:
    Channel()
    {
        if (pipe(mEnds) < 0) {
            abort();
        }
    }
    ~Channel()
    {
        close(mEnds[0]);
        close(mEnds[1]);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    int out() const { return mEnds[0]; }
    int in() const { return mEnds[1]; }
    void signal() const { EXPECT_EQ(1, write(mEnds[1], "", 1)); }
    void await() const
    {
        char lByte;
        while (read(mEnds[0], &lByte, 1) < 0 && EINTR == errno) {
        }
    }

private:
    int mEnds[2];
};

/// Puts a signal's action back at its end.
class KeptAction
{
public:
    explicit KeptAction(int aSignal) : mSignal(aSignal) { sigaction(mSignal, nullptr, &mAction); }
    ~KeptAction() { sigaction(mSignal, &mAction, nullptr); }
    KeptAction(const KeptAction&) = delete;
    KeptAction& operator=(const KeptAction&) = delete;

private:
    int mSignal;
    struct sigaction mAction;
};

/// An alarm signal every few milliseconds.
class Alarms
{
public:
    Alarms() { set(10000); }
    ~Alarms() { set(0); }

private:
    void set(int aMicroseconds)
    {
        const itimerval lTimer = {{0, aMicroseconds}, {0, aMicroseconds}};
        setitimer(ITIMER_REAL, &lTimer, nullptr);
    }
};

std::string textOf(const Lines& acrLines)
{
    std::ostringstream lText;
    for (const Line& lrLine : acrLines) {
        lText << lrLine;
    }
    return lText.str();
}

void copyText(char* apField, size_t aSize, const std::string& acrText)
{
    snprintf(apField, aSize, "%s", acrText.c_str());
}

/// What a child says of the exception that it got.
struct Report {
    pid_t mPid;
    char mClass[64];
    unsigned int mCode;
    char mText[256];
    bool mOsFamily;
    bool mHaltFamily;
    unsigned int mTextCalls;
    bool mOneBuffer;
    unsigned int mTextSizes[2];
    char mLines[2048];
};

void fillReport(Report& arReport, const OQCException& acrFailure)
{
    copyText(arReport.mLines, sizeof arReport.mLines, textOf(logged()));
    arReport.mTextCalls = gTextCount;
    arReport.mOneBuffer = gTextCalls[0].mBuffer == gTextCalls[1].mBuffer;
    arReport.mTextSizes[0] = gTextCalls[0].mSize;
    arReport.mTextSizes[1] = gTextCalls[1].mSize;
    copyText(arReport.mClass, sizeof arReport.mClass, typeid(acrFailure).name());
    arReport.mCode = acrFailure.code();
    copyText(arReport.mText, sizeof arReport.mText, acrFailure.what());
    arReport.mOsFamily = nullptr != dynamic_cast<const OQCOsException*>(&acrFailure);
    arReport.mHaltFamily = nullptr != dynamic_cast<const OQCHaltEx*>(&acrFailure);
    arReport.mPid = getpid();
}

/// The exit code of a child, by a call that is no cancellation point.
int exitCodeOf(int aChild)
{
    int lState;
    int lStatus = -1;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
    while (waitpid(aChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    pthread_setcancelstate(lState, nullptr);
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -1;
}

/// Starts a program that cannot be run, and lets the child that gets the exception do something.
int startInVain(const char* acPath, const std::function<void(const OQCException&)>& acrInChild)
{
    const pid_t lParent = getpid();
    try {
        return ProcessCreate(acPath, cNoArguments, cNoEnvironment);
    } catch (const OQCException& acrFailure) {
        if (lParent == getpid()) {
            ADD_FAILURE() << "thrown in the parent: " << acrFailure.what();
            return -1;
        }
        acrInChild(acrFailure);
        _exit(42);
    }
}

void leave42(const OQCException&) { _exit(42); }

class ProcessLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        if (OQ_SANITIZED) {
            std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
        }
        LayerTest::SetUp();
        gVforkPlan = OQ_SHARING_VFORK ? cVforkShares : cVforkCopies;
        gVforkCalls = 0;
        gTextCount = 0;
        gStatPlan = nullptr;
        gInForkedChild = nullptr;
        gBeforeProgram = nullptr;
    }
    void TearDown() override
    {
        gVforkPlan = cVforkShares;
        gStatPlan = nullptr;
        gStatusPlanned = false;
        LayerTest::TearDown();
    }

    /// A file of the test with a text and permissions.
    static std::string file(const char* acName, const std::string& acrText, mode_t aMode)
    {
        const std::string lPath = path(acName);
        std::ofstream(lPath) << acrText;
        chmod(lPath.c_str(), aMode);
        return lPath;
    }
};

/// What holds whether vfork() shares the parent's memory or copies it.
class ProcessCreateTest : public ProcessLinuxTest, public ::testing::WithParamInterface<VforkPlan>
{
protected:
    void SetUp() override
    {
        ProcessLinuxTest::SetUp();
        gVforkPlan = GetParam();
    }

    /// The child throws with this text, the parent has its id and learns of its end.
    static void expectThrownInChild(const char* acPath, const char* acText)
    {
        Shared<Report> lReport;
        clearLog();
        gTextCount = 0;
        const int lChild =
            startInVain(acPath, [&](const OQCException& acrFailure) { fillReport(*lReport.operator->(), acrFailure); });
        EXPECT_EQ((Lines{cCreate.entered(), cCreate.left()}), logged());
        ASSERT_LT(0, lChild);
        EXPECT_EQ(42, ProcessWait(lChild, 0));
        EXPECT_EQ(lChild, lReport->mPid);
        EXPECT_STREQ(typeid(OQCProcessCreationFailedEx).name(), lReport->mClass);
        EXPECT_EQ(345U, lReport->mCode);
        EXPECT_STREQ(acText, lReport->mText);
        EXPECT_TRUE(lReport->mOsFamily);
        EXPECT_FALSE(lReport->mHaltFamily);
        EXPECT_EQ(
            textOf({cCreate.entered(), cCreate.error(std::string("Failed to exec child :") + acText), cCreate.left()}),
            lReport->mLines);
        EXPECT_EQ(2U, lReport->mTextCalls);
        EXPECT_TRUE(lReport->mOneBuffer);
        EXPECT_EQ(512U, lReport->mTextSizes[0]);
        EXPECT_EQ(512U, lReport->mTextSizes[1]);
    }
};

#if OQ_SHARING_VFORK
const auto cPlans = ::testing::Values(cVforkShares, cVforkCopies);
#else
const auto cPlans = ::testing::Values(cVforkCopies);
#endif

INSTANTIATE_TEST_SUITE_P(Memory, ProcessCreateTest, cPlans, [](const auto& acrPlan) {
    return std::string(cVforkShares == acrPlan.param ? "Shared" : "Copied");
});

TEST_P(ProcessCreateTest, ProgramIsStartedWithOneVforkAndNoFork)
{
    const int lChild = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.left()}), logged());
    EXPECT_EQ(1, gVforkCalls);
    EXPECT_EQ(0U, forkFault.calls());
    EXPECT_EQ(0U, gTextCount);
    ASSERT_LT(0, lChild);
    EXPECT_EQ(0, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ProgramGetsItsArgumentsAndItsEnvironmentAndNoOther)
{
    setenv("OQ_NOT_PASSED_ON", "x", 1);
    const Texts lArguments{"given name",
                           "-c",
                           "test \"$OQ_ONE\" = 'first value' && test -z \"$OQ_NOT_PASSED_ON\" && test $# = 2 && "
                           "test \"$0\" = zero && test \"$1\" = 'two words' && test -z \"$2\" && exit 7",
                           "zero",
                           "two words",
                           ""};
    const Texts lEnvironment{"OQ_ONE=first value"};
    const int lChild = ProcessCreate("/bin/sh", lArguments, lEnvironment);
    unsetenv("OQ_NOT_PASSED_ON");
    ASSERT_LT(0, lChild);
    EXPECT_EQ(7, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ParentDoesNotWaitForTheProgramToEnd)
{
    const Texts lArguments{"sleep", "30"};
    const int lChild = ProcessCreate("/bin/sleep", lArguments, cNoEnvironment);
    ASSERT_LT(0, lChild);
    EXPECT_EQ(0, waitpid(lChild, nullptr, WNOHANG));
    EXPECT_EQ(0, kill(lChild, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, StandardInputAloneIsFlushedOnceBetweenEnteredAndTheVfork)
{
    clearLog();
    gFlushes = 0;
    const int lChild = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    const unsigned int lFlushes = gFlushes;
    EXPECT_EQ(1U, lFlushes);
    EXPECT_EQ(stdin, gFlushed);
    EXPECT_EQ(0, gVforkCallsAtFlush);
    EXPECT_EQ(1U, gLinesAtFlush);
    EXPECT_EQ(0, ProcessWait(lChild, 0));

    gFlushes = 0;
    const int lThrowing = startInVain(cMissing, leave42);
    EXPECT_EQ(1U, gFlushes);
    EXPECT_EQ(42, ProcessWait(lThrowing, 0));
}

TEST_P(ProcessCreateTest, ProgramReadsOnWhereTheParentStoppedReadingStandardInput)
{
    const std::string lInput = file("input", "first\nsecond\n", 0600);
    const std::string lOutput = path("output");
    const ChildResult lResult = inChild([&] {
        const int lIn = open(lInput.c_str(), O_RDONLY);
        const int lOut = open(lOutput.c_str(), O_WRONLY | O_CREAT, 0600);
        __fpurge(stdin);
        __fpurge(stdout);
        dup2(lIn, 0);
        dup2(lOut, 1);
        char lLine[64];
        EXPECT_STREQ("first\n", fgets(lLine, sizeof lLine, stdin));
        EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/cat", cNoArguments, cNoEnvironment), 0));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
    std::stringstream lText;
    lText << std::ifstream(lOutput).rdbuf();
    EXPECT_EQ("second\n", lText.str());
    unlink(lInput.c_str());
    unlink(lOutput.c_str());
}

#if defined(__SANITIZE_THREAD__)
#define OQ_FLUSHED_AT_EXIT 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OQ_FLUSHED_AT_EXIT 1
#endif
#endif
#ifndef OQ_FLUSHED_AT_EXIT
#define OQ_FLUSHED_AT_EXIT 0
#endif

TEST_P(ProcessCreateTest, UnflushedStandardOutputIsNeitherWrittenNorDoubled)
{
    if (OQ_FLUSHED_AT_EXIT) {
        GTEST_SKIP() << "the thread sanitizer's _exit() flushes all streams";
    }
    const std::string lOutput = path("output");
    const ChildResult lResult = inChild([&] {
        const int lOut = open(lOutput.c_str(), O_RDWR | O_CREAT, 0600);
        __fpurge(stdout);
        dup2(lOut, 1);
        static char sBuffer[4096];
        setvbuf(stdout, sBuffer, _IOFBF, sizeof sBuffer);
        printf("once");
        EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment), 0));
        EXPECT_EQ(42, ProcessWait(startInVain(cMissing, leave42), 0));
        EXPECT_EQ(0, lseek(lOut, 0, SEEK_END));
        fflush(stdout);
        EXPECT_EQ(4, lseek(lOut, 0, SEEK_END));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
    unlink(lOutput.c_str());
}

TEST_P(ProcessCreateTest, MissingProgramIsThrownInTheChild)
{
    expectThrownInChild(cMissing, "No such file or directory");
    expectThrownInChild("true", "No such file or directory");  // a path, not a name to be searched for
    expectThrownInChild("", "No such file or directory");
}

TEST_P(ProcessCreateTest, ProgramWithoutPermissionIsThrownInTheChild)
{
    const std::string lPath = file("plain", "#!/bin/sh\n", 0644);
    expectThrownInChild(lPath.c_str(), "Permission denied");
    unlink(lPath.c_str());
}

TEST_P(ProcessCreateTest, FileThatIsNoProgramIsThrownInTheChild)
{
    const std::string lPath = file("noprogram", "neither a script nor a program\n", 0755);
    expectThrownInChild(lPath.c_str(), "Exec format error");
    unlink(lPath.c_str());
}

TEST_P(ProcessCreateTest, DirectoryIsThrownInTheChild) { expectThrownInChild("/tmp", "Permission denied"); }

TEST_P(ProcessCreateTest, ChildThatCatchesMayLeaveTheProcessInOrder)
{
    const int lChild = startInVain(cMissing, [](const OQCException&) { exit(42); });
    ASSERT_LT(0, lChild);
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ChildThatDoesNotCatchIsEndedByItsOwnTermination)
{
    const ChildResult lResult = inChild([] {
        const rlimit lNoCore = {0, 0};
        setrlimit(RLIMIT_CORE, &lNoCore);
        const int lQuiet = open("/dev/null", O_WRONLY);
        dup2(lQuiet, 2);
        signal(SIGABRT, SIG_DFL);
        const int lChild = []() noexcept { return ProcessCreate(cMissing, cNoArguments, cNoEnvironment); }();
        int lStatus = 0;
        EXPECT_EQ(lChild, waitpid(lChild, &lStatus, 0));
        EXPECT_TRUE(WIFSIGNALED(lStatus));
        EXPECT_EQ(SIGABRT, WTERMSIG(lStatus));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

// Frames of the caller, each with memory of its own to be damaged.
unsigned int sDamaged = 0;

[[gnu::noinline]] int startBelow(unsigned int aDepth, unsigned int aSeed, bool aCatchBelow)
{
    volatile unsigned int lLocals[48];
    for (unsigned int lIndex = 0; lIndex < 48; ++lIndex) {
        lLocals[lIndex] = aSeed * 2654435761U + aDepth * 48 + lIndex;
    }
    const std::string lText(30 + aDepth, static_cast<char>('a' + aSeed % 26));
    int lChild;
    if (0 < aDepth) {
        lChild = startBelow(aDepth - 1, aSeed, aCatchBelow);
    } else if (aCatchBelow) {
        lChild = startInVain(cMissing, leave42);
    } else {
        lChild = ProcessCreate(cMissing, cNoArguments, cNoEnvironment);
    }
    for (unsigned int lIndex = 0; lIndex < 48; ++lIndex) {
        sDamaged += lLocals[lIndex] == aSeed * 2654435761U + aDepth * 48 + lIndex ? 0U : 1U;
    }
    sDamaged += lText == std::string(30 + aDepth, static_cast<char>('a' + aSeed % 26)) ? 0U : 1U;
    return lChild;
}

/// Allocates, and starts processes that inherit whatever is open at the moment, until told to stop.
void disturb(const std::atomic<bool>& acrStop, unsigned int aNumber)
{
    static Behind<pid_t()> lFork("fork");
    unsigned int lRandom = aNumber + 1;
    std::vector<std::unique_ptr<char[]>> lBlocks(16);
    for (unsigned int lRound = 0; !acrStop; ++lRound) {
        for (unsigned int lBlock = 0; lBlock < 64; ++lBlock) {
            lRandom = lRandom * 1664525U + 1013904223U;
            const size_t lSize = 1 + (lRandom >> 12) % (0 == lRandom >> 28 ? 200000 : 500);
            lBlocks[lBlock % 16].reset(new char[lSize]);
            lBlocks[lBlock % 16][lSize - 1] = 1;
        }
        pid_t lChild = -1;
        if (0 == (lRound + aNumber) % 2) {
            EXPECT_EQ(0, posix_spawn(&lChild, "/bin/true", nullptr, nullptr, cNoArguments, cNoEnvironment));
        } else {
            lChild = lFork();
            if (0 == lChild) {
                usleep(500);
                _exit(0);
            }
        }
        int lStatus = -1;
        EXPECT_EQ(lChild, waitpid(lChild, &lStatus, 0));
        EXPECT_EQ(0, lStatus);
    }
}

TEST_P(ProcessCreateTest, ThousandFailuresAtSeveralDepthsLeaveTheParentUndamagedWhileThreadsAllocateAndFork)
{
    keepNoLines();
    sDamaged = 0;
    std::atomic<bool> lStop(false);
    std::vector<std::thread> lThreads;
    for (unsigned int lNumber = 0; lNumber < 4; ++lNumber) {
        lThreads.emplace_back(disturb, std::cref(lStop), lNumber);
    }
    const pid_t lParent = getpid();
    const unsigned int cRounds = OQ_SANITIZED ? 100 : 1000;  // a fork with a sanitizer's memory takes long
    for (unsigned int lRound = 0; lRound < cRounds && !HasFailure(); ++lRound) {
        int lChild = -1;
        try {
            lChild = startBelow(lRound % 7 * 3, lRound, 0 == lRound % 2);
        } catch (const OQCProcessCreationFailedEx& acrFailure) {
            _exit(lParent != getpid() && 0 == strcmp("No such file or directory", acrFailure.what()) ? 42 : 43);
        }
        EXPECT_LT(0, lChild);
        EXPECT_EQ(42, ProcessWait(lChild, 0));
    }
    lStop = true;
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(0U, sDamaged);
    EXPECT_EQ(static_cast<int>(cRounds), gVforkCalls);
}

void useUpDescriptors()
{
    const rlimit lFew = {64, 64};
    setrlimit(RLIMIT_NOFILE, &lFew);
    while (0 <= fcntl(0, F_DUPFD_CLOEXEC, 0)) {
    }
    EXPECT_EQ(EMFILE, errno);
}

/// Lets a failed child wait for a word before it goes on, and sees that its parent waits as long.
class Hold
{
public:
    Hold() : mReturned(false), mReleased(false)
    {
        mThread = std::thread([this] {
            EXPECT_TRUE(eventually([this] { return mMet->mCaught.load(); }));
            // There is nothing to wait for: the parent is not to come back. Time for it to do so nevertheless.
            usleep(60000);
            EXPECT_FALSE(mReturned) << "the parent came back while the child was still at it";
            mReleased = true;
            mMet->mGo = true;
        });
    }
    ~Hold() { mThread.join(); }
    void inChild()
    {
        mMet->mCaught = true;
        EXPECT_TRUE(eventually([this] { return mMet->mGo.load(); }));
    }
    void returned()
    {
        mReturned = true;
        EXPECT_TRUE(mReleased);
    }

private:
    /// In memory, so that the child needs no descriptor.
    struct Met {
        std::atomic<bool> mCaught;
        std::atomic<bool> mGo;
    };
    Shared<Met> mMet;
    std::atomic<bool> mReturned;
    std::atomic<bool> mReleased;
    std::thread mThread;
};

TEST_P(ProcessCreateTest, ParentWaitsUntilTheFailedChildHasEnded)
{
    Hold lHold;
    const int lChild = startInVain(cMissing, [&](const OQCException&) { lHold.inChild(); });
    lHold.returned();
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ParentWaitsUntilTheFailedChildRunsAnotherProgramAndNoLonger)
{
    Hold lHold;
    const Texts lArguments{"sleep", "30"};
    const int lChild = startInVain(cMissing, [&](const OQCException&) {
        lHold.inChild();
        execve("/bin/sleep", lArguments, cNoEnvironment);
    });
    lHold.returned();
    ASSERT_LT(0, lChild);
    EXPECT_EQ(0, waitpid(lChild, nullptr, WNOHANG));
    EXPECT_EQ(0, kill(lChild, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ParentWaitsForAFailedChildThatClosesEveryDescriptor)
{
    Hold lHold;
    const int lChild = startInVain(cMissing, [&](const OQCException&) {
        close_range(0, ~0U, 0);
        lHold.inChild();
    });
    lHold.returned();
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ParentWaitsForAFailedChildWhenEveryDescriptorIsInUse)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs a descriptor to look at the type of an object";
    }
    const ChildResult lResult = inChild([] {
        Hold lHold;
        useUpDescriptors();
        const int lChild = startInVain(cMissing, [&](const OQCException&) { lHold.inChild(); });
        lHold.returned();
        EXPECT_EQ(42, ProcessWait(lChild, 0));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

TEST_P(ProcessCreateTest, ParentContinuesWhenAFailedChildInASessionOfItsOwnRunsAnotherProgram)
{
    Hold lHold;
    const Texts lArguments{"sleep", "30"};
    const int lChild = startInVain(cMissing, [&](const OQCException&) {
        setsid();
        lHold.inChild();
        execve("/bin/sleep", lArguments, cNoEnvironment);
    });
    lHold.returned();
    EXPECT_EQ(0, waitpid(lChild, nullptr, WNOHANG));
    EXPECT_EQ(0, kill(lChild, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ParentContinuesAlsoWhereTheKernelDoesNotKnowTheLocksOfTheFailedChild)
{
    const Texts lArguments{"sleep", "30"};
    const auto forgetLocks = [] { syscall(SYS_set_robust_list, nullptr, 3 * sizeof(void*)); };
    const int lRunning = startInVain(cMissing, [&](const OQCException&) {
        forgetLocks();
        execve("/bin/sleep", lArguments, cNoEnvironment);
    });
    EXPECT_EQ(0, waitpid(lRunning, nullptr, WNOHANG));
    EXPECT_EQ(0, kill(lRunning, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(lRunning, 0));
    Hold lHold;
    const int lEnded = startInVain(cMissing, [&](const OQCException&) {
        forgetLocks();
        setsid();
        lHold.inChild();
    });
    lHold.returned();
    EXPECT_EQ(42, ProcessWait(lEnded, 0));
}

TEST_P(ProcessCreateTest, ParentWaitsOnWhenTheThrowingThreadOfTheFailedChildEndsBeforeTheChild)
{
    Shared<std::atomic<bool>> lEnds;
    *lEnds.operator->() = false;
    std::atomic<bool>& lrEnds = *lEnds.operator->();
    const int lChild = startInVain(cMissing, [&](const OQCException&) {
        std::thread([&] {
            usleep(60000);  // time for the parent to come back, which it is not to do
            lrEnds = true;
            _exit(42);
        }).detach();
        syscall(SYS_exit, 0);  // of this thread alone, without unwinding
    });
    EXPECT_TRUE(lrEnds);
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}

/// A program that makes a session of its own refuses the question whether it is a program.
TEST_P(ProcessCreateTest, ProgramThatMakesASessionIsNotAwaited)
{
    const Texts lArguments{"setsid", "sleep", "30"};
    for (int lRound = 0; lRound < 20; ++lRound) {
        const int lChild = ProcessCreate("/usr/bin/setsid", lArguments, cNoEnvironment);
        EXPECT_EQ(0, waitpid(lChild, nullptr, WNOHANG));
        EXPECT_EQ(0, kill(lChild, SIGKILL));
        EXPECT_EQ(-1, ProcessWait(lChild, 0));
    }
}

#if OQ_SHARING_VFORK
TEST_F(ProcessLinuxTest, FailedChildThatIsKilledBeforeItHasTheLockEndsTheWait)
{
    gInForkedChild = [] { kill(getpid(), SIGKILL); };
    const int lChild = startInVain(cMissing, leave42);
    gInForkedChild = nullptr;
    EXPECT_EQ(-1, ProcessWait(lChild, 0));
}
#endif

TEST_P(ProcessCreateTest, SignalsDoNotCutTheParentsWaitShort)
{
    const KeptAction lKept(SIGALRM);
    RegisterSignalHandler(SIGALRM, [](int) {});
    clearLog();
    Hold lHold;
    {
        const Alarms lAlarms;
        const int lChild = startInVain(cMissing, [&](const OQCException&) { lHold.inChild(); });
        lHold.returned();
        while (waitpid(lChild, nullptr, 0) < 0 && EINTR == errno) {
        }
    }
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.left()}), logged());
}

TEST_P(ProcessCreateTest, EveryErrorOfTheManualPageOfExecveIsThrownInTheChild)
{
    for (const int lError : {E2BIG, EACCES, EAGAIN, EFAULT, EINVAL, EIO, EISDIR, ELIBBAD, ELOOP, EMFILE, ENAMETOOLONG,
                             ENFILE, ENOENT, ENOEXEC, ENOMEM, ENOTDIR, EPERM, ETXTBSY}) {
        SCOPED_TRACE(lError);
        execveFault.failAlways(-1, lError);
        expectThrownInChild("/bin/true", strerror(lError));
    }
}

TEST_P(ProcessCreateTest, EveryErrorOfTheManualPageOfForkIsThrownInTheParent)
{
    for (const int lError : {EAGAIN, ENOMEM, ENOSYS}) {
        clearLog();
        forkFault.failOn(1, -1, lError);
        EXPECT_FAILURE(OQCProcessCreationFailedEx, 345, strerror(lError),
                       ProcessCreate(cMissing, cNoArguments, cNoEnvironment));
        EXPECT_EQ((Lines{cCreate.entered(), cCreate.error(std::string("Failed to create child :") + strerror(lError)),
                         cCreate.left()}),
                  logged());
    }
}

#if !OQ_SANITIZED
TEST_P(ProcessCreateTest, ProgramStartsWithoutMemoryToShareWithIt)
{
    mmapFault.failAlways(-1, ENOMEM);
    EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment), 0));
    EXPECT_EQ(1U, mmapFault.calls());
}

TEST_P(ProcessCreateTest, FailedChildIsAwaitedWithoutMemoryToShareWithIt)
{
    Hold lHold;
    if (cVforkShares == GetParam()) {
        mmapFault.failAlways(-1, ENOMEM);
    } else {
        mmapFault.failOn(2, -1, ENOMEM);  // a copy tells its error through the first
    }
    const int lChild = startInVain(cMissing, [&](const OQCException&) {
        setsid();
        lHold.inChild();
        exit(42);
    });
    lHold.returned();
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}
#endif

#if OQ_SHARING_VFORK
/// With vfork the program runs, or has failed, when the parent goes on: there is nothing left to wait for.
TEST_P(ProcessCreateTest, ProgramThatRunsIsWaitedForOnlyWhereVforkCopies)
{
    const int lChild = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    EXPECT_EQ(cVforkShares == GetParam(), 0 == setpgidFault.calls());
    EXPECT_EQ(0, ProcessWait(lChild, 0));
}
#endif

TEST_F(ProcessLinuxTest, EveryErrorOfTheManualPageOfWaitpidThrowsFailedToCreateProcess)
{
    for (const int lError : {EAGAIN, ECHILD, EINTR, EINVAL, ESRCH}) {
        clearLog();
        waitpidFault.failOn(1, -1, lError);
        EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "Failed to create process", ProcessWait(4711, 0));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace("Going to wait for child process to complete"),
                         cWait.error("Failed to wait on child process")}),
                  logged());
    }
}

#if OQ_SHARING_VFORK
TEST_F(ProcessLinuxTest, ChildThatCouldNotRunItsProgramIsCollectedInSpiteOfSignals)
{
    waitpidFault.failOn(1, -1, EINTR);
    const int lChild = startInVain(cMissing, leave42);
    EXPECT_EQ(2U, waitpidFault.calls());
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.left()}), logged());
    EXPECT_EQ(42, ProcessWait(lChild, 0));
}
#endif

int countDescriptors()
{
    int lCount = 0;
    for (int lDescriptor = 0; lDescriptor < 1024; ++lDescriptor) {
        lCount += 0 <= fcntl(lDescriptor, F_GETFD) ? 1 : 0;
    }
    return lCount;
}

TEST_P(ProcessCreateTest, FailedChildHoldsTheDescriptorsOfItsParentAndNoOther)
{
    Shared<int> lInChild;
    const int lBefore = countDescriptors();
    const int lChild = startInVain(cMissing, [&](const OQCException&) { *lInChild.operator->() = countDescriptors(); });
    EXPECT_EQ(42, ProcessWait(lChild, 0));
    EXPECT_EQ(lBefore, *lInChild.operator->());
    EXPECT_EQ(lBefore, countDescriptors());
}

std::atomic<int> sReaped[16];
std::atomic<int> sReapedStatus[16];
std::atomic<unsigned int> sReapedCount(0);

void reapAll(int)
{
    const int lErrno = errno;
    int lStatus;
    pid_t lChild;
    while (0 < (lChild = waitpid(-1, &lStatus, WNOHANG))) {
        const unsigned int lIndex = sReapedCount % 16;
        sReaped[lIndex] = lChild;
        sReapedStatus[lIndex] = lStatus;
        ++sReapedCount;
    }
    errno = lErrno;
}

TEST_P(ProcessCreateTest, HandlerThatCollectsChildrenFirstDoesNoHarm)
{
    const KeptAction lKept(SIGCHLD);
    sReapedCount = 0;
    RegisterSignalHandler(SIGCHLD, reapAll);
    clearLog();
    Shared<Report> lReport;
    const int lChild =
        startInVain(cMissing, [&](const OQCException& acrFailure) { fillReport(*lReport.operator->(), acrFailure); });
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.left()}), logged());
    EXPECT_EQ(lChild, lReport->mPid);
    EXPECT_STREQ("No such file or directory", lReport->mText);
    EXPECT_TRUE(eventually([&] { return std::count(sReaped, sReaped + sReapedCount, lChild) == 1; }));
    bool lFound = false;
    for (unsigned int lIndex = 0; lIndex < sReapedCount; ++lIndex) {
        if (lChild == sReaped[lIndex]) {
            lFound = true;
            EXPECT_EQ(42 << 8, sReapedStatus[lIndex]);
        }
    }
    EXPECT_TRUE(lFound);
}

TEST_P(ProcessCreateTest, IgnoredChildrenDoNoHarm)
{
    const KeptAction lKept(SIGCHLD);
    signal(SIGCHLD, SIG_IGN);
    Shared<Report> lReport;
    const int lChild =
        startInVain(cMissing, [&](const OQCException& acrFailure) { fillReport(*lReport.operator->(), acrFailure); });
    EXPECT_EQ(lChild, lReport->mPid);
    EXPECT_STREQ("No such file or directory", lReport->mText);
    EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "Failed to create process", ProcessWait(lChild, 0));
}

TEST_P(ProcessCreateTest, ChildThatIsNotTheFailedOneIsLeftToTheCaller)
{
    static Behind<pid_t()> lFork("fork");
    const pid_t lOther = lFork();
    if (0 == lOther) {
        _exit(5);
    }
    siginfo_t lInfo;
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(lOther), &lInfo, WEXITED | WNOWAIT));
    EXPECT_EQ(42, ProcessWait(startInVain(cMissing, leave42), 0));
    EXPECT_EQ(5, ProcessWait(lOther, 0));
}

TEST_P(ProcessCreateTest, ForkRefusedForTheFailedChildIsThrownInTheParent)
{
    forkFault.failOn(1, -1, ENOMEM);
    EXPECT_FAILURE(OQCProcessCreationFailedEx, 345, "Cannot allocate memory",
                   ProcessCreate(cMissing, cNoArguments, cNoEnvironment));
    EXPECT_EQ(
        (Lines{cCreate.entered(), cCreate.error("Failed to create child :Cannot allocate memory"), cCreate.left()}),
        logged());
    EXPECT_EQ(1U, forkFault.calls());
}

TEST_P(ProcessCreateTest, ProgramStartsWhenEveryDescriptorIsInUse)
{
    const ChildResult lResult = inChild([] {
        useUpDescriptors();
        EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment), 0));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

TEST_P(ProcessCreateTest, ProgramThatCannotBeRunIsThrownInTheChildWhenEveryDescriptorIsInUse)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs a descriptor to look at the type of an object";
    }
    const ChildResult lResult = inChild([] {
        useUpDescriptors();
        expectThrownInChild(cMissing, "No such file or directory");
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

TEST_P(ProcessCreateTest, StartIsNoCancellationPoint)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the address sanitizer does not follow the unwinding of a cancelled thread";
    }
    keepNoLines();
    std::atomic<unsigned int> lStarted(0);
    std::thread lThread([&] {
        pthread_cancel(pthread_self());
        if (0 == exitCodeOf(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment))) {
            ++lStarted;
        }
        if (42 == exitCodeOf(startInVain(cMissing, leave42))) {
            ++lStarted;
        }
        int lState = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &lState);
        lStarted += PTHREAD_CANCEL_ENABLE == lState ? 1U : 0U;
        pthread_testcancel();
        lStarted = 99;
    });
    lThread.join();
    EXPECT_EQ(3U, lStarted) << "started, failed, and cancelled only then";
}

/// A cancelled child would run the exit handlers of its parent and print its parent's buffered output again.
TEST_P(ProcessCreateTest, ThreadOfTheThrowingChildCannotBeCancelled)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the address sanitizer does not follow the unwinding of a cancelled thread";
    }
    keepNoLines();
    int lExitCode = -1;
    std::thread lThread([&] {
        pthread_cancel(pthread_self());
        lExitCode = exitCodeOf(startInVain(cMissing, [](const OQCException&) {
            pthread_testcancel();
            int lState = -1;
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
            _exit(PTHREAD_CANCEL_DISABLE == lState ? 42 : 43);
        }));
    });
    lThread.join();
    EXPECT_EQ(42, lExitCode);
}

pid_t sHost = 0;
std::atomic<unsigned int> sHandledInHost(0);
std::atomic<unsigned int> sHandledInChild(0);  // of those children that share the host's memory

void countHandled(int) { ++(sHost == getpid() ? sHandledInHost : sHandledInChild); }

void countSignals(int aSignal)
{
    sHost = getpid();
    sHandledInHost = 0;
    sHandledInChild = 0;
    RegisterSignalHandler(aSignal, countHandled);
}

#if OQ_SHARING_VFORK
TEST_F(ProcessLinuxTest, HandlerOfTheHostRunsInNoChildThatSharesItsMemory)
{
    const ChildResult lResult = inChild([] {
        keepNoLines();
        ASSERT_EQ(0, setpgid(0, 0));  // so that signals to the group reach the children of this test alone
        countSignals(SIGURG);         // a program ignores it
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
            EXPECT_EQ(0, exitCodeOf(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment)));
        }
        lStop = true;
        lStorm.join();
        EXPECT_LT(0U, sHandledInHost);
        EXPECT_EQ(0U, sHandledInChild);
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}
#endif

TEST_P(ProcessCreateTest, SignalThatReachesTheChildBeforeItsProgramActsAsItWouldAfterwards)
{
    const KeptAction lKept(SIGUSR1);
    gBeforeProgram = [] { kill(getpid(), SIGUSR1); };
    countSignals(SIGUSR1);
    const int lHandled = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    int lStatus = 0;
    EXPECT_EQ(lHandled, waitpid(lHandled, &lStatus, 0));
    EXPECT_TRUE(WIFSIGNALED(lStatus));
    EXPECT_EQ(SIGUSR1, WTERMSIG(lStatus));
    EXPECT_EQ(0U, sHandledInHost + sHandledInChild);
    EXPECT_EQ(countHandled, gInstalled.sa_handler) << "the child called a function that the host had replaced";

    signal(SIGUSR1, SIG_IGN);
    EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment), 0));
    gBeforeProgram = nullptr;
}

TEST_P(ProcessCreateTest, SignalThatReachesTheHostDuringAStartIsHandledOnceAndByTheHost)
{
    const KeptAction lKept(SIGUSR1);
    countSignals(SIGUSR1);
    gBeforeProgram = [] { kill(sHost, SIGUSR1); };
    EXPECT_EQ(0, exitCodeOf(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment)));
    gBeforeProgram = nullptr;
    EXPECT_EQ(1U, sHandledInHost);
    EXPECT_EQ(0U, sHandledInChild);
}

TEST_P(ProcessCreateTest, ProgramStartsWithTheSignalMaskAndTheIgnoredSignalsOfItsCaller)
{
    const KeptAction lIgnored(SIGUSR1);
    const KeptAction lHandled(SIGUSR2);
    signal(SIGUSR1, SIG_IGN);
    RegisterSignalHandler(SIGUSR2, [](int) {});
    sigset_t lBlocked;
    sigset_t lBefore;
    sigemptyset(&lBlocked);
    sigaddset(&lBlocked, SIGWINCH);
    pthread_sigmask(SIG_SETMASK, &lBlocked, &lBefore);
    const Texts lArguments{"sh", "-c",
                           "set -- $(grep -E 'Sig(Blk|Ign)' /proc/self/status); "
                           "test $((0x$2)) = $((1 << (28 - 1))) && test $((0x$4 & 1 << (10 - 1))) != 0"};
    EXPECT_EQ(0, exitCodeOf(ProcessCreate("/bin/sh", lArguments, cNoEnvironment)));
    sigset_t lAfter;
    pthread_sigmask(SIG_SETMASK, &lBefore, &lAfter);
    for (int lSignal = 1; lSignal < 32; ++lSignal) {
        EXPECT_EQ(SIGWINCH == lSignal ? 1 : 0, sigismember(&lAfter, lSignal)) << lSignal;
    }
}

TEST_F(ProcessLinuxTest, VforkRefusedIsThrownWithItsErrorText)
{
    struct Row {
        int mErrno;
        const char* mText;
    };
    for (const Row& lrRow : {Row{EAGAIN, "Resource temporarily unavailable"}, Row{ENOMEM, "Cannot allocate memory"},
                             Row{ENOSYS, "Function not implemented"}}) {
        clearLog();
        gTextCount = 0;
        gVforkPlan = cVforkFails;
        gVforkErrno = lrRow.mErrno;
        EXPECT_FAILURE(OQCProcessCreationFailedEx, 345, lrRow.mText,
                       ProcessCreate("/bin/true", cNoArguments, cNoEnvironment));
        EXPECT_EQ((Lines{cCreate.entered(), cCreate.error(std::string("Failed to create child :") + lrRow.mText),
                         cCreate.left()}),
                  logged());
        EXPECT_EQ(2U, gTextCount);
        EXPECT_EQ(gTextCalls[0].mBuffer, gTextCalls[1].mBuffer);
        EXPECT_EQ(512U, gTextCalls[0].mSize);
        EXPECT_EQ(512U, gTextCalls[1].mSize);
    }
    EXPECT_EQ(3, gVforkCalls);
    EXPECT_EQ(0U, forkFault.calls());
}

TEST_F(ProcessLinuxTest, VforkRefusedIsOfTheOperatingSystemFamily)
{
    gVforkPlan = cVforkFails;
    gVforkErrno = EAGAIN;
    EXPECT_THROW(ProcessCreate("/bin/true", cNoArguments, cNoEnvironment), OQCOsException);
    try {
        ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    } catch (const OQCHaltEx&) {
        ADD_FAILURE() << "no reason to halt";
    } catch (const OQCException& acrFailure) {
        EXPECT_STREQ("Resource temporarily unavailable", acrFailure.what());
    }
}

#if OQ_SHARING_VFORK
/// How long a process takes to start a program, measured in turns with another.
struct Times {
    bool mEnough;
    double mSeconds[51];
};

void startInTurns(Peer& arPeer, size_t aTouched, Times& arTimes)
{
    keepNoLines();
    void* const lpMemory = mmap(nullptr, aTouched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, lpMemory);
    madvise(lpMemory, aTouched, MADV_NOHUGEPAGE);
    memset(lpMemory, 1, aTouched);
    for (unsigned int lRound = 0;; ++lRound) {
        arPeer.meet();
        if (arTimes.mEnough || ::testing::Test::HasFailure()) {
            return;
        }
        const auto lBegin = std::chrono::steady_clock::now();
        const int lChild = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
        arTimes.mSeconds[lRound % 51] =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - lBegin).count();
        EXPECT_EQ(0, ProcessWait(lChild, 0));
        arPeer.signal();
    }
}

TEST_F(ProcessLinuxTest, GigabyteOfMemoryDoesNotSlowTheStart)
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
    // On one processor, where they meet the same disturbance: a start across two processors is another measure.
    cpu_set_t lProcessors;
    ASSERT_EQ(0, sched_getaffinity(0, sizeof lProcessors, &lProcessors));
    cpu_set_t lOne;
    CPU_ZERO(&lOne);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &lOne);
    ASSERT_EQ(0, sched_setaffinity(0, sizeof lOne, &lOne));
    Shared<Times> lLarge;
    Shared<Times> lSmall;
    Peer lLargePeer([&](Peer& arPeer) { startInTurns(arPeer, 1024UL << 20, *lLarge.operator->()); });
    Peer lSmallPeer([&](Peer& arPeer) { startInTurns(arPeer, 10UL << 20, *lSmall.operator->()); });
    // Other work on the machine may slow one side and not the other, but not run after run.
    double lQuickest = 0;
    double lMedian = 0;
    for (unsigned int lRun = 0; lRun < 10 && (0 == lRun || 1.5 <= lQuickest || 1.5 <= lMedian); ++lRun) {
        for (unsigned int lRound = 0; lRound < 51; ++lRound) {
            for (Peer* const lpPeer : {&lLargePeer, &lSmallPeer}) {
                lpPeer->signal();
                lpPeer->meet();
            }
        }
        std::sort(std::begin(lLarge->mSeconds), std::end(lLarge->mSeconds));
        std::sort(std::begin(lSmall->mSeconds), std::end(lSmall->mSeconds));
        lQuickest = lLarge->mSeconds[0] / lSmall->mSeconds[0];
        lMedian = lLarge->mSeconds[25] / lSmall->mSeconds[25];
    }
    lLarge->mEnough = true;
    lSmall->mEnough = true;
    lLargePeer.signal();
    lSmallPeer.signal();
    EXPECT_EQ(0, lLargePeer.wait());
    EXPECT_EQ(0, lSmallPeer.wait());
    EXPECT_EQ(0, sched_setaffinity(0, sizeof lProcessors, &lProcessors));
    RecordProperty("MedianRatioInPercent", static_cast<int>(100 * lMedian));
    EXPECT_LT(lQuickest, 1.5);
    EXPECT_LT(lMedian, 1.5);
}
#endif

/// A child that ends at once.
pid_t childThat(const std::function<void()>& acrRun)
{
    static Behind<pid_t()> lFork("fork");
    const pid_t lChild = lFork();
    if (0 == lChild) {
        acrRun();
        _exit(99);
    }
    return lChild;
}

TEST_F(ProcessLinuxTest, WaitReturnsTheExitCode)
{
    for (const int lCode : {0, 1, 42, 128, 255}) {
        clearLog();
        EXPECT_EQ(lCode, ProcessWait(childThat([=] { _exit(lCode); }), 0));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace("Going to wait for child process to complete"),
                         cWait.trace("The child process exited normally, with exit code: " + std::to_string(lCode)),
                         cWait.left()}),
                  logged());
    }
}

TEST_F(ProcessLinuxTest, WaitReturnsMinusOneForAChildEndedByASignal)
{
    for (const int lSignal : {SIGKILL, SIGTERM, SIGHUP}) {
        clearLog();
        const pid_t lChild = childThat([=] {
            signal(lSignal, SIG_DFL);
            raise(lSignal);
        });
        EXPECT_EQ(-1, ProcessWait(lChild, 0));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace("Going to wait for child process to complete"),
                         cWait.error("The child process exited abnormally"), cWait.left()}),
                  logged());
    }
}

TEST_F(ProcessLinuxTest, WaitJudgesTheLowSevenBitsOfTheStatus)
{
    struct Row {
        int mStatus;
        int mResult;
    };
    for (const Row& lrRow : {Row{0x0000, 0}, Row{0x0100, 1}, Row{0xff00, 255}, Row{0x2a80, 42}, Row{0x0009, -1},
                             Row{0x0086, -1}, Row{0x137f, -1}, Row{0xffff, -1}, Row{0x0140, -1}}) {
        gStatus = lrRow.mStatus;
        gStatusPlanned = true;
        EXPECT_EQ(lrRow.mResult, ProcessWait(4711, 0)) << lrRow.mStatus;
        gStatusPlanned = false;
        EXPECT_EQ(4711, gWaitedFor.mPid);
        EXPECT_TRUE(gWaitedFor.mWithStatus);
        EXPECT_EQ(0, gWaitedFor.mOptions);
    }
}

TEST_F(ProcessLinuxTest, WaitIgnoresItsSecondParameter)
{
    for (const unsigned int lUnused : {0U, 1U, UINT_MAX}) {
        EXPECT_EQ(3, ProcessWait(childThat([] { _exit(3); }), lUnused));
    }
}

TEST_F(ProcessLinuxTest, WaitBlocksUntilThatChildEnds)
{
    Channel lGo;
    const pid_t lWaitedFor = childThat([&] {
        lGo.await();
        _exit(6);
    });
    const pid_t lQuick = childThat([] { _exit(7); });
    siginfo_t lInfo;
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(lQuick), &lInfo, WEXITED | WNOWAIT));
    std::atomic<bool> lReleased(false);
    std::thread lThread([&] {
        usleep(30000);
        lReleased = true;
        lGo.signal();
    });
    EXPECT_EQ(6, ProcessWait(lWaitedFor, 0));
    EXPECT_TRUE(lReleased);
    lThread.join();
    EXPECT_EQ(7, ProcessWait(lQuick, 0));
}

/// The child has ended and is still to be collected.
void awaitEnd(pid_t aChild)
{
    siginfo_t lInfo;
    EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOWAIT));
}

TEST_F(ProcessLinuxTest, WaitForZeroOrANegativeNumberCollectsAChildOfThatGroupOrAnyChild)
{
    const auto lGrouped = [](int aExitCode) {
        const pid_t lChild = childThat([=] {
            setpgid(0, 0);
            _exit(aExitCode);
        });
        setpgid(lChild, lChild);  // whichever of the two is first
        awaitEnd(lChild);
        return lChild;
    };
    const ChildResult lResult = inChild([&] {  // a process without other children
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
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

/// A failed start has one child more than it returns. Whether the start itself or the other thread collects it is a
/// matter of chance, so this starts programs until the other thread has been first.
TEST_P(ProcessCreateTest, WaitForAnyChildInAnotherThreadCollectsChildrenThatNobodyWasGiven)
{
    const ChildResult lResult = inChild([&] {
        std::vector<pid_t> lCollected;
        std::mutex lMutex;
        std::atomic<bool> lEnd(false);
        std::thread lThread([&] {
            while (!lEnd) {
                const pid_t lChild = waitpid(-1, nullptr, 0);
                if (0 < lChild) {
                    const std::lock_guard<std::mutex> lLock(lMutex);
                    lCollected.push_back(lChild);
                }
            }
        });
        std::vector<pid_t> lGiven;
        EXPECT_TRUE(eventually([&] {
            lGiven.push_back(startInVain(cMissing, leave42));
            while (waitpid(lGiven.back(), nullptr, 0) < 0 && ECHILD != errno) {
            }
            const std::lock_guard<std::mutex> lLock(lMutex);
            return std::any_of(lCollected.begin(), lCollected.end(), [&](pid_t aChild) {
                return lGiven.end() == std::find(lGiven.begin(), lGiven.end(), aChild);
            });
        }));
        lEnd = true;
        lThread.join();
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

/// The flush takes the lock of the stream, which a thread that reads holds for as long as it waits for input.
TEST_P(ProcessCreateTest, StartWaitsWhileAnotherThreadHoldsTheStandardInputStream)
{
    Channel lHeld;
    std::atomic<bool> lReleased(false);
    gFlushes = 0;
    std::thread lReader([&] {
        flockfile(stdin);
        lHeld.signal();
        EXPECT_TRUE(eventually([] { return 0 < gFlushes; }));
        usleep(30000);  // time for a start that does not wait to return
        lReleased = true;
        funlockfile(stdin);
    });
    lHeld.await();
    const int lChild = ProcessCreate("/bin/true", cNoArguments, cNoEnvironment);
    EXPECT_TRUE(lReleased);
    lReader.join();
    EXPECT_EQ(0, ProcessWait(lChild, 0));
}

TEST_F(ProcessLinuxTest, WaitForAProcessThatIsNoChildThrowsFailedToCreateProcess)
{
    const pid_t lCollected = childThat([] { _exit(0); });
    EXPECT_EQ(0, ProcessWait(lCollected, 0));
    for (const int lPid : {static_cast<int>(getpid()), static_cast<int>(lCollected)}) {
        clearLog();
        EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "Failed to create process", ProcessWait(lPid, 0));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace("Going to wait for child process to complete"),
                         cWait.error("Failed to wait on child process")}),
                  logged());
    }
    EXPECT_EQ(0U, gTextCount);
    EXPECT_THROW(ProcessWait(getpid(), 0), OQCOsException);
    try {
        ProcessWait(getpid(), 0);
    } catch (const OQCHaltEx&) {
        ADD_FAILURE() << "no reason to halt";
    } catch (const OQCException&) {
    }
}

TEST_F(ProcessLinuxTest, WaitInterruptedByAHandledSignalThrowsAndTheChildIsStillThere)
{
    const KeptAction lKept(SIGALRM);
    RegisterSignalHandler(SIGALRM, [](int) {});
    clearLog();
    Channel lGo;
    const pid_t lChild = childThat([&] {
        lGo.await();
        _exit(8);
    });
    {
        const Alarms lAlarms;
        EXPECT_FAILURE(OQCProcessWaitFailedEx, 345, "Failed to create process", ProcessWait(lChild, 0));
    }
    EXPECT_EQ((Lines{cWait.entered(), cWait.trace("Going to wait for child process to complete"),
                     cWait.error("Failed to wait on child process")}),
              logged());
    lGo.signal();
    EXPECT_EQ(8, ProcessWait(lChild, 0));
}

volatile sig_atomic_t sHandled = 0;
volatile sig_atomic_t sUnblocked = 0;

/// Signals that no process can block or that the C library keeps for itself.
bool isReserved(int aSignal) { return SIGKILL == aSignal || SIGSTOP == aSignal || 32 == aSignal || 33 == aSignal; }

void handle(int aSignal)
{
    sHandled = aSignal;
    sigset_t lBlocked;
    sigprocmask(SIG_BLOCK, nullptr, &lBlocked);
    int lUnblocked = 0;
    for (int lSignal = 1; lSignal <= 64; ++lSignal) {
        lUnblocked += isReserved(lSignal) || 1 == sigismember(&lBlocked, lSignal) ? 0 : 1;
    }
    sUnblocked = lUnblocked;
}

TEST_F(ProcessLinuxTest, HandlerIsInstalledWithItsFlagsAndTheFullMask)
{
    const KeptAction lKept(SIGUSR1);
    RegisterSignalHandler(SIGUSR1, handle);
    EXPECT_EQ((Lines{cRegister.entered(),
                     cRegister.information("Registering signal handler for signal " + std::to_string(SIGUSR1)),
                     cRegister.left()}),
              logged());
    struct sigaction lAction;
    ASSERT_EQ(0, sigaction(SIGUSR1, nullptr, &lAction));
    EXPECT_EQ(handle, lAction.sa_handler);
    const int cRestorer = 0x04000000;   // the C library's own addition on some processors
    const int cInterrupt = 0x20000000;  // unknown to recent kernels, which leave it out
    EXPECT_EQ(0x20000004, gInstalled.sa_flags);
    EXPECT_EQ(0x00000004, lAction.sa_flags & ~cRestorer & ~cInterrupt);
    for (int lSignal = 1; lSignal <= 64; ++lSignal) {
        EXPECT_TRUE(isReserved(lSignal) || 1 == sigismember(&lAction.sa_mask, lSignal)) << lSignal;
    }
}

TEST_F(ProcessLinuxTest, HandlerGetsTheSignalNumberWhileEveryOtherSignalIsBlocked)
{
    for (const int lSignal : {SIGUSR1, SIGTERM, SIGRTMIN}) {
        const KeptAction lKept(lSignal);
        RegisterSignalHandler(lSignal, handle);
        sHandled = 0;
        sUnblocked = -1;
        raise(lSignal);
        EXPECT_TRUE(eventually([] { return 0 != sHandled; }));
        EXPECT_EQ(lSignal, sHandled);
        EXPECT_EQ(0, sUnblocked);
    }
}

TEST_F(ProcessLinuxTest, InterruptedReadIsNotRestarted)
{
    const KeptAction lKept(SIGALRM);
    RegisterSignalHandler(SIGALRM, [](int) {});
    Channel lEmpty;
    const Alarms lAlarms;
    char lByte;
    EXPECT_EQ(-1, read(lEmpty.out(), &lByte, 1));
    EXPECT_EQ(EINTR, errno);
}

TEST_F(ProcessLinuxTest, LaterHandlerReplacesTheEarlier)
{
    const KeptAction lKept(SIGUSR1);
    RegisterSignalHandler(SIGUSR1, handle);
    RegisterSignalHandler(SIGUSR1, SIG_IGN);
    sHandled = 0;
    raise(SIGUSR1);
    EXPECT_EQ(0, sHandled);
    struct sigaction lAction;
    ASSERT_EQ(0, sigaction(SIGUSR1, nullptr, &lAction));
    EXPECT_EQ(SIG_IGN, lAction.sa_handler);
}

TEST_F(ProcessLinuxTest, SignalThatCannotBeHandledIsPassedOverInSilence)
{
    for (const int lSignal : {-1, 0, 65, 1000, SIGKILL, SIGSTOP}) {
        clearLog();
        RegisterSignalHandler(lSignal, handle);
        EXPECT_EQ((Lines{cRegister.entered(),
                         cRegister.information("Registering signal handler for signal " + std::to_string(lSignal)),
                         cRegister.left()}),
                  logged());
    }
}

TEST_F(ProcessLinuxTest, RunningRunsTheUnquotedCommandAndLooksAtTheFixedFile)
{
    for (const std::string& lrName : {std::string("name"), std::string("-f 'a b'; true"), std::string(""),
                                      std::string("%s%n"), std::string(231, 'x')}) {
        systemFault.failAlways(0, 0);
        gStatPlan = [](struct stat& arInfo) { arInfo.st_size = 0; };
        EXPECT_EQ(0, isProcessRunning(lrName.c_str()));
        EXPECT_EQ("pgrep " + lrName + " > /tmp/.vyrsyscmd", gCommand);
        EXPECT_EQ("pgrep %s > /tmp/.vyrsyscmd", gFormat);
        EXPECT_EQ("/tmp/.vyrsyscmd", gStatPath);
        EXPECT_EQ(1U, systemFault.calls());
    }
}

TEST_F(ProcessLinuxTest, RunningIsToldByTheSizeOfTheFileWhateverTheCommandReturns)
{
    for (const int lResult : {-1, 0, 256, 32512}) {
        for (const int lSize : {0, 1, 5, INT_MAX}) {
            clearLog();
            systemFault.failAlways(lResult, ECHILD);
            gStatPlan = [=](struct stat& arInfo) { arInfo.st_size = lSize; };
            EXPECT_EQ(0 == lSize ? 0 : 1, isProcessRunning("some name"));
            EXPECT_EQ((Lines{cRunning.entered(),
                             cRunning.trace(0 == lSize ? "Process 'some name' is not running"
                                                       : "Process 'some name' is running"),
                             cRunning.left()}),
                      logged());
        }
    }
}

TEST_F(ProcessLinuxTest, FileThatCannotBeExaminedMeansNotRunning)
{
    systemFault.failAlways(0, 0);
    gStatPlan = [](struct stat& arInfo) {
        arInfo.st_size = 7;
        throw OQCClibStatFailedEx("planned", 173);
    };
    EXPECT_EQ(0, isProcessRunning("daemon"));
    EXPECT_EQ((Lines{cRunning.entered(), cRunning.trace("Process 'daemon' is not running"), cRunning.left()}),
              logged());
}

TEST_F(ProcessLinuxTest, AnyOtherExceptionOfTheExaminationPassesToTheCaller)
{
    systemFault.failAlways(0, 0);
    gStatPlan = [](struct stat&) { throw OQCOpenFailedEx("planned", 326); };
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "planned", isProcessRunning("daemon"));
    EXPECT_EQ((Lines{cRunning.entered()}), logged());
    gStatPlan = [](struct stat&) { throw std::runtime_error("planned"); };
    EXPECT_THROW(isProcessRunning("daemon"), std::runtime_error);
}

/// The result file is one for the whole machine: its tests take turns, those of other processes included.
class RunningLinuxTest : public ProcessLinuxTest
{
protected:
    void SetUp() override
    {
        ProcessLinuxTest::SetUp();
        mLock = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        while (0 != flock(mLock, LOCK_EX) && EINTR == errno) {
        }
        unlink(cResultFile);
    }
    void TearDown() override
    {
        unlink(cResultFile);
        close(mLock);
        ProcessLinuxTest::TearDown();
    }

    static std::string result()
    {
        std::ifstream lFile(cResultFile);
        std::stringstream lText;
        lText << (lFile ? "" : "no file") << lFile.rdbuf();
        return lText.str();
    }

private:
    int mLock = -1;
};

TEST_F(RunningLinuxTest, NameThatMatchesNothingIsNotRunningAndLeavesAnEmptyFile)
{
    EXPECT_EQ(0, isProcessRunning("oqnosuchname"));
    EXPECT_EQ((Lines{cRunning.entered(), cRunning.trace("Process 'oqnosuchname' is not running"), cRunning.left()}),
              logged());
    EXPECT_EQ("", result());
}

TEST_F(RunningLinuxTest, ProcessIsFoundByItsNameAndTheFileIsRewrittenByTheNextCall)
{
    const std::string lName = "oqs" + std::to_string(getpid());
    const std::string lProgram = path(lName);
    {
        std::ifstream lSleep("/bin/sleep", std::ios::binary);
        std::ofstream(lProgram, std::ios::binary) << lSleep.rdbuf();
        chmod(lProgram.c_str(), 0700);
    }
    const Texts lArguments{"sleep", "60"};
    int lChild = -1;
    try {
        lChild = ProcessCreate(lProgram.c_str(), lArguments, cNoEnvironment);
    } catch (const OQCProcessCreationFailedEx&) {
        _exit(42);  // in the child: it may not wait for the lock of its parent
    }
    ASSERT_LT(0, lChild);
    EXPECT_TRUE(eventually([&] {  // the parent may go on before the system has given the child its new name
        std::string lTold;
        std::ifstream("/proc/" + std::to_string(lChild) + "/comm") >> lTold;
        return lName == lTold;
    }));
    clearLog();
    EXPECT_EQ(1, isProcessRunning(lName.c_str()));
    EXPECT_EQ((Lines{cRunning.entered(), cRunning.trace("Process '" + lName + "' is running"), cRunning.left()}),
              logged());
    EXPECT_EQ(std::to_string(lChild) + "\n", result());
    EXPECT_EQ(1, isProcessRunning(("'^" + lName.substr(0, 3) + ".*" + lName.substr(3) + "$'").c_str()))
        << "the name is a pattern";
    EXPECT_EQ(0, kill(lChild, SIGKILL));
    EXPECT_EQ(-1, ProcessWait(lChild, 0));
    EXPECT_EQ(0, isProcessRunning(lName.c_str()));
    EXPECT_EQ("", result());
    unlink(lProgram.c_str());
}

TEST_F(RunningLinuxTest, NothingIsRunningWherePgrepIsMissing)
{
    const ChildResult lResult = inChild([] {
        setenv("PATH", "/nonexistent", 1);
        const int lQuiet = open("/dev/null", O_WRONLY);
        dup2(lQuiet, 2);
        EXPECT_EQ(0, isProcessRunning("."));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
    EXPECT_EQ((Lines{cRunning.entered(), cRunning.trace("Process '.' is not running"), cRunning.left()}),
              lResult.mLines);
    EXPECT_EQ("", result());
}

TEST_F(RunningLinuxTest, NothingIsRunningWhereTheFileCannotBeMade)
{
    ASSERT_EQ(0, symlink("/nonexistent/file", cResultFile));
    const ChildResult lResult = inChild([] {
        const int lQuiet = open("/dev/null", O_WRONLY);
        dup2(lQuiet, 2);
        EXPECT_EQ(0, isProcessRunning("."));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
    EXPECT_EQ((Lines{cRunning.entered(), cRunning.trace("Process '.' is not running"), cRunning.left()}),
              lResult.mLines);
}

}  // namespace
