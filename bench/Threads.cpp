// Mutexes, condition variables and threads.

#include <time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Bench.h"

#ifdef BENCH_APR
#include <apr_thread_cond.h>
#include <apr_thread_mutex.h>
#include <apr_thread_proc.h>
#endif
#ifdef BENCH_BOOST
#include <boost/thread.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_POCO
#include <Poco/Condition.h>
#include <Poco/Mutex.h>
#include <Poco/Thread.h>
#endif

namespace
{

const unsigned int cSeconds = 5;   // longest timed wait; never reached
const size_t cStackSize = 524288;  // bytes, as in the layer
const int cMostThreads = 8;        // contending for one mutex

// A kit is a mutex with two condition variables, as one library offers them.

struct Raw {
    Raw() : mMutex(), mConditions()
    {
        pthread_mutex_init(&mMutex, nullptr);
        pthread_cond_init(&mConditions[0], nullptr);
        pthread_cond_init(&mConditions[1], nullptr);
    }
    ~Raw()
    {
        pthread_cond_destroy(&mConditions[1]);
        pthread_cond_destroy(&mConditions[0]);
        pthread_mutex_destroy(&mMutex);
    }
    void lock() { check(0 == pthread_mutex_lock(&mMutex), "pthread_mutex_lock"); }
    void unlock() { check(0 == pthread_mutex_unlock(&mMutex), "pthread_mutex_unlock"); }
    void signal(int aWhich) { check(0 == pthread_cond_signal(&mConditions[aWhich]), "pthread_cond_signal"); }
    void wait(int aWhich) { check(0 == pthread_cond_wait(&mConditions[aWhich], &mMutex), "pthread_cond_wait"); }
    void timedWait(int aWhich)
    {
        timespec lDeadline;
        clock_gettime(CLOCK_REALTIME, &lDeadline);
        lDeadline.tv_sec += cSeconds;
        check(0 == pthread_cond_timedwait(&mConditions[aWhich], &mMutex, &lDeadline), "pthread_cond_timedwait");
    }

    pthread_mutex_t mMutex;
    pthread_cond_t mConditions[2];
};

struct Layer {
    Layer() : mMutex(), mConditions()
    {
        OsInitMutex(mMutex);
        OsInitConditional(mConditions[0]);
        OsInitConditional(mConditions[1]);
    }
    ~Layer()
    {
        OsDestroyConditional(mConditions[1]);
        OsDestroyConditional(mConditions[0]);
        OsDestroyMutex(mMutex);
    }
    void lock() { OsLockMutex(mMutex); }
    void unlock() { OsUnlockMutex(mMutex); }
    void signal(int aWhich) { OsSignal(mConditions[aWhich]); }
    void wait(int aWhich) { OsWait(mConditions[aWhich], mMutex); }
    void timedWait(int aWhich) { OsConditionalTimedWait(mConditions[aWhich], mMutex, cSeconds); }

    pthread_mutex_t mMutex;
    pthread_cond_t mConditions[2];
};

struct Std {
    void lock() { mMutex.lock(); }
    void unlock() { mMutex.unlock(); }
    void signal(int aWhich) { mConditions[aWhich].notify_one(); }
    void wait(int aWhich)
    {
        std::unique_lock<std::mutex> lLock(mMutex, std::adopt_lock);
        mConditions[aWhich].wait(lLock);
        lLock.release();
    }
    void timedWait(int aWhich)
    {
        std::unique_lock<std::mutex> lLock(mMutex, std::adopt_lock);
        const std::cv_status lStatus = mConditions[aWhich].wait_for(lLock, std::chrono::seconds(cSeconds));
        check(std::cv_status::no_timeout == lStatus, "wait_for");
        lLock.release();
    }

    std::mutex mMutex;
    std::condition_variable mConditions[2];
};

#ifdef BENCH_BOOST
struct Boost {
    void lock() { mMutex.lock(); }
    void unlock() { mMutex.unlock(); }
    void signal(int aWhich) { mConditions[aWhich].notify_one(); }
    void wait(int aWhich)
    {
        boost::unique_lock<boost::mutex> lLock(mMutex, boost::adopt_lock);
        mConditions[aWhich].wait(lLock);
        lLock.release();
    }
    void timedWait(int aWhich)
    {
        boost::unique_lock<boost::mutex> lLock(mMutex, boost::adopt_lock);
        const boost::cv_status lStatus = mConditions[aWhich].wait_for(lLock, boost::chrono::seconds(cSeconds));
        check(boost::cv_status::no_timeout == lStatus, "wait_for");
        lLock.release();
    }

