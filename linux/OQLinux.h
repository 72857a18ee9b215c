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
/// "Silent" means: not one line, whatever happens.
///
/// **Errors of POSIX thread functions** are returned by them, not stored in errno. The exceptions carry the text of
/// errno all the same, so the text may be that of an earlier failure or "Success": tell these failures by their class.
///
/// **Thread safety.** Any thread may call any function at any time, unless its description says more.
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

/// Initialises a mutex: pthread_mutex_init() with default attributes.
/// \param arMutex the caller's memory; uninitialised on failure
/// Throws: OQCMutexInitFailedEx 333.
OQ_EXPORT void OsInitMutex(pthread_mutex_t& arMutex);

/// Destroys a mutex that no thread holds or waits for: pthread_mutex_destroy().
/// \param arMutex initialised; its memory stays the caller's
/// Throws: OQCMutexDestroyFailedEx 334, on glibc also when the mutex is held; it is still usable then.
OQ_EXPORT void OsDestroyMutex(pthread_mutex_t& arMutex);

/// Locks a mutex, waiting as long as it takes: pthread_mutex_lock(). Not a cancellation point.
/// \param arMutex initialised
/// Throws: OQCMutexLockFailedEx 335 (also an OQCHaltEx); the mutex is then not held by the caller.
OQ_EXPORT void OsLockMutex(pthread_mutex_t& arMutex);

/// Locks a mutex if it is free: pthread_mutex_trylock(). There is no busy result.
/// \param arMutex initialised
/// Throws: OQCMutexLockFailedEx 335 (also an OQCHaltEx) when a thread (be it this one) holds the mutex, exactly as for
/// any other failure. A caller that polls catches it, before any handler for OQCHaltEx.
OQ_EXPORT void OsTrylockMutex(pthread_mutex_t& arMutex);

/// Unlocks a mutex that the calling thread holds: pthread_mutex_unlock().
/// \param arMutex held by the calling thread
/// Throws: OQCMutexUnlockFailedEx 336 (also an OQCHaltEx); the mutex is then unchanged.
OQ_EXPORT void OsUnlockMutex(pthread_mutex_t& arMutex);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup threads Threads
/// A thread is known by its handle, the platform's pthread_t as an unsigned long. Every thread is joinable, has a stack
/// of 524288 bytes and must be joined once, with OsWaitForExit.
/// @{

/// Starts a joinable thread with a 512 KiB stack: pthread_create().
/// \param arThread   receives the handle; unchanged when apRoutine is null, otherwise on failure whatever
///                   pthread_create() left in it
/// \param apArgument passed to the routine untouched; may be null
/// \param apRoutine  what the thread runs; must not let an exception escape
/// Throws: OQCNullPointerEx 3 "Null Pointer" for a null routine, without a line; OQCThreadStartFailedEx 342 otherwise.
/// Logs: no trace; each failure one "-E-" line with the handle variable's value at that moment (before the thread
/// exists: what the caller left there) and the error text.
OQ_EXPORT void OsStartThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Does nothing: starts no thread, writes no handle, logs nothing. Use OsStartThread.
/// \param arThread   not used
/// \param apArgument not used
/// \param apRoutine  not used
OQ_EXPORT void OsCreateThread(unsigned long& arThread, void* apArgument, void* (*apRoutine)(void*));

/// Waits until a thread has ended and frees its resources: pthread_join(). Its exit value is discarded.
/// \param acrThread handle from OsStartThread, not yet joined
/// Throws: OQCThreadWaitForExitFailedEx 344, for instance when a thread waits for itself.
/// Logs: traced; a failure logs one "-E-" line, then "Left", before the throw. A cancellation point.
OQ_EXPORT void OsWaitForExit(unsigned long const& acrThread);

/// Asks a thread to end at its next cancellation point and returns at once: pthread_cancel(). The thread must still be
/// joined. Its C++ frames are unwound: a frame that is noexcept, or a catch (...) that does not rethrow, ends the
/// process.
/// \param arThread handle from OsStartThread, not yet joined
/// Throws: OQCThreadDestructionFailedEx 343. Logs: nothing on success; a failure one "-E-" line.
OQ_EXPORT void OsDestroyThread(unsigned long& arThread);

/// Ends the calling thread with a null exit value: pthread_exit(). Its C++ frames are unwound, as by OsDestroyThread.
/// Silent.
[[noreturn]] OQ_EXPORT void OsExitThread();

