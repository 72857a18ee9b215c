#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <netdb.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "TestKit.h"

// ---- What the layer is bound to: functions that record what they are asked and answer as planned.

struct SelectCall {
    int mCount;
    fd_set* mRead;
    fd_set* mWrite;
    fd_set* mExcept;
    timeval* mTime;
    fd_set mReadContents;
    timeval mTimeContents;
};
struct SelectAnswer {
    int mResult;
    int mErrno;
    timeval mLeft;  ///< left in the caller's structure, as Linux does
};
const unsigned int cSelectCalls = 256;
SelectCall gSelectCalls[cSelectCalls];
std::atomic<unsigned int> gSelectCount(0);
std::vector<SelectAnswer> gSelectAnswers;  // the first calls; those after them are passed on

extern "C" int select(int aCount, fd_set* apRead, fd_set* apWrite, fd_set* apExcept, timeval* apTime)
{
    const unsigned int lCall = gSelectCount++;
    if (lCall < cSelectCalls) {
        gSelectCalls[lCall] = {aCount, apRead, apWrite, apExcept, apTime, *apRead, *apTime};
    }
    if (lCall < gSelectAnswers.size()) {
        *apTime = gSelectAnswers[lCall].mLeft;
        errno = gSelectAnswers[lCall].mErrno;
        return gSelectAnswers[lCall].mResult;
    }
    static Behind<int(int, fd_set*, fd_set*, fd_set*, timeval*)> lReal("select");
    return lReal(aCount, apRead, apWrite, apExcept, apTime);
}

struct TextCall {
    char* mBuffer;
    unsigned int mSize;
    int mErrno;
};
TextCall gTextCalls[8];
std::atomic<unsigned int> gTextCount(0);

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    const unsigned int lCall = gTextCount++;
    if (lCall < 8) {
        gTextCalls[lCall] = {apBuffer, aSize, errno};
    }
    return lReal(apBuffer, aSize);
}

Fault popenFault;
FILE* gStream = nullptr;
char gMode[8];
char gCommand[256];
std::function<void()> gAfterPopen;

extern "C" FILE* popen(const char* acCommand, const char* acMode)
{
    snprintf(gCommand, sizeof gCommand, "%s", acCommand);
    snprintf(gMode, sizeof gMode, "%s", acMode);
    if (popenFault.fires()) {
        return nullptr;
    }
    static Behind<FILE*(const char*, const char*)> lReal("popen");
    gStream = lReal(acCommand, acMode);
    if (gAfterPopen) {
        gAfterPopen();
    }
    return gStream;
}

unsigned int gCloses = 0;
FILE* gClosed = nullptr;
bool gLogAtCloseWanted = false;  // looking at it allocates
std::string gLastTextAtClose;

extern "C" int pclose(FILE* apStream)
{
    ++gCloses;
    gClosed = apStream;
    if (gLogAtCloseWanted) {
        gLastTextAtClose = logged().back().mText;
    }
    static Behind<int(FILE*)> lReal("pclose");
    return lReal(apStream);
}

/// The two buffers of a command's run: the one that is read into, and that of the current line.
std::atomic<void*> gReadBuffer(nullptr);
std::atomic<void*> gLineBuffer(nullptr);
std::atomic<unsigned int> gReadBufferFreed(0);
std::atomic<unsigned int> gLineBufferFreed(0);

#if !OQ_SANITIZED
extern "C" void __libc_free(void* apMemory);

extern "C" void free(void* apMemory) noexcept
{
    if (nullptr != apMemory) {
        gReadBufferFreed += apMemory == gReadBuffer ? 1U : 0U;
        gLineBufferFreed += apMemory == gLineBuffer ? 1U : 0U;
    }
    __libc_free(apMemory);
}
#endif

struct Clearing {
    void* mMemory;
    int mValue;
    unsigned int mCount;
};
Clearing gCleared;
unsigned int gWholeClearings = 0;  ///< of all 4000 bytes

void* ClibMemset(void* apMemory, int aValue, unsigned int aCount)
{
    gCleared = {apMemory, aValue, aCount};
    gWholeClearings += 4000 == aCount && 0 == aValue ? 1 : 0;
    static Behind<void*(void*, int, unsigned int)> lReal("_Z10ClibMemsetPvij");
    return lReal(apMemory, aValue, aCount);
}

struct ReadCall {
    char* mBuffer;
    unsigned int mSize;
    unsigned int mCount;
    FILE* mStream;
    Clearing mCleared;  ///< just before
    bool mZero;         ///< the rest of the buffer held nothing but zeros
};
const unsigned int cReadCalls = 64;
ReadCall gReadCalls[cReadCalls];
unsigned int gReadCount = 0;
bool gPiecesPlanned = false;
std::vector<std::string> gPieces;
std::function<void()> gAtEndOfPieces;
std::function<void()> gAfterRead;
std::function<void()> gBeforeRead;

unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream)
{
    const unsigned int lCall = gReadCount++;
    if (0 == lCall) {
        gReadBuffer = apBuffer;
    }
    if (gBeforeRead) {
        gBeforeRead();
    }
    if (lCall < cReadCalls) {
        const char* const lpEnd = static_cast<char*>(gReadBuffer.load()) + 4000;
        gReadCalls[lCall] = {
            apBuffer, aSize,
            aCount,   apStream,
            gCleared, std::all_of(const_cast<const char*>(apBuffer), lpEnd, [](char aByte) { return 0 == aByte; })};
    }
    if (!gPiecesPlanned) {
        static Behind<unsigned int(char*, unsigned int, unsigned int, FILE*)> lReal("_Z9ClibFreadPcjjP8_IO_FILE");
        return lReal(apBuffer, aSize, aCount, apStream);
    }
    if (lCall < gPieces.size()) {
        if (aCount < gPieces[lCall].size()) {
            ADD_FAILURE() << "the next piece is larger than the room for it";
            return 0;
        }
        memcpy(apBuffer, gPieces[lCall].data(), gPieces[lCall].size());
        if (gAfterRead) {
            gAfterRead();
        }
        return static_cast<unsigned int>(gPieces[lCall].size());
    }
    if (gAtEndOfPieces) {
        gAtEndOfPieces();
    }
    return 0;
}

std::function<void()> gAfterCopy;

char* ClibStrcpy(char* apDestination, const char* acSource)
{
    static Behind<char*(char*, const char*)> lReal("_Z10ClibStrcpyPcPKc");
    if (gLineBuffer != acSource) {
        gLineBuffer = apDestination;  // and not the way back from there
    }
    lReal(apDestination, acSource);
    if (gAfterCopy) {
        gAfterCopy();
    }
    return apDestination;
}

Fault lockfFault;
struct {
    int mDescriptor;
    int mCommand;
    off_t mLength;
} gLocked;

extern "C" int lockf(int aDescriptor, int aCommand, off_t aLength)
{
    gLocked = {aDescriptor, aCommand, aLength};
    if (lockfFault.fires()) {
        return static_cast<int>(lockfFault.result());
    }
    static Behind<int(int, int, off_t)> lReal("lockf");
    return lReal(aDescriptor, aCommand, aLength);
}

OQ_FAULTY(int, kill, (pid_t aPid, int aSignal), (aPid, aSignal), noexcept)

/// The host's name and its planned entry; without a plan the real ones.
bool gHostPlanned = false;
hostent* gHost = nullptr;
int gHostError = 0;
const char* gNameAsked = nullptr;
std::string gNameAskedText;
std::function<void()> gAfterLookup;

extern "C" hostent* gethostbyname(const char* acName)
{
    gNameAsked = acName;
    gNameAskedText = acName;
    if (gHostPlanned) {
        h_errno = gHostError;
        errno = EDOM;
        if (gAfterLookup) {
            gAfterLookup();
        }
        return gHost;
    }
    static Behind<hostent*(const char*)> lReal("gethostbyname");
    return lReal(acName);
}

char* gNameBuffer = nullptr;
unsigned int gNameSize = 0;
bool gNameCleared = false;
std::string gName;

int ClibGethostname(char* apBuffer, unsigned int aSize)
{
    gNameBuffer = apBuffer;
    gNameSize = aSize;
    gNameCleared = std::all_of(apBuffer, apBuffer + 128, [](char aByte) { return 0 == aByte; });
    if (gHostPlanned) {
        // Without a terminating zero: the cleared buffer has it.
        memcpy(apBuffer, gName.data(), gName.size());
        return 0;
    }
    static Behind<int(char*, unsigned int)> lReal("_Z15ClibGethostnamePcj");
    return lReal(apBuffer, aSize);
}

std::function<void(const std::string&)> gStatPlan;
std::vector<std::string> gStatPaths;

int ClibStat(const char* acPath, struct stat* apInfo)
{
    gStatPaths.push_back(acPath);
    if (gStatPlan) {
        gStatPlan(acPath);
        return 0;
    }
    static Behind<int(const char*, struct stat*)> lReal("_Z8ClibStatPKcP4stat");
    return lReal(acPath, apInfo);
}

std::function<int(OQCString&)> gFirstLinePlan;
std::map<std::string, std::string> gOtherFiles;  // what stands for the host's own
std::vector<std::string> gFirstLinePaths;

int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine)
{
    gFirstLinePaths.push_back(acrPath.get());
    if (gFirstLinePlan) {
        return gFirstLinePlan(arLine);
    }
    static Behind<int(const OQCString&, OQCString&)> lReal("_Z20getFirstLineFromFileRK9OQCStringRS_");
    const auto lOther = gOtherFiles.find(acrPath.get());
    return lReal(gOtherFiles.end() == lOther ? acrPath : OQCString(lOther->second.c_str()), arLine);
}

namespace
{

const LinesOf cWait(".//MiscLinux", "OsWaitForActivity");
const LinesOf cExecute(".//MiscLinux", "OsExecute");
const LinesOf cBreak(".//MiscLinux", "OsBreak");
const LinesOf cLock(".//MiscLinux", "OsLockFile");
const LinesOf cUnlock(".//MiscLinux", "OsUnlockFile");
const LinesOf cStatus(".//MiscLinux", "OsFileLockStatus");
const LinesOf cAll(".//MiscLinux", "OsGetAllIpAddresses");
const LinesOf cFirst(".//MiscLinux", "OsGetIpAddress");
const LinesOf cName(".//MiscLinux", "OsGetOsName");

typedef std::vector<std::string> Texts;

Texts textsOf(const OQCList<OQCString>& acrList)
{
    Texts lTexts;
    for (const OQCString& lrText : acrList) {
        lTexts.push_back(lrText.get());
    }
    return lTexts;
}

double secondsOf(const std::function<void()>& acrRun)
{
    const auto lBegin = std::chrono::steady_clock::now();
    acrRun();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - lBegin).count();
}

/// The two ends of a pipe.
class Channel
{
public:
    Channel()
    {
        if (pipe2(mEnds, O_CLOEXEC) < 0) {
            abort();
        }
    }
    ~Channel()
    {
        close(mEnds[0]);
        closeIn();
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    int out() const { return mEnds[0]; }
    int in() const { return mEnds[1]; }
    void closeIn()
    {
        if (0 <= mEnds[1]) {
            close(mEnds[1]);
            mEnds[1] = -1;
        }
    }

private:
    int mEnds[2];
};

/// Of the operating-system family, and no reason to halt.
void expectOsFamily(const std::function<void()>& acrRun)
{
    EXPECT_THROW(acrRun(), OQCOsException);
    try {
        acrRun();
    } catch (const OQCHaltEx&) {
        ADD_FAILURE() << "no reason to halt";
    } catch (const OQCException&) {
    }
}

/// The text was taken twice, into one buffer of 512 characters.
void expectTextTakenTwice(int aErrno)
{
    EXPECT_EQ(2U, gTextCount);
    EXPECT_EQ(gTextCalls[0].mBuffer, gTextCalls[1].mBuffer);
    for (unsigned int lCall = 0; lCall < 2; ++lCall) {
        EXPECT_EQ(512U, gTextCalls[lCall].mSize);
        EXPECT_EQ(aErrno, gTextCalls[lCall].mErrno);
    }
}

class MiscLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        forgetPlans();
        if (OQ_SANITIZED) {
            std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first one
        }
        LayerTest::SetUp();
    }
    void TearDown() override
    {
        forgetPlans();
        LayerTest::TearDown();
    }

