/// \file
/// Sends one answer through the mailbox, in as many messages as necessary.
#ifndef HOSTD_ANSWER_WRITER_H
#define HOSTD_ANSWER_WRITER_H

#include <functional>
#include <string>
#include <utility>

#include "Channel.h"

/// Thrown when the rest of an answer is not sent: no tool reads it any more, or the daemon is ending.
struct AnswerDropped {
    const char* mReason;
};

/// Only the thread that writes into the mailbox uses it. All operations that send can throw AnswerDropped.
class AnswerWriter
{
public:
    AnswerWriter(OQCMailbox& arMailbox, const std::string& acrToken, std::function<bool()> aIsEnding)
        : mMailbox(arMailbox), mToken(acrToken), mIsEnding(std::move(aIsEnding)), mSequence(0)
    {
    }

    /// Adds text to the answer. Sends full messages.
    void append(const std::string& acrText);

    /// Sends the last message of a complete answer.
    void end();

    /// Sends a last message with the reason why there is no answer.
    void fail(const std::string& acrReason);

private:
    void send(AnswerKind aKind, const std::string& acrText);

    OQCMailbox& mMailbox;
    const std::string mToken;
    const std::function<bool()> mIsEnding;
    std::string mText;  ///< not sent yet
    uint32_t mSequence;
};

#endif
