// A server and a client pass numbered messages through a mailbox. In each round the program kills one of them: at a
// random moment, after a random number of machine instructions of an operation, or while it opens the segment. A new
// process replaces it, and the server (the new or the surviving one) opens the segment again. After every round:
//
// - the channel works: another 20 messages pass;
// - every message that was read is complete, and none was read twice;
// - at most one written message was lost: the one in the slot.
//
// At the end no segment and no process exists.
//
// Before the first round, the program only stops each side for a moment, after 0, 1, 2, ... instructions of an
// operation.
//
//   KillSoak ROUNDS

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <set>

#include "Soak.h"

namespace
{

const uint64_t cProof = 20;               // messages that must pass after the replacement
const size_t cRecords = 1 << 20;          // messages that may pass in one round
const double cPatience = 60;              // seconds
const unsigned int cLongestDelay = 2000;  // microseconds until a kill at a random moment
const unsigned int cMostSteps = 500;      // instructions; a write takes about 250

/// Thrown out of the layer's wait when the round is over. A process of a real product would give up at this point.
struct Interrupted {
};

struct Peer {
    std::atomic<bool> mOpen, mParked, mToStop, mToOpenAgain, mToBeStepped;
};

/// Memory that all processes share: the state of each side, and the messages that were written and read.
struct Ledger {
    std::atomic<bool> mPaused;
    Peer mPeers[2];                    // client, server
    std::atomic<uint64_t> mStarted;    // number of the last write begun
    std::atomic<uint64_t> mCompleted;  // number of the last write that returned
    std::atomic<uint64_t> mReads;      // reads that returned in this round
    uint64_t mRecords[cRecords];       // numbers of the messages that were read
    Message mReading;                  // the reader's buffer
};

Ledger* spLedger;
key_t sKey;

}  // namespace

// The clock stands still, so that the layer's waits never time out. How long a side is stopped depends on the machine.
void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds)
{
    arSeconds = 0;
    arMilliseconds = 0;
}

void ClibSleepMS(unsigned long)
{
    if (spLedger->mPaused) {
        throw Interrupted();
    }
    sched_yield();
}

namespace
{

/// Waits for a condition with a time limit, in any process of this program.
void waitUntil(const char* acWhat, const std::function<bool()>& acrCondition)
{
    const double lStart = secondsNow();
    while (!acrCondition()) {
        if (secondsNow() - lStart > cPatience) {
            fprintf(stderr, "waited in vain for: %s\n", acWhat);
            exit(1);
        }
        usleep(20);
    }
}

/// If the supervisor requests it, stops so that the supervisor can execute this process in single steps.
void stopIfToBeStepped(Peer& arMine)
{
    if (arMine.mToBeStepped.exchange(false)) {
        ptrace(PTRACE_TRACEME, 0, NULL, NULL);
        raise(SIGSTOP);
    }
}

void writeOne(OQShmDesc& arDesc, Peer& arMine, uint64_t aNumber)
{
    Message lMessage;
    lMessage.make(aNumber);
    spLedger->mStarted = aNumber;
    unsigned int lWritten = 0;
    stopIfToBeStepped(arMine);
    OsSharedMemoryWrite(arDesc, lMessage.mBytes, lMessage.mLength, lWritten);
    CHECK(lMessage.mLength == lWritten);
    spLedger->mCompleted = aNumber;
}

void readOne(OQShmDesc& arDesc, Peer& arMine)
{
    OsSharedMemoryWaitForActivity(arDesc, static_cast<unsigned int>(cPatience));
    Message& lrMessage = spLedger->mReading;
    stopIfToBeStepped(arMine);
    OsSharedMemoryRead(arDesc, lrMessage.mBytes, sizeof lrMessage.mBytes, lrMessage.mLength);
    uint64_t lNumber;
    CHECK(lrMessage.isWhole(lNumber));
    CHECK(spLedger->mReads < cRecords);
    spLedger->mRecords[spLedger->mReads] = lNumber;
    ++spLedger->mReads;
}

/// Waits between two rounds. Only a server that the supervisor tells to open again accesses the channel.
void park(OQShmDesc& arDesc, Peer& arMine)
{
    arMine.mParked = true;
    while (spLedger->mPaused && !arMine.mToStop) {
        if (arMine.mToOpenAgain) {
            OQShmDesc lAgain = {sKey, cSegmentSize, 0, NULL};
            OsSharedMemoryOpen(lAgain, OQCM_Server);
            std::swap(lAgain, arDesc);
            OsSharedMemoryClose(lAgain, OQCM_Client);  // only detaches
            arMine.mToOpenAgain = false;
        }
        usleep(20);
    }
    arMine.mParked = false;
}

void live(OQEConnectionMode aSide, bool aWrites)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Peer& lrMine = spLedger->mPeers[aSide];
    OQShmDesc lDesc = {sKey, cSegmentSize, 0, NULL};
    OsSharedMemoryOpen(lDesc, aSide);
    lrMine.mOpen = true;
    uint64_t lNext = spLedger->mStarted + 1;
    while (!lrMine.mToStop) {
        try {
            if (spLedger->mPaused) {
                throw Interrupted();
            }
            if (aWrites) {
                writeOne(lDesc, lrMine, lNext);
                ++lNext;
            } else {
                readOne(lDesc, lrMine);
            }
        } catch (const Interrupted&) {
            park(lDesc, lrMine);
        }
    }
    OsSharedMemoryClose(lDesc, aSide);
}

