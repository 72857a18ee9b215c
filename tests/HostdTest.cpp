// Tests hostd and hostctl as a new user would use them, in real processes. Tests their internal classes as parts of
// this program.

#include <fcntl.h>
#include <linux/capability.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "Channel.cpp"
#include "Command.h"
#include "Ownership.cpp"
#include "RequestParser.cpp"
#include "RequestQueue.cpp"

namespace
{

/// Measures the seconds since its construction.
class Clock
{
public:
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - mStart).count(); }

private:
    const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
};

bool exists(const std::string& acrPath)
{
    struct stat lInfo;
    return 0 == lstat(acrPath.c_str(), &lInfo);
}

/// Returns whether a process has ended. A zombie counts as ended if no other thread of the process still runs.
bool isGone(int aPid)
{
    const std::string lProcess = "/proc/" + std::to_string(aPid);
    const std::string lStat = contentOf(lProcess + "/stat");
    std::error_code lEnded;
    return lStat.empty() || (contains(lStat, ") Z ") &&
                             std::distance(std::filesystem::directory_iterator(lProcess + "/task", lEnded), {}) <= 1);
}

std::string framed(const std::string& acrText) { return "\x02" + acrText + "\n"; }

/// The answer to "lines".
std::string lines(int aCount)
{
    std::string lText;
    for (int lLine = 1; lLine <= aCount; ++lLine) {
        lText += "line " + std::to_string(lLine) + "\n";
    }
    return lText;
}

// ---- The parser -----------------------------------------------------------------------------------------------------

class Found : public RequestSink
{
public:
    void onRequest(const Request& acrRequest) override
    {
        mFound.push_back(acrRequest.mToken + "|" + acrRequest.mVerb + "|" + acrRequest.mArgument);
    }
    void onRefused(const std::string& acrToken, const char* acReason) override
    {
        mFound.push_back("!" + acrToken + "|" + acReason);
    }
    Strings mFound;
};

Strings parsed(const std::string& acrBytes, size_t aPiece = 100000)
{
    Found lFound;
    RequestParser lParser(lFound);
    for (size_t lAt = 0; lAt < acrBytes.size(); lAt += aPiece) {
        const std::string lPiece = acrBytes.substr(lAt, aPiece);
        lParser.feed(reinterpret_cast<const unsigned char*>(lPiece.data()), static_cast<unsigned int>(lPiece.size()));
    }
    return lFound.mFound;
}

TEST(RequestParser, FindsTheSameInPiecesOfAnySize)
{
    const std::string lBytes = framed("a echo one") + "stray\n\nbytes" + framed("b nonsense") +
                               "\x02"
                               "c echo cut" +
                               framed("d echo " + std::string(600, 'x')) + "\n" + framed("e status");
    const Strings cExpected = {"a|echo|one",
                               "!|bytes outside a request",
                               "!b|unknown request",
                               "!c|the request breaks off",
                               "!d|the request is longer than 512 bytes",
                               "e|status|"};
    for (size_t lPiece = 1; lPiece <= lBytes.size(); ++lPiece) {
        EXPECT_EQ(cExpected, parsed(lBytes, lPiece)) << lPiece;
    }
    EXPECT_EQ((Strings{"!|bytes outside a request", "a|status|", "!|bytes outside a request", "b|status|"}),
              parsed("x\n\ny" + framed("a status") + "\n\n" + framed("b status")));
}

TEST(RequestParser, ARequestThatBreaksOffAnywhereSpoilsOnlyItself)
{
    const std::string lWhole = framed("tok echo text");
    for (size_t lLength = 1; lLength < lWhole.size(); ++lLength) {
        // The parser uses the token only after the blank that follows it.
        const std::string lToken = lLength < 5 ? "" : "tok";
        EXPECT_EQ((Strings{"!" + lToken + "|the request breaks off", "next|status|"}),
                  parsed(lWhole.substr(0, lLength) + framed("next status")))
            << lLength;
    }
}

TEST(RequestParser, DiscardsATooLongRequestUpToTheNextStart)
{
    for (const std::string lToken : {"t", ""}) {
        EXPECT_EQ((Strings{"!" + lToken + "|the request is longer than 512 bytes", "u|status|"}),
                  parsed("\x02" + lToken + (lToken.empty() ? "" : " echo ") + std::string(5000, 'x') +
                         "\nv status\nw status\n" + framed("u status")));
    }
}

TEST(RequestParser, RefusesEveryControlCharacter)
{
    for (int lByte = 0; lByte < 256; ++lByte) {
        if (cRequestStart == lByte || cRequestEnd == lByte) {
            continue;
        }
        const std::string lArgument = std::string("a") + static_cast<char>(lByte) + "b";
        const std::string lExpected =
            lByte < 0x20 || 0x7f == lByte ? "!t|control characters are not allowed" : "t|echo|" + lArgument;
        EXPECT_EQ((Strings{lExpected, "u|status|"}), parsed(framed("t echo " + lArgument) + framed("u status")));
    }
}

TEST(RequestParser, FindsWholeRequestsAndRefusesWhatBreaksTheForm)
{
    const std::string lNoToken = "!|the token is missing or no token";
    const std::string lUnknown = "!t|unknown request";
    const std::string lLines = "!t|the number of lines is 0 to 100000";
    const std::string lName = "!t|a process name is 1 to 15 of A-Z a-z 0-9 . _ - and starts with a letter or a digit";
    // clang-format off
    const std::pair<std::string, std::string> cRows[] = {
        {"1-a status", "1-a|status|"}, {"B2 echo two words", "B2|echo|two words"}, {"c echo  x ", "c|echo| x "},
        {"d echo", "d|echo|"}, {"g echo \xc3\xa4", "g|echo|\xc3\xa4"},
        {"t echo " + std::string(503, 'x'), "t|echo|" + std::string(503, 'x')},  // 512 bytes
        {"t echo " + std::string(504, 'x'), "!t|the request is longer than 512 bytes"},
        {"", lNoToken}, {" status", lNoToken}, {"t_ status", lNoToken}, {"t/ status", lNoToken},
        {std::string(24, 't') + " status", lNoToken},
        {std::string(23, 't') + " status", std::string(23, 't') + "|status|"},
        {"t", lUnknown}, {"t ", lUnknown}, {"t  status", lUnknown}, {"t Status", lUnknown}, {"t statusx", lUnknown},
        {"t status x", "!t|this request takes no argument"},
        {"t lines", lLines}, {"t lines 100001", lLines}, {"t lines 0000001", lLines}, {"t lines -1", lLines},
        {"t lines 1 ", lLines}, {"t lines 0", "t|lines|0"}, {"t lines 100000", "t|lines|100000"},
        {"t running", lName}, {"t running -x", lName}, {"t running .x", lName}, {"t running a;b", lName},
        {"t running a b", lName}, {"t running $(x)", lName}, {"t running abcdefghijklmnop", lName},
        {"t running abcdefghijklmno", "t|running|abcdefghijklmno"}, {"t running a.B_9-", "t|running|a.B_9-"},
    };
    // clang-format on
    for (const auto& acrRow : cRows) {
        EXPECT_EQ((Strings{acrRow.second, "u|status|"}), parsed(framed(acrRow.first) + framed("u status")))
            << acrRow.first;
    }
}

// ---- The queue, the names and the lock ------------------------------------------------------------------------------

