/// \file
/// Gives access only to files and segments that no other user can have prepared. The checks accept files and segments
/// of this user, and files of root.
#ifndef HOSTD_OWNERSHIP_H
#define HOSTD_OWNERSHIP_H

#include <sys/types.h>

#include <chrono>
#include <string>

#include "OQGuards.h"

/// Returns the directory of all files of a daemon: $XDG_RUNTIME_DIR or, if that is not an absolute path,
/// /tmp/hostd-UID, which the function creates. Only this user can write to the directory, so no other user can replace
/// a file in it between two calls. Throws: std::runtime_error when other users have access to the directory.
std::string privateDirectory();

/// Opens a regular file. Does not follow a symbolic link and does not wait for the peer of a FIFO.
/// \return a descriptor; -1 with errno set when the file cannot be opened. Throws: std::runtime_error when the file is of
/// another kind, belongs to another user or has a second name.
OQCPipe openOwnFile(const OQCString& acrPath, int aFlags);

/// An open file and the lock on it. Closing any descriptor of the file releases the locks of the process, so no other
/// code in this process may open the file.
struct LockedFile {
    OQCPipe mFile;
    OQCFileLock mLock;
};

/// Opens a file as openOwnFile() does, and locks it. Waits for at most \p aLimit until other processes unlock it. Throws:
/// std::runtime_error; its text is \p acTaken if another process still holds the lock.
LockedFile lockOwnFile(const OQCString& acrPath, int aFlags, std::chrono::milliseconds aLimit, const char* acTaken);

/// Throws: std::runtime_error unless the descriptor refers to a FIFO that the path names directly, not by a symbolic
/// link.
void checkOwnFifo(int aDescriptor, const OQCString& acrPath);

/// \return whether the path names the open file of the descriptor; false for a symbolic link
bool isNamed(int aDescriptor, const OQCString& acrPath);

/// \return whether this user created the segment. The key is not secret, so any user can create a segment with it
/// first.
bool isOwnSegment(int aId);

#endif
