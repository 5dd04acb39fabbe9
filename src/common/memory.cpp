// Memory helpers: never-null allocation, pointer-clearing free, copies into fresh areas.
#include "common/memory.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void* MemAllocRetArea(size_t msgLength) {
  // calloc(1, 0) may legally give null; one byte keeps the "never null" promise for 0 bytes.
  void* area = calloc(1, msgLength == 0 ? 1 : msgLength);
  if (area == nullptr) {
    printf(kMemAllocFailureFormat, strerror(errno));
    exit(1);  // flushes standard output
  }
  return area;
}

void FreeMallocArea(void** fArea, const char* /*Text*/) {
  if (fArea == nullptr || *fArea == nullptr) return;
  free(*fArea);
  *fArea = nullptr;
}

char* MemCopy(const char* Was, int Length) {
  errno = 0;
  const size_t n = Length > 0 ? static_cast<size_t>(Length) : 0;
  char* area = static_cast<char*>(MemAllocRetArea(n + 2));
  if (Was != nullptr && n > 0) memcpy(area, Was, n);
  return area;
}

char* mem_alloc_copy(char* dst, const char* src, int len) {
  free(dst);
  const size_t n = len > 0 ? static_cast<size_t>(len) : 0;
  char* area = static_cast<char*>(malloc(n + 2));
  if (area == nullptr) return nullptr;
  if (src != nullptr) {
    memcpy(area, src, n);
  } else {
    memset(area, 0, n);
  }
  area[n] = '\0';
  area[n + 1] = '\0';
  return area;
}
