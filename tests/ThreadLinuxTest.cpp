// Several threads at the same time. outcomes/Threads.cpp tests how each operation ends.

#include <unistd.h>

#include "Substitutes.h"

namespace
{

/// One thread opens it with set_value(). The other thread passes it with get_future().wait().
typedef std::promise<void> Gate;

/// Sets a flag when its frame ends.
class Frame
{
public:
    explicit Frame(bool& arIsLeft) : mrIsLeft(arIsLeft) {}
    ~Frame() { mrIsLeft = true; }

private:
    bool& mrIsLeft;
};

void* returnAtOnce(void* apArgument) { return apArgument; }

/// Joins a thread without the layer.
void* join(unsigned long aThread)
{
    void* lpExitValue = nullptr;
    EXPECT_EQ(0, pthread_join(aThread, &lpExitValue));
    return lpExitValue;
}

class ThreadLinuxTest : public RecordedTest
{
protected:
    static std::string trace() { return traceOf(recorded(), "OsWaitForExit", ".//ThreadLinux"); }

    unsigned long mThread = 0;
};

TEST_F(ThreadLinuxTest, TheArgumentReachesTheRoutineUntouchedAlsoWhenItIsNull)
{
    int lArgument = 0;
    OsStartThread(mThread, &lArgument, returnAtOnce);
    EXPECT_EQ(&lArgument, join(mThread));
    OsStartThread(mThread, nullptr, returnAtOnce);
    EXPECT_EQ(nullptr, join(mThread));
}

TEST_F(ThreadLinuxTest, TheHandleIsTheNewThreads)
{
    unsigned long lSelf = 0;
    OsStartThread(mThread, &lSelf, [](void* apSelf) -> void* {
        *static_cast<unsigned long*>(apSelf) = pthread_self();
        return nullptr;
    });
    join(mThread);
    EXPECT_EQ(lSelf, mThread);
    EXPECT_NE(pthread_self(), mThread);
}

typedef std::vector<size_t> Values;

/// Returns the detach state, the sizes of the stack and of its guard, and the scheduling.
Values valuesOf(const pthread_attr_t& acrAttributes)
{
    int lNumbers[4];
    Values lSizes(2);
    sched_param lParameters;
    pthread_attr_getdetachstate(&acrAttributes, &lNumbers[0]);
    pthread_attr_getschedpolicy(&acrAttributes, &lNumbers[1]);
    pthread_attr_getinheritsched(&acrAttributes, &lNumbers[2]);
    pthread_attr_getscope(&acrAttributes, &lNumbers[3]);
    pthread_attr_getschedparam(&acrAttributes, &lParameters);
    pthread_attr_getstacksize(&acrAttributes, &lSizes[0]);
    pthread_attr_getguardsize(&acrAttributes, &lSizes[1]);
    lSizes.insert(lSizes.end(), lNumbers, lNumbers + 4);
    lSizes.push_back(static_cast<size_t>(lParameters.sched_priority));
    return lSizes;
}

TEST_F(ThreadLinuxTest, AThreadIsJoinableWithAStackOf524288BytesAndIsOtherwiseDefault)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer enlarges the stacks of threads";
#endif
    Values lFound;
    OsStartThread(mThread, &lFound, [](void* apFound) -> void* {
        pthread_attr_t lAttributes;
        pthread_getattr_np(pthread_self(), &lAttributes);
        *static_cast<Values*>(apFound) = valuesOf(lAttributes);
        pthread_attr_destroy(&lAttributes);
        return nullptr;
    });
    join(mThread);
    pthread_attr_t lAttributes;
    pthread_attr_init(&lAttributes);
    pthread_attr_setdetachstate(&lAttributes, PTHREAD_CREATE_JOINABLE);
    pthread_attr_setstacksize(&lAttributes, 524288);
    EXPECT_EQ(valuesOf(lAttributes), lFound);
    pthread_attr_destroy(&lAttributes);
}

