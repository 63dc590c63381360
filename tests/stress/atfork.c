/*
 * stress_atfork: forks while a library's fork handlers, registered before
 * tarvex's, allocate and release inside the fork (see atfork_early.c). Every
 * fork completes, every child exits 0, and the block that the last prepare
 * handler allocated is tracked like any other. Prints "atfork: ok".
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "scenario_util.h"

void* atfork_early_kept(void);

int main(void) {
    for (int i = 0; i < 20; ++i) {
        void* p = malloc(100);
        pid_t pid = fork();
        STRESS_CHECK(pid >= 0, "fork failed");
        if (pid == 0) {
            free(p);
            free(malloc(10));
            _exit(0);
        }
        int status = 0;
        STRESS_CHECK(waitpid(pid, &status, 0) == pid, "waitpid failed");
        STRESS_CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child %d ended with status %#x", i, status);
        free(p);
    }
    STRESS_CHECK(stress_is_tracked(atfork_early_kept(), 40), "the prepare handler's block is not tracked");
    puts("atfork: ok");
    return 0;
}
