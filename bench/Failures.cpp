#include "Failures.h"

#include <system_error>

#include "OQCompanion.h"

#ifdef BENCH_BOOST
#include <boost/thread/exceptions.hpp>
#endif
#ifdef BENCH_POCO
#include <Poco/Exception.h>
#endif

void trylockOrThrowSmallest(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_trylock(&arMutex)) {
        char lText[512];
        const char* const lpText = ClibStrerror(lText, sizeof lText);
        throw Smallest(lpText);
    }
}

void trylockOrThrowStd(pthread_mutex_t& arMutex)
{
    const int lResult = pthread_mutex_trylock(&arMutex);
    if (0 != lResult) {
        char lText[512];
        const char* const lpText = ClibStrerror(lText, sizeof lText);
        throw std::system_error(lResult, std::generic_category(), lpText);
    }
}

#ifdef BENCH_BOOST
void trylockOrThrowBoost(pthread_mutex_t& arMutex)
{
    const int lResult = pthread_mutex_trylock(&arMutex);
    if (0 != lResult) {
        char lText[512];
        const char* const lpText = ClibStrerror(lText, sizeof lText);
        throw boost::lock_error(lResult, lpText);
    }
}
#endif

#ifdef BENCH_POCO
void trylockOrThrowPoco(pthread_mutex_t& arMutex)
{
    if (0 != pthread_mutex_trylock(&arMutex)) {
        char lText[512];
        const char* const lpText = ClibStrerror(lText, sizeof lText);
        throw Poco::SystemException(lpText);
    }
}
#endif
