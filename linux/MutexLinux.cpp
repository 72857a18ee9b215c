// Mutexes: one POSIX call each. The functions log nothing and report a failure only by an exception.

#include "LinuxInternal.h"

void OsInitMutex(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_init(&arMutex, NULL)) {
        throwOsError<OQCMutexInitFailedEx>();
    }
}

void OsDestroyMutex(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_destroy(&arMutex)) {
        throwOsError<OQCMutexDestroyFailedEx>();
    }
}

void OsLockMutex(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_lock(&arMutex)) {
        throwOsError<OQCMutexLockFailedEx>();
    }
}

void OsTrylockMutex(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_trylock(&arMutex)) {
        throwOsError<OQCMutexLockFailedEx>();
    }
}

void OsUnlockMutex(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_unlock(&arMutex)) {
        throwOsError<OQCMutexUnlockFailedEx>();
    }
}