TEST(RequestQueue, IsBoundedAndKeepsRoomForRefusals)
{
    RequestQueue lQueue;
    const auto lPut = [&](int aNumber, const char* acRefusal) {
        return lQueue.put(Job{Request{std::to_string(aNumber), "echo", ""}, acRefusal});
    };
    for (int lNumber = 0; lNumber < 16; ++lNumber) {
        EXPECT_TRUE(lPut(lNumber, ""));
    }
    EXPECT_FALSE(lPut(99, ""));
    for (int lNumber = 16; lNumber < 32; ++lNumber) {
        EXPECT_TRUE(lPut(lNumber, "refused"));
    }
    EXPECT_FALSE(lPut(99, "refused"));
    Job lTaken;
    for (int lNumber = 0; lNumber < 32; ++lNumber) {
        ASSERT_TRUE(lQueue.take(lTaken));
        EXPECT_EQ(std::to_string(lNumber), lTaken.mRequest.mToken);
    }
}

TEST(RequestQueue, OnceClosedLetsTheTakerEnd)
{
    RequestQueue lQueue;
    Job lJob{Request{"t", "echo", ""}, ""};
    std::thread lTaker([&] {
        Job lTaken;
        while (lQueue.take(lTaken)) {
        }
    });
    EXPECT_TRUE(lQueue.put(lJob));
    EXPECT_FALSE(lQueue.isClosed());
    lQueue.close();
    lTaker.join();
    EXPECT_TRUE(lQueue.isClosed());
    EXPECT_TRUE(lQueue.put(lJob));
    EXPECT_FALSE(lQueue.take(lJob));
}

TEST(Channel, NamesAreStrictAndDecideEverything)
{
    for (const char* lpName : {"a", "hostd", "A_b-9", "12345678901234567890123456789012"}) {
        EXPECT_TRUE(isChannelName(lpName)) << lpName;
        EXPECT_LT(0, Channel("/run", lpName).mKey);
    }
    for (const char* lpName : {"", "a/b", "..", "a b", "a.b", "123456789012345678901234567890123"}) {
        EXPECT_FALSE(isChannelName(lpName)) << lpName;
    }
    EXPECT_STREQ("/run/x.fifo", Channel("/run", "x").mPipe.get());
    EXPECT_STREQ("/run/x.lock", Channel("/run", "x").mLock.get());
    EXPECT_STREQ("/run/x.ask", Channel("/run", "x").mTurn.get());
    EXPECT_NE(Channel("/run", "x").mKey, Channel("/run", "y").mKey);
    EXPECT_NE(Channel("/run/1", "x").mKey, Channel("/run/2", "x").mKey);
}

typedef RecordedTest LockedFileTest;

TEST_F(LockedFileTest, ALockOnAFileThatWasRemovedMeanwhileDoesNotCount)
{
    const std::string lPath = path("locked");
    for (const bool lIsReplaced : {true, false}) {
        int lOpened = 0;
        substitute::ClibOpen.instead([&](const char* acPath, int aFlags, int aMode) {
            const int lDescriptor = substitute::ClibOpen.real(acPath, aFlags, aMode);
            if (1 == ++lOpened) {
                unlink(lPath.c_str());  // as the last holder does; another process may then create a new file
                lIsReplaced ? void(std::ofstream(lPath) << "new\n") : void();
            }
            return lDescriptor;
        });
        const Recording lRecording;
        const LockedFile lFile = lockOwnFile(lPath.c_str(), O_RDWR | O_CREAT, std::chrono::seconds(0), "locked");
        EXPECT_EQ(2, lOpened);
        EXPECT_EQ(lIsReplaced ? "new\n" : "", contentOf(lPath));
        EXPECT_TRUE(isNamed(lFile.mFile.get(), lPath.c_str()));
        unlink(lPath.c_str());
        EXPECT_THROW(lockOwnFile(lPath.c_str(), O_RDWR, std::chrono::seconds(0), "locked"), std::runtime_error);
        EXPECT_FALSE(exists(lPath));
    }
}

// ---- A daemon and its tool ------------------------------------------------------------------------------------------

const uid_t cNobody = 65534;
const char* const cName = "hostdtest";
const Strings cNothing;

/// Gives this program exclusive use of the host's result file and of other fixed names in /tmp.
class FixedNames
{
public:
    FixedNames() : mLock(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        while (0 != flock(mLock, LOCK_EX) && EINTR == errno) {
        }
        unlink("/tmp/.vyrsyscmd");
    }
    ~FixedNames()
    {
        unlink("/tmp/.vyrsyscmd");
        close(mLock);
    }
    const int mLock;
};

