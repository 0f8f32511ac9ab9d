#include "base/date_time.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "support/calendar.h"

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

TEST(DateTime, EveryDayFollowsTheOneBefore) {
  CalendarTime before = ToCalendar(At(1899, 12, 31, 12, 0, 0));
  for (int day = 2; day < 90000; ++day) {
    const CalendarTime time = ToCalendar(day + 0.5);
    ASSERT_EQ(time.weekday, (before.weekday + 1) % 7) << day;
    if (time.day != 1) {
      ASSERT_EQ(time.day, before.day + 1) << day;
    } else if (time.month != 1) {
      ASSERT_EQ(time.month, before.month + 1) << day;
    } else {
      ASSERT_EQ(time.year, before.year + 1) << day;
    }
    ASSERT_EQ(FromCalendar(time), day + 0.5);
    before = time;
  }
  EXPECT_EQ(before.year, 2146);
}

TEST(DateTime, LeapYearsAndFarYears) {
  for (int year : {1600, 2000, 2024}) EXPECT_EQ(ToCalendar(At(year, 2, 28, 0, 0, 0) + 1).month, 2) << year;
  for (int year : {100, 1900, 2023, 9999})
    EXPECT_EQ(ToCalendar(At(year, 2, 28, 0, 0, 0) + 1).month, 3) << year;
  EXPECT_EQ(ToCalendar(At(9999, 12, 31, 23, 59, 59)).year, 9999);
  EXPECT_EQ(ToCalendar(At(1899, 12, 29, 6, 0, 0)).day, 29);
  EXPECT_EQ(ToCalendar(At(1899, 12, 29, 6, 0, 0)).hour, 6);
}

TEST(DateTime, IsRoundedToTheNearestSecond) {
  const DateTime time = At(2026, 12, 31, 23, 59, 59);
  EXPECT_EQ(FormatGeneralDate(time + 0.4 / kSecondsPerDay), "31/12/2026 23:59:59");
  EXPECT_EQ(FormatGeneralDate(time + 0.6 / kSecondsPerDay), "01/01/2027 00:00:00");
  EXPECT_EQ(FormatFileDate(time + 0.6 / kSecondsPerDay), "270101");
  // No second of a day is lost or doubled on the way to days and back.
  for (int second = 0; second < 86400; ++second) {
    const CalendarTime back = ToCalendar(FromUnix(1794700800 + second, 0));
    ASSERT_EQ(back.hour * 3600 + back.minute * 60 + back.second, second);
  }
}

TEST(DateTime, NumbersThatAreNoTimeGiveSomeText) {
  // Such as a damaged file may hold.
  for (double time : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300, -1e300, 1e15, -1e6}) {
    EXPECT_FALSE(FormatGeneralDate(time).empty());
    EXPECT_FALSE(FormatRFCDate(time, 60).empty());
    EXPECT_EQ(FormatDuration(time).size(), 8U) << time;
  }
}

TEST(RFCDate, NamesEveryDayAndMonth) {
  const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int day = 0; day < 7; ++day) {
    // 15 November 2026 is a Sunday.
    EXPECT_EQ(FormatRFCDate(At(2026, 11, 15 + day, 0, 0, 0), 0).substr(0, 5), std::string(days[day]) + ", ");
  }
  for (int month = 1; month <= 12; ++month) {
    EXPECT_EQ(FormatRFCDate(At(2026, month, 1, 0, 0, 0), 0).substr(8, 3), months[month - 1]);
  }
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
  EXPECT_EQ(FormatDuration(86399.4 / kSecondsPerDay), "23:59:59");
  EXPECT_EQ(FormatDuration(86399.6 / kSecondsPerDay), "00:00:00");
  EXPECT_EQ(FormatDuration(5 / kMinutesPerDay), "00:05:00");
}

TEST(DateTime, HasMillisecondsSince1970) {
  EXPECT_EQ(ToUnixMilliseconds(FromUnix(1795010064, 123000)), 1795010064123);
  EXPECT_EQ(ToUnixMilliseconds(kUnixEpoch), 0);
}

}  // namespace
}  // namespace trabex
