/* Code loaded and unloaded at run time by the unwinder's tests. */
#include <stdlib.h>

__attribute__((noinline)) void* plug_alloc(int depth) {
    if (depth > 0) {
        void* p = plug_alloc(depth - 1);
        __asm__ volatile("" ::: "memory");  /* no tail call: keep the frame */
        return p;
    }
    return malloc(33);
}

__attribute__((noinline)) void plug_call(void (*callback)(void*), void* arg, int depth) {
    if (depth > 0)
        plug_call(callback, arg, depth - 1);
    else
        callback(arg);
    __asm__ volatile("" ::: "memory");
}
