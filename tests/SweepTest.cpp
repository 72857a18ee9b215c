// Failures by the table: every system call of the layer refused with every error that its manual page names, every
// allocation refused in turn, all descriptors in use, and signals without end. Each operation has its own tests beside
// these; processes and the pthread families have such tables of their own, where their functions are planned.

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "TestKit.h"

// ---- What the layer and its companion are bound to.

OQ_FAULTY(int, mknod, (const char* acPath, mode_t aMode, dev_t aDevice), (acPath, aMode, aDevice), noexcept)
OQ_FAULTY(int, unlink, (const char* acPath), (acPath), noexcept)
OQ_FAULTY(int, close, (int aDescriptor), (aDescriptor), )
OQ_FAULTY(int, lockf, (int aDescriptor, int aCommand, off_t aLength), (aDescriptor, aCommand, aLength), )
OQ_FAULTY(int, kill, (pid_t aPid, int aSignal), (aPid, aSignal), noexcept)
OQ_FAULTY(int, system, (const char* acCommand), (acCommand), )
OQ_FAULTY(int, stat, (const char* acPath, struct stat* apInfo), (acPath, apInfo), noexcept)
OQ_FAULTY(int, clock_nanosleep, (clockid_t aClock, int aFlags, const timespec* acTime, timespec* apLeft),
          (aClock, aFlags, acTime, apLeft), )

/// A segment that is only said to be there, if set.
OQSSharedMemoryHeader* gSegment = nullptr;

