#include "app/explain_session.h"

#include <algorithm>
#include <utility>

#include "base/numbers.h"
#include "base/text.h"
#include "config/section_store.h"
#include "net/peer_name.h"
#include "proxy/admission.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/dialogue/reply_code.h"

namespace trabex {

namespace {

using Result = ExplainedStep::Result;
using Name = ExplainedClient::Name;
using Outcome = GreylistVerdict::Outcome;

constexpr std::string_view kCommon = section_name::kCommon;
constexpr std::string_view kGreyListing = section_name::kGreyListing;

// How long an iteration of the loop may wait for a name. Look-ups are answered long before.
constexpr Milliseconds kMaxWait{1000};

bool IsRefusal(std::string_view reply) {
  return reply.starts_with('4') || reply.starts_with('5');
}

// The address of a MAIL or RCPT line.
std::string AddressIn(std::string_view line) {
  const std::size_t open = line.find('<');
  const std::size_t close = line.rfind('>');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return {};
  return std::string(line.substr(open + 1, close - open - 1));
}

// What the settings make of one client. All decisions are made by the objects of a session: this one hands the
// lines to and fro, and notes on what the decisions rest.
class ExplainedSession final : private SessionFacts, private DialogueActions {
 public:
  ExplainedSession(const ExplainedClient& client, Configuration configuration, const ExplainInputs& inputs)
      : client_(client),
        inputs_(inputs),
        configuration_(std::move(configuration)),
        notes_(configuration_, inputs.places),
        admission_(configuration_, &notes_),
        greylisting_(configuration_.GreyListing, inputs.clock, inputs.loop, client.seen, inputs.find_record,
                     notes_),
        dialogue_(configuration_, inputs.clock, *this, &greylisting_, {}, &notes_) {}

  Explanation Play() {
    explanation_.client = FormatIPAddress(client_.address);
    if (AdmitAddress() && AdmitName() && Greet() && Mail()) {
      bool accepted = false;
      for (const std::string& recipient : client_.to) accepted |= Rcpt(recipient);
      if (client_.to.empty()) {
        Unchecked("RCPT", "to= is missing");
      } else if (accepted) {
        Data();
      } else {
        NotReached("DATA", {});
      }
    } else {
      SkipRest();
    }
    FindLast();
    return std::move(explanation_);
  }

 private:
  // --- the steps

  bool AdmitAddress() {
    ExplainedStep& step = Begin("client", explanation_.client);
    const bool balancer = MatchesList(client_.address, configuration_.ProxyProtocolFrom, &notes_);
    explanation_.is_local = admission_.IsLocal(client_.address);
    is_local_ = explanation_.is_local;
    const GroundNotes::Notes origin = notes_.Take();
    whitelisted_ = admission_.IsWhitelisted(client_.address);
    const auto refusal = whitelisted_ ? std::nullopt : admission_.RefusedByAddress(client_.address);
    if (refusal) Say(*refusal);
    End(step);
    step.notes.push_back((is_local_ ? "local by " : "remote by ") +
                         FormatGround(*origin.Find(kCommon, "LocalIPs")));
    step.asked.insert(step.asked.begin(), origin.asked.begin(), origin.asked.end());
    if (balancer) {
      step.notes.push_back("a balancer by " + FormatGround(*origin.Find(kCommon, "ProxyProtocolFrom")) +
                           ", judged as the client that its header names");
    }
    tls_counts_ = AppliesToClient(configuration_.TLS.Require, *this);
    if (tls_counts_) {
      step.notes.push_back("counts as under TLS, which it must use by " +
                           FormatGround(notes_.Value(section_name::kTLS, "Require")));
    }
    return step.result == Result::kTaken;
  }

