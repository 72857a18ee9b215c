// Processes: start a program, wait for a child, handle a signal, ask whether a program runs.

#define OQ_LOG_FILE ".//ProcessLinux"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "LinuxInternal.h"

namespace
{

const int cCannotRun = 127;              // exit code of a child that was to run a program and could not
const useconds_t cLongestPause = 10000;  // microseconds between two looks at a child
const pid_t cNoGroup = INT_MAX;  // no process group has this number: it is above the system's largest process id

/// Disables cancellation while a program is started: a cancellation point in the vfork child would unwind the parent's
/// stack, and one in the parent would lose the child.
class NoCancellation
{
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &mState); }
    ~NoCancellation() { pthread_setcancelstate(mState, NULL); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

    /// Leaves cancellation disabled for good.
    void keep() { mState = PTHREAD_CANCEL_DISABLE; }

private:
    int mState;
};

/// Blocks every signal of the calling thread.
class NoSignals
{
public:
    NoSignals()
    {
        sigset_t lAll;
        sigfillset(&lAll);
        pthread_sigmask(SIG_SETMASK, &lAll, &mMask);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &mMask, NULL); }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

    /// The mask that was in force before.
    const sigset_t& before() const { return mMask; }

private:
    sigset_t mMask;
};

/// Memory that the caller and its children both see, zero-filled. There may be none.
template <class T>
class SharedWithChild
{
public:
    SharedWithChild() : mMemory(mmap(NULL, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
    ~SharedWithChild()
    {
        if (NULL != get()) {
            munmap(mMemory, sizeof(T));
        }
    }
    SharedWithChild(const SharedWithChild&) = delete;
    SharedWithChild& operator=(const SharedWithChild&) = delete;

    T* get() const { return MAP_FAILED == mMemory ? NULL : static_cast<T*>(mMemory); }
    /// Leaves it mapped.
    void keep() { mMemory = MAP_FAILED; }

private:
    void* mMemory;
};

/// Linux's record of a signal's action, which begins with the handler; the C library's differs from it.
struct KernelAction {
    void (*mHandler)(int);
    unsigned char mRest[64];  // flags, mask and what else the processor's record has
};

/// Gives the vfork child the signal actions and the mask that its program starts with: handlers become the default
/// action, ignored signals stay ignored. The system calls are made directly because a library that stands before the
/// C library's functions may keep a table of handlers, which the child shares with its parent.
void takeSignalsOfProgram(const sigset_t& acrMask)
{
    const size_t cMaskSize = NSIG / 8;
    const KernelAction lDefault = {};
    for (int lSignal = 1; lSignal < NSIG; ++lSignal) {
        KernelAction lAction = {};
        syscall(SYS_rt_sigaction, lSignal, NULL, &lAction, cMaskSize);
        if (SIG_DFL != lAction.mHandler && SIG_IGN != lAction.mHandler) {
            syscall(SYS_rt_sigaction, lSignal, &lDefault, NULL, cMaskSize);
        }
    }
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &acrMask, NULL, cMaskSize);
}

/// Tells whether a child has ended. A child that somebody else has reaped has ended, too.
bool hasEnded(pid_t aChild)
{
    siginfo_t lInfo;
    lInfo.si_pid = 0;
    const int lResult = waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOHANG | WNOWAIT);
    return lResult < 0 ? ECHILD == errno : 0 != lInfo.si_pid;
}

/// Tells whether a child runs a program of its own, by a request that Linux refuses in any case: with EACCES if the
/// child has called execve() since its fork, and with EPERM if not. A child in another session is always refused with
/// EPERM.
bool runsProgram(pid_t aChild)
{
    setpgid(aChild, cNoGroup);
    return EACCES == errno;
}

bool hasOwnSession(pid_t aChild) { return getsid(aChild) != getsid(0); }

/// Asks until the answer is true: soon at first, then every 10 ms.
template <class Condition>
void waitUntil(Condition aCondition)
{
    useconds_t lPause = 50;
    while (!aCondition()) {
        usleep(lPause);
        lPause = std::min(2 * lPause, cLongestPause);
    }
}

