#include "Substitutes.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace
{

SubstituteBase* sFirst = nullptr;

Shown octal(unsigned int aBits) { return shownBits("", aBits); }
Shown octal(int aBits) { return shownBits("", static_cast<unsigned int>(aBits)); }

Shown lockCommand(int aCommand)
{
    return F_LOCK == aCommand    ? Shown{"F_LOCK"}
           : F_TLOCK == aCommand ? Shown{"F_TLOCK"}
           : F_ULOCK == aCommand ? Shown{"F_ULOCK"}
           : F_TEST == aCommand  ? Shown{"F_TEST"}
                                 : number(aCommand);
}

Shown segmentCommand(int aCommand)
{
    return IPC_STAT == aCommand     ? Shown{"IPC_STAT"}
           : IPC_RMID == aCommand   ? Shown{"IPC_RMID"}
           : SHM_LOCK == aCommand   ? Shown{"SHM_LOCK"}
           : SHM_UNLOCK == aCommand ? Shown{"SHM_UNLOCK"}
                                    : number(aCommand);
}

/// The access mode by its name and the other flags as octal digits. The values of flags differ between architectures.
Shown openFlags(int aFlags)
{
    const char* const cModes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
    const int lRest = aFlags & ~(O_ACCMODE | O_NONBLOCK | O_CREAT | O_CLOEXEC);
    char lText[sizeof(Shown)];
    snprintf(lText, sizeof lText, "%s%s%s%s", cModes[aFlags & O_ACCMODE],
             0 != (aFlags & O_NONBLOCK) ? "|O_NONBLOCK" : "", 0 != (aFlags & O_CREAT) ? "|O_CREAT" : "",
             0 != (aFlags & O_CLOEXEC) ? "|O_CLOEXEC" : "");
    Shown lShown;
    if (0 != lRest) {
        return shownBits(strcat(lText, "|"), static_cast<unsigned int>(lRest));
    }
    strcpy(lShown.mText, lText);
    return lShown;
}

/// The numbers in a set of descriptors.
Shown descriptors(int aCount, const fd_set* acSet)
{
    Shown lShown = place(acSet);
    for (int lNumber = 0; nullptr != acSet && lNumber < aCount && lNumber < FD_SETSIZE; ++lNumber) {
        if (FD_ISSET(lNumber, acSet)) {
            const Shown lText = number(lNumber);
            strcat(strcat(lShown.mText, " "), lText.mText);
        }
    }
    return lShown;
}

Shown placeWithErrno(const void* acPlace)
{
    return reinterpret_cast<const void*>(-1) == acPlace ? resultWithErrno(-1) : place(acPlace);
}

/// Does not show the id, because it differs from run to run.
Shown threadText(pthread_t aThread)
{
    return 0 != pthread_equal(pthread_self(), aThread) ? Shown{"itself"} : Shown{"thread"};
}

}  // namespace

void SubstituteBase::resetAll()
{
    for (SubstituteBase* lpSubstitute = sFirst; nullptr != lpSubstitute; lpSubstitute = lpSubstitute->mNext) {
        lpSubstitute->mReset(*lpSubstitute);
    }
}

void SubstituteBase::planned()
{
    if (!mIsListed) {
        mIsListed = true;
        mNext = sFirst;
        sFirst = this;
    }
}

/// The C library's headers choose other symbols when a 32-bit program has a 64-bit time_t. They also choose them for the
/// definitions below.
#if !defined __LP64__ && defined _TIME_BITS && 64 == _TIME_BITS
#define OPEN_SYMBOL "open64"
UNWATCHED static const char* symbolOf(const char* acName)
{
    const char* const cWide[][2] = {{"clock_gettime", "__clock_gettime64"},
                                    {"clock_nanosleep", "__clock_nanosleep_time64"},
                                    {"fopen", "fopen64"},
                                    {"lockf", "lockf64"},
                                    {"mmap", "mmap64"},
                                    {"open", "open64"},
                                    {"pthread_cond_timedwait", "__pthread_cond_timedwait64"},
                                    {"select", "__select64"},
                                    {"shmctl", "__shmctl64"},
                                    {"stat", "__stat64_time64"}};
    const auto lpFound = std::find_if(std::begin(cWide), std::end(cWide),
                                      [acName](auto& arNames) { return 0 == strcmp(acName, arNames[0]); });
    return std::end(cWide) == lpFound ? acName : (*lpFound)[1];
}
#else
#define OPEN_SYMBOL "open"
static const char* symbolOf(const char* acName) { return acName; }
#endif

