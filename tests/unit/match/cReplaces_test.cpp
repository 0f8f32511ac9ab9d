#include "match/cReplaces.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "match/address_replacement.h"
#include "match/mText.h"
#include "support/expect_error.h"

namespace trabex {
namespace {

std::string Ruled(const cReplace& rule, std::string text) {
  rule.ApplyRule(text);
  return text;
}

TEST(cReplace, ReplacesEveryOccurrence) {
  const struct {
    const char* search;
    const char* replacement;
    bool case_sensitive;
    const char* text;
    const char* result;
  } rows[] = {
      {"a", "b", false, "xaAy", "xbby"},
      {"a", "b", true, "xaAy", "xbAy"},
      {"A", "b", false, "aaa", "bbb"},
      {"a", "aa", false, "aa", "aaaa"},  // what was put in is not searched again
      {"aa", "b", false, "aaa", "ba"},
      {"a", "", false, "banana", "bnn"},
      {"z", "b", false, "banana", "banana"},
      {"User", "X", true, "user User", "user X"},
      {"a", "b", false, "", ""},
      // An empty search text takes the whole.
      {"", "new", false, "old", "new"},
      {"", "new", true, "old", "new"},
      {"", "", true, "old", ""},
      {"", "new", true, "", "new"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ruled(cReplace(row.search, row.replacement, row.case_sensitive), row.text), row.result)
        << row.search << " in " << row.text;
  }
}

TEST(cReplace, TheParagraphSignIsALineBreak) {
  const struct {
    std::string search;
    std::string text;
    std::string result;
  } rows[] = {
      {"a\xC2\xB6"
       "b",
       "a\r\nb", "!"},
      {"a\xB6"
       "b",
       "a\r\nb", "!"},
      {"\xC2\xB6\xC2\xB6", "\r\n\r\n", "!"},
      {"\xB6\xB6", "\r\n\r\n", "!"},
      {"\xC2\xB6\xB6", "\r\n\r\n", "!"},
      {"\xC2\xB6", "\xC2\xB6", "\xC2\xB6"},  // the sign itself is not found
      // B6 as a part of other characters: U+00F6, U+20B6, U+D6B6, U+1F6B6, U+36C0.
      {"\xC3\xB6", "\xC3\xB6", "!"},
      {"\xE2\x82\xB6", "\xE2\x82\xB6", "!"},
      {"\xED\x9A\xB6", "\xED\x9A\xB6", "!"},
      {"\xF0\x9F\x9A\xB6", "\xF0\x9F\x9A\xB6", "!"},
      {"\xE3\x9B\x80", "\xE3\x9B\x80", "!"},
      {"\xE3\xB6\x80", "\xE3\xB6\x80", "!"},
      {"\xF0\xB6\xB6\xB6", "\xF0\xB6\xB6\xB6", "!"},
      {"\xF4\x8F\xB6\xB6", "\xF4\x8F\xB6\xB6", "!"},
      // B6 in what is no character: overlong, a surrogate, beyond the last one, cut off.
      {"\xC1\xB6", "\xC1\r\n", "!"},
      {"\xE0\x82\xB6", "\xE0\x82\r\n", "!"},
      {"\xED\xA0\xB6", "\xED\xA0\r\n", "!"},
      {"\xF0\x80\x80\xB6", "\xF0\x80\x80\r\n", "!"},
      {"\xF4\x90\x80\xB6", "\xF4\x90\x80\r\n", "!"},
      {"\xF5\x80\x80\xB6", "\xF5\x80\x80\r\n", "!"},
      {"\xE2\xB6", "\xE2\r\n", "!"},
      {"\xF0\x9F\xB6", "\xF0\x9F\r\n", "!"},
      {"\xC2", "\xC2", "!"},
      {"\xC2\xC2\xB6", "\xC2\r\n", "!"},
      {"\xC3\xB6\xB6", "\xC3\xB6\r\n", "!"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Ruled(cReplace(row.search, "!", true), row.text), row.result) << row.search;
    EXPECT_EQ(Ruled(cReplace(row.search, "!", false), row.text), row.result) << row.search;
  }
  EXPECT_EQ(Ruled(cReplace("a", "\xC2\xB6", false), "a"), "\xC2\xB6") << "the replacement keeps it";
}

TEST(cReplace, FormatsAsItIsWritten) {
  EXPECT_EQ(cReplace("", "new", true).Format(), "<new>");
  EXPECT_EQ(cReplace("", "new", false).Format(), "<new>");
  EXPECT_EQ(cReplace("old", "new", false).Format(), "<old>=<new>");
  EXPECT_EQ(cReplace("old", "", true).Format(), "<old>==<>");
  EXPECT_EQ(cReplace("a\xC2\xB6", "b", false).Format(), "<a\xC2\xB6>=<b>");
}

// Values that say where they come from, and how often each was asked for.
class CountingSource : public MacroSource {
 public:
  std::optional<std::string> Value(std::string_view its_name) const override {
    static const std::set<std::string> kNames = {"from", "rcpt", "size", "helo", "host"};
    const std::string name = ToLower(its_name);
    if (!kNames.contains(name)) return std::nullopt;
    ++asked[name];
    const auto found = values.find(name);
    return found == values.end() ? "(" + name + ")" : found->second;
  }

