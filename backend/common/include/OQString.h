/// \file
/// String value.
#ifndef OQ_STRING_H
#define OQ_STRING_H

#include <new>
#include <string>

#include "Pointer.h"

/// Speaks for this file in the log.
#define OQ_STRING_ASSERT(condition) OQ_ASSERT_AS(condition, #condition, __func__, "backend/common/include/OQString")

/// A text value. Every copy and every assignment is a deep copy, so distinct objects are independent, also in different
/// threads; one object is not for two threads at once.
///
/// Objects built by a constructor are never empty; the assertions ("mString != 0" and the like: one "-H-" line, then
/// exit status 1) guard against the use of destroyed or corrupted ones.
class OQ_EXPORT OQCString
{
public:
    /// A copy of a text.
    /// \param[in] acText zero-terminated, not checked for null
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    OQ_EMITTED OQCString(const char* acText) : mString(allocated(acText)) {}

    /// A copy. Of an empty one: "acrCopy.mString != 0".
    /// \param[in] acrCopy what is copied
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    OQ_EMITTED OQCString(const OQCString& acrCopy) : mString()
    {
        OQ_STRING_ASSERT(acrCopy.mString != 0);
        mString = allocated(*acrCopy.mString);
    }

    /// Frees the text.
    OQ_EMITTED ~OQCString() {}

    /// Becomes a copy. Of an empty one: "0 != mPointer", in the name of the Pointer.
    /// \param[in] acrCopy what is copied; may be this object
    /// \return this object
    /// \throws OQCNoMemoryEx 2 "Out of Memory"; this object then keeps its text
    OQ_EMITTED OQCString& operator=(const OQCString& acrCopy)
    {
        if (this != &acrCopy) {
            mString = allocated(*acrCopy.mString);
        }
        return *this;
    }

    /// Appends in place. To or of an empty one: "mString != 0", "acrString.mString != 0".
    /// \param[in] acrString what is appended
    /// \return this object
    /// \throws std::bad_alloc when the text cannot grow; this object then keeps its text
    OQ_EMITTED OQCString& operator+=(const OQCString& acrString)
    {
        OQ_STRING_ASSERT(mString != 0);
        OQ_STRING_ASSERT(acrString.mString != 0);
        mString->append(*acrString.mString);
        return *this;
    }

    /// Of an empty one: "mString != 0".
    /// \return the zero-terminated text, valid until the string is next modified, assigned or destroyed
    OQ_EMITTED const char* get()
    {
        OQ_STRING_ASSERT(mString != 0);
        return mString->c_str();
    }
    /// Of an empty one: "mString != 0".
    /// \return the zero-terminated text, valid until the string is next modified, assigned or destroyed
    OQ_EMITTED const char* get() const
    {
        OQ_STRING_ASSERT(mString != 0);
        return mString->c_str();
    }

private:
    /// A text of its own. The nothrow form of new is null only when the string object cannot be had; its characters
    /// still come with std::bad_alloc. Both are memory exhausted, which the Pointer reports.
    template <class Text>
    OQ_LOCAL static Pointer<std::string> allocated(const Text& acrText)
    {
        std::string* lpString = 0;
        try {
            lpString = new (std::nothrow) std::string(acrText);
        } catch (const std::bad_alloc&) {
            lpString = 0;
        }
        return Pointer<std::string>(lpString, OQPST_Individual, OQPMT_New);
    }

    Pointer<std::string> mString;
};

#undef OQ_STRING_ASSERT

#endif
