// How the functions of the companion end.

#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>

#include "OQCompanionSettings.h"
#include "Outcome.h"

namespace
{

const Family cFamily(
    "Companion", "companion",
    "A wrapper reports a failure as the wrapped function does, and leaves `errno` as that function set it. Only two "
    "wrappers throw. No wrapper logs. For the log function, the third column says what it writes.",
    {});

// Looked up in the companion's library, because this program also defines functions with these names.
const auto cLog = reinterpret_cast<decltype(&PrintLogMessageWithTimeStamp)>(
    dlsym(RTLD_NEXT, "_Z28PrintLogMessageWithTimeStampjPKcjS0_S0_S0_z"));
const auto cSprintf = reinterpret_cast<decltype(&ClibSprintf)>(dlsym(RTLD_NEXT, "_Z11ClibSprintfPcPKcz"));

const char* const cMinusOne = "returns -1, `errno` set";
char sBuffer[16];

/// Plans that the companion's calls fail, and shows them.
template <class Substituted, class Value>
void failIn(Substituted& arSubstitute, Value aResult, int aErrno)
{
    recordCompanion();
    arSubstitute.show();
    arSubstitute.fail(aResult, aErrno);
}

/// The results of successive calls: numbers of bytes, or errors as negative numbers.
class Results
{
public:
    explicit Results(const std::vector<long>& acrResults) : mResults(acrResults) {}
    long next(long aLater)
    {
        const long lResult = mNext < mResults.size() ? mResults[mNext++] : aLater;
        errno = lResult < 0 ? static_cast<int>(-lResult) : errno;
        return std::max(lResult, -1L);
    }

private:
    const std::vector<long> mResults;
    size_t mNext = 0;
};

/// The companion's log, which writes all levels to descriptor 1000. The writes go to memory, and the clock shows the last
/// second of 1999. If a write takes the whole rest of a line, its event shows the result "rest".
class Log
{
public:
    explicit Log(const std::vector<long>& acrResults = {}) : mResults(acrResults)
    {
        mText.reserve(10000);
        SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace);
        SetLogDescriptor(1000);
        recordCompanion();
        nameNumber("rest", &mRest);
        substitute::clock_gettime.hide();
        substitute::clock_gettime.instead([this](clockid_t, timespec* apTime) {
            *apTime = {mSeconds, 1999};
            errno = EXDEV;
            return 0;
        });
        substitute::syscall.show();
        substitute::syscall.instead([this](long, long, long aText, long aLength, long, long, long) {
            const long lResult = std::min(aLength, mResults.next(LONG_MAX));
            mText.append(reinterpret_cast<const char*>(aText), lResult < 0 ? 0 : static_cast<size_t>(lResult));
            mRest = lResult == aLength ? static_cast<int>(lResult) : mRest;
            return lResult;
        });
    }
    ~Log()
    {
        EXPECT_EQ(EINTR, mErrno) << "the log has changed errno";
        SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information);
        SetLogDescriptor(STDERR_FILENO);
    }
    template <class... Values>
    void write(const char* acFormat, Values... aValues)
    {
        errno = mErrno;
        cLog(OQLL_Error, "-E-", 88, "OsLockFile", ".//MiscLinux", acFormat, aValues...);
        mErrno = errno;
    }
    static std::string line(const std::string& acrMessage)
    {
        return "1999-12-31T23:59:59.000001Z " + std::to_string(getpid()) + " " +
               std::to_string(static_cast<unsigned long>(pthread_self())) + " -E- OsLockFile (.//MiscLinux:88) " +
               acrMessage + "\n";
    }

    std::string mText;
    time_t mSeconds = 946684799;
    int mErrno = EINTR;

private:
    Results mResults;
    int mRest = -1;
};

OUTCOME(PrintLogMessageWithTimeStamp, WritesOneLine)
{
    Log lLog;
    substitute::clock_gettime.show();
    mWhen = "the line's level is enabled";
    mTells = "one line: time, process, thread, tag, function, file, line and message";
    mTrace = "clock_gettime(CLOCK_REALTIME, local) = 0\nsyscall(SYS_write, 1000) = rest";
    mStays = "`errno`";
    unsigned int lAllocations = 1;
    run([&] {
        lLog.write("%m: %d%% of %s", 7, "all");
        lAllocations = FailingMemory::taken();
    });
    EXPECT_EQ(0U, lAllocations);
    EXPECT_EQ(Log::line("Interrupted system call: 7% of all"), lLog.mText);
}

