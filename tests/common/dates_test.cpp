// Time stamp text, the local/UTC split under a chosen time zone and the time utilities.
#include "common/dates.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

// Sets TZ for one test and restores the previous value afterwards.
class TimeZone {
 public:
  explicit TimeZone(const char* tz) {
    const char* old = getenv("TZ");
    had_ = old != nullptr;
    if (had_) old_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~TimeZone() {
    if (had_) {
      setenv("TZ", old_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool had_ = false;
  std::string old_;
};

TEST(GetDatumZeit2, EpochInUtc) {
  TimeZone tz("UTC0");
  time_t t = 0;
  DATUM_BUFF dt;
  memset(&dt, 0x5A, sizeof dt);
  GetDatumZeit2(&t, &dt);
  EXPECT_EQ(dt.dt_jahr, 1970);
  EXPECT_EQ(dt.dt_mon, 1);
  EXPECT_EQ(dt.dt_tag, 1);
  EXPECT_EQ(dt.dt_std + dt.dt_min + dt.dt_sek + dt.dt_msek + dt.dt_usek, 0);
  EXPECT_EQ(dt.utc_jahr, 1970);
  EXPECT_EQ(dt.utc_mon, 1);
  EXPECT_EQ(dt.utc_tag, 1);
  EXPECT_EQ(dt.utc_std + dt.utc_min + dt.utc_sek + dt.utc_msek, 0);
  EXPECT_EQ(dt.dt_nsek, 0);
  EXPECT_EQ(dt.utc_nsek, 0);
  EXPECT_STREQ(dt.dt_xdat, "19700101/000000");
}

TEST(GetDatumZeit2, LocalAndUtcDifferEastOfUtc) {
  TimeZone tz("JST-9");  // UTC+9, no daylight saving time
  // 2026-11-22 15:30:05 UTC is 2026-11-23 00:30:05 local.
  time_t t = 1795361405;
  DATUM_BUFF dt;
  GetDatumZeit2(&t, &dt);
  EXPECT_EQ(dt.utc_tag, 22);
  EXPECT_EQ(dt.utc_std, 15);
  EXPECT_EQ(dt.dt_tag, 23);
  EXPECT_EQ(dt.dt_std, 0);
  EXPECT_EQ(dt.dt_min, 30);
  EXPECT_EQ(dt.dt_sek, 5);
  EXPECT_STREQ(dt.dt_xdat, "20261123/003005");
}

TEST(GetDatumZeit2, NowCarriesMilliseconds) {
  DATUM_BUFF dt;
  GetDatumZeit2(nullptr, &dt);
  ASSERT_EQ(strlen(dt.dt_xdat), 19u);
  EXPECT_EQ(dt.dt_xdat[8], '/');
  EXPECT_EQ(dt.dt_xdat[15], '.');
  EXPECT_EQ(atoi(dt.dt_xdat + 16), dt.dt_msek);
  EXPECT_EQ(dt.dt_msek, dt.utc_msek);
  EXPECT_EQ(dt.dt_usek, dt.utc_usek);
  EXPECT_LT(dt.dt_usek, 1000);
  EXPECT_LE(llabs(static_cast<long long>(dt.dt_time - time(nullptr))), 2);
}

TEST(GetDtChar2, CutToLengthLessTwo) {
  TimeZone tz("UTC0");
  time_t t = 0;
  char area[32];
  memset(area, 'X', sizeof area);
  GetDtChar2(&t, area, 10);
  EXPECT_STREQ(area, "19700101");
  GetDtChar2(&t, area, sizeof area);
  EXPECT_STREQ(area, "19700101/000000");
  GetDtChar2(nullptr, area, sizeof area);
  EXPECT_EQ(strlen(area), 19u);
  EXPECT_STREQ(GetDtChar(&t), "19700101/000000");
  EXPECT_EQ(GetDatumZeit(&t)->dt_jahr, 1970);
}

TEST(GetElapsedTime, MicrosecondsInRange) {
  int usec = -2;
  const time_t s = GetElapsedTime(&usec);
  EXPECT_GE(usec, 0);
  EXPECT_LT(usec, 1000000);
  EXPECT_GT(s, 0);
  EXPECT_GT(GetElapsedTime(nullptr), 0);
}

TEST(GetUsec, Stopwatch) {
  EXPECT_EQ(GetUsec(nullptr, 1), 0);
  struct timeval start = {0, 0};
  EXPECT_EQ(GetUsec(&start, 0), 0);
  EXPECT_GT(start.tv_sec, 0);
  struct timeval before = start;
  start.tv_sec -= 2;  // as if started two seconds earlier
  const int us = GetUsec(&start, 1);
  EXPECT_GE(us, 2000000);
  EXPECT_LT(us, 3000000);
  EXPECT_GE(start.tv_sec, before.tv_sec);
}

TEST(CreateCharUtcTime, LocalToUtc) {
  TimeZone tz("CET-1");  // UTC+1, no daylight saving rule
  MSG_TYPE_TIMESTAMP zero = {};
  zero.ns = 7;
  MSG_TYPE_TIMESTAMP copy = zero;
  EXPECT_EQ(CreateCharUtcTime(&copy), 0);
  EXPECT_EQ(memcmp(&copy, &zero, sizeof copy), 0);

  MSG_TYPE_TIMESTAMP ts = {2026, 1, 1, 0, 30, 15, 42};
  EXPECT_EQ(CreateCharUtcTime(&ts), 0);
  EXPECT_EQ(ts.jjjj, 2025);
  EXPECT_EQ(ts.mo, 12);
  EXPECT_EQ(ts.tt, 31);
  EXPECT_EQ(ts.hh, 23);
  EXPECT_EQ(ts.mi, 30);
  EXPECT_EQ(ts.ss, 15);
  EXPECT_EQ(ts.ns, 42);
}

TEST(Sec2hhmmss, Formats) {
  struct {
    int sec;
    const char* text;
  } cases[] = {{59, "00:00:59"},
               {3661, "01:01:01"},
               {360000, "100:00:00"},
               {-61, "00:-01:-01"},
               {0, "00:00:00"}};
  for (const auto& c : cases) {
    char work[16];
    EXPECT_STREQ(sec2hhmmss(c.sec, work), c.text);
    EXPECT_STREQ(sec2hhmmss2(c.sec), c.text);
  }
  char small[6];
  sec2hhmmss3(3661, small, sizeof small);
  EXPECT_STREQ(small, "01:01");
}

}  // namespace
