/// \file
/// Passes requests from the thread that reads them to the thread that answers them.
#ifndef HOSTD_REQUEST_QUEUE_H
#define HOSTD_REQUEST_QUEUE_H

#include <deque>

#include "OQGuards.h"
#include "RequestParser.h"

/// A request to answer, or a refusal to send. Both go through the queue, because the mailbox has only one writer.
struct Job {
    Request mRequest;
    std::string mRefusal;  ///< reason of a refusal; empty for a request
};

/// A bounded queue for one thread that puts jobs and one that takes them. Failures of its mutex or condition throw
/// OQCHaltEx.
class RequestQueue
{
public:
    /// \return false when the queue is full; refusals have additional room
    bool put(const Job& acrJob);

    /// Waits for a job. \return false once the queue is closed; remaining jobs are dropped
    bool take(Job& arJob);

    /// Closes the queue, so that the taking thread can end.
    void close();

    bool isClosed();

private:
    OQCMutex mMutex;
    OQCCondition mChanged;
    std::deque<Job> mJobs;
    bool mClosed = false;
};

#endif