OUTCOME(PrintLogMessageWithTimeStamp, WritesTheTimeInUtc)
{
    Log lLog;
    substitute::syscall.hide();
    setenv("TZ", "XYZ-9:30", 1);
    tzset();
    const time_t cEnd = static_cast<time_t>(sizeof(time_t) < 8 ? INT_MAX - 86400 : 253402300800LL);  // 2038 or 10000
    unsigned int lWrong = 0;
    mWhen = "any time zone, from 1970 to 9999 (on 32-bit systems to 2037)";
    mTells = "the time is in UTC";
    mStays = "`errno`";
    run([&] {
        for (time_t& lrDay = lLog.mSeconds = 86399; lrDay < cEnd;
             lrDay += lrDay < INT_MAX - 86400 ? 86400 : 590 * 86400) {
            tm lTime;
            char lText[64];
            strftime(lText, sizeof lText, "%Y-%m-%dT%H:%M:%S.000001Z ", gmtime_r(&lrDay, &lTime));
            lLog.mText.clear();
            lLog.write("a day");
            lWrong += 0 == lLog.mText.compare(0, strlen(lText), lText) ? 0 : 1;
        }
    });
    EXPECT_EQ(0U, lWrong);
    unsetenv("TZ");
}

OUTCOME(PrintLogMessageWithTimeStamp, DoesNothingWhenTheLevelIsDisabled)
{
    Log lLog;
    SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information);
    const char* volatile lpNowhere = reinterpret_cast<const char*>(1);
    mWhen = "the line's level is disabled";
    mTells = "no text and no value is read";
    mStays = "`errno`";
    run([&] {
        errno = lLog.mErrno;
        cLog(OQLL_Trace, lpNowhere, 1, lpNowhere, lpNowhere, lpNowhere, lpNowhere);
        lLog.mErrno = errno;
    });
    EXPECT_EQ("", lLog.mText);
}

OUTCOME_OF_ERRORS(PrintLogMessageWithTimeStamp, DropsTheLineWhenTheWriteFails, EAGAIN, EBADF, EDESTADDRREQ, EDQUOT,
                  EFAULT, EFBIG, EINVAL, EIO, ENOSPC, EPERM, EPIPE, 0)
{
    Log lLog({-error()});
    mWhen = "the line cannot be written (disk full, closed, not open for writing, a full pipe that does not block)";
    mTells = "the line is dropped";
    mTrace = std::string("syscall(SYS_write, 1000) = ") + (0 == error() ? "0" : "-1 ERROR") +
             "\nsyscall(SYS_write, 1000) = rest";
    mStays = "`errno`; the next line is whole";
    run([&] {
        lLog.write("lost");
        lLog.write("next");
    });
    EXPECT_EQ(Log::line("next"), lLog.mText);
}

OUTCOME_OF_ERRORS(PrintLogMessageWithTimeStamp, DropsTheRestOfALineThatIsWrittenInPart, EAGAIN, EFBIG, EIO, ENOSPC)
{
    Log lLog({20, -error(), LONG_MAX, 1, -error()});
    mWhen = "the line can be written only in part";
    mTells = "the rest of the line is dropped; the next line to that descriptor begins with a line feed";
    mTrace = R"(
        syscall(SYS_write, 1000) = 20
        syscall(SYS_write, 1000) = -1 ERROR
        syscall(SYS_write, 1001) = rest
        syscall(SYS_write, 1000) = 1
        syscall(SYS_write, 1000) = -1 ERROR
        syscall(SYS_write, 1000) = rest
    )";
    mStays = "`errno`";
    run([&] {
        lLog.write("cut");
        SetLogDescriptor(1001);
        lLog.write("else");
        SetLogDescriptor(1000);
        lLog.write("cut after its line feed");
        lLog.write("next");
    });
    EXPECT_EQ(Log::line("").substr(0, 20) + Log::line("else") + "\n" + Log::line("next"), lLog.mText);
}

