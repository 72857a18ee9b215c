// How the operations of processes end.

#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Outcome.h"

namespace
{

const Family cFamily("Processes", ".//ProcessLinux",
                     "When a program cannot be run, `ProcessCreate` completes twice. It throws in a child that is a "
                     "copy of the caller, and it returns in the parent.",
                     {{"-E- Failed to create child :%s", "the system cannot create a process"},
                      {"-E- Failed to exec child :%s", "the program cannot be run; the child writes the line"},
                      {"-E- Failed to wait on child process",
                       "not a child of this process, already reaped, or interrupted by a signal"},
                      {"-E- The child process exited abnormally", "a signal ended the child; the result is -1"},
                      {"-I- Registering signal handler for signal %d", "before the attempt; a failure is not logged"},
                      {"-T- Going to wait for child process to complete", "the wait begins"},
                      {"-T- The child process exited normally, with exit code: %d", "the child ended by itself"},
                      {"-T- Process '%s' is running", "the result file is not empty"},
                      {"-T- Process '%s' is not running", "the result file is empty, or cannot be examined"},
                      {"-T- Entered", "the operation begins"},
                      {"-T- Left", "the operation returns; after an error line of `ProcessCreate`: a throw follows"}});

/// The kinds of vfork(): the child shares the parent's memory or, as in emulators, has a copy.
const bool cCopies[] = {false, true};

/// A start of /bin/true.
class Start
{
public:
    explicit Start(bool aVforkCopies)
    {
        SubstituteBase::resetAll();
        clearEvents();
        nameObject("arguments", mArguments);
        nameObject("environment", mArguments + 1);
        substitute::pthread_mutex_lock.hide();  // of the lock that the throwing child holds
        substitute::waitid.instead([](idtype_t aType, id_t aChild, siginfo_t* apInfo, int aOptions) {
            EXPECT_STREQ("local", place(apInfo).mText);  // another thread may ask at the same time
            return substitute::waitid.real(aType, aChild, apInfo, aOptions);
        });
        substitute::syscall.instead([](long a, long b, long c, long d, long e, long f, long g) {
            if (SYS_rt_sigaction == a && 0 != d) {
                EXPECT_STREQ("local",
                             place(reinterpret_cast<void*>(d)).mText);  // another thread may also start a program
            }
            return substitute::syscall.real(a, b, c, d, e, f, g);
        });
        if (aVforkCopies) {
            substitute::vfork.instead([] { return substitute::fork.real(); });
        }
    }
    /// \param[in] aSignal  is sent to the child after the start
    /// \return the exit status of the child, or minus the signal that ended it
    int operator()(int aSignal = 0)
    {
        int lStatus = -1;
        const pid_t lChild = ProcessCreate("/bin/true", mArguments, mArguments + 1);
        if (0 < lChild) {
            substitute::kill.real(lChild, aSignal);
        }
        substitute::waitpid.real(lChild, &lStatus, 0);
        return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
    }

private:
    char mName[5] = "true";
    char* mArguments[2] = {mName, nullptr};
};

const char* const cSucceeds = R"(
    Entered
    fflush(stdin) = 0
    vfork()
    child 1: execve("/bin/true", arguments, environment)
    Left
)";
const std::string cThrows =
    "\n" + loggedFailure(R"(-E- "Failed to create child :%s" )", "OQCProcessCreationFailedEx 345");
const std::string cCannotRun = R"(
    Entered
    fflush(stdin) = 0
    vfork()
    child 1: execve("/bin/true", arguments, environment) = -1 ERROR
    waitpid(child 1, null, 0) = child 1
)";
const std::string cMakesTheLock = "pthread_mutex_init(memory, local) = 0";
const std::string cThrowsInTheChild = R"(
    fork() = child 2
    child 2: ClibStrerror(local, 512) = "ERROR #1"
    child 2: -E- "Failed to exec child :%s" "ERROR #1"
    child 2: Left
    child 2: ClibStrerror(local, 512) = "ERROR #2"
    child 2: throws OQCProcessCreationFailedEx 345 "ERROR #2"
    Left
)";

