#include "proxy/dialogue/policy_replies.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/text.h"

namespace trabex {
namespace {

class Values final : public MacroSource {
 public:
  std::optional<std::string> Value(std::string_view name) const override {
    return values.at(std::string(name));
  }

  std::map<std::string, std::string> values = {
      {"localhostname", "proxy.test"},
      {"remotehostname", "mail.client.test"},
      {"remotehostip", "192.0.2.7"},
      {"helodomain", "helo.test"},
      {"from", "s@sender.test"},
      {"rcpt", "u@local.test"},
      {"rcptdomain", "local.test"},
      {"maxsize", "1000"},
      {"size", "2000"},
  };
};

struct Row {
  int kind;
  const char* key;
  const char* code;
  const char* enhanced;
  const char* text;
  AfterReply after;
};

constexpr auto kGoesOn = AfterReply::kGoOn;
constexpr auto kCounts = AfterReply::kCount;
constexpr auto kCloses = AfterReply::kClose;
constexpr auto kProxyOnly = AfterReply::kProxyOnly;

constexpr Row kRows[] = {
    {0, "QUIT.BadIP", "221", "2.0.0", "proxy.test closing connection.", kCloses},
    {1, "BadSeq", "503", "5.5.1", "Bad sequence of commands.", kCounts},
    {2, "BadSeq.BadIP", "503", "", "Bad sequence of commands.", kCounts},
    {3, "BadSeq.NoHelo", "503", "", "Bad sequence of commands.", kCounts},
    {4, "HELO.BlackList", "550", "", "Disallowed domain name: helo.test.", kGoesOn},
    {5, "HELO.Invalid", "550", "", "Domain helo.test doesn't correspond to IP address 192.0.2.7.", kGoesOn},
    {6, "HELO.NoDomain", "501", "", "Domain name not specified.", kGoesOn},
    {7, "HELO.DNSError", "450", "", "Unable to verify domain name helo.test in DNS.", kGoesOn},
    {8, "MAIL.TooManyTransactions", "452", "4.5.0", "Too many transactions during one session.", kGoesOn},
    {9, "MAIL.BlackList", "550", "5.7.1", "Mail from s@sender.test not allowed.", kGoesOn},
    {10, "MAIL.Size", "552", "5.3.4",
     "Message size (2000 bytes) exceeds fixed maximium message size (1000 bytes).", kGoesOn},
    {11, "MAIL.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in MAIL command.", kGoesOn},
    {12, "RCPT.TooManyRecipients", "452", "4.5.3", "Too many recipients.", kGoesOn},
    {13, "RCPT.Restricted", "550", "5.7.1",
     "Sending mail to external recipients not allowed for s@sender.test.", kGoesOn},
    {14, "RCPT.Relaying", "550", "5.7.1", "Relaying to local.test not allowed.", kGoesOn},
    {15, "RCPT.Private", "550", "5.2.1", "u@local.test doesn't accept external mail.", kGoesOn},
    {16, "RCPT.BlackList.Local", "550", "5.7.1", "Sending mail to u@local.test not allowed.", kGoesOn},
    {17, "RCPT.BlackList.Remote", "550", "5.1.1", "Unknown or invalid recipient: u@local.test.", kGoesOn},
    {18, "RCPT.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in RCPT command.", kGoesOn},
    {19, "RCPT.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoesOn},
    {20, "DATA.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoesOn},
    {21, "TooManyConnections", "421", "", "proxy.test is too busy. Try later.", kCloses},
    {22, "IPBlackList", "554", "", "Connection from 192.0.2.7 not allowed.", kCloses},
    {23, "HostsBlackList", "554", "", "Connection from mail.client.test [192.0.2.7] not allowed.",
     kProxyOnly},
    {24, "NoPtr", "454", "", "Unable to verify DNS PTR record for 192.0.2.7.", kProxyOnly},
    {25, "Shutdown", "421", "4.3.2", "proxy.test is shutting down.", kCloses},
    {26, "ServerError", "421", "", "proxy.test is temporarily unavailable.", kCloses},
    {27, "BadSyntax", "500", "5.5.2", "Invalid character in command line.", kCounts},
    {28, "LineTooLong", "500", "5.5.6", "Line too long.", kCloses},
    {29, "DATA.AmbiguousEnd", "554", "5.6.0", "Ambiguous end of message content.", kCloses},
    {30, "NotImplemented", "502", "5.5.1", "Command not implemented.", kCounts},
    {31, "TLS.Required", "530", "5.7.0", "Must issue a STARTTLS command first.", kCounts},
    {32, "", "220", "2.0.0", "Ready to start TLS.", AfterReply::kStartTls},
    {33, "TLS.NotAvailable", "454", "4.7.0", "TLS not available due to temporary reason.", kGoesOn},
    {34, "TLS.Syntax", "501", "5.5.4", "STARTTLS takes no parameters.", kCounts},
    {35, "TLS.DataBehind", "554", "5.5.0", "Data behind STARTTLS.", kCloses},
    {36, "AUTH.TLSRequired", "538", "5.7.11", "Encryption required for requested authentication mechanism.",
     kGoesOn},
};

TEST(PolicyReplies, EveryKindReadsAsItShould) {
  EXPECT_EQ(std::size(kRows), static_cast<std::size_t>(kReplyKinds));
  const Values values;
  for (const Row& row : kRows) {
    const auto kind = static_cast<ReplyKind>(row.kind);
    const std::string plain = std::string(row.code) + " " + row.text;
    const std::string enhanced =
        *row.enhanced ? std::string(row.code) + " " + row.enhanced + " " + row.text : plain;
    EXPECT_EQ(BuildPolicyReply(kind, values, true), enhanced);
    EXPECT_EQ(BuildPolicyReply(kind, values, false), plain);
    const PolicyReply& reply = FindPolicyReply(kind);
    EXPECT_EQ(reply.key, row.key) << row.kind;
    EXPECT_EQ(reply.after, row.after) << row.key;
  }
}

TEST(PolicyReplies, AnOverrideTakesThePlaceOfOneField) {
  const Values values;
  const struct {
    ReplyKind kind;
    bool enhanced_codes;
    const char* code;
    const char* enhanced;
    const char* text;
    const char* reply;
  } rows[] = {
      {ReplyKind::kRcptTooManyRecipients, true, "", "", "", "452 4.5.3 Too many recipients."},
      {ReplyKind::kRcptTooManyRecipients, false, "", "", "", "452 Too many recipients."},
      {ReplyKind::kRcptTooManyRecipients, true, "552", "", "", "552 4.5.3 Too many recipients."},
      {ReplyKind::kRcptTooManyRecipients, true, "", "5.5.3", "", "452 5.5.3 Too many recipients."},
      {ReplyKind::kRcptTooManyRecipients, true, "", "", "No.", "452 4.5.3 No."},
      {ReplyKind::kRcptTooManyRecipients, true, "552", "5.5.3", "No.", "552 5.5.3 No."},
      {ReplyKind::kRcptTooManyRecipients, false, "552", "5.5.3", "No.", "552 No."},
      // A kind without an enhanced code can be given one.
      {ReplyKind::kBadSequenceBadIP, true, "", "", "", "503 Bad sequence of commands."},
      {ReplyKind::kBadSequenceBadIP, false, "", "", "", "503 Bad sequence of commands."},
      {ReplyKind::kBadSequenceBadIP, true, "", "5.5.1", "", "503 5.5.1 Bad sequence of commands."},
      {ReplyKind::kBadSequenceBadIP, false, "", "5.5.1", "", "503 Bad sequence of commands."},
      // An override is no text of the table: it is used unchanged.
      {ReplyKind::kNoPtr, true, "", "", "<from> <size", "454 <from> <size"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(BuildPolicyReply(row.kind, values, row.enhanced_codes, row.code, row.enhanced, row.text),
              row.reply);
  }
}

TEST(PolicyReplies, AValueIsNeverReadAsPartOfTheText) {
  Values values;
  values.values["from"] = "<rcpt>";
  values.values["rcpt"] = "{%from%}<ip>";
  EXPECT_EQ(BuildPolicyReply(ReplyKind::kMailBlackList, values, false), "550 Mail from <rcpt> not allowed.");
  EXPECT_EQ(BuildPolicyReply(ReplyKind::kRcptPrivate, values, false),
            "550 {%from%}<ip> doesn't accept external mail.");
}

TEST(PolicyReplies, KeysAreDistinct) {
  std::set<std::string> keys;
  for (int kind = 0; kind < kReplyKinds; ++kind) {
    EXPECT_TRUE(keys.insert(ToLower(FindPolicyReply(static_cast<ReplyKind>(kind)).key)).second) << kind;
  }
}

}  // namespace
}  // namespace trabex
