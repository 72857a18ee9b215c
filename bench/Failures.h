/// \file
/// A failing operation in a separate library, once for each kind of exception. Each function tries to lock a held
/// mutex, gets the text of errno as the layer does, and throws.
#ifndef BENCH_FAILURES_H
#define BENCH_FAILURES_H

#include <pthread.h>
#include <string.h>

/// The smallest exception class that contains such a text.
class Smallest
{
public:
    explicit Smallest(const char* acText)
    {
        const size_t lLength = strnlen(acText, sizeof mText - 1);
        memcpy(mText, acText, lLength);
        mText[lLength] = '\0';
    }
    const char* what() const { return mText; }

private:
    char mText[256];
};

void trylockOrThrowSmallest(pthread_mutex_t& arMutex);
void trylockOrThrowStd(pthread_mutex_t& arMutex);
#ifdef BENCH_BOOST
void trylockOrThrowBoost(pthread_mutex_t& arMutex);
#endif
#ifdef BENCH_POCO
void trylockOrThrowPoco(pthread_mutex_t& arMutex);
#endif

#endif
