#include "proxy/dialogue/client_command_filter.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "base/visible_text.h"
#include "proxy/dialogue/command_parameters.h"
#include "proxy/dialogue/mailbox.h"
#include "proxy/dialogue/message_size.h"
#include "proxy/dialogue/received_header.h"
#include "proxy/dialogue/response_changes.h"
#include "proxy/dialogue/session_macros.h"

namespace trabex {

namespace {

using Action = LineDecision::Action;
using Value = DecidingList::Value;
using enum ReplyKind;

// What the log shows of authentication data.
constexpr std::string_view kSecret = "***";

bool IsBlank(char byte) {
  return byte == ' ' || byte == '\t';
}

std::string_view WithoutLeadingBlanks(std::string_view text) {
  return std::string_view(std::find_if_not(text.begin(), text.end(), IsBlank), text.end());
}

std::string_view UpToBlank(std::string_view text) {
  return std::string_view(text.begin(), std::find_if(text.begin(), text.end(), IsBlank));
}

// An address literal resolves to the address inside.
std::string_view NameToLookUp(std::string_view helo_domain) {
  const std::string_view address = AddressInLiteral(helo_domain);
  return address.empty() ? helo_domain : address;
}

using MaybeRefusal = std::optional<Refusal>;

}  // namespace

// Filters one line: holds it with the state that it meets, and makes the decision.
class ClientCommandFilter::LineFilter {
 public:
  LineFilter(const ClientCommandFilter& filter, const DialogueState& state)
      : configuration_(filter.configuration_),
        clock_(filter.clock_),
        facts_(filter.facts_),
        greylisting_(filter.greylisting_),
        trace_(filter.trace_),
        state_(state) {
    requested_ = state.requested;
  }

  LineDecision Process(std::string_view line) {
    if (state_.phase == Phase::kAuthData) {
      ProcessAuthenticationData(line);
    } else {
      Parse(line);
      ProcessCommand(HoldsControl(WithoutLineEnd(line)));
    }
    return Complete();
  }

  LineDecision ProcessAddresses(std::string_view line, const HostAddresses& answer) {
    Parse(line);
    const auto& addresses = answer.addresses;
    if (!answer.found) {
      Answer({kHeloDNSError});
    } else if (std::find(addresses.begin(), addresses.end(), facts_.ClientIP()) == addresses.end()) {
      Answer({kHeloInvalid});
    } else {
      ForwardAsIs();
    }
    return Complete();
  }

  std::string BuildReply(const Refusal& refusal) const {
    const SessionMacros macros(configuration_, clock_, facts_, requested_, state_.offered,
                               state_.BytesReceived);
    std::string reply = BuildPolicyReply(refusal.kind, macros, configuration_.EnhancedStatusCodes);
    ApplyPolicyChanges(refusal.kind, refusal.key, requested_, reply, configuration_, macros, trace_);
    return reply;
  }

 private:
  // --- the form of a line

  void Parse(std::string_view line) {
    line = WithoutLeadingBlanks(WithoutLineEnd(line));
    text_ = UpToBlank(line);
    verb_ = ToUpper(text_);
    command_ = &FindCommand(verb_);
    const std::string_view rest = WithoutLeadingBlanks(line.substr(text_.size()));
    if (!rest.empty()) text_.append(" ").append(rest);
    std::replace(text_.begin(), text_.end(), '\t', ' ');
  }

  // What follows the verb, with its blank.
  std::string_view Rest() const { return std::string_view(text_).substr(verb_.size()); }

  void ProcessAuthenticationData(std::string_view line) {
    if (HoldsControl(WithoutLineEnd(line))) {
      Answer({kBadSyntax});
      decision_.end = true;
    } else {
      decision_.text = line;
      decision_.logged = std::string(kSecret).append(kCrLf);
    }
  }

  void ProcessCommand(bool holds_control) {
    if (command_->id == Command::kBdat) {
      // The octets of a refused BDAT follow all the same (RFC 3030), and are no commands.
      decision_.octets_follow = OctetCount(FirstParameter(Rest()));
      if (!decision_.octets_follow) {
        // The chunk's end is unknown.
        Answer({kBadSequence, "BadSeq.BDAT"});
        decision_.end = true;
        return;
      }
    }
    // Verbs are ASCII: some servers drop the eighth bit, or take more bytes for blanks.
    const bool is_disguised = command_->id == Command::kOther && BeginsWithCommand(verb_);
    if (holds_control || !IsAscii(verb_) || is_disguised) return Answer({kBadSyntax});
    if (IsNotImplemented()) return Answer({kNotImplemented});
    if (state_.transaction == Transaction::kRefused) {
      return Answer({command_->id == Command::kQuit ? kQuitBadIP : kBadSequenceBadIP});
    }
    if (command_->id == Command::kStarttls) return ProcessStartTls();
    if (NeedsTlsFirst()) return Answer({kTlsRequired});
    if (const MaybeRefusal refusal = CheckOrder()) return Answer(*refusal);
    ProcessPolicy();
  }

