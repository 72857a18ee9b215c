// hostd and hostctl tried as a new user would try them, through real processes, and what they keep to themselves, as
// part of this program.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>

#include "Channel.cpp"
#include "LockedFile.cpp"
#include "OQCompanionSettings.h"
#include "Ownership.cpp"
#include "RequestParser.cpp"
#include "RequestQueue.cpp"

/// Runs once, after the next file was opened by the parts under test.
static std::function<void()> gAfterOpen;

/// The parts under test are part of this program, which has its own of this function.
int ClibOpen(const char* acPath, int aFlags, int aMode)
{
    const int lDescriptor = open(acPath, aFlags, aMode);
    std::function<void()> lAfterOpen;
    lAfterOpen.swap(gAfterOpen);
    if (lAfterOpen) {
        lAfterOpen();
    }
    return lDescriptor;
}

namespace
{

typedef std::vector<std::string> Strings;
typedef std::chrono::steady_clock Clock;

double secondsSince(Clock::time_point aStart) { return std::chrono::duration<double>(Clock::now() - aStart).count(); }

bool eventually(const std::function<bool()>& acrCondition)
{
    const Clock::time_point lStart = Clock::now();
    while (!acrCondition()) {
        if (30 < secondsSince(lStart)) {
            return false;
        }
        usleep(2000);
    }
    return true;
}

bool exists(const std::string& acrPath)
{
    struct stat lInfo;
    return 0 == lstat(acrPath.c_str(), &lInfo);
}

std::string contentOf(const std::string& acrPath)
{
    std::ostringstream lText;
    lText << std::ifstream(acrPath).rdbuf();  // nothing, when the file is a process's that ends meanwhile
    return lText.str();
}

bool contains(const std::string& acrText, const std::string& acrPart)
{
    return std::string::npos != acrText.find(acrPart);
}

size_t countOf(const std::string& acrText, const std::string& acrPart)
{
    size_t lCount = 0;
    for (size_t lAt = acrText.find(acrPart); std::string::npos != lAt; lAt = acrText.find(acrPart, lAt + 1)) {
        ++lCount;
    }
    return lCount;
}

/// Whether a process has ended; one that nobody has collected yet has, when no other thread of it still runs.
bool isGone(int aPid)
{
    const std::string lProcess = "/proc/" + std::to_string(aPid);
    const std::string lStat = contentOf(lProcess + "/stat");
    std::error_code lEnded;
    return lStat.empty() || (contains(lStat, ") Z ") &&
                             std::distance(std::filesystem::directory_iterator(lProcess + "/task", lEnded), {}) <= 1);
}

struct Result {
    int mStatus;  ///< exit status, or minus the signal
    std::string mOut;
    std::string mError;
};

/// A program with its two outputs captured.
class Process
{
public:
    explicit Process(
        const Strings& acrWords, const char* acOutput = NULL, const std::function<void()>& acrPrepare = [] {})
    {
        int lOut[2];
        int lError[2];
        if (pipe2(lOut, O_CLOEXEC) < 0 || pipe2(lError, O_CLOEXEC) < 0) {
            abort();
        }
        std::vector<char*> lArguments;
        for (const std::string& acrWord : acrWords) {
            lArguments.push_back(const_cast<char*>(acrWord.c_str()));
        }
        lArguments.push_back(NULL);
        mPid = fork();
        if (0 == mPid) {
            dup2(NULL == acOutput ? lOut[1] : open(acOutput, O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            dup2(lError[1], STDERR_FILENO);
            acrPrepare();
            execv(lArguments[0], lArguments.data());
            _exit(126);
        }
        close(lOut[1]);
        close(lError[1]);
        mEnds[0] = {lOut[0], POLLIN, 0};
        mEnds[1] = {lError[0], POLLIN, 0};
    }
    ~Process()
    {
        if (0 < mPid) {
            ::kill(mPid, SIGKILL);
            waitpid(mPid, NULL, 0);
        }
        closeEnd(0);
        closeEnd(1);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    int pid() const { return mPid; }
    void kill(int aSignal) const { ::kill(mPid, aSignal); }
    const std::string& error() const { return mText[1]; }
    void abandonOutput()
    {
        closeEnd(0);
        closeEnd(1);
    }

    /// Reads the outputs until a condition holds or both have been closed. \return whether it holds
    bool readUntil(const std::function<bool()>& acrCondition)
    {
        const Clock::time_point lStart = Clock::now();
        while (!acrCondition() && (0 <= mEnds[0].fd || 0 <= mEnds[1].fd)) {
            if (60 < secondsSince(lStart)) {
                ADD_FAILURE() << "an output stays open";
                return false;
            }
            pollfd lEnds[] = {mEnds[0], mEnds[1]};
            if (poll(lEnds, 2, 100) <= 0) {
                continue;
            }
            for (int lIndex = 0; lIndex < 2; ++lIndex) {
                if (0 != lEnds[lIndex].revents) {
                    char lBytes[65536];
                    const ssize_t lRead = read(lEnds[lIndex].fd, lBytes, sizeof lBytes);
                    if (lRead <= 0) {
                        closeEnd(lIndex);
                    } else {
                        mText[lIndex].append(lBytes, static_cast<size_t>(lRead));
                    }
                }
            }
        }
        return acrCondition();
    }

    /// Waits for the end of the program without reading its outputs. \return whether it came, and with this status
    bool endsUnread(int aStatus)
    {
        int lStatus = -1;
        if (!eventually([&] { return mPid == waitpid(mPid, &lStatus, WNOHANG); })) {
            return false;
        }
        mPid = -1;
        return WIFEXITED(lStatus) && aStatus == WEXITSTATUS(lStatus);
    }

    /// Waits for the end of both outputs, then of the program.
    Result finish()
    {
        readUntil([] { return false; });
        int lStatus = 0;
        waitpid(mPid, &lStatus, 0);
        mPid = -1;
        return Result{WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus), mText[0], mText[1]};
    }

private:
    void closeEnd(int aIndex)
    {
        if (0 <= mEnds[aIndex].fd) {
            close(mEnds[aIndex].fd);
        }
        mEnds[aIndex].fd = -1;
    }

    pid_t mPid;
    pollfd mEnds[2];
    std::string mText[2];
};

/// The private directory of this program's daemons and tools. Tests of several programs run at once, and each has its
/// own.
class RuntimeDirectory : public testing::Environment
{
public:
    void SetUp() override
    {
        char lDirectory[] = "/tmp/hostdtest.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(lDirectory));
        sPath = lDirectory;
        setenv("XDG_RUNTIME_DIR", lDirectory, 1);
    }
    void TearDown() override { EXPECT_EQ(0, rmdir(sPath.c_str())); }

    static std::string sPath;
};

std::string RuntimeDirectory::sPath;
testing::Environment* const gRuntimeDirectory = testing::AddGlobalTestEnvironment(new RuntimeDirectory);

/// One daemon's world: its name, its files, its tool.
class Host
{
public:
    Host()
    {
        static int sNumber = 0;
        mName = "hostdtest-" + std::to_string(getpid()) + "-" + std::to_string(++sNumber);
        char lDirectory[] = "/tmp/hostdtest.XXXXXX";
        mDirectory = NULL == mkdtemp(lDirectory) ? "" : lDirectory;
    }
    ~Host()
    {
        if (0 < pid() && !left().empty()) {
            ::kill(pid(), SIGKILL);
        }
        EXPECT_EQ(Strings{}, left());
        for (const std::string& acrLeft : {lock(), fifo(), turn(), log()}) {
            unlink(acrLeft.c_str());
        }
        const int lSegment = shmget(key(), 0, 0);
        if (0 <= lSegment) {
            shmctl(lSegment, IPC_RMID, NULL);
        }
        EXPECT_EQ(0, rmdir(mDirectory.c_str()));
    }

    std::string name() const { return mName; }
    std::string directory() const { return mDirectory; }
    std::string lock() const { return RuntimeDirectory::sPath + "/" + mName + ".lock"; }
    std::string fifo() const { return RuntimeDirectory::sPath + "/" + mName + ".fifo"; }
    std::string turn() const { return RuntimeDirectory::sPath + "/" + mName + ".ask"; }
    std::string log() const { return mDirectory + "/log"; }
    key_t key() const { return Channel(RuntimeDirectory::sPath, mName).mKey; }

    /// What is in the system under this name.
    Strings left() const
    {
        Strings lLeft;
        for (const std::string& acrPath : {lock(), fifo(), turn()}) {
            if (exists(acrPath)) {
                lLeft.push_back(acrPath);
            }
        }
        if (0 <= shmget(key(), 0, 0)) {
            lLeft.push_back("segment");
        }
        return lLeft;
    }

    int pid() const { return atoi(contentOf(lock()).c_str()); }

    Strings words(const Strings& acrWords) const
    {
        Strings lWords = {HOSTCTL, "--name", mName};
        lWords.insert(lWords.end(), acrWords.begin(), acrWords.end());
        return lWords;
    }
    Result hostctl(const Strings& acrWords) const { return Process(words(acrWords)).finish(); }
    std::unique_ptr<Process> spawn(const Strings& acrWords) const
    {
        return std::unique_ptr<Process>(new Process(words(acrWords)));
    }

    void start() const
    {
        const Result lStarted = hostctl({"start", "--log", log()});
        ASSERT_EQ(0, lStarted.mStatus) << lStarted.mError;
        EXPECT_EQ("hostd is running, process " + std::to_string(pid()) + "\n", lStarted.mOut);
        EXPECT_EQ("", lStarted.mError);
    }
    void stop() const
    {
        const int lPid = pid();
        const Result lStopped = hostctl({"stop"});
        EXPECT_EQ(0, lStopped.mStatus);
        EXPECT_EQ("hostd has ended\n", lStopped.mOut);
        EXPECT_EQ("", lStopped.mError);
        EXPECT_EQ(Strings{}, left());
        EXPECT_TRUE(eventually([=] { return isGone(lPid); }));
    }
    void expectAnswer(const std::string& acrAnswer, const Strings& acrWords) const
    {
        const Result lResult = hostctl(acrWords);
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ(acrAnswer, lResult.mOut);
        EXPECT_EQ("", lResult.mError);
    }
    /// One line, no output, exit status 1.
    void expectFailure(const std::string& acrLine, const Strings& acrWords) const
    {
        expectFailed(acrLine, hostctl(acrWords));
    }
    static void expectFailed(const std::string& acrLine, const Result& acrResult)
    {
        EXPECT_EQ(1, acrResult.mStatus);
        EXPECT_EQ("", acrResult.mOut);
        EXPECT_EQ(acrLine + "\n", acrResult.mError);
    }
    bool logs(const std::string& acrText) const
    {
        return eventually([&] { return contains(contentOf(log()), acrText); });
    }
    /// Writes bytes into the FIFO past the tool. \return bytes that went in
    ssize_t writeRaw(const std::string& acrBytes) const
    {
        const int lFifo = open(fifo().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_LE(0, lFifo);
        const ssize_t lWritten = write(lFifo, acrBytes.data(), acrBytes.size());
        close(lFifo);
        return lWritten;
    }

private:
    std::string mName;
    std::string mDirectory;
};

std::string lines(int aCount)
{
    std::ostringstream lText;
    for (int lLine = 1; lLine <= aCount; ++lLine) {
        lText << "line " << lLine << "\n";
    }
    return lText.str();
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

std::string framed(const std::string& acrText) { return "\x02" + acrText + "\n"; }

TEST(RequestParser, FindsWholeRequests)
{
    EXPECT_EQ((Strings{"1-a|status|", "B2|echo|two words", "c|echo| x ", "d|echo|", "e|running|sshd", "f|lines|100000",
                       "g|echo|\xc3\xa4"}),
              parsed(framed("1-a status") + framed("B2 echo two words") + framed("c echo  x ") + framed("d echo") +
                     framed("e running sshd") + framed("f lines 100000") + framed("g echo \xc3\xa4")));
}

TEST(RequestParser, FindsTheSameInPiecesOfAnySize)
{
    const std::string lBytes = framed("a echo one") + "stray\n" + framed("b nonsense") +
                               "\x02"
                               "c echo cut" +
                               framed("d echo " + std::string(600, 'x')) + framed("e status");
    const Strings cExpected = {"a|echo|one",
                               "!|bytes outside a request",
                               "!b|unknown request",
                               "!c|the request breaks off",
                               "!d|the request is longer than 512 bytes",
                               "e|status|"};
    for (size_t lPiece = 1; lPiece <= lBytes.size(); ++lPiece) {
        EXPECT_EQ(cExpected, parsed(lBytes, lPiece)) << lPiece;
    }
}

TEST(RequestParser, ARequestThatBreaksOffAnywhereSpoilsOnlyItself)
{
    const std::string lWhole = framed("tok echo text");
    for (size_t lLength = 1; lLength < lWhole.size(); ++lLength) {
        // The token is believed once the blank behind it has come.
        const std::string lToken = lLength < 5 ? "" : "tok";
        EXPECT_EQ((Strings{"!" + lToken + "|the request breaks off", "next|status|"}),
                  parsed(lWhole.substr(0, lLength) + framed("next status")))
            << lLength;
    }
}

TEST(RequestParser, TakesARequestOf512BytesAndRefusesALongerOne)
{
    const std::string lFits = framed("t echo " + std::string(503, 'x'));
    ASSERT_EQ(512u, lFits.size());
    EXPECT_EQ((Strings{"t|echo|" + std::string(503, 'x')}), parsed(lFits));
    EXPECT_EQ((Strings{"!t|the request is longer than 512 bytes", "u|status|"}),
              parsed(framed("t echo " + std::string(504, 'x')) + framed("u status")));
}

TEST(RequestParser, DiscardsATooLongRequestUpToTheNextStart)
{
    EXPECT_EQ((Strings{"!t|the request is longer than 512 bytes", "u|status|"}),
              parsed("\x02t echo " + std::string(5000, 'x') + "\nv status\nw status\n" + framed("u status")));
    EXPECT_EQ((Strings{"!|the request is longer than 512 bytes", "u|status|"}),
              parsed("\x02" + std::string(5000, 'x') + "\n" + framed("u status")));
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

TEST(RequestParser, RefusesWhatBreaksTheForm)
{
    const std::string lNoToken = "!|the token is missing or no token";
    const std::string lUnknown = "!t|unknown request";
    const std::string lLines = "!t|the number of lines is 0 to 100000";
    const std::string lName = "!t|a process name is 1 to 15 of A-Z a-z 0-9 . _ - and starts with a letter or a digit";
    const std::pair<std::string, std::string> cRows[] = {
        {"", lNoToken},
        {" status", lNoToken},
        {"t_ status", lNoToken},
        {"t/ status", lNoToken},
        {std::string(24, 't') + " status", lNoToken},
        {std::string(23, 't') + " status", std::string(23, 't') + "|status|"},
        {"t", lUnknown},
        {"t ", lUnknown},
        {"t  status", lUnknown},
        {"t Status", lUnknown},
        {"t statusx", lUnknown},
        {"t status x", "!t|this request takes no argument"},
        {"t lines", lLines},
        {"t lines 100001", lLines},
        {"t lines 0000001", lLines},
        {"t lines -1", lLines},
        {"t lines 1 ", lLines},
        {"t lines 0", "t|lines|0"},
        {"t running", lName},
        {"t running -x", lName},
        {"t running .x", lName},
        {"t running a;b", lName},
        {"t running a b", lName},
        {"t running $(x)", lName},
        {"t running abcdefghijklmnop", lName},
        {"t running abcdefghijklmno", "t|running|abcdefghijklmno"},
        {"t running a.B_9-", "t|running|a.B_9-"},
    };
    for (const auto& acrRow : cRows) {
        EXPECT_EQ((Strings{acrRow.second, "u|status|"}), parsed(framed(acrRow.first) + framed("u status")))
            << acrRow.first;
    }
}

TEST(RequestParser, ReportsEachRunOfStrayBytesOnce)
{
    EXPECT_EQ((Strings{"!|bytes outside a request", "a|status|", "!|bytes outside a request", "b|status|"}),
              parsed("x\n\ny" + framed("a status") + "\n\n" + framed("b status")));
}

TEST(RequestParser, FindsEveryWholeRequestAmongRandomBytes)
{
    std::minstd_rand lRandom(20260301);
    for (int lRound = 0; lRound < 2000; ++lRound) {
        std::string lBytes;
        Strings lExpected;
        for (int lRequest = 0; lRequest < 3; ++lRequest) {
            for (unsigned long lCount = lRandom() % 700; 0 != lCount; --lCount) {
                // Start and end bytes are made frequent.
                const unsigned long lByte = lRandom() % 300;
                lBytes += lByte < 256 ? static_cast<char>(lByte) : lByte < 280 ? cRequestStart : cRequestEnd;
            }
            const std::string lToken = "good-" + std::to_string(lRequest);
            lBytes += framed(lToken + " echo it");
            lExpected.push_back(lToken + "|echo|it");
        }
        Strings lGood;
        for (const std::string& acrFound : parsed(lBytes, 1 + lRandom() % 100)) {
            if (0 == acrFound.compare(0, 5, "good-")) {
                lGood.push_back(acrFound);
            }
        }
        ASSERT_EQ(lExpected, lGood) << lRound;
    }
}

// ---- The queue and the names ----------------------------------------------------------------------------------------

TEST(RequestQueue, IsBoundedAndKeepsRoomForRefusals)
{
    RequestQueue lQueue;
    const auto lJob = [](int aNumber, const char* acRefusal) {
        return Job{Request{std::to_string(aNumber), "echo", ""}, acRefusal};
    };
    for (int lNumber = 0; lNumber < 16; ++lNumber) {
        EXPECT_TRUE(lQueue.put(lJob(lNumber, "")));
    }
    EXPECT_FALSE(lQueue.put(lJob(99, "")));
    for (int lNumber = 16; lNumber < 32; ++lNumber) {
        EXPECT_TRUE(lQueue.put(lJob(lNumber, "refused")));
    }
    EXPECT_FALSE(lQueue.put(lJob(99, "refused")));
    Job lTaken;
    for (int lNumber = 0; lNumber < 32; ++lNumber) {
        ASSERT_TRUE(lQueue.take(lTaken));
        EXPECT_EQ(std::to_string(lNumber), lTaken.mRequest.mToken);
    }
}

TEST(RequestQueue, OnceClosedLetsTheTakerEnd)
{
    RequestQueue lQueue;
    unsigned long lTaker = 0;
    OsStartThread(lTaker, &lQueue, [](void* apQueue) -> void* {
        Job lJob;
        while (static_cast<RequestQueue*>(apQueue)->take(lJob)) {
        }
        return NULL;
    });
    EXPECT_TRUE(lQueue.put(Job{Request{"t", "echo", ""}, ""}));
    EXPECT_FALSE(lQueue.isClosed());
    lQueue.close();
    OsWaitForExit(lTaker);
    EXPECT_TRUE(lQueue.isClosed());
    EXPECT_TRUE(lQueue.put(Job{Request{"t", "echo", ""}, ""}));
    Job lJob;
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

TEST(LockedFile, ALockOnAFileThatWasRemovedMeanwhileDoesNotCount)
{
    const std::string lPath = "/tmp/hostdtest-" + std::to_string(getpid()) + ".locked";
    LockedFile lFile(lPath.c_str());
    int lOpened = 0;
    const std::function<void()> lCount = [&] { ++lOpened; };
    gAfterOpen = [&] {
        unlink(lPath.c_str());  // its last holder removes it; then somebody makes a new one
        std::ofstream(lPath.c_str()) << "new\n";
        gAfterOpen = lCount;
    };
    EXPECT_TRUE(lFile.tryLock(LockedFile::Create));
    EXPECT_EQ(1, lOpened);
    char lText[5] = "";
    EXPECT_EQ(4, read(lFile.descriptor(), lText, 4));
    EXPECT_STREQ("new\n", lText);

    gAfterOpen = [&] {
        unlink(lPath.c_str());
        gAfterOpen = lCount;
    };
    EXPECT_TRUE(lFile.tryLock(LockedFile::Create));
    EXPECT_EQ(2, lOpened);
    EXPECT_TRUE(exists(lPath));
    unlink(lPath.c_str());
    EXPECT_THROW(lFile.tryLock(LockedFile::Refuse), std::runtime_error);
    EXPECT_FALSE(exists(lPath));
}

// ---- A daemon that is asked -----------------------------------------------------------------------------------------

/// One daemon for all questions of a run.
class Asked : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        SetLogLevels(0);
        sHost = new Host;
        sHost->start();
    }
    static void TearDownTestSuite()
    {
        sHost->stop();
        unlink(sHost->log().c_str());
        delete sHost;
    }
    static Host* sHost;
};

Host* Asked::sHost = NULL;

TEST_F(Asked, EchoGivesTheText)
{
    sHost->expectAnswer("hello\n", {"ask", "echo", "hello"});
    sHost->expectAnswer("two  words \n", {"ask", "echo", "two  words "});
    sHost->expectAnswer("\n", {"ask", "echo", ""});
    sHost->expectAnswer("--trace $(id) '\"\\ \xc3\xa4\n", {"ask", "echo", "--trace $(id) '\"\\ \xc3\xa4"});
}

TEST_F(Asked, StatusTellsUptimeRequestsAndThreads)
{
    const auto lStatus = [](int& arUptime, int& arServed, int& arThreads) {
        const Result lResult = sHost->hostctl({"ask", "status"});
        EXPECT_EQ(0, lResult.mStatus);
        return 3 == sscanf(lResult.mOut.c_str(), "uptime %d s\nrequests served %d\nthreads %d\n", &arUptime, &arServed,
                           &arThreads);
    };
    int lUptime[2], lServed[2], lThreads[2];
    ASSERT_TRUE(lStatus(lUptime[0], lServed[0], lThreads[0]));
    sHost->expectAnswer("x\n", {"ask", "echo", "x"});
    ASSERT_TRUE(lStatus(lUptime[1], lServed[1], lThreads[1]));
    EXPECT_LE(0, lUptime[0]);
    EXPECT_LE(lUptime[0], lUptime[1]);
    EXPECT_EQ(lServed[0] + 2, lServed[1]);
    EXPECT_LE(2, lThreads[0]);  // the main thread and the worker; a sanitizer may have its own
    EXPECT_GE(3, lThreads[0]);
    EXPECT_EQ(lThreads[0], lThreads[1]);
}

TEST_F(Asked, OsGivesTheReleaseLine)
{
    OQEOperatingSystem lFamily;
    OQCString lName("");
    OsGetOsName(lFamily, lName);
    sHost->expectAnswer(std::string("Linux: ") + lName.get() + "\n", {"ask", "os"});
}

TEST_F(Asked, AddressesGivesTheHostsAddressesOrTheLayersOwnError)
{
    OQCList<unsigned int> lAddresses;
    try {
        OsGetAllIpAddresses(lAddresses);
    } catch (const OQCException& acrFailure) {
        sHost->expectFailure(std::string("hostctl: hostd answered: ") + acrFailure.what(), {"ask", "addresses"});
        sHost->expectAnswer("still here\n", {"ask", "echo", "still here"});
        return;
    }
    std::ostringstream lText;
    for (const unsigned int lAddress : lAddresses) {
        lText << (lAddress >> 24) << "." << (lAddress >> 16 & 255) << "." << (lAddress >> 8 & 255) << "."
              << (lAddress & 255) << "\n";
    }
    sHost->expectAnswer(lText.str(), {"ask", "addresses"});
}

TEST_F(Asked, DisksGivesWhatDfSays)
{
    const Result lResult = sHost->hostctl({"ask", "disks"});
    EXPECT_EQ(0, lResult.mStatus);
    // The heading is in the language of the user.
    char lHeading[256] = "";
    FILE* const lpDf = popen("df -P", "re");
    ASSERT_NE(nullptr, lpDf);
    EXPECT_NE(nullptr, fgets(lHeading, sizeof lHeading, lpDf));
    pclose(lpDf);
    EXPECT_EQ(lHeading, lResult.mOut.substr(0, lResult.mOut.find('\n') + 1));
    EXPECT_LE(2u, countOf(lResult.mOut, "\n"));
    EXPECT_TRUE(contains(lResult.mOut, " /\n")) << lResult.mOut;
}

TEST_F(Asked, LoadGivesTheSystemsLoadLine)
{
    const Result lResult = sHost->hostctl({"ask", "load"});
    EXPECT_EQ(0, lResult.mStatus);
    double lLoad[3];
    int lRunning, lAll, lLast;
    EXPECT_EQ(6, sscanf(lResult.mOut.c_str(), "%lf %lf %lf %d/%d %d", &lLoad[0], &lLoad[1], &lLoad[2], &lRunning, &lAll,
                        &lLast))
        << lResult.mOut;
    EXPECT_EQ(1u, countOf(lResult.mOut, "\n"));
}

// The result file belongs to the whole host, and others may use it without a lock while this runs: an answer that was
// spoiled by them is asked for again.
TEST_F(Asked, RunningTellsWhetherAProcessRuns)
{
    const int lLock = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);  // of all tests that write it
    while (0 != flock(lLock, LOCK_EX) && EINTR == errno) {
    }
    unlink("/tmp/.vyrsyscmd");
    const auto lAnswers = [](const char* acName, const std::string& acrAnswer) {
        return eventually([&] {
            const Result lResult = sHost->hostctl({"ask", "running", acName});
            return 0 == lResult.mStatus && acrAnswer == lResult.mOut;
        });
    };
    EXPECT_TRUE(lAnswers("hostd", "hostd is running\n"));
    EXPECT_TRUE(lAnswers("no.such_proc-9", "no.such_proc-9 is not running\n"));
    EXPECT_TRUE(lAnswers("hostd", "hostd is running\n"));
    unlink("/tmp/.vyrsyscmd");
    close(lLock);
}

TEST_F(Asked, LongAnswersComeWhole)
{
    EXPECT_EQ(4058u, cPayloadSize);
    EXPECT_EQ(0u, lines(11708).size() % cPayloadSize);  // the last message is exactly full
    for (const int lCount : {0, 1, 462, 463, 464, 11707, 11708, 11709, 100000}) {
        const Result lResult = sHost->hostctl({"ask", "lines", std::to_string(lCount)});
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("", lResult.mError);
        EXPECT_TRUE(lines(lCount) == lResult.mOut) << lCount << " lines, " << lResult.mOut.size() << " bytes";
    }
}

TEST_F(Asked, TwentyToolsAtOnceAllGetTheirOwnAnswer)
{
    std::vector<std::unique_ptr<Process>> lTools;
    for (int lTool = 0; lTool < 20; ++lTool) {
        lTools.push_back(0 == lTool % 5 ? sHost->spawn({"ask", "lines", "2000"})
                                        : sHost->spawn({"ask", "echo", "tool " + std::to_string(lTool)}));
    }
    for (size_t lTool = 0; lTool < lTools.size(); ++lTool) {
        const Result lResult = lTools[lTool]->finish();
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("", lResult.mError);
        EXPECT_EQ(0 == lTool % 5 ? lines(2000) : "tool " + std::to_string(lTool) + "\n", lResult.mOut);
    }
}

TEST_F(Asked, TraceShowsTheLayersLinesOnStandardErrorOnly)
{
    const Result lResult = sHost->hostctl({"--trace", "ask", "echo", "hi"});
    EXPECT_EQ(0, lResult.mStatus);
    EXPECT_EQ("hi\n", lResult.mOut);
    size_t lAt = 0;
    for (const char* lpCall : {" OsLockFile ", " OsSharedMemoryOpen ", " OsNamedPipeOpen ", " OsNamedPipeWrite ",
                               " sTimedWaitOnFlag ", " OsSharedMemoryRead ", " OsSharedMemoryClose "}) {
        lAt = lResult.mError.find(lpCall, lAt);
        EXPECT_NE(std::string::npos, lAt) << lpCall;
    }
    EXPECT_EQ(lResult.mOut, sHost->hostctl({"ask", "--trace", "echo", "hi"}).mOut);
}

TEST_F(Asked, AnAnswerThatCannotBePrintedIsAFailure)
{
    const Result lResult = Process(sHost->words({"ask", "echo", "x"}), "/dev/full").finish();
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_EQ("hostctl: cannot print: No space left on device\n", lResult.mError);
    EXPECT_EQ(1, Process(sHost->words({"ask", "lines", "5000"}), "/dev/full").finish().mStatus);
}

TEST_F(Asked, ToolWithClosedStandardDescriptorsDisturbsNobody)
{
    // Nothing can be printed, but nothing lands in the FIFO either.
    const auto lClose = [] {
        for (int lDescriptor = 0; lDescriptor < 3; ++lDescriptor) {
            close(lDescriptor);
        }
    };
    EXPECT_EQ(0, Process(sHost->words({"--trace", "ask", "echo", "x"}), NULL, lClose).finish().mStatus);
    sHost->expectAnswer("next\n", {"ask", "echo", "next"});
    EXPECT_FALSE(contains(contentOf(sHost->log()), "refused"));
}

TEST_F(Asked, ASecondDaemonIsRefused)
{
    const int lPid = sHost->pid();
    sHost->expectFailure("hostctl: hostd is already running, process " + std::to_string(lPid), {"start"});
    Host::expectFailed("hostd: another hostd of this name is running",
                       Process({HOSTD, "--name", sHost->name()}).finish());
    EXPECT_EQ(lPid, sHost->pid());
    sHost->expectAnswer("first\n", {"ask", "echo", "first"});
}

TEST_F(Asked, WrongWordsGiveUsageAndStatus2)
{
    const std::string cLong(512, 'x');
    const Strings cRows[] = {{},
                             {"bogus"},
                             {"--bogus", "stop"},
                             {"start", "now"},
                             {"start", "--log"},
                             {"stop", "now"},
                             {"stop", "--log", "x"},
                             {"start", "--detach"},
                             {"ask"},
                             {"ask", "weather"},
                             {"ask", "echo"},
                             {"ask", "echo", "two", "words"},
                             {"ask", "echo", "line\nbreak"},
                             {"ask", "echo", "\x02"},
                             {"ask", "echo", cLong},
                             {"ask", "status", "now"},
                             {"ask", "running"},
                             {"ask", "running", "a;b"},
                             {"ask", "running", "-f"},
                             {"ask", "lines", "many"},
                             {"ask", "lines", "100001"},
                             {"--name", "a/b", "stop"},
                             {"--name", "", "stop"}};
    for (const Strings& acrRow : cRows) {
        const Result lResult = sHost->hostctl(acrRow);
        EXPECT_EQ(2, lResult.mStatus) << testing::PrintToString(acrRow);
        EXPECT_EQ("", lResult.mOut);
        EXPECT_EQ(0u, lResult.mError.find("hostctl: "));
        EXPECT_TRUE(contains(lResult.mError, "\nusage: hostctl ")) << lResult.mError;
    }
    for (const Strings& acrRow : {Strings{HOSTD, "now"}, Strings{HOSTD, "--bogus"}, Strings{HOSTD, "--name"}}) {
        const Result lResult = Process(acrRow).finish();
        EXPECT_EQ(2, lResult.mStatus);
        EXPECT_TRUE(contains(lResult.mError, "\nusage: hostd ")) << lResult.mError;
    }
    sHost->expectAnswer("next\n", {"ask", "echo", "next"});
}

// ---- Trouble --------------------------------------------------------------------------------------------------------

class Trouble : public testing::Test
{
protected:
    Trouble() { SetLogLevels(0); }
    ~Trouble() override { unlink(mHost.log().c_str()); }

    /// The tool without its daemon beside it.
    static std::string copyTool(const Host& acrHost)
    {
        const std::string lTool = acrHost.directory() + "/hostctl";
        std::ofstream(lTool, std::ios::binary) << std::ifstream(HOSTCTL, std::ios::binary).rdbuf();
        chmod(lTool.c_str(), 0755);
        return lTool;
    }

    /// The mailbox as a tool sees it.
    OQShmDesc openMailbox() const
    {
        OQShmDesc lMailbox = {mHost.key(), cSegmentSize, -1, NULL};
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

    Host mHost;
};

TEST_F(Trouble, WithoutADaemonCommandsSaySo)
{
    mHost.expectFailure("hostctl: hostd is not running", {"ask", "status"});
    mHost.expectFailure("hostctl: hostd is not running", {"stop"});
    EXPECT_EQ(Strings{}, mHost.left());
    mHost.start();
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    mHost.stop();
    mHost.expectFailure("hostctl: hostd is not running", {"stop"});
}

TEST_F(Trouble, OfManyStartsAtOnceOneWins)
{
    std::vector<std::unique_ptr<Process>> lStarts;
    for (int lStart = 0; lStart < 6; ++lStart) {
        lStarts.push_back(mHost.spawn({"start"}));
    }
    int lWinners = 0;
    for (const auto& acrStart : lStarts) {
        const Result lResult = acrStart->finish();
        if (0 == lResult.mStatus) {
            ++lWinners;
            EXPECT_EQ("hostd is running, process " + std::to_string(mHost.pid()) + "\n", lResult.mOut);
        } else {
            EXPECT_EQ(1, lResult.mStatus);
            EXPECT_EQ(1u, countOf(lResult.mError, "\n")) << lResult.mError;
            EXPECT_TRUE(contains(lResult.mError, "already running") || contains(lResult.mError, "another hostd"));
        }
    }
    EXPECT_EQ(1, lWinners);
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    mHost.stop();
}

/// A daemon that never gets ready, and one that is stopped.
TEST_F(Trouble, NoCommandWaitsForADaemonWithoutEnd)
{
    Host lSleepy;
    const std::string lTool = copyTool(lSleepy);
    const std::string lDaemon = lSleepy.directory() + "/hostd";
    std::ofstream(lDaemon) << "#!/bin/sh\necho $$ > " << lSleepy.log() << "\nexec sleep 600\n";
    chmod(lDaemon.c_str(), 0755);
    mHost.start();
    const int lPid = mHost.pid();
    kill(lPid, SIGSTOP);

    const Clock::time_point lStart = Clock::now();
    Process lSleepyStart({lTool, "--name", lSleepy.name(), "start"});
    const std::unique_ptr<Process> lAsk = mHost.spawn({"ask", "echo", "x"});
    const std::unique_ptr<Process> lStop = mHost.spawn({"stop"});
    const std::string lStopped = "hostctl: hostd, process " + std::to_string(lPid);
    Host::expectFailed(lStopped + ", has not answered for 5 seconds; is it stopped?", lAsk->finish());
    EXPECT_LE(4.9, secondsSince(lStart));
    // The outputs of this one end only when the daemon, which holds them as well, has ended.
    Host::expectFailed("hostctl: hostd was not ready after 5 seconds and was ended", lSleepyStart.finish());
    EXPECT_TRUE(isGone(atoi(contentOf(lSleepy.log()).c_str())));
    Host::expectFailed(lStopped + ", has not ended after 10 seconds; is it stopped?", lStop->finish());
    EXPECT_LE(9.9, secondsSince(lStart));
    EXPECT_GE(40, secondsSince(lStart));

    kill(lPid, SIGCONT);  // now it heeds what it was told
    EXPECT_TRUE(eventually([&] { return mHost.left().empty() && isGone(lPid); }));
    mHost.start();
    mHost.expectAnswer("next\n", {"ask", "echo", "next"});
    mHost.stop();
    unlink(lTool.c_str());
    unlink(lDaemon.c_str());
}

TEST_F(Trouble, AFullFifoIsToldAndDrainedLater)
{
    mHost.start();
    kill(mHost.pid(), SIGSTOP);
    const int lFifo = open(mHost.fifo().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_LE(0, lFifo);
    const std::string lJunk(4096, 'j');
    while (0 < write(lFifo, lJunk.data(), lJunk.size())) {
    }
    close(lFifo);
    mHost.expectFailure("hostctl: hostd takes no requests: its FIFO is full; is it stopped?", {"ask", "echo", "x"});
    kill(mHost.pid(), SIGCONT);
    EXPECT_TRUE(mHost.logs("request without a token is refused: bytes outside a request"));
    mHost.expectAnswer("next\n", {"ask", "echo", "next"});
    mHost.stop();
}

TEST_F(Trouble, AnAnswerToAToolThatGaveUpIsNotTakenForTheNextOnes)
{
    mHost.start();
    kill(mHost.pid(), SIGSTOP);
    const std::unique_ptr<Process> lGone = mHost.spawn({"ask", "--trace", "echo", "old"});
    ASSERT_TRUE(lGone->readUntil([&] { return contains(lGone->error(), "OsNamedPipeClose"); }));
    lGone->kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lGone->finish().mStatus);
    kill(mHost.pid(), SIGCONT);
    mHost.expectAnswer("new\n", {"ask", "echo", "new"});
    mHost.stop();
}

TEST_F(Trouble, AKilledDaemonsRemainsAreTakenOver)
{
    mHost.start();
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    const int lPid = mHost.pid();
    kill(lPid, SIGKILL);
    EXPECT_TRUE(eventually([=] { return isGone(lPid); }));
    EXPECT_EQ((Strings{mHost.lock(), mHost.fifo(), mHost.turn(), "segment"}), mHost.left());
    mHost.expectFailure("hostctl: hostd is not running", {"ask", "echo", "x"});
    mHost.expectFailure("hostctl: hostd is not running", {"stop"});
    std::ofstream(mHost.lock()) << "4711 and a longer text\nin two lines\n";
    mHost.start();
    EXPECT_EQ(std::to_string(mHost.pid()) + "\n", contentOf(mHost.lock()));
    mHost.expectAnswer("y\n", {"ask", "echo", "y"});
    mHost.stop();
}

TEST_F(Trouble, ADaemonKilledBeforeItAnswersIsNoticed)
{
    mHost.start();
    const int lPid = mHost.pid();
    kill(lPid, SIGSTOP);
    const std::unique_ptr<Process> lAsk = mHost.spawn({"ask", "--trace", "echo", "x"});
    ASSERT_TRUE(lAsk->readUntil([&] { return contains(lAsk->error(), "OsNamedPipeClose"); }));
    kill(lPid, SIGKILL);
    const Result lResult = lAsk->finish();
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_EQ("", lResult.mOut);
    EXPECT_TRUE(contains(lResult.mError, "hostctl: hostd ended before the answer was whole\n")) << lResult.mError;
    mHost.start();
    mHost.stop();
}

TEST_F(Trouble, RefusedRequestsDisturbNobody)
{
    mHost.start();
    for (const std::string& acrBytes :
         {std::string("garbage\n"), std::string("\x02half a requ"), framed("tok nonsense"), framed(""),
          framed("tok echo a\tb"), framed("tok echo " + std::string(1000, 'x')), "\x02" + std::string(3000, 'y'),
          std::string(100, '\0'), framed("tok running $(id)"), std::string(100, '\x02')}) {
        EXPECT_EQ(static_cast<ssize_t>(acrBytes.size()), mHost.writeRaw(acrBytes));
        mHost.expectAnswer("good\n", {"ask", "echo", "good"});
    }
    mHost.stop();
    const std::string lLog = contentOf(mHost.log());
    for (const char* lpLine :
         {"-E- onRefused (.//hostd:", "request without a token is refused: bytes outside a request",
          "request half is refused: the request breaks off", "request tok is refused: unknown request",
          "request without a token is refused: the token is missing or no token",
          "request tok is refused: control characters are not allowed",
          "request tok is refused: the request is longer than 512 bytes",
          "request without a token is refused: the request is longer than 512 bytes",
          "request tok is refused: a process name is"}) {
        EXPECT_TRUE(contains(lLog, lpLine)) << lpLine << "\n" << lLog;
    }
}

TEST_F(Trouble, ARefusedRequestWithATokenIsAnswered)
{
    mHost.start();
    OQShmDesc lMailbox = openMailbox();
    mHost.writeRaw(framed("my-1 nonsense"));
    EXPECT_EQ("my-1|0|3|unknown request", receive(lMailbox));
    mHost.writeRaw(framed("my-2 echo good") + framed("my-3 echo \x01"));
    EXPECT_EQ("my-2|0|2|good\n", receive(lMailbox));
    EXPECT_EQ("my-3|0|3|control characters are not allowed", receive(lMailbox));
    mHost.writeRaw(framed("my-4 lines 600"));
    EXPECT_EQ("my-4|0|1|" + lines(600).substr(0, 4058), receive(lMailbox));
    EXPECT_EQ("my-4|1|2|" + lines(600).substr(4058), receive(lMailbox));
    OsSharedMemoryClose(lMailbox, OQCM_Client);
    mHost.stop();
}

TEST_F(Trouble, RequestsBeyondTheQueueAreRefused)
{
    mHost.start();
    OQShmDesc lMailbox = openMailbox();
    mHost.writeRaw(framed("long lines 1000"));
    OsSharedMemoryWaitForActivity(lMailbox, 30);  // the worker waits for a reader now
    std::string lFlood;
    for (int lNumber = 0; lNumber < 60; ++lNumber) {
        lFlood += framed("flood echo " + std::to_string(lNumber));
    }
    EXPECT_EQ(static_cast<ssize_t>(lFlood.size()), mHost.writeRaw(lFlood));
    EXPECT_TRUE(mHost.logs("request flood is refused: too many requests are waiting"));
    EXPECT_TRUE(mHost.logs("request flood is not even told so: too many refusals are waiting"));
    std::string lReceived;
    while (!contains(lReceived, "flood|0|2|0\n") || !contains(lReceived, "flood|0|3|too many requests are waiting")) {
        lReceived = lReceived + receive(lMailbox);
    }
    OsSharedMemoryClose(lMailbox, OQCM_Client);
    // Refusals that are still waiting may leave no room for the first requests that follow.
    EXPECT_TRUE(eventually([&] { return "next\n" == mHost.hostctl({"ask", "echo", "next"}).mOut; }));
    mHost.stop();
}

TEST_F(Trouble, AnAnswerThatNobodyTakesIsDropped)
{
    mHost.start();
    mHost.writeRaw(framed("early echo x"));
    EXPECT_TRUE(mHost.logs("the answer to request early is dropped: no tool has opened the mailbox yet"));
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});  // marks the tool's side ready for good
    const Clock::time_point lStart = Clock::now();
    mHost.writeRaw(framed("gone lines 1000"));
    EXPECT_TRUE(mHost.logs("the answer to request gone is dropped: nobody took the message before it"));
    EXPECT_LE(2.9, secondsSince(lStart));
    mHost.expectAnswer("next\n", {"ask", "echo", "next"});
    mHost.stop();
}

TEST_F(Trouble, AToolKilledAmidALongAnswerDoesNotBlockTheNext)
{
    mHost.start();
    const std::unique_ptr<Process> lVictim = mHost.spawn({"ask", "--trace", "lines", "100000"});
    ASSERT_TRUE(lVictim->readUntil([&] { return 6 <= countOf(lVictim->error(), " OsSharedMemoryRead "); }));
    lVictim->kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lVictim->finish().mStatus);
    const Clock::time_point lStart = Clock::now();
    mHost.expectAnswer("next\n", {"ask", "echo", "next"});
    EXPECT_GE(20, secondsSince(lStart));
    mHost.stop();
}

TEST_F(Trouble, StopEndsADaemonAmidAnAnswer)
{
    mHost.start();
    OQShmDesc lMailbox = openMailbox();
    mHost.writeRaw(framed("t lines 100000"));
    receive(lMailbox);
    const int lPid = mHost.pid();
    kill(lPid, SIGTERM);
    EXPECT_TRUE(mHost.logs(" ending\n"));
    // A reader goes on reading: the daemon does not go on until it has said everything.
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
    EXPECT_TRUE(contains(contentOf(mHost.log()), "the answer to request t is dropped: the daemon ends\n"));
    EXPECT_EQ(Strings{}, mHost.left());
    OsSharedMemoryClose(lMailbox, OQCM_Client);
}

TEST_F(Trouble, ADaemonThatCannotBeRunIsToldInOneLine)
{
    const std::string lTool = copyTool(mHost);
    const std::string lDaemon = mHost.directory() + "/hostd";
    const auto lExpect = [&](const std::string& acrLine) {
        const Clock::time_point lStart = Clock::now();
        Host::expectFailed(acrLine, Process({lTool, "--name", mHost.name(), "start"}).finish());
        EXPECT_GE(4, secondsSince(lStart)) << "it waited for a daemon that could not be run";
    };
    lExpect("hostctl: cannot run " + lDaemon + ": No such file or directory");
    mkdir(lDaemon.c_str(), 0755);
    lExpect("hostctl: cannot run " + lDaemon + ": Permission denied");
    rmdir(lDaemon.c_str());
    std::ofstream(lDaemon) << "no program\n";
    chmod(lDaemon.c_str(), 0644);
    lExpect("hostctl: cannot run " + lDaemon + ": Permission denied");
    chmod(lDaemon.c_str(), 0755);
    lExpect("hostctl: cannot run " + lDaemon + ": Exec format error");
    std::ofstream(lDaemon) << "#!/bin/sh\nkill -SEGV $$\n";
    lExpect("hostctl: hostd was ended by signal 11 while it started");
    unlink(lTool.c_str());
    unlink(lDaemon.c_str());
}

TEST_F(Trouble, AFailedStartSaysWhyAndLeavesNothing)
{
    const auto lExpect = [&](const std::string& acrLine, const Strings& acrLeft) {
        mHost.expectFailure("hostd: " + acrLine, {"start"});
        EXPECT_EQ(acrLeft, mHost.left());
    };
    std::ofstream(mHost.fifo()) << "precious\n";
    lExpect(mHost.fifo() + " exists and is no FIFO", {mHost.fifo()});
    EXPECT_EQ("precious\n", contentOf(mHost.fifo()));
    unlink(mHost.fifo().c_str());

    const int lSegment = shmget(mHost.key(), 100, IPC_CREAT | IPC_EXCL | 0600);  // too small for the daemon
    ASSERT_LE(0, lSegment);
    lExpect("cannot open the mailbox: Invalid argument", {"segment"});
    shmctl(lSegment, IPC_RMID, NULL);

    ASSERT_EQ(0, symlink("/tmp/nowhere", mHost.fifo().c_str()));
    lExpect(mHost.fifo() + " exists and is no FIFO", {mHost.fifo()});
    unlink(mHost.fifo().c_str());

    mkdir(mHost.turn().c_str(), 0700);
    lExpect("cannot make " + mHost.turn() + ": Is a directory", {mHost.turn()});
    rmdir(mHost.turn().c_str());

    mkdir(mHost.lock().c_str(), 0700);
    mHost.expectFailure("hostctl: " + mHost.lock() + " is no regular file", {"start"});
    Host::expectFailed("hostd: cannot open " + mHost.lock() + ": Is a directory",
                       Process({HOSTD, "--name", mHost.name()}).finish());
    rmdir(mHost.lock().c_str());

    ASSERT_EQ(0, symlink("/tmp/nowhere", mHost.lock().c_str()));  // planted by somebody else
    mHost.expectFailure("hostctl: cannot open " + mHost.lock() + ": Too many levels of symbolic links", {"start"});
    unlink(mHost.lock().c_str());

    const std::string lLog = mHost.directory() + "/missing/log";
    mHost.expectFailure("hostd: cannot open " + lLog + ": No such file or directory", {"start", "--log", lLog});
    EXPECT_EQ(Strings{}, mHost.left());
    mHost.start();
    mHost.stop();
}

TEST_F(Trouble, ASegmentThatCannotBeLockedIsRemoved)
{
    const auto lForbidLocking = [] {
        const rlimit lNone = {0, 0};
        setrlimit(RLIMIT_MEMLOCK, &lNone);
        prctl(PR_CAPBSET_DROP, CAP_IPC_LOCK, 0, 0, 0);  // root needs no limit; others cannot drop it and need not
    };
    Host::expectFailed("hostd: cannot open the mailbox: Operation not permitted",
                       Process({HOSTD, "--name", mHost.name()}, NULL, lForbidLocking).finish());
    EXPECT_EQ(Strings{}, mHost.left());
}

class Signalled : public Trouble, public testing::WithParamInterface<int>
{
};

TEST_P(Signalled, EndsADaemonInOrder)
{
    Process lDaemon({HOSTD, "--name", mHost.name()});
    ASSERT_TRUE(lDaemon.readUntil([&] { return contains(lDaemon.error(), " ready\n"); }));
    EXPECT_EQ((Strings{mHost.lock(), mHost.fifo(), mHost.turn(), "segment"}), mHost.left());
    EXPECT_EQ(std::to_string(lDaemon.pid()) + "\n", contentOf(mHost.lock()));
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    lDaemon.kill(GetParam());
    const Result lResult = lDaemon.finish();
    EXPECT_EQ(0, lResult.mStatus);
    EXPECT_EQ("", lResult.mOut);
    EXPECT_TRUE(contains(lResult.mError, " ending\n")) << lResult.mError;
    EXPECT_FALSE(contains(lResult.mError, "-E-")) << lResult.mError;
    EXPECT_EQ(Strings{}, mHost.left());
}

INSTANTIATE_TEST_SUITE_P(By, Signalled, testing::Values(SIGTERM, SIGINT));

TEST_F(Trouble, ATracedDaemonWhoseReaderLeavesGoesOn)
{
    std::unique_ptr<Process> lDaemon(new Process({HOSTD, "--name", mHost.name(), "--trace"}));
    ASSERT_TRUE(lDaemon->readUntil([&] { return contains(lDaemon->error(), " ready\n"); }));
    const int lPid = lDaemon->pid();
    lDaemon->abandonOutput();
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    mHost.expectAnswer("y\n", {"ask", "echo", "y"});
    kill(lPid, SIGTERM);
    EXPECT_EQ(0, lDaemon->finish().mStatus);
    EXPECT_EQ(Strings{}, mHost.left());
}

// ---- Other users, cleaners, stalled readers and full disks ---------------------------------------------------------

const uid_t cNobody = 65534;

/// A lock file that this program made and locks, as somebody might who waits for a tool.
class ForeignLock
{
public:
    ForeignLock(const std::string& acrPath, const std::string& acrContent)
        : mPath(acrPath), mFile(open(acrPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600))
    {
        EXPECT_EQ(static_cast<ssize_t>(acrContent.size()), write(mFile, acrContent.data(), acrContent.size()));
        lseek(mFile, 0, SEEK_SET);
        EXPECT_EQ(0, lockf(mFile, F_TLOCK, 0));
    }
    ~ForeignLock()
    {
        close(mFile);
        unlink(mPath.c_str());
    }
    ForeignLock(const ForeignLock&) = delete;
    ForeignLock& operator=(const ForeignLock&) = delete;

