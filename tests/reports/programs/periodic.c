/* Keeps live blocks at 25 call sites, then allocates once a second for 13
 * seconds, so that the periodic top report (due on the first allocation
 * more than 10 seconds after the start) is written once, with 20 rows. */
#include <stdlib.h>
#include <unistd.h>

static void* alloc_at(unsigned depth, size_t size) {
    if (depth > 0) return alloc_at(depth - 1, size);
    return malloc(size);
}

int main(void) {
    enum { SITES = 25 };
    void* keep[SITES];
    for (unsigned d = 0; d < SITES; ++d) keep[d] = alloc_at(d, 32 + d);
    for (int i = 0; i < 13; ++i) {
        sleep(1);
        free(malloc(64));
    }
    for (unsigned d = 0; d < SITES; ++d) free(keep[d]);
    return 0;
}