/// Controls the two sides and checks the messages.
class Supervisor
{
public:
    Supervisor(OQEConnectionMode aWriter, unsigned int aSeed) : mWriter(aWriter), mRandom(aSeed)
    {
        spLedger->mPaused = true;
        for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
            begin(lSide);
            waitUntil("the first open", [&] { return spLedger->mPeers[lSide].mOpen.load(); });
        }
        mLast = spLedger->mStarted;
        resume();
    }

    /// Stops each side after 0, 1, 2, ... instructions of its operation, for a moment. The other side continues. No
    /// message may be lost.
    void sweep(unsigned int aSteps)
    {
        for (const OQEConnectionMode lSide : {OQCM_Server, OQCM_Client}) {
            for (unsigned int lSteps = 0; lSteps < aSteps; ++lSteps) {
                step(lSide, lSteps, [] { return false; });
                usleep(100);
                const uint64_t lReads = spLedger->mReads;
                CHECK(0 == ptrace(PTRACE_DETACH, mPids[lSide], NULL, NULL));
                waitUntil("messages to pass after a stop", [&] { return lReads + 3 <= spLedger->mReads; });
                if (0 == lSteps % 50) {
                    spLedger->mPaused = true;
                    waitUntil("both sides to park",
                              [] { return spLedger->mPeers[0].mParked && spLedger->mPeers[1].mParked; });
                    account();
                    resume();
                }
            }
        }
        mHeld = 2 * aSteps;
    }

    void round()
    {
        const OQEConnectionMode lVictim = 0 == below(2) ? OQCM_Client : OQCM_Server;
        const OQEConnectionMode lOther = OQCM_Client == lVictim ? OQCM_Server : OQCM_Client;
        switch (below(3)) {
            case 0:
                usleep(below(cLongestDelay));
                kill(mPids[lVictim], SIGKILL);
                break;
            case 1:
                killAfterSteps(lVictim, below(cMostSteps), [] { return false; });
                ++mStepped;
                break;
            default:
                killAfterSteps(lVictim, 100 * cMostSteps, [] { return isChanging(header()); });
                ++mBetween;
        }
        reap(lVictim);
        spLedger->mPaused = true;
        waitUntil("the other side to park", [&] { return spLedger->mPeers[lOther].mParked.load(); });
        countState();
        account();
        // A message that the killed reader copied completely counts as read, even if the reader did not record it.
        uint64_t lHeld;
        if (lVictim != mWriter && spLedger->mReading.isWhole(lHeld) && lHeld == mLast + 1) {
            mLast = lHeld;
        }
        mMayBeLost = 1;
        mNeverWritten = lVictim == mWriter && spLedger->mCompleted < spLedger->mStarted ? 1 : 0;

        while (0 == below(4)) {  // sometimes also kill new processes, while they open the segment
            begin(lVictim);
            usleep(below(400));
            kill(mPids[lVictim], SIGKILL);
            reap(lVictim);
            ++mAtOpen;
        }
        if (OQCM_Client == lVictim) {
            spLedger->mPeers[OQCM_Server].mToOpenAgain = true;
            waitUntil("the server's next open", [] { return !spLedger->mPeers[OQCM_Server].mToOpenAgain; });
        }
        begin(lVictim);
        waitUntil("the new open", [&] { return spLedger->mPeers[lVictim].mOpen.load(); });
        ++mKilled[lVictim];
        resume();
    }

    void end()
    {
        spLedger->mPaused = true;
        for (const OQEConnectionMode lSide : {OQCM_Client, OQCM_Server}) {
            spLedger->mPeers[lSide].mToStop = true;
            int lStatus = -1;
            CHECK(mPids[lSide] == waitpid(mPids[lSide], &lStatus, 0) && 0 == lStatus);
        }
        account();
        CHECK(-1 == waitpid(-1, NULL, WNOHANG) && ECHILD == errno);
        CHECK(shmget(sKey, 0, 0) < 0 && ENOENT == errno);
        checkNoSegmentOfOurs();
        printf(
            "kill: %s writes: server killed %u times, client %u times; %u at a random moment, %u after some "
            "instructions of an "
            "operation, %u between two flag stores, another %u while opening\n",
            OQCM_Client == mWriter ? "client" : "server", mKilled[OQCM_Server], mKilled[OQCM_Client],
            mKilled[OQCM_Server] + mKilled[OQCM_Client] - mStepped - mBetween, mStepped, mBetween, mAtOpen);
        printf("kill: held at %u instructions of an operation, nothing lost\n", mHeld);
        printf(
            "kill: mailbox found empty %u times, full %u times, changing %u times; %llu messages read whole and once, "
            "%llu written ones lost\n",
            mEmpty, mFull, mChanging, static_cast<unsigned long long>(mRead), static_cast<unsigned long long>(mLost));
    }