/// A test of a daemon and its tool, whose files are in a directory of the test.
class Hostd : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        keepNoEvents();
        mDirectory = path("x").substr(0, path("x").size() - 2);
        setenv("XDG_RUNTIME_DIR", mDirectory.c_str(), 1);
    }
    void TearDown() override
    {
        std::error_code lNoLink;
        if (HOSTD == std::filesystem::read_symlink("/proc/" + std::to_string(pid()) + "/exe", lNoLink)) {
            ::kill(pid(), SIGKILL);
        }
        EXPECT_EQ(cNothing, left());
        removeSegment();
        unlink(log().c_str());
        RecordedTest::TearDown();
    }

    static std::string lock() { return path("hostdtest.lock"); }
    static std::string fifo() { return path("hostdtest.fifo"); }
    static std::string turn() { return path("hostdtest.ask"); }
    static std::string log() { return path("log"); }
    static Strings all() { return {lock(), fifo(), turn(), "segment"}; }
    /// Returns the process id that the lock file contains.
    static int pid() { return atoi(contentOf(lock()).c_str()); }
    key_t segmentKey() const { return Channel(mDirectory, cName).mKey; }
    void removeSegment() const { shmctl(shmget(segmentKey(), 0, 0), IPC_RMID, nullptr); }

    /// Returns those files and the segment of the daemon's name that exist.
    Strings left() const
    {
        Strings lLeft;
        for (const std::string& acrName : all()) {
            if ("segment" == acrName ? 0 <= shmget(segmentKey(), 0, 0) : exists(acrName)) {
                lLeft.push_back(acrName);
            }
        }
        return lLeft;
    }

    static Strings named(const std::string& acrProgram, const Strings& acrWords)
    {
        Strings lWords = {acrProgram, "--name", cName};
        lWords.insert(lWords.end(), acrWords.begin(), acrWords.end());
        return lWords;
    }
    static Result hostctl(const Strings& acrWords, const std::function<void()>& acrPrepare = {})
    {
        return resultOf(named(HOSTCTL, acrWords), acrPrepare);
    }
    static Result hostd(const std::function<void()>& acrPrepare = {}) { return resultOf(named(HOSTD, {}), acrPrepare); }
    static std::unique_ptr<Command> spawn(const Strings& acrWords)
    {
        return std::unique_ptr<Command>(new Command(named(HOSTCTL, acrWords)));
    }
    /// Starts the tool with a request and reads its trace until it waits for the answer.
    static std::unique_ptr<Command> ask(const std::string& acrText)
    {
        std::unique_ptr<Command> lAsk = spawn({"ask", "--trace", "echo", acrText});
        EXPECT_TRUE(lAsk->readUntil([&] {
            const std::string lError = lAsk->error();
            return std::string::npos != lError.find("OsNamedPipeClose", lError.find("OsNamedPipeWrite"));
        }));
        return lAsk;
    }
    /// Starts a daemon in the foreground and waits until it serves requests, or has ended.
    static std::unique_ptr<Command> foreground(const Strings& acrWords = {},
                                               const std::function<void()>& acrPrepare = {})
    {
        std::unique_ptr<Command> lDaemon(new Command(named(HOSTD, acrWords), acrPrepare));
        EXPECT_TRUE(eventually([&] { return lDaemon->pid() == pid() || isGone(lDaemon->pid()); }));
        return lDaemon;
    }
    /// Ends a daemon in the foreground.
    Result endOf(const std::unique_ptr<Command>& acrDaemon, int aSignal = SIGTERM)
    {
        acrDaemon->kill(aSignal);
        const Result lResult = acrDaemon->finish();
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("", lResult.mOut);
        EXPECT_EQ(cNothing, left());
        return lResult;
    }

    static void start()
    {
        const Result lStarted = hostctl({"start", "--log", log()});
        ASSERT_EQ(0, lStarted.mStatus) << lStarted.mError;
        EXPECT_EQ("hostd is running, process " + std::to_string(pid()) + "\n", lStarted.mOut);
        EXPECT_EQ("", lStarted.mError);
    }
    void stop() const
    {
        const int lPid = pid();
        expect(0, "hostd has ended\n", "", hostctl({"stop"}));
        EXPECT_EQ(cNothing, left());
        EXPECT_TRUE(eventually([=] { return isGone(lPid); }));
    }
    static void expect(int aStatus, const std::string& acrOut, const std::string& acrError, const Result& acrResult)
    {
        EXPECT_EQ(aStatus, acrResult.mStatus);
        EXPECT_EQ(acrOut, acrResult.mOut);
        EXPECT_EQ(acrError, acrResult.mError);
    }
    static void expectEcho(const std::string& acrText)
    {
        expect(0, acrText + "\n", "", hostctl({"ask", "echo", acrText}));
    }
    /// Expects exit status 1, no output, and one error line.
    static void expectFailure(const std::string& acrLine, const Result& acrResult)
    {
        expect(1, "", acrLine + "\n", acrResult);
    }
    static void expectFailure(const std::string& acrLine, const Strings& acrWords)
    {
        expectFailure(acrLine, hostctl(acrWords));
    }
    static bool logs(const std::string& acrText)
    {
        return eventually([&] { return contains(contentOf(log()), acrText); });
    }
    /// Writes bytes into the FIFO without the tool.
    static void writeRaw(const std::string& acrBytes)
    {
        const int lFifo = open(fifo().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_EQ(static_cast<ssize_t>(acrBytes.size()), write(lFifo, acrBytes.data(), acrBytes.size()));
        close(lFifo);
    }

    /// Copies the tool, and puts another program in the place of the daemon.
    static void copyTool(const std::string& acrDaemon)
    {
        writeProgram(path("hostctl"), contentOf(HOSTCTL));
        writeProgram(path("hostd"), acrDaemon);
    }
    /// Creates a program. Returns a preparation for a child, which then finds this program first in PATH.
    std::function<void()> withProgram(const std::string& acrName, const std::string& acrScript) const
    {
        writeProgram(path(acrName), "#!/bin/sh\n" + acrScript);
        return [this] { setenv("PATH", (mDirectory + ":" + getenv("PATH")).c_str(), 1); };
    }

    /// Opens the mailbox as a tool does.
    OQShmDesc openMailbox() const
    {
        OQShmDesc lMailbox = {segmentKey(), cSegmentSize, -1, nullptr};
        OsSharedMemoryOpen(lMailbox, OQCM_Client);
        return lMailbox;
    }
    static std::string receive(OQShmDesc& arMailbox)
    {
        OsSharedMemoryWaitForActivity(arMailbox, 30);
        unsigned char lMessage[cMessageSize];
        unsigned int lLength = 0;
        OsSharedMemoryRead(arMailbox, lMessage, sizeof lMessage, lLength);
        AnswerHeader lHeader;
        memcpy(&lHeader, lMessage, sizeof lHeader);
        return lHeader.mToken + ("|" + std::to_string(lHeader.mSequence) + "|" + std::to_string(lHeader.mKind) + "|") +
               std::string(reinterpret_cast<char*>(lMessage) + sizeof lHeader, lLength - sizeof lHeader);
    }

    std::string mDirectory;
};

/// A test that sends requests to a running daemon.
class Asked : public Hostd
{
protected:
    void SetUp() override
    {
        Hostd::SetUp();
        start();
    }
    void TearDown() override
    {
        stop();
        Hostd::TearDown();
    }
};

TEST_F(Asked, EchoGivesTheText)
{
    for (const char* lpText : {"hello", "two  words ", "", "--trace $(id) '\"\\ \xc3\xa4"}) {
        expectEcho(lpText);
    }
}

TEST_F(Asked, StatusTellsUptimeRequestsAndThreads)
{
    int lUptime[2], lServed[2], lThreads[2];
    for (int lTime = 0; lTime < 2; ++lTime) {
        const std::string lStatus = hostctl({"ask", "status"}).mOut;
        ASSERT_EQ(3, sscanf(lStatus.c_str(), "uptime %d s\nrequests served %d\nthreads %d\n", &lUptime[lTime],
                            &lServed[lTime], &lThreads[lTime]));
        expectEcho("x");
    }
    EXPECT_LE(0, lUptime[0]);
    EXPECT_LE(lUptime[0], lUptime[1]);
    EXPECT_EQ(lServed[0] + 2, lServed[1]);
    EXPECT_LE(2, lThreads[0]);  // the main thread and the worker; a sanitizer may have its own
    EXPECT_GE(3, lThreads[0]);
    EXPECT_EQ(lThreads[0], lThreads[1]);
}

TEST_F(Asked, AnswersAboutTheSystemAreThoseOfTheLayerAndOfItsPrograms)
{
    OQEOperatingSystem lFamily;
    OQCString lName("");
    OsGetOsName(lFamily, lName);
    expect(0, std::string("Linux: ") + lName.get() + "\n", "", hostctl({"ask", "os"}));

    std::ostringstream lText;
    OQCList<unsigned int> lAddresses;
    try {
        OsGetAllIpAddresses(lAddresses);
        for (const unsigned int lAddress : lAddresses) {
            lText << (lAddress >> 24) << "." << (lAddress >> 16 & 255) << "." << (lAddress >> 8 & 255) << "."
                  << (lAddress & 255) << "\n";
        }
        expect(0, lText.str(), "", hostctl({"ask", "addresses"}));
    } catch (const OQCException& acrFailure) {
        expectFailure(std::string("hostctl: hostd answered: ") + acrFailure.what(), {"ask", "addresses"});
    }

    const std::string lDf = resultOf({"df", "-P"}).mOut;  // the heading is in the user's language
    const Result lDisks = hostctl({"ask", "disks"});
    EXPECT_EQ(0, lDisks.mStatus);
    EXPECT_EQ(lDf.substr(0, lDf.find('\n') + 1), lDisks.mOut.substr(0, lDisks.mOut.find('\n') + 1));
    EXPECT_LE(2u, countOf(lDisks.mOut, "\n"));
    EXPECT_TRUE(contains(lDisks.mOut, " /\n")) << lDisks.mOut;

    double lLoads[3];
    int lNumbers[3], lLength = 0;
    const Result lLoad = hostctl({"ask", "load"});
    EXPECT_EQ(0, lLoad.mStatus);
    EXPECT_EQ(6, sscanf(lLoad.mOut.c_str(), "%lf %lf %lf %d/%d %d%n", &lLoads[0], &lLoads[1], &lLoads[2], &lNumbers[0],
                        &lNumbers[1], &lNumbers[2], &lLength))
        << lLoad.mOut;
    EXPECT_EQ("\n", lLoad.mOut.substr(static_cast<size_t>(lLength)));
}

