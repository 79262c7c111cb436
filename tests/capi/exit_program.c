/* A host linked with the library at start-up that ends while the library's
 * callback thread is inside its callback: the process must end all the same. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "kivcam/kivcam.h"

static atomic_int entered;

static void parked(uint32_t event, void *context) {
    (void)event;
    (void)context;
    atomic_store(&entered, 1);
    for (;;) pause();
}

int main(void) {
    /* The virtual GigE producer the library loaded (same file, same module)
     * raises the bus reset; its control interface is exported by the .cti. */
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) return 2;
    /* By full path: a sanitizer's dlopen would search its own run path. */
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 64);
    if (n <= 0) return 3;
    path[n] = '\0';
    char *slash = strrchr(path, '/');
    if (!slash) return 3;
    strcpy(slash, "/../lib/KivGigEGenTL.cti");
    void *sim = dlopen(path, RTLD_NOW);
    if (!sim) return 3;
    int32_t (*raise_event)(uint32_t, uint32_t) =
        (int32_t (*)(uint32_t, uint32_t))dlsym(sim, "kivsim_raise_interface_event");
    if (!raise_event) return 4;
    KIVCAM_SetCallBack(NULL, parked);
    /* The producer may not watch for events yet: raise until one arrives. */
    for (int i = 0; i < 1000 && !atomic_load(&entered); ++i) {
        raise_event(1, 1);
        struct timespec ts = {0, 10000000};
        nanosleep(&ts, NULL);
    }
    if (!atomic_load(&entered)) return 5;
    puts("1 passed, 0 failed");
    return 0; /* exit() must not wait for the parked callback */
}
