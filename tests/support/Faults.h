/// \file
/// Faults on demand. A test program's own definition of a system or companion function is what the library is bound to;
/// it fails on the call it is told to and otherwise passes on to the real one:
///
///     OQ_FAULTY(int, shmctl, (int aId, int aCommand, struct shmid_ds* apState), (aId, aCommand, apState), noexcept)
///
///     shmctlFault.failOn(2, -1, EPERM);  // the second call from now
#ifndef OQ_TESTS_FAULTS_H
#define OQ_TESTS_FAULTS_H

#include <dlfcn.h>
#include <errno.h>

#include <atomic>

#include "Basics.h"

/// The fault of one function. Calls of every thread count.
class Fault
{
public:
    Fault();

    /// The n-th call from now on returns aResult with errno set to aErrno and does nothing else.
    void failOn(unsigned int aNth, long aResult, int aErrno) { arm(aNth, false, aResult, aErrno); }
    /// Every call from now on does so.
    void failAlways(long aResult, int aErrno) { arm(1, true, aResult, aErrno); }
    /// Calls since the fault was armed or reset.
    unsigned int calls() const { return mCalls; }
    /// No fault, no calls.
    void reset() { arm(0, false, 0, 0); }
    /// All of the program.
    static void resetAll();

    /// Counts a call; true when it is to fail: errno is set then.
    bool fires();
    long result() const { return mResult; }

private:
    void arm(unsigned int aNth, bool aAlways, long aResult, int aErrno);

    std::atomic<unsigned int> mCalls;
    std::atomic<unsigned int> mNth;  // 0: never
    std::atomic<bool> mAlways;
    std::atomic<long> mResult;
    std::atomic<int> mErrno;
    Fault* mNext;
};

/// The real function behind the test program's definition. C++ functions are looked up by their mangled name.
template <class Function>
Function* behind(const char* acName)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, acName));
}

/// The same, looked up at the first call and kept. A static variable needs no guard for it: a guard that several threads
/// wait at changes errno.
template <class Function>
class Behind
{
public:
    explicit constexpr Behind(const char* acName) : mName(acName), mFunction(nullptr) {}

    operator Function*()
    {
        Function* lpFunction = mFunction;
        if (nullptr == lpFunction) {
            const int lErrno = errno;
            mFunction = lpFunction = behind<Function>(mName);
            errno = lErrno;
        }
        return lpFunction;
    }

private:
    const char* const mName;
    std::atomic<Function*> mFunction;
};

/// Defines a C function with its fault; last argument: its exception specification, if its header has one.
#define OQ_FAULTY(type, function, parameters, arguments, ...) \
    Fault function##Fault;                                    \
    extern "C" type function parameters __VA_ARGS__           \
    {                                                         \
        if (function##Fault.fires()) {                        \
            return (type)function##Fault.result();            \
        }                                                     \
        static Behind<type parameters> lReal(#function);      \
        return lReal arguments;                               \
    }

/// The same for a C++ function of the companion.
#define OQ_FAULTY_COMPANION(type, function, mangled, parameters, arguments) \
    Fault function##Fault;                                                  \
    type function parameters                                                \
    {                                                                       \
        if (function##Fault.fires()) {                                      \
            return (type)function##Fault.result();                          \
        }                                                                   \
        static Behind<type parameters> lReal(mangled);                      \
        return lReal arguments;                                             \
    }

/// malloc, and with it operator new: counts and fails the calls of the thread that armed it, from malloc.failOn() on.
/// Only in programs built with support/FailingMalloc.cpp, and not in sanitized builds.
class MallocFault
{
public:
    /// The n-th allocation from now on fails; 0: only counts.
    void failOn(unsigned int aNth);
    /// Every allocation from the n-th on fails.
    void failFrom(unsigned int aNth);
    /// Stops counting. \return allocations asked for since failOn()
    unsigned int stop();
    bool fires();

private:
    unsigned int mNth = 0;
    unsigned int mLast = 0;
    unsigned int mCalls = 0;
};
extern MallocFault gMallocFault;

#endif
