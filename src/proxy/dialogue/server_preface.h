// What is said to the server before the client's dialogue with it begins: STARTTLS, and whose connection it
// is. Replies go in, steps come out; nothing of it reaches the client but one greeting at its end.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "proxy/dialogue/extension_collection.h"
#include "proxy/dialogue/xclient.h"

namespace trabex {

// What the server has to learn or to agree to. The client waits meanwhile.
struct ServerPrefacePlan {
  std::string local_host_name;
  bool starttls = false;       // TLS begins when the server offers it
  bool requires_tls = false;   // with starttls: no session without it
  bool proves_header = false;  // whether the server took a header is seen by its reply to EHLO
  bool xclient = false;        // the client's address is told by XCLIENT

  bool IsNeeded() const { return starttls || proves_header || xclient; }
  // Without its preface the server would take the client for us, or read its mail in the clear.
  bool IsRequired() const { return requires_tls || proves_header || xclient; }
};

class ServerPreface {
 public:
  // RFC 5321, 4.5.3.2.1; for all of it.
  static constexpr std::chrono::seconds kTimeout{300};

  struct Step {
    enum class Kind {
      kSend,         // `text` goes to the server, a command with its CR LF
      kStartTls,     // TLS begins; OnSecured follows
      kAskForNames,  // OnNames follows
      kGreet,        // the preface is over: `text` is the greeting for the client
      kRefuse,       // no session with this server; `text` says why
    };
    Kind kind;
    std::string text;
    // With kGreet: the greeting refuses the client, and the server gets nothing more.
    bool without_server = false;
  };

  // The server speaks first.
  explicit ServerPreface(ServerPrefacePlan plan) : plan_(std::move(plan)) {}

  // Whether the server owes a reply. What it says otherwise is a reply to nothing, for OnReply.
  bool AwaitsReply() const { return state_ != State::kHandshake && state_ != State::kNames; }
  // `reply` is one complete reply with its line ends. `more_follows`: the server has said more than that.
  Step OnReply(std::string_view reply, bool more_follows);
  // TLS has begun.
  Step OnSecured();
  Step OnNames(const ProxiedConnection& connection, const ClientNames& names);
  // What the server says cannot be a reply, or comes when none is owed.
  static Step OnNonsense() { return Refuse("unexpected data"); }

 private:
  // What is awaited.
  enum class State { kGreeting, kEhlo, kStarttls, kHandshake, kNames, kXclient, kOver };

  static Step Refuse(std::string_view reason) { return {Step::Kind::kRefuse, std::string(reason)}; }
  Step Send(State next, std::string command);
  Step Greet(std::string_view greeting, bool is_refusal);
  Step SendEhlo();
  Step OnGreeting(std::string_view reply);
  Step OnEhloReply(std::string_view reply);
  Step OnStarttlsReply(std::string_view reply);
  Step OnXclientReply(std::string_view reply);
  // Without TLS, or with it.
  Step TellClient();

  ServerPrefacePlan plan_;
  State state_ = State::kGreeting;
  bool secured_ = false;
  std::string greeting_;
  ExtensionCollection extensions_;
};

}  // namespace trabex