/// Starts the program with vfork.
/// \return the child's id, or -1 when there is no child; arError: 0, or why the child could not run the program
///
/// The child shares this frame and all other memory of the caller, so it only tries, reports the error, and ends. An
/// exception thrown there would be handled on the stack that the suspended parent continues with. A handler of the host
/// would change the parent's memory, so all signals are blocked until the child has no handler.
pid_t startProgram(const char* acPath, char* const* acArgv, char* const* acEnvp, int& arError)
{
    volatile int lError = 0;
    volatile bool lSharesMemory = false;
    const SharedWithChild<volatile int> lErrorOfCopy;
    const NoSignals lNoSignals;
    const pid_t lChild = vfork();
    if (0 == lChild) {
        lSharesMemory = true;
        takeSignalsOfProgram(lNoSignals.before());
        execve(acPath, acArgv, acEnvp);
        lError = errno;
        if (NULL != lErrorOfCopy.get()) {
            *lErrorOfCopy.get() = lError;
        }
        _exit(cCannotRun);
    }
    if (0 < lChild && !lSharesMemory && NULL != lErrorOfCopy.get()) {
        // The system carries out vfork as fork, as emulators do: the child may not have got that far yet. A session of
        // its own is a sign of its program, for the child itself does not make one.
        waitUntil([=] { return runsProgram(lChild) || hasOwnSession(lChild) || hasEnded(lChild); });
        lError = *lErrorOfCopy.get();
    }
    arError = lError;
    return lChild;
}

void reap(pid_t aChild)
{
    // A handler of the host may have been quicker: then there is nothing left to collect.
    while (waitpid(aChild, NULL, 0) < 0 && EINTR == errno) {
    }
}

/// Makes a lock that the kernel releases when its owner runs a program or ends.
void initRobustLock(pthread_mutex_t* apLock)
{
    pthread_mutexattr_t lAttributes;
    pthread_mutexattr_init(&lAttributes);
    pthread_mutexattr_setpshared(&lAttributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&lAttributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(apLock, &lAttributes);
    pthread_mutexattr_destroy(&lAttributes);
}

/// Tells whether the kernel has released a robust lock because its owner ran a program or ended.
bool isReleased(pthread_mutex_t* apLock)
{
    const int lResult = pthread_mutex_trylock(apLock);
    if (EBUSY == lResult) {
        return false;
    }
    pthread_mutex_unlock(apLock);
    return EOWNERDEAD == lResult;
}

/// Makes the child in which the failure of a program that cannot be run is thrown: one with memory of its own. As with
/// vfork, the parent continues when that child runs a program or ends. What the child closes has no effect on that. The
/// lock that it holds is for a child that makes a session of its own, which cannot be asked whether it runs a program.
/// \return the child's id in the parent, 0 in the child, -1 when there can be no such child
pid_t forkThrowingChild()
{
    SharedWithChild<pthread_mutex_t> lHeldByChild;
    pthread_mutex_t* const lpLock = lHeldByChild.get();
    if (NULL != lpLock) {
        initRobustLock(lpLock);
    }
    const pid_t lChild = fork();
    if (0 == lChild && NULL != lpLock) {
        pthread_mutex_lock(lpLock);
        lHeldByChild.keep();
    } else if (0 < lChild) {
        waitUntil([=] {
            return runsProgram(lChild) || hasEnded(lChild) ||
                   (hasOwnSession(lChild) && NULL != lpLock && isReleased(lpLock));
        });
    }
    return lChild;
}

}  // namespace

int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp)
{
    OQ_ENTERED();
    NoCancellation lNoCancellation;
    fflush(stdin);  // not stdout: callers rely on unflushed output staying in the buffer
    int lError = 0;
    pid_t lChild = startProgram(acPath, acArgv, acEnvp, lError);
    if (0 != lError) {
        reap(lChild);
        lChild = forkThrowingChild();
        if (0 == lChild) {
            lNoCancellation.keep();  // a cancelled child would run the exit handlers of its parent
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
