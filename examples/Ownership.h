/// \file
/// Files and segments that no other user can have prepared. The checks accept what belongs to this user or, for files,
/// to root.
#ifndef HOSTD_OWNERSHIP_H
#define HOSTD_OWNERSHIP_H

#include <sys/types.h>

#include <string>

#include "OQLinux.h"

/// The directory of all files of a daemon: $XDG_RUNTIME_DIR or, when that is no absolute path, /tmp/hostd-UID, which is made.
/// Only this user can write it, so a path below it keeps its meaning from one call to the next.
/// Throws: std::runtime_error when the directory is not this user's alone.
std::string privateDirectory();

/// Opens a regular file. Follows no link and does not wait for the peer of a FIFO.
/// \return the descriptor; negative with errno set when the file cannot be opened
/// Throws: std::runtime_error when the file is of another kind, belongs to somebody else or has a second name.
int openOwnFile(const OQCString& acrPath, int aFlags);

/// Throws: std::runtime_error unless the descriptor is open on a FIFO that the path itself names.
void checkOwnFifo(int aDescriptor, const OQCString& acrPath);

/// \return whether the path, which may be no link, names the file that the descriptor is open on
bool isNamed(int aDescriptor, const OQCString& acrPath);

/// \return whether this user made the segment. Its key is no secret, so any user can make one with that key first.
bool isOwnSegment(int aId);

#endif
