// hostctl: starts hostd, sends it requests, stops it.
//
// Exit status: 0 success, with a complete answer; 1 failure, with one line on standard error; 2 wrong arguments.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "Channel.h"
#include "LockedFile.h"
#include "OQCompanionSettings.h"
#include "Ownership.h"
#include "Startup.h"

namespace
{

const unsigned int cStartPatience = 5000;  // milliseconds until a daemon is ready
const unsigned int cStopPatience = 10000;  // milliseconds until a daemon has ended
const unsigned int cTurnPatience = 30000;  // milliseconds until this tool gets its turn
const unsigned int cPipePatience = 1000;   // milliseconds until there is room in the FIFO
const unsigned int cAnswerPatience = 5;    // seconds until the next message of an answer

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
    const int lFile = openOwnFile(acrChannel.mLock, O_RDONLY);
    if (lFile < 0) {
        if (ENOENT != errno) {
            throw Failure(std::string("cannot open ") + lpPath + ": " + systemError());
        }
        return Daemon{0, false};
    }
    struct flock lLock = {};  // from the beginning to the end
    lLock.l_type = F_WRLCK;
    char lNumber[16] = "";
    const bool lRead = 0 == fcntl(lFile, F_GETLK, &lLock) && 0 <= pread(lFile, lNumber, sizeof lNumber - 1, 0);
    const std::string lError = systemError();
    ClibClose(lFile);
    if (!lRead) {
        throw Failure(std::string("cannot read ") + lpPath + ": " + lError);
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

int createDaemon(const Options& acrOptions)
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

    const pid_t lSelf = getpid();
    try {
        return ProcessCreate(lPath.c_str(), lArguments.data(), environ);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        if (getpid() == lSelf) {
            throw Failure(std::string("cannot make a process: ") + acrFailure.what());
        }
        // This is the child, a copy of this program. It only prints the reason: nothing else may happen twice.
        fprintf(stderr, "hostctl: cannot run %s: %s\n", lPath.c_str(), acrFailure.what());
        _exit(127);
    }
}

int start(const Options& acrOptions)
{
    const Channel lChannel(privateDirectory(), acrOptions.mName);
    const Daemon lRunning = findDaemon(lChannel);
    if (0 != lRunning.mPid) {
        throw Failure("hostd is already running, process " + std::to_string(lRunning.mPid));
    }
    const int lChild = createDaemon(acrOptions);
    bool lReady = false;
    int lStatus = 0;
    bool lEnded = false;
    const bool lKnown = waitUntil(cStartPatience, [&] {
        const Daemon lNow = findDaemon(lChannel);
        lReady = lChild == lNow.mPid && lNow.mReady;
        // The layer offers only an unlimited wait for a child. This call polls.
        lEnded = !lReady && lChild == waitpid(lChild, &lStatus, WNOHANG);
        return lReady || lEnded;
    });
    if (!lKnown) {
        OsKill(lChild, SIGKILL);
        ProcessWait(lChild, 0);
        throw Failure("hostd was not ready after 5 seconds and was ended");
    }
    if (lEnded) {
        if (WIFSIGNALED(lStatus)) {
            throw Failure("hostd was ended by signal " + std::to_string(WTERMSIG(lStatus)) + " while it started");
        }
        return 1;  // the child has printed the reason
    }
    printf("hostd is running, process %d\n", lChild);
    return 0;
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

/// The client side of the mailbox.
class Mailbox
{
public:
    explicit Mailbox(key_t aKey) : mSegment()
    {
        mSegment.shm_key = aKey;
        mSegment.shm_size = cSegmentSize;
        try {
            OsSharedMemoryOpen(mSegment, OQCM_Client);
        } catch (const OQCException& acrFailure) {
            throw Failure(std::string("cannot open hostd's mailbox: ") + acrFailure.what());
        }
        if (!isOwnSegment(mSegment.shm_id)) {
            close();
            throw Failure("the mailbox belongs to another user");
        }
    }
    ~Mailbox() { close(); }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    /// \return whether a message arrived within a second
    bool wait() const
    {
        try {
            OsSharedMemoryWaitForActivity(mSegment, 1);
            return true;
        } catch (const OQCTimeOutEx&) {
            return false;
        }
    }

    /// Takes the message out of the mailbox. \return false if there is no message, or if it is too short
    bool read(AnswerHeader& arHeader, std::string& arText)
    {
        unsigned char lMessage[cMessageSize];
        unsigned int lLength = 0;
        try {
            OsSharedMemoryRead(mSegment, lMessage, sizeof lMessage, lLength);
        } catch (const OQCTryAgainEx&) {
            return false;
        }
        if (lLength < sizeof arHeader) {
            return false;
        }
        ClibMemcpy(&arHeader, lMessage, sizeof arHeader);
        arText.assign(reinterpret_cast<const char*>(lMessage + sizeof arHeader), lLength - sizeof arHeader);
        return true;
    }

private:
    void close()
    {
        try {
            OsSharedMemoryClose(mSegment, OQCM_Client);
        } catch (const OQCException&) {
            // Ignored: the process ends soon, which detaches the segment.
        }
    }

    OQShmDesc mSegment;
};

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
    int lPipe = -1;  // keeps this value if the FIFO cannot be opened
    OsNamedPipeOpen(lPipe, acrChannel.mPipe, OQFM_Mode1, OQPS_NonBlocking, OQCM_Client);
    if (lPipe < 0) {
        throw Failure(std::string("cannot open ") + acrChannel.mPipe.get() + ": " + systemError());
    }
    checkOwnFifo(lPipe, acrChannel.mPipe);
    const bool lSent = waitUntil(cPipePatience, [&] {
        unsigned int lDone = 0;  // keeps this value if the FIFO has no room
        OsNamedPipeWrite(lPipe, reinterpret_cast<const unsigned char*>(acrRequest.data()),
                         static_cast<unsigned int>(acrRequest.size()), lDone);
        return acrRequest.size() == lDone;
    });
    OsNamedPipeClose(lPipe, OQCM_Client);
    if (!lSent) {
        throw Failure("hostd takes no requests: its FIFO is full; is it stopped?");
    }
}

/// Waits for the next message. Fails when the daemon that received the request ends.
void waitForMessage(const Channel& acrChannel, const Daemon& acrDaemon, const Mailbox& acrMailbox)
{
    for (unsigned int lSecond = 0; lSecond < cAnswerPatience; ++lSecond) {
        if (acrMailbox.wait()) {
            return;
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
std::string receiveAnswer(const Channel& acrChannel, const Daemon& acrDaemon, Mailbox& arMailbox,
                          const std::string& acrToken)
{
    std::string lAnswer;
    uint32_t lSequence = 0;
    for (;;) {
        waitForMessage(acrChannel, acrDaemon, arMailbox);
        AnswerHeader lHeader;
        std::string lText;
        if (!arMailbox.read(lHeader, lText) || 0 != strncmp(lHeader.mToken, acrToken.c_str(), sizeof lHeader.mToken)) {
            continue;  // for a tool that has ended
        }
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

int ask(const Options& acrOptions, const std::string& acrVerb, const std::string& acrArgument)
{
    const Channel lChannel(privateDirectory(), acrOptions.mName);
    findReadyDaemon(lChannel);
    LockedFile lTurn(lChannel.mTurn);
    if (!waitUntil(cTurnPatience, [&] { return lTurn.tryLock(LockedFile::Refuse); })) {
        throw Failure("other tools have used hostd for 30 seconds");
    }
    const Daemon lDaemon = findReadyDaemon(lChannel);  // meanwhile another daemon may have started, or none may run
    Mailbox lMailbox(lChannel.mKey);
    const std::string lToken = makeToken();
    const std::string lBlank = acrArgument.empty() ? "" : " ";
    // receiveAnswer() discards messages with other tokens, such as those for a tool that died.
    sendRequest(lChannel, cRequestStart + lToken + " " + acrVerb + lBlank + acrArgument + cRequestEnd);
    const std::string lAnswer = receiveAnswer(lChannel, lDaemon, lMailbox, lToken);
    lTurn.release();
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
