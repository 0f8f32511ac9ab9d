// Appends lines to files in a process of its own, for a disk that may hang (disk.h): whoever hands lines over never waits
// for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/event_loop.h"
#include "platform/files.h"

namespace trabex {

// What waits for the disk is kept up to a limit; what comes then is dropped, newest first, so that a gap in the file has
// one place. Lines get to the file in the order in which they came, but only some time later.
//
// The process is a forked copy, made when the first lines come. It has nothing open of what the program has, ignores all
// signals that can be ignored, and is made anew when somebody has ended it, which costs the lines that it was writing. It
// ends with the program, but writes first what it was given: at most one packet, some 64 KB of lines, since the next one
// is given to it when that is written. As long as it lives, each page of memory that the program changes is there twice.
//
// Nothing here raises an exception but the constructor: lines for which there is no memory are lost and counted.
//
// On Windows no disk counts as one that may hang, so nothing uses this there; it loses all lines.
class DetachedAppend {
 public:
  static constexpr std::size_t kMaxWaiting = std::size_t{4} << 20;
  // Then whoever listens is told.
  static constexpr Milliseconds kSilence{5000};

  struct Kind {
    NewFileReaders readers = NewFileReaders::kAsUsual;
    bool make_folder = false;        // the last level, where it is missing
    std::string_view line_end = {};  // ends the line that another one was cut off in; static
  };
  struct Answer {
    std::uint64_t lost_lines = 0;  // of those that were written now
    std::string why_not_opened;    // as AppendFile::WhyNotOpened
  };
  // Called from the loop, from Append, from CloseFile and from Finish; each may call Append. One that raises
  // std::bad_alloc has been called all the same.
  struct Events {
    // Some lines are in the file, or not. Nobody is told of a file that was closed.
    std::function<void(const Answer&)> answered;
    // The disk has not answered for kSilence. Told once until it does.
    std::function<void()> silent;
    // It answers again; so many lines were dropped meanwhile.
    std::function<void(std::uint64_t lines)> dropped;
  };

  // `loop` outlives the object.
  DetachedAppend(EventLoop& loop, Kind kind, Events events);
  // What waits is lost.
  ~DetachedAppend();
  DetachedAppend(const DetachedAppend&) = delete;
  DetachedAppend& operator=(const DetachedAppend&) = delete;

  // Hands over whole lines for the file at the native `path`, which is opened when it is another one than before.
  void Append(const std::string& path, std::string_view lines);
  // Closes the file behind the lines so far.
  void CloseFile();
  // Waits for all that was handed over to be written, `bound` at most from when that began which is being written now, and
  // ends the process. The lines of which it is not known that they are in a file.
  std::uint64_t Finish(Milliseconds bound);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace trabex
