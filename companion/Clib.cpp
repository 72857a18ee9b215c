// Wrappers of C library functions, in the order of OQCompanion.h.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "OQCompanionSettings.h"
#include "OQException.h"
#include "OQString.h"

namespace
{

std::atomic<clockid_t> sClock(CLOCK_REALTIME);

template <class Leaf>
[[noreturn]] void throwErrorText()
{
    char lText[512];
    const char* const lpText = ClibStrerror(lText, sizeof lText);  // before the throw, which allocates
    throw Leaf(lpText, OQErrorCode<Leaf>::value);
}

/// The buffer that getline() allocates. The destructor also frees it when the thread is cancelled during the read.
struct LineMemory {
    ~LineMemory() { free(mText); }
    char* mText = nullptr;
    size_t mSize = 0;
};

struct Close {
    // NOLINTNEXTLINE(cert-err33-c): the stream has only been read.
    void operator()(FILE* apStream) const { fclose(apStream); }
};

}  // namespace

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    // This is the untranslated text. strerror() and strerror_r() use the message catalogue. They take locks that a
    // child of fork() may find locked, and they may change errno.
    const int lErrno = errno;
    const char* lpText = strerrordesc_np(lErrno);
    if (0 == aSize) {
        return apBuffer;
    }
    if (nullptr != lpText) {
        const size_t lLength = strnlen(lpText, aSize - 1);
        memcpy(apBuffer, lpText, lLength);
        apBuffer[lLength] = '\0';
    } else {
        // NOLINTNEXTLINE(cert-err33-c): a short buffer cuts the text.
        snprintf(apBuffer, aSize, "Unknown error %d", lErrno);
    }
    errno = lErrno;
    return apBuffer;
}

int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine)
{
    const std::unique_ptr<FILE, Close> lFile(fopen(acrPath.get(), "re"));
    if (!lFile) {
        return -1;
    }
    LineMemory lLine;
    const ssize_t lLength = getline(&lLine.mText, &lLine.mSize, lFile.get());
    if (0 != ferror(lFile.get()) || (lLength < 0 && 0 == feof(lFile.get()))) {  // failed read or allocation
        return -1;
    }
    if (lLength < 0) {
        arLine = "";
        return 0;
    }
    // The line has at least one character: otherwise getline() would have reported the end of the file.
    if ('\n' == lLine.mText[lLength - 1]) {
        lLine.mText[lLength - 1] = '\0';
    }
    arLine = lLine.mText;
    return 0;
}

int ClibOpen(const char* acPath, int aFlags, int aMode) { return open(acPath, aFlags, static_cast<mode_t>(aMode)); }

int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    return static_cast<int>(read(aDescriptor, apBuffer, aCount));
}

int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    char* const lpBuffer = static_cast<char*>(apBuffer);
    unsigned int lDone = 0;
    while (lDone < aCount) {
        const ssize_t lRead = read(aDescriptor, lpBuffer + lDone, aCount - lDone);
        if (0 < lRead) {
            lDone += static_cast<unsigned int>(lRead);
        } else if (0 == lRead) {
            break;
        } else if (EINTR != errno) {
            return -1;
        }
    }
    return static_cast<int>(lDone);
}

int ClibWrite(int aDescriptor, const void* acBuffer, unsigned int aCount)
{
    return static_cast<int>(write(aDescriptor, acBuffer, aCount));
}

int ClibClose(int aDescriptor) { return close(aDescriptor); }

int ClibUnlink(const char* acPath) { return unlink(acPath); }

unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream)
{
    const size_t lItems = fread(apBuffer, aSize, aCount, apStream);
    // Throws even if items arrived before the error. The caller would use them and not notice that data is missing.
    if (0 != ferror(apStream)) {
        throwErrorText<OQCReadFailedEx>();
    }
    return static_cast<unsigned int>(lItems);
}

int ClibStat(const char* acPath, struct stat* apInfo)
{
    // On 32-bit systems, older versions of stat() write a part of the result before they report that a value is too large.
    struct stat lInfo;
    if (0 != stat(acPath, &lInfo)) {
        throwErrorText<OQCClibStatFailedEx>();
    }
    *apInfo = lInfo;
    return 0;
}

void SetMonotonicTime(bool aIsMonotonic)
{
    sClock.store(aIsMonotonic ? CLOCK_MONOTONIC : CLOCK_REALTIME, std::memory_order_relaxed);
}

void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds)
{
    timespec lNow;
    clock_gettime(sClock.load(std::memory_order_relaxed), &lNow);
    arSeconds = static_cast<long>(lNow.tv_sec);
    arMilliseconds = static_cast<unsigned short>(static_cast<unsigned long>(lNow.tv_nsec) / 1000000);
}

void ClibSleepMS(unsigned long aMilliseconds)
{
    timespec lTime;
    lTime.tv_sec = static_cast<time_t>(aMilliseconds / 1000);
    lTime.tv_nsec = static_cast<long>(aMilliseconds % 1000) * 1000000;
    while (EINTR == clock_nanosleep(CLOCK_MONOTONIC, 0, &lTime, &lTime)) {
    }
}

int ClibGethostname(char* apBuffer, unsigned int aSize) { return gethostname(apBuffer, aSize); }

void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount)
{
    return memcpy(apDestination, acSource, aCount);
}

void* ClibMemset(void* apDestination, int aValue, unsigned int aCount) { return memset(apDestination, aValue, aCount); }

char* ClibStrcpy(char* apDestination, const char* acSource)
{
    // memmove(), because the layer copies an error text onto itself.
    memmove(apDestination, acSource, strlen(acSource) + 1);
    return apDestination;
}

unsigned int ClibStrlen(const char* acText) { return static_cast<unsigned int>(strlen(acText)); }

int ClibnStrcmp(const char* acLeft, const char* acRight, unsigned int aCount)
{
    return strncmp(acLeft, acRight, aCount);
}

unsigned int ClibNtohl(unsigned int aValue) { return ntohl(aValue); }

int ClibSprintf(char* apBuffer, const char* acFormat, ...)
{
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsprintf(apBuffer, acFormat, lArguments);
    va_end(lArguments);
    return lLength;
}
