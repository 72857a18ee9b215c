// A host that brings its own companion runtime and loads the layer when it wants it: every name of OQCompanion.h is
// defined here, nothing is linked. Exits with 0 when the layer of the given path binds to them, logs through them and
// throws what this program catches.
//
//   host PATH-OF-libOQLinux.so
#include <OQLinux.h>
#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static std::string sLog;

void PrintLogMessageWithTimeStamp(unsigned int, const char* acTag, unsigned int, const char* acFunction, const char*,
                                  const char* acFormat, ...)
{
    const int lErrno = errno;
    char lText[512];
    va_list lArguments;
    va_start(lArguments, acFormat);
    vsnprintf(lText, sizeof lText, acFormat, lArguments);
    va_end(lArguments);
    sLog += std::string(acTag) + " " + acFunction + " " + lText + "\n";
    errno = lErrno;
}

OQCException::OQCException(const char* acMessage, unsigned int aCode) noexcept : mMessage(), mCode(aCode)
{
    strncpy(mMessage, acMessage, sizeof mMessage - 1);
}
OQCException::~OQCException() {}

OQCReferenceCount::OQCReferenceCount(unsigned int aInitial) : mCount(aInitial) {}
OQCReferenceCount::~OQCReferenceCount() {}
void OQCReferenceCount::increment() { ++mCount; }
unsigned int OQCReferenceCount::decrement() { return --mCount; }

int getFirstLineFromFile(const OQCString&, OQCString&) { return -1; }
char* ClibStrerror(char* apBuffer, unsigned int aSize) { return strncpy(apBuffer, "the host's own text", aSize); }
int ClibOpen(const char* acPath, int aFlags, int aMode) { return open(acPath, aFlags, aMode); }
int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    return static_cast<int>(read(aDescriptor, apBuffer, aCount));
}
int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    return ClibRead(aDescriptor, apBuffer, aCount);
}
int ClibWrite(int aDescriptor, const void* acBuffer, unsigned int aCount)
{
    return static_cast<int>(write(aDescriptor, acBuffer, aCount));
}
int ClibClose(int aDescriptor) { return close(aDescriptor); }
int ClibUnlink(const char* acPath) { return unlink(acPath); }
unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream)
{
    return static_cast<unsigned int>(fread(apBuffer, aSize, aCount, apStream));
}
int ClibStat(const char* acPath, struct stat* apInfo) { return stat(acPath, apInfo); }
void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds)
{
    arSeconds = time(NULL);
    arMilliseconds = 0;
}
void ClibSleepMS(unsigned long aMilliseconds) { usleep(static_cast<useconds_t>(aMilliseconds) * 1000); }
int ClibGethostname(char* apBuffer, unsigned int aSize) { return gethostname(apBuffer, aSize); }
void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount)
{
    return memcpy(apDestination, acSource, aCount);
}
void* ClibMemset(void* apDestination, int aValue, unsigned int aCount) { return memset(apDestination, aValue, aCount); }
char* ClibStrcpy(char* apDestination, const char* acSource)
{
    return static_cast<char*>(memmove(apDestination, acSource, strlen(acSource) + 1));
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

int main(int aCount, char** apWords)
{
    void* const lpLayer = 2 == aCount ? dlopen(apWords[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (NULL == lpLayer) {
        fprintf(stderr, "host: %s\n", 2 == aCount ? dlerror() : "give it the path of libOQLinux.so");
        return 1;
    }
    void (*lpUnlockFile)(int);
    *reinterpret_cast<void**>(&lpUnlockFile) = dlsym(lpLayer, "_Z12OsUnlockFilei");
    if (NULL == lpUnlockFile) {
        fprintf(stderr, "host: %s\n", dlerror());
        return 1;
    }
    bool lAsExpected = false;
    try {
        lpUnlockFile(-1);
    } catch (const OQCFileUnLockFailedEx& acrFailure) {
        lAsExpected = 331 == acrFailure.code() && 0 == strcmp("the host's own text", acrFailure.what()) &&
                      "-T- OsUnlockFile Entered\n"
                      "-E- OsUnlockFile Failed to unlock file, error: the host's own text\n"
                      "-T- OsUnlockFile Left\n" == sLog;
    }
    dlclose(lpLayer);  // not before: the exception's class lives in the layer
    return lAsExpected ? 0 : 1;
}
