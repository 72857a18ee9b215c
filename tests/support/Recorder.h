/// \file
/// The log of a test program: its own definition of the logging function records every line instead of writing it.
#ifndef OQ_TESTS_RECORDER_H
#define OQ_TESTS_RECORDER_H

#include <ostream>
#include <string>
#include <vector>

struct Line {
    unsigned int mLevel;
    std::string mTag;
    std::string mFunction;
    std::string mFile;
    std::string mText;
};

typedef std::vector<Line> Lines;

bool operator==(const Line& acrLeft, const Line& acrRight);
std::ostream& operator<<(std::ostream& arStream, const Line& acrLine);

/// All lines recorded so far, of all threads, in their order. Recording allocates nothing and keeps errno.
Lines logged();

/// Forgets all lines.
void clearLog();

/// Counts lines instead of keeping them, for tests that make hundreds of thousands; clearLog() ends that.
void keepNoLines();

/// Has apHook called with the text of each line as it is logged, for what is to be true by then; null ends that.
void atEachLine(void (*apHook)(const char* acText));

/// The companion's own logging function, behind the recorder.
typedef void (*LogFunction)(unsigned int, const char*, unsigned int, const char*, const char*, const char*, ...);

/// The lines of one operation are alike but for level, tag and text.
class LinesOf
{
public:
    LinesOf(const char* acFile, const char* acFunction) : mFile(acFile), mFunction(acFunction) {}
    Line halt(const std::string& acrText) const { return {1, "-H-", mFunction, mFile, acrText}; }
    Line error(const std::string& acrText) const { return {8, "-E-", mFunction, mFile, acrText}; }
    Line information(const std::string& acrText) const { return {64, "-I-", mFunction, mFile, acrText}; }
    Line trace(const std::string& acrText) const { return {128, "-T-", mFunction, mFile, acrText}; }
    Line entered() const { return trace("Entered"); }
    Line left() const { return trace("Left"); }
    Line assertion(const std::string& acrCondition) const
    {
        return halt("Assertion [ " + acrCondition + " ] failed\n");
    }

private:
    std::string mFile;
    std::string mFunction;
};

#endif
