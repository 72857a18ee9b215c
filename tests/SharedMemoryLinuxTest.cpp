#include <errno.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/time.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "TestKit.h"

namespace
{

typedef std::vector<std::string> Calls;
typedef std::vector<unsigned int> Numbers;
typedef std::vector<unsigned char> Bytes;

/// The calls of the system with their arguments, in their order.
Calls* spCalls = nullptr;

void note(const char* acFormat, ...) __attribute__((format(printf, 1, 2)));
void note(const char* acFormat, ...)
{
    if (nullptr != spCalls) {
        const int lErrno = errno;
        char lText[128];
        va_list lArguments;
        va_start(lArguments, acFormat);
        vsnprintf(lText, sizeof lText, acFormat, lArguments);
        va_end(lArguments);
        spCalls->push_back(lText);
        errno = lErrno;
    }
}

std::string text(const char* acFormat, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char* acFormat, ...)
{
    char lText[128];
    va_list lArguments;
    va_start(lArguments, acFormat);
    vsnprintf(lText, sizeof lText, acFormat, lArguments);
    va_end(lArguments);
    return lText;
}

/// How the library was told what had failed.
struct AskedText {
    char* mpBuffer;
    unsigned int mSize;
    const char* mpReturned;
    char* mpCopiedTo;
    const char* mpCopiedFrom;
};
std::vector<AskedText>* spAskedTexts = nullptr;
const char* spOwnText = nullptr;     // returned instead of the buffer
const char* spCopiedText = nullptr;  // copied instead of the text

std::function<void(void*, const void*, unsigned int)>* spAtCopy = nullptr;

enum class Time { Real, Simulated, Spinning };

/// The time of the library: in the simulation it passes by sleeping only.
struct Clock {
    Time mTime = Time::Real;
    int64_t mNow = 0;  // milliseconds
    unsigned int mReadings = 0;
    std::vector<unsigned long> mSleeps;
    std::function<void(size_t)> mAfterSleep;  // receives the number of sleeps so far
};
Clock sClock;

std::function<void(void*)>* spAtAttach = nullptr;

/// Keeps this process on one of the processors that it may use, as long as the object lives. Two that pass messages as
/// fast as they can are thus never made to wait for one another's time slices on a busy machine.
class OnProcessor
{
public:
    explicit OnProcessor(int aNumber)
    {
        sched_getaffinity(0, sizeof mAllowed, &mAllowed);
        sOwn = 1 < CPU_COUNT(&mAllowed);
        cpu_set_t lOne;
        CPU_ZERO(&lOne);
        for (int lProcessor = 0, lFound = 0; lProcessor < CPU_SETSIZE; ++lProcessor) {
            if (CPU_ISSET(lProcessor, &mAllowed) && aNumber == lFound++) {
                CPU_SET(lProcessor, &lOne);
                sched_setaffinity(0, sizeof lOne, &lOne);
            }
        }
    }
    ~OnProcessor()
    {
        sOwn = false;
        sched_setaffinity(0, sizeof mAllowed, &mAllowed);
    }
    OnProcessor(const OnProcessor&) = delete;
    OnProcessor& operator=(const OnProcessor&) = delete;

    static bool isOwn() { return sOwn; }

private:
    static bool sOwn;
    cpu_set_t mAllowed;
};
bool OnProcessor::sOwn = false;

}  // namespace

Fault shmgetFault;
extern "C" int shmget(key_t aKey, size_t aSize, int aFlags) noexcept
{
    note("shmget(%d, %u, 0x%X)", aKey, static_cast<unsigned int>(aSize), static_cast<unsigned int>(aFlags));
    if (shmgetFault.fires()) {
        return static_cast<int>(shmgetFault.result());
    }
    static Behind<int(key_t, size_t, int)> lReal("shmget");
    return lReal(aKey, aSize, aFlags);
}

Fault shmctlFault;
extern "C" int shmctl(int aId, int aCommand, struct shmid_ds* apState) noexcept
{
    note("shmctl(%d, %d, %s)", aId, aCommand, nullptr == apState ? "null" : "buffer");
    if (shmctlFault.fires()) {
        return static_cast<int>(shmctlFault.result());
    }
    static Behind<int(int, int, struct shmid_ds*)> lReal("shmctl");
    return lReal(aId, aCommand, apState);
}

Fault shmatFault;
extern "C" void* shmat(int aId, const void* acAddress, int aFlags) noexcept
{
    note("shmat(%d, %s, %d)", aId, nullptr == acAddress ? "null" : "address", aFlags);
    if (shmatFault.fires()) {
        return reinterpret_cast<void*>(shmatFault.result());
    }
    static Behind<void*(int, const void*, int)> lReal("shmat");
    void* const lpAddress = lReal(aId, acAddress, aFlags);
    if (nullptr != spAtAttach) {
        (*spAtAttach)(lpAddress);
    }
    return lpAddress;
}

Fault shmdtFault;
extern "C" int shmdt(const void* acAddress) noexcept
{
    note("shmdt(%p)", acAddress);
    if (shmdtFault.fires()) {
        return static_cast<int>(shmdtFault.result());
    }
    static Behind<int(const void*)> lReal("shmdt");
    return lReal(acAddress);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    char* const lpText = lReal(apBuffer, aSize);
    char* const lpReturned = nullptr == spOwnText ? lpText : const_cast<char*>(spOwnText);
    if (nullptr != spAskedTexts) {
        spAskedTexts->push_back({apBuffer, aSize, lpReturned, nullptr, nullptr});
    }
    return lpReturned;
}

char* ClibStrcpy(char* apDestination, const char* acSource)
{
    static Behind<char*(char*, const char*)> lReal("_Z10ClibStrcpyPcPKc");
    if (nullptr != spAskedTexts && !spAskedTexts->empty()) {
        spAskedTexts->back().mpCopiedTo = apDestination;
        spAskedTexts->back().mpCopiedFrom = acSource;
    }
    return lReal(apDestination, nullptr == spCopiedText ? acSource : spCopiedText);
}

void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount)
{
    static Behind<void*(void*, const void*, unsigned int)> lReal("_Z10ClibMemcpyPvPKvj");
    if (nullptr != spAtCopy) {
        (*spAtCopy)(apDestination, acSource, aCount);
        return apDestination;
    }
    return lReal(apDestination, acSource, aCount);
}

void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds)
{
    static Behind<void(long&, unsigned short&)> lReal("_Z11ClibGetTimeRlRt");
    if (Time::Simulated != sClock.mTime) {
        lReal(arSeconds, arMilliseconds);
        return;
    }
    ++sClock.mReadings;
    arSeconds = static_cast<long>(sClock.mNow / 1000);
    arMilliseconds = static_cast<unsigned short>(sClock.mNow % 1000);
}

void ClibSleepMS(unsigned long aMilliseconds)
{
    static Behind<void(unsigned long)> lReal("_Z11ClibSleepMSm");
    switch (sClock.mTime) {
        case Time::Real:
            lReal(aMilliseconds);
            return;
        case Time::Spinning:
            if (!OnProcessor::isOwn()) {
                sched_yield();
            }
            return;
        case Time::Simulated:
            sClock.mSleeps.push_back(aMilliseconds);
            sClock.mNow += static_cast<int64_t>(aMilliseconds);
            if (sClock.mAfterSleep) {
                sClock.mAfterSleep(sClock.mSleeps.size());
            }
            return;
    }
}

namespace
{

static_assert(6 == sizeof(OQSSharedMemoryHeader), "the message follows after 6 bytes");
static_assert(std::is_same<int, decltype(OQShmDesc::shm_key)>::value, "signed, 32 bits");
static_assert(std::is_same<unsigned short, decltype(OQShmDesc::shm_size)>::value, "at most 65535");
static_assert(std::is_same<int, decltype(OQShmDesc::shm_id)>::value, "signed, 32 bits");
static_assert(std::is_same<OQSSharedMemoryHeader*, decltype(OQShmDesc::shm_addr)>::value, "where it is attached");
static_assert(4 == sizeof(int) && 2 == sizeof(unsigned short), "widths of the descriptor's fields");

const int cServerGet = 0x3B6;  // create, read and write for all
const int cClientGet = 0x1B6;
const int cRemove = 0;
const int cStat = 2;
const int cLock = 11;
const int cUnlock = 12;
const unsigned int cRemovedMode = 01000;  // bits of the segment's mode
const unsigned int cLockedMode = 02000;

const char cTimedOut[] = "Timed out waiting on Shared Memory";
const char cTryAgain[] = "Shared Segment in use for writing: Try again";
const char cNotReady[] = "Both Peers not ready.. write would be canceled";
const char cFits[] = "acLength <= (arShmDesc.shm_size - sizeof(OQSSharedMemoryHeader))";

const LinesOf cOpen(".//SharedMemoryLinux", "OsSharedMemoryOpen");
const LinesOf cClose(".//SharedMemoryLinux", "OsSharedMemoryClose");
const LinesOf cWait(".//SharedMemoryLinux", "sTimedWaitOnFlag");
const LinesOf cWrite(".//SharedMemoryLinux", "OsSharedMemoryWrite");
const LinesOf cRead(".//SharedMemoryLinux", "OsSharedMemoryRead");

OQEConnectionMode side(int aValue) { return static_cast<OQEConnectionMode>(aValue); }

OQSSharedMemoryHeader* noAddress() { return reinterpret_cast<OQSSharedMemoryHeader*>(-1); }

/// The system's functions without faults, notes and hooks.
int findSegment(int aKey)
{
    static Behind<int(key_t, size_t, int)> lReal("shmget");
    return lReal(aKey, 0, 0);
}

int control(int aId, int aCommand, struct shmid_ds* apState)
{
    static Behind<int(int, int, struct shmid_ds*)> lReal("shmctl");
    return lReal(aId, aCommand, apState);
}

/// What the system says of a segment.
struct State {
    explicit State(int aId)
    {
        shmid_ds lState;
        memset(&lState, 0, sizeof lState);
        mExists = 0 == control(aId, IPC_STAT, &lState);
        mAttached = static_cast<unsigned int>(lState.shm_nattch);
        mSize = static_cast<unsigned int>(lState.shm_segsz);
        mMode = lState.shm_perm.mode;
    }
    unsigned int permissions() const { return mMode & 0777; }
    bool isRemoved() const { return 0 != (mMode & cRemovedMode); }
    bool isLocked() const { return 0 != (mMode & cLockedMode); }

