/*
 * demo_embedded - aping and apingd as two threads of one process, talking
 * through the node embedded in libsnanode; no daemon, no configuration file.
 *
 *   demo_embedded [size [count [iterations]]]
 */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>

#include "aping_core.h"

static void *server_thread(void *unused) {
  (void)unused;
  return (void *)(long)aping_serve_one();
}

int main(int argc, char **argv) {
  struct aping_options o = {NULL, "LOCAL", "#INTER", APING_TP_NAME, 100, 1, 5, 0};
  pthread_t server;
  void *server_result;
  int client_result;
  if (argc > 1) o.size = strtol(argv[1], NULL, 10);
  if (argc > 2) o.count = strtol(argv[2], NULL, 10);
  if (argc > 3) o.iterations = strtol(argv[3], NULL, 10);
  /* Registered before the client allocates, so the allocation waits for the
   * server's accept instead of finding no one serving APINGD. */
  if (aping_register_server() != 0) return 1;
  if (pthread_create(&server, NULL, server_thread, NULL) != 0) return 1;
  client_result = aping_client(&o);
  pthread_join(server, &server_result);
  return client_result != 0 || server_result != NULL;
}
