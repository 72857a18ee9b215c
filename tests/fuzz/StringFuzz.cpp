// Performs any sequence of operations on OQCStrings and compares them with std::string.

#include <memory>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize);

namespace
{

const size_t cObjects = 4;
const size_t cLongest = 10000;  // appending a string to itself doubles it

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize)
{
    Input lInput(acData, aSize);
    std::unique_ptr<OQCString> lStrings[cObjects];
    std::string lModels[cObjects];
    for (std::unique_ptr<OQCString>& lrString : lStrings) {
        lrString.reset(new OQCString(""));
    }
    gLog.clear();
    while (!lInput.isEmpty()) {
        const unsigned int lOperation = lInput.byte();
        const size_t lTo = lOperation / 8 % cObjects;
        const size_t lFrom = lOperation / 32 % cObjects;
        const char* const lpKept = lStrings[(lTo + 1) % cObjects]->get();
        switch (lOperation % 8) {
            case 0:
            case 1: {
                lModels[lTo] = lInput.text().c_str();
                lStrings[lTo].reset(new OQCString(lModels[lTo].c_str()));
                break;
            }
            case 2:
            case 3:
                if (lTo != lFrom) {
                    lStrings[lTo].reset(new OQCString(*lStrings[lFrom]));
                }
                lModels[lTo] = lModels[lFrom];
                break;
            case 4:
            case 5:
                CHECK(&(*lStrings[lTo] = *lStrings[lFrom]) == lStrings[lTo].get());
                lModels[lTo] = lModels[lFrom];
                break;
            default:
                if (lModels[lTo].size() + lModels[lFrom].size() <= cLongest) {
                    CHECK(&(*lStrings[lTo] += *lStrings[lFrom]) == lStrings[lTo].get());
                    lModels[lTo] += lModels[lFrom];
                }
        }
        // An operation on one object does not move the text of another, and no two objects share a text.
        CHECK(lpKept == lStrings[(lTo + 1) % cObjects]->get());
        CHECK(lTo == lFrom || lStrings[lTo]->get() != lStrings[lFrom]->get());
        for (size_t lIndex = 0; lIndex < cObjects; ++lIndex) {
            const OQCString& lrConstant = *lStrings[lIndex];
            CHECK(lModels[lIndex] == lrConstant.get());
            CHECK(lrConstant.get() == lStrings[lIndex]->get());
        }
    }
    CHECK(gLog.empty());
    return 0;
}
