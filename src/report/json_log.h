// The log in JSON: one object on each line, for programs to read. It stands beside the log for people, and
// names what it tells of by the same handles.
//
// Lines are collected and written at the end of the loop iteration, or as soon as much has collected. A line
// that cannot be written is counted and dropped: the mail goes on. To standard output nothing is written that
// it does not take at once; what is left waits, up to a limit. On a disk that may hang (platform/disk.h)
// another process writes, from BeginDetaching on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/log.h"
#include "config/configuration.h"
#include "platform/clock.h"
#include "platform/detached_append.h"
#include "platform/event_loop.h"
#include "platform/files.h"
#include "report/json_line.h"

namespace trabex {

class JsonLog {
 public:
  // How much waits for a standard output that is not read.
  static constexpr std::size_t kMaxWaiting = std::size_t{1} << 20;

  // All outlive it. JsonLog, JsonEvents and BindPort are read at each use; a failure is told to `log`, once.
  JsonLog(const Configuration& configuration, const Clock& clock, EventLoop& loop, Log& log);
  ~JsonLog();
  JsonLog(const JsonLog&) = delete;
  JsonLog& operator=(const JsonLog&) = delete;

  // Whether there is such a log.
  bool IsOn() const { return !configuration_.Service.JsonLog.empty(); }
  // Whether it takes events of this name; without names in the settings it takes all.
  bool Wants(std::string_view event) const;
  bool HasNamedEvents() const { return !configuration_.Service.JsonEvents.empty(); }

  // A line for an event, with its time, its name and the port; End is called before the next one begins.
  // Begin is called only where Wants says so.
  JsonLine& Begin(std::string_view event);
  void End();

  // Closes the file when what has collected is written; the next line opens it again.
  void Reopen();
  // Writes what has collected.
  void Flush();
  // From now on sessions may come, which must not wait for a disk.
  void BeginDetaching();
  // They have ended: waits some seconds for a disk that may hang. What comes later is lost if it does.
  void EndDetaching();
  // Lines that were dropped.
  std::uint64_t LostLines() const { return lost_lines_; }

 private:
  bool EnsureOpen();
  std::size_t WriteToFile();
  void ReportFailure();
  void ChooseDetached();
  void Detach();
  void TakeAnswer(const DetachedAppend::Answer& answer);

  const Configuration& configuration_;
  const Clock& clock_;
  EventLoop& loop_;
  Log& log_;
  AppendFile file_;
  std::string path_;  // of the file that is open, or was last
  bool may_detach_ = false;
  bool is_detached_ = false;                // another process writes to path_
  bool disk_hung_ = false;                  // at the end: nothing is written to a file any more
  std::optional<DetachedAppend> detached_;  // that process; stays for what waits
  std::string collected_;
  std::size_t begin_ = 0;  // of the latest line in it
  JsonLine line_{collected_};
  JsonTime time_;
  Timer retry_;                // while standard output takes nothing
  bool flush_is_due_ = false;  // at the end of this iteration
  bool line_has_begun_ = false;
  bool failed_ = false;  // the latest write
  std::uint64_t lost_lines_ = 0;
};

}  // namespace trabex
