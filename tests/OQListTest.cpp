#include <stdlib.h>
#include <string.h>

#include <list>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "TestKit.h"

#if !OQ_SANITIZED
namespace
{

// Blocks from operator new that are in use: sanitized programs have the leak checker for that.
volatile long sBlocks = 0;

}  // namespace

// Not inlined: the compiler would see malloc() in one place and operator delete in the other.
__attribute__((noinline)) void* operator new(size_t aSize)
{
    void* const lpMemory = malloc(aSize);
    if (nullptr == lpMemory) {
        const std::new_handler lHandler = std::get_new_handler();
        if (nullptr != lHandler) {
            lHandler();
        }
        throw std::bad_alloc();
    }
    sBlocks = sBlocks + 1;
    return lpMemory;
}
__attribute__((noinline)) void operator delete(void* apMemory) noexcept
{
    if (nullptr != apMemory) {
        sBlocks = sBlocks - 1;
    }
    free(apMemory);
}
void operator delete(void* apMemory, size_t) noexcept { operator delete(apMemory); }
#endif

namespace
{

long blocks()
{
#if OQ_SANITIZED
    return 0;
#else
    return sBlocks;
#endif
}

const char cLong[] =
    "a text that is far too long to be kept inside a string object, so that its characters need memory";

/// What copying an element throws when it is told to.
enum Failing { Fine, BadAlloc, Number, Text, Generic };

/// An element that counts its copies and fails as told.
struct Element {
    explicit Element(int aNumber, Failing aFailing = Fine) : mNumber(aNumber), mFailing(aFailing) { ++sAlive; }
    Element(const Element& acrCopy) : mNumber(acrCopy.mNumber), mFailing(acrCopy.mFailing)
    {
        ++sCopies;
        switch (mFailing) {
            case BadAlloc:
                throw std::bad_alloc();
            case Number:
                throw 42;
            case Text:
                throw std::string("a text");
            case Generic:
                throw OQCInvalidEx("from the element", 6);
            case Fine:
                ++sAlive;
        }
    }
    Element& operator=(const Element&) = delete;
    ~Element() { --sAlive; }

    int mNumber;
    Failing mFailing;
    static int sAlive;
    static int sCopies;
};
int Element::sAlive = 0;
int Element::sCopies = 0;

template <class T>
std::vector<T> contents(const OQCList<T>& acrList)
{
    return std::vector<T>(acrList.begin(), acrList.end());
}

std::vector<std::string> contents(const OQCList<OQCString>& acrList)
{
    std::vector<std::string> lTexts;
    for (const OQCString& lrText : acrList) {
        lTexts.push_back(lrText.get());
    }
    return lTexts;
}

std::vector<int> contents(const OQCList<Element>& acrList)
{
    std::vector<int> lNumbers;
    for (const Element& lrElement : acrList) {
        lNumbers.push_back(lrElement.mNumber);
    }
    return lNumbers;
}

typedef std::vector<std::string> Texts;
typedef std::vector<unsigned int> Numbers;

class OQListTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
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
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQListTest, SizeIsASignedCount)
{
    EXPECT_TRUE((std::is_same<int, decltype(std::declval<const OQCList<OQCString>&>().size())>::value));
}

TEST_F(OQListTest, ObjectIsTheStandardListAlone) { EXPECT_EQ(sizeof(std::list<int>), sizeof(OQCList<int>)); }

