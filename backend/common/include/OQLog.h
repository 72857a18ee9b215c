/// \file
/// The words in which the shared headers and the layer's sources log and assert.
///
/// Macros carry only what must be the caller's: its function name, its line, the text of its condition.
#ifndef OQ_LOG_H
#define OQ_LOG_H

#include <stdlib.h>

#include "OQCompanion.h"

/// Logs one line: the level with its tag, the function and the file it speaks for, then a printf format.
#define OQ_LOG(level, tag, function, file, ...) \
    PrintLogMessageWithTimeStamp(level, tag, __LINE__, function, file, __VA_ARGS__)

/// Ends the process after a broken precondition: one line with the text of the condition, then exit status 1. A function
/// of its own, so that a check costs its callers a test and a jump, and little room.
/// \param[in] aLine       source line of the check
/// \param[in] acFunction  bare name of the function that checks
/// \param[in] acFile      the file's name in the log
/// \param[in] acCondition text of the condition
[[noreturn, gnu::cold, gnu::noinline]] OQ_LOCAL inline void oqAssertionFailed(unsigned int aLine,
                                                                              const char* acFunction,
                                                                              const char* acFile,
                                                                              const char* acCondition)
{
    PrintLogMessageWithTimeStamp(OQLL_Halt, "-H-", aLine, acFunction, acFile, "Assertion [ %s ] failed\n", acCondition);
    exit(1);
}

/// The text is an argument of its own, because a condition passed on from macro to macro arrives with its macros (NULL)
/// expanded.
#define OQ_ASSERT_AS(condition, text, function, file)          \
    do {                                                       \
        if (!(condition)) {                                    \
            oqAssertionFailed(__LINE__, function, file, text); \
        }                                                      \
    } while (false)

#endif
