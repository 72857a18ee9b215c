// Tests the viewers of a trace: the HTML timeline of oqtrace in Chromium, and the log format for lnav. Without the viewer
// a test is skipped. The gate "viewers" requires both viewers.

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Command.h"

namespace
{

bool isInstalled(const std::string& acrProgram)
{
    return 0 == resultOf({"sh", "-c", "command -v " + acrProgram}).mStatus;
}

/// A line of the log. The time is 2026-03-01T12:00:00Z and so many microseconds.
std::string line(int aMicroseconds, const char* acWriter, const char* acTag, const char* acPlace, const char* acMessage)
{
    char lLine[512];
    snprintf(lLine, sizeof lLine, "2026-03-01T12:00:00.%06dZ %s %s %s %s\n", aMicroseconds, acWriter, acTag, acPlace,
             acMessage);
    return lLine;
}

const char* const cPipeWait = "OsNamedPipeWaitForActivity (.//NamedPipeLinux:130)";
const char* const cWait = "OsWaitForActivity (.//MiscLinux:112)";
const char* const cAddress = "OsGetIpAddress (.//MiscLinux:240)";
const char* const cExecute = "OsExecute (.//MiscLinux:145)";
const char* const cProcessWait = "ProcessWait (.//ProcessLinux:275)";

/// Two threads of one process. An exception leaves OsGetIpAddress. A call of OsWaitForActivity is still open.
std::string logOfServer()
{
    const char* const cMain = "4711 140245";
    const char* const cWorker = "4711 140999";
    return line(0, cMain, "-T-", cPipeWait, "Entered") + line(10, cMain, "-T-", cWait, "Entered") +
           line(100000, cMain, "-T-", cWait, "Left") + line(100010, cMain, "-T-", cPipeWait, "Left") +
           line(200000, cWorker, "-T-", cAddress, "Entered") +
           line(300000, cWorker, "-H-", cAddress, "No non-loopback IP Address configured on system") +
           line(400000, cWorker, "-T-", cExecute, "Entered") + line(600000, cMain, "-T-", cWait, "Entered") +
           line(900000, cWorker, "-T-", cExecute, "Left");
}

std::string logOfClient()
{
    const char* const cMain = "4712 140245";
    return line(500000, cMain, "-T-", cProcessWait, "Entered") +
           line(500100, cMain, "-E-", cProcessWait, "The child process exited abnormally") +
           line(500200, cMain, "-I-", "main (.//client:1)", "the child </script><b id=\"injected\"> has ended") +
           line(999000, cMain, "-T-", cProcessWait, "Left");
}

/// Gives each test a folder, which is also the home of the viewer.
class ViewerTest : public LeftoverTest
{
protected:
    void SetUp() override
    {
        LeftoverTest::SetUp();
        mHome = path("home");
        std::filesystem::create_directory(mHome);
        std::ofstream(mHome + "/server.log") << logOfServer();
        std::ofstream(mHome + "/client.log") << logOfClient();
    }

    void TearDown() override
    {
        std::filesystem::remove_all(mHome);
        LeftoverTest::TearDown();
    }

    /// Runs in the child before the viewer. The viewer keeps all its files in the folder of the test.
    void liveAtHome() const
    {
        setenv("HOME", mHome.c_str(), 1);
        setenv("TMPDIR", mHome.c_str(), 1);
        setenv("XDG_CONFIG_HOME", (mHome + "/config").c_str(), 1);
        setenv("XDG_CACHE_HOME", (mHome + "/cache").c_str(), 1);
    }

    std::string mHome;
};

// ---- Chromium ----

/// A browser that shows one page. The two sides exchange messages in JSON, each of which ends with a zero byte.
class Browser
{
public:
    Browser(const std::string& acrHome, const std::function<void()>& acrPrepare)
    {
        int lRequests[2];
        int lAnswers[2];
        if (pipe2(lRequests, O_CLOEXEC) < 0 || pipe2(lAnswers, O_CLOEXEC) < 0) {
            abort();
        }
        mProgram.reset(new Command(
            {"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-dev-shm-usage",
             "--remote-debugging-pipe", "--hide-scrollbars", "--user-data-dir=" + acrHome + "/profile"},
            [&] {
                acrPrepare();
                const int lReadsFrom = fcntl(lRequests[0], F_DUPFD, 10);
                const int lWritesTo = fcntl(lAnswers[1], F_DUPFD, 10);
                dup2(lReadsFrom, 3);  // the browser expects these two numbers
                dup2(lWritesTo, 4);
                close(lReadsFrom);
                close(lWritesTo);
            }));
        close(lRequests[0]);
        close(lAnswers[1]);
        mRequests = lRequests[1];
        mAnswers = lAnswers[0];
    }

