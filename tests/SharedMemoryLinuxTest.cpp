// The mailbox in real segments: limits, time, the order of accesses, and two processes. outcomes/SharedMemory.cpp tests
// how each operation ends.

#include <limits.h>
#include <sched.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "OQCompanionSettings.h"
#include "Peer.h"

namespace
{

typedef std::vector<unsigned int> Numbers;
typedef std::vector<unsigned char> Bytes;

const char cTimedOut[] = "Timed out waiting on Shared Memory";
const char cTryAgain[] = "Shared Segment in use for writing: Try again";

/// Returns the system's state of a segment, all zero if the segment does not exist.
shmid_ds stateOf(const OQShmDesc& acrDesc)
{
    shmid_ds lState;
    memset(&lState, 0, sizeof lState);
    shmctl(acrDesc.shm_id, IPC_STAT, &lState);
    return lState;
}

/// Returns data_ready, segment_free, server_ready, client_ready, data_length.
Numbers headerOf(const OQShmDesc& acrDesc)
{
    const OQSSharedMemoryHeader& lrHeader = *acrDesc.shm_addr;
    return {lrHeader.data_ready, lrHeader.segment_free, lrHeader.server_ready, lrHeader.client_ready,
            lrHeader.data_length};
}

/// Bytes of the data area.
Bytes dataOf(const OQShmDesc& acrDesc, size_t aCount)
{
    const unsigned char* const lpData = reinterpret_cast<const unsigned char*>(acrDesc.shm_addr + 1);
    return Bytes(lpData, lpData + aCount);
}

/// Returns bytes that differ from those of other messages.
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

/// Writes a message. \return the count of written bytes
unsigned int write(OQShmDesc& arDesc, Bytes aMessage)
{
    const unsigned int lLength = static_cast<unsigned int>(aMessage.size());
    aMessage.push_back(0);  // so that an empty message also has an address
    unsigned int lWritten = 4711;
    OsSharedMemoryWrite(arDesc, aMessage.data(), lLength, lWritten);
    return lWritten;
}

/// Reads into a buffer of this length. \return the bytes read, as many as the count reports
Bytes read(OQShmDesc& arDesc, unsigned int aLength)
{
    Bytes lBuffer(aLength + 1, 0xCD);
    unsigned int lRead = 4711;
    OsSharedMemoryRead(arDesc, lBuffer.data(), aLength, lRead);
    EXPECT_EQ(0xCD, lBuffer[std::min(lRead, aLength)]) << "stored past the message";
    lBuffer.resize(std::min<size_t>(lRead, aLength));
    return lBuffer;
}

/// Gives up root's rights, because the system does not apply all checks to root.
void becomeNobody()
{
    if (0 == geteuid() && 0 != setuid(65534)) {
        _exit(77);
    }
}

/// A descriptor for a segment of 64 bytes.
class SharedMemoryLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        mDesc = {key(), 64, -77, nullptr};
    }

    OQShmDesc mDesc;
};

TEST_F(SharedMemoryLinuxTest, ASegmentLivesFromTheServersOpenToTheLastDetach)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    EXPECT_EQ(shmget(key(), 0, 0), mDesc.shm_id);
    EXPECT_EQ(64U, stateOf(mDesc).shm_segsz);
    EXPECT_EQ(0666U | SHM_LOCKED, stateOf(mDesc).shm_perm.mode);
    EXPECT_EQ(1U, stateOf(mDesc).shm_nattch);
    EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), headerOf(mDesc));
    EXPECT_EQ(Bytes(58, 0), dataOf(mDesc, 58));
    EXPECT_EQ(4711U, write(mDesc, message(20))) << "no client has opened yet";

    OQShmDesc lClient = {key(), 63, -77, nullptr};  // the client may request a smaller size
    OsSharedMemoryOpen(lClient, OQCM_Client);
    EXPECT_EQ(mDesc.shm_id, lClient.shm_id);
    EXPECT_EQ(2U, stateOf(mDesc).shm_nattch);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mDesc));
    OsSharedMemoryClose(mDesc, OQCM_Server);
    EXPECT_EQ(0666U | SHM_DEST, stateOf(lClient).shm_perm.mode);
    EXPECT_EQ(1U, stateOf(lClient).shm_nattch);
    EXPECT_EQ(-1, shmget(key(), 0, 0));
    OsSharedMemoryClose(lClient, OQCM_Client);
    EXPECT_EQ(0U, stateOf(lClient).shm_perm.mode) << "the last detach destroys it";

    EXPECT_FAILURE(OQCClibStatFailedEx, 173, strerror(EINVAL), OsSharedMemoryClose(mDesc, OQCM_Server));
    EXPECT_FAILURE(OQCCloseFailedEx, 327, strerror(EINVAL), OsSharedMemoryClose(lClient, OQCM_Client));
}