#define OQ_FAULTY_SEGMENT(type, function, parameters, arguments, said) \
    Fault function##Fault;                                             \
    extern "C" type function parameters noexcept                       \
    {                                                                  \
        if (function##Fault.fires()) {                                 \
            return (type)function##Fault.result();                     \
        }                                                              \
        if (nullptr != gSegment) {                                     \
            return said;                                               \
        }                                                              \
        static Behind<type parameters> lReal(#function);               \
        return lReal arguments;                                        \
    }
OQ_FAULTY_SEGMENT(int, shmget, (key_t aKey, size_t aSize, int aFlags), (aKey, aSize, aFlags), 4711)
OQ_FAULTY_SEGMENT(int, shmctl, (int aId, int aCommand, struct shmid_ds* apState), (aId, aCommand, apState), 0)
OQ_FAULTY_SEGMENT(void*, shmat, (int aId, const void* acAddress, int aFlags), (aId, acAddress, aFlags), gSegment)
OQ_FAULTY_SEGMENT(int, shmdt, (const void* acAddress), (acAddress), 0)

// Under names of their own, because the C library's headers may have these inline already.
Fault gReadFault;
extern "C" ssize_t plannedRead(int aDescriptor, void* apBuffer, size_t aCount) __asm__("read");
extern "C" ssize_t plannedRead(int aDescriptor, void* apBuffer, size_t aCount)
{
    if (gReadFault.fires()) {
        return gReadFault.result();
    }
    static Behind<ssize_t(int, void*, size_t)> lReal("read");
    return lReal(aDescriptor, apBuffer, aCount);
}

Fault gWriteFault;
extern "C" ssize_t plannedWrite(int aDescriptor, const void* acBuffer, size_t aCount) __asm__("write");
extern "C" ssize_t plannedWrite(int aDescriptor, const void* acBuffer, size_t aCount)
{
    if (gWriteFault.fires()) {
        return gWriteFault.result();
    }
    static Behind<ssize_t(int, const void*, size_t)> lReal("write");
    return lReal(aDescriptor, acBuffer, aCount);
}

Fault gOpenFault;
extern "C" int plannedOpen(const char* acPath, int aFlags, mode_t aMode) __asm__("open");
extern "C" int plannedOpen(const char* acPath, int aFlags, mode_t aMode)
{
    if (gOpenFault.fires()) {
        return static_cast<int>(gOpenFault.result());
    }
    static Behind<int(const char*, int, ...)> lReal("open");
    return lReal(acPath, aFlags, aMode);
}

Fault gSelectFault;
extern "C" int select(int aCount, fd_set* apRead, fd_set* apWrite, fd_set* apExcept, timeval* apTime)
{
    if (gSelectFault.fires()) {
        return static_cast<int>(gSelectFault.result());
    }
    static Behind<int(int, fd_set*, fd_set*, fd_set*, timeval*)> lReal("select");
    return lReal(aCount, apRead, apWrite, apExcept, apTime);
}

namespace
{

/// A stream that is open and cannot be read, made before it is needed: it takes memory.
FILE* sBroken = nullptr;
int sReadErrno = 0;

void breakStream(int aErrno)
{
    sReadErrno = aErrno;
    cookie_io_functions_t lFunctions = {};
    lFunctions.read = [](void*, char*, size_t) -> ssize_t {
        errno = sReadErrno;
        return -1;
    };
    sBroken = fopencookie(nullptr, "r", lFunctions);
    setvbuf(sBroken, nullptr, _IONBF, 0);
}

FILE* takeBroken()
{
    FILE* const lpStream = sBroken;
    sBroken = nullptr;
    return lpStream;
}

FILE* sBrokenCommand = nullptr;

/// The host: a loopback address and two others, or the resolver's error.
int sHostError = 0;
unsigned char sAddresses[3][4] = {{127, 0, 0, 1}, {10, 1, 2, 3}, {10, 4, 5, 6}};
char* sAddressList[] = {reinterpret_cast<char*>(sAddresses[0]), reinterpret_cast<char*>(sAddresses[1]),
                        reinterpret_cast<char*>(sAddresses[2]), nullptr};
hostent sHost;

}  // namespace

Fault gPopenFault;
extern "C" FILE* popen(const char* acCommand, const char* acMode)
{
    if (gPopenFault.fires()) {
        return nullptr;
    }
    if (nullptr != sBroken) {
        return sBrokenCommand = takeBroken();
    }
    static Behind<FILE*(const char*, const char*)> lReal("popen");
    return lReal(acCommand, acMode);
}

extern "C" int pclose(FILE* apStream)
{
    if (apStream == sBrokenCommand) {
        sBrokenCommand = nullptr;
        return fclose(apStream);
    }
    static Behind<int(FILE*)> lReal("pclose");
    return lReal(apStream);
}

Fault gFopenFault;
extern "C" FILE* fopen(const char* acPath, const char* acMode)
{
    if (gFopenFault.fires()) {
        return nullptr;
    }
    if (nullptr != sBroken) {
        return takeBroken();
    }
    static Behind<FILE*(const char*, const char*)> lReal("fopen");
    return lReal(acPath, acMode);
}

Fault gGethostnameFault;
extern "C" int plannedGethostname(char* apBuffer, size_t aSize) noexcept __asm__("gethostname");
extern "C" int plannedGethostname(char* apBuffer, size_t aSize) noexcept
{
    if (gGethostnameFault.fires()) {
        return static_cast<int>(gGethostnameFault.result());
    }
    static Behind<int(char*, size_t)> lReal("gethostname");
    return lReal(apBuffer, aSize);
}

extern "C" hostent* gethostbyname(const char*)
{
    if (0 != sHostError) {
        h_errno = sHostError;
        return nullptr;
    }
    sHost.h_addrtype = AF_INET;
    sHost.h_length = 4;
    sHost.h_addr_list = sAddressList;
    return &sHost;
}

// ---- How many blocks the calling thread has given back since it armed the failing malloc.

#if !OQ_SANITIZED
namespace
{

thread_local bool sCounted = false;
thread_local unsigned int sFrees = 0;

}  // namespace

extern "C" void __libc_free(void* apMemory);

extern "C" void free(void* apMemory) noexcept
{
    sFrees += sCounted && nullptr != apMemory ? 1U : 0U;
    __libc_free(apMemory);
}
#endif

namespace
{

const LinesOf cPipeCreate(".//NamedPipeLinux", "OsNamedPipeCreate");
const LinesOf cPipeDestroy(".//NamedPipeLinux", "OsNamedPipeDestroy");
const LinesOf cPipeOpen(".//NamedPipeLinux", "OsNamedPipeOpen");
const LinesOf cPipeRead(".//NamedPipeLinux", "OsNamedPipeRead");
const LinesOf cPipeBlockRead(".//NamedPipeLinux", "OsNamedPipeBlockRead");
const LinesOf cPipeWrite(".//NamedPipeLinux", "OsNamedPipeWrite");
const LinesOf cPipeWait(".//NamedPipeLinux", "OsNamedPipeWaitForActivity");
const LinesOf cPipeClose(".//NamedPipeLinux", "OsNamedPipeClose");
const LinesOf cMemoryOpen(".//SharedMemoryLinux", "OsSharedMemoryOpen");
const LinesOf cMemoryClose(".//SharedMemoryLinux", "OsSharedMemoryClose");
const LinesOf cWait(".//MiscLinux", "OsWaitForActivity");
const LinesOf cExecute(".//MiscLinux", "OsExecute");
const LinesOf cLock(".//MiscLinux", "OsLockFile");
const LinesOf cUnlock(".//MiscLinux", "OsUnlockFile");
const LinesOf cLockStatus(".//MiscLinux", "OsFileLockStatus");
const LinesOf cAddress(".//MiscLinux", "OsGetIpAddress");
const LinesOf cAddresses(".//MiscLinux", "OsGetAllIpAddresses");
const LinesOf cOsName(".//MiscLinux", "OsGetOsName");
const LinesOf cRunning(".//ProcessLinux", "isProcessRunning");

const char* const cFallbackName = "Red Hat Enterprise Linux Server release 5.x";

/// What the operations are given, and what they leave. Made anew before each call.
struct Given {
    OQCString mPath = "/tmp/oqsweep";
    int mPipe = -7;
    unsigned char mBuffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    unsigned int mCount = 77;
    int mResult = -99;
    OQShmDesc mMailbox = {1, 64, -7, nullptr};
    OQSSharedMemoryHeader mHeader[2] = {};
    OQEFileLockStatus mStatus = static_cast<OQEFileLockStatus>(99);
    OQCList<unsigned int> mAddresses;
    unsigned int mAddress = 77;
    OQEOperatingSystem mOs = static_cast<OQEOperatingSystem>(99);
    OQCString mName = "unchanged";
    OQCList<OQCString> mLines;
    struct stat mInfo = {};
};

/// How an operation ended, kept without memory.
struct Outcome {
    const std::type_info* mClass;  ///< null: nothing was thrown
    unsigned int mCode;
    char mText[256];
    int mErrno;
};

void perform(const std::function<void(Given&)>& acrRun, Given& arGiven, Outcome& arOutcome)
{
    arOutcome.mClass = nullptr;
    arOutcome.mCode = 0;
    arOutcome.mText[0] = '\0';
    try {
        acrRun(arGiven);
        arOutcome.mErrno = errno;
    } catch (const OQCException& acrFailure) {
        arOutcome.mClass = &typeid(acrFailure);
        arOutcome.mCode = acrFailure.code();
        strcpy(arOutcome.mText, acrFailure.what());
    }
}

// ---- Refusals

typedef std::vector<int> Errors;

struct Row {
    const char* mName;                         ///< operation and call
    std::function<void(int)> mPlan;            ///< the call that is refused
    Errors mErrors;                            ///< with each of these
    std::function<void(Given&)> mRun;          ///< the operation
    const std::type_info* mClass;              ///< what it throws, or null
    unsigned int mCode;                        ///< ... with the text of errno
    std::function<Lines(const char*)> mLines;  ///< what it logs; given the text of errno
    std::function<bool(const Given&)> mLeft;   ///< whether what is told otherwise, or is to stay, is so
    bool mErrnoKept;                           ///< the caller sees the error in errno
    bool mNeedsMemory;                         ///< does not end in this way without
};

std::function<void(int)> nth(Fault& arFault, unsigned int aNth, long aResult = -1)
{
    return [&arFault, aNth, aResult](int aErrno) { arFault.failOn(aNth, aResult, aErrno); };
}

std::function<void(int)> each(Fault& arFault, long aResult = -1)
{
    return [&arFault, aResult](int aErrno) { arFault.failAlways(aResult, aErrno); };
}

const Errors cPathErrors = {EACCES, EBADF,  EDQUOT, EFAULT,  EINVAL, ELOOP, ENAMETOOLONG,
                            ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM,  EROFS};
const Errors cUnlinkErrors = {EACCES, EBADF,        EBUSY,  EFAULT, EINVAL,  EIO,   EISDIR,
                              ELOOP,  ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS};
const Errors cOpenErrors = {EACCES,  EBADF, EBUSY,      EDQUOT,       EEXIST, EFAULT, EFBIG,   EINTR,      EINVAL,
                            EISDIR,  ELOOP, EMFILE,     ENAMETOOLONG, ENFILE, ENODEV, ENOENT,  ENOMEM,     ENOSPC,
                            ENOTDIR, ENXIO, EOPNOTSUPP, EOVERFLOW,    EPERM,  EROFS,  ETXTBSY, EWOULDBLOCK};
const Errors cReadErrors = {EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR};  // and EINTR, which differs
const Errors cWriteErrors = {EAGAIN, EBADF,  EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,
                             EINTR,  EINVAL, EIO,          ENOSPC, EPERM,  EPIPE};
const Errors cCloseErrors = {EBADF, EINTR, EIO, ENOSPC, EDQUOT};
const Errors cStatErrors = {EACCES, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW};
const Errors cGetErrors = {EACCES, EEXIST, EINVAL, ENFILE, ENOENT, ENOMEM, ENOSPC, EPERM};
const Errors cAttachErrors = {EACCES, EIDRM, EINVAL, ENOMEM};
const Errors cControlErrors = {EACCES, EFAULT, EIDRM, EINVAL, ENOMEM, EOVERFLOW, EPERM};
const Errors cLockErrors = {EACCES, EAGAIN, EBADF, EDEADLK, EINTR, EINVAL, ENOLCK};
const Errors cSelectErrors = {EBADF, EINVAL, ENOMEM};  // and EINTR, which differs
const Errors cResolverErrors = {HOST_NOT_FOUND, TRY_AGAIN, NO_RECOVERY, NO_DATA, NETDB_INTERNAL};

Errors with(Errors aErrors, int aMore)
{
    aErrors.push_back(aMore);
    return aErrors;
}

std::function<Lines(const char*)> always(const Lines& acrLines)
{
    return [acrLines](const char*) { return acrLines; };
}

bool isText(const OQCString& acrString, const char* acText) { return 0 == strcmp(acText, acrString.get()); }

std::function<void(Given&)> opened(OQEConnectionMode aSide)
{
    return [aSide](Given& arGiven) { OsSharedMemoryOpen(arGiven.mMailbox, aSide); };
}

std::function<void(Given&)> closed(OQEConnectionMode aSide)
{
    return [aSide](Given& arGiven) {
        arGiven.mMailbox.shm_id = 4711;
        arGiven.mMailbox.shm_addr = gSegment;
        OsSharedMemoryClose(arGiven.mMailbox, aSide);
    };
}

template <class Text>
Lines textLines(const LinesOf& acrLines, const Text& acrBefore, const char* acText, const char* acAfter,
                const Lines& acrBetween = Lines())
{
    Lines lLines = {acrLines.entered()};
    lLines.insert(lLines.end(), acrBetween.begin(), acrBetween.end());
    lLines.push_back(acrLines.error(std::string(acrBefore) + acText + acAfter));
    lLines.push_back(acrLines.left());
    return lLines;
}

/// The rows, written as the reference of each operation reads.
std::vector<Row> rows()
{
    const auto lNothing = [](const Given&) { return true; };
    const auto lMailboxUnopened = [](const Given& acrGiven) {
        return -1 == acrGiven.mMailbox.shm_id && nullptr == acrGiven.mMailbox.shm_addr;
    };
    const auto lMailboxUnattached = [](const Given& acrGiven) {
        return 4711 == acrGiven.mMailbox.shm_id && nullptr == acrGiven.mMailbox.shm_addr;
    };
    const auto lMailboxNowhere = [](const Given& acrGiven) {
        return 4711 == acrGiven.mMailbox.shm_id &&
               reinterpret_cast<OQSSharedMemoryHeader*>(-1) == acrGiven.mMailbox.shm_addr;
    };
    const auto lMailboxAttached = [](const Given& acrGiven) {
        return 4711 == acrGiven.mMailbox.shm_id && gSegment == acrGiven.mMailbox.shm_addr;
    };
    const auto lCountZero = [](const Given& acrGiven) { return 0 == acrGiven.mCount && 1 == acrGiven.mBuffer[0]; };
    const auto lMinusOne = [](const Given& acrGiven) { return -1 == acrGiven.mResult; };
    const auto lOpened = always({cMemoryOpen.entered()});
    const auto lClosed = always({cMemoryClose.entered()});
    const Lines cGoing = {cLockStatus.trace("Going to find locking status")};

    return {
        // Named pipes
        {"OsNamedPipeCreate_mknod", nth(mknodFault, 1), cPathErrors,
         [](Given& arGiven) { OsNamedPipeCreate(arGiven.mPath, arGiven.mPipe); }, &typeid(OQCCreateFailedEx), 324,
         [](const char* acText) {
             return textLines(cPipeCreate, "Failed to create fifo file /tmp/oqsweep. Error: '", acText, "' ",
                              {cPipeCreate.trace("Creating linux named pipe...")});
         },
         [](const Given& acrGiven) { return -7 == acrGiven.mPipe; }, false, false},
        {"OsNamedPipeDestroy_unlink", nth(unlinkFault, 1), cUnlinkErrors,
         [](Given& arGiven) { OsNamedPipeDestroy(arGiven.mPath, arGiven.mPipe); }, nullptr, 0,
         always({cPipeDestroy.entered(), cPipeDestroy.trace("Destroying linux named pipe..."), cPipeDestroy.left()}),
         [](const Given& acrGiven) { return -7 == acrGiven.mPipe; }, true, false},
        {"OsNamedPipeOpen_open", nth(gOpenFault, 1), cOpenErrors,
         [](Given& arGiven) {
             OsNamedPipeOpen(arGiven.mPipe, arGiven.mPath, OQFM_Mode3, OQPS_NonBlocking, OQCM_Client);
         },
         nullptr, 0,
         always(
             {cPipeOpen.entered(),
              cPipeOpen.trace("Opening /tmp/oqsweep with " + std::to_string(O_RDWR | O_DSYNC | O_NONBLOCK) + " flags"),
              cPipeOpen.left()}),
         [](const Given& acrGiven) { return -7 == acrGiven.mPipe; }, true, false},
        {"OsNamedPipeRead_read", nth(gReadFault, 1), with(cReadErrors, EINTR),
         [](Given& arGiven) { OsNamedPipeRead(5, arGiven.mBuffer, 8, arGiven.mCount); }, nullptr, 0,
         always({cPipeRead.entered(), cPipeRead.trace("Reading 8 bytes"), cPipeRead.left()}), lCountZero, true, false},
        {"OsNamedPipeBlockRead_read", nth(gReadFault, 1), cReadErrors,
         [](Given& arGiven) { OsNamedPipeBlockRead(5, arGiven.mBuffer, 8, arGiven.mCount); }, nullptr, 0,
         always({cPipeBlockRead.entered(), cPipeBlockRead.trace("Reading 8 bytes"), cPipeBlockRead.left()}), lCountZero,
         true, false},
        {"OsNamedPipeWrite_write", nth(gWriteFault, 1), cWriteErrors,
         [](Given& arGiven) { OsNamedPipeWrite(5, arGiven.mBuffer, 8, arGiven.mCount); }, nullptr, 0,
         always({cPipeWrite.entered(), cPipeWrite.trace("Writing 8 bytes"), cPipeWrite.left()}),
         [](const Given& acrGiven) { return 77 == acrGiven.mCount; }, true, false},
        {"OsNamedPipeWaitForActivity_select", nth(gSelectFault, 1), cSelectErrors,
         [](Given&) { OsNamedPipeWaitForActivity(5, 1); }, &typeid(OQCPipeWaitFailedEx), 332,
         [](const char* acText) {
             Lines lLines = textLines(cWait, "Error waiting on Named Pipe: 5, Error : ", acText, "");
             lLines.insert(lLines.begin(), cPipeWait.entered());
             return lLines;
         },
         lNothing, false, false},
        {"OsNamedPipeClose_close", nth(closeFault, 1), cCloseErrors,
         [](Given& arGiven) {
             arGiven.mPipe = 5;
             OsNamedPipeClose(arGiven.mPipe, OQCM_Server);
         },
         nullptr, 0,
         always({cPipeClose.entered(), cPipeClose.trace("Closing linux named pipe. pipe desc: 5"), cPipeClose.left()}),
         [](const Given& acrGiven) { return 5 == acrGiven.mPipe; }, true, false},

        // Shared memory
        {"OsSharedMemoryOpen_server_shmget", nth(shmgetFault, 1), cGetErrors, opened(OQCM_Server),
         &typeid(OQCOpenFailedEx), 326, lOpened, lMailboxUnopened, false, false},
        {"OsSharedMemoryOpen_client_shmget", nth(shmgetFault, 1), cGetErrors, opened(OQCM_Client),
         &typeid(OQCOpenFailedEx), 326, lOpened, lMailboxUnopened, false, false},
        {"OsSharedMemoryOpen_server_IPC_STAT", nth(shmctlFault, 1), cControlErrors, opened(OQCM_Server),
         &typeid(OQCClibStatFailedEx), 173, lOpened, lMailboxUnattached, false, false},
        {"OsSharedMemoryOpen_server_SHM_LOCK", nth(shmctlFault, 2), cControlErrors, opened(OQCM_Server),
         &typeid(OQCFileLockFailedEx), 330, lOpened, lMailboxUnattached, false, false},
        {"OsSharedMemoryOpen_server_shmat", nth(shmatFault, 1), cAttachErrors, opened(OQCM_Server),
         &typeid(OQCOpenFailedEx), 326, lOpened, lMailboxNowhere, false, false},
        {"OsSharedMemoryOpen_client_shmat", nth(shmatFault, 1), cAttachErrors, opened(OQCM_Client),
         &typeid(OQCOpenFailedEx), 326, lOpened, lMailboxNowhere, false, false},
        {"OsSharedMemoryClose_server_IPC_STAT_first", nth(shmctlFault, 1), cControlErrors, closed(OQCM_Server),
         &typeid(OQCClibStatFailedEx), 173, lClosed, lMailboxAttached, false, false},
        {"OsSharedMemoryClose_server_IPC_RMID", nth(shmctlFault, 2), cControlErrors, closed(OQCM_Server),
         &typeid(OQCCloseFailedEx), 327, lClosed, lMailboxAttached, false, false},
        {"OsSharedMemoryClose_server_IPC_STAT_second", nth(shmctlFault, 3), cControlErrors, closed(OQCM_Server),
         &typeid(OQCClibStatFailedEx), 173, lClosed, lMailboxAttached, false, false},
        {"OsSharedMemoryClose_server_SHM_UNLOCK", nth(shmctlFault, 4), cControlErrors, closed(OQCM_Server),
         &typeid(OQCFileUnLockFailedEx), 331, lClosed, lMailboxAttached, false, false},
        {"OsSharedMemoryClose_server_shmdt",
         nth(shmdtFault, 1),
         {EINVAL},
         closed(OQCM_Server),
         &typeid(OQCCloseFailedEx),
         327,
         lClosed,
         lMailboxAttached,
         false,
         false},
        {"OsSharedMemoryClose_client_shmdt",
         nth(shmdtFault, 1),
         {EINVAL},
         closed(OQCM_Client),
         &typeid(OQCCloseFailedEx),
         327,
         lClosed,
         lMailboxAttached,
         false,
         false},

        // Descriptors, locks, signals
        {"OsWaitForActivity_select", nth(gSelectFault, 1), cSelectErrors, [](Given&) { OsWaitForActivity(5, 1); },
         &typeid(OQCPipeWaitFailedEx), 332,
         [](const char* acText) { return textLines(cWait, "Error waiting on Named Pipe: 5, Error : ", acText, ""); },
         lNothing, false, false},
        {"OsLockFile_lockf", nth(lockfFault, 1), cLockErrors, [](Given&) { OsLockFile(5); },
         &typeid(OQCFileLockFailedEx), 330,
         [](const char* acText) {
             return textLines(cLock, "Failed to lock file, error: ", acText, "", {cLock.trace("Going to lock file")});
         },
         lNothing, false, false},
        {"OsUnlockFile_lockf", nth(lockfFault, 1), cLockErrors, [](Given&) { OsUnlockFile(5); },
         &typeid(OQCFileUnLockFailedEx), 331,
         [](const char* acText) { return textLines(cUnlock, "Failed to unlock file, error: ", acText, ""); }, lNothing,
         false, false},
        {"OsFileLockStatus_lockf", nth(lockfFault, 1), cLockErrors,
         [](Given& arGiven) { OsFileLockStatus(5, arGiven.mStatus); }, nullptr, 0,
         always({cLockStatus.entered(), cGoing[0], cLockStatus.left()}),
         [](const Given& acrGiven) { return OQFLS_Locked == acrGiven.mStatus; }, true, false},
        {"OsKill_kill",
         nth(killFault, 1),
         {EINVAL, EPERM, ESRCH},
         [](Given& arGiven) { arGiven.mResult = OsKill(getpid(), 0); },
         nullptr,
         0,
         always({}),
         lMinusOne,
         true,
         false},

        // Commands
        {"OsExecute_popen",
         each(gPopenFault, 0),
         {EAGAIN, EMFILE, ENFILE, ENOMEM, EINVAL},
         [](Given& arGiven) { OsExecute("true", arGiven.mLines); },
         nullptr,
         0,
         always(
             {cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Failed in popen"), cExecute.left()}),
         [](const Given& acrGiven) { return 0 == acrGiven.mLines.size(); },
         true,
         false},
        {"OsExecute_read", breakStream, with(cReadErrors, EINTR),
         [](Given& arGiven) { OsExecute("true", arGiven.mLines); }, &typeid(OQCReadFailedEx), 328,
         [](const char* acText) {
             return Lines{cExecute.entered(), cExecute.trace("Calling popen"),
                          cExecute.trace(std::string("Failed to read - ") + acText), cExecute.left()};
         },
         [](const Given& acrGiven) { return 0 == acrGiven.mLines.size() && nullptr == sBrokenCommand; }, false, true},

        // Host identity
        {"OsGetIpAddress_gethostbyname", [](int aError) { sHostError = aError; }, cResolverErrors,
         [](Given& arGiven) { OsGetIpAddress(arGiven.mAddress); }, &typeid(OQCGetIpAddressFailEx), 347,
         [](const char* acText) { return textLines(cAddress, "Can't get local host entry, error: ", acText, ""); },
         [](const Given& acrGiven) { return 77 == acrGiven.mAddress; }, false, false},
        {"OsGetAllIpAddresses_gethostbyname", [](int aError) { sHostError = aError; }, cResolverErrors,
         [](Given& arGiven) { OsGetAllIpAddresses(arGiven.mAddresses); }, &typeid(OQCGetIpAddressFailEx), 347,
         [](const char* acText) { return textLines(cAddresses, "Can't get local host entry, error: ", acText, ""); },
         [](const Given& acrGiven) { return 0 == acrGiven.mAddresses.size(); }, false, false},
        {"OsGetIpAddress_gethostname",
         nth(gGethostnameFault, 1),
         {EFAULT, EINVAL, ENAMETOOLONG, EPERM},
         [](Given& arGiven) { OsGetIpAddress(arGiven.mAddress); },
         nullptr,
         0,
         always({cAddress.entered(), cAddress.trace("IP Address #0 - 127.0.0.1"),
                 cAddress.trace("IP Address #1 - 10.1.2.3"),
                 cAddress.trace("Using 10.1.2.3 as the System's primary IP Address"), cAddress.left()}),
         [](const Given& acrGiven) { return 0x0a010203 == acrGiven.mAddress; },
         false,
         false},
        {"OsGetOsName_stat", each(statFault), cStatErrors,
         [](Given& arGiven) { OsGetOsName(arGiven.mOs, arGiven.mName); }, nullptr, 0,
         always({cOsName.entered(), cOsName.left()}),
         [](const Given& acrGiven) { return OQOS_Linux == acrGiven.mOs && isText(acrGiven.mName, cFallbackName); },
         false, true},
        {"OsGetOsName_fopen",
         [](int aErrno) {
             statFault.failAlways(0, 0);
             gFopenFault.failAlways(0, aErrno);
         },
         with(cOpenErrors, EINVAL), [](Given& arGiven) { OsGetOsName(arGiven.mOs, arGiven.mName); }, nullptr, 0,
         always({cOsName.entered(), cOsName.trace("Going to determine Linux variant string"),
                 cOsName.trace("Not able to determine the OS variant information"), cOsName.left()}),
         [](const Given& acrGiven) { return OQOS_Linux == acrGiven.mOs && isText(acrGiven.mName, cFallbackName); },
         false, true},
        {"OsGetOsName_read",
         [](int aErrno) {
             statFault.failAlways(0, 0);
             breakStream(aErrno);
         },
         with(cReadErrors, EINTR), [](Given& arGiven) { OsGetOsName(arGiven.mOs, arGiven.mName); }, nullptr, 0,
         always({cOsName.entered(), cOsName.trace("Going to determine Linux variant string"),
                 cOsName.trace("Not able to determine the OS variant information"), cOsName.left()}),
         [](const Given& acrGiven) { return OQOS_Linux == acrGiven.mOs && isText(acrGiven.mName, cFallbackName); },
         false, true},
        {"isProcessRunning_stat",
         [](int aErrno) {
             systemFault.failAlways(0, 0);
             statFault.failAlways(-1, aErrno);
         },
         cStatErrors, [](Given& arGiven) { arGiven.mResult = isProcessRunning(arGiven.mName); }, nullptr, 0,
         always({cRunning.entered(), cRunning.trace("Process 'unchanged' is not running"), cRunning.left()}),
         [](const Given& acrGiven) { return 0 == acrGiven.mResult; }, false, false},
        {"isProcessRunning_system",
         [](int aErrno) {
             systemFault.failAlways(-1, aErrno);
             statFault.failAlways(-1, ENOENT);
         },
         {EAGAIN, ECHILD, ENOMEM},
         [](Given& arGiven) { arGiven.mResult = isProcessRunning(arGiven.mName); },
         nullptr,
         0,
         always({cRunning.entered(), cRunning.trace("Process 'unchanged' is not running"), cRunning.left()}),
         [](const Given& acrGiven) { return 0 == acrGiven.mResult; },
         false,
         false},

        // The companion's wrappers, which log nothing
        {"ClibOpen_open", nth(gOpenFault, 1), cOpenErrors,
         [](Given& arGiven) { arGiven.mResult = ClibOpen("/tmp/oqsweep", O_RDONLY, 0); }, nullptr, 0, always({}),
         lMinusOne, true, false},
        {"ClibRead_read", nth(gReadFault, 1), with(cReadErrors, EINTR),
         [](Given& arGiven) { arGiven.mResult = ClibRead(5, arGiven.mBuffer, 8); }, nullptr, 0, always({}), lMinusOne,
         true, false},
        {"ClibBlockRead_read", nth(gReadFault, 1), cReadErrors,
         [](Given& arGiven) { arGiven.mResult = ClibBlockRead(5, arGiven.mBuffer, 8); }, nullptr, 0, always({}),
         lMinusOne, true, false},
        {"ClibWrite_write", nth(gWriteFault, 1), cWriteErrors,
         [](Given& arGiven) { arGiven.mResult = ClibWrite(5, arGiven.mBuffer, 8); }, nullptr, 0, always({}), lMinusOne,
         true, false},
        {"ClibClose_close", nth(closeFault, 1), cCloseErrors, [](Given& arGiven) { arGiven.mResult = ClibClose(5); },
         nullptr, 0, always({}), lMinusOne, true, false},
        {"ClibUnlink_unlink", nth(unlinkFault, 1), cUnlinkErrors,
         [](Given& arGiven) { arGiven.mResult = ClibUnlink("/tmp/oqsweep"); }, nullptr, 0, always({}), lMinusOne, true,
         false},
        {"ClibGethostname_gethostname",
         nth(gGethostnameFault, 1),
         {EFAULT, EINVAL, ENAMETOOLONG, EPERM},
         [](Given& arGiven) { arGiven.mResult = ClibGethostname(reinterpret_cast<char*>(arGiven.mBuffer), 8); },
         nullptr,
         0,
         always({}),
         lMinusOne,
         true,
         false},
        {"ClibStat_stat", nth(statFault, 1), cStatErrors,
         [](Given& arGiven) {
             arGiven.mInfo.st_size = 77;
             ClibStat("/tmp/oqsweep", &arGiven.mInfo);
         },
         &typeid(OQCClibStatFailedEx), 173, always({}),
         [](const Given& acrGiven) { return 77 == acrGiven.mInfo.st_size; }, false, false},
        {"ClibFread_read", breakStream, with(cReadErrors, EINTR),
         [](Given& arGiven) {
             struct Closed {
                 FILE* mStream = takeBroken();
                 ~Closed() { fclose(mStream); }
             } lStream;
             ClibFread(reinterpret_cast<char*>(arGiven.mBuffer), 1, 8, lStream.mStream);
         },
         &typeid(OQCReadFailedEx), 328, always({}), [](const Given& acrGiven) { return 1 == acrGiven.mBuffer[0]; },
         false, false},
        {"getFirstLineFromFile_open", nth(gFopenFault, 1, 0), cOpenErrors,
         [](Given& arGiven) { arGiven.mResult = getFirstLineFromFile(arGiven.mPath, arGiven.mName); }, nullptr, 0,
         always({}),
         [](const Given& acrGiven) { return -1 == acrGiven.mResult && isText(acrGiven.mName, "unchanged"); }, true,
         false},
        {"getFirstLineFromFile_read", breakStream, with(cReadErrors, EINTR),
         [](Given& arGiven) { arGiven.mResult = getFirstLineFromFile(arGiven.mPath, arGiven.mName); }, nullptr, 0,
         always({}),
         [](const Given& acrGiven) { return -1 == acrGiven.mResult && isText(acrGiven.mName, "unchanged"); }, false,
         true},
        {"ClibSleepMS_clock_nanosleep",
         [](int aError) { clock_nanosleepFault.failOn(1, aError, 0); },
         {EFAULT, EINVAL, ENOTSUP},
         [](Given&) { ClibSleepMS(60000); },
         nullptr,
         0,
         always({}),
         [](const Given&) { return 1 == clock_nanosleepFault.calls(); },
         false,
         false},
    };
}

class RefusalTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        memset(mSegment, 0, sizeof mSegment);
    }

    void refuse(const Row& acrRow, int aError, bool aWithMemory)
    {
        SCOPED_TRACE(std::string(acrRow.mName) + ", error " + std::to_string(aError));
        Given lGiven;
        Outcome lOutcome;
        clearLog();
        Fault::resetAll();
        sHostError = 0;
        gSegment = reinterpret_cast<OQSSharedMemoryHeader*>(mSegment);
        acrRow.mPlan(aError);
        if (!OQ_SANITIZED && !aWithMemory) {
            gMallocFault.failFrom(1);
        }
        perform(acrRow.mRun, lGiven, lOutcome);
        if (!OQ_SANITIZED) {
            gMallocFault.stop();
        }
        const bool lLeft = acrRow.mLeft(lGiven);
        Fault::resetAll();
        gSegment = nullptr;
        EXPECT_EQ(nullptr, sBroken) << "the stream was not even taken";
        const std::string lText = strerror(aError);
        EXPECT_EQ(nullptr == acrRow.mClass, nullptr == lOutcome.mClass) << lOutcome.mText;
        if (nullptr != acrRow.mClass && nullptr != lOutcome.mClass) {
            EXPECT_TRUE(*acrRow.mClass == *lOutcome.mClass) << lOutcome.mClass->name();
            EXPECT_EQ(acrRow.mCode, lOutcome.mCode);
            EXPECT_EQ(lText, lOutcome.mText);
        }
        if (acrRow.mErrnoKept) {
            EXPECT_EQ(aError, lOutcome.mErrno);
        }
        EXPECT_EQ(acrRow.mLines(lText.c_str()), logged());
        EXPECT_TRUE(lLeft) << "what is left is not what the row says";
    }

    alignas(8) char mSegment[64];
};

TEST_F(RefusalTest, IsToldAsTheRowSaysForEveryErrorOfTheManualPage)
{
    for (const Row& lrRow : rows()) {
        for (const int lError : lrRow.mErrors) {
            refuse(lrRow, lError, true);
        }
    }
}

/// An exception, its text and its lines need no memory that could be refused.
TEST_F(RefusalTest, IsToldWithoutMemoryToo)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
    }
    for (const Row& lrRow : rows()) {
        for (const int lError : lrRow.mNeedsMemory ? Errors() : lrRow.mErrors) {
            refuse(lrRow, lError, false);
        }
    }
}

