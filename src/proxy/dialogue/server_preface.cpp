#include "proxy/dialogue/server_preface.h"

#include <algorithm>

#include "base/text.h"
#include "proxy/dialogue/reply_code.h"

namespace trabex {

namespace {

constexpr std::string_view kStarttls = "STARTTLS";
constexpr std::string_view kXclient = "XCLIENT";

// Replies to XCLIENT that are about us: it does not trust us, or cannot read what we say.
constexpr std::string_view kXclientRefusals[] = {"501", "503", "550"};

bool HasOnly(std::string_view reply, std::string_view code) {
  return CodeOf(reply) == code && HasOneCode(reply);
}

}  // namespace

ServerPreface::ServerPreface(ServerPrefacePlan plan)
    : plan_(std::move(plan)), state_(plan_.tls_at_once ? State::kHandshake : State::kGreeting) {}

ServerPreface::Step ServerPreface::Begin() const {
  return {plan_.tls_at_once ? Step::Kind::kStartTls : Step::Kind::kWait, {}};
}

ServerPreface::Step ServerPreface::OnReply(std::string_view reply, bool more_follows) {
  if (reply.ends_with(kCrLf)) reply.remove_suffix(kCrLf.size());
  if (!AwaitsReply() || !IsWellFormedReply(reply)) return OnNonsense();
  if (more_follows) {
    // Sent by who cannot speak TLS, to be taken for what the server said under it.
    const bool behind_starttls = state_ == State::kStarttls && HasOnly(reply, "220");
    return behind_starttls ? Refuse("data behind STARTTLS") : OnNonsense();
  }
  switch (state_) {
    case State::kGreeting:
      return OnGreeting(reply);
    case State::kEhlo:
      return OnEhloReply(reply);
    case State::kStarttls:
      return OnStarttlsReply(reply);
    case State::kXclient:
      return OnXclientReply(reply);
    case State::kHandshake:
    case State::kNames:
    case State::kOver:
      break;
  }
  return OnNonsense();
}

ServerPreface::Step ServerPreface::OnGreeting(std::string_view reply) {
  if (!HasOnly(reply, "220")) return Greet(reply, true);
  greeting_ = reply;
  return SendEhlo();
}

ServerPreface::Step ServerPreface::SendEhlo() {
  return Send(State::kEhlo, "EHLO " + plan_.local_host_name);
}

ServerPreface::Step ServerPreface::OnEhloReply(std::string_view reply) {
  if (CodeOf(reply) != "250" || CodeOf(LastLine(reply)) != "250") {
    if (plan_.IsRequired()) return Refuse("EHLO refused");
    return Greet(greeting_, false);
  }
  extensions_.Clear();
  // The first line holds the server's name.
  extensions_.ParseLines(reply.substr(std::min(reply.find(kCrLf), reply.size())));
  if (!plan_.starttls || secured_) return TellClient();
  if (extensions_.Has(kStarttls)) return Send(State::kStarttls, std::string(kStarttls));
  return plan_.requires_tls ? Refuse("STARTTLS not offered") : TellClient();
}

ServerPreface::Step ServerPreface::OnStarttlsReply(std::string_view reply) {
  if (HasOnly(reply, "220")) {
    state_ = State::kHandshake;
    return {Step::Kind::kStartTls, {}};
  }
  return plan_.requires_tls ? Refuse("STARTTLS refused") : TellClient();
}

ServerPreface::Step ServerPreface::OnSecured() {
  if (state_ != State::kHandshake) return OnNonsense();
  secured_ = true;
  if (plan_.tls_at_once) {
    state_ = State::kGreeting;
    return {plan_.NeedsEhlo() ? Step::Kind::kWait : Step::Kind::kGoOn, {}};
  }
  // What was said in the clear counts no more (RFC 3207, 4.2).
  return plan_.xclient ? SendEhlo() : Greet(greeting_, false);
}

ServerPreface::Step ServerPreface::TellClient() {
  if (!plan_.xclient) return Greet(greeting_, false);
  if (!OffersXclient(extensions_.GetExtension(kXclient))) return Refuse("XCLIENT not offered");
  state_ = State::kNames;
  return {Step::Kind::kAskForNames, {}};
}

ServerPreface::Step ServerPreface::OnNames(const ProxiedConnection& connection, const ClientNames& names) {
  if (state_ != State::kNames) return OnNonsense();
  return Send(State::kXclient, FormatXclient(extensions_.GetExtension(kXclient), connection, names));
}

ServerPreface::Step ServerPreface::OnXclientReply(std::string_view reply) {
  const std::string_view code = CodeOf(reply);
  if (std::find(std::begin(kXclientRefusals), std::end(kXclientRefusals), code) !=
      std::end(kXclientRefusals)) {
    return Refuse("XCLIENT refused");
  }
  return Greet(reply, !HasOnly(reply, "220"));
}

ServerPreface::Step ServerPreface::Send(State next, std::string command) {
  state_ = next;
  return {Step::Kind::kSend, command.append(kCrLf)};
}

ServerPreface::Step ServerPreface::Greet(std::string_view greeting, bool is_refusal) {
  state_ = State::kOver;
  return {Step::Kind::kGreet, std::string(greeting).append(kCrLf), is_refusal && plan_.IsRequired()};
}

}  // namespace trabex
