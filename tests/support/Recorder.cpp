#include "Recorder.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <iomanip>

#include "OQCompanion.h"

namespace
{

// Lines are kept in static storage, so that recording neither allocates (tests make allocations fail) nor locks a mutex
// (tests make that fail too).
struct Record {
    unsigned int mLevel;
    char mTag[8];
    char mFunction[48];
    char mFile[48];
    char mText[4200];
};

const unsigned int cRecords = 4096;
Record sRecords[cRecords];
unsigned int sCount = 0;
bool sKept = true;
std::atomic<void (*)(const char*)> sHook(nullptr);
std::atomic_flag sBusy = ATOMIC_FLAG_INIT;

class Spin
{
public:
    Spin()
    {
        while (sBusy.test_and_set(std::memory_order_acquire)) {
        }
    }
    ~Spin() { sBusy.clear(std::memory_order_release); }
};

// A child forked while another thread records must not find the recorder busy for ever.
const int sForkHandlers = pthread_atfork(
    [] {
        while (sBusy.test_and_set(std::memory_order_acquire)) {
        }
    },
    [] { sBusy.clear(std::memory_order_release); }, [] { sBusy.clear(std::memory_order_release); });

template <size_t Size>
void keep(char (&arField)[Size], const char* acText)
{
    if (strlen(acText) >= Size) {
        fprintf(stderr, "recorder: '%s' is too long\n", acText);
        abort();
    }
    memcpy(arField, acText, strlen(acText) + 1);
}

}  // namespace

void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction,
                                  const char* acFile, const char* acFormat, ...)
{
    const int lErrno = errno;
    if (0 == aLine) {
        fprintf(stderr, "recorder: a line without a line number\n");
        abort();
    }
    if (const auto lHook = sHook.load()) {
        char lText[4200];
        va_list lArguments;
        va_start(lArguments, acFormat);
        vsnprintf(lText, sizeof lText, acFormat, lArguments);
        va_end(lArguments);
        lHook(lText);
    }
    Spin lSpin;
    if (sKept) {
        if (cRecords == sCount) {
            fprintf(stderr, "recorder: more than %u lines\n", cRecords);
            abort();
        }
        Record& lrRecord = sRecords[sCount];
        lrRecord.mLevel = aLevel;
        keep(lrRecord.mTag, acTag);
        keep(lrRecord.mFunction, acFunction);
        keep(lrRecord.mFile, acFile);
        errno = lErrno;
        va_list lArguments;
        va_start(lArguments, acFormat);
        vsnprintf(lrRecord.mText, sizeof lrRecord.mText, acFormat, lArguments);
        va_end(lArguments);
    }
    ++sCount;
    errno = lErrno;
}

bool operator==(const Line& acrLeft, const Line& acrRight)
{
    return acrLeft.mLevel == acrRight.mLevel && acrLeft.mTag == acrRight.mTag &&
           acrLeft.mFunction == acrRight.mFunction && acrLeft.mFile == acrRight.mFile &&
           acrLeft.mText == acrRight.mText;
}

std::ostream& operator<<(std::ostream& arStream, const Line& acrLine)
{
    return arStream << "\n    " << acrLine.mLevel << " " << acrLine.mTag << " " << acrLine.mFunction << " "
                    << acrLine.mFile << " " << std::quoted(acrLine.mText);
}

Lines logged()
{
    Lines lLines;
    Spin lSpin;
    for (unsigned int lIndex = 0; sKept && lIndex < sCount; ++lIndex) {
        const Record& lrRecord = sRecords[lIndex];
        lLines.push_back({lrRecord.mLevel, lrRecord.mTag, lrRecord.mFunction, lrRecord.mFile, lrRecord.mText});
    }
    return lLines;
}

void clearLog()
{
    Spin lSpin;
    sCount = 0;
    sKept = true;
}

void keepNoLines()
{
    Spin lSpin;
    sKept = false;
}

void atEachLine(void (*apHook)(const char* acText)) { sHook = apHook; }
