// oqtrace: shows the calls that the trace lines of a log record: as a table, as a timeline, or as stacks for a flame
// graph.
//
// LogLines reads the lines, Calls finds the calls, and the observers below write each event at once. The memory
// that they need depends on the number of threads, operations and stacks, not on the number of lines.

#include <errno.h>
#include <getopt.h>
#include <inttypes.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>
#include <tuple>

#include "Calls.h"

namespace
{

const int64_t cMicrosecond = 1000;  // nanoseconds
const int64_t cQuarter = cMicrosecond / 4;
const int64_t cSecond = 1000000000;
const size_t cFlushSize = 65536;            // bytes
const unsigned int cLinesPerLook = 100000;  // between two looks for a signal

/// The page of --html. The events replace the text between the marks.
const char cPage[] =
#include "timeline.h"
    ;
const char cBegin[] = "/*EVENTS*/", cEnd[] = "/*END*/";

const char* const cUsage =
    "usage: oqtrace [OPTION]... [FILE]...\n"
    "Shows the calls that the trace lines of logs record. Reads the files in the order of the lines' times. Without a\n"
    "file, or for \"-\", reads the standard input.\n\n"
    "  -t, --threads      show the summary by thread\n"
    "      --chrome FILE  write Chrome trace events, for Perfetto, chrome://tracing and speedscope\n"
    "      --html FILE    write a page that shows the timeline in a browser\n"
    "      --folded FILE  write stacks with their own time in microseconds, for flame graphs\n"
    "  -f, --follow       read what is appended to the logs, and show it every second, until SIGINT or SIGTERM\n"
    "  -h, --help         show this text\n"
    "  -V, --version      show the version\n\n"
    "Without --chrome, --html and --folded, shows a summary: the calls of each operation and the calls that have not\n"
    "ended. FILE may be \"-\" for the standard output.\n\n"
    "Exit status: 0 success; 1 a file cannot be read or written, or has no log line; 2 wrong arguments.\n";

const char* const cTryHelp = "Try 'oqtrace --help'.\n";
const char* const cClearScreen = "\033[H\033[J";

[[noreturn]] void fail(const std::string& acrPath) { throw std::runtime_error(acrPath + ": " + strerror(errno)); }

// ---- Output files ---------------------------------------------------------------------------------------------------

/// The files that this command reads or writes.
using Files = std::set<std::pair<dev_t, ino_t>>;

/// A file that is written, or the standard output for "-".
class Output
{
public:
    Output(const std::string& acrPath, Files& arUsed) : mPath(acrPath)
    {
        struct stat lState;
        const int lMissing = "-" == mPath ? fstat(STDOUT_FILENO, &lState) : stat(mPath.c_str(), &lState);
        if (0 == lMissing && S_ISREG(lState.st_mode) && 0 != arUsed.count({lState.st_dev, lState.st_ino})) {
            throw std::runtime_error(mPath + ": the file is used twice");
        }
        mpFile = "-" == mPath ? stdout : fopen(mPath.c_str(), "we");
        if (NULL == mpFile || fstat(fileno(mpFile), &lState) < 0) {
            fail(mPath);
        }
        arUsed.emplace(lState.st_dev, lState.st_ino);
    }
    ~Output()
    {
        if (NULL != mpFile && stdout != mpFile) {
            fclose(mpFile);
        }
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    void write(std::string_view aText)
    {
        if (aText.size() != fwrite(aText.data(), 1, aText.size(), mpFile)) {
            fail(mPath);
        }
    }
    void flush()
    {
        if (0 != fflush(mpFile)) {
            fail(mPath);
        }
    }

private:
    const std::string mPath;
    FILE* mpFile;
};

// ---- Chrome trace events --------------------------------------------------------------------------------------------

/// Returns the number of bytes of the UTF-8 character at the beginning of a text, or 0 if there is none.
size_t characterLength(std::string_view aText)
{
    const auto lByte = [&](size_t aIndex) {
        return aIndex < aText.size() ? static_cast<unsigned char>(aText[aIndex]) : 0U;
    };
    const unsigned int lFirst = lByte(0), lSecond = lByte(1);
    const size_t lLength = lFirst < 0x80   ? 1
                           : lFirst < 0xc2 ? 0
                           : lFirst < 0xe0 ? 2
                           : lFirst < 0xf0 ? 3
                           : lFirst < 0xf5 ? 4
                                           : 0;
    for (size_t lIndex = 1; lIndex < lLength; ++lIndex) {
        if (0x80 != (lByte(lIndex) & 0xc0)) {
            return 0;
        }
    }
    const bool lTooShort = (0xe0 == lFirst && lSecond < 0xa0) || (0xf0 == lFirst && lSecond < 0x90);
    const bool lNoCharacter = (0xed == lFirst && 0x9f < lSecond) || (0xf4 == lFirst && 0x8f < lSecond);
    return lTooShort || lNoCharacter ? 0 : lLength;
}

/// Appends a text as a JSON string. The sign < is escaped, because the text may be part of a script in a page. Bytes
/// that are not UTF-8 become replacement characters.
void appendQuoted(std::string& arJson, std::string_view aText)
{
    arJson += '"';
    while (!aText.empty()) {
        size_t lPlain = 0;
        while (lPlain < aText.size() && ' ' <= aText[lPlain] && aText[lPlain] <= '~' && '"' != aText[lPlain] &&
               '\\' != aText[lPlain] && '<' != aText[lPlain]) {
            ++lPlain;
        }
        arJson.append(aText.substr(0, lPlain));
        aText.remove_prefix(lPlain);
        if (aText.empty()) {
            break;
        }
        const size_t lLength = characterLength(aText);
        if (1 < lLength) {
            arJson.append(aText.substr(0, lLength));
        } else if (0 == lLength) {
            arJson += "\\ufffd";
        } else {
            char lEscaped[8];
            snprintf(lEscaped, sizeof lEscaped, "\\u%04x", static_cast<unsigned int>(aText.front()));
            arJson += lEscaped;
        }
        aText.remove_prefix(std::max<size_t>(1, lLength));
    }
    arJson += '"';
}

/// A log does not contain the name of the program. Often the file has it: hostd.log is a log of hostd.
std::string nameOf(const std::string& acrLog)
{
    const size_t lBegin = acrLog.rfind('/') + 1;  // 0 without a slash
    const std::string lName = acrLog.substr(lBegin, acrLog.find('.', lBegin) - lBegin);
    return lName.empty() || "-" == lName ? "process" : lName;
}

/// Writes an array of events. The times count from the first event. They are different quarters of microseconds, which
/// viewers represent exactly. The end of a call has its log lines: speedscope takes calls for the same operation only if
/// the events at their begin are equal.
class ChromeTrace : public Observer
{
public:
    ChromeTrace(Output& arOutput, const Calls& acrCalls) : mrOutput(arOutput), mrCalls(acrCalls) {}

