// hostctl: starts hostd, sends it requests, stops it.
//
// Exit status: 0 success, with a complete answer; 1 failure, with one line on standard error; 2 wrong arguments.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <stdexcept>

#include "Channel.h"
#include "OQCompanionSettings.h"
#include "Ownership.h"
#include "Startup.h"

namespace
{

const unsigned int cStartPatience = 5000;          // milliseconds until a daemon is ready
const unsigned int cStopPatience = 10000;          // milliseconds until a daemon has ended
constexpr std::chrono::seconds cTurnPatience(30);  // until this tool gets its turn
const unsigned int cPipePatience = 1000;           // milliseconds until there is room in the FIFO
const unsigned int cAnswerPatience = 5;            // seconds until the next message of an answer

const char* const cUsage =
    "usage: hostctl [--name NAME] [--trace] COMMAND\n"
    "  start [--log FILE]  start hostd; with --trace it also writes trace lines\n"
    "  stop                stop hostd\n"
    "  ask echo TEXT       the same text\n"
    "  ask status          uptime, requests served, threads of hostd\n"
    "  ask os              the operating system\n"
    "  ask addresses       the host's addresses\n"
    "  ask disks           the output of df\n"
    "  ask load            the load average\n"
    "  ask running NAME    whether a process of that name runs\n"
    "  ask lines N         N numbered lines\n";

/// The reason why a command failed, in one line.
struct Failure : std::runtime_error {
    explicit Failure(const std::string& acrText) : std::runtime_error(acrText) {}
};

// ---- Finding the daemon ---------------------------------------------------------------------------------------------

struct Daemon {
    int mPid;     ///< 0: no daemon is running
    bool mReady;  ///< serves requests
};

/// Finds the daemon by the lock, which the system releases when a daemon dies. The kernel reports which process holds
/// the lock. The number in the file alone is not reliable: a killed daemon may have left it, and it may now belong to
/// another process.
Daemon findDaemon(const Channel& acrChannel)
{
    const char* const lpPath = acrChannel.mLock.get();
    const OQCPipe lFile = openOwnFile(acrChannel.mLock, O_RDONLY);
    if (lFile.get() < 0) {
        if (ENOENT != errno) {
            throw Failure(std::string("cannot open ") + lpPath + ": " + systemError());
        }
        return Daemon{0, false};
    }
    struct flock lLock = {};  // from the beginning to the end
    lLock.l_type = F_WRLCK;
    char lNumber[16] = "";
    if (fcntl(lFile.get(), F_GETLK, &lLock) < 0 || pread(lFile.get(), lNumber, sizeof lNumber - 1, 0) < 0) {
        throw Failure(std::string("cannot read ") + lpPath + ": " + systemError());
    }
    if (F_UNLCK == lLock.l_type) {
        return Daemon{0, false};
    }
    if (lLock.l_pid <= 0) {
        throw Failure(std::string(lpPath) + " is locked by a process that is not visible from here");
    }
    return Daemon{lLock.l_pid, lLock.l_pid == strtol(lNumber, NULL, 10)};
}

Daemon findReadyDaemon(const Channel& acrChannel)
{
    const Daemon lDaemon = findDaemon(acrChannel);
    if (0 == lDaemon.mPid) {
        throw Failure("hostd is not running");
    }
    if (!lDaemon.mReady) {
        throw Failure("hostd, process " + std::to_string(lDaemon.mPid) + ", is starting; try again");
    }
    return lDaemon;
}

// ---- start ----------------------------------------------------------------------------------------------------------

/// Returns the path of hostd, which is in the same directory as this program.
std::string daemonPath()
{
    char lPath[4096];
    const ssize_t lLength = readlink("/proc/self/exe", lPath, sizeof lPath);
    if (lLength < 0 || sizeof lPath == static_cast<size_t>(lLength)) {
        throw Failure("cannot determine the path of this program: " + systemError());
    }
    const std::string lSelf(lPath, static_cast<size_t>(lLength));
    return lSelf.substr(0, lSelf.rfind('/')) + "/hostd";
}

OQCProcess startDaemon(const Options& acrOptions)
{
    const std::string lPath = daemonPath();
    Words lWords = {lPath, "--detach", "--name", acrOptions.mName};
    if (acrOptions.mTrace) {
        lWords.push_back("--trace");
    }
    if (!acrOptions.mLogFile.empty()) {
        lWords.push_back("--log");
        lWords.push_back(acrOptions.mLogFile);
    }
    std::vector<char*> lArguments;
    for (std::string& lrWord : lWords) {
        lArguments.push_back(&lrWord[0]);
    }
    lArguments.push_back(NULL);

    return attempt("run " + lPath, [&] { return OQCProcess(lPath.c_str(), lArguments.data(), environ, OQAE_Leave); });
}

int start(const Options& acrOptions)
{
    const Channel lChannel(privateDirectory(), acrOptions.mName);
    const Daemon lRunning = findDaemon(lChannel);
    if (0 != lRunning.mPid) {
        throw Failure("hostd is already running, process " + std::to_string(lRunning.mPid));
    }
    OQCProcess lChild = startDaemon(acrOptions);
    const int lPid = lChild.id();
    bool lReady = false;
    const bool lKnown = waitUntil(cStartPatience, [&] {
        const Daemon lNow = findDaemon(lChannel);
        lReady = lPid == lNow.mPid && lNow.mReady;
        return lReady || lChild.waitFor(std::chrono::seconds(0));
    });
    if (!lKnown) {
        lChild.kill();
        lChild.wait();
        throw Failure("hostd was not ready after 5 seconds and was ended");
    }
    if (lReady) {
        printf("hostd is running, process %d\n", lPid);
        return 0;
    }
    const int lStatus = lChild.wait();
    if (lStatus < 0) {
        throw Failure("hostd was ended by signal " + std::to_string(-lStatus) + " while it started");
    }
    return 1;  // the child has printed the reason
}

// ---- stop -----------------------------------------------------------------------------------------------------------

int stop(const Options& acrOptions)
{
    const Channel lChannel(privateDirectory(), acrOptions.mName);
    const Daemon lDaemon = findReadyDaemon(lChannel);
    if (OsKill(lDaemon.mPid, SIGTERM) < 0) {
        throw Failure("cannot signal process " + std::to_string(lDaemon.mPid) + ": " + systemError());
    }
    const bool lEnded = waitUntil(cStopPatience, [&] { return lDaemon.mPid != findDaemon(lChannel).mPid; });
    if (!lEnded) {
        throw Failure("hostd, process " + std::to_string(lDaemon.mPid) +
                      ", has not ended after 10 seconds; is it stopped?");
    }
    printf("hostd has ended\n");
    return 0;
}

// ---- ask ------------------------------------------------------------------------------------------------------------

OQCMailbox openMailbox(key_t aKey)
{
    OQCMailbox lMailbox = attempt("open hostd's mailbox", [=] { return OQCMailbox(aKey, cSegmentSize, OQCM_Client); });
    if (!isOwnSegment(lMailbox.get().shm_id)) {
        throw Failure("the mailbox belongs to another user");
    }
    return lMailbox;
}

/// Returns a token that is unique on this host: it contains this tool's process id, and each tool sends one request.
std::string makeToken()
{
    long lSeconds;
    unsigned short lMilliseconds;
    ClibGetTime(lSeconds, lMilliseconds);
    char lToken[64];
    ClibSprintf(lToken, "%d-%lx-%x", getpid(), static_cast<unsigned long>(lSeconds) & 0xffffffff, lMilliseconds);
    return lToken;
}

/// Writes the request with one call: it is written completely or not at all.
void sendRequest(const Channel& acrChannel, const std::string& acrRequest)
{
    OQCPipe lPipe = attempt(std::string("open ") + acrChannel.mPipe.get(),
                            [&] { return OQCPipe(acrChannel.mPipe, OQFM_Mode1, OQPS_NonBlocking); });
    checkOwnFifo(lPipe.get(), acrChannel.mPipe);
    const unsigned int lSize = static_cast<unsigned int>(acrRequest.size());
    if (!waitUntil(cPipePatience, [&] { return lSize == lPipe.write(acrRequest.data(), lSize); })) {
        throw Failure("hostd takes no requests: its FIFO is full; is it stopped?");
    }
}

/// Waits for the next message. Fails when the daemon that received the request ends. \return bytes of the message
unsigned int receive(const Channel& acrChannel, const Daemon& acrDaemon, OQCMailbox& arMailbox,
                     unsigned char (&arMessage)[cMessageSize])
{
    for (unsigned int lSecond = 0; lSecond < cAnswerPatience; ++lSecond) {
        unsigned int lLength = 0;
        if (arMailbox.receive(arMessage, sizeof arMessage, lLength, std::chrono::seconds(1))) {
            return lLength;
        }
        if (findDaemon(acrChannel).mPid != acrDaemon.mPid) {
            throw Failure("hostd ended before the answer was whole");
        }
    }
    throw Failure("hostd, process " + std::to_string(acrDaemon.mPid) +
                  ", has not answered for 5 seconds; is it stopped?");
}

/// Collects the messages of one answer. The caller prints the answer only when it is complete, so a slow reader of the
/// output delays neither the daemon nor the next tool.
std::string receiveAnswer(const Channel& acrChannel, const Daemon& acrDaemon, OQCMailbox& arMailbox,
                          const std::string& acrToken)
{
    std::string lAnswer;
    uint32_t lSequence = 0;
    for (;;) {
        unsigned char lMessage[cMessageSize];
        const unsigned int lLength = receive(acrChannel, acrDaemon, arMailbox, lMessage);
        AnswerHeader lHeader;
        ClibMemcpy(&lHeader, lMessage, sizeof lHeader);
        if (lLength < sizeof lHeader || 0 != strncmp(lHeader.mToken, acrToken.c_str(), sizeof lHeader.mToken)) {
            continue;  // for a tool that has ended
        }
        const std::string lText(lMessage + sizeof lHeader, lMessage + lLength);
        if (AK_Error == lHeader.mKind) {
            throw Failure("hostd answered: " + lText);
        }
        if (lSequence++ != lHeader.mSequence || (AK_More != lHeader.mKind && AK_End != lHeader.mKind)) {
            throw Failure("the answer is damaged");
        }
        lAnswer += lText;
        if (AK_End == lHeader.mKind) {
            return lAnswer;
        }
    }
}

/// Sends a request while it is this tool's turn. \return the answer
std::string answerTo(const Options& acrOptions, const std::string& acrVerb, const std::string& acrArgument)
{
    const Channel lChannel(privateDirectory(), acrOptions.mName);
    findReadyDaemon(lChannel);
    const LockedFile lTurn =
        lockOwnFile(lChannel.mTurn, O_RDWR, cTurnPatience, "other tools have used hostd for 30 seconds");
    const Daemon lDaemon = findReadyDaemon(lChannel);  // meanwhile another daemon may have started, or none may run
    OQCMailbox lMailbox = openMailbox(lChannel.mKey);
    const std::string lToken = makeToken();
    const std::string lBlank = acrArgument.empty() ? "" : " ";
    // receiveAnswer() discards messages with other tokens, such as those for a tool that died.
    sendRequest(lChannel, cRequestStart + lToken + " " + acrVerb + lBlank + acrArgument + cRequestEnd);
    return receiveAnswer(lChannel, lDaemon, lMailbox, lToken);
}

int ask(const Options& acrOptions, const std::string& acrVerb, const std::string& acrArgument)
{
    const std::string lAnswer = answerTo(acrOptions, acrVerb, acrArgument);
    if (lAnswer.size() != fwrite(lAnswer.data(), 1, lAnswer.size(), stdout)) {
        throw Failure("cannot print the answer: " + systemError());
    }
    return 0;
}

// ---- Words ----------------------------------------------------------------------------------------------------------

int usage()
{
    fputs(cUsage, stdout);
    return 0;
}

int wrongWords(const std::string& acrReason)
{
    fprintf(stderr, "hostctl: %s\n%s", acrReason.c_str(), cUsage);
    return 2;
}

/// \return a description of what is wrong with the words after "ask"; empty if nothing is wrong
std::string checkQuestion(const Words& acrWords)
{
    bool lTakesArgument = false;
    if (acrWords.empty()) {
        return "ask needs a question";
    }
    if (!findVerb(acrWords[0], lTakesArgument)) {
        return "cannot ask " + acrWords[0];
    }
    if (acrWords.size() != (lTakesArgument ? 2u : 1u)) {
        return "ask " + acrWords[0] + (lTakesArgument ? " takes one argument" : " takes no argument");
    }
    const std::string lArgument = lTakesArgument ? acrWords[1] : "";
    if (const char* const lpReason = refusalOf(acrWords[0], lArgument)) {
        return lpReason;
    }
    // Start, token, blank, verb, blank, argument, end.
    if (cRequestSize < 4 + cTokenLength + acrWords[0].size() + lArgument.size()) {
        return "the argument is too long";
    }
    return "";
}

int run(Words& arWords)
{
    Options lOptions;
    std::string lWrong = takeOptions(arWords, lOptions);
    if (!lWrong.empty()) {
        return wrongWords(lWrong);
    }
    if (lOptions.mHelp) {
        return usage();
    }
    if (arWords.empty()) {
        return wrongWords("no command");
    }
    const std::string lCommand = arWords.front();
    arWords.erase(arWords.begin());
    lWrong = takeOptions(arWords, lOptions);  // options may also follow the command
    if (lWrong.empty() && lOptions.mHelp) {
        return usage();
    }
    const bool lStart = "start" == lCommand;
    if (lWrong.empty() && (lOptions.mDetach || (!lStart && !lOptions.mLogFile.empty()))) {
        lWrong = "this option is not valid for " + lCommand;
    }
    if (lWrong.empty()) {
        if ("ask" == lCommand) {
            lWrong = checkQuestion(arWords);
        } else if (!lStart && "stop" != lCommand) {
            lWrong = "unknown command " + lCommand;
        } else if (!arWords.empty()) {
            lWrong = lCommand + " takes no further arguments";
        }
    }
    if (!lWrong.empty()) {
        return wrongWords(lWrong);
    }
    // This program prints one line for a failure. The layer's own log lines appear only with --trace.
    SetLogLevels(lOptions.mTrace ? OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace : 0);
    return lStart               ? start(lOptions)
           : "stop" == lCommand ? stop(lOptions)
                                : ask(lOptions, arWords[0], arWords.size() < 2 ? "" : arWords[1]);
}

int fail(const char* acReason)
{
    fprintf(stderr, "hostctl: %s\n", acReason);
    return 1;
}

}  // namespace

int main(int aCount, char** apWords)
{
    keepStandardDescriptors();
    Words lWords(apWords + 1, apWords + aCount);
    try {
        const int lStatus = run(lWords);
        // The flush detects a full disk.
        if (0 == lStatus && 0 != fflush(stdout)) {
            return fail(("cannot print: " + systemError()).c_str());
        }
        return lStatus;
    } catch (const OQCException& acrFailure) {
        return fail(acrFailure.what());
    } catch (const std::exception& acrFailure) {
        return fail(acrFailure.what());
    }
}
