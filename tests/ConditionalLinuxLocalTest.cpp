// The source itself is part of this program, so that what it keeps to itself can be called.
#include "ConditionalLinux.cpp"

#include <errno.h>

#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

pthread_cond_t* spBroadcast = nullptr;
std::vector<unsigned int>* spTextSizes = nullptr;  // receives the size with which each error text is asked for

}  // namespace

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

}  // namespace
