/// \file
/// Runs another program and reads its outputs.
#ifndef OQ_TESTS_COMMAND_H
#define OQ_TESTS_COMMAND_H

#include "Peer.h"

typedef std::vector<std::string> Strings;

bool contains(const std::string& acrText, const std::string& acrPart);
size_t countOf(const std::string& acrText, const std::string& acrPart);
/// Returns the contents of a file, or "" if the file does not exist.
std::string contentOf(const std::string& acrPath);
/// Makes an executable file.
void writeProgram(const std::string& acrPath, const std::string& acrContents);

/// How a program ended, and its output.
struct Result {
    int mStatus;  ///< exit status, or minus the signal
    std::string mOut;
    std::string mError;
};

class Command
{
public:
    /// \param[in] acrWords    the program, which is searched for in PATH, and its arguments
    /// \param[in] acrPrepare  runs in the child before the program
    explicit Command(const Strings& acrWords, const std::function<void()>& acrPrepare = {});
    /// Kills the program unless finish() was called.
    ~Command() { closeOutputs(); }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    pid_t pid() const { return mPeer->pid(); }
    void kill(int aSignal) { mPeer->kill(aSignal); }
    /// The output that has been read so far.
    const std::string& out() const { return mTexts[0]; }
    const std::string& error() const { return mTexts[1]; }
    /// Reads both outputs until the condition holds, both outputs end, or the time limit is reached. \return whether it
    /// holds
    bool readUntil(const std::function<bool()>& acrCondition);
    /// Closes the read ends, so the program's next write fails.
    void closeOutputs();
    /// Reads both outputs to their ends, then waits for the end of the program.
    Result finish();

private:
    std::unique_ptr<Peer> mPeer;
    int mEnds[2];
    std::string mTexts[2];
};

/// For the parameter acrPrepare of a Command: redirects the program's standard output to this file.
std::function<void()> outputTo(const std::string& acrPath);

inline Result resultOf(const Strings& acrWords, const std::function<void()>& acrPrepare = {})
{
    return Command(acrWords, acrPrepare).finish();
}

#endif
