// The same walk, compiled as C++.
#include "layout_test.c"  // NOLINT(bugprone-suspicious-include)
