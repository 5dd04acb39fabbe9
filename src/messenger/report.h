// The job report: what the messenger is about to tell the agent, printed to standard output
// (the job's log) before the agent is contacted.
//
// Ownership: reads the caller's context only.
// Threads: main thread.
#ifndef QX_MESSENGER_REPORT_H_
#define QX_MESSENGER_REPORT_H_

#include "messenger/context.h"

// The framed block of a job status event (start, end, restart, snooze, wake-up). Returns 0.
int printMelder(PCX* pcx);

// The one line of an output file registration followed by an empty line. Returns 0, or -1
// (printing nothing) when no output file is named.
int printOutputViewReport(PCX* pcx);

// The one line of a variable registration; an empty name or value shows as "NULL". Returns 0.
int printRegisteredVariable(PCX* pcx);

// The report for the context's event type: 'O', 'V', or the framed block for any other.
int print_report(PCX* pcx);

#endif  // QX_MESSENGER_REPORT_H_
