/// \file
/// Guards: optional objects. Each owns a resource and releases it once.
#ifndef OQ_GUARDS_H
#define OQ_GUARDS_H
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

#include "OQLinux.h"
#include "OQLog.h"

/// \defgroup guards Guards
/// Objects that own a resource and release it once. OQLinux.h does not include `OQGuards.h`.
///
/// A guard can be moved but not copied. A guard that has been moved from is empty: only destroy it or assign to it. A
/// constructor that throws, as std::bad_alloc, leaves nothing behind. Destructors throw nothing, preserve errno and are
/// no cancellation points. They log an exception as an error line. Unless stated otherwise, functions log only what the
/// operations log, throw the text of errno, and are for one thread at a time. After fork(), end the child with _exit().
/// @{

/// The longest time to wait, by the monotonic clock: any std::chrono duration. More than 20 years count as 20 years.
typedef std::chrono::duration<double> OQLimit;

/// \cond INTERNAL
namespace oqguards
{
const char* const cFile = "linux/OQGuards";
/// Runs a part of a destructor without cancellation: a cancellation that leaves a destructor ends the process.
template <class Action>
void runQuietly(Action aRun) noexcept
{
    const int lErrno = errno;
    int lState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
    try {
        aRun();
    } catch (const OQCException& acrEx) {
        OQ_LOG(OQLL_Error, "-E-", "~Guard", cFile, "Failed with code %u. Error: '%s'", acrEx.code(), acrEx.what());
    } catch (const std::exception& acrEx) {
        OQ_LOG(OQLL_Error, "-E-", "~Guard", cFile, "Failed. Error: '%s'", acrEx.what());
    } catch (...) {
        OQ_LOG(OQLL_Error, "-E-", "~Guard", cFile, "Failed with an exception of another kind");
    }
    pthread_setcancelstate(lState, NULL);
    errno = lErrno;
}
template <class T, void (*Close)(T&)>
struct Closer {  // closes and frees the resource of a guard
    void operator()(T* apHeld) const
    {
        runQuietly([apHeld] { Close(*std::unique_ptr<T>(apHeld)); });
    }
};
template <class Leaf>
void check(int aError)  // throws with the text of an error, unless the error is 0
{
    if (0 != aError) {
        char lText[256];
        errno = aError;
        const char* const lpText = ClibStrerror(lText, sizeof lText);  // before the throw, which may change errno
        throw Leaf(lpText, OQErrorCode<Leaf>::value);
    }
}
/// Returns the monotonic time at the end of a limit. No sum overflows.
inline OQLimit endOf(OQLimit aLimit)
{
    const OQLimit lNow = std::chrono::steady_clock::now().time_since_epoch();
    return lNow + std::max(OQLimit(0), std::min<OQLimit>(aLimit, std::chrono::hours(20 * 365 * 24)));
}
/// Tests a condition every millisecond. A cancellation point. \return whether it held
inline bool pollFor(OQLimit aLimit, const std::function<bool()>& acrTest)
{
    bool lHolds = acrTest();
    for (const OQLimit lEnd = endOf(aLimit); !lHolds && endOf(OQLimit(0)) < lEnd; lHolds = acrTest()) {
        ClibSleepMS(1);
    }
    return lHolds;
}
struct Running {
    std::function<void()> mRun, mStop;
    std::exception_ptr mFailure;
    unsigned long mThread;
};
struct Mailbox {
    OQShmDesc mDesc;
    OQEConnectionMode mSide;
};
const int cLost = -1000;  // the status of a child that other code has reaped
struct Child {
    bool ends(int aOptions)
    {
        int lStatus = 0;
        const long lResult = mPid < 0 ? -1 : TEMP_FAILURE_RETRY(waitpid(mPid, &lStatus, aOptions));
        mStatus = lResult <= 0 ? mStatus : WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
        mPid = 0 == lResult ? mPid : -1;
        return mPid < 0;
    }
    pid_t mPid;
    int mStatus;
    unsigned char mAtEnd;
};
}  // namespace oqguards
/// \endcond

