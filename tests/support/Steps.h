/// \file
/// A trial of a log: interrupts a call at each instruction and counts what becomes of the log lines. Requires the trap
/// flag of x86. The tests and the benchmarks use it, so it requires no test framework.
#ifndef OQ_TESTS_STEPS_H
#define OQ_TESTS_STEPS_H

#include <errno.h>

#include <functional>
#include <map>
#include <string>

/// What interrupts the call. A log line is written in the signal handler, in the forked child, or while the cancelled
/// thread unwinds. The call then continues. After a fork it continues in both processes.
enum class Interruption { Signal, Fork, Cancel };

enum class LineKind { OfTheCall, OfTheInterruption, Torn };

/// The log under trial.
struct LogUnderTrial {
    int mFile;                  ///< the log file, open for reading
    void (*mLog)();             ///< logs the line of the interruption
    unsigned int mLinesOfLog;   ///< how many lines that call writes: 1, or 0 if the line must be dropped
    bool (*mCall)();            ///< the call that is interrupted; returns whether it did its work
    unsigned int mLinesOfCall;  ///< how many lines each process writes that makes the call: 0 or 1
    const void* mEnd;           ///< the instruction of the call at which the trial ends; null: at its return
    std::function<LineKind(const std::string&)> mKind;
};

/// errno before the call. The call must leave it unchanged.
const int cErrnoOfTrial = EXDEV;

/// The result of a trial.
struct Steps {
    unsigned int mInstructions = 0;  ///< how many instructions the call has executed
    /// How many copies of the process ended in each way: "intact", or the name of the damage.
    std::map<std::string, unsigned int> mOutcomes;
    std::string mFirstDamage;       ///< the instruction and the log lines of the first copy that was not intact
    bool mIsOwnCallIntact = false;  ///< the process itself, which is never interrupted, has written its line
};

/// Makes the call in single steps. Before each instruction, it makes a copy of the process. The copy is interrupted
/// there and then finishes the call. A copy inherits the locks that other threads hold. A copy that waits for a lock is
/// killed, so a deadlock at one instruction does not end the trial. Only the instruction after a system call is not
/// interrupted, because the kernel's return skips its trap.
/// \param[in] aEvery 1 to interrupt at each instruction, N for each Nth only
Steps interruptAtEachInstruction(Interruption aInterruption, const LogUnderTrial& acrLog, unsigned int aEvery = 1);

#endif