// All programs of the host share the result file, and some may use it without a lock during this test. The test repeats
// a request whose answer such a program has spoiled.
TEST_F(Asked, RunningTellsWhetherAProcessRuns)
{
    const FixedNames lTurn;
    for (const std::string lAnswer : {"hostd is running", "no.such_proc-9 is not running", "hostd is running"}) {
        EXPECT_TRUE(eventually([&] {
            const Result lResult = hostctl({"ask", "running", lAnswer.substr(0, lAnswer.find(' '))});
            return 0 == lResult.mStatus && lAnswer + "\n" == lResult.mOut;
        })) << lAnswer;
    }
    if (0 == geteuid()) {
        std::ofstream("/tmp/.vyrsyscmd") << "4711\n";
        ASSERT_EQ(0, chown("/tmp/.vyrsyscmd", cNobody, cNobody));
        ASSERT_EQ(0, chmod("/tmp/.vyrsyscmd", 0666));
        expectFailure("hostctl: hostd answered: /tmp/.vyrsyscmd belongs to another user", {"ask", "running", "x"});
        EXPECT_EQ("4711\n", contentOf("/tmp/.vyrsyscmd"));
    }
}

TEST_F(Asked, LongAnswersComeWhole)
{
    EXPECT_EQ(4058u, cPayloadSize);
    EXPECT_EQ(0u, lines(11708).size() % cPayloadSize);  // the last message is exactly full
    for (const int lCount : {0, 1, 462, 463, 464, 11707, 11708, 11709, 100000}) {
        const Result lResult = hostctl({"ask", "lines", std::to_string(lCount)});
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("", lResult.mError);
        EXPECT_TRUE(lines(lCount) == lResult.mOut) << lCount << " lines, " << lResult.mOut.size() << " bytes";
    }
}

TEST_F(Asked, TwentyToolsAtOnceAllGetTheirOwnAnswer)
{
    std::vector<std::unique_ptr<Command>> lTools;
    for (int lTool = 0; lTool < 20; ++lTool) {
        lTools.push_back(0 == lTool % 5 ? spawn({"ask", "lines", "2000"})
                                        : spawn({"ask", "echo", "tool " + std::to_string(lTool)}));
    }
    for (size_t lTool = 0; lTool < lTools.size(); ++lTool) {
        expect(0, 0 == lTool % 5 ? lines(2000) : "tool " + std::to_string(lTool) + "\n", "", lTools[lTool]->finish());
    }
}

TEST_F(Asked, TraceShowsTheLayersLinesOnStandardErrorOnly)
{
    const Result lResult = hostctl({"--trace", "ask", "echo", "hi"});
    EXPECT_EQ(0, lResult.mStatus);
    EXPECT_EQ("hi\n", lResult.mOut);
    size_t lAt = 0;
    for (const char* lpCall : {" OsLockFile ", " OsSharedMemoryOpen ", " OQCPipe ", " OsNamedPipeWrite ",
                               " OsNamedPipeClose ", " OsSharedMemoryRead ", " OsSharedMemoryClose "}) {
        lAt = lResult.mError.find(lpCall, lAt);
        EXPECT_NE(std::string::npos, lAt) << lpCall;
    }
    EXPECT_EQ(lResult.mOut, hostctl({"ask", "--trace", "echo", "hi"}).mOut);
}

TEST_F(Asked, AToolThatCannotPrintItsAnswerFailsAndDisturbsNobody)
{
    expectFailure("hostctl: cannot print: No space left on device",
                  hostctl({"ask", "echo", "x"}, outputTo("/dev/full")));
    EXPECT_EQ(1, hostctl({"ask", "lines", "5000"}, outputTo("/dev/full")).mStatus);
    // With closed standard descriptors the tool prints nothing, and must not write its output into the FIFO.
    const auto lClose = [] { close_range(STDIN_FILENO, STDERR_FILENO, 0); };
    EXPECT_EQ(0, hostctl({"--trace", "ask", "echo", "x"}, lClose).mStatus);
    expectEcho("next");
    EXPECT_FALSE(contains(contentOf(log()), "refused"));
}

TEST_F(Asked, ASecondDaemonIsRefused)
{
    const int lPid = pid();
    expectFailure("hostctl: hostd is already running, process " + std::to_string(lPid), {"start"});
    expectFailure("hostd: another hostd of this name is running", hostd());
    EXPECT_EQ(lPid, pid());
    expectEcho("first");
}

TEST_F(Asked, WrongWordsGiveUsageAndStatus2)
{
    const std::string cLong(512, 'x');
    // clang-format off
    const Strings cTool[] = {
        {}, {"bogus"}, {"--bogus", "stop"}, {"start", "now"}, {"start", "--log"}, {"stop", "now"},
        {"stop", "--log", "x"}, {"start", "--detach"}, {"ask"}, {"ask", "weather"}, {"ask", "echo"},
        {"ask", "echo", "two", "words"}, {"ask", "echo", "line\nbreak"}, {"ask", "echo", "\x02"},
        {"ask", "echo", cLong}, {"ask", "status", "now"}, {"ask", "running"}, {"ask", "running", "a;b"},
        {"ask", "running", "-f"}, {"ask", "lines", "many"}, {"ask", "lines", "100001"}, {"--name", "a/b", "stop"},
        {"--name", "", "stop"}};
    // clang-format on
    const Strings cDaemon[] = {{HOSTD, "now"}, {HOSTD, "--bogus"}, {HOSTD, "--name"}};
    const auto lExpectUsage = [](const std::string& acrName, const Result& acrResult) {
        EXPECT_EQ(2, acrResult.mStatus);
        EXPECT_EQ("", acrResult.mOut);
        EXPECT_EQ(0u, acrResult.mError.find(acrName + ": "));
        EXPECT_TRUE(contains(acrResult.mError, "\nusage: " + acrName + " ")) << acrResult.mError;
    };
    for (const Strings& acrWords : cTool) {
        lExpectUsage("hostctl", hostctl(acrWords));
    }
    for (const Strings& acrWords : cDaemon) {
        lExpectUsage("hostd", resultOf(acrWords));
    }
    expectEcho("next");
}

// ---- Trouble --------------------------------------------------------------------------------------------------------

TEST_F(Hostd, OfManyStartsAtOnceOneWins)
{
    std::vector<std::unique_ptr<Command>> lStarts;
    for (int lStart = 0; lStart < 6; ++lStart) {
        lStarts.push_back(spawn({"start"}));
    }
    int lWinners = 0;
    for (const auto& acrStart : lStarts) {
        const Result lResult = acrStart->finish();
        if (0 == lResult.mStatus) {
            ++lWinners;
            EXPECT_EQ("hostd is running, process " + std::to_string(pid()) + "\n", lResult.mOut);
        } else {
            EXPECT_EQ(1, lResult.mStatus);
            EXPECT_EQ(1u, countOf(lResult.mError, "\n")) << lResult.mError;
            EXPECT_TRUE(contains(lResult.mError, "already running") || contains(lResult.mError, "another hostd"));
        }
    }
    EXPECT_EQ(1, lWinners);
    expectEcho("x");
    stop();
}

