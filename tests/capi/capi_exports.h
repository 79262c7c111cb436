/* Every export of kivcam.h (and of kivcam_features.h, KIVCAMF_EXPORTS) with its exact type, as X(result, name, (arguments)).
 * The C and C++ checks expand it; a changed signature or a missing
 * declaration breaks their build. */
#ifndef KIVCAM_TESTS_CAPI_EXPORTS_H
#define KIVCAM_TESTS_CAPI_EXPORTS_H

#include "kivcam/kivcam.h"
#include "kivcam/kivcam_features.h"

#define KIVCAM_EXPORT_COUNT 69

#define KIVCAM_EXPORTS(X) \
    X(KIVCAM_BOOL, KIVCAM_SetStructVersion, (uint32_t)) \
    X(uint32_t, KIVCAM_GetLibraryRevision, (void)) \
    X(void, KIVCAM_FreeLibrary, (void)) \
    X(uint32_t, KIVCAM_GetLastError, (void)) \
    X(KIVCAM_BOOL, KIVCAM_Open, (uint64_t, HCAMERA *)) \
    X(KIVCAM_BOOL, KIVCAM_OpenGigE, (const KIVCAM_OPENPARAM *, HCAMERA *)) \
    X(KIVCAM_BOOL, KIVCAM_OpenUSB, (const KIVCAM_OPENPARAM *, HCAMERA *)) \
    X(KIVCAM_BOOL, KIVCAM_Close, (HCAMERA)) \
    X(void, KIVCAM_CloseAll, (void)) \
    X(KIVCAM_BOOL, KIVCAM_Camera, (HCAMERA, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_Reset, (void)) \
    X(void, KIVCAM_ReDetection, (void)) \
    X(void, KIVCAM_SetCallBack, (void *, KIVCAM_CALLBACK)) \
    X(KIVCAM_BOOL, KIVCAM_WatchOpen, (uint64_t, HCAMERA *)) \
    X(KIVCAM_BOOL, KIVCAM_WatchOpenGigE, (const KIVCAM_OPENPARAM *, HCAMERA *)) \
    X(KIVCAM_BOOL, KIVCAM_WatchClose, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_WatchCamera, (HCAMERA, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_WatchAlloc, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_WatchRelease, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_WatchStart, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_WatchStop, (HCAMERA)) \
    X(void, KIVCAM_LogCommonAreaGet, (uint32_t, void **)) \
    X(int32_t, KIVCAMFILTER_Alloc, (uint32_t, uint32_t, uint32_t)) \
    X(int32_t, KIVCAMFILTER_OutPut, (const void *)) \
    X(int32_t, KIVCAMFILTER_GetAddr, (void **)) \
    X(int32_t, KIVCAMFILTER_Flush, (void)) \
    X(int32_t, KIVCAMFILTER_Purge, (void)) \
    X(int32_t, KIVCAMFILTER_Free, (void)) \
    X(KIVCAM_BOOL, KIVCAM_GetList, (CameraList *)) \
    X(KIVCAM_BOOL, KIVCAM_ReadPort, (HCAMERA, uint32_t, void *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_WritePort, (HCAMERA, uint32_t, const void *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_OpenReg, (HCAMERAPORT *)) \
    X(KIVCAM_BOOL, KIVCAM_CloseReg, (HCAMERAPORT)) \
    X(KIVCAM_BOOL, KIVCAM_ReadReg, (HCAMERAPORT, uint32_t, void *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_WriteReg, (HCAMERAPORT, uint32_t, const void *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAM_CameraRegInfo, (HCAMERAPORT, CameraListEntry *)) \
    X(KIVCAM_BOOL, KIVCAM_CameraInfo, (HCAMERA, CameraListEntry *)) \
    X(KIVCAM_BOOL, KIVCAM_CameraInfoGigE, (HCAMERA, GigECameraInfo *)) \
    X(KIVCAM_BOOL, KIVCAM_CameraInfoUSB, (HCAMERA, USBCameraInfo *)) \
    X(KIVCAM_BOOL, KIVCAM_GetNodeMap, (HCAMERA, void **)) \
    X(KIVCAM_BOOL, KIVCAM_SetCmdTimeOut, (HCAMERA, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_ResourceAlloc, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_ResourceRelease, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_ImageAlloc, (HCAMERA, ImageBuffer **)) \
    X(KIVCAM_BOOL, KIVCAM_ImageFree, (HCAMERA, ImageBuffer *)) \
    X(KIVCAM_BOOL, KIVCAM_ImageFreeAll, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_ImageStart, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_ImageStop, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_ImageReq, (HCAMERA, ImageBuffer *)) \
    X(KIVCAM_BOOL, KIVCAM_ImageComplete, (HCAMERA, ImageBuffer *, uint32_t, ImageInfo *)) \
    X(KIVCAM_BOOL, KIVCAM_ImageReqAbortAll, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_VSyncReq, (HCAMERA, HVSYNC *)) \
    X(KIVCAM_BOOL, KIVCAM_VSyncComplete, (HCAMERA, HVSYNC, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_SetImageCallBack, (HCAMERA, void *, ImageCallBack, uint32_t, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_ResourceAllocGigE, (HCAMERA, const uint8_t *, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_GetGigEPktLog, (HCAMERA, GigEPacketLog *)) \
    X(KIVCAM_BOOL, KIVCAM_TestStream, (HCAMERA)) \
    X(KIVCAM_BOOL, KIVCAM_SetBMPINFO, (HCAMERA, KIVCAM_BITMAPINFO *, uint32_t *, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_GetBMPINFO, (HCAMERA, KIVCAM_BITMAPINFO *, uint32_t *, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAM_ColorConvSetBMPINFO, (HCTBL, const KIVCAM_IMAGEDESC *, KIVCAM_BITMAPINFO *)) \
    X(KIVCAM_BOOL, KIVCAM_ColorConvGetBMPINFO, (HCTBL, const KIVCAM_IMAGEDESC *, KIVCAM_BITMAPINFO *)) \
    X(KIVCAM_BOOL, KIVCAM_MonoBMPINFO, (const KIVCAM_IMAGEDESC *, KIVCAM_BITMAPINFO_GRAY *)) \
    X(KIVCAM_BOOL, KIVCAM_ConvMode, (HCAMERA, const KIVCAM_CONVMODE *, const KIVCAM_YUVCOEF *)) \
    X(KIVCAM_BOOL, KIVCAM_ImageConvExec, (HCAMERA, const ImageBuffer *, void *)) \
    X(KIVCAM_BOOL, KIVCAM_BufferConvExec, (HCAMERA, const void *, void *)) \
    X(KIVCAM_BOOL, KIVCAM_CreateConvHandle, (HCTBL *, const KIVCAM_CONVMODE *, const KIVCAM_YUVCOEF *)) \
    X(void, KIVCAM_CloseConvHandle, (HCTBL)) \
    X(void, KIVCAM_CloseAllConvHandle, (void)) \
    X(KIVCAM_BOOL, KIVCAM_ColorConvExec, (HCTBL, const KIVCAM_IMAGEDESC *, void *))

/* The feature interface, kivcam_features.h. */
#define KIVCAMF_EXPORT_COUNT 21

#define KIVCAMF_EXPORTS(X) \
    X(KIVCAM_BOOL, KIVCAMF_GetInt, (HCAMERA, const char *, int64_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetInt, (HCAMERA, const char *, int64_t)) \
    X(KIVCAM_BOOL, KIVCAMF_GetFloat, (HCAMERA, const char *, double *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetFloat, (HCAMERA, const char *, double)) \
    X(KIVCAM_BOOL, KIVCAMF_GetBool, (HCAMERA, const char *, KIVCAM_BOOL *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetBool, (HCAMERA, const char *, KIVCAM_BOOL)) \
    X(KIVCAM_BOOL, KIVCAMF_GetString, (HCAMERA, const char *, char *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetString, (HCAMERA, const char *, const char *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetEnum, (HCAMERA, const char *, char *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetEnum, (HCAMERA, const char *, const char *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetEnumInt, (HCAMERA, const char *, int64_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_SetEnumInt, (HCAMERA, const char *, int64_t)) \
    X(KIVCAM_BOOL, KIVCAMF_ToString, (HCAMERA, const char *, char *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_FromString, (HCAMERA, const char *, const char *)) \
    X(KIVCAM_BOOL, KIVCAMF_Execute, (HCAMERA, const char *, uint32_t)) \
    X(KIVCAM_BOOL, KIVCAMF_IsDone, (HCAMERA, const char *, KIVCAM_BOOL *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetInfo, (HCAMERA, const char *, KIVCAMF_INFO *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetInfoText, (HCAMERA, const char *, uint32_t, char *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetEntry, (HCAMERA, const char *, uint32_t, int64_t *, uint32_t *, char *, uint32_t *)) \
    X(KIVCAM_BOOL, KIVCAMF_GetChild, (HCAMERA, const char *, uint32_t, char *, uint32_t *)) \
    X(uint32_t, KIVCAMF_GetLastErrorText, (char *, uint32_t))

#endif
