// A server and a client process pass numbered messages with checksums through one mailbox, as fast as they can. The
// companion's sleep only yields the processor, so that every interleaving of the two can occur. First the client
// writes. Then the server writes, on a new segment.
//
//   MailboxSoak MESSAGES

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>

#include "Soak.h"

void ClibSleepMS(unsigned long) { sched_yield(); }

namespace
{

const unsigned int cPatience = 60;  // seconds

void writeAll(OQShmDesc& arDesc, uint64_t aFirst, uint64_t aEnd)
{
    Message lMessage;
    for (uint64_t lNumber = aFirst; lNumber < aEnd; ++lNumber) {
        lMessage.make(lNumber);
        unsigned int lWritten = 0;
        OsSharedMemoryWrite(arDesc, lMessage.mBytes, lMessage.mLength, lWritten);
        CHECK(lMessage.mLength == lWritten);
    }
}

void readAll(OQShmDesc& arDesc, uint64_t aFirst, uint64_t aEnd)
{
    Message lMessage;
    for (uint64_t lNumber = aFirst; lNumber < aEnd; ++lNumber) {
        OsSharedMemoryWaitForActivity(arDesc, cPatience);
        OsSharedMemoryRead(arDesc, lMessage.mBytes, sizeof lMessage.mBytes, lMessage.mLength);
        uint64_t lRead;
        CHECK(lMessage.isWhole(lRead));
        CHECK(lNumber == lRead);
    }
}

/// The client is a child process. The server is this process, which opens the segment before it starts the client.
void pass(bool aClientWrites, uint64_t aFirst, uint64_t aEnd)
{
    const key_t cKey = keyOfProcess(1);
    OQShmDesc lServer = {cKey, cSegmentSize, 0, NULL};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    const pid_t lChild = fork();
    if (0 == lChild) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        OQShmDesc lClient = {cKey, cSegmentSize, 0, NULL};
        OsSharedMemoryOpen(lClient, OQCM_Client);
        aClientWrites ? writeAll(lClient, aFirst, aEnd) : readAll(lClient, aFirst, aEnd);
        OsSharedMemoryClose(lClient, OQCM_Client);
        _exit(0);
    }
    if (aClientWrites) {
        readAll(lServer, aFirst, aEnd);
    } else {
        while (0 == lServer.shm_addr->client_ready) {
            usleep(1000);
        }
        writeAll(lServer, aFirst, aEnd);
    }
    int lStatus = -1;
    CHECK(lChild == waitpid(lChild, &lStatus, 0) && 0 == lStatus);
    CHECK(0 == lServer.shm_addr->data_ready && 1 == lServer.shm_addr->segment_free);
    OsSharedMemoryClose(lServer, OQCM_Server);
    CHECK(shmget(cKey, 0, 0) < 0);
}

pid_t sMain;

void removeSegment()
{
    const int lId = shmget(keyOfProcess(1), 0, 0);
    if (getpid() == sMain && 0 <= lId) {
        shmctl(lId, IPC_RMID, NULL);
    }
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(2 == aCount);
    const uint64_t lMessages = strtoull(apArguments[1], NULL, 10);
    sMain = getpid();
    atexit(removeSegment);
    const double lStart = secondsNow();
    try {
        pass(true, 1, lMessages / 2 + 1);
        pass(false, lMessages / 2 + 1, lMessages + 1);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "%d: %s\n", static_cast<int>(getpid()), acrFailure.what());
        return 1;
    }
    const double lSeconds = secondsNow() - lStart;
    printf("mailbox: %llu messages, all whole and in order, in %.1f s (%.0f a second)\n",
           static_cast<unsigned long long>(lMessages), lSeconds, static_cast<double>(lMessages) / lSeconds);
    return 0;
}