OUTCOME(ProcessCreate, Succeeds)
{
    mWhen = "succeeds";
    mTrace = cSucceeds;
    mTells = "returns the child's id when the child runs its program";
    for (const bool lCopies : cCopies) {
        Start lStart(lCopies);
        run([&] { EXPECT_EQ(0, lStart()); });
    }
    // The parent of a copy does not see the program start, but the session that the program has created.
    Start lStart(true);
    substitute::execve.instead([](const char*, char* const*, char* const*) {
        setsid();
        alarm(30);  // ends the child of a parent that does not return
        return pause();
    });
    run([&] { EXPECT_EQ(-SIGKILL, lStart(SIGKILL)); });
}

OUTCOME_OF_ERRORS(ProcessCreate, ThrowsWhenVforkFails, EAGAIN, ENOMEM, ENOSYS)
{
    Start lStart(false);
    substitute::vfork.fail(-1, error());
    mWhen = "`vfork` fails";
    mTrace = R"(
        Entered
        fflush(stdin) = 0
        vfork())" +
             cThrows;
    mStays = "there is no child";
    run([&] { lStart(); });
}

OUTCOME_OF_ERRORS(ProcessCreate, ThrowsWhenTheProgramCannotBeRun, E2BIG, EACCES, EAGAIN, EFAULT, EINVAL, EIO, EISDIR,
                  ELIBBAD, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENOENT, ENOEXEC, ENOMEM, ENOTDIR, EPERM, ETXTBSY)
{
    mWhen = "the program cannot be run (`execve` fails)";
    mTrace = cCannotRun + cMakesTheLock + cThrowsInTheChild;
    mTells = "the parent returns the child's id when the child has run another program or has ended";
    mStays = "the parent's memory, descriptors and output; the child continues as its caller decides";
    for (const bool lCopies : cCopies) {
        Start lStart(lCopies);
        substitute::execve.fail(-1, error());
        run([&] { EXPECT_EQ(0, lStart()); });
    }
}

OUTCOME_OF_ERRORS(ProcessCreate, ThrowsWhenForkOfTheThrowingChildFails, EAGAIN, ENOMEM, ENOSYS)
{
    mWhen = "the program cannot be run, and `fork` cannot create the child that would throw";
    mTrace = R"(
        Entered
        fflush(stdin) = 0
        vfork()
        child 1: execve("/bin/true", arguments, environment) = -1 ENOENT
        waitpid(child 1, null, 0) = child 1
        pthread_mutex_init(memory, local) = 0
        fork() = -1 ERROR)" +
             cThrows;
    mStays = "there is no child; the text is that of the error of `fork`";
    for (const bool lCopies : cCopies) {
        Start lStart(lCopies);
        substitute::execve.fail(-1, ENOENT);
        substitute::fork.fail(-1, error());
        run([&] { lStart(); });
    }
}

#if !OQ_SANITIZED  // there is no substitute for mmap()
OUTCOME_OF_ERRORS(ProcessCreate, NeedsNoMemoryThatTheChildShares, ENOENT)
{
    mWhen = "`mmap` fails: no memory that parent and child share";
    mTells =
        "returns the child's id; the program runs, or `ProcessCreate` throws as above. In emulators, where `vfork` "
        "copies memory, `ProcessCreate` does not throw: if the program cannot be run, the child ends with exit status "
        "127";
    for (const bool lCopies : cCopies) {
        for (const bool lRuns : {true, false}) {
            const bool lIsThrown = !lRuns && !lCopies && OQ_SHARING_VFORK;
            Start lStart(lCopies);
            substitute::mmap.fail(MAP_FAILED, ENOMEM);
            if (!lRuns) {
                substitute::execve.fail(-1, error());
            }
            if (!lIsThrown) {
                substitute::execve.hide();  // the parent does not wait for the execve() of a child that has a copy
            }
            mTrace = lIsThrown ? cCannotRun + cThrowsInTheChild : "Entered\n fflush(stdin) = 0\n vfork()\n Left";
            run([&] { EXPECT_EQ(lRuns || lIsThrown ? 0 : 127, lStart()); });
        }
    }
}
#endif

OUTCOME_OF_ERRORS(ProcessCreate, NeedsNoFreeDescriptor, ENOENT)
{
    mWhen = "no descriptor is free (`EMFILE`)";
    mTells = "returns the child's id; the program runs, or `ProcessCreate` throws as above";
    for (const bool lCopies : cCopies) {
        for (const bool lRuns : {true, false}) {
            if (OQ_SANITIZED && !lRuns) {
                break;  // a sanitizer opens a file to check the type of a thrown object
            }
            Start lStart(lCopies);
            if (!lRuns) {
                substitute::execve.fail(-1, error());
            }
            mTrace = lRuns ? cSucceeds : cCannotRun + cMakesTheLock + cThrowsInTheChild;
            runInChild([&] {
                useAllDescriptors();
                EXPECT_EQ(0, lStart());
            });
        }
    }
}