  // --- TLS

  // Without a certificate in the settings there is no STARTTLS, as there are no other commands that are blocked;
  // but a client that was offered it before a reload shall hear that it is gone for now.
  bool IsNotImplemented() const {
    if (!command_->blocked) return false;
    return command_->id != Command::kStarttls || !(facts_.TlsConfigured() || state_.offered.TlsOffered);
  }

  // RFC 3207, 4: what a client may say before TLS where it must use it.
  bool NeedsTlsFirst() const {
    if (!AppliesToClient(configuration_.TLS.Require, facts_) || facts_.TlsActive()) return false;
    const Command id = command_->id;
    return id != Command::kEhlo && id != Command::kNoop && id != Command::kQuit;
  }

  void ProcessStartTls() {
    if (facts_.TlsActive() || !state_.offered.Extensions.Has(command_->verb))
      return Answer({kNotImplemented});
    if (!Rest().empty()) return Answer({kTlsSyntax});
    if (const MaybeRefusal refusal = CheckOrder()) return Answer(*refusal);
    // TLS makes both sides forget what was said before. The server does not hear of it, and would keep a login.
    if (state_.login.ever) return Answer({kBadSequence, "BadSeq.Transaction"});
    if (!facts_.TlsReady()) return Answer({kTlsNotAvailable});
    decision_.action = Action::kStartTls;
    decision_.text = BuildReply({kTlsBegins});
  }

  // --- order

  // Of the rules of a transaction several may refuse; the last of them gives the answer.
  MaybeRefusal CheckOrder() const {
    const CommandRow& command = *command_;
    if (state_.transaction == Transaction::kNoGreeting && !command.before_greeting) {
      return Refusal{kBadSequenceNoHelo};
    }
    const bool no_more_chunks = state_.transaction == Transaction::kRefusedChunks;
    const bool chunks = state_.transaction == Transaction::kChunks || no_more_chunks;
    MaybeRefusal refusal;
    if (state_.transaction == Transaction::kOpen || chunks) {
      const bool extension_missing =
          !command.extension.empty() && !state_.offered.Extensions.Has(command.extension);
      if (command.transaction == TransactionRule::kOutsideTransaction || extension_missing) {
        refusal = {kBadSequence, "BadSeq.Transaction"};
      }
    } else if (command.transaction == TransactionRule::kInTransaction) {
      refusal = {kBadSequence, "BadSeq.NoTransaction"};
    }
    if (chunks && !command.in_chunk_sequence) refusal = {kBadSequence, "BadSeq.BDAT"};
    if (no_more_chunks && command.id == Command::kBdat) refusal = {kBadSequence, "BadSeq.BDAT"};
    return refusal;
  }

  // --- policy

  void ProcessPolicy() {
    switch (command_->id) {
      case Command::kEhlo:
      case Command::kHelo:
        return ProcessHelo();
      // SEND, SOML and SAML (RFC 821) open a transaction just as MAIL does.
      case Command::kMail:
      case Command::kSend:
      case Command::kSoml:
      case Command::kSaml:
        return ProcessMail();
      case Command::kRcpt:
        return ProcessRcpt();
      case Command::kData:
        return ProcessData();
      case Command::kBdat:
        return ProcessBdat();
      case Command::kXexch50:
        return ProcessXexch50();
      case Command::kAuth:
        return ProcessAuth();
      default:
        if (IsHeaderToServer()) return Answer({kNotImplemented});
        return ForwardAsIs();
    }
  }

  // Where the server takes a header for the client's address. To some the header is a command that counts in any
  // place of a session, so that a client could tell another address with it.
  bool IsHeaderToServer() const {
    const std::int32_t told_by = configuration_.SendClientIP;
    return (told_by == send_client_ip::kProxyVersion1 || told_by == send_client_ip::kProxyVersion2) &&
           verb_ == "PROXY";
  }

