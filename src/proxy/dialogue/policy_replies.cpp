#include "proxy/dialogue/policy_replies.h"

#include <array>
#include <cassert>

namespace trabex {

namespace {

using enum ReplyKind;
using enum AfterReply;

// The row's place is the kind's number. Several kinds carry no enhanced code on purpose.
constexpr std::array<PolicyReply, kReplyKinds> kReplies = {{
    {kQuitBadIP, "QUIT.BadIP", "221", "2.0.0", "<LocalHostName> closing connection.", kCloseWhenSent, false},
    {kBadSequence, "BadSeq", "503", "5.5.1", "Bad sequence of commands.", kGoOn, true},
    {kBadSequenceBadIP, "BadSeq.BadIP", "503", "", "Bad sequence of commands.", kGoOn, true},
    {kBadSequenceNoHelo, "BadSeq.NoHelo", "503", "", "Bad sequence of commands.", kGoOn, true},
    {kHeloBlackList, "HELO.BlackList", "550", "", "Disallowed domain name: <helo>.", kGoOn, false},
    {kHeloInvalid, "HELO.Invalid", "550", "", "Domain <helo> doesn't correspond to IP address <ip>.", kGoOn,
     false},
    {kHeloNoDomain, "HELO.NoDomain", "501", "", "Domain name not specified.", kGoOn, false},
    {kHeloDNSError, "HELO.DNSError", "450", "", "Unable to verify domain name <helo> in DNS.", kGoOn, false},
    {kMailTooManyTransactions, "MAIL.TooManyTransactions", "452", "4.5.0",
     "Too many transactions during one session.", kGoOn, false},
    {kMailBlackList, "MAIL.BlackList", "550", "5.7.1", "Mail from <from> not allowed.", kGoOn, false},
    {kMailSize, "MAIL.Size", "552", "5.3.4",
     "Message size (<size> bytes) exceeds fixed maximium message size (<max> bytes).", kGoOn, false},
    {kMailAddressSyntax, "MAIL.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in MAIL command.",
     kGoOn, false},
    {kRcptTooManyRecipients, "RCPT.TooManyRecipients", "452", "4.5.3", "Too many recipients.", kGoOn, false},
    {kRcptRestricted, "RCPT.Restricted", "550", "5.7.1",
     "Sending mail to external recipients not allowed for <from>.", kGoOn, false},
    {kRcptRelaying, "RCPT.Relaying", "550", "5.7.1", "Relaying to <rcptdomain> not allowed.", kGoOn, false},
    {kRcptPrivate, "RCPT.Private", "550", "5.2.1", "<rcpt> doesn't accept external mail.", kGoOn, false},
    {kRcptBlackListLocal, "RCPT.BlackList.Local", "550", "5.7.1", "Sending mail to <rcpt> not allowed.",
     kGoOn, false},
    {kRcptBlackListRemote, "RCPT.BlackList.Remote", "550", "5.1.1", "Unknown or invalid recipient: <rcpt>.",
     kGoOn, false},
    {kRcptAddressSyntax, "RCPT.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in RCPT command.",
     kGoOn, false},
    {kRcptGreylisted, "RCPT.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoOn, false},
    {kDataGreylisted, "DATA.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoOn, false},
    {kTooManyConnections, "TooManyConnections", "421", "", "<LocalHostName> is too busy. Try later.",
     kCloseAtOnce, false},
    {kIPBlackList, "IPBlackList", "554", "", "Connection from <ip> not allowed.", kCloseAtOnce, false},
    {kHostsBlackList, "HostsBlackList", "554", "", "Connection from <host> [<ip>] not allowed.", kProxyOnly,
     false},
    {kNoPtr, "NoPtr", "454", "", "Unable to verify DNS PTR record for <ip>.", kProxyOnly, false},
    {kShutdown, "Shutdown", "421", "4.3.2", "<LocalHostName> is shutting down.", kCloseAtOnce, false},
    {kServerError, "ServerError", "421", "", "<LocalHostName> is temporarily unavailable.", kCloseAtOnce,
     false},
    {kBadSyntax, "BadSyntax", "500", "5.5.2", "Invalid character in command line.", kGoOn, true},
    {kLineTooLong, "LineTooLong", "500", "5.5.6", "Line too long.", kCloseWhenSent, false},
    {kDataAmbiguousEnd, "DATA.AmbiguousEnd", "554", "5.6.0", "Ambiguous end of message content.",
     kCloseWhenSent, false},
    {kNotImplemented, "NotImplemented", "502", "5.5.1", "Command not implemented.", kGoOn, true},
}};

static_assert([] {
  for (std::size_t i = 0; i < kReplies.size(); ++i) {
    if (static_cast<std::size_t>(kReplies[i].kind) != i) return false;
  }
  return true;
}());

std::string ValueOf(std::string_view name, const SessionValues& values) {
  if (name == "LocalHostName") return values.LocalHostName();
  if (name == "helo") return values.HeloDomain();
  if (name == "ip") return values.RemoteHostIP();
  if (name == "host") return values.RemoteHostName();
  if (name == "from") return values.From();
  if (name == "rcpt") return values.Rcpt();
  if (name == "rcptdomain") return std::string(AddressDomain(values.Rcpt()));
  if (name == "size") return values.Size();
  assert(name == "max");
  return values.MaxSize();
}

// A row's text with its names replaced. A value is never looked through for names itself.
std::string FillIn(std::string_view text, const SessionValues& values) {
  std::string result;
  for (;;) {
    const std::size_t open = text.find('<');
    result.append(text.substr(0, open));
    if (open == std::string_view::npos) return result;
    const std::size_t close = text.find('>', open);
    result += ValueOf(text.substr(open + 1, close - open - 1), values);
    text.remove_prefix(close + 1);
  }
}

}  // namespace

const PolicyReply& FindPolicyReply(ReplyKind kind) {
  return kReplies[static_cast<std::size_t>(kind)];
}

std::string BuildPolicyReply(ReplyKind kind, const SessionValues& values, bool enhanced_status_codes,
                             std::string_view code_override, std::string_view enhanced_override,
                             std::string_view text_override) {
  const PolicyReply& row = FindPolicyReply(kind);
  const std::string_view enhanced = enhanced_override.empty() ? row.enhanced : enhanced_override;
  std::string reply(code_override.empty() ? row.code : code_override);
  if (enhanced_status_codes && !enhanced.empty()) reply.append(" ").append(enhanced);
  reply += ' ';
  return reply += text_override.empty() ? FillIn(row.text, values) : std::string(text_override);
}

}  // namespace trabex
