// How the operations of the value types end.

#include <string.h>
#include <unistd.h>

#include <new>
#include <stdexcept>

#include "Outcome.h"

namespace
{

const char cLong[] = "a text that does not fit into the string object itself, so that its characters need memory";

/// Returns the trace of a failed assertion: one log line, then the end of the process.
std::string assertion(const std::string& acrPlace, const char* acCondition)
{
    return acrPlace + ": -H- \"Assertion [ %s ] failed\\n\" \"" + acCondition + "\"\nexit status 1";
}

/// Expects that an assertion of this operation, "CLASS::FUNCTION", ends the process.
void asserts(Outcome& arRow, const std::string& acrOperation, const char* acCondition,
             const std::function<void()>& acrRun)
{
    arRow.mOperation = acrOperation;
    arRow.mTrace = assertion(acrOperation.substr(acrOperation.find("::") + 2), acCondition);
    arRow.runInChild(acrRun);
}

/// Expects that the operation has no memory.
void throwsNoMemory(Outcome& arRow, const char* acOperation, const std::function<void()>& acrRun)
{
    arRow.mOperation = acOperation;
    arRow.mTrace = "throws OQCNoMemoryEx 2 \"Out of Memory\"";
    arRow.run(acrRun);
}

/// Runs the operation. When it throws, arBlocks becomes the number of blocks that it has asked for, refused ones included,
/// and has not given back.
void countBlocks(unsigned int& arBlocks, const std::function<void()>& acrOperation)
{
    try {
        acrOperation();
    } catch (...) {
        arBlocks = FailingMemory::taken() - FailingMemory::freed();
        throw;
    }
}

/// The only block that is left: the exception's own.
unsigned int oneBlock() { return FailingMemory::isPossible() ? 1 : 0; }

namespace pointers
{

const Family cFamily(
    "Pointers", "backend/common/include/Pointer", "Nothing is logged until an assertion fails.",
    {{"-H- Assertion [ 0 != mPointer ] failed",
      "an empty pointer is dereferenced; also assignment from a destroyed string"},
     {"-H- Assertion [ 0 != mReferenceCount ] failed", "a corrupted pointer is dereferenced"},
     {"-H- Assertion [ OQPST_Individual == mSizeType ] failed", "`operator->` is used on a pointer to an array"},
     {"-H- Assertion [ 0 != acrCopy.mPointer ] failed", "assignment from an empty pointer"},
     {"-H- Assertion [ 0 != acrCopy.mReferenceCount ] failed", "assignment from a corrupted pointer"},
     {"-H- Assertion [ false ] failed", "the size type or the memory type of a pointer is not valid"}});

typedef Pointer<int> Number;

OQEPointerSizeType sizeType(int aNumber) { return static_cast<OQEPointerSizeType>(aNumber); }
OQEPointerMemoryType memoryType(int aNumber) { return static_cast<OQEPointerMemoryType>(aNumber); }

/// A Pointer to the int 5. The destructor frees the pointee and the counter, whatever a row does to the Pointer.
class Damaged
{
public:
    explicit Damaged(OQEPointerSizeType aSize = OQPST_Individual)
        : mNumber(new (std::nothrow) int(5)), mPointer(new (mBytes) Number(mNumber, aSize, OQPMT_New))
    {
        memcpy(&mpCounter, mBytes + sizeof(void*), sizeof mpCounter);
    }
    ~Damaged()
    {
        delete static_cast<OQCReferenceCount*>(mpCounter);
        delete mNumber;
    }
    /// Not inlined, so that the compiler does not optimise the access away.
    __attribute__((noinline)) Number& withoutCounter()
    {
        memset(mBytes + sizeof(void*), 0, sizeof(void*));
        __asm__ volatile("" : : "r"(mBytes) : "memory");
        return *mPointer;
    }
    /// Destroys the object and returns it, for a caller that uses an object after its destruction.
    __attribute__((noinline)) Number& destroyed()
    {
        withoutCounter().~Number();
        __asm__ volatile("" : : "r"(mBytes) : "memory");
        return *mPointer;
    }
    int* number() const { return mNumber; }

private:
    int* mNumber;
    void* mpCounter = nullptr;
    alignas(Number) char mBytes[sizeof(Number)];
    Number* mPointer;
};

/// Ends the child with status 2 if the number is freed before the exit handlers run.
void expectKept(const int* acNumber)
{
    followMemory(0, acNumber);
    atexit([] {
        if (isFreed(0)) {
            _exit(2);
        }
    });
}

/// A new number that must not be freed. It is still reachable when the child ends.
int* kept()
{
    static int* spKept = nullptr;
    spKept = new (std::nothrow) int(5);
    expectKept(spKept);
    return spKept;
}

/// The only holder lets go of memory of an unknown type.
const std::string cNotReleased = "decrement() = 0\n~OQCReferenceCount()\n" + assertion("_releaseMemory", "false");

OUTCOME(Pointer, ConstructionFromNullIsOutOfMemory)
{
    substitute::counter.show();
    mWhen = "null pointee";
    mStays = "no counter is made";
    throwsNoMemory(*this, "Pointer::Pointer", [] { const Number lNumber(nullptr, OQPST_Individual, OQPMT_New); });
}

OUTCOME_OF_ALLOCATIONS(Pointer, ConstructionWithoutACounterIsOutOfMemory, 1)
{
    int* const lpNumber = new (std::nothrow) int(5);
    followMemory(0, lpNumber);
    mWhen = "no memory for the counter";
    mStays = "the pointee stays allocated; only a caller that kept its address can free it";
    throwsNoMemory(*this, "Pointer::Pointer",
                   [lpNumber] { const Number lNumber(lpNumber, OQPST_Individual, OQPMT_New); });
    EXPECT_FALSE(isFreed(0));
    EXPECT_EQ(5, *lpNumber);
    delete lpNumber;
}

OUTCOME(Pointer, ExceptionOfTheCounterPasses)
{
    int* const lpNumber = new (std::nothrow) int(5);
    followMemory(0, lpNumber);
    mOperation = "Pointer::Pointer";
    mNeedsMemory = true;
    substitute::counter.show();
    substitute::counter.instead([](unsigned int) { throw 42; });
    mWhen = "the constructor of the host's counter throws";
    mTrace = "OQCReferenceCount(1)\nthrows int 0 \"\"";
    mStays = "that exception passes unchanged; the counter's memory is freed; the pointee stays allocated";
    unsigned int lBlocks = 0;
    run([&] { countBlocks(lBlocks, [&] { const Number lNumber(lpNumber, OQPST_Individual, OQPMT_New); }); });
    EXPECT_EQ(oneBlock(), lBlocks);
    EXPECT_FALSE(isFreed(0));
    delete lpNumber;
}

OUTCOME(Pointer, StarOfAnEmptyOneEndsTheProcess)
{
    mWhen = "empty";
    mStays = "nothing is unwound; exit handlers run";
    asserts(*this, "Pointer::operator*", "0 != mPointer", [] {
        const Number lEmpty;
        (void)*lEmpty;
    });
}

OUTCOME(Pointer, StarOfADestroyedOneEndsTheProcess)
{
    Damaged lDamaged;
    Number& lrDestroyed = lDamaged.destroyed();
    mWhen = "destroyed";
    asserts(*this, "Pointer::operator*", "0 != mPointer", [&] { *lrDestroyed = 1; });
}

OUTCOME(Pointer, StarWithoutACounterEndsTheProcess)
{
    Damaged lDamaged;
    Number& lrNumber = lDamaged.withoutCounter();
    mWhen = "a pointee without a counter";
    asserts(*this, "Pointer::operator*", "0 != mReferenceCount", [&] { *lrNumber = 1; });
}

OUTCOME_OF_ERRORS(Pointer, StarOfAnUnknownSizeTypeEndsTheProcess, 0, 3, 7, 255)
{
    mNeedsMemory = true;
    mWhen = "size type neither individual nor array";
    asserts(*this, "Pointer::operator*", "false",
            [this] { *Number(new (std::nothrow) int(5), sizeType(error()), OQPMT_New) = 1; });
}

OUTCOME(Pointer, ArrowOfAnEmptyOneEndsTheProcess)
{
    mWhen = "empty";
    asserts(*this, "Pointer::operator->", "0 != mPointer", [] { Number().operator->(); });
}

OUTCOME(Pointer, ArrowWithoutACounterEndsTheProcess)
{
    Damaged lDamaged(OQPST_Array);  // the check of the counter comes before that of the size type
    const Number& lrNumber = lDamaged.withoutCounter();
    mWhen = "a pointee without a counter";
    asserts(*this, "Pointer::operator->", "0 != mReferenceCount", [&] { lrNumber.operator->(); });
}

OUTCOME_OF_ERRORS(Pointer, ArrowOfAnArrayEndsTheProcess, OQPST_Array, 0, 7)
{
    mNeedsMemory = true;
    mWhen = "an array, or an unknown size type";
    asserts(*this, "Pointer::operator->", "OQPST_Individual == mSizeType", [this] {
        const Number lArray(new (std::nothrow) int[2], sizeType(error()), OQPMT_New);
        lArray.operator->();
    });
}

OUTCOME(Pointer, AssignmentFromAnEmptyOneEndsTheProcess)
{
    const Number lEmpty;
    int* const lpNumber = new (std::nothrow) int(5);
    Number lTarget(lpNumber, OQPST_Individual, OQPMT_New);
    mWhen = "assignment from an empty pointer";
    mStays = "the target's pointee is not released";
    asserts(*this, "Pointer::operator=", "0 != acrCopy.mPointer", [&] {
        expectKept(lpNumber);
        lTarget = lEmpty;
    });
}

OUTCOME(Pointer, AssignmentOfAnEmptyOneToItselfEndsTheProcess)
{
    Number lEmpty;
    const Number& lrSelf = lEmpty;
    mWhen = "assignment of an empty pointer to itself";
    asserts(*this, "Pointer::operator=", "0 != acrCopy.mPointer", [&] { lEmpty = lrSelf; });
}

OUTCOME(Pointer, AssignmentFromOneWithoutACounterEndsTheProcess)
{
    Damaged lDamaged;
    const Number& lrNumber = lDamaged.withoutCounter();
    int* const lpNumber = new (std::nothrow) int(5);
    Number lTarget(lpNumber, OQPST_Individual, OQPMT_New);
    mWhen = "assignment from a pointer without a counter";
    mStays = "the target's pointee is not released";
    asserts(*this, "Pointer::operator=", "0 != acrCopy.mReferenceCount", [&] {
        expectKept(lpNumber);
        lTarget = lrNumber;
    });
}

OUTCOME(Pointer, AssignmentOfOneWithoutACounterToItselfEndsTheProcess)
{
    Damaged lDamaged;
    Number& lrNumber = lDamaged.withoutCounter();
    const Number& lrSelf = lrNumber;
    mWhen = "assignment of a pointer without a counter to itself";
    asserts(*this, "Pointer::operator=", "0 != acrCopy.mReferenceCount", [&] { lrNumber = lrSelf; });
}

OUTCOME_OF_ERRORS(Pointer, LastHolderOfAnUnknownSizeTypeEndsTheProcess, 0, 3, 7, 255)
{
    mNeedsMemory = true;
    mOperation = "Pointer::~Pointer";
    mWhen = "the last holder of memory from `new` is destroyed; unknown size type";
    substitute::counter.show();
    mTrace = "OQCReferenceCount(1)\n" + cNotReleased;
    mStays = "the counter is freed, the pointee is not";
    runInChild([this] { const Number lLast(kept(), sizeType(error()), OQPMT_New); });
}

OUTCOME_OF_ERRORS(Pointer, LastHolderOfAnUnknownMemoryTypeEndsTheProcess, 0, 3, 7, 255)
{
    mNeedsMemory = true;
    mOperation = "Pointer::~Pointer";
    mWhen = "the last holder is destroyed; unknown memory type";
    substitute::counter.show();
    mTrace = "OQCReferenceCount(1)\n" + cNotReleased;
    mStays = "the counter is freed, the pointee is not";
    runInChild([this] { const Number lLast(kept(), OQPST_Individual, memoryType(error())); });
}

OUTCOME_OF_ERRORS(Pointer, AssignmentToTheLastHolderOfAnUnknownTypeEndsTheProcess, 0, 3, 7, 255)
{
    const Number lOther(new (std::nothrow) int(6), OQPST_Individual, OQPMT_New);
    mNeedsMemory = true;
    mOperation = "Pointer::operator=";
    mWhen = "the last holder is assigned another pointer; unknown memory or size type";
    substitute::counter.show();
    mTrace = "OQCReferenceCount(1)\n" + cNotReleased;
    mStays = "the counter is freed, the pointee is not";
    runInChild([&] {
        Number lLast(kept(), OQPST_Individual, memoryType(error()));
        lLast = lOther;
    });
    clearEvents();
    runInChild([&] {
        Number lLast(kept(), sizeType(error()), OQPMT_New);
        lLast = lOther;
    });
}

OUTCOME(Pointer, DestructionWithoutACounterLeavesThePointee)
{
    Damaged lDamaged;
    followMemory(0, lDamaged.number());
    Number& lrNumber = lDamaged.withoutCounter();
    mOperation = "Pointer::~Pointer";
    mWhen = "a pointee without a counter";
    mStays = "the pointee stays allocated";
    run([&] { lrNumber.~Number(); });
    EXPECT_FALSE(isFreed(0));
    EXPECT_EQ(5, *lDamaged.number());
}

}  // namespace pointers

namespace strings
{

const Family cFamily("Strings", "backend/common/include/OQString", "Nothing is logged until an assertion fails.",
                     {{"-H- Assertion [ acrCopy.mString != 0 ] failed", "copy of a destroyed string"},
                      {"-H- Assertion [ mString != 0 ] failed", "use of a destroyed string"},
                      {"-H- Assertion [ acrString.mString != 0 ] failed", "a destroyed string is appended"}});

/// A string after its destruction.
class Destroyed
{
public:
    Destroyed()
    {
        new (mBytes) OQCString("");
        string().~OQCString();
        __asm__ volatile("" : : "r"(mBytes) : "memory");
    }
    __attribute__((noinline)) OQCString& string() { return *reinterpret_cast<OQCString*>(mBytes); }

private:
    alignas(OQCString) char mBytes[sizeof(OQCString)];
};

/// The parts of a string, in the order in which they are allocated. The row runs once for each.
enum Part { Object = 1, Characters = 2, Counter = 3 };

OUTCOME_OF_ALLOCATIONS(OQCString, ConstructionWithoutMemoryThrows, Object, Characters, Counter)
{
    mWhen = "from characters: no memory for the text (object, characters) or its counter";
    mStays = "without the counter the text stays allocated";
    throwsNoMemory(*this, "OQCString::OQCString", [] { const OQCString lString(cLong); });
}

OUTCOME_OF_ALLOCATIONS(OQCString, CopyWithoutMemoryThrows, Object, Characters, Counter)
{
    const OQCString lOriginal(cLong);
    mWhen = "copy: no memory for the text or its counter";
    mStays = "the original; without the counter the copied text stays allocated";
    throwsNoMemory(*this, "OQCString::OQCString", [&] { const OQCString lCopy(lOriginal); });
    EXPECT_STREQ(cLong, lOriginal.get());
}

OUTCOME_OF_ALLOCATIONS(OQCString, ExceptionOfTheNewHandlerPasses, Characters)
{
    const OQCString lOriginal(cLong);
    const std::new_handler lBefore = std::set_new_handler([] { throw std::runtime_error("handler"); });
    mOperation = "OQCString::OQCString";
    mWhen = "the host's new handler throws anything but `std::bad_alloc` for the characters";
    mTrace = R"(throws std::runtime_error 0 "handler")";
    mStays = "that exception passes unchanged; the original; nothing stays allocated";
    for (const bool lCopies : {true, false}) {
        unsigned int lBlocks = 0;
        clearEvents();
        run([&] {
            countBlocks(lBlocks, [&] { const OQCString lString(lCopies ? OQCString(lOriginal) : OQCString(cLong)); });
        });
        EXPECT_EQ(3U, lBlocks) << "the characters, which are refused, and the exception with its text";
    }
    std::set_new_handler(lBefore);
    EXPECT_STREQ(cLong, lOriginal.get());
}

OUTCOME(OQCString, CopyOfAnEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    mWhen = "copy of an empty string";
    asserts(*this, "OQCString::OQCString", "acrCopy.mString != 0", [&] { const OQCString lCopy(lGone.string()); });
}

OUTCOME_OF_ALLOCATIONS(OQCString, AssignmentWithoutMemoryThrows, Object, Characters, Counter)
{
    const OQCString lSource(cLong);
    OQCString lTarget("kept");
    const char* const lpKept = lTarget.get();
    mWhen = "no memory for the text or its counter";
    mStays = "both texts; without the counter the new text stays allocated";
    throwsNoMemory(*this, "OQCString::operator=", [&] { lTarget = lSource; });
    EXPECT_STREQ(cLong, lSource.get());
    EXPECT_STREQ("kept", lTarget.get());
    EXPECT_EQ(lpKept, lTarget.get());
}

OUTCOME(OQCString, AssignmentFromAnEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    OQCString lString("some");
    mOperation = "OQCString::operator=";
    mWhen = "assignment from an empty string (logged as the pointer's `operator*`)";
    mTrace = assertion("backend/common/include/Pointer operator*", "0 != mPointer");
    mStays = "the text";
    runInChild([&] { lString = lGone.string(); });
}

OUTCOME(OQCString, AppendToAnEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    Destroyed lAlso;
    mWhen = "append to an empty string";
    asserts(*this, "OQCString::operator+=", "mString != 0", [&] { lGone.string() += lAlso.string(); });
}

OUTCOME(OQCString, AppendOfAnEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    OQCString lString("some");
    mWhen = "append of an empty string";
    mStays = "the text";
    asserts(*this, "OQCString::operator+=", "acrString.mString != 0", [&] { lString += lGone.string(); });
}

OUTCOME_OF_ALLOCATIONS(OQCString, AppendWithoutMemoryThrows, 1)
{
    OQCString lString("kept");
    const OQCString lOther(cLong);
    mOperation = "OQCString::operator+=";
    mWhen = "the text cannot grow";
    mTrace = R"(throws std::bad_alloc 0 "std::bad_alloc")";
    mStays = "the text";
    run([&] { lString += lOther; });
    EXPECT_STREQ("kept", lString.get());
}

OUTCOME(OQCString, GetOfAnEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    mWhen = "empty";
    asserts(*this, "OQCString::get", "mString != 0", [&] { lGone.string().get(); });
}

OUTCOME(OQCString, GetOfAConstantEmptyOneEndsTheProcess)
{
    Destroyed lGone;
    const OQCString& lrGone = lGone.string();
    mWhen = "empty constant string";
    asserts(*this, "OQCString::get", "mString != 0", [&] { lrGone.get(); });
}

}  // namespace strings

namespace lists
{

const Family cFamily("Lists", "backend/common/include/OQList", "Lists log nothing.", {});

/// An element whose copy constructor throws the exception that the row sets.
struct Element {
    explicit Element(void (*apAtCopy)()) : mAtCopy(apAtCopy) {}
    Element(const Element& acrCopy) : mAtCopy(acrCopy.mAtCopy) { mAtCopy(); }
    Element& operator=(const Element&) = delete;

