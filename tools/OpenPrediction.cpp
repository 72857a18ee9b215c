// Predicts the result of OsSharedMemoryOpen. The functions here follow the steps of the open in SharedMemoryLinux.cpp.

#include "OpenPrediction.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <unistd.h>

namespace
{

rlimit lockLimit()
{
    rlimit lLimit = {};
    getrlimit(RLIMIT_MEMLOCK, &lLimit);
    return lLimit;
}

/// The errors of a server's calls for a new segment.
struct Attempt {
    int mCreation, mLock;
};

/// Creates a private segment, locks it under this limit and removes it. No signal interrupts this.
Attempt tryPrivateSegment(unsigned long aSize, rlim_t aLimit)
{
    sigset_t lAll, lBlocked;
    sigfillset(&lAll);
    sigprocmask(SIG_BLOCK, &lAll, &lBlocked);
    const rlimit cLimit = lockLimit(), cDuring = {aLimit, cLimit.rlim_max};
    setrlimit(RLIMIT_MEMLOCK, &cDuring);
    Attempt lAttempt = {};
    const int lId = shmget(IPC_PRIVATE, aSize, 0600);
    if (lId < 0) {
        lAttempt.mCreation = errno;
    } else {
        lAttempt.mLock = shmctl(lId, SHM_LOCK, NULL) < 0 ? errno : 0;
        shmctl(lId, IPC_RMID, NULL);
    }
    setrlimit(RLIMIT_MEMLOCK, &cLimit);
    sigprocmask(SIG_SETMASK, &lBlocked, NULL);
    return lAttempt;
}

/// Names the limit of the system that the new segment exceeds.
void explainCreation(OpenPrediction& arOpen, unsigned long aSize)
{
    shminfo lMost = {};
    shm_info lUsed = {};
    shmctl(0, IPC_INFO, reinterpret_cast<shmid_ds*>(&lMost));
    shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&lUsed));
    const unsigned long lPages = lUsed.shm_tot + aSize / static_cast<unsigned long>(sysconf(_SC_PAGESIZE)) + 1;
    if (EINVAL == arOpen.mError) {
        arOpen.mpReason = "shmmax";
        arOpen.mRemedy = "the system allows " + std::to_string(lMost.shmmax) +
                         " bytes in a segment; as root: sysctl kernel.shmmax=" + std::to_string(aSize);
    } else if (ENOSPC == arOpen.mError && lMost.shmmni <= static_cast<unsigned int>(lUsed.used_ids)) {
        arOpen.mpReason = "shmmni";
        arOpen.mRemedy = "the system allows " + std::to_string(lMost.shmmni) +
                         " segments; remove one (ipcs -m, ipcrm -m ID), or as root: sysctl kernel.shmmni=" +
                         std::to_string(lUsed.used_ids + 1);
    } else if (ENOSPC == arOpen.mError) {
        arOpen.mpReason = "shmall";
        arOpen.mRemedy =
            "the system allows " + std::to_string(lMost.shmall) +
            " pages in all segments; remove one (ipcs -m, ipcrm -m ID), or as root: sysctl kernel.shmall=" +
            std::to_string(lPages);
    } else {
        arOpen.mpReason = "refused";
        arOpen.mRemedy = strerror(arOpen.mError);
    }
}

void failLock(OpenPrediction& arOpen, int aError)
{
    arOpen.mError = aError;
    arOpen.mpException = "OQCFileLockFailedEx";
    arOpen.mCode = OQErrorCode<OQCFileLockFailedEx>::value;
    arOpen.mpReason = "locked-memory";
    arOpen.mRemedy = "the limit of locked memory is " + std::to_string(lockLimit().rlim_cur) +
                     " bytes for all segments of this user; in the shell that starts the server, as root: ulimit -l "
                     "unlimited; or: setcap cap_ipc_lock+ep PROGRAM";
}

void predictCreation(OpenPrediction& arOpen, unsigned long aSize)
{
    const Attempt lAttempt = tryPrivateSegment(aSize, lockLimit().rlim_cur);
    if (0 != lAttempt.mCreation) {
        arOpen.mError = lAttempt.mCreation;
        explainCreation(arOpen, aSize);
    } else if (0 != lAttempt.mLock) {
        failLock(arOpen, lAttempt.mLock);
    }
}

/// Predicts the lock of an existing segment. The kernel requires that the caller owns the segment and has a limit above
/// 0, or that it has the privilege CAP_IPC_LOCK. The kernel then counts the segment, unless it is locked already.
void predictLock(OpenPrediction& arOpen, const shmid_ds& acrSegment, const std::string& acrRemoval)
{
    const bool lOwner = geteuid() == acrSegment.shm_perm.uid || geteuid() == acrSegment.shm_perm.cuid;
    Attempt lAttempt = {};
    if (!lOwner || 0 == lockLimit().rlim_cur) {
        lAttempt = tryPrivateSegment(1, 0);  // under a limit of 0, EPERM means that the privilege is missing
    }
    if (0 == lAttempt.mCreation && EPERM != lAttempt.mLock) {
        lAttempt = {};
        if (0 == (acrSegment.shm_perm.mode & SHM_LOCKED)) {
            lAttempt = tryPrivateSegment(acrSegment.shm_segsz, lockLimit().rlim_cur);
        }
    }
    if (0 != lAttempt.mCreation) {
        arOpen.mError = lAttempt.mCreation;
        arOpen.mKnown = false;
        explainCreation(arOpen, acrSegment.shm_segsz);
    } else if (0 != lAttempt.mLock) {
        failLock(arOpen, lAttempt.mLock);
    }
    if (EPERM == lAttempt.mLock && !lOwner) {
        arOpen.mpReason = "not-owner";
        arOpen.mRemedy =
            "only user " + std::to_string(acrSegment.shm_perm.uid) +
            " and root can lock it; start the server as that user, or remove the segment as that user: " + acrRemoval;
    }
}

}  // namespace

OpenPrediction predictOpen(key_t aKey, unsigned long aSize, OQEConnectionMode aSide)
{
    OpenPrediction lOpen;
    char lRemoval[32];
    snprintf(lRemoval, sizeof lRemoval, "ipcrm -M 0x%08x", static_cast<unsigned int>(aKey));
    shmid_ds lSegment = {};
    const int lId = shmget(aKey, aSize, 0666);  // as the client's open; the server's open also creates
    const int lError = lId < 0 ? errno : 0;
    if (ENOENT == lError && OQCM_Server == aSide) {
        predictCreation(lOpen, aSize);
        return lOpen;
    }
    lOpen.mError = lError;
    if (0 == lError && OQCM_Server == aSide && 0 == shmctl(lId, IPC_STAT, &lSegment)) {
        predictLock(lOpen, lSegment, lRemoval);
    } else if (ENOENT == lError) {
        lOpen.mpReason = "no-segment";
        lOpen.mRemedy = "the server has not opened it, or has closed it; start the server";
    } else if (EINVAL == lError) {
        lOpen.mpReason = "too-small";
        lOpen.mRemedy = "smaller than " + std::to_string(aSize) +
                        " bytes; pass one size on both sides, or remove it and start the server: " + lRemoval;
    } else if (EACCES == lError) {
        lOpen.mpReason = "no-rights";
        lOpen.mRemedy = std::string(
                            "this user may not read and write it; choose another key, or remove it as its owner "
                            "(ipcs -m) and start the server: ") +
                        lRemoval;
    } else if (0 != lError) {
        lOpen.mpReason = "refused";
        lOpen.mRemedy = strerror(lError);
    }
    return lOpen;
}
