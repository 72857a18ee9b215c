/// \file
/// String value.
#ifndef OQ_STRING_H
#define OQ_STRING_H

#include <new>
#include <string>

#include "Pointer.h"

/// Asserts; logs under this file's name.
#define OQ_STRING_ASSERT(condition) OQ_ASSERT_AS(condition, #condition, __func__, "backend/common/include/OQString")

/// A text value. Every copy and every assignment is a deep copy, so different threads may use different objects. Two
/// threads must not use one object at the same time.
///
/// An object built by a constructor always holds a text. The assertions ("mString != 0" and similar) detect the use of
/// destroyed or corrupted objects. A failed assertion logs one "-H-" line and exits with status 1.
class OQ_EXPORT OQCString
{
public:
    /// Copies a text.
    /// \param[in] acText zero-terminated, not checked for null
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    // cppcheck-suppress noExplicitConstructor ; callers pass literals
    OQ_EMITTED OQCString(const char* acText) : mString(allocated(acText)) {}

    /// Copies a string. Asserts "acrCopy.mString != 0".
    /// \param[in] acrCopy the string to copy
    /// \throws OQCNoMemoryEx 2 "Out of Memory"
    OQ_EMITTED OQCString(const OQCString& acrCopy) : mString()
    {
        OQ_STRING_ASSERT(acrCopy.mString != 0);
        mString = allocated(*acrCopy.mString);
    }

    /// Frees the text.
    OQ_EMITTED ~OQCString() {}

    /// Replaces the text by a copy. Pointer asserts "0 != mPointer" for acrCopy and logs under its own name.
    /// \param[in] acrCopy the string to copy; may be this object
    /// \return this object
    /// \throws OQCNoMemoryEx 2 "Out of Memory"; this object then keeps its text
    OQ_EMITTED OQCString& operator=(const OQCString& acrCopy)
    {
        if (this != &acrCopy) {
            mString = allocated(*acrCopy.mString);
        }
        return *this;
    }

    /// Appends a text. Asserts "mString != 0" and "acrString.mString != 0".
    /// \param[in] acrString the text to append
    /// \return this object
    /// \throws std::bad_alloc when the longer text cannot be allocated; this object then keeps its text
    OQ_EMITTED OQCString& operator+=(const OQCString& acrString)
    {
        OQ_STRING_ASSERT(mString != 0);
        OQ_STRING_ASSERT(acrString.mString != 0);
        mString->append(*acrString.mString);
        return *this;
    }

    /// Returns the text. Asserts "mString != 0".
    /// \return the zero-terminated text, valid until the string is next modified, assigned or destroyed
    OQ_EMITTED const char* get()
    {
        OQ_STRING_ASSERT(mString != 0);
        return mString->c_str();
    }
    /// Returns the text. Asserts "mString != 0".
    /// \return the zero-terminated text, valid until the string is next modified, assigned or destroyed
    OQ_EMITTED const char* get() const
    {
        OQ_STRING_ASSERT(mString != 0);
        return mString->c_str();
    }

private:
    /// Allocates a copy of a text. If the string object cannot be allocated, the nothrow form of new returns null. If
    /// its characters cannot be allocated, the string's constructor throws std::bad_alloc. In both cases the Pointer
    /// throws OQCNoMemoryEx.
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
