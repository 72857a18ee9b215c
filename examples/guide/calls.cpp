// Examples for the manual pages: short functions, each with one call or a few calls that belong together. The functions
// throw failures to their callers.

#include <OQCompanionSettings.h>
#include <OQLinux.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

// ---- Mutexes and condition variables --------------------------------------------------------------------------------

struct Flag {
    pthread_mutex_t mMutex;
    pthread_cond_t mChanged;
    bool mRaised;
};

static void prepare(Flag& arFlag)
{
    OsInitMutex(arFlag.mMutex);
    OsInitConditional(arFlag.mChanged);
    arFlag.mRaised = false;
}

static void discard(Flag& arFlag)
{
    OsDestroyConditional(arFlag.mChanged);  // no thread waits
    OsDestroyMutex(arFlag.mMutex);          // no thread holds it
}

static void raise(Flag& arFlag)
{
    OsLockMutex(arFlag.mMutex);
    arFlag.mRaised = true;
    OsSignal(arFlag.mChanged);  // wakes one waiter
    OsUnlockMutex(arFlag.mMutex);
}

static void waitUntilRaised(Flag& arFlag)
{
    OsLockMutex(arFlag.mMutex);
    while (!arFlag.mRaised) {  // a wake-up may be spurious
        OsWait(arFlag.mChanged, arFlag.mMutex);
    }
    OsUnlockMutex(arFlag.mMutex);
}

static bool isRaisedWithin(Flag& arFlag, unsigned int aSeconds)
{
    OsLockMutex(arFlag.mMutex);
    try {
        while (!arFlag.mRaised) {
            OsConditionalTimedWait(arFlag.mChanged, arFlag.mMutex, aSeconds);
        }
    } catch (const OQCTimeOutEx&) {
        // The mutex is held here, too.
    }
    const bool lRaised = arFlag.mRaised;
    OsUnlockMutex(arFlag.mMutex);
    return lRaised;
}

static bool isFree(pthread_mutex_t& arMutex)
{
    try {
        OsTrylockMutex(arMutex);
    } catch (const OQCMutexLockFailedEx&) {  // a thread holds it; the class is also an OQCHaltEx
        return false;
    }
    OsUnlockMutex(arMutex);
    return true;
}

// ---- Threads --------------------------------------------------------------------------------------------------------

static void* raiseInAThread(void* apFlag)
{
    raise(*static_cast<Flag*>(apFlag));
    OsExitThread();  // the same as "return NULL" here
}

static void startAndJoin(Flag& arFlag)
{
    unsigned long lThread = 0;
    OsStartThread(lThread, &arFlag, raiseInAThread);
    waitUntilRaised(arFlag);
    OsWaitForExit(lThread);  // exactly once per thread
}

static void* waitForEver(void*)
{
    for (;;) {
        pause();  // a cancellation point
    }
}

static void endEarly()
{
    unsigned long lThread = 0;
    OsStartThread(lThread, NULL, waitForEver);
    OsDestroyThread(lThread);  // only a request: the thread must still be joined
    OsWaitForExit(lThread);
}

static bool isThreadCreated()
{
    unsigned long lThread = 0;
    OsCreateThread(lThread, NULL, waitForEver);
    return 0 != lThread;  // false: the function starts no thread
}

static bool canSuspend(unsigned long aThread)
{
    try {
        OsSuspendThread(aThread);
    } catch (const OQCNotSupportedEx&) {
        return false;  // always
    }
}

static bool canResume(unsigned long aThread)
{
    try {
        OsResumeThread(aThread);
    } catch (const OQCNotSupportedEx&) {
        return false;  // always
    }
}

// ---- Named pipes ----------------------------------------------------------------------------------------------------

static int openFifo(const OQCString& acrPath)
{
    int lPipe = -1;  // keeps this value if the FIFO cannot be opened
    OsNamedPipeCreate(acrPath, lPipe);
    OsNamedPipeOpen(lPipe, acrPath, OQFM_Mode1, OQPS_NonBlocking, OQCM_Server);
    if (lPipe < 0) {
        perror(acrPath.get());
    }
    return lPipe;
}

