// Looks up the source line of each log call of the rows in the debug information.

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <fstream>
#include <iostream>
#include <map>
#include <set>

#include "Outcome.h"

namespace
{

/// Runs addr2line on return addresses of one object. Returns the functions and lines of each address, innermost first.
std::map<const void*, std::string> lookUp(const std::string& acrObject, const std::map<const void*, size_t>& acrOffsets)
{
    std::string lCommand = "addr2line -afiC -e '" + acrObject + "'";
    for (const auto& lrFrame : acrOffsets) {
        char lOffset[32];
        snprintf(lOffset, sizeof lOffset, " %#zx", lrFrame.second);
        lCommand += lOffset;
    }
    std::map<const void*, std::string> lFound;
    auto lAt = acrOffsets.begin();
    FILE* const lpPipe = popen(lCommand.c_str(), "r");
    char lLine[1024];
    std::string* lpPlaces = nullptr;
    while (nullptr != fgets(lLine, sizeof lLine, lpPipe)) {
        if (0 == strncmp("0x", lLine, 2)) {
            lpPlaces = &lFound[(lAt++)->first];
        } else {
            const std::string lText(lLine, strcspn(lLine, "\n"));
            *lpPlaces += lText.substr(0, lText.find(" (discriminator")) + "\n";
        }
    }
    pclose(lpPipe);
    return lFound;
}

/// Returns the logged file name and line, the function and the format.
std::string nameOf(const Event& acrEvent)
{
    return acrEvent.mFile + ":" + std::to_string(acrEvent.mLine) + " " + acrEvent.mFunction + ": \"" + acrEvent.mName +
           "\"";
}

/// Returns the path of the logged file and a colon: ".//MiscLinux" is MiscLinux.cpp, and
/// "backend/common/include/Pointer" is Pointer.h.
std::string sourceOf(const Event& acrEvent, const std::string& acrFrames)
{
    const std::string lName = "/" + acrEvent.mFile.substr(acrEvent.mFile.rfind('/') + 1);
    for (const std::string& lrEnd : {lName + ".cpp:", lName + ".h:"}) {
        const size_t lEnd = acrFrames.find(lrEnd);
        if (std::string::npos != lEnd) {
            const size_t lStart = acrFrames.find('/', acrFrames.rfind('\n', lEnd) + 1);  // npos + 1 is 0
            return acrFrames.substr(lStart, lEnd + lrEnd.size() - lStart);
        }
    }
    return "no source:";
}

/// Returns whether one of the frames is at the logged line of the file. This function does not compare the function
/// names, because addr2line does not know the name of each inlined function. The rows compare the logged names.
bool isAtItsLine(const Event& acrEvent, const std::string& acrFrames)
{
    const std::string lPlace = sourceOf(acrEvent, acrFrames) + std::to_string(acrEvent.mLine) + "\n";
    return std::string::npos != acrFrames.find(lPlace);
}

/// Returns whether the logged line of the source is a log call.
bool isOnALogCall(const Event& acrEvent, const std::string& acrFrames)
{
    const std::string lSource = sourceOf(acrEvent, acrFrames);
    std::ifstream lFile(lSource.substr(0, lSource.size() - 1));
    std::string lLine;
    for (unsigned int lNumber = 0; lNumber < acrEvent.mLine && getline(lFile, lLine); ++lNumber) {
    }
    return lFile && std::string::npos != lLine.find("OQ_");
}

}  // namespace

bool checkSites()
{
    std::map<std::string, Event> lSites;
    for (const OutcomeRow& lrRow : outcomeRows()) {
        for (const Event& lrEvent : lrRow.mEvents) {
            if (Event::Log == lrEvent.mKind) {
                lSites.emplace(nameOf(lrEvent), lrEvent);
            }
        }
    }
    std::map<std::string, std::map<const void*, size_t>> lObjects;
    for (const auto& lrSite : lSites) {
        for (const void* const lpFrame : lrSite.second.mFrames) {
            Dl_info lInfo;
            const char* const lpCall = static_cast<const char*>(lpFrame) - 1;
            if (0 != dladdr(lpCall, &lInfo)) {
                lObjects[lInfo.dli_fname][lpFrame] = static_cast<size_t>(lpCall - static_cast<char*>(lInfo.dli_fbase));
            }
        }
    }
    std::map<const void*, std::string> lPlaces;
    for (const auto& lrObject : lObjects) {
        lPlaces.merge(lookUp(lrObject.first, lrObject.second));
    }
    std::map<std::string, std::string> lWrongSites;
    std::set<const void*> lRightCalls;
    for (const auto& lrSite : lSites) {
        std::string lFrames;
        for (const void* const lpFrame : lrSite.second.mFrames) {
            lFrames += lPlaces[lpFrame];
        }
        if (isAtItsLine(lrSite.second, lFrames)) {
            lRightCalls.insert(lrSite.second.mFrames.at(1));
        } else {
            lWrongSites[lrSite.first] = lFrames;
        }
    }
    // The compiler may merge two calls that differ only in their lines. The debug information then has only one line, but
    // the source has a log call at each.
    unsigned int lWrong = 0;
    for (const auto& lrSite : lWrongSites) {
        const Event& lrEvent = lSites.at(lrSite.first);
        if (0 == lRightCalls.count(lrEvent.mFrames.at(1)) || !isOnALogCall(lrEvent, lrSite.second)) {
            std::cerr << lrSite.first << " is not there; the call came from\n" << lrSite.second;
            ++lWrong;
        }
    }
    std::cout << lSites.size() << " log calls, " << lWrong << " with a wrong line\n";
    return !lSites.empty() && 0 == lWrong;
}