// ---- Memory

#if !OQ_SANITIZED

const char cLong[] = "a text that is far too long to be kept inside a string object: its characters need memory";

/// How an operation ends when its n-th allocation fails.
struct Refused {
    char mEnd;     ///< N: OQCNoMemoryEx, B: std::bad_alloc, R: returns
    long mBlocks;  ///< blocks more than before: what is told to stay allocated, and no more
    bool operator==(const Refused& acrOther) const { return mEnd == acrOther.mEnd && mBlocks == acrOther.mBlocks; }
};

std::ostream& operator<<(std::ostream& arStream, const Refused& acrRefused)
{
    return arStream << acrRefused.mEnd << " and " << acrRefused.mBlocks << " blocks";
}

/// Refuses the operation's first allocation, then its second, ... until it ends without having asked for so many.
/// \return how each ended, the last with all its memory
std::vector<Refused> refuseInTurn(const std::function<void()>& acrBefore, const std::function<void()>& acrRun,
                                  const std::function<void()>& acrAfter)
{
    std::vector<Refused> lEnds;
    for (unsigned int lNth = 1; lNth < 100; ++lNth) {
        SCOPED_TRACE("allocation " + std::to_string(lNth));
        acrBefore();
        Refused lEnd = {'R', 0};
        unsigned int lCode = 2;
        char lText[256] = "Out of Memory";
        gMallocFault.failOn(lNth);
        sFrees = 0;
        sCounted = true;
        try {
            acrRun();
        } catch (const OQCNoMemoryEx& acrFailure) {
            lEnd.mEnd = typeid(OQCNoMemoryEx) == typeid(acrFailure) ? 'N' : '?';
            lCode = acrFailure.code();
            strcpy(lText, acrFailure.what());
        } catch (const std::bad_alloc&) {
            lEnd.mEnd = 'B';
        }
        sCounted = false;
        const unsigned int lAsked = gMallocFault.stop();
        lEnd.mBlocks = static_cast<long>(lAsked) - (lNth <= lAsked ? 1 : 0) - static_cast<long>(sFrees);
        EXPECT_EQ(2U, lCode);
        EXPECT_STREQ("Out of Memory", lText);
        acrAfter();
        lEnds.push_back(lEnd);
        if (lAsked < lNth) {
            return lEnds;
        }
    }
    ADD_FAILURE() << "no end";
    return lEnds;
}

