// How the wait for a descriptor ends.

#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Outcome.h"

namespace
{

const Family cFamily(
    "Descriptor wait", ".//MiscLinux", "The descriptor keeps its data: the wait reads nothing.",
    {{"-E- Error waiting on Named Pipe: %u, Error : %s",
      "the descriptor is not open, or the system does not accept the wait"},
     {"-I- The select() call was interrupted.. Ignoring",
      "a signal arrived; the wait continues for the remaining time"},
     {"-T- Data is available now.", "the descriptor is readable: data, the end of the data or a connection to accept"},
     {"-T- No data within %u seconds.", "the time is over; a throw follows"},
     {"-T- Entered", "the operation begins"},
     {"-T- Left",
      "the operation returns; after a line that reports a failure or the end of the time: a throw follows"}});

std::string timeOut(const std::string& acrSeconds)
{
    return "0\n -T- \"No data within %u seconds.\" \"" + acrSeconds +
           "\"\n Left\n throws OQCTimeOutEx 323 \"Timed out\"";
}

std::string failedWait(const std::string& acrDescriptor, const std::string& acrError)
{
    return loggedFailure("-E- \"Error waiting on Named Pipe: %u, Error : %s\" \"" + acrDescriptor + "\", ",
                         "OQCPipeWaitFailedEx 332", "Left\n", acrError);
}

OUTCOME(OsWaitForActivity, ReturnsWhenThereIsDataToRead)
{
    substitute::select.fail(1, 0);
    mWhen = "data, the end of the data or a connection to accept";
    mTrace = R"(
        Entered
        select(38, local 37, null, null, 2147483647.000000) = 1
        -T- "Data is available now."
        Left
    )";
    run([] { OsWaitForActivity(37, INT_MAX); });
}

OUTCOME_OF_ERRORS(OsWaitForActivity, GoesOnAfterASignal, EINTR, 514)
{
    bool lIsInterrupted = false;
    bool lIsLocal = true;
    substitute::select.instead([&](int, fd_set* apSet, fd_set*, fd_set*, timeval* apTime) {
        lIsInterrupted = !lIsInterrupted;
        lIsLocal = lIsLocal && 0 == strcmp("local", place(apTime).mText);
        FD_ZERO(apSet);
        *apTime = {4, 500000};
        errno = error();
        return lIsInterrupted ? -1 : 1;
    });
    mWhen = "signals interrupt `select` (`EINTR`, 514)";
    mTrace = R"(
        Entered
        select(38, local 37, null, null, 9.000000) = -1 ERROR
        -I- "The select() call was interrupted.. Ignoring"
        select(38, local, null, null, 4.500000) = 1
        -T- "Data is available now."
        Left
    )";
    mTells = "the wait continues for the remaining time; it ends as another row says";
    mStays = "the set and the time are passed again as `select` left them";
    run([] { OsWaitForActivity(37, 9); });
    EXPECT_TRUE(lIsLocal);
    for (const int lResult : {0, -1}) {
        clearEvents();
        lIsInterrupted = false;
        substitute::select.instead([&](int, fd_set*, fd_set*, fd_set*, timeval*) {
            lIsInterrupted = !lIsInterrupted;
            errno = lIsInterrupted ? error() : ENOMEM;
            return lIsInterrupted ? -1 : lResult;
        });
        mTrace = R"(
            Entered
            select(38, local 37, null, null, 9.000000) = -1 ERROR
            -I- "The select() call was interrupted.. Ignoring"
            select(38, local 37, null, null, 9.000000) = )" +
                 (0 == lResult ? timeOut("9") : "-1 ENOMEM\n" + failedWait("37", "ENOMEM"));
        run([] { OsWaitForActivity(37, 9); });
    }
}

OUTCOME_OF_ERRORS(OsWaitForActivity, ThrowsWhenSelectFails, EBADF, EINVAL, ENOMEM, EAGAIN, 513)
{
    substitute::select.fail(-2, error());
    mWhen =
        "`select` fails in another way (descriptor closed but within the kernel's table, descriptor below -1, no "
        "memory)";
    mTrace = R"(
        Entered
        select(-1, local, null, null, 1.000000) = -2 ERROR
    )" + failedWait("4294967294", "ERROR");
    mStays = "the descriptor";
    run([] { OsWaitForActivity(-2, 1); });
}

OUTCOME(OsWaitForActivity, ThrowsATimeOutWhenTheTimeIsOver)
{
    substitute::select.fail(0, EINTR);
    mWhen =
        "nothing to read within the seconds (0: at once); also descriptor -1, and a closed descriptor beyond the "
        "kernel's table";
    mTrace = "Entered\nselect(1024, local 1023, null, null, " + std::to_string(static_cast<time_t>(UINT_MAX)) +
             ".000000) = " + timeOut("4294967295");
    mStays = "the descriptor";
    run([] { OsWaitForActivity(1023, UINT_MAX); });
}

OUTCOME(OsWaitForActivity, EndsTheProcessWhenTheDescriptorIsBeyondTheSet)
{
#ifndef OQ_FORTIFIED
    GTEST_SKIP() << "the C library does not check the number in this build";
#endif
    mWhen = "descriptor above 1023: a mistake of the caller";
    mTrace = "Entered\nkilled by signal 6";
    mTells = "in builds that check the number (optimised, with `_FORTIFY_SOURCE`), the C library ends the process";
    runInChild([] {
        const rlimit lNoCore = {0, 0};
        setrlimit(RLIMIT_CORE, &lNoCore);
        dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        OsWaitForActivity(1024, 0);
    });
}

}  // namespace
