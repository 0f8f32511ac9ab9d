// What holds of each command line that reaches the server, whatever the client sent.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "config/configuration.h"
#include "filter_dependencies.h"
#include "proxy/dialogue/command_parameters.h"
#include "proxy/dialogue/dialogue_state.h"

namespace trabex {

inline bool HasControlByte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char byte) { return IsControl(byte); });
}

inline ExpressionList OneEntry(std::string_view pattern) {
  ExpressionList list;
  list.Add(pattern, {{std::string(pattern)}, false});
  return list;
}

// The lists that the checks go by.
inline void SetLists(Configuration& configuration) {
  configuration.LocalHostName = "proxy.test";
  configuration.LocalDomains = OneEntry("local.test");
  configuration.SendersBlackList = OneEntry("*@black.test");
  configuration.PrivateRecipients = OneEntry("private@*");
  configuration.HELOBlackList = OneEntry("*black*");
}

class CommandChecks {
 public:
  // Both outlive the object.
  CommandChecks(const Configuration& configuration, const Facts& facts)
      : configuration_(configuration), facts_(facts) {}

  // `sent` is what the server gets for one command: the line, and after a BDAT the header. `state` is the
  // dialogue's after it.
  void Check(std::string_view sent, const DialogueState& state) const {
    const std::size_t end = sent.find(kCrLf);
    Require(end != std::string_view::npos);
    const std::string_view text = sent.substr(0, end);
    const std::string_view header = sent.substr(end + kCrLf.size());
    Require(!HasControlByte(text));
    const std::string verb = ToUpper(FirstWord(text));
    const std::string_view rest = text.substr(verb.size());
    Require(IsAscii(verb));
    Require(!text.starts_with(' ') && rest != " " && !rest.starts_with("  "));
    for (std::string_view never : {"STARTTLS", "TURN", "ATRN", "XCLIENT", "XFORWARD"}) Require(verb != never);
    Require(verb == state.forwarded.ForwardedVerb);
    if (verb == "BDAT") CheckBdat(text, header, state);
    Require(verb == "BDAT" || header.empty());
    if (configuration_.ProcessAddressesWithoutBrackets == 2) return;
    if (verb == "RCPT") CheckRecipient(text, state);
    if (verb == "MAIL" || verb == "SEND" || verb == "SOML" || verb == "SAML") CheckSender(text, state);
  }

 private:
  // The address at the front of `text`, which begins after "<": up to the first ">" outside quotes.
  static std::string_view AddressIn(std::string_view text) {
    const std::size_t from = text.starts_with('"') ? text.find('"', 1) : 0;
    return text.substr(0, text.find('>', from));
  }

  void CheckBdat(std::string_view text, std::string_view header, const DialogueState& state) const {
    const std::uint64_t count = std::stoull(std::string(FirstWord(text.substr(5))));
    Require(count >= header.size() && count <= kMaxOctets + 5000);
    Require(header.empty() || (configuration_.AddReceived && header.ends_with(kCrLf)));
    Require(state.content.OctetsLeft() == count - header.size());
    Require(!state.requested.Greylisted);
  }

  void CheckRecipient(std::string_view text, const DialogueState& state) const {
    Require(text.starts_with("RCPT TO:<"));
    const std::string_view written = AddressIn(text.substr(9));
    Require(IsAscii(written) || state.requested.SmtpUtf8);
    Require(written.size() <= 320);
    if (facts_.local) return;
    // As servers fold it.
    const std::string folded = FoldText(written);
    const std::string_view address = folded;
    // One without "@" is its own domain.
    if (EqualNoCase(address, "local.test")) return;
    const std::size_t at = address.rfind('@');
    Require(at != std::string_view::npos && EqualNoCase(address.substr(at + 1), "local.test"));
    const std::string_view local_part = address.substr(0, at);
    Require(local_part.find_first_of("@%!") == std::string_view::npos);
    Require(!EqualNoCase(local_part, "private") && !EqualNoCase(local_part, "\"private\""));
  }

  void CheckSender(std::string_view text, const DialogueState& state) const {
    Require(text.substr(4, 7) == " FROM:<");
    const std::string_view address = AddressIn(text.substr(11));
    Require(IsAscii(address) || state.offered.SmtpUtf8Offered);
    Require(address.size() <= 320 && !EndsWithFolded(address, "@black.test"));
  }

  const Configuration& configuration_;
  const Facts& facts_;
};

}  // namespace trabex
