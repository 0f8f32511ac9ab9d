// What comes before the dialogue: a balancer's header, and what the server has to agree on.
#include <algorithm>
#include <utility>

#include "proxy/cProxy.h"

namespace trabex {

// --- the client's side

void cProxy::ExpectHeader(bool tls) {
  const auto timeout = std::chrono::seconds(dependencies_.configuration.ProxyProtocolTimeout);
  opening_ = std::make_unique<Opening>();
  opening_->tls_port = tls;
  opening_->end = dependencies_.clock.Monotonic() + timeout;
  // A balancer that only looks whether we are there may break the connection off.
  Receiver.LogFailures(false);
}

void cProxy::TakeHeader() {
  const std::string_view there = Receiver.Peek(kMaxProxyHeader);
  if (!there.empty()) Receiver.LogFailures(true);
  const std::size_t used = dialogue_.OnClientBytes(there, *this);
  Receiver.Take(used, there.size(), false);
  if (used == 0) return;
  const bool tls = std::exchange(opening_, nullptr)->tls_port;
  if (tls) dialogue_.ExpectTls();
  AdmitClient(tls);
}

void cProxy::ClientIs(const std::optional<ProxiedConnection>& connection) {
  is_balancers_own_ = !connection;
  // Balancers that must name somebody name themselves.
  Receiver.OnlyLooks(!connection || connection->client == Origin().connection.client);
  if (connection) Receiver.Socket().SetPeer(connection->client, connection->called);
  IsLocal.reset();
}

// --- the server's side

ClientOrigin cProxy::Origin() const {
  const CSocketMaster& client = Receiver.Socket();
  const Endpoint remote{client.RemoteAddress(), static_cast<std::uint16_t>(client.RemotePort())};
  return {{remote, client.CalledEndpoint()}, is_balancers_own_, nullptr};
}

void cProxy::ApproachServer() {
  ClientOrigin origin = Origin();
  ProxiedTls tls;
  if (const TlsFacts* facts = Receiver.Socket().Tls(); facts != nullptr) {
    tls = {facts->version, facts->cipher, facts->has_peer_certificate, facts->peer_verified,
           facts->peer_name};
    origin.tls = &tls;
  }
  opening_ = std::make_unique<Opening>();
  opening_->end = dependencies_.clock.Monotonic() + ServerPreface::kTimeout;
  dialogue_.OnServerConnected(PlanApproach(dependencies_.configuration, origin), *this);
}

// Returns whether there was something to do.
bool cProxy::FollowOpening() {
  const Phase phase = dialogue_.phase();
  if (phase != Phase::kProxyHeader && phase != Phase::kPreface) {
    opening_.reset();
  } else if (std::exchange(opening_->wants_tls, false)) {
    BeginServerTls();
  } else if (HostNameKnown && std::exchange(opening_->wants_names, false)) {
    ConfirmClientName();
  } else {
    return false;
  }
  return true;
}

void cProxy::BeginServerTls() {
  const auto& context = dependencies_.tls.for_server;
  if (!context) return dialogue_.RefuseServer("TLS not available", *this);
  opening_->handshake_end = dependencies_.clock.Monotonic() +
                            std::chrono::seconds(dependencies_.configuration.TLS.HandshakeTimeout);
  AwaitServer();
  Sender.StartTls(TlsRole::kClient, context);
}

// The server will take the name for a verified one, so the name has to lead back to the client.
void cProxy::ConfirmClientName() {
  if (HostName.empty()) return TellClientNames(ClientNames::Answer::kNone);
  name_lookup_ = dependencies_.names.FindAddresses(
      HostName, LookupFamilyOf(ClientIP()), [this](const AddressAnswer& answer) {
        RunHandler("cProxy.ConfirmClientName", [&] {
          name_lookup_ = 0;
          const auto& found = answer.addresses;
          auto confirmed = ClientNames::Answer::kNone;
          if (answer.error == socket_error::kTryAgain) {
            confirmed = ClientNames::Answer::kTemporary;
          } else if (answer.error == 0 && std::find(found.begin(), found.end(), ClientIP()) != found.end()) {
            confirmed = ClientNames::Answer::kFound;
          }
          TellClientNames(confirmed);
          Pump();
        });
      });
}

void cProxy::TellClientNames(ClientNames::Answer confirmed) {
  ClientNames names{HostName, ClientNames::Answer::kFound, confirmed};
  if (HostName.empty()) {
    names.by_address = name_is_temporary_ ? ClientNames::Answer::kTemporary : ClientNames::Answer::kNone;
    names.confirmed = names.by_address;
  }
  dialogue_.OnClientNames(Origin().connection, names, *this);
}

void cProxy::GoOnWithoutServer() {
  // The server's patience counts no more, since it does not hear whether the client is still there.
  ArmTimeout();
}

bool cProxy::EndOpening() {
  if (!opening_) return false;
  if (dependencies_.clock.Monotonic() <= std::min(opening_->end, opening_->handshake_end)) return false;
  if (dialogue_.phase() == Phase::kProxyHeader) {
    return CloseBecause(SessionEnd::kTimeout, "PROXY header time-out. Closing connection.");
  }
  EndsBy(SessionEnd::kTimeout);
  dialogue_.RefuseServer("time-out", *this);
  Pump();
  return true;
}

}  // namespace trabex
