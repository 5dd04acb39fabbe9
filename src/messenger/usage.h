// The messenger's usage text, printed when a command line asks for help instead of an event.
//
// Ownership: the text is a constant of the program.
// Threads: main thread only, before any other thread exists.
#ifndef QX_MESSENGER_USAGE_H_
#define QX_MESSENGER_USAGE_H_

// The usage text: the keys (one "  KEY=" line each), the exit statuses and the manual page.
extern const char kUsageText[];

// When the command line asks for usage (no argument at all, or exactly "--help" or "-h"),
// prints the usage text on standard output and returns the exit status: 2 without arguments,
// 0 for a request. Returns -1 and prints nothing for every other command line.
int answer_usage(int argc, char** argv);

#endif  // QX_MESSENGER_USAGE_H_
