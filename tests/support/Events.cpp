#include "Events.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <typeinfo>

namespace
{

const unsigned int cSlots = 16384;
const int cFrames = 8;

/// One event. The texts follow each other, each with its terminating zero.
struct Slot {
    std::atomic<bool> mIsComplete;  // stays false when a child is killed while it writes the event
    Event::Kind mKind;
    pid_t mProcess;
    unsigned int mLevel;
    unsigned int mLine;
    int mFrameCount;
    void* mFrames[cFrames];
    unsigned int mTextCount;
    size_t mUsed;
    char mTexts[4800];
    std::atomic<bool> mHasReturned;
    char mResult[sizeof(Shown)];

    void add(const char* acFormat, ...) __attribute__((format(printf, 2, 3)));
};

struct Shared {
    std::atomic<unsigned int> mCount;
    Slot mSlots[cSlots];
};

/// The system allocates the pages of the slots only when they are used.
Shared& shared()
{
    static Shared* const spShared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    return *spShared;
}

[[noreturn]] void giveUp(const char* acReason)
{
    fprintf(stderr, "events: %s\n", acReason);
    abort();
}

void Slot::add(const char* acFormat, ...)
{
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsnprintf(mTexts + mUsed, sizeof mTexts - mUsed, acFormat, lArguments);
    va_end(lArguments);
    if (lLength < 0 || sizeof mTexts - mUsed <= static_cast<size_t>(lLength)) {
        giveUp("a text is too long");
    }
    mUsed += static_cast<size_t>(lLength) + 1;
    ++mTextCount;
}

struct Object {
    const char* mName;
    const void* mAddress;
    size_t mSize;
    unsigned char mLast[128];
};
const unsigned int cObjects = 8;
Object sNamed[cObjects];
Object sWatched[cObjects];
unsigned int sNamedCount = 0;
unsigned int sWatchedCount = 0;

std::vector<std::pair<std::string, const int*>> sNamedNumbers;
std::vector<std::pair<std::string, std::string>> sNamedTexts;
bool sKeepsNothing = false;
bool sCompanionIsRecorded = false;
bool sSitesAreRecorded = false;
thread_local const Recording* spRecording = nullptr;

class KeepErrno
{
public:
    KeepErrno() : mErrno(errno) {}
    ~KeepErrno() { errno = mErrno; }

private:
    const int mErrno;
};

/// Returns the library or program that contains this address. dladdr() would also search symbols, in each recorded
/// call.
void* objectOf(const void* acAddress)
{
    dl_find_object lFound;
    return 0 == _dl_find_object(const_cast<void*>(acAddress), &lFound) ? lFound.dlfo_map_start : nullptr;
}

unsigned int newSlot(Event::Kind aKind)
{
    const unsigned int lIndex = shared().mCount.fetch_add(1);
    if (cSlots <= lIndex) {
        giveUp("more events than the recorder has room for");
    }
    Slot& lrSlot = shared().mSlots[lIndex];
    lrSlot.mKind = aKind;
    lrSlot.mProcess = getpid();
    lrSlot.mLevel = 0;
    lrSlot.mLine = 0;
    lrSlot.mFrameCount = 0;
    lrSlot.mTextCount = 0;
    lrSlot.mUsed = 0;
    lrSlot.mHasReturned = false;
    return lIndex;
}

void complete(Slot& arSlot) { arSlot.mIsComplete.store(true, std::memory_order_release); }

/// Records an event that consists of a name only.
void record(Event::Kind aKind, const char* acName)
{
    Slot& lrSlot = shared().mSlots[newSlot(aKind)];
    lrSlot.add("%s", acName);
    complete(lrSlot);
}

void recordChanges()
{
    for (unsigned int lIndex = 0; nullptr != spRecording && !sKeepsNothing && lIndex < sWatchedCount; ++lIndex) {
        Object& lrObject = sWatched[lIndex];
        if (0 != memcmp(lrObject.mLast, lrObject.mAddress, lrObject.mSize)) {
            memcpy(lrObject.mLast, lrObject.mAddress, lrObject.mSize);
            record(Event::Change, lrObject.mName);
        }
    }
}

/// Adds the value of each directive. The layer uses only these directives.
void addArguments(Slot& arSlot, const char* acFormat, va_list aArguments)
{
    for (const char* lpAt = strchr(acFormat, '%'); nullptr != lpAt; lpAt = strchr(lpAt + 1, '%')) {
        ++lpAt;
        const bool lIsLong = 'l' == *lpAt;
        lpAt += lIsLong ? 1 : 0;
        if ('s' == *lpAt && !lIsLong) {
            arSlot.add("%s", va_arg(aArguments, const char*));
        } else if ('d' == *lpAt) {
            arSlot.add("%ld", lIsLong ? va_arg(aArguments, long) : va_arg(aArguments, int));
        } else if ('u' == *lpAt) {
            arSlot.add("%lu", lIsLong ? va_arg(aArguments, unsigned long) : va_arg(aArguments, unsigned int));
        } else if ('%' != *lpAt || lIsLong) {
            giveUp("a format has a directive that the recorder does not know");
        }
    }
}

/// Returns the name of an argument or a result, or the value itself if it has no name.
std::string named(const std::string& acrValue)
{
    for (const auto& lrNumber : sNamedNumbers) {
        if (std::to_string(*lrNumber.second) == acrValue) {
            return lrNumber.first;
        }
    }
    for (const auto& lrText : sNamedTexts) {
        if (lrText.second == acrValue || "\"" + lrText.second + "\"" == acrValue) {
            return lrText.first;
        }
    }
    return acrValue;
}

std::string quotedText(const std::string& acrText)
{
    if (acrText != named(acrText)) {
        return named(acrText);
    }
    std::string lText = "\"";
    for (const char lByte : acrText) {
        lText += '\n' == lByte ? std::string("\\n") : std::string(1, lByte);
    }
    return lText + "\"";
}

std::string joined(const std::vector<std::string>& acrTexts)
{
    std::string lJoined;
    for (const std::string& lrText : acrTexts) {
        lJoined += (lJoined.empty() ? "" : ", ") + lrText;
    }
    return lJoined;
}

/// Returns the process of the first event, then its children in the order of their first events.
std::vector<pid_t> processesOf(const Events& acrEvents)
{
    std::vector<pid_t> lProcesses;
    for (const Event& lrEvent : acrEvents) {
        if (lProcesses.end() == std::find(lProcesses.begin(), lProcesses.end(), lrEvent.mProcess)) {
            lProcesses.push_back(lrEvent.mProcess);
        }
    }
    return lProcesses;
}

std::string childName(const std::vector<pid_t>& acrProcesses, pid_t aProcess)
{
    const auto lAt = std::find(acrProcesses.begin(), acrProcesses.end(), aProcess);
    return "child " + std::to_string(lAt - acrProcesses.begin());
}

std::string callText(const Event& acrEvent, const std::vector<pid_t>& acrProcesses)
{
    const auto lText = [&acrProcesses](const std::string& acrValue) {
        for (const pid_t lProcess : acrProcesses) {
            if (acrValue == process(lProcess).mText && acrProcesses[0] != lProcess) {
                return childName(acrProcesses, lProcess);
            }
        }
        return named(acrValue);
    };
    std::vector<std::string> lArguments;
    for (const std::string& lrArgument : acrEvent.mArguments) {
        lArguments.push_back(lText(lrArgument));
    }
    return acrEvent.mName + "(" + joined(lArguments) + ")" +
           (acrEvent.mResult.empty() ? "" : " = " + lText(acrEvent.mResult));
}

std::string logText(const Event& acrEvent, const std::string& acrOperation, const std::string& acrFile)
{
    static const std::map<unsigned int, std::string> cTags = {
        {OQLL_Halt, "-H-"}, {OQLL_Error, "-E-"}, {OQLL_Information, "-I-"}, {OQLL_Trace, "-T-"}};
    std::string lText = acrFile == acrEvent.mFile ? "" : acrEvent.mFile + " ";
    lText += acrOperation == acrEvent.mFunction ? "" : acrEvent.mFunction + ": ";
    const auto lTag = cTags.find(acrEvent.mLevel);
    const bool lTagFits = cTags.end() != lTag && lTag->second == acrEvent.mTag;
    const std::string lWord = acrEvent.mArguments.empty() ? "" : acrEvent.mArguments[0];
    if (lTagFits && OQLL_Trace == acrEvent.mLevel && "%s" == acrEvent.mName &&
        ("Entered" == lWord || "Left" == lWord)) {
        return lText + lWord;
    }
    lText += (lTagFits ? "" : std::to_string(acrEvent.mLevel) + " ") + acrEvent.mTag + " " + quotedText(acrEvent.mName);
    std::vector<std::string> lArguments;
    for (const std::string& lrText : acrEvent.mArguments) {
        lArguments.push_back(quotedText(lrText));
    }
    return lText + (lArguments.empty() ? "" : " " + joined(lArguments));
}

template <class... Arguments>
Shown shown(const char* acFormat, Arguments... aArguments)
{
    const KeepErrno lKeepErrno;
    Shown lShown;
    if (static_cast<int>(sizeof lShown.mText) <= snprintf(lShown.mText, sizeof lShown.mText, acFormat, aArguments...)) {
        giveUp("an argument is too long");
    }
    return lShown;
}

}  // namespace

