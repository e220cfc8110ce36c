/* Built against an installed copy of the library, through pkg-config and
 * through find_package: the maximum buffer size needs no node, and a
 * conversation ID nobody made is refused. */
#include <cpic.h>
#include <stdio.h>

int main(void) {
  CM_INT32 size = 0;
  CM_RETURN_CODE rc = -1;
  unsigned char id[8] = {0};
  cmembs(&size, &rc);
  if (rc != CM_OK || size != 32767) {
    fprintf(stderr, "cmembs: rc %d size %d\n", (int)rc, (int)size);
    return 1;
  }
  CMALLC(id, &rc);
  if (rc != CM_PROGRAM_PARAMETER_CHECK) {
    fprintf(stderr, "CMALLC: rc %d\n", (int)rc);
    return 1;
  }
  return 0;
}
