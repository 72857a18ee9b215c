#include "Fixed.h"

#include <string.h>
#include <time.h>

static volatile unsigned int sLevels = 1 | 8 | 64;
static volatile unsigned long sLines;

void fixedLog(unsigned int aLevel, const char*, unsigned int, const char*, const char*, const char*, ...)
{
    if (0 != (aLevel & sLevels)) {
        sLines = sLines + 1;
    }
}

void fixedTime(long& arSeconds, unsigned short& arMilliseconds)
{
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    arSeconds = lNow.tv_sec;
    arMilliseconds = static_cast<unsigned short>(lNow.tv_nsec / 1000000);
}

void* fixedCopy(void* apDestination, const void* acSource, unsigned int aCount)
{
    return memcpy(apDestination, acSource, aCount);
}

void* fixedSet(void* apDestination, int aValue, unsigned int aCount) { return memset(apDestination, aValue, aCount); }

char* fixedTextCopy(char* apDestination, const char* acSource) { return strcpy(apDestination, acSource); }

FixedCount::FixedCount(unsigned int aInitial) : mCount(aInitial) {}

void FixedCount::increment() { __atomic_fetch_add(&mCount, 1, __ATOMIC_RELAXED); }

unsigned int FixedCount::decrement() { return __atomic_sub_fetch(&mCount, 1, __ATOMIC_ACQ_REL); }
