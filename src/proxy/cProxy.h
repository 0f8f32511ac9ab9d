// One SMTP session: a client's connection and the one that the proxy opens to the real server on its behalf.
//
// The life of a session, and what happens when either side closes:
//
// - admission: the client was accepted; count, IP lists, and where it applies its name from DNS are asked.
//   The client closes: the session ends.
//
// - refused: the client's name was refused; only the proxy talks to it, until QUIT or the time-out.
//
// - connecting: the server is being connected, the client's data waits. It fails: 421 to the client, the end.
//
// - relaying: from the server's connection on. Either side closes: what was said so far still reaches the
//   other one, then the session ends. When the client has not taken all of it yet, the server's connection
//   is closed all the same, and the session goes on for the client alone.
//
// Up to the server's connection a client that completes no line for Timeout seconds is closed. A send to
// either side that makes no progress (see SendStall) ends the session at any time.
//
// The filters decide and the session acts: it takes one command line at a time, and the next one when the
// complete reply to it has gone to the client; it relays message content; it has one send under way per
// direction, and what comes meanwhile waits in the socket. Everything runs on the loop; a session that has
// ended takes no further event, and is destroyed at the end of the loop iteration.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/log.h"
#include "net/CSocketMaster.h"
#include "net/send_stall.h"
#include "platform/event_loop.h"
#include "proxy/dialogue/client_command_filter.h"
#include "proxy/dialogue/reply_assembler.h"
#include "proxy/dialogue/server_reply_filter.h"
#include "proxy/dialogue/session_facts.h"
#include "proxy/dialogue/session_state.h"
#include "proxy/session_host.h"
#include "resolver/name_lookup.h"

namespace trabex {

class cProxy final : public DeferredDeletable, private SessionFacts {
 public:
  // The pause before a session is closed for commands out of order.
  static constexpr Milliseconds kBadSequencePause{500};

  explicit cProxy(SessionHost& host);
  ~cProxy() override;
  cProxy(const cProxy&) = delete;
  cProxy& operator=(const cProxy&) = delete;

  // Takes the connection request of the listener: admission, then the connection to the server. The session
  // is in the collection before; it may have left it when this returns.
  void Init(std::int32_t requestID);
  // The periodic tick: ends the session when its client completed no line for longer than Timeout before the
  // server connection stood, or when a send is stuck. Lets a server go that has gone.
  void CheckTimeout();
  // Tells the client that the service stops, then closes.
  void Shutdown();
  // Ends the session: both sockets close in order, it leaves the collection and the table. Every end goes
  // through it.
  void Close();

  // The key in the collection.
  const std::string& Key() const { return key_; }
  // For the connection table.
  std::int32_t Handle() const { return Receiver.SocketHandle(); }
  std::int64_t BytesReceived() const override { return Receiver.BytesReceived(); }
  std::int64_t BytesSent() const override { return Receiver.BytesSent(); }
  double Duration() const;  // days
  IPAddress ClientIP() const override { return Receiver.RemoteAddress(); }
  std::string HostNameOrUnknown() const { return ClientHostNameOrUnknown(); }

 private:
  enum class Stage { kAdmission, kRefused, kConnecting, kRelaying, kClosed };

  bool IsLocalClient() const override;
  std::string ClientHostName() const override { return HostName; }
  bool Refused() const override { return stage_ == Stage::kRefused; }

  // Admission, in this order; each returns whether the session goes on.
  bool AdmitByCount();
  bool AdmitByAddress();
  void LookUpClientName();
  void ClientNameKnown();
  bool AdmitByName();
  bool NameAdmissionApplies() const;
  void ConnectServer();

  void Receiver_Connect();
  void Receiver_DataArrival();
  void Receiver_SendComplete();
  void Receiver_Error(int number, const std::string& description);
  void Receiver_CloseSck();
  bool LineHasCome();
  void Sender_Connect();
  void Sender_DataArrival();
  void Sender_SendComplete();
  void Sender_Error(int number, const std::string& description);
  void Sender_CloseSck();

  // From the client: as long as there is data that may be taken now.
  void TakeClientData();
  bool MayTakeContent() const;
  bool MayTakeLine() const;
  void TakeContent();
  void TakeLine();
  void ActOnLine(LineDecision decision);
  void ActOnNameAnswer(const AddressAnswer& answer);
  void EndAfterPause();

  // From the server.
  void TakeServerData();
  void RelayServerData();
  void RelayReplies();
  void RelayReply(std::string_view reply);
  bool RelayWholeLines();
  bool RelayBeginOfReply();
  void HearServerOut();
  void RelayLastWords();
  void EndWithoutServer();
  void EndWhenSaid();
  void GiveUpServer(std::string_view reason);

  // The two exits; the protocol log is written there.
  void SendToClient(std::string_view text);  // with its line ends
  void SendToServer(std::string_view text, bool more_follows = false);
  void SendPolicyReply(ReplyKind kind);

  // Whether the session has ended.
  bool EndSilent();
  bool EndStuck();
  void CloseSender();
  void CloseReceiver();
  void LogSender(std::int32_t level, std::string_view text);
  void LogReceiver(std::int32_t level, std::string_view text);
  // The body of an event handler: not run when the session has ended; errors that leave it are logged.
  template <class Body>
  void RunHandler(const char* source, Body body);

  SessionHost& host_;
  std::string key_;
  Stage stage_ = Stage::kAdmission;

  CSocketMaster Receiver;  // towards the client
  CSocketMaster Sender;    // towards the real server

  double TimeoutSpan = 0;  // days; 0: no time-out
  MonotonicTime LastActivity{};
  std::int64_t looked_to_ = 0;  // how far the client's bytes have been looked at for a line's end
  MonotonicTime StartTime{};
  bool ReceiverSending = false;    // a send towards the client is under way
  bool ServerDataPending = false;  // the server's data waits in its socket
  bool SenderSending = false;
  bool ClientDataPending = false;
  bool SenderConnected = false;
  bool Whitelisted = false;
  bool CloseAfterSend = false;
  bool HostNameKnown = false;
  mutable std::optional<bool> IsLocal;  // asked for once
  bool taking_ = false;                 // TakeClientData is on the stack
  bool deaf_ = false;                   // nothing more is read from the client
  std::string HostName;
  LookupId name_lookup_ = 0;  // of the HELO or EHLO that waits

  SessionState state_;
  ClientCommandFilter commands_;
  ServerReplyFilter replies_;
  ReplyAssembler assembler_;
  std::unique_ptr<Timer> pause_;
  SendStall receiver_stall_;
  SendStall sender_stall_;
};

template <class Body>
void cProxy::RunHandler(const char* source, Body body) {
  if (stage_ == Stage::kClosed) return;
  RunLogged(host_.log, source, body);
}

}  // namespace trabex
