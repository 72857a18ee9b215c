// Tests oqtrace on logs that real operations wrote, and on damaged logs. This program substitutes no function, so the
// companion writes a real log.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <utility>

#include "OQCompanionSettings.h"
#include "support/Command.h"

// The test with cut logs runs oqtrace thousands of times, so oqtrace runs in this process.
#define main oqtraceMain
#include "oqtrace.cpp"
#undef main

namespace
{

const std::string cTree = OQ_TREE;

// ---- Logs -----------------------------------------------------------------------------------------------------------

/// Returns a line as the companion writes it. The time counts in microseconds.
std::string lineOf(int64_t aTime, unsigned int aProcess, unsigned int aThread, const std::string& acrFunction,
                   const std::string& acrMessage, const char* acTag = "-T-", const std::string& acrFile = "")
{
    static const std::map<std::string, std::string> cFile = {{"OsExecute", ".//MiscLinux"},
                                                             {"OsBreak", ".//MiscLinux"},
                                                             {"OsWaitForActivity", ".//MiscLinux"},
                                                             {"OsLockFile", ".//MiscLinux"},
                                                             {"OsNamedPipeWaitForActivity", ".//NamedPipeLinux"},
                                                             {"OsNamedPipeRead", ".//NamedPipeLinux"},
                                                             {"sTimedWaitOnFlag", ".//SharedMemoryLinux"},
                                                             {"OsSharedMemoryOpen", ".//SharedMemoryLinux"},
                                                             {"OsSharedMemoryRead", ".//SharedMemoryLinux"},
                                                             {"OsSharedMemoryWrite", ".//SharedMemoryLinux"}};
    const auto lFound = cFile.find(acrFunction);
    const std::string lFile = !acrFile.empty() ? acrFile : cFile.end() == lFound ? ".//host" : lFound->second;
    char lTime[64];
    snprintf(lTime, sizeof lTime, "2026-03-01T12:%02d:%02d.%06dZ", static_cast<int>(aTime / 60000000 % 60),
             static_cast<int>(aTime / 1000000 % 60), static_cast<int>(aTime % 1000000));
    return std::string(lTime) + " " + std::to_string(aProcess) + " " + std::to_string(aThread) + " " + acTag + " " +
           acrFunction + " (" + lFile + ":1) " + acrMessage + "\n";
}

/// Writes a log with one line for each word, a microsecond apart: "+F" enters F, "-F" leaves F, and "F:TEXT" is a line
/// of F. A word may begin with "THREAD@".
std::string logOf(const std::string& acrWords)
{
    std::istringstream lWords(acrWords);
    std::string lWord, lLog;
    for (int64_t lTime = 0; lWords >> lWord; ++lTime) {
        const size_t lAt = lWord.find('@');
        const unsigned int lThread = std::string::npos == lAt ? 7 : static_cast<unsigned int>(std::stoul(lWord));
        lWord.erase(0, std::string::npos == lAt ? 0 : lAt + 1);
        const size_t lColon = lWord.find(':');
        std::string lText = std::string::npos == lColon ? "" : lWord.substr(lColon + 1);
        std::replace(lText.begin(), lText.end(), '_', ' ');
        const char* const lpTag = 0 == lText.find("Failed to l") ? "-E-" : 0 == lText.find("Assert") ? "-H-" : "-T-";
        lLog += '+' == lWord[0]   ? lineOf(lTime, 1, lThread, lWord.substr(1), "Entered")
                : '-' == lWord[0] ? lineOf(lTime, 1, lThread, lWord.substr(1), "Left")
                                  : lineOf(lTime, 1, lThread, lWord.substr(0, lColon), lText, lpTag);
    }
    return lLog;
}

class OqtraceTest : public LeftoverTest
{
protected:
    void TearDown() override
    {
        for (const std::string& acrPath : mFiles) {
            unlink(acrPath.c_str());
        }
        LeftoverTest::TearDown();
    }
    /// A file that is removed after the test.
    std::string file(const std::string& acrName)
    {
        mFiles.insert(path(acrName));
        return path(acrName);
    }
    std::string written(const std::string& acrName, const std::string& acrText)
    {
        std::ofstream(file(acrName), std::ios::binary) << acrText;
        return path(acrName);
    }
    /// Runs the program on a log, and expects success. \return its standard output
    std::string traced(const std::string& acrLog, const Strings& acrOptions = {})
    {
        return tracedFiles({written("log", acrLog)}, acrOptions);
    }
    std::string tracedFiles(const Strings& acrFiles, const Strings& acrOptions = {})
    {
        Strings lWords = {OQTRACE};
        lWords.insert(lWords.end(), acrOptions.begin(), acrOptions.end());
        lWords.insert(lWords.end(), acrFiles.begin(), acrFiles.end());
        const Result lResult = resultOf(lWords);
        EXPECT_EQ(0, lResult.mStatus) << lResult.mError;
        return lResult.mOut;
    }
    /// Runs operations in a child that logs into a file with every level.
    void log(const std::string& acrPath, const std::function<void()>& acrRun)
    {
        EXPECT_EQ(0, inChild([&] {
                      const int lLog = open(acrPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
                      SetLogDescriptor(lLog);
                      SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace);
                      acrRun();
                      SetLogLevels(0);
                      close(lLog);
                  }));
    }

private:
    std::set<std::string> mFiles;
};

/// Returns the cells of the row of an operation, after the operation: calls, total, own, median, 99 %, maximum, errors,
/// thrown, open. With a process, the output must be that of --threads.
Strings rowOf(const std::string& acrSummary, const std::string& acrOperation, unsigned int aProcess = 0)
{
    std::istringstream lText(acrSummary);
    for (std::string lLine; std::getline(lText, lLine);) {
        std::istringstream lLineText(lLine);
        Strings lCells{std::istream_iterator<std::string>(lLineText), {}};
        if (0 != aProcess) {
            if (lCells.size() < 3 || std::to_string(aProcess) != lCells[0]) {
                continue;
            }
            lCells.erase(lCells.begin(), lCells.begin() + 2);
        }
        if (!lCells.empty() && acrOperation == lCells[0]) {
            lCells.erase(lCells.begin());
            return lCells;
        }
    }
    return Strings(9);
}

/// "CALLS ERRORS THROWN OPEN" of an operation.
std::string numbersOf(const std::string& acrSummary, const std::string& acrOperation, unsigned int aProcess = 0)
{
    const Strings lCells = rowOf(acrSummary, acrOperation, aProcess);
    return lCells[0] + " " + lCells[6] + " " + lCells[7] + " " + lCells[8];
}

// ---- Chrome trace events --------------------------------------------------------------------------------------------

/// The members of an event. Those of "args" have names such as "args.line". Strings begin with a quotation mark.
typedef std::map<std::string, std::string> TraceEvent;

/// Parses the array of events strictly. Adds a failure if the text is not valid JSON.
class EventParser
{
public:
    explicit EventParser(const std::string& acrText) : mText(acrText) {}

