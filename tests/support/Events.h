/// \file
/// The sequence of everything that an operation does: log calls, calls of substituted functions, changes of watched
/// values, exceptions, and ends of children.
///
/// The sequence is in shared memory, and children record into the sequence of their parent. Their events remain even if
/// they are killed. Recording allocates nothing and takes no lock, because tests make both fail. It preserves errno.
#ifndef OQ_TESTS_EVENTS_H
#define OQ_TESTS_EVENTS_H

#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "OQLinux.h"

/// Excludes a function from checks. The thread sanitizer's runtime calls such functions in threads that it does not
/// know yet.
#if defined(__SANITIZE_THREAD__)
#define UNWATCHED __attribute__((no_sanitize_thread))
#else
#define UNWATCHED
#endif

struct Event {
    enum Kind { Log, Call, Change, Throw, End };
    Kind mKind;
    pid_t mProcess;
    unsigned int mLevel;  ///< level of a log call, or code of an exception
    std::string mTag;     ///< this and the next four members: of a log call
    unsigned int mLine;
    std::string mFunction;
    std::string mFile;
    std::vector<const void*> mFrames;     ///< return addresses, innermost first; see recordSites()
    std::string mName;                    ///< the format, function, watched value or exception class; how a child ended
    std::vector<std::string> mArguments;  ///< of a log call: the value of each directive; of a call: the relevant ones
    std::string mResult;                  ///< of a call; empty until the call returns
};
typedef std::vector<Event> Events;

/// Returns all events since clearEvents(), of this process and of its children, in the order in which they began.
Events recorded();
/// Forgets all events, names and watched values. No child may be running.
void clearEvents();
/// Stops recording until clearEvents(), for tests with more events than the recorder has room for.
void keepNoEvents();

/// Returns the events as text, one per line. A log call shows its function unless it is acrOperation, and its file
/// unless it is acrFile. "Entered" and "Left" represent the trace lines with these texts. An event of a process other
/// than that of the first event begins with "child N: ". N counts the children in the order of their first events.
std::string traceOf(const Events& acrEvents, const std::string& acrOperation, const std::string& acrFile);

/// While a Recording exists, substituted functions record the calls of its thread, and of children that this thread
/// forks, and do what the test planned. In other threads a substituted function only calls the real function. It also
/// does so for callers outside of the layer and the test program, such as the C++ runtime, which locks a mutex when it
/// throws without memory, and the companion, unless the test calls recordCompanion().
/// Log calls of all threads are always recorded.
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
/// Also records the calls that the companion makes, until clearEvents().
void recordCompanion();
/// Returns whether the call that returns to this address is recorded.
UNWATCHED bool isRecorded(const void* acReturnAddress);

/// Makes events show this name for the object at this address. The names last until clearEvents().
void nameObject(const char* acName, const void* acObject);
/// Records a change of the object before the next event of this thread, or at the end of its Recording.
void watchObject(const char* acName, const void* acObject, size_t aSize);
/// Makes traces show this name for an argument or a result that equals this number or text. traceOf() reads the number,
/// so the operation may set it. The names last until clearEvents().
void nameNumber(const char* acName, const int* acNumber);
void nameText(const char* acName, const std::string& acrText);

/// Records the exception that the calling handler has caught.
void recordThrow();
/// Records how a child ended, unless it ended with status 0.
/// \param[in] aStatus  what waitpid() reports
void recordEnd(int aStatus);

/// From now on, records the return addresses of each log call.
void recordSites();

/// The text that an event shows for a value.
struct Shown {
    char mText[600];
};
Shown number(long long aNumber);
Shown quoted(const char* acText);
/// acPrefix, followed by the bits as octal digits.
Shown shownBits(const char* acPrefix, unsigned int aBits);
/// The name of an error, or its number if it has no name.
Shown errorName(int aError);
/// The result of a call that returns a negative number and sets errno when it fails.
Shown resultWithErrno(long aResult);
/// A process id: "child N" for a child that has events, otherwise "process N".
Shown process(pid_t aId);
/// An address: the name of a named object, "local" in the frames of the operation, "null", or "memory" elsewhere.
Shown place(const void* acObject);
/// Seconds and nanoseconds.
Shown timeText(const timespec* acTime);
/// Seconds and microseconds.
Shown timeText(const timeval* acTime);

/// The event of one call. The event begins when the call is made. The result is added when the call returns.
class CallRecord
{
public:
    /// \param[in] aIsShown  whether the call is an event
    CallRecord(bool aIsShown, const char* acFunction, std::initializer_list<Shown> aArguments);
    void returned(const Shown& acrResult) const;

private:
    unsigned int mSlot;
    pid_t mProcess;  // fork() also returns in the child, which did not make the call
};

#endif
