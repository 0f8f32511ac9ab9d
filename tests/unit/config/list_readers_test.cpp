#include "config/list_readers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config_support.h"
#include "support/ip_address.h"

namespace trabex {
namespace {

constexpr const char* kKey = "IPBlackList";  // one that may stand on several lines

struct ListRow {
  std::string lines;  // the values of the key, a line each
  Lines entries;
  struct Report {
    int number;
    std::string description;
  };
  std::vector<Report> reports = {};
};

void CheckRows(const mCommon::ListForm& form, const std::vector<ListRow>& rows) {
  for (const ListRow& row : rows) {
    SCOPED_TRACE(row.lines);
    std::string text = "[Common]\n";
    std::size_t from = 0;
    for (std::size_t end = 0; end != std::string::npos; from = end + 1) {
      end = row.lines.find('\n', from);
      text += std::string(kKey) + "=" + row.lines.substr(from, end - from) + "\n";
    }
    ReadText read(text, false);
    ASSERT_TRUE(read.result);
    const SectionTable& section = read.store.Section("Common");

    EXPECT_EQ(Entries(mCommon::GetList({read.log, true}, kKey, section, "unused", form)), row.entries);
    Lines reports;
    for (const auto& report : row.reports) {
      reports.push_back(ConfigErrorLine("Common", kKey, report.number, report.description));
    }
    EXPECT_EQ(read.log.Take(), reports);

    // Not ignored, the first error is raised with its number and description.
    try {
      EXPECT_EQ(Entries(mCommon::GetList({read.log, false}, kKey, section, "unused", form)), row.entries);
      EXPECT_TRUE(reports.empty());
    } catch (const Error& error) {
      ASSERT_FALSE(reports.empty()) << error.Description();
      EXPECT_EQ(error.Number(), row.reports[0].number);
      EXPECT_EQ(error.Description(), row.reports[0].description);
      EXPECT_EQ(read.log.Take(), (Lines{reports[0]}));
    }
  }
}

std::string BadPattern(const std::string& text) {
  return "Invalid Regular Expression in string: \"" + text + "\".";
}
std::string Twice(const std::string& text) {
  return "Expression \"" + text + "\" specified more than once.";
}
std::string BadDelimited(const std::string& text) {
  return "Invalid delimited string \"" + text + "\".";
}
std::string Unbalanced(const std::string& text) {
  return "Unbalanced delimiters in delimited string \"" + text + "\".";
}

TEST(GetList, ReadsAddressLists) {
  CheckRows(mCommon::kAddressListForm,
            {
                {"", {}},
                {" , ,", {}},
                {"a@b", {"a@b"}},
                {"a, b ,c", {"a", "b", "c"}},
                {"\"a, b\",c", {"a, b", "c"}},
                {"a b", {"a+b"}},
                {"  a   b  , c", {"a+b", "c"}},
                {"\"a b\" c", {"a b+c"}},
                {"\"\"", {""}},
                {"\"\" x", {"+x"}},
                {"\"a\"", {"a"}},
                {"\" a \"", {" a "}},
                {"a\"b,c\"d", {"a\"b,c\"d"}},  // a delimited part may stand anywhere, and does not split
                {"\"a\"\"b\"", {"a\"\"b"}},    // doubled delimiters stay as they stand
                {"[],[]x,[a-z],[!0-9]#", {"[]", "[]x", "[a-z]", "[!0-9]#"}},
                // Several lines are one list.
                {"a,b\nc\nd,e", {"a", "b", "c", "d", "e"}},
                {"\n\na", {"a"}},
                // Duplicates: the first one stays, in its place.
                {"a,b,a,c", {"a", "b", "c"}, {{457, Twice("a")}}},
                {"a\nb\nA", {"a", "b"}, {{457, Twice("A")}}},
                {"a,\"a\"", {"a"}, {{457, Twice("a")}}},
                {"a,a,a", {"a"}, {{457, Twice("a")}, {457, Twice("a")}}},
                {"a b,A B,b a", {"a+b", "b+a"}, {{457, Twice("A B")}}},
                {"a b,a  b", {"a+b", "a+b"}},  // a group is known by how it is written
                {"\"a b\",a b", {"a b"}, {{457, Twice("a b")}}},
                {"\"\",\"\"", {""}, {{457, Twice("")}}},
                // Bad patterns, also after the first wildcard and in the negated part.
                {"a,[b,c", {"a", "c"}, {{93, BadPattern("[b")}}},
                {"x[z-a]", {}, {{93, BadPattern("x[z-a]")}}},
                {"[][", {}, {{93, BadPattern("[][")}}},
                {"*x[", {}, {{93, BadPattern("*x[")}}},
                {"\"[a\"", {}, {{93, BadPattern("[a")}}},
                {"a [b c,d", {"d"}, {{93, BadPattern("[b")}}},  // the whole group is dropped
                {"a \"b\"c d,e", {"e"}, {{321, BadDelimited("\"b\"c")}}},
                // Bad delimiters.
                {"\"a\"b,c", {"c"}, {{321, BadDelimited("\"a\"b")}}},
                {"\"a,b", {}, {{321, Unbalanced("\"a,b")}}},
                {"a,b,\"c\nd", {"d"}, {{321, Unbalanced("a,b,\"c")}}},
                {"\"\"\"", {}, {{321, Unbalanced("\"\"\"")}}},
            });
}

TEST(GetList, ReadsPlainLists) {
  CheckRows(mCommon::kPlainListForm, {
                                         {"[],postmaster@*", {"[]", "postmaster@*"}},
                                         {"\"a b\"", {"\"a+b\""}},  // quotes mean nothing
                                         {"\"a,b\"", {"\"a", "b\""}},
                                         {"\"a", {"\"a"}},
                                         {"a  b", {"a++b"}},  // every blank separates
                                         {"a, b c ", {"a", "b+c"}},
                                         {"a,,b", {"a", "b"}},
                                         {"a,A", {"a"}, {{457, Twice("A")}}},
                                         {"[a,b", {"b"}, {{93, BadPattern("[a")}}},
                                     });
}

TEST(GetList, ReadsExtensionLists) {
  CheckRows(mCommon::kExtensionListForm,
            {
                {"SIZE 100,AUTH LOGIN PLAIN", {"SIZE 100", "AUTH LOGIN PLAIN"}},
                {"\"X a, b\",Y", {"X a, b", "Y"}},
                {"[x", {"[x"}},  // no patterns
                {"size 1,SIZE 2,SIZEX", {"size 1", "SIZEX"}, {{457, Twice("SIZE 2")}}},
                {"\"size\",SIZE 2", {"size"}, {{457, Twice("SIZE 2")}}},
                {"\"\" ,\" a\"", {""}, {{457, Twice(" a")}}},  // both have no word before the first blank
            });
}

TEST(GetList, ReadsReplaceRecordsAsTheyAreWritten) {
  CheckRows(mCommon::kReplaceRecordForm, {
                                             {"<a, b>=<c>,<d>", {"<a, b>=<c>", "<d>"}},
                                             {"<a>>,<b>", {"<a>>,<b>"}},  // a doubled end does not end it
                                             {"[x", {"[x"}},
                                             {"<a,<b>", {"<a,<b>"}},
                                             {"<a", {}, {{321, Unbalanced("<a")}}},
                                         });
}

TEST(GetList, TakesTheDefaultTextOfAnAbsentKey) {
  ReadText read("[Common]\n", false);
  const SectionTable& section = read.store.Section("Common");
  const auto list = [&](std::string_view default_text) {
    return Entries(
        mCommon::GetList({read.log, false}, kKey, section, default_text, mCommon::kAddressListForm));
  };
  EXPECT_EQ(list(""), Lines{});
  EXPECT_EQ(list("*"), (Lines{"*"}));
  EXPECT_EQ(list("[],\"a b\""), (Lines{"[]", "a b"}));
}

TEST(GetList, KnowsTheFormsThatNoSettingUses) {
  CheckRows({.open_delimiter = "<", .close_delimiter = ">", .undelimit = true, .require_delimiters = true},
            {{"<a>,b,<c>", {"a", "c"}, {{321, BadDelimited("b")}}}});
  CheckRows({.skip_empty = false}, {{"a,,b", {"a", "", "b"}}, {",", {""}, {{457, Twice("")}}}});
  CheckRows({.open_delimiter = "\""}, {{"\"a,b\",c", {"\"a,b\"", "c"}}});
}

TEST(GetIPRangeList, KeepsTheGoodRangesInOrder) {
  ReadText read(
      "[Common]\nIPAllowList=10.0.0.5, 10.0.0.1/8 ,192.0.2.0/24\nIPAllowList=1.2.3,9.9.9.9-9.9.9.10,"
      "9.9.9.9-1.1.1.1,1.2.3.4/33,10.0.0.5\n",
      false);
  const SectionTable& section = read.store.Section("Common");
  const IPRangeList list = mCommon::GetIPRangeList({read.log, true}, "IPAllowList", section, "0.0.0.0/0");
  EXPECT_EQ(list.Ranges(), (std::vector<IPRange>{{IP("10.0.0.5"), IP("10.0.0.5")},
                                                 {IP("192.0.2.0"), IP("192.0.2.255")},
                                                 {IP("9.9.9.9"), IP("9.9.9.10")}}));
  const auto line = [](int number, const char* text) {
    return ConfigErrorLine("Common", "IPAllowList", number, text);
  };
  EXPECT_EQ(read.log.Take(),
            (Lines{line(457, "Expression \"10.0.0.5\" specified more than once."),
                   line(380, "Subnet mask \"8\" is inadmissible for IP address \"10.0.0.1\"."),
                   line(380, "Invalid IP address: \"1.2.3\"."),
                   line(380, "Invalid IP address range: \"9.9.9.9-1.1.1.1\"."),
                   line(380, "Invalid IP address range: \"1.2.3.4/33\".")}));

  EXPECT_THROW(mCommon::GetIPRangeList({read.log, false}, "IPAllowList", section, ""), Error);
  EXPECT_EQ(read.log.Take().size(), 1U);

  const IPRangeList all = mCommon::GetIPRangeList({read.log, false}, "IPWhiteList", section, "0.0.0.0/0");
  EXPECT_EQ(all.Ranges(), (std::vector<IPRange>{{kIPv4Any, kIPv4Broadcast}}));
}

TEST(GetIPRangeList, TakesBothFamilies) {
  ReadText read(
      "[Common]\nIPAllowList=::1, 10.0.0.0/8 ,fc00::/7,2001:db8::1/32\nIPAllowList=::g,10.0.0.1-::1,"
      "2001:db8::/ffff::,fe80::/129,::FFFF:192.0.2.1\n",
      false);
  const IPRangeList list =
      mCommon::GetIPRangeList({read.log, true}, "IPAllowList", read.store.Section("Common"), "0.0.0.0/0");
  EXPECT_EQ(list.Ranges(), (std::vector<IPRange>{{IP("10.0.0.0"), IP("10.255.255.255")},
                                                 {IP("192.0.2.1"), IP("192.0.2.1")},
                                                 {IP("::1"), IP("::1")},
                                                 {IP("fc00::"), IP("fc00::").PrefixEnd(7)}}));
  const auto line = [](const char* text) { return ConfigErrorLine("Common", "IPAllowList", 380, text); };
  EXPECT_EQ(read.log.Take(),
            (Lines{line("Invalid IP address range: \"2001:db8::1/32\"."),
                   line("Invalid IP address: \"::g\"."), line("Invalid IP address range: \"10.0.0.1-::1\"."),
                   line("Invalid IP address range: \"2001:db8::/ffff::\"."),
                   line("Invalid IP address range: \"fe80::/129\".")}));
}

TEST(GetIPRangeList, IsEmptyWhenNoRangeIsGood) {
  ReadText read("[Common]\nIPAllowList=x,y\n", false);
  EXPECT_EQ(
      mCommon::GetIPRangeList({read.log, true}, "IPAllowList", read.store.Section("Common"), "0.0.0.0/0")
          .Count(),
      0U);
  EXPECT_EQ(read.log.Lines().size(), 2U);
}

struct RuleRow {
  const char* record;
  const char* formatted;  // "" for a bad record
  bool case_sensitive = false;
};

TEST(GetResponseChanges, ReadsReplaceRecords) {
  const RuleRow rows[] = {
      {"<text>", "<text>", true},
      {"< text >", "< text >", true},
      {"<>", "<>", true},
      {"<a>=<b>", "<a>=<b>", false},
      {"<a>==<b>", "<a>==<b>", true},
      {" <a> = <b> ", "<a>=<b>", false},
      {"<a> = = <b>", "<a>==<b>", true},
      {"<a=b>=<c=d>", "<a=b>=<c=d>", false},
      {"<>=<b>", "<b>", false},
      {"<a>=<>", "<a>=<>", false},
      {"<a>>b>=<c>", "<a>>b>=<c>", false},
      {"text", ""},
      {"<a>=b", ""},
      {"a=<b>", ""},
      {"<a>=", ""},
      {"=<a>", ""},
      {"=", ""},
      {"==", ""},
      {"<a>=<>=<b>", ""},  // the middle part has to be nothing at all
      {"<a>=<b>=<c>", ""},
      {"<a>===<b>", ""},
      {"<a>==<b>=<c>", ""},
      {"<a>x=<b>", ""},
  };
  for (const RuleRow& row : rows) {
    SCOPED_TRACE(row.record);
    ReadText read("[ResponseChanges]\nRCPT.550=" + std::string(row.record) + "\n", false);
    const SectionTable& section = read.store.Section("ResponseChanges");
    const ResponseChangeTable table = mCommon::GetResponseChanges({read.log, true}, section);
    if (*row.formatted == '\0') {
      EXPECT_TRUE(table.Lists().empty()) << "only lists with rules are kept";
      const std::string record(Trim(row.record));
      EXPECT_EQ(read.log.Lines(), (Lines{ConfigErrorLine("ResponseChanges", "RCPT.550", 321,
                                                         "Invalid replace record \"" + record + "\".")}));
      EXPECT_THROW(mCommon::GetResponseChanges({read.log, false}, section), Error);
      continue;
    }
    EXPECT_EQ(read.log.Lines(), Lines{});
    const cReplaces* const replaces = table.Find("rcpt.550");
    ASSERT_NE(replaces, nullptr);
    EXPECT_EQ(replaces->Name(), "RCPT.550");
    ASSERT_EQ(replaces->Count(), 1U);
    EXPECT_EQ(replaces->Item(0), row.formatted);
    EXPECT_EQ(replaces->Rules()[0].CaseSensitive(), row.case_sensitive);
  }
}

TEST(GetResponseChanges, KeepsListsAndRulesInOrder) {
  ReadText read("[ResponseChanges]\nb=<1>,<2>=<3>\na=<x>\nempty=\nbad=oops\nB=<4>==<5>\nb=<1>\n", false);
  const ResponseChangeTable table =
      mCommon::GetResponseChanges({read.log, true}, read.store.Section("ResponseChanges"));
  ASSERT_EQ(table.Lists().size(), 2U);
  const cReplaces& b = table.Lists()[0];
  EXPECT_EQ(b.Name(), "b");
  ASSERT_EQ(b.Count(), 3U);
  EXPECT_EQ(b.Item(0), "<1>");
  EXPECT_EQ(b.Item(1), "<2>=<3>");
  EXPECT_EQ(b.Item(2), "<4>==<5>");
  EXPECT_EQ(table.Lists()[1].Name(), "a");
  EXPECT_EQ(
      read.log.Lines(),
      (Lines{ConfigErrorLine("ResponseChanges", "b", 457, "Expression \"<1>\" specified more than once."),
             ConfigErrorLine("ResponseChanges", "bad", 321, "Invalid replace record \"oops\".")}));
}

}  // namespace
}  // namespace trabex
