// Command execution with scrambled passwords.
#include "messenger/command_exec.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/memory.h"
#include "common/trace_log.h"
#include "scramble/scramble.h"

namespace {

constexpr size_t kMarkerLen = 4;
constexpr size_t kPasswordArea = 256;
static_assert(kMarkerLen + kCmdPasswordDigitsMax + 1 == kPasswordArea);

bool is_marker(std::string_view s) {
  return s.size() >= kMarkerLen && (s.substr(0, kMarkerLen) == "--10" || s.substr(0, kMarkerLen) ==
                                                                             "\xAD\xAD"
                                                                             "10");
}

}  // namespace

size_t expandCmd(std::string_view command, char* result) {
  char password[kPasswordArea];
  char clear[kPasswordArea];
  size_t out = 0;
  size_t i = 0;
  while (i < command.size()) {
    if (!is_marker(command.substr(i))) {
      result[out++] = command[i++];
      continue;
    }
    memcpy(password, command.data() + i, kMarkerLen);
    i += kMarkerLen;
    size_t n = kMarkerLen;
    while (i < command.size() && n < kMarkerLen + kCmdPasswordDigitsMax &&
           isxdigit(static_cast<unsigned char>(command[i]))) {
      const char c = command[i++];
      password[n++] = (c >= 'a' && c <= 'f') ? static_cast<char>(c - 'a' + 'A') : c;
    }
    password[n] = '\0';
    // Clear text of at most 8 bytes per 16 digits, or the password as it stands: either way
    // no longer than what it replaces, and terminated inside the zeroed area.
    memset(clear, 0, sizeof clear);
    ZUSTRNG_DeMaxim2(clear, password, kCommandPasswordKey);
    const size_t len = strnlen(clear, sizeof clear);
    memcpy(result + out, clear, len);
    out += len;
  }
  result[out] = '\0';
  explicit_bzero(password, sizeof password);
  explicit_bzero(clear, sizeof clear);
  return out;
}

int processCmd(PCX* pcx) {
  QX_TRACE("%s(cmd=%s) -->", __func__, pcx->pCmdBuffer);
  const size_t len = strnlen(pcx->pCmdBuffer, sizeof pcx->pCmdBuffer - 1);
  char* pBuff1 = static_cast<char*>(MemAllocRetArea(len + 4));
  char* pBuff2 = static_cast<char*>(MemAllocRetArea(len + 4));
  memcpy(pBuff1, pcx->pCmdBuffer, len);
  expandCmd(std::string_view(pBuff1, len), pBuff2);

  // What was traced so far comes before the command's own output.
  fflush(stdout);
  errno = 0;
  const int result = system(pBuff2);
  if (errno != 0 && trc_level()) {
    const int err = errno;
    __trace_text(0, "%s:      error '%d/%s', result %i", __func__, err, strerror(err), result);
  }
  // The result holds the clear passwords.
  explicit_bzero(pBuff2, len + 4);
  FreeMallocArea(reinterpret_cast<void**>(&pBuff1), "pBuff1");
  FreeMallocArea(reinterpret_cast<void**>(&pBuff2), "pBuff2");
  QX_TRACE("%s <-- (result=%d)", __func__, result);
  return result;
}
