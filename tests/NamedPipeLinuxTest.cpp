#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "TestKit.h"

namespace
{

/// Where an error text was to go, and how many lines had been logged by then.
struct AskedText {
    char* mpBuffer;
    unsigned int mSize;
    size_t mLines;
};

/// What a function of the system or of the companion was last given, and how many lines had been logged by then. What
/// does not apply keeps its value.
struct Given {
    std::string mPath;
    int mDescriptor = -99;
    const void* mpBuffer = nullptr;
    unsigned int mLength = 0;
    unsigned int mFlags = 0;
    unsigned int mMode = 0;
    unsigned long mDevice = 0;
    long mSeconds = 0;
    long mMicroseconds = 0;
    size_t mLines = 0;
    unsigned int mDone = 0;  ///< the caller's count during the call
};

Given sGiven;
bool sRecording = false;
const unsigned int* spDone = nullptr;            // the caller's count
std::vector<AskedText>* spAskedTexts = nullptr;  // receives them
bool sNumberTexts = false;                       // the n-th text is "text n", outside the buffer

void given(int aDescriptor, const void* apBuffer, unsigned int aLength)
{
    if (sRecording) {
        const int lErrno = errno;
        sGiven.mDescriptor = aDescriptor;
        sGiven.mpBuffer = apBuffer;
        sGiven.mLength = aLength;
        sGiven.mLines = logged().size();
        sGiven.mDone = nullptr == spDone ? 0 : *spDone;
        errno = lErrno;
    }
}

}  // namespace

Fault mknodFault;
extern "C" int mknod(const char* acPath, mode_t aMode, dev_t aDevice) noexcept
{
    sGiven.mPath = acPath;
    sGiven.mMode = aMode;
    sGiven.mDevice = static_cast<unsigned long>(aDevice);
    sGiven.mLines = logged().size();
    if (mknodFault.fires()) {
        return static_cast<int>(mknodFault.result());
    }
    static Behind<int(const char*, mode_t, dev_t)> lReal("mknod");
    return lReal(acPath, aMode, aDevice);
}

Fault selectFault;
extern "C" int select(int aCount, fd_set* apRead, fd_set* apWrite, fd_set* apExcept, timeval* apTimeOut)
{
    if (sRecording) {
        sGiven.mDescriptor = aCount - 1;
        sGiven.mSeconds = static_cast<long>(apTimeOut->tv_sec);
        sGiven.mMicroseconds = static_cast<long>(apTimeOut->tv_usec);
    }
    if (selectFault.fires()) {
        return static_cast<int>(selectFault.result());
    }
    static Behind<int(int, fd_set*, fd_set*, fd_set*, timeval*)> lReal("select");
    return lReal(aCount, apRead, apWrite, apExcept, apTimeOut);
}

Fault ClibOpenFault;
int ClibOpen(const char* acPath, int aFlags, int aMode)
{
    sGiven.mPath = acPath;
    sGiven.mFlags = static_cast<unsigned int>(aFlags);
    sGiven.mMode = static_cast<unsigned int>(aMode);
    given(0, nullptr, 0);
    if (ClibOpenFault.fires()) {
        return static_cast<int>(ClibOpenFault.result());
    }
    static Behind<int(const char*, int, int)> lReal("_Z8ClibOpenPKcii");
    return lReal(acPath, aFlags, aMode);
}

Fault ClibReadFault;
int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    given(aDescriptor, apBuffer, aCount);
    if (ClibReadFault.fires()) {
        return static_cast<int>(ClibReadFault.result());
    }
    static Behind<int(int, void*, unsigned int)> lReal("_Z8ClibReadiPvj");
    return lReal(aDescriptor, apBuffer, aCount);
}

Fault ClibBlockReadFault;
int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount)
{
    given(aDescriptor, apBuffer, aCount);
    if (ClibBlockReadFault.fires()) {
        return static_cast<int>(ClibBlockReadFault.result());
    }
    static Behind<int(int, void*, unsigned int)> lReal("_Z13ClibBlockReadiPvj");
    return lReal(aDescriptor, apBuffer, aCount);
}

Fault ClibWriteFault;
int ClibWrite(int aDescriptor, const void* acBuffer, unsigned int aCount)
{
    given(aDescriptor, acBuffer, aCount);
    if (ClibWriteFault.fires()) {
        return static_cast<int>(ClibWriteFault.result());
    }
    static Behind<int(int, const void*, unsigned int)> lReal("_Z9ClibWriteiPKvj");
    return lReal(aDescriptor, acBuffer, aCount);
}

Fault ClibCloseFault;
int ClibClose(int aDescriptor)
{
    given(aDescriptor, nullptr, 0);
    if (ClibCloseFault.fires()) {
        return static_cast<int>(ClibCloseFault.result());
    }
    static Behind<int(int)> lReal("_Z9ClibClosei");
    return lReal(aDescriptor);
}

Fault ClibUnlinkFault;
int ClibUnlink(const char* acPath)
{
    sGiven.mPath = acPath;
    given(0, nullptr, 0);
    if (ClibUnlinkFault.fires()) {
        return static_cast<int>(ClibUnlinkFault.result());
    }
    static Behind<int(const char*)> lReal("_Z10ClibUnlinkPKc");
    return lReal(acPath);
}

char* ClibStrerror(char* apBuffer, unsigned int aSize)
{
    static Behind<char*(char*, unsigned int)> lReal("_Z12ClibStrerrorPcj");
    if (nullptr == spAskedTexts) {
        return lReal(apBuffer, aSize);
    }
    const int lErrno = errno;
    spAskedTexts->push_back({apBuffer, aSize, logged().size()});
    errno = lErrno;
    static char sTexts[][8] = {"text 1", "text 2", "text 3"};
    return sNumberTexts ? sTexts[(spAskedTexts->size() - 1) % 3] : lReal(apBuffer, aSize);
}