    std::vector<TraceEvent> parse()
    {
        std::vector<TraceEvent> lEvents;
        take('[');
        while (!mFailed && ']' != next()) {
            if (!lEvents.empty()) {
                take(',');
            }
            lEvents.emplace_back();
            object(lEvents.back(), "");
        }
        take(']');
        next();
        EXPECT_TRUE(!mFailed && mText.size() == mAt) << "not JSON at " << mAt << ": " << mText.substr(0, 2000);
        return lEvents;
    }

private:
    char next()
    {
        mAt = std::min(mText.size(), mText.find_first_not_of(" \n", mAt));
        return mText.size() == mAt ? '\0' : mText[mAt];
    }
    void take(char aCharacter)
    {
        mFailed = mFailed || aCharacter != next();
        mAt += mFailed ? 0 : 1;
    }
    void object(TraceEvent& arEvent, const std::string& acrPrefix)
    {
        take('{');
        for (bool lFirst = true; !mFailed && '}' != next(); lFirst = false) {
            if (!lFirst) {
                take(',');
            }
            const std::string lName = acrPrefix + string().substr(1);
            take(':');
            if ('{' == next()) {
                object(arEvent, lName + ".");
            } else {
                arEvent[lName] = '"' == next() ? string() + '"' : word();
            }
        }
        take('}');
    }
    /// Takes a string. \return its characters as written, without the last quotation mark
    std::string string()
    {
        next();
        const size_t lBegin = mAt;
        for (take('"'); !mFailed && mAt < mText.size() && '"' != mText[mAt];) {
            const size_t lEscape = '\\' != mText[mAt] ? 1 : 'u' == mText[mAt + 1] ? 6 : 2;
            mFailed = (1 == lEscape && 0 <= mText[mAt] && mText[mAt] < ' ') ||
                      (2 == lEscape && '"' != mText[mAt + 1] && '\\' != mText[mAt + 1]) ||
                      (6 == lEscape && std::string::npos != mText.find_first_not_of("0123456789abcdef", mAt + 2) &&
                       mText.find_first_not_of("0123456789abcdef", mAt + 2) < mAt + 6);
            mAt += lEscape;
        }
        const std::string lString = mText.substr(lBegin, mAt - lBegin);
        take('"');
        return lString;
    }
    /// Takes a number without a sign, or "true".
    std::string word()
    {
        const size_t lEnd = std::min(mText.size(), mText.find_first_not_of("0123456789.true", mAt));
        const std::string lWord = mText.substr(mAt, lEnd - mAt);
        mFailed = mFailed || ("true" != lWord &&
                              (lWord.empty() || '.' == lWord[0] || '.' == lWord.back() ||
                               std::string::npos != lWord.find_first_not_of("0123456789.") || 1 < countOf(lWord, ".")));
        mAt = lEnd;
        return lWord;
    }

