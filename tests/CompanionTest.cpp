// The companion runtime as a host uses it, with the real log and without substitutes. outcomes/Companion.cpp tests how
// each function ends.

#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "OQCompanionSettings.h"
#include "support/Peer.h"

namespace
{

const unsigned int cDefaultLevels = OQLL_Halt | OQLL_Error | OQLL_Information;

/// The lines of a text. A last line without a line feed is marked.
Texts split(const std::string& acrText)
{
    Texts lLines;
    for (size_t lBegin = 0; lBegin < acrText.size();) {
        const size_t lEnd = acrText.find('\n', lBegin);
        const bool lIsEnded = std::string::npos != lEnd;
        lLines.push_back(acrText.substr(lBegin, lEnd - lBegin) + (lIsEnded ? "" : "<no end>"));
        lBegin = lIsEnded ? lEnd + 1 : acrText.size();
    }
    return lLines;
}

/// The part of a line after "(file:line) ".
std::string messageOf(const std::string& acrLine)
{
    const size_t lEnd = acrLine.find(") ");
    return std::string::npos == lEnd ? "<no message in> " + acrLine : acrLine.substr(lEnd + 2);
}

/// A file in memory, opened for appending.
class LogFile
{
public:
    LogFile() : mDescriptor(memfd_create("log", MFD_CLOEXEC)) { fcntl(mDescriptor, F_SETFL, O_APPEND); }
    ~LogFile() { close(mDescriptor); }
    int descriptor() const { return mDescriptor; }
    std::string text() const
    {
        std::string lText;
        char lBuffer[65536];
        ssize_t lRead;
        while ((lRead = pread(mDescriptor, lBuffer, sizeof lBuffer, static_cast<off_t>(lText.size()))) > 0) {
            lText.append(lBuffer, static_cast<size_t>(lRead));
        }
        return lText;
    }
    Texts lines() const { return split(text()); }
    Texts messages() const
    {
        Texts lMessages = lines();
        std::transform(lMessages.begin(), lMessages.end(), lMessages.begin(), messageOf);
        return lMessages;
    }
    void empty() { EXPECT_EQ(0, ftruncate(mDescriptor, 0)); }

private:
    const int mDescriptor;
};

/// Logs one line of each level, and of two values that are not valid levels.
void logEachLevel()
{
    PrintLogMessageWithTimeStamp(1, "-H-", 11, "f", ".//F", "halt");
    PrintLogMessageWithTimeStamp(8, "-E-", 12, "f", ".//F", "error");
    PrintLogMessageWithTimeStamp(64, "-I-", 13, "f", ".//F", "information");
    PrintLogMessageWithTimeStamp(128, "-T-", 14, "f", ".//F", "trace");
    PrintLogMessageWithTimeStamp(0, "-0-", 15, "f", ".//F", "none");
    PrintLogMessageWithTimeStamp(2, "-2-", 16, "f", ".//F", "two");
}

/// Returns the lines that a host without settings gets on standard error. Called before main(), so no test has set any.
Texts loggedByDefault()
{
    const LogFile lFile;
    const int lStandardError = dup(STDERR_FILENO);
    dup2(lFile.descriptor(), STDERR_FILENO);
    logEachLevel();
    dup2(lStandardError, STDERR_FILENO);
    close(lStandardError);
    return lFile.messages();
}
const Texts sLoggedByDefault = loggedByDefault();

typedef LeftoverTest CompanionTest;

/// A test in which the log writes all levels to a file.
class LogTest : public LeftoverTest
{
protected:
    void SetUp() override
    {
        LeftoverTest::SetUp();
        mFile.reset(new LogFile);
        SetLogLevels(cDefaultLevels | OQLL_Trace);
        SetLogDescriptor(mFile->descriptor());
    }
    void TearDown() override
    {
        SetLogLevels(cDefaultLevels);
        SetLogDescriptor(STDERR_FILENO);
        mFile.reset();
        LeftoverTest::TearDown();
    }

