// A segment is made for everybody. A server that wants fewer peers takes the rights away before it tells anyone its key.

#include <OQLinux.h>
#include <stdio.h>
#include <sys/shm.h>
#include <unistd.h>

/// \return whether the segment is this user's own, and nobody else is in it or can come
static bool makePrivate(const OQShmDesc& acrMailbox)
{
    shmid_ds lState;
    if (shmctl(acrMailbox.shm_id, IPC_STAT, &lState) < 0 || geteuid() != lState.shm_perm.cuid) {
        return false;  // another user made it first, and a privileged server may open that
    }
    lState.shm_perm.mode = 0600;
    if (shmctl(acrMailbox.shm_id, IPC_SET, &lState) < 0 || shmctl(acrMailbox.shm_id, IPC_STAT, &lState) < 0) {
        return false;
    }
    return 1 == lState.shm_nattch;  // another one came in before the rights were gone, and would stay
}

int main()
{
    OQShmDesc lServer = {getpid(), 64, -1, NULL};
    OQShmDesc lClient = lServer;
    try {
        OsSharedMemoryOpen(lServer, OQCM_Server);
        const bool lPrivate = makePrivate(lServer);
        if (lPrivate) {
            OsSharedMemoryOpen(lClient, OQCM_Client);  // the same user's programs still may
            printf("private, and a client of the same user is in\n");
            OsSharedMemoryClose(lClient, OQCM_Client);
        }
        OsSharedMemoryClose(lServer, OQCM_Server);
        return lPrivate ? 0 : 1;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "private_mailbox: %s (%u)\n", acrFailure.what(), acrFailure.code());
        if (0 <= lServer.shm_id) {
            shmctl(lServer.shm_id, IPC_RMID, NULL);
        }
        return 1;
    }
}
