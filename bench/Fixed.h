/// \file
/// Minimal versions of the steps that the layer's design requires. They are functions of a shared library, because the
/// layer also calls the companion runtime in a shared library.
#ifndef BENCH_FIXED_H
#define BENCH_FIXED_H

#include <stddef.h>

/// A filtered log line: tests a word.
void fixedLog(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction, const char* acFile,
              const char* acFormat, ...) __attribute__((format(printf, 6, 7)));
void fixedTime(long& arSeconds, unsigned short& arMilliseconds);
void* fixedCopy(void* apDestination, const void* acSource, unsigned int aCount);
void* fixedSet(void* apDestination, int aValue, unsigned int aCount);
char* fixedTextCopy(char* apDestination, const char* acSource);

/// The shared counter of a text.
class FixedCount
{
public:
    explicit FixedCount(unsigned int aInitial);
    void increment();
    unsigned int decrement();

private:
    unsigned int mCount;
};

#endif