typedef std::vector<Refused> Ends;

void nothing() {}

/// With std::bad_alloc comes its own memory, and goes with it: an allocation more, when it is not itself refused.
class MemoryTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        EXPECT_THROW(throw OQCNoMemoryEx("warm", 2), OQCException);  // the first exception of a thread asks for more
    }
};

TEST_F(MemoryTest, PointerAsksForItsCounterAndLeavesThePointeeToTheCallerWithoutIt)
{
    unsigned int* lpPointee = nullptr;
    EXPECT_EQ(
        (Ends{{'N', 0}, {'R', -1}}),
        refuseInTurn([&] { lpPointee = new unsigned int(7); },
                     [&] { const Pointer<unsigned int> lPointer(lpPointee, OQPST_Individual, OQPMT_New); }, nothing));
}

TEST_F(MemoryTest, TextsLeaveNothingButATextWithoutACounter)
{
    const OQCString lOther(cLong);
    // Object, characters, counter; the short one has its characters inside.
    EXPECT_EQ((Ends{{'N', 0}, {'N', 0}, {'N', 2}, {'R', 0}}),
              refuseInTurn(
                  nothing, [] { const OQCString lText(cLong); }, nothing));
    EXPECT_EQ((Ends{{'N', 0}, {'N', 1}, {'R', 0}}), refuseInTurn(
                                                        nothing, [] { const OQCString lText("short"); }, nothing));
    EXPECT_EQ((Ends{{'N', 0}, {'N', 0}, {'N', 2}, {'R', 0}}),
              refuseInTurn(
                  nothing, [&] { const OQCString lText(lOther); }, nothing));
    OQCString lTarget("");
    EXPECT_EQ((Ends{{'N', 0}, {'N', 0}, {'N', 2}, {'R', 1}}),
              refuseInTurn([&] { EXPECT_STREQ("", lTarget.get()); }, [&] { lTarget = lOther; },
                           [&] { EXPECT_STREQ(cLong, lOther.get()); }));
    EXPECT_STREQ(cLong, lTarget.get());
    OQCString lGrowing("short");
    EXPECT_EQ((Ends{{'B', 0}, {'R', 1}}),
              refuseInTurn([&] { EXPECT_STREQ("short", lGrowing.get()); }, [&] { lGrowing += lOther; }, nothing));
    EXPECT_EQ(std::string("short") + cLong, lGrowing.get());
}

