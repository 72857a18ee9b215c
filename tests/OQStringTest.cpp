// The text, the copies and the growth of strings. outcomes/Values.cpp tests how operations throw or end the process.

#include <stdint.h>
#include <string.h>

#include <new>

#include "Substitutes.h"

namespace
{

const char cLong[] =
    "a text that is far too long to be kept inside a string object, so that its characters need memory";

/// Reads the address of the counter from memory: the second word of the object.
const void* counterOf(const OQCString& acrString)
{
    const void* lCounter;
    memcpy(&lCounter, reinterpret_cast<const char*>(&acrString) + sizeof(void*), sizeof lCounter);
    return lCounter;
}

uint32_t countOf(const OQCString& acrString)
{
    uint32_t lCount;
    memcpy(&lCount, counterOf(acrString), sizeof lCount);
    return lCount;
}

/// Expects that strings log nothing.
class OQStringTest : public RecordedTest
{
protected:
    void TearDown() override
    {
        EXPECT_EQ("", traceOf(recorded(), "", ""));
        RecordedTest::TearDown();
    }
};

TEST_F(OQStringTest, TextIsCopiedFromTheCallersBuffer)
{
    char lText[] = "callers";
    const OQCString lString(lText);
    memset(lText, 'x', sizeof lText - 1);
    EXPECT_STREQ("callers", lString.get());
    EXPECT_NE(static_cast<const char*>(lText), lString.get());
    EXPECT_EQ(1U, countOf(lString));
}

TEST_F(OQStringTest, ObjectIsItsPointerAlone)
{
    EXPECT_EQ(sizeof(Pointer<std::string>), sizeof(OQCString));
    const OQCString lString(cLong);
    const std::string* lpText;
    memcpy(&lpText, static_cast<const void*>(&lString), sizeof lpText);
    EXPECT_EQ(lpText->c_str(), lString.get());
    const char* const lpKinds = reinterpret_cast<const char*>(&lString) + 2 * sizeof(void*);
    EXPECT_EQ(1, lpKinds[0]) << "a single object";
    EXPECT_EQ(1, lpKinds[1]) << "from new";
}

TEST_F(OQStringTest, CopyIsDeepAndEachCountIsOne)
{
    OQCString lFirst(cLong);
    const OQCString lSecond(lFirst);
    EXPECT_STREQ(cLong, lSecond.get());
    EXPECT_NE(static_cast<const OQCString&>(lFirst).get(), lSecond.get());
    EXPECT_NE(counterOf(lFirst), counterOf(lSecond));
    EXPECT_EQ(1U, countOf(lFirst));
    EXPECT_EQ(1U, countOf(lSecond));
    lFirst += lFirst;
    EXPECT_STREQ(cLong, lSecond.get());
}

TEST_F(OQStringTest, AssignmentIsDeepAndEachCountIsOne)
{
    OQCString lFirst("first");
    OQCString lSecond(cLong);
    EXPECT_EQ(&lFirst, &(lFirst = lSecond));
    EXPECT_STREQ(cLong, lFirst.get());
    EXPECT_NE(counterOf(lFirst), counterOf(lSecond));
    EXPECT_EQ(1U, countOf(lFirst));
    EXPECT_EQ(1U, countOf(lSecond));
    lFirst += OQCString(" and more");
    EXPECT_STREQ(cLong, lSecond.get());
    EXPECT_EQ(std::string(cLong) + " and more", lFirst.get());
    lSecond = OQCString("");
    EXPECT_STREQ("", lSecond.get());
    EXPECT_EQ(std::string(cLong) + " and more", lFirst.get());
}

TEST_F(OQStringTest, SelfAssignmentChangesNothingAndAllocatesNothing)
{
    OQCString lString(cLong);
    const OQCString& lrSelf = lString;
    const char* const lpText = lrSelf.get();
    const void* const lpCounter = counterOf(lString);
    {
        const FailingMemory lCounting(0);
        lString = lrSelf;
        EXPECT_EQ(0U, FailingMemory::taken());
    }
    EXPECT_EQ(lpText, lrSelf.get());
    EXPECT_EQ(lpText, lString.get()) << "constant or not";
    EXPECT_EQ(lpCounter, counterOf(lString));
    EXPECT_EQ(1U, countOf(lString));
    EXPECT_STREQ(cLong, lpText);
}

TEST_F(OQStringTest, EmptyTextIsValid)
{
    OQCString lEmpty("");
    EXPECT_STREQ("", lEmpty.get());
    OQCString lString("abc");
    lString += lEmpty;
    EXPECT_STREQ("abc", lString.get());
    lEmpty += lEmpty;
    EXPECT_STREQ("", lEmpty.get());
    EXPECT_EQ(1U, countOf(lEmpty));
    lEmpty += lString;
    EXPECT_STREQ("abc", lEmpty.get());
    const OQCString lCopy(OQCString(""));
    EXPECT_STREQ("", lCopy.get());
}

TEST_F(OQStringTest, AppendingIsInPlaceAndReturnsTheObject)
{
    OQCString lString("one");
    const OQCString lOther("two");
    const void* const lpCounter = counterOf(lString);
    EXPECT_EQ(&lString, &(lString += lOther));
    EXPECT_STREQ("onetwo", lString.get());
    EXPECT_EQ(lpCounter, counterOf(lString));
    EXPECT_STREQ("two", lOther.get());
    lString += lString;
    EXPECT_STREQ("onetwoonetwo", lString.get());
    EXPECT_EQ(lpCounter, counterOf(lString));
    EXPECT_EQ(1U, countOf(lString));
}

TEST_F(OQStringTest, TextBeginsImplicitly)
{
    OQCString lString("old");
    lString = "new";
    EXPECT_STREQ("new", lString.get());
    EXPECT_EQ(1U, countOf(lString));
}

TEST_F(OQStringTest, StringThatHasBeenDestroyedCanBeAssignedAText)
{
    alignas(OQCString) char lBytes[sizeof(OQCString)];
    OQCString& lrGone = *new (lBytes) OQCString("gone");
    lrGone.~OQCString();
    __asm__ volatile("" : : "r"(lBytes) : "memory");
    const OQCString& lrSelf = lrGone;
    lrGone = lrSelf;
    EXPECT_EQ(nullptr, counterOf(lrGone));
    const OQCString lSource(cLong);
    lrGone = lSource;
    EXPECT_STREQ(cLong, lrGone.get());
    EXPECT_EQ(1U, countOf(lrGone));
    lrGone.~OQCString();
}

/// A caller that was built without inlining calls the functions of the library.
TEST_F(OQStringTest, LibraryCarriesItsOwnCopiesOfTheOperations)
{
    const OQCString lString(cLong);
    const auto lpGet = reinterpret_cast<const char* (*)(const OQCString*)>(dlsym(RTLD_NEXT, "_ZNK9OQCString3getEv"));
    ASSERT_NE(nullptr, lpGet);
    EXPECT_STREQ(cLong, lpGet(&lString));
}

}  // namespace
