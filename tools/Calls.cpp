#include "Calls.h"

#include <algorithm>

namespace
{

const size_t cDeepest = 100;            // calls; a host may write "Entered" and never "Left"
const size_t cLongestMessages = 1000;   // bytes
const int64_t cTolerance = 1000000000;  // nanoseconds; a thread may be stopped between a time and its line
const int64_t cLongestGap = cTolerance * 86400 * 365;
const int64_t cLongestLog = 70 * cLongestGap;  // a double can represent each quarter of a microsecond

/// The files whose operations log "Entered" and "Left".
const char* const cFiles[] = {".//MiscLinux", ".//NamedPipeLinux", ".//ProcessLinux", ".//SharedMemoryLinux",
                              ".//ThreadLinux"};

/// The operations that call an operation. Any other "Entered" inside a call means that the call has ended. No operation
/// catches an exception of an operation that it called, so all callers have ended, too.
struct Nesting {
    const char* mpCaller;
    const char* mpCalled;
    bool mRepeats;  // whether one call makes several of these calls
};
const Nesting cNestings[] = {{"OsExecute", "OsBreak", true},
                             {"OsNamedPipeWaitForActivity", "OsWaitForActivity", false},
                             {"OsSharedMemoryWrite", "sTimedWaitOnFlag", false}};

/// The lines that announce an exception, by the beginning of their messages. An error line without a row here announces
/// a "Left" and an exception.
enum class Announced { Nothing, Throw, LeftAndThrow };
struct Announcement {
    const char* mpOperation;
    const char* mpMessage;
    Announced mFollows;
};
const Announcement cAnnouncements[] = {
    {"OsExecute", "Failed to read - ", Announced::LeftAndThrow},
    {"OsSharedMemoryRead", "Shared Segment in use for writing: Try again", Announced::Throw},
    {"OsWaitForActivity", "No data within ", Announced::LeftAndThrow},
    {"ProcessWait", "Failed to wait on child process", Announced::Throw},
    {"ProcessWait", "The child process exited abnormally", Announced::Nothing},
    {"sTimedWaitOnFlag", "Timed out waiting on Shared Memory", Announced::Throw}};

bool isOfLayer(std::string_view aFile)
{
    return std::any_of(std::begin(cFiles), std::end(cFiles), [=](const char* acFile) { return aFile == acFile; });
}

bool mayNest(std::string_view aCaller, std::string_view aCalled, unsigned int aCalls)
{
    return std::any_of(std::begin(cNestings), std::end(cNestings), [=](const Nesting& acrNesting) {
        return aCaller == acrNesting.mpCaller && aCalled == acrNesting.mpCalled && (0 == aCalls || acrNesting.mRepeats);
    });
}

Announced announced(const LogLine& acrLine)
{
    for (const Announcement& acrRow : cAnnouncements) {
        if (acrLine.mFunction == acrRow.mpOperation && 0 == acrLine.mMessage.rfind(acrRow.mpMessage, 0)) {
            return acrRow.mFollows;
        }
    }
    return 'E' == acrLine.mLevel ? Announced::LeftAndThrow : Announced::Nothing;
}

}  // namespace

void Calls::take(const LogLine& acrLine)
{
    moveTo(acrLine.mTime);
    Thread& lrThread = threadOf(acrLine);
    if ('T' == acrLine.mLevel && "Entered" == acrLine.mMessage) {
        enter(lrThread, acrLine);
    } else if ('T' == acrLine.mLevel && "Left" == acrLine.mMessage) {
        leave(lrThread, acrLine);
    } else {
        note(lrThread, acrLine);
    }
}

void Calls::finish()
{
    for (Thread& lrThread : mThreads) {
        while (!lrThread.mOpen.empty()) {
            end(lrThread, End::Open);
        }
    }
}

size_t Calls::operationOf(std::string_view aName)
{
    const auto lFound = mIndexes.find(aName);
    if (mIndexes.end() != lFound) {
        return lFound->second;
    }
    mNames.emplace_back(aName);
    mIndexes.emplace(mNames.back(), mNames.size() - 1);
    return mNames.size() - 1;
}

Thread& Calls::threadOf(const LogLine& acrLine)
{
    if (NULL == mpLast || acrLine.mThread != mpLast->mHandle || acrLine.mProcess != mpLast->mProcess) {
        Thread*& lrpThread = mThreadsByHandle[{acrLine.mProcess, acrLine.mThread}];
        if (NULL == lrpThread) {
            mThreads.push_back(Thread{acrLine.mProcess,
                                      acrLine.mThread,
                                      static_cast<unsigned int>(mThreads.size() + 1),
                                      {},
                                      std::string(acrLine.mLog)});
            lrpThread = &mThreads.back();
            for (Observer* const lpObserver : mObservers) {
                lpObserver->onThread(*lrpThread);
            }
        }
        mpLast = lrpThread;
    }
    return *mpLast;
}

