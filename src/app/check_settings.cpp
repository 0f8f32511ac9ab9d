#include "app/check_settings.h"

#include <memory>
#include <utility>

#include "app/certificates.h"
#include "app/program.h"
#include "config/section_store.h"

namespace trabex {

namespace {

// Takes what the certificates say as errors of section TLS.
class CertificateFindings final : public Log {
 public:
  CertificateFindings(CheckedConfiguration& checked, Finding::Severity severity)
      : checked_(checked), severity_(severity) {}
  void LogLine(std::string_view /*message*/) override {}

 private:
  void TakeProblem(std::string_view message, std::string_view /*addition*/) override {
    checked_.findings.push_back({.file = checked_.server_finding.file,
                                 .severity = severity_,
                                 .section = std::string(section_name::kTLS),
                                 .text = std::string(message)});
  }

  CheckedConfiguration& checked_;
  Finding::Severity severity_;
};

void CheckCertificates(Program& program, CheckedConfiguration& checked) {
  // Keys that only root may read were read at the start; a reload that leaves section TLS as it is leaves them in force.
  const bool stays =
      program.user_given && program.window && checked.configuration.TLS == program.configuration.TLS;
  CertificateFindings log(checked, stays ? Finding::Severity::kWarning : Finding::Severity::kError);
  TlsContexts contexts;
  Certificates(checked.configuration, log, program.dependencies.clock, program.loop, contexts).Follow();
}

}  // namespace

void CheckSettings(Program& program, const std::string& file, Configuration initial, AskNames ask_names,
                   std::function<void(CheckedConfiguration checked)> done) {
  CheckedConfiguration checked = CheckConfiguration({.file = file,
                                                     .early = program.MakeEarlyKeyInputs(),
                                                     .context = program.MakeSettingContext(),
                                                     .unanswered = program.unanswered},
                                                    std::move(initial));
  if (!checked.was_read) return done(std::move(checked));
  CheckCertificates(program, checked);

  std::vector<IPAddress> own;
  program.sockets.LocalAddresses(own);
  const std::string server = checked.configuration.ServerIP;
  if (const std::optional<IPAddress> address = program.names->ResolveLocally(server)) {
    CheckServer({0, {*address}}, own, checked);
    return done(std::move(checked));
  }
  if (ask_names == AskNames::kNo) return done(std::move(checked));
  // Shared, because what the look-up calls has to be copied.
  auto waiting = std::make_shared<CheckedConfiguration>(std::move(checked));
  program.names->FindAddresses(server, LookupFamily::kIPv4First,
                               [waiting, own, done = std::move(done)](const AddressAnswer& answer) {
                                 CheckServer(answer, own, *waiting);
                                 done(std::move(*waiting));
                               });
}

}  // namespace trabex
