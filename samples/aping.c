/*
 * aping - measures a conversation with the APINGD server.
 *
 *   aping [-d sym_dest | -p partner_lu] [-t tp_name] [-m mode] [-s size] [-c count]
 *         [-i iterations] [-q]
 *
 * With neither -d nor -p the partner is the local LU ("LOCAL").
 */
#define _POSIX_C_SOURCE 200809L
#include <unistd.h>

#include "aping_core.h"

int main(int argc, char **argv) {
  struct aping_options o = {NULL, NULL, NULL, NULL, 100, 1, 5, 0};
  int opt;
  while ((opt = getopt(argc, argv, "d:p:t:m:s:c:i:q")) != -1) {
    switch (opt) {
      case 'd':
        o.sym_dest = optarg;
        break;
      case 'p':
        o.partner = optarg;
        break;
      case 't':
        o.tp_name = optarg;
        break;
      case 'm':
        o.mode = optarg;
        break;
      case 's':
        o.size = strtol(optarg, NULL, 10);
        break;
      case 'c':
        o.count = strtol(optarg, NULL, 10);
        break;
      case 'i':
        o.iterations = strtol(optarg, NULL, 10);
        break;
      case 'q':
        o.quiet = 1;
        break;
      default:
        fprintf(stderr,
                "usage: aping [-d sym_dest | -p partner_lu] [-t tp_name] [-m mode] [-s size] "
                "[-c count] [-i iterations] [-q]\n");
        return 2;
    }
  }
  if (o.sym_dest == NULL && o.partner == NULL) o.partner = "LOCAL";
  if (o.sym_dest == NULL && o.mode == NULL) o.mode = "#INTER";
  return aping_client(&o);
}
