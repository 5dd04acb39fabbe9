// The messenger driver: one run of qx_jpmd from the prepared context to its exit status.
//
// Ownership: the run uses the process's one context `spcx` (through `pcx`).
// Threads: main thread only.
#ifndef QX_MESSENGER_DRIVER_H_
#define QX_MESSENGER_DRIVER_H_

#include "messenger/context.h"

// Clears the context, sets its defaults and makes SIGUSR1 harmless for the calling thread.
// 0, or -1 when a signal call failed.
int initialize_messenger(PCX* pcx);

// The handler for SIGUSR1: does nothing (a SIGUSR1 from outside only interrupts a blocking
// call instead of ending the process).
void signal_handler_common(int signalID);

// Runs the messenger for the command line and returns the process's exit status: 0 after a
// lone "-V" (which prints the version line), the usage text's status when the command line
// asks for it (no argument: 2; a lone "--help" or "-h": 0), the job's return code for an end
// event, else 0.
// Does not return after a `CMD` argument (the process exits there).
int run_messenger(int argc, char** argv);

#endif  // QX_MESSENGER_DRIVER_H_
