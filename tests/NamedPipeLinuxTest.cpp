// Named pipes with every mode, and between two processes. outcomes/Pipes.cpp tests how each operation ends.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Peer.h"
#include "Substitutes.h"

namespace
{

/// Returns the number of bytes in a pipe.
unsigned int bytesIn(int aPipe)
{
    int lBytes = 0;
    EXPECT_EQ(0, ioctl(aPipe, FIONREAD, &lBytes));
    return static_cast<unsigned int>(lBytes);
}

void send(int aPipe, const std::string& acrBytes)
{
    unsigned int lDone = 0;
    OsNamedPipeWrite(aPipe, reinterpret_cast<const unsigned char*>(acrBytes.data()),
                     static_cast<unsigned int>(acrBytes.size()), lDone);
    EXPECT_EQ(acrBytes.size(), lDone);
}

typedef void Read(int, unsigned char*, unsigned int, unsigned int&);

std::string received(int aPipe, size_t aLength, Read* apRead = OsNamedPipeBlockRead)
{
    std::vector<unsigned char> lBuffer(aLength + 1, '!');
    unsigned int lDone = 4242;
    apRead(aPipe, lBuffer.data(), static_cast<unsigned int>(aLength), lDone);
    EXPECT_EQ('!', lBuffer.at(lDone));
    return std::string(lBuffer.begin(), lBuffer.begin() + lDone);
}

/// A FIFO, open for reading and writing in mPipe. Its file is removed after the test.
class NamedPipeLinuxTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        OsNamedPipeCreate(mPath, mPipe);
        mPipe = open(OQFM_Mode1, OQPS_Blocking);  // does not wait for a peer
        clearEvents();
    }
    void TearDown() override
    {
        close(mPipe);
        OsNamedPipeDestroy(mPath, mPipe);
        RecordedTest::TearDown();
    }

    /// Opens the FIFO.
    int open(OQEFileMode aMode, OQEPipeState aState, OQEConnectionMode aSide = OQCM_Server)
    {
        int lPipe = -1;
        OsNamedPipeOpen(lPipe, mPath, aMode, aState, aSide);
        EXPECT_LE(0, lPipe);
        return lPipe;
    }

    const OQCString mPath = path("pipe").c_str();
    int mPipe = -1;
};

TEST_F(NamedPipeLinuxTest, CreateLeavesOutWhatTheProcessMasks)
{
    const OQCString lPath = path("masked").c_str();
    for (const mode_t lMask : {0U, 027U}) {
        const mode_t lBefore = umask(lMask);
        OsNamedPipeCreate(lPath, mPipe);
        umask(lBefore);
        struct stat lInfo;
        ASSERT_EQ(0, stat(lPath.get(), &lInfo));
        EXPECT_EQ(static_cast<mode_t>(S_IFIFO | (0660 & ~lMask)), lInfo.st_mode);
        OsNamedPipeDestroy(lPath, mPipe);
    }
}

TEST_F(NamedPipeLinuxTest, OpenChoosesTheFlagsByModeAndState)
{
    for (const unsigned int lMode : {1U, 2U, 3U, 4U}) {
        for (const unsigned int lState : {0U, 1U, 2U, 3U, 130U, 255U}) {
            for (const OQEConnectionMode lSide : {OQCM_Client, OQCM_Server}) {
                SCOPED_TRACE(std::to_string(lMode) + " " + std::to_string(lState));
                const int cExpected = (4 == lMode ? 5120 : 4098) + (2 == lState ? 2048 : 0);
                clearEvents();
                const int lPipe = open(static_cast<OQEFileMode>(lMode), static_cast<OQEPipeState>(lState), lSide);
                EXPECT_EQ(std::to_string(cExpected), recorded().at(1).mArguments.at(1));
                EXPECT_EQ(cExpected, fcntl(lPipe, F_GETFL) & (O_ACCMODE | O_APPEND | O_DSYNC | O_NONBLOCK | O_ASYNC));
                close(lPipe);
            }
        }
    }
}

TEST_F(NamedPipeLinuxTest, OpenRefusesEveryOtherMode)
{
    for (unsigned int lMode = 5; 1 != lMode; lMode = (lMode + 1) % 256) {
        SCOPED_TRACE(lMode);
        clearEvents();
        int lPipe = 77;
        EXPECT_FAILURE(OQCInvalidEx, 6, "Invalid flags passed to open pipe",
                       OsNamedPipeOpen(lPipe, mPath, static_cast<OQEFileMode>(lMode), OQPS_NonBlocking, OQCM_Client));
        EXPECT_EQ(77, lPipe);
        EXPECT_EQ("Entered\n-E- \"Invalid flags %d passed to open file\" \"" + std::to_string(lMode) + "\"\nLeft\n",
                  traceOf(recorded(), "OsNamedPipeOpen", ".//NamedPipeLinux"));
    }
}

