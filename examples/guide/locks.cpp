// A file lock excludes other processes, not other threads. Closing any descriptor of the file releases the lock.

#include <OQGuards.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

/// Returns the lock status that another process sees. A child gets the status and returns it as its exit code.
static const char* seenByOthers(int aDescriptor)
{
    const pid_t lChild = fork();
    if (lChild < 0) {
        return "unknown: no child";
    }
    if (0 == lChild) {
        OQEFileLockStatus lStatus = OQFLS_Locked;
        OsFileLockStatus(aDescriptor, lStatus);
        _exit(lStatus);
    }
    return OQFLS_Locked == ProcessWait(lChild, 0) ? "locked" : "unlocked";
}

int main()
{
    char lPath[] = "/tmp/locks-XXXXXX";
    const int lFile = mkstemp(lPath);
    if (lFile < 0) {
        perror("locks");
        return 1;
    }
    try {
        const OQCFileLock lLock(lFile);  // throws OQCFileLockFailedEx if another process holds the lock
        printf("held: %s\n", seenByOthers(lFile));
        OQEFileLockStatus lStatus = OQFLS_Locked;
        OsFileLockStatus(lFile, lStatus);
        printf("seen by its holder: %s\n", OQFLS_Locked == lStatus ? "locked" : "unlocked");
        close(open(lPath, O_RDONLY));  // other code in this process reads the file
        printf("after a look into the file: %s\n", seenByOthers(lFile));
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "locks: %s (%u)\n", acrFailure.what(), acrFailure.code());
        unlink(lPath);
        return 1;
    }
    unlink(lPath);
    return 0;
}