    bool mExists;
    unsigned int mAttached;
    unsigned int mSize;
    unsigned int mMode;
};

/// A mapping of the segment of the test's own, beside that of the library.
class Mapping
{
public:
    explicit Mapping(int aId)
    {
        static Behind<void*(int, const void*, int)> lReal("shmat");
        void* const lpAddress = lReal(aId, nullptr, 0);
        static unsigned char sNothing[65536];
        const bool lAttached = reinterpret_cast<void*>(-1) != lpAddress;
        EXPECT_TRUE(lAttached) << "there is no segment " << aId;
        mpBytes = lAttached ? static_cast<volatile unsigned char*>(lpAddress) : sNothing;
    }
    ~Mapping()
    {
        static Behind<int(const void*)> lReal("shmdt");
        lReal(const_cast<unsigned char*>(mpBytes));
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    volatile unsigned char& operator[](size_t aOffset) const { return mpBytes[aOffset]; }

    unsigned int length() const
    {
        const unsigned char lBytes[2] = {mpBytes[4], mpBytes[5]};
        uint16_t lLength;
        memcpy(&lLength, lBytes, sizeof lLength);
        return lLength;
    }
    /// data_ready, segment_free, server_ready, client_ready, data_length
    Numbers header() const { return {mpBytes[0], mpBytes[1], mpBytes[2], mpBytes[3], length()}; }
    void setHeader(const Numbers& acrHeader) const
    {
        for (size_t lField = 0; lField < 4; ++lField) {
            mpBytes[lField] = static_cast<unsigned char>(acrHeader[lField]);
        }
        const uint16_t lLength = static_cast<uint16_t>(acrHeader[4]);
        unsigned char lBytes[2];
        memcpy(lBytes, &lLength, sizeof lLength);
        mpBytes[4] = lBytes[0];
        mpBytes[5] = lBytes[1];
    }
    Bytes bytes(size_t aFirst, size_t aCount) const { return Bytes(mpBytes + aFirst, mpBytes + aFirst + aCount); }
    /// Both flags in one load.
    uint16_t flags() const { return *reinterpret_cast<volatile uint16_t*>(mpBytes); }

private:
    volatile unsigned char* mpBytes;
};

/// Bytes that tell a message from another.
Bytes message(size_t aLength, unsigned int aSeed = 1)
{
    Bytes lBytes(aLength);
    unsigned int lNext = aSeed * 2654435761U + 12345;
    for (unsigned char& lrByte : lBytes) {
        lNext = lNext * 1103515245U + 12345;
        lrByte = static_cast<unsigned char>(lNext >> 16);
    }
    return lBytes;
}

int64_t nanoseconds()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return static_cast<int64_t>(lNow.tv_sec) * 1000000000 + lNow.tv_nsec;
}

template <class Family, class Operation>
bool isCaughtAs(Operation aOperation)
{
    try {
        aOperation();
    } catch (const Family&) {
        return true;
    } catch (const OQCException&) {
    }
    return false;
}

/// A descriptor for a segment of 64 bytes; the fields that the open sets hold what it never stores.
class SharedMemoryLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        spAskedTexts = &mTexts;
        sClock = Clock();
        mDesc = {key(), 64, -77, nullptr};
        mMissing = {key(200), 64, -77, nullptr};
    }
    void TearDown() override
    {
        endHooks();
        LayerTest::TearDown();
    }

    static void endHooks()
    {
        Fault::resetAll();
        spCalls = nullptr;
        spAskedTexts = nullptr;
        spOwnText = nullptr;
        spCopiedText = nullptr;
        spAtCopy = nullptr;
        spAtAttach = nullptr;
        sClock = Clock();
    }

    /// Removes the segment that a failure left.
    void removeSegment()
    {
        const int lId = findSegment(mDesc.shm_key);
        EXPECT_LE(0, lId) << "the segment is gone";
        control(lId, IPC_RMID, nullptr);
    }

    void detach()
    {
        static Behind<int(const void*)> lReal("shmdt");
        EXPECT_EQ(0, lReal(mDesc.shm_addr));
    }

    /// Expects that the one text was asked for in a buffer of 256 bytes and copied into that.
    void expectOneText() const
    {
        ASSERT_EQ(1U, mTexts.size());
        EXPECT_EQ(256U, mTexts[0].mSize);
        EXPECT_EQ(mTexts[0].mpBuffer, mTexts[0].mpCopiedTo);
        EXPECT_EQ(mTexts[0].mpReturned, mTexts[0].mpCopiedFrom);
    }

    std::string getCall(int aFlags) const
    {
        return text("shmget(%d, %u, 0x%X)", mDesc.shm_key, mDesc.shm_size, static_cast<unsigned int>(aFlags));
    }
    std::string controlCall(int aCommand) const { return text("shmctl(%d, %d, buffer)", mDesc.shm_id, aCommand); }
    std::string attachCall() const { return text("shmat(%d, null, 0)", mDesc.shm_id); }
    std::string detachCall() const { return text("shmdt(%p)", static_cast<void*>(mDesc.shm_addr)); }

    OQShmDesc mDesc;
    OQShmDesc mMissing;  ///< of a key without a segment
    Calls mCalls;
    std::vector<AskedText> mTexts;
};

// Types

TEST_F(SharedMemoryLinuxTest, HeaderFieldsLieAtTheirOffsets)
{
    EXPECT_EQ(0U, offsetof(OQSSharedMemoryHeader, data_ready));
    EXPECT_EQ(1U, offsetof(OQSSharedMemoryHeader, segment_free));
    EXPECT_EQ(2U, offsetof(OQSSharedMemoryHeader, server_ready));
    EXPECT_EQ(3U, offsetof(OQSSharedMemoryHeader, client_ready));
    EXPECT_EQ(4U, offsetof(OQSSharedMemoryHeader, data_length));
    EXPECT_EQ(1U, sizeof(OQSSharedMemoryHeader::data_ready));
    EXPECT_EQ(1U, sizeof(OQSSharedMemoryHeader::segment_free));
    EXPECT_EQ(1U, sizeof(OQSSharedMemoryHeader::server_ready));
    EXPECT_EQ(1U, sizeof(OQSSharedMemoryHeader::client_ready));
    EXPECT_EQ(2U, sizeof(OQSSharedMemoryHeader::data_length));
    OQSSharedMemoryHeader lHeader;
    lHeader.data_length = 0xFFFF;
    EXPECT_LT(0, lHeader.data_length) << "unsigned";
}

TEST_F(SharedMemoryLinuxTest, DescriptorFieldsAreInTheirOrder)
{
    EXPECT_EQ(0U, offsetof(OQShmDesc, shm_key));
    EXPECT_EQ(4U, offsetof(OQShmDesc, shm_size));
    EXPECT_EQ(8U, offsetof(OQShmDesc, shm_id));
    EXPECT_LT(offsetof(OQShmDesc, shm_id), offsetof(OQShmDesc, shm_addr));
    EXPECT_TRUE(std::is_trivial<OQShmDesc>::value);
}

TEST_F(SharedMemoryLinuxTest, ChannelEnumerationsHaveTheirValuesInOneByte)
{
    EXPECT_EQ(1U, sizeof(OQEFileMode));
    EXPECT_EQ(1U, sizeof(OQEPipeState));
    EXPECT_EQ(1U, sizeof(OQEConnectionMode));
    EXPECT_EQ((Numbers{1, 2, 3, 4}), (Numbers{OQFM_Mode1, OQFM_Mode2, OQFM_Mode3, OQFM_Append}));
    EXPECT_EQ((Numbers{1, 2}), (Numbers{OQPS_Blocking, OQPS_NonBlocking}));
    EXPECT_EQ((Numbers{0, 1}), (Numbers{OQCM_Client, OQCM_Server}));
    EXPECT_EQ(255U, static_cast<unsigned int>(side(255)));
}

// Open

TEST_F(SharedMemoryLinuxTest, ServerOpenCreatesLocksAttachesAndMarksItself)
{
    spCalls = &mCalls;
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    spCalls = nullptr;
    EXPECT_EQ((Lines{cOpen.entered(), cOpen.left()}), logged());
    EXPECT_EQ((Calls{getCall(cServerGet), controlCall(cStat), controlCall(cLock), attachCall()}), mCalls);
    EXPECT_EQ(key(), mDesc.shm_key);
    EXPECT_EQ(64U, mDesc.shm_size);
    EXPECT_EQ(findSegment(key()), mDesc.shm_id);
    {
        const Mapping lMapping(mDesc.shm_id);
        EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), lMapping.header());
        EXPECT_EQ(Bytes(58, 0), lMapping.bytes(6, 58));
        lMapping[63] = 99;
        EXPECT_EQ(99, reinterpret_cast<unsigned char*>(mDesc.shm_addr)[63]) << "shm_addr is not the segment";
    }
    const State lState(mDesc.shm_id);
    EXPECT_EQ(1U, lState.mAttached);
    EXPECT_EQ(64U, lState.mSize);
    EXPECT_EQ(0666U, lState.permissions());
    EXPECT_TRUE(lState.isLocked());
    EXPECT_EQ(0U, mTexts.size());
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, ServerOpenResetsThreeFieldsOfAnExistingSegmentAndLeavesTheRest)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    {
        const Mapping lMapping(mDesc.shm_id);
        for (const unsigned int lClient : {0U, 1U, 6U}) {
            lMapping.setHeader({1, 0, 0, lClient, 0x1234});
            for (unsigned int lOffset = 6; lOffset < 64; ++lOffset) {
                lMapping[lOffset] = static_cast<unsigned char>(lOffset);
            }
            const Bytes lData = lMapping.bytes(6, 58);
            OQShmDesc lAgain = {key(), 64, -77, nullptr};
            OsSharedMemoryOpen(lAgain, OQCM_Server);
            EXPECT_EQ((Numbers{0, 1, 1, lClient, 0}), lMapping.header());
            EXPECT_EQ(lData, lMapping.bytes(6, 58));
            EXPECT_EQ(mDesc.shm_id, lAgain.shm_id);
            EXPECT_EQ(3U, State(mDesc.shm_id).mAttached);
            OsSharedMemoryClose(lAgain, OQCM_Client);
        }
    }
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, ServerReopenDiscardsAnUnreadMessage)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lClient = mDesc;
    OsSharedMemoryOpen(lClient, OQCM_Client);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(lClient, message(10).data(), 10, lDone);
    OQShmDesc lAgain = mDesc;
    OsSharedMemoryOpen(lAgain, OQCM_Server);
    unsigned char lBuffer[58];
    EXPECT_FAILURE(OQCTryAgainEx, 322, cTryAgain, OsSharedMemoryRead(lAgain, lBuffer, 58, lDone));
    OsSharedMemoryWrite(lAgain, message(3).data(), 3, lDone);  // the client still counts as ready
    OsSharedMemoryRead(lClient, lBuffer, 58, lDone);
    EXPECT_EQ(3U, lDone);
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lAgain, OQCM_Client);
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, ClientOpenAttachesAndSetsItsOwnFlagOnly)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lServer = mDesc;
    mDesc.shm_id = -77;
    mDesc.shm_addr = nullptr;
    {
        const Mapping lMapping(lServer.shm_id);
        lMapping.setHeader({7, 9, 3, 0, 0x4321});
        for (unsigned int lOffset = 6; lOffset < 64; ++lOffset) {
            lMapping[lOffset] = static_cast<unsigned char>(lOffset);
        }
        const Bytes lData = lMapping.bytes(6, 58);
        clearLog();
        spCalls = &mCalls;
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        spCalls = nullptr;
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.left()}), logged());
        EXPECT_EQ((Calls{getCall(cClientGet), attachCall()}), mCalls);
        EXPECT_EQ((Numbers{7, 9, 3, 1, 0x4321}), lMapping.header());
        EXPECT_EQ(lData, lMapping.bytes(6, 58));
    }
    EXPECT_EQ(lServer.shm_id, mDesc.shm_id);
    EXPECT_NE(lServer.shm_addr, mDesc.shm_addr);
    EXPECT_EQ(3, mDesc.shm_addr->server_ready);
    EXPECT_EQ(2U, State(mDesc.shm_id).mAttached);
    OsSharedMemoryClose(mDesc, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, OpenStoresTheHeaderAtTheAddressThatItWasGivenAndTakesIdentifierZero)
{
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        alignas(8) unsigned char lMemory[80];
        memset(lMemory, 0xEE, sizeof lMemory);
        mDesc.shm_id = -77;
        shmgetFault.failOn(1, 0, 0);
        shmctlFault.failAlways(0, 0);
        shmatFault.failOn(1, reinterpret_cast<long>(lMemory + 8), 0);
        clearLog();
        OsSharedMemoryOpen(mDesc, lSide);
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.left()}), logged());
        EXPECT_EQ(0, mDesc.shm_id);
        EXPECT_EQ(static_cast<void*>(lMemory + 8), mDesc.shm_addr);
        Bytes lExpected(sizeof lMemory, 0xEE);
        if (OQCM_Server == lSide) {
            lExpected[8] = 0;
            lExpected[9] = 1;
            lExpected[10] = 1;
            lExpected[12] = 0;
            lExpected[13] = 0;
        } else {
            lExpected[11] = 1;
        }
        EXPECT_EQ(lExpected, Bytes(lMemory, lMemory + sizeof lMemory));
    }
}

TEST_F(SharedMemoryLinuxTest, SizesFrom1To65535CanBeOpened)
{
    for (const unsigned int lSize : {1U, 2U, 3U, 4U, 5U, 6U, 65535U}) {
        mDesc.shm_size = static_cast<unsigned short>(lSize);
        clearLog();
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        OQShmDesc lClient = mDesc;
        OsSharedMemoryOpen(lClient, OQCM_Client);
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.left(), cOpen.entered(), cOpen.left()}), logged());
        EXPECT_EQ(lSize, State(mDesc.shm_id).mSize);
        EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), Mapping(mDesc.shm_id).header());
        OsSharedMemoryClose(lClient, OQCM_Client);
        OsSharedMemoryClose(mDesc, OQCM_Server);
    }
}

TEST_F(SharedMemoryLinuxTest, KeysUpToTheLargestAreAccepted)
{
    mDesc.shm_key = INT_MAX;
    spCalls = &mCalls;
    shmgetFault.failAlways(-1, ENOSPC);
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOSPC), OsSharedMemoryOpen(mDesc, OQCM_Server));
    mDesc.shm_key = 1;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOSPC), OsSharedMemoryOpen(mDesc, OQCM_Client));
    EXPECT_EQ((Calls{"shmget(2147483647, 64, 0x3B6)", "shmget(1, 64, 0x1B6)"}), mCalls);
}

// Broken preconditions of the open

TEST_F(SharedMemoryLinuxTest, OpenWithSizeZeroEndsTheProcess)
{
    for (const int lSide : {0, 1, 2}) {
        mDesc.shm_size = 0;
        const ChildResult lResult = inChild([&] { OsSharedMemoryOpen(mDesc, side(lSide)); });
        EXPECT_EQ(1, lResult.mExitStatus);
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.assertion("0 != arShmDesc.shm_size")}), lResult.mLines);
    }
}

