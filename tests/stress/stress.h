// The scenario programs of the stress group, started through the shared
// child-process support with libtarvex.so preloaded.
#pragma once

#include <gtest/gtest.h>

#include "child.h"

namespace stress {

using namespace child;

// Full path of a program or library built next to the tests.
inline std::string built(const std::string& name) { return std::string(STRESS_BIN_DIR) + "/" + name; }

inline options scenario_options(const env_map& env, unsigned timeout_s = 120) {
    options o;
    o.preload = STRESS_LIBTARVEX;
    o.env = env;
    o.timeout_s = timeout_s;
    return o;
}

}  // namespace stress
