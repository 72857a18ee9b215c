#include "LogLines.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace
{

const size_t cBufferSize = 262144;  // bytes; the companion's longest line has 8192
const size_t cTimeLength = 27;      // of "2026-03-01T12:00:00.123456Z"
const char cTimePattern[] = "dddd-dd-ddTdd:dd:dd.ddddddZ";
const int64_t cSecond = 1000000000;  // nanoseconds

bool isDigit(char aCharacter) { return '0' <= aCharacter && aCharacter <= '9'; }

/// Returns the number that these digits form.
int64_t numberOf(const char* acDigits, int aCount)
{
    int64_t lNumber = 0;
    for (int lIndex = 0; lIndex < aCount; ++lIndex) {
        lNumber = 10 * lNumber + (acDigits[lIndex] - '0');
    }
    return lNumber;
}

/// Returns the number of days from 1970-01-01 to a date.
int64_t daysTo(int64_t aYear, int64_t aMonth, int64_t aDay)
{
    // Years start on 1 March, so that the leap day is the last day of its year.
    const int64_t lYear = aYear - (aMonth <= 2 ? 1 : 0);
    const int64_t lMonth = (aMonth + 9) % 12;
    return 365 * lYear + lYear / 4 - lYear / 100 + lYear / 400 + (153 * lMonth + 2) / 5 + aDay - 1 - 719468;
}

/// Takes fields from the beginning of a text. After a failure, isAtEnd() says whether the text was too short.
class Fields
{
public:
    explicit Fields(std::string_view aText) : mAt(aText.data()), mEnd(aText.data() + aText.size()) {}

    bool isAtEnd() const { return mEnd == mAt; }
    bool character(char aCharacter)
    {
        if (isAtEnd() || aCharacter != *mAt) {
            return false;
        }
        ++mAt;
        return true;
    }
    bool time()
    {
        for (const char* lpPattern = cTimePattern; '\0' != *lpPattern; ++lpPattern, ++mAt) {
            if (isAtEnd() || !('d' == *lpPattern ? isDigit(*mAt) : *lpPattern == *mAt)) {
                return false;
            }
        }
        return true;
    }
    bool number(uint64_t& arNumber)
    {
        const char* const lpFirst = mAt;
        arNumber = 0;
        for (; !isAtEnd() && isDigit(*mAt); ++mAt) {
            const uint64_t lDigit = static_cast<uint64_t>(*mAt - '0');
            if ((UINT64_MAX - lDigit) / 10 < arNumber) {
                return false;
            }
            arNumber = 10 * arNumber + lDigit;
        }
        return lpFirst != mAt;
    }
    bool level(char& arLevel)
    {
        if (!character('-') || isAtEnd() || NULL == strchr("HEIT", *mAt)) {
            return false;
        }
        arLevel = *mAt++;
        return character('-');
    }
    /// Takes the text up to a blank.
    bool word(std::string_view& arWord)
    {
        const char* const lpFirst = mAt;
        while (!isAtEnd() && ' ' != *mAt) {
            ++mAt;
        }
        arWord = std::string_view(lpFirst, static_cast<size_t>(mAt - lpFirst));
        return lpFirst != mAt;
    }
    /// Takes "FILE:LINE)". The file may contain blanks and colons, and no bracket.
    bool place(std::string_view& arFile, uint64_t& arLine)
    {
        const char* const lpFirst = mAt;
        while (!isAtEnd() && '(' != *mAt && ')' != *mAt) {
            ++mAt;
        }
        if (isAtEnd() || '(' == *mAt) {
            return false;
        }
        const std::string_view lPlace(lpFirst, static_cast<size_t>(mAt - lpFirst));
        const size_t lColon = lPlace.rfind(':');
        if (std::string_view::npos == lColon) {
            return false;
        }
        Fields lNumber(lPlace.substr(lColon + 1));
        arFile = lPlace.substr(0, lColon);
        return lNumber.number(arLine) && lNumber.isAtEnd() && character(')');
    }
    std::string_view rest() const { return std::string_view(mAt, static_cast<size_t>(mEnd - mAt)); }

private:
    const char* mAt;
    const char* const mEnd;
};

bool isBeginOf(std::string_view aText, std::string_view aWhole)
{
    return aText.size() < aWhole.size() && aText == aWhole.substr(0, aText.size());
}

/// Whether the next line of a file comes after that of another file. Lines with equal times keep the order of the files.
struct Later {
    const std::vector<std::unique_ptr<LogFile>>& mFiles;
    bool operator()(size_t aLeft, size_t aRight) const
    {
        const int64_t lLeft = mFiles[aLeft]->line().mTime, lRight = mFiles[aRight]->line().mTime;
        return lRight < lLeft || (lRight == lLeft && aRight < aLeft);
    }
};

[[noreturn]] void fail(const std::string& acrPath) { throw std::runtime_error(acrPath + ": " + strerror(errno)); }

}  // namespace