TEST_F(SharedMemoryLinuxTest, OpenWithKeyZeroOrNegativeEndsTheProcess)
{
    for (const int lKey : {0, -1, INT_MIN}) {
        for (const int lSide : {0, 1, 2}) {
            mDesc.shm_key = lKey;
            const ChildResult lResult = inChild([&] {
                shmgetFault.failAlways(-1, EIO);  // leaves nothing behind, should it be called
                OsSharedMemoryOpen(mDesc, side(lSide));
            });
            EXPECT_EQ(1, lResult.mExitStatus);
            EXPECT_EQ((Lines{cOpen.entered(), cOpen.assertion("0 < arShmDesc.shm_key")}), lResult.mLines);
        }
    }
}

TEST_F(SharedMemoryLinuxTest, OpenChecksTheSizeBeforeTheKey)
{
    mDesc.shm_key = 0;
    mDesc.shm_size = 0;
    const ChildResult lResult = inChild([&] { OsSharedMemoryOpen(mDesc, OQCM_Server); });
    EXPECT_EQ(1, lResult.mExitStatus);
    EXPECT_EQ((Lines{cOpen.entered(), cOpen.assertion("0 != arShmDesc.shm_size")}), lResult.mLines);
}

TEST_F(SharedMemoryLinuxTest, OpenAsAnotherSideEndsTheProcessBeforeAnySystemCall)
{
    for (const int lSide : {2, 255}) {
        const ChildResult lResult = inChild([&] {
            shmgetFault.failAlways(-1, EIO);  // a call would end in an exception, not in an exit
            OsSharedMemoryOpen(mDesc, side(lSide));
        });
        EXPECT_EQ(1, lResult.mExitStatus);
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.assertion("false")}), lResult.mLines);
        EXPECT_EQ(-1, findSegment(key()));
    }
}

// Planted failures of the open

TEST_F(SharedMemoryLinuxTest, OpenThrowsOpenFailedWhenTheSegmentIsRefused)
{
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        for (const int lResult : {-1, -7}) {
            mDesc.shm_id = -77;
            clearLog();
            mTexts.clear();
            mCalls.clear();
            spCalls = &mCalls;
            shmgetFault.failOn(1, lResult, ENFILE);
            EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENFILE), OsSharedMemoryOpen(mDesc, lSide));
            spCalls = nullptr;
            EXPECT_EQ(Lines{cOpen.entered()}, logged());
            EXPECT_EQ(Calls{getCall(OQCM_Server == lSide ? cServerGet : cClientGet)}, mCalls);
            EXPECT_EQ(lResult, mDesc.shm_id);
            EXPECT_EQ(nullptr, mDesc.shm_addr);
            expectOneText();
        }
    }
}

TEST_F(SharedMemoryLinuxTest, ServerOpenThrowsStatFailedAndLeavesTheSegmentUnlockedAndUnattached)
{
    shmctlFault.failOn(1, -1, EOVERFLOW);
    spCalls = &mCalls;
    EXPECT_FAILURE(OQCClibStatFailedEx, 173, strerror(EOVERFLOW), OsSharedMemoryOpen(mDesc, OQCM_Server));
    spCalls = nullptr;
    EXPECT_EQ(Lines{cOpen.entered()}, logged());
    EXPECT_EQ((Calls{getCall(cServerGet), controlCall(cStat)}), mCalls);
    EXPECT_EQ(findSegment(key()), mDesc.shm_id);
    EXPECT_EQ(nullptr, mDesc.shm_addr);
    EXPECT_EQ(0U, State(mDesc.shm_id).mAttached);
    EXPECT_FALSE(State(mDesc.shm_id).isLocked());
    expectOneText();
    removeSegment();
}

TEST_F(SharedMemoryLinuxTest, ServerOpenThrowsFileLockFailedAndLeavesTheSegmentUnattached)
{
    shmctlFault.failOn(2, -1, EPERM);
    spCalls = &mCalls;
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, strerror(EPERM), OsSharedMemoryOpen(mDesc, OQCM_Server));
    spCalls = nullptr;
    EXPECT_EQ(Lines{cOpen.entered()}, logged());
    EXPECT_EQ((Calls{getCall(cServerGet), controlCall(cStat), controlCall(cLock)}), mCalls);
    EXPECT_EQ(findSegment(key()), mDesc.shm_id);
    EXPECT_EQ(nullptr, mDesc.shm_addr);
    EXPECT_TRUE(State(mDesc.shm_id).mExists);
    EXPECT_FALSE(State(mDesc.shm_id).isRemoved());
    EXPECT_EQ(0U, State(mDesc.shm_id).mAttached);
    expectOneText();
    EXPECT_EQ((Numbers{0, 0, 0, 0, 0}), Mapping(mDesc.shm_id).header()) << "as the kernel made it";
    removeSegment();
}

TEST_F(SharedMemoryLinuxTest, ServerOpenThrowsOpenFailedWhenItCannotAttachAndLeavesTheSegmentLocked)
{
    shmatFault.failOn(1, -1, ENOMEM);
    spCalls = &mCalls;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOMEM), OsSharedMemoryOpen(mDesc, OQCM_Server));
    spCalls = nullptr;
    EXPECT_EQ(Lines{cOpen.entered()}, logged());
    EXPECT_EQ((Calls{getCall(cServerGet), controlCall(cStat), controlCall(cLock), attachCall()}), mCalls);
    EXPECT_EQ(findSegment(key()), mDesc.shm_id);
    EXPECT_EQ(noAddress(), mDesc.shm_addr);
    EXPECT_TRUE(State(mDesc.shm_id).isLocked());
    EXPECT_EQ(0U, State(mDesc.shm_id).mAttached);
    expectOneText();
    removeSegment();
}

TEST_F(SharedMemoryLinuxTest, ClientOpenThrowsOpenFailedWhenItCannotAttachAndLeavesTheHeader)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lServer = mDesc;
    mDesc.shm_id = -77;
    clearLog();
    shmatFault.failOn(1, -1, EACCES);
    spCalls = &mCalls;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(EACCES), OsSharedMemoryOpen(mDesc, OQCM_Client));
    spCalls = nullptr;
    EXPECT_EQ(Lines{cOpen.entered()}, logged());
    EXPECT_EQ((Calls{getCall(cClientGet), attachCall()}), mCalls);
    EXPECT_EQ(lServer.shm_id, mDesc.shm_id);
    EXPECT_EQ(noAddress(), mDesc.shm_addr);
    EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), Mapping(lServer.shm_id).header());
    expectOneText();
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, ServerOpenGoesOnWhereItFailedWhenItIsRepeated)
{
    shmctlFault.failOn(2, -1, EPERM);
    EXPECT_THROW(OsSharedMemoryOpen(mDesc, OQCM_Server), OQCFileLockFailedEx);
    const int lId = mDesc.shm_id;
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    EXPECT_EQ(lId, mDesc.shm_id);
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, TheTextIsTheOneThatTheRuntimeReturnsWhereverItLies)
{
    spOwnText = "a text outside the buffer";
    shmgetFault.failOn(1, -1, EIO);
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "a text outside the buffer", OsSharedMemoryOpen(mDesc, OQCM_Client));
    expectOneText();
    EXPECT_NE(mTexts[0].mpBuffer, mTexts[0].mpCopiedFrom);
}

TEST_F(SharedMemoryLinuxTest, TheMessageIsTheBufferIntoWhichTheTextWasCopied)
{
    spCopiedText = "what the copy left";
    shmgetFault.failOn(1, -1, EIO);
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "what the copy left", OsSharedMemoryOpen(mDesc, OQCM_Server));
    expectOneText();
}

// Real failures of the open

TEST_F(SharedMemoryLinuxTest, ClientOpenBeforeAnyServerFindsNoSegment)
{
    spCalls = &mCalls;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOENT), OsSharedMemoryOpen(mDesc, OQCM_Client));
    spCalls = nullptr;
    EXPECT_EQ(Lines{cOpen.entered()}, logged());
    EXPECT_EQ(Calls{getCall(cClientGet)}, mCalls);
    EXPECT_EQ(-1, mDesc.shm_id);
    EXPECT_EQ(nullptr, mDesc.shm_addr);
    EXPECT_EQ(-1, findSegment(key())) << "the client created it";
}

TEST_F(SharedMemoryLinuxTest, OpenWithASizeLargerThanTheSegmentFails)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        OQShmDesc lLarger = {key(), 65, -77, nullptr};
        clearLog();
        EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(EINVAL), OsSharedMemoryOpen(lLarger, lSide));
        EXPECT_EQ(Lines{cOpen.entered()}, logged());
        EXPECT_EQ(-1, lLarger.shm_id);
        OQShmDesc lSmaller = {key(), 63, -77, nullptr};
        OsSharedMemoryOpen(lSmaller, lSide);
        OsSharedMemoryClose(lSmaller, OQCM_Client);
    }
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

/// Gives up the rights of the superuser, which refusals do not concern.
void becomeNobody()
{
    if (0 == geteuid() && 0 != setuid(65534)) {
        _exit(77);
    }
}

TEST_F(SharedMemoryLinuxTest, OpenWithoutPermissionFails)
{
    const int lId = shmget(key(), 64, IPC_CREAT | IPC_EXCL | 0);
    ASSERT_LE(0, lId);
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        const ChildResult lResult = inChild([&] {
            becomeNobody();
            EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(EACCES), OsSharedMemoryOpen(mDesc, lSide));
            EXPECT_EQ(-1, mDesc.shm_id);
        });
        EXPECT_EQ(0, lResult.mExitStatus);
        EXPECT_EQ(Lines{cOpen.entered()}, lResult.mLines);
    }
    removeSegment();
}

TEST_F(SharedMemoryLinuxTest, ServerOpenFailsAtTheLimitOfLockedMemoryAndLeavesTheSegment)
{
    const ChildResult lResult = inChild([&] {
        const rlimit lNone = {0, 0};
        EXPECT_EQ(0, setrlimit(RLIMIT_MEMLOCK, &lNone));
        becomeNobody();
        EXPECT_FAILURE(OQCFileLockFailedEx, 330, strerror(EPERM), OsSharedMemoryOpen(mDesc, OQCM_Server));
    });
    EXPECT_EQ(0, lResult.mExitStatus);
    EXPECT_EQ(Lines{cOpen.entered()}, lResult.mLines);
    const int lId = findSegment(key());
    EXPECT_TRUE(State(lId).mExists);
    EXPECT_EQ(0U, State(lId).mAttached);
    EXPECT_FALSE(State(lId).isLocked());
    EXPECT_EQ(0, inChild([&] {
                     becomeNobody();  // whose it is, where the superuser has not all rights
                     EXPECT_EQ(0, shmctl(lId, IPC_RMID, nullptr));
                 }).mExitStatus);
}

// Close

TEST_F(SharedMemoryLinuxTest, ServerCloseRemovesThenUnlocksThenDetaches)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    const OQShmDesc lBefore = mDesc;
    {
        const Mapping lMapping(mDesc.shm_id);
        clearLog();
        spCalls = &mCalls;
        OsSharedMemoryClose(mDesc, OQCM_Server);
        spCalls = nullptr;
        EXPECT_EQ((Lines{cClose.entered(), cClose.left()}), logged());
        EXPECT_EQ(
            (Calls{controlCall(cStat), controlCall(cRemove), controlCall(cStat), controlCall(cUnlock), detachCall()}),
            mCalls);
        const State lState(lBefore.shm_id);
        EXPECT_TRUE(lState.isRemoved());
        EXPECT_FALSE(lState.isLocked());
        EXPECT_EQ(1U, lState.mAttached);
        EXPECT_EQ(-1, findSegment(key()));
    }
    EXPECT_FALSE(State(lBefore.shm_id).mExists) << "the last detach destroys it";
    EXPECT_EQ(lBefore.shm_key, mDesc.shm_key);
    EXPECT_EQ(lBefore.shm_size, mDesc.shm_size);
    EXPECT_EQ(lBefore.shm_id, mDesc.shm_id);
    EXPECT_EQ(lBefore.shm_addr, mDesc.shm_addr);
}

TEST_F(SharedMemoryLinuxTest, EverySideButTheServerOnlyDetaches)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lServer = mDesc;
    for (const int lSide : {0, 2, 255}) {
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        const OQShmDesc lBefore = mDesc;
        clearLog();
        mCalls.clear();
        spCalls = &mCalls;
        OsSharedMemoryClose(mDesc, side(lSide));
        spCalls = nullptr;
        EXPECT_EQ((Lines{cClose.entered(), cClose.left()}), logged());
        EXPECT_EQ(Calls{detachCall()}, mCalls);
        EXPECT_EQ(lBefore.shm_id, mDesc.shm_id);
        EXPECT_EQ(lBefore.shm_addr, mDesc.shm_addr);
        const State lState(lServer.shm_id);
        EXPECT_EQ(1U, lState.mAttached);
        EXPECT_FALSE(lState.isRemoved());
        EXPECT_TRUE(lState.isLocked());
    }
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, CloseWritesNothingInTheSegment)
{
    for (const OQEConnectionMode lSide : {OQCM_Client, OQCM_Server}) {
        OQShmDesc lServer = mDesc;
        OsSharedMemoryOpen(lServer, OQCM_Server);
        OQShmDesc lClient = mDesc;
        OsSharedMemoryOpen(lClient, OQCM_Client);
        {
            const Mapping lMapping(lServer.shm_id);
            unsigned int lWritten = 0;
            OsSharedMemoryWrite(lServer, message(20).data(), 20, lWritten);
            const Bytes lBefore = lMapping.bytes(0, 64);
            EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), lMapping.header());
            OsSharedMemoryClose(OQCM_Client == lSide ? lClient : lServer, lSide);
            EXPECT_EQ(lBefore, lMapping.bytes(0, 64));
            OsSharedMemoryClose(OQCM_Client == lSide ? lServer : lClient, side(1 - lSide));
            EXPECT_EQ(lBefore, lMapping.bytes(0, 64));
        }
    }
}

