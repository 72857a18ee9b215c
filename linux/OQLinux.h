/// \file
/// The Linux operating-system abstraction layer: everything a caller needs.
///
/// All functions are free functions of the global namespace. They keep no state, start no thread and take no lock of
/// their own; there is nothing to initialise. Every handle belongs to the caller.
///
/// **Failures** are exceptions, thrown by value as one leaf of the tree in OQException.h, with a fixed code per class;
/// where nothing else is said the message is the system's text for the current errno. A few operations report only
/// through an out-parameter or a return value; they say so. Every leaf below is written with its code.
///
/// **Broken preconditions** end the process: one line at level 1, tag "-H-", "Assertion [ condition ] failed", then
/// `exit(1)`. Nothing is thrown and no destructor of the failing frame runs.
///
/// **Log.** "Traced" means: "Entered" first and "Left" before each normal return, at trace level (128, "-T-").
/// A failure's line comes at error level (8, "-E-"); all others, those of time-outs and of a message that is not there
/// among them, at trace level, where nothing else is said.
///
/// **Errors of POSIX thread functions** are returned by them, not stored in errno. The exceptions carry the text of
/// errno all the same, so the text may be that of an earlier failure or "Success": tell these failures by their class.
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
/// The caller's pthread_mutex_t, with the platform's default kind: not recursive, without error checking. Locking a
/// mutex twice in one thread blocks for ever; unlocking another thread's mutex is not detected. All five functions are
/// silent, allocate nothing on success and leave a failed mutex as the POSIX call left it.
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
/// \throws OQCMutexDestroyFailedEx 334, on glibc also when the mutex is held; it is still usable then
/// \silent
/// \threads Any, one at a time for one mutex.
OQ_EXPORT void OsDestroyMutex(pthread_mutex_t& arMutex);

/// Locks a mutex, waiting as long as it takes.
/// \posix pthread_mutex_lock()
/// \param[in,out] arMutex initialised
/// \throws OQCMutexLockFailedEx 335 (also an OQCHaltEx); the mutex is then not held by the caller
/// \silent
/// \threads Any. Not a cancellation point.
OQ_EXPORT void OsLockMutex(pthread_mutex_t& arMutex);

/// Locks a mutex if it is free. There is no busy result.
/// \posix pthread_mutex_trylock()
/// \param[in,out] arMutex initialised
/// \throws OQCMutexLockFailedEx 335 (also an OQCHaltEx) when a thread (be it this one) holds the mutex, exactly as for
/// any other failure
/// \silent
/// \threads Any.
/// \trap A caller that polls catches the exception before any handler for OQCHaltEx.
OQ_EXPORT void OsTrylockMutex(pthread_mutex_t& arMutex);

/// Unlocks a mutex that the calling thread holds.
/// \posix pthread_mutex_unlock()
/// \param[in,out] arMutex held by the calling thread
/// \throws OQCMutexUnlockFailedEx 336 (also an OQCHaltEx); the mutex is then unchanged
/// \silent
/// \threads The one that holds the mutex.
OQ_EXPORT void OsUnlockMutex(pthread_mutex_t& arMutex);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup threads Threads
/// A thread is known by its handle, the platform's pthread_t as an unsigned long. Every thread is joinable, has a stack
/// of 524288 bytes and must be joined once, with OsWaitForExit.
/// @{

/// Starts a joinable thread with a stack of 512 KiB.
/// \posix pthread_attr_init(), pthread_attr_setdetachstate(), pthread_attr_setstacksize(), pthread_create()
/// \param[in,out] arThread receives the handle; on failure unchanged, or what a failed pthread_create() left in it
/// \param[in] apArgument passed to the routine untouched; may be null; stays the caller's
/// \param[in] apRoutine  what the thread runs; must not let an exception escape
/// \throws OQCNullPointerEx 3 "Null Pointer" for a null routine
/// \throws OQCThreadStartFailedEx 342 when there can be no such thread
/// \logs No trace. Each failure but the null routine one line with the handle variable's value at that moment (before
/// the thread exists: what the caller left there) and the error text.
/// \threads Any.
/// \trap An exception that leaves the routine ends the process.
OQ_EXPORT void OsStartThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Does nothing: starts no thread and writes no handle. Use OsStartThread.
/// \posix none
/// \param[in] arThread   not used
/// \param[in] apArgument not used
/// \param[in] apRoutine  not used
/// \nothrow
/// \silent
/// \threads Any.
/// \trap It returns as if a thread had been started.
OQ_EXPORT void OsCreateThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Waits until a thread has ended and frees its resources. Its exit value is discarded.
/// \posix pthread_join()
/// \param[in] acrThread handle from OsStartThread, not yet joined
/// \throws OQCThreadWaitForExitFailedEx 344, for instance when a thread waits for itself
/// \logs Traced. A failure one line, then "Left", before the throw.
/// \threads Any; one of them joins a thread. A cancellation point.
OQ_EXPORT void OsWaitForExit(unsigned long const& acrThread);