    int file() const { return mFile; }

private:
    const std::string mPath;
    const int mFile;
};

/// The turn of this program to use the result file of the whole host, and other names in /tmp that are fixed.
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
    FixedNames(const FixedNames&) = delete;
    FixedNames& operator=(const FixedNames&) = delete;

private:
    const int mLock;
};

/// Starts a daemon in the foreground and waits until it serves requests.
std::unique_ptr<Process> foreground(
    const Host& acrHost, const Strings& acrWords, const std::function<void()>& acrPrepare = [] {})
{
    Strings lWords = {HOSTD, "--name", acrHost.name()};
    lWords.insert(lWords.end(), acrWords.begin(), acrWords.end());
    std::unique_ptr<Process> lDaemon(new Process(lWords, NULL, acrPrepare));
    EXPECT_TRUE(eventually([&] { return lDaemon->pid() == acrHost.pid(); }));
    return lDaemon;
}

TEST_F(Trouble, StopSignalsNobodyButTheHolderOfTheLock)
{
    Process lVictim({"/bin/sleep", "600"});
    const ForeignLock lLock(mHost.lock(), std::to_string(lVictim.pid()) + "\n");
    const std::string lLine = "hostctl: hostd, process " + std::to_string(getpid()) + ", is starting; try again";
    mHost.expectFailure(lLine, {"stop"});
    mHost.expectFailure(lLine, {"ask", "echo", "x"});
    EXPECT_FALSE(isGone(lVictim.pid()));
}

TEST_F(Trouble, StartNamesTheProcessThatHoldsTheLockAlsoWhileItStarts)
{
    const ForeignLock lLock(mHost.lock(), "");
    mHost.expectFailure("hostctl: hostd is already running, process " + std::to_string(getpid()), {"start"});
}

TEST_F(Trouble, AHugeLockFileIsNotReadWhole)
{
    const ForeignLock lLock(mHost.lock(), "");
    ASSERT_EQ(0, ftruncate(lLock.file(), 1L << 30));
    mHost.expectFailure("hostctl: hostd, process " + std::to_string(getpid()) + ", is starting; try again", {"stop"});
    rusage lUsage;
    ASSERT_EQ(0, getrusage(RUSAGE_CHILDREN, &lUsage));
    EXPECT_GE(500L << 10, lUsage.ru_maxrss) << "KiB";
}

TEST_F(Trouble, ALockFileThatIsAFifoIsRefusedAtOnce)
{
    ASSERT_EQ(0, mkfifo(mHost.lock().c_str(), 0600));
    for (const Strings& acrWords : {Strings{"start"}, Strings{"ask", "echo", "x"}, Strings{"stop"}}) {
        const Clock::time_point lStart = Clock::now();
        mHost.expectFailure("hostctl: " + mHost.lock() + " is no regular file", acrWords);
        EXPECT_GE(20, secondsSince(lStart));
    }
    unlink(mHost.lock().c_str());
}

TEST_F(Trouble, ALockFileThatIsALinkIsNotFollowed)
{
    std::ofstream(mHost.log()) << "precious\n";
    ASSERT_EQ(0, symlink(mHost.log().c_str(), mHost.lock().c_str()));
    mHost.expectFailure("hostctl: cannot open " + mHost.lock() + ": Too many levels of symbolic links", {"stop"});
    unlink(mHost.lock().c_str());
    ASSERT_EQ(0, link(mHost.log().c_str(), mHost.lock().c_str()));
    mHost.expectFailure("hostctl: " + mHost.lock() + " has a second name", {"start"});
    EXPECT_EQ("precious\n", contentOf(mHost.log()));
    unlink(mHost.lock().c_str());
}

TEST_F(Trouble, AnotherUsersLockFileIsRefused)
{
    if (0 != geteuid()) {
        GTEST_SKIP() << "only root can make another user's file";
    }
    Process lVictim({"/bin/sleep", "600"});
    const ForeignLock lLock(mHost.lock(), std::to_string(lVictim.pid()) + "\n");
    ASSERT_EQ(0, chown(mHost.lock().c_str(), cNobody, cNobody));
    for (const Strings& acrWords : {Strings{"start"}, Strings{"ask", "echo", "x"}, Strings{"stop"}}) {
        mHost.expectFailure("hostctl: " + mHost.lock() + " belongs to another user", acrWords);
    }
}

TEST_F(Trouble, ADirectoryThatOthersMayEnterIsRefused)
{
    const std::string lDirectory = mHost.directory() + "/shared";
    ASSERT_EQ(0, mkdir(lDirectory.c_str(), 0700));
    ASSERT_EQ(0, chmod(lDirectory.c_str(), 0755));  // whatever the umask
    const auto lExpect = [&](const std::string& acrPath, const std::string& acrLine) {
        const auto lPrepare = [&] { setenv("XDG_RUNTIME_DIR", acrPath.c_str(), 1); };
        Host::expectFailed("hostctl: " + acrLine, Process(mHost.words({"stop"}), NULL, lPrepare).finish());
        Host::expectFailed("hostd: " + acrLine, Process({HOSTD, "--name", mHost.name()}, NULL, lPrepare).finish());
    };
    const std::string lRefusal = "the directory " + lDirectory + " must belong to this user and have mode 0700";
    lExpect(lDirectory, lRefusal);
    if (0 == geteuid()) {
        ASSERT_EQ(0, chmod(lDirectory.c_str(), 0700));
        ASSERT_EQ(0, chown(lDirectory.c_str(), cNobody, cNobody));
        lExpect(lDirectory, lRefusal);
    }
    rmdir(lDirectory.c_str());
    lExpect(lDirectory, "cannot open the directory " + lDirectory + ": No such file or directory");
    ASSERT_EQ(0, symlink(RuntimeDirectory::sPath.c_str(), lDirectory.c_str()));
    lExpect(lDirectory, "cannot open the directory " + lDirectory + ": Not a directory");
    unlink(lDirectory.c_str());
}

TEST_F(Trouble, WithoutARuntimeDirectoryEachUserHasOneBelowTmp)
{
    const FixedNames lTurn;  // also of this directory
    const std::string lDirectory = "/tmp/hostd-" + std::to_string(geteuid());
    const auto lRun = [&](const Strings& acrWords) {
        return Process(mHost.words(acrWords), NULL, [] { unsetenv("XDG_RUNTIME_DIR"); }).finish();
    };
    const auto lRunWithRelativePath = [&](const Strings& acrWords) {
        return Process(mHost.words(acrWords), NULL, [] { setenv("XDG_RUNTIME_DIR", "tmp", 1); }).finish();
    };
    EXPECT_EQ(0, lRun({"start"}).mStatus);
    struct stat lInfo = {};
    ASSERT_EQ(0, lstat(lDirectory.c_str(), &lInfo));
    EXPECT_EQ(S_IFDIR | 0700u, lInfo.st_mode);
    EXPECT_EQ(geteuid(), lInfo.st_uid);
    EXPECT_TRUE(exists(lDirectory + "/" + mHost.name() + ".lock"));
    EXPECT_EQ("x\n", lRunWithRelativePath({"ask", "echo", "x"}).mOut);
    EXPECT_EQ(0, lRun({"stop"}).mStatus);
    rmdir(lDirectory.c_str());  // unless a daemon of this user has been there before
}

TEST_F(Trouble, ATurnFileOrAFifoOfAnotherKindIsRefused)
{
    mHost.start();
    unlink(mHost.turn().c_str());
    ASSERT_EQ(0, mkfifo(mHost.turn().c_str(), 0600));
    mHost.expectFailure("hostctl: " + mHost.turn() + " is no regular file", {"ask", "echo", "x"});
    mHost.stop();
}

TEST_F(Trouble, AMailboxOfAnotherUserIsRefused)
{
    if (0 != geteuid()) {
        GTEST_SKIP() << "only root can make another user's segment";
    }
    const auto lMakeForeign = [&] {
        const int lSegment = shmget(mHost.key(), cSegmentSize, IPC_CREAT | IPC_EXCL | 0666);
        ASSERT_LE(0, lSegment);
        shmid_ds lState;
        ASSERT_EQ(0, shmctl(lSegment, IPC_STAT, &lState));
        lState.shm_perm.uid = 0;  // whoever has made the segment can give it to its victim
        ASSERT_EQ(0, shmctl(lSegment, IPC_SET, &lState));
    };
    const auto lAsNobody = [&] {
        const pid_t lChild = fork();
        if (0 == lChild) {
            _exit(setresuid(cNobody, cNobody, 0) < 0 ? 1 : (lMakeForeign(), 0));
        }
        waitpid(lChild, NULL, 0);
        ASSERT_LE(0, shmget(mHost.key(), 0, 0));
    };
    lAsNobody();
    mHost.expectFailure("hostd: another user has made a segment with the mailbox's key; choose another name",
                        {"start"});
    EXPECT_EQ(Strings{"segment"}, mHost.left());
    shmctl(shmget(mHost.key(), 0, 0), IPC_RMID, NULL);

    mHost.start();
    shmctl(shmget(mHost.key(), 0, 0), IPC_RMID, NULL);
    lAsNobody();
    mHost.expectFailure("hostctl: the mailbox belongs to another user", {"ask", "echo", "x"});
    EXPECT_EQ(0, mHost.hostctl({"stop"}).mStatus);
    EXPECT_TRUE(eventually([&] { return Strings{"segment"} == mHost.left(); }));
    shmctl(shmget(mHost.key(), 0, 0), IPC_RMID, NULL);
}

TEST_F(Trouble, RunningIsAnErrorWhenPgrepFails)
{
    const FixedNames lTurn;
    const std::string lPgrep = mHost.directory() + "/pgrep";
    std::ofstream(lPgrep) << "#!/bin/sh\nexit 3\n";
    chmod(lPgrep.c_str(), 0755);
    const auto lDaemon =
        foreground(mHost, {}, [&] { setenv("PATH", (mHost.directory() + ":" + getenv("PATH")).c_str(), 1); });
    mHost.expectFailure("hostctl: hostd answered: pgrep cannot be run, or cannot write /tmp/.vyrsyscmd",
                        {"ask", "running", "hostd"});
    mHost.expectAnswer("x\n", {"ask", "echo", "x"});
    lDaemon->kill(SIGTERM);
    EXPECT_EQ(0, lDaemon->finish().mStatus);
    unlink(lPgrep.c_str());
}

TEST_F(Trouble, RunningIsAnErrorWhenTheDiskIsFull)
{
    const FixedNames lTurn;
    std::ofstream("/tmp/.vyrsyscmd").flush();
    // The daemon's result file is one on a full disk.
    const auto lFillDisk = [&] {
        const std::string lFile = mHost.directory() + "/result";
        const std::string lPage(4096, 'x');
        if (unshare(CLONE_NEWNS) < 0 || mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) < 0 ||
            mount("none", mHost.directory().c_str(), "tmpfs", 0, "size=4096") < 0 ||
            !(std::ofstream(mHost.directory() + "/all") << lPage).flush() || (std::ofstream(lFile) << "x").flush() ||
            mount(lFile.c_str(), "/tmp/.vyrsyscmd", NULL, MS_BIND, NULL) < 0) {
            _exit(77);
        }
    };
    Process lDaemon({HOSTD, "--name", mHost.name()}, NULL, lFillDisk);
    if (!lDaemon.readUntil([&] { return contains(lDaemon.error(), " ready\n"); })) {
        EXPECT_EQ(77, lDaemon.finish().mStatus);
        GTEST_SKIP() << "no right to mount a disk";
    }
    for (const char* lpName : {"hostd", "no.such_proc-9"}) {
        mHost.expectFailure("hostctl: hostd answered: pgrep cannot be run, or cannot write /tmp/.vyrsyscmd",
                            {"ask", "running", lpName});
    }
    lDaemon.kill(SIGTERM);
    EXPECT_EQ(0, lDaemon.finish().mStatus);
}

