#include "sample_helper.h"

#include <cstdlib>
#include <cstring>

extern "C" __attribute__((visibility("default"), noinline)) char* helper_duplicate(
    const char* text, std::size_t length) {
    char* copy = static_cast<char*>(std::malloc(length + 1));  // @helper_malloc
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}
