// Processes: start a program, wait for a child, handle a signal, check whether a program runs.

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

const int cCannotRun = 127;              // exit code of a child that could not run its program
const useconds_t cLongestPause = 10000;  // microseconds between two checks of a child
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

/// Blocks all signals for the calling thread.
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

    /// The thread's previous signal mask.
    const sigset_t& before() const { return mMask; }

private:
    sigset_t mMask;
};

/// Zero-filled memory that the caller and its children share. get() is null if it could not be mapped.
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
    /// Leaves the memory mapped after destruction.
    void keep() { mMemory = MAP_FAILED; }

private:
    void* mMemory;
};

/// The kernel's record of a signal action. It begins with the handler, unlike the C library's struct sigaction.
struct KernelAction {
    void (*mHandler)(int);
    // cppcheck-suppress unusedStructMember ; only the kernel uses it
    unsigned char mRest[64];  // flags, mask and other fields that depend on the architecture
};

/// Sets the signal actions and the mask with which the child's program will start: handlers become the default action,
/// ignored signals stay ignored. The function makes the system calls directly, because a library that interposes the C
/// library's functions may keep a table of handlers, and the vfork child shares that table with its parent.
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

/// Returns whether a child has ended. A child that has already been reaped counts as ended.
bool hasEnded(pid_t aChild)
{
    siginfo_t lInfo;
    lInfo.si_pid = 0;
    const int lResult = waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOHANG | WNOWAIT);
    return lResult < 0 ? ECHILD == errno : 0 != lInfo.si_pid;
}

/// Returns whether a child runs a program of its own. The function makes a request that Linux always refuses: with
/// EACCES if the child has called execve() since the fork, otherwise with EPERM. For a child in another session the
/// error is always EPERM.
bool runsProgram(pid_t aChild)
{
    setpgid(aChild, cNoGroup);
    return EACCES == errno;
}

bool hasOwnSession(pid_t aChild) { return getsid(aChild) != getsid(0); }

/// Polls until the condition is true. The pauses grow from 50 microseconds to 10 ms.
template <class Condition>
void waitUntil(Condition aCondition)
{
    useconds_t lPause = 50;
    while (!aCondition()) {
        usleep(lPause);
        lPause = std::min(2 * lPause, cLongestPause);
    }
}

/// Starts the program with vfork().
/// \return the child's id, or -1 when no child could be created; arError receives 0, or the error of execve()
///
/// The child shares this frame and all other memory of the caller. It therefore only calls execve(), reports the error,
/// and ends. The parent is suspended meanwhile and later continues on the same stack, so the child must not throw. A
/// handler of the host would change the parent's memory, so all signals stay blocked until the child has no handlers.
pid_t startProgram(const char* acPath, char* const* acArgv, char* const* acEnvp, int& arError)
{
    volatile int lError = 0;
    volatile bool lSharesMemory = false;
    const SharedWithChild<volatile int> lErrorOfCopy;
    const NoSignals lNoSignals;
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork): the comment above says what the child may do.
    const pid_t lChild = vfork();
    if (0 == lChild) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Vfork): the variable is volatile, so the parent reads it.
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
        // The system implements vfork() as fork(), as emulators do, so the child may not have reached execve() yet. If
        // the child has its own session, its program already runs: this code never creates a session.
        waitUntil([=] { return runsProgram(lChild) || hasOwnSession(lChild) || hasEnded(lChild); });
        lError = *lErrorOfCopy.get();
    }
    arError = lError;
    return lChild;
}

void reap(pid_t aChild)
{
    // A handler of the host may already have reaped the child. waitpid() then fails with ECHILD.
    while (waitpid(aChild, NULL, 0) < 0 && EINTR == errno) {
    }
}

/// Initialises a lock that the kernel releases when its owner calls execve() or ends.
void initRobustLock(pthread_mutex_t* apLock)
{
    pthread_mutexattr_t lAttributes;
    pthread_mutexattr_init(&lAttributes);
    pthread_mutexattr_setpshared(&lAttributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&lAttributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(apLock, &lAttributes);
    pthread_mutexattr_destroy(&lAttributes);
}

/// Returns whether the kernel has released a robust lock because its owner called execve() or ended.
bool isReleased(pthread_mutex_t* apLock)
{
    const int lResult = pthread_mutex_trylock(apLock);
    if (EBUSY == lResult) {
        return false;
    }
    pthread_mutex_unlock(apLock);
    return EOWNERDEAD == lResult;
}

/// Creates the child that throws because the program cannot be run. This child has memory of its own. As with vfork(),
/// the parent continues when the child runs a program or ends, and not when the child closes its descriptors. The child
/// holds a lock, because runsProgram() does not work for a child that creates its own session. The kernel releases the
/// lock when the child runs a program or ends.
/// \return the child's id in the parent, 0 in the child, -1 when no child could be created
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
    // cppcheck-suppress fflushOnInputStream ; Linux defines the effect
    // NOLINTNEXTLINE(cert-err33-c): a program starts whether or not this succeeds.
    fflush(stdin);  // stdin, not stdout: callers rely on unflushed output staying in the buffer
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

// The handler takes one argument although SA_SIGINFO is set. It receives the number and ignores the other arguments.
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
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): callers rely on the file. glibc's system() is thread-safe.
    const int lIgnored = system(lCommand);
    static_cast<void>(lIgnored);
    int lRunning = 0;
    try {
        struct stat lOutput;
        ClibStat("/tmp/.vyrsyscmd", &lOutput);
        lRunning = 0 != lOutput.st_size ? 1 : 0;
    } catch (const OQCClibStatFailedEx&) {
        // No result file: report that no process was found.
    }
    if (1 == lRunning) {
        OQ_TRACE("Process '%s' is running", acrName.get());
    } else {
        OQ_TRACE("Process '%s' is not running", acrName.get());
    }
    OQ_LEFT();
    return lRunning;
}
