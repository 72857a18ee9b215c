/// \file
/// The companion runtime: what the layer calls and does not bring along.
///
/// libOQLinux.so leaves every function and class of this header unresolved. The host process carries them, either in
/// a runtime of its own or in libOQCompanion.so of this project; a host that lacks one is told its name by the loader.
///
/// A host that brings its own runtime keeps seven promises on which the layer relies:
/// 1. PrintLogMessageWithTimeStamp() and ClibStrerror() leave errno as they found it: the layer takes an error text,
///    logs a line and takes the text again for the exception.
/// 2. Both never throw.
/// 3. Both can be called in a child of fork() while other threads of the parent were in them: they hold no lock that
///    such a child would find taken.
/// 4. Every function is thread-safe.
/// 5. ClibStrcpy() accepts a source that is its destination.
/// 6. ClibFread() throws OQCReadFailedEx and ClibStat() throws OQCClibStatFailedEx; the other wrappers report as the
///    functions that they wrap, with errno.
/// 7. The counter is atomic.
#ifndef OQ_COMPANION_H
#define OQ_COMPANION_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>

// Public types contain std::string and std::list, so a caller must be built with the same layout of both as the library.
#ifdef _GLIBCXX_DEBUG
#error "_GLIBCXX_DEBUG changes the layout of public types: remove -D_GLIBCXX_DEBUG; use -D_GLIBCXX_ASSERTIONS"
#endif
#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "_GLIBCXX_USE_CXX11_ABI=0 changes the layout of public types: remove -D_GLIBCXX_USE_CXX11_ABI=0"
#endif

/// Offered by a library although all else in it is hidden.
#define OQ_EXPORT __attribute__((visibility("default")))
/// For a private helper of an exported class: whether it is inlined must not change what the library exports.
#define OQ_LOCAL __attribute__((visibility("hidden")))

/// Gives an inline member a body of its own in the library (a caller built without inlining binds to it) although the
/// optimiser would inline every use. Only the one source of the library that defines OQ_EMIT_INLINE asks for it.
#ifdef OQ_EMIT_INLINE
#define OQ_EMITTED __attribute__((used))
#else
#define OQ_EMITTED
#endif

class OQCString;
struct stat;

/// The severities of log lines, one bit each; no others are used.
enum OQELogLevel : unsigned int {
    OQLL_Halt = 1,          ///< tag "-H-": a broken precondition (exit status 1 follows), or a host without an address
    OQLL_Error = 8,         ///< tag "-E-": a failure, with the system's error text where there is one
    OQLL_Information = 64,  ///< tag "-I-": something a maintainer wants to know although all is well
    OQLL_Trace = 128        ///< tag "-T-": entry, exit and details of operations
};

/// \defgroup companion Companion runtime
/// What the layer asks of its host. The wrappers behave as the standard function of the same name without the prefix,
/// with the differences stated. Where the standard function fails they return its result and leave errno as it set it.
/// @{

/// Writes one time-stamped log line.
/// \posix write(), as a bare system call
/// \param[in] aLevel     severity, one bit of OQELogLevel; decides whether the line is written at all
/// \param[in] acTag      the three characters that belong to the level
/// \param[in] aLine      source line of the call
/// \param[in] acFunction bare name of the calling function
/// \param[in] acFile     source file of the call as the build names it
/// \param[in] acFormat   printf format of the message, whose values follow
/// \nothrow
/// \logs That line. One that cannot be written, or its rest, is dropped; the next line then begins with a line feed.
/// \threads Any; lines do not mix (on a pipe: those of up to 4096 bytes). Not a cancellation point. errno is left as it
/// was.
OQ_EXPORT void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine,
                                            const char* acFunction, const char* acFile, const char* acFormat, ...)
    __attribute__((format(printf, 6, 7)));

