#include "report/session_report.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include "base/date_time.h"
#include "base/error.h"
#include "base/ip_address.h"
#include "base/text.h"
#include "proxy/cProxy.h"

namespace trabex {

// The addresses that a refusal is about; nothing: there is none at that point.
struct SessionReport::RefusedAddresses {
  std::optional<std::string_view> from;
  std::optional<std::string_view> to;
};

namespace {

// More of them, or larger ones, are not kept for later sessions.
constexpr std::size_t kMaxSpareRecords = 1000;
constexpr std::size_t kMaxSpareMemory = std::size_t{4} * 1024;

constexpr std::array<std::string_view, 8> kEnds = {"quit",    "client", "server", "timeout",
                                                   "refused", "badseq", "closed", "shutdown"};

std::size_t OriginOf(const cProxy& session) {
  return session.ClientIsLocal() ? 0 : 1;
}

// 2 to 5; 0 for what is no reply code of SMTP.
std::size_t ClassOf(std::string_view reply) {
  const char first = reply.empty() ? ' ' : reply.front();
  return first >= '2' && first <= '5' ? static_cast<std::size_t>(first - '0') : 0;
}

// The first three characters when they are digits, otherwise 0.
std::int64_t CodeNumber(std::string_view reply) {
  std::int64_t code = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    if (i >= reply.size() || !IsDigit(reply[i])) return 0;
    code = code * 10 + (reply[i] - '0');
  }
  return code;
}

bool IsReplyToRcpt(ReplyKind kind) {
  return FindPolicyReply(kind).key.starts_with("RCPT.");
}

// What part of a session a reply belongs to.
std::string_view StageOf(const OwnReply& reply) {
  switch (reply.kind) {
    case ReplyKind::kTooManyConnections:
    case ReplyKind::kIPBlackList:
    case ReplyKind::kHostsBlackList:
    case ReplyKind::kNoPtr:
      return "connect";
    case ReplyKind::kServerError:
    case ReplyKind::kShutdown:
      return "end";
    case ReplyKind::kDataAmbiguousEnd:
      return "content";
    case ReplyKind::kLineTooLong:
      return "command";
    case ReplyKind::kMailSize:
      // A size that was declared is refused at MAIL; this one was measured.
      if (reply.ends) return "content";
      break;
    default:
      break;
  }
  switch (FindCommand(reply.requested.CurrentVerb).id) {
    case Command::kHelo:
    case Command::kEhlo:
      return "helo";
    case Command::kMail:
    case Command::kSend:
    case Command::kSoml:
    case Command::kSaml:
      return "mail";
    case Command::kRcpt:
      return "rcpt";
    case Command::kData:
    case Command::kBdat:
      return "data";
    case Command::kStarttls:
      return "starttls";
    case Command::kAuth:
      return "auth";
    default:
      return "command";
  }
}

std::string_view KeyOf(const OwnReply& reply) {
  return reply.key.empty() ? FindPolicyReply(reply.kind).key : reply.key;
}

void WriteIfAny(JsonLine& line, std::string_view name, std::string_view value) {
  if (!value.empty()) line.Text(name, value);
}

std::string_view ValueOf(const DecidingList& list, const cProxy& session, const RequestedState& requested) {
  switch (list.value) {
    case DecidingList::Value::kName:
      return session.Name();
    case DecidingList::Value::kHelo:
      return requested.HeloDomain;
    case DecidingList::Value::kSender:
      return requested.Sender;
    case DecidingList::Value::kRecipient:
      return requested.Recipient;
    case DecidingList::Value::kAddress:
      break;
  }
  return {};
}

// Nothing when it was no entry that decided.
void AppendEntry(const DecidingList& list, const cProxy& session, const RequestedState& requested,
                 std::string& out) {
  if (list.ranges != nullptr) {
    if (const auto range = list.ranges->Find(session.ClientIP())) mCommon::AppendRange(*range, out);
  }
  if (list.list == nullptr) return;
  try {
    const auto index = list.list->Find(ValueOf(list, session, requested));
    if (index) list.list->AppendEntryText(*index, out);
  } catch (const Error&) {
    // A pattern before it is malformed.
  }
}

void WriteTime(JsonLine& line, std::string_view name, DateTime universal, JsonTime& text) {
  // Far beyond what a text can show.
  constexpr double kMaxSeconds = 1e12;
  const double seconds = std::clamp((universal - kUnixEpoch) * kSecondsPerDay, -kMaxSeconds, kMaxSeconds);
  line.Text(name, text.Format(std::llround(seconds) * 1000));
}

std::int64_t MillisecondsBetween(MonotonicTime begin, MonotonicTime end) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(end - begin).count();
}

}  // namespace

