// A thread gets its work and returns its result through its argument. No exception may leave its routine.

#include <OQLinux.h>
#include <stdio.h>

struct Work {
    unsigned int mUpTo;
    unsigned int mSum;
    bool mDone;  // stays false if the routine fails
};

static void* add(void* apWork)
{
    Work& lrWork = *static_cast<Work*>(apWork);
    try {
        OQCList<unsigned int> lNumbers;
        for (unsigned int lNumber = 1; lNumber <= lrWork.mUpTo; ++lNumber) {
            lNumbers.append(lNumber);  // may throw OQCNoMemoryEx
        }
        for (const unsigned int lNumber : lNumbers) {
            lrWork.mSum += lNumber;
        }
        lrWork.mDone = true;
    } catch (const OQCException& acrFailure) {  // not catch (...), which would also catch a cancellation
        fprintf(stderr, "adding failed: %s\n", acrFailure.what());
    }
    return NULL;
}

int main()
{
    Work lWork = {100, 0, false};
    try {
        unsigned long lThread = 0;
        OsStartThread(lThread, &lWork, add);
        OsWaitForExit(lThread);  // exactly once per thread; its results may be read afterwards
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "%s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
    printf("%s: %u\n", lWork.mDone ? "the sum" : "no sum", lWork.mSum);
    return lWork.mDone ? 0 : 1;
}
