/// \file
/// The Linux operating-system abstraction layer. This header includes everything that a caller needs.
///
/// All functions are free functions in the global namespace. They keep no state, start no thread and hold no lock beyond
/// a call. They need no initialisation. Every handle belongs to the caller.
///
/// **Failures** are exceptions. A function throws them by value, as one leaf of the tree in OQException.h, with a fixed
/// code per class. Unless stated otherwise, the message is the system's text for the current errno. A few operations
/// report failures only through an out-parameter or a return value; their documentation says so. Every leaf is listed
/// below with its code.
///
/// **Broken preconditions** end the process. The function logs one line "Assertion [ condition ] failed" at level 1,
/// tag "-H-", and calls `exit(1)`. It throws nothing, and no destructor of its frame runs.
///
/// **Log.** "Traced" means that the function logs "Entered" first and "Left" before each normal return, at trace level
/// (128, "-T-"). A failure is logged at error level (8, "-E-"). Unless stated otherwise, all other lines are logged at
/// trace level. Those include the lines for a time-out and for a missing message.
///
/// **Errors of POSIX thread functions** are return values; the functions do not store them in errno. The exceptions
/// nevertheless carry the text of errno. That text may describe an earlier failure, or be "Success". Identify these
/// failures by their class.
///
/// **errno.** Logging leaves errno unchanged. After a failed OsNamedPipeOpen() or OsKill(), errno is that of the failed
/// call.
///
/// **Cancellation.** The section "Threads" of a function says whether the function is a cancellation point. A thread
/// that is cancelled there unwinds its C++ frames, as described for OsDestroyThread().
///
/// \par Linking
/// With pkg-config: `pkg-config --cflags --libs oqlinux oqcompanion`. With CMake: `find_package(OQLinux)` and the targets
/// OQ::Linux and OQ::Companion. A host with a companion runtime of its own links only the layer.
///
/// \par Files
/// isProcessRunning() writes to /tmp/.vyrsyscmd. OsGetOsName() reads /etc/oracle-release, /etc/enterprise-release or
/// /etc/redhat-release.
#ifndef OQ_LINUX_H
#define OQ_LINUX_H

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include "OQCompanion.h"
#include "OQException.h"
#include "OQList.h"
#include "OQString.h"
#include "Pointer.h"

// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup mutexes Mutexes
/// Operations on the caller's pthread_mutex_t. The mutex has the platform's default kind: it is not recursive and does
/// not check errors. A thread that locks a mutex twice blocks for ever. Unlocking another thread's mutex is not
/// detected. All five functions are silent and allocate nothing on success. After a failure the mutex is as the POSIX
/// call left it.
/// @{

/// Initialises a mutex with default attributes.
/// \posix pthread_mutex_init()
/// \param[out] arMutex the caller's memory; uninitialised on failure
/// \throws OQCMutexInitFailedEx 333
/// \silent
/// \threads Any, one at a time for one mutex.
OQ_EXPORT void OsInitMutex(pthread_mutex_t& arMutex);

/// Destroys a mutex that no thread holds or waits for.
/// \posix pthread_mutex_destroy()
/// \param[in,out] arMutex initialised; its memory stays the caller's
/// \throws OQCMutexDestroyFailedEx 334, on glibc also when the mutex is held; the mutex is then still usable
/// \silent
/// \threads Any, one at a time for one mutex.
OQ_EXPORT void OsDestroyMutex(pthread_mutex_t& arMutex);

/// Locks a mutex. Waits without a limit.
/// \posix pthread_mutex_lock()
/// \param[in,out] arMutex initialised
/// \throws OQCMutexLockFailedEx 335 (also an OQCHaltEx); the caller then does not hold the mutex
/// \silent
/// \threads Any. Not a cancellation point.
OQ_EXPORT void OsLockMutex(pthread_mutex_t& arMutex);

/// Locks a mutex if it is free. There is no result value for a busy mutex.
/// \posix pthread_mutex_trylock()
/// \param[in,out] arMutex initialised
/// \throws OQCMutexLockFailedEx 335 (also an OQCHaltEx) when any thread, including the calling one, holds the mutex,
/// and for any other failure
/// \silent
/// \threads Any.
/// \trap A caller that polls needs its handler for this exception before any handler for OQCHaltEx.
OQ_EXPORT void OsTrylockMutex(pthread_mutex_t& arMutex);

/// Unlocks a mutex that the calling thread holds.
/// \posix pthread_mutex_unlock()
/// \param[in,out] arMutex held by the calling thread
/// \throws OQCMutexUnlockFailedEx 336 (also an OQCHaltEx); the mutex is then unchanged
/// \silent
/// \threads Only the thread that holds the mutex.
OQ_EXPORT void OsUnlockMutex(pthread_mutex_t& arMutex);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup threads Threads
/// A handle identifies a thread: the platform's pthread_t as an unsigned long. Every thread is joinable and has a stack
/// of 524288 bytes. Join each thread exactly once, with OsWaitForExit.
/// @{