TEST_F(SharedMemoryLinuxTest, ServerCloseFailuresEndTheCloseAndLeaveTheSegmentAttached)
{
    struct Row {
        unsigned int mControl;  // which of the four
        int mErrno;
        bool mRemoved;
    };
    for (const Row& lrRow : {Row{1, EOVERFLOW, false}, Row{2, EPERM, false}, Row{3, EIO, true}, Row{4, ENOLCK, true}}) {
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        const OQShmDesc lBefore = mDesc;
        clearLog();
        mTexts.clear();
        mCalls.clear();
        spCalls = &mCalls;
        shmctlFault.failOn(lrRow.mControl, -1, lrRow.mErrno);
        if (2 == lrRow.mControl) {
            EXPECT_FAILURE(OQCCloseFailedEx, 327, strerror(EPERM), OsSharedMemoryClose(mDesc, OQCM_Server));
        } else if (4 == lrRow.mControl) {
            EXPECT_FAILURE(OQCFileUnLockFailedEx, 331, strerror(ENOLCK), OsSharedMemoryClose(mDesc, OQCM_Server));
        } else {
            EXPECT_FAILURE(OQCClibStatFailedEx, 173, strerror(lrRow.mErrno), OsSharedMemoryClose(mDesc, OQCM_Server));
        }
        spCalls = nullptr;
        EXPECT_EQ(Lines{cClose.entered()}, logged());
        Calls lExpected = {controlCall(cStat), controlCall(cRemove), controlCall(cStat), controlCall(cUnlock)};
        lExpected.resize(lrRow.mControl);
        EXPECT_EQ(lExpected, mCalls);
        expectOneText();
        const State lState(mDesc.shm_id);
        EXPECT_EQ(1U, lState.mAttached);
        EXPECT_TRUE(lState.isLocked());
        EXPECT_EQ(lrRow.mRemoved, lState.isRemoved());
        EXPECT_EQ(lBefore.shm_id, mDesc.shm_id);
        EXPECT_EQ(lBefore.shm_addr, mDesc.shm_addr);
        EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), Mapping(mDesc.shm_id).header());
        Fault::resetAll();
        if (!lrRow.mRemoved) {
            removeSegment();
        }
        detach();
    }
}

TEST_F(SharedMemoryLinuxTest, CloseThrowsCloseFailedWhenItCannotDetach)
{
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        clearLog();
        mTexts.clear();
        shmdtFault.failOn(1, -1, ENOSYS);
        EXPECT_FAILURE(OQCCloseFailedEx, 327, strerror(ENOSYS), OsSharedMemoryClose(mDesc, lSide));
        EXPECT_EQ(Lines{cClose.entered()}, logged());
        expectOneText();
        const State lState(mDesc.shm_id);
        EXPECT_EQ(1U, lState.mAttached);
        EXPECT_EQ(OQCM_Server == lSide, lState.isRemoved());
        EXPECT_EQ(OQCM_Client == lSide, lState.isLocked());
        if (OQCM_Client == lSide) {
            removeSegment();
        }
        detach();
    }
}

TEST_F(SharedMemoryLinuxTest, ASecondCloseFails)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lClient = mDesc;
    OsSharedMemoryOpen(lClient, OQCM_Client);
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(mDesc, OQCM_Server);
    clearLog();
    EXPECT_FAILURE(OQCCloseFailedEx, 327, strerror(EINVAL), OsSharedMemoryClose(lClient, OQCM_Client));
    EXPECT_FAILURE(OQCClibStatFailedEx, 173, strerror(EINVAL), OsSharedMemoryClose(mDesc, OQCM_Server));
    EXPECT_EQ((Lines{cClose.entered(), cClose.entered()}), logged());
}

// Families

TEST_F(SharedMemoryLinuxTest, FailuresBelongToTheirFamilyAndAreNoReasonToHalt)
{
    const auto lRefusedGet = [&] {
        shmgetFault.failOn(1, -1, EIO);
        OsSharedMemoryOpen(mDesc, OQCM_Client);
    };
    const auto lRefusedStat = [&] {
        shmgetFault.failOn(1, 1, 0);
        shmctlFault.failOn(1, -1, EIO);
        OsSharedMemoryOpen(mDesc, OQCM_Server);
    };
    const auto lRefusedLock = [&] {
        shmctlFault.failOn(2, -1, EIO);
        try {
            OsSharedMemoryOpen(mDesc, OQCM_Server);
        } catch (...) {
            removeSegment();
            throw;
        }
    };
    const auto lRefusedDetach = [&] {
        shmdtFault.failOn(1, -1, EIO);
        OsSharedMemoryClose(mDesc, OQCM_Client);
    };
    const auto lRefusedUnlock = [&] {
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        shmctlFault.failOn(4, -1, EIO);
        try {
            OsSharedMemoryClose(mDesc, OQCM_Server);
        } catch (...) {
            detach();
            throw;
        }
    };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lRefusedGet));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lRefusedGet));
    EXPECT_TRUE(isCaughtAs<OQCClibEx>(lRefusedStat));
    EXPECT_FALSE(isCaughtAs<OQCOsException>(lRefusedStat));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lRefusedStat));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lRefusedLock));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lRefusedLock));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lRefusedDetach));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lRefusedDetach));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lRefusedUnlock));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lRefusedUnlock));
}

TEST_F(SharedMemoryLinuxTest, TimeOutAndTryAgainAreOperatingSystemFailuresAndNoReasonToHalt)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    const auto lTimeOut = [&] { OsSharedMemoryWaitForActivity(mDesc, 0); };
    unsigned char lBuffer[1];
    unsigned int lDone = 0;
    const auto lAgain = [&] { OsSharedMemoryRead(mDesc, lBuffer, 1, lDone); };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lTimeOut));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lTimeOut));
    EXPECT_FALSE(isCaughtAs<OQCGenericException>(lTimeOut));
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lAgain));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lAgain));
    EXPECT_FALSE(isCaughtAs<OQCGenericException>(lAgain));
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

// State and lifecycle

TEST_F(SharedMemoryLinuxTest, ClientKeepsUsingASegmentThatTheServerHasRemoved)
{
    Peer lPeer([&](Peer& arTest) {
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        arTest.signal();
        arTest.meet();
        OsSharedMemoryClose(mDesc, OQCM_Server);
        arTest.signal();
        arTest.meet();
    });
    lPeer.meet();
    OsSharedMemoryOpen(mDesc, OQCM_Client);
    lPeer.signal();
    lPeer.meet();
    EXPECT_TRUE(State(mDesc.shm_id).isRemoved());

    const Bytes lMessage = message(58);
    Bytes lBuffer(58);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 58, lDone);
    EXPECT_EQ(58U, lDone);
    OsSharedMemoryWaitForActivity(mDesc, 0);
    lDone = 0;
    OsSharedMemoryRead(mDesc, lBuffer.data(), 58, lDone);
    EXPECT_EQ(58U, lDone);
    EXPECT_EQ(lMessage, lBuffer);

    OQShmDesc lOther = {key(), 64, -77, nullptr};
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOENT), OsSharedMemoryOpen(lOther, OQCM_Client));
    OsSharedMemoryOpen(lOther, OQCM_Server);
    EXPECT_NE(mDesc.shm_id, lOther.shm_id) << "not a fresh segment";
    EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), Mapping(lOther.shm_id).header());
    EXPECT_EQ((Numbers{0, 1, 1, 1, 58}), Mapping(mDesc.shm_id).header());
    OsSharedMemoryClose(lOther, OQCM_Server);

    OsSharedMemoryClose(mDesc, OQCM_Client);
    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait());
    EXPECT_FALSE(State(mDesc.shm_id).mExists) << "the last detach destroys it";
}

TEST_F(SharedMemoryLinuxTest, ServerGoesOnWhenTheClientHasGoneAndTheReadyFlagsStay)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    Peer lPeer([&](Peer&) {
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        OsSharedMemoryClose(mDesc, OQCM_Client);
    });
    EXPECT_EQ(0, lPeer.wait());
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), Mapping(mDesc.shm_id).header());
    unsigned int lWritten = 0;
    OsSharedMemoryWrite(mDesc, message(5).data(), 5, lWritten);
    EXPECT_EQ(5U, lWritten);
    Peer lNext([&](Peer&) {
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        unsigned char lBuffer[58];
        unsigned int lRead = 0;
        OsSharedMemoryRead(mDesc, lBuffer, 58, lRead);
        EXPECT_EQ(message(5), Bytes(lBuffer, lBuffer + lRead));
        OsSharedMemoryClose(mDesc, OQCM_Client);
    });
    EXPECT_EQ(0, lNext.wait());
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

// Transfer

/// A segment of 64 bytes that both sides have opened, and a mapping of the test's own; the log is empty.
class SharedMemoryLinuxTransferTest : public SharedMemoryLinuxTest
{
protected:
    void SetUp() override
    {
        SharedMemoryLinuxTest::SetUp();
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        mClient = mDesc;
        OsSharedMemoryOpen(mClient, OQCM_Client);
        mMapping.reset(new Mapping(mDesc.shm_id));
        clearLog();
    }
    void TearDown() override
    {
        endHooks();
        mMapping.reset();
        OsSharedMemoryClose(mClient, OQCM_Client);
        OsSharedMemoryClose(mDesc, OQCM_Server);
        SharedMemoryLinuxTest::TearDown();
    }

    /// Time passes by sleeping only; begins 2 milliseconds before a full second.
    static void simulateTime()
    {
        sClock = Clock();
        sClock.mTime = Time::Simulated;
        sClock.mNow = cStart;
    }
    void fill(const Bytes& acrMessage)
    {
        unsigned int lWritten = 0;
        OsSharedMemoryWrite(mDesc, acrMessage.data(), static_cast<unsigned int>(acrMessage.size()), lWritten);
        clearLog();
    }

    static const int64_t cStart = 2000000000998;
    OQShmDesc mClient;
    std::unique_ptr<Mapping> mMapping;
};
const int64_t SharedMemoryLinuxTransferTest::cStart;

const OQSSharedMemoryHeader* spWatched = nullptr;
unsigned char sReadyWhenLeft = 0;
unsigned char sFreeWhenLeft = 0;

TEST_F(SharedMemoryLinuxTransferTest, SlotIsMarkedBeforeLeftIsLogged)
{
    spWatched = mDesc.shm_addr;
    atEachLine([](const char* acText) {
        if (0 == strcmp("Left", acText)) {
            sReadyWhenLeft = spWatched->data_ready;
            sFreeWhenLeft = spWatched->segment_free;
        }
    });
    Bytes lMessage = message(20);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lDone);
    EXPECT_EQ(1, sReadyWhenLeft);
    EXPECT_EQ(0, sFreeWhenLeft);
    OsSharedMemoryRead(mClient, lMessage.data(), 20, lDone);
    EXPECT_EQ(0, sReadyWhenLeft);
    EXPECT_EQ(1, sFreeWhenLeft);
    atEachLine(nullptr);
}

TEST_F(SharedMemoryLinuxTransferTest, WriteStoresDataAndLengthAndMarksTheSlotFull)
{
    simulateTime();
    const Bytes lMessage = message(20);
    (*mMapping)[26] = 0xAB;
    unsigned int lWritten = 4711;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lWritten);
    EXPECT_EQ((Lines{cWrite.entered(), cWait.entered(), cWait.left(), cWrite.left()}), logged());
    EXPECT_EQ(20U, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
    EXPECT_EQ(lMessage, mMapping->bytes(6, 20));
    EXPECT_EQ(0xAB, (*mMapping)[26]) << "written past the message";
    EXPECT_EQ(0U, sClock.mSleeps.size()) << "a free slot costs no wait";
    EXPECT_EQ(1U, sClock.mReadings);
}