    ~Browser()
    {
        call("Browser.close", "");
        mProgram->finish();  // the browser's processes hold the outputs open until they end
        close(mRequests);
        close(mAnswers);
    }

    /// Opens a page and waits until its script has run.
    void open(const std::string& acrAddress, int aWidth = 1280, const char* acScheme = "light")
    {
        const std::string lTarget = textAfter("\"targetId\":\"", call("Target.createTarget", R"("url":"about:blank")"));
        mSession = textAfter("\"sessionId\":\"",
                             call("Target.attachToTarget", R"("flatten":true,"targetId":")" + lTarget + "\""));
        call("Emulation.setDeviceMetricsOverride",
             R"("height":800,"deviceScaleFactor":1,"mobile":false,"width":)" + std::to_string(aWidth));
        call("Emulation.setEmulatedMedia",
             R"("features":[{"name":"prefers-color-scheme","value":")" + std::string(acScheme) + "\"}]");
        call("Page.navigate", R"("url":")" + acrAddress + "\"");
        EXPECT_TRUE(eventually([&] {
            return "true" == value("location.protocol == 'file:' && document.readyState == 'complete' && !drawing");
        })) << "the page does not load";
    }

    /// Returns the value of an expression as a text. The expression contains no double quote.
    std::string value(const std::string& acrExpression)
    {
        const std::string lAnswer = call("Runtime.evaluate", R"("expression":"String()" + acrExpression + ")\"");
        EXPECT_FALSE(contains(lAnswer, "exceptionDetails")) << acrExpression << ": " << lAnswer;
        return textAfter("\"value\":\"", lAnswer);
    }

    /// Returns the value when all changes have been drawn.
    std::string drawn(const std::string& acrExpression)
    {
        EXPECT_TRUE(eventually([&] { return "false" == value("drawing"); }));
        return value(acrExpression);
    }

    void mouse(const char* acType, int aX, int aY, const std::string& acrMore = "")
    {
        call("Input.dispatchMouseEvent", R"("type":")" + std::string(acType) + "\",\"x\":" + std::to_string(aX) +
                                             ",\"y\":" + std::to_string(aY) + acrMore);
    }

    /// Touches the screen with two fingers on one line.
    void touch(const char* acType, int aLeft, int aRight, int aY)
    {
        const auto lPoint = [&](int aX) {
            return "{\"x\":" + std::to_string(aX) + ",\"y\":" + std::to_string(aY) + "}";
        };
        call("Input.dispatchTouchEvent", R"("type":")" + std::string(acType) + R"(","touchPoints":[)" +
                                             (aLeft < aRight ? lPoint(aLeft) + "," + lPoint(aRight) : "") + "]");
    }

    void press(const std::string& acrKey, const std::string& acrText = "")
    {
        const std::string lText = acrText.empty() ? "" : ",\"text\":\"" + acrText + "\"";
        call("Input.dispatchKeyEvent", R"("type":"keyDown","key":")" + acrKey + "\"" + lText);
        call("Input.dispatchKeyEvent", R"("type":"keyUp","key":")" + acrKey + "\"");
    }