OUTCOME(PrintLogMessageWithTimeStamp, WritesTheRestOfALineAfterAnInterruption)
{
    Log lLog({-EINTR, 30, -EINTR});
    mWhen = "the write is interrupted, or writes a part";
    mTells = "the rest is written";
    mTrace = R"(
        syscall(SYS_write, 1000) = -1 EINTR
        syscall(SYS_write, 1000) = 30
        syscall(SYS_write, 1000) = -1 EINTR
        syscall(SYS_write, 1000) = rest
    )";
    mStays = "`errno`";
    run([&] { lLog.write("whole"); });
    EXPECT_EQ(Log::line("whole"), lLog.mText);
}

OUTCOME(PrintLogMessageWithTimeStamp, RaisesASignalAtTheLimitOfFileSizes)
{
    Log lLog;
    FILE* const lpFile = tmpfile();
    substitute::syscall.instead([lpFile](long a, long, long c, long d, long, long, long) {
        return substitute::syscall.real(a, fileno(lpFile), c, d, 0, 0, 0);
    });
    mWhen = "the file has reached `RLIMIT_FSIZE`";
    mTells = "`SIGXFSZ` ends the process unless it is handled or ignored";
    mTrace = "syscall(SYS_write, 1000)\nkilled by signal " + std::to_string(SIGXFSZ);
    runInChild([&] {
        const rlimit cNone = {0, 0};
        setrlimit(RLIMIT_CORE, &cNone);
        setrlimit(RLIMIT_FSIZE, &cNone);
        lLog.write("lost");
    });
    fclose(lpFile);
}

OUTCOME(PrintLogMessageWithTimeStamp, WritesNoMessageWhenItCannotBeFormatted)
{
    Log lLog;
    const wchar_t cNoCharacter[] = {0x7fffffff, 0};
    mWhen = "the message cannot be formatted (a wide character that no locale has)";
    mTells = "the line has no message";
    mTrace = "syscall(SYS_write, 1000) = rest";
    mStays = "`errno`";
    run([&] { lLog.write("begun %ls", cNoCharacter); });
    EXPECT_EQ(Log::line(""), lLog.mText);
}

OUTCOME(PrintLogMessageWithTimeStamp, CutsALineOfMoreThan8192Bytes)
{
    Log lLog;
    const std::string lLong(9000, 'x');
    mWhen = "the line is longer than 8192 bytes";
    mTells = "the line is cut to 8192 bytes and still ends with a line feed";
    mTrace = "syscall(SYS_write, 1000) = rest";
    mStays = "`errno`";
    run([&] { lLog.write("%s", lLong.c_str()); });
    EXPECT_EQ(Log::line(lLong).substr(0, 8191) + "\n", lLog.mText);
}

/// Contains no objects, because sanitizers do not see the destructors that run when a thread is cancelled.
void* writeThenEnd(void* apWrite)
{
    (*static_cast<std::function<void()>*>(apWrite))();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    return nullptr;
}

OUTCOME(PrintLogMessageWithTimeStamp, WritesTheLineOfACancelledThread)
{
    Log lLog;
    bool lIsWritten = false;
    mWhen = "the calling thread has a pending cancellation request";
    mTells = "writing the line is not a cancellation point";
    mTrace = "pthread_cancel(itself) = 0\nsyscall(SYS_write, 1000) = rest";
    mStays = "`errno`; the request stays pending";
    std::function<void()> lWrite = [&] {
        run([&] {
            pthread_cancel(pthread_self());
            lLog.write("text");
            pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        });
        lIsWritten = Log::line("text") == lLog.mText;
    };
    pthread_t lThread;
    void* lpEnd = nullptr;
    pthread_create(&lThread, nullptr, writeThenEnd, &lWrite);
    pthread_join(lThread, &lpEnd);
    EXPECT_EQ(PTHREAD_CANCELED, lpEnd);
    EXPECT_TRUE(lIsWritten);
}