    const std::string& mText;
    size_t mAt = 0;
    bool mFailed = false;
};

/// Parses the events and expects what every viewer needs: each call ends in its thread after the calls inside it, and
/// all times are different and increase.
std::vector<TraceEvent> balanced(const std::string& acrText)
{
    std::vector<TraceEvent> lEvents = EventParser(acrText).parse();
    std::map<std::string, Strings> lOpen;
    double lLast = -1;
    for (TraceEvent& lrEvent : lEvents) {
        if ("\"M\"" == lrEvent["ph"]) {
            continue;
        }
        EXPECT_LT(lLast, std::stod(lrEvent["ts"])) << acrText;
        lLast = std::stod(lrEvent["ts"]);
        Strings& lrStack = lOpen[lrEvent["pid"] + "/" + lrEvent["tid"]];
        if ("\"B\"" == lrEvent["ph"]) {
            lrStack.push_back(lrEvent["name"]);
        } else if ("\"E\"" == lrEvent["ph"] && !lrStack.empty()) {
            EXPECT_EQ(lrStack.back(), lrEvent["name"]) << acrText;
            lrStack.pop_back();
        } else {
            EXPECT_EQ("\"i\"", lrEvent["ph"]) << acrText;
        }
    }
    for (const auto& acrEntry : lOpen) {
        EXPECT_TRUE(acrEntry.second.empty()) << acrEntry.first << " has an open call:\n" << acrText;
    }
    return lEvents;
}

/// Returns the events of one thread as words: "+F" begins F, "-F" ends F ("-F!" by an exception, "-F?" if it is open),
/// and "F" is an instant.
std::string shapeOf(std::vector<TraceEvent> aEvents)
{
    std::string lShape;
    for (TraceEvent& lrEvent : aEvents) {
        std::string lName = lrEvent["name"];
        lName = lName.substr(1, lName.size() - 2);
        if ("\"M\"" != lrEvent["ph"]) {
            lShape += lShape.empty() ? "" : " ";
            lShape += "\"B\"" == lrEvent["ph"] ? "+" + lName : "\"E\"" == lrEvent["ph"] ? "-" + lName : lName;
            lShape += "true" == lrEvent["args.thrown"] ? "!" : "true" == lrEvent["args.open"] ? "?" : "";
        }
    }
    return lShape;
}

// ---- Real operations ------------------------------------------------------------------------------------------------

/// Operations that succeed, fail with an error line, fail without one, and nest.
void operate()
{
    int lEnds[2];
    EXPECT_EQ(0, pipe2(lEnds, O_CLOEXEC));
    const auto lThrows = [](const std::function<void()>& acrRun) {
        try {
            acrRun();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const OQCException&) {
        }
    };
    lThrows([&] { OsNamedPipeWaitForActivity(lEnds[0], 0); });
    lThrows([&] { OsWaitForActivity(lEnds[0], 0); });
    unsigned int lDone = 0;
    OsNamedPipeWrite(lEnds[1], reinterpret_cast<const unsigned char*>("data"), 4, lDone);
    OsNamedPipeWaitForActivity(lEnds[0], 0);
    lThrows([&] { OsLockFile(lEnds[0]); });
    OQShmDesc lNone = {1, 64, -1, nullptr};
    lThrows([&] { OsSharedMemoryOpen(lNone, static_cast<OQEConnectionMode>(OQCM_Client)); });
    OQCList<OQCString> lLines;
    OsExecute("echo one; echo two", lLines);
    EXPECT_EQ(2U, lLines.size());
    close(lEnds[0]);
    close(lEnds[1]);
}

void expectOperations(const std::string& acrSummary, unsigned int aTimes)
{
    const auto lNumbers = [=](unsigned int aCalls, unsigned int aErrors, unsigned int aThrown) {
        return std::to_string(aTimes * aCalls) + " " + std::to_string(aTimes * aErrors) + " " +
               std::to_string(aTimes * aThrown) + " 0";
    };
    EXPECT_EQ(lNumbers(2, 0, 1), numbersOf(acrSummary, "OsNamedPipeWaitForActivity")) << acrSummary;
    EXPECT_EQ(lNumbers(3, 0, 2), numbersOf(acrSummary, "OsWaitForActivity")) << acrSummary;
    EXPECT_EQ(lNumbers(1, 0, 0), numbersOf(acrSummary, "OsNamedPipeWrite")) << acrSummary;
    EXPECT_EQ(lNumbers(1, 1, 1), numbersOf(acrSummary, "OsLockFile")) << acrSummary;
    EXPECT_EQ(lNumbers(1, 0, 1), numbersOf(acrSummary, "OsSharedMemoryOpen")) << acrSummary;
    EXPECT_EQ(lNumbers(1, 0, 0), numbersOf(acrSummary, "OsExecute")) << acrSummary;
    EXPECT_FALSE(contains(acrSummary, "still inside")) << acrSummary;
    EXPECT_FALSE(contains(acrSummary, "cut lines")) << acrSummary;
}

TEST_F(OqtraceTest, RealOperationsAreCountedTimedAndNested)
{
    const std::string lLog = file("real");
    log(lLog, operate);
    expectOperations(tracedFiles({lLog}), 1);
    const std::string lFolded = tracedFiles({lLog}, {"--folded", "-"});
    for (const char* lpStack : {"\nOsNamedPipeWaitForActivity;OsWaitForActivity ", "\nOsWaitForActivity ",
                                "\nOsExecute ", "\nOsExecute;OsBreak "}) {
        EXPECT_TRUE(contains("\n" + lFolded, lpStack)) << lFolded;
    }
    const std::string lTrace = tracedFiles({lLog}, {"--chrome", "-"});
    balanced(lTrace);
    EXPECT_TRUE(contains(lTrace, R"("messages":"Writing 4 bytes")")) << lTrace;
    EXPECT_TRUE(contains(lTrace, R"("cat":"error")")) << lTrace;
}

TEST_F(OqtraceTest, EightThreadsOfEachOfThreeProcessesHaveLanesOfTheirOwn)
{
    const Strings lLogs = {file("first"), file("second"), file("third")};
    std::vector<std::unique_ptr<Peer>> lPeers;
    for (size_t lProcess = 0; lProcess < 3; ++lProcess) {
        lPeers.emplace_back(new Peer([&](Peer& arTest) {
            // Two of the processes share a file.
            const int lLog = open(lLogs[lProcess / 2].c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            SetLogDescriptor(lLog);
            SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace);
            std::vector<std::thread> lThreads;
            arTest.signal();
            arTest.meet();
            for (int lThread = 0; lThread < 8; ++lThread) {
                lThreads.emplace_back(operate);
            }
            for (std::thread& lrThread : lThreads) {
                lrThread.join();
            }
            close(lLog);
        }));
    }
    for (const auto& acrPeer : lPeers) {
        acrPeer->meet();
    }
    std::set<std::string> lProcesses;
    for (const auto& acrPeer : lPeers) {
        lProcesses.insert(std::to_string(acrPeer->pid()));
        acrPeer->signal();
    }
    for (const auto& acrPeer : lPeers) {
        EXPECT_EQ(0, acrPeer->wait());
    }
    expectOperations(tracedFiles({lLogs[0], lLogs[1]}), 24);
    const std::string lByThread = tracedFiles({lLogs[0], lLogs[1]}, {"--threads"});
    EXPECT_EQ(24U, countOf(lByThread, " OsLockFile ")) << lByThread;

    std::set<std::string> lShown, lNumbers;
    for (TraceEvent& lrEvent : balanced(tracedFiles({lLogs[1], lLogs[0]}, {"--chrome", "-"}))) {
        lShown.insert(lrEvent["pid"]);
        if ("\"thread_name\"" == lrEvent["name"]) {
            lNumbers.insert(lrEvent["tid"]);
        }
    }
    EXPECT_EQ(lProcesses, lShown);
    EXPECT_EQ(24U, lNumbers.size());
    EXPECT_TRUE(0 < lNumbers.count("1") && 0 < lNumbers.count("24"));
    unlink(lLogs[2].c_str());
}

TEST_F(OqtraceTest, EveryLogOfTheGuideBecomesABalancedTimeline)
{
    unsigned int lLogs = 0;
    for (const auto& acrEntry : std::filesystem::directory_iterator(cTree + "/examples/guide")) {
        if (".log" == acrEntry.path().extension()) {
            ++lLogs;
            EXPECT_LT(0U, balanced(tracedFiles({acrEntry.path()}, {"--chrome", "-"})).size());
            EXPECT_FALSE(contains(tracedFiles({acrEntry.path()}), "other lines")) << acrEntry.path();
        }
    }
    EXPECT_LE(6U, lLogs);
}

/// Returns the number after a text, or -1 if the text does not occur.
double numberAfter(const std::string& acrText, const std::string& acrBefore)
{
    const size_t lAt = acrText.rfind(acrBefore);
    return std::string::npos == lAt ? -1 : std::stod(acrText.substr(lAt + acrBefore.size()));
}

TEST_F(OqtraceTest, TheOpenCallOfAHungDaemonIsNamedWithItsAge)
{
    const std::string lName = "oqtrace-" + std::to_string(getpid()), lLog = file("log"), lGate = file("gate");
    const std::string lDirectory = std::filesystem::path(lLog).parent_path();
    ASSERT_EQ(0, mkfifo(lGate.c_str(), 0600));
    writeProgram(file("df"), "#!/bin/sh\nread word <" + lGate + "\necho $word\n");  // hangs until the gate is open
    const auto lPrepare = [&] {
        setenv("XDG_RUNTIME_DIR", lDirectory.c_str(), 1);
        setenv("PATH", (lDirectory + ":" + getenv("PATH")).c_str(), 1);
    };
    Command lDaemon({HOSTD, "--name", lName, "--trace", "--log", lLog}, lPrepare);
    EXPECT_TRUE(eventually([&] { return contains(contentOf(lLog), " ready\n"); }));
    Command lAsk({HOSTCTL, "--name", lName, "ask", "disks"}, lPrepare);
    // The main thread of the daemon waits again and again, one second each time.
    EXPECT_TRUE(eventually([&] {
        const std::string lText = contentOf(lLog);
        const size_t lAt = lText.find("Calling popen");
        return std::string::npos != lAt && 2 <= countOf(lText.substr(lAt), "No data within 1 seconds.");
    }));

    const char* const cOpen = "still inside: OsExecute, for ";
    const std::string lSummary = tracedFiles({lLog});
    EXPECT_LE(1, numberAfter(lSummary, cOpen)) << lSummary;
    EXPECT_EQ("1 0 0 1", numbersOf(lSummary, "OsExecute")) << lSummary;
    EXPECT_TRUE(contains(tracedFiles({lLog}, {"--chrome", "-"}), R"("name":"OsExecute","ts":)")) << lSummary;

    Command lTool({OQTRACE, "--follow", lLog});
    EXPECT_TRUE(lTool.readUntil([&] { return contains(lTool.out(), "log lines: "); }));
    const double lAge = numberAfter(lTool.out(), cOpen);
    EXPECT_LE(1, lAge) << lTool.out();
    const std::string lLast = contentOf(lLog);
    EXPECT_TRUE(eventually([&] { return lLast != contentOf(lLog); }));
    lTool.kill(SIGINT);
    const Result lFollowed = lTool.finish();
    EXPECT_EQ(0, lFollowed.mStatus) << lFollowed.mError;
    EXPECT_LT(lAge, numberAfter(lFollowed.mOut, cOpen)) << lFollowed.mOut;

    std::ofstream(lGate) << "open\n";
    EXPECT_EQ("open\n", lAsk.finish().mOut);
    lDaemon.kill(SIGTERM);
    EXPECT_EQ(0, lDaemon.finish().mStatus);
    EXPECT_FALSE(contains(tracedFiles({lLog}), "still inside"));
}

// ---- Nesting --------------------------------------------------------------------------------------------------------

/// The traced operations in the sources of the layer.
struct Sources {
    std::map<std::string, std::string> mFileOf;            // as the log names it
    std::set<std::pair<std::string, std::string>> mCalls;  // caller and called, also through functions without a trace
};

/// Returns whether a text contains a call of a function, possibly with a template argument.
bool calls(const std::string& acrBody, const std::string& acrFunction)
{
    for (size_t lAt = 0; std::string::npos != (lAt = acrBody.find(acrFunction, lAt)); ++lAt) {
        const char lBefore = 0 == lAt ? ' ' : acrBody[lAt - 1], lAfter = acrBody[lAt + acrFunction.size()];
        if (0 == isalnum(lBefore) && '_' != lBefore && ('(' == lAfter || '<' == lAfter)) {
            return true;
        }
    }
    return false;
}

Sources readSources()
{
    std::map<std::string, std::string> lBodies, lFiles;
    for (const auto& acrEntry : std::filesystem::directory_iterator(cTree + "/linux")) {
        std::ifstream lSource(acrEntry.path());
        std::string lFunction;
        for (std::string lLine; ".cpp" == acrEntry.path().extension() && std::getline(lSource, lLine);) {
            const size_t lBracket = lLine.find('(');
            const bool lBegins = !lLine.empty() && 0 != islower(lLine[0]) && ';' != lLine.back();
            if (lBegins && std::string::npos != lBracket) {
                const size_t lBlank = lLine.find_last_of(" *&", lBracket);
                lFunction = lLine.substr(lBlank + 1, lBracket - lBlank - 1);
                lFiles[lFunction] = ".//" + acrEntry.path().stem().string();
                lBodies[lFunction] = lLine.substr(lBracket);
            } else if (!lFunction.empty()) {
                lBodies[lFunction] += lLine + "\n";
            }
        }
    }
    Sources lSources;
    for (const auto& acrCaller : lBodies) {
        if (!contains(acrCaller.second, "OQ_ENTERED()")) {
            continue;
        }
        lSources.mFileOf[acrCaller.first] = lFiles[acrCaller.first];
        std::set<std::string> lSeen = {acrCaller.first};
        for (Strings lToSearch = {acrCaller.second}; !lToSearch.empty();) {
            const std::string lBody = lToSearch.back();
            lToSearch.pop_back();
            for (const auto& acrCalled : lBodies) {
                if (!calls(lBody, acrCalled.first) || !lSeen.insert(acrCalled.first).second) {
                    continue;
                }
                if (contains(acrCalled.second, "OQ_ENTERED()")) {
                    lSources.mCalls.emplace(acrCaller.first, acrCalled.first);
                } else {
                    lToSearch.push_back(acrCalled.second);
                }
            }
        }
    }
    return lSources;
}

TEST_F(OqtraceTest, OperationsNestExactlyAsTheSourcesSay)
{
    const Sources lSources = readSources();
    EXPECT_EQ(29U, lSources.mFileOf.size());
    std::string lLog;
    unsigned int lProcess = 0;
    std::set<std::string> lExpected, lNested;
    for (const auto& acrOuter : lSources.mFileOf) {
        for (const auto& acrInner : lSources.mFileOf) {
            ++lProcess;
            lLog += lineOf(lProcess, lProcess, 1, acrOuter.first, "Entered", "-T-", acrOuter.second) +
                    lineOf(lProcess, lProcess, 1, acrInner.first, "Entered", "-T-", acrInner.second) +
                    lineOf(lProcess, lProcess, 1, acrInner.first, "Left", "-T-", acrInner.second);
        }
    }
    for (const auto& acrCall : lSources.mCalls) {
        lExpected.insert(acrCall.first + ";" + acrCall.second);
    }
    EXPECT_EQ(3U, lExpected.size());
    std::istringstream lFolded(traced(lLog, {"--folded", "-"}));
    for (std::string lStack, lTime; lFolded >> lStack >> lTime;) {
        if (contains(lStack, ";")) {
            lNested.insert(lStack);
        }
    }
    EXPECT_EQ(lExpected, lNested);
}

TEST_F(OqtraceTest, ACallThatAnExceptionLeftEndsWhereTheLogShowsIt)
{
    const std::pair<const char*, const char*> cLogs[] = {
        // A line announces that the wait throws; its caller ends, too, and the next wait is the caller's own.
        {"+OsNamedPipeWaitForActivity +OsWaitForActivity OsWaitForActivity:No_data_within_1 -OsWaitForActivity "
         "+OsWaitForActivity -OsWaitForActivity",
         "+OsNamedPipeWaitForActivity +OsWaitForActivity No data within 1 -OsWaitForActivity! "
         "-OsNamedPipeWaitForActivity! +OsWaitForActivity -OsWaitForActivity"},
        {"+OsSharedMemoryWrite +sTimedWaitOnFlag sTimedWaitOnFlag:Timed_out_waiting_on_Shared_Memory "
         "+sTimedWaitOnFlag -sTimedWaitOnFlag",
         "+OsSharedMemoryWrite +sTimedWaitOnFlag Timed out waiting on Shared Memory -sTimedWaitOnFlag! "
         "-OsSharedMemoryWrite! +sTimedWaitOnFlag -sTimedWaitOnFlag"},
        // No line announces the exception. The next call of the thread shows that the call has ended.
        {"+OsSharedMemoryOpen 8@+OsLockFile +OsSharedMemoryOpen 8@-OsLockFile -OsSharedMemoryOpen",
         "+OsSharedMemoryOpen +OsLockFile -OsSharedMemoryOpen! +OsSharedMemoryOpen -OsLockFile -OsSharedMemoryOpen"},
        {"+OsNamedPipeWaitForActivity +OsWaitForActivity -OsWaitForActivity +OsWaitForActivity",
         "+OsNamedPipeWaitForActivity +OsWaitForActivity -OsWaitForActivity -OsNamedPipeWaitForActivity! "
         "+OsWaitForActivity -OsWaitForActivity?"},
        {"+OsSharedMemoryWrite +sTimedWaitOnFlag +OsExecute +OsBreak -OsBreak +OsBreak -OsBreak -OsExecute",
         "+OsSharedMemoryWrite +sTimedWaitOnFlag -sTimedWaitOnFlag! -OsSharedMemoryWrite! +OsExecute +OsBreak "
         "-OsBreak +OsBreak -OsBreak -OsExecute"},
        // Functions of the host nest in any way, and may catch exceptions.
        {"+serve +serve +OsSharedMemoryRead +OsLockFile OsLockFile:Failed_to_lock -OsLockFile -serve -serve",
         "+serve +serve +OsSharedMemoryRead -OsSharedMemoryRead! +OsLockFile Failed to lock -OsLockFile! -serve "
         "-serve"},
        {"+serve +OsSharedMemoryOpen -serve", "+serve +OsSharedMemoryOpen -OsSharedMemoryOpen! -serve"},
        // A failed assertion ends the process.
        {"+OsSharedMemoryOpen OsSharedMemoryOpen:Assertion +OsLockFile",
         "+OsSharedMemoryOpen Assertion -OsSharedMemoryOpen! +OsLockFile -OsLockFile?"},
        // "Left" without a call: the log begins later, or a child of fork() left the call of its parent.
        {"-OsLockFile +OsLockFile -OsExecute -OsLockFile", "Left +OsLockFile Left -OsLockFile"},
    };
    for (const auto& acrLog : cLogs) {
        EXPECT_EQ(acrLog.second, shapeOf(balanced(traced(logOf(acrLog.first), {"--chrome", "-"})))) << acrLog.first;
    }
}

/// The table of all ways in which an operation can end is printed from recorded events.
TEST_F(OqtraceTest, EveryOutcomeOfEveryOperationIsRecognised)
{
    const Sources lSources = readSources();
    const std::map<std::string, std::string> cCalled = {{"OsExecute", "OsBreak"},
                                                        {"OsNamedPipeWaitForActivity", "OsWaitForActivity"},
                                                        {"OsSharedMemoryWrite", "sTimedWaitOnFlag"}};
    std::ifstream lPage(cTree + "/docs/failures.md");
    std::string lLog;
    std::vector<std::pair<std::string, std::string>> lExpected;  // operation, numbers
    for (std::string lLine; std::getline(lPage, lLine);) {
        Strings lCells;
        for (size_t lEnd, lAt = 2; std::string::npos != (lEnd = lLine.find(" | ", lAt)); lAt = lEnd + 3) {
            lCells.push_back(lLine.substr(lAt, lEnd - lAt));
        }
        if (lCells.size() < 5 || 0 != lCells[3].find("`Entered`") || contains(lCells[3], "in the child")) {
            continue;
        }
        const std::string lNamed = lCells[0].substr(1, lCells[0].size() - 2);
        const std::string lOperation = "OsSharedMemoryWaitForActivity" == lNamed ? "sTimedWaitOnFlag" : lNamed;
        const unsigned int lProcess = static_cast<unsigned int>(lExpected.size() + 1);
        Strings lOpen;
        std::string lLast;
        std::istringstream lLogged(lCells[3]);
        for (std::string lWord; std::getline(lLogged, lWord, '`') && std::getline(lLogged, lWord, '`');) {
            // A word is Entered, Left, or -T- "a message".
            const bool lTagged = '-' == lWord[0];
            lLast = lTagged ? lWord.substr(5, lWord.size() - 6) : lWord;
            if ("Entered" == lLast) {
                lOpen.push_back(lOpen.empty() ? lOperation : cCalled.at(lOperation));
            }
            lLog += lineOf(lProcess, lProcess, 1, lOpen.back(), lLast, lTagged ? lWord.substr(0, 3).c_str() : "-T-",
                           lSources.mFileOf.at(lOpen.back()));
            if ("Left" == lLast) {
                lOpen.pop_back();
            }
        }
        const bool lThrows = 0 == lCells[2].find("`OQC");
        const bool lAnnounced = contains(lCells[3], "`-H-") || contains(lCells[3], "`-E-") ||
                                contains(lCells[3], "Shared Segment in use") || contains(lCells[3], "Timed out");
        lExpected.emplace_back(lOperation, "Left" == lLast ? (lThrows ? "1 0" : "0 0") : lAnnounced ? "1 0" : "0 1");
    }
    EXPECT_LE(120U, lExpected.size());
    const std::string lSummary = traced(lLog, {"--threads"});
    for (unsigned int lProcess = 1; lProcess <= lExpected.size(); ++lProcess) {
        const Strings lCells = rowOf(lSummary, lExpected[lProcess - 1].first, lProcess);
        EXPECT_EQ(lExpected[lProcess - 1].second, lCells[7] + " " + lCells[8])
            << lExpected[lProcess - 1].first << ", row " << lProcess;
    }
}

TEST_F(OqtraceTest, AHostThatNeverLogsLeftNeedsNoMoreMemory)
{
    std::string lWords;
    for (int lCall = 0; lCall < 250; ++lCall) {
        lWords += "+forgetful ";
    }
    EXPECT_EQ("250 0 200 50", numbersOf(traced(logOf(lWords)), "forgetful"));
}

// ---- Damaged logs ---------------------------------------------------------------------------------------------------

TEST_F(OqtraceTest, ALogThatIsCutAtAnyByteBecomesABalancedTimeline)
{
    const std::string lLog = logOf(
        "+OsNamedPipeWaitForActivity 8@+OsExecute +OsWaitForActivity OsWaitForActivity:No_data_within_1 8@+OsBreak "
        "-OsWaitForActivity 8@-OsBreak +OsLockFile OsLockFile:Failed_to_lock -OsLockFile 8@-OsExecute");
    const std::string lCut = file("cut"), lTrace = file("trace");
    for (size_t lLength = 0; lLength <= lLog.size(); ++lLength) {
        std::ofstream(lCut, std::ios::binary) << lLog.substr(0, lLength);
        optind = 1;
        std::string lWords[] = {"oqtrace", "--chrome", lTrace, lCut};
        char* lpWords[] = {&lWords[0][0], &lWords[1][0], &lWords[2][0], &lWords[3][0], nullptr};
        testing::internal::CaptureStderr();
        const int lStatus = oqtraceMain(4, lpWords);
        const std::string lError = testing::internal::GetCapturedStderr();
        const size_t lLines = countOf(lLog.substr(0, lLength), "\n");
        const bool lIsWhole = 0 == lLength || '\n' == lLog[lLength - 1];
        EXPECT_EQ(0 == lLines && !lIsWhole ? 1 : 0, lStatus) << lLength;
        EXPECT_EQ(lIsWhole ? "" : "oqtrace: log lines: " + std::to_string(lLines) + ", cut lines: 1\n",
                  lError.substr(0, lError.find("oqtrace: /")))
            << lLength;
        size_t lShown = 0;
        for (TraceEvent& lrEvent : balanced(contentOf(lTrace))) {
            lShown += "\"B\"" == lrEvent["ph"] || "\"i\"" == lrEvent["ph"] ? 1 : 0;
        }
        EXPECT_LE(lShown, lLines);
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(OqtraceTest, OtherLinesAndCutLinesAreCountedAndTheRestIsUsed)
{
    const std::string lEntered = lineOf(1, 1, 7, "OsLockFile", "Entered"),
                      lLeft = lineOf(2, 1, 7, "OsLockFile", "Left");
    const std::pair<std::string, const char*> cLogs[] = {
        {lEntered + lLeft, "log lines: 2\n"},
        {"hello\n\n" + lEntered + "2026\n" + lLeft, "log lines: 2, cut lines: 1, other lines: 2\n"},
        {lEntered + lEntered.substr(0, 50) + "\n" + lLeft, "log lines: 2, cut lines: 1\n"},
        {lEntered + lEntered.substr(0, lEntered.size() - 4) + "\n" + lLeft, "log lines: 2, cut lines: 1\n"},
        {lEntered.substr(0, 30) + lEntered + lLeft, "log lines: 2, cut lines: 1\n"},
        {lEntered.substr(0, 9) + lEntered + lLeft, "log lines: 2, cut lines: 1\n"},
        {lEntered.substr(0, 60) + lEntered + lLeft, "log lines: 2, cut lines: 1\n"},
        {"Mar 01 12:00:00 host hostd[1]: " + lEntered + lLeft, "log lines: 2\n"},
        {lEntered + lLeft + lLeft.substr(0, lLeft.size() - 1), "log lines: 2, cut lines: 1\n"},
        {lEntered + std::string(300000, 'x') + "\n" + lLeft, "log lines: 2, cut lines: 1\n"},
        {lEntered + lLeft + std::string(600000, 'x'), "log lines: 2, cut lines: 1\n"},
        {lEntered + "2026-13-01T12:00:00.000000Z 1 7 -T- f (g:1) x\n" + lLeft, "log lines: 2, other lines: 1\n"},
        {lEntered + "2026-03-01T12:00:00.000000Z 99999999999999999999 7 -T- f (g:1) x\n" + lLeft,
         "log lines: 2, other lines: 1\n"},
        {lEntered + "2026-03-01T12:00:00.000000Z 1 7 -X- f (g:1) x\n" + lLeft, "log lines: 2, other lines: 1\n"},
        {lEntered + lLeft + lLeft, "log lines: 3, \"Left\" without a call: 1\n"},
        {lEntered + lineOf(1, 1, 7, "operator->", "x", "-I-", "a b/c:d") + lLeft, "log lines: 3\n"},
    };
    for (const auto& acrLog : cLogs) {
        const std::string lSummary = traced(acrLog.first);
        EXPECT_EQ("1 0 0 0", numbersOf(lSummary, "OsLockFile")) << lSummary;
        EXPECT_EQ(acrLog.second, lSummary.substr(lSummary.rfind("log lines"))) << acrLog.first.substr(0, 1000);
        balanced(traced(acrLog.first, {"--chrome", "-"}));
    }
}

TEST_F(OqtraceTest, AThreadWhoseHandleIsUsedAgainBeginsAnew)
{
    // A cancelled thread logs no more; the next thread has its handle. The same holds for process ids.
    EXPECT_EQ("+OsNamedPipeRead -OsNamedPipeRead! +OsLockFile -OsLockFile",
              shapeOf(balanced(traced(logOf("+OsNamedPipeRead +OsLockFile -OsLockFile"), {"--chrome", "-"}))));
}

TEST_F(OqtraceTest, TimesThatGoBackwardsStillIncrease)
{
    const std::string lLog = lineOf(10000000, 1, 7, "OsLockFile", "Entered") +
                             lineOf(9999999, 1, 8, "OsExecute", "Entered") +
                             lineOf(10000000, 1, 7, "OsLockFile", "Left") +    // the same time again
                             lineOf(2000000, 1, 7, "OsLockFile", "Entered") +  // eight seconds back
                             lineOf(2500000, 1, 7, "OsLockFile", "Left") +     // half a second later
                             lineOf(60000000, 1, 8, "OsExecute", "Left");      // 50 seconds after the start
    const std::string lSummary = traced(lLog);
    EXPECT_TRUE(contains(lSummary, "clock changes: 1\n")) << lSummary;
    EXPECT_EQ("500.000", rowOf(lSummary, "OsLockFile")[5]) << lSummary;
    EXPECT_EQ("50000.000", rowOf(lSummary, "OsExecute")[5]) << lSummary;
    balanced(traced(lLog, {"--chrome", "-"}));

    // The clock of a machine may start in 1970.
    const std::string lLater = traced("1970-01-01T00:00:01" + logOf("+OsLockFile -OsLockFile").substr(19));
    EXPECT_EQ("0.000", rowOf(lLater, "OsLockFile")[5]) << lLater;

    std::string lRandom;
    std::mt19937 lNumbers(1);
    for (int lLine = 0; lLine < 2000; ++lLine) {
        lRandom += lineOf(lNumbers() % 3600000000, 1, static_cast<unsigned int>(lNumbers() % 3), "OsLockFile",
                          0 == lNumbers() % 2 ? "Entered" : "Left");
    }
    lRandom += "2199-12-31T23:59:60.999999Z" + lRandom.substr(27, lRandom.find('\n') - 26) + lRandom.substr(0, 400);
    balanced(traced(lRandom, {"--chrome", "-"}));
}

TEST_F(OqtraceTest, FilesAreReadInTheOrderOfTheirTimes)
{
    const std::string lFirst = lineOf(1, 1, 7, "OsExecute", "Entered") + lineOf(4, 1, 7, "OsExecute", "Left"),
                      lSecond =
                          lineOf(2, 2, 7, "OsLockFile", "Entered") + "noise\n" + lineOf(3, 2, 7, "OsLockFile", "Left");
    const std::string lShape = "+OsExecute +OsLockFile -OsLockFile -OsExecute";
    const Strings lFiles = {written("first", lFirst), written("second", lSecond)};
    EXPECT_EQ(lShape, shapeOf(balanced(tracedFiles(lFiles, {"--chrome", "-"}))));
    EXPECT_EQ(lShape, shapeOf(balanced(tracedFiles({lFiles[1], lFiles[0]}, {"--chrome", "-"}))));
    const Result lPiped =
        resultOf({"sh", "-c", "cat \"$2\" | \"$0\" --chrome - \"$1\" -", OQTRACE, lFiles[0], lFiles[1]});
    EXPECT_EQ(lShape, shapeOf(balanced(lPiped.mOut))) << lPiped.mError;
}

TEST_F(OqtraceTest, TextsThatAreNoUtf8BecomeValidJson)
{
    const char* const cTexts[] = {"plain",
                                  "quote \" backslash \\",
                                  "</script><!--",
                                  "tab \t bell \a del \x7f",
                                  "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x90\xa7",
                                  "cut \xe2\x82",
                                  "\xff\xc0\x80 \xed\xa0\x80 \xf4\x90\x80\x80"};
    std::string lLog;
    for (const char* lpText : cTexts) {
        lLog += lineOf(1, 1, 7, "OsBreak", lpText);
    }
    const std::string lTrace = file("trace");
    traced(lLog, {"--chrome", lTrace});
    const Result lResult =
        resultOf({"python3", "-c",
                  "import json, sys\n"
                  "events = json.loads(open(sys.argv[1], 'rb').read().decode('utf-8', 'strict'))\n"
                  "print(*[ascii(event['args']['message']) for event in events if event['ph'] == 'i'], sep='\\n')",
                  lTrace});
    EXPECT_EQ(
        "'plain'\n"
        "'quote \" backslash \\\\'\n"
        "'</script><!--'\n"
        "'tab \\t bell \\x07 del \\x7f'\n"
        "'\\xe4 \\u20ac \\U0001f427'\n"
        "'cut \\ufffd\\ufffd'\n"
        "'\\ufffd\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd \\ufffd\\ufffd\\ufffd\\ufffd'\n",
        lResult.mOut)
        << lResult.mError;
    EXPECT_FALSE(contains(contentOf(lTrace), "<"));
}

// ---- Output ---------------------------------------------------------------------------------------------------------

TEST_F(OqtraceTest, TheLogOfTheGuideIsShownInEachForm)
{
    const std::string lLog = cTree + "/examples/guide/trace.log";
    const std::string lSummary = tracedFiles({lLog});
    EXPECT_EQ("operation                   calls  total ms  own ms  median   99 %  maximum  errors  thrown  open",
              lSummary.substr(0, lSummary.find('\n')));
    EXPECT_EQ((Strings{"2", "0.037", "0.030", "0.003", "0.034", "0.034", "0", "1", "0"}),
              rowOf(lSummary, "OsNamedPipeWaitForActivity"));
    EXPECT_EQ((Strings{"2", "0.007", "0.007", "0.001", "0.006", "0.006", "0", "1", "0"}),
              rowOf(lSummary, "OsWaitForActivity"));
    EXPECT_EQ((Strings{"1", "0.005", "0.005", "0.005", "0.005", "0.005", "1", "1", "0"}),
              rowOf(lSummary, "OsLockFile"));
    EXPECT_EQ(
        "OsNamedPipeWaitForActivity 30\nOsNamedPipeWaitForActivity;OsWaitForActivity 7\nOsNamedPipeWrite 4\nOsLockFile "
        "5\n",
        tracedFiles({lLog}, {"--folded", "-"}));
    const std::string lTrace = tracedFiles({lLog}, {"--chrome", "-"});
    EXPECT_TRUE(contains(lTrace, R"("name":"process_name","args":{"name":"trace 6916"}})")) << lTrace;  // of trace.log
    EXPECT_TRUE(contains(lTrace, R"({"ph":"B","pid":6916,"tid":1,"name":"OsNamedPipeWrite","ts":69.000},)")) << lTrace;
    EXPECT_TRUE(contains(
        lTrace,
        R"({"ph":"E","pid":6916,"tid":1,"name":"OsNamedPipeWrite","ts":73.000,"args":{"log":")"
        R"(2026-11-21T11:30:56.859177Z 6916 140676572878656 -T- OsNamedPipeWrite (.//NamedPipeLinux:119) Entered",)"
        R"("messages":"Writing 4 bytes"}})"))
        << lTrace;
}

TEST_F(OqtraceTest, ThePageContainsTheEventsInPlaceOfTheMark)
{
    const std::string lPage = contentOf(cTree + "/tools/timeline.html");
    const size_t lBegin = lPage.find("/*EVENTS*/"), lEnd = lPage.find("/*END*/");
    ASSERT_TRUE(std::string::npos != lBegin && std::string::npos != lEnd);
    EXPECT_EQ(1U, countOf(lPage, "const trace = /*EVENTS*/[];/*END*/\n"));
    const std::string lLog = logOf("+OsLockFile OsLockFile:</script> -OsLockFile");
    const std::string lTrace = traced(lLog, {"--chrome", "-"}), lMade = traced(lLog, {"--html", "-"});
    EXPECT_EQ(lPage.substr(0, lBegin) + lTrace.substr(0, lTrace.size() - 1) + lPage.substr(lEnd + 7), lMade);
}

TEST_F(OqtraceTest, APercentileIsAtMostSlightlyTooHigh)
{
    std::mt19937 lNumbers(1);
    std::vector<double> lTimes;
    std::string lLog;
    int64_t lNow = 0;
    for (int lCall = 0; lCall < 1000; ++lCall) {
        const int64_t lTime = static_cast<int64_t>((1UL << lNumbers() % 20) + lNumbers() % 1000);
        lLog += lineOf(lNow, 1, 7, "OsLockFile", "Entered") + lineOf(lNow + lTime, 1, 7, "OsLockFile", "Left");
        lNow += lTime + 1;
        lTimes.push_back(static_cast<double>(lTime) / 1000);
    }
    std::sort(lTimes.begin(), lTimes.end());
    const Strings lCells = rowOf(traced(lLog), "OsLockFile");
    const auto lExpect = [&](double aExact, const std::string& acrShown) {
        EXPECT_LE(aExact - 0.0005, std::stod(acrShown));
        EXPECT_GE(aExact * 1.016 + 0.0005, std::stod(acrShown));
    };
    lExpect(lTimes[499], lCells[3]);
    lExpect(lTimes[989], lCells[4]);
    EXPECT_NEAR(lTimes[999], std::stod(lCells[5]), 0.0005);
}

TEST_F(OqtraceTest, FollowReadsWhatIsAppendedAndFilesThatReplaceTheLog)
{
    const std::string lLog = written("log", lineOf(1, 1, 7, "OsLockFile", "Entered"));
    Command lTool({OQTRACE, "--follow", lLog});
    const auto lAwait = [&](const char* acNumbers) {
        EXPECT_TRUE(lTool.readUntil([&] {
            const size_t lLast = lTool.out().rfind("operation ");
            return std::string::npos != lLast && acNumbers == numbersOf(lTool.out().substr(lLast), "OsLockFile");
        })) << acNumbers
            << lTool.out() << lTool.error();
    };
    lAwait("1 0 0 1");
    const std::string lNext = lineOf(2, 1, 7, "OsLockFile", "Left");
    std::ofstream(lLog, std::ios::app) << lNext.substr(0, 40);
    std::ofstream(lLog, std::ios::app) << lNext.substr(40);
    lAwait("1 0 0 0");
    std::ofstream(lLog, std::ios::trunc) << lineOf(3, 1, 7, "OsLockFile", "Entered");
    lAwait("2 0 0 1");
    std::filesystem::rename(lLog, file("old"));
    std::ofstream(path("old"), std::ios::app) << lineOf(4, 1, 7, "OsLockFile", "Left");
    written("log", lineOf(5, 1, 7, "OsLockFile", "Entered"));
    lAwait("3 0 0 1");
    lTool.kill(SIGTERM);
    EXPECT_EQ(0, lTool.finish().mStatus);
    EXPECT_EQ(2, resultOf({OQTRACE, "--follow"}).mStatus);
}

TEST_F(OqtraceTest, MemoryDoesNotGrowWithTheLog)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "a sanitizer needs more address space";
    }
    const std::string lPair = logOf("+OsExecute 8@+OsLockFile -OsExecute 8@-OsLockFile");
    std::string lMany;
    while (lMany.size() < 100000) {
        lMany += lPair;
    }
    const Result lResult = resultOf({"sh", "-c",
                                     "ulimit -v 32768; i=0; while [ $i -lt 1000 ]; do cat \"$1\"; i=$((i + 1)); done | "
                                     "\"$0\" --chrome - - | tail -n 1",
                                     OQTRACE, written("log", lMany)});
    EXPECT_EQ("]\n", lResult.mOut.substr(lResult.mOut.size() - 2)) << lResult.mError;
    EXPECT_EQ("", lResult.mError);
}