/// One daemon never becomes ready. The other is stopped by a signal.
TEST_F(Hostd, NoCommandWaitsForADaemonWithoutEnd)
{
    copyTool("#!/bin/sh\necho $$ > " + path("sleepy") + "\nexec sleep 600\n");
    start();
    const int lPid = pid();
    ::kill(lPid, SIGSTOP);

    const Clock lClock;
    Command lSleepyStart({path("hostctl"), "--name", "sleepy", "start"});
    const std::unique_ptr<Command> lAsk = spawn({"ask", "echo", "x"});
    const std::unique_ptr<Command> lStop = spawn({"stop"});
    const std::string lStopped = "hostctl: hostd, process " + std::to_string(lPid);
    expectFailure(lStopped + ", has not answered for 5 seconds; is it stopped?", lAsk->finish());
    EXPECT_LE(4.9, lClock.seconds());
    // The daemon shares the outputs of this tool, so they end only when the daemon has ended.
    expectFailure("hostctl: hostd was not ready after 5 seconds and was ended", lSleepyStart.finish());
    EXPECT_TRUE(isGone(atoi(contentOf(path("sleepy")).c_str())));
    expectFailure(lStopped + ", has not ended after 10 seconds; is it stopped?", lStop->finish());
    EXPECT_LE(9.9, lClock.seconds());
    EXPECT_GE(40, lClock.seconds());

    ::kill(lPid, SIGCONT);  // now it handles the SIGTERM of "stop"
    EXPECT_TRUE(eventually([&] { return left().empty() && isGone(lPid); }));
    start();
    expectEcho("next");
    stop();
    for (const char* lpFile : {"hostctl", "hostd", "sleepy"}) {
        unlink(path(lpFile).c_str());
    }
}

TEST_F(Asked, AFullFifoIsToldAndDrainedLater)
{
    ::kill(pid(), SIGSTOP);
    const int lFifo = open(fifo().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const std::string lJunk(4096, 'j');
    while (0 < write(lFifo, lJunk.data(), lJunk.size())) {
    }
    close(lFifo);
    expectFailure("hostctl: hostd takes no requests: its FIFO is full; is it stopped?", {"ask", "echo", "x"});
    ::kill(pid(), SIGCONT);
    EXPECT_TRUE(logs("request without a token is refused: bytes outside a request"));
    expectEcho("next");
}

TEST_F(Asked, AToolKilledBeforeOrAmidItsAnswerDoesNotDisturbTheNext)
{
    ::kill(pid(), SIGSTOP);
    const std::unique_ptr<Command> lEarly = ask("old");
    lEarly->kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lEarly->finish().mStatus);
    ::kill(pid(), SIGCONT);
    expectEcho("new");
    const std::unique_ptr<Command> lAmid = spawn({"ask", "--trace", "lines", "100000"});
    ASSERT_TRUE(lAmid->readUntil([&] { return 6 <= countOf(lAmid->error(), " OsSharedMemoryRead "); }));
    lAmid->kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lAmid->finish().mStatus);
    const Clock lClock;
    expectEcho("next");
    EXPECT_GE(20, lClock.seconds());
}

TEST_F(Hostd, AKilledDaemonIsMissedAndItsRemainsAreTakenOver)
{
    const auto lExpectNone = [] {
        expectFailure("hostctl: hostd is not running", {"ask", "echo", "x"});
        expectFailure("hostctl: hostd is not running", {"stop"});
    };
    lExpectNone();
    EXPECT_EQ(cNothing, left());
    start();
    expectEcho("x");
    const int lPid = pid();
    ::kill(lPid, SIGSTOP);
    const std::unique_ptr<Command> lAsk = ask("x");
    ::kill(lPid, SIGKILL);
    const Result lResult = lAsk->finish();
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_EQ("", lResult.mOut);
    EXPECT_TRUE(contains(lResult.mError, "hostctl: hostd ended before the answer was whole\n")) << lResult.mError;
    EXPECT_TRUE(eventually([=] { return isGone(lPid); }));
    EXPECT_EQ(all(), left());
    lExpectNone();
    std::ofstream(lock()) << "4711 and a longer text\nin two lines\n";
    start();
    EXPECT_EQ(std::to_string(pid()) + "\n", contentOf(lock()));
    expectEcho("y");
    stop();
    lExpectNone();
}

TEST_F(Asked, RefusedRequestsDisturbNobody)
{
    for (const std::string& acrBytes :
         {std::string("garbage\n"), std::string("\x02half a requ"), framed("tok nonsense"), framed(""),
          framed("tok echo a\tb"), framed("tok echo " + std::string(1000, 'x')), "\x02" + std::string(3000, 'y'),
          std::string(100, '\0'), framed("tok running $(id)"), std::string(100, '\x02')}) {
        writeRaw(acrBytes);
        expectEcho("good");
    }
    for (const char* lpLine :
         {"-E- onRefused (.//hostd:", "request without a token is refused: bytes outside a request",
          "request half is refused: the request breaks off", "request tok is refused: unknown request",
          "request without a token is refused: the token is missing or no token",
          "request tok is refused: control characters are not allowed",
          "request tok is refused: the request is longer than 512 bytes",
          "request without a token is refused: the request is longer than 512 bytes",
          "request tok is refused: a process name is"}) {
        EXPECT_TRUE(logs(lpLine)) << lpLine;
    }
}

TEST_F(Asked, ARefusedRequestWithATokenIsAnswered)
{
    OQShmDesc lMailbox = openMailbox();
    writeRaw(framed("my-1 nonsense"));
    EXPECT_EQ("my-1|0|3|unknown request", receive(lMailbox));
    writeRaw(framed("my-2 echo good") + framed("my-3 echo \x01"));
    EXPECT_EQ("my-2|0|2|good\n", receive(lMailbox));
    EXPECT_EQ("my-3|0|3|control characters are not allowed", receive(lMailbox));
    writeRaw(framed("my-4 lines 600"));
    EXPECT_EQ("my-4|0|1|" + lines(600).substr(0, 4058), receive(lMailbox));
    EXPECT_EQ("my-4|1|2|" + lines(600).substr(4058), receive(lMailbox));
    OsSharedMemoryClose(lMailbox, OQCM_Client);
}

TEST_F(Asked, RequestsBeyondTheQueueAreRefused)
{
    OQShmDesc lMailbox = openMailbox();
    writeRaw(framed("long lines 1000"));
    OsSharedMemoryWaitForActivity(lMailbox, 30);  // now the worker waits for a reader
    std::string lFlood;
    for (int lNumber = 0; lNumber < 60; ++lNumber) {
        lFlood += framed("flood echo " + std::to_string(lNumber));
    }
    writeRaw(lFlood);
    EXPECT_TRUE(logs("request flood is refused: too many requests are waiting"));
    EXPECT_TRUE(logs("request flood is not even told so: too many refusals are waiting"));
    std::string lReceived;
    while (!contains(lReceived, "flood|0|2|0\n") || !contains(lReceived, "flood|0|3|too many requests are waiting")) {
        lReceived += receive(lMailbox);
    }
    OsSharedMemoryClose(lMailbox, OQCM_Client);
    // The queue may still be full of refusals, so the daemon may refuse the first requests that follow.
    EXPECT_TRUE(eventually([&] { return "next\n" == hostctl({"ask", "echo", "next"}).mOut; }));
}

