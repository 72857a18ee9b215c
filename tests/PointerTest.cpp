#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace
{

/// What happens to counters and pointees, in its order.
typedef std::vector<std::string> Events;
Events sEvents;
bool sNoted = false;
bool sCounterThrows = false;
void* volatile sWatched = nullptr;
volatile int sWatchedFrees = 0;

void note(const std::string& acrEvent)
{
    if (sNoted) {
        sEvents.push_back(acrEvent);
    }
}

}  // namespace

// The program's own counter takes the place of the companion's, in the same words, and notes each call.
OQCReferenceCount::OQCReferenceCount(unsigned int aInitial) : mCount(aInitial)
{
    note("counter " + std::to_string(aInitial));
    if (sCounterThrows) {
        throw 42;
    }
}

OQCReferenceCount::~OQCReferenceCount() { note("~counter"); }

void OQCReferenceCount::increment() { note("increment to " + std::to_string(++mCount)); }

unsigned int OQCReferenceCount::decrement()
{
    const unsigned int lCount = --mCount;
    note("decrement to " + std::to_string(lCount));
    return lCount;
}

#if !OQ_SANITIZED
extern "C" void __libc_free(void* apMemory);
extern "C" void free(void* apMemory) noexcept
{
    if (nullptr != apMemory && sWatched == apMemory) {
        sWatchedFrees = sWatchedFrees + 1;
    }
    __libc_free(apMemory);
}
#endif

namespace
{

/// A pointee that notes its end and the form of delete that frees it.
class Pointee
{
public:
    explicit Pointee(int aNumber = 0) : mNumber(aNumber) {}
    ~Pointee() { note("~pointee " + std::to_string(mNumber)); }
    int number() const { return mNumber; }
    void setNumber(int aNumber) { mNumber = aNumber; }

    // Not inlined: GCC would see only one of malloc() and free() in some builds and warn that the other does not match.
    __attribute__((noinline)) static void* operator new(size_t aSize, const std::nothrow_t&) noexcept
    {
        return malloc(aSize);
    }
    __attribute__((noinline)) static void* operator new[](size_t aSize, const std::nothrow_t&) noexcept
    {
        return malloc(aSize);
    }
    __attribute__((noinline)) static void operator delete(void* apMemory)
    {
        note("delete");
        free(apMemory);
    }
    __attribute__((noinline)) static void operator delete[](void* apMemory)
    {
        note("delete[]");
        free(apMemory);
    }

private:
    int mNumber;
};

typedef Pointer<Pointee> PointeePointer;

/// The four fields as they stand in memory.
struct Fields {
    void* mPointer;
    void* mReferenceCount;
    unsigned char mSizeType;
    unsigned char mMemoryType;
};

/// Not inlined: what stands in the memory counts, not what the compiler knows of the object that was there.
__attribute__((noinline)) Fields fieldsAt(const volatile void* acMemory)
{
    char lBytes[3 * sizeof(void*)];
    for (size_t lIndex = 0; lIndex < sizeof lBytes; ++lIndex) {
        lBytes[lIndex] = static_cast<const volatile char*>(acMemory)[lIndex];
    }
    Fields lFields;
    memcpy(&lFields.mPointer, lBytes, sizeof(void*));
    memcpy(&lFields.mReferenceCount, lBytes + sizeof(void*), sizeof(void*));
    memcpy(&lFields.mSizeType, lBytes + 2 * sizeof(void*), 1);
    memcpy(&lFields.mMemoryType, lBytes + 2 * sizeof(void*) + 1, 1);
    return lFields;
}

uint32_t countOf(const PointeePointer& acrPointer)
{
    uint32_t lCount;
    memcpy(&lCount, fieldsAt(&acrPointer).mReferenceCount, sizeof lCount);
    return lCount;
}

void expectEmpty(const volatile void* acMemory)
{
    const Fields lFields = fieldsAt(acMemory);
    EXPECT_EQ(nullptr, lFields.mPointer);
    EXPECT_EQ(nullptr, lFields.mReferenceCount);
    EXPECT_EQ(0, lFields.mSizeType);
    EXPECT_EQ(0, lFields.mMemoryType);
}

/// Damages an object as no operation of its own can. Not inlined, so that the compiler believes it.
__attribute__((noinline)) void overwrite(void* apMemory, size_t aOffset, const void* acBytes, size_t aSize)
{
    memcpy(static_cast<char*>(apMemory) + aOffset, acBytes, aSize);
    __asm__ volatile("" : : "r"(apMemory) : "memory");
}

/// Room for a Pointer whose destructor is called by hand.
class Storage
{
public:
    Storage() { memset(mBytes, 0xEE, sizeof mBytes); }
    void* room() { return mBytes; }
    PointeePointer& pointer() { return *reinterpret_cast<PointeePointer*>(mBytes); }

private:
    alignas(PointeePointer) char mBytes[sizeof(PointeePointer)];
};

PointeePointer single(int aNumber = 1)
{
    return PointeePointer(new (std::nothrow) Pointee(aNumber), OQPST_Individual, OQPMT_New);
}

class PointerTest : public LayerTest
{
protected:
    void SetUp() override
    {
        LayerTest::SetUp();
        startNoting();
    }
    void TearDown() override
    {
        sNoted = false;
        sCounterThrows = false;
        sEvents.clear();
        sWatched = nullptr;
        LayerTest::TearDown();
    }