TEST_F(Trouble, RunningIsAnErrorWhenAnotherUserHasMadeTheFile)
{
    if (0 != geteuid()) {
        GTEST_SKIP() << "only root can make another user's file";
    }
    const FixedNames lTurn;
    std::ofstream("/tmp/.vyrsyscmd") << "4711\n";
    ASSERT_EQ(0, chown("/tmp/.vyrsyscmd", cNobody, cNobody));
    ASSERT_EQ(0, chmod("/tmp/.vyrsyscmd", 0666));
    mHost.start();
    mHost.expectFailure("hostctl: hostd answered: /tmp/.vyrsyscmd belongs to another user", {"ask", "running", "x"});
    EXPECT_EQ("4711\n", contentOf("/tmp/.vyrsyscmd"));
    mHost.stop();
}

TEST_F(Trouble, ADaemonWhoseFilesAreGoneSparesThoseOfItsSuccessor)
{
    const auto lFirst = foreground(mHost, {});
    lFirst->kill(SIGSTOP);
    for (const std::string& acrPath : {mHost.lock(), mHost.fifo(), mHost.turn()}) {
        EXPECT_EQ(0, unlink(acrPath.c_str()));
    }
    mHost.start();
    lFirst->kill(SIGCONT);
    const Result lResult = lFirst->finish();
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_TRUE(contains(lResult.mError, " the lock file or the FIFO has been removed: no tool can find this daemon\n"))
        << lResult.mError;
    EXPECT_EQ((Strings{mHost.lock(), mHost.fifo(), mHost.turn(), "segment"}), mHost.left());
    mHost.expectAnswer("second\n", {"ask", "echo", "second"});
    mHost.stop();
}