/// A mutex.
struct OQCMutex {
    OQCMutex() : mHeld(new pthread_mutex_t()) { OsInitMutex(*mHeld); }  ///< \throws OQCMutexInitFailedEx 333
    pthread_mutex_t& get() { return *mHeld; }                           ///< \return the mutex, for any thread
private:
    std::unique_ptr<pthread_mutex_t, oqguards::Closer<pthread_mutex_t, OsDestroyMutex>> mHeld;
};

/// A locked mutex. A destructor that cannot unlock it is a broken precondition, "0 == pthread_mutex_unlock(apMutex)".
struct OQCMutexLock {
    /// Locks a mutex. \param arMutex lives longer than the lock \throws OQCMutexLockFailedEx 335
    explicit OQCMutexLock(OQCMutex& arMutex)
    {
        OsLockMutex(arMutex.get());
        mHeld.reset(&arMutex.get());
    }
    /// Unlocks early. The second time it does nothing. \throws OQCMutexUnlockFailedEx 336; the mutex then stays locked
    void unlock() { mHeld ? OsUnlockMutex(*mHeld.release()) : void(); }

private:
    friend struct OQCTryLock;
    friend struct OQCCondition;
    OQCMutexLock() {}
    static void unlockOrEnd(pthread_mutex_t* apMutex)
    {
        oqguards::runQuietly([apMutex] {
            const bool lIsUnlocked = 0 == pthread_mutex_unlock(apMutex);
            OQ_ASSERT_AS(lIsUnlocked, "0 == pthread_mutex_unlock(apMutex)", "~OQCMutexLock", oqguards::cFile);
        });
    }
    std::unique_ptr<pthread_mutex_t, void (*)(pthread_mutex_t*)> mHeld{NULL, unlockOrEnd};
};

/// A lock, if the mutex was free: `if (OQCTryLock lLock{lMutex}) { ... }`.
struct OQCTryLock : OQCMutexLock {
    /// Locks a mutex if no thread holds it. Throws nothing. \param arMutex lives longer than the lock
    explicit OQCTryLock(OQCMutex& arMutex)
    {
        mHeld.reset(0 == pthread_mutex_trylock(&arMutex.get()) ? &arMutex.get() : NULL);
    }
    explicit operator bool() const { return NULL != mHeld; }  ///< \return whether this object holds the mutex
};

/// A condition variable for any number of threads. Its time limits follow the monotonic clock.
struct OQCCondition {
    OQCCondition() : mHeld(new pthread_cond_t())  ///< \throws OQCCondInitFailedEx 337
    {
        pthread_condattr_t lAttributes;
        pthread_condattr_init(&lAttributes);
        pthread_condattr_setclock(&lAttributes, CLOCK_MONOTONIC);
        oqguards::check<OQCCondInitFailedEx>(pthread_cond_init(mHeld.get(), &lAttributes));
    }
    void signal() { OsSignal(*mHeld); }  ///< Wakes one waiter, if there is one. \throws OQCCondSignalFailedEx 340
    /// Waits until a predicate holds. A cancellation point. \throws OQCCondWaitFailedEx 339; what the predicate throws
    /// \param arLock must hold the mutex (precondition "mHeld"), and holds it afterwards \param acrTest the predicate
    void wait(OQCMutexLock& arLock, const std::function<bool()>& acrTest) { waitFor(arLock, OQLimit::max(), acrTest); }
    /// Like wait(), for at most \p aLimit. \param arLock,aLimit,acrTest as above \return whether the predicate held
    bool waitFor(OQCMutexLock& arLock, OQLimit aLimit, const std::function<bool()>& acrTest)
    {
        OQ_ASSERT_AS(arLock.mHeld, "mHeld", __func__, oqguards::cFile);
        const long long lEnd = static_cast<long long>(oqguards::endOf(aLimit).count() * 1e9);
        const timespec lDeadline = {static_cast<time_t>(lEnd / 1000000000), static_cast<long>(lEnd % 1000000000)};
        int lError = 0;
        bool lHolds = acrTest();
        for (; !lHolds && ETIMEDOUT != lError; lHolds = acrTest()) {
            lError = pthread_cond_timedwait(mHeld.get(), arLock.mHeld.get(), &lDeadline);
            oqguards::check<OQCCondWaitFailedEx>(ETIMEDOUT == lError ? 0 : lError);
        }
        return lHolds;
    }

private:
    std::unique_ptr<pthread_cond_t, oqguards::Closer<pthread_cond_t, OsDestroyConditional>> mHeld;
};

