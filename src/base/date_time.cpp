#include "base/date_time.h"

#include <array>
#include <cmath>
#include <string_view>

#include "base/text.h"

namespace trabex {

namespace {

// Days between 1 January 1970 and a civil date of the proleptic Gregorian calendar. Years begin in March
// here, so that the leap day is the last day of a year.
std::int64_t DaysFromCivil(int year, int month, int day) {
  const std::int64_t y = month <= 2 ? year - 1 : year;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t year_of_era = y - era * 400;
  const std::int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

void CivilFromDays(std::int64_t days, CalendarTime& time) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t day_of_era = days - era * 146097;
  const std::int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  const std::int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const std::int64_t shifted_month = (5 * day_of_year + 2) / 153;
  time.day = static_cast<int>(day_of_year - (153 * shifted_month + 2) / 5 + 1);
  time.month = static_cast<int>(shifted_month < 10 ? shifted_month + 3 : shifted_month - 9);
  time.year = static_cast<int>(year_of_era + era * 400 + (time.month <= 2 ? 1 : 0));
}

std::string Time(const CalendarTime& time) {
  return ZeroPadded(time.hour, 2) + ":" + ZeroPadded(time.minute, 2) + ":" + ZeroPadded(time.second, 2);
}

}  // namespace

CalendarTime ToCalendar(DateTime time) {
  const auto seconds = static_cast<std::int64_t>(std::llround((time - kUnixEpoch) * kSecondsPerDay));
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  CalendarTime result;
  CivilFromDays(days, result);
  // 1 January 1970 was a Thursday.
  result.weekday = static_cast<int>(((days + 4) % 7 + 7) % 7);
  result.hour = static_cast<int>(rest / 3600);
  result.minute = static_cast<int>(rest / 60 % 60);
  result.second = static_cast<int>(rest % 60);
  return result;
}

DateTime FromCalendar(const CalendarTime& time) {
  const auto days = static_cast<double>(DaysFromCivil(time.year, time.month, time.day));
  return kUnixEpoch + days + (time.hour * 3600 + time.minute * 60 + time.second) / kSecondsPerDay;
}

DateTime FromUnix(std::int64_t seconds, int microseconds) {
  return kUnixEpoch + (static_cast<double>(seconds) + microseconds / 1e6) / kSecondsPerDay;
}

std::string FormatRFCDate(DateTime local, int bias_minutes) {
  static constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const CalendarTime time = ToCalendar(local);
  const int magnitude = bias_minutes < 0 ? -bias_minutes : bias_minutes;
  std::string result(kDays[static_cast<std::size_t>(time.weekday)]);
  result += ", " + ZeroPadded(time.day, 2) + " ";
  result += kMonths[static_cast<std::size_t>(time.month - 1)];
  result += " " + ZeroPadded(time.year, 4) + " " + Time(time);
  result += bias_minutes < 0 ? " +" : " -";
  return result + ZeroPadded(magnitude / 60, 2) + ZeroPadded(magnitude % 60, 2);
}

std::string FormatLogStamp(DateTime local) {
  const CalendarTime time = ToCalendar(local);
  return ZeroPadded(time.day, 2) + "/" + ZeroPadded(time.month, 2) + "/" + ZeroPadded(time.year % 100, 2) +
         " " + Time(time);
}

std::string FormatGeneralDate(DateTime local) {
  const CalendarTime time = ToCalendar(local);
  return ZeroPadded(time.day, 2) + "/" + ZeroPadded(time.month, 2) + "/" + ZeroPadded(time.year, 4) + " " +
         Time(time);
}

std::string FormatFileDate(DateTime local) {
  const CalendarTime time = ToCalendar(local);
  return ZeroPadded(time.year % 100, 2) + ZeroPadded(time.month, 2) + ZeroPadded(time.day, 2);
}

std::string FormatDuration(double days) {
  // Whole days are dropped first, so that no span is too long for the seconds.
  const bool is_span = days > 0 && std::isfinite(days);
  const std::int64_t seconds = is_span ? std::llround(std::fmod(days, 1.0) * kSecondsPerDay) : 0;
  CalendarTime time;
  time.hour = static_cast<int>(seconds / 3600 % 24);
  time.minute = static_cast<int>(seconds / 60 % 60);
  time.second = static_cast<int>(seconds % 60);
  return Time(time);
}

}  // namespace trabex
