// Exceptions and log lines.

#include <cxxabi.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <functional>
#include <memory>
#include <regex>
#include <stdexcept>
#include <system_error>

#include "../tests/support/Steps.h"
#include "Bench.h"
#include "Failures.h"
#include "Fixed.h"

#ifdef BENCH_BOOST
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sources/severity_logger.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/log/trivial.hpp>
#include <boost/log/utility/setup/common_attributes.hpp>
#include <boost/log/utility/setup/file.hpp>
#include <boost/thread/exceptions.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_POCO
#include <Poco/Exception.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#endif
#ifdef BENCH_SPDLOG
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace
{

const char* const cText = "Not Supported";

// --- exceptions ------------------------------------------------------------------------------------------------------

// Each exception is thrown one call away from its handler.
[[gnu::noinline, noreturn]] void throwSmallest() { throw Smallest(cText); }
[[gnu::noinline, noreturn]] void throwLayer() { throw OQCNotSupportedEx(cText, OQErrorCode<OQCNotSupportedEx>::value); }
[[gnu::noinline, noreturn]] void throwStd() { throw std::range_error(cText); }
[[noreturn, gnu::always_inline]] inline void throwInLayer()  // the operation itself is that call
{
    unsigned long lThread = 0;
    OsResumeThread(lThread);
}
#ifdef BENCH_BOOST
[[gnu::noinline, noreturn]] void throwBoost() { throw boost::thread_resource_error(95, cText); }
#endif
#ifdef BENCH_POCO
[[gnu::noinline, noreturn]] void throwPoco() { throw Poco::TimeoutException(cText); }
#endif
#ifdef BENCH_SPDLOG
[[gnu::noinline, noreturn]] void throwSpdlog() { throw spdlog::spdlog_ex(cText); }
#endif

template <void Throw(), class Caught>
void throwCatch(const char* acGroup, const char* acRow)
{
    repeat(acGroup, acRow, [] {
        const char* lpText = nullptr;
        try {
            Throw();
        } catch (const Caught& acrFailure) {
            lpText = acrFailure.what();
            check('\0' != *lpText, "text");
        }
        check(nullptr != lpText, "nothing was caught");
    });
}

template <void Throw(), class Leaf, class Family, class Root>
void exceptions(const char* acRow)
{
    throwCatch<Throw, Leaf>("throw-leaf", acRow);
    throwCatch<Throw, Family>("throw-family", acRow);
    throwCatch<Throw, Root>("throw-root", acRow);
}

/// Stays locked, so that every trylock fails.
pthread_mutex_t sHeld = PTHREAD_MUTEX_INITIALIZER;

template <void TryLock(pthread_mutex_t&)>
void fail()
{
    errno = EBUSY;  // pthread_mutex_trylock() returns its error and leaves errno alone
    TryLock(sHeld);
}

void failedOperations()
{
    const char* const cGroup = "throw-operation";
    pthread_mutex_trylock(&sHeld);
    throwCatch<fail<trylockOrThrowSmallest>, Smallest>(cGroup, "raw");
    throwCatch<fail<OsTrylockMutex>, OQCMutexLockFailedEx>(cGroup, "OQLinux");
    throwCatch<fail<trylockOrThrowStd>, std::system_error>(cGroup, "std");
#ifdef BENCH_BOOST
    throwCatch<fail<trylockOrThrowBoost>, boost::lock_error>(cGroup, "Boost");
#endif
#ifdef BENCH_POCO
    throwCatch<fail<trylockOrThrowPoco>, Poco::SystemException>(cGroup, "POCO");
#endif
}

// --- filtered lines --------------------------------------------------------------------------------------------------

void filteredLines()
{
    repeat("log-filtered", "raw",
           [] { fixedLog(OQLL_Trace, "-T-", __LINE__, "OsLockFile", ".//MiscLinux", "%s", "Entered"); });
    repeat("log-filtered", "OQLinux", [] {
        PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", __LINE__, "OsLockFile", ".//MiscLinux", "%s", "Entered");
    });
#ifdef BENCH_BOOST
    row("log-filtered", "Boost", [](benchmark::State& arState) {
        boost::log::core::get()->set_filter(boost::log::trivial::severity >= boost::log::trivial::info);
        for (auto lIteration : arState) {
            BOOST_LOG_TRIVIAL(trace) << "Entered";
        }
    });
#endif
#ifdef BENCH_GLIB
    repeat("log-filtered", "GLib", [] { g_debug("%s", "Entered"); });
#endif
#ifdef BENCH_POCO
    row("log-filtered", "POCO", [](benchmark::State& arState) {
        Poco::Logger& lLogger = Poco::Logger::get("bench");
        lLogger.setLevel(Poco::Message::PRIO_WARNING);
        for (auto lIteration : arState) {
            poco_information(lLogger, "Entered");  // this library's trace macro is empty in an optimised build
        }
    });
#endif
#ifdef BENCH_SPDLOG
    row("log-filtered", "spdlog", [](benchmark::State& arState) {
        const auto lLogger = std::make_shared<spdlog::logger>("bench");
        for (auto lIteration : arState) {
            lLogger->trace("{}", "Entered");
        }
    });
#endif
}

// --- written lines ---------------------------------------------------------------------------------------------------

const char* const cMessage = "Resource temporarily unavailable";

/// The log file of a row, in the temporary directory. It is emptied before each repetition and checked afterwards.
class LogFile
{
public:
    LogFile() : mPath(directory() + "/log"), mFile(open(mPath.c_str(), O_RDWR | O_CREAT | O_APPEND | O_TRUNC, 0600))
    {
        check(0 <= mFile, "open");
    }
    ~LogFile()
    {
        close(mFile);
        unlink(mPath.c_str());
    }
    /// Checks that every line was written. The limit is the smallest number of bytes of all loggers, and none buffers
    /// lines.
    void mustHold(benchmark::IterationCount aLines) const
    {
        struct stat lInfo;
        check(0 == stat(mPath.c_str(), &lInfo) && aLines * 90 <= lInfo.st_size, "lines are missing");
    }

    const std::string mPath;
    const int mFile;
};

/// The simplest code without a logger: the same line as the layer's, with one snprintf and one write.
void writeRaw(int aFile)
{
    timespec lNow;
    tm lTime;
    char lLine[512];
    clock_gettime(CLOCK_REALTIME, &lNow);
    gmtime_r(&lNow.tv_sec, &lTime);
    const int lLength =
        snprintf(lLine, sizeof lLine,
                 "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %d %lu %s %s (%s:%u) Failed to lock file, "
                 "error: %s\n",
                 lTime.tm_year + 1900, lTime.tm_mon + 1, lTime.tm_mday, lTime.tm_hour, lTime.tm_min, lTime.tm_sec,
                 lNow.tv_nsec / 1000, getpid(), pthread_self(), "-E-", "OsLockFile", ".//MiscLinux", 88u, cMessage);
    check(lLength == write(aFile, lLine, static_cast<size_t>(lLength)), "write");
}

void writeLayer(const char* acMessage)
{
    PrintLogMessageWithTimeStamp(OQLL_Error, "-E-", 88, "OsLockFile", ".//MiscLinux", "Failed to lock file, error: %s",
                                 acMessage);
}

void rawLines(benchmark::State& arState, int aFile)
{
    for (auto lIteration : arState) {
        writeRaw(aFile);
    }
}

void layerLines(benchmark::State& arState, int aFile)
{
    SetLogDescriptor(aFile);
    for (auto lIteration : arState) {
        writeLayer(cMessage);
    }
    SetLogDescriptor(STDERR_FILENO);
}

#ifdef BENCH_SPDLOG
std::shared_ptr<spdlog::logger> openSpdlog(const std::string& acrPath)
{
    const auto lLogger =
        std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(acrPath));
    lLogger->set_formatter(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%fZ %P %t -%L- %! (%s:%#) %v",
                                                                       spdlog::pattern_time_type::utc));
    lLogger->flush_on(spdlog::level::trace);
    return lLogger;
}

