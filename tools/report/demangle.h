// Readable C++ names from mangled symbol names.
#pragma once

#include <string>

namespace tarvex::report {

// The demangled form of a mangled C++ name; any other name unchanged.
std::string demangle(const std::string& name);

}  // namespace tarvex::report