  // The one of two settings that holds for the client.
  template <class Setting>
  const Setting& ForClient(const Setting& local, const Setting& remote) const {
    return facts_.IsLocalClient() ? local : remote;
  }

  void ProcessAuth() {
    const bool withheld = facts_.TlsConfigured() && !facts_.TlsActive() &&
                          AppliesToClient(configuration_.TLS.RequireForAUTH, facts_);
    if (withheld) return Answer({kAuthTlsRequired});
    ForwardAsIs();
  }

  // --- HELO and EHLO

  void ProcessHelo() {
    std::string& domain = requested_.HeloDomain;
    requested_.EhloUsed = command_->id == Command::kEhlo;
    domain = FirstParameter(Rest());
    const std::int32_t checks = configuration_.ValidateHELO;
    const bool has_black_list =
        (checks & ForClient(validate_helo::kBlackListLocal, validate_helo::kBlackListRemote)) != 0;
    if (has_black_list && MatchesList(domain, configuration_.HELOBlackList, trace_)) {
      return Answer(
          {.kind = domain.empty() ? kHeloNoDomain : kHeloBlackList,
           .list = {.name = "HELOBlackList", .list = &configuration_.HELOBlackList, .value = Value::kHelo}});
    }
    const bool is_looked_up = (checks & ForClient(validate_helo::kDnsLocal, validate_helo::kDnsRemote)) != 0;
    if (!is_looked_up || HeloMatchesHostName()) return ForwardAsIs();
    if (domain.empty()) return Answer({kHeloNoDomain});
    decision_.action = Action::kAskForAddresses;
    decision_.text = NameToLookUp(domain);
  }

  bool HeloMatchesHostName() const {
    const std::string& domain = requested_.HeloDomain;
    const std::string host = facts_.ClientHostNameOrUnknown();
    return EqualFolded(domain, host) || EndsWithFolded(domain, "." + host) ||
           EndsWithFolded(host, "." + domain);
  }

  // --- MAIL and RCPT

  // `keyword` is what the rest of the line begins with.
  ParsedPath PathBehind(std::string_view keyword) const {
    return ParsePath(Rest().substr(keyword.size()),
                     static_cast<AddressesWithoutBrackets>(configuration_.ProcessAddressesWithoutBrackets));
  }

  void ProcessMail() {
    constexpr std::string_view kFrom = " FROM:";
    const Configuration& c = configuration_;
    if (!StartsWithNoCase(Rest(), kFrom)) return Answer({kMailAddressSyntax});
    const ParsedPath path = PathBehind(kFrom);
    requested_.DeclaredSize = 0;
    const auto address = NormalizeMailbox(path.address);
    // Whether the transaction that it begins may have addresses beyond ASCII.
    const bool smtp_utf8 = state_.offered.SmtpUtf8Offered && HasKeyword(path.parameters, "SMTPUTF8");
    if (path.verdict == ParsedPath::Verdict::kForwardUnchecked) {
      ++requested_.TransactionCount;
      requested_.BeginTransaction(address.value_or(path.address), smtp_utf8);
      return ForwardAsIs();
    }
    if (path.verdict == ParsedPath::Verdict::kSyntaxError || !address ||
        !(smtp_utf8 || IsAscii(path.address)) || !AreKeywordParameters(path.parameters)) {
      return Answer({kMailAddressSyntax});
    }
    requested_.Sender = *address;
    ++requested_.TransactionCount;
    const std::int32_t max_transactions = ForClient(c.MaxTransactionsLocal, c.MaxTransactionsRemote);
    if (max_transactions != 0 && requested_.TransactionCount > max_transactions) {
      return Answer({kMailTooManyTransactions});
    }
    if (const MaybeRefusal refusal = RefusedSender(c, *address, trace_)) return Answer(*refusal);
    if (const auto size = DeclaredSize(path.parameters); size && state_.offered.SizeLimit != 0) {
      requested_.DeclaredSize = *size;
      if (*size > state_.offered.SizeLimit) return Answer({kMailSize});
    }
    requested_.BeginTransaction(*address, smtp_utf8);
    const auto& replacements = ForClient(c.SenderReplacementsLocal, c.SenderReplacementsRemote);
    Forward(verb_ + " FROM:<" + Replaced(*address, replacements) + ">" + std::string(path.parameters));
  }

