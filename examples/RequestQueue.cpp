#include "RequestQueue.h"

namespace
{

const size_t cRequests = 16;  // tools take turns, so several requests wait only if a tool breaks the rules
const size_t cRefusals = 16;  // additional room for refusals

}  // namespace

bool RequestQueue::put(const Job& acrJob)
{
    const OQCMutexLock lLock(mMutex);
    if (mJobs.size() >= (acrJob.mRefusal.empty() ? cRequests : cRequests + cRefusals)) {
        return false;
    }
    mJobs.push_back(acrJob);
    mChanged.signal();
    return true;
}

bool RequestQueue::take(Job& arJob)
{
    OQCMutexLock lLock(mMutex);
    mChanged.wait(lLock, [this] { return !mJobs.empty() || mClosed; });
    if (mClosed) {
        return false;
    }
    arJob = mJobs.front();
    mJobs.pop_front();
    return true;
}

void RequestQueue::close()
{
    const OQCMutexLock lLock(mMutex);
    mClosed = true;
    mChanged.signal();
}

bool RequestQueue::isClosed()
{
    const OQCMutexLock lLock(mMutex);
    return mClosed;
}
