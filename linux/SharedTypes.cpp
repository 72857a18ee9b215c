// Emits out-of-line bodies for the inline types of the shared headers. Callers built without inlining bind to these
// bodies. The library also holds the type information that exception handlers in other libraries match against.

#define OQ_EMIT_INLINE

#include "OQLinux.h"

template class Pointer<std::string>;
template class OQCList<OQCString>;
template class OQCList<unsigned int>;