TEST_F(NamedPipeLinuxTest, OpeningForAppendWaitsForAWriterAndCannotWrite)
{
    close(mPipe);
    Peer lWriter([this](Peer& arTest) {
        arTest.meet();
        open(OQFM_Mode1, OQPS_Blocking, OQCM_Client);
        arTest.meet();
    });
    lWriter.signal();
    mPipe = open(OQFM_Append, OQPS_Blocking);
    unsigned int lDone = 4242;
    OsNamedPipeWrite(mPipe, reinterpret_cast<const unsigned char*>("abc"), 3, lDone);
    EXPECT_EQ(4242U, lDone);
    lWriter.signal();
    EXPECT_EQ(0, lWriter.wait());
}

TEST_F(NamedPipeLinuxTest, BothReadsTakeWhatIsAskedForAndNoMore)
{
    for (Read* const lpRead : {OsNamedPipeRead, OsNamedPipeBlockRead}) {
        send(mPipe, "0123456789");
        EXPECT_EQ("0123", received(mPipe, 4, lpRead));
        EXPECT_EQ("456789", received(mPipe, 6, lpRead));
    }
}

TEST_F(NamedPipeLinuxTest, ABlockReadJoinsThePiecesOfAnotherProcess)
{
    Peer lWriter([this](Peer&) {
        for (const char* lpPiece : {"abc", "defgh", "ijkl"}) {
            send(mPipe, lpPiece);
            EXPECT_TRUE(eventually([this] { return 0U == bytesIn(mPipe); }));  // the reader has read it
        }
    });
    EXPECT_EQ("abcdefghijkl", received(mPipe, 12));
    EXPECT_EQ(0, lWriter.wait());
}

TEST_F(NamedPipeLinuxTest, AWriteIntoAFullNonBlockingPipeLeavesTheCountUntouched)
{
    const int lPipe = open(OQFM_Mode1, OQPS_NonBlocking);
    const std::vector<unsigned char> lData(1000000, 'x');
    unsigned int lDone = 4242;
    OsNamedPipeWrite(lPipe, lData.data(), 0, lDone);
    EXPECT_EQ(0U, lDone);
    OsNamedPipeWrite(lPipe, lData.data(), 1000000, lDone);
    EXPECT_LT(0U, lDone);
    EXPECT_GT(1000000U, lDone) << "a short write was expected";
    EXPECT_EQ(lDone, bytesIn(lPipe));
    lDone = 4242;
    OsNamedPipeWrite(lPipe, lData.data(), 4096, lDone);
    EXPECT_EQ(4242U, lDone);
    close(lPipe);
}

TEST_F(NamedPipeLinuxTest, WaitForActivityIsEndedByAnotherProcessThatWrites)
{
    Peer lWriter([this](Peer& arTest) {
        arTest.meet();
        send(mPipe, "abc");
    });
    lWriter.signal();
    OsNamedPipeWaitForActivity(mPipe, 60);
    EXPECT_EQ(3U, bytesIn(mPipe));
    EXPECT_EQ(0, lWriter.wait());
}

/// The text of a message, of 1 to 200 bytes. Consecutive numbers give different lengths and bytes.
std::string message(unsigned int aNumber)
{
    std::string lMessage;
    for (unsigned int lIndex = 0; lIndex <= (aNumber * 7 + 3) % 200; ++lIndex) {
        lMessage += static_cast<char>(aNumber + lIndex * 3);
    }
    return lMessage;
}

TEST_F(NamedPipeLinuxTest, TenThousandMessagesOfTwoProcessesArriveWholeAndInOrder)
{
    const unsigned int cMessages = 10000;
    keepNoEvents();
    Peer lSender([&](Peer&) {
        const int lPipe = open(OQFM_Mode2, OQPS_Blocking, OQCM_Client);
        for (unsigned int lNumber = 0; lNumber < cMessages; ++lNumber) {
            send(lPipe, message(lNumber));
        }
    });
    for (unsigned int lNumber = 0; lNumber < cMessages; ++lNumber) {
        OsNamedPipeWaitForActivity(mPipe, 30);
        ASSERT_EQ(message(lNumber), received(mPipe, message(lNumber).size()));
    }
    EXPECT_EQ(0U, bytesIn(mPipe));
    EXPECT_EQ(0, lSender.wait());
}

}  // namespace
