/// \file
/// The base of every test of the layer: a check that the test leaves nothing behind, a wait for a condition, and a
/// macro that expects an exception.
#ifndef OQ_TESTS_BASICS_H
#define OQ_TESTS_BASICS_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "OQLinux.h"

/// True in sanitizer builds: sanitizers replace the allocator and intercept threads and processes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OQ_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OQ_SANITIZED 1
#endif
#endif
#ifndef OQ_SANITIZED
#define OQ_SANITIZED 0
#endif

/// True in sanitizer builds and under an emulator, where a program and fork() are many times slower.
#ifdef OQ_EMULATED
#define OQ_SLOW 1
#else
#define OQ_SLOW OQ_SANITIZED
#endif

/// Fails a test that leaves a new descriptor, thread, child, segment or file behind.
class LeftoverTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Returns a path in this test's own directory. The directory must be empty again when the test ends.
    static std::string path(const std::string& acrName);
    /// Returns one of this process's 256 System V keys. A segment with such a key must not outlive the test.
    static int key(unsigned int aNumber = 0);

private:
    /// Removes all segments with keys of this process. \return the numbers of their keys
    static std::vector<unsigned int> removeSegments();

    std::set<std::string> mDescriptors;
    size_t mThreads = 0;  // an emulator or a sanitizer may have threads of its own
};

/// How long a test waits for a condition before it fails.
const int cPatienceMilliseconds = 60000;

/// Waits for a condition. \return whether the condition became true in time
bool eventually(const std::function<bool()>& acrCondition);

/// Ends a forked child without exit handlers: status 0, or 99 if an expectation failed in the child.
[[noreturn]] void endChild();

/// Runs a function in this many threads at the same time and waits for them. Its argument is the thread's index.
void inThreads(unsigned int aCount, const std::function<void(unsigned int)>& acrRun);

typedef std::vector<std::string> Texts;
Texts textsOf(const OQCList<OQCString>& acrList);

/// Opens descriptors until none is free. Only for a child.
void useAllDescriptors();

/// Returns whether a thread holds the mutex.
bool isHeld(pthread_mutex_t& arMutex);

/// A thread that holds a mutex while the object lives.
class Holder
{
public:
    explicit Holder(pthread_mutex_t& arMutex);
    ~Holder();

private:
    std::promise<void> mHeld;
    std::promise<void> mRelease;
    std::thread mThread;
};

/// Expects that the operation throws exactly this leaf with this code and this text. The text argument is evaluated
/// after the throw.
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
