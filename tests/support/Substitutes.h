/// \file
/// The system and companion functions that the test programs define themselves. The libraries bind to these definitions
/// instead of the real functions. In a thread with a Recording, each call is an event and does what the test planned.
/// Without a plan, and in every other thread, a call only calls the real function:
///
///     substitute::pthread_mutex_lock.fail(EDEADLK, EINTR);
///     const Recording lRecording;
///     OsLockMutex(lMutex);  // throws with the text of EINTR
#ifndef OQ_TESTS_SUBSTITUTES_H
#define OQ_TESTS_SUBSTITUTES_H

#include <dlfcn.h>
#include <errno.h>
#include <netdb.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <atomic>
#include <functional>
#include <memory>

#include "Basics.h"
#include "Events.h"

/// Whether the tests' vfork() shares the memory of its caller. Otherwise it is a fork().
#if defined(__x86_64__) && !OQ_SANITIZED
#define OQ_SHARING_VFORK 1
#else
#define OQ_SHARING_VFORK 0
#endif

/// Base class of all substitutes. They are constant-initialised, because the loader and the sanitizers call some of
/// them before any constructor runs. They have no virtual functions: Clang's sanitizer checks the type of such an object
/// with a descriptor, and a test may have used up all descriptors.
class SubstituteBase
{
public:
    /// Forgets the plans of all substitutes.
    static void resetAll();

    /// Makes calls events, or not, until resetAll(). The calls of most functions are events by default.
    void show() { setShown(true); }
    void hide() { setShown(false); }
    bool isShown() const { return mIsShown; }

protected:
    typedef void (*Reset)(SubstituteBase& arSubstitute);
    constexpr SubstituteBase(const char* acSymbol, bool aIsShown, Reset apReset)
        : mReset(apReset), mSymbol(acSymbol), mIsShownUnasked(aIsShown), mIsShown(aIsShown)
    {
    }
    ~SubstituteBase() = default;
    void planned();
    void* realFunction();
    void resetShown() { mIsShown = mIsShownUnasked; }

private:
    void setShown(bool aIsShown)
    {
        planned();
        mIsShown = aIsShown;
    }

    const Reset mReset;
    const char* const mSymbol;
    const bool mIsShownUnasked;
    bool mIsShown;
    void* mReal = nullptr;
    SubstituteBase* mNext = nullptr;  // list of the substitutes that were planned at least once
    bool mIsListed = false;
};

template <class Signature>
class Substitute;
template <class Result, class... Arguments>
class Substitute<Result(Arguments...)> final : public SubstituteBase
{
public:
    /// \param[in] acSymbol  the function's name for the linker
    /// \param[in] aIsShown  whether its calls are events by default
    constexpr Substitute(const char* acSymbol, bool aIsShown) : SubstituteBase(acSymbol, aIsShown, reset) {}

    /// Plans that calls run this function instead of the real one.
    void instead(std::function<Result(Arguments...)> aRun)
    {
        delete mPlan;
        mPlan = new std::function<Result(Arguments...)>(std::move(aRun));
        planned();
    }
    /// Plans that each call only sets errno to aErrno and returns aResult.
    template <class Value>
    void fail(Value aResult, int aErrno)
    {
        instead([aResult, aErrno](Arguments...) {
            errno = aErrno;
            return static_cast<Result>(aResult);
        });
    }
    /// Plans that the n-th call from now sets errno to aErrno and returns aResult. All other calls are real.
    template <class Value>
    void failOn(unsigned int aNth, Value aResult, int aErrno)
    {
        auto lCall = std::make_shared<std::atomic<unsigned int>>(0);
        instead([this, lCall, aNth, aResult, aErrno](Arguments... aArguments) {
            if (++*lCall != aNth) {
                return real(aArguments...);
            }
            errno = aErrno;
            return static_cast<Result>(aResult);
        });
    }
    bool isPlanned() const { return nullptr != mPlan; }
    /// Runs the plan, or the real function if there is no plan.
    Result call(Arguments... aArguments) { return nullptr == mPlan ? real(aArguments...) : (*mPlan)(aArguments...); }
    UNWATCHED Result real(Arguments... aArguments)
    {
        return reinterpret_cast<Result (*)(Arguments...)>(realFunction())(aArguments...);
    }

private:
    static void reset(SubstituteBase& arSubstitute)
    {
        Substitute& lrSelf = static_cast<Substitute&>(arSubstitute);
        delete lrSelf.mPlan;
        lrSelf.mPlan = nullptr;
        lrSelf.resetShown();
    }

    // Never destroyed, because functions such as fflush() are still called when the program exits.
    std::function<Result(Arguments...)>* mPlan = nullptr;
};

