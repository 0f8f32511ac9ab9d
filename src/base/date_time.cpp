#include "base/date_time.h"

#include <array>
#include <chrono>
#include <cmath>
#include <string_view>

#include "base/text.h"

namespace trabex {

namespace {

// From the epoch; the calendar ends with the year 32767.
constexpr double kMaxSeconds = 30000 * 365.2425 * kSecondsPerDay;

// A number of 0 to 99 with two digits.
std::string& AppendTwo(std::string& text, int number) {
  const char digits[] = {static_cast<char>('0' + number / 10), static_cast<char>('0' + number % 10)};
  return text.append(digits, sizeof digits);
}

std::string& AppendTime(std::string& text, const CalendarTime& time) {
  AppendTwo(text, time.hour) += ':';
  AppendTwo(text, time.minute) += ':';
  return AppendTwo(text, time.second);
}

std::string Time(const CalendarTime& time) {
  std::string text;
  return AppendTime(text, time);
}

}  // namespace

CalendarTime ToCalendar(DateTime time) {
  using namespace std::chrono;
  // What is no time, or beyond what the calendar holds, counts as its end.
  double since_epoch = (time - kUnixEpoch) * kSecondsPerDay;
  if (!(since_epoch > -kMaxSeconds)) since_epoch = -kMaxSeconds;
  if (since_epoch > kMaxSeconds) since_epoch = kMaxSeconds;
  const sys_seconds moment{seconds(std::llround(since_epoch))};
  const auto day = floor<days>(moment);
  const year_month_day date(day);
  const hh_mm_ss clock(moment - day);
  return {.year = static_cast<int>(date.year()),
          .month = static_cast<int>(static_cast<unsigned>(date.month())),
          .day = static_cast<int>(static_cast<unsigned>(date.day())),
          .weekday = static_cast<int>(weekday(day).c_encoding()),
          .hour = static_cast<int>(clock.hours().count()),
          .minute = static_cast<int>(clock.minutes().count()),
          .second = static_cast<int>(clock.seconds().count())};
}

DateTime FromUnix(std::int64_t seconds, int microseconds) {
  return kUnixEpoch + (static_cast<double>(seconds) + microseconds / 1e6) / kSecondsPerDay;
}

std::int64_t ToUnixMilliseconds(DateTime time) {
  return std::llround((time - kUnixEpoch) * kSecondsPerDay * 1000);
}

std::string FormatRFCDate(DateTime local, int bias_minutes) {
  static constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const CalendarTime time = ToCalendar(local);
  const int magnitude = bias_minutes < 0 ? -bias_minutes : bias_minutes;
  std::string result;
  result.reserve(sizeof "Sun, 15 Nov 2026 16:54:24 -0000");
  result.append(kDays[static_cast<std::size_t>(time.weekday)]).append(", ");
  AppendTwo(result, time.day) += ' ';
  result.append(kMonths[static_cast<std::size_t>(time.month - 1)]) += ' ';
  result.append(ZeroPadded(time.year, 4)) += ' ';
  AppendTime(result, time).append(bias_minutes < 0 ? " +" : " -");
  AppendTwo(result, magnitude / 60 % 100);
  return AppendTwo(result, magnitude % 60);
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
