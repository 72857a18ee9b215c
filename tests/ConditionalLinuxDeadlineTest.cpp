// The source is part of this program so that it can be compiled with a 64-bit time_t on 32-bit targets.
#include "ConditionalLinux.cpp"

#include <limits.h>

#include <limits>

#include "TestKit.h"

namespace
{

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

namespace
{

class ConditionalLinuxDeadlineTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        OsInitMutex(mMutex);
        OsInitConditional(mCondition);
    }
    void TearDown() override
    {
        OsDestroyConditional(mCondition);
        OsDestroyMutex(mMutex);
        LayerTest::TearDown();
    }

    pthread_cond_t mCondition;
    pthread_mutex_t mMutex;
};

TEST_F(ConditionalLinuxDeadlineTest, TheLongestTimeOutIsAddedInTheWidthOfTheSeconds)
{
    const timespec cNow = {1000000000, 999999999};
    spClock = &cNow;
    OsConditionalTimedWait(mCondition, mMutex, UINT_MAX);
    spClock = nullptr;
    EXPECT_EQ(5294967295, sDeadline.tv_sec);
    EXPECT_EQ(999999999, sDeadline.tv_nsec);
}

TEST_F(ConditionalLinuxDeadlineTest, ADeadlineBeyondTheLastSecondWraps)
{
    const timespec cNow = {std::numeric_limits<time_t>::max(), 5};
    spClock = &cNow;
    OsConditionalTimedWait(mCondition, mMutex, 1);
    spClock = nullptr;
    EXPECT_EQ(std::numeric_limits<time_t>::min(), sDeadline.tv_sec);
    EXPECT_EQ(5, sDeadline.tv_nsec);
}

}  // namespace