    void onThread(const Thread& acrThread) override
    {
        const std::string lProcess = std::to_string(acrThread.mProcess), lThread = std::to_string(acrThread.mNumber);
        if (mProcesses.emplace(acrThread.mProcess, true).second) {
            begin(acrThread, "M", "process_name");
            mText += R"(,"args":{"name":)";
            appendQuoted(mText, nameOf(acrThread.mLog) + " " + lProcess);
            mText += "}}";
        }
        begin(acrThread, "M", "thread_name");
        mText += R"(,"args":{"name":"thread )" + lThread + " (" + std::to_string(acrThread.mHandle) + ")\"}}";
    }
    void onEntered(const Thread& acrThread, const LogLine& acrLine) override
    {
        begin(acrThread, "B", acrLine.mFunction);
        appendTime(acrThread.mOpen.back().mEntered);
        mText += '}';
        mEntered.resize(std::max<size_t>(mEntered.size(), acrThread.mNumber + 1));
        mEntered[acrThread.mNumber].emplace_back(acrLine.mWhole);
    }
    void onEnded(const Thread& acrThread, End aEnd, int64_t aTime) override
    {
        const Call& lrCall = acrThread.mOpen.back();
        begin(acrThread, "E", mrCalls.name(lrCall.mOperation));
        appendTime(aTime);
        mText += R"(,"args":{"log":)";
        appendQuoted(mText, mEntered[acrThread.mNumber].back());
        mEntered[acrThread.mNumber].pop_back();
        if (End::Returned != aEnd) {
            mText += End::Open == aEnd ? R"(,"open":true)" : R"(,"thrown":true)";
        }
        if (!lrCall.mMessages.empty()) {
            mText += R"(,"messages":)";
            appendQuoted(mText, lrCall.mMessages);
        }
        mText += "}}";
    }
    void onLine(const Thread& acrThread, const LogLine& acrLine, int64_t aTime) override
    {
        begin(acrThread, "i", acrLine.mMessage);
        mText += R"(,"s":"t","cat":")";
        mText += 'H' == acrLine.mLevel   ? "halt"
                 : 'E' == acrLine.mLevel ? "error"
                 : 'I' == acrLine.mLevel ? "information"
                                         : "trace";
        mText += '"';
        appendTime(aTime);
        appendLine(acrLine);
    }
    /// Writes the end of the array.
    void finish()
    {
        mText += "\n]";
        flush();
    }
    void flush()
    {
        mrOutput.write(mText);
        mText.clear();
    }

private:
    void begin(const Thread& acrThread, const char* acPhase, std::string_view aName)
    {
        if (cFlushSize < mText.size()) {
            flush();
        }
        mText += mFirst ? "\n" : ",\n";
        mFirst = false;
        mText.append(R"({"ph":")").append(acPhase).append(R"(","pid":)").append(std::to_string(acrThread.mProcess));
        mText.append(R"(,"tid":)").append(std::to_string(acrThread.mNumber)).append(R"(,"name":)");
        appendQuoted(mText, aName);
    }
    void appendTime(int64_t aTime)
    {
        mStart = 0 == mStart ? aTime : mStart;
        mLast = std::max(mLast + cQuarter, (aTime - mStart) / cQuarter * cQuarter);
        char lTime[48];
        snprintf(lTime, sizeof lTime, ",\"ts\":%" PRId64 ".%03" PRId64, mLast / cMicrosecond, mLast % cMicrosecond);
        mText += lTime;
    }
    void appendLine(const LogLine& acrLine)
    {
        mText.append(R"(,"args":{"line":)").append(std::to_string(acrLine.mNumber)).append(R"(,"message":)");
        appendQuoted(mText, acrLine.mMessage);
        mText += R"(,"log":)";
        appendQuoted(mText, acrLine.mWhole);
        mText += "}}";
    }

