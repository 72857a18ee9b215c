// hostd: a small daemon that answers questions about its host.
//
// The main thread reads requests from a FIFO and puts them into a queue. One worker thread takes them out and sends the
// answers through a shared-memory mailbox. Guards own the resources and release them in reverse order, after a failed
// start and at a normal end.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>

#include "AnswerWriter.h"
#include "Channel.h"
#include "OQCompanionSettings.h"
#include "Ownership.h"
#include "RequestParser.h"
#include "RequestQueue.h"
#include "Services.h"
#include "Startup.h"

#define HOSTD_LOG(level, tag, ...) PrintLogMessageWithTimeStamp(level, tag, __LINE__, __func__, ".//hostd", __VA_ARGS__)
#define HOSTD_ERROR(...) (HOSTD_LOG(OQLL_Error, "-E-", __VA_ARGS__), countError())
#define HOSTD_INFORMATION(...) HOSTD_LOG(OQLL_Information, "-I-", __VA_ARGS__)
#define HOSTD_TRACE(...) HOSTD_LOG(OQLL_Trace, "-T-", __VA_ARGS__)

namespace
{

const unsigned int cUsualLevels = OQLL_Halt | OQLL_Error | OQLL_Information;
const unsigned int cAllLevels = cUsualLevels | OQLL_Trace;
const unsigned int cIdleSeconds = 1;  // longest delay until a requested end is noticed
constexpr std::chrono::seconds cTurnPatience(2);
const unsigned int cMostErrors = 30;  // error lines per minute

const char* const cUsage = "usage: hostd [--name NAME] [--trace] [--log FILE] [--detach]\n";

// ---- Log ------------------------------------------------------------------------------------------------------------

std::atomic<unsigned int> sErrors(0);  // error lines in the current minute

unsigned int levelsOf(const Options& acrOptions) { return acrOptions.mTrace ? cAllLevels : cUsualLevels; }

/// Limits the error lines per minute. Valid and invalid requests can arrive at any rate, and lines about them must not
/// fill the disk. The log levels also silence the layer's own lines.
void countError()
{
    if (cMostErrors == ++sErrors) {
        HOSTD_LOG(OQLL_Error, "-E-", "%u errors within a minute: no further line of this minute is logged",
                  cMostErrors);
        SetLogLevels(0);
    }
}

/// Begins a new minute when the last one is over. Called on the main thread.
void resumeLog(const Options& acrOptions)
{
    typedef std::chrono::steady_clock Clock;
    static Clock::time_point sBegin = Clock::now();
    if (std::chrono::minutes(1) <= Clock::now() - sBegin) {
        sBegin = Clock::now();
        sErrors = 0;
        SetLogLevels(levelsOf(acrOptions));
    }
}

/// Makes writes to the log and to standard error non-blocking, also for the commands that the daemon runs. A reader
/// that stalls misses lines, but the daemon can still end when requested.
void openLog(const Options& acrOptions)
{
    const int lFlags = O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    if (!acrOptions.mDetach) {  // a detached daemon closes standard error once it is ready
        // The flag belongs to the open file description, which the starting process shares, so the file is opened
        // again. Sockets are the only files that cannot be opened again.
        const int lOwn = ClibOpen("/proc/self/fd/2", lFlags, 0);
        if (0 <= lOwn) {
            dup2(lOwn, STDERR_FILENO);
            ClibClose(lOwn);
        } else if (ENXIO == errno) {
            fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
        }
    }
    if (!acrOptions.mLogFile.empty()) {
        const int lLog = ClibOpen(acrOptions.mLogFile.c_str(), lFlags | O_CREAT, 0640);
        if (lLog < 0) {
            throw std::runtime_error("cannot open " + acrOptions.mLogFile + ": " + systemError());
        }
        SetLogDescriptor(lLog);
        SetLogLevels(cUsualLevels);
    }
    if (acrOptions.mTrace) {
        SetLogLevels(cAllLevels);
    }
}

// ---- Signals --------------------------------------------------------------------------------------------------------

volatile sig_atomic_t sEndRequested = 0;

void requestEnd(int) { sEndRequested = 1; }

/// Handler for signals that must not end the daemon. The signals keep their default effect on the commands that the
/// daemon runs: a new program inherits ignored signals but not handlers.
void takeNote(int) {}

// ---- What the daemon owns -------------------------------------------------------------------------------------------

/// The lock that excludes a second daemon of this name, and the files of the name. The process that holds the lock on the
/// named file owns all of them.
class Files
{
public:
    explicit Files(const Channel& acrChannel) : mChannel(acrChannel), mLock(lock())
    {
        // The file of a killed daemon still contains that daemon's process id.
        if (ftruncate(descriptor(), 0) < 0) {
            throw std::runtime_error(std::string("cannot empty ") + mChannel.mLock.get() + ": " + systemError());
        }
    }

