// Memory dumps and keyed-field formatters.
#include "common/memdump.h"

#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

namespace {

constexpr int kBytesPerLine = 16;
constexpr int kTraceHeadingWidth = 66;  // address and length start in this column
constexpr int kTraceHexEnd = 59;        // length of a full line before "  >"
constexpr int kTraceMarkColumn = 22;    // "=" for left-out repeated lines
constexpr int kPrtCharColumn = 60;      // ">" before the characters of an iPrtMem line
constexpr int kPrtMarkColumn = 1;

void AppendF(std::string& s, const char* format, unsigned value) {
  char buf[16];
  snprintf(buf, sizeof buf, format, value);
  s += buf;
}

// The heading of ZUMEM_Trace and ZUMEM_TraceStr.
void PrintTraceHeading(const char* id, const void* addr, int len) {
  std::string line = "----->  TRACE: (";
  line += id != nullptr ? id : "";
  line += ")";
  line.resize(kTraceHeadingWidth, ' ');
  // The columns are made for eight digits: the low 32 bits of the address are shown.
  char tail[32];
  snprintf(tail, sizeof tail, len < 0 ? "%.8X %.4d\n" : "%.8X %.5d\n",
           static_cast<unsigned>(reinterpret_cast<uintptr_t>(addr)), len);
  line += tail;
  printf("%s", line.c_str());
}

// True when the `kBytesPerLine` bytes at `next` equal those at `shown`.
bool SameLine(const unsigned char* shown, const unsigned char* next) {
  return memcmp(shown, next, kBytesPerLine) == 0;
}

// Calls `emit` with each body line of the ZUMEM_Trace layout, "\n" included.
template <typename Emit>
void TraceBody(const void* addr, int len, Emit emit) {
  if (addr == nullptr || len <= 0) return;
  const auto* base = static_cast<const unsigned char*>(addr);
  int offset = 0;
  while (offset < len) {
    const int n = len - offset < kBytesPerLine ? len - offset : kBytesPerLine;
    const unsigned char* piece = base + offset;
    std::string line(14, ' ');
    AppendF(line, "%.8X ", static_cast<unsigned>(offset));
    for (int i = 0; i < n; ++i) {
      if (i % 4 == 0) line += ' ';
      AppendF(line, "%.2X", piece[i]);
    }
    line.resize(kTraceHexEnd, ' ');
    line += "  >";
    for (int i = 0; i < n; ++i)
      line += isprint(piece[i]) ? static_cast<char>(piece[i]) : '.';
    line += "<\n";
    offset += n;
    while (len - offset > kBytesPerLine && SameLine(piece, base + offset)) {
      offset += kBytesPerLine;
      line[kTraceMarkColumn] = '=';
    }
    emit(line);
  }
}

// The characters that iPrtMem shows as themselves.
bool PrtShown(unsigned char c) {
  return c == ' ' || (c >= '!' && c <= '-') || (c >= '/' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         c == '\\' || c == '_' || c == '~';
}

char trace_str[kTraceStrSize];

}  // namespace

void iPrtMem(const void* pAddr, unsigned int lSize, const char* pTitle) {
  printf("%-61s 0x%.6x (%.5u)\n", pTitle != nullptr ? pTitle : "", lSize, lSize);
  if (pAddr == nullptr) return;
  const auto* base = static_cast<const unsigned char*>(pAddr);
  unsigned offset = 0;
  while (offset < lSize) {
    const unsigned n = lSize - offset < kBytesPerLine ? lSize - offset : kBytesPerLine;
    const unsigned char* piece = base + offset;
    char head[64];
    snprintf(head, sizeof head, "  0x%.8lx (%.6x)  >",
             static_cast<unsigned long>(reinterpret_cast<uintptr_t>(piece)), offset);
    std::string line = head;
    for (unsigned i = 0; i < n; ++i) {
      AppendF(line, "%.2x", piece[i]);
      if (i % 4 == 3 && i + 1 < n) line += ' ';
    }
    line += '<';
    if (line.size() < static_cast<size_t>(kPrtCharColumn)) line.resize(kPrtCharColumn, ' ');
    line += '>';
    offset += n;
    while (lSize - offset >= static_cast<unsigned>(kBytesPerLine) &&
           SameLine(piece, base + offset)) {
      offset += kBytesPerLine;
      line[kPrtMarkColumn] = '=';
    }
    for (unsigned i = 0; i < n; ++i)
      line += PrtShown(piece[i]) ? static_cast<char>(piece[i]) : '.';
    line += '<';
    printf("%s\n", line.c_str());
  }
}

int ZUMEM_Trace(const char* id, const void* addr, int len) {
  PrintTraceHeading(id, addr, len);
  TraceBody(addr, len, [](const std::string& line) { printf("%s", line.c_str()); });
  return 0;
}

void MemTrace(const char* id, const void* Area, int Length) {
  ZUMEM_Trace(id, Area, Length);
}

void FormMemTrace(const char* id, const void* Area, int Length) {
  char title[256];
  snprintf(title, sizeof title, "%40s : ", id != nullptr ? id : "");
  ZUMEM_Trace(title, Area, Length);
}

char* ZUMEM_TraceStr(const char* id, const void* addr, int len) {
  PrintTraceHeading(id, addr, len);
  trace_str[0] = '\0';
  TraceBody(addr, len, [](const std::string& line) {
    snprintf(trace_str, sizeof trace_str, "%s", line.c_str());
  });
  return trace_str;
}

char* GetMemTrace(const unsigned char* iPtr, int iLen, char* oPtr, int oLen) {
  if (oPtr == nullptr || oLen <= 0) return oPtr;
  memset(oPtr, 0, static_cast<size_t>(oLen));
  if (iPtr == nullptr) return oPtr;
  int used = 0;
  for (int i = 0; i < iLen && used <= oLen - 4; ++i) {
    if (i > 0 && i % 4 == 0) oPtr[used++] = ' ';
    snprintf(oPtr + used, 3, "%.2X", iPtr[i]);
    used += 2;
  }
  return oPtr;
}

int GetRestField(const char* rest_area, int rest_len, char search, char* result,
                 unsigned int retSize) {
  if (rest_area == nullptr || result == nullptr) return 0;
  int pos = 0;
  while (pos + 2 < rest_len) {
    const char code = rest_area[pos];
    if (rest_area[pos + 1] != '=') return 0;
    const char delim = rest_area[pos + 2];
    const bool wanted = code == search;
    unsigned copied = 0;
    int i = pos + 3;
    for (; i < rest_len && rest_area[i] != delim; ++i) {
      if (!wanted) continue;
      if (copied == retSize) break;
      result[copied++] = rest_area[i];
    }
    if (wanted && (copied == retSize || i < rest_len)) {
      result[copied] = '\0';
      return 1;
    }
    if (i >= rest_len) {
      if (wanted) result[copied] = '\0';
      return 0;
    }
    pos = i + 1;
  }
  return 0;
}

int GetAttribute(const char* Area, int /*Length*/, const char* search, char* result,
                 unsigned int retSize) {
  if (result == nullptr || retSize == 0) return 0;
  result[0] = '\0';
  if (Area == nullptr || search == nullptr) return 0;
  const char* match = strstr(Area, search);
  if (match == nullptr) return 0;
  const char* eq = strchr(match, '=');
  if (eq == nullptr) return 0;
  unsigned n = 0;
  for (const char* p = eq + 1; *p != '\0' && *p != ',' && n + 1 < retSize; ++p)
    result[n++] = *p;
  result[n] = '\0';
  return n > 0 ? 1 : 0;
}