  bool AdmitName() {
    FindName();
    ExplainedStep& step = Begin("name", host_name_.empty() ? "(none)" : host_name_);
    if (name_failed_) {
      step.notes.push_back(std::string("the look-up fails for now, which ") +
                           (ClientHostNameIsUnknown() ? "does not count" : "counts") + " as no name by " +
                           FormatGround(notes_.Value(section_name::kService, "DnsFailure")));
    }
    const bool decides = admission_.NameDecides(is_local_, whitelisted_);
    if (decides) {
      const auto name =
          ClientHostNameIsUnknown() ? std::nullopt : std::optional<std::string_view>(host_name_);
      if (const auto refusal = admission_.RefusedByName(name)) Say(*refusal);
    }
    End(step);
    if (!decides) {
      step.result = Result::kNotJudged;
      step.decided = whitelisted_ ? *white_listed_by_ : notes_.Value(kCommon, "ValidateRDNS");
    }
    return step.result != Result::kRefused;
  }

  bool Greet() {
    // Of the server; seen only where the settings make another one of it.
    ExplainedStep greeting{.name = "greeting", .value = {}};
    dialogue_.OnServerBytes("220 server ESMTP\r\n", *this);
    End(greeting);
    if (!greeting.reply->changed.empty()) explanation_.steps.push_back(greeting);
    if (greeting.result == Result::kRefused) return false;

    ExplainedStep& step = Begin("EHLO", client_.helo.value_or(""));
    // As without these checks; nothing else asks for the name.
    if (!client_.helo) configuration_.ValidateHELO = 0;
    Exchange(client_.helo ? "EHLO " + *client_.helo : "EHLO");
    End(step);
    if (!client_.helo) MarkUnchecked(step, "helo= is missing");
    if (client_.helo && configuration_.ValidateHELO == 0 && step.result == Result::kTaken) {
      step.notes.push_back("not judged by " + FormatGround(notes_.Value(kCommon, "ValidateHELO")));
    }
    const std::vector<std::string> offered = dialogue_.State().offered.Extensions.Lines();
    if (step.result != Result::kRefused && !offered.empty()) {
      std::string note = "offers ";
      for (std::size_t i = 0; i < offered.size(); ++i) note += (i == 0 ? "" : ", ") + offered[i];
      step.notes.push_back(std::move(note));
    }
    return step.result != Result::kRefused;
  }

  bool Mail() {
    ExplainedStep& step = Begin("MAIL", client_.from ? Shown(*client_.from) : "");
    if (!client_.from) {
      // What asks for the sender is not judged.
      configuration_.RestrictedSenders = {};
      configuration_.SenderReplacementsLocal = {};
      configuration_.SenderReplacementsRemote = {};
      greylisting_missed_ = !is_local_ && configuration_.GreyListing.Enabled;
      configuration_.GreyListing.Enabled = false;
    }
    std::string line = "MAIL FROM:<" + client_.from.value_or("") + ">";
    if (client_.size) line += " SIZE=" + std::to_string(*client_.size);
    const auto has_letters = [](const std::string& address) {
      return std::any_of(address.begin(), address.end(),
                         [](char c) { return static_cast<unsigned char>(c) > 127; });
    };
    const bool beyond_ascii = has_letters(client_.from.value_or("")) ||
                              std::any_of(client_.to.begin(), client_.to.end(), has_letters);
    if (beyond_ascii && dialogue_.State().offered.Extensions.Has("SMTPUTF8")) line += " SMTPUTF8";
    Exchange(line);
    End(step);
    if (step.reply && step.reply->key == FindPolicyReply(ReplyKind::kMailSize).key) {
      step.notes.push_back((LimitIsTheServers() ? "the server's limit is " : "the limit is ") +
                           FormatWhole(dialogue_.State().offered.SizeLimit) + " bytes");
    }
    if (client_.from) {
      TakeRewriting(step, *client_.from);
    } else {
      MarkUnchecked(step, "from= is missing");
    }
    if (!client_.size && dialogue_.State().offered.SizeLimit != 0) {
      step.notes.emplace_back("size not judged, size= is missing");
    }
    return step.result != Result::kRefused;
  }

