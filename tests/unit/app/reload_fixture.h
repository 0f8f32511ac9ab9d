// A program that has read its initialization file and reloads it, with a clock that the test sets; the files
// are real ones.
#pragma once

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "app/frmMain.h"
#include "app/program.h"
#include "program_fixture.h"
#include "support/loop_runner.h"
#include "support/plain_socket.h"

namespace trabex {

inline constexpr const char* kReloaded =
    "Configuration reloaded because date/time of initialization file changed.";

class AutoReloadTest : public ProgramTest {
 protected:
  AutoReloadTest() : port_(FreePort()) {
    WriteIni("Timeout=100\n");
    program_ = std::make_unique<Program>(MakeDependencies());
    ObserveLog(*program_);
    program_->ini_file.path = ini_;
  }

  // Section Common with the test's addresses and `more`.
  std::string Ini(const std::string& more) const {
    return "[Common]\nBindIP=127.0.0.1\nBindPort=" + std::to_string(port_) +
           "\nServerPort=" + std::to_string(ServerPort()) + "\nLogPath=" + (folder_ / "Log") + "\n" + more;
  }
  void WriteIni(const std::string& more) { Write(ini_, Ini(more)); }
  // The file's date is that of the system's clock, which does not stand still between two writes of a test
  // for long enough; so it is set.
  void Write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
    std::filesystem::last_write_time(path, next_date_ += std::chrono::seconds(10));
  }
  void Start() {
    ASSERT_EQ(program_->ReadEarlyKeys(), EarlyKeysResult::kRead);
    ASSERT_TRUE(program_->LockInstance());
    ASSERT_EQ(LoadConfiguration(program_->MakeLoadDependencies(), Settings()), LoadResult::kLoaded);
    program_->window = std::make_unique<frmMain>(*program_);
    ASSERT_TRUE(program_->window->Form_Load());
    log_.clear();
  }
  // Lets the clock run, second by second.
  void Pass(int count) {
    for (int i = 0; i < count; ++i) {
      clock_.Advance(std::chrono::seconds(1));
      RunUntilIdle(program_->loop);
    }
  }
  std::ptrdiff_t Reloads() const { return std::count(log_.begin(), log_.end(), kReloaded); }
  Configuration& Settings() { return program_->configuration; }
  frmMain& Window() { return *program_->window; }

  const std::string ini_ = folder_ / "Trabex.ini";
  // A port without a listener, unless a test has a server.
  int ServerPort() const { return server_port_ != 0 ? server_port_ : port_ == 25 ? 26 : 25; }

  const int port_;
  int server_port_ = 0;
  std::filesystem::file_time_type next_date_ = std::filesystem::file_time_type::clock::now();
  std::unique_ptr<Program> program_;
};

}  // namespace trabex
