#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace trabex {
namespace {

// Sets the process's time zone for one test.
class TimeZone {
 public:
  explicit TimeZone(const std::string& zone) {
    if (const char* old = std::getenv("TZ")) before_ = old;
    Set(zone.c_str());
  }
  ~TimeZone() { Set(before_ ? before_->c_str() : nullptr); }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  static void Set(const char* zone) {
    if (zone != nullptr) {
      setenv("TZ", zone, 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  std::optional<std::string> before_;
};

// A zone five hours west whose daylight saving time (four hours west) holds today, or does not. Both dates of
// change lie 40 days away; where the first is the later one the summer spans the turn of the year, as in the
// south.
std::string ZoneWithDaylightSaving(bool today) {
  const std::time_t now = std::time(nullptr);
  std::tm universal{};
  gmtime_r(&now, &universal);
  const auto day = [&](int away) { return std::to_string((universal.tm_yday + 365 + away) % 365 + 1); };
  return "XST5XDT,J" + day(today ? -40 : 40) + ",J" + day(today ? 40 : -40);
}

TEST(SystemClock, BiasIsNegativeEastOfGreenwich) {
  const struct {
    const char* zone;  // POSIX: positive is west
    int bias;
    const char* rfc_zone;
  } cases[] = {
      {"UTC0", 0, "-0000"},        {"MSK-3", -180, "+0300"},  {"EST5", 300, "-0500"},
      {"IST-5:30", -330, "+0530"}, {"NST3:30", 210, "-0330"},
  };
  for (const auto& c : cases) {
    const TimeZone zone(c.zone);
    const SystemClock clock;
    EXPECT_EQ(clock.TimeZoneBias(), c.bias) << c.zone;
    const std::string date = clock.RFCDate();
    EXPECT_EQ(date.substr(date.size() - 5), c.rfc_zone) << c.zone;
  }
}

TEST(SystemClock, DaylightSavingIsPartOfTheBias) {
  {
    const TimeZone zone(ZoneWithDaylightSaving(true));
    const SystemClock clock;
    EXPECT_EQ(clock.TimeZoneBias(), 240);
  }
  {
    const TimeZone zone(ZoneWithDaylightSaving(false));
    const SystemClock clock;
    EXPECT_EQ(clock.TimeZoneBias(), 300);
  }
}

TEST(SystemClock, LocalTimePlusBiasIsUniversalTime) {
  for (const char* name : {"UTC0", "MSK-3", "EST5"}) {
    const TimeZone zone(name);
    const SystemClock clock;
    const DateTime before = FromUnix(std::time(nullptr), 0);
    const DateTime universal = clock.UniversalNow();
    const DateTime after = FromUnix(std::time(nullptr) + 1, 0);
    constexpr double kRounding = 0.001 / kSecondsPerDay;
    EXPECT_GE(universal, before - kRounding) << name;
    EXPECT_LE(universal, after + kRounding) << name;
  }
}

// A fraction would be rounded: half of all log lines and dates of messages would be a second ahead.
TEST(SystemClock, GivesTheSecondThatIsRunning) {
  const SystemClock clock;
  const double seconds = (clock.Now() - kUnixEpoch) * kSecondsPerDay;
  EXPECT_NEAR(seconds, std::round(seconds), 0.0001);
}

TEST(SystemClock, MonotonicTimeNeverGoesBack) {
  const SystemClock clock;
  MonotonicTime last = clock.Monotonic();
  for (int i = 0; i < 1000; ++i) {
    const MonotonicTime now = clock.Monotonic();
    EXPECT_GE(now, last);
    last = now;
  }
}

}  // namespace
}  // namespace trabex