static void acceptClient(int aPipe)
{
    OsNamedPipeAccept(aPipe);  // for code that also runs on other systems: here it only traces
}

static void connectToServer(int aPipe, const OQCString& acrPath)
{
    OsNamedPipeConnect(aPipe, acrPath, OQFM_Mode1, OQPS_NonBlocking);  // here it only traces
}

static bool send(int aPipe, const unsigned char* acData, unsigned int aLength)
{
    unsigned int lWritten = 0;  // keeps this value if the write fails
    OsNamedPipeWrite(aPipe, acData, aLength, lWritten);
    return aLength == lWritten;
}

static unsigned int receiveWithin(int aPipe, unsigned char* apBuffer, unsigned int aSize, unsigned int aSeconds)
{
    unsigned int lRead = 0;
    try {
        OsNamedPipeWaitForActivity(aPipe, aSeconds);
        OsNamedPipeRead(aPipe, apBuffer, aSize, lRead);  // possibly fewer bytes than were sent
    } catch (const OQCTimeOutEx&) {
        // no data
    }
    return lRead;
}

static bool receiveAll(int aPipe, unsigned char* apBuffer, unsigned int aLength)
{
    unsigned int lRead = 0;
    OsNamedPipeBlockRead(aPipe, apBuffer, aLength, lRead);
    return aLength == lRead;
}

static void closeFifo(int& arPipe, const OQCString& acrPath)
{
    OsNamedPipeClose(arPipe, OQCM_Server);
    arPipe = -1;  // the function keeps the number, which another file can get
    OsNamedPipeDestroy(acrPath, arPipe);
}

static bool isReadable(int aDescriptor)
{
    try {
        OsWaitForActivity(aDescriptor, 0);  // a poll
        return true;
    } catch (const OQCTimeOutEx&) {
        return false;
    }
}

// ---- Shared memory --------------------------------------------------------------------------------------------------

static bool put(OQShmDesc& arSide, const unsigned char* acData, unsigned int aLength)
{
    unsigned int lWritten = 0;  // keeps this value if a side is missing
    OsSharedMemoryWrite(arSide, acData, aLength, lWritten);
    return aLength == lWritten;
}

static unsigned int take(OQShmDesc& arSide, unsigned char* apBuffer, unsigned int aSize)
{
    OsSharedMemoryWaitForActivity(arSide, 5);
    unsigned int lRead = 0;
    OsSharedMemoryRead(arSide, apBuffer, aSize, lRead);
    return lRead;
}

static void exchange(key_t aKey)
{
    OQShmDesc lServer = {aKey, 64, -1, NULL};  // 6 of the 64 bytes are the header
    OQShmDesc lClient = {aKey, 64, -1, NULL};  // usually in another process
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OsSharedMemoryOpen(lClient, OQCM_Client);
    unsigned char lBuffer[58];
    put(lClient, reinterpret_cast<const unsigned char*>("hello"), 5);
    printf("message: %u bytes\n", take(lServer, lBuffer, sizeof lBuffer));
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);  // also removes the segment
}

// ---- Processes and signals ------------------------------------------------------------------------------------------

static int run(const char* acPath, char* const* apArguments)
{
    const pid_t lSelf = getpid();
    try {
        return ProcessWait(ProcessCreate(acPath, apArguments, environ), 0);
    } catch (const OQCProcessCreationFailedEx&) {
        if (getpid() != lSelf) {
            _exit(127);  // the child, which cannot run the program
        }
        throw;
    }
}

static volatile sig_atomic_t sRequested = 0;

static void request(int) { sRequested = 1; }

static bool signalItself()
{
    RegisterSignalHandler(SIGUSR1, request);
    return 0 == OsKill(getpid(), SIGUSR1) && 1 == sRequested;
}

// ---- Commands and locks ---------------------------------------------------------------------------------------------

