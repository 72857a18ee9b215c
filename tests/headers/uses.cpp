// Uses the templates of the headers, and formats a number as FORMAT.
#include "OQLinux.h"

template class OQCList<OQCString>;
template class Pointer<int>;
template class Pointer<const int>;

void format(char* apBuffer)
{
    ClibSprintf(apBuffer, FORMAT, 1);
    PrintLogMessageWithTimeStamp(1, "-H-", 1, "f", "f", FORMAT, 1);
}
