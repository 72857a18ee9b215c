// Host services: wait for a descriptor, run a command, lock a file, signal a process, identify the host.

#define OQ_LOG_FILE ".//MiscLinux"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include "LinuxInternal.h"

namespace
{

const int cRestartNoHand = 514;                // the kernel's ERESTARTNOHAND, a possible error of an interrupted call
const unsigned int cBufferSize = 4000;         // bytes of the read buffer and of the line buffer
const unsigned int cHostNameSize = 128;        // bytes
const unsigned int cLoopbackPrefixLength = 4;  // of "127."

const char* const cNoAddress = "No non-loopback IP Address configured on system";
const char* const cFallbackName = "Red Hat Enterprise Linux Server release 5.x";

/// Allocates a zeroed buffer of 4000 bytes with malloc().
char* allocateBuffer()
{
    char* const lpBuffer = static_cast<char*>(malloc(cBufferSize));
    if (NULL == lpBuffer) {
        throwWith<OQCNoMemoryEx>("Out of Memory");
    }
    ClibMemset(lpBuffer, 0, cBufferSize);
    return lpBuffer;
}

/// Looks up the host's own entry; logs as acFunction. The resolver owns the entry, and the whole process shares it.
const hostent* lookUpHost(const char* acFunction)
{
    char lHostName[cHostNameSize] = {};
    ClibGethostname(lHostName, sizeof lHostName);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): OQLinux.h allows one thread at a time.
    const hostent* const lpHostEntry = gethostbyname(lHostName);
    if (NULL == lpHostEntry) {
        errno = h_errno;  // reports the resolver's error number with the system's text for it
        ErrorText lText;
        OQ_ERROR_AS(acFunction, "Can't get local host entry, error: %s", lText.get());
        OQ_TRACE_AS(acFunction, "%s", "Left");
        throwOsError<OQCGetIpAddressFailEx>(lText);
    }
    // The logged text contains the expanded form of NULL. Readers of the log match this text.
    OQ_ASSERT_AS(lpHostEntry->h_addr_list != NULL, "lpHostEntry->h_addr_list != __null", acFunction, OQ_LOG_FILE);
    return lpHostEntry;
}

/// Finds the next address that is not loopback, from arIndex on, in host byte order and as text. Logs as acFunction. The
/// loop tests for the end of the list only after the first entry, so the body tests that entry for null.
bool findAddress(const char* acFunction, const hostent* acHostEntry, unsigned int& arIndex, unsigned int& arAddress,
                 char (&arText)[INET_ADDRSTRLEN])
{
    while (0 == arIndex || NULL != acHostEntry->h_addr_list[arIndex]) {
        const unsigned int lIndex = arIndex++;
        const char* const lpEntry = acHostEntry->h_addr_list[lIndex];
        if (NULL != lpEntry) {
            in_addr lAddress;
            ClibMemcpy(&lAddress, lpEntry, sizeof lAddress);
            // Copies the text, because the host's logging function may also call inet_ntoa. Every address fits.
            // NOLINTNEXTLINE(concurrency-mt-unsafe,cert-err33-c): OQLinux.h allows one thread at a time.
            snprintf(arText, sizeof arText, "%s", inet_ntoa(lAddress));
            OQ_TRACE_AS(acFunction, "IP Address #%u - %s", lIndex, arText);
            if (0 != ClibnStrcmp(arText, "127.", cLoopbackPrefixLength)) {
                arAddress = ClibNtohl(lAddress.s_addr);
                return true;
            }
        }
    }
    return false;
}

bool exists(const char* acPath)
{
    try {
        struct stat lInfo;
        ClibStat(acPath, &lInfo);
        return true;
    } catch (const OQCClibStatFailedEx&) {
        return false;
    }
}

/// Returns the path of the distribution's release file, or null.
const char* findReleaseFile()
{
    for (const char* lpPath : {"/etc/oracle-release", "/etc/enterprise-release", "/etc/redhat-release"}) {
        if (exists(lpPath)) {
            return lpPath;
        }
    }
    return NULL;
}

}  // namespace

