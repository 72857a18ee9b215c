// Wait in a loop that tests the predicate under the mutex. After every wait, even a time-out, the mutex is held.

#include <OQLinux.h>
#include <stdio.h>
#include <stdlib.h>

struct Door {
    pthread_mutex_t mMutex;
    pthread_cond_t mChanged;
    bool mOpen;
};

static void* openDoor(void* apDoor)
{
    Door& lrDoor = *static_cast<Door*>(apDoor);
    try {
        OsLockMutex(lrDoor.mMutex);
        lrDoor.mOpen = true;
        OsSignal(lrDoor.mChanged);  // wakes one waiter; no operation wakes all waiters
        OsUnlockMutex(lrDoor.mMutex);
    } catch (const OQCHaltEx& acrFailure) {
        fprintf(stderr, "the door cannot be opened, halting: %s\n", acrFailure.what());
        exit(2);
    }
    return NULL;
}

static bool waitUntilOpen(Door& arDoor, unsigned int aSeconds)
{
    OsLockMutex(arDoor.mMutex);
    try {
        while (!arDoor.mOpen) {  // a wake-up may be spurious; each call waits the full time again
            OsConditionalTimedWait(arDoor.mChanged, arDoor.mMutex, aSeconds);
        }
    } catch (const OQCTimeOutEx&) {
        // The door stayed shut. The mutex is held here, too.
    }
    const bool lOpen = arDoor.mOpen;
    OsUnlockMutex(arDoor.mMutex);
    return lOpen;
}

int main()
{
    try {
        Door lDoor;
        lDoor.mOpen = false;
        OsInitMutex(lDoor.mMutex);
        OsInitConditional(lDoor.mChanged);
        printf("with nobody to open it: %s\n", waitUntilOpen(lDoor, 1) ? "open" : "still shut");
        unsigned long lThread = 0;
        OsStartThread(lThread, &lDoor, openDoor);
        printf("with a thread that does: %s\n", waitUntilOpen(lDoor, 60) ? "open" : "still shut");
        OsWaitForExit(lThread);
        OsDestroyConditional(lDoor.mChanged);
        OsDestroyMutex(lDoor.mMutex);
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "%s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
