/// \file
/// A file whose lock says who may go on.
#ifndef HOSTD_LOCKED_FILE_H
#define HOSTD_LOCKED_FILE_H

#include "OQLinux.h"

/// Holds at most one descriptor, and with it the lock. The system frees the lock when the process ends, however it
/// ends. The locks of a file are lost when the process closes any descriptor of it: nobody else in this process opens
/// the file.
class LockedFile
{
public:
    enum Missing { Create, Refuse };

    explicit LockedFile(const OQCString& acrPath) : mPath(acrPath), mDescriptor(-1) {}
    ~LockedFile() { release(); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    /// Opens and locks the file; does not wait.
    /// \return false when another process holds the lock. Throws: std::runtime_error when the file cannot be opened, or
    /// is not one that openOwnFile() accepts.
    bool tryLock(Missing aMissing);

    /// Gives the lock up.
    void release();

    /// \return whether the path still names the locked file: a lock on a removed file keeps nobody out
    bool isStillNamed() const;

    int descriptor() const { return mDescriptor; }

private:
    const OQCString mPath;
    int mDescriptor;
};

#endif
