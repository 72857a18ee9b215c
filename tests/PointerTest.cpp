// The ownership of pointees. outcomes/Values.cpp tests how operations throw or end the process.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <sstream>

#include "Substitutes.h"

namespace
{

void note(const char* acEvent) { const CallRecord lCall(true, acEvent, {}); }

/// A pointee that records its destruction and the form of delete that frees it.
class Pointee
{
public:
    explicit Pointee(int aNumber = 0) : mNumber(aNumber) {}
    ~Pointee() { const CallRecord lCall(true, "~Pointee", {::number(mNumber)}); }
    int number() const { return mNumber; }
    void setNumber(int aNumber) { mNumber = aNumber; }

    // Not inlined: in some builds GCC would inline only malloc() or only free() and warn about a mismatch.
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
        note("operator delete");
        free(apMemory);
    }
    __attribute__((noinline)) static void operator delete[](void* apMemory)
    {
        note("operator delete[]");
        free(apMemory);
    }

private:
    int mNumber;
};

typedef Pointer<Pointee> PointeePointer;

/// The four fields of a Pointer as they are in memory.
struct Fields {
    void* mPointer;
    void* mReferenceCount;
    unsigned char mSizeType;
    unsigned char mMemoryType;

    bool operator==(const Fields& acrOther) const
    {
        return mPointer == acrOther.mPointer && mReferenceCount == acrOther.mReferenceCount &&
               mSizeType == acrOther.mSizeType && mMemoryType == acrOther.mMemoryType;
    }
};

/// Not inlined, so that it reads the memory and not the values that the compiler knows of a destroyed object.
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

bool isEmpty(const volatile void* acMemory) { return Fields{nullptr, nullptr, 0, 0} == fieldsAt(acMemory); }

/// Overwrites memory of an object. Not inlined, so that the compiler does not optimise the change away.
__attribute__((noinline)) void overwrite(void* apMemory, size_t aOffset, const void* acBytes, size_t aSize)
{
    memcpy(static_cast<char*>(apMemory) + aOffset, acBytes, aSize);
    __asm__ volatile("" : : "r"(apMemory) : "memory");
}

/// Memory for a Pointer that a test constructs and destroys explicitly.
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

class PointerTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        substitute::counter.show();
    }

    /// Returns the events of counters and pointees since the last call, in order. The types log nothing.
    static Texts events()
    {
        Texts lTexts;
        std::istringstream lLines(traceOf(recorded(), "", ""));
        for (std::string lLine; getline(lLines, lLine);) {
            lTexts.push_back(lLine);
        }
        clearEvents();
        return lTexts;
    }

    const Recording mRecording;
};

TEST_F(PointerTest, FieldsStandInTheirOrder)
{
    Pointee* const lpPointee = new (std::nothrow) Pointee(1);
    const PointeePointer lPointer(lpPointee, OQPST_Individual, OQPMT_New);
    EXPECT_TRUE((Fields{lpPointee, fieldsAt(&lPointer).mReferenceCount, 1, 1}) == fieldsAt(&lPointer));
    EXPECT_EQ(1U, countOf(lPointer));
    EXPECT_EQ(3 * sizeof(void*), sizeof lPointer);

    void* const lpBlock = malloc(sizeof(Pointee));
    const PointeePointer lOther(static_cast<Pointee*>(lpBlock), OQPST_Array, OQPMT_Malloc);
    EXPECT_TRUE((Fields{lpBlock, fieldsAt(&lOther).mReferenceCount, 2, 2}) == fieldsAt(&lOther));
    static_assert(1 == sizeof(OQEPointerSizeType) && 1 == sizeof(OQEPointerMemoryType), "one byte wide");
}

TEST_F(PointerTest, DefaultBuiltPointerIsEmptyAndSilent)
{
    Storage lStorage;
    new (lStorage.room()) PointeePointer();
    EXPECT_TRUE(isEmpty(lStorage.room()));
    lStorage.pointer().~PointeePointer();
    EXPECT_TRUE(isEmpty(lStorage.room()));
    EXPECT_EQ(Texts(), events());
}