namespace
{

const LinesOf cCreate(".//NamedPipeLinux", "OsNamedPipeCreate");
const LinesOf cDestroy(".//NamedPipeLinux", "OsNamedPipeDestroy");
const LinesOf cOpen(".//NamedPipeLinux", "OsNamedPipeOpen");
const LinesOf cConnect(".//NamedPipeLinux", "OsNamedPipeConnect");
const LinesOf cAccept(".//NamedPipeLinux", "OsNamedPipeAccept");
const LinesOf cRead(".//NamedPipeLinux", "OsNamedPipeRead");
const LinesOf cBlockRead(".//NamedPipeLinux", "OsNamedPipeBlockRead");
const LinesOf cWrite(".//NamedPipeLinux", "OsNamedPipeWrite");
const LinesOf cWait(".//NamedPipeLinux", "OsNamedPipeWaitForActivity");
const LinesOf cActivity(".//MiscLinux", "OsWaitForActivity");
const LinesOf cClose(".//NamedPipeLinux", "OsNamedPipeClose");

const int cNotOpen = 1000;  // a descriptor that nothing has

template <class Family, class Operation>
bool isCaughtAs(Operation aOperation)
{
    try {
        aOperation();
    } catch (const Family&) {
        return true;
    } catch (const OQCException&) {
    }
    return false;
}

bool isFifo(const std::string& acrPath)
{
    struct stat lInfo;
    return 0 == stat(acrPath.c_str(), &lInfo) && S_ISFIFO(lInfo.st_mode);
}

/// Permissions with which files are created, for as long as the object lives.
class Umask
{
public:
    explicit Umask(mode_t aMask) : mBefore(umask(aMask)) {}
    ~Umask() { umask(mBefore); }

private:
    const mode_t mBefore;
};

/// Bytes that lie in a pipe.
unsigned int lyingIn(int aPipe)
{
    int lBytes = 0;
    EXPECT_EQ(0, ioctl(aPipe, FIONREAD, &lBytes));
    return static_cast<unsigned int>(lBytes);
}

const unsigned char* bytes(const char* acText) { return reinterpret_cast<const unsigned char*>(acText); }

/// The path of a FIFO that does not exist yet and is removed after the test, with a descriptor variable.
class NamedPipeLinuxTest : public LayerTest
{
protected:
    NamedPipeLinuxTest() : mFile(path("pipe")), mPath(mFile.c_str()), mPipe(-1) {}
    void SetUp() override
    {
        LayerTest::SetUp();
        sGiven = Given();
        sRecording = true;
    }
    void TearDown() override
    {
        sRecording = false;
        spDone = nullptr;
        spAskedTexts = nullptr;
        sNumberTexts = false;
        if (0 <= mPipe) {
            close(mPipe);
        }
        unlink(mFile.c_str());
        LayerTest::TearDown();
    }

    /// A FIFO, open on both ends in mPipe, and an empty log.
    void openPipe(OQEPipeState aState = OQPS_Blocking)
    {
        int lUnused = 0;
        OsNamedPipeCreate(mPath, lUnused);
        OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, aState, OQCM_Server);
        ASSERT_LE(0, mPipe);
        clearLog();
        Fault::resetAll();
    }

    /// Puts text into the pipe.
    void put(const char* acText)
    {
        ASSERT_EQ(static_cast<ssize_t>(strlen(acText)), ::write(mPipe, acText, strlen(acText)));
    }

    void recordTexts() { spAskedTexts = &mAskedTexts; }

    const std::string mFile;
    const OQCString mPath;
    int mPipe;
    std::vector<AskedText> mAskedTexts;
};

// Creating

TEST_F(NamedPipeLinuxTest, CreateMakesAFifoForOwnerAndGroupAndNobodyElse)
{
    int lPipe = 77;
    {
        const Umask lMask(0);
        OsNamedPipeCreate(mPath, lPipe);
    }
    EXPECT_EQ(1U, mknodFault.calls());
    EXPECT_EQ(mFile, sGiven.mPath);
    EXPECT_EQ(0x11B0U, sGiven.mMode);
    EXPECT_EQ(0UL, sGiven.mDevice);
    EXPECT_EQ(2U, sGiven.mLines);
    struct stat lInfo;
    ASSERT_EQ(0, stat(mFile.c_str(), &lInfo));
    EXPECT_EQ(static_cast<mode_t>(S_IFIFO | S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP), lInfo.st_mode);
    EXPECT_EQ(77, lPipe);
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."), cCreate.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, CreateLeavesOutWhatTheProcessMasks)
{
    int lPipe = -1;
    {
        const Umask lMask(027);
        OsNamedPipeCreate(mPath, lPipe);
    }
    struct stat lInfo;
    ASSERT_EQ(0, stat(mFile.c_str(), &lInfo));
    EXPECT_EQ(static_cast<mode_t>(0640), lInfo.st_mode & 07777);
}

TEST_F(NamedPipeLinuxTest, CreateAcceptsAFifoThatExists)
{
    int lPipe = 77;
    OsNamedPipeCreate(mPath, lPipe);
    clearLog();
    recordTexts();
    OsNamedPipeCreate(mPath, lPipe);
    EXPECT_TRUE(isFifo(mFile));
    EXPECT_EQ(77, lPipe);
    EXPECT_TRUE(mAskedTexts.empty());
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."),
                     cCreate.trace("Fifo file " + mFile + " already exists"), cCreate.left()}),
              logged());
}

TEST_F(NamedPipeLinuxTest, CreateAcceptsAnExistingFileThatIsNoFifo)
{
    const int lFile = open(mFile.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_LE(0, lFile);
    close(lFile);
    int lPipe = -1;
    OsNamedPipeCreate(mPath, lPipe);
    EXPECT_FALSE(isFifo(mFile));
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."),
                     cCreate.trace("Fifo file " + mFile + " already exists"), cCreate.left()}),
              logged());
}

