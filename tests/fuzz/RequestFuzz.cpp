// Passes any bytes to the daemon's request parser, in pieces of any size.

#include <ctype.h>
#include <string.h>

#include "Fuzz.h"
#include "RequestParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize);

namespace
{

/// The events of the parser, one text for each.
class Events : public RequestSink
{
public:
    void onRequest(const Request& acrRequest) override
    {
        mEvents.push_back("request|" + acrRequest.mToken + "|" + acrRequest.mVerb + "|" + acrRequest.mArgument);
        mAccepted.push_back(mEvents.back());
    }
    void onRefused(const std::string& acrToken, const char* acReason) override
    {
        CHECK(nullptr != acReason && 0 != *acReason);
        CHECK(acrToken.size() <= 23 && std::string::npos == acrToken.find_first_of(" \n\x02"));
        mEvents.push_back("refused|" + acrToken + "|" + acReason);
    }

    Texts mEvents;
    Texts mAccepted;
};

/// Feeds the bytes in pieces. Uses the sizes in turn, from the start again after the last one.
Events parse(const std::string& acrBytes, const std::vector<unsigned int>& acrSizes)
{
    Events lEvents;
    RequestParser lParser(lEvents);
    size_t lTurn = 0;
    for (size_t lDone = 0; lDone < acrBytes.size(); ++lTurn) {
        const size_t lSize = std::min<size_t>(acrBytes.size() - lDone, acrSizes[lTurn % acrSizes.size()]);
        lParser.feed(reinterpret_cast<const unsigned char*>(acrBytes.data()) + lDone, static_cast<unsigned int>(lSize));
        lDone += lSize;
    }
    return lEvents;
}

bool isMadeOf(const std::string& acrText, bool (*apAllowed)(unsigned char), size_t aShortest, size_t aLongest)
{
    for (const char lLetter : acrText) {
        if (!apAllowed(static_cast<unsigned char>(lLetter))) {
            return false;
        }
    }
    return aShortest <= acrText.size() && acrText.size() <= aLongest;
}

bool isLetterOrDigit(unsigned char aByte) { return aByte < 128 && 0 != isalnum(aByte); }
bool isDigit(unsigned char aByte) { return '0' <= aByte && aByte <= '9'; }
bool isTokenByte(unsigned char aByte) { return isLetterOrDigit(aByte) || '-' == aByte; }
bool isNameByte(unsigned char aByte) { return isTokenByte(aByte) || '.' == aByte || '_' == aByte; }
bool isPlain(unsigned char aByte) { return 32 <= aByte && 127 != aByte; }

/// Models the parser for a text between the start and the end byte. \return the event, or "" for an invalid request
std::string modelOf(const std::string& acrText)
{
    const size_t lFirst = std::min(acrText.find(' '), acrText.size());
    const size_t lSecond = std::min(acrText.find(' ', lFirst + 1), acrText.size());
    const std::string lToken = acrText.substr(0, lFirst);
    const std::string lVerb = lFirst < acrText.size() ? acrText.substr(lFirst + 1, lSecond - lFirst - 1) : "";
    const std::string lArgument = lSecond < acrText.size() ? acrText.substr(lSecond + 1) : "";
    if (acrText.size() > 510 || !isMadeOf(acrText, isPlain, 0, 510) || !isMadeOf(lToken, isTokenByte, 1, 23)) {
        return "";
    }
    const bool lBare =
        "status" == lVerb || "os" == lVerb || "load" == lVerb || "addresses" == lVerb || "disks" == lVerb;
    const bool lGood = "echo" == lVerb || (lBare && lArgument.empty()) ||
                       ("lines" == lVerb && isMadeOf(lArgument, isDigit, 1, 6) && atol(lArgument.c_str()) <= 100000) ||
                       ("running" == lVerb && isMadeOf(lArgument, isNameByte, 1, 15) &&
                        isLetterOrDigit(static_cast<unsigned char>(lArgument[0])));
    return lGood ? "request|" + lToken + "|" + lVerb + "|" + lArgument : "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize)
{
    Input lInput(acData, aSize);
    std::vector<unsigned int> lSizes;
    for (unsigned int lCount = 1 + lInput.byte() % 4; 0 < lCount; --lCount) {
        lSizes.push_back(1 + lInput.byte());
    }
    std::string lBytes;
    while (!lInput.isEmpty() && lBytes.size() < 1200) {
        lBytes += lInput.text().substr(0, 600);
    }
    const std::vector<unsigned char> lGarbage(lBytes.begin(), lBytes.end());  // exact size, to detect an overrun
    Events lEvents;
    RequestParser(lEvents).feed(lGarbage.data(), static_cast<unsigned int>(lGarbage.size()));

    // The parser finds a complete request after any bytes.
    lBytes += "\x02last-1 running init\n";

    const Events lAtOnce = parse(lBytes, {static_cast<unsigned int>(lBytes.size())});
    CHECK(lAtOnce.mEvents == parse(lBytes, {1}).mEvents);
    CHECK(lAtOnce.mEvents == parse(lBytes, lSizes).mEvents);
    CHECK("request|last-1|running|init" == lAtOnce.mEvents.back());

    // A request goes from a start byte to the first end byte, unless another start byte comes first. The parser
    // reports an error once for each place: before the first start byte, inside a request, and after a request.
    Texts lAccepted;
    size_t lStart = lBytes.find('\x02');
    size_t lRefused = 0 < lStart ? 1 : 0;
    while (lStart != std::string::npos) {
        const size_t lNext = lBytes.find('\x02', lStart + 1);
        const std::string lPiece = lBytes.substr(lStart + 1, lNext - lStart - 1);
        const size_t lEnd = std::min(lPiece.find('\n'), lPiece.size());
        const bool lFinished = lEnd < lPiece.size() && lEnd <= 510;
        const std::string lEvent = lFinished ? modelOf(lPiece.substr(0, lEnd)) : "";
        if (!lEvent.empty()) {
            lAccepted.push_back(lEvent);
        }
        lRefused += lEvent.empty() ? 1 : 0;
        lRefused += lFinished && lEnd + 1 < lPiece.size() ? 1 : 0;
        lStart = lNext;
    }
    CHECK(lAccepted == lAtOnce.mAccepted);
    CHECK(lRefused == lAtOnce.mEvents.size() - lAccepted.size());
    return 0;
}
