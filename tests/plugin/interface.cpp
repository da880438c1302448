// The same walk, compiled as C++.
#include "interface.c"  // NOLINT(bugprone-suspicious-include)
