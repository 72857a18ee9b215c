#include "LockedFile.h"

#include <fcntl.h>

#include <stdexcept>

#include "Channel.h"
#include "Ownership.h"

bool LockedFile::tryLock(Missing aMissing)
{
    release();
    for (;;) {
        mDescriptor = openOwnFile(mPath, O_RDWR | (Create == aMissing ? O_CREAT : 0));
        if (mDescriptor < 0) {
            throw std::runtime_error(std::string("cannot open ") + mPath.get() + ": " + systemError());
        }
        try {
            OsLockFile(mDescriptor);
        } catch (const OQCFileLockFailedEx&) {
            release();
            return false;
        }
        if (isStillNamed()) {
            return true;
        }
        // The last holder removed the file between the open and the lock. This lock would not exclude other processes.
        release();
    }
}

void LockedFile::release()
{
    if (0 <= mDescriptor) {
        ClibClose(mDescriptor);
        mDescriptor = -1;
    }
}

bool LockedFile::isStillNamed() const { return isNamed(mDescriptor, mPath); }