  bool Rcpt(const std::string& recipient) {
    ExplainedStep& step = Begin("RCPT", recipient);
    Exchange("RCPT TO:<" + recipient + ">");
    End(step);
    TakeRewriting(step, recipient);
    if (greylisting_missed_) step.notes.emplace_back("greylisting not judged, from= is missing");
    return step.result == Result::kTaken;
  }

  void Data() {
    ExplainedStep& step = Begin("DATA", {});
    Exchange("DATA");
    End(step);
  }

  void SkipRest() {
    const auto has = [this](std::string_view name) {
      return std::any_of(explanation_.steps.begin(), explanation_.steps.end(),
                         [&](const ExplainedStep& step) { return step.name == name; });
    };
    if (!has("name")) NotReached("name", client_.name);
    if (!has("EHLO")) NotReached("EHLO", client_.helo.value_or(""));
    if (!has("MAIL")) NotReached("MAIL", client_.from ? Shown(*client_.from) : "");
    for (const std::string& recipient : client_.to) NotReached("RCPT", recipient);
    if (!client_.to.empty()) NotReached("DATA", {});
  }

  // --- what becomes of a step

  static std::string Shown(const std::string& sender) { return sender.empty() ? "<>" : sender; }

  ExplainedStep& Begin(std::string name, std::string value) {
    // None is kept beyond the step.
    return explanation_.steps.emplace_back(ExplainedStep{.name = std::move(name), .value = std::move(value)});
  }
  void NotReached(std::string name, std::string value) {
    Begin(std::move(name), std::move(value)).result = Result::kNotReached;
  }
  void Unchecked(std::string name, std::string reason) {
    MarkUnchecked(Begin(std::move(name), {}), std::move(reason));
  }
  static void MarkUnchecked(ExplainedStep& step, std::string reason) {
    if (step.result == Result::kRefused) return;
    step.result = Result::kUnchecked;
    step.reason = std::move(reason);
    step.decided.reset();
  }

  // Takes what the step has brought.
  void End(ExplainedStep& step) {
    GroundNotes::Notes notes = notes_.Take();
    if (const Ground* const white = notes.Find(kCommon, "IPWhiteList")) white_listed_by_ = *white;
    step.asked = notes.asked;
    step.rewritten_by = notes.replaced;
    TakeReply(step, notes);
    if (verdict_) TakeVerdict(step, notes);
    const bool refused_by_own = own_ && IsRefusal(FindPolicyReply(own_->kind).code);
    const bool refused = refused_by_own || (step.reply && IsRefusal(step.reply->text));
    step.result = refused ? Result::kRefused : Result::kTaken;
    if (refused_by_own) {
      step.decided = DecidedBy(*own_, notes);
      if (!step.decided) step.reason = own_->key;
    } else if (refused) {
      step.decided = notes.changed.back();
    } else if (const Ground* const match = notes.LastMatch(kCommon)) {
      step.decided = *match;
    }
    own_.reset();
    verdict_.reset();
  }

  void TakeReply(ExplainedStep& step, const GroundNotes::Notes& notes) {
    const std::string said(WithoutLineEnd(std::exchange(to_client_, {})));
    if (own_) {
      step.reply = {.text = own_->sent ? said : "", .key = own_->key, .own = true, .changed = notes.changed};
    } else if (!server_reply_.empty()) {
      const std::string code(CodeOf(server_reply_));
      const std::string& verb = dialogue_.State().forwarded.ForwardedVerb;
      step.reply = {.text = said, .key = verb.empty() ? code : verb + "." + code, .changed = notes.changed};
    }
    server_reply_.clear();
  }

  void TakeVerdict(ExplainedStep& step, const GroundNotes::Notes& notes) {
    ExplainedStep::Greylisting shown{
        .verdict = *verdict_, .callback = callback_, .was_known = greylisting_.WasKnown()};
    for (const Ground& ground : notes.asked) {
      if (!ground.matches || ground.section != kGreyListing) continue;
      (ground.key == "CallbackSendersList" ? shown.callback_by : shown.list) = ground;
    }
    step.greylisting = std::move(shown);
  }

