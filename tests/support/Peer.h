/// \file
/// Children of a test: one that runs to its end, and one that runs beside the test.
#ifndef OQ_TESTS_PEER_H
#define OQ_TESTS_PEER_H

#include <functional>

#include "Substitutes.h"

/// Runs something in a child and waits for its end. What it logs is in the sequence of events.
/// \return its exit status, or minus the signal that ended it; returning from acrRun is exit status 0
int inChild(const std::function<void()>& acrRun);

/// A child that runs beside the test: a real peer. Both sides meet by handshake.
class Peer
{
public:
    explicit Peer(const std::function<void(Peer&)>& acrRun);  ///< returning from it is exit status 0
    ~Peer();                                                  ///< kills it if nobody waited for it
    void signal();                                            ///< lets the other side pass its next meet()
    void meet();                                              ///< waits for the other side's signal(), or fails
    void kill(int aSignal);
    int wait();  ///< exit status, or minus the signal that ended it
    pid_t pid() const { return mPid; }

private:
    pid_t mPid;
    int mSocket;
};

#endif