/// Writes the text of the calling thread's errno into a buffer.
/// \posix strerrordesc_np(): the untranslated text
/// \param[out] apBuffer receives the text, always terminated; owned by the caller
/// \param[in]  aSize    size of the buffer in bytes; a longer text is cut, and 0 stores nothing
/// \return apBuffer
/// \nothrow
/// \silent
/// \threads Any. errno is left as it was.
OQ_EXPORT char* ClibStrerror(char* apBuffer, unsigned int aSize);

/// @}

/// Root of the exception tree: one message and one code, held by value. See OQException.h for the classes below it.
class OQ_EXPORT OQCException
{
public:
    /// Never fails.
    /// \param[in] acMessage text, copied; cut at 255 characters
    /// \param[in] aCode     code of the class that is thrown
    OQCException(const char* acMessage, unsigned int aCode) noexcept;
    /// Defined in the companion runtime, as the constructor: the class's type information lives there.
    virtual ~OQCException();

    /// Never fails.
    /// \return the stored text; valid as long as the object
    virtual const char* what() const { return mMessage; }

    /// Tells the class of failure, not the place.
    /// \return the code given to the constructor
    unsigned int code() const { return mCode; }

private:
    char mMessage[256];
    uint32_t mCode;
};

/// Counter shared by all Pointer objects that refer to one pointee. Its operations are atomic, so copies of a Pointer
/// may be held and released by different threads.
class OQ_EXPORT OQCReferenceCount
{
public:
    /// \param[in] aInitial how many holders there are already
    explicit OQCReferenceCount(unsigned int aInitial);
    /// Of the last holder.
    ~OQCReferenceCount();

    /// Adds one holder.
    void increment();
    /// Takes one holder away.
    /// \return the new count; 0: no holder is left
    unsigned int decrement();

private:
    OQCReferenceCount(const OQCReferenceCount&);
    OQCReferenceCount& operator=(const OQCReferenceCount&);

    std::atomic<uint32_t> mCount;
};

/// \addtogroup companion
/// @{

/// Reads the first line of a text file, of any length, without its newline. An empty file gives an empty line.
/// \posix fopen(), getline(), fclose()
/// \param[in] acrPath path of the file
/// \param[in,out] arLine receives the line; untouched on failure
/// \return 0, or -1 with errno set when the file cannot be opened or read
/// \throws OQCNoMemoryEx 2 "Out of Memory" when there is no memory for the copy of the line
/// \silent
/// \threads Any, one at a time for one arLine. A cancellation point.
/// \trap A zero byte ends the text of the line.
OQ_EXPORT int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine);

/// Opens a file.
/// \posix open()
/// \param[in] acPath path of the file
/// \param[in] aFlags O_RDONLY and the like
/// \param[in] aMode  permissions (octal) of a file that is created
/// \return a descriptor, which the caller closes, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibOpen(const char* acPath, int aFlags, int aMode);

/// Reads once.
/// \posix read()
/// \param[in]  aDescriptor open for reading
/// \param[out] apBuffer    receives the bytes
/// \param[in]  aCount      at most so many bytes
/// \return bytes read, 0 at end of data, or -1
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount);

/// Reads until so many bytes have arrived or the data ends; an interrupted read is continued.
/// \posix read()
/// \param[in]  aDescriptor open for reading
/// \param[out] apBuffer    receives the bytes
/// \param[in]  aCount      how many bytes to read
/// \return bytes read, fewer than aCount only at end of data; or -1 when a read fails, whatever had arrived before it
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
/// \trap The result is an int: more than 2 GiB at once cannot be told.
OQ_EXPORT int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount);

/// Writes once.
/// \posix write()
/// \param[in] aDescriptor open for writing
/// \param[in] acBuffer    the bytes
/// \param[in] aCount      how many
/// \return bytes written, perhaps fewer than aCount, or -1
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
/// \param[in]  aSize    bytes an item
/// \param[in]  aCount   at most so many items
/// \param[in]  apStream open for reading
/// \return items read; 0 at end of data
/// \throws OQCReadFailedEx 328 when the stream reports a read error, also when items arrived before the error
/// \silent
/// \threads Any. A cancellation point.
/// \trap The interruption by a signal is a read error. The stream's error flag stays set: every later call throws until
/// the caller calls clearerr(). Such a call takes the text of errno as it is then, which may be another error's.
OQ_EXPORT unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream);

