#include "RequestParser.h"

#include "Channel.h"

namespace
{

const size_t cTextSize = cRequestSize - 2;  // bytes between the start byte and the end byte

/// Splits a text at its first blank. \return the text before the blank; arRest receives the text after it
std::string cutWord(const std::string& acrText, std::string& arRest)
{
    const size_t lBlank = acrText.find(' ');
    arRest = std::string::npos == lBlank ? "" : acrText.substr(lBlank + 1);
    return acrText.substr(0, lBlank);
}

}  // namespace

void RequestParser::feed(const unsigned char* acBytes, unsigned int aLength)
{
    for (unsigned int lIndex = 0; lIndex < aLength; ++lIndex) {
        take(static_cast<char>(acBytes[lIndex]));
    }
}

void RequestParser::take(char aByte)
{
    if (cRequestStart == aByte) {
        if (Inside == mState) {
            refuse("the request breaks off");
        }
        mText.clear();
        mState = Inside;
    } else if (Inside != mState) {
        if (Between == mState) {
            mText.clear();
            refuse("bytes outside a request");
            mState = Discarding;
        }
    } else if (cRequestEnd == aByte) {
        mState = Between;
        finish();
    } else if (cTextSize == mText.size()) {
        refuse("the request is longer than 512 bytes");
        mState = Discarding;
    } else {
        mText += aByte;
    }
}

void RequestParser::finish()
{
    Request lRequest;
    std::string lRest;
    lRequest.mToken = cutWord(mText, lRest);
    lRequest.mVerb = cutWord(lRest, lRequest.mArgument);
    if (!isPlainText(mText)) {
        refuse("control characters are not allowed");
    } else if (!isToken(lRequest.mToken)) {
        refuse("the token is missing or no token");
    } else if (const char* const lpReason = refusalOf(lRequest.mVerb, lRequest.mArgument)) {
        refuse(lpReason);
    } else {
        mSink.onRequest(lRequest);
    }
}

void RequestParser::refuse(const char* acReason)
{
    // A token is used only if its end was read: part of a token could equal the token of another tool.
    std::string lRest;
    const std::string lToken = cutWord(mText, lRest);
    const bool lWhole = lToken.size() < mText.size() || Between == mState;
    mSink.onRefused(lWhole && isToken(lToken) ? lToken : "", acReason);
}
