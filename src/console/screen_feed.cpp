#include "console/screen_feed.h"

#include <utility>

namespace trabex {

ScreenFeed::ScreenFeed(EventLoop& loop, std::unique_ptr<ViewScreen> screen, std::function<void()> output)
    : screen_(std::move(screen)), unfinished_(loop, kUnfinishedInterval, [this, output = std::move(output)] {
        const auto call = output;  // the feed may go in it
        Refresh();
        call();
      }) {}

void ScreenFeed::Take(std::string_view bytes) {
  messages_.Append(bytes);
  while (const std::optional<ViewerMessage> message = messages_.Take()) Take(*message);
  MakeFrame();
}

void ScreenFeed::Take(const ViewerMessage& message) {
  switch (message.kind) {
    case ViewerMessage::Kind::kSize:
      size_ = message.size;
      screen_->SetSize(message.size);
      stale_ = true;
      break;
    case ViewerMessage::Kind::kKey:
      screen_->TakeKey(message.key);
      stale_ = true;
      break;
    case ViewerMessage::Kind::kDrawn:
      drawing_ = false;
      break;
    case ViewerMessage::Kind::kRestored:
      restored_ = true;
      break;
  }
}

void ScreenFeed::Refresh() {
  stale_ = true;
  MakeFrame();
}

void ScreenFeed::Sent(std::size_t size) {
  sent_ += size;
  if (sent_ < output_.size()) return;
  output_.clear();
  sent_ = 0;
}

void ScreenFeed::MakeFrame() {
  if (!stale_ || !size_) return;
  // What is unfinished goes on when the viewer has drawn; one that never draws costs no turn.
  if (drawing_ || !Output().empty()) return unfinished_.Disable();
  stale_ = false;
  std::string frame;
  AppendFrame(screen_->Make(), frame);
  screen_->IsUnfinished() ? unfinished_.Enable() : unfinished_.Disable();
  if (frame == latest_) return;
  latest_ = std::move(frame);
  output_ = latest_;
  drawing_ = true;
}

}  // namespace trabex
