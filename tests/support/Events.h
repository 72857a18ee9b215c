/// \file
/// One sequence of everything that an operation does: each log call, each call of a substituted function, each change of
/// a watched value, what was thrown and how a child ended.
///
/// Children record into the sequence of their parent, in shared memory: their events are there however they ended.
/// Recording neither allocates nor locks, because tests make both fail. It keeps errno.
#ifndef OQ_TESTS_EVENTS_H
#define OQ_TESTS_EVENTS_H

#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "OQLinux.h"

/// For what the thread sanitizer's runtime calls in threads that it does not know yet, and for what is called while a
/// test has used up all descriptors, which the check of an object's type needs.
#if defined(__SANITIZE_THREAD__)
#define UNWATCHED __attribute__((no_sanitize_thread, no_sanitize("vptr")))
#else
#define UNWATCHED __attribute__((no_sanitize("vptr")))
#endif

struct Event {
    enum Kind { Log, Call, Change, Throw, End };
    Kind mKind;
    pid_t mProcess;
    unsigned int mLevel;  ///< of a log call; of what was thrown: its code
    std::string mTag;     ///< of a log call, as are the next four
    unsigned int mLine;
    std::string mFunction;
    std::string mFile;
    std::vector<const void*> mFrames;     ///< return addresses, innermost first; see recordSites()
    std::string mName;                    ///< the format, function, watched value or exception class; how a child ended
    std::vector<std::string> mArguments;  ///< of a log call: the value of each directive; of a call: those that matter
    std::string mResult;                  ///< of a call; empty while it has not returned
};
typedef std::vector<Event> Events;

/// All events since clearEvents(), of this process and of its children, in the order in which they began.
Events recorded();
/// Forgets all events, names and watched values. No child may be running.
void clearEvents();
/// Records nothing until clearEvents(), for tests that make more events than the recorder has room for.
void keepNoEvents();

/// The events as text, one a line. Log calls show their function unless it is acrOperation, and their file unless it is
/// acrFile; "Entered" and "Left" stand for the trace lines of these words. An event of another process than that of the
/// first event begins with "child N: ", where N counts the children in the order of their first events.
std::string traceOf(const Events& acrEvents, const std::string& acrOperation, const std::string& acrFile);

/// While a Recording lives, the calls of its thread, and of children that this thread forks, are recorded and answered
/// as planned. In other threads a substituted function calls the real one and nothing else; so it does for callers
/// outside of the layer and the test program, such as the C++ runtime, which locks a mutex when it throws without memory,
/// and the companion, unless the test asks for its calls.
/// Log calls are recorded always, whatever their thread.
class Recording
{
public:
    Recording();
    ~Recording() { end(); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    /// Ends the recording of this thread.
    static void end();
};
/// Records the calls of the companion, too, until clearEvents().
void recordCompanion();
/// Whether the call that returns to this address is recorded.
UNWATCHED bool isRecorded(const void* acReturnAddress);

/// Shows the object at this address by a name. The names last until clearEvents().
void nameObject(const char* acName, const void* acObject);
/// Records a change of the object before the next event of this thread, or at the end of its Recording.
void watchObject(const char* acName, const void* acObject, size_t aSize);
/// Shows an argument or a result that equals this number or text by a name. The object is read by traceOf(), so an
/// operation may have set it. The names last until clearEvents().
void nameNumber(const char* acName, const int* acNumber);
void nameText(const char* acName, const std::string& acrText);

/// Records the exception that the calling handler has caught.
void recordThrow();
/// Records how a child ended, unless it ended with status 0.
/// \param[in] aStatus  what waitpid() reports
void recordEnd(int aStatus);

/// Keeps the return addresses of each log call from now on.
void recordSites();

/// A value as events show it.
struct Shown {
    char mText[600];
};
Shown number(long long aNumber);
Shown quoted(const char* acText);
/// acPrefix and octal digits.
Shown shownBits(const char* acPrefix, unsigned int aBits);
/// The name of an error, or the number where there is none.
Shown errorName(int aError);
/// The result of a call that returns a negative number and sets errno when it fails.
Shown resultWithErrno(long aResult);
/// A process id: of a child that has events as "child N", otherwise as "process N".
Shown process(pid_t aId);
/// A named object by its name; "local" in the frames of the operation; "memory" elsewhere; "null".
Shown place(const void* acObject);
/// Seconds and nanoseconds.
Shown timeText(const timespec* acTime);
/// Seconds and microseconds.
Shown timeText(const timeval* acTime);

/// The event of one call. Its place in the order is where the call is made; the result is added when the call returns.
class CallRecord
{
public:
    /// \param[in] aIsShown  whether the call is an event
    CallRecord(bool aIsShown, const char* acFunction, std::initializer_list<Shown> aArguments);
    void returned(const Shown& acrResult) const;

private:
    unsigned int mSlot;
    pid_t mProcess;  // fork() returns in the child, too, where the call was not made
};

#endif