/// Not supported on this platform.
/// \param arThread not read
/// Throws: OQCNotSupportedEx 12 "Not Supported", always. Silent.
[[noreturn]] OQ_EXPORT void OsResumeThread(unsigned long& arThread);

/// Not supported on this platform.
/// \param arThread not read
/// Throws: OQCNotSupportedEx 12 "Not Supported", always. Silent.
[[noreturn]] OQ_EXPORT void OsSuspendThread(unsigned long& arThread);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup conditions Condition variables
/// The caller's pthread_cond_t, used with a mutex of the caller. Wait in a loop that tests the predicate under the
/// mutex; signal after changing the predicate under it. A failed wait or signal is also an OQCHaltEx. Silent, but for
/// the two lines of OsConditionalTimedWait. There is no operation that wakes all waiters.
/// @{

/// Initialises a condition variable with default attributes: pthread_cond_init().
/// \param arCondition the caller's memory; uninitialised on failure
/// Throws: OQCCondInitFailedEx 337.
OQ_EXPORT void OsInitConditional(pthread_cond_t& arCondition);

/// Destroys a condition variable that no thread waits on: pthread_cond_destroy(). On glibc it waits for waiters that
/// are about to leave.
/// \param arCondition initialised; its memory stays the caller's
/// Throws: OQCCondDestroyFailedEx 338.
OQ_EXPORT void OsDestroyConditional(pthread_cond_t& arCondition);

/// Wakes one waiter, if there is any: pthread_cond_signal().
/// \param arCondition initialised
/// Throws: OQCCondSignalFailedEx 340 (also an OQCHaltEx).
OQ_EXPORT void OsSignal(pthread_cond_t& arCondition);

/// Waits for a signal: pthread_cond_wait(). A spurious wake-up returns normally. A cancellation point.
/// Requires: the calling thread holds arMutex. Ensures: it holds it again when this returns.
/// \param arCondition initialised
/// \param arMutex     held by the calling thread
/// Throws: OQCCondWaitFailedEx 339 (also an OQCHaltEx).
OQ_EXPORT void OsWait(pthread_cond_t& arCondition, pthread_mutex_t& arMutex);

/// Waits for a signal for at most aSeconds seconds by the real-time clock: pthread_cond_timedwait().
/// A spurious wake-up returns normally. Called in a loop, each call waits the full time anew. A cancellation point.
/// Requires: the calling thread holds arMutex. Ensures: it holds it again on return and after a time-out.
/// \param arCondition initialised
/// \param arMutex     held by the calling thread
/// \param aSeconds    at least 1, and no date beyond what time_t holds (2038 where it has 32 bits); 0 is a broken
///                    precondition "aSeconds > 0" and ends the process
/// Throws: OQCTimeOutEx 323 (time over; an ordinary failure, no OQCHaltEx), OQCCondWaitFailedEx 339 (any other error;
/// also an OQCHaltEx).
/// Logs: a time-out one line "Condition wait timed out." at trace level; nothing else.
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
    OQFM_Append = 4  ///< O_RDONLY and O_APPEND: cannot write; a blocking open waits for a writer
};

/// Whether reads and writes on a descriptor block. Every value but OQPS_NonBlocking means blocking.
enum OQEPipeState : unsigned char { OQPS_Blocking = 1, OQPS_NonBlocking = 2 };

/// Which side of a channel the caller is.
enum OQEConnectionMode : unsigned char {
    OQCM_Client = 0,  ///< attaches to a channel that the server made
    OQCM_Server = 1   ///< creates and owns the channel
};

/// Creates a FIFO file with mode 0660, less the process's umask: mknod().
/// \param acrPath path of the file; an existing file of whatever kind is accepted as it is
/// \param arPipe  not used
/// Throws: OQCCreateFailedEx 324. Logs: "Creating linux named pipe..."; for an existing file "Fifo file %s already
/// exists"; a failure one "-E-" line, then "Left".
OQ_EXPORT void OsNamedPipeCreate(const OQCString& acrPath, int& arPipe);

/// Removes the FIFO file: unlink(). A file that cannot be removed, or is missing, is no error.
/// \param acrPath path of the file
/// \param arPipe  not used: not closed, not changed
/// Throws: nothing. Logs: "Destroying linux named pipe...".
OQ_EXPORT void OsNamedPipeDestroy(const OQCString& acrPath, int& arPipe);

