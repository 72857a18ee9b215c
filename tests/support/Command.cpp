#include "Command.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <utility>

bool contains(const std::string& acrText, const std::string& acrPart)
{
    return std::string::npos != acrText.find(acrPart);
}

size_t countOf(const std::string& acrText, const std::string& acrPart)
{
    size_t lCount = 0;
    for (size_t lAt = acrText.find(acrPart); std::string::npos != lAt; lAt = acrText.find(acrPart, lAt + 1)) {
        ++lCount;
    }
    return lCount;
}

std::string contentOf(const std::string& acrPath)
{
    std::ostringstream lText;
    lText << std::ifstream(acrPath, std::ios::binary).rdbuf();
    return lText.str();
}

void writeProgram(const std::string& acrPath, const std::string& acrContents)
{
    std::ofstream(acrPath, std::ios::binary) << acrContents;
    chmod(acrPath.c_str(), 0755);
}

Command::Command(const Strings& acrWords, const std::function<void()>& acrPrepare)
{
    int lPipes[2][2];
    if (pipe2(lPipes[0], O_CLOEXEC) < 0 || pipe2(lPipes[1], O_CLOEXEC) < 0) {
        abort();
    }
    mPeer.reset(new Peer([&](Peer&) {
        std::vector<char*> lArguments;
        for (const std::string& lrWord : acrWords) {
            lArguments.push_back(const_cast<char*>(lrWord.c_str()));
        }
        lArguments.push_back(nullptr);
        dup2(lPipes[0][1], STDOUT_FILENO);
        dup2(lPipes[1][1], STDERR_FILENO);
        if (acrPrepare) {
            acrPrepare();
        }
        execvp(lArguments[0], lArguments.data());
        _exit(126);
    }));
    for (int lIndex = 0; lIndex < 2; ++lIndex) {
        close(lPipes[lIndex][1]);
        mEnds[lIndex] = lPipes[lIndex][0];
    }
}

bool Command::readUntil(const std::function<bool()>& acrCondition)
{
    while (!acrCondition()) {
        pollfd lEnds[] = {{mEnds[0], POLLIN, 0}, {mEnds[1], POLLIN, 0}};  // poll() skips closed ones (-1)
        if (mEnds[0] < 0 && mEnds[1] < 0) {
            return false;
        }
        if (0 == poll(lEnds, 2, cPatienceMilliseconds)) {
            ADD_FAILURE() << "an output stays open";
            return false;
        }
        for (int lIndex = 0; lIndex < 2; ++lIndex) {
            char lBytes[65536];
            const ssize_t lRead = 0 == lEnds[lIndex].revents ? -1 : read(mEnds[lIndex], lBytes, sizeof lBytes);
            if (0 < lRead) {
                mTexts[lIndex].append(lBytes, static_cast<size_t>(lRead));
            } else if (0 != lEnds[lIndex].revents) {
                close(std::exchange(mEnds[lIndex], -1));
            }
        }
    }
    return true;
}

void Command::closeOutputs()
{
    for (int& lrEnd : mEnds) {
        if (0 <= lrEnd) {
            close(std::exchange(lrEnd, -1));
        }
    }
}

Result Command::finish()
{
    readUntil([] { return false; });
    if (0 <= mEnds[0] || 0 <= mEnds[1]) {
        kill(SIGKILL);  // readUntil() has timed out
    }
    const int lStatus = mPeer->wait();
    return Result{lStatus, mTexts[0], mTexts[1]};
}

std::function<void()> outputTo(const std::string& acrPath)
{
    return [=] { dup2(open(acrPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO); };
}
