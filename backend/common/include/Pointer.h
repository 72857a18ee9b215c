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
/// Speaks for this file and for the operator that asked.

/// Speaks for this file in the log.
#define OQ_POINTER_ASSERT(condition) OQ_ASSERT_AS(condition, #condition, __func__, "backend/common/include/Pointer")

/// What a Pointer refers to; 0 in an empty one.
enum OQEPointerSizeType : unsigned char {
    OQPST_Individual = 1,  ///< one object
    OQPST_Array = 2        ///< several in a row
};

/// How the pointee was allocated, hence how it is freed; 0 in an empty Pointer.
enum OQEPointerMemoryType : unsigned char {
    OQPMT_New = 1,    ///< new, or new[]: deleted
    OQPMT_Malloc = 2  ///< malloc(): freed, no destructor runs
};

/// Shared ownership of one object, array or malloc block: the last holder frees the counter, then the pointee.
///
/// A Pointer is empty or holds. Misuse (dereferencing an empty one, operator-> on an array, assigning from an empty
/// one) is a programming error: one "-H-" line, then exit status 1. Not for two threads at once; copies held by
/// different threads are independent.
template <class T>
class OQ_EXPORT Pointer
{
public:
    /// Empty.
    Pointer() : mPointer(0), mReferenceCount(0), mSizeType(), mMemoryType() {}

    /// Takes ownership of what the caller allocated without throwing, so that a failed allocation is reported here.
    /// \param[in] apPointer   the pointee
    /// \param[in] aSizeType   OQPST_Individual or OQPST_Array
    /// \param[in] aMemoryType OQPMT_New or OQPMT_Malloc
    /// \throws OQCNoMemoryEx 2 "Out of Memory" when apPointer is null, or when there is no memory for the counter; in
    /// the latter case the pointee stays allocated
    Pointer(T* apPointer, OQEPointerSizeType aSizeType, OQEPointerMemoryType aMemoryType)
        : mPointer(apPointer), mReferenceCount(0), mSizeType(aSizeType), mMemoryType(aMemoryType)
    {
        if (0 == apPointer || 0 == (mReferenceCount = new (std::nothrow) OQCReferenceCount(1))) {
            throw OQCNoMemoryEx("Out of Memory", OQErrorCode<OQCNoMemoryEx>::value);
        }
    }

    /// Another holder of the same pointee; a copy of an empty Pointer is empty.
    /// \param[in] acrCopy a holder, or empty
    Pointer(const Pointer& acrCopy)
        : mPointer(acrCopy.mPointer),
          mReferenceCount(acrCopy.mReferenceCount),
          mSizeType(acrCopy.mSizeType),
          mMemoryType(acrCopy.mMemoryType)
    {
        if (0 != mReferenceCount) {
            mReferenceCount->increment();
        }
    }

    /// Lets go of the present pointee and becomes another holder of acrCopy's. Assigning from an empty Pointer ends the
    /// process, also when it is assigned to itself.
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

    /// Lets go of the pointee; the last holder frees it.
    ~Pointer()
    {
        _release();
        mPointer = 0;
        mReferenceCount = 0;
        mSizeType = OQEPointerSizeType();
        mMemoryType = OQEPointerMemoryType();
        // A destroyed Pointer is empty to whoever still looks at it: the compiler may not drop the stores.
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    /// Asked of an empty one, ends the process.
    /// \return the object, or the first element of the array
    T& operator*() { return *_checked(__func__); }
    /// Asked of an empty one, ends the process.
    /// \return the object, or the first element of the array
    T& operator*() const { return *_checked(__func__); }

    /// Asked of an array or of an empty one, ends the process.
    /// \return the single object
    T* operator->()
    {
        OQ_POINTER_ASSERT(0 != mPointer);
        OQ_POINTER_ASSERT(0 != mReferenceCount);
        OQ_POINTER_ASSERT(OQPST_Individual == mSizeType);
        return mPointer;
    }
    /// Asked of an array or of an empty one, ends the process.
    /// \return the single object
    T* operator->() const { return const_cast<Pointer*>(this)->operator->(); }

    /// Tells whether there is a pointee, as `pointer != 0`.
    /// \param[in] acOther null, or a place to compare with
    /// \return whether the pointee is another
    bool operator!=(const T* acOther) const { return mPointer != acOther; }

private:
    OQ_LOCAL T* _checked(const char* acFunction) const
    {
#define OQ_POINTER_ASSERT_AS(condition) \
    OQ_ASSERT_AS(condition, #condition, acFunction, "backend/common/include/Pointer")
        OQ_POINTER_ASSERT_AS(0 != mPointer);
        OQ_POINTER_ASSERT_AS(0 != mReferenceCount);
        if (OQPST_Individual != mSizeType && OQPST_Array != mSizeType) {
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
