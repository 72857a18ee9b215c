// How the operations of shared memory end.

#include <limits.h>
#include <string.h>

#include "Outcome.h"

namespace mailbox
{
namespace
{

const Family cFamily(
    "Shared memory", ".//SharedMemoryLinux",
    "When a step of the open or of the close fails, the earlier steps are not undone. Both operations log nothing "
    "before they throw. The error text has at most 255 characters. `OsSharedMemoryWaitForActivity` and the wait of a "
    "write log as "
    "`sTimedWaitOnFlag`.",
    {{"-H- Assertion [ 0 != arShmDesc.shm_size ] failed", "the segment has no size"},
     {"-H- Assertion [ 0 < arShmDesc.shm_key ] failed", "the key is not valid"},
     {"-H- Assertion [ false ] failed", "the side is neither server nor client"},
     {"-H- Assertion [ acLength <= (arShmDesc.shm_size - sizeof(OQSSharedMemoryHeader)) ] failed",
      "the message or the buffer is longer than the segment's data area"},
     {"-I- Both Peers not ready.. write would be canceled",
      "client or server has not opened the segment; nothing is written and nothing is thrown"},
     {"-T- Shared Segment in use for writing: Try again", "there is no message; a throw follows, without `Left`"},
     {"-T- Timed out waiting on Shared Memory",
      "no message came, or the reader did not take the last one; a throw follows, without `Left`"},
     {"-T- Entered",
      "the operation begins; `OsSharedMemoryWaitForActivity` and the wait of a write are logged as `sTimedWaitOnFlag`"},
     {"-T- Left",
      "the operation returns; if this line is missing, the operation threw, or an assertion ended the process"}});

#define GET_ERRORS EACCES, EEXIST, EINVAL, ENFILE, ENOENT, ENOMEM, ENOSPC, EPERM
#define CONTROL_ERRORS EACCES, EFAULT, EIDRM, EINVAL, ENOMEM, EOVERFLOW, EPERM
#define ATTACH_ERRORS EACCES, EIDRM, EINVAL, ENOMEM

const char* const cFits = "acLength <= (arShmDesc.shm_size - sizeof(OQSSharedMemoryHeader))";

typedef OQSSharedMemoryHeader Header;
Header* const cNowhere = reinterpret_cast<Header*>(-1);

/// An open or a close, and its trace when every call succeeds.
struct Steps {
    void (*mRun)(OQShmDesc&, OQEConnectionMode);
    OQEConnectionMode mSide;
    const char* mTrace;
};
const Steps cServerOpens = {OsSharedMemoryOpen, OQCM_Server, R"(Entered
shmget(77, 64, 01666) = 4711
shm_id changes
shmctl(4711, IPC_STAT, local) = 0
shmctl(4711, SHM_LOCK, local) = 0
shmat(4711, null, 0) = segment
shm_addr changes
header changes
Left
)"};
const Steps cClientOpens = {OsSharedMemoryOpen, OQCM_Client, R"(Entered
shmget(77, 64, 0666) = 0
shm_id changes
shmat(0, null, 0) = segment
shm_addr changes
header changes
Left
)"};
const Steps cServerCloses = {OsSharedMemoryClose, OQCM_Server, R"(Entered
shmctl(4711, IPC_STAT, local) = 0
shmctl(4711, IPC_RMID, local) = 0
shmctl(4711, IPC_STAT, local) = 0
shmctl(4711, SHM_UNLOCK, local) = 0
shmdt(segment) = 0
Left
)"};
const Steps cClientCloses = {OsSharedMemoryClose, OQCM_Client, "Entered\nshmdt(segment) = 0\nLeft\n"};

/// Returns the trace up to the failed system call of this number. The open also stores a failed result.
std::string refused(const Steps& acrSteps, unsigned int aCall, const std::string& acrThrown)
{
    const std::string lSteps = acrSteps.mTrace;
    size_t lResult = 0;
    for (; 0 < aCall; --aCall) {
        lResult = lSteps.find(" = ", lResult + 1);
    }
    const size_t lNext = lSteps.find('\n', lResult) + 1;
    const bool lStores = 0 == lSteps.compare(lNext, 4, "shm_");
    return lSteps.substr(0, lResult) + " = -1 ERROR\n" +
           (lStores ? lSteps.substr(lNext, lSteps.find('\n', lNext) - lNext) : "") + R"(
        ClibStrerror(local, 256) = "ERROR #1"
        ClibStrcpy(local, memory) = local
        throws )" +
           acrThrown + " \"ERROR #1\"";
}

/// Returns the trace of a wait with this number of sleeps. The header changes in the last sleep.
std::string wait(unsigned int aSleeps)
{
    std::string lTrace = "sTimedWaitOnFlag: Entered\nClibGetTime(local, local)\n";
    for (; 0 < aSleeps; --aSleeps) {
        lTrace += std::string("ClibSleepMS(1)\n") + (1 == aSleeps ? "header changes\n" : "");
        lTrace += "ClibGetTime(local, local)\n";
    }
    return lTrace;
}
const char* const cTimesOut = R"(
    sTimedWaitOnFlag: -T- "Timed out waiting on Shared Memory"
    throws OQCTimeOutEx 323 "Timed out waiting on Shared Memory"
)";