    static void startNoting()
    {
        sEvents.clear();
        sNoted = true;
    }
    static Events events()
    {
        Events lEvents;
        lEvents.swap(sEvents);
        return lEvents;
    }
    static LinesOf linesOf(const char* acFunction) { return LinesOf("backend/common/include/Pointer", acFunction); }

    /// Expects that the operation ends a process with exit status 1 and this line, and nothing else.
    static void expectAssertion(const char* acFunction, const char* acCondition, const std::function<void()>& acrRun)
    {
        const ChildResult lChild = inChild([&acrRun] {
            sNoted = false;
            acrRun();
        });
        EXPECT_EQ(1, lChild.mExitStatus);
        EXPECT_EQ(0, lChild.mSignal);
        EXPECT_EQ((Lines{linesOf(acFunction).assertion(acCondition)}), lChild.mLines);
    }
};

TEST_F(PointerTest, FieldsStandInTheirOrder)
{
    Pointee* const lpPointee = new (std::nothrow) Pointee(1);
    const PointeePointer lPointer(lpPointee, OQPST_Individual, OQPMT_New);
    const Fields lFields = fieldsAt(&lPointer);
    EXPECT_EQ(lpPointee, lFields.mPointer);
    EXPECT_EQ(1U, countOf(lPointer));
    EXPECT_EQ(1, lFields.mSizeType);
    EXPECT_EQ(1, lFields.mMemoryType);
    EXPECT_EQ(3 * sizeof(void*), sizeof lPointer);

    void* const lpBlock = malloc(sizeof(Pointee));
    const PointeePointer lOther(static_cast<Pointee*>(lpBlock), OQPST_Array, OQPMT_Malloc);
    EXPECT_EQ(lpBlock, fieldsAt(&lOther).mPointer);
    EXPECT_EQ(2, fieldsAt(&lOther).mSizeType);
    EXPECT_EQ(2, fieldsAt(&lOther).mMemoryType);
}

TEST_F(PointerTest, KindsAreOneByteWithTheirNumbers)
{
    EXPECT_EQ(1, OQPST_Individual);
    EXPECT_EQ(2, OQPST_Array);
    EXPECT_EQ(1, OQPMT_New);
    EXPECT_EQ(2, OQPMT_Malloc);
    EXPECT_EQ(1U, sizeof(OQEPointerSizeType));
    EXPECT_EQ(1U, sizeof(OQEPointerMemoryType));
}

TEST_F(PointerTest, DefaultBuiltPointerIsEmptyAndSilent)
{
    Storage lStorage;
    new (lStorage.room()) PointeePointer();
    expectEmpty(lStorage.room());
    lStorage.pointer().~PointeePointer();
    expectEmpty(lStorage.room());
    EXPECT_EQ(Events(), events());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, ConstructionMakesACounterOfOne)
{
    {
        const PointeePointer lPointer = single(5);
        EXPECT_EQ((Events{"counter 1"}), events());
        EXPECT_EQ(1U, countOf(lPointer));
    }
    EXPECT_EQ((Events{"decrement to 0", "~counter", "~pointee 5", "delete"}), events());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, NullPointeeThrowsNoMemoryBeforeACounterIsMade)
{
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", PointeePointer(nullptr, OQPST_Individual, OQPMT_New));
    EXPECT_FAILURE(OQCNoMemoryEx, 2, "Out of Memory", PointeePointer(nullptr, OQPST_Array, OQPMT_Malloc));
    EXPECT_EQ(Events(), events());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, CounterThatCannotBeHadThrowsNoMemoryAndLeavesThePointeeAllocated)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "allocations are the sanitizer's and cannot be made to fail";
    }
    Pointee* const lpPointee = new (std::nothrow) Pointee(8);
    sWatched = lpPointee;
    sWatchedFrees = 0;
    bool lThrown = false;
    gMallocFault.failOn(1);
    try {
        const PointeePointer lPointer(lpPointee, OQPST_Individual, OQPMT_New);
    } catch (const OQCNoMemoryEx& acrFailure) {
        gMallocFault.stop();
        lThrown = true;
        EXPECT_STREQ("Out of Memory", acrFailure.what());
        EXPECT_EQ(2U, acrFailure.code());
    }
    gMallocFault.stop();
    EXPECT_TRUE(lThrown);
    EXPECT_EQ(Events(), events());
    EXPECT_EQ(0, sWatchedFrees);
    EXPECT_EQ(8, lpPointee->number());
    EXPECT_EQ(Lines(), logged());
    delete lpPointee;
}

