// Points in time as the program keeps them, and their texts.
#pragma once

#include <cstdint>
#include <string>

namespace trabex {

// Days since 30 December 1899, 00:00, with the time of day as the fraction. Whether it is local or universal
// time is said where one is kept; universal time is local time plus the time-zone bias.
using DateTime = double;

inline constexpr double kSecondsPerDay = 86400.0;
inline constexpr double kMinutesPerDay = 1440.0;
// 1 January 1970, 00:00.
inline constexpr DateTime kUnixEpoch = 25569.0;

// A point in time in calendar fields.
struct CalendarTime {
  int year = 1899;  // four digits
  int month = 12;   // 1 to 12
  int day = 30;     // 1 to 31
  int weekday = 6;  // 0 is Sunday
  int hour = 0;     // 0 to 23
  int minute = 0;   // 0 to 59
  int second = 0;   // 0 to 59
};

// The calendar fields of `time`, rounded to the nearest second. Meant for years 100 to 9999.
CalendarTime ToCalendar(DateTime time);

// The seconds since 1 January 1970 as a date-time, with microseconds as the fraction of a second (0 to
// 999999).
DateTime FromUnix(std::int64_t seconds, int microseconds);

// The milliseconds since 1 January 1970.
std::int64_t ToUnixMilliseconds(DateTime time);

// `local` as an RFC 822 date-time with a numeric zone: "Sun, 15 Nov 2026 16:54:24 +0300". `bias_minutes` is
// universal minus local time; the sign is "+" only for a negative bias, so universal time itself ends in
// "-0000".
std::string FormatRFCDate(DateTime local, int bias_minutes);
// "dd/mm/yy hh:mm:ss", the time stamp of a log line.
std::string FormatLogStamp(DateTime local);
// "dd/mm/yyyy hh:mm:ss", the form in messages.
std::string FormatGeneralDate(DateTime local);
// "yymmdd", the date in a log file's name.
std::string FormatFileDate(DateTime local);
// "hh:mm:ss" of a span in days; the hours are those within the day (0 to 23). A negative span, and one that
// is no number, counts as 0.
std::string FormatDuration(double days);

}  // namespace trabex