private:
    static void forgetPlans()
    {
        gSelectCount = 0;
        gSelectAnswers.clear();
        gTextCount = 0;
        gStream = nullptr;
        gCloses = 0;
        gClosed = nullptr;
        gLogAtCloseWanted = false;
        gAfterPopen = nullptr;
        gReadBuffer = nullptr;
        gLineBuffer = nullptr;
        gReadBufferFreed = 0;
        gLineBufferFreed = 0;
        gReadCount = 0;
        gPiecesPlanned = false;
        gPieces.clear();
        gAtEndOfPieces = nullptr;
        gAfterRead = nullptr;
        gBeforeRead = nullptr;
        gAfterCopy = nullptr;
        gHostPlanned = false;
        gHost = nullptr;
        gHostError = 0;
        gAfterLookup = nullptr;
        gStatPlan = nullptr;
        gStatPaths.clear();
        gFirstLinePlan = nullptr;
        gOtherFiles.clear();
        gFirstLinePaths.clear();
    }
};

// ---- The wait for a descriptor

class WaitLinuxTest : public MiscLinuxTest
{
protected:
    /// The call had the one descriptor in its set and nothing else.
    static void expectAsked(unsigned int aCall, int aDescriptor, long aSeconds, long aMicroseconds)
    {
        const SelectCall& lrCall = gSelectCalls[aCall];
        EXPECT_EQ(aDescriptor + 1, lrCall.mCount);
        for (int lDescriptor = 0; lDescriptor < FD_SETSIZE; ++lDescriptor) {
            EXPECT_EQ(lDescriptor == aDescriptor, 0 != FD_ISSET(lDescriptor, &lrCall.mReadContents)) << lDescriptor;
        }
        EXPECT_EQ(nullptr, lrCall.mWrite);
        EXPECT_EQ(nullptr, lrCall.mExcept);
        EXPECT_EQ(aSeconds, lrCall.mTimeContents.tv_sec);
        EXPECT_EQ(aMicroseconds, lrCall.mTimeContents.tv_usec);
    }

    static Lines dataLines() { return {cWait.entered(), cWait.trace("Data is available now."), cWait.left()}; }

    static Lines timeOutLines(const std::string& acrSeconds)
    {
        return {cWait.entered(), cWait.trace("No data within " + acrSeconds + " seconds."), cWait.left()};
    }
};

TEST_F(WaitLinuxTest, DataEndsTheWaitAndStaysToBeRead)
{
    Channel lChannel;
    ASSERT_EQ(3, write(lChannel.in(), "abc", 3));
    OsWaitForActivity(lChannel.out(), 30);
    EXPECT_EQ(dataLines(), logged());
    EXPECT_EQ(1U, gSelectCount);
    expectAsked(0, lChannel.out(), 30, 0);
    int lWaiting = 0;
    ioctl(lChannel.out(), FIONREAD, &lWaiting);
    EXPECT_EQ(3, lWaiting);
}

TEST_F(WaitLinuxTest, DataThatComesDuringTheWaitEndsIt)
{
    Channel lChannel;
    Peer lPeer([&](Peer& arPeer) {
        arPeer.meet();
        EXPECT_EQ(1, write(lChannel.in(), "x", 1));
    });
    lPeer.signal();
    OsWaitForActivity(lChannel.out(), 30);
    EXPECT_EQ(dataLines(), logged());
    EXPECT_EQ(0, lPeer.wait());
}

TEST_F(WaitLinuxTest, EndOfFileIsActivity)
{
    Channel lChannel;
    lChannel.closeIn();
    OsWaitForActivity(lChannel.out(), 30);
    EXPECT_EQ(dataLines(), logged());
}

TEST_F(WaitLinuxTest, PendingConnectionIsActivity)
{
    const int lListener = socket(AF_UNIX, SOCK_STREAM, 0);
    const int lClient = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un lAddress = {};
    lAddress.sun_family = AF_UNIX;
    socklen_t lLength = sizeof(sa_family_t);  // the system chooses a name that is no file
    ASSERT_EQ(0, bind(lListener, reinterpret_cast<sockaddr*>(&lAddress), lLength));
    lLength = sizeof lAddress;
    ASSERT_EQ(0, getsockname(lListener, reinterpret_cast<sockaddr*>(&lAddress), &lLength));
    ASSERT_EQ(0, listen(lListener, 1));
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(lListener, 0));
    clearLog();
    ASSERT_EQ(0, connect(lClient, reinterpret_cast<sockaddr*>(&lAddress), lLength));
    OsWaitForActivity(lListener, 30);
    EXPECT_EQ(dataLines(), logged());
    close(lClient);
    close(lListener);
}

TEST_F(WaitLinuxTest, ZeroSecondsPollAndTimeOutAtOnce)
{
    Channel lChannel;
    const double lSeconds =
        secondsOf([&] { EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(lChannel.out(), 0)); });
    EXPECT_LT(lSeconds, 20);
    EXPECT_EQ(timeOutLines("0"), logged());
    expectAsked(0, lChannel.out(), 0, 0);
    EXPECT_EQ(0U, gTextCount);
}

TEST_F(WaitLinuxTest, TimeOutComesAfterTheSecondsAskedFor)
{
    Channel lChannel;
    const double lSeconds =
        secondsOf([&] { EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(lChannel.out(), 1)); });
    EXPECT_LE(1.0, lSeconds);
    EXPECT_LT(lSeconds, 20);
    EXPECT_EQ(timeOutLines("1"), logged());
}

TEST_F(WaitLinuxTest, TimeOutIsOfTheOperatingSystemFamily)
{
    Channel lChannel;
    expectOsFamily([&] { OsWaitForActivity(lChannel.out(), 0); });
}

TEST_F(WaitLinuxTest, SecondsAreNotTakenForNegativeOnes)
{
    gSelectAnswers = {{0, 0, {0, 0}}};
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(0, INT_MAX));
    EXPECT_EQ(timeOutLines("2147483647"), logged());
    expectAsked(0, 0, INT_MAX, 0);
    clearLog();
    gSelectCount = 0;
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(0, UINT_MAX));
    EXPECT_EQ(timeOutLines("4294967295"), logged());
}

TEST_F(WaitLinuxTest, InterruptedWaitGoesOnWithTheSameObjectsAndTheTimeLeft)
{
    gSelectAnswers = {{-1, EINTR, {4, 500000}}, {-1, 514, {2, 7}}, {-1, EINTR, {0, 3}}, {1, 0, {0, 1}}};
    OsWaitForActivity(37, 9);
    const Line lIgnored = cWait.information("The select() call was interrupted.. Ignoring");
    EXPECT_EQ(
        (Lines{cWait.entered(), lIgnored, lIgnored, lIgnored, cWait.trace("Data is available now."), cWait.left()}),
        logged());
    ASSERT_EQ(4U, gSelectCount);
    expectAsked(0, 37, 9, 0);
    expectAsked(1, 37, 4, 500000);
    expectAsked(2, 37, 2, 7);
    expectAsked(3, 37, 0, 3);
    for (unsigned int lCall = 1; lCall < 4; ++lCall) {
        EXPECT_EQ(gSelectCalls[0].mRead, gSelectCalls[lCall].mRead);
        EXPECT_EQ(gSelectCalls[0].mTime, gSelectCalls[lCall].mTime);
    }
    EXPECT_EQ(0U, gTextCount);
}

TEST_F(WaitLinuxTest, InterruptedWaitMayStillTimeOutOrFail)
{
    const Line lIgnored = cWait.information("The select() call was interrupted.. Ignoring");
    gSelectAnswers = {{-1, 514, {0, 0}}, {0, EINTR, {0, 0}}};
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(3, 2));
    EXPECT_EQ((Lines{cWait.entered(), lIgnored, cWait.trace("No data within 2 seconds."), cWait.left()}), logged());

    clearLog();
    gSelectCount = 0;
    gSelectAnswers = {{-1, EINTR, {1, 0}}, {-1, ENOMEM, {1, 0}}};
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Cannot allocate memory", OsWaitForActivity(3, 2));
    EXPECT_EQ((Lines{cWait.entered(), lIgnored,
                     cWait.error("Error waiting on Named Pipe: 3, Error : Cannot allocate memory"), cWait.left()}),
              logged());
    expectTextTakenTwice(ENOMEM);
}

TEST_F(WaitLinuxTest, OtherFailuresOfTheWaitAreNotRepeated)
{
    struct Row {
        int mErrno;
        const char* mText;
    };
    for (const Row& lrRow : {Row{EBADF, "Bad file descriptor"}, Row{EINVAL, "Invalid argument"},
                             Row{EAGAIN, "Resource temporarily unavailable"}, Row{513, "Unknown error 513"},
                             Row{512, "Unknown error 512"}}) {
        clearLog();
        gSelectCount = 0;
        gTextCount = 0;
        gSelectAnswers = {{-1, lrRow.mErrno, {1, 0}}};
        EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, lrRow.mText, OsWaitForActivity(1023, 1));
        EXPECT_EQ((Lines{cWait.entered(),
                         cWait.error(std::string("Error waiting on Named Pipe: 1023, Error : ") + lrRow.mText),
                         cWait.left()}),
                  logged());
        EXPECT_EQ(1U, gSelectCount);
        expectTextTakenTwice(lrRow.mErrno);
    }
}

TEST_F(WaitLinuxTest, ClosedDescriptorIsAFailedWait)
{
    const int lClosed = dup(0);
    close(lClosed);
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Bad file descriptor", OsWaitForActivity(lClosed, 30));
    EXPECT_EQ(
        (Lines{cWait.entered(),
               cWait.error("Error waiting on Named Pipe: " + std::to_string(lClosed) + ", Error : Bad file descriptor"),
               cWait.left()}),
        logged());
    expectOsFamily([&] { OsWaitForActivity(lClosed, 30); });
}

/// How many descriptors the kernel's table of this process holds before it grows.
int descriptorTableSize()
{
    std::ifstream lStatus("/proc/self/status");
    std::string lField;
    int lSize = 0;
    while (lStatus >> lField && "FDSize:" != lField) {
    }
    lStatus >> lSize;
    return lSize;
}

/// In a child: its table is no larger than the descriptors need that its parent has open.
TEST_F(WaitLinuxTest, ClosedDescriptorBeyondTheKernelsTableTimesOut)
{
    const int cTooLarge = 77;
    const ChildResult lResult = inChild([] {
        const int lSize = descriptorTableSize();
        if (FD_SETSIZE <= lSize) {
            _exit(cTooLarge);
        }
        EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Bad file descriptor", OsWaitForActivity(lSize - 1, 0));
        clearLog();
        EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(lSize, 0));
        EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(FD_SETSIZE - 1, 0));
    });
    if (cTooLarge == lResult.mExitStatus) {
        GTEST_SKIP() << "the table holds every descriptor that can be waited for";
    }
    EXPECT_EQ(0, lResult.mExitStatus);
    Lines lExpected = timeOutLines("0");
    const Lines lSecond = timeOutLines("0");
    lExpected.insert(lExpected.end(), lSecond.begin(), lSecond.end());
    EXPECT_EQ(lExpected, lResult.mLines);
}

TEST_F(WaitLinuxTest, MinusOneIsNoDescriptorAndWaitsOutItsTime)
{
    const double lSeconds =
        secondsOf([&] { EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(-1, 1)); });
    EXPECT_LE(1.0, lSeconds);
    EXPECT_EQ(timeOutLines("1"), logged());
    expectAsked(0, -1, 1, 0);
}

