/// \file
/// Children of a test: inChild() waits for the child; a Peer runs at the same time as the test.
#ifndef OQ_TESTS_PEER_H
#define OQ_TESTS_PEER_H

#include <functional>

#include "Substitutes.h"

/// Runs a function in a child and waits until the child has ended. Its events are in the sequence of the test.
/// \return its exit status, or minus the signal that ended it; returning from acrRun is exit status 0
int inChild(const std::function<void()>& acrRun);

/// A child that runs at the same time as the test. Each side can signal the other and wait for its signal.
class Peer
{
public:
    explicit Peer(const std::function<void(Peer&)>& acrRun);  ///< exit status 0 when acrRun returns
    ~Peer();                                                  ///< kills the child unless wait() was called
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
