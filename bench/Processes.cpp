// Child processes, the output of commands, and the cost of loading the library.

#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <chrono>
#include <list>
#include <memory>
#include <vector>

#include "Bench.h"
#include "Fixed.h"

#ifdef BENCH_APR
#include <apr_thread_proc.h>
#endif
#ifdef BENCH_BOOST
#include <boost/process.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_POCO
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#endif

namespace
{

const int cExitCode = 7;  // of benchchild
const int64_t cMegabyte = 1 << 20;

// --- children --------------------------------------------------------------------------------------------------------

/// Allocates and writes memory in small pages. A fork must copy the page tables of this memory.
void touch(size_t aBytes)
{
    static void* spMemory;
    static size_t sBytes;
    if (aBytes == sBytes) {
        return;
    }
    if (nullptr != spMemory) {
        munmap(spMemory, sBytes);
    }
    sBytes = aBytes;
    spMemory = mmap(nullptr, sBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    check(MAP_FAILED != spMemory, "mmap");
    madvise(spMemory, sBytes, MADV_NOHUGEPAGE);
    memset(spMemory, 1, sBytes);
}

char* const* arguments(const char* acPath)
{
    static char* spArguments[2];
    spArguments[0] = const_cast<char*>(acPath);
    return spArguments;
}

int waitFor(pid_t aChild)
{
    int lStatus = -1;
    check(0 < aChild && aChild == waitpid(aChild, &lStatus, 0) && WIFEXITED(lStatus), "waitpid");
    return WEXITSTATUS(lStatus);
}

int childRaw(const char* acPath)
{
    const pid_t lChild = vfork();
    if (0 == lChild) {
        execve(acPath, arguments(acPath), environ);
        _exit(127);
    }
    return waitFor(lChild);
}

int childLayer(const char* acPath) { return ProcessWait(ProcessCreate(acPath, arguments(acPath), environ), 0); }

int childFork(const char* acPath)
{
    const pid_t lChild = fork();
    if (0 == lChild) {
        execve(acPath, arguments(acPath), environ);
        _exit(127);
    }
    return waitFor(lChild);
}

int childSpawn(const char* acPath)
{
    pid_t lChild;
    check(0 == posix_spawn(&lChild, acPath, nullptr, nullptr, arguments(acPath), environ), "posix_spawn");
    return waitFor(lChild);
}

int childStd(const char* acPath) { return WEXITSTATUS(system(acPath)); }

#ifdef BENCH_BOOST
int childBoost(const char* acPath)
{
    boost::process::child lChild(acPath);
    lChild.wait();
    return lChild.exit_code();
}
#endif

#ifdef BENCH_POCO
int childPoco(const char* acPath) { return Poco::Process::launch(acPath, Poco::Process::Args()).wait(); }
#endif

#ifdef BENCH_APR
int childApr(const char* acPath)
{
    apr_pool_t* lpPool;
    apr_procattr_t* lpAttributes;
    apr_proc_t lChild;
    int lCode;
    apr_exit_why_e lWhy;
    const char* const lArguments[] = {acPath, nullptr};
    apr_pool_create(&lpPool, nullptr);
    apr_procattr_create(&lpAttributes, lpPool);
    apr_procattr_cmdtype_set(lpAttributes, APR_PROGRAM_ENV);
    check(APR_SUCCESS == apr_proc_create(&lChild, acPath, lArguments, nullptr, lpAttributes, lpPool),
          "apr_proc_create");
    apr_proc_wait(&lChild, &lCode, &lWhy, APR_WAIT);
    apr_pool_destroy(lpPool);
    return lCode;
}
#endif

#ifdef BENCH_GLIB
int childGlib(const char* acPath)
{
    // If descriptors stay open, this library can use posix_spawn.
    char* lArguments[] = {const_cast<char*>(acPath), nullptr};
    int lStatus = -1;
    g_spawn_sync(nullptr, lArguments, nullptr, G_SPAWN_LEAVE_DESCRIPTORS_OPEN, nullptr, nullptr, nullptr, nullptr,
                 &lStatus, nullptr);
    return WEXITSTATUS(lStatus);
}
#endif

/// Returns the processor time, in seconds, of this process and its ended children.
double processorTime()
{
    timespec lOwn;
    rusage lChildren;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &lOwn);
    getrusage(RUSAGE_CHILDREN, &lChildren);
    const time_t lSeconds = lOwn.tv_sec + lChildren.ru_utime.tv_sec + lChildren.ru_stime.tv_sec;
    const long lMicroseconds = lChildren.ru_utime.tv_usec + lChildren.ru_stime.tv_usec;
    return static_cast<double>(lSeconds) + static_cast<double>(lMicroseconds) * 1e-6 +
           static_cast<double>(lOwn.tv_nsec) * 1e-9;
}

/// Repeats an operation that starts children. Counts the processor time of all processes, which other work on the
/// machine hardly disturbs. The results also contain the time by the clock.
template <class Operation>
void withChildren(benchmark::State& arState, Operation aOperation)
{
    const auto lStart = std::chrono::steady_clock::now();
    for (auto lIteration : arState) {
        const double lBefore = processorTime();
        aOperation();
        arState.SetIterationTime(processorTime() - lBefore);
    }
    const std::chrono::duration<double, std::nano> lAll = std::chrono::steady_clock::now() - lStart;
    arState.counters["clock"] = benchmark::Counter(lAll.count(), benchmark::Counter::kAvgIterations);
}

/// Starts a child and waits for it. The row's argument is the memory, in megabytes, that the parent has touched.
template <int Run(const char*)>
void startWait(benchmark::State& arState)
{
    touch(static_cast<size_t>(arState.range(0) * cMegabyte));
    withChildren(arState, [] { check(cExitCode == Run(BENCH_CHILD), "the child's exit code"); });
}

template <int Run(const char*)>
void child(const char* acRow)
{
    row("child-10M", acRow, startWait<Run>)->Arg(10)->UseManualTime();
    row("child-1G", acRow, startWait<Run>)->Arg(1024)->UseManualTime();
    row("child-by-memory", acRow, startWait<Run>)->Arg(1)->Arg(10)->Arg(100)->Arg(1024)->UseManualTime();
}

void load(const char* acRow, const char* acProgram)
{
    row("load", acRow, [acProgram](benchmark::State& arState) {
        withChildren(arState, [=] { check(cExitCode == childSpawn(acProgram), "the program's exit code"); });
    })->UseManualTime();
}

// --- command output --------------------------------------------------------------------------------------------------

/// Returns a command with the given number of output lines.
std::string command(int64_t aLines)
{
    const std::string lPath = directory() + "/lines-" + std::to_string(aLines);
    if (0 != access(lPath.c_str(), F_OK)) {
        FILE* const lpFile = fopen(lPath.c_str(), "w");
        for (int64_t lLine = 1; lLine <= aLines; ++lLine) {
            fprintf(lpFile, "line %07d of a command\n", static_cast<int>(lLine));
        }
        check(nullptr != lpFile && 0 == fclose(lpFile), "the command's input file");
    }
    return "cat " + lPath;
}

typedef std::list<std::string> Lines;

size_t linesRaw(const std::string& acrCommand)
{
    Lines lLines;
    FILE* const lpStream = popen(acrCommand.c_str(), "r");
    char* lpLine = nullptr;
    size_t lRoom = 0;
    for (ssize_t lLength; 0 < (lLength = getline(&lpLine, &lRoom, lpStream));) {
        lLines.emplace_back(lpLine, static_cast<size_t>(lLength - 1));
    }
    free(lpLine);
    pclose(lpStream);
    return lLines.size();
}

size_t linesLayer(const std::string& acrCommand)
{
    OQCList<OQCString> lLines;
    OsExecute(acrCommand.c_str(), lLines);
    return static_cast<size_t>(lLines.size());
}

/// A minimal version of the layer's text value: a string and a counter on the heap, with deep copies.
class FixedText
{
public:
    explicit FixedText(const char* acText)
        : mText(new (std::nothrow) std::string(acText)), mCount(new (std::nothrow) FixedCount(1))
    {
    }
    FixedText(const FixedText& acrCopy)
        : mText(new (std::nothrow) std::string(*acrCopy.mText)), mCount(new (std::nothrow) FixedCount(1))
    {
        mCount->increment();  // the text moves from a holder that then releases it
        mCount->decrement();
    }
    ~FixedText()
    {
        if (0 == mCount->decrement()) {
            delete mCount;
            delete mText;
        }
    }
    FixedText& operator=(const FixedText&) = delete;

private:
    std::string* mText;
    FixedCount* mCount;
};

void fixedTrace(const char* acText) { fixedLog(OQLL_Trace, "-T-", __LINE__, __func__, __FILE__, "%s", acText); }

char* fixedBuffer()
{
    char* const lpBuffer = static_cast<char*>(malloc(4000));
    fixedSet(lpBuffer, 0, 4000);
    return lpBuffer;
}

char* fixedBreak(char* apBuffer, std::list<FixedText>& arLines)
{
    fixedTrace("Entered");
    char* const lpScratch = fixedBuffer();
    char* lpCursor = apBuffer;
    for (;;) {
        char* const lpNewline = strchr(lpCursor, '\n');
        if (nullptr == lpNewline) {
            fixedTextCopy(lpScratch, lpCursor);
            fixedTrace(lpScratch);
            fixedTextCopy(apBuffer, lpScratch);
            lpCursor = apBuffer + strlen(apBuffer);
            break;
        }
        *lpNewline = '\0';
        fixedTextCopy(lpScratch, lpCursor);
        const FixedText lLine(lpScratch);
        fixedTrace(lpScratch);
        arLines.push_back(lLine);
        lpCursor = lpNewline + 1;
        if ('\0' == *lpCursor) {
            fixedTrace("End");
            lpCursor = apBuffer;
            break;
        }
    }
    fixedTrace("Left");
    free(lpScratch);
    return lpCursor;
}

size_t linesFixed(const std::string& acrCommand)
{
    std::list<FixedText> lLines;
    fixedTrace("Entered");
    fixedTrace("Calling");
    FILE* const lpStream = popen(acrCommand.c_str(), "r");
    char* const lpBuffer = fixedBuffer();
    char* lpWrite = lpBuffer;
    for (;;) {
        const unsigned int lUsed = static_cast<unsigned int>(lpWrite - lpBuffer);
        fixedSet(lpWrite, 0, 4000 - lUsed);
        const size_t lLength = fread(lpWrite, 1, 3999 - lUsed, lpStream);
        if (0 == lLength) {
            fixedTrace("End");
            break;
        }
        lpWrite[lLength] = '\0';
        fixedTrace(lpWrite);
        lpWrite = fixedBreak(lpBuffer, lLines);
    }
    pclose(lpStream);
    size_t lCount = 0;
    for (auto lLine = lLines.begin(); lLine != lLines.end(); ++lLine) {
        ++lCount;
    }
    fixedTrace("Number");
    free(lpBuffer);
    fixedTrace("Left");
    return lCount;
}

#ifdef BENCH_BOOST
size_t linesBoost(const std::string& acrCommand)
{
    Lines lLines;
    boost::process::ipstream lStream;
    boost::process::child lChild("/bin/sh", "-c", acrCommand, boost::process::std_out > lStream);
    for (std::string lLine; std::getline(lStream, lLine);) {
        lLines.push_back(lLine);
    }
    lChild.wait();
    return lLines.size();
}
#endif

#ifdef BENCH_POCO
size_t linesPoco(const std::string& acrCommand)
{
    Lines lLines;
    Poco::Pipe lPipe;
    const Poco::ProcessHandle lChild =
        Poco::Process::launch("/bin/sh", Poco::Process::Args{"-c", acrCommand}, nullptr, &lPipe, nullptr);
    Poco::PipeInputStream lStream(lPipe);
    for (std::string lLine; std::getline(lStream, lLine);) {
        lLines.push_back(lLine);
    }
    lChild.wait();
    return lLines.size();
}
#endif

#ifdef BENCH_APR
size_t linesApr(const std::string& acrCommand)
{
    Lines lLines;
    apr_pool_t* lpPool;
    apr_procattr_t* lpAttributes;
    apr_proc_t lChild;
    const char* const lArguments[] = {"/bin/sh", "-c", acrCommand.c_str(), nullptr};
    apr_pool_create(&lpPool, nullptr);
    apr_procattr_create(&lpAttributes, lpPool);
    apr_procattr_cmdtype_set(lpAttributes, APR_PROGRAM_ENV);
    apr_procattr_io_set(lpAttributes, APR_NO_PIPE, APR_FULL_BLOCK, APR_NO_PIPE);
    check(APR_SUCCESS == apr_proc_create(&lChild, "/bin/sh", lArguments, nullptr, lpAttributes, lpPool),
          "apr_proc_create");
    char lBuffer[4000];
    char lLine[4000];
    apr_file_buffer_set(lChild.out, lBuffer, sizeof lBuffer);  // otherwise the library reads byte by byte
    while (APR_SUCCESS == apr_file_gets(lLine, sizeof lLine, lChild.out)) {
        lLines.emplace_back(lLine, strlen(lLine) - 1);
    }
    apr_proc_wait(&lChild, nullptr, nullptr, APR_WAIT);
    apr_pool_destroy(lpPool);
    return lLines.size();
}
#endif

#ifdef BENCH_GLIB
size_t linesGlib(const std::string& acrCommand)
{
    const char* lArguments[] = {"/bin/sh", "-c", acrCommand.c_str(), nullptr};
    char* lpOutput = nullptr;
    g_spawn_sync(nullptr, const_cast<char**>(lArguments), nullptr, G_SPAWN_LEAVE_DESCRIPTORS_OPEN, nullptr, nullptr,
                 &lpOutput, nullptr, nullptr, nullptr);
    char** const lpLines = g_strsplit(lpOutput, "\n", -1);
    const size_t lLines = g_strv_length(lpLines) - 1;  // an empty line follows the last newline
    g_strfreev(lpLines);
    g_free(lpOutput);
    return lLines;
}
#endif

/// Runs a command and splits its output into lines. The row's argument is the number of lines.
template <size_t Run(const std::string&)>
void output(benchmark::State& arState)
{
    const std::string lCommand = command(arState.range(0));
    const size_t lLines = static_cast<size_t>(arState.range(0));
    withChildren(arState, [&] { check(lLines == Run(lCommand), "the number of lines"); });
}

/// The same with the trace enabled and written to a file.
void outputTraced(benchmark::State& arState)
{
    const std::string lCommand = command(arState.range(0));
    FILE* const lpLog = fopen((directory() + "/trace").c_str(), "a");
    check(nullptr != lpLog, "the trace's file");
    SetLogDescriptor(fileno(lpLog));
    SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information | OQLL_Trace);
    withChildren(arState, [&] {
        check(0 == ftruncate(fileno(lpLog), 0), "ftruncate");
        check(static_cast<size_t>(arState.range(0)) == linesLayer(lCommand), "the number of lines");
        check(arState.range(0) * 100 < lseek(fileno(lpLog), 0, SEEK_END), "the trace");
    });
    SetLogLevels(OQLL_Halt | OQLL_Error | OQLL_Information);
    SetLogDescriptor(STDERR_FILENO);
    fclose(lpLog);
}

