// The log. A line is one write: no lock, no allocation, nothing that a child of fork() could find half done.

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "OQCompanionSettings.h"

namespace
{

const size_t cLineSize = 8192;  // bytes; holds every line of the layer, whose longest carries a 4000-byte read buffer

std::atomic<unsigned int> sLevels(OQLL_Halt | OQLL_Error | OQLL_Information);
std::atomic<int> sDescriptor(STDERR_FILENO);

/// Date and time in UTC, by arithmetic: gmtime_r() and localtime_r() take the C library's time-zone lock, which a child
/// of fork() may find held by a thread that it does not have.
struct UtcTime {
    int mYear, mMonth, mDay, mHour, mMinute, mSecond;

    explicit UtcTime(time_t aSeconds)
    {
        const long lDays = static_cast<long>(aSeconds / 86400);
        const int lSecondOfDay = static_cast<int>(aSeconds % 86400);
        // Years are counted from 1 March of year 0, so that the leap day is the last of its year.
        const long lDay = lDays + 719468;
        const long lEra = lDay / 146097;
        const long lDayOfEra = lDay % 146097;
        const long lYearOfEra = (lDayOfEra - lDayOfEra / 1460 + lDayOfEra / 36524 - lDayOfEra / 146096) / 365;
        const long lDayOfYear = lDayOfEra - (365 * lYearOfEra + lYearOfEra / 4 - lYearOfEra / 100);
        const long lMonth = (5 * lDayOfYear + 2) / 153;
        mDay = static_cast<int>(lDayOfYear - (153 * lMonth + 2) / 5 + 1);
        mMonth = static_cast<int>(lMonth < 10 ? lMonth + 3 : lMonth - 9);
        mYear = static_cast<int>(lEra * 400 + lYearOfEra + (mMonth <= 2 ? 1 : 0));
        mHour = lSecondOfDay / 3600;
        mMinute = lSecondOfDay / 60 % 60;
        mSecond = lSecondOfDay % 60;
    }
};

/// Bytes that snprintf() has put into a buffer of aRoom bytes, the terminating zero left out.
size_t stored(int aResult, size_t aRoom) { return aResult < 0 ? 0 : std::min(static_cast<size_t>(aResult), aRoom - 1); }

/// Writes all of the line; what cannot be written is dropped. The system call is made directly because write() is a
/// cancellation point, and a traced operation must not become one.
void writeLine(const char* acLine, size_t aLength)
{
    const int lDescriptor = sDescriptor.load(std::memory_order_relaxed);
    while (0 != aLength) {
        const long lWritten = syscall(SYS_write, lDescriptor, acLine, aLength);
        if (0 <= lWritten) {
            acLine += lWritten;
            aLength -= static_cast<size_t>(lWritten);
        } else if (EINTR != errno) {
            break;
        }
    }
}

}  // namespace

void SetLogLevels(unsigned int aLevels) { sLevels.store(aLevels, std::memory_order_relaxed); }

void SetLogDescriptor(int aDescriptor) { sDescriptor.store(aDescriptor, std::memory_order_relaxed); }

void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction,
                                  const char* acFile, const char* acFormat, ...)
{
    if (0 == (aLevel & sLevels.load(std::memory_order_relaxed))) {
        return;
    }
    const int lErrno = errno;
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    const UtcTime lTime(lNow.tv_sec);
    char lText[cLineSize];
    size_t lLength =
        stored(snprintf(lText, sizeof lText, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %d %lu %s %s (%s:%u) ", lTime.mYear,
                        lTime.mMonth, lTime.mDay, lTime.mHour, lTime.mMinute, lTime.mSecond, lNow.tv_nsec / 1000,
                        getpid(), static_cast<unsigned long>(pthread_self()), acTag, acFunction, acFile, aLine),
               sizeof lText);
    const size_t lMessage = lLength;
    errno = lErrno;  // a "%m" of the caller is his
    va_list lArguments;
    va_start(lArguments, acFormat);
    lLength += stored(vsnprintf(lText + lLength, sizeof lText - lLength, acFormat, lArguments), sizeof lText - lLength);
    va_end(lArguments);
    if (lMessage < lLength && '\n' == lText[lLength - 1]) {
        --lLength;  // assertion lines bring their own
    }
    std::replace(lText + lMessage, lText + lLength, '\n', ' ');
    lText[lLength] = '\n';
    writeLine(lText, lLength + 1);
    errno = lErrno;
}