    std::unique_ptr<LogFile> mFile;
};

#define LOG_ERROR(...) PrintLogMessageWithTimeStamp(8, "-E-", 88, "OsLockFile", ".//MiscLinux", __VA_ARGS__)

TEST_F(LogTest, UnsetLogWritesHaltErrorAndInformationToStandardError)
{
    EXPECT_EQ((Texts{"halt", "error", "information"}), sLoggedByDefault);
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
        EXPECT_EQ(lExpected, mFile->messages()) << lLevels;
    }
    mFile->empty();
    SetLogLevels(0xFFFFFFFFU);
    logEachLevel();
    EXPECT_EQ((Texts{"halt", "error", "information", "trace", "two"}), mFile->messages());
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
    EXPECT_EQ(Texts{"trace"}, lOther.messages());
    SetLogDescriptor(mFile->descriptor());
}

/// When the log cannot write a line, operations continue, preserve errno, and throw with their own error text.
TEST_F(LogTest, OperationsGoOnWhenTheDiskOfTheLogIsFull)
{
    const OQCString lName(path("pipe").c_str());
    const int lFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    SetLogDescriptor(lFull);
    errno = EXDEV;
    int lPipe = -1;
    unsigned char lByte = 7;
    unsigned int lCount = 0;
    OsNamedPipeCreate(lName, lPipe);
    OsNamedPipeOpen(lPipe, lName, OQFM_Mode3, OQPS_NonBlocking, OQCM_Server);
    OsNamedPipeWrite(lPipe, &lByte, 1, lCount);
    OsNamedPipeWaitForActivity(lPipe, 1);
    OsNamedPipeRead(lPipe, &lByte, 1, lCount);
    EXPECT_EQ(1U, lCount);
    OsNamedPipeClose(lPipe, OQCM_Server);
    OsNamedPipeDestroy(lName, lPipe);
    OQShmDesc lMailbox = {key(), 64, -1, nullptr};
    OsSharedMemoryOpen(lMailbox, OQCM_Server);
    OsSharedMemoryClose(lMailbox, OQCM_Server);
    EXPECT_EQ(EXDEV, errno) << "a line that was not written has changed it";

    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Bad file descriptor", OsLockFile(-1));
    EXPECT_FAILURE(OQCCreateFailedEx, 324, "No such file or directory", OsNamedPipeCreate("/nonexistent/pipe", lPipe));
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(-1, 0));
    OQCList<OQCString> lLines;
    OsExecute("echo a", lLines);
    EXPECT_EQ(1, lLines.size());
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
    EXPECT_EQ(Texts{"kept"}, mFile->messages());
}

/// Writes only the first 20 bytes of a line.
void logInPart()
{
    rlimit lBefore;
    getrlimit(RLIMIT_FSIZE, &lBefore);
    const rlimit lLimit = {20, lBefore.rlim_max};
    const sighandler_t lHandler = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &lLimit);
    LOG_ERROR("written in part");
    setrlimit(RLIMIT_FSIZE, &lBefore);
    signal(SIGXFSZ, lHandler);
}

TEST_F(LogTest, OneOfManyThreadsEndsTheLineThatWasWrittenInPart)
{
    const int cThreads = 8;
    for (int lRound = 0; lRound < 50; ++lRound) {
        mFile->empty();
        logInPart();
        inThreads(cThreads, [](unsigned int) { LOG_ERROR("next"); });
        // Another thread may write first. The line feed that ends the cut line then makes an empty line.
        const std::string lText = mFile->text();
        EXPECT_EQ(cThreads + 1, std::count(lText.begin(), lText.end(), '\n'));
    }
}

TEST_F(LogTest, LineFeedsBecomeBlanksAndTheLastOneEndsTheLine)
{
    LOG_ERROR("%s", "one\ntwo\n\nfour");
    LOG_ERROR("\nat the beginning");
    LOG_ERROR("Assertion [ %s ] failed\n", "0 != mPointer");
    LOG_ERROR("two of them\n\n");
    LOG_ERROR("\n");
    LOG_ERROR("%s", "");
    EXPECT_EQ(
        (Texts{"one two  four", " at the beginning", "Assertion [ 0 != mPointer ] failed", "two of them ", "", ""}),
        mFile->messages());
}

