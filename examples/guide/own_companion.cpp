// A host's own companion runtime. It defines every name that the layer leaves unresolved, and nothing else. It logs
// short lines to standard output and skips trace lines.

#include <OQLinux.h>
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>

// ---- The log: preserves errno, throws nothing, takes no lock, writes each line with one call ------------------------

void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int, const char* acFunction,
                                  const char*, const char* acFormat, ...)
{
    if (OQLL_Trace == aLevel) {
        return;  // tested first, because a traced operation logs at least two trace lines
    }
    const int lErrno = errno;
    char lLine[1024];
    const int lStart = snprintf(lLine, sizeof lLine, "%s %s: ", acTag, acFunction);
    va_list lArguments;
    va_start(lArguments, acFormat);
    vsnprintf(lLine + lStart, sizeof lLine - static_cast<size_t>(lStart), acFormat, lArguments);
    va_end(lArguments);
    size_t lLength = strcspn(lLine, "\n");  // assertion messages end with a line feed; a truncated line has none
    lLine[lLength++] = '\n';
    const ssize_t lIgnored = write(STDOUT_FILENO, lLine, lLength);
    static_cast<void>(lIgnored);
    errno = lErrno;
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    const int lErrno = errno;  // preserved: the layer gets the text, logs a line and gets the text again
    // Not strerror(), which may take a lock.
#if __GLIBC_PREREQ(2, 32)
    const char* const lpText = strerrordesc_np(lErrno);
#else
    const char* const lpText = 0 <= lErrno && lErrno < sys_nerr ? sys_errlist[lErrno] : NULL;
#endif
    if (NULL != lpText) {
        snprintf(apBuffer, aSize, "%s", lpText);
    } else {
        snprintf(apBuffer, aSize, "Unknown error %d", lErrno);
    }
    errno = lErrno;
    return apBuffer;
}

// ---- The root of the exception tree and the shared counter ----------------------------------------------------------

OQCException::OQCException(const char* acMessage, unsigned int aCode) noexcept : mCode(aCode)
{
    snprintf(mMessage, sizeof mMessage, "%s", acMessage);  // truncates to 255 characters
}
OQCException::~OQCException() {}

OQCReferenceCount::OQCReferenceCount(unsigned int aInitial) : mCount(aInitial) {}
OQCReferenceCount::~OQCReferenceCount() {}
void OQCReferenceCount::increment() { ++mCount; }
unsigned int OQCReferenceCount::decrement() { return --mCount; }

// ---- Wrappers. Two throw; the others report failures as the wrapped functions do ------------------------------------

template <class Leaf>
[[noreturn]] static void throwErrorText()
{
    char lText[512];
    const char* const lpText = ClibStrerror(lText, sizeof lText);  // before the throw, which may change errno
    throw Leaf(lpText, OQErrorCode<Leaf>::value);
}

unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream)
{
    const size_t lItems = fread(apBuffer, aSize, aCount, apStream);
    if (0 != ferror(apStream)) {  // even if items arrived before the error
        throwErrorText<OQCReadFailedEx>();
    }
    return static_cast<unsigned int>(lItems);
}

int ClibStat(const char* acPath, struct stat* apInfo)
{
    if (0 != stat(acPath, apInfo)) {
        throwErrorText<OQCClibStatFailedEx>();
    }
    return 0;
}

int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    unsigned int lDone = 0;
    ssize_t lRead = 1;
    while (lDone < aCount && 0 != lRead) {
        lRead = read(aDescriptor, static_cast<char*>(apBuffer) + lDone, aCount - lDone);
        if (lRead < 0 && EINTR != errno) {
            return -1;
        }
        lDone += lRead < 0 ? 0 : static_cast<unsigned int>(lRead);
    }
    return static_cast<int>(lDone);
}

int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine)
{
    std::ifstream lFile(acrPath.get());
    std::string lLine;
    if (!lFile || (!std::getline(lFile, lLine) && !lFile.eof())) {
        return -1;
    }
    arLine = lLine.c_str();
    return 0;
}

void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds)
{
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    arSeconds = static_cast<long>(lNow.tv_sec);
    arMilliseconds = static_cast<unsigned short>(lNow.tv_nsec / 1000000);
}

void ClibSleepMS(unsigned long aMilliseconds)
{
    timespec lTime = {static_cast<time_t>(aMilliseconds / 1000), static_cast<long>(aMilliseconds % 1000) * 1000000};
    while (EINTR == clock_nanosleep(CLOCK_MONOTONIC, 0, &lTime, &lTime)) {
    }
}

int ClibSprintf(char* apBuffer, const char* acFormat, ...)
{
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsprintf(apBuffer, acFormat, lArguments);
    va_end(lArguments);
    return lLength;
}

char* ClibStrcpy(char* apDestination, const char* acSource)
{
    memmove(apDestination, acSource, strlen(acSource) + 1);  // the layer may pass the same address twice
    return apDestination;
}

int ClibOpen(const char* acPath, int aFlags, int aMode) { return open(acPath, aFlags, static_cast<mode_t>(aMode)); }
int ClibRead(int aFile, void* apTo, unsigned int aCount) { return static_cast<int>(read(aFile, apTo, aCount)); }
int ClibWrite(int aFile, const void* acFrom, unsigned int aCount)
{
    return static_cast<int>(write(aFile, acFrom, aCount));
}
int ClibClose(int aFile) { return close(aFile); }
int ClibUnlink(const char* acPath) { return unlink(acPath); }
int ClibGethostname(char* apBuffer, unsigned int aSize) { return gethostname(apBuffer, aSize); }
void* ClibMemcpy(void* apTo, const void* acFrom, unsigned int aCount) { return memcpy(apTo, acFrom, aCount); }
void* ClibMemset(void* apTo, int aValue, unsigned int aCount) { return memset(apTo, aValue, aCount); }
unsigned int ClibStrlen(const char* acText) { return static_cast<unsigned int>(strlen(acText)); }
int ClibnStrcmp(const char* acLeft, const char* acRight, unsigned int aCount)
{
    return strncmp(acLeft, acRight, aCount);
}
unsigned int ClibNtohl(unsigned int aValue) { return ntohl(aValue); }
