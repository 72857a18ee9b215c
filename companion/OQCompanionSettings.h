/// \file
/// Settings of this project's companion runtime: which log lines it writes, to which descriptor, and the clock of waits.
///
/// Only libOQCompanion.so has these settings; another runtime has its own. By default, halt, error and information
/// lines go to standard error, and trace lines are not written.
///
/// Example of a line:
///
///     2026-03-01T12:00:00.123456Z 4711 140245 -E- OsLockFile (.//MiscLinux:88) Failed to lock file, error: ...
///
/// Its fields are: time (UTC), process id, handle of the writing thread as OsStartThread returns it, tag, function,
/// file and line of the call, message. The runtime formats the line on the stack (about 9 KB) and writes it with
/// one write(). Lines of several threads do not mix. Lines of several processes do not mix if the file is opened
/// with O_APPEND. On a pipe, lines of up to 4096 bytes do not mix. A line feed inside the message is written as a
/// blank, so one call gives one line. A line of more than 8192 bytes is truncated. A line that cannot be written
/// (disk full, descriptor closed) is dropped silently, and so is the rest of a line that was written in part. errno
/// is always preserved. After a partly written line, the next line of this process to the same descriptor begins
/// with a line feed. A line that another thread writes at the same moment may still be appended to the partial
/// line, or be followed by an empty line.
///
/// A write to a pipe whose reader has gone raises SIGPIPE. A write to a file at the process's limit of file sizes
/// (RLIMIT_FSIZE) raises SIGXFSZ. Both signals end the process unless it handles or ignores them; the line is then
/// dropped. The process id is updated by fork() only: a child created in another way, such as by a direct clone(), logs
/// its parent's id.
#ifndef OQ_COMPANION_SETTINGS_H
#define OQ_COMPANION_SETTINGS_H

#include "OQCompanion.h"

/// \defgroup settings Settings
/// Settings of this project's companion runtime; another runtime has its own. They apply to the whole process.
/// @{

/// Chooses which lines are written.
/// \posix none
/// \param[in] aLevels bitwise OR of OQELogLevel values; 0 silences the log
/// \nothrow
/// \silent
/// \threads Any, at any time.
OQ_EXPORT void SetLogLevels(unsigned int aLevels);

/// Chooses the descriptor to which lines are written.
/// \posix none
/// \param[in] aDescriptor open for writing; the caller keeps it open as long as lines may be written, and closes it
///                        afterwards. With a negative descriptor every line is dropped.
/// \nothrow
/// \silent
/// \threads Any, at any time.
/// \trap A thread may write to the old descriptor shortly after the call. To change files while threads run, assign the
/// new file to the same descriptor number with dup2(). Open a file that several processes write to with O_APPEND. A
/// write to a pipe whose reader has gone raises SIGPIPE, and a write to a file at RLIMIT_FSIZE raises SIGXFSZ. Handle
/// or ignore both signals; otherwise writing a line can end the process.
OQ_EXPORT void SetLogDescriptor(int aDescriptor);

/// Chooses the clock of ClibGetTime(), and so of the mailbox waits.
/// \posix none; ClibGetTime() calls clock_gettime()
/// \param[in] aIsMonotonic true: CLOCK_MONOTONIC, which cannot be set, so a wait lasts the requested time. false, the
///                         initial state: CLOCK_REALTIME
/// \nothrow
/// \silent
/// \threads Any. Call it before the first wait: a wait that reads both clocks ends at once, or after many years.
/// \trap ClibGetTime() then reports the time since the host's start and not since 1970. The log keeps real time, and so do
/// the time limits of OsConditionalTimedWait(), which does not call ClibGetTime().
OQ_EXPORT void SetMonotonicTime(bool aIsMonotonic);

/// @}

#endif