TEST_F(SharedMemoryLinuxTransferTest, ReadTakesTheMessageAndMarksTheSlotEmpty)
{
    const Bytes lMessage = message(20);
    fill(lMessage);
    simulateTime();
    Bytes lBuffer(58, 0xCD);
    unsigned int lRead = 4711;
    OsSharedMemoryRead(mClient, lBuffer.data(), 58, lRead);
    EXPECT_EQ((Lines{cRead.entered(), cRead.left()}), logged());
    EXPECT_EQ(20U, lRead);
    EXPECT_EQ(lMessage, Bytes(lBuffer.begin(), lBuffer.begin() + 20));
    EXPECT_EQ(Bytes(38, 0xCD), Bytes(lBuffer.begin() + 20, lBuffer.end())) << "stored past the message";
    EXPECT_EQ((Numbers{0, 1, 1, 1, 20}), mMapping->header());
    EXPECT_EQ(lMessage, mMapping->bytes(6, 20));
    EXPECT_EQ(0U, sClock.mSleeps.size() + sClock.mReadings) << "a read does not wait";
}

TEST_F(SharedMemoryLinuxTransferTest, AMessageOfTheWholeDataAreaIsWrittenAndRead)
{
    const Bytes lMessage = message(58);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 58, lDone);
    EXPECT_EQ(58U, lDone);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 58}), mMapping->header());
    EXPECT_EQ(lMessage, mMapping->bytes(6, 58));
    Bytes lBuffer(58);
    lDone = 0;
    OsSharedMemoryRead(mClient, lBuffer.data(), 58, lDone);
    EXPECT_EQ(58U, lDone);
    EXPECT_EQ(lMessage, lBuffer);
}

TEST_F(SharedMemoryLinuxTransferTest, TheLargestMessageOfTheLargestSegmentIsWrittenAndRead)
{
    rlimit lLocked;
    getrlimit(RLIMIT_MEMLOCK, &lLocked);
    if (0 != geteuid() && lLocked.rlim_cur < 1 << 20) {
        GTEST_SKIP() << "the user may lock " << lLocked.rlim_cur << " bytes in all, and so may the other tests";
    }
    OQShmDesc lLarge = {key(1), 65535, -77, nullptr};
    OsSharedMemoryOpen(lLarge, OQCM_Server);
    lLarge.shm_addr->client_ready = 1;
    const Bytes lMessage = message(65529);
    Bytes lBuffer(65529);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(lLarge, lMessage.data(), 65529, lDone);
    EXPECT_EQ(65529U, lDone);
    EXPECT_EQ(65529U, Mapping(lLarge.shm_id).length());
    lDone = 0;
    OsSharedMemoryRead(lLarge, lBuffer.data(), 65529, lDone);
    EXPECT_EQ(65529U, lDone);
    EXPECT_EQ(lMessage, lBuffer);
    OsSharedMemoryClose(lLarge, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTransferTest, AnEmptyMessageIsAMessage)
{
    unsigned int lDone = 4711;
    OsSharedMemoryWrite(mDesc, message(1).data(), 0, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 0}), mMapping->header());
    unsigned char lBuffer[1] = {0xCD};
    lDone = 4711;
    OsSharedMemoryRead(mClient, lBuffer, 1, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(0xCD, lBuffer[0]);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), mMapping->header());
}

TEST_F(SharedMemoryLinuxTransferTest, ABufferShorterThanTheMessageCutsItAndTheRestIsLost)
{
    const Bytes lMessage = message(30);
    for (const unsigned int lLength : {0U, 1U, 29U}) {
        fill(lMessage);
        Bytes lBuffer(58, 0xCD);
        unsigned int lRead = 4711;
        OsSharedMemoryRead(mClient, lBuffer.data(), lLength, lRead);
        EXPECT_EQ((Lines{cRead.entered(), cRead.left()}), logged());
        EXPECT_EQ(lLength, lRead);
        Bytes lExpected(lMessage.begin(), lMessage.begin() + lLength);
        lExpected.resize(58, 0xCD);
        EXPECT_EQ(lExpected, lBuffer);
        EXPECT_EQ((Numbers{0, 1, 1, 1, 30}), mMapping->header());
        EXPECT_FAILURE(OQCTryAgainEx, 322, cTryAgain, OsSharedMemoryRead(mClient, lBuffer.data(), 58, lRead));
        EXPECT_EQ(lLength, lRead);
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AReadOfAnEmptyOrChangingSlotIsToBeTriedAgain)
{
    for (const unsigned int lFree : {1U, 0U}) {
        mMapping->setHeader({0, lFree, 1, 1, 20});
        clearLog();
        Bytes lBuffer(58, 0xCD);
        unsigned int lRead = 4711;
        EXPECT_FAILURE(OQCTryAgainEx, 322, cTryAgain, OsSharedMemoryRead(mClient, lBuffer.data(), 58, lRead));
        EXPECT_EQ((Lines{cRead.entered(), cRead.trace(cTryAgain)}), logged());
        EXPECT_EQ(4711U, lRead);
        EXPECT_EQ(Bytes(58, 0xCD), lBuffer);
        EXPECT_EQ((Numbers{0, lFree, 1, 1, 20}), mMapping->header());
    }
    mMapping->setHeader({0, 1, 1, 1, 0});
}

TEST_F(SharedMemoryLinuxTransferTest, AReadNeedsNoPeer)
{
    mMapping->setHeader({1, 0, 0, 0, 2});
    unsigned char lBuffer[58];
    unsigned int lRead = 0;
    OsSharedMemoryRead(mClient, lBuffer, 58, lRead);
    EXPECT_EQ(2U, lRead);
    EXPECT_EQ((Numbers{0, 1, 0, 0, 2}), mMapping->header());
}

TEST_F(SharedMemoryLinuxTransferTest, AWriteWithoutBothPeersIsCancelledAndKeepsTheCallersCount)
{
    simulateTime();
    for (const Numbers& lrReady : {Numbers{0, 0}, Numbers{1, 0}, Numbers{0, 1}}) {
        for (const Numbers& lrSlot : {Numbers{0, 1}, Numbers{1, 0}, Numbers{0, 0}}) {
            const Numbers lHeader = {lrSlot[0], lrSlot[1], lrReady[0], lrReady[1], 33};
            mMapping->setHeader(lHeader);
            const Bytes lData = mMapping->bytes(6, 58);
            clearLog();
            unsigned int lWritten = 4711;
            OsSharedMemoryWrite(mDesc, message(20).data(), 20, lWritten);
            EXPECT_EQ((Lines{cWrite.entered(), cWrite.information(cNotReady), cWrite.left()}), logged());
            EXPECT_EQ(4711U, lWritten);
            EXPECT_EQ(lHeader, mMapping->header());
            EXPECT_EQ(lData, mMapping->bytes(6, 58));
            EXPECT_EQ(0U, sClock.mSleeps.size() + sClock.mReadings);
        }
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AWriteBeforeTheClientHasOpenedIsCancelled)
{
    OQShmDesc lServer = {key(1), 64, -77, nullptr};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    clearLog();
    unsigned int lWritten = 4711;
    OsSharedMemoryWrite(lServer, message(20).data(), 20, lWritten);
    EXPECT_EQ((Lines{cWrite.entered(), cWrite.information(cNotReady), cWrite.left()}), logged());
    EXPECT_EQ(4711U, lWritten);
    EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), Mapping(lServer.shm_id).header());
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTransferTest, EveryNonZeroFlagCountsAsSet)
{
    simulateTime();
    for (const unsigned int lSet : {1U, 2U, 0x80U, 0xFFU}) {
        mMapping->setHeader({0, lSet, lSet, lSet, 0});
        unsigned int lDone = 0;
        OsSharedMemoryWrite(mDesc, message(3).data(), 3, lDone);
        EXPECT_EQ(3U, lDone);
        EXPECT_EQ((Numbers{1, 0, lSet, lSet, 3}), mMapping->header());
        mMapping->setHeader({lSet, 0, lSet, lSet, 3});
        OsSharedMemoryWaitForActivity(mClient, 0);
        unsigned char lBuffer[58];
        lDone = 0;
        OsSharedMemoryRead(mClient, lBuffer, 58, lDone);
        EXPECT_EQ(3U, lDone);
        EXPECT_EQ((Numbers{0, 1, lSet, lSet, 3}), mMapping->header());
    }
    EXPECT_EQ(0U, sClock.mSleeps.size());
}

TEST_F(SharedMemoryLinuxTransferTest, ASideThatReadsAfterItsOwnWriteGetsItsOwnMessage)
{
    for (OQShmDesc* const lpSide : {&mDesc, &mClient}) {
        const Bytes lMessage = message(12, OQCM_Server);
        Bytes lBuffer(12);
        unsigned int lDone = 0;
        clearLog();
        OsSharedMemoryWrite(*lpSide, lMessage.data(), 12, lDone);
        OsSharedMemoryWaitForActivity(*lpSide, 5);
        lDone = 0;
        OsSharedMemoryRead(*lpSide, lBuffer.data(), 12, lDone);
        EXPECT_EQ((Lines{cWrite.entered(), cWait.entered(), cWait.left(), cWrite.left(), cWait.entered(), cWait.left(),
                         cRead.entered(), cRead.left()}),
                  logged());
        EXPECT_EQ(12U, lDone);
        EXPECT_EQ(lMessage, lBuffer);
    }
}

// Broken preconditions of the transfer

TEST_F(SharedMemoryLinuxTransferTest, AMessageOneByteTooLongEndsTheProcess)
{
    const Bytes lMessage = message(60);
    for (const unsigned int lLength : {59U, 60U, UINT_MAX}) {
        for (const unsigned int lReady : {1U, 0U}) {  // the length is looked at before the peers
            mMapping->setHeader({0, 1, lReady, lReady, 0});
            const ChildResult lResult = inChild([&] {
                unsigned int lWritten = 0;
                OsSharedMemoryWrite(mDesc, lMessage.data(), lLength, lWritten);
            });
            EXPECT_EQ(1, lResult.mExitStatus);
            EXPECT_EQ((Lines{cWrite.entered(), cWrite.assertion(cFits)}), lResult.mLines);
            EXPECT_EQ((Numbers{0, 1, lReady, lReady, 0}), mMapping->header());
        }
    }
}

TEST_F(SharedMemoryLinuxTransferTest, ABufferLargerThanTheDataAreaEndsTheProcessWhateverIsInTheSlot)
{
    Bytes lBuffer(60);
    for (const unsigned int lLength : {59U, 60U, UINT_MAX}) {
        for (const unsigned int lReady : {1U, 0U}) {  // with a short message, and with none
            mMapping->setHeader({lReady, 1 - lReady, 1, 1, 2});
            const ChildResult lResult = inChild([&] {
                unsigned int lRead = 0;
                OsSharedMemoryRead(mClient, lBuffer.data(), lLength, lRead);
            });
            EXPECT_EQ(1, lResult.mExitStatus);
            EXPECT_EQ((Lines{cRead.entered(), cRead.assertion(cFits)}), lResult.mLines);
            EXPECT_EQ((Numbers{lReady, 1 - lReady, 1, 1, 2}), mMapping->header());
        }
    }
}

TEST_F(SharedMemoryLinuxTransferTest, ASegmentOfTheHeaderAloneHoldsEmptyMessagesOnly)
{
    mDesc.shm_size = 6;
    unsigned int lDone = 4711;
    unsigned char lByte = 1;
    OsSharedMemoryWrite(mDesc, &lByte, 0, lDone);
    EXPECT_EQ(0U, lDone);
    OsSharedMemoryRead(mDesc, &lByte, 0, lDone);
    for (const bool lWrites : {true, false}) {
        const ChildResult lResult = inChild([&] {
            if (lWrites) {
                OsSharedMemoryWrite(mDesc, &lByte, 1, lDone);
            } else {
                OsSharedMemoryRead(mDesc, &lByte, 1, lDone);
            }
        });
        const LinesOf& lrLines = lWrites ? cWrite : cRead;
        EXPECT_EQ(1, lResult.mExitStatus);
        EXPECT_EQ((Lines{lrLines.entered(), lrLines.assertion(cFits)}), lResult.mLines);
    }
    mDesc.shm_size = 64;
}

TEST_F(SharedMemoryLinuxTransferTest, TheSizeChecksNeverFireForSegmentsSmallerThanTheHeader)
{
    for (const unsigned int lSize : {1U, 2U, 3U, 4U, 5U}) {
        mDesc.shm_size = static_cast<unsigned short>(lSize);
        const Bytes lMessage = message(40, lSize);
        unsigned int lDone = 0;
        clearLog();
        OsSharedMemoryWrite(mDesc, lMessage.data(), 40, lDone);  // harmless: the mapping is a whole page
        EXPECT_EQ(40U, lDone);
        EXPECT_EQ((Numbers{1, 0, 1, 1, 40}), mMapping->header());
        Bytes lBuffer(60);
        lDone = 0;
        OsSharedMemoryRead(mDesc, lBuffer.data(), 60, lDone);
        EXPECT_EQ(40U, lDone);
        lBuffer.resize(40);
        EXPECT_EQ(lMessage, lBuffer);
        EXPECT_EQ(
            (Lines{cWrite.entered(), cWait.entered(), cWait.left(), cWrite.left(), cRead.entered(), cRead.left()}),
            logged());
    }
    mDesc.shm_size = 64;
}

