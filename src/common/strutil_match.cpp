// String utilities: wildcard matching.
#include <string.h>

#include <string>

#include "common/strutil.h"

int MyStrMatch(const char* str, const char* mask, char more, char one) {
  const char* s = str;
  const char* m = mask;
  const char* star_mask = nullptr;  // the mask behind the last `more`
  const char* star_str = nullptr;   // where the run of that `more` started in str
  while (*s != '\0') {
    if (more != '\0' && *m == more) {
      star_mask = ++m;
      star_str = s;
      continue;
    }
    if (*m != '\0' && ((one != '\0' && *m == one) || *m == *s)) {
      ++m;
      ++s;
      continue;
    }
    if (star_mask == nullptr) return 0;
    // Mismatch after a `more`: that `more` swallows one byte more, and the match starts again.
    m = star_mask;
    s = ++star_str;
  }
  while (more != '\0' && *m == more)
    ++m;
  return *m == '\0' ? 1 : 0;
}

int strccmp(const char* str1, const char* str2, char one) {
  for (; *str2 != '\0'; ++str1, ++str2) {
    if (*str1 == '\0') return 0;
    if (!(one != '\0' && *str2 == one) && *str2 != *str1) return 0;
  }
  return 1;
}

char* strcstr(char* str1, const char* str2, char one) {
  const size_t need = strlen(str2);
  for (char* p = str1; strlen(p) >= need; ++p) {
    if (strccmp(p, str2, one)) return p;
    if (*p == '\0') break;
  }
  return nullptr;
}

// The mask is read through a copy of its own, so the caller's mask is never written to.
char* strMatchPtr(char* str, const char* mask, char more, char one) {
  if (mask[0] == '\0') return str;
  const bool has_more = more != '\0' && strchr(mask, more) != nullptr;
  const bool has_one = one != '\0' && strchr(mask, one) != nullptr;
  if (!has_more && !has_one) {
    return strncmp(str, mask, strlen(mask)) == 0 ? str : nullptr;
  }
  const std::string m(mask);
  char* found = nullptr;
  size_t piece_begin = 0;
  if (more != '\0' && m[0] == more) {
    if (m.size() == 1) return str;
    piece_begin = 1;
  }
  const size_t next_more = more != '\0' ? m.find(more, piece_begin) : std::string::npos;
  const std::string piece = m.substr(
      piece_begin, next_more == std::string::npos ? std::string::npos : next_more - piece_begin);
  if (piece_begin == 1) {
    found = strcstr(str, piece.c_str(), one);
  } else if (strccmp(str, piece.c_str(), one)) {
    found = str;
  }
  if (found == nullptr) return nullptr;
  const char* behind = found + piece.size();
  if (next_more == std::string::npos) return *behind == '\0' ? found : nullptr;
  return MyStrMatch(behind, m.c_str() + next_more, more, one) ? found : nullptr;
}
