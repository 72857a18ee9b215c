// jobserver: runs programs for its clients, several at a time.
//
//   jobserver DIRECTORY                          the server, until SIGTERM or SIGINT
//   jobserver DIRECTORY "PROGRAM [ARGUMENT]..."  a client, which prints how the program has ended
//
// A request is a line in the FIFO: the client's process id and the command. The answer goes into a mailbox that the
// client has made, so a slow or dead client delays one worker only. Jobs of a killed server run on.

#include <OQGuards.h>
#include <err.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <deque>
#include <system_error>
#include <vector>

const unsigned int cWorkers = 4;
const key_t cFirstKey = 0x4a000000, cLargestId = 0x400000;  // a mailbox has the first key plus a process id
const unsigned int cMailboxSize = 2 * PIPE_BUF;             // an answer may repeat a word of the request
constexpr std::chrono::milliseconds cStep(50);              // how often each wait tests whether this process ends

static std::atomic<bool> sEnds(false);
static void requestEnd(int) { sEnds = true; }

/// The requests that wait for a worker. Each client waits for its answer, so there is at most one for each client.
struct Queue {
    void put(const std::string& acrLine)
    {
        const OQCMutexLock lLock(mMutex);
        mLines.push_back(acrLine);
        mAdded.signal();
    }
    bool take(std::string& arLine)
    {
        OQCMutexLock lLock(mMutex);
        while (!sEnds && !mAdded.waitFor(lLock, cStep, [this] { return !mLines.empty(); })) {
        }
        if (!mLines.empty()) {
            arLine = mLines.front();
            mLines.pop_front();
        }
        return !sEnds;
    }
    OQCMutex mMutex;
    OQCCondition mAdded;
    std::deque<std::string> mLines;
};

static std::string run(char** apWords)
{
    try {
        OQCProcess lChild(apWords[0], apWords, environ, OQAE_Kill);
        while (!sEnds && !lChild.waitFor(cStep)) {
        }
        lChild.kill();  // does nothing if the child has ended
        const int lStatus = lChild.wait();
        return lStatus < 0 ? "ended by signal " + std::to_string(-lStatus) : "exit status " + std::to_string(lStatus);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        return std::string("cannot run ") + apWords[0] + ": " + acrFailure.what();
    }
}

static void work(Queue& arQueue)
{
    for (std::string lLine; arQueue.take(lLine);) {
        std::vector<char*> lWords;
        for (char *lpRest, *lpWord = &lLine[0]; NULL != (lpWord = strtok_r(lpWord, " ", &lpRest)); lpWord = NULL) {
            lWords.push_back(lpWord);
        }
        const long lClient = lWords.size() < 2 || PIPE_BUF <= lLine.size() ? 0 : strtol(lWords[0], NULL, 10);
        lWords.push_back(NULL);
        if (lClient <= 0 || cLargestId < lClient) {
            continue;  // an empty line, or one that is no request
        }
        try {
            const std::string lAnswer = run(&lWords[1]);
            // A killed client leaves its mailbox. This process opens it as the server, so that the destructor removes it.
            const bool lIsDead = OsKill(int(lClient), 0) < 0 && ESRCH == errno;
            OQCMailbox lMailbox(cFirstKey + int(lClient), cMailboxSize, lIsDead ? OQCM_Server : OQCM_Client);
            if (!lMailbox.write(lAnswer.data(), unsigned(lAnswer.size()))) {
                warnx("client %ld has ended, or does not read", lClient);
            }
        } catch (const OQCException& acrFailure) {  // concerns one client only
            warnx("no answer for client %ld: %s", lClient, acrFailure.what());
        }
    }
}

