// The program's one network object: an event-driven, non-blocking socket of IPv4 or IPv6.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/endpoint.h"
#include "base/ip_address.h"
#include "net/byte_queue.h"
#include "net/modSocketMaster.h"
#include "net/stream.h"
#include "platform/sockets.h"
#include "platform/splice_pipe.h"
#include "resolver/name_lookup.h"
#include "tls/tls_context.h"
#include "tls/tls_facts.h"

namespace trabex {

struct PeerName;

enum class SocketState : int {
  sckClosed = 0,
  sckOpen = 1,
  sckListening = 2,
  sckResolvingHost = 4,
  sckHostResolved = 5,
  sckConnecting = 6,
  sckConnected = 7,
  sckClosing = 8,  // the peer has closed; the owner has not
  sckError = 9,    // only CloseSck leaves it
};

enum class SocketProtocol : int { sckTCPProtocol = 0, sckUDPProtocol = 1 };

// A handler that few objects have: without one it takes no more than a pointer.
template <class... Arguments>
class RareHandler {
 public:
  template <std::invocable<Arguments...> Function>
  requires(!std::same_as<std::remove_cvref_t<Function>, RareHandler>) RareHandler& operator=(
      Function&& function) {
    function_ = std::make_unique<std::function<void(Arguments...)>>(std::forward<Function>(function));
    return *this;
  }
  explicit operator bool() const { return function_ != nullptr; }
  void operator()(Arguments... arguments) const { (*function_)(arguments...); }

 private:
  std::unique_ptr<std::function<void(Arguments...)>> function_;
};

// What an object notifies its owner of, from the loop or from inside a call that the owner makes (SendData
// may raise SendComplete before it returns). A handler may call anything on the object, CloseSck included,
// and may hand the object's owner to EventLoop::DeferredDelete; it must not destroy the object. An empty
// handler is skipped. An Error that leaves a handler is written to the log at the border.
struct CSocketMasterEvents {
  std::function<void()> CloseSck;
  std::function<void()> Connect;
  RareHandler<std::int32_t /*requestID*/> ConnectionRequest;
  std::function<void()> DataArrival;
  // cancel_display is preset true; a handler that sets it false gets the text shown on standard error.
  std::function<void(int number, std::string& description, const std::string& source, bool& cancel_display)>
      Error;
  std::function<void()> SendComplete;
  RareHandler<std::size_t /*bytes_sent*/, std::size_t /*bytes_remaining*/> SendProgress;
  // The handshake that StartTls began is done. Set where StartTls is called: it is forgotten when it is called.
  RareHandler<> Secured;

  // Who handles them, such as "cProxy.Receiver"; lives as long as the object. An exception without a source
  // that leaves a handler is logged as one of "cProxy.Receiver_DataArrival"; without it, of
  // "CSocketMaster.DataArrival".
  const char* Owner = nullptr;
};

// Methods raise Error: 40020 in the wrong state, 40014 for a bad argument, 40006 for the wrong protocol or
// state, otherwise the number of the failing call with its text; a failure that is found during network
// progress is reported by the Error event instead, with State sckError first.
//
// Destroying the object closes its socket at once, without the orderly end that CloseSck gives it.
class CSocketMaster final : public SocketSink {
 public:
  // `module` outlives the object.
  explicit CSocketMaster(modSocketMaster& module);
  ~CSocketMaster() override;
  CSocketMaster(const CSocketMaster&) = delete;
  CSocketMaster& operator=(const CSocketMaster&) = delete;

  CSocketMasterEvents Events;

