/*
 * libstress_plugin.so, loaded and closed at run time by stress_cpp. It
 * allocates in its constructor and releases in its destructor, and hands out
 * and takes back blocks through its own references to malloc and free
 * (which RTLD_DEEPBIND would bind to the C library's own definitions).
 */
#include <stdlib.h>
#include <string.h>

#define EXPORT __attribute__((visibility("default")))

static char* g_ctor_block;

__attribute__((constructor)) static void plugin_init(void) { g_ctor_block = memset(malloc(100), 1, 100); }
__attribute__((destructor)) static void plugin_fini(void) { free(g_ctor_block); }

EXPORT void* plugin_alloc(size_t n) { return malloc(n); }
EXPORT void* plugin_realloc(void* p, size_t n) { return realloc(p, n); }
EXPORT void plugin_free(void* p) { free(p); }
EXPORT char* plugin_strdup(const char* s) { return strdup(s); }
