// The companion runtime as a host gets it: this program uses the real log and none of the test kit's functions.

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <regex.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "OQCompanionSettings.h"
#include "OQLinux.h"
#include "support/FailingMalloc.cpp"  // the kit's only part that is of use here

namespace
{

std::atomic<bool> sClockStands(false);
timespec sClock;
std::atomic<int> sWritesOfNothing(0);

}  // namespace

/// The log's own way to write(). A system that takes no byte and calls it no error is not to be had otherwise. Passes on
/// as many arguments as there may be, so it may look beyond those that there are.
extern "C" __attribute__((no_sanitize_address)) long syscall(long aNumber, ...) noexcept
{
    if (SYS_write == aNumber && 0 < sWritesOfNothing) {
        --sWritesOfNothing;
        return 0;
    }
    va_list lList;
    va_start(lList, aNumber);
    long lArguments[6];
    for (long& lrArgument : lArguments) {
        lrArgument = va_arg(lList, long);
    }
    va_end(lList);
    static Behind<long(long, ...)> lReal("syscall");
    return lReal(aNumber, lArguments[0], lArguments[1], lArguments[2], lArguments[3], lArguments[4], lArguments[5]);
}

/// The wall clock stands when a test says so.
extern "C" int clock_gettime(clockid_t aClock, struct timespec* apTime) noexcept
{
    if (CLOCK_REALTIME == aClock && sClockStands) {
        *apTime = sClock;
        return 0;
    }
    static Behind<int(clockid_t, struct timespec*)> lReal("clock_gettime");
    return lReal(aClock, apTime);
}