/// Starts a joinable thread with a stack of 512 KiB.
/// \posix pthread_attr_init(), pthread_attr_setdetachstate(), pthread_attr_setstacksize(), pthread_create()
/// \param[in,out] arThread receives the handle; on failure unchanged, or as a failed pthread_create() left it
/// \param[in] apArgument passed to the routine unchanged; may be null; belongs to the caller
/// \param[in] apRoutine  the function that the thread runs; must not let an exception escape
/// \throws OQCNullPointerEx 3 "Null Pointer" for a null routine
/// \throws OQCThreadStartFailedEx 342 when the thread cannot be started
/// \logs Not traced. Each failure except the null routine logs one line with the error text and the current value of
/// arThread. Until a thread exists, that value is the one that the caller passed.
/// \threads Any.
/// \trap An exception that leaves the routine ends the process.
OQ_EXPORT void OsStartThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Does nothing. It starts no thread and writes no handle. Use OsStartThread.
/// \posix none
/// \param[in] arThread   not used
/// \param[in] apArgument not used
/// \param[in] apRoutine  not used
/// \nothrow
/// \silent
/// \threads Any.
/// \trap The function returns as if it had started a thread.
OQ_EXPORT void OsCreateThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Waits until a thread has ended, then frees the thread's resources. The thread's exit value is discarded.
/// \posix pthread_join()
/// \param[in] acrThread handle from OsStartThread, not yet joined
/// \throws OQCThreadWaitForExitFailedEx 344, for instance when a thread waits for itself
/// \logs Traced. A failure logs one line, then "Left", before the throw.
/// \threads Any; only one thread joins a given thread. A cancellation point.
OQ_EXPORT void OsWaitForExit(unsigned long const& acrThread);

/// Requests that a thread end at its next cancellation point. Returns at once. The thread must still be joined.
/// \posix pthread_cancel()
/// \param[in] arThread handle from OsStartThread, not yet joined
/// \throws OQCThreadDestructionFailedEx 343
/// \logs Not traced. A failure logs one line.
/// \threads Any.
/// \trap The C++ frames of the ending thread are unwound. A noexcept frame, or a catch (...) that does not rethrow,
/// ends the process.
OQ_EXPORT void OsDestroyThread(unsigned long& arThread);

/// Ends the calling thread with a null exit value. Does not return.
/// \posix pthread_exit()
/// \nothrow
/// \silent
/// \threads Any; the calling thread ends.
/// \trap The thread's C++ frames are unwound, as described for OsDestroyThread.
[[noreturn]] OQ_EXPORT void OsExitThread();

/// Always throws: this platform does not support resuming a thread. Does not return.
/// \posix none
/// \param[in] arThread not read
/// \throws OQCNotSupportedEx 12 "Not Supported", always
/// \silent
/// \threads Any.
[[noreturn]] OQ_EXPORT void OsResumeThread(unsigned long& arThread);

/// Always throws: this platform does not support suspending a thread. Does not return.
/// \posix none
/// \param[in] arThread not read
/// \throws OQCNotSupportedEx 12 "Not Supported", always
/// \silent
/// \threads Any.
[[noreturn]] OQ_EXPORT void OsSuspendThread(unsigned long& arThread);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup conditions Condition variables
/// Operations on the caller's pthread_cond_t, used with a mutex of the caller. Wait in a loop that tests the predicate
/// under the mutex. Signal after changing the predicate under the mutex. A failed wait or signal is also an OQCHaltEx.
/// All functions are silent, except that OsConditionalTimedWait logs a time-out and its broken precondition. No
/// operation wakes all waiters.
/// @{

/// Initialises a condition variable with default attributes.
/// \posix pthread_cond_init()
/// \param[out] arCondition the caller's memory; uninitialised on failure
/// \throws OQCCondInitFailedEx 337
/// \silent
/// \threads Any, one at a time for one condition variable.
OQ_EXPORT void OsInitConditional(pthread_cond_t& arCondition);

/// Destroys a condition variable that no thread waits on.
/// \posix pthread_cond_destroy()
/// \param[in,out] arCondition initialised; its memory stays the caller's
/// \throws OQCCondDestroyFailedEx 338
/// \silent
/// \threads Any, one at a time for one condition variable.
/// \trap On glibc this function waits for waiters that are about to leave. If a waiter never leaves, it waits for ever.
OQ_EXPORT void OsDestroyConditional(pthread_cond_t& arCondition);

/// Wakes one waiter, if there is any.
/// \posix pthread_cond_signal()
/// \param[in,out] arCondition initialised
/// \throws OQCCondSignalFailedEx 340 (also an OQCHaltEx)
/// \silent
/// \threads Any.
OQ_EXPORT void OsSignal(pthread_cond_t& arCondition);

/// Waits for a signal without a limit. The caller holds the mutex again when this function returns.
/// \posix pthread_cond_wait()
/// \param[in,out] arCondition initialised
/// \param[in,out] arMutex     held by the calling thread
/// \throws OQCCondWaitFailedEx 339 (also an OQCHaltEx)
/// \silent
/// \threads Any that holds the mutex. A cancellation point.
/// \trap A spurious wake-up returns normally: test the predicate in a loop.
OQ_EXPORT void OsWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex);