/// A stream whose reads have these results. After them, the data ends. Each read gives the same letters.
class Stream
{
public:
    explicit Stream(const std::vector<long>& acrResults) : mResults(acrResults)
    {
        mStream = fopencookie(this, "r", {read, nullptr, nullptr, nullptr});
        setvbuf(mStream, mBuffer, _IOFBF, sizeof mBuffer);
        recordCompanion();
    }
    ~Stream()
    {
        if (nullptr != mStream) {
            fclose(mStream);
        }
    }
    operator FILE*() const { return mStream; }
    FILE* release() { return std::exchange(mStream, nullptr); }

private:
    static ssize_t read(void* apSelf, char* apBuffer, size_t)
    {
        const long lResult = static_cast<Stream*>(apSelf)->mResults.next(0);
        memcpy(apBuffer, "abcde", lResult < 0 ? 0 : static_cast<size_t>(lResult));
        return lResult;
    }

    Results mResults;
    char mBuffer[64];
    FILE* mStream;
};

/// A string that is shown as "line" and must keep its text.
class Line
{
public:
    explicit Line(const char* acPath) : mPath(acPath), mLine("old text") { nameObject("line", &mLine); }
    ~Line() { EXPECT_STREQ("old text", mLine.get()); }
    void read()
    {
        getFirstLineFromFile(mPath, mLine);
        mErrno = errno;
    }
    int mErrno = 0;

private:
    const OQCString mPath;
    OQCString mLine;
};

OUTCOME_OF_ERRORS(getFirstLineFromFile, FailsWhenTheFileCannotBeOpened, EACCES, EINTR, EISDIR, ELOOP, EMFILE,
                  ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOTDIR, ENXIO, EOVERFLOW, EPERM)
{
    Line lLine("file");
    failIn(substitute::fopen, static_cast<FILE*>(nullptr), error());
    mWhen = "the file cannot be opened";
    mTells = cMinusOne;
    mTrace = "getFirstLineFromFile(\"file\", line) = -1\nfopen(\"file\", \"re\") = null";
    mStays = "the line";
    run([&] { lLine.read(); });
    EXPECT_EQ(error(), lLine.mErrno);
}

OUTCOME_OF_ERRORS(getFirstLineFromFile, FailsWhenTheFileCannotBeRead, EAGAIN, EBADF, EINTR, EINVAL, EIO, EISDIR)
{
    Line lLine("file");
    Stream lStream({5, -error()});
    substitute::fopen.instead([&](const char*, const char*) { return lStream.release(); });
    mNeedsMemory = true;
    mWhen = "the file cannot be read, or not to the end of the line";
    mTells = cMinusOne;
    mTrace = "getFirstLineFromFile(\"file\", line) = -1";
    mStays = "the line; the file is closed";
    run([&] { lLine.read(); });
#ifndef __SANITIZE_THREAD__  // its fclose() changes errno
    EXPECT_EQ(error(), lLine.mErrno);
#endif
}

OUTCOME(getFirstLineFromFile, ReadsAnEmptyLineFromAnEmptyFile)
{
    OQCString lLine("old text");
    mNeedsMemory = true;
    mWhen = "the file is empty";
    mTells = "returns 0, the line is empty";
    mTrace = "getFirstLineFromFile(\"/dev/null\", memory) = 0";
    run([&] { getFirstLineFromFile("/dev/null", lLine); });
    EXPECT_STREQ("", lLine.get());
}

// The third allocation is the stream's buffer. Without it, the C library reads byte by byte.
OUTCOME_OF_ALLOCATIONS(getFirstLineFromFile, FailsWithoutMemory, 1, 2)
{
    Line lLine("/proc/version");
    mWhen = "no memory for the stream or its line";
    mTells = cMinusOne;
    mTrace = "getFirstLineFromFile(\"/proc/version\", line) = -1";
    mStays = "the line; the file is closed";
    run([&] { lLine.read(); });
    EXPECT_EQ(ENOMEM, lLine.mErrno);
}

OUTCOME_OF_ALLOCATIONS(getFirstLineFromFile, ThrowsWithoutMemoryForTheCopyOfTheLine, 4, 5, 6, 7)
{
    Line lLine("/proc/version");
    mWhen = "no memory for the copy of the line";
    mTrace = "getFirstLineFromFile(\"/proc/version\", line)\nthrows OQCNoMemoryEx 2 \"Out of Memory\"";
    mStays = "the line; the file is closed";
    run([&] { lLine.read(); });
}

