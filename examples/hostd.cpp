// hostd: a small daemon that answers questions about its host.
//
// The main thread reads requests from a FIFO and puts them into a queue. One worker thread takes them out and sends the
// answers through a shared-memory mailbox. An object owns each resource, and its destructor removes the resource.
// Resources are therefore removed in reverse order, after a failed start as well as at a normal end.

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
#include "LockedFile.h"
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

/// Blocks or unblocks signals. A signal interrupts a call of the thread that receives it, and the call is not
/// restarted. Only the main thread is prepared for that. It blocks the signals while it starts the worker, which
/// inherits the blocked signals, and unblocks them when everything is set up.
void setSignalsBlocked(bool aBlocked)
{
    sigset_t lSignals;
    sigemptyset(&lSignals);
    sigaddset(&lSignals, SIGTERM);
    sigaddset(&lSignals, SIGINT);
    pthread_sigmask(aBlocked ? SIG_BLOCK : SIG_UNBLOCK, &lSignals, NULL);
}

// ---- What the daemon owns -------------------------------------------------------------------------------------------

/// The lock that excludes a second daemon of this name. The process that holds the lock on the named file owns all
/// files of that name, and the segment.
class Instance
{
public:
    explicit Instance(const OQCString& acrPath) : mPath(acrPath), mLock(acrPath), mOwned(true)
    {
        if (!mLock.tryLock(LockedFile::Create)) {
            throw std::runtime_error("another hostd of this name is running");
        }
        // The file of a killed daemon still contains that daemon's process id.
        if (ftruncate(mLock.descriptor(), 0) < 0) {
            throw std::runtime_error(std::string("cannot empty ") + mPath.get() + ": " + systemError());
        }
    }

    /// Removes the file while it is locked. A process that opened it earlier finds, once it gets the lock, that the
    /// name is gone.
    ~Instance()
    {
        if (ownsName()) {
            ClibUnlink(mPath.get());
        }
        mLock.release();
    }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;

    bool isNamed() const { return mLock.isStillNamed(); }

    /// Returns whether this daemon may still remove the files. If a cleanup program has removed the lock file, a second
    /// daemon may have started with a new lock file. If no process holds the new lock, this daemon takes it.
    bool ownsName()
    {
        if (mOwned && !mLock.isStillNamed()) {
            try {
                mOwned = mLock.tryLock(LockedFile::Create);
            } catch (const std::runtime_error&) {
                // The directory is gone, so no second daemon exists.
            }
        }
        return mOwned;
    }

    /// Writes the process id into the file, which tells the tools that the daemon is ready.
    void markReady() const
    {
        char lLine[32];
        const int lLength = ClibSprintf(lLine, "%d\n", getpid());
        if (ClibWrite(mLock.descriptor(), lLine, static_cast<unsigned int>(lLength)) != lLength) {
            throw std::runtime_error(std::string("cannot write ") + mPath.get() + ": " + systemError());
        }
    }

private:
    const OQCString mPath;
    LockedFile mLock;
    bool mOwned;
};

/// The file whose lock gives tools their turns. The daemon only creates and removes it.
class TurnFile
{
public:
    TurnFile(const OQCString& acrPath, Instance& arInstance) : mPath(acrPath), mInstance(arInstance)
    {
        const int lDescriptor = openOwnFile(mPath, O_RDWR | O_CREAT);
        if (lDescriptor < 0) {
            throw std::runtime_error(std::string("cannot make ") + mPath.get() + ": " + systemError());
        }
        ClibClose(lDescriptor);
    }
    ~TurnFile()
    {
        if (mInstance.ownsName()) {
            ClibUnlink(mPath.get());
        }
    }
    TurnFile(const TurnFile&) = delete;
    TurnFile& operator=(const TurnFile&) = delete;

private:
    const OQCString mPath;
    Instance& mInstance;
};

/// The FIFO for requests.
class RequestPipe
{
public:
    RequestPipe(const OQCString& acrPath, Instance& arInstance) : mPath(acrPath), mInstance(arInstance), mPipe(-1)
    {
        try {
            OsNamedPipeCreate(mPath, mPipe);
        } catch (const OQCCreateFailedEx& acrFailure) {
            throw std::runtime_error(std::string("cannot make ") + mPath.get() + ": " + acrFailure.what());
        }
        // OsNamedPipeCreate accepts any existing file. Only a FIFO can be the file that a killed daemon left.
        struct stat lInfo;
        if (lstat(mPath.get(), &lInfo) < 0 || !S_ISFIFO(lInfo.st_mode)) {
            throw std::runtime_error(std::string(mPath.get()) + " exists and is no FIFO");
        }
        OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, OQPS_NonBlocking, OQCM_Server);
        if (mPipe < 0) {
            const std::string lError = systemError();
            OsNamedPipeDestroy(mPath, mPipe);
            throw std::runtime_error(std::string("cannot open ") + mPath.get() + ": " + lError);
        }
        checkOwnFifo(mPipe, mPath);
        fcntl(mPipe, F_SETFD, FD_CLOEXEC);  // the commands that the daemon runs must not inherit it
    }
    ~RequestPipe()
    {
        OsNamedPipeClose(mPipe, OQCM_Server);
        if (mInstance.ownsName()) {
            OsNamedPipeDestroy(mPath, mPipe);
        }
    }
    RequestPipe(const RequestPipe&) = delete;
    RequestPipe& operator=(const RequestPipe&) = delete;

    bool isNamed() const { return ::isNamed(mPipe, mPath); }

    /// Waits for bytes and passes them to the parser. Returns when no bytes arrive within the idle time.
    void read(RequestParser& arParser) const
    {
        try {
            OsNamedPipeWaitForActivity(mPipe, cIdleSeconds);
        } catch (const OQCTimeOutEx&) {
            return;  // no request: the usual case
        }
        unsigned char lBytes[4096];
        unsigned int lDone = 0;
        OsNamedPipeRead(mPipe, lBytes, sizeof lBytes, lDone);
        arParser.feed(lBytes, lDone);
    }