/// Prepares the time of the next event, which is later than all events before. A thread may write its line a little later
/// than another thread with a later time. A line that is much earlier than the last event, or a year later, means that
/// the clock was set. All further lines are then shifted, until their own times fit again.
void Calls::moveTo(int64_t aTime)
{
    if (mThreads.empty()) {
        mFirst = aTime;
        mNow = aTime - 1;
    }
    const auto lFits = [=](int64_t aShift) {
        return mNow - cTolerance <= aTime + aShift && aTime + aShift <= mNow + cLongestGap;
    };
    if (mNow <= aTime && lFits(0)) {
        mShift = 0;
    } else if (!lFits(mShift)) {
        mShift = mNow - aTime;
        ++mClockChanges;
    }
    mNow = std::max(mNow, std::min(aTime + mShift, mFirst + cLongestLog) - 1);
}

void Calls::enter(Thread& arThread, const LogLine& acrLine)
{
    std::vector<Call>& lrOpen = arThread.mOpen;
    if (cDeepest == lrOpen.size()) {
        while (!lrOpen.empty()) {
            end(arThread, End::Lost);
        }
    }
    if (!lrOpen.empty() && lrOpen.back().mIsOfLayer &&
        !mayNest(name(lrOpen.back().mOperation), acrLine.mFunction, lrOpen.back().mNested)) {
        unwind(arThread, End::Lost);
    }
    if (!lrOpen.empty()) {
        ++lrOpen.back().mNested;
    }
    lrOpen.emplace_back();
    lrOpen.back().mOperation = operationOf(acrLine.mFunction);
    lrOpen.back().mIsOfLayer = isOfLayer(acrLine.mFile);
    lrOpen.back().mEntered = ++mNow;
    for (Observer* const lpObserver : mObservers) {
        lpObserver->onEntered(arThread, acrLine);
    }
}

void Calls::leave(Thread& arThread, const LogLine& acrLine)
{
    std::vector<Call>& lrOpen = arThread.mOpen;
    const size_t lOperation = operationOf(acrLine.mFunction);
    const auto lFound = std::find_if(lrOpen.rbegin(), lrOpen.rend(),
                                     [=](const Call& acrCall) { return lOperation == acrCall.mOperation; });
    if (lrOpen.rend() == lFound) {
        ++mLeftWithoutCall;
        note(arThread, acrLine);
        return;
    }
    for (auto lAbove = lFound - lrOpen.rbegin(); 0 < lAbove; --lAbove) {
        end(arThread, End::Lost);
    }
    if (lrOpen.back().mThrows) {
        unwind(arThread, End::Thrown);
    } else {
        end(arThread, End::Returned);
    }
}

/// Takes a line that is neither "Entered" nor "Left" of an open call.
void Calls::note(Thread& arThread, const LogLine& acrLine)
{
    ++mNow;
    for (Observer* const lpObserver : mObservers) {
        lpObserver->onLine(arThread, acrLine, mNow);
    }
    if (arThread.mOpen.empty()) {
        return;
    }
    Call& lrCall = arThread.mOpen.back();
    if ('H' == acrLine.mLevel) {
        unwind(arThread, End::Thrown);  // the process ends, or the operation throws
    } else if (name(lrCall.mOperation) == acrLine.mFunction) {
        if (lrCall.mMessages.size() < cLongestMessages) {
            lrCall.mMessages.append(lrCall.mMessages.empty() ? "" : "; ")
                .append(acrLine.mMessage.substr(0, cLongestMessages));
        }
        const Announced lFollows = lrCall.mIsOfLayer ? announced(acrLine) : Announced::Nothing;
        if (Announced::Throw == lFollows) {
            unwind(arThread, End::Thrown);
        } else if (Announced::LeftAndThrow == lFollows) {
            lrCall.mThrows = true;
        }
    }
}

/// Ends the last call of a thread.
void Calls::end(Thread& arThread, End aEnd)
{
    ++mNow;
    for (Observer* const lpObserver : mObservers) {
        lpObserver->onEnded(arThread, aEnd, mNow);
    }
    const int64_t lTime = mNow - arThread.mOpen.back().mEntered;
    arThread.mOpen.pop_back();
    if (!arThread.mOpen.empty()) {
        arThread.mOpen.back().mNestedTime += lTime;
    }
}

/// Ends the last call of a thread and all of its callers up to a function of the host, which may catch the exception.
void Calls::unwind(Thread& arThread, End aEnd)
{
    do {
        end(arThread, aEnd);
    } while (!arThread.mOpen.empty() && arThread.mOpen.back().mIsOfLayer);
}
