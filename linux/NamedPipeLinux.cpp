// Named pipes: a FIFO file created with mknod(), used through a plain descriptor that belongs to the caller.

#define OQ_LOG_FILE ".//NamedPipeLinux"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "LinuxInternal.h"

namespace
{

const mode_t cFifoMode = S_IFIFO | 0660;

/// Returns the flags for open(), or -1 for an invalid mode. Synchronous writes use O_DSYNC, the traditional single bit.
int flagsOf(OQEFileMode aMode)
{
    switch (aMode) {
        case OQFM_Mode1:
        case OQFM_Mode2:
        case OQFM_Mode3:
            return O_RDWR | O_DSYNC;
        case OQFM_Append:
            return O_RDONLY | O_APPEND | O_DSYNC;
        default:
            return -1;
    }
}

/// What both reads do between "Entered" and "Left", logged as the calling operation. After a failed read the count is 0.
void readWith(int (*apRead)(int, void*, unsigned int), const char* acFunction, int aPipe, unsigned char* apBuffer,
              unsigned int aLength, unsigned int& arDone)
{
    arDone = 0;
    OQ_TRACE_AS(acFunction, "Reading %u bytes", aLength);
    const int lRead = apRead(aPipe, apBuffer, aLength);
    if (0 <= lRead) {
        arDone = static_cast<unsigned int>(lRead);
    }
}

}  // namespace

void OsNamedPipeCreate(const OQCString& acrPath, int&)
{
    OQ_ENTERED();
    OQ_TRACE("Creating linux named pipe...");
    if (mknod(acrPath.get(), cFifoMode, 0) < 0) {
        if (EEXIST != errno) {
            ErrorText lText;
            OQ_ERROR("Failed to create fifo file %s. Error: '%s' ", acrPath.get(), lText.get());
            OQ_LEFT();
            throwOsError<OQCCreateFailedEx>(lText);
        }
        OQ_TRACE("Fifo file %s already exists", acrPath.get());
    }
    OQ_LEFT();
}

void OsNamedPipeDestroy(const OQCString& acrPath, int&)
{
    OQ_ENTERED();
    OQ_TRACE("Destroying linux named pipe...");
    ClibUnlink(acrPath.get());
    OQ_LEFT();
}

// A failed open is not reported. The caller detects it because arPipe keeps its value.
void OsNamedPipeOpen(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState, OQEConnectionMode)
{
    OQ_ENTERED();
    int lFlags = flagsOf(aMode);
    if (lFlags < 0) {
        OQ_ERROR("Invalid flags %d passed to open file", static_cast<int>(aMode));
        OQ_LEFT();
        throwWith<OQCInvalidEx>("Invalid flags passed to open pipe");
    }
    if (OQPS_NonBlocking == aState) {
        lFlags |= O_NONBLOCK;
    }
    OQ_TRACE("Opening %s with %d flags", acrPath.get(), lFlags);
    const int lPipe = ClibOpen(acrPath.get(), lFlags, 0);
    if (0 <= lPipe) {
        arPipe = lPipe;
    }
    OQ_LEFT();
}

void OsNamedPipeConnect(int&, const OQCString&, OQEFileMode, OQEPipeState)
{
    OQ_ENTERED();
    OQ_LEFT();
}

void OsNamedPipeAccept(int)
{
    OQ_ENTERED();
    OQ_LEFT();
}

void OsNamedPipeRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone)
{
    OQ_ENTERED();
    readWith(ClibRead, __func__, aPipe, apBuffer, aLength, arDone);
    OQ_LEFT();
}

void OsNamedPipeBlockRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone)
{
    OQ_ENTERED();
    readWith(ClibBlockRead, __func__, aPipe, apBuffer, aLength, arDone);
    OQ_LEFT();
}

// Unlike the read functions, this one does not clear the count first: after a failed write it holds the caller's value.
void OsNamedPipeWrite(int aPipe, const unsigned char* acData, unsigned int aLength, unsigned int& arDone)
{
    OQ_ENTERED();
    OQ_TRACE("Writing %u bytes", aLength);
    const int lWritten = ClibWrite(aPipe, acData, aLength);
    if (0 <= lWritten) {
        arDone = static_cast<unsigned int>(lWritten);
    }
    OQ_LEFT();
}

void OsNamedPipeWaitForActivity(int aPipe, unsigned int aSeconds)
{
    OQ_ENTERED();
    OsWaitForActivity(aPipe, aSeconds);
    OQ_LEFT();
}

// The caller's variable keeps the number of the closed descriptor.
void OsNamedPipeClose(int& arPipe, OQEConnectionMode)
{
    OQ_ENTERED();
    OQ_TRACE("Closing linux named pipe. pipe desc: %u", static_cast<unsigned int>(arPipe));
    ClibClose(arPipe);
    OQ_LEFT();
}