    /// Removes the files. Removes the lock file while it is locked: a process that opened it earlier finds, once it gets
    /// the lock, that the name is gone. If a cleanup program has removed the lock file, a second daemon may have started
    /// with a new lock file. If no process holds the new lock, this daemon takes it.
    ~Files()
    {
        try {
            const LockedFile lLock = isNamed() ? std::move(mLock) : lock();
            for (const OQCString* lpPath : {&mChannel.mPipe, &mChannel.mTurn, &mChannel.mLock}) {
                ClibUnlink(lpPath->get());
            }
        } catch (...) {
            // The files belong to a second daemon, or the directory is gone.
        }
    }
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

    bool isNamed() const { return ::isNamed(descriptor(), mChannel.mLock); }

    /// Writes the process id into the file, which tells the tools that the daemon is ready.
    void markReady() const
    {
        char lLine[32];
        const int lLength = ClibSprintf(lLine, "%d\n", getpid());
        if (ClibWrite(descriptor(), lLine, static_cast<unsigned int>(lLength)) != lLength) {
            throw std::runtime_error(std::string("cannot write ") + mChannel.mLock.get() + ": " + systemError());
        }
    }

private:
    int descriptor() const { return mLock.mFile.get(); }

    LockedFile lock() const
    {
        return lockOwnFile(mChannel.mLock, O_RDWR | O_CREAT, std::chrono::seconds(0),
                           "another hostd of this name is running");
    }

    const Channel& mChannel;
    LockedFile mLock;
};

/// OsNamedPipeCreate() accepts any existing file. Only a FIFO can be the file that a killed daemon left.
void checkLeftPipe(const OQCString& acrPath)
{
    struct stat lInfo;
    if (0 == lstat(acrPath.get(), &lInfo) && !S_ISFIFO(lInfo.st_mode)) {
        throw std::runtime_error(std::string(acrPath.get()) + " exists and is no FIFO");
    }
}

/// Creates and opens the FIFO for requests.
OQCPipe openPipe(const OQCString& acrPath)
{
    int lUnused = -1;
    attempt(std::string("make ") + acrPath.get(), [&] { OsNamedPipeCreate(acrPath, lUnused); });
    OQCPipe lPipe =
        attempt(std::string("open ") + acrPath.get(), [&] { return OQCPipe(acrPath, OQFM_Mode1, OQPS_NonBlocking); });
    checkOwnFifo(lPipe.get(), acrPath);
    return lPipe;
}

/// Creates the segment for answers. Tools of a killed daemon may still have its segment open, so this daemon takes its
/// turn, too.
OQCMailbox openMailbox(const Channel& acrChannel)
{
    const LockedFile lTurn = lockOwnFile(acrChannel.mTurn, O_RDWR | O_CREAT, cTurnPatience,
                                         "a tool of an ended hostd is still running; is it stopped?");
    const int lOld = shmget(acrChannel.mKey, 0, 0);
    if (0 <= lOld && !isOwnSegment(lOld)) {
        throw std::runtime_error("another user has made a segment with the mailbox's key; choose another name");
    }
    return attempt("open the mailbox", [&] { return OQCMailbox(acrChannel.mKey, cSegmentSize, OQCM_Server); });
}

// ---- The two threads ------------------------------------------------------------------------------------------------

/// Answers the queued requests on a separate thread. Only this thread writes into the mailbox.
class Worker
{
public:
    Worker(RequestQueue& arQueue, OQCMailbox& arMailbox) : mQueue(arQueue), mMailbox(arMailbox), mThread(start()) {}

