// A log in JSON for tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "base/date_time.h"
#include "config/configuration.h"
#include "report/json_log.h"
#include "support/fake_clock.h"
#include "support/loop_runner.h"
#include "support/recorded_log.h"
#include "support/temp_folder.h"

namespace trabex {

class JsonLogTest : public testing::Test {
 protected:
  JsonLogTest() {
    configuration_.BindPort = 25;
    configuration_.Service.JsonLog = path_;
    clock_.SetNow(FromUnix(1795010064, 0));
  }

  void Write(std::string_view text) {
    json_.Begin("error").Text("text", text);
    json_.End();
  }
  static std::string Line(std::string_view text) {
    return "{\"time\":\"2026-11-18T13:54:24.000Z\",\"event\":\"error\",\"port\":25,\"text\":\"" +
           std::string(text) + "\"}\n";
  }

  TempFolder folder_;
  std::string path_ = folder_ / "trabex.json";
  Configuration configuration_ = DefaultConfiguration();
  FakeClock clock_;
  EventLoop loop_{clock_};
  RecordedLog log_;
  JsonLog json_{configuration_, clock_, loop_, log_};
};

}  // namespace trabex