    boost::mutex mMutex;
    boost::condition_variable mConditions[2];
};
#endif

#ifdef BENCH_POCO
struct Poco_ {
    void lock() { mMutex.lock(); }
    void unlock() { mMutex.unlock(); }
    void signal(int aWhich) { mConditions[aWhich].signal(); }
    void wait(int aWhich) { mConditions[aWhich].wait(mMutex); }
    void timedWait(int aWhich) { check(mConditions[aWhich].tryWait(mMutex, cSeconds * 1000), "tryWait"); }

    Poco::FastMutex mMutex;
    Poco::Condition mConditions[2];
};
#endif

#ifdef BENCH_APR
struct Apr {
    Apr() : mPool(), mMutex(), mConditions()
    {
        apr_pool_create(&mPool, nullptr);
        apr_thread_mutex_create(&mMutex, APR_THREAD_MUTEX_DEFAULT, mPool);
        apr_thread_cond_create(&mConditions[0], mPool);
        apr_thread_cond_create(&mConditions[1], mPool);
    }
    ~Apr() { apr_pool_destroy(mPool); }
    void lock() { check(APR_SUCCESS == apr_thread_mutex_lock(mMutex), "apr_thread_mutex_lock"); }
    void unlock() { check(APR_SUCCESS == apr_thread_mutex_unlock(mMutex), "apr_thread_mutex_unlock"); }
    void signal(int aWhich) { check(APR_SUCCESS == apr_thread_cond_signal(mConditions[aWhich]), "cond_signal"); }
    void wait(int aWhich) { check(APR_SUCCESS == apr_thread_cond_wait(mConditions[aWhich], mMutex), "cond_wait"); }
    void timedWait(int aWhich)
    {
        const apr_interval_time_t lTime = apr_time_from_sec(apr_interval_time_t(cSeconds));
        check(APR_SUCCESS == apr_thread_cond_timedwait(mConditions[aWhich], mMutex, lTime), "cond_timedwait");
    }

    apr_pool_t* mPool;
    apr_thread_mutex_t* mMutex;
    apr_thread_cond_t* mConditions[2];
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    Glib() : mMutex(), mConditions()
    {
        g_mutex_init(&mMutex);
        g_cond_init(&mConditions[0]);
        g_cond_init(&mConditions[1]);
    }
    ~Glib()
    {
        g_cond_clear(&mConditions[1]);
        g_cond_clear(&mConditions[0]);
        g_mutex_clear(&mMutex);
    }
    void lock() { g_mutex_lock(&mMutex); }
    void unlock() { g_mutex_unlock(&mMutex); }
    void signal(int aWhich) { g_cond_signal(&mConditions[aWhich]); }
    void wait(int aWhich) { g_cond_wait(&mConditions[aWhich], &mMutex); }
    void timedWait(int aWhich)
    {
        const gint64 lDeadline = g_get_monotonic_time() + gint64(cSeconds) * G_TIME_SPAN_SECOND;
        check(g_cond_wait_until(&mConditions[aWhich], &mMutex, lDeadline), "g_cond_wait_until");
    }

