/*
 * snanode_test.h - the node's test interface.
 *
 * Not part of the application interface: test programs use it to inject
 * failures into the node services, count the problem, audit and assertion
 * records the library writes, and script the node's answers to APPC and NOF
 * verbs instead of letting the conversation engine carry them out.
 */
#ifndef SNANODE_SNANODE_TEST_H
#define SNANODE_SNANODE_TEST_H

#include <stdint.h>

#include "snanode/snanode.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Clears scripts, pending verbs, failure injection, counters and the record
 * logs, and switches verb scripting off. */
SNANODE_API void snt_reset(void);

/* ---- failure injection: each makes the next n operations of its kind fail ---- */
SNANODE_API void snt_fail_allocations(uint32_t n);        /* nba_mm_alloc returns NULL */
SNANODE_API void snt_fail_table_inserts(uint32_t n);      /* vtm_get_free_entry returns 0 */
SNANODE_API void snt_fail_table_inits(uint32_t n);        /* vtm_table_init leaves NULL */
SNANODE_API void snt_refuse_wait_objects(uint32_t n);     /* vpm_allocate_wait_object NULL */
SNANODE_API void snt_fail_path_registrations(uint32_t n); /* vpm_init_path_user leaves 0 */

/* Ends the path as a lost node would: outstanding verbs complete with
 * AP_COMM_SUBSYSTEM_ABENDED, then every path routine runs with VPM_PATH_ENDED.
 * The next vpm_init_path_user connects afresh. */
SNANODE_API void snt_end_path(void);
SNANODE_API uint32_t snt_path_users(void); /* registered path users */

/* ---- records ----------------------------------------------------------------- */
typedef struct {
  uint32_t code;
  uint32_t probe;
  char arg_types[32];
  uint32_t arg_count;   /* number of tokens in arg_types */
  uint64_t args[8];     /* integers; for ba/ca/es the length, for s 0 */
  uint8_t bytes[8][64]; /* for ba/ca/es/s the first bytes of the data */
  char line[512];       /* the line written to the log file */
} SNT_RECORD;

SNANODE_API uint32_t snt_problem_count(void);
SNANODE_API uint32_t snt_audit_count(void);
SNANODE_API uint32_t snt_assert_count(void);
/* Copies the n-th record (0 = oldest since snt_reset); returns 0 if none. */
SNANODE_API int snt_problem(uint32_t n, SNT_RECORD *out);
SNANODE_API int snt_audit(uint32_t n, SNT_RECORD *out);
/* Copies the expression text of the n-th assertion; returns 0 if none. */
SNANODE_API int snt_assertion(uint32_t n, char *file, uint32_t file_size, char *expression,
                              uint32_t expression_size);

/* Memory blocks currently allocated through nba_mm_alloc, by class (0 = all). */
SNANODE_API uint32_t snt_blocks_in_use(uint32_t mem_class);
SNANODE_API uint64_t snt_bytes_in_use(uint32_t mem_class);

/* ---- scripted APPC verbs ------------------------------------------------------ */
/* While scripting is on, appc_c_version and appc_c_async_version do not reach
 * the engine: each verb takes the first queued script whose opcode matches
 * (0 matches any) or, with none, completes at once with primary 0 and default
 * out-values (fresh TP and conversation identifiers for START_TP, ALLOCATE and
 * RECEIVE_ALLOCATE_CPIC). */
typedef void (*SNT_FILL)(void *vcb, void *context);
typedef struct {
  uint16_t opcode; /* 0 = any */
  uint16_t primary_rc;
  uint32_t secondary_rc;
  int complete_later; /* 1: answer 0x17F0 (or, for a blocking verb, wait) until
                         the test completes it; ignored for appc_c_version */
  SNT_FILL fill;      /* optional: writes out-fields into the VCB */
  void *context;
} SNT_VERB_SCRIPT;

SNANODE_API void snt_script_verbs(int on);
SNANODE_API void snt_push_verb_script(const SNT_VERB_SCRIPT *script);

/* Every verb submitted while scripting is on, in order. */
SNANODE_API uint32_t snt_submitted_count(void);
/* Copies up to size bytes of the n-th submitted VCB as it was submitted. */
SNANODE_API int snt_submitted_vcb(uint32_t n, void *copy, uint32_t size);
SNANODE_API uint16_t snt_submitted_opcode(uint32_t n);
/* 1 if the n-th verb was submitted with a completion routine. */
SNANODE_API int snt_submitted_with_routine(uint32_t n);

/* Verbs answered 0x17F0 (or blocking verbs held) and not yet completed. */
SNANODE_API uint32_t snt_pending_count(void);
/* Completes the n-th oldest pending verb: applies its script's results to the
 * VCB and runs its completion routine on the node's completion thread (or
 * releases the blocked caller).  Returns 1 when done; waits until the routine
 * has run. */
SNANODE_API int snt_complete_pending(uint32_t n);

/* ---- scripted NOF ---------------------------------------------------------- */
/* While on, nof_version answers from the queued scripts, one per verb in order
 * (OPEN, QUERY_SIDE_INFO, CLOSE ...); a verb with no script succeeds and a
 * query then answers primary 0x0200 / secondary 0x58100000. */
typedef struct {
  uint16_t opcode;
  uint16_t primary_rc;
  uint32_t secondary_rc;
  uint8_t record[212]; /* QUERY_SIDE_INFO: copied to the caller's buffer on success */
} SNT_NOF_SCRIPT;
SNANODE_API void snt_script_nof(int on);
SNANODE_API void snt_push_nof_script(const SNT_NOF_SCRIPT *script);
SNANODE_API uint32_t snt_nof_count(void);
SNANODE_API uint16_t snt_nof_opcode(uint32_t n);

#ifdef __cplusplus
}
#endif

#endif /* SNANODE_SNANODE_TEST_H */