namespace substitute
{
extern Substitute<int(int, void*, unsigned int)> ClibBlockRead, ClibRead;
extern Substitute<int(int)> ClibClose, close;
extern Substitute<unsigned int(char*, unsigned int, unsigned int, FILE*)> ClibFread;
extern Substitute<int(char*, unsigned int)> ClibGethostname;
extern Substitute<void(long&, unsigned short&)> ClibGetTime;
extern Substitute<void*(void*, const void*, unsigned int)> ClibMemcpy;
extern Substitute<void*(void*, int, unsigned int)> ClibMemset;
extern Substitute<int(const char*, const char*, unsigned int)> ClibnStrcmp;
extern Substitute<unsigned int(unsigned int)> ClibNtohl;
extern Substitute<int(const char*, int, int)> ClibOpen;
extern Substitute<void(unsigned long)> ClibSleepMS;
extern Substitute<int(char*, const char*)> ClibSprintf;
extern Substitute<int(const char*, struct stat*)> ClibStat, stat;
extern Substitute<char*(char*, const char*)> ClibStrcpy;
extern Substitute<char*(char*, unsigned int)> ClibStrerror;
extern Substitute<unsigned int(const char*)> ClibStrlen;
extern Substitute<int(const char*)> ClibUnlink, system, unlink;
extern Substitute<int(int, const void*, unsigned int)> ClibWrite;
extern Substitute<int(clockid_t, timespec*)> clock_gettime;
extern Substitute<int(clockid_t, int, const timespec*, timespec*)> clock_nanosleep;
extern Substitute<int(const char*, char* const*, char* const*)> execve;
extern Substitute<int(FILE*)> fflush, pclose;
extern Substitute<FILE*(const char*, const char*)> fopen, popen;
extern Substitute<pid_t()> fork, vfork;
extern Substitute<int(const OQCString&, OQCString&)> getFirstLineFromFile;
extern Substitute<hostent*(const char*)> gethostbyname;
extern Substitute<int(char*, size_t)> gethostname;
extern Substitute<int(pid_t, int)> kill;
extern Substitute<int(int, int, off_t)> lockf;
extern Substitute<int(const char*, mode_t, dev_t)> mknod;
#if !OQ_SANITIZED
extern Substitute<void*(void*, size_t, int, int, int, off_t)> mmap;
#endif
extern Substitute<int(const char*, int, mode_t)> open;
extern Substitute<int(pthread_attr_t*)> pthread_attr_destroy, pthread_attr_init;
extern Substitute<int(pthread_attr_t*, int)> pthread_attr_setdetachstate;
extern Substitute<int(pthread_attr_t*, size_t)> pthread_attr_setstacksize;
extern Substitute<int(pthread_t)> pthread_cancel;
extern Substitute<int(pthread_cond_t*)> pthread_cond_broadcast, pthread_cond_destroy, pthread_cond_signal;
extern Substitute<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init;
extern Substitute<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait;
extern Substitute<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
extern Substitute<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
extern Substitute<int(pthread_t, void**)> pthread_join;
extern Substitute<int(pthread_mutex_t*)> pthread_mutex_destroy, pthread_mutex_lock, pthread_mutex_trylock,
    pthread_mutex_unlock;
extern Substitute<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Substitute<ssize_t(int, void*, size_t)> read;
extern Substitute<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
extern Substitute<int(pid_t, pid_t)> setpgid;
extern Substitute<void*(int, const void*, int)> shmat;
extern Substitute<int(int, int, shmid_ds*)> shmctl;
extern Substitute<int(const void*)> shmdt;
extern Substitute<int(key_t, size_t, int)> shmget;
extern Substitute<int(int, const struct sigaction*, struct sigaction*)> sigaction;
extern Substitute<long(long, long, long, long, long, long, long)> syscall;
extern Substitute<int(idtype_t, id_t, siginfo_t*, int)> waitid;
extern Substitute<int(pid_t, int*, int)> waitpid;
extern Substitute<ssize_t(int, const void*, size_t)> write;
/// The counter of a Pointer. After show(), its four operations are events. A plan also runs in its constructor.
extern Substitute<void(unsigned int)> counter;
}  // namespace substitute

/// While the object exists, allocation number aFirst of this thread fails, by malloc() or operator new. The numbers
/// count from 1; with 0 none fails. If aWithAllLater is set, all later allocations also fail. Has no effect if
/// isPossible() returns false.
class FailingMemory
{
public:
    explicit FailingMemory(unsigned int aFirst = 1, bool aWithAllLater = true);
    ~FailingMemory() { end(); }
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;
    /// Lets allocations of this thread succeed again.
    static void end();
    /// Returns false in sanitizer builds and under Valgrind, which replace the allocator.
    static bool isPossible();
    /// Count the blocks that this thread has requested, and freed, since the last object was constructed.
    static unsigned int taken();
    static unsigned int freed();
};
/// Records whether the memory at this address is freed from now on. aIndex is 0 to 3.
/// isFreed() always returns false if FailingMemory::isPossible() does.
void followMemory(unsigned int aIndex, const void* acMemory);
bool isFreed(unsigned int aIndex);

/// A test that starts without events and without plans.
class RecordedTest : public LeftoverTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