TEST_F(Asked, AnAnswerThatNobodyTakesIsDropped)
{
    writeRaw(framed("early echo x"));
    EXPECT_TRUE(logs("the answer to request early is dropped: no tool takes it"));
    expectEcho("x");  // the mark of the tool's side then stays set
    const Clock lClock;
    writeRaw(framed("gone lines 1000"));
    EXPECT_TRUE(logs("the answer to request gone is dropped: no tool takes it"));
    EXPECT_LE(2.9, lClock.seconds());
    expectEcho("next");
}

TEST_F(Hostd, StopEndsADaemonAmidAnAnswer)
{
    start();
    OQShmDesc lMailbox = openMailbox();
    writeRaw(framed("t lines 100000"));
    receive(lMailbox);
    const int lPid = pid();
    ::kill(lPid, SIGTERM);
    EXPECT_TRUE(logs(" ending\n"));
    // The test continues to read. The daemon must end before it has sent the whole answer.
    int lMessages = 0;
    while (!isGone(lPid)) {
        try {
            OsSharedMemoryWaitForActivity(lMailbox, 0);
            receive(lMailbox);
            ++lMessages;
        } catch (const OQCTimeOutEx&) {
            usleep(5000);
        }
    }
    EXPECT_GE(100, lMessages);
    EXPECT_TRUE(logs("the answer to request t is dropped: the daemon ends\n"));
    EXPECT_EQ(cNothing, left());
    OsSharedMemoryClose(lMailbox, OQCM_Client);
}

TEST_F(Hostd, ADaemonThatCannotBeRunIsToldInOneLine)
{
    const std::string lDaemon = path("hostd");
    copyTool("no program\n");
    const auto lExpect = [&](const std::string& acrLine) {
        const Clock lClock;
        expectFailure("hostctl: " + acrLine, resultOf(named(path("hostctl"), {"start"})));
        EXPECT_GE(4, lClock.seconds()) << "it waited for a daemon that could not be run";
    };
    lExpect("cannot run " + lDaemon + ": Exec format error");
    chmod(lDaemon.c_str(), 0644);
    lExpect("cannot run " + lDaemon + ": Permission denied");
    writeProgram(lDaemon, "#!/bin/sh\nkill -SEGV $$\n");
    lExpect("hostd was ended by signal 11 while it started");
    unlink(lDaemon.c_str());
    lExpect("cannot run " + lDaemon + ": No such file or directory");
    mkdir(lDaemon.c_str(), 0755);
    lExpect("cannot run " + lDaemon + ": Permission denied");
    rmdir(lDaemon.c_str());
    unlink(path("hostctl").c_str());
}

TEST_F(Hostd, AFailedStartSaysWhyAndLeavesNothing)
{
    const auto lExpect = [&](const std::string& acrLine, const Strings& acrLeft) {
        expectFailure(acrLine, {"start"});
        EXPECT_EQ(acrLeft, left());
        std::filesystem::remove(acrLeft[0]);
    };
    std::ofstream(fifo()) << "precious\n";
    expectFailure("hostd: " + fifo() + " exists and is no FIFO", {"start"});
    EXPECT_EQ("precious\n", contentOf(fifo()));
    lExpect("hostd: " + fifo() + " exists and is no FIFO", {fifo()});

    const int lSegment = shmget(segmentKey(), 100, IPC_CREAT | IPC_EXCL | 0600);
    const void* const lpAttached = shmat(lSegment, nullptr, 0);
    lExpect("hostd: cannot open the mailbox: Device or resource busy", {"segment"});
    EXPECT_EQ(0, shmdt(lpAttached));
    start();  // replaces the segment, which nobody uses now
    stop();
    unlink(log().c_str());

    ASSERT_EQ(0, symlink("/tmp/nowhere", fifo().c_str()));
    lExpect("hostd: " + fifo() + " exists and is no FIFO", {fifo()});

    mkdir(turn().c_str(), 0700);
    lExpect("hostd: cannot open " + turn() + ": Is a directory", {turn()});

    mkdir(lock().c_str(), 0700);
    expectFailure("hostd: cannot open " + lock() + ": Is a directory", hostd());
    lExpect("hostctl: " + lock() + " is no regular file", {lock()});

    ASSERT_EQ(0, symlink("/tmp/nowhere", lock().c_str()));  // as an attacker may create it
    lExpect("hostctl: cannot open " + lock() + ": Too many levels of symbolic links", {lock()});

    const std::string lLog = mDirectory + "/missing/log";
    expectFailure("hostd: cannot open " + lLog + ": No such file or directory", {"start", "--log", lLog});
    EXPECT_EQ(cNothing, left());
    ASSERT_EQ(0, mkfifo(log().c_str(), 0600));  // a FIFO without a reader
    expectFailure("hostd: cannot open " + log() + ": No such device or address", {"start", "--log", log()});
    EXPECT_EQ(cNothing, left());
    unlink(log().c_str());
    start();
    stop();
}

TEST_F(Hostd, ASegmentThatCannotBeLockedIsRemoved)
{
    const auto lForbidLocking = [] {
        const rlimit lNone = {0, 0};
        setrlimit(RLIMIT_MEMLOCK, &lNone);
        prctl(PR_CAPBSET_DROP, CAP_IPC_LOCK, 0, 0, 0);  // with this capability, root has no limit
    };
    expectFailure("hostd: cannot open the mailbox: Operation not permitted", hostd(lForbidLocking));
    EXPECT_EQ(cNothing, left());
}

TEST_F(Hostd, SignalsEndADaemonInOrder)
{
    for (const int lSignal : {SIGTERM, SIGINT}) {
        const auto lDaemon = foreground();
        EXPECT_EQ(all(), left());
        EXPECT_EQ(std::to_string(lDaemon->pid()) + "\n", contentOf(lock()));
        expectEcho("x");
        const std::string lLog = endOf(lDaemon, lSignal).mError;
        EXPECT_TRUE(contains(lLog, " ready\n") && contains(lLog, " ending\n") && !contains(lLog, "-E-")) << lLog;
    }
}

// ---- Other users, cleaners, stalled readers and full disks ---------------------------------------------------------