/// Waits for a signal for at most aSeconds seconds by the real-time clock. The caller holds the mutex again on return
/// and after a time-out.
/// \posix clock_gettime(CLOCK_REALTIME), pthread_cond_timedwait()
/// \param[in,out] arCondition initialised
/// \param[in,out] arMutex     held by the calling thread
/// \param[in] aSeconds longest wait in seconds, at least 1. The deadline must fit into time_t (year 2038 where time_t
///                     has 32 bits). 0 is a broken precondition, "aSeconds > 0".
/// \throws OQCTimeOutEx 323 when the time has elapsed; this class is not an OQCHaltEx
/// \throws OQCCondWaitFailedEx 339 (also an OQCHaltEx) for any other error
/// \logs A time-out logs one line "Condition wait timed out." at trace level. Nothing else is logged.
/// \threads Any that holds the mutex. A cancellation point.
/// \trap A spurious wake-up returns normally. In a loop, each call waits the full time again. Setting the clock forward
/// shortens the wait; setting it back lengthens it.
OQ_EXPORT void OsConditionalTimedWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex, unsigned int aSeconds);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup pipes Named pipes
/// Operations on a FIFO file and on plain descriptors of it. By convention the server creates and destroys the file.
/// The layer tracks neither the file nor the descriptors. Every function is traced; its documentation lists further
/// lines.
/// @{

/// How a pipe is opened. OsNamedPipeOpen refuses other values.
enum OQEFileMode : unsigned char {
    OQFM_Mode1 = 1,  ///< O_RDWR with synchronous writes: does not wait for a peer
    OQFM_Mode2 = 2,  ///< the same
    OQFM_Mode3 = 3,  ///< the same
    OQFM_Append = 4  ///< O_RDONLY, O_APPEND and synchronous writes: cannot write; a blocking open waits for a writer
};

/// Whether reads and writes on a descriptor block. Every value but OQPS_NonBlocking means blocking.
enum OQEPipeState : unsigned char {
    OQPS_Blocking = 1,    ///< they wait for data or for room
    OQPS_NonBlocking = 2  ///< they fail at once instead of waiting
};

/// Which side of a channel the caller is.
enum OQEConnectionMode : unsigned char {
    OQCM_Client = 0,  ///< attaches to a channel that the server created
    OQCM_Server = 1   ///< creates and owns the channel
};

/// Creates a FIFO file with mode 0660, less the bits of the process's umask.
/// \posix mknod()
/// \param[in] acrPath path of the file; an existing file of any kind is accepted and left unchanged
/// \param[in] arPipe  not used
/// \throws OQCCreateFailedEx 324
/// \logs Traced; "Creating linux named pipe..."; for an existing file "Fifo file %s already exists". A failure logs one
/// line, then "Left", before the throw.
/// \threads Any.
/// \trap This function does not detect an existing file that is not a FIFO.
OQ_EXPORT void OsNamedPipeCreate(const OQCString& acrPath, int& arPipe);

/// Removes the FIFO file. Ignores a file that is missing or cannot be removed.
/// \posix unlink(), through ClibUnlink
/// \param[in] acrPath path of the file
/// \param[in] arPipe  not used: neither closed nor changed
/// \nothrow
/// \logs Traced; "Destroying linux named pipe...".
/// \threads Any.
OQ_EXPORT void OsNamedPipeDestroy(const OQCString& acrPath, int& arPipe);

/// Opens a FIFO.
/// \posix open(), through ClibOpen
/// \param[in,out] arPipe receives the descriptor; **keeps its value when the file cannot be opened**. The caller closes
///                       the descriptor. It stays open over execve().
/// \param[in] acrPath path of the file
/// \param[in] aMode   see OQEFileMode
/// \param[in] aState  OQPS_NonBlocking adds O_NONBLOCK
/// \param[in] aSide   not used
/// \throws OQCInvalidEx 6 "Invalid flags passed to open pipe" for a mode other than 1 to 4
/// \logs Traced; "Opening %s with %d flags". A refused mode logs "Invalid flags %d passed to open file", then "Left",
/// before the throw. A file that cannot be opened adds no line.
/// \threads Any. A cancellation point.
/// \trap A failed open is not reported. Set arPipe to -1 before the call and test 0 <= arPipe after the call. An open
/// that waits for a peer also fails when a signal handler interrupts it. A wait on descriptor -1 does not fail, but
/// times out.
OQ_EXPORT void OsNamedPipeOpen(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState,
                               OQEConnectionMode aSide);

/// Only traces: on Linux there is nothing to do.
/// \posix none
/// \param[in] arPipe  not used
/// \param[in] acrPath not used
/// \param[in] aMode   not used
/// \param[in] aState  not used
/// \nothrow
/// \logs Traced.
/// \threads Any.
OQ_EXPORT void OsNamedPipeConnect(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState);

/// Only traces: on Linux there is nothing to do.
/// \posix none
/// \param[in] aPipe not used
/// \nothrow
/// \logs Traced.
/// \threads Any.
OQ_EXPORT void OsNamedPipeAccept(int aPipe);

