// Command execution: runs the command of a `CMD` argument through the system's command
// interpreter, with every scrambled password in it first turned back into clear text.
//
// A scrambled password is a marker, "--10" or the bytes 0xAD 0xAD followed by "10", and the
// hexadecimal digits behind it (at most 251, in either case); it is unscrambled with the key
// kCommandPasswordKey (scramble/scramble.h). The clear text is quoted for the place where the
// marker stands, so that the shell takes it as one literal piece of its word (see
// command_exec.cpp for the rules). The clear command is never traced or printed, and never
// stands on a command line: the shell reads it as its script from an anonymous memory file.
//
// Ownership: the command is read from the context; work areas live for the call only and are
// wiped before they are freed. Threads: main thread only (the codec's key state is
// process-wide).
#ifndef QX_MESSENGER_COMMAND_EXEC_H_
#define QX_MESSENGER_COMMAND_EXEC_H_

#include <stddef.h>

#include <string_view>

#include "messenger/context.h"

// Longest run of digits taken behind a marker: the password area holds the 4 marker bytes,
// these digits and a terminator. Further digits stay in the command as they are written.
inline constexpr int kCmdPasswordDigitsMax = 251;

// Bytes that expandCmd needs for a command of `len` bytes, terminator included. A password
// of b blocks takes 4 + 16b bytes of the command and at most 8b clear bytes, which quoting
// makes at most 32b + 5 bytes: the result is never twice as long as the command.
constexpr size_t ExpandedCmdSize(size_t len) {
  return 2 * len + 16;
}

// Writes `command` into `result` (`size` bytes) with every scrambled password replaced by its
// clear text, quoted for where it stands, and NUL-terminates it. Returns 0 and the length in
// `*result_len`; or -1 when a clear text cannot be carried where its marker stands, or
// `result` is too small: `result` is then wiped. The digits behind a marker are upper-cased;
// a password that the codec does not take (a wrong number of digits, for example) stays in
// the command that way, and a marker without digits is removed. A command without markers
// comes back unchanged. Runs nothing.
int expandCmd(std::string_view command, char* result, size_t size, size_t* result_len);

// Runs `pcx->pCmdBuffer`, expanded by expandCmd, with the system's command interpreter and
// returns its result: 0 when the command ran and ended with status 0, otherwise the wait
// status, or -1 when no interpreter could be started or the command was refused (a message
// on standard output says so, without the clear text).
int processCmd(PCX* pcx);

#endif  // QX_MESSENGER_COMMAND_EXEC_H_