TEST_F(Hostd, TheHolderOfTheLockIsNamedWhateverIsInTheFile)
{
    const Command lVictim({"sleep", "600"});
    std::ofstream(lock()) << lVictim.pid() << "\n";
    const int lFile = open(lock().c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(0, lockf(lFile, F_TLOCK, 0));  // any process of the user can hold this lock
    const std::string lHolder = "process " + std::to_string(getpid());
    expectFailure("hostctl: hostd is already running, " + lHolder, {"start"});
    expectFailure("hostctl: hostd, " + lHolder + ", is starting; try again", {"ask", "echo", "x"});
    ASSERT_EQ(0, ftruncate(lFile, 1L << 30));
    expectFailure("hostctl: hostd, " + lHolder + ", is starting; try again", {"stop"});
    EXPECT_FALSE(isGone(lVictim.pid()));
    rusage lUsage;
    ASSERT_EQ(0, getrusage(RUSAGE_CHILDREN, &lUsage));
    EXPECT_GE(500L << 10, lUsage.ru_maxrss) << "KiB: the file is read whole";
    close(lFile);
    unlink(lock().c_str());
}

TEST_F(Hostd, ALockOrTurnFileOfAnotherKindIsRefusedAtOnce)
{
    const Strings cCommands[] = {{"start"}, {"ask", "echo", "x"}, {"stop"}};
    std::ofstream(log()) << "precious\n";
    const auto lExpect = [&](const std::string& acrLine) {
        for (const Strings& acrWords : cCommands) {
            const Clock lClock;
            expectFailure("hostctl: " + acrLine, acrWords);
            EXPECT_GE(20, lClock.seconds());
        }
        unlink(lock().c_str());
    };
    ASSERT_EQ(0, mkfifo(lock().c_str(), 0600));
    lExpect(lock() + " is no regular file");
    ASSERT_EQ(0, symlink(log().c_str(), lock().c_str()));
    lExpect("cannot open " + lock() + ": Too many levels of symbolic links");
    ASSERT_EQ(0, link(log().c_str(), lock().c_str()));
    lExpect(lock() + " has a second name");
    EXPECT_EQ("precious\n", contentOf(log()));
    unlink(log().c_str());
    if (0 == geteuid()) {
        std::ofstream(lock()) << "4711\n";
        ASSERT_EQ(0, chown(lock().c_str(), cNobody, cNobody));
        lExpect(lock() + " belongs to another user");
    }
    start();
    unlink(turn().c_str());
    ASSERT_EQ(0, mkfifo(turn().c_str(), 0600));
    expectFailure("hostctl: " + turn() + " is no regular file", {"ask", "echo", "x"});
    stop();
}

TEST_F(Hostd, ADirectoryThatOthersMayEnterIsRefused)
{
    const std::string lDirectory = path("shared");
    ASSERT_EQ(0, mkdir(lDirectory.c_str(), 0700));
    ASSERT_EQ(0, chmod(lDirectory.c_str(), 0755));  // independent of the umask
    const auto lExpect = [&](const std::string& acrLine) {
        const auto lPrepare = [&] { setenv("XDG_RUNTIME_DIR", lDirectory.c_str(), 1); };
        expectFailure("hostctl: " + acrLine, hostctl({"stop"}, lPrepare));
        expectFailure("hostd: " + acrLine, hostd(lPrepare));
    };
    const std::string lRefusal = "the directory " + lDirectory + " must belong to this user and have mode 0700";
    lExpect(lRefusal);
    if (0 == geteuid()) {
        ASSERT_EQ(0, chmod(lDirectory.c_str(), 0700));
        ASSERT_EQ(0, chown(lDirectory.c_str(), cNobody, cNobody));
        lExpect(lRefusal);
    }
    rmdir(lDirectory.c_str());
    lExpect("cannot open the directory " + lDirectory + ": No such file or directory");
    ASSERT_EQ(0, symlink(mDirectory.c_str(), lDirectory.c_str()));
    lExpect("cannot open the directory " + lDirectory + ": Not a directory");
    unlink(lDirectory.c_str());
}

TEST_F(Hostd, WithoutARuntimeDirectoryEachUserHasOneBelowTmp)
{
    const FixedNames lTurn;  // this directory also has a fixed name
    const std::string lDirectory = "/tmp/hostd-" + std::to_string(geteuid());
    const auto lForget = [] { unsetenv("XDG_RUNTIME_DIR"); };
    const auto lMakeRelative = [] { setenv("XDG_RUNTIME_DIR", "tmp", 1); };
    EXPECT_EQ(0, hostctl({"start"}, lForget).mStatus);
    struct stat lInfo = {};
    ASSERT_EQ(0, lstat(lDirectory.c_str(), &lInfo));
    EXPECT_EQ(S_IFDIR | 0700u, lInfo.st_mode);
    EXPECT_EQ(geteuid(), lInfo.st_uid);
    EXPECT_TRUE(exists(lDirectory + "/" + cName + ".lock"));
    EXPECT_EQ("x\n", hostctl({"ask", "echo", "x"}, lMakeRelative).mOut);
    EXPECT_EQ(0, hostctl({"stop"}, lForget).mStatus);
    rmdir(lDirectory.c_str());  // fails if the directory contains files of another daemon of this user
}

TEST_F(Hostd, AMailboxOfAnotherUserIsRefused)
{
    if (0 != geteuid()) {
        GTEST_SKIP() << "only root can make another user's segment";
    }
    const auto lMakeForeign = [&] {
        EXPECT_EQ(0, inChild([&] {
                      ASSERT_EQ(0, setresuid(cNobody, cNobody, 0));
                      const int lSegment = shmget(segmentKey(), cSegmentSize, IPC_CREAT | IPC_EXCL | 0666);
                      shmid_ds lState;
                      ASSERT_EQ(0, shmctl(lSegment, IPC_STAT, &lState));
                      lState.shm_perm.uid = 0;  // the creator of a segment can give it to another user
                      ASSERT_EQ(0, shmctl(lSegment, IPC_SET, &lState));
                  }));
    };
    lMakeForeign();
    expectFailure("hostd: another user has made a segment with the mailbox's key; choose another name", {"start"});
    EXPECT_EQ(Strings{"segment"}, left());
    removeSegment();

    start();
    removeSegment();
    lMakeForeign();
    expectFailure("hostctl: the mailbox belongs to another user", {"ask", "echo", "x"});
    EXPECT_EQ(0, hostctl({"stop"}).mStatus);
    EXPECT_TRUE(eventually([&] { return Strings{"segment"} == left(); }));
    removeSegment();
}

TEST_F(Hostd, ProgramsOfADaemonIgnoreNoSignalAndTheirFailureIsToldAsAnError)
{
    const FixedNames lTurn;
    withProgram("df", "grep SigIgn /proc/self/status\n");
    const auto lFindPrograms = withProgram("pgrep", "exit 3\n");
    const auto lDaemon = foreground({}, [&] {
        lFindPrograms();
        signal(SIGPIPE, SIG_DFL);  // independent of the settings that this program inherited
        signal(SIGXFSZ, SIG_DFL);
    });
    expectFailure("hostctl: hostd answered: pgrep cannot be run, or cannot write /tmp/.vyrsyscmd",
                  {"ask", "running", "hostd"});
    const Result lResult = hostctl({"ask", "disks"});
    unsigned long long lIgnored = ~0ULL;  // 64 signals
    EXPECT_EQ(1, sscanf(lResult.mOut.c_str(), "SigIgn: %llx", &lIgnored)) << lResult.mOut << lResult.mError;
    EXPECT_EQ(0u, lIgnored & (1ULL << (SIGPIPE - 1) | 1ULL << (SIGXFSZ - 1)));
    unlink(path("df").c_str());
    unlink(path("pgrep").c_str());
    endOf(lDaemon);
}

TEST_F(Hostd, RunningIsAnErrorWhenTheDiskIsFull)
{
    const FixedNames lTurn;
    std::ofstream("/tmp/.vyrsyscmd").flush();
    const std::string lDisk = path("disk");
    ASSERT_EQ(0, mkdir(lDisk.c_str(), 0700));
    // The result file of this daemon is on a full disk.
    const auto lFillDisk = [&] {
        const std::string lFile = lDisk + "/result";
        const std::string lPage(4096, 'x');
        if (unshare(CLONE_NEWNS) < 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ||
            mount("none", lDisk.c_str(), "tmpfs", 0, "size=4096") < 0 ||
            !(std::ofstream(lDisk + "/all") << lPage).flush() || (std::ofstream(lFile) << "x").flush() ||
            mount(lFile.c_str(), "/tmp/.vyrsyscmd", nullptr, MS_BIND, nullptr) < 0) {
            _exit(77);
        }
    };
    const auto lDaemon = foreground({}, lFillDisk);
    rmdir(lDisk.c_str());
    if (lDaemon->pid() != pid()) {
        EXPECT_EQ(77, lDaemon->finish().mStatus);
        GTEST_SKIP() << "no right to mount a disk";
    }
    for (const char* lpName : {"hostd", "no.such_proc-9"}) {
        expectFailure("hostctl: hostd answered: pgrep cannot be run, or cannot write /tmp/.vyrsyscmd",
                      {"ask", "running", lpName});
    }
    endOf(lDaemon);
}

TEST_F(Hostd, ADaemonWhoseFilesAreGoneSparesThoseOfItsSuccessor)
{
    const auto lFirst = foreground();
    lFirst->kill(SIGSTOP);
    EXPECT_EQ(0, unlink(lock().c_str()));
    expectFailure("hostd: cannot open the mailbox: Device or resource busy", {"start"});
    EXPECT_EQ(Strings{"segment"}, left());
    {
        // The files of a second daemon that waits for the mailbox.
        const LockedFile lSecond = lockOwnFile(lock().c_str(), O_RDWR | O_CREAT, std::chrono::seconds(0), "locked");
        EXPECT_EQ(0, mkfifo(fifo().c_str(), 0600));
        std::ofstream(turn()).flush();
        lFirst->kill(SIGCONT);
        const Result lResult = lFirst->finish();
        EXPECT_EQ(1, lResult.mStatus);
        EXPECT_TRUE(
            contains(lResult.mError, " the lock file or the FIFO has been removed: no tool can find this daemon\n"))
            << lResult.mError;
        EXPECT_EQ((Strings{lock(), fifo(), turn()}), left());
    }
    start();
    expectEcho("second");
    stop();
}

TEST_F(Hostd, ADaemonStartsOnlyWhenTheToolsOfAKilledDaemonHaveEnded)
{
    start();
    const int lPid = pid();
    ::kill(lPid, SIGSTOP);
    const std::unique_ptr<Command> lAsk = ask("x");
    lAsk->kill(SIGSTOP);
    ::kill(lPid, SIGKILL);
    EXPECT_TRUE(eventually([=] { return isGone(lPid); }));
    expectFailure("hostd: a tool of an ended hostd is still running; is it stopped?", {"start"});
    lAsk->kill(SIGCONT);
    EXPECT_EQ(1, lAsk->finish().mStatus);
    start();
    expectEcho("y");
    stop();
}

TEST_F(Hostd, ADaemonWhoseFilesAreGoneLeavesNothingWhenItHasNoSuccessor)
{
    for (const std::string& acrPath : {lock(), fifo()}) {
        const auto lDaemon = foreground();
        EXPECT_EQ(0, unlink(acrPath.c_str()));
        EXPECT_EQ(1, lDaemon->finish().mStatus);
        EXPECT_EQ(cNothing, left());
    }
}

TEST_F(Hostd, ADaemonWhoseDirectoryIsGoneLeavesNothing)
{
    const std::string lDirectory = path("runtime");
    ASSERT_EQ(0, mkdir(lDirectory.c_str(), 0700));
    Command lDaemon(named(HOSTD, {}), [&] { setenv("XDG_RUNTIME_DIR", lDirectory.c_str(), 1); });
    ASSERT_TRUE(lDaemon.readUntil([&] { return contains(lDaemon.error(), " ready\n"); }));
    const key_t lKey = Channel(lDirectory, cName).mKey;
    EXPECT_LE(0, shmget(lKey, 0, 0));
    std::filesystem::remove_all(lDirectory);
    EXPECT_EQ(1, lDaemon.finish().mStatus);
    EXPECT_GT(0, shmget(lKey, 0, 0));
}

TEST_F(Hostd, AStalledReaderOfTheLogDoesNotKeepADaemonFromEnding)
{
    for (const bool lIsSocket : {false, true}) {
        int lSockets[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lSockets));
        const auto lFindProgram = withProgram("df", "head -c 500000 /dev/zero >&2\necho done\n");
        const auto lDaemon = foreground({"--trace"}, [&] {
            lFindProgram();
            const int lSmall = 4608;
            setsockopt(lSockets[0], SOL_SOCKET, SO_SNDBUF, &lSmall, sizeof lSmall);
            lIsSocket ? dup2(lSockets[0], STDERR_FILENO) : fcntl(STDERR_FILENO, F_SETPIPE_SZ, 4096);
        });
        std::string lRequests;
        for (int lRequest = 0; lRequest < 200; ++lRequest) {
            lRequests += framed("t echo x");
        }
        writeRaw(lRequests);
        EXPECT_TRUE(eventually([&] { return "done\n" == hostctl({"ask", "disks"}).mOut; }));
        lDaemon->kill(SIGTERM);
        ASSERT_TRUE(eventually([&] { return isGone(lDaemon->pid()); })) << (lIsSocket ? "socket" : "pipe");
        EXPECT_EQ(0, lDaemon->finish().mStatus);
        EXPECT_EQ(cNothing, left());
        unlink(path("df").c_str());
        close(lSockets[0]);
        close(lSockets[1]);
    }
}