TEST_F(MemoryTest, ListsKeepTheirElementsAndLeaveNothingButATextWithoutACounter)
{
    OQCList<unsigned int> lNumbers;
    lNumbers.append(1);
    EXPECT_EQ((Ends{{'N', 0}, {'R', 1}}),
              refuseInTurn([&] { EXPECT_EQ(1, lNumbers.size()); }, [&] { lNumbers.append(2); }, nothing));
    EXPECT_EQ(2, lNumbers.size());
    const OQCString lText(cLong);
    OQCList<OQCString> lTexts;
    lTexts.append(lText);
    EXPECT_EQ((Ends{{'N', 0}, {'N', 0}, {'N', 0}, {'N', 2}, {'R', 4}}),
              refuseInTurn([&] { EXPECT_EQ(1, lTexts.size()); }, [&] { lTexts.append(lText); }, nothing));
    EXPECT_EQ(2, lTexts.size());
}

TEST_F(MemoryTest, LinesBeforeTheRefusalStayAndTheLineBufferIsLeft)
{
    char lBuffer[4000];
    OQCList<OQCString> lLines;
    const auto lBefore = [&] {
        memset(lBuffer, 0, sizeof lBuffer);
        strcpy(lBuffer, "first\nsecond\nrest");
        lLines.clear();
    };
    std::vector<int> lSizes;
    // The buffer; of each line the object and its counter, the node, and the object and counter of the copy in it.
    EXPECT_EQ((Ends{{'N', 0},
                    {'N', 1},
                    {'N', 2},
                    {'N', 1},
                    {'N', 1},
                    {'N', 2},
                    {'N', 4},
                    {'N', 5},
                    {'N', 4},
                    {'N', 4},
                    {'N', 5},
                    {'R', 6}}),
              refuseInTurn(
                  lBefore, [&] { OsBreak(lBuffer, lLines); }, [&] { lSizes.push_back(lLines.size()); }));
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 2}), lSizes);
}

