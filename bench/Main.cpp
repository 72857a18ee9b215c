// Prints the versions and the machine, then runs the chosen rows.
//
// A parked second thread exists during the whole run: in a single-threaded process the C library skips the cost of
// locks.

#include <gnu/libc-version.h>
#include <sys/utsname.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <thread>

#include "Bench.h"

#ifdef BENCH_APR
#include <apr_general.h>
#include <apr_version.h>
#endif
#ifdef BENCH_BOOST
#include <boost/version.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_POCO
#include <Poco/Version.h>
#endif
#ifdef BENCH_SPDLOG
#include <spdlog/version.h>
#endif

namespace
{

std::string sDirectory;

std::string processor()
{
    std::ifstream lFile("/proc/cpuinfo");
    for (std::string lLine; std::getline(lFile, lLine);) {
        if (0 == lLine.compare(0, 10, "model name")) {
            return lLine.substr(lLine.find(':') + 2);
        }
    }
    return "unknown processor";
}

[[maybe_unused]] std::string version(unsigned int aMajor, unsigned int aMinor, unsigned int aPatch)
{
    return std::to_string(aMajor) + "." + std::to_string(aMinor) + "." + std::to_string(aPatch);
}

std::string peers()
{
    std::string lPeers;
#ifdef BENCH_APR
    lPeers += ", APR " APR_VERSION_STRING;
#endif
#ifdef BENCH_BOOST
    lPeers += ", Boost " + version(BOOST_VERSION / 100000, BOOST_VERSION / 100 % 1000, BOOST_VERSION % 100);
#endif
#ifdef BENCH_GLIB
    lPeers += ", GLib " + version(GLIB_MAJOR_VERSION, GLIB_MINOR_VERSION, GLIB_MICRO_VERSION);
#endif
#ifdef BENCH_POCO
    lPeers += ", POCO " + version(POCO_VERSION >> 24, POCO_VERSION >> 16 & 255, POCO_VERSION >> 8 & 255);
#endif
#ifdef BENCH_SPDLOG
    lPeers += ", spdlog " + version(SPDLOG_VER_MAJOR, SPDLOG_VER_MINOR, SPDLOG_VER_PATCH);
#endif
    return lPeers;
}

/// Prints a value at once and stores it with the results.
void tell(const char* acKey, const std::string& acrValue)
{
    std::cerr << acKey << ": " << acrValue << '\n';
    benchmark::AddCustomContext(acKey, acrValue);
}

int run()
{
    registerThreads();
    registerChannels();
    registerProcesses();
    registerDiagnostics();
    try {
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (const std::exception& acrFailure) {
        std::cerr << "oqbench: " << acrFailure.what() << '\n';
    } catch (const OQCException& acrFailure) {
        std::cerr << "oqbench: " << acrFailure.what() << ", code " << acrFailure.code() << '\n';
    }
    return 1;
}

}  // namespace

const std::string& directory() { return sDirectory; }

int main(int aCount, char** apArguments)
{
    utsname lSystem;
    uname(&lSystem);
    tell("machine", processor() + ", " + std::to_string(std::thread::hardware_concurrency()) + " processors");
    tell("system", std::string(lSystem.sysname) + " " + lSystem.release + ", C library " + gnu_get_libc_version());
    tell("compiler", std::string(
#ifdef __clang__
                         "Clang " __clang_version__
#else
                         "GCC " __VERSION__
#endif
                         ) +
                         ", " BENCH_BUILD);
    tell("versions", "Google Benchmark " BENCH_GOOGLE + peers());
#ifndef __OPTIMIZE__
    tell("warning", "NOT OPTIMISED: these times say nothing about the library");
#endif
    benchmark::Initialize(&aCount, apArguments);
    if (benchmark::ReportUnrecognizedArguments(aCount, apArguments)) {
        return 2;
    }
#ifdef BENCH_APR
    apr_initialize();
#endif
    char lName[] = "/tmp/oqbench.XXXXXX";
    check(nullptr != mkdtemp(lName), "mkdtemp");
    sDirectory = lName;

    std::promise<void> lEnd;
    std::thread lParked([&] { lEnd.get_future().wait(); });
    const int lResult = run();
    lEnd.set_value();
    lParked.join();
    std::filesystem::remove_all(sDirectory);
    return lResult;
}