private:
    /// Returns the text up to the next quotation mark that is not escaped.
    static std::string textAfter(const std::string& acrMark, const std::string& acrText)
    {
        const size_t lAt = acrText.find(acrMark);
        if (std::string::npos == lAt) {
            return "no " + acrMark + " in " + acrText;
        }
        size_t lEnd = lAt + acrMark.size();
        while (lEnd < acrText.size() && '"' != acrText[lEnd]) {
            lEnd += '\\' == acrText[lEnd] ? 2 : 1;
        }
        return acrText.substr(lAt + acrMark.size(), lEnd - lAt - acrMark.size());
    }

    std::string call(const std::string& acrMethod, const std::string& acrParameters)
    {
        const std::string lId = "{\"id\":" + std::to_string(++mCalls) + ",";
        const std::string lSession = mSession.empty() ? "" : "\"sessionId\":\"" + mSession + "\",";
        const std::string lRequest =
            lId + lSession + "\"method\":\"" + acrMethod + "\",\"params\":{" + acrParameters + "}}";
        EXPECT_EQ(static_cast<ssize_t>(lRequest.size() + 1), write(mRequests, lRequest.c_str(), lRequest.size() + 1));
        for (;;) {
            const size_t lEnd = mReceived.find('\0');
            if (std::string::npos != lEnd) {
                const std::string lMessage = mReceived.substr(0, lEnd);
                mReceived.erase(0, lEnd + 1);
                if (0 == lMessage.find(lId)) {  // other messages are events
                    return lMessage;
                }
                continue;
            }
            char lBytes[65536];
            pollfd lPoll = {mAnswers, POLLIN, 0};
            const ssize_t lRead =
                1 == poll(&lPoll, 1, cPatienceMilliseconds) ? read(mAnswers, lBytes, sizeof lBytes) : -1;
            if (lRead <= 0) {
                ADD_FAILURE() << "no answer to " << acrMethod << "\n" << mProgram->error();
                mProgram->kill(SIGKILL);
                return "";
            }
            mReceived.append(lBytes, static_cast<size_t>(lRead));
        }
    }

    std::unique_ptr<Command> mProgram;
    int mRequests = -1;
    int mAnswers = -1;
    int mCalls = 0;
    std::string mSession;
    std::string mReceived;
};

class Timeline : public ViewerTest
{
protected:
    void SetUp() override
    {
        if (!isInstalled("chromium")) {
            GTEST_SKIP() << "chromium is not installed";
        }
        ViewerTest::SetUp();
        mBrowser.reset(new Browser(mHome, [this] { liveAtHome(); }));
    }

    void TearDown() override
    {
        if (mBrowser) {
            mBrowser.reset();
            ViewerTest::TearDown();
        }
    }

    /// Makes a page with oqtrace. \return its address
    std::string pageOf(const Strings& acrLogs)
    {
        Strings lWords = {OQTRACE, "--html", mHome + "/page.html"};
        for (const std::string& lrLog : acrLogs) {
            lWords.push_back(mHome + "/" + lrLog);
        }
        const Result lResult = resultOf(lWords);
        EXPECT_EQ(0, lResult.mStatus) << lResult.mError;
        return "file://" + mHome + "/page.html";
    }

    /// Returns an expression: how many pixels of the canvas of a lane have the named colour.
    static std::string pixelsOf(const std::string& acrColour, int aLane)
    {
        return "((canvas) => { const brush = canvas.getContext('2d');"
               "const count = () => { const all = brush.getImageData(0, 0, canvas.width, canvas.height).data, found = "
               "{};"
               "for (let at = 0; at < all.length; at += 4) { const key = all.slice(at, at + 3).join();"
               "found[key] = (found[key] || 0) + 1; } return found; };"
               "const before = count(); brush.fillStyle = colours." +
               acrColour +
               "; brush.globalAlpha = 1; brush.fillRect(0, 0, 1, 1);"
               "const [red, green, blue] = brush.getImageData(0, 0, 1, 1).data;"
               "return before[[red, green, blue].join()] || 0; })(lanes[" +
               std::to_string(aLane) + "].canvas)";
    }

    std::unique_ptr<Browser> mBrowser;
};

TEST_F(Timeline, HasALaneForEachThreadWithItsNumbersInWords)
{
    mBrowser->open(pageOf({"server.log", "client.log"}));
    EXPECT_EQ("3", mBrowser->value("document.querySelectorAll('.lane canvas').length"));
    const std::string lLabels = mBrowser->value("lanes.map(lane => lane.canvas.getAttribute('aria-label')).join('; ')");
    EXPECT_TRUE(contains(lLabels, "4711")) << lLabels;
    EXPECT_TRUE(contains(lLabels, "4712")) << lLabels;
    EXPECT_TRUE(contains(lLabels, ": 3 calls, 0 error lines, 0 left by exceptions, 1 still inside; ")) << lLabels;
    EXPECT_TRUE(contains(lLabels, ": 2 calls, 1 error line, 1 left by an exception, 0 still inside; ")) << lLabels;
    EXPECT_TRUE(contains(lLabels, ": 1 call, 1 error line, 0 left by exceptions, 0 still inside")) << lLabels;
    const std::string lSummary = mBrowser->value("document.getElementById('summary').textContent");
    EXPECT_TRUE(contains(lSummary, "2 processes, 3 threads, 6 calls, 2 error lines, ")) << lSummary;
    EXPECT_TRUE(contains(lSummary, "999 ms from 2026-03-01T12:00:00.000000Z")) << lSummary;
}

