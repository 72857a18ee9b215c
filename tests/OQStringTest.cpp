#include <dlfcn.h>
#include <stdint.h>
#include <string.h>

#include <new>
#include <string>

#include "TestKit.h"

namespace
{

const char cLong[] =
    "a text that is far too long to be kept inside a string object, so that its characters need memory";
[[maybe_unused]] const char cOther[] =
    "another text which does not fit into the string object either, and thus is on the heap as well";

/// The word of the counter, reached as anyone who looks at memory reaches it: the second pointer of the object.
uint32_t countOf(const OQCString& acrString)
{
    const void* lCounter;
    memcpy(&lCounter, reinterpret_cast<const char*>(&acrString) + sizeof(void*), sizeof lCounter);
    uint32_t lCount;
    memcpy(&lCount, lCounter, sizeof lCount);
    return lCount;
}

/// The counter itself, for telling two apart.
const void* counterOf(const OQCString& acrString)
{
    const void* lCounter;
    memcpy(&lCounter, reinterpret_cast<const char*>(&acrString) + sizeof(void*), sizeof lCounter);
    return lCounter;
}

/// An OQCString whose text is gone: the object of a caller who uses it after its end.
class Destroyed
{
public:
    Destroyed()
    {
        new (mBytes) OQCString(cLong);
        string().~OQCString();
        __asm__ volatile("" : : "r"(mBytes) : "memory");
    }
    __attribute__((noinline)) OQCString& string() { return *reinterpret_cast<OQCString*>(mBytes); }

private:
    alignas(OQCString) char mBytes[sizeof(OQCString)];
};

class OQStringTest : public LayerTest
{
protected:
    void TearDown() override
    {
        gMallocFaultStop();
        LayerTest::TearDown();
    }

    /// Expects that the operation ends a process with exit status 1 and this line alone.
    static void expectAssertion(const Line& acrLine, const std::function<void()>& acrRun)
    {
        const ChildResult lChild = inChild(acrRun);
        EXPECT_EQ(1, lChild.mExitStatus);
        EXPECT_EQ(0, lChild.mSignal);
        EXPECT_EQ((Lines{acrLine}), lChild.mLines);
    }
    static LinesOf linesOf(const char* acFunction) { return LinesOf("backend/common/include/OQString", acFunction); }

    static void gMallocFaultStop()
    {
#if !OQ_SANITIZED
        gMallocFault.stop();
#endif
    }

#if !OQ_SANITIZED
    /// Lets the operation's first allocation fail, then its second, ... until it succeeds. Every failure must be
    /// exhausted memory, and must leave behind what the check says. \return allocations that failed
    static unsigned int sweep(const std::function<void()>& acrRun, const std::function<void()>& acrCheck)
    {
        for (unsigned int lNth = 1; lNth < 100; ++lNth) {
            bool lThrown = false;
            gMallocFault.failOn(lNth);
            try {
                acrRun();
                gMallocFault.stop();
            } catch (const OQCException& acrFailure) {
                gMallocFault.stop();
                lThrown = true;
                EXPECT_TRUE(typeid(OQCNoMemoryEx) == typeid(acrFailure)) << lNth;
                EXPECT_STREQ("Out of Memory", acrFailure.what()) << lNth;
                EXPECT_EQ(2U, acrFailure.code()) << lNth;
            } catch (const std::bad_alloc&) {
                gMallocFault.stop();
                lThrown = true;
                ADD_FAILURE() << "std::bad_alloc on allocation " << lNth;
            }
            if (!lThrown) {
                return lNth - 1;
            }
            acrCheck();
        }
        ADD_FAILURE() << "no end";
        return 0;
    }
#endif
};

TEST_F(OQStringTest, TextIsCopiedFromTheCallersBuffer)
{
    char lText[] = "callers";
    const OQCString lString(lText);
    memset(lText, 'x', sizeof lText - 1);
    EXPECT_STREQ("callers", lString.get());
    EXPECT_NE(static_cast<const char*>(lText), lString.get());
    EXPECT_EQ(1U, countOf(lString));
    EXPECT_EQ(Lines(), logged());
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
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQStringTest, CopyOutlivesItsOriginal)
{
    OQCString* const lpOriginal = new OQCString(cLong);
    const OQCString lCopy(*lpOriginal);
    OQCString lAssigned("");
    lAssigned = *lpOriginal;
    delete lpOriginal;
    EXPECT_STREQ(cLong, lCopy.get());
    EXPECT_STREQ(cLong, lAssigned.get());
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
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQStringTest, SelfAssignmentChangesNothingAndAllocatesNothing)
{
    OQCString lString(cLong);
    const OQCString& lrSelf = lString;
    const char* const lpText = lrSelf.get();
    const void* const lpCounter = counterOf(lString);
#if !OQ_SANITIZED
    gMallocFault.failOn(1);
#endif
    lString = lrSelf;
#if !OQ_SANITIZED
    EXPECT_EQ(0U, gMallocFault.stop());
#endif
    EXPECT_EQ(lpText, lrSelf.get());
    EXPECT_EQ(lpCounter, counterOf(lString));
    EXPECT_EQ(1U, countOf(lString));
    EXPECT_STREQ(cLong, lrSelf.get());
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
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQStringTest, GetOfConstantAndOtherGiveTheSameText)
{
    OQCString lString(cLong);
    const OQCString& lrConstant = lString;
    EXPECT_EQ(lString.get(), lrConstant.get());
    EXPECT_STREQ(cLong, lrConstant.get());
    EXPECT_EQ('\0', lString.get()[strlen(cLong)]);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQStringTest, TextBeginsImplicitly)
{
    OQCString lString("old");
    lString = "new";
    EXPECT_STREQ("new", lString.get());
    EXPECT_EQ(1U, countOf(lString));
}

TEST_F(OQStringTest, ConstructionWithoutMemoryIsOutOfMemory)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    const auto lNothing = [] {};
    EXPECT_EQ(3U, sweep([] { const OQCString lString(cLong); }, lNothing)) << "object, characters, counter";
    EXPECT_EQ(2U, sweep([] { const OQCString lString("short"); }, lNothing)) << "object, counter";
    EXPECT_EQ(Lines(), logged());
#endif
}