TEST_F(SharedMemoryLinuxTransferTest, TheLengthIsCutTo16Bits)
{
    // Only a segment smaller than the header lets such a length pass: memory of the test's own stands for its mapping.
    std::vector<uint16_t> lMemory(40000);
    OQShmDesc lSmall = {key(1), 5, 0, reinterpret_cast<OQSSharedMemoryHeader*>(lMemory.data())};
    lSmall.shm_addr->segment_free = lSmall.shm_addr->server_ready = lSmall.shm_addr->client_ready = 1;
    const Bytes lMessage = message(65539);
    unsigned int lDone = 0;
    OsSharedMemoryWrite(lSmall, lMessage.data(), 65539, lDone);
    EXPECT_EQ(65539U, lDone);
    EXPECT_EQ(3U, lSmall.shm_addr->data_length);
    EXPECT_EQ(0, memcmp(lMessage.data(), reinterpret_cast<unsigned char*>(lMemory.data()) + 6, 65539));
    Bytes lBuffer(65539, 0xCD);
    OsSharedMemoryRead(lSmall, lBuffer.data(), 65539, lDone);
    EXPECT_EQ(3U, lDone);
    EXPECT_EQ(Bytes(65536, 0xCD), Bytes(lBuffer.begin() + 3, lBuffer.end()));
}

// Order of the steps

TEST_F(SharedMemoryLinuxTransferTest, AWriteCopiesTheDataBeforeItChangesTheHeader)
{
    const Bytes lMessage = message(20);
    mMapping->setHeader({0, 1, 1, 1, 33});
    unsigned int lWritten = 4711;
    unsigned int lCopies = 0;
    std::function<void(void*, const void*, unsigned int)> lAtCopy = [&](void* apTo, const void* acFrom,
                                                                        unsigned int aCount) {
        ++lCopies;
        EXPECT_EQ(static_cast<void*>(reinterpret_cast<unsigned char*>(mDesc.shm_addr) + 6), apTo);
        EXPECT_EQ(static_cast<const void*>(lMessage.data()), acFrom);
        EXPECT_EQ(20U, aCount);
        EXPECT_EQ((Numbers{0, 1, 1, 1, 33}), mMapping->header());
        EXPECT_EQ(4711U, lWritten);
        EXPECT_EQ((Lines{cWrite.entered(), cWait.entered(), cWait.left()}), logged());
    };
    spAtCopy = &lAtCopy;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lWritten);
    spAtCopy = nullptr;
    EXPECT_EQ(1U, lCopies);
    EXPECT_EQ(20U, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
}

TEST_F(SharedMemoryLinuxTransferTest, AReadStoresTheCountThenCopiesThenMarksTheSlot)
{
    fill(message(20));
    Bytes lBuffer(15);
    unsigned int lRead = 4711;
    unsigned int lCopies = 0;
    std::function<void(void*, const void*, unsigned int)> lAtCopy = [&](void* apTo, const void* acFrom,
                                                                        unsigned int aCount) {
        ++lCopies;
        EXPECT_EQ(static_cast<void*>(lBuffer.data()), apTo);
        EXPECT_EQ(static_cast<const void*>(reinterpret_cast<unsigned char*>(mClient.shm_addr) + 6), acFrom);
        EXPECT_EQ(15U, aCount);
        EXPECT_EQ(15U, lRead);
        EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
    };
    spAtCopy = &lAtCopy;
    OsSharedMemoryRead(mClient, lBuffer.data(), 15, lRead);
    spAtCopy = nullptr;
    EXPECT_EQ(1U, lCopies);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 20}), mMapping->header());
}

// The wait, in simulated time

TEST_F(SharedMemoryLinuxTransferTest, AWaitForAMessageThatIsThereTakesNoSleep)
{
    fill(message(20));
    simulateTime();
    for (const unsigned int lSeconds : {0U, 1U, UINT_MAX}) {
        clearLog();
        sClock.mReadings = 0;
        OsSharedMemoryWaitForActivity(mClient, lSeconds);
        EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
        EXPECT_EQ(1U, sClock.mReadings);
        EXPECT_EQ(0U, sClock.mSleeps.size());
    }
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
}

TEST_F(SharedMemoryLinuxTransferTest, AWaitOfZeroSecondsTestsOnceAndSleepsOnce)
{
    for (const int64_t lStep : {0, -1}) {  // also where the clock has not moved by the end of the sleep
        simulateTime();
        clearLog();
        sClock.mAfterSleep = [&](size_t) {
            sClock.mNow += lStep;
            (*mMapping)[0] = 1;  // comes too late
        };
        EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 0));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace(cTimedOut)}), logged());
        EXPECT_EQ(std::vector<unsigned long>{1}, sClock.mSleeps);
        EXPECT_EQ(2U, sClock.mReadings);
        (*mMapping)[0] = 0;
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AWaitEndsWhenAsManyMillisecondsHavePassed)
{
    for (const unsigned int lSeconds : {1U, 2U, 7U}) {
        simulateTime();
        clearLog();
        EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, lSeconds));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace(cTimedOut)}), logged());
        EXPECT_EQ(std::vector<unsigned long>(lSeconds * 1000, 1), sClock.mSleeps);
        EXPECT_EQ(lSeconds * 1000 + 1, sClock.mReadings);
        EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), mMapping->header());
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AMessageAfter999MillisecondsIsInTimeAndOneAtTheDeadlineIsNot)
{
    for (const size_t lArrival : {1U, 2U, 3U, 999U, 1000U}) {
        simulateTime();
        clearLog();
        (*mMapping)[0] = 0;
        sClock.mAfterSleep = [&](size_t aSleeps) {
            if (lArrival == aSleeps) {
                (*mMapping)[0] = 1;
            }
        };
        if (lArrival < 1000) {
            OsSharedMemoryWaitForActivity(mClient, 1);
            EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
        } else {
            EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 1));
            EXPECT_EQ((Lines{cWait.entered(), cWait.trace(cTimedOut)}), logged());
        }
        EXPECT_EQ(std::vector<unsigned long>(lArrival, 1), sClock.mSleeps);
        EXPECT_EQ(lArrival + 1, sClock.mReadings);
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AClockSetBackBeforeTheStartEndsTheWaitAtOnce)
{
    for (const int64_t lBack : {2, 1000, 3600000}) {  // 2: to one millisecond before the start
        simulateTime();
        clearLog();
        (*mMapping)[0] = 0;
        sClock.mAfterSleep = [&](size_t) {
            sClock.mNow -= lBack;
            (*mMapping)[0] = 1;
        };
        EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 1000));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace(cTimedOut)}), logged());
        EXPECT_EQ(1U, sClock.mSleeps.size());
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AClockSetForwardEndsTheWaitEarly)
{
    for (const int64_t lForward : {1000000, 3600000}) {
        simulateTime();
        clearLog();
        (*mMapping)[0] = 0;
        sClock.mAfterSleep = [&](size_t aSleeps) {
            if (3 == aSleeps) {
                sClock.mNow += lForward;
                (*mMapping)[0] = 1;
            }
        };
        EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 1000));
        EXPECT_EQ((Lines{cWait.entered(), cWait.trace(cTimedOut)}), logged());
        EXPECT_EQ(3U, sClock.mSleeps.size());
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AClockThatStandsOrGoesBackToTheStartKeepsTheWaitGoing)
{
    simulateTime();
    sClock.mAfterSleep = [&](size_t aSleeps) {
        sClock.mNow = cStart;
        if (5000 == aSleeps) {
            (*mMapping)[0] = 1;
        }
    };
    OsSharedMemoryWaitForActivity(mClient, 1);
    EXPECT_EQ(5000U, sClock.mSleeps.size());
    EXPECT_EQ((Lines{cWait.entered(), cWait.left()}), logged());
}

/// Waits with a clock that jumps in the first sleep to so many milliseconds after the start. \return number of sleeps
/// until the time-out, at most 2
size_t sleepsWithJump(OQShmDesc& arDesc, const Mapping& acrMapping, int64_t aStart, unsigned int aSeconds,
                      int64_t aElapsed)
{
    sClock = Clock();
    sClock.mTime = Time::Simulated;
    sClock.mNow = aStart;
    acrMapping[0] = 0;
    sClock.mAfterSleep = [&](size_t aSleeps) {
        sClock.mNow = aStart + aElapsed;
        if (2 == aSleeps) {
            acrMapping[0] = 1;
        }
    };
    try {
        OsSharedMemoryWaitForActivity(arDesc, aSeconds);
    } catch (const OQCTimeOutEx&) {
        return 1;
    }
    return sClock.mSleeps.size();
}

TEST_F(SharedMemoryLinuxTransferTest, LimitsAreMultipliedIn32BitsAndComparedIn64)
{
    struct Row {
        unsigned int mSeconds;
        int64_t mLimit;  // milliseconds
    };
    for (const Row& lrRow : {Row{1, 1000}, Row{2147484, 2147484000}, Row{4294967, 4294967000}, Row{4294968, 704},
                             Row{4294969, 1704}, Row{UINT_MAX, 4294966296}}) {
        EXPECT_EQ(2U, sleepsWithJump(mClient, *mMapping, cStart, lrRow.mSeconds, lrRow.mLimit - 1)) << lrRow.mSeconds;
        EXPECT_EQ(1U, sleepsWithJump(mClient, *mMapping, cStart, lrRow.mSeconds, lrRow.mLimit)) << lrRow.mSeconds;
        EXPECT_EQ(1U, sleepsWithJump(mClient, *mMapping, cStart, lrRow.mSeconds, 4294967296 + 5)) << lrRow.mSeconds;
    }
}

TEST_F(SharedMemoryLinuxTransferTest, TheWholeRangeOfSecondsIsReckonedWith)
{
    for (const int64_t lStart : {int64_t(0), int64_t(2147483000) * 1000 + 999}) {
        EXPECT_EQ(2U, sleepsWithJump(mClient, *mMapping, lStart, 100, 99999));
        EXPECT_EQ(1U, sleepsWithJump(mClient, *mMapping, lStart, 100, 100000));
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AWriteWaits3SecondsForTheSlotAndThenLeavesTheMessageThatIsThere)
{
    const Bytes lOld = message(30, 1);
    fill(lOld);
    simulateTime();
    unsigned int lWritten = 4711;
    EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWrite(mDesc, message(20, 2).data(), 20, lWritten));
    EXPECT_EQ((Lines{cWrite.entered(), cWait.entered(), cWait.trace(cTimedOut)}), logged());
    EXPECT_EQ(std::vector<unsigned long>(3000, 1), sClock.mSleeps);
    EXPECT_EQ(4711U, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 30}), mMapping->header());
    EXPECT_EQ(lOld, mMapping->bytes(6, 30));
    Bytes lBuffer(30);
    OsSharedMemoryRead(mClient, lBuffer.data(), 30, lWritten);
    EXPECT_EQ(lOld, lBuffer);
}

TEST_F(SharedMemoryLinuxTransferTest, AWriteGoesOnWhenAReadEmptiesTheSlotInTime)
{
    for (const size_t lFreed : {1U, 2999U, 3000U}) {
        mMapping->setHeader({0, 1, 1, 1, 0});
        fill(message(30, 1));
        simulateTime();
        sClock.mAfterSleep = [&](size_t aSleeps) {
            if (lFreed == aSleeps) {
                unsigned char lBuffer[58];
                unsigned int lRead = 0;
                OsSharedMemoryRead(mClient, lBuffer, 58, lRead);
            }
        };
        const Bytes lNew = message(20, 2);
        unsigned int lWritten = 4711;
        if (lFreed < 3000) {
            OsSharedMemoryWrite(mDesc, lNew.data(), 20, lWritten);
            EXPECT_EQ(
                (Lines{cWrite.entered(), cWait.entered(), cRead.entered(), cRead.left(), cWait.left(), cWrite.left()}),
                logged());
            EXPECT_EQ(20U, lWritten);
            EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
            EXPECT_EQ(lNew, mMapping->bytes(6, 20));
        } else {
            EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWrite(mDesc, lNew.data(), 20, lWritten));
            EXPECT_EQ(4711U, lWritten);
            EXPECT_EQ((Numbers{0, 1, 1, 1, 30}), mMapping->header());
        }
        EXPECT_EQ(lFreed, sClock.mSleeps.size());
    }
}

TEST_F(SharedMemoryLinuxTransferTest, WriterAndReaderKeepPollingWhileTheSlotChanges)
{
    const auto lSetAfterFive = [&](size_t aFlag) {
        simulateTime();
        clearLog();
        mMapping->setHeader({0, 0, 1, 1, 20});
        sClock.mAfterSleep = [this, aFlag](size_t aSleeps) {
            EXPECT_EQ(0, (*mMapping)[0]);
            EXPECT_EQ(0, (*mMapping)[1]);
            if (5 == aSleeps) {
                (*mMapping)[aFlag] = 1;
            }
        };
    };
    lSetAfterFive(1);
    unsigned int lWritten = 0;
    OsSharedMemoryWrite(mDesc, message(20).data(), 20, lWritten);
    EXPECT_EQ(5U, sClock.mSleeps.size());
    EXPECT_EQ(20U, lWritten);

    lSetAfterFive(0);
    OsSharedMemoryWaitForActivity(mClient, 1);
    EXPECT_EQ(5U, sClock.mSleeps.size());
    mMapping->setHeader({0, 1, 1, 1, 0});
}

