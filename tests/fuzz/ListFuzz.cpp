// Performs any sequence of operations on OQCLists of strings and of numbers, and compares them with std::list.

#include <iterator>
#include <list>

#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize);

namespace
{

const size_t cMostElements = 50;

bool isSame(const OQCString& acrString, const std::string& acrModel) { return acrModel == acrString.get(); }
bool isSame(unsigned int aNumber, unsigned int aModel) { return aModel == aNumber; }

OQCString elementOf(const std::string& acrModel) { return OQCString(acrModel.c_str()); }
unsigned int elementOf(unsigned int aModel) { return aModel; }

void take(Input& arInput, std::string& arModel) { arModel = arInput.bytes(arInput.byte() % 40).c_str(); }
void take(Input& arInput, unsigned int& arModel) { arModel = arInput.number(); }

template <class Element, class Model>
void checkSame(OQCList<Element>& arList, const std::list<Model>& acrModel)
{
    const OQCList<Element>& lrConstant = arList;
    CHECK(static_cast<int>(acrModel.size()) == lrConstant.size());
    CHECK(acrModel.empty() == (lrConstant.begin() == lrConstant.end()));
    typename OQCList<Element>::iterator lAlso = arList.begin();
    typename OQCList<Element>::const_iterator lElement = lrConstant.begin();
    for (const Model& acrExpected : acrModel) {
        CHECK(isSame(*lElement, acrExpected));
        CHECK(&*lElement == &*lAlso);
        ++lElement;
        ++lAlso;
    }
    CHECK(lrConstant.end() == lElement && arList.end() == lAlso);
}

template <class Element, class Model>
void run(Input& arInput)
{
    OQCList<Element> lLists[2];
    std::list<Model> lModels[2];
    while (!arInput.isEmpty()) {
        const unsigned int lOperation = arInput.byte();
        const size_t lTo = lOperation / 8 % 2;
        OQCList<Element>& lrList = lLists[lTo];
        std::list<Model>& lrModel = lModels[lTo];
        const size_t lPlace = lrModel.empty() ? 0 : lOperation / 16 % lrModel.size();
        switch (lOperation % 8) {
            case 0:
            case 1: {
                Model lValue;
                take(arInput, lValue);
                Element lElement = elementOf(lValue);
                lrList.append(lElement);
                lrModel.push_back(lValue);
                lElement = elementOf(Model());  // must not change the list's copy
                break;
            }
            case 2:  // an element of its own
                if (!lrModel.empty() && lrModel.size() < cMostElements) {
                    lrList.append(*std::next(lrList.begin(), static_cast<ptrdiff_t>(lPlace)));
                    lrModel.push_back(*std::next(lrModel.begin(), static_cast<ptrdiff_t>(lPlace)));
                }
                break;
            case 3:
                if (!lrModel.empty()) {
                    const auto lNext = lrList.erase(std::next(lrList.begin(), static_cast<ptrdiff_t>(lPlace)));
                    CHECK(std::next(lrList.begin(), static_cast<ptrdiff_t>(lPlace)) == lNext);
                    lrModel.erase(std::next(lrModel.begin(), static_cast<ptrdiff_t>(lPlace)));
                }
                break;
            case 4:  // what it is changed to through the list
                if (!lrModel.empty()) {
                    Model lValue;
                    take(arInput, lValue);
                    *std::next(lrList.begin(), static_cast<ptrdiff_t>(lPlace)) = elementOf(lValue);
                    *std::next(lrModel.begin(), static_cast<ptrdiff_t>(lPlace)) = lValue;
                }
                break;
            case 5:
                lLists[1 - lTo] = lrList;
                lModels[1 - lTo] = lrModel;
                break;
            case 6:
                lrList = OQCList<Element>(lLists[1 - lTo]);
                lrModel = lModels[1 - lTo];
                break;
            default:
                if (0 == lOperation / 16 % 4) {
                    lrList.clear();
                    lrModel.clear();
                }
        }
        checkSame(lLists[0], lModels[0]);
        checkSame(lLists[1], lModels[1]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* acData, size_t aSize)
{
    Input lInput(acData, aSize);
    gLog.clear();
    if (0 == lInput.byte() % 2) {
        run<OQCString, std::string>(lInput);
    } else {
        run<unsigned int, unsigned int>(lInput);
    }
    CHECK(gLog.empty());
    return 0;
}