/// A row that is given a segment of 64 bytes, opened by both sides. shmget() and shmat() return this segment, to a client
/// with the identifier 0; shmctl() and shmdt() succeed.
class Outcome : public ::Outcome
{
protected:
    using ::Outcome::Outcome;

    void given(const Header& acrHeader)
    {
        clearEvents();
        mHeader = acrHeader;
        mDesc = {77, 64, 4711, &mHeader};
        mCount = 77;
        memset(mData, 'd', sizeof mData);
        memset(mBuffer, 'b', sizeof mBuffer);
        nameObject("segment", &mHeader);
        nameObject("data", mData);
        nameObject("buffer", mBuffer);
        watchObject("shm_key", &mDesc.shm_key, sizeof mDesc.shm_key);
        watchObject("shm_size", &mDesc.shm_size, sizeof mDesc.shm_size);
        watchObject("shm_id", &mDesc.shm_id, sizeof mDesc.shm_id);
        watchObject("shm_addr", &mDesc.shm_addr, sizeof mDesc.shm_addr);
        watchObject("header", &mHeader, sizeof mHeader);
        watchObject("data", mData, sizeof mData);
        watchObject("buffer", mBuffer, sizeof mBuffer);
        watchObject("count", &mCount, sizeof mCount);
        substitute::shmget.instead([this](key_t, size_t, int aFlags) {
            return isRefused() ? -1 : 0 == (aFlags & IPC_CREAT) ? 0 : 4711;
        });
        substitute::shmctl.instead([this](int, int, shmid_ds*) { return isRefused() ? -1 : 0; });
        substitute::shmat.instead([this](int, const void*, int) { return isRefused() ? cNowhere : &mHeader; });
        substitute::shmdt.instead([this](const void*) { return isRefused() ? -1 : 0; });
        substitute::ClibStrcpy.show();
        substitute::ClibMemcpy.show();
        substitute::ClibGetTime.show();
        substitute::ClibSleepMS.show();
    }
    /// Simulates the clock: only sleeps advance the time, each by aStep milliseconds. In the sleep of this number, the
    /// other side sets the flag.
    void simulateTime(int64_t aStep, unsigned int aSleep, unsigned char& arFlag)
    {
        auto lNow = std::make_shared<int64_t>(1000000000999);
        substitute::ClibGetTime.instead([lNow](long& arSeconds, unsigned short& arMilliseconds) {
            arSeconds = static_cast<long>(*lNow / 1000);
            arMilliseconds = static_cast<unsigned short>(*lNow % 1000);
        });
        substitute::ClibSleepMS.instead([lNow, aStep, aSleep, &arFlag](unsigned long) mutable {
            *lNow += aStep;
            arFlag = 0 == --aSleep ? 2 : arFlag;
        });
    }
    void expect(const Header& acrHeader, unsigned int aCount)
    {
        EXPECT_EQ(0, memcmp(&acrHeader, &mHeader, sizeof mHeader));
        EXPECT_EQ(aCount, mCount);
    }
    void opens(const Steps& acrSteps, const Header& acrBefore, const Header& acrAfter)
    {
        given(acrBefore);
        mDesc = {77, 64, -99, nullptr};
        mTrace = acrSteps.mTrace;
        run([&] { acrSteps.mRun(mDesc, acrSteps.mSide); });
        EXPECT_EQ(OQCM_Client == acrSteps.mSide ? 0 : 4711, mDesc.shm_id);
        EXPECT_EQ(&mHeader, mDesc.shm_addr);
        expect(acrAfter, 77);
    }
    void isRefused(const Steps& acrSteps, unsigned int aCall, const char* acThrown)
    {
        given({0, 1, 1, 1, 0});
        mDesc.shm_id = OsSharedMemoryOpen == acrSteps.mRun ? -99 : 4711;
        mCallsToRefusal = aCall;
        mTrace = refused(acrSteps, aCall, acThrown);
        run([&] { acrSteps.mRun(mDesc, acrSteps.mSide); });
        const bool lOpens = OsSharedMemoryOpen == acrSteps.mRun;
        EXPECT_EQ(lOpens && 1 == aCall ? -1 : lOpens && OQCM_Client == acrSteps.mSide ? 0 : 4711, mDesc.shm_id);
        EXPECT_EQ(std::string::npos != mTrace.find(", null, 0) = -1") ? cNowhere : &mHeader, mDesc.shm_addr);
    }
    void timesOut(unsigned int aSeconds, int64_t aStep, unsigned int aSleeps)
    {
        given({0, 1, 1, 1, 20});
        simulateTime(aStep, aSleeps, mHeader.data_ready);
        mTrace = wait(aSleeps) + cTimesOut;
        mStays = "the header";
        run([&] { OsSharedMemoryWaitForActivity(mDesc, aSeconds); });
    }
    void writes(unsigned short aSize)
    {
        given({0, 255, 128, 2, 9});
        mDesc.shm_size = aSize;
        mTrace = "Entered\n" + wait(0) + R"(
            sTimedWaitOnFlag: Left
            ClibMemcpy(data, buffer, 40) = data
            header changes
            data changes
            count changes
            Left
        )";
        run([&] { OsSharedMemoryWrite(mDesc, mBuffer, 40, mCount); });
        expect({1, 0, 128, 2, 40}, 40);
    }
    void reads(unsigned short aSize, unsigned int aLength, unsigned int aCount)
    {
        given({255, 0, 0, 0, 20});
        mDesc.shm_size = aSize;
        mTrace = R"(
            Entered
            count changes
            ClibMemcpy(buffer, data, )" +
                 std::to_string(aCount) + R"() = buffer
            header changes
            buffer changes
            Left
        )";
        run([&] { OsSharedMemoryRead(mDesc, mBuffer, aLength, mCount); });
        expect({0, 1, 0, 0, 20}, aCount);
    }
    void asserts(const std::string& acrCondition, int aKey, unsigned short aSize, const std::function<void()>& acrRun)
    {
        given({0, 1, 0, 0, 0});
        mDesc.shm_key = aKey;
        mDesc.shm_size = aSize;
        mTrace = "Entered\n-H- \"Assertion [ %s ] failed\\n\" \"" + acrCondition + "\"\nexit status 1";
        runInChild(acrRun);
    }

    Header mHeader;
    unsigned char mData[58];  // directly behind the header
    unsigned char mBuffer[64];
    OQShmDesc mDesc;
    unsigned int mCount;

