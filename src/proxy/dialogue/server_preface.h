// What passes between the server and us before the client's dialogue with it begins: TLS, and whose
// connection it is. Replies go in, steps come out; nothing of it reaches the client but one greeting at its
// end.
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
  bool tls_at_once = false;    // TLS begins before the greeting
  bool starttls = false;       // TLS begins when the server offers it
  bool requires_tls = false;   // with starttls: no session without it
  bool proves_header = false;  // whether the server took a header is seen by its reply to EHLO
  bool xclient = false;        // the client's address is told by XCLIENT

  bool IsNeeded() const { return tls_at_once || NeedsEhlo(); }
  // Whether the server is to be asked what it offers.
  bool NeedsEhlo() const { return starttls || proves_header || xclient; }
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
      kWait,         // for what the server says next
      kGreet,        // the preface is over: `text` is the greeting for the client
      kGoOn,         // the preface is over; the greeting comes next
      kRefuse,       // no session with this server; `text` says why
    };
    Kind kind;
    std::string text;
    // With kGreet: the greeting refuses the client, and the server gets nothing more.
    bool without_server = false;
  };

  explicit ServerPreface(ServerPrefacePlan plan);

  // The first step, when the server is connected.
  Step Begin() const;
  // Whether the server owes a reply. What it says otherwise is a reply to nothing.
  bool AwaitsReply() const { return state_ != State::kHandshake && state_ != State::kNames; }
  // Whether the server has to do something, a reply or its part of a handshake.
  bool AwaitsServer() const { return state_ != State::kNames; }
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
  State state_;
  bool secured_ = false;
  std::string greeting_;
  ExtensionCollection extensions_;
};

}  // namespace trabex
