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
#include "filter_dependencies.h"
#include "proxy/dialogue/dialogue.h"
#include "proxy/dialogue/reply_assembler.h"

namespace {

using namespace trabex;

std::vector<std::string> Assemble(std::string_view bytes, std::size_t step) {
  ReplyAssembler assembler;
  std::vector<std::string> replies;
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    assembler.Append(std::string(bytes.substr(at, step)));
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

class ServerSession final : private DialogueActions {
 public:
  ServerSession() {
    state_.phase = Phase::kCommand;
    state_.requested.HeloDomain = "client.test";
    state_.requested.RecipientCount = 1;
    configuration_.LocalHostName = "proxy.test";
    configuration_.MaxSize = 1000 * kFixedPointOne;
  }

  // A command, or, where content is expected, the rest of it. Every chunk is a last one.
  void Gets(std::string_view verb) {
    if (ExpectedBytes(state_.phase) == ClientBytes::kContent) {
      state_.phase = Phase::kContentReply;
      return;
    }
    state_.phase = Phase::kReply;
    state_.forwarded = {std::string(verb), FindCommand(verb).id, verb == "BDAT", 0};
  }

  void Says(const std::string& reply) {
    const bool greeted = Greeted();
    const bool open = Open();
    const bool asked = state_.phase == Phase::kReply;
    const bool unasked = IsUnasked(state_.phase);
    const std::string code = reply.substr(0, 3);
    const std::string verb = state_.forwarded.ForwardedVerb;
    const auto is = [&](std::initializer_list<std::string_view> verbs, std::string_view wanted) {
      return asked && code == wanted && std::find(verbs.begin(), verbs.end(), verb) != verbs.end();
    };
    const bool ends_message = asked && verb == "BDAT";
    to_client_.clear();
    to_server_.clear();
    Dialogue dialogue(configuration_, clock_, facts_, nullptr, state_);
    dialogue.OnServerBytes(reply, *this);
    state_ = dialogue.State();

    Require(state_.phase != Phase::kReply);
    if (Greeted() != greeted) Require(is({"EHLO", "HELO"}, "250"));
    if (Open() && !open) Require(is({"MAIL", "SEND", "SOML", "SAML"}, "250") || is({"MAIL"}, "355"));
    if (!Open() && open) {
      Require(is({"EHLO", "HELO", "RSET"}, "250") || is({"DATA"}, "354") || ends_message);
    }
    if (ends_message) Require(!Open());
    if (!to_server_.empty()) Require(is({"DATA"}, "354") && state_.phase == Phase::kDotContent);
    if (state_.phase == Phase::kAuthData) Require(asked && verb == "AUTH");
    if (state_.phase == Phase::kAuthData) state_.phase = Phase::kCommand;

    const auto lines = LinesOf(reply);
    if (is({"EHLO"}, "250") && lines.back().starts_with("250")) {
      Require(Greeted());
      CheckEhloReply(to_client_);
    } else if (unasked && code == "250" && lines.size() > 1 && lines.back().starts_with("250")) {
      // The client may take it for the reply to its EHLO.
      CheckEhloReply(to_client_);
    } else {
      Require(to_client_ == reply);
    }
  }

 private:
  bool Greeted() const { return state_.transaction >= Transaction::kGreeted; }
  bool Open() const { return state_.transaction >= Transaction::kOpen; }

  void ToServer(std::string_view bytes, bool) override { to_server_.append(bytes); }
  void ToClient(std::string_view reply) override { to_client_.append(reply); }
  void StartTls(std::string_view) override { Require(false); }
  void ClientIs(const std::optional<ProxiedConnection>&) override { Require(false); }
  void StartServerTls() override { Require(false); }
  void AskForClientNames() override { Require(false); }
  void GoOnWithoutServer() override { Require(false); }
  void AskForAddresses(std::string_view) override {}
  void CloseServer() override {}
  void EndAfterPause() override {}
  void Log(Side, std::int32_t, std::string_view) override {}
  void LogFailure(const Error&) override {}

  Configuration configuration_ = DefaultConfiguration();
  StandingClock clock_;
  Facts facts_;
  DialogueState state_;
  std::string to_client_;
  std::string to_server_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const auto commands = Split(input.substr(0, end), ' ');
  const std::string_view bytes = input.substr(std::min(end + 1, input.size()));
  const auto replies = Assemble(bytes, bytes.size() + 1);
  Require(replies == Assemble(bytes, 1) && replies == Assemble(bytes, 7));
  ServerSession session;
  for (std::size_t i = 0; i < replies.size(); ++i) {
    if (i < commands.size() && commands[i] != "-") session.Gets(commands[i]);
    session.Says(replies[i]);
  }
  return 0;
}