private:
    bool isRefused()
    {
        errno = error();
        return 0 == --mCallsToRefusal;
    }

    unsigned int mCallsToRefusal = 0;  // counted from 1
};

OUTCOME(OsSharedMemoryOpen, ServerMakesAndLocksTheSegmentAndMarksItself)
{
    mWhen = "server: succeeds";
    mStays = "`client_ready`, the data";
    opens(cServerOpens, {0, 0, 0, 0, 0}, {0, 1, 1, 0, 0});
}

OUTCOME(OsSharedMemoryOpen, ServerDiscardsAnUnreadMessage)
{
    mWhen = "server: an unread message is in the slot";
    mTells = "the message is discarded";
    mStays = "`client_ready`, the data";
    opens(cServerOpens, {1, 0, 9, 9, 20}, {0, 1, 1, 9, 0});
}

OUTCOME(OsSharedMemoryOpen, ClientMarksItself)
{
    mWhen = "client: succeeds";
    mStays = "all fields but `client_ready`, the data";
    opens(cClientOpens, {7, 9, 3, 0, 0x4321}, {7, 9, 3, 1, 0x4321});
}

OUTCOME(OsSharedMemoryOpen, EndsTheProcessWhenTheSizeIsZero)
{
    mWhen = "`shm_size` is 0";
    mStays = "no segment is made";
    asserts("0 != arShmDesc.shm_size", 0, 0, [&] { OsSharedMemoryOpen(mDesc, OQCM_Server); });
    asserts("0 != arShmDesc.shm_size", 77, 0, [&] { OsSharedMemoryOpen(mDesc, OQCM_Client); });
}

