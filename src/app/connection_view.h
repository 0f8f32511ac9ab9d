// The program's own view of its connections. It is there whether it is shown or not; texts are made only while they
// are visible.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "console/main_view.h"
#include "platform/event_loop.h"
#include "view/view_source.h"

namespace trabex {

class ConnectionView final : private ViewContent {
 public:
  // Both outlive this object. Nothing is shown yet.
  ConnectionView(EventLoop& loop, ViewSource& source) : loop_(loop), source_(source) {}
  ConnectionView(const ConnectionView&) = delete;
  ConnectionView& operator=(const ConnectionView&) = delete;

  // Shows it, folded to its status line if `folded`; nothing when that was possible, otherwise why not. See
  // OpenView for the events.
  std::optional<NoView> Show(bool folded, MainViewEvents events);
  bool Shown() const { return view_ != nullptr; }
  // May be called in an event of the view.
  void Hide() { view_.reset(); }
  // Shows everything as it is now. Not meant for each row that comes or goes: a flood of connections is to
  // cost two frames a second.
  void Refresh();

 private:
  std::string Status() const override { return source_.Status(); }
  std::string Version() const override { return source_.Version(); }
  std::string Header() const override { return source_.Header(); }
  std::size_t RowCount() const override { return source_.SessionCount(); }
  std::string RowText(std::size_t index) const override { return source_.RowText(index); }
  std::unique_ptr<ViewScreen> MakeScreen(bool folded) const override;

  EventLoop& loop_;
  ViewSource& source_;
  std::unique_ptr<MainView> view_;
};

}  // namespace trabex
