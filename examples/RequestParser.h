/// \file
/// Finds requests in the bytes that arrive through the FIFO. No input or output of its own.
#ifndef HOSTD_REQUEST_PARSER_H
#define HOSTD_REQUEST_PARSER_H

#include <string>

struct Request {
    std::string mToken;     ///< chosen by the tool; its answer carries it
    std::string mVerb;      ///< what is asked
    std::string mArgument;  ///< may hold blanks; empty: none given
};

/// Receives what the parser finds, in the order of the bytes.
class RequestSink
{
public:
    virtual ~RequestSink() {}

    /// A request that follows all rules.
    virtual void onRequest(const Request& acrRequest) = 0;

    /// Bytes that are no request.
    /// \param acrToken token of the refused request; empty when it could not be read
    virtual void onRefused(const std::string& acrToken, const char* acReason) = 0;
};

/// Takes the bytes in pieces of any size. Whatever was wrong before, a start byte begins a new request: a writer that
/// died or misbehaved spoils nobody's request but its own.
class RequestParser
{
public:
    explicit RequestParser(RequestSink& arSink) : mSink(arSink), mState(Between) {}

    void feed(const unsigned char* acBytes, unsigned int aLength);

private:
    enum State {
        Between,     ///< waiting for a start byte; nothing wrong so far
        Inside,      ///< collecting a request
        Discarding,  ///< waiting for a start byte; what was wrong has been said
    };

    void take(char aByte);
    void finish();
    void refuse(const char* acReason);

    RequestSink& mSink;
    State mState;
    std::string mText;  ///< of the request begun, at most 510 bytes
};

#endif