static int serve(int aLockFile, const OQCString& acrFifo)
{
    const OQCFileLock lLock(aLockFile);
    Queue lQueue;
    std::vector<OQCThread> lWorkers;
    while (lWorkers.size() < cWorkers) {  // if a thread cannot start, the destructors end and join the others
        lWorkers.emplace_back([&] { work(lQueue); }, [] { sEnds = true; });
    }
    int lUnused = -1;
    OsNamedPipeCreate(acrFifo, lUnused);  // accepts the FIFO of a killed server
    OQCPipe lPipe(acrFifo, OQFM_Mode1, OQPS_NonBlocking);
    warnx("ready");
    char lBytes[PIPE_BUF];
    for (std::string lText; !sEnds; ClibSleepMS(10)) {
        lText.append(lBytes, lPipe.read(lBytes, sizeof lBytes));
        for (size_t lEnd; std::string::npos != (lEnd = lText.find('\n')); lText.erase(0, lEnd + 1)) {
            lQueue.put(lText.substr(0, lEnd));
        }
        lText.resize(std::min<size_t>(lText.size(), PIPE_BUF));  // too long for a request
    }
    OsNamedPipeDestroy(acrFifo, lUnused);  // while the lock excludes a new server
    return 0;
}

/// \return the process that holds the lock; 0 if no server is running
static pid_t serverOf(int aLockFile)
{
    struct flock lLock = {F_WRLCK, SEEK_SET, 0, 0, 0};
    return fcntl(aLockFile, F_GETLK, &lLock) < 0 || F_UNLCK == lLock.l_type ? 0 : lLock.l_pid;
}

static int request(int aLockFile, pid_t aServer, const OQCString& acrFifo, const std::string& acrCommand)
{
    // The first line feed ends a line that another program has left incomplete.
    const std::string lLine = "\n" + std::to_string(getpid()) + " " + acrCommand + "\n";
    OQCMailbox lMailbox(cFirstKey + getpid(), cMailboxSize, OQCM_Server);
    OQCPipe lPipe(acrFifo, OQFM_Mode1, OQPS_NonBlocking);  // a FIFO that no process has open forgets its data
    errno = EMSGSIZE;                                      // longer requests of two clients could mix
    if (PIPE_BUF < lLine.size() || lPipe.write(lLine.data(), unsigned(lLine.size())) < lLine.size()) {
        throw std::system_error(errno, std::generic_category(), "cannot send the request");
    }
    char lAnswer[cMailboxSize];
    unsigned int lLength = 0;
    for (bool lIsOver = false; !lMailbox.receive(lAnswer, sizeof lAnswer, lLength, cStep);) {
        if (lIsOver) {
            throw std::runtime_error("no answer: the server or this client ends");
        }
        lIsOver = sEnds || serverOf(aLockFile) != aServer;  // the last answer may arrive meanwhile
    }
    printf("%.*s\n", static_cast<int>(lLength), lAnswer);
    return "exit status 0" == std::string(lAnswer, lLength) ? 0 : 1;
}

int main(int aCount, char** apWords)
{
    if (2 != aCount && (3 != aCount || NULL != strchr("\n", apWords[2][strspn(apWords[2], " ")]))) {  // no program
        errx(2, "usage: jobserver DIRECTORY [\"PROGRAM [ARGUMENT]...\"]");
    }
    RegisterSignalHandler(SIGTERM, requestEnd);
    RegisterSignalHandler(SIGINT, requestEnd);
    try {
        // The descriptor stays open until the process ends: closing it would release the lock.
        const int lFile = ClibOpen((std::string(apWords[1]) + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
        if (lFile < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot open the lock file");
        }
        const OQCString lFifo((std::string(apWords[1]) + "/fifo").c_str());
        const pid_t lServer = serverOf(lFile);
        if ((2 == aCount) == (0 != lServer)) {
            throw std::runtime_error(2 == aCount ? "another server is running" : "no server is running");
        }
        return 2 == aCount ? serve(lFile, lFifo) : request(lFile, lServer, lFifo, apWords[2]);
    } catch (const OQCException& acrFailure) {
        warnx("%s", acrFailure.what());
    } catch (const std::exception& acrFailure) {
        warnx("%s", acrFailure.what());
    }
    return 1;
}