TEST_F(LogTest, LineIsCutAt8192Bytes)
{
    LOG_ERROR("%s", "");
    const size_t lFits = 8192 - mFile->text().size();
    for (const size_t lLength : {lFits - 1, lFits, lFits + 1, lFits + 2, size_t(8191), size_t(8192), size_t(100000)}) {
        for (const char* lpFeed : {"", "\n"}) {
            std::string lMessage;
            for (size_t lIndex = 0; lIndex < lLength; ++lIndex) {
                lMessage += static_cast<char>('a' + lIndex % 26);
            }
            mFile->empty();
            LOG_ERROR("%s%s", lMessage.c_str(), lpFeed);
            EXPECT_EQ(Texts{lMessage.substr(0, lFits)}, mFile->messages()) << lLength;
        }
    }
    mFile->empty();
    PrintLogMessageWithTimeStamp(8, "-E-", 1, std::string(10000, 'f').c_str(), "file", "message");
    EXPECT_EQ(8192U, mFile->text().size());
    LOG_ERROR("after it");
    EXPECT_EQ(2U, mFile->lines().size());
}

TEST_F(LogTest, FormatTakesManyArguments)
{
    LOG_ERROR("%d %u %ld %lu %lld %llu %s %c %x %X %o %% %5d|%-5d|%05d %+d %.3f %e %s %hd %hhu %zu %.2s %*d %p", -1,
              4000000000U, -2000000000L, 4000000000UL, -5000000000LL, 18000000000ULL, "text", 'c', 0xbeefU, 0xBEEFU, 8U,
              42, 42, 42, 7, 1.5, 12345.678, "more", static_cast<short>(-3), static_cast<unsigned char>(200),
              static_cast<size_t>(9), "cut", 4, 5, static_cast<void*>(nullptr));
    EXPECT_EQ((Texts{"-1 4000000000 -2000000000 4000000000 -5000000000 18000000000 text c beef BEEF 10 %    42|42   |"
                     "00042 +7 1.500 1.234568e+04 more -3 200 9 cu    5 (nil)"}),
              mFile->messages());
}

TEST_F(LogTest, ChildForkedWhileOthersLogCanLog)
{
    std::atomic<bool> lStop(false);
    Texts lExpected;
    inThreads(3, [&](unsigned int aThread) {
        while (0 < aThread && !lStop) {
            LOG_ERROR("parent %d %s", 1, "text");
        }
        for (int lChild = 0; 0 == aThread && lChild < 20; ++lChild) {
            EXPECT_EQ(0, inChild([lChild] { LOG_ERROR("child %d", lChild); }));
            lExpected.push_back("child " + std::to_string(lChild));
        }
        lStop = true;
    });
    Texts lMessages = mFile->messages();
    lMessages.erase(std::remove(lMessages.begin(), lMessages.end(), "parent 1 text"), lMessages.end());
    EXPECT_EQ(lExpected, lMessages);
}

const int cWriters = 8;          // threads of a process
const int cLinesEach = 6250;     // 2 processes with 8 threads: 100,000 lines
const int cLongLineEvery = 500;  // some lines are longer than a pipe writes without mixing

/// Process, thread and number of the line, then letters. Their count and values depend on the number.
std::string messageOfWriter(long aProcess, unsigned long aThread, int aLine)
{
    const size_t lLength = 0 == aLine % cLongLineEvery ? 5000 : static_cast<size_t>(aLine * 7 % 90);
    return std::to_string(aProcess) + " " + std::to_string(aThread) + " " + std::to_string(aLine) + " " +
           std::string(lLength, static_cast<char>('a' + aLine % 26));
}

void logFromThreads()
{
    inThreads(cWriters, [](unsigned int) {
        for (int lLine = 0; lLine < cLinesEach; ++lLine) {
            LOG_ERROR("%s", messageOfWriter(getpid(), static_cast<unsigned long>(pthread_self()), lLine).c_str());
        }
    });
}