/// Opens a FIFO: open().
/// \param arPipe  receives the descriptor, which stays open over execve(); **keeps its value when the file cannot be
///                opened**, without a line or an exception: set it to -1 before the call
/// \param acrPath path of the file
/// \param aMode   see OQEFileMode
/// \param aState  OQPS_NonBlocking adds O_NONBLOCK
/// \param aSide   not used
/// Throws: OQCInvalidEx 6 "Invalid flags passed to open pipe" for a mode other than 1 to 4.
/// Logs: "Opening %s with %d flags"; a refused mode "Invalid flags %d passed to open file" (-E-), then "Left".
OQ_EXPORT void OsNamedPipeOpen(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState,
                               OQEConnectionMode aSide);

/// Does nothing on Linux but trace. Throws: nothing.
/// \param arPipe  not used
/// \param acrPath not used
/// \param aMode   not used
/// \param aState  not used
OQ_EXPORT void OsNamedPipeConnect(int& arPipe, const OQCString& acrPath, OQEFileMode aMode, OQEPipeState aState);

/// Does nothing on Linux but trace. Throws: nothing.
/// \param aPipe not used
OQ_EXPORT void OsNamedPipeAccept(int aPipe);

/// One read: ClibRead().
/// \param aPipe    descriptor
/// \param apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param aLength  at most so many bytes are read
/// \param arDone   receives the bytes read; 0 at end of data, when there is none on a non-blocking pipe, and when the
///                 read fails (an interrupted one included): errno is not reported
/// Throws: nothing. Logs: "Reading %u bytes".
OQ_EXPORT void OsNamedPipeRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// Reads until aLength bytes have arrived: ClibBlockRead(). With the companion runtime of this project fewer bytes come
/// only at end of data, and a failure in between gives 0. A pipe opened read-write never reports end of data.
/// \param aPipe    descriptor
/// \param apBuffer receives the bytes; the caller's, at least aLength bytes
/// \param aLength  how many bytes are wanted
/// \param arDone   receives the bytes read; 0 when the read fails
/// Throws: nothing. Logs: "Reading %u bytes".
OQ_EXPORT void OsNamedPipeBlockRead(int aPipe, unsigned char* apBuffer, unsigned int aLength, unsigned int& arDone);

/// One write: ClibWrite(). At most 4096 bytes (PIPE_BUF) are written whole or not at all.
/// \param aPipe   descriptor
/// \param acData  the bytes
/// \param aLength how many
/// \param arDone  receives the bytes written, perhaps fewer than aLength; **keeps its value when the write fails**: set
///                it to 0 before the call
/// Throws: nothing. A pipe without a reader raises SIGPIPE; one opened with OQFM_Mode1 to 3 is its own. Logs: "Writing
/// %u bytes".
OQ_EXPORT void OsNamedPipeWrite(int aPipe, const unsigned char* acData, unsigned int aLength, unsigned int& arDone);

/// Waits until the pipe is readable: OsWaitForActivity, whose exceptions (OQCTimeOutEx 323, OQCPipeWaitFailedEx 332)
/// pass through; "Left" of this function is then not logged.
/// \param aPipe    descriptor, 0 to 1023
/// \param aSeconds longest wait; 0 polls
OQ_EXPORT void OsNamedPipeWaitForActivity(int aPipe, unsigned int aSeconds);

/// Closes a descriptor: close(). A failure is ignored.
/// \param arPipe the descriptor; **keeps its number**, so a second close hits whoever was given it since
/// \param aSide  not used
/// Throws: nothing. Logs: "Closing linux named pipe. pipe desc: %u".
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
/// Every change passes through Changing; both flags set is never produced.
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