// A row of a wrapper that reports a failure as the wrapped function does:
// FAILS_AS(function, wrapper, arguments, the arguments as events show them, condition, errors...)
#define FAILS_AS(function, wrapper, arguments, shown, when, ...)                 \
    OUTCOME_OF_ERRORS(wrapper, ReturnsMinusOneWhenItsFunctionFails, __VA_ARGS__) \
    {                                                                            \
        failIn(substitute::function, -1, error());                               \
        mWhen = when;                                                            \
        mTells = cMinusOne;                                                      \
        mTrace = #wrapper shown " = -1 ERROR\n" #function shown " = -1 ERROR";   \
        run([] { wrapper arguments; });                                          \
    }
FAILS_AS(open, ClibOpen, ("file", O_RDWR | O_CREAT, 0640), "(\"file\", O_RDWR|O_CREAT, 0640)", "`open` fails", EACCES,
         EBADF, EBUSY, EDQUOT, EEXIST, EFAULT, EFBIG, EINTR, EINVAL, EISDIR, ELOOP, EMFILE, ENAMETOOLONG, ENFILE,
         ENODEV, ENOENT, ENOMEM, ENOSPC, ENOTDIR, ENXIO, EOPNOTSUPP, EOVERFLOW, EPERM, EROFS, ETXTBSY, EWOULDBLOCK)
FAILS_AS(read, ClibRead, (5, sBuffer, 8), "(5, memory, 8)", "`read` fails, a signal included", EAGAIN, EBADF, EFAULT,
         EINTR, EINVAL, EIO, EISDIR)
FAILS_AS(write, ClibWrite, (5, sBuffer, 8), "(5, memory, 8)", "`write` fails", EAGAIN, EBADF, EDESTADDRREQ, EDQUOT,
         EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE)
FAILS_AS(close, ClibClose, (5), "(5)", "`close` fails", EBADF, EINTR, EIO, ENOSPC, EDQUOT)
FAILS_AS(unlink, ClibUnlink, ("file"), "(\"file\")", "`unlink` fails", EACCES, EBADF, EBUSY, EFAULT, EINVAL, EIO,
         EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS)
FAILS_AS(gethostname, ClibGethostname, (sBuffer, 8), "(memory, 8)", "`gethostname` fails", EFAULT, EINVAL, EPERM)

OUTCOME(ClibGethostname, CutsANameThatDoesNotFit)
{
    char lName[256] = "";
    gethostname(lName, sizeof lName);
    strcpy(sBuffer, "####");
    mWhen = "the name does not fit";
    mTells = cMinusOne;
    mTrace = "ClibGethostname(memory, 1) = -1 ENAMETOOLONG";
    mStays = "the buffer holds what fits, not terminated";
    run([] { ClibGethostname(sBuffer, 1); });
    EXPECT_EQ(std::string(1, lName[0]) + "###", sBuffer);
}

OUTCOME(ClibWrite, ReturnsThePartThatIsWritten)
{
    failIn(substitute::write, 3, 0);
    mWhen = "`write` writes a part";
    mTells = "returns the part";
    mTrace = "ClibWrite(5, memory, 8) = 3\nwrite(5, memory, 8) = 3";
    run([] { ClibWrite(5, sBuffer, 8); });
}

/// Plans the results of the companion's reads. After them, the data ends.
void planReads(const std::vector<long>& acrResults)
{
    const auto lResults = std::make_shared<Results>(acrResults);
    recordCompanion();
    substitute::read.show();
    substitute::read.instead([lResults](int, void*, size_t) { return static_cast<ssize_t>(lResults->next(0)); });
}

OUTCOME(ClibBlockRead, GoesOnAfterAPartAndAnInterruption)
{
    planReads({3, -EINTR, 1, 5});
    nameObject("buffer", sBuffer);
    nameObject("buffer + 3", sBuffer + 3);
    nameObject("buffer + 4", sBuffer + 4);
    mWhen = "a part arrives, or a signal interrupts a read";
    mTells = "the wrapper continues";
    mTrace = R"(
        ClibBlockRead(5, buffer, 9) = 9
        read(5, buffer, 9) = 3
        read(5, buffer + 3, 6) = -1 EINTR
        read(5, buffer + 3, 6) = 1
        read(5, buffer + 4, 5) = 5
    )";
    run([] { ClibBlockRead(5, sBuffer, 9); });
}

