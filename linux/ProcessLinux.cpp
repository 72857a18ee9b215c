// Processes: start a program, wait for a child, handle a signal, ask whether a program runs.

#define OQ_LOG_FILE ".//ProcessLinux"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "LinuxInternal.h"

namespace
{

const int cPollMilliseconds = 10;
const int cCannotRun = 127;  // exit code of a child that was to run a program and could not

/// A thread that is asked to end does not end while it starts a program: a cancellation point in the vfork child would
/// unwind the parent's stack, one in the parent would lose the child.
class NoCancellation
{
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mState); }
    ~NoCancellation() { pthread_setcancelstate(mState, NULL); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int mState;
};

/// A close-on-exec pipe between the caller and a child: the child's end closes when it runs a program or ends. It never
/// blocks, so no signal interrupts it.
class ExecPipe
{
public:
    ExecPipe()
    {
        if (pipe2(mEnds, O_CLOEXEC | O_NONBLOCK) < 0) {
            mEnds[0] = mEnds[1] = -1;
        }
    }
    ~ExecPipe()
    {
        const int lErrno = errno;  // of a start that failed
        closeEnd(mEnds[0]);
        closeEnd(mEnds[1]);
        errno = lErrno;
    }
    ExecPipe(const ExecPipe&) = delete;
    ExecPipe& operator=(const ExecPipe&) = delete;

    bool isOpen() const { return 0 <= mEnds[0]; }

    void report(int aError) const
    {
        const ssize_t lIgnored = write(mEnds[1], &aError, sizeof aError);  // there is room for it
        static_cast<void>(lIgnored);
    }

    /// What the child reported, or 0.
    int reported() const
    {
        int lError = 0;
        const ssize_t lRead = read(mEnds[0], &lError, sizeof lError);
        return 0 < lRead ? lError : 0;
    }

    /// In a child that may run a program later: leaves the write end to it, to be closed by that or by its end.
    void leaveToChild()
    {
        closeEnd(mEnds[0]);
        mEnds[1] = -1;
    }

    /// Waits until the child runs a program or ends. A child of another thread may have inherited the pipe and keep it
    /// open for as long as it likes, so an end of file alone is not waited for: what counts is the child's own
    /// descriptor, as far as the system shows it. Data is no sign: where the caller had closed its standard output, the
    /// pipe may have that number, and the child print into it.
    void waitFor(pid_t aChild)
    {
        const int lEnd = mEnds[1];
        Target lOurs;
        const bool lShown = 0 < readTarget(getpid(), lEnd, lOurs);
        closeEnd(mEnds[1]);
        struct pollfd lPoll = {mEnds[0], 0, 0};
        while (poll(&lPoll, 1, cPollMilliseconds) <= 0 && !hasEnded(aChild) &&
               !(lShown && hasReleased(aChild, lEnd, lOurs))) {
        }
    }

private:
    typedef char Target[64];  // what a descriptor is open on, such as "pipe:[4711]"

    static ssize_t readTarget(pid_t aProcess, int aDescriptor, Target& arTarget)
    {
        char lPath[64];
        snprintf(lPath, sizeof lPath, "/proc/%d/fd/%d", static_cast<int>(aProcess), aDescriptor);
        memset(arTarget, 0, sizeof arTarget);
        return readlink(lPath, arTarget, sizeof arTarget - 1);
    }

    /// A child whose descriptors may not be looked at (it has changed its user) has not released this one.
    static bool hasReleased(pid_t aChild, int aDescriptor, const Target& acrOurs)
    {
        Target lTheirs;
        return readTarget(aChild, aDescriptor, lTheirs) < 0 ? ENOENT == errno : 0 != strcmp(acrOurs, lTheirs);
    }

    static bool hasEnded(pid_t aChild)
    {
        siginfo_t lInfo;
        lInfo.si_pid = 0;
        return waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOHANG | WNOWAIT) < 0 || 0 != lInfo.si_pid;
    }

    static void closeEnd(int& arEnd)
    {
        if (0 <= arEnd) {
            close(arEnd);
            arEnd = -1;
        }
    }

    int mEnds[2];
};