TEST_F(Trouble, ADaemonWhoseFilesAreGoneLeavesNothingWhenItHasNoSuccessor)
{
    for (const std::string& acrPath : {mHost.lock(), mHost.fifo()}) {
        const auto lDaemon = foreground(mHost, {});
        EXPECT_EQ(0, unlink(acrPath.c_str()));
        EXPECT_EQ(1, lDaemon->finish().mStatus);
        EXPECT_EQ(Strings{}, mHost.left());
    }
}

TEST_F(Trouble, ADaemonWhoseDirectoryIsGoneLeavesNothing)
{
    const std::string lDirectory = mHost.directory() + "/runtime";
    ASSERT_EQ(0, mkdir(lDirectory.c_str(), 0700));
    Process lDaemon({HOSTD, "--name", mHost.name()}, NULL, [&] { setenv("XDG_RUNTIME_DIR", lDirectory.c_str(), 1); });
    ASSERT_TRUE(lDaemon.readUntil([&] { return contains(lDaemon.error(), " ready\n"); }));
    const key_t lKey = Channel(lDirectory, mHost.name()).mKey;
    EXPECT_LE(0, shmget(lKey, 0, 0));
    std::filesystem::remove_all(lDirectory);
    EXPECT_EQ(1, lDaemon.finish().mStatus);
    EXPECT_GT(0, shmget(lKey, 0, 0));
}

