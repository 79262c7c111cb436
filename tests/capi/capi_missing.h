/* Exports that kivcam.h declares and the library does not define yet, by
 * what brings them. A listed export that gets defined fails the export test
 * until it leaves this list; the list is empty once acquisition, watch mode
 * and the output filter are done. */
#ifndef KIVCAM_TESTS_CAPI_MISSING_H
#define KIVCAM_TESTS_CAPI_MISSING_H

#define KIVCAM_MISSING_EXPORTS(X) \
    /* output filter */ \
    X(KIVCAMFILTER_Alloc) \
    X(KIVCAMFILTER_OutPut) \
    X(KIVCAMFILTER_GetAddr) \
    X(KIVCAMFILTER_Flush) \
    X(KIVCAMFILTER_Purge) \
    X(KIVCAMFILTER_Free)

#endif
