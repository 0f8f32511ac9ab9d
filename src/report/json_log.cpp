#include "report/json_log.h"

#include <algorithm>
#include <new>
#include <utility>

#include "base/text.h"
#include "platform/disk.h"
#include "platform/standard_output.h"

namespace trabex {

namespace {

// More than this is not kept back until the end of the loop iteration.
constexpr std::size_t kMaxCollected = std::size_t{64} * 1024;
constexpr Milliseconds kRetryInterval{200};
// How long the end of the program waits for a disk that may hang.
constexpr Milliseconds kMaxEnding{5000};

}  // namespace

JsonLog::JsonLog(const Configuration& configuration, const Clock& clock, EventLoop& loop, Log& log)
    : configuration_(configuration),
      clock_(clock),
      loop_(loop),
      log_(log),
      retry_(loop, kRetryInterval, [this] { Flush(); }) {}

JsonLog::~JsonLog() {
  Flush();
  EndDetaching();
}

void JsonLog::BeginDetaching() {
  Reopen();
  may_detach_ = true;
  path_.clear();
}

void JsonLog::EndDetaching() {
  may_detach_ = is_detached_ = false;
  path_.clear();
  if (!detached_) return;
  const std::uint64_t lost = detached_->Finish(kMaxEnding);
  detached_.reset();
  disk_hung_ = lost > 0;
  lost_lines_ += lost;
  try {
    if (disk_hung_) ReportFailure();
  } catch (const std::bad_alloc&) {
    // The lines are counted.
  }
}

bool JsonLog::Wants(std::string_view event) const {
  if (!IsOn()) return false;
  const auto& events = configuration_.Service.JsonEvents;
  return events.empty() || std::find(events.begin(), events.end(), event) != events.end();
}

JsonLine& JsonLog::Begin(std::string_view event) {
  collected_.resize(begin_);  // as in Flush
  if (std::exchange(line_has_begun_, true)) ++lost_lines_;
  line_.Begin();
  line_.Text("time", time_.Format(clock_.UnixMilliseconds()));
  line_.Text("event", event);
  line_.Number("port", configuration_.BindPort);
  return line_;
}

void JsonLog::End() {
  line_.End();
  line_has_begun_ = false;
  if (collected_.size() > kMaxWaiting) {
    collected_.resize(begin_);
    ++lost_lines_;
    return;
  }
  begin_ = collected_.size();
  if (collected_.size() >= kMaxCollected && !retry_.Enabled()) return Flush();
  if (flush_is_due_) return;
  loop_.OnIterationEnd([this] {
    flush_is_due_ = false;
    Flush();
  });
  flush_is_due_ = true;
}

void JsonLog::Reopen() {
  Flush();
  file_.Close();
  if (is_detached_) detached_->CloseFile();
}

void JsonLog::Flush() try {
  collected_.resize(begin_);  // a line that memory was not enough for has not ended
  if (collected_.empty()) return;
  const bool to_standard_output = configuration_.Service.JsonLog == kStandardOutput;
  const std::size_t written = to_standard_output ? WriteStandardOutput(collected_) : WriteToFile();
  collected_.erase(0, written);
  begin_ = collected_.size();
  if (to_standard_output && !collected_.empty()) {
    // The rest of a line that has begun has to follow.
    if (!retry_.Enabled()) retry_.Enable();
    return;
  }
  retry_.Disable();
  if (!collected_.empty()) {
    lost_lines_ += static_cast<std::uint64_t>(std::count(collected_.begin(), collected_.end(), '\n'));
    collected_.clear();
    begin_ = 0;
    ReportFailure();
  } else if (!is_detached_) {
    failed_ = false;
  }
} catch (const std::bad_alloc&) {
  // What is still there waits for the next time.
}

bool JsonLog::EnsureOpen() {
  const std::string& path = configuration_.Service.JsonLog;
  if ((file_.IsOpen() || is_detached_) && path == path_) return true;
  file_.Close();
  path_ = path;
  ChooseDetached();
  if (is_detached_) return true;
  if (disk_hung_) return false;
  return !path.empty() && file_.Open(NativePath(path), NewFileReaders::kGroup);
}

void JsonLog::ChooseDetached() {
  is_detached_ = false;
  if (!may_detach_ || path_.empty() || !DiskThatMayHang(NativePath(path_))) return;
  if (!detached_) Detach();
  is_detached_ = true;
}

void JsonLog::Detach() {
  const auto tell_silence = [this] {
    log_.LogProblem("The disk of JSON log " + Quoted(configuration_.Service.JsonLog) + " does not answer.");
  };
  const auto take_dropped = [this](std::uint64_t lines) {
    lost_lines_ += lines;
    log_.LogProblem("The disk of the JSON log answers again. Lost lines: " + std::to_string(lines) + ".");
  };
  detached_.emplace(
      loop_, DetachedAppend::Kind{.readers = NewFileReaders::kGroup, .line_end = "\n"},
      DetachedAppend::Events{.answered = [this](const DetachedAppend::Answer& answer) { TakeAnswer(answer); },
                             .silent = tell_silence,
                             .dropped = take_dropped});
}

void JsonLog::TakeAnswer(const DetachedAppend::Answer& answer) {
  lost_lines_ += answer.lost_lines;
  if (answer.lost_lines > 0) {
    ReportFailure();
  } else {
    failed_ = false;
  }
}

// Returns how much of what has collected is in the file, or on its way there.
std::size_t JsonLog::WriteToFile() {
  if (!EnsureOpen()) return 0;
  if (is_detached_) {
    detached_->Append(NativePath(path_), collected_);
    return collected_.size();
  }
  // A line that was cut off stays so, but it does not take the next one with it.
  if (file_.EndsInsideLine() && !file_.Write("\n")) return 0;
  return file_.WriteSome(collected_);
}

void JsonLog::ReportFailure() {
  if (failed_) return;
  const std::string text =
      "JSON log " + Quoted(configuration_.Service.JsonLog) + " cannot be written. Lines are lost.";
  failed_ = true;  // before the line, which may end up in this log
  log_.LogProblem(text);
}

}  // namespace trabex
