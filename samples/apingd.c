/*
 * apingd - the APINGD server: echoes what aping sends.
 *
 *   apingd [-n conversations]
 *
 * Serves conversations one after another (default: forever) under the local
 * TP name APINGD.
 */
#define _POSIX_C_SOURCE 200809L
#include <unistd.h>

#include "aping_core.h"

int main(int argc, char **argv) {
  long conversations = -1;
  long served;
  int opt;
  while ((opt = getopt(argc, argv, "n:")) != -1) {
    if (opt != 'n') {
      fprintf(stderr, "usage: apingd [-n conversations]\n");
      return 2;
    }
    conversations = strtol(optarg, NULL, 10);
  }
  if (aping_register_server() != 0) return 1;
  for (served = 0; conversations < 0 || served < conversations; ++served) {
    if (aping_serve_one() != 0) return 1;
  }
  return 0;
}