/// Calls read() once.
/// \posix read(), through ClibRead
/// \param[in]  aPipe    descriptor
/// \param[out] apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param[in]  aLength  maximum number of bytes to read
/// \param[out] arDone   receives the number of bytes read; 0 at end of data, when a non-blocking pipe holds no data,
///                      and when the read fails (including an interrupted read)
/// \nothrow
/// \logs Traced; "Reading %u bytes".
/// \threads Any. A cancellation point.
/// \trap A count of 0 does not reveal its cause: errno is not reported. If another reader was quicker, a blocking read
/// waits although OsNamedPipeWaitForActivity found data.
OQ_EXPORT void OsNamedPipeRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// Reads until aLength bytes have arrived. With the companion runtime of this project, arDone is less than aLength only
/// at the end of the data, and 0 after a failed read.
/// \posix read(), through ClibBlockRead
/// \param[in]  aPipe    descriptor
/// \param[out] apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param[in]  aLength  number of bytes to read
/// \param[out] arDone   receives the number of bytes read; 0 when a read fails
/// \nothrow
/// \logs Traced; "Reading %u bytes".
/// \threads Any. A cancellation point.
/// \trap A pipe that was opened read-write never reports end of data. On a non-blocking pipe, less than aLength bytes
/// of data is a failure: arDone is 0, and the bytes that had arrived are lost.
OQ_EXPORT void OsNamedPipeBlockRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// Calls write() once. Up to 4096 bytes (PIPE_BUF) are written completely or not at all.
/// \posix write(), through ClibWrite
/// \param[in] aPipe   descriptor
/// \param[in] acData  the bytes
/// \param[in] aLength number of bytes
/// \param[in,out] arDone receives the number of bytes written, possibly fewer than aLength; **keeps its value when the
///                       write fails**
/// \nothrow
/// \logs Traced; "Writing %u bytes".
/// \threads Any. A cancellation point.
/// \trap A failed write is not reported. Set arDone to 0 before the call. A write to a pipe without a reader raises
/// SIGPIPE. A descriptor opened with OQFM_Mode1 to OQFM_Mode3 is itself a reader.
OQ_EXPORT void OsNamedPipeWrite(int aPipe, const unsigned char* acData, unsigned int aLength, unsigned int& arDone);

/// Waits until the pipe is readable. Calls OsWaitForActivity, whose exceptions pass through.
/// \posix select()
/// \param[in] aPipe    descriptor, 0 to 1023
/// \param[in] aSeconds longest wait in seconds; 0 polls
/// \throws OQCTimeOutEx 323 "Timed out"
/// \throws OQCPipeWaitFailedEx 332
/// \logs Traced, without "Left" before a throw. The lines of OsWaitForActivity are logged as OsWaitForActivity.
/// \threads Any. A cancellation point.
/// \trap As for OsWaitForActivity: the wait on a pipe that was never opened may time out.
OQ_EXPORT void OsNamedPipeWaitForActivity(int aPipe, unsigned int aSeconds);

/// Closes a descriptor. A failure is ignored.
/// \posix close(), through ClibClose
/// \param[in] arPipe the descriptor; **keeps its number**
/// \param[in] aSide  not used
/// \nothrow
/// \logs Traced; "Closing linux named pipe. pipe desc: %u".
/// \threads Any. A cancellation point.
/// \trap A second close can close an unrelated descriptor that has received the same number.
OQ_EXPORT void OsNamedPipeClose(int& arPipe, OQEConnectionMode aSide);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup sharedmemory Shared memory
/// A System V segment serves as a mailbox for one message at a time. The server creates the segment, resets its header
/// and removes it. The client attaches. A waiting side polls every millisecond. Use one writer and one reader at a
/// time: two writers that both find the slot free overwrite each other's message. Use one OQShmDesc in one thread only.
///
/// | State    | data_ready | segment_free | write                        | read                  |
/// |----------|------------|--------------|------------------------------|-----------------------|
/// | Empty    | 0          | 1            | proceeds, becomes Full       | OQCTryAgainEx         |
/// | Full     | 1          | 0            | waits at most 3 seconds      | proceeds, becomes Empty |
/// | Changing | 0          | 0            | waits at most 3 seconds      | OQCTryAgainEx         |
///
/// Every write and every read passes through Changing. If a process dies there, the mailbox stays in Changing until
/// a server opens the segment again. If a server opens the segment again while a client writes, data_length can become
/// 0, with both flags set or in the state Full. The next read then returns 0 bytes. When both flags are set, a write
/// does not wait either, and replaces the message.
/// @{

/// The first 6 bytes of every segment, in the host's byte order. The message follows directly. Two processes share the
/// header. Callers may read it; only the layer writes it.
struct OQSSharedMemoryHeader {
    unsigned char data_ready;    ///< 1: an unread message is in the data area
    unsigned char segment_free;  ///< 1: the data area may be written
    unsigned char server_ready;  ///< 1 once the server has opened the segment; never cleared
    unsigned char client_ready;  ///< 1 once the client has opened the segment; never cleared
    uint16_t data_length;        ///< length in bytes of the message
};

/// The caller's handle of one channel.
struct OQShmDesc {
    key_t shm_key;                    ///< set by the caller: System V key, greater than 0, the same on both sides
    unsigned short shm_size;          ///< set by the caller: bytes of the whole segment, header included; not 0
    int shm_id;                       ///< set by the open: segment identifier; negative after a failed shmget()
    OQSSharedMemoryHeader* shm_addr;  ///< set by the open: the segment's address; all ones after a failed shmat()
};

