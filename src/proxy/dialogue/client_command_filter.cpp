#include "proxy/dialogue/client_command_filter.h"

#include <algorithm>
#include <utility>

#include "base/ip_address.h"
#include "base/text.h"
#include "base/unicode_fold.h"
#include "base/visible_text.h"
#include "proxy/dialogue/command_parameters.h"
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

// An address literal resolves to the address inside.
std::string_view NameToLookUp(std::string_view helo_domain) {
  const std::string_view address = AddressInLiteral(helo_domain);
  return address.empty() ? helo_domain : address;
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
                                         const SessionFacts& facts, GreylistCheck* greylisting)
    : configuration_(configuration), clock_(clock), facts_(facts), greylisting_(greylisting) {}

ClientCommandFilter::Line ClientCommandFilter::ParseCommandLine(std::string_view line) {
  line = WithoutLeadingBlanks(WithoutLineEnd(line));
  const auto verb_end =
      static_cast<std::size_t>(std::find_if(line.begin(), line.end(), IsBlank) - line.begin());
  const std::string_view rest = WithoutLeadingBlanks(line.substr(verb_end));
  Line result;
  result.text = line.substr(0, verb_end);
  result.verb = ToUpper(result.text);
  if (!rest.empty()) result.text.append(" ").append(rest);
  std::replace(result.text.begin(), result.text.end(), '\t', ' ');
  result.command = &FindCommand(result.verb);
  return result;
}

LineDecision ClientCommandFilter::ProcessIncomingData(std::string_view line,
                                                      const DialogueState& state) const {
  Draft draft(state);
  return Complete(ProcessLine(line, draft), draft);
}

LineDecision ClientCommandFilter::ProcessLine(std::string_view text, Draft& draft) const {
  if (draft.state.phase == Phase::kAuthData) return ProcessAuthenticationData(text, draft);
  const Line line = ParseCommandLine(text);
  draft.requested.CurrentVerb = line.verb;
  const bool is_bdat = line.command->id == Command::kBdat;
  const auto octets = is_bdat ? OctetCount(FirstParameter(line.Rest())) : std::nullopt;
  // Without a valid count the chunk's end is unknown: 503, and the session ends.
  if (is_bdat && !octets) return Ending(Answer({ReplyKind::kBadSequence, "BadSeq.BDAT"}, draft));

  LineDecision decision;
  // Verbs are ASCII: some servers drop the eighth bit, or take more bytes for blanks.
  if (HoldsControl(WithoutLineEnd(text)) || !IsAscii(line.verb)) {
    decision = Answer({ReplyKind::kBadSyntax, ""}, draft);
  } else if (IsNotImplemented(line, draft.state)) {
    decision = Answer({ReplyKind::kNotImplemented, ""}, draft);
  } else if (draft.state.transaction == Transaction::kRefused) {
    decision = ProcessRefusedSession(line, draft);
  } else if (line.command->id == Command::kStarttls) {
    decision = ProcessStartTls(line, draft);
  } else if (const MaybeRefusal no_tls = CheckTls(line)) {
    decision = Answer(*no_tls, draft);
  } else if (const MaybeRefusal refusal = CheckOrder(line, draft.state)) {
    decision = Answer(*refusal, draft);
  } else if (is_bdat) {
    decision = ProcessBdat(line, *octets, draft);
  } else {
    decision = ProcessPolicy(line, draft);
  }
  // The octets of a refused BDAT follow all the same (RFC 3030), and are no commands.
  decision.octets_follow = octets;
  return decision;
}

LineDecision ClientCommandFilter::ProcessPolicy(const Line& line, Draft& draft) const {
  switch (line.command->id) {
    case Command::kEhlo:
    case Command::kHelo:
      return ProcessHelo(line, draft);
    // SEND, SOML and SAML (RFC 821) open a transaction just as MAIL does.
    case Command::kMail:
    case Command::kSend:
    case Command::kSoml:
    case Command::kSaml:
      return ProcessMail(line, draft);
    case Command::kRcpt:
      return ProcessRcpt(line, draft);
    case Command::kData:
      return ProcessData(line, draft);
    case Command::kXexch50:
      return ProcessXexch50(line, draft);
    case Command::kAuth:
      return ProcessAuth(line, draft);
    default:
      return ForwardAsIs(line);
  }
}

// --- the form of a line

