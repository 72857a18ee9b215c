// How the operations of threads end.

#include <sys/mman.h>

#include "Outcome.h"

namespace
{

const Family cFamily(
    "Threads", ".//ThreadLinux",
    "The handle in a log line is the value of the caller's variable at that moment. The error text is that of `errno`, "
    "not that of the error that the POSIX call returned. `OsStartThread` never destroys the thread attributes.",
    {{"-E- Failed to initialize the thread %lu. Error: '%s'", "the attributes of a new thread cannot be initialised"},
     {"-E- Failed to set the detach state the thread %lu. Error: '%s' ", "a new thread cannot be made joinable"},
     {"-E- Failed to set the stack size for the thread %lu. Error: '%s'", "the system refuses a stack of 512 KiB"},
     {"-E- Failed to start  the thread %lu. Error: '%s'", "a limit of threads or of memory is reached"},
     {"-E- Failed to join the thread %lu. Error: '%s'",
      "the thread was joined before, does not exist, or waits for itself"},
     {"-E- Failed to destroy the thread %lu. Error: '%s'", "the thread does not exist"},
     {"-T- Entered", "the wait begins"},
     {"-T- Left", "the thread has ended; after an error line: a throw follows"}});

void* routine(void* apArgument) { return apArgument; }

/// A watched handle with the value 4711.
class Handle
{
public:
    Handle()
    {
        nameObject("handle", &mHandle);
        nameObject("routine", reinterpret_cast<const void*>(routine));
        watchObject("handle", &mHandle, sizeof mHandle);
    }
    operator unsigned long&() { return mHandle; }

private:
    unsigned long mHandle = 4711;
};

/// A handle that ends the program when it is read or written.
unsigned long& untouchableHandle()
{
    static void* const spPage = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return *static_cast<unsigned long*>(spPage);
}

const std::string cInit = "pthread_attr_init(local) = ";
const std::string cJoinable = cInit + "0\npthread_attr_setdetachstate(local, PTHREAD_CREATE_JOINABLE) = ";
const std::string cStack = cJoinable + "0\npthread_attr_setstacksize(local, 524288) = ";
const std::string cCreate = cStack + "0\npthread_create(handle, local, routine, null) = ";

void startFails(Outcome& arRow, const std::string& acrCalls, const std::string& acrLine,
                const std::string& acrStays = "the handle")
{
    Handle lHandle;
    arRow.mTrace = acrCalls + loggedFailure(acrLine, "OQCThreadStartFailedEx 342", "", "EXDEV");
    arRow.mStays = acrStays;
    arRow.run([&] { OsStartThread(lHandle, nullptr, routine); });
}

OUTCOME(OsStartThread, Succeeds)
{
    Handle lHandle;
    mWhen = "succeeds";
    mTrace = cCreate + "0\nhandle changes";
    mStays = "the thread is joinable";
    run([&] { OsStartThread(lHandle, nullptr, routine); });
    EXPECT_EQ(0, pthread_join(lHandle, nullptr));
}

OUTCOME(OsStartThread, ThrowsWhenTheRoutineIsNull)
{
    Handle lHandle;
    mWhen = "null routine";
    mTrace = "throws OQCNullPointerEx 3 \"Null Pointer\"";
    mStays = "the handle";
    run([&] { OsStartThread(lHandle, nullptr, nullptr); });
}

OUTCOME_OF_ERRORS(OsStartThread, ThrowsWhenTheAttributesCannotBeInitialised, ENOMEM, -1)
{
    substitute::pthread_attr_init.fail(error(), EXDEV);
    mWhen = "`pthread_attr_init` fails";
    startFails(*this, cInit + "ERROR\n", R"(-E- "Failed to initialize the thread %lu. Error: '%s'" "4711", )");
}

OUTCOME_OF_ERRORS(OsStartThread, ThrowsWhenTheDetachStateCannotBeSet, EINVAL, -1)
{
    substitute::pthread_attr_setdetachstate.fail(error(), EXDEV);
    mWhen = "`pthread_attr_setdetachstate` fails";
    startFails(*this, cJoinable + "ERROR\n",
               R"(-E- "Failed to set the detach state the thread %lu. Error: '%s' " "4711", )");
}

OUTCOME_OF_ERRORS(OsStartThread, ThrowsWhenTheStackSizeCannotBeSet, EINVAL, -1)
{
    substitute::pthread_attr_setstacksize.fail(error(), EXDEV);
    mWhen = "`pthread_attr_setstacksize` fails";
    startFails(*this, cStack + "ERROR\n",
               R"(-E- "Failed to set the stack size for the thread %lu. Error: '%s'" "4711", )");
}

OUTCOME_OF_ERRORS(OsStartThread, ThrowsWhenTheThreadCannotBeCreated, EAGAIN, EINVAL, EPERM, -1)
{
    nameText("WRITTEN", std::to_string(~0UL));
    substitute::pthread_create.instead([this](pthread_t* apHandle, const pthread_attr_t*, void* (*)(void*), void*) {
        *apHandle = ~0UL;
        errno = EXDEV;
        return error();
    });
    mWhen = "`pthread_create` fails";
    startFails(*this, cCreate + "ERROR\nhandle changes\n",
               R"(-E- "Failed to start  the thread %lu. Error: '%s'" WRITTEN, )",
               "the handle as `pthread_create` left it");
}

OUTCOME(OsCreateThread, DoesNothing)
{
    mWhen = "always";
    mTells = "no thread is started";
    mStays = "the handle is neither read nor changed";
    run([&] { OsCreateThread(untouchableHandle(), nullptr, routine); });
}

OUTCOME(OsWaitForExit, Succeeds)
{
    Handle lHandle;
    OsStartThread(lHandle, &lHandle, routine);
    mWhen = "succeeds";
    mTrace = "Entered\npthread_join(thread, null) = 0\nLeft";
    mStays = "the handle; the exit value of the thread is lost";
    run([&] { OsWaitForExit(lHandle); });
}

const std::string cNotJoined = "-E- \"Failed to join the thread %lu. Error: '%s'\" ";

OUTCOME_OF_ERRORS(OsWaitForExit, ThrowsWhenThePosixCallFails, EDEADLK, EINVAL, ESRCH, -1)
{
    Handle lHandle;
    substitute::pthread_join.fail(error(), EXDEV);
    mWhen = "`pthread_join` fails";
    mTrace = "Entered\npthread_join(thread, null) = ERROR\n" +
             loggedFailure(cNotJoined + "\"4711\", ", "OQCThreadWaitForExitFailedEx 344", "Left\n", "EXDEV");
    mStays = "the handle; the thread, joinable if it was";
    run([&] { OsWaitForExit(lHandle); });
}

OUTCOME(OsWaitForExit, ThrowsWhenAThreadWaitsForItself)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer ends the process when a thread joins itself";
#endif
    mWhen = "a thread waits for itself (`EDEADLK`)";
    mTrace = "Entered\npthread_join(itself, null) = EDEADLK\n" +
             loggedFailure(cNotJoined + "ITSELF, ", "OQCThreadWaitForExitFailedEx 344", "Left\n", "EXDEV");
    mStays = "the thread continues and is joinable";
    std::thread([this] {
        nameText("ITSELF", std::to_string(pthread_self()));
        run([] { OsWaitForExit(pthread_self()); });
    }).join();
}

