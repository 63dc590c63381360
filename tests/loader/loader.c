/* Loads the plugin by its bare name (found through this program's RUNPATH),
 * with RTLD_DEEPBIND when asked, and passes blocks across the boundary in
 * both directions. Prints "ok" when everything worked. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    (void)argv;
    int deep = argc > 1;
    void* plugin = dlopen("libtarvex_test_plugin.so", RTLD_NOW | (deep ? RTLD_DEEPBIND : 0));
    if (plugin == NULL) {
        printf("dlopen failed: %s\n", dlerror());
        return 1;
    }
    void* (*plugin_alloc)(void) = (void* (*)(void))dlsym(plugin, "plugin_alloc");
    void (*plugin_free)(void*) = (void (*)(void*))dlsym(plugin, "plugin_free");
    for (int i = 0; i < 100; ++i) {
        free(plugin_alloc());        /* allocated inside, released by the program */
        plugin_free(malloc(64));     /* allocated by the program, released inside */
    }
    dlclose(plugin);
    puts("ok");
    return 0;
}
