#include "TestKit.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern "C" void __gcov_dump() __attribute__((weak));

namespace
{

const int cPatienceMilliseconds = 60000;

std::set<std::string> entriesOf(const std::string& acrDirectory)
{
    std::set<std::string> lEntries;
    DIR* const lpDirectory = opendir(acrDirectory.c_str());
    if (nullptr != lpDirectory) {
        while (const dirent* const lpEntry = readdir(lpDirectory)) {
            lEntries.insert(lpEntry->d_name);
        }
        closedir(lpDirectory);
    }
    lEntries.erase(".");
    lEntries.erase("..");
    return lEntries;
}

/// Descriptor number and what it is open on.
std::set<std::string> openDescriptors()
{
    std::set<std::string> lOpen;
    for (const std::string& lrNumber : entriesOf("/proc/self/fd")) {
        char lTarget[4096];
        const ssize_t lLength = readlink(("/proc/self/fd/" + lrNumber).c_str(), lTarget, sizeof lTarget);
        if (0 < lLength && 0 <= fcntl(atoi(lrNumber.c_str()), F_GETFD)) {
            const std::string lText(lTarget, static_cast<size_t>(lLength));
            lOpen.insert(lrNumber + " " + lText.substr(0, lText.find(" (deleted)")));  // somebody else may have
        }
    }
    return lOpen;
}

std::string directoryOf(pid_t aPid) { return "/tmp/oqtest-" + std::to_string(aPid); }

/// Writes all of a text into a descriptor.
void sendAll(int aDescriptor, const std::string& acrText)
{
    size_t lSent = 0;
    while (lSent < acrText.size()) {
        const ssize_t lWritten = write(aDescriptor, acrText.data() + lSent, acrText.size() - lSent);
        if (0 < lWritten) {
            lSent += static_cast<size_t>(lWritten);
        } else if (EINTR != errno) {
            return;
        }
    }
}

int sReport = -1;
pid_t sReporter = 0;

/// The child's lines, field by field, each ended by a zero byte.
void reportLines()
{
    if (sReporter != getpid()) {
        return;
    }
    std::string lText;
    for (const Line& lrLine : logged()) {
        for (const std::string& lrField :
             {std::to_string(lrLine.mLevel), lrLine.mTag, lrLine.mFunction, lrLine.mFile, lrLine.mText}) {
            lText += lrField;
            lText += '\0';
        }
    }
    sendAll(sReport, lText);
    close(sReport);
}

[[noreturn]] void endChild()
{
    if (nullptr != __gcov_dump) {
        __gcov_dump();
    }
    _exit(::testing::Test::HasFailure() ? 99 : 0);
}

}  // namespace

void LayerTest::SetUp()
{
    // A program that was killed may have left some, and its process number come round again.
    removeSegments();
    for (const std::string& lrEntry : entriesOf(directoryOf(getpid()))) {
        unlink((directoryOf(getpid()) + "/" + lrEntry).c_str());
    }
    Fault::resetAll();
    clearLog();
    mDescriptors = openDescriptors();
    mThreads = entriesOf("/proc/self/task").size() + (OQ_SANITIZED ? 1 : 0);  // brings one of its own with the first
}

void LayerTest::TearDown()
{
    Fault::resetAll();
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

std::vector<unsigned int> LayerTest::removeSegments()
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

std::string LayerTest::path(const std::string& acrName)
{
    mkdir(directoryOf(getpid()).c_str(), 0700);
    return directoryOf(getpid()) + "/" + acrName;
}

int LayerTest::key(unsigned int aNumber) { return ((getpid() << 8) | static_cast<int>(aNumber & 255)) & 0x7fffffff; }

ChildResult inChild(const std::function<void()>& acrRun)
{
    int lEnds[2];
    if (pipe(lEnds) < 0) {
        abort();
    }
    fflush(stdout);  // or the child prints it again
    const pid_t lChild = fork();
    if (0 == lChild) {
        close(lEnds[0]);
        sReport = lEnds[1];
        sReporter = getpid();
        atexit(reportLines);
        clearLog();
        acrRun();
        reportLines();
        endChild();
    }
    close(lEnds[1]);
    std::string lText;
    char lBuffer[65536];
    ssize_t lRead;
    while ((lRead = read(lEnds[0], lBuffer, sizeof lBuffer)) > 0 || (lRead < 0 && EINTR == errno)) {
        lText.append(lBuffer, lRead < 0 ? 0 : static_cast<size_t>(lRead));
    }
    close(lEnds[0]);
    int lStatus = 0;
    while (waitpid(lChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    ChildResult lResult = {WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -1, WIFSIGNALED(lStatus) ? WTERMSIG(lStatus) : 0,
                           Lines()};
    std::istringstream lFields(lText);
    Line lLine;
    std::string lLevel;
    while (getline(lFields, lLevel, '\0') && getline(lFields, lLine.mTag, '\0') &&
           getline(lFields, lLine.mFunction, '\0') && getline(lFields, lLine.mFile, '\0') &&
           getline(lFields, lLine.mText, '\0')) {
        lLine.mLevel = static_cast<unsigned int>(atoi(lLevel.c_str()));
        lResult.mLines.push_back(lLine);
    }
    return lResult;
}

Peer::Peer(const std::function<void(Peer&)>& acrRun) : mPid(-1), mSocket(-1)
{
    int lEnds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, lEnds) < 0) {
        abort();
    }
    fflush(stdout);  // or the child prints it again
    mPid = fork();
    close(lEnds[0 == mPid ? 0 : 1]);
    mSocket = lEnds[0 == mPid ? 1 : 0];
    if (0 == mPid) {
        clearLog();
        acrRun(*this);
        endChild();
    }
}

Peer::~Peer()
{
    if (0 < mPid) {
        ::kill(mPid, SIGKILL);
        wait();
    }
    close(mSocket);
}

void Peer::signal() { send(mSocket, "", 1, MSG_NOSIGNAL); }

void Peer::meet()
{
    char lByte;
    pollfd lPoll = {mSocket, POLLIN, 0};
    int lReady;
    while ((lReady = poll(&lPoll, 1, cPatienceMilliseconds)) < 0 && EINTR == errno) {
    }
    if (1 != lReady || 1 != recv(mSocket, &lByte, 1, 0)) {
        ADD_FAILURE() << "the other side did not come";
    }
}

void Peer::kill(int aSignal) { ::kill(mPid, aSignal); }

int Peer::wait()
{
    int lStatus = 0;
    while (waitpid(mPid, &lStatus, 0) < 0 && EINTR == errno) {
    }
    mPid = -1;
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
}

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
