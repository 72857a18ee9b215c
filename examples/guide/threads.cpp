// A thread takes its work, and hands back its result, through its argument. No exception may leave its routine.

#include <OQLinux.h>
#include <stdio.h>

struct Work {
    unsigned int mUpTo;
    unsigned int mSum;
    bool mDone;  // stays false when the routine failed
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
    } catch (const OQCException& acrFailure) {  // not catch (...): that would also catch a request to end
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
        OsWaitForExit(lThread);  // once for every thread; what it wrote may be read from here on
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "%s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
    printf("%s: %u\n", lWork.mDone ? "the sum" : "no sum", lWork.mSum);
    return lWork.mDone ? 0 : 1;
}
