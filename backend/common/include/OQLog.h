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

/// A broken precondition ends the process: one line with the text of the condition, then exit status 1. The text is an
/// argument of its own, because a condition passed on from macro to macro arrives with its macros (NULL) expanded.
#define OQ_ASSERT_AS(condition, text, function, file)                                    \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            OQ_LOG(OQLL_Halt, "-H-", function, file, "Assertion [ %s ] failed\n", text); \
            exit(1);                                                                     \
        }                                                                                \
    } while (false)

#endif
