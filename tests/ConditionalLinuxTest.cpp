// Condition variables with several threads and in real time. outcomes/Conditions.cpp tests how each operation ends.

#include <string.h>

#include <algorithm>
#include <deque>

#include "LinuxInternal.h"
#include "Substitutes.h"

// Includes the source to call its local function.
namespace local
{
#include "ConditionalLinux.cpp"
}

namespace
{

/// Returns the seconds of the monotonic clock.
double now()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return static_cast<double>(lNow.tv_sec) + static_cast<double>(lNow.tv_nsec) / 1e9;
}

/// A condition variable and a mutex, both initialised and free.
class ConditionalLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        nameObject("condition", &mCondition);
        nameObject("mutex", &mMutex);
        OsInitMutex(mMutex);
        OsInitConditional(mCondition);
    }
    void TearDown() override
    {
        OsDestroyConditional(mCondition);
        OsDestroyMutex(mMutex);
        RecordedTest::TearDown();
    }

    static std::string trace() { return traceOf(recorded(), "OsConditionalTimedWait", ".//ConditionalLinux"); }

    pthread_cond_t mCondition;
    pthread_mutex_t mMutex;
};

TEST_F(ConditionalLinuxTest, EachWaitReleasesTheMutexAndHoldsItAgainAfterTheSignal)
{
    for (const bool lIsTimed : {false, true}) {
        bool lReady = false;
        OsLockMutex(mMutex);
        std::thread lSignaller([&] {
            OsLockMutex(mMutex);  // possible only while the other thread waits
            lReady = true;
            OsSignal(mCondition);
            OsUnlockMutex(mMutex);
        });
        const double lStart = now();
        while (!lReady) {
            lIsTimed ? OsConditionalTimedWait(mCondition, mMutex, 60) : OsWait(mCondition, mMutex);
        }
        EXPECT_GT(50.0, now() - lStart) << "a signal ends the wait before the deadline";
        EXPECT_TRUE(isHeld(mMutex));
        OsUnlockMutex(mMutex);
        lSignaller.join();
        EXPECT_EQ("", trace());
    }
}

TEST_F(ConditionalLinuxTest, AWaitOfOneSecondTimesOutAfterOneSecondWithTheMutexHeld)
{
    OsLockMutex(mMutex);
    errno = ENOTEMPTY;
    const double lStart = now();
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Directory not empty", OsConditionalTimedWait(mCondition, mMutex, 1));
    const double lSeconds = now() - lStart;
    EXPECT_LE(0.999, lSeconds);  // the two clocks may differ a little
    EXPECT_GE(3.0, lSeconds);
    RecordProperty("seconds", std::to_string(lSeconds));
    EXPECT_TRUE(isHeld(mMutex));
    OsUnlockMutex(mMutex);
    EXPECT_FALSE(isHeld(mMutex));
    EXPECT_EQ("-T- \"Condition wait timed out.\"\n", trace());
}

// The broadcast, which is not exported

TEST_F(ConditionalLinuxTest, BroadcastIsOneSilentCallAndThrowsItsClassWithTheTextOfErrno)
{
    {
        const Recording lRecording;
        local::OsBroadcast(mCondition);
        substitute::pthread_cond_broadcast.fail(EINVAL, EIO);
        EXPECT_FAILURE(OQCCondBroadcastFailedEx, 341, "Input/output error", local::OsBroadcast(mCondition));
    }
    EXPECT_EQ(
        "pthread_cond_broadcast(condition) = 0\n"
        "pthread_cond_broadcast(condition) = EINVAL\n"
        "ClibStrerror(local, 512) = \"Input/output error\"\n",
        trace());
}

TEST_F(ConditionalLinuxTest, BroadcastWakesAllWaiters)
{
    const unsigned int cWaiters = 8;
    bool lGo = false;
    unsigned int lWaiting = 0;
    std::vector<std::thread> lThreads;
    for (unsigned int lThread = 0; lThread < cWaiters; ++lThread) {
        lThreads.emplace_back([&] {
            OsLockMutex(mMutex);
            ++lWaiting;
            while (!lGo) {
                OsWait(mCondition, mMutex);
            }
            --lWaiting;
            OsUnlockMutex(mMutex);
        });
    }
    const auto lAre = [&](unsigned int aWaiting) {
        return eventually([&] {
            OsLockMutex(mMutex);
            const bool lThatMany = aWaiting == lWaiting;
            OsUnlockMutex(mMutex);
            return lThatMany;
        });
    };
    EXPECT_TRUE(lAre(cWaiters));
    OsLockMutex(mMutex);
    lGo = true;
    local::OsBroadcast(mCondition);
    OsUnlockMutex(mMutex);
    EXPECT_TRUE(lAre(0));
    for (unsigned int lThread = 0; lThread < cWaiters; ++lThread) {
        OsSignal(mCondition);  // wakes waiters that the broadcast missed, so that the test ends
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
}

/// A queue with room for 64 items. Each put and each take signals one waiter.
class Queue
{
public:
    typedef void (*Wait)(pthread_cond_t&, pthread_mutex_t&);

    explicit Queue(Wait aWait) : mWait(aWait)
    {
        OsInitMutex(mMutex);
        OsInitConditional(mNotEmpty);
        OsInitConditional(mNotFull);
    }
    ~Queue()
    {
        OsDestroyConditional(mNotFull);
        OsDestroyConditional(mNotEmpty);
        OsDestroyMutex(mMutex);
    }
    void put(unsigned int aItem)
    {
        OsLockMutex(mMutex);
        while (64 == mItems.size()) {
            mWait(mNotFull, mMutex);
        }
        mItems.push_back(aItem);
        OsSignal(mNotEmpty);
        OsUnlockMutex(mMutex);
    }
    unsigned int take()
    {
        OsLockMutex(mMutex);
        while (mItems.empty()) {
            mWait(mNotEmpty, mMutex);
        }
        const unsigned int lItem = mItems.front();
        mItems.pop_front();
        OsSignal(mNotFull);
        OsUnlockMutex(mMutex);
        return lItem;
    }

private:
    const Wait mWait;
    pthread_mutex_t mMutex;
    pthread_cond_t mNotEmpty;
    pthread_cond_t mNotFull;
    std::deque<unsigned int> mItems;
};

const unsigned int cItems = OQ_SLOW ? 20000 : 100000;

/// Four producers pass different items to four consumers. Expects that each item arrives once.
void expectNothingLost(Queue::Wait aWait)
{
    Queue lQueue(aWait);
    std::vector<std::atomic<unsigned int>> lTaken(cItems);
    inThreads(8, [&](unsigned int aThread) {
        for (unsigned int lItem = aThread % 4; lItem < cItems; lItem += 4) {
            aThread < 4 ? lQueue.put(lItem) : void(++lTaken[lQueue.take()]);
        }
    });
    EXPECT_EQ(cItems, std::count(lTaken.begin(), lTaken.end(), 1U));
    EXPECT_EQ("", traceOf(recorded(), "", ""));
}

TEST_F(ConditionalLinuxTest, NothingIsLostBetweenFourProducersAndFourConsumersThatWait) { expectNothingLost(OsWait); }

TEST_F(ConditionalLinuxTest, NothingIsLostBetweenFourProducersAndFourConsumersThatWaitForALimitedTime)
{
    expectNothingLost([](pthread_cond_t& arCondition, pthread_mutex_t& arMutex) {
        OsConditionalTimedWait(arCondition, arMutex, 60);
    });
}

}  // namespace
