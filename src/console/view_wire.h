// What passes between the program and a process that draws its view: one of its own, or one of another command that
// looks on. Nothing that comes is trusted: a process of another version may have sent it.
//
// The viewer sends messages of 8 bytes: its kind, a flag, a number of 2 bytes and one of 4, least byte first.
// The program sends frames: the length of the rest in 4 bytes, then a picture. It sends the next one only when the
// viewer has reported the one before as drawn, so a viewer that does not read holds one frame, however long it is
// blocked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "console/screen.h"
#include "console/view_screen.h"

namespace trabex {

struct ViewerMessage {
  enum class Kind : std::uint8_t {
    kSize = 1,
    kKey = 2,
    kDrawn = 3,     // the latest frame
    kRestored = 4,  // the terminal is as it was, and the viewer ends
  };
  Kind kind = Kind::kDrawn;
  ViewerSize size = {};  // of kSize
  Key key = 0;           // of kKey
};

void AppendMessage(const ViewerMessage& message, std::string& bytes);

// Takes messages out of a stream of bytes.
class MessageReader {
 public:
  void Append(std::string_view bytes);
  // The next whole message of a known kind.
  std::optional<ViewerMessage> Take();

 private:
  std::string bytes_;
  std::size_t taken_ = 0;  // of them
};

// Appends the picture as a frame. The same picture always gives the same bytes.
void AppendFrame(const Screen& screen, std::string& bytes);

// Takes frames out of a stream of bytes.
class FrameReader {
 public:
  static constexpr std::size_t kMaxFrameBytes = std::size_t{4} << 20;

  void Append(std::string_view bytes) { bytes_ += bytes; }
  // The next whole frame.
  std::optional<Screen> Take();
  // Whether something has come that is no frame; nothing is taken any more then.
  bool Broken() const { return broken_; }

 private:
  std::string bytes_;
  bool broken_ = false;
};

}  // namespace trabex
