/// \file
/// The exception tree.
///
/// The layer throws a failure by value, as one leaf of this tree. Catch it by reference: as the leaf, as its family, as
/// OQCHaltEx if its row says OQ_HALT_LEAF, or as OQCException. All inheritance is public and virtual, so an object
/// holds one message and one code. The tree does not derive from std::exception.
///
/// The code of the exception classes is in the layer. A host that loads the layer with dlopen() must not unload it
/// while one of these exceptions is being handled.
#ifndef OQ_EXCEPTION_H
#define OQ_EXCEPTION_H

#include "OQCompanion.h"

/// The fixed code of a leaf: `OQErrorCode<OQCTimeOutEx>::value`.
template <class Leaf>
struct OQErrorCode;

// Destructors are out of line. The deleting destructor and the base-class thunks then jump to one copy instead of
// containing it. Inline destructors would make the code of the library 5.4 KB larger (109.6 instead of 104.1 KB).

/// Defines a family: a class between the root and its leaves.
#define OQ_FAMILY(Family)                                                                                         \
    class OQ_EXPORT Family : public virtual OQCException                                                          \
    {                                                                                                             \
    public:                                                                                                       \
        OQ_EMITTED Family(const char* acMessage, unsigned int aCode) noexcept : OQCException(acMessage, aCode) {} \
        [[gnu::noinline]] OQ_EMITTED virtual ~Family() {}                                                         \
    }

/// Defines a leaf, a class that is thrown, and its code.
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

/// Defines a leaf that is also an OQCHaltEx: the caller should halt.
#define OQ_HALT_LEAF(Leaf, Family, Code)                                                            \
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

OQ_FAMILY(OQCGenericException);  ///< bad argument, unsupported operation, or out of memory; not a failed system call
OQ_FAMILY(OQCOsException);       ///< a call into the operating system failed or timed out
OQ_FAMILY(OQCHaltEx);            ///< the caller should halt; always a second base class
OQ_FAMILY(OQCClibEx);            ///< a wrapper of the companion runtime failed

// clang-format off
//           class                     family              code   reports
OQ_HALT_LEAF(OQCNoMemoryEx,            OQCGenericException,   2);  // out of memory
OQ_LEAF(OQCNullPointerEx,              OQCGenericException,   3);  // a required pointer is null
OQ_LEAF(OQCInvalidEx,                  OQCGenericException,   6);  // a file mode outside 1 to 4
OQ_LEAF(OQCNotSupportedEx,             OQCGenericException,  12);  // suspending and resuming threads

OQ_LEAF(OQCClibStatFailedEx,           OQCClibEx,           173);  // a path or a segment cannot be examined

OQ_LEAF(OQCTryAgainEx,                 OQCOsException,      322);  // no message in the segment
OQ_LEAF(OQCTimeOutEx,                  OQCOsException,      323);  // a wait with a time limit timed out
OQ_LEAF(OQCCreateFailedEx,             OQCOsException,      324);  // a FIFO cannot be created
OQ_LEAF(OQCOpenFailedEx,               OQCOsException,      326);  // a segment cannot be found or attached
OQ_LEAF(OQCCloseFailedEx,              OQCOsException,      327);  // a segment cannot be removed or detached
OQ_LEAF(OQCReadFailedEx,               OQCOsException,      328);  // a stream cannot be read; from ClibFread
OQ_LEAF(OQCFileLockFailedEx,           OQCOsException,      330);  // a file or a segment cannot be locked
OQ_LEAF(OQCFileUnLockFailedEx,         OQCOsException,      331);  // a file or a segment cannot be unlocked
OQ_LEAF(OQCPipeWaitFailedEx,           OQCOsException,      332);  // a descriptor cannot be waited on
OQ_LEAF(OQCMutexInitFailedEx,          OQCOsException,      333);  // a mutex cannot be initialised
OQ_LEAF(OQCMutexDestroyFailedEx,       OQCOsException,      334);  // a mutex cannot be destroyed
OQ_HALT_LEAF(OQCMutexLockFailedEx,     OQCOsException,      335);  // a mutex cannot be locked, or (try-lock) is held
OQ_HALT_LEAF(OQCMutexUnlockFailedEx,   OQCOsException,      336);  // a mutex cannot be unlocked
OQ_LEAF(OQCCondInitFailedEx,           OQCOsException,      337);  // a condition variable cannot be initialised
OQ_LEAF(OQCCondDestroyFailedEx,        OQCOsException,      338);  // a condition variable cannot be destroyed
OQ_HALT_LEAF(OQCCondWaitFailedEx,      OQCOsException,      339);  // a wait failed for another reason than a time-out
OQ_HALT_LEAF(OQCCondSignalFailedEx,    OQCOsException,      340);  // a waiter cannot be woken
OQ_HALT_LEAF(OQCCondBroadcastFailedEx, OQCOsException,      341);  // broadcast failed; no exported operation throws it
OQ_LEAF(OQCThreadStartFailedEx,        OQCOsException,      342);  // a thread cannot be started
OQ_LEAF(OQCThreadDestructionFailedEx,  OQCOsException,      343);  // a thread cannot be cancelled
OQ_LEAF(OQCThreadWaitForExitFailedEx,  OQCOsException,      344);  // a thread cannot be joined
OQ_LEAF(OQCProcessCreationFailedEx,    OQCOsException,      345);  // no child was created, or it cannot run its program
OQ_LEAF(OQCProcessWaitFailedEx,        OQCOsException,      345);  // a wait for a child failed; same code as above
OQ_LEAF(OQCGetIpAddressFailEx,         OQCOsException,      347);  // the lookup failed, or all addresses are loopback
// clang-format on

#undef OQ_FAMILY
#undef OQ_LEAF
#undef OQ_HALT_LEAF

#endif
