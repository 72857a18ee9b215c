/// \file
/// Finds requests in the bytes that arrive through the FIFO. The parser itself does no input or output.
#ifndef HOSTD_REQUEST_PARSER_H
#define HOSTD_REQUEST_PARSER_H

#include <string>

struct Request {
    std::string mToken;     ///< chosen by the tool; the answer contains it
    std::string mVerb;      ///< the kind of question
    std::string mArgument;  ///< may contain blanks; empty: no argument
};

/// Receives the parser's results, in the order of the bytes.
class RequestSink
{
public:
    virtual ~RequestSink() {}

    /// Called for a valid request.
    virtual void onRequest(const Request& acrRequest) = 0;

    /// Called for bytes that are not a valid request.
    /// \param acrToken token of the refused request; empty if it could not be read
    virtual void onRefused(const std::string& acrToken, const char* acReason) = 0;
};

/// Accepts the bytes in pieces of any size. A start byte always begins a new request. A writer that died or misbehaved
/// can therefore spoil only its own request.
class RequestParser
{
public:
    explicit RequestParser(RequestSink& arSink) : mSink(arSink), mState(Between) {}

    void feed(const unsigned char* acBytes, unsigned int aLength);

private:
    enum State {
        Between,     ///< waiting for a start byte; no error so far
        Inside,      ///< collecting a request
        Discarding,  ///< waiting for a start byte; the error has been reported
    };

    void take(char aByte);
    void finish();
    void refuse(const char* acReason);

    RequestSink& mSink;
    State mState;
    std::string mText;  ///< text of the current request so far, at most 510 bytes
};

#endif