OUTCOME_OF_ERRORS(ClibBlockRead, FailsWhateverHasArrived, EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR)
{
    planReads({3, -error()});
    mWhen = "a read fails in another way, even after data has arrived";
    mTells = cMinusOne;
    mTrace = "ClibBlockRead(5, memory, 9) = -1 ERROR\nread(5, memory, 9) = 3\nread(5, memory, 6) = -1 ERROR";
    mStays = "what had arrived is in the buffer";
    run([] { ClibBlockRead(5, sBuffer, 9); });
}

OUTCOME(ClibBlockRead, ReturnsWhatHasArrivedWhenTheDataEnds)
{
    planReads({3});
    mWhen = "the data ends early";
    mTells = "returns what had arrived";
    mTrace = "ClibBlockRead(5, memory, 9) = 3\nread(5, memory, 9) = 3\nread(5, memory, 6) = 0";
    run([] { ClibBlockRead(5, sBuffer, 9); });
}

// Clang knows that the companion's ClibStrerror() returns its buffer, so callers in the companion use the buffer.
const char* const cReadFails = R"(
    ClibFread(memory, 1, 15, memory)
    ClibStrerror(local, 512) = "ERROR #1"
    throws OQCReadFailedEx 328 "ERROR #1"
)";

OUTCOME_OF_ERRORS(ClibFread, ThrowsWhenNothingCanBeRead, EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR)
{
    Stream lStream({-error()});
    strcpy(sBuffer, "###############");
    mWhen = "nothing could be read because of an error";
    mTextIsInBuffer = true;
    mTrace = cReadFails;
    mStays = "the buffer";
    run([&] { ClibFread(sBuffer, 1, 15, lStream); });
    EXPECT_STREQ("###############", sBuffer);
}

OUTCOME_OF_ERRORS(ClibFread, ThrowsWhenAnErrorFollowsItems, EINTR, EIO)
{
    Stream lStream({5, -error()});
    strcpy(sBuffer, "#######");
    mWhen = "a read error follows items that have arrived";
    mTextIsInBuffer = true;
    mTrace = cReadFails;
    mStays = "the items are in the buffer, but their number is not reported";
    run([&] { ClibFread(sBuffer, 1, 15, lStream); });
    EXPECT_STREQ("abcde##", sBuffer);
}

OUTCOME_OF_ERRORS(ClibFread, ThrowsWhileTheErrorFlagIsSet, EXDEV)
{
    Stream lStream({-EINTR});
    EXPECT_EQ(EOF, fgetc(lStream));
    mWhen = "the stream's error flag is still set from an earlier call";
    mTextIsInBuffer = true;
    mTrace = cReadFails;
    mStays = "the flag stays set until the caller calls `clearerr`";
    run([&] {
        errno = error();
        ClibFread(sBuffer, 1, 15, lStream);
    });
    EXPECT_NE(0, ferror(lStream));
}

OUTCOME(ClibFread, ReturnsWholeItemsUntilTheDataEnds)
{
    Stream lStream({5, 5});
    memset(sBuffer, 0, sizeof sBuffer);
    mWhen = "the data ends";
    mTells = "returns the whole items that had arrived, then 0";
    mTrace = R"(
        ClibFread(memory, 2, 2, memory) = 2
        ClibFread(memory, 4, 3, memory) = 1
        ClibFread(memory, 1, 8, memory) = 0
    )";
    run([&] {
        ClibFread(sBuffer, 2, 2, lStream);
        ClibFread(sBuffer + 4, 4, 3, lStream);
        ClibFread(sBuffer, 1, 8, lStream);
    });
    EXPECT_STREQ("abcdeabcde", sBuffer);
}