void SessionReport::Record::BeginSession() {
  head.clear();
  commands = messages = 0;
  server = {};
  server_handle = -1;
  BeginMessage({}, {});
}

void SessionReport::Record::SetServerHandle(std::int32_t handle) {
  if (handle < 0 || handle == server_handle) return;
  server_handle = handle;
  head.clear();
}

void SessionReport::Record::BeginMessage(std::string_view sender, MonotonicTime now) {
  began = now;
  from = sender;
  recipients.Clear();
  refused.Clear();
  recipients_count = refused_count = octets = 0;
}

SessionReport::Record* SessionReport::RecordOf(const cProxy& session) {
  if (!json_.IsOn()) return nullptr;
  if (latest_ == nullptr || latest_id_ != session.Id()) {
    latest_id_ = session.Id();
    const auto found = records_.find(latest_id_);
    latest_ = found != records_.end() ? &found->second : &NewRecord(latest_id_);
  }
  return latest_;
}

SessionReport::Record& SessionReport::NewRecord(SessionId session) {
  if (spare_records_.empty()) return records_[session];
  Records::node_type node = std::move(spare_records_.back());
  spare_records_.pop_back();
  node.key() = session;
  node.mapped().BeginSession();
  return records_.insert(std::move(node)).position->second;
}

void SessionReport::EndRecord(SessionId session) {
  latest_ = nullptr;
  auto node = records_.extract(session);
  if (node.empty() || spare_records_.size() >= kMaxSpareRecords) return;
  if (node.mapped().Memory() <= kMaxSpareMemory) spare_records_.push_back(std::move(node));
}

JsonLine& SessionReport::BeginLine(std::string_view event, const cProxy& session) {
  Record& record = *RecordOf(session);
  record.SetServerHandle(session.ServerHandle());
  if (record.head.empty()) {
    JsonLine head(record.head);
    head.Begin();
    const auto digits = SessionIdDigits(session.Id());
    head.Text("session", {digits.data(), digits.size()});
    head.Text("client", FormatIPAddress(session.ClientIP()));
    head.Text("origin", session.ClientIsLocal() ? "local" : "remote");
    head.Number("client_handle", session.Handle());
    if (record.server_handle >= 0) head.Number("server_handle", record.server_handle);
    head.End();
  }
  JsonLine& line = json_.Begin(event);
  line.Members(record.head);
  return line;
}

void SessionReport::OnBegin(const cProxy& session) {
  ++counters_.sessions[OriginOf(session)];
}

void SessionReport::OnCommand(const cProxy& session) {
  if (Record* const record = RecordOf(session)) ++record->commands;
}

void SessionReport::OnOwnReply(const cProxy& session, const OwnReply& reply) {
  const std::size_t index = CountedReplyIndex(reply.kind, reply.key);
  if (reply.sent && index < counters_.replies.size()) ++counters_.replies[index];
  const PolicyReply& row = FindPolicyReply(reply.kind);
  if (ClassOf(row.code) < 4) return;
  if (IsReplyToRcpt(reply.kind)) {
    const bool deferred = ClassOf(row.code) == 4;
    OnRecipient(session, deferred ? RecipientResult::kDeferred : RecipientResult::kRefused,
                reply.requested.Recipient);
  }
  const std::string_view stage = StageOf(reply);
  const RefusedAddresses addresses = AddressesOf(reply, stage);
  KeepRefusal(session, reply, addresses);
  if (json_.Wants("refusal")) WriteRefusal(session, reply, stage, addresses);
}

