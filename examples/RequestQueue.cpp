#include "RequestQueue.h"

namespace
{

const size_t cRequests = 16;  // tools take turns, so more than one request waits only when somebody breaks the rules
const size_t cRefusals = 16;  // further room for refusals

/// Holds a mutex for a block. A failed unlock is an OQCHaltEx like a failed lock, and has to reach the same handler, so
/// the destructor may throw.
class Locked
{
public:
    explicit Locked(pthread_mutex_t& arMutex) : mMutex(arMutex) { OsLockMutex(mMutex); }
    ~Locked() noexcept(false) { OsUnlockMutex(mMutex); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pthread_mutex_t& mMutex;
};

}  // namespace

RequestQueue::RequestQueue() : mClosed(false)
{
    OsInitMutex(mMutex);
    try {
        OsInitConditional(mChanged);
    } catch (const OQCException&) {
        OsDestroyMutex(mMutex);
        throw;
    }
}

RequestQueue::~RequestQueue()
{
    try {
        OsDestroyConditional(mChanged);
        OsDestroyMutex(mMutex);
    } catch (const OQCException&) {
        // Both are unused by now and hold nothing outside this object.
    }
}

bool RequestQueue::put(const Job& acrJob)
{
    const Locked lLocked(mMutex);
    if (mJobs.size() >= (acrJob.mRefusal.empty() ? cRequests : cRequests + cRefusals)) {
        return false;
    }
    mJobs.push_back(acrJob);
    OsSignal(mChanged);
    return true;
}

bool RequestQueue::take(Job& arJob)
{
    const Locked lLocked(mMutex);
    while (mJobs.empty() && !mClosed) {
        OsWait(mChanged, mMutex);
    }
    if (mClosed) {
        return false;
    }
    arJob = mJobs.front();
    mJobs.pop_front();
    return true;
}

void RequestQueue::close()
{
    const Locked lLocked(mMutex);
    mClosed = true;
    OsSignal(mChanged);
}

bool RequestQueue::isClosed()
{
    const Locked lLocked(mMutex);
    return mClosed;
}