namespace
{

const unsigned int cDefaultLevels = 1 | 8 | 64;
const unsigned int cAllLevels = 1 | 8 | 64 | 128;
const int cPatienceMilliseconds = 30000;

typedef std::vector<std::string> Texts;

bool eventually(const std::function<bool()>& acrCondition)
{
    for (int lMilliseconds = 0; !acrCondition(); ++lMilliseconds) {
        if (cPatienceMilliseconds == lMilliseconds) {
            return false;
        }
        usleep(1000);
    }
    return true;
}

std::set<std::string> openDescriptors()
{
    std::set<std::string> lOpen;
    DIR* const lpDirectory = opendir("/proc/self/fd");
    while (const dirent* const lpEntry = readdir(lpDirectory)) {
        if (dirfd(lpDirectory) != atoi(lpEntry->d_name)) {
            lOpen.insert(lpEntry->d_name);
        }
    }
    closedir(lpDirectory);
    return lOpen;
}

std::string readFrom(int aDescriptor)
{
    std::string lText;
    char lBuffer[65536];
    ssize_t lRead;
    while ((lRead = pread(aDescriptor, lBuffer, sizeof lBuffer, static_cast<off_t>(lText.size()))) > 0) {
        lText.append(lBuffer, static_cast<size_t>(lRead));
    }
    return lText;
}

/// The lines of a text; what does not end with a line feed is marked.
Texts split(const std::string& acrText)
{
    Texts lLines;
    size_t lBegin = 0;
    while (lBegin < acrText.size()) {
        const size_t lEnd = acrText.find('\n', lBegin);
        if (std::string::npos == lEnd) {
            lLines.push_back(acrText.substr(lBegin) + "<no end>");
            break;
        }
        lLines.push_back(acrText.substr(lBegin, lEnd - lBegin));
        lBegin = lEnd + 1;
    }
    return lLines;
}

/// What follows "(file:line) ".
std::string messageOf(const std::string& acrLine)
{
    const size_t lEnd = acrLine.find(") ");
    return std::string::npos == lEnd ? "<no message in> " + acrLine : acrLine.substr(lEnd + 2);
}

Texts messagesOf(const Texts& acrLines)
{
    Texts lMessages;
    for (const std::string& lrLine : acrLines) {
        lMessages.push_back(messageOf(lrLine));
    }
    return lMessages;
}

/// A file without a name, opened for appending.
class LogFile
{
public:
    LogFile()
    {
        char lPath[] = "/tmp/oqcompaniontest-XXXXXX";
        mDescriptor = mkostemp(lPath, O_APPEND | O_CLOEXEC);
        mSecond = open(lPath, O_WRONLY | O_APPEND | O_CLOEXEC);
        unlink(lPath);
    }
    ~LogFile()
    {
        close(mDescriptor);
        close(mSecond);
    }
    int descriptor() const { return mDescriptor; }
    int second() const { return mSecond; }  ///< opened on its own: has a file position of its own
    std::string text() const { return readFrom(mDescriptor); }
    Texts lines() const { return split(text()); }
    void empty() { EXPECT_EQ(0, ftruncate(mDescriptor, 0)); }

private:
    int mDescriptor;
    int mSecond;
};

/// One line of each level and of three values that are none.
void logEachLevel()
{
    PrintLogMessageWithTimeStamp(1, "-H-", 11, "f", ".//F", "halt");
    PrintLogMessageWithTimeStamp(8, "-E-", 12, "f", ".//F", "error");
    PrintLogMessageWithTimeStamp(64, "-I-", 13, "f", ".//F", "information");
    PrintLogMessageWithTimeStamp(128, "-T-", 14, "f", ".//F", "trace");
    PrintLogMessageWithTimeStamp(0, "-0-", 15, "f", ".//F", "none");
    PrintLogMessageWithTimeStamp(2, "-2-", 16, "f", ".//F", "two");
}

/// What a host that has set nothing finds on standard error. Taken before main(), so that no test has set anything.
std::string loggedByDefault()
{
    const LogFile lFile;
    const int lStandardError = dup(STDERR_FILENO);
    dup2(lFile.descriptor(), STDERR_FILENO);
    logEachLevel();
    dup2(lStandardError, STDERR_FILENO);
    close(lStandardError);
    return lFile.text();
}
const std::string sLoggedByDefault = loggedByDefault();

/// A child process; its function's failed expectations become its exit status.
pid_t startChild(const std::function<void()>& acrRun)
{
    fflush(nullptr);
    const pid_t lChild = fork();
    if (0 == lChild) {
        acrRun();
        _exit(::testing::Test::HasFailure() ? 99 : 0);
    }
    return lChild;
}

int statusOf(pid_t aChild)
{
    int lStatus = -1;
    while (waitpid(aChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
}

/// A thread that can be interrupted while it blocks.
class BlockingThread
{
public:
    explicit BlockingThread(const std::function<void()>& acrRun) : mId(0), mDone(false)
    {
        struct sigaction lAction;
        memset(&lAction, 0, sizeof lAction);
        lAction.sa_handler = [](int) { ++sSignals; };  // without SA_RESTART
        sigaction(SIGUSR1, &lAction, &mOldAction);
        sSignals = 0;
        mThread = std::thread([this, acrRun] {
            mId = static_cast<pid_t>(syscall(SYS_gettid));
            acrRun();
            mDone = true;
        });
        eventually([this] { return 0 != mId; });
    }
    ~BlockingThread()
    {
        join();
        sigaction(SIGUSR1, &mOldAction, nullptr);
    }
    void join()
    {
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    bool done() const { return mDone; }
    bool blocked() const
    {
        const std::string lPath = "/proc/self/task/" + std::to_string(mId) + "/stat";
        const int lFile = open(lPath.c_str(), O_RDONLY | O_CLOEXEC);
        const std::string lText = readFrom(lFile);
        close(lFile);
        const size_t lEnd = lText.rfind(") ");
        return std::string::npos != lEnd && 'S' == lText[lEnd + 2];
    }
    void interrupt() { pthread_kill(mThread.native_handle(), SIGUSR1); }
    static int signals() { return sSignals; }

private:
    std::thread mThread;
    std::atomic<pid_t> mId;
    std::atomic<bool> mDone;
    struct sigaction mOldAction;
    static std::atomic<int> sSignals;
};
std::atomic<int> BlockingThread::sSignals(0);

class CompanionTest : public ::testing::Test
{
protected:
    void SetUp() override { mDescriptors = openDescriptors(); }
    void TearDown() override
    {
        sClockStands = false;
        SetLogLevels(cDefaultLevels);
        SetLogDescriptor(STDERR_FILENO);
        if (!mDirectory.empty()) {
            EXPECT_EQ(0, rmdir(mDirectory.c_str())) << "a file was left";
        }
        EXPECT_EQ(mDescriptors, openDescriptors()) << "a descriptor was left or closed";
    }

    /// A path in a directory of this test's own, which must be empty again at its end.
    std::string path(const std::string& acrName)
    {
        if (mDirectory.empty()) {
            char lDirectory[] = "/tmp/oqcompaniontest-XXXXXX";
            mDirectory = mkdtemp(lDirectory);
        }
        return mDirectory + "/" + acrName;
    }

private:
    std::set<std::string> mDescriptors;
    std::string mDirectory;
};

/// Everything is written, to a file.
class LogTest : public CompanionTest
{
protected:
    void SetUp() override
    {
        CompanionTest::SetUp();
        mFile.reset(new LogFile);
        SetLogLevels(cAllLevels);
        SetLogDescriptor(mFile->descriptor());
    }
    void TearDown() override
    {
        mFile.reset();
        CompanionTest::TearDown();
    }

    std::unique_ptr<LogFile> mFile;
};

#define LOG_ERROR(...) PrintLogMessageWithTimeStamp(8, "-E-", 88, "OsLockFile", ".//MiscLinux", __VA_ARGS__)

TEST_F(LogTest, UnsetLogWritesHaltErrorAndInformationToStandardError)
{
    EXPECT_EQ((Texts{"halt", "error", "information"}), messagesOf(split(sLoggedByDefault)));
}

TEST_F(LogTest, LineGivesTimeProcessThreadTagFunctionFileLineAndMessage)
{
    LOG_ERROR("Failed to lock file, error: %s", "Bad file descriptor");
    const std::string lText = mFile->text();
    const std::string lDate = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z";
    const std::string lShape = "^" + lDate + " " + std::to_string(getpid()) + " " +
                               std::to_string(static_cast<unsigned long>(pthread_self())) +
                               " -E- OsLockFile \\(\\.//MiscLinux:88\\) "
                               "Failed to lock file, error: Bad file descriptor\n$";
    regex_t lExpression;
    ASSERT_EQ(0, regcomp(&lExpression, lShape.c_str(), REG_EXTENDED | REG_NOSUB));
    EXPECT_EQ(0, regexec(&lExpression, lText.c_str(), 0, nullptr, 0)) << lText;
    regfree(&lExpression);
}

TEST_F(LogTest, LineGivesTheHandleOfTheThreadThatWritesIt)
{
    std::string lHandle;
    std::thread([&lHandle] {
        lHandle = std::to_string(static_cast<unsigned long>(pthread_self()));
        LOG_ERROR("from a thread");
    }).join();
    const std::string lText = mFile->text();
    EXPECT_NE(std::string::npos, lText.find("Z " + std::to_string(getpid()) + " " + lHandle + " -E- ")) << lText;
}

std::string stampOfNow()
{
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    tm lTime;
    gmtime_r(&lNow.tv_sec, &lTime);
    char lText[64];
    const size_t lLength = strftime(lText, sizeof lText, "%Y-%m-%dT%H:%M:%S", &lTime);
    snprintf(lText + lLength, sizeof lText - lLength, ".%06ldZ", lNow.tv_nsec / 1000);
    return lText;
}

TEST_F(LogTest, StampIsTheTimeOfTheCallInUtcWhateverTheTimeZone)
{
    const char* const lpOld = getenv("TZ");
    const std::string lOld = nullptr == lpOld ? "" : lpOld;
    for (const char* lpZone : {"UTC", "XYZ-9:30", "ABC+11"}) {
        setenv("TZ", lpZone, 1);
        tzset();
        mFile->empty();
        const std::string lBefore = stampOfNow();
        LOG_ERROR("now");
        const std::string lAfter = stampOfNow();
        const std::string lStamp = mFile->text().substr(0, lBefore.size());
        EXPECT_LE(lBefore, lStamp) << lpZone;
        EXPECT_LE(lStamp, lAfter) << lpZone;
    }
    if (nullptr == lpOld) {
        unsetenv("TZ");
    } else {
        setenv("TZ", lOld.c_str(), 1);
    }
    tzset();
}

TEST_F(LogTest, StampsOfKnownTimes)
{
    const struct {
        long mSeconds;
        long mNanoseconds;
        const char* mStamp;
    } cTimes[] = {
        {0, 0, "1970-01-01T00:00:00.000000Z"},
        {1, 999, "1970-01-01T00:00:01.000000Z"},
        {68169599, 1000, "1972-02-28T23:59:59.000001Z"},
        {68169600, 0, "1972-02-29T00:00:00.000000Z"},
        {946684799, 999999999, "1999-12-31T23:59:59.999999Z"},
        {946684800, 0, "2000-01-01T00:00:00.000000Z"},
        {951782400, 0, "2000-02-29T00:00:00.000000Z"},
        {951868800, 500000000, "2000-03-01T00:00:00.500000Z"},
        {1234567890, 123456789, "2009-02-13T23:31:30.123456Z"},
        {1735689599, 0, "2024-12-31T23:59:59.000000Z"},
        {2147483647, 0, "2038-01-19T03:14:07.000000Z"},
    };
    sClockStands = true;
    for (const auto& lrTime : cTimes) {
        sClock.tv_sec = lrTime.mSeconds;
        sClock.tv_nsec = lrTime.mNanoseconds;
        mFile->empty();
        LOG_ERROR("then");
        EXPECT_EQ(lrTime.mStamp, mFile->text().substr(0, strlen(lrTime.mStamp)));
    }
    if (8 <= sizeof(time_t)) {
        const struct {
            int64_t mSeconds;
            const char* mStamp;
        } cLateTimes[] = {
            {2147483648LL, "2038-01-19T03:14:08.000000Z"},   {4107542399LL, "2100-02-28T23:59:59.000000Z"},
            {4107542400LL, "2100-03-01T00:00:00.000000Z"},   {13574563200LL, "2400-02-29T00:00:00.000000Z"},
            {253402300799LL, "9999-12-31T23:59:59.000000Z"},
        };
        for (const auto& lrTime : cLateTimes) {
            sClock.tv_sec = static_cast<time_t>(lrTime.mSeconds);
            sClock.tv_nsec = 0;
            mFile->empty();
            LOG_ERROR("then");
            EXPECT_EQ(lrTime.mStamp, mFile->text().substr(0, strlen(lrTime.mStamp)));
        }
    }
}

TEST_F(LogTest, EveryDayUntil2037HasItsDate)
{
    Texts lExpected;
    sClockStands = true;
    sClock.tv_sec = 86399;
    sClock.tv_nsec = 0;
    for (int lYear = 1970; lYear < 2038; ++lYear) {
        const int lFebruary = 0 == lYear % 4 ? 29 : 28;  // 2000 is a leap year
        const int lDaysOf[] = {31, lFebruary, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        for (int lMonth = 1; lMonth <= 12; ++lMonth) {
            for (int lDay = 1; lDay <= lDaysOf[lMonth - 1]; ++lDay) {
                char lDate[64];
                snprintf(lDate, sizeof lDate, "%04d-%02d-%02dT23:59:59.000000Z", lYear, lMonth, lDay);
                lExpected.push_back(lDate);
                LOG_ERROR("%s", lDate);
                sClock.tv_sec += 86400;
            }
        }
    }
    EXPECT_EQ(24837U, lExpected.size());
    const Texts lLines = mFile->lines();
    EXPECT_EQ(lExpected, messagesOf(lLines));
    size_t lWrong = 0;
    for (size_t lIndex = 0; lIndex < lLines.size(); ++lIndex) {
        lWrong += lLines[lIndex].substr(0, 27) == messageOf(lLines[lIndex]) ? 0 : 1;
    }
    EXPECT_EQ(0U, lWrong);
}

TEST_F(LogTest, EachBitOfTheLevelsLetsItsLinesPassAndNoOther)
{
    const unsigned int cLevels[] = {1, 8, 64, 128};
    const char* const cMessages[] = {"halt", "error", "information", "trace"};
    for (unsigned int lChosen = 0; lChosen < 16; ++lChosen) {
        unsigned int lLevels = 0;
        Texts lExpected;
        for (unsigned int lIndex = 0; lIndex < 4; ++lIndex) {
            if (0 != (lChosen & (1U << lIndex))) {
                lLevels |= cLevels[lIndex];
                lExpected.push_back(cMessages[lIndex]);
            }
        }
        mFile->empty();
        SetLogLevels(lLevels);
        logEachLevel();
        EXPECT_EQ(lExpected, messagesOf(mFile->lines())) << lLevels;
    }
    mFile->empty();
    SetLogLevels(0xFFFFFFFFU);
    logEachLevel();
    EXPECT_EQ((Texts{"halt", "error", "information", "trace", "two"}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, SettingsHoldForEveryThread)
{
    const LogFile lOther;
    std::thread([&lOther] {
        SetLogLevels(128);
        SetLogDescriptor(lOther.descriptor());
    }).join();
    logEachLevel();
    EXPECT_EQ(Texts(), mFile->lines());
    EXPECT_EQ(Texts{"trace"}, messagesOf(lOther.lines()));
    SetLogDescriptor(mFile->descriptor());
}

TEST_F(LogTest, FilteredLineIsNotEvenLookedAt)
{
    SetLogLevels(cDefaultLevels);
    // Neither the texts nor the arguments are touched: they lead nowhere.
    const char* volatile lpNowhere = reinterpret_cast<const char*>(1);
    errno = EXDEV;
    PrintLogMessageWithTimeStamp(128, lpNowhere, 1, lpNowhere, lpNowhere, lpNowhere, lpNowhere);
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ("", mFile->text());
}

TEST_F(LogTest, ErrnoIsKeptWhereverTheLineGoes)
{
    const int lFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_LE(0, lFull);
    const int lReadOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int lClosed = dup(lFull);
    close(lClosed);
    const std::string lTooLong(9000, 'x');
    for (const int lDescriptor : {mFile->descriptor(), lFull, lReadOnly, lClosed, -1, INT_MAX}) {
        SetLogDescriptor(lDescriptor);
        for (const int lErrno : {0, EPERM, EBADF, ENOSPC, EINTR, 99999}) {
            errno = lErrno;
            LOG_ERROR("a line");
            EXPECT_EQ(lErrno, errno) << lDescriptor;
            LOG_ERROR("%s", lTooLong.c_str());
            EXPECT_EQ(lErrno, errno) << lDescriptor;
            PrintLogMessageWithTimeStamp(2, "-2-", 1, "f", "f", "filtered");
            EXPECT_EQ(lErrno, errno) << lDescriptor;
        }
    }
    EXPECT_EQ(12U, mFile->lines().size());
    close(lFull);
    close(lReadOnly);
}

TEST_F(LogTest, LineThatCannotBeWrittenIsDroppedAndTheNextOneIsWhole)
{
    const int lFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const int lDescriptor : {lFull, -1, INT_MAX}) {
        SetLogDescriptor(lDescriptor);
        LOG_ERROR("lost");
        SetLogDescriptor(mFile->descriptor());
        LOG_ERROR("written");
    }
    close(lFull);
    EXPECT_EQ((Texts{"written", "written", "written"}), messagesOf(mFile->lines()));
}

/// Every traced operation goes on with a log that takes no line, leaves errno alone, and fails as ever.
TEST_F(LogTest, OperationsGoOnWhenTheDiskOfTheLogIsFull)
{
    const std::string lPath = path("pipe");
    const OQCString lName(lPath.c_str());
    const int lFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_LE(0, lFull);
    SetLogDescriptor(lFull);
    LOG_ERROR("lost");
    errno = EXDEV;
    int lPipe = -1;
    unsigned char lByte = 7;
    unsigned int lCount = 0;
    OsNamedPipeCreate(lName, lPipe);
    OsNamedPipeOpen(lPipe, lName, OQFM_Mode3, OQPS_NonBlocking, OQCM_Server);
    OsNamedPipeAccept(lPipe);
    OsNamedPipeWrite(lPipe, &lByte, 1, lCount);
    EXPECT_EQ(1U, lCount);
    OsNamedPipeWaitForActivity(lPipe, 1);
    OsNamedPipeRead(lPipe, &lByte, 1, lCount);
    EXPECT_EQ(1U, lCount);
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lName, lPipe);
    OQShmDesc lServer = {getpid(), 64, -1, nullptr};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    OQShmDesc lClient = lServer;
    OsSharedMemoryOpen(lClient, OQCM_Client);
    OsSharedMemoryWrite(lServer, &lByte, 1, lCount);
    OsSharedMemoryWaitForActivity(lClient, 1);
    OsSharedMemoryRead(lClient, &lByte, 1, lCount);
    OsSharedMemoryClose(lClient, OQCM_Client);
    OsSharedMemoryClose(lServer, OQCM_Server);
    EXPECT_EQ(EXDEV, errno) << "a line that was not written has changed it";

    const int lClosed = dup(lFull);
    close(lClosed);
    const auto lText = [](const std::function<void()>& acrRun) {
        try {
            acrRun();
        } catch (const OQCException& acrFailure) {
            return std::string(acrFailure.what());
        }
        return std::string("nothing was thrown");
    };
    EXPECT_EQ("Bad file descriptor", lText([] { OsLockFile(-1); }));
    EXPECT_EQ("Bad file descriptor", lText([] { OsUnlockFile(-1); }));
    EXPECT_EQ("Bad file descriptor", lText([&] { OsWaitForActivity(lClosed, 1); }));
    EXPECT_EQ("No such file or directory", lText([&] { OsNamedPipeCreate("/nonexistent/pipe", lPipe); }));
    EXPECT_EQ("No such file or directory", lText([&] { OsSharedMemoryOpen(lClient, OQCM_Client); }));
    EXPECT_EQ("Failed to create process", lText([] { ProcessWait(getpid(), 0); }));
    EXPECT_EQ("Timed out", lText([&] { OsWaitForActivity(-1, 0); }));

    OQCList<OQCString> lLines;
    OsExecute("echo a", lLines);
    ASSERT_EQ(1, lLines.size());
    EXPECT_STREQ("a", lLines.begin()->get());
    char lProgram[] = "true";
    char* const lArguments[] = {lProgram, nullptr};
    EXPECT_EQ(0, ProcessWait(ProcessCreate("/bin/true", lArguments, nullptr), 0));
    const pid_t lSelf = getpid();
    int lChild = -1;
    try {
        lChild = ProcessCreate("/nonexistent/program", lArguments, nullptr);
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        _exit(lSelf != getpid() && 0 == strcmp("No such file or directory", acrFailure.what()) ? 42 : 43);
    }
    EXPECT_EQ(42, ProcessWait(lChild, 0));
    close(lFull);
    SetLogDescriptor(mFile->descriptor());
    LOG_ERROR("kept");
    EXPECT_EQ((Texts{"kept"}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, FullPipeThatDoesNotBlockLosesTheLine)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC | O_NONBLOCK));
    const std::string lFilling(4096, 'x');
    while (0 < write(lEnds[1], lFilling.data(), lFilling.size())) {
    }
    SetLogDescriptor(lEnds[1]);
    errno = EXDEV;
    LOG_ERROR("lost");
    EXPECT_EQ(EXDEV, errno);
    std::string lText;
    char lBuffer[4096];
    ssize_t lRead;
    while (0 < (lRead = read(lEnds[0], lBuffer, sizeof lBuffer))) {
        lText.append(lBuffer, static_cast<size_t>(lRead));
    }
    EXPECT_EQ(std::string::npos, lText.find_first_not_of('x'));
    close(lEnds[0]);
    close(lEnds[1]);
}

/// While it exists, files of this process may grow to so many bytes.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(size_t aBytes)
    {
        getrlimit(RLIMIT_FSIZE, &mBefore);
        rlimit lLimit = mBefore;
        lLimit.rlim_cur = aBytes;
        setrlimit(RLIMIT_FSIZE, &lLimit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &mBefore); }

private:
    rlimit mBefore;
};

/// The signal of that limit is ignored.
class CutLineTest : public LogTest
{
protected:
    void SetUp() override
    {
        LogTest::SetUp();
        mBefore = signal(SIGXFSZ, SIG_IGN);
    }
    void TearDown() override
    {
        signal(SIGXFSZ, mBefore);
        LogTest::TearDown();
    }

    sighandler_t mBefore;
};

TEST_F(CutLineTest, LineAfterAnotherThatWasWrittenInPartBeginsALineOfItsOwn)
{
    LOG_ERROR("whole");
    const size_t lBefore = mFile->text().size();
    errno = EXDEV;
    {
        const FileSizeLimit lLimit(lBefore + 20);
        LOG_ERROR("written in part");
        LOG_ERROR("lost");
    }
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(lBefore + 20, mFile->text().size());
    LOG_ERROR("next");
    LOG_ERROR("last");
    const Texts lLines = mFile->lines();
    ASSERT_EQ(4U, lLines.size());
    EXPECT_EQ("whole", messageOf(lLines[0]));
    EXPECT_EQ(20U, lLines[1].size());
    EXPECT_EQ("next", messageOf(lLines[2]));
    EXPECT_EQ("last", messageOf(lLines[3]));
}

TEST_F(CutLineTest, LineOfWhichOnlyTheLineFeedWasWrittenLeavesNoEmptyLine)
{
    for (const size_t lBytes : {20U, 21U}) {  // the second line has room for its line feed alone
        const FileSizeLimit lLimit(lBytes);
        LOG_ERROR("cut");
    }
    EXPECT_EQ(21U, mFile->text().size());
    LOG_ERROR("next");
    const Texts lLines = mFile->lines();
    ASSERT_EQ(2U, lLines.size());
    EXPECT_EQ(20U, lLines[0].size());
    EXPECT_EQ("next", messageOf(lLines[1]));
}

TEST_F(CutLineTest, OneOfManyThreadsEndsTheLineThatWasWrittenInPart)
{
    const int cThreads = 8;
    for (int lRound = 0; lRound < 50; ++lRound) {
        mFile->empty();
        {
            const FileSizeLimit lLimit(20);
            LOG_ERROR("written in part");
        }
        std::atomic<int> lReady(0);
        std::vector<std::thread> lThreads;
        for (int lThread = 0; lThread < cThreads; ++lThread) {
            lThreads.emplace_back([&lReady] {
                ++lReady;
                while (lReady < cThreads) {
                    sched_yield();
                }
                LOG_ERROR("next");
            });
        }
        for (std::thread& lrThread : lThreads) {
            lrThread.join();
        }
        // The thread that ends the line need not be the first to write: its line feed then leaves an empty line.
        const std::string lText = mFile->text();
        EXPECT_EQ(cThreads + 1, std::count(lText.begin(), lText.end(), '\n'));
    }
}

TEST_F(CutLineTest, LineThatWasWrittenInPartIsEndedInItsOwnFileOnly)
{
    const LogFile lOther;
    {
        const FileSizeLimit lLimit(20);
        LOG_ERROR("written in part");
    }
    SetLogDescriptor(lOther.descriptor());
    LOG_ERROR("other");
    SetLogDescriptor(mFile->descriptor());
    LOG_ERROR("next");
    EXPECT_EQ(Texts{"other"}, messagesOf(lOther.lines()));
    const Texts lLines = mFile->lines();
    ASSERT_EQ(2U, lLines.size());
    EXPECT_EQ(20U, lLines[0].size());
    EXPECT_EQ("next", messageOf(lLines[1]));
}

TEST_F(LogTest, LineBeyondTheLimitOfFileSizesRaisesItsSignal)
{
    const pid_t lChild = startChild([] {
        const rlimit lNoCore = {0, 0};
        setrlimit(RLIMIT_CORE, &lNoCore);
        const FileSizeLimit lLimit(0);
        LOG_ERROR("lost");
    });
    EXPECT_EQ(-SIGXFSZ, statusOf(lChild));
    EXPECT_EQ(Texts(), mFile->lines());
}

TEST_F(LogTest, CallersErrnoIsInHisMessage)
{
    const char* volatile lpFormat = "%m: %s";  // not a literal: the directive is the C library's own
    errno = EXDEV;
    LOG_ERROR(lpFormat, "text");
    EXPECT_EQ(Texts{std::string(strerrordesc_np(EXDEV)) + ": text"}, messagesOf(mFile->lines()));
}

TEST_F(LogTest, LineFeedsInsideTheMessageBecomeBlanks)
{
    LOG_ERROR("%s", "one\ntwo\n\nfour");
    LOG_ERROR("\nat the beginning");
    EXPECT_EQ((Texts{"one two  four", " at the beginning"}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, TrailingLineFeedIsNotDoubled)
{
    LOG_ERROR("Assertion [ %s ] failed\n", "0 != mPointer");
    LOG_ERROR("two of them\n\n");
    LOG_ERROR("\n");
    LOG_ERROR("%s", "");
    EXPECT_EQ((Texts{"Assertion [ 0 != mPointer ] failed", "two of them ", "", ""}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, LineIsCutAt8192Bytes)
{
    sClockStands = true;  // the prefix keeps its length
    sClock.tv_sec = 1234567890;
    sClock.tv_nsec = 0;
    LOG_ERROR("%s", "");
    const size_t lPrefix = mFile->text().size() - 1;
    const size_t lFits = 8192 - lPrefix - 1;
    for (const size_t lLength : {lFits - 1, lFits, lFits + 1, lFits + 2, size_t(8191), size_t(8192), size_t(100000)}) {
        for (const bool lFeed : {false, true}) {
            mFile->empty();
            std::string lMessage(lLength, 'a');
            for (size_t lIndex = 0; lIndex < lLength; ++lIndex) {
                lMessage[lIndex] = static_cast<char>('a' + lIndex % 26);
            }
            LOG_ERROR("%s%s", lMessage.c_str(), lFeed ? "\n" : "");
            const std::string lText = mFile->text();
            EXPECT_GE(8192U, lText.size());
            ASSERT_FALSE(lText.empty());
            EXPECT_EQ('\n', lText[lText.size() - 1]);
            EXPECT_EQ(Texts{lMessage.substr(0, lFits)}, messagesOf(split(lText))) << lLength;
        }
    }
    mFile->empty();
    LOG_ERROR("after it");
    EXPECT_EQ(Texts{"after it"}, messagesOf(mFile->lines()));
}

TEST_F(LogTest, OverlongNameOfAFunctionIsCutToo)
{
    const std::string lFunction(10000, 'f');
    PrintLogMessageWithTimeStamp(8, "-E-", 1, lFunction.c_str(), "file", "message");
    const std::string lText = mFile->text();
    EXPECT_EQ(8192U, lText.size());
    EXPECT_EQ('\n', lText[8191]);
    EXPECT_EQ(1U, mFile->lines().size());
}

TEST_F(LogTest, FormatTakesManyArguments)
{
    LOG_ERROR("%d %u %ld %lu %lld %llu %s %c %x %X %o %% %5d|%-5d|%05d %+d %.3f %e %s %hd %hhu %zu %.2s %*d %p", -1,
              4000000000U, -2000000000L, 4000000000UL, -5000000000LL, 18000000000ULL, "text", 'c', 0xbeefU, 0xBEEFU, 8U,
              42, 42, 42, 7, 1.5, 12345.678, "more", static_cast<short>(-3), static_cast<unsigned char>(200),
              static_cast<size_t>(9), "cut", 4, 5, static_cast<void*>(nullptr));
    EXPECT_EQ((Texts{"-1 4000000000 -2000000000 4000000000 -5000000000 18000000000 text c beef BEEF 10 %    42|42   |"
                     "00042 +7 1.500 1.234568e+04 more -3 200 9 cu    5 (nil)"}),
              messagesOf(mFile->lines()));
}

TEST_F(LogTest, MessageThatCannotBeFormattedIsALineWithoutAMessage)
{
    const wchar_t cNoCharacter[] = {0x7fffffff, 0};  // in no locale
    errno = ENOENT;
    LOG_ERROR("begun %ls", cNoCharacter);
    EXPECT_EQ(ENOENT, errno);
    LOG_ERROR("next");
    EXPECT_EQ((Texts{"", "next"}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, WriteOfNoBytesEndsTheLineInsteadOfBeingRepeatedForEver)
{
    sWritesOfNothing = 2;
    errno = EINTR;  // of an earlier call
    LOG_ERROR("lost");
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1, sWritesOfNothing);
    sWritesOfNothing = 0;
    LOG_ERROR("next");
    EXPECT_EQ((Texts{"next"}), messagesOf(mFile->lines()));
}

TEST_F(LogTest, LineIsOneWrite)
{
    int lEnds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, lEnds));  // keeps each write apart
    SetLogDescriptor(lEnds[1]);
    LOG_ERROR("%s", "short");
    LOG_ERROR("%s", std::string(20000, 'x').c_str());
    LOG_ERROR("last\n");
    char lBuffer[16384];
    const ssize_t lFirst = recv(lEnds[0], lBuffer, sizeof lBuffer, MSG_DONTWAIT);
    EXPECT_EQ(Texts{"short"},
              messagesOf(split(std::string(lBuffer, static_cast<size_t>(std::max<ssize_t>(lFirst, 0))))));
    EXPECT_EQ(8192, recv(lEnds[0], lBuffer, sizeof lBuffer, MSG_DONTWAIT));
    const ssize_t lLast = recv(lEnds[0], lBuffer, sizeof lBuffer, MSG_DONTWAIT);
    EXPECT_EQ(Texts{"last"}, messagesOf(split(std::string(lBuffer, static_cast<size_t>(std::max<ssize_t>(lLast, 0))))));
    EXPECT_EQ(-1, recv(lEnds[0], lBuffer, sizeof lBuffer, MSG_DONTWAIT));
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(LogTest, LineAllocatesNothing)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's";
#else
    const std::string lLong(8000, 'x');
    gMallocFault.failOn(0);
    LOG_ERROR("%s %d %lu %u", lLong.c_str(), 5, 6UL, 7U);
    PrintLogMessageWithTimeStamp(2, "-2-", 1, "f", "f", "filtered");
    EXPECT_EQ(0U, gMallocFault.stop());
    EXPECT_EQ(Texts{lLong + " 5 6 7"}, messagesOf(mFile->lines()));
#endif
}

TEST_F(LogTest, InterruptedAndPartialWritesAreCompleted)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    // All pages but one: half of the line has room. fs.pipe-max-size and the user's other pipes decide how many there are.
    const int cCapacity = fcntl(lEnds[1], F_GETPIPE_SZ);
    ASSERT_LE(4096, cCapacity);
    const size_t cPages = static_cast<size_t>(cCapacity) / 4096 - 1;
    const std::string lPage(4096, '.');
    for (size_t lCount = 0; lCount < cPages; ++lCount) {
        ASSERT_EQ(4096, write(lEnds[1], lPage.data(), lPage.size()));
    }
    SetLogDescriptor(lEnds[1]);
    const std::string lMessage(20000, 'x');
    BlockingThread lWriter([&lMessage] { LOG_ERROR("%s", lMessage.c_str()); });
    for (int lTimes = 0; lTimes < 3; ++lTimes) {
        EXPECT_TRUE(eventually([&lWriter] { return lWriter.blocked() || lWriter.done(); }));
        EXPECT_FALSE(lWriter.done());
        lWriter.interrupt();
    }
    std::string lText;
    const size_t lExpected = cPages * 4096 + 8192;
    ASSERT_EQ(0, fcntl(lEnds[0], F_SETFL, O_NONBLOCK));
    EXPECT_TRUE(eventually([&lText, &lWriter, &lEnds] {
        const bool lDone = lWriter.done();  // asked before the pipe is found empty
        char lBuffer[4096];
        ssize_t lRead;
        while (0 < (lRead = read(lEnds[0], lBuffer, sizeof lBuffer))) {
            lText.append(lBuffer, static_cast<size_t>(lRead));
        }
        return lDone;
    }));
    lWriter.join();
    EXPECT_LT(0, BlockingThread::signals());
    ASSERT_EQ(lExpected, lText.size());
    const std::string lLine = lText.substr(cPages * 4096);
    EXPECT_EQ(std::string::npos, messageOf(lLine).substr(0, 4000).find_first_not_of('x'));
    EXPECT_EQ('\n', lLine[8191]);
    EXPECT_EQ(1, std::count(lLine.begin(), lLine.end(), '\n'));
    close(lEnds[0]);
    close(lEnds[1]);
}

/// A thread that finds its cancellation pending before it logs.
struct Cancelled {
    std::atomic<bool> mReady;
    std::atomic<bool> mGo;
    std::atomic<bool> mWentOn;
};

void* logThenGoOn(void* apCancelled)
{
    Cancelled& lrSelf = *static_cast<Cancelled*>(apCancelled);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    lrSelf.mReady = true;
    while (!lrSelf.mGo) {
        sched_yield();
    }
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    LOG_ERROR("from a cancelled thread");
    PrintLogMessageWithTimeStamp(2, "-2-", 1, "f", "f", "filtered");
    lrSelf.mWentOn = true;
    pthread_testcancel();
    return nullptr;
}

TEST_F(LogTest, PendingCancelDoesNotActInALine)
{
    const int lFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const int lDescriptor : {mFile->descriptor(), lFull, -1}) {
        SetLogDescriptor(lDescriptor);
        Cancelled lCancelled = {{false}, {false}, {false}};
        pthread_t lThread;
        ASSERT_EQ(0, pthread_create(&lThread, nullptr, logThenGoOn, &lCancelled));
        EXPECT_TRUE(eventually([&lCancelled] { return lCancelled.mReady.load(); }));
        EXPECT_EQ(0, pthread_cancel(lThread));
        lCancelled.mGo = true;
        void* lpResult = nullptr;
        EXPECT_EQ(0, pthread_join(lThread, &lpResult));
        EXPECT_EQ(PTHREAD_CANCELED, lpResult) << "the cancellation was not pending";
        EXPECT_TRUE(lCancelled.mWentOn) << lDescriptor;
    }
    close(lFull);
    EXPECT_EQ(Texts{"from a cancelled thread"}, messagesOf(mFile->lines()));
}

TEST_F(LogTest, ChildForkedWhileOthersLogCanLog)
{
    std::atomic<bool> lStop(false);
    const auto lRun = [&lStop] {
        while (!lStop) {
            LOG_ERROR("parent %d %s", 1, "text");
        }
    };
    std::thread lFirst(lRun);
    std::thread lSecond(lRun);
    bool lGoOn = true;
    for (int lChild = 0; lGoOn && lChild < 20; ++lChild) {
        const pid_t lPid = startChild([lChild] { LOG_ERROR("child %d", lChild); });
        int lStatus = -1;
        const bool lEnded = eventually([lPid, &lStatus] { return lPid == waitpid(lPid, &lStatus, WNOHANG); });
        EXPECT_TRUE(lEnded);
        EXPECT_EQ(0, lStatus);
        if (!lEnded) {
            lGoOn = false;
            kill(lPid, SIGKILL);
            waitpid(lPid, nullptr, 0);
        }
    }
    lStop = true;
    lFirst.join();
    lSecond.join();
    Texts lChildren;
    Texts lExpected;
    for (const std::string& lrLine : mFile->lines()) {
        const std::string lMessage = messageOf(lrLine);
        if ("parent 1 text" != lMessage) {
            lChildren.push_back(lMessage);
            lExpected.push_back("child " + std::to_string(lExpected.size()));
        }
    }
    EXPECT_EQ(20U, lChildren.size());
    EXPECT_EQ(lExpected, lChildren);
}

const int cWriters = 8;          // threads of a process
const int cLinesEach = 6250;     // 2 processes with 8 threads: 100,000 lines
const int cLongLineEvery = 500;  // some lines are longer than what a pipe would keep together

std::string messageOfWriter(int aProcess, int aThread, int aLine)
{
    const size_t lLength = 0 == aLine % cLongLineEvery ? 5000 : static_cast<size_t>(aLine * 7 % 90);
    return "process " + std::to_string(aProcess) + " thread " + std::to_string(aThread) + " line " +
           std::to_string(aLine) + " " + std::string(lLength, static_cast<char>('a' + aThread + 8 * aProcess));
}

void logFromThreads(int aProcess)
{
    std::vector<std::thread> lThreads;
    for (int lThread = 0; lThread < cWriters; ++lThread) {
        lThreads.emplace_back([aProcess, lThread] {
            for (int lLine = 0; lLine < cLinesEach; ++lLine) {
                LOG_ERROR("%s", messageOfWriter(aProcess, lThread, lLine).c_str());
            }
        });
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
}

TEST_F(LogTest, LinesOfManyThreadsOfTwoProcessesAreAllWhole)
{
    int lEnds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lEnds));
    const int lSecond = mFile->second();
    const pid_t lChild = startChild([&lEnds, lSecond] {
        SetLogDescriptor(lSecond);
        char lByte = 0;
        EXPECT_EQ(1, write(lEnds[1], &lByte, 1));
        EXPECT_EQ(1, read(lEnds[1], &lByte, 1));
        logFromThreads(1);
    });
    char lByte = 0;
    EXPECT_EQ(1, read(lEnds[0], &lByte, 1));
    EXPECT_EQ(1, write(lEnds[0], &lByte, 1));
    logFromThreads(0);
    EXPECT_EQ(0, statusOf(lChild));
    close(lEnds[0]);
    close(lEnds[1]);

    const std::string lPids[] = {std::to_string(getpid()), std::to_string(lChild)};
    const std::string cStamp = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
    int lNext[2][cWriters] = {};
    std::string lHandles[2][cWriters];
    size_t lSwitches = 0;
    int lLastProcess = 0;
    const Texts lLines = mFile->lines();
    EXPECT_EQ(100000U, lLines.size());
    for (const std::string& lrLine : lLines) {
        int lProcess = -1;
        int lThread = -1;
        const std::string lMessage = messageOf(lrLine);
        ASSERT_EQ(2, sscanf(lMessage.c_str(), "process %d thread %d", &lProcess, &lThread)) << lrLine;
        ASSERT_TRUE(0 <= lProcess && lProcess < 2 && 0 <= lThread && lThread < cWriters) << lrLine;
        // Each thread's lines are all there, in its own order, and each is whole from its first to its last character.
        ASSERT_EQ(messageOfWriter(lProcess, lThread, lNext[lProcess][lThread]++), lMessage);
        ASSERT_TRUE(std::equal(cStamp.begin(), cStamp.end(), lrLine.begin(), [](char aShape, char aCharacter) {
            return 'd' == aShape ? '0' <= aCharacter && aCharacter <= '9' : aShape == aCharacter;
        })) << lrLine;
        const size_t lEnd = lrLine.find(" -E- OsLockFile (.//MiscLinux:88) ");
        ASSERT_NE(std::string::npos, lEnd) << lrLine;
        const std::string lWho = lrLine.substr(cStamp.size(), lEnd - cStamp.size());
        std::string& lrHandle = lHandles[lProcess][lThread];
        if (lrHandle.empty()) {
            lrHandle = lWho;
            ASSERT_EQ(lPids[lProcess] + " ", lWho.substr(0, lPids[lProcess].size() + 1));
        }
        ASSERT_EQ(lrHandle, lWho);
        lSwitches += lLastProcess == lProcess ? 0 : 1;
        lLastProcess = lProcess;
    }
    for (int lThread = 0; lThread < cWriters; ++lThread) {
        EXPECT_EQ(cLinesEach, lNext[0][lThread]);
        EXPECT_EQ(cLinesEach, lNext[1][lThread]);
    }
    EXPECT_LT(1U, lSwitches) << "the processes did not write side by side";
}

[[maybe_unused]] __attribute__((noinline)) void emptyFunction() { __asm__ volatile(""); }

/// Nanoseconds that the fastest of several repetitions takes.
template <class Operation>
int64_t fastest(const Operation& acrOperation)
{
    int64_t lFastest = INT64_MAX;
    for (int lRepetition = 0; lRepetition < 25; ++lRepetition) {
        timespec lBegin;
        timespec lEnd;
        clock_gettime(CLOCK_MONOTONIC, &lBegin);
        for (int lCall = 0; lCall < 40000; ++lCall) {
            acrOperation();
        }
        clock_gettime(CLOCK_MONOTONIC, &lEnd);
        lFastest = std::min<int64_t>(
            lFastest, (lEnd.tv_sec - lBegin.tv_sec) * int64_t(1000000000) + lEnd.tv_nsec - lBegin.tv_nsec);
    }
    return lFastest;
}

TEST_F(LogTest, FilteredLineCostsAtMostTenEmptyCalls)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "the sanitizer's own work would be measured";
#else
    SetLogLevels(cDefaultLevels);
    const int64_t lEmpty = fastest(emptyFunction);
    const int64_t lFiltered = fastest(
        [] { PrintLogMessageWithTimeStamp(128, "-T-", 1, "OsWaitForExit", ".//ThreadLinux", "%s", "Entered"); });
    EXPECT_LE(lFiltered, 10 * lEmpty);
    EXPECT_EQ("", mFile->text());
    RecordProperty("empty_call_picoseconds", static_cast<int>(lEmpty / 40));
    RecordProperty("filtered_line_picoseconds", static_cast<int>(lFiltered / 40));
#endif
}

TEST_F(CompanionTest, StrerrorGivesTheTextOfErrnoAndKeepsIt)
{
    const struct {
        int mErrno;
        const char* mText;
    } cTexts[] = {{0, "Success"},
                  {EPERM, "Operation not permitted"},
                  {ENOENT, "No such file or directory"},
                  {99999, "Unknown error 99999"},
                  {-1, "Unknown error -1"}};
    for (const auto& lrText : cTexts) {
        for (const unsigned int lSize : {256U, 512U}) {
            char lBuffer[512];
            errno = lrText.mErrno;
            const char* const lpText = ClibStrerror(lBuffer, lSize);
            EXPECT_EQ(lrText.mErrno, errno);
            EXPECT_STREQ(lrText.mText, lpText);
            EXPECT_EQ(lBuffer, lpText);
        }
    }
}

TEST_F(CompanionTest, StrerrorCutsAtTheBuffersSize)
{
    for (const int lErrno : {EPERM, 99999}) {
        const std::string lText = EPERM == lErrno ? "Operation not permitted" : "Unknown error 99999";
        for (unsigned int lSize = 0; lSize <= lText.size() + 2; ++lSize) {
            char lBuffer[64];
            memset(lBuffer, '#', sizeof lBuffer);
            errno = lErrno;
            EXPECT_EQ(lBuffer, ClibStrerror(lBuffer, lSize));
            EXPECT_EQ(lErrno, errno);
            if (0 < lSize) {
                EXPECT_EQ(lText.substr(0, lSize - 1), lBuffer);
            }
            EXPECT_EQ(std::string(sizeof lBuffer - lSize, '#'), std::string(lBuffer + lSize, sizeof lBuffer - lSize));
        }
    }
}

TEST_F(CompanionTest, StrerrorIsOfTheCallingThread)
{
    errno = EPERM;
    char lOwn[64];
    char lOther[64];
    std::thread([&lOther] {
        errno = ENOTTY;
        ClibStrerror(lOther, sizeof lOther);
    }).join();
    EXPECT_STREQ("Operation not permitted", ClibStrerror(lOwn, sizeof lOwn));
    EXPECT_STREQ("Inappropriate ioctl for device", lOther);

    std::atomic<int> lWrong(0);
    const auto lRun = [&lWrong](int aErrno) {
        const std::string lExpected = "Unknown error " + std::to_string(aErrno);
        for (int lRound = 0; lRound < 5000; ++lRound) {
            char lBuffer[512];
            errno = aErrno;
            lWrong += lExpected == ClibStrerror(lBuffer, sizeof lBuffer) ? 0 : 1;
        }
    };
    std::thread lFirst(lRun, 70001);
    std::thread lSecond(lRun, 70002);
    lRun(70003);
    lFirst.join();
    lSecond.join();
    EXPECT_EQ(0, lWrong);
}

TEST_F(CompanionTest, ReferenceCountIsOneWordThatCounts)
{
    EXPECT_EQ(4U, sizeof(OQCReferenceCount));
    OQCReferenceCount lCounter(5);
    uint32_t lWord;
    memcpy(&lWord, static_cast<const void*>(&lCounter), sizeof lWord);
    EXPECT_EQ(5U, lWord);
    lCounter.increment();
    memcpy(&lWord, static_cast<const void*>(&lCounter), sizeof lWord);
    EXPECT_EQ(6U, lWord);
    for (unsigned int lLeft = 5; lLeft < 6; --lLeft) {
        EXPECT_EQ(lLeft, lCounter.decrement());
    }
    memcpy(&lWord, static_cast<const void*>(&lCounter), sizeof lWord);
    EXPECT_EQ(0U, lWord);
}

TEST_F(CompanionTest, ReferenceCountLosesNothingAmongThreads)
{
    OQCReferenceCount lCounter(1);
    std::atomic<int> lZeros(0);
    std::atomic<int> lStarted(0);
    const auto lRun = [&lCounter, &lZeros, &lStarted] {
        ++lStarted;
        while (3 != lStarted) {
            sched_yield();
        }
        unsigned int lOwnZeros = 0;
        for (int lRound = 0; lRound < 200000; ++lRound) {
            lCounter.increment();
            lCounter.increment();
            lOwnZeros += 0 == lCounter.decrement() ? 1 : 0;
            lOwnZeros += 0 == lCounter.decrement() ? 1 : 0;
        }
        lZeros += static_cast<int>(lOwnZeros);
    };
    std::thread lFirst(lRun);
    std::thread lSecond(lRun);
    lRun();
    lFirst.join();
    lSecond.join();
    EXPECT_EQ(0, lZeros);
    EXPECT_EQ(0U, lCounter.decrement());
}

TEST_F(CompanionTest, OpenGivesADescriptorOrMinusOne)
{
    const std::string lPath = path("file");
    errno = 0;
    EXPECT_EQ(-1, ClibOpen(lPath.c_str(), O_RDONLY, 0));
    EXPECT_EQ(ENOENT, errno);
    const mode_t lMask = umask(0);
    const int lFile = ClibOpen(lPath.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    umask(lMask);
    ASSERT_LE(0, lFile);
    struct stat lInfo;
    ASSERT_EQ(0, fstat(lFile, &lInfo));
    EXPECT_EQ(static_cast<mode_t>(0640), lInfo.st_mode & 07777);
    EXPECT_EQ(O_RDWR, fcntl(lFile, F_GETFL) & O_ACCMODE);
    const int lSecond = ClibOpen(lPath.c_str(), O_RDONLY, 0);
    EXPECT_LT(lFile, lSecond);
    EXPECT_EQ(0, ClibClose(lSecond));
    EXPECT_EQ(0, ClibClose(lFile));
    EXPECT_EQ(0, ClibUnlink(lPath.c_str()));
}

TEST_F(CompanionTest, CloseAndUnlinkReportAsTheirOriginals)
{
    const std::string lPath = path("file");
    const int lFile = ClibOpen(lPath.c_str(), O_WRONLY | O_CREAT, 0600);
    EXPECT_EQ(0, ClibClose(lFile));
    errno = 0;
    EXPECT_EQ(-1, ClibClose(lFile));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(0, ClibUnlink(lPath.c_str()));
    errno = 0;
    EXPECT_EQ(-1, ClibUnlink(lPath.c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(CompanionTest, WriteAndReadAreOneCallEach)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    EXPECT_EQ(3, ClibWrite(lEnds[1], "abcdef", 3));
    char lBuffer[16] = "";
    EXPECT_EQ(2, ClibRead(lEnds[0], lBuffer, 2));
    EXPECT_STREQ("ab", lBuffer);
    EXPECT_EQ(1, ClibRead(lEnds[0], lBuffer, 10)) << "what is there, not what is asked for";
    EXPECT_EQ('c', lBuffer[0]);
    EXPECT_EQ(0, ClibWrite(lEnds[1], "", 0));
    close(lEnds[1]);
    EXPECT_EQ(0, ClibRead(lEnds[0], lBuffer, 10));
    errno = 0;
    EXPECT_EQ(-1, ClibWrite(lEnds[0], "a", 1));
    EXPECT_EQ(EBADF, errno);
    close(lEnds[0]);
    errno = 0;
    EXPECT_EQ(-1, ClibRead(lEnds[0], lBuffer, 1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(CompanionTest, WriteOfMoreThanThereIsRoomForIsPartial)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC | O_NONBLOCK));
    const std::string lText(1000000, 'x');
    const int lWritten = ClibWrite(lEnds[1], lText.data(), static_cast<unsigned int>(lText.size()));
    EXPECT_LT(0, lWritten);
    EXPECT_GT(1000000, lWritten);
    errno = 0;
    EXPECT_EQ(-1, ClibWrite(lEnds[1], lText.data(), 4096));
    EXPECT_EQ(EAGAIN, errno);
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(CompanionTest, ReadIsEndedByASignal)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    int lResult = 0;
    int lErrno = 0;
    BlockingThread lReader([&lResult, &lErrno, &lEnds] {
        char lByte;
        lResult = ClibRead(lEnds[0], &lByte, 1);
        lErrno = errno;
    });
    EXPECT_TRUE(eventually([&lReader] {
        if (lReader.blocked()) {
            lReader.interrupt();
        }
        return lReader.done();
    }));
    lReader.join();
    EXPECT_EQ(-1, lResult);
    EXPECT_EQ(EINTR, lErrno);
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(CompanionTest, BlockReadGathersPiecesAndGoesOnAfterSignals)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    char lBuffer[16] = "";
    int lResult = 0;
    BlockingThread lReader([&lResult, &lBuffer, &lEnds] { lResult = ClibBlockRead(lEnds[0], lBuffer, 9); });
    for (const char* lpPiece : {"abc", "d", "efghi"}) {
        const int lBefore = BlockingThread::signals();
        EXPECT_TRUE(eventually([&lReader] { return lReader.blocked() || lReader.done(); }));
        if (!lReader.done()) {
            lReader.interrupt();
            EXPECT_TRUE(eventually([lBefore] { return lBefore < BlockingThread::signals(); }));
            EXPECT_TRUE(eventually([&lReader] { return lReader.blocked() || lReader.done(); }));
        }
        EXPECT_FALSE(lReader.done());
        EXPECT_EQ(static_cast<ssize_t>(strlen(lpPiece)), write(lEnds[1], lpPiece, strlen(lpPiece)));
    }
    lReader.join();
    EXPECT_EQ(9, lResult);
    EXPECT_STREQ("abcdefghi", lBuffer);
    EXPECT_EQ(3, BlockingThread::signals());
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(CompanionTest, BlockReadTakesNoMoreThanAskedFor)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    EXPECT_EQ(6, ClibWrite(lEnds[1], "abcdef", 6));
    char lBuffer[8] = "#######";
    EXPECT_EQ(4, ClibBlockRead(lEnds[0], lBuffer, 4));
    EXPECT_STREQ("abcd###", lBuffer);
    EXPECT_EQ(0, ClibBlockRead(lEnds[0], lBuffer, 0));
    EXPECT_EQ(2, ClibRead(lEnds[0], lBuffer, 8));
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(CompanionTest, BlockReadGivesWhatArrivedBeforeTheEnd)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    EXPECT_EQ(3, ClibWrite(lEnds[1], "abc", 3));
    close(lEnds[1]);
    char lBuffer[8] = "";
    EXPECT_EQ(3, ClibBlockRead(lEnds[0], lBuffer, 8));
    EXPECT_STREQ("abc", lBuffer);
    EXPECT_EQ(0, ClibBlockRead(lEnds[0], lBuffer, 8));
    close(lEnds[0]);
}

TEST_F(CompanionTest, BlockReadFailsAsRead)
{
    char lBuffer[8];
    errno = 0;
    EXPECT_EQ(-1, ClibBlockRead(-1, lBuffer, 1));
    EXPECT_EQ(EBADF, errno);
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC | O_NONBLOCK));
    EXPECT_EQ(3, ClibWrite(lEnds[1], "abc", 3));
    errno = 0;
    EXPECT_EQ(-1, ClibBlockRead(lEnds[0], lBuffer, 8)) << "a failure counts, whatever had arrived";
    EXPECT_EQ(EAGAIN, errno);
    close(lEnds[0]);
    close(lEnds[1]);
}

/// Expects an exception of exactly this class with this code and text.
template <class Leaf>
void expectFailure(unsigned int aCode, const std::string& acrText, const std::function<void()>& acrRun)
{
    bool lThrown = false;
    try {
        acrRun();
    } catch (const OQCException& acrFailure) {
        lThrown = true;
        EXPECT_TRUE(typeid(Leaf) == typeid(acrFailure)) << typeid(acrFailure).name();
        EXPECT_EQ(aCode, acrFailure.code());
        EXPECT_EQ(acrText, acrFailure.what());
    }
    EXPECT_TRUE(lThrown);
}

TEST_F(CompanionTest, FreadGivesItemsThenZeroAtTheEnd)
{
    FILE* const lpStream = tmpfile();
    ASSERT_NE(nullptr, lpStream);
    fputs("abcdefghij", lpStream);
    rewind(lpStream);
    char lBuffer[16] = "";
    EXPECT_EQ(2U, ClibFread(lBuffer, 2, 2, lpStream));
    EXPECT_STREQ("abcd", lBuffer);
    EXPECT_EQ(1U, ClibFread(lBuffer, 4, 3, lpStream)) << "items, not bytes";
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 8, lpStream));
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 8, lpStream));
    rewind(lpStream);
    memset(lBuffer, 0, sizeof lBuffer);
    EXPECT_EQ(10U, ClibFread(lBuffer, 1, 15, lpStream));
    EXPECT_STREQ("abcdefghij", lBuffer);
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 15, lpStream));
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 0, lpStream));
    fclose(lpStream);
}