  void ProcessRcpt() {
    constexpr std::string_view kTo = " TO:";
    if (!StartsWithNoCase(Rest(), kTo)) return Answer({kRcptAddressSyntax});
    const ParsedPath path = PathBehind(kTo);
    const auto address = NormalizeMailbox(path.address);
    const std::string recipient = address.value_or(path.address);
    if (path.verdict == ParsedPath::Verdict::kForwardUnchecked) {
      ++requested_.RecipientCount;
      requested_.Recipient = recipient;
      return ForwardAsIs();
    }
    const bool taken = address && (requested_.SmtpUtf8 || IsAscii(path.address));
    // An address that is routed on needs no canonical form: the relaying test refuses it.
    const bool relayed = !facts_.IsLocalClient() && HasRouteInLocalPart(recipient);
    if (path.verdict == ParsedPath::Verdict::kSyntaxError || !(taken || relayed) ||
        !AreKeywordParameters(path.parameters)) {
      return Answer({kRcptAddressSyntax});
    }
    requested_.Recipient = recipient;
    ++requested_.RecipientCount;
    if (const MaybeRefusal refusal = CheckRecipient()) return Answer(*refusal);
    if (IsGreylisted()) return Answer({kRcptGreylisted});
    const auto& replacements =
        ForClient(configuration_.RecipientReplacementsLocal, configuration_.RecipientReplacementsRemote);
    Forward("RCPT TO:<" + Replaced(recipient, replacements) + ">" + std::string(path.parameters));
  }

  MaybeRefusal CheckRecipient() const {
    const Configuration& c = configuration_;
    const std::int32_t max_recipients = ForClient(c.MaxRecipientsLocal, c.MaxRecipientsRemote);
    if (max_recipients != 0 && requested_.RecipientCount > max_recipients) {
      return Refusal{kRcptTooManyRecipients};
    }
    return RefusedRecipient(c, facts_, requested_, trace_);
  }

  // Whether the recipient is refused for now.
  bool IsGreylisted() {
    const GreyListingSettings& settings = configuration_.GreyListing;
    if (facts_.IsLocalClient() || !settings.Enabled || !greylisting_) return false;
    const std::string name = facts_.ClientHostName();
    const auto known_name =
        facts_.ClientHostNameIsUnknown() ? std::nullopt : std::optional<std::string_view>(name);
    decision_.greylisting =
        greylisting_->ShouldDefer(known_name, facts_.ClientIP(), requested_.Sender, requested_.Recipient);
    if (!decision_.greylisting->deferred) return false;
    const std::int32_t action = settings.CallbackSenderAction;
    if (!MatchesList(requested_.Sender, settings.CallbackSendersList, trace_)) return true;
    if (action == callback_sender_action::kRefuse) return true;
    // A callback only asks whether the recipient exists: it passes here, and is refused when it begins to send.
    requested_.Greylisted |=
        action == callback_sender_action::kRefuseAtData || action == callback_sender_action::kCloseAtData;
    return false;
  }

  std::string Replaced(const std::string& address, const ReplacementTable& table) {
    try {
      const ReplacementTable::Rule* const rule = FindReplacementRule(address, table);
      if (rule == nullptr) return address;
      if (trace_ != nullptr) trace_->Replaced(table, *rule);
      return rule->value;
    } catch (const Error& error) {
      // A key may be a good pattern as a whole and bad in its parts. The mail goes on without replacement.
      decision_.failure = error;
      return address;
    }
  }

  // --- content

  void ProcessData() {
    if (!requested_.Greylisted) return ForwardAsIs();
    if (configuration_.GreyListing.CallbackSenderAction == callback_sender_action::kCloseAtData)
      return Break();
    Answer({kDataGreylisted});
  }

  void ProcessBdat() {
    if (requested_.Greylisted) return Break();
    const bool first_chunk = state_.transaction != Transaction::kChunks;
    const std::uint64_t sent = first_chunk ? 0 : state_.content_octets;
    if (IsTooLarge(sent + *decision_.octets_follow, configuration_, state_.offered)) {
      decision_.action = Action::kRefuseSize;
      return;
    }
    std::string header;
    if (first_chunk && requested_.RecipientCount != 0 && configuration_.AddReceived) {
      header = GenerateReceivedHeader(configuration_, clock_, facts_, requested_, state_.login).append(kCrLf);
    }
    const bool is_last = IsLastChunk(Rest());
    Forward(verb_ + ChunkParameters(Rest(), *decision_.octets_follow + header.size(), is_last));
    decision_.forwarded->last_chunk = is_last;
    // The header is content, which the log does not show.
    if (!header.empty()) decision_.logged = decision_.text;
    decision_.text.append(header);
  }