TEST_F(WaitLinuxTest, MinusTwoIsAFailedWaitLoggedUnsigned)
{
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Invalid argument", OsWaitForActivity(-2, 1));
    EXPECT_EQ((Lines{cWait.entered(), cWait.error("Error waiting on Named Pipe: 4294967294, Error : Invalid argument"),
                     cWait.left()}),
              logged());
    expectAsked(0, -2, 1, 0);
}

TEST_F(WaitLinuxTest, LastDescriptorOfTheSetCanBeWaitedOn)
{
    rlimit lLimit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lLimit));
    const rlimit lRaised = {std::max<rlim_t>(lLimit.rlim_cur, 1024), lLimit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lRaised));
    Channel lChannel;
    ASSERT_EQ(1023, dup2(lChannel.out(), 1023));
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(1023, 0));
    clearLog();
    ASSERT_EQ(1, write(lChannel.in(), "x", 1));
    OsWaitForActivity(1023, 30);
    EXPECT_EQ(dataLines(), logged());
    expectAsked(1, 1023, 30, 0);
    close(1023);
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &lLimit));
}

#if defined(_FORTIFY_SOURCE) && defined(__OPTIMIZE__) && !OQ_SANITIZED
TEST_F(WaitLinuxTest, DescriptorBeyondTheSetEndsTheProcess)
{
    const ChildResult lResult = inChild([] {
        const rlimit lNoCore = {0, 0};
        setrlimit(RLIMIT_CORE, &lNoCore);
        const int lQuiet = open("/dev/null", O_WRONLY);
        dup2(lQuiet, 2);
        OsWaitForActivity(1024, 0);
    });
    EXPECT_EQ(SIGABRT, lResult.mSignal);
}
#endif

volatile sig_atomic_t sAlarms = 0;

void setAlarms(int aMilliseconds)
{
    const itimerval lTimer = {{0, aMilliseconds * 1000}, {0, aMilliseconds * 1000}};
    setitimer(ITIMER_REAL, &lTimer, nullptr);
}

TEST_F(WaitLinuxTest, SignalsNeitherEndNorLengthenTheWait)
{
    struct sigaction lAction = {};
    struct sigaction lOld;
    // A wait that began anew with each signal would end only after the signals have.
    lAction.sa_handler = [](int) {
        sAlarms = sAlarms + 1;
        if (120 == sAlarms) {
            setAlarms(0);
        }
    };
    sigaction(SIGALRM, &lAction, &lOld);
    sAlarms = 0;
    Channel lChannel;
    setAlarms(50);
    const double lSeconds =
        secondsOf([&] { EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsWaitForActivity(lChannel.out(), 1)); });
    setAlarms(0);
    sigaction(SIGALRM, &lOld, nullptr);
    EXPECT_LE(0.999, lSeconds);  // the system rounds the time left down to microseconds
    EXPECT_LT(lSeconds, 5);
    const unsigned int lCalls = gSelectCount;
    EXPECT_LE(2U, lCalls);  // twenty, but while the process has no processor several alarms become one
    Lines lExpected = timeOutLines("1");
    lExpected.insert(lExpected.begin() + 1, lCalls - 1,
                     cWait.information("The select() call was interrupted.. Ignoring"));
    EXPECT_EQ(lExpected, logged());
}

TEST_F(WaitLinuxTest, ManyThreadsWaitAtOnceOnOneDescriptorAndOnTheirOwn)
{
    Channel lCommon;
    Channel lOwn[4];
    std::vector<std::thread> lThreads;
    for (unsigned int lIndex = 0; lIndex < 8; ++lIndex) {
        const int lDescriptor = lIndex < 4 ? lCommon.out() : lOwn[lIndex - 4].out();
        lThreads.emplace_back([=] { EXPECT_NO_THROW(OsWaitForActivity(lDescriptor, 30)); });
    }
    EXPECT_TRUE(eventually([] { return 8U == gSelectCount; }));
    ASSERT_EQ(1, write(lCommon.in(), "x", 1));
    for (const Channel& lrOwn : lOwn) {
        ASSERT_EQ(1, write(lrOwn.in(), "x", 1));
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
    EXPECT_EQ(24U, logged().size());
}

// ---- Running a command

class ExecuteLinuxTest : public MiscLinuxTest
{
protected:
    /// Runs a command that prints nothing and reads these pieces in its place.
    void executePieces(const Texts& acrPieces)
    {
        gPieces = acrPieces;
        gPiecesPlanned = true;
        gReadCount = 0;
        OsExecute(":", mLines);
    }

    Texts run(const char* acCommand)
    {
        OsExecute(acCommand, mLines);
        const Texts lTexts = textsOf(mLines);
        mLines.clear();
        return lTexts;
    }

    /// The lines of the end of a run.
    static void appendEnd(Lines& arLines, unsigned int aCount)
    {
        arLines.push_back(cExecute.trace("Fread returned ERROR. lLength = 0"));
        arLines.push_back(cExecute.trace("Number of lines in output: " + std::to_string(aCount)));
        arLines.push_back(cExecute.left());
    }

    static void expectAllReleased()
    {
        EXPECT_EQ(1U, gCloses);
        EXPECT_EQ(gStream, gClosed);
#if !OQ_SANITIZED
        EXPECT_LE(1U, gReadBufferFreed);
        EXPECT_TRUE(nullptr == gLineBuffer || 0 < gLineBufferFreed);
#endif
    }

    /// Read number aCall was asked for what follows aUsed bytes, which the rest of the buffer was cleared for.
    static void expectRead(unsigned int aCall, unsigned int aUsed)
    {
        const ReadCall& lrRead = gReadCalls[aCall];
        char* const lpPlace = gReadCalls[0].mBuffer + aUsed;
        EXPECT_EQ(lpPlace, lrRead.mBuffer);
        EXPECT_EQ(1U, lrRead.mSize);
        EXPECT_EQ(3999 - aUsed, lrRead.mCount);
        EXPECT_EQ(gStream, lrRead.mStream);
        EXPECT_EQ(lpPlace, lrRead.mCleared.mMemory);
        EXPECT_EQ(0, lrRead.mCleared.mValue);
        EXPECT_EQ(4000 - aUsed, lrRead.mCleared.mCount);
        EXPECT_TRUE(lrRead.mZero);
    }

    /// What a run that ended in exhausted memory left behind.
    static void releaseLeftovers(bool aLineBuffer)
    {
        EXPECT_EQ(0U, gCloses);
        static Behind<int(FILE*)> lClose("pclose");
        lClose(gStream);
        void* const lpReadBuffer = gReadBuffer.exchange(nullptr);
        void* const lpLineBuffer = gLineBuffer.exchange(nullptr);
        if (nullptr != lpReadBuffer) {
            EXPECT_EQ(0U, gReadBufferFreed);
            free(lpReadBuffer);
        }
        if (aLineBuffer) {
            free(lpLineBuffer);
        }
    }

    OQCList<OQCString> mLines;
};

TEST_F(ExecuteLinuxTest, EveryCompleteLineOfTheOutputIsAppended)
{
    gLogAtCloseWanted = true;
    OsExecute("printf 'a\\nb\\n'", mLines);
    EXPECT_EQ((Texts{"a", "b"}), textsOf(mLines));
    Lines lExpected = {cExecute.entered(),
                       cExecute.trace("Calling popen"),
                       cExecute.trace("Buffer got = a\nb\n"),
                       cBreak.entered(),
                       cBreak.trace("Line: a"),
                       cBreak.trace("Line: b"),
                       cBreak.trace("End of popened Buffer"),
                       cBreak.left()};
    appendEnd(lExpected, 2);
    EXPECT_EQ(lExpected, logged());
    EXPECT_STREQ("printf 'a\\nb\\n'", gCommand);
    EXPECT_STREQ("r", gMode);
    ASSERT_EQ(2U, gReadCount);
    expectRead(0, 0);
    expectRead(1, 0);
    EXPECT_EQ("Fread returned ERROR. lLength = 0", gLastTextAtClose);
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, LastLineWithoutANewlineIsDropped)
{
    OsExecute("printf 'a\\nb'", mLines);
    EXPECT_EQ((Texts{"a"}), textsOf(mLines));
    Lines lExpected = {cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Buffer got = a\nb"),
                       cBreak.entered(),   cBreak.trace("Line: a"),         cBreak.trace("Incomplete line: b"),
                       cBreak.left()};
    appendEnd(lExpected, 1);
    EXPECT_EQ(lExpected, logged());
    ASSERT_EQ(2U, gReadCount);
    expectRead(0, 0);
    expectRead(1, 1);
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, EmptyLinesBecomeEmptyTexts)
{
    EXPECT_EQ((Texts{"", ""}), run("printf '\\n\\n'"));
    EXPECT_EQ((Texts{"", "a", "", "", "b"}), run("printf '\\na\\n\\n\\nb\\n'"));
}

TEST_F(ExecuteLinuxTest, NothingIsTrimmed)
{
    EXPECT_EQ((Texts{" a\t ", "b\r", "\r", "%s %n"}), run("printf ' a\\t \\nb\\r\\n\\r\\n%%s %%n\\n'"));
}

TEST_F(ExecuteLinuxTest, CommandThatPrintsNothingGivesNoLine)
{
    OsExecute("exit 3", mLines);
    EXPECT_EQ(Texts(), textsOf(mLines));
    Lines lExpected = {cExecute.entered(), cExecute.trace("Calling popen")};
    appendEnd(lExpected, 0);
    EXPECT_EQ(lExpected, logged());
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, BufferIsClearedWhenItIsMadeAndBeforeTheRead)
{
    gWholeClearings = 0;
    OsExecute(":", mLines);
    EXPECT_EQ(2U, gWholeClearings);
}

TEST_F(ExecuteLinuxTest, CommandThatTheShellCannotRunGivesNoLineAndNoError)
{
    OsExecute("exec 2>/dev/null; /nonexistent/program", mLines);
    EXPECT_EQ(Texts(), textsOf(mLines));
    Lines lExpected = {cExecute.entered(), cExecute.trace("Calling popen")};
    appendEnd(lExpected, 0);
    EXPECT_EQ(lExpected, logged());
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, StatusAndErrorOutputOfTheCommandAreNotLookedAt)
{
    EXPECT_EQ((Texts{"a"}), run("exec 2>/dev/null; echo a; echo e >&2; exit 3"));
    EXPECT_EQ((Texts{"a"}), run("echo a; kill -9 $$"));
}

TEST_F(ExecuteLinuxTest, EntriesOfTheListAreKeptAndCounted)
{
    mLines.append("old");
    mLines.append("older");
    OsExecute("echo new", mLines);
    EXPECT_EQ((Texts{"old", "older", "new"}), textsOf(mLines));
    const Lines lLines = logged();
    ASSERT_LE(2U, lLines.size());
    EXPECT_EQ(cExecute.trace("Number of lines in output: 3"), lLines[lLines.size() - 2]);
}

TEST_F(ExecuteLinuxTest, RefusedPopenReturnsQuietly)
{
    mLines.append("old");
    popenFault.failOn(1, 0, EMFILE);
    OsExecute("echo a", mLines);
    EXPECT_EQ((Texts{"old"}), textsOf(mLines));
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Failed in popen"),
                     cExecute.left()}),
              logged());
    EXPECT_EQ(0U, gReadCount);
    EXPECT_EQ(0U, gCloses);
    EXPECT_EQ(0U, gTextCount);
}

/// One that another thread starts meanwhile would keep the pipe open, and a command that waits for its reader to leave
/// would run on.
TEST_F(ExecuteLinuxTest, StreamIsNotInheritedByProgramsThatAreStartedWhileTheCommandRuns)
{
    int lFlags = -1;
    gBeforeRead = [&] { lFlags = fcntl(fileno(gStream), F_GETFD); };
    EXPECT_EQ((Texts{"a"}), run("echo a"));
    EXPECT_EQ(FD_CLOEXEC, lFlags);
}

