#include "kel_atomic.h"

// Only counting up, counting down and reading are offered; the arithmetic and
// assignment operators a general atomic type would carry have no user here.
template class KelAtomic<unsigned int>;
