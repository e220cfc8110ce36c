/*
 * svmcspnt.h - the library's formatted-print routines.
 *
 * Two families share one size rule: a lower-case `l` modifier does not widen
 * an argument (it stays a 32-bit integer), an upper-case `L` marks a 64-bit
 * integer argument.  %p always takes a 64-bit pointer.
 *
 *  t_print_args / t_sprintf  a self-contained engine with its own restricted
 *                            set of conversions, no floating point and an
 *                            optional output limit.
 *  nb_sprintf / nb_printf /  the standard vsprintf/vfprintf after the format
 *  nb_fprintf                has been rewritten by lp64conv.
 */
#ifndef VSVIG_SVMCSPNT_H
#define VSVIG_SVMCSPNT_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Size of the rewrite buffer lp64conv fills. */
#define LP64CONV_BUFFER_SIZE 256
/* Ordinary text beyond this many output bytes is dropped by lp64conv. */
#define LP64CONV_TEXT_LIMIT 248

/* Formats into `out`.  `limit` 0 means no limit; otherwise formatting stops
 * with a newline once more than limit - 20 bytes are written.  Returns the
 * number of bytes before the final terminator. */
int t_print_args(char *out, uint32_t limit, const char *format, va_list args);
int t_sprintf(char *out, const char *format, ...);

/* Writes one number: prefix, precision zeros, digits, padded to `width`.
 * `*position` is advanced past what was written. */
void printnum(char **position, const char *digits, int left_justify, int width, int precision,
              const char *prefix, int zero_fill);

/* Rewrites `format` into `out` (LP64CONV_BUFFER_SIZE bytes): `l` is dropped,
 * `L` becomes `l`, and a conversion that had only `l` gets a `d`. */
void lp64conv(const char *format, char *out);

int nb_sprintf(char *out, const char *format, ...);
int nb_printf(const char *format, ...);
int nb_fprintf(FILE *stream, const char *format, ...);

#ifdef __cplusplus
}
#endif

#endif /* VSVIG_SVMCSPNT_H */
