/// \file
/// The companion runtime: the functions and classes that the layer uses but does not define.
///
/// libOQLinux.so leaves every function and class of this header unresolved. The host process provides them, either in a
/// runtime of its own or in libOQCompanion.so of this project. If a name is missing, the loader reports it.
///
/// The layer relies on seven properties of a runtime, which a host's own runtime must also have:
/// 1. PrintLogMessageWithTimeStamp() and ClibStrerror() leave errno unchanged. The layer gets an error text, logs a
///    line, and gets the text again for the exception.
/// 2. Both never throw.
/// 3. Both can be called in a child of fork(), even if other threads of the parent were executing them during the fork.
///    They must therefore take no lock that such a child could find locked.
/// 4. Every function is thread-safe.
/// 5. ClibStrcpy() accepts a source that equals the destination.
/// 6. ClibFread() throws OQCReadFailedEx and ClibStat() throws OQCClibStatFailedEx. The other wrappers report failures
///    as the wrapped functions do, by result and errno.
/// 7. The counter OQCReferenceCount is atomic.
#ifndef OQ_COMPANION_H
#define OQ_COMPANION_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>

// Public types contain std::string and std::list. The caller and the library must be built with the same layout of
// both.
#ifdef _GLIBCXX_DEBUG
#error "_GLIBCXX_DEBUG changes the layout of public types: remove -D_GLIBCXX_DEBUG; use -D_GLIBCXX_ASSERTIONS"
#endif
#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "_GLIBCXX_USE_CXX11_ABI=0 changes the layout of public types: remove -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

/// Exports a name from a library whose names are hidden by default.
#define OQ_EXPORT __attribute__((visibility("default")))
/// Hides a private helper of an exported class, so that the exports do not depend on whether the helper is inlined.
#define OQ_LOCAL __attribute__((visibility("hidden")))

/// Makes the library emit a body for an inline member even if the optimiser inlines every use. A caller built without
/// inlining binds to that body. Only the one library source that defines OQ_EMIT_INLINE emits these bodies.
#ifdef OQ_EMIT_INLINE
#define OQ_EMITTED __attribute__((used))
#else
#define OQ_EMITTED
#endif

class OQCString;
struct stat;

/// The severities of log lines, one bit each. The layer uses no others.
enum OQELogLevel : unsigned int {
    OQLL_Halt = 1,          ///< tag "-H-": a broken precondition (exit status 1 follows), or a host without an address
    OQLL_Error = 8,         ///< tag "-E-": a failure, with the system's error text if there is one
    OQLL_Information = 64,  ///< tag "-I-": a noteworthy event that is not a failure
    OQLL_Trace = 128        ///< tag "-T-": entry, exit and details of operations
};

/// \defgroup companion Companion runtime
/// The functions and classes that the host provides. Each wrapper behaves like the standard function of the same name
/// without the prefix, except where stated. When the standard function fails, the wrapper returns its result and leaves
/// errno as that function set it.
/// @{

/// Writes one time-stamped log line.
/// \posix write(), as a direct system call
/// \param[in] aLevel     severity, one bit of OQELogLevel; determines whether the line is written
/// \param[in] acTag      the three-character tag of the level
/// \param[in] aLine      source line of the call
/// \param[in] acFunction bare name of the calling function
/// \param[in] acFile     the caller's file name, as it appears in the log
/// \param[in] acFormat   printf format of the message; its values follow
/// \nothrow
/// \logs The line itself. If a line, or the rest of it, cannot be written, it is dropped. After a partial write, the
/// next line begins with a line feed.
/// \threads Any; lines do not mix (on a pipe, lines of up to 4096 bytes). Not a cancellation point. errno is unchanged.
OQ_EXPORT void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine,
                                            const char* acFunction, const char* acFile, const char* acFormat, ...)
    __attribute__((format(printf, 6, 7)));

/// Writes the text of the calling thread's errno into a buffer.
/// \posix strerrordesc_np(): the untranslated text
/// \param[out] apBuffer receives the text, always zero-terminated; the caller's
/// \param[in]  aSize    size of the buffer in bytes; a longer text is truncated, and with 0 nothing is stored
/// \return apBuffer
/// \nothrow
/// \silent
/// \threads Any. errno is unchanged.
OQ_EXPORT char* ClibStrerror(char* apBuffer, unsigned int aSize);

