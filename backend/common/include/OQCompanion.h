/// \file
/// The companion runtime: what the layer calls and does not bring along.
///
/// libOQLinux.so leaves every function and class of this header unresolved. The host process carries them, either in
/// the product's own runtime or in libOQCompanion.so of this project; a host that lacks one is told its name by the
/// loader. Every function may be called from several threads at once.
///
/// A host that brings its own runtime keeps three promises on which the layer's failure paths rest:
/// - PrintLogMessageWithTimeStamp() and ClibStrerror() leave errno as they found it: the layer takes an error text,
///   logs a line and takes the text again for the exception;
/// - both never throw and can be called in a child of fork() while other threads of the parent were in them (so they
///   hold no lock that such a child would find taken);
/// - ClibStrcpy() bears a source that is its destination.
#ifndef OQ_COMPANION_H
#define OQ_COMPANION_H

#include <stdint.h>
#include <stdio.h>

#include <atomic>

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

/// Writes one time-stamped log line.
/// \param aLevel     severity, one bit of OQELogLevel; decides whether the line is written at all
/// \param acTag      the three characters that belong to the level
/// \param aLine      source line of the call
/// \param acFunction bare name of the calling function
/// \param acFile     source file of the call as the build names it
/// \param acFormat   printf format of the message
/// Throws: nothing. errno is left as it was. Not a cancellation point.
OQ_EXPORT void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine,
                                            const char* acFunction, const char* acFile, const char* acFormat, ...)
    __attribute__((format(printf, 6, 7)));

/// Writes the text of the calling thread's errno into a buffer.
/// \param apBuffer receives the text, always terminated; owned by the caller
/// \param aSize    size of the buffer in bytes; a longer text is cut
/// \return apBuffer. errno is left as it was.
OQ_EXPORT char* ClibStrerror(char* apBuffer, unsigned int aSize);

/// Root of the exception tree: one message and one code, held by value. See OQException.h for the classes below it.
class OQ_EXPORT OQCException
{
public:
    /// \param acMessage text, copied; cut at 255 characters
    /// \param aCode     code of the class that is thrown
    OQCException(const char* acMessage, unsigned int aCode) noexcept;
    virtual ~OQCException();

    /// The stored text; valid as long as the object. Never fails.
    virtual const char* what() const { return mMessage; }

    /// The code given to the constructor: tells the class of failure, not the place.
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
    explicit OQCReferenceCount(unsigned int aInitial);
    ~OQCReferenceCount();

    void increment();
    /// Subtracts one. \return the new count; 0: no holder is left
    unsigned int decrement();

private:
    OQCReferenceCount(const OQCReferenceCount&);
    OQCReferenceCount& operator=(const OQCReferenceCount&);

    std::atomic<uint32_t> mCount;
};

/// Reads the first line of a text file, of any length, without its newline. A zero byte ends the text of the line.
/// \param acrPath path of the file
/// \param arLine  receives the line; untouched on failure. An empty file gives an empty line.
/// \return 0, or -1 with errno set when the file cannot be opened or read
/// Throws: OQCNoMemoryEx 2 when there is no memory for the copy of the line.
OQ_EXPORT int getFirstLineFromFile(const OQCString& acrPath, OQCString& arLine);

// The wrappers behave as the standard function of the same name without the prefix, with the differences stated. Where
// the standard function fails they return its result and leave errno as it set it.

/// open().
/// \param acPath path of the file
/// \param aFlags O_RDONLY and the like
/// \param aMode  permissions (octal) of a file that is created
/// \return a descriptor, or -1
OQ_EXPORT int ClibOpen(const char* acPath, int aFlags, int aMode);
/// One read().
/// \param aDescriptor open for reading
/// \param apBuffer    receives the bytes
/// \param aCount      at most so many bytes
/// \return bytes read, 0 at end of data, or -1
OQ_EXPORT int ClibRead(int aDescriptor, void* apBuffer, unsigned int aCount);
/// Reads until aCount bytes have arrived or the data ends; an interrupted read is continued.
/// \param aDescriptor open for reading
/// \param apBuffer    receives the bytes
/// \param aCount      how many bytes are wanted
/// \return bytes read, fewer than aCount only at end of data; or -1 when a read fails, whatever had arrived before it.
///         The result is an int: more than 2 GiB at once cannot be told.
OQ_EXPORT int ClibBlockRead(int aDescriptor, void* apBuffer, unsigned int aCount);
/// One write().
/// \param aDescriptor open for writing
/// \param acBuffer    the bytes
/// \param aCount      how many
/// \return bytes written, perhaps fewer than aCount, or -1
OQ_EXPORT int ClibWrite(int aDescriptor, const void* acBuffer, unsigned int aCount);
/// close().
OQ_EXPORT int ClibClose(int aDescriptor);
/// unlink().
OQ_EXPORT int ClibUnlink(const char* acPath);
/// fread().
/// \param apBuffer receives the items
/// \param aSize    bytes an item
/// \param aCount   at most so many items
/// \param apStream open for reading
/// \return items read; 0 at end of data
/// Throws: OQCReadFailedEx 328 with the error text when nothing could be read because of a read error. Data that came
/// before the error is returned first; an error that has passed by the next call is not reported.
OQ_EXPORT unsigned int ClibFread(char* apBuffer, unsigned int aSize, unsigned int aCount, FILE* apStream);
/// stat().
/// \param acPath path to examine
/// \param apInfo receives what is known of it; unchanged on failure
/// \return 0
/// Throws: OQCClibStatFailedEx 173 with the error text when the path cannot be examined; on 32-bit systems also a file
/// of 2 GiB and more (the structure that crosses this boundary is the one without large-file support).
OQ_EXPORT int ClibStat(const char* acPath, struct stat* apInfo);
/// The wall-clock time.
/// \param arSeconds      receives the seconds since 1970
/// \param arMilliseconds receives the milliseconds within the second, 0 to 999
OQ_EXPORT void ClibGetTime(long& arSeconds, unsigned short& arMilliseconds);
/// Sleeps the calling thread for so many milliseconds, also when a signal interrupts it.
OQ_EXPORT void ClibSleepMS(unsigned long aMilliseconds);
/// gethostname().
/// \param apBuffer receives the name
/// \param aSize    size of the buffer in bytes
/// \return 0, or -1; a name that does not fit is cut
OQ_EXPORT int ClibGethostname(char* apBuffer, unsigned int aSize);
/// memcpy().
OQ_EXPORT void* ClibMemcpy(void* apDestination, const void* acSource, unsigned int aCount);
/// memset().
OQ_EXPORT void* ClibMemset(void* apDestination, int aValue, unsigned int aCount);
/// strcpy(), except that the two texts may overlap.
OQ_EXPORT char* ClibStrcpy(char* apDestination, const char* acSource);
/// strlen().
OQ_EXPORT unsigned int ClibStrlen(const char* acText);
/// strncmp().
OQ_EXPORT int ClibnStrcmp(const char* acLeft, const char* acRight, unsigned int aCount);
/// ntohl().
OQ_EXPORT unsigned int ClibNtohl(unsigned int aValue);
/// sprintf(): the caller's buffer must hold the result, nothing checks it.
OQ_EXPORT int ClibSprintf(char* apBuffer, const char* acFormat, ...) __attribute__((format(printf, 2, 3)));

#endif
