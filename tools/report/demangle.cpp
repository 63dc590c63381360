#include "demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace tarvex::report {

std::string demangle(const std::string& name) {
    if (name.compare(0, 2, "_Z") != 0) return name;
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> readable(
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), std::free);
    return status == 0 && readable ? std::string(readable.get()) : name;
}

}  // namespace tarvex::report