static int countLines(const char* acCommand)
{
    OQCList<OQCString> lLines;
    OsExecute(acCommand, lLines);  // drops a last line without a newline
    return lLines.size();
}

static int splitLines()
{
    char lText[4000] = "first\nsecond\nincompl";
    OQCList<OQCString> lLines;
    const char* const lpNext = OsBreak(lText, lLines);  // after "incompl", where the next read is stored
    return lLines.size() + static_cast<int>(lpNext - lText);
}

static bool lockAndUnlock(int aFile)
{
    OQEFileLockStatus lStatus = OQFLS_Locked;
    OsFileLockStatus(aFile, lStatus);  // logs no error line
    if (OQFLS_Unlocked != lStatus) {
        return false;
    }
    OsLockFile(aFile);  // throws if another process is quicker
    OsUnlockFile(aFile);
    return true;
}

// ---- Host identity --------------------------------------------------------------------------------------------------

static int countAddresses()
{
    OQCList<unsigned int> lAddresses;
    try {
        OsGetAllIpAddresses(lAddresses);
    } catch (const OQCGetIpAddressFailEx&) {
        // no address, or only loopback addresses
    }
    return lAddresses.size();
}

static unsigned int firstAddress()
{
    unsigned int lAddress = 0;
    try {
        OsGetIpAddress(lAddress);
    } catch (const OQCGetIpAddressFailEx&) {
        // no address, or only loopback addresses
    }
    return lAddress;
}

static bool runsOnLinux()
{
    OQEOperatingSystem lSystem;
    OQCString lRelease("");
    OsGetOsName(lSystem, lRelease);
    return OQOS_Linux == lSystem;
}

// ---- Companion runtime ----------------------------------------------------------------------------------------------

static void logError(const char* acWhat)
{
    char lText[512];
    PrintLogMessageWithTimeStamp(OQLL_Error, "-E-", __LINE__, __func__, "calls", "%s: %s", acWhat,
                                 ClibStrerror(lText, sizeof lText));
}

static void logTo(int aFile)
{
    SetLogDescriptor(aFile);
    SetLogLevels(OQLL_Halt | OQLL_Error);  // no information and trace lines
    errno = ENOENT;
    logError("an example");
    SetLogDescriptor(STDERR_FILENO);
}

static bool writeFile(const char* acPath, const char* acText)
{
    const int lFile = ClibOpen(acPath, O_WRONLY | O_CREAT | O_TRUNC, 0640);
    const unsigned int lLength = ClibStrlen(acText);
    const bool lGood = static_cast<int>(lLength) == ClibWrite(lFile, acText, lLength);
    return 0 == ClibClose(lFile) && lGood;
}

static int readFile(const char* acPath, char* apBuffer, unsigned int aSize)
{
    const int lFile = ClibOpen(acPath, O_RDONLY, 0);
    int lRead = ClibRead(lFile, apBuffer, 1);                    // at most 1 byte
    lRead += ClibBlockRead(lFile, apBuffer + lRead, aSize - 1);  // all other bytes
    ClibClose(lFile);
    return lRead;
}

static OQCString firstLine(const char* acPath)
{
    OQCString lLine("");
    if (getFirstLineFromFile(acPath, lLine) < 0) {
        perror(acPath);
    }
    return lLine;
}

static void removeFile(const char* acPath)
{
    if (ClibUnlink(acPath) < 0) {
        perror(acPath);
    }
}

static unsigned int readStream(FILE* apStream)
{
    char lItems[16];
    return ClibFread(lItems, 1, sizeof lItems, apStream);  // throws OQCReadFailedEx
}

static bool isFile(const char* acPath)
{
    struct stat lInfo;
    try {
        ClibStat(acPath, &lInfo);
    } catch (const OQCClibStatFailedEx&) {
        return false;
    }
    return S_ISREG(lInfo.st_mode);
}

static bool appearsWithin(const char* acPath, unsigned int aMilliseconds)
{
    for (unsigned int lWaited = 0; !isFile(acPath); ++lWaited) {
        if (aMilliseconds <= lWaited) {
            return false;
        }
        ClibSleepMS(1);
    }
    return true;
}

