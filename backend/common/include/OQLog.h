/// \file
/// Macros with which the shared headers and the layer's sources log and assert.
///
/// Only a macro can insert the caller's line and function name, and the text of the condition.
#ifndef OQ_LOG_H
#define OQ_LOG_H

#include <stdlib.h>

#include "OQCompanion.h"

/// Logs one line: level and tag, the function and file names that the line shows, then a printf format and its values.
#define OQ_LOG(level, tag, function, file, ...) \
    PrintLogMessageWithTimeStamp(level, tag, __LINE__, function, file, __VA_ARGS__)

/// Ends the process after a broken precondition: logs one line with the text of the condition and exits with status 1.
/// \param[in] aLine       source line of the check
/// \param[in] acFunction  unqualified name of the checking function
/// \param[in] acFile      file name for the log
/// \param[in] acCondition text of the condition
[[noreturn]] OQ_LOCAL inline void oqAssertionFailed(unsigned int aLine, const char* acFunction, const char* acFile,
                                                    const char* acCondition)
{
    PrintLogMessageWithTimeStamp(OQLL_Halt, "-H-", aLine, acFunction, acFile, "Assertion [ %s ] failed\n", acCondition);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc calls each exit handler once, even if two threads exit.
    exit(1);
}

/// The text is a separate argument: when a condition passes through several macros, the preprocessor expands the macros
/// in it, such as NULL.
#define OQ_ASSERT_AS(condition, text, function, file)          \
    do {                                                       \
        if (!(condition)) {                                    \
            oqAssertionFailed(__LINE__, function, file, text); \
        }                                                      \
    } while (false)

#endif