TEST_F(CompanionTest, FreadOfADirectoryThrowsReadFailed)
{
    FILE* const lpStream = fopen("/", "re");
    ASSERT_NE(nullptr, lpStream);
    char lBuffer[8];
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 0, lpStream)) << "nothing was asked for";
    expectFailure<OQCReadFailedEx>(328, "Is a directory", [&] { ClibFread(lBuffer, 1, 8, lpStream); });
    EXPECT_NE(0, ferror(lpStream));
    fclose(lpStream);
}

TEST_F(CompanionTest, FreadOfAWriteOnlyStreamThrowsReadFailed)
{
    FILE* const lpStream = fopen("/dev/null", "we");
    ASSERT_NE(nullptr, lpStream);
    char lBuffer[8];
    expectFailure<OQCReadFailedEx>(328, "Bad file descriptor", [&] { ClibFread(lBuffer, 1, 8, lpStream); });
    fclose(lpStream);
}

/// A stream that gives five bytes, then an error, and from then on the error again or the end of data.
class FailingStream
{
public:
    FailingStream(int aErrno, bool aPasses) : mReads(0), mErrno(aErrno), mPasses(aPasses)
    {
        mStream = fopencookie(this, "r", {read, nullptr, nullptr, nullptr});
    }
    ~FailingStream() { fclose(mStream); }
    FILE* get() const { return mStream; }

private:
    static ssize_t read(void* apSelf, char* apBuffer, size_t)
    {
        FailingStream& lrSelf = *static_cast<FailingStream*>(apSelf);
        ++lrSelf.mReads;
        if (1 == lrSelf.mReads) {
            memcpy(apBuffer, "12345", 5);
            return 5;
        }
        if (2 < lrSelf.mReads && lrSelf.mPasses) {
            return 0;
        }
        errno = lrSelf.mErrno;
        return -1;
    }

