// The log. Each line is one write, without a lock and without an allocation. A child of fork() therefore never finds a
// half-changed state.

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <type_traits>

#include "OQCompanionSettings.h"

namespace
{

const size_t cLineSize = 8192;  // bytes; the layer's longest lines contain a 4000-byte read buffer

std::atomic<unsigned int> sLevels(OQLL_Halt | OQLL_Error | OQLL_Information);
std::atomic<int> sDescriptor(STDERR_FILENO);

// The descriptor to which the last line was written only in part, or -1. The next line to it begins with a line feed.
const int cNowhere = -1;
std::atomic<int> sCutLine(cNowhere);

// The process id in every line. A child of fork() updates it.
std::atomic<pid_t> sProcess(getpid());
const int sForkHandler = pthread_atfork(NULL, NULL, [] { sProcess.store(getpid(), std::memory_order_relaxed); });

/// Builds a line and truncates it when the buffer is full. Keeps room for the line feed and for one more before the
/// line.
class LineBuffer
{
public:
    void text(const char* acText)
    {
        const size_t lLength = std::min(strlen(acText), room());
        memcpy(mEnd, acText, lLength);
        mEnd += lLength;
    }

    void character(char aCharacter)
    {
        if (0 != room()) {
            *mEnd++ = aCharacter;
        }
    }

    void number(unsigned long aNumber, int aDigits = 1)
    {
        char lDigits[20];
        char* lpFirst = lDigits + sizeof lDigits;
        do {
            *--lpFirst = static_cast<char>('0' + aNumber % 10);
            aNumber /= 10;
        } while (0 < --aDigits || 0 != aNumber);
        for (; lDigits + sizeof lDigits != lpFirst; ++lpFirst) {
            character(*lpFirst);
        }
    }

    /// Adds date and time in UTC. Does not use gmtime_r() or localtime_r(), which take the C library's time-zone lock.
    /// In a child of fork(), a thread that does not exist there may hold that lock.
    void time(const timespec& acrTime)
    {
        // The width of time_t, which may exceed that of long.
        const auto lSeconds = static_cast<std::make_unsigned<time_t>::type>(acrTime.tv_sec);
        const auto lSecond = static_cast<unsigned long>(lSeconds % 86400);
        // Years start on 1 March, counted from year 0, so that the leap day is the last day of its year.
        const unsigned long lDay = static_cast<unsigned long>(lSeconds / 86400) + 719468;
        const unsigned long lEra = lDay / 146097;
        const unsigned long lDayOfEra = lDay % 146097;
        const unsigned long lYearOfEra = (lDayOfEra - lDayOfEra / 1460 + lDayOfEra / 36524 - lDayOfEra / 146096) / 365;
        const unsigned long lDayOfYear = lDayOfEra - (365 * lYearOfEra + lYearOfEra / 4 - lYearOfEra / 100);
        const unsigned long lMonthFromMarch = (5 * lDayOfYear + 2) / 153;
        const unsigned long lMonth = lMonthFromMarch < 10 ? lMonthFromMarch + 3 : lMonthFromMarch - 9;
        number(lEra * 400 + lYearOfEra + (lMonth <= 2 ? 1 : 0), 4);
        character('-');
        number(lMonth, 2);
        character('-');
        number(lDayOfYear - (153 * lMonthFromMarch + 2) / 5 + 1, 2);
        character('T');
        number(lSecond / 3600, 2);
        character(':');
        number(lSecond / 60 % 60, 2);
        character(':');
        number(lSecond % 60, 2);
        character('.');
        number(static_cast<unsigned long>(acrTime.tv_nsec / 1000), 6);
        character('Z');
    }

    void message(const char* acFormat, va_list aArguments)
    {
        char* const lpMessage = mEnd;
        const int lLength = vsnprintf(mEnd, room() + 1, acFormat, aArguments);
        mEnd += lLength < 0 ? 0 : std::min(static_cast<size_t>(lLength), room());
        if (lpMessage < mEnd && '\n' == mEnd[-1]) {
            --mEnd;  // assertion messages end with a line feed
        }
        std::replace(lpMessage, mEnd, '\n', ' ');
    }