  std::int32_t RemotePort() const;
  void SetRemotePort(std::int32_t lngPort);
  const std::string& RemoteHost() const;
  void SetRemoteHost(std::string strHost);
  // The peer's address as a text, "" while there is none; and as a value.
  std::string RemoteHostIP() const;
  const IPAddress& RemoteAddress() const;
  // Whose connection this is, where somebody between (a load balancer) has said so: from now on the remote
  // address and port are those of `peer`, and it has called `called`. Ends with CloseSck. Raises 40006 unless
  // connected.
  void SetPeer(const Endpoint& peer, const Endpoint& called);
  // What the peer has called: as SetPeer says, otherwise this end of the connection. None and 0 when there is
  // none.
  Endpoint CalledEndpoint() const;
  std::int32_t LocalPort() const;
  void SetLocalPort(std::int32_t lngPort);
  SocketState State() const;
  // This machine's name. Raises the look-up's error, source "CSocketMaster.GetLocalHostName".
  std::string LocalHostName(bool bNotCached = false);
  // The peer's name as LookUpRemoteHostName found it. Raises that look-up's error (11002 while there is no
  // answer), source "CSocketMaster.GetRemoteHostName".
  std::string RemoteHostName(bool bNotCached = false);
  // Whether that look-up has ended, and DNS did not say whether the peer has a name.
  bool RemoteHostNameFailed() const;
  // Asks for the peer's name; `done` is called once from the loop, within 5 seconds, also when there is none;
  // not after CloseSck. A name with anything but letters, digits, "-", "_" and "." counts as none, with
  // blnConfirmed also one that has not the peer's address among its own. One look-up at a time; a second call
  // replaces the first one's `done`. Raises what reading the peer's address raises.
  void LookUpRemoteHostName(std::function<void()> done, bool blnConfirmed = false);
  std::string LocalIP();
  std::int64_t BytesReceived() const;
  std::int64_t BytesSent() const;
  // A small number that names the socket in logs and rows, -1 when there is none.
  std::int32_t SocketHandle() const;
  const std::string& Tag() const;
  void SetTag(std::string strTag);
  SocketProtocol Protocol() const;
  void SetProtocol(SocketProtocol enmProtocol);

  // Closes in order: what SendData accepted still reaches the peer, even when data of the peer lies unread;
  // the module goes on with that in the background for 5 seconds at most. No event follows.
  void CloseSck();
  // `RemoteHost` is an address of either family, or a name, of which the first IPv4 address counts and the
  // first IPv6 one where it has none of the other. Without an argument the port stays as it is, and the host
  // becomes "".
  void Connect(std::optional<std::string> RemoteHost = std::nullopt,
               std::optional<std::int32_t> RemotePort = std::nullopt);
  // `LocalIP` is an address of either family, or a name that is known without asking for it; "::" is all
  // addresses of IPv6 and none of IPv4. Empty: all of IPv4.
  void Bind(std::optional<std::int32_t> LocalPort = std::nullopt, const std::string& LocalIP = {});
  // Accepts the bytes; they are sent as the peer takes them, SendComplete follows when all are. With
  // blnMoreFollows the system may wait a fifth of a second for what is sent next, to pack both together.
  void SendData(std::string_view Data, bool blnMoreFollows = false);
  // Sends what the network takes at once, and no more, where nothing waits before it. For the last words of an owner
  // that has no memory: this needs none, unless the connection is encrypted. Raises nothing.
  void SayLast(std::string_view words);
  // If set, a failed send is reported only after what the peer had sent before was read: the send counts as
  // lost, and CloseSck or Error follows the last of the input. Not set at first: a failed send is an Error at
  // once. Only for an owner that goes on reading whatever becomes of its sends.
  void SetDrainBeforeSendError(bool drain) { drain_before_send_error_ = drain; }
  // The bytes received, MaxLen at most (0: one chunk of the socket's receive buffer); returns their number.
  // PeekData leaves them to be read again.
  std::int32_t GetData(std::string& Data, std::int32_t MaxLen = 0);
  std::int32_t PeekData(std::string& Data, std::int32_t MaxLen = 0);
  // As PeekData, without a copy. The view is valid until this object consumes or closes, or any object reads
  // (PeekView, PeekData, GetData), for all receive into one buffer; it may be handed to another object's
  // SendData. What is not consumed is kept.
  std::string_view PeekView(std::int32_t MaxLen = 0);
  // Takes the first count of what the last PeekView gave, as GetData would, without a copy. TCP only. Does
  // nothing when the object was closed meanwhile. Raises 40014 when it is more than was peeked.
  void Consume(std::int32_t count);
  // The same, but these bytes do not count as received: they are not the peer's own.
  void ConsumeUncounted(std::int32_t count);
  // Takes up to MaxLen of the next bytes, unseen, and has `to` send them, as PeekView, SendData and Consume do
  // together; returns how many. The system moves them without a copy, which pays only where many are there.
  // Otherwise it returns 0, and PeekView says what there is: also when either of the two is encrypted, when bytes
  // wait to be read here or to be sent there, and when the system has no means for it.
  std::int32_t PassTo(CSocketMaster& to, std::int32_t MaxLen);
  // Listens so that no other process can on the same endpoint.
  void Listen();
  void Accept(std::int32_t requestID);
  std::vector<std::string> GetLocalIPAddresses();