// ---- Lines ----------------------------------------------------------------------------------------------------------

LineParser::Kind LineParser::parse(std::string_view aText, LogLine& arLine, bool& arCutBefore)
{
    arCutBefore = false;
    const Kind lKind = parseFields(aText, arLine);
    if (Other != lKind) {
        return lKind;
    }
    // A log line may follow a cut line without a line feed, or a prefix that another program added.
    for (size_t lZulu = aText.find('Z', cTimeLength); std::string_view::npos != lZulu;
         lZulu = aText.find('Z', lZulu + 1)) {
        const size_t lBegin = lZulu + 1 - cTimeLength;
        if (Log == parseFields(aText.substr(lBegin), arLine)) {
            LogLine lIgnored;
            arCutBefore = Fields(aText).time() || Cut == parseFields(aText.substr(0, lBegin), lIgnored);
            return Log;
        }
    }
    return Other;
}

LineParser::Kind LineParser::parseFields(std::string_view aText, LogLine& arLine)
{
    Fields lFields(aText);
    const bool lComplete = lFields.time() && parseTime(aText.data(), arLine.mTime) && lFields.character(' ') &&
                           lFields.number(arLine.mProcess) && lFields.character(' ') &&
                           lFields.number(arLine.mThread) && lFields.character(' ') && lFields.level(arLine.mLevel) &&
                           lFields.character(' ') && lFields.word(arLine.mFunction) && lFields.character(' ') &&
                           lFields.character('(') && lFields.place(arLine.mFile, arLine.mNumber) &&
                           lFields.character(' ');
    if (!lComplete) {
        return lFields.isAtEnd() && !aText.empty() ? Cut : Other;
    }
    arLine.mMessage = lFields.rest();
    arLine.mWhole = aText;
    const bool lCut =
        'T' == arLine.mLevel && (isBeginOf(arLine.mMessage, "Entered") || isBeginOf(arLine.mMessage, "Left"));
    return lCut ? Cut : Log;
}

/// \return false if the digits form no time between 1970 and 2199
bool LineParser::parseTime(const char* acText, int64_t& arTime)
{
    if (0 != memcmp(mMinute, acText, cMinuteLength)) {
        const int64_t lYear = numberOf(acText, 4), lMonth = numberOf(acText + 5, 2), lDay = numberOf(acText + 8, 2),
                      lHour = numberOf(acText + 11, 2), lMinute = numberOf(acText + 14, 2);
        if (lYear < 1970 || 2199 < lYear || lMonth < 1 || 12 < lMonth || lDay < 1 || 31 < lDay || 23 < lHour ||
            59 < lMinute) {
            return false;
        }
        memcpy(mMinute, acText, cMinuteLength);
        mMinuteStart = ((daysTo(lYear, lMonth, lDay) * 24 + lHour) * 60 + lMinute) * 60 * cSecond;
    }
    arTime = mMinuteStart + numberOf(acText + 17, 2) * cSecond + numberOf(acText + 20, 6) * 1000;
    return true;
}

// ---- Files ----------------------------------------------------------------------------------------------------------

LogFile::LogFile(const std::string& acrPath) : mPath(acrPath), mBuffer(cBufferSize) { open(); }