    FILE* mStream;
    int mReads;
    int mErrno;
    bool mPasses;
};

TEST_F(CompanionTest, FreadThrowsWhenAnErrorFollowsItemsThatHaveArrived)
{
    const FailingStream lStream(EIO, false);
    char lBuffer[16] = "";
    expectFailure<OQCReadFailedEx>(328, "Input/output error", [&] { ClibFread(lBuffer, 1, 15, lStream.get()); });
    EXPECT_STREQ("12345", lBuffer);
    expectFailure<OQCReadFailedEx>(328, "Input/output error", [&] { ClibFread(lBuffer, 1, 15, lStream.get()); });
}

TEST_F(CompanionTest, FreadReportsAnErrorThatHasPassedUntilTheFlagIsCleared)
{
    const FailingStream lStream(EINTR, true);
    char lBuffer[16] = "";
    expectFailure<OQCReadFailedEx>(328, "Interrupted system call", [&] { ClibFread(lBuffer, 1, 15, lStream.get()); });
    EXPECT_NE(0, ferror(lStream.get()));
    EXPECT_THROW(ClibFread(lBuffer, 1, 15, lStream.get()), OQCReadFailedEx);
    EXPECT_NE(0, ferror(lStream.get()));
    EXPECT_NE(0, feof(lStream.get()));
    clearerr(lStream.get());
    EXPECT_EQ(0U, ClibFread(lBuffer, 1, 15, lStream.get()));
}

