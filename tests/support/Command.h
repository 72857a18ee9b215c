/// \file
/// Another program beside the test, its outputs read by the test.
#ifndef OQ_TESTS_COMMAND_H
#define OQ_TESTS_COMMAND_H

#include "Peer.h"

typedef std::vector<std::string> Strings;

bool contains(const std::string& acrText, const std::string& acrPart);
size_t countOf(const std::string& acrText, const std::string& acrPart);
/// Nothing, where there is no such file.
std::string contentOf(const std::string& acrPath);
/// Makes an executable file.
void writeProgram(const std::string& acrPath, const std::string& acrContents);

/// How a program ended and what it has said.
struct Result {
    int mStatus;  ///< exit status, or minus the signal
    std::string mOut;
    std::string mError;
};

class Command
{
public:
    /// \param[in] acrWords    the program, found as a shell finds it, and its arguments
    /// \param[in] acrPrepare  runs in the child before the program
    explicit Command(const Strings& acrWords, const std::function<void()>& acrPrepare = {});
    /// Kills the program if nobody waited for it.
    ~Command() { closeOutputs(); }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    pid_t pid() const { return mPeer->pid(); }
    void kill(int aSignal) { mPeer->kill(aSignal); }
    /// What has been read.
    const std::string& out() const { return mTexts[0]; }
    const std::string& error() const { return mTexts[1]; }
    /// Reads both outputs until the condition holds, both have ended, or the patience has. \return whether it holds
    bool readUntil(const std::function<bool()>& acrCondition);
    /// Reads no more: the program's next write fails.
    void closeOutputs();
    /// Reads both outputs to their ends, then waits for the end of the program.
    Result finish();

private:
    std::unique_ptr<Peer> mPeer;
    int mEnds[2];
    std::string mTexts[2];
};

/// For the child of a Command: its standard output goes into this file.
std::function<void()> outputTo(const std::string& acrPath);

inline Result resultOf(const Strings& acrWords, const std::function<void()>& acrPrepare = {})
{
    return Command(acrWords, acrPrepare).finish();
}

#endif
