/*
 * aping_core.h - the two halves of the APING exchange, shared by the aping
 * client, the apingd server and the embedded demo.
 *
 * The client allocates a mapped conversation to the TP APINGD, sends a
 * version record and receives the server's, then runs iterations: it sends
 * `count` records of `size` bytes, turns the conversation over, and receives
 * the server's echo of them.  The server accepts, answers the version record,
 * echoes every batch, and ends when the client deallocates.
 */
#ifndef APING_CORE_H
#define APING_CORE_H

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cpic.h"

#define APING_TP_NAME "APINGD"
#define APING_MAX_RECORD 32763
#define APING_VERSION_MAJOR 1
#define APING_VERSION_MINOR 0

struct aping_options {
  const char *sym_dest; /* symbolic destination, or NULL */
  const char *partner;  /* partner LU name or alias, or NULL */
  const char *mode;     /* mode name, or NULL for the side information's */
  const char *tp_name;  /* NULL: APINGD */
  long size;            /* bytes per record */
  long count;           /* records per iteration */
  long iterations;
  int quiet;
};

static inline double aping_now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

static inline int aping_failed(const char *call, CM_RETURN_CODE rc) {
  fprintf(stderr, "aping: %s failed with return code %ld\n", call, (long)rc);
  return 1;
}

/* Sets a name characteristic through one of the CMSxx calls taking
 * (id, name, length, rc). */
typedef void (*aping_name_call)(unsigned char *, unsigned char *, CM_INT32 *, CM_RETURN_CODE *);
static inline int aping_set_name(unsigned char *conv_id, aping_name_call call, const char *what,
                                 const char *value) {
  CM_INT32 length = (CM_INT32)strlen(value);
  CM_RETURN_CODE rc;
  call(conv_id, (unsigned char *)value, &length, &rc);
  return rc == CM_OK ? 0 : aping_failed(what, rc);
}

/* Receives until the partner turns the conversation over; returns the number
 * of records received, or -1 after reporting an error. */
static inline long aping_receive_batch(unsigned char *conv_id, unsigned char *buffer, CM_INT32 max,
                                       CM_INT32 *last_length) {
  long records = 0;
  for (;;) {
    CM_DATA_RECEIVED_TYPE data;
    CM_STATUS_RECEIVED status;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    CM_INT32 length = 0;
    CM_RETURN_CODE rc;
    cmrcv(conv_id, buffer, &max, &data, &length, &status, &rts, &rc);
    if (rc != CM_OK) return rc == CM_DEALLOCATED_NORMAL && records == 0 ? -2 : -1;
    if (data == CM_COMPLETE_DATA_RECEIVED) {
      ++records;
      *last_length = length;
    }
    if (status == CM_SEND_RECEIVED) return records;
  }
}

/* Sends `count` copies of the record, the last one with prepare-to-receive. */
static inline int aping_send_batch(unsigned char *conv_id, unsigned char *record, CM_INT32 length,
                                   long count) {
  long i;
  for (i = 0; i < count; ++i) {
    CM_SEND_TYPE type = i + 1 == count ? CM_SEND_AND_PREP_TO_RECEIVE : CM_BUFFER_DATA;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    CM_RETURN_CODE rc;
    cmsst(conv_id, &type, &rc);
    if (rc != CM_OK) return aping_failed("CMSST", rc);
    cmsend(conv_id, record, &length, &rts, &rc);
    if (rc != CM_OK) return aping_failed("CMSEND", rc);
  }
  return 0;
}

