#include "app/attached_viewers.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "base/error.h"
#include "console/screen_feed.h"
#include "view/screen_model.h"

namespace trabex {

namespace {

// Of keys, in a turn of the loop.
constexpr std::size_t kMaxReadBytes = 512;

ControlAnswer Refusal(std::string error) {
  return {.status = exit_status::kFailed, .text = {}, .error = std::move(error)};
}

}  // namespace

// One viewer, from its coming until it is hung up on. What of it may still be on the stack is destroyed at the end of
// the turn.
class AttachedViewers::Viewer final : public DeferredDeletable {
 public:
  Viewer(AttachedViewers& viewers, std::unique_ptr<ControlCaller> connection)
      : viewers_(viewers),
        connection_(std::move(connection)),
        feed_(viewers.loop_, std::make_unique<ScreenModel>(viewers.source_, false), [this] { Send(); }) {}

  // The viewer says first how large its terminal is.
  void Begin() { Await(); }

  void Refresh() {
    feed_.Refresh();
    Send();
  }

  void HangUp() {
    if (!connection_) return;
    connection_.reset();
    viewers_.Remove(*this);  // destroyed at the end of the turn
  }

 private:
  void Await() {
    try {
      connection_->Watch({.readable = true, .writable = !feed_.Output().empty()}, [this] { OnReady(); });
    } catch (const Error&) {
      HangUp();
    }
  }

  void OnReady() {
    std::array<char, kMaxReadBytes> bytes;
    std::size_t received = 0;
    switch (connection_->Receive(bytes, received)) {
      case ChannelResult::kClosed:
        return HangUp();
      case ChannelResult::kDone:
        feed_.Take({bytes.data(), received});
        break;
      case ChannelResult::kWouldBlock:
        break;
    }
    if (feed_.Shown().Closed()) return HangUp();
    Send();
  }

  void Send() {
    if (!connection_) return;
    while (!feed_.Output().empty()) {
      std::size_t sent = 0;
      const ChannelResult result = connection_->Send(feed_.Output(), sent);
      if (result == ChannelResult::kClosed) return HangUp();
      if (result == ChannelResult::kWouldBlock) break;
      feed_.Sent(sent);
    }
    Await();
  }

  AttachedViewers& viewers_;
  std::unique_ptr<ControlCaller> connection_;  // none: hung up on
  ScreenFeed feed_;
};

AttachedViewers::AttachedViewers(EventLoop& loop, ViewSource& source) : loop_(loop), source_(source) {}

AttachedViewers::~AttachedViewers() {
  Close();
}

ControlReply AttachedViewers::Answer(std::string_view protocol) {
  if (protocol != kViewProtocol) {
    return Refusal("The instance and this command are of different versions; the view needs the same one.");
  }
  if (viewers_.size() >= kMaxViewers) {
    return Refusal(std::to_string(kMaxViewers) +
                   " viewers look at this instance already, and there is room for no more.");
  }
  return ControlStream{
      [this, still_here = std::weak_ptr<char>(here_)](std::unique_ptr<ControlCaller> caller) {
        if (!still_here.expired() && !closed_) Attach(std::move(caller));
      }};
}

void AttachedViewers::Attach(std::unique_ptr<ControlCaller> caller) {
  viewers_.push_back(std::make_unique<Viewer>(*this, std::move(caller)));
  viewers_.back()->Begin();
}

void AttachedViewers::Refresh() {
  // One that has gone is hung up on, and leaves the list.
  for (std::size_t i = viewers_.size(); i > 0; --i) viewers_[i - 1]->Refresh();
}

void AttachedViewers::Close() {
  closed_ = true;
  while (!viewers_.empty()) viewers_.back()->HangUp();
}

void AttachedViewers::Remove(Viewer& viewer) {
  const auto found = std::find_if(viewers_.begin(), viewers_.end(),
                                  [&](const std::unique_ptr<Viewer>& one) { return one.get() == &viewer; });
  loop_.DeferredDelete(std::move(*found));
  viewers_.erase(found);
}

}  // namespace trabex