/// A thread. The destructor joins it and logs an exception not yet rethrown. The thread itself must not call it.
struct OQCThread {
    /// Starts a thread. \throws OQCThreadStartFailedEx 342; what copying the parameters throws
    /// \param aRun runs in the thread \param aStop makes aRun return; called by the destructor before it joins
    explicit OQCThread(
        std::function<void()> aRun, std::function<void()> aStop = [] {})
    {
        std::unique_ptr<oqguards::Running> lState(new oqguards::Running{std::move(aRun), std::move(aStop), nullptr, 0});
        OsStartThread(lState->mThread, lState.get(), [](void* apState) -> void* {
            try {
                static_cast<oqguards::Running*>(apState)->mRun();
            } catch (...) {
                static_cast<oqguards::Running*>(apState)->mFailure = std::current_exception();
                if (!static_cast<oqguards::Running*>(apState)->mFailure) {
                    throw;  // no C++ exception: the thread is cancelled or ends itself
                }
            }
            return NULL;
        });
        mHeld.reset(lState.release());
    }
    /// Waits until the thread has ended. The second time it does nothing. A cancellation point.
    /// \throws OQCThreadWaitForExitFailedEx 344, for example in the thread itself; what aRun has thrown
    void join()
    {
        if (mHeld) {
            OsWaitForExit(mHeld->mThread);
            rethrow(std::unique_ptr<oqguards::Running>(mHeld.release())->mFailure);
        }
    }

private:
    static void rethrow(const std::exception_ptr& acrEx) { acrEx ? std::rethrow_exception(acrEx) : void(); }
    static void stopAndJoin(oqguards::Running& arState)
    {
        oqguards::runQuietly([&arState] { arState.mStop(); });
        OsWaitForExit(arState.mThread);
        rethrow(arState.mFailure);
    }
    std::unique_ptr<oqguards::Running, oqguards::Closer<oqguards::Running, stopAndJoin>> mHeld;
};

/// A descriptor of a FIFO. The destructor closes it. An open by path sets O_CLOEXEC, so no program inherits it.
struct OQCPipe {
    OQCPipe() {}  ///< Holds nothing: the descriptor is -1.
    /// Takes over the result of an open(). \param aFile below 0 is a failure \throws OQCOpenFailedEx 326
    explicit OQCPipe(int aFile)
    try : mHeld(new int(aFile)) {
        oqguards::check<OQCOpenFailedEx>(0 <= aFile ? 0 : 0 != errno ? errno : EBADF);
    } catch (const std::bad_alloc&) {
        oqguards::runQuietly([aFile] { ClibClose(aFile); });
    }
    /// Opens a FIFO. A cancellation point. Logs "Opening %s" at trace level.
    /// \param acrPath its path \param aMode 1 to 4, see OQEFileMode \param aState whether reads and writes block
    /// \throws OQCInvalidEx 6 for another mode; OQCOpenFailedEx 326, also when a signal interrupts a wait for a writer
    OQCPipe(const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState) : mHeld(new int(-1))
    {
        oqguards::check<OQCInvalidEx>(OQFM_Mode1 <= aMode && aMode <= OQFM_Append ? 0 : EINVAL);
        OQ_LOG(OQLL_Trace, "-T-", "OQCPipe", oqguards::cFile, "Opening %s", acrPath.get());
        const int lFlags = OQPS_NonBlocking == aState ? O_DSYNC | O_CLOEXEC | O_NONBLOCK : O_DSYNC | O_CLOEXEC;
        *mHeld = ClibOpen(acrPath.get(), lFlags | (OQFM_Append == aMode ? O_RDONLY | O_APPEND : O_RDWR), 0);
        oqguards::check<OQCOpenFailedEx>(*mHeld < 0 ? errno : 0);
    }
    void close() noexcept { mHeld.reset(); }  ///< Closes early. The second time it does nothing. No cancellation point.
    int get() const { return mHeld ? *mHeld : -1; }  ///< \return the descriptor, or -1
    /// Reads once, and again after signals. A cancellation point. \throws OQCReadFailedEx 328
    /// \param apBuffer receives the bytes \param aSize of the buffer
    /// \return bytes read; 0 at end of data (errno is 0), or if a non-blocking pipe holds no data (errno is EAGAIN)
    unsigned int read(void* apBuffer, unsigned int aSize)
    {
        unsigned int lDone = 0;
        do {
            errno = 0;  // OsNamedPipeRead() reports a failure as 0 bytes, but keeps errno
            OsNamedPipeRead(get(), static_cast<unsigned char*>(apBuffer), aSize, lDone);
        } while (0 == lDone && EINTR == errno);
        oqguards::check<OQCReadFailedEx>(0 < lDone || EAGAIN == errno ? 0 : errno);
        return lDone;
    }
    /// Writes, if necessary in several parts. A cancellation point. \param acData the bytes \param aSize their number
    /// \return bytes written; fewer than aSize after a failure, for example with errno EAGAIN when the pipe is full
    [[gnu::warn_unused_result]] unsigned int write(const void* acData, unsigned int aSize)
    {
        const unsigned char* lpNext = static_cast<const unsigned char*>(acData);
        const unsigned char* const lpEnd = lpNext + aSize;
        for (unsigned int lDone = 1; lpNext < lpEnd && (0 < lDone || EINTR == errno); lpNext += lDone) {
            lDone = errno = 0;
            OsNamedPipeWrite(get(), lpNext, static_cast<unsigned int>(lpEnd - lpNext), lDone);
        }
        return aSize - static_cast<unsigned int>(lpEnd - lpNext);
    }

private:
    static void closePipe(int& arPipe) { arPipe < 0 ? void() : OsNamedPipeClose(arPipe, OQCM_Client); }
    std::unique_ptr<int, oqguards::Closer<int, closePipe>> mHeld;
};