/// The counter is the host's: one that throws passes its exception on, and only its own memory is freed again.
TEST_F(PointerTest, ExceptionOfTheCounterPassesAndLeavesThePointeeAllocated)
{
    Pointee* const lpPointee = new (std::nothrow) Pointee(8);
    sWatched = lpPointee;
    sWatchedFrees = 0;
    sCounterThrows = true;
    EXPECT_THROW(PointeePointer(lpPointee, OQPST_Individual, OQPMT_New), int);
    EXPECT_EQ((Events{"counter 1"}), events());
    EXPECT_EQ(0, sWatchedFrees);
    EXPECT_EQ(8, lpPointee->number());
    EXPECT_EQ(Lines(), logged());
    delete lpPointee;
}

TEST_F(PointerTest, ConstructionAllocatesTheCounterAlone)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "allocations are the sanitizer's";
    }
    sNoted = false;
    Pointee* const lpPointee = new (std::nothrow) Pointee(8);
    gMallocFault.failOn(0);
    const PointeePointer lPointer(lpPointee, OQPST_Individual, OQPMT_New);
    PointeePointer lOther(lPointer);
    lOther = lPointer;
    EXPECT_EQ(1U, gMallocFault.stop());
}

TEST_F(PointerTest, AssignedPointersShareACounterOfTwoAndTheLastOneFrees)
{
    Storage lFirst;
    Storage lSecond;
    new (lFirst.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
    new (lSecond.room()) PointeePointer();
    EXPECT_EQ(&lSecond.pointer(), &(lSecond.pointer() = lFirst.pointer()));
    EXPECT_EQ((Events{"counter 1", "increment to 2"}), events());
    EXPECT_EQ(2U, countOf(lFirst.pointer()));
    const Fields lOfFirst = fieldsAt(lFirst.room());
    const Fields lOfSecond = fieldsAt(lSecond.room());
    EXPECT_EQ(lOfFirst.mPointer, lOfSecond.mPointer);
    EXPECT_EQ(lOfFirst.mReferenceCount, lOfSecond.mReferenceCount);
    EXPECT_EQ(lOfFirst.mSizeType, lOfSecond.mSizeType);
    EXPECT_EQ(lOfFirst.mMemoryType, lOfSecond.mMemoryType);

    lFirst.pointer().~PointeePointer();
    EXPECT_EQ((Events{"decrement to 1"}), events());
    expectEmpty(lFirst.room());
    EXPECT_EQ(3, lSecond.pointer()->number());

    lSecond.pointer().~PointeePointer();
    EXPECT_EQ((Events{"decrement to 0", "~counter", "~pointee 3", "delete"}), events());
    expectEmpty(lSecond.room());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, CounterIsFreedBeforeThePointee)
{
    PointeePointer lPointer = single(1);
    events();
    lPointer = single(2);
    // The old pointee goes before the new counter rises; the temporary lets go last.
    EXPECT_EQ(
        (Events{"counter 1", "decrement to 0", "~counter", "~pointee 1", "delete", "increment to 2", "decrement to 1"}),
        events());
    EXPECT_EQ(2, lPointer->number());
    EXPECT_EQ(1U, countOf(lPointer));
}

TEST_F(PointerTest, CounterAndPointeeAreFreedOnceEach)
{
    if (OQ_SANITIZED) {
        GTEST_SKIP() << "the sanitizer watches over this itself, in every test";
    }
    for (const bool lIsCounter : {true, false}) {
        Storage lStorage;
        new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
        const Fields lFields = fieldsAt(lStorage.room());
        sNoted = false;  // noting allocates, perhaps at the very place that was freed
        sWatchedFrees = 0;
        sWatched = lIsCounter ? lFields.mReferenceCount : lFields.mPointer;
        lStorage.pointer().~PointeePointer();
        sWatched = nullptr;
        EXPECT_EQ(1, sWatchedFrees) << lIsCounter;
    }
}

TEST_F(PointerTest, AssignmentFromOneOfManyHoldersReleasesOnlyOne)
{
    PointeePointer lFirst = single(1);
    PointeePointer lKept(lFirst);
    const PointeePointer lOther = single(2);
    events();
    lFirst = lOther;
    EXPECT_EQ((Events{"decrement to 1", "increment to 2"}), events());
    EXPECT_EQ(1, lKept->number());
    EXPECT_EQ(2, lFirst->number());
    EXPECT_EQ(1U, countOf(lKept));
    EXPECT_EQ(2U, countOf(lFirst));
}

TEST_F(PointerTest, AssignmentBetweenHoldersOfOnePointeeKeepsTheCount)
{
    PointeePointer lFirst = single(1);
    const PointeePointer lSecond(lFirst);
    events();
    lFirst = lSecond;
    EXPECT_EQ((Events{"decrement to 1", "increment to 2"}), events());
    EXPECT_EQ(2U, countOf(lSecond));
}

TEST_F(PointerTest, SelfAssignmentChangesNothing)
{
    PointeePointer lPointer = single(1);
    const PointeePointer& lrSelf = lPointer;
    const Fields lBefore = fieldsAt(&lPointer);
    events();
    EXPECT_EQ(&lPointer, &(lPointer = lrSelf));
    EXPECT_EQ(Events(), events());
    EXPECT_EQ(lBefore.mPointer, fieldsAt(&lPointer).mPointer);
    EXPECT_EQ(lBefore.mReferenceCount, fieldsAt(&lPointer).mReferenceCount);
    EXPECT_EQ(1U, countOf(lPointer));
}

TEST_F(PointerTest, CopyConstructionKeepsTheCountRight)
{
    const PointeePointer lFirst = single(4);
    events();
    {
        const PointeePointer lSecond(lFirst);
        EXPECT_EQ((Events{"increment to 2"}), events());
        EXPECT_EQ(4, lSecond->number());
    }
    EXPECT_EQ((Events{"decrement to 1"}), events());
    const PointeePointer lEmpty;
    const PointeePointer lCopy(lEmpty);
    expectEmpty(&lCopy);
    EXPECT_EQ(Events(), events());
}

TEST_F(PointerTest, ArrayIsFreedWithItsOwnDeleteLastElementFirst)
{
    Pointee* const lpArray = new (std::nothrow) Pointee[3];
    for (int lIndex = 0; lIndex < 3; ++lIndex) {
        lpArray[lIndex].setNumber(lIndex);
    }
    {
        const PointeePointer lPointer(lpArray, OQPST_Array, OQPMT_New);
        events();
    }
    EXPECT_EQ((Events{"decrement to 0", "~counter", "~pointee 2", "~pointee 1", "~pointee 0", "delete[]"}), events());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, MallocBlockIsFreedWithFreeAndNoDestructorRuns)
{
    for (const OQEPointerSizeType lSizeType : {OQPST_Individual, OQPST_Array, static_cast<OQEPointerSizeType>(7)}) {
        void* const lpBlock = malloc(sizeof(Pointee));
        sWatchedFrees = 0;
        {
            const PointeePointer lPointer(::new (lpBlock) Pointee(1), lSizeType, OQPMT_Malloc);
            EXPECT_EQ((Events{"counter 1"}), events());
            sWatched = lpBlock;
        }
        // Under the leak checker a block that is not freed, or not with free(), is reported; here the calls are
        // counted.
        EXPECT_EQ(OQ_SANITIZED ? 0 : 1, sWatchedFrees);
        sWatched = nullptr;
        EXPECT_EQ((Events{"decrement to 0", "~counter"}), events());
    }
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, ConstantPointeeIsHeldComparedAndFreedAsAnyOther)
{
    const Pointee* const lpPointee = new (std::nothrow) Pointee(5);
    const Pointee* const lpArray = new (std::nothrow) Pointee[2];
    {
        Pointer<const Pointee> lSingle(lpPointee, OQPST_Individual, OQPMT_New);
        const Pointer<const Pointee> lCopy(lSingle);
        lSingle = lCopy;
        EXPECT_EQ(5, lSingle->number());
        EXPECT_EQ(5, (*lCopy).number());
        EXPECT_TRUE(lCopy != 0);
        EXPECT_FALSE(lCopy != lpPointee);
        const Pointer<const Pointee> lArray(lpArray, OQPST_Array, OQPMT_New);
        EXPECT_EQ(lpArray, &*lArray);
        events();
    }
    EXPECT_EQ((Events{"decrement to 0", "~counter", "~pointee 0", "~pointee 0", "delete[]", "decrement to 1",
                      "decrement to 0", "~counter", "~pointee 5", "delete"}),
              events());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, ConstantMallocBlockIsFreedWithFree)
{
    void* const lpBlock = malloc(sizeof(int));
    sWatchedFrees = 0;
    {
        const Pointer<const int> lPointer(::new (lpBlock) int(6), OQPST_Individual, OQPMT_Malloc);
        EXPECT_EQ(6, *lPointer);
        sWatched = lpBlock;
    }
    EXPECT_EQ(OQ_SANITIZED ? 0 : 1, sWatchedFrees);
    sWatched = nullptr;
}

TEST_F(PointerTest, StarGivesTheObjectOrTheFirstElement)
{
    PointeePointer lSingle = single(7);
    const PointeePointer& lrConstant = lSingle;
    EXPECT_EQ(7, (*lSingle).number());
    EXPECT_EQ(fieldsAt(&lSingle).mPointer, &*lrConstant);

    Pointee* const lpArray = new (std::nothrow) Pointee[2];
    PointeePointer lArray(lpArray, OQPST_Array, OQPMT_New);
    EXPECT_EQ(lpArray, &*lArray);
    (*lArray).setNumber(9);
    EXPECT_EQ(9, lpArray[0].number());
    EXPECT_EQ(0, lpArray[1].number());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, ArrowGivesTheSingleObject)
{
    PointeePointer lPointer = single(7);
    const PointeePointer& lrConstant = lPointer;
    lPointer->setNumber(8);
    EXPECT_EQ(8, lrConstant->number());
    EXPECT_EQ(fieldsAt(&lPointer).mPointer, lPointer.operator->());
    EXPECT_EQ(fieldsAt(&lPointer).mPointer, lrConstant.operator->());
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, UnequalTellsEmptinessAndNeverAsserts)
{
    Pointee lOther;
    const PointeePointer lHolding = single(1);
    EXPECT_TRUE(lHolding != 0);
    EXPECT_TRUE(lHolding != &lOther);
    EXPECT_FALSE(lHolding != static_cast<Pointee*>(fieldsAt(&lHolding).mPointer));

    const PointeePointer lEmpty;
    EXPECT_FALSE(lEmpty != 0);
    EXPECT_TRUE(lEmpty != &lOther);

    Storage lStorage;
    new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
    lStorage.pointer().~PointeePointer();
    const Fields lFields = fieldsAt(lStorage.room());
    Storage lCopy;  // the bytes of the destroyed one, in a place where the compiler knows of no destruction
    overwrite(lCopy.room(), 0, &lFields.mPointer, sizeof(void*));
    EXPECT_FALSE(lCopy.pointer() != 0);
    EXPECT_TRUE(lCopy.pointer() != &lOther);
    EXPECT_EQ(Lines(), logged());
}

TEST_F(PointerTest, DereferencingAnEmptyPointerEndsTheProcess)
{
    expectAssertion("operator*", "0 != mPointer", [] {
        PointeePointer lEmpty;
        (*lEmpty).setNumber(1);
    });
    expectAssertion("operator->", "0 != mPointer", [] {
        PointeePointer lEmpty;
        lEmpty->setNumber(1);
    });
    expectAssertion("operator->", "0 != mPointer", [] {
        const PointeePointer lEmpty;
        (void)lEmpty->number();
    });
}

TEST_F(PointerTest, DereferencingWithoutACounterEndsTheProcess)
{
    static void* sCounter;  // still reachable when the child ends
    const auto lDamaged = [](Storage& arStorage) -> PointeePointer& {
        new (arStorage.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
        sCounter = fieldsAt(arStorage.room()).mReferenceCount;
        void* const lpNone = nullptr;
        overwrite(arStorage.room(), sizeof(void*), &lpNone, sizeof lpNone);
        return arStorage.pointer();
    };
    expectAssertion("operator*", "0 != mReferenceCount", [&lDamaged] {
        Storage lStorage;
        (void)*lDamaged(lStorage);
    });
    expectAssertion("operator->", "0 != mReferenceCount", [&lDamaged] {
        Storage lStorage;
        (void)lDamaged(lStorage)->number();
    });
    expectAssertion("operator=", "0 != acrCopy.mReferenceCount", [&lDamaged] {
        Storage lStorage;
        PointeePointer lTarget;
        lTarget = lDamaged(lStorage);
    });
    expectAssertion("operator=", "0 != acrCopy.mReferenceCount", [&lDamaged] {
        Storage lStorage;
        PointeePointer& lrSelf = lDamaged(lStorage);
        lDamaged(lStorage) = lrSelf;
    });
    // The destructor asks for both and leaves alone what it cannot count.
    Storage lStorage;
    lDamaged(lStorage);
    Pointee* const lpPointee = static_cast<Pointee*>(fieldsAt(lStorage.room()).mPointer);
    events();
    lStorage.pointer().~PointeePointer();
    EXPECT_EQ(Events(), events());
    expectEmpty(lStorage.room());
    delete lpPointee;
    delete static_cast<OQCReferenceCount*>(sCounter);
}

TEST_F(PointerTest, ArrowOnAnArrayEndsTheProcess)
{
    expectAssertion("operator->", "OQPST_Individual == mSizeType", [] {
        PointeePointer lArray(new (std::nothrow) Pointee[2], OQPST_Array, OQPMT_New);
        lArray->setNumber(1);
    });
    expectAssertion("operator->", "OQPST_Individual == mSizeType", [] {
        const PointeePointer lArray(new (std::nothrow) Pointee[2], OQPST_Array, OQPMT_New);
        (void)lArray->number();
    });
    expectAssertion("operator->", "OQPST_Individual == mSizeType", [] {
        PointeePointer lOdd(new (std::nothrow) Pointee, static_cast<OQEPointerSizeType>(7), OQPMT_New);
        lOdd->setNumber(1);
    });
}

TEST_F(PointerTest, StarOnAnUnknownSizeTypeEndsTheProcess)
{
    for (const int lSizeType : {0, 3, 7, 255}) {
        expectAssertion("operator*", "false", [lSizeType] {
            PointeePointer lOdd(new (std::nothrow) Pointee, static_cast<OQEPointerSizeType>(lSizeType), OQPMT_New);
            (*lOdd).setNumber(1);
        });
    }
}

TEST_F(PointerTest, AssignmentFromAnEmptyPointerEndsTheProcess)
{
    expectAssertion("operator=", "0 != acrCopy.mPointer", [] {
        const PointeePointer lEmpty;
        PointeePointer lTarget = single(1);
        lTarget = lEmpty;
    });
}

TEST_F(PointerTest, AssignmentOfAnEmptyPointerToItselfEndsTheProcess)
{
    expectAssertion("operator=", "0 != acrCopy.mPointer", [] {
        PointeePointer lEmpty;
        const PointeePointer& lrSelf = lEmpty;
        lEmpty = lrSelf;
    });
}

TEST_F(PointerTest, FreeingWithAnUnknownKindEndsTheProcess)
{
    static Pointee* sPointee;  // still reachable when the child ends
    for (const int lKind : {0, 3, 7, 255}) {
        expectAssertion("_releaseMemory", "false", [lKind] {
            sPointee = new (std::nothrow) Pointee;
            const PointeePointer lOdd(sPointee, static_cast<OQEPointerSizeType>(lKind), OQPMT_New);
        });
        expectAssertion("_releaseMemory", "false", [lKind] {
            sPointee = new (std::nothrow) Pointee;
            const PointeePointer lOdd(sPointee, OQPST_Individual, static_cast<OQEPointerMemoryType>(lKind));
        });
        expectAssertion("_releaseMemory", "false", [lKind] {
            sPointee = new (std::nothrow) Pointee;
            PointeePointer lOdd(sPointee, static_cast<OQEPointerSizeType>(lKind), OQPMT_New);
            lOdd = single(2);
        });
        expectAssertion("_releaseMemory", "false", [lKind] {
            sPointee = new (std::nothrow) Pointee;
            PointeePointer lOdd(sPointee, OQPST_Individual, static_cast<OQEPointerMemoryType>(lKind));
            lOdd = single(2);
        });
    }
}

TEST_F(PointerTest, UnknownKindIsNoMatterUntilTheLastHolderFrees)
{
    Pointee* const lpPointee = new (std::nothrow) Pointee(1);
    Storage lStorage;
    new (lStorage.room()) PointeePointer(lpPointee, OQPST_Individual, static_cast<OQEPointerMemoryType>(9));
    {
        const PointeePointer lSecond(lStorage.pointer());
        EXPECT_EQ(9, fieldsAt(&lSecond).mMemoryType);
    }
    EXPECT_EQ((Events{"counter 1", "increment to 2", "decrement to 1"}), events());
    EXPECT_EQ(Lines(), logged());
    const unsigned char lNew = OQPMT_New;
    overwrite(lStorage.room(), 2 * sizeof(void*) + 1, &lNew, 1);
    lStorage.pointer().~PointeePointer();
}

TEST_F(PointerTest, DestroyedPointerReadsAsEmpty)
{
    Storage lStorage;
    new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(1), OQPST_Individual, OQPMT_New);
    lStorage.pointer().~PointeePointer();
    expectEmpty(lStorage.room());

    // Also when it was not the last.
    const PointeePointer lKept = single(2);
    new (lStorage.room()) PointeePointer(lKept);
    lStorage.pointer().~PointeePointer();
    expectEmpty(lStorage.room());
    EXPECT_EQ(1U, countOf(lKept));
}

TEST_F(PointerTest, DestroyedPointerEndsTheProcessWhenDereferenced)
{
    expectAssertion("operator*", "0 != mPointer", [] {
        Storage lStorage;
        new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(1), OQPST_Individual, OQPMT_New);
        lStorage.pointer().~PointeePointer();
        __asm__ volatile("" : : "r"(lStorage.room()) : "memory");
        (void)*lStorage.pointer();
    });
}

TEST_F(PointerTest, CopiesHeldByDifferentThreadsAreIndependent)
{
    sNoted = false;
    PointeePointer lShared = single(1);
    const auto lRun = [](PointeePointer aMine) {
        for (int lRound = 0; lRound < 20000; ++lRound) {
            const PointeePointer lCopy(aMine);
            PointeePointer lAssigned(lCopy);
            lAssigned = aMine;
        }
    };
    std::thread lFirst(lRun, lShared);
    std::thread lSecond(lRun, lShared);
    lRun(lShared);
    lFirst.join();
    lSecond.join();
    EXPECT_EQ(1U, countOf(lShared));
}

}  // namespace