TEST_F(CompanionTest, StatFillsInTheInformation)
{
    struct stat lInfo;
    memset(&lInfo, 0, sizeof lInfo);
    EXPECT_EQ(0, ClibStat("/", &lInfo));
    EXPECT_TRUE(S_ISDIR(lInfo.st_mode));
}

TEST_F(CompanionTest, StatOfWhatCannotBeExaminedThrows)
{
    struct stat lInfo;
    const std::string lPath = path("none");
    expectFailure<OQCClibStatFailedEx>(173, "No such file or directory", [&] { ClibStat(lPath.c_str(), &lInfo); });
    expectFailure<OQCClibStatFailedEx>(173, "Not a directory", [&] { ClibStat("/dev/null/none", &lInfo); });
    expectFailure<OQCClibStatFailedEx>(173, "No such file or directory", [&] { ClibStat("", &lInfo); });
}

/// A file of 2 GiB and more is no failure but where the size has 32 bits.
TEST_F(CompanionTest, FileOfThreeGibibytesIsExaminedAndReadWhereItsSizeCanBeTold)
{
    const bool cTellable = 4 < sizeof(off_t);
    const int64_t cSize = int64_t(3) << 30;
    const std::string lPath = path("large");
    const int lFile = open64(lPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(6, write(lFile, "first\n", 6));
    ASSERT_EQ(0, ftruncate64(lFile, cSize));
    close(lFile);
    struct stat lInfo;
    memset(&lInfo, 0x55, sizeof lInfo);
    const struct stat cBefore = lInfo;
    try {
        EXPECT_EQ(0, ClibStat(lPath.c_str(), &lInfo));
        EXPECT_TRUE(cTellable);
        EXPECT_EQ(cSize, static_cast<int64_t>(lInfo.st_size));
    } catch (const OQCClibStatFailedEx& acrFailure) {
        EXPECT_FALSE(cTellable);
        EXPECT_STREQ("Value too large for defined data type", acrFailure.what());
        EXPECT_EQ(173U, acrFailure.code());
        EXPECT_EQ(0, memcmp(&cBefore, &lInfo, sizeof lInfo));
    }
    if (cTellable) {  // the emulator of a 32-bit system opens it all the same
        OQCString lLine("");
        EXPECT_EQ(0, getFirstLineFromFile(lPath.c_str(), lLine));
        EXPECT_STREQ("first", lLine.get());
        const int lOpened = ClibOpen(lPath.c_str(), O_RDONLY | O_CLOEXEC, 0);
        EXPECT_LE(0, lOpened);
        EXPECT_EQ(0, ClibClose(lOpened));
    }
    unlink(lPath.c_str());
}

TEST_F(CompanionTest, GetTimeGivesSecondsAndTheMillisecondsWithin)
{
    const struct {
        long mNanoseconds;
        unsigned short mMilliseconds;
    } cTimes[] = {{0, 0}, {999999, 0}, {1000000, 1}, {500999999, 500}, {999999999, 999}};
    sClockStands = true;
    for (const auto& lrTime : cTimes) {
        sClock.tv_sec = 1234567890;
        sClock.tv_nsec = lrTime.mNanoseconds;
        long lSeconds = 0;
        unsigned short lMilliseconds = 4711;
        ClibGetTime(lSeconds, lMilliseconds);
        EXPECT_EQ(1234567890, lSeconds);
        EXPECT_EQ(lrTime.mMilliseconds, lMilliseconds);
    }
    sClockStands = false;
    const time_t lBefore = time(nullptr);
    long lSeconds = 0;
    unsigned short lMilliseconds = 4711;
    ClibGetTime(lSeconds, lMilliseconds);
    EXPECT_LE(static_cast<long>(lBefore) - 1, lSeconds);  // time() may lag behind the fine clock
    EXPECT_GE(static_cast<long>(time(nullptr)) + 1, lSeconds);
    EXPECT_GT(1000, lMilliseconds);
}

int64_t monotonicNanoseconds()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return lNow.tv_sec * int64_t(1000000000) + lNow.tv_nsec;
}