#if !OQ_SANITIZED
TEST_F(ExecuteLinuxTest, CancelledThreadFreesTheBufferAndLeavesTheStreamAndTheCommand)
{
    gBeforeRead = [] {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    };
    pthread_t lThread;
    ASSERT_EQ(0, pthread_create(
                     &lThread, nullptr,
                     [](void* apLines) -> void* {
                         OsExecute("exit 5", *static_cast<OQCList<OQCString>*>(apLines));
                         return nullptr;
                     },
                     &mLines));
    void* lpResult = nullptr;
    EXPECT_EQ(0, pthread_join(lThread, &lpResult));
    EXPECT_EQ(PTHREAD_CANCELED, lpResult);
    EXPECT_EQ(1U, gReadBufferFreed);
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen")}), logged());
    EXPECT_EQ(0U, gCloses);
    static Behind<int(FILE*)> lClose("pclose");
    EXPECT_EQ(5 << 8, lClose(gStream));
}
#endif

TEST_F(ExecuteLinuxTest, LineThatComesInPiecesIsJoined)
{
    executePieces({"ab", "cd\ne", "f", "g\n\nhi", "\n", "last\n"});
    EXPECT_EQ((Texts{"abcd", "efg", "", "hi", "last"}), textsOf(mLines));
    Lines lExpected = {cExecute.entered(),
                       cExecute.trace("Calling popen"),
                       cExecute.trace("Buffer got = ab"),
                       cBreak.entered(),
                       cBreak.trace("Incomplete line: ab"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = cd\ne"),
                       cBreak.entered(),
                       cBreak.trace("Line: abcd"),
                       cBreak.trace("Incomplete line: e"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = f"),
                       cBreak.entered(),
                       cBreak.trace("Incomplete line: ef"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = g\n\nhi"),
                       cBreak.entered(),
                       cBreak.trace("Line: efg"),
                       cBreak.trace("Line: "),
                       cBreak.trace("Incomplete line: hi"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = \n"),
                       cBreak.entered(),
                       cBreak.trace("Line: hi"),
                       cBreak.trace("End of popened Buffer"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = last\n"),
                       cBreak.entered(),
                       cBreak.trace("Line: last"),
                       cBreak.trace("End of popened Buffer"),
                       cBreak.left()};
    appendEnd(lExpected, 5);
    EXPECT_EQ(lExpected, logged());
    ASSERT_EQ(7U, gReadCount);
    const unsigned int cUsed[] = {0, 2, 1, 2, 2, 0, 0};
    for (unsigned int lCall = 0; lCall < 7; ++lCall) {
        expectRead(lCall, cUsed[lCall]);
    }
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, ZeroByteEndsTheTextOfItsRead)
{
    const std::string cZero(1, '\0');
    executePieces({"a\n" + cZero + "b\nc\n", "d\n"});
    EXPECT_EQ((Texts{"a", "d"}), textsOf(mLines));
    mLines.clear();
    clearLog();
    executePieces({"a" + cZero + "b\nc\n", cZero + "x\n", "d\n"});
    EXPECT_EQ((Texts{"ad"}), textsOf(mLines));
    Lines lExpected = {cExecute.entered(),
                       cExecute.trace("Calling popen"),
                       cExecute.trace("Buffer got = a"),
                       cBreak.entered(),
                       cBreak.trace("Incomplete line: a"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = "),
                       cBreak.entered(),
                       cBreak.trace("Incomplete line: a"),
                       cBreak.left(),
                       cExecute.trace("Buffer got = d\n"),
                       cBreak.entered(),
                       cBreak.trace("Line: ad"),
                       cBreak.trace("End of popened Buffer"),
                       cBreak.left()};
    appendEnd(lExpected, 1);
    EXPECT_EQ(lExpected, logged());
    expectRead(1, 1);
    expectRead(2, 1);
}

TEST_F(ExecuteLinuxTest, ZeroByteOfARealCommandDoesTheSame)
{
    EXPECT_EQ((Texts{"a"}), run("printf 'a\\n\\0b\\nc\\n'"));
    EXPECT_EQ((Texts{}), run("printf 'a\\0b\\nc\\n'"));
}

TEST_F(ExecuteLinuxTest, LongestLineThatFitsFillsTheBufferWithItsNewline)
{
    const std::string cLine(3998, 'x');
    EXPECT_EQ((Texts{cLine, cLine, "end"}),
              run("head -c 3998 /dev/zero | tr '\\0' x; echo; head -c 3998 /dev/zero | tr '\\0' x; echo; echo end"));
    ASSERT_EQ(4U, gReadCount);
    expectRead(1, 0);
    expectRead(2, 0);
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, LongestLineThatFitsIsJoinedFromTwoReads)
{
    const std::string cLine(3998, 'x');
    EXPECT_EQ((Texts{"0123456789", cLine, "end"}),
              run("echo 0123456789; head -c 3998 /dev/zero | tr '\\0' x; echo; echo end"));
    ASSERT_LE(2U, gReadCount);
    expectRead(0, 0);
    expectRead(1, 3999 - 11);
}

TEST_F(ExecuteLinuxTest, LineThatFillsTheBufferEndsTheReading)
{
    for (const unsigned int lLength : {3999U, 4000U, 9000U}) {
        clearLog();
        gReadCount = 0;
        gCloses = 0;
        gReadBufferFreed = 0;
        const std::string lCommand =
            "echo a; head -c " + std::to_string(lLength) + " /dev/zero | tr '\\0' x; echo; echo lost";
        OsExecute(lCommand.c_str(), mLines);
        EXPECT_EQ((Texts{"a"}), textsOf(mLines));
        mLines.clear();
        Lines lExpected = {cExecute.entered(),
                           cExecute.trace("Calling popen"),
                           cExecute.trace("Buffer got = a\n" + std::string(3997, 'x')),
                           cBreak.entered(),
                           cBreak.trace("Line: a"),
                           cBreak.trace("Incomplete line: " + std::string(3997, 'x')),
                           cBreak.left(),
                           cExecute.trace("Buffer got = xx"),
                           cBreak.entered(),
                           cBreak.trace("Incomplete line: " + std::string(3999, 'x')),
                           cBreak.left()};
        appendEnd(lExpected, 1);
        EXPECT_EQ(lExpected, logged());
        ASSERT_EQ(3U, gReadCount);
        expectRead(0, 0);
        expectRead(1, 3997);
        expectRead(2, 3999);
        expectAllReleased();
    }
}

/// A failure with more to it than its base: only the same object has it.
class PlannedReadFailure : public OQCReadFailedEx
{
public:
    PlannedReadFailure() : OQCException("planned", 999), OQCOsException("", 0), OQCReadFailedEx("", 0) {}
};

TEST_F(ExecuteLinuxTest, FailedReadIsRethrownWithEverythingReleased)
{
    gAtEndOfPieces = [] { throw PlannedReadFailure(); };
    gLogAtCloseWanted = true;
    EXPECT_FAILURE(PlannedReadFailure, 999, "planned", executePieces({"a\nb\nc", "d\ne"}));
    EXPECT_EQ((Texts{"a", "b", "cd"}), textsOf(mLines));
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Buffer got = a\nb\nc"),
                     cBreak.entered(), cBreak.trace("Line: a"), cBreak.trace("Line: b"),
                     cBreak.trace("Incomplete line: c"), cBreak.left(), cExecute.trace("Buffer got = d\ne"),
                     cBreak.entered(), cBreak.trace("Line: cd"), cBreak.trace("Incomplete line: e"), cBreak.left(),
                     cExecute.trace("Failed to read - planned"), cExecute.left()}),
              logged());
    EXPECT_EQ("Failed to read - planned", gLastTextAtClose);
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, RealReadErrorCarriesItsErrorText)
{
    gAfterPopen = [] {
        const int lDirectory = open("/", O_RDONLY | O_DIRECTORY);
        dup2(lDirectory, fileno(gStream));
        close(lDirectory);
    };
    EXPECT_FAILURE(OQCReadFailedEx, 328, "Is a directory", OsExecute(":", mLines));
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"),
                     cExecute.trace("Failed to read - Is a directory"), cExecute.left()}),
              logged());
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, ReadErrorAfterSomeOutputIsThrownAndTheLinesOfEarlierReadsStay)
{
    int lEnds[2];
    ASSERT_EQ(0, pipe2(lEnds, O_CLOEXEC | O_NONBLOCK));
    Texts lExpected;
    for (unsigned int lLine = 1000; lLine < 1500; ++lLine) {  // ten bytes each: more than one read
        const std::string lText = "line " + std::to_string(lLine);
        ASSERT_EQ(10, dprintf(lEnds[1], "%s\n", lText.c_str()));
        if (lLine < 1399) {
            lExpected.push_back(lText);  // the first read takes 3999 bytes
        }
    }
    gAfterPopen = [&lEnds] { dup2(lEnds[0], fileno(gStream)); };
    EXPECT_FAILURE(OQCReadFailedEx, 328, "Resource temporarily unavailable", OsExecute(":", mLines));
    EXPECT_EQ(lExpected, textsOf(mLines));
    EXPECT_EQ(2U, gReadCount);
    expectAllReleased();
    close(lEnds[0]);
    close(lEnds[1]);
}

TEST_F(ExecuteLinuxTest, OtherExceptionOfTheReadPassesAndReleasesNothing)
{
    gAtEndOfPieces = [] { throw OQCOpenFailedEx("planned", 326); };
    EXPECT_FAILURE(OQCOpenFailedEx, 326, "planned", executePieces({}));
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen")}), logged());
    releaseLeftovers(false);
}

#if OQ_SANITIZED
#define OQ_SKIP_WITHOUT_MALLOC() GTEST_SKIP() << "a sanitizer brings its own malloc"
#else
#define OQ_SKIP_WITHOUT_MALLOC() static_cast<void>(0)
#endif

TEST_F(ExecuteLinuxTest, RefusedReadBufferIsOutOfMemoryWithoutAWord)
{
    OQ_SKIP_WITHOUT_MALLOC();
    gAfterPopen = [] { gMallocFault.failOn(1); };
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", OsExecute("echo a", mLines));
    gMallocFault.stop();
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen")}), logged());
    EXPECT_EQ(0U, gReadCount);
    releaseLeftovers(false);
}

TEST_F(ExecuteLinuxTest, RefusedLineBufferIsOutOfMemoryWithNothingReleased)
{
    OQ_SKIP_WITHOUT_MALLOC();
    gAfterRead = [] { gMallocFault.failOn(1); };
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", executePieces({"a\n"}));
    gMallocFault.stop();
    EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Buffer got = a\n"),
                     cBreak.entered()}),
              logged());
    releaseLeftovers(false);
}

TEST_F(ExecuteLinuxTest, MemoryExhaustedByALineIsOutOfMemoryWithNothingReleased)
{
    OQ_SKIP_WITHOUT_MALLOC();
    // The line's text, then the line in the list: each of their allocations fails once.
    const std::string cLong(100, 'l');
    unsigned int lBeforeTheLine = 0;
    unsigned int lInTheList = 0;
    for (unsigned int lNth = 1;; ++lNth) {
        mLines.clear();
        clearLog();
        gCloses = 0;
        gReadBufferFreed = 0;
        unsigned int lCopies = 0;
        gAfterCopy = [&] {
            if (2 == ++lCopies) {
                gMallocFault.failOn(lNth);
            }
        };
        bool lThrown = false;
        try {
            executePieces({"a\n" + cLong + "\n"});
        } catch (const OQCNoMemoryEx& acrFailure) {
            lThrown = true;
            EXPECT_EQ(2U, acrFailure.code());
            EXPECT_STREQ("Out of Memory", acrFailure.what());
        }
        if (gMallocFault.stop() < lNth) {
            EXPECT_FALSE(lThrown);
            EXPECT_EQ((Texts{"a", cLong}), textsOf(mLines));
            break;
        }
        ASSERT_TRUE(lThrown) << "allocation " << lNth << " failed without a word";
        EXPECT_EQ((Texts{"a"}), textsOf(mLines));
        Lines lExpected = {cExecute.entered(), cExecute.trace("Calling popen"),
                           cExecute.trace("Buffer got = a\n" + cLong + "\n"), cBreak.entered(),
                           cBreak.trace("Line: a")};
        if (lExpected == logged()) {
            ++lBeforeTheLine;
        } else {
            ++lInTheList;
            lExpected.push_back(cBreak.trace("Line: " + cLong));
            EXPECT_EQ(lExpected, logged());
        }
        gAfterCopy = nullptr;
        releaseLeftovers(true);
    }
    EXPECT_LE(2U, lBeforeTheLine);
    EXPECT_LE(3U, lInTheList);
}

