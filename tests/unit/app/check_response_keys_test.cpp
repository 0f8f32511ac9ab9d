#include "app/check_response_keys.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "config/ini_reader.h"
#include "config/read_settings.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/session_macros.h"
#include "support/recorded_log.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

TEST(ResponseKeys, AreThoseOfTheReplies) {
  for (const char* key : {"RCPT.Relaying",
                          "rcpt.relaying",
                          "BadSeq",
                          "BadSeq.NoHelo",
                          "badseq.bdat",
                          "MAIL.BadSeq.NoHelo",
                          "XEXCH50.BadSeq.Transaction",
                          "XFOO.BadSeq.BadIP",
                          "ETRN.BadSeq.NoTransaction",
                          "RCPT.Private",
                          "RCPT.Private.a@b.example",
                          "RCPT.Greylisted.a",
                          "RCPT.BlackList.Local",
                          "RCPT.BlackList.Local.x@y",
                          "RCPT.Restricted.x@y",
                          "220",
                          "250",
                          ".220",
                          "RCPT.550",
                          "EHLO.250",
                          "etrn.250",
                          "XFOO.599",
                          "TLS.Required",
                          "AUTH.TLSRequired",
                          "DATA.AmbiguousEnd",
                          "Shutdown"}) {
    EXPECT_TRUE(IsResponseKey(key)) << key;
  }
  for (const char* key : {"",
                          ".",
                          "RCPT",
                          "RCPT.",
                          "RCPT.Relaying.a@b",
                          "RCPT.Private.",
                          "RCPT.Privat",
                          "RCTP.550",
                          "RCPT.5500",
                          "150",
                          "650",
                          "5x0",
                          "55",
                          "MAIL.RCPT.550",
                          "BadSeq.",
                          "MAIL.BadSeq",
                          "FOO.BadSeq.NoHelo",
                          ".BadSeq.NoHelo",
                          "TLS.Begins",
                          "RCPT.BlackList",
                          "RCPT.BlackList.a@b"}) {
    EXPECT_FALSE(IsResponseKey(key)) << key;
  }
}

TEST(ResponseKeys, OfThePageAreAllKnown) {
  const std::string text = SourceFile("docs/responses.md");
  int keys = 0;
  for (std::string_view line : Split(text, '\n')) {
    if (!line.starts_with("| `")) continue;
    const auto cells = Cells(line);
    if (cells.size() != 4) continue;
    for (std::string_view key : Split(cells[0], '`')) {
      if (key.empty() || key.starts_with(',')) continue;
      std::string name = ReplaceAll(ReplaceAll(key, "<VERB>", "MAIL"), "<code>", "550");
      name = ReplaceAll(ReplaceAll(name, "<from>", "a@b"), "<rcpt>", "a@b");
      EXPECT_TRUE(IsResponseKey(name)) << name;
      ++keys;
    }
  }
  EXPECT_GT(keys, 40);
}

TEST(ResponseKeys, HaveAHintWhenOneIsNear) {
  const struct {
    const char* key;
    const char* meant;
  } rows[] = {
      {"RCPT.Relayin", "RCPT.Relaying"},
      {"RCTP.550", "RCPT.550"},
      {"MIAL.BadSeq.NoHelo", "MAIL.BadSeq.NoHelo"},
      {"RCPT.Privat.a@b.example", "RCPT.Private.a@b.example"},
      {"RCPT.BlackLists.Local.a@b", "RCPT.BlackList.Local.a@b"},
      {"BadSeq.NoHello", "BadSeq.NoHelo"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ResponseKeyHint(row.key), " (did you mean \"" + std::string(row.meant) + "\"?)") << row.key;
  }
  EXPECT_EQ(ResponseKeyHint("nothing like one"), "");
}

// With all settings at their default and those of `lines`.
Configuration Settings(const std::string& lines) {
  RecordedLog log;
  const IniErrors errors{log, false};
  SectionStore store;
  EXPECT_TRUE(mCommon::ReadIniText("x.ini", "[Common]\n" + lines, store, errors));
  Configuration configuration = DefaultConfiguration();
  ReadSettings(store, errors, {.program_directory = "/", .local_host_name = [] { return "p"; }},
               configuration);
  return configuration;
}

