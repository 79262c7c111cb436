/* A host program in plain C: includes only the public header, links the
 * shared library, and checks the few calls that need no camera. */
#include <stdio.h>

#include "kivcam/kivcam.h"

static int failures;

static void expect(int ok, const char *what) {
    if (!ok) {
        printf("FAILED: %s\n", what);
        ++failures;
    }
}

int main(void) {
    expect(KIVCAM_GetLibraryRevision() == KIVCAM_LIBRARY_REVISION, "revision is 10106");
    expect(KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION + 1) == KIVCAM_FALSE, "too new a version is refused");
    expect(KIVCAM_GetLastError() == KIVCAM_ERR_VERSION, "refusal leaves the version error");
    expect(KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION) == KIVCAM_TRUE, "current version is taken");
    expect(KIVCAM_GetLastError() == KIVCAM_ERR_NONE, "success clears the error");
    printf("%d passed, %d failed\n", 5 - failures, failures);
    return failures != 0;
}
