// String utilities: bounded copies, word splitting and fixed-length fields.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include "common/strutil.h"

char* _StringCopy(char* RcvArea, int RcvSize, const char* SndArea, const char* /*FileName*/,
                  int /*line*/) {
  if (RcvArea == nullptr) return nullptr;
  if (RcvSize < 0) return RcvArea;  // no area to write into
  RcvArea[0] = '\0';
  if (SndArea == nullptr || SndArea[0] == '\0' || RcvSize == 0) return RcvArea;
  // A longer text is cut so that the terminator fits. The source may lie inside the area: it
  // is moved before the terminator is set.
  const size_t n = std::min(strlen(SndArea), static_cast<size_t>(RcvSize) - 1);
  memmove(RcvArea, SndArea, n);
  RcvArea[n] = '\0';
  return RcvArea;
}

char* _StringCat(char* RcvArea, int RcvSize, const char* SndArea, const char* FileName, int line) {
  if (RcvArea == nullptr) return nullptr;
  if (SndArea == nullptr || RcvSize <= 0 || SndArea[0] == '\0') return RcvArea;
  // The present text is measured inside the area only, so an unterminated area is not read
  // beyond its end.
  const size_t present = strnlen(RcvArea, static_cast<size_t>(RcvSize));
  if (present >= static_cast<size_t>(RcvSize)) return RcvArea;
  _StringCopy(RcvArea + present, RcvSize - static_cast<int>(present), SndArea, FileName, line);
  return RcvArea;
}

int get_word_delimited(const char* src, char delimiter, int n, char* dst, int dst_len) {
  if (dst == nullptr || dst_len < 1) return 0;
  const bool rest_mode = n < 0;
  if (rest_mode) n = -n;
  dst[0] = '\0';
  if (src == nullptr) return 0;

  const char* p = src;
  int word = 1;
  while (*p != '\0' && word != n) {
    while (*p != '\0' && *p != delimiter)
      ++p;
    if (*p != '\0' && *p == delimiter) ++p;
    ++word;
  }
  if (word != n) return 0;

  if (rest_mode) {
    strncpy(dst, p, static_cast<size_t>(dst_len));
    dst[dst_len - 1] = '\0';
    return static_cast<int>(strlen(dst));
  }
  int count = 0;
  while (*p != '\0' && *p != delimiter && count < dst_len)
    dst[count++] = *p++;
  // A word that filled the area loses its last byte to the terminator; the count still
  // tells that the area was full.
  dst[count == dst_len ? dst_len - 1 : count] = '\0';
  return count;
}

int get_variable_msg_field(char* out, const char* in, int dist, int len) {
  if (len < 0) len = 0;
  memcpy(out, in + dist, static_cast<size_t>(len));
  out[len] = '\0';
  return 0;
}

char* GetStringTh(const char* Text, int tLength, char* Value, int vLength) {
  if (Value == nullptr || vLength < 1) return Value;
  int n = std::min(tLength, vLength - 1);
  if (n < 0) n = 0;
  memcpy(Value, Text, static_cast<size_t>(n));
  Value[n] = '\0';
  EatTrailing(Value, n);
  return Value;
}

char* GetHexString(const void* addr, int aLength, char* cValue, int vLength) {
  constexpr int kMaxBytes = 500;
  constexpr int kWork = 512;
  const auto* bytes = static_cast<const unsigned char*>(addr);
  const int n = std::clamp(aLength, 0, kMaxBytes);
  char work[kWork];
  work[0] = '\0';
  char piece[4];
  StringCat(work, kWork, "'");
  for (int i = 0; i < n; ++i) {
    if (i > 0 && i % 4 == 0) StringCat(work, kWork, " ");
    snprintf(piece, sizeof piece, "%.2X", bytes[i]);
    StringCat(work, kWork, piece);
  }
  StringCat(work, kWork, "'");
  if (strlen(work) < 257) {
    while (strlen(work) % 40 != 0)
      StringCat(work, kWork, " ");
    StringCat(work, kWork, ">");
    for (int i = 0; i < n; ++i) {
      piece[0] = isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
      piece[1] = '\0';
      StringCat(work, kWork, piece);
    }
    StringCat(work, kWork, "<");
  }
  if (cValue == nullptr || vLength < 1) return cValue;
  // Always terminated: a text that fills the area loses its last byte.
  strncpy(cValue, work, static_cast<size_t>(vLength));
  cValue[vLength - 1] = '\0';
  return cValue;
}

void fix_len_reorg(char* p, int l) {
  if (p == nullptr || l <= 0) return;
  char* work = static_cast<char*>(malloc(static_cast<size_t>(l) + 1));
  if (work == nullptr) return;
  int i = 0;
  while (i < l && p[i] == ' ')
    ++i;
  int w = 0;
  while (i < l && p[i] != ' ' && p[i] != '\0')
    work[w++] = p[i++];
  while (w < l)
    work[w++] = ' ';
  memcpy(p, work, static_cast<size_t>(l));
  free(work);
}

void fix_len_reorg2(char* p, int l) {
  if (p == nullptr || l <= 0) return;
  char* work = static_cast<char*>(malloc(static_cast<size_t>(l) + 1));
  if (work == nullptr) return;
  int i = 0;
  while (i < l && p[i] == ' ')
    ++i;
  const int keep = std::min(l - i, l - 1);
  memcpy(work, p + i, static_cast<size_t>(keep));
  work[keep] = '\0';
  memcpy(p, work, static_cast<size_t>(keep) + 1);
  free(work);
}
