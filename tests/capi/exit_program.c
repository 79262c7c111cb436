/* A host linked with the library at start-up that ends while the library's
 * callback thread is inside its callback: the process must end all the same. */
#include <stdatomic.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "kivcam/kivcam.h"

/* Diagnostics entry of the library: raises a bus reset as an interface would. */
extern void kivcam_internal_raise_event(uint32_t code);

static atomic_int entered;

static void parked(uint32_t event, void *context) {
    (void)event;
    (void)context;
    atomic_store(&entered, 1);
    for (;;) pause();
}

int main(void) {
    KIVCAM_SetCallBack(NULL, parked);
    kivcam_internal_raise_event(1);
    while (!atomic_load(&entered)) {
        struct timespec ts = {0, 1000000};
        nanosleep(&ts, NULL);
    }
    puts("1 passed, 0 failed");
    return 0; /* exit() must not wait for the parked callback */
}
