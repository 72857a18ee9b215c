/// \file
/// A file whose lock serves as a mutex between processes.
#ifndef HOSTD_LOCKED_FILE_H
#define HOSTD_LOCKED_FILE_H

#include "OQLinux.h"

/// Holds at most one descriptor and with it the lock. The system releases the lock when the process ends in any way.
/// Closing any descriptor of the file releases the locks of the process, so no other code in this process may open the
/// file.
class LockedFile
{
public:
    enum Missing { Create, Refuse };

    explicit LockedFile(const OQCString& acrPath) : mPath(acrPath), mDescriptor(-1) {}
    ~LockedFile() { release(); }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    /// Opens and locks the file. Does not wait.
    /// \return false when another process holds the lock. Throws: std::runtime_error when the file cannot be opened or
    /// openOwnFile() rejects it.
    bool tryLock(Missing aMissing);

    /// Releases the lock.
    void release();

    /// \return whether the path still names the locked file; a lock on a removed file does not exclude other processes
    bool isStillNamed() const;

    int descriptor() const { return mDescriptor; }

private:
    const OQCString mPath;
    int mDescriptor;
};

#endif
