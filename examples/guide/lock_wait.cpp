// Waits for a file lock. Only the last attempt logs an error line.

#include <OQGuards.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static const char* lockWithin(int aFile, std::chrono::milliseconds aLimit)
{
    try {
        const OQCFileLock lLock(aFile, aLimit);
        return "locked";
    } catch (const OQCFileLockFailedEx&) {
        return "not locked";
    }
}

/// Runs in the other process: holds the lock until the parent closes its end of the pipe.
[[noreturn]] static void holdLock(int aFile, int aReady, int aEnd)
{
    OsLockFile(aFile);
    char lByte = 0;
    const bool lTold = 1 == write(aReady, &lByte, 1);
    _exit(lTold && 0 == read(aEnd, &lByte, 1) ? 0 : 1);
}

int main()
{
    char lPath[] = "/tmp/lock_wait-XXXXXX";
    const int lFile = mkstemp(lPath);
    int lReady[2];
    int lEnd[2];
    if (lFile < 0 || pipe(lReady) < 0 || pipe(lEnd) < 0) {
        perror("lock_wait");
        return 1;
    }
    unlink(lPath);
    const pid_t lOther = fork();
    if (lOther < 0) {
        perror("lock_wait: fork");
        return 1;
    }
    if (0 == lOther) {
        close(lEnd[1]);
        holdLock(lFile, lReady[1], lEnd[0]);
    }
    try {
        OsWaitForActivity(lReady[0], 30);
        printf("while another process holds it: %s\n", lockWithin(lFile, std::chrono::milliseconds(20)));
        close(lEnd[1]);
        printf("when that process ends: %s\n", lockWithin(lFile, std::chrono::seconds(30)));
        return ProcessWait(lOther, 0);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "lock_wait: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