void writeSpdlog(spdlog::logger& arLogger, const char* acMessage)
{
    arLogger.log(spdlog::source_loc{".//MiscLinux", 88, "OsLockFile"}, spdlog::level::err,
                 "Failed to lock file, error: {}", acMessage);
}

void spdlogLines(benchmark::State& arState, const std::string& acrPath)
{
    const auto lLogger = openSpdlog(acrPath);
    for (auto lIteration : arState) {
        writeSpdlog(*lLogger, cMessage);
    }
}
#endif

#ifdef BENCH_POCO
const char* const cPocoLogger = "bench-file";

Poco::Logger& openPoco(const std::string& acrPath)
{
    Poco::AutoPtr<Poco::FileChannel> lpFile(new Poco::FileChannel(acrPath));
    lpFile->setProperty("flush", "true");
    Poco::AutoPtr<Poco::PatternFormatter> lpPattern(
        new Poco::PatternFormatter("%Y-%m-%dT%H:%M:%S.%FZ %P %I -%q- OsLockFile (%U:%u) %t"));
    Poco::AutoPtr<Poco::FormattingChannel> lpChannel(new Poco::FormattingChannel(lpPattern, lpFile));
    return Poco::Logger::create(cPocoLogger, lpChannel, Poco::Message::PRIO_TRACE);
}

void writePoco(Poco::Logger& arLogger, const char* acMessage)
{
    arLogger.error(Poco::format("Failed to lock file, error: %s", std::string(acMessage)), ".//MiscLinux", 88);
}