/// Where the log of a daemon goes whose reader stalls.
class Stalled : public Trouble, public testing::WithParamInterface<bool>
{
};

TEST_P(Stalled, ReaderOfTheLogDoesNotKeepADaemonFromEnding)
{
    int lSockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lSockets));
    const std::string lDisks = mHost.directory() + "/df";
    std::ofstream(lDisks) << "#!/bin/sh\nhead -c 500000 /dev/zero >&2\necho done\n";
    chmod(lDisks.c_str(), 0755);
    const auto lPrepare = [&] {
        setenv("PATH", (mHost.directory() + ":" + getenv("PATH")).c_str(), 1);
        if (GetParam()) {
            const int lSmall = 4608;
            setsockopt(lSockets[0], SOL_SOCKET, SO_SNDBUF, &lSmall, sizeof lSmall);
            dup2(lSockets[0], STDERR_FILENO);
        } else {
            fcntl(STDERR_FILENO, F_SETPIPE_SZ, 4096);
        }
    };
    const auto lDaemon = foreground(mHost, {"--trace"}, lPrepare);
    std::string lRequests;
    for (int lRequest = 0; lRequest < 200; ++lRequest) {
        lRequests += framed("t echo x");
    }
    EXPECT_EQ(static_cast<ssize_t>(lRequests.size()), mHost.writeRaw(lRequests));
    EXPECT_TRUE(eventually([&] { return "done\n" == mHost.hostctl({"ask", "disks"}).mOut; }));
    lDaemon->kill(SIGTERM);
    EXPECT_TRUE(lDaemon->endsUnread(0));
    unlink(lDisks.c_str());
    EXPECT_EQ(Strings{}, mHost.left());
    close(lSockets[0]);
    close(lSockets[1]);
}