TEST_F(CompanionTest, SleepLastsAtLeastItsMilliseconds)
{
    for (const unsigned long lMilliseconds : {0UL, 1UL, 20UL, 1001UL}) {
        const int64_t lBegin = monotonicNanoseconds();
        ClibSleepMS(lMilliseconds);
        const int64_t lTook = monotonicNanoseconds() - lBegin;
        EXPECT_LE(static_cast<int64_t>(lMilliseconds) * 1000000, lTook);
        EXPECT_GT(static_cast<int64_t>(lMilliseconds) * 1000000 + 5000000000LL, lTook);
    }
}

TEST_F(CompanionTest, SleepGoesOnAfterASignal)
{
    int lSignals = 0;
    for (int lAttempt = 0; 0 == lSignals && lAttempt < 50; ++lAttempt) {  // a busy machine may let a sleep pass by
        int64_t lTook = 0;
        BlockingThread lSleeper([&lTook] {
            const int64_t lBegin = monotonicNanoseconds();
            ClibSleepMS(200);
            lTook = monotonicNanoseconds() - lBegin;
        });
        for (int lSignal = 0; lSignal < 3; ++lSignal) {
            EXPECT_TRUE(eventually([&lSleeper] { return lSleeper.blocked() || lSleeper.done(); }));
            if (!lSleeper.done()) {
                lSleeper.interrupt();
            }
        }
        lSleeper.join();
        lSignals = BlockingThread::signals();
        EXPECT_LE(200000000, lTook);
    }
    EXPECT_LT(0, lSignals);
}

