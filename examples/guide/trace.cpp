// Two waits on the same pipe with the trace enabled. The first finds no data; the second finds data.

#include <OQCompanionSettings.h>
#include <OQLinux.h>
#include <stdio.h>
#include <unistd.h>

int main()
{
    SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace);
    int lEnds[2];
    if (pipe(lEnds) < 0) {
        perror("trace: pipe");
        return 1;
    }
    try {
        OsNamedPipeWaitForActivity(lEnds[0], 0);
    } catch (const OQCTimeOutEx&) {
        unsigned int lWritten = 0;
        OsNamedPipeWrite(lEnds[1], reinterpret_cast<const unsigned char*>("data"), 4, lWritten);
    }
    try {
        OsNamedPipeWaitForActivity(lEnds[0], 0);
        OsLockFile(lEnds[0]);  // fails: only a descriptor open for writing can be locked
    } catch (const OQCFileLockFailedEx& acrFailure) {
        printf("thrown: %s (%u)\n", acrFailure.what(), acrFailure.code());
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "trace: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
    return 0;
}
