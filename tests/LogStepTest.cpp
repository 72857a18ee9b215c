// The companion's log while its calls are interrupted: at each instruction, by a signal handler that logs, by a fork
// whose child logs, and by a cancellation of the thread. The handler, the child and the cleanup of the thread write
// a line, and the interrupted call then does its work in each process.
//
// After a fork, both processes finish the interrupted call. A line that was not written yet therefore appears twice. It
// has the parent's process id in both processes if the call had read it before.

#include <ctype.h>
#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <future>

#include "OQCompanionSettings.h"
#include "support/Basics.h"
#include "support/Steps.h"

namespace
{

const char* const cText = "Resource temporarily unavailable";
const pid_t sTest = getpid();
bool sIsForked;  // in the trial, a forked child writes the line of the interruption
pthread_mutex_t sHeld = PTHREAD_MUTEX_INITIALIZER;

/// The message is the process id that the line must have. A copy has the id of the copied process, except after fork().
void logInterruption()
{
    PrintLogMessageWithTimeStamp(OQLL_Error, "-E-", 77, "interruption", ".//LogStepTest", "in process %d",
                                 sIsForked ? getpid() : sTest);
}
bool logALine()
{
    PrintLogMessageWithTimeStamp(OQLL_Error, "-E-", 88, "OsLockFile", ".//MiscLinux", "Failed to lock file, error: %s",
                                 cText);
    return true;
}
bool logAFilteredLine()
{
    PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", 89, "OsLockFile", ".//MiscLinux", "%s", "Entered");
    return true;
}
/// Fails as an operation does: the exception has the text of cErrnoOfTrial.
bool throwAnException()
{
    try {
        OsTrylockMutex(sHeld);
    } catch (const OQCMutexLockFailedEx& acrFailure) {
        return 335 == acrFailure.code() && 0 == strcmp("Invalid cross-device link", acrFailure.what());
    }
    return false;
}

/// A line without its time, as the process writes it.
std::string lineOf(const std::string& acrProcess, const std::string& acrCall)
{
    return " " + acrProcess + " " + std::to_string(pthread_self()) + " -E- " + acrCall;
}

/// Returns whose line it is. A line that differs in any character is torn.
LineKind kindOf(const std::string& acrLine)
{
    static std::string sForked;  // the child's line precedes the line of the interrupted call
    const std::string cTime = "0000-00-00T00:00:00.000000Z";
    const std::string cLine =
        "OsLockFile (.//MiscLinux:88) Failed to lock file, error: Resource temporarily unavailable";
    const std::string cInterruption = "interruption (.//LogStepTest:77) in process ";
    std::string lTime = acrLine.substr(0, cTime.size());
    std::replace_if(
        lTime.begin(), lTime.end(), [](unsigned char aCharacter) { return 0 != isdigit(aCharacter); }, '0');
    if (cTime != lTime) {
        return LineKind::Torn;
    }
    const std::string lRest = acrLine.substr(cTime.size());
    const std::string lProcess = lRest.substr(lRest.rfind(' ') + 1);
    if (lineOf(lProcess, cInterruption + lProcess) == lRest) {
        sForked = lProcess;
        return LineKind::OfTheInterruption;
    }
    return lineOf(std::to_string(sTest), cLine) == lRest || (sIsForked && lineOf(sForked, cLine) == lRest)
               ? LineKind::OfTheCall
               : LineKind::Torn;
}

enum class Descriptor { Open, Closed };

struct TrialCase {
    const char* mName;
    bool (*mCall)();
    unsigned int mLines;
    Descriptor mDescriptor;
    const void* mEnd;
    unsigned int mEvery;   // interrupts at each instruction, or only at each Nth
    unsigned int mFewest;  // instructions of the call
};

void PrintTo(const TrialCase& acrCase, std::ostream* apText) { *apText << acrCase.mName; }

class LogStepTest : public LeftoverTest, public ::testing::WithParamInterface<std::tuple<TrialCase, Interruption>>
{
protected:
    void SetUp() override
    {
        LeftoverTest::SetUp();
        const Descriptor lDescriptor = std::get<0>(GetParam()).mDescriptor;
        mFile = memfd_create("log", MFD_CLOEXEC);
        fcntl(mFile, F_SETFL, O_APPEND);
        SetLogDescriptor(Descriptor::Open == lDescriptor ? mFile : -1);
        sIsForked = Interruption::Fork == std::get<1>(GetParam());
        pthread_mutex_trylock(&sHeld);
        mParked = std::thread([this] { mEnd.get_future().wait(); });
    }
    void TearDown() override
    {
        mEnd.set_value();
        mParked.join();
        pthread_mutex_unlock(&sHeld);
        SetLogDescriptor(STDERR_FILENO);
        close(mFile);
        LeftoverTest::TearDown();
    }

