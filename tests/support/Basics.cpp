#include "Basics.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

extern "C" int __llvm_profile_runtime __attribute__((weak));

namespace
{

std::set<std::string> entriesOf(const std::string& acrDirectory)
{
    std::set<std::string> lEntries;
    std::error_code lNoDirectory;
    for (const auto& lrEntry : std::filesystem::directory_iterator(acrDirectory, lNoDirectory)) {
        lEntries.insert(lrEntry.path().filename());
    }
    return lEntries;
}

/// Returns "NUMBER TARGET" for each open descriptor.
std::set<std::string> openDescriptors()
{
    std::set<std::string> lOpen;
    for (const std::string& lrNumber : entriesOf("/proc/self/fd")) {
        char lTarget[4096];
        const ssize_t lLength = readlink(("/proc/self/fd/" + lrNumber).c_str(), lTarget, sizeof lTarget);
        if (0 < lLength && 0 <= fcntl(atoi(lrNumber.c_str()), F_GETFD)) {
            const std::string lText(lTarget, static_cast<size_t>(lLength));
            lOpen.insert(lrNumber + " " + lText.substr(0, lText.find(" (deleted)")));  // another process may delete it
        }
    }
    return lOpen;
}

std::string directoryOf(pid_t aPid) { return "/tmp/oqtest-" + std::to_string(aPid); }

}  // namespace

void LeftoverTest::SetUp()
{
    // A killed program that had the same process id may have left segments and files.
    removeSegments();
    for (const std::string& lrEntry : entriesOf(directoryOf(getpid()))) {
        unlink((directoryOf(getpid()) + "/" + lrEntry).c_str());
    }
    mDescriptors = openDescriptors();
    mThreads = entriesOf("/proc/self/task").size() + (OQ_SANITIZED ? 1 : 0);  // a sanitizer adds a thread
}

void LeftoverTest::TearDown()
{
    EXPECT_EQ(mDescriptors, openDescriptors()) << "a descriptor was left or closed";
    EXPECT_TRUE(eventually([this] { return entriesOf("/proc/self/task").size() <= mThreads; })) << "a thread was left";
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "a child was left";
    for (const unsigned int lNumber : removeSegments()) {
        ADD_FAILURE() << "segment " << lNumber << " was left";
    }
    std::ifstream lMaps("/proc/self/maps");
    std::stringstream lText;
    lText << lMaps.rdbuf();
    EXPECT_EQ(std::string::npos, lText.str().find("/SYSV")) << "a segment was left attached";

    const std::string lDirectory = directoryOf(getpid());
    for (const std::string& lrEntry : entriesOf(lDirectory)) {
        ADD_FAILURE() << "file " << lrEntry << " was left";
        unlink((lDirectory + "/" + lrEntry).c_str());
    }
    rmdir(lDirectory.c_str());
}

std::vector<unsigned int> LeftoverTest::removeSegments()
{
    std::vector<unsigned int> lRemoved;
    for (unsigned int lNumber = 0; lNumber < 256; ++lNumber) {
        const int lId = shmget(key(lNumber), 0, 0);
        if (0 <= lId) {
            shmctl(lId, IPC_RMID, nullptr);
            lRemoved.push_back(lNumber);
        }
    }
    return lRemoved;
}

std::string LeftoverTest::path(const std::string& acrName)
{
    mkdir(directoryOf(getpid()).c_str(), 0700);
    return directoryOf(getpid()) + "/" + acrName;
}

int LeftoverTest::key(unsigned int aNumber) { return ((getpid() << 8) | static_cast<int>(aNumber & 255)) & 0x7fffffff; }

bool eventually(const std::function<bool()>& acrCondition)
{
    for (int lMilliseconds = 0; !acrCondition(); ++lMilliseconds) {
        if (cPatienceMilliseconds == lMilliseconds) {
            return false;
        }
        usleep(1000);
    }
    return true;
}

void endChild()
{
    const int lStatus = ::testing::Test::HasFailure() ? 99 : 0;
    if (nullptr != &__llvm_profile_runtime) {  // a coverage build: each library writes its counters at exit
        exit(lStatus);
    }
    _exit(lStatus);
}

void inThreads(unsigned int aCount, const std::function<void(unsigned int)>& acrRun)
{
    std::atomic<unsigned int> lReady(0);
    std::vector<std::thread> lThreads;
    for (unsigned int lThread = 0; lThread < aCount; ++lThread) {
        lThreads.emplace_back([&, lThread] {
            ++lReady;
            while (lReady < aCount) {
                std::this_thread::yield();
            }
            acrRun(lThread);
        });
    }
    for (std::thread& lrThread : lThreads) {
        lrThread.join();
    }
}

Texts textsOf(const OQCList<OQCString>& acrList)
{
    Texts lTexts;
    for (const OQCString& lrText : acrList) {
        lTexts.push_back(lrText.get());
    }
    return lTexts;
}

void useAllDescriptors()
{
    const rlimit lFew = {64, 64};
    setrlimit(RLIMIT_NOFILE, &lFew);
    while (0 <= fcntl(0, F_DUPFD_CLOEXEC, 0)) {
    }
    EXPECT_EQ(EMFILE, errno);
}

bool isHeld(pthread_mutex_t& arMutex)
{
    bool lHeld = false;
    std::thread([&] {
        lHeld = 0 != pthread_mutex_trylock(&arMutex);
        if (!lHeld) {
            pthread_mutex_unlock(&arMutex);
        }
    }).join();
    return lHeld;
}

Holder::Holder(pthread_mutex_t& arMutex)
    : mThread([this, &arMutex] {
          pthread_mutex_lock(&arMutex);
          mHeld.set_value();
          mRelease.get_future().wait();
          pthread_mutex_unlock(&arMutex);
      })
{
    mHeld.get_future().wait();
}

Holder::~Holder()
{
    mRelease.set_value();
    mThread.join();
}
