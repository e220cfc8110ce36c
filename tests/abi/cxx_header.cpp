// cpic.h as a C++ program sees it: the same calls as the C99 program, with
// the header's declarations checked against what C++ expects of them.
#include <cstring>
#include <type_traits>

#include "cpic.h"

static_assert(std::is_same_v<decltype(&cmwait),
                             void (*)(unsigned char *, CM_RETURN_CODE *, CM_RETURN_CODE *)>);
static_assert(sizeof(CM_INT32) == 4);

int main() {
  unsigned char conversation_ID[8] = {};
  CM_RETURN_CODE conversation_return_code = -1;
  CM_RETURN_CODE return_code = -1;
  CMWAIT(conversation_ID, &conversation_return_code, &return_code);
  if (return_code != CM_PROGRAM_STATE_CHECK) return 1;
  cmcanc(conversation_ID, &return_code);
  if (return_code != CM_PROGRAM_PARAMETER_CHECK) return 2;
  if (std::strncmp(ocpic_verstamp_tvt(), "V7.1.1.1 ", 9) != 0) return 3;
  return 0;
}