TEST_F(SharedMemoryLinuxTest, ServerThatOpensAgainDiscardsTheMessageAndKeepsTheRest)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    OQShmDesc lClient = mDesc;
    OsSharedMemoryOpen(lClient, OQCM_Client);
    write(lClient, message(58));
    OQShmDesc lAgain = {key(), 64, -77, nullptr};
    OsSharedMemoryOpen(lAgain, OQCM_Server);
    EXPECT_EQ(mDesc.shm_id, lAgain.shm_id);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mDesc));
    EXPECT_EQ(message(58), dataOf(mDesc, 58));
    EXPECT_FAILURE(OQCTryAgainEx, 322, cTryAgain, read(lAgain, 58));
    write(lAgain, message(3));  // the client still counts as ready
    EXPECT_EQ(message(3), read(lClient, 58));
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lAgain, OQCM_Client);
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, SegmentsOf1To65535BytesCanBeOpenedAndHoldMessagesFrom6BytesOn)
{
    for (const unsigned short lSize : std::vector<unsigned short>{1, 2, 3, 4, 5, 6, 7, 65535}) {
        mDesc.shm_size = lSize;
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        OQShmDesc lClient = mDesc;
        OsSharedMemoryOpen(lClient, OQCM_Client);
        EXPECT_EQ(lSize, stateOf(mDesc).shm_segsz);
        EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mDesc));
        if (6 <= lSize) {
            const unsigned int lLength = lSize - 6U;
            EXPECT_EQ(lLength, write(mDesc, message(lLength)));
            EXPECT_EQ((Numbers{1, 0, 1, 1, lLength}), headerOf(lClient));
            EXPECT_TRUE(message(lLength) == read(lClient, lLength));
        }
        OsSharedMemoryClose(lClient, OQCM_Client);
        OsSharedMemoryClose(mDesc, OQCM_Server);
    }
}

TEST_F(SharedMemoryLinuxTest, OpenFailsWithoutASegmentWithASmallerOneAndWithoutPermission)
{
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOENT), OsSharedMemoryOpen(mDesc, OQCM_Client));
    EXPECT_EQ(-1, shmget(key(), 0, 0)) << "the client made it";
    const int lId = shmget(key(), 64, IPC_CREAT | IPC_EXCL | 0);
    EXPECT_EQ(0, inChild([&] {
                  becomeNobody();
                  for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
                      mDesc.shm_size = 65;
                      EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(EINVAL), OsSharedMemoryOpen(mDesc, lSide));
                      mDesc.shm_size = 64;
                      EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(EACCES), OsSharedMemoryOpen(mDesc, lSide));
                  }
              }));
    EXPECT_EQ(0, shmctl(lId, IPC_RMID, nullptr));
}

TEST_F(SharedMemoryLinuxTest, ServerOpenFailsAtTheLimitOfLockedMemoryAndGoesOnWhenItIsRepeated)
{
    EXPECT_EQ(0, inChild([&] {
                  becomeNobody();
                  rlimit lUsual;
                  getrlimit(RLIMIT_MEMLOCK, &lUsual);
                  const rlimit lNone = {0, lUsual.rlim_max};
                  setrlimit(RLIMIT_MEMLOCK, &lNone);
                  EXPECT_FAILURE(OQCFileLockFailedEx, 330, strerror(EPERM), OsSharedMemoryOpen(mDesc, OQCM_Server));
                  EXPECT_EQ(0666U, stateOf(mDesc).shm_perm.mode) << "locked, or there is no segment";
                  EXPECT_EQ(0U, stateOf(mDesc).shm_nattch);
                  setrlimit(RLIMIT_MEMLOCK, &lUsual);
                  const int lId = mDesc.shm_id;
                  OsSharedMemoryOpen(mDesc, OQCM_Server);
                  EXPECT_EQ(lId, mDesc.shm_id);
                  OsSharedMemoryClose(mDesc, OQCM_Server);
              }));
}

TEST_F(SharedMemoryLinuxTest, TheExceptionHasTheTextThatTheCompanionCopied)
{
    char* lpBuffer = nullptr;
    substitute::ClibStrerror.instead(
        [&](char* apBuffer, unsigned int) { return strcpy(lpBuffer = apBuffer, "the error"); });
    substitute::ClibStrcpy.instead([&](char* apTo, const char*) {
        EXPECT_EQ(static_cast<void*>(lpBuffer), apTo);
        return strcpy(apTo, "what the copy left");
    });
    const Recording lRecording;
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "what the copy left", OsSharedMemoryOpen(mDesc, OQCM_Client));
}

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
    EXPECT_EQ(58U, write(mDesc, message(58)));
    OsSharedMemoryWaitForActivity(mDesc, 0);
    EXPECT_EQ(message(58), read(mDesc, 58));

    OQShmDesc lOther = {key(), 64, -77, nullptr};
    EXPECT_FAILURE(OQCOpenFailedEx, 326, strerror(ENOENT), OsSharedMemoryOpen(lOther, OQCM_Client));
    OsSharedMemoryOpen(lOther, OQCM_Server);
    EXPECT_NE(mDesc.shm_id, lOther.shm_id) << "not a new segment";
    EXPECT_EQ((Numbers{0, 1, 1, 0, 0}), headerOf(lOther));
    EXPECT_EQ((Numbers{0, 1, 1, 1, 58}), headerOf(mDesc));
    OsSharedMemoryClose(lOther, OQCM_Server);

    OsSharedMemoryClose(mDesc, OQCM_Client);
    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait());
}

