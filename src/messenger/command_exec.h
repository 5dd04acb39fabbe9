// Command execution: runs the command of a `CMD` argument through the system's command
// interpreter.
//
// Ownership: the command is read from the context; work areas live for the call only.
// Threads: main thread only.
#ifndef QX_MESSENGER_COMMAND_EXEC_H_
#define QX_MESSENGER_COMMAND_EXEC_H_

#include "messenger/context.h"

// Runs `pcx->pCmdBuffer` with `system` and returns its result: 0 when the command ran and
// ended with status 0, otherwise the wait status, or -1 when no interpreter could be started.
int processCmd(PCX* pcx);

#endif  // QX_MESSENGER_COMMAND_EXEC_H_