LogFile::~LogFile() { close(mDescriptor); }

void LogFile::open()
{
    mDescriptor = "-" == mPath ? dup(STDIN_FILENO) : ::open(mPath.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat lState;
    if (mDescriptor < 0 || fstat(mDescriptor, &lState) < 0) {
        fail(mPath);
    }
    mDevice = lState.st_dev;
    mInode = lState.st_ino;
}

bool LogFile::next()
{
    for (;;) {
        const void* const lpFeed = memchr(&mBuffer[mSearched], '\n', mEnd - mSearched);
        if (NULL == lpFeed) {
            mSearched = mEnd;
            if (!readMore()) {
                if (!mReplaced) {
                    return false;
                }
                openAgain();
            }
            continue;
        }
        const size_t lFeed = static_cast<size_t>(static_cast<const char*>(lpFeed) - mBuffer.data());
        const std::string_view lText(&mBuffer[mAt], lFeed - mAt);
        mAt = mSearched = lFeed + 1;
        if (mSkipping) {
            mSkipping = false;
        } else if (take(lText)) {
            return true;
        }
    }
}

/// Counts a line. \return whether it is a log line
bool LogFile::take(std::string_view aText)
{
    bool lCutBefore;
    mLine.mLog = mPath;
    const LineParser::Kind lKind = mParser.parse(aText, mLine, lCutBefore);
    mLines += LineParser::Log == lKind ? 1 : 0;
    mCut += (LineParser::Cut == lKind ? 1 : 0) + (lCutBefore ? 1 : 0);
    mOther += LineParser::Other == lKind ? 1 : 0;
    return LineParser::Log == lKind;
}

/// Reads after the bytes in the buffer. Drops a line that does not fit. \return false at the end of the data
bool LogFile::readMore()
{
    if (0 == mAt && cBufferSize == mEnd) {
        mCut += mSkipping ? 0 : 1;
        mSkipping = true;
        mAt = mEnd;
    }
    memmove(mBuffer.data(), &mBuffer[mAt], mEnd - mAt);
    mEnd -= mAt;
    mAt = 0;
    mSearched = mEnd;
    ssize_t lRead;
    while ((lRead = read(mDescriptor, &mBuffer[mEnd], cBufferSize - mEnd)) < 0 && EINTR == errno) {
    }
    if (lRead < 0) {
        fail(mPath);
    }
    mEnd += static_cast<size_t>(lRead);
    return 0 < lRead;
}

void LogFile::followPath()
{
    struct stat lState;
    if (stat(mPath.c_str(), &lState) < 0) {
        return;  // a new file may not exist yet
    }
    mReplaced = lState.st_dev != mDevice || lState.st_ino != mInode;
    if (!mReplaced && lState.st_size < lseek(mDescriptor, 0, SEEK_CUR)) {
        openAgain();
    }
}

void LogFile::openAgain()
{
    mCut = cut();
    mReplaced = mSkipping = false;
    mAt = mSearched = mEnd = 0;
    close(mDescriptor);
    open();
}

LogReader::LogReader(const std::vector<std::string>& acrPaths)
{
    for (const std::string& acrPath : acrPaths) {
        mFiles.push_back(std::make_unique<LogFile>(acrPath));
    }
}

const LogLine* LogReader::next()
{
    if (mHasLast) {
        advance(mLast);
    }
    if (mHeap.empty()) {
        for (size_t lFile = 0; lFile < mFiles.size(); ++lFile) {
            advance(lFile);
        }
    }
    mHasLast = !mHeap.empty();
    if (!mHasLast) {
        return NULL;
    }
    std::pop_heap(mHeap.begin(), mHeap.end(), Later{mFiles});
    mLast = mHeap.back();
    mHeap.pop_back();
    return &mFiles[mLast]->line();
}

void LogReader::advance(size_t aFile)
{
    if (mFiles[aFile]->next()) {
        mHeap.push_back(aFile);
        std::push_heap(mHeap.begin(), mHeap.end(), Later{mFiles});
    }
}
