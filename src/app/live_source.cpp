#include "app/live_source.h"

#include "app/version.h"
#include "proxy/cProxy.h"
#include "view/connection_row.h"
#include "view/session_order.h"

namespace trabex {

std::string RowOf(const cProxy& session) {
  return ConnectionRow(session.Handle(), session.BytesReceived(), session.BytesSent(), session.Duration(),
                       session.ClientIP(), session.HostNameOrUnknown());
}

std::string LiveSource::Version() const {
  return "v. " + VersionText();
}

std::string LiveSource::Header() const {
  return std::string(kConnectionHeader);
}

SessionSnapshot LiveSource::SnapshotAt(std::size_t index) const {
  return SnapshotOf(sessions_.At(index));
}

std::string LiveSource::RowText(std::size_t index) const {
  return RowOf(sessions_.At(index));
}

Totals LiveSource::CurrentTotals() const {
  const MonotonicTime now = clock_.Monotonic();
  if (!added_ || sessions_.Count() <= kMaxAddedAtOnce || now - added_->time >= kBytesInterval) {
    added_ = {.time = now, .bytes = OpenBytes(sessions_)};
  }
  return TotalsOf(counters_, report_, sessions_.Count(), added_->bytes);
}

bool LiveSource::CloseSession(SessionId id) {
  const std::optional<std::size_t> index = FindSession(id, *this);
  if (index) sessions_.At(*index).Shutdown(SessionEnd::kClosed);
  return index.has_value();
}

}  // namespace trabex
