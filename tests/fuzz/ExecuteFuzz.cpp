// Tests how OsExecute reads. No shell runs: the fuzzer's input determines what each read returns and how the reading
// ends.

#include <string.h>

#include <algorithm>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize);

namespace
{

enum Ending { EndOfData, ReadFails, PopenFails };

int sStream;  // the layer gets its address as the stream and never accesses it
Ending sEnding;
bool sFailed;
int sOpened;
int sClosed;
std::vector<std::string> sOutput;  // output of the command in pieces; a read returns at most one piece
size_t sPiece;
std::vector<std::string> sDelivered;
std::vector<size_t> sAsked;

}  // namespace

extern "C" FILE* popen(const char*, const char* acMode)
{
    CHECK(std::string("r") == acMode);
    ++sOpened;
    return PopenFails == sEnding ? nullptr : reinterpret_cast<FILE*>(&sStream);
}

extern "C" int pclose(FILE* apStream)
{
    CHECK(reinterpret_cast<FILE*>(&sStream) == apStream);
    ++sClosed;
    return 0;
}

unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream)
{
    CHECK(1 == aSize && reinterpret_cast<FILE*>(&sStream) == apStream && 0 == sClosed);
    static const char sZeros[4000] = {};
    CHECK(aCount < sizeof sZeros && 0 == memcmp(sZeros, apBuffer, aCount + 1));
    sAsked.push_back(aCount);
    if (0 == aCount) {
        return 0;
    }
    if (sOutput.size() == sPiece) {
        if (ReadFails == sEnding) {
            sFailed = true;
            throw OQCReadFailedEx("Input/output error", 328);
        }
        return 0;
    }
    const std::string lRead = sOutput[sPiece].substr(0, aCount);
    sOutput[sPiece].erase(0, lRead.size());
    sPiece += sOutput[sPiece].empty() ? 1 : 0;
    sDelivered.push_back(lRead);
    std::copy(lRead.begin(), lRead.end(), apBuffer);
    return static_cast<unsigned int>(lRead.size());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize)
{
    Input lInput(acData, aSize);
    sEnding = static_cast<Ending>(lInput.byte() % 16 < 13 ? EndOfData : lInput.byte() % 8 < 7 ? ReadFails : PopenFails);
    sFailed = false;
    sOpened = sClosed = 0;
    sOutput.clear();
    sPiece = 0;
    sDelivered.clear();
    sAsked.clear();
    while (!lInput.isEmpty() && sOutput.size() < 16) {
        const std::string lPiece = lInput.text();
        if (!lPiece.empty()) {
            sOutput.push_back(lPiece);
        }
    }
    OQCList<OQCString> lLines;
    lLines.append("there before");
    gLog.clear();

    bool lThrown = false;
    try {
        OsExecute("unused", lLines);
    } catch (const OQCReadFailedEx& acrFailure) {
        CHECK(std::string("Input/output error") == acrFailure.what() && 328 == acrFailure.code());
        lThrown = true;
    }

    // The text of a read ends at its first zero byte. An incomplete line is placed before the text of the next read.
    Texts lTexts = {"there before"};
    std::string lLog = logged("Entered") + logged("Calling popen");
    std::vector<size_t> lAsked(1, 3999);
    std::string lRest;
    for (const std::string& acrRead : sDelivered) {
        const Split lSplit(lRest + acrRead.c_str());
        lTexts.insert(lTexts.end(), lSplit.mLines.begin(), lSplit.mLines.end());
        lLog += logged(std::string("Buffer got = ") + acrRead.c_str());
        lLog += logged("Entered") + lSplit.mLog + logged("Left");
        lRest = lSplit.mRest;
        lAsked.push_back(3999 - lRest.size());
    }
    if (PopenFails == sEnding) {
        lAsked.clear();
        lLog += logged("Failed in popen");
    } else if (sFailed) {
        lLog += logged("Failed to read - Input/output error");
    } else {
        // Only the end of the output or a full buffer ends the reading.
        CHECK(sOutput.size() == sPiece || 3999 == lRest.size());
        lLog += logged("Fread returned ERROR. lLength = 0");
        lLog += logged("Number of lines in output: " + std::to_string(lTexts.size()));
    }
    lLog += logged("Left");
    CHECK(lTexts == textsOf(lLines));
    CHECK(lAsked == sAsked);
    CHECK(lLog == gLog);
    CHECK(lThrown == sFailed);
    CHECK(1 == sOpened && (PopenFails == sEnding ? 0 : 1) == sClosed);
    return 0;
}
