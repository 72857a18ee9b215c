// Calls OsBreak with any bytes, in a buffer that has room only for them and a terminating zero.

#include <string.h>

#include <memory>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize)
{
    Input lInput(acData, aSize);
    std::string lBytes;
    while (!lInput.isEmpty() && lBytes.size() < 3999) {
        lBytes += lInput.text();
    }
    lBytes.resize(std::min<size_t>(lBytes.size(), 3999));
    const std::unique_ptr<char[]> lBuffer(new char[lBytes.size() + 1]);
    memcpy(lBuffer.get(), lBytes.c_str(), lBytes.size() + 1);
    OQCList<OQCString> lLines;
    lLines.append("there before");
    gLog.clear();

    char* const lpNext = OsBreak(lBuffer.get(), lLines);

    Split lModel(lBytes.c_str());
    CHECK(lBuffer.get() + lModel.mRest.size() == lpNext);
    CHECK(0 == lModel.mRest.compare(0, std::string::npos, lBuffer.get(), lModel.mRest.size()));
    CHECK(lModel.mRest.empty() || '\0' == *lpNext);
    lModel.mLines.insert(lModel.mLines.begin(), "there before");
    CHECK(lModel.mLines == textsOf(lLines));
    CHECK(logged("Entered") + lModel.mLog + logged("Left") == gLog);
    return 0;
}
