// Kills the job server of the examples at random moments: while it starts, while requests run, and while it ends. After
// each kill:
//
// - its clients end by themselves, and so do its jobs, which this process inherits;
// - no process, segment or lock is left, but the FIFO may be left;
// - the next server starts, runs a job and ends on request. Afterwards only the lock file is left.
//
//   JobserverSoak PROGRAM KILLS

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>

#include <functional>
#include <random>
#include <set>
#include <string>

#include "Soak.h"

namespace
{

const int cPatience = 60;  // seconds
const unsigned int cClients = 8;
const unsigned int cLongestStart = 8000;    // microseconds until a kill while the server starts
const unsigned int cLongestDelay = 120000;  // microseconds until another kill, or from the request to end to the kill

const key_t cFirstKey = 0x4a000000;  // as in the job server: the key of a client's mailbox, less its process id

char sFolder[] = "/tmp/oqsoak-XXXXXX";
pid_t sMain;
std::string sProgram;
std::set<pid_t> sClients;  // of the current round

std::set<std::string> files()
{
    std::set<std::string> lFiles;
    DIR* const lpFolder = opendir(sFolder);
    CHECK(NULL != lpFolder);
    while (const dirent* const lpEntry = readdir(lpFolder)) {
        if ('.' != lpEntry->d_name[0]) {
            lFiles.insert(lpEntry->d_name);
        }
    }
    closedir(lpFolder);
    return lFiles;
}

/// Starts the server, or with a command a client. Its output goes to the descriptor.
pid_t start(const char* acCommand, int aOutput)
{
    const pid_t lPid = fork();
    if (0 == lPid) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(aOutput, STDOUT_FILENO);
        dup2(aOutput, STDERR_FILENO);
        execl(sProgram.c_str(), "jobserver", sFolder, acCommand, NULL);
        _exit(126);
    }
    CHECK(0 < lPid);
    return lPid;
}

/// Waits for the end of a child, or of any child for -1. \return its id; -1 if there is no child
pid_t reap(pid_t aPid, int& arStatus)
{
    const double lStart = secondsNow();
    for (;;) {
        const pid_t lPid = waitpid(aPid, &arStatus, WNOHANG);
        if (0 != lPid) {
            return lPid;
        }
        CHECK(secondsNow() - lStart < cPatience);
        usleep(200);
    }
}

class Server
{
public:
    Server()
    {
        CHECK(0 == pipe2(mEnds, O_CLOEXEC));
        mPid = start(NULL, mEnds[1]);
        close(mEnds[1]);
    }
    ~Server() { close(mEnds[0]); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void waitUntilReady()
    {
        for (std::string lOutput; std::string::npos == lOutput.find("ready\n");) {
            char lBytes[4096];
            pollfd lPoll = {mEnds[0], POLLIN, 0};
            CHECK(1 == poll(&lPoll, 1, cPatience * 1000));
            const ssize_t lRead = read(mEnds[0], lBytes, sizeof lBytes);
            if (lRead <= 0) {
                fprintf(stderr, "%s", lOutput.c_str());
            }
            CHECK(0 < lRead);
            lOutput.append(lBytes, static_cast<size_t>(lRead));
        }
    }
    void kill(int aSignal) { CHECK(0 == ::kill(mPid, aSignal)); }
    int end()
    {
        int lStatus = 0;
        CHECK(mPid == reap(mPid, lStatus));
        return lStatus;
    }

private:
    int mEnds[2];
    pid_t mPid;
};

void checkNoMailbox()
{
    for (const pid_t lClient : sClients) {
        CHECK(shmget(cFirstKey + lClient, 0, 0) < 0 && ENOENT == errno);
    }
    sClients.clear();
}

void checkNoLock()
{
    const int lFile = open((std::string(sFolder) + "/lock").c_str(), O_RDWR | O_CLOEXEC);
    if (0 <= lFile) {  // a server that was killed early has not made the file
        CHECK(0 == lockf(lFile, F_TEST, 0));
        close(lFile);
    }
}

class Trial
{
public:
    explicit Trial(unsigned int aKills) : mNull(open("/dev/null", O_RDWR | O_CLOEXEC)), mRandom(1)
    {
        while (mKills[0] + mKills[1] + mKills[2] < aKills) {
            kill(mRounds++ % 3);
            checkNoLock();
            const std::set<std::string> lFiles = files();
            mFifos += static_cast<unsigned int>(lFiles.count("fifo"));
            CHECK(lFiles.size() == lFiles.count("fifo") + lFiles.count("lock"));
            startAgain();
            checkNoLock();
            CHECK(std::set<std::string>{"lock"} == files());
        }
        close(mNull);
    }

