#include "view/panes.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "base/date_time.h"
#include "base/text.h"
#include "view/session_row.h"

namespace trabex {

namespace {

constexpr std::size_t kNameColumns = 14;
constexpr std::size_t kTimeColumns = 17;  // "dd/mm/yy hh:mm:ss"
constexpr std::size_t kClientColumns = 15;
constexpr std::size_t kKeyColumns = 18;
// Where there is room for an IPv6 address of any length, and for the longest keys.
constexpr std::size_t kRoomyColumns = 150;
constexpr std::size_t kRoomyClientColumns = 39;
constexpr std::size_t kRoomyKeyColumns = 28;

std::string Field(std::string_view name, std::string_view value) {
  std::string line = " ";
  line.append(name).append(kNameColumns - name.size(), ' ').append(value);
  return line;
}

std::string OrNone(std::string_view text) {
  return std::string(text.empty() ? "none" : text);
}

std::string Bytes(const TransferredBytes& bytes) {
  return std::to_string(bytes.in) + " received, " + std::to_string(bytes.out) + " sent";
}

std::string Span(std::chrono::milliseconds time) {
  return FormatDuration(static_cast<double>(time.count()) / 1000 / kSecondsPerDay);
}

std::string HandleText(std::int32_t handle) {
  return handle < 0 ? std::string("none") : std::to_string(handle);
}

void AppendTransaction(const SessionSnapshot& snapshot, std::vector<std::string>& lines) {
  if (!snapshot.in_transaction) {
    lines.push_back(Field("Sender", "no transaction"));
    return;
  }
  lines.push_back(Field("Sender", snapshot.sender.empty() ? "<>" : snapshot.sender));
  const std::int64_t accepted = snapshot.recipients == nullptr ? 0 : snapshot.recipients->count;
  lines.push_back(Field("Recipients", std::to_string(snapshot.rcpt_commands) + " asked for, " +
                                          std::to_string(accepted) + " accepted"));
  if (!snapshot.recipient.empty()) {
    lines.push_back(Field("  latest", snapshot.recipient));
  }
  if (snapshot.recipients == nullptr) return;
  const TextList& first = snapshot.recipients->first;
  for (std::size_t i = 0; i < first.size(); ++i) lines.push_back(Field(i == 0 ? "  accepted" : "", first[i]));
  if (const auto listed = static_cast<std::int64_t>(first.size()); accepted > listed) {
    lines.push_back(Field("", "and " + std::to_string(accepted - listed) + " more"));
  }
}

}  // namespace

Pane DetailPane(const SessionSnapshot& snapshot) {
  Pane pane{.title = "Session " + FormatSessionId(snapshot.id), .lines = {}};
  const std::string secured = ", TLS";
  pane.lines = {
      Field("Handles", "client " + HandleText(snapshot.client_handle) + ", server " +
                           HandleText(snapshot.server_handle)),
      Field("Client", FormatIPAddress(snapshot.client) + (snapshot.is_local ? ", local" : ", remote") +
                          (snapshot.client_tls ? secured : "")),
      Field("Name", OrNone(snapshot.name)),
      Field("HELO", OrNone(snapshot.helo)),
      Field("State", std::string(SessionStateName(snapshot.state)) + " for " + Span(snapshot.time_in_state)),
      Field("Duration", Span(snapshot.age)),
      Field("Last command", OrNone(snapshot.last_command)),
      Field("Last reply", OrNone(snapshot.last_reply)),
      Field("Client bytes", Bytes(snapshot.client_bytes)),
      Field("Server bytes", Bytes(snapshot.server_bytes) + (snapshot.server_tls ? secured : "")),
      Field("Greylisting", snapshot.greylisting ? GreylistingResultName(*snapshot.greylisting) : "none"),
      Field("Transactions", std::to_string(snapshot.mail_commands)),
  };
  AppendTransaction(snapshot, pane.lines);
  return pane;
}

Pane KeysPane() {
  return {.title = "Keys",
          .lines = {
              " Up Down PgUp PgDn Home End   scroll, and select a session",
              " /      show only what holds a text: address, name, HELO, sender, recipient",
              " s      sort by the next column; r the other way round",
              " Space  let the table stand still; the mail goes on",
              " Enter  all that is known of the selected session", " Tab    the latest refusals",
              " c      close the selected session, after a \"y\"",
              " Esc    back: from a pane, from the filter, from the selection",
              " m      fold to the status line, and unfold", " q      close this view", " ?      these keys",
              "", " What a session waits for, or does, has a colour, and on narrow terminals a letter:",
              std::string(" D waits for DNS   S waits for the server   C content runs   R was refused")}};
}

std::vector<std::size_t> MatchingRefusals(const RecentRefusals& refusals, std::string_view filter) {
  std::vector<std::size_t> matching;
  const auto holds = [filter](std::string_view text) {
    return FindNoCase(text, filter) != std::string_view::npos;
  };
  for (std::size_t i = 0; i < refusals.size(); ++i) {
    const RefusalRecord& refusal = refusals[i];
    if (filter.empty() || holds(refusal.key) || holds(refusal.from) || holds(refusal.to) ||
        holds(FormatIPAddress(refusal.client))) {
      matching.push_back(i);
    }
  }
  return matching;
}

RefusalLayout::RefusalLayout(std::size_t columns) : columns_(columns), client_(1 + kTimeColumns + 1) {
  const bool roomy = columns >= kRoomyColumns;
  key_ = client_ + (roomy ? kRoomyClientColumns : kClientColumns) + 1;
  from_ = key_ + (roomy ? kRoomyKeyColumns : kKeyColumns) + 1;
  to_ = from_ + (columns > from_ ? (columns - from_) / 2 : 0);
}

void RefusalLayout::PutFields(ScreenLine& line, std::string_view time, std::string_view client,
                              std::string_view key, std::string_view from, std::string_view to,
                              Look look) const {
  const auto put = [&](std::size_t begin, std::size_t next, std::string_view text) {
    if (begin + 1 < next) Put(line, begin, text, next - begin - 1, look, CutSign::kEllipsis);
  };
  put(1, client_, time);
  put(client_, key_, client);
  put(key_, from_, key);
  put(from_, to_, from);
  put(to_, columns_ + 1, to);
}

ScreenLine RefusalLayout::Header() const {
  ScreenLine line;
  PutFields(line, "Time", "Client", "Key", "From", "To", {.bold = true});
  return line;
}

ScreenLine RefusalLayout::Row(const RefusalRecord& refusal, int bias) const {
  const DateTime local =
      FromUnix(refusal.time / 1000, static_cast<int>(refusal.time % 1000) * 1000) - bias / kMinutesPerDay;
  ScreenLine line;
  const std::string_view from =
      refusal.from.empty() && refusal.has_from ? "<>" : std::string_view(refusal.from);
  PutFields(line, FormatLogStamp(local), FormatIPAddress(refusal.client), refusal.key, from, refusal.to, {});
  return line;
}

}  // namespace trabex
