// A host that carries its own companion runtime (own_companion.cpp) and is linked with libOQLinux.so alone.

#include <OQLinux.h>
#include <stdio.h>

int main()
{
    setvbuf(stdout, NULL, _IONBF, 0);  // this program's lines and those of its log, in their order
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
