#include "Channel.h"

#include <string.h>

#include <algorithm>

namespace
{

const char* const cLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const char* const cDigits = "0123456789";
const size_t cProcessNameLength = 15;  // the system truncates process names to this length
const unsigned long cMostLines = 100000;

struct Verb {
    const char* mName;
    bool mTakesArgument;
};

const Verb cVerbs[] = {{"echo", true}, {"lines", true}, {"running", true},    {"status", false},
                       {"os", false},  {"load", false}, {"addresses", false}, {"disks", false}};

bool consistsOf(const std::string& acrText, const std::string& acrAllowed)
{
    return std::string::npos == acrText.find_first_not_of(acrAllowed);
}

bool isProcessName(const std::string& acrName)
{
    const std::string lFirst = std::string(cLetters) + cDigits;
    return !acrName.empty() && acrName.size() <= cProcessNameLength && consistsOf(acrName.substr(0, 1), lFirst) &&
           consistsOf(acrName, lFirst + "._-");
}

bool isLineCount(const std::string& acrNumber)
{
    return !acrNumber.empty() && acrNumber.size() <= 6 && consistsOf(acrNumber, cDigits) &&
           std::stoul(acrNumber) <= cMostLines;
}

/// Returns a hash (FNV-1a) of a path. The layer requires a positive key. Two paths with the same hash would share a
/// segment; for two given paths the probability is one in two thousand million. Other users can compute the key, so
/// both sides call isOwnSegment().
key_t keyOf(const std::string& acrPath)
{
    uint32_t lHash = 2166136261u;
    for (const char lLetter : acrPath) {
        lHash = (lHash ^ static_cast<unsigned char>(lLetter)) * 16777619u;
    }
    return static_cast<key_t>(std::max(lHash & 0x7fffffffu, 1u));
}

}  // namespace

Channel::Channel(const std::string& acrDirectory, const std::string& acrName)
    : mLock((acrDirectory + "/" + acrName + ".lock").c_str()),
      mPipe((acrDirectory + "/" + acrName + ".fifo").c_str()),
      mTurn((acrDirectory + "/" + acrName + ".ask").c_str()),
      mKey(keyOf(acrDirectory + "/" + acrName))
{
}

bool isChannelName(const std::string& acrName)
{
    return !acrName.empty() && acrName.size() <= 32 && consistsOf(acrName, std::string(cLetters) + cDigits + "_-");
}

bool isToken(const std::string& acrToken)
{
    return !acrToken.empty() && acrToken.size() <= cTokenLength &&
           consistsOf(acrToken, std::string(cLetters) + cDigits + "-");
}

bool isPlainText(const std::string& acrText)
{
    return std::none_of(acrText.begin(), acrText.end(), [](char aLetter) {
        const unsigned char lLetter = static_cast<unsigned char>(aLetter);
        return lLetter < 0x20 || 0x7f == lLetter;
    });
}

bool findVerb(const std::string& acrVerb, bool& arTakesArgument)
{
    for (const Verb& acrKnown : cVerbs) {
        if (acrVerb == acrKnown.mName) {
            arTakesArgument = acrKnown.mTakesArgument;
            return true;
        }
    }
    return false;
}

const char* refusalOf(const std::string& acrVerb, const std::string& acrArgument)
{
    bool lTakesArgument = false;
    if (!findVerb(acrVerb, lTakesArgument)) {
        return "unknown request";
    }
    if (!lTakesArgument && !acrArgument.empty()) {
        return "this request takes no argument";
    }
    if (!isPlainText(acrArgument)) {
        return "control characters are not allowed";
    }
    // The name becomes part of a shell command, so it must match this pattern.
    if ("running" == acrVerb && !isProcessName(acrArgument)) {
        return "a process name is 1 to 15 of A-Z a-z 0-9 . _ - and starts with a letter or a digit";
    }
    if ("lines" == acrVerb && !isLineCount(acrArgument)) {
        return "the number of lines is 0 to 100000";
    }
    return NULL;
}

std::string systemError()
{
    char lText[512];
    return ClibStrerror(lText, sizeof lText);
}
