// The library's file as the system's loader would read it. What only one system has is tested beside its reader.
#pragma once

#include <string>
#include <vector>

// Names that other modules can see.
std::vector<std::string> exported_names(const char* path);