    Output& mrOutput;
    const Calls& mrCalls;
    std::string mText = "[";
    std::map<uint64_t, bool> mProcesses;             // those that have a name
    std::vector<std::vector<std::string>> mEntered;  // by number of the thread, the first lines of its open calls
    int64_t mStart = 0;
    int64_t mLast = -cQuarter;
    bool mFirst = true;
};

// ---- Stacks ---------------------------------------------------------------------------------------------------------

/// Sums the own time of each stack of calls.
class Stacks : public Observer
{
public:
    explicit Stacks(const Calls& acrCalls) : mrCalls(acrCalls) {}

    void onEntered(const Thread& acrThread, const LogLine&) override
    {
        const size_t lCaller = current(acrThread);
        const auto lInserted =
            mNodes.emplace(std::make_pair(lCaller, acrThread.mOpen.back().mOperation), mStacks.size());
        if (lInserted.second) {
            mStacks.push_back({lCaller, acrThread.mOpen.back().mOperation, 0});
        }
        mCurrent[acrThread.mNumber] = lInserted.first->second;
    }
    void onEnded(const Thread& acrThread, End aEnd, int64_t aTime) override
    {
        size_t& lrCurrent = current(acrThread);
        const Call& lrCall = acrThread.mOpen.back();
        if (End::Returned == aEnd || End::Thrown == aEnd) {
            mStacks[lrCurrent].mOwn += aTime - lrCall.mEntered - lrCall.mNestedTime;
        }
        lrCurrent = mStacks[lrCurrent].mCaller;
    }
    void write(Output& arOutput) const
    {
        for (const Stack& acrStack : mStacks) {
            arOutput.write(pathOf(acrStack) + " " + std::to_string((acrStack.mOwn + cMicrosecond / 2) / cMicrosecond) +
                           "\n");
        }
    }

private:
    static constexpr size_t cNone = SIZE_MAX;
    struct Stack {
        size_t mCaller;
        size_t mOperation;
        int64_t mOwn;
    };