  std::map<std::string, std::string> values;  // instead of the name
  mutable std::map<std::string, int> asked;
};

struct RuleText {
  std::string search;
  std::string replacement;
  bool case_sensitive = false;
};

cReplaces ListOf(const std::vector<RuleText>& rules) {
  cReplaces list;
  for (const RuleText& rule : rules) list.Add(rule.search, rule.replacement, rule.case_sensitive);
  return list;
}

std::string Applied(const std::vector<RuleText>& rules, std::string text, const MacroSource& macros) {
  ListOf(rules).Apply(text, macros);
  return text;
}

TEST(cReplaces, HoldsItsRulesInOrder) {
  cReplaces list;
  EXPECT_EQ(list.Count(), 0U);
  list.SetName("RCPT.550");
  EXPECT_EQ(list.Add("a", "b", true).Format(), "<a>==<b>");
  list.Add("", "c", false);
  EXPECT_EQ(list.Name(), "RCPT.550");
  EXPECT_EQ(list.Count(), 2U);
  EXPECT_EQ(list.Item(0), "<a>==<b>");
  EXPECT_EQ(list.Item(1), "<c>");
}

TEST(cReplaces, AppliesRulesOneAfterTheOther) {
  const CountingSource source;
  EXPECT_EQ(Applied({{"", "250 ok"}}, "550 no", source), "250 ok");
  EXPECT_EQ(Applied({{"a", "b"}, {"b", "c"}}, "ab", source), "cc");
  EXPECT_EQ(Applied({{"No", "yes", true}}, "NO No no", source), "NO yes no");
  EXPECT_EQ(Applied({{"a\xC2\xB6", "x"}}, "a\r\nb", source), "xb");
  EXPECT_EQ(Applied({{"SERVER", "{%host%}"}}, "server Server", source), "(host) (host)");
  EXPECT_EQ(Applied({}, "{%crlf%}", source), "{%crlf%}") << "without rules nothing is expanded";
}

TEST(cReplaces, TellsWhichRulesHaveChangedSomething) {
  cReplaces list;
  list.Add("nowhere", "x", false);
  list.Add("no", "yes", false);
  list.Add("yes", "YES", true);
  list.Add("YES", "YES", true);
  std::string text = "550 no";
  std::vector<std::size_t> changed;
  list.Apply(text, CountingSource(), &changed);
  EXPECT_EQ(text, "550 YES");
  EXPECT_EQ(changed, (std::vector<std::size_t>{1, 2}));
}

TEST(cReplaces, ExpandsMacrosInAnyCase) {
  const struct {
    const char* macro;
    const char* expansion;
  } rows[] = {
      {"{%original%}", "550 no"}, {"{%crlf%}", "\r\n"},           {"{%helo%}", "(helo)"},
      {"{%from%}", "a@b@c"},      {"{%unknown%}", "{%unknown%}"}, {"{%from}", "{%from}"},
      {"{%%}", "{%%}"},           {"{%}from%}", "{%}from%}"},
  };
  CountingSource source;
  source.values = {{"from", "a@b@c"}};
  for (const auto& row : rows) {
    const std::string macro = row.macro;
    const std::string expansion = row.expansion;
    EXPECT_EQ(Applied({{"", "x" + macro + ToUpper(macro) + "y"}}, "550 no", source),
              expansion[0] == '{' ? "x" + macro + ToUpper(macro) + "y" : "x" + expansion + expansion + "y");
  }
}

TEST(cReplaces, AsksOnlyForMacrosThatOccur) {
  const CountingSource source;
  EXPECT_EQ(Applied({{"a", "b"}, {"", "{%crlf%}{%original%} {% from %}"}}, "a", source), "\r\na {% from %}");
  EXPECT_TRUE(source.asked.empty());
  Applied({{"", "{%SIZE%}{%size%}{%From%}"}}, "a", source);
  EXPECT_EQ(source.asked, (std::map<std::string, int>{{"size", 1}, {"from", 1}}));
}

TEST(cReplaces, ExpandsWhatARulePutsIn) {
  CountingSource source;
  source.values["host"] = "192.0.2.1";
  // The second rule sees the value of the first one's macro.
  EXPECT_EQ(Applied({{"", "from {%host%}"}, {"192.0.2.1", "here"}}, "x", source), "from here");
  // The original is the text before any rule.
  EXPECT_EQ(Applied({{"a", "b"}, {"b", "<{%original%}>"}, {"x", "!"}}, "ax", source), "<a!>!");
  // What is no macro stays, one that begins inside of it counts.
  EXPECT_EQ(Applied({{"", "{%{%size%}{%x%}{%size{%"}}, "", source), "{%(size){%x%}{%size{%");
  // The words of one rule alone make a macro.
  EXPECT_EQ(Applied({{"", "{%si-"}, {"-", "ze%}"}}, "", source), "{%size%}");
  EXPECT_EQ(Applied({{"{%size%}", "x"}}, "a {%size%}", source), "a x") << "in a search text it is just text";
}

// What a peer wrote is text, whatever it looks like.
TEST(cReplaces, MacrosInTheTextThatIsRewrittenStayAsTheyAre) {
  const CountingSource source;
  const std::string text = "550 <x@{%crlf%}250-ok{%host%}250.y>: {%original%}";
  EXPECT_EQ(Applied({{"absent", "y"}}, text, source), text);
  EXPECT_EQ(Applied({{"550", "551"}}, text, source), "551 <x@{%crlf%}250-ok{%host%}250.y>: {%original%}");
  EXPECT_EQ(Applied({{"", "{%original%}!"}}, text, source), text + "!");
  EXPECT_EQ(Applied({{"@", "(at){%size%}"}}, text, source),
            "550 <x(at)(size){%crlf%}250-ok{%host%}250.y>: {%original%}");
  // Nor do words of the rule and of the text make one together.
  EXPECT_EQ(Applied({{"X", "{%"}, {"Y", "%}"}}, "XsizeY", source), "{%size%}");
  EXPECT_EQ(source.asked, (std::map<std::string, int>{{"size", 1}}));
}

TEST(cReplaces, AValueIsNeverLookedAtAgain) {
  const std::string hostile = "{%crlf%}250 {%original%}{%from%}{%rcpt%}{%helo%}{%size%}";
  for (const char* const name : {"from", "rcpt", "size", "helo", "host"}) {
    CountingSource source;
    source.values = {{name, hostile}};
    const std::string macro = std::string("{%") + name + "%}";
    EXPECT_EQ(Applied({{"", "550 " + macro + "!"}}, "x", source), "550 " + hostile + "!") << macro;
    // Not by the macros of later rules either, which see it as text.
    EXPECT_EQ(Applied({{"", macro}, {"absent", "{%crlf%}"}, {"250 {", "251 {%original%}{"}}, "x", source),
              "{%crlf%}251 x{%original%}{%from%}{%rcpt%}{%helo%}{%size%}")
        << macro;
    // A macro that begins in the rule and ends in a value is none.
    source.values = {{name, "crlf%}"}};
    EXPECT_EQ(Applied({{"", "{%" + macro}, {"absent", ""}}, "x", source), "{%crlf%}") << macro;
  }
  EXPECT_EQ(Applied({{"", "{%original%}"}, {"absent", ""}}, hostile, CountingSource()), hostile);
}

TEST(cReplaces, ValuesBringNoLineEnds) {
  const struct {
    const char* original;
    const char* in_one_line;
  } rows[] = {
      {"550 no", "550 no"},
      {"550-no", "550-no"},
      {"550-no\r\n550 way", "550 no way"},
      {"550-5.7.1 no\r\n550-5.7.1 way\r\n550 5.7.1 here", "550 5.7.1 no 5.7.1 way 5.7.1 here"},
      {"550-\r\n550", "550  "},
      // Other codes are text.
      {"550-no\r\n250 way", "550 no 250 way"},
      {"550 no\r\n250 way\r\n550 out", "550 no 250 way out"},
      {"550 no\r\n5500 way", "550 no 5500 way"},
      {"abc-no\r\nabc way", "abc-no abc way"},
      {"no\r\nway", "no way"},
      {"no\nway\rout\n\rthere\r\n", "no way out  there "},
      {"\r\n", " "},
      {"55\r\n55", "55 55"},
  };
  for (const auto& row : rows) {
    const CountingSource source;
    EXPECT_EQ(Applied({{"", " {%original%}"}}, row.original, source), std::string(" ") + row.in_one_line);
    EXPECT_EQ(Applied({{"", "551-x{%crlf%}551 {%original%}{%crlf%}"}}, row.original, source),
              std::string("551-x\r\n551 ") + row.in_one_line + "\r\n");
    CountingSource other;
    other.values = {{"from", row.original}};
    EXPECT_EQ(Applied({{"", "{%from%}"}}, "x", other), row.in_one_line) << row.original;
    // The text itself keeps its lines.
    EXPECT_EQ(Applied({{"absent", "{%original%}"}}, row.original, source), row.original);
  }
}

// "<{%original%} more>" adds to a reply, and makes no other one of it.
TEST(cReplaces, AWholeReplyThatBeginsALineKeepsItsLines) {
  const struct {
    const char* original;
    bool kept;
  } rows[] = {
      {"250-a\r\n250 b", true},
      {"250-a\r\n250-b\r\n250", true},
      {"250-\r\n250-\r\n250 ", true},
      // Two replies, parts of one, several codes, lines that end in less.
      {"250 a\r\n250 b", false},
      {"250-a\r\n250-b", false},
      {"250-a\r\n251 b", false},
      {"250-a\r\n251-b\r\n250 c", false},
      {"250-a\r\n250b", false},
      {"250-a\r\n\r\n250 b", false},
      {"250-a\n250 b", false},
      {"250-a\r250 b", false},
      {"250-a\r\n250 b\r", false},
      {"250-a\r\n250 b\r\n", false},
      {"250-a\rb\r\n250 c", false},
      {"abc-a\r\nabc b", false},
      {"25\r\n25", false},
  };
  for (const auto& row : rows) {
    const CountingSource source;
    const std::string in_one_line = Applied({{"", " {%original%}"}}, row.original, source).substr(1);
    EXPECT_EQ(in_one_line.find_first_of("\r\n"), std::string::npos);
    const std::string put_in = row.kept ? row.original : in_one_line;
    EXPECT_EQ(Applied({{"", "{%original%} (more)"}}, row.original, source), put_in + " (more)");
    EXPECT_EQ(Applied({{"", "250-x{%crlf%}{%Original%}{%crlf%}"}}, row.original, source),
              "250-x\r\n" + put_in + "\r\n");
    // Elsewhere it is a value like the others.
    EXPECT_EQ(Applied({{"", "550 {%original%}"}}, row.original, source), "550 " + in_one_line);
    EXPECT_EQ(Applied({{"", "{%x%}{%original%}"}}, row.original, source), "{%x%}" + in_one_line);
    if (std::string_view(row.original).starts_with("250-a")) {
      EXPECT_EQ(Applied({{"a", "{%original%}", true}}, row.original, source),
                "250-" + in_one_line + std::string(row.original).substr(5));
    }
    CountingSource other;
    other.values = {{"from", row.original}};
    EXPECT_EQ(Applied({{"", "{%from%}"}}, "x", other), in_one_line);
  }
}

// Whatever the values are, the reply has the lines that the rules' author gave it, and begins each with his
// code.
TEST(cReplaces, ValuesLeaveAReplyItsOneCode) {
  const std::vector<std::string> pieces = {"{%crlf%}", "{%original%}", "{%from%}", "\r\n", "\r", "\n",
                                           "250 ok",   "250-",         "550",      "{%",   "%}", "crlf",
                                           " ",        "\xC2\xB6",     "\xB6",     "x"};
  std::mt19937 random(1);
  const auto text = [&] {
    std::string made;
    for (auto count = random() % 8; count > 0; --count) made += pieces[random() % pieces.size()];
    return made;
  };
  for (int round = 0; round < 1000; ++round) {
    CountingSource source;
    for (const char* name : {"from", "rcpt", "helo", "host"}) source.values[name] = text();
    const std::string result = Applied({{"", "550-a {%from%}{%crlf%}550-b {%original%}{%rcpt%}{%crlf%}550 c"},
                                        {" c", " {%helo%}{%host%}"},
                                        {"absent", "{%crlf%}"}},
                                       text(), source);
    std::size_t line_ends = 0;
    for (std::size_t at = result.find_first_of("\r\n"); at != std::string::npos;
         at = result.find_first_of("\r\n", at + 2)) {
      EXPECT_EQ(result.substr(at, 5), "\r\n550") << result;
      ++line_ends;
    }
    EXPECT_EQ(line_ends, 2U) << result;
    if (HasFailure()) return;
  }
}

TEST(cReplaces, AClientCannotBlowUpAReply) {
  CountingSource source;
  const std::string from(4000, 'a');
  source.values = {{"from", from}, {"rcpt", from}};
  const std::string original = "550 no";
  // Each rule finds what the one before it has put in.
  std::vector<RuleText> rules = {{"", "{%from%}"}};
  for (int count = 0; count < 20; ++count) rules.push_back({"a", "{%from%}"});
  for (int count = 0; count < 20; ++count) rules.push_back({"aa", "{%from%}{%rcpt%}"});
  EXPECT_LE(Applied(rules, original, source).size(), original.size() + 65536);
  // The words of a rule whose values are too long stand as they are written.
  EXPECT_EQ(Applied({{"", "aa"}, {"a", "x{%from%}"}}, original, source), "x" + from + "x" + from);
  EXPECT_EQ(Applied({{"", std::string(20, 'a')}, {"a", "x{%from%}"}}, original, source).substr(0, 20),
            "x{%from%}x{%from%}x{");
  // Values as long as the bound allows are whole.
  source.values = {{"from", std::string(65536, 'f')}};
  EXPECT_EQ(Applied({{"", "550 no{%from%}"}}, original, source), "550 no" + std::string(65536, 'f'));
  EXPECT_EQ(Applied({{"", "550 no!{%from%}"}}, original, source), "550 no!{%from%}");
  EXPECT_EQ(Applied({{"550", "551"}, {"no", "no{%from%}"}}, original, source),
            "551 no" + std::string(65536, 'f'));
  EXPECT_EQ(Applied({{"no", "!no{%from%}"}}, original, source), "550 !no{%from%}");
  // A long reply can still be repeated.
  const std::string longer(100000, 'o');
  EXPECT_EQ(Applied({{"", "{%original%}!"}}, longer, source), longer + "!");
}

TEST(cReplaces, FailuresCarryItsSourceAndChangeNothing) {
  class FailingSource : public MacroSource {
    std::optional<std::string> Value(std::string_view) const override {
      throw Error(5, "RFCDate", "No clock.");
    }
  };
  const FailingSource source;
  const cReplaces list = ListOf({{"a", "b"}, {"", "{%rfctime%}"}});
  std::string text = "a";
  ExpectError([&] { list.Apply(text, source); }, 5, "cReplaces.Apply", "No clock.");
  EXPECT_EQ(text, "a");
}

TEST(ResponseChangeTable, KeepsListsWithRulesByName) {
  ResponseChangeTable table;
  for (const char* name : {"RCPT.550", "BadSeq"}) {
    cReplaces list = ListOf({{"", name}});
    list.SetName(name);
    table.Add(std::move(list));
  }
  cReplaces without_rules;
  without_rules.SetName("Empty");
  table.Add(without_rules);
  EXPECT_EQ(table.Lists().size(), 2U);
  EXPECT_EQ(table.Lists()[0].Name(), "RCPT.550");
  ASSERT_NE(table.Find("badseq"), nullptr);
  EXPECT_EQ(table.Find("badseq")->Item(0), "<BadSeq>");
  EXPECT_EQ(table.Find("rcpt.550"), &table.Lists()[0]);
  EXPECT_EQ(table.Find("Empty"), nullptr);
  EXPECT_EQ(table.Find(""), nullptr);

  cReplaces twice = ListOf({{"", "x"}});
  twice.SetName("BADSEQ");
  ExpectError([&] { table.Add(twice); }, 457, "ResponseChangeTable.Add",
              "This key is already associated with an element of this collection");
  EXPECT_EQ(table.Lists().size(), 2U);

  const ResponseChangeTable copy = table;
  EXPECT_EQ(copy.Find("BadSeq"), &copy.Lists()[1]);
}

TEST(FindAddressReplacement, TakesTheFirstKeyThatMatches) {
  const ReplacementTable table{
      {"a@x.test", "first@y.test"},
      {"*@x.test []b*", "second@y.test"},
      {"\"odd, one@x.test\",b2@x.test", "third@y.test"},
      {"*@x.test", "fourth@y.test"},
      {"\"\"", "empty@y.test"},
  };
  const struct {
    const char* address;
    std::optional<std::string> value;
  } rows[] = {
      {"A@X.test", "first@y.test"},  {"c@x.test", "second@y.test"},        {"b1@x.test", "fourth@y.test"},
      {"b2@x.test", "third@y.test"}, {"odd, one@x.test", "second@y.test"}, {"a@z.test", std::nullopt},
      {"", "empty@y.test"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(FindAddressReplacement(row.address, table), row.value) << row.address;
  EXPECT_EQ(FindAddressReplacement("a", ReplacementTable{}), std::nullopt);
}

TEST(FindAddressReplacement, EmptyPiecesOfAKeyMatchNothing) {
  const ReplacementTable table{{"a,,b", "x"}, {"", "y"}, {" , ", "z"}};
  EXPECT_EQ(FindAddressReplacement("", table), std::nullopt);
  EXPECT_EQ(FindAddressReplacement("other", table), std::nullopt);
  EXPECT_EQ(FindAddressReplacement("b", table), "x");
}

// As if all keys were tried in their order.
TEST(FindAddressReplacement, FindsPlainKeysAsIfTheyWereTried) {
  const std::vector<std::string> pieces = {"a",  "B",    "@",  ".", "*", "?",  "#",
                                           "[]", "[ab]", "[!", ",", " ", "\"", ""};
  const mText::ComplexForm form{true, true, "\"", "\"", true};
  std::mt19937 random(7);
  const auto some = [&](std::size_t kinds) {
    std::string text;
    for (int count = 0; count < 3; ++count) text += pieces[random() % kinds];
    return text;
  };
  int found = 0;
  for (int round = 0; round < 20000; ++round) {
    ReplacementTable table;
    for (std::size_t number = 0; number < 6; ++number) {
      const std::string key = some(random() % 2 ? 4 : pieces.size());
      if (mText::IsInvalidPattern(key)) continue;
      table.Add(key, std::to_string(number));
    }
    const std::string address = some(4);
    std::optional<std::string> expected;
    try {
      for (const ReplacementTable::Rule& rule : table.Rules()) {
        if (!mText::LikeTextComplex(address, rule.key, form)) continue;
        expected = rule.value;
        break;
      }
    } catch (const Error&) {
      EXPECT_THROW(FindAddressReplacement(address, table), Error);
      continue;
    }
    ASSERT_EQ(FindAddressReplacement(address, table), expected) << address;
    found += expected.has_value() ? 1 : 0;
  }
  EXPECT_GT(found, 1000);
}

TEST(FindAddressReplacement, PassesFailuresOn) {
  ExpectError(
      [] {
        FindAddressReplacement("a", {{"b[", "x"}});
      },
      93, "mText.LikeTextComplex", "Invalid Regular Expression in string: \"b[\".");
}

}  // namespace
}  // namespace trabex
