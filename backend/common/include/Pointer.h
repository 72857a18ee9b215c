/// \file
/// Reference-counted pointer.
#ifndef OQ_POINTER_H
#define OQ_POINTER_H

#include <stdlib.h>

#include <atomic>
#include <new>

#include "OQException.h"
#include "OQLog.h"

/// \def OQ_POINTER_ASSERT_AS(condition)
/// Asserts; logs under this file's name and the name of the calling operator.

/// Asserts; logs under this file's name.
#define OQ_POINTER_ASSERT(condition) OQ_ASSERT_AS(condition, #condition, __func__, "backend/common/include/Pointer")

/// What a Pointer refers to; 0 in an empty Pointer.
enum OQEPointerSizeType : unsigned char {
    OQPST_Individual = 1,  ///< one object
    OQPST_Array = 2        ///< an array of objects
};

/// How the pointee was allocated, which determines how it is freed; 0 in an empty Pointer.
enum OQEPointerMemoryType : unsigned char {
    OQPMT_New = 1,    ///< new or new[]; deleted
    OQPMT_Malloc = 2  ///< malloc(); freed without running a destructor
};

/// Shared ownership of one object, array or malloc block. The last holder frees the counter, then the pointee.
///
/// A Pointer is empty or holds a pointee. Misuse is a programming error: the Pointer logs one "-H-" line and exits with
/// status 1. Misuse means dereferencing an empty Pointer, operator-> on an array, or assigning from an empty Pointer.
/// Two threads must not use one Pointer at the same time; different threads may use different copies.
template <class T>
class OQ_EXPORT Pointer
{
public:
    /// Builds an empty Pointer.
    Pointer() : mPointer(0), mReferenceCount(0), mSizeType(), mMemoryType() {}

    /// Takes ownership of a pointee. The caller allocates it with a form that returns null on failure; the constructor
    /// then throws.
    /// \param[in] apPointer   the pointee
    /// \param[in] aSizeType   OQPST_Individual or OQPST_Array
    /// \param[in] aMemoryType OQPMT_New or OQPMT_Malloc
    /// \throws OQCNoMemoryEx 2 "Out of Memory" when apPointer is null or the counter cannot be allocated; in the latter
    /// case the pointee stays allocated
    Pointer(T* apPointer, OQEPointerSizeType aSizeType, OQEPointerMemoryType aMemoryType)
        : mPointer(apPointer),
          mReferenceCount(0 == apPointer ? 0 : new (std::nothrow) OQCReferenceCount(1)),
          mSizeType(aSizeType),
          mMemoryType(aMemoryType)
    {
        if (0 == mReferenceCount) {
            throw OQCNoMemoryEx("Out of Memory", OQErrorCode<OQCNoMemoryEx>::value);
        }
    }

    /// Becomes another holder of the same pointee. A copy of an empty Pointer is empty.
    /// \param[in] acrCopy a holder, or an empty Pointer
    Pointer(const Pointer& acrCopy)
        : mPointer(acrCopy.mPointer),
          // cppcheck-suppress copyCtorPointerCopying ; the copies share the counter
          mReferenceCount(acrCopy.mReferenceCount),
          mSizeType(acrCopy.mSizeType),
          mMemoryType(acrCopy.mMemoryType)
    {
        if (0 != mReferenceCount) {
            mReferenceCount->increment();
        }
    }

    /// Releases the current pointee and becomes another holder of acrCopy's pointee. Assigning from an empty Pointer
    /// ends the process, even in a self-assignment.
    /// \param[in] acrCopy a holder
    /// \return this object
    Pointer& operator=(const Pointer& acrCopy)
    {
        OQ_POINTER_ASSERT(0 != acrCopy.mPointer);
        OQ_POINTER_ASSERT(0 != acrCopy.mReferenceCount);
        if (this != &acrCopy) {
            _release();
            mPointer = acrCopy.mPointer;
            mReferenceCount = acrCopy.mReferenceCount;
            mSizeType = acrCopy.mSizeType;
            mMemoryType = acrCopy.mMemoryType;
            mReferenceCount->increment();
        }
        return *this;
    }

    /// Releases the pointee. The last holder frees it.
    ~Pointer()
    {
        _release();
        mPointer = 0;
        mReferenceCount = 0;
        mSizeType = OQEPointerSizeType();
        mMemoryType = OQEPointerMemoryType();
        // Code that still reads a destroyed Pointer must find it empty. The fence keeps the compiler from dropping the
        // stores.
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    /// Dereferences. On an empty Pointer, ends the process.
    /// \return the object, or the first element of the array
    T& operator*() { return *_checked(__func__); }
    /// Dereferences. On an empty Pointer, ends the process.
    /// \return the object, or the first element of the array
    T& operator*() const { return *_checked(__func__); }

    /// Accesses a member. On an array or an empty Pointer, ends the process.
    /// \return the single object
    T* operator->()
    {
        OQ_POINTER_ASSERT(0 != mPointer);
        OQ_POINTER_ASSERT(0 != mReferenceCount);
        OQ_POINTER_ASSERT(OQPST_Individual == mSizeType);
        return mPointer;
    }
    /// Accesses a member. On an array or an empty Pointer, ends the process.
    /// \return the single object
    T* operator->() const { return const_cast<Pointer*>(this)->operator->(); }

    /// Compares with an address. `pointer != 0` is true if the Pointer holds a pointee.
    /// \param[in] acOther null, or an address to compare with
    /// \return whether the pointee's address differs from acOther
    bool operator!=(const T* acOther) const { return mPointer != acOther; }

private:
    OQ_LOCAL T* _checked(const char* acFunction) const
    {
#define OQ_POINTER_ASSERT_AS(condition) \
    OQ_ASSERT_AS(condition, #condition, acFunction, "backend/common/include/Pointer")
        OQ_POINTER_ASSERT_AS(0 != mPointer);
        OQ_POINTER_ASSERT_AS(0 != mReferenceCount);
        switch (mSizeType) {
            case OQPST_Individual:
            case OQPST_Array:
                break;
            default:
                OQ_POINTER_ASSERT_AS(false);
        }
#undef OQ_POINTER_ASSERT_AS
        return mPointer;
    }

    OQ_LOCAL void _release()
    {
        if (0 != mPointer && 0 != mReferenceCount && 0 == mReferenceCount->decrement()) {
            _releaseMemory();
        }
    }

    // Out of line, because inlining makes the code of the library 3.0 KB larger. Inlined, a copy of a text would take
    // 146 instructions instead of 161.
    [[gnu::noinline]] void _releaseMemory()
    {
        delete mReferenceCount;
        mReferenceCount = 0;
        switch (mMemoryType) {
            case OQPMT_New:
                switch (mSizeType) {
                    case OQPST_Individual:
                        delete mPointer;
                        break;
                    case OQPST_Array:
                        delete[] mPointer;
                        break;
                    default:
                        OQ_POINTER_ASSERT(false);
                }
                break;
            case OQPMT_Malloc:
                free(const_cast<void*>(static_cast<const volatile void*>(mPointer)));
                break;
            default:
                OQ_POINTER_ASSERT(false);
        }
        mPointer = 0;
    }

    T* mPointer;
    OQCReferenceCount* mReferenceCount;
    OQEPointerSizeType mSizeType;
    OQEPointerMemoryType mMemoryType;
};

#undef OQ_POINTER_ASSERT

#endif
