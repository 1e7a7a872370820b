// nam_silent_client: a local program that opens a session with the daemon's
// client socket and then never reads it, for the cluster test of a client
// that stops reading. It prints "connected node=N" once the daemon has
// answered, then waits (without reading, so that whatever the daemon sends
// piles up) until the daemon shuts the connection, prints "cut off" and
// exits 0. Exits 1 when the session cannot be opened.
//
// Usage: nam_silent_client [SOCKET]   (default: as libveltnam chooses)
#include <poll.h>
#include <stdio.h>

#include "velt_nam_api.h"

int main(int argc, char** argv) {
  const char* socketPath = argc > 1 ? argv[1] : nullptr;
  velt_nam_handle_t handle = 0;
  int rc = velt_nam_init(socketPath, 10000, &handle);
  if (rc != VELT_NAM_OK) {
    fprintf(stderr, "nam_silent_client: %s: %s\n", velt_nam_rc_text(rc), velt_nam_last_error());
    return 1;
  }
  velt_nam_config config;
  velt_nam_get_config(handle, &config);
  int fd = -1;
  velt_nam_get_fd(handle, &fd);
  printf("connected node=%d\n", config.node_number);
  fflush(stdout);
  // POLLRDHUP reports the daemon's shutdown even while unread data waits;
  // POLLIN would be set all along.
  struct pollfd p = {fd, POLLRDHUP, 0};
  while (poll(&p, 1, -1) >= 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) == 0) {
  }
  printf("cut off\n");
  fflush(stdout);
  velt_nam_term(handle);
  return 0;
}