    size_t& current(const Thread& acrThread)
    {
        if (mCurrent.size() <= acrThread.mNumber) {
            mCurrent.resize(acrThread.mNumber + 1, cNone);
        }
        return mCurrent[acrThread.mNumber];
    }
    std::string pathOf(const Stack& acrStack) const
    {
        const std::string lCaller = cNone == acrStack.mCaller ? "" : pathOf(mStacks[acrStack.mCaller]) + ";";
        return lCaller + mrCalls.name(acrStack.mOperation);
    }

    const Calls& mrCalls;
    std::vector<Stack> mStacks;
    std::map<std::pair<size_t, size_t>, size_t> mNodes;  // caller's stack and operation; index of the stack
    std::vector<size_t> mCurrent;                        // by number of the thread
};

// ---- Summary --------------------------------------------------------------------------------------------------------

/// Counts durations in buckets. A bucket holds one number of microseconds up to 127, then 1/64 of a power of two. A
/// percentile is the highest number of its bucket, or the maximum. It exceeds the exact one by at most 1.6 %.
class Histogram
{
public:
    void add(uint64_t aValue)
    {
        const size_t lBucket = bucketOf(aValue);
        if (mCounts.size() <= lBucket) {
            mCounts.resize(lBucket + 1);
        }
        ++mCounts[lBucket];
        ++mTotal;
        mMaximum = std::max(mMaximum, aValue);
    }
    /// Returns the smallest value that this share of the values does not exceed.
    uint64_t percentile(unsigned int aPercent) const
    {
        const uint64_t lRank = (mTotal * aPercent + 99) / 100;
        uint64_t lCount = 0;
        for (size_t lBucket = 0; lBucket < mCounts.size(); ++lBucket) {
            lCount += mCounts[lBucket];
            if (lRank <= lCount) {
                return std::min(highestOf(lBucket), mMaximum);
            }
        }
        return mMaximum;
    }
    uint64_t maximum() const { return mMaximum; }
    bool isEmpty() const { return 0 == mTotal; }

private:
    static constexpr unsigned int cBits = 6;
    static constexpr size_t cParts = 1 << cBits;

    static size_t bucketOf(uint64_t aValue)
    {
        unsigned int lShift = 0;
        while (2 * cParts <= aValue >> lShift) {
            ++lShift;
        }
        return (static_cast<size_t>(lShift) << cBits) + static_cast<size_t>(aValue >> lShift);
    }
    static uint64_t highestOf(size_t aBucket)
    {
        if (aBucket < 2 * cParts) {
            return aBucket;
        }
        const unsigned int lShift = static_cast<unsigned int>(aBucket >> cBits) - 1;
        return ((static_cast<uint64_t>(aBucket % cParts + cParts) + 1) << lShift) - 1;
    }

    std::vector<uint64_t> mCounts;
    uint64_t mTotal = 0;
    uint64_t mMaximum = 0;
};

std::string milliseconds(int64_t aNanoseconds)
{
    char lText[32];
    snprintf(lText, sizeof lText, "%.3f", static_cast<double>(aNanoseconds) / 1e6);
    return lText;
}

/// Returns a time in the form of the log.
std::string shownTime(int64_t aTime)
{
    const time_t lSeconds = static_cast<time_t>(aTime / cSecond);
    tm lUtc;
    char lDate[32], lText[64];
    strftime(lDate, sizeof lDate, "%FT%T", gmtime_r(&lSeconds, &lUtc));
    snprintf(lText, sizeof lText, "%s.%06" PRId64 "Z", lDate, aTime % cSecond / cMicrosecond);
    return lText;
}