TEST_F(Timeline, UsesNothingFromOutsideAndShowsALogLineAsText)
{
    mBrowser->open(pageOf({"server.log", "client.log"}));
    EXPECT_EQ("0", mBrowser->value("performance.getEntriesByType('resource').length"));
    for (const char* const lcUse : {"://", " src=", " href=", "url(", "@import"}) {
        EXPECT_FALSE(contains(contentOf(mHome + "/page.html"), lcUse)) << lcUse;
    }
    EXPECT_EQ("null", mBrowser->value("document.getElementById('injected')"));
    mBrowser->value("(findBox.value = '</script>', find(), step(1))");
    EXPECT_EQ("true",
              mBrowser->value("details.textContent.includes('child </script><b id=\\u0022injected\\u0022> has')"));
}

TEST_F(Timeline, PaintsErrorsAndUnfinishedCallsInTheirOwnColoursInLightAndDark)
{
    const std::string lPage = pageOf({"server.log", "client.log"});
    // Each source file has a colour.
    const char* const cFiles[] = {"NamedPipeLinux", "MiscLinux", "ProcessLinux"};
    for (const char* const lcScheme : {"light", "dark"}) {
        mBrowser->open(lPage, 1280, lcScheme);
        EXPECT_EQ("dark" == std::string(lcScheme) ? "#14171c" : "#ffffff",
                  mBrowser->value("getComputedStyle(document.documentElement).getPropertyValue('--page')"));
        for (int lLane = 0; lLane < 3; ++lLane) {
            SCOPED_TRACE(lcScheme + std::to_string(lLane));
            EXPECT_EQ(0 == lLane ? "0" : "some", mBrowser->drawn(pixelsOf("error", lLane) + " > 50 ? 'some' : '0'"));
            EXPECT_EQ(1 == lLane ? "some" : "0", mBrowser->drawn(pixelsOf("thrown", lLane) + " > 500 ? 'some' : '0'"));
            EXPECT_EQ(0 == lLane ? "some" : "0", mBrowser->drawn(pixelsOf("open", lLane) + " > 500 ? 'some' : '0'"));
            EXPECT_EQ("some", mBrowser->drawn(pixelsOf("families." + std::string(cFiles[lLane]), lLane) +
                                              " > 500 ? 'some' : '0'"));
        }
    }
}

TEST_F(Timeline, ShowsTheLogLineAndTheDurationUnderThePointer)
{
    mBrowser->open(pageOf({"server.log", "client.log"}));
    // The call of the client lasts from the middle of the trace to its end.
    const int lX =
        std::stoi(mBrowser->value("Math.round(axis.getBoundingClientRect().left + axis.clientWidth * 0.75)"));
    const int lY = std::stoi(mBrowser->value("Math.round(lanes[2].canvas.getBoundingClientRect().top + 20)"));
    mBrowser->mouse("mouseMoved", lX, lY);
    const std::string lDetails = mBrowser->value("details.textContent");
    EXPECT_TRUE(contains(lDetails, "ProcessWait  499 ms")) << lDetails;
    EXPECT_TRUE(
        contains(lDetails, "2026-03-01T12:00:00.500000Z 4712 140245 -T- ProcessWait (.//ProcessLinux:275) Entered"))
        << lDetails;
    mBrowser->mouse("mouseMoved", lX, 5);
    EXPECT_TRUE(contains(mBrowser->value("details.textContent"), "Point at a call"));
}

