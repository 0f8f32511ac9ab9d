// Shows a screen to one viewer: takes what the viewer says, and has the bytes that are to be sent to it. How they
// pass is its owner's business. A viewer that does not draw costs nothing: no picture is made before the one before
// it is drawn, and one that has not changed is not sent.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "console/view_screen.h"
#include "console/view_wire.h"
#include "platform/event_loop.h"

namespace trabex {

class ScreenFeed {
 public:
  // A picture that was not finished is followed by another one after this time.
  static constexpr Milliseconds kUnfinishedInterval{20};

  // `output` is called when there is something to be sent, not inside of Take and Refresh. `loop` outlives the feed.
  ScreenFeed(EventLoop& loop, std::unique_ptr<ViewScreen> screen, std::function<void()> output);

  // Takes what has come of the viewer.
  void Take(std::string_view bytes);
  // Something may have changed.
  void Refresh();
  // What is to be sent; `Sent` drops the first `size` bytes of it.
  std::string_view Output() const { return std::string_view(output_).substr(sent_); }
  void Sent(std::size_t size);

  const ViewScreen& Shown() const { return *screen_; }
  // Whether the viewer has said how large its terminal is: then it draws.
  bool Begun() const { return size_.has_value(); }
  // Whether it has said that its terminal is as it was before.
  bool Restored() const { return restored_; }

 private:
  void Take(const ViewerMessage& message);
  void MakeFrame();

  std::unique_ptr<ViewScreen> screen_;
  Timer unfinished_;
  MessageReader messages_;
  std::optional<ViewerSize> size_;
  bool stale_ = true;     // something may have changed since the latest picture
  bool drawing_ = false;  // the viewer has not drawn the latest one yet
  bool restored_ = false;
  std::string latest_;  // the latest frame
  std::string output_;
  std::size_t sent_ = 0;  // of it
};

}  // namespace trabex
