/* The public header compiled as C (C11, pedantic), and the library linked
 * and called from C: a session with no daemon behind the socket fails with
 * its code and a reason, and every return code has a text. */
#include <stdio.h>
#include <string.h>

#include "velt_nam_api.h"

int main(void) {
  velt_nam_handle_t handle = 0;
  velt_nam_config config;
  velt_nam_node_adap_info* info = NULL;
  int rc = velt_nam_init("/nonexistent-dir/nam.sock", 100, &handle);
  if (rc != VELT_NAM_SOCKET_CONNECT_FAILED) {
    fprintf(stderr, "velt_nam_init: %s\n", velt_nam_rc_text(rc));
    return 1;
  }
  if (strstr(velt_nam_last_error(), "/nonexistent-dir/nam.sock") == NULL) {
    fprintf(stderr, "the reason does not name the socket: %s\n", velt_nam_last_error());
    return 1;
  }
  if (velt_nam_get_config(handle, &config) != VELT_NAM_INVALID_HANDLE ||
      velt_nam_get_node_adap_info(handle, VELT_NAM_ALL_NODES, &info) != VELT_NAM_INVALID_HANDLE) {
    fprintf(stderr, "a handle that was never opened was taken\n");
    return 1;
  }
  for (rc = VELT_NAM_OK; rc <= VELT_NAM_INTERNAL_ERROR; ++rc) {
    if (strncmp(velt_nam_rc_text(rc), "VELT_NAM_", 9) != 0) {
      fprintf(stderr, "code %d has no text\n", rc);
      return 1;
    }
  }
  return 0;
}