/// Asks a thread to end at its next cancellation point and returns at once. The thread must still be joined.
/// \posix pthread_cancel()
/// \param[in] arThread handle from OsStartThread, not yet joined
/// \throws OQCThreadDestructionFailedEx 343
/// \logs No trace. A failure one line.
/// \threads Any.
/// \trap The ending thread's C++ frames are unwound: one that is noexcept, or a catch (...) that does not rethrow, ends
/// the process.
OQ_EXPORT void OsDestroyThread(unsigned long& arThread);

/// Ends the calling thread with a null exit value. Does not return.
/// \posix pthread_exit()
/// \nothrow
/// \silent
/// \threads Any; it is the calling one that ends.
/// \trap The thread's C++ frames are unwound, as by OsDestroyThread.
[[noreturn]] OQ_EXPORT void OsExitThread();

/// Resumes no thread: not supported on this platform. Does not return.
/// \posix none
/// \param[in] arThread not read
/// \throws OQCNotSupportedEx 12 "Not Supported", always
/// \silent
/// \threads Any.
[[noreturn]] OQ_EXPORT void OsResumeThread(unsigned long& arThread);

/// Suspends no thread: not supported on this platform. Does not return.
/// \posix none
/// \param[in] arThread not read
/// \throws OQCNotSupportedEx 12 "Not Supported", always
/// \silent
/// \threads Any.
[[noreturn]] OQ_EXPORT void OsSuspendThread(unsigned long& arThread);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup conditions Condition variables
/// The caller's pthread_cond_t, used with a mutex of the caller. Wait in a loop that tests the predicate under the
/// mutex; signal after changing the predicate under it. A failed wait or signal is also an OQCHaltEx. Silent, but for
/// a time-out of OsConditionalTimedWait and its broken precondition. There is no operation that wakes all waiters.
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
/// \trap On glibc it waits for waiters that are about to leave, and for ever for those that are not.
OQ_EXPORT void OsDestroyConditional(pthread_cond_t& arCondition);

/// Wakes one waiter, if there is any.
/// \posix pthread_cond_signal()
/// \param[in,out] arCondition initialised
/// \throws OQCCondSignalFailedEx 340 (also an OQCHaltEx)
/// \silent
/// \threads Any.
OQ_EXPORT void OsSignal(pthread_cond_t& arCondition);

/// Waits for a signal, as long as it takes. The mutex is held again when this returns.
/// \posix pthread_cond_wait()
/// \param[in,out] arCondition initialised
/// \param[in,out] arMutex     held by the calling thread
/// \throws OQCCondWaitFailedEx 339 (also an OQCHaltEx)
/// \silent
/// \threads Any that holds the mutex. A cancellation point.
/// \trap A spurious wake-up returns normally: test the predicate in a loop.
OQ_EXPORT void OsWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex);

/// Waits for a signal for at most so many seconds by the real-time clock. The mutex is held again on return and after a
/// time-out.
/// \posix clock_gettime(CLOCK_REALTIME), pthread_cond_timedwait()
/// \param[in,out] arCondition initialised
/// \param[in,out] arMutex     held by the calling thread
/// \param[in] aSeconds longest wait in seconds: at least 1, and no date beyond what time_t holds (2038 where it has 32
///                     bits). 0 is a broken precondition, "aSeconds > 0".
/// \throws OQCTimeOutEx 323 when time is over; an ordinary failure, no OQCHaltEx
/// \throws OQCCondWaitFailedEx 339 (also an OQCHaltEx) for any other error
/// \logs A time-out one line "Condition wait timed out." at trace level; nothing else.
/// \threads Any that holds the mutex. A cancellation point.
/// \trap A spurious wake-up returns normally. Called in a loop, each call waits the full time anew. Setting the clock
/// forward shortens the wait, setting it back lengthens it.
OQ_EXPORT void OsConditionalTimedWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex, unsigned int aSeconds);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup pipes Named pipes
/// A FIFO file and plain descriptors on it. By convention the server creates and destroys the file; the layer tracks
/// neither file nor descriptors. Every function is traced and adds the lines given.
/// @{

