/* Grabs one image by request and completion from the first free camera and
 * saves it as grab.bmp (and its raw pixels as grab.raw). */
#include <stdio.h>
#include <stdlib.h>

#include <kivcam/kivcam.h>

static int fail(const char *call)
{
    printf("%s failed: error %u\n", call, KIVCAM_GetLastError());
    return 1;
}

int main(void)
{
    HCAMERA cam;
    ImageBuffer *buf;
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) return fail("KIVCAM_SetStructVersion");
    if (!KIVCAM_Open(KIVCAM_UID_ANY, &cam)) return fail("KIVCAM_Open");
    /* Bitmaps keep their bottom row first: flip while converting. */
    KIVCAM_CONVMODE mode = {KIVCAM_GEOMETRY_FLIP, KIVCAM_SHIFT_AUTO, KIVCAM_OUTPUT_BGRX32, 0, 0};
    if (!KIVCAM_ConvMode(cam, &mode, NULL)) return fail("KIVCAM_ConvMode");
    if (!KIVCAM_ResourceAlloc(cam)) return fail("KIVCAM_ResourceAlloc");
    if (!KIVCAM_ImageAlloc(cam, &buf)) return fail("KIVCAM_ImageAlloc");
    if (!KIVCAM_ImageStart(cam)) return fail("KIVCAM_ImageStart");
    if (!KIVCAM_ImageReq(cam, buf)) return fail("KIVCAM_ImageReq");
    if (!KIVCAM_ImageComplete(cam, buf, 5000, NULL)) return fail("KIVCAM_ImageComplete");

    KIVCAM_BITMAPINFO_GRAY info;                   /* room for either form */
    uint32_t size = sizeof info;
    if (!KIVCAM_GetBMPINFO(cam, (KIVCAM_BITMAPINFO *)&info, &size, 0)) return fail("KIVCAM_GetBMPINFO");
    uint32_t pixels = info.bmiHeader.biSizeImage;
    unsigned char *bgr = calloc(1, pixels);          /* the fourth byte of a pixel stays as it is */
    if (!KIVCAM_ImageConvExec(cam, buf, bgr)) return fail("KIVCAM_ImageConvExec");

    uint32_t offset = 14 + size, total = offset + pixels;
    unsigned char file[14] = {'B', 'M', (unsigned char)total, (unsigned char)(total >> 8),
                              (unsigned char)(total >> 16), (unsigned char)(total >> 24), 0, 0, 0, 0,
                              (unsigned char)offset, (unsigned char)(offset >> 8), 0, 0};
    FILE *f = fopen("grab.bmp", "wb");
    fwrite(file, 1, sizeof file, f);
    fwrite(&info, 1, size, f);
    fwrite(bgr, 1, pixels, f);
    fclose(f);
    f = fopen("grab.raw", "wb");
    fwrite(buf->Data, 1, buf->PayloadSize, f);
    fclose(f);
    printf("grab.bmp: %u x %u, %u bits; grab.raw: %u bytes of pixel format 0x%08X\n", buf->Width, buf->Height,
           info.bmiHeader.biBitCount, buf->PayloadSize, buf->PixelFormat);

    free(bgr);
    KIVCAM_ImageStop(cam);
    KIVCAM_ResourceRelease(cam);
    KIVCAM_Close(cam);                             /* frees the buffer too */
    return 0;
}