TEST_F(SharedMemoryLinuxTest, ServerGoesOnWhenTheClientHasGoneAndTheReadyFlagsStay)
{
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    EXPECT_EQ(0, inChild([&] {
                  OsSharedMemoryOpen(mDesc, OQCM_Client);
                  OsSharedMemoryClose(mDesc, OQCM_Client);
              }));
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mDesc));
    EXPECT_EQ(5U, write(mDesc, message(5)));
    EXPECT_EQ(0, inChild([&] {
                  OsSharedMemoryOpen(mDesc, OQCM_Client);
                  OsSharedMemoryWaitForActivity(mDesc, 0);
                  EXPECT_EQ(message(5), read(mDesc, 58));
                  OsSharedMemoryClose(mDesc, OQCM_Client);
              }));
    OsSharedMemoryClose(mDesc, OQCM_Server);
}

/// Simulates the clock for the operations of this thread: only sleeps advance the time.
class SimulatedTime
{
public:
    explicit SimulatedTime(int64_t aStart = cStart) : mNow(aStart)
    {
        substitute::ClibGetTime.instead([this](long& arSeconds, unsigned short& arMilliseconds) {
            ++mReadings;
            arSeconds = static_cast<long>(mNow / 1000);
            arMilliseconds = static_cast<unsigned short>(mNow % 1000);
        });
        substitute::ClibSleepMS.instead([this](unsigned long aMilliseconds) {
            EXPECT_EQ(1UL, aMilliseconds);
            ++mNow;
            ++mSleeps;
            mAfterSleep();
        });
    }
    ~SimulatedTime() { SubstituteBase::resetAll(); }
    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

    static const int64_t cStart = 2000000000998;  // 2 milliseconds before a full second
    int64_t mNow;
    int mSleeps = 0;
    int mReadings = 0;
    std::function<void()> mAfterSleep = [] {};

private:
    const Recording mRecording;
};
const int64_t SimulatedTime::cStart;

/// A segment of 64 bytes that both sides have opened at two addresses.
class SharedMemoryLinuxTransferTest : public SharedMemoryLinuxTest
{
protected:
    void SetUp() override
    {
        SharedMemoryLinuxTest::SetUp();
        OsSharedMemoryOpen(mDesc, OQCM_Server);
        mClient = mDesc;
        OsSharedMemoryOpen(mClient, OQCM_Client);
    }
    void TearDown() override
    {
        OsSharedMemoryClose(mClient, OQCM_Client);
        OsSharedMemoryClose(mDesc, OQCM_Server);
        SharedMemoryLinuxTest::TearDown();
    }
    /// Waits in simulated time. \return the number of sleeps, negative if the wait timed out
    int waited(unsigned int aSeconds, const std::function<void(SimulatedTime&)>& acrAfterSleep,
               int64_t aStart = SimulatedTime::cStart)
    {
        mDesc.shm_addr->data_ready = 0;
        SimulatedTime lTime(aStart);
        lTime.mAfterSleep = [&] { acrAfterSleep(lTime); };
        try {
            OsSharedMemoryWaitForActivity(mClient, aSeconds);
        } catch (const OQCTimeOutEx&) {
            return -lTime.mSleeps;
        }
        EXPECT_EQ(lTime.mSleeps + 1, lTime.mReadings);
        return lTime.mSleeps;
    }
    /// The clock jumps in the first sleep to aElapsed milliseconds after the start. The message arrives in the second.
    int waitedWithJump(unsigned int aSeconds, int64_t aElapsed, int64_t aStart = SimulatedTime::cStart)
    {
        return waited(
            aSeconds,
            [&](SimulatedTime& arTime) {
                arTime.mNow = aStart + aElapsed;
                mDesc.shm_addr->data_ready = 2 == arTime.mSleeps;
            },
            aStart);
    }

    OQShmDesc mClient;
};

TEST_F(SharedMemoryLinuxTransferTest, MessagesOfEveryLengthThatFitsAreWrittenAndRead)
{
    for (unsigned int lLength = 0; lLength <= 58; ++lLength) {
        memset(mClient.shm_addr + 1, 0xEE, 58);
        EXPECT_EQ(lLength, write(mDesc, message(lLength)));
        EXPECT_EQ((Numbers{1, 0, 1, 1, lLength}), headerOf(mClient));
        Bytes lData = message(lLength);
        lData.resize(58, 0xEE);
        EXPECT_EQ(lData, dataOf(mClient, 58));
        EXPECT_EQ(message(lLength), read(mClient, 58));
        EXPECT_EQ((Numbers{0, 1, 1, 1, lLength}), headerOf(mClient));
    }
}

TEST_F(SharedMemoryLinuxTransferTest, TheLengthIsCutTo16Bits)
{
    // The check accepts such a length only for a segment smaller than the header. Local memory replaces its mapping.
    std::vector<uint16_t> lMemory(40000);
    OQShmDesc lSmall = {key(1), 5, 0, reinterpret_cast<OQSSharedMemoryHeader*>(lMemory.data())};
    lSmall.shm_addr->segment_free = lSmall.shm_addr->server_ready = lSmall.shm_addr->client_ready = 1;
    const Bytes lMessage = message(65539);
    EXPECT_EQ(65539U, write(lSmall, lMessage));
    EXPECT_EQ(3U, lSmall.shm_addr->data_length);
    EXPECT_EQ(0, memcmp(lMessage.data(), reinterpret_cast<unsigned char*>(lMemory.data()) + 6, 65539));
    EXPECT_EQ(Bytes(lMessage.begin(), lMessage.begin() + 3), read(lSmall, 65539));
}

