/*
 * afcopy - copies a file to the AFCOPYD server over a basic conversation.
 *
 *   afcopy [-d sym_dest | -p partner_lu] [-t tp_name] local_file remote_file
 *
 * The first logical record names the file to write; the file follows in
 * logical records of up to 4096 bytes; a confirmation at the end asks the
 * server whether everything was written.  A server that cannot write answers
 * with a send-error and ends the conversation, giving its reason as log data.
 *
 * On a terminal a progress bar with the rate and the time left runs on
 * standard error while the file goes out; a summary line ends every copy.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "cpic.h"

#define CHUNK 4096

static unsigned char conv_id[8];

static int failed(const char *call, CM_RETURN_CODE rc) {
  fprintf(stderr, "afcopy: %s failed with return code %ld\n", call, (long)rc);
  return 1;
}

static double seconds_since(const struct timespec *start) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)(now.tv_sec - start->tv_sec) + (double)(now.tv_nsec - start->tv_nsec) / 1e9;
}

/* A rate or size in the largest unit that keeps it readable. */
static void human(double bytes, char *out, size_t size) {
  const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024.0 && unit < 4) {
    bytes /= 1024.0;
    ++unit;
  }
  snprintf(out, size, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
}

/* Redraws the progress line at most ten times a second (and always when
 * `force`): bar, percentage, bytes sent, rate and time left. */
static void show_progress(long sent, long size, const struct timespec *start, int force) {
  static double last_drawn = -1.0;
  const double elapsed = seconds_since(start);
  const double rate = elapsed > 0.0 ? (double)sent / elapsed : 0.0;
  char done[16], rate_text[16], left[24] = "--:--";
  int percent = size > 0 ? (int)((double)sent * 100.0 / (double)size) : 100;
  int i, filled;
  if (!force && last_drawn >= 0.0 && elapsed - last_drawn < 0.1) return;
  last_drawn = elapsed;
  if (percent > 100) percent = 100;
  filled = percent * 30 / 100;
  human((double)sent, done, sizeof done);
  human(rate, rate_text, sizeof rate_text);
  if (rate > 0.0 && size >= sent) {
    const long seconds = (long)((double)(size - sent) / rate + 0.5);
    snprintf(left, sizeof left, "%ld:%02ld", seconds / 60, seconds % 60);
  }
  fputs("\r[", stderr);
  for (i = 0; i < 30; ++i) fputc(i < filled ? '#' : '.', stderr);
  fprintf(stderr, "] %3d%%  %s  %s/s  %s left\033[K", percent, done, rate_text, left);
  fflush(stderr);
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
  long total = 0, size = 0;
  int opt, progress;
  struct timespec start;
  struct stat info;
  char total_text[16], rate_text[16];
  double elapsed;

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
  if (fstat(fileno(in), &info) == 0 && S_ISREG(info.st_mode)) size = (long)info.st_size;
  progress = isatty(STDERR_FILENO);
  clock_gettime(CLOCK_MONOTONIC, &start);
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
    if (progress) show_progress(total, size, &start, 0);
  }
  fclose(in);
  if (progress) {
    show_progress(total, size, &start, 1);
    fputs("\r\033[K", stderr); /* the summary line takes its place */
  }
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
  elapsed = seconds_since(&start);
  human((double)total, total_text, sizeof total_text);
  human(elapsed > 0.0 ? (double)total / elapsed : 0.0, rate_text, sizeof rate_text);
  printf("afcopy: %ld bytes (%s) written to %s in %.2f s, %s/s\n", total, total_text,
         argv[optind + 1], elapsed, rate_text);
  return 0;
}
