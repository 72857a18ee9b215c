/// \file
/// What hostd and hostctl agree on: where they meet, how a request reads and how an answer is cut into messages.
///
/// A request is one write of at most 512 bytes into the FIFO: STX, "TOKEN VERB [ARGUMENT]", LF. Writes of that size are
/// whole or not at all, so those of several tools never mix.
///
/// An answer is one or more messages in the shared-memory mailbox, each an AnswerHeader and some text. Messages of one
/// answer carry the token of its request and are counted from 0; the last one is marked.
#ifndef HOSTD_CHANNEL_H
#define HOSTD_CHANNEL_H

#include <stdint.h>

#include <string>

#include "OQLinux.h"

const char cRequestStart = '\x02';
const char cRequestEnd = '\n';
const unsigned int cRequestSize = 512;  // bytes of a whole request, start and end included
const unsigned int cTokenLength = 23;   // letters of a token at most

enum AnswerKind : uint32_t {
    AK_More = 1,  ///< another message follows
    AK_End = 2,   ///< the last message: the answer is whole
    AK_Error = 3  ///< the last message: the text says why there is no answer
};

/// Starts every message; in host byte order, for both sides run on one host.
struct AnswerHeader {
    char mToken[cTokenLength + 1];  ///< terminated
    uint32_t mSequence;             ///< 0, 1, 2, ... within one answer
    uint32_t mKind;                 ///< AnswerKind
};
static_assert(sizeof(AnswerHeader) == 32, "two programs read it: it has no padding");

const unsigned short cSegmentSize = 4096;  // bytes, the layer's header included
const unsigned int cMessageSize = cSegmentSize - sizeof(OQSSharedMemoryHeader);
const unsigned int cPayloadSize = cMessageSize - sizeof(AnswerHeader);

/// Where a daemon and its tools meet. Everything follows from a private directory and a name, so that several daemons
/// run side by side, also those of several users.
struct Channel {
    Channel(const std::string& acrDirectory, const std::string& acrName);

    const OQCString mLock;  ///< locked by the daemon as long as it lives; holds its process id once it is ready
    const OQCString mPipe;  ///< FIFO of the requests
    const OQCString mTurn;  ///< locked by the tool whose turn it is to ask
    const key_t mKey;       ///< of the mailbox's segment
};

/// Strict pattern of a daemon's name: 1 to 32 of A-Z a-z 0-9 _ -
bool isChannelName(const std::string& acrName);

/// Strict pattern of a token: 1 to 23 of A-Z a-z 0-9 -
bool isToken(const std::string& acrToken);

/// \return whether no byte is a control character: such a text fits between the start and the end of a request
bool isPlainText(const std::string& acrText);

/// Whether a verb takes an argument. \return false for an unknown verb
bool findVerb(const std::string& acrVerb, bool& arTakesArgument);

/// The rules for a verb and its argument (empty: none given), applied by the tool before it asks and by the daemon
/// before it believes what it reads. \return null, or what is wrong
const char* refusalOf(const std::string& acrVerb, const std::string& acrArgument);

/// The system's text for the current errno.
std::string systemError();

/// Tests a condition every 10 ms until it holds. Sleeps are counted, so a clock that is set does not change the bound.
/// \return whether it held within about so many milliseconds
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