TEST_F(Timeline, ZoomsWithWheelAndKeysAndMovesWithMouseAndKeys)
{
    mBrowser->open(pageOf({"server.log", "client.log"}));
    const std::string cSpan = "Math.round(view.to - view.from)";
    const std::string cFrom = "Math.round(view.from)";
    const std::string lAll = mBrowser->value(cSpan);
    EXPECT_EQ("999000", lAll);
    mBrowser->press("+", "+");
    EXPECT_EQ("499500", mBrowser->value(cSpan));
    EXPECT_EQ("249750", mBrowser->value(cFrom));
    mBrowser->press("ArrowRight");
    EXPECT_EQ("349650", mBrowser->value(cFrom));
    mBrowser->press("ArrowLeft");
    EXPECT_EQ("249750", mBrowser->value(cFrom));
    const int lX = std::stoi(mBrowser->value("Math.round(axis.getBoundingClientRect().left + axis.clientWidth / 2)"));
    const int lY = std::stoi(mBrowser->value("Math.round(lanes[2].canvas.getBoundingClientRect().top + 20)"));
    mBrowser->mouse("mousePressed", lX, lY, R"(,"button":"left","clickCount":1)");
    mBrowser->mouse("mouseMoved", lX + 100, lY, R"(,"button":"left","buttons":1)");
    mBrowser->mouse("mouseReleased", lX + 100, lY, R"(,"button":"left","clickCount":1)");
    EXPECT_EQ("true", mBrowser->value("Math.abs(view.from - (249750 - 499500 * 100 / axis.clientWidth)) < 1"));
    mBrowser->press("0", "0");
    EXPECT_EQ("0", mBrowser->value(cFrom));
    // The time under the pointer stays where it is.
    mBrowser->mouse("mouseWheel", lX, lY, R"(,"deltaX":0,"deltaY":-200)");
    EXPECT_TRUE(eventually([&] { return lAll != mBrowser->value(cSpan); }));
    EXPECT_EQ("true", mBrowser->value("Math.abs((view.from + view.to) / 2 - 499500) < 1000"));
    mBrowser->press("-", "-");
    EXPECT_EQ(lAll, mBrowser->value(cSpan));
    // Fingers that move apart to twice their distance halve the span.
    mBrowser->touch("touchStart", lX - 100, lX + 100, lY);
    mBrowser->touch("touchMove", lX - 200, lX + 200, lY);
    mBrowser->touch("touchEnd", 0, 0, 0);
    EXPECT_EQ("true", mBrowser->value("Math.abs(view.to - view.from - 499500) < 1000")) << mBrowser->value(cSpan);
}

TEST_F(Timeline, FindsAnOperationWithTheKeyboardAlone)
{
    mBrowser->open(pageOf({"server.log", "client.log"}));
    const std::string cFound = "document.getElementById('found').textContent";
    EXPECT_EQ("4 problems", mBrowser->value(cFound));
    mBrowser->press("n", "n");
    EXPECT_EQ("1 of 4 problems", mBrowser->value(cFound));
    EXPECT_TRUE(contains(mBrowser->value("details.textContent"), "left by an exception"));
    mBrowser->press("0", "0");
    const int lBefore = std::stoi(mBrowser->drawn(pixelsOf("text", 0)));
    mBrowser->value("findBox.focus()");
    for (const char* const lcLetter : {"A", "c", "t", "i", "v"}) {
        mBrowser->press(lcLetter, lcLetter);
    }
    EXPECT_EQ("3 matches", mBrowser->drawn(cFound));
    // The outlines of the matches have the colour of the text.
    EXPECT_LT(lBefore + 1000, std::stoi(mBrowser->drawn(pixelsOf("text", 0))));
    EXPECT_EQ("0", mBrowser->drawn(pixelsOf("text", 2)));
    mBrowser->press("Enter", "\\r");
    EXPECT_EQ("1 of 3 matches", mBrowser->value(cFound));
    mBrowser->press("Enter", "\\r");
    EXPECT_EQ("2 of 3 matches", mBrowser->value(cFound));
    EXPECT_TRUE(contains(mBrowser->value("details.textContent"), "OsWaitForActivity  99.99 ms"));
}

TEST_F(Timeline, FitsANarrowAndAWideWindow)
{
    const std::string lPage = pageOf({"server.log", "client.log"});
    for (const int lWidth : {400, 1280}) {
        mBrowser->open(lPage, lWidth);
        EXPECT_EQ(std::to_string(lWidth), mBrowser->value("document.documentElement.scrollWidth"));
        EXPECT_EQ("true",
                  mBrowser->value("lanes.every(lane => lane.canvas.width >= 370 && lane.canvas.width <= innerWidth)"));
    }
}

