// The destructor of a lock unlocks the mutex, even after an exception. A try-lock reports whether the mutex was busy.

#include <OQGuards.h>
#include <stdio.h>

static const char* workIfFree(OQCMutex& arMutex)
{
    const OQCTryLock lLock(arMutex);
    return lLock ? "worked" : "busy";
}

int main()
{
    try {
        OQCMutex lMutex;
        OQCMutexLock lLock(lMutex);
        printf("while the mutex is held: %s\n", workIfFree(lMutex));
        lLock.unlock();
        printf("when it is free: %s\n", workIfFree(lMutex));
        return 0;
    } catch (const OQCHaltEx& acrFailure) {
        fprintf(stderr, "a lock is unreliable, halting: %s\n", acrFailure.what());
        return 2;
    }
}