TEST_F(CompanionTest, GethostnameIsTheHostsName)
{
    char lExpected[128] = "";
    char lName[128] = "";
    ASSERT_EQ(0, gethostname(lExpected, sizeof lExpected));
    EXPECT_EQ(0, ClibGethostname(lName, sizeof lName));
    EXPECT_STREQ(lExpected, lName);
    EXPECT_NE('\0', lName[0]);
}

TEST_F(CompanionTest, GethostnameCutsANameThatDoesNotFitAndDoesNotTerminateIt)
{
    char lExpected[128] = "";
    char lName[128];
    ASSERT_EQ(0, gethostname(lExpected, sizeof lExpected));
    memset(lName, '#', sizeof lName);
    errno = 0;
    EXPECT_EQ(-1, ClibGethostname(lName, 1));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_EQ(lExpected[0], lName[0]);
    EXPECT_EQ('#', lName[1]);
}

TEST_F(CompanionTest, MemoryFunctionsReturnTheDestination)
{
    char lBuffer[8] = "#######";
    EXPECT_EQ(lBuffer, ClibMemcpy(lBuffer, "a\0b", 3));
    EXPECT_EQ(0, memcmp("a\0b####", lBuffer, 8));
    EXPECT_EQ(lBuffer, ClibMemcpy(lBuffer, "xyz", 0));
    EXPECT_EQ('a', lBuffer[0]);
    EXPECT_EQ(lBuffer + 1, ClibMemset(lBuffer + 1, 'z', 2));
    EXPECT_EQ(0, memcmp("azz####", lBuffer, 8));
    EXPECT_EQ(lBuffer, ClibMemset(lBuffer, 0x141, 1)) << "the value's low byte counts";
    EXPECT_EQ('A', lBuffer[0]);
    EXPECT_EQ(lBuffer, ClibMemset(lBuffer, 0, 0));
    EXPECT_EQ('A', lBuffer[0]);
}

