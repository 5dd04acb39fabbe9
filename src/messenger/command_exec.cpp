// Command execution through the system's command interpreter.
#include "messenger/command_exec.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "common/memory.h"
#include "common/trace_log.h"

int processCmd(PCX* pcx) {
  QX_TRACE("%s(cmd=%s) -->", __func__, pcx->pCmdBuffer);
  const size_t len = strnlen(pcx->pCmdBuffer, sizeof pcx->pCmdBuffer - 1);
  char* command = static_cast<char*>(MemAllocRetArea(len + 4));
  memcpy(command, pcx->pCmdBuffer, len);

  errno = 0;
  const int result = system(command);
  if (errno != 0 && trc_level()) {
    const int err = errno;
    __trace_text(0, "%s:      error '%d/%s', result %i", __func__, err, strerror(err), result);
  }
  FreeMallocArea(reinterpret_cast<void**>(&command), "pBuff2");
  QX_TRACE("%s <-- (result=%d)", __func__, result);
  return result;
}