/// Starts the program with vfork.
/// \return the child's id, or -1 when there is no child; arError: 0, or why the child could not run the program
///
/// The child shares this frame and every other of the caller, so it does nothing but try, say why not, and end: an
/// exception thrown there would be handled on the stack that the suspended parent goes on with.
pid_t startProgram(const char* acPath, char* const* acArgv, char* const* acEnvp, int& arError)
{
    ExecPipe lPipe;
    volatile bool lShared = false;
    volatile int lError = 0;
    const pid_t lChild = vfork();
    if (0 == lChild) {
        lShared = true;
        execve(acPath, acArgv, acEnvp);
        lError = errno;
        lPipe.report(lError);
        _exit(cCannotRun);
    }
    arError = lError;
    if (0 < lChild && !lShared && lPipe.isOpen()) {
        // vfork was carried out as a fork: this memory is not the child's, and it may not have got that far yet.
        // Without a descriptor to spare nothing can be learnt of it but its exit code.
        lPipe.waitFor(lChild);
        arError = lPipe.reported();
    }
    return lChild;
}

void reap(pid_t aChild)
{
    // A handler of the caller may have been quicker: then there is nothing left to collect.
    while (waitpid(aChild, NULL, 0) < 0 && EINTR == errno) {
    }
}

/// Makes the child in which the failure of a program that cannot be run is thrown: one with memory of its own. As with
/// vfork, the parent goes on when that child runs a program or ends; without a descriptor to spare, at once.
/// \return the child's id in the parent, 0 in the child, -1 when there can be no such child
pid_t forkFailedChild()
{
    ExecPipe lPipe;
    const pid_t lChild = fork();
    if (0 == lChild) {
        lPipe.leaveToChild();
    } else if (0 < lChild && lPipe.isOpen()) {
        lPipe.waitFor(lChild);
    }
    return lChild;
}

}  // namespace

int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp)
{
    OQ_ENTERED();
    fflush(stdin);  // standard input it is, not standard output
    const NoCancellation lNoCancellation;
    int lError = 0;
    pid_t lChild = startProgram(acPath, acArgv, acEnvp, lError);
    if (0 != lError) {
        reap(lChild);
        lChild = forkFailedChild();
        if (0 == lChild) {
            errno = lError;
            ErrorText lText;
            OQ_ERROR("Failed to exec child :%s", lText.get());
            OQ_LEFT();
            throwOsError<OQCProcessCreationFailedEx>(lText);
        }
    }
    if (lChild < 0) {
        ErrorText lText;
        OQ_ERROR("Failed to create child :%s", lText.get());
        OQ_LEFT();
        throwOsError<OQCProcessCreationFailedEx>(lText);
    }
    OQ_LEFT();
    return lChild;
}

int ProcessWait(int aPid, unsigned int)
{
    OQ_ENTERED();
    OQ_TRACE("Going to wait for child process to complete");
    int lStatus = 0;
    if (-1 == waitpid(aPid, &lStatus, 0)) {
        OQ_ERROR("Failed to wait on child process");
        throwWith<OQCProcessWaitFailedEx>("Failed to create process");
    }
    int lResult = -1;
    if (WIFEXITED(lStatus)) {
        lResult = WEXITSTATUS(lStatus);
        OQ_TRACE("The child process exited normally, with exit code: %d", lResult);
    } else {
        OQ_ERROR("The child process exited abnormally");
    }
    OQ_LEFT();
    return lResult;
}

// The handler has the one-argument form although SA_SIGINFO is set: it gets the number and ignores the rest.
void RegisterSignalHandler(int aSignal, void (*apHandler)(int))
{
    OQ_ENTERED();
    OQ_INFORMATION("Registering signal handler for signal %d", aSignal);
    struct sigaction lAction;
    lAction.sa_handler = apHandler;
    lAction.sa_flags = SA_SIGINFO | SA_INTERRUPT;
    sigfillset(&lAction.sa_mask);
    sigaction(aSignal, &lAction, NULL);
    OQ_LEFT();
}

int isProcessRunning(const OQCString& acrName)
{
    OQ_ENTERED();
    char lCommand[256];
    ClibSprintf(lCommand, "pgrep %s > /tmp/.vyrsyscmd", acrName.get());
    const int lIgnored = system(lCommand);
    static_cast<void>(lIgnored);
    int lRunning = 0;
    try {
        struct stat lOutput;
        ClibStat("/tmp/.vyrsyscmd", &lOutput);
        lRunning = 0 != lOutput.st_size ? 1 : 0;
    } catch (const OQCClibStatFailedEx&) {
        // No result, so nothing was found.
    }
    if (1 == lRunning) {
        OQ_TRACE("Process '%s' is running", acrName.get());
    } else {
        OQ_TRACE("Process '%s' is not running", acrName.get());
    }
    OQ_LEFT();
    return lRunning;
}
