/* Exports that kivcam.h declares and the library does not define (yet). A
 * listed export that gets defined fails the export test until it leaves this
 * list. Every declared export is defined: the list is empty, and a
 * declaration without a definition fails the test. */
#ifndef KIVCAM_TESTS_CAPI_MISSING_H
#define KIVCAM_TESTS_CAPI_MISSING_H

#define KIVCAM_MISSING_EXPORTS(X)

#endif
