/*
 * A failed dlsym followed by a second dlsym before the process's first
 * free: glibc's second dlsym frees the message of the first, and that free
 * must not call dlsym again (which would free the message twice). Prints
 * "ok" in any process, target or not.
 */
#define _GNU_SOURCE
#include <dlfcn.h>

#include "scenario_util.h"

int main(void) {
    STRESS_CHECK(dlsym(RTLD_DEFAULT, "stress_no_such_symbol") == NULL, "dlsym found a missing symbol");
    STRESS_CHECK(dlsym(RTLD_DEFAULT, "printf") != NULL, "dlsym did not find printf");
    STRESS_CHECK(dlsym(RTLD_DEFAULT, "stress_no_such_symbol_either") == NULL, "dlsym found a missing symbol");
    STRESS_CHECK(dlerror() != NULL, "dlerror lost the message");
    puts("ok");
    return 0;
}