private:
    unsigned int below(unsigned int aEnd) { return static_cast<unsigned int>(mRandom() % aEnd); }

    void begin(OQEConnectionMode aSide)
    {
        Peer& lrPeer = spLedger->mPeers[aSide];
        lrPeer.mOpen = lrPeer.mParked = lrPeer.mToStop = lrPeer.mToOpenAgain = lrPeer.mToBeStepped = false;
        fflush(NULL);
        const pid_t lPid = fork();
        if (0 == lPid) {
            try {
                live(aSide, aSide == mWriter);
            } catch (const OQCException& acrFailure) {
                fprintf(stderr, "%s: %s\n", OQCM_Server == aSide ? "server" : "client", acrFailure.what());
                _exit(1);
            }
            _exit(0);
        }
        CHECK(0 < lPid);
        mPids[aSide] = lPid;
        mAllPids.insert(lPid);
    }

    /// Waits for the killed process and checks that SIGKILL ended it.
    void reap(OQEConnectionMode aSide)
    {
        int lStatus = 0;
        CHECK(mPids[aSide] == waitpid(mPids[aSide], &lStatus, 0));
        CHECK(WIFSIGNALED(lStatus) && SIGKILL == WTERMSIG(lStatus));
        mPids[aSide] = -1;
    }

    void killAfterSteps(OQEConnectionMode aSide, unsigned int aSteps, const std::function<bool()>& acrHasCome)
    {
        step(aSide, aSteps, acrHasCome);
        kill(mPids[aSide], SIGKILL);
    }

    /// Executes the given number of instructions of the operation in single steps, or fewer if acrHasCome returns true.
    void step(OQEConnectionMode aSide, unsigned int aSteps, const std::function<bool()>& acrHasCome)
    {
        spLedger->mPeers[aSide].mToBeStepped = true;
        int lStatus = 0;
        CHECK(mPids[aSide] == waitpid(mPids[aSide], &lStatus, WUNTRACED) && WIFSTOPPED(lStatus));
        for (unsigned int lStep = 0; lStep < aSteps && !acrHasCome(); ++lStep) {
            CHECK(0 == ptrace(PTRACE_SINGLESTEP, mPids[aSide], NULL, NULL));
            CHECK(mPids[aSide] == waitpid(mPids[aSide], &lStatus, 0) && WIFSTOPPED(lStatus));
        }
    }

    static OQSSharedMemoryHeader header()
    {
        const int lId = shmget(sKey, 0, 0);
        CHECK(0 <= lId);
        void* const lpSegment = shmat(lId, NULL, SHM_RDONLY);
        CHECK(reinterpret_cast<void*>(-1) != lpSegment);
        const OQSSharedMemoryHeader lHeader = *static_cast<const OQSSharedMemoryHeader*>(lpSegment);
        shmdt(lpSegment);
        return lHeader;
    }

    static bool isChanging(const OQSSharedMemoryHeader& acrHeader)
    {
        return 0 == acrHeader.data_ready && 0 == acrHeader.segment_free;
    }

    void countState()
    {
        const OQSSharedMemoryHeader lHeader = header();
        CHECK(0 == lHeader.data_ready || 0 == lHeader.segment_free);
        ++(0 != lHeader.data_ready ? mFull : 0 != lHeader.segment_free ? mEmpty : mChanging);
    }

    /// Checks the messages that were read since the last call: their numbers are consecutive, with a gap only at the
    /// start.
    void account()
    {
        const uint64_t lReads = spLedger->mReads;
        for (uint64_t lIndex = 0; lIndex < lReads; ++lIndex) {
            const uint64_t lNumber = spLedger->mRecords[lIndex];
            CHECK(mLast < lNumber);
            const uint64_t lMissing = lNumber - mLast - 1;
            CHECK(lMissing <= mMayBeLost + mNeverWritten);
            mLost += lMissing - std::min(lMissing, mNeverWritten);
            mMayBeLost = mNeverWritten = 0;
            mLast = lNumber;
        }
        mRead += lReads;
        spLedger->mReads = 0;
    }

    void resume()
    {
        spLedger->mPaused = false;
        waitUntil("messages to pass again", [] { return cProof <= spLedger->mReads; });
    }

    void checkNoSegmentOfOurs()
    {
        FILE* const lpSegments = fopen("/proc/sysvipc/shm", "r");
        CHECK(NULL != lpSegments);
        char lLine[512];
        int lKey, lId, lCreator;
        while (NULL != fgets(lLine, sizeof lLine, lpSegments)) {
            if (3 == sscanf(lLine, "%d %d %*o %*u %d", &lKey, &lId, &lCreator)) {
                CHECK(0 == mAllPids.count(lCreator));
            }
        }
        fclose(lpSegments);
    }

    const OQEConnectionMode mWriter;
    std::mt19937 mRandom;
    pid_t mPids[2] = {-1, -1};
    std::set<pid_t> mAllPids;
    uint64_t mLast;              // number of the last message known to be read
    uint64_t mMayBeLost = 0;     // permitted gap before the next number: messages lost by a kill,
    uint64_t mNeverWritten = 0;  // and messages that the killed writer had not written
    unsigned int mKilled[2] = {0, 0};
    unsigned int mHeld = 0, mStepped = 0, mBetween = 0, mAtOpen = 0, mEmpty = 0, mFull = 0, mChanging = 0;
    uint64_t mRead = 0, mLost = 0;
};

pid_t sMain;

/// Removes the segment at any exit. The children end together with this process.
void removeSegment()
{
    const int lId = shmget(sKey, 0, 0);
    if (getpid() == sMain && 0 <= lId) {
        shmctl(lId, IPC_RMID, NULL);
    }
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(2 == aCount);
    const unsigned int lRounds = static_cast<unsigned int>(atoi(apArguments[1]));
    sKey = keyOfProcess(1);
    sMain = getpid();
    void* const lpShared = mmap(NULL, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    CHECK(MAP_FAILED != lpShared);
    spLedger = new (lpShared) Ledger();
    atexit(removeSegment);
    const double lStart = secondsNow();
    for (const OQEConnectionMode lWriter : {OQCM_Client, OQCM_Server}) {
        Supervisor lSupervisor(lWriter, lWriter + 1u);
        lSupervisor.sweep(cMostSteps);
        for (unsigned int lRound = 0; lRound < lRounds / 2; ++lRound) {
            lSupervisor.round();
        }
        lSupervisor.end();
    }
    printf("kill: %u rounds in %.1f s, nothing left in the system\n", lRounds / 2 * 2, secondsNow() - lStart);
    return 0;
}
