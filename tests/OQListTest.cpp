// The contents of lists. outcomes/Values.cpp tests how operations throw or end the process.

#include <string.h>

#include <list>
#include <type_traits>

#include "Substitutes.h"

namespace
{

const char cLong[] =
    "a text that is far too long to be kept inside a string object, so that its characters need memory";

/// An element that counts its copies. Its copy constructor can throw.
struct Element {
    explicit Element(int aNumber, bool aRefuses = false) : mNumber(aNumber), mRefuses(aRefuses) { ++sAlive; }
    Element(const Element& acrCopy) : mNumber(acrCopy.mNumber), mRefuses(acrCopy.mRefuses)
    {
        ++sCopies;
        if (mRefuses) {
            throw 42;
        }
        ++sAlive;
    }
    Element& operator=(const Element&) = delete;
    ~Element() { --sAlive; }

    int mNumber;
    bool mRefuses;
    static int sAlive;
    static int sCopies;
};
int Element::sAlive = 0;
int Element::sCopies = 0;

std::vector<int> contents(const OQCList<Element>& acrList)
{
    std::vector<int> lNumbers;
    for (const Element& lrElement : acrList) {
        lNumbers.push_back(lrElement.mNumber);
    }
    return lNumbers;
}

typedef std::vector<unsigned int> Numbers;

class OQListTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        Element::sAlive = 0;
        Element::sCopies = 0;
    }
};

TEST_F(OQListTest, EmptyListHasNoElement)
{
    const OQCList<OQCString> lTexts;
    const OQCList<unsigned int> lNumbers;
    EXPECT_EQ(0, lTexts.size());
    EXPECT_EQ(0, lNumbers.size());
    EXPECT_TRUE(lTexts.begin() == lTexts.end());
}

TEST_F(OQListTest, ObjectIsTheStandardListAloneWithASignedSize)
{
    EXPECT_EQ(sizeof(std::list<int>), sizeof(OQCList<int>));
    EXPECT_TRUE((std::is_same<int, decltype(std::declval<const OQCList<OQCString>&>().size())>::value));
}

TEST_F(OQListTest, AppendedElementsComeInTheirOrder)
{
    OQCList<unsigned int> lList;
    Numbers lExpected;
    for (unsigned int lNumber = 0; lNumber < 1000; ++lNumber) {
        lList.append(lNumber * 7 % 31);
        lExpected.push_back(lNumber * 7 % 31);
        EXPECT_EQ(static_cast<int>(lNumber) + 1, lList.size());
    }
    EXPECT_EQ(lExpected, Numbers(lList.begin(), lList.end()));
}

TEST_F(OQListTest, LibraryAppendsBehindTheCallersEntries)
{
    OQCList<OQCString> lList;
    lList.append("mine");
    lList.append(cLong);
    char lBuffer[4096] = "first\nsecond\n";
    OsBreak(lBuffer, lList);
    EXPECT_EQ((Texts{"mine", cLong, "first", "second"}), textsOf(lList));
    EXPECT_EQ(4, lList.size());
    lList.append("last");
    EXPECT_EQ((Texts{"mine", cLong, "first", "second", "last"}), textsOf(lList));
}

TEST_F(OQListTest, EntryIsIndependentOfTheCallersString)
{
    OQCList<OQCString> lList;
    {
        OQCString lText(cLong);
        lList.append(lText);
        lText += OQCString(" and more");
        lText = "other";
    }
    EXPECT_EQ(Texts{cLong}, textsOf(lList));
    for (OQCString& lrEntry : lList) {
        lrEntry += OQCString("!");
    }
    EXPECT_EQ(Texts{std::string(cLong) + "!"}, textsOf(lList));
}

TEST_F(OQListTest, OneCopyIsMadeOfEachElement)
{
    OQCList<Element> lList;
    const Element lElement(5);
    lList.append(lElement);
    EXPECT_EQ(1, Element::sCopies);
    lList.append(lElement);
    EXPECT_EQ(2, Element::sCopies);
    EXPECT_EQ(3, Element::sAlive);
}

TEST_F(OQListTest, EveryElementAndNodeIsFreed)
{
    const FailingMemory lCounting(0);
    {
        OQCList<Element> lList;
        for (int lNumber = 0; lNumber < 5; ++lNumber) {
            lList.append(Element(lNumber));
        }
        EXPECT_EQ(5, Element::sAlive);
        OQCList<OQCString> lTexts;
        lTexts.append(cLong);
        EXPECT_THROW(lList.append(Element(6, true)), int);
        EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), contents(lList));
    }
    EXPECT_EQ(0, Element::sAlive);
    EXPECT_EQ(FailingMemory::taken(), FailingMemory::freed());
}

TEST_F(OQListTest, RemovalKeepsTheOrderAndDestroysWhatIsRemoved)
{
    OQCList<Element> lList;
    for (int lNumber = 0; lNumber < 5; ++lNumber) {
        lList.append(Element(lNumber));
    }
    OQCList<Element>::iterator lPosition = lList.begin();
    ++lPosition;
    lPosition = lList.erase(lPosition);
    EXPECT_EQ(2, lPosition->mNumber);
    EXPECT_EQ((std::vector<int>{0, 2, 3, 4}), contents(lList));
    EXPECT_EQ(4, lList.size());
    EXPECT_EQ(4, Element::sAlive);
    lList.clear();
    EXPECT_EQ(0, lList.size());
    EXPECT_EQ(0, Element::sAlive);
    lList.append(Element(9));
    EXPECT_EQ(std::vector<int>{9}, contents(lList));
}

TEST_F(OQListTest, CopiesOfAListAreIndependent)
{
    OQCList<OQCString> lFirst;
    lFirst.append("a");
    OQCList<OQCString> lSecond(lFirst);
    lSecond.append("b");
    EXPECT_EQ((Texts{"a"}), textsOf(lFirst));
    EXPECT_EQ((Texts{"a", "b"}), textsOf(lSecond));
    lFirst = lSecond;
    lSecond.clear();
    EXPECT_EQ((Texts{"a", "b"}), textsOf(lFirst));
}

TEST_F(OQListTest, MemoryComesFromAnyAllocatorOfAList)
{
    OQCListAllocator<int> lOfNumbers;
    OQCListAllocator<OQCString> lOfTexts(lOfNumbers);  // the standard list makes this conversion to allocate its nodes
    OQCString* const lpText = lOfTexts.allocate(1);
    ASSERT_NE(nullptr, lpText);
    OQCListAllocator<OQCString>().deallocate(lpText, 1);
    EXPECT_TRUE(lOfTexts == OQCListAllocator<OQCString>());
    EXPECT_FALSE(lOfTexts != OQCListAllocator<OQCString>());
}

}  // namespace