// Uses no local static variable, because its guard changes errno when several threads wait for it. Uses no std::atomic,
// because the thread sanitizer instruments its functions.
UNWATCHED void* SubstituteBase::realFunction()
{
    void* lpReal = __atomic_load_n(&mReal, __ATOMIC_RELAXED);
    if (nullptr == lpReal) {
        const int lErrno = errno;
        lpReal = dlsym(RTLD_NEXT, symbolOf(mSymbol));
        __atomic_store_n(&mReal, lpReal, __ATOMIC_RELAXED);
        errno = lErrno;
    }
    return lpReal;
}

// BODY(type, function, arguments, their texts, function that makes the text of the result)
#define LIST(...) __VA_ARGS__
#define BODY(type, function, arguments, shown, result)                               \
    if (!isRecorded(__builtin_return_address(0))) {                                  \
        return substitute::function.real arguments;                                  \
    }                                                                                \
    const CallRecord lCall(substitute::function.isShown(), #function, {LIST shown}); \
    type const lResult = substitute::function.call arguments;                        \
    lCall.returned(result(lResult));                                                 \
    return lResult
// DEFINE(type, function, symbol, whether its calls are events by default, parameters, arguments, their texts,
//        function that makes the text of the result, exception specification in the header)
// The function has the linkage of its declaration in the header.
#define DEFINE(type, function, symbol, unasked, parameters, arguments, shown, result, ...) \
    Substitute<type parameters> substitute::function(symbol, unasked);                     \
    UNWATCHED type function parameters __VA_ARGS__ { BODY(type, function, arguments, shown, result); }
// The same for a function that returns nothing.
#define DEFINE_VOID(function, symbol, unasked, parameters, arguments, shown, ...)        \
    Substitute<void parameters> substitute::function(symbol, unasked);                   \
    UNWATCHED void function parameters __VA_ARGS__                                       \
    {                                                                                    \
        if (!isRecorded(__builtin_return_address(0))) {                                  \
            substitute::function.real arguments;                                         \
            return;                                                                      \
        }                                                                                \
        const CallRecord lCall(substitute::function.isShown(), #function, {LIST shown}); \
        substitute::function.call arguments;                                             \
    }
// SYSTEM: a function of the C library that returns a negative number and sets errno when it fails. QUIET: the same, but
// its calls are not events by default. THREADS: a function that returns its error.
#define SYSTEM(function, parameters, arguments, shown, ...) \
    DEFINE(int, function, #function, true, parameters, arguments, shown, resultWithErrno, __VA_ARGS__)
#define QUIET(function, parameters, arguments, shown, ...) \
    DEFINE(int, function, #function, false, parameters, arguments, shown, resultWithErrno, __VA_ARGS__)
#define THREADS(function, parameters, arguments, shown, ...) \
    DEFINE(int, function, #function, true, parameters, arguments, shown, errorName, __VA_ARGS__)
// A function of the companion.
#define COMPANION(type, function, symbol, unasked, parameters, arguments, shown, result) \
    DEFINE(type, function, symbol, unasked, parameters, arguments, shown, result, )

// clang-format off
SYSTEM(clock_gettime, (clockid_t a, timespec* b), (a, b),
       (CLOCK_REALTIME == a ? Shown{"CLOCK_REALTIME"} : CLOCK_MONOTONIC == a ? Shown{"CLOCK_MONOTONIC"} : number(a), place(b)), noexcept)
SYSTEM(execve, (const char* a, char* const* b, char* const* c), (a, b, c), (quoted(a), place(b), place(c)), noexcept)
SYSTEM(fflush, (FILE* a), (a), (stdin == a ? Shown{"stdin"} : place(a)), )
DEFINE(pid_t, fork, "fork", true, (), (), (), process, noexcept)
DEFINE(hostent*, gethostbyname, "gethostbyname", true, (const char* a), (a), (quoted(a)), place, )
SYSTEM(kill, (pid_t a, int b), (a, b), (process(a), number(b)), noexcept)
SYSTEM(lockf, (int a, int b, off_t c), (a, b, c), (number(a), lockCommand(b), number(c)), )
SYSTEM(mknod, (const char* a, mode_t b, dev_t c), (a, b, c), (quoted(a), octal(b), number(static_cast<long long>(c))),
       noexcept)
SYSTEM(pclose, (FILE* a), (a), (place(a)), )
DEFINE(FILE*, popen, "popen", true, (const char* a, const char* b), (a, b), (quoted(a), quoted(b)), place, )
SYSTEM(select, (int a, fd_set* b, fd_set* c, fd_set* d, timeval* e), (a, b, c, d, e),
       (number(a), descriptors(a, b), place(c), place(d), timeText(e)), )
DEFINE(void*, shmat, "shmat", true, (int a, const void* b, int c), (a, b, c), (number(a), place(b), number(c)),
       placeWithErrno, noexcept)
SYSTEM(shmctl, (int a, int b, shmid_ds* c), (a, b, c), (number(a), segmentCommand(b), place(c)), noexcept)
SYSTEM(shmdt, (const void* a), (a), (place(a)), noexcept)
SYSTEM(shmget, (key_t a, size_t b, int c), (a, b, c), (number(a), number(static_cast<long long>(b)), octal(c)), noexcept)
SYSTEM(sigaction, (int a, const struct sigaction* b, struct sigaction* c), (a, b, c), (number(a), place(b), place(c)),
       noexcept)
SYSTEM(system, (const char* a), (a), (quoted(a)), )
DEFINE(pid_t, waitpid, "waitpid", true, (pid_t a, int* b, int c), (a, b, c), (process(a), place(b), number(c)), process, )

THREADS(pthread_attr_destroy, (pthread_attr_t* a), (a), (place(a)), noexcept)
THREADS(pthread_attr_init, (pthread_attr_t* a), (a), (place(a)), noexcept)
THREADS(pthread_attr_setdetachstate, (pthread_attr_t* a, int b), (a, b),
        (place(a), PTHREAD_CREATE_JOINABLE == b ? Shown{"PTHREAD_CREATE_JOINABLE"} : number(b)), noexcept)
THREADS(pthread_attr_setstacksize, (pthread_attr_t* a, size_t b), (a, b),
        (place(a), number(static_cast<long long>(b))), noexcept)
THREADS(pthread_cancel, (pthread_t a), (a), (threadText(a)), )
THREADS(pthread_cond_broadcast, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_destroy, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_init, (pthread_cond_t* a, const pthread_condattr_t* b), (a, b), (place(a), place(b)), noexcept)
THREADS(pthread_cond_signal, (pthread_cond_t* a), (a), (place(a)), noexcept)
THREADS(pthread_cond_timedwait, (pthread_cond_t* a, pthread_mutex_t* b, const timespec* c), (a, b, c),
        (place(a), place(b), timeText(c)), )
THREADS(pthread_cond_wait, (pthread_cond_t* a, pthread_mutex_t* b), (a, b), (place(a), place(b)), )
THREADS(pthread_create, (pthread_t* a, const pthread_attr_t* b, void* (*c)(void*), void* d), (a, b, c, d),
        (place(a), place(b), place(reinterpret_cast<const void*>(c)), place(d)), noexcept)
THREADS(pthread_join, (pthread_t a, void** b), (a, b), (threadText(a), place(b)), )
THREADS(pthread_mutex_destroy, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_init, (pthread_mutex_t* a, const pthread_mutexattr_t* b), (a, b), (place(a), place(b)), noexcept)
THREADS(pthread_mutex_lock, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_trylock, (pthread_mutex_t* a), (a), (place(a)), noexcept)
THREADS(pthread_mutex_unlock, (pthread_mutex_t* a), (a), (place(a)), noexcept)

COMPANION(int, ClibBlockRead, "_Z13ClibBlockReadiPvj", true, (int a, void* b, unsigned int c), (a, b, c),
          (number(a), place(b), number(c)), resultWithErrno)
COMPANION(int, ClibClose, "_Z9ClibClosei", true, (int a), (a), (number(a)), resultWithErrno)
COMPANION(unsigned int, ClibFread, "_Z9ClibFreadPcjjP8_IO_FILE", true,
          (char* a, unsigned int b, unsigned int c, FILE* d), (a, b, c, d), (place(a), number(b), number(c), place(d)), number)
COMPANION(int, ClibGethostname, "_Z15ClibGethostnamePcj", true, (char* a, unsigned int b), (a, b), (place(a), number(b)),
          resultWithErrno)
DEFINE_VOID(ClibGetTime, "_Z11ClibGetTimeRlRt", false, (long& a, unsigned short& b), (a, b), (place(&a), place(&b)), )
COMPANION(void*, ClibMemcpy, "_Z10ClibMemcpyPvPKvj", false, (void* a, const void* b, unsigned int c), (a, b, c),
          (place(a), place(b), number(c)), place)
COMPANION(void*, ClibMemset, "_Z10ClibMemsetPvij", false, (void* a, int b, unsigned int c), (a, b, c),
          (place(a), number(b), number(c)), place)
COMPANION(int, ClibnStrcmp, "_Z11ClibnStrcmpPKcS0_j", false, (const char* a, const char* b, unsigned int c), (a, b, c),
          (quoted(a), quoted(b), number(c)), number)
COMPANION(unsigned int, ClibNtohl, "_Z9ClibNtohlj", false, (unsigned int a), (a), (number(a)), number)
COMPANION(int, ClibOpen, "_Z8ClibOpenPKcii", true, (const char* a, int b, int c), (a, b, c),
          (quoted(a), openFlags(b), octal(c)), resultWithErrno)
COMPANION(int, ClibRead, "_Z8ClibReadiPvj", true, (int a, void* b, unsigned int c), (a, b, c),
          (number(a), place(b), number(c)), resultWithErrno)
DEFINE_VOID(ClibSleepMS, "_Z11ClibSleepMSm", false, (unsigned long a), (a), (number(static_cast<long long>(a))), )
COMPANION(int, ClibStat, "_Z8ClibStatPKcP4stat", true, (const char* a, struct stat* b), (a, b), (quoted(a), place(b)),
          resultWithErrno)
COMPANION(char*, ClibStrcpy, "_Z10ClibStrcpyPcPKc", false, (char* a, const char* b), (a, b), (place(a), place(b)), place)
COMPANION(char*, ClibStrerror, "_Z12ClibStrerrorPcj", true, (char* a, unsigned int b), (a, b), (place(a), number(b)),
          quoted)
COMPANION(unsigned int, ClibStrlen, "_Z10ClibStrlenPKc", false, (const char* a), (a), (place(a)), number)
COMPANION(int, ClibUnlink, "_Z10ClibUnlinkPKc", true, (const char* a), (a), (quoted(a)), resultWithErrno)
COMPANION(int, ClibWrite, "_Z9ClibWriteiPKvj", true, (int a, const void* b, unsigned int c), (a, b, c),
          (number(a), place(b), number(c)), resultWithErrno)
COMPANION(int, getFirstLineFromFile, "_Z20getFirstLineFromFileRK9OQCStringRS_", true,
          (const OQCString& a, OQCString& b), (a, b), (quoted(a.get()), place(&b)), number)

// Further functions that ProcessCreate() and the companion call. Their calls are events only after show().
QUIET(clock_nanosleep, (clockid_t a, int b, const timespec* c, timespec* d), (a, b, c, d),
      (number(a), number(b), timeText(c), place(d)), )
QUIET(close, (int a), (a), (number(a)), )
QUIET(setpgid, (pid_t a, pid_t b), (a, b), (process(a), number(b)), noexcept)
QUIET(stat, (const char* a, struct stat* b), (a, b), (quoted(a), place(b)), noexcept)
QUIET(unlink, (const char* a), (a), (quoted(a)), noexcept)
QUIET(waitid, (idtype_t a, id_t b, siginfo_t* c, int d), (a, b, c, d),
      (number(a), process(static_cast<pid_t>(b)), place(c), number(d)), )
DEFINE(FILE*, fopen, "fopen", false, (const char* a, const char* b), (a, b), (quoted(a), quoted(b)), place, )
#if !OQ_SANITIZED  // a sanitizer maps memory before the real function can be found
DEFINE(void*, mmap, "mmap", false, (void* a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f),
       (place(a), number(static_cast<long long>(b)), number(c), number(d), number(e), number(f)), placeWithErrno, noexcept)
#endif
// clang-format on

// The names under which the shared libraries call mknod() and stat(); see linux/SymbolVersions.h.
extern "C" UNWATCHED int __xmknod(int, const char* a, mode_t b, dev_t* c) noexcept
{
    BODY(int, mknod, (a, b, *c), (quoted(a), octal(b), number(static_cast<long long>(*c))), resultWithErrno);
}
extern "C" UNWATCHED int __xstat(int, const char* a, struct stat* b) noexcept
{
    BODY(int, stat, (a, b), (quoted(a), place(b)), resultWithErrno);
}

// The C library's headers may define these functions inline, so these definitions have other names.
#define RENAMED(type, function, symbol, parameters, arguments, shown, ...)     \
    Substitute<type parameters> substitute::function(#function, false);        \
    extern "C" type planned_##function parameters __VA_ARGS__ __asm__(symbol); \
    extern "C" UNWATCHED type planned_##function parameters __VA_ARGS__        \
    {                                                                          \
        BODY(type, function, arguments, shown, resultWithErrno);               \
    }
RENAMED(int, open, OPEN_SYMBOL, (const char* a, int b, mode_t c), (a, b, c), (quoted(a), openFlags(b), octal(c)), )
RENAMED(ssize_t, read, "read", (int a, void* b, size_t c), (a, b, c),
        (number(a), place(b), number(static_cast<long long>(c))), )
RENAMED(ssize_t, write, "write", (int a, const void* b, size_t c), (a, b, c),
        (number(a), place(b), number(static_cast<long long>(c))), )
RENAMED(int, gethostname, "gethostname", (char* a, size_t b), (a, b), (place(a), number(static_cast<long long>(b))),
        noexcept)
// Passes on the maximum number of arguments. Those beyond the caller's last one have undefined values and are ignored.
RENAMED(long, syscall, "syscall", (long a, long b, long c, long d, long e, long f, long g), (a, b, c, d, e, f, g),
        (SYS_write == a ? Shown{"SYS_write"} : number(a), number(b)), noexcept)

// Has variable arguments, which a plan cannot receive. It formats the text, or uses the text that the test planned.
Substitute<int(char*, const char*)> substitute::ClibSprintf("", true);
int ClibSprintf(char* apBuffer, const char* acFormat, ...)
{
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsprintf(apBuffer, acFormat, lArguments);
    va_end(lArguments);
    if (!isRecorded(__builtin_return_address(0))) {
        return lLength;
    }
    const CallRecord lCall(substitute::ClibSprintf.isShown(), "ClibSprintf", {place(apBuffer), quoted(acFormat)});
    if (substitute::ClibSprintf.isPlanned()) {
        return substitute::ClibSprintf.call(apBuffer, acFormat);
    }
    lCall.returned(quoted(apBuffer));
    return lLength;
}

Substitute<void(unsigned int)> substitute::counter("", false);

OQCReferenceCount::OQCReferenceCount(unsigned int aInitial) : mCount(aInitial)
{
    if (isRecorded(__builtin_return_address(0))) {
        const CallRecord lCall(substitute::counter.isShown(), "OQCReferenceCount", {number(aInitial)});
        if (substitute::counter.isPlanned()) {
            substitute::counter.call(aInitial);
        }
    }
}

OQCReferenceCount::~OQCReferenceCount()
{
    if (isRecorded(__builtin_return_address(0))) {
        const CallRecord lCall(substitute::counter.isShown(), "~OQCReferenceCount", {});
    }
}

void OQCReferenceCount::increment()
{
    const unsigned int lCount = ++mCount;
    if (isRecorded(__builtin_return_address(0))) {
        CallRecord(substitute::counter.isShown(), "increment", {}).returned(number(lCount));
    }
}

unsigned int OQCReferenceCount::decrement()
{
    const unsigned int lCount = --mCount;
    if (isRecorded(__builtin_return_address(0))) {
        CallRecord(substitute::counter.isShown(), "decrement", {}).returned(number(lCount));
    }
    return lCount;
}

// After vfork() the child runs on the parent's stack. A C++ wrapper would return in the child and destroy the frame
// that the parent needs. This vfork() therefore jumps to the real function without a frame of its own, which requires
// assembler. On other processors, and under a sanitizer, vfork() is a fork() here, as in some emulators.
Substitute<pid_t()> substitute::vfork("vfork", true);
#define IN_PROGRAM __attribute__((visibility("hidden"), used))
extern "C" {
IN_PROGRAM void* gVforkReal = dlsym(RTLD_NEXT, "vfork");

IN_PROGRAM bool gVforkIsPlanned(const void* acReturnAddress)
{
    if (!isRecorded(acReturnAddress)) {
        return false;
    }
    const CallRecord lCall(substitute::vfork.isShown(), "vfork", {});
    return substitute::vfork.isPlanned();
}

IN_PROGRAM pid_t gVforkPlanned() { return substitute::vfork.call(); }
}
#if OQ_SHARING_VFORK
__asm__(
    ".text\n"
    ".globl vfork\n"
    ".type vfork, @function\n"
    "vfork:\n"
    "    endbr64\n"
    "    movq (%rsp), %rdi\n"
    "    subq $8, %rsp\n"
    "    call gVforkIsPlanned\n"
    "    addq $8, %rsp\n"
    "    testb %al, %al\n"
    "    jne gVforkPlanned\n"
    "    jmp *gVforkReal(%rip)\n"
    ".size vfork, .-vfork\n");
#else
extern "C" pid_t vfork() noexcept
{
    return gVforkIsPlanned(__builtin_return_address(0)) ? gVforkPlanned() : substitute::fork.real();
}
#endif

#if !OQ_SANITIZED
namespace
{

thread_local unsigned int sFirstFailing = 0;
thread_local bool sAllFail = false;
thread_local unsigned int sTaken = 0;
thread_local unsigned int sFreed = 0;
std::atomic<const void*> sFollowed[4];
std::atomic<bool> sIsFollowedFreed[4];

}  // namespace

extern "C" void* __libc_malloc(size_t aSize);
extern "C" void __libc_free(void* apMemory);

extern "C" void* malloc(size_t aSize) noexcept
{
    ++sTaken;
    if (0 != sFirstFailing && (sFirstFailing == sTaken || (sAllFail && sFirstFailing < sTaken))) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(aSize);
}

extern "C" void free(void* apMemory) noexcept
{
    if (nullptr != apMemory) {
        ++sFreed;
        for (unsigned int lIndex = 0; lIndex < 4; ++lIndex) {
            if (apMemory == sFollowed[lIndex].load(std::memory_order_relaxed)) {
                sIsFollowedFreed[lIndex] = true;
            }
        }
    }
    __libc_free(apMemory);
}

FailingMemory::FailingMemory(unsigned int aFirst, bool aWithAllLater)
{
    sTaken = 0;
    sFreed = 0;
    sAllFail = aWithAllLater;
    sFirstFailing = aFirst;
}
void FailingMemory::end() { sFirstFailing = 0; }
unsigned int FailingMemory::taken() { return sTaken; }
unsigned int FailingMemory::freed() { return sFreed; }

void followMemory(unsigned int aIndex, const void* acMemory)
{
    sIsFollowedFreed[aIndex] = false;
    sFollowed[aIndex] = acMemory;
}
bool isFreed(unsigned int aIndex) { return sIsFollowedFreed[aIndex]; }
#else
FailingMemory::FailingMemory(unsigned int, bool) {}
void FailingMemory::end() {}
unsigned int FailingMemory::taken() { return 0; }
unsigned int FailingMemory::freed() { return 0; }
void followMemory(unsigned int, const void*) {}
bool isFreed(unsigned int) { return false; }
#endif

bool FailingMemory::isPossible()
{
    const FailingMemory lFailingMemory;
    void* const volatile lpBlock = malloc(1);
    free(lpBlock);
    return nullptr == lpBlock;
}

void RecordedTest::SetUp()
{
    LeftoverTest::SetUp();
    SubstituteBase::resetAll();
    clearEvents();
}

void RecordedTest::TearDown()
{
    SubstituteBase::resetAll();
    LeftoverTest::TearDown();
}
