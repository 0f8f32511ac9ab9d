#include "app/certificates.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/text.h"
#include "platform/files.h"
#include "platform/permissions.h"
#include "platform/sandbox.h"
#include "tls/tls_context.h"
#include "tls/tls_facts.h"

namespace trabex {

namespace {

using What = TlsLoadReport::Failure::What;

// Two times that are a day apart may differ by less than it when they are kept in days.
constexpr double kRounding = 0.001 / kSecondsPerDay;

TlsVersion MinVersion(std::string_view setting) {
  if (setting == "1.0") return TlsVersion::k1_0;
  if (setting == "1.1") return TlsVersion::k1_1;
  return setting == "1.3" ? TlsVersion::k1_3 : TlsVersion::k1_2;
}

TlsClientCertificates AskedOfClients(std::int32_t setting) {
  switch (setting) {
    case client_certificates::kAsked:
      return TlsClientCertificates::kAsked;
    case client_certificates::kRequired:
      return TlsClientCertificates::kRequired;
    default:
      return TlsClientCertificates::kNone;
  }
}

TlsServerOptions ServerOptions(const TLSSettings& tls) {
  TlsServerOptions options{.certificates = {},
                           .min_version = MinVersion(tls.MinVersion),
                           .ciphers = tls.Ciphers,
                           .client_certificates = AskedOfClients(tls.ClientCertificates),
                           .client_ca = NativePath(tls.ClientCA),
                           .session_tickets = tls.SessionTickets};
  for (const CertificateFiles& files : tls.Certificate) {
    options.certificates.push_back({NativePath(files.chain), NativePath(files.key)});
  }
  return options;
}

TlsClientOptions ClientOptions(const TLSSettings& tls, const std::string& server_name) {
  return {.min_version = MinVersion(tls.MinVersion),
          .ciphers = tls.Ciphers,
          .verify = tls.ServerVerify,
          .server_name = server_name,
          .server_ca = NativePath(tls.ServerCA)};
}

bool IsSame(const TlsLoadReport::Certificate& a, const TlsLoadReport::Certificate& b) {
  return a.files == b.files && a.names == b.names && a.valid_until == b.valid_until;
}

DateTime Universal(std::chrono::sys_seconds time) {
  return FromUnix(time.time_since_epoch().count(), 0);
}

}  // namespace

std::vector<std::string> FilesOf(const TLSSettings& tls) {
  std::vector<std::string> files;
  const auto add = [&](const std::string& file) {
    if (!file.empty()) files.push_back(NativePath(file));
  };
  for (const CertificateFiles& certificate : tls.Certificate) {
    add(certificate.chain);
    if (certificate.key != certificate.chain) add(certificate.key);
  }
  if (!tls.Certificate.empty() && tls.ClientCertificates != client_certificates::kNotAsked) add(tls.ClientCA);
  if (tls.Server != server_tls::kNone) add(tls.ServerCA);
  return files;
}

Certificates::Certificates(const Configuration& configuration, Log& log, const Clock& clock, EventLoop& loop,
                           TlsContexts& contexts)
    : configuration_(configuration),
      log_(log),
      clock_(clock),
      contexts_(contexts),
      probe_(loop, log),
      tmrLook(loop, kBetweenLooks, [this] { tmrLook_Timer(); }) {}

void Certificates::Follow() {
  const TLSSettings& tls = configuration_.TLS;
  Wanted wanted{tls, tls.ServerName.empty() ? configuration_.ServerIP : tls.ServerName};
  if (wanted_ == wanted) return;
  wanted_ = std::move(wanted);
  probe_.Cancel();  // it may wait for files that are not in use any more
  // Before they are read, so that a change meanwhile is seen at the next look.
  watch_.Begin(FilesOf(tls));
  Load();
  if (watch_.HasFiles()) {
    tmrLook.Enable();
  } else {
    tmrLook.Disable();
  }
}

void Certificates::tmrLook_Timer() {
  if (!probe_.Running()) probe_.Read(watch_.Files(), [this] { Look(); });
  LogThoseThatExpire();
}

void Certificates::Look() {
  if (watch_.Look() && Load()) log_.LogLine("Certificates reloaded.");
}

bool Certificates::Load() {
  const TLSSettings& tls = wanted_->tls;
  TlsLoadReport report;
  try {
    const RootRights rights;  // a key is often for nobody else
    TlsContexts loaded;
    if (!tls.Certificate.empty()) {
      loaded.for_clients = TlsContext::ForServer(ServerOptions(tls), report, contexts_.for_clients.get());
    }
    if (tls.Server != server_tls::kNone) {
      loaded.for_server =
          TlsContext::ForClient(ClientOptions(tls, wanted_->server_name), report, contexts_.for_server.get());
    }
    contexts_ = std::move(loaded);
  } catch (const Error& error) {
    log_.LogProblem(error);
    return false;
  }
  for (const TlsLoadReport::Failure& failure : report.failures) LogFailure(failure);
  TakeCertificates(report.certificates);
  LogThoseThatExpire();
  return report.failures.empty();
}

void Certificates::LogFailure(const TlsLoadReport::Failure& failure) {
  const auto subject = [&]() -> std::string {
    switch (failure.what) {
      case What::kCertificate:
        return "load certificate " + Quoted(failure.file);
      case What::kClientCa:
        return "load ClientCA " + Quoted(failure.file);
      case What::kServerCa:
        return "load ServerCA " + Quoted(failure.file);
      case What::kCiphers:
        break;
    }
    return "use Ciphers " + Quoted(wanted_->tls.Ciphers);
  };
  const std::string reason = SandboxForbidsReading(failure.file) ? kOutsideSandbox : failure.reason;
  log_.LogProblem("Unable to " + subject() + ". " + reason + "." +
                  (failure.kept ? " The one in force stays." : ""));
}

void Certificates::TakeCertificates(const std::vector<TlsLoadReport::Certificate>& certificates) {
  std::vector<Known> known;
  for (const TlsLoadReport::Certificate& certificate : certificates) {
    const auto before = std::find_if(known_.begin(), known_.end(),
                                     [&](const Known& k) { return IsSame(k.certificate, certificate); });
    if (before != known_.end()) {
      known.push_back(*before);
      continue;
    }
    std::string names;
    for (const std::string& name : certificate.names) {
      names += (names.empty() ? "" : ", ") + CleanPeerText(name, kMaxServerName);
    }
    log_.LogLine("Certificate " + Quoted(certificate.files.chain) + ": " + names + "; valid until " +
                 LocalDate(certificate.valid_until) + ".");
    known.push_back({certificate, std::nullopt});
  }
  known_ = std::move(known);
}

void Certificates::LogThoseThatExpire() {
  const DateTime now = clock_.UniversalNow();
  for (Known& known : known_) {
    if (Universal(known.certificate.valid_until) - now > kNoticeDays) continue;
    // In either direction: a clock that was set back must not put the next line off.
    if (known.last_notice && std::abs(now - *known.last_notice) + kRounding < 1) continue;
    known.last_notice = now;
    log_.LogLine("Certificate " + Quoted(known.certificate.files.chain) + " expires at " +
                 LocalDate(known.certificate.valid_until) + ".");
  }
}

std::string Certificates::LocalDate(std::chrono::sys_seconds time) const {
  return FormatGeneralDate(Universal(time) - clock_.TimeZoneBias() / kMinutesPerDay);
}

}  // namespace trabex
