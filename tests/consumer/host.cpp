// A host with its own companion runtime (examples/guide/own_companion.cpp). It links no library and loads the layer
// with dlopen(). Exits with status 0 if it catches the expected exception of the layer. The calling script checks the
// log line of that failure.
//
//   host PATH-OF-libOQLinux.so
#include <OQLinux.h>
#include <dlfcn.h>
#include <stdio.h>

int main(int, char** apWords)
{
    void* const lpLayer = dlopen(apWords[1], RTLD_NOW | RTLD_LOCAL);
    void* const lpFunction = NULL == lpLayer ? NULL : dlsym(lpLayer, "_Z12OsUnlockFilei");
    if (NULL == lpFunction) {
        fprintf(stderr, "host: %s\n", dlerror());
        return 1;
    }
    bool lCaught = false;
    try {
        reinterpret_cast<void (*)(int)>(lpFunction)(-1);
    } catch (const OQCFileUnLockFailedEx& acrFailure) {
        lCaught = 331 == acrFailure.code();
    }
    dlclose(lpLayer);  // after the handler, because the class of the exception is in the layer
    return lCaught ? 0 : 1;
}