OUTCOME(OsSharedMemoryOpen, EndsTheProcessWhenTheKeyIsZeroOrNegative)
{
    mWhen = "`shm_key` is 0 or negative";
    mStays = "no segment is made; nothing is unwound";
    asserts("0 < arShmDesc.shm_key", 0, 64, [&] { OsSharedMemoryOpen(mDesc, OQCM_Server); });
    asserts("0 < arShmDesc.shm_key", INT_MIN, 1, [&] { OsSharedMemoryOpen(mDesc, OQCM_Client); });
}

OUTCOME(OsSharedMemoryOpen, EndsTheProcessWhenTheSideIsNotValid)
{
    mWhen = "side other than client and server";
    mStays = "no system call is made";
    asserts("false", 1, 1, [&] { OsSharedMemoryOpen(mDesc, static_cast<OQEConnectionMode>(2)); });
    asserts("false", INT_MAX, 65535, [&] { OsSharedMemoryOpen(mDesc, static_cast<OQEConnectionMode>(255)); });
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ServerThrowsWhenShmgetFails, GET_ERRORS)
{
    mWhen = "server: `shmget` fails (the segment is smaller than `shm_size`, no permission, limits)";
    mStays = "`shm_id` is negative; `shm_addr` is unchanged";
    isRefused(cServerOpens, 1, "OQCOpenFailedEx 326");
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ClientThrowsWhenShmgetFails, GET_ERRORS)
{
    mWhen = "client: `shmget` fails (there is no segment, it is smaller than `shm_size`, no permission)";
    mStays = "`shm_id` is negative; `shm_addr` is unchanged; no segment is made";
    isRefused(cClientOpens, 1, "OQCOpenFailedEx 326");
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ServerThrowsWhenIpcStatFails, CONTROL_ERRORS)
{
    mWhen = "server: `IPC_STAT` fails";
    mStays = "the segment stays, unlocked and unattached";
    isRefused(cServerOpens, 2, "OQCClibStatFailedEx 173");
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ServerThrowsWhenTheSegmentCannotBeLocked, CONTROL_ERRORS)
{
    mWhen = "server: `SHM_LOCK` fails (no privilege, limit of locked memory)";
    mStays = "the segment stays, unattached; its header is unchanged";
    isRefused(cServerOpens, 3, "OQCFileLockFailedEx 330");
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ServerThrowsWhenShmatFails, ATTACH_ERRORS)
{
    mWhen = "server: `shmat` fails";
    mStays = "the segment stays, locked and unattached; `shm_addr` is all ones";
    isRefused(cServerOpens, 4, "OQCOpenFailedEx 326");
}

OUTCOME_OF_ERRORS(OsSharedMemoryOpen, ClientThrowsWhenShmatFails, ATTACH_ERRORS)
{
    mWhen = "client: `shmat` fails";
    mStays = "the header; `shm_addr` is all ones";
    isRefused(cClientOpens, 2, "OQCOpenFailedEx 326");
}

OUTCOME(OsSharedMemoryClose, ServerRemovesUnlocksAndDetachesTheSegment)
{
    mWhen = "server: succeeds";
    mTrace = cServerCloses.mTrace;
    mStays = "header, data and descriptor; the last process that detaches destroys the segment";
    given({1, 0, 1, 1, 20});
    run([&] { OsSharedMemoryClose(mDesc, OQCM_Server); });
}

