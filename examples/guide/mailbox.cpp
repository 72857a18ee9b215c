// What a write and a read do in each state of a mailbox. Both sides are in one program.

#include <OQLinux.h>
#include <stdio.h>
#include <sys/shm.h>
#include <unistd.h>

static const unsigned char cMessage[] = "message";

static void put(OQShmDesc& arSide)
{
    unsigned int lWritten = 0;  // stays 0 when the write is cancelled
    OsSharedMemoryWrite(arSide, cMessage, sizeof cMessage, lWritten);
    printf("wrote %u bytes\n", lWritten);
}

static void take(OQShmDesc& arSide)
{
    try {
        unsigned char lBuffer[64 - sizeof(OQSSharedMemoryHeader)];  // a larger buffer would end the process
        unsigned int lRead = 0;
        OsSharedMemoryRead(arSide, lBuffer, sizeof lBuffer, lRead);
        printf("read %u bytes\n", lRead);
    } catch (const OQCTryAgainEx&) {
        printf("nothing to read\n");
    }
}

int main()
{
    OQShmDesc lServer = {getpid(), 64, -1, NULL};  // the same key and size on both sides; 6 of 64 bytes: header
    OQShmDesc lClient = lServer;
    try {
        OsSharedMemoryOpen(lServer, OQCM_Server);
        put(lServer);  // cancelled: no client has opened the mailbox yet
        OsSharedMemoryOpen(lClient, OQCM_Client);
        take(lClient);  // Empty
        put(lServer);
        OsSharedMemoryWaitForActivity(lClient, 5);
        take(lClient);  // Full
        take(lClient);  // Empty again
        OsSharedMemoryClose(lClient, OQCM_Client);
        OsSharedMemoryClose(lServer, OQCM_Server);
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "mailbox: %s (%u)\n", acrFailure.what(), acrFailure.code());
        if (0 <= lServer.shm_id) {
            shmctl(lServer.shm_id, IPC_RMID, NULL);  // a failed open does not remove the segment that it created
        }
        return 1;
    }
}
