// Mutexes with several threads, and mutexes of other kinds. outcomes/Mutexes.cpp tests how each operation ends.

#include <string.h>

#include "Substitutes.h"

namespace
{

class MutexLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        OsInitMutex(mMutex);
    }
    void TearDown() override
    {
        OsDestroyMutex(mMutex);
        EXPECT_EQ("", traceOf(recorded(), "", "")) << "mutexes are silent";
        RecordedTest::TearDown();
    }

    pthread_mutex_t mMutex;
};

TEST_F(MutexLinuxTest, LockWaitsUntilTheHolderUnlocks)
{
    std::atomic<bool> lIsReleased(false);
    OsLockMutex(mMutex);
    std::thread lWaiter([&] {
        {
            const Recording lRecording;
            OsLockMutex(mMutex);
        }
        EXPECT_TRUE(lIsReleased);
        OsUnlockMutex(mMutex);
    });
    EXPECT_TRUE(eventually([] { return !recorded().empty(); }));  // the waiter has called pthread_mutex_lock
    lIsReleased = true;
    OsUnlockMutex(mMutex);
    lWaiter.join();
    clearEvents();
}

TEST_F(MutexLinuxTest, ErrorsOfACallersErrorCheckingMutexAreThrown)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer reports these misuses itself";
#endif
    pthread_mutexattr_t lAttributes;
    pthread_mutexattr_init(&lAttributes);
    pthread_mutexattr_settype(&lAttributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t lMutex;
    pthread_mutex_init(&lMutex, &lAttributes);
    pthread_mutexattr_destroy(&lAttributes);

    errno = EFBIG;
    EXPECT_FAILURE(OQCMutexUnlockFailedEx, 336, strerror(EFBIG), OsUnlockMutex(lMutex));
    OsLockMutex(lMutex);
    errno = ENOSPC;
    EXPECT_FAILURE(OQCMutexLockFailedEx, 335, strerror(ENOSPC), OsLockMutex(lMutex));
    OsUnlockMutex(lMutex);
    OsDestroyMutex(lMutex);
}

TEST_F(MutexLinuxTest, NoIncrementOfEightThreadsIsLost)
{
    const unsigned int cRounds = OQ_SLOW ? 20000 : 1000000;
    unsigned int lCount = 0;
    inThreads(8, [&](unsigned int) {
        for (unsigned int lRound = 0; lRound < cRounds; ++lRound) {
            OsLockMutex(mMutex);
            ++lCount;
            OsUnlockMutex(mMutex);
        }
    });
    EXPECT_EQ(8 * cRounds, lCount);
}

TEST_F(MutexLinuxTest, EachOfEightThreadsGetsTheTextOfItsOwnErrno)
{
    Holder lHolder(mMutex);
    std::atomic<unsigned int> lRight(0);
    inThreads(8, [&](unsigned int aThread) {
        const std::string lExpected = strerrordesc_np(static_cast<int>(aThread) + 1);
        for (unsigned int lRound = 0; lRound < 500; ++lRound) {
            try {
                errno = static_cast<int>(aThread) + 1;
                OsTrylockMutex(mMutex);
            } catch (const OQCMutexLockFailedEx& acrFailure) {
                lRight += lExpected == acrFailure.what() && 335 == acrFailure.code() ? 1U : 0U;
            }
        }
    });
    EXPECT_EQ(8U * 500U, lRight);
}

}  // namespace
