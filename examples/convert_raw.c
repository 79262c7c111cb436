/* Converts a file of raw pixels into a bitmap file with a conversion handle:
 *   convert_raw IN.raw WIDTH HEIGHT PIXELFORMAT OUT.bmp
 * PIXELFORMAT is the 32-bit code, e.g. 0x01080001 for Mono8. */
#include <stdio.h>
#include <stdlib.h>

#include <kivcam/kivcam.h>

int main(int argc, char **argv)
{
    if (argc != 6) {
        printf("usage: convert_raw IN.raw WIDTH HEIGHT PIXELFORMAT OUT.bmp\n");
        return 2;
    }
    FILE *in = fopen(argv[1], "rb");
    if (!in) return perror(argv[1]), 1;
    fseek(in, 0, SEEK_END);
    long bytes = ftell(in);
    rewind(in);
    unsigned char *raw = malloc((size_t)bytes);
    if (fread(raw, 1, (size_t)bytes, in) != (size_t)bytes) return perror(argv[1]), 1;
    fclose(in);

    KIVCAM_IMAGEDESC image = {(uint32_t)strtoul(argv[2], NULL, 0), (uint32_t)strtoul(argv[3], NULL, 0), raw,
                              (uint32_t)bytes, (uint32_t)strtoul(argv[4], NULL, 0), 1};
    KIVCAM_CONVMODE mode = {KIVCAM_GEOMETRY_FLIP, 0, KIVCAM_OUTPUT_BGRX32, 0, 1};   /* bottom row first */
    HCTBL conv;
    KIVCAM_BITMAPINFO info;
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) || !KIVCAM_CreateConvHandle(&conv, &mode, NULL) ||
        !KIVCAM_ColorConvGetBMPINFO(conv, &image, &info)) {
        printf("failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    uint32_t pixels = info.bmiHeader.biSizeImage;
    unsigned char *bgr = calloc(1, pixels);
    if (!KIVCAM_ColorConvExec(conv, &image, bgr)) {
        printf("KIVCAM_ColorConvExec failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    uint32_t offset = 14 + sizeof info, total = offset + pixels;
    unsigned char file[14] = {'B', 'M', (unsigned char)total, (unsigned char)(total >> 8),
                              (unsigned char)(total >> 16), (unsigned char)(total >> 24), 0, 0, 0, 0,
                              (unsigned char)offset, (unsigned char)(offset >> 8), 0, 0};
    FILE *out = fopen(argv[5], "wb");
    if (!out) return perror(argv[5]), 1;
    fwrite(file, 1, sizeof file, out);
    fwrite(&info, 1, sizeof info, out);
    fwrite(bgr, 1, pixels, out);
    fclose(out);
    printf("%s: %u x %u, %u bits\n", argv[5], image.Width, image.Height, info.bmiHeader.biBitCount);
    KIVCAM_CloseConvHandle(conv);
    free(bgr);
    free(raw);
    return 0;
}