private:
    const OQCString mPath;
    Instance& mInstance;
    int mPipe;
};

/// The segment for answers.
class Mailbox
{
public:
    Mailbox(key_t aKey, Instance& arInstance) : mInstance(arInstance), mSegment()
    {
        mSegment.shm_key = aKey;
        mSegment.shm_size = cSegmentSize;
        mSegment.shm_id = -1;
        try {
            OsSharedMemoryOpen(mSegment, OQCM_Server);
        } catch (const OQCException& acrFailure) {
            // A failed open does not undo its steps. The segment may already exist and must then be removed here,
            // because the layer removes only segments that were opened.
            if (isOwnSegment(mSegment.shm_id)) {
                shmctl(mSegment.shm_id, IPC_RMID, NULL);
            } else if (0 <= mSegment.shm_id) {
                throw std::runtime_error(cForeign);
            }
            throw std::runtime_error(std::string("cannot open the mailbox: ") + acrFailure.what());
        }
        if (!isOwnSegment(mSegment.shm_id)) {  // an open by root accepts every segment
            OsSharedMemoryClose(mSegment, OQCM_Client);
            throw std::runtime_error(cForeign);
        }
    }
    ~Mailbox()
    {
        try {
            // A close as client does not remove the segment.
            OsSharedMemoryClose(mSegment, mInstance.ownsName() ? OQCM_Server : OQCM_Client);
        } catch (const OQCException& acrFailure) {
            HOSTD_ERROR("cannot close the mailbox: %s", acrFailure.what());
        }
    }
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    OQShmDesc& segment() { return mSegment; }

private:
    static constexpr const char* cForeign =
        "another user has made a segment with the mailbox's key; choose another name";

    Instance& mInstance;
    OQShmDesc mSegment;
};

// ---- The two threads ------------------------------------------------------------------------------------------------

/// Answers the queued requests on a separate thread. Only this thread writes into the mailbox.
class Worker
{
public:
    Worker(RequestQueue& arQueue, OQShmDesc& arMailbox)
        : mQueue(arQueue), mMailbox(arMailbox), mHalted(false), mThread(0)
    {
        try {
            OsStartThread(mThread, this, run);
        } catch (const OQCException& acrFailure) {
            throw std::runtime_error(std::string("cannot start the worker: ") + acrFailure.what());
        }
    }
    ~Worker()
    {
        try {
            mQueue.close();
            OsWaitForExit(mThread);
        } catch (const OQCException& acrFailure) {
            HOSTD_ERROR("cannot wait for the worker: %s", acrFailure.what());
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// Returns whether a failure of the worker requires the daemon to end.
    bool isHalted() const { return mHalted; }

private:
    static void* run(void* apWorker)
    {
        // No exception may leave a thread's routine.
        Worker& lrWorker = *static_cast<Worker*>(apWorker);
        try {
            Job lJob;
            while (lrWorker.mQueue.take(lJob)) {
                lrWorker.serve(lJob);
            }
        } catch (const OQCException& acrFailure) {
            lrWorker.halt(acrFailure.what());
        } catch (const std::exception& acrFailure) {
            lrWorker.halt(acrFailure.what());
        }
        return NULL;
    }

    void halt(const char* acReason)
    {
        SetLogLevels(cUsualLevels);  // the error limit may have silenced the log
        HOSTD_ERROR("the worker halts: %s", acReason);
        mHalted = true;
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
    OQShmDesc& mMailbox;
    Services mServices;
    std::atomic<bool> mHalted;
    unsigned long mThread;
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

/// \return exit status
int serve(const Options& acrOptions)
{
    setSignalsBlocked(true);
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
    Instance lInstance(lChannel.mLock);
    const TurnFile lTurn(lChannel.mTurn, lInstance);
    const RequestPipe lPipe(lChannel.mPipe, lInstance);
    Mailbox lMailbox(lChannel.mKey, lInstance);
    RequestQueue lQueue;
    const Worker lWorker(lQueue, lMailbox.segment());
    Intake lIntake(lQueue);
    RequestParser lParser(lIntake);

    lInstance.markReady();
    if (acrOptions.mDetach) {
        detachDescriptors(lNull);
    }
    SetLogLevels(levelsOf(acrOptions));
    HOSTD_INFORMATION("ready");
    setSignalsBlocked(false);

    bool lNamed = true;
    while (0 == sEndRequested && !lWorker.isHalted() && lNamed) {
        lPipe.read(lParser);
        lNamed = lInstance.isNamed() && lPipe.isNamed();
        resumeLog(acrOptions);
    }
    SetLogLevels(levelsOf(acrOptions));
    if (!lNamed) {
        HOSTD_ERROR("the lock file or the FIFO has been removed: no tool can find this daemon");
    }
    HOSTD_INFORMATION("ending");
    return lWorker.isHalted() || !lNamed ? 1 : 0;
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