TEST_F(PointerTest, ConstructionAllocatesTheCounterAlone)
{
    if (!FailingMemory::isPossible()) {
        GTEST_SKIP() << "another allocator is in use";
    }
    Pointee* const lpPointee = new (std::nothrow) Pointee(8);
    const FailingMemory lCounting(0);
    const PointeePointer lPointer(lpPointee, OQPST_Individual, OQPMT_New);
    PointeePointer lOther(lPointer);
    lOther = lPointer;
    EXPECT_EQ(1U, FailingMemory::taken());
}

TEST_F(PointerTest, AssignedPointersShareACounterOfTwoAndTheLastOneFrees)
{
    Storage lFirst;
    Storage lSecond;
    new (lFirst.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
    new (lSecond.room()) PointeePointer();
    EXPECT_EQ(&lSecond.pointer(), &(lSecond.pointer() = lFirst.pointer()));
    EXPECT_EQ((Texts{"OQCReferenceCount(1)", "increment() = 2"}), events());
    EXPECT_EQ(2U, countOf(lFirst.pointer()));
    EXPECT_TRUE(fieldsAt(lFirst.room()) == fieldsAt(lSecond.room()));

    lFirst.pointer().~PointeePointer();
    EXPECT_EQ((Texts{"decrement() = 1"}), events());
    EXPECT_TRUE(isEmpty(lFirst.room()));
    EXPECT_EQ(3, lSecond.pointer()->number());

    lSecond.pointer().~PointeePointer();
    EXPECT_EQ((Texts{"decrement() = 0", "~OQCReferenceCount()", "~Pointee(3)", "operator delete()"}), events());
    EXPECT_TRUE(isEmpty(lSecond.room()));
}

TEST_F(PointerTest, CounterIsFreedBeforeThePointee)
{
    PointeePointer lPointer = single(1);
    events();
    lPointer = single(2);
    // The assignment frees the old pointee before it increments the new counter. The temporary is destroyed last.
    EXPECT_EQ((Texts{"OQCReferenceCount(1)", "decrement() = 0", "~OQCReferenceCount()", "~Pointee(1)",
                     "operator delete()", "increment() = 2", "decrement() = 1"}),
              events());
    EXPECT_EQ(2, lPointer->number());
    EXPECT_EQ(1U, countOf(lPointer));
}

TEST_F(PointerTest, CounterAndPointeeAreFreedOnceEach)
{
    Storage lStorage;
    new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
    const Fields lFields = fieldsAt(lStorage.room());
    followMemory(0, lFields.mReferenceCount);
    followMemory(1, lFields.mPointer);
    const FailingMemory lCounting(0);
    lStorage.pointer().~PointeePointer();
    EXPECT_EQ(FailingMemory::isPossible(), isFreed(0));
    EXPECT_EQ(FailingMemory::isPossible(), isFreed(1));
}

TEST_F(PointerTest, AssignmentFromOneOfManyHoldersReleasesOnlyOne)
{
    PointeePointer lFirst = single(1);
    PointeePointer lKept(lFirst);
    const PointeePointer lOther = single(2);
    events();
    lFirst = lOther;
    EXPECT_EQ((Texts{"decrement() = 1", "increment() = 2"}), events());
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
    EXPECT_EQ((Texts{"decrement() = 1", "increment() = 2"}), events());
    EXPECT_EQ(2U, countOf(lSecond));
}

TEST_F(PointerTest, SelfAssignmentChangesNothing)
{
    PointeePointer lPointer = single(1);
    const PointeePointer& lrSelf = lPointer;
    const Fields lBefore = fieldsAt(&lPointer);
    events();
    EXPECT_EQ(&lPointer, &(lPointer = lrSelf));
    EXPECT_EQ(Texts(), events());
    EXPECT_TRUE(lBefore == fieldsAt(&lPointer));
    EXPECT_EQ(1U, countOf(lPointer));
}

TEST_F(PointerTest, CopyConstructionKeepsTheCountRight)
{
    const PointeePointer lFirst = single(4);
    events();
    {
        const PointeePointer lSecond(lFirst);
        EXPECT_EQ((Texts{"increment() = 2"}), events());
        EXPECT_EQ(4, lSecond->number());
    }
    EXPECT_EQ((Texts{"decrement() = 1"}), events());
    const PointeePointer lEmpty;
    const PointeePointer lCopy(lEmpty);
    EXPECT_TRUE(isEmpty(&lCopy));
    EXPECT_EQ(Texts(), events());
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
    EXPECT_EQ((Texts{"decrement() = 0", "~OQCReferenceCount()", "~Pointee(2)", "~Pointee(1)", "~Pointee(0)",
                     "operator delete[]()"}),
              events());
}

TEST_F(PointerTest, MallocBlockIsFreedWithFreeAndNoDestructorRuns)
{
    for (const OQEPointerSizeType lSizeType : {OQPST_Individual, OQPST_Array, static_cast<OQEPointerSizeType>(7)}) {
        void* const lpBlock = malloc(sizeof(Pointee));
        void* const lpConstant = malloc(sizeof(int));
        followMemory(0, lpBlock);
        followMemory(1, lpConstant);
        {
            const PointeePointer lPointer(::new (lpBlock) Pointee(1), lSizeType, OQPMT_Malloc);
            const Pointer<const int> lConstant(::new (lpConstant) int(6), OQPST_Individual, OQPMT_Malloc);
            EXPECT_EQ(6, *lConstant);
            events();
        }
        EXPECT_EQ(FailingMemory::isPossible(), isFreed(0));
        EXPECT_EQ(FailingMemory::isPossible(), isFreed(1));
        EXPECT_EQ((Texts{"decrement() = 0", "~OQCReferenceCount()", "decrement() = 0", "~OQCReferenceCount()"}),
                  events());
    }
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
    EXPECT_EQ((Texts{"decrement() = 0", "~OQCReferenceCount()", "~Pointee(0)", "~Pointee(0)", "operator delete[]()",
                     "decrement() = 1", "decrement() = 0", "~OQCReferenceCount()", "~Pointee(5)", "operator delete()"}),
              events());
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
}

TEST_F(PointerTest, ArrowGivesTheSingleObject)
{
    PointeePointer lPointer = single(7);
    const PointeePointer& lrConstant = lPointer;
    lPointer->setNumber(8);
    EXPECT_EQ(8, lrConstant->number());
    EXPECT_EQ(fieldsAt(&lPointer).mPointer, lPointer.operator->());
    EXPECT_EQ(fieldsAt(&lPointer).mPointer, lrConstant.operator->());
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
    Storage lCopy;  // a copy of the destroyed object's bytes; the compiler does not know that they are destroyed
    overwrite(lCopy.room(), 0, &lFields.mPointer, sizeof(void*));
    EXPECT_FALSE(lCopy.pointer() != 0);
    EXPECT_TRUE(lCopy.pointer() != &lOther);
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
    EXPECT_EQ((Texts{"OQCReferenceCount(1)", "increment() = 2", "decrement() = 1"}), events());
    const unsigned char lNew = OQPMT_New;
    overwrite(lStorage.room(), 2 * sizeof(void*) + 1, &lNew, 1);
    lStorage.pointer().~PointeePointer();
}

TEST_F(PointerTest, CounterLeftWithoutAPointeeIsNotTouched)
{
    Storage lStorage;
    new (lStorage.room()) PointeePointer(new (std::nothrow) Pointee(3), OQPST_Individual, OQPMT_New);
    const Fields lFields = fieldsAt(lStorage.room());
    void* const lpNone = nullptr;
    overwrite(lStorage.room(), 0, &lpNone, sizeof lpNone);
    events();
    lStorage.pointer().~PointeePointer();
    EXPECT_EQ(Texts(), events());
    delete static_cast<OQCReferenceCount*>(lFields.mReferenceCount);
    delete static_cast<Pointee*>(lFields.mPointer);
}

TEST_F(PointerTest, CopiesHeldByDifferentThreadsAreIndependent)
{
    substitute::counter.hide();
    PointeePointer lShared = single(1);
    inThreads(2, [&lShared](unsigned int) {
        const PointeePointer lMine(lShared);
        for (int lRound = 0; lRound < 20000; ++lRound) {
            const PointeePointer lCopy(lMine);
            PointeePointer lAssigned(lCopy);
            lAssigned = lMine;
        }
    });
    EXPECT_EQ(1U, countOf(lShared));
}

}  // namespace
