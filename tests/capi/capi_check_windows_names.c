/* A host that already has its own Windows-style BOOL can still ask for the
 * optional Windows names. */
typedef int BOOL;
#define KIVCAM_WINDOWS_NAMES
#include "kivcam/kivcam.h"

BOOL kivcam_capi_windows_names(BITMAPINFO *info);
BOOL kivcam_capi_windows_names(BITMAPINFO *info)
{
    BITMAPINFOHEADER *header = &info->bmiHeader;
    RGBQUAD *first = &info->bmiColors[0];
    return header->biSize == sizeof(BITMAPINFOHEADER) && first->rgbReserved == 0;
}
