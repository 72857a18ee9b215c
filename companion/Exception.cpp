// The root of the exception tree and the shared counter. The layer's headers declare them; the host defines them.

#include <string.h>

#include "OQCompanion.h"

static_assert(sizeof(OQCReferenceCount) == 4, "one 32-bit word");

OQCException::OQCException(const char* acMessage, unsigned int aCode) noexcept : mCode(aCode)
{
    const size_t lLength = strnlen(acMessage, sizeof mMessage - 1);
    memcpy(mMessage, acMessage, lLength);
    mMessage[lLength] = '\0';
}

OQCException::~OQCException() {}

OQCReferenceCount::OQCReferenceCount(unsigned int aInitial) : mCount(aInitial) {}

OQCReferenceCount::~OQCReferenceCount() {}

void OQCReferenceCount::increment()
{
    // Relaxed: a new holder is made from an existing one, so no data needs synchronisation.
    mCount.fetch_add(1, std::memory_order_relaxed);
}

unsigned int OQCReferenceCount::decrement()
{
    // The last holder frees memory that other holders may have written. Acquire and release order those writes before
    // the free.
    return mCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
}
