// Gives the inline types of the shared headers bodies of their own in the library: callers built without inlining bind
// to them, and the type information by which a handler in another library matches stands here.

#define OQ_EMIT_INLINE

#include "OQLinux.h"

template class Pointer<std::string>;
template class OQCList<OQCString>;
template class OQCList<unsigned int>;