INSTANTIATE_TEST_SUITE_P(By, Stalled, testing::Bool(), [](const testing::TestParamInfo<bool>& acrInfo) {
    return std::string(acrInfo.param ? "Socket" : "Pipe");
});

TEST_F(Trouble, ALogWithoutAReaderDoesNotKeepADaemonFromFailing)
{
    ASSERT_EQ(0, mkfifo(mHost.log().c_str(), 0600));
    mHost.expectFailure("hostd: cannot open " + mHost.log() + ": No such device or address",
                        {"start", "--log", mHost.log()});
    EXPECT_EQ(Strings{}, mHost.left());
}

TEST_F(Trouble, AFloodIsLoggedInFewLines)
{
    mHost.start();
    // Garbage, refused requests with a token, and good requests whose answers nobody can take.
    for (const std::string& acrKind : {std::string("x") + framed(""), framed("t nonsense"), framed("t echo x")}) {
        std::string lFlood;
        while (lFlood.size() < 20000) {
            lFlood += acrKind;
        }
        EXPECT_EQ(static_cast<ssize_t>(lFlood.size()), mHost.writeRaw(lFlood));
    }
    EXPECT_TRUE(mHost.logs("30 errors within a minute: no further line of this minute is logged\n"));
    EXPECT_TRUE(eventually([&] { return "next\n" == mHost.hostctl({"ask", "echo", "next"}).mOut; }));
    mHost.stop();
    const std::string lLog = contentOf(mHost.log());
    EXPECT_TRUE(contains(lLog, " ending\n"));
    EXPECT_GE(100u, countOf(lLog, "\n")) << lLog;
}