TEST_F(SharedMemoryLinuxTransferTest, TheWaitForAMessageLooksAtNoOtherFlag)
{
    simulateTime();
    mMapping->setHeader({0, 1, 1, 1, 20});
    EXPECT_THROW(OsSharedMemoryWaitForActivity(mClient, 0), OQCTimeOutEx);
    mMapping->setHeader({1, 0, 0, 0, 0});
    OsSharedMemoryWaitForActivity(mClient, 0);
    mMapping->setHeader({0, 1, 1, 1, 0});
}

// The library's accesses to the segment, one by one. The thread sanitizer makes the loads itself, some of them twice.

#if (defined(__x86_64__) || defined(__i386__)) && !defined(__SANITIZE_THREAD__)

/// Records each access to an attached segment. Its page is protected, so every access traps; it is let through as a
/// single instruction, after which the page is protected again. "r1": read at offset 1, "w1": write at offset 1.
class AccessTrace
{
public:
    explicit AccessTrace(void* apSegment)
    {
        sAccesses[0] = '\0';
        spPage = static_cast<unsigned char*>(apSegment);
        spTrace = this;
        struct sigaction lAction;
        memset(&lAction, 0, sizeof lAction);
        lAction.sa_flags = SA_SIGINFO;
        lAction.sa_sigaction = onAccess;
        sigaction(SIGSEGV, &lAction, &mOldAccess);
        lAction.sa_sigaction = onStep;
        sigaction(SIGTRAP, &lAction, &mOldStep);
        spAtCopy = &mAtCopy;
        mprotect(spPage, cPage, PROT_NONE);
    }
    ~AccessTrace() { end(); }

    /// Called once, behind the access of this name. The call has its own mapping of the segment.
    void callAfter(const char* acAccess, const std::function<void()>& acrCall)
    {
        mAwaited = acAccess;
        mCall = acrCall;
    }

    /// \return what was recorded, with "copy" where the message was copied
    std::string end()
    {
        if (nullptr != spPage) {
            mprotect(spPage, cPage, PROT_READ | PROT_WRITE);
            spPage = nullptr;
            spAtCopy = nullptr;
            sigaction(SIGSEGV, &mOldAccess, nullptr);
            sigaction(SIGTRAP, &mOldStep, nullptr);
        }
        return sAccesses;
    }

private:
    static const size_t cPage = 4096;
    static const int cSingleStep = 0x100;

    static void add(const char* acText)
    {
        const size_t lUsed = strlen(sAccesses);
        snprintf(sAccesses + lUsed, sizeof sAccesses - lUsed, "%s%s", 0 == lUsed ? "" : " ", acText);
    }
    static void onAccess(int, siginfo_t* apInfo, void* apContext)
    {
        const ptrdiff_t lOffset = static_cast<unsigned char*>(apInfo->si_addr) - spPage;
        if (nullptr == spPage || lOffset < 0 || static_cast<ptrdiff_t>(cPage) <= lOffset) {
            signal(SIGSEGV, SIG_DFL);
            return;
        }
        greg_t* const lpRegisters = static_cast<ucontext_t*>(apContext)->uc_mcontext.gregs;
        char lText[16];
        snprintf(lText, sizeof lText, "%c%d", 0 == (lpRegisters[REG_ERR] & 2) ? 'r' : 'w', static_cast<int>(lOffset));
        add(lText);
        spTrace->mLast = lText;
        mprotect(spPage, cPage, PROT_READ | PROT_WRITE);
        lpRegisters[REG_EFL] |= cSingleStep;
    }
    static void onStep(int, siginfo_t*, void* apContext)
    {
        static_cast<ucontext_t*>(apContext)->uc_mcontext.gregs[REG_EFL] &= ~static_cast<greg_t>(cSingleStep);
        mprotect(spPage, cPage, PROT_NONE);
        if (spTrace->mCall && spTrace->mAwaited == spTrace->mLast) {
            std::function<void()> lCall;
            lCall.swap(spTrace->mCall);
            lCall();
        }
    }

    static unsigned char* spPage;
    static AccessTrace* spTrace;
    static char sAccesses[512];
    std::string mLast;
    std::string mAwaited;
    std::function<void()> mCall;
    struct sigaction mOldAccess;
    struct sigaction mOldStep;
    std::function<void(void*, const void*, unsigned int)> mAtCopy = [](void* apTo, const void* acFrom,
                                                                       unsigned int aCount) {
        add("copy");
        mprotect(spPage, cPage, PROT_READ | PROT_WRITE);
        memcpy(apTo, acFrom, aCount);
        mprotect(spPage, cPage, PROT_NONE);
    };
};
unsigned char* AccessTrace::spPage = nullptr;
AccessTrace* AccessTrace::spTrace = nullptr;
char AccessTrace::sAccesses[512];

/// The caller's count lies in the traced page too, at offset 64, so that its place in the order shows.
class SharedMemoryLinuxAccessTest : public SharedMemoryLinuxTransferTest
{
protected:
    void SetUp() override
    {
        SharedMemoryLinuxTransferTest::SetUp();
        mpDone = reinterpret_cast<unsigned int*>(reinterpret_cast<unsigned char*>(mDesc.shm_addr) + 64);
    }

    unsigned int* mpDone;
};

TEST_F(SharedMemoryLinuxAccessTest, WriteTestsTheClientThenTheServerThenTheSlotAndMarksItLast)
{
    const Bytes lMessage = message(20);
    AccessTrace lTrace(mDesc.shm_addr);
    OsSharedMemoryWrite(mDesc, lMessage.data(), 20, *mpDone);
    EXPECT_EQ("r3 r2 r1 copy w4 w64 w1 w0", lTrace.end());
    EXPECT_EQ(20U, *mpDone);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
}

TEST_F(SharedMemoryLinuxAccessTest, ACancelledWriteLooksAtTheReadyFlagsOnly)
{
    const Bytes lMessage = message(20);
    for (const Numbers& lrReady : {Numbers{0, 0}, Numbers{1, 0}, Numbers{0, 1}}) {
        mMapping->setHeader({0, 1, lrReady[0], lrReady[1], 0});
        AccessTrace lTrace(mDesc.shm_addr);
        OsSharedMemoryWrite(mDesc, lMessage.data(), 20, *mpDone);
        EXPECT_EQ(1U == lrReady[1] ? "r3 r2" : "r3", lTrace.end()) << "the caller's count is not to be touched";
    }
}

TEST_F(SharedMemoryLinuxAccessTest, ReadTakesTheLengthThenStoresTheCountThenCopiesAndMarksTheSlotLast)
{
    fill(message(20));
    Bytes lBuffer(58);
    AccessTrace lTrace(mDesc.shm_addr);
    OsSharedMemoryRead(mDesc, lBuffer.data(), 58, *mpDone);
    EXPECT_EQ("r0 r4 w64 copy w0 w1", lTrace.end());
    EXPECT_EQ(20U, *mpDone);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 20}), mMapping->header());
}

TEST_F(SharedMemoryLinuxAccessTest, AReadWithoutAMessageLooksAtItsFlagOnly)
{
    Bytes lBuffer(58);
    AccessTrace lTrace(mDesc.shm_addr);
    EXPECT_THROW(OsSharedMemoryRead(mDesc, lBuffer.data(), 58, *mpDone), OQCTryAgainEx);
    EXPECT_EQ("r0", lTrace.end());
}

TEST_F(SharedMemoryLinuxAccessTest, AWaitTestsItsFlagOnceBeforeEachSleepAndNotAtTheEnd)
{
    simulateTime();
    sClock.mAfterSleep = [](size_t aSleeps) { sClock.mNow = cStart + (aSleeps < 3 ? 999 : 1000); };
    AccessTrace lTrace(mDesc.shm_addr);
    EXPECT_THROW(OsSharedMemoryWaitForActivity(mDesc, 1), OQCTimeOutEx);
    EXPECT_EQ("r0 r0 r0", lTrace.end());

    fill(message(20));
    simulateTime();
    sClock.mAfterSleep = [](size_t aSleeps) { sClock.mNow = cStart + (aSleeps < 4 ? 2999 : 3000); };
    AccessTrace lOther(mDesc.shm_addr);
    const unsigned char lByte = 1;
    EXPECT_THROW(OsSharedMemoryWrite(mDesc, &lByte, 1, *mpDone), OQCTimeOutEx);
    EXPECT_EQ("r3 r2 r1 r1 r1 r1", lOther.end());
}

TEST_F(SharedMemoryLinuxAccessTest, OpenStoresTheHeaderInOrderAndReadsNothing)
{
    for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
        OQShmDesc lDesc = mDesc;
        std::unique_ptr<AccessTrace> lTrace;
        std::function<void(void*)> lAtAttach = [&lTrace](void* apAddress) { lTrace.reset(new AccessTrace(apAddress)); };
        spAtAttach = &lAtAttach;
        OsSharedMemoryOpen(lDesc, lSide);
        spAtAttach = nullptr;
        ASSERT_TRUE(nullptr != lTrace);
        EXPECT_EQ(OQCM_Server == lSide ? "w0 w1 w4 w2" : "w3", lTrace->end());
        OsSharedMemoryClose(lDesc, OQCM_Client);
    }
}

// A server that opens again while a client writes

class SharedMemoryLinuxReopenTest : public SharedMemoryLinuxAccessTest
{
protected:
    /// A client writes 20 bytes. Behind its access of this name, a server opens the segment again.
    void writeWithOpenAfter(const char* acAccess)
    {
        const Bytes lMessage = message(20);
        OQShmDesc lServer = mDesc;
        AccessTrace lTrace(mDesc.shm_addr);
        lTrace.callAfter(acAccess, [&lServer] { OsSharedMemoryOpen(lServer, OQCM_Server); });
        unsigned int lWritten = 0;
        OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lWritten);
        EXPECT_EQ("r3 r2 r1 copy w4 w1 w0", lTrace.end());
        EXPECT_EQ(20U, lWritten) << "the writer does not notice";
        OsSharedMemoryClose(lServer, OQCM_Client);
    }
    /// \return length of the message that is read
    unsigned int readLength()
    {
        Bytes lBuffer(58);
        unsigned int lRead = 77;
        OsSharedMemoryRead(mDesc, lBuffer.data(), 58, lRead);
        return lRead;
    }
};

TEST_F(SharedMemoryLinuxReopenTest, OpenBetweenTheStoresOfAWriteLeavesBothFlagsSetAndLengthZero)
{
    writeWithOpenAfter("w1");
    EXPECT_EQ((Numbers{1, 1, 1, 1, 0}), mMapping->header());
    EXPECT_EQ(0U, readLength());
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), mMapping->header()) << "a read ends the state";

    writeWithOpenAfter("w1");
    unsigned int lWritten = 0;
    OsSharedMemoryWrite(mDesc, message(30).data(), 30, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 30}), mMapping->header()) << "a write ends it too, without a wait";
    EXPECT_EQ(30U, readLength());
}

TEST_F(SharedMemoryLinuxReopenTest, OpenBetweenTheLengthAndTheFlagsOfAWriteLeavesAFullSlotOfLengthZero)
{
    writeWithOpenAfter("w4");
    EXPECT_EQ((Numbers{1, 0, 1, 1, 0}), mMapping->header());
    EXPECT_EQ(0U, readLength());
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), mMapping->header());
}

TEST_F(SharedMemoryLinuxReopenTest, OpenBeforeTheLengthOrBehindTheFlagsOfAWriteKeepsOrDiscardsTheWholeMessage)
{
    writeWithOpenAfter("r1");
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
    EXPECT_EQ(20U, readLength());

    writeWithOpenAfter("w0");
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), mMapping->header());
}

#endif

// Real time

int64_t millisecondsOf(const std::function<void()>& acrOperation)
{
    const int64_t lStart = nanoseconds();
    acrOperation();
    return (nanoseconds() - lStart) / 1000000;
}

void report(const std::string& acrWhat, int64_t aFigure, const char* acUnit)
{
    ::testing::Test::RecordProperty(acrWhat, std::to_string(aFigure));
    std::cout << "[ measured ] " << acrWhat << ": " << aFigure << " " << acUnit << std::endl;
}

// The layer reckons in readings of whole milliseconds, so a wait may be that much shorter by another clock.
const int64_t cRounding = 2;
const int64_t cGenerous = 5000;

TEST_F(SharedMemoryLinuxTransferTest, AWaitOfOneSecondTakesOneSecond)
{
    const int64_t lTook = millisecondsOf(
        [&] { EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 1)); });
    EXPECT_LE(1000 - cRounding, lTook);
    EXPECT_GT(1000 + cGenerous, lTook);
    report("OneSecondTook", lTook, "ms");
}