OUTCOME(ProcessCreate, ReturnsWhenASignalEndsTheChildBeforeItsProgramRuns)
{
    static std::atomic<unsigned int> sHandled;  // also incremented by a child that shares the memory
    sHandled = 0;
    const sighandler_t lBefore = signal(SIGUSR1, [](int) { ++sHandled; });
    mWhen = "a signal ends the child before its program runs";
    mTrace = cSucceeds;
    mTells = "returns the child's id";
    mStays = "the host's handler does not run";
    for (const bool lCopies : cCopies) {
        Start lStart(lCopies);
        substitute::execve.instead([](const char*, char* const*, char* const*) {
            return substitute::kill.real(getpid(), SIGUSR1);  // raise() would signal the parent's thread
        });
        run([&] { EXPECT_EQ(-SIGUSR1, lStart()); });
    }
    EXPECT_EQ(0U, sHandled);
    signal(SIGUSR1, lBefore);
}

/// Plans that waitpid() reports this status for any child.
void planStatus(int aStatus)
{
    clearEvents();
    substitute::waitpid.instead([aStatus](pid_t aChild, int* apStatus, int) {
        *apStatus = aStatus;
        return aChild;
    });
}

const std::string cWaits = R"(
    Entered
    -T- "Going to wait for child process to complete"
    waitpid(process 4711, local, 0) = )";

OUTCOME(ProcessWait, ReturnsTheExitCode)
{
    mWhen = "the child ended by itself";
    mTells = "returns the exit code";
    for (const int lCode : {0, 1, 42, 255}) {
        planStatus(lCode << 8 | 0x80);  // only the low seven bits tell whether a signal ended the child
        mTrace = cWaits + R"(process 4711
            -T- "The child process exited normally, with exit code: %d" ")" +
                 std::to_string(lCode) + "\"\n Left";
        run([&] { EXPECT_EQ(lCode, ProcessWait(4711, static_cast<unsigned int>(lCode))); });
    }
}

OUTCOME(ProcessWait, ReturnsMinusOneWhenASignalEndedTheChild)
{
    mWhen = "a signal ended the child";
    mTrace = cWaits + R"(process 4711
        -E- "The child process exited abnormally"
        Left
    )";
    mTells = "returns -1";
    for (const int lStatus : {0x0009, 0x0086, 0x0140, 0x137f, 0xffff}) {
        planStatus(lStatus);
        run([] { EXPECT_EQ(-1, ProcessWait(4711, 0)); });
    }
}

OUTCOME_OF_ERRORS(ProcessWait, ThrowsWhenWaitpidFails, EAGAIN, ECHILD, EINTR, EINVAL, ESRCH)
{
    substitute::waitpid.fail(-1, error());
    mWhen = "`waitpid` fails: no such child, already reaped, interrupted by a signal";
    mTrace = cWaits + R"(-1 ERROR
        -E- "Failed to wait on child process"
        throws OQCProcessWaitFailedEx 345 "Failed to create process"
    )";
    mStays = "the child, if there is one";
    run([] { ProcessWait(4711, 0); });
}

OUTCOME(RegisterSignalHandler, Succeeds)
{
    struct sigaction lGiven = {};
    substitute::sigaction.instead([&](int, const struct sigaction* acAction, struct sigaction*) {
        lGiven = *acAction;
        return 0;
    });
    mWhen = "succeeds";
    mTrace = R"(
        Entered
        -I- "Registering signal handler for signal %d" "12"
        sigaction(12, local, null) = 0
        Left
    )";
    mStays = "the handler is installed; while it runs, every other signal is blocked";
    run([] { RegisterSignalHandler(12, SIG_IGN); });
    EXPECT_EQ(SIG_IGN, lGiven.sa_handler);
    EXPECT_EQ(0x20000004, lGiven.sa_flags);  // SA_SIGINFO | SA_INTERRUPT
    sigset_t lAll;
    sigfillset(&lAll);
    EXPECT_EQ(0, memcmp(&lAll, &lGiven.sa_mask, NSIG / 8));
}

