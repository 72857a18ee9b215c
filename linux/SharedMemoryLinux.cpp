// Shared memory: a System V segment serves as a one-message mailbox between a server and a client process.

#define OQ_LOG_FILE ".//SharedMemoryLinux"

#include <stddef.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "LinuxInternal.h"

static_assert(sizeof(OQSSharedMemoryHeader) == 6, "two processes read and write the header: it has no padding");
static_assert(offsetof(OQSSharedMemoryHeader, data_ready) == 0, "interchange format");
static_assert(offsetof(OQSSharedMemoryHeader, segment_free) == 1, "interchange format");
static_assert(offsetof(OQSSharedMemoryHeader, server_ready) == 2, "interchange format");
static_assert(offsetof(OQSSharedMemoryHeader, client_ready) == 3, "interchange format");
static_assert(offsetof(OQSSharedMemoryHeader, data_length) == 4, "interchange format");

namespace
{

const int cPermissions = 0666;
const unsigned int cWriteSeconds = 3;  // how long a write waits for the slot
const unsigned int cPollMilliseconds = 1;

const char* const cTimedOut = "Timed out waiting on Shared Memory";
const char* const cNoMessage = "Shared Segment in use for writing: Try again";

// No lock guards the header. The other process relies on the order of the stores below, so every flag is stored with
// release and loaded with acquire semantics:
// - A writer stores the bytes and the length, then segment_free = 0, then data_ready = 1. A reader that sees data_ready
//   also sees the bytes and the length.
// - A reader copies the bytes, then stores data_ready = 0, then segment_free = 1. A writer that sees segment_free
//   overwrites no bytes that are still being read, and its data_ready = 1 follows the reader's 0.
// - A server stores the other fields, then server_ready = 1.
//
// On processors that keep the order of stores (x86, s390x) these are plain byte stores and loads. On others each one
// needs a barrier. The accesses are atomic so that the compiler does not merge two neighbouring stores into one of 16
// bits.

void storeFlag(unsigned char& arFlag, unsigned char aValue) { __atomic_store_n(&arFlag, aValue, __ATOMIC_RELEASE); }

bool loadFlag(const unsigned char& acrFlag) { return 0 != __atomic_load_n(&acrFlag, __ATOMIC_ACQUIRE); }

void markWritten(OQSSharedMemoryHeader* apHeader)
{
    storeFlag(apHeader->segment_free, 0);
    storeFlag(apHeader->data_ready, 1);
}

void markRead(OQSSharedMemoryHeader* apHeader)
{
    storeFlag(apHeader->data_ready, 0);
    storeFlag(apHeader->segment_free, 1);
}

bool isDataReady(const OQSSharedMemoryHeader* acHeader) { return loadFlag(acHeader->data_ready); }

bool isSegmentFree(const OQSSharedMemoryHeader* acHeader) { return loadFlag(acHeader->segment_free); }

bool isServerReady(const OQSSharedMemoryHeader* acHeader) { return loadFlag(acHeader->server_ready); }

bool isClientReady(const OQSSharedMemoryHeader* acHeader) { return loadFlag(acHeader->client_ready); }

unsigned int getDataLength(const OQSSharedMemoryHeader* acHeader)
{
    return __atomic_load_n(&acHeader->data_length, __ATOMIC_RELAXED);
}

void setDataLength(OQSSharedMemoryHeader* apHeader, unsigned int aLength)
{
    __atomic_store_n(&apHeader->data_length, static_cast<unsigned short>(aLength), __ATOMIC_RELAXED);
}

/// Returns the address of the message, directly after the header.
unsigned char* dataOf(OQSSharedMemoryHeader* apHeader) { return reinterpret_cast<unsigned char*>(apHeader + 1); }

/// Throws the leaf with the text of errno. The text has at most 255 characters and is copied into this frame. A host
/// with its own companion runtime can observe these calls, so they must not change. If the companion returns lText,
/// ClibStrcpy() copies the text onto itself. Otherwise it copies the companion's text into lText.
template <class Leaf>
[[noreturn]] void throwSegmentError()
{
    char lText[256];
    ClibStrcpy(lText, ClibStrerror(lText, sizeof lText));
    throw Leaf(lText, OQErrorCode<Leaf>::value);
}

void getSegment(OQShmDesc& arShmDesc, int aFlags)
{
    arShmDesc.shm_id = shmget(arShmDesc.shm_key, arShmDesc.shm_size, aFlags);
    if (arShmDesc.shm_id < 0) {
        throwSegmentError<OQCOpenFailedEx>();
    }
}

void attachSegment(OQShmDesc& arShmDesc)
{
    void* const lpAddress = shmat(arShmDesc.shm_id, NULL, 0);
    arShmDesc.shm_addr = static_cast<OQSSharedMemoryHeader*>(lpAddress);
    if (reinterpret_cast<void*>(-1) == lpAddress) {
        throwSegmentError<OQCOpenFailedEx>();
    }
}

template <class Leaf>
void controlSegment(const OQShmDesc& acrShmDesc, int aCommand)
{
    shmid_ds lState;
    if (shmctl(acrShmDesc.shm_id, aCommand, &lState) < 0) {
        throwSegmentError<Leaf>();
    }
}

using Flag = bool (*)(const OQSSharedMemoryHeader*);

/// Returns the wall-clock time in milliseconds.
int64_t now()
{
    long lSeconds;
    unsigned short lMilliseconds;
    ClibGetTime(lSeconds, lMilliseconds);
    return static_cast<int64_t>(lSeconds) * 1000 + lMilliseconds;
}

/// Waits for a header flag; logs as sTimedWaitOnFlag. Does not test the flag again when the time has elapsed. The flag is
/// a template argument: each of the two callers then contains the loop, which saves 30 instructions a message.
template <Flag aFlag>
void sTimedWaitOnFlag(const OQShmDesc& acrShmDesc, unsigned int aSeconds)
{
    OQ_ENTERED();
    const unsigned int lLimit = aSeconds * 1000;  // wraps for 4294968 seconds and more
    const int64_t lStart = now();
    while (!aFlag(acrShmDesc.shm_addr)) {
        ClibSleepMS(cPollMilliseconds);
        // If the clock was set back, the elapsed time is negative. Converted to unsigned it exceeds every limit and
        // ends the wait.
        if (static_cast<uint64_t>(now() - lStart) >= lLimit) {
            OQ_TRACE(cTimedOut);
            throwWith<OQCTimeOutEx>(cTimedOut);
        }
    }
    OQ_LEFT();
}

}  // namespace

