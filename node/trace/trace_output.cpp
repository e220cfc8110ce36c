// What the node's trace file holds: separators, prefixed lines and dumps.
//
//   CPIC ==== 2026-11-23 01:23:45.123456 UTC pid 4711 tid 4712 ====
//   CPIC CMSEND request
//   CPIC 00000000  C8 85 93 93 96 40 E6 96  99 93 84 5A 00 01 02 03  |.....@.....Z....|  |Hello
//   World!....|
//
// A dump line shows the offset, 16 bytes in hexadecimal, the bytes read as
// ASCII and the bytes read as EBCDIC; bytes without a printable character
// show as '.'.  Every line goes to the file in one write, so a line is never
// split even by a writer that does not take the file lock.
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/ebcdic_text.h"
#include "snanode/snanode.h"

namespace {

char ascii_char(unsigned char byte) {
  return byte >= 0x20 && byte < 0x7F ? char(byte) : '.';
}

// Writes everything or gives up quietly: a trace must never disturb the
// caller, so errors (a full disk, a closed handle) only drop text.
void write_all(int32_t handle, struct iovec *parts, int count) {
  while (count > 0) {
    const ssize_t written = writev(handle, parts, count);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    size_t left = static_cast<size_t>(written);
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char *>(parts->iov_base) + left;
      parts->iov_len -= left;
    }
  }
}

void write_line(int32_t handle, const char *component, const char *text, size_t length) {
  if (handle < 0) return;
  char newline = '\n';
  struct iovec parts[3] = {{const_cast<char *>(component), std::strlen(component)},
                           {const_cast<char *>(text), length},
                           {&newline, 1}};
  write_all(handle, parts, 3);
}

// One dump line of up to 16 bytes.
size_t format_dump_line(char *out, size_t size, uint32_t offset, const unsigned char *bytes,
                        size_t count) {
  size_t n = static_cast<size_t>(std::snprintf(out, size, "%08X ", offset));
  for (size_t i = 0; i < 16; ++i) {
    if (i == 8) out[n++] = ' ';
    if (i < count) {
      n += static_cast<size_t>(std::snprintf(out + n, size - n, " %02X", bytes[i]));
    } else {
      std::memcpy(out + n, "   ", 3);
      n += 3;
    }
  }
  std::memcpy(out + n, "  |", 3);
  n += 3;
  for (size_t i = 0; i < 16; ++i) out[n++] = i < count ? ascii_char(bytes[i]) : ' ';
  std::memcpy(out + n, "|  |", 4);
  n += 4;
  for (size_t i = 0; i < 16; ++i)
    out[n++] = i < count ? snanode::ebcdic_to_printable(bytes[i]) : ' ';
  out[n++] = '|';
  return n;
}

}  // namespace

extern "C" {

void com_trc_sep(int32_t handle, const char *component) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  struct tm utc;
  gmtime_r(&now.tv_sec, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &utc);
  char text[128];
  const int length = std::snprintf(
      text, sizeof text, "==== %s.%06ld UTC pid %ld tid %ld ====", stamp, now.tv_nsec / 1000,
      static_cast<long>(getpid()), static_cast<long>(syscall(SYS_gettid)));
  write_line(handle, component, text, static_cast<size_t>(length));
}

void com_trc_line(int32_t handle, const char *component, const char *text) {
  write_line(handle, component, text, std::strlen(text));
}

void com_trc_dump(int32_t handle, const char *component, const void *data, uint32_t length) {
  const auto *bytes = static_cast<const unsigned char *>(data);
  char line[128];
  for (uint32_t offset = 0; offset < length; offset += 16) {
    const size_t count = length - offset < 16 ? length - offset : 16;
    write_line(handle, component, line,
               format_dump_line(line, sizeof line, offset, bytes + offset, count));
  }
}

}  // extern "C"