TEST(ResponseKeys, AreNeverAppliedWhenSettingsRuleTheReplyOut) {
  const struct {
    const char* key;
    std::vector<const char*> never;   // settings
    std::vector<const char*> may_be;  // others
  } rows[] = {
      {"TooManyConnections", {""}, {"MaxConnections=1\n"}},
      {"IPBlackList",
       {"", "IPBlackList=1.2.3.4\nIPWhiteList=0.0.0.0/0\n", "BindIP=::\n"},
       {"IPBlackList=1.2.3.4\n", "IPAllowList=10.0.0.0/8\n", "BindIP=::\nIPAllowList=0.0.0.0/0\n"}},
      {"HostsBlackList",
       {"", "HostsBlackList=x\n", "ValidateRDNS=1\n", "ValidateRDNS=1\nHostsBlackList=x\nHostsWhiteList=*\n"},
       {"ValidateRDNS=2\nHostsBlackList=x\n", "ValidateRDNS=1\nHostsAllowList=x\n"}},
      {"NoPtr",
       {"", "ValidateRDNS=3\nHostsWhiteList=[]\n", "ValidateRDNS=1\nLocalIPs=\n"},
       {"ValidateRDNS=1\n", "ValidateRDNS=2\nLocalIPs=\n", "ValidateRDNS=3\nHostsWhiteList=x\n",
        "ValidateRDNS=3\nHostsWhiteList=[]\n[Service]\nDnsFailure=1\n"}},
      {"QUIT.BadIP",
       {"", "ValidateRDNS=3\nHostsWhiteList=*\n"},
       {"ValidateRDNS=1\n", "ValidateRDNS=3\nHostsWhiteList=[]\nHostsBlackList=x\n"}},
      {"BadSeq.BadIP", {"", "ValidateRDNS=3\nHostsWhiteList=*\n"}, {"ValidateRDNS=1\n"}},
      {"MAIL.BadSeq.BadIP", {""}, {"ValidateRDNS=1\n"}},
      {"HELO.NoDomain",
       {"", "ValidateHELO=8\n", "ValidateHELO=8\nHELOBlackList=x\n"},
       {"ValidateHELO=1\n", "ValidateHELO=8\nHELOBlackList=[]\n"}},
      {"HELO.BlackList",
       {"", "HELOBlackList=x\n", "ValidateHELO=4\n", "ValidateHELO=3\nHELOBlackList=x\n"},
       {"ValidateHELO=4\nHELOBlackList=x\n"}},
      {"HELO.DNSError", {"", "ValidateHELO=12\n"}, {"ValidateHELO=1\n", "ValidateHELO=2\n"}},
      {"HELO.Invalid", {"", "ValidateHELO=12\n"}, {"ValidateHELO=1\n"}},
      {"TLS.Required", {""}, {"[TLS]\nRequire=2\n"}},
      {"TLS.Syntax", {""}, {"[TLS]\nCertificate=/c.pem\n"}},
      {"TLS.NotAvailable", {""}, {"[TLS]\nCertificate=/c.pem\n"}},
      {"TLS.DataBehind", {""}, {"[TLS]\nCertificate=/c.pem\n"}},
      {"AUTH.TLSRequired",
       {"", "[TLS]\nCertificate=/c.pem\nRequireForAUTH=0\n"},
       {"[TLS]\nCertificate=/c.pem\n"}},
      {"MAIL.TooManyTransactions",
       {"", "MaxTransactionsLocal=1\nLocalIPs=\n"},
       {"MaxTransactionsLocal=1\n", "MaxTransactionsRemote=1\nLocalIPs=\n"}},
      {"MAIL.BlackList",
       {"", "SendersBlackList=x\nSendersWhiteList=*\n"},
       {"SendersBlackList=x\n", "SendersAllowList=x\n", "SendersAllowList=\n"}},
      {"MAIL.Size", {"MaxSize=-1\n", "MaxSize=-2\n"}, {"", "MaxSize=1M\n"}},
      {"RCPT.TooManyRecipients",
       {"", "MaxRecipientsLocal=1\nLocalIPs=\n"},
       {"MaxRecipientsLocal=1\n", "MaxRecipientsRemote=1\nLocalIPs=\n"}},
      {"RCPT.Restricted", {"", "RestrictedSenders=x\nLocalIPs=\n"}, {"RestrictedSenders=x\n"}},
      {"RCPT.Restricted.a@b", {"", "RestrictedSenders=x\n"}, {"RestrictedSenders=x,*@b\n"}},
      {"RCPT.BlackList.Local", {""}, {"RecipientsBlackListLocal=x\n", "RecipientsAllowListLocal=x\n"}},
      {"RCPT.BlackList.Local.a@b",
       {"", "RecipientsBlackListLocal=x\n", "RecipientsBlackListLocal=a@b\nRecipientsWhiteListLocal=A@B\n"},
       {"RecipientsBlackListLocal=a@b\n", "RecipientsAllowListLocal=x\n"}},
      {"RCPT.BlackList.Remote",
       {"", "LocalDomains=b\n", "RecipientsBlackListRemote=x\n"},
       {"LocalDomains=b\nRecipientsBlackListRemote=x\n"}},
      {"RCPT.BlackList.Remote.a@b",
       {"LocalDomains=c\nRecipientsBlackListRemote=a@b\n", "LocalDomains=b\nRecipientsBlackListRemote=x\n"},
       {"LocalDomains=b\nRecipientsBlackListRemote=a@b\n"}},
      {"RCPT.Private",
       {"", "LocalDomains=b\n", "PrivateRecipients=x\n"},
       {"LocalDomains=b\nPrivateRecipients=x\n"}},
      {"RCPT.Private.a@b",
       {"", "LocalDomains=b\nPrivateRecipients=x@b\n", "LocalDomains=c\nPrivateRecipients=a@b\n",
        "LocalDomains=b\nPrivateRecipients=a@b\nRecipientsBlackListRemote=*@b\n"},
       {"LocalDomains=b\nPrivateRecipients=a@*\n"}},
      {"RCPT.Greylisted",
       {"", "LocalDomains=b\n", "[GreyListing]\nEnabled=1\n"},
       {"LocalDomains=b\n[GreyListing]\nEnabled=1\n"}},
      {"RCPT.Greylisted.a@b",
       {"LocalDomains=c\n[GreyListing]\nEnabled=1\n",
        "LocalDomains=b\nRecipientsBlackListRemote=*@b\n[GreyListing]\nEnabled=1\n",
        "LocalDomains=b\nPrivateRecipients=a@*\n[GreyListing]\nEnabled=1\n"},
       {"LocalDomains=b\n[GreyListing]\nEnabled=1\n"}},
      {"DATA.Greylisted",
       {"", "[GreyListing]\nEnabled=1\n",
        "LocalDomains=b\n[GreyListing]\nEnabled=1\nCallbackSenderAction=2\n",
        "LocalDomains=b\n[GreyListing]\nEnabled=1\nCallbackSendersList=\n"},
       {"LocalDomains=b\n[GreyListing]\nEnabled=1\n"}},
      {"MAIL.AddressSyntax", {}, {""}},
      {"RCPT.AddressSyntax", {}, {""}},
      {"LineTooLong", {}, {""}},
      {"BadSyntax", {}, {""}},
      {"NotImplemented", {}, {""}},
      {"BadSeq", {}, {""}},
      {"BadSeq.NoHelo", {}, {""}},
      {"BadSeq.Transaction", {}, {""}},
      {"BadSeq.NoTransaction", {}, {""}},
      {"BadSeq.BDAT", {}, {""}},
      {"DATA.AmbiguousEnd", {}, {""}},
      {"ServerError", {}, {""}},
      {"RCPT.Relaying", {}, {""}},
      {"Shutdown", {}, {""}},
      {"550", {}, {""}},
      {"MAIL.BadSeq.NoHelo", {}, {""}},
  };
  // No reply of the table is left out.
  for (int kind = 0; kind < kReplyKinds; ++kind) {
    const std::string_view key = FindPolicyReply(static_cast<ReplyKind>(kind)).key;
    EXPECT_TRUE(key.empty() || std::any_of(std::begin(rows), std::end(rows),
                                           [&](const auto& row) { return row.key == key; }))
        << key;
  }
  for (const auto& row : rows) {
    EXPECT_TRUE(IsResponseKey(row.key)) << row.key;
    for (const char* lines : row.never) {
      const std::string reason = WhyNeverApplied(row.key, Settings(lines));
      EXPECT_TRUE(reason.starts_with("The reply never comes: ") && reason.ends_with('.')) << row.key << "\n"
                                                                                          << lines << reason;
    }
    for (const char* lines : row.may_be) {
      EXPECT_EQ(WhyNeverApplied(row.key, Settings(lines)), "") << row.key << "\n" << lines;
    }
  }
}

