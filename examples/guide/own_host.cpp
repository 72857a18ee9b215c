// A host that contains its own companion runtime (own_companion.cpp) and links only libOQLinux.so.

#include <OQLinux.h>
#include <stdio.h>

int main()
{
    setvbuf(stdout, NULL, _IONBF, 0);  // unbuffered, so that output and log lines appear in order
    try {
        OsWaitForActivity(-2, 0);
    } catch (const OQCPipeWaitFailedEx& acrFailure) {
        printf("thrown by the layer, caught by the host: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    OQCList<OQCString> lLines;
    OsExecute("printf 'a line\\n'", lLines);
    for (const OQCString& acrLine : lLines) {
        printf("read by the host's own wrappers: %s\n", acrLine.get());
    }
    OQShmDesc lNoKey = {0, 64, -1, NULL};
    OsSharedMemoryOpen(lNoKey, OQCM_Server);  // a broken precondition: ends the process with status 1
    return 0;
}