// After an interruption, the loop calls select() again with the same objects. Linux leaves the remaining time in the
// structure, so the whole wait never exceeds aSeconds.
void OsWaitForActivity(int aDescriptor, unsigned int aSeconds)
{
    OQ_ENTERED();
    fd_set lReadSet;
    FD_ZERO(&lReadSet);
    if (0 <= aDescriptor) {
        FD_SET(aDescriptor, &lReadSet);
    }
    timeval lTimeOut;
    lTimeOut.tv_sec = static_cast<time_t>(aSeconds);
    lTimeOut.tv_usec = 0;
    int lResult;
    while ((lResult = select(aDescriptor + 1, &lReadSet, NULL, NULL, &lTimeOut)) < 0 &&
           (EINTR == errno || cRestartNoHand == errno)) {
        OQ_INFORMATION("The select() call was interrupted.. Ignoring");
    }
    if (lResult < 0) {
        ErrorText lText;
        OQ_ERROR("Error waiting on Named Pipe: %u, Error : %s", static_cast<unsigned int>(aDescriptor), lText.get());
        OQ_LEFT();
        throwOsError<OQCPipeWaitFailedEx>(lText);
    }
    if (0 == lResult) {
        OQ_TRACE("No data within %u seconds.", aSeconds);
        OQ_LEFT();
        throwWith<OQCTimeOutEx>("Timed out");
    }
    OQ_TRACE("Data is available now.");
    OQ_LEFT();
}

// When memory is exhausted, the buffers stay allocated and the stream stays open. A cancelled thread also leaves the
// stream open: pclose() waits until the command ends, and a join of the thread would wait equally long.
void OsExecute(const char* acCommand, OQCList<OQCString>& arLines)
{
    OQ_ENTERED();
    OQ_TRACE("Calling popen");
    // NOLINTNEXTLINE(cert-env33-c): the operation runs the caller's shell command.
    FILE* const lpStream = popen(acCommand, "r");
    if (NULL == lpStream) {
        OQ_TRACE("Failed in popen");
        OQ_LEFT();
        return;
    }
    // Programs that other threads start from now on must not inherit the pipe. They would keep it open, and a command
    // that waits for its reader to close the pipe would keep running.
    fcntl(fileno(lpStream), F_SETFD, FD_CLOEXEC);
    char* const lpBuffer = allocateBuffer();
    char* lpWrite = lpBuffer;
    try {
        for (;;) {
            const unsigned int lUsed = static_cast<unsigned int>(lpWrite - lpBuffer);
            ClibMemset(lpWrite, 0, cBufferSize - lUsed);
            const unsigned int lLength = ClibFread(lpWrite, 1, cBufferSize - 1 - lUsed, lpStream);
            if (0 == lLength) {
                OQ_TRACE("Fread returned ERROR. lLength = %d", 0);
                break;
            }
            lpWrite[lLength] = '\0';
            OQ_TRACE("Buffer got = %s", lpWrite);
            lpWrite = OsBreak(lpBuffer, arLines);
        }
    } catch (const OQCReadFailedEx& acrFailure) {
        OQ_TRACE("Failed to read - %s", acrFailure.what());
        pclose(lpStream);
        free(lpBuffer);
        OQ_LEFT();
        throw;
    } catch (const abi::__forced_unwind&) {
        free(lpBuffer);
        throw;
    }
    pclose(lpStream);
    OQ_TRACE("Number of lines in output: %u", static_cast<unsigned int>(arLines.size()));
    free(lpBuffer);
    OQ_LEFT();
}

char* OsBreak(char* apBuffer, OQCList<OQCString>& arLines)
{
    OQ_ENTERED();
    char* const lpScratch = allocateBuffer();
    char* lpCursor = apBuffer;
    for (;;) {
        char* const lpNewline = strchr(lpCursor, '\n');
        if (NULL == lpNewline) {
            ClibStrcpy(lpScratch, lpCursor);
            OQ_TRACE("Incomplete line: %s", lpScratch);
            ClibStrcpy(apBuffer, lpScratch);
            lpCursor = apBuffer + ClibStrlen(apBuffer);
            break;
        }
        *lpNewline = '\0';
        ClibStrcpy(lpScratch, lpCursor);
        const OQCString lLine(lpScratch);
        OQ_TRACE("Line: %s", lpScratch);
        arLines.append(lLine);
        lpCursor = lpNewline + 1;
        if ('\0' == *lpCursor) {
            OQ_TRACE("End of popened Buffer");
            lpCursor = apBuffer;
            break;
        }
    }
    OQ_LEFT();
    free(lpScratch);
    return lpCursor;
}