/// @}

/// Root of the exception tree: one message and one code, held by value. See OQException.h for the classes below it.
class OQ_EXPORT OQCException
{
public:
    /// Stores a message and a code. Never fails.
    /// \param[in] acMessage text; copied and truncated to 255 characters
    /// \param[in] aCode     code of the class that is thrown
    OQCException(const char* acMessage, unsigned int aCode) noexcept;
    /// Defined in the companion runtime, like the constructor, so that the type information of the class is emitted
    /// there.
    virtual ~OQCException();

    /// Returns the message. Never fails.
    /// \return the stored text; valid as long as the object
    virtual const char* what() const { return mMessage; }

    /// Returns the code, which identifies the class of the failure and not the place.
    /// \return the code given to the constructor
    unsigned int code() const { return mCode; }

private:
    char mMessage[256];
    uint32_t mCode;
};

/// Counter shared by all Pointer objects that refer to one pointee. Its operations are atomic, so different threads may
/// hold and release copies of a Pointer.
class OQ_EXPORT OQCReferenceCount
{
public:
    /// \param[in] aInitial initial number of holders
    explicit OQCReferenceCount(unsigned int aInitial);
    /// Called when the last holder is gone.
    ~OQCReferenceCount();

    /// Adds one holder.
    void increment();
    /// Removes one holder.
    /// \return the new count; 0 when no holder is left
    unsigned int decrement();

private:
    OQCReferenceCount(const OQCReferenceCount&);
    OQCReferenceCount& operator=(const OQCReferenceCount&);

    std::atomic<uint32_t> mCount;
};

/// \addtogroup companion
/// @{

/// Reads the first line of a text file, without its newline. The line can have any length. An empty file gives an empty
/// line.
/// \posix fopen(), getline(), fclose()
/// \param[in] acrPath path of the file
/// \param[in,out] arLine receives the line; unchanged on failure
/// \return 0, or -1 with errno set when the file cannot be opened or read
/// \throws OQCNoMemoryEx 2 "Out of Memory" when the copy of the line cannot be allocated
/// \silent
/// \threads Any, one at a time for one arLine. A cancellation point.
/// \trap A zero byte ends the text of the line.
OQ_EXPORT int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine);

/// Opens a file.
/// \posix open()
/// \param[in] acPath path of the file
/// \param[in] aFlags O_RDONLY and the like
/// \param[in] aMode  permissions of a file that is created
/// \return a descriptor, which the caller closes, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibOpen(const char* acPath, int aFlags, int aMode);

/// Calls read() once.
/// \posix read()
/// \param[in]  aDescriptor open for reading
/// \param[out] apBuffer    receives the bytes
/// \param[in]  aCount      maximum number of bytes
/// \return the number of bytes read, 0 at end of data, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount);

/// Reads until aCount bytes have arrived or the data ends. Continues after an interrupted read.
/// \posix read()
/// \param[in]  aDescriptor open for reading
/// \param[out] apBuffer    receives the bytes
/// \param[in]  aCount      number of bytes to read
/// \return the number of bytes read, fewer than aCount only at end of data; or -1 when a read fails, even if bytes had
/// arrived before
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
/// \trap The result is an int, so it cannot represent 2 GiB or more.
OQ_EXPORT int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount);

/// Calls write() once.
/// \posix write()
/// \param[in] aDescriptor open for writing
/// \param[in] acBuffer    the bytes
/// \param[in] aCount      number of bytes
/// \return the number of bytes written, possibly fewer than aCount, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibWrite(int aDescriptor, const void* acBuffer, unsigned int aCount);

/// Closes a descriptor.
/// \posix close()
/// \param[in] aDescriptor open
/// \return 0, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibClose(int aDescriptor);

/// Removes a file's name.
/// \posix unlink()
/// \param[in] acPath path of the file
/// \return 0, or -1
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT int ClibUnlink(const char* acPath);

