/// \file
/// Hands requests from the thread that reads them to the thread that answers them.
#ifndef HOSTD_REQUEST_QUEUE_H
#define HOSTD_REQUEST_QUEUE_H

#include <deque>

#include "OQLinux.h"
#include "RequestParser.h"

/// A request to be answered, or a refusal to be sent: both go through the queue, for the mailbox has one writer.
struct Job {
    Request mRequest;
    std::string mRefusal;  ///< empty: none
};

/// A bounded queue for one thread that puts and one that takes. Failures of its mutex or condition are OQCHaltEx.
class RequestQueue
{
public:
    RequestQueue();
    ~RequestQueue();
    RequestQueue(const RequestQueue&) = delete;
    RequestQueue& operator=(const RequestQueue&) = delete;

    /// \return false when the queue is full; refusals still have some room when requests have none
    bool put(const Job& acrJob);

    /// Waits for a job. \return false once the queue is closed; jobs left in it are then dropped
    bool take(Job& arJob);

    /// Lets the taking thread end.
    void close();

    bool isClosed();

private:
    pthread_mutex_t mMutex;
    pthread_cond_t mChanged;
    std::deque<Job> mJobs;
    bool mClosed;
};

#endif