// ---- The command ----------------------------------------------------------------------------------------------------

TEST_F(OqtraceTest, WrongArgumentsAndFilesAreNamed)
{
    const std::string lLog = written("log", logOf("+OsLockFile -OsLockFile")), lOutput = written("output", "");
    const struct {
        Strings mWords;
        int mStatus;
        std::string mError;
    } cCases[] = {
        {{"/no/log"}, 1, "oqtrace: /no/log: No such file or directory\n"},
        {{lLog, "/"}, 1, "oqtrace: /: Is a directory\n"},
        {{"--chrome", "/no/file", lLog}, 1, "oqtrace: /no/file: No such file or directory\n"},
        {{"--html", lLog, lLog}, 1, "oqtrace: " + lLog + ": the file is used twice\n"},
        {{"--html", lOutput, "--chrome", lOutput, lLog}, 1, "oqtrace: " + lOutput + ": the file is used twice\n"},
        {{"--folded", "/dev/full", lLog}, 1, "oqtrace: /dev/full: No space left on device\n"},
        {{"--chrome", "/dev/full", lLog}, 1, "oqtrace: /dev/full: No space left on device\n"},
        {{cTree + "/tests/CMakeLists.txt"}, 1, "oqtrace: " + cTree + "/tests/CMakeLists.txt: no line of a log\n"},
        {{"--follow", "-"}, 2, "oqtrace: --follow needs files\nTry 'oqtrace --help'.\n"},
        {{"--threads", "--html", "-", lLog}, 2, "oqtrace: --threads changes only the summary\nTry 'oqtrace --help'.\n"},
        {{"--chrome=-", "--html=-"}, 2, "oqtrace: only one output can be the standard output\nTry 'oqtrace --help'.\n"},
    };
    for (const auto& acrCase : cCases) {
        Strings lWords = {OQTRACE};
        lWords.insert(lWords.end(), acrCase.mWords.begin(), acrCase.mWords.end());
        const Result lResult = resultOf(lWords);
        EXPECT_EQ(acrCase.mStatus, lResult.mStatus) << acrCase.mError;
        EXPECT_EQ(acrCase.mError, lResult.mError);
    }
    const Result lAppended = resultOf({OQTRACE, "--chrome", "-", lLog}, outputTo(lLog));  // would never end
    EXPECT_EQ("oqtrace: -: the file is used twice\n", lAppended.mError);
    EXPECT_EQ(logOf("+OsLockFile -OsLockFile"), contentOf(lLog));
    for (const char* lpOption : {"--nonsense", "--chrome", "-x"}) {
        const Result lResult = resultOf({OQTRACE, lpOption});
        EXPECT_EQ(2, lResult.mStatus) << lpOption;
        EXPECT_TRUE(contains(lResult.mError, "oqtrace: ") && contains(lResult.mError, "Try 'oqtrace --help'.\n"));
    }
    for (const Strings& acrWords : {Strings{OQTRACE, lLog}, Strings{OQTRACE, "--help"}}) {
        const Result lResult = resultOf(acrWords, outputTo("/dev/full"));
        EXPECT_EQ(1, lResult.mStatus);
        EXPECT_EQ("oqtrace: standard output: No space left on device\n", lResult.mError);
    }
}

