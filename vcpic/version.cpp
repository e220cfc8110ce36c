// Version texts of the library and their accessors.  The what-lines in
// ocpic_verstring let `what`-style tools find the version in the binary.
#include "internal.h"

#define CPIC_VERSION "V7.1.1.1 "
#define CPIC_PRODUCT "Talvera CPI-C Library Routines (64 bit)"
#define CPIC_WHAT "@(#)]"

extern "C" {
char ocpic_verstring1[255] = CPIC_VERSION CPIC_PRODUCT "\n";
// Message template: the caller fills in %1.
char ocpic_verstring1_tvt[255] = CPIC_VERSION CPIC_PRODUCT " %1\n";
char ocpic_verstring[255] = CPIC_WHAT CPIC_VERSION CPIC_PRODUCT "\n" CPIC_WHAT "Built " __DATE__
                                                                " " __TIME__ "\n" CPIC_WHAT "\n";
// Reserved; nothing reads or writes it, but programs may link against it.
char ocpic_dummy[512] = {};

char *ocpic_verstamp(void) {
  return ocpic_verstring1;
}
char *ocpic_verstamp_tvt(void) {
  return ocpic_verstring1_tvt;
}
}
