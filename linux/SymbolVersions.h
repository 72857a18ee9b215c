/// \file
/// Lets the shared libraries run with GNU C library 2.28 when they are built with a later one. CMake includes this file
/// first in each source of the libraries, and defines OQ_SHARED for shared libraries. Otherwise the linker would choose
/// the newest version of each function, although some functions have only moved or have a new name since 2.28.
/// scripts/check-abi examines the versions.
///
/// Two cases use the newest versions: other processors, and a 64-bit time_t on a 32-bit processor, which requires 2.34.
#ifndef OQ_SYMBOL_VERSIONS_H
#define OQ_SYMBOL_VERSIONS_H

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#define OQ_VERSION(name, version) __asm__(".symver " #name "," #name "@GLIBC_" version);
// A name that a source does not use has no effect there.
#define OQ_VERSIONS(oldest, of_create, of_setstacksize, of_setpshared, of_setrobust) \
    OQ_VERSION(pthread_attr_setstacksize, of_setstacksize)                           \
    OQ_VERSION(pthread_cancel, oldest)                                               \
    OQ_VERSION(pthread_create, of_create)                                            \
    OQ_VERSION(pthread_join, oldest)                                                 \
    OQ_VERSION(pthread_mutex_trylock, oldest)                                        \
    OQ_VERSION(pthread_mutexattr_destroy, oldest)                                    \
    OQ_VERSION(pthread_mutexattr_init, oldest)                                       \
    OQ_VERSION(pthread_mutexattr_setpshared, of_setpshared)                          \
    OQ_VERSION(pthread_mutexattr_setrobust, of_setrobust)                            \
    OQ_VERSION(pthread_sigmask, oldest)                                              \
    OQ_VERSION(_sys_errlist, of_setrobust)                                           \
    OQ_VERSION(_sys_nerr, of_setrobust)

// OQ_STAT and OQ_MKNOD are the versions of the structures that the functions below receive.
#if !defined OQ_SHARED || (!defined __LP64__ && defined _TIME_BITS && 64 == _TIME_BITS)
#elif defined __x86_64__ && defined __LP64__
OQ_VERSIONS("2.2.5", "2.2.5", "2.2.5", "2.2.5", "2.12")
#define OQ_STAT 1
#define OQ_MKNOD 0
#elif defined __i386__
OQ_VERSIONS("2.0", "2.1", "2.1", "2.2", "2.12")
#define OQ_STAT 3
#define OQ_MKNOD 1
#elif defined __powerpc__ && !defined __powerpc64__
OQ_VERSIONS("2.0", "2.1", "2.6", "2.2", "2.12")
#define OQ_STAT 3
#define OQ_MKNOD 1
#elif defined __powerpc64__ && 2 == _CALL_ELF
OQ_VERSIONS("2.17", "2.17", "2.17", "2.17", "2.17")
#define OQ_STAT 1
#define OQ_MKNOD 1
#elif defined __s390x__
OQ_VERSIONS("2.2", "2.2", "2.2", "2.2", "2.12")
#define OQ_STAT 1
#define OQ_MKNOD 0
#elif defined __aarch64__
OQ_VERSIONS("2.17", "2.17", "2.17", "2.17", "2.17")
#define OQ_STAT 0
#define OQ_MKNOD 0
#elif defined __riscv && 64 == __riscv_xlen
OQ_VERSIONS("2.27", "2.27", "2.27", "2.27", "2.27")
#define OQ_STAT 0
#define OQ_MKNOD 0
#endif

#if defined OQ_STAT || !__GLIBC_PREREQ(2, 32)
// The table that strerrordesc_np() reads.
extern const char* const cErrorTexts[] __asm__("_sys_errlist");
extern const int cErrorCount __asm__("_sys_nerr");
inline const char* errorText(int aError) { return 0 <= aError && aError < cErrorCount ? cErrorTexts[aError] : NULL; }
#define strerrordesc_np errorText
#endif

// Before 2.33, the C library's headers defined stat() and mknod() as calls of these functions.
#if defined OQ_STAT && __GLIBC_PREREQ(2, 33)
#if !defined __LP64__ && defined _FILE_OFFSET_BITS && 64 == _FILE_OFFSET_BITS
int statOfVersion(int aVersion, const char* acPath, struct stat* apInfo) noexcept __asm__("__xstat64");
#else
int statOfVersion(int aVersion, const char* acPath, struct stat* apInfo) noexcept __asm__("__xstat");
#endif
int mknodOfVersion(int aVersion, const char* acPath, mode_t aMode, dev_t* apDevice) noexcept __asm__("__xmknod");
inline int makeNode(const char* acPath, mode_t aMode, dev_t aDevice)
{
    return mknodOfVersion(OQ_MKNOD, acPath, aMode, &aDevice);
}
#define stat(path, info) statOfVersion(OQ_STAT, path, info)
#define mknod makeNode
#endif

#endif