TEST_F(MemoryTest, AddressesBeforeTheRefusalStay)
{
    OQCList<unsigned int> lAddresses;
    std::vector<int> lSizes;
    EXPECT_EQ((Ends{{'N', 0}, {'N', 1}, {'R', 2}}),
              refuseInTurn([&] { lAddresses.clear(); }, [&] { OsGetAllIpAddresses(lAddresses); },
                           [&] { lSizes.push_back(lAddresses.size()); }));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), lSizes);
}

TEST_F(MemoryTest, NameOfTheSystemStaysUntilItsSuccessorHasItsMemory)
{
    const std::string lPath = path("release");
    FILE* const lpFile = fopen(lPath.c_str(), "w");
    fputs("release 1\n", lpFile);
    fclose(lpFile);
    OQCString lLine("unchanged");
    const OQCString lName(lPath.c_str());
    int lResult = 0;
    std::vector<int> lResults;
    const Ends lEnds = refuseInTurn(
        [&] {
            lLine = "unchanged";
            lResult = -99;
        },
        [&] { lResult = getFirstLineFromFile(lName, lLine); },
        [&] {
            lResults.push_back(lResult);
            EXPECT_STREQ(0 == lResult ? "release 1" : "unchanged", lLine.get());
        });
    // The stream, its buffer, the line; then twice the object of a text and its counter.
    EXPECT_EQ((Ends{{'R', 0}, {'R', 0}, {'R', 0}, {'N', 0}, {'N', 1}, {'N', 0}, {'N', 1}, {'R', 0}}), lEnds);
    unlink(lPath.c_str());

    OQEOperatingSystem lOs;
    OQCString lSystem("unchanged");
    statFault.failAlways(-1, ENOENT);
    std::vector<std::string> lNames;
    // Three files that are not there, each told by an exception, which has memory of its own in need; then twice the
    // object, its characters and its counter.
    EXPECT_EQ(
        (Ends{{'R', 1}, {'R', 1}, {'R', 1}, {'N', 0}, {'N', 0}, {'N', 2}, {'N', 0}, {'N', 0}, {'N', 2}, {'R', 1}}),
        refuseInTurn([&] { lSystem = "unchanged"; }, [&] { OsGetOsName(lOs, lSystem); },
                     [&] { lNames.push_back(lSystem.get()); }));
    std::vector<std::string> lExpected(10, "unchanged");
    lExpected[0] = lExpected[1] = lExpected[2] = lExpected[9] = cFallbackName;
    EXPECT_EQ(lExpected, lNames);
}

