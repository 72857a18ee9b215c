/// \file
/// The exception tree.
///
/// A failure that the layer throws is one leaf of this tree, by value; catch by reference, as the leaf, as its
/// family, as OQCHaltEx where the row says OQ_HALT, or as OQCException. All inheritance is public and virtual: an
/// object holds one message and one code. std::exception is no base of the tree.
///
/// An exception's class lives in the layer: a host that has loaded it with dlopen() unloads it only when none of its
/// exceptions is being handled any more.
#ifndef OQ_EXCEPTION_H
#define OQ_EXCEPTION_H

#include "OQCompanion.h"

/// The fixed code of a leaf: `OQErrorCode<OQCTimeOutEx>::value`.
template <class Leaf>
struct OQErrorCode;

// Destructors are not inlined: what the compiler adds to each (one that frees, entries from every base) is a jump then
// instead of a further copy.

/// A family: a class below the root, and above leaves.
#define OQ_FAMILY(Family)                                                                                         \
    class OQ_EXPORT Family : public virtual OQCException                                                          \
    {                                                                                                             \
    public:                                                                                                       \
        OQ_EMITTED Family(const char* acMessage, unsigned int aCode) noexcept : OQCException(acMessage, aCode) {} \
        [[gnu::noinline]] OQ_EMITTED virtual ~Family() {}                                                         \
    }

/// A leaf: what is thrown, with its code beside it.
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

/// A leaf after which the caller is to halt.
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
OQ_LEAF(OQCFileUnLockFailedEx,         OQCOsException,      331);  // a file or a segment cannot be unlocked
OQ_LEAF(OQCPipeWaitFailedEx,           OQCOsException,      332);  // a descriptor cannot be waited on
OQ_LEAF(OQCMutexInitFailedEx,          OQCOsException,      333);  // a mutex cannot be initialised
OQ_LEAF(OQCMutexDestroyFailedEx,       OQCOsException,      334);  // a mutex cannot be destroyed
OQ_HALT(OQCMutexLockFailedEx,          OQCOsException,      335);  // a mutex cannot be locked; try-lock: or is held
OQ_HALT(OQCMutexUnlockFailedEx,        OQCOsException,      336);  // a mutex cannot be unlocked
OQ_LEAF(OQCCondInitFailedEx,           OQCOsException,      337);  // a condition variable cannot be initialised
OQ_LEAF(OQCCondDestroyFailedEx,        OQCOsException,      338);  // a condition variable cannot be destroyed
OQ_HALT(OQCCondWaitFailedEx,           OQCOsException,      339);  // a wait failed, but not by its time
OQ_HALT(OQCCondSignalFailedEx,         OQCOsException,      340);  // a waiter cannot be woken
OQ_HALT(OQCCondBroadcastFailedEx,      OQCOsException,      341);  // broadcast failed; no exported operation throws it
OQ_LEAF(OQCThreadStartFailedEx,        OQCOsException,      342);  // a thread cannot be started
OQ_LEAF(OQCThreadDestructionFailedEx,  OQCOsException,      343);  // a thread cannot be asked to end
OQ_LEAF(OQCThreadWaitForExitFailedEx,  OQCOsException,      344);  // a thread cannot be joined
OQ_LEAF(OQCProcessCreationFailedEx,    OQCOsException,      345);  // no child, or one that cannot run its program
OQ_LEAF(OQCProcessWaitFailedEx,        OQCOsException,      345);  // a child cannot be waited for; the same code
OQ_LEAF(OQCGetIpAddressFailEx,         OQCOsException,      347);  // no lookup, or only loopback addresses
// clang-format on

#undef OQ_FAMILY
#undef OQ_LEAF
#undef OQ_HALT

#endif