TEST_F(Hostd, AFloodIsLoggedInFewLines)
{
    start();
    // Garbage, refused requests with a token, and valid requests whose answers no tool reads.
    for (const std::string& acrKind : {std::string("x") + framed(""), framed("t nonsense"), framed("t echo x")}) {
        std::string lFlood;
        while (lFlood.size() < 20000) {
            lFlood += acrKind;
        }
        writeRaw(lFlood);
    }
    EXPECT_TRUE(logs("30 errors within a minute: no further line of this minute is logged\n"));
    EXPECT_TRUE(eventually([&] { return "next\n" == hostctl({"ask", "echo", "next"}).mOut; }));
    stop();
    EXPECT_TRUE(logs(" ending\n"));
    EXPECT_GE(100u, countOf(contentOf(log()), "\n"));
}

TEST_F(Hostd, ALogThatTakesNoMoreDoesNotEndADaemon)
{
    const rlimit lSmall = {1000, 1000};
    const auto lLimited = foreground({"--trace", "--log", log()}, [&] { setrlimit(RLIMIT_FSIZE, &lSmall); });
    for (const char* lpText : {"a", "b", "c"}) {
        expectEcho(lpText);
    }
    EXPECT_EQ(lSmall.rlim_cur, contentOf(log()).size()) << "the limit is reached";
    endOf(lLimited);

    const auto lTraced = foreground({"--trace"});
    lTraced->closeOutputs();  // the reader of its log closes the pipe
    expectEcho("x");
    expectEcho("y");
    endOf(lTraced);
}

TEST(Hostctl, HelpIsPrintedOnStandardOutput)
{
    const Strings cRows[] = {
        {HOSTCTL, "--help"}, {HOSTCTL, "ask", "--help"}, {HOSTCTL, "stop", "--trace", "--help"}, {HOSTD, "--help"}};
    for (const Strings& acrWords : cRows) {
        const Result lResult = resultOf(acrWords);
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("usage: host", lResult.mOut.substr(0, 11));
        EXPECT_EQ("", lResult.mError);
        const Result lFull = resultOf(acrWords, outputTo("/dev/full"));
        EXPECT_EQ(1, lFull.mStatus);
        EXPECT_TRUE(contains(lFull.mError, ": cannot print: No space left on device\n")) << lFull.mError;
    }
}

}  // namespace