class Summary : public Observer
{
public:
    Summary(Calls& arCalls, bool aByThread) : mrCalls(arCalls), mByThread(aByThread) {}

    void onEntered(const Thread& acrThread, const LogLine&) override
    {
        ++rowOf(acrThread, acrThread.mOpen.back().mOperation).mCalls;
    }
    void onEnded(const Thread& acrThread, End aEnd, int64_t aTime) override
    {
        const Call& lrCall = acrThread.mOpen.back();
        Row& lrRow = rowOf(acrThread, lrCall.mOperation);
        lrRow.mThrown += End::Thrown == aEnd || End::Lost == aEnd ? 1 : 0;
        if (End::Returned == aEnd || End::Thrown == aEnd) {
            const int64_t lTime = aTime - lrCall.mEntered;
            lrRow.mTotal += lTime;
            lrRow.mOwn += lTime - lrCall.mNestedTime;
            lrRow.mTimes.add(static_cast<uint64_t>((lTime + cMicrosecond / 2) / cMicrosecond));
        }
    }
    void onLine(const Thread& acrThread, const LogLine& acrLine, int64_t) override
    {
        if ('H' == acrLine.mLevel || 'E' == acrLine.mLevel) {
            ++rowOf(acrThread, mrCalls.operationOf(acrLine.mFunction)).mErrors;
        }
    }
    /// Returns the table and the calls that are open.
    /// \param[in] aNow  the time until which the ages of open calls count
    std::string text(int64_t aNow) const
    {
        std::vector<Strings> lTable = {
            {"operation", "calls", "total ms", "own ms", "median", "99 %", "maximum", "errors", "thrown", "open"}};
        std::multimap<int64_t, std::string> lOpen;  // by time, the oldest first
        std::map<Key, uint64_t> lOpenCounts;
        for (const Thread& acrThread : mrCalls.threads()) {
            for (const Call& acrCall : acrThread.mOpen) {
                ++lOpenCounts[keyOf(acrThread, acrCall.mOperation)];
            }
            if (!acrThread.mOpen.empty()) {
                lOpen.emplace(acrThread.mOpen.back().mEntered, openCall(acrThread, aNow));
            }
        }
        std::vector<std::pair<Key, const Row*>> lRows;
        for (const auto& acrEntry : mRows) {
            lRows.emplace_back(acrEntry.first, &acrEntry.second);
        }
        std::sort(lRows.begin(), lRows.end(), [](const auto& acrLeft, const auto& acrRight) {
            return std::make_tuple(acrLeft.first.first, acrRight.second->mTotal, acrLeft.first.second) <
                   std::make_tuple(acrRight.first.first, acrLeft.second->mTotal, acrRight.first.second);
        });
        for (const auto& acrRow : lRows) {
            lTable.push_back(cells(acrRow.first.second, *acrRow.second, lOpenCounts[acrRow.first]));
            if (mByThread) {
                const Thread& lrThread = mrCalls.threads()[acrRow.first.first - 1];
                lTable.back().insert(lTable.back().begin(),
                                     {std::to_string(lrThread.mProcess), std::to_string(lrThread.mNumber)});
            }
        }
        if (mByThread) {
            lTable.front().insert(lTable.front().begin(), {"process", "thread"});
        }
        std::string lText = aligned(lTable);
        for (const auto& acrOpen : lOpen) {
            lText += acrOpen.second;
        }
        return lText;
    }

private:
    typedef std::vector<std::string> Strings;
    typedef std::pair<unsigned int, size_t> Key;  // number of the thread, or 0; operation
    struct Row {
        uint64_t mCalls = 0, mErrors = 0, mThrown = 0;
        int64_t mTotal = 0, mOwn = 0;
        Histogram mTimes;
    };

    Key keyOf(const Thread& acrThread, size_t aOperation) const
    {
        return {mByThread ? acrThread.mNumber : 0, aOperation};
    }
    Row& rowOf(const Thread& acrThread, size_t aOperation) { return mRows[keyOf(acrThread, aOperation)]; }