TEST_F(SharedMemoryLinuxTransferTest, ASideThatReadsAfterItsOwnWriteGetsItsOwnMessage)
{
    for (OQShmDesc* const lpSide : {&mDesc, &mClient}) {
        write(*lpSide, message(12));
        OsSharedMemoryWaitForActivity(*lpSide, 5);
        EXPECT_EQ(message(12), read(*lpSide, 12));
    }
}

// The wait, in simulated time

TEST_F(SharedMemoryLinuxTransferTest, AMessageAfter999MillisecondsIsInTimeAndOneAtTheDeadlineIsNot)
{
    for (const int lArrival : {1, 2, 3, 999, 1000}) {
        EXPECT_EQ(lArrival < 1000 ? lArrival : -1000,
                  waited(1, [&](SimulatedTime& arTime) { mDesc.shm_addr->data_ready = lArrival == arTime.mSleeps; }));
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AClockThatStandsOrGoesBackToTheStartKeepsTheWaitGoing)
{
    EXPECT_EQ(5000, waited(1, [&](SimulatedTime& arTime) {
                  arTime.mNow = SimulatedTime::cStart;
                  mDesc.shm_addr->data_ready = 5000 == arTime.mSleeps;
              }));
}

TEST_F(SharedMemoryLinuxTransferTest, AClockThatIsSetEndsTheWaitBeforeTheStartAndBeyondTheLimit)
{
    for (const int64_t lStart : {SimulatedTime::cStart, int64_t(0), int64_t(2147483000) * 1000 + 999}) {
        EXPECT_EQ(2, waitedWithJump(100, 0, lStart));
        EXPECT_EQ(2, waitedWithJump(100, 99999, lStart));
        EXPECT_EQ(-1, waitedWithJump(100, 100000, lStart));
    }
    for (const int64_t lElapsed : {-1, -1000, -3600000}) {
        EXPECT_EQ(-1, waitedWithJump(UINT_MAX, lElapsed));
    }
}

TEST_F(SharedMemoryLinuxTransferTest, LimitsAreMultipliedIn32BitsAndComparedIn64)
{
    struct Row {
        unsigned int mSeconds;
        int64_t mLimit;  // milliseconds
    };
    for (const Row& lrRow : {Row{1, 1000}, Row{2147484, 2147484000}, Row{4294967, 4294967000}, Row{4294968, 704},
                             Row{4294969, 1704}, Row{UINT_MAX, 4294966296}}) {
        EXPECT_EQ(2, waitedWithJump(lrRow.mSeconds, lrRow.mLimit - 1)) << lrRow.mSeconds;
        EXPECT_EQ(-1, waitedWithJump(lrRow.mSeconds, lrRow.mLimit)) << lrRow.mSeconds;
        EXPECT_EQ(-1, waitedWithJump(lrRow.mSeconds, 4294967296 + 5)) << lrRow.mSeconds;
    }
}

TEST_F(SharedMemoryLinuxTransferTest, AWriteGoesOnWhenAReadEmptiesTheSlotWithin3Seconds)
{
    for (const int lFreed : {1, 2999, 3000}) {
        *mClient.shm_addr = {0, 1, 1, 1, 0};
        write(mDesc, message(30, 1));
        SimulatedTime lTime;
        lTime.mAfterSleep = [&] {
            if (lFreed == lTime.mSleeps) {
                EXPECT_EQ(message(30, 1), read(mClient, 58));
            }
        };
        if (lFreed < 3000) {
            EXPECT_EQ(20U, write(mDesc, message(20, 2)));
            EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), headerOf(mClient));
            EXPECT_EQ(message(20, 2), dataOf(mClient, 20));
        } else {
            EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, write(mDesc, message(20, 2)));
            EXPECT_EQ((Numbers{0, 1, 1, 1, 30}), headerOf(mClient));
        }
        EXPECT_EQ(lFreed, lTime.mSleeps);
    }
}

TEST_F(SharedMemoryLinuxTransferTest, WriterAndReaderKeepPollingWhileTheSlotChanges)
{
    *mClient.shm_addr = {0, 0, 1, 1, 20};
    EXPECT_EQ(5, waited(1, [&](SimulatedTime& arTime) {
                  EXPECT_EQ((Numbers{0, 0, 1, 1, 20}), headerOf(mClient));
                  mDesc.shm_addr->data_ready = 5 == arTime.mSleeps;
              }));
    *mClient.shm_addr = {0, 0, 1, 1, 20};
    SimulatedTime lTime;
    lTime.mAfterSleep = [&] { mClient.shm_addr->segment_free = 5 == lTime.mSleeps; };
    EXPECT_EQ(7U, write(mDesc, message(7)));
    EXPECT_EQ(5, lTime.mSleeps);
}

// The library's single accesses to the segment. The thread sanitizer makes the loads itself, some twice.

#if (defined(__x86_64__) || defined(__i386__)) && !defined(__SANITIZE_THREAD__)