OUTCOME(RegisterSignalHandler, IgnoresAFailure)
{
    mWhen = "`sigaction` fails: no such signal, or a signal that cannot be handled (`EINVAL`)";
    mTrace = R"(
        Entered
        -I- "Registering signal handler for signal %d" signal
        sigaction(signal, local, null) = -1 EINVAL
        Left
    )";
    mStays = "the current handler";
    for (const int lSignal : {-1, 0, 65, 1000, SIGKILL, SIGSTOP}) {
        clearEvents();
        nameNumber("signal", &lSignal);
        run([&] { RegisterSignalHandler(lSignal, SIG_IGN); });
    }
}

/// Calls isProcessRunning() with this status of the shell command and this size of the result file.
class Question
{
public:
    Question(const std::string& acrName, int aStatus, off_t aSize) : mName(acrName.c_str())
    {
        clearEvents();
        nameText("name", acrName);
        nameText("command", "pgrep " + acrName + " > /tmp/.vyrsyscmd");
        nameText("status", aStatus < 0 ? "-1 ECHILD" : std::to_string(aStatus));
        substitute::system.fail(aStatus, ECHILD);
        substitute::ClibStat.instead([aSize](const char*, struct stat* apInfo) {
            apInfo->st_size = aSize;
            return 1;
        });
    }
    int operator()() const { return isProcessRunning(mName); }

private:
    const OQCString mName;
};

const std::string cAsks = R"(
    Entered
    ClibSprintf(local, "pgrep %s > /tmp/.vyrsyscmd") = command
    system(command) = status
    ClibStat("/tmp/.vyrsyscmd", local))";
const std::string cIsRunning = " = 1\n -T- \"Process '%s' is running\" name\n Left";
const std::string cIsNotRunning = "\n -T- \"Process '%s' is not running\" name\n Left";

OUTCOME(isProcessRunning, ReturnsOneWhenAProcessMatches)
{
    mWhen = "a process matches: the result file is not empty";
    mTrace = cAsks + cIsRunning;
    mTells = "returns 1";
    mStays = "`/tmp/.vyrsyscmd`, with the process ids";
    for (const std::string& lrName :
         {std::string("-f 'a b'; true"), std::string("%s%n"), std::string(""), std::string(231, 'x')}) {
        for (const off_t lSize : {1, 5, INT_MAX}) {
            for (const int lStatus : {0, 256, 32512, -1}) {  // not examined
                const Question lQuestion(lrName, lStatus, lSize);
                run([&] { EXPECT_EQ(1, lQuestion()); });
            }
        }
    }
}

OUTCOME(isProcessRunning, ReturnsZeroWhenNoProcessMatches)
{
    mWhen = "no process matches, `pgrep` is missing, or the command fails: the result file is empty";
    mTrace = cAsks + " = 1" + cIsNotRunning;
    mTells = "returns 0";
    mStays = "`/tmp/.vyrsyscmd`, empty";
    for (const int lStatus : {256, 32512, 0, -1}) {
        const Question lQuestion("daemon", lStatus, 0);
        run([&] { EXPECT_EQ(0, lQuestion()); });
    }
}

OUTCOME_OF_ERRORS(isProcessRunning, ReturnsZeroWhenTheFileCannotBeExamined, EACCES, EBADF, EFAULT, EINVAL, ELOOP,
                  ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW)
{
    const Question lQuestion("daemon", -1, 0);
    recordCompanion();
    substitute::stat.fail(-1, error());
    substitute::ClibStat.instead(
        [](const char* acPath, struct stat* apInfo) { return substitute::ClibStat.real(acPath, apInfo); });
    mWhen = "`ClibStat` throws `OQCClibStatFailedEx` 173: the result file cannot be examined";
    mTrace = cAsks + "\n ClibStrerror(local, 512) = \"ERROR #1\"" + cIsNotRunning;
    mTells = "returns 0";
    run([&] { EXPECT_EQ(0, lQuestion()); });
}

OUTCOME(isProcessRunning, PassesOnAnyOtherExceptionOfTheExamination)
{
    const Question lQuestion("daemon", 0, 0);
    substitute::ClibStat.instead([](const char*, struct stat*) -> int { throw OQCOpenFailedEx("other", 326); });
    mWhen = "`ClibStat` throws any other exception";
    mTrace = cAsks + "\n throws OQCOpenFailedEx 326 \"other\"";
    mStays = "the exception passes unchanged; `/tmp/.vyrsyscmd` stays";
    run([&] { lQuestion(); });
}

}  // namespace
