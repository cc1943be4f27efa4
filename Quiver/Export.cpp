// The shared library's own translation unit: everything else comes from the static archives that it
// wraps whole. It carries the library's version, which callers can ask for.
#include "Quiver/Export.hpp"

extern "C" QV_EXPORT const char* QuiverGetVersionString(void) { return "0.1.0"; }