/// Records each access to an attached segment. The page is protected, so every access traps. The handler permits it for
/// a single step and then protects the page again. "r1": read at offset 1, "w1": write at offset 1.
class AccessTrace
{
public:
    /// \param[in] aCall  runs once, after the access of this name; must use another mapping of the segment
    explicit AccessTrace(void* apSegment, const std::string& acrAwaited = "", std::function<void()> aCall = {})
        : mAwaited(acrAwaited), mCall(aCall)
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
        substitute::ClibMemcpy.instead([](void* apTo, const void* acFrom, unsigned int aCount) {
            add("copy");
            mprotect(spPage, cPage, PROT_READ | PROT_WRITE);
            memcpy(apTo, acFrom, aCount);
            mprotect(spPage, cPage, PROT_NONE);
            return apTo;
        });
        mprotect(spPage, cPage, PROT_NONE);
    }
    ~AccessTrace() { end(); }

    /// \return the recorded accesses, with "copy" for the copy of the message
    std::string end()
    {
        if (nullptr != spPage) {
            mprotect(spPage, cPage, PROT_READ | PROT_WRITE);
            spPage = nullptr;
            mRecording.end();
            SubstituteBase::resetAll();
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

    inline static unsigned char* spPage = nullptr;
    inline static AccessTrace* spTrace = nullptr;
    inline static char sAccesses[512];
    std::string mLast;
    std::string mAwaited;
    std::function<void()> mCall;
    struct sigaction mOldAccess;
    struct sigaction mOldStep;
    Recording mRecording;
};
/// The caller's count is also in the traced page, at offset 64, so the trace shows when it is stored.
class SharedMemoryLinuxAccessTest : public SharedMemoryLinuxTransferTest
{
protected:
    void SetUp() override
    {
        SharedMemoryLinuxTransferTest::SetUp();
        mpDone = reinterpret_cast<unsigned int*>(reinterpret_cast<unsigned char*>(mDesc.shm_addr) + 64);
    }
    /// Runs a wait in which the clock reaches aEnd in this sleep, and expects a time-out. \return the recorded accesses
    std::string accessesUntil(int aSleep, int64_t aEnd, const std::function<void()>& acrOperation)
    {
        SimulatedTime lTime;
        lTime.mAfterSleep = [&] { lTime.mNow = SimulatedTime::cStart + aEnd - (lTime.mSleeps < aSleep ? 1 : 0); };
        AccessTrace lTrace(mDesc.shm_addr);
        EXPECT_THROW(acrOperation(), OQCTimeOutEx);
        return lTrace.end();
    }
    /// Opens the segment once more. \return the recorded accesses
    std::string accessesOfOpen(OQEConnectionMode aSide)
    {
        OQShmDesc lDesc = mDesc;
        std::unique_ptr<AccessTrace> lTrace;
        substitute::shmat.instead([&lTrace](int aId, const void* acAddress, int aFlags) {
            void* const lpAddress = substitute::shmat.real(aId, acAddress, aFlags);
            lTrace.reset(new AccessTrace(lpAddress));
            return lpAddress;
        });
        {
            const Recording lRecording;
            OsSharedMemoryOpen(lDesc, aSide);
        }
        const std::string lAccesses = nullptr != lTrace ? lTrace->end() : "not attached";
        OsSharedMemoryClose(lDesc, OQCM_Client);
        return lAccesses;
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
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), headerOf(mClient));
}

TEST_F(SharedMemoryLinuxAccessTest, ACancelledWriteLooksAtTheReadyFlagsOnly)
{
    const Bytes lMessage = message(20);
    for (const OQSSharedMemoryHeader& lrHeader :
         {OQSSharedMemoryHeader{0, 1, 0, 0, 0}, {0, 1, 1, 0, 0}, {0, 1, 0, 1, 0}}) {
        *mClient.shm_addr = lrHeader;
        AccessTrace lTrace(mDesc.shm_addr);
        OsSharedMemoryWrite(mDesc, lMessage.data(), 20, *mpDone);
        EXPECT_EQ(1U == lrHeader.client_ready ? "r3 r2" : "r3", lTrace.end()) << "the write touches the count";
    }
}

TEST_F(SharedMemoryLinuxAccessTest, ReadTakesTheLengthThenStoresTheCountThenCopiesAndMarksTheSlotLast)
{
    write(mDesc, message(20));
    Bytes lBuffer(58);
    AccessTrace lTrace(mDesc.shm_addr);
    OsSharedMemoryRead(mDesc, lBuffer.data(), 58, *mpDone);
    EXPECT_EQ("r0 r4 w64 copy w0 w1", lTrace.end());
    EXPECT_EQ(20U, *mpDone);
    EXPECT_EQ((Numbers{0, 1, 1, 1, 20}), headerOf(mClient));
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
    EXPECT_EQ("r0 r0 r0", accessesUntil(3, 1000, [&] { OsSharedMemoryWaitForActivity(mDesc, 1); }));
    write(mDesc, message(20));
    const unsigned char lByte = 1;
    EXPECT_EQ("r3 r2 r1 r1 r1 r1", accessesUntil(4, 3000, [&] { OsSharedMemoryWrite(mDesc, &lByte, 1, *mpDone); }));
}

TEST_F(SharedMemoryLinuxAccessTest, OpenStoresTheHeaderInOrderAndReadsNothing)
{
    EXPECT_EQ("w0 w1 w4 w2", accessesOfOpen(OQCM_Server));
    EXPECT_EQ("w3", accessesOfOpen(OQCM_Client));
}