    Strings cells(size_t aOperation, const Row& acrRow, uint64_t aOpen) const
    {
        const auto lTime = [&](int64_t aTime) { return acrRow.mTimes.isEmpty() ? "-" : milliseconds(aTime); };
        const auto lMicroseconds = [&](uint64_t aTime) { return lTime(static_cast<int64_t>(aTime) * cMicrosecond); };
        return {mrCalls.name(aOperation),
                std::to_string(acrRow.mCalls),
                lTime(acrRow.mTotal),
                lTime(acrRow.mOwn),
                lMicroseconds(acrRow.mTimes.percentile(50)),
                lMicroseconds(acrRow.mTimes.percentile(99)),
                lMicroseconds(acrRow.mTimes.maximum()),
                std::to_string(acrRow.mErrors),
                std::to_string(acrRow.mThrown),
                std::to_string(aOpen)};
    }
    /// Returns the line about the open calls of a thread.
    std::string openCall(const Thread& acrThread, int64_t aNow) const
    {
        std::string lText = "still inside: ";
        for (const Call& acrCall : acrThread.mOpen) {
            lText += (&acrCall == &acrThread.mOpen.front() ? "" : " > ") + mrCalls.name(acrCall.mOperation);
        }
        const int64_t lEntered = acrThread.mOpen.back().mEntered;
        char lAge[32];
        snprintf(lAge, sizeof lAge, "%.6f", static_cast<double>(std::max<int64_t>(0, aNow - lEntered)) / 1e9);
        return lText + ", for " + lAge + " s, since " + shownTime(lEntered) + ", process " +
               std::to_string(acrThread.mProcess) + ", thread " + std::to_string(acrThread.mNumber) + " (" +
               std::to_string(acrThread.mHandle) + ")\n";
    }
    /// Aligns the column "operation" left and all others right.
    std::string aligned(const std::vector<Strings>& acrTable) const
    {
        const size_t lLeft = mByThread ? 2 : 0;
        std::string lText;
        std::vector<size_t> lWidths(acrTable.front().size());
        for (const Strings& acrRow : acrTable) {
            for (size_t lColumn = 0; lColumn < acrRow.size(); ++lColumn) {
                lWidths[lColumn] = std::max(lWidths[lColumn], acrRow[lColumn].size());
            }
        }
        for (const Strings& acrRow : acrTable) {
            for (size_t lColumn = 0; lColumn < acrRow.size(); ++lColumn) {
                const std::string lBlanks(lWidths[lColumn] - acrRow[lColumn].size(), ' ');
                lText += 0 == lColumn ? "" : "  ";
                lText += lLeft == lColumn ? acrRow[lColumn] + lBlanks : lBlanks + acrRow[lColumn];
            }
            lText += '\n';
        }
        return lText;
    }

    Calls& mrCalls;
    const bool mByThread;
    std::map<Key, Row> mRows;
};

/// Returns a line with the number of lines of each kind.
std::string countsOf(const LogReader& acrReader, const Calls& acrCalls)
{
    uint64_t lLines = 0, lCut = 0, lOther = 0;
    for (const auto& acrFile : acrReader.files()) {
        lLines += acrFile->lines();
        lCut += acrFile->cut();
        lOther += acrFile->other();
    }
    std::string lText = "log lines: " + std::to_string(lLines);
    const auto lAdd = [&](const char* acName, uint64_t aCount) {
        lText += 0 == aCount ? "" : std::string(", ") + acName + ": " + std::to_string(aCount);
    };
    lAdd("cut lines", lCut);
    lAdd("other lines", lOther);
    lAdd("\"Left\" without a call", acrCalls.leftWithoutCall());
    lAdd("clock changes", acrCalls.clockChanges());
    return lText + "\n";
}

bool hasOddLines(const LogReader& acrReader)
{
    return std::any_of(acrReader.files().begin(), acrReader.files().end(),
                       [](const auto& acrFile) { return 0 != acrFile->cut() + acrFile->other(); });
}

// ---- The command ----------------------------------------------------------------------------------------------------