  // Bytes accepted by SendData and not yet taken by the network.
  std::size_t PendingBytes() const;
  // How far the bytes of SendData have come since the connection began: grows with each one that the network
  // takes and again when the peer's system acknowledges it, and with nothing else. Asks the system.
  std::int64_t SendProgressMade() const;
  // Bytes that GetData would give. Asks the system.
  std::size_t UnreadBytes() const;
  // Whether the peer has ended or broken the connection: UnreadBytes are its last. CloseSck or Error is
  // raised when they have been read.
  bool PeerEnded() const;

  // Begins TLS, for the rest of the connection: `last_words` (plain text, such as the reply to STARTTLS) are
  // sent after what is queued, unencrypted; every other byte, in or out, goes through TLS from this call on.
  // What was received and not consumed is the beginning of the peer's TLS, and cannot be read any more.
  //
  // Secured follows when the handshake is done, and last_words have been sent then; they have no SendComplete
  // of their own. Until then nothing can be read, SendData keeps what it is given, and CloseSck closes at
  // once. The owner limits the time of the handshake. Counters and sizes are of plain text, before and
  // afterwards. What goes wrong is an Error event with 40030, "TLS failed: " and the reason, or 40031 when
  // too many handshakes are unfinished; a peer that ends before it is done is CloseSck. The peer's
  // close_notify is its end, whatever follows; CloseSck sends ours.
  //
  // `context` is of `role`, else 40014 is raised; 40006 unless connected by TCP, or when it is not the first
  // stream.
  void StartTls(TlsRole role, std::shared_ptr<const TlsContext> context, std::string_view last_words = {});
  // What the handshake agreed on, nullptr before Secured. Until CloseSck.
  const TlsFacts* Tls() const { return stream_ ? stream_->Facts() : nullptr; }

  // From now on `stream` carries the bytes of the connection, both ways, until CloseSck has ended it in
  // order. Returns what was received through the one before and not consumed, for `stream` to begin with; it
  // cannot be read any more. Raises 40006 unless connected, or while bytes wait to be sent.
  [[nodiscard]] std::string SetStream(std::unique_ptr<Stream> stream);

  void OnSocketEvent(trabex::SocketHandle socket, SocketEvent event, int error) override;

 private:
  struct ColdState;   // what only few sockets need; kept apart so that a session's stay small
  struct StreamWork;  // what goes on at a stream that is not plain
  struct PeerIdentity {
    std::int32_t port = 0;
    IPAddress address;
    std::string host;
  };

  // Opens the socket unless it is there. One of the other family, which nothing has been done with yet, makes
  // way for it.
  bool SocketExists(AddressFamily family);
  void ProcessOptions();
  // Without an address: to any of the family.
  bool BindInternal(std::optional<std::int32_t> port, const std::string& ip,
                    AddressFamily family = AddressFamily::kIPv4);
  // Starts a look-up of the name `host`.
  void ResolveIfHostname(const std::string& host);
  void OnHostAnswer(const AddressAnswer& answer);
  void ConnectToIP(const IPAddress& address, int error);
  bool BindForConnect(AddressFamily family);
  void CancelLookups();
  void ForgetPeerName();
  void OnPeerName(const PeerName& found);
  // Runs what the loop tells of. When there is no memory for it, the connection has failed, so that its owner does not
  // wait for ever.
  template <class Action>
  void RunProgress(const Action& action);
  std::string GetLocalHostName();
  std::string GetLocalIP();