OUTCOME_OF_ERRORS(ClibStat, ThrowsWhenThePathCannotBeExamined, EACCES, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG,
                  ENOENT, ENOMEM, ENOTDIR, EOVERFLOW)
{
    struct stat lInfo = {};
    lInfo.st_size = 77;
    failIn(substitute::stat, -1, error());
    mTextIsInBuffer = true;
    mWhen = "the path cannot be examined; on 32-bit systems also: a file of 2 GiB and more";
    mTrace = R"(
        ClibStat("file", memory)
        stat("file", local) = -1 ERROR
        ClibStrerror(local, 512) = "ERROR #1"
        throws OQCClibStatFailedEx 173 "ERROR #1"
    )";
    mStays = "the structure";
    run([&] { ClibStat("file", &lInfo); });
    EXPECT_EQ(77, lInfo.st_size);
}

OUTCOME(ClibSleepMS, GoesOnAfterAnInterruption)
{
    recordCompanion();
    substitute::clock_nanosleep.show();
    substitute::clock_nanosleep.instead([](clockid_t, int, const timespec* acTime, timespec* apLeft) {
        const int lResult = 0 == acTime->tv_sec ? 0 : EINTR;
        *apLeft = {0, 5};
        return lResult;
    });
    static_assert(1 == CLOCK_MONOTONIC && 4 == EINTR, "the trace shows their numbers");
    mWhen = "a signal interrupts the sleep";
    mTells = "the wrapper continues";
    mTrace = "clock_nanosleep(1, 0, 3.007000000, local) = 4\nclock_nanosleep(1, 0, 0.000000005, local) = 0";
    run([] { ClibSleepMS(3007); });
}

OUTCOME_OF_ERRORS(ClibSleepMS, ReturnsAtOnceWhenTheClockFails, EFAULT, EINVAL, ENOTSUP)
{
    failIn(substitute::clock_nanosleep, error(), 0);
    mWhen = "`clock_nanosleep` fails in another way";
    mTells = "returns at once";
    mTrace = "clock_nanosleep(1, 0, 60.000000000, local) = " + std::to_string(error());
    run([] { ClibSleepMS(60000); });
}

OUTCOME(ClibGetTime, ReportsTheWallClock)
{
    timespec lNow = {1234567890, 999000000};
    recordCompanion();
    substitute::clock_gettime.instead([&](clockid_t, timespec* apTime) {
        *apTime = lNow;
        return 0;
    });
    long lSeconds = 0;
    unsigned short lMilliseconds[2] = {};
    mWhen = "cannot fail";
    mTrace = "clock_gettime(CLOCK_REALTIME, local) = 0\nclock_gettime(CLOCK_REALTIME, local) = 0";
    run([&] {
        ClibGetTime(lSeconds, lMilliseconds[0]);
        lNow.tv_nsec = 999999999;
        ClibGetTime(lSeconds, lMilliseconds[1]);
    });
    EXPECT_EQ(1234567890, lSeconds);
    EXPECT_EQ(999, lMilliseconds[0]);
    EXPECT_EQ(999, lMilliseconds[1]);
}

OUTCOME(ClibGetTime, ReportsTheMonotonicClockIfChosen)
{
    recordCompanion();
    substitute::clock_gettime.instead([](clockid_t, timespec* apTime) {
        *apTime = timespec{77, 5999999};
        return 0;
    });
    long lSeconds = 0;
    unsigned short lMilliseconds = 0;
    mWhen = "after `SetMonotonicTime(true)`; cannot fail";
    mTrace = "clock_gettime(CLOCK_MONOTONIC, local) = 0\nclock_gettime(CLOCK_REALTIME, local) = 0";
    run([&] {
        SetMonotonicTime(true);
        ClibGetTime(lSeconds, lMilliseconds);
        SetMonotonicTime(false);
        ClibGetTime(lSeconds, lMilliseconds);
    });
    EXPECT_EQ(77, lSeconds);
    EXPECT_EQ(5, lMilliseconds);
}

/// Returns whether ClibStrerror() truncates the text to the size of each buffer and preserves errno.
bool storesWhatFits(int aError, const char* acText)
{
    bool lIsRight = true;
    for (unsigned int lSize = 0; lSize < 32; ++lSize) {
        char lBuffer[64] = "################################";
        char lExpected[64] = "################################";
        snprintf(lExpected, lSize, "%s", acText);
        errno = aError;
        lIsRight &= lBuffer == substitute::ClibStrerror.real(lBuffer, lSize) && aError == errno &&
                    0 == memcmp(lExpected, lBuffer, sizeof lBuffer);
    }
    return lIsRight;
}

