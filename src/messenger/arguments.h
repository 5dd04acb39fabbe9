// The messenger's command line: KEY=value arguments read into the context.
//
// Ownership: writes only into the caller's context (and the global trace switch).
// Threads: main thread only, before any other thread exists.
#ifndef QX_MESSENGER_ARGUMENTS_H_
#define QX_MESSENGER_ARGUMENTS_H_

#include "messenger/context.h"

// Reads argv[1] to argv[argc-1] into `pcx` and returns 0. Nothing is rejected: unknown keys
// are ignored, missing values give empty texts, NUL characters and 0 numbers, too long texts
// are cut to their fields. A `CMD` argument runs its command at once and ends the process
// (exit status 0 when the command's result was 0, else 1); later arguments are not read.
int parse_arguments(PCX* pcx, int argc, char** argv);

#endif  // QX_MESSENGER_ARGUMENTS_H_
