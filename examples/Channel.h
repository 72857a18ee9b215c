/// \file
/// The protocol of hostd and hostctl: paths and key, format of a request, and messages of an answer.
///
/// A request is one write of at most 512 bytes into the FIFO: STX, "TOKEN VERB [ARGUMENT]", LF. The kernel writes
/// so few bytes completely or not at all, so requests of several tools never mix.
///
/// An answer is one or more messages in the shared-memory mailbox, each an AnswerHeader and some text. Every message
/// contains the token of the request and a sequence number from 0. The kind of the last message marks the end.
#ifndef HOSTD_CHANNEL_H
#define HOSTD_CHANNEL_H

#include <stdint.h>

#include <stdexcept>
#include <string>

#include "OQGuards.h"

const char cRequestStart = '\x02';
const char cRequestEnd = '\n';
const unsigned int cRequestSize = 512;  // bytes of a request, including start and end
const unsigned int cTokenLength = 23;   // maximum number of characters

enum AnswerKind : uint32_t {
    AK_More = 1,  ///< another message follows
    AK_End = 2,   ///< the last message: the answer is complete
    AK_Error = 3  ///< the last message: the text says why there is no answer
};

/// The beginning of every message, in host byte order, because both sides run on one host.
struct AnswerHeader {
    char mToken[cTokenLength + 1];  ///< terminated
    uint32_t mSequence;             ///< 0, 1, 2, ... within one answer
    uint32_t mKind;                 ///< AnswerKind
};
static_assert(sizeof(AnswerHeader) == 32, "two programs read it: it has no padding");

const unsigned short cSegmentSize = 4096;  // bytes, the layer's header included
const unsigned int cMessageSize = cSegmentSize - sizeof(OQSSharedMemoryHeader);
const unsigned int cPayloadSize = cMessageSize - sizeof(AnswerHeader);

/// The paths and the key that a daemon and its tools use. They are derived from a private directory and a name, so that
/// several daemons can run side by side, including daemons of different users.
struct Channel {
    Channel(const std::string& acrDirectory, const std::string& acrName);

    const OQCString mLock;  ///< the running daemon holds its lock; contains the process id once the daemon is ready
    const OQCString mPipe;  ///< the FIFO for requests
    const OQCString mTurn;  ///< the tool that currently sends a request holds its lock
    const key_t mKey;       ///< key of the mailbox's segment
};

/// Strict pattern of a daemon's name: 1 to 32 of A-Z a-z 0-9 _ -
bool isChannelName(const std::string& acrName);

/// Strict pattern of a token: 1 to 23 of A-Z a-z 0-9 -
bool isToken(const std::string& acrToken);

/// \return whether the text contains no control character; only such a text is allowed in a request
bool isPlainText(const std::string& acrText);

/// Returns whether a verb takes an argument. \return false for an unknown verb
bool findVerb(const std::string& acrVerb, bool& arTakesArgument);

/// Checks a verb and its argument (empty: no argument). The tool checks before it sends, and the daemon checks every
/// request that it reads. \return null, or a description of the error
const char* refusalOf(const std::string& acrVerb, const std::string& acrArgument);

/// Returns the system's text for the current errno.
std::string systemError();

/// Performs a step. Throws: std::runtime_error "cannot STEP: reason" when the layer throws.
template <class Step>
auto attempt(const std::string& acrStep, Step aPerform) -> decltype(aPerform())
{
    try {
        return aPerform();
    } catch (const OQCException& acrFailure) {
        throw std::runtime_error("cannot " + acrStep + ": " + acrFailure.what());
    }
}

/// Tests a condition every 10 ms until it holds. The function counts its sleeps, so setting the clock does not change
/// the limit.
/// \return whether the condition held within about the given number of milliseconds
template <class Condition>
bool waitUntil(unsigned int aMilliseconds, Condition aCondition)
{
    const unsigned int cStep = 10;
    for (unsigned int lWaited = 0; !aCondition(); lWaited += cStep) {
        if (aMilliseconds <= lWaited) {
            return false;
        }
        ClibSleepMS(cStep);
    }
    return true;
}

#endif
