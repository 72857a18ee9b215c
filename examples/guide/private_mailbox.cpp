// All users may access a new segment. A server that needs a private one restricts its mode before it shares the key.

#include <OQGuards.h>
#include <stdio.h>
#include <sys/shm.h>
#include <unistd.h>

/// \return whether this user owns the segment, and no other user has it attached or can attach it
static bool makePrivate(const OQShmDesc& acrMailbox)
{
    shmid_ds lState;
    if (shmctl(acrMailbox.shm_id, IPC_STAT, &lState) < 0 || geteuid() != lState.shm_perm.cuid) {
        return false;  // another user created it; OsSharedMemoryOpen() of a privileged server accepts it
    }
    lState.shm_perm.mode = 0600;
    if (shmctl(acrMailbox.shm_id, IPC_SET, &lState) < 0 || shmctl(acrMailbox.shm_id, IPC_STAT, &lState) < 0) {
        return false;
    }
    return 1 == lState.shm_nattch;  // more than 1: a peer attached before the mode changed, and stays attached
}

int main()
{
    try {
        const OQCMailbox lServer(getpid(), 64, OQCM_Server);
        if (!makePrivate(lServer.get())) {
            return 1;
        }
        const OQCMailbox lClient(getpid(), 64, OQCM_Client);  // programs of the same user still may attach
        printf("private, and a client of the same user has it open\n");
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "private_mailbox: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
