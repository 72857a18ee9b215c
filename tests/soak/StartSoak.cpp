// Starts programs from eight threads while signals arrive, descriptors run out and threads are cancelled. Every third
// program cannot be run. Afterwards no zombie and no additional descriptor exists. No buffered output was written
// twice. No handler ran in a child that shares its parent's memory. ProcessCreate never returned in the parent before
// the throwing child had ended.
//
//   StartSoak STARTS

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>

#include "OQCompanionSettings.h"
#include "Soak.h"

namespace
{

const unsigned int cThreads = 8;
const int cCannotRun = 127;
const unsigned int cBeforeHandling = 0;
const unsigned int cHandling = 1;
const unsigned int cHandled = 2;

pid_t sHost;
unsigned long sStarts;
std::atomic<bool> sStop(false);
std::atomic<unsigned long> sNext(0);
std::atomic<unsigned long> sRan(0);
std::atomic<unsigned long> sThrown(0);
std::atomic<unsigned long> sRefused(0);
std::atomic<unsigned long> sCancelled(0);
std::atomic<unsigned long> sHandledInHost(0);
std::atomic<unsigned long> sHandledInChild(0);  // in a child that shares this memory; others have a copy

void countSignal(int) { ++(sHost == getpid() ? sHandledInHost : sHandledInChild); }

/// The throwing children write their error messages into this file.
FILE* sReports;

/// The progress of each thread's throwing child, in memory that parent and child share.
std::atomic<unsigned int>* sProgress;

/// The handler that the guide recommends, with an output that is a cancellation point.
[[noreturn]] void leave(std::atomic<unsigned int>& arProgress, const OQCException& acrFailure)
{
    arProgress = cHandling;
    fprintf(sReports, "cannot start: %s\n", acrFailure.what());
    sched_yield();
    arProgress = cHandled;
    _exit(cCannotRun);
}

void start(unsigned int aThread, bool aRuns)
{
    static char sName[] = "true";
    static char* const sArguments[] = {sName, NULL};
    static char* const sEnvironment[] = {NULL};
    std::atomic<unsigned int>& lrProgress = sProgress[aThread];
    lrProgress = cBeforeHandling;
    int lChild = -1;
    try {
        lChild = ProcessCreate(aRuns ? "/bin/true" : "/nonexistent/program", sArguments, sEnvironment);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        if (sHost != getpid()) {
            leave(lrProgress, acrFailure);
        }
        ++sRefused;  // the system cannot create another process at the moment
        return;
    }
    CHECK(aRuns || cHandled == lrProgress);
    int lState;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &lState);
    int lStatus = -1;
    while (waitpid(lChild, &lStatus, 0) < 0) {
        CHECK(EINTR == errno);
    }
    pthread_setcancelstate(lState, NULL);
    CHECK(WIFEXITED(lStatus));
    CHECK((aRuns ? 0 : cCannotRun) == WEXITSTATUS(lStatus));
    ++(aRuns ? sRan : sThrown);
}

void* startCancelled(void* apThread)
{
    pthread_cancel(pthread_self());
    start(*static_cast<unsigned int*>(apThread), 0 == sNext % 2);
    pthread_testcancel();
    return NULL;
}

void* startMany(void* apThread)
{
    unsigned int lThread = *static_cast<unsigned int*>(apThread);
    unsigned long lNumber;
    while ((lNumber = sNext++) < sStarts) {
        if (0 != lNumber % 10) {
            start(lThread, 0 != lNumber % 3);
        } else {
            pthread_t lCancelled;
            void* lpResult = NULL;
            CHECK(0 == pthread_create(&lCancelled, NULL, startCancelled, &lThread));
            CHECK(0 == pthread_join(lCancelled, &lpResult));
            CHECK(PTHREAD_CANCELED == lpResult);
            ++sCancelled;
        }
    }
    return NULL;
}

/// Repeatedly opens all remaining descriptors and closes them again.
void* useUpDescriptors(void*)
{
    while (!sStop) {
        int lTaken[64];
        int lCount = 0;
        while (lCount < 64 && 0 <= (lTaken[lCount] = fcntl(0, F_DUPFD_CLOEXEC, 0))) {
            ++lCount;
        }
        usleep(500);
        while (0 < lCount) {
            close(lTaken[--lCount]);
        }
        usleep(100);
    }
    return NULL;
}

/// Signals the process group, which is the host and its children. A program that has started ignores this signal.
void* sendSignals(void*)
{
    while (!sStop) {
        CHECK(0 == kill(0, SIGURG));
        usleep(50);
    }
    return NULL;
}

unsigned int openDescriptors()
{
    unsigned int lOpen = 0;
    for (int lDescriptor = 0; lDescriptor < 1024; ++lDescriptor) {
        lOpen += 0 <= fcntl(lDescriptor, F_GETFD) ? 1 : 0;
    }
    return lOpen;
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(2 == aCount);
    sStarts = strtoul(apArguments[1], NULL, 10);
    sHost = getpid();
    CHECK(0 == setpgid(0, 0) || getpgrp() == getpid());  // fails for a session leader, which already has its own group
    sProgress = static_cast<std::atomic<unsigned int>*>(
        mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    CHECK(MAP_FAILED != static_cast<void*>(sProgress));

    // The buffer is written once at the end. A child that runs exit handlers would write it once more.
    FILE* const lpBuffered = tmpfile();
    CHECK(NULL != lpBuffered);
    fputs("once", lpBuffered);
    const int lNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    SetLogDescriptor(lNull);
    sReports = fdopen(lNull, "w");
    CHECK(NULL != sReports);
    setvbuf(sReports, NULL, _IONBF, 0);
    const rlimit lFew = {64, 64};
    CHECK(0 == setrlimit(RLIMIT_NOFILE, &lFew));
    RegisterSignalHandler(SIGURG, countSignal);
    const unsigned int lOpen = openDescriptors();
    const double lStart = secondsNow();

    pthread_t lDisturbers[2];
    CHECK(0 == pthread_create(&lDisturbers[0], NULL, useUpDescriptors, NULL));
    CHECK(0 == pthread_create(&lDisturbers[1], NULL, sendSignals, NULL));
    unsigned long lThreads[cThreads];
    unsigned int lNumbers[cThreads];
    for (unsigned int lNumber = 0; lNumber < cThreads; ++lNumber) {
        lNumbers[lNumber] = lNumber;
        OsStartThread(lThreads[lNumber], &lNumbers[lNumber], startMany);
    }
    for (const unsigned long lThread : lThreads) {
        OsWaitForExit(lThread);
    }
    sStop = true;
    for (const pthread_t lThread : lDisturbers) {
        CHECK(0 == pthread_join(lThread, NULL));
    }

    printf(
        "start: %lu starts in %.1f s: %lu ran, %lu thrown, %lu refused; %lu in cancelled threads; %lu signals "
        "handled, %lu of them in a child that shares memory\n",
        sStarts, secondsNow() - lStart, sRan.load(), sThrown.load(), sRefused.load(), sCancelled.load(),
        sHandledInHost.load(), sHandledInChild.load());
    CHECK(sStarts == sRan + sThrown + sRefused);
    CHECK(0 < sRan && 0 < sThrown && 0 < sCancelled && 0 < sHandledInHost);
    CHECK(0 == sHandledInChild);
    CHECK(-1 == waitpid(-1, NULL, WNOHANG) && ECHILD == errno);
    CHECK(lOpen == openDescriptors());
    CHECK(0 == lseek(fileno(lpBuffered), 0, SEEK_END));
    fclose(lpBuffered);
    return 0;
}
