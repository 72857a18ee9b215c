#include "Services.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "Ownership.h"

namespace
{

/// The result file of isProcessRunning(). All programs of the host share it.
const char* const cRunningFile = "/tmp/.vyrsyscmd";
constexpr std::chrono::seconds cRunningPatience(2);  // shorter than a tool waits

/// Returns the lines that a fixed command prints. The layer does not report a failed command, so empty output counts as
/// a failure.
OQCList<OQCString> outputOf(const std::string& acrCommand)
{
    OQCList<OQCString> lLines;
    OsExecute(acrCommand.c_str(), lLines);
    if (0 == lLines.size()) {
        throw std::runtime_error("no output of: " + acrCommand);
    }
    return lLines;
}

void appendOutput(const char* acCommand, AnswerWriter& arAnswer)
{
    for (const OQCString& acrLine : outputOf(acCommand)) {
        arAnswer.append(std::string(acrLine.get()) + "\n");
    }
}

void appendAddresses(AnswerWriter& arAnswer)
{
    OQCList<unsigned int> lAddresses;
    OsGetAllIpAddresses(lAddresses);
    for (const unsigned int lAddress : lAddresses) {
        char lText[17];  // four numbers of up to three digits, three dots, line feed, terminating zero
        ClibSprintf(lText, "%u.%u.%u.%u\n", lAddress >> 24, lAddress >> 16 & 255, lAddress >> 8 & 255, lAddress & 255);
        arAnswer.append(lText);
    }
}

std::string operatingSystem()
{
    OQEOperatingSystem lFamily;
    OQCString lRelease("");
    OsGetOsName(lFamily, lRelease);
    return std::string(OQOS_Linux == lFamily ? "Linux" : "unknown") + ": " + lRelease.get() + "\n";
}

/// All callers of the host share one result file, so this function locks the file during use. It does not open another
/// user's file, because that user could determine the result.
std::string processState(const std::string& acrName)
{
    const LockedFile lTurn = lockOwnFile(cRunningFile, O_RDWR | O_CREAT, cRunningPatience, "/tmp/.vyrsyscmd is in use");
    if (1 == isProcessRunning(acrName.c_str())) {
        return acrName + " is running\n";
    }
    // The result is also 0 when pgrep cannot be run or the disk is full. The pattern "." matches every process, and
    // at least this one runs. If the result is 0 even for this pattern, the check itself failed.
    if (1 != isProcessRunning(".")) {
        throw std::runtime_error(std::string("pgrep cannot be run, or cannot write ") + cRunningFile);
    }
    return acrName + " is not running\n";
}

}  // namespace

Services::Services() : mServed(0)
{
    unsigned short lMilliseconds;
    ClibGetTime(mStarted, lMilliseconds);
}

void Services::answer(const Request& acrRequest, AnswerWriter& arAnswer)
{
    if ("echo" == acrRequest.mVerb) {
        arAnswer.append(acrRequest.mArgument + "\n");
    } else if ("status" == acrRequest.mVerb) {
        arAnswer.append(status());
    } else if ("os" == acrRequest.mVerb) {
        arAnswer.append(operatingSystem());
    } else if ("addresses" == acrRequest.mVerb) {
        appendAddresses(arAnswer);
    } else if ("disks" == acrRequest.mVerb) {
        appendOutput("df -P", arAnswer);
    } else if ("load" == acrRequest.mVerb) {
        appendOutput("cat /proc/loadavg", arAnswer);
    } else if ("running" == acrRequest.mVerb) {
        arAnswer.append(processState(acrRequest.mArgument));
    } else if ("lines" == acrRequest.mVerb) {
        const unsigned long lCount = std::stoul(acrRequest.mArgument);
        for (unsigned long lLine = 1; lLine <= lCount; ++lLine) {
            arAnswer.append("line " + std::to_string(lLine) + "\n");
        }
    }
}

std::string Services::status() const
{
    long lNow;
    unsigned short lMilliseconds;
    ClibGetTime(lNow, lMilliseconds);
    const int lThreads = outputOf("ls /proc/" + std::to_string(getpid()) + "/task").size();
    return "uptime " + std::to_string(lNow - mStarted) + " s\nrequests served " + std::to_string(mServed) +
           "\nthreads " + std::to_string(lThreads) + "\n";
}