OUTCOME(OsDestroyThread, Succeeds)
{
    Handle lHandle;
    substitute::pthread_cancel.fail(0, EXDEV);
    mWhen = "succeeds";
    mTrace = "pthread_cancel(thread) = 0";
    mTells = "the thread ends at its next cancellation point";
    mStays = "the handle; the thread is joinable";
    run([&] { OsDestroyThread(lHandle); });
}

OUTCOME_OF_ERRORS(OsDestroyThread, ThrowsWhenThePosixCallFails, ESRCH, -1)
{
    Handle lHandle;
    substitute::pthread_cancel.fail(error(), EXDEV);
    mWhen = "`pthread_cancel` fails";
    mTrace = "pthread_cancel(thread) = ERROR\n" +
             loggedFailure(R"(-E- "Failed to destroy the thread %lu. Error: '%s'" "4711", )",
                           "OQCThreadDestructionFailedEx 343", "", "EXDEV");
    mStays = "the handle; the thread";
    run([&] { OsDestroyThread(lHandle); });
}

OUTCOME(OsExitThread, EndsTheThreadWithANullExitValue)
{
    pthread_t lThread;
    void* lpExitValue = &lThread;
    substitute::pthread_create.hide();  // the row's own calls
    substitute::pthread_join.hide();
    mWhen = "always";
    mTells = "does not return; the exit value of the thread is null";
    mStays = "the thread is joinable";
    run([&] {
        const auto lRoutine = [](void*) -> void* {
            const Recording lRecording;
            OsExitThread();
        };
        pthread_create(&lThread, nullptr, lRoutine, nullptr);
        pthread_join(lThread, &lpExitValue);
    });
    EXPECT_EQ(nullptr, lpExitValue);
}

void isNotSupported(Outcome& arRow, void (*apOperation)(unsigned long&))
{
    arRow.mWhen = "always";
    arRow.mTrace = "throws OQCNotSupportedEx 12 \"Not Supported\"";
    arRow.mStays = "the handle is neither read nor changed";
    arRow.run([&] { apOperation(untouchableHandle()); });
}

OUTCOME(OsResumeThread, IsNotSupported) { isNotSupported(*this, OsResumeThread); }

OUTCOME(OsSuspendThread, IsNotSupported) { isNotSupported(*this, OsSuspendThread); }

}  // namespace
