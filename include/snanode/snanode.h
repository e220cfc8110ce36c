/*
 * snanode.h - the C interface of the node services library (libsnanode).
 *
 * libcpic imports exactly these names.  Any library that exports them with the
 * same signatures can stand in for libsnanode; the test suite uses that to put
 * a scripted node behind libcpic.
 */
#ifndef SNANODE_SNANODE_H
#define SNANODE_SNANODE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define SNANODE_API __attribute__((visibility("default")))
#else
#define SNANODE_API
#endif

/* ---- memory -------------------------------------------------------------- */
/* Its address identifies the caller's owner in nba_mm_alloc. */
SNANODE_API extern const unsigned char nba_blank_name[8];
SNANODE_API void *nba_mm_alloc(uint32_t size, uint32_t mem_class, const void *owner, uint32_t r1,
                               uint32_t r2);
SNANODE_API void nba_mm_free(void *block, uint32_t r1);

/* ---- problem and audit logs, assertions --------------------------------- */
/* arg_types: blank-separated tokens; l, x, lx, b take one 32-bit integer; s a
 * NUL-terminated string; ba, ca, es a 32-bit length and an address. */
SNANODE_API void nba_pd_print_problem(uint32_t code, uint32_t probe, const char *arg_types, ...);
SNANODE_API void nba_pd_print_audit(uint32_t code, uint32_t probe, const char *arg_types, ...);
SNANODE_API void v0_assert(const char *file, int line, const char *expression);

/* ---- process lock, wait objects, path ----------------------------------- */
SNANODE_API uint16_t vpm_lock(void);
SNANODE_API void vpm_unlock(uint16_t token);
SNANODE_API void *vpm_allocate_wait_object(void); /* NULL on failure */
SNANODE_API void vpm_release_wait_object(void *wait_object);
#define VPM_SLEEP_FOREVER 0xFFFFFFFFu
/* Returns 0 when woken, nonzero on time-out. */
SNANODE_API uint32_t vpm_sleep(void *wait_object, uint32_t timeout_ms);
SNANODE_API void vpm_wakeup(void *wait_object);
SNANODE_API int vpm_asm_event_fd(void);

#define VPM_PATH_ENDED 0x8001u
typedef struct {
  uint16_t type;
  uint16_t result;
} VPM_PATH_EVENT;
typedef int (*VPM_PATH_ROUTINE)(void *context, VPM_PATH_EVENT *event);
/* Stores a nonzero id in *path_user_id, or leaves it 0 on failure. */
SNANODE_API void vpm_init_path_user(uint32_t r1, uint32_t r2, VPM_PATH_ROUTINE routine, uint32_t r3,
                                    uint32_t *path_user_id);
SNANODE_API void vpm_terminate_path_user(uint32_t path_user_id);

/* ---- handle tables -------------------------------------------------------- */
typedef struct vtm_table *VTM_TABLE;
#define NB_NULL_HANDLE 0u
SNANODE_API void vtm_table_init(VTM_TABLE *field, uint32_t r1); /* *field NULL on failure */
SNANODE_API void vtm_table_terminate(VTM_TABLE *field);
SNANODE_API uint32_t vtm_get_free_entry(VTM_TABLE table, void *pointer); /* 0 = full */
SNANODE_API void *vtm_get_pointer(VTM_TABLE table, uint32_t handle);     /* NULL = unused */
SNANODE_API void vtm_release_entry(VTM_TABLE table, uint32_t handle);
SNANODE_API uint32_t vtm_get_next_used(VTM_TABLE table, uint32_t previous,
                                       void **pointer); /* 0 = end */

/* ---- APPC and NOF verbs --------------------------------------------------- */
typedef void (*APPC_CALLBACK)(void *vcb, uint32_t node_value1, uint32_t node_value2,
                              uintptr_t correlator);
#define APPC_INTERFACE_VERSION 2u
SNANODE_API void appc_c_version(uint32_t version, void *vcb); /* always synchronous */
/* Returns AP_ASYNC_IN_PROGRESS (0x17F0): the routine runs later; or
 * AP_ASYNC_COMPLETED (0x18F0): done now, the routine is not run.  A NULL
 * routine completes the verb before returning. */
SNANODE_API uint32_t appc_c_async_version(uint32_t version, void *vcb, APPC_CALLBACK routine,
                                          uintptr_t correlator);
SNANODE_API void nof_version(uint32_t version, uint32_t target_handle, void *verb_block);

/* ---- trace services ------------------------------------------------------- */
/* The node's trace flag bytes (at least 32).  Byte 0 bit 0x20: API trace on.
 * Byte 16 bit 0x02: audit records suppressed. */
SNANODE_API extern unsigned char *ptrc;
#define SNANODE_TRACE_FLAG_BYTES 32
#define SNANODE_TRACE_API_BYTE 0
#define SNANODE_TRACE_API_BIT 0x20u
#define SNANODE_TRACE_NO_AUDIT_BYTE 16
#define SNANODE_TRACE_NO_AUDIT_BIT 0x02u

typedef struct {
  uint8_t initialised;
  uint8_t reserved[3];
  int32_t file_handle; /* -1: no trace file */
} TRC_API;
SNANODE_API extern TRC_API trc_api;
SNANODE_API void sepuapi_init(unsigned char *trace_flags);
SNANODE_API void trc_lock_file(TRC_API *api);
SNANODE_API void trc_unlock_file(TRC_API *api);
SNANODE_API void com_trc_sep(int32_t file_handle, const char *component);
SNANODE_API void com_trc_line(int32_t file_handle, const char *component, const char *text);
SNANODE_API void com_trc_dump(int32_t file_handle, const char *component, const void *data,
                              uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* SNANODE_SNANODE_H */
