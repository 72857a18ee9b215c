#include "Steps.h"

#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>
#include <x86intrin.h>

#include <sstream>
#include <vector>

namespace
{

const unsigned int cTrapFlag = 0x100;
#ifdef __x86_64__
const int cInstructionPointer = REG_RIP;
#else
const int cInstructionPointer = REG_EIP;
#endif

/// How a copy ended: its exit status.
enum Ending { Done, Failed, ChangedErrno, CancelledInside, Blocked, Died };
const char* const cEndings[] = {"intact",   "wrong result", "errno changed", "cancelled inside the call",
                                "deadlock", "crash"};

/// A copy of the process that was interrupted at one instruction.
struct Copy {
    size_t mInstruction;
    off_t mBegin;  // the log before and after the copy
    off_t mEnd;
    Ending mEnding;
};

// The state is static because a signal handler uses it. The handler allocates nothing: it may interrupt an allocation.
const LogUnderTrial* spLog;
Interruption sInterruption;
unsigned int sEvery;
unsigned int sInstructions;
std::vector<Copy> sCopies;
bool sIsCopy;
Ending sEnding;         // of this process
Ending sEndingOfChild;  // of its forked child

/// The kernel's clock functions, which run in this process. They start again if the clock has ticked meanwhile, as it
/// does during a copy. Each of their instructions is therefore interrupted only once. Otherwise they never return.
const ElfW(Ehdr) * const spClock = reinterpret_cast<const ElfW(Ehdr) *>(getauxval(AT_SYSINFO_EHDR));
std::vector<bool> sIsInterrupted;

off_t sizeOfLog()
{
    struct stat lInfo;
    return 0 == fstat(spLog->mFile, &lInfo) ? lInfo.st_size : -1;
}

bool waitsForALock(pid_t aPid)
{
    char lPath[32];
    char lCall[32] = "";
    snprintf(lPath, sizeof lPath, "/proc/%d/syscall", aPid);
    const int lFile = open(lPath, O_RDONLY | O_CLOEXEC);
    const ssize_t lLength = read(lFile, lCall, sizeof lCall - 1);
    close(lFile);
    return 0 < lLength && SYS_futex == atol(lCall);
}

/// Waits for the end of a process that has one thread. If it waits for a lock, nothing can release the lock.
Ending endOf(pid_t aPid)
{
    const int cPeriod = 5;
    pollfd lEnd = {static_cast<int>(syscall(SYS_pidfd_open, aPid, 0)), POLLIN, 0};
    bool lIsBlocked = false;
    int lStatus = 0;
    for (int lTime = 0; 0 == waitpid(aPid, &lStatus, WNOHANG); lTime += cPeriod) {
        if (0 == poll(&lEnd, 1, cPeriod) && (waitsForALock(aPid) || 10000 < lTime)) {
            lIsBlocked = true;
            kill(aPid, SIGKILL);
        }
    }
    close(lEnd.fd);
    return lIsBlocked ? Blocked : WIFEXITED(lStatus) ? static_cast<Ending>(WEXITSTATUS(lStatus)) : Died;
}

/// A log must not throw, and certainly not while a stack is unwound.
void logOrFail()
{
    try {
        spLog->mLog();
    } catch (...) {
        sEnding = Done == sEnding ? Failed : sEnding;
    }
}

/// Interrupts this process, which is a copy. errno must survive the log line.
void interrupt()
{
    switch (sInterruption) {
        case Interruption::Signal:
            spLog->mLog();
            break;
        case Interruption::Fork: {
            const int lErrno = errno;
            const pid_t lChild = fork();
            if (0 == lChild) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                errno = lErrno;
                spLog->mLog();
                break;
            }
            sEndingOfChild = endOf(lChild);
            errno = lErrno;
            break;
        }
        case Interruption::Cancel:
            pthread_cancel(pthread_self());
            break;
    }
}

void onStep(int, siginfo_t*, void* apContext)
{
    const int lErrno = errno;
    greg_t* const lpRegisters = static_cast<ucontext_t*>(apContext)->uc_mcontext.gregs;
    const size_t lInstruction = static_cast<size_t>(lpRegisters[cInstructionPointer]);
    if (reinterpret_cast<size_t>(spLog->mEnd) == lInstruction) {
        lpRegisters[REG_EFL] &= ~static_cast<greg_t>(cTrapFlag);
        return;
    }
    const size_t lClockOffset = lInstruction - reinterpret_cast<size_t>(spClock);
    bool lIsTried = 0 == sInstructions++ % sEvery && sCopies.size() < sCopies.capacity();
    if (lClockOffset < sIsInterrupted.size()) {
        lIsTried = lIsTried && !sIsInterrupted[lClockOffset];
        sIsInterrupted[lClockOffset] = true;
    }
    if (lIsTried) {
        const off_t lBegin = sizeOfLog();
        const pid_t lCopy = _Fork();  // unlike fork(), takes no lock, which the interrupted call could hold
        if (0 == lCopy) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            sIsCopy = true;
            lpRegisters[REG_EFL] &= ~static_cast<greg_t>(cTrapFlag);
            errno = lErrno;
            interrupt();
            return;
        }
        const Ending lEnding = endOf(lCopy);
        sCopies.push_back(Copy{lInstruction, lBegin, sizeOfLog(), lEnding});
    }
    errno = lErrno;
}

