// Starts and joins threads, and creates children and waits for them. Compares the resources of the process before and
// after: the numbers of descriptors, threads and children must be equal, and the memory may grow by at most 1024 kB.
//
//   ChurnSoak THREADS CHILDREN

#include <dirent.h>
#include <errno.h>

#include "OQCompanionSettings.h"
#include "Soak.h"

namespace
{

const long cGrowth = 1024;  // kB of resident memory; leaks of 11 bytes per thread or 53 bytes per child exceed it

struct Holdings {
    int mDescriptors;
    int mThreads;
    long mResident;  // kB
};

int entriesOf(const char* acDirectory)
{
    DIR* const lpDirectory = opendir(acDirectory);
    CHECK(NULL != lpDirectory);
    int lEntries = -2;  // "." and ".."
    while (NULL != readdir(lpDirectory)) {
        ++lEntries;
    }
    closedir(lpDirectory);
    return lEntries;
}

Holdings holdings()
{
    // Excludes the descriptor that reads the directory.
    Holdings lHoldings = {entriesOf("/proc/self/fd") - 1, entriesOf("/proc/self/task"), 0};
    FILE* const lpStatus = fopen("/proc/self/status", "r");
    CHECK(NULL != lpStatus);
    char lLine[256];
    while (NULL != fgets(lLine, sizeof lLine, lpStatus)) {
        sscanf(lLine, "VmRSS: %ld kB", &lHoldings.mResident);
    }
    fclose(lpStatus);
    CHECK(0 < lHoldings.mResident);
    return lHoldings;
}

void* count(void* apCounter)
{
    ++*static_cast<unsigned long*>(apCounter);
    return NULL;
}

void threads(unsigned long aCount)
{
    unsigned long lRan = 0;  // the joins order the accesses
    for (unsigned long lNumber = 0; lNumber < aCount; ++lNumber) {
        unsigned long lThread;
        OsStartThread(lThread, &lRan, count);
        OsWaitForExit(lThread);
    }
    CHECK(aCount == lRan);
}

/// Every tenth child cannot run its program. It catches the exception and ends with another status.
void children(unsigned long aCount)
{
    const pid_t lParent = getpid();
    char lName[] = "true";
    char* const lArguments[] = {lName, NULL};
    char* const lEnvironment[] = {NULL};
    for (unsigned long lNumber = 0; lNumber < aCount; ++lNumber) {
        const bool lRuns = 0 != lNumber % 10;
        int lChild = 0;
        try {
            lChild = ProcessCreate(lRuns ? "/bin/true" : "/nonexistent/program", lArguments, lEnvironment);
        } catch (const OQCProcessCreationFailedEx&) {
            CHECK(getpid() != lParent);
            _exit(77);
        }
        CHECK((lRuns ? 0 : 77) == ProcessWait(lChild, 0));
    }
}

void churn(const char* acWhat, void (*apRun)(unsigned long), unsigned long aCount)
{
    apRun(aCount / 20 + 20);  // a first run, which makes all allocations that occur only once
    const Holdings lBefore = holdings();
    const double lStart = secondsNow();
    apRun(aCount);
    const double lSeconds = secondsNow() - lStart;
    for (int lTries = 1000; 1 != entriesOf("/proc/self/task") && 0 < lTries; --lTries) {
        usleep(1000);  // the system removes a thread from /proc shortly after its join
    }
    const Holdings lAfter = holdings();
    printf("churn: %lu %s in %.1f s, descriptors %d before and %d after, threads %d and %d, memory %ld and %ld kB\n",
           aCount, acWhat, lSeconds, lBefore.mDescriptors, lAfter.mDescriptors, lBefore.mThreads, lAfter.mThreads,
           lBefore.mResident, lAfter.mResident);
    CHECK(lBefore.mDescriptors == lAfter.mDescriptors);
    CHECK(1 == lAfter.mThreads);
    CHECK(lAfter.mResident - lBefore.mResident <= cGrowth);
    CHECK(-1 == waitpid(-1, NULL, WNOHANG) && ECHILD == errno);
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(3 == aCount);
    SetLogLevels(OQLL_Halt);  // otherwise every child that cannot run its program logs an error
    churn("threads", threads, strtoul(apArguments[1], NULL, 10));
    churn("children", children, strtoul(apArguments[2], NULL, 10));
    return 0;
}
