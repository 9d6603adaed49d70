// The version of the library as built, from the generated kel_version.h.
#include "kel_version.h"

extern "C" const char* kel_version() { return KEL_VERSION_STRING; }