void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction,
                                  const char* acFile, const char* acFormat, ...)
{
    if (sKeepsNothing) {
        return;
    }
    const KeepErrno lKeepErrno;
    recordChanges();
    Slot& lrSlot = shared().mSlots[newSlot(Event::Log)];
    lrSlot.mLevel = aLevel;
    lrSlot.mLine = aLine;
    if (sSitesAreRecorded) {
        lrSlot.mFrameCount = backtrace(lrSlot.mFrames, cFrames);
    }
    for (const char* const lpText : {acTag, acFunction, acFile, acFormat}) {
        lrSlot.add("%s", lpText);
    }
    va_list lArguments;
    va_start(lArguments, acFormat);
    addArguments(lrSlot, acFormat, lArguments);
    va_end(lArguments);
    complete(lrSlot);
}

Events recorded()
{
    Events lEvents;
    const unsigned int lCount = std::min<unsigned int>(shared().mCount, cSlots);
    for (unsigned int lIndex = 0; lIndex < lCount; ++lIndex) {
        const Slot& lrSlot = shared().mSlots[lIndex];
        if (!lrSlot.mIsComplete.load(std::memory_order_acquire)) {
            continue;
        }
        std::vector<std::string> lTexts;
        for (const char* lpText = lrSlot.mTexts; lTexts.size() < lrSlot.mTextCount; lpText += strlen(lpText) + 1) {
            lTexts.push_back(lpText);
        }
        Event lEvent = {};
        lEvent.mKind = lrSlot.mKind;
        lEvent.mProcess = lrSlot.mProcess;
        lEvent.mLevel = lrSlot.mLevel;
        lEvent.mLine = lrSlot.mLine;
        if (lrSlot.mHasReturned.load(std::memory_order_acquire)) {
            lEvent.mResult = lrSlot.mResult;
        }
        unsigned int lNext = 0;
        if (Event::Log == lEvent.mKind) {
            lEvent.mTag = lTexts[lNext++];
            lEvent.mFunction = lTexts[lNext++];
            lEvent.mFile = lTexts[lNext++];
            lEvent.mFrames.assign(lrSlot.mFrames, lrSlot.mFrames + lrSlot.mFrameCount);
        }
        lEvent.mName = lTexts[lNext++];
        lEvent.mArguments.assign(lTexts.begin() + lNext, lTexts.end());
        lEvents.push_back(lEvent);
    }
    return lEvents;
}

