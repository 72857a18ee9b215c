// Exits with status 0 if the installed library can be called and its exceptions can be caught.
#include "OQCompanionSettings.h"
#include "OQLinux.h"

int main()
{
    SetLogLevels(0);
    pthread_mutex_t lMutex;
    OsInitMutex(lMutex);
    OsLockMutex(lMutex);
    try {
        OsTrylockMutex(lMutex);
    } catch (const OQCHaltEx& acrFailure) {
        OsUnlockMutex(lMutex);
        OsDestroyMutex(lMutex);
        return 335 == acrFailure.code() ? 0 : 1;
    }
    return 2;
}