    void (*const mAtCopy)();
};

OUTCOME_OF_ALLOCATIONS(OQCList, AppendWithoutANodeThrowsBeforeTheElementIsCopied, 1)
{
    OQCList<Element> lList;
    const Element lElement([] { throw 42; });
    mWhen = "no memory for the node";
    mStays = "the list; the element is not copied";
    throwsNoMemory(*this, "OQCList::append", [&] { lList.append(lElement); });
    EXPECT_EQ(0, lList.size());
}

OUTCOME_OF_ALLOCATIONS(OQCList, AppendOfATextWithoutMemoryThrows, 2, 3, 4)
{
    OQCList<OQCString> lList;
    lList.append("kept");
    const OQCString lText(cLong);
    mWhen = "no memory for the copy of a text";
    mStays = "the list; the node is freed; without the counter the copied text stays allocated";
    throwsNoMemory(*this, "OQCList::append", [&] { lList.append(lText); });
    EXPECT_EQ(1, lList.size());
    EXPECT_STREQ("kept", lList.begin()->get());
}

OUTCOME_OF_ALLOCATIONS(OQCList, ExceptionOfTheNewHandlerPasses, 1)
{
    OQCList<unsigned int> lList;
    const std::new_handler lBefore = std::set_new_handler([] { throw std::runtime_error("handler"); });
    mOperation = "OQCList::append";
    mWhen = "the host's new handler throws anything but `std::bad_alloc` for the node";
    mTrace = R"(throws std::runtime_error 0 "handler")";
    mStays = "that exception passes unchanged; the list; the element is not copied";
    unsigned int lBlocks = 0;
    run([&] { countBlocks(lBlocks, [&] { lList.append(1); }); });
    EXPECT_EQ(3U, lBlocks) << "the node, which is refused, and the exception with its text";
    std::set_new_handler(lBefore);
    EXPECT_EQ(0, lList.size());
}

OUTCOME(OQCList, ExceptionOfTheElementPasses)
{
    OQCList<Element> lList;
    const Element lElement([] { throw OQCInvalidEx("from the element", 6); });
    mOperation = "OQCList::append";
    mNeedsMemory = true;
    mWhen = "the element's copy constructor throws any exception";
    mTrace = R"(throws OQCInvalidEx 6 "from the element")";
    mStays = "that exception passes unchanged; the list; the node is freed";
    unsigned int lBlocks = 0;
    run([&] { countBlocks(lBlocks, [&] { lList.append(lElement); }); });
    EXPECT_EQ(oneBlock(), lBlocks);
    EXPECT_EQ(0, lList.size());
}

OUTCOME(OQCList, BadAllocOfTheElementPasses)
{
    OQCList<Element> lList;
    const Element lElement([] { throw std::bad_alloc(); });
    mOperation = "OQCList::append";
    mNeedsMemory = true;
    mWhen = "the element's copy constructor throws `std::bad_alloc`";
    mTrace = R"(throws std::bad_alloc 0 "std::bad_alloc")";
    mStays = "that exception passes unchanged; the list; the node is freed";
    unsigned int lBlocks = 0;
    run([&] { countBlocks(lBlocks, [&] { lList.append(lElement); }); });
    EXPECT_EQ(oneBlock(), lBlocks);
    EXPECT_EQ(0, lList.size());
}

OUTCOME(OQCList, AppendOfADestroyedTextEndsTheProcess)
{
    strings::Destroyed lGone;
    OQCList<OQCString> lList;
    mOperation = "OQCList::append";
    mNeedsMemory = true;
    mWhen = "copy of a destroyed string (logged as `OQCString`)";
    mTrace = assertion("backend/common/include/OQString OQCString", "acrCopy.mString != 0");
    runInChild([&] { lList.append(lGone.string()); });
}

}  // namespace lists

namespace exceptions
{

const Family cFamily("Exceptions", "backend/common/include/OQException", "Exceptions log nothing.", {});

OUTCOME(OQCException, LongMessagesAreCut)
{
    const std::string lText(300, 'a');
    mOperation = "OQCException::OQCException";
    nameText("the first 255 characters", lText.substr(0, 255));
    mWhen = "message longer than 255 characters";
    mTells = "the text is cut at 255";
    mTrace = "throws OQCTimeOutEx 323 the first 255 characters";
    run([&] { throw OQCTimeOutEx(lText.c_str(), 323); });
}

}  // namespace exceptions

}  // namespace