TEST_F(ThreadLinuxTest, FourThreadsCanStartAndJoinFiftyEachAtOnce)
{
    std::atomic<unsigned int> lRun(0);
    inThreads(4, [&lRun](unsigned int) {
        for (unsigned int lRound = 0; lRound < 50; ++lRound) {
            unsigned long lThread = 0;
            OsStartThread(lThread, &lRun, [](void* apRun) -> void* {
                ++*static_cast<std::atomic<unsigned int>*>(apRun);
                return nullptr;
            });
            OsWaitForExit(lThread);
        }
    });
    EXPECT_EQ(200U, lRun);
    unsigned int lEntered = 0;
    for (const Event& lrEvent : recorded()) {
        lEntered += "Entered" == lrEvent.mArguments.at(0) ? 1U : 0U;
    }
    EXPECT_EQ(200U, lEntered);
    EXPECT_EQ(400U, recorded().size());
}

TEST_F(ThreadLinuxTest, WaitForExitReturnsOnlyWhenTheThreadHasEnded)
{
    bool lHasEnded = false;
    OsStartThread(mThread, &lHasEnded, [](void* apHasEnded) -> void* {
        EXPECT_TRUE(eventually([] { return 2 == recorded().size(); }));  // pthread_join has been called
        *static_cast<bool*>(apHasEnded) = true;
        return nullptr;
    });
    {
        const Recording lRecording;
        OsWaitForExit(mThread);
    }
    EXPECT_TRUE(lHasEnded);
    EXPECT_EQ("Entered\npthread_join(thread, null) = 0\nLeft\n", trace());
}

struct Cancelled {
    Gate mRunning;
    Gate mGoOn;
    bool mIsUnwound = false;
    bool mHasPassed = false;
};

TEST_F(ThreadLinuxTest, DestroyReturnsAtOnceAndTheThreadEndsAtItsNextCancellationPoint)
{
    Cancelled lState;
    OsStartThread(mThread, &lState, [](void* apState) -> void* {
        Cancelled& lrState = *static_cast<Cancelled*>(apState);
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        const Frame lFrame(lrState.mIsUnwound);
        lrState.mRunning.set_value();
        lrState.mGoOn.get_future().wait();
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        pthread_testcancel();
        lrState.mHasPassed = true;
        return nullptr;
    });
    lState.mRunning.get_future().wait();
    OsDestroyThread(mThread);  // the thread cannot have ended: it waits at its gate
    lState.mGoOn.set_value();
    OsWaitForExit(mThread);
    EXPECT_FALSE(lState.mHasPassed);
    EXPECT_TRUE(lState.mIsUnwound);
    EXPECT_EQ("Entered\nLeft\n", trace());
}

TEST_F(ThreadLinuxTest, DestroyEndsAThreadThatSleepsInACancellationPoint)
{
    Cancelled lState;
    OsStartThread(mThread, &lState, [](void* apState) -> void* {
        Cancelled& lrState = *static_cast<Cancelled*>(apState);
        const Frame lFrame(lrState.mIsUnwound);
        lrState.mRunning.set_value();
        for (;;) {
            pause();
        }
    });
    lState.mRunning.get_future().wait();
    OsDestroyThread(mThread);
    EXPECT_EQ(PTHREAD_CANCELED, join(mThread));
    EXPECT_TRUE(lState.mIsUnwound);
    EXPECT_EQ("", trace());
}

TEST_F(ThreadLinuxTest, ExitThreadUnwindsItsThreadAndEndsNoOther)
{
    Gate lGate;
    OsStartThread(mThread, &lGate, [](void* apGate) -> void* {
        static_cast<Gate*>(apGate)->get_future().wait();
        return apGate;
    });
    bool lIsUnwound = false;
    unsigned long lLeaving = 0;
    OsStartThread(lLeaving, &lIsUnwound, [](void* apIsUnwound) -> void* {
        const Frame lFrame(*static_cast<bool*>(apIsUnwound));
        OsExitThread();
    });
    EXPECT_EQ(nullptr, join(lLeaving));
    EXPECT_TRUE(lIsUnwound);
    lGate.set_value();
    EXPECT_EQ(&lGate, join(mThread));
}

}  // namespace