    int mFile = -1;
    // In a process with one thread, the C library takes no locks.
    std::thread mParked;
    std::promise<void> mEnd;
};

TEST_P(LogStepTest, AnInterruptedCallDoesItsWork)
{
    const auto [lCase, lInterruption] = GetParam();
    const LogUnderTrial lLog = {mFile,       logInterruption, Descriptor::Open == lCase.mDescriptor ? 1U : 0U,
                                lCase.mCall, lCase.mLines,    lCase.mEnd,
                                kindOf};
    errno = cErrnoOfTrial;
    EXPECT_TRUE(lCase.mCall());  // before: the loader binds, the thread gets memory
    ASSERT_EQ(0, ftruncate(mFile, 0));

    const Steps lSteps = interruptAtEachInstruction(lInterruption, lLog, lCase.mEvery);
    unsigned int lTried = 0;
    for (const auto& lrOutcome : lSteps.mOutcomes) {
        printf("%s: %u of %u instructions\n", lrOutcome.first.c_str(), lrOutcome.second, lSteps.mInstructions);
        lTried += lrOutcome.second;
    }
    EXPECT_EQ(1U, lSteps.mOutcomes.size()) << lSteps.mFirstDamage;
    EXPECT_EQ(1U, lSteps.mOutcomes.count("intact"));
    EXPECT_LE(lCase.mFewest, lSteps.mInstructions);
    EXPECT_LE(lSteps.mInstructions, lTried * lCase.mEvery * 11 / 10 + lCase.mEvery);  // the clock is read twice
    EXPECT_TRUE(lSteps.mIsOwnCallIntact);
}

std::string nameOf(const ::testing::TestParamInfo<LogStepTest::ParamType>& acrInfo)
{
    static const char* const cInterruptions[] = {"Signal", "Fork", "Cancel"};
    return std::get<0>(acrInfo.param).mName + std::string(cInterruptions[static_cast<int>(std::get<1>(acrInfo.param))]);
}
// Without optimisation, and with a sanitizer, a call has several times as many instructions. With a sanitizer a fork lasts
// milliseconds.
#ifdef __OPTIMIZE__
const unsigned int cEvery = OQ_SANITIZED ? 499 : 1;
#else
const unsigned int cEvery = OQ_SANITIZED ? 499 : 7;
#endif
const void* const cThrow = reinterpret_cast<void*>(abi::__cxa_throw);
const TrialCase cCases[] = {
    {"WrittenLine", logALine, 1, Descriptor::Open, nullptr, cEvery, 1000},
    {"DroppedLine", logALine, 0, Descriptor::Closed, nullptr, cEvery, 1000},
    {"FilteredLine", logAFilteredLine, 0, Descriptor::Open, nullptr, OQ_SANITIZED ? 9 : 1, 20},
    {"Exception", throwAnException, 0, Descriptor::Open, cThrow, cEvery, 200},
    {"ExceptionWithoutLog", throwAnException, 0, Descriptor::Closed, cThrow, cEvery, 200},
    {"UnwoundStack", throwAnException, 0, Descriptor::Open, nullptr, 31 * cEvery, 5000},
};
INSTANTIATE_TEST_SUITE_P(, LogStepTest,
                         ::testing::Combine(::testing::ValuesIn(cCases),
                                            ::testing::Values(Interruption::Signal, Interruption::Fork,
                                                              Interruption::Cancel)),
                         nameOf);

}  // namespace