  void OnNotification(SocketEvent event, int error);
  void OnRead();
  void OnWrite();
  void OnClose(int error);
  void OnAccept();
  void OnConnected();

  std::size_t SendPieces(std::string_view data, int& error, bool more_follows = false);
  void FinishFlush(std::size_t sent, int error);
  void FlushPending();
  bool NothingUnsent() const { return send_.Empty() && !pipe_; }
  // Whether bytes may come out of a pipe to be sent.
  bool TakesPipe() const;
  std::size_t SendFromPipe(int& error);
  void ReturnPipe();
  // Moves what is in the pipe to the front of send_.
  void EmptyPipe();
  std::size_t SendChunk();
  std::size_t ReceiveChunk();
  // `max_length` of a reading call in bytes.
  std::size_t PortionSize(std::int32_t max_length);
  // `source` names the caller in errors.
  void CheckReadable(std::int32_t max_length, const char* source) const;
  // What was received and not consumed.
  std::string_view Received() const;
  std::string_view ReceiveUpTo(std::size_t wanted);

  Stream& GetStream() const { return stream_ ? *stream_ : module_.plain_; }
  void DropStream();
  // Whether a handshake is under way: nothing is read or sent.
  bool Handshaking() const { return stream_ && !stream_->Established(); }
  void ReadyForHandshake();
  void OnHandshakeStep();
  void EndHandshake();
  // Only with a stream_: has the owner notified of input that the stream holds, or of the end after it.
  void FollowUp();
  void OnFollowUp();
  void HoldClose(int error);

  // Datagrams.
  void SendBufferedDataUDP(std::string_view data);
  void OnDatagram();
  std::string_view PeekDatagram(std::int32_t max_length);
  std::int32_t RecvData(std::string& data, bool peek, std::int32_t max_length);

  // Calls the owner's handler of `event`.
  template <class Handler, class... Arguments>
  void Raise(const Handler& handler, const char* event, Arguments&&... arguments);
  // In a catch clause.
  void LogHandlerError(const char* event);
  void ReportError(int number, const char* source);
  ColdState& GetColdState();
  StreamWork& GetStreamWork();
  // Frees it when nothing goes on.
  void ReleaseStreamWork();

  modSocketMaster& module_;
  trabex::SocketHandle socket_;
  SocketState state_ = SocketState::sckClosed;
  SocketProtocol protocol_ = SocketProtocol::sckTCPProtocol;
  AddressFamily family_ = AddressFamily::kIPv4;  // of socket_
  std::int32_t remote_port_ = 0;
  std::int32_t local_port_ = 0;  // as requested
  std::int32_t send_chunk_ = 0;  // 0: not asked for yet, as for the next
  std::int32_t receive_chunk_ = 0;
  IPAddress connect_address_;  // that a connect is under way to
  IPAddress remote_address_;
  bool established_ = false;  // connected at least once since the socket was created
  bool drain_before_send_error_ = false;
  // With drain_before_send_error_: a send failed while input of the peer waits to be read.
  bool write_failed_ = false;
  std::int64_t bytes_received_ = 0;
  std::int64_t bytes_sent_ = 0;
  std::string remote_host_;
  ByteQueue send_;                    // accepted and not sent
  std::unique_ptr<SplicePipe> pipe_;  // with what is to be sent before send_; nullptr: nothing
  ByteQueue receive_;                 // received and not consumed, as far as it is not in module_.received_
  std::unique_ptr<Stream> stream_;    // nullptr: the plain one
  std::unique_ptr<StreamWork> stream_work_;  // nullptr: nothing goes on
  LookupId host_lookup_ = 0;
  std::unique_ptr<ColdState> cold_;
};

}  // namespace trabex
