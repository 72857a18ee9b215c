// A try-lock has no result value for a busy mutex. It throws an exception that is also an OQCHaltEx.

#include <OQLinux.h>
#include <stdio.h>

static bool workIfFree(pthread_mutex_t& arMutex)
{
    try {
        OsTrylockMutex(arMutex);
    } catch (const OQCMutexLockFailedEx&) {  // expected; a handler for OQCHaltEx comes after this one
        return false;
    }
    OsUnlockMutex(arMutex);
    return true;
}

int main()
{
    try {
        pthread_mutex_t lMutex;
        OsInitMutex(lMutex);
        OsLockMutex(lMutex);
        printf("while the mutex is held: %s\n", workIfFree(lMutex) ? "worked" : "busy");
        OsUnlockMutex(lMutex);
        printf("when it is free: %s\n", workIfFree(lMutex) ? "worked" : "busy");
        OsDestroyMutex(lMutex);
        return 0;
    } catch (const OQCHaltEx& acrFailure) {
        fprintf(stderr, "a lock is unreliable, halting: %s\n", acrFailure.what());
        return 2;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "%s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
