/* Exports that kivcam.h declares and the library does not define yet, by
 * what brings them. A listed export that gets defined fails the export test
 * until it leaves this list; the list is empty once acquisition and watch
 * mode are done. */
#ifndef KIVCAM_TESTS_CAPI_MISSING_H
#define KIVCAM_TESTS_CAPI_MISSING_H

#define KIVCAM_MISSING_EXPORTS(X) \
    /* acquisition: resources, buffers, requests, image callback, GigE streams */ \
    X(KIVCAM_ResourceAlloc) \
    X(KIVCAM_ResourceRelease) \
    X(KIVCAM_ImageAlloc) \
    X(KIVCAM_ImageFree) \
    X(KIVCAM_ImageFreeAll) \
    X(KIVCAM_ImageStart) \
    X(KIVCAM_ImageStop) \
    X(KIVCAM_ImageReq) \
    X(KIVCAM_ImageComplete) \
    X(KIVCAM_ImageReqAbortAll) \
    X(KIVCAM_VSyncReq) \
    X(KIVCAM_VSyncComplete) \
    X(KIVCAM_SetImageCallBack) \
    X(KIVCAM_ResourceAllocGigE) \
    X(KIVCAM_GetGigEPktLog) \
    X(KIVCAM_TestStream) \
    /* conversion of a camera's images */ \
    X(KIVCAM_SetBMPINFO) \
    X(KIVCAM_GetBMPINFO) \
    X(KIVCAM_ConvMode) \
    X(KIVCAM_ImageConvExec) \
    X(KIVCAM_BufferConvExec) \
    /* watch mode */ \
    X(KIVCAM_WatchOpen) \
    X(KIVCAM_WatchOpenGigE) \
    X(KIVCAM_WatchClose) \
    X(KIVCAM_WatchCamera) \
    X(KIVCAM_WatchAlloc) \
    X(KIVCAM_WatchRelease) \
    X(KIVCAM_WatchStart) \
    X(KIVCAM_WatchStop)

#endif