TEST_F(NamedPipeLinuxTest, CreateThrowsInAMissingDirectory)
{
    recordTexts();
    const std::string lFile = mFile + ".missing/pipe";
    int lPipe = 77;
    EXPECT_FAILURE(OQCCreateFailedEx, 324, "No such file or directory",
                   OsNamedPipeCreate(OQCString(lFile.c_str()), lPipe));
    EXPECT_EQ(77, lPipe);
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."),
                     cCreate.error("Failed to create fifo file " + lFile + ". Error: 'No such file or directory' "),
                     cCreate.left()}),
              logged());
    ASSERT_EQ(2U, mAskedTexts.size());
    EXPECT_EQ(512U, mAskedTexts[0].mSize);
    EXPECT_EQ(2U, mAskedTexts[0].mLines);
    EXPECT_EQ(512U, mAskedTexts[1].mSize);
    EXPECT_EQ(4U, mAskedTexts[1].mLines);
    EXPECT_EQ(mAskedTexts[0].mpBuffer, mAskedTexts[1].mpBuffer);
}

TEST_F(NamedPipeLinuxTest, CreateLogsTheFirstTextAndThrowsTheSecond)
{
    recordTexts();
    sNumberTexts = true;
    int lPipe = -1;
    mknodFault.failOn(1, -1, EACCES);
    EXPECT_FAILURE(OQCCreateFailedEx, 324, "text 2", OsNamedPipeCreate(mPath, lPipe));
    EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."),
                     cCreate.error("Failed to create fifo file " + mFile + ". Error: 'text 1' "), cCreate.left()}),
              logged());
}

TEST_F(NamedPipeLinuxTest, CreateTakesEveryNegativeResultForAFailureAndNoOther)
{
    int lPipe = -1;
    mknodFault.failOn(1, -2, EACCES);
    EXPECT_FAILURE(OQCCreateFailedEx, 324, "Permission denied", OsNamedPipeCreate(mPath, lPipe));
    for (const int lErrno : {EACCES, EEXIST}) {
        for (const int lResult : {0, 1}) {
            clearLog();
            mknodFault.failOn(1, lResult, lErrno);  // what errno was left at does not matter
            OsNamedPipeCreate(mPath, lPipe);
            EXPECT_EQ((Lines{cCreate.entered(), cCreate.trace("Creating linux named pipe..."), cCreate.left()}),
                      logged());
        }
    }
}

TEST_F(NamedPipeLinuxTest, AFailedCreationIsAnOperatingSystemFailureOnly)
{
    int lPipe = -1;
    mknodFault.failAlways(-1, EPERM);
    const auto lCreate = [&] { OsNamedPipeCreate(mPath, lPipe); };
    EXPECT_TRUE(isCaughtAs<OQCOsException>(lCreate));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lCreate));
    EXPECT_FALSE(isCaughtAs<OQCGenericException>(lCreate));
}

// Destroying