LineDecision ClientCommandFilter::ProcessAuthenticationData(std::string_view line, Draft& draft) const {
  if (HoldsControl(WithoutLineEnd(line))) return Ending(Answer({ReplyKind::kBadSyntax, ""}, draft));
  LineDecision decision;
  decision.text = line;
  decision.logged = std::string(kSecret).append(kCrLf);
  return decision;
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

std::string ClientCommandFilter::LoggedForm(std::string_view line, Phase phase) const {
  const std::string_view text = WithoutLineEnd(line);
  const std::string_view line_end = line.substr(text.size());
  if (phase == Phase::kAuthData) return std::string(kSecret).append(line_end);
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

LineDecision ClientCommandFilter::ProcessRefusedSession(const Line& line, Draft& draft) const {
  const bool quits = line.command->id == Command::kQuit;
  return Answer({quits ? ReplyKind::kQuitBadIP : ReplyKind::kBadSequenceBadIP, ""}, draft);
}

// --- TLS

// Without a certificate in the settings there is no STARTTLS, as there are no other commands that are blocked; but
// a client that was offered it before a reload shall hear that it is gone for now.
bool ClientCommandFilter::IsNotImplemented(const Line& line, const DialogueState& state) const {
  if (!line.command->blocked) return false;
  return line.command->id != Command::kStarttls || !(facts_.TlsConfigured() || state.offered.TlsOffered);
}

// RFC 3207, 4: what a client may say before TLS where it must use it.
ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckTls(const Line& line) const {
  if (!AppliesToClient(configuration_.TLS.Require, facts_) || facts_.TlsActive()) return std::nullopt;
  switch (line.command->id) {
    case Command::kEhlo:
    case Command::kNoop:
    case Command::kQuit:
      return std::nullopt;
    default:
      return Refusal{ReplyKind::kTlsRequired, ""};
  }
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckStartTls(const Line& line,
                                                                     const DialogueState& state) const {
  if (facts_.TlsActive() || !state.offered.Extensions.Has(line.command->verb)) {
    return Refusal{ReplyKind::kNotImplemented, ""};
  }
  if (!line.Rest().empty()) return Refusal{ReplyKind::kTlsSyntax, ""};
  if (const MaybeRefusal refusal = CheckOrder(line, state)) return refusal;
  // TLS makes both sides forget what was said before. The server does not hear of it, and would keep a login.
  if (state.login.ever) return Refusal{ReplyKind::kBadSequence, "BadSeq.Transaction"};
  if (!facts_.TlsReady()) return Refusal{ReplyKind::kTlsNotAvailable, ""};
  return std::nullopt;
}

LineDecision ClientCommandFilter::ProcessStartTls(const Line& line, Draft& draft) const {
  if (const MaybeRefusal refusal = CheckStartTls(line, draft.state)) return Answer(*refusal, draft);
  LineDecision decision;
  decision.action = Action::kStartTls;
  decision.text = BuildReply({ReplyKind::kTlsBegins, ""}, draft.requested, draft.state);
  return decision;
}

// --- order

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckOrder(const Line& line,
                                                                  const DialogueState& state) const {
  if (state.transaction == Transaction::kNoGreeting && !line.command->before_greeting) {
    return Refusal{ReplyKind::kBadSequenceNoHelo, ""};
  }
  return CheckTransactionOrder(line, state);
}

// Several rules may refuse; the last of them gives the answer.
ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckTransactionOrder(
    const Line& line, const DialogueState& state) const {
  const CommandRow& command = *line.command;
  const bool chunks = state.transaction == Transaction::kChunks;
  MaybeRefusal refusal;
  if (state.transaction == Transaction::kOpen || chunks) {
    const bool extension_missing =
        !command.extension.empty() && !state.offered.Extensions.Has(command.extension);
    if (command.transaction == TransactionRule::kOutsideTransaction || extension_missing) {
      refusal = {ReplyKind::kBadSequence, "BadSeq.Transaction"};
    }
  } else if (command.transaction == TransactionRule::kInTransaction) {
    refusal = {ReplyKind::kBadSequence, "BadSeq.NoTransaction"};
  }
  if (chunks && !command.in_chunk_sequence) refusal = {ReplyKind::kBadSequence, "BadSeq.BDAT"};
  return refusal;
}

// --- AUTH

LineDecision ClientCommandFilter::ProcessAuth(const Line& line, Draft& draft) const {
  const bool withheld = facts_.TlsConfigured() && !facts_.TlsActive() &&
                        AppliesToClient(configuration_.TLS.RequireForAUTH, facts_);
  return withheld ? Answer({ReplyKind::kAuthTlsRequired, ""}, draft) : ForwardAsIs(line);
}

// --- HELO and EHLO

LineDecision ClientCommandFilter::ProcessHelo(const Line& line, Draft& draft) const {
  std::string& domain = draft.requested.HeloDomain;
  draft.requested.EhloUsed = line.command->id == Command::kEhlo;
  domain = FirstParameter(line.Rest());
  if (const MaybeRefusal refusal = CheckHeloBlackList(domain)) return Answer(*refusal, draft);
  const std::int32_t dns_check =
      facts_.IsLocalClient() ? validate_helo::kDnsLocal : validate_helo::kDnsRemote;
  if ((configuration_.ValidateHELO & dns_check) == 0 || HeloMatchesHostName(domain)) return ForwardAsIs(line);
  if (domain.empty()) return Answer({ReplyKind::kHeloNoDomain, ""}, draft);
  LineDecision decision;
  decision.action = Action::kAskForAddresses;
  decision.text = NameToLookUp(domain);
  return decision;
}

LineDecision ClientCommandFilter::ProcessAddresses(std::string_view text, const HostAddresses& answer,
                                                   const DialogueState& state) const {
  Draft draft(state);
  const Line line = ParseCommandLine(text);
  if (!answer.found) return Complete(Answer({ReplyKind::kHeloDNSError, ""}, draft), draft);
  const IPAddress client = facts_.ClientIP();
  const bool confirmed =
      std::find(answer.addresses.begin(), answer.addresses.end(), client) != answer.addresses.end();
  return Complete(confirmed ? ForwardAsIs(line) : Answer({ReplyKind::kHeloInvalid, ""}, draft), draft);
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckHeloBlackList(std::string_view domain) const {
  const std::int32_t check =
      facts_.IsLocalClient() ? validate_helo::kBlackListLocal : validate_helo::kBlackListRemote;
  if ((configuration_.ValidateHELO & check) == 0) return std::nullopt;
  if (!mText::MatchList(domain, configuration_.HELOBlackList)) return std::nullopt;
  return Refusal{domain.empty() ? ReplyKind::kHeloNoDomain : ReplyKind::kHeloBlackList, ""};
}

bool ClientCommandFilter::HeloMatchesHostName(std::string_view domain) const {
  const std::string host = facts_.ClientHostNameOrUnknown();
  return EqualFolded(domain, host) || EndsWithFolded(domain, "." + host) ||
         EndsWithFolded(host, std::string(".").append(domain));
}

// --- MAIL

LineDecision ClientCommandFilter::ProcessMail(const Line& line, Draft& draft) const {
  constexpr std::string_view kFrom = " FROM:";
  if (!StartsWithNoCase(line.Rest(), kFrom)) return Answer({ReplyKind::kMailAddressSyntax, ""}, draft);
  const ParsedPath path =
      ParsePath(line.Rest().substr(kFrom.size()),
                static_cast<AddressesWithoutBrackets>(configuration_.ProcessAddressesWithoutBrackets));
  RequestedState& requested = draft.requested;
  requested.DeclaredSize = 0;
  const auto address = NormalizeMailbox(path.address);
  // Whether the transaction that it begins may have addresses beyond ASCII.
  const bool smtp_utf8 = draft.state.offered.SmtpUtf8Offered && HasKeyword(path.parameters, "SMTPUTF8");
  if (path.verdict == ParsedPath::Verdict::kForwardUnchecked) {
    ++requested.TransactionCount;
    requested.BeginTransaction(address.value_or(path.address), smtp_utf8);
    return ForwardAsIs(line);
  }
  if (path.verdict == ParsedPath::Verdict::kSyntaxError || !address ||
      !(smtp_utf8 || IsAscii(path.address)) || !AreKeywordParameters(path.parameters)) {
    return Answer({ReplyKind::kMailAddressSyntax, ""}, draft);
  }
  requested.Sender = *address;
  ++requested.TransactionCount;
  if (const MaybeRefusal refusal = CheckMail(requested)) return Answer(*refusal, draft);
  if (const auto size = DeclaredSize(path.parameters); size && draft.state.offered.SizeLimit != 0) {
    requested.DeclaredSize = *size;
    if (*size > draft.state.offered.SizeLimit) return Answer({ReplyKind::kMailSize, ""}, draft);
  }

  const std::string sender = Replaced(*address,
                                      facts_.IsLocalClient() ? configuration_.SenderReplacementsLocal
                                                             : configuration_.SenderReplacementsRemote,
                                      draft);
  requested.BeginTransaction(*address, smtp_utf8);
  return Forward(line, line.verb + " FROM:<" + sender + ">" + std::string(path.parameters));
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckMail(const RequestedState& requested) const {
  const std::int32_t max_transactions =
      facts_.IsLocalClient() ? configuration_.MaxTransactionsLocal : configuration_.MaxTransactionsRemote;
  if (max_transactions != 0 && requested.TransactionCount > max_transactions)
    return Refusal{ReplyKind::kMailTooManyTransactions, ""};
  if (!requested.Sender.empty() &&
      RefusedByLists(requested.Sender, configuration_.SendersWhiteList, configuration_.SendersAllowList,
                     configuration_.SendersBlackList)) {
    return Refusal{ReplyKind::kMailBlackList, ""};
  }
  return std::nullopt;
}

// --- RCPT

LineDecision ClientCommandFilter::ProcessRcpt(const Line& line, Draft& draft) const {
  constexpr std::string_view kTo = " TO:";
  if (!StartsWithNoCase(line.Rest(), kTo)) return Answer({ReplyKind::kRcptAddressSyntax, ""}, draft);
  const ParsedPath path =
      ParsePath(line.Rest().substr(kTo.size()),
                static_cast<AddressesWithoutBrackets>(configuration_.ProcessAddressesWithoutBrackets));
  RequestedState& requested = draft.requested;
  const auto address = NormalizeMailbox(path.address);
  if (path.verdict == ParsedPath::Verdict::kForwardUnchecked) {
    ++requested.RecipientCount;
    requested.Recipient = address.value_or(path.address);
    return ForwardAsIs(line);
  }
  const bool taken = address && (requested.SmtpUtf8 || IsAscii(path.address));
  const std::string recipient_address = address.value_or(path.address);
  // An address that is routed on needs no canonical form: the relaying test refuses it.
  const bool relayed = !facts_.IsLocalClient() && HasRouteInLocalPart(recipient_address);
  if (path.verdict == ParsedPath::Verdict::kSyntaxError || !(taken || relayed) ||
      !AreKeywordParameters(path.parameters)) {
    return Answer({ReplyKind::kRcptAddressSyntax, ""}, draft);
  }
  requested.Recipient = recipient_address;
  ++requested.RecipientCount;
  if (const MaybeRefusal refusal = CheckRecipient(requested)) return Answer(*refusal, draft);
  const Greylisting greylisting = CheckGreylisting(requested);
  if (greylisting == Greylisting::kRefused) return Answer({ReplyKind::kRcptGreylisted, ""}, draft);
  if (greylisting == Greylisting::kPassesUntilData) requested.Greylisted = true;

  const std::string recipient = Replaced(requested.Recipient,
                                         facts_.IsLocalClient() ? configuration_.RecipientReplacementsLocal
                                                                : configuration_.RecipientReplacementsRemote,
                                         draft);
  return Forward(line, "RCPT TO:<" + recipient + ">" + std::string(path.parameters));
}

ClientCommandFilter::MaybeRefusal ClientCommandFilter::CheckRecipient(const RequestedState& requested) const {
  const Configuration& c = configuration_;
  const bool local_client = facts_.IsLocalClient();
  const std::int32_t max_recipients = local_client ? c.MaxRecipientsLocal : c.MaxRecipientsRemote;
  if (max_recipients != 0 && requested.RecipientCount > max_recipients)
    return Refusal{ReplyKind::kRcptTooManyRecipients, ""};

  const std::string& recipient = requested.Recipient;
  const bool local_domain = mText::MatchList(AddressDomain(recipient), c.LocalDomains);
  if (local_client) {
    if (!local_domain && mText::MatchList(requested.Sender, c.RestrictedSenders)) {
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

ClientCommandFilter::Greylisting ClientCommandFilter::CheckGreylisting(
    const RequestedState& requested) const {
  const GreyListingSettings& settings = configuration_.GreyListing;
  if (facts_.IsLocalClient() || !settings.Enabled || !greylisting_) return Greylisting::kPasses;
  if (!greylisting_->ShouldDefer(facts_.ClientHostName(), facts_.ClientIP(), requested.Sender,
                                 requested.Recipient)) {
    return Greylisting::kPasses;
  }
  const bool callback = mText::MatchList(requested.Sender, settings.CallbackSendersList);
  if (!callback || settings.CallbackSenderAction == callback_sender_action::kRefuse)
    return Greylisting::kRefused;
  // A callback only asks whether the recipient exists: it passes here, and is refused when it begins to send.
  const bool until_data = settings.CallbackSenderAction == callback_sender_action::kRefuseAtData ||
                          settings.CallbackSenderAction == callback_sender_action::kCloseAtData;
  return until_data ? Greylisting::kPassesUntilData : Greylisting::kPasses;
}

// --- content

LineDecision ClientCommandFilter::ProcessData(const Line& line, Draft& draft) const {
  if (!draft.requested.Greylisted) return ForwardAsIs(line);
  if (configuration_.GreyListing.CallbackSenderAction == callback_sender_action::kCloseAtData) return Break();
  return Answer({ReplyKind::kDataGreylisted, ""}, draft);
}

LineDecision ClientCommandFilter::ProcessBdat(const Line& line, std::uint64_t octets,
                                              const Draft& draft) const {
  if (draft.requested.Greylisted) return Break();
  const bool first_chunk = draft.state.transaction != Transaction::kChunks;
  std::string header;
  if (first_chunk && draft.requested.RecipientCount != 0 && configuration_.AddReceived) {
    header = GenerateReceivedHeader(configuration_, clock_, facts_, draft.requested, draft.state.login)
                 .append(kCrLf);
  }
  LineDecision decision = Forward(line, WithCount(line, octets + header.size()));
  decision.forwarded->last_chunk = IsLastChunk(line.Rest());
  // The header is content, which the log does not show.
  if (!header.empty()) decision.logged = decision.text;
  decision.text.append(header);
  return decision;
}

LineDecision ClientCommandFilter::ProcessXexch50(const Line& line, Draft& draft) const {
  const auto octets = OctetCount(FirstParameter(line.Rest()));
  if (!octets) return Answer({ReplyKind::kBadSequence, "BadSeq.Transaction"}, draft);
  LineDecision decision = Forward(line, WithCount(line, *octets));
  decision.forwarded->octets = *octets;
  return decision;
}

// --- rewriting

std::string ClientCommandFilter::Replaced(const std::string& address, const ReplacementTable& table,
                                          Draft& draft) {
  try {
    return FindAddressReplacement(address, table).value_or(address);
  } catch (const Error& error) {
    // A key may be a good pattern as a whole and bad in its parts. The mail goes on without replacement.
    draft.failure = error;
    return address;
  }
}

// Without zeros in front, which some servers take for the sign of an octal number.
std::string ClientCommandFilter::WithCount(const Line& line, std::uint64_t octets) {
  const std::string_view parameters = line.Rest().substr(1);
  return line.verb + " " + std::to_string(octets) +
         std::string(parameters.substr(FirstWord(parameters).size()));
}

// --- how a line is decided

LineDecision ClientCommandFilter::Forward(const Line& line, std::string text) const {
  LineDecision decision;
  decision.text = std::move(text.append(kCrLf));
  decision.forwarded = ForwardedCommand{line.verb, line.command->id};
  if (line.command->id == Command::kAuth) decision.logged = LoggedForm(decision.text, Phase::kCommand);
  return decision;
}

LineDecision ClientCommandFilter::ForwardAsIs(const Line& line) const {
  return Forward(line, line.text);
}

LineDecision ClientCommandFilter::Answer(const Refusal& refusal, Draft& draft) const {
  const PolicyReply& row = FindPolicyReply(refusal.kind);
  if (row.after == AfterReply::kCount) ++draft.requested.BadSequenceCount;
  LineDecision decision;
  decision.action = Action::kAnswer;
  decision.text = BuildReply(refusal, draft.requested, draft.state);
  decision.end = row.after == AfterReply::kClose;
  return decision;
}

std::string ClientCommandFilter::BuildReply(ReplyKind kind, const DialogueState& state) const {
  return BuildReply(Refusal{kind, ""}, state.requested, state);
}

std::string ClientCommandFilter::BuildReply(const Refusal& refusal, const RequestedState& requested,
                                            const DialogueState& state) const {
  const SessionMacros macros(configuration_, clock_, facts_, requested, state.offered, state.BytesReceived);
  std::string reply = BuildPolicyReply(refusal.kind, macros, configuration_.EnhancedStatusCodes);
  ApplyPolicyChanges(refusal.kind, refusal.key.empty() ? FindPolicyReply(refusal.kind).key : refusal.key,
                     requested, reply, configuration_, macros);
  return reply;
}

LineDecision ClientCommandFilter::Break() {
  LineDecision decision;
  decision.action = Action::kBreak;
  decision.text = "Connection broken due to Greylisting";
  return decision;
}

LineDecision ClientCommandFilter::Ending(LineDecision&& decision) {
  decision.end = true;
  return std::move(decision);
}

// What is checked after every line.
LineDecision ClientCommandFilter::Complete(LineDecision&& decision, Draft& draft) const {
  const bool goes_on = decision.action == Action::kForward || decision.action == Action::kAnswer;
  decision.too_many_bad_sequences = goes_on && draft.requested.BadSequenceCount > configuration_.MaxBadSeq;
  decision.failure = std::move(draft.failure);
  decision.requested = std::move(draft.requested);
  return std::move(decision);
}

}  // namespace trabex