/// Returns whether ClibStrcpy() copies overlapping texts correctly.
bool copiesOverlapped()
{
    const char* const cText = "a text that is long enough for copies in words";
    bool lIsRight = true;
    for (const size_t lOffset : {0U, 1U, 3U, 8U, 40U}) {
        char lBuffer[128];
        strcpy(lBuffer, cText);
        lIsRight &= lBuffer + lOffset == ClibStrcpy(lBuffer + lOffset, lBuffer) &&
                    0 == strcmp(cText, lBuffer + lOffset) && 0 == memcmp(cText, lBuffer, lOffset);
        lIsRight &= lBuffer == ClibStrcpy(lBuffer, lBuffer + lOffset) && 0 == strcmp(cText, lBuffer);
    }
    return lIsRight;
}

// A row of a wrapper that makes no system call:
// RETURNS(wrapper, test, condition, how the caller detects it, what stays unchanged, a check of its results)
#define RETURNS(wrapper, test, when, tells, stays, ...) \
    OUTCOME(wrapper, test)                              \
    {                                                   \
        bool lIsRight = false;                          \
        strcpy(sBuffer, "#######");                     \
        mWhen = when;                                   \
        mTells = tells;                                 \
        mStays = stays;                                 \
        run([&] { lIsRight = (__VA_ARGS__); });         \
        EXPECT_TRUE(lIsRight);                          \
    }
RETURNS(ClibStrerror, CutsTheText, "the text does not fit, or the size is 0",
        "the text is cut; with size 0 nothing is stored", "`errno`",
        storesWhatFits(0, "Success") && storesWhatFits(EPERM, "Operation not permitted"))
RETURNS(ClibStrerror, NamesANumberWithoutAText, "a number without a text", "`Unknown error` and the number", "`errno`",
        storesWhatFits(99999, "Unknown error 99999") && storesWhatFits(-1, "Unknown error -1"))
RETURNS(ClibMemcpy, CannotFail, "cannot fail", "", "-",
        sBuffer + 1 == ClibMemcpy(sBuffer + 1, "a\0b", 3) && 0 == memcmp("#a\0b###", sBuffer, 8) &&
            sBuffer == ClibMemcpy(sBuffer, "x", 0) && '#' == sBuffer[0])
RETURNS(ClibMemset, CannotFail, "cannot fail", "", "-",  // only the low byte of the value is used
        sBuffer + 1 == ClibMemset(sBuffer + 1, 0x141, 2) && 0 == strcmp("#AA####", sBuffer) &&
            sBuffer == ClibMemset(sBuffer, 0, 0) && '#' == sBuffer[0])
RETURNS(ClibStrcpy, CopiesTextsThatOverlap, "the texts overlap", "the text is copied correctly", "-",
        copiesOverlapped())
RETURNS(ClibStrlen, CannotFail, "cannot fail", "", "-",
        0 == ClibStrlen("") && 3 == ClibStrlen("abc") && 1 == ClibStrlen("a\0bc"))
RETURNS(ClibnStrcmp, CannotFail, "cannot fail", "", "-",
        0 == ClibnStrcmp("lo", "lo0", 2) && 0 != ClibnStrcmp("lo", "LO", 2) && 0 > ClibnStrcmp("lo", "lo0", 3) &&
            0 < ClibnStrcmp("abd", "abc", 3) && 0 == ClibnStrcmp("x", "y", 0) && 0 == ClibnStrcmp("ab", "ab", 100))
RETURNS(ClibNtohl, CannotFail, "cannot fail", "", "-", 0x7F000001 == ClibNtohl(htonl(0x7F000001)))
RETURNS(ClibSprintf, DoesNotCheckTheSize, "the buffer is too small: a mistake of the caller, which is not checked", "",
        "-",
        9 == cSprintf(sBuffer, "%s %d-%u%%", "abc", -1, 2U) && 0 == strcmp("abc -1-2%", sBuffer) &&
            0 == cSprintf(sBuffer, "%s", "") && '\0' == sBuffer[0])

}  // namespace