// When a step fails, earlier steps are not undone: the segment stays, and arShmDesc keeps the values stored so far.
void OsSharedMemoryOpen(OQShmDesc& arShmDesc, OQEConnectionMode aSide)
{
    OQ_ENTERED();
    OQ_ASSERT(0 != arShmDesc.shm_size);
    OQ_ASSERT(0 < arShmDesc.shm_key);
    if (OQCM_Server == aSide) {
        getSegment(arShmDesc, IPC_CREAT | cPermissions);
        controlSegment<OQCClibStatFailedEx>(arShmDesc, IPC_STAT);
        controlSegment<OQCFileLockFailedEx>(arShmDesc, SHM_LOCK);
        attachSegment(arShmDesc);
        // An existing segment is reset too, so a server that opens again discards an unread message.
        storeFlag(arShmDesc.shm_addr->data_ready, 0);
        storeFlag(arShmDesc.shm_addr->segment_free, 1);
        setDataLength(arShmDesc.shm_addr, 0);
        storeFlag(arShmDesc.shm_addr->server_ready, 1);
    } else if (OQCM_Client == aSide) {
        getSegment(arShmDesc, cPermissions);
        attachSegment(arShmDesc);
        storeFlag(arShmDesc.shm_addr->client_ready, 1);
    } else {
        OQ_ASSERT(false);
    }
    OQ_LEFT();
}

// IPC_RMID comes before SHM_UNLOCK. The later calls still work, because the segment exists as long as it is attached.
void OsSharedMemoryClose(OQShmDesc& arShmDesc, OQEConnectionMode aSide)
{
    OQ_ENTERED();
    if (OQCM_Server == aSide) {
        controlSegment<OQCClibStatFailedEx>(arShmDesc, IPC_STAT);
        controlSegment<OQCCloseFailedEx>(arShmDesc, IPC_RMID);
        controlSegment<OQCClibStatFailedEx>(arShmDesc, IPC_STAT);
        controlSegment<OQCFileUnLockFailedEx>(arShmDesc, SHM_UNLOCK);
    }
    if (shmdt(arShmDesc.shm_addr) < 0) {
        throwSegmentError<OQCCloseFailedEx>();
    }
    OQ_LEFT();
}

void OsSharedMemoryWaitForActivity(const OQShmDesc& arShmDesc, unsigned int aSeconds)
{
    sTimedWaitOnFlag<isDataReady>(arShmDesc, aSeconds);
}

// In both size checks the difference wraps for a segment smaller than the header. The checks then accept every length.
void OsSharedMemoryWrite(OQShmDesc& arShmDesc, const unsigned char* acData, unsigned int acLength,
                         unsigned int& arWritten)
{
    OQ_ENTERED();
    OQ_ASSERT(acLength <= (arShmDesc.shm_size - sizeof(OQSSharedMemoryHeader)));
    OQSSharedMemoryHeader* const lpHeader = arShmDesc.shm_addr;
    if (!isClientReady(lpHeader) || !isServerReady(lpHeader)) {
        OQ_INFORMATION("Both Peers not ready.. write would be canceled");
        OQ_LEFT();
        return;
    }
    sTimedWaitOnFlag<isSegmentFree>(arShmDesc, cWriteSeconds);
    ClibMemcpy(dataOf(lpHeader), acData, acLength);
    setDataLength(lpHeader, acLength);
    arWritten = acLength;
    markWritten(lpHeader);
    OQ_LEFT();
}

// If the message is longer than the buffer, its rest is discarded. The mailbox is empty afterwards in any case.
void OsSharedMemoryRead(OQShmDesc& arShmDesc, unsigned char* apBuffer, unsigned int acLength, unsigned int& arRead)
{
    OQ_ENTERED();
    OQ_ASSERT(acLength <= (arShmDesc.shm_size - sizeof(OQSSharedMemoryHeader)));
    OQSSharedMemoryHeader* const lpHeader = arShmDesc.shm_addr;
    if (!isDataReady(lpHeader)) {
        OQ_TRACE(cNoMessage);
        throwWith<OQCTryAgainEx>(cNoMessage);
    }
    unsigned int lLength = getDataLength(lpHeader);
    if (acLength < lLength) {
        lLength = acLength;
    }
    arRead = lLength;
    ClibMemcpy(apBuffer, dataOf(lpHeader), lLength);
    markRead(lpHeader);
    OQ_LEFT();
}
