/* The C side of the Python binding's benchmark: the loops the binding's
 * frames() and Frame.bgr() wrap, run in C on the same camera and buffers so
 * that the difference is the binding's own cost. Loaded with ctypes. */
#include <kivcam/kivcam.h>

#define BENCH_API __attribute__((visibility("default")))

/* Requests every buffer not requested yet, then completes and re-requests
 * them in turn until `frames` images arrived; the buffers are left requested,
 * so a next call with a multiple of `count` frames goes on in order. 0 or
 * the error. */
BENCH_API uint32_t bench_request_loop(HCAMERA cam, ImageBuffer **buffers, uint32_t count, uint32_t frames)
{
    for (uint32_t i = 0; i < count; ++i)
        if (buffers[i]->Status != KIVCAM_BUFFER_STATUS_REQUESTED && !KIVCAM_ImageReq(cam, buffers[i]))
            return KIVCAM_GetLastError();
    for (uint32_t n = 0; n < frames; ++n) {
        ImageBuffer *b = buffers[n % count];
        if (!KIVCAM_ImageComplete(cam, b, 5000, NULL) || !KIVCAM_ImageReq(cam, b)) return KIVCAM_GetLastError();
    }
    return 0;
}

/* Converts one completed buffer `times` times. 0 or the error. */
BENCH_API uint32_t bench_convert_loop(HCAMERA cam, const ImageBuffer *buffer, void *dst, uint32_t times)
{
    for (uint32_t n = 0; n < times; ++n)
        if (!KIVCAM_ImageConvExec(cam, buffer, dst)) return KIVCAM_GetLastError();
    return 0;
}
