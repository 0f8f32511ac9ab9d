// Date-times from the calendar.
#pragma once

#include <chrono>

#include "base/date_time.h"

namespace trabex {

// The inverse of ToCalendar; weekday is not read.
inline DateTime FromCalendar(const CalendarTime& time) {
  using namespace std::chrono;
  const year_month_day date(year(time.year), month(static_cast<unsigned>(time.month)),
                            day(static_cast<unsigned>(time.day)));
  const auto days_from_epoch = static_cast<int>(sys_days(date).time_since_epoch().count());
  return FromUnix(0, 0) + days_from_epoch +
         (time.hour * 3600 + time.minute * 60 + time.second) / kSecondsPerDay;
}

}  // namespace trabex
