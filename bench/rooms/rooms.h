// The benchmarks of this program. Each function registers its rows; what they need is made when the first of their
// benchmarks runs.
#pragma once

#include <string>

namespace bench {

void register_creation();
void register_growth();
void register_memory();
void register_pipeline();
void register_updates();

/** Measures a contestant of row memory, "plugin" or "curl_threads", in this process and prints its numbers on one line,
 * in bytes per recognizer. */
void print_memory(const std::string& contestant);

}  // namespace bench
