// Date and time: the one place where the system reads the clock and breaks a moment down
// into local and UTC calendar fields with milliseconds, plus the text time stamp
// "YYYYMMDD/HHMMSS.mmm" that trace lines, dump headings and reports carry.
//
// Ownership: every operation writes into the caller's areas, except `GetDatumZeit`,
// `GetDtChar` and `sec2hhmmss2`, which return areas of this module that the next call
// overwrites.
//
// Threads: `GetDatumZeit2`, `GetElapsedTime`, `GetDtChar2`, `GetUsec`, `CreateCharUtcTime`,
// `sec2hhmmss` and `sec2hhmmss3` keep no state and may run in several threads at once.
// `GetDatumZeit`, `GetDtChar` and `sec2hhmmss2` are for one thread only.
#ifndef QX_COMMON_DATES_H_
#define QX_COMMON_DATES_H_

#include <sys/time.h>
#include <time.h>

// The broken-down time: local fields, UTC fields of the same moment, and the local time stamp.
typedef struct _dt {
  time_t dt_time;  // seconds since 1970-01-01 00:00 UTC
  short dt_jahr;   // local year, four digits
  short dt_mon;    // local month, 1 to 12
  short dt_tag;    // local day of month
  short dt_std;    // local hour
  short dt_min;
  short dt_sek;
  short dt_msek;  // milliseconds, 0 when not known
  short dt_usek;  // microseconds within the millisecond, 0 when not known
  int dt_nsek;    // always 0
  short utc_jahr;
  short utc_mon;
  short utc_tag;
  short utc_std;
  short utc_min;
  short utc_sek;
  short utc_msek;    // same value as dt_msek
  short utc_usek;    // same value as dt_usek
  int utc_nsek;      // always 0
  char dt_xdat[32];  // "YYYYMMDD/HHMMSS.mmm", or "YYYYMMDD/HHMMSS" without a sub-second value
} DATUM_BUFF;

// The time stamp carried in messages.
typedef struct _msg_type_timestamp {
  short jjjj;  // year
  short mo;    // month 1 to 12
  short tt;    // day
  short hh;
  short mi;
  short ss;
  int ns;  // nanoseconds
} MSG_TYPE_TIMESTAMP;

// Fills `dt` for the time_t at `eT` (sub-second value unknown), or for now when `eT` is null.
void GetDatumZeit2(void* eT, DATUM_BUFF* dt);

// Seconds now; `*usec` (when given) gets the microseconds, or -1 when the clock could only be
// read in whole seconds.
time_t GetElapsedTime(int* usec);

// Milliseconds on the monotonic clock, for deadlines: never set back, whatever the wall clock
// does.
long long MonotonicMs();

// Sleeps `ms` milliseconds (none for 0 or less); a signal does not shorten the pause.
void SleepMs(long long ms);

// The local time stamp text of `eT` (or now) into `xData`; `Length` less two characters at
// most, always terminated.
void GetDtChar2(void* eT, char* xData, int Length);

// As GetDatumZeit2, into a record of this module's own.
DATUM_BUFF* GetDatumZeit(void* eT);

// The time stamp text of `eT` (or now) in a 32-byte area of this module's own.
char* GetDtChar(void* eT);

// Stopwatch: with `flag` not 0 the microseconds since `*tv_s` (32-bit arithmetic), else 0;
// `*tv_s` is then set to now. A null `tv_s` gives 0.
int GetUsec(struct timeval* tv_s, int flag);

// Converts the local time in `ZeitStamp` to UTC in place (daylight saving time taken as not
// in effect). 0 when done or when the year is 0, -1 when the time cannot be converted.
int CreateCharUtcTime(MSG_TYPE_TIMESTAMP* ZeitStamp);

// `psec` as "hh:mm:ss" (hours may have more digits) into `work`; returns `work`. The caller's
// area must hold the text (16 bytes hold every int).
char* sec2hhmmss(int psec, char* work);

// The same in a 64-byte area of this module's own.
char* sec2hhmmss2(int psec);

// The same into `pWork`, at most `wLen` bytes, terminator included.
void sec2hhmmss3(int psec, char* pWork, int wLen);

#endif  // QX_COMMON_DATES_H_