TEST_F(OQStringTest, CopyWithoutMemoryIsOutOfMemoryAndLeavesTheOriginal)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    const OQCString lOriginal(cLong);
    const auto lCheck = [&lOriginal] {
        EXPECT_STREQ(cLong, lOriginal.get());
        EXPECT_EQ(1U, countOf(lOriginal));
    };
    EXPECT_EQ(3U, sweep([&lOriginal] { const OQCString lCopy(lOriginal); }, lCheck));
    EXPECT_EQ(Lines(), logged());
#endif
}

TEST_F(OQStringTest, AssignmentWithoutMemoryIsOutOfMemoryAndKeepsTheText)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    const OQCString lSource(cLong);
    OQCString lTarget(cOther);
    const char* const lpText = lTarget.get();
    const auto lCheck = [&lSource, &lTarget, lpText] {
        EXPECT_STREQ(cLong, lSource.get());
        EXPECT_STREQ(cOther, lTarget.get());
        EXPECT_EQ(lpText, lTarget.get());
        EXPECT_EQ(1U, countOf(lSource));
        EXPECT_EQ(1U, countOf(lTarget));
    };
    EXPECT_EQ(3U, sweep([&lSource, &lTarget] { lTarget = lSource; }, lCheck));
    EXPECT_STREQ(cLong, lTarget.get());
    EXPECT_EQ(1U, countOf(lTarget));
    EXPECT_EQ(Lines(), logged());
#endif
}

TEST_F(OQStringTest, AppendWithoutMemoryThrowsBadAllocAndKeepsTheText)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    OQCString lString(cLong);
    const OQCString lOther(cOther);
    gMallocFault.failOn(1);
    EXPECT_THROW(lString += lOther, std::bad_alloc);
    gMallocFault.stop();
    EXPECT_STREQ(cLong, lString.get());
    EXPECT_EQ(1U, countOf(lString));
    EXPECT_EQ(Lines(), logged());
#endif
}

/// Only std::bad_alloc is memory exhausted: what a host's handler throws instead is the host's.
TEST_F(OQStringTest, WhatANewHandlerThrowsForTheCharactersPassesAndLeavesTheOriginal)
{
#if OQ_SANITIZED
    GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
#else
    const OQCString lOriginal(cLong);
    const std::new_handler lBefore = std::set_new_handler([] { throw 42; });
    for (const bool lCopied : {false, true}) {
        gMallocFault.failOn(2);  // the object can be had, its characters cannot
        EXPECT_THROW(
            {
                if (lCopied) {
                    const OQCString lCopy(lOriginal);
                } else {
                    const OQCString lString(cLong);
                }
            },
            int);
        EXPECT_EQ(3U, gMallocFault.stop()) << "object, characters, the handler's exception";
    }
    std::set_new_handler(lBefore);
    EXPECT_STREQ(cLong, lOriginal.get());
    EXPECT_EQ(Lines(), logged());
#endif
}

TEST_F(OQStringTest, CopyOfAnEmptyOneEndsTheProcess)
{
    expectAssertion(linesOf("OQCString").assertion("acrCopy.mString != 0"), [] {
        Destroyed lGone;
        const OQCString lCopy(lGone.string());
    });
}

TEST_F(OQStringTest, AppendToAnEmptyOneEndsTheProcess)
{
    expectAssertion(linesOf("operator+=").assertion("mString != 0"), [] {
        Destroyed lGone;
        lGone.string() += OQCString("more");
    });
    expectAssertion(linesOf("operator+=").assertion("mString != 0"), [] {
        Destroyed lGone;
        Destroyed lAlso;
        lGone.string() += lAlso.string();
    });
}

