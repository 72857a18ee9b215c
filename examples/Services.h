/// \file
/// The answers themselves.
#ifndef HOSTD_SERVICES_H
#define HOSTD_SERVICES_H

#include "AnswerWriter.h"
#include "RequestParser.h"

/// Answers requests, on one thread: the host's addresses and the question for a running process have to be serialised.
class Services
{
public:
    Services();

    /// Appends the answer to a request that the parser let through.
    /// Throws: what the layer throws, std::runtime_error, AnswerDropped.
    void answer(const Request& acrRequest, AnswerWriter& arAnswer);

    /// Counts a request whose answer went out whole.
    void countServed() { ++mServed; }

private:
    std::string status() const;

    long mStarted;  ///< seconds since 1970
    unsigned long mServed;
};

#endif
