#include "proxy/dialogue/policy_replies.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "base/text.h"

namespace trabex {
namespace {

class Values final : public SessionValues {
 public:
  std::string LocalHostName() const override { return "proxy.test"; }
  std::string RFCTime() const override { return "(time)"; }
  std::string RemoteHostName() const override { return "mail.client.test"; }
  std::string RemoteHostIP() const override { return "192.0.2.7"; }
  std::string HeloDomain() const override { return "helo.test"; }
  std::string BytesReceived() const override { return "1"; }
  std::string BytesSent() const override { return "2"; }
  std::string From() const override { return from; }
  std::string Rcpt() const override { return rcpt; }
  std::string MaxSize() const override { return "1000"; }
  std::string Size() const override { return "2000"; }

  std::string from = "s@sender.test";
  std::string rcpt = "u@local.test";
};

struct Row {
  int kind;
  const char* key;
  const char* code;
  const char* enhanced;
  const char* text;
  AfterReply after;
  bool counts;
};

constexpr auto kGoesOn = AfterReply::kGoOn;
constexpr auto kWhenSent = AfterReply::kCloseWhenSent;
constexpr auto kAtOnce = AfterReply::kCloseAtOnce;
constexpr auto kProxyOnly = AfterReply::kProxyOnly;

constexpr Row kRows[] = {
    {0, "QUIT.BadIP", "221", "2.0.0", "proxy.test closing connection.", kWhenSent, false},
    {1, "BadSeq", "503", "5.5.1", "Bad sequence of commands.", kGoesOn, true},
    {2, "BadSeq.BadIP", "503", "", "Bad sequence of commands.", kGoesOn, true},
    {3, "BadSeq.NoHelo", "503", "", "Bad sequence of commands.", kGoesOn, true},
    {4, "HELO.BlackList", "550", "", "Disallowed domain name: helo.test.", kGoesOn, false},
    {5, "HELO.Invalid", "550", "", "Domain helo.test doesn't correspond to IP address 192.0.2.7.", kGoesOn,
     false},
    {6, "HELO.NoDomain", "501", "", "Domain name not specified.", kGoesOn, false},
    {7, "HELO.DNSError", "450", "", "Unable to verify domain name helo.test in DNS.", kGoesOn, false},
    {8, "MAIL.TooManyTransactions", "452", "4.5.0", "Too many transactions during one session.", kGoesOn,
     false},
    {9, "MAIL.BlackList", "550", "5.7.1", "Mail from s@sender.test not allowed.", kGoesOn, false},
    {10, "MAIL.Size", "552", "5.3.4",
     "Message size (2000 bytes) exceeds fixed maximium message size (1000 bytes).", kGoesOn, false},
    {11, "MAIL.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in MAIL command.", kGoesOn, false},
    {12, "RCPT.TooManyRecipients", "452", "4.5.3", "Too many recipients.", kGoesOn, false},
    {13, "RCPT.Restricted", "550", "5.7.1",
     "Sending mail to external recipients not allowed for s@sender.test.", kGoesOn, false},
    {14, "RCPT.Relaying", "550", "5.7.1", "Relaying to local.test not allowed.", kGoesOn, false},
    {15, "RCPT.Private", "550", "5.2.1", "u@local.test doesn't accept external mail.", kGoesOn, false},
    {16, "RCPT.BlackList.Local", "550", "5.7.1", "Sending mail to u@local.test not allowed.", kGoesOn, false},
    {17, "RCPT.BlackList.Remote", "550", "5.1.1", "Unknown or invalid recipient: u@local.test.", kGoesOn,
     false},
    {18, "RCPT.AddressSyntax", "501", "5.5.4", "Invalid syntax of address in RCPT command.", kGoesOn, false},
    {19, "RCPT.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoesOn, false},
    {20, "DATA.Greylisted", "451", "4.7.1", "Greylisted. Delivery delayed.", kGoesOn, false},
    {21, "TooManyConnections", "421", "", "proxy.test is too busy. Try later.", kAtOnce, false},
    {22, "IPBlackList", "554", "", "Connection from 192.0.2.7 not allowed.", kAtOnce, false},
    {23, "HostsBlackList", "554", "", "Connection from mail.client.test [192.0.2.7] not allowed.", kProxyOnly,
     false},
    {24, "NoPtr", "454", "", "Unable to verify DNS PTR record for 192.0.2.7.", kProxyOnly, false},
    {25, "Shutdown", "421", "4.3.2", "proxy.test is shutting down.", kAtOnce, false},
    {26, "ServerError", "421", "", "proxy.test is temporarily unavailable.", kAtOnce, false},
    {27, "BadSyntax", "500", "5.5.2", "Invalid character in command line.", kGoesOn, true},
    {28, "LineTooLong", "500", "5.5.6", "Line too long.", kWhenSent, false},
    {29, "DATA.AmbiguousEnd", "554", "5.6.0", "Ambiguous end of message content.", kWhenSent, false},
    {30, "NotImplemented", "502", "5.5.1", "Command not implemented.", kGoesOn, true},
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
    EXPECT_EQ(reply.counts_as_bad_sequence, row.counts) << row.key;
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
      {ReplyKind::kNoPtr, true, "", "", "<ip> <max", "454 <ip> <max"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(BuildPolicyReply(row.kind, values, row.enhanced_codes, row.code, row.enhanced, row.text),
              row.reply);
  }
}

TEST(PolicyReplies, AValueIsNeverReadAsPartOfTheText) {
  Values values;
  values.from = "<rcpt>";
  values.rcpt = "{%from%}<ip>";
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
