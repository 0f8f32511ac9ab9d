// Plays scripts on a session's dialogue alone: no socket, no loop, and no time but the one that the test
// sets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/ip_address.h"
#include "proxy/dialogue/dialogue.h"
#include "script/script.h"
#include "support/fake_clock.h"
#include "support/scripted_server.h"

namespace trabex {

// The session of an admitted client whose server is connected. Bytes that the dialogue does not take yet
// wait, as they do in a socket; a send is complete at once.
class DialoguePlayer final : private DialogueActions, private SessionFacts {
 public:
  // What is known of a name; nothing when it cannot be found.
  using Addresses = std::vector<IPAddress>;
  using NameTable = std::function<std::optional<Addresses>(std::string_view name)>;

  // The client, as the dialogue knows it.
  struct Client {
    IPAddress ip = kIPv4Loopback;
    std::string host_name;  // "" for none
    bool is_local = true;
    bool on_tls_port = false;  // it speaks TLS from its first byte on
  };

  // All references outlive the object. `greylisting` may be nullptr.
  DialoguePlayer(const Configuration& configuration, FakeClock& clock, Client client,
                 GreylistCheck* greylisting = nullptr);
  ~DialoguePlayer() override = default;
  DialoguePlayer(const DialoguePlayer&) = delete;
  DialoguePlayer& operator=(const DialoguePlayer&) = delete;

  void SetDelivery(script::Delivery delivery) { delivery_ = delivery; }
  // Names are answered from the table as soon as they are asked for. Without one they wait for a step
  // "answer".
  void SetNames(NameTable names) { names_ = std::move(names); }
  // From now on `heard` is called with whatever either side sends, as it reaches the dialogue.
  void Overhear(std::function<void(script::Side side, std::string_view bytes)> heard) {
    heard_ = std::move(heard);
  }
  // From now on `server` answers in the place of the server's steps.
  void Attend(ScriptedServer& server);

  // Plays the steps. Returns "" or what went wrong, with the dialogue so far. What only sockets have (a
  // further client, time-outs) goes wrong.
  std::string Play(const std::vector<script::Step>& steps);
  std::string Play(std::string_view text);

  void ClientSends(std::string_view bytes);
  void ServerSends(std::string_view bytes);
  // The client's next reply, all of its lines; what there is of it when it has not come.
  std::string NextReply();
  // Nothing more comes from the client.
  void EndClient();

  bool IsOver() const { return over_; }
  Dialogue& Object() { return dialogue_; }

 private:
  void ToServer(std::string_view bytes, bool more_follows) override;
  void ToClient(std::string_view reply) override;
  void AskForAddresses(std::string_view host_name) override;
  void StartTls(std::string_view last_words) override;
  // What comes before the dialogue is not played here.
  void ClientIs(const std::optional<ProxiedConnection>&) override { Unplayed(); }
  void StartServerTls() override { Unplayed(); }
  void AskForClientNames() override { Unplayed(); }
  void GoOnWithoutServer() override {}
  void CloseServer() override { server_closed_ = true; }
  void EndAfterPause() override;
  void Log(Side side, std::int32_t level, std::string_view text) override;
  void LogFailure(const Error& error) override;

  IPAddress ClientIP() const override { return client_.ip; }
  bool IsLocalClient() const override { return client_.is_local; }
  std::string ClientHostName() const override { return client_.host_name; }
  std::int64_t BytesSent() const override { return bytes_sent_; }
  bool TlsConfigured() const override { return configuration_.TLS.WantsCertificate(); }
  bool TlsReady() const override { return TlsConfigured(); }
  bool TlsActive() const override { return secured_; }
  TlsTexts TlsText() const override;
  bool ServerTlsActive() const override { return false; }

  void Unplayed() { Fail("something comes before the dialogue"); }
  bool PlayStep(const script::Step& step);
  void Send(script::Side side, const script::Sending& sending);
  void Deliver(script::Side side, std::string_view bytes);
  void LeavePeer(const script::Step& step);
  bool MakeHandshake();
  void Answer(const script::NameAnswers& answers);
  bool ExpectLine(std::string& received, const script::Pattern& wanted);
  bool ExpectClosed(script::Side side);
  bool ExpectLogged(const script::Pattern& wanted);
  bool Fail(std::string reason);
  std::string& ReceivedBy(script::Side side) {
    return side == script::Side::kClient ? to_client_ : to_server_;
  }

  // Lets the dialogue take what is there until nothing moves.
  void Pump();
  bool PumpOnce();
  bool TakeFromClient();
  bool ServeOnce();

  const Configuration& configuration_;
  FakeClock& clock_;
  Client client_;
  Dialogue dialogue_;
  script::Delivery delivery_ = script::Delivery::kWhole;
  NameTable names_;
  ScriptedServer* attended_ = nullptr;
  std::function<void(script::Side, std::string_view)> heard_;

  std::string from_client_;  // not taken yet
  std::string from_server_;
  std::string to_client_;  // that no step has named yet
  std::string to_server_;
  std::int64_t bytes_sent_ = 0;
  std::optional<std::string> asked_name_;  // that waits for its answer
  std::optional<Dialogue::ServerEnd> server_end_;
  bool client_ended_ = false;
  bool client_gone_ = false;    // what is sent to it fails
  bool server_closed_ = false;  // by the proxy
  bool secured_ = false;
  bool over_ = false;
  std::optional<MonotonicTime> ends_at_;
  std::vector<std::string> log_;

  std::string dialogue_so_far_;
  std::string failure_;
};

}  // namespace trabex
