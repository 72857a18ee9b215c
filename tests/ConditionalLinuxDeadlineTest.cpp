// The deadline on a 32-bit host with a 64-bit time_t. This program includes the source in order to compile it with such
// a time_t. The C library's functions then have other names, which the test kit does not substitute.
#include "ConditionalLinux.cpp"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>

static_assert(sizeof(long) < sizeof(time_t), "the deadline is added in more bits than a register has");

namespace
{

timespec sNow;
timespec sDeadline;

}  // namespace

extern "C" int clock_gettime(clockid_t, timespec* apTime) noexcept
{
    *apTime = sNow;
    return 0;
}

/// Waits for nothing and succeeds.
extern "C" int pthread_cond_timedwait(pthread_cond_t*, pthread_mutex_t*, const timespec* acDeadline)
{
    sDeadline = *acDeadline;
    return 0;
}

TEST(ConditionalLinuxDeadlineTest, TheSecondsAreAddedIn64BitsWithoutARangeCheck)
{
    pthread_cond_t lCondition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t lMutex = PTHREAD_MUTEX_INITIALIZER;
    sNow = {1000000000, 999999999};
    OsConditionalTimedWait(lCondition, lMutex, UINT_MAX);
    EXPECT_EQ(5294967295, sDeadline.tv_sec);
    EXPECT_EQ(999999999, sDeadline.tv_nsec);
    sNow = {INT64_MAX, 5};
    OsConditionalTimedWait(lCondition, lMutex, 1);
    EXPECT_EQ(INT64_MIN, sDeadline.tv_sec);
    EXPECT_EQ(5, sDeadline.tv_nsec);
}