  void TakeRewriting(ExplainedStep& step, const std::string& address) {
    const std::string sent = AddressIn(std::exchange(to_server_, {}));
    if (step.result == Result::kTaken && sent != address) step.rewritten = sent;
  }

  // A reply of the proxy, as far as it outlives the call.
  struct Own {
    ReplyKind kind;
    std::string key;
    std::string list;
    bool sent;
  };

  // Of two limits the smaller one counts.
  bool LimitIsTheServers() const { return dialogue_.State().offered.SizeLimit < configuration_.MaxSize; }

  // The key that a refusal rests on. Those without a list rest on a number.
  std::optional<Ground> DecidedBy(const Own& own, const GroundNotes::Notes& notes) const {
    switch (own.kind) {
      case ReplyKind::kNoPtr:
        return notes_.Value(kCommon, "ValidateRDNS");
      case ReplyKind::kHeloInvalid:
      case ReplyKind::kHeloDNSError:
        return notes_.Value(kCommon, "ValidateHELO");
      case ReplyKind::kHeloNoDomain:
        if (own.list.empty()) return notes_.Value(kCommon, "ValidateHELO");
        break;
      case ReplyKind::kMailTooManyTransactions:
        return notes_.Value(kCommon, is_local_ ? "MaxTransactionsLocal" : "MaxTransactionsRemote");
      case ReplyKind::kMailSize:
        if (LimitIsTheServers()) break;
        return notes_.Value(kCommon, "MaxSize");
      case ReplyKind::kRcptTooManyRecipients:
        return notes_.Value(kCommon, is_local_ ? "MaxRecipientsLocal" : "MaxRecipientsRemote");
      case ReplyKind::kRcptGreylisted:
        return GreylistedBy();
      case ReplyKind::kDataGreylisted:
        return notes_.Value(kGreyListing, "CallbackSenderAction");
      default:
        break;
    }
    if (own.list.empty()) return std::nullopt;
    const Ground* const asked = notes.Find(kCommon, own.list);
    return asked != nullptr ? *asked : notes_.NoEntry(kCommon, own.list);
  }

  // The delay, or once it is over the number of attempts.
  Ground GreylistedBy() const {
    const bool waits = !verdict_ || inputs_.clock.UniversalNow() < verdict_->delayed_until;
    const bool blacklisted = verdict_ && verdict_->blacklisted;
    if (waits) return notes_.Value(kGreyListing, blacklisted ? "BlackListDelay" : "Delay");
    return notes_.Value(kGreyListing, blacklisted ? "BlackListMinCount" : "MinCount");
  }

  void FindLast() {
    std::vector<ExplainedStep>& steps = explanation_.steps;
    for (std::size_t i = 0; i < steps.size(); ++i) {
      if (steps[i].reply) explanation_.last = i;
      if (steps[i].result == Result::kRefused) return;
    }
  }

  // --- the client and the server

  void FindName() {
    if (client_.name_is == Name::kGiven) host_name_ = client_.name;
    name_failed_ = client_.name_is == Name::kFailed;
    if (client_.name_is != Name::kAsked) return;
    bool answered = false;
    FindPeerName(inputs_.names, client_.address, configuration_.ConfirmHostNames, [&](const PeerName& found) {
      answered = true;
      host_name_ = found.name;
      name_failed_ = found.failed;
    });
    while (!answered) inputs_.loop.RunOnce(kMaxWait);
  }

  void Say(const Admission::Refusal& refusal) { dialogue_.Say(refusal.kind, *this, refusal.list); }

  // Has the line taken, and the reply to it come.
  void Exchange(const std::string& line) {
    dialogue_.OnClientBytes(line + "\r\n", *this);
    if (asked_name_) LookUp();
    if (dialogue_.phase() == Phase::kReply) dialogue_.OnServerBytes(ServersReply(line), *this);
  }