TEST_F(NamedPipeLinuxTest, DestroyRemovesTheFileAndLeavesTheDescriptorOpen)
{
    openPipe();
    const int lPipe = mPipe;
    OsNamedPipeDestroy(mPath, mPipe);
    EXPECT_EQ(1U, ClibUnlinkFault.calls());
    EXPECT_EQ(mFile, sGiven.mPath);
    EXPECT_EQ(2U, sGiven.mLines);
    EXPECT_FALSE(isFifo(mFile));
    EXPECT_EQ(lPipe, mPipe);
    EXPECT_LE(0, fcntl(lPipe, F_GETFD));
    EXPECT_EQ((Lines{cDestroy.entered(), cDestroy.trace("Destroying linux named pipe..."), cDestroy.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, DestroyOfAMissingFileSucceeds)
{
    int lPipe = 77;
    OsNamedPipeDestroy(mPath, lPipe);
    EXPECT_EQ(77, lPipe);
    EXPECT_EQ((Lines{cDestroy.entered(), cDestroy.trace("Destroying linux named pipe..."), cDestroy.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, DestroyIgnoresThatAFileCannotBeRemoved)
{
    int lPipe = 77;
    ClibUnlinkFault.failOn(1, -1, EACCES);
    OsNamedPipeDestroy(mPath, lPipe);
    EXPECT_EQ(1U, ClibUnlinkFault.calls());
    EXPECT_EQ((Lines{cDestroy.entered(), cDestroy.trace("Destroying linux named pipe..."), cDestroy.left()}), logged());
}

// Opening

TEST_F(NamedPipeLinuxTest, OpenChoosesTheFlagsByModeAndState)
{
    const struct {
        unsigned int mMode;
        unsigned int mBlocking;
        unsigned int mNonBlocking;
    } cRows[] = {{1, 4098, 6146}, {2, 4098, 6146}, {3, 4098, 6146}, {4, 5120, 7168}};
    for (const auto& lrRow : cRows) {
        for (const unsigned int lState : {0U, 1U, 2U, 3U, 130U, 255U}) {
            for (const OQEConnectionMode lSide : {OQCM_Client, OQCM_Server}) {
                SCOPED_TRACE(std::to_string(lrRow.mMode) + " " + std::to_string(lState));
                const unsigned int lFlags = 2 == lState ? lrRow.mNonBlocking : lrRow.mBlocking;
                clearLog();
                int lPipe = -1;
                ClibOpenFault.failOn(1, 123, 0);  // opens nothing
                OsNamedPipeOpen(lPipe, mPath, static_cast<OQEFileMode>(lrRow.mMode), static_cast<OQEPipeState>(lState),
                                lSide);
                EXPECT_EQ(1U, ClibOpenFault.calls());
                EXPECT_EQ(mFile, sGiven.mPath);
                EXPECT_EQ(lFlags, sGiven.mFlags);
                EXPECT_EQ(0U, sGiven.mMode);
                EXPECT_EQ(2U, sGiven.mLines);
                EXPECT_EQ(123, lPipe);
                EXPECT_EQ((Lines{cOpen.entered(),
                                 cOpen.trace("Opening " + mFile + " with " + std::to_string(lFlags) + " flags"),
                                 cOpen.left()}),
                          logged());
            }
        }
    }
}

TEST_F(NamedPipeLinuxTest, OpenRefusesEveryOtherMode)
{
    for (unsigned int lMode = 0; lMode < 256; ++lMode) {
        if (1 <= lMode && lMode <= 4) {
            continue;
        }
        SCOPED_TRACE(lMode);
        clearLog();
        int lPipe = 77;
        ClibOpenFault.failOn(1, 123, 0);
        EXPECT_FAILURE(OQCInvalidEx, 6, "Invalid flags passed to open pipe",
                       OsNamedPipeOpen(lPipe, mPath, static_cast<OQEFileMode>(lMode), OQPS_NonBlocking, OQCM_Client));
        EXPECT_EQ(0U, ClibOpenFault.calls());
        EXPECT_EQ(77, lPipe);
        EXPECT_EQ((Lines{cOpen.entered(),
                         cOpen.error("Invalid flags " + std::to_string(lMode) + " passed to open file"), cOpen.left()}),
                  logged());
    }
}

TEST_F(NamedPipeLinuxTest, ARefusedModeIsAGenericFailureOnly)
{
    const auto lOpen = [&] { OsNamedPipeOpen(mPipe, mPath, static_cast<OQEFileMode>(5), OQPS_Blocking, OQCM_Server); };
    EXPECT_TRUE(isCaughtAs<OQCGenericException>(lOpen));
    EXPECT_FALSE(isCaughtAs<OQCOsException>(lOpen));
    EXPECT_FALSE(isCaughtAs<OQCHaltEx>(lOpen));
}

TEST_F(NamedPipeLinuxTest, TheFlagsReachTheDescriptor)
{
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    int lBothEnds = -1;  // so that opening for reading does not wait
    OsNamedPipeOpen(lBothEnds, mPath, OQFM_Mode2, OQPS_Blocking, OQCM_Server);
    ASSERT_LE(0, lBothEnds);
    const int cSeen = O_ACCMODE | O_APPEND | O_DSYNC | O_NONBLOCK | O_ASYNC;
    for (const unsigned int lMode : {1U, 2U, 3U, 4U}) {
        for (const OQEPipeState lState : {OQPS_Blocking, OQPS_NonBlocking}) {
            int lPipe = -1;
            OsNamedPipeOpen(lPipe, mPath, static_cast<OQEFileMode>(lMode), lState, OQCM_Client);
            ASSERT_LE(0, lPipe);
            const int lExpected = (4 == lMode ? 5120 : 4098) + (OQPS_NonBlocking == lState ? 2048 : 0);
            EXPECT_EQ(lExpected, fcntl(lPipe, F_GETFL) & cSeen) << lMode << " " << static_cast<int>(lState);
            close(lPipe);
        }
    }
    close(lBothEnds);
}

TEST_F(NamedPipeLinuxTest, OpeningReadWriteDoesNotWaitForAPeer)
{
    openPipe();
    put("x");
    EXPECT_EQ(1U, lyingIn(mPipe));
}

TEST_F(NamedPipeLinuxTest, OpeningForAppendWaitsForAWriterAndCannotWrite)
{
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    Peer lWriter([this](Peer& arTest) {
        int lPipe = -1;
        arTest.meet();
        OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
        arTest.meet();
        close(lPipe);
    });
    lWriter.signal();
    OsNamedPipeOpen(mPipe, mPath, OQFM_Append, OQPS_Blocking, OQCM_Server);
    ASSERT_LE(0, mPipe);
    unsigned int lDone = 4242;
    OsNamedPipeWrite(mPipe, bytes("abc"), 3, lDone);
    EXPECT_EQ(4242U, lDone);
    lWriter.signal();
    EXPECT_EQ(0, lWriter.wait());
}

TEST_F(NamedPipeLinuxTest, AMissingFileLeavesTheDescriptorUnchangedWithoutAnErrorLine)
{
    int lPipe = 77;
    OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
    EXPECT_EQ(77, lPipe);
    EXPECT_EQ((Lines{cOpen.entered(), cOpen.trace("Opening " + mFile + " with 4098 flags"), cOpen.left()}), logged());
    EXPECT_FALSE(isFifo(mFile));
}

TEST_F(NamedPipeLinuxTest, OpenStoresEveryDescriptorThatIsNotNegative)
{
    int lPipe = 77;
    ClibOpenFault.failOn(1, 0, 0);
    OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
    EXPECT_EQ(0, lPipe);
    lPipe = 77;
    ClibOpenFault.failOn(1, -5, EACCES);
    OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
    EXPECT_EQ(77, lPipe);
}

// Connecting and accepting

TEST_F(NamedPipeLinuxTest, ConnectOnlyTraces)
{
    int lPipe = 77;
    OsNamedPipeConnect(lPipe, mPath, static_cast<OQEFileMode>(0), static_cast<OQEPipeState>(0));
    EXPECT_EQ(77, lPipe);
    EXPECT_EQ(0U, ClibOpenFault.calls());
    EXPECT_EQ((Lines{cConnect.entered(), cConnect.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, AcceptOnlyTraces)
{
    OsNamedPipeAccept(cNotOpen);
    OsNamedPipeAccept(-1);
    EXPECT_EQ(0U, ClibOpenFault.calls());
    EXPECT_EQ((Lines{cAccept.entered(), cAccept.left(), cAccept.entered(), cAccept.left()}), logged());
}

// Reading: what holds for both reads

struct ReadCase {
    const char* mName;
    void (*mRead)(int, unsigned char*, unsigned int, unsigned int&);
    Fault* mpFault;
    Fault* mpOtherFault;
    const LinesOf* mpLines;

    friend void PrintTo(const ReadCase& acrCase, std::ostream* apStream) { *apStream << acrCase.mName; }
};

class NamedPipeReadTest : public NamedPipeLinuxTest, public ::testing::WithParamInterface<ReadCase>
{
protected:
    void read(int aPipe, unsigned int aLength, unsigned int& arDone)
    {
        GetParam().mRead(aPipe, mBuffer, aLength, arDone);
    }
    Lines lines(const std::string& acrLength)
    {
        const LinesOf& lrLines = *GetParam().mpLines;
        return {lrLines.entered(), lrLines.trace("Reading " + acrLength + " bytes"), lrLines.left()};
    }
    std::string text(size_t aLength) { return std::string(reinterpret_cast<const char*>(mBuffer), aLength); }

    unsigned char mBuffer[64] = {};
};

INSTANTIATE_TEST_SUITE_P(
    Both, NamedPipeReadTest,
    ::testing::Values(ReadCase{"Read", OsNamedPipeRead, &ClibReadFault, &ClibBlockReadFault, &cRead},
                      ReadCase{"BlockRead", OsNamedPipeBlockRead, &ClibBlockReadFault, &ClibReadFault, &cBlockRead}),
    [](const ::testing::TestParamInfo<ReadCase>& acrInfo) { return std::string(acrInfo.param.mName); });

TEST_P(NamedPipeReadTest, TakesWhatLiesInThePipe)
{
    openPipe();
    put("0123456789");
    unsigned int lDone = 999;
    read(mPipe, 4, lDone);
    EXPECT_EQ(4U, lDone);
    EXPECT_EQ("0123", text(4));
    EXPECT_EQ(0, mBuffer[4]);
    EXPECT_EQ(lines("4"), logged());
    read(mPipe, 6, lDone);
    EXPECT_EQ(6U, lDone);
    EXPECT_EQ("456789", text(6));
}

TEST_P(NamedPipeReadTest, IsOneCallAfterTheCountWasCleared)
{
    unsigned int lDone = 999;
    spDone = &lDone;
    GetParam().mpFault->failOn(1, 7, EIO);  // not negative: no failure
    read(cNotOpen, 20, lDone);
    EXPECT_EQ(7U, lDone);
    EXPECT_EQ(1U, GetParam().mpFault->calls());
    EXPECT_EQ(0U, GetParam().mpOtherFault->calls());
    EXPECT_EQ(cNotOpen, sGiven.mDescriptor);
    EXPECT_EQ(mBuffer, sGiven.mpBuffer);
    EXPECT_EQ(20U, sGiven.mLength);
    EXPECT_EQ(2U, sGiven.mLines);
    EXPECT_EQ(0U, sGiven.mDone);
    EXPECT_EQ(lines("20"), logged());
}

TEST_P(NamedPipeReadTest, CountIsClearedBetweenItsTwoFirstLines)
{
    static std::vector<unsigned int> sDones;
    sDones.clear();
    unsigned int lDone = 999;
    spDone = &lDone;
    GetParam().mpFault->failOn(1, 7, EIO);
    atEachLine([](const char*) { sDones.push_back(*spDone); });
    read(cNotOpen, 20, lDone);
    atEachLine(nullptr);
    EXPECT_EQ((std::vector<unsigned int>{999, 0, 7}), sDones);
}

TEST_P(NamedPipeReadTest, GivesZeroWhenTheReadFails)
{
    unsigned int lDone = 999;
    read(cNotOpen, 20, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(lines("20"), logged());
    clearLog();
    lDone = 999;
    GetParam().mpFault->failOn(1, -3, EIO);
    read(cNotOpen, 20, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(1U, GetParam().mpFault->calls());
    EXPECT_EQ(lines("20"), logged());
}

TEST_P(NamedPipeReadTest, GivesZeroWhenANonBlockingPipeIsEmpty)
{
    openPipe(OQPS_NonBlocking);
    unsigned int lDone = 999;
    read(mPipe, 20, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(lines("20"), logged());
}

TEST_P(NamedPipeReadTest, GivesZeroAtEndOfFile)
{
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    OsNamedPipeOpen(mPipe, mPath, OQFM_Append, OQPS_NonBlocking, OQCM_Server);  // there is no writer
    ASSERT_LE(0, mPipe);
    clearLog();
    unsigned int lDone = 999;
    read(mPipe, 20, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(lines("20"), logged());
}

TEST_P(NamedPipeReadTest, LogsLengthsUpToTheGreatest)
{
    unsigned int lDone = 999;
    GetParam().mpFault->failOn(1, 0, 0);
    read(cNotOpen, 4294967295U, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(lines("4294967295"), logged());
    clearLog();
    GetParam().mpFault->failOn(1, 0, 0);
    read(cNotOpen, 0, lDone);
    EXPECT_EQ(lines("0"), logged());
}

// Reading: what tells them apart

TEST_F(NamedPipeLinuxTest, AReadIsShortWhenLessLiesInThePipe)
{
    openPipe();
    put("abc");
    unsigned char lBuffer[16] = {};
    unsigned int lDone = 999;
    OsNamedPipeRead(mPipe, lBuffer, 10, lDone);
    EXPECT_EQ(3U, lDone);
    EXPECT_EQ(0, memcmp("abc\0\0", lBuffer, 5));
    EXPECT_EQ((Lines{cRead.entered(), cRead.trace("Reading 10 bytes"), cRead.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, ABlockReadJoinsThePiecesOfAnotherProcess)
{
    openPipe();
    Peer lWriter([this](Peer&) {
        for (const char* lpPiece : {"abc", "defgh", "ijkl"}) {
            unsigned int lDone = 0;
            OsNamedPipeWrite(mPipe, bytes(lpPiece), static_cast<unsigned int>(strlen(lpPiece)), lDone);
            EXPECT_EQ(strlen(lpPiece), lDone);
            EXPECT_TRUE(eventually([this] { return 0U == lyingIn(mPipe); }));  // the reader has it
        }
    });
    unsigned char lBuffer[16] = {};
    unsigned int lDone = 999;
    OsNamedPipeBlockRead(mPipe, lBuffer, 12, lDone);
    EXPECT_EQ(12U, lDone);
    EXPECT_EQ(0, memcmp("abcdefghijkl\0", lBuffer, 13));
    EXPECT_EQ(1U, ClibBlockReadFault.calls());
    EXPECT_EQ(0, lWriter.wait());
    EXPECT_EQ((Lines{cBlockRead.entered(), cBlockRead.trace("Reading 12 bytes"), cBlockRead.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, ABlockReadGivesWhatHadArrivedAtEndOfFile)
{
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    Peer lWriter([this](Peer&) {
        const int lPipe = open(mFile.c_str(), O_WRONLY);
        EXPECT_EQ(5, ::write(lPipe, "abcde", 5));
        close(lPipe);
    });
    OsNamedPipeOpen(mPipe, mPath, OQFM_Append, OQPS_Blocking, OQCM_Server);
    ASSERT_LE(0, mPipe);
    EXPECT_EQ(0, lWriter.wait());
    unsigned char lBuffer[16] = {};
    unsigned int lDone = 999;
    OsNamedPipeBlockRead(mPipe, lBuffer, 10, lDone);
    EXPECT_EQ(5U, lDone);
    EXPECT_EQ(0, memcmp("abcde\0", lBuffer, 6));
}

// Writing

Lines writing(const std::string& acrLength)
{
    return {cWrite.entered(), cWrite.trace("Writing " + acrLength + " bytes"), cWrite.left()};
}

TEST_F(NamedPipeLinuxTest, WritePutsTheBytesIntoThePipe)
{
    openPipe();
    unsigned int lDone = 4242;
    OsNamedPipeWrite(mPipe, bytes("abcdef"), 6, lDone);
    EXPECT_EQ(6U, lDone);
    EXPECT_EQ(6U, lyingIn(mPipe));
    char lBuffer[6];
    EXPECT_EQ(6, ::read(mPipe, lBuffer, 6));
    EXPECT_EQ(0, memcmp("abcdef", lBuffer, 6));
    EXPECT_EQ(writing("6"), logged());
}

TEST_F(NamedPipeLinuxTest, WriteIsOneCallBeforeWhichTheCountIsNotTouched)
{
    const unsigned char* const lpData = bytes("abcdef");
    for (const unsigned int lResult : {6U, 5U, 0U}) {
        clearLog();
        unsigned int lDone = 4242;
        spDone = &lDone;
        ClibWriteFault.failOn(1, static_cast<long>(lResult), EIO);
        OsNamedPipeWrite(cNotOpen, lpData, 6, lDone);
        EXPECT_EQ(lResult, lDone);
        EXPECT_EQ(1U, ClibWriteFault.calls());
        EXPECT_EQ(cNotOpen, sGiven.mDescriptor);
        EXPECT_EQ(lpData, sGiven.mpBuffer);
        EXPECT_EQ(6U, sGiven.mLength);
        EXPECT_EQ(2U, sGiven.mLines);
        EXPECT_EQ(4242U, sGiven.mDone);
        EXPECT_EQ(writing("6"), logged());
    }
}

TEST_F(NamedPipeLinuxTest, AFailedWriteLeavesTheCountUntouched)
{
    unsigned int lDone = 4242;
    OsNamedPipeWrite(cNotOpen, bytes("abc"), 3, lDone);
    EXPECT_EQ(4242U, lDone);
    EXPECT_EQ(writing("3"), logged());
    clearLog();
    ClibWriteFault.failOn(1, -2, EIO);
    OsNamedPipeWrite(cNotOpen, bytes("abc"), 3, lDone);
    EXPECT_EQ(4242U, lDone);
    EXPECT_EQ(1U, ClibWriteFault.calls());
    EXPECT_EQ(writing("3"), logged());
}

TEST_F(NamedPipeLinuxTest, AWriteIntoAFullNonBlockingPipeLeavesTheCountUntouched)
{
    openPipe(OQPS_NonBlocking);
    const std::vector<unsigned char> lData(1000000, 'x');
    unsigned int lDone = 0;
    OsNamedPipeWrite(mPipe, lData.data(), 1000000, lDone);
    EXPECT_LT(0U, lDone);
    EXPECT_GT(1000000U, lDone) << "a short write was expected";
    EXPECT_EQ(lDone, lyingIn(mPipe));
    EXPECT_EQ(writing("1000000"), logged());
    clearLog();
    lDone = 4242;
    OsNamedPipeWrite(mPipe, lData.data(), 4096, lDone);
    EXPECT_EQ(4242U, lDone);
    EXPECT_EQ(writing("4096"), logged());
}

TEST_F(NamedPipeLinuxTest, WriteLogsLengthsUpToTheGreatest)
{
    unsigned int lDone = 4242;
    ClibWriteFault.failOn(1, 0, 0);
    OsNamedPipeWrite(cNotOpen, bytes(""), 4294967295U, lDone);
    EXPECT_EQ(0U, lDone);
    EXPECT_EQ(writing("4294967295"), logged());
}

// Waiting

TEST_F(NamedPipeLinuxTest, WaitForActivityReturnsWhenThereIsData)
{
    openPipe();
    put("abc");
    OsNamedPipeWaitForActivity(mPipe, 30);
    EXPECT_EQ(3U, lyingIn(mPipe));
    EXPECT_EQ(mPipe, sGiven.mDescriptor);
    EXPECT_EQ(30, sGiven.mSeconds);
    EXPECT_EQ(0, sGiven.mMicroseconds);
    EXPECT_EQ((Lines{cWait.entered(), cActivity.entered(), cActivity.trace("Data is available now."), cActivity.left(),
                     cWait.left()}),
              logged());
}

TEST_F(NamedPipeLinuxTest, WaitForActivityIsEndedByAnotherProcessThatWrites)
{
    openPipe();
    Peer lWriter([this](Peer& arTest) {
        arTest.meet();
        unsigned int lDone = 0;
        OsNamedPipeWrite(mPipe, bytes("abc"), 3, lDone);
        EXPECT_EQ(3U, lDone);
    });
    lWriter.signal();
    OsNamedPipeWaitForActivity(mPipe, 60);
    EXPECT_EQ(3U, lyingIn(mPipe));
    EXPECT_EQ(0, lWriter.wait());
    EXPECT_EQ((Lines{cWait.entered(), cActivity.entered(), cActivity.trace("Data is available now."), cActivity.left(),
                     cWait.left()}),
              logged());
}

TEST_F(NamedPipeLinuxTest, ATimeOutPassesThroughTheWaitWithoutItsLeft)
{
    openPipe();
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsNamedPipeWaitForActivity(mPipe, 0));
    EXPECT_EQ(0, sGiven.mSeconds);
    EXPECT_EQ(
        (Lines{cWait.entered(), cActivity.entered(), cActivity.trace("No data within 0 seconds."), cActivity.left()}),
        logged());
}

/// The wait does not tell a pipe that could not be opened from one without data.
TEST_F(NamedPipeLinuxTest, AWaitForAPipeThatWasNotOpenedTimesOut)
{
    int lPipe = -1;
    OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
    EXPECT_EQ(-1, lPipe);
    clearLog();
    EXPECT_FAILURE(OQCTimeOutEx, 323, "Timed out", OsNamedPipeWaitForActivity(lPipe, 0));
    EXPECT_EQ(
        (Lines{cWait.entered(), cActivity.entered(), cActivity.trace("No data within 0 seconds."), cActivity.left()}),
        logged());
}

TEST_F(NamedPipeLinuxTest, AFailedWaitPassesThroughWithoutItsLeft)
{
    const int lClosed = dup(STDERR_FILENO);  // a low number: the kernel overlooks those beyond its table
    close(lClosed);
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Bad file descriptor", OsNamedPipeWaitForActivity(lClosed, 1));
    EXPECT_EQ((Lines{cWait.entered(), cActivity.entered(),
                     cActivity.error("Error waiting on Named Pipe: " + std::to_string(lClosed) +
                                     ", Error : Bad file descriptor"),
                     cActivity.left()}),
              logged());
    clearLog();
    selectFault.failOn(1, -1, ENOMEM);
    EXPECT_FAILURE(OQCPipeWaitFailedEx, 332, "Cannot allocate memory", OsNamedPipeWaitForActivity(5, 1));
    EXPECT_EQ(
        (Lines{cWait.entered(), cActivity.entered(),
               cActivity.error("Error waiting on Named Pipe: 5, Error : Cannot allocate memory"), cActivity.left()}),
        logged());
}

TEST_F(NamedPipeLinuxTest, AnInterruptedWaitGoesOn)
{
    openPipe();
    put("abc");
    selectFault.failOn(1, -1, EINTR);
    OsNamedPipeWaitForActivity(mPipe, 30);
    EXPECT_EQ(2U, selectFault.calls());
    EXPECT_EQ((Lines{cWait.entered(), cActivity.entered(),
                     cActivity.information("The select() call was interrupted.. Ignoring"),
                     cActivity.trace("Data is available now."), cActivity.left(), cWait.left()}),
              logged());
}

// Closing

TEST_F(NamedPipeLinuxTest, CloseClosesAndKeepsTheNumber)
{
    for (const OQEConnectionMode lSide : {OQCM_Client, OQCM_Server}) {
        openPipe();
        const int lPipe = mPipe;
        OsNamedPipeClose(mPipe, lSide);
        EXPECT_EQ(lPipe, mPipe);
        mPipe = -1;
        EXPECT_EQ(-1, fcntl(lPipe, F_GETFD));
        EXPECT_TRUE(isFifo(mFile));
        EXPECT_EQ(1U, ClibCloseFault.calls());
        EXPECT_EQ(lPipe, sGiven.mDescriptor);
        EXPECT_EQ(2U, sGiven.mLines);
        EXPECT_EQ((Lines{cClose.entered(),
                         cClose.trace("Closing linux named pipe. pipe desc: " + std::to_string(lPipe)), cClose.left()}),
                  logged());
    }
}

TEST_F(NamedPipeLinuxTest, ASecondClosePassesTheStaleNumberAgain)
{
    openPipe();
    const int lPipe = mPipe;
    OsNamedPipeClose(mPipe, OQCM_Server);
    sGiven = Given();
    OsNamedPipeClose(mPipe, OQCM_Server);
    EXPECT_EQ(lPipe, mPipe);
    mPipe = -1;
    EXPECT_EQ(2U, ClibCloseFault.calls());
    EXPECT_EQ(lPipe, sGiven.mDescriptor);
    const Line lClosing = cClose.trace("Closing linux named pipe. pipe desc: " + std::to_string(lPipe));
    EXPECT_EQ((Lines{cClose.entered(), lClosing, cClose.left(), cClose.entered(), lClosing, cClose.left()}), logged());
}

TEST_F(NamedPipeLinuxTest, CloseIgnoresAFailureAndLogsTheNumberUnsigned)
{
    int lPipe = -1;
    ClibCloseFault.failOn(1, -1, EIO);
    OsNamedPipeClose(lPipe, OQCM_Client);
    EXPECT_EQ(-1, lPipe);
    EXPECT_EQ(-1, sGiven.mDescriptor);
    EXPECT_EQ((Lines{cClose.entered(), cClose.trace("Closing linux named pipe. pipe desc: 4294967295"), cClose.left()}),
              logged());
}

// Two processes

/// A message: number, length, that many bytes, and a checksum over all of it.
struct Message {
    uint32_t mNumber;
    uint32_t mLength;
    unsigned char mBytes[200];
    uint32_t mChecksum;

    uint32_t checksum() const
    {
        uint32_t lSum = 2166136261U ^ mNumber ^ (mLength << 16);
        for (uint32_t lIndex = 0; lIndex < mLength; ++lIndex) {
            lSum = (lSum ^ mBytes[lIndex]) * 16777619U;
        }
        return lSum;
    }

    void fill(uint32_t aNumber, uint32_t aSalt)
    {
        mNumber = aNumber;
        mLength = (aNumber * 7 + aSalt) % 201;
        for (uint32_t lIndex = 0; lIndex < mLength; ++lIndex) {
            mBytes[lIndex] = static_cast<unsigned char>(aNumber + lIndex * aSalt);
        }
        mChecksum = checksum();
    }

    void send(int aPipe) const
    {
        put(aPipe, &mNumber, sizeof mNumber);
        put(aPipe, &mLength, sizeof mLength);
        put(aPipe, mBytes, mLength);
        put(aPipe, &mChecksum, sizeof mChecksum);
    }

    bool receive(int aPipe)
    {
        return get(aPipe, &mNumber, sizeof mNumber) && get(aPipe, &mLength, sizeof mLength) &&
               mLength <= sizeof mBytes && get(aPipe, mBytes, mLength) && get(aPipe, &mChecksum, sizeof mChecksum);
    }

private:
    static void put(int aPipe, const void* acBytes, size_t aLength)
    {
        unsigned int lDone = 0;
        OsNamedPipeWrite(aPipe, static_cast<const unsigned char*>(acBytes), static_cast<unsigned int>(aLength), lDone);
        EXPECT_EQ(aLength, lDone);
    }
    static bool get(int aPipe, void* apBytes, size_t aLength)
    {
        unsigned int lDone = 0;
        OsNamedPipeBlockRead(aPipe, static_cast<unsigned char*>(apBytes), static_cast<unsigned int>(aLength), lDone);
        return aLength == lDone;
    }
};

TEST_F(NamedPipeLinuxTest, TenThousandMessagesOfTwoProcessesArriveWholeAndInOrder)
{
    const uint32_t cMessages = 10000;
    sRecording = false;
    keepNoLines();
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    Peer lSender([&](Peer&) {
        keepNoLines();
        int lPipe = -1;
        OsNamedPipeOpen(lPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
        for (uint32_t lNumber = 0; lNumber < cMessages; ++lNumber) {
            Message lMessage;
            lMessage.fill(lNumber, 3);
            lMessage.send(lPipe);
        }
        OsNamedPipeClose(lPipe, OQCM_Client);
    });
    OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Server);
    uint32_t lRight = 0;
    for (uint32_t lNumber = 0; lNumber < cMessages; ++lNumber) {
        OsNamedPipeWaitForActivity(mPipe, 30);
        Message lMessage;
        Message lExpected;
        lExpected.fill(lNumber, 3);
        ASSERT_TRUE(lMessage.receive(mPipe));
        lRight += lNumber == lMessage.mNumber && lExpected.mLength == lMessage.mLength &&
                          lMessage.checksum() == lMessage.mChecksum && lExpected.mChecksum == lMessage.mChecksum
                      ? 1U
                      : 0U;
    }
    EXPECT_EQ(cMessages, lRight);
    EXPECT_EQ(0U, lyingIn(mPipe));
    EXPECT_EQ(0, lSender.wait());
}

TEST_F(NamedPipeLinuxTest, TwoProcessesTalkOverTwoPipes)
{
    const uint32_t cRounds = 1000;
    sRecording = false;
    keepNoLines();
    const std::string lBackFile = path("back");
    const OQCString lBackPath(lBackFile.c_str());
    int lUnused = 0;
    OsNamedPipeCreate(mPath, lUnused);
    OsNamedPipeCreate(lBackPath, lUnused);
    Peer lAnswerer([&](Peer&) {
        keepNoLines();
        int lThere = -1;
        int lBack = -1;
        OsNamedPipeOpen(lThere, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Client);
        OsNamedPipeOpen(lBack, lBackPath, OQFM_Mode3, OQPS_Blocking, OQCM_Client);
        for (uint32_t lRound = 0; lRound < cRounds; ++lRound) {
            Message lMessage;
            ASSERT_TRUE(lMessage.receive(lThere));
            EXPECT_EQ(lMessage.checksum(), lMessage.mChecksum);
            lMessage.fill(lMessage.mNumber, 5);
            lMessage.send(lBack);
        }
        OsNamedPipeClose(lBack, OQCM_Client);
        OsNamedPipeClose(lThere, OQCM_Client);
    });
    int lBack = -1;
    OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Server);
    OsNamedPipeOpen(lBack, lBackPath, OQFM_Mode2, OQPS_Blocking, OQCM_Server);
    uint32_t lRight = 0;
    for (uint32_t lRound = 0; lRound < cRounds; ++lRound) {
        Message lMessage;
        lMessage.fill(lRound, 3);
        lMessage.send(mPipe);
        Message lExpected;
        lExpected.fill(lRound, 5);
        OsNamedPipeWaitForActivity(lBack, 30);
        if (!lMessage.receive(lBack)) {
            break;
        }
        lRight += lRound == lMessage.mNumber && lMessage.checksum() == lMessage.mChecksum &&
                          lExpected.mChecksum == lMessage.mChecksum
                      ? 1U
                      : 0U;
    }
    EXPECT_EQ(cRounds, lRight);
    EXPECT_EQ(0, lAnswerer.wait());
    OsNamedPipeClose(lBack, OQCM_Server);
    OsNamedPipeDestroy(lBackPath, lBack);
}

}  // namespace