TEST_F(ExecuteLinuxTest, EveryAllocationOfAWholeRunMayFail)
{
    OQ_SKIP_WITHOUT_MALLOC();
    unsigned int lQuiet = 0;
    unsigned int lThrown = 0;
    for (unsigned int lNth = 1;; ++lNth) {
        mLines.clear();
        clearLog();
        gReadCount = 0;
        gCloses = 0;
        gStream = nullptr;
        gReadBuffer = nullptr;
        gLineBuffer = nullptr;
        gReadBufferFreed = 0;
        gLineBufferFreed = 0;
        gMallocFault.failOn(lNth);
        try {
            OsExecute("echo a", mLines);
            const bool lReached = lNth <= gMallocFault.stop();
            if (nullptr == gStream) {
                ++lQuiet;
                EXPECT_EQ((Lines{cExecute.entered(), cExecute.trace("Calling popen"), cExecute.trace("Failed in popen"),
                                 cExecute.left()}),
                          logged());
                EXPECT_EQ(Texts(), textsOf(mLines));
            } else {
                EXPECT_EQ((Texts{"a"}), textsOf(mLines));  // the C library does without a buffer of its own
                expectAllReleased();
            }
            if (!lReached) {
                break;
            }
        } catch (const OQCNoMemoryEx& acrFailure) {
            gMallocFault.stop();
            ++lThrown;
            EXPECT_STREQ("Out of Memory", acrFailure.what());
            EXPECT_EQ(2U, acrFailure.code());
            EXPECT_EQ(Texts(), textsOf(mLines));
            for (const Line& lrLine : logged()) {
                EXPECT_NE("Left", lrLine.mText);
            }
            releaseLeftovers(nullptr != gLineBuffer);
        }
    }
    EXPECT_LE(1U, lQuiet);
    EXPECT_LE(7U, lThrown);  // two buffers, the line's text, its copy in the list
}

#if !OQ_SANITIZED
size_t memoryInUse()
{
    const struct mallinfo2 lInfo = mallinfo2();
    return lInfo.uordblks + lInfo.hblkhd;
}
#endif

TEST_F(ExecuteLinuxTest, TwoHundredThousandLinesArriveWholeAndInOrderInBoundedMemory)
{
    keepNoLines();
#if !OQ_SANITIZED
    // What is in use while it runs, beside the lines of the list, which are all of one length.
    struct Sample {
        size_t mInUse;
        int mLines;
    };
    std::vector<Sample> lSamples;
    lSamples.reserve(200);
    unsigned int lReads = 0;
    unsigned int lCopies = 0;
    const auto lTake = [&] { lSamples.push_back({memoryInUse(), mLines.size()}); };
    gBeforeRead = [&] {
        if (0 == lReads++ % 16) {
            lTake();
        }
    };
    gAfterCopy = [&] {
        if (0 == ++lCopies % 10000) {
            lTake();
        }
    };
    const size_t lBefore = memoryInUse();
#endif
    OsExecute("seq 100001 300000", mLines);
#if !OQ_SANITIZED
    const size_t lAfter = memoryInUse();
    ASSERT_LT(40U, lSamples.size());
    const double lLine = static_cast<double>(lAfter - lBefore) / 200000;
    for (const Sample& lrSample : lSamples) {
        const double lBeside = static_cast<double>(lrSample.mInUse - lBefore) - lLine * lrSample.mLines;
        EXPECT_LT(lBeside, 2 * 4000 + 4096 + 2000) << "after " << lrSample.mLines;  // and the C library's own buffer
    }
#endif
    ASSERT_EQ(200000, mLines.size());
    unsigned int lNumber = 100001;
    unsigned int lWrong = 0;
    for (const OQCString& lrLine : mLines) {
        lWrong += std::to_string(lNumber++) == lrLine.get() ? 0U : 1U;
    }
    EXPECT_EQ(0U, lWrong);
    expectAllReleased();
}

TEST_F(ExecuteLinuxTest, LinesOfASlowWriterArriveWholeAndInOrder)
{
    keepNoLines();
    const std::string lPath = path("slow");
    ASSERT_EQ(0, mkfifo(lPath.c_str(), 0600));
    Texts lExpected;
    std::string lText;
    for (unsigned int lLine = 0; lLine < 600; ++lLine) {
        lExpected.push_back(std::string(lLine % 61, static_cast<char>('a' + lLine % 26)));
        lText += lExpected.back() + "\n";
    }
    Peer lPeer([&](Peer&) {
        const int lFifo = open(lPath.c_str(), O_WRONLY);
        for (size_t lSent = 0; lSent < lText.size(); lSent += 7) {
            const size_t lCount = std::min<size_t>(7, lText.size() - lSent);
            EXPECT_EQ(static_cast<ssize_t>(lCount), write(lFifo, lText.data() + lSent, lCount));
            int lWaiting = 1;
            while (0 == ioctl(lFifo, FIONREAD, &lWaiting) && 0 != lWaiting) {
                std::this_thread::yield();
            }
        }
    });
    EXPECT_EQ(lExpected, run(("exec cat " + lPath).c_str()));
    EXPECT_EQ(0, lPeer.wait());
    expectAllReleased();
    unlink(lPath.c_str());
}

TEST_F(ExecuteLinuxTest, LinesInPiecesOfEverySizeArriveWhole)
{
    keepNoLines();
    std::string lText;
    Texts lExpected;
    for (unsigned int lLine = 0; lLine < 300; ++lLine) {
        lExpected.push_back(std::to_string(lLine * 7919));
        lText += lExpected.back() + "\n";
    }
    for (const size_t lSize : {1U, 2U, 3U, 5U, 64U, 500U}) {
        mLines.clear();
        Texts lPieces;
        for (size_t lSent = 0; lSent < lText.size(); lSent += lSize) {
            lPieces.push_back(lText.substr(lSent, lSize));
        }
        executePieces(lPieces);
        EXPECT_EQ(lExpected, textsOf(mLines)) << lSize;
    }
}

// ---- Splitting a buffer

class BreakLinuxTest : public ExecuteLinuxTest
{
protected:
    /// Splits a text and tells where the next read is to be stored.
    long breakText(const std::string& acrText)
    {
        memset(mBuffer, '#', sizeof mBuffer);
        memcpy(mBuffer, acrText.c_str(), acrText.size() + 1);
        mLines.clear();
        clearLog();
        gLineBuffer = nullptr;
        gLineBufferFreed = 0;
        const char* const lpNext = OsBreak(mBuffer, mLines);
#if !OQ_SANITIZED
        EXPECT_EQ(1U, gLineBufferFreed);
#endif
        EXPECT_NE(gLineBuffer, mBuffer);
        return lpNext - mBuffer;
    }

    char mBuffer[4000];
};

TEST_F(BreakLinuxTest, TextThatEndsWithANewlineIsSplitAndTheBufferIsFree)
{
    EXPECT_EQ(0, breakText("one\ntwo\n"));
    EXPECT_EQ((Texts{"one", "two"}), textsOf(mLines));
    EXPECT_EQ((Lines{cBreak.entered(), cBreak.trace("Line: one"), cBreak.trace("Line: two"),
                     cBreak.trace("End of popened Buffer"), cBreak.left()}),
              logged());
    EXPECT_EQ(0, memcmp("one\0two\0\0#", mBuffer, 10));  // a zero for each newline, and no more written
}

TEST_F(BreakLinuxTest, BufferOfLinesIsClearedWhenItIsMade)
{
    gWholeClearings = 0;
    breakText("one\n");
    EXPECT_EQ(1U, gWholeClearings);
}

TEST_F(BreakLinuxTest, UnfinishedLineIsMovedToTheStart)
{
    EXPECT_EQ(3, breakText("a longer line\nend"));
    EXPECT_EQ((Texts{"a longer line"}), textsOf(mLines));
    EXPECT_EQ((Lines{cBreak.entered(), cBreak.trace("Line: a longer line"), cBreak.trace("Incomplete line: end"),
                     cBreak.left()}),
              logged());
    EXPECT_STREQ("end", mBuffer);
}

TEST_F(BreakLinuxTest, UnfinishedLineThatIsLongerThanTheLinesBeforeItIsMovedWhole)
{
    EXPECT_EQ(20, breakText("a\nbcdefghijklmnopqrstu"));
    EXPECT_STREQ("bcdefghijklmnopqrstu", mBuffer);
    EXPECT_EQ((Texts{"a"}), textsOf(mLines));
}

TEST_F(BreakLinuxTest, TextWithoutANewlineStays)
{
    EXPECT_EQ(4, breakText("text"));
    EXPECT_STREQ("text", mBuffer);
    EXPECT_EQ(Texts(), textsOf(mLines));
    EXPECT_EQ((Lines{cBreak.entered(), cBreak.trace("Incomplete line: text"), cBreak.left()}), logged());
}

TEST_F(BreakLinuxTest, EmptyTextIsAnUnfinishedLineOfNoLength)
{
    EXPECT_EQ(0, breakText(""));
    EXPECT_EQ(Texts(), textsOf(mLines));
    EXPECT_EQ((Lines{cBreak.entered(), cBreak.trace("Incomplete line: "), cBreak.left()}), logged());
}

TEST_F(BreakLinuxTest, EmptyLinesAndCarriageReturnsAreKept)
{
    EXPECT_EQ(0, breakText("\n\n"));
    EXPECT_EQ((Texts{"", ""}), textsOf(mLines));
    EXPECT_EQ((Lines{cBreak.entered(), cBreak.trace("Line: "), cBreak.trace("Line: "),
                     cBreak.trace("End of popened Buffer"), cBreak.left()}),
              logged());
    EXPECT_EQ(1, breakText("a\r\n\r\n\r"));
    EXPECT_EQ((Texts{"a\r", "\r"}), textsOf(mLines));
    EXPECT_STREQ("\r", mBuffer);
}

TEST_F(BreakLinuxTest, FullBufferIsSplitOrKeptWhole)
{
    EXPECT_EQ(3999, breakText(std::string(3999, 'x')));
    EXPECT_EQ(std::string(3999, 'x'), mBuffer);
    EXPECT_EQ(0, breakText(std::string(3998, 'y') + "\n"));
    EXPECT_EQ((Texts{std::string(3998, 'y')}), textsOf(mLines));
    EXPECT_EQ(3998, breakText("\n" + std::string(3998, 'z')));
    EXPECT_EQ(std::string(3998, 'z'), mBuffer);
}

TEST_F(BreakLinuxTest, EntriesOfTheListAreKept)
{
    mLines.append("old");
    char lText[] = "new\n";
    EXPECT_EQ(lText, OsBreak(lText, mLines));
    EXPECT_EQ((Texts{"old", "new"}), textsOf(mLines));
}