TEST_F(OqtraceTest, HelpAndManualNameTheSameOptions)
{
    const Result lHelp = resultOf({OQTRACE, "--help"});
    EXPECT_EQ(0, lHelp.mStatus);
    std::string lManual = contentOf(cTree + "/tools/oqtrace.1");
    lManual.erase(std::remove(lManual.begin(), lManual.end(), '\\'),
                  lManual.end());  // the page writes "\-" for a hyphen
    for (const char* lpOption : {"--threads", "--chrome", "--html", "--folded", "--follow", "--help", "--version"}) {
        EXPECT_TRUE(contains(lHelp.mOut, lpOption)) << lpOption;
        EXPECT_TRUE(contains(lManual, lpOption)) << lpOption;
    }
    EXPECT_EQ("oqtrace 1.0.0\n", resultOf({OQTRACE, "--version"}).mOut);
}

TEST_F(OqtraceTest, BashCompletesTheOptionsOfBothTools)
{
    const std::string cScript =
        "source \"$0\"; tool=$1; COMP_WORDS=(\"$2\" \"$3\"); COMP_CWORD=1; COMPREPLY=()\n"
        "words=($(complete -p \"$tool\")); for ((at = 0; at < ${#words[@]}; ++at)); do\n"
        "    [ \"${words[at]}\" != -F ] || \"${words[at + 1]}\" \"$2\" \"$3\" \"$2\"; done\n"
        "echo \"${COMPREPLY[*]}\"";
    const struct {
        const char* mTool;
        const char* mProgram;
        const char* mWord;
        const char* mShown;
    } cCases[] = {{"oqtrace", OQTRACE, "--f", "--folded --follow\n"},
                  {"oqtrace", OQTRACE, "--h", "--help --html\n"},
                  {"oqtrace", OQTRACE, "log", "\n"},  // bash completes file names
                  {"oqshm", OQSHM, "--w", "--watch\n"},
                  {"oqshm", OQSHM, "--ve", "--version\n"}};
    for (const auto& acrCase : cCases) {
        const Result lResult = resultOf({"bash", "--norc", "-c", cScript, cTree + "/tools/completion/" + acrCase.mTool,
                                         acrCase.mTool, acrCase.mProgram, acrCase.mWord});
        EXPECT_EQ(acrCase.mShown, lResult.mOut) << lResult.mError;
        EXPECT_EQ("", lResult.mError);
    }
}

}  // namespace