/// Opens a segment and marks this side ready. The server creates a missing segment (permissions 0666), locks it into
/// memory and resets the header. The reset discards an unread message of an earlier session. The client opens the
/// segment that the server created.
/// \posix shmget(), for the server shmctl(IPC_STAT) and shmctl(SHM_LOCK), shmat()
/// \param[in,out] arShmDesc shm_key and shm_size are read; shm_id and shm_addr are set. After a failure they hold the
/// values stored so far. Broken preconditions: "0 != arShmDesc.shm_size", "0 < arShmDesc.shm_key".
/// \param[in] aSide OQCM_Server or OQCM_Client; any other value is a broken precondition, "false"
/// \throws OQCOpenFailedEx 326, when shmget() fails (no segment, too small, no permission) or shmat() fails
/// \throws OQCClibStatFailedEx 173, for the server, when the segment cannot be examined
/// \throws OQCFileLockFailedEx 330, for the server, although no file is involved: the segment cannot be locked into
/// memory because the privilege is missing or the limit of locked memory (RLIMIT_MEMLOCK) is reached
/// \logs Traced; no line before a throw.
/// \threads Any, one at a time for one OQShmDesc.
/// \trap When a later step fails, a segment that this call created stays in the system. Remove the segment shm_id with
/// shmctl(IPC_RMID).
OQ_EXPORT void OsSharedMemoryOpen(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Closes a segment. The server also removes it. The system frees the segment when the last process has detached.
/// \posix for the server shmctl(IPC_STAT), shmctl(IPC_RMID), shmctl(IPC_STAT), shmctl(SHM_UNLOCK); for every side
/// shmdt()
/// \param[in] arShmDesc from OsSharedMemoryOpen; unchanged, so shm_id and shm_addr are stale afterwards
/// \param[in] aSide     OQCM_Server removes the segment; every other value only detaches it
/// \throws OQCClibStatFailedEx 173, for the server, when the segment cannot be examined
/// \throws OQCCloseFailedEx 327, when IPC_RMID or shmdt() fails
/// \throws OQCFileUnLockFailedEx 331, for the server, when the segment cannot be unlocked
/// \logs Traced; no line before a throw.
/// \threads Any, one at a time for one OQShmDesc.
/// \trap When a server's call fails, the segment stays attached. After a server's close, a client that is still
/// attached keeps a segment that no other process can open.
OQ_EXPORT void OsSharedMemoryClose(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Waits until a message is in the slot. Tests the flag at once and then after every millisecond.
/// \posix none; ClibGetTime and ClibSleepMS
/// \param[in] arShmDesc open segment
/// \param[in] aSeconds  longest wait in seconds by the wall clock; 0 means one test and a wait of one millisecond
/// \throws OQCTimeOutEx 323 "Timed out waiting on Shared Memory"
/// \logs "Entered" and "Left", logged as "sTimedWaitOnFlag". A time-out logs its text and no "Left".
/// \threads Any, one at a time for one OQShmDesc. A cancellation point.
/// \trap Setting the clock forward shortens the wait. Setting the clock back to before the start of the wait ends the
/// wait. Setting the clock back by less lengthens the wait. The limit in milliseconds is computed in 32 bits, so
/// 4294968 seconds and more become a short wait.
OQ_EXPORT void OsSharedMemoryWaitForActivity(const OQShmDesc& arShmDesc, unsigned int aSeconds);

/// Places one message in the slot. Waits up to 3 seconds until the slot is free. When a side is not ready, the write is
/// cancelled.
/// \posix none; ClibGetTime, ClibSleepMS and ClibMemcpy
/// \param[in] arShmDesc open segment
/// \param[in] acData    the bytes
/// \param[in] acLength  number of bytes; at most shm_size - 6, otherwise a broken precondition
/// \param[in,out] arWritten receives acLength; **keeps its value when the write is cancelled**, and when this function
///                          throws
/// \throws OQCTimeOutEx 323 "Timed out waiting on Shared Memory" when the slot stays occupied; an unread message stays
/// in the slot
/// \logs Traced. The lines of the wait are logged as "sTimedWaitOnFlag". A cancelled write logs "Both Peers not ready..
/// write would be canceled" (64, "-I-"). A time-out logs no "Left".
/// \threads Any, one at a time for one OQShmDesc. A cancellation point.
/// \trap A cancelled write throws nothing. Set arWritten to 0 before the call. A peer that has gone still counts as
/// ready, because its flag is never cleared. Setting the clock changes the 3 seconds, as described for
/// OsSharedMemoryWaitForActivity. With a shm_size below 6, the check of the length never fails, and the caller
/// writes past the segment.
OQ_EXPORT void OsSharedMemoryWrite(OQShmDesc& arShmDesc, const unsigned char* acData, unsigned int acLength,
                                   unsigned int& arWritten);

/// Takes the message out of the slot. Does not wait.
/// \posix none; ClibMemcpy
/// \param[in]  arShmDesc open segment
/// \param[out] apBuffer  receives the message; the caller's
/// \param[in]  acLength  size of apBuffer in bytes; at most shm_size - 6, otherwise a broken precondition even if the
///                       message is short
/// \param[in,out] arRead receives the number of bytes stored; unchanged when this function throws
/// \throws OQCTryAgainEx 322 "Shared Segment in use for writing: Try again" when the slot holds no message
/// \logs Traced. Without a message, logs the text of the exception and no "Left".
/// \threads Any, one at a time for one OQShmDesc.
/// \trap When a message is longer than the buffer, the rest of the message is lost. A side that reads after its own
/// write receives its own message. With a shm_size below 6, the check of acLength never fails, and the caller reads
/// past the segment.
OQ_EXPORT void OsSharedMemoryRead(OQShmDesc& arShmDesc, unsigned char* apBuffer, unsigned int acLength,
                                  unsigned int& arRead);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup wait Descriptor activity
/// A wait with a time limit for input on one descriptor.
/// @{

/// Waits until a descriptor is readable (data, end of file, a pending connection). Reads nothing. Signals neither end
/// nor lengthen the wait.
/// \posix select()
/// \param[in] aDescriptor an open descriptor, 0 to 1023
/// \param[in] aSeconds    longest wait in seconds; 0 polls. Where time_t has 32 bits, more than 2147483647 fails.
/// \throws OQCTimeOutEx 323 "Timed out"
/// \throws OQCPipeWaitFailedEx 332, for instance for a closed descriptor (see the exceptions below) and for -2 and less
/// \logs Traced, "Left" also before a throw; "Data is available now."; "No data within %u seconds."; for each signal
/// "The select() call was interrupted.. Ignoring" (64, "-I-"). A failure logs one line.
/// \threads Any. A cancellation point.
/// \trap For two kinds of invalid descriptor the wait times out instead of failing: -1, and a closed descriptor beyond
/// the end of the kernel's descriptor table. The table has room for at least 64 descriptors and grows with the highest
/// descriptor opened (FDSize in /proc/self/status). Set a closed descriptor to -1, and test 0 <= descriptor before the
/// wait. The caller must not pass a descriptor above 1023. Where the C library checks this, as in release builds, it
/// ends the process.
OQ_EXPORT void OsWaitForActivity(int aDescriptor, unsigned int aSeconds);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup processes Processes and signals
/// Child processes, signal handlers, and a check whether a program runs.
/// @{

/// Starts a program as a child process.
///
/// **When the program cannot be run, this function completes twice**: in the parent it returns the id of a child, and
/// in that child it throws. The child is a copy of the parent with only the calling thread. The caller stores getpid()
/// before the call and catches OQCProcessCreationFailedEx. If getpid() differs in the handler, the caller is in the
/// child and calls _exit(). Anything else that the child does (returning from main, flushing streams, destructors)
/// happens a second time. The child keeps the host's signal handlers, and its cancellation stays disabled. The parent
/// is suspended until the child runs another program or ends, even if the child closes its descriptors. The parent
/// learns only the child's exit code. ProcessCreate first tries the program in another child, which the parent reaps. A
/// handler for SIGCHLD may therefore run once more than the number of ids returned.
///
/// Between vfork() and execve(), a child handles signals as its program will. The host's handlers do not run there,
/// ignored signals stay ignored, and the signal mask is the caller's.
///
/// \posix fflush(stdin), mmap(), vfork(), rt_sigaction(), execve(); fork(), waitpid(), waitid(), setpgid() and a robust
/// mutex when the program cannot be run
/// \param[in] acPath path of the program
/// \param[in] acArgv its arguments, ended by null; by convention the first is its name
/// \param[in] acEnvp its environment ("NAME=value"), ended by null
/// \return the child's process id, in the parent; the caller reaps the child with ProcessWait
/// \throws OQCProcessCreationFailedEx 345, in the parent when vfork() fails, or when the program cannot be run and
/// fork() fails; in the child when the program cannot be run
/// \logs Traced, "Left" also before a throw; "Failed to create child :%s" or "Failed to exec child :%s" at error level.
/// \threads Any. Not a cancellation point.
/// \trap Code that catches the exception also runs in the child. The call waits while another thread reads from stdin,
/// because the flush needs the lock of the stream. A thread that waits for any child, or a handler that reaps every
/// child, may reap the first child. Such code must ignore ids that it does not know. If the id has meanwhile been
/// reused for a child of another thread, this function waits for that child and reaps it.
OQ_EXPORT int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp);

/// Waits until a child process has ended.
/// \posix waitpid()
/// \param[in] aPid    the child's id. As for waitpid(), 0 means any child in the caller's process group, -1 any child,
///                    and a number below -1 any child in the group -aPid.
/// \param[in] aUnused accepted and ignored
/// \return the child's exit code (0 to 255), or -1 when a signal ended the child
/// \throws OQCProcessWaitFailedEx 345 "Failed to create process" (despite its wording, the text of a failed wait), for
/// instance for a process that is not a child or has already been reaped
/// \logs Traced, but no "Left" before the throw; "Going to wait for child process to complete"; "The child process
/// exited normally, with exit code: %d". A child ended by a signal logs one line at error level, and so does a failed
/// wait.
/// \threads Any. A cancellation point.
/// \trap A signal that has a handler ends the wait, and the function throws. The exception then does not mean that the
/// child has ended. A caller that handles signals blocks them around the wait, or calls again as long as it has not
/// reaped the child. After a wait for 0 or a negative number, the caller cannot know which child ended. It may be a
/// child that another thread waits for, or a child whose id no caller received (see ProcessCreate). Wait for ids.
OQ_EXPORT int ProcessWait(int aPid, unsigned int aUnused);

/// Installs a signal handler for the whole process. Every other signal is blocked while the handler runs.
/// \posix sigaction() with SA_SIGINFO | SA_INTERRUPT
/// \param[in] aSignal   signal number
/// \param[in] apHandler called with the signal number; may call only async-signal-safe functions
/// \nothrow
/// \logs Traced; "Registering signal handler for signal %d" (64, "-I-").
/// \threads Any; the handler applies to all threads.
/// \trap The function does not report a handler that cannot be installed. Interrupted system calls are not restarted.
OQ_EXPORT void RegisterSignalHandler(int aSignal, void (*apHandler)(int));

/// Runs pgrep to find out whether a process runs. pgrep writes its result to the file /tmp/.vyrsyscmd, which is not
/// removed.
/// \posix system(); stat(), through ClibStat
/// \param[in] acrName a pgrep pattern of at most 231 characters
/// \return 1 when a process matches, otherwise 0; also 0 when pgrep is missing or the result file cannot be examined
/// \throws OQCException and others: anything that ClibStat throws except OQCClibStatFailedEx. This project's ClibStat
/// throws nothing else.
/// \logs Traced; "Process '%s' is running" or "Process '%s' is not running".
/// \threads One at a time, also across processes, because all callers share the result file. A cancellation point.
/// \trap **The function passes the pattern to the shell unquoted and copies it unchecked into a buffer of 256
/// bytes.** Check names against a strict pattern first, such as 1 to 15 letters, digits, dots, underscores and
/// hyphens, not starting with a hyphen. A part of a name also matches. Longer names match nothing; a dot matches
/// any character. Error messages of the shell and of pgrep go to the host's standard error. If the caller cannot
/// rewrite the result file, the size of the existing file determines the result. Any user who can write that file
/// controls the result. If the file is a FIFO, the call waits, possibly for ever, until a process reads from it.
/// Examine the file with lstat() first, and call only when it is missing or a regular file.
OQ_EXPORT int isProcessRunning(const OQCString& acrName);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup commands Commands
/// Running shell commands and splitting their output into lines.
/// @{

/// Runs a shell command and appends the lines of its standard output to a list.
/// \posix popen(), fcntl(FD_CLOEXEC), pclose(); fread(), through ClibFread
/// \param[in] acCommand for /bin/sh -c; its exit status is not reported
/// \param[in,out] arLines the caller's list; lines are appended without their newline. After a failure it keeps the
///                        lines appended so far.
/// \throws OQCReadFailedEx 328 when a read fails or a signal interrupts it. All resources are released. The output of
/// that read is lost.
/// \throws OQCNoMemoryEx 2 "Out of Memory". The buffers stay allocated, the stream stays open, and the command is not
/// reaped.
/// \logs Traced, "Left" also before the throw of OQCReadFailedEx but not of OQCNoMemoryEx. All further lines, including
/// failures, are logged at trace level.
/// \threads Any, one at a time for one list. A cancellation point. A thread that is cancelled during a read leaves the
/// stream open and the command unreaped, because closing the stream would wait until the command ends.
/// \trap **A last line without a newline is dropped. A line of 3999 bytes or more ends the reading**: that line and all
/// later lines are lost. A zero byte hides the rest of the data that the same read returned. When popen() fails, the
/// list is unchanged and nothing is thrown. The command's standard error is the host's. A program that another thread
/// starts between popen() and fcntl() inherits the stream. A command that waits for its reader to close the stream then
/// keeps running.
OQ_EXPORT void OsExecute(const char* acCommand, OQCList<OQCString>& arLines);

/// Splits a zero-terminated text at its newlines. Appends each complete line to a list and moves an incomplete last
/// line to the start of the buffer.
/// \posix none
/// \param[in,out] apBuffer the text, at most 3999 bytes; overwritten
/// \param[in,out] arLines  the caller's list; after a failure it keeps the lines appended so far
/// \return the position in apBuffer after the incomplete line, where the caller stores the next read
/// \throws OQCNoMemoryEx 2 "Out of Memory", the scratch buffer of 4000 bytes may stay allocated
/// \logs Traced, without "Left" before the throw. Logs each line, the incomplete line and the end of the buffer.
/// \threads Any, one at a time for one buffer and one list.
OQ_EXPORT char* OsBreak(char* apBuffer, OQCList<OQCString>& arLines);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup locks File locks and kill
/// Advisory locks by lockf(). A lock covers the region from the descriptor's current offset to the end of the file and
/// beyond. The process owns the lock, so threads of one process never exclude each other. **Closing any descriptor of
/// the file, however it was opened, releases all locks of the process on that file.**
/// @{

/// What OsFileLockStatus found.
enum OQEFileLockStatus : unsigned char {
    OQFLS_Unlocked = 2,  ///< no other process holds a lock on the region
    OQFLS_Locked = 4     ///< another process holds a lock, or the test failed for any reason
};

/// Locks the region. Fails at once if that is impossible.
/// \posix lockf(F_TLOCK)
/// \param[in] aDescriptor open for writing
/// \throws OQCFileLockFailedEx 330
/// \logs Traced, "Left" also before the throw; "Going to lock file". A failure logs one line.
/// \threads Any; threads of one process do not exclude each other.
/// \trap Every failed attempt logs an error line. A program that waits for a lock calls OsFileLockStatus in a loop and
/// calls OsLockFile only when the status is OQFLS_Unlocked.
OQ_EXPORT void OsLockFile(int aDescriptor);

/// Unlocks the region. An unlocked region is accepted.
/// \posix lockf(F_ULOCK)
/// \param[in] aDescriptor open
/// \throws OQCFileUnLockFailedEx 331
/// \logs Traced, "Left" also before the throw. A failure logs one line.
/// \threads Any.
OQ_EXPORT void OsUnlockFile(int aDescriptor);

/// Reports whether another process holds a lock on the region.
/// \posix lockf(F_TEST)
/// \param[in]  aDescriptor any value; a descriptor that is not open is reported as locked
/// \param[out] arStatus    receives the result
/// \nothrow
/// \logs Traced; "Going to find locking status".
/// \threads Any.
/// \trap A lock that the calling process holds is reported as unlocked.
OQ_EXPORT void OsFileLockStatus(int aDescriptor, OQEFileLockStatus& arStatus);

/// Sends a signal.
/// \posix kill()
/// \param[in] aPid    process id; 0, -1 and other negative numbers mean groups of processes, as for kill()
/// \param[in] aSignal signal number; 0 only checks whether the process exists and may be signalled
/// \return kill()'s result: 0, or -1 with errno set
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT int OsKill(int aPid, int aSignal);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup host Host identity
/// The host's own addresses and its operating system.
/// @{

/// The operating-system family. This layer reports only Linux.
enum OQEOperatingSystem : unsigned char {
    OQOS_Linux = 1  ///< Linux
};

/// Appends every IPv4 address of the host that is not loopback (127.x.y.z) to a list.
/// \posix gethostbyname(), inet_ntoa(); gethostname(), through ClibGethostname
/// \param[in,out] arAddresses the caller's list; addresses are in host byte order, the first number in the highest
///                            byte. After a failure it keeps the addresses appended so far.
/// \throws OQCGetIpAddressFailEx 347 when the lookup fails; the message is the system's text for the number in h_errno.
/// Also thrown when the host has no such address: "No non-loopback IP Address configured on system". A resolver entry
/// without an address list is a broken precondition, "lpHostEntry->h_addr_list != __null".
/// \throws OQCNoMemoryEx 2 "Out of Memory"
/// \logs Traced; each examined address ("IP Address #%u - %s") and each address used. A failed lookup logs one line,
/// then "Left", before the throw. A host without such an address logs the text of the exception (1, "-H-") and no
/// "Left"; the process continues.
/// \threads One at a time, together with all other users of gethostbyname() and inet_ntoa(), because the whole process
/// shares their result. A cancellation point.
/// \trap A thread that is cancelled in this function may leave the resolver locked. The next lookup of the process then
/// waits for ever. In a program that uses OsDestroyThread, disable cancellation around this call.
OQ_EXPORT void OsGetAllIpAddresses(OQCList<unsigned int>& arAddresses);

/// Stores the first IPv4 address of the host that is not loopback (127.x.y.z).
/// \posix gethostbyname(), inet_ntoa(); gethostname(), through ClibGethostname
/// \param[in,out] arAddress receives the address in host byte order; unchanged when this function throws
/// \throws OQCGetIpAddressFailEx 347, as for OsGetAllIpAddresses; the same broken precondition
/// \logs As for OsGetAllIpAddresses.
/// \threads One at a time, together with all other users of gethostbyname() and inet_ntoa(), because the whole process
/// shares their result. A cancellation point.
/// \trap As for OsGetAllIpAddresses.
OQ_EXPORT void OsGetIpAddress(unsigned int& arAddress);

/// Reports the operating-system family and the first line of the distribution's release file. The release file is the
/// first existing file of /etc/oracle-release, /etc/enterprise-release and /etc/redhat-release. A host without a
/// readable release file is reported as "Red Hat Enterprise Linux Server release 5.x".
/// \posix stat(), through ClibStat; getFirstLineFromFile
/// \param[out] arOs receives OQOS_Linux, before anything can fail
/// \param[in,out] arName receives the line; unchanged when this function throws
/// \throws OQCNoMemoryEx 2 "Out of Memory"
/// \throws OQCException and others: anything that ClibStat throws except OQCClibStatFailedEx. This project's ClibStat
/// throws nothing else.
/// \logs Traced, without "Left" before a throw. If a release file exists, further lines report how its first line was
/// found.
/// \threads Any, one at a time for one arName. A cancellation point.
OQ_EXPORT void OsGetOsName(OQEOperatingSystem& arOs, OQCString& arName);

/// @}

#endif
