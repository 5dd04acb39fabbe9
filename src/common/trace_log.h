// Trace and log output: the one place where the system writes trace lines, report lines,
// hexadecimal dumps and numbered log events.
//
// Everything goes to standard output (the job's log); nothing is ever written to standard
// error. Tracing is one global switch, `trcFlag`, set only from the command line; every trace
// point asks `trc_level()` first and formats nothing while it is 0.
//
// Numbered events (`__log`) are handed to the current logger. The library starts with a
// logger that drops every event; the application installs its own with `__log_set_logger`
// before it starts other threads.
//
// Threads: every function may be called from any thread. Each trace or dump line is written
// with a single formatted-output call, so lines of two threads never mix inside a line.
// `trcFlag` and the logger are set by the main thread before other threads exist.
#ifndef QX_COMMON_TRACE_LOG_H_
#define QX_COMMON_TRACE_LOG_H_

#define QX_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))

// The trace switch: 0 = off, anything else = on.
extern int trcFlag;

typedef int logger_function_t(int msgnr, const char* msginsert);
extern logger_function_t* default_logger;

// Returns trcFlag.
int trc_level(void);

// One trace line "%.8X         %s - %s\n": thread identifier, local time stamp
// (YYYYMMDD/HHMMSS.mmm) and the formatted text (cut to 2047 characters). `_stdout` has no effect.
void __trace_text(int _stdout, const char* text, ...) QX_PRINTF(2, 3);

// One report line: the formatted text (cut to 2047 characters) and "\n"; flushes stdout.
int mprintf(const char* format, ...) QX_PRINTF(1, 2);

// Hexadecimal dump of `len` bytes at `area` under a formatted title.
void trcdump(void* area, int len, const char* format, ...) QX_PRINTF(3, 4);

// Accepted for the callers that limit their dumps; writes nothing.
void trcdump_limited(void* area, int len, int limit, const char* format, ...) QX_PRINTF(4, 5);

// Formats `insert` (cut to 2047 characters) and hands it with `msgnr` to the current logger.
int __log(int msgnr, const char* insert, ...) QX_PRINTF(2, 3);

// Replaces the current logger; a null pointer restores the one that drops every event.
int __log_set_logger(logger_function_t* function_pointer);

// Traces when tracing is on; the arguments are not evaluated otherwise.
#define QX_TRACE(...)                              \
  do {                                             \
    if (trc_level()) __trace_text(0, __VA_ARGS__); \
  } while (0)

#endif  // QX_COMMON_TRACE_LOG_H_
