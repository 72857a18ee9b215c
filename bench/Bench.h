/// \file
/// What the benchmarks share: registering a row, checking that the work was done, a place for files.
///
/// A row is named group/row or group/row/size. In each group "raw" makes the plain calls, "OQLinux" is the layer, "fixed"
/// takes the steps that the layer's design asks for and nothing more; every other row is a peer. The table's and the
/// plots' maker, report.py, knows the groups by these names.
#ifndef BENCH_H
#define BENCH_H

#include <benchmark/benchmark.h>
#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "OQCompanionSettings.h"
#include "OQLinux.h"

typedef benchmark::internal::Benchmark Row;

// Each registers the groups of its source.
void registerChannels();
void registerDiagnostics();
void registerProcesses();
void registerThreads();

template <class Body>
Row* row(const std::string& acrGroup, const std::string& acrRow, Body aBody)
{
    return benchmark::RegisterBenchmark((acrGroup + "/" + acrRow).c_str(), aBody);
}

/// A row that repeats one operation.
template <class Operation>
Row* repeat(const std::string& acrGroup, const std::string& acrRow, Operation aOperation)
{
    return row(acrGroup, acrRow, [aOperation](benchmark::State& arState) {
        for (auto lIteration : arState) {
            aOperation();
        }
    });
}

[[noreturn, gnu::cold, gnu::noinline]] inline void failed(const char* acWhat) { throw std::runtime_error(acWhat); }

/// A benchmark that does not do its work is worth nothing: the run ends.
inline void check(bool aDone, const char* acWhat)
{
    if (__builtin_expect(!aDone, 0)) {
        failed(acWhat);
    }
}

/// A directory for FIFOs, logs and input files, removed with what is in it.
const std::string& directory();

/// Keeps this thread, and those it starts meanwhile, on the processor where it runs: what changes hands between two
/// threads is then the processor, and no idle one has to be woken.
class OneProcessor
{
public:
    OneProcessor()
    {
        sched_getaffinity(0, sizeof mBefore, &mBefore);
        cpu_set_t lOne;
        CPU_ZERO(&lOne);
        CPU_SET(static_cast<size_t>(sched_getcpu()), &lOne);
        sched_setaffinity(0, sizeof lOne, &lOne);
    }
    ~OneProcessor() { sched_setaffinity(0, sizeof mBefore, &mBefore); }

private:
    cpu_set_t mBefore;
};

#endif