/// Opens a segment: shmget(), for the server shmctl(IPC_STAT) and shmctl(SHM_LOCK), shmat(); marks this side ready. The
/// server creates a missing segment (permissions 0666), locks it into memory and resets the header, so an unread
/// message of an earlier session is discarded; the client finds the segment that the server made.
/// \param arShmDesc shm_key and shm_size are read, shm_id and shm_addr are set; after a failure they hold what was
///                  stored so far, and a segment made stays in the system
/// \param aSide     OQCM_Server or OQCM_Client
/// Broken preconditions: "0 != arShmDesc.shm_size", "0 < arShmDesc.shm_key"; another side: "false".
/// Throws: OQCOpenFailedEx 326 (shmget: no segment, too small, no permission; shmat), OQCClibStatFailedEx 173,
/// OQCFileLockFailedEx 330 (no privilege, or the limit of locked memory). Logs: traced; no line before a throw.
OQ_EXPORT void OsSharedMemoryOpen(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Closes a segment: for the server shmctl(IPC_STAT), shmctl(IPC_RMID), shmctl(IPC_STAT), shmctl(SHM_UNLOCK); for every
/// side shmdt(). The system frees the segment when the last process has detached.
/// \param arShmDesc from OsSharedMemoryOpen; unchanged, so shm_id and shm_addr are stale afterwards
/// \param aSide     OQCM_Server removes; every other value detaches only
/// Throws: OQCClibStatFailedEx 173, OQCCloseFailedEx 327 (IPC_RMID, shmdt), OQCFileUnLockFailedEx 331; a server's
/// failure leaves the segment attached. Logs: traced; no line before a throw.
OQ_EXPORT void OsSharedMemoryClose(OQShmDesc& arShmDesc, OQEConnectionMode aSide);

/// Waits until a message is in the slot. The flag is tested at once, then after every millisecond.
/// \param arShmDesc open segment
/// \param aSeconds  longest wait by the wall clock; 0: one test and one millisecond. A clock set back ends the wait.
///                  The limit in milliseconds is computed in 32 bits, so 4294968 seconds and more wrap to a short wait.
/// Throws: OQCTimeOutEx 323 "Timed out waiting on Shared Memory".
/// Logs: "Entered" and "Left" in the name of "sTimedWaitOnFlag"; a time-out logs its text at trace level, no "Left".
OQ_EXPORT void OsSharedMemoryWaitForActivity(const OQShmDesc& arShmDesc, unsigned int aSeconds);

/// Places one message in the slot, waiting up to 3 seconds until it is free.
/// \param arShmDesc open segment
/// \param acData    the bytes
/// \param acLength  how many; at most shm_size - 6, otherwise a broken precondition (with a shm_size below 6 the check
///                  never fires and the caller writes past the segment)
/// \param arWritten receives acLength; **keeps its value when a peer is not ready**: the write is then cancelled with
///                  an "-I-" line and no exception, so set it to 0 before the call. Unchanged, too, when this throws.
/// Throws: OQCTimeOutEx 323 when the slot stays full; the old message stays. Logs: traced, and the lines of the wait.
OQ_EXPORT void OsSharedMemoryWrite(OQShmDesc& arShmDesc, const unsigned char* acData, unsigned int acLength,
                                   unsigned int& arWritten);

/// Takes the message out of the slot; does not wait. A side that reads after its own write gets its own message.
/// \param arShmDesc open segment
/// \param apBuffer  receives the message
/// \param acLength  size of apBuffer in bytes; at most shm_size - 6, otherwise a broken precondition even if the
///                  message is short. The rest of a longer message is lost.
/// \param arRead    receives the bytes stored; unchanged when this throws
/// Throws: OQCTryAgainEx 322 "Shared Segment in use for writing: Try again" when no message is there.
/// Logs: traced; without a message that text at trace level, no "Left".
OQ_EXPORT void OsSharedMemoryRead(OQShmDesc& arShmDesc, unsigned char* apBuffer, unsigned int acLength,
                                  unsigned int& arRead);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup wait Descriptor activity
/// @{

/// Waits until a descriptor is readable (data, end of file, a pending connection): select().
/// Signals do not end the wait and do not lengthen it. Nothing is read.
/// \param aDescriptor 0 to 1023. A greater one is the caller's breach: where the C library checks (as in release
///                    builds) it ends the process. -1 names no descriptor and waits out its time; a lesser one fails.
/// \param aSeconds    longest wait; 0 polls; at most 2147483647 where time_t has 32 bits (more fails)
/// Throws: OQCTimeOutEx 323 "Timed out", OQCPipeWaitFailedEx 332 (bad descriptor and the like).
/// Logs: traced, "Left" also before a throw; "Data is available now."; "No data within %u seconds." at trace level; a
/// signal "The select() call was interrupted.. Ignoring" (-I-); a failure one "-E-" line.
OQ_EXPORT void OsWaitForActivity(int aDescriptor, unsigned int aSeconds);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup processes Processes and signals
/// @{

/// Starts a program as a child process: fflush(stdin), vfork(), execve().
/// \param acPath path of the program
/// \param acArgv its arguments, ended by null; the first is its name by custom
/// \param acEnvp its environment ("NAME=value"), ended by null
/// \return the child's process id, in the parent; the child must be collected with ProcessWait
///
/// **When the program cannot be run, this function returns twice**: in the parent, with the id of a child, and in that
/// child, a copy of the parent with this one thread, where it throws. The caller catches OQCProcessCreationFailedEx,
/// asks getpid() where it is, and in the child calls _exit(): whatever else the child does (returning from main,
/// flushing streams, destructors) it does a second time. The parent returns once that child has run another program or
/// ended. The error is seen by the parent as the exit code the child chose. The program that could not be run may have
/// raised one more SIGCHLD in the parent. A child that closes descriptors it does not know lets the parent go on early.
///
/// A thread that OsDestroyThread asks to end does not end in here. Between its birth and its program the child runs in
/// the parent's memory: a handler of the host that a signal to the whole group starts there works on the parent's data.
///
/// Throws: OQCProcessCreationFailedEx 345, in the parent when no child can be made, in the child when the program
/// cannot be run. Logs: traced, "Left" also before a throw; "Failed to create child :%s" or "Failed to exec child :%s"
/// (-E-).
OQ_EXPORT int ProcessCreate(const char* acPath, char* const* acArgv, char* const* acEnvp);

/// Waits until a child process has ended: waitpid().
/// \param aPid    the child's id
/// \param aUnused accepted and ignored
/// \return its exit code (0 to 255), or -1 when a signal ended it
/// The wait is not resumed after a signal that has a handler: the throw then says nothing about the child. A caller who
/// handles signals blocks them around the wait, or calls again while the child is his.
/// Throws: OQCProcessWaitFailedEx 345 "Failed to create process" (the text is that, although a wait failed), for
/// instance for a process that is no child, or was collected already. Logs: traced, but no "Left" before the throw;
/// "Going to wait for child process to complete"; the exit code at trace level; a child ended by a signal, and a failed
/// wait, one "-E-" line.
OQ_EXPORT int ProcessWait(int aPid, unsigned int aUnused);

/// Installs a signal handler for the whole process: sigaction() with SA_SIGINFO | SA_INTERRUPT and every other signal
/// blocked while the handler runs. Interrupted system calls are not restarted.
/// \param aSignal   signal number
/// \param apHandler called with the signal number; may do only what is safe in a signal handler
/// A handler that cannot be installed is not reported.
/// Throws: nothing. Logs: traced; "Registering signal handler for signal %d" (-I-).
OQ_EXPORT void RegisterSignalHandler(int aSignal, void (*apHandler)(int));

/// Asks pgrep whether a process runs.
/// \param acrName a pgrep pattern. **It reaches the shell unquoted and a 256-byte buffer unchecked** (231 characters
/// fit): pass on only names that were checked against a strict pattern, such as 1 to 64 letters, digits,
/// '.',                '_' and '-', the first no '-'.
/// \return 1 when a process matches, else 0; also 0 when pgrep is missing or the result file cannot be examined
/// The answer goes through the fixed file /tmp/.vyrsyscmd, which stays: callers serialise their calls, also those of
/// several processes. A file that the caller cannot rewrite answers as it stands: whoever may write it gives the
/// answer.
/// Throws: what ClibStat throws other than OQCClibStatFailedEx. Logs: traced; "Process '%s' is running" or "... is not
/// running" at trace level.
OQ_EXPORT int isProcessRunning(const OQCString& acrName);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup commands Commands
/// @{

/// Runs a shell command and appends the lines of its standard output to a list: popen(), ClibFread, pclose().
/// \param acCommand for /bin/sh -c; its exit status is not reported
/// \param arLines   the caller's list; lines are appended without their newline. Keeps the lines that came before a
///                  failure.
/// **A last line without a newline is dropped. A line of 3999 bytes or more ends the reading**: it and all after it are
/// lost. A zero byte hides the rest of the read it arrived in. When popen() fails the list is unchanged and nothing is
/// thrown. Uses two buffers of 4000 bytes, whatever the output.
/// Throws: OQCReadFailedEx 328, everything released; OQCNoMemoryEx 2 "Out of Memory", without "Left", with the buffers
/// and the stream left open.
/// Logs: traced, "Left" also before the OQCReadFailedEx; all further lines, failures too, at trace level.
OQ_EXPORT void OsExecute(const char* acCommand, OQCList<OQCString>& arLines);

/// Splits a zero-terminated text at its newlines, appends each complete line to a list and moves the unfinished last
/// line to the start of the buffer.
/// \param apBuffer the text, at most 3999 bytes; overwritten
/// \param arLines  the caller's list
/// \return the place in apBuffer behind the unfinished line, where the next read is to be stored
/// Throws: OQCNoMemoryEx 2 "Out of Memory", without "Left", with the 4000-byte scratch buffer left allocated.
/// Logs: traced; each line, the unfinished one and the end of the buffer at trace level.
OQ_EXPORT char* OsBreak(char* apBuffer, OQCList<OQCString>& arLines);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup locks File locks and kill
/// Locks of lockf(): advisory, from the descriptor's current offset to the end of the file and beyond, owned by the
/// process. Threads of one process never exclude each other, and **closing any descriptor of the file, of whatever
/// origin, gives up the process's locks on it**. The lock functions are traced, "Left" also before a throw.
/// @{

/// What OsFileLockStatus found.
enum OQEFileLockStatus : unsigned char {
    OQFLS_Unlocked = 2,  ///< no other process holds a lock on the region
    OQFLS_Locked = 4     ///< another process holds one, or the test failed for whatever reason
};

/// Locks the region, or fails at once: lockf(F_TLOCK).
/// \param aDescriptor open for writing
/// Throws: OQCFileLockFailedEx 330. Logs: "Going to lock file"; a failure one "-E-" line.
OQ_EXPORT void OsLockFile(int aDescriptor);

/// Unlocks the region, locked or not: lockf(F_ULOCK).
/// \param aDescriptor open
/// Throws: OQCFileUnLockFailedEx 331. Logs: a failure one "-E-" line.
OQ_EXPORT void OsUnlockFile(int aDescriptor);

/// Asks whether another process holds a lock on the region: lockf(F_TEST). The process's own lock reads as unlocked.
/// \param aDescriptor any; one that is not open reads as locked
/// \param arStatus    receives the answer
/// Throws: nothing. Logs: "Going to find locking status".
OQ_EXPORT void OsFileLockStatus(int aDescriptor, OQEFileLockStatus& arStatus);

/// Sends a signal: kill().
/// \param aPid    process id; 0, -1 and other negative numbers name groups of processes, as for kill()
/// \param aSignal signal number; 0 asks whether the process exists and may be signalled
/// \return kill()'s result: 0, or -1 with errno set. Throws: nothing. Silent.
OQ_EXPORT int OsKill(int aPid, int aSignal);

/// @}
// ---------------------------------------------------------------------------------------------------------------------
/// \defgroup host Host identity
/// The address functions resolve the host's own name with gethostbyname(), whose result is shared by the whole process:
/// callers serialise them. Traced; at trace level also each examined address ("IP Address #%u - %s"), each one used
/// ("Using %s as ..."), and how the release line was found.
/// @{

/// The operating-system family; Linux is the only one this layer reports.
enum OQEOperatingSystem : unsigned char { OQOS_Linux = 1 };

/// Appends every IPv4 address of the host that is not loopback (127.x.y.z) to a list.
/// \param arAddresses the caller's list; addresses in host byte order, the first number in the highest byte
/// Throws: OQCGetIpAddressFailEx 347, when the lookup fails (an "-E-" line and "Left" before it; the text is the
/// system's error text for the number in h_errno) and, with "No non-loopback IP Address configured on system", when
/// there is no such address (a "-H-" line with that text, no "Left"; the process goes on). OQCNoMemoryEx 2.
OQ_EXPORT void OsGetAllIpAddresses(OQCList<unsigned int>& arAddresses);

/// Stores the first IPv4 address of the host that is not loopback.
/// \param arAddress receives it, in host byte order; untouched when this throws
/// Throws: OQCGetIpAddressFailEx 347, as OsGetAllIpAddresses.
OQ_EXPORT void OsGetIpAddress(unsigned int& arAddress);

/// Tells the operating-system family and the first line of the distribution's release file: the first that exists of
/// /etc/oracle-release, /etc/enterprise-release and /etc/redhat-release. A host that has none, or whose file cannot be
/// read, is reported as "Red Hat Enterprise Linux Server release 5.x".
/// \param arOs   receives OQOS_Linux, before anything can fail
/// \param arName receives the line
/// Throws: OQCNoMemoryEx 2; what ClibStat throws other than OQCClibStatFailedEx.
OQ_EXPORT void OsGetOsName(OQEOperatingSystem& arOs, OQCString& arName);

/// @}

#endif