TEST_F(Trouble, ALogAtTheSizeLimitOfFilesDoesNotEndADaemon)
{
    const rlimit lSmall = {1000, 1000};
    const auto lDaemon =
        foreground(mHost, {"--trace", "--log", mHost.log()}, [&] { setrlimit(RLIMIT_FSIZE, &lSmall); });
    for (const char* lpText : {"a", "b", "c"}) {
        mHost.expectAnswer(std::string(lpText) + "\n", {"ask", "echo", lpText});
    }
    EXPECT_EQ(lSmall.rlim_cur, contentOf(mHost.log()).size()) << "the limit is reached";
    lDaemon->kill(SIGTERM);
    EXPECT_EQ(0, lDaemon->finish().mStatus);
    EXPECT_EQ(Strings{}, mHost.left());
}

TEST_F(Trouble, CommandsOfADaemonIgnoreNoSignal)
{
    const std::string lDisks = mHost.directory() + "/df";
    std::ofstream(lDisks) << "#!/bin/sh\ngrep SigIgn /proc/self/status\n";
    chmod(lDisks.c_str(), 0755);
    const auto lDaemon = foreground(mHost, {}, [&] {
        setenv("PATH", (mHost.directory() + ":" + getenv("PATH")).c_str(), 1);
        for (const int lSignal : {SIGPIPE, SIGXFSZ}) {
            signal(lSignal, SIG_DFL);  // whatever this program was started with
        }
    });
    const Result lResult = mHost.hostctl({"ask", "disks"});
    unsigned long lIgnored = ~0UL;
    EXPECT_EQ(1, sscanf(lResult.mOut.c_str(), "SigIgn: %lx", &lIgnored)) << lResult.mOut << lResult.mError;
    EXPECT_EQ(0u, lIgnored & (1UL << (SIGPIPE - 1) | 1UL << (SIGXFSZ - 1)));
    lDaemon->kill(SIGTERM);
    EXPECT_EQ(0, lDaemon->finish().mStatus);
    unlink(lDisks.c_str());
}

TEST_F(Trouble, HelpIsPrintedOnStandardOutput)
{
    for (const Strings& acrWords : {Strings{HOSTCTL, "--help"}, Strings{HOSTCTL, "ask", "--help"},
                                    Strings{HOSTCTL, "stop", "--trace", "--help"}, Strings{HOSTD, "--help"}}) {
        const Result lResult = Process(acrWords).finish();
        EXPECT_EQ(0, lResult.mStatus);
        EXPECT_EQ("usage: host", lResult.mOut.substr(0, 11));
        EXPECT_EQ("", lResult.mError);
        const Result lFull = Process(acrWords, "/dev/full").finish();
        EXPECT_EQ(1, lFull.mStatus);
        EXPECT_TRUE(contains(lFull.mError, ": cannot print: No space left on device\n")) << lFull.mError;
    }
}

}  // namespace
