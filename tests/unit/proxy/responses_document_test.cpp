// docs/responses.md names every reply of the proxy's own, its keys in their order, its text and its
// consequence.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "config/settings_table.h"
#include "proxy/dialogue/policy_replies.h"
#include "proxy/dialogue/response_changes.h"
#include "support/names_as_values.h"
#include "support/source_documents.h"

namespace trabex {
namespace {

using Words = std::vector<std::string>;

// The texts in backticks.
Words CodeIn(std::string_view text) {
  Words words;
  const auto pieces = Split(text, '`');
  for (std::size_t i = 1; i < pieces.size(); i += 2) words.emplace_back(pieces[i]);
  return words;
}

struct DocumentedReply {
  Words keys;
  std::string reply;
  std::string session;
  std::string when;
};

// The rows of the tables of the proxy's own replies, by the key that is only theirs: the last one without a
// value in it.
std::map<std::string, DocumentedReply> ReadDocument() {
  std::map<std::string, DocumentedReply> rows;
  const std::string text = SourceFile("docs/responses.md");
  bool in_own_replies = false;
  for (std::string_view line : Split(text, '\n')) {
    if (line.starts_with("## ")) in_own_replies = line == "## Replies of Trabex";
    if (!in_own_replies || !(line.starts_with("| `") || line.starts_with("| none |"))) continue;
    const auto cells = Cells(line);
    if (cells.size() != 4) continue;
    const Words keys = CodeIn(cells[0]);
    std::string name;
    for (const std::string& key : keys) {
      if (key.find('<') == std::string::npos) name = key;
    }
    EXPECT_TRUE(rows.insert({name, {keys, CodeIn(cells[1]).at(0), cells[2], cells[3]}}).second) << line;
  }
  return rows;
}

// The keys of a kind that is refused for several reasons are given by the rule that refuses.
Words OwnKeys(ReplyKind kind) {
  if (kind == ReplyKind::kBadSequence) return {"BadSeq.Transaction", "BadSeq.NoTransaction", "BadSeq.BDAT"};
  return {std::string(FindPolicyReply(kind).key)};
}

// The keys by which a reply of `kind` is changed, in their order. Each of those that there might be has a
// rule that puts the key's name at the end of the reply.
Words KeysInOrder(ReplyKind kind, const std::string& key) {
  const std::string code(FindPolicyReply(kind).code);
  Configuration configuration = DefaultConfiguration();
  for (const std::string& candidate : {std::string("BadSeq"), key, code}) {
    for (const std::string& name :
         {candidate, "<VERB>." + candidate, candidate + ".<from>", candidate + ".<rcpt>"}) {
      if (configuration.ResponseChanges.Find(name)) continue;
      cReplaces rule;
      rule.SetName(name);
      rule.Add("", "{%original%}|" + name, false);
      configuration.ResponseChanges.Add(std::move(rule));
    }
  }
  RequestedState requested;
  requested.CurrentVerb = "<VERB>";
  requested.Sender = "<from>";
  requested.Recipient = "<rcpt>";
  std::string reply = "reply";
  ApplyPolicyChanges(kind, key, requested, reply, configuration, NamesAsValues());
  const auto pieces = Split(reply, '|');
  return Words(pieces.begin() + 1, pieces.end());
}

std::string SessionText(const PolicyReply& row) {
  switch (row.after) {
    case AfterReply::kClose:
      return "closes";
    case AfterReply::kProxyOnly:
      return "refused";
    case AfterReply::kCount:
      return "counts";
    case AfterReply::kStartTls:
      return "TLS begins";
    case AfterReply::kGoOn:
      break;
  }
  return "goes on";
}

TEST(ResponsesDocument, NamesEveryReplyOfTheProxyWithItsKeysAndItsText) {
  auto documented = ReadDocument();
  for (int number = 0; number < kReplyKinds; ++number) {
    const auto kind = static_cast<ReplyKind>(number);
    for (const std::string& key : OwnKeys(kind)) {
      ASSERT_TRUE(documented.contains(key)) << key;
      const DocumentedReply& row = documented[key];
      EXPECT_EQ(row.reply, BuildPolicyReply(kind, NamesAsValues(), true));
      EXPECT_EQ(row.keys, KeysInOrder(kind, key));
      EXPECT_EQ(row.session, SessionText(FindPolicyReply(kind))) << key;
      documented.erase(key);
    }
  }
  for (const auto& [key, row] : documented) ADD_FAILURE() << key << " is no reply";
}

TEST(ResponsesDocument, NamesSettingsAndKeysThatThereAre) {
  const auto documented = ReadDocument();
  EXPECT_FALSE(documented.empty());
  for (const auto& [key, row] : documented) {
    EXPECT_FALSE(row.when.empty()) << key;
    for (const std::string& name : CodeIn(row.when)) {
      const bool known = FindSetting("Common", name) || FindSetting("TLS", name) ||
                         FindSetting("GreyListing", name) || FindSetting("Service", name) ||
                         documented.contains(name);
      EXPECT_TRUE(known) << key << ": " << name;
    }
  }
}

}  // namespace
}  // namespace trabex