    GMutex mMutex;
    GCond mConditions[2];
};
#endif

template <class Kit>
void lockUnlock(benchmark::State& arState)
{
    Kit lKit;
    for (auto lIteration : arState) {
        lKit.lock();
        lKit.unlock();
    }
}

/// All threads of the row contend for one mutex. The count verifies mutual exclusion.
template <class Kit>
void contend(benchmark::State& arState)
{
    static Kit sKit;
    static int64_t sCount;
    if (0 == arState.thread_index()) {
        sCount = 0;
    }
    for (auto lIteration : arState) {
        sKit.lock();
        ++sCount;
        sKit.unlock();
    }
    if (0 == arState.thread_index()) {
        check(sCount == static_cast<int64_t>(arState.iterations()) * arState.threads(), "the mutex does not exclude");
    }
}

/// Two threads on one processor take turns. Each round has two signals, two waits and two thread switches.
template <class Kit, bool Timed>
void pingPong(benchmark::State& arState)
{
    const OneProcessor lPin;
    Kit lKit;
    bool lPartnersTurn = false;
    bool lEnd = false;
    const auto lWait = [&lKit](int aWhich) { Timed ? lKit.timedWait(aWhich) : lKit.wait(aWhich); };
    std::thread lPartner([&] {
        lKit.lock();
        for (;;) {
            while (!lPartnersTurn) {
                lWait(1);
            }
            if (lEnd) {
                break;
            }
            lPartnersTurn = false;
            lKit.signal(0);
        }
        lKit.unlock();
    });
    for (auto lIteration : arState) {
        lKit.lock();
        lPartnersTurn = true;
        lKit.signal(1);
        while (lPartnersTurn) {
            lWait(0);
        }
        lKit.unlock();
    }
    lKit.lock();
    lEnd = lPartnersTurn = true;
    lKit.signal(1);
    lKit.unlock();
    lPartner.join();
}

template <class Kit>
void kit(const char* acRow)
{
    row("lock", acRow, lockUnlock<Kit>);
    row("condition", acRow, pingPong<Kit, false>)->MeasureProcessCPUTime();
    row("condition-timed", acRow, pingPong<Kit, true>)->MeasureProcessCPUTime();
    row("contention", acRow, contend<Kit>)->ThreadRange(1, cMostThreads)->MeasureProcessCPUTime();
}

int sRuns;  // executions of the routine; read only after the join

void* routine(void*)
{
    ++sRuns;
    return nullptr;
}

void startRaw()
{
    pthread_attr_t lAttributes;
    pthread_t lThread;
    check(0 == pthread_attr_init(&lAttributes), "pthread_attr_init");
    check(0 == pthread_attr_setdetachstate(&lAttributes, PTHREAD_CREATE_JOINABLE), "pthread_attr_setdetachstate");
    check(0 == pthread_attr_setstacksize(&lAttributes, cStackSize), "pthread_attr_setstacksize");
    check(0 == pthread_create(&lThread, &lAttributes, routine, nullptr), "pthread_create");
    check(0 == pthread_join(lThread, nullptr), "pthread_join");
}

void startLayer()
{
    unsigned long lThread = 0;
    OsStartThread(lThread, nullptr, routine);
    OsWaitForExit(lThread);
}

void startStd() { std::thread(routine, nullptr).join(); }

#ifdef BENCH_BOOST
void startBoost()
{
    boost::thread::attributes lAttributes;
    lAttributes.set_stack_size(cStackSize);
    boost::thread(lAttributes, [] { routine(nullptr); }).join();
}
#endif

#ifdef BENCH_POCO
void startPoco()
{
    Poco::Thread lThread;
    lThread.setStackSize(cStackSize);
    lThread.start([](void*) { routine(nullptr); });
    lThread.join();
}
#endif

#ifdef BENCH_APR
void startApr()
{
    apr_pool_t* lpPool;
    apr_threadattr_t* lpAttributes;
    apr_thread_t* lpThread;
    apr_status_t lStatus;
    apr_pool_create(&lpPool, nullptr);
    apr_threadattr_create(&lpAttributes, lpPool);
    apr_threadattr_stacksize_set(lpAttributes, cStackSize);
    const auto lRoutine = [](apr_thread_t*, void*) -> void* { return routine(nullptr); };
    check(APR_SUCCESS == apr_thread_create(&lpThread, lpAttributes, lRoutine, nullptr, lpPool), "apr_thread_create");
    check(APR_SUCCESS == apr_thread_join(&lStatus, lpThread), "apr_thread_join");
    apr_pool_destroy(lpPool);
}
#endif

#ifdef BENCH_GLIB
void startGlib() { g_thread_join(g_thread_new(nullptr, routine, nullptr)); }
#endif

template <void Start()>
void startJoin(benchmark::State& arState)
{
    const OneProcessor lPin;
    sRuns = 0;
    for (auto lIteration : arState) {
        Start();
    }
    check(sRuns == static_cast<int>(arState.iterations()), "a thread did not run");
}

template <void Start()>
void starter(const char* acRow)
{
    row("thread", acRow, startJoin<Start>)->MeasureProcessCPUTime();
}

}  // namespace

void registerThreads()
{
    kit<Raw>("raw");
    kit<Layer>("OQLinux");
    kit<Std>("std");
    starter<startRaw>("raw");
    starter<startLayer>("OQLinux");
    starter<startStd>("std");
#ifdef BENCH_BOOST
    kit<Boost>("Boost");
    starter<startBoost>("Boost");
#endif
#ifdef BENCH_POCO
    kit<Poco_>("POCO");
    starter<startPoco>("POCO");
#endif
#ifdef BENCH_APR
    kit<Apr>("APR");
    starter<startApr>("APR");
#endif
#ifdef BENCH_GLIB
    kit<Glib>("GLib");
    starter<startGlib>("GLib");
#endif
}