    void print(double aSeconds) const
    {
        printf(
            "jobserver: %u kills in %.1f s: %u while starting, %u while requests ran, %u while ending; %u answers "
            "arrived, %u did not; %u jobs outlived their server, %u FIFOs were left; every next start worked, "
            "nothing left\n",
            mKills[0] + mKills[1] + mKills[2], aSeconds, mKills[0], mKills[1], mKills[2], mAnswered, mUnanswered, mJobs,
            mFifos);
    }

private:
    unsigned int below(unsigned int aEnd) { return static_cast<unsigned int>(mRandom() % aEnd); }

    /// Kills a server while it starts (0), while requests run (1), or while it ends (2).
    void kill(unsigned int aPhase)
    {
        Server lServer;
        if (0 < aPhase) {
            lServer.waitUntilReady();
        }
        for (unsigned int lClient = 0; lClient < cClients; ++lClient) {
            sClients.insert(start(0 == lClient % 2 ? "/bin/true" : "/bin/sleep 0.05", mNull));
        }
        std::set<pid_t> lRunning = sClients;
        usleep(below(0 == aPhase ? cLongestStart : cLongestDelay));
        if (2 == aPhase) {
            lServer.kill(SIGTERM);
            usleep(below(cLongestDelay));
        }
        lServer.kill(SIGKILL);
        const int lStatus = lServer.end();
        const bool lIsKilled = WIFSIGNALED(lStatus) && SIGKILL == WTERMSIG(lStatus);
        CHECK(lIsKilled || (2 == aPhase && 0 == lStatus));  // it may have ended before
        mKills[aPhase] += lIsKilled ? 1 : 0;
        int lEnd = 0;
        for (pid_t lPid; 0 < (lPid = reap(-1, lEnd));) {
            if (0 == lRunning.erase(lPid)) {
                CHECK(0 == lEnd || (2 == aPhase && SIGKILL == WTERMSIG(lEnd)));  // a server that ends kills its jobs
                ++mJobs;
            } else {
                CHECK(WIFEXITED(lEnd) && WEXITSTATUS(lEnd) <= 1);
                ++(0 == lEnd ? mAnswered : mUnanswered);
            }
        }
        CHECK(ECHILD == errno && lRunning.empty());
        checkNoMailbox();
    }

    void startAgain()
    {
        Server lServer;
        lServer.waitUntilReady();
        const pid_t lClient = start("/bin/true", mNull);
        sClients.insert(lClient);
        int lStatus = -1;
        CHECK(lClient == reap(lClient, lStatus) && 0 == lStatus);
        lServer.kill(SIGTERM);
        CHECK(0 == lServer.end());
        CHECK(-1 == waitpid(-1, NULL, WNOHANG) && ECHILD == errno);
        checkNoMailbox();
    }

    const int mNull;
    std::mt19937 mRandom;
    unsigned int mRounds = 0, mKills[3] = {0, 0, 0}, mAnswered = 0, mUnanswered = 0, mJobs = 0, mFifos = 0;
};

/// Removes the folder and, after a failed check, the mailboxes. The children end together with this process.
void removeAll()
{
    if (getpid() == sMain) {
        for (const pid_t lClient : sClients) {
            shmctl(shmget(cFirstKey + lClient, 0, 0), IPC_RMID, NULL);
        }
        unlink((std::string(sFolder) + "/lock").c_str());
        unlink((std::string(sFolder) + "/fifo").c_str());
        rmdir(sFolder);
    }
}

}  // namespace

int main(int aCount, char** apArguments)
{
    CHECK(3 == aCount);
    sProgram = apArguments[1];
    sMain = getpid();
    CHECK(0 == prctl(PR_SET_CHILD_SUBREAPER, 1));
    CHECK(NULL != mkdtemp(sFolder));
    atexit(removeAll);
    const double lStart = secondsNow();
    const Trial lTrial(static_cast<unsigned int>(atoi(apArguments[2])));
    lTrial.print(secondsNow() - lStart);
    return 0;
}
