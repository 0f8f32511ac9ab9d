#include "base/date_time.h"

#include <gtest/gtest.h>

namespace trabex {
namespace {

DateTime At(int year, int month, int day, int hour, int minute, int second) {
  return FromCalendar(
      {.year = year, .month = month, .day = day, .hour = hour, .minute = minute, .second = second});
}

TEST(DateTime, CountsFromTheEndOf1899) {
  EXPECT_DOUBLE_EQ(At(1899, 12, 30, 0, 0, 0), 0.0);
  EXPECT_DOUBLE_EQ(At(1970, 1, 1, 12, 0, 0), 25569.5);
  EXPECT_DOUBLE_EQ(FromUnix(86400, 500000), 25570.0 + 0.5 / 86400);
}

TEST(DateTime, CalendarFieldsComeBack) {
  for (int year : {1900, 1970, 1999, 2000, 2024, 2026, 2100}) {
    for (int month = 1; month <= 12; ++month) {
      const CalendarTime time = ToCalendar(At(year, month, 28, 23, 59, 59));
      EXPECT_EQ(time.year, year);
      EXPECT_EQ(time.month, month);
      EXPECT_EQ(time.day, 28);
      EXPECT_EQ(time.hour, 23);
      EXPECT_EQ(time.minute, 59);
      EXPECT_EQ(time.second, 59);
    }
  }
  EXPECT_EQ(ToCalendar(At(2024, 2, 29, 0, 0, 0)).day, 29);
  EXPECT_EQ(ToCalendar(At(2024, 2, 29, 0, 0, 0) + 1).month, 3);
}

TEST(RFCDate, HasANumericZone) {
  const DateTime time = At(2026, 11, 15, 16, 54, 24);
  EXPECT_EQ(FormatRFCDate(time, -180), "Sun, 15 Nov 2026 16:54:24 +0300");
  EXPECT_EQ(FormatRFCDate(time, 0), "Sun, 15 Nov 2026 16:54:24 -0000");
  EXPECT_EQ(FormatRFCDate(time, 210), "Sun, 15 Nov 2026 16:54:24 -0330");
  EXPECT_EQ(FormatRFCDate(At(2026, 1, 5, 4, 3, 2), 60), "Mon, 05 Jan 2026 04:03:02 -0100");
}

TEST(DateTexts, AreOfFixedForm) {
  const DateTime time = At(2026, 11, 5, 3, 4, 9);
  EXPECT_EQ(FormatLogStamp(time), "05/11/26 03:04:09");
  EXPECT_EQ(FormatGeneralDate(time), "05/11/2026 03:04:09");
  EXPECT_EQ(FormatFileDate(time), "261105");
}

TEST(Duration, ShowsHoursWithinTheDay) {
  EXPECT_EQ(FormatDuration(0), "00:00:00");
  EXPECT_EQ(FormatDuration(3661 / kSecondsPerDay), "01:01:01");
  EXPECT_EQ(FormatDuration(1.5), "12:00:00");
  EXPECT_EQ(FormatDuration(-1), "00:00:00");
}

}  // namespace
}  // namespace trabex
