// A server that says anything before the client's dialogue with it begins. The first line holds letters: t TLS
// begins at once, s STARTTLS is wanted, r it is required, p the header of the PROXY protocol is to be proved, x
// XCLIENT is wanted. The rest is what the server says; a byte FF ends what comes at a time. TLS begins when it
// is asked for, and names are answered then; a byte FE stands for what comes before that.
//
// Whatever it says:
// - the dialogue goes on with the server only under TLS where that is required, and only after XCLIENT was
//   taken, or EHLO, where the server has to learn or to prove something;
// - TLS begins only where nothing lies behind the reply to STARTTLS;
// - what is sent is one line each.
#include "proxy/dialogue/server_preface.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/text.h"
#include "filter_dependencies.h"
#include "proxy/dialogue/reply_assembler.h"

namespace {

using namespace trabex;
using Kind = ServerPreface::Step::Kind;

class Session {
 public:
  explicit Session(const ServerPrefacePlan& plan) : plan_(plan), preface_(plan) {
    Follow(preface_.Begin(), false);
  }

  void Says(std::string_view bytes) {
    assembler_.Append(std::string(bytes));
    while (!over_) {
      const auto reply = assembler_.NextReply();
      if (!reply) break;
      const bool more = !assembler_.IsEmpty();
      last_reply_ = *reply;
      Follow(preface_.OnReply(*reply, more), more);
    }
  }
  // Answers what was asked for.
  void Answer() {
    if (over_) return;
    if (wants_tls_) {
      wants_tls_ = false;
      secured_ = true;
      told_ = greeted_ = false;
      Follow(preface_.OnSecured(), false);
    } else if (wants_names_) {
      wants_names_ = false;
      const ProxiedConnection connection{{IPAddress::IPv4(0xC0000207), 1}, {IPAddress::IPv4(0xC0000208), 25}};
      Follow(preface_.OnNames(connection, {std::string(300, 'n'), ClientNames::Answer::kFound,
                                           ClientNames::Answer::kFound}),
             false);
    }
  }

 private:
  void Follow(const ServerPreface::Step& step, bool more) {
    switch (step.kind) {
      case Kind::kSend:
        Require(step.text.find_first_of("\r\n") == step.text.size() - 2 && step.text.ends_with(kCrLf));
        Require(step.text.size() <= kMaxXclientLine);
        Require(!more);
        greeted_ |= step.text.starts_with("EHLO ");
        told_ |= step.text.starts_with("XCLIENT ");
        break;
      case Kind::kStartTls:
        Require(!secured_ && !more);
        Require(plan_.tls_at_once || (plan_.starttls && last_reply_.starts_with("220")));
        wants_tls_ = true;
        break;
      case Kind::kAskForNames:
        Require(plan_.xclient && greeted_);
        wants_names_ = true;
        break;
      case Kind::kWait:
        break;
      case Kind::kGoOn:
        over_ = true;
        Require(plan_.tls_at_once && secured_ && !plan_.NeedsEhlo());
        break;
      case Kind::kGreet:
        over_ = true;
        Require(step.text.ends_with(kCrLf));
        Require(!wants_tls_ && !wants_names_);
        if (step.without_server) break;
        if (plan_.tls_at_once || (plan_.requires_tls && plan_.starttls)) Require(secured_);
        if (plan_.xclient) Require(told_ && last_reply_.starts_with("220"));
        if (plan_.proves_header && !plan_.xclient) Require(secured_ || greeted_);
        break;
      case Kind::kRefuse:
        over_ = true;
        break;
    }
  }

  const ServerPrefacePlan plan_;
  ServerPreface preface_;
  ReplyAssembler assembler_;
  std::string last_reply_;
  bool wants_tls_ = false;
  bool wants_names_ = false;
  bool secured_ = false;
  bool greeted_ = false;  // by us, since TLS began
  bool told_ = false;
  bool over_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view letters = input.substr(0, input.find('\n'));
  const auto has = [letters](char letter) { return letters.find(letter) != std::string_view::npos; };
  Session session({"proxy.test", has('t'), has('s'), has('r'), has('p'), has('x')});
  input.remove_prefix(std::min(letters.size() + 1, input.size()));
  while (!input.empty()) {
    const std::size_t end = input.find_first_of("\xFE\xFF");
    session.Says(input.substr(0, end));
    if (end == std::string_view::npos) break;
    if (input[end] == '\xFF') session.Answer();
    input.remove_prefix(end + 1);
  }
  return 0;
}