TEST_F(OQStringTest, AppendOfAnEmptyOneEndsTheProcess)
{
    expectAssertion(linesOf("operator+=").assertion("acrString.mString != 0"), [] {
        Destroyed lGone;
        OQCString lString("some");
        lString += lGone.string();
    });
}

TEST_F(OQStringTest, GetOfAnEmptyOneEndsTheProcess)
{
    expectAssertion(linesOf("get").assertion("mString != 0"), [] {
        Destroyed lGone;
        (void)lGone.string().get();
    });
    expectAssertion(linesOf("get").assertion("mString != 0"), [] {
        Destroyed lGone;
        const OQCString& lrConstant = lGone.string();
        (void)lrConstant.get();
    });
}

TEST_F(OQStringTest, AssignmentFromAnEmptyOneEndsTheProcessInThePointer)
{
    expectAssertion(LinesOf("backend/common/include/Pointer", "operator*").assertion("0 != mPointer"), [] {
        Destroyed lGone;
        OQCString lString("some");
        lString = lGone.string();
    });
}

TEST_F(OQStringTest, AssignmentToAnEmptyOneGivesItAText)
{
    Destroyed lGone;
    const OQCString lSource(cLong);
    lGone.string() = lSource;
    EXPECT_STREQ(cLong, lGone.string().get());
    EXPECT_EQ(1U, countOf(lGone.string()));
    lGone.string().~OQCString();
    EXPECT_EQ(Lines(), logged());
}

TEST_F(OQStringTest, SelfAssignmentOfAnEmptyOneDoesNothing)
{
    Destroyed lGone;
    OQCString& lrGone = lGone.string();
    const OQCString& lrSelf = lrGone;
    lrGone = lrSelf;
    EXPECT_EQ(nullptr, counterOf(lrGone));
    EXPECT_EQ(Lines(), logged());
}

/// A caller that was built without inlining finds every operation in the library.
TEST_F(OQStringTest, LibraryCarriesItsOwnCopiesOfTheValueTypes)
{
    void* const lpLibrary = dlopen("libOQLinux.so.1", RTLD_NOW);
    ASSERT_NE(nullptr, lpLibrary) << dlerror();
    const std::string lPointer = "_ZN7PointerINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEE";
    const std::string lConstantPointer = "_ZNK7PointerINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEE";
    for (const std::string& lrName : {
#ifndef __clang__  // which gives the library only the base-object form where the complete one is the same
             std::string("_ZN9OQCStringC1EPKc"),
             std::string("_ZN9OQCStringC1ERKS_"),
             std::string("_ZN9OQCStringD1Ev"),
#endif
             std::string("_ZN9OQCStringC2EPKc"),
             std::string("_ZN9OQCStringC2ERKS_"),
             std::string("_ZN9OQCStringaSERKS_"),
             std::string("_ZN9OQCStringpLERKS_"),
             std::string("_ZN9OQCString3getEv"),
             std::string("_ZNK9OQCString3getEv"),
             std::string("_ZN9OQCStringD2Ev"),
             lPointer + "C1Ev",
             lPointer + "C1EPS5_18OQEPointerSizeType20OQEPointerMemoryType",
             lPointer + "aSERKS6_",
             lPointer + "D1Ev",
             lPointer + "deEv",
             lPointer + "ptEv",
             lPointer + "14_releaseMemoryEv",
             lConstantPointer + "ptEv",
             lConstantPointer + "neEPKS5_",
             std::string("_ZN7OQCListI9OQCStringE6appendERKS0_"),
             std::string("_ZNK7OQCListI9OQCStringE4sizeEv"),
             std::string("_ZN7OQCListIjE6appendERKj"),
             std::string("_ZNK7OQCListIjE4sizeEv"),
         }) {
        void* const lpFunction = dlsym(lpLibrary, lrName.c_str());
        EXPECT_NE(nullptr, lpFunction) << lrName;
        Dl_info lInfo;
        if (nullptr != lpFunction && 0 != dladdr(lpFunction, &lInfo)) {
            EXPECT_NE(nullptr, strstr(lInfo.dli_fname, "libOQLinux.so")) << lrName << " is in " << lInfo.dli_fname;
        }
    }
    // One of them, called as such a caller calls it.
    const OQCString lString(cLong);
    const char* (*lpGet)(const OQCString*);
    void* const lpAddress = dlsym(lpLibrary, "_ZNK9OQCString3getEv");
    ASSERT_NE(nullptr, lpAddress);
    memcpy(&lpGet, &lpAddress, sizeof lpGet);
    EXPECT_STREQ(cLong, lpGet(&lString));
    dlclose(lpLibrary);
}

}  // namespace
