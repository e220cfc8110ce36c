// Start-up of the library, run by the first call that creates state: the
// local LU alias and the process's TP name from the environment, the three
// handle tables, the registration as a user of the path to the node, and the
// wait object of CMWAIT.  A failed step undoes everything before it, so the
// next creating call starts again from a clean slate.
#include <cstdlib>
#include <initializer_list>
#include <cstring>
#include <utility>

#include "call_frame.h"

namespace {

constexpr char kServiceTpPrefix[] = "SNA_SERVICE_TP_0x";
constexpr std::size_t kServiceTpPrefixLen = sizeof kServiceTpPrefix - 1;

// "CPIC_DEFAULT_TPNAME" in EBCDIC.
constexpr unsigned char kDefaultTpName[] = {0xC3, 0xD7, 0xC9, 0xC3, 0x6D, 0xC4, 0xC5,
                                            0xC6, 0xC1, 0xE4, 0xD3, 0xE3, 0x6D, 0xE3,
                                            0xD7, 0xD5, 0xC1, 0xD4, 0xC5};

constexpr std::size_t kTpNameSize = sizeof(GCB::TpName);

// Value of one character of a hexadecimal service TP name.  Nothing is
// rejected: letters count from 'A' = 10 (the low digit also folds lower
// case), '1'-'9' count as digits, and everything below '1' counts 0.
unsigned hex_value(unsigned char c, bool low) {
  if (c > '9') {
    unsigned v = c - 0x37u;
    return low ? v & ~0x20u : v;
  }
  if (c >= '1') return c - '0';
  return 0;
}

// Writes the digits as raw bytes, two digits per byte, and returns the number
// of bytes.  An odd count pairs the last digit with the terminating NUL.  A
// value longer than 128 digits would overflow TpName; the extra digits are
// ignored, so the name is cut at its 64 bytes rather than written past them.
uint16_t set_service_tp_name(unsigned char *tp_name, const char *digits) {
  const std::size_t n = std::strlen(digits);
  std::size_t bytes = (n + 1) / 2;
  if (bytes > kTpNameSize) bytes = kTpNameSize;
  const auto *d = reinterpret_cast<const unsigned char *>(digits);
  for (std::size_t i = 0; i < bytes; ++i) {
    tp_name[i] =
        static_cast<unsigned char>(hex_value(d[2 * i], false) * 16 + hex_value(d[2 * i + 1], true));
  }
  return static_cast<uint16_t>(bytes);
}

// Null for an unset or empty variable, else its value.
char *read_env(const char *name) {
  char *value = std::getenv(name);
  if (value != nullptr && *value == '\0') value = nullptr;
  pEnv = value;
  return value;
}

// Destroys whichever of the three tables exist and clears their fields.
void destroy_tables(GCB *gcb) {
  for (VTM_TABLE *table : {&gcb->CCCBTable, &gcb->SideInfoTable, &gcb->LocTPNameTable}) {
    if (*table != nullptr) vtm_table_terminate(table);
    *table = nullptr;
  }
}

}  // namespace

uint16_t SCC_far_len(const char *text, uint16_t maximum) {
  uint16_t n = 0;
  while (n < maximum && text[n] != '\0') ++n;
  return n;
}

void SCC_get_lu_alias(unsigned char *alias) {
  const char *value = read_env("APPCLLU");
  if (value == nullptr) {
    std::memset(alias, 0, 8);
    return;
  }
  // Taken as the user wrote it: aliases are local ASCII names.
  std::memset(alias, ' ', 8);
  std::memcpy(alias, value, SCC_far_len(value, 8));
}

void SCC_set_tp_name(unsigned char *tp_name) {
  GCB *gcb = pGCB;
  std::memset(tp_name, 0x40, kTpNameSize);
  const char *value = read_env("APPCTPN");
  if (value == nullptr) {
    std::memcpy(tp_name, kDefaultTpName, sizeof kDefaultTpName);
    gcb->usTpNameLen = sizeof kDefaultTpName;
    gcb->fTpNameFromEnv = 0;
  } else if (std::strncmp(value, kServiceTpPrefix, kServiceTpPrefixLen) == 0) {
    pEnv = const_cast<char *>(value) + kServiceTpPrefixLen;
    gcb->usTpNameLen = set_service_tp_name(tp_name, pEnv);
    gcb->fTpNameFromEnv = 0;
  } else {
    const uint16_t length = SCC_far_len(value, kTpNameSize);
    SCC_convert_string(SCC_CNV_OUT, SCC_CHARSET_AE640, static_cast<int16_t>(length), tp_name,
                       reinterpret_cast<const unsigned char *>(value));
    gcb->usTpNameLen = length;
    gcb->fTpNameFromEnv = 1;
  }
}

namespace {

void start_library();

}  // namespace

// The node lets the process lock go while it connects to its daemon during
// the path registration below, so another thread's call can get here while
// this start-up is half done: it waits for that start-up to end (a released
// wait object wakes every sleeper) and takes its outcome, rather than start
// the library a second time over the first.
void SCC_init() {
  static bool starting = false;
  static void *start_ended = nullptr;  // made by the first thread that waits
  if (starting) {
    if (start_ended == nullptr) start_ended = vpm_allocate_wait_object();
    if (start_ended != nullptr) vpm_sleep(start_ended, VPM_SLEEP_FOREVER);
    return;
  }
  starting = true;
  start_library();
  starting = false;
  if (start_ended != nullptr) vpm_release_wait_object(std::exchange(start_ended, nullptr));
}

namespace {

void start_library() {
  GCB *gcb = pGCB;
  std::memset(gcb->CurrentContext, 0, sizeof gcb->CurrentContext);
  std::memset(gcb->CurrentContextLU, 0, sizeof gcb->CurrentContextLU);
  gcb->NumLocTPNames = 0;
  gcb->usTpNameLen = 0;
  gcb->fDefaultTpNameDefined = 0;
  gcb->fTpNameFromEnv = 0;
  gcb->NumVerbsWaiting = 0;
  gcb->NumVerbsOutstanding = 0;

  SCC_get_lu_alias(gcb->EnvLUAlias);
  SCC_set_tp_name(gcb->TpName);

  // Each failure undoes what the steps before it created.
  vtm_table_init(&gcb->CCCBTable, 0);
  if (gcb->CCCBTable == nullptr) {
    nba_pd_print_problem(kProblemStartup, 1, "");
    return;
  }
  vtm_table_init(&gcb->SideInfoTable, 0);
  if (gcb->SideInfoTable == nullptr) {
    nba_pd_print_problem(kProblemStartup, 2, "");
    destroy_tables(gcb);
    return;
  }
  vtm_table_init(&gcb->LocTPNameTable, 0);
  if (gcb->LocTPNameTable == nullptr) {
    nba_pd_print_problem(kProblemStartup, 3, "");
    destroy_tables(gcb);
    return;
  }
  gcb->ulPathUserId = 0;
  vpm_init_path_user(0, 0, SCC_path_callback, 0, &gcb->ulPathUserId);
  if (gcb->ulPathUserId == 0) {
    nba_pd_print_problem(kProblemStartup, 0, "");
    destroy_tables(gcb);
    return;
  }
  gcb->hWaitObject = vpm_allocate_wait_object();
  if (gcb->hWaitObject == nullptr) {
    nba_pd_print_problem(kProblemNoResource, 12, "");
    destroy_tables(gcb);
    vpm_terminate_path_user(gcb->ulPathUserId);
    gcb->ulPathUserId = 0;
    return;
  }
  fInitCPIC = 1;
}

}  // namespace