/// How a pipe is opened. Other values are refused by OsNamedPipeOpen.
enum OQEFileMode : unsigned char {
    OQFM_Mode1 = 1,  ///< O_RDWR with synchronous writes: does not wait for a peer
    OQFM_Mode2 = 2,  ///< the same
    OQFM_Mode3 = 3,  ///< the same
    OQFM_Append = 4  ///< O_RDONLY, O_APPEND and synchronous writes: cannot write; a blocking open waits for a writer
};

/// Whether reads and writes on a descriptor block. Every value but OQPS_NonBlocking means blocking.
enum OQEPipeState : unsigned char {
    OQPS_Blocking = 1,    ///< they wait for data, or for room
    OQPS_NonBlocking = 2  ///< they fail at once where they would wait
};

/// Which side of a channel the caller is.
enum OQEConnectionMode : unsigned char {
    OQCM_Client = 0,  ///< attaches to a channel that the server made
    OQCM_Server = 1   ///< creates and owns the channel
};

/// Creates a FIFO file with mode 0660, less the process's umask.
/// \posix mknod()
/// \param[in] acrPath path of the file; an existing file of whatever kind is accepted as it is
/// \param[in] arPipe  not used
/// \throws OQCCreateFailedEx 324
/// \logs Traced; "Creating linux named pipe..."; for an existing file "Fifo file %s already exists". A failure one
/// line, then "Left", before the throw.
/// \threads Any.
/// \trap An existing file that is no FIFO is not noticed here.
OQ_EXPORT void OsNamedPipeCreate(const OQCString& acrPath, int& arPipe);

/// Removes the FIFO file. One that cannot be removed, or is missing, is no error.
/// \posix unlink(), through ClibUnlink
/// \param[in] acrPath path of the file
/// \param[in] arPipe  not used: not closed, not changed
/// \nothrow
/// \logs Traced; "Destroying linux named pipe...".
/// \threads Any.
OQ_EXPORT void OsNamedPipeDestroy(const OQCString& acrPath, int& arPipe);

/// Opens a FIFO.
/// \posix open(), through ClibOpen
/// \param[in,out] arPipe receives the descriptor, which the caller closes and which stays open over execve(); **keeps
///                       its value when the file cannot be opened**
/// \param[in] acrPath path of the file
/// \param[in] aMode   see OQEFileMode
/// \param[in] aState  OQPS_NonBlocking adds O_NONBLOCK
/// \param[in] aSide   not used
/// \throws OQCInvalidEx 6 "Invalid flags passed to open pipe" for a mode other than 1 to 4
/// \logs Traced; "Opening %s with %d flags". A refused mode "Invalid flags %d passed to open file", then "Left", before
/// the throw. A file that cannot be opened: no line of its own.
/// \threads Any. A cancellation point.
/// \trap A failed open says nothing: set arPipe to -1 before the call and test 0 <= arPipe after it. An open that waits
/// for a peer also fails when a signal handler interrupts it. A wait for -1 does not fail, it times out.
OQ_EXPORT void OsNamedPipeOpen(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState,
                               OQEConnectionMode aSide);

/// Does nothing on Linux but trace.
/// \posix none
/// \param[in] arPipe  not used
/// \param[in] acrPath not used
/// \param[in] aMode   not used
/// \param[in] aState  not used
/// \nothrow
/// \logs Traced.
/// \threads Any.
OQ_EXPORT void OsNamedPipeConnect(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState);

/// Does nothing on Linux but trace.
/// \posix none
/// \param[in] aPipe not used
/// \nothrow
/// \logs Traced.
/// \threads Any.
OQ_EXPORT void OsNamedPipeAccept(int aPipe);

/// Reads once.
/// \posix read(), through ClibRead
/// \param[in]  aPipe    descriptor
/// \param[out] apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param[in]  aLength  at most so many bytes are read
/// \param[out] arDone   receives the bytes read; 0 at end of data, when there is none on a non-blocking pipe, and when
///                      the read fails (an interrupted one included)
/// \nothrow
/// \logs Traced; "Reading %u bytes".
/// \threads Any. A cancellation point.
/// \trap 0 bytes do not tell why: errno is not reported. If another reader was quicker, a blocking read waits although
/// OsNamedPipeWaitForActivity found data.
OQ_EXPORT void OsNamedPipeRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// Reads until so many bytes have arrived. With the companion runtime of this project fewer bytes come only at end of
/// data, and a failure in between gives 0.
/// \posix read(), through ClibBlockRead
/// \param[in]  aPipe    descriptor
/// \param[out] apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param[in]  aLength  how many bytes to read
/// \param[out] arDone   receives the bytes read; 0 when a read fails
/// \nothrow
/// \logs Traced; "Reading %u bytes".
/// \threads Any. A cancellation point.
/// \trap A pipe opened read-write never reports end of data. On a pipe that does not block, less data than asked for is
/// a failure: 0, and what had arrived is lost.
OQ_EXPORT void OsNamedPipeBlockRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// Writes once. At most 4096 bytes (PIPE_BUF) are written whole or not at all.
/// \posix write(), through ClibWrite
/// \param[in] aPipe   descriptor
/// \param[in] acData  the bytes
/// \param[in] aLength how many
/// \param[in,out] arDone receives the bytes written, perhaps fewer than aLength; **keeps its value when the write
///                       fails**
/// \nothrow
/// \logs Traced; "Writing %u bytes".
/// \threads Any. A cancellation point.
/// \trap A failed write says nothing: set arDone to 0 before the call. A pipe without a reader raises SIGPIPE; one
/// opened with OQFM_Mode1 to 3 is its own reader.
OQ_EXPORT void OsNamedPipeWrite(int aPipe, const unsigned char* acData, unsigned int aLength, unsigned int& arDone);

