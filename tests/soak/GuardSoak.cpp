// Starts programs that cannot be run while signals arrive. Each start throws in this process, with the right text. No
// copy of this process runs past a start, no handler runs in a child, and nothing is left behind.
//
//   GuardSoak STARTS

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

#include <atomic>

#include "OQCompanionSettings.h"
#include "OQGuards.h"
#include "Soak.h"

namespace
{

pid_t sHost;
std::atomic<unsigned long> sSignals(0);

/// In memory that this process and its children share.
struct Copies {
    std::atomic<unsigned long> mPast;      // starts that a process other than the host has passed
    std::atomic<unsigned long> mHandlers;  // handlers that ran in another process
};
Copies* sCopies;

void countSignal(int)
{
    ++sSignals;
    sCopies->mHandlers += sHost == getpid() ? 0 : 1;
}

/// \return whether the host alone gets the exception, and with the right text
bool isRefused(const char* acProgram, const char* acText)
{
    static char sName[] = "program";
    static char* const sArguments[] = {sName, NULL};
    static char* const sEnvironment[] = {NULL};
    bool lIsRefused = false;
    try {
        OQCProcess(acProgram, sArguments, sEnvironment, OQAE_Kill);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        lIsRefused = 345 == acrFailure.code() && 0 == strcmp(acText, acrFailure.what());
    }
    sCopies->mPast += sHost == getpid() ? 0 : 1;
    return lIsRefused;
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(2 == aCount);
    const unsigned long lStarts = strtoul(apArguments[1], NULL, 10);
    sHost = getpid();
    CHECK(0 == setpgid(0, 0) || getpgrp() == getpid());  // fails for a session leader, which already has its own group
    void* const lpShared = mmap(NULL, sizeof(Copies), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    CHECK(MAP_FAILED != lpShared);
    sCopies = static_cast<Copies*>(lpShared);
    const OQCPipe lNull(open("/dev/null", O_WRONLY | O_CLOEXEC));
    SetLogDescriptor(lNull.get());
    RegisterSignalHandler(SIGURG, countSignal);
    const double lStart = secondsNow();

    unsigned long lRefused = 0;
    {
        std::atomic<bool> lStop(false);
        const OQCThread lStorm(
            [&] {
                while (!lStop) {
                    CHECK(0 == kill(0, SIGURG));  // the process group: the host and its children
                    usleep(50);
                }
            },
            [&] { lStop = true; });
        for (unsigned long lNumber = 0; lNumber < lStarts; ++lNumber) {
            lRefused += 0 == lNumber % 2 ? isRefused("/nonexistent/program", "No such file or directory")
                                         : isRefused("/dev/null", "Permission denied");
        }
    }
    printf(
        "guard: %lu failed starts in %.1f s: %lu thrown in the parent with the right text; %lu signals, %lu of them "
        "handled in a child; %lu second copies\n",
        lStarts, secondsNow() - lStart, lRefused, sSignals.load(), sCopies->mHandlers.load(), sCopies->mPast.load());
    CHECK(lStarts == lRefused);
    CHECK(lStarts / 10 < sSignals);
    CHECK(0 == sCopies->mPast && 0 == sCopies->mHandlers);
    CHECK(-1 == waitpid(-1, NULL, WNOHANG) && ECHILD == errno);
    return 0;
}