SessionReport::RefusedAddresses SessionReport::AddressesOf(const OwnReply& reply, std::string_view stage) {
  // An address that could not be read is not remembered; what is remembered then is another one.
  const bool has_recipient = stage == "rcpt" && reply.kind != ReplyKind::kRcptAddressSyntax;
  const bool has_sender = stage == "rcpt" || stage == "data" || stage == "content" ||
                          (stage == "mail" && reply.kind != ReplyKind::kMailAddressSyntax);
  // Without a transaction there is none.
  const bool out_of_order = FindPolicyReply(reply.kind).after == AfterReply::kCount;
  const auto is_none = [&](std::string_view address) { return out_of_order && address.empty(); };
  RefusedAddresses addresses;
  if (has_sender && !is_none(reply.requested.Sender)) addresses.from = reply.requested.Sender;
  if (has_recipient && !is_none(reply.requested.Recipient)) addresses.to = reply.requested.Recipient;
  return addresses;
}

void SessionReport::KeepRefusal(const cProxy& session, const OwnReply& reply,
                                const RefusedAddresses& addresses) {
  const bool delayed = reply.kind == ReplyKind::kRcptGreylisted || reply.kind == ReplyKind::kDataGreylisted;
  RefusalRecord& record = refusals_.Add(delayed);
  record.time = clock_.UnixMilliseconds();
  record.session = session.Id();
  record.client = session.ClientIP();
  record.key = KeyOf(reply);
  record.has_from = addresses.from.has_value();
  record.from = addresses.from.value_or("").substr(0, RefusalRecord::kMaxText);
  record.to = addresses.to.value_or("").substr(0, RefusalRecord::kMaxText);
}

void SessionReport::WriteRefusal(const cProxy& session, const OwnReply& reply, std::string_view stage,
                                 const RefusedAddresses& addresses) {
  JsonLine& line = BeginLine("refusal", session);
  line.Text("stage", stage);
  line.Text("key", KeyOf(reply));
  if (reply.sent) {
    line.Number("code", CodeNumber(reply.text));
    line.Text("text", reply.text);
  }
  line.Truth("sent", reply.sent);
  WriteIfAny(line, "name", session.Name());
  WriteIfAny(line, "helo", reply.requested.HeloDomain);
  if (addresses.from) line.Text("from", *addresses.from);
  if (addresses.to) line.Text("to", *addresses.to);
  if (!reply.list.name.empty()) {
    line.Text("list", reply.list.name);
    entry_.clear();
    AppendEntry(reply.list, session, reply.requested, entry_);
    WriteIfAny(line, "entry", entry_);
  }
  json_.End();
}

void SessionReport::OnGreylisting(const cProxy& session, const GreylistVerdict& verdict, bool callback,
                                  const RequestedState& requested) {
  const GreylistingResult outcome = ResultOf(verdict, callback);
  ++counters_.greylisting[static_cast<std::size_t>(outcome)];
  if (!json_.Wants("greylisting")) return;
  JsonLine& line = BeginLine("greylisting", session);
  line.Text("outcome", GreylistingResultName(outcome));
  line.Truth("blacklisted", verdict.blacklisted);
  if (verdict.attempts > 0) {
    line.Number("attempts", verdict.attempts);
    if (verdict.deferred) WriteTime(line, "delayed_until", verdict.delayed_until, delayed_until_);
    WriteTime(line, "expires", verdict.expires, expires_);
  }
  WriteIfAny(line, "name", session.Name());
  line.Text("from", requested.Sender);
  line.Text("to", requested.Recipient);
  json_.End();
}

void SessionReport::OnServerReply(const cProxy&, Command command, std::string_view reply) {
  const std::size_t reply_class = ClassOf(reply);
  if (reply_class != 0) ++counters_.server_replies[static_cast<std::size_t>(command)][reply_class - 2];
}

void SessionReport::OnTransaction(const cProxy& session, const RequestedState& requested) {
  if (Record* const record = RecordOf(session)) record->BeginMessage(requested.Sender, clock_.Monotonic());
}

void SessionReport::OnRecipient(const cProxy& session, RecipientResult result, std::string_view mailbox) {
  ++counters_.recipients[OriginOf(session)][static_cast<std::size_t>(result)];
  Record* const record = RecordOf(session);
  if (record == nullptr) return;
  const bool accepted = result == RecipientResult::kAccepted;
  ++(accepted ? record->recipients_count : record->refused_count);
  auto& list = accepted ? record->recipients : record->refused;
  if (list.size() < kMaxListed) list.Add(mailbox);
}

