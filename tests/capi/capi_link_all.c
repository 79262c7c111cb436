/* A host program that links every export kivcam.h declares. A declared export
 * the library does not define breaks this program's link, unless it is listed
 * in capi_missing.h (those are weak references); a listed one that the
 * library defines now fails the run, so the list only ever shrinks. */
#include <stdio.h>
#include <string.h>

#include "kivcam/kivcam.h"
#include "capi_exports.h"
#include "capi_missing.h"

#define KIVCAM_PRAGMA(text) _Pragma(#text)
#define KIVCAM_WEAK(name) KIVCAM_PRAGMA(weak name)
KIVCAM_MISSING_EXPORTS(KIVCAM_WEAK)

typedef void (*any_fn)(void);
struct entry {
    const char *name;
    any_fn address;
};

#define KIVCAM_ENTRY(result, name, args) {#name, (any_fn)name},
static const struct entry entries[] = {KIVCAM_EXPORTS(KIVCAM_ENTRY)};
#define KIVCAM_NAME(name) #name,
static const char *const missing[] = {KIVCAM_MISSING_EXPORTS(KIVCAM_NAME)};

#define COUNT(a) (sizeof(a) / sizeof(a)[0])

static int listed(const char *name) {
    size_t i;
    for (i = 0; i < COUNT(missing); ++i)
        if (strcmp(missing[i], name) == 0) return 1;
    return 0;
}

int main(void) {
    int failures = 0;
    size_t i, j, present = 0;
    for (i = 0; i < COUNT(entries); ++i) {
        if (listed(entries[i].name) && entries[i].address) {
            printf("%s is defined now: take it off capi_missing.h\n", entries[i].name);
            ++failures;
        }
        if (entries[i].address) ++present;
    }
    for (i = 0; i < COUNT(missing); ++i) {
        int declared = 0;
        for (j = 0; j < COUNT(entries); ++j) declared |= strcmp(entries[j].name, missing[i]) == 0;
        if (!declared) {
            printf("%s is listed as missing but kivcam.h does not declare it\n", missing[i]);
            ++failures;
        }
    }
    /* The defined ones are really there: one of them answers. */
    if (KIVCAM_GetLibraryRevision() != KIVCAM_LIBRARY_REVISION) {
        printf("KIVCAM_GetLibraryRevision does not answer %u\n", (unsigned)KIVCAM_LIBRARY_REVISION);
        ++failures;
    }
    printf("%u of %u declared exports defined, %u listed as missing\n", (unsigned)present,
           (unsigned)COUNT(entries), (unsigned)COUNT(missing));
    return failures ? 1 : 0;
}