/// One side of a mailbox (see Shared memory). The destructor detaches the segment. A server's also removes it.
struct OQCMailbox {
    /// Opens a segment. A server first removes a segment that no process has attached, and makes a new one. If servers
    /// start at the same moment, at most one succeeds. \param aKey above 0 \param aSize 7 to 65535 bytes
    /// \param aSide which side \throws OQCInvalidEx 6 for other parameters; OQCOpenFailedEx 326, with the text of EBUSY
    /// if a process has the server's old segment attached; what else OsSharedMemoryOpen() throws
    OQCMailbox(key_t aKey, unsigned int aSize, OQEConnectionMode aSide)
    {
        oqguards::check<OQCInvalidEx>(0 < aKey && cHead < aSize && aSize < 65536 && aSide <= OQCM_Server ? 0 : EINVAL);
        std::unique_ptr<oqguards::Mailbox> lOpen(new oqguards::Mailbox{{aKey, uint16_t(aSize), -1, NULL}, aSide});
        int lId = -1;
        std::unique_ptr<int, void (*)(int*)> lNew(&lId, [](int* apId) { shmctl(*apId, IPC_RMID, NULL); });
        std::unique_ptr<const void, int (*)(const void*)> lClaim(NULL, shmdt);
        if (OQCM_Server == aSide) {
            const int lOld = shmget(aKey, 0, 0);
            if (0 <= lOld) {
                lClaim = attachAlone(lOld);
                oqguards::check<OQCOpenFailedEx>(shmctl(lOld, IPC_RMID, NULL) < 0 ? errno : 0);
            }
            lId = shmget(aKey, aSize, IPC_CREAT | IPC_EXCL | 0666);
            oqguards::check<OQCOpenFailedEx>(lId < 0 ? errno : 0);
            lClaim = attachAlone(lId);
        }
        OsSharedMemoryOpen(lOpen->mDesc, aSide);
        static_cast<void>(lNew.release());
        mHeld.reset(lOpen.release());
    }
    const OQShmDesc& get() const { return mHeld->mDesc; }             ///< \return the segment, for the functions
    unsigned int capacity() const { return get().shm_size - cHead; }  ///< \return bytes of the longest message
    /// Places a message. Waits up to 3 seconds for the slot to be free. A cancellation point.
    /// \param acData the bytes \param aLength their number \throws OQCInvalidEx 6 for more than capacity()
    /// \return whether it was placed; false if a side is not ready or the slot stays occupied
    [[gnu::warn_unused_result]] bool write(const void* acData, unsigned int aLength)
    {
        oqguards::check<OQCInvalidEx>(aLength <= capacity() ? 0 : EMSGSIZE);
        unsigned int lWritten = aLength + 1;  // stays so if the layer cancels the write
        try {
            OsSharedMemoryWrite(mHeld->mDesc, static_cast<const unsigned char*>(acData), aLength, lWritten);
        } catch (const OQCTimeOutEx&) {
        }
        return aLength == lWritten;
    }
    /// Takes a message. A cancellation point. \return whether there was one \param apBuffer receives it
    /// \param aSize of the buffer \param arLength receives the length of a message \param aLimit how long to wait
    /// \throws OQCInvalidEx 6 for a message longer than the buffer or capacity(); the message stays
    [[gnu::warn_unused_result]] bool receive(void* apBuffer, unsigned int aSize, unsigned int& arLength, OQLimit aLimit)
    {
        const OQSSharedMemoryHeader* const lpHeader = get().shm_addr;
        if (!oqguards::pollFor(aLimit, [=] { return 0 != __atomic_load_n(&lpHeader->data_ready, __ATOMIC_ACQUIRE); })) {
            return false;
        }
        const unsigned int lRoom = std::min(aSize, capacity());  // the other side may use a larger size
        const unsigned int lLength = __atomic_load_n(&lpHeader->data_length, __ATOMIC_RELAXED);
        oqguards::check<OQCInvalidEx>(lLength <= lRoom ? 0 : EMSGSIZE);
        OsSharedMemoryRead(mHeld->mDesc, static_cast<unsigned char*>(apBuffer), lRoom, arLength);
        return true;
    }

private:
    /// Attaches a segment. Servers attach before they count the attachments, so at most one of them counts 1.
    static std::unique_ptr<const void, int (*)(const void*)> attachAlone(int aId)
    {
        std::unique_ptr<const void, int (*)(const void*)> lClaim(shmat(aId, NULL, SHM_RDONLY), shmdt);
        shmid_ds lState = {};
        const bool lIsAttached = reinterpret_cast<const void*>(-1) != lClaim.get();
        oqguards::check<OQCOpenFailedEx>(lIsAttached && 0 == shmctl(aId, IPC_STAT, &lState) ? 0 : errno);
        oqguards::check<OQCOpenFailedEx>(1 == lState.shm_nattch && 0 == (lState.shm_perm.mode & SHM_DEST) ? 0 : EBUSY);
        return lClaim;
    }
    static void closeMailbox(oqguards::Mailbox& arOpen) { OsSharedMemoryClose(arOpen.mDesc, arOpen.mSide); }
    enum : unsigned int { cHead = sizeof(OQSSharedMemoryHeader) };
    std::unique_ptr<oqguards::Mailbox, oqguards::Closer<oqguards::Mailbox, closeMailbox>> mHeld;
};