/// Examines a file.
/// \posix stat()
/// \param[in]  acPath path to examine
/// \param[out] apInfo receives what is known of it; unchanged on failure
/// \return 0
/// \throws OQCClibStatFailedEx 173 when the path cannot be examined
/// \silent
/// \threads Any.
/// \trap On 32-bit systems a file of 2 GiB and more cannot be examined: the structure that crosses this boundary is the
/// one without large-file support.
OQ_EXPORT int ClibStat(const char* acPath, struct stat* apInfo);

/// Tells the wall-clock time.
/// \posix clock_gettime(CLOCK_REALTIME)
/// \param[out] arSeconds      receives the seconds since 1970
/// \param[out] arMilliseconds receives the milliseconds within the second, 0 to 999
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds);

/// Puts the calling thread to sleep, also when a signal interrupts it, for the whole time.
/// \posix clock_nanosleep(CLOCK_MONOTONIC)
/// \param[in] aMilliseconds how long, in milliseconds
/// \nothrow
/// \silent
/// \threads Any. A cancellation point.
OQ_EXPORT void ClibSleepMS(unsigned long aMilliseconds);

/// Tells the host's name.
/// \posix gethostname()
/// \param[out] apBuffer receives the name
/// \param[in]  aSize    size of the buffer in bytes
/// \return 0, or -1 when the name does not fit
/// \nothrow
/// \silent
/// \threads Any.
/// \trap A name that does not fit is cut and not terminated: clear the buffer first, and pass one byte less than its
/// size.
OQ_EXPORT int ClibGethostname(char* apBuffer, unsigned int aSize);

/// Copies bytes; the two places do not overlap.
/// \posix memcpy()
/// \param[out] apDestination receives them
/// \param[in]  acSource      where they are
/// \param[in]  aCount        how many bytes
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount);

/// Sets bytes to one value.
/// \posix memset()
/// \param[out] apDestination the bytes
/// \param[in]  aValue        their value, as an unsigned char
/// \param[in]  aCount        how many bytes
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT void* ClibMemset(void* apDestination, int aValue, unsigned int aCount);

/// Copies a text. Unlike strcpy() it bears texts that overlap.
/// \posix memmove()
/// \param[out] apDestination receives it with its end; nothing checks that it fits
/// \param[in]  acSource      zero-terminated
/// \return apDestination
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT char* ClibStrcpy(char* apDestination, const char* acSource);

/// Counts the bytes of a text before its end.
/// \posix strlen()
/// \param[in] acText zero-terminated
/// \return bytes
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT unsigned int ClibStrlen(const char* acText);

/// Compares the beginnings of two texts.
/// \posix strncmp()
/// \param[in] acLeft  zero-terminated
/// \param[in] acRight zero-terminated
/// \param[in] aCount  at most so many bytes
/// \return less than, equal to or greater than 0, as acLeft is to acRight
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT int ClibnStrcmp(const char* acLeft, const char* acRight, unsigned int aCount);

/// Turns a number from network order into the host's.
/// \posix ntohl()
/// \param[in] aValue in network order
/// \return in the host's order
/// \nothrow
/// \silent
/// \threads Any.
OQ_EXPORT unsigned int ClibNtohl(unsigned int aValue);

/// Formats a text.
/// \posix vsprintf()
/// \param[out] apBuffer receives it with its end
/// \param[in]  acFormat printf format, whose values follow
/// \return bytes written, without the end
/// \nothrow
/// \silent
/// \threads Any.
/// \trap The caller's buffer must hold the result: nothing checks it.
OQ_EXPORT int ClibSprintf(char* apBuffer, const char* acFormat, ...) __attribute__((format(printf, 2, 3)));

/// @}

#endif