// Those that the page of settings names.
TEST(Macros, OfThePageAreAllKnown) {
  const std::string text = SourceFile("docs/settings.md");
  int macros = 0;
  for (std::size_t begin = text.find("{%"); begin != std::string::npos; begin = text.find("{%", begin + 2)) {
    const std::size_t end = text.find("%}", begin);
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(UnknownMacro(text.substr(begin, end + 2 - begin)), "");
    ++macros;
  }
  EXPECT_GE(macros, 18);
  EXPECT_EQ(UnknownMacro("550 {%x%} {%from%}"), "{%x%}");
  EXPECT_EQ(UnknownMacro("550 {%from%} {%From %}"), "{%From %}");
  EXPECT_EQ(UnknownMacro("550 {%from"), "");
  EXPECT_EQ(MacroHint("{%rcptdomaine%}"), " (did you mean \"{%rcptdomain%}\"?)");
}

// The table of macros in the page of settings.
TEST(Macros, AreThoseOfThePage) {
  const std::string text = SourceFile("docs/settings.md");
  std::vector<std::string> documented;
  bool in_section = false;
  for (std::string_view line : Split(text, '\n')) {
    if (line.starts_with("## ")) in_section = line == "## Section ResponseChanges";
    if (!in_section || !line.starts_with("| `{%")) continue;
    const auto cells = Cells(line);
    ASSERT_EQ(cells.size(), 2U) << line;
    EXPECT_FALSE(cells[1].empty()) << line;
    const auto pieces = Split(cells[0], '`');
    for (std::size_t i = 1; i < pieces.size(); i += 2) documented.emplace_back(pieces[i]);
  }
  std::vector<std::string> known = {"{%original%}", "{%crlf%}"};
  for (const std::string_view name : SessionMacros::Names()) known.push_back("{%" + std::string(name) + "%}");
  std::sort(documented.begin(), documented.end());
  std::sort(known.begin(), known.end());
  EXPECT_EQ(documented, known);
}

}  // namespace
}  // namespace trabex
