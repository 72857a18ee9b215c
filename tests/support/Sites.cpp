// Looks up the source line of each log call of the rows in the debug information.

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

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

/// Returns whether one of the frames is at the logged line of the file. ".//MiscLinux" is MiscLinux.cpp, and
/// "backend/common/include/Pointer" is Pointer.h. This function does not compare the function names, because addr2line
/// does not know the name of each inlined function. The rows compare the logged names.
bool isAtItsLine(const Event& acrEvent, const std::string& acrFrames)
{
    const std::string lSource = "/" + acrEvent.mFile.substr(acrEvent.mFile.rfind('/') + 1);
    const std::string lEnd = ":" + std::to_string(acrEvent.mLine) + "\n";
    const auto lHas = [&acrFrames](const std::string& acrText) { return std::string::npos != acrFrames.find(acrText); };
    return lHas(lSource + ".cpp" + lEnd) || lHas(lSource + ".h" + lEnd);
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
    // The compiler may merge two calls that differ only in their lines. The debug information then has only one line.
    unsigned int lWrong = 0;
    for (const auto& lrSite : lWrongSites) {
        if (0 == lRightCalls.count(lSites.at(lrSite.first).mFrames.at(1))) {
            std::cerr << lrSite.first << " is not there; the call came from\n" << lrSite.second;
            ++lWrong;
        }
    }
    std::cout << lSites.size() << " log calls, " << lWrong << " with a wrong line\n";
    return !lSites.empty() && 0 == lWrong;
}