/// Returns the accesses of a function of the model in tests/model, as an AccessTrace shows them.
std::string accessesOfModel(const std::string& acrFunction)
{
    const std::map<std::string, std::string> lNumbers = {
        {"DATA_READY", "0"}, {"SEGMENT_FREE", "1"}, {"SERVER_READY", "2"}, {"CLIENT_READY", "3"}, {"LENGTH", "4"}};
    std::ifstream lModel(OQ_MAILBOX_MODEL);
    std::string lAccesses;
    std::string lLine;
    while (std::getline(lModel, lLine) && "inline " + acrFunction + "()" != lLine) {
    }
    while (std::getline(lModel, lLine) && "}" != lLine) {
        char lKind[32] = "";
        char lFirst[32] = "";
        char lSecond[32] = "";
        sscanf(lLine.c_str(), " %31[A-Z_](%31[^,)], %31[^,)]", lKind, lFirst, lSecond);
        const bool lIsStore = 0 == strcmp("STORE", lKind) || 0 == strcmp("RELEASE", lKind);
        const std::string lPlace = 0 == strcmp("LOAD", lKind) ? lSecond : lFirst;
        if (0 != lNumbers.count(lPlace)) {
            lAccesses += (lIsStore ? " w" : " r") + lNumbers.at(lPlace);
        } else if ("WORD0" == lPlace) {
            lAccesses += " copy";  // of all words
        }
    }
    return lAccesses.substr(std::min<size_t>(1, lAccesses.size()));
}

TEST_F(SharedMemoryLinuxAccessTest, TheModelMakesTheSameAccesses)
{
    const Bytes lMessage = message(20);
    unsigned int lDone = 0;
    AccessTrace lWrite(mDesc.shm_addr);
    OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lDone);
    EXPECT_EQ(accessesOfModel("write"), lWrite.end());
    Bytes lBuffer(58);
    AccessTrace lRead(mDesc.shm_addr);
    OsSharedMemoryRead(mDesc, lBuffer.data(), 58, lDone);
    EXPECT_EQ(accessesOfModel("read"), lRead.end());
    EXPECT_EQ(accessesOfModel("openAsServer"), accessesOfOpen(OQCM_Server));
    EXPECT_EQ(accessesOfModel("openAsClient"), accessesOfOpen(OQCM_Client));
}

class SharedMemoryLinuxReopenTest : public SharedMemoryLinuxAccessTest
{
protected:
    /// A client writes 20 bytes. After its access of this name, a server opens the segment again.
    void writeWithOpenAfter(const char* acAccess)
    {
        const Bytes lMessage = message(20);
        OQShmDesc lServer = mDesc;
        AccessTrace lTrace(mDesc.shm_addr, acAccess, [&lServer] { OsSharedMemoryOpen(lServer, OQCM_Server); });
        unsigned int lWritten = 0;
        OsSharedMemoryWrite(mDesc, lMessage.data(), 20, lWritten);
        EXPECT_EQ("r3 r2 r1 copy w4 w1 w0", lTrace.end());
        EXPECT_EQ(20U, lWritten) << "the writer does not notice";
        OsSharedMemoryClose(lServer, OQCM_Client);
    }
};

TEST_F(SharedMemoryLinuxReopenTest, OpenBetweenTheStoresOfAWriteLeavesBothFlagsSetAndLengthZero)
{
    writeWithOpenAfter("w1");
    EXPECT_EQ((Numbers{1, 1, 1, 1, 0}), headerOf(mClient));
    EXPECT_EQ(Bytes(), read(mDesc, 58));
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mClient)) << "a read ends the state";

    writeWithOpenAfter("w1");
    write(mDesc, message(30));
    EXPECT_EQ((Numbers{1, 0, 1, 1, 30}), headerOf(mClient)) << "a write ends it too, without a wait";
    EXPECT_EQ(message(30), read(mDesc, 58));
}

TEST_F(SharedMemoryLinuxReopenTest, OpenAtAnotherPlaceOfAWriteKeepsEmptiesOrDiscardsTheMessage)
{
    writeWithOpenAfter("r1");
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), headerOf(mClient));
    EXPECT_EQ(message(20), read(mDesc, 58));

    writeWithOpenAfter("w4");
    EXPECT_EQ((Numbers{1, 0, 1, 1, 0}), headerOf(mClient));
    EXPECT_EQ(Bytes(), read(mDesc, 58));
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mClient));

    writeWithOpenAfter("w0");
    EXPECT_EQ((Numbers{0, 1, 1, 1, 0}), headerOf(mClient));
}

#endif

// Real time

int64_t nanoseconds()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return static_cast<int64_t>(lNow.tv_sec) * 1000000000 + lNow.tv_nsec;
}

const int64_t cTolerance = 5000;  // milliseconds, for the sake of a busy machine

/// Expects a time-out after this number of milliseconds. The layer reads the clock in whole milliseconds, so a wait may
/// be up to two milliseconds shorter by a finer clock.
void expectTimeOutAfter(int64_t aMilliseconds, const std::function<void()>& acrOperation)
{
    const int64_t lStart = nanoseconds();
    EXPECT_FAILURE(OQCTimeOutEx, 323, cTimedOut, acrOperation());
    const int64_t lTook = (nanoseconds() - lStart) / 1000000;
    EXPECT_LE(std::max<int64_t>(aMilliseconds - 2, 1), lTook);
    EXPECT_GT(aMilliseconds + cTolerance, lTook);
    ::testing::Test::RecordProperty("TimeOutAfter" + std::to_string(aMilliseconds), std::to_string(lTook));
}

