/* Lists the cameras on this machine: UID, kind, vendor and model. */
#include <stdio.h>
#include <stdlib.h>

#include <kivcam/kivcam.h>

int main(void)
{
    static const char *kinds[] = {"IIDC", "GigE", "USB"};
    if (!KIVCAM_SetStructVersion(KIVCAM_LIBRARY_REVISION)) {   /* loads the producers */
        printf("KIVCAM_SetStructVersion failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    CameraList query = {0};                        /* capacity 0: only count */
    if (!KIVCAM_GetList(&query)) {
        printf("KIVCAM_GetList failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    CameraList *list = malloc(KIVCAM_CAMERALIST_BYTES(query.Count));
    list->Count = query.Count;
    if (query.Count && !KIVCAM_GetList(list)) {
        printf("KIVCAM_GetList failed: error %u\n", KIVCAM_GetLastError());
        return 1;
    }
    for (uint32_t i = 0; i < list->Count; ++i) {
        CameraListEntry e = list->Entry[i];         /* a copy: the records are byte-packed */
        printf("%-20llu %-4s %-10.256s %.256s\n", (unsigned long long)e.UID,
               e.CameraKind < 3 ? kinds[e.CameraKind] : "?", e.Vendor, e.Model);
    }
    printf("%u cameras\n", list->Count);
    free(list);
    return 0;
}