TEST_F(LogTest, LinesOfManyThreadsOfTwoProcessesAreAllWhole)
{
    const std::string lFile = "/proc/self/fd/" + std::to_string(mFile->descriptor());
    Peer lPeer([&lFile](Peer& arPeer) {
        SetLogDescriptor(open(lFile.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));  // has a file position of its own
        arPeer.signal();
        arPeer.meet();
        logFromThreads();
    });
    lPeer.meet();
    lPeer.signal();
    logFromThreads();
    EXPECT_EQ(0, lPeer.wait());

    std::map<std::pair<long, unsigned long>, int> lNext;
    unsigned int lSwitches = 0;
    long lLastProcess = getpid();
    for (const std::string& lrLine : mFile->lines()) {
        long lProcess = 0;
        unsigned long lThread = 0;
        const char cStamp[] = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
        ASSERT_EQ(2, sscanf(messageOf(lrLine).c_str(), "%ld %lu ", &lProcess, &lThread)) << lrLine;
        ASSERT_TRUE(std::equal(cStamp, cStamp + 28, lrLine.begin(), [](char aShape, char aCharacter) {
            return 'd' == aShape ? '0' <= aCharacter && aCharacter <= '9' : aShape == aCharacter;
        })) << lrLine;
        // All lines of a thread are complete and in order.
        ASSERT_EQ(std::to_string(lProcess) + " " + std::to_string(lThread) + " -E- OsLockFile (.//MiscLinux:88) " +
                      messageOfWriter(lProcess, lThread, lNext[{lProcess, lThread}]++),
                  lrLine.substr(28));
        lSwitches += lLastProcess == lProcess ? 0 : 1;
        lLastProcess = lProcess;
    }
    EXPECT_EQ(2U * cWriters, lNext.size());
    for (const auto& lrThread : lNext) {
        EXPECT_EQ(cLinesEach, lrThread.second);
    }
    EXPECT_LT(1U, lSwitches) << "the processes did not write side by side";
}

TEST_F(CompanionTest, StrerrorIsOfTheCallingThread)
{
    std::atomic<int> lWrong(0);
    inThreads(3, [&lWrong](unsigned int aThread) {
        const int lErrno = 70000 + static_cast<int>(aThread);
        const std::string lExpected = "Unknown error " + std::to_string(lErrno);
        for (int lRound = 0; lRound < 5000; ++lRound) {
            char lBuffer[512];
            errno = lErrno;
            lWrong += lExpected == ClibStrerror(lBuffer, sizeof lBuffer) ? 0 : 1;
        }
    });
    EXPECT_EQ(0, lWrong);
}

TEST_F(CompanionTest, StrerrorGivesTheTextsOfTheCLibrary)
{
    for (int lErrno = -2; lErrno < 4100; ++lErrno) {
        char lBuffer[512];
        errno = lErrno;
        ClibStrerror(lBuffer, sizeof lBuffer);
        const char* const lpText = strerrordesc_np(lErrno);
        ASSERT_EQ(nullptr == lpText ? "Unknown error " + std::to_string(lErrno) : lpText, lBuffer);
    }
}

TEST_F(CompanionTest, ReferenceCountIsOneWordThatCounts)
{
    EXPECT_EQ(4U, sizeof(OQCReferenceCount));
    OQCReferenceCount lCounter(5);
    const auto lWord = [&lCounter] {
        uint32_t lValue;
        memcpy(&lValue, static_cast<const void*>(&lCounter), sizeof lValue);
        return lValue;
    };
    EXPECT_EQ(5U, lWord());
    lCounter.increment();
    for (unsigned int lLeft = 6; 0 < lLeft; --lLeft) {
        EXPECT_EQ(lLeft, lWord());
        EXPECT_EQ(lLeft - 1, lCounter.decrement());
    }
    EXPECT_EQ(0U, lWord());
}

TEST_F(CompanionTest, ReferenceCountLosesNothingAmongThreads)
{
    OQCReferenceCount lCounter(1);
    std::atomic<unsigned int> lZeros(0);
    inThreads(3, [&lCounter, &lZeros](unsigned int) {
        unsigned int lOwnZeros = 0;
        for (int lRound = 0; lRound < 200000; ++lRound) {
            lCounter.increment();
            lCounter.increment();
            lOwnZeros += 0 == lCounter.decrement() ? 1 : 0;
            lOwnZeros += 0 == lCounter.decrement() ? 1 : 0;
        }
        lZeros += lOwnZeros;
    });
    EXPECT_EQ(0U, lZeros);
    EXPECT_EQ(0U, lCounter.decrement());
}