  void ProcessXexch50() {
    const auto octets = OctetCount(FirstParameter(Rest()));
    if (!octets) return Answer({kBadSequence, "BadSeq.Transaction"});
    Forward(verb_ + WithOctetCount(Rest(), *octets));
    decision_.forwarded->octets = *octets;
  }

  // --- the decision

  void Forward(std::string text) {
    decision_.text = std::move(text.append(kCrLf));
    decision_.forwarded = ForwardedCommand{verb_, command_->id};
    if (command_->id == Command::kAuth) {
      std::string hidden;
      decision_.logged = LoggedForm(decision_.text, Phase::kCommand, hidden);
    }
  }

  void ForwardAsIs() { Forward(text_); }

  void Answer(const Refusal& refusal) {
    const PolicyReply& row = FindPolicyReply(refusal.kind);
    if (row.after == AfterReply::kCount) ++requested_.BadSequenceCount;
    decision_.action = Action::kAnswer;
    decision_.text = BuildReply(refusal);
    decision_.end = row.after == AfterReply::kClose;
    decision_.refusal = refusal;
  }

  void Break() {
    decision_.action = Action::kBreak;
    decision_.text = "Connection broken due to Greylisting";
    decision_.refusal = Refusal{kDataGreylisted};
  }

  // What is checked after every line.
  LineDecision Complete() {
    const bool goes_on = decision_.action == Action::kForward || decision_.action == Action::kAnswer;
    decision_.too_many_bad_sequences = goes_on && requested_.BadSequenceCount > configuration_.MaxBadSeq;
    return std::move(decision_);
  }

  const Configuration& configuration_;
  const Clock& clock_;
  const SessionFacts& facts_;
  GreylistCheck* const greylisting_;
  DecisionTrace* const trace_;
  const DialogueState& state_;

  LineDecision decision_;
  RequestedState& requested_ = decision_.requested;
  std::string& verb_ = requested_.CurrentVerb;
  std::string text_;  // verb as written, one blank, rest; without CR LF
  const CommandRow* command_ = nullptr;
};

ClientCommandFilter::ClientCommandFilter(const Configuration& configuration, const Clock& clock,
                                         const SessionFacts& facts, GreylistCheck* greylisting,
                                         DecisionTrace* trace)
    : configuration_(configuration), clock_(clock), facts_(facts), greylisting_(greylisting), trace_(trace) {}

LineDecision ClientCommandFilter::ProcessIncomingData(std::string_view line,
                                                      const DialogueState& state) const {
  return LineFilter(*this, state).Process(line);
}

LineDecision ClientCommandFilter::ProcessAddresses(std::string_view line, const HostAddresses& answer,
                                                   const DialogueState& state) const {
  return LineFilter(*this, state).ProcessAddresses(line, answer);
}

std::string ClientCommandFilter::BuildReply(ReplyKind kind, const DialogueState& state) const {
  return LineFilter(*this, state).BuildReply({kind});
}

bool ClientCommandFilter::IsTooLong(std::string_view line, bool whole, Phase phase) {
  // A line without its end has at least one octet more to come.
  const std::size_t min_size = line.size() + (whole ? 0 : 1);
  if (min_size <= kMaxLine) return false;
  const std::string_view command = WithoutLeadingBlanks(line.substr(0, kMaxLine));
  const bool authentication =
      phase == Phase::kAuthData || StartsWithNoCase(command, "AUTH ") || StartsWithNoCase(command, "AUTH\t");
  return !authentication || min_size > kMaxAuthenticationLine;
}

std::string_view ClientCommandFilter::LoggedForm(std::string_view line, Phase phase, std::string& hidden) {
  const std::string_view text = WithoutLineEnd(line);
  const std::string_view line_end = line.substr(text.size());
  if (phase == Phase::kAuthData) return hidden.assign(kSecret).append(line_end);
  const std::string_view command = WithoutLeadingBlanks(text);
  const std::string_view verb = UpToBlank(command);
  if (!EqualNoCase(verb, "AUTH")) return line;
  const std::string_view rest = WithoutLeadingBlanks(command.substr(verb.size()));
  const std::string_view secret = WithoutLeadingBlanks(rest.substr(UpToBlank(rest).size()));
  if (secret.empty()) return line;
  return hidden.assign(text.substr(0, text.size() - secret.size())).append(kSecret).append(line_end);
}

}  // namespace trabex
