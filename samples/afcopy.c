/*
 * afcopy - copies a file to the AFCOPYD server over a basic conversation.
 *
 *   afcopy [-d sym_dest | -p partner_lu] [-t tp_name] local_file remote_file
 *
 * The first logical record names the file to write; the file follows in
 * logical records of up to 4096 bytes; a confirmation at the end asks the
 * server whether everything was written.  A server that cannot write answers
 * with a send-error and ends the conversation, giving its reason as log data.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cpic.h"

#define CHUNK 4096

static unsigned char conv_id[8];

static int failed(const char *call, CM_RETURN_CODE rc) {
  fprintf(stderr, "afcopy: %s failed with return code %ld\n", call, (long)rc);
  return 1;
}

/* Sends one logical record: LL (counting itself) and the bytes. */
static CM_RETURN_CODE send_record(const unsigned char *data, size_t length) {
  unsigned char record[CHUNK + 2];
  CM_INT32 record_length = (CM_INT32)(length + 2);
  CM_REQUEST_TO_SEND_RECEIVED rts;
  CM_RETURN_CODE rc;
  record[0] = (unsigned char)(record_length >> 8);
  record[1] = (unsigned char)(record_length & 0xFF);
  memcpy(record + 2, data, length);
  cmsend(conv_id, record, &record_length, &rts, &rc);
  return rc;
}

/* The server refused the data: its reason is in its node's problem log; the
 * conversation ends with its deallocation. */
static int report_refusal(void) {
  unsigned char buffer[256];
  CM_INT32 max = sizeof buffer, length;
  CM_DATA_RECEIVED_TYPE data;
  CM_STATUS_RECEIVED status;
  CM_REQUEST_TO_SEND_RECEIVED rts;
  CM_RETURN_CODE rc;
  cmrcv(conv_id, buffer, &max, &data, &length, &status, &rts, &rc);
  fprintf(stderr, "afcopy: the server could not write the file (return code %ld)\n", (long)rc);
  return 1;
}

int main(int argc, char **argv) {
  const char *sym_dest = NULL, *partner = NULL, *tp_name = "AFCOPYD";
  unsigned char dest[9] = "        ";
  unsigned char chunk[CHUNK];
  CM_RETURN_CODE rc;
  FILE *in;
  size_t got;
  long total = 0;
  int opt;

  while ((opt = getopt(argc, argv, "d:p:t:")) != -1) {
    if (opt == 'd')
      sym_dest = optarg;
    else if (opt == 'p')
      partner = optarg;
    else if (opt == 't')
      tp_name = optarg;
    else
      break;
  }
  if (argc - optind != 2) {
    fprintf(stderr, "usage: afcopy [-d sym_dest | -p partner_lu] [-t tp_name] local remote\n");
    return 2;
  }
  in = fopen(argv[optind], "rb");
  if (in == NULL) {
    perror(argv[optind]);
    return 1;
  }
  if (sym_dest != NULL) memcpy(dest, sym_dest, strlen(sym_dest) > 8 ? 8 : strlen(sym_dest));
  if (sym_dest == NULL && partner == NULL) partner = "LOCAL";

  cminit(conv_id, dest, &rc);
  if (rc != CM_OK) return failed("CMINIT", rc);
  {
    CM_CONVERSATION_TYPE basic = CM_BASIC_CONVERSATION;
    CM_SYNC_LEVEL confirm = CM_CONFIRM;
    CM_INT32 length = (CM_INT32)strlen(tp_name);
    cmsct(conv_id, &basic, &rc);
    if (rc == CM_OK) cmssl(conv_id, &confirm, &rc);
    if (rc == CM_OK) cmstpn(conv_id, (unsigned char *)tp_name, &length, &rc);
    if (rc == CM_OK && partner != NULL) {
      CM_INT32 partner_length = (CM_INT32)strlen(partner);
      cmspln(conv_id, (unsigned char *)partner, &partner_length, &rc);
    }
    if (rc != CM_OK) return failed("setting characteristics", rc);
  }
  cmallc(conv_id, &rc);
  if (rc != CM_OK) return failed("CMALLC", rc);

  rc = send_record((const unsigned char *)argv[optind + 1], strlen(argv[optind + 1]));
  while (rc == CM_OK && (got = fread(chunk, 1, sizeof chunk, in)) > 0) {
    rc = send_record(chunk, got);
    total += (long)got;
  }
  fclose(in);
  if (rc == CM_PROGRAM_ERROR_PURGING) return report_refusal();
  if (rc != CM_OK) return failed("CMSEND", rc);

  {
    CM_REQUEST_TO_SEND_RECEIVED rts;
    cmcfm(conv_id, &rts, &rc);
  }
  if (rc == CM_PROGRAM_ERROR_PURGING) return report_refusal();
  if (rc != CM_OK) return failed("CMCFM", rc);
  {
    CM_DEALLOCATE_TYPE flush = CM_DEALLOCATE_FLUSH;
    cmsdt(conv_id, &flush, &rc);
    cmdeal(conv_id, &rc);
  }
  if (rc != CM_OK) return failed("CMDEAL", rc);
  printf("afcopy: %ld bytes written to %s\n", total, argv[optind + 1]);
  return 0;
}
