#include "Fuzz.h"

#include <stdarg.h>
#include <string.h>

std::string gLog;

void PrintLogMessageWithTimeStamp(unsigned int aLevel, const char* acTag, unsigned int aLine, const char* acFunction,
                                  const char* acFile, const char* acFormat, ...)
{
    static char sText[8192];
    va_list lArguments;
    va_start(lArguments, acFormat);
    const int lLength = vsnprintf(sText, sizeof sText, acFormat, lArguments);
    va_end(lArguments);
    CHECK(0 <= lLength && static_cast<size_t>(lLength) < sizeof sText);
    CHECK(3 == strlen(acTag) && 0 != aLine && 0 != *acFunction && 0 != *acFile);
    CHECK(OQLL_Trace == aLevel);  // the fuzzed operations log only trace lines
    gLog.append(sText, static_cast<size_t>(lLength) + 1);
}
