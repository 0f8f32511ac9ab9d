#include "app/connection_view.h"

#include <utility>
#include <variant>

#include "app/connection_row.h"
#include "app/version.h"
#include "proxy/cProxy.h"

namespace trabex {

ConnectionView::ConnectionView(EventLoop& loop, SessionCollection& sessions)
    : loop_(loop), sessions_(sessions) {}

std::optional<NoView> ConnectionView::Show(bool folded, MainViewEvents events) {
  auto opened = OpenView(loop_, *this, folded, std::move(events));
  if (auto* const why_not = std::get_if<NoView>(&opened)) return std::move(*why_not);
  view_ = std::move(std::get<std::unique_ptr<MainView>>(opened));
  return std::nullopt;
}

void ConnectionView::SetStatus(std::string status) {
  status_ = std::move(status);
  Refresh();
}

void ConnectionView::Refresh() {
  if (view_) view_->Refresh();
}

std::string ConnectionView::Version() const {
  return "v. " + VersionText();
}

std::string ConnectionView::Header() const {
  return std::string(kConnectionHeader);
}

std::string ConnectionView::RowText(std::size_t index) const {
  return RowOf(sessions_.At(index));
}

std::string RowOf(const cProxy& session) {
  return ConnectionRow(session.Handle(), session.BytesReceived(), session.BytesSent(), session.Duration(),
                       session.ClientIP(), session.HostNameOrUnknown());
}

}  // namespace trabex
