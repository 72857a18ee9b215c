// The exception tree: classes, codes, layout. The rows in outcomes/ test what each operation throws.

#include <execinfo.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <type_traits>
#include <utility>

#include "Peer.h"

#if !OQ_SANITIZED
namespace
{

thread_local int sLayerFrames = 0;

/// Counts the frames of the layer's code on this thread's stack.
int layerFrames()
{
    void* lFrames[64];
    const int lCount = backtrace(lFrames, 64);
    int lLayer = 0;
    for (int lFrame = 0; lFrame < lCount; ++lFrame) {
        Dl_info lInfo;
        if (0 != dladdr(lFrames[lFrame], &lInfo) && nullptr != strstr(lInfo.dli_fname, "libOQLinux.so")) {
            ++lLayer;
        }
    }
    return lLayer;
}

}  // namespace

/// Counts the frames that the unwinder will pass through in the layer. Replaces __cxa_throw(). The name differs here,
/// because each compiler declares __cxa_throw() differently.
extern "C" [[noreturn]] void countThenThrow(void* apException, void* apType,
                                            void (*apDestructor)(void*)) __asm__("__cxa_throw");
void countThenThrow(void* apException, void* apType, void (*apDestructor)(void*))
{
    sLayerFrames = layerFrames();
    const auto lpReal = reinterpret_cast<void (*)(void*, void*, void (*)(void*))>(dlsym(RTLD_NEXT, "__cxa_throw"));
    lpReal(apException, apType, apDestructor);
    abort();
}
#endif