TEST_F(Timeline, PaintsOnlyOnceForEachPixelOfALaneWithManyEvents)
{
    std::ofstream lLog(mHome + "/many.log");
    for (int lCall = 0; lCall < 100000; ++lCall) {
        lLog << line(lCall * 9, "4711 140245", "-T-", "OsBreak (.//MiscLinux:189)", "Entered")
             << line(lCall * 9 + 5, "4711 140245", "-T-", "OsBreak (.//MiscLinux:213)", "Left");
    }
    lLog.close();
    mBrowser->open(pageOf({"many.log"}));
    EXPECT_EQ("100000", mBrowser->value("lanes[0].rows[0].length"));
    const std::string cPainted =
        "((paint) => { let count = 0; CanvasRenderingContext2D.prototype.fillRect = function (...box) { ++count;"
        "paint.apply(this, box); }; drawLane(lanes[0]); CanvasRenderingContext2D.prototype.fillRect = paint;"
        "return count; })(CanvasRenderingContext2D.prototype.fillRect)";
    const int lWidth = std::stoi(mBrowser->value("axis.clientWidth"));
    EXPECT_NEAR(lWidth, std::stoi(mBrowser->drawn(cPainted)), 20);
    mBrowser->value("setView(500000, 900)");  // 100 calls
    EXPECT_NEAR(101, std::stoi(mBrowser->drawn(cPainted)), 3);
}

// ---- lnav ----

class Lnav : public ViewerTest
{
protected:
    void SetUp() override
    {
        if (!isInstalled("lnav")) {
            GTEST_SKIP() << "lnav is not installed";
        }
        ViewerTest::SetUp();
        std::filesystem::create_directories(mHome + "/share/formats/oqlinux");
        std::filesystem::copy(LNAV_FORMAT, mHome + "/share/formats/oqlinux/oqlinux.json");
    }

    void TearDown() override
    {
        if (!IsSkipped()) {
            ViewerTest::TearDown();
        }
    }

    Result lnav(const Strings& acrOptions)
    {
        Strings lWords = {"lnav", "-I", mHome + "/share"};
        lWords.insert(lWords.end(), acrOptions.begin(), acrOptions.end());
        return resultOf(lWords, [this] { liveAtHome(); });
    }
};

TEST_F(Lnav, AcceptsTheFormatAndItsSamples)
{
    const Result lResult = lnav({"-C"});
    EXPECT_EQ(0, lResult.mStatus);
    EXPECT_EQ("", lResult.mOut + lResult.mError);
}

TEST_F(Lnav, ReadsTheFieldsOfEachLine)
{
    const Result lResult =
        lnav({"-n", "-c",
              ";SELECT log_time, log_level, log_opid, pid, thread, tag, function, file, line, log_body"
              " FROM oqlinux_log WHERE function IN ('OsGetIpAddress', 'ProcessWait', 'main') ORDER BY log_line",
              "-c", ":write-csv-to -", mHome + "/server.log", mHome + "/client.log"});
    EXPECT_EQ(0, lResult.mStatus) << lResult.mError;
    EXPECT_EQ(
        "log_time,log_level,log_opid,pid,thread,tag,function,file,line,log_body\n"
        "2026-03-01 12:00:00.200,trace,140999,4711,140999,-T-,OsGetIpAddress,.//MiscLinux,240,Entered\n"
        "2026-03-01 12:00:00.300,fatal,140999,4711,140999,-H-,OsGetIpAddress,.//MiscLinux,240,"
        "No non-loopback IP Address configured on system\n"
        "2026-03-01 12:00:00.500,trace,140245,4712,140245,-T-,ProcessWait,.//ProcessLinux,275,Entered\n"
        "2026-03-01 12:00:00.500,error,140245,4712,140245,-E-,ProcessWait,.//ProcessLinux,275,"
        "The child process exited abnormally\n"
        "2026-03-01 12:00:00.500,info,140245,4712,140245,-I-,main,.//client,1,"
        "\"the child </script><b id=\"\"injected\"\"> has ended\"\n"
        "2026-03-01 12:00:00.999,trace,140245,4712,140245,-T-,ProcessWait,.//ProcessLinux,275,Left\n",
        lResult.mOut);
}

}  // namespace
