// Placeholder trace services until the trace file support lands: no trace
// file is ever open, so every record is dropped.
#include "snanode/snanode.h"

extern "C" {
TRC_API trc_api = {0, {0, 0, 0}, -1};
void sepuapi_init(unsigned char *) { trc_api.file_handle = -1; }
void trc_lock_file(TRC_API *api) { api->file_handle = -1; }
void trc_unlock_file(TRC_API *) {}
void com_trc_sep(int32_t, const char *) {}
void com_trc_line(int32_t, const char *, const char *) {}
void com_trc_dump(int32_t, const char *, const void *, uint32_t) {}
}
