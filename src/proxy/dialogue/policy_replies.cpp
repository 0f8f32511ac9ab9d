#include "proxy/dialogue/policy_replies.h"

#include <array>

namespace trabex {

namespace {

using enum ReplyKind;
using enum AfterReply;

// The row's place is the kind's number. Several kinds carry no enhanced code on purpose.
constexpr std::array<PolicyReply, kReplyKinds> kReplies = {{
    {kQuitBadIP, "QUIT.BadIP", "221", "2.0.0", "<localhostname> closing connection.", kClose},
    {kBadSequence, "BadSeq", "503", "5.5.1", "Bad sequence of commands.", kCount},
    {kBadSequenceBadIP, "BadSeq.BadIP", "503", "", "Bad sequence of commands.", kCount},
    {kBadSequenceNoHelo, "BadSeq.NoHelo", "503", "", "Bad sequence of commands.", kCount},
    {kHeloBlackList, "HELO.BlackList", "550", "", "Disallowed domain name: <helodomain>.", kGoOn},
    {kHeloInvalid, "HELO.Invalid", "550", "",
     "Domain <helodomain> doesn't correspond to IP address <remotehostip>.", kGoOn},
    {kHeloNoDomain, "HELO.NoDomain", "501", "", "Domain name not specified.", kGoOn},
    {kHeloDNSError, "HELO.DNSError", "450", "", "Unable to verify domain name <helodomain> in DNS.", kGoOn},
    {kMailTooManyTransactions, "MAIL.TooManyTransactions", "452", "4.5.0",
     "Too many transactions during one session.", kGoOn},
    {kMailBlackList, "MAIL.BlackList", "550", "5.7.1", "Mail from <from> not allowed.", kGoOn},
    {kMailSize, "MAIL.Size", "552", "5.3.4",
     "Message size (<size> bytes) exceeds fixed maximium message size (<maxsize> bytes).", kGoOn},
    {kMailAddressSyntax, "MAIL.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in MAIL command.",
     kGoOn},
    {kRcptTooManyRecipients, "RCPT.TooManyRecipients", "452", "4.5.3", "Too many recipients.", kGoOn},
    {kRcptRestricted, "RCPT.Restricted", "550", "5.7.1",
     "Sending mail to external recipients not allowed for <from>.", kGoOn},
    {kRcptRelaying, "RCPT.Relaying", "550", "5.7.1", "Relaying to <rcptdomain> not allowed.", kGoOn},
    {kRcptPrivate, "RCPT.Private", "550", "5.2.1", "<rcpt> doesn't accept external mail.", kGoOn},
    {kRcptBlackListLocal, "RCPT.BlackList.Local", "550", "5.7.1", "Sending mail to <rcpt> not allowed.",
     kGoOn},
    {kRcptBlackListRemote, "RCPT.BlackList.Remote", "550", "5.1.1", "Unknown or invalid recipient: <rcpt>.",
     kGoOn},
    {kRcptAddressSyntax, "RCPT.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in RCPT command.",
     kGoOn},
    {kRcptGreylisted, "RCPT.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoOn},
    {kDataGreylisted, "DATA.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoOn},
    {kTooManyConnections, "TooManyConnections", "421", "", "<localhostname> is too busy. Try later.", kClose},
    {kIPBlackList, "IPBlackList", "554", "", "Connection from <remotehostip> not allowed.", kClose},
    {kHostsBlackList, "HostsBlackList", "554", "",
     "Connection from <remotehostname> [<remotehostip>] not allowed.", kProxyOnly},
    {kNoPtr, "NoPtr", "454", "", "Unable to verify DNS PTR record for <remotehostip>.", kProxyOnly},
    {kShutdown, "Shutdown", "421", "4.3.2", "<localhostname> is shutting down.", kClose},
    {kServerError, "ServerError", "421", "", "<localhostname> is temporarily unavailable.", kClose},
    {kBadSyntax, "BadSyntax", "500", "5.5.2", "Invalid character in command line.", kCount},
    {kLineTooLong, "LineTooLong", "500", "5.5.6", "Line too long.", kClose},
    {kDataAmbiguousEnd, "DATA.AmbiguousEnd", "554", "5.6.0", "Ambiguous end of message content.", kClose},
    {kNotImplemented, "NotImplemented", "502", "5.5.1", "Command not implemented.", kCount},
    {kTlsRequired, "TLS.Required", "530", "5.7.0", "Must issue a STARTTLS command first.", kCount},
    // Changed to anything else it would leave client and proxy with two ideas of what comes next.
    {kTlsBegins, "", "220", "2.0.0", "Ready to start TLS.", kStartTls},
    {kTlsNotAvailable, "TLS.NotAvailable", "454", "4.7.0", "TLS not available due to temporary reason.",
     kGoOn},
    {kTlsSyntax, "TLS.Syntax", "501", "5.5.4", "STARTTLS takes no parameters.", kCount},
    {kTlsDataBehind, "TLS.DataBehind", "554", "5.5.0", "Data behind STARTTLS.", kClose},
    {kAuthTlsRequired, "AUTH.TLSRequired", "538", "5.7.11",
     "Encryption required for requested authentication mechanism.", kGoOn},
}};

static_assert([] {
  for (std::size_t i = 0; i < kReplies.size(); ++i) {
    if (static_cast<std::size_t>(kReplies[i].kind) != i) return false;
  }
  return true;
}());

// A row's text with its names replaced. A value is never looked through for names itself.
std::string FillIn(std::string_view text, const MacroSource& values) {
  std::string result;
  for (;;) {
    const std::size_t open = text.find('<');
    result.append(text.substr(0, open));
    if (open == std::string_view::npos) return result;
    const std::size_t close = text.find('>', open);
    result += values.Value(text.substr(open + 1, close - open - 1)).value();
    text.remove_prefix(close + 1);
  }
}

}  // namespace

const PolicyReply& FindPolicyReply(ReplyKind kind) {
  return kReplies[static_cast<std::size_t>(kind)];
}

std::string BuildPolicyReply(ReplyKind kind, const MacroSource& values, bool enhanced_status_codes,
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
