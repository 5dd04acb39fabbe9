// Command execution: runs the command of a `CMD` argument through the system's command
// interpreter, with every scrambled password in it first turned back into clear text.
//
// A scrambled password is a marker, "--10" or the bytes 0xAD 0xAD followed by "10", and the
// hexadecimal digits behind it (at most 251, in either case); it is unscrambled with the key
// kCommandPasswordKey (scramble/scramble.h). The clear command is never traced or printed.
//
// Ownership: the command is read from the context; work areas live for the call only and are
// cleared before they are freed. Threads: main thread only (the codec's key state is
// process-wide).
#ifndef QX_MESSENGER_COMMAND_EXEC_H_
#define QX_MESSENGER_COMMAND_EXEC_H_

#include <stddef.h>

#include <string_view>

#include "messenger/context.h"

// Longest run of digits taken behind a marker: the password area holds the 4 marker bytes,
// these digits and a terminator. Further digits stay in the command as they are written.
inline constexpr int kCmdPasswordDigitsMax = 251;

// Writes `command` into `result` with every scrambled password replaced by its clear text,
// and returns the length of the result, which is NUL-terminated and never longer than the
// command; `result` needs command.size() + 1 bytes. The digits behind a marker are
// upper-cased; a password that the codec does not take (a wrong number of digits, for
// example) stays in the command that way, and a marker without digits is removed.
// Runs nothing.
size_t expandCmd(std::string_view command, char* result);

// Runs `pcx->pCmdBuffer`, expanded by expandCmd, with `system` and returns its result: 0 when
// the command ran and ended with status 0, otherwise the wait status, or -1 when no
// interpreter could be started.
int processCmd(PCX* pcx);

#endif  // QX_MESSENGER_COMMAND_EXEC_H_
