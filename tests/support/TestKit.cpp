#include "TestKit.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

namespace
{

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

}  // namespace

void LayerTest::SetUp()
{
    LeftoverTest::SetUp();
    Fault::resetAll();
    clearLog();
}

void LayerTest::TearDown()
{
    Fault::resetAll();
    LeftoverTest::TearDown();
}

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
