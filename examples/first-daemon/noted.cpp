// noted DIRECTORY: copies data from the FIFO DIRECTORY/in to the file DIRECTORY/notes. Ends on SIGTERM.

#include <OQLinux.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>

#include <string>

#define NOTED_LOG(level, tag, ...) PrintLogMessageWithTimeStamp(level, tag, __LINE__, __func__, "noted", __VA_ARGS__)

static volatile sig_atomic_t sEndRequested = 0;

static void requestEnd(int) { sEndRequested = 1; }

/// Returns the descriptor. Throws OQCOpenFailedEx with the text of errno if the descriptor is negative.
static int opened(int aDescriptor)
{
    if (aDescriptor < 0) {
        char lText[256];
        throw OQCOpenFailedEx(ClibStrerror(lText, sizeof lText), OQErrorCode<OQCOpenFailedEx>::value);
    }
    fcntl(aDescriptor, F_SETFD, FD_CLOEXEC);  // started programs do not inherit it
    return aDescriptor;
}

/// The FIFO. The constructor creates it and the destructor removes it. It is also removed when it cannot be opened.
class Pipe
{
public:
    explicit Pipe(const std::string& acrPath) : mPath(acrPath.c_str()), mPipe(-1)
    {
        OsNamedPipeCreate(mPath, mPipe);  // leaves an existing file unchanged
        struct stat lInfo;
        ClibStat(mPath.get(), &lInfo);
        if (!S_ISFIFO(lInfo.st_mode)) {
            throw OQCCreateFailedEx("the file exists and is not a FIFO", OQErrorCode<OQCCreateFailedEx>::value);
        }
        OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, OQPS_NonBlocking, OQCM_Server);
        try {
            opened(mPipe);
        } catch (const OQCException&) {
            OsNamedPipeDestroy(mPath, mPipe);
            throw;
        }
    }
    ~Pipe()
    {
        OsNamedPipeClose(mPipe, OQCM_Server);
        OsNamedPipeDestroy(mPath, mPipe);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    /// Waits up to one second for data. \return the number of bytes read
    unsigned int read(unsigned char* apBuffer, unsigned int aSize) const
    {
        unsigned int lLength = 0;
        try {
            OsNamedPipeWaitForActivity(mPipe, 1);
            OsNamedPipeRead(mPipe, apBuffer, aSize, lLength);
        } catch (const OQCTimeOutEx&) {
            // no data: the usual case
        }
        return lLength;
    }

private:
    const OQCString mPath;
    int mPipe;
};

static void serve(const std::string& acrDirectory)
{
    const int lNotes = opened(ClibOpen((acrDirectory + "/notes").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0640));
    OsLockFile(lNotes);  // one daemon per directory; the system releases the lock when this process ends
    const Pipe lPipe(acrDirectory + "/in");
    NOTED_LOG(OQLL_Information, "-I-", "ready");
    while (0 == sEndRequested) {
        unsigned char lBytes[4096];
        const unsigned int lLength = lPipe.read(lBytes, sizeof lBytes);
        if (0 != lLength && ClibWrite(lNotes, lBytes, lLength) != static_cast<int>(lLength)) {
            char lText[256];
            NOTED_LOG(OQLL_Error, "-E-", "%u bytes are lost: %s", lLength, ClibStrerror(lText, sizeof lText));
        }
    }
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
