#include "proxy/admission.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "support/ip_address.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// Writes down what was asked: the value, and "+" when it is in the list.
class Notes final : public DecisionTrace {
 public:
  explicit Notes(const Configuration& configuration) : c(configuration) {}

  void Asked(const ExpressionList& list, std::string_view value, bool matches) override {
    const std::string_view name = &list == &c.HostsWhiteList   ? "white"
                                  : &list == &c.HostsAllowList ? "allow"
                                                               : "black";
    Add(std::string(name).append(" ").append(value), matches);
  }
  void Asked(const IPRangeList& list, const IPAddress& address, bool matches) override {
    const std::string_view name = &list == &c.IPWhiteList   ? "white"
                                  : &list == &c.IPAllowList ? "allow"
                                  : &list == &c.IPBlackList ? "black"
                                                            : "local";
    Add(std::string(name).append(" ").append(FormatIPAddress(address)), matches);
  }
  void Replaced(const ReplacementTable&, const ReplacementTable::Rule&) override { Add("replaced", true); }
  void Changed(const cReplaces&, std::size_t) override { Add("changed", true); }

  std::string Take() { return std::exchange(text_, {}); }

 private:
  void Add(const std::string& what, bool matches) {
    text_ += (text_.empty() ? "" : ", ") + what + (matches ? "+" : "");
  }

  const Configuration& c;
  std::string text_;
};

void Fill(ExpressionList& list, std::string_view pattern) {
  list = {};
  list.Add(pattern, {.patterns = {std::string(pattern)}});
}

IPRangeList Ranges(std::string_view text) {
  return IPRangeList({mCommon::InitIPRange(text)});
}

TEST(Admission, AsksTheListsOfAddressesInTheirOrder) {
  Configuration c = TestConfiguration();
  c.IPWhiteList = Ranges("192.0.2.1");
  c.IPAllowList = Ranges("192.0.2.0/24");
  c.IPBlackList = Ranges("192.0.2.128/25");
  Notes notes(c);
  const Admission admission(c, &notes);
  const struct {
    const char* client;
    const char* list;  // that refuses
    const char* asked;
  } rows[] = {
      {"192.0.2.2", "", "allow 192.0.2.2+, black 192.0.2.2"},
      {"192.0.2.200", "IPBlackList", "allow 192.0.2.200+, black 192.0.2.200+"},
      {"198.51.100.1", "IPAllowList", "allow 198.51.100.1"},
  };
  for (const auto& row : rows) {
    const auto refusal = admission.RefusedByAddress(*ParseIPAddress(row.client));
    EXPECT_EQ(refusal ? refusal->list.name : "", row.list) << row.client;
    EXPECT_TRUE(!refusal || refusal->kind == ReplyKind::kIPBlackList);
    EXPECT_EQ(notes.Take(), row.asked);
  }
  EXPECT_TRUE(admission.IsWhitelisted(*ParseIPAddress("192.0.2.1")));
  EXPECT_FALSE(admission.IsWhitelisted(*ParseIPAddress("192.0.2.2")));
  EXPECT_EQ(notes.Take(), "white 192.0.2.1+, white 192.0.2.2");
}

TEST(Admission, AsksTheListsOfNamesInTheirOrder) {
  Configuration c = TestConfiguration();
  Fill(c.HostsWhiteList, "good.example");
  Fill(c.HostsAllowList, "*.example");
  Fill(c.HostsBlackList, "bad.*");
  Notes notes(c);
  const Admission admission(c, &notes);
  const struct {
    const char* name;
    std::optional<ReplyKind> kind;
    const char* list;
    const char* asked;
  } rows[] = {
      {"good.example", std::nullopt, "", "white good.example+"},
      {"mx.example", std::nullopt, "", "white mx.example, allow mx.example+, black mx.example"},
      {"bad.example", ReplyKind::kHostsBlackList, "HostsBlackList",
       "white bad.example, allow bad.example+, black bad.example+"},
      {"mx.test", ReplyKind::kHostsBlackList, "HostsAllowList", "white mx.test, allow mx.test"},
      {"", ReplyKind::kNoPtr, "HostsWhiteList", "white "},
  };
  for (const auto& row : rows) {
    const auto refusal = admission.RefusedByName(row.name);
    EXPECT_EQ(refusal ? std::optional(refusal->kind) : std::nullopt, row.kind) << row.name;
    EXPECT_EQ(refusal ? refusal->list.name : "", row.list) << row.name;
    EXPECT_EQ(notes.Take(), row.asked);
  }
  // No list is asked about a name that is not known.
  const auto refusal = admission.RefusedByName(std::nullopt);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->kind, ReplyKind::kNoPtr);
  EXPECT_EQ(refusal->list.name, "");
  EXPECT_EQ(notes.Take(), "");
}

TEST(Admission, TheNameDecidesWhereTheSettingsAskForIt) {
  Configuration c = TestConfiguration();
  const Admission admission(c);
  const struct {
    std::int32_t validate;
    bool local;
    bool whitelisted;
    bool decides;
  } rows[] = {
      {0, true, false, false}, {0, false, false, false}, {1, true, false, true},  {1, false, false, false},
      {2, true, false, false}, {2, false, false, true},  {3, false, true, false}, {3, true, true, false},
  };
  for (const auto& row : rows) {
    c.ValidateRDNS = row.validate;
    EXPECT_EQ(admission.NameDecides(row.local, row.whitelisted), row.decides)
        << row.validate << row.local << row.whitelisted;
  }
}

}  // namespace
}  // namespace trabex
