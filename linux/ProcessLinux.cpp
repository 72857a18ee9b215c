// Processes: start a program, wait for a child, handle a signal, ask whether a program runs.

#define OQ_LOG_FILE ".//ProcessLinux"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "LinuxInternal.h"

namespace
{

const int cPollMilliseconds = 10;

/// A close-on-exec pipe between the caller and a child: the child's end closes when it runs a program or ends.
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
        if (0 <= mEnds[0]) {
            close(mEnds[0]);
            closeWriteEnd();
        }
    }
    ExecPipe(const ExecPipe&) = delete;
    ExecPipe& operator=(const ExecPipe&) = delete;

    void report(int aError) const
    {
        while (write(mEnds[1], &aError, sizeof aError) < 0 && EINTR == errno) {
        }
    }

    /// In a child that may run a program later: leaves the write end to it, to be closed by that or by its end.
    void leaveOpen()
    {
        close(mEnds[0]);
        mEnds[0] = mEnds[1] = -1;
    }

    /// What the child reported, or 0.
    int reported() const
    {
        int lError = 0;
        while (read(mEnds[0], &lError, sizeof lError) < 0 && EINTR == errno) {
        }
        return lError;
    }

    /// Waits until the child reports, runs a program or ends. A child of another thread may have inherited the pipe and
    /// keep it open for as long as it likes, so an end of file alone is not waited for: what counts is that the child's
    /// own descriptor is gone.
    void waitFor(pid_t aChild)
    {
        struct stat lPipe;
        if (fstat(mEnds[0], &lPipe) < 0) {
            return;
        }
        char lDescriptor[64];
        snprintf(lDescriptor, sizeof lDescriptor, "/proc/%d/fd/%d", static_cast<int>(aChild), mEnds[1]);
        closeWriteEnd();
        struct stat lTheirs;
        struct pollfd lEnd = {mEnds[0], POLLIN, 0};
        while (poll(&lEnd, 1, cPollMilliseconds) <= 0 && 0 == stat(lDescriptor, &lTheirs) &&
               lTheirs.st_dev == lPipe.st_dev && lTheirs.st_ino == lPipe.st_ino) {
        }
    }

private:
    void closeWriteEnd()
    {
        if (0 <= mEnds[1]) {
            close(mEnds[1]);
            mEnds[1] = -1;
        }
    }

    int mEnds[2];
};

void reap(pid_t aChild)
{
    // A handler of the caller may have been quicker: then there is nothing left to collect.
    while (waitpid(aChild, NULL, 0) < 0 && EINTR == errno) {
    }
}

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
        _exit(127);
    }
    arError = lError;
    if (0 < lChild && !lShared) {
        // vfork was carried out as a fork: this memory is not the child's, and it may not have got that far yet.
        lPipe.waitFor(lChild);
        arError = lPipe.reported();
    }
    return lChild;
}

}  // namespace

int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp)
{
    OQ_ENTERED();
    fflush(stdin);  // standard input it is, not standard output
    int lError = 0;
    pid_t lChild = startProgram(acPath, acArgv, acEnvp, lError);
    if (0 != lError) {
        // The program cannot be run. The failure is to be thrown in a child: one with memory of its own. As with vfork,
        // the parent goes on when that child runs a program or ends.
        reap(lChild);
        ExecPipe lPipe;
        lChild = fork();
        if (0 == lChild) {
            lPipe.leaveOpen();
            errno = lError;
            ErrorText lText;
            OQ_ERROR("Failed to exec child :%s", lText.get());
            OQ_LEFT();
            throwOsError<OQCProcessCreationFailedEx>(lText);
        }
        if (0 < lChild) {
            lPipe.waitFor(lChild);
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
        lRunning = 0;
    }
    if (1 == lRunning) {
        OQ_TRACE("Process '%s' is running", acrName.get());
    } else {
        OQ_TRACE("Process '%s' is not running", acrName.get());
    }
    OQ_LEFT();
    return lRunning;
}
