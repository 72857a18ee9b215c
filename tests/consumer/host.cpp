// A host with a companion runtime of its own (examples/guide/own_companion.cpp) that links nothing and loads the layer when
// it wants it. Exits with 0 when the layer throws what this program catches; the line of the failure is for the caller to
// look at.
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
    dlclose(lpLayer);  // not before: the exception's class lives in the layer
    return lCaught ? 0 : 1;
}
