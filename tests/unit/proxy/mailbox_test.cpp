#include "proxy/dialogue/mailbox.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "unit/proxy/dialogue.h"

namespace trabex {
namespace {

// A path argument as "address|parameters", or what becomes of it.
std::string Parsed(std::string_view text, AddressesWithoutBrackets without_brackets) {
  const ParsedPath path = ParsePath(text, without_brackets);
  switch (path.verdict) {
    case ParsedPath::Verdict::kSyntaxError:
      return "refused";
    case ParsedPath::Verdict::kForwardUnchecked:
      return "unchecked";
    case ParsedPath::Verdict::kTaken:
      break;
  }
  return path.address + "|" + std::string(path.parameters);
}

TEST(ParsePath, AddressesInBracketsAreTakenInEveryMode) {
  const struct {
    const char* text;
    const char* parsed;
  } rows[] = {
      {"<a@b>", "a@b|"},
      {" <a@b>", "a@b|"},
      {"   <a@b>   ", "a@b|"},
      {"<>", "|"},
      {"< >", "|"},
      {"< a@b >", "a@b|"},
      {"<a@b> SIZE=10", "a@b| SIZE=10"},
      {"<a@b>   SIZE=10  BODY=8BITMIME ", "a@b|   SIZE=10  BODY=8BITMIME"},
      {"<> AUTH=<>", "| AUTH=<>"},
      {"<a b@c> SIZE=1", "a b@c| SIZE=1"},  // the blank in brackets does not end the address
      {"<\"a b\"@c> X", "\"a b\"@c| X"},
      {"<@r1,@r2:a@b>", "@r1,@r2:a@b|"},
      {"<@r1, @r2: a@b>", "@r1, @r2: a@b|"},
      // Doubled, a bracket does not close.
      {"<a>>b>", "a>>b|"},
      {"<a@b>> <c@d>", "a@b>> <c@d|"},
      {"<<a@b>", "<a@b|"},
  };
  for (const auto& row : rows) {
    for (const auto without_brackets : {AddressesWithoutBrackets::kTake, AddressesWithoutBrackets::kRefuse,
                                        AddressesWithoutBrackets::kForwardUnchecked}) {
      EXPECT_EQ(Parsed(row.text, without_brackets), row.parsed) << row.text;
    }
  }
}

TEST(ParsePath, TheSettingDecidesAboutAllOthers) {
  const struct {
    const char* text;
    const char* taken;
  } rows[] = {
      {"a@b", "a@b|"},
      {"  a@b  ", "a@b|"},
      {"a@b SIZE=10", "a@b| SIZE=10"},
      {"a@b  <c@d>", "a@b|  <c@d>"},
      // A bracket without the other one is dropped.
      {"<a@b", "a@b|"},
      {"a@b>", "a@b|"},
      {"<a@b SIZE=10", "a@b| SIZE=10"},
      {"a@b> SIZE=10", "a@b| SIZE=10"},
      // Only one, and only at the ends.
      {"<<a@b", "<a@b|"},
      {"a@b>>", "a@b>|"},
      {"<a@b>>", "a@b>>|"},
      {"<a@b>SIZE=10", "a@b>SIZE=10|"},
      {"x<a@b>", "x<a@b|"},
      {"<a@b>x <c@d>", "a@b>x| <c@d>"},
      {"a<b c>d@e f", "a<b c>d@e| f"},
      {"\"a b\"@c", "\"a| b\"@c"},  // quotes do not keep an address without brackets together
      {"a@b <c", "a@b| <c"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Parsed(row.text, AddressesWithoutBrackets::kTake), row.taken) << row.text;
    EXPECT_EQ(Parsed(row.text, AddressesWithoutBrackets::kRefuse), "refused") << row.text;
    EXPECT_EQ(Parsed(row.text, AddressesWithoutBrackets::kForwardUnchecked), "unchecked") << row.text;
  }
}

TEST(ParsePath, NothingIsNoAddress) {
  for (const auto without_brackets : {AddressesWithoutBrackets::kTake, AddressesWithoutBrackets::kRefuse,
                                      AddressesWithoutBrackets::kForwardUnchecked}) {
    for (const char* text : {"", " ", "   "}) EXPECT_EQ(Parsed(text, without_brackets), "refused") << text;
  }
  for (const char* bracket : {"<", ">", " < "}) {
    EXPECT_EQ(Parsed(bracket, AddressesWithoutBrackets::kTake), "refused") << bracket;
    EXPECT_EQ(Parsed(bracket, AddressesWithoutBrackets::kRefuse), "refused") << bracket;
    EXPECT_EQ(Parsed(bracket, AddressesWithoutBrackets::kForwardUnchecked), "unchecked") << bracket;
  }
}

TEST(NormalizeMailbox, GivesEveryMailboxItsCanonicalForm) {
  constexpr const char* kRefused = nullptr;
  const struct {
    const char* address;
    const char* form;
  } rows[] = {
      {"", ""},
      {"a@b", "a@b"},
      {"A.b+c@D.example", "A.b+c@D.example"},
      {"postmaster", "postmaster"},
      {"\xC3\xA4@\xC3\xB6.test", "\xC3\xA4@\xC3\xB6.test"},
      {"#$&'*+-/=?^_`{|}~@b", "#$&'*+-/=?^_`{|}~@b"},
      // A local part that some servers take though it is no dot-string.
      {".a@b", ".a@b"},
      {"a.@b", "a.@b"},
      {"a..b@c", "a..b@c"},
      // Source routes.
      {"@r:a@b", "a@b"},
      {"@r1,@r2:a@b", "a@b"},
      {"@r1, @r2 : a@b", "a@b"},
      {"@r.example.test:\"x y\"@b", "\"x y\"@b"},
      {"@[192.0.2.1]:a@b", "a@b"},
      {"@r:", ""},
      {"@r", kRefused},
      {"@:a@b", kRefused},
      {"@r,:a@b", kRefused},
      {"@r,r2:a@b", kRefused},
      {"r:a@b", kRefused},
      {"@r:@q:a@b", kRefused},
      {"@r:a:b@c", kRefused},
      {"@r%q:a@b", "a@b"},
      {"@r r:a@b", kRefused},
      {"@r.:a@b", kRefused},
      // A dot at the end of the domain.
      {"a@b.", "a@b"},
      {"a@b.c.", "a@b.c"},
      {"a@b..", kRefused},
      {"a@.", kRefused},
      {"a@.b", kRefused},
      {"a@b..c", kRefused},
      {"a@", kRefused},
      {"@", kRefused},
      {"@b", kRefused},
      // Quotes that are not needed, and those that are.
      {"\"a\"@b", "a@b"},
      {"\"a.b\"@c", "a.b@c"},
      {"\"a%c\"@b", "a%c@b"},
      {"\"a\"", "a"},
      {"\"a b\"@c", "\"a b\"@c"},
      {"\"a,b\"@c", "\"a,b\"@c"},
      {"\"a@b\"@c", "\"a@b\"@c"},
      {"\"<a>\"@c", "\"<a>\"@c"},
      {"\".a\"@c", "\".a\"@c"},
      {"\"a..b\"@c", "\"a..b\"@c"},
      {"\"\"@c", "\"\"@c"},
      {"\" \"@c", "\" \"@c"},
      // Quotes that are not closed, or stand elsewhere, or hold a backslash.
      {"\"a@b", kRefused},
      {"\"a b@c", kRefused},
      {"a\"@b", kRefused},
      {"\"", kRefused},
      {"\"\"\"", kRefused},
      {"a\"b\"@c", kRefused},
      {"\"a\"b@c", kRefused},
      {"\"a\".b@c", kRefused},
      {"a.\"b\"@c", kRefused},
      {"\"a\".\"b\"@c", kRefused},
      {"\"a\" @c", kRefused},
      {"\"a\\\"b\"@c", kRefused},
      {"\"a\\b\"@c", kRefused},
      {"\"a\\\\\"@c", kRefused},
      {"\"a\"@b@c", kRefused},
      {"\"a\"\"@c", kRefused},
      // What servers route on: with a domain that is for the relaying test to refuse.
      {"a%b@c", "a%b@c"},
      {"b!a@c", "b!a@c"},
      {"a%b", kRefused},
      {"b!a", kRefused},
      {"\"a%b\"", kRefused},
      {"\"a@b\"", kRefused},
      {"\"b!a\"", kRefused},
      {"\"a b\"", "\"a b\""},
      // Two "@", comments, lists, groups, blanks, brackets.
      {"a@b@c", kRefused},
      {"a@@b", kRefused},
      {"a@b@", kRefused},
      {"@a@b", kRefused},
      {"a(c)@b", kRefused},
      {"a@b(c)", kRefused},
      {"(c)a@b", kRefused},
      {"a@b,c@d", kRefused},
      {"a@b;c@d", kRefused},
      {"g:a@b;", kRefused},
      {"a:b@c", kRefused},
      {"a b@c", kRefused},
      {"a @b", kRefused},
      {"a@ b", kRefused},
      {"a@b c", kRefused},
      {"<a@b", kRefused},
      {"a@b>", kRefused},
      {"a<b>@c", kRefused},
      {"a\\b@c", kRefused},
      {"a\\@b@c", kRefused},
      {"a@b\\", kRefused},
      // Control characters.
      {"a\tb@c", kRefused},
      {"a@b\t", kRefused},
      {"\"a\tb\"@c", kRefused},
      {"\"a\x7F\"@c", kRefused},
      {"a\x01@c", kRefused},
      {"a\r\nb@c", kRefused},
      {"a@b\x7F", kRefused},
      // Literals.
      {"a@[192.0.2.1]", "a@[192.0.2.1]"},
      {"a@[IPv6:2001:db8::1]", "a@[IPv6:2001:db8::1]"},
      {"a@[192.0.2.1].", "a@[192.0.2.1]"},
      {"a@[]", kRefused},
      {"a@[", kRefused},
      {"a@[192.0.2.1", kRefused},
      {"a@192.0.2.1]", kRefused},
      {"a@[1]2", kRefused},
      {"a@[[1]]", kRefused},
      {"a@[1 2]", kRefused},
      {"a@[x@y]", kRefused},
      {"a@[x\\y]", kRefused},
      {"[a]@b", kRefused},
  };
  for (const auto& row : rows) {
    const auto form = NormalizeMailbox(row.address);
    EXPECT_EQ(form.value_or("(refused)"), row.form ? row.form : "(refused)") << row.address;
  }
}

TEST(NormalizeMailbox, LettersBeyondAsciiKeepTheStructure) {
  constexpr const char* kRefused = nullptr;
  const struct {
    const char* address;
    const char* form;
  } rows[] = {
      // Letters stay as they are written.
      {"JÜRGEN@BÜCHER.test", "JÜRGEN@BÜCHER.test"},
      {"ſales@local.teﬆ", "ſales@local.teﬆ"},
      {"\"jürgen\"@bücher.test.", "jürgen@bücher.test"},
      {"\"jür gen\"@bücher.test", "\"jür gen\"@bücher.test"},
      {"@bücher.test:ü@b", "ü@b"},
      {"ü", "ü"},
      {"x+ü%y@b", "x+ü%y@b"},
      {"a\u00ADb@c", "a\u00ADb@c"},  // dropped when it is compared
      {"क्\u200D@b", "क्\u200D@b"},
      {"☺@☺.test", "☺@☺.test"},
      {"a。b@c", "a。b@c"},  // in a local part it is no dot
      {"＋-＿/a＝@b", "＋-＿/a＝@b"},
      // The acute accent is the alpha's, and the iota's to a server that only folds case.
      {"ᾳ\u0301@b", kRefused},
      {"a@ᾳ\u0301", kRefused},
      {"ᾴ@b", "ᾴ@b"},
      // What folds to an "@", a dot, a quote, a route, a blank, a bracket.
      {"a＠b", kRefused},
      {"a＠b@c", kRefused},
      {"a@b﹫c", kRefused},
      {"a％b@c", kRefused},
      {"a﹪b@c", kRefused},
      {"a！b@c", kRefused},
      {"a‼b@c", kRefused},
      {"a％b", kRefused},
      {"a@b．c", kRefused},
      {"a@b․c", kRefused},
      {"a@b…c", kRefused},
      {"a@⒈b", kRefused},
      {"a．b@c", kRefused},
      {"＂a＂@c", kRefused},
      {"＂a b＂@c", kRefused},
      {"a＼b@c", kRefused},
      {"a（c）@b", kRefused},
      {"⑴a@b", kRefused},
      {"a＜b＞@c", kRefused},
      {"a@［192.0.2.1］", kRefused},
      {"a；b@c", kRefused},
      {"a\u037Eb@c", kRefused},
      {"a：b@c", kRefused},
      {"a﹕b@c", kRefused},
      {"a，b@c", kRefused},
      {"a\u00A0b@c", kRefused},
      {"a\u3000b@c", kRefused},
      {"\"a\u00A0b\"@c", kRefused},
      {"a´b@c", kRefused},           // a blank with an accent
      {"\"a<\u0338\"@c", kRefused},  // one character
      {"ﷺ@b", kRefused},
      // Dots to servers that map domains, and what some of them drop.
      {"a@b。c", kRefused},
      {"a@b。", kRefused},
      {"a@b｡c", kRefused},
      {"a@b\u00ADc", kRefused},
      {"a@b\u200Bc", kRefused},
      {"a@b\u200Dc", kRefused},
      {"a@\u00AD", kRefused},
      {"a@\uFE0F.c", kRefused},
      // A literal is ASCII.
      {"a@[１92.0.2.1]", kRefused},
      {"a@[IPv6:２::1]", kRefused},
      // Nothing is left.
      {"\u00AD", kRefused},
      {"\u00AD@b", kRefused},
      {"\"\u00AD\"@b", kRefused},
      // No characters of an address, also where they would be dropped.
      {"a\u0085@b", kRefused},
      {"a\u202E@b", kRefused},
      {"a\u2028@b", kRefused},
      {"a\uE000@b", kRefused},
      {"a\u0378@b", kRefused},
      {"a\uFDD0@b", kRefused},
      {"a\U000E0041@b", kRefused},
      {"a\xFC@b", kRefused},
      {"a\xC5@b", kRefused},
      {"a\xC1\x80@b", kRefused},
      {"a\xED\xA0\x80@b", kRefused},
      {"\"a\xFF\"@b", kRefused},
      {"@\xFF:a@b", kRefused},
  };
  for (const auto& row : rows) {
    const auto form = NormalizeMailbox(row.address);
    EXPECT_EQ(form.value_or("(refused)"), row.form ? row.form : "(refused)") << row.address;
  }
}

TEST(NormalizeMailbox, LongerOnesAreNoMailboxes) {
  const std::string local(64, 'a');
  const auto address = [](std::size_t local_size, std::size_t domain_size) {
    return std::string(local_size, 'a') + "@" + std::string(domain_size, 'b');
  };
  EXPECT_TRUE(NormalizeMailbox(address(64, 255)));
  EXPECT_FALSE(NormalizeMailbox(address(65, 255)));
  EXPECT_FALSE(NormalizeMailbox(address(1, 256)));
  EXPECT_TRUE(NormalizeMailbox(address(318, 1)));
  EXPECT_FALSE(NormalizeMailbox(address(319, 1)));
  EXPECT_TRUE(NormalizeMailbox(std::string(320, 'a')));
  EXPECT_FALSE(NormalizeMailbox(std::string(321, 'a')));
  EXPECT_FALSE(NormalizeMailbox("a@[" + std::string(254, '1') + "]"));
  // What is dropped does not count.
  EXPECT_TRUE(NormalizeMailbox("@" + std::string(400, 'r') + ":\"" + std::string(64, 'a') + "\"@" +
                               std::string(255, 'b') + "."));
  EXPECT_FALSE(NormalizeMailbox("\"" + std::string(4000, ' ') + "\"@b"));
  // Octets count, and also those that folding makes of one character.
  const auto repeated = [](std::string_view letter, std::size_t times) {
    std::string text;
    for (; times > 0; --times) text += letter;
    return text;
  };
  EXPECT_TRUE(NormalizeMailbox(repeated("ü", 159) + "@b"));
  EXPECT_FALSE(NormalizeMailbox(repeated("ü", 160) + "@b"));
  EXPECT_TRUE(NormalizeMailbox("a@" + repeated("ü", 127)));
  EXPECT_FALSE(NormalizeMailbox("a@" + repeated("ü", 128)));
  EXPECT_TRUE(NormalizeMailbox(repeated("㍱", 106) + "@b"));  // "hpa" in three octets
  EXPECT_TRUE(NormalizeMailbox(repeated("ﳲ", 45) + "@b"));    // three letters, six octets
  EXPECT_FALSE(NormalizeMailbox(repeated("ﳲ", 55) + "@b"));
}

TEST(NormalizeMailbox, ANulIsAControlCharacter) {
  EXPECT_FALSE(NormalizeMailbox(std::string_view("a\0@b", 4)));
  EXPECT_FALSE(NormalizeMailbox(std::string_view("\"\0\"@b", 5)));
}

TEST(HasRouteInLocalPart, SeesWhatAServerMayRouteOn) {
  const struct {
    const char* address;
    bool routed;
  } rows[] = {
      {"x%evil.test@local.test", true},
      {"\"x@evil.test\"@local.test", true},
      {"x@evil.test@local.test", true},
      {"evil.test!x@local.test", true},
      {"\"x%evil.test\"@local.test", true},
      {"\"evil.test!x\"@local.test", true},
      {"%@local.test", true},
      {"x@evil.test@", true},
      {"x%evil.test", true},
      {"evil.test!x", true},
      {"\"x@evil.test\"", true},
      {"\"x y@evil.test\"@local.test", true},
      {"\"x\"@evil.test@local.test", true},
      {"\"x\"%evil.test@local.test", true},
      {"@r:x%evil.test@local.test", true},
      {"@r:x@evil.test@local.test", true},
      {"@evil.test@local.test", true},
      {"x％evil.test@local.test", true},
      {"x﹪evil.test@local.test", true},
      {"evil.test！x@local.test", true},
      {"evil.test‼x@local.test", true},
      {"x＠evil.test@local.test", true},
      {"x@evil.test＠local.test", true},
      {"x％evil.test＠local.test", true},
      {"＂x％evil.test＂@local.test", true},
      {"x％evil.test", true},
      {"\xFFx％evil.test@local.test", true},

      {"", false},
      {"x", false},
      {"x@local.test", false},
      {"@r1,@r2:x@local.test", false},
      {"x@evil%local.test", false},
      {"x@evil!local.test", false},
      {"x@evil％local.test", false},
      {"x＠local.test", false},
      {"ü@local.test", false},
      {"\"x\"@local.test", false},
      {"\"x y\"@local.test", false},
      {"\"x@local.test", false},
  };
  for (const auto& row : rows) EXPECT_EQ(HasRouteInLocalPart(row.address), row.routed) << row.address;
}

// Addresses made of the pieces that matter.
std::string AnyAddress(std::mt19937& random) {
  static const std::string kPieces[] = {
      "a",  "b.c", "local.test", "@",  "@",  "\"", "\"", ".",    "%",          "!",      "<",     ">",
      "(x", ")",   "[1.2.3.4]",  "[",  "]",  ":",  ";",  ",",    "@r1,@r2:",   "@r:",    "\\",    " ",
      "\t", "\r",  "\n",         "\v", "\f", "\0", "é",  "\x7F", "[IPv6:::1]", "SIZE=1", "\xFF",  "#",
      "ſ",  "＠",  "％",         "！", "．", "。", "＂", "［",   "\u00AD",     "\u00A0", "\u0338"};
  std::string address;
  for (std::size_t count = random() % 9; count > 0; --count) {
    address += kPieces[random() % std::size(kPieces)];
  }
  return address;
}

bool AllOf(std::string_view text, bool (*allowed)(char)) {
  return std::all_of(text.begin(), text.end(), allowed);
}

bool IsPlainByte(char byte) {
  return static_cast<unsigned char>(byte) > 32 && byte != 127 &&
         std::string_view("()<>[]:;,\\\"@").find(byte) == std::string_view::npos;
}

// A form is empty, or local part [ "@" domain ], each as servers read it alike.
void ExpectForm(const std::string& form) {
  if (form.empty()) return;
  std::string local = form;
  if (form.front() == '"') {
    const std::size_t close = form.find('"', 1);
    ASSERT_NE(close, std::string::npos) << form;
    const std::string inside = form.substr(1, close - 1);
    local.resize(close + 1);
    EXPECT_TRUE(AllOf(inside, [](char byte) { return !IsControl(byte) && byte != '\\'; })) << Escape(form);
    // The quotes are needed.
    EXPECT_TRUE(inside.empty() || !AllOf(inside, IsPlainByte) || inside.find('.') != std::string::npos)
        << form;
  } else {
    local.resize(std::min(form.find('@'), form.size()));
    EXPECT_FALSE(local.empty()) << Escape(form);
    EXPECT_TRUE(AllOf(local, IsPlainByte)) << Escape(form);
  }
  if (local.size() == form.size()) {
    EXPECT_EQ(local.find_first_of("@%!"), std::string::npos) << Escape(form);
    return;
  }
  ASSERT_EQ(form[local.size()], '@') << Escape(form);
  const std::string domain = form.substr(local.size() + 1);
  ASSERT_FALSE(domain.empty()) << Escape(form);
  if (domain.front() == '[') {
    EXPECT_EQ(domain.find(']'), domain.size() - 1) << Escape(form);
    const std::string literal = domain.substr(1, domain.size() - 2);
    EXPECT_TRUE(AllOf(literal, [](char byte) { return byte == ':' || IsPlainByte(byte); })) << Escape(form);
    return;
  }
  EXPECT_TRUE(AllOf(domain, IsPlainByte)) << Escape(form);
  for (std::string_view label : Split(domain, '.')) EXPECT_FALSE(label.empty()) << Escape(form);
}

TEST(NormalizeMailbox, TheFormHoldsNothingElseAndIsItsOwnForm) {
  std::mt19937 random(31);
  std::size_t taken = 0;
  std::size_t beyond_ascii = 0;
  for (int round = 0; round < 200000; ++round) {
    const std::string address = AnyAddress(random);
    const auto form = NormalizeMailbox(address);
    if (!form) continue;
    taken += form->size() > 2;
    ExpectForm(*form);
    ASSERT_EQ(NormalizeMailbox(*form), form) << Escape(address);
    // Whatever routes on in the address as given does so in its form; letters beyond ASCII may be in a source
    // route, which is gone then.
    if (IsAscii(address)) {
      EXPECT_EQ(HasRouteInLocalPart(*form), HasRouteInLocalPart(address)) << Escape(address);
    }
    // To a server that folds it is the same mailbox.
    const std::string folded = FoldText(*form);
    EXPECT_EQ(NormalizeMailbox(folded), folded) << Escape(address);
    EXPECT_EQ(HasRouteInLocalPart(*form), HasRouteInLocalPart(folded)) << Escape(address);
    EXPECT_EQ(std::count(form->begin(), form->end(), '@'), std::count(folded.begin(), folded.end(), '@'));
    beyond_ascii += !IsAscii(*form);
  }
  EXPECT_GT(taken, 3000u);
  EXPECT_GT(beyond_ascii, 300u);
}

// What is read out of a command goes back into one: reading that again gives the same address.
TEST(ParsePath, AForwardedPathReadsAsItWasChecked) {
  std::mt19937 random(32);
  std::size_t taken = 0;
  for (int round = 0; round < 200000; ++round) {
    const std::string text = AnyAddress(random);
    const std::string given = random() % 2 == 0 ? "<" + text + ">" : text;
    const ParsedPath path = ParsePath(given, AddressesWithoutBrackets::kTake);
    const std::string_view first = FirstWord(Trim(given));
    const bool is_nothing = path.verdict == ParsedPath::Verdict::kSyntaxError;
    if (is_nothing) {
      EXPECT_TRUE(first.empty() || first == ">" || first == "<") << Escape(given);
    }
    if (is_nothing) continue;
    EXPECT_TRUE(path.parameters.empty() || path.parameters.front() == ' ') << Escape(given);
    const auto form = NormalizeMailbox(path.address);
    if (!form) continue;
    ++taken;
    const std::string forwarded = "<" + *form + ">" + std::string(path.parameters);
    const ParsedPath again = ParsePath(forwarded, AddressesWithoutBrackets::kRefuse);
    // A quoted local part may hold brackets and blanks, which ParsePath does not see as quoted.
    if (form->find_first_of("<> ") != std::string::npos) continue;
    ASSERT_EQ(again.verdict, ParsedPath::Verdict::kTaken) << Escape(forwarded);
    EXPECT_EQ(again.address, *form) << Escape(forwarded);
    EXPECT_EQ(again.parameters, Trim(path.parameters).empty() ? "" : path.parameters) << Escape(forwarded);
  }
  EXPECT_GT(taken, 5000u);
}

}  // namespace
}  // namespace trabex
