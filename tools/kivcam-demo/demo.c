/* kivcam-demo: a few library calls that need no camera, so that a monitor
 * shows the call log at work. */
#include <stdio.h>

#include "kivcam/kivcam.h"

static void on_bus_event(uint32_t event, void *context) {
    (void)event;
    (void)context;
}

int main(void) {
    printf("library revision %u\n", KIVCAM_GetLibraryRevision());
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION + 1)) {
        printf("structure version %u refused as expected: error %u\n",
               KIVCAM_LIBRARY_REVISION + 1, KIVCAM_GetLastError());
    }
    if (KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) {
        printf("structure version %u accepted\n", KIVCAM_LIBRARY_REVISION);
    }
    KIVCAM_SetCallBack(NULL, on_bus_event);
    KIVCAM_SetCallBack(NULL, NULL);
    return 0;
}
