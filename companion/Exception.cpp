// The root of the exception tree and the shared counter: what the layer's headers declare and leave to the host.

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
    // A new holder is made from an existing one, so there is nothing to synchronise with.
    mCount.fetch_add(1, std::memory_order_relaxed);
}

unsigned int OQCReferenceCount::decrement()
{
    // The last holder frees what the others have written: their writes come before its count of zero.
    return mCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
}