TEST_F(OQListTest, AppendedElementsComeInTheirOrder)
{
    OQCList<unsigned int> lList;
    Numbers lExpected;
    for (unsigned int lNumber = 0; lNumber < 1000; ++lNumber) {
        lList.append(lNumber * 7 % 31);
        lExpected.push_back(lNumber * 7 % 31);
        EXPECT_EQ(static_cast<int>(lNumber) + 1, lList.size());
    }
    EXPECT_EQ(lExpected, contents(lList));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQListTest, LibraryAppendsBehindTheCallersEntries)
{
    OQCList<OQCString> lList;
    lList.append("mine");
    lList.append(cLong);
    char lBuffer[4096] = "first\nsecond\n";
    OsBreak(lBuffer, lList);
    EXPECT_EQ((Texts{"mine", cLong, "first", "second"}), contents(lList));
    EXPECT_EQ(4, lList.size());
    lList.append("last");
    EXPECT_EQ((Texts{"mine", cLong, "first", "second", "last"}), contents(lList));
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
    EXPECT_EQ(Texts{cLong}, contents(lList));
    for (OQCString& lrEntry : lList) {
        lrEntry += OQCString("!");
    }
    EXPECT_EQ(Texts{std::string(cLong) + "!"}, contents(lList));
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

TEST_F(OQListTest, DestructionDestroysEveryElementAndNode)
{
    const long lBlocks = blocks();
    {
        OQCList<Element> lList;
        for (int lNumber = 0; lNumber < 5; ++lNumber) {
            lList.append(Element(lNumber));
        }
        EXPECT_EQ(5, Element::sAlive);
        OQCList<OQCString> lTexts;
        lTexts.append(cLong);
    }
    EXPECT_EQ(0, Element::sAlive);
    EXPECT_EQ(lBlocks, blocks());
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
    EXPECT_EQ((Texts{"a"}), contents(lFirst));
    EXPECT_EQ((Texts{"a", "b"}), contents(lSecond));
    lFirst = lSecond;
    lSecond.clear();
    EXPECT_EQ((Texts{"a", "b"}), contents(lFirst));
}

/// Appends an element that fails, to a list that holds two; the list keeps them, and nothing is left of the node.
template <class Exception>
void expectElementsOwn(Failing aFailing, const std::function<void(const Exception&)>& acrCheck)
{
    OQCList<Element> lList;
    lList.append(Element(1));
    lList.append(Element(2));
    const Element lFailing(3, aFailing);
    const long lBlocks = blocks();
    bool lThrown = false;
    try {
        lList.append(lFailing);
    } catch (const Exception& acrException) {
        lThrown = true;
        acrCheck(acrException);
    } catch (...) {
        ADD_FAILURE() << "another exception";
    }
    EXPECT_TRUE(lThrown);
    EXPECT_EQ(lBlocks, blocks()) << "the node was left";
    EXPECT_EQ((std::vector<int>{1, 2}), contents(lList));
    EXPECT_EQ(2, lList.size());
    EXPECT_EQ(3, Element::sAlive);
    lList.append(Element(4));
    EXPECT_EQ((std::vector<int>{1, 2, 4}), contents(lList));
}

TEST_F(OQListTest, BadAllocOfTheElementPassesAsItIs)
{
    expectElementsOwn<std::bad_alloc>(
        BadAlloc, [](const std::bad_alloc& acrOwn) { EXPECT_TRUE(typeid(std::bad_alloc) == typeid(acrOwn)); });
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQListTest, AnyExceptionOfTheElementPassesAsItIs)
{
    expectElementsOwn<int>(Number, [](const int& acrNumber) { EXPECT_EQ(42, acrNumber); });
    expectElementsOwn<std::string>(Text, [](const std::string& acrText) { EXPECT_EQ("a text", acrText); });
    expectElementsOwn<OQCInvalidEx>(Generic, [](const OQCInvalidEx& acrOwn) {
        EXPECT_STREQ("from the element", acrOwn.what());
        EXPECT_EQ(6U, acrOwn.code());
    });
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQListTest, NodeThatCannotBeHadIsOutOfMemoryBeforeTheElementIsCopied)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
    }
    OQCList<Element> lList;
    lList.append(Element(1));
    const Element lElement(2, BadAlloc);  // would fail itself, if it were asked
    Element::sCopies = 0;
    const long lBlocks = blocks();
    bool lThrown = false;
#if !OQ_SANITIZED
    gMallocFault.failOn(1);