    /// Waits for the thread, which ends when the queue is closed. Rethrows an exception that ended the thread.
    void join() { mThread.join(); }

private:
    /// A signal interrupts a call of the thread that receives it. Only the main thread is prepared for that.
    OQCThread start()
    {
        const OQCSignalBlock lBlock({SIGTERM, SIGINT});
        return attempt("start the worker", [this] { return OQCThread([this] { run(); }, [this] { mQueue.close(); }); });
    }

    void run()
    {
        try {
            Job lJob;
            while (mQueue.take(lJob)) {
                serve(lJob);
            }
        } catch (...) {
            mQueue.close();  // ends the main thread, too
            throw;
        }
    }

    /// Answers one request. Only OQCHaltEx and memory exhaustion leave this function.
    void serve(const Job& acrJob)
    {
        const char* const lpToken = acrJob.mRequest.mToken.c_str();
        AnswerWriter lAnswer(mMailbox, acrJob.mRequest.mToken, [this] { return mQueue.isClosed(); });
        try {
            try {
                if (!acrJob.mRefusal.empty()) {
                    lAnswer.fail(acrJob.mRefusal);
                    return;
                }
                HOSTD_TRACE("answering request %s: %s", lpToken, acrJob.mRequest.mVerb.c_str());
                mServices.answer(acrJob.mRequest, lAnswer);
                lAnswer.end();
                mServices.countServed();
                HOSTD_TRACE("request %s is answered", lpToken);
            } catch (const OQCHaltEx&) {
                throw;
            } catch (const OQCException& acrFailure) {
                HOSTD_ERROR("request %s failed: %s", lpToken, acrFailure.what());
                lAnswer.fail(acrFailure.what());
            } catch (const std::runtime_error& acrFailure) {
                HOSTD_ERROR("request %s failed: %s", lpToken, acrFailure.what());
                lAnswer.fail(acrFailure.what());
            }
        } catch (const AnswerDropped& acrDropped) {
            HOSTD_ERROR("the answer to request %s is dropped: %s", lpToken, acrDropped.mReason);
        }
    }

    RequestQueue& mQueue;
    OQCMailbox& mMailbox;
    Services mServices;
    OQCThread mThread;  // the last member, because the thread uses the others
};

/// Puts the parser's results into the queue. Runs on the main thread.
class Intake : public RequestSink
{
public:
    explicit Intake(RequestQueue& arQueue) : mQueue(arQueue) {}

    void onRequest(const Request& acrRequest) override
    {
        if (!mQueue.put(Job{acrRequest, ""})) {
            onRefused(acrRequest.mToken, "too many requests are waiting");
        }
    }

