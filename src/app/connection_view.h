// What people see of the running program: the addresses in force, and one row per open connection. It is
// there whether it is shown or not; only it makes row texts, and they are made only while they are
// visible.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "console/main_view.h"
#include "platform/event_loop.h"
#include "proxy/session_collection.h"

namespace trabex {

// The row of an open session.
std::string RowOf(const cProxy& session);

class ConnectionView final : private ViewContent {
 public:
  // Both outlive this object. Nothing is shown yet.
  ConnectionView(EventLoop& loop, SessionCollection& sessions);
  ConnectionView(const ConnectionView&) = delete;
  ConnectionView& operator=(const ConnectionView&) = delete;

  // Shows it, folded to its status line if `folded`; nothing when that was possible, otherwise why not. See
  // OpenView for the events.
  std::optional<NoView> Show(bool folded, MainViewEvents events);
  bool Shown() const { return view_ != nullptr; }
  // May be called in an event of the view.
  void Hide() { view_.reset(); }
  // The status line, as of now.
  void SetStatus(std::string status);
  // Shows the rows as they are now. Not meant for each row that comes or goes: a flood of connections is to
  // cost two frames a second.
  void Refresh();

 private:
  std::string Status() const override { return status_; }
  std::string Version() const override;
  std::string Header() const override;
  std::size_t RowCount() const override { return sessions_.Count(); }
  std::string RowText(std::size_t index) const override;

  EventLoop& loop_;
  SessionCollection& sessions_;
  std::string status_;
  std::unique_ptr<MainView> view_;
};

}  // namespace trabex
