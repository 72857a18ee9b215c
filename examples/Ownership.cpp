#include "Ownership.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "Channel.h"

namespace
{

/// \return a description of what is wrong with an open file; empty if nothing is wrong
std::string findFault(int aDescriptor, mode_t aKind)
{
    struct stat lInfo;
    if (fstat(aDescriptor, &lInfo) < 0) {
        return "cannot be examined: " + systemError();
    }
    if (aKind != (lInfo.st_mode & S_IFMT)) {
        return S_IFIFO == aKind ? "is no FIFO" : "is no regular file";
    }
    if (geteuid() != lInfo.st_uid && 0 != lInfo.st_uid) {
        return "belongs to another user";
    }
    // Another user may have created a hard link to one of this user's files in a directory that both can write.
    return lInfo.st_nlink <= 1 ? "" : "has a second name";
}

}  // namespace

std::string privateDirectory()
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no thread changes the environment.
    const char* const lpRuntime = getenv("XDG_RUNTIME_DIR");
    std::string lPath = NULL == lpRuntime ? "" : lpRuntime;
    if ('/' != lPath[0]) {  // a relative path depends on the working directory
        lPath = "/tmp/hostd-" + std::to_string(geteuid());
        mkdir(lPath.c_str(), 0700);  // an existing directory is checked below
    }
    const int lDirectory = ClibOpen(lPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    struct stat lInfo;
    if (lDirectory < 0 || fstat(lDirectory, &lInfo) < 0) {
        throw std::runtime_error("cannot open the directory " + lPath + ": " + systemError());
    }
    ClibClose(lDirectory);
    if (geteuid() != lInfo.st_uid || 0 != (lInfo.st_mode & 077)) {
        throw std::runtime_error("the directory " + lPath + " must belong to this user and have mode 0700");
    }
    return lPath;
}

OQCPipe openOwnFile(const OQCString& acrPath, int aFlags)
{
    const int lDescriptor = ClibOpen(acrPath.get(), aFlags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (lDescriptor < 0) {
        return OQCPipe();
    }
    OQCPipe lFile(lDescriptor);
    const std::string lFault = findFault(lDescriptor, S_IFREG);
    if (!lFault.empty()) {
        throw std::runtime_error(std::string(acrPath.get()) + " " + lFault);
    }
    return lFile;
}

LockedFile lockOwnFile(const OQCString& acrPath, int aFlags, std::chrono::milliseconds aLimit, const char* acTaken)
{
    for (;;) {
        OQCPipe lFile = openOwnFile(acrPath, aFlags);
        if (lFile.get() < 0) {
            throw std::runtime_error(std::string("cannot open ") + acrPath.get() + ": " + systemError());
        }
        try {
            OQCFileLock lLock(lFile.get(), aLimit);
            if (isNamed(lFile.get(), acrPath)) {
                return LockedFile{std::move(lFile), std::move(lLock)};
            }
            // The last holder removed the file between the open and the lock. This lock excludes no other process.
        } catch (const OQCFileLockFailedEx&) {
            throw std::runtime_error(acTaken);
        }
    }
}

void checkOwnFifo(int aDescriptor, const OQCString& acrPath)
{
    const std::string lFault =
        isNamed(aDescriptor, acrPath) ? findFault(aDescriptor, S_IFIFO) : "is no FIFO but a link";
    if (!lFault.empty()) {
        throw std::runtime_error(std::string(acrPath.get()) + " " + lFault);
    }
}

bool isNamed(int aDescriptor, const OQCString& acrPath)
{
    struct stat lOpen;
    struct stat lNamed;
    return 0 == fstat(aDescriptor, &lOpen) && 0 == lstat(acrPath.get(), &lNamed) && lOpen.st_dev == lNamed.st_dev &&
           lOpen.st_ino == lNamed.st_ino;
}

bool isOwnSegment(int aId)
{
    // Compare the creator, which is fixed. The creator can change the owner.
    shmid_ds lState;
    return 0 == shmctl(aId, IPC_STAT, &lState) && geteuid() == lState.shm_perm.cuid;
}
