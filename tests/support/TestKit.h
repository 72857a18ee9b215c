/// \file
/// What every test of the layer stands on: recorded log lines, planned faults, children, and a check after each test
/// that nothing was left behind.
#ifndef OQ_TESTS_TESTKIT_H
#define OQ_TESTS_TESTKIT_H

#include <sys/types.h>

#include <functional>

#include "Basics.h"
#include "Faults.h"
#include "Recorder.h"

/// Starts with an empty log and no fault.
class LayerTest : public LeftoverTest
{
protected:
    void SetUp() override;
    void TearDown() override;
};

/// How a child process ended, and what it logged.
struct ChildResult {
    int mExitStatus;  ///< -1 when a signal ended it
    int mSignal;      ///< 0 when it exited
    Lines mLines;     ///< of the child alone
};

/// Runs something in a child process with an empty log and waits for its end; returning from it is exit status 0.
ChildResult inChild(const std::function<void()>& acrRun);

/// A child process that runs beside the test: a real peer. Both sides meet by handshake.
class Peer
{
public:
    explicit Peer(const std::function<void(Peer&)>& acrRun);  ///< returning from it is exit status 0
    ~Peer();                                                  ///< kills it if nobody waited for it
    void signal();                                            ///< lets the other side pass its next meet()
    void meet();                                              ///< waits for the other side's signal(); fails after 30 s
    void kill(int aSignal);
    int wait();  ///< exit status, or minus the signal that ended it
    pid_t pid() const { return mPid; }

private:
    pid_t mPid;
    int mSocket;
};

#endif