TEST_F(CompanionTest, StrcpyCopiesTextWithItsEnd)
{
    char lBuffer[8] = "#######";
    EXPECT_EQ(lBuffer, ClibStrcpy(lBuffer, "abc"));
    EXPECT_EQ(0, memcmp("abc\0###", lBuffer, 8));
    EXPECT_EQ(lBuffer, ClibStrcpy(lBuffer, ""));
    EXPECT_EQ(0, memcmp("\0bc\0###", lBuffer, 8));
}

TEST_F(CompanionTest, StrcpyBearsTextsThatOverlap)
{
    const std::string lText = "No such file or directory, and a text that is long enough for copies in words";
    char lBuffer[256];
    strcpy(lBuffer, lText.c_str());
    EXPECT_EQ(lBuffer, ClibStrcpy(lBuffer, lBuffer));
    EXPECT_EQ(lText, lBuffer);
    for (const size_t lOffset : {1U, 3U, 8U, 40U}) {
        strcpy(lBuffer, lText.c_str());
        EXPECT_EQ(lBuffer, ClibStrcpy(lBuffer, lBuffer + lOffset));
        EXPECT_EQ(lText.substr(lOffset), lBuffer);
        strcpy(lBuffer, lText.c_str());
        EXPECT_EQ(lBuffer + lOffset, ClibStrcpy(lBuffer + lOffset, lBuffer));
        EXPECT_EQ(lText.substr(0, lOffset) + lText, lBuffer);
    }
}

TEST_F(CompanionTest, StrlenCountsUpToTheEnd)
{
    EXPECT_EQ(0U, ClibStrlen(""));
    EXPECT_EQ(3U, ClibStrlen("abc"));
    EXPECT_EQ(1U, ClibStrlen("a\0bc"));
    EXPECT_EQ(100000U, ClibStrlen(std::string(100000, 'x').c_str()));
}

TEST_F(CompanionTest, StrncmpComparesTheFirstCharacters)
{
    EXPECT_EQ(0, ClibnStrcmp("lo", "lo0", 2));
    EXPECT_NE(0, ClibnStrcmp("lo", "lo0", 3));
    EXPECT_EQ(0, ClibnStrcmp("abc", "abd", 2));
    EXPECT_GT(0, ClibnStrcmp("abc", "abd", 3));
    EXPECT_LT(0, ClibnStrcmp("abd", "abc", 3));
    EXPECT_EQ(0, ClibnStrcmp("x", "y", 0));
    EXPECT_EQ(0, ClibnStrcmp("ab", "ab", 100));
}

TEST_F(CompanionTest, NtohlTakesTheBytesInNetworkOrder)
{
    const unsigned char cBytes[] = {127, 0, 0, 1};
    unsigned int lValue;
    memcpy(&lValue, cBytes, sizeof lValue);
    EXPECT_EQ(0x7F000001U, ClibNtohl(lValue));
    EXPECT_EQ(0xFFFFFFFFU, ClibNtohl(0xFFFFFFFFU));
    EXPECT_EQ(0U, ClibNtohl(0));
}

TEST_F(CompanionTest, SprintfFormatsAndCounts)
{
    char lBuffer[256];
    EXPECT_EQ(9, ClibSprintf(lBuffer, "%s %d-%u%%", "abc", -1, 2U));
    EXPECT_STREQ("abc -1-2%", lBuffer);
    EXPECT_EQ(0, ClibSprintf(lBuffer, "%s", ""));
    EXPECT_STREQ("", lBuffer);
    EXPECT_EQ(200, ClibSprintf(lBuffer, "%s", std::string(200, 'x').c_str()));
    EXPECT_EQ(std::string(200, 'x'), lBuffer);
}

/// A file with contents that are gone at the end.
class TextFile
{
public:
    TextFile(const std::string& acrPath, const std::string& acrContents) : mPath(acrPath)
    {
        FILE* const lpFile = fopen(mPath.c_str(), "we");
        fwrite(acrContents.data(), 1, acrContents.size(), lpFile);
        fclose(lpFile);
    }
    ~TextFile() { unlink(mPath.c_str()); }

private:
    std::string mPath;
};

TEST_F(CompanionTest, FirstLineIsReadWithoutItsEnd)
{
    const struct {
        std::string mContents;
        std::string mLine;
    } cFiles[] = {
        {"Release 5.4\nand more\n", "Release 5.4"},
        {"only line\n", "only line"},
        {"no end", "no end"},
        {"\nsecond\n", ""},
        {"", ""},
        {"two\n\nempty", "two"},
        {"with return\r\n", "with return\r"},
        {std::string(1000000, 'x') + "\nshort\n", std::string(1000000, 'x')},
        {std::string(70000, 'y'), std::string(70000, 'y')},
        {std::string("zero\0inside\n", 12), "zero"},
    };
    for (const auto& lrFile : cFiles) {
        const TextFile lFile(path("file"), lrFile.mContents);
        OQCString lLine("old text");
        EXPECT_EQ(0, getFirstLineFromFile(path("file").c_str(), lLine)) << lrFile.mContents.substr(0, 80);
        EXPECT_EQ(lrFile.mLine, lLine.get());
    }
}

TEST_F(CompanionTest, LineIsUntouchedWhenTheFileCannotBeRead)
{
    OQCString lLine("old text");
    const char* const lpText = lLine.get();
    errno = 0;
    EXPECT_EQ(-1, getFirstLineFromFile(path("none").c_str(), lLine));
    EXPECT_EQ(ENOENT, errno);
    errno = 0;
    EXPECT_EQ(-1, getFirstLineFromFile("/", lLine));
    EXPECT_EQ(EISDIR, errno);
    errno = 0;
    EXPECT_EQ(-1, getFirstLineFromFile("/dev/null/none", lLine));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(-1, getFirstLineFromFile("", lLine));
    EXPECT_EQ(lpText, lLine.get());
    EXPECT_STREQ("old text", lLine.get());
}

TEST_F(CompanionTest, LineIsUntouchedWhenTheReadFailsInItsMiddle)
{
    const std::string lPath = path("fifo");
    ASSERT_EQ(0, mkfifo(lPath.c_str(), 0600));
    const int lFifo = open(lPath.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(7, write(lFifo, "partial", 7));
    OQCString lLine("old text");
    int lResult = 0;
    int lErrno = 0;
    BlockingThread lReader([&] {
        lResult = getFirstLineFromFile(lPath.c_str(), lLine);
        lErrno = errno;
    });
    EXPECT_TRUE(eventually([&] {
        int lUnread = -1;
        if (0 == ioctl(lFifo, FIONREAD, &lUnread) && 0 == lUnread && lReader.blocked()) {
            lReader.interrupt();
        }
        return lReader.done();
    }));
    lReader.join();
    EXPECT_EQ(-1, lResult);
    EXPECT_EQ(EINTR, lErrno);
    EXPECT_STREQ("old text", lLine.get());
    close(lFifo);
    unlink(lPath.c_str());
}

size_t allocatedBytes()
{
    const struct mallinfo2 lInfo = mallinfo2();
    return lInfo.uordblks + lInfo.hblkhd;
}

TEST_F(CompanionTest, CancelledReadOfAFirstLineFreesWhatItHasRead)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the sanitizers have an allocator of their own";
    }
    const std::string lPath = path("fifo");
    ASSERT_EQ(0, mkfifo(lPath.c_str(), 0600));
    const size_t cLength = 1 << 20;
    const size_t lBefore = allocatedBytes();
    {
        std::thread lReader([&] {
            OQCString lLine("");
            getFirstLineFromFile(lPath.c_str(), lLine);
        });
        const int lWriter = open(lPath.c_str(), O_WRONLY | O_CLOEXEC);
        const std::string lHalfALine(cLength, 'x');
        EXPECT_EQ(static_cast<ssize_t>(cLength), write(lWriter, lHalfALine.data(), cLength));
        EXPECT_EQ(0, pthread_cancel(lReader.native_handle()));
        lReader.join();
        close(lWriter);
    }
    EXPECT_GT(lBefore + cLength / 2, allocatedBytes());
    unlink(lPath.c_str());
}

TEST_F(CompanionTest, LineIsUntouchedWhenMemoryIsExhausted)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    const std::string lExpected(100, 'x');
    const TextFile lFile(path("file"), lExpected + "\n");
    const OQCString lPath(path("file").c_str());
    const std::set<std::string> lDescriptors = openDescriptors();
    unsigned int lFailures = 0;
    bool lReached = true;
    for (unsigned int lNth = 1; lReached && lNth < 100; ++lNth) {
        OQCString lLine("old text that is long enough to need memory of its own");
        int lResult = -2;
        bool lThrown = false;
        gMallocFault.failOn(lNth);
        try {
            lResult = getFirstLineFromFile(lPath, lLine);
            lReached = lNth <= gMallocFault.stop();
        } catch (const OQCException& acrFailure) {
            gMallocFault.stop();
            lThrown = true;
            EXPECT_TRUE(typeid(OQCNoMemoryEx) == typeid(acrFailure));
        }
        if (lThrown || 0 != lResult) {
            ++lFailures;
            EXPECT_STREQ("old text that is long enough to need memory of its own", lLine.get());
        } else {
            EXPECT_EQ(lExpected, lLine.get());
        }
        EXPECT_EQ(lDescriptors, openDescriptors()) << lNth;
    }
    EXPECT_FALSE(lReached);
    EXPECT_LE(5U, lFailures);
#endif
}

TEST_F(CompanionTest, PathsAndLinesMayBeTheSameString)
{
    const TextFile lFile(path("file"), "the line\n");
    OQCString lBoth(path("file").c_str());
    EXPECT_EQ(0, getFirstLineFromFile(lBoth, lBoth));
    EXPECT_STREQ("the line", lBoth.get());
}

}  // namespace
