/// \file
/// The settings of this companion runtime: which log lines are written, and where to.
///
/// They belong to libOQCompanion.so alone; a host with another runtime has that one's settings. Without any call, halt,
/// error and information lines go to standard error and trace lines nowhere.
///
/// A line reads
///
///     2026-03-01T12:00:00.123456Z 4711 140245 -E- OsLockFile (.//MiscLinux:88) Failed to lock file, error: ...
///
/// that is: time (UTC), process id, the writing thread's handle as OsStartThread gives it, tag, function, file and line
/// of the call, message. It is formatted on the stack (about 9 KB) and written with one write(): lines of several
/// threads do not mix, nor do those of several processes when the file is opened with O_APPEND (on a pipe, lines of up
/// to 4096 bytes). A line feed inside the message is written as a blank, so that a line of the log is one call; a line
/// of more than 8192 bytes is cut there. A line that cannot be written (disk full, descriptor closed) is dropped
/// without a word, and so is the rest of one that could be written in part; errno is kept in every case. After a line
/// that was written in part, the next line of this process to the same descriptor begins with a line feed; a line that
/// another thread writes at that moment may still be appended to the part, or leave an empty line behind it.
///
/// A pipe whose reader has gone raises SIGPIPE, as for any write. A file at the process's limit of file sizes
/// (RLIMIT_FSIZE) raises SIGXFSZ. Both signals end the process unless it handles or ignores them; the line is then
/// dropped. The process id is that of the last fork(): a child made in another way (a bare clone) logs its parent's.
#ifndef OQ_COMPANION_SETTINGS_H
#define OQ_COMPANION_SETTINGS_H

#include "OQCompanion.h"

/// \defgroup settings Log settings
/// Of the companion runtime of this project; a host with another runtime has that one's. They hold for the whole
/// process at once.
/// @{

/// Chooses which lines are written.
/// \posix none
/// \param[in] aLevels OQELogLevel bits, or-ed; 0 silences the log
/// \nothrow
/// \silent
/// \threads Any, at any time.
OQ_EXPORT void SetLogLevels(unsigned int aLevels);

/// Chooses where lines are written.
/// \posix none
/// \param[in] aDescriptor open for writing; the caller keeps it open while lines may come and closes it afterwards. A
///                        negative one drops every line.
/// \nothrow
/// \silent
/// \threads Any, at any time.
/// \trap A thread may still write to the old descriptor for a moment. To change files while threads run, put the new
/// one onto the same number (dup2). A file that several processes write to is opened with O_APPEND. A pipe whose reader
/// has gone raises SIGPIPE, and a file at RLIMIT_FSIZE raises SIGXFSZ: handle or ignore both, or a line of the log ends
/// the process.
OQ_EXPORT void SetLogDescriptor(int aDescriptor);

/// @}

#endif
