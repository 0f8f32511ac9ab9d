// What a server sends. The first line holds the commands that it was sent, with blanks between them; each
// waits for the reply of the one before it, "-" is none; where the server expects content, one stands for the
// end of that. The rest is the server's bytes. However they are split, they give the same replies, and the
// session believes what the server said to a command and nothing else.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "filter_surroundings.h"
#include "proxy/dialogue/reply_assembler.h"
#include "proxy/dialogue/server_reply_filter.h"

namespace {

using namespace trabex;

std::vector<std::string> Assemble(std::string_view bytes, std::size_t step) {
  ReplyAssembler assembler;
  std::vector<std::string> replies;
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    assembler.Append(bytes.substr(at, step));
    while (auto reply = assembler.NextReply()) replies.push_back(std::move(*reply));
  }
  std::size_t complete = 0;
  for (const std::string& reply : replies) complete += reply.size();
  // What is left over is whole lines that go on, and one that has not ended.
  const std::string lines = assembler.TakeWholeLines();
  Require(bytes.substr(complete).starts_with(lines));
  Require(bytes.substr(complete + lines.size()).find(kCrLf) == std::string_view::npos);
  return replies;
}

std::vector<std::string_view> LinesOf(std::string_view reply) {
  std::vector<std::string_view> lines;
  while (!reply.empty()) {
    const std::size_t end = reply.find(kCrLf);
    Require(end != std::string_view::npos);
    lines.push_back(reply.substr(0, end));
    reply.remove_prefix(end + kCrLf.size());
  }
  return lines;
}

void CheckEhloReply(std::string_view text) {
  const auto lines = LinesOf(text);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    Require(lines[i].starts_with(i + 1 < lines.size() ? "250-" : "250 "));
    if (i == 0) continue;
    const std::string keyword = ToUpper(FirstWord(lines[i].substr(4)));
    for (std::string_view never : {"ATRN", "PIPELINING", "STARTTLS", "TURN", "OK", "XCLIENT", "XFORWARD"}) {
      Require(keyword != never);
    }
  }
}

class Session {
 public:
  Session() {
    state_.HeloDomain = "client.test";
    state_.RecipientCount = 1;
    configuration_.LocalHostName = "proxy.test";
    configuration_.MaxSize = 1000 * kFixedPointOne;
  }

  // A command, or, where content is expected, the rest of it.
  void Gets(std::string_view verb) {
    if (state_.Content.Active()) {
      state_.Content.Stop();
    } else {
      // Every chunk is a last one.
      state_.LastChunk = verb == "BDAT";
      state_.Forward(verb, FindCommand(verb).command);
    }
  }

  void Says(const std::string& reply) {
    const bool greeted = state_.GreetingDone;
    const bool open = state_.TransactionOpen;
    const bool asked = state_.Expected == ReplyExpected::kCommand && !state_.Content.EndsWithDot();
    const std::string code = reply.substr(0, 3);
    const std::string& verb = state_.ForwardedVerb;
    const auto is = [&](std::initializer_list<std::string_view> verbs, std::string_view wanted) {
      return asked && code == wanted && std::find(verbs.begin(), verbs.end(), verb) != verbs.end();
    };
    const bool ends_message = asked && verb == "BDAT";
    const ReplyDecision decision = replies_.ProcessOutgoingData(reply);

    Require(state_.Expected == ReplyExpected::kNone || state_.Expected == ReplyExpected::kContent);
    if (state_.GreetingDone != greeted) Require(is({"EHLO", "HELO"}, "250"));
    if (state_.TransactionOpen && !open)
      Require(is({"MAIL", "SEND", "SOML", "SAML"}, "250") || is({"MAIL"}, "355"));
    if (!state_.TransactionOpen && open) {
      Require(is({"EHLO", "HELO", "RSET"}, "250") || is({"DATA"}, "354") || ends_message);
    }
    if (ends_message) Require(!state_.TransactionOpen && !state_.LastChunk);
    if (!decision.header.empty()) Require(is({"DATA"}, "354") && state_.Content.EndsWithDot());
    if (state_.AuthenticationData) Require(asked && verb == "AUTH");
    state_.AuthenticationData = false;

    const auto lines = LinesOf(reply);
    if (is({"EHLO"}, "250") && lines.back().starts_with("250")) {
      Require(state_.GreetingDone);
      CheckEhloReply(decision.text);
    } else {
      Require(decision.text == reply);
    }
  }

 private:
  Configuration configuration_ = DefaultConfiguration();
  StandingClock clock_;
  Facts facts_;
  SessionState state_;
  ServerReplyFilter replies_{configuration_, clock_, facts_, state_};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const auto commands = Split(input.substr(0, end), ' ');
  const std::string_view bytes = input.substr(std::min(end + 1, input.size()));
  const auto replies = Assemble(bytes, bytes.size() + 1);
  Require(replies == Assemble(bytes, 1) && replies == Assemble(bytes, 7));
  Session session;
  for (std::size_t i = 0; i < replies.size(); ++i) {
    if (i < commands.size() && commands[i] != "-") session.Gets(commands[i]);
    session.Says(replies[i]);
  }
  return 0;
}
