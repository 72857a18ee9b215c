// Runs each operation that callers make often. callgrind writes one profile for each operation.

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <string>

#include "OQCompanionSettings.h"
#include "OQLinux.h"

namespace
{

const unsigned int cTimes = 1000;  // scripts/bench divides by it

/// The first call binds symbols and fills caches, so it is not counted.
template <class Operation>
void count(const char* acName, Operation aOperation)
{
    aOperation();
    CALLGRIND_ZERO_STATS;
    for (unsigned int lTime = 0; lTime < cTimes; ++lTime) {
        aOperation();
    }
    CALLGRIND_DUMP_STATS_AT(acName);
}

void countLocks()
{
    pthread_mutex_t lMutex;
    OsInitMutex(lMutex);
    count("lock and unlock a mutex", [&] {
        OsLockMutex(lMutex);
        OsUnlockMutex(lMutex);
    });
    OsDestroyMutex(lMutex);

    pthread_cond_t lCondition;
    OsInitConditional(lCondition);
    count("signal a condition", [&] { OsSignal(lCondition); });
    OsDestroyConditional(lCondition);
}

void countFiles(const std::string& acrFolder)
{
    unsigned char lMessage[64] = {};
    unsigned int lDone = 0;
    int lPipe = -1;
    const OQCString lPath((acrFolder + "/pipe").c_str());
    OsNamedPipeCreate(lPath, lPipe);
    OsNamedPipeOpen(lPipe, lPath, OQFM_Mode1, OQPS_Blocking, OQCM_Server);
    count("write, await and read 64 bytes in a FIFO", [&] {
        OsNamedPipeWrite(lPipe, lMessage, sizeof lMessage, lDone);
        OsNamedPipeWaitForActivity(lPipe, 1);
        OsNamedPipeRead(lPipe, lMessage, sizeof lMessage, lDone);
    });
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lPath, lPipe);

    FILE* const lpFile = tmpfile();
    if (NULL == lpFile) {
        abort();
    }
    count("lock and unlock a file", [&] {
        OsLockFile(fileno(lpFile));
        OsUnlockFile(fileno(lpFile));
    });
    fclose(lpFile);
}

void countSegment()
{
    unsigned char lMessage[64] = {};
    unsigned int lDone = 0;
    OQShmDesc lServer = {};
    lServer.shm_key = ((getpid() & 0x3fffff) << 8) + 0xff;
    lServer.shm_size = 4096;
    OQShmDesc lClient = lServer;
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OsSharedMemoryOpen(lClient, OQCM_Client);
    count("write, await and read 64 bytes in a segment", [&] {
        OsSharedMemoryWrite(lServer, lMessage, sizeof lMessage, lDone);
        OsSharedMemoryWaitForActivity(lClient, 1);
        OsSharedMemoryRead(lClient, lMessage, sizeof lMessage, lDone);
    });
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
}

void countTexts()
{
    const OQCString lText("a text of some forty characters or so...");
    count("copy a text", [&] { const OQCString lCopy(lText); });
    count("assign a text", [&] {
        OQCString lOther("other");
        lOther = lText;
    });
    count("split a buffer of twenty lines", [] {
        char lBuffer[4001] = {};
        for (unsigned int lLine = 0; lLine < 20; ++lLine) {
            strcat(lBuffer, "a line of forty characters, with its end\n");
        }
        OQCList<OQCString> lLines;
        OsBreak(lBuffer, lLines);
        if (20 != lLines.size()) {
            abort();
        }
    });
}

void countFailures()
{
    unsigned long lThread = 0;
    count("throw and catch", [&] {
        try {
            OsResumeThread(lThread);
        } catch (const OQCException&) {
        }
    });
}

void countLines()
{
    count("filter a log line", [] { PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", 1, "f", "file", "%s", "text"); });
    SetLogDescriptor(open("/dev/null", O_WRONLY | O_CLOEXEC));
    SetLogLevels(OQLL_Trace);
    count("write a log line", [] { PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", 1, "f", "file", "%s", "text"); });
}

}  // namespace

int main(int, char** apArguments)
{
    countLocks();
    countFiles(apArguments[1]);
    countSegment();
    countTexts();
    countFailures();
    countLines();
}