void pocoLines(benchmark::State& arState)
{
    const LogFile lFile;
    Poco::Logger& lLogger = openPoco(lFile.mPath);
    for (auto lIteration : arState) {
        writePoco(lLogger, cMessage);
    }
    Poco::Logger::destroy(cPocoLogger);
    lFile.mustHold(arState.iterations());
}
#endif

#ifdef BENCH_BOOST
void boostLines(benchmark::State& arState)
{
    namespace log = boost::log;
    namespace expressions = boost::log::expressions;
    const LogFile lFile;
    log::add_common_attributes();
    const auto lpSink =
        log::add_file_log(log::keywords::file_name = lFile.mPath, log::keywords::auto_flush = true,
                          log::keywords::format =
                              (expressions::stream
                               << expressions::format_date_time<boost::posix_time::ptime>("TimeStamp",
                                                                                          "%Y-%m-%dT%H:%M:%S.%fZ")
                               << ' ' << expressions::attr<log::attributes::current_process_id::value_type>("ProcessID")
                               << ' ' << expressions::attr<log::attributes::current_thread_id::value_type>("ThreadID")
                               << ' ' << log::trivial::severity << ' ' << expressions::smessage));
    log::core::get()->reset_filter();
    for (auto lIteration : arState) {
        BOOST_LOG_TRIVIAL(error) << "OsLockFile (.//MiscLinux:" << 88 << ") Failed to lock file, error: " << cMessage;
    }
    log::core::get()->remove_sink(lpSink);
    lpSink->flush();
    lFile.mustHold(arState.iterations());
}
#endif

void writtenLines()
{
    row("log-written", "raw", [](benchmark::State& arState) {
        const LogFile lFile;
        rawLines(arState, lFile.mFile);
        lFile.mustHold(arState.iterations());
    });
    row("log-written", "OQLinux", [](benchmark::State& arState) {
        const LogFile lFile;
        layerLines(arState, lFile.mFile);
        lFile.mustHold(arState.iterations());
    });
    row("log-null", "raw", [](benchmark::State& arState) {
        const int lFile = open("/dev/null", O_WRONLY | O_APPEND);
        rawLines(arState, lFile);
        close(lFile);
    });
    row("log-null", "OQLinux", [](benchmark::State& arState) {
        const int lFile = open("/dev/null", O_WRONLY | O_APPEND);
        layerLines(arState, lFile);
        close(lFile);
    });
#ifdef BENCH_SPDLOG
    row("log-written", "spdlog", [](benchmark::State& arState) {
        const LogFile lFile;
        spdlogLines(arState, lFile.mPath);
        lFile.mustHold(arState.iterations());
    });
    row("log-null", "spdlog", [](benchmark::State& arState) { spdlogLines(arState, "/dev/null"); });
#endif
#ifdef BENCH_POCO
    row("log-written", "POCO", pocoLines);
#endif
#ifdef BENCH_BOOST
    row("log-written", "Boost", boostLines);
#endif
}

// --- interrupted calls -----------------------------------------------------------------------------------------------

#if defined(__x86_64__) || defined(__i386__)  // the trial requires the trap flag

const char* const cInterruption = "Interrupted system call";

/// Returns whose line it is. Every logger writes the same fields.
LineKind kindOf(const std::string& acrLine)
{
    static const std::regex cLine(
        "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z \\d+ \\d+ -E- OsLockFile "
        "\\([./]*MiscLinux:88\\) Failed to lock file, error: (.*)");
    std::smatch lFound;
    const std::string lMessage = std::regex_match(acrLine, lFound, cLine) ? lFound[1].str() : "";
    return cMessage == lMessage        ? LineKind::OfTheCall
           : cInterruption == lMessage ? LineKind::OfTheInterruption
                                       : LineKind::Torn;
}

/// Drops what the peers write on standard error when they fail.
class Silence
{
public:
    Silence() : mStandardError(dup(STDERR_FILENO))
    {
        const int lNull = open("/dev/null", O_WRONLY);
        dup2(lNull, STDERR_FILENO);
        close(lNull);
    }
    ~Silence()
    {
        dup2(mStandardError, STDERR_FILENO);
        close(mStandardError);
    }

private:
    const int mStandardError;
};

