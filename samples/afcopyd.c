/*
 * afcopyd - the AFCOPYD server: writes the file afcopy sends.
 *
 *   afcopyd [-n conversations] [-r directory]
 *
 * Files are written under the directory (default: the current one).  When a
 * file cannot be opened or written the server refuses the data with a
 * send-error and ends the conversation abnormally, with the reason as log
 * data, so the client and the node's problem log both learn why.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

#define CHUNK 4096

static int failed(const char *call, CM_RETURN_CODE rc) {
  fprintf(stderr, "afcopyd: %s failed with return code %ld\n", call, (long)rc);
  return 1;
}

/* Refuses the data: send-error, then an abnormal end that carries the reason. */
static int refuse(unsigned char *conv_id, const char *reason) {
  CM_INT32 length = (CM_INT32)strlen(reason);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  CM_DEALLOCATE_TYPE abend = CM_DEALLOCATE_ABEND;
  CM_RETURN_CODE rc;
  fprintf(stderr, "afcopyd: %s\n", reason);
  cmsld(conv_id, (unsigned char *)reason, &length, &rc);
  cmserr(conv_id, &rts, &rc);
  cmsld(conv_id, (unsigned char *)reason, &length, &rc);
  cmsdt(conv_id, &abend, &rc);
  cmdeal(conv_id, &rc);
  return 1;
}

static int serve_one(const char *directory) {
  unsigned char conv_id[8];
  unsigned char record[CHUNK + 2];
  char path[1024], reason[1200];
  FILE *out = NULL;
  long total = 0;
  CM_RETURN_CODE rc;

  cmaccp(conv_id, &rc);
  if (rc != CM_OK) return failed("CMACCP", rc);
  for (;;) {
    CM_INT32 max = sizeof record, length = 0;
    CM_DATA_RECEIVED_TYPE data;
    CM_STATUS_RECEIVED status;
    CM_REQUEST_TO_SEND_RECEIVED rts;
    cmrcv(conv_id, record, &max, &data, &length, &status, &rts, &rc);
    if (rc == CM_DEALLOCATED_NORMAL) break;
    if (rc != CM_OK) {
      if (out != NULL) fclose(out);
      return failed("CMRCV", rc);
    }
    if (data == CM_COMPLETE_DATA_RECEIVED && length >= 2) {
      const size_t bytes = (size_t)length - 2; /* the LL is not file data */
      if (out == NULL) {
        snprintf(path, sizeof path, "%s/%.*s", directory, (int)bytes, (const char *)record + 2);
        out = fopen(path, "wb");
        if (out == NULL) {
          snprintf(reason, sizeof reason, "cannot open %s: %s", path, strerror(errno));
          return refuse(conv_id, reason);
        }
      } else if (fwrite(record + 2, 1, bytes, out) != bytes) {
        snprintf(reason, sizeof reason, "cannot write %s: %s", path, strerror(errno));
        fclose(out);
        return refuse(conv_id, reason);
      } else {
        total += (long)bytes;
      }
    }
    if (status == CM_CONFIRM_RECEIVED) {
      /* Everything has arrived: confirm only once it is safely written. */
      if (out == NULL || fclose(out) != 0) {
        out = NULL;
        snprintf(reason, sizeof reason, "cannot complete %s", path);
        return refuse(conv_id, reason);
      }
      out = NULL;
      cmcfmd(conv_id, &rc);
      if (rc != CM_OK) return failed("CMCFMD", rc);
      printf("afcopyd: %ld bytes written to %s\n", total, path);
    }
  }
  if (out != NULL) fclose(out);
  return 0;
}

int main(int argc, char **argv) {
  const char *directory = ".";
  long conversations = -1, served;
  CM_INT32 length = 7;
  CM_RETURN_CODE rc;
  int opt;
  while ((opt = getopt(argc, argv, "n:r:")) != -1) {
    if (opt == 'n') {
      conversations = strtol(optarg, NULL, 10);
    } else if (opt == 'r') {
      directory = optarg;
    } else {
      fprintf(stderr, "usage: afcopyd [-n conversations] [-r directory]\n");
      return 2;
    }
  }
  cmsltp((unsigned char *)"AFCOPYD", &length, &rc);
  if (rc != CM_OK) return failed("CMSLTP", rc);
  for (served = 0; conversations < 0 || served < conversations; ++served) {
    serve_one(directory);
  }
  return 0;
}
