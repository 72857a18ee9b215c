#include <errno.h>
#include <stdlib.h>

#include "Faults.h"

MallocFault gMallocFault;

#if !OQ_SANITIZED

extern "C" void* __libc_malloc(size_t aSize);

namespace
{

thread_local bool sArmed = false;

}  // namespace

void MallocFault::failOn(unsigned int aNth)
{
    mNth = aNth;
    mLast = aNth;
    mCalls = 0;
    sArmed = true;
}

void MallocFault::failFrom(unsigned int aNth)
{
    failOn(aNth);
    mLast = ~0U;
}

unsigned int MallocFault::stop()
{
    sArmed = false;
    return mCalls;
}

bool MallocFault::fires() { return sArmed && mNth <= ++mCalls && mCalls <= mLast; }

extern "C" void* malloc(size_t aSize) noexcept
{
    if (gMallocFault.fires()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(aSize);
}

#endif