TEST_F(SharedMemoryLinuxTransferTest, WaitsOfZeroAndOneSecondTakeAMillisecondAndASecond)
{
    expectTimeOutAfter(1, [&] { OsSharedMemoryWaitForActivity(mClient, 0); });
    expectTimeOutAfter(1000, [&] { OsSharedMemoryWaitForActivity(mClient, 1); });
}

/// At each look the real time is up to ten years earlier or later than it should be.
TEST_F(SharedMemoryLinuxTransferTest, AClockThatIsSetMovesNoTimeOutOfTheMonotonicClock)
{
    const int64_t cTenYears = 10LL * 365 * 24 * 3600;
    int64_t lStep = 0;
    recordCompanion();
    substitute::clock_gettime.instead([&](clockid_t aClock, timespec* apTime) {
        const int lResult = substitute::clock_gettime.real(aClock, apTime);
        if (CLOCK_REALTIME == aClock) {
            lStep = (lStep + 6700417) % (2 * cTenYears);
            apTime->tv_sec += static_cast<time_t>(lStep - cTenYears);
        }
        return lResult;
    });
    const auto lWait = [this] {
        const Recording lRecording;
        const int64_t lStart = nanoseconds();
        EXPECT_THROW(OsSharedMemoryWaitForActivity(mClient, 1), OQCTimeOutEx);
        return (nanoseconds() - lStart) / 1000000;
    };
    EXPECT_GT(500, lWait()) << "the real time ends the wait";
    SetMonotonicTime(true);
    const int64_t lTook = lWait();
    SetMonotonicTime(false);
    EXPECT_LE(999, lTook);
    EXPECT_GT(1000 + cTolerance, lTook);
    RecordProperty("TimeOutAfter1000", std::to_string(lTook));
}

TEST_F(SharedMemoryLinuxTransferTest, ASecondWriteWithoutAReadTimesOutAfterThreeSeconds)
{
    write(mDesc, message(20));
    unsigned int lWritten = 4711;
    expectTimeOutAfter(3000, [&] { OsSharedMemoryWrite(mDesc, message(4).data(), 4, lWritten); });
    EXPECT_EQ(4711U, lWritten);
    EXPECT_EQ((Numbers{1, 0, 1, 1, 20}), headerOf(mClient));
    EXPECT_EQ(message(20), read(mClient, 58));
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
    expectTimeOutAfter(1000, [&] { OsSharedMemoryWaitForActivity(mClient, 1); });
    setitimer(ITIMER_REAL, &lNever, nullptr);
    sigaction(SIGALRM, &lOld, nullptr);
    EXPECT_LE(1, sAlarms);  // usually twenty: several become one while the process does not run
}

// Two processes

const unsigned int cPatience = 60;  // seconds

/// Polls without sleeps, on one of the processors that this process may use. Two processes then pass messages as fast
/// as possible, and on a busy machine neither waits for the time slice of the other.
void spinOn(int aProcessor)
{
    cpu_set_t lAllowed;
    cpu_set_t lOne;
    CPU_ZERO(&lOne);
    sched_getaffinity(0, sizeof lAllowed, &lAllowed);
    for (int lProcessor = 0, lFound = 0; lProcessor < CPU_SETSIZE; ++lProcessor) {
        if (CPU_ISSET(lProcessor, &lAllowed) && aProcessor == lFound++) {
            CPU_SET(lProcessor, &lOne);
            sched_setaffinity(0, sizeof lOne, &lOne);
        }
    }
    const bool lIsAlone = 1 < CPU_COUNT(&lAllowed);
    substitute::ClibSleepMS.instead([lIsAlone](unsigned long) {
        if (!lIsAlone) {
            sched_yield();
        }
    });
}

void writeMany(OQShmDesc& arDesc, unsigned int aCount, unsigned int aSeed)
{
    for (unsigned int lNumber = 0; lNumber < aCount; ++lNumber) {
        const size_t lLength = 8 + (lNumber * 37 + aSeed) % 243;
        ASSERT_EQ(lLength, write(arDesc, message(lLength, lNumber ^ aSeed)));
    }
}

/// Expects that all messages arrive complete and in order.
void readMany(OQShmDesc& arDesc, unsigned int aCount, unsigned int aSeed)
{
    for (unsigned int lNumber = 0; lNumber < aCount; ++lNumber) {
        OsSharedMemoryWaitForActivity(arDesc, cPatience);
        ASSERT_EQ(message(8 + (lNumber * 37 + aSeed) % 243, lNumber ^ aSeed), read(arDesc, 250)) << lNumber;
    }
}