TEST_F(CompanionTest, FilesAreMadeWrittenReadAndRemoved)
{
    const std::string lPath = path("file");
    const mode_t lMask = umask(0);
    const int lFile = ClibOpen(lPath.c_str(), O_RDWR | O_CREAT | O_EXCL, 0640);
    umask(lMask);
    EXPECT_EQ(O_RDWR, fcntl(lFile, F_GETFL) & O_ACCMODE);
    struct stat lInfo = {};
    EXPECT_EQ(0, ClibStat(lPath.c_str(), &lInfo));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG | 0640), lInfo.st_mode);
    EXPECT_EQ(3, ClibWrite(lFile, "abcdef", 3));
    EXPECT_EQ(0, ClibWrite(lFile, "", 0));
    EXPECT_EQ(0, lseek(lFile, 0, SEEK_SET));
    char lBuffer[8] = "#######";
    EXPECT_EQ(2, ClibRead(lFile, lBuffer, 2));
    EXPECT_STREQ("ab#####", lBuffer);
    EXPECT_EQ(0, ClibBlockRead(lFile, lBuffer, 0));
    EXPECT_EQ(1, ClibBlockRead(lFile, lBuffer, 5));
    EXPECT_STREQ("cb#####", lBuffer);
    EXPECT_EQ(0, ClibRead(lFile, lBuffer, 5));
    EXPECT_EQ(0, ClibClose(lFile));
    EXPECT_EQ(-1, ClibClose(lFile));
    EXPECT_EQ(0, ClibUnlink(lPath.c_str()));
    EXPECT_EQ(-1, ClibUnlink(lPath.c_str()));
}

TEST_F(CompanionTest, NameAndTimeAreThoseOfTheHost)
{
    char lExpected[128] = "";
    char lName[128] = "";
    ASSERT_EQ(0, gethostname(lExpected, sizeof lExpected));
    EXPECT_EQ(0, ClibGethostname(lName, sizeof lName));
    EXPECT_STREQ(lExpected, lName);
    const time_t lBefore = time(nullptr);
    long lSeconds = 0;
    unsigned short lMilliseconds = 4711;
    ClibGetTime(lSeconds, lMilliseconds);
    EXPECT_LE(lBefore - 1, lSeconds);  // time() may lag behind clock_gettime()
    EXPECT_GE(time(nullptr) + 1, lSeconds);
    EXPECT_GT(1000, lMilliseconds);
}

TEST_F(CompanionTest, FileOfThreeGibibytesIsExaminedUnlessItsSizeHas32Bits)
{
    const bool cFits = 4 < sizeof(off_t);
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
        EXPECT_TRUE(cFits);
        EXPECT_EQ(cSize, static_cast<int64_t>(lInfo.st_size));
    } catch (const OQCClibStatFailedEx& acrFailure) {
        EXPECT_FALSE(cFits);
        EXPECT_STREQ("Value too large for defined data type", acrFailure.what());
        EXPECT_EQ(173U, acrFailure.code());
        EXPECT_EQ(0, memcmp(&cBefore, &lInfo, sizeof lInfo));
    }
    if (cFits) {  // the emulator of a 32-bit system opens the file anyway
        OQCString lLine("");
        EXPECT_EQ(0, getFirstLineFromFile(lPath.c_str(), lLine));
        EXPECT_STREQ("first", lLine.get());
        const int lOpened = ClibOpen(lPath.c_str(), O_RDONLY | O_CLOEXEC, 0);
        EXPECT_LE(0, lOpened);
        EXPECT_EQ(0, ClibClose(lOpened));
    }
    unlink(lPath.c_str());
}

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
        std::ofstream(path("file")) << lrFile.mContents;
        OQCString lLine("old text");
        EXPECT_EQ(0, getFirstLineFromFile(path("file").c_str(), lLine)) << lrFile.mContents.substr(0, 80);
        EXPECT_EQ(lrFile.mLine, lLine.get());
    }
    std::ofstream(path("file")) << "the line\n";
    OQCString lBoth(path("file").c_str());
    EXPECT_EQ(0, getFirstLineFromFile(lBoth, lBoth)) << "path and line are one string";
    EXPECT_STREQ("the line", lBoth.get());
    unlink(path("file").c_str());
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

}  // namespace