/// Waits until the pipe is readable: OsWaitForActivity, whose exceptions pass through.
/// \posix select()
/// \param[in] aPipe    descriptor, 0 to 1023
/// \param[in] aSeconds longest wait in seconds; 0 polls
/// \throws OQCTimeOutEx 323 "Timed out"
/// \throws OQCPipeWaitFailedEx 332
/// \logs Traced, without "Left" before a throw, and the lines of OsWaitForActivity in its name.
/// \threads Any. A cancellation point.
/// \trap As OsWaitForActivity: a pipe that was never opened may time out.
OQ_EXPORT void OsNamedPipeWaitForActivity(int aPipe, unsigned int aSeconds);

/// Closes a descriptor. A failure is ignored.
/// \posix close(), through ClibClose
/// \param[in] arPipe the descriptor; **keeps its number**
/// \param[in] aSide  not used
/// \nothrow
/// \logs Traced; "Closing linux named pipe. pipe desc: %u".
/// \threads Any. A cancellation point.
/// \trap A second close hits whoever was given the number since.
OQ_EXPORT void OsNamedPipeClose(int& arPipe, OQEConnectionMode aSide);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup sharedmemory Shared memory
/// One System V segment as a mailbox for one message at a time. The server creates the segment, resets its header and
/// removes it; the client attaches. A waiting side polls every millisecond. One writer and one reader at a time: two
/// writers that find the slot free together overwrite each other's message. One OQShmDesc is for one thread.
///
/// | State    | data_ready | segment_free | write                        | read                  |
/// |----------|------------|--------------|------------------------------|-----------------------|
/// | Empty    | 0          | 1            | goes on, becomes Full        | OQCTryAgainEx         |
/// | Full     | 1          | 0            | waits 3 seconds at most      | goes on, becomes Empty|
/// | Changing | 0          | 0            | waits                        | OQCTryAgainEx         |
///
/// Every write and every read passes through Changing. A process that dies there leaves the mailbox in Changing until a
/// server opens the segment again. A server that opens the segment again while a client writes can leave both flags
/// set, or a Full slot, with data_length 0: the next read then returns 0 bytes. With both flags set a write goes on,
/// too, and replaces the message.
/// @{

/// The first 6 bytes of every segment, in the host's byte order; the message follows directly. Shared by two processes:
/// callers look at it at most, the layer alone writes it.
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
    OQSSharedMemoryHeader* shm_addr;  ///< set by the open: where it is attached; all ones after a failed shmat()
};

