#include "RequestQueue.h"

namespace
{

const size_t cRequests = 16;  // tools take turns, so several requests wait only if a tool breaks the rules
const size_t cRefusals = 16;  // additional room for refusals

/// Holds a mutex during a block. A failed unlock throws an OQCHaltEx, as a failed lock does. Both must reach the same
/// handler, so the destructor may throw.
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
        // Mutex and condition are unused now and own no resources outside this object, so errors are ignored.
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