TEST_F(MemoryTest, AllOtherOperationsAskForNone)
{
    const std::string lPath = path("pipe");
    const OQCString lName(lPath.c_str());
    int lPipe = -1;
    unsigned char lBuffer[8] = {};
    unsigned int lCount = 0;
    OQShmDesc lServer = {key(), 64, -1, nullptr};
    OQShmDesc lClient = lServer;
    OQEFileLockStatus lStatus;
    unsigned int lAddress = 0;
    pthread_mutex_t lMutex;
    pthread_cond_t lCondition;
    fflush(stdin);
    gMallocFault.failFrom(1);
    OsNamedPipeCreate(lName, lPipe);
    OsNamedPipeOpen(lPipe, lName, OQFM_Mode3, OQPS_NonBlocking, OQCM_Server);
    OsNamedPipeConnect(lPipe, lName, OQFM_Mode3, OQPS_NonBlocking);
    OsNamedPipeAccept(lPipe);
    OsNamedPipeWrite(lPipe, lBuffer, 8, lCount);
    OsNamedPipeWaitForActivity(lPipe, 1);
    OsNamedPipeRead(lPipe, lBuffer, 4, lCount);
    OsNamedPipeBlockRead(lPipe, lBuffer, 4, lCount);
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lName, lPipe);
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OsSharedMemoryOpen(lClient, OQCM_Client);
    OsSharedMemoryWrite(lServer, lBuffer, 8, lCount);
    OsSharedMemoryWaitForActivity(lClient, 1);
    OsSharedMemoryRead(lClient, lBuffer, 8, lCount);
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
    OsFileLockStatus(-1, lStatus);
    OsGetIpAddress(lAddress);
    OsInitMutex(lMutex);
    OsLockMutex(lMutex);
    OsUnlockMutex(lMutex);
    OsTrylockMutex(lMutex);
    OsUnlockMutex(lMutex);
    OsInitConditional(lCondition);
    OsSignal(lCondition);
    OsDestroyConditional(lCondition);
    OsDestroyMutex(lMutex);
    RegisterSignalHandler(SIGURG, SIG_DFL);
    const unsigned int lAsked = gMallocFault.stop();
    EXPECT_EQ(0U, lAsked);
    EXPECT_EQ(8U, lCount);
    EXPECT_EQ(0x0a010203U, lAddress);
}

#endif

// ---- Descriptors

class DescriptorsTest : public LayerTest
{
};

TEST_F(DescriptorsTest, WithNoneToBeHadNothingIsOpenedAndTheRestWorks)
{
    const std::string lPath = path("pipe");
    const int lShared = key();
    const ChildResult lResult = inChild([&] {
        const OQCString lName(lPath.c_str());
        const int lFile = open(lPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        unlink(lPath.c_str());
        int lEnds[2];
        ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
        const rlimit lFew = {64, 64};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lFew));
        while (0 <= fcntl(0, F_DUPFD_CLOEXEC, 0)) {
        }
        ASSERT_EQ(EMFILE, errno);

        // What would open one.
        int lPipe = -7;
        OsNamedPipeCreate(lName, lPipe);
        errno = 0;
        OsNamedPipeOpen(lPipe, lName, OQFM_Mode3, OQPS_NonBlocking, OQCM_Server);
        EXPECT_EQ(EMFILE, errno);
        EXPECT_EQ(-7, lPipe);
        OsNamedPipeDestroy(lName, lPipe);
        EXPECT_EQ(-1, ClibOpen("/dev/null", O_RDONLY, 0));
        EXPECT_EQ(EMFILE, errno);
        OQCString lLine("unchanged");
        EXPECT_EQ(-1, getFirstLineFromFile("/proc/version", lLine));
        EXPECT_EQ(EMFILE, errno);
        EXPECT_STREQ("unchanged", lLine.get());
        statFault.failAlways(0, 0);
        OQEOperatingSystem lOs;
        OsGetOsName(lOs, lLine);
        EXPECT_STREQ(cFallbackName, lLine.get());
        statFault.reset();
        OQCList<OQCString> lLines;
        clearLog();
        OsExecute("echo a", lLines);
        EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Failed in popen"),
                         cExecute.left()}),
                  logged());
        EXPECT_EQ(0, lLines.size());

        // What needs none that is not open yet.
        unsigned int lCount = 0;
        unsigned char lByte = 7;
        OsNamedPipeWrite(lEnds[1], &lByte, 1, lCount);
        EXPECT_EQ(1U, lCount);
        OsWaitForActivity(lEnds[0], 1);
        OsNamedPipeRead(lEnds[0], &lByte, 1, lCount);
        EXPECT_EQ(1U, lCount);
        OsLockFile(lFile);
        OsUnlockFile(lFile);
        OQShmDesc lMailbox = {lShared, 64, -1, nullptr};
        OsSharedMemoryOpen(lMailbox, OQCM_Server);
        OsSharedMemoryClose(lMailbox, OQCM_Server);
        unsigned long lThread;
        OsStartThread(lThread, nullptr, [](void*) -> void* { return nullptr; });
        OsWaitForExit(lThread);
    });
    EXPECT_EQ(0, lResult.mExitStatus);
}

// ---- Signals

/// Interrupts the thread that made it every few hundred microseconds, with a handler of the layer's own kind.
class Storm
{
public:
    Storm() : mStop(false), mSent(0)
    {
        sigaction(SIGUSR2, nullptr, &mBefore);
        RegisterSignalHandler(SIGUSR2, [](int) {});
        const pthread_t lTarget = pthread_self();
        mThread = std::thread([this, lTarget] {
            while (!mStop) {
                pthread_kill(lTarget, SIGUSR2);
                ++mSent;
                usleep(200);
            }
        });
        await(1);
        keepNoLines();
    }
    ~Storm()
    {
        mStop = true;
        mThread.join();
        sigaction(SIGUSR2, &mBefore, nullptr);
    }
    Storm(const Storm&) = delete;
    Storm& operator=(const Storm&) = delete;

    /// From another thread: waits for so many signals more.
    void await(unsigned int aMore) const
    {
        const unsigned int lBefore = mSent;
        while (mSent - lBefore < aMore) {
            usleep(100);
        }
    }

private:
    std::atomic<bool> mStop;
    std::atomic<unsigned int> mSent;
    std::thread mThread;
    struct sigaction mBefore;
};

const unsigned int cSignals = 30;  // while an operation blocks

class StormTest : public LayerTest
{
protected:
    void SetUp() override
    {
        if (OQ_SANITIZED) {
            std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
        }
        LayerTest::SetUp();
        ASSERT_EQ(0, pipe2(mEnds, O_CLOEXEC));
    }
    void TearDown() override
    {
        close(mEnds[0]);
        close(mEnds[1]);
        LayerTest::TearDown();
    }

    int mEnds[2];
};

TEST_F(StormTest, WaitForDataEndsWithTheData)
{
    const Storm lStorm;
    std::thread lWriter([&] {
        lStorm.await(cSignals);
        EXPECT_EQ(1, write(mEnds[1], "x", 1));
    });
    OsNamedPipeWaitForActivity(mEnds[0], 20);
    lWriter.join();
    char lByte = 0;
    EXPECT_EQ(1, ClibBlockRead(mEnds[0], &lByte, 1));
    EXPECT_EQ('x', lByte);
}

TEST_F(StormTest, BlockReadGathersEveryPiece)
{
    const Storm lStorm;
    std::thread lWriter([&] {
        for (const char* lpPiece = "pieces"; '\0' != *lpPiece; ++lpPiece) {
            lStorm.await(10);
            EXPECT_EQ(1, write(mEnds[1], lpPiece, 1));
        }
    });
    unsigned char lBuffer[6] = {};
    unsigned int lCount = 0;
    OsNamedPipeBlockRead(mEnds[0], lBuffer, 6, lCount);
    lWriter.join();
    EXPECT_EQ(6U, lCount);
    EXPECT_EQ(0, memcmp("pieces", lBuffer, 6));
}

/// A write or read that a signal cuts short says how far it came, so that a caller who goes on from there loses nothing.
TEST_F(StormTest, WritesAndReadsSayHowFarTheyCame)
{
    std::vector<unsigned char> lData(600000);
    for (size_t lIndex = 0; lIndex < lData.size(); ++lIndex) {
        lData[lIndex] = static_cast<unsigned char>(lIndex * 31 >> 3);
    }
    for (const bool lWrites : {true, false}) {
        std::vector<unsigned char> lArrived;
        std::vector<unsigned char> lBuffer(lData.size());
        const Storm lStorm;
        std::thread lOther([&] {
            size_t lDone = 0;
            while (lDone < lData.size()) {
                lStorm.await(1);
                const size_t lPiece = std::min<size_t>(lData.size() - lDone, 40000);
                const ssize_t lMoved =
                    lWrites ? read(mEnds[0], &lBuffer[lDone], lPiece) : write(mEnds[1], &lData[lDone], lPiece);
                ASSERT_LT(0, lMoved);
                lDone += static_cast<size_t>(lMoved);
            }
        });
        size_t lDone = 0;
        while (lDone < lData.size()) {
            unsigned int lCount = 0;  // what a call that a signal ended at once leaves
            const unsigned int lLeft = static_cast<unsigned int>(lData.size() - lDone);
            if (lWrites) {
                OsNamedPipeWrite(mEnds[1], &lData[lDone], lLeft, lCount);
            } else {
                OsNamedPipeRead(mEnds[0], &lBuffer[lDone], lLeft, lCount);
            }
            lDone += lCount;
        }
        lOther.join();
        EXPECT_TRUE(lData == lBuffer) << (lWrites ? "written" : "read");
    }
}

