/// \file
/// The exception tree.
///
/// Every failure of the layer is thrown as one leaf of this tree, by value; catch by reference, as the leaf, as its
/// family, as OQCHaltEx where the row says OQ_HALT, or as OQCException. All inheritance is public and virtual: an
/// object holds one message and one code. std::exception is no base of the tree.
#ifndef OQ_EXCEPTION_H
#define OQ_EXCEPTION_H

#include "OQCompanion.h"

/// The fixed code of a leaf: `OQErrorCode<OQCTimeOutEx>::value`.
template <class Leaf>
struct OQErrorCode;

// Destructors are not inlined: what the compiler adds to each (one that frees, entries from every base) is a jump then
// instead of a further copy.

#define OQ_FAMILY(Family)                                                                                         \
    class OQ_EXPORT Family : public virtual OQCException                                                          \
    {                                                                                                             \
    public:                                                                                                       \
        OQ_EMITTED Family(const char* acMessage, unsigned int aCode) noexcept : OQCException(acMessage, aCode) {} \
        [[gnu::noinline]] OQ_EMITTED virtual ~Family() {}                                                         \
    }

#define OQ_LEAF(Leaf, Family, Code)                                         \
    class OQ_EXPORT Leaf : public virtual Family                            \
    {                                                                       \
    public:                                                                 \
        OQ_EMITTED Leaf(const char* acMessage, unsigned int aCode) noexcept \
            : OQCException(acMessage, aCode), Family(acMessage, aCode)      \
        {                                                                   \
        }                                                                   \
        [[gnu::noinline]] OQ_EMITTED virtual ~Leaf() {}                     \
    };                                                                      \
    template <>                                                             \
    struct OQErrorCode<Leaf> {                                              \
        enum : unsigned int { value = Code };                               \
    }

#define OQ_HALT(Leaf, Family, Code)                                                                 \
    class OQ_EXPORT Leaf : public virtual Family, public virtual OQCHaltEx                          \
    {                                                                                               \
    public:                                                                                         \
        OQ_EMITTED Leaf(const char* acMessage, unsigned int aCode) noexcept                         \
            : OQCException(acMessage, aCode), Family(acMessage, aCode), OQCHaltEx(acMessage, aCode) \
        {                                                                                           \
        }                                                                                           \
        [[gnu::noinline]] OQ_EMITTED virtual ~Leaf() {}                                             \
    };                                                                                              \
    template <>                                                                                     \
    struct OQErrorCode<Leaf> {                                                                      \
        enum : unsigned int { value = Code };                                                       \
    }

OQ_FAMILY(OQCGenericException);  ///< no failed system call: bad argument, unsupported operation, memory exhausted
OQ_FAMILY(OQCOsException);       ///< a call into the operating system failed or timed out
OQ_FAMILY(OQCHaltEx);            ///< the caller is to halt; only ever a second base
OQ_FAMILY(OQCClibEx);            ///< a wrapper of the companion runtime failed

// clang-format off
//      class                          family               code   reports
OQ_HALT(OQCNoMemoryEx,                 OQCGenericException,   2);  // memory exhausted
OQ_LEAF(OQCNullPointerEx,              OQCGenericException,   3);  // a required pointer is null
OQ_LEAF(OQCInvalidEx,                  OQCGenericException,   6);  // a file mode outside 1 to 4
OQ_LEAF(OQCNotSupportedEx,             OQCGenericException,  12);  // suspend and resume of threads

OQ_LEAF(OQCClibStatFailedEx,           OQCClibEx,           173);  // a path or a segment cannot be examined

OQ_LEAF(OQCTryAgainEx,                 OQCOsException,      322);  // no message in the segment
OQ_LEAF(OQCTimeOutEx,                  OQCOsException,      323);  // a bounded wait ran out
OQ_LEAF(OQCCreateFailedEx,             OQCOsException,      324);  // a FIFO cannot be made
OQ_LEAF(OQCOpenFailedEx,               OQCOsException,      326);  // a segment cannot be found or attached
OQ_LEAF(OQCCloseFailedEx,              OQCOsException,      327);  // a segment cannot be removed or detached
OQ_LEAF(OQCReadFailedEx,               OQCOsException,      328);  // a stream cannot be read; from ClibFread
OQ_LEAF(OQCFileLockFailedEx,           OQCOsException,      330);  // a file or a segment cannot be locked
OQ_LEAF(OQCFileUnLockFailedEx,         OQCOsException,      331);  // ... or unlocked
OQ_LEAF(OQCPipeWaitFailedEx,           OQCOsException,      332);  // a descriptor cannot be waited on
OQ_LEAF(OQCMutexInitFailedEx,          OQCOsException,      333);
OQ_LEAF(OQCMutexDestroyFailedEx,       OQCOsException,      334);
OQ_HALT(OQCMutexLockFailedEx,          OQCOsException,      335);  // also: try-lock found the mutex held
OQ_HALT(OQCMutexUnlockFailedEx,        OQCOsException,      336);
OQ_LEAF(OQCCondInitFailedEx,           OQCOsException,      337);
OQ_LEAF(OQCCondDestroyFailedEx,        OQCOsException,      338);
OQ_HALT(OQCCondWaitFailedEx,           OQCOsException,      339);
OQ_HALT(OQCCondSignalFailedEx,         OQCOsException,      340);
OQ_HALT(OQCCondBroadcastFailedEx,      OQCOsException,      341);
OQ_LEAF(OQCThreadStartFailedEx,        OQCOsException,      342);
OQ_LEAF(OQCThreadDestructionFailedEx,  OQCOsException,      343);
OQ_LEAF(OQCThreadWaitForExitFailedEx,  OQCOsException,      344);
OQ_LEAF(OQCProcessCreationFailedEx,    OQCOsException,      345);
OQ_LEAF(OQCProcessWaitFailedEx,        OQCOsException,      345);  // shares its code with the failed creation
OQ_LEAF(OQCGetIpAddressFailEx,         OQCOsException,      347);  // no lookup, or only loopback addresses
// clang-format on

#undef OQ_FAMILY
#undef OQ_LEAF
#undef OQ_HALT

#endif
