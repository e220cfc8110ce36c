/* cpic.h as a C99 program sees it: compiled with -std=c99 -pedantic and every
 * warning an error, linked with libcpic alone, and run. */
#include <stdio.h>
#include <string.h>

#include "cpic.h"

static int failures = 0;

static void expect(int condition, const char *what) {
  if (!condition) {
    fprintf(stderr, "failed: %s\n", what);
    ++failures;
  }
}

int main(void) {
  unsigned char conversation_ID[8] = {0};
  CM_RETURN_CODE conversation_return_code = -1;
  CM_RETURN_CODE return_code = -1;

  cmwait(conversation_ID, &conversation_return_code, &return_code);
  expect(return_code == CM_PROGRAM_STATE_CHECK, "cmwait with nothing outstanding");
  CMCHCK(conversation_ID, &return_code);
  expect(return_code == CM_PROGRAM_STATE_CHECK, "CMCHCK with nothing outstanding");
  CMCANC(conversation_ID, &return_code);
  expect(return_code == CM_PROGRAM_PARAMETER_CHECK, "CMCANC of an unknown conversation");

  expect(strncmp(ocpic_verstamp(), "V7.1.1.1 ", 9) == 0, "version stamp");
  expect(cpic_ae['A'] == 0xC1 && cpic_ae[256 + 0xC1] == 'A', "conversion table");
  expect(fInitCPIC == 0, "not started");
  return failures == 0 ? 0 : 1;
}