/// Interrupts calls of a logger and counts what happens at the instructions.
/// \param[in] aOpen opens the log; the returned object closes it
void interruptions(const std::string& acrRow, std::shared_ptr<void> (*aOpen)(const LogFile&), void (*aInterruption)(),
                   bool (*aWritten)(), bool (*aFiltered)(), bool (*aThrown)())
{
    const std::pair<const char*, Interruption> cInterruptions[] = {
        {"signal", Interruption::Signal}, {"fork", Interruption::Fork}, {"cancel", Interruption::Cancel}};
    const std::tuple<const char*, bool (*)(), unsigned int> cCalls[] = {
        {"written", aWritten, 1}, {"filtered", aFiltered, 0}, {"exception", aThrown, 0}};
    for (const auto& [lCallName, lCall, lLines] : cCalls) {
        for (const auto& [lName, lInterruption] : cInterruptions) {
            LogUnderTrial lLog = {-1, aInterruption, 1, lCall, lLines, nullptr, kindOf};
            if (aThrown == lCall) {
                lLog.mEnd = reinterpret_cast<void*>(abi::__cxa_throw);
            }
            row("interrupted", acrRow + "/" + lCallName + "/" + lName,
                [=, lInterruption = lInterruption](benchmark::State& arState) mutable {
                    const LogFile lFile;
                    const std::shared_ptr<void> lpOpen = aOpen(lFile);
                    check(lCall(), "call");  // before: the loader binds, the thread gets memory
                    check(0 == ftruncate(lFile.mFile, 0), "ftruncate");
                    lLog.mFile = lFile.mFile;
                    const Silence lSilence;
                    for (auto lIteration : arState) {
                        const Steps lSteps = interruptAtEachInstruction(lInterruption, lLog);
                        check(lSteps.mIsOwnCallIntact, "the call without an interruption");
                        arState.counters["instructions"] = lSteps.mInstructions;
                        for (const auto& [lOutcome, lCount] : lSteps.mOutcomes) {
                            arState.counters[lOutcome] = lCount;
                        }
                    }
                })
                ->Iterations(1)
                ->Repetitions(1);
        }
    }
}

template <void Throw(), class Caught>
bool isThrown()
{
    try {
        Throw();
    } catch (const Caught& acrFailure) {
        return '\0' != *acrFailure.what();
    }
    return false;
}

void interruptedCalls()
{
    interruptions(
        "OQLinux",
        [](const LogFile& acrFile) {
            SetLogDescriptor(acrFile.mFile);
            return std::shared_ptr<void>(nullptr, [](void*) { SetLogDescriptor(STDERR_FILENO); });
        },
        [] { writeLayer(cInterruption); },
        [] {
            writeLayer(cMessage);
            return true;
        },
        [] {
            PrintLogMessageWithTimeStamp(OQLL_Trace, "-T-", 88, "OsLockFile", ".//MiscLinux", "%s", "Entered");
            return true;
        },
        isThrown<throwInLayer, OQCNotSupportedEx>);
#ifdef BENCH_SPDLOG
    static spdlog::logger* spSpdlog;
    interruptions(
        "spdlog",
        [](const LogFile& acrFile) {
            const auto lLogger = openSpdlog(acrFile.mPath);
            spSpdlog = lLogger.get();
            return std::shared_ptr<void>(lLogger);
        },
        [] { writeSpdlog(*spSpdlog, cInterruption); },
        [] {
            writeSpdlog(*spSpdlog, cMessage);
            return true;
        },
        [] {
            spSpdlog->trace("{}", "Entered");
            return true;
        },
        isThrown<throwSpdlog, spdlog::spdlog_ex>);
#endif
#ifdef BENCH_POCO
    static Poco::Logger* spPoco;
    interruptions(
        "POCO",
        [](const LogFile& acrFile) {
            spPoco = &openPoco(acrFile.mPath);
            spPoco->setLevel(Poco::Message::PRIO_WARNING);
            return std::shared_ptr<void>(spPoco, [](void*) { Poco::Logger::destroy(cPocoLogger); });
        },
        [] { writePoco(*spPoco, cInterruption); },
        [] {
            writePoco(*spPoco, cMessage);
            return true;
        },
        [] {
            poco_information(*spPoco, "Entered");
            return true;
        },
        isThrown<throwPoco, Poco::Exception>);
#endif
}

#endif

}  // namespace

void registerDiagnostics()
{
    exceptions<throwSmallest, Smallest, Smallest, Smallest>("raw");
    exceptions<throwLayer, OQCNotSupportedEx, OQCGenericException, OQCException>("OQLinux");
    exceptions<throwInLayer, OQCNotSupportedEx, OQCGenericException, OQCException>("by OsResumeThread");
    exceptions<throwStd, std::range_error, std::runtime_error, std::exception>("std");
#ifdef BENCH_BOOST
    exceptions<throwBoost, boost::thread_resource_error, boost::system::system_error, std::exception>("Boost");
#endif
#ifdef BENCH_POCO
    exceptions<throwPoco, Poco::TimeoutException, Poco::RuntimeException, Poco::Exception>("POCO");
#endif
    failedOperations();
    filteredLines();
    writtenLines();
#if defined(__x86_64__) || defined(__i386__)
    interruptedCalls();
#endif
}
