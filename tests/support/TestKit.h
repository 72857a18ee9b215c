/// \file
/// What every test of the layer stands on: recorded log lines, planned faults, children, and a check after each test
/// that nothing was left behind.
#ifndef OQ_TESTS_TESTKIT_H
#define OQ_TESTS_TESTKIT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <set>
#include <string>
#include <typeinfo>
#include <vector>

#include "Faults.h"
#include "OQLinux.h"
#include "Recorder.h"

/// Starts with an empty log and no fault; afterwards there is no descriptor, thread, child, segment or file that was
/// not there before.
class LayerTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// A path in a directory of this test's own, which must be empty again at its end.
    static std::string path(const std::string& acrName);
    /// A System V key of this process's own; a segment with one of its 256 keys must not outlive the test.
    static int key(unsigned int aNumber = 0);

private:
    /// Removes all segments with keys of this process. \return the numbers of those that were there
    static std::vector<unsigned int> removeSegments();

    std::set<std::string> mDescriptors;
    size_t mThreads = 0;  // an emulator or a sanitizer has some of its own
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

/// Waits up to 30 s for a condition.
bool eventually(const std::function<bool()>& acrCondition);

/// Expects that the operation throws exactly this leaf with this code and this text. The text is evaluated afterwards.
#define EXPECT_FAILURE(leaf, failureCode, text, operation)                                \
    do {                                                                                  \
        bool lThrown = false;                                                             \
        try {                                                                             \
            operation;                                                                    \
        } catch (const OQCException& acrFailure) {                                        \
            lThrown = true;                                                               \
            EXPECT_TRUE(typeid(leaf) == typeid(acrFailure)) << typeid(acrFailure).name(); \
            EXPECT_EQ(static_cast<unsigned int>(failureCode), acrFailure.code());         \
            EXPECT_EQ(std::string(text), acrFailure.what());                              \
        }                                                                                 \
        EXPECT_TRUE(lThrown) << #operation << " threw nothing";                           \
    } while (false)

#endif
