// Valid and invalid values for GDB to show. expected.txt is the output of GDB with show.gdb.

#include <stdlib.h>
#include <string.h>

#include <new>

#include "OQLinux.h"

namespace
{

/// Memory for a value that was destroyed or never constructed.
template <class Value, int Filling>
struct Memory {
    Memory() { memset(mBytes, Filling, sizeof mBytes); }
    Value& value() { return *reinterpret_cast<Value*>(mBytes); }

    alignas(Value) unsigned char mBytes[sizeof(Value)];
};

template <class Value, int Filling>
Value& raw()
{
    static Memory<Value, Filling> sMemory;
    return sMemory.value();
}

template <class Value>
Value& destroyed(const Value& acrValue)
{
    Value* const lpValue = new (&raw<Value, 1>()) Value(acrValue);
    lpValue->~Value();
    return *lpValue;
}

template <class Value>
void here(const Value&)
{
}

}  // namespace

int main()
{
    OQCString text("hello");
    const OQCString longText("a text that does not fit into the string object itself");
    OQCString emptyText("");
    OQCString& destroyedText = destroyed(text);
    OQCString &zeroText = raw<OQCString, 0>(), &wildText = raw<OQCString, 0xa5>();

    OQCList<OQCString> texts;
    texts.append("one");
    texts.append("two");
    OQCList<unsigned int> numbers, noNumbers;
    numbers.append(7);
    OQCList<OQCString>& destroyedList = destroyed(texts);
    OQCList<OQCString>& zeroList = raw<OQCList<OQCString>, 0>();
    OQCList<char> brokenList;
    brokenList.append('a');
    brokenList.append('b');
    brokenList.append('c');
    reinterpret_cast<void**>(&*++brokenList.begin())[-1] = nullptr;  // the second node's link to the first

    Pointer<int> one(new (std::nothrow) int(42), OQPST_Individual, OQPMT_New);
    Pointer<int> other(one);
    Pointer<char> block(static_cast<char*>(calloc(1, 10)), OQPST_Array, OQPMT_Malloc);
    Pointer<int> nothing;
    Pointer<int>& destroyedPointer = destroyed(one);
    Pointer<int>& wildPointer = raw<Pointer<int>, 0xa5>();

    const OQCMutexLockFailedEx lockFailed("a \"quoted\" text", 335);
    OQCException &zeroException = raw<OQCException, 0>(), &endlessException = raw<OQCException, 'x'>();
    OQCTimeOutEx &zeroTimeOut = raw<OQCTimeOutEx, 0>(), &wildTimeOut = raw<OQCTimeOutEx, 0xa5>();
    try {
        OsWaitForActivity(-1, 0);  // -1 is no descriptor, so the wait times out at once
    } catch (const OQCException& caught) {
        here(caught);
    }
    here(destroyedText), here(zeroText), here(wildText), here(destroyedList), here(zeroList), here(destroyedPointer);
    here(wildPointer), here(zeroException), here(endlessException), here(zeroTimeOut), here(wildTimeOut);
    reinterpret_cast<void**>(&*++brokenList.begin())[-1] = &*brokenList.begin() - 2 * sizeof(void*);
    return 0;
}
