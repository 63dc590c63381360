/* A library that allocates and releases on the program's behalf. */
#include <stdlib.h>

void* plugin_alloc(void) { return malloc(48); }
void plugin_free(void* p) { free(p); }