/// A lock on a file, as by OsLockFile(). The destructor releases every lock that this process has on the file.
struct OQCFileLock {
    /// Locks a file from the current offset. Only the last attempt logs an error line. A cancellation point.
    /// \param aFile must stay open \param aLimit how long to wait for other processes \throws OQCFileLockFailedEx 330
    explicit OQCFileLock(int aFile, OQLimit aLimit = OQLimit(0))
    {
        std::unique_ptr<int> lFile(new int(aFile));
        oqguards::pollFor(aLimit, [=] { return 0 == lockf(aFile, F_TLOCK, 0) || EAGAIN != errno; });
        OsLockFile(aFile);  // locked already, or throws
        mHeld.reset(lFile.release());
    }

private:
    static void unlock(int& arFile)
    {
        struct flock lAll = {F_UNLCK, SEEK_SET, 0, 0, 0};
        oqguards::check<OQCFileUnLockFailedEx>(fcntl(arFile, F_SETLK, &lAll) < 0 ? errno : 0);
    }
    std::unique_ptr<int, oqguards::Closer<int, unlock>> mHeld;
};

/// What the destructor of an OQCProcess does with a child that has not been reaped.
enum OQEAtEnd : unsigned char {
    OQAE_Wait = 1,  ///< waits until the child ends
    OQAE_Kill = 2,  ///< ends it with SIGKILL and waits
    OQAE_Leave = 3  ///< leaves it to the caller, who waits for id()
};