struct Options {
    bool mByThread = false, mFollow = false;
    std::string mChrome, mHtml, mFolded;
    std::vector<std::string> mLogs;
    bool hasOutput() const { return !mChrome.empty() || !mHtml.empty() || !mFolded.empty(); }
};

/// Returns the signals that end --follow. They are blocked.
sigset_t blockSignals()
{
    sigset_t lSignals;
    sigemptyset(&lSignals);
    sigaddset(&lSignals, SIGINT);
    sigaddset(&lSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &lSignals, NULL);
    return lSignals;
}

/// Waits for one of the signals. \return whether a signal arrived
bool cameWithin(const sigset_t& acrSignals, time_t aSeconds)
{
    const timespec lTime = {aSeconds, 0};
    return 0 < sigtimedwait(&acrSignals, NULL, &lTime);
}

void print(const std::string& acrText)
{
    if (EOF == fputs(acrText.c_str(), stdout) || 0 != fflush(stdout)) {
        fail("standard output");
    }
}

int64_t timeOfDay()
{
    timespec lNow;
    clock_gettime(CLOCK_REALTIME, &lNow);
    return lNow.tv_sec * cSecond + lNow.tv_nsec;
}

/// Reads the logs as they grow, until a signal arrives. Looks for new lines every second.
/// \param[in] aAlways  whether to show the summary even if no line is new, because the ages of open calls grow
void follow(LogReader& arReader, Calls& arCalls, bool aAlways, const std::function<void()>& acrShow)
{
    const sigset_t lSignals = blockSignals();
    for (;;) {
        unsigned int lLines = 0;
        while (const LogLine* const lpLine = arReader.next()) {
            arCalls.take(*lpLine);
            if (0 == ++lLines % cLinesPerLook && cameWithin(lSignals, 0)) {
                return;
            }
        }
        if (0 != lLines || aAlways) {
            acrShow();
        }
        if (cameWithin(lSignals, 1)) {
            return;
        }
        for (const auto& acrFile : arReader.files()) {
            acrFile->followPath();
        }
    }
}

/// Returns whether each file that is not empty has log lines. Prints the names of the others.
bool haveLogLines(const LogReader& acrReader)
{
    bool lAll = true;
    for (const auto& acrFile : acrReader.files()) {
        if (0 == acrFile->lines() && 0 != acrFile->cut() + acrFile->other()) {
            fprintf(stderr, "oqtrace: %s: no line of a log\n", acrFile->path().c_str());
            lAll = false;
        }
    }
    return lAll;
}

/// Reads the logs and writes what the options name. \return the exit status
int convert(const Options& acrOptions)
{
    LogReader lReader(acrOptions.mLogs);
    Calls lCalls;
    Summary lSummary(lCalls, acrOptions.mByThread);
    Stacks lStacks(lCalls);
    std::unique_ptr<Output> lChromeFile, lHtmlFile, lFoldedFile;
    std::unique_ptr<ChromeTrace> lChrome, lHtml;
    const std::string_view lPage(cPage);
    Files lUsed;
    for (const auto& acrFile : lReader.files()) {
        lUsed.emplace(acrFile->device(), acrFile->inode());
    }
    if (!acrOptions.mChrome.empty()) {
        lChromeFile = std::make_unique<Output>(acrOptions.mChrome, lUsed);
        lChrome = std::make_unique<ChromeTrace>(*lChromeFile, lCalls);
        lCalls.add(*lChrome);
    }
    if (!acrOptions.mHtml.empty()) {
        lHtmlFile = std::make_unique<Output>(acrOptions.mHtml, lUsed);
        lHtmlFile->write(lPage.substr(0, lPage.find(cBegin)));
        lHtml = std::make_unique<ChromeTrace>(*lHtmlFile, lCalls);
        lCalls.add(*lHtml);
    }
    if (!acrOptions.mFolded.empty()) {
        lFoldedFile = std::make_unique<Output>(acrOptions.mFolded, lUsed);
        lCalls.add(lStacks);
    }
    if (!acrOptions.hasOutput()) {
        lCalls.add(lSummary);
    }

    const bool lTerminal = 0 != isatty(STDOUT_FILENO);
    const auto lShow = [&] {
        const int64_t lNow = acrOptions.mFollow ? timeOfDay() + lCalls.shift() : lCalls.now();
        print((acrOptions.mFollow && lTerminal ? cClearScreen : "") + lSummary.text(lNow) + countsOf(lReader, lCalls));
    };
    if (acrOptions.mFollow) {
        follow(lReader, lCalls, lTerminal, [&] {
            if (!acrOptions.hasOutput()) {
                lShow();
            }
        });
    } else {
        while (const LogLine* const lpLine = lReader.next()) {
            lCalls.take(*lpLine);
        }
    }

    if (!acrOptions.hasOutput()) {
        lShow();
    } else if (hasOddLines(lReader)) {
        fprintf(stderr, "oqtrace: %s", countsOf(lReader, lCalls).c_str());
    }
    lCalls.finish();
    if (NULL != lChrome) {
        lChrome->finish();
        lChromeFile->write("\n");
        lChromeFile->flush();
    }
    if (NULL != lHtml) {
        lHtml->finish();
        lHtmlFile->write(lPage.substr(lPage.find(cEnd) + sizeof cEnd - 1));
        lHtmlFile->flush();
    }
    if (NULL != lFoldedFile) {
        lStacks.write(*lFoldedFile);
        lFoldedFile->flush();
    }
    return haveLogLines(lReader) ? 0 : 1;
}

