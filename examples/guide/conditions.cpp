// Each wait tests a predicate and holds the mutex meanwhile. The limit is for the whole wait, by the monotonic clock.

#include <OQGuards.h>
#include <stdio.h>

struct Door {
    OQCMutex mMutex;
    OQCCondition mChanged;
    bool mOpen = false;
};

static void openDoor(Door& arDoor)
{
    const OQCMutexLock lLock(arDoor.mMutex);
    arDoor.mOpen = true;
    arDoor.mChanged.signal();  // wakes one waiter; no operation wakes all waiters
}

static const char* waitUntilOpen(Door& arDoor, std::chrono::milliseconds aLimit)
{
    OQCMutexLock lLock(arDoor.mMutex);
    return arDoor.mChanged.waitFor(lLock, aLimit, [&] { return arDoor.mOpen; }) ? "open" : "still shut";
}

int main()
{
    try {
        Door lDoor;
        printf("with nobody to open it: %s\n", waitUntilOpen(lDoor, std::chrono::milliseconds(100)));
        const OQCThread lThread([&] { openDoor(lDoor); });
        printf("with a thread that does: %s\n", waitUntilOpen(lDoor, std::chrono::minutes(1)));
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "conditions: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
