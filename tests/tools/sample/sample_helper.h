// A shared library for the report tool's tests: its exported function
// allocates, so stacks hold a frame written as SYMBOL+0xOFF.
#pragma once

#include <cstddef>

extern "C" char* helper_duplicate(const char* text, std::size_t length);