/// Ends a copy, when the call has returned or when a cancellation unwinds the stack.
class EndOfCopy
{
public:
    ~EndOfCopy()
    {
        if (sIsCopy) {
            if (Interruption::Cancel == sInterruption) {
                logOrFail();
            }
            _exit(Done != sEnding ? sEnding : sEndingOfChild);
        }
    }
};

void makeTheCall()
{
    const EndOfCopy lEnd;
    bool (*volatile const lpCall)() = spLog->mCall;
    sEnding = CancelledInside;
    errno = cErrnoOfTrial;
    __writeeflags(__readeflags() | cTrapFlag);
    const bool lIsDone = lpCall();
    __writeeflags(__readeflags() & ~cTrapFlag);
    sEnding = !lIsDone ? Failed : cErrnoOfTrial != errno ? ChangedErrno : Done;
    pthread_testcancel();
}

std::string readLog(int aFile, off_t aBegin, off_t aEnd)
{
    std::string lText(static_cast<size_t>(aEnd - aBegin), '\0');
    const ssize_t lLength = pread(aFile, &lText[0], lText.size(), aBegin);
    lText.resize(static_cast<size_t>(lLength < 0 ? 0 : lLength));
    return lText;
}

/// Returns how a part of the log differs from the expected lines.
const char* damageOf(const std::string& acrText, const LogUnderTrial& acrLog, unsigned int aLinesOfLog,
                     unsigned int aLinesOfCall)
{
    std::map<LineKind, unsigned int> lCounts;
    std::istringstream lLines(acrText);
    for (std::string lLine; std::getline(lLines, lLine);) {
        ++lCounts[lLines.eof() ? LineKind::Torn : acrLog.mKind(lLine)];  // the end of the text: no line feed
    }
    const unsigned int lOfLog = lCounts[LineKind::OfTheInterruption];
    const unsigned int lOfCall = lCounts[LineKind::OfTheCall];
    return 0 != lCounts[LineKind::Torn]                       ? "torn line"
           : lOfLog < aLinesOfLog || lOfCall < aLinesOfCall   ? "lost line"
           : lOfLog != aLinesOfLog || lOfCall != aLinesOfCall ? "doubled line"
                                                              : cEndings[Done];
}

}  // namespace

Steps interruptAtEachInstruction(Interruption aInterruption, const LogUnderTrial& acrLog, unsigned int aEvery)
{
    spLog = &acrLog;
    sInterruption = aInterruption;
    sEvery = aEvery;
    sInstructions = 0;
    sCopies.clear();
    sCopies.reserve(100000);
    sIsInterrupted.assign(nullptr == spClock ? 0 : spClock->e_shoff + spClock->e_shnum * spClock->e_shentsize, false);
    off_t lWritten = sizeOfLog();

    struct sigaction lAction;
    struct sigaction lOldAction;
    memset(&lAction, 0, sizeof lAction);
    lAction.sa_flags = SA_SIGINFO;
    lAction.sa_sigaction = onStep;
    sigaction(SIGTRAP, &lAction, &lOldAction);
    makeTheCall();
    sigaction(SIGTRAP, &lOldAction, nullptr);

    Steps lSteps;
    lSteps.mInstructions = sInstructions;
    std::string lOwn;  // what the process itself has written
    for (const Copy& lrCopy : sCopies) {
        lOwn += readLog(acrLog.mFile, lWritten, lrCopy.mBegin);
        lWritten = lrCopy.mEnd;
        // A process that was interrupted before the write writes the line of the call, too.
        const unsigned int lProcesses = !lOwn.empty() ? 0 : Interruption::Fork == aInterruption ? 2 : 1;
        const std::string lText = readLog(acrLog.mFile, lrCopy.mBegin, lrCopy.mEnd);
        const std::string lDamage = damageOf(lText, acrLog, acrLog.mLinesOfLog, acrLog.mLinesOfCall * lProcesses);
        const bool lIsAlive = Done == lrCopy.mEnding || CancelledInside == lrCopy.mEnding;
        const std::string lOutcome = lIsAlive && cEndings[Done] != lDamage ? lDamage : cEndings[lrCopy.mEnding];
        ++lSteps.mOutcomes[lOutcome];
        if (cEndings[Done] != lOutcome && lSteps.mFirstDamage.empty()) {
            std::ostringstream lReport;
            lReport << lOutcome << " at 0x" << std::hex << lrCopy.mInstruction << ", lines:\n" << lText;
            lSteps.mFirstDamage = lReport.str();
        }
    }
    lOwn += readLog(acrLog.mFile, lWritten, sizeOfLog());
    lSteps.mIsOwnCallIntact =
        Done == sEnding && 0 == strcmp(cEndings[Done], damageOf(lOwn, acrLog, 0, acrLog.mLinesOfCall));
    return lSteps;
}
