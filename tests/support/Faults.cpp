#include "Faults.h"

#include <errno.h>

namespace
{

Fault* sFirst = nullptr;

}  // namespace

Fault::Fault() : mCalls(0), mNth(0), mAlways(false), mResult(0), mErrno(0), mNext(sFirst) { sFirst = this; }

void Fault::arm(unsigned int aNth, bool aAlways, long aResult, int aErrno)
{
    mNth = 0;
    mCalls = 0;
    mAlways = aAlways;
    mResult = aResult;
    mErrno = aErrno;
    mNth = aNth;
}

void Fault::resetAll()
{
    for (Fault* lpFault = sFirst; nullptr != lpFault; lpFault = lpFault->mNext) {
        lpFault->reset();
    }
}

bool Fault::fires()
{
    const unsigned int lCall = ++mCalls;
    const unsigned int lNth = mNth;
    if (0 == lNth || (mAlways ? lCall < lNth : lCall != lNth)) {
        return false;
    }
    errno = mErrno;
    return true;
}