  std::string ServersReply(const std::string& line) const {
    if (line == "DATA") return "354 Go ahead\r\n";
    if (!line.starts_with("EHLO")) return "250 OK\r\n";
    std::string reply = "250-server\r\n";
    if (client_.server_offers.empty()) return "250 server\r\n";
    for (const std::string& extension : client_.server_offers) {
      reply += (&extension == &client_.server_offers.back() ? "250 " : "250-") + extension + "\r\n";
    }
    return reply;
  }

  void LookUp() {
    std::optional<AddressAnswer> answer;
    inputs_.names.FindAddresses(*std::exchange(asked_name_, std::nullopt), LookupFamilyOf(client_.address),
                                [&](const AddressAnswer& found) { answer = found; });
    while (!answer) inputs_.loop.RunOnce(kMaxWait);
    dialogue_.OnAddresses({answer->error == 0, answer->addresses}, *this);
  }

  void ToServer(std::string_view bytes, bool /*more_follows*/) override { to_server_ = bytes; }
  void ToClient(std::string_view reply) override {
    to_client_.append(reply);
    bytes_sent_ += std::ssize(reply);
  }
  void AskForAddresses(std::string_view host_name) override { asked_name_ = host_name; }
  // What is not said here.
  void StartTls(std::string_view /*last_words*/) override {}
  void ClientIs(const std::optional<ProxiedConnection>& /*connection*/) override {}
  void StartServerTls() override {}
  void AskForClientNames() override {}
  void GoOnWithoutServer() override {}
  void CloseServer() override {}
  void EndAfterPause() override {}
  void Log(Side /*side*/, std::int32_t /*level*/, std::string_view /*text*/) override {}
  void LogFailure(const Error& /*error*/) override {}

  void OnOwnReply(const OwnReply& reply) override {
    own_ = Own{reply.kind, std::string(reply.key), std::string(reply.list.name), reply.sent};
  }
  void OnGreylisting(const GreylistVerdict& verdict, bool callback, const RequestedState&) override {
    verdict_ = verdict;
    callback_ = callback;
  }
  void OnServerReply(Command, std::string_view reply) override { server_reply_ = reply; }

  IPAddress ClientIP() const override { return client_.address; }
  bool IsLocalClient() const override { return is_local_; }
  std::string ClientHostName() const override { return host_name_; }
  bool ClientHostNameIsUnknown() const override {
    return name_failed_ && configuration_.Service.DnsFailure == dns_failure::kUnknown;
  }
  std::int64_t BytesSent() const override { return bytes_sent_; }
  bool TlsConfigured() const override { return configuration_.TLS.WantsCertificate(); }
  bool TlsReady() const override { return TlsConfigured(); }
  bool TlsActive() const override { return tls_counts_; }
  TlsTexts TlsText() const override { return {}; }
  bool ServerTlsActive() const override { return false; }

  const ExplainedClient& client_;
  const ExplainInputs& inputs_;
  Configuration configuration_;
  GroundNotes notes_;
  Admission admission_;
  ExplainedGreylisting greylisting_;
  Dialogue dialogue_;
  Explanation explanation_;

  bool is_local_ = false;
  bool whitelisted_ = false;
  std::optional<Ground> white_listed_by_;
  bool tls_counts_ = false;
  bool greylisting_missed_ = false;
  std::string host_name_;
  bool name_failed_ = false;

  // Of the step under way.
  std::string to_client_;
  std::string to_server_;
  std::string server_reply_;
  std::optional<std::string> asked_name_;
  std::optional<Own> own_;
  std::optional<GreylistVerdict> verdict_;
  bool callback_ = false;
  std::int64_t bytes_sent_ = 0;
};

}  // namespace

Explanation ExplainClient(const ExplainedClient& client, Configuration configuration,
                          const ExplainInputs& inputs) {
  return ExplainedSession(client, std::move(configuration), inputs).Play();
}

}  // namespace trabex
