#include <errno.h>
#include <string.h>

#include <thread>

#include "TestKit.h"

OQ_FAULTY(int, pthread_mutex_init, (pthread_mutex_t * apMutex, const pthread_mutexattr_t* acAttributes),
          (apMutex, acAttributes), noexcept)
OQ_FAULTY(int, pthread_mutex_destroy, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_lock, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_trylock, (pthread_mutex_t * apMutex), (apMutex), noexcept)
OQ_FAULTY(int, pthread_mutex_unlock, (pthread_mutex_t * apMutex), (apMutex), noexcept)

namespace {

/// A mutex that is initialised for the test.
class MutexLinuxTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        OsInitMutex(mMutex);
    }
    void TearDown() override
    {
        Fault::resetAll();
        OsDestroyMutex(mMutex);
        LayerTest::TearDown();
    }

    pthread_mutex_t mMutex;
};

TEST_F(MutexLinuxTest, InitThrowsItsClassWithTheTextOfErrnoWhenRefused)
{
    pthread_mutex_t lMutex;
    pthread_mutex_initFault.failOn(1, EAGAIN, ENOMEM);  // the text is errno's, not that of the returned error
    EXPECT_FAILURE(OQCMutexInitFailedEx, 333, strerror(ENOMEM), OsInitMutex(lMutex));
    EXPECT_EQ(Lines(), logged());
}

}  // namespace