TEST_F(BreakLinuxTest, ExhaustedMemoryIsThrownAndLinesBeforeItStay)
{
    OQ_SKIP_WITHOUT_MALLOC();
    unsigned int lFailures = 0;
    for (unsigned int lNth = 1;; ++lNth) {
        OQCList<OQCString> lLines;
        char lText[] = "one\ntwo\nrest";
        clearLog();
        gLineBuffer = nullptr;
        gLineBufferFreed = 0;
        bool lThrown = false;
        gMallocFault.failOn(lNth);
        try {
            OsBreak(lText, lLines);
        } catch (const OQCNoMemoryEx& acrFailure) {
            lThrown = true;
            EXPECT_STREQ("Out of Memory", acrFailure.what());
            EXPECT_EQ(2U, acrFailure.code());
        }
        if (gMallocFault.stop() < lNth) {
            EXPECT_FALSE(lThrown);
            EXPECT_EQ((Texts{"one", "two"}), textsOf(lLines));
            break;
        }
        ASSERT_TRUE(lThrown);
        ++lFailures;
        for (const Line& lrLine : logged()) {
            EXPECT_FALSE(cBreak.left() == lrLine);
        }
        if (1 == lNth) {
            EXPECT_EQ((Lines{cBreak.entered()}), logged());
        }
        EXPECT_LE(lLines.size(), 1);
        EXPECT_EQ(0U, gLineBufferFreed);
        free(gLineBuffer.exchange(nullptr));
    }
    EXPECT_LE(11U, lFailures);  // the buffer; for each line its text and its copy in the list
}

// ---- File locks and signals to processes

class LockLinuxTest : public MiscLinuxTest
{
protected:
    void SetUp() override
    {
        MiscLinuxTest::SetUp();
        mPath = path("locked");
        mFile = open(mPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_LE(0, mFile);
    }
    void TearDown() override
    {
        close(mFile);
        unlink(mPath.c_str());
        MiscLinuxTest::TearDown();
    }

    /// What another process finds at an offset.
    OQEFileLockStatus statusElsewhere(off_t aOffset = 0)
    {
        const ChildResult lResult = inChild([&] {
            const int lFile = open(mPath.c_str(), O_RDWR);
            lseek(lFile, aOffset, SEEK_SET);
            OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0);
            OsFileLockStatus(lFile, lStatus);
            _exit(lStatus);
        });
        return static_cast<OQEFileLockStatus>(lResult.mExitStatus);
    }

    /// A process that locks the file from an offset on until it is told to end.
    void lockElsewhere(Peer& arPeer, off_t aOffset)
    {
        const int lFile = open(mPath.c_str(), O_RDWR);
        lseek(lFile, aOffset, SEEK_SET);
        OsLockFile(lFile);
        arPeer.signal();
        arPeer.meet();
    }

    static void expectAsked(int aDescriptor, int aCommand)
    {
        EXPECT_EQ(aDescriptor, gLocked.mDescriptor);
        EXPECT_EQ(aCommand, gLocked.mCommand);
        EXPECT_EQ(0, gLocked.mLength);
    }

    static Lines lockFailed(const std::string& acrText)
    {
        return {cLock.entered(), cLock.trace("Going to lock file"),
                cLock.error("Failed to lock file, error: " + acrText), cLock.left()};
    }

    std::string mPath;
    int mFile = -1;
};

TEST_F(LockLinuxTest, FileIsLockedAgainstOtherProcessesAndUnlockedAgain)
{
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere());
    OsLockFile(mFile);
    EXPECT_EQ((Lines{cLock.entered(), cLock.trace("Going to lock file"), cLock.left()}), logged());
    expectAsked(mFile, 2);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere());
    clearLog();
    OsUnlockFile(mFile);
    EXPECT_EQ((Lines{cUnlock.entered(), cUnlock.left()}), logged());
    expectAsked(mFile, 0);
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere());
    EXPECT_EQ(0U, gTextCount);
}

TEST_F(LockLinuxTest, FileThatAnotherProcessHasLockedFailsAtOnce)
{
    Peer lPeer([&](Peer& arPeer) { lockElsewhere(arPeer, 0); });
    lPeer.meet();
    // Sure not to wait for the other process, which waits for this one.
    lockfFault.reset();
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Resource temporarily unavailable", OsLockFile(mFile));
    EXPECT_EQ(lockFailed("Resource temporarily unavailable"), logged());
    EXPECT_EQ(1U, lockfFault.calls());
    expectTextTakenTwice(EAGAIN);
    expectOsFamily([&] { OsLockFile(mFile); });

    clearLog();
    OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
    OsFileLockStatus(mFile, lStatus);
    EXPECT_EQ(OQFLS_Locked, lStatus);
    EXPECT_EQ((Lines{cStatus.entered(), cStatus.trace("Going to find locking status"), cStatus.left()}), logged());

    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait());
    OsLockFile(mFile);
    OsUnlockFile(mFile);
}

TEST_F(LockLinuxTest, LockingTwiceSucceedsAndOneUnlockUndoesBoth)
{
    OsLockFile(mFile);
    clearLog();
    OsLockFile(mFile);
    EXPECT_EQ((Lines{cLock.entered(), cLock.trace("Going to lock file"), cLock.left()}), logged());
    OsUnlockFile(mFile);
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere());
}

TEST_F(LockLinuxTest, ThreadsOfOneProcessDoNotExcludeEachOther)
{
    OsLockFile(mFile);
    std::thread lThread([&] {
        const int lFile = open(mPath.c_str(), O_RDWR | O_CLOEXEC);
        OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
        OsFileLockStatus(lFile, lStatus);
        EXPECT_EQ(OQFLS_Unlocked, lStatus);
        EXPECT_NO_THROW(OsLockFile(lFile));
        close(lFile);
    });
    lThread.join();
}

TEST_F(LockLinuxTest, UnlockingWhatIsNotLockedSucceeds)
{
    OsUnlockFile(mFile);
    EXPECT_EQ((Lines{cUnlock.entered(), cUnlock.left()}), logged());
}

TEST_F(LockLinuxTest, RegionBeginsAtTheCurrentOffsetAndHasNoEnd)
{
    lseek(mFile, 10, SEEK_SET);
    OsLockFile(mFile);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(0));
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(1000000));
    lseek(mFile, 20, SEEK_SET);
    OsUnlockFile(mFile);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere(19));
    EXPECT_EQ(OQFLS_Unlocked, statusElsewhere(20));
    EXPECT_EQ(20, lseek(mFile, 0, SEEK_CUR));
}

TEST_F(LockLinuxTest, RegionLockedElsewhereIsFoundFromItsOffsetOn)
{
    Peer lPeer([&](Peer& arPeer) { lockElsewhere(arPeer, 100); });
    lPeer.meet();
    for (const off_t lOffset : {0, 99, 100, 5000}) {
        lseek(mFile, lOffset, SEEK_SET);
        EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Resource temporarily unavailable", OsLockFile(mFile));
    }
    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait());
}

TEST_F(LockLinuxTest, OwnLockReadsAsUnlocked)
{
    OsLockFile(mFile);
    clearLog();
    OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
    OsFileLockStatus(mFile, lStatus);
    EXPECT_EQ(OQFLS_Unlocked, lStatus);
    EXPECT_EQ(2, lStatus);
    EXPECT_EQ((Lines{cStatus.entered(), cStatus.trace("Going to find locking status"), cStatus.left()}), logged());
    expectAsked(mFile, 3);
    EXPECT_EQ(OQFLS_Locked, statusElsewhere()) << "asking must not unlock";
}

TEST_F(LockLinuxTest, ClosedDescriptorReadsAsLocked)
{
    const int lClosed = dup(mFile);
    close(lClosed);
    for (const int lDescriptor : {lClosed, -1}) {
        clearLog();
        OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
        OsFileLockStatus(lDescriptor, lStatus);
        EXPECT_EQ(OQFLS_Locked, lStatus);
        EXPECT_EQ(4, lStatus);
        EXPECT_EQ((Lines{cStatus.entered(), cStatus.trace("Going to find locking status"), cStatus.left()}), logged());
    }
    EXPECT_EQ(0U, gTextCount);
}

TEST_F(LockLinuxTest, AnyOtherFailureOfTheStatusReadsAsLocked)
{
    for (const int lErrno : {EACCES, EINVAL, ENOLCK}) {
        lockfFault.failOn(1, -1, lErrno);
        OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
        OsFileLockStatus(mFile, lStatus);
        EXPECT_EQ(OQFLS_Locked, lStatus);
    }
    static_assert(1 == sizeof(OQEFileLockStatus), "one byte wide");
}

TEST_F(LockLinuxTest, PositiveStatusIsABrokenPrecondition)
{
    const ChildResult lResult = inChild([&] {
        lockfFault.failAlways(1, 0);
        OQEFileLockStatus lStatus = OQFLS_Locked;
        OsFileLockStatus(mFile, lStatus);
    });
    EXPECT_EQ(1, lResult.mExitStatus);
    EXPECT_EQ((Lines{cStatus.entered(), cStatus.trace("Going to find locking status"), cStatus.assertion("false")}),
              lResult.mLines);
}

TEST_F(LockLinuxTest, PositiveResultOfLockAndUnlockIsSuccess)
{
    lockfFault.failAlways(1, EIO);
    OsLockFile(mFile);
    OsUnlockFile(mFile);
    EXPECT_EQ(
        (Lines{cLock.entered(), cLock.trace("Going to lock file"), cLock.left(), cUnlock.entered(), cUnlock.left()}),
        logged());
}

TEST_F(LockLinuxTest, DescriptorThatIsNotOpenForWritingCannotBeLocked)
{
    const int lFile = open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Bad file descriptor", OsLockFile(lFile));
    EXPECT_EQ(lockFailed("Bad file descriptor"), logged());
    OQEFileLockStatus lStatus = static_cast<OQEFileLockStatus>(0x55);
    OsFileLockStatus(lFile, lStatus);
    EXPECT_EQ(OQFLS_Unlocked, lStatus);
    close(lFile);
}

TEST_F(LockLinuxTest, ClosedDescriptorCanBeNeitherLockedNorUnlocked)
{
    const int lClosed = dup(mFile);
    close(lClosed);
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Bad file descriptor", OsLockFile(lClosed));
    EXPECT_EQ(lockFailed("Bad file descriptor"), logged());
    expectTextTakenTwice(EBADF);
    clearLog();
    gTextCount = 0;
    EXPECT_FAILURE(OQCFileUnLockFailedEx, 331, "Bad file descriptor", OsUnlockFile(lClosed));
    EXPECT_EQ(
        (Lines{cUnlock.entered(), cUnlock.error("Failed to unlock file, error: Bad file descriptor"), cUnlock.left()}),
        logged());
    expectTextTakenTwice(EBADF);
    expectOsFamily([&] { OsUnlockFile(lClosed); });
}

TEST_F(LockLinuxTest, ErrorTextIsThatOfErrno)
{
    lockfFault.failOn(1, -5, EDEADLK);
    EXPECT_FAILURE(OQCFileLockFailedEx, 330, "Resource deadlock avoided", OsLockFile(mFile));
    EXPECT_EQ(lockFailed("Resource deadlock avoided"), logged());
    lockfFault.failOn(1, -1, ENOLCK);
    EXPECT_FAILURE(OQCFileUnLockFailedEx, 331, "No locks available", OsUnlockFile(mFile));
}