static inline int aping_client(const struct aping_options *o) {
  unsigned char conv_id[8];
  unsigned char sym_dest[9] = "        ";
  unsigned char *buffer;
  CM_RETURN_CODE rc;
  CM_INT32 last = 0;
  double start, allocated, total_ms = 0;
  long i;
  int failed = 0;

  if (o->size < 1 || o->size > APING_MAX_RECORD || o->count < 1 || o->iterations < 1) {
    fprintf(stderr, "aping: size must be 1 to %d, count and iterations at least 1\n",
            APING_MAX_RECORD);
    return 1;
  }
  if (o->sym_dest != NULL)
    memcpy(sym_dest, o->sym_dest, strlen(o->sym_dest) > 8 ? 8 : strlen(o->sym_dest));
  buffer = malloc((size_t)o->size + 4);
  if (buffer == NULL) return 1;
  memset(buffer, 'A', (size_t)o->size);

  start = aping_now_ms();
  cminit(conv_id, sym_dest, &rc);
  if (rc != CM_OK) {
    free(buffer);
    return aping_failed("CMINIT", rc);
  }
  if (o->partner != NULL) failed |= aping_set_name(conv_id, cmspln, "CMSPLN", o->partner);
  if (o->mode != NULL) failed |= aping_set_name(conv_id, cmsmn, "CMSMN", o->mode);
  if (!failed && (o->tp_name != NULL || o->sym_dest == NULL)) {
    failed |=
        aping_set_name(conv_id, cmstpn, "CMSTPN", o->tp_name != NULL ? o->tp_name : APING_TP_NAME);
  }
  if (!failed) {
    cmallc(conv_id, &rc);
    if (rc != CM_OK) failed = aping_failed("CMALLC", rc);
  }
  allocated = aping_now_ms();
  if (!failed) {
    /* The version exchange: two bytes each way. */
    unsigned char version[2] = {APING_VERSION_MAJOR, APING_VERSION_MINOR};
    failed = aping_send_batch(conv_id, version, 2, 1);
    if (!failed && aping_receive_batch(conv_id, buffer, (CM_INT32)o->size + 4, &last) != 1) {
      failed = aping_failed("version exchange", -1);
    }
  }
  if (!failed && !o->quiet) {
    printf("Connected to %s in %.3f ms, partner version %d.%d\n",
           o->sym_dest != NULL ? o->sym_dest : o->partner, allocated - start, buffer[0], buffer[1]);
  }
  for (i = 0; !failed && i < o->iterations; ++i) {
    double begin = aping_now_ms(), took;
    long echoed;
    memset(buffer, 'A' + (int)(i % 26), (size_t)o->size);
    failed = aping_send_batch(conv_id, buffer, (CM_INT32)o->size, o->count);
    if (failed) break;
    echoed = aping_receive_batch(conv_id, buffer, (CM_INT32)o->size + 4, &last);
    if (echoed != o->count || last != o->size || buffer[0] != 'A' + (int)(i % 26)) {
      failed = aping_failed("echo", -1);
      break;
    }
    took = aping_now_ms() - begin;
    total_ms += took;
    if (!o->quiet) {
      printf("iteration %ld: %.3f ms, %.1f KB/s\n", i + 1, took,
             took > 0 ? 2.0 * o->size * o->count / 1024.0 / (took / 1000.0) : 0.0);
    }
  }
  if (!failed) {
    CM_DEALLOCATE_TYPE flush = CM_DEALLOCATE_FLUSH;
    cmsdt(conv_id, &flush, &rc);
    cmdeal(conv_id, &rc);
    if (rc != CM_OK) failed = aping_failed("CMDEAL", rc);
  }
  if (!failed) {
    printf(
        "Allocate %.3f ms; %ld iterations of %ld x %ld bytes in %.3f ms: %.3f ms each, "
        "%.1f KB/s\n",
        allocated - start, o->iterations, o->count, o->size, total_ms, total_ms / o->iterations,
        total_ms > 0 ? 2.0 * o->size * o->count * o->iterations / 1024.0 / (total_ms / 1000.0)
                     : 0.0);
  }
  free(buffer);
  return failed;
}

/* Serves one APING conversation; returns 0 when the client ended it normally. */
static inline int aping_serve_one(void) {
  unsigned char conv_id[8];
  unsigned char *buffer = malloc(APING_MAX_RECORD + 4);
  CM_RETURN_CODE rc;
  int failed = 0;
  if (buffer == NULL) return 1;
  cmaccp(conv_id, &rc);
  if (rc != CM_OK) {
    free(buffer);
    return aping_failed("CMACCP", rc);
  }
  for (;;) {
    CM_INT32 last = 0;
    long records = aping_receive_batch(conv_id, buffer, APING_MAX_RECORD + 4, &last);
    if (records == -2) break; /* the client deallocated: done */
    if (records < 0) {
      failed = aping_failed("CMRCV", -1);
      break;
    }
    if (records == 1 && last == 2 && buffer[0] == APING_VERSION_MAJOR) {
      buffer[1] = APING_VERSION_MINOR; /* answer the version record with ours */
    }
    if (records > 0 && aping_send_batch(conv_id, buffer, last, records) != 0) {
      failed = 1;
      break;
    }
    if (records == 0) {
      CM_RETURN_CODE prc;
      cmptr(conv_id, &prc);
    }
  }
  free(buffer);
  return failed;
}

/* Makes APINGD a name this process accepts conversations under. */
static inline int aping_register_server(void) {
  CM_INT32 length = (CM_INT32)strlen(APING_TP_NAME);
  CM_RETURN_CODE rc;
  cmsltp((unsigned char *)APING_TP_NAME, &length, &rc);
  return rc == CM_OK ? 0 : aping_failed("CMSLTP", rc);
}

#endif /* APING_CORE_H */