static long secondsSince1970()
{
    long lSeconds;
    unsigned short lMilliseconds;
    ClibGetTime(lSeconds, lMilliseconds);
    return lSeconds;
}

static long secondsSinceTheHostStarted()
{
    SetMonotonicTime(true);  // a program calls this once, before its first wait
    long lSeconds;
    unsigned short lMilliseconds;
    ClibGetTime(lSeconds, lMilliseconds);
    return lSeconds;
}

static bool hasHostName()
{
    char lName[65];
    ClibMemset(lName, 0, sizeof lName);
    return 0 == ClibGethostname(lName, sizeof lName - 1) && 0 != ClibStrlen(lName);
}

static void texts()
{
    char lText[32], lCopy[32];
    ClibStrcpy(lText, "text");
    ClibMemcpy(lCopy, lText, ClibStrlen(lText) + 1);
    ClibSprintf(lText, "%s %u", lCopy, ClibNtohl(0));
    printf("%s, %s\n", lText, 0 == ClibnStrcmp(lText, lCopy, 4) ? "the same beginning" : "another text");
}

// ---------------------------------------------------------------------------------------------------------------------

static void inDirectory(const std::string& acrDirectory)
{
    const OQCString lPath((acrDirectory + "/fifo").c_str());
    const std::string lFile = acrDirectory + "/file";
    int lPipe = openFifo(lPath);
    acceptClient(lPipe);
    connectToServer(lPipe, lPath);
    unsigned char lBuffer[8] = "abcd";
    printf("sent: %d\n", send(lPipe, lBuffer, 4));
    printf("readable: %d\n", isReadable(lPipe));
    printf("received: %u bytes\n", receiveWithin(lPipe, lBuffer, 2, 5));
    printf("the rest: %d\n", receiveAll(lPipe, lBuffer, 2));
    closeFifo(lPipe, lPath);

    char lText[16];
    printf("written: %d\n", writeFile(lFile.c_str(), "a line\n"));
    printf("read: %d bytes\n", readFile(lFile.c_str(), lText, sizeof lText));
    printf("first line: %s, a file: %d\n", firstLine(lFile.c_str()).get(), appearsWithin(lFile.c_str(), 5000));
    FILE* const lpStream = fopen(lFile.c_str(), "r+");
    if (NULL != lpStream) {
        printf("stream: %u bytes\n", readStream(lpStream));
        printf("locked: %d\n", lockAndUnlock(fileno(lpStream)));
        logTo(fileno(lpStream));
        fclose(lpStream);
    }
    removeFile(lFile.c_str());
}

int main()
{
    char lDirectory[] = "/tmp/calls-XXXXXX";
    char lShell[] = "sh", lOption[] = "-c", lScript[] = "exit 3";
    char* lArguments[] = {lShell, lOption, lScript, NULL};
    try {
        SetLogLevels(0);
        Flag lFlag;
        prepare(lFlag);
        printf("free: %d\n", isFree(lFlag.mMutex));
        printf("raised: %d\n", isRaisedWithin(lFlag, 1));
        startAndJoin(lFlag);
        discard(lFlag);
        endEarly();
        printf("created: %d, suspended: %d, resumed: %d\n", isThreadCreated(), canSuspend(0), canResume(0));
        exchange(getpid());
        printf("exit status: %d, signal: %d\n", run("/bin/sh", lArguments), signalItself());
        printf("lines: %d and %d\n", countLines("echo a; echo b"), splitLines());
        printf("addresses: %d, Linux: %d\n", (0 < countAddresses()) == (0 < firstAddress()), runsOnLinux());
        printf("host: %d, time: %d, other clock: %d\n", hasHostName(), 0 < secondsSince1970(),
               0 <= secondsSinceTheHostStarted());
        texts();
        if (NULL != mkdtemp(lDirectory)) {
            inDirectory(lDirectory);
            rmdir(lDirectory);
        }
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "calls: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
