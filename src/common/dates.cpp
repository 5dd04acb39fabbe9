// Date and time: clock reading, local/UTC break-down and the text time stamp.
#include "common/dates.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "common/strutil.h"

namespace {

// Writes the time stamp text of the local half of `dt`, with milliseconds when `with_ms`.
void FormatStamp(DATUM_BUFF* dt, bool with_ms) {
  // Formatted into a wider area first: the fields are shorts, and the compiler cannot know
  // that they hold calendar values only.
  char text[96];
  if (with_ms) {
    snprintf(text, sizeof text, "%.4d%.2d%.2d/%.2d%.2d%.2d.%.3d", dt->dt_jahr, dt->dt_mon,
             dt->dt_tag, dt->dt_std, dt->dt_min, dt->dt_sek, dt->dt_msek);
  } else {
    snprintf(text, sizeof text, "%.4d%.2d%.2d/%.2d%.2d%.2d", dt->dt_jahr, dt->dt_mon, dt->dt_tag,
             dt->dt_std, dt->dt_min, dt->dt_sek);
  }
  StringCopy(dt->dt_xdat, sizeof dt->dt_xdat, text);
}

DATUM_BUFF own_datum;
char own_dtchar[32];
char own_hhmmss[64];

}  // namespace

time_t GetElapsedTime(int* usec) {
  if (usec != nullptr) *usec = -1;
  struct timeval tv;
  if (gettimeofday(&tv, nullptr) != 0) return time(nullptr);
  if (usec != nullptr) *usec = static_cast<int>(tv.tv_usec);
  return tv.tv_sec;
}

void GetDatumZeit2(void* eT, DATUM_BUFF* dt) {
  memset(dt, 0, sizeof *dt);
  int usec = -1;
  if (eT != nullptr) {
    memcpy(&dt->dt_time, eT, sizeof dt->dt_time);
  } else {
    dt->dt_time = GetElapsedTime(&usec);
  }
  const bool known = usec >= 0;
  const short msek = known ? static_cast<short>(usec / 1000) : 0;
  const short usek = known ? static_cast<short>(usec % 1000) : 0;

  struct tm tm;
  memset(&tm, 0, sizeof tm);
  localtime_r(&dt->dt_time, &tm);
  dt->dt_jahr = static_cast<short>(tm.tm_year + 1900);
  dt->dt_mon = static_cast<short>(tm.tm_mon + 1);
  dt->dt_tag = static_cast<short>(tm.tm_mday);
  dt->dt_std = static_cast<short>(tm.tm_hour);
  dt->dt_min = static_cast<short>(tm.tm_min);
  dt->dt_sek = static_cast<short>(tm.tm_sec);
  dt->dt_msek = msek;
  dt->dt_usek = usek;
  FormatStamp(dt, known);

  memset(&tm, 0, sizeof tm);
  gmtime_r(&dt->dt_time, &tm);
  dt->utc_jahr = static_cast<short>(tm.tm_year + 1900);
  dt->utc_mon = static_cast<short>(tm.tm_mon + 1);
  dt->utc_tag = static_cast<short>(tm.tm_mday);
  dt->utc_std = static_cast<short>(tm.tm_hour);
  dt->utc_min = static_cast<short>(tm.tm_min);
  dt->utc_sek = static_cast<short>(tm.tm_sec);
  dt->utc_msek = msek;
  dt->utc_usek = usek;
}

void GetDtChar2(void* eT, char* xData, int Length) {
  DATUM_BUFF dt;
  GetDatumZeit2(eT, &dt);
  // The area size handed on is one less than the caller's: at most Length - 2 characters.
  if (Length < 1) return;
  StringCopy(xData, Length - 1, dt.dt_xdat);
}

DATUM_BUFF* GetDatumZeit(void* eT) {
  GetDatumZeit2(eT, &own_datum);
  return &own_datum;
}

char* GetDtChar(void* eT) {
  DATUM_BUFF* dt = GetDatumZeit(eT);
  StringCopy(own_dtchar, sizeof own_dtchar, dt->dt_xdat);
  return own_dtchar;
}

int GetUsec(struct timeval* tv_s, int flag) {
  if (tv_s == nullptr) return 0;
  struct timeval now;
  if (gettimeofday(&now, nullptr) != 0) {
    now.tv_sec = time(nullptr);
    now.tv_usec = 0;
  }
  int result = 0;
  if (flag != 0) {
    // 32-bit signed arithmetic, done in unsigned to wrap without undefined behaviour.
    const unsigned secs = static_cast<unsigned>(now.tv_sec - tv_s->tv_sec);
    const unsigned us =
        secs * 1000000u + static_cast<unsigned>(now.tv_usec) - static_cast<unsigned>(tv_s->tv_usec);
    result = static_cast<int>(us);
  }
  *tv_s = now;
  return result;
}

int CreateCharUtcTime(MSG_TYPE_TIMESTAMP* ZeitStamp) {
  if (ZeitStamp->jjjj == 0) return 0;
  struct tm tm;
  memset(&tm, 0, sizeof tm);
  tm.tm_sec = ZeitStamp->ss;
  tm.tm_min = ZeitStamp->mi;
  tm.tm_hour = ZeitStamp->hh;
  tm.tm_mday = ZeitStamp->tt;
  tm.tm_mon = ZeitStamp->mo - 1;
  tm.tm_year = ZeitStamp->jjjj - 1900;
  tm.tm_isdst = 0;
  errno = 0;
  const time_t t = mktime(&tm);
  if (t == static_cast<time_t>(-1)) return -1;
  struct tm utc;
  if (gmtime_r(&t, &utc) == nullptr) return -1;
  ZeitStamp->jjjj = static_cast<short>(utc.tm_year + 1900);
  ZeitStamp->mo = static_cast<short>(utc.tm_mon + 1);
  ZeitStamp->tt = static_cast<short>(utc.tm_mday);
  ZeitStamp->hh = static_cast<short>(utc.tm_hour);
  ZeitStamp->mi = static_cast<short>(utc.tm_min);
  ZeitStamp->ss = static_cast<short>(utc.tm_sec);
  return 0;
}

void sec2hhmmss3(int psec, char* pWork, int wLen) {
  if (pWork == nullptr || wLen < 1) return;
  snprintf(pWork, static_cast<size_t>(wLen), "%.2d:%.2d:%.2d", psec / 3600, (psec % 3600) / 60,
           (psec % 3600) % 60);
}

char* sec2hhmmss(int psec, char* work) {
  // Every int fits in 16 bytes: "-596523:-14:-08" is the widest text.
  sec2hhmmss3(psec, work, 16);
  return work;
}

char* sec2hhmmss2(int psec) {
  sec2hhmmss3(psec, own_hhmmss, sizeof own_hhmmss);
  return own_hhmmss;
}

long long MonotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMs(long long ms) {
  if (ms <= 0) return;
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}
