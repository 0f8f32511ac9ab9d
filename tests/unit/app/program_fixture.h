// A program in a folder of its own, with a clock and names that the test sets, and its log in memory.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "app/program.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/temp_folder.h"

namespace trabex {

class ProgramTest : public testing::Test {
 protected:
  // All of them outlive a program of the derived class.
  Dependencies MakeDependencies() {
    return {.clock = clock_,
            .out = out_,
            .err = err_,
            .show = [this](std::string_view text) { err_ << text; },
            .program_directory = folder_.Path(),
            .program_name = "Trabex",
            .make_names =
                [this](EventLoop& loop) {
                  auto names = std::make_unique<FakeNameLookup>(loop);
                  names_ = names.get();
                  return names;
                }};
  }
  void ObserveLog(Program& program) {
    program.log.SetObserver([this](std::string_view message) { log_.emplace_back(message); });
  }

  TempFolder folder_;
  FakeClock clock_;
  std::ostringstream out_;
  std::ostringstream err_;
  FakeNameLookup* names_ = nullptr;  // of the last program
  std::vector<std::string> log_;     // the messages
};

}  // namespace trabex
