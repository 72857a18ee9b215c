// A tool that writes only failures to standard error. It disables information lines, which are enabled by default.

#include <OQCompanionSettings.h>
#include <OQLinux.h>
#include <signal.h>
#include <stdio.h>

static void ignore(int) {}

int main()
{
    SetLogLevels(OQLL_Halt | OQLL_Error);
    RegisterSignalHandler(SIGTERM, ignore);  // writes no "-I-" line
    try {
        OsLockFile(-1);  // writes an "-E-" line
    } catch (const OQCFileLockFailedEx& acrFailure) {
        printf("no lock: %s\n", acrFailure.what());
    }
    return 0;
}
