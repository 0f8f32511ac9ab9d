// Whole runs of the program inside the test's process.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "app/start_up.h"
#include "base/text.h"
#include "support/asked_by_system.h"
#include "support/fake_clock.h"
#include "support/fake_name_lookup.h"
#include "support/plain_socket.h"
#include "support/temp_folder.h"

namespace trabex {

class StartUpTest : public testing::Test {
 protected:
  StartUpTest() : port_(FreePort()), port_text_(std::to_string(port_)) {}

  // The initialization file beside the program; the port is in it.
  void WriteIni(std::string_view lines) {
    WriteFile(folder_ / "Trabex.ini",
              "[Common]\nBindIP=127.0.0.1\nBindPort=" + port_text_ + "\n" + std::string(lines));
  }
  int Run(const std::vector<std::string_view>& arguments) {
    out_.str("");
    err_.str("");
    return RunProgram(arguments, {.clock = clock_,
                                  .out = out_,
                                  .err = err_,
                                  .show = [this](std::string_view text) { err_ << text; },
                                  .answered = [this] { ++answers_; },
                                  .program_directory = folder_.Path(),
                                  .program_name = "Trabex",
                                  .make_names =
                                      [](EventLoop& loop) {
                                        EndFromTheStart::TellLoop(loop);
                                        return std::make_unique<FakeNameLookup>(loop);
                                      }});
  }
  // A run that starts, serves and is asked to end.
  int RunAndEnd(const std::vector<std::string_view>& arguments) {
    const EndFromTheStart end;
    return Run(arguments);
  }

  std::string LogText(const std::string& folder = "Log") const {
    std::string text;
    if (!std::filesystem::exists(folder_ / folder)) return text;
    for (const auto& entry : std::filesystem::directory_iterator(folder_ / folder))
      text += ReadFile(entry.path().string());
    return text;
  }
  // The messages without their time stamps.
  std::vector<std::string> LogLines(const std::string& folder = "Log") const {
    std::vector<std::string> lines;
    const std::string text = ReplaceAll(LogText(folder), kCrLf, "\n");
    for (const std::string_view line : Split(text, '\n')) {
      if (line.size() > 18) lines.emplace_back(line.substr(18));
    }
    return lines;
  }
  std::string ListenLine() const {
    return "Listen on: 127.0.0.1:" + port_text_ + "; Connect to: 127.0.0.1:25.";
  }

  TempFolder folder_;
  FakeClock clock_;
  int port_;
  std::string port_text_;
  std::ostringstream out_;
  std::ostringstream err_;
  int answers_ = 0;
};

inline constexpr std::string_view kStarted = "Trabex 3.04.012 started.";
inline constexpr std::string_view kStopped = "Trabex 3.04.012 stopped.";
inline constexpr std::string_view kNotStarted =
    "Trabex 3.04.012 not started due to an error in initialization file.";

}  // namespace trabex
