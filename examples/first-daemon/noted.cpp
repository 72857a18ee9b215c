// noted DIRECTORY: copies data from the FIFO DIRECTORY/in to the file DIRECTORY/notes. Ends on SIGTERM.

#include <OQGuards.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>

#define NOTED_LOG(level, tag, ...) PrintLogMessageWithTimeStamp(level, tag, __LINE__, __func__, "noted", __VA_ARGS__)

static volatile sig_atomic_t sEndRequested = 0;

static void requestEnd(int) { sEndRequested = 1; }

static void copy(OQCPipe& arPipe, OQCPipe& arNotes)
{
    while (0 == sEndRequested) {
        try {
            OsNamedPipeWaitForActivity(arPipe.get(), 1);
        } catch (const OQCTimeOutEx&) {
            continue;  // no data: the usual case
        }
        unsigned char lBytes[4096];
        const unsigned int lLength = arPipe.read(lBytes, sizeof lBytes);
        const unsigned int lWritten = arNotes.write(lBytes, lLength);
        if (lWritten != lLength) {
            char lText[256];
            NOTED_LOG(OQLL_Error, "-E-", "%u bytes are lost: %s", lLength - lWritten,
                      ClibStrerror(lText, sizeof lText));
        }
    }
}

static void serve(const std::string& acrDirectory)
{
    OQCPipe lNotes(ClibOpen((acrDirectory + "/notes").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640));
    const OQCFileLock lLock(lNotes.get());  // one daemon per directory
    const OQCString lPath((acrDirectory + "/in").c_str());
    int lUnused = -1;
    OsNamedPipeCreate(lPath, lUnused);  // leaves an existing file unchanged
    OQCPipe lPipe(lPath, OQFM_Mode1, OQPS_NonBlocking);
    struct stat lInfo;
    if (fstat(lPipe.get(), &lInfo) < 0 || !S_ISFIFO(lInfo.st_mode)) {
        throw OQCCreateFailedEx("the file exists and is not a FIFO", OQErrorCode<OQCCreateFailedEx>::value);
    }
    NOTED_LOG(OQLL_Information, "-I-", "ready");
    copy(lPipe, lNotes);
    OsNamedPipeDestroy(lPath, lUnused);  // a killed daemon leaves the FIFO, and the next one uses it
    NOTED_LOG(OQLL_Information, "-I-", "ending");
}

int main(int aCount, char** apWords)
{
    if (2 != aCount) {
        fprintf(stderr, "usage: noted DIRECTORY\n");
        return 2;
    }
    try {
        RegisterSignalHandler(SIGTERM, requestEnd);
        serve(apWords[1]);
        return 0;
    } catch (const OQCFileLockFailedEx&) {
        fprintf(stderr, "noted: another process serves %s\n", apWords[1]);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "noted: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    return 1;
}
