// The source itself is part of this program, so that what it keeps to itself can be called. On 32-bit targets it is
// compiled with a 64-bit time_t.
#include "ConditionalLinux.cpp"

#include <errno.h>
#include <limits.h>

#include <limits>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

pthread_cond_t* spBroadcast = nullptr;
std::vector<unsigned int>* spTextSizes = nullptr;  // receives the size with which each error text is asked for

static_assert(8 == sizeof(time_t), "the deadline is added in 64 bits");
const timespec* spClock = nullptr;  // the time that the clock shows, if it is set
timespec sDeadline;

/// The C library's name of a function whose time has 64 bits.
constexpr const char* time64(const char* acName, const char* acNameIn32Bits)
{
    return sizeof(long) < sizeof(time_t) ? acNameIn32Bits : acName;
}

}  // namespace

extern "C" int clock_gettime(clockid_t aClock, timespec* apTime) noexcept
{
    if (nullptr != spClock) {
        *apTime = *spClock;
        return 0;
    }
    static Behind<int(clockid_t, timespec*)> lReal(time64("clock_gettime", "__clock_gettime64"));
    return lReal(aClock, apTime);
}

/// Waits for nothing and succeeds.
extern "C" int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec* acDeadline)
{
    sDeadline = *acDeadline;
    return 0;
}

Fault pthread_cond_broadcastFault;
extern "C" int pthread_cond_broadcast(pthread_cond_t* apCondition) noexcept
{
    spBroadcast = apCondition;
    if (pthread_cond_broadcastFault.fires()) {
        return static_cast<int>(pthread_cond_broadcastFault.result());
    }
    static Behind<int(pthread_cond_t*)> lReal("pthread_cond_broadcast");
    return lReal(apCondition);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    if (nullptr != spTextSizes) {
        const int lErrno = errno;
        spTextSizes->push_back(aSize);
        errno = lErrno;
    }
    return lReal(apBuffer, aSize);
}

namespace
{

class ConditionalLinuxLocalTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        OsInitMutex(mMutex);
        OsInitConditional(mCondition);
        Fault::resetAll();
        spTextSizes = &mTextSizes;
    }
    void TearDown() override
    {
        spTextSizes = nullptr;
        Fault::resetAll();
        OsDestroyConditional(mCondition);
        OsDestroyMutex(mMutex);
        LayerTest::TearDown();
    }

    pthread_cond_t mCondition;
    pthread_mutex_t mMutex;
    std::vector<unsigned int> mTextSizes;
};

TEST_F(ConditionalLinuxLocalTest, BroadcastToNobodyReturnsSilentlyAfterOneCall)
{
    OsBroadcast(mCondition);
    EXPECT_EQ(1U, pthread_cond_broadcastFault.calls());
    EXPECT_EQ(&mCondition, spBroadcast);
    EXPECT_TRUE(mTextSizes.empty());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxLocalTest, BroadcastWakesAllWaiters)
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
    OsBroadcast(mCondition);
    OsUnlockMutex(mMutex);
    EXPECT_TRUE(lAre(0));
    for (unsigned int lThread = 0; lThread < cWaiters; ++lThread) {
        OsSignal(mCondition);  // so that a waiter that was left out does not hold up the program
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(1U, pthread_cond_broadcastFault.calls());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxLocalTest, BroadcastThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_cond_broadcastFault.failOn(1, EINVAL, EIO);
    EXPECT_FAILURE(OQCCondBroadcastFailedEx, 341, "Input/output error", OsBroadcast(mCondition));
    EXPECT_EQ(1U, pthread_cond_broadcastFault.calls());
    EXPECT_EQ(std::vector<unsigned int>{512}, mTextSizes);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(ConditionalLinuxLocalTest, AFailedBroadcastIsAnOperatingSystemFailureAndAReasonToHalt)
{
    pthread_cond_broadcastFault.failAlways(EINVAL, EINVAL);
    EXPECT_THROW(OsBroadcast(mCondition), OQCOsException);
    EXPECT_THROW(OsBroadcast(mCondition), OQCHaltEx);
    EXPECT_EQ(2U, pthread_cond_broadcastFault.calls());
}

TEST_F(ConditionalLinuxLocalTest, TheLongestTimeOutIsAddedInTheWidthOfTheSeconds)
{
    const timespec cNow = {1000000000, 999999999};
    spClock = &cNow;
    OsConditionalTimedWait(mCondition, mMutex, UINT_MAX);
    spClock = nullptr;
    EXPECT_EQ(5294967295, sDeadline.tv_sec);
    EXPECT_EQ(999999999, sDeadline.tv_nsec);
}

TEST_F(ConditionalLinuxLocalTest, ADeadlineBeyondTheLastSecondWraps)
{
    const timespec cNow = {std::numeric_limits<time_t>::max(), 5};
    spClock = &cNow;
    OsConditionalTimedWait(mCondition, mMutex, 1);
    spClock = nullptr;
    EXPECT_EQ(std::numeric_limits<time_t>::min(), sDeadline.tv_sec);
    EXPECT_EQ(5, sDeadline.tv_nsec);
}

}  // namespace
