/// \file
/// Shared code of the fuzz targets: a check that ends the run, the log, the input, and the model of the line splitter.
#ifndef OQ_FUZZ_H
#define OQ_FUZZ_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "OQLinux.h"

#define CHECK(condition)                                                           \
    do {                                                                           \
        if (!(condition)) {                                                        \
            fprintf(stderr, "%s:%d: CHECK(%s)\n", __FILE__, __LINE__, #condition); \
            abort();                                                               \
        }                                                                          \
    } while (false)

typedef std::vector<std::string> Texts;

/// The layer's formatted messages since the last clear(), each followed by a zero byte.
extern std::string gLog;

inline std::string logged(const std::string& acrText) { return acrText + '\0'; }

/// The fuzzer's bytes. Each call consumes bytes from the front. After the end, byte() returns 0.
class Input
{
public:
    Input(const uint8_t* acData, size_t aSize) : mData(acData), mEnd(acData + aSize) {}
    bool isEmpty() const { return mEnd == mData; }
    uint8_t byte() { return isEmpty() ? uint8_t() : *mData++; }
    unsigned int number() { return byte() * 256u + byte(); }
    std::string bytes(size_t aCount)
    {
        const size_t lCount = std::min(aCount, static_cast<size_t>(mEnd - mData));
        mData += lCount;
        return std::string(reinterpret_cast<const char*>(mData) - lCount, lCount);
    }
    /// Returns the next bytes, or a repetition of up to eight bytes, so that a short input can give a long text. A
    /// repetition mostly has up to 255 bytes, and sometimes up to 8191.
    std::string text()
    {
        const unsigned int lKind = byte();
        if (0 == lKind % 2) {
            return bytes(lKind / 2);
        }
        const std::string lPattern = bytes(1 + lKind / 2 % 8);
        const bool lLong = 240 <= lKind && std::string::npos == lPattern.find('\n');  // many lines take long
        const size_t lSize = lPattern.empty() ? 0 : lLong ? number() % 8192 : byte();
        std::string lText;
        lText.reserve(lSize + lPattern.size());
        while (lText.size() < lSize) {
            lText += lPattern;
        }
        lText.resize(lSize);
        return lText;
    }

private:
    const uint8_t* mData;
    const uint8_t* mEnd;
};

/// The expected result of the line splitter for a text without zero bytes: the complete lines, the incomplete last
/// line, and the log lines between "Entered" and "Left".
struct Split {
    explicit Split(const std::string& acrText)
    {
        size_t lStart = 0;
        for (size_t lEnd; (lEnd = acrText.find('\n', lStart)) != std::string::npos; lStart = lEnd + 1) {
            mLines.push_back(acrText.substr(lStart, lEnd - lStart));
            mLog += logged("Line: " + mLines.back());
        }
        mRest = acrText.substr(lStart);
        const bool lWhole = mRest.empty() && !mLines.empty();
        mLog += logged(lWhole ? "End of popened Buffer" : "Incomplete line: " + mRest);
    }

    Texts mLines;
    std::string mRest;
    std::string mLog;
};

inline Texts textsOf(const OQCList<OQCString>& acrList)
{
    Texts lTexts;
    for (const OQCString& acrText : acrList) {
        lTexts.push_back(acrText.get());
    }
    return lTexts;
}

#endif
