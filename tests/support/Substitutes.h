/// \file
/// The system and companion functions that the test programs define in place of the real ones, each of them once. The
/// libraries are bound to these definitions. In a thread with a Recording, each call is an event and does what the test
/// has planned; without a plan, and in every other thread, it calls the real function:
///
///     substitute::pthread_mutex_lock.fail(EDEADLK, EINTR);
///     const Recording lRecording;
///     OsLockMutex(lMutex);  // throws with the text of EINTR
#ifndef OQ_TESTS_SUBSTITUTES_H
#define OQ_TESTS_SUBSTITUTES_H

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <functional>
#include <memory>

#include "Basics.h"
#include "Events.h"

/// What all substitutes have in common. Constant-initialised: the loader and the sanitizers call some of them before any
/// constructor runs.
class SubstituteBase
{
public:
    /// Forgets the plans of all substitutes.
    static void resetAll();

protected:
    explicit constexpr SubstituteBase(const char* acSymbol) : mSymbol(acSymbol) {}
    ~SubstituteBase() = default;
    void planned();
    void* realFunction();

private:
    virtual void reset() = 0;

    const char* const mSymbol;
    std::atomic<void*> mReal{nullptr};
    SubstituteBase* mNext = nullptr;  // of those that were planned at least once
    bool mIsListed = false;
};

template <class Signature>
class Substitute;
template <class Result, class... Arguments>
class Substitute<Result(Arguments...)> final : public SubstituteBase
{
public:
    /// \param[in] acSymbol  the function's name for the linker
    explicit constexpr Substitute(const char* acSymbol) : SubstituteBase(acSymbol) {}

    /// Runs this in place of the real function.
    void instead(std::function<Result(Arguments...)> aRun)
    {
        mPlan.reset(new std::function<Result(Arguments...)>(std::move(aRun)));
        planned();
    }
    /// Each call returns aResult with errno set to aErrno and does nothing else.
    void fail(Result aResult, int aErrno)
    {
        instead([aResult, aErrno](Arguments...) {
            errno = aErrno;
            return aResult;
        });
    }
    /// As planned.
    Result call(Arguments... aArguments) { return nullptr == mPlan ? real(aArguments...) : (*mPlan)(aArguments...); }
    Result real(Arguments... aArguments)
    {
        return reinterpret_cast<Result (*)(Arguments...)>(realFunction())(aArguments...);
    }

private:
    void reset() override { mPlan.reset(); }

    std::unique_ptr<std::function<Result(Arguments...)>> mPlan;
};

namespace substitute
{
extern Substitute<char*(char*, unsigned int)> ClibStrerror;
extern Substitute<int(clockid_t, timespec*)> clock_gettime;
extern Substitute<int(pthread_cond_t*)> pthread_cond_broadcast;
extern Substitute<int(pthread_cond_t*)> pthread_cond_destroy;
extern Substitute<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init;
extern Substitute<int(pthread_cond_t*)> pthread_cond_signal;
extern Substitute<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait;
extern Substitute<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
extern Substitute<int(pthread_mutex_t*)> pthread_mutex_destroy;
extern Substitute<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Substitute<int(pthread_mutex_t*)> pthread_mutex_lock;
extern Substitute<int(pthread_mutex_t*)> pthread_mutex_trylock;
extern Substitute<int(pthread_mutex_t*)> pthread_mutex_unlock;
}  // namespace substitute

/// While it lives, malloc, and with it operator new, fails in this thread. Has no effect in sanitized builds and under
/// Valgrind, which have allocators of their own.
class WithoutMemory
{
public:
    WithoutMemory();
    ~WithoutMemory() { end(); }
    /// Lets allocations of this thread succeed again.
    static void end();
};

/// Starts without events and without plans.
class RecordedTest : public LeftoverTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

#endif