TEST_F(MiscLinuxTest, KillOfALiveProcessReturnsZeroAndDelivers)
{
    Peer lPeer([](Peer& arPeer) {
        signal(SIGTERM, SIG_DFL);
        arPeer.signal();
        arPeer.meet();
    });
    lPeer.meet();
    errno = 4711;
    EXPECT_EQ(0, OsKill(lPeer.pid(), 0));
    EXPECT_EQ(4711, errno);
    EXPECT_EQ(0, OsKill(lPeer.pid(), SIGTERM));
    EXPECT_EQ(-SIGTERM, lPeer.wait());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(MiscLinuxTest, KillThatFailsReturnsMinusOneAndLeavesErrno)
{
    Peer lPeer([](Peer& arPeer) { arPeer.meet(); });
    const pid_t lPid = lPeer.pid();
    EXPECT_EQ(-1, OsKill(lPid, 1000));
    EXPECT_EQ(EINVAL, errno);
    killFault.failOn(1, -1, EPERM);
    EXPECT_EQ(-1, OsKill(lPid, SIGTERM));
    EXPECT_EQ(EPERM, errno);
    killFault.failOn(1, -7, EDOM);
    EXPECT_EQ(-7, OsKill(lPid, SIGTERM));
    EXPECT_EQ(EDOM, errno);
    lPeer.signal();
    EXPECT_EQ(0, lPeer.wait()) << "the signal was delivered";
    errno = 0;
    EXPECT_EQ(-1, OsKill(lPid, 0));
    EXPECT_EQ(ESRCH, errno);
    EXPECT_EQ(Lines(), logged());
    EXPECT_EQ(0U, gTextCount);
}

// ---- The host's addresses

/// An entry of the resolver with planned addresses; an empty text is a null entry. Two null entries end the list.
class HostLinuxTest : public MiscLinuxTest
{
protected:
    void plan(const Texts& acrAddresses)
    {
        // One byte off, as a resolver may leave it.
        mBytes.assign(acrAddresses.size() * 4 + 1, 0);
        mList.clear();
        for (const std::string& lrAddress : acrAddresses) {
            if (lrAddress.empty()) {
                mList.push_back(nullptr);
                continue;
            }
            char* const lpBytes = &mBytes[1 + 4 * mList.size()];
            int lBytes[4];
            ASSERT_EQ(4, sscanf(lrAddress.c_str(), "%d.%d.%d.%d", &lBytes[0], &lBytes[1], &lBytes[2], &lBytes[3]));
            for (unsigned int lByte = 0; lByte < 4; ++lByte) {
                lpBytes[lByte] = static_cast<char>(lBytes[lByte]);
            }
            mList.push_back(lpBytes);
        }
        mList.push_back(nullptr);
        mList.push_back(nullptr);
        mEntry = {};
        mEntry.h_addrtype = 99;
        mEntry.h_length = 1;  // not looked at
        mEntry.h_addr_list = mList.data();
        gHost = &mEntry;
        gHostPlanned = true;
        gName = "planned-host";
    }

    std::vector<unsigned int> all(const Texts& acrAddresses)
    {
        plan(acrAddresses);
        clearLog();
        OQCList<unsigned int> lList;
        OsGetAllIpAddresses(lList);
        return std::vector<unsigned int>(lList.begin(), lList.end());
    }
    /// Loopback first, then another: both operations take the other.
    void expectLoopbackSkipped()
    {
        EXPECT_EQ((std::vector<unsigned int>{0x0a010203}), all({"127.0.1.1", "10.1.2.3"}));
        EXPECT_EQ((Lines{cAll.entered(), seen(cAll, 0, "127.0.1.1"), seen(cAll, 1, "10.1.2.3"), usedAll("10.1.2.3"),
                         cAll.left()}),
                  logged());
        clearLog();
        unsigned int lAddress = 0;
        OsGetIpAddress(lAddress);
        EXPECT_EQ(10U, lAddress >> 24);
        EXPECT_EQ(0x0a010203U, lAddress);
        EXPECT_EQ((Lines{cFirst.entered(), seen(cFirst, 0, "127.0.1.1"), seen(cFirst, 1, "10.1.2.3"),
                         usedFirst("10.1.2.3"), cFirst.left()}),
                  logged());
    }

    static Line seen(const LinesOf& acrLines, unsigned int aIndex, const char* acText)
    {
        return acrLines.trace("IP Address #" + std::to_string(aIndex) + " - " + acText);
    }

    static Line usedAll(const char* acText)
    {
        return cAll.trace(std::string("Using ") + acText + " as one of System's IP Addresses");
    }

    static Line usedFirst(const char* acText)
    {
        return cFirst.trace(std::string("Using ") + acText + " as the System's primary IP Address");
    }

    void expectNone(const Texts& acrAddresses, const std::vector<std::pair<unsigned int, const char*>>& acrSeen)
    {
        const char* const cText = "No non-loopback IP Address configured on system";
        plan(acrAddresses);
        clearLog();
        OQCList<unsigned int> lList;
        lList.append(7);
        EXPECT_FAILURE(OQCGetIpAddressFailEx, 347, cText, OsGetAllIpAddresses(lList));
        EXPECT_EQ(1, lList.size());
        EXPECT_EQ(7U, *lList.begin());
        Lines lExpected = {cAll.entered()};
        for (const auto& lrSeen : acrSeen) {
            lExpected.push_back(seen(cAll, lrSeen.first, lrSeen.second));
        }
        lExpected.push_back(cAll.halt(cText));
        EXPECT_EQ(lExpected, logged());

        clearLog();
        unsigned int lAddress = 0xdeadbeef;
        EXPECT_FAILURE(OQCGetIpAddressFailEx, 347, cText, OsGetIpAddress(lAddress));
        EXPECT_EQ(0xdeadbeef, lAddress);
        lExpected = {cFirst.entered()};
        for (const auto& lrSeen : acrSeen) {
            lExpected.push_back(seen(cFirst, lrSeen.first, lrSeen.second));
        }
        lExpected.push_back(cFirst.halt(cText));
        EXPECT_EQ(lExpected, logged());
        EXPECT_EQ(0U, gTextCount);
    }

    std::string mBytes;
    std::vector<char*> mList;
    hostent mEntry = {};
};

TEST_F(HostLinuxTest, SeveralAddressesAreAllTakenInTheirOrder)
{
    EXPECT_EQ((std::vector<unsigned int>{0x0a010203, 0xc0a80001, 0xffffffff, 0x00000001}),
              all({"10.1.2.3", "192.168.0.1", "255.255.255.255", "0.0.0.1"}));
    EXPECT_EQ((Lines{cAll.entered(), seen(cAll, 0, "10.1.2.3"), usedAll("10.1.2.3"), seen(cAll, 1, "192.168.0.1"),
                     usedAll("192.168.0.1"), seen(cAll, 2, "255.255.255.255"), usedAll("255.255.255.255"),
                     seen(cAll, 3, "0.0.0.1"), usedAll("0.0.0.1"), cAll.left()}),
              logged());
}

TEST_F(HostLinuxTest, FirstOfSeveralAddressesIsThePrimaryOne)
{
    plan({"10.1.2.3", "192.168.0.1"});
    unsigned int lAddress = 0;
    OsGetIpAddress(lAddress);
    EXPECT_EQ(0x0a010203U, lAddress);
    EXPECT_EQ((Lines{cFirst.entered(), seen(cFirst, 0, "10.1.2.3"), usedFirst("10.1.2.3"), cFirst.left()}), logged());
}

TEST_F(HostLinuxTest, LoopbackBeforeAnAddressIsLoggedAndSkipped) { expectLoopbackSkipped(); }

TEST_F(HostLinuxTest, LoggingFunctionMayUseTheStorageOfTheText)
{
    atEachLine([](const char*) { inet_ntoa({htonl(0x08080808)}); });
    expectLoopbackSkipped();
    atEachLine(nullptr);
}

TEST_F(HostLinuxTest, LoopbackIsSkippedInAnyPositionAndWhatOnlyLooksLikeItIsNot)
{
    EXPECT_EQ((std::vector<unsigned int>{0x0c070001, 0x80000001, 0x017f0000, 0x0a7f0001}),
              all({"127.1.2.3", "12.7.0.1", "127.255.255.255", "128.0.0.1", "1.127.0.0", "127.0.0.1", "10.127.0.1",
                   "127.0.0.2"}));
    EXPECT_EQ(14U, logged().size());
}

TEST_F(HostLinuxTest, OnlyLoopbackIsNoAddress)
{
    expectNone({"127.0.0.1"}, {{0, "127.0.0.1"}});
    expectNone({"127.0.0.1", "127.0.1.1"}, {{0, "127.0.0.1"}, {1, "127.0.1.1"}});
    EXPECT_NE(nullptr, gHost);
}

TEST_F(HostLinuxTest, NoAddressIsOfTheOperatingSystemFamily)
{
    plan({"127.0.0.1"});
    unsigned int lAddress = 0;
    expectOsFamily([&] { OsGetIpAddress(lAddress); });
}

TEST_F(HostLinuxTest, EmptyListIsNoAddress) { expectNone({}, {}); }

TEST_F(HostLinuxTest, FirstEntryIsSteppedOverWhenItIsNull)
{
    EXPECT_EQ((std::vector<unsigned int>{0x0a010203}), all({"", "10.1.2.3"}));
    EXPECT_EQ((Lines{cAll.entered(), seen(cAll, 1, "10.1.2.3"), usedAll("10.1.2.3"), cAll.left()}), logged());
    clearLog();
    unsigned int lAddress = 0;
    OsGetIpAddress(lAddress);
    EXPECT_EQ(0x0a010203U, lAddress);
    EXPECT_EQ((Lines{cFirst.entered(), seen(cFirst, 1, "10.1.2.3"), usedFirst("10.1.2.3"), cFirst.left()}), logged());
}

TEST_F(HostLinuxTest, LaterNullEntryEndsTheList)
{
    expectNone({"127.0.0.1", "", "10.1.2.3"}, {{0, "127.0.0.1"}});
    EXPECT_EQ((std::vector<unsigned int>{0x01020304}), all({"1.2.3.4", "", "10.1.2.3"}));
}

TEST_F(HostLinuxTest, EntriesOfTheListAreKept)
{
    plan({"10.1.2.3", "10.1.2.4"});
    OQCList<unsigned int> lList;
    lList.append(7);
    OsGetAllIpAddresses(lList);
    EXPECT_EQ((std::vector<unsigned int>{7, 0x0a010203, 0x0a010204}),
              std::vector<unsigned int>(lList.begin(), lList.end()));
}

TEST_F(HostLinuxTest, HostIsLookedUpByItsNameInAClearedBuffer)
{
    plan({"10.1.2.3"});
    OQCList<unsigned int> lList;
    unsigned int lAddress = 0;
    for (unsigned int lFunction = 0; lFunction < 2; ++lFunction) {
        gNameCleared = false;
        gNameSize = 0;
        gName = 0 == lFunction ? "planned-host" : "another";
        if (0 == lFunction) {
            OsGetAllIpAddresses(lList);
        } else {
            OsGetIpAddress(lAddress);
        }
        EXPECT_TRUE(gNameCleared);
        EXPECT_EQ(128U, gNameSize);
        EXPECT_EQ(gNameBuffer, gNameAsked);
        EXPECT_EQ(gName, gNameAskedText);
    }
}

TEST_F(HostLinuxTest, RealHostIsLookedUpUnderItsOwnName)
{
    OQCList<unsigned int> lList;
    try {
        OsGetAllIpAddresses(lList);
        EXPECT_LT(0, lList.size());
    } catch (const OQCGetIpAddressFailEx&) {
        EXPECT_EQ(0, lList.size());
    }
    char lName[128] = {};
    ASSERT_EQ(0, gethostname(lName, sizeof lName));
    EXPECT_EQ(lName, gNameAskedText);
    for (const unsigned int lAddress : lList) {
        EXPECT_NE(127U, lAddress >> 24);
    }
}

TEST_F(HostLinuxTest, FailedLookupIsToldInTheSystemsWordsForTheResolversNumber)
{
    struct Row {
        int mError;
        const char* mText;
    };
    gHostPlanned = true;
    gName = "planned-host";
    for (const Row& lrRow : {Row{HOST_NOT_FOUND, "Operation not permitted"},
                             Row{TRY_AGAIN, "No such file or directory"}, Row{NO_RECOVERY, "No such process"},
                             Row{NO_DATA, "Interrupted system call"}, Row{0, "Success"}, Row{-1, "Unknown error -1"}}) {
        gHostError = lrRow.mError;
        clearLog();
        gTextCount = 0;
        OQCList<unsigned int> lList;
        EXPECT_FAILURE(OQCGetIpAddressFailEx, 347, lrRow.mText, OsGetAllIpAddresses(lList));
        EXPECT_EQ((Lines{cAll.entered(), cAll.error(std::string("Can't get local host entry, error: ") + lrRow.mText),
                         cAll.left()}),
                  logged());
        EXPECT_EQ(0, lList.size());
        expectTextTakenTwice(lrRow.mError);

        clearLog();
        gTextCount = 0;
        unsigned int lAddress = 0xdeadbeef;
        EXPECT_FAILURE(OQCGetIpAddressFailEx, 347, lrRow.mText, OsGetIpAddress(lAddress));
        EXPECT_EQ(
            (Lines{cFirst.entered(), cFirst.error(std::string("Can't get local host entry, error: ") + lrRow.mText),
                   cFirst.left()}),
            logged());
        EXPECT_EQ(0xdeadbeef, lAddress);
        expectTextTakenTwice(lrRow.mError);
    }
}

TEST_F(HostLinuxTest, EntryWithoutAnAddressListIsABrokenPrecondition)
{
    plan({});
    mEntry.h_addr_list = nullptr;
    const ChildResult lAll = inChild([] {
        OQCList<unsigned int> lList;
        OsGetAllIpAddresses(lList);
    });
    EXPECT_EQ(1, lAll.mExitStatus);
    EXPECT_EQ((Lines{cAll.entered(), cAll.assertion("lpHostEntry->h_addr_list != __null")}), lAll.mLines);
    const ChildResult lFirst = inChild([] {
        unsigned int lAddress = 0;
        OsGetIpAddress(lAddress);
    });
    EXPECT_EQ(1, lFirst.mExitStatus);
    EXPECT_EQ((Lines{cFirst.entered(), cFirst.assertion("lpHostEntry->h_addr_list != __null")}), lFirst.mLines);
}

TEST_F(HostLinuxTest, MemoryExhaustedByTheListPasses)
{
    OQ_SKIP_WITHOUT_MALLOC();
    plan({"10.1.2.3", "10.1.2.4"});
    OQCList<unsigned int> lList;
    gAfterLookup = [] { gMallocFault.failOn(1); };
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", OsGetAllIpAddresses(lList));
    gMallocFault.stop();
    EXPECT_EQ(0, lList.size());
    EXPECT_EQ((Lines{cAll.entered(), seen(cAll, 0, "10.1.2.3"), usedAll("10.1.2.3")}), logged());

    clearLog();
    gAfterLookup = [] { gMallocFault.failOn(2); };
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", OsGetAllIpAddresses(lList));
    gMallocFault.stop();
    EXPECT_EQ((std::vector<unsigned int>{0x0a010203}), std::vector<unsigned int>(lList.begin(), lList.end()));
    EXPECT_EQ((Lines{cAll.entered(), seen(cAll, 0, "10.1.2.3"), usedAll("10.1.2.3"), seen(cAll, 1, "10.1.2.4"),
                     usedAll("10.1.2.4")}),
              logged());
}

// ---- The operating system's name

const char* const cOracle = "/etc/oracle-release";
const char* const cEnterprise = "/etc/enterprise-release";
const char* const cRedHat = "/etc/redhat-release";
const char* const cFallback = "Red Hat Enterprise Linux Server release 5.x";

class OsNameLinuxTest : public MiscLinuxTest
{
protected:
    /// Only these files exist.
    static void plan(const std::set<std::string>& acrFiles)
    {
        gStatPaths.clear();
        gFirstLinePaths.clear();
        gStatPlan = [=](const std::string& acrPath) {
            if (0 == acrFiles.count(acrPath)) {
                throw OQCClibStatFailedEx("planned", 173);
            }
        };
    }

    void expectName(const char* acName)
    {
        clearLog();
        OQEOperatingSystem lOs = static_cast<OQEOperatingSystem>(0x77);
        OQCString lName("old");
        OsGetOsName(lOs, lName);
        EXPECT_EQ(OQOS_Linux, lOs);
        EXPECT_EQ(1, lOs);
        EXPECT_STREQ(acName, lName.get());
    }
};

TEST_F(OsNameLinuxTest, FirstReleaseFileThatExistsIsRead)
{
    const Texts cInOrder = {cOracle, cEnterprise, cRedHat};
    gFirstLinePlan = [](OQCString& arLine) {
        arLine = "Planned release 9";
        return 0;
    };
    for (unsigned int lFiles = 1; lFiles < 8; ++lFiles) {
        std::set<std::string> lExisting;
        size_t lFirst = 3;
        for (size_t lFile = 0; lFile < 3; ++lFile) {
            if (0 != (lFiles >> lFile & 1)) {
                lExisting.insert(cInOrder[lFile]);
                lFirst = std::min(lFirst, lFile);
            }
        }
        plan(lExisting);
        expectName("Planned release 9");
        EXPECT_EQ(Texts(cInOrder.begin(), cInOrder.begin() + static_cast<long>(lFirst) + 1), gStatPaths);
        EXPECT_EQ((Texts{cInOrder[lFirst]}), gFirstLinePaths);
        EXPECT_EQ((Lines{cName.entered(), cName.trace("Going to determine Linux variant string"),
                         cName.trace("Found OS Info: 'Planned release 9'"), cName.left()}),
                  logged());
    }
    static_assert(1 == sizeof(OQEOperatingSystem), "one byte wide");
}

TEST_F(OsNameLinuxTest, NoReleaseFileIsTheFallbackWithoutAWord)
{
    plan({});
    expectName(cFallback);
    EXPECT_EQ((Texts{cOracle, cEnterprise, cRedHat}), gStatPaths);
    EXPECT_EQ(Texts(), gFirstLinePaths);
    EXPECT_EQ((Lines{cName.entered(), cName.left()}), logged());
}

TEST_F(OsNameLinuxTest, ReleaseFileThatCannotBeReadIsTheFallback)
{
    for (const int lResult : {-1, 1, 42}) {
        plan({cEnterprise, cRedHat});
        gFirstLinePlan = [=](OQCString& arLine) {
            arLine = "of a failed read";
            return lResult;
        };
        expectName(cFallback);
        EXPECT_EQ((Texts{cEnterprise}), gFirstLinePaths) << "no other file is tried";
        EXPECT_EQ((Lines{cName.entered(), cName.trace("Going to determine Linux variant string"),
                         cName.trace("Not able to determine the OS variant information"), cName.left()}),
                  logged());
    }
}

TEST_F(OsNameLinuxTest, FirstLineOfAFileIsTheName)
{
    const std::string lPath = path("release");
    gOtherFiles[cRedHat] = lPath;
    plan({cRedHat});
    std::ofstream(lPath) << " Planned Linux %s release 7 \nsecond line\n";
    expectName(" Planned Linux %s release 7 ");
    EXPECT_EQ((Lines{cName.entered(), cName.trace("Going to determine Linux variant string"),
                     cName.trace("Found OS Info: ' Planned Linux %s release 7 '"), cName.left()}),
              logged());
    std::ofstream(lPath) << "no newline";
    expectName("no newline");
    unlink(lPath.c_str());
}

TEST_F(OsNameLinuxTest, EmptyReleaseFileIsAnEmptyName)
{
    const std::string lPath = path("release");
    gOtherFiles[cRedHat] = lPath;
    plan({cRedHat});
    std::ofstream(lPath).flush();
    expectName("");
    EXPECT_EQ((Lines{cName.entered(), cName.trace("Going to determine Linux variant string"),
                     cName.trace("Found OS Info: ''"), cName.left()}),
              logged());
    unlink(lPath.c_str());
}

TEST_F(OsNameLinuxTest, FileThatVanishesAfterTheLookIsTheFallback)
{
    gOtherFiles[cOracle] = path("vanished");
    plan({cOracle});
    expectName(cFallback);
    EXPECT_EQ((Lines{cName.entered(), cName.trace("Going to determine Linux variant string"),
                     cName.trace("Not able to determine the OS variant information"), cName.left()}),
              logged());
}

TEST_F(OsNameLinuxTest, AnyOtherExceptionOfTheLookPassesAndTheFamilyIsStored)
{
    for (const char* const lpPath : {cOracle, cEnterprise, cRedHat}) {
        clearLog();
        gStatPlan = [=](const std::string& acrPath) {
            if (lpPath == acrPath) {
                throw OQCOpenFailedEx("planned", 326);
            }
            throw OQCClibStatFailedEx("missing", 173);
        };
        OQEOperatingSystem lOs = static_cast<OQEOperatingSystem>(0x77);
        OQCString lName("old");
        EXPECT_FAILURE(OQCOpenFailedEx, 326, "planned", OsGetOsName(lOs, lName));
        EXPECT_EQ(1, lOs);
        EXPECT_STREQ("old", lName.get());
        EXPECT_EQ((Lines{cName.entered()}), logged());
    }
    gStatPlan = [](const std::string&) { throw std::runtime_error("planned"); };
    OQEOperatingSystem lOs = static_cast<OQEOperatingSystem>(0x77);
    OQCString lName("old");
    EXPECT_THROW(OsGetOsName(lOs, lName), std::runtime_error);
    EXPECT_EQ(1, lOs);
}

TEST_F(OsNameLinuxTest, ExceptionOfTheReadPassesAndTheFamilyIsStored)
{
    plan({cOracle});
    gFirstLinePlan = [](OQCString&) -> int { throw OQCNoMemoryEx("Out of Memory", 2); };
    OQEOperatingSystem lOs = static_cast<OQEOperatingSystem>(0x77);
    OQCString lName("old");
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", OsGetOsName(lOs, lName));
    EXPECT_EQ(1, lOs);
    EXPECT_STREQ("old", lName.get());
}

TEST_F(OsNameLinuxTest, ExhaustedMemoryIsThrownAndTheNameStays)
{
    OQ_SKIP_WITHOUT_MALLOC();
    // The n-th allocation fails from the place on at which the plan asks for it.
    unsigned int lNth = 0;
    const auto lFailEach = [&](unsigned int aAllocations, const Lines& acrLines) {
        for (lNth = 1; lNth <= aAllocations; ++lNth) {
            clearLog();
            OQEOperatingSystem lOs = static_cast<OQEOperatingSystem>(0x77);
            OQCString lName("old");
            bool lThrown = false;
            try {
                OsGetOsName(lOs, lName);
            } catch (const OQCNoMemoryEx& acrFailure) {
                gMallocFault.stop();
                lThrown = true;
                EXPECT_STREQ("Out of Memory", acrFailure.what());
                EXPECT_EQ(2U, acrFailure.code());
            }
            gMallocFault.stop();
            EXPECT_TRUE(lThrown) << lNth;
            EXPECT_EQ(1, lOs);
            EXPECT_STREQ("old", lName.get());
            EXPECT_EQ(acrLines, logged());
        }
    };
    const Line cGoing = cName.trace("Going to determine Linux variant string");

    // No release file: the fallback's text and its copy. The first allocation is that of the exception of the look.
    gStatPlan = [&](const std::string& acrPath) {
        if (cRedHat == acrPath) {
            gMallocFault.failOn(lNth + 1);
        }
        throw OQCClibStatFailedEx("planned", 173);
    };
    lFailEach(6, {cName.entered()});

    // The empty line, then the text of the path.
    gStatPlan = [&](const std::string&) { gMallocFault.failOn(lNth); };
    lFailEach(5, {cName.entered(), cGoing});

    gStatPlan = [](const std::string&) {};
    int lResult = 0;
    gFirstLinePlan = [&](OQCString& arLine) {
        arLine = "Planned release 9, too long to be held in place";
        gMallocFault.failOn(lNth);
        return lResult;
    };
    lFailEach(
        3, {cName.entered(), cGoing, cName.trace("Found OS Info: 'Planned release 9, too long to be held in place'")});
    lResult = -1;
    lFailEach(6, {cName.entered(), cGoing, cName.trace("Not able to determine the OS variant information")});
}

TEST_F(OsNameLinuxTest, RealHostHasTheFirstLineOfItsOwnFileOrTheFallback)
{
    std::string lExpected = cFallback;
    for (const char* const lpPath : {cRedHat, cEnterprise, cOracle}) {
        std::ifstream lFile(lpPath);
        if (lFile) {
            lExpected.clear();
            getline(lFile, lExpected);
        }
    }
    expectName(lExpected.c_str());
}

}  // namespace
