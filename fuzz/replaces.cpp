// Response changes: the first line is a reply, the second what the client said, each other line a rule in the
// form that the rules are written back in; in the first two a tab means CR LF, a vertical tab LF.
// Macros never blow a text up beyond their bound, their values are put in as they are, and end no line.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/text.h"
#include "match/address_replacement.h"
#include "match/cReplaces.h"
#include "match/mText.h"

namespace {

using namespace trabex;

class Client : public MacroSource {
 public:
  explicit Client(std::string_view said) : said_(said) {}
  std::optional<std::string> Value(std::string_view name) const override {
    for (const std::string_view own : {"from", "rcpt", "helodomain", "remotehostname"}) {
      if (EqualNoCase(name, own)) return said_;
    }
    for (const std::string_view own : {"fromdomain", "rcptdomain"}) {
      if (EqualNoCase(name, own)) return std::string(AddressDomain(said_));
    }
    if (EqualNoCase(name, "rfctime")) return "Sun, 15 Nov 2026 16:54:24 +0300";
    for (const std::string_view own : {"localhostname", "remotehostip", "size"}) {
      if (EqualNoCase(name, own)) return std::string(own);
    }
    return std::nullopt;
  }

 private:
  std::string said_;
};

void Require(bool condition) {
  if (!condition) std::abort();
}

std::string WithLineEnds(std::string_view line) {
  return ReplaceAll(ReplaceAll(line, "\t", kCrLf), "\v", "\n");
}

std::string Applied(const std::string& replacement, std::string text, const MacroSource& macros) {
  cReplaces rule;
  rule.Add("", replacement, false);
  rule.Apply(text, macros);
  return text;
}

std::size_t CountLineEnds(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return c == '\r' || c == '\n'; }));
}

// A rule that makes a new reply.
void CheckNewReply(const std::string& replacement, const std::string& original, const std::string& said) {
  const Client client(said);
  const std::string result = Applied(replacement, original, client);
  Require(result.size() <= original.size() + replacement.size() + 65536);

  // Where the reply of the client's words is long, the words of the rule may stand as they are.
  const std::string repeated = " {%original%}";
  const std::string one_line = Applied(repeated, original, client).substr(1);
  const std::string value = Applied("{%from%}", "", client);
  Require(CountLineEnds(one_line) == 0 && CountLineEnds(value) == 0);
  Require(one_line == original || CountLineEnds(original) > 0);
  Require(value == said || CountLineEnds(said) > 0);
  if (replacement.size() * (original.size() + said.size() + 40) > 60000) return;

  // Only the original has line ends to give, and that only where it begins a line.
  const std::string crlf = "{%crlf%}";
  const std::string without = ReplaceAllNoCase(replacement, crlf, "");
  const auto written = CountLineEnds(replacement) + (replacement.size() - without.size()) / crlf.size() * 2;
  const std::string flat =
      Applied("-" + ReplaceAllNoCase(replacement, "{%original%}", repeated), original, client);
  Require(CountLineEnds(flat) == written);

  // What the client said makes no difference to anything but itself.
  if (said.find('@') != std::string::npos || (replacement + original).find('\x03') != std::string::npos)
    return;
  Require(ReplaceAll(Applied(replacement, original, Client("\x03")), "\x03", value) == result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto lines = Split(input, '\n');
  const std::string original = WithLineEnds(lines[0]);
  const std::string said = lines.size() > 1 ? WithLineEnds(lines[1]) : "";
  const Client client(said);
  cReplaces replaces;
  ReplacementTable table;
  for (std::size_t line = 2; line < lines.size() && replaces.Count() < 8; ++line) {
    const std::size_t equals = lines[line].find('=');
    const bool case_sensitive = equals != std::string_view::npos && lines[line].substr(equals, 2) == "==";
    const std::string search(equals == std::string_view::npos ? "" : lines[line].substr(0, equals));
    const std::string replacement(equals == std::string_view::npos
                                      ? lines[line]
                                      : lines[line].substr(equals + (case_sensitive ? 2 : 1)));
    // A rule alone may multiply a text as its author likes; only what the macros do is bounded.
    replaces.Add(search, replacement.substr(0, 40), case_sensitive);
    table.Add(search, replacement);
    CheckNewReply(replacement, original, said);
  }
  std::string text = original;
  replaces.Apply(text, client);
  try {
    FindAddressReplacement(original, table);
  } catch (const Error& error) {
    Require(error.Source() == "mText.LikeTextComplex");
  }
  return 0;
}