void SessionReport::OnContent(const cProxy& session, std::size_t octets) {
  if (Record* const record = RecordOf(session)) record->octets += static_cast<std::int64_t>(octets);
}

void SessionReport::OnMessage(const cProxy& session, std::string_view reply) {
  const bool taken = ClassOf(reply) == 2;
  if (taken) ++counters_.messages[OriginOf(session)];
  Record* const record = RecordOf(session);
  if (record == nullptr) return;
  record->messages += taken ? 1 : 0;
  const MonotonicTime now = clock_.Monotonic();
  if (json_.Wants("message")) {
    JsonLine& line = BeginLine("message", session);
    line.Text("from", record->from);
    line.Texts("recipients", record->recipients);
    line.Texts("refused", record->refused);
    line.Number("recipients_count", record->recipients_count);
    line.Number("refused_count", record->refused_count);
    line.Number("bytes", record->octets);
    line.Thousandths("seconds", MillisecondsBetween(record->began, now));
    line.Number("code", CodeNumber(reply));
    line.Text("reply", WithoutLineEnd(reply));
    json_.End();
  }
  record->BeginMessage({}, now);
}

void SessionReport::OnServerConnected(const cProxy&, std::chrono::nanoseconds time) {
  counters_.server_connect_time.Observe(time);
  server_failure_.clear();
}

void SessionReport::OnServerNotReached(const cProxy& session, int error, std::string_view description) {
  ++counters_.server_connect_failures;
  std::array<char, 12> number{};
  const auto end = std::to_chars(number.data(), number.data() + number.size(), error).ptr;
  server_failure_.assign("The server cannot be reached: error ").append(number.data(), end);
  server_failure_.append(", ").append(description);
  WriteFailure(session, "server", error, description);
}

void SessionReport::OnFailure(const cProxy& session, bool with_client, int error,
                              std::string_view description) {
  WriteFailure(session, with_client ? "client" : "server", error, description);
}

void SessionReport::WriteFailure(const cProxy& session, std::string_view side, int error,
                                 std::string_view description) {
  if (!json_.Wants("error")) return;
  JsonLine& line = BeginLine("error", session);
  line.Text("side", side);
  line.Number("number", error);
  line.Text("text", description);
  json_.End();
}

void SessionReport::OnServerLeft(const cProxy& session, const TransferredBytes& bytes) {
  counters_.bytes[1][0] += static_cast<std::uint64_t>(bytes.in);
  counters_.bytes[1][1] += static_cast<std::uint64_t>(bytes.out);
  Record* const record = RecordOf(session);
  if (record == nullptr) return;
  record->server = bytes;
  record->SetServerHandle(session.ServerHandle());
}

void SessionReport::OnEnd(const cProxy& session, SessionEnd how, const TransferredBytes& client) {
  ++counters_.sessions_ended[static_cast<std::size_t>(how)];
  counters_.bytes[0][0] += static_cast<std::uint64_t>(client.in);
  counters_.bytes[0][1] += static_cast<std::uint64_t>(client.out);
  Record* const record = RecordOf(session);
  if (record != nullptr && json_.Wants("session")) {
    // Of those who only look whether somebody is there nobody wants to know unless he has asked.
    const bool said_nothing = session.Admitted() && client.in == 0;
    if (!said_nothing || json_.HasNamedEvents()) {
      JsonLine& line = BeginLine("session", session);
      WriteIfAny(line, "name", session.Name());
      WriteIfAny(line, "helo", session.Helo());
      line.Number("commands", record->commands);
      line.Number("messages", record->messages);
      line.Number("client_bytes_in", client.in);
      line.Number("client_bytes_out", client.out);
      line.Number("server_bytes_in", record->server.in);
      line.Number("server_bytes_out", record->server.out);
      line.Thousandths("duration", std::llround(session.Duration() * kSecondsPerDay * 1000));
      line.Text("how", kEnds[static_cast<std::size_t>(how)]);
      json_.End();
    }
  }
  EndRecord(session.Id());
}

}  // namespace trabex