TEST_F(SharedMemoryLinuxTransferTest, ASecondWriteWithoutAReadTimesOutAfterThreeSeconds)
{
    fill(message(20));
    unsigned int lWritten = 4711;
    const int64_t lTook = millisecondsOf([&] {
        EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWrite(mDesc, message(4).data(), 4, lWritten));
    });
    EXPECT_EQ((Lines{cWrite.entered(), cWait.entered(), cWait.trace(cTimedOut)}), logged());
    EXPECT_EQ(4711U, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), mMapping->header());
    EXPECT_LE(3000 - cRounding, lTook);
    EXPECT_GT(3000 + cGenerous, lTook);
    report("ThreeSecondsTook", lTook, "ms");
}

TEST_F(SharedMemoryLinuxTransferTest, AWaitOfZeroSecondsTakesOneSleep)
{
    const int64_t lTook = millisecondsOf(
        [&] { EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 0)); });
    EXPECT_LE(1, lTook);
    EXPECT_GT(cGenerous, lTook);
}

volatile sig_atomic_t sAlarms = 0;

TEST_F(SharedMemoryLinuxTransferTest, SignalsNeitherShortenNorProlongAWait)
{
    struct sigaction lAction;
    struct sigaction lOld;
    memset(&lAction, 0, sizeof lAction);
    lAction.sa_handler = [](int) { sAlarms = sAlarms + 1; };
    sigaction(SIGALRM, &lAction, &lOld);
    sAlarms = 0;
    const itimerval lEvery = {{0, 50000}, {0, 50000}};
    const itimerval lNever = {{0, 0}, {0, 0}};
    setitimer(ITIMER_REAL, &lEvery, nullptr);
    const int64_t lTook = millisecondsOf(
        [&] { EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, OsSharedMemoryWaitForActivity(mClient, 1)); });
    setitimer(ITIMER_REAL, &lNever, nullptr);
    sigaction(SIGALRM, &lOld, nullptr);
    EXPECT_LE(1, sAlarms);  // twenty, but while the process has no processor several become one
    EXPECT_LE(1000 - cRounding, lTook);
    EXPECT_GT(1000 + cGenerous, lTook);
    report("InterruptedSecondTook", lTook, "ms");
}

// Two processes

TEST_F(SharedMemoryLinuxTest, OneMessagePassesFromServerToClientWithTheLinesOfEachCall)
{
    const Bytes lMessage = message(100);
    mDesc.shm_size = 206;
    Peer lPeer([&](Peer& arServer) {
        arServer.meet();
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        arServer.signal();
        OsSharedMemoryWaitForActivity(mDesc, 30);
        Bytes lBuffer(200);
        unsigned int lRead = 0;
        OsSharedMemoryRead(mDesc, lBuffer.data(), 200, lRead);
        EXPECT_EQ(100U, lRead);
        lBuffer.resize(100);
        EXPECT_EQ(lMessage, lBuffer);
        OsSharedMemoryClose(mDesc, OQCM_Client);
        EXPECT_EQ((Lines{cOpen.entered(), cOpen.left(), cWait.entered(), cWait.left(), cRead.entered(), cRead.left(),
                         cClose.entered(), cClose.left()}),
                  logged());
    });
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    lPeer.signal();
    lPeer.meet();
    unsigned int lWritten = 0;
    OsSharedMemoryWrite(mDesc, lMessage.data(), 100, lWritten);
    EXPECT_EQ(100U, lWritten);
    EXPECT_EQ(0, lPeer.wait());
    EXPECT_EQ((Numbers{0, 1, 1, 1, 100}), Mapping(mDesc.shm_id).header());
    OsSharedMemoryClose(mDesc, OQCM_Server);
    EXPECT_EQ((Lines{cOpen.entered(), cOpen.left(), cWrite.entered(), cWait.entered(), cWait.left(), cWrite.left(),
                     cClose.entered(), cClose.left()}),
              logged());
}

const unsigned int cPatience = 60;  // seconds

/// A numbered message: number, seed of the rest, the rest, of varying length.
Bytes numbered(uint32_t aNumber, uint32_t aSeed, size_t aRoom)
{
    Bytes lMessage = message(8 + (aNumber * 37 + aSeed) % (aRoom - 7), aNumber ^ aSeed);
    memcpy(lMessage.data(), &aNumber, sizeof aNumber);
    memcpy(lMessage.data() + 4, &aSeed, sizeof aSeed);
    return lMessage;
}

/// \return messages written, all of them unless the layer threw
uint32_t writeNumbered(OQShmDesc& arDesc, uint32_t aCount, uint32_t aSeed)
{
    uint32_t lDone = 0;
    try {
        for (; lDone < aCount; ++lDone) {
            const Bytes lMessage = numbered(lDone, aSeed, arDesc.shm_size - 6U);
            unsigned int lWritten = 0;
            OsSharedMemoryWrite(arDesc, lMessage.data(), static_cast<unsigned int>(lMessage.size()), lWritten);
            if (lMessage.size() != lWritten) {
                break;
            }
        }
    } catch (const OQCException& acrFailure) {
        ADD_FAILURE() << "write " << lDone << ": " << acrFailure.what();
    }
    return lDone;
}

/// \return messages read that came in their order and whole
uint32_t readNumbered(OQShmDesc& arDesc, uint32_t aCount, uint32_t aSeed)
{
    const unsigned int lRoom = arDesc.shm_size - 6U;
    Bytes lBuffer(lRoom);
    uint32_t lRight = 0;
    try {
        for (uint32_t lNumber = 0; lNumber < aCount; ++lNumber) {
            unsigned int lRead = 0;
            OsSharedMemoryWaitForActivity(arDesc, cPatience);
            OsSharedMemoryRead(arDesc, lBuffer.data(), lRoom, lRead);
            const Bytes lExpected = numbered(lNumber, aSeed, lRoom);
            lRight += lExpected.size() == lRead && 0 == memcmp(lExpected.data(), lBuffer.data(), lRead) ? 1U : 0U;
        }
    } catch (const OQCException& acrFailure) {
        ADD_FAILURE() << "read after " << lRight << " right ones: " << acrFailure.what();
    }
    return lRight;
}

/// Passes so many messages from this process to another and then as many back.
void exchange(int aKey, uint32_t aCount, Time aTime, const std::function<void(OQShmDesc&)>& acrOpened = {})
{
    spAskedTexts = nullptr;
    OQShmDesc lServer = {aKey, 256, -77, nullptr};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    Peer lPeer([&](Peer& arServer) {
        keepNoLines();
        OQShmDesc lClient = {aKey, 256, -77, nullptr};
        OsSharedMemoryOpen(lClient, OQCM_Client);
        arServer.signal();
        arServer.meet();
        sClock.mTime = aTime;
        const OnProcessor lSecond(1);
        EXPECT_EQ(aCount, readNumbered(lClient, aCount, 55));
        arServer.signal();  // what is in the slot from now on is no longer the server's own
        EXPECT_EQ(aCount, writeNumbered(lClient, aCount, 77));
        OsSharedMemoryClose(lClient, OQCM_Client);
    });
    lPeer.meet();
    if (acrOpened) {
        acrOpened(lServer);
    }
    keepNoLines();
    sClock.mTime = aTime;
    lPeer.signal();
    const OnProcessor lFirst(0);
    EXPECT_EQ(aCount, writeNumbered(lServer, aCount, 55));
    lPeer.meet();
    EXPECT_EQ(aCount, readNumbered(lServer, aCount, 77));
    EXPECT_EQ(0, lPeer.wait());
    sClock.mTime = Time::Real;
    clearLog();
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, TwentyThousandMessagesEachWayArriveWholeAndInOrder)
{
    exchange(key(1), OQ_SANITIZED ? 2000 : 20000, Time::Spinning);
}

TEST_F(SharedMemoryLinuxTest, FiveHundredMessagesEachWayArriveWithThePollOfOneMillisecond)
{
    exchange(key(1), 500, Time::Real);
}

/// What an onlooker has seen, in memory that processes share.
struct Seen {
    volatile bool mEnd;
    volatile uint64_t mEmpty;
    volatile uint64_t mFull;
    volatile uint64_t mChanging;
    volatile uint64_t mBoth;

    uint64_t all() const { return mEmpty + mFull + mChanging + mBoth; }
};

/// Looks at both flags in one load each time, until told to end.
void lookOn(int aId, Seen& arSeen)
{
    const Mapping lMapping(aId);
    while (!arSeen.mEnd) {
        const uint16_t lFlags = lMapping.flags();
        unsigned char lFlag[2];
        memcpy(lFlag, &lFlags, sizeof lFlags);
        volatile uint64_t& lrCount = 0 != lFlag[0] ? (0 != lFlag[1] ? arSeen.mBoth : arSeen.mFull)
                                                   : (0 != lFlag[1] ? arSeen.mEmpty : arSeen.mChanging);
        lrCount = lrCount + 1;
    }
}

TEST_F(SharedMemoryLinuxTest, AnOnlookerNeverSeesBothFlagsSet)
{
    void* const lpShared = mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, lpShared);
    Seen& lrSeen = *new (lpShared) Seen();
    uint64_t lDuring = 0;
    for (unsigned int lRound = 0; 0 == lDuring && lRound < 100; ++lRound) {  // once, unless it was kept from looking
        memset(lpShared, 0, sizeof(Seen));
        uint64_t lBefore = 0;
        std::unique_ptr<Peer> lOnlooker;
        exchange(key(1), OQ_SANITIZED ? 2000 : 10000, Time::Spinning, [&](OQShmDesc& arDesc) {
            lOnlooker.reset(new Peer([&](Peer&) { lookOn(arDesc.shm_id, lrSeen); }));
            EXPECT_TRUE(eventually([&] { return 0 < lrSeen.mEmpty; }));
            EXPECT_EQ(0U, lrSeen.mFull);
            unsigned char lByte = 1;
            unsigned int lDone = 0;
            OsSharedMemoryWrite(arDesc, &lByte, 1, lDone);
            EXPECT_TRUE(eventually([&] { return 0 < lrSeen.mFull; }));
            OsSharedMemoryRead(arDesc, &lByte, 1, lDone);
            lBefore = lrSeen.all();
        });
        lDuring = lrSeen.all() - lBefore;
        lrSeen.mEnd = true;
        EXPECT_EQ(0, lOnlooker->wait());
        EXPECT_EQ(0U, lrSeen.mBoth);
    }
    EXPECT_LT(0U, lDuring) << "it did not look while messages passed";
    report("SeenWhileMessagesPassed", static_cast<int64_t>(lDuring), "states");
    report("SeenEmpty", static_cast<int64_t>(lrSeen.mEmpty), "times");
    report("SeenFull", static_cast<int64_t>(lrSeen.mFull), "times");
    report("SeenChanging", static_cast<int64_t>(lrSeen.mChanging), "times");
    munmap(lpShared, sizeof(Seen));
}

TEST_F(SharedMemoryLinuxTest, AWaitEndsSoonAfterTheMessage)
{
    const unsigned int cMessages = 200;
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    Peer lPeer([&](Peer& arReader) {
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        for (unsigned int lMessage = 0; lMessage < cMessages; ++lMessage) {
            arReader.meet();
            usleep(500 + lMessage * 211 % 2000);  // at any point of the reader's sleep
            const int64_t lSent = nanoseconds();
            unsigned char lBytes[sizeof lSent];
            memcpy(lBytes, &lSent, sizeof lSent);
            unsigned int lWritten = 0;
            OsSharedMemoryWrite(mDesc, lBytes, sizeof lBytes, lWritten);
            EXPECT_EQ(sizeof lBytes, lWritten);
            clearLog();
        }
        OsSharedMemoryClose(mDesc, OQCM_Client);
    });
    std::vector<int64_t> lTook;
    for (unsigned int lMessage = 0; lMessage < cMessages; ++lMessage) {
        lPeer.signal();
        OsSharedMemoryWaitForActivity(mDesc, cPatience);
        const int64_t lNow = nanoseconds();
        unsigned char lBytes[58];
        unsigned int lRead = 0;
        OsSharedMemoryRead(mDesc, lBytes, sizeof lBytes, lRead);
        int64_t lSent;
        ASSERT_EQ(sizeof lSent, lRead);
        memcpy(&lSent, lBytes, sizeof lSent);
        lTook.push_back(lNow - lSent);
        clearLog();
    }
    EXPECT_EQ(0, lPeer.wait());
    OsSharedMemoryClose(mDesc, OQCM_Server);
    std::sort(lTook.begin(), lTook.end());
    EXPECT_LE(0, lTook.front());
    EXPECT_GT(20000000, lTook[cMessages / 2])
        << "nanoseconds; not two milliseconds only for the sake of a busy machine";
    report("ReactionMedian", lTook[cMessages / 2] / 1000, "us");
    report("ReactionLargest", lTook.back() / 1000, "us");
}

}  // namespace
