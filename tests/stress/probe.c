/*
 * Tells whether tarvex tracks this process: run as "stress_probe tracked" or
 * "stress_probe untracked", it exits 0 when the answer is the expected one.
 * Started through exec, posix_spawn and system() from a tracked process, it
 * shows that every new program image decides afresh by its own name.
 */
#include "scenario_util.h"

int main(int argc, char** argv) {
    STRESS_CHECK(argc == 2, "usage: stress_probe tracked|untracked");
    int want = strcmp(argv[1], "tracked") == 0;
    char* p = malloc(13);
    STRESS_CHECK(p != NULL, "malloc(13) failed");
    int tracked = stress_is_tracked(p, 13);
    size_t usable = malloc_usable_size(p);
    free(p);
    STRESS_CHECK(tracked == want, "%s expected %s, found %s (usable size %zu)", argv[0], argv[1],
                 tracked ? "tracked" : "untracked", usable);
    return 0;
}