OUTCOME(OsSharedMemoryClose, EveryOtherSideOnlyDetachesTheSegment)
{
    mWhen = "client, or a side that is not valid: succeeds";
    mTrace = cClientCloses.mTrace;
    mStays = "header, data and descriptor; the segment";
    for (const int lSide : {0, 2, 255}) {
        given({1, 0, 1, 1, 20});
        run([&] { OsSharedMemoryClose(mDesc, static_cast<OQEConnectionMode>(lSide)); });
    }
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ServerThrowsWhenTheFirstIpcStatFails, CONTROL_ERRORS)
{
    mWhen = "server: the first `IPC_STAT` fails, also in a second close";
    mStays = "the segment stays, attached and locked";
    isRefused(cServerCloses, 1, "OQCClibStatFailedEx 173");
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ServerThrowsWhenTheSegmentCannotBeRemoved, CONTROL_ERRORS)
{
    mWhen = "server: `IPC_RMID` fails";
    mStays = "the segment stays, attached and locked";
    isRefused(cServerCloses, 2, "OQCCloseFailedEx 327");
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ServerThrowsWhenTheSecondIpcStatFails, CONTROL_ERRORS)
{
    mWhen = "server: the second `IPC_STAT` fails";
    mStays = "the segment, marked for removal, stays attached and locked";
    isRefused(cServerCloses, 3, "OQCClibStatFailedEx 173");
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ServerThrowsWhenTheSegmentCannotBeUnlocked, CONTROL_ERRORS)
{
    mWhen = "server: `SHM_UNLOCK` fails";
    mStays = "the segment, marked for removal, stays attached and locked";
    isRefused(cServerCloses, 4, "OQCFileUnLockFailedEx 331");
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ServerThrowsWhenShmdtFails, EINVAL, ENOSYS)
{
    mWhen = "server: `shmdt` fails";
    mStays = "the segment, removed and unlocked, stays attached";
    isRefused(cServerCloses, 5, "OQCCloseFailedEx 327");
}

OUTCOME_OF_ERRORS(OsSharedMemoryClose, ClientThrowsWhenShmdtFails, EINVAL, ENOSYS)
{
    mWhen = "client: `shmdt` fails, also in a second close";
    mStays = "the segment stays, attached and locked";
    isRefused(cClientCloses, 1, "OQCCloseFailedEx 327");
}

OUTCOME(OsSharedMemoryWaitForActivity, ReturnsWithoutASleepWhenAMessageIsThere)
{
    given({1, 0, 0, 0, 20});
    mWhen = "a message is in the slot";
    mTrace = wait(0) + "sTimedWaitOnFlag: Left";
    mStays = "the header";
    run([&] { OsSharedMemoryWaitForActivity(mDesc, 0); });
}

OUTCOME(OsSharedMemoryWaitForActivity, ReturnsWhenAMessageComesInTime)
{
    given({0, 0, 0, 0, 0});
    simulateTime(333, 3, mHeader.data_ready);
    mWhen = "a message comes within the seconds";
    mTrace = wait(3) + "sTimedWaitOnFlag: Left";
    mStays = "the header";
    run([&] { OsSharedMemoryWaitForActivity(mDesc, 1); });
}

OUTCOME(OsSharedMemoryWaitForActivity, ThrowsATimeOutWhenNoMessageComesInTime)
{
    mWhen = "no message within the seconds (0: after one test and one sleep), or a message at the deadline";
    timesOut(7, 3500, 2);
    timesOut(0, 0, 1);
}

OUTCOME(OsSharedMemoryWaitForActivity, ThrowsATimeOutWhenTheClockIsSet)
{
    mWhen = "the clock is set forward past the end of the wait, or back to before its start";
    timesOut(1000, 3600000, 1);
    timesOut(1000, -1, 1);
}

OUTCOME(OsSharedMemoryWaitForActivity, ThrowsATimeOutEarlyWhenTheLimitWraps)
{
    mWhen = "4294968 seconds or more: the limit overflows 32 bits, so the wait times out early";
    timesOut(4294968, 704, 1);
}

OUTCOME(OsSharedMemoryWrite, Succeeds)
{
    mWhen = "succeeds";
    mStays = "the ready flags";
    writes(64);
}