void clearEvents()
{
    const unsigned int lCount = std::min<unsigned int>(shared().mCount, cSlots);
    for (unsigned int lIndex = 0; lIndex < lCount; ++lIndex) {
        shared().mSlots[lIndex].mIsComplete = false;
    }
    shared().mCount = 0;
    sNamedCount = 0;
    sWatchedCount = 0;
    sNamedNumbers.clear();
    sNamedTexts.clear();
    sKeepsNothing = false;
    sCompanionIsRecorded = false;
}

void keepNoEvents() { sKeepsNothing = true; }

void recordCompanion() { sCompanionIsRecorded = true; }

std::string traceOf(const Events& acrEvents, const std::string& acrOperation, const std::string& acrFile)
{
    std::string lTrace;
    const std::vector<pid_t> lProcesses = processesOf(acrEvents);
    for (const Event& lrEvent : acrEvents) {
        if (Event::End != lrEvent.mKind && lProcesses[0] != lrEvent.mProcess) {
            lTrace += childName(lProcesses, lrEvent.mProcess) + ": ";
        }
        switch (lrEvent.mKind) {
            case Event::Log:
                lTrace += logText(lrEvent, acrOperation, acrFile);
                break;
            case Event::Call:
                lTrace += callText(lrEvent, lProcesses);
                break;
            case Event::Change:
                lTrace += lrEvent.mName + " changes";
                break;
            case Event::Throw:
                lTrace += "throws " + lrEvent.mName + " " + std::to_string(lrEvent.mLevel) + " " +
                          quotedText(lrEvent.mArguments[0]);
                break;
            case Event::End:
                lTrace += lrEvent.mName;
                break;
        }
        lTrace += "\n";
    }
    return lTrace;
}

Recording::Recording()
{
    for (unsigned int lIndex = 0; lIndex < sWatchedCount; ++lIndex) {
        memcpy(sWatched[lIndex].mLast, sWatched[lIndex].mAddress, sWatched[lIndex].mSize);
    }
    spRecording = this;
}

void Recording::end()
{
    const KeepErrno lKeepErrno;
    recordChanges();
    spRecording = nullptr;
}

bool isRecorded(const void* acReturnAddress)
{
    if (nullptr == spRecording) {
        return false;
    }
    const void* const lpCaller = objectOf(acReturnAddress);
    if (sCompanionIsRecorded && objectOf(dlsym(RTLD_NEXT, "_Z11ClibGetTimeRlRt")) == lpCaller) {
        return true;
    }
    return objectOf(reinterpret_cast<const void*>(&OsInitMutex)) == lpCaller ||
           objectOf(reinterpret_cast<const void*>(&isRecorded)) == lpCaller;
}

