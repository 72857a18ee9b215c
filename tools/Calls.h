/// \file
/// Finds the calls in the lines "Entered" and "Left" of a log.
///
/// A call that an exception ended may have no "Left", so other lines must show its end. The memory depends on the
/// number of threads and operations, not on the number of lines.
#ifndef OQ_TOOLS_CALLS_H
#define OQ_TOOLS_CALLS_H

#include <deque>
#include <map>
#include <unordered_map>

#include "LogLines.h"

/// How a call ended.
enum class End {
    Returned,
    Thrown,  ///< by an exception or a failed assertion, at a known time
    Lost,    ///< without "Left", at an unknown time: an exception that is not logged, or a cancelled thread
    Open     ///< it has not ended when the log ends
};

/// A call that has begun.
struct Call {
    size_t mOperation = 0;     ///< index of the name
    bool mIsOfLayer = false;   ///< false: of the host, whose calls may nest in any way
    bool mThrows = false;      ///< a line says that a throw follows
    unsigned int mNested = 0;  ///< number of calls that it made
    int64_t mEntered = 0;      ///< time
    int64_t mNestedTime = 0;   ///< of the calls that it made
    std::string mMessages;     ///< its lines, joined; at most 2001 bytes
};

/// A thread of a process.
struct Thread {
    uint64_t mProcess;
    uint64_t mHandle;
    unsigned int mNumber;     ///< counts all threads from 1, in the order of their first lines
    std::vector<Call> mOpen;  ///< outermost first
    std::string mLog;         ///< path of the log that has its first line
};

/// Receives what happens. Each time is later than that of the event before.
class Observer
{
public:
    virtual ~Observer() = default;
    /// A thread appears for the first time.
    virtual void onThread(const Thread&) {}
    /// The last call of the thread has begun.
    virtual void onEntered(const Thread&, const LogLine&) {}
    /// The last call of the thread has ended.
    virtual void onEnded(const Thread&, End, int64_t) {}
    /// A line that neither begins nor ends a call.
    virtual void onLine(const Thread&, const LogLine&, int64_t) {}
};

class Calls
{
public:
    /// Adds an observer of all further lines.
    void add(Observer& arObserver) { mObservers.push_back(&arObserver); }
    void take(const LogLine& acrLine);
    /// Ends all calls that are open.
    void finish();

    const std::string& name(size_t aOperation) const { return mNames[aOperation]; }
    /// Returns the index of an operation's name. The indexes count from 0.
    size_t operationOf(std::string_view aName);
    const std::deque<Thread>& threads() const { return mThreads; }
    /// The time of the last event.
    int64_t now() const { return mNow; }
    /// The difference between the time of the last event and its time in the log, because the clock was set.
    int64_t shift() const { return mShift; }
    uint64_t clockChanges() const { return mClockChanges; }
    /// Number of lines "Left" without an open call.
    uint64_t leftWithoutCall() const { return mLeftWithoutCall; }

private:
    Thread& threadOf(const LogLine& acrLine);
    void moveTo(int64_t aTime);
    void enter(Thread& arThread, const LogLine& acrLine);
    void leave(Thread& arThread, const LogLine& acrLine);
    void note(Thread& arThread, const LogLine& acrLine);
    void end(Thread& arThread, End aEnd);
    void unwind(Thread& arThread, End aEnd);

    std::vector<Observer*> mObservers;
    std::deque<Thread> mThreads;
    std::map<std::pair<uint64_t, uint64_t>, Thread*> mThreadsByHandle;
    std::deque<std::string> mNames;
    std::unordered_map<std::string_view, size_t> mIndexes;  // of mNames
    Thread* mpLast = nullptr;                               // of the last line
    int64_t mNow = 0;
    int64_t mFirst = 0;
    int64_t mShift = 0;
    uint64_t mClockChanges = 0;
    uint64_t mLeftWithoutCall = 0;
};

#endif
