/// \file
/// Shared code of the benchmarks: registering a row, checking that the work was done, a directory for files.
///
/// The name of a row is group/row or group/row/size. In each group, "raw" makes the plain calls, "OQLinux" uses the
/// layer, and "fixed" takes only the steps that the layer's design requires. Every other row is a peer. report.py,
/// which makes the table and the plots, uses these names.
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

// Each function registers the groups of its source file.
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

/// Ends the run if an operation has not done its work, because its time would be meaningless.
inline void check(bool aDone, const char* acWhat)
{
    if (__builtin_expect(!aDone, 0)) {
        failed(acWhat);
    }
}

/// Returns a directory for FIFOs, logs and input files. The program removes it with its contents.
const std::string& directory();

/// Binds this thread, and the threads that it starts, to the current processor. Two threads then hand over one
/// processor to each other, and no idle processor has to be woken.
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
