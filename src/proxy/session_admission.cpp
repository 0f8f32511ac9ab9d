// How a session begins: admission by the number of sessions, by address and by name, and the connection to
// the server.
#include <memory>
#include <new>
#include <string_view>

#include "base/error.h"
#include "match/ip_range.h"
#include "proxy/admission.h"
#include "proxy/cProxy.h"
#include "proxy/last_words.h"

namespace trabex {

void cProxy::Begin(SessionDependencies& dependencies, std::int32_t requestID, bool tls) {
  const auto add = [&]() -> cProxy& {
    return dependencies.sessions.Add(std::make_unique<cProxy>(dependencies));
  };
  cProxy* session = nullptr;
  // What is left without the reserve is for the sessions that are there.
  bool without_memory = !dependencies.sockets.Reserve().IsThere();
  try {
    session = &add();
  } catch (const std::bad_alloc&) {
    without_memory = true;
    dependencies.sockets.Reserve().Release();
    try {
      session = &add();
    } catch (const std::bad_alloc&) {
      Dismiss(dependencies, requestID, tls);
      dependencies.sockets.Reserve().Renew();
      throw;
    }
  }
  session->Init(requestID, tls, without_memory);
}

void cProxy::Dismiss(SessionDependencies& dependencies, std::int32_t requestID, bool tls) {
  const Configuration& configuration = dependencies.configuration;
  const auto peer = dependencies.sockets.PeerOf(requestID);
  // To these nothing can be said yet.
  const bool is_silent =
      tls || !peer || mCommon::IPInRangeList(peer->address, configuration.ProxyProtocolFrom);
  dependencies.sockets.Dismiss(requestID, is_silent ? std::string_view() : LastWords(configuration).Text());
}

void cProxy::Init(std::int32_t requestID, bool tls, bool without_memory) {
  RunLogged(dependencies_.log, "cProxy.Init", [&] { Receiver.Socket().Accept(requestID); });
  if (stage_ == Stage::kClosed) return;
  // Without its client the session has no purpose.
  if (!Receiver.IsConnected()) return Close();
  RunHandler("cProxy.Init", [&] {
    StartTime = LastActivity = state_began_ = dependencies_.clock.Monotonic();
    Receiver.Log(log_level::kConnection, "Connection Request.");
    if (tls) dialogue_.ExpectTls();
    const auto max_connections = static_cast<std::size_t>(dependencies_.configuration.MaxConnections);
    if (!without_memory && max_connections != 0 && dependencies_.sessions.Count() > max_connections) {
      TellBegin();
      return Refuse(ReplyKind::kTooManyConnections);
    }
    const bool is_balancer =
        mCommon::IPInRangeList(ClientIP(), dependencies_.configuration.ProxyProtocolFrom);
    if (is_balancer) dialogue_.ExpectHeader();
    if (without_memory) throw std::bad_alloc();
    if (is_balancer) {
      ExpectHeader(tls);
    } else {
      AdmitClient(tls);
    }
    Pump();
  });
}

void cProxy::AdmitClient(bool tls) {
  TellBegin();
  const Admission admission(dependencies_.configuration);
  const IPAddress ip = ClientIP();
  Whitelisted = admission.IsWhitelisted(ip);
  if (!Whitelisted) {
    if (const auto refusal = admission.RefusedByAddress(ip)) return Refuse(refusal->kind, refusal->list);
  }
  ArmTimeout();
  if (tls) {
    StartTls({});
    BeginTls();
  } else {
    AdmitFurther();
  }
}

void cProxy::Refuse(ReplyKind kind, const DecidingList& list) {
  dialogue_.Say(kind, *this, list);
  Close();
}

void cProxy::AdmitFurther() {
  const bool name_decides = NameAdmissionApplies();
  try {
    Receiver.Socket().LookUpRemoteHostName(
        [this] { RunHandler("cProxy.Init", [this] { ClientNameKnown(); }); },
        dependencies_.configuration.ConfirmHostNames);
  } catch (const Error&) {
    // The client has closed already; it counts as a client without a name.
    ClientNameKnown();
  }
  if (!name_decides && stage_ == Stage::kAdmission) ConnectServer();
}

void cProxy::ClientNameKnown() {
  try {
    HostName = Receiver.Socket().RemoteHostName();
  } catch (const Error& error) {
    HostName.clear();
    name_is_temporary_ = error.Number() == socket_error::kTryAgain;
  }
  HostNameKnown = true;
  if (Receiver.Socket().RemoteHostNameFailed()) NoteNameFailure();
  if (stage_ == Stage::kAdmission && AdmitByName()) ConnectServer();
  Pump();
}

void cProxy::NoteNameFailure() {
  if (dependencies_.configuration.Service.DnsFailure != dns_failure::kUnknown) return;
  constexpr std::string_view kText = "Name look-up failed.";
  // A server that is told of the client hears the same.
  name_is_unknown_ = name_is_temporary_ = true;
  Receiver.Log(log_level::kErrors, kText);
  if (dependencies_.observer != nullptr)
    dependencies_.observer->OnFailure(*this, true, socket_error::kTryAgain, kText);
}

bool cProxy::NameAdmissionApplies() const {
  return Admission(dependencies_.configuration).NameDecides(IsLocalClient(), Whitelisted);
}

bool cProxy::AdmitByName() {
  if (!NameAdmissionApplies()) return true;
  const auto name = name_is_unknown_ ? std::nullopt : std::optional<std::string_view>(HostName);
  const auto refusal = Admission(dependencies_.configuration).RefusedByName(name);
  if (!refusal) return true;
  dialogue_.Say(refusal->kind, *this, refusal->list);
  return false;
}

void cProxy::ConnectServer() {
  stage_ = Stage::kAdmitted;
  AwaitServer();
  if (dependencies_.observer != nullptr) state_began_ = dependencies_.clock.Monotonic();
  try {
    Sender.Socket().Connect(dependencies_.configuration.ServerIP, dependencies_.configuration.ServerPort);
  } catch (const Error& error) {
    // However the connection fails, the client gets a reply.
    Sender.NoteFailure(error.Number(), error.Description());
  }
}

bool cProxy::IsLocalClient() const {
  // What a balancer cannot describe would come in under its own address, which is often a local one.
  if (is_balancers_own_) return false;
  if (!IsLocal) IsLocal = Admission(dependencies_.configuration).IsLocal(ClientIP());
  return *IsLocal;
}

}  // namespace trabex