/// A child process. If other code reaps it, as a handler for SIGCHLD may, its status is lost.
struct OQCProcess {
    /// Starts a program. If it cannot be run, the constructor throws in this process, and no copy of this process runs.
    /// The program starts with no handler and no blocked signal. Logs "Starting %s" at trace level.
    /// \param acPath,acArgv,acEnvp as for ProcessCreate() \param aAtEnd see OQEAtEnd
    /// \throws OQCProcessCreationFailedEx 345
    OQCProcess(const char* acPath, char* const* acArgv, char* const* acEnvp, OQEAtEnd aAtEnd)
        : mHeld(new oqguards::Child{-1, oqguards::cLost, aAtEnd})
    {
        OQ_LOG(OQLL_Trace, "-T-", "OQCProcess", oqguards::cFile, "Starting %s", acPath);
        const sigset_t lNone = {};
        posix_spawnattr_t lAttributes;
        posix_spawnattr_init(&lAttributes);
        posix_spawnattr_setsigmask(&lAttributes, &lNone);
        posix_spawnattr_setflags(&lAttributes, POSIX_SPAWN_SETSIGMASK);
        const int lError = posix_spawn(&mHeld->mPid, acPath, NULL, &lAttributes, acArgv, acEnvp);
        oqguards::check<OQCProcessCreationFailedEx>(lError);
    }
    /// Waits until the child has ended. Continues after signals. A cancellation point.
    /// \return the exit code, 0 to 255, or minus a signal \throws OQCProcessWaitFailedEx 345 if other code reaped it
    int wait()
    {
        mHeld->ends(0);
        oqguards::check<OQCProcessWaitFailedEx>(oqguards::cLost == mHeld->mStatus ? ECHILD : 0);
        return mHeld->mStatus;
    }
    /// Waits for at most \p aLimit. A cancellation point. \param aLimit the bound \return whether the child has ended
    bool waitFor(OQLimit aLimit)
    {
        return oqguards::pollFor(aLimit, [this] { return mHeld->ends(WNOHANG); });
    }
    /// Sends \p aSignal, but never to a later process of that number. \param aSignal any \return whether it was sent
    bool kill(int aSignal = SIGKILL) { return !mHeld->ends(WNOHANG) && 0 == OsKill(mHeld->mPid, aSignal); }
    int id() const { return mHeld ? mHeld->mPid : -1; }  ///< \return the process id; -1 once its end has been noticed
private:
    static void end(oqguards::Child& arChild)
    {
        if (OQAE_Leave != arChild.mAtEnd && !arChild.ends(OQAE_Kill == arChild.mAtEnd ? WNOHANG : 0)) {
            OsKill(arChild.mPid, SIGKILL);
            arChild.ends(0);
        }
    }
    std::unique_ptr<oqguards::Child, oqguards::Closer<oqguards::Child, end>> mHeld;
};

/// Blocks signals for the calling thread; the destructor restores the mask. A child of ProcessCreate() inherits the
/// mask, a program of an OQCProcess does not. Destroy the blocks of a thread in that thread, the last one first.
struct OQCSignalBlock {
    /// Blocks more signals. \param aSignals for example {SIGINT, SIGTERM}
    explicit OQCSignalBlock(std::initializer_list<int> aSignals) : mHeld(new sigset_t())
    {
        sigset_t lSignals = {};
        for (const int lSignal : aSignals) {
            sigaddset(&lSignals, lSignal);
        }
        pthread_sigmask(SIG_BLOCK, &lSignals, mHeld.get());
    }

private:
    static void restore(sigset_t& arMask) { pthread_sigmask(SIG_SETMASK, &arMask, NULL); }
    std::unique_ptr<sigset_t, oqguards::Closer<sigset_t, restore>> mHeld;
};
/// @}
#endif
