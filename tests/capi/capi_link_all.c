/* A host program that links every export kivcam.h and kivcam_features.h declare: a declaration
 * the library does not define breaks this program's link. */
#include <stdio.h>

#include "kivcam/kivcam.h"
#include "capi_exports.h"

typedef void (*any_fn)(void);
struct entry {
    const char *name;
    any_fn address;
};

#define KIVCAM_ENTRY(result, name, args) {#name, (any_fn)name},
static const struct entry entries[] = {KIVCAM_EXPORTS(KIVCAM_ENTRY) KIVCAMF_EXPORTS(KIVCAM_ENTRY)};

#define COUNT(a) (sizeof(a) / sizeof(a)[0])

int main(void) {
    int failures = 0;
    size_t i;
    for (i = 0; i < COUNT(entries); ++i) {
        if (!entries[i].address) {
            printf("%s has no address\n", entries[i].name);
            ++failures;
        }
    }
    /* They are really there: one of them answers. */
    if (KIVCAM_GetLibraryRevision() != KIVCAM_LIBRARY_REVISION) {
        printf("KIVCAM_GetLibraryRevision does not answer %u\n", (unsigned)KIVCAM_LIBRARY_REVISION);
        ++failures;
    }
    printf("%u declared exports linked\n", (unsigned)COUNT(entries));
    return failures ? 1 : 0;
}