/// Parses the arguments. \return the exit status
int run(int aCount, char** apWords)
{
    const option cOptions[] = {{"threads", no_argument, NULL, 't'},    {"chrome", required_argument, NULL, 'c'},
                               {"html", required_argument, NULL, 'p'}, {"folded", required_argument, NULL, 's'},
                               {"follow", no_argument, NULL, 'f'},     {"help", no_argument, NULL, 'h'},
                               {"version", no_argument, NULL, 'V'},    {NULL, 0, NULL, 0}};
    Options lOptions;
    for (int lOption; 0 <= (lOption = getopt_long(aCount, apWords, "tfhV", cOptions, NULL));) {
        lOptions.mByThread = lOptions.mByThread || 't' == lOption;
        lOptions.mFollow = lOptions.mFollow || 'f' == lOption;
        if ('c' == lOption) {
            lOptions.mChrome = optarg;
        } else if ('p' == lOption) {
            lOptions.mHtml = optarg;
        } else if ('s' == lOption) {
            lOptions.mFolded = optarg;
        } else if ('h' == lOption || 'V' == lOption) {
            print('h' == lOption ? cUsage : "oqtrace " OQ_VERSION "\n");
            return 0;
        } else if ('?' == lOption) {
            fputs(cTryHelp, stderr);  // getopt_long has printed the reason
            return 2;
        }
    }
    lOptions.mLogs.assign(apWords + optind, apWords + aCount);
    if (lOptions.mLogs.empty()) {
        lOptions.mLogs.push_back("-");
    }
    const bool lReadsInput = 0 != std::count(lOptions.mLogs.begin(), lOptions.mLogs.end(), "-");
    const char* lpWrong = NULL;
    if (lOptions.mFollow && lReadsInput) {
        lpWrong = "--follow needs files";
    } else if (lOptions.mByThread && lOptions.hasOutput()) {
        lpWrong = "--threads changes only the summary";
    } else if (1 < ("-" == lOptions.mChrome) + ("-" == lOptions.mHtml) + ("-" == lOptions.mFolded)) {
        lpWrong = "only one output can be the standard output";
    }
    if (NULL != lpWrong) {
        fprintf(stderr, "oqtrace: %s\n%s", lpWrong, cTryHelp);
        return 2;
    }
    return convert(lOptions);
}

}  // namespace

int main(int aCount, char** apWords)
{
    try {
        return run(aCount, apWords);
    } catch (const std::exception& acrFailure) {
        fprintf(stderr, "oqtrace: %s\n", acrFailure.what());
        return 1;
    }
}