/// Passes aCount messages from one process to another, then aCount messages back.
void exchange(int aKey, unsigned int aCount, bool aSpins, const std::function<void(OQShmDesc&)>& acrOpened = {})
{
    OQShmDesc lServer = {aKey, 256, -77, nullptr};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OQShmDesc lClient = lServer;
    OsSharedMemoryOpen(lClient, OQCM_Client);
    if (acrOpened) {
        acrOpened(lServer);
    }
    EXPECT_EQ(0, inChild([&] {
                  keepNoEvents();
                  Peer lPeer([&](Peer& arServer) {
                      if (aSpins) {
                          spinOn(1);
                      }
                      const Recording lRecording;
                      readMany(lClient, aCount, 55);
                      arServer.signal();  // the server has no unread message in the slot any more
                      writeMany(lClient, aCount, 77);
                  });
                  if (aSpins) {
                      spinOn(0);
                  }
                  const Recording lRecording;
                  writeMany(lServer, aCount, 55);
                  if (!::testing::Test::HasFailure()) {  // otherwise ~Peer() kills the peer
                      lPeer.meet();
                      readMany(lServer, aCount, 77);
                      EXPECT_EQ(0, lPeer.wait());
                  }
              }));
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(SharedMemoryLinuxTest, TwentyThousandMessagesEachWayArriveWholeAndInOrder)
{
    exchange(key(1), OQ_SLOW ? 2000 : 20000, true);
}

TEST_F(SharedMemoryLinuxTest, FiveHundredMessagesEachWayArriveWithThePollOfOneMillisecond)
{
    exchange(key(1), 500, false);
}

/// The number of times that an observer has seen each state of the slot, in shared memory.
struct Seen {
    volatile bool mEnd;
    volatile uint64_t mFree[2];  ///< without a message, by segment_free
    volatile uint64_t mFull[2];  ///< with a message, by segment_free

    uint64_t all() const { return mFree[0] + mFree[1] + mFull[0] + mFull[1]; }
};

/// Repeatedly reads both flags with one load, until mEnd is set.
void lookOn(const OQShmDesc& acrDesc, Seen& arSeen)
{
    while (!arSeen.mEnd) {
        const uint16_t lFlags = *reinterpret_cast<volatile uint16_t*>(acrDesc.shm_addr);
        unsigned char lFlag[2];
        memcpy(lFlag, &lFlags, sizeof lFlags);
        volatile uint64_t& lrCount = (0 != lFlag[0] ? arSeen.mFull : arSeen.mFree)[0 != lFlag[1] ? 1 : 0];
        lrCount = lrCount + 1;
    }
}

TEST_F(SharedMemoryLinuxTest, AnOnlookerNeverSeesBothFlagsSet)
{
    void* const lpShared = mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, lpShared);
    Seen& lrSeen = *new (lpShared) Seen();
    uint64_t lDuring = 0;
    for (int lRound = 0; 0 == lDuring && !HasFailure() && lRound < 100; ++lRound) {  // usually one round
        memset(lpShared, 0, sizeof(Seen));
        uint64_t lBefore = 0;
        std::unique_ptr<Peer> lOnlooker;
        exchange(key(1), OQ_SLOW ? 2000 : 10000, true, [&](OQShmDesc& arDesc) {
            lOnlooker.reset(new Peer([&](Peer&) { lookOn(arDesc, lrSeen); }));
            EXPECT_TRUE(eventually([&] { return 0 < lrSeen.mFree[1]; }));
            EXPECT_EQ(0U, lrSeen.mFull[0]);
            write(arDesc, message(1));
            EXPECT_TRUE(eventually([&] { return 0 < lrSeen.mFull[0]; }));
            read(arDesc, 1);
            lBefore = lrSeen.all();
        });
        lDuring = lrSeen.all() - lBefore;
        lrSeen.mEnd = true;
        EXPECT_EQ(0, lOnlooker->wait());
        EXPECT_EQ(0U, lrSeen.mFull[1]);
    }
    EXPECT_LT(0U, lDuring) << "it did not look while messages passed";
    RecordProperty("SeenWhileMessagesPassed", std::to_string(lDuring));
    munmap(lpShared, sizeof(Seen));
}

TEST_F(SharedMemoryLinuxTest, AWaitEndsSoonAfterTheMessage)
{
    const unsigned int cMessages = 200;
    OsSharedMemoryOpen(mDesc, OQCM_Server);
    keepNoEvents();
    Peer lPeer([&](Peer& arReader) {
        OsSharedMemoryOpen(mDesc, OQCM_Client);
        for (unsigned int lMessage = 0; lMessage < cMessages; ++lMessage) {
            arReader.meet();
            usleep(500 + lMessage * 211 % 2000);  // arrives at any point of the reader's sleep
            const int64_t lSent = nanoseconds();
            Bytes lBytes(sizeof lSent);
            memcpy(lBytes.data(), &lSent, sizeof lSent);
            EXPECT_EQ(sizeof lSent, write(mDesc, lBytes));
        }
        OsSharedMemoryClose(mDesc, OQCM_Client);
    });
    std::vector<int64_t> lTook;
    for (unsigned int lMessage = 0; lMessage < cMessages; ++lMessage) {
        lPeer.signal();
        OsSharedMemoryWaitForActivity(mDesc, cPatience);
        const int64_t lNow = nanoseconds();
        const Bytes lBytes = read(mDesc, 58);
        int64_t lSent;
        ASSERT_EQ(sizeof lSent, lBytes.size());
        memcpy(&lSent, lBytes.data(), sizeof lSent);
        lTook.push_back(lNow - lSent);
    }
    EXPECT_EQ(0, lPeer.wait());
    OsSharedMemoryClose(mDesc, OQCM_Server);
    std::sort(lTook.begin(), lTook.end());
    EXPECT_LE(0, lTook.front());
    EXPECT_GT(20000000, lTook[cMessages / 2])
        << "nanoseconds; not two milliseconds only for the sake of a busy machine";
    RecordProperty("ReactionMedianNanoseconds", std::to_string(lTook[cMessages / 2]));
}

}  // namespace
