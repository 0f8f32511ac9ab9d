#include "app/log_file.h"

#include <algorithm>
#include <new>
#include <utility>

#include "base/text.h"
#include "platform/disk.h"

namespace trabex {

namespace {

// More than this is not kept back until the end of the loop iteration.
constexpr std::size_t kMaxCollectedBytes = std::size_t{64} * 1024;
// How long the end of the program waits for a disk that may hang.
constexpr Milliseconds kMaxEnding{5000};

std::string LostLinesText(std::uint64_t lines) {
  return "Lost lines: " + std::to_string(lines) + ".";
}

}  // namespace

LogFile::LogFile(const Configuration& configuration, const Clock& clock, std::string program_name)
    : configuration_(configuration), clock_(clock), program_name_(std::move(program_name)) {}

LogFile::~LogFile() {
  Close();
  FinishDetached();
}

void LogFile::LogLine(std::string_view message) try {
  if (observer_) observer_(message);
  if (configuration_.Log == log_mode::kOff) return;
  const DateTime now = clock_.Now();
  if (EnsureOpen(now)) {
    Append(Stamp(now), message);
  } else {
    ++lost_lines_;
  }
} catch (const std::bad_alloc&) {
  ++lost_lines_;
}

// Often the last word about a memory that is used up.
void LogFile::LogError(int number, std::string_view description, std::string_view source) try {
  Log::LogError(number, description, source);
  if (error_observer_) error_observer_(number, description);
} catch (const std::bad_alloc&) {
  ++lost_lines_;
}

void LogFile::WriteUnstamped(std::string_view line) try {
  if (configuration_.Log == log_mode::kOff) return;
  if (EnsureOpen(clock_.Now())) {
    Append({}, line);
  } else {
    ++lost_lines_;
  }
} catch (const std::bad_alloc&) {
  ++lost_lines_;
}

void LogFile::TakeProblem(std::string_view message, std::string_view addition) try {
  LogLine(message);
  if (!tell_) return;
  std::string text(message);
  if (!addition.empty()) text.append(text.ends_with('.') ? " " : ". ").append(addition);
  tell_(text);
} catch (const std::bad_alloc&) {
  // The log has the line, or has counted it.
}

void LogFile::Close() {
  Flush();
  if (detached_) detached_->CloseFile();
  detached_open_ = false;
  file_.Close();
  reserve_.Hold();
}

void LogFile::CollectOn(EventLoop* loop) {
  Flush();
  flush_is_due_ = false;
  loop_ = loop;
  if (loop != nullptr) {
    Detach(*loop);
  } else {
    FinishDetached();
  }
}

void LogFile::Detach(EventLoop& loop) {
  if (!DiskThatMayHang(NativePath(configuration_.LogPath))) return;
  file_.Close();
  const auto tell_silence = [this] {
    if (tell_)
      tell_("The disk of log folder " + Quoted(NativePath(configuration_.LogPath)) + " does not answer.");
  };
  const auto take_dropped = [this](std::uint64_t lines) {
    lost_lines_ += lines;
    LogProblem("The disk of the log answers again. " + LostLinesText(lines));
  };
  detached_.emplace(
      loop, DetachedAppend::Kind{.make_folder = true, .line_end = kCrLf},
      DetachedAppend::Events{.answered = [this](const DetachedAppend::Answer& answer) { TakeAnswer(answer); },
                             .silent = tell_silence,
                             .dropped = take_dropped});
}

void LogFile::TakeAnswer(const DetachedAppend::Answer& answer) {
  lost_lines_ += answer.lost_lines;
  if (!answer.why_not_opened.empty()) {
    TellFailure(detached_path_, answer.why_not_opened);
  } else if (answer.lost_lines == 0) {
    failure_told_ = false;
  }
}

void LogFile::FinishDetached() {
  if (!detached_) return;
  const std::uint64_t lost = detached_->Finish(kMaxEnding);
  detached_.reset();
  disk_hung_ = lost > 0;
  lost_lines_ += lost;
  try {
    if (disk_hung_ && tell_) tell_("The disk of the log does not answer. " + LostLinesText(lost));
  } catch (const std::bad_alloc&) {
    // The lines are counted.
  }
}

bool LogFile::EnsureOpen(DateTime now) {
  if (file_.IsOpen()) return true;
  if (detached_) {
    if (!detached_open_) detached_path_ = PathOf(now);
    return detached_open_ = true;
  }
  if (disk_hung_) return false;
  CreateFolder(NativePath(configuration_.LogPath));
  const std::string path = PathOf(now);
  reserve_.Release();
  if (file_.Open(path)) {
    failure_told_ = false;
    return true;
  }
  reserve_.Hold();
  TellFailure(path, file_.WhyNotOpened());
  return false;
}

std::string LogFile::PathOf(DateTime now) const {
  std::string path = NativePath(configuration_.LogPath);
  if (!path.ends_with(kPathSeparator)) path += kPathSeparator;
  return path + program_name_ + "-" + std::to_string(configuration_.BindPort) + "-" + FormatFileDate(now) +
         ".log";
}

void LogFile::TellFailure(const std::string& path, const std::string& why) {
  if (failure_told_ || !tell_) return;
  tell_("Unable to open log file " + Quoted(path) + ". " + why + ". Nothing is logged.");
  failure_told_ = true;
}

// The prefix of a message. A busy log writes many lines a second, so the text is made once for all of
// them.
const std::string& LogFile::Stamp(DateTime now) {
  if (now != stamp_time_) {
    stamp_ = FormatLogStamp(now) + " ";
    stamp_time_ = now;
  }
  return stamp_;
}

// Once for all lines of a loop iteration: time does not pass for timers inside it.
void LogFile::RestartTimer() {
  if (timer_ != nullptr && (!flush_is_due_ || !timer_->Enabled())) timer_->Enable();
}

void LogFile::Append(std::string_view stamp, std::string_view text) {
  const std::size_t begin = collected_.size();
  try {
    RestartTimer();
    collected_.append(stamp).append(text).append(kCrLf);
    if (loop_ != nullptr) FlushLater();
  } catch (const std::bad_alloc&) {
    collected_.resize(begin);  // no half of a line, and none that counts as lost and is written later
    throw;
  }
  if (loop_ == nullptr || collected_.size() >= kMaxCollectedBytes) Flush();
}

void LogFile::FlushLater() {
  if (flush_is_due_) return;
  loop_->OnIterationEnd([this] {
    flush_is_due_ = false;
    Flush();
  });
  flush_is_due_ = true;
}

// Returns how much of what has collected is in the file.
std::size_t LogFile::WriteCollected() {
  // A line that was cut off stays so, but it does not take the next one with it.
  if (file_.EndsInsideLine() && !file_.Write(kCrLf)) return 0;
  return file_.WriteSome(collected_);
}

void LogFile::Flush() {
  if (collected_.empty()) return;
  if (detached_) {
    detached_->Append(detached_path_, collected_);
    collected_.clear();
    return;
  }
  const std::string_view lost = std::string_view(collected_).substr(WriteCollected());
  lost_lines_ += static_cast<std::uint64_t>(std::count(lost.begin(), lost.end(), '\n'));
  collected_.clear();
}

}  // namespace trabex
