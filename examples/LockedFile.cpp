#include "LockedFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <stdexcept>

#include "Channel.h"

bool LockedFile::tryLock(Missing aMissing)
{
    release();
    // The name may stand in a directory that everybody can write: a link planted there is not followed.
    const int lFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (Create == aMissing ? O_CREAT : 0);
    for (;;) {
        mDescriptor = ClibOpen(mPath.get(), lFlags, 0660);
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
        // Its last holder removed the file between the open and the lock: this lock would keep nobody out.
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

bool LockedFile::isStillNamed() const
{
    struct stat lLocked;
    struct stat lNamed;
    try {
        ClibStat(mPath.get(), &lNamed);
    } catch (const OQCClibStatFailedEx&) {
        return false;
    }
    return 0 == fstat(mDescriptor, &lLocked) && lLocked.st_dev == lNamed.st_dev && lLocked.st_ino == lNamed.st_ino;
}
