// Response changes: the first line is a reply, the second what the client said, each other line a rule in the
// form that the rules are written back in. Macros never blow a text up beyond their bound.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

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
  std::string LocalHostName() const override { return "mail.example.test"; }
  std::string RFCTime() const override { return "Sun, 15 Nov 2026 16:54:24 +0300"; }
  std::string RemoteHostName() const override { return said_; }
  std::string RemoteHostIP() const override { return "192.0.2.1"; }
  std::string HeloDomain() const override { return said_; }
  std::string BytesReceived() const override { return "12"; }
  std::string BytesSent() const override { return "34"; }
  std::string From() const override { return said_; }
  std::string Rcpt() const override { return said_; }
  std::string MaxSize() const override { return "0"; }
  std::string Size() const override { return "5"; }

 private:
  std::string said_;
};

void Require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto lines = Split(input, '\n');
  const std::string original(lines[0]);
  const Client client(lines.size() > 1 ? lines[1] : "");
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
    cReplaces alone;
    alone.Add("", replacement, case_sensitive);
    std::string text = original;
    alone.Apply(text, client);
    Require(text.size() <= original.size() + replacement.size() + 65536);
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