// F_TLOCK does not wait: the call fails at once if another process holds a lock.
void OsLockFile(int aDescriptor)
{
    OQ_ENTERED();
    OQ_TRACE("Going to lock file");
    if (lockf(aDescriptor, F_TLOCK, 0) < 0) {
        ErrorText lText;
        OQ_ERROR("Failed to lock file, error: %s", lText.get());
        OQ_LEFT();
        throwOsError<OQCFileLockFailedEx>(lText);
    }
    OQ_LEFT();
}

void OsUnlockFile(int aDescriptor)
{
    OQ_ENTERED();
    if (lockf(aDescriptor, F_ULOCK, 0) < 0) {
        ErrorText lText;
        OQ_ERROR("Failed to unlock file, error: %s", lText.get());
        OQ_LEFT();
        throwOsError<OQCFileUnLockFailedEx>(lText);
    }
    OQ_LEFT();
}

void OsFileLockStatus(int aDescriptor, OQEFileLockStatus& arStatus)
{
    OQ_ENTERED();
    OQ_TRACE("Going to find locking status");
    const int lResult = lockf(aDescriptor, F_TEST, 0);
    if (0 == lResult) {
        arStatus = OQFLS_Unlocked;
    } else if (lResult < 0) {
        arStatus = OQFLS_Locked;
    } else {
        OQ_ASSERT(false);
    }
    OQ_LEFT();
}

int OsKill(int aPid, int aSignal) { return kill(aPid, aSignal); }

void OsGetAllIpAddresses(OQCList<unsigned int>& arAddresses)
{
    OQ_ENTERED();
    const hostent* const lpHostEntry = lookUpHost(__func__);
    unsigned int lIndex = 0;
    unsigned int lAddress;
    char lText[INET_ADDRSTRLEN];
    bool lFound = false;
    while (findAddress(__func__, lpHostEntry, lIndex, lAddress, lText)) {
        OQ_TRACE("Using %s as one of System's IP Addresses", lText);
        arAddresses.append(lAddress);
        lFound = true;
    }
    if (!lFound) {
        OQ_HALT_AS(__func__, cNoAddress);
        throwWith<OQCGetIpAddressFailEx>(cNoAddress);
    }
    OQ_LEFT();
}

void OsGetIpAddress(unsigned int& arAddress)
{
    OQ_ENTERED();
    const hostent* const lpHostEntry = lookUpHost(__func__);
    unsigned int lIndex = 0;
    char lText[INET_ADDRSTRLEN];
    if (!findAddress(__func__, lpHostEntry, lIndex, arAddress, lText)) {
        OQ_HALT_AS(__func__, cNoAddress);
        throwWith<OQCGetIpAddressFailEx>(cNoAddress);
    }
    OQ_TRACE("Using %s as the System's primary IP Address", lText);
    OQ_LEFT();
}

void OsGetOsName(OQEOperatingSystem& arOs, OQCString& arName)
{
    OQ_ENTERED();
    arOs = OQOS_Linux;
    const char* const lpReleaseFile = findReleaseFile();
    if (NULL == lpReleaseFile) {
        arName = cFallbackName;
        OQ_LEFT();
        return;
    }
    OQ_TRACE("Going to determine Linux variant string");
    OQCString lLine("");
    if (0 == getFirstLineFromFile(lpReleaseFile, lLine)) {
        OQ_TRACE("Found OS Info: '%s'", lLine.get());
        arName = lLine;
    } else {
        OQ_TRACE("Not able to determine the OS variant information");
        arName = cFallbackName;
    }
    OQ_LEFT();
}