    const char* begin() const { return mText + 1; }
    const char* beginWithLineFeed()
    {
        *mText = '\n';
        return mText;
    }
    /// Ends the line. \return the position after it
    const char* end()
    {
        *mEnd = '\n';
        return mEnd + 1;
    }

private:
    size_t room() const { return static_cast<size_t>(mText + sizeof mText - 1 - mEnd); }

    // cppcheck-suppress uninitMemberVarPrivate ; a line uses only the bytes that it has written
    char mText[1 + cLineSize];
    char* mEnd = mText + 1;
};

/// Returns whether the last line to the descriptor was cut. Returns true to one caller only.
bool takeCutLine(int aDescriptor)
{
    if (aDescriptor != sCutLine.load(std::memory_order_relaxed)) {
        return false;
    }
    return sCutLine.compare_exchange_strong(aDescriptor, cNowhere, std::memory_order_relaxed);
}

/// Writes the line and drops any part that cannot be written. The function makes the system call directly because
/// write() is a cancellation point, and tracing must not make an operation one.
void writeLine(LineBuffer& arLine)
{
    const int lDescriptor = sDescriptor.load(std::memory_order_relaxed);
    bool lCut = takeCutLine(lDescriptor);
    const char* lpRest = lCut ? arLine.beginWithLineFeed() : arLine.begin();
    const char* const lpEnd = arLine.end();
    while (lpEnd != lpRest) {
        const long lWritten = syscall(SYS_write, lDescriptor, lpRest, static_cast<size_t>(lpEnd - lpRest));
        if (0 < lWritten) {
            lpRest += lWritten;
            lCut = '\n' != lpRest[-1];
        } else if (0 == lWritten || EINTR != errno) {
            break;
        }
    }
    if (lCut) {
        sCutLine.store(lDescriptor, std::memory_order_relaxed);
    }
}

/// Writes a line whose level is enabled. Leaves errno unchanged. The unused level parameter keeps the remaining
/// arguments in the registers in which they arrived, so a filtered line costs no register moves. The attribute "used"
/// keeps the compiler from removing that parameter.
[[gnu::used, gnu::noinline]] void writeMessage(unsigned int, const char* acTag, unsigned int aLine,
                                               const char* acFunction, const char* acFile, const char* acFormat,
                                               va_list aArguments)
{
    const int lErrno = errno;
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    LineBuffer lLine;
    lLine.time(lNow);
    lLine.character(' ');
    lLine.number(static_cast<unsigned long>(sProcess.load(std::memory_order_relaxed)));
    lLine.character(' ');
    lLine.number(static_cast<unsigned long>(pthread_self()));
    lLine.character(' ');
    lLine.text(acTag);
    lLine.character(' ');
    lLine.text(acFunction);
    lLine.text(" (");
    lLine.text(acFile);
    lLine.character(':');
    lLine.number(aLine);
    lLine.text(") ");
    errno = lErrno;  // for a "%m" in the caller's format
    lLine.message(acFormat, aArguments);
    writeLine(lLine);
    errno = lErrno;
}

}  // namespace

void SetLogLevels(unsigned int aLevels) { sLevels.store(aLevels, std::memory_order_relaxed); }

void SetLogDescriptor(int aDescriptor) { sDescriptor.store(aDescriptor, std::memory_order_relaxed); }

// Separate from writeMessage(), so that a filtered line costs only one test.
void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction,
                                  const char* acFile, const char* acFormat, ...)
{
    if (0 != (aLevel & sLevels.load(std::memory_order_relaxed))) {
        va_list lArguments;
        va_start(lArguments, acFormat);
        writeMessage(aLevel, acTag, aLine, acFunction, acFile, acFormat, lArguments);
        va_end(lArguments);
    }
}
