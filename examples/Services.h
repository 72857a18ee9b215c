/// \file
/// Computes the answers.
#ifndef HOSTD_SERVICES_H
#define HOSTD_SERVICES_H

#include "AnswerWriter.h"
#include "RequestParser.h"

/// Answers requests on one thread, because requests for addresses and for running processes must be serialised.
class Services
{
public:
    Services();

    /// Appends the answer to a valid request. Throws: the layer's exceptions, std::runtime_error, AnswerDropped.
    void answer(const Request& acrRequest, AnswerWriter& arAnswer);

    /// Counts a request whose answer was sent completely.
    void countServed() { ++mServed; }

private:
    std::string status() const;

    long mStarted;  ///< seconds since 1970
    unsigned long mServed;
};

#endif
