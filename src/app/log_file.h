// The log: one file per day and port, to which every library writes through the interface Log.
//
// A file is opened by the first line and closed after five seconds without one, so that it can be read, moved
// or deleted while the program runs. Its name is settled when it is opened: "<program>-<port>-<yymmdd>.log"
// of that day. A line is "dd/mm/yy hh:mm:ss <message>" and CR LF, local time.
//
// Lines are collected and written with one system call at the end of the loop iteration that wrote them, or
// as soon as much has collected. On a disk that may hang (platform/disk.h) another process writes them, from
// CollectOn on: they get there some time later, and sessions never wait. A log that cannot be opened or
// written loses its lines, which are counted: the mail goes on. Who runs the program is told that it cannot be
// opened, since the log itself cannot say it. No function raises an exception, memory that is out included, but
// the constructor and CollectOn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "platform/clock.h"
#include "platform/detached_append.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "platform/open_file_reserve.h"

namespace trabex {

class LogFile final : public Log {
 public:
  static constexpr Milliseconds kCloseAfter{5000};

  // Both outlive the log; `Log`, `LogPath` and `BindPort` are read at each use. `program_name` begins the
  // files' names.
  LogFile(const Configuration& configuration, const Clock& clock, std::string program_name = ProgramName());
  ~LogFile() override;
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Drops the line when `Log` is 0.
  void LogLine(std::string_view message) override;
  using Log::LogError;
  void LogError(int number, std::string_view description, std::string_view source) override;
  // Writes one line without a time stamp; otherwise like LogLine. For the dump of the configuration.
  void WriteUnstamped(std::string_view line);
  // Writes what has collected and closes the file; the next line opens one again.
  void Close();

  // `timer` begins its interval anew with each line; nullptr: none does. It outlives its use here.
  void SetTimer(Timer* timer) { timer_ = timer; }
  // `tell` is for what the operator has to know at once: each problem (base/log.h), and that no file can be
  // opened, once until that has succeeded again. Empty: nobody is told.
  void SetTell(std::function<void(std::string_view text)> tell) { tell_ = std::move(tell); }
  // A file that still cannot be opened is told once more.
  void TellFailureAgain() { failure_told_ = false; }
  // From now on lines wait for the end of the iteration of `loop`; nullptr: each is written at once, but none
  // to a disk that hangs, which is waited for some seconds before this returns.
  void CollectOn(EventLoop* loop);
  // Lines that could not be written.
  std::uint64_t LostLines() const { return lost_lines_; }
  // `observer` gets every error that is logged as one; empty: none.
  void SetErrorObserver(std::function<void(int number, std::string_view text)> observer) {
    error_observer_ = std::move(observer);
  }
  // `observer` sees every message that LogLine gets, also those that are dropped; empty: none.
  void SetObserver(std::function<void(std::string_view message)> observer) {
    observer_ = std::move(observer);
  }

 private:
  void TakeProblem(std::string_view message, std::string_view addition) override;
  bool EnsureOpen(DateTime now);
  void TellFailure(const std::string& path, const std::string& why);
  std::string PathOf(DateTime now) const;
  void Detach(EventLoop& loop);
  void FinishDetached();
  void TakeAnswer(const DetachedAppend::Answer& answer);
  const std::string& Stamp(DateTime now);
  void Append(std::string_view stamp, std::string_view text);
  void RestartTimer();
  void FlushLater();
  void Flush();
  std::size_t WriteCollected();

  const Configuration& configuration_;
  const Clock& clock_;
  std::string program_name_;
  AppendFile file_;
  std::optional<DetachedAppend> detached_;  // writes instead
  std::string detached_path_;               // where, as of the latest line
  bool detached_open_ = false;              // false: the next line settles the path anew
  bool disk_hung_ = false;                  // at the end: nothing is written any more
  OpenFileReserve reserve_;                 // held while the file is closed
  std::string collected_;
  bool flush_is_due_ = false;  // at the end of this iteration
  EventLoop* loop_ = nullptr;
  Timer* timer_ = nullptr;
  std::function<void(std::string_view)> observer_;
  std::function<void(std::string_view)> tell_;
  bool failure_told_ = false;
  std::function<void(int, std::string_view)> error_observer_;
  std::uint64_t lost_lines_ = 0;
  std::string stamp_;
  DateTime stamp_time_ = -1;  // of stamp_
};

}  // namespace trabex