/// Reads items from a stream.
/// \posix fread()
/// \param[out] apBuffer receives the items
/// \param[in]  aSize    size of an item in bytes
/// \param[in]  aCount   maximum number of items
/// \param[in]  apStream open for reading
/// \return the number of items read; 0 at end of data
/// \throws OQCReadFailedEx 328 when the stream reports a read error, even if items arrived before the error
/// \silent
/// \threads Any. A cancellation point.
/// \trap Interruption by a signal is a read error. The stream's error flag stays set, so every later call throws until
/// the caller calls clearerr(). Such a later exception has the text of the current errno, which may belong to another
/// error.
OQ_EXPORT unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream);

/// Examines a file.
/// \posix stat()
/// \param[in]  acPath path to examine
/// \param[out] apInfo receives the file's status; not null; unchanged on failure
/// \return 0
/// \throws OQCClibStatFailedEx 173 when the path cannot be examined
/// \silent
/// \threads Any.
/// \trap On 32-bit systems a file of 2 GiB or more cannot be examined, because this interface uses struct stat without
/// large-file support.
OQ_EXPORT int ClibStat(const char* acPath, struct stat* apInfo);

/// Reports the time. The mailbox waits call this function and use only differences of two times.
/// \posix clock_gettime(CLOCK_REALTIME); after SetMonotonicTime(true), CLOCK_MONOTONIC
/// \param[out] arSeconds      receives the seconds since 1970
/// \param[out] arMilliseconds receives the milliseconds within the second, 0 to 999
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds);

/// Suspends the calling thread for the whole time. Signals do not shorten the sleep.
/// \posix clock_nanosleep(CLOCK_MONOTONIC)
/// \param[in] aMilliseconds duration in milliseconds
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT void ClibSleepMS(unsigned long aMilliseconds);

/// Reports the host's name.
/// \posix gethostname()
/// \param[out] apBuffer receives the name
/// \param[in]  aSize    size of the buffer in bytes
/// \return 0, or -1 when the name does not fit
/// \nothrow
/// \silent
/// \threads Any.
/// \trap A name that does not fit is truncated and not zero-terminated. Clear the buffer first, and pass one byte less
/// than its size.
OQ_EXPORT int ClibGethostname(char* apBuffer, unsigned int aSize);

/// Copies bytes. The source and the destination must not overlap.
/// \posix memcpy()
/// \param[out] apDestination receives the bytes
/// \param[in]  acSource      the bytes
/// \param[in]  aCount        number of bytes
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount);

/// Sets bytes to one value.
/// \posix memset()
/// \param[out] apDestination the bytes
/// \param[in]  aValue        the value, converted to unsigned char
/// \param[in]  aCount        number of bytes
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void* ClibMemset(void* apDestination, int aValue, unsigned int aCount);

/// Copies a text. Unlike strcpy(), it accepts overlapping texts.
/// \posix memmove()
/// \param[out] apDestination receives the text with its terminating zero; the size is not checked
/// \param[in]  acSource      zero-terminated
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT char* ClibStrcpy(char* apDestination, const char* acSource);

/// Counts the bytes of a text before the terminating zero.
/// \posix strlen()
/// \param[in] acText zero-terminated
/// \return the number of bytes
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT unsigned int ClibStrlen(const char* acText);

/// Compares the beginnings of two texts.
/// \posix strncmp()
/// \param[in] acLeft  zero-terminated
/// \param[in] acRight zero-terminated
/// \param[in] aCount  maximum number of bytes to compare
/// \return less than, equal to or greater than 0 if acLeft is less than, equal to or greater than acRight
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT int ClibnStrcmp(const char* acLeft, const char* acRight, unsigned int aCount);

/// Converts a number from network byte order to host byte order.
/// \posix ntohl()
/// \param[in] aValue number in network byte order
/// \return the number in host byte order
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT unsigned int ClibNtohl(unsigned int aValue);

/// Formats a text.
/// \posix vsprintf()
/// \param[out] apBuffer receives the text with its terminating zero
/// \param[in]  acFormat printf format; its values follow
/// \return the number of bytes written, without the terminating zero
/// \nothrow
/// \silent
/// \threads Any.
/// \trap The caller's buffer must be large enough. The size is not checked.
OQ_EXPORT int ClibSprintf(char* apBuffer, const char* acFormat, ...) __attribute__((format(printf, 2, 3)));

/// @}

#endif