    void onRefused(const std::string& acrToken, const char* acReason) override
    {
        HOSTD_ERROR("request %s is refused: %s", acrToken.empty() ? "without a token" : acrToken.c_str(), acReason);
        if (!acrToken.empty() && !mQueue.put(Job{Request{acrToken, "", ""}, acReason})) {
            HOSTD_ERROR("request %s is not even told so: too many refusals are waiting", acrToken.c_str());
        }
    }

private:
    RequestQueue& mQueue;
};

// ---- Start and end --------------------------------------------------------------------------------------------------

/// Closes the standard streams of the starting process, which may be waiting for the end of this process's output.
void detachDescriptors(int aNull)
{
    for (const int lDescriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(aNull, lDescriptor);
    }
}

/// Waits for bytes and passes them to the parser. Returns when no bytes arrive within the idle time.
void readRequests(OQCPipe& arPipe, RequestParser& arParser)
{
    try {
        OsNamedPipeWaitForActivity(arPipe.get(), cIdleSeconds);
    } catch (const OQCTimeOutEx&) {
        return;  // no request: the usual case
    }
    unsigned char lBytes[4096];
    arParser.feed(lBytes, arPipe.read(lBytes, sizeof lBytes));
}

/// \return exit status
int serve(const Options& acrOptions)
{
    // Until the daemon is ready, it reports a failure by one line on standard error. Log lines there would only repeat
    // the failure.
    SetLogLevels(0);
    RegisterSignalHandler(SIGTERM, requestEnd);
    RegisterSignalHandler(SIGINT, requestEnd);
    RegisterSignalHandler(SIGPIPE, takeNote);  // a log whose reader has gone
    RegisterSignalHandler(SIGXFSZ, takeNote);  // a log at the size limit of files
    openLog(acrOptions);
    const int lNull = ClibOpen("/dev/null", O_RDWR | O_CLOEXEC, 0);
    if (lNull < 0) {
        throw std::runtime_error("cannot open /dev/null: " + systemError());
    }
    if (acrOptions.mDetach) {
        setsid();              // fails only for a process-group leader, which a child of hostctl never is
        if (chdir("/") < 0) {  // do not keep the starter's directory in use
            throw std::runtime_error("cannot change to /: " + systemError());
        }
    }

    const Channel lChannel(privateDirectory(), acrOptions.mName);
    checkLeftPipe(lChannel.mPipe);
    const Files lFiles(lChannel);
    OQCPipe lPipe = openPipe(lChannel.mPipe);
    OQCMailbox lMailbox = openMailbox(lChannel);
    RequestQueue lQueue;
    Worker lWorker(lQueue, lMailbox);
    Intake lIntake(lQueue);
    RequestParser lParser(lIntake);

    lFiles.markReady();
    if (acrOptions.mDetach) {
        detachDescriptors(lNull);
    }
    SetLogLevels(levelsOf(acrOptions));
    HOSTD_INFORMATION("ready");

    bool lNamed = true;
    while (0 == sEndRequested && !lQueue.isClosed() && lNamed) {
        readRequests(lPipe, lParser);
        lNamed = lFiles.isNamed() && isNamed(lPipe.get(), lChannel.mPipe);
        resumeLog(acrOptions);
    }
    SetLogLevels(levelsOf(acrOptions));
    if (!lNamed) {
        HOSTD_ERROR("the lock file or the FIFO has been removed: no tool can find this daemon");
    }
    HOSTD_INFORMATION("ending");
    lQueue.close();
    lWorker.join();
    return lNamed ? 0 : 1;
}

int fail(const char* acReason)
{
    fprintf(stderr, "hostd: %s\n", acReason);
    HOSTD_ERROR("%s", acReason);
    return 1;
}

}  // namespace

int main(int aCount, char** apWords)
{
    keepStandardDescriptors();
    Options lOptions;
    Words lWords(apWords + 1, apWords + aCount);
    std::string lWrong = takeOptions(lWords, lOptions);
    if (lWrong.empty() && !lWords.empty()) {
        lWrong = "unknown word " + lWords.front();
    }
    if (!lWrong.empty()) {
        fprintf(stderr, "hostd: %s\n%s", lWrong.c_str(), cUsage);
        return 2;
    }
    if (lOptions.mHelp) {
        return fputs(cUsage, stdout) < 0 || 0 != fflush(stdout) ? fail(("cannot print: " + systemError()).c_str()) : 0;
    }
    try {
        return serve(lOptions);
    } catch (const OQCException& acrFailure) {
        return fail(acrFailure.what());
    } catch (const std::exception& acrFailure) {
        return fail(acrFailure.what());
    }
}
