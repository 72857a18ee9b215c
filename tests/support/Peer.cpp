#include "Peer.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

int endOf(pid_t aChild)
{
    int lStatus = 0;
    while (waitpid(aChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    return WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -WTERMSIG(lStatus);
}

/// Ends the child, even if acrRun throws. Otherwise the child would run the remaining tests of its parent.
[[noreturn]] void runAndEnd(const std::function<void()>& acrRun)
{
    try {
        acrRun();
    } catch (const OQCException& acrFailure) {
        ADD_FAILURE() << "the child threw: " << acrFailure.what();
    } catch (...) {
        ADD_FAILURE() << "the child threw";
    }
    endChild();
}

}  // namespace

int inChild(const std::function<void()>& acrRun)
{
    fflush(stdout);  // otherwise the child also prints the buffered output
    const pid_t lChild = fork();
    if (0 == lChild) {
        runAndEnd(acrRun);
    }
    return endOf(lChild);
}

Peer::Peer(const std::function<void(Peer&)>& acrRun) : mPid(-1), mSocket(-1)
{
    int lEnds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lEnds) < 0) {
        abort();
    }
    fflush(stdout);  // otherwise the child also prints the buffered output
    mPid = fork();
    close(lEnds[0 == mPid ? 0 : 1]);
    mSocket = lEnds[0 == mPid ? 1 : 0];
    if (0 == mPid) {
        runAndEnd([&] { acrRun(*this); });
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
    const pid_t lChild = mPid;
    mPid = -1;
    return endOf(lChild);
}
