#include "Substitutes.h"

// The thread sanitizer's runtime calls some of these functions before it can watch their memory accesses.
#if defined(__SANITIZE_THREAD__)
#define UNWATCHED __attribute__((no_sanitize_thread))
#else
#define UNWATCHED
#endif

namespace
{

SubstituteBase* sFirst = nullptr;
thread_local bool sIsWithoutMemory = false;

}  // namespace

void SubstituteBase::resetAll()
{
    for (SubstituteBase* lpSubstitute = sFirst; nullptr != lpSubstitute; lpSubstitute = lpSubstitute->mNext) {
        lpSubstitute->reset();
    }
}

void SubstituteBase::planned()
{
    if (!mIsListed) {
        mIsListed = true;
        mNext = sFirst;
        sFirst = this;
    }
}

// No static variable with a guard: a guard at which several threads wait changes errno.
UNWATCHED void* SubstituteBase::realFunction()
{
    void* lpReal = mReal.load(std::memory_order_relaxed);
    if (nullptr == lpReal) {
        const int lErrno = errno;
        lpReal = dlsym(RTLD_NEXT, mSymbol);
        mReal.store(lpReal, std::memory_order_relaxed);
        errno = lErrno;
    }
    return lpReal;
}

// DEFINE(type, function, symbol, parameters, arguments, what an event shows of them, what it shows of the result,
//        exception specification of the function's header)
// The function has the linkage of its declaration in the header.
#define LIST(...) __VA_ARGS__
#define DEFINE(type, function, symbol, parameters, arguments, shown, result, ...) \
    Substitute<type parameters> substitute::function(symbol);                     \
    UNWATCHED type function parameters __VA_ARGS__                                \
    {                                                                             \
        if (!isRecorded(__builtin_return_address(0))) {                           \
            return substitute::function.real arguments;                           \
        }                                                                         \
        const CallRecord lCall(#function, {LIST shown});                          \
        type const lResult = substitute::function.call arguments;                 \
        lCall.returned(result(lResult));                                          \
        return lResult;                                                           \
    }
// A function of the C library.
#define SYSTEM(function, parameters, arguments, shown, result, ...) \
    DEFINE(int, function, #function, parameters, arguments, shown, result, __VA_ARGS__)
// A function that returns its error.
#define THREADS(function, parameters, arguments, shown, ...) \
    SYSTEM(function, parameters, arguments, shown, errorName, __VA_ARGS__)

// clang-format off
SYSTEM(clock_gettime, (clockid_t a, timespec* b), (a, b),
       (CLOCK_REALTIME == a ? Shown{"CLOCK_REALTIME"} : number(a), place(b)), resultWithErrno, noexcept)

THREADS(pthread_cond_broadcast, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_destroy, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_init, (pthread_cond_t* a, const pthread_condattr_t* b), (a, b), (place(a), place(b)), noexcept)
THREADS(pthread_cond_signal, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_timedwait, (pthread_cond_t* a, pthread_mutex_t* b, const timespec* c), (a, b, c),
        (place(a), place(b), timeText(c)), )
THREADS(pthread_cond_wait, (pthread_cond_t* a, pthread_mutex_t* b), (a, b), (place(a), place(b)), )
THREADS(pthread_mutex_destroy, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_init, (pthread_mutex_t* a, const pthread_mutexattr_t* b), (a, b), (place(a), place(b)), noexcept)
THREADS(pthread_mutex_lock, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_trylock, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_unlock, (pthread_mutex_t* a), (a), (place(a)), noexcept)

DEFINE(char*, ClibStrerror, "_Z12ClibStrerrorPcj", (char* a, unsigned int b), (a, b), (place(a), number(b)), quoted, )
// clang-format on

WithoutMemory::WithoutMemory() { sIsWithoutMemory = true; }
void WithoutMemory::end() { sIsWithoutMemory = false; }

#if !OQ_SANITIZED
extern "C" void* __libc_malloc(size_t aSize);
extern "C" void* malloc(size_t aSize) noexcept
{
    if (sIsWithoutMemory) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(aSize);
}
#endif

void RecordedTest::SetUp()
{
    LeftoverTest::SetUp();
    SubstituteBase::resetAll();
    clearEvents();
}

void RecordedTest::TearDown()
{
    SubstituteBase::resetAll();
    LeftoverTest::TearDown();
}
