// Those who look at the running program from another terminal. Each has a screen of its own. What they do costs the
// mail nothing: one that does not draw gets no further picture, and no more of its keys are taken in a turn of the
// loop than it could have pressed.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "app/control_requests.h"
#include "platform/control_channel.h"
#include "platform/event_loop.h"
#include "view/view_source.h"

namespace trabex {

// What a viewer and an instance have to have in common (console/view_wire.h).
inline constexpr std::string_view kViewProtocol = "1";

class AttachedViewers {
 public:
  static constexpr std::size_t kMaxViewers = 4;

  // Both outlive the viewers.
  AttachedViewers(EventLoop& loop, ViewSource& source);
  ~AttachedViewers();
  AttachedViewers(const AttachedViewers&) = delete;
  AttachedViewers& operator=(const AttachedViewers&) = delete;

  // The reply to one who wants to be a viewer, whose kViewProtocol is `protocol`.
  ControlReply Answer(std::string_view protocol);
  // Something may have changed.
  void Refresh();
  // Hangs up on all of them. From now on there are none.
  void Close();

  std::size_t Count() const { return viewers_.size(); }

 private:
  class Viewer;

  void Attach(std::unique_ptr<ControlCaller> caller);
  void Remove(Viewer& viewer);

  EventLoop& loop_;
  ViewSource& source_;
  std::vector<std::unique_ptr<Viewer>> viewers_;
  bool closed_ = false;
  std::shared_ptr<char> here_ = std::make_shared<char>();
};

}  // namespace trabex
