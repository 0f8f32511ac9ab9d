#include "report/minute_history.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <chrono>
#include <string>
#include <vector>

namespace trabex {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr MonotonicTime kBegin{seconds(12345)};

// "m.r" for each minute with something in it, the latest first; its age in front.
std::string Shown(const MinuteHistory& history) {
  std::string text;
  const auto all = history.Minutes();
  for (std::size_t age = 0; age < all.size(); ++age) {
    const auto& minute = all[all.size() - 1 - age];
    if (minute.messages == 0 && minute.refusals == 0) continue;
    text += (text.empty() ? "" : " ") + std::to_string(age) + ":" + std::to_string(minute.messages) + "." +
            std::to_string(minute.refusals);
  }
  return text;
}

TEST(MinuteHistory, WhatTheCountersGrowByCountsForTheMinuteUnderWay) {
  struct Observation {
    seconds at;
    std::uint64_t messages;
    std::uint64_t refusals;
  };
  const struct {
    std::vector<Observation> observations;
    std::string shown;
  } cases[] = {
      {{}, ""},
      {{{seconds(0), 0, 0}}, ""},
      {{{seconds(0), 2, 1}}, "0:2.1"},
      {{{seconds(0), 2, 1}, {seconds(59), 5, 1}}, "0:5.1"},
      {{{seconds(59), 2, 1}, {seconds(60), 5, 1}}, "0:3.0 1:2.1"},
      {{{seconds(1), 2, 1}, {seconds(3 * 60), 2, 9}}, "0:0.8 3:2.1"},
      {{{seconds(1), 2, 1}, {seconds(3 * 60), 2, 9}, {seconds(3 * 60 + 59), 3, 10}}, "0:1.9 3:2.1"},
      {{{seconds(0), 7, 0}, {minutes(59), 7, 0}}, "59:7.0"},
      {{{seconds(0), 7, 0}, {minutes(60), 7, 0}}, ""},
      {{{seconds(0), 7, 0}, {minutes(60), 8, 0}}, "0:1.0"},
      {{{seconds(0), 7, 0}, {minutes(30), 9, 0}, {minutes(61), 9, 4}}, "0:0.4 31:2.0"},
      // The machine was asleep, or the program stopped, for long.
      {{{seconds(0), 7, 0}, {minutes(30), 9, 0}, {minutes(1000000), 10, 0}}, "0:1.0"},
      {{{seconds(0), 7, 0}, {minutes(119), 9, 0}, {minutes(120), 10, 0}}, "0:1.0 1:2.0"},
  };
  for (const auto& c : cases) {
    MinuteHistory history(kBegin);
    for (const auto& one : c.observations) history.Observe(kBegin + one.at, one.messages, one.refusals);
    EXPECT_EQ(Shown(history), c.shown);
  }
}

TEST(MinuteHistory, EveryMinuteKeepsItsCountsForAnHour) {
  MinuteHistory history(kBegin);
  std::uint64_t messages = 0;
  for (int minute = 0; minute < 200; ++minute) {
    messages += static_cast<std::uint64_t>(minute) + 1;
    history.Observe(kBegin + minutes(minute), messages, 0);
    const auto all = history.Minutes();
    for (int age = 0; age < 60; ++age) {
      const auto wanted = static_cast<std::uint64_t>(std::max(0, minute - age + 1));
      ASSERT_EQ(all[static_cast<std::size_t>(59 - age)].messages, wanted) << minute << " " << age;
    }
  }
}

}  // namespace
}  // namespace trabex