#endif
    try {
        lList.append(lElement);
    } catch (const OQCException& acrFailure) {
#if !OQ_SANITIZED
        gMallocFault.stop();
#endif
        lThrown = true;
        EXPECT_TRUE(typeid(OQCNoMemoryEx) == typeid(acrFailure));
        EXPECT_STREQ("Out of Memory", acrFailure.what());
        EXPECT_EQ(2U, acrFailure.code());
    }
    EXPECT_TRUE(lThrown);
    EXPECT_EQ(0, Element::sCopies);
    EXPECT_EQ(lBlocks, blocks());
    EXPECT_EQ(std::vector<int>{1}, contents(lList));
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQListTest, NodeOfANumberThatCannotBeHadIsOutOfMemory)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    OQCList<unsigned int> lList;
    lList.append(1);
    bool lThrown = false;
    gMallocFault.failOn(1);
    try {
        lList.append(2);
    } catch (const OQCNoMemoryEx& acrFailure) {
        gMallocFault.stop();
        lThrown = true;
        EXPECT_STREQ("Out of Memory", acrFailure.what());
        EXPECT_EQ(2U, acrFailure.code());
    }
    EXPECT_TRUE(lThrown);
    EXPECT_EQ(Numbers{1}, contents(lList));
    gMallocFault.failOn(0);
    lList.append(3);
    EXPECT_EQ(1U, gMallocFault.stop());
    EXPECT_EQ((Numbers{1, 3}), contents(lList));
#endif
}

TEST_F(OQListTest, AppendOfATextWithoutMemoryIsOutOfMemoryAtEveryStepAndLeavesTheList)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    OQCList<OQCString> lList;
    lList.append("kept");
    const OQCString lText(cLong);
    unsigned int lNth = 1;
    for (; lNth < 100; ++lNth) {
        const long lBlocks = blocks();
        bool lThrown = false;
        gMallocFault.failOn(lNth);
        try {
            lList.append(lText);
            gMallocFault.stop();
        } catch (const OQCNoMemoryEx& acrFailure) {
            gMallocFault.stop();
            lThrown = true;
            EXPECT_STREQ("Out of Memory", acrFailure.what());
            EXPECT_EQ(2U, acrFailure.code());
        }
        if (!lThrown) {
            break;
        }
        EXPECT_EQ(Texts{"kept"}, contents(lList)) << lNth;
        // A text whose counter cannot be had stays allocated, its characters with it; the node never does.
        EXPECT_EQ(lBlocks + (4 == lNth ? 2 : 0), blocks()) << lNth;
    }
    EXPECT_EQ(5U, lNth) << "node, text object, characters, counter";
    EXPECT_EQ((Texts{"kept", cLong}), contents(lList));
    EXPECT_EQ(Lines(), logged());
#endif
}

/// Only std::bad_alloc is memory exhausted: what a host's handler throws instead is the host's.
TEST_F(OQListTest, WhatANewHandlerThrowsForTheNodePassesAndLeavesTheList)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    OQCList<unsigned int> lList;
    lList.append(1);
    const long lBefore = blocks();
    const std::new_handler lHandler = std::set_new_handler([] { throw 42; });
    gMallocFault.failOn(1);
    EXPECT_THROW(lList.append(2), int);
    gMallocFault.stop();
    std::set_new_handler(lHandler);
    EXPECT_EQ(lBefore, blocks());
    EXPECT_EQ(Numbers{1}, contents(lList));
#endif
}

TEST_F(OQListTest, AppendOfADestroyedTextEndsTheProcess)
{
    const ChildResult lChild = inChild([] {
        OQCList<OQCString> lList;
        alignas(OQCString) char lBytes[sizeof(OQCString)];
        memset(lBytes, 0, sizeof lBytes);
        lList.append(*reinterpret_cast<OQCString*>(lBytes));
    });
    EXPECT_EQ(1, lChild.mExitStatus);
    EXPECT_EQ((Lines{LinesOf("backend/common/include/OQString", "OQCString").assertion("acrCopy.mString != 0")}),
              lChild.mLines);
}

TEST_F(OQListTest, MemoryComesFromAnyAllocatorOfAList)
{
    OQCListAllocator<int> lOfNumbers;
    OQCListAllocator<OQCString> lOfTexts(lOfNumbers);  // what the standard list does to allocate its nodes
    OQCString* const lpText = lOfTexts.allocate(1);
    ASSERT_NE(nullptr, lpText);
    OQCListAllocator<OQCString>().deallocate(lpText, 1);
    EXPECT_TRUE(lOfTexts == OQCListAllocator<OQCString>());
    EXPECT_FALSE(lOfTexts != OQCListAllocator<OQCString>());
}

}  // namespace
