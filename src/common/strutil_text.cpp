// String utilities: program name, case changes, blank stripping and small conversions.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/strutil.h"

namespace {

// Case changes go through the C library in the "C" locale; the byte is handed over as an
// unsigned value, which keeps bytes from 0x80 up unchanged without relying on the library
// accepting negative arguments.
inline char Upper(char c) {
  return static_cast<char>(toupper(static_cast<unsigned char>(c)));
}
inline char Lower(char c) {
  return static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

constexpr char kB26[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

}  // namespace

char* GetPName(char* ProgName) {
  char* slash = strrchr(ProgName, '/');
  return slash != nullptr ? slash + 1 : ProgName;
}

void ToUpperCase(char* Text, int tLength) {
  for (int i = 0; i < tLength; ++i)
    Text[i] = Upper(Text[i]);
}

void ToLowerCase(char* Text, int tLength) {
  for (int i = 0; i < tLength; ++i)
    Text[i] = Lower(Text[i]);
}

char* strupper(char* string) {
  for (char* p = string; *p != '\0'; ++p)
    *p = Upper(*p);
  return string;
}
char* strupr(char* string) {
  return strupper(string);
}
char* ToUpperStr(char* Text) {
  return strupper(Text);
}

char* strlow(char* string) {
  for (char* p = string; *p != '\0'; ++p)
    *p = Lower(*p);
  return string;
}
char* ToLowerStr(char* Text) {
  return strlow(Text);
}

void EatString(char* pChar, int Idx) {
  for (int i = 0; i <= Idx; ++i) {
    if (pChar[-i] != ' ') return;
    pChar[-i] = '\0';
  }
}

void EatTrailing(char* Area, int Length) {
  if (Area == nullptr || Length <= 0) return;
  EatString(Area + Length - 1, Length - 1);
}

void EatTrailingStr(char* Area) {
  if (Area == nullptr) return;
  EatTrailing(Area, static_cast<int>(strlen(Area)));
}

void rstrip(char* string) {
  EatTrailingStr(string);
}

void lstrip(char* string) {
  if (string == nullptr) return;
  size_t blanks = 0;
  while (string[blanks] == ' ')
    ++blanks;
  if (blanks > 0) memmove(string, string + blanks, strlen(string + blanks) + 1);
}

void strip(char* string) {
  lstrip(string);
  rstrip(string);
}

char* str_replace_char(char* string, char c1, char c2) {
  if (c1 == '\0') return string;
  for (char* p = string; *p != '\0'; ++p) {
    if (*p == c1) *p = c2;
  }
  return string;
}

char* fdset2string(char* work, fd_set* set, int maxfd) {
  size_t len = 0;
  work[0] = '\0';
  for (int i = 0; i <= maxfd && i < FD_SETSIZE; ++i) {
    if (FD_ISSET(i, set)) len += static_cast<size_t>(sprintf(work + len, "%d,", i));
  }
  if (len > 0) work[len - 1] = '\0';
  return work;
}

int ExpandEnvironmentStringsA(const char* buf, char* logName, int logSize) {
  constexpr int kWork = 2048;
  constexpr size_t kName = 64;
  if (logName == nullptr || logSize < 1) return 0;
  char work[kWork];
  StringCopy(work, kWork, buf);
  memset(logName, 0, static_cast<size_t>(logSize));
  const size_t room = static_cast<size_t>(logSize) - 1;  // the terminator always fits
  size_t out = 0;
  auto put = [&](const char* s) {
    for (; *s != '\0' && out < room; ++s)
      logName[out++] = *s;
  };
  for (const char* p = work; *p != '\0';) {
    if (*p != '%') {
      if (out < room) logName[out++] = *p;
      ++p;
      continue;
    }
    ++p;  // over the opening "%"
    char name[kName];
    size_t n = 0;
    while (*p != '\0' && *p != '%') {
      if (n < kName - 1) name[n++] = *p;  // longer names are cut to 63 bytes
      ++p;
    }
    name[n] = '\0';
    if (*p == '%') ++p;
    const char* value = getenv(name);
    if (value != nullptr) put(value);
  }
  logName[out] = '\0';
  return static_cast<int>(out);
}

char* Zudnst_LongToB26(unsigned int iIn, char* pOut) {
  for (int i = 6; i >= 0; --i) {
    pOut[i] = kB26[iIn % 26];
    iIn /= 26;
  }
  pOut[7] = '\0';
  return pOut;
}

unsigned int Zudnst_B26ToLong(const char* pIn) {
  unsigned int value = 0;
  for (int i = 0; i < 7 && pIn[i] != '\0'; ++i) {
    value *= 26;
    const char* at = strchr(kB26, pIn[i]);
    if (at == nullptr) break;
    value += static_cast<unsigned int>(at - kB26);
  }
  return value;
}

int Zudnst_Plausibility(unsigned int MsgLen, unsigned int RestDist, unsigned int RestLen) {
  if (MsgLen == 0) return 1;
  return RestDist + RestLen <= MsgLen ? 1 : 0;
}

int is_timer_elapsed(time_t start_time, int timespan) {
  return start_time + timespan < time(nullptr) ? 1 : 0;
}
