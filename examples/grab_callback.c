/* Grabs ten images from the first free camera through an image callback,
 * which runs on the library's stream thread. */
#include <stdatomic.h>
#include <stdio.h>
#include <time.h>

#include <kivcam/kivcam.h>

static atomic_uint frames;

static void on_image(HCAMERA camera, void *data, uint32_t size, uint32_t width, uint32_t height,
                     ImageInfo *info, void *context)
{
    (void)camera; (void)data; (void)width; (void)height; (void)info; (void)context;
    if (size > 0) atomic_fetch_add(&frames, 1);     /* 0: the image arrived with an error */
}

int main(void)
{
    HCAMERA cam;
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) || !KIVCAM_Open(KIVCAM_UID_ANY, &cam) ||
        !KIVCAM_ResourceAlloc(cam) || !KIVCAM_SetImageCallBack(cam, NULL, on_image, 4, 0) ||
        !KIVCAM_ImageStart(cam)) {
        printf("failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    struct timespec tick = {0, 10 * 1000 * 1000};
    for (int waited = 0; atomic_load(&frames) < 10 && waited < 1000; ++waited)  /* at most 10 s */
        nanosleep(&tick, NULL);
    KIVCAM_ImageStop(cam);
    KIVCAM_SetImageCallBack(cam, NULL, NULL, 0, 0);  /* waits until the stream thread ended */
    KIVCAM_ResourceRelease(cam);
    KIVCAM_Close(cam);
    printf("%u images by callback\n", atomic_load(&frames));
    return atomic_load(&frames) >= 10 ? 0 : 1;
}
