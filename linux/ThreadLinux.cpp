// Threads: start a joinable thread with a fixed stack size, join it, cancel it, exit it.

#define OQ_LOG_FILE ".//ThreadLinux"

#include <pthread.h>

#include <type_traits>

#include "LinuxInternal.h"

namespace
{

const size_t cStackSize = 524288;  // bytes

}  // namespace

static_assert(std::is_same<unsigned long, pthread_t>::value, "callers know a thread by an unsigned long");

// The attribute object is not destroyed, because it holds no resources for these settings. The handle in an error line
// is the value of the caller's variable, which may not identify a thread yet.
void OsStartThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*))
{
    if (NULL == apRoutine) {
        throwWith<OQCNullPointerEx>("Null Pointer");
    }
    pthread_attr_t lAttributes;
    ErrorText lText;
    if (0 != pthread_attr_init(&lAttributes)) {
        OQ_ERROR("Failed to initialize the thread %lu. Error: '%s'", arThread, lText.get());
        throwOsError<OQCThreadStartFailedEx>(lText);
    }
    if (0 != pthread_attr_setdetachstate(&lAttributes, PTHREAD_CREATE_JOINABLE)) {
        OQ_ERROR("Failed to set the detach state the thread %lu. Error: '%s' ", arThread, lText.get());
        throwOsError<OQCThreadStartFailedEx>(lText);
    }
    if (0 != pthread_attr_setstacksize(&lAttributes, cStackSize)) {
        OQ_ERROR("Failed to set the stack size for the thread %lu. Error: '%s'", arThread, lText.get());
        throwOsError<OQCThreadStartFailedEx>(lText);
    }
    if (0 != pthread_create(&arThread, &lAttributes, apRoutine, apArgument)) {
        OQ_ERROR("Failed to start  the thread %lu. Error: '%s'", arThread, lText.get());
        throwOsError<OQCThreadStartFailedEx>(lText);
    }
}

// Intentionally empty: the function exists so that callers link. Only OsStartThread starts threads.
void OsCreateThread(unsigned long&, void*, void* (*)(void*)) {}

void OsWaitForExit(unsigned long const& acrThread)
{
    OQ_ENTERED();
    if (0 != pthread_join(acrThread, NULL)) {
        ErrorText lText;
        OQ_ERROR("Failed to join the thread %lu. Error: '%s'", acrThread, lText.get());
        OQ_LEFT();
        throwOsError<OQCThreadWaitForExitFailedEx>(lText);
    }
    OQ_LEFT();
}

void OsDestroyThread(unsigned long& arThread)
{
    if (0 != pthread_cancel(arThread)) {
        ErrorText lText;
        OQ_ERROR("Failed to destroy the thread %lu. Error: '%s'", arThread, lText.get());
        throwOsError<OQCThreadDestructionFailedEx>(lText);
    }
}

void OsExitThread() { pthread_exit(NULL); }

void OsResumeThread(unsigned long&) { throwWith<OQCNotSupportedEx>("Not Supported"); }

void OsSuspendThread(unsigned long&) { throwWith<OQCNotSupportedEx>("Not Supported"); }