TEST_F(StormTest, MailboxLosesNoMessage)
{
    OQShmDesc lServer = {key(), 64, -1, nullptr};
    OQShmDesc lClient = lServer;
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OsSharedMemoryOpen(lClient, OQCM_Client);
    {
        const Storm lStorm;
        std::thread lReader([&] {
            for (unsigned char lNumber = 0; lNumber < 10; ++lNumber) {
                unsigned char lByte = 99;
                unsigned int lCount = 0;
                lStorm.await(5);
                OsSharedMemoryWaitForActivity(lClient, 20);
                OsSharedMemoryRead(lClient, &lByte, 1, lCount);
                EXPECT_EQ(1U, lCount);
                EXPECT_EQ(lNumber, lByte);
            }
        });
        for (unsigned char lNumber = 0; lNumber < 10; ++lNumber) {
            unsigned int lCount = 0;
            OsSharedMemoryWrite(lServer, &lNumber, 1, lCount);
            EXPECT_EQ(1U, lCount);
        }
        lReader.join();
    }
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
}

TEST_F(StormTest, SleepIsNotShortened)
{
    const Storm lStorm;
    const auto lBegin = std::chrono::steady_clock::now();
    ClibSleepMS(60);
    EXPECT_LE(std::chrono::milliseconds(60), std::chrono::steady_clock::now() - lBegin);
}

TEST_F(StormTest, ThreadsMutexesAndConditionsAreWaitedForToTheEnd)
{
    struct Meeting {
        const Storm& mStorm;
        pthread_mutex_t mMutex;
        pthread_cond_t mCondition;
        std::atomic<int> mStep;
    };
    const Storm lStorm;
    Meeting lMeeting = {lStorm, {}, {}, {0}};
    OsInitMutex(lMeeting.mMutex);
    OsInitConditional(lMeeting.mCondition);
    unsigned long lThread = 0;
    OsStartThread(lThread, &lMeeting, [](void* apMeeting) -> void* {
        Meeting& lrMeeting = *static_cast<Meeting*>(apMeeting);
        OsLockMutex(lrMeeting.mMutex);
        lrMeeting.mStep = 1;
        lrMeeting.mStorm.await(cSignals);  // while the other wants the mutex
        lrMeeting.mStep = 2;
        OsUnlockMutex(lrMeeting.mMutex);
        for (int lStep = 3; lStep <= 4; ++lStep) {
            lrMeeting.mStorm.await(cSignals);  // while the other waits for the condition
            OsLockMutex(lrMeeting.mMutex);
            lrMeeting.mStep = lStep;
            OsSignal(lrMeeting.mCondition);
            OsUnlockMutex(lrMeeting.mMutex);
        }
        lrMeeting.mStorm.await(cSignals);  // while the other waits for the end
        lrMeeting.mStep = 5;
        return nullptr;
    });
    EXPECT_TRUE(eventually([&] { return 1 <= lMeeting.mStep; }));
    OsLockMutex(lMeeting.mMutex);
    EXPECT_LE(2, lMeeting.mStep);
    while (lMeeting.mStep < 3) {
        OsWait(lMeeting.mCondition, lMeeting.mMutex);
    }
    while (lMeeting.mStep < 4) {
        OsConditionalTimedWait(lMeeting.mCondition, lMeeting.mMutex, 20);
    }
    OsUnlockMutex(lMeeting.mMutex);
    OsWaitForExit(lThread);
    EXPECT_EQ(5, lMeeting.mStep);
    OsDestroyConditional(lMeeting.mCondition);
    OsDestroyMutex(lMeeting.mMutex);
}

/// As the reference tells callers to wait where signals are handled.
int waitFor(int aChild)
{
    for (;;) {
        try {
            return ProcessWait(aChild, 0);
        } catch (const OQCProcessWaitFailedEx&) {
            siginfo_t lInfo;
            if (0 != waitid(P_PID, static_cast<id_t>(aChild), &lInfo, WEXITED | WNOHANG | WNOWAIT)) {
                return -99;  // there is no such child
            }
        }
    }
}

TEST_F(StormTest, ProgramsStartAndFailAsEver)
{
    const Storm lStorm;
    const pid_t lParent = getpid();
    char lName[] = "name";
    char* const lArguments[] = {lName, nullptr};
    for (int lRound = 0; lRound < 10; ++lRound) {
        EXPECT_EQ(0, waitFor(ProcessCreate("/bin/true", lArguments, nullptr)));
        int lChild = -1;
        try {
            lChild = ProcessCreate("/nonexistent/program", lArguments, nullptr);
        } catch (const OQCProcessCreationFailedEx& acrFailure) {
            if (lParent != getpid()) {
                _exit(0 == strcmp("No such file or directory", acrFailure.what()) ? 42 : 43);
            }
            ADD_FAILURE() << "thrown in the parent: " << acrFailure.what();
        }
        EXPECT_EQ(42, waitFor(lChild));
    }
}

TEST_F(StormTest, CommandIsReadWholeOrItsInterruptionIsThrownAfterWholeLines)
{
    const Storm lStorm;
    unsigned int lInterrupted = 0;
    for (int lRound = 0; lRound < 20; ++lRound) {
        OQCList<OQCString> lLines;
        try {
            OsExecute("echo first; echo second", lLines);
            EXPECT_EQ(2, lLines.size());
        } catch (const OQCReadFailedEx& acrFailure) {
            ++lInterrupted;
            EXPECT_STREQ("Interrupted system call", acrFailure.what());
            EXPECT_EQ(328U, acrFailure.code());
        }
        EXPECT_GE(2, lLines.size());
        const char* lpExpected = "first";
        for (const OQCString& lrLine : lLines) {
            EXPECT_STREQ(lpExpected, lrLine.get());
            lpExpected = "second";
        }
    }
    RecordProperty("Interrupted", static_cast<int>(lInterrupted));
}

TEST_F(StormTest, InterruptedOpenLeavesTheDescriptorAndCanBeRepeated)
{
    const std::string lPath = path("fifo");
    int lPipe = -7;
    OsNamedPipeCreate(lPath.c_str(), lPipe);
    {
        const Storm lStorm;
        std::atomic<unsigned int> lInterrupted(0);
        std::atomic<bool> lOpened(false);
        std::thread lWriter([&] {
            EXPECT_TRUE(eventually([&] { return 2 <= lInterrupted; }));
            int lOther = -1;
            OsNamedPipeOpen(lOther, lPath.c_str(), OQFM_Mode3, OQPS_Blocking, OQCM_Client);
            EXPECT_LE(0, lOther);
            EXPECT_TRUE(eventually([&] { return lOpened.load(); }));
            OsNamedPipeClose(lOther, OQCM_Client);
        });
        for (;;) {  // for reading alone: waits for the other
            OsNamedPipeOpen(lPipe, lPath.c_str(), OQFM_Append, OQPS_Blocking, OQCM_Server);
            if (-7 != lPipe) {
                break;
            }
            ++lInterrupted;
        }
        lOpened = true;
        lWriter.join();
        EXPECT_LE(0, lPipe);
    }
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lPath.c_str(), lPipe);
}

}  // namespace
