#include "proxy/dialogue/client_command_filter.h"

#include <algorithm>
#include <utility>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "proxy/dialogue/command_parameters.h"
#include "proxy/dialogue/control_characters.h"
#include "proxy/dialogue/mailbox.h"
#include "proxy/dialogue/received_header.h"
#include "proxy/dialogue/response_changes.h"

namespace trabex {

namespace {

using Action = LineDecision::Action;

// What the log shows of authentication data.
constexpr std::string_view kSecret = "***";

bool IsBlank(char byte) {
  return byte == ' ' || byte == '\t';
}

std::string_view WithoutLeadingBlanks(std::string_view text) {
  const auto first = std::find_if_not(text.begin(), text.end(), IsBlank);
  return text.substr(static_cast<std::size_t>(first - text.begin()));
}

std::string_view WithoutLineEnd(std::string_view line) {
  return line.ends_with(kCrLf) ? line.substr(0, line.size() - kCrLf.size()) : line;
}

// An address literal (RFC 5321, 4.1.3) resolves to the address inside.
std::string_view NameToLookUp(std::string_view helo_domain) {
  if (helo_domain.size() > 2 && helo_domain.front() == '[' && helo_domain.back() == ']') {
    const std::string_view inside = helo_domain.substr(1, helo_domain.size() - 2);
    if (ParseIPv4Address(inside)) return inside;
  }
  return helo_domain;
}

// A three-list test refuses a value that is neither in the white list nor in the allow list without being
// black-listed.
bool RefusedByLists(std::string_view value, const ExpressionList& white, const ExpressionList& allow,
                    const ExpressionList& black) {
  if (mText::MatchList(value, white)) return false;
  return !mText::MatchList(value, allow) || mText::MatchList(value, black);
}

}  // namespace

ClientCommandFilter::ClientCommandFilter(const Configuration& configuration, const Clock& clock,
                                         const SessionFacts& facts, SessionState& state,
                                         GreylistCheck* greylisting)
    : configuration_(configuration),
      clock_(clock),
      facts_(facts),
      state_(state),
      greylisting_(greylisting),
      macros_(configuration, clock, facts, state) {}

ClientCommandFilter::Line ClientCommandFilter::TakeApart(std::string_view line) {
  line = WithoutLeadingBlanks(WithoutLineEnd(line));
  const auto verb_end =
      static_cast<std::size_t>(std::find_if(line.begin(), line.end(), IsBlank) - line.begin());
  const std::string_view rest = WithoutLeadingBlanks(line.substr(verb_end));
  Line result;
  result.text = line.substr(0, verb_end);
  result.verb = ToUpper(result.text);
  if (!rest.empty()) result.text.append(" ").append(rest);
  std::replace(result.text.begin(), result.text.end(), '\t', ' ');
  result.row = &FindCommand(result.verb);
  return result;
}

LineDecision ClientCommandFilter::ProcessIncomingData(std::string_view line) {
  return Complete(ProcessLine(line));
}

LineDecision ClientCommandFilter::ProcessLine(std::string_view text) {
  if (state_.AuthenticationData) return ProcessAuthenticationData(text);
  const Line line = TakeApart(text);
  state_.CurrentVerb = line.verb;
  const bool is_bdat = line.row->command == Command::kBdat;
  const auto octets = is_bdat ? OctetCount(FirstParameter(line.Rest())) : std::optional<std::uint64_t>(0);
  // Nobody can tell where the content ends.
  if (!octets) return Closing(Answer({ReplyKind::kBadSequence, "BadSeq.BDAT"}));

  LineDecision decision;
  // Bytes beyond ASCII in a verb are a blank to servers that drop the eighth bit, or know more blanks.
  if (HoldsControl(WithoutLineEnd(text)) || !IsAscii(line.verb)) {
    decision = Answer({ReplyKind::kBadSyntax, ""});
  } else if (line.row->never_forwarded) {
    decision = Answer({ReplyKind::kNotImplemented, ""});
  } else if (facts_.Refused()) {
    decision = ProcessRefusedSession(line);
  } else if (const MaybeRefusal refusal = CheckOrder(line)) {
    decision = Answer(*refusal);
  } else if (is_bdat) {
    decision = ProcessBdat(line, *octets);
  } else {
    decision = ProcessPolicy(line);
  }
  // The octets of a refused BDAT follow all the same (RFC 3030), and are no commands.
  if (is_bdat && decision.action == Action::kAnswer) state_.Content.BeginDrop(*octets);
  return decision;
}

LineDecision ClientCommandFilter::ProcessPolicy(const Line& line) {
  switch (line.row->command) {
    case Command::kEhlo:
    case Command::kHelo:
      return ProcessHelo(line);
    // SEND, SOML and SAML (RFC 821) open a transaction just as MAIL does.
    case Command::kMail:
    case Command::kSend:
    case Command::kSoml:
    case Command::kSaml:
      return ProcessMail(line);
    case Command::kRcpt:
      return ProcessRcpt(line);
    case Command::kData:
      return ProcessData(line);
    case Command::kXexch50:
      return ProcessXexch50(line);
    default:
      return ForwardAsIs(line);
  }
}

// --- the form of a line

LineDecision ClientCommandFilter::ProcessAuthenticationData(std::string_view line) {
  // Answered in any case; the server's reply says whether more is asked for.
  state_.AuthenticationData = false;
  if (HoldsControl(WithoutLineEnd(line))) return Closing(Answer({ReplyKind::kBadSyntax, ""}));
  LineDecision decision;
  decision.text = line;
  decision.logged = std::string(kSecret).append(kCrLf);
  state_.Expected = ReplyExpected::kCommand;
  return decision;
}

std::optional<LineDecision> ClientCommandFilter::RefuseLongLine(std::string_view begin) {
  const bool authentication = state_.AuthenticationData ||
                              StartsWithNoCase(WithoutLeadingBlanks(begin.substr(0, kMaxLine)), "AUTH ") ||
                              StartsWithNoCase(WithoutLeadingBlanks(begin.substr(0, kMaxLine)), "AUTH\t");
  const std::size_t most = authentication ? kMaxAuthenticationLine : kMaxLine;
  const std::size_t end = begin.find(kCrLf);
  const std::size_t length = end == std::string_view::npos ? begin.size() : end + kCrLf.size();
  // A line without its end has at least one octet more to come.
  if (length < most || (length == most && end != std::string_view::npos)) return std::nullopt;
  return Answer({ReplyKind::kLineTooLong, ""});
}

LineDecision ClientCommandFilter::RefuseAmbiguousEnd() {
  return Answer({ReplyKind::kDataAmbiguousEnd, ""});
}

std::string ClientCommandFilter::LoggedForm(std::string_view line) const {
  const std::string_view text = WithoutLineEnd(line);
  const std::string_view line_end = line.substr(text.size());
  if (state_.AuthenticationData) return std::string(kSecret).append(line_end);
  const std::string_view command = WithoutLeadingBlanks(text);
  if (!StartsWithNoCase(command, "AUTH") || (command.size() > 4 && !IsBlank(command[4])))
    return std::string(line);
  const std::string_view rest = WithoutLeadingBlanks(command.substr(4));
  const auto mechanism_end = std::find_if(rest.begin(), rest.end(), IsBlank);
  const std::string_view secret =
      WithoutLeadingBlanks(rest.substr(static_cast<std::size_t>(mechanism_end - rest.begin())));
  if (secret.empty()) return std::string(line);
  return std::string(text.substr(0, text.size() - secret.size())).append(kSecret).append(line_end);
}

LineDecision ClientCommandFilter::ProcessRefusedSession(const Line& line) {
  if (line.row->command == Command::kQuit) return Answer({ReplyKind::kQuitBadIP, ""});
  return Answer({ReplyKind::kBadSequenceBadIP, ""});
}

// --- order

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckOrder(const Line& line) const {
  if (!state_.GreetingDone && !line.row->before_greeting) return Refusal{ReplyKind::kBadSequenceNoHelo, ""};
  return CheckTransactionOrder(line);
}

// One after the other; when several refuse, the last one answers.
ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckTransactionOrder(const Line& line) const {
  const CommandRow& row = *line.row;
  MaybeRefusal refusal;
  if (state_.TransactionOpen) {
    const bool extension_missing = !row.extension.empty() && !state_.Extensions.Has(row.extension);
    if (row.place == Place::kOpensTransaction || extension_missing) {
      refusal = {ReplyKind::kBadSequence, "BadSeq.Transaction"};
    }
  } else if (row.place == Place::kInTransaction && !(row.command == Command::kBdat && state_.ChunkSequence)) {
    refusal = {ReplyKind::kBadSequence, "BadSeq.NoTransaction"};
  }
  if (state_.ChunkSequence && !row.in_chunk_sequence) refusal = {ReplyKind::kBadSequence, "BadSeq.BDAT"};
  return refusal;
}

// --- HELO and EHLO

LineDecision ClientCommandFilter::ProcessHelo(const Line& line) {
  state_.EhloUsed = line.row->command == Command::kEhlo;
  state_.HeloDomain = FirstParameter(line.Rest());
  if (const MaybeRefusal refusal = CheckHeloBlackList()) return Answer(*refusal);
  const std::int32_t dns_check =
      facts_.IsLocalClient() ? validate_helo::kDnsLocal : validate_helo::kDnsRemote;
  if ((configuration_.ValidateHELO & dns_check) == 0 || HeloMatchesHostName()) return ForwardAsIs(line);
  if (state_.HeloDomain.empty()) return Answer({ReplyKind::kHeloNoDomain, ""});
  waiting_line_ = line.text;
  LineDecision decision;
  decision.action = Action::kWaitForName;
  decision.text = NameToLookUp(state_.HeloDomain);
  return decision;
}

LineDecision ClientCommandFilter::ProcessNameAnswer(const AddressAnswer& answer) {
  const Line line = TakeApart(std::exchange(waiting_line_, {}));
  if (answer.error != 0) return Complete(Answer({ReplyKind::kHeloDNSError, ""}));
  const std::uint32_t client = facts_.ClientIP().Number();
  const bool confirmed =
      std::find(answer.addresses.begin(), answer.addresses.end(), client) != answer.addresses.end();
  return Complete(confirmed ? ForwardAsIs(line) : Answer({ReplyKind::kHeloInvalid, ""}));
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckHeloBlackList() const {
  const std::int32_t check =
      facts_.IsLocalClient() ? validate_helo::kBlackListLocal : validate_helo::kBlackListRemote;
  if ((configuration_.ValidateHELO & check) == 0) return std::nullopt;
  if (!mText::MatchList(state_.HeloDomain, configuration_.HELOBlackList)) return std::nullopt;
  return Refusal{state_.HeloDomain.empty() ? ReplyKind::kHeloNoDomain : ReplyKind::kHeloBlackList, ""};
}

bool ClientCommandFilter::HeloMatchesHostName() const {
  const std::string& domain = state_.HeloDomain;
  const std::string host = facts_.ClientHostNameOrUnknown();
  return EqualFolded(domain, host) || EndsWithFolded(domain, "." + host) ||
         EndsWithFolded(host, "." + domain);
}

// --- MAIL

LineDecision ClientCommandFilter::ProcessMail(const Line& line) {
  constexpr std::string_view kFrom = " FROM:";
  if (!StartsWithNoCase(line.Rest(), kFrom)) return Answer({ReplyKind::kMailAddressSyntax, ""});
  const PathArgument path =
      ParsePath(line.Rest().substr(kFrom.size()),
                static_cast<BareAddresses>(configuration_.ProcessAddressesWithoutBrackets));
  state_.DeclaredSize = 0;
  const auto address = NormalizeMailbox(path.address);
  const bool smtp_utf8 = AsksForSmtpUtf8(path.parameters);
  if (path.verdict == PathArgument::Verdict::kForwardUnchecked) {
    ++state_.TransactionCount;
    state_.BeginTransaction(address.value_or(path.address), smtp_utf8);
    return ForwardAsIs(line);
  }
  if (path.verdict == PathArgument::Verdict::kSyntaxError || !address ||
      !(smtp_utf8 || IsAscii(path.address)) || !AreKeywordParameters(path.parameters)) {
    return Answer({ReplyKind::kMailAddressSyntax, ""});
  }
  state_.Sender = *address;
  if (const MaybeRefusal refusal = CheckMail(path.parameters)) return Answer(*refusal);

  const std::string sender =
      Replaced(*address, facts_.IsLocalClient() ? configuration_.SenderReplacementsLocal
                                                : configuration_.SenderReplacementsRemote);
  state_.BeginTransaction(*address, smtp_utf8);
  return Forward(line, line.verb + " FROM:<" + sender + ">" + std::string(path.parameters));
}

// Whether the transaction that a MAIL with these parameters begins may have addresses beyond ASCII.
bool ClientCommandFilter::AsksForSmtpUtf8(std::string_view parameters) const {
  return state_.SmtpUtf8Offered && HasKeyword(parameters, "SMTPUTF8");
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckMail(std::string_view parameters) {
  ++state_.TransactionCount;
  const std::int32_t most =
      facts_.IsLocalClient() ? configuration_.MaxTransactionsLocal : configuration_.MaxTransactionsRemote;
  if (most != 0 && state_.TransactionCount > most) return Refusal{ReplyKind::kMailTooManyTransactions, ""};
  if (!state_.Sender.empty() &&
      RefusedByLists(state_.Sender, configuration_.SendersWhiteList, configuration_.SendersAllowList,
                     configuration_.SendersBlackList)) {
    return Refusal{ReplyKind::kMailBlackList, ""};
  }
  return CheckSize(parameters);
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckSize(std::string_view parameters) {
  if (state_.SizeLimit == 0) return std::nullopt;
  const auto size = DeclaredSize(parameters);
  if (!size) return std::nullopt;
  state_.DeclaredSize = *size;
  if (*size <= state_.SizeLimit) return std::nullopt;
  return Refusal{ReplyKind::kMailSize, ""};
}

// --- RCPT

LineDecision ClientCommandFilter::ProcessRcpt(const Line& line) {
  constexpr std::string_view kTo = " TO:";
  if (!StartsWithNoCase(line.Rest(), kTo)) return Answer({ReplyKind::kRcptAddressSyntax, ""});
  const PathArgument path =
      ParsePath(line.Rest().substr(kTo.size()),
                static_cast<BareAddresses>(configuration_.ProcessAddressesWithoutBrackets));
  const auto address = NormalizeMailbox(path.address);
  if (path.verdict == PathArgument::Verdict::kForwardUnchecked) {
    ++state_.RecipientCount;
    state_.Recipient = address.value_or(path.address);
    return ForwardAsIs(line);
  }
  const bool taken = address && (state_.SmtpUtf8 || IsAscii(path.address));
  const std::string recipient_address = address.value_or(path.address);
  // An address that is routed on needs no one form: the relaying test refuses it.
  const bool relayed = !facts_.IsLocalClient() && HasRouteInLocalPart(recipient_address);
  if (path.verdict == PathArgument::Verdict::kSyntaxError || !(taken || relayed) ||
      !AreKeywordParameters(path.parameters)) {
    return Answer({ReplyKind::kRcptAddressSyntax, ""});
  }
  state_.Recipient = recipient_address;
  ++state_.RecipientCount;
  if (const MaybeRefusal refusal = CheckRecipient()) return Answer(*refusal);
  if (const MaybeRefusal refusal = CheckGreylisting()) return Answer(*refusal);

  const std::string recipient =
      Replaced(state_.Recipient, facts_.IsLocalClient() ? configuration_.RecipientReplacementsLocal
                                                        : configuration_.RecipientReplacementsRemote);
  return Forward(line, "RCPT TO:<" + recipient + ">" + std::string(path.parameters));
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckRecipient() const {
  const Configuration& c = configuration_;
  const bool local_client = facts_.IsLocalClient();
  const std::int32_t most = local_client ? c.MaxRecipientsLocal : c.MaxRecipientsRemote;
  if (most != 0 && state_.RecipientCount > most) return Refusal{ReplyKind::kRcptTooManyRecipients, ""};

  const std::string& recipient = state_.Recipient;
  const bool local_domain = mText::MatchList(AddressDomain(recipient), c.LocalDomains);
  if (local_client) {
    if (!local_domain && mText::MatchList(state_.Sender, c.RestrictedSenders)) {
      return Refusal{ReplyKind::kRcptRestricted, ""};
    }
    if (RefusedByLists(recipient, c.RecipientsWhiteListLocal, c.RecipientsAllowListLocal,
                       c.RecipientsBlackListLocal)) {
      return Refusal{ReplyKind::kRcptBlackListLocal, ""};
    }
    return std::nullopt;
  }
  if (!local_domain || HasRouteInLocalPart(recipient)) return Refusal{ReplyKind::kRcptRelaying, ""};
  if (RefusedByLists(recipient, c.RecipientsWhiteListRemote, c.RecipientsAllowListRemote,
                     c.RecipientsBlackListRemote)) {
    return Refusal{ReplyKind::kRcptBlackListRemote, ""};
  }
  if (mText::MatchList(recipient, c.PrivateRecipients)) return Refusal{ReplyKind::kRcptPrivate, ""};
  return std::nullopt;
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckGreylisting() {
  const GreyListingSettings& settings = configuration_.GreyListing;
  if (facts_.IsLocalClient() || !settings.Enabled || !greylisting_) return std::nullopt;
  if (!greylisting_->ShouldDefer(facts_.ClientHostName(), facts_.ClientIP(), state_.Sender,
                                 state_.Recipient)) {
    return std::nullopt;
  }
  const bool callback = mText::MatchList(state_.Sender, settings.CallbackSendersList);
  if (!callback || settings.CallbackSenderAction == callback_sender_action::kRefuse)
    return Refusal{ReplyKind::kRcptGreylisted, ""};
  // A callback only asks whether the recipient exists; it is let through and refused when it wants to send.
  if (settings.CallbackSenderAction == callback_sender_action::kRefuseAtData ||
      settings.CallbackSenderAction == callback_sender_action::kCloseAtData) {
    state_.Greylisted = true;
  }
  return std::nullopt;
}

// --- content

LineDecision ClientCommandFilter::ProcessData(const Line& line) {
  if (!state_.Greylisted) return ForwardAsIs(line);
  if (configuration_.GreyListing.CallbackSenderAction == callback_sender_action::kCloseAtData) return Break();
  return Answer({ReplyKind::kDataGreylisted, ""});
}

LineDecision ClientCommandFilter::ProcessBdat(const Line& line, std::uint64_t octets) {
  if (state_.Greylisted) return Break();
  const bool first_chunk = !state_.ChunkSequence;
  state_.LastChunk = IsLastChunk(line.Rest());
  state_.ChunkSequence = !state_.LastChunk;
  state_.Content.BeginOctets(octets);
  std::string header;
  if (first_chunk && state_.RecipientCount != 0 && configuration_.AddReceived) {
    header = GenerateReceivedHeader(configuration_, clock_, facts_, state_).append(kCrLf);
  }
  std::string command = WithCount(line, octets + header.size());
  return Forward(line, std::move(command), std::move(header));
}

LineDecision ClientCommandFilter::ProcessXexch50(const Line& line) {
  const auto octets = OctetCount(FirstParameter(line.Rest()));
  if (!octets) return Answer({ReplyKind::kBadSequence, "BadSeq.Transaction"});
  state_.AnnouncedOctets = *octets;
  return Forward(line, WithCount(line, *octets));
}

// --- rewriting

std::string ClientCommandFilter::Replaced(const std::string& address, const ReplacementTable& table) {
  try {
    return FindAddressReplacement(address, table).value_or(address);
  } catch (const Error& error) {
    // A key may be a good pattern as a whole and bad in its parts. The mail goes on without replacement.
    failure_ = error;
    return address;
  }
}

// Without zeros in front, which some servers take for the sign of an octal number.
std::string ClientCommandFilter::WithCount(const Line& line, std::uint64_t octets) {
  const std::string_view parameters = line.Rest().substr(1);
  return line.verb + " " + std::to_string(octets) +
         std::string(parameters.substr(FirstWord(parameters).size()));
}

// --- the ends of a line's way

LineDecision ClientCommandFilter::Forward(const Line& line, std::string text, std::string extra) {
  state_.Forward(line.verb, line.row->command);
  LineDecision decision;
  decision.text = std::move(text.append(kCrLf));
  decision.extra = std::move(extra);
  if (line.row->command == Command::kAuth) decision.logged = LoggedForm(decision.text);
  return decision;
}

LineDecision ClientCommandFilter::ForwardAsIs(const Line& line) {
  return Forward(line, line.text);
}

LineDecision ClientCommandFilter::Answer(const Refusal& refusal) {
  const PolicyReply& row = FindPolicyReply(refusal.kind);
  if (row.counts_as_bad_sequence) ++state_.BadSequenceCount;
  LineDecision decision;
  decision.action = Action::kAnswer;
  decision.text = BuildPolicyReply(refusal.kind, macros_, configuration_.EnhancedStatusCodes);
  ApplyPolicyChanges(refusal.kind, refusal.key.empty() ? row.key : refusal.key, state_.CurrentVerb,
                     decision.text, configuration_, macros_);
  decision.close_when_sent = row.after == AfterReply::kCloseWhenSent;
  return decision;
}

LineDecision ClientCommandFilter::Break() {
  LineDecision decision;
  decision.action = Action::kBreak;
  decision.text = "Connection broken due to Greylisting";
  return decision;
}

LineDecision ClientCommandFilter::Closing(LineDecision decision) {
  decision.close_when_sent = true;
  return decision;
}

// What is looked at after every line.
LineDecision ClientCommandFilter::Complete(LineDecision decision) {
  const bool goes_on = decision.action == Action::kForward || decision.action == Action::kAnswer;
  decision.too_many_bad_sequences = goes_on && state_.BadSequenceCount > configuration_.MaxBadSeq;
  decision.failure = std::exchange(failure_, std::nullopt);
  return decision;
}

}  // namespace trabex
