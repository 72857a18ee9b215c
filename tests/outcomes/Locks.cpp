// How file locks and signals to processes end.

#include "Outcome.h"

namespace
{

const Family cFamily("File locks", ".//MiscLinux",
                     "A lock belongs to the process and begins at the descriptor's offset. `OsKill` logs nothing.",
                     {{"-H- Assertion [ false ] failed", "`lockf` returned a positive number, which it never does"},
                      {"-E- Failed to lock file, error: %s",
                       "another process holds a lock on the region, or the descriptor is not open for writing"},
                      {"-E- Failed to unlock file, error: %s", "the descriptor is not open"},
                      {"-T- Going to lock file", "before the attempt"},
                      {"-T- Going to find locking status", "before the test"},
                      {"-T- Entered", "the operation begins"},
                      {"-T- Left", "the operation returns; after an error line: a throw follows"}});

OUTCOME_OF_ERRORS(OsLockFile, Succeeds, 0, 7)
{
    substitute::lockf.fail(error(), EIO);
    mWhen = "succeeds, also when this process holds the lock already";
    mTrace = R"(
        Entered
        -T- "Going to lock file"
        lockf(5, F_TLOCK, 0) = )" +
             std::to_string(error()) + "\nLeft";
    mStays = "the region is locked until one call unlocks it";
    run([] { OsLockFile(5); });
}

OUTCOME_OF_ERRORS(OsLockFile, ThrowsWhenTheFileCannotBeLocked, EACCES, EAGAIN, EBADF, EDEADLK, EINTR, EINVAL, ENOLCK)
{
    substitute::lockf.fail(-2, error());
    mWhen = "`lockf` fails: locked by another process, not open, not open for writing, no locks available";
    mTrace = R"(
        Entered
        -T- "Going to lock file"
        lockf(5, F_TLOCK, 0) = -2 ERROR
    )" + loggedFailure(R"(-E- "Failed to lock file, error: %s" )", "OQCFileLockFailedEx 330");
    mStays = "the call does not wait; the file is not locked";
    run([] { OsLockFile(5); });
}

OUTCOME_OF_ERRORS(OsUnlockFile, Succeeds, 0, 7)
{
    substitute::lockf.fail(error(), EIO);
    mWhen = "succeeds, also when the region is not locked";
    mTrace = R"(
        Entered
        lockf(5, F_ULOCK, 0) = )" +
             std::to_string(error()) + "\nLeft";
    run([] { OsUnlockFile(5); });
}

OUTCOME_OF_ERRORS(OsUnlockFile, ThrowsWhenLockfFails, EACCES, EAGAIN, EBADF, EDEADLK, EINTR, EINVAL, ENOLCK)
{
    substitute::lockf.fail(-2, error());
    mWhen = "`lockf` fails";
    mTrace = R"(
        Entered
        lockf(5, F_ULOCK, 0) = -2 ERROR
    )" + loggedFailure(R"(-E- "Failed to unlock file, error: %s" )", "OQCFileUnLockFailedEx 331");
    mStays = "the locks";
    run([] { OsUnlockFile(5); });
}

struct Status {
    OQEFileLockStatus mStatus = static_cast<OQEFileLockStatus>(0x55);
    Status() { watchObject("status", &mStatus, sizeof mStatus); }
};

OUTCOME(OsFileLockStatus, IsUnlockedWhenNoOtherProcessHoldsALock)
{
    Status lStatus;
    substitute::lockf.fail(0, EIO);
    mWhen = "no other process holds a lock on the region, even if this process does";
    mTrace = R"(
        Entered
        -T- "Going to find locking status"
        lockf(5, F_TEST, 0) = 0
        status changes
        Left
    )";
    mTells = "the status is `OQFLS_Unlocked`";
    mStays = "the locks";
    run([&] { OsFileLockStatus(5, lStatus.mStatus); });
    EXPECT_EQ(2, lStatus.mStatus);
}

OUTCOME_OF_ERRORS(OsFileLockStatus, IsLockedWhenLockfFails, EACCES, EAGAIN, EBADF, EDEADLK, EINTR, EINVAL, ENOLCK)
{
    Status lStatus;
    substitute::lockf.fail(-2, error());
    mWhen = "`lockf` fails: locked by another process, not open, anything else";
    mTrace = R"(
        Entered
        -T- "Going to find locking status"
        lockf(5, F_TEST, 0) = -2 ERROR
        status changes
        Left
    )";
    mTells = "the status is `OQFLS_Locked`; `errno` is as `lockf` set it";
    mStays = "the locks";
    int lErrno = 0;
    run([&] {
        OsFileLockStatus(5, lStatus.mStatus);
        lErrno = errno;
    });
    EXPECT_EQ(error(), lErrno);
    EXPECT_EQ(4, lStatus.mStatus);
}

OUTCOME(OsFileLockStatus, EndsTheProcessWhenLockfReturnsAPositiveNumber)
{
    Status lStatus;
    substitute::lockf.fail(1, 0);
    mWhen = "`lockf` returns a positive number";
    mTrace = R"(
        Entered
        -T- "Going to find locking status"
        lockf(5, F_TEST, 0) = 1
        -H- "Assertion [ %s ] failed\n" "false"
        exit status 1
    )";
    mStays = "the status";
    runInChild([&] { OsFileLockStatus(5, lStatus.mStatus); });
}

OUTCOME(OsKill, Succeeds)
{
    substitute::kill.fail(0, EIO);
    int lResult = -1;
    mWhen = "succeeds";
    mTrace = "kill(process 4711, 15) = 0";
    mTells = "the result is 0";
    run([&] { lResult = OsKill(4711, SIGTERM); });
    EXPECT_EQ(0, lResult);
}

OUTCOME_OF_ERRORS(OsKill, ReturnsTheResultOfKillWhenItFails, EINVAL, EPERM, ESRCH)
{
    substitute::kill.fail(-7, error());
    int lResult = 0;
    int lErrno = 0;
    mWhen = "`kill` fails";
    mTrace = "kill(process 4711, 15) = -7 ERROR";
    mTells = "returns -1; `errno` is as `kill` set it";
    run([&] {
        lResult = OsKill(4711, SIGTERM);
        lErrno = errno;
    });
    EXPECT_EQ(error(), lErrno);
    EXPECT_EQ(-7, lResult);
}

}  // namespace