/// Opens a segment and marks this side ready. The server creates a missing segment (permissions 0666), locks it into
/// memory and resets the header, so an unread message of an earlier session is discarded; the client finds the segment
/// that the server made.
/// \posix shmget(), for the server shmctl(IPC_STAT) and shmctl(SHM_LOCK), shmat()
/// \param[in,out] arShmDesc shm_key and shm_size are read, shm_id and shm_addr are set; after a failure they hold what
///                          was stored so far. Broken preconditions: "0 != arShmDesc.shm_size", "0 <
/// arShmDesc.shm_key".
/// \param[in] aSide OQCM_Server or OQCM_Client; another is a broken precondition, "false"
/// \throws OQCOpenFailedEx 326, of shmget() (no segment, too small, no permission) and of shmat()
/// \throws OQCClibStatFailedEx 173, for the server
/// \throws OQCFileLockFailedEx 330, for the server, although no file is involved: the segment cannot be locked into
/// memory, for lack of the privilege or at the limit of locked memory (RLIMIT_MEMLOCK)
/// \logs Traced; no line before a throw.
/// \threads Any, one at a time for one OQShmDesc.
/// \trap A segment that was made stays in the system when a later step fails. Remove the segment shm_id with
/// shmctl(IPC_RMID).
OQ_EXPORT void OsSharedMemoryOpen(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Closes a segment; the server removes it. The system frees it when the last process has detached.
/// \posix for the server shmctl(IPC_STAT), shmctl(IPC_RMID), shmctl(IPC_STAT), shmctl(SHM_UNLOCK); for every side
/// shmdt()
/// \param[in] arShmDesc from OsSharedMemoryOpen; unchanged, so shm_id and shm_addr are stale afterwards
/// \param[in] aSide     OQCM_Server removes; every other value detaches only
/// \throws OQCClibStatFailedEx 173, for the server
/// \throws OQCCloseFailedEx 327, of IPC_RMID and of shmdt()
/// \throws OQCFileUnLockFailedEx 331, for the server
/// \logs Traced; no line before a throw.
/// \threads Any, one at a time for one OQShmDesc.
/// \trap A server's failure leaves the segment attached. After a server's close, a client that is still attached keeps a
/// segment that nobody else can open.
OQ_EXPORT void OsSharedMemoryClose(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Waits until a message is in the slot. The flag is tested at once, then after every millisecond.
/// \posix none; ClibGetTime and ClibSleepMS
/// \param[in] arShmDesc open segment
/// \param[in] aSeconds  longest wait in seconds by the wall clock; 0: one test and one millisecond
/// \throws OQCTimeOutEx 323 "Timed out waiting on Shared Memory"
/// \logs "Entered" and "Left" in the name of "sTimedWaitOnFlag"; a time-out logs its text, no "Left".
/// \threads Any, one at a time for one OQShmDesc. A cancellation point.
/// \trap A clock set forward shortens the wait. A clock set back to before the wait began ends it, one set back by less
/// lengthens it. The limit in milliseconds is computed in 32 bits, so 4294968 seconds and more wrap to a short wait.
OQ_EXPORT void OsSharedMemoryWaitForActivity(const OQShmDesc& arShmDesc, unsigned int aSeconds);

/// Places one message in the slot, waiting up to 3 seconds until it is free. The write is cancelled when a peer is not
/// ready.
/// \posix none; ClibGetTime, ClibSleepMS and ClibMemcpy
/// \param[in] arShmDesc open segment
/// \param[in] acData    the bytes
/// \param[in] acLength  how many; at most shm_size - 6, otherwise a broken precondition
/// \param[in,out] arWritten receives acLength; **keeps its value when the write is cancelled**, and when this throws
/// \throws OQCTimeOutEx 323 "Timed out waiting on Shared Memory" when the slot stays full; the old message stays
/// \logs Traced, and the lines of the wait in the name of "sTimedWaitOnFlag". A cancelled write "Both Peers not ready..
/// write would be canceled" (64, "-I-"). A time-out: no "Left".
/// \threads Any, one at a time for one OQShmDesc. A cancellation point.
/// \trap A cancelled write throws nothing: set arWritten to 0 before the call. A peer that has gone still counts as
/// ready, because its flag is never cleared. A clock that is set moves the 3 seconds, as for
/// OsSharedMemoryWaitForActivity. With a shm_size below 6 the check of the length never fires and the caller writes
/// past the segment.
OQ_EXPORT void OsSharedMemoryWrite(OQShmDesc& arShmDesc, const unsigned char* acData, unsigned int acLength,
                                   unsigned int& arWritten);

/// Takes the message out of the slot; does not wait.
/// \posix none; ClibMemcpy
/// \param[in]  arShmDesc open segment
/// \param[out] apBuffer  receives the message; the caller's
/// \param[in]  acLength  size of apBuffer in bytes; at most shm_size - 6, otherwise a broken precondition even if the
///                       message is short
/// \param[in,out] arRead receives the bytes stored; unchanged when this throws
/// \throws OQCTryAgainEx 322 "Shared Segment in use for writing: Try again" when no message is there
/// \logs Traced; without a message that text, no "Left".
/// \threads Any, one at a time for one OQShmDesc.
/// \trap The rest of a message that is longer than the buffer is lost. A side that reads after its own write gets its
/// own message. With a shm_size below 6 the check of acLength never fires and the caller reads past the segment.
OQ_EXPORT void OsSharedMemoryRead(OQShmDesc& arShmDesc, unsigned char* apBuffer, unsigned int acLength,
                                  unsigned int& arRead);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup wait Descriptor activity
/// A bounded wait for input on one descriptor.
/// @{

/// Waits until a descriptor is readable (data, end of file, a pending connection). Nothing is read. Signals do not end
/// the wait and do not lengthen it.
/// \posix select()
/// \param[in] aDescriptor an open one, 0 to 1023
/// \param[in] aSeconds    longest wait in seconds; 0 polls; at most 2147483647 where time_t has 32 bits (more fails)
/// \throws OQCTimeOutEx 323 "Timed out"
/// \throws OQCPipeWaitFailedEx 332, for instance for a closed descriptor, except as below, and for -2 and less
/// \logs Traced, "Left" also before a throw; "Data is available now."; "No data within %u seconds."; for each signal
/// "The select() call was interrupted.. Ignoring" (64, "-I-"). A failure one line.
/// \threads Any. A cancellation point.
/// \trap Two wrong descriptors time out instead of failing: -1, and a closed one beyond the kernel's descriptor table.
/// The table has room for 64 descriptors at least and grows with the highest that is opened (FDSize in
/// /proc/self/status). Set a closed descriptor to -1, and test 0 <= descriptor before the wait. A descriptor above 1023
/// is the caller's breach: where the C library checks (as in release builds) it ends the process.
OQ_EXPORT void OsWaitForActivity(int aDescriptor, unsigned int aSeconds);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup processes Processes and signals
/// Child processes, handlers of signals, and the question whether a program runs.
/// @{

/// Starts a program as a child process.
///
/// **When the program cannot be run, this function returns twice**: in the parent it returns the id of a child, and in
/// that child, a copy of the parent with this one thread, it throws. The caller notes getpid() before the call, catches
/// OQCProcessCreationFailedEx, and calls _exit() if getpid() is another now: whatever else the child does (returning from
/// main, flushing streams, destructors) happens a second time. The child keeps the host's signal handlers, and its
/// cancellation stays disabled. The parent is suspended until the child runs another program or ends, whatever the child
/// closes. The parent learns only the child's exit code. The program is tried in a first child, which the parent reaps:
/// a handler for SIGCHLD may run once more than there are ids.
///
/// Between vfork() and execve() a child handles signals as its program will: handlers of the host do not run there,
/// ignored signals stay ignored, and the signal mask is the caller's.
///
/// \posix fflush(stdin), mmap(), vfork(), rt_sigaction(), execve(); fork(), waitpid(), waitid(), setpgid() and a robust
/// mutex when the program cannot be run
/// \param[in] acPath path of the program
/// \param[in] acArgv its arguments, ended by null; the first is its name by custom
/// \param[in] acEnvp its environment ("NAME=value"), ended by null
/// \return the child's process id, in the parent; the caller reaps the child with ProcessWait
/// \throws OQCProcessCreationFailedEx 345, in the parent when vfork() fails, or fork() after a program that cannot be
/// run; in the child when the program cannot be run
/// \logs Traced, "Left" also before a throw; "Failed to create child :%s" or "Failed to exec child :%s" at error level.
/// \threads Any. Not a cancellation point.
/// \trap Code that catches the exception runs in the child, too. The call waits while another thread reads from stdin:
/// the flush needs the lock of the stream. A thread that waits for any child, or a handler that reaps every child, may
/// collect the first child: it ignores ids that it does not know. If the id then already belongs to a child of another
/// thread, this function waits for that child and reaps it.
OQ_EXPORT int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp);

/// Waits until a child process has ended.
/// \posix waitpid()
/// \param[in] aPid    the child's id. As for waitpid(), 0 waits for any child of the caller's process group, -1 for any
///                    child, and a number below -1 for any child of the group -aPid.
/// \param[in] aUnused accepted and ignored
/// \return its exit code (0 to 255), or -1 when a signal ended it
/// \throws OQCProcessWaitFailedEx 345 "Failed to create process" (the text is that, although a wait failed), for
/// instance for a process that is no child, or was collected already
/// \logs Traced, but no "Left" before the throw; "Going to wait for child process to complete"; "The child process
/// exited normally, with exit code: %d". A child ended by a signal, and a failed wait, one line at error level.
/// \threads Any. A cancellation point.
/// \trap The wait is not resumed after a signal that has a handler: the throw then says nothing about the child. A
/// caller who handles signals blocks them around the wait, or calls again while the child is his. After a wait for 0 or
/// a negative number nothing tells which child ended, and it may be one that another thread waits for, or one that
/// nobody was given (see ProcessCreate). Wait for ids.
OQ_EXPORT int ProcessWait(int aPid, unsigned int aUnused);

/// Installs a signal handler for the whole process. Every other signal is blocked while the handler runs.
/// \posix sigaction() with SA_SIGINFO | SA_INTERRUPT
/// \param[in] aSignal   signal number
/// \param[in] apHandler called with the signal number; may do only what is safe in a signal handler
/// \nothrow
/// \logs Traced; "Registering signal handler for signal %d" (64, "-I-").
/// \threads Any; the handler is for all of them.
/// \trap A handler that cannot be installed is not reported. Interrupted system calls are not restarted.
OQ_EXPORT void RegisterSignalHandler(int aSignal, void (*apHandler)(int));

/// Asks pgrep whether a process runs. The answer goes through the file /tmp/.vyrsyscmd, which stays.
/// \posix system(); stat(), through ClibStat
/// \param[in] acrName a pgrep pattern of at most 231 characters
/// \return 1 when a process matches, else 0; also 0 when pgrep is missing or the result file cannot be examined
/// \throws OQCException and others: what ClibStat throws other than OQCClibStatFailedEx; that of this project throws
/// nothing else
/// \logs Traced; "Process '%s' is running" or "Process '%s' is not running".
/// \threads One at a time, also among processes: they share the file. A cancellation point.
/// \trap **The pattern reaches the shell unquoted and a buffer of 256 bytes unchecked**: pass on only names that were
/// checked against a strict pattern, such as 1 to 15 letters, digits, dots, underscores and hyphens, the first no
/// hyphen (a part of a name matches, too; longer ones match nothing; a dot matches any character). What the shell and
/// pgrep complain of goes to the host's standard error. A file that the caller cannot rewrite answers as it stands:
/// whoever may write it gives the answer. Where the file is a FIFO, the call waits until somebody reads it, perhaps for
/// ever: examine the file with lstat() before, and do not call when it is neither missing nor a regular file.
OQ_EXPORT int isProcessRunning(const OQCString& acrName);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup commands Commands
/// Shell commands and the lines of their output.
/// @{

/// Runs a shell command and appends the lines of its standard output to a list.
/// \posix popen(), fcntl(FD_CLOEXEC), pclose(); fread(), through ClibFread
/// \param[in] acCommand for /bin/sh -c; its exit status is not reported
/// \param[in,out] arLines the caller's list; lines are appended without their newline. Keeps the lines that came before
///                        a failure.
/// \throws OQCReadFailedEx 328 when a read fails or a signal interrupts it, everything released; the output of that read
///                         is lost
/// \throws OQCNoMemoryEx 2 "Out of Memory"; the buffers stay allocated, the stream stays open, and the command is not
/// reaped
/// \logs Traced, "Left" also before the OQCReadFailedEx, not before the OQCNoMemoryEx; all further lines, failures too,
/// at trace level.
/// \threads Any, one at a time for one list. A cancellation point: a thread that is cancelled while it reads leaves the
/// stream open and the command unreaped, because closing the stream waits until the command ends.
/// \trap **A last line without a newline is dropped. A line of 3999 bytes or more ends the reading**: it and all after
/// it are lost. A zero byte hides the rest of the read it arrived in. When popen() fails the list is unchanged and
/// nothing is thrown. What the command writes to standard error goes to the host's. A program that another thread starts
/// in the moment between popen() and fcntl() inherits the stream, and then keeps a command running that waits for its
/// reader to leave.
OQ_EXPORT void OsExecute(const char* acCommand, OQCList<OQCString>& arLines);

/// Splits a zero-terminated text at its newlines, appends each complete line to a list and moves the unfinished last
/// line to the start of the buffer.
/// \posix none
/// \param[in,out] apBuffer the text, at most 3999 bytes; overwritten
/// \param[in,out] arLines  the caller's list; keeps the lines that came before a failure
/// \return the place in apBuffer behind the unfinished line, where the next read is to be stored
/// \throws OQCNoMemoryEx 2 "Out of Memory", with the scratch buffer of 4000 bytes left allocated
/// \logs Traced, without "Left" before the throw; each line, the unfinished one and the end of the buffer.
/// \threads Any, one at a time for one buffer and one list.
OQ_EXPORT char* OsBreak(char* apBuffer, OQCList<OQCString>& arLines);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup locks File locks and kill
/// Locks of lockf(): advisory, from the descriptor's current offset to the end of the file and beyond, owned by the
/// process. Threads of one process never exclude each other, and **closing any descriptor of the file, of whatever
/// origin, gives up the process's locks on it**.
/// @{

/// What OsFileLockStatus found.
enum OQEFileLockStatus : unsigned char {
    OQFLS_Unlocked = 2,  ///< no other process holds a lock on the region
    OQFLS_Locked = 4     ///< another process holds one, or the test failed for whatever reason
};

/// Locks the region, or fails at once.
/// \posix lockf(F_TLOCK)
/// \param[in] aDescriptor open for writing
/// \throws OQCFileLockFailedEx 330
/// \logs Traced, "Left" also before the throw; "Going to lock file". A failure one line.
/// \threads Any; they do not exclude each other.
/// \trap Every failed attempt logs an error line. A program that waits for a lock asks OsFileLockStatus and tries when
/// the region reads as unlocked.
OQ_EXPORT void OsLockFile(int aDescriptor);

/// Unlocks the region, locked or not.
/// \posix lockf(F_ULOCK)
/// \param[in] aDescriptor open
/// \throws OQCFileUnLockFailedEx 331
/// \logs Traced, "Left" also before the throw. A failure one line.
/// \threads Any.
OQ_EXPORT void OsUnlockFile(int aDescriptor);

/// Asks whether another process holds a lock on the region.
/// \posix lockf(F_TEST)
/// \param[in]  aDescriptor any; one that is not open reads as locked
/// \param[out] arStatus    receives the answer
/// \nothrow
/// \logs Traced; "Going to find locking status".
/// \threads Any.
/// \trap The process's own lock reads as unlocked.
OQ_EXPORT void OsFileLockStatus(int aDescriptor, OQEFileLockStatus& arStatus);

/// Sends a signal.
/// \posix kill()
/// \param[in] aPid    process id; 0, -1 and other negative numbers name groups of processes, as for kill()
/// \param[in] aSignal signal number; 0 asks whether the process exists and may be signalled
/// \return kill()'s result: 0, or -1 with errno set
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT int OsKill(int aPid, int aSignal);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup host Host identity
/// The host's own addresses, and what system it runs.
/// @{

/// The operating-system family; Linux is the only one this layer reports.
enum OQEOperatingSystem : unsigned char {
    OQOS_Linux = 1  ///< Linux
};

/// Appends every IPv4 address of the host that is not loopback (127.x.y.z) to a list.
/// \posix gethostbyname(), inet_ntoa(); gethostname(), through ClibGethostname
/// \param[in,out] arAddresses the caller's list; addresses in host byte order, the first number in the highest byte.
///                            Keeps the addresses that came before a failure.
/// \throws OQCGetIpAddressFailEx 347, when the lookup fails (with the system's error text for the number in h_errno),
/// and "No non-loopback IP Address configured on system" when there is no such address. A resolver's entry without a
/// list of addresses is a broken precondition, "lpHostEntry->h_addr_list != __null".
/// \throws OQCNoMemoryEx 2 "Out of Memory"
/// \logs Traced; each examined address ("IP Address #%u - %s") and each one used. A failed lookup one line, then
/// "Left", before the throw; no such address a line with that text (1, "-H-"), no "Left"; the process goes on.
/// \threads One at a time, with all other users of gethostbyname() and inet_ntoa(): the whole process shares their
/// result. A cancellation point.
/// \trap A thread that is asked to end in here may leave the resolver locked: the next lookup of the process then waits
/// for ever. Where threads are ended by OsDestroyThread, call it with cancellation disabled.
OQ_EXPORT void OsGetAllIpAddresses(OQCList<unsigned int>& arAddresses);

/// Stores the first IPv4 address of the host that is not loopback (127.x.y.z).
/// \posix gethostbyname(), inet_ntoa(); gethostname(), through ClibGethostname
/// \param[in,out] arAddress receives it, in host byte order; untouched when this throws
/// \throws OQCGetIpAddressFailEx 347, as OsGetAllIpAddresses; the same broken precondition
/// \logs As OsGetAllIpAddresses.
/// \threads One at a time, with all other users of gethostbyname() and inet_ntoa(): the whole process shares their
/// result. A cancellation point.
/// \trap As OsGetAllIpAddresses.
OQ_EXPORT void OsGetIpAddress(unsigned int& arAddress);

/// Tells the operating-system family and the first line of the distribution's release file: the first that exists of
/// /etc/oracle-release, /etc/enterprise-release and /etc/redhat-release. A host that has none, or whose file cannot be
/// read, is reported as "Red Hat Enterprise Linux Server release 5.x".
/// \posix stat(), through ClibStat; getFirstLineFromFile
/// \param[out] arOs receives OQOS_Linux, before anything can fail
/// \param[in,out] arName receives the line; untouched when this throws
/// \throws OQCNoMemoryEx 2 "Out of Memory"
/// \throws OQCException and others: what ClibStat throws other than OQCClibStatFailedEx; that of this project throws
/// nothing else
/// \logs Traced, without "Left" before a throw; where there is a release file, how its line was found.
/// \threads Any, one at a time for one arName. A cancellation point.
OQ_EXPORT void OsGetOsName(OQEOperatingSystem& arOs, OQCString& arName);

/// @}

#endif