void nameObject(const char* acName, const void* acObject)
{
    if (cObjects == sNamedCount) {
        giveUp("too many names");
    }
    sNamed[sNamedCount++] = {acName, acObject, 0, {}};
}

void watchObject(const char* acName, const void* acObject, size_t aSize)
{
    if (cObjects == sWatchedCount || sizeof sWatched[0].mLast < aSize) {
        giveUp("too much to watch");
    }
    sWatched[sWatchedCount++] = {acName, acObject, aSize, {}};
}

void nameNumber(const char* acName, const int* acNumber) { sNamedNumbers.push_back({acName, acNumber}); }

void nameText(const char* acName, const std::string& acrText) { sNamedTexts.push_back({acName, acrText}); }

void recordThrow()
{
    char* const lpClass = abi::__cxa_demangle(abi::__cxa_current_exception_type()->name(), nullptr, nullptr, nullptr);
    Slot& lrSlot = shared().mSlots[newSlot(Event::Throw)];
    lrSlot.add("%s", lpClass);
    free(lpClass);
    try {
        throw;
    } catch (const OQCException& acrFailure) {
        lrSlot.mLevel = acrFailure.code();
        lrSlot.add("%s", acrFailure.what());
    } catch (const std::exception& acrFailure) {
        lrSlot.add("%s", acrFailure.what());
    } catch (...) {
        lrSlot.add("%s", "");
    }
    complete(lrSlot);
}

void recordEnd(int aStatus)
{
    if (WIFSIGNALED(aStatus)) {
        record(Event::End, shown("killed by signal %d", WTERMSIG(aStatus)).mText);
    } else if (0 != WEXITSTATUS(aStatus)) {
        record(Event::End, shown("exit status %d", WEXITSTATUS(aStatus)).mText);
    }
}

void recordSites()
{
    void* lFrames[cFrames];
    backtrace(lFrames, cFrames);  // the first call allocates
    sSitesAreRecorded = true;
}

Shown number(long long aNumber) { return shown("%lld", aNumber); }

Shown quoted(const char* acText) { return shown("\"%s\"", acText); }

Shown shownBits(const char* acPrefix, unsigned int aBits) { return shown("%s%#o", acPrefix, aBits); }

Shown errorName(int aError)
{
    const char* const lpName = strerrorname_np(aError);
    return nullptr == lpName ? number(aError) : shown("%s", lpName);
}

Shown process(pid_t aId) { return aId <= 0 ? resultWithErrno(aId) : shown("process %d", aId); }

Shown resultWithErrno(long aResult)
{
    return 0 <= aResult ? number(aResult) : shown("%ld %s", aResult, errorName(errno).mText);
}

/// An object is "local" if it lies between this frame and the Recording in the frame of the operation's caller.
Shown place(const void* acObject)
{
    for (unsigned int lIndex = 0; lIndex < sNamedCount; ++lIndex) {
        if (acObject == sNamed[lIndex].mAddress) {
            return shown("%s", sNamed[lIndex].mName);
        }
    }
    const char lHere = 0;
    const bool lIsLocal =
        static_cast<const void*>(&lHere) < acObject && acObject < static_cast<const void*>(spRecording);
    return shown("%s", nullptr == acObject ? "null" : lIsLocal ? "local" : "memory");
}

Shown timeText(const timespec* acTime)
{
    return shown("%lld.%09ld", static_cast<long long>(acTime->tv_sec), static_cast<long>(acTime->tv_nsec));
}

Shown timeText(const timeval* acTime)
{
    return nullptr == acTime
               ? place(acTime)
               : shown("%lld.%06ld", static_cast<long long>(acTime->tv_sec), static_cast<long>(acTime->tv_usec));
}

CallRecord::CallRecord(bool aIsShown, const char* acFunction, std::initializer_list<Shown> aArguments)
    : mSlot(cSlots), mProcess(getpid())
{
    if (!aIsShown || sKeepsNothing) {
        return;
    }
    const KeepErrno lKeepErrno;
    recordChanges();
    mSlot = newSlot(Event::Call);
    Slot& lrSlot = shared().mSlots[mSlot];
    lrSlot.add("%s", acFunction);
    for (const Shown& lrArgument : aArguments) {
        lrSlot.add("%s", lrArgument.mText);
    }
    complete(lrSlot);
}

void CallRecord::returned(const Shown& acrResult) const
{
    const KeepErrno lKeepErrno;
    if (cSlots != mSlot && getpid() == mProcess) {
        Slot& lrSlot = shared().mSlots[mSlot];
        strcpy(lrSlot.mResult, acrResult.mText);
        lrSlot.mHasReturned.store(true, std::memory_order_release);
    }
}
