// What a client sends, in any state of the session. The first line holds letters that set the state and the
// configuration (see Session), the rest is the client's bytes: lines, and content where a BDAT announces
// some. Whatever they are, no byte reaches the server as a command that the filter did not read as that
// command.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "base/unicode_fold.h"
#include "filter_surroundings.h"
#include "proxy/dialogue/client_command_filter.h"
#include "proxy/dialogue/command_parameters.h"
#include "proxy/dialogue/server_reply_filter.h"
#include "proxy/session_log.h"

namespace {

using namespace trabex;

class Greylisting final : public GreylistCheck {
 public:
  bool ShouldDefer(std::string_view, const IPAddress&, std::string_view, std::string_view) override {
    return delays;
  }

  bool delays = false;
};

ExpressionList OneEntry(std::string_view pattern) {
  ExpressionList list;
  list.Add(pattern, {{std::string(pattern)}, false});
  return list;
}

bool HasControlByte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char byte) { return IsControl(byte); });
}

// The address at the front of `text`, which begins behind "<": up to the first ">" outside quotes.
std::string_view AddressIn(std::string_view text) {
  const std::size_t from = text.starts_with('"') ? text.find('"', 1) : 0;
  return text.substr(0, text.find('>', from));
}

class Session {
 public:
  explicit Session(std::string_view letters) {
    const auto has = [&](char letter) { return letters.find(letter) != std::string_view::npos; };
    configuration_.LocalHostName = "proxy.test";
    configuration_.LocalDomains = OneEntry("local.test");
    configuration_.SendersBlackList = OneEntry("*@black.test");
    configuration_.PrivateRecipients = OneEntry("private@*");
    configuration_.MaxBadSeq = 2000000000;
    configuration_.ProcessAddressesWithoutBrackets = has('2') ? 2 : has('1') ? 1 : 0;
    configuration_.ValidateHELO = has('h') ? 15 : 0;
    configuration_.HELOBlackList = OneEntry("*black*");
    configuration_.AddReceived = !has('n');
    configuration_.GreyListing.Enabled = has('d');
    configuration_.GreyListing.CallbackSenderAction = has('b') ? 3 : 1;
    greylisting_.delays = has('d');
    facts_.local = has('l');
    facts_.refused = has('r');
    state_.Expected = ReplyExpected::kNone;
    state_.GreetingDone = has('g');
    state_.TransactionOpen = has('t');
    state_.ChunkSequence = has('c');
    state_.AuthenticationData = has('a');
    state_.RecipientCount = has('t');
    state_.SmtpUtf8Offered = has('u');
    state_.SmtpUtf8 = has('u');
    state_.SizeLimit = has('s') ? 1000 * kFixedPointOne : 0;
    if (!has('x')) {
      state_.Extensions.AddExtension("CHUNKING");
      state_.Extensions.AddExtension("XEXCH50");
    }
  }

  void Takes(std::string_view bytes) {
    while (!bytes.empty() && !over_)
      bytes.remove_prefix(state_.Content.Active() ? Content(bytes) : OneLine(bytes));
  }

 private:
  std::size_t Content(std::string_view bytes) {
    const ContentTracker::Step step = state_.Content.Scan(bytes);
    Require(step.bytes <= bytes.size());
    over_ = step.outcome != ContentTracker::Outcome::kEnded;
    return step.bytes;
  }

  // Returns the length of the line.
  std::size_t OneLine(std::string_view bytes) {
    const auto too_long = commands_.RefuseLongLine(bytes);
    const std::size_t end = bytes.find(kCrLf);
    const std::size_t size = end == std::string_view::npos ? bytes.size() : end + kCrLf.size();
    Require(!too_long || size >= ClientCommandFilter::kMaxLine);
    over_ = too_long || end == std::string_view::npos;
    if (over_) return bytes.size();

    const std::string_view line = bytes.substr(0, size);
    const std::string logged = FormatSessionLine("R: ", 1, kIPv4Loopback, "< " + commands_.LoggedForm(line));
    Require(!HasControlByte(logged));
    const bool data = state_.AuthenticationData;
    Require(!data || logged.find("***") != std::string::npos);
    Check(commands_.ProcessIncomingData(line), line, data);
    return size;
  }

  void Check(const LineDecision& decision, std::string_view line, bool authentication_data) {
    using Action = LineDecision::Action;
    if (decision.action == Action::kForward) {
      Require(!facts_.refused || authentication_data);
      if (authentication_data) {
        Require(decision.text == line && decision.logged == "***\r\n");
      } else {
        CheckCommand(decision);
      }
      replies_.ProcessOutgoingData("250 ok\r\n");
    } else if (decision.action == Action::kAnswer) {
      Require(decision.text.size() > 4 && !HasControlByte(decision.text));
      over_ = decision.close_when_sent;
    } else if (decision.action == Action::kWaitForName) {
      Require(!decision.text.empty());
      Check(commands_.ProcessNameAnswer({0, {0xC0000207}}), line, false);
    } else {
      over_ = true;
    }
  }

  // The line that the server gets.
  void CheckCommand(const LineDecision& decision) {
    Require(decision.text.ends_with(kCrLf));
    const std::string_view text = std::string_view(decision.text).substr(0, decision.text.size() - 2);
    Require(!HasControlByte(text));
    const std::string verb = ToUpper(FirstWord(text));
    const std::string_view rest = text.substr(verb.size());
    Require(IsAscii(verb));
    Require(!text.starts_with(' ') && rest != " " && !rest.starts_with("  "));
    for (std::string_view never : {"STARTTLS", "TURN", "ATRN", "XCLIENT", "XFORWARD"}) Require(verb != never);
    Require(verb == state_.ForwardedVerb);
    if (verb == "BDAT") CheckBdat(text, decision.extra);
    Require(verb == "BDAT" || decision.extra.empty());
    if (configuration_.ProcessAddressesWithoutBrackets == 2) return;
    if (verb == "RCPT") CheckRecipient(text);
    if (verb == "MAIL" || verb == "SEND" || verb == "SOML" || verb == "SAML") CheckSender(text);
  }

  void CheckBdat(std::string_view text, std::string_view header) {
    const std::string_view parameters = text.substr(5);
    const std::uint64_t count = std::stoull(std::string(FirstWord(parameters)));
    Require(count >= header.size() && count <= kMaxOctets + 5000);
    Require(header.empty() || (configuration_.AddReceived && header.ends_with(kCrLf)));
    Require(state_.Content.Active() == (count > header.size()));
    Require(!state_.Greylisted);
  }

  void CheckRecipient(std::string_view text) {
    Require(text.starts_with("RCPT TO:<"));
    const std::string_view written = AddressIn(text.substr(9));
    Require(IsAscii(written) || state_.SmtpUtf8);
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

  void CheckSender(std::string_view text) {
    Require(text.substr(4, 7) == " FROM:<");
    const std::string_view address = AddressIn(text.substr(11));
    Require(IsAscii(address) || state_.SmtpUtf8Offered);
    Require(address.size() <= 320 && !EndsWithFolded(address, "@black.test"));
  }

  Configuration configuration_ = DefaultConfiguration();
  StandingClock clock_;
  Facts facts_;
  Greylisting greylisting_;
  SessionState state_;
  ClientCommandFilter commands_{configuration_, clock_, facts_, state_, &greylisting_};
  ServerReplyFilter replies_{configuration_, clock_, facts_, state_};
  bool over_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  Session session(input.substr(0, end));
  session.Takes(input.substr(std::min(end + 1, input.size())));
  return 0;
}