namespace
{

/// Deletes an object through a base and expects that the memory of the whole object is freed. In a sanitizer build, the
/// sanitizer itself reports a wrong address or a leak.
template <class Base>
void expectDeletedWhole(Base* apObject)
{
    followMemory(0, dynamic_cast<void*>(apObject));
    delete apObject;
    EXPECT_EQ(FailingMemory::isPossible(), isFreed(0));
}

/// The expected family, code and kind of one leaf.
template <class LeafClass, class FamilyClass, unsigned int CodeOfLeaf, bool IsHalt>
struct Row {
    typedef LeafClass Leaf;
    typedef FamilyClass Family;
    static constexpr unsigned int cCode = CodeOfLeaf;
    static constexpr bool cHalt = IsHalt;
};

// clang-format off
typedef ::testing::Types<
    Row<OQCNoMemoryEx,                OQCGenericException,   2, true>,
    Row<OQCNullPointerEx,             OQCGenericException,   3, false>,
    Row<OQCInvalidEx,                 OQCGenericException,   6, false>,
    Row<OQCNotSupportedEx,            OQCGenericException,  12, false>,
    Row<OQCClibStatFailedEx,          OQCClibEx,           173, false>,
    Row<OQCTryAgainEx,                OQCOsException,      322, false>,
    Row<OQCTimeOutEx,                 OQCOsException,      323, false>,
    Row<OQCCreateFailedEx,            OQCOsException,      324, false>,
    Row<OQCOpenFailedEx,              OQCOsException,      326, false>,
    Row<OQCCloseFailedEx,             OQCOsException,      327, false>,
    Row<OQCReadFailedEx,              OQCOsException,      328, false>,
    Row<OQCFileLockFailedEx,          OQCOsException,      330, false>,
    Row<OQCFileUnLockFailedEx,        OQCOsException,      331, false>,
    Row<OQCPipeWaitFailedEx,          OQCOsException,      332, false>,
    Row<OQCMutexInitFailedEx,         OQCOsException,      333, false>,
    Row<OQCMutexDestroyFailedEx,      OQCOsException,      334, false>,
    Row<OQCMutexLockFailedEx,         OQCOsException,      335, true>,
    Row<OQCMutexUnlockFailedEx,       OQCOsException,      336, true>,
    Row<OQCCondInitFailedEx,          OQCOsException,      337, false>,
    Row<OQCCondDestroyFailedEx,       OQCOsException,      338, false>,
    Row<OQCCondWaitFailedEx,          OQCOsException,      339, true>,
    Row<OQCCondSignalFailedEx,        OQCOsException,      340, true>,
    Row<OQCCondBroadcastFailedEx,     OQCOsException,      341, true>,
    Row<OQCThreadStartFailedEx,       OQCOsException,      342, false>,
    Row<OQCThreadDestructionFailedEx, OQCOsException,      343, false>,
    Row<OQCThreadWaitForExitFailedEx, OQCOsException,      344, false>,
    Row<OQCProcessCreationFailedEx,   OQCOsException,      345, false>,
    Row<OQCProcessWaitFailedEx,       OQCOsException,      345, false>,
    Row<OQCGetIpAddressFailEx,        OQCOsException,      347, false>> Rows;
// clang-format on

/// Detects a virtual base: the language forbids a static_cast from it to the derived class.
template <class Base, class Derived, class = void>
struct IsVirtualBase : std::is_base_of<Base, Derived> {
};
template <class Base, class Derived>
struct IsVirtualBase<Base, Derived, decltype(static_cast<void>(static_cast<Derived*>(std::declval<Base*>())))>
    : std::false_type {
};

/// Returns whether a handler for the class catches the exception of an operation.
template <class Caught, class Operation>
bool caughtAs(const Operation& acrOperation, const std::string& acrText, unsigned int aCode)
{
    try {
        acrOperation();
    } catch (const Caught& acrCaught) {
        EXPECT_EQ(acrText, acrCaught.what());
        EXPECT_EQ(aCode, acrCaught.code());
        return true;
    } catch (...) {
        return false;
    }
    ADD_FAILURE() << "nothing was thrown";
    return false;
}

/// A class derived from a leaf. It constructs each virtual base with different arguments.
template <class TableRow, bool IsHalt>
struct Derived : TableRow::Leaf {
    Derived()
        : OQCException("the root's", 7),
          TableRow::Family("the family's", 8),
          TableRow::Leaf("the leaf's", TableRow::cCode)
    {
    }
};
template <class TableRow>
struct Derived<TableRow, true> : TableRow::Leaf {
    Derived()
        : OQCException("the root's", 7),
          TableRow::Family("the family's", 8),
          OQCHaltEx("the marker's", 9),
          TableRow::Leaf("the leaf's", TableRow::cCode)
    {
    }
};

template <class TableRow>
class ExceptionTreeTest : public RecordedTest
{
};
TYPED_TEST_SUITE(ExceptionTreeTest, Rows, );

TYPED_TEST(ExceptionTreeTest, LeafIsCaughtAsItselfItsFamilyTheRootAndHaltOnlyWhereSaid)
{
    typedef typename TypeParam::Leaf Leaf;
    const unsigned int lCode = TypeParam::cCode;
    const auto lThrow = [] { throw Leaf("a text", TypeParam::cCode); };
    EXPECT_TRUE((caughtAs<Leaf>(lThrow, "a text", lCode)));
    EXPECT_TRUE((caughtAs<typename TypeParam::Family>(lThrow, "a text", lCode)));
    EXPECT_TRUE((caughtAs<OQCException>(lThrow, "a text", lCode)));
    EXPECT_EQ(TypeParam::cHalt, (caughtAs<OQCHaltEx>(lThrow, "a text", lCode)));
    EXPECT_EQ((std::is_same<OQCGenericException, typename TypeParam::Family>::value),
              (caughtAs<OQCGenericException>(lThrow, "a text", lCode)));
    EXPECT_EQ((std::is_same<OQCOsException, typename TypeParam::Family>::value),
              (caughtAs<OQCOsException>(lThrow, "a text", lCode)));
    EXPECT_EQ((std::is_same<OQCClibEx, typename TypeParam::Family>::value),
              (caughtAs<OQCClibEx>(lThrow, "a text", lCode)));
    EXPECT_FALSE((std::is_convertible<Leaf*, std::exception*>::value));
    EXPECT_EQ(lCode, static_cast<unsigned int>(OQErrorCode<Leaf>::value));
}

TYPED_TEST(ExceptionTreeTest, BasesArePublicAndVirtual)
{
    typedef typename TypeParam::Leaf Leaf;
    typedef typename TypeParam::Family Family;
    EXPECT_TRUE((std::is_convertible<Leaf*, Family*>::value));
    EXPECT_TRUE((std::is_convertible<Leaf*, OQCException*>::value)) << "one root, reached without doubt";
    EXPECT_TRUE((IsVirtualBase<Family, Leaf>::value));
    EXPECT_TRUE((IsVirtualBase<OQCException, Family>::value));
    EXPECT_EQ(TypeParam::cHalt, (std::is_convertible<Leaf*, OQCHaltEx*>::value));
    EXPECT_EQ(TypeParam::cHalt, (IsVirtualBase<OQCHaltEx, Leaf>::value));
    EXPECT_TRUE((IsVirtualBase<OQCException, OQCHaltEx>::value));
}

TYPED_TEST(ExceptionTreeTest, LeafHasOneConstructorAVirtualDestructorAndNoData)
{
    typedef typename TypeParam::Leaf Leaf;
    EXPECT_FALSE(std::is_default_constructible<Leaf>::value);
    EXPECT_TRUE((std::is_constructible<Leaf, const char*, unsigned int>::value));
    EXPECT_FALSE((std::is_constructible<Leaf, const char*>::value));
    EXPECT_TRUE(std::has_virtual_destructor<Leaf>::value);
    // A leaf adds only table pointers to the root, at most one for each class.
    EXPECT_LE(sizeof(Leaf), sizeof(OQCException) + (TypeParam::cHalt ? 3U : 2U) * sizeof(void*));
}

TYPED_TEST(ExceptionTreeTest, MessageOutlivesItsBuffer)
{
    typedef typename TypeParam::Leaf Leaf;
    try {
        char lText[64] = "text of a dying buffer";
        Leaf lFailure(lText, TypeParam::cCode);
        memset(lText, 'x', sizeof lText);
        throw lFailure;
    } catch (const OQCException& acrFailure) {
        EXPECT_STREQ("text of a dying buffer", acrFailure.what());
    }
}

TYPED_TEST(ExceptionTreeTest, MostDerivedClassBuildsTheRoot)
{
    const Derived<TypeParam, TypeParam::cHalt> lFailure;
    EXPECT_STREQ("the root's", lFailure.what());
    EXPECT_EQ(7U, lFailure.code());
}

TYPED_TEST(ExceptionTreeTest, LeafIsDeletedWholeThroughEveryBase)
{
    typedef typename TypeParam::Leaf Leaf;
    expectDeletedWhole(new Leaf("a text", TypeParam::cCode));
    expectDeletedWhole<typename TypeParam::Family>(new Leaf("a text", TypeParam::cCode));
    expectDeletedWhole<OQCException>(new Leaf("a text", TypeParam::cCode));
}

// If a module's C++ library compares types by address, its handlers match only types with visible type information.
TYPED_TEST(ExceptionTreeTest, TypeInformationIsVisibleInTheLibrary)
{
    void* const lpLibrary = dlopen("libOQLinux.so.1", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, lpLibrary) << dlerror();
    for (const char* lpName : {typeid(typename TypeParam::Leaf).name(), typeid(typename TypeParam::Family).name(),
                               typeid(OQCHaltEx).name()}) {
        EXPECT_NE(nullptr, dlsym(lpLibrary, (std::string("_ZTI") + lpName).c_str())) << lpName;
    }
    dlclose(lpLibrary);
}

typedef RecordedTest ExceptionTest;

/// A class that is not a leaf takes text and code, has no default, and is deleted whole through the root.
template <class Family>
void expectFamily()
{
    EXPECT_STREQ("text", Family("text", 7).what());
    EXPECT_EQ(7U, Family("text", 7).code());
    EXPECT_FALSE(std::is_default_constructible<Family>::value);
    expectDeletedWhole<OQCException>(new Family("text", 7));
}

TEST_F(ExceptionTest, FamiliesAndTheRootTakeTextAndCodeAndAreDeletedWhole)
{
    expectFamily<OQCGenericException>();
    expectFamily<OQCOsException>();
    expectFamily<OQCHaltEx>();
    expectFamily<OQCClibEx>();
    expectFamily<OQCException>();
}

TEST_F(ExceptionTest, LongMessagesAreCutAt255Characters)
{
    for (const size_t lLength : {0U, 1U, 254U, 255U, 256U, 257U, 1000U}) {
        std::string lText(lLength, 'a');
        for (size_t lIndex = 0; lIndex < lLength; ++lIndex) {
            lText[lIndex] = static_cast<char>('a' + lIndex % 26);
        }
        const OQCTimeOutEx lFailure(lText.c_str(), 0xFFFFFFFFU);
        EXPECT_EQ(lText.substr(0, 255), lFailure.what()) << lLength;
        EXPECT_EQ(0xFFFFFFFFU, lFailure.code()) << lLength;
    }
}

TEST_F(ExceptionTest, MessageFollowsTheTablePointerAndCodeFollowsTheMessage)
{
    const OQCException lFailure("a message", 0xA1B2C3D4U);
    char lBytes[sizeof lFailure];
    memcpy(lBytes, static_cast<const void*>(&lFailure), sizeof lBytes);
    EXPECT_STREQ("a message", lBytes + sizeof(void*));
    uint32_t lCode;
    memcpy(&lCode, lBytes + sizeof(void*) + 256, sizeof lCode);
    EXPECT_EQ(0xA1B2C3D4U, lCode);
    EXPECT_EQ((sizeof(void*) + 256 + 4 + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*), sizeof lFailure);
    EXPECT_EQ(static_cast<const void*>(reinterpret_cast<const char*>(&lFailure) + sizeof(void*)), lFailure.what());
}

TEST_F(ExceptionTest, WhatIsTheThirdVirtualOperation)
{
    struct Probe : OQCException {
        Probe() : OQCException("the root's own text", 1) {}
        const char* what() const override { return "third"; }
    };
    const Probe lProbe;
    const OQCException lRoot("the root's own text", 1);
    const void* const* lpOfProbe;
    const void* const* lpOfRoot;
    memcpy(&lpOfProbe, static_cast<const void*>(&lProbe), sizeof lpOfProbe);
    memcpy(&lpOfRoot, static_cast<const void*>(&lRoot), sizeof lpOfRoot);
    // The first two slots are the destructors of the class itself. Callers use the slot after them for what().
    const char* (*lpWhat)(const OQCException*);
    memcpy(&lpWhat, lpOfProbe + 2, sizeof lpWhat);
    EXPECT_STREQ("third", lpWhat(&lProbe));
    memcpy(&lpWhat, lpOfRoot + 2, sizeof lpWhat);
    EXPECT_STREQ("the root's own text", lpWhat(&lRoot));
}

TEST_F(ExceptionTest, WhatAllocatesNothing)
{
    const OQCNoMemoryEx lFailure("Out of Memory", 2);
    const OQCException& lrRoot = lFailure;
    const FailingMemory lCounting(0);
    EXPECT_STREQ("Out of Memory", lrRoot.what());
    EXPECT_EQ(0U, FailingMemory::taken());
}

TEST_F(ExceptionTest, HandlerByReferenceGetsTheSameTextThroughEveryBase)
{
    pthread_mutex_t lMutex = PTHREAD_MUTEX_INITIALIZER;
    OsLockMutex(lMutex);
    errno = EILSEQ;
    try {
        OsTrylockMutex(lMutex);
        ADD_FAILURE();
    } catch (const OQCOsException& acrFamily) {
        EXPECT_STREQ(strerror(EILSEQ), acrFamily.what());
        EXPECT_EQ(335U, acrFamily.code());
        const OQCHaltEx* const lpHalt = dynamic_cast<const OQCHaltEx*>(&acrFamily);
        ASSERT_NE(nullptr, lpHalt);
        EXPECT_EQ(static_cast<const void*>(acrFamily.what()), lpHalt->what()) << "one message in the object";
    }
    OsUnlockMutex(lMutex);
}

/// Expects that handlers for the leaf, its family and the root catch the exception of another module, and handlers for
/// the other classes do not.
template <class Leaf, class Family, class... Others>
void expectMatches(const std::function<void()>& acrOperation, const std::string& acrText, unsigned int aCode)
{
    EXPECT_TRUE((caughtAs<Leaf>(acrOperation, acrText, aCode)));
    EXPECT_TRUE((caughtAs<Family>(acrOperation, acrText, aCode)));
    EXPECT_TRUE((caughtAs<OQCException>(acrOperation, acrText, aCode)));
    EXPECT_FALSE((caughtAs<OQCHaltEx>(acrOperation, acrText, aCode)));
    EXPECT_FALSE((caughtAs<Others>(acrOperation, acrText, aCode) || ...));
}

TEST_F(ExceptionTest, ExceptionsOfTheLibraryAndOfTheCompanionMatchInAnotherModule)
{
    unsigned long lThread = 0;
    int lPipe = -1;
    struct stat lInfo;
    expectMatches<OQCNotSupportedEx, OQCGenericException, OQCOsException, OQCInvalidEx>(
        [&] { OsResumeThread(lThread); }, "Not Supported", 12);
    expectMatches<OQCNullPointerEx, OQCGenericException, OQCOsException>(
        [&] { OsStartThread(lThread, nullptr, nullptr); }, "Null Pointer", 3);
    expectMatches<OQCInvalidEx, OQCGenericException, OQCOsException>(
        [&] { OsNamedPipeOpen(lPipe, "/nowhere", static_cast<OQEFileMode>(9), OQPS_Blocking, OQCM_Client); },
        "Invalid flags passed to open pipe", 6);
    expectMatches<OQCFileLockFailedEx, OQCOsException, OQCGenericException>([] { OsLockFile(-1); },
                                                                            "Bad file descriptor", 330);
    expectMatches<OQCClibStatFailedEx, OQCClibEx, OQCOsException>([&] { ClibStat("/no/such/path", &lInfo); },
                                                                  "No such file or directory", 173);
}

/// Logs its destruction.
struct Witness {
    ~Witness() { PrintLogMessageWithTimeStamp(OQLL_Information, "-I-", 1, "f", "f", "destroyed"); }
};

TEST_F(ExceptionTest, FailedAssertionRunsTheExitHandlersAndUnwindsNothing)
{
    EXPECT_EQ(1, inChild([] {
                  const Witness lWitness;
                  atexit([] { PrintLogMessageWithTimeStamp(OQLL_Information, "-I-", 1, "f", "f", "exit handler"); });
                  try {
                      (void)*Pointer<int>();
                  } catch (...) {
                      PrintLogMessageWithTimeStamp(OQLL_Information, "-I-", 1, "f", "f", "caught");
                  }
              }));
    EXPECT_EQ("operator*: -H- \"Assertion [ %s ] failed\\n\" \"0 != mPointer\"\nf f: -I- \"exit handler\"\n",
              traceOf(recorded(), "", "backend/common/include/Pointer"));
}

#if !OQ_SANITIZED
TEST_F(ExceptionTest, FailureIsThrownInTheFrameOfItsOperationOrInTheNextOne)
{
    pthread_mutex_t lMutex = PTHREAD_MUTEX_INITIALIZER;
    OsLockMutex(lMutex);
    unsigned long lThread = 0;
    int lPipe = -1;
    const auto lFramesOf = [](const std::function<void()>& acrOperation) {
        sLayerFrames = 0;
        EXPECT_THROW(acrOperation(), OQCException);
        return sLayerFrames;
    };
    EXPECT_EQ(1, lFramesOf([&] { OsResumeThread(lThread); }));
    EXPECT_EQ(1, lFramesOf([&] { OsStartThread(lThread, nullptr, nullptr); }));
    EXPECT_EQ(1, lFramesOf([] { OsLockFile(-1); }));
    EXPECT_EQ(1, lFramesOf([] { OsUnlockFile(-1); }));
    EXPECT_EQ(1, lFramesOf([] { OsWaitForActivity(-1, 0); }));
    EXPECT_EQ(1, lFramesOf([&] { OsNamedPipeCreate("/nonexistent/pipe", lPipe); }));
    EXPECT_EQ(2, lFramesOf([&] { OsTrylockMutex(lMutex); }));
    OsUnlockMutex(lMutex);
}
#endif

}  // namespace
