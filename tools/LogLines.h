/// \file
/// Reads the lines of logs that the companion runtime has written, from several files in the order of their times.
///
/// The memory that a reader needs does not depend on the number of lines.
#ifndef OQ_TOOLS_LOG_LINES_H
#define OQ_TOOLS_LOG_LINES_H

#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// A line of a log. The texts are valid until the next line of the same file is read.
struct LogLine {
    int64_t mTime = 0;  ///< nanoseconds since 1970 (UTC)
    uint64_t mProcess = 0;
    uint64_t mThread = 0;
    char mLevel = 0;  ///< the letter of the tag: H, E, I or T
    std::string_view mFunction;
    std::string_view mFile;
    uint64_t mNumber = 0;  ///< of the line in the source file
    std::string_view mMessage;
    std::string_view mWhole;
    std::string_view mLog;  ///< path of the log
};

/// Parses lines. Keeps the last date, because most lines have the same date.
class LineParser
{
public:
    enum Kind { Log, Cut, Other };

    /// Parses a text without its line feed. Text before a log line is ignored. A text that ends within the fields of a
    /// log line, or within "Entered" or "Left", is a cut line.
    /// \param[out] arLine  the log line, if the result is Log
    /// \param[out] arCutBefore  whether the ignored text is a cut line
    Kind parse(std::string_view aText, LogLine& arLine, bool& arCutBefore);

private:
    Kind parseFields(std::string_view aText, LogLine& arLine);
    bool parseTime(const char* acText, int64_t& arTime);

    static constexpr size_t cMinuteLength = 16;  // of "2026-03-01T12:00"
    char mMinute[cMinuteLength] = {};
    int64_t mMinuteStart = 0;
};

/// A log file. The object keeps the file open.
class LogFile
{
public:
    /// \param[in] acrPath  a file, or "-" for the standard input
    explicit LogFile(const std::string& acrPath);
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Reads up to the next log line. \return false at the end of the data; the file may grow afterwards
    bool next();
    const LogLine& line() const { return mLine; }
    const std::string& path() const { return mPath; }
    dev_t device() const { return mDevice; }
    ino_t inode() const { return mInode; }

    /// Starts again if the file was truncated. If the path now leads to another file, next() reads that file after the
    /// rest of this one. Call it at the end of the data.
    void followPath();

    uint64_t lines() const { return mLines; }  ///< number of log lines
    /// Number of cut lines, with a line without a line feed at the end of the data.
    uint64_t cut() const { return mCut + (mAt != mEnd && !mSkipping ? 1 : 0); }
    uint64_t other() const { return mOther; }

private:
    void open();
    void openAgain();
    bool readMore();
    bool take(std::string_view aText);

    const std::string mPath;
    int mDescriptor = -1;
    dev_t mDevice = 0;
    ino_t mInode = 0;
    std::vector<char> mBuffer;
    size_t mAt = 0;          // of the first byte that has not been taken
    size_t mSearched = 0;    // no line feed lies before this position
    size_t mEnd = 0;         // of the bytes in the buffer
    bool mReplaced = false;  // the path leads to another file
    bool mSkipping = false;  // the rest of a line that was longer than the buffer
    LineParser mParser;
    LogLine mLine;
    uint64_t mLines = 0, mCut = 0, mOther = 0;
};

/// Reads several files. The next line is always the earliest one of the next lines of all files.
class LogReader
{
public:
    explicit LogReader(const std::vector<std::string>& acrPaths);

    /// \return the next line, or null at the end of all data
    const LogLine* next();
    const std::vector<std::unique_ptr<LogFile>>& files() const { return mFiles; }

private:
    void advance(size_t aFile);

    std::vector<std::unique_ptr<LogFile>> mFiles;
    std::vector<size_t> mHeap;  // the files with a line that has not been returned
    size_t mLast = 0;           // the file of the last line
    bool mHasLast = false;
};

#endif
