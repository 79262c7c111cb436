/* The GenTL header must build as plain C11 without a single warning. */
#include <kivgentl/gentl.h>

PGCInitLib kivsim_c_check_init = 0;
PDSGetBufferInfoStacked kivsim_c_check_stacked = 0;

int kivsim_c_check(void) {
  EVENT_NEW_BUFFER_DATA data = {GENTL_INVALID_HANDLE, 0};
  bool8_t flag = 1;
  return (int)sizeof data + flag + GC_ERR_SUCCESS + (GC_GENTL_HEADER_VERSION > 0);
}
