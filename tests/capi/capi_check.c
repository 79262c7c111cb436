/* Compiled as strict C11 (-pedantic -Werror), never linked: the header must be
 * usable from C exactly as declared. */
#include "kivcam/kivcam.h"
#include "kivcam/kivcam_features.h"
#include "kivcam/kivcam_reader.h"  /* the reader library's header, as strict */
#include "capi_exports.h"

/* Assigning each export to a pointer of the expected type makes any change of
 * a result or argument type an incompatible-pointer error. */
#define KIVCAM_PIN(result, name, args) static result(*const pin_##name) args = name;
KIVCAM_EXPORTS(KIVCAM_PIN)
KIVCAMF_EXPORTS(KIVCAM_PIN)

typedef void (*kivcam_any_fn)(void);
#define KIVCAM_ENTRY(result, name, args) (kivcam_any_fn)pin_##name,
kivcam_any_fn const kivcam_capi_table[] = {KIVCAM_EXPORTS(KIVCAM_ENTRY) KIVCAMF_EXPORTS(KIVCAM_ENTRY)};
_Static_assert(sizeof kivcam_capi_table / sizeof kivcam_capi_table[0] == KIVCAM_EXPORT_COUNT + KIVCAMF_EXPORT_COUNT,
               "every export is in the table");

/* Callbacks written the way an application writes them. */
static void on_bus_event(uint32_t event, void *context)
{
    *(uint32_t *)context = event;
}

static void on_image(HCAMERA camera, void *data, uint32_t size, uint32_t width, uint32_t height,
                     ImageInfo *info, void *context)
{
    (void)camera; (void)data; (void)width; (void)height;
    if (info && info->Transport == KIVCAM_CAMERAKIND_USB)
        size = (uint32_t)info->USB.ValidPayloadSize;
    *(uint32_t *)context = size;
}

/* A typical session, to prove the types fit together in C. */
uint32_t kivcam_capi_session(void);
uint32_t kivcam_capi_session(void)
{
    static uint32_t last_event, last_size;
    static unsigned char list_memory[KIVCAM_CAMERALIST_BYTES(4)];
    CameraList *list = (CameraList *)(void *)list_memory;
    HCAMERA camera = NULL;
    ImageBuffer *buffer = NULL;
    ImageInfo info;
    KIVCAM_BITMAPINFO_GRAY bmp;
    uint32_t bmp_size = sizeof bmp;
    KIVCAM_CONVMODE mode = {KIVCAM_GEOMETRY_FLIP, KIVCAM_SHIFT_AUTO, KIVCAM_OUTPUT_BGR24, 0, 1};
    KIVCAM_OPENPARAM request = {KIVCAM_UID_ANY, KIVCAM_DESCRIPTION_DATA_FOLDER_FIRST, "line-1"};
    HCTBL conv = NULL;
    static unsigned char pixels[64 * 48 * 4];

    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION))
        return KIVCAM_GetLastError();
    KIVCAM_SetCallBack(&last_event, on_bus_event);
    list->Count = 4;
    if (!KIVCAM_GetList(list) || list->Count == 0)
        return KIVCAM_GetLastError();
    if (!KIVCAM_Open(list->Entry[0].UID, &camera) && !KIVCAM_OpenGigE(&request, &camera))
        return KIVCAM_GetLastError();
    if (!KIVCAM_ResourceAlloc(camera) || !KIVCAM_ImageAlloc(camera, &buffer))
        return KIVCAM_GetLastError();
    KIVCAM_ConvMode(camera, &mode, NULL);
    KIVCAM_GetBMPINFO(camera, (KIVCAM_BITMAPINFO *)&bmp, &bmp_size, 1);
    KIVCAM_ImageStart(camera);
    KIVCAM_ImageReq(camera, buffer);
    if (KIVCAM_ImageComplete(camera, buffer, KIVCAM_INFINITE, &info) && buffer->Status == KIVCAM_BUFFER_STATUS_OK)
        KIVCAM_ImageConvExec(camera, buffer, pixels);
    if (KIVCAM_CreateConvHandle(&conv, NULL, NULL))
        KIVCAM_ColorConvExec(conv, KIVCAM_IMAGEDESC_OF(buffer), pixels);
    KIVCAM_SetImageCallBack(camera, &last_size, on_image, 4, 1);
    KIVCAM_SetImageCallBack(camera, NULL, NULL, 0, 0);
    KIVCAM_ImageStop(camera);
    KIVCAM_ImageFreeAll(camera);
    KIVCAM_ResourceRelease(camera);
    KIVCAM_CloseAllConvHandle();
    KIVCAM_Close(camera);
    return KIVCAM_ERR_NONE;
}
