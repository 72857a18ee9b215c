/// \file
/// Sends one answer through the mailbox, in as many messages as it takes.
#ifndef HOSTD_ANSWER_WRITER_H
#define HOSTD_ANSWER_WRITER_H

#include <functional>
#include <string>
#include <utility>

#include "Channel.h"

/// Nobody takes the answer any more, or the daemon is to end: the rest is not sent.
struct AnswerDropped {
    const char* mReason;
};

/// Used by one thread, the mailbox's only writer. All operations that send throw AnswerDropped.
class AnswerWriter
{
public:
    AnswerWriter(OQShmDesc& arMailbox, const std::string& acrToken, std::function<bool()> aIsEnding)
        : mMailbox(arMailbox), mToken(acrToken), mIsEnding(std::move(aIsEnding)), mSequence(0)
    {
    }

    /// Adds text to the answer; sends every message that is full.
    void append(const std::string& acrText);

    /// Sends the last message: the answer is whole.
    void end();

    /// Sends the last message: there is no answer, for this reason.
    void fail(const std::string& acrReason);

private:
    void send(AnswerKind aKind, const std::string& acrText);

    OQShmDesc& mMailbox;
    const std::string mToken;
    const std::function<bool()> mIsEnding;
    std::string mText;  ///< not sent yet
    uint32_t mSequence;
};

#endif