template <size_t Run(const std::string&)>
void lines(const char* acRow)
{
    row("command-20", acRow, output<Run>)->Arg(20)->UseManualTime();
    row("command-200k", acRow, output<Run>)->Arg(200000)->UseManualTime();
    row("command-by-lines", acRow, output<Run>)->RangeMultiplier(10)->Range(10, 1000000)->UseManualTime();
}

}  // namespace

void registerProcesses()
{
    child<childRaw>("raw");
    child<childLayer>("OQLinux");
    child<childFork>("fork");
    child<childSpawn>("posix_spawn");
    child<childStd>("std");
    lines<linesRaw>("raw");
    lines<linesFixed>("fixed");
    lines<linesLayer>("OQLinux");
    row("command-200k", "traced to a file", outputTraced)->Arg(200000)->UseManualTime();
    load("raw", BENCH_LOAD_EMPTY);
    load("OQLinux", BENCH_LOAD_LAYER);
#ifdef BENCH_BOOST
    child<childBoost>("Boost");
    lines<linesBoost>("Boost");
#endif
#ifdef BENCH_POCO
    child<childPoco>("POCO");
    lines<linesPoco>("POCO");
#endif
#ifdef BENCH_APR
    child<childApr>("APR");
    lines<linesApr>("APR");
#endif
#ifdef BENCH_GLIB
    child<childGlib>("GLib");
    lines<linesGlib>("GLib");
#endif
}
