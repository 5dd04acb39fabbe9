// Trace and log output: trace lines, report lines, hexadecimal dumps and numbered events.
#include "common/trace_log.h"

#include <ctype.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "common/dates.h"

int trcFlag = 0;

namespace {

constexpr size_t kTextArea = 2048;  // formatted texts are cut to 2047 characters

int drop_logger(int /*msgnr*/, const char* /*msginsert*/) {
  return 0;
}

}  // namespace

logger_function_t* default_logger = drop_logger;

int trc_level(void) {
  return trcFlag;
}

void __trace_text(int /*_stdout*/, const char* text, ...) {
  char area[kTextArea];
  va_list ap;
  va_start(ap, text);
  vsnprintf(area, sizeof area, text, ap);
  va_end(ap);
  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  // The thread identifier is the pthread handle as an unsigned number with at least 8
  // upper-case hexadecimal digits; handles wider than 32 bits print with more digits.
  printf("%.8lX         %s - %s\n", static_cast<unsigned long>(pthread_self()), dt.dt_xdat, area);
}

int mprintf(const char* format, ...) {
  char area[kTextArea];
  va_list ap;
  va_start(ap, format);
  vsnprintf(area, sizeof area, format, ap);
  va_end(ap);
  printf("%s\n", area);
  fflush(stdout);
  return 0;
}

void trcdump(void* area, int len, const char* format, ...) {
  char title[kTextArea];
  va_list ap;
  va_start(ap, format);
  vsnprintf(title, sizeof title, format, ap);
  va_end(ap);
  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);

  // Heading: time stamp and title, cut or padded to exactly 68 characters, then the address
  // and the length.
  constexpr int kHeadWidth = 68;
  char heading[kHeadWidth + 64];
  char full[kTextArea + 64];
  snprintf(full, sizeof full, "%s U0009909 TRACE: (%s)", dt.dt_xdat, title);
  snprintf(heading, sizeof heading, "%-*.*s", kHeadWidth, kHeadWidth, full);
  snprintf(heading + kHeadWidth, sizeof heading - kHeadWidth, len < 0 ? "%p %.4d" : "%p %.5d", area,
           len);
  printf("%s\n", heading);

  const auto* bytes = static_cast<const unsigned char*>(area);
  int offset = 0;
  int left = len;
  size_t pad = 61;
  while (left > 0) {
    const int n = left < 16 ? left : 16;
    char line[160];
    size_t pos = static_cast<size_t>(snprintf(line, sizeof line, "%20s%.8X ", "", offset));
    for (int i = 0; i < n; ++i) {
      if (i % 4 == 0) line[pos++] = ' ';
      pos += static_cast<size_t>(snprintf(line + pos, sizeof line - pos, "%.2X", bytes[i]));
    }
    if (n == 16) {
      pad = pos;
    } else {
      while (pos < pad)
        line[pos++] = ' ';
    }
    memcpy(line + pos, "  >", 3);
    pos += 3;
    for (int i = 0; i < n; ++i)
      line[pos++] = isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
    line[pos++] = '<';
    line[pos] = '\0';
    const unsigned char* shown = bytes;
    bytes += n;
    offset += n;
    left -= n;
    // Runs of 16-byte groups equal to the line just shown are skipped and marked with "="
    // behind the offset; the last 16 bytes of the area are always shown.
    while (left > 16 && memcmp(bytes, shown, 16) == 0) {
      line[28] = '=';
      bytes += 16;
      offset += 16;
      left -= 16;
    }
    printf("%s\n", line);
  }
}

void trcdump_limited(void* /*area*/, int /*len*/, int /*limit*/, const char* /*format*/, ...) {}

int __log(int msgnr, const char* insert, ...) {
  char area[kTextArea];
  va_list ap;
  va_start(ap, insert);
  vsnprintf(area, sizeof area, insert, ap);
  va_end(ap);
  default_logger(msgnr, area);
  return 0;
}

int __log_set_logger(logger_function_t* function_pointer) {
  default_logger = function_pointer != nullptr ? function_pointer : drop_logger;
  return 0;
}