OUTCOME(OsSharedMemoryWrite, GoesBeyondASegmentThatIsSmallerThanTheHeader)
{
    mWhen = "`shm_size` below 6: the size check overflows and never fails";
    mTells = "the write goes past the end of the segment";
    mStays = "the ready flags";
    writes(5);
}

OUTCOME(OsSharedMemoryWrite, EndsTheProcessWhenTheMessageIsTooLong)
{
    mWhen = "message longer than `shm_size` - 6, even if a peer is not ready";
    mStays = "the header";
    asserts(cFits, 77, 64, [&] { OsSharedMemoryWrite(mDesc, mBuffer, 59, mCount); });
    asserts(cFits, 77, 64, [&] { OsSharedMemoryWrite(mDesc, mBuffer, UINT_MAX, mCount); });
    asserts(cFits, 77, 6, [&] { OsSharedMemoryWrite(mDesc, mBuffer, 1, mCount); });
}

OUTCOME(OsSharedMemoryWrite, IsCancelledWhenAPeerIsNotReady)
{
    mWhen = "a peer is not ready";
    mTrace = R"(
        Entered
        -I- "Both Peers not ready.. write would be canceled"
        Left
    )";
    mTells = "the count keeps its value";
    mStays = "count, header and data";
    for (const Header& lrHeader : {Header{0, 1, 0, 0, 9}, Header{1, 0, 1, 0, 9}, Header{0, 0, 0, 1, 9}}) {
        given(lrHeader);
        run([&] { OsSharedMemoryWrite(mDesc, mBuffer, 58, mCount); });
        expect(lrHeader, 77);
    }
}

OUTCOME(OsSharedMemoryWrite, ThrowsATimeOutWhenTheSlotIsNotFreeInTime)
{
    given({1, 0, 1, 1, 20});
    simulateTime(1000, 3, mHeader.segment_free);
    mWhen = "the slot is not free within 3 seconds";
    mTrace = "Entered\n" + wait(3) + cTimesOut;
    mStays = "the count, the header, the message in the slot";
    run([&] { OsSharedMemoryWrite(mDesc, mBuffer, 20, mCount); });
}

OUTCOME(OsSharedMemoryRead, Succeeds)
{
    mWhen = "succeeds, also when a peer is not ready";
    mStays = "the ready flags, the length, the data";
    reads(64, 58, 20);
}

OUTCOME(OsSharedMemoryRead, CutsTheMessageWhenTheBufferIsShorter)
{
    mWhen = "buffer shorter than the message";
    mTells = "the count is the size of the buffer; the rest of the message is lost";
    mStays = "the slot is empty";
    reads(64, 19, 19);
}

OUTCOME(OsSharedMemoryRead, GoesBeyondASegmentThatIsSmallerThanTheHeader)
{
    mWhen = "`shm_size` below 6: the size check overflows and never fails";
    mTells = "the read goes past the end of the segment";
    mStays = "the ready flags, the length, the data";
    reads(5, 60, 20);
}

OUTCOME(OsSharedMemoryRead, EndsTheProcessWhenTheBufferIsTooLong)
{
    mWhen = "buffer larger than `shm_size` - 6, even if the slot is empty";
    mStays = "the header";
    asserts(cFits, 77, 64, [&] { OsSharedMemoryRead(mDesc, mBuffer, 59, mCount); });
    asserts(cFits, 77, 64, [&] { OsSharedMemoryRead(mDesc, mBuffer, UINT_MAX, mCount); });
    asserts(cFits, 77, 6, [&] { OsSharedMemoryRead(mDesc, mBuffer, 1, mCount); });
}

OUTCOME(OsSharedMemoryRead, ThrowsWhenThereIsNoMessage)
{
    mWhen = "no message: slot empty, or changing";
    mTrace = R"(
        Entered
        -T- "Shared Segment in use for writing: Try again"
        throws OQCTryAgainEx 322 "Shared Segment in use for writing: Try again"
    )";
    mStays = "buffer, count, header";
    for (const Header& lrHeader : {Header{0, 1, 1, 1, 20}, Header{0, 0, 1, 1, 20}}) {
        given(lrHeader);
        run([&] { OsSharedMemoryRead(mDesc, mBuffer, 58, mCount); });
    }
}

}  // namespace
}  // namespace mailbox
