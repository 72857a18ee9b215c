// A tool whose standard error is for failures alone: information lines, which are written by default, are switched off.

#include <OQCompanionSettings.h>
#include <OQLinux.h>
#include <signal.h>
#include <stdio.h>

static void ignore(int) {}

int main()
{
    SetLogLevels(OQLL_Halt | OQLL_Error);
    RegisterSignalHandler(SIGTERM, ignore);  // its "-I-" line is not written
    try {
        OsLockFile(-1);  // its "-E-" line is
    } catch (const OQCFileLockFailedEx& acrFailure) {
        printf("no lock: %s\n", acrFailure.what());
    }
    return 0;
}
